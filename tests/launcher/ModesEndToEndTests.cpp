// Morrowgate.exe run as a child process, under the Windows 7 and the Windows 10 personality,
// against the user's real Storage.json, Run values, StartupApproved values and Startup-folder
// files of the test prefix. Delayed items run startrecorder.exe, which notes that it ran.
#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <shlobj.h>

#include <algorithm>
#include <sstream>

using Bytes = std::vector<std::uint8_t>;
using namespace testing_support;

namespace {

const wchar_t kApprovedFolderKey[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";

std::wstring UserStorePath()
{
    wchar_t appData[MAX_PATH];
    SHGetSpecialFolderPathW(nullptr, appData, CSIDL_APPDATA, FALSE);
    return JoinPath(appData, L"Quillmark\\Dawnstep\\Storage.json");
}

Bytes State(std::uint8_t state)
{
    return {state, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
}

class ModesEndToEnd : public ::testing::TestWithParam<const wchar_t*> {
protected:
    void SetUp() override
    {
        const std::wstring personality = GetParam();
        m_windows10 = personality == L"win10";
        m_program = m_dir / (L"Morrowgate_" + personality + L".exe");
        ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"Morrowgate.exe").c_str(), m_program.c_str(), FALSE));
        ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"qmtrace.dll").c_str(), (m_dir / L"qmtrace.dll").c_str(), FALSE));
        SetWineVersion(L"Morrowgate_" + personality + L".exe", personality);

        // The user's own store is the one the launcher reads: keep whatever was there.
        m_userStore = UserStorePath();
        m_savedUserStore = ReadFileBytes(m_userStore);
        DeleteFileW(m_userStore.c_str());
        Store().Init(m_userStore.c_str());

        CreateDirectoryW(m_startup.c_str(), nullptr);
        CreateKey(HKEY_CURRENT_USER, m_runKey);
    }

    void TearDown() override
    {
        DeleteFileW(m_userStore.c_str());
        if (m_savedUserStore) {
            WriteFileBytes(m_userStore, *m_savedUserStore);
        }
        for (const auto& name : m_folderValues) {
            DeleteValue(HKEY_CURRENT_USER, kApprovedFolderKey, name);
        }
    }

    static storage::CStartupItemsStorage& Store() { return storage::CStartupItemsStorage::Instance(); }

    DWORD Run(const std::wstring& arguments)
    {
        ChildOptions options;
        options.environment = {L"QMTRACE_LOG=" + m_log, L"MG_START_RECORD=" + m_record};
        options.waitForDescendants = true;  // the started programs too
        auto exitCode = RunChild(L"\"" + m_program + L"\" " + arguments, options);
        EXPECT_TRUE(exitCode.has_value()) << "the launcher or what it started did not finish";
        return exitCode.value_or(0xFFFFFFFF);
    }

    std::wstring RecorderCommand(const std::wstring& tag) const
    {
        return L"\"" + JoinPath(ProgramFolder(), L"startrecorder.exe") + L"\" " + tag;
    }

    // A Run value of the test's own key, as the suite would have saved it.
    storage::StartupItem RunItem(const std::wstring& name, std::int64_t changedTime = 0)
    {
        storage::StartupItem item;
        item.Name = name;
        item.Path = L"HKEY_CURRENT_USER\\" + m_runKey;
        item.Cmd = RecorderCommand(name);
        item.IsUser = true;
        item.ChangedTime = changedTime;
        return item;
    }

    // A shortcut of the test's Startup folder, lying where each generation keeps it while it is
    // delayed or disabled: in place on Windows 10, in the hidden backup folder on Windows 7.
    storage::StartupItem FolderItem(const std::wstring& tag)
    {
        storage::StartupItem item;
        item.Name = UniqueName(tag) + L".lnk";
        item.Path = m_startup;
        item.Cmd = RecorderCommand(tag);
        item.IsUser = true;
        m_folderValues.push_back(item.Name);
        if (m_windows10) {
            WriteFileBytes(JoinPath(m_startup, item.Name), "shortcut");
        } else {
            CreateDirectoryW(JoinPath(m_startup, L"QmBkpFolder").c_str(), nullptr);
            item.BkpPath = JoinPath(m_startup, L"QmBkpFolder\\" + item.Name);
            WriteFileBytes(item.BkpPath, "shortcut");
        }
        return item;
    }

    void Save(const storage::StartupItem& item, const char* section)
    {
        ASSERT_EQ(Store().SaveStartupItems(item, section), 0u);
    }

    std::vector<std::string> Started() const
    {
        std::vector<std::string> started;
        std::istringstream in(ReadFileBytes(m_record).value_or(""));
        for (std::string line; std::getline(in, line);) {
            started.push_back(line);
        }
        std::sort(started.begin(), started.end());
        return started;
    }

    // The start order, from the launcher's own record: started programs finish in any order.
    std::vector<std::string> LoggedStarts() const
    {
        std::vector<std::string> tags;
        for (const auto& line : ReadLog(m_log)) {
            if (line.message.rfind("CmdLine=", 0) == 0) {
                tags.push_back(line.message.substr(line.message.rfind(' ') + 1));
            }
        }
        return tags;
    }

    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const auto& line : ReadLog(m_log)) {
            messages.push_back(line.message);
        }
        return messages;
    }

    std::optional<RegValue> RunApproved(const std::wstring& name)
    {
        return ReadValue(HKEY_CURRENT_USER, m_base + L"\\explorer\\startupapproved\\run", name);
    }
    std::optional<RegValue> FolderApproved(const std::wstring& name)
    {
        return ReadValue(HKEY_CURRENT_USER, kApprovedFolderKey, name);
    }

    bool m_windows10 = false;
    TempDir m_dir;
    std::wstring m_program;
    std::wstring m_log = m_dir / L"run.log";
    std::wstring m_record = m_dir / L"started.txt";
    std::wstring m_startup = m_dir / L"Startup";
    std::wstring m_base = L"Software\\MorrowgateTests\\" + UniqueName(L"modes");
    std::wstring m_runKey = m_base + L"\\Run";
    ScratchKey m_scratch{HKEY_CURRENT_USER, m_base};
    std::wstring m_userStore;
    std::optional<std::string> m_savedUserStore;
    std::vector<std::wstring> m_folderValues;
};

TEST_P(ModesEndToEnd, LogonRunStartsDelayedItemsWithinTheTimeLimit)
{
    for (auto [name, time] : {std::pair{L"early", 999}, {L"edge", 1000}, {L"late", 1001}}) {
        auto item = RunItem(name, time);
        SetString(HKEY_CURRENT_USER, m_runKey, item.Name, item.Cmd);
        Save(item, storage::kDelayedSection);
    }
    auto gone = RunItem(L"gone");
    gone.Cmd = L"\"" + (m_dir / L"missing.exe") + L"\" gone";
    SetString(HKEY_CURRENT_USER, m_runKey, gone.Name, gone.Cmd);
    Save(gone, storage::kDelayedSection);
    Save(FolderItem(L"folder"), storage::kStartupDelayedSection);
    const auto disabled = RunItem(L"disabled");
    SetString(HKEY_CURRENT_USER, m_runKey, disabled.Name, disabled.Cmd);
    Save(disabled, storage::kDisabledSection);
    const auto storeBefore = ReadFileBytes(m_userStore);

    EXPECT_EQ(Run(L"/time:1000"), 0u);
    EXPECT_EQ(Started(), (std::vector<std::string>{"early", "edge", "folder"}));
    EXPECT_EQ(LoggedStarts(), (std::vector<std::string>{"early", "edge", "folder"}))
        << "registry items start before Startup-folder items, in store order";
    EXPECT_EQ(ReadFileBytes(m_userStore), storeBefore) << "starting never writes the store";
    EXPECT_EQ(CountMessages(ReadLog(m_log), "time=1000"), 1u);
}

TEST_P(ModesEndToEnd, LogonRunWithoutALimitStartsEveryItemAndDuplicatesTwice)
{
    auto item = RunItem(L"twice", 5000);
    SetString(HKEY_CURRENT_USER, m_runKey, item.Name, item.Cmd);
    Save(item, storage::kDelayedSection);
    Save(item, storage::kDelayedSection);
    EXPECT_EQ(Run(L""), 0u);
    EXPECT_EQ(Started(), (std::vector<std::string>{"twice", "twice"}));
}

TEST_P(ModesEndToEnd, FailedStartIsLoggedOnceAndTheOthersStillStart)
{
    const std::wstring notAProgram = m_dir / L"notes.txt";
    WriteFileBytes(notAProgram, "not a program");
    auto broken = RunItem(L"broken");
    broken.Cmd = notAProgram;
    SetString(HKEY_CURRENT_USER, m_runKey, broken.Name, broken.Cmd);
    Save(broken, storage::kDelayedSection);
    auto fine = RunItem(L"fine");
    SetString(HKEY_CURRENT_USER, m_runKey, fine.Name, fine.Cmd);
    Save(fine, storage::kDelayedSection);

    EXPECT_EQ(Run(L""), 0u);
    EXPECT_EQ(Started(), (std::vector<std::string>{"fine"}));
    EXPECT_EQ(CountMessages(ReadLog(m_log), "FAILED CreateProcess(" + Utf8(notAProgram) + ") error 0x", true), 1u);
}

TEST_P(ModesEndToEnd, NothingStartsFromAMissingOrUnreadableStore)
{
    EXPECT_EQ(Run(L""), 0u);
    EXPECT_FALSE(FileExists(m_userStore));
    WriteFileBytes(m_userStore, "{\"user\":{\"Delayed\":[");
    EXPECT_EQ(Run(L""), 0u);
    EXPECT_EQ(ReadFileBytes(m_userStore), std::optional<std::string>("{\"user\":{\"Delayed\":["));
    EXPECT_TRUE(Started().empty());
    EXPECT_EQ(CountMessages(ReadLog(m_log), "CmdLine=", true), 0u);
}

TEST_P(ModesEndToEnd, RestorePutsEveryItemBackAndEmptiesTheStore)
{
    auto delayed = RunItem(L"delayedRun");
    auto disabled = RunItem(L"disabledRun");
    auto folder = FolderItem(L"disabledFile");
    if (m_windows10) {
        SetString(HKEY_CURRENT_USER, m_runKey, delayed.Name, delayed.Cmd);
        SetString(HKEY_CURRENT_USER, m_runKey, disabled.Name, disabled.Cmd);
        SetBinary(HKEY_CURRENT_USER, m_base + L"\\explorer\\startupapproved\\run", delayed.Name, State(3));
        SetBinary(HKEY_CURRENT_USER, m_base + L"\\explorer\\startupapproved\\run", disabled.Name, State(1));
        SetBinary(HKEY_CURRENT_USER, kApprovedFolderKey, folder.Name, State(3));
    }
    Save(delayed, storage::kDelayedSection);
    Save(disabled, storage::kDisabledSection);
    Save(folder, storage::kStartupDisabledSection);

    EXPECT_EQ(Run(L"/restore"), 0u);

    if (m_windows10) {
        EXPECT_EQ(RunApproved(delayed.Name)->data, State(2));
        EXPECT_EQ(RunApproved(disabled.Name)->data, State(0));
        EXPECT_EQ(FolderApproved(folder.Name)->data, State(2));
    } else {
        for (const auto* item : {&delayed, &disabled}) {
            auto value = ReadValue(HKEY_CURRENT_USER, m_runKey, item->Name);
            ASSERT_TRUE(value.has_value());
            EXPECT_EQ(value->type, static_cast<DWORD>(REG_SZ));
            EXPECT_EQ(ReadString(HKEY_CURRENT_USER, m_runKey, item->Name), item->Cmd);
        }
        EXPECT_TRUE(FileExists(JoinPath(m_startup, folder.Name)));
        EXPECT_FALSE(FileExists(folder.BkpPath));
    }
    for (const char* section : {storage::kDelayedSection, storage::kDisabledSection, storage::kStartupDisabledSection}) {
        storage::StartupItemList left;
        EXPECT_EQ(Store().LoadStartupItems(section, left), 0u);
        EXPECT_TRUE(left.empty()) << section;
    }
    const auto messages = Messages();
    const auto first = std::find(messages.begin(), messages.end(), "Enable HKEY_CURRENT_USER\\" + Utf8(m_runKey) + " delayedRun");
    const auto second = std::find(messages.begin(), messages.end(), "Enable HKEY_CURRENT_USER\\" + Utf8(m_runKey) + " disabledRun");
    EXPECT_LT(first, second) << "delayed items are restored before disabled ones";
    EXPECT_NE(second, messages.end());
    EXPECT_TRUE(Started().empty());
}

TEST_P(ModesEndToEnd, RestoreOfAnUnreadableStoreLogsEachSectionOnceInOrder)
{
    WriteFileBytes(m_userStore, "null");
    EXPECT_EQ(Run(L"/restore"), 0u);
    std::vector<std::string> failures;
    for (const auto& message : Messages()) {
        if (message.rfind("FAILED load", 0) == 0) {
            failures.push_back(message);
        }
    }
    EXPECT_EQ(failures, (std::vector<std::string>{"FAILED load regkeys delayed", "FAILED load files delayed",
                                                  "FAILED load regkeys disabled", "FAILED load filess disabled"}));
    EXPECT_EQ(ReadFileBytes(m_userStore), std::optional<std::string>("null"));
}

TEST_P(ModesEndToEnd, CheckAppliesTheSavedStateAgainWithoutWritingTheStore)
{
    auto delayed = RunItem(L"delayedRun");
    auto folder = FolderItem(L"disabledFile");
    SetString(HKEY_CURRENT_USER, m_runKey, delayed.Name, delayed.Cmd);
    if (m_windows10) {
        SetBinary(HKEY_CURRENT_USER, m_base + L"\\explorer\\startupapproved\\run", delayed.Name, State(2));
    } else {
        // Someone put the shortcut back into the Startup folder since it was disabled.
        MoveFileW(folder.BkpPath.c_str(), JoinPath(m_startup, folder.Name).c_str());
    }
    Save(delayed, storage::kDelayedSection);
    Save(folder, storage::kStartupDisabledSection);
    const auto storeBefore = ReadFileBytes(m_userStore);

    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run);
        EXPECT_EQ(Run(L"/checkcrtuser"), 0u);
        if (m_windows10) {
            EXPECT_EQ(RunApproved(delayed.Name)->data, State(3));
            EXPECT_EQ(FolderApproved(folder.Name)->data, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        } else {
            EXPECT_FALSE(ReadValue(HKEY_CURRENT_USER, m_runKey, delayed.Name).has_value());
            EXPECT_FALSE(FileExists(JoinPath(m_startup, folder.Name)));
            EXPECT_TRUE(FileExists(folder.BkpPath));
        }
        EXPECT_EQ(ReadFileBytes(m_userStore), storeBefore) << "the check never writes the store";
    }
    EXPECT_TRUE(Started().empty());
}

TEST_P(ModesEndToEnd, CheckUserReadsTheStoreOfTheGivenFolder)
{
    TempDir other;
    const std::wstring otherStore = other / L"Quillmark\\Dawnstep\\Storage.json";
    auto delayed = RunItem(L"otherUser");
    SetString(HKEY_CURRENT_USER, m_runKey, delayed.Name, delayed.Cmd);
    CreateDirectoryW((other / L"Quillmark").c_str(), nullptr);
    CreateDirectoryW((other / L"Quillmark\\Dawnstep").c_str(), nullptr);
    Store().Init(otherStore.c_str());
    Save(delayed, storage::kDelayedSection);
    const auto before = ReadFileBytes(otherStore);

    EXPECT_EQ(Run(L"\"/checkuser:" + other.Path() + L"\""), 0u);
    EXPECT_EQ(CountMessages(ReadLog(m_log), "-> [CHECK USER]"), 1u);
    if (m_windows10) {
        EXPECT_EQ(RunApproved(delayed.Name)->data, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    } else {
        EXPECT_FALSE(ReadValue(HKEY_CURRENT_USER, m_runKey, delayed.Name).has_value());
    }
    EXPECT_EQ(ReadFileBytes(otherStore), before);
    EXPECT_FALSE(FileExists(m_userStore));
}

INSTANTIATE_TEST_SUITE_P(Personalities, ModesEndToEnd, ::testing::Values(L"win7", L"win10"),
                         [](const auto& info) { return Utf8(info.param); });

} // namespace
