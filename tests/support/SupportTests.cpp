// The support services. The reader/writer lock runs with real threads here; the rest runs in a
// copy of this program, the probe, placed with Morrowgate.exe in a folder of the test's own
// beside the double of the suite's libraries (tools/doubles/SuiteDouble.cpp), whose record shows
// which calls the libraries received and in what order.
#include "support/CrashHandler.h"
#include "support/LogDLL.h"
#include "support/ProductInfo.h"
#include "support/ScopeTrace.h"
#include "support/SyncRWLock.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>

using namespace testing_support;

namespace {

// Lock operations: R/r LockRead/UnlockRead, W/w LockWrite/UnlockWrite, each for the calling
// thread or, followed by a digit N or x, for the thread ids[N] or an id that no thread has.
void ApplyLockOps(support::ISyncRWLock& lock, const std::string& ops, const DWORD* ids)
{
    using Operation = void (support::ISyncRWLock::*)(DWORD);
    constexpr Operation kOperations[] = {&support::ISyncRWLock::LockRead, &support::ISyncRWLock::UnlockRead,
                                         &support::ISyncRWLock::LockWrite, &support::ISyncRWLock::UnlockWrite};
    for (size_t i = 0; i < ops.size(); ++i) {
        const char target = ops.c_str()[i + 1];  // '\0' after the last
        const bool other = target == 'x' || (target >= '0' && target <= '9');
        (lock.*kOperations[std::string("RrWw").find(ops[i])])(target == 'x' ? 0x7FFF0004 : other ? ids[target - '0'] : 0);
        i += other;
    }
}

// The probe's scenarios, each ending the process with its result:
//   open          the result of opening a product information connection, closed again
//   with, throw   WithProductInfo copying item 202 into a buffer of 7 characters: the buffer's
//                 length after it, 0 when the call-back did not run; "throw" then throws from
//                 the call-back: 1000 when that reached the caller
//   install       the result of InstallCrashHandler
//   lock:OPS      ApplyLockOps on the process-wide lock: 0, or the lock ends the process
//   held, unheld  logging with a hold (a 300-character scope holding a labelled one, 100 ms
//                 long) and without one
int PlayProbe(const std::wstring& scenario)
{
    wchar_t buffer[support::kProductStringChars] = L"preset!";
    try {
        if (scenario == L"open" || scenario == L"install") {
            return static_cast<int>(scenario == L"open" ? support::ProductInfoConnection().Open() : support::InstallCrashHandler());
        }
        if (scenario == L"with" || scenario == L"throw") {
            return support::WithProductInfo([&](support::IProductInfoUI* productInfo) {
                support::CopyProductString(productInfo, 202, buffer);
                scenario == L"throw" ? throw std::runtime_error("call-back failed") : void();
            }) ? static_cast<int>(std::wcslen(buffer)) : 0;
        }
    } catch (const std::runtime_error&) {
        return 1000;
    }
    if (scenario.starts_with(L"lock:")) {
        ApplyLockOps(support::ProcessSyncRWLock(), Utf8(scenario.substr(5)), nullptr);
    } else if (scenario == L"unheld") {
        QM_LOG_INFO(L"Probe::Unheld", L"dropped: nobody holds logging");
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"one");
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"two");
    } else {
        logging::LogHold hold;
        logging::ScopeTrace outer(std::wstring(300, L'n').c_str());
        logging::ScopeTrace inner(L"inner", L"Probe::Function");
        QM_LOG_INFO(inner.FunctionName(), L"info %d", 1);
        QM_LOG_ERROR(L"Probe::Function", L"error %s", L"two");
        Sleep(100);
    }
    return 0;
}

// Built right after the process-wide lock (priority 101) and before every other global: the
// lock scenarios must find the lock built. A probe never reaches GoogleTest.
struct ProbeStart {
    ProbeStart()
    {
        wchar_t scenario[64];
        if (const DWORD length = GetEnvironmentVariableW(L"SUPPORT_PROBE", scenario, 64); length > 0 && length < 64) {
            ExitProcess(static_cast<UINT>(PlayProbe(scenario)));
        }
    }
} g_probeStart __attribute__((init_priority(102)));

// The lines with the time in each exit line's last bracket, checked to cover the 100 ms that
// the scope lasts, replaced by "ms".
std::string WithoutTimes(std::string lines)
{
    for (size_t at = lines.find(": <- "); at != std::string::npos; at = lines.find(": <- ", at + 1)) {
        const size_t end = lines.find('\n', at), open = lines.rfind(" [", end);
        EXPECT_TRUE(std::stoi(lines.substr(open + 2)) >= 100 && std::stoi(lines.substr(open + 2)) < 10000) << lines.substr(at, end - at);
        lines.replace(open, end - open, " [ms]");
    }
    return lines;
}

// The probe and Morrowgate.exe; beside them the double as qmsvccfg.dll; an install folder with
// the double as qmcrash.dll, which the product key's AppPath names; a settings folder with a
// crash settings file. Items 400 and 202 of the product information name the settings folder
// and the product key.
struct SupportFolder : ::testing::Test {
    void SetUp() override
    {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        ASSERT_TRUE(CopyFileW(self, (m_dir / L"probe.exe").c_str(), FALSE) && CreateDirectoryW(m_install.c_str(), nullptr) &&
                    CreateDirectoryW(m_settings.c_str(), nullptr) &&
                    CopyFileW((ProgramFolder() + L"Morrowgate.exe").c_str(), (m_dir / L"Morrowgate.exe").c_str(), FALSE));
        WriteFileBytes(m_settings + L"\\qmcrash.xml", "<settings/>");
    }
    // Puts the defaults back, then applies the settings: "X.dll=V" places the double's variant V
    // that lacks an export as X ("": the double itself, "-": none), "AppPath=" and
    // "AppPath:expand=" write the product key's AppPath as REG_SZ and REG_EXPAND_SZ, and anything
    // else is set in the environment of the next runs (the double's settings).
    void Prepare(std::vector<std::wstring> settings)
    {
        m_environment = {L"DOUBLE_RECORD=" + m_record, L"DOUBLE_ITEM_400=" + m_settings, L"DOUBLE_ITEM_202=" + m_productKey.SubKey(),
                         L"DOUBLE_ENABLE_RESULT=0x80001234"};
        settings.insert(settings.begin(), {L"qmsvccfg.dll=", L"install\\qmcrash.dll=", L"qmtrace.dll=-", L"AppPath=" + m_install + L"\\Morrowgate.exe"});
        for (const std::wstring& setting : settings) {
            const std::wstring name = setting.substr(0, setting.find(L'=')), value = setting.substr(name.size() + 1);
            const std::wstring built = ProgramFolder() + L"..\\doubles\\suite_double" + (value.empty() ? L"" : L"_" + value) + L".dll";
            if (name.ends_with(L".dll")) {
                DeleteFileW((m_dir / name).c_str());
                ASSERT_TRUE(value == L"-" || CopyFileW(built.c_str(), (m_dir / name).c_str(), FALSE)) << Utf8(built);
            } else if (name.starts_with(L"AppPath")) {
                SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", value, name == L"AppPath" ? REG_SZ : REG_EXPAND_SZ);
            } else {
                m_environment.push_back(setting);
            }
        }
    }
    // Runs a program of the folder with a fresh record: its exit code, or 0xFFFFFFFF (which no
    // test expects) when it did not end in time.
    DWORD Run(const std::wstring& commandLine, const std::wstring& probe = L"")
    {
        DeleteFileW(m_record.c_str());
        m_environment.push_back(L"SUPPORT_PROBE=" + probe);
        return RunChild(L"\"" + m_dir.Path() + L"\\" + commandLine, {m_environment}).value_or(0xFFFFFFFF);
    }
    // What the doubles recorded in the last run, a line each.
    std::string Record() const { return ReadFileBytes(m_record).value_or(""); }

    TempDir m_dir;
    std::wstring m_record = m_dir / L"record.txt", m_install = m_dir / L"install", m_settings = m_dir / L"settings";
    ScratchKey m_productKey{HKEY_LOCAL_MACHINE, L"Software\\MorrowgateTests"};
    std::vector<std::wstring> m_environment;
};

// The product information library's calls as a connection is opened step by step, and closed.
const std::string kCreated = "load qmsvccfg.dll\nQmCreateObject productinfo\n", kInterface = kCreated + "GetInterface\n",
                  kInitialised = kInterface + "Init 0\n", kOpened = kInitialised + "Start\n",
                  kClosed = "Uninit\nRelease\nQmDestroyObject productinfo\nunload qmsvccfg.dll\n";
// The crash handler's installation asks for items 400 and 202, each over a connection of its own.
const std::string kQueries = kOpened + "GetString 400 Desktop\n" + kClosed + kOpened + "GetString 202 Desktop\n" + kClosed;
const std::string kEnabled = "load qmcrash.dll\nEnableCrashHandler 0 0 norestart\n";

TEST_F(SupportFolder, ScenariosSeenByTheSuiteLibraries)
{
    constexpr DWORD kMisuse = 0xC0000420, kEnableResult = 0x80001234, kFail = 0x80004005 /* E_FAIL */;
    const std::string called = kOpened + "GetString 202 Desktop\n", loadedOnly = "load qmsvccfg.dll\nunload qmsvccfg.dll\n";
    const std::string withSettings = "load qmcrash.dll\nSetSettingsFile " + Utf8(m_settings) + "\\qmcrash.xml\nEnableCrashHandler 0 0 norestart\n";
    const std::string name(258, 'n'), function(260, 'n');  // of a qualified name of 300 characters
    const std::string held = "LogWrite 1 32 program " + function + ": -> " + name + "()\nLogWrite 1 32 program Probe::Function: -> [inner]\n"
                             "LogWrite 0 16 program Probe::Function: info 1\nLogWrite 0 8 program Probe::Function: error two\n"
                             "LogWrite -1 32 program Probe::Function: <- [inner] [ms]\nLogWrite -1 32 program " + function + ": <- " + name + "() [ms]\n";
    const std::string teardown = "LogDeinit\nLogUninitDeskMetrics\nLogRemoveModule logging::CLogDLL::~CLogDLL\nunload qmtrace.dll\n";
    const struct {
        std::wstring scenario;
        std::vector<std::wstring> settings;  // see Prepare
        DWORD exitCode;
        std::string record;
    } rows[] = {
        // On the process-wide lock before any other global is built: had the lock been built
        // later, these would have run on a lock not yet built, or been wiped by its construction.
        // Unlocks of what is not held (also another id's read or write), an upgrade, and a
        // writer giving back one read too many end the process; correct use does not.
        {L"lock:r", {}, kMisuse, ""}, {L"lock:Rxr", {}, kMisuse, ""}, {L"lock:w", {}, kMisuse, ""}, {L"lock:Wwx", {}, kMisuse, ""},
        {L"lock:RW", {}, kMisuse, ""}, {L"lock:WRrr", {}, kMisuse, ""}, {L"lock:WRrwRxrx", {}, 0, ""},
        // Product information: a failed step is returned and leaves nothing loaded.
        {L"open", {L"qmsvccfg.dll=-"}, ERROR_MOD_NOT_FOUND, ""},
        {L"open", {L"qmsvccfg.dll=no_create"}, ERROR_PROC_NOT_FOUND, loadedOnly},
        {L"open", {L"qmsvccfg.dll=no_destroy"}, ERROR_PROC_NOT_FOUND, loadedOnly},
        {L"open", {L"DOUBLE_FAIL=create"}, 0x80040154, kCreated + "unload qmsvccfg.dll\n"},
        {L"open", {L"DOUBLE_FAIL=interface"}, 632, kInterface + "QmDestroyObject productinfo\nunload qmsvccfg.dll\n"},
        {L"open", {L"DOUBLE_FAIL=init"}, 5, kInitialised + kClosed},
        {L"open", {L"DOUBLE_FAIL=start"}, 21, kOpened + kClosed},
        {L"open", {}, 0, kOpened + kClosed},
        // The call-back runs on an open connection, closed after it, also when it throws.
        {L"with", {L"DOUBLE_FAIL=create"}, 0, kCreated + "unload qmsvccfg.dll\n"},  // not called
        {L"with", {L"DOUBLE_ITEM_202="}, 7, called + kClosed},                      // no answer: the buffer as it was
        {L"with", {L"DOUBLE_ITEM_202=" + std::wstring(259, L'k')}, 259, called + kClosed},
        {L"with", {L"DOUBLE_ITEM_202=" + std::wstring(260, L'k')}, 0xC0000417, called},  // does not fit: ends the process
        {L"throw", {}, 1000, called + kClosed},
        // The crash library of the install folder, the AppPath without its last component, is
        // given the settings file when there is one, enabled and kept.
        {L"install", {}, kEnableResult, kQueries + withSettings},
        {L"install", {L"DOUBLE_ITEM_400=" + m_install}, kEnableResult, kQueries + kEnabled},  // no settings file there
        {L"install", {L"install\\qmcrash.dll=no_settings"}, kEnableResult, kQueries + kEnabled},
        {L"install", {L"install\\qmcrash.dll=no_enable"}, 0x8007007F, kQueries + "load qmcrash.dll\nunload qmcrash.dll\n"},
        {L"install", {L"AppPath=" + m_install + L"\\"}, kEnableResult, kQueries + withSettings},
        {L"install", {L"AppPath="}, kFail, kQueries},
        {L"install", {L"AppPath:expand=" + m_install + L"\\"}, kFail, kQueries},
        {L"install", {L"AppPath=NoBackslash"}, kFail, kQueries},
        {L"install", {L"AppPath=" + m_install + L"\\" + std::wstring(270, L'x')}, kFail, kQueries},  // over 520 bytes
        {L"install", {L"DOUBLE_ITEM_202=Software\\NoSuchMorrowgateKey"}, 0x80070002, kQueries},
        // Logging: loaded once while held and torn down in order; without a hold a plain message
        // is dropped and each direct write loads the library anew; a library with LogWrite alone
        // is only unloaded, and without one nothing happens.
        {L"held", {L"qmtrace.dll="}, 0, "load qmtrace.dll\nLogInit\n" + held + teardown},
        {L"unheld", {L"qmtrace.dll="}, 0, "load qmtrace.dll\nLogInit\nLogWrite 0 16 program Probe::Unheld: one\n" + teardown +
                                             "load qmtrace.dll\nLogInit\nLogWrite 0 16 program Probe::Unheld: two\n" + teardown},
        {L"held", {L"qmtrace.dll=write_only"}, 0, "load qmtrace.dll\n" + held + "unload qmtrace.dll\n"},
        {L"held", {}, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(Utf8(row.scenario + L" " + (row.settings.empty() ? L"" : row.settings[0].substr(0, 80))));
        Prepare(row.settings);
        EXPECT_EQ(Run(L"probe.exe\"", row.scenario), row.exitCode);
        EXPECT_EQ(WithoutTimes(Record()), row.record);
    }
}

TEST_F(SupportFolder, TestCrashEndsMorrowgateOnlyWhenEnabledAndAfterItsDelay)
{
    // The crash thread races the launcher, which would be done within milliseconds; a logging
    // library slow to start holds it back right after the test crash was armed.
    Prepare({L"qmtrace.dll=", L"DOUBLE_LOGINIT_DELAY_MS=3000", L"DOUBLE_ITEM_400=" + m_install});
    const std::wstring crashSwitch = L"Software\\Quillmark\\InternalCrashEnabled",
                       launch = L"Morrowgate.exe\" \"/checkuser:" + m_dir.Path() + L"\" #crash#700#";
    DeleteTree(HKEY_LOCAL_MACHINE, crashSwitch);  // a run that was cut short may have left it
    EXPECT_EQ(Run(launch), 0u) << "no InternalCrashEnabled key";
    const std::string first = kQueries + kEnabled + "load qmtrace.dll\nLogInit\n";
    EXPECT_EQ(Record().substr(0, first.size()), first) << "the crash handler is installed first thing, before logging";

    CreateKey(HKEY_LOCAL_MACHINE, crashSwitch);
    const DWORD start = GetTickCount();
    EXPECT_EQ(Run(launch), 0xC0000005u);
    const DWORD elapsed = GetTickCount() - start;
    EXPECT_TRUE(elapsed >= 700 && elapsed < 3000) << elapsed << " ms: ended by the crash, after its delay";
    EXPECT_NE(Record().find("\ncaught 0xc0000005\n"), std::string::npos) << "by the installed handler";
    EXPECT_EQ(Run(L"Morrowgate.exe\" \"/checkuser:" + m_dir.Path() + L"\" #crash#0#"), 0xC0000005u) << "at once";
    DeleteTree(HKEY_LOCAL_MACHINE, crashSwitch);
}

TEST(CrashArgument, OnlyAWellFormedFirstOccurrenceCounts)
{
    for (const auto& [commandLine, delay] : std::initializer_list<std::pair<const wchar_t*, long long>>{
             // Leading zeros never exceed the bound, which is tested before each digit: 86400001 is
             // above it. Only the first occurrence is looked at, and only at a word start.
             {L"#crash#0#", 0}, {L"prog.exe\t#crash#5#\t/restore", 5}, {L"#crash#250# /time:3", 250}, {L"#crash#0000000000007#", 7},
             {L"#crash#864000009#", 864000009}, {L"#crash#864000010#", -1}, {L"x#crash#5#", -1}, {L"#crash#5#x", -1},
             {L"#crash##", -1}, {L"#crash#5", -1}, {L"x#crash#5# #crash#7#", -1}, {nullptr, -1}}) {
        SCOPED_TRACE(commandLine ? Utf8(commandLine) : "(null)");
        EXPECT_EQ(support::ParseCrashArgument(commandLine), delay);
    }
}

// The development build of the logging library, whose log the end-to-end tests read: the date,
// time and ids of each line are dropped.
TEST(DevelopmentLog, LinesShowClassDepthFunctionAndText)
{
    const TempDir dir;
    const ScopedEnvironment file(L"QMTRACE_LOG", dir / L"test.log");
    {
        logging::LogHold hold;
        logging::ScopeTrace trace(L"Smoke::Run");
        QM_LOG_ERROR(L"Smoke::Run", L"wide=%s narrow=%S", L"caf\u00e9", "plain");
        Sleep(100);
    }
    const std::regex head(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) +\d+\.\d+ \|)");
    EXPECT_EQ(WithoutTimes(std::regex_replace(ReadFileBytes(dir / L"test.log").value_or(""), head, "$1 |")),
              "trace |Smoke::Run: -> Smoke::Run()\nerror |  Smoke::Run: wide=caf\xC3\xA9 narrow=plain\n"
              "trace |Smoke::Run: <- Smoke::Run() [ms]\n");
}

// ---- The reader/writer lock with real threads

constexpr DWORD kBlocked = 250;  // long enough to be sure a step is waiting
constexpr DWORD kPrompt = 5000;  // a step that should finish does so well within this

// A thread that runs the lock operations it is handed, one batch at a time; an empty batch, or
// a minute without one, ends it, so that no wait is unbounded.
struct Actor {
    support::CSyncRWLock* lock;
    const DWORD* ids;
    std::string ops{};
    HANDLE work = CreateEventW(nullptr, FALSE, FALSE, nullptr), done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, &Loop, this, 0, &id);

    static DWORD WINAPI Loop(void* self)
    {
        for (auto* me = static_cast<Actor*>(self); WaitForSingleObject(me->work, 60000) == WAIT_OBJECT_0 && !me->ops.empty();
             SetEvent(me->done)) {
            ApplyLockOps(*me->lock, me->ops, me->ids);
        }
        return 0;
    }
    bool Finishes(DWORD timeoutMs) { return WaitForSingleObject(done, timeoutMs) == WAIT_OBJECT_0; }
    bool Runs(const std::string& next, DWORD timeoutMs) { return ops = next, SetEvent(work), Finishes(timeoutMs); }
    ~Actor()
    {
        if (Runs("", 0), WaitForSingleObject(thread, kPrompt) != WAIT_OBJECT_0) {
            TerminateThread(thread, 1);  // left blocked in the lock by a failed step
        }
        CloseHandle(thread), CloseHandle(work), CloseHandle(done);
    }
};

// Plays space-separated steps on one lock with four actors. "N<ops>" hands actor N lock
// operations (a digit in them names an actor) that must finish promptly, or with a final '?'
// must stay blocked. "N!": N's blocked step now finishes promptly; "N~": it is still blocked.
void Play(const std::string& scenario)
{
    support::CSyncRWLock lock;
    DWORD ids[4];
    Actor actors[4] = {{&lock, ids}, {&lock, ids}, {&lock, ids}, {&lock, ids}};
    std::transform(std::begin(actors), std::end(actors), ids, [](const Actor& actor) { return actor.id; });
    std::istringstream steps(scenario);
    for (std::string step; steps >> step;) {
        SCOPED_TRACE(step);
        const bool blocks = step.back() == '?' || step[1] == '~';
        const std::string ops = step.substr(1, step.size() - 1 - blocks);
        Actor& actor = actors[step[0] - '0'];
        ASSERT_EQ(ops.empty() || ops == "!" ? actor.Finishes(blocks ? kBlocked : kPrompt) : actor.Runs(ops, blocks ? kBlocked : kPrompt), !blocks);
    }
}

TEST(SyncRWLock, ScenariosWithRealThreads)
{
    for (const char* scenario : {
             // Nested reads need as many unlocks before a writer gets in. The writer nests and reads
             // while it writes; a reader gets in only once all are back.
             "0RRr 1W? 0r 1! 1w", "0WWR 1R? 0rw 1~ 0w 1!", "0WWR 1R? 0ww 1~ 0r 1!",
             // A waiting writer holds back a new reader and goes first. Waiting writers are served
             // before waiting readers.
             "0R 1W? 2R? 0r 1! 2~ 1w 2!", "0W 1R? 2W? 0w 2! 1~ 2w 1!",
             // A finished writer lets three waiting readers in together; a writer then waits for all.
             "0W 1R? 2R? 3R? 0w 1! 2! 3! 0W? 1r 0~ 2r 0~ 3r 0!",
             // One thread locks and unlocks on behalf of another thread id.
             "0WxRx 1R? 0wx 1~ 0rx 1! 2W? 0r1 2!"}) {
        SCOPED_TRACE(scenario);
        Play(scenario);
    }
}

} // namespace
