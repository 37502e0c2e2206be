// CRunKeyAppsActions against a Run key of the test's own below HKEY_CURRENT_USER.
#include "actions/CRunKeyAppsActions.h"
#include "storage/StartupItemsStorage.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

#include <gtest/gtest.h>

using namespace testing_support;
using namespace legacy_tests;
using actions::CRunKeyAppsActions;

namespace {

constexpr wchar_t kCommand[] = L"\"C:\\Program Files\\Tool\\tool.exe\" -tray";

class RunKeyTest : public ::testing::Test {
protected:
    RunKeyTest()
        : m_scratch(HKEY_CURRENT_USER, L"Software\\MorrowgateTests\\" + UniqueName(L"run")),
          m_runKey(m_scratch.SubKey() + L"\\Run"), m_path(L"HKEY_CURRENT_USER\\" + m_runKey)
    {
        CreateKey(HKEY_CURRENT_USER, m_runKey);
    }
    void Set(const std::wstring& name, const std::wstring& data, DWORD type = REG_SZ)
    {
        SetString(HKEY_CURRENT_USER, m_runKey, name, data, type);
    }
    std::optional<RegValue> Raw(const std::wstring& name) const { return ReadValue(HKEY_CURRENT_USER, m_runKey, name); }
    std::optional<std::wstring> Value(const std::wstring& name) const
    {
        return ReadString(HKEY_CURRENT_USER, m_runKey, name);
    }

    ScratchStore m_store;
    ScratchKey m_scratch;
    std::wstring m_runKey;  // below HKEY_CURRENT_USER
    std::wstring m_path;    // as items name it
    CRunKeyAppsActions m_actions;
};

// Disable and Delay differ only in their texts and section.
struct RemovalCase {
    const char* scenario;
    int (CRunKeyAppsActions::*operation)(storage::SharedStartupItemList&, bool);
    const char* section;
};
void PrintTo(const RemovalCase& value, std::ostream* out) { *out << value.scenario; }

class RunKeyRemoval : public RunKeyTest, public ::testing::WithParamInterface<RemovalCase> {
protected:
    int Run(storage::SharedStartupItemList& items, bool save) { return (m_actions.*GetParam().operation)(items, save); }
    std::string Function() const { return std::string("CRunKeyAppsActions::") + GetParam().scenario; }
};

TEST_P(RunKeyRemoval, DeletesOnlyItsValueAndRecordsItWhenAsked)
{
    for (const bool save : {false, true}) {
        SCOPED_TRACE(save ? "save" : "no save");
        Set(L"Tool", kCommand);
        Set(L"Neighbour", L"other.exe");
        storage::SharedStartupItemList items{MakeItem(L"Tool", m_path, kCommand)};
        LogCapture capture;

        EXPECT_EQ(Run(items, save), 0);

        EXPECT_FALSE(Raw(L"Tool"));
        EXPECT_EQ(Value(L"Neighbour"), L"other.exe");
        EXPECT_EQ(m_store.Names(GetParam().section).size(), save ? 1u : 0u);
        const auto lines = capture.Lines();
        EXPECT_EQ(CountEntries(lines, Function()), 1u);
        EXPECT_EQ(CountLines(lines, Function(), std::string(GetParam().scenario) + " " + Utf8(m_path) + " Tool"), 1u);
    }
}

TEST_P(RunKeyRemoval, RefusedSaveWritesTheValueBackAsPlainString)
{
    Set(L"Tool", L"%ProgramFiles%\\Tool\\tool.exe", REG_EXPAND_SZ);
    m_store.Refuse();
    storage::SharedStartupItemList items{MakeItem(L"Tool", m_path, L"%ProgramFiles%\\Tool\\tool.exe")};
    LogCapture capture;

    EXPECT_EQ(Run(items, true), 31);

    const auto value = Raw(L"Tool");
    ASSERT_TRUE(value) << "an entry the store refused must not be lost";
    EXPECT_EQ(value->type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(Value(L"Tool"), L"%ProgramFiles%\\Tool\\tool.exe");
    EXPECT_EQ(CountLines(capture.Lines(), Function(), "FAILED " + Utf8(m_path)), 1u);
}

TEST_P(RunKeyRemoval, BadItemFailsAloneAndTouchesNothing)
{
    const struct {
        const char* scenario;
        std::wstring name, path, cmd;
    } badItems[] = {
        {"hive name only", L"Tool", L"HKEY_CURRENT_USER", kCommand},
        {"short hive name", L"Tool", L"HKCU\\" + m_runKey, kCommand},
        {"lower-case hive name", L"Tool", L"hkey_current_user\\" + m_runKey, kCommand},
        {"empty command", L"Tool", m_path, L""},
        {"value already gone", L"Gone", m_path, kCommand},
        {"key missing", L"Tool", m_path + L"Missing", kCommand},
    };
    for (const auto& bad : badItems) {
        SCOPED_TRACE(bad.scenario);
        RegDeleteTreeW(HKEY_CURRENT_USER, m_runKey.c_str());
        Set(L"Tool", kCommand);
        Set(L"Good", L"good.exe");
        storage::SharedStartupItemList items{MakeItem(bad.name, bad.path, bad.cmd),
                                             MakeItem(L"Good", m_path, L"good.exe")};
        LogCapture capture;

        EXPECT_EQ(Run(items, false), 31);

        EXPECT_EQ(Value(L"Tool"), std::wstring(kCommand));
        EXPECT_FALSE(Raw(L"Good")) << "the next item is still handled";
        EXPECT_EQ(CountLines(capture.Lines(), Function(), "FAILED " + Utf8(bad.path)), 1u);
        EXPECT_EQ(CountMessages(capture.Lines(), "FAILED", true), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Legacy, RunKeyRemoval,
    ::testing::Values(RemovalCase{"Disable", &CRunKeyAppsActions::Disable, storage::kDisabledSection},
                      RemovalCase{"Delay", &CRunKeyAppsActions::Delay, storage::kDelayedSection}),
    [](const auto& info) { return std::string(info.param.scenario); });

using RunKeyEnable = RunKeyTest;

TEST_F(RunKeyEnable, WritesEachReachableValueBackAsStringAndCreatesNoKey)
{
    const std::wstring goneKey = m_runKey + L"\\Gone";
    storage::SharedStartupItemList items{
        MakeItem(L"Tool", m_path, kCommand),
        MakeItem(L"InGoneKey", L"HKEY_CURRENT_USER\\" + goneKey, L"a.exe"),
        MakeItem(L"HiveOnly", L"HKEY_CURRENT_USER", L"b.exe"),
        MakeItem(L"ShortHive", L"HKCU\\" + m_runKey, L"c.exe"),
        MakeItem(L"NoCommand", m_path, L""),
    };
    LogCapture capture;

    EXPECT_EQ(m_actions.Enable(items, false), 31);

    const auto value = Raw(L"Tool");
    ASSERT_TRUE(value);
    EXPECT_EQ(value->type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(value->data.size(), (std::wstring(kCommand).size() + 1) * sizeof(wchar_t)) << "terminator included";
    EXPECT_EQ(Value(L"Tool"), std::wstring(kCommand));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, goneKey));
    EXPECT_FALSE(Raw(L"ShortHive"));
    EXPECT_FALSE(Raw(L"NoCommand"));
    const auto lines = capture.Lines();
    for (const auto& item : items) {
        SCOPED_TRACE(Utf8(item->Name));
        const std::string message = "Enable " + Utf8(item->Path + L" " + item->Name);
        EXPECT_EQ(CountLines(lines, "CRunKeyAppsActions::Enable", message), 1u);
    }
    EXPECT_EQ(CountMessages(lines, "RollbackToRegistry FAILED ", true), 3u) << "the empty command is skipped silently";
    for (const std::wstring& path : {L"HKEY_CURRENT_USER\\" + goneKey, std::wstring(L"HKEY_CURRENT_USER")}) {
        EXPECT_EQ(CountLines(lines, "CRunKeyAppsActions::Enable", "RollbackToRegistry FAILED " + Utf8(path)), 1u);
    }
}

TEST_F(RunKeyEnable, SaveRemovesTheWholeListFromBothSectionsEvenFailedItems)
{
    auto good = MakeItem(L"Good", m_path, L"good.exe");
    auto stranded = MakeItem(L"Stranded", m_path + L"\\Gone", L"stranded.exe");
    auto& store = storage::CStartupItemsStorage::Instance();
    ASSERT_EQ(store.SaveStartupItems({good, MakeItem(L"Bystander", m_path, L"x.exe")}, storage::kDisabledSection), 0u);
    ASSERT_EQ(store.SaveStartupItems(*stranded, storage::kDelayedSection), 0u);
    storage::SharedStartupItemList items{good, stranded};

    EXPECT_EQ(m_actions.Enable(items, true), 31);

    EXPECT_EQ(Value(L"Good"), L"good.exe");
    EXPECT_EQ(m_store.Names(storage::kDisabledSection), std::vector<std::wstring>{L"Bystander"});
    EXPECT_TRUE(m_store.Names(storage::kDelayedSection).empty());
}

TEST(RunKeyCheck, FollowsTheCommandsTargetAndLogsNothing)
{
    TempDir programs;
    const std::wstring folder = programs / L"Program Files";
    CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring program = JoinPath(folder, L"app.exe");
    WriteFileBytes(program, "MZ");
    auto item = MakeItem(L"App", L"HKEY_CURRENT_USER\\Software\\Run", L"\"" + program + L"\" -tray");
    CRunKeyAppsActions actions;
    LogCapture capture;

    EXPECT_EQ(actions.Check(*item), 0);
    DeleteFileW(program.c_str());
    EXPECT_EQ(actions.Check(*item), 31);
    item->Cmd = L"\"" + folder + L"\"";
    EXPECT_EQ(actions.Check(*item), 0) << "a folder counts as existing";
    item->Cmd = L"no-such-program-anywhere.exe";
    EXPECT_EQ(actions.Check(*item), 31);
    EXPECT_TRUE(capture.Lines().empty());
}

} // namespace
