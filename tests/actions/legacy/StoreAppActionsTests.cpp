// MicrosoftStoreStartupItem and MicrosoftStoreAppsActions against task keys of the test's own
// below HKEY_CLASSES_ROOT.
#include "actions/MicrosoftStoreAppsActions.h"
#include "actions/MicrosoftStoreStartupItem.h"
#include "storage/StartupItemsStorage.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

using namespace testing_support;
using namespace legacy_tests;
using actions::MicrosoftStoreAppsActions;
using actions::MicrosoftStoreStartupItem;

namespace {

constexpr char kEnableFunction[] = "MicrosoftStoreStartupItem::Enable";
constexpr char kDisableFunction[] = "MicrosoftStoreStartupItem::Disable";

class StoreTaskTest : public ::testing::Test {
protected:
    StoreTaskTest()
        : m_scratch(HKEY_CLASSES_ROOT, L"MorrowgateTests\\" + UniqueName(L"task")),
          m_taskKey(m_scratch.SubKey() + L"\\windows.startupTask\\AppTask")
    {
        CreateKey(HKEY_CLASSES_ROOT, m_taskKey);
    }
    storage::SharedStartupItem Task(const std::wstring& key) const { return MakeItem(L"AppTask", key, L"app.exe"); }
    void SetState(DWORD state) { SetDword(HKEY_CLASSES_ROOT, m_taskKey, L"State", state); }
    std::optional<RegValue> Raw() const { return ReadValue(HKEY_CLASSES_ROOT, m_taskKey, L"State"); }
    // The State as a DWORD; nullopt when it is missing or of another type.
    std::optional<DWORD> State() const
    {
        const auto value = Raw();
        if (!value || value->type != REG_DWORD || value->data.size() != sizeof(DWORD)) {
            return std::nullopt;
        }
        DWORD state = 0;
        std::memcpy(&state, value->data.data(), sizeof state);
        return state;
    }

    ScratchStore m_store;
    ScratchKey m_scratch;
    std::wstring m_taskKey;  // below HKEY_CLASSES_ROOT, as the item's Path
};

struct Transition {
    const char* scenario;
    DWORD (*operation)(const storage::StartupItem&);
    std::optional<DWORD> before, after;  // nullopt: no State value
    const char* function;
    const char* unchanged;  // the message when nothing is to be written
};
void PrintTo(const Transition& value, std::ostream* out) { *out << value.scenario; }

class StoreTaskTransition : public StoreTaskTest, public ::testing::WithParamInterface<Transition> {};

TEST_P(StoreTaskTransition, StateReadsBackAsExpected)
{
    const Transition& t = GetParam();
    if (t.before) {
        SetState(*t.before);
    }
    LogCapture capture;

    EXPECT_EQ(t.operation(*Task(m_taskKey)), 0u);

    EXPECT_EQ(State(), t.after);
    const auto lines = capture.Lines();
    EXPECT_EQ(CountEntries(lines, t.function), 1u);
    EXPECT_EQ(CountLines(lines, t.function, Utf8(m_taskKey) + " AppTask"), 1u);
    EXPECT_EQ(CountLines(lines, t.function, "item is ", true), t.unchanged ? 1u : 0u);
    if (t.unchanged) {
        EXPECT_EQ(CountLines(lines, t.function, t.unchanged), 1u);
    }
    EXPECT_EQ(CountLines(lines, t.function, "GetItemRegValue failed 0x", true), t.before ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Legacy, StoreTaskTransition,
    ::testing::Values(
        Transition{"EnableZeroBecomesOne", &MicrosoftStoreStartupItem::Enable, 0, 1, kEnableFunction, nullptr},
        Transition{"EnableOneBecomesTwo", &MicrosoftStoreStartupItem::Enable, 1, 2, kEnableFunction, nullptr},
        Transition{"EnableFourBecomesTwo", &MicrosoftStoreStartupItem::Enable, 4, 2, kEnableFunction, nullptr},
        Transition{"EnableTwoStays", &MicrosoftStoreStartupItem::Enable, 2, 2, kEnableFunction, "item is enabled"},
        Transition{"DisableTwoBecomesOne", &MicrosoftStoreStartupItem::Disable, 2, 1, kDisableFunction, nullptr},
        Transition{"DisableOneStays", &MicrosoftStoreStartupItem::Disable, 1, 1, kDisableFunction, "item is disabled"},
        Transition{"DisableMissingValueWritesNothing", &MicrosoftStoreStartupItem::Disable, std::nullopt, std::nullopt,
                   kDisableFunction, "item is disabled"}),
    [](const auto& info) { return std::string(info.param.scenario); });

using StoreTaskUnreadable = StoreTaskTest;

TEST_F(StoreTaskUnreadable, EnableFailsAndDisableSucceedsWithoutWritingOrCreating)
{
    const std::wstring missingKey = m_scratch.SubKey() + L"\\Gone\\AppTask";
    const struct {
        const char* scenario;
        std::wstring key;
        bool stringState;
    } cases[] = {{"missing key", missingKey, false}, {"State of the wrong type", m_taskKey, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        if (c.stringState) {
            SetString(HKEY_CLASSES_ROOT, m_taskKey, L"State", L"2");
        }
        LogCapture capture;

        EXPECT_NE(MicrosoftStoreStartupItem::Enable(*Task(c.key)), 0u);
        EXPECT_EQ(MicrosoftStoreStartupItem::Disable(*Task(c.key)), 0u);

        EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, missingKey));
        EXPECT_EQ(Raw().has_value(), c.stringState);
        EXPECT_EQ(Raw().value_or(RegValue{}).type, static_cast<DWORD>(c.stringState ? REG_SZ : REG_NONE));
        const auto lines = capture.Lines();
        EXPECT_EQ(CountLines(lines, "MicrosoftStoreStartupItem::GetItemRegValue",
                             "RegQueryInfoKey " + Utf8(c.key) + " failed 0x", true),
                  2u);
        EXPECT_EQ(CountLines(lines, kEnableFunction, "GetItemRegValue failed 0x", true), 1u);
        EXPECT_EQ(CountLines(lines, kDisableFunction, "item is disabled"), 1u);
    }
    // The writer alone does not create the key either, whatever its message says.
    LogCapture capture;
    EXPECT_EQ(MicrosoftStoreStartupItem::SetItemRegValue(HKEY_CLASSES_ROOT, missingKey.c_str(), 1),
              DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, missingKey));
    EXPECT_EQ(CountLines(capture.Lines(), "MicrosoftStoreStartupItem::SetItemRegValue",
                         "failed open HKEY_CLASSES_ROOT " + Utf8(missingKey) + ", try create"),
              1u);
}

struct SwitchOffCase {
    const char* scenario;
    int (MicrosoftStoreAppsActions::*operation)(storage::SharedStartupItemList&, bool);
    const char* section;
};
void PrintTo(const SwitchOffCase& value, std::ostream* out) { *out << value.scenario; }

class StoreAppsSwitchOff : public StoreTaskTest, public ::testing::WithParamInterface<SwitchOffCase> {
protected:
    int Run(storage::SharedStartupItemList& items, bool save)
    {
        MicrosoftStoreAppsActions actions;
        return (actions.*GetParam().operation)(items, save);
    }
    std::string Function() const { return std::string("MicrosoftStoreAppsActions::") + GetParam().scenario; }
};

TEST_P(StoreAppsSwitchOff, SetsStateOneAndRecordsTheTaskInItsSection)
{
    SetState(2);
    storage::SharedStartupItemList items{Task(m_taskKey)};
    LogCapture capture;

    EXPECT_EQ(Run(items, true), 0);

    EXPECT_EQ(State(), 1u);
    EXPECT_EQ(m_store.Names(GetParam().section), std::vector<std::wstring>{L"AppTask"});
    const auto lines = capture.Lines();
    EXPECT_EQ(CountEntries(lines, Function()), 1u);
    EXPECT_EQ(CountLines(lines, Function(), std::string(GetParam().scenario) + " " + Utf8(m_taskKey) + " AppTask"), 1u);
}

TEST_P(StoreAppsSwitchOff, RefusedSaveSwitchesTheTaskBackOn)
{
    SetState(2);
    m_store.Refuse();
    storage::SharedStartupItemList items{Task(m_taskKey)};
    LogCapture capture;

    EXPECT_EQ(Run(items, true), 31);

    EXPECT_EQ(State(), 2u);
    EXPECT_EQ(CountEntries(capture.Lines(), kEnableFunction), 1u) << "the rollback goes through Enable";
    EXPECT_EQ(CountLines(capture.Lines(), Function(), "FAILED " + Utf8(m_taskKey)), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Legacy, StoreAppsSwitchOff,
    ::testing::Values(
        SwitchOffCase{"Disable", &MicrosoftStoreAppsActions::Disable, storage::kStartupDisabledSection},
        SwitchOffCase{"Delay", &MicrosoftStoreAppsActions::Delay, storage::kStartupDelayedSection}),
    [](const auto& info) { return std::string(info.param.scenario); });

using StoreAppsEnable = StoreTaskTest;

TEST_F(StoreAppsEnable, ReportsAGoneTaskAndTakesTheListOutOfBothSections)
{
    SetState(1);
    auto good = Task(m_taskKey);
    auto gone = MakeItem(L"GoneTask", m_scratch.SubKey() + L"\\Gone", L"gone.exe");
    auto& store = storage::CStartupItemsStorage::Instance();
    ASSERT_EQ(store.SaveStartupItems(*good, storage::kStartupDisabledSection), 0u);
    ASSERT_EQ(store.SaveStartupItems(*gone, storage::kStartupDelayedSection), 0u);
    storage::SharedStartupItemList items{MakeItem(L"NoPath", L"", L"x.exe"), good, gone};
    LogCapture capture;

    EXPECT_EQ(MicrosoftStoreAppsActions().Enable(items, true), 31);

    EXPECT_EQ(State(), 2u);
    EXPECT_TRUE(m_store.Names(storage::kStartupDisabledSection).empty());
    EXPECT_TRUE(m_store.Names(storage::kStartupDelayedSection).empty());
    EXPECT_EQ(CountLines(capture.Lines(), "MicrosoftStoreAppsActions::Enable",
                         "MicrosoftStoreStartupItem::Enable FAILED " + Utf8(gone->Path)),
              1u);
    EXPECT_EQ(CountMessages(capture.Lines(), "FAILED", true), 1u) << "the item without a Path is skipped silently";
}

TEST(StoreAppsCheck, LogsEachFileItLooksFor)
{
    TempDir package;
    WriteFileBytes(package / L"AppTask", "task");
    const std::wstring target = package / L"app.exe";
    WriteFileBytes(target, "MZ");
    const std::string task = "file " + Utf8(package / L"AppTask") + " exists: ";
    const struct {
        const char* scenario;
        std::wstring path, cmd;
        int expected;
        std::vector<std::string> messages;
    } cases[] = {
        {"both present", package.Path() + L"\\", L"\"" + target + L"\" -x", 0,
         {task + "1", "file " + Utf8(target) + " exists: 1"}},
        {"task file missing", package / L"Missing", target, 31,
         {"file " + Utf8(package / L"Missing\\AppTask") + " exists: 0"}},
        {"target missing", package.Path(), package / L"gone.exe", 31,
         {task + "1", "file " + Utf8(package / L"gone.exe") + " exists: 0"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        LogCapture capture;

        EXPECT_EQ(MicrosoftStoreAppsActions().Check(*MakeItem(L"AppTask", c.path, c.cmd)), c.expected);

        std::vector<std::string> messages;
        for (const auto& line : capture.Lines()) {
            if (line.function == "MicrosoftStoreAppsActions::Check" && line.message.rfind("file ", 0) == 0) {
                messages.push_back(line.message);
            }
        }
        EXPECT_EQ(messages, c.messages);
        EXPECT_EQ(CountEntries(capture.Lines(), "MicrosoftStoreAppsActions::Check"), 1u);
    }
}

} // namespace
