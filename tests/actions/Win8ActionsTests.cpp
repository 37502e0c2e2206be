// The Windows 8 Run-key and Startup-folder actions against the real registry and a store of the
// test's own, and the dispatcher that owns them.
#include "actions/CWin8RunKeyAppsActions.h"
#include "actions/CWin8StartupFolderActions.h"
#include "actions/StartupAppsActionExec.h"
#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using Bytes = std::vector<std::uint8_t>;
using namespace testing_support;

namespace {

const Bytes kDisabledFresh = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const Bytes kEnabledFresh = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

class Win8Actions : public ::testing::Test {
protected:
    void SetUp() override { UseStore(m_dir / L"Storage.json"); }

    static void UseStore(const std::wstring& path) { storage::CStartupItemsStorage::Instance().Init(path.c_str()); }

    // A store that refuses every save: a folder stands where the file should be.
    void RefusingStore()
    {
        const std::wstring blocked = m_dir / L"Blocked.json";
        CreateDirectoryW(blocked.c_str(), nullptr);
        UseStore(blocked);
    }

    storage::SharedStartupItemList RunItems(std::initializer_list<const wchar_t*> names)
    {
        storage::SharedStartupItemList items;
        for (const wchar_t* name : names) {
            auto item = std::make_shared<storage::StartupItem>();
            item->Name = name;
            item->Path = L"HKEY_CURRENT_USER\\" + m_base + L"\\Run";
            item->Cmd = L"C:\\windows\\notepad.exe";
            item->IsUser = true;
            items.push_back(item);
        }
        return items;
    }

    std::optional<RegValue> Approved(const std::wstring& name)
    {
        return ReadValue(HKEY_CURRENT_USER, m_base + L"\\explorer\\startupapproved\\run", name);
    }

    storage::StartupItemList Load(const char* section)
    {
        storage::StartupItemList items;
        storage::CStartupItemsStorage::Instance().LoadStartupItems(section, items);
        return items;
    }

    TempDir m_dir;
    std::wstring m_base = L"Software\\MorrowgateTests\\" + UniqueName(L"win8");
    ScratchKey m_scratch{HKEY_CURRENT_USER, m_base};
    LogCapture m_log;
    actions::CWin8RunKeyAppsActions m_runKeys;
    actions::CWin8StartupFolderActions m_folders;
};

TEST_F(Win8Actions, DisableSwitchesEachItemAndRecordsIt)
{
    auto items = RunItems({L"One", L"Two"});
    EXPECT_EQ(m_runKeys.Disable(items, true), 0);
    EXPECT_EQ(Approved(L"One")->data, kDisabledFresh);
    EXPECT_EQ(Approved(L"Two")->data, kDisabledFresh);
    const auto saved = Load(storage::kDisabledSection);
    ASSERT_EQ(saved.size(), 2u);
    EXPECT_EQ(saved.front().Name, L"One");
    EXPECT_TRUE(saved.front().IsUser);
    EXPECT_TRUE(Load(storage::kDelayedSection).empty());
    EXPECT_EQ(CountMessages(m_log.Lines(), "Disable HKEY_CURRENT_USER\\" + Utf8(m_base) + "\\Run One"), 1u);
}

TEST_F(Win8Actions, WithoutSaveTheStoreIsNotTouched)
{
    auto items = RunItems({L"One"});
    EXPECT_EQ(m_runKeys.Delay(items, false), 0);
    EXPECT_EQ(Approved(L"One")->data, kDisabledFresh);
    EXPECT_FALSE(FileExists(m_dir / L"Storage.json"));
}

TEST_F(Win8Actions, RefusedSaveSwitchesTheItemBackOn)
{
    RefusingStore();
    auto items = RunItems({L"One"});
    EXPECT_EQ(m_runKeys.Disable(items, true), 31);
    EXPECT_EQ(Approved(L"One")->data, kEnabledFresh);
    const auto lines = m_log.Lines();
    EXPECT_EQ(CountMessages(lines, "FAILED HKEY_CURRENT_USER\\" + Utf8(m_base) + "\\Run"), 1u);
    EXPECT_EQ(CountMessages(lines, "Save failed"), 1u);
}

TEST_F(Win8Actions, EmptyFieldsFailDisableButAreSkippedByEnable)
{
    auto items = RunItems({L"One"});
    items.front()->Cmd.clear();
    EXPECT_EQ(m_runKeys.Disable(items, true), 31);
    EXPECT_FALSE(Approved(L"One").has_value());
    EXPECT_EQ(m_runKeys.Enable(items, false), 0);
    const auto lines = m_log.Lines();
    EXPECT_EQ(CountMessages(lines, "FAILED ", true), 1u);
    EXPECT_EQ(CountMessages(lines, "Enable HKEY_CURRENT_USER\\", true), 1u);
    EXPECT_EQ(CountMessages(lines, "-> Win8StartupItem::Enable()"), 0u);
}

TEST_F(Win8Actions, EnableRemovesTheWholeListFromBothSectionsEvenWhenItFails)
{
    auto disabled = RunItems({L"One"});
    auto delayed = RunItems({L"Two"});
    ASSERT_EQ(m_runKeys.Disable(disabled, true), 0);
    ASSERT_EQ(m_runKeys.Delay(delayed, true), 0);
    auto both = RunItems({L"One", L"Two", L"Three"});
    both.back()->Path = L"HKEY_CURRENT_USER\\" + m_base + L"\\RunOnce";  // cannot be enabled
    EXPECT_EQ(m_runKeys.Enable(both, true), 31);
    EXPECT_EQ(Approved(L"One")->data, kEnabledFresh);
    EXPECT_EQ(Approved(L"Two")->data, kEnabledFresh);
    EXPECT_TRUE(Load(storage::kDisabledSection).empty());
    EXPECT_TRUE(Load(storage::kDelayedSection).empty());
    EXPECT_EQ(CountMessages(m_log.Lines(), "Win8StartupItem::Enable FAILED HKEY_CURRENT_USER\\", true), 1u);
}

TEST_F(Win8Actions, EmptyListSucceedsAndEnableStillAsksTheStoreToRemove)
{
    storage::SharedStartupItemList none;
    EXPECT_EQ(m_runKeys.Disable(none, true), 0);
    EXPECT_EQ(m_folders.Enable(none, true), 0);
    EXPECT_EQ(CountMessages(m_log.Lines(), "-> CStartupItemsStorage::RemoveStartupItems()"), 2u);
}

TEST_F(Win8Actions, DelayedFolderItemOfAllUsersIsSwitchedUnderTheMachineAndSavedAsStartupDelayed)
{
    auto item = std::make_shared<storage::StartupItem>();
    item->Name = UniqueName(L"Tool") + L".lnk";
    item->Path = m_dir.Path();
    item->Cmd = L"C:\\windows\\notepad.exe";
    item->IsUser = false;
    storage::SharedStartupItemList items{item};
    const std::wstring key = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
    EXPECT_EQ(m_folders.Delay(items, true), 0);
    const auto value = ReadValue(HKEY_LOCAL_MACHINE, key, item->Name);
    DeleteValue(HKEY_LOCAL_MACHINE, key, item->Name);
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->data, kDisabledFresh);
    const auto saved = Load(storage::kStartupDelayedSection);
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_FALSE(saved.front().IsUser);
    EXPECT_TRUE(Load(storage::kDelayedSection).empty());
    EXPECT_EQ(CountMessages(m_log.Lines(), "Delay " + Utf8(m_dir.Path()) + " " + Utf8(item->Name)), 1u);
}

TEST_F(Win8Actions, RunKeyCheckNeedsTheValueAndTheTarget)
{
    const std::wstring runKey = m_base + L"\\Run";
    const std::wstring target = m_dir / L"present.exe";
    WriteFileBytes(target, "MZ");
    storage::StartupItem item;
    item.Name = L"App";
    item.Path = L"HKEY_CURRENT_USER\\" + runKey;
    item.Cmd = L"\"" + target + L"\" -tray";
    EXPECT_EQ(m_runKeys.Check(item), ERROR_FILE_NOT_FOUND) << "no key";
    CreateKey(HKEY_CURRENT_USER, runKey);
    EXPECT_EQ(m_runKeys.Check(item), ERROR_FILE_NOT_FOUND) << "no value";
    SetString(HKEY_CURRENT_USER, runKey, L"App", item.Cmd);
    EXPECT_EQ(m_runKeys.Check(item), 0);
    DeleteFileW(target.c_str());
    EXPECT_EQ(m_runKeys.Check(item), 31);
    item.Path = L"HKCU\\" + runKey;
    EXPECT_EQ(m_runKeys.Check(item), 31);
}

TEST_F(Win8Actions, FolderCheckNeedsTheShortcutAndTheTarget)
{
    const std::wstring target = m_dir / L"tool.exe";
    WriteFileBytes(target, "MZ");
    storage::StartupItem item;
    item.Name = L"Tool.lnk";
    item.Path = m_dir.Path() + L"\\";
    item.Cmd = target;
    EXPECT_EQ(m_folders.Check(item), 31) << "no shortcut";
    WriteFileBytes(m_dir / L"Tool.lnk", "L");
    EXPECT_EQ(m_folders.Check(item), 0);
    item.Cmd = m_dir / L"gone.exe";
    EXPECT_EQ(m_folders.Check(item), 31);
}

class Dispatcher : public Win8Actions {};

TEST_F(Dispatcher, NamesTheWindowsGenerationItChose)
{
    actions::StartupAppsActionExec exec;
    EXPECT_EQ(exec.IsWindows8OrGreater(), IsWindows8OrLater());
    EXPECT_EQ(CountMessages(m_log.Lines(), IsWindows8OrLater() ? "Windows8OrGreater" : "bellow Windows8"), 1u);
}

TEST_F(Dispatcher, UnknownActionsTouchNoItem)
{
    actions::StartupAppsActionExec exec;
    auto items = RunItems({L"One"});
    for (int action : {3, -1}) {
        EXPECT_EQ(exec.Execute(action, actions::RunKey, items, true), 31);
    }
    EXPECT_EQ(exec.Execute(actions::ActionDisable, 42, items, true), 31) << "no object for that kind";
    EXPECT_EQ(CountMessages(m_log.Lines(), "Disable ", true), 0u);
    EXPECT_FALSE(Approved(L"One").has_value());
}

TEST_F(Dispatcher, AnExceptionFromOneItemBecomesAFailure)
{
    actions::StartupAppsActionExec exec;
    auto items = RunItems({L"One"});
    items.front()->Path += L"\\";
    const int result = exec.Execute(actions::ActionDisable, actions::RunKey, items, false);
    EXPECT_EQ(result, 31);
    if (exec.IsWindows8OrGreater()) {
        EXPECT_EQ(CountMessages(m_log.Lines(), "invalid string position", true), 1u);
    }
}

} // namespace
