// What the action objects leave behind when Morrowgate.exe restores, re-applies or starts saved
// items, under the Windows generation this program sees: the saved items are written as the suite
// writes them, the Run values, Startup-folder files and approved values are real.
#include "tests/common/Scenario.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>
#include <picojson.h>

using namespace scenario;
using testing_support::Utf8;

namespace {

const std::wstring kRunKey = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
const std::wstring kHkcuRun = L"HKEY_CURRENT_USER\\" + kRunKey, kShortRun = L"HKCU\\" + kRunKey;

// One saved item as the store holds it.
std::string Stored(const std::wstring& name, const std::wstring& cmd, const std::wstring& path,
                   const std::wstring& backup = L"")
{
    const auto text = [](const std::wstring& value) { return picojson::value(Utf8(value)).serialize(); };
    return "{\"BkpPath\":" + text(backup) + ",\"ChangedTime\":1,\"Cmd\":" + text(cmd) + ",\"Name\":" + text(name) +
           ",\"Path\":" + text(path) + "}";
}

// The user's sections, each "\"<section>\":[<items>]".
Fact UserStore(const std::vector<std::string>& sections)
{
    std::string joined;
    for (const std::string& section : sections) {
        joined += (joined.empty() ? "" : ",") + section;
    }
    return StoreBytes("{\"user\":{" + joined + "}}");
}

Fact ByGeneration(Fact windows7, Fact windows10)
{
    return [=](Context& context) { (context.windows10 ? windows10 : windows7)(context); };
}

Fact NothingSaved()
{
    return [](Context& context) {
        EXPECT_EQ(testing_support::ReadFileBytes(context.store).value_or("").find("\"Name\""), std::string::npos);
    };
}

std::wstring StartupPath(const std::wstring& name = L"")
{
    return testing_support::JoinPath(FolderOf(UserStartup), name);
}

std::vector<Scenario> Rows()
{
    const std::wstring cmd = Recorder(L"run"), startup = FolderOf(UserStartup), backup = StartupPath(L"QmBkpFolder");
    const std::wstring gone = L"HKEY_CURRENT_USER\\Software\\e2eGone\\Run";
    std::vector<Scenario> rows;
    // Put back as REG_SZ where the Run key is named in full and still exists; every item leaves the store.
    rows.push_back({"RestoreForgetsEvenWhatItCannotPutBack", Win7,
                    {UserStore({"\"Delayed\":[" + Stored(L"e2eGood", cmd, kHkcuRun) + "," +
                                Stored(L"e2eHive", cmd, L"HKEY_CURRENT_USER") + "," + Stored(L"e2eShort", cmd, kShortRun) +
                                "," + Stored(L"e2eLost", cmd, gone) + "," + Stored(L"e2eNoCmd", L"", kHkcuRun) + "]"})},
                    {Logon(L"/restore", 0,
                           {On(Hkcu, L"e2eGood", cmd), Off(Hkcu, L"e2eShort"), Off(Hkcu, L"e2eNoCmd"), NothingSaved(),
                            [](Context&) { EXPECT_FALSE(testing_support::KeyExists(HKEY_CURRENT_USER, L"Software\\e2eGone")); },
                            Logged("RollbackToRegistry FAILED ", 3), Logged("RollbackToRegistry FAILED " + Utf8(kShortRun)),
                            Logged("RollbackToRegistry FAILED " + Utf8(gone))})}});
    // An empty command or a short hive name fails the switch-off; the value stays on.
    rows.push_back({"CheckSwitchesOffAgainWhatItCan", Both,
                    {RunValue(Hkcu, L"e2eOff", cmd), RunValue(Hkcu, L"e2eNoCmd", cmd), RunValue(Hkcu, L"e2eShort", cmd),
                     UserStore({"\"Delayed\":[" + Stored(L"e2eOff", cmd, kHkcuRun) + "," + Stored(L"e2eNoCmd", L"", kHkcuRun) +
                                "," + Stored(L"e2eShort", cmd, kShortRun) + "]"})},
                    {Logon(L"/checkcrtuser", 0,
                           {Off(Hkcu, L"e2eOff"), On(Hkcu, L"e2eNoCmd", cmd), On(Hkcu, L"e2eShort", cmd),
                            Logged("FAILED " + Utf8(kHkcuRun)), Logged("FAILED " + Utf8(kShortRun))})}});
    // Below Windows 8 the saved backup and the target count; from Windows 8 on, the value or file in its place.
    rows.push_back({"LogonRunChecksWhereEachItemWasSaved", Both,
                    {File(UserStartup, L"e2eNoBackup.lnk", "x"),
                     UserStore({"\"Delayed\":[" + Stored(L"e2eNoValue", Recorder(L"novalue"), kHkcuRun) + "]",
                                "\"StartupDelayed\":[" + Stored(L"e2eNoLink.lnk", Recorder(L"nolink"), startup) + "," +
                                    Stored(L"e2eNoBackup.lnk", Recorder(L"nobackup"), startup, L"C:\\e2e\\gone.lnk") + "]"})},
                    {Logon(L"", 0, {ByGeneration(Started({"nolink", "novalue"}), Started({"nobackup"}))})}});
    const auto readOnly = [](Context&) {
        EXPECT_TRUE(SetFileAttributesW(StartupPath(L"e2eReadOnly.lnk").c_str(), FILE_ATTRIBUTE_READONLY));
    };
    const auto noBackupFolder = [backup](Context&) {
        SetFileAttributesW(backup.c_str(), FILE_ATTRIBUTE_NORMAL);
        RemoveDirectoryW(backup.c_str());
    };
    const auto attributes = [](std::wstring path, DWORD mask, DWORD set) {
        return [=](Context&) { EXPECT_EQ(GetFileAttributesW(path.c_str()) & mask, set) << Utf8(path); };
    };
    rows.push_back({"StartupFilesMoveToAHiddenBackupAndBack", Win7,
                    {noBackupFolder, File(UserStartup, L"e2eTool.exe", "tool"), File(UserStartup, L"e2eReadOnly.lnk", "ro"),
                     readOnly,
                     UserStore({"\"StartupDelayed\":[" + Stored(L"e2eTool.exe", StartupPath(L"e2eTool.exe"), startup) + "," +
                                Stored(L"e2eReadOnly.lnk", L"x", startup) + "," + Stored(L"e2eLost.lnk", L"x", startup) + "]"})},
                    {Logon(L"/checkcrtuser", 0,
                           {Off(UserStartup, L"e2eTool.exe"), Off(UserStartup, L"e2eReadOnly.lnk"),
                            attributes(backup, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY,
                                       FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY),
                            attributes(backup + L"\\e2eReadOnly.lnk", FILE_ATTRIBUTE_READONLY, 0),
                            File(UserStartup, L"e2eTool.exe", "reappeared")}),
                     Logon(L"/restore", 0,
                           {On(UserStartup, L"e2eTool.exe"), On(UserStartup, L"e2eReadOnly.lnk"), NothingSaved(),
                            [](Context&) { EXPECT_EQ(testing_support::ReadFileBytes(StartupPath(L"e2eTool.exe")), "tool"); },
                            Logged("FAILED MoveFile(" + Utf8(backup + L"\\e2eLost.lnk") + ", " +
                                   Utf8(StartupPath(L"e2eLost.lnk")) + ")")})}});
    // The state word changes and the bytes after it stay. A Run key ending in a backslash is refused
    // by an exception that costs only its own section: that item stays saved.
    const auto stamped = [](std::uint8_t state) { return std::vector<std::uint8_t>{state, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}; };
    rows.push_back({"ApprovedValuesKeepTheirTimestamp", Win10,
                    {RunValue(Hkcu, L"e2eStamp", cmd), Approved(Hkcu, L"e2eStamp", stamped(2)),
                     File(UserStartup, L"e2eTool.exe", "x"), Approved(UserStartup, L"e2eTool.exe", stamped(2)),
                     UserStore({"\"Delayed\":[" + Stored(L"e2eSlash", cmd, kHkcuRun + L"\\") + "]",
                                "\"StartupDelayed\":[" + Stored(L"e2eTool.exe", L"x", startup) + "]",
                                "\"Disabled\":[" + Stored(L"e2eStamp", cmd, kHkcuRun) + "]"})},
                    {Logon(L"/checkcrtuser", 0,
                           {ApprovedIs(Hkcu, L"e2eStamp", stamped(3)), ApprovedIs(UserStartup, L"e2eTool.exe", stamped(3))}),
                     Logon(L"/restore", 0,
                           {ApprovedIs(Hkcu, L"e2eStamp", stamped(2)), ApprovedIs(UserStartup, L"e2eTool.exe", stamped(2)),
                            Saved("user/Delayed", L"e2eSlash"), NotSaved(L"e2eStamp"), NotSaved(L"e2eTool.exe")})}});
    return rows;
}

MORROWGATE_SCENARIO_ROWS(Actions, Rows());

} // namespace
