// Morrowgate.exe end to end, under the Windows generation this program sees: the logon run, the
// restore and the check against the user's real store, Run values, StartupApproved values and
// Startup folder, with the saved items written as the suite writes them; and the choice of mode
// and of the store's folder by the switches.
#include "tests/common/Scenario.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using namespace scenario;
using testing_support::JoinPath;
using testing_support::Utf8;

namespace {

const std::string kRun = "HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
const std::string kShortRun = "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
const std::string kGone = "HKEY_CURRENT_USER\\Software\\e2eGone\\Run";

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
        EXPECT_EQ(testing_support::RunChild(L"C:\\e2eLonely\\Morrowgate.exe /restore", {{L"QMTRACE_LOG=C:\\e2eLonely\\run.log"}}),
                  std::optional<DWORD>(0));
        EXPECT_FALSE(testing_support::FileExists(L"C:\\e2eLonely\\run.log"));
    };
}

std::vector<Scenario> Rows()
{
    const std::wstring userStartup = FolderOf(UserStartup);
    const std::string startup = Utf8(userStartup);
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
    // Restore puts everything back, delayed before disabled, and empties the store, failures
    // included. A value goes back as REG_SZ where its Run key is named in full and still exists;
    // an empty command fails.
    const std::wstring back = Recorder(L"back");
    const std::string backCmd = Utf8(back);
    rows.push_back({"RestorePutsEverythingBack", Win7,
                    {File(UserStartup, L"QmBkpFolder\\e2eFile.lnk", "x"),
                     Store({{"user/Delayed", "e2eDelayed", backCmd, kRun, 1}, {"user/Delayed", "e2eHive", backCmd, "HKEY_CURRENT_USER", 1},
                            {"user/Delayed", "e2eShort", backCmd, kShortRun, 1}, {"user/Delayed", "e2eNoCmd", "", kRun, 1},
                            {"user/Disabled", "e2eDisabled", backCmd, kRun, 1}, {"user/Disabled", "e2eLost", "x.exe", kGone, 1},
                            {"user/StartupDisabled", "e2eFile.lnk", Rec(L"file"), startup, 1}})},
                    {Logon(L"/restore", 0, {On(Hkcu, L"e2eDelayed", back), On(Hkcu, L"e2eDisabled", back), On(UserStartup, L"e2eFile.lnk"),
                                            Off(Hkcu, L"e2eShort"), Off(Hkcu, L"e2eNoCmd"),
                                            [](Context&) { EXPECT_FALSE(testing_support::KeyExists(HKEY_CURRENT_USER, L"Software\\e2eGone")); },
                                            LoggedInOrder({"Enable " + kRun + " e2eDelayed", "Enable " + kRun + " e2eDisabled"}),
                                            Logged("RollbackToRegistry FAILED ", 3), Logged("RollbackToRegistry FAILED " + kShortRun),
                                            Logged("RollbackToRegistry FAILED " + kGone),
                                            StoreIs(R"({"user":{"Delayed":[],"Disabled":[],"StartupDelayed":null,"StartupDisabled":[]}})"), Started({})})}});
    // The state word changes and the bytes after it stay. A Run key ending in a backslash is refused
    // by an exception that costs only its own section: that item stays saved.
    const auto stamped = [](std::uint8_t state) { return std::vector<std::uint8_t>{state, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}; };
    rows.push_back({"ApprovedValuesKeepTheirTimestamp", Win10,
                    {RunValue(Hkcu, L"e2eStamp", back), Approved(Hkcu, L"e2eStamp", stamped(2)),
                     File(UserStartup, L"e2eTool.exe", "x"), Approved(UserStartup, L"e2eTool.exe", stamped(2)),
                     Store({{"user/Delayed", "e2eSlash", backCmd, kRun + "\\", 1}, {"user/StartupDelayed", "e2eTool.exe", "x", startup, 1},
                            {"user/Disabled", "e2eStamp", backCmd, kRun, 1}})},
                    {Logon(L"/checkcrtuser", 0,
                           {ApprovedIs(Hkcu, L"e2eStamp", stamped(3)), ApprovedIs(UserStartup, L"e2eTool.exe", stamped(3))}),
                     Logon(L"/restore", 0,
                           {ApprovedIs(Hkcu, L"e2eStamp", stamped(2)), ApprovedIs(UserStartup, L"e2eTool.exe", stamped(2)),
                            Saved("user/Delayed", L"e2eSlash"), NotSaved(L"e2eStamp"), NotSaved(L"e2eTool.exe")})}});
    // The entries switched themselves back on (the value and the file are back, no approved value
    // says off): the check switches them off again, twice, and never writes the store. An empty
    // command or a short hive name fails the switch-off; the value stays on.
    const std::vector<Fact> offAgain = {Off(Hkcu, L"e2eDelayed"), Off(UserStartup, L"e2eFile.lnk"), On(Hkcu, L"e2eNoCmd", back),
                                        On(Hkcu, L"e2eShort", back), StoreUnchanged(), Started({})};
    std::vector<Fact> firstCheck = offAgain;
    firstCheck.insert(firstCheck.end(), {Logged("FAILED " + kRun), Logged("FAILED " + kShortRun)});
    rows.push_back({"CheckAppliesTheSavedStateAgain", Both,
                    {RunValue(Hkcu, L"e2eDelayed", back), RunValue(Hkcu, L"e2eNoCmd", back), RunValue(Hkcu, L"e2eShort", back),
                     File(UserStartup, L"e2eFile.lnk", "x"),
                     Store({{"user/Delayed", "e2eDelayed", backCmd, kRun, 1}, {"user/Delayed", "e2eNoCmd", "", kRun, 1},
                            {"user/Delayed", "e2eShort", backCmd, kShortRun, 1}, {"user/StartupDisabled", "e2eFile.lnk", Rec(L"file"), startup, 1}})},
                    {Logon(L"/checkcrtuser", 0, firstCheck), Logon(L"/checkcrtuser", 0, offAgain)}});
    // Below Windows 8 the saved backup and the target count; from Windows 8 on, the value or file in its place.
    rows.push_back({"LogonRunChecksWhereEachItemWasSaved", Both,
                    {File(UserStartup, L"e2eNoBackup.lnk", "x"),
                     Store({{"user/Delayed", "e2eNoValue", Rec(L"novalue"), kRun, 1},
                            {"user/StartupDelayed", "e2eNoLink.lnk", Rec(L"nolink"), startup, 1},
                            {"user/StartupDelayed", "e2eNoBackup.lnk", Rec(L"nobackup"), startup, 1, "C:\\e2e\\gone.lnk"}})},
                    {Logon(L"", 0, {[](Context& context) {
                         Started(context.windows10 ? std::vector<std::string>{"nobackup"} : std::vector<std::string>{"nolink", "novalue"})(context);
                     }})}});
    const std::wstring backup = JoinPath(userStartup, L"QmBkpFolder");
    const auto attributes = [](std::wstring path, DWORD mask, DWORD set) {
        return [=](Context&) { EXPECT_EQ(GetFileAttributesW(path.c_str()) & mask, set) << Utf8(path); };
    };
    rows.push_back({"StartupFilesMoveToAHiddenBackupAndBack", Win7,
                    {[backup](Context&) { testing_support::RemoveTree(backup); }, File(UserStartup, L"e2eTool.exe", "tool"),
                     File(UserStartup, L"e2eReadOnly.lnk", "ro"),
                     [userStartup](Context&) { SetFileAttributesW(JoinPath(userStartup, L"e2eReadOnly.lnk").c_str(), FILE_ATTRIBUTE_READONLY); },
                     Store({{"user/StartupDelayed", "e2eTool.exe", Utf8(JoinPath(userStartup, L"e2eTool.exe")), startup, 1},
                            {"user/StartupDelayed", "e2eReadOnly.lnk", "x", startup, 1}, {"user/StartupDelayed", "e2eLost.lnk", "x", startup, 1}})},
                    {Logon(L"/checkcrtuser", 0,
                           {Off(UserStartup, L"e2eTool.exe"), Off(UserStartup, L"e2eReadOnly.lnk"),
                            attributes(backup, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY),
                            attributes(backup + L"\\e2eReadOnly.lnk", FILE_ATTRIBUTE_READONLY, 0), File(UserStartup, L"e2eTool.exe", "reappeared")}),
                     Logon(L"/restore", 0,
                           {On(UserStartup, L"e2eTool.exe"), On(UserStartup, L"e2eReadOnly.lnk"), StoreIs(R"({"user":{"StartupDelayed":[],"StartupDisabled":null}})"),
                            [userStartup](Context&) { EXPECT_EQ(testing_support::ReadFileBytes(JoinPath(userStartup, L"e2eTool.exe")), "tool"); },
                            Logged("FAILED MoveFile(" + Utf8(backup + L"\\e2eLost.lnk") + ", " +
                                   Utf8(JoinPath(userStartup, L"e2eLost.lnk")) + ")")})}});
    rows.push_back({"CheckUserReadsTheStoreOfTheGivenFolder", Both, {RunValue(Hkcu, L"e2eOther", back)},
                    {Mgctl(L"--store C:\\e2eUser disable e2eOther", 0, {SwitchedBackOn(Hkcu, L"e2eOther", back)}),
                     Logon(L"/checkuser:C:\\e2eUser", 0, Ran("CHECK USER", {Off(Hkcu, L"e2eOther"), StoreIs("")})),
                     Logon(L"/checkuser:C:\\e2eUser\\ /checkcrtuser", 0,
                           Ran("CHECK CRT USER", {Logged("storage=C:\\e2eUser\\Quillmark\\Dawnstep\\Storage.json")}))}});
    // A switch is a case-sensitive prefix; the later "/time:" or "/checkuser:" wins, and a time
    // bound saturates instead of wrapping.
    rows.push_back({"ModesArePickedByPriorityWhateverTheOrder", Both, {},
                    {Logon(L"/checkcrtuser /restore", 0, Ran("RESTORE")), Logon(L"/restore /checkcrtuser", 0, Ran("RESTORE")),
                     Logon(L"/restoreX", 0, Ran("RESTORE")), Logon(L"/checkcrtuser -restore restore /check", 0, Ran("CHECK CRT USER")),
                     Logon(L"/checkuser:", 0, Ran("CHECK USER", {Logged("\\Quillmark\\Dawnstep\\Storage.json")})),
                     Logon(L"\"/checkuser:C:\\e2e x y\" /checkuser:C:\\e2eB", 0, Ran("CHECK USER", {Logged("storage=C:\\e2eB\\Quillmark")})),
                     Logon(L"\"/checkuser:C:\\e2e x y\"", 0, {Logged("storage=C:\\e2e x y\\Quillmark")}),
                     Logon(L"/RESTORE /time:99999999999999999999", 0, Ran("START APPS", {Logged("time=9223372036854775807")})),
                     Logon(L"/time:-99999999999999999999", 0, {Logged("time=-9223372036854775808")}),
                     Logon(L"/time:5 /time:-7x", 0, {Logged("time=-7")}),
                     Logon(L"/time:abc", 0, Ran("START APPS", {Logged("cmd line=/time:abc"), Logged("time=0")}))}});
    rows.push_back({"BadFoldersAndHugeArgumentsStillExitZero", Both, {RunsWithoutTheLogLibrary()},
                    {Logon(L"/checkuser:C:\\e2eUser\\one\\two", 0, {Exists(L"C:\\e2eUser\\one\\two\\Quillmark\\Dawnstep"),
                                                                   [](Context&) { testing_support::WriteFileBytes(L"C:\\e2eUser\\blocker", "x"); }}),
                     Logon(L"/checkuser:C:\\e2eUser\\blocker\\sub", 0, Ran("CHECK USER", {Exists(L"C:\\e2eUser\\blocker\\sub", false)})),
                     Logon(L"/checkuser:C:\\e2e" + std::wstring(400, L'x'), 0, Ran("CHECK USER")),
                     Logon(L"/unknown " + std::wstring(32000 - 200, L'a'), 0, Ran("START APPS"))}});
    return rows;
}

MORROWGATE_SCENARIO_ROWS(Launcher, Rows());

} // namespace
