// CStartupFolderActions against a temporary folder standing in for a Startup folder.
#include "actions/CStartupFolderActions.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

using namespace legacy_tests;
using actions::CStartupFolderActions;

namespace {

class StartupFolderTest : public ::testing::Test {
protected:
    std::wstring StartupFile(const std::wstring& name) const { return m_startup / name; }
    std::wstring BackupFile(const std::wstring& name) const { return m_startup / (L"QmBkpFolder\\" + name); }

    ScratchStore m_store;
    TempDir m_startup;
    CStartupFolderActions m_actions{L"QmBkpFolder"};
};

class StartupFolderMoveOut : public StartupFolderTest,
                             public ::testing::WithParamInterface<Removal<CStartupFolderActions>> {};

TEST_P(StartupFolderMoveOut, MovesFilesIntoANewHiddenBackupFolderAndSkipsTheUnmovableUncounted)
{
    // Each file, and whether its command stays: only a lower-case ".lnk" counts as a shortcut.
    const std::vector<std::pair<std::wstring, bool>> files{
        {L"tool.exe", false}, {L"Upper.LNK", false}, {L"lower.lnk", true}, {L"ReadOnly.lnk", true}};
    storage::SharedStartupItemList items;
    for (const auto& [name, keepsCommand] : files) {
        WriteFileBytes(StartupFile(name), Utf8(name));
        items.push_back(MakeItem(name, m_startup.Path(), L"original"));
    }
    ASSERT_TRUE(SetFileAttributesW(StartupFile(L"ReadOnly.lnk").c_str(), FILE_ATTRIBUTE_READONLY));
    const std::wstring missingFolder = m_startup / L"NoSuchStartup";
    items.push_back(MakeItem(L"Gone.lnk", m_startup.Path(), L"gone.exe"));
    items.push_back(MakeItem(L"App.lnk", missingFolder, L"app.exe"));
    LogCapture capture;

    EXPECT_EQ((m_actions.*GetParam().operation)(items, true), 0);

    auto item = items.begin();
    for (const auto& [name, keepsCommand] : files) {
        SCOPED_TRACE(Utf8(name));
        EXPECT_FALSE(FileExists(StartupFile(name)));
        EXPECT_EQ(ReadFileBytes(BackupFile(name)), Utf8(name));
        EXPECT_EQ((*item)->BkpPath, BackupFile(name));
        EXPECT_EQ((*item++)->Cmd, keepsCommand ? L"original" : BackupFile(name));
    }
    EXPECT_FALSE(GetFileAttributesW(BackupFile(L"ReadOnly.lnk").c_str()) & FILE_ATTRIBUTE_READONLY);
    const DWORD folder = GetFileAttributesW((m_startup / L"QmBkpFolder").c_str());
    EXPECT_EQ(folder & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY), DWORD{FILE_ATTRIBUTE_DIRECTORY});
    TempDir probe;  // only where the file system under %TEMP% keeps the hidden attribute of a folder
    if (SetFileAttributesW(probe.Path().c_str(), FILE_ATTRIBUTE_HIDDEN) &&
        (GetFileAttributesW(probe.Path().c_str()) & FILE_ATTRIBUTE_HIDDEN)) {
        EXPECT_TRUE(folder & FILE_ATTRIBUTE_HIDDEN);
    }
    EXPECT_EQ(m_store.Saved(GetParam().section), (WStrings{L"tool.exe", L"Upper.LNK", L"lower.lnk", L"ReadOnly.lnk"}));
    EXPECT_EQ(Messages(capture.Lines()), Strings{"FAILED CreateBackupFolderForStartupItem " + Utf8(missingFolder)})
        << "the file already gone is skipped without a word";
}

TEST_P(StartupFolderMoveOut, RefusedSaveMovesTheFileBack)
{
    WriteFileBytes(StartupFile(L"tool.exe"), "program");
    ScratchStore refusing(true);
    storage::SharedStartupItemList items{MakeItem(L"tool.exe", m_startup.Path(), L"tool.exe")};
    LogCapture capture;

    EXPECT_EQ((m_actions.*GetParam().operation)(items, true), 31);

    EXPECT_EQ(ReadFileBytes(StartupFile(L"tool.exe")), "program");
    EXPECT_FALSE(FileExists(BackupFile(L"tool.exe")));
    EXPECT_EQ(Messages(capture.Lines()), Strings{"FAILED storage::SaveStartupItem " + Utf8(m_startup.Path())});
}

INSTANTIATE_TEST_SUITE_P(Legacy, StartupFolderMoveOut,
                         Removals<CStartupFolderActions>(storage::kStartupDisabledSection,
                                                         storage::kStartupDelayedSection),
                         RemovalName);

TEST_F(StartupFolderTest, EnableReplacesAFileThatReappearedAndFailsForAMissingBackup)
{
    CreateDirectoryW((m_startup / L"QmBkpFolder").c_str(), nullptr);
    storage::SharedStartupItemList items{MakeItem(L"Lost.lnk", m_startup.Path(), L"original")};  // no backup file
    for (const wchar_t* name : {L"tool.exe", L"Upper.LNK", L"lower.lnk"}) {
        WriteFileBytes(BackupFile(name), "saved");
        items.push_back(MakeItem(name, m_startup.Path(), L"original"));
    }
    WriteFileBytes(StartupFile(L"tool.exe"), "reappeared");
    LogCapture capture;

    EXPECT_EQ(m_actions.Enable(items, false), 31);

    EXPECT_EQ(ReadFileBytes(StartupFile(L"tool.exe")), "saved");
    EXPECT_EQ(ReadFileBytes(StartupFile(L"lower.lnk")), "saved");
    const WStrings commands{L"original", StartupFile(L"tool.exe"), StartupFile(L"Upper.LNK"), L"original"};
    for (auto command = commands.begin(); const auto& item : items) {
        EXPECT_EQ(item->Cmd, *command++);
    }
    EXPECT_EQ(Messages(capture.Lines()), Strings{"FAILED MoveFile(" + Utf8(BackupFile(L"Lost.lnk")) + ", " +
                                                 Utf8(StartupFile(L"Lost.lnk")) + ")"});
}

TEST_F(StartupFolderTest, CheckFailsWhenTheBackupFileVanished)
{
    WriteFileBytes(StartupFile(L"tool.exe"), "MZ");
    auto item = MakeItem(L"tool.exe", m_startup.Path(), StartupFile(L"tool.exe"));
    item->BkpPath = StartupFile(L"backup.exe");
    WriteFileBytes(item->BkpPath, "MZ");

    EXPECT_EQ(m_actions.Check(*item), 0);
    DeleteFileW(item->BkpPath.c_str());
    EXPECT_EQ(m_actions.Check(*item), 31);
}

}  // namespace
