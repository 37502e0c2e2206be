// CRunKeyAppsActions against a Run key of the test's own below HKEY_CURRENT_USER.
#include "actions/CRunKeyAppsActions.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

using namespace legacy_tests;
using actions::CRunKeyAppsActions;

namespace {

constexpr wchar_t kCommand[] = L"%ProgramFiles%\\Tool\\tool.exe -tray";

class RunKeyTest : public ::testing::Test {
protected:
    RunKeyTest() { CreateKey(HKEY_CURRENT_USER, m_runKey); }
    auto Value(const std::wstring& name) const { return ReadValue(HKEY_CURRENT_USER, m_runKey, name); }

    ScratchKey m_scratch{HKEY_CURRENT_USER, L"Software\\MorrowgateTests\\" + UniqueName(L"run")};
    std::wstring m_runKey = m_scratch.SubKey() + L"\\Run";    // below HKEY_CURRENT_USER
    std::wstring m_path = L"HKEY_CURRENT_USER\\" + m_runKey;  // as items name it
    CRunKeyAppsActions m_actions;
};

class RunKeyRemoval : public RunKeyTest, public ::testing::WithParamInterface<Removal<CRunKeyAppsActions>> {};

// The case's item "Tool" comes first; "Next" after it shows that a failing item fails alone.
TEST_P(RunKeyRemoval, DeletesTheValueAndWritesItBackAsStringWhenTheStoreRefuses)
{
    const std::string failed = "FAILED " + Utf8(m_path);
    const std::wstring shortHive = L"HKCU\\" + m_runKey;
    const struct {
        const char* scenario;
        std::wstring path, cmd;
        bool save, refuse;
        int result;
        WStrings recorded;
        Strings errors;
    } cases[] = {
        {"removed, not recorded", m_path, kCommand, false, false, 0, {}, {}},
        {"removed and recorded", m_path, kCommand, true, false, 0, {L"Tool", L"Next"}, {}},
        {"store refuses", m_path, kCommand, true, true, 31, {}, {failed, failed}},
        {"hive name only", L"HKEY_CURRENT_USER", kCommand, true, false, 31, {L"Next"}, {"FAILED HKEY_CURRENT_USER"}},
        {"short hive name", shortHive, kCommand, true, false, 31, {L"Next"}, {"FAILED " + Utf8(shortHive)}},
        {"empty command", m_path, L"", true, false, 31, {L"Next"}, {failed}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        ScratchStore store(c.refuse);
        SetString(HKEY_CURRENT_USER, m_runKey, L"Tool", kCommand, REG_EXPAND_SZ);
        SetString(HKEY_CURRENT_USER, m_runKey, L"Next", L"next.exe");
        storage::SharedStartupItemList items{MakeItem(L"Tool", c.path, c.cmd), MakeItem(L"Next", m_path, L"next.exe")};
        LogCapture capture;

        EXPECT_EQ((m_actions.*GetParam().operation)(items, c.save), c.result);

        const auto value = Value(L"Tool");
        ASSERT_EQ(value.has_value(), c.result != 0) << "an entry that failed or was refused is not lost";
        if (value) {
            EXPECT_EQ(value->type, static_cast<DWORD>(c.refuse ? REG_SZ : REG_EXPAND_SZ));
            EXPECT_EQ(ReadString(HKEY_CURRENT_USER, m_runKey, L"Tool"), std::wstring(kCommand));
        }
        EXPECT_EQ(Value(L"Next").has_value(), c.refuse);
        EXPECT_EQ(store.Saved(GetParam().section), c.recorded);
        EXPECT_EQ(Messages(capture.Lines()), c.errors);
    }
}

INSTANTIATE_TEST_SUITE_P(Legacy, RunKeyRemoval,
                         Removals<CRunKeyAppsActions>(storage::kDisabledSection, storage::kDelayedSection),
                         RemovalName);

TEST_F(RunKeyTest, EnableWritesAPlainStringIntoAnExistingKeyAndSkipsAnEmptyCommand)
{
    const std::wstring goneKey = m_runKey + L"\\Gone";
    storage::SharedStartupItemList items{
        MakeItem(L"Tool", m_path, kCommand), MakeItem(L"InGoneKey", L"HKEY_CURRENT_USER\\" + goneKey, L"a.exe"),
        MakeItem(L"HiveOnly", L"HKEY_CURRENT_USER", L"b.exe"), MakeItem(L"ShortHive", L"HKCU\\" + m_runKey, L"c.exe"),
        MakeItem(L"NoCommand", m_path, L"")};
    LogCapture capture;

    EXPECT_EQ(m_actions.Enable(items, false), 31);

    EXPECT_EQ(Value(L"Tool").value_or(RegValue{}).type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(Value(L"Tool").value_or(RegValue{}).data.size(), sizeof kCommand) << "terminator included";
    EXPECT_EQ(ReadString(HKEY_CURRENT_USER, m_runKey, L"Tool"), std::wstring(kCommand));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, goneKey));
    EXPECT_FALSE(Value(L"NoCommand"));
    EXPECT_EQ(Messages(capture.Lines()), (Strings{"RollbackToRegistry FAILED HKEY_CURRENT_USER\\" + Utf8(goneKey),
                                                  "RollbackToRegistry FAILED HKEY_CURRENT_USER",
                                                  "RollbackToRegistry FAILED HKCU\\" + Utf8(m_runKey)}))
        << "the empty command is skipped without a word";
}

}  // namespace
