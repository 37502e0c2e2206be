// mgctl end to end, under the Windows generation this program sees: each row sets up real Run
// values, Startup-folder files, Store app tasks or store bytes, runs mgctl.exe and Morrowgate.exe
// and checks what they left.
#include "tests/common/Scenario.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using namespace scenario;

namespace {

// One location of each kind: delay it, the logon run starts it, enable puts it back as it was.
struct LocationCase {
    std::string name;
    std::wstring id, entry, section;
    Fact create, off, on;
};

std::vector<LocationCase> LocationCases()
{
    const std::wstring command = Recorder(L"run");
    std::vector<LocationCase> cases;
    struct KeyCase {
        RunKey key;
        const wchar_t* label;
        const char* name;
    };
    for (auto [key, label, name] : {KeyCase{Hkcu, L"HKCU\\Run", "HkcuRun"}, KeyCase{Hklm, L"HKLM\\Run", "HklmRun"},
                                    KeyCase{Hklm32, L"HKLM\\Run32", "HklmRun32"}}) {
        const std::wstring where = key == Hkcu ? L"user/Delayed" : L"system/Delayed";
        cases.push_back({name, std::wstring(label) + L"\\e2eRun", L"e2eRun", where,
                         RunValue(key, L"e2eRun", command, REG_EXPAND_SZ), OffAtLogon(key, L"e2eRun"),
                         // Windows 7 writes the value back as REG_SZ; the data stays.
                         [key, command](Context& context) {
                             HasValue(key, L"e2eRun", command, context.windows10 ? REG_EXPAND_SZ : REG_SZ)(context);
                         }});
    }
    struct FolderCase {
        Folder folder;
        const wchar_t* label;
        const char* name;
    };
    for (auto [folder, label, name] : {FolderCase{UserStartup, L"Startup", "StartupShortcut"},
                                       FolderCase{CommonStartup, L"CommonStartup", "CommonStartupShortcut"}}) {
        const std::wstring where = folder == UserStartup ? L"user/StartupDelayed" : L"system/StartupDelayed";
        cases.push_back({name, std::wstring(label) + L"\\e2eRun.lnk",
                         L"e2eRun.lnk", where, Shortcut(folder, L"e2eRun.lnk", L"run"),
                         OffAtLogon(folder, L"e2eRun.lnk"), OnAtLogon(folder, L"e2eRun.lnk")});
    }
    cases.push_back({"StartupBatchFile", L"Startup\\e2eRun.cmd", L"e2eRun.cmd", L"user/StartupDelayed",
                     File(UserStartup, L"e2eRun.cmd", testing_support::Utf8(command).append("\r\n")),
                     OffAtLogon(UserStartup, L"e2eRun.cmd"), OnAtLogon(UserStartup, L"e2eRun.cmd")});
    return cases;
}

std::vector<Scenario> Rows()
{
    std::vector<Scenario> rows;
    for (const LocationCase& each : LocationCases()) {
        const std::string where(each.section.begin(), each.section.end());
        rows.push_back({"DelayStartEnable" + each.name, Both, {each.create},
                        {Mgctl(L"delay " + each.id, 0, {Out(L"delayed " + each.id), each.off, Saved(where, each.entry)}),
                         Mgctl(L"list --json", 0, {Json(each.id, "state", "\"delayed\""), Json(each.id, "drift", "false")}),
                         Logon(L"", 0, {Started({"run"}), Saved(where, each.entry)}),
                         Mgctl(L"enable " + each.entry, 0, {each.on, NotSaved(each.entry)})}});
    }
    const std::wstring drift = Recorder(L"drift");
    rows.push_back({"DriftIsSwitchedOffAgainWithoutASecondSave", Both, {RunValue(Hkcu, L"e2eDrift", drift)},
                    {Mgctl(L"disable e2eDrift", 0, {OffAtLogon(Hkcu, L"e2eDrift"), Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"list --json", 0, {Json(L"HKCU\\Run\\e2eDrift", "drift", "false"),
                                               SwitchedBackOn(Hkcu, L"e2eDrift", drift)}),
                     Mgctl(L"list --json", 0, {Json(L"HKCU\\Run\\e2eDrift", "drift", "true"),
                                               Json(L"HKCU\\Run\\e2eDrift", "state", "\"disabled\"")}),
                     Logon(L"/checkcrtuser", 0, {OffAtLogon(Hkcu, L"e2eDrift"), SwitchedBackOn(Hkcu, L"e2eDrift", drift)}),
                     Mgctl(L"disable e2eDrift", 0, {Out(L"switched itself back on"), OffAtLogon(Hkcu, L"e2eDrift"),
                                                    Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"disable e2eDrift", 0, {Out(L"already disabled"), Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"delay e2eDrift", 0, {Saved("user/Delayed", L"e2eDrift"), NotSaved(L"e2eNone")}),
                     Logon(L"", 0, {Started({"drift"}), Saved("user/Disabled", L"e2eDrift", 0)})}});
    rows.push_back({"RefusedSaveIsRolledBack", Both, {RunValue(Hkcu, L"e2eKept", drift), StoreIsAFolder()},
                    {Mgctl(L"delay e2eKept", 1, {Err(L"store refused"), LaunchedAtLogon(Hkcu, L"e2eKept", drift)})}});
    rows.push_back({"NonAsciiEntriesAreNotSaved", Both, {RunValue(Hkcu, L"e2eCaf\u00e9", drift)},
                    {Mgctl(L"disable e2eCaf\u00e9", 1, {Err(L"ASCII"), LaunchedAtLogon(Hkcu, L"e2eCaf\u00e9", drift)}),
                     Mgctl(L"list --json", 0, {Json(L"HKCU\\Run\\e2eCaf\u00e9", "storable", "false")})}});
    rows.push_back({"UnknownAndAmbiguousNames", Both,
                    {RunValue(Hkcu, L"e2eTwin", drift), RunValue(Hklm, L"e2eTwin", drift)},
                    {Mgctl(L"delay e2eTwin", 2, {Err(L"HKCU\\Run\\e2eTwin"), Err(L"HKLM\\Run\\e2eTwin")}),
                     Mgctl(L"disable e2eNobody", 2, {Err(L"no entry is called e2eNobody")}),
                     Mgctl(L"disable hklm\\run\\E2ETWIN", 0, {OffAtLogon(Hklm, L"e2eTwin"), Saved("system/Disabled", L"e2eTwin")}),
                     Mgctl(L"frobnicate", 2), Mgctl(L"delay", 2), Mgctl(L"plan --time soon", 2),
                     Mgctl(L"enable --help", 0, {Out(L"usage: mgctl enable")})}});
    rows.push_back({"OnlyStartableProgramsCanBeDelayed", Both, {File(UserStartup, L"e2eNotes.txt", "notes")},
                    {Mgctl(L"delay e2eNotes.txt", 1, {Err(L"mgctl disable"), HasFile(UserStartup, L"e2eNotes.txt")}),
                     Mgctl(L"disable e2eNotes.txt", 0, {Saved("user/StartupDisabled", L"e2eNotes.txt")}),
                     Mgctl(L"enable Startup\\e2eNotes.txt", 0, {OnAtLogon(UserStartup, L"e2eNotes.txt"), NotSaved(L"e2eNotes.txt")})}});
    // Saved by the suite long ago: change times 100 and 200, one program gone.
    const auto item = [](const std::string& name, const std::string& command, int changed) {
        return R"({"BkpPath":"","ChangedTime":)" + std::to_string(changed) + R"(,"Cmd":")" + command +
               R"(","Name":")" + name + R"(","Path":"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run"})";
    };
    const std::string recorder = testing_support::Utf8(Recorder(L"early"));
    std::string escaped;
    for (char c : recorder) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
        }
        escaped += c;
    }
    const std::string late = escaped.substr(0, escaped.size() - 5) + "late";
    rows.push_back({"PlanMatchesWhatTheLogonRunStarts", Both,
                    {StoreBytes(R"({"user":{"Delayed":[)" + item("e2eEarly", escaped, 100) + "," +
                                item("e2eLate", late, 200) + "," + item("e2eGone", "C:\\\\e2e\\\\gone.exe", 100) + "]}}"),
                     RunValue(Hkcu, L"e2eEarly", L"x"), RunValue(Hkcu, L"e2eLate", L"x"), RunValue(Hkcu, L"e2eGone", L"x")},
                    {Mgctl(L"plan --json --time 150", 0,
                           {JsonIds({L"HKCU\\Run\\e2eEarly", L"HKCU\\Run\\e2eLate", L"HKCU\\Run\\e2eGone"}),
                            Json(L"HKCU\\Run\\e2eEarly", "start", "true"), Json(L"HKCU\\Run\\e2eEarly", "reason", "null"),
                            Json(L"HKCU\\Run\\e2eLate", "reason", "\"time\""), Json(L"HKCU\\Run\\e2eGone", "reason", "\"check\""),
                            Json(L"HKCU\\Run\\e2eLate", "changed_time", "200")}),
                     Logon(L"/time:150", 0, {Started({"early"})}),
                     Mgctl(L"plan", 0, {Out(L"HKCU\\Run\\e2eLate   yes")}), Logon(L"", 0, {Started({"early", "late"})})}});
    const std::string lost = R"({"BkpPath":"","ChangedTime":1,"Cmd":"x.exe","Name":"e2eLost","Path":"HKEY_CURRENT_USER\\Software\\e2eGone\\Run"})";
    rows.push_back({"UninstallPutsEverythingBackFirst", Both, {RunValue(Hkcu, L"e2eBack", drift), StoreBytes(R"({"user":{"Disabled":[)" + lost + "]}}")},
                    {Mgctl(L"install", 0, {LauncherValue()}), Mgctl(L"delay e2eBack", 0),
                     Mgctl(L"uninstall", 1, {Err(L"e2eLost"), LauncherValue(), Saved("user/Disabled", L"e2eLost"),
                                             NotSaved(L"e2eBack"), LaunchedAtLogon(Hkcu, L"e2eBack", drift)}),
                     Mgctl(L"enable HKEY_CURRENT_USER\\Software\\e2eGone\\Run\\e2eLost", 1, {Saved("user/Disabled", L"e2eLost")}),
                     Mgctl(L"list --json", 0, {Json(L"HKEY_CURRENT_USER\\Software\\e2eGone\\Run\\e2eLost", "state", "\"disabled\"")}),
                     Mgctl(L"install", 0, {StoreBytes("{}")}), Mgctl(L"uninstall", 0, {NoValue(Hkcu, L"Morrowgate")})}});
    rows.push_back({"SystemEntriesNeedAnElevatedPrompt", Win7,
                    {RunValue(Hklm, L"e2eAdmin", drift), DenyWrites(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion\\Run")},
                    {Mgctl(L"delay HKLM\\Run\\e2eAdmin", 1, {Err(L"elevated prompt"), HasValue(Hklm, L"e2eAdmin", drift), NotSaved(L"e2eAdmin")})}});
    rows.push_back({"SystemEntriesNeedAnElevatedPromptToo", Win10,
                    {Shortcut(CommonStartup, L"e2eAdmin.lnk", L"admin"),
                     DenyWrites(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer")},
                    {Mgctl(L"disable e2eAdmin.lnk", 1, {Err(L"elevated prompt"), OnAtLogon(CommonStartup, L"e2eAdmin.lnk")})}});
    rows.push_back({"StoreAppTasksSwitchTheirStateOnly", Win10,
                    {Task(L"e2eOn", 2), Task(L"e2eUser", 1), Task(L"e2eApp", 0), Task(L"e2ePolicyOff", 3), Task(L"e2ePolicyOn", 4)},
                    {Mgctl(L"list --json", 0, {Json(L"StoreApp\\e2ePackage\\e2eOn", "state", "\"enabled\""),
                                               Json(L"StoreApp\\e2ePackage\\e2eUser", "state", "\"disabled\"")}),
                     Mgctl(L"delay e2eOn", 1, {Err(L"cannot be delayed"), TaskState(L"e2eOn", 2)}),
                     Mgctl(L"disable e2eOn", 0, {Out(L"does not record"), TaskState(L"e2eOn", 1), NotSaved(L"e2eOn")}),
                     Mgctl(L"enable e2eUser", 0, {TaskState(L"e2eUser", 2)}),
                     Mgctl(L"enable e2eApp", 1, {Err(L"the app itself"), TaskState(L"e2eApp", 0)}),
                     Mgctl(L"disable e2eApp", 0, {TaskState(L"e2eApp", 0)}),
                     Mgctl(L"enable e2ePolicyOff", 1, {Err(L"administrator"), TaskState(L"e2ePolicyOff", 3)}),
                     Mgctl(L"disable e2ePolicyOn", 1, {Err(L"administrator"), TaskState(L"e2ePolicyOn", 4)})}});
    return rows;
}

class Mgctl : public ::testing::TestWithParam<Scenario> {};

TEST_P(Mgctl, Scenario)
{
    Execute(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Rows, Mgctl, ::testing::ValuesIn(ForThisGeneration(Rows())),
                         [](const auto& info) { return info.param.name; });

} // namespace
