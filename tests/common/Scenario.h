// End-to-end scenarios: a row names the Windows generation it runs under, sets up the world
// before (registry values, files, store bytes), runs Morrowgate.exe or mgctl.exe one or more
// times and checks the world after each run (registry, files, store, the programs started, the
// output and the exit code). Everything is real: the prefix's registry, Startup folders, the
// user's Storage.json and real child processes. Names the rows create start with "e2e" (and
// folders of their own are C:\e2e*), so that the runner can clear them before and after each row.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace scenario {

enum Generation { Win7 = 1, Win10 = 2, Both = 3 };

// What the facts of a row see and change.
struct Context {
    bool windows10 = false;
    std::wstring launcher, mgctl;      // the programs under test, beside qmtrace.dll
    std::wstring log, record, out, err;
    std::wstring store;                // the user's Storage.json
    std::string storeWritten;          // what the row wrote into it
    std::vector<std::function<void()>> cleanups;  // run when the row ends
};

// Sets up the world (before a run) or checks it (after a run, with GoogleTest assertions).
using Fact = std::function<void(Context&)>;

struct Run {
    bool launcher = false;  // Morrowgate.exe, else mgctl.exe
    std::wstring arguments;
    DWORD exitCode = 0;
    std::vector<Fact> after;
};

struct Scenario {
    std::string name;
    Generation generation = Both;
    std::vector<Fact> before;
    std::vector<Run> runs;
};

// GoogleTest prints a row by its name.
inline void PrintTo(const Scenario& row, std::ostream* out)
{
    *out << row.name;
}

inline Run Mgctl(std::wstring arguments, DWORD exitCode, std::vector<Fact> after = {}) { return {false, arguments, exitCode, after}; }
inline Run Logon(std::wstring arguments, DWORD exitCode, std::vector<Fact> after = {}) { return {true, arguments, exitCode, after}; }

// Runs one row in a fresh world and clears it again; the process must see the row's generation.
void Execute(const Scenario& row);

// The rows of a table that run under the generation this process sees, for INSTANTIATE_TEST_SUITE_P.
std::vector<Scenario> ForThisGeneration(const std::vector<Scenario>& rows);

// Where an entry lives: a Run key or a Startup folder.
enum Location { Hkcu, Hklm, Hklm32, UserStartup, CommonStartup };
std::wstring FolderOf(Location folder);
std::wstring Recorder(const std::wstring& tag);  // a command that notes the tag when it runs

// Facts that set up.
Fact RunValue(Location key, std::wstring name, std::wstring command, DWORD type = REG_SZ);
Fact Shortcut(Location folder, std::wstring name, std::wstring tag);  // a .lnk starting the recorder
Fact File(Location folder, std::wstring name, std::string bytes);  // name may hold a subfolder
struct StoredItem {
    std::string where;  // scope and section: "user/Delayed"
    std::string name, command, path;
    double changedTime;
    std::string backup = "";
};
Fact Store(std::vector<StoredItem> items);  // Storage.json holding exactly these items ("{}" for none)
Fact StoreBytes(std::string bytes);        // Storage.json holding exactly these bytes
Fact StoreIsAFolder();
Fact Approved(Location where, std::wstring name, std::vector<std::uint8_t> bytes);  // the approved value
Fact Task(std::wstring task, std::uint8_t state);  // a Store app task of the package e2ePackage
Fact DenyWrites(HKEY root, std::wstring key);   // until the row ends
// The entry switched itself back on: its value is back, or its approved value says on.
Fact SwitchedBackOn(Location key, std::wstring name, std::wstring command);

// Facts that check. "On" is what Windows starts at logon: the value (with this command and type)
// or file in its place, and on Windows 8 and later no approved value that says off. "Off" is the
// opposite: the value gone or the file in the backup folder (Windows 7), or an approved value
// that says off.
Fact On(Location where, std::wstring name, std::wstring command = L"", DWORD type = REG_SZ);
Fact Off(Location where, std::wstring name);
Fact Saved(std::string where, std::wstring name, size_t count = 1);  // where: "user/Delayed"
Fact NotSaved(std::wstring name);
Fact TaskState(std::wstring task, DWORD state);
Fact StoreIs(std::string bytes);            // Storage.json holds exactly these bytes ("" for none)
Fact StoreUnchanged();                       // holds what the row wrote into it
Fact Exists(std::wstring path, bool exists = true);
// The approved value holds exactly these bytes (empty for no value).
Fact ApprovedIs(Location where, std::wstring name, std::vector<std::uint8_t> bytes);
// The log of the last run holds a line whose message contains text, count times (UTF-8 text).
Fact Logged(std::string text, size_t count = 1);
Fact LoggedInOrder(std::vector<std::string> texts);  // lines holding these texts, in this order
Fact Started(std::vector<std::string> tags);  // sorted
Fact Out(std::wstring text);  // the output contains text
Fact Err(std::wstring text);
Fact LauncherRegistered(bool registered);  // HKCU Run "Morrowgate" names the launcher beside mgctl
// The JSON array of the output holds an object with this id whose fields serialise as given.
Fact Json(std::wstring id, std::vector<std::pair<std::string, std::string>> fields);
Fact JsonIds(std::vector<std::wstring> ids);  // the ids holding "\e2e", in order

} // namespace scenario

// Runs the rows of a table that suit this process's Windows generation as the tests of one suite,
// each named after its row.
#define MORROWGATE_SCENARIO_ROWS(suite, rows)                                                      \
    class suite : public ::testing::TestWithParam<::scenario::Scenario> {};                       \
    TEST_P(suite, Scenario) { ::scenario::Execute(GetParam()); }                                   \
    INSTANTIATE_TEST_SUITE_P(Rows, suite, ::testing::ValuesIn(::scenario::ForThisGeneration(rows)), \
                             [](const auto& info) { return info.param.name; })
