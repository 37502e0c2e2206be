// Action rules that no single program run shows on its own: the file a command line runs, where
// an item's StartupApproved value lives and how its state word changes, Store app task states and
// the loops over them (the launcher never dispatches tasks), the command of a Startup-folder file
// while it moves, and what the dispatcher holds and refuses.
#include "actions/CStartupFolderActions.h"
#include "actions/CommandTarget.h"
#include "actions/MicrosoftStoreAppsActions.h"
#include "actions/MicrosoftStoreStartupItem.h"
#include "actions/StartupAppsActionExec.h"
#include "actions/Win8StartupItem.h"
#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>
#include <shlobj.h>

using namespace testing_support;
using actions::Win8StartupItem;
using Bytes = std::vector<std::uint8_t>;

namespace {

storage::SharedStartupItem Item(const std::wstring& name, const std::wstring& path, const std::wstring& cmd)
{
    return std::make_shared<storage::StartupItem>(storage::StartupItem{name, path, L"", cmd, true, 0});
}

TEST(CommandTarget, NamesTheFileThatRuns)
{
    const ScopedEnvironment root(L"MG_TEST_ROOT", L"C:\\Expanded Root");
    const std::wstring longPath = L"C:\\" + std::wstring(32000, L'b') + L".exe";
    const std::pair<std::wstring, std::optional<std::wstring>> cases[] = {
        {L"\"C:\\Program Files\\App\\app.exe\" /min", L"C:\\Program Files\\App\\app.exe"},
        {L"C:\\Program Files\\App\\App.EXE -x", L"C:\\Program Files\\App\\App.EXE"},
        {L"C:\\Tools\\run me.bat arg", L"C:\\Tools\\run me.bat"}, {L"C:\\Tools\\run  me   now", L"C:\\Tools\\run me now"},
        {L"C:\\a b\\x.exelink tail", L"C:\\a b\\x.exelink"},  // found anywhere in an argument, not only at its end
        {L"rundll32.exe C:\\x\\y.dll, Entry", L"C:\\x\\y.dll"}, {L"rundll32.exe C:\\x\\y.dll,Entry", L"C:\\x\\y.dll,Entry"},
        {L"RunDll32.EXE C:\\my files\\y.dll, Entry arg", L"C:\\my files\\y.dll"},
        {L"rundll.exe C:\\x\\y.dll Entry", L"C:\\x\\y.dll Entry"},
        {L"rundll32.exe \"C:\\x y\\z.dll\",Entry", L"C:\\x y\\z.dll,Entry"},
        {L"C:\\windows\\system32\\rundll32.exe C:\\x\\y.dll,Entry", L"C:\\windows\\system32\\rundll32.exe"},
        {L"RUNDLL32.EXE", std::nullopt}, {L"no-such-program-mg.exe /x", std::nullopt},
        {L"%windir%", std::nullopt},  // searched for before it is expanded
        {L"%MG_TEST_ROOT%\\system32\\ctfmon.exe /n", L"C:\\Expanded Root\\system32\\ctfmon.exe"},
        {L"\"C:\\Program Files\\app.exe -x", L"C:\\Program Files\\app.exe -x"},  // an open quote runs to the end
        {std::wstring(32766, L'a'), std::nullopt},  // longer than any name on the search path
        {longPath, longPath},
    };
    for (const auto& [line, expected] : cases) {
        SCOPED_TRACE(Utf8(line.substr(0, 80)));
        std::wstring target = L"sentinel";
        EXPECT_EQ(actions::ResolveCommandTarget(line.c_str(), target), expected.has_value());
        EXPECT_EQ(target, expected.value_or(target));
    }
    wchar_t system[MAX_PATH] = {};
    ASSERT_TRUE(SHGetSpecialFolderPathW(nullptr, system, CSIDL_SYSTEM, FALSE));
    std::wstring target;
    ASSERT_TRUE(actions::ResolveCommandTarget(L"notepad.exe /p file.txt", target));
    EXPECT_EQ(_wcsicmp(target.c_str(), JoinPath(system, L"notepad.exe").c_str()), 0) << Utf8(target);
}

TEST(ApprovedValueKey, FollowsTheRunKeyOrTheFolderScope)
{
    const std::wstring run = L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    const std::wstring folder = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
    const struct { std::wstring path; std::uint32_t kind; bool isUser; HKEY root; std::wstring subKey; } cases[] = {
        // Refused: another key, a lower-case or short hive name, a hive alone (a null root).
        {L"HKEY_CURRENT_USER" + run + L"Once", 0, true, nullptr, L""}, {L"hkey_local_machine" + run, 0, true, nullptr, L""},
        {L"HKCU" + run, 0, true, nullptr, L""}, {L"HKEY_CURRENT_USER", 0, true, nullptr, L""},
        // Any kind but the folder one is a Run value; the key is lowered with the user's locale.
        {L"HKEY_USERS\\S-1\\\u00C9\\RUN", 7, true, HKEY_USERS, L"s-1\\\u00E9\\explorer\\startupapproved\\run"},
        {L"C:\\Startup", actions::FolderShortcut, false, HKEY_LOCAL_MACHINE, folder},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.path));
        HKEY root = nullptr;
        std::wstring subKey;
        const storage::StartupItem item{L"App", c.path, L"", L"app.exe", c.isUser, 0};
        EXPECT_EQ(Win8StartupItem::GetItemRegKey(item, c.kind, root, subKey), c.root != nullptr);
        EXPECT_EQ(c.root ? root : nullptr, c.root);
        EXPECT_EQ(c.root ? subKey : L"", c.subKey);
    }
}

TEST(ApprovedValueState, EnableAndDisableLeaveTheseBytes)
{
    const ScratchKey scratch(HKEY_CURRENT_USER, L"Software\\MorrowgateTests\\approved");
    const std::wstring key = scratch.SubKey() + L"\\explorer\\startupapproved\\run";
    const storage::StartupItem item{L"App", L"HKEY_CURRENT_USER\\" + scratch.SubKey() + L"\\Run", L"", L"a.exe", true, 0};
    const auto value = [](std::uint8_t state, size_t length = 16) {  // the bytes after the word are kept
        Bytes bytes(length, 0xA5);
        std::fill_n(bytes.begin(), std::min<size_t>(length, 4), 0);
        return bytes[0] = state, bytes;
    };
    const Bytes fresh = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, text;  // empty: a REG_SZ value
    // before, after: nullopt for no value; key: whether the approved key exists before.
    const struct { bool enable; std::optional<Bytes> before, after; DWORD result = 0; bool key = true; } cases[] = {
        {false, value(0), value(1)}, {false, value(2), value(3)}, {false, value(7), value(3)}, {false, value(1), value(1)},
        {false, value(3), value(3)}, {true, value(1), value(0)}, {true, value(3), value(2)}, {true, value(7), value(2)},
        {true, value(0), value(0)}, {true, value(2), value(2)}, {true, value(1, 2), value(0, 2)},
        {false, std::nullopt, fresh}, {true, std::nullopt, std::nullopt},
        {false, std::nullopt, fresh, 0, false}, {true, std::nullopt, std::nullopt, ERROR_FILE_NOT_FOUND, false},
        {false, value(1, 200), fresh}, {true, value(1, 200), value(1, 200), ERROR_MORE_DATA},
        {false, text, fresh}, {true, text, text, ERROR_GEN_FAILURE},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        DeleteTree(HKEY_CURRENT_USER, scratch.SubKey());
        if (c.key) CreateKey(HKEY_CURRENT_USER, key);
        if (c.before && c.before->empty()) SetString(HKEY_CURRENT_USER, key, item.Name, L"text");
        else if (c.before) SetValue(HKEY_CURRENT_USER, key, item.Name, REG_BINARY, *c.before);
        EXPECT_EQ(c.enable ? Win8StartupItem::Enable(item, actions::RunValue)
                           : Win8StartupItem::Disable(item, actions::RunValue), c.result);
        const auto after = ReadValue(HKEY_CURRENT_USER, key, item.Name);
        ASSERT_EQ(after.has_value(), c.after.has_value());
        EXPECT_EQ(KeyExists(HKEY_CURRENT_USER, key), c.key || c.after);
        if (!after) continue;
        EXPECT_EQ(after->type, c.after->empty() ? DWORD{REG_SZ} : DWORD{REG_BINARY});
        EXPECT_EQ(c.after->empty() ? text : after->data, *c.after);
    }
}

TEST(StoreAppTasks, StateChangesAndTheirRecords)
{
    const TempDir dir;
    auto& store = storage::CStartupItemsStorage::Instance();
    store.Init((dir / L"Storage.json").c_str());
    const ScratchKey scratch(HKEY_CLASSES_ROOT, L"MorrowgateTests\\task");
    const std::wstring key = scratch.SubKey() + L"\\windows.startupTask\\AppTask";
    using Tasks = actions::MicrosoftStoreAppsActions;
    const auto enable = &Tasks::Enable, disable = &Tasks::Disable, delay = &Tasks::Delay;
    // before, after: nullopt for no State value.
    const struct { int (Tasks::*operation)(storage::SharedStartupItemList&, bool); std::optional<DWORD> before, after; int result = 0; } cases[] = {{enable, 0, 1}, {enable, 1, 2}, {enable, 4, 2}, {enable, 2, 2}, {enable, std::nullopt, std::nullopt, 31},
                 {disable, 2, 1}, {delay, 0, 1}, {disable, 1, 1}, {disable, std::nullopt, std::nullopt}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        DeleteTree(HKEY_CLASSES_ROOT, scratch.SubKey());
        CreateKey(HKEY_CLASSES_ROOT, key);
        if (c.before) SetValue(HKEY_CLASSES_ROOT, key, L"State", REG_DWORD, {static_cast<std::uint8_t>(*c.before), 0, 0, 0});
        storage::SharedStartupItemList items{Item(L"AppTask", key, L"app.exe"), Item(L"Other", key + L"x", L"o.exe")};
        DeleteFileW((dir / L"Storage.json").c_str());
        for (const char* section : {storage::kStartupDisabledSection, storage::kStartupDelayedSection})
            store.SaveStartupItems(items, section);  // Enable takes both out, the failed one included
        items.pop_back();
        EXPECT_EQ((Tasks().*c.operation)(items, true), c.result);
        const auto state = ReadValue(HKEY_CLASSES_ROOT, key, L"State");
        EXPECT_EQ(state ? std::optional<DWORD>(state->data.at(0)) : std::nullopt, c.after);
        for (const char* section : {storage::kStartupDisabledSection, storage::kStartupDelayedSection}) {
            storage::StartupItemList saved;
            store.LoadStartupItems(section, saved);
            const bool recorded = std::string(section) == (c.operation == delay ? "StartupDelayed" : "StartupDisabled");
            EXPECT_EQ(saved.size(), c.operation == enable ? 1u : recorded ? 3u : 2u) << section;
        }
    }
    WriteFileBytes(dir / L"AppTask", "task");
    WriteFileBytes(dir / L"app.exe", "MZ");
    Tasks tasks;
    EXPECT_EQ(tasks.Check(*Item(L"AppTask", dir.Path(), L"\"" + (dir / L"app.exe") + L"\" -x")), 0);
    EXPECT_EQ(tasks.Check(*Item(L"AppTask", dir / L"Missing", dir / L"app.exe")), 31);
    EXPECT_EQ(tasks.Check(*Item(L"AppTask", dir.Path(), dir / L"gone.exe")), 31);
    // An empty task key would name HKEY_CLASSES_ROOT itself: refused before the registry is asked.
    DWORD state = 7;
    RegDeleteKeyValueW(HKEY_CLASSES_ROOT, nullptr, L"State");  // what a faulty build may have left there
    EXPECT_EQ(actions::MicrosoftStoreStartupItem::GetItemRegValue(HKEY_CLASSES_ROOT, L"", state), 31u);
    EXPECT_EQ(actions::MicrosoftStoreStartupItem::SetItemRegValue(HKEY_CLASSES_ROOT, L"", 1), 31u);
    EXPECT_FALSE(ReadValue(HKEY_CLASSES_ROOT, L"", L"State").has_value());
}

// Below Windows 8 a file that is not a shortcut is started from where it lies; the test for a
// shortcut is case-sensitive.
TEST(StartupFolderFiles, CommandsFollowFilesThatAreNotShortcuts)
{
    const TempDir startup;
    actions::CStartupFolderActions folder{L"QmBkpFolder"};
    const std::wstring names[] = {L"tool.exe", L"Upper.LNK", L"lower.lnk"};
    storage::SharedStartupItemList items;
    for (const std::wstring& name : names) WriteFileBytes(startup / name, "x");
    for (const std::wstring& name : names) items.push_back(Item(name, startup.Path(), L"original"));
    const auto commands = [&items] {
        std::wstring all;
        for (const auto& item : items) all += item->Cmd + L"|";
        return all;
    };
    EXPECT_EQ(folder.Disable(items, false), 0);
    const std::wstring backup = startup / L"QmBkpFolder\\";
    EXPECT_EQ(items.front()->BkpPath, backup + names[0]);
    EXPECT_EQ(commands(), backup + names[0] + L"|" + backup + names[1] + L"|original|");
    for (const auto& item : items) item->Cmd = L"original";
    EXPECT_EQ(folder.Enable(items, false), 0);
    EXPECT_EQ(commands(), startup / names[0] + L"|" + startup / names[1] + L"|original|");
}

TEST(Dispatcher, HoldsStoreAppsFromWindows8OnAndRefusesUnknownActions)
{
    actions::StartupAppsActionExec exec;
    EXPECT_EQ(exec[actions::StoreApp] != nullptr, IsWindows8OrGreater());
    const ScratchKey scratch(HKEY_CURRENT_USER, L"Software\\MorrowgateTests\\exec");
    SetString(HKEY_CURRENT_USER, scratch.SubKey() + L"\\Run", L"App", L"app.exe");
    storage::SharedStartupItemList items{Item(L"App", L"HKEY_CURRENT_USER\\" + scratch.SubKey() + L"\\Run", L"app.exe")};
    for (int action : {3, -1}) EXPECT_EQ(exec.Execute(action, actions::RunKey, items, false), 31) << action;
    EXPECT_TRUE(ReadValue(HKEY_CURRENT_USER, scratch.SubKey() + L"\\Run", L"App").has_value());
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, scratch.SubKey() + L"\\explorer"));
}

} // namespace
