#include "actions/CommandTarget.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <shlobj.h>

using actions::ResolveCommandTarget;
using actions::ToLowerInPlace;
using namespace testing_support;

namespace {

struct ResolveCase {
    const wchar_t* commandLine;
    const wchar_t* target;  // null: resolution fails
};

class ResolveCommand : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(ResolveCommand, GivesTheFileThatRuns)
{
    const ResolveCase& c = GetParam();
    std::wstring target = L"sentinel";
    const bool resolved = ResolveCommandTarget(c.commandLine, target);
    EXPECT_EQ(resolved, c.target != nullptr);
    if (c.target != nullptr) {
        EXPECT_EQ(target, c.target);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ResolveCommand,
    ::testing::Values(
        ResolveCase{L"\"C:\\Program Files\\App\\app.exe\" /min", L"C:\\Program Files\\App\\app.exe"},
        ResolveCase{L"C:\\Program Files\\App\\App.EXE -x", L"C:\\Program Files\\App\\App.EXE"},
        ResolveCase{L"C:\\Tools\\run me.bat arg", L"C:\\Tools\\run me.bat"},
        ResolveCase{L"C:\\Tools\\run  me   now", L"C:\\Tools\\run me now"},
        ResolveCase{L"C:\\a b\\x.exelink tail", L"C:\\a b\\x.exelink"},  // a substring, not a suffix
        ResolveCase{L"rundll32.exe C:\\x\\y.dll, Entry", L"C:\\x\\y.dll"},
        ResolveCase{L"rundll32.exe C:\\x\\y.dll,Entry", L"C:\\x\\y.dll,Entry"},
        ResolveCase{L"RunDll32.EXE C:\\my files\\y.dll, Entry arg", L"C:\\my files\\y.dll"},
        ResolveCase{L"rundll.exe C:\\x\\y.dll Entry", L"C:\\x\\y.dll Entry"},
        ResolveCase{L"rundll32.exe \"C:\\x y\\z.dll\",Entry", L"C:\\x y\\z.dll,Entry"},
        ResolveCase{L"rundll32.exe", nullptr},
        ResolveCase{L"RUNDLL32.EXE", nullptr},
        ResolveCase{L"C:\\windows\\system32\\rundll32.exe C:\\x\\y.dll,Entry",
                    L"C:\\windows\\system32\\rundll32.exe"},
        ResolveCase{L"no-such-program-mg.exe /x", nullptr},
        ResolveCase{L"%windir%", nullptr}));  // searched for before it is expanded

TEST(ResolveCommandTarget, BareNameIsFoundOnTheSearchPath)
{
    wchar_t system[MAX_PATH];
    ASSERT_TRUE(SHGetSpecialFolderPathW(nullptr, system, CSIDL_SYSTEM, FALSE));
    std::wstring target;
    ASSERT_TRUE(ResolveCommandTarget(L"notepad.exe /p file.txt", target));
    EXPECT_EQ(_wcsicmp(target.c_str(), JoinPath(system, L"notepad.exe").c_str()), 0) << Utf8(target);
}

TEST(ResolveCommandTarget, EnvironmentVariablesAreExpandedAfterTheSearch)
{
    ScopedEnvironment root(L"MG_TEST_ROOT", L"C:\\Expanded Root");
    std::wstring target;
    ASSERT_TRUE(ResolveCommandTarget(L"%MG_TEST_ROOT%\\system32\\ctfmon.exe /n", target));
    EXPECT_EQ(target, L"C:\\Expanded Root\\system32\\ctfmon.exe");
}

TEST(ResolveCommandTarget, HostileCommandLinesFailOrResolveWithoutCrashing)
{
    std::wstring target;
    // An unbalanced quote runs to the end of the line.
    ASSERT_TRUE(ResolveCommandTarget(L"\"C:\\Program Files\\app.exe -x", target));
    EXPECT_EQ(target, L"C:\\Program Files\\app.exe -x");
    // Longer than any path: cannot be on the search path.
    const std::wstring huge(32766, L'a');
    EXPECT_FALSE(ResolveCommandTarget(huge.c_str(), target));
    // A long path with a backslash is taken as it stands.
    const std::wstring longPath = L"C:\\" + std::wstring(32000, L'b') + L".exe";
    ASSERT_TRUE(ResolveCommandTarget(longPath.c_str(), target));
    EXPECT_EQ(target.size(), longPath.size());
}

TEST(ToLowerInPlace, UsesTheUsersLocaleCharacterByCharacter)
{
    std::wstring text = L"C:\\PROGRAM Files\\\u00C9T\u00C9.EXE";
    ToLowerInPlace(text);
    EXPECT_EQ(text, L"c:\\program files\\\u00E9t\u00E9.exe");
}

} // namespace
