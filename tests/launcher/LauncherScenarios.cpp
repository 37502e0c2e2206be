// Morrowgate.exe end to end, under the Windows generation this program sees: the logon run, the
// restore and the check against the user's real store, Run values, StartupApproved values and
// Startup folder; the choice of mode and of the store's folder; and the switches themselves.
#include "launcher/CommandLine.h"
#include "tests/common/Scenario.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using namespace scenario;
using testing_support::Utf8;

namespace {

const std::string kRun = "HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
const std::vector<std::uint8_t> kOffTimed = {3, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};

std::string Rec(const wchar_t* tag)
{
    return Utf8(Recorder(tag));
}

// Exactly one mode ran: the one labelled.
std::vector<Fact> Ran(const std::string& mode, std::vector<Fact> more = {})
{
    for (const char* each : {"RESTORE", "CHECK CRT USER", "CHECK USER", "START APPS"}) {
        more.push_back(Logged(std::string("-> [") + each + "]", mode == each ? 1 : 0));
    }
    return more;
}

// The launcher beside no logging library still runs and exits 0, and writes no log.
Fact RunsWithoutTheLogLibrary()
{
    return [](Context& context) {
        CreateDirectoryW(L"C:\\e2eLonely", nullptr);
        ASSERT_TRUE(CopyFileW(context.launcher.c_str(), L"C:\\e2eLonely\\Morrowgate.exe", FALSE));
        testing_support::ChildOptions options;
        options.environment = {L"QMTRACE_LOG=C:\\e2eLonely\\run.log"};
        EXPECT_EQ(testing_support::RunChild(L"C:\\e2eLonely\\Morrowgate.exe /restore", options), std::optional<DWORD>(0));
        EXPECT_FALSE(testing_support::FileExists(L"C:\\e2eLonely\\run.log"));
    };
}

std::vector<Scenario> Rows()
{
    const std::string startup = Utf8(FolderOf(UserStartup));
    std::vector<Scenario> rows;
    rows.push_back({"LogonRunStartsWhatIsWithinTheTimeLimitInOrder", Both,
                    {Store({{"user/Delayed", "e2eEarly", Rec(L"early"), kRun, 999}, {"user/Delayed", "e2eEdge", Rec(L"edge"), kRun, 1000},
                            {"user/Delayed", "e2eLate", Rec(L"late"), kRun, 1001}, {"user/Delayed", "e2eGone", "C:\\e2e\\gone.exe", kRun, 5},
                            {"user/Delayed", "e2eBroken", "C:\\windows\\win.ini", kRun, 5}, {"user/Delayed", "e2eTwice", Rec(L"twice"), kRun, -5},
                            {"user/Delayed", "e2eTwice", Rec(L"twice"), kRun, -5}, {"user/Disabled", "e2eOff", Rec(L"off"), kRun, 5},
                            {"user/StartupDelayed", "e2eFile.lnk", Rec(L"folder"), startup, 5}}),
                     File(UserStartup, L"e2eFile.lnk", "x")},
                    {Logon(L"/time:1000", 0, {Started({"early", "edge", "folder", "twice", "twice"}), StoreUnchanged(),
                                              LoggedInOrder({"\" early", "\" edge", "\" twice", "\" twice", "\" folder"}),
                                              Logged("FAILED CreateProcess(C:\\windows\\win.ini) error 0x")}),
                     Logon(L"/time:-5", 0, {Started({"twice", "twice"})}),
                     Logon(L"", 0, {Started({"early", "edge", "late", "folder", "twice", "twice"})})}});
    // The Run values exist for the Windows 8 check, which asks for them.
    for (const wchar_t* name : {L"e2eEarly", L"e2eEdge", L"e2eLate", L"e2eGone", L"e2eBroken", L"e2eTwice"}) {
        rows.back().before.push_back(RunValue(Hkcu, name, L"x"));
    }
    rows.push_back({"NothingStartsFromAMissingOrUnreadableStore", Both, {},
                    {Logon(L"", 0, {Started({}), StoreIs(""), StoreBytes("{\"user\":{\"Delayed\":[")}),
                     Logon(L"", 0, {Started({}), StoreUnchanged()}),
                     Logon(L"/restore", 0, {LoggedInOrder({"FAILED load regkeys delayed", "FAILED load files delayed",
                                                           "FAILED load regkeys disabled", "FAILED load filess disabled"}),
                                            StoreUnchanged()})}});
    // Restore puts everything back, delayed before disabled, and empties the store, failures included.
    const std::wstring back = Recorder(L"back");
    rows.push_back({"RestorePutsEverythingBack", Win7,
                    {File(UserStartup, L"QmBkpFolder\\e2eFile.lnk", "x"),
                     Store({{"user/Delayed", "e2eDelayed", Utf8(back), kRun, 1}, {"user/Disabled", "e2eDisabled", Utf8(back), kRun, 1},
                            {"user/Disabled", "e2eLost", "x.exe", "HKEY_CURRENT_USER\\Software\\e2eGone\\Run", 1},
                            {"user/StartupDisabled", "e2eFile.lnk", Rec(L"file"), startup, 1}})},
                    {Logon(L"/restore", 0, {On(Hkcu, L"e2eDelayed", back), On(Hkcu, L"e2eDisabled", back), On(UserStartup, L"e2eFile.lnk"),
                                            LoggedInOrder({"Enable " + kRun + " e2eDelayed", "Enable " + kRun + " e2eDisabled"}),
                                            Logged("RollbackToRegistry FAILED HKEY_CURRENT_USER\\Software\\e2eGone\\Run"),
                                            StoreIs(R"({"user":{"Delayed":[],"Disabled":[],"StartupDelayed":null,"StartupDisabled":[]}})"), Started({})})}});
    rows.push_back({"RestoreSwitchesApprovedValuesOn", Win10,
                    {RunValue(Hkcu, L"e2eDelayed", back), RunValue(Hkcu, L"e2eDisabled", back), File(UserStartup, L"e2eFile.lnk", "x"),
                     Approved(Hkcu, L"e2eDelayed", kOffTimed), Approved(Hkcu, L"e2eDisabled", {1, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}),
                     Approved(UserStartup, L"e2eFile.lnk", kOffTimed),
                     Store({{"user/Delayed", "e2eDelayed", Utf8(back), kRun, 1}, {"user/Disabled", "e2eDisabled", Utf8(back), kRun, 1},
                            {"user/StartupDisabled", "e2eFile.lnk", Rec(L"file"), startup, 1}})},
                    {Logon(L"/restore", 0, {ApprovedIs(Hkcu, L"e2eDelayed", {2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}),
                                            ApprovedIs(Hkcu, L"e2eDisabled", {0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}),
                                            ApprovedIs(UserStartup, L"e2eFile.lnk", {2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}),
                                            StoreIs(R"({"user":{"Delayed":[],"Disabled":[],"StartupDelayed":null,"StartupDisabled":[]}})")})}});
    // The entries switched themselves back on (the value and the file are back, no approved value
    // says off): the check switches them off again, twice, and never writes the store.
    const std::vector<Fact> offAgain = {Off(Hkcu, L"e2eDelayed"), Off(UserStartup, L"e2eFile.lnk"), StoreUnchanged(), Started({})};
    rows.push_back({"CheckAppliesTheSavedStateAgain", Both,
                    {RunValue(Hkcu, L"e2eDelayed", back), File(UserStartup, L"e2eFile.lnk", "x"),
                     Store({{"user/Delayed", "e2eDelayed", Utf8(back), kRun, 1}, {"user/StartupDisabled", "e2eFile.lnk", Rec(L"file"), startup, 1}})},
                    {Logon(L"/checkcrtuser", 0, offAgain), Logon(L"/checkcrtuser", 0, offAgain)}});
    rows.push_back({"CheckUserReadsTheStoreOfTheGivenFolder", Both, {RunValue(Hkcu, L"e2eOther", back)},
                    {Mgctl(L"--store C:\\e2eUser disable e2eOther", 0, {SwitchedBackOn(Hkcu, L"e2eOther", back)}),
                     Logon(L"/checkuser:C:\\e2eUser", 0, Ran("CHECK USER", {Off(Hkcu, L"e2eOther"), StoreIs("")})),
                     Logon(L"/checkuser:C:\\e2eUser\\ /checkcrtuser", 0,
                           Ran("CHECK CRT USER", {Logged("storage=C:\\e2eUser\\Quillmark\\Dawnstep\\Storage.json")}))}});
    rows.push_back({"ModesArePickedByPriorityWhateverTheOrder", Both, {},
                    {Logon(L"/checkcrtuser /restore", 0, Ran("RESTORE")), Logon(L"/restore /checkcrtuser", 0, Ran("RESTORE")),
                     Logon(L"/checkuser:", 0, Ran("CHECK USER", {Logged("\\Quillmark\\Dawnstep\\Storage.json")})),
                     Logon(L"/RESTORE /time:99999999999999999999", 0, Ran("START APPS", {Logged("time=9223372036854775807")})),
                     Logon(L"", 0, Ran("START APPS", {Logged("cmd line="), Logged("time=0")}))}});
    rows.push_back({"BadFoldersAndHugeArgumentsStillExitZero", Both, {RunsWithoutTheLogLibrary()},
                    {Logon(L"/checkuser:C:\\e2eUser\\one\\two", 0, {Exists(L"C:\\e2eUser\\one\\two\\Quillmark\\Dawnstep"),
                                                                   [](Context&) { testing_support::WriteFileBytes(L"C:\\e2eUser\\blocker", "x"); }}),
                     Logon(L"/checkuser:C:\\e2eUser\\blocker\\sub", 0, Ran("CHECK USER", {Exists(L"C:\\e2eUser\\blocker\\sub", false)})),
                     Logon(L"/checkuser:C:\\e2e" + std::wstring(400, L'x'), 0, Ran("CHECK USER")),
                     Logon(L"/unknown " + std::wstring(32000 - 200, L'a'), 0, Ran("START APPS"))}});
    return rows;
}

MORROWGATE_SCENARIO_ROWS(Launcher, Rows());

// The switches, read without starting anything: a prefix test per switch, case-sensitive, the
// later "/time:" or "/checkuser:" wins, and a time bound saturates instead of wrapping.
TEST(Switches, SetExactlyTheirSettings)
{
    struct Case {
        const wchar_t* commandLine;
        bool restore;
        long long timeLimit;
        bool checkCurrentUser, checkUser;
        const wchar_t* userFolder;
    };
    const Case cases[] = {{L"/restoreX /RESTORE", true, 0, false, false, L""},
                          {L"/time:abc", false, 0, false, false, L""},
                          {L"/time:5 /time:-7x", false, -7, false, false, L""},
                          {L"/time:-99999999999999999999", false, INT64_MIN, false, false, L""},
                          {L"/checkcrtuser -restore restore /check", false, 0, true, false, L""},
                          {L"\"/checkuser:D:\\x y\" /checkuser:C:\\b", false, 0, false, true, L"C:\\b"},
                          {L"\"/checkuser:D:\\x y\"", false, 0, false, true, L"D:\\x y"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(Utf8(c.commandLine));
        const auto settings = launcher::ParseCommandLine(c.commandLine);
        EXPECT_EQ(settings.restore, c.restore);
        EXPECT_EQ(settings.timeLimit, c.timeLimit);
        EXPECT_EQ(settings.checkCurrentUser, c.checkCurrentUser);
        EXPECT_EQ(settings.checkUser, c.checkUser);
        EXPECT_EQ(settings.userFolder, c.userFolder);
    }
}

} // namespace
