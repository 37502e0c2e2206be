// The StartupApproved value of Run and Startup-folder items, read back from the registry.
#include "actions/Win8StartupItem.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using actions::FolderShortcut;
using actions::RunValue;
using actions::Win8StartupItem;
using Bytes = std::vector<std::uint8_t>;
using namespace testing_support;

namespace {

storage::StartupItem RunItem(const std::wstring& path, const std::wstring& name = L"App")
{
    storage::StartupItem item;
    item.Name = name;
    item.Path = path;
    item.Cmd = L"C:\\app.exe";
    item.IsUser = true;
    return item;
}

struct KeyCase {
    const wchar_t* path;
    std::uint32_t kind;
    bool isUser;
    bool located;
    HKEY root;
    const wchar_t* subKey;
};

class ApprovedKeyLocation : public ::testing::TestWithParam<KeyCase> {};

TEST_P(ApprovedKeyLocation, FollowsTheRunKeyOrTheFolderScope)
{
    const KeyCase& c = GetParam();
    storage::StartupItem item = RunItem(c.path);
    item.IsUser = c.isUser;
    HKEY root = nullptr;
    std::wstring subKey;
    EXPECT_EQ(Win8StartupItem::GetItemRegKey(item, c.kind, root, subKey), c.located);
    if (c.located) {
        EXPECT_EQ(root, c.root);
        EXPECT_EQ(subKey, c.subKey);
    }
}

constexpr wchar_t kRunApproved[] = L"software\\microsoft\\windows\\currentversion\\explorer\\startupapproved\\run";

INSTANTIATE_TEST_SUITE_P(
    Cases, ApprovedKeyLocation,
    ::testing::Values(
        KeyCase{L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", RunValue, true,
                true, HKEY_CURRENT_USER, kRunApproved},
        KeyCase{L"HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Run",
                RunValue, true, true, HKEY_LOCAL_MACHINE,
                L"software\\microsoft\\windows\\currentversion\\explorer\\startupapproved\\run32"},
        KeyCase{L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\RunOnce", RunValue,
                true, false, nullptr, nullptr},
        KeyCase{L"hkey_local_machine\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", RunValue,
                true, false, nullptr, nullptr},
        KeyCase{L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", RunValue, true, false,
                nullptr, nullptr},
        KeyCase{L"HKEY_CURRENT_USER", RunValue, true, false, nullptr, nullptr},
        // Any kind other than the folder one is a Run value.
        KeyCase{L"HKEY_USERS\\S-1\\RUN", 7, true, true, HKEY_USERS, L"s-1\\explorer\\startupapproved\\run"},
        KeyCase{L"anything", FolderShortcut, true, true, HKEY_CURRENT_USER,
                L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder"},
        KeyCase{L"anything", FolderShortcut, false, true, HKEY_LOCAL_MACHINE,
                L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder"}));

TEST(ApprovedKeyLocationLimits, RunKeyEndingInABackslashIsRefusedWithAnException)
{
    const storage::StartupItem item = RunItem(L"HKEY_CURRENT_USER\\Software\\Run\\");
    HKEY root = nullptr;
    std::wstring subKey;
    try {
        Win8StartupItem::GetItemRegKey(item, RunValue, root, subKey);
        FAIL() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid string position");
    }
}

// A Run key of the test's own; its StartupApproved value lives below the same scratch key.
class ApprovedValue : public ::testing::Test {
protected:
    std::wstring m_base = L"Software\\MorrowgateTests\\" + UniqueName(L"approved");
    ScratchKey m_scratch{HKEY_CURRENT_USER, m_base};
    std::wstring m_approvedKey = m_base + L"\\explorer\\startupapproved\\run";
    storage::StartupItem m_item = RunItem(L"HKEY_CURRENT_USER\\" + m_base + L"\\Run");
    LogCapture m_log;

    void SetApproved(const Bytes& data) { SetBinary(HKEY_CURRENT_USER, m_approvedKey, m_item.Name, data); }
    std::optional<RegValue> Approved() { return ReadValue(HKEY_CURRENT_USER, m_approvedKey, m_item.Name); }
    Bytes ApprovedBytes()
    {
        auto value = Approved();
        EXPECT_TRUE(value.has_value());
        EXPECT_EQ(value ? value->type : 0u, static_cast<DWORD>(REG_BINARY));
        return value ? value->data : Bytes{};
    }
    FILETIME LastWrite()
    {
        FILETIME time{};
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, m_approvedKey.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
            RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, &time);
            RegCloseKey(key);
        }
        return time;
    }
};

const Bytes kStamp = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
Bytes WithState(std::uint8_t state, const Bytes& tail = kStamp)
{
    Bytes data(4 + tail.size(), 0);
    data[0] = state;
    std::copy(tail.begin(), tail.end(), data.begin() + 4);
    return data;
}

TEST_F(ApprovedValue, DisableWithoutAValueCreatesTheKeyAndAFreshValue)
{
    ASSERT_FALSE(KeyExists(HKEY_CURRENT_USER, m_approvedKey));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    std::wstring logged = m_approvedKey;
    CharLowerW(logged.data());
    EXPECT_EQ(CountMessages(m_log.Lines(), "failed open HKEY_CURRENT_USER " + Utf8(logged), true), 2u)
        << "the read and then the write each miss the key";
}

TEST_F(ApprovedValue, StateWordFlipsAndTheTimestampBytesAreKept)
{
    SetApproved(WithState(2));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(3));
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(2));

    SetApproved(WithState(0));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(1));
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(0));
}

TEST_F(ApprovedValue, UnknownStatesBecomeTwoOrThree)
{
    SetApproved(WithState(7));
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(2));
    SetApproved(WithState(7));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), WithState(3));
}

TEST_F(ApprovedValue, NothingIsWrittenWhenAlreadyInState)
{
    for (const auto& [state, enable] : {std::pair<std::uint8_t, bool>{0, true}, {2, true}, {1, false}, {3, false}}) {
        SCOPED_TRACE(state);
        SetApproved(WithState(state, {9, 9, 9}));
        const FILETIME before = LastWrite();
        Sleep(30);
        const DWORD result = enable ? Win8StartupItem::Enable(m_item, RunValue)
                                    : Win8StartupItem::Disable(m_item, RunValue);
        EXPECT_EQ(result, 0u);
        const FILETIME after = LastWrite();
        EXPECT_EQ(CompareFileTime(&before, &after), 0) << "the key was written";
        EXPECT_EQ(ApprovedBytes(), WithState(state, {9, 9, 9}));
    }
    const auto lines = m_log.Lines();
    EXPECT_EQ(CountMessages(lines, "item is enabled"), 2u);
    EXPECT_EQ(CountMessages(lines, "item is disabled"), 2u);
}

TEST_F(ApprovedValue, MissingKeyFailsEnableButMissingValueIsEnabled)
{
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(CountMessages(m_log.Lines(), "GetItemRegValue failed 0x", true), 1u);
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, m_approvedKey)) << "Enable never creates the key";

    CreateKey(HKEY_CURRENT_USER, m_approvedKey);
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 0u);
    EXPECT_FALSE(Approved().has_value());
    EXPECT_EQ(CountMessages(m_log.Lines(), "item is enabled"), 1u);
}

TEST_F(ApprovedValue, UnreadableValuesFailEnableAndAreReplacedByDisable)
{
    const Bytes tooLong = WithState(1, Bytes(200, 0xAB));
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "not REG_BINARY" : "longer than 128 bytes");
        if (round == 0) {
            SetString(HKEY_CURRENT_USER, m_approvedKey, m_item.Name, L"text");
        } else {
            SetApproved(tooLong);
        }
        EXPECT_NE(Win8StartupItem::Enable(m_item, RunValue), 0u);
        if (round == 1) {
            EXPECT_EQ(ApprovedBytes(), tooLong) << "a failed Enable leaves the value alone";
        }
        EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
        EXPECT_EQ(ApprovedBytes(), Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    }
}

TEST_F(ApprovedValue, ShortValuesKeepTheirLength)
{
    SetApproved({1, 0});
    EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), Bytes({0, 0}));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), Bytes({1, 0}));
}

TEST_F(ApprovedValue, RefusedPathsFailWithoutTouchingTheRegistry)
{
    for (const std::wstring& path : {std::wstring(L"HKEY_CURRENT_USER"), L"HKCU\\" + m_base + L"\\Run",
                                    L"HKEY_CURRENT_USER\\" + m_base + L"\\RunOnce"}) {
        SCOPED_TRACE(Utf8(path));
        m_item.Path = path;
        EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 31u);
        EXPECT_EQ(Win8StartupItem::Enable(m_item, RunValue), 31u);
    }
    EXPECT_EQ(CountMessages(m_log.Lines(), "GetItemRegKey failed"), 6u);
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, m_base + L"\\explorer"));
}

TEST(ApprovedFolderValue, SystemItemsLiveUnderTheLocalMachine)
{
    const std::wstring key = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
    storage::StartupItem item = RunItem(L"C:\\ProgramData\\Startup", UniqueName(L"Shared") + L".lnk");
    item.IsUser = false;
    EXPECT_EQ(Win8StartupItem::Disable(item, FolderShortcut), 0u);
    auto machine = ReadValue(HKEY_LOCAL_MACHINE, key, item.Name);
    auto user = ReadValue(HKEY_CURRENT_USER, key, item.Name);
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_SET_VALUE, &opened) == ERROR_SUCCESS) {
        RegDeleteValueW(opened, item.Name.c_str());
        RegCloseKey(opened);
    }
    ASSERT_TRUE(machine.has_value());
    EXPECT_EQ(machine->data, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(user.has_value());
}

} // namespace
