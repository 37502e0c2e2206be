// Morrowgate.exe itself, started as a child process: exit codes, the mode it picks and what it
// writes to the development log.
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

class EntryPoint : public ::testing::Test {
protected:
    // Runs the program from bin/ with its log in the scratch folder; returns the exit code.
    DWORD Run(const std::wstring& arguments, const std::wstring& program = L"")
    {
        const std::wstring exe = program.empty() ? JoinPath(ProgramFolder(), L"Morrowgate.exe") : program;
        ChildOptions options;
        options.environment = {L"QMTRACE_LOG=" + m_log};
        options.currentFolder = m_dir.Path();
        auto exitCode = RunChild(L"\"" + exe + L"\" " + arguments, options);
        EXPECT_TRUE(exitCode.has_value()) << "did not finish";
        return exitCode.value_or(0xFFFFFFFF);
    }

    std::vector<LogLine> Log() const { return ReadLog(m_log); }

    bool RanMode(const std::string& label) const
    {
        return CountMessages(Log(), "-> [" + label + "]") == 1;
    }

    std::wstring PrivateStore() const { return L"\"/checkuser:" + m_dir.Path() + L"\""; }

    TempDir m_dir;
    std::wstring m_log = m_dir / L"run.log";
};

TEST_F(EntryPoint, NoSwitchStartsAppsWithoutATimeBound)
{
    EXPECT_EQ(Run(L""), 0u);
    const auto lines = Log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().function, "wWinMain");
    EXPECT_EQ(lines.front().message, "cmd line=");
    EXPECT_TRUE(RanMode("START APPS"));
    EXPECT_EQ(CountMessages(lines, "time=0"), 1u);
    EXPECT_EQ(CountMessages(lines, "\\Quillmark\\Dawnstep\\Storage.json", true), 1u);
}

TEST_F(EntryPoint, ModesArePickedByPriorityNotByOrder)
{
    struct Case {
        std::wstring arguments;
        const char* mode;
    };
    const Case cases[] = {
        {L"/checkcrtuser /restore", "RESTORE"},
        {L"/restore /checkcrtuser", "RESTORE"},
        {PrivateStore() + L" /checkcrtuser", "CHECK CRT USER"},
        {PrivateStore(), "CHECK USER"},
        {L"/checkuser:", "CHECK USER"},
        {L"/RESTORE /time:99999999999999999999", "START APPS"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.arguments));
        DeleteFileW(m_log.c_str());
        EXPECT_EQ(Run(c.arguments), 0u);
        for (const char* mode : {"RESTORE", "CHECK CRT USER", "CHECK USER", "START APPS"}) {
            EXPECT_EQ(RanMode(mode), std::string(mode) == c.mode) << mode;
        }
        EXPECT_EQ(CountMessages(Log(), "time=", true), std::string(c.mode) == "START APPS" ? 1u : 0u);
    }
}

TEST_F(EntryPoint, BadFoldersAndHugeArgumentsStillExitZero)
{
    const std::wstring cases[] = {
        L"/checkuser:relative\\folder",
        L"/checkuser:Z:\\no\\such\\drive",
        L"\"/checkuser:" + (m_dir / L"blocker") + L"\\sub\"",  // a file stands in the way
        L"/checkuser:C:\\" + std::wstring(400, L'x'),
        L"/unknown " + std::wstring(32000 - 200, L'a'),
    };
    WriteFileBytes(m_dir / L"blocker", "x");
    for (const auto& arguments : cases) {
        SCOPED_TRACE(Utf8(arguments.substr(0, 80)));
        DeleteFileW(m_log.c_str());
        EXPECT_EQ(Run(arguments), 0u);
        EXPECT_EQ(CountMessages(Log(), "-> [CHECK USER]") + CountMessages(Log(), "-> [START APPS]"), 1u);
    }
    EXPECT_TRUE(FileExists(m_dir / L"relative\\folder\\Quillmark\\Dawnstep"))
        << "a relative folder is taken from the current folder";
}

TEST_F(EntryPoint, RunsWithoutTheLoggingLibrary)
{
    const std::wstring lonely = m_dir / L"Morrowgate.exe";
    ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"Morrowgate.exe").c_str(), lonely.c_str(), FALSE));
    EXPECT_EQ(Run(L"", lonely), 0u);
    EXPECT_EQ(Run(PrivateStore() + L" /restore", lonely), 0u);
    EXPECT_FALSE(FileExists(m_log));
}

} // namespace
