// The recursive reader/writer lock with real threads. Each Actor is one thread that runs the
// steps it is given; a step that does not finish within a short time is blocked in the lock.
#include "support/SyncRWLock.h"
#include "tests/support/SuiteFixture.h"

#include <functional>
#include <utility>

using namespace testing_support;
using support::CSyncRWLock;

namespace {

constexpr DWORD kBlocked = 250;   // long enough to be sure a step is waiting
constexpr DWORD kPrompt = 5000;   // a step that should finish does so well within this

class Actor {
public:
    Actor()
        : m_work(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
          m_done(CreateEventW(nullptr, TRUE, TRUE, nullptr))
    {
        m_thread = CreateThread(nullptr, 0, &Actor::Loop, this, 0, &m_id);
    }
    ~Actor()
    {
        if (!Idle(kPrompt)) {
            ADD_FAILURE() << "thread " << m_id << " is still blocked in the lock";
            TerminateThread(m_thread, 1);
        } else {
            Start(nullptr);  // no step: leave the loop
            WaitForSingleObject(m_thread, kPrompt);
        }
        CloseHandle(m_thread);
        CloseHandle(m_work);
        CloseHandle(m_done);
    }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    DWORD Id() const { return m_id; }
    // Hands the thread a step; the thread must be idle.
    void Start(std::function<void()> step)
    {
        m_step = std::move(step);
        ResetEvent(m_done);
        SetEvent(m_work);
    }
    // True when the current step has finished, waiting at most timeoutMs.
    bool Idle(DWORD timeoutMs) { return WaitForSingleObject(m_done, timeoutMs) == WAIT_OBJECT_0; }
    // A step that must not block.
    bool Do(std::function<void()> step)
    {
        Start(std::move(step));
        return Idle(kPrompt);
    }

private:
    static DWORD WINAPI Loop(void* self)
    {
        auto* actor = static_cast<Actor*>(self);
        for (;;) {
            WaitForSingleObject(actor->m_work, INFINITE);
            if (!actor->m_step) {
                return 0;
            }
            actor->m_step();
            SetEvent(actor->m_done);
        }
    }

    HANDLE m_work;
    HANDLE m_done;
    HANDLE m_thread = nullptr;
    DWORD m_id = 0;
    std::function<void()> m_step;
};

TEST(SyncRWLock, NestedReadsNeedAsManyUnlocksBeforeAWriterGetsIn)
{
    CSyncRWLock lock;
    Actor reader, writer;
    ASSERT_TRUE(reader.Do([&] { lock.LockRead(0); lock.LockRead(0); lock.UnlockRead(0); }));
    writer.Start([&] { lock.LockWrite(0); });
    EXPECT_FALSE(writer.Idle(kBlocked)) << "one read is still held";
    ASSERT_TRUE(reader.Do([&] { lock.UnlockRead(0); }));
    EXPECT_TRUE(writer.Idle(kPrompt));
    EXPECT_TRUE(writer.Do([&] { lock.UnlockWrite(0); lock.LockWrite(0); lock.UnlockWrite(0); }));
}

TEST(SyncRWLock, WriterIsHandedOverOnlyWhenItsWritesAndReadsAreAllBack)
{
    for (const bool readsLast : {false, true}) {
        SCOPED_TRACE(readsLast ? "last unlock is a read" : "last unlock is a write");
        CSyncRWLock lock;
        Actor owner, reader;
        ASSERT_TRUE(owner.Do([&] { lock.LockWrite(0); lock.LockWrite(0); lock.LockRead(0); }));
        reader.Start([&] { lock.LockRead(0); });
        EXPECT_FALSE(reader.Idle(kBlocked));
        if (readsLast) {
            ASSERT_TRUE(owner.Do([&] { lock.UnlockWrite(0); lock.UnlockWrite(0); }));
        } else {
            ASSERT_TRUE(owner.Do([&] { lock.UnlockRead(0); lock.UnlockWrite(0); }));
        }
        EXPECT_FALSE(reader.Idle(kBlocked)) << "the writer still holds one";
        ASSERT_TRUE(owner.Do([&] { readsLast ? lock.UnlockRead(0) : lock.UnlockWrite(0); }));
        EXPECT_TRUE(reader.Idle(kPrompt));
    }
}

TEST(SyncRWLock, WaitingWriterHoldsBackNewReaders)
{
    CSyncRWLock lock;
    Actor first, writer, second;
    ASSERT_TRUE(first.Do([&] { lock.LockRead(0); }));
    writer.Start([&] { lock.LockWrite(0); });
    EXPECT_FALSE(writer.Idle(kBlocked));
    second.Start([&] { lock.LockRead(0); });
    EXPECT_FALSE(second.Idle(kBlocked)) << "a reader must queue behind the waiting writer";

    ASSERT_TRUE(first.Do([&] { lock.UnlockRead(0); }));
    EXPECT_TRUE(writer.Idle(kPrompt));
    EXPECT_FALSE(second.Idle(kBlocked)) << "the writer goes first";
    ASSERT_TRUE(writer.Do([&] { lock.UnlockWrite(0); }));
    EXPECT_TRUE(second.Idle(kPrompt));
}

TEST(SyncRWLock, WaitingWritersAreServedBeforeWaitingReaders)
{
    CSyncRWLock lock;
    Actor owner, reader, writer;
    ASSERT_TRUE(owner.Do([&] { lock.LockWrite(0); }));
    reader.Start([&] { lock.LockRead(0); });
    EXPECT_FALSE(reader.Idle(kBlocked));
    writer.Start([&] { lock.LockWrite(0); });
    EXPECT_FALSE(writer.Idle(kBlocked));

    ASSERT_TRUE(owner.Do([&] { lock.UnlockWrite(0); }));
    EXPECT_TRUE(writer.Idle(kPrompt)) << "the later writer overtakes the earlier reader";
    EXPECT_FALSE(reader.Idle(kBlocked));
    ASSERT_TRUE(writer.Do([&] { lock.UnlockWrite(0); }));
    EXPECT_TRUE(reader.Idle(kPrompt));
}

TEST(SyncRWLock, FinishedWriterLetsAllWaitingReadersInTogether)
{
    CSyncRWLock lock;
    Actor owner, late;
    Actor readers[3];
    ASSERT_TRUE(owner.Do([&] { lock.LockWrite(0); }));
    for (auto& reader : readers) {
        reader.Start([&] { lock.LockRead(0); });
    }
    for (auto& reader : readers) {
        EXPECT_FALSE(reader.Idle(kBlocked));
    }
    ASSERT_TRUE(owner.Do([&] { lock.UnlockWrite(0); }));
    for (auto& reader : readers) {
        EXPECT_TRUE(reader.Idle(kPrompt)) << "all three hold their read at the same time";
    }
    // Each of the three counts as an active reader: a writer waits until the last one leaves.
    late.Start([&] { lock.LockWrite(0); });
    for (auto& reader : readers) {
        EXPECT_FALSE(late.Idle(kBlocked));
        ASSERT_TRUE(reader.Do([&] { lock.UnlockRead(0); }));
    }
    EXPECT_TRUE(late.Idle(kPrompt));
}

TEST(SyncRWLock, ThreadIdLetsOneThreadLockAndUnlockForAnother)
{
    CSyncRWLock lock;
    Actor agent, reader, writer;
    const DWORD absent = 0x7FFF0004;  // no thread has this id
    ASSERT_TRUE(agent.Do([&] { lock.LockWrite(absent); lock.LockRead(absent); }))
        << "the write belongs to the given id, so its read does not wait";
    reader.Start([&] { lock.LockRead(0); });
    EXPECT_FALSE(reader.Idle(kBlocked));
    ASSERT_TRUE(agent.Do([&] { lock.UnlockWrite(absent); }));
    EXPECT_FALSE(reader.Idle(kBlocked)) << "the read taken for the writer is still held";
    ASSERT_TRUE(agent.Do([&] { lock.UnlockRead(absent); }));
    EXPECT_TRUE(reader.Idle(kPrompt));

    // The reader's hold is given back by the agent on its behalf.
    writer.Start([&] { lock.LockWrite(0); });
    EXPECT_FALSE(writer.Idle(kBlocked));
    ASSERT_TRUE(agent.Do([&] { lock.UnlockRead(reader.Id()); }));
    EXPECT_TRUE(writer.Idle(kPrompt));
}

class SyncRWLockProcess : public support_tests::SuiteFolder {
protected:
    void SetUp() override { PlaceProgram(L"supportprobe.exe"); }
};

TEST_F(SyncRWLockProcess, MisuseEndsTheProcess)
{
    for (const wchar_t* misuse : {L"unlock-read-unheld", L"unlock-read-of-other-reader",
                                  L"unlock-write-unheld", L"unlock-write-of-other-writer",
                                  L"upgrade", L"writer-unlocks-read-twice"}) {
        SCOPED_TRACE(Utf8(misuse));
        EXPECT_EQ(RunProbe(std::wstring(L"lock ") + misuse), support::kSyncRWLockMisuse);
    }
    EXPECT_EQ(RunProbe(L"lock balanced"), 0u);
}

TEST_F(SyncRWLockProcess, ProcessLockIsBuiltBeforeOtherGlobalsAndOutlivesThem)
{
    EXPECT_EQ(RunProbe(L"lock early"), 0u);
}

} // namespace
