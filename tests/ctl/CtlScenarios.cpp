// mgctl end to end, under the Windows generation this program sees: each row sets up real Run
// values, Startup-folder files, Store app tasks or store bytes, runs mgctl.exe and Morrowgate.exe
// and checks what they left.
#include "tests/common/Scenario.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using namespace scenario;

namespace {

const std::string kHkcuRun = "HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";

// Every kind of location: delay an entry, the logon run starts it, enable puts it back as it was
// (Windows 7 writes a Run value back as REG_SZ; the data stays).
void AddLocationRows(std::vector<Scenario>& rows)
{
    const std::wstring command = Recorder(L"run");
    const auto runValueBack = [command](Location key) {
        return [key, command](Context& context) {
            On(key, L"e2eRun", command, context.windows10 ? REG_EXPAND_SZ : REG_SZ)(context);
        };
    };
    struct Case {
        const char* name;
        std::wstring id, entry;
        std::string where;
        Fact create, off, on;
    };
    const Case cases[] = {
        {"HkcuRun", L"HKCU\\Run\\e2eRun", L"e2eRun", "user/Delayed", RunValue(Hkcu, L"e2eRun", command, REG_EXPAND_SZ),
         Off(Hkcu, L"e2eRun"), runValueBack(Hkcu)},
        {"HklmRun", L"HKLM\\Run\\e2eRun", L"e2eRun", "system/Delayed", RunValue(Hklm, L"e2eRun", command, REG_EXPAND_SZ),
         Off(Hklm, L"e2eRun"), runValueBack(Hklm)},
        {"HklmRun32", L"HKLM\\Run32\\e2eRun", L"e2eRun", "system/Delayed",
         RunValue(Hklm32, L"e2eRun", command, REG_EXPAND_SZ), Off(Hklm32, L"e2eRun"), runValueBack(Hklm32)},
        {"StartupShortcut", L"Startup\\e2eRun.lnk", L"e2eRun.lnk", "user/StartupDelayed",
         Shortcut(UserStartup, L"e2eRun.lnk", L"run"), Off(UserStartup, L"e2eRun.lnk"), On(UserStartup, L"e2eRun.lnk")},
        {"CommonStartupShortcut", L"CommonStartup\\e2eRun.lnk", L"e2eRun.lnk", "system/StartupDelayed",
         Shortcut(CommonStartup, L"e2eRun.lnk", L"run"), Off(CommonStartup, L"e2eRun.lnk"),
         On(CommonStartup, L"e2eRun.lnk")},
        {"StartupBatchFile", L"Startup\\e2eRun.cmd", L"e2eRun.cmd", "user/StartupDelayed",
         File(UserStartup, L"e2eRun.cmd", testing_support::Utf8(command).append("\r\n")),
         Off(UserStartup, L"e2eRun.cmd"), On(UserStartup, L"e2eRun.cmd")},
    };
    for (const Case& each : cases) {
        rows.push_back({std::string("DelayStartEnable") + each.name, Both, {each.create},
                        {Mgctl(L"delay " + each.id, 0, {Out(L"delayed " + each.id), each.off, Saved(each.where, each.entry)}),
                         Mgctl(L"list --json", 0, {Json(each.id, {{"state", "\"delayed\""}, {"drift", "false"}})}),
                         Logon(L"", 0, {Started({"run"}), Saved(each.where, each.entry)}),
                         Mgctl(L"enable " + each.entry, 0, {each.on, NotSaved(each.entry)})}});
    }
}

std::vector<Scenario> Rows()
{
    std::vector<Scenario> rows;
    AddLocationRows(rows);
    const std::wstring drift = Recorder(L"drift");
    const std::wstring driftId = L"HKCU\\Run\\e2eDrift";
    rows.push_back({"DriftIsSwitchedOffAgainWithoutASecondSave", Both, {RunValue(Hkcu, L"e2eDrift", drift)},
                    {Mgctl(L"disable e2eDrift", 0, {Off(Hkcu, L"e2eDrift"), Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"list --json", 0, {Json(driftId, {{"drift", "false"}}), SwitchedBackOn(Hkcu, L"e2eDrift", drift)}),
                     Mgctl(L"list --json", 0, {Json(driftId, {{"drift", "true"}, {"state", "\"disabled\""}})}),
                     Mgctl(L"disable e2eDrift", 0, {Out(L"switched itself back on"), Off(Hkcu, L"e2eDrift"),
                                                    Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"disable e2eDrift", 0, {Out(L"already disabled"), Saved("user/Disabled", L"e2eDrift")}),
                     Mgctl(L"delay e2eDrift", 0, {Saved("user/Delayed", L"e2eDrift"), Saved("user/Disabled", L"e2eDrift", 0)}),
                     Logon(L"", 0, {Started({"drift"})})}});
    rows.push_back({"RefusedSaveIsRolledBack", Both,
                    {RunValue(Hkcu, L"e2eKept", drift), Shortcut(UserStartup, L"e2eKept.lnk", L"kept"), StoreIsAFolder()},
                    {Mgctl(L"delay HKCU\\Run\\e2eKept", 1, {Err(L"store refused"), On(Hkcu, L"e2eKept", drift)}),
                     Mgctl(L"delay e2eKept.lnk", 1, {Err(L"store refused"), On(UserStartup, L"e2eKept.lnk")})}});
    rows.push_back({"NonAsciiEntriesAreNotSaved", Both, {RunValue(Hkcu, L"e2eCaf\u00e9", drift)},
                    {Mgctl(L"disable e2eCaf\u00e9", 1, {Err(L"ASCII"), On(Hkcu, L"e2eCaf\u00e9", drift)}),
                     Mgctl(L"list --json", 0, {Json(L"HKCU\\Run\\e2eCaf\u00e9", {{"storable", "false"}})})}});
    rows.push_back({"UnknownAndAmbiguousNames", Both, {RunValue(Hkcu, L"e2eTwin", drift), RunValue(Hklm, L"e2eTwin", drift)},
                    {Mgctl(L"delay e2eTwin", 2, {Err(L"HKCU\\Run\\e2eTwin"), Err(L"HKLM\\Run\\e2eTwin")}),
                     Mgctl(L"disable e2eNobody", 2, {Err(L"no entry is called e2eNobody")}),
                     Mgctl(L"disable hklm\\run\\E2ETWIN", 0, {Off(Hklm, L"e2eTwin"), Saved("system/Disabled", L"e2eTwin")}),
                     Mgctl(L"frobnicate", 2), Mgctl(L"delay", 2), Mgctl(L"plan --time soon", 2),
                     Mgctl(L"enable --help", 0, {Out(L"usage: mgctl enable")})}});
    rows.push_back({"OnlyStartableProgramsCanBeDelayed", Both, {File(UserStartup, L"e2eNotes.txt", "notes")},
                    {Mgctl(L"list --json", 0, {Json(L"Startup\\e2eNotes.txt", {{"state", "\"enabled\""}})}),
                     Mgctl(L"delay e2eNotes.txt", 1, {Err(L"mgctl disable"), On(UserStartup, L"e2eNotes.txt")}),
                     Mgctl(L"disable e2eNotes.txt", 0, {Saved("user/StartupDisabled", L"e2eNotes.txt")}),
                     Mgctl(L"enable Startup\\e2eNotes.txt", 0, {On(UserStartup, L"e2eNotes.txt"), NotSaved(L"e2eNotes.txt")})}});
    // Saved by the suite long ago: change times 100 and 200, and one program gone.
    const std::string early = testing_support::Utf8(Recorder(L"early")), late = testing_support::Utf8(Recorder(L"late"));
    rows.push_back({"PlanMatchesWhatTheLogonRunStarts", Both,
                    {Store({{"user/Delayed", "e2eEarly", early, kHkcuRun, 100}, {"user/Delayed", "e2eLate", late, kHkcuRun, 200},
                            {"user/Delayed", "e2eGone", "C:\\e2e\\gone.exe", kHkcuRun, 100}}),
                     RunValue(Hkcu, L"e2eEarly", L"x"), RunValue(Hkcu, L"e2eLate", L"x"), RunValue(Hkcu, L"e2eGone", L"x")},
                    {Mgctl(L"plan --json --time 150", 0,
                           {JsonIds({L"HKCU\\Run\\e2eEarly", L"HKCU\\Run\\e2eLate", L"HKCU\\Run\\e2eGone"}),
                            Json(L"HKCU\\Run\\e2eEarly", {{"start", "true"}, {"reason", "null"}, {"saved", "\"user/Delayed\""}}),
                            Json(L"HKCU\\Run\\e2eLate", {{"start", "false"}, {"reason", "\"time\""}, {"changed_time", "200"}}),
                            Json(L"HKCU\\Run\\e2eGone", {{"start", "false"}, {"reason", "\"check\""}})}),
                     Logon(L"/time:150", 0, {Started({"early"})}),
                     Mgctl(L"plan", 0, {Out(L"HKCU\\Run\\e2eLate   yes    -       200      " + Recorder(L"late"))}), Logon(L"", 0, {Started({"early", "late"})})}});
    // An item whose Run key is gone cannot be put back: it stays saved, and the launcher stays registered.
    rows.push_back({"UninstallPutsEverythingBackFirst", Both,
                    {RunValue(Hkcu, L"e2eBack", drift),
                     Store({{"user/Disabled", "e2eLost", "C:\\e2e\\gone.exe", "HKEY_CURRENT_USER\\Software\\e2eGone\\Run", 1}})},
                    {Mgctl(L"install", 0, {LauncherRegistered(true)}), Mgctl(L"delay e2eBack", 0),
                     Mgctl(L"uninstall", 1, {Err(L"e2eLost"), LauncherRegistered(true), Saved("user/Disabled", L"e2eLost"),
                                             NotSaved(L"e2eBack"), On(Hkcu, L"e2eBack", drift)}),
                     Mgctl(L"enable e2eLost", 1, {Saved("user/Disabled", L"e2eLost")}),
                     Mgctl(L"list --json", 0, {Json(L"HKEY_CURRENT_USER\\Software\\e2eGone\\Run\\e2eLost", {{"state", "\"disabled\""}, {"target_exists", "false"}})}),
                     Mgctl(L"install", 0, {Store({})}), Mgctl(L"uninstall", 0, {LauncherRegistered(false)})}});
    // Unelevated, the user may not write below HKEY_LOCAL_MACHINE; a deny entry on the key shows it.
    rows.push_back({"SystemEntriesNeedAnElevatedPrompt", Win7,
                    {RunValue(Hklm, L"e2eAdmin", drift), DenyWrites(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion\\Run")},
                    {Mgctl(L"delay HKLM\\Run\\e2eAdmin", 1, {Err(L"elevated prompt"), On(Hklm, L"e2eAdmin", drift), NotSaved(L"e2eAdmin")})}});
    rows.push_back({"CommonStartupNeedsAnElevatedPrompt", Win10,
                    {Shortcut(CommonStartup, L"e2eAdmin.lnk", L"admin"),
                     DenyWrites(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer")},
                    {Mgctl(L"disable e2eAdmin.lnk", 1, {Err(L"elevated prompt"), On(CommonStartup, L"e2eAdmin.lnk")})}});
    rows.push_back({"StoreAppTasksSwitchTheirStateOnly", Win10,
                    {Task(L"e2eOn", 2), Task(L"e2eUser", 1), Task(L"e2eApp", 0), Task(L"e2ePolicyOff", 3), Task(L"e2ePolicyOn", 4)},
                    {Mgctl(L"list --json", 0, {Json(L"StoreApp\\e2ePackage\\e2eOn", {{"state", "\"enabled\""}}),
                                               Json(L"StoreApp\\e2ePackage\\e2eUser", {{"state", "\"disabled\""}})}),
                     Mgctl(L"delay e2eOn", 1, {Err(L"cannot be delayed"), TaskState(L"e2eOn", 2)}),
                     Mgctl(L"disable e2eOn", 0, {Out(L"does not record"), TaskState(L"e2eOn", 1), NotSaved(L"e2eOn")}),
                     Mgctl(L"enable e2eUser", 0, {TaskState(L"e2eUser", 2)}),
                     Mgctl(L"enable e2eApp", 1, {Err(L"the app itself"), TaskState(L"e2eApp", 0)}),
                     Mgctl(L"disable e2eApp", 0, {TaskState(L"e2eApp", 0)}),
                     Mgctl(L"enable e2ePolicyOff", 1, {Err(L"administrator"), TaskState(L"e2ePolicyOff", 3)}),
                     Mgctl(L"disable e2ePolicyOn", 1, {Err(L"administrator"), TaskState(L"e2ePolicyOn", 4)})}});
    return rows;
}

MORROWGATE_SCENARIO_ROWS(Mgctl, Rows());

} // namespace
