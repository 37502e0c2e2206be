#include "support/SyncRWLock.h"

namespace support {

namespace {

constexpr LONG kGateMaximum = 0x7FFFFFFF;

DWORD Resolve(DWORD threadId)
{
    return threadId != 0 ? threadId : GetCurrentThreadId();
}

[[noreturn]] void EndProcess(DWORD exceptionCode)
{
    // Non-continuable: a handler may look at it but can never resume after it.
    RaiseException(exceptionCode, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    TerminateProcess(GetCurrentProcess(), exceptionCode);  // not reached
    ExitProcess(exceptionCode);
}

// A lock without its gates could never wake a waiter, so it is not built at all.
UniqueHandle CreateGate()
{
    UniqueHandle gate(CreateSemaphoreW(nullptr,  // default security
                                       0, kGateMaximum,
                                       nullptr));  // unnamed
    if (!gate) {
        EndProcess(kSyncRWLockNoGate);
    }
    return gate;
}

// Built before every other global object of the program (101 is the first priority open to
// programs; everything without one comes later), so any constructor may already lock it, and
// destroyed after all of them.
CSyncRWLock g_processLock __attribute__((init_priority(101)));

} // namespace

// Nothing in the program calls into this file, so the linker would leave it, and the global
// above, out of the program. mg_support asks for this symbol on every link to keep it in.
extern "C" {
extern const int morrowgate_process_lock_anchor;
const int morrowgate_process_lock_anchor = 0;
}

ISyncRWLock& ProcessSyncRWLock()
{
    return g_processLock;
}

CSyncRWLock::CSyncRWLock() : m_readerGate(CreateGate()), m_writerGate(CreateGate())
{
    InitializeCriticalSection(&m_guard);
}

CSyncRWLock::~CSyncRWLock()
{
    DeleteCriticalSection(&m_guard);
}

void CSyncRWLock::LockRead(DWORD threadId)
{
    threadId = Resolve(threadId);
    EnterCriticalSection(&m_guard);
    if (m_activeReaders > 0) {
        if (auto reader = m_readers.find(threadId); reader != m_readers.end()) {
            ++reader->second;
            LeaveCriticalSection(&m_guard);
            return;
        }
        if (m_waitingWriters > 0) {
            WaitAsReader(threadId);  // queue behind the writer
            return;
        }
    } else if (m_writerPresent != 0) {
        if (m_writerThread == threadId) {
            ++m_writerReads;
            LeaveCriticalSection(&m_guard);
            return;
        }
        WaitAsReader(threadId);
        return;
    } else if (m_waitingWriters > 0) {
        WaitAsReader(threadId);
        return;
    }
    m_readers[threadId] = 1;
    ++m_activeReaders;
    LeaveCriticalSection(&m_guard);
}

void CSyncRWLock::UnlockRead(DWORD threadId)
{
    threadId = Resolve(threadId);
    EnterCriticalSection(&m_guard);
    if (m_activeReaders > 0) {
        auto reader = m_readers.find(threadId);
        if (reader == m_readers.end()) {
            Misuse();
        }
        if (reader->second > 1) {
            --reader->second;
            LeaveCriticalSection(&m_guard);
            return;
        }
        m_readers.erase(reader);
        --m_activeReaders;
        if (m_activeReaders == 0 && m_waitingWriters > 0) {
            --m_waitingWriters;
            m_writerPresent = 1;  // settled here, so nobody slips in before the writer wakes
            LeaveCriticalSection(&m_guard);
            ReleaseSemaphore(m_writerGate.get(), 1, nullptr);
            return;
        }
        LeaveCriticalSection(&m_guard);
        return;
    }
    // No reading threads: only one of the writer's own reads can be given back.
    if (m_writerPresent == 0 || m_writerThread != threadId || m_writerReads == 0) {
        Misuse();
    }
    --m_writerReads;
    if (m_writerReads > 0 || m_writerDepth > 0) {
        LeaveCriticalSection(&m_guard);
        return;
    }
    HandOverAndLeave();
}

void CSyncRWLock::LockWrite(DWORD threadId)
{
    threadId = Resolve(threadId);
    EnterCriticalSection(&m_guard);
    if (m_activeReaders == 0) {
        if (m_writerPresent == 0) {
            m_writerPresent = 1;
            m_writerThread = threadId;
            m_writerReads = 0;
            m_writerDepth = 1;
            LeaveCriticalSection(&m_guard);
            return;
        }
        if (m_writerThread == threadId) {
            ++m_writerDepth;
            LeaveCriticalSection(&m_guard);
            return;
        }
    } else if (m_readers.count(threadId) != 0) {
        Misuse();  // a read hold cannot be upgraded: it would wait for itself
    }
    WaitAsWriter(threadId);
}

void CSyncRWLock::UnlockWrite(DWORD threadId)
{
    threadId = Resolve(threadId);
    EnterCriticalSection(&m_guard);
    if (m_writerPresent == 0 || m_writerThread != threadId || m_writerDepth == 0) {
        Misuse();
    }
    --m_writerDepth;
    if (m_writerReads == 0 && m_writerDepth == 0) {
        HandOverAndLeave();
        return;
    }
    LeaveCriticalSection(&m_guard);
}

void CSyncRWLock::WaitAsReader(DWORD threadId)
{
    ++m_waitingReaders;
    LeaveCriticalSection(&m_guard);
    WaitForSingleObject(m_readerGate.get(), INFINITE);
    // Whoever opened the gate has already counted this thread as an active reader.
    EnterCriticalSection(&m_guard);
    m_readers[threadId] = 1;
    LeaveCriticalSection(&m_guard);
}

void CSyncRWLock::WaitAsWriter(DWORD threadId)
{
    ++m_waitingWriters;
    LeaveCriticalSection(&m_guard);
    WaitForSingleObject(m_writerGate.get(), INFINITE);
    // Whoever opened the gate has already set the writer present.
    EnterCriticalSection(&m_guard);
    m_writerThread = threadId;
    m_writerReads = 0;
    m_writerDepth = 1;
    LeaveCriticalSection(&m_guard);
}

void CSyncRWLock::HandOverAndLeave()
{
    m_writerPresent = 0;
    m_writerThread = 0;
    if (m_waitingWriters > 0) {  // writers always go before readers
        --m_waitingWriters;
        m_writerPresent = 1;
        LeaveCriticalSection(&m_guard);
        ReleaseSemaphore(m_writerGate.get(), 1, nullptr);
        return;
    }
    if (m_waitingReaders > 0) {
        const DWORD released = m_waitingReaders;
        m_activeReaders = released;
        m_waitingReaders = 0;
        LeaveCriticalSection(&m_guard);
        ReleaseSemaphore(m_readerGate.get(), static_cast<LONG>(released), nullptr);
        return;
    }
    LeaveCriticalSection(&m_guard);
}

void CSyncRWLock::Misuse()
{
    LeaveCriticalSection(&m_guard);
    EndProcess(kSyncRWLockMisuse);
}

} // namespace support
