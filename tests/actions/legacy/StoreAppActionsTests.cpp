// MicrosoftStoreStartupItem and MicrosoftStoreAppsActions against a task key of the test's own
// below HKEY_CLASSES_ROOT.
#include "actions/MicrosoftStoreAppsActions.h"
#include "actions/MicrosoftStoreStartupItem.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

using namespace legacy_tests;
using actions::MicrosoftStoreAppsActions;
using Task = actions::MicrosoftStoreStartupItem;

namespace {

class StoreTaskTest : public ::testing::Test {
protected:
    StoreTaskTest() { CreateKey(HKEY_CLASSES_ROOT, m_taskKey); }
    // The State as a DWORD; nullopt when it is missing or of another type.
    std::optional<DWORD> State() const
    {
        DWORD state = 0, size = sizeof state;
        const LSTATUS status =
            RegGetValueW(HKEY_CLASSES_ROOT, m_taskKey.c_str(), L"State", RRF_RT_REG_DWORD, nullptr, &state, &size);
        return status == ERROR_SUCCESS ? std::optional<DWORD>(state) : std::nullopt;
    }
    void SetState(std::optional<DWORD> state)
    {
        RegDeleteKeyValueW(HKEY_CLASSES_ROOT, m_taskKey.c_str(), L"State");
        if (state) {
            SetDword(HKEY_CLASSES_ROOT, m_taskKey, L"State", *state);
        }
    }

    ScratchKey m_scratch{HKEY_CLASSES_ROOT, L"MorrowgateTests\\" + UniqueName(L"task")};
    std::wstring m_taskKey = m_scratch.SubKey() + L"\\windows.startupTask\\AppTask";  // as the item's Path
    storage::SharedStartupItem m_task = MakeItem(L"AppTask", m_taskKey, L"app.exe");
};

TEST_F(StoreTaskTest, StateTransitionsReadBackFromTheRegistry)
{
    const std::string task = Utf8(m_taskKey) + " AppTask";
    const struct {
        bool enable;
        std::optional<DWORD> before, after;  // nullopt: no State value
        Strings messages;
    } cases[] = {
        {true, 0, 1, {}},
        {true, 1, 2, {}},
        {true, 4, 2, {}},
        {true, 2, 2, {"item is enabled"}},
        {false, 2, 1, {}},
        {false, 1, 1, {"item is disabled"}},
        {false, std::nullopt, std::nullopt, {"GetItemRegValue failed", "item is disabled"}},
    };
    for (const auto& c : cases) {
        const std::string function = std::string("MicrosoftStoreStartupItem::") + (c.enable ? "Enable" : "Disable");
        SCOPED_TRACE(function + " from " + (c.before ? std::to_string(*c.before) : "no value"));
        SetState(c.before);
        LogCapture capture;

        EXPECT_EQ(c.enable ? Task::Enable(*m_task) : Task::Disable(*m_task), 0u);

        EXPECT_EQ(State(), c.after);
        const auto lines = capture.Lines();
        EXPECT_EQ(Messages(lines, function), c.messages);
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
                      return line.level == "trace" && line.function == function && line.message == task;
                  }),
                  1) << "the argument dump is a trace line";
    }
}

class StoreAppsSwitchOff : public StoreTaskTest,
                           public ::testing::WithParamInterface<Removal<MicrosoftStoreAppsActions>> {};

// The rollback of a refused save is the shared loop's, tested with the Windows 8 classes.
TEST_P(StoreAppsSwitchOff, SetsStateOneAndRecordsTheTaskInItsSection)
{
    SetState(2);
    storage::SharedStartupItemList items{m_task};
    ScratchStore store;
    MicrosoftStoreAppsActions actions;

    EXPECT_EQ((actions.*GetParam().operation)(items, true), 0);

    EXPECT_EQ(State(), 1u);
    EXPECT_EQ(store.Saved(GetParam().section), WStrings{L"AppTask"});
}

INSTANTIATE_TEST_SUITE_P(Legacy, StoreAppsSwitchOff,
                         Removals<MicrosoftStoreAppsActions>(storage::kStartupDisabledSection,
                                                             storage::kStartupDelayedSection),
                         RemovalName);

TEST(StoreAppsCheck, LogsEachFileItLooksFor)
{
    TempDir package;
    const std::wstring task = package / L"AppTask", app = package / L"app.exe", gone = package / L"gone.exe";
    WriteFileBytes(task, "task");
    WriteFileBytes(app, "MZ");
    const auto check = [](const std::wstring& path, const std::wstring& cmd) {
        LogCapture capture;
        const int result = MicrosoftStoreAppsActions().Check(*MakeItem(L"AppTask", path, cmd));
        return std::pair(result, Messages(capture.Lines(), "MicrosoftStoreAppsActions::Check"));
    };
    const auto exists = [](const std::wstring& path, int found) {
        return "file " + Utf8(path) + " exists: " + std::to_string(found);
    };

    EXPECT_EQ(check(package.Path(), L"\"" + app + L"\" -x"), std::pair(0, Strings{exists(task, 1), exists(app, 1)}));
    EXPECT_EQ(check(package / L"Missing", app), std::pair(31, Strings{exists(package / L"Missing\\AppTask", 0)}));
    EXPECT_EQ(check(package.Path(), gone), std::pair(31, Strings{exists(task, 1), exists(gone, 0)}));
}

}  // namespace
