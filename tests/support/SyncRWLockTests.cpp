// The recursive reader/writer lock with real threads, and its misuse and construction order in
// a probe process of its own.
#include "support/SyncRWLock.h"
#include "tests/support/SuiteFixture.h"

#include <cctype>
#include <functional>
#include <sstream>

using namespace testing_support;

namespace {

constexpr DWORD kBlocked = 250;   // long enough to be sure a step is waiting
constexpr DWORD kPrompt = 5000;   // a step that should finish does so well within this
constexpr DWORD kAbsentThread = 0x7FFF0004;  // no thread has this id

// One thread that runs the steps it is handed, one at a time.
struct Actor {
    HANDLE work = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE done = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    std::function<void()> step;
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, &Actor::Loop, this, 0, &id);

    static DWORD WINAPI Loop(void* self)
    {
        auto* actor = static_cast<Actor*>(self);
        // An actor left idle for a minute gives up, so that no wait is unbounded.
        while (WaitForSingleObject(actor->work, 60000) == WAIT_OBJECT_0 && actor->step) {
            actor->step();
            SetEvent(actor->done);
        }
        return 0;
    }
    void Start(std::function<void()> next)
    {
        step = std::move(next);  // an empty step ends the loop
        ResetEvent(done);
        SetEvent(work);
    }
    bool Idle(DWORD timeoutMs) { return WaitForSingleObject(done, timeoutMs) == WAIT_OBJECT_0; }
    ~Actor()
    {
        if (Idle(kPrompt)) {
            Start(nullptr);
            WaitForSingleObject(thread, kPrompt);
        } else {
            ADD_FAILURE() << "thread " << id << " is still blocked in the lock";
            TerminateThread(thread, 1);
        }
        for (HANDLE handle : {thread, work, done}) {
            CloseHandle(handle);
        }
    }
};

// Plays a scenario of space-separated steps on one lock and five actors. "N<ops>" hands actor
// N lock operations: R/r LockRead/UnlockRead, W/w LockWrite/UnlockWrite, each for N's own
// thread or, followed by a digit M or 'x', for actor M's thread or an id no thread has. They
// must finish promptly, or with a final '?' must stay blocked. "N!": N's blocked step now
// finishes promptly; "N~": it is still blocked.
void Play(const std::string& scenario)
{
    using Operation = void (support::CSyncRWLock::*)(DWORD);
    static constexpr Operation kOperations[] = {
        &support::CSyncRWLock::LockRead, &support::CSyncRWLock::UnlockRead,
        &support::CSyncRWLock::LockWrite, &support::CSyncRWLock::UnlockWrite};
    support::CSyncRWLock lock;
    Actor actors[5];
    std::istringstream steps(scenario);
    for (std::string step; steps >> step;) {
        SCOPED_TRACE(step);
        Actor& actor = actors[step[0] - '0'];
        if (step[1] == '!' || step[1] == '~') {
            ASSERT_EQ(actor.Idle(step[1] == '!' ? kPrompt : kBlocked), step[1] == '!');
            continue;
        }
        const bool blocks = step.back() == '?';
        actor.Start([&lock, &actors, ops = step.substr(1, step.size() - 1 - blocks)] {
            for (size_t i = 0; i < ops.size(); ++i) {
                const char target = ops[i + 1];  // '\0' after the last
                const DWORD id = target == 'x' ? kAbsentThread : std::isdigit(target) ? actors[target - '0'].id : 0;
                (lock.*kOperations[std::string("RrWw").find(ops[i])])(id);
                i += id != 0 ? 1 : 0;
            }
        });
        ASSERT_EQ(actor.Idle(blocks ? kBlocked : kPrompt), !blocks);
    }
}

TEST(SyncRWLock, ScenariosWithRealThreads)
{
    const char* const scenarios[] = {
        // Nested reads need as many unlocks before a writer gets in.
        "0RRr 1W? 0r 1! 1w",
        // The writer nests and reads while it writes; a reader gets in only once all are back.
        "0WWR 1R? 0rw 1~ 0w 1!",
        "0WWR 1R? 0ww 1~ 0r 1!",
        // A waiting writer holds back a new reader and goes first.
        "0R 1W? 2R? 0r 1! 2~ 1w 2!",
        // Waiting writers are served before waiting readers.
        "0W 1R? 2W? 0w 2! 1~ 2w 1!",
        // A finished writer lets three waiting readers in together; a writer then waits for all.
        "0W 1R? 2R? 3R? 0w 1! 2! 3! 4W? 1r 4~ 2r 4~ 3r 4!",
        // One thread locks and unlocks on behalf of another thread id.
        "0WxRx 1R? 0wx 1~ 0rx 1! 2W? 0r1 2!",
    };
    for (const char* scenario : scenarios) {
        SCOPED_TRACE(scenario);
        Play(scenario);
    }
}

using SyncRWLockProcess = support_tests::SuiteFolder;

TEST_F(SyncRWLockProcess, MisuseEndsTheProcessAndTheProcessLockIsBuiltFirst)
{
    // Unlocks of what is not held (also another id's read or write), an upgrade, and a writer
    // giving back one read too many.
    for (const wchar_t* misuse : {L"r", L"Rxr", L"w", L"Wwx", L"RW", L"WRrr"}) {
        SCOPED_TRACE(Utf8(misuse));
        EXPECT_EQ(RunProbe(std::wstring(L"lock ") + misuse), support::kSyncRWLockMisuse);
    }
    EXPECT_EQ(RunProbe(L"lock WRrw"), 0u) << "correct use";
    EXPECT_EQ(RunProbe(L"lock early"), 0u) << "built before the other globals, destroyed after them";
}

} // namespace
