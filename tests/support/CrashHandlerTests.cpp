// Crash handler hookup: the test-crash argument, the installation as the doubles of
// qmsvccfg.dll and qmcrash.dll see it, and the test crash of Morrowgate.exe itself.
#include "support/CrashHandler.h"
#include "tests/support/SuiteFixture.h"

using namespace testing_support;
using namespace support_tests;

namespace {

TEST(CrashArgument, OnlyAWellFormedFirstOccurrenceCounts)
{
    const std::pair<const wchar_t*, long long> cases[] = {
        {L"#crash#0#", 0},
        {L"prog.exe\t#crash#5#\t/restore", 5},
        {L"#crash#250# /time:3", 250},
        {L"#crash#0000000000007#", 7},       // leading zeros never exceed the bound
        {L"#crash#864000009#", 864000009},   // the bound is tested before each digit
        {L"#crash#864000010#", -1},          // 86400001 is already above it
        {L"x#crash#5#", -1},                 // not at a word start
        {L"#crash#5#x", -1},                 // not followed by a blank
        {L"#crash##", -1},                   // no digits
        {L"#crash#5", -1},                   // no closing '#'
        {L"x#crash#5# #crash#7#", -1},       // only the first occurrence is looked at
        {L"#CRASH#5#", -1},
        {nullptr, -1},
    };
    for (const auto& [commandLine, delay] : cases) {
        SCOPED_TRACE(commandLine ? Utf8(commandLine) : "(null)");
        EXPECT_EQ(support::ParseCrashArgument(commandLine), delay);
    }
}

using CrashHandler = SuiteFolder;

TEST_F(CrashHandler, LibraryOfTheInstallFolderIsEnabledWithTheSettingsFileAndKept)
{
    const std::wstring settingsFile = JoinPath(m_settings, L"qmcrash.xml");
    const Lines enabled = {"qmcrash load", kCrashHandlerEnabled};
    const Lines withSettings = {"qmcrash load", "qmcrash SetSettingsFile " + Utf8(settingsFile), kCrashHandlerEnabled};
    const std::wstring program = m_install + L"\\Morrowgate.exe";
    struct Case {
        std::wstring appPath;
        DWORD type;
        const wchar_t* library;  // placed as install\qmcrash.dll
        bool settings;           // a settings file in the folder of item 400
        const wchar_t* extra;    // one more setting of the environment, of a name not yet set
        HRESULT result;
        Lines calls;             // after the product queries
    };
    const Case cases[] = {
        {program, REG_SZ, L"qmcrash.dll", true, nullptr, S_OK, withSettings},
        {program, REG_SZ, L"qmcrash.dll", false, nullptr, S_OK, enabled},
        {program, REG_SZ, L"qmcrash.dll", false, L"QMCRASH_ENABLE_RESULT=0x80001234",
         static_cast<HRESULT>(0x80001234), enabled},
        {program, REG_SZ, L"qmcrash_nosettings.dll", true, nullptr, S_OK, enabled},
        {program, REG_SZ, L"qmcrash_noenable.dll", true, nullptr, HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND),
         {"qmcrash load", "qmcrash unload"}},
        // The install folder is AppPath cut at its last backslash.
        {m_install + L"\\", REG_SZ, L"qmcrash.dll", false, nullptr, S_OK, enabled},
        {m_install, REG_SZ, L"qmcrash.dll", false, nullptr, HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), {}},
        {L"", REG_SZ, L"qmcrash.dll", false, nullptr, E_FAIL, {}},
        {m_install + L"\\", REG_EXPAND_SZ, L"qmcrash.dll", false, nullptr, E_FAIL, {}},
        {L"NoBackslashAtAll", REG_SZ, L"qmcrash.dll", false, nullptr, E_FAIL, {}},
        {m_install + L"\\" + std::wstring(270, L'x'), REG_SZ, L"qmcrash.dll", false, nullptr, E_FAIL,
         {}},  // more than 520 bytes
    };
    const auto environment = m_environment;
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.appPath) + " " + Utf8(c.library) + " " + (c.extra ? Utf8(c.extra) : ""));
        SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", c.appPath, c.type);
        PlaceDouble(c.library, L"install\\qmcrash.dll");
        DeleteFileW(settingsFile.c_str());
        if (c.settings) {
            WriteFileBytes(settingsFile, "<settings/>");
        }
        m_environment = environment;
        if (c.extra != nullptr) {
            m_environment.push_back(c.extra);
        }
        ClearRecord();
        EXPECT_EQ(RunProbe(L"install"), static_cast<DWORD>(c.result));
        EXPECT_EQ(Record(), Concat({kProductQueries, c.calls}));
    }
    m_environment[1] = L"QMSVCCFG_ITEM_202=Software\\NoSuchMorrowgateKey";
    EXPECT_EQ(RunProbe(L"install"), static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)))
        << "no product key";
}

TEST_F(CrashHandler, TestCrashEndsTheLauncherOnlyWhenEnabledAndAfterItsDelay)
{
    // The crash thread races the main thread, which would otherwise be done within a few
    // milliseconds; a logging library that takes its time to start holds the launcher back
    // right after the test crash was armed.
    PlaceDouble(L"qmtrace_slowinit.dll", L"qmtrace.dll");
    m_environment.push_back(L"QMTRACE_INIT_DELAY_MS=4000");
    const std::string caught = "qmcrash caught 0xc0000005";
    constexpr wchar_t kParent[] = L"Software\\Quillmark";
    constexpr wchar_t kSwitch[] = L"Software\\Quillmark\\InternalCrashEnabled";

    DeleteTree(HKEY_LOCAL_MACHINE, kSwitch);  // a run that was cut short may have left it
    EXPECT_EQ(RunLauncher(L"#crash#0#"), 0u) << "no InternalCrashEnabled key";
    EXPECT_EQ(Count(caught), 0u);

    const bool parentExisted = KeyExists(HKEY_LOCAL_MACHINE, kParent);
    CreateKey(HKEY_LOCAL_MACHINE, kSwitch);
    const struct {
        const wchar_t* argument;
        DWORD exitCode;
        DWORD atLeastMs;
    } cases[] = {{L"#crash#0#x", 0, 0}, {L"#crash#0#", 0xC0000005, 0}, {L"#crash#700#", 0xC0000005, 700}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.argument));
        ClearRecord();
        const DWORD start = GetTickCount();
        EXPECT_EQ(RunLauncher(c.argument), c.exitCode);
        const DWORD elapsed = GetTickCount() - start;
        EXPECT_EQ(Count(caught), c.exitCode != 0 ? 1u : 0u) << "the installed handler saw the crash";
        if (c.exitCode != 0) {
            EXPECT_GE(elapsed, c.atLeastMs);
            EXPECT_LT(elapsed, 4000u) << "ended by the crash, not after the run";
        }
    }
    DeleteTree(HKEY_LOCAL_MACHINE, parentExisted ? kSwitch : kParent);
}

} // namespace
