// The StartupApproved value of Run and Startup-folder items, read back from the registry.
#include "actions/Win8StartupItem.h"
#include "support/Handles.h"
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
        support::UniqueHKey key;
        if (support::OpenKey(HKEY_CURRENT_USER, m_approvedKey.c_str(), KEY_READ, key) == ERROR_SUCCESS) {
            RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, &time);
        }
        return time;
    }
};

const Bytes kStamp = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
const Bytes kFresh = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
Bytes WithState(std::uint8_t state, const Bytes& tail = kStamp)
{
    Bytes data(4 + tail.size(), 0);
    data[0] = state;
    std::copy(tail.begin(), tail.end(), data.begin() + 4);
    return data;
}

struct Transition {
    const char* name;
    DWORD type;      // of the value found
    Bytes before;
    bool enable;
    DWORD result;
    Bytes after;     // read back as REG_BINARY
    bool written;
};

class ApprovedTransition : public ApprovedValue, public ::testing::WithParamInterface<Transition> {};

TEST_P(ApprovedTransition, LeavesTheExpectedBytes)
{
    const Transition& t = GetParam();
    if (t.type == REG_BINARY) {
        SetApproved(t.before);
    } else {
        SetString(HKEY_CURRENT_USER, m_approvedKey, m_item.Name, L"text");
    }
    const FILETIME before = LastWrite();
    Sleep(20);
    const DWORD result = t.enable ? Win8StartupItem::Enable(m_item, RunValue) : Win8StartupItem::Disable(m_item, RunValue);
    EXPECT_EQ(result, t.result);
    const FILETIME after = LastWrite();
    EXPECT_EQ(CompareFileTime(&before, &after) != 0, t.written);
    if (t.type == REG_BINARY || t.written) {
        EXPECT_EQ(ApprovedBytes(), t.after);
    }
}

INSTANTIATE_TEST_SUITE_P(
    States, ApprovedTransition,
    ::testing::Values(
        Transition{"EnabledTwoDisables", REG_BINARY, WithState(2), false, 0, WithState(3), true},
        Transition{"DisabledThreeEnables", REG_BINARY, WithState(3), true, 0, WithState(2), true},
        Transition{"EnabledZeroDisables", REG_BINARY, WithState(0), false, 0, WithState(1), true},
        Transition{"DisabledOneEnables", REG_BINARY, WithState(1), true, 0, WithState(0), true},
        Transition{"UnknownEnablesToTwo", REG_BINARY, WithState(7), true, 0, WithState(2), true},
        Transition{"UnknownDisablesToThree", REG_BINARY, WithState(7), false, 0, WithState(3), true},
        Transition{"ShortValueKeepsItsLength", REG_BINARY, {1, 0}, true, 0, {0, 0}, true},
        Transition{"AlreadyEnabledZero", REG_BINARY, WithState(0), true, 0, WithState(0), false},
        Transition{"AlreadyEnabledTwo", REG_BINARY, WithState(2), true, 0, WithState(2), false},
        Transition{"AlreadyDisabledOne", REG_BINARY, WithState(1), false, 0, WithState(1), false},
        Transition{"AlreadyDisabledThree", REG_BINARY, WithState(3), false, 0, WithState(3), false},
        Transition{"TooLongFailsEnable", REG_BINARY, WithState(1, Bytes(200, 0xAB)), true, ERROR_MORE_DATA,
                   WithState(1, Bytes(200, 0xAB)), false},
        Transition{"TooLongIsReplacedByDisable", REG_BINARY, WithState(1, Bytes(200, 0xAB)), false, 0, kFresh, true},
        Transition{"TextFailsEnable", REG_SZ, {}, true, 31, {}, false},
        Transition{"TextIsReplacedByDisable", REG_SZ, {}, false, 0, kFresh, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ApprovedValue, DisableWithoutAValueCreatesTheKeyAndAFreshValue)
{
    ASSERT_FALSE(KeyExists(HKEY_CURRENT_USER, m_approvedKey));
    EXPECT_EQ(Win8StartupItem::Disable(m_item, RunValue), 0u);
    EXPECT_EQ(ApprovedBytes(), kFresh);
    std::wstring logged = m_approvedKey;
    CharLowerW(logged.data());
    EXPECT_EQ(CountMessages(m_log.Lines(), "failed open HKEY_CURRENT_USER " + Utf8(logged), true), 2u)
        << "the read and then the write each miss the key";
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
    DeleteValue(HKEY_LOCAL_MACHINE, key, item.Name);
    ASSERT_TRUE(machine.has_value());
    EXPECT_EQ(machine->data, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(user.has_value());
}

} // namespace
