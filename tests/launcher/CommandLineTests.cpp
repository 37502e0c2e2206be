#include "launcher/CommandLine.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <shlobj.h>

using launcher::BuildStoragePath;
using launcher::CreateFolderTree;
using launcher::ParseCommandLine;
using namespace testing_support;

namespace {

struct SwitchCase {
    const wchar_t* commandLine;
    bool restore;
    long long timeLimit;
    bool checkCurrentUser;
    bool checkUser;
    const wchar_t* userFolder;
};

class SwitchParsing : public ::testing::TestWithParam<SwitchCase> {};

TEST_P(SwitchParsing, SetsExactlyTheExpectedSettings)
{
    const SwitchCase& expected = GetParam();
    const auto settings = ParseCommandLine(expected.commandLine);
    EXPECT_EQ(settings.restore, expected.restore);
    EXPECT_EQ(settings.timeLimit, expected.timeLimit);
    EXPECT_EQ(settings.checkCurrentUser, expected.checkCurrentUser);
    EXPECT_EQ(settings.checkUser, expected.checkUser);
    EXPECT_EQ(settings.userFolder, expected.userFolder);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SwitchParsing,
    ::testing::Values(
        SwitchCase{L"", false, 0, false, false, L""},
        SwitchCase{L"/restore", true, 0, false, false, L""},
        SwitchCase{L"/restoreX", true, 0, false, false, L""},  // prefix test
        SwitchCase{L"/RESTORE", false, 0, false, false, L""},  // case-sensitive
        SwitchCase{L"/time:1000", false, 1000, false, false, L""},
        SwitchCase{L"/time:abc", false, 0, false, false, L""},
        SwitchCase{L"/time:-5", false, -5, false, false, L""},
        SwitchCase{L"/time:12abc", false, 12, false, false, L""},
        SwitchCase{L"/time:5 /time:7", false, 7, false, false, L""},  // the later one wins
        SwitchCase{L"/checkcrtuser", false, 0, true, false, L""},
        SwitchCase{L"/checkuser:", false, 0, false, true, L""},
        SwitchCase{L"\"/checkuser:D:\\Users\\x y\\AppData\"", false, 0, false, true,
                   L"D:\\Users\\x y\\AppData"},
        SwitchCase{L"/checkuser:C:\\a /checkuser:C:\\b", false, 0, false, true, L"C:\\b"},
        SwitchCase{L"/restore /checkcrtuser /time:3", true, 3, true, false, L""},
        SwitchCase{L"/unknown -restore restore /check", false, 0, false, false, L""}));

TEST(SwitchParsingLimits, OverflowingTimeDoesNotWrapToAPositiveBound)
{
    // _wtoi64 saturates on overflow; whatever the runtime gives, it must not be a small value.
    const auto high = ParseCommandLine(L"/time:99999999999999999999999");
    EXPECT_EQ(high.timeLimit, INT64_MAX);
    const auto low = ParseCommandLine(L"/time:-99999999999999999999999");
    EXPECT_EQ(low.timeLimit, INT64_MIN);
}

TEST(SwitchParsingLimits, ArgumentOfMaximumLengthIsRead)
{
    std::wstring folder(32767 - 12, L'a');
    const auto settings = ParseCommandLine((L"/checkuser:" + folder).c_str());
    EXPECT_TRUE(settings.checkUser);
    EXPECT_EQ(settings.userFolder.size(), folder.size());
}

TEST(StoragePath, UserFolderWithOrWithoutBackslashGivesTheSameFile)
{
    TempDir base;
    const std::wstring expected = base.Path() + L"\\Quillmark\\Dawnstep\\Storage.json";
    EXPECT_EQ(BuildStoragePath(base.Path()), expected);
    EXPECT_EQ(BuildStoragePath(base.Path() + L"\\"), expected);
    EXPECT_TRUE(FileExists(base.Path() + L"\\Quillmark\\Dawnstep"));
}

TEST(StoragePath, DefaultsToTheRoamingApplicationDataFolder)
{
    wchar_t appData[MAX_PATH];
    ASSERT_TRUE(SHGetSpecialFolderPathW(nullptr, appData, CSIDL_APPDATA, FALSE));
    const std::wstring path = BuildStoragePath(L"");
    EXPECT_EQ(path, JoinPath(appData, L"Quillmark\\Dawnstep\\Storage.json"));
    EXPECT_TRUE(FileExists(JoinPath(appData, L"Quillmark\\Dawnstep")));
}

TEST(StoragePath, CreatesEveryMissingParent)
{
    TempDir base;
    const std::wstring deep = base / L"one\\two\\three";
    EXPECT_EQ(BuildStoragePath(deep), deep + L"\\Quillmark\\Dawnstep\\Storage.json");
    EXPECT_TRUE(FileExists(deep + L"\\Quillmark\\Dawnstep"));
}

TEST(StoragePath, UncreatableFolderStillGivesAPathAndDoesNotCrash)
{
    TempDir base;
    // A file where a folder should be: nothing below it can be created.
    WriteFileBytes(base / L"blocker", "x");
    const std::wstring user = base / L"blocker\\sub";
    EXPECT_EQ(BuildStoragePath(user), user + L"\\Quillmark\\Dawnstep\\Storage.json");
    EXPECT_FALSE(FileExists(user));
}

TEST(FolderTree, ExistingFolderAndTrailingBackslashesAreFine)
{
    TempDir base;
    EXPECT_TRUE(CreateFolderTree(base.Path()));
    EXPECT_TRUE(CreateFolderTree(base / L"a\\b\\\\"));
    EXPECT_TRUE(FileExists(base / L"a\\b"));
}

TEST(FolderTree, PathsWithoutAFolderFailWithoutRecursingAway)
{
    EXPECT_FALSE(CreateFolderTree(std::wstring(32000, L'\\') + L"x"));
    EXPECT_FALSE(CreateFolderTree(L"relative-" + std::wstring(300, L'q') + L"\\sub"));
}

} // namespace
