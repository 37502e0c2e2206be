// A recursive reader/writer lock keyed by thread id. Readers nest, the writer nests and may
// read while it writes, and a waiting writer holds back new readers. Misuse (unlocking what
// the thread does not hold, or asking for a write while holding a read) ends the process.
#pragma once

#include "support/Handles.h"

#include <windows.h>

#include <map>

namespace support {

// Every operation takes the id of the thread it acts for; 0 means the calling thread.
class ISyncRWLock {
public:
    virtual void LockRead(DWORD threadId) = 0;
    virtual void UnlockRead(DWORD threadId) = 0;
    virtual void LockWrite(DWORD threadId) = 0;
    virtual void UnlockWrite(DWORD threadId) = 0;

protected:
    ~ISyncRWLock() = default;  // never deleted through the interface
};

class CSyncRWLock : public ISyncRWLock {
public:
    CSyncRWLock();
    ~CSyncRWLock();
    CSyncRWLock(const CSyncRWLock&) = delete;
    CSyncRWLock& operator=(const CSyncRWLock&) = delete;

    void LockRead(DWORD threadId) override;
    void UnlockRead(DWORD threadId) override;
    void LockWrite(DWORD threadId) override;
    void UnlockWrite(DWORD threadId) override;

private:
    void WaitAsReader(DWORD threadId);
    void WaitAsWriter(DWORD threadId);
    // Called inside the guard once the writer is gone; leaves the guard.
    void HandOverAndLeave();
    [[noreturn]] void Misuse();

    CRITICAL_SECTION m_guard;  // protects every field below
    UniqueHandle m_readerGate;  // readers wait here
    UniqueHandle m_writerGate;  // writers wait here
    DWORD m_waitingReaders = 0;
    DWORD m_waitingWriters = 0;
    DWORD m_activeReaders = 0;      // reading threads, not nested holds
    DWORD m_writerPresent = 0;      // 0 or 1
    DWORD m_writerThread = 0;
    DWORD m_writerReads = 0;        // read holds taken by the writer while it writes
    DWORD m_writerDepth = 0;
    std::map<DWORD, DWORD> m_readers;  // thread id -> read nesting count
};

// The process-wide lock, built before every other global object of the program and destroyed
// after them.
ISyncRWLock& ProcessSyncRWLock();

// The exception that ends the process on misuse.
constexpr DWORD kSyncRWLockMisuse = 0xC0000420;  // STATUS_ASSERTION_FAILURE
// The exception that ends it when the lock cannot get its semaphores.
constexpr DWORD kSyncRWLockNoGate = 0xC000009A;  // STATUS_INSUFFICIENT_RESOURCES

} // namespace support
