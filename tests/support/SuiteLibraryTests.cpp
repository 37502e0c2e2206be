// The suite's libraries as the product uses them, seen in the doubles' record: product
// information connections, the crash handler's installation and the test crash of Morrowgate.exe.
#include "support/CrashHandler.h"
#include "tests/support/SupportFolder.h"

#include <algorithm>

using namespace testing_support;

namespace {

const Lines kOpened = {"load qmsvccfg.dll", "QmCreateObject productinfo {66551ab3-fca3-bc90-5f42-c5f792e24b51}",
                       "GetInterface {1623905a-2177-944e-c742-7a10b1e0f0a0}", "Init 0", "Start"};
const Lines kClosed = {"Uninit", "Release", "QmDestroyObject productinfo", "unload qmsvccfg.dll"};
// The crash handler's installation asks for items 400 and 202, each over a connection of its own.
const Lines kQueries = kOpened + Lines{"GetString 400 Desktop"} + kClosed + kOpened + Lines{"GetString 202 Desktop"} + kClosed;
const Lines kEnabled = {"load qmcrash.dll", "EnableCrashHandler 0 0 norestart"};

Lines Opened(long calls)
{
    return Lines(kOpened.begin(), kOpened.begin() + calls);
}

using ProductInfo = SupportFolder;

TEST_F(ProductInfo, EachFailedStepIsReturnedAndLeavesNothingLoaded)
{
    const Lines loadedOnly = {"load qmsvccfg.dll", "unload qmsvccfg.dll"};
    const struct {
        const wchar_t* library;  // placed as qmsvccfg.dll; nullptr: none
        const wchar_t* failure;
        DWORD result;
        Lines record;
    } cases[] = {
        {nullptr, L"", ERROR_MOD_NOT_FOUND, {}},
        {L"suite_double_no_create.dll", L"", ERROR_PROC_NOT_FOUND, loadedOnly},
        {L"suite_double_no_destroy.dll", L"", ERROR_PROC_NOT_FOUND, loadedOnly},
        {L"suite_double.dll", L"create", 0x80040154, Opened(2) + Lines{"unload qmsvccfg.dll"}},
        {L"suite_double.dll", L"interface", 632, Opened(3) + Lines{"QmDestroyObject productinfo", "unload qmsvccfg.dll"}},
        {L"suite_double.dll", L"init", 5, Opened(4) + kClosed},
        {L"suite_double.dll", L"start", 21, kOpened + kClosed},
        {L"suite_double.dll", L"", 0, kOpened + kClosed},  // closed by the probe
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(std::wstring(c.library ? c.library : L"(none)") + L" " + c.failure));
        Place(c.library, L"qmsvccfg.dll");
        m_environment = {std::wstring(L"DOUBLE_FAIL=") + c.failure};
        EXPECT_EQ(Probe(L"open"), c.result);
        EXPECT_EQ(Record(), c.record);
    }
}

TEST_F(ProductInfo, CallbackRunsOnAnOpenConnectionClosedAfterIt)
{
    const Lines called = kOpened + Lines{"GetString 202 Desktop"};
    const struct {
        const wchar_t* scenario;
        const wchar_t* failure;
        size_t answer;  // characters of the answer to item 202; 0: no string
        DWORD exitCode;
        Lines record;
    } cases[] = {
        {L"with", L"create", 0, 0, Opened(2) + Lines{"unload qmsvccfg.dll"}},  // not called
        {L"with", L"", 0, 7, called + kClosed},                                // buffer as it was
        {L"with", L"", 259, 259, called + kClosed},
        {L"with", L"", 260, 0xC0000417, called},  // does not fit: an invalid parameter
        {L"throw", L"", 0, 1000, called + kClosed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(std::wstring(c.scenario) + L" " + c.failure) + " " + std::to_string(c.answer));
        m_environment = {std::wstring(L"DOUBLE_FAIL=") + c.failure, L"DOUBLE_ITEM_202=" + std::wstring(c.answer, L'k')};
        EXPECT_EQ(Probe(c.scenario), c.exitCode);
        EXPECT_EQ(Record(), c.record);
    }
}

TEST(CrashArgument, OnlyAWellFormedFirstOccurrenceCounts)
{
    const std::pair<const wchar_t*, long long> cases[] = {
        {L"#crash#0#", 0},
        {L"prog.exe\t#crash#5#\t/restore", 5},
        {L"#crash#250# /time:3", 250},
        {L"#crash#0000000000007#", 7},      // leading zeros never exceed the bound
        {L"#crash#864000009#", 864000009},  // the bound is tested before each digit
        {L"#crash#864000010#", -1},         // 86400001 is already above it
        {L"x#crash#5#", -1},                // not at a word start
        {L"#crash#5#x", -1},                // not followed by a blank
        {L"#crash##", -1},
        {L"#crash#5", -1},
        {L"x#crash#5# #crash#7#", -1},  // only the first occurrence is looked at
        {nullptr, -1},
    };
    for (const auto& [commandLine, delay] : cases) {
        SCOPED_TRACE(commandLine ? Utf8(commandLine) : "(null)");
        EXPECT_EQ(support::ParseCrashArgument(commandLine), delay);
    }
}

using CrashHandler = SupportFolder;

TEST_F(CrashHandler, LibraryOfTheInstallFolderIsEnabledWithTheSettingsFileAndKept)
{
    const std::wstring settingsFile = JoinPath(m_settings, L"qmcrash.xml");
    const std::wstring program = m_install + L"\\Morrowgate.exe";
    const struct {
        std::wstring appPath;
        DWORD type;
        const wchar_t* library;  // placed as install\qmcrash.dll
        bool settings;           // a settings file in the folder of item 400
        const wchar_t* enableResult;
        HRESULT result;
        Lines calls;  // after the product queries
    } cases[] = {
        {program, REG_SZ, L"suite_double.dll", true, L"0", S_OK,
         {"load qmcrash.dll", "SetSettingsFile " + Utf8(settingsFile), "EnableCrashHandler 0 0 norestart"}},
        {program, REG_SZ, L"suite_double.dll", false, L"0x80001234", static_cast<HRESULT>(0x80001234), kEnabled},
        {program, REG_SZ, L"suite_double_no_settings.dll", true, L"0", S_OK, kEnabled},
        {program, REG_SZ, L"suite_double_no_enable.dll", true, L"0", HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND),
         {"load qmcrash.dll", "unload qmcrash.dll"}},
        {m_install + L"\\", REG_SZ, L"suite_double.dll", false, L"0", S_OK, kEnabled},
        {L"", REG_SZ, L"suite_double.dll", false, L"0", E_FAIL, {}},
        {m_install + L"\\", REG_EXPAND_SZ, L"suite_double.dll", false, L"0", E_FAIL, {}},
        {L"NoBackslash", REG_SZ, L"suite_double.dll", false, L"0", E_FAIL, {}},
        {m_install + L"\\" + std::wstring(270, L'x'), REG_SZ, L"suite_double.dll", false, L"0", E_FAIL, {}},  // > 520 bytes
    };
    const auto environment = m_environment;
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.appPath) + " " + Utf8(c.library));
        SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", c.appPath, c.type);
        Place(c.library, L"install\\qmcrash.dll");
        DeleteFileW(settingsFile.c_str());
        if (c.settings) {
            WriteFileBytes(settingsFile, "<settings/>");
        }
        m_environment = environment + std::vector<std::wstring>{std::wstring(L"DOUBLE_ENABLE_RESULT=") + c.enableResult};
        EXPECT_EQ(Probe(L"install"), static_cast<DWORD>(c.result));
        EXPECT_EQ(Record(), kQueries + c.calls);
    }
    m_environment[1] = L"DOUBLE_ITEM_202=Software\\NoSuchMorrowgateKey";
    EXPECT_EQ(Probe(L"install"), static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND))) << "no product key";
}

TEST_F(CrashHandler, TestCrashEndsMorrowgateOnlyWhenEnabledAndAfterItsDelay)
{
    // The crash thread races the launcher, which would be done within milliseconds; a logging
    // library slow to start holds it back right after the test crash was armed.
    Place(L"suite_double.dll", L"qmtrace.dll");
    m_environment.push_back(L"DOUBLE_LOGINIT_DELAY_MS=3000");
    constexpr wchar_t kParent[] = L"Software\\Quillmark";
    constexpr wchar_t kSwitch[] = L"Software\\Quillmark\\InternalCrashEnabled";
    DeleteTree(HKEY_LOCAL_MACHINE, kSwitch);  // a run that was cut short may have left it

    EXPECT_EQ(Launch(L"#crash#0#"), 0u) << "no InternalCrashEnabled key";
    const Lines record = Record();
    ASSERT_GT(record.size(), kQueries.size() + 4);
    // The crash handler is installed first thing, before logging is taken.
    EXPECT_EQ(Lines(record.begin(), record.begin() + static_cast<long>(kQueries.size()) + 4),
              (kQueries + kEnabled + Lines{"load qmtrace.dll", "LogInit"}));
    EXPECT_EQ(std::count(record.begin(), record.end(), "caught 0xc0000005"), 0);

    const bool parentExisted = KeyExists(HKEY_LOCAL_MACHINE, kParent);
    CreateKey(HKEY_LOCAL_MACHINE, kSwitch);
    for (const DWORD delay : {0u, 700u}) {
        SCOPED_TRACE(delay);
        const DWORD start = GetTickCount();
        EXPECT_EQ(Launch(L"#crash#" + std::to_wstring(delay) + L"#"), 0xC0000005u);
        const DWORD elapsed = GetTickCount() - start;
        EXPECT_GE(elapsed, delay);
        EXPECT_LT(elapsed, 3000u) << "ended by the crash, not after the run";
        const Lines crashed = Record();
        EXPECT_EQ(std::count(crashed.begin(), crashed.end(), "caught 0xc0000005"), 1) << "seen by the installed handler";
    }
    DeleteTree(HKEY_LOCAL_MACHINE, parentExisted ? kSwitch : kParent);
}

} // namespace
