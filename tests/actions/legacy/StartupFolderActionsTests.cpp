// CStartupFolderActions against a temporary folder standing in for a Startup folder.
#include "actions/CStartupFolderActions.h"
#include "storage/StartupItemsStorage.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

#include <gtest/gtest.h>

using namespace testing_support;
using namespace legacy_tests;
using actions::CStartupFolderActions;

namespace {

class StartupFolderTest : public ::testing::Test {
protected:
    std::wstring StartupFile(const std::wstring& name) const { return m_startup / name; }
    std::wstring BackupFile(const std::wstring& name) const { return m_startup / (L"QmBkpFolder\\" + name); }
    void PutBackup(const std::wstring& name, const std::string& bytes)
    {
        CreateDirectoryW((m_startup / L"QmBkpFolder").c_str(), nullptr);
        WriteFileBytes(BackupFile(name), bytes);
    }

    ScratchStore m_store;
    TempDir m_startup;
    CStartupFolderActions m_actions{L"QmBkpFolder"};
};

struct MoveOutCase {
    const char* scenario;
    int (CStartupFolderActions::*operation)(storage::SharedStartupItemList&, bool);
    const char* section;
    bool traced;  // Delay deliberately writes no entry and exit lines
};
void PrintTo(const MoveOutCase& value, std::ostream* out) { *out << value.scenario; }

class StartupFolderMoveOut : public StartupFolderTest, public ::testing::WithParamInterface<MoveOutCase> {
protected:
    int Run(storage::SharedStartupItemList& items, bool save) { return (m_actions.*GetParam().operation)(items, save); }
    std::string Function() const { return std::string("CStartupFolderActions::") + GetParam().scenario; }
};

TEST_P(StartupFolderMoveOut, ShortcutGoesIntoANewHiddenBackupFolderAndIsRecorded)
{
    for (const std::wstring& path : {m_startup.Path(), m_startup.Path() + L"\\"}) {
        SCOPED_TRACE(Utf8(path));
        RemoveTree(m_startup / L"QmBkpFolder");
        WriteFileBytes(StartupFile(L"App.lnk"), "shortcut");
        auto item = MakeItem(L"App.lnk", path, L"C:\\Apps\\app.exe /min");
        storage::SharedStartupItemList items{item};
        LogCapture capture;

        EXPECT_EQ(Run(items, true), 0);

        EXPECT_FALSE(FileExists(StartupFile(L"App.lnk")));
        EXPECT_EQ(ReadFileBytes(BackupFile(L"App.lnk")), "shortcut");
        EXPECT_EQ(item->BkpPath, BackupFile(L"App.lnk"));
        EXPECT_EQ(item->Cmd, L"C:\\Apps\\app.exe /min") << "a shortcut keeps its command";
        const DWORD attributes = GetFileAttributesW((m_startup / L"QmBkpFolder").c_str());
        ASSERT_NE(attributes, INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY), DWORD{FILE_ATTRIBUTE_DIRECTORY});
        if (CanKeepHiddenAttribute()) {
            EXPECT_TRUE(attributes & FILE_ATTRIBUTE_HIDDEN);
        }
        const auto saved = m_store.Section(GetParam().section);
        ASSERT_FALSE(saved.empty());
        EXPECT_EQ(saved.back().BkpPath, BackupFile(L"App.lnk"));
        const auto lines = capture.Lines();
        EXPECT_EQ(CountLines(lines, Function(), std::string(GetParam().scenario) + " " + Utf8(path) + " App.lnk"), 1u);
        EXPECT_EQ(CountEntries(lines, Function()), GetParam().traced ? 1u : 0u);
    }
}

TEST_P(StartupFolderMoveOut, CommandFollowsEveryFileButALowerCaseShortcut)
{
    const struct {
        std::wstring name;
        bool keepsCommand;
    } cases[] = {{L"tool.exe", false}, {L"App.LNK", false}, {L"app.lnk", true}, {L"notes.lnk.txt", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.name));
        WriteFileBytes(StartupFile(c.name), "x");
        auto item = MakeItem(c.name, m_startup.Path(), L"original");
        storage::SharedStartupItemList items{item};

        EXPECT_EQ(Run(items, false), 0);

        EXPECT_TRUE(FileExists(BackupFile(c.name)));
        EXPECT_EQ(item->Cmd, c.keepsCommand ? L"original" : BackupFile(c.name));
    }
    EXPECT_FALSE(FileExists(m_store.FilePath()));
}

TEST_P(StartupFolderMoveOut, RefusedSaveMovesTheFileBack)
{
    WriteFileBytes(StartupFile(L"tool.exe"), "program");
    m_store.Refuse();
    auto item = MakeItem(L"tool.exe", m_startup.Path(), StartupFile(L"tool.exe"));
    storage::SharedStartupItemList items{item};
    LogCapture capture;

    EXPECT_EQ(Run(items, true), 31);

    EXPECT_EQ(ReadFileBytes(StartupFile(L"tool.exe")), "program") << "an entry the store refused must not be lost";
    EXPECT_FALSE(FileExists(BackupFile(L"tool.exe")));
    EXPECT_EQ(item->Cmd, BackupFile(L"tool.exe")) << "the rewritten fields stay as they were set";
    EXPECT_EQ(CountLines(capture.Lines(), Function(), "FAILED storage::SaveStartupItem " + Utf8(m_startup.Path())), 1u);
}

TEST_P(StartupFolderMoveOut, UnmovableItemsAreSkippedUncountedAndReadOnlyFilesMoved)
{
    const std::wstring missingFolder = m_startup / L"NoSuchStartup";
    const std::wstring blockedFolder = m_startup / L"Blocked";  // a file stands where its backup folder goes
    CreateDirectoryW(blockedFolder.c_str(), nullptr);
    WriteFileBytes(JoinPath(blockedFolder, L"QmBkpFolder"), "not a folder");
    WriteFileBytes(JoinPath(blockedFolder, L"App.lnk"), "shortcut");
    WriteFileBytes(StartupFile(L"ReadOnly.lnk"), "read-only");
    ASSERT_TRUE(SetFileAttributesW(StartupFile(L"ReadOnly.lnk").c_str(), FILE_ATTRIBUTE_READONLY));
    storage::SharedStartupItemList items{
        MakeItem(L"Gone.lnk", m_startup.Path(), L"gone.exe"),
        MakeItem(L"App.lnk", missingFolder, L"app.exe"),
        MakeItem(L"App.lnk", blockedFolder, L"app.exe"),
        MakeItem(L"ReadOnly.lnk", m_startup.Path(), L"next.exe"),
    };
    LogCapture capture;

    EXPECT_EQ(Run(items, true), 0);

    EXPECT_TRUE(FileExists(JoinPath(blockedFolder, L"App.lnk")));
    const DWORD moved = GetFileAttributesW(BackupFile(L"ReadOnly.lnk").c_str());
    ASSERT_NE(moved, INVALID_FILE_ATTRIBUTES);
    EXPECT_FALSE(moved & FILE_ATTRIBUTE_READONLY) << "stays writable after the move";
    EXPECT_EQ(m_store.Names(GetParam().section), std::vector<std::wstring>{L"ReadOnly.lnk"});
    const auto lines = capture.Lines();
    for (const auto& folder : {missingFolder, blockedFolder}) {
        EXPECT_EQ(CountLines(lines, Function(), "FAILED CreateBackupFolderForStartupItem " + Utf8(folder)), 1u);
    }
    EXPECT_EQ(CountMessages(lines, "FAILED", true), 2u) << "the file already gone is skipped without a word";
}

INSTANTIATE_TEST_SUITE_P(
    Legacy, StartupFolderMoveOut,
    ::testing::Values(
        MoveOutCase{"Disable", &CStartupFolderActions::Disable, storage::kStartupDisabledSection, true},
        MoveOutCase{"Delay", &CStartupFolderActions::Delay, storage::kStartupDelayedSection, false}),
    [](const auto& info) { return std::string(info.param.scenario); });

using StartupFolderEnable = StartupFolderTest;

TEST_F(StartupFolderEnable, ReplacesAFileThatReappearedAndRestoresTheCommand)
{
    PutBackup(L"tool.exe", "saved program");
    PutBackup(L"App.lnk", "shortcut");
    WriteFileBytes(StartupFile(L"tool.exe"), "reappeared");
    auto tool = MakeItem(L"tool.exe", m_startup.Path() + L"\\", BackupFile(L"tool.exe"));
    tool->BkpPath = L"C:\\elsewhere\\tool.exe";  // not used: both paths are derived again
    auto shortcut = MakeItem(L"App.lnk", m_startup.Path(), L"C:\\Apps\\app.exe");
    storage::SharedStartupItemList items{tool, shortcut};
    LogCapture capture;

    EXPECT_EQ(m_actions.Enable(items, false), 0);

    EXPECT_EQ(ReadFileBytes(StartupFile(L"tool.exe")), "saved program");
    EXPECT_EQ(tool->Cmd, StartupFile(L"tool.exe"));
    EXPECT_TRUE(FileExists(StartupFile(L"App.lnk")));
    EXPECT_EQ(shortcut->Cmd, L"C:\\Apps\\app.exe");
    EXPECT_TRUE(FileExists(m_startup / L"QmBkpFolder")) << "the backup folder is never removed";
    EXPECT_EQ(CountEntries(capture.Lines(), "CStartupFolderActions::Enable"), 1u);
}

TEST_F(StartupFolderEnable, MissingBackupFileFailsAndTheWholeListLeavesTheStore)
{
    PutBackup(L"Next.lnk", "next");
    auto lost = MakeItem(L"Lost.lnk", m_startup.Path(), L"lost.exe");
    auto next = MakeItem(L"Next.lnk", m_startup.Path(), L"next.exe");
    auto& store = storage::CStartupItemsStorage::Instance();
    ASSERT_EQ(store.SaveStartupItems(*lost, storage::kStartupDisabledSection), 0u);
    ASSERT_EQ(store.SaveStartupItems(*next, storage::kStartupDelayedSection), 0u);
    storage::SharedStartupItemList items{lost, next};
    LogCapture capture;

    EXPECT_EQ(m_actions.Enable(items, true), 31);

    EXPECT_TRUE(FileExists(StartupFile(L"Next.lnk")));
    EXPECT_TRUE(m_store.Names(storage::kStartupDisabledSection).empty());
    EXPECT_TRUE(m_store.Names(storage::kStartupDelayedSection).empty());
    const std::string message =
        "FAILED MoveFile(" + Utf8(BackupFile(L"Lost.lnk")) + ", " + Utf8(StartupFile(L"Lost.lnk")) + ")";
    EXPECT_EQ(CountLines(capture.Lines(), "CStartupFolderActions::Enable", message), 1u);
}

using StartupFolderCheck = StartupFolderTest;

TEST_F(StartupFolderCheck, NeedsTheBackupFileAndTheCommandsTarget)
{
    PutBackup(L"tool.exe", "program");
    const std::wstring target = m_startup / L"target.exe";
    WriteFileBytes(target, "MZ");
    const struct {
        const char* scenario;
        std::wstring bkpPath, cmd;
        int expected;
    } cases[] = {
        {"backup and target present", BackupFile(L"tool.exe"), L"\"" + target + L"\" /x", 0},
        {"no backup recorded", L"", target, 0},
        {"backup vanished", BackupFile(L"vanished.exe"), target, 31},
        {"target missing", BackupFile(L"tool.exe"), m_startup / L"missing.exe", 31},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        auto item = MakeItem(L"tool.exe", m_startup.Path(), c.cmd);
        item->BkpPath = c.bkpPath;
        LogCapture capture;

        EXPECT_EQ(m_actions.Check(*item), c.expected);
        EXPECT_EQ(CountEntries(capture.Lines(), "CStartupFolderActions::Check"), 1u);
    }
}

} // namespace
