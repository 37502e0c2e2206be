// The recursive reader/writer lock with real threads; its misuse in probe processes.
#include "tests/support/SupportFolder.h"

#include <cctype>
#include <functional>
#include <sstream>

using namespace testing_support;

void ApplyLockOps(support::ISyncRWLock& lock, const std::string& ops, const DWORD* ids)
{
    using Operation = void (support::ISyncRWLock::*)(DWORD);
    static constexpr Operation kOperations[] = {&support::ISyncRWLock::LockRead, &support::ISyncRWLock::UnlockRead,
                                                &support::ISyncRWLock::LockWrite, &support::ISyncRWLock::UnlockWrite};
    for (size_t i = 0; i < ops.size(); ++i) {
        const char target = i + 1 < ops.size() ? ops[i + 1] : '\0';
        const DWORD id = target == 'x' ? 0x7FFF0004 : std::isdigit(target) ? ids[target - '0'] : 0;
        (lock.*kOperations[std::string("RrWw").find(ops[i])])(id);
        i += target == 'x' || std::isdigit(target) ? 1 : 0;
    }
}

namespace {

constexpr DWORD kBlocked = 250;  // long enough to be sure a step is waiting
constexpr DWORD kPrompt = 5000;  // a step that should finish does so well within this

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

// Plays space-separated steps on one lock with four actors. "N<ops>" hands actor N lock
// operations (ApplyLockOps, a digit naming an actor) that must finish promptly, or with a final
// '?' must stay blocked. "N!": N's blocked step now finishes promptly; "N~": it is still blocked.
void Play(const std::string& scenario)
{
    support::CSyncRWLock lock;
    Actor actors[4];
    const DWORD ids[] = {actors[0].id, actors[1].id, actors[2].id, actors[3].id};
    std::istringstream steps(scenario);
    for (std::string step; steps >> step;) {
        SCOPED_TRACE(step);
        Actor& actor = actors[step[0] - '0'];
        if (step[1] == '!' || step[1] == '~') {
            ASSERT_EQ(actor.Idle(step[1] == '!' ? kPrompt : kBlocked), step[1] == '!');
            continue;
        }
        const bool blocks = step.back() == '?';
        const std::string ops = step.substr(1, step.size() - 1 - blocks);
        actor.Start([&lock, &ids, ops] { ApplyLockOps(lock, ops, ids); });
        ASSERT_EQ(actor.Idle(blocks ? kBlocked : kPrompt), !blocks);
    }
}

TEST(SyncRWLock, ScenariosWithRealThreads)
{
    for (const char* scenario : {
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
             "0W 1R? 2R? 3R? 0w 1! 2! 3! 0W? 1r 0~ 2r 0~ 3r 0!",
             // One thread locks and unlocks on behalf of another thread id.
             "0WxRx 1R? 0wx 1~ 0rx 1! 2W? 0r1 2!",
         }) {
        SCOPED_TRACE(scenario);
        Play(scenario);
    }
}

using SyncRWLockProbe = SupportFolder;

// The probe runs the operations on the process-wide lock before any other global is built: a
// lock built later would not have worked (or would have been reset under the operations).
TEST_F(SyncRWLockProbe, MisuseEndsTheProcess)
{
    // Unlocks of what is not held (also another id's read or write), an upgrade, and a writer
    // giving back one read too many; last, correct use.
    for (const auto& [ops, exitCode] : std::initializer_list<std::pair<const wchar_t*, DWORD>>{
             {L"r", 0xC0000420}, {L"Rxr", 0xC0000420}, {L"w", 0xC0000420}, {L"Wwx", 0xC0000420},
             {L"RW", 0xC0000420}, {L"WRrr", 0xC0000420}, {L"WRrwRxrx", 0}}) {
        SCOPED_TRACE(Utf8(ops));
        EXPECT_EQ(Probe(std::wstring(L"lock:") + ops), exitCode);
    }
}

} // namespace
