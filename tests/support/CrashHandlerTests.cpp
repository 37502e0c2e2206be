// Crash handler hookup: the test-crash argument, the installation as the doubles of
// qmsvccfg.dll and qmcrash.dll see it, and the test crash of a real process.
#include "support/CrashHandler.h"
#include "tests/support/SuiteFixture.h"

#include <algorithm>

using namespace testing_support;
using namespace support_tests;

namespace {

TEST(CrashArgument, OnlyAWellFormedFirstOccurrenceCounts)
{
    const std::pair<const wchar_t*, long long> cases[] = {
        {L"#crash#0#", 0},
        {L"prog.exe #crash#5#", 5},
        {L"prog.exe\t#crash#5#\t/restore", 5},
        {L"#crash#250# /time:3", 250},
        {L"#crash#0000000000007#", 7},       // leading zeros never exceed the bound
        {L"#crash#86400000#", 86400000},
        {L"#crash#864000009#", 864000009},   // the bound is tested before each digit
        {L"#crash#864000010#", -1},          // 86400001 is already above it
        {L"#crash#9999999999#", -1},
        {L"x#crash#5#", -1},                 // not at a word start
        {L"#crash#5#x", -1},                 // not followed by a blank
        {L"#crash##", -1},                   // no digits
        {L"#crash#5", -1},                   // no closing '#'
        {L"#crash#-5#", -1},
        {L"#crash# 5#", -1},
        {L"#crash#5a#", -1},
        {L"x#crash#5# #crash#7#", -1},       // only the first occurrence is looked at
        {L"#CRASH#5#", -1},
        {L"", -1},
        {nullptr, -1},
    };
    for (const auto& [commandLine, delay] : cases) {
        SCOPED_TRACE(commandLine ? Utf8(commandLine) : "(null)");
        EXPECT_EQ(support::ParseCrashArgument(commandLine), delay);
    }
}

// The key whose presence arms the test crash, created for the test and removed again; its
// parent goes too when the test made it.
class CrashSwitch {
public:
    CrashSwitch() : m_parentExisted(KeyExists(HKEY_LOCAL_MACHINE, kParent)) { CreateKey(HKEY_LOCAL_MACHINE, kKey); }
    ~CrashSwitch()
    {
        DeleteTree(HKEY_LOCAL_MACHINE, kKey);
        if (!m_parentExisted) {
            DeleteTree(HKEY_LOCAL_MACHINE, kParent);
        }
    }
    CrashSwitch(const CrashSwitch&) = delete;
    CrashSwitch& operator=(const CrashSwitch&) = delete;

    static constexpr wchar_t kParent[] = L"Software\\Quillmark";
    static constexpr wchar_t kKey[] = L"Software\\Quillmark\\InternalCrashEnabled";

private:
    bool m_parentExisted;
};

// The probe beside the product information double, a settings folder (item 400), and an
// install folder with the crash library that the product's key (item 202) points at.
class CrashHandler : public SuiteFolder {
protected:
    void SetUp() override
    {
        DeleteTree(HKEY_LOCAL_MACHINE, CrashSwitch::kKey);  // a run that was cut short may have left it
        PlaceProgram(L"supportprobe.exe");
        PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
        ASSERT_TRUE(CreateDirectoryW(m_install.c_str(), nullptr));
        ASSERT_TRUE(CreateDirectoryW(m_settings.c_str(), nullptr));
        PlaceDouble(L"qmcrash.dll", m_install, L"qmcrash.dll");
        SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", m_install + L"\\Morrowgate.exe");
        m_environment = {L"QMSVCCFG_ITEM_400=" + m_settings,
                         L"QMSVCCFG_ITEM_202=" + m_productKey.SubKey()};
    }

    void WriteSettingsFile() { WriteFileBytes(JoinPath(m_settings, L"qmcrash.xml"), "<settings/>"); }

    // Both queries of the installation, each over a connection of its own.
    static std::vector<std::string> ProductQueries() { return Concat({ItemSession(400), ItemSession(202)}); }

    std::string Enabled() const { return "qmcrash EnableCrashHandler 0 0 norestart"; }

    size_t Count(const std::string& line) const
    {
        const auto record = Record();
        return static_cast<size_t>(std::count(record.begin(), record.end(), line));
    }

    std::wstring m_install = m_dir / L"install";
    std::wstring m_settings = m_dir / L"settings";
    ScratchKey m_productKey{HKEY_LOCAL_MACHINE, L"Software\\" + UniqueName(L"MorrowgateTests")};
};

TEST_F(CrashHandler, LoadsTheLibraryOfTheInstallFolderAndHandsItTheSettingsFile)
{
    WriteSettingsFile();
    EXPECT_EQ(RunProbe(L"install"), 0u);
    EXPECT_EQ(Record(), Concat({ProductQueries(),
                                {"qmcrash load",
                                 "qmcrash SetSettingsFile " + Utf8(JoinPath(m_settings, L"qmcrash.xml")),
                                 Enabled()}}))
        << "the crash library stays loaded";
}

TEST_F(CrashHandler, SettingsFileIsPassedOnlyWhenItExists)
{
    EXPECT_EQ(RunProbe(L"install"), 0u);
    EXPECT_EQ(Record(), Concat({ProductQueries(), {"qmcrash load", Enabled()}}));

    // A settings folder given with a final backslash gets no second one.
    WriteSettingsFile();
    ClearRecord();
    m_environment[0] = L"QMSVCCFG_ITEM_400=" + m_settings + L"\\";
    EXPECT_EQ(RunProbe(L"install"), 0u);
    EXPECT_EQ(Count("qmcrash SetSettingsFile " + Utf8(m_settings) + "\\qmcrash.xml"), 1u);
}

TEST_F(CrashHandler, InstallFolderIsAppPathCutAtItsLastBackslash)
{
    struct Case {
        std::wstring appPath;
        DWORD type;
        HRESULT result;
    };
    const Case cases[] = {
        {m_install + L"\\", REG_SZ, S_OK},
        {m_install + L"\\Morrowgate.exe", REG_SZ, S_OK},
        {m_install + L"\\NoSuchFolder", REG_SZ, S_OK},
        {m_install, REG_SZ, HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)},  // the parent has no library
        {L"", REG_SZ, E_FAIL},
        {m_install + L"\\", REG_EXPAND_SZ, E_FAIL},
        {L"NoBackslashAtAll", REG_SZ, E_FAIL},
        {m_install + L"\\" + std::wstring(270, L'x'), REG_SZ, E_FAIL},  // more than 520 bytes
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.appPath) + " type " + std::to_string(c.type));
        ClearRecord();
        SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", c.appPath, c.type);
        EXPECT_EQ(RunProbe(L"install"), static_cast<DWORD>(c.result));
        EXPECT_EQ(Count(Enabled()), c.result == S_OK ? 1u : 0u);
        EXPECT_EQ(Count("qmcrash load"), c.result == S_OK ? 1u : 0u);
    }
}

TEST_F(CrashHandler, FailuresBeforeTheLibraryAreReturnedAsHResults)
{
    struct Case {
        const char* name;
        std::vector<std::wstring> environment;
        bool removeAppPath;
        HRESULT result;
    };
    const Case cases[] = {
        {"no AppPath", m_environment, true, E_FAIL},
        {"product key missing", {m_environment[0], L"QMSVCCFG_ITEM_202=Software\\NoSuchMorrowgateKey"},
         false, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)},
        // No product information: the key is HKLM itself, which has no "AppPath".
        {"product information fails", {L"QMSVCCFG_FAIL=create"}, false, E_FAIL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClearRecord();
        SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", m_install + L"\\");
        if (c.removeAppPath) {
            HKEY key = nullptr;
            ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, m_productKey.SubKey().c_str(), 0, KEY_SET_VALUE, &key),
                      ERROR_SUCCESS);
            RegDeleteValueW(key, L"AppPath");
            RegCloseKey(key);
        }
        m_environment = c.environment;
        EXPECT_EQ(RunProbe(L"install"), static_cast<DWORD>(c.result));
        EXPECT_EQ(Count("qmcrash load"), 0u);
    }
}

TEST_F(CrashHandler, TheLibrarysOwnResultIsReturned)
{
    m_environment.push_back(L"QMCRASH_ENABLE_RESULT=0x80001234");
    EXPECT_EQ(RunProbe(L"install"), 0x80001234u);
    EXPECT_EQ(Count(Enabled()), 1u);
}

TEST_F(CrashHandler, LibraryWithoutEnableCrashHandlerIsUnloadedAgain)
{
    WriteSettingsFile();
    PlaceDouble(L"qmcrash_noenable.dll", m_install, L"qmcrash.dll");
    EXPECT_EQ(RunProbe(L"install"), static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)));
    EXPECT_EQ(Record(), Concat({ProductQueries(), {"qmcrash load", "qmcrash unload"}}));
}

TEST_F(CrashHandler, LibraryWithoutSetSettingsFileIsStillEnabled)
{
    WriteSettingsFile();
    PlaceDouble(L"qmcrash_nosettings.dll", m_install, L"qmcrash.dll");
    EXPECT_EQ(RunProbe(L"install"), 0u);
    EXPECT_EQ(Record(), Concat({ProductQueries(), {"qmcrash load", Enabled()}}));
}

TEST_F(CrashHandler, ProductKeyOf260CharactersEndsTheProcessAndOf259IsUsed)
{
    // A key path of exactly 259 characters below the scratch key.
    std::wstring longKey = m_productKey.SubKey() + L"\\";
    while (longKey.size() < 259) {
        longKey += std::wstring(std::min<size_t>(100, 259 - longKey.size() - 1), L'k') + L"\\";
    }
    longKey.pop_back();
    longKey += L"z";
    ASSERT_EQ(longKey.size(), 259u);
    SetString(HKEY_LOCAL_MACHINE, longKey, L"AppPath", m_install + L"\\");

    m_environment[1] = L"QMSVCCFG_ITEM_202=" + longKey;
    EXPECT_EQ(RunProbe(L"install"), 0u);
    EXPECT_EQ(Count(Enabled()), 1u);

    ClearRecord();
    m_environment[1] = L"QMSVCCFG_ITEM_202=" + longKey + L"\\";
    EXPECT_EQ(RunProbe(L"install"), 0xC0000417u);
    EXPECT_EQ(Count("qmcrash load"), 0u);
}

TEST_F(CrashHandler, ArmedTestCrashWritesToAddressZeroAfterItsDelay)
{
    {
        CrashSwitch armed;
        const DWORD start = GetTickCount();
        EXPECT_EQ(RunProbe(L"arm 20000 #crash#0#"), 0xC0000005u);
        EXPECT_LT(GetTickCount() - start, 10000u) << "no delay";

        const DWORD delayedStart = GetTickCount();
        EXPECT_EQ(RunProbe(L"arm 20000 #crash#700#"), 0xC0000005u);
        EXPECT_GE(GetTickCount() - delayedStart, 700u);

        EXPECT_EQ(RunProbe(L"arm 300 #crash#0#x"), 0u) << "malformed argument";
    }
    EXPECT_EQ(RunProbe(L"arm 300 #crash#0#"), 0u) << "no InternalCrashEnabled key";
}

// Morrowgate.exe itself with the doubles: the recording logging library too, so that the
// order of crash handler and logging shows in the one record.
class LauncherCrashHandler : public CrashHandler {
protected:
    void SetUp() override
    {
        CrashHandler::SetUp();
        PlaceProgram(L"Morrowgate.exe");
        PlaceDouble(L"qmtrace_recorder.dll", L"qmtrace.dll");
        m_environment.push_back(L"QMTRACE_RECORD=" + m_record);
    }

    DWORD RunLauncher(const std::wstring& extra = L"")
    {
        return Run(L"Morrowgate.exe", L"\"/checkuser:" + m_dir.Path() + L"\" " + extra);
    }

    size_t Find(const std::string& prefix) const
    {
        const auto record = Record();
        for (size_t i = 0; i < record.size(); ++i) {
            if (record[i].rfind(prefix, 0) == 0) {
                return i;
            }
        }
        return std::string::npos;
    }

    bool RanCheckUser() const
    {
        const auto record = Record();
        return std::any_of(record.begin(), record.end(), [](const std::string& line) {
            return line.find("text=-> [CHECK USER]") != std::string::npos;
        });
    }
};

TEST_F(LauncherCrashHandler, CrashHandlerComesFirstAndNothingIsLeftToCloseAtTheEnd)
{
    EXPECT_EQ(RunLauncher(), 0u);
    const auto record = Record();
    const auto first = Concat({ProductQueries(), {"qmcrash load", Enabled(), "attach"}});
    ASSERT_GE(record.size(), first.size());
    EXPECT_EQ(std::vector<std::string>(record.begin(), record.begin() + first.size()), first)
        << "installed before logging is taken";
    EXPECT_TRUE(RanCheckUser());
    EXPECT_EQ(Count("qmsvccfg load"), 2u);
    EXPECT_EQ(Count("qmsvccfg unload"), 2u);
    EXPECT_EQ(record.back(), "detach") << "logging is released last";
}

TEST_F(LauncherCrashHandler, TestCrashEndsTheLauncherOnlyWhenEnabled)
{
    // The crash thread races the main thread, which would otherwise be done within a few
    // milliseconds; a logging library that takes its time to start holds the launcher back
    // right after the test crash was armed.
    PlaceDouble(L"qmtrace_slowinit.dll", L"qmtrace.dll");
    m_environment.push_back(L"QMTRACE_INIT_DELAY_MS=4000");

    EXPECT_EQ(RunLauncher(L"#crash#0#"), 0u) << "no InternalCrashEnabled key";
    EXPECT_EQ(Count("qmcrash caught 0xc0000005"), 0u);
    {
        CrashSwitch armed;
        ClearRecord();
        const DWORD start = GetTickCount();
        EXPECT_EQ(RunLauncher(L"#crash#0#"), 0xC0000005u);
        EXPECT_LT(GetTickCount() - start, 4000u) << "ended by the crash, not after the run";
        EXPECT_EQ(Count("qmcrash caught 0xc0000005"), 1u) << "the installed handler saw the crash";
    }
}

TEST_F(LauncherCrashHandler, LauncherGoesOnWhenTheSuiteLibrariesFail)
{
    struct Case {
        const char* name;
        std::function<void()> prepare;
    };
    const Case cases[] = {
        {"no product information", [&] { DeleteFileW((m_dir / L"qmsvccfg.dll").c_str()); }},
        {"export missing", [&] { PlaceDouble(L"qmsvccfg_nodestroy.dll", L"qmsvccfg.dll"); }},
        {"QmCreateObject fails", [&] { m_environment.push_back(L"QMSVCCFG_FAIL=create"); }},
        {"Start fails", [&] { m_environment.push_back(L"QMSVCCFG_FAIL=start"); }},
        {"crash library missing", [&] { DeleteFileW(JoinPath(m_install, L"qmcrash.dll").c_str()); }},
    };
    const auto environment = m_environment;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
        PlaceDouble(L"qmcrash.dll", m_install, L"qmcrash.dll");
        m_environment = environment;
        c.prepare();
        ClearRecord();
        EXPECT_EQ(RunLauncher(), 0u);
        EXPECT_TRUE(RanCheckUser());
        EXPECT_EQ(Count("qmcrash load"), 0u);
        EXPECT_EQ(Count("qmsvccfg load"), Count("qmsvccfg unload")) << "nothing left loaded";
    }
}

} // namespace
