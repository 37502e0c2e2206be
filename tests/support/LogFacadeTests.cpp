// The facade's life cycle, seen from a recording stand-in for qmtrace.dll placed beside a
// probe program in a folder of the test's own.
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace testing_support;

namespace {

class LogFacade : public ::testing::Test {
protected:
    // Copies the probe into the scratch folder, with the given double as qmtrace.dll.
    void Prepare(const wchar_t* libraryDouble)
    {
        ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"logprobe.exe").c_str(),
                              (m_dir / L"logprobe.exe").c_str(), FALSE));
        if (libraryDouble != nullptr) {
            ASSERT_TRUE(CopyFileW(JoinPath(DoublesFolder(), libraryDouble).c_str(),
                                  (m_dir / L"qmtrace.dll").c_str(), FALSE));
        }
    }

    DWORD Run(const wchar_t* scenario)
    {
        ChildOptions options;
        options.environment = {L"QMTRACE_RECORD=" + (m_dir / L"record.txt")};
        auto exitCode = RunChild(L"\"" + (m_dir / L"logprobe.exe") + L"\" " + scenario, options);
        EXPECT_TRUE(exitCode.has_value());
        return exitCode.value_or(0xFFFFFFFF);
    }

    std::vector<std::string> Record()
    {
        std::vector<std::string> lines;
        std::istringstream in(ReadFileBytes(m_dir / L"record.txt").value_or(""));
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    TempDir m_dir;
};

const std::string kTeardown[] = {"LogDeinit", "LogUninitDeskMetrics",
                                 "LogRemoveModule logging::CLogDLL::~CLogDLL", "detach"};

TEST_F(LogFacade, HeldRunLoadsOnceAndTearsDownInOrder)
{
    Prepare(L"qmtrace_recorder.dll");
    EXPECT_EQ(Run(L"held"), 0u);
    const std::vector<std::string> expected = {
        "attach",
        "LogInit",
        "LogWrite depth=0 class=16 module=program function=Probe::Held text=first 1",
        "LogWrite depth=0 class=8 module=program function=Probe::Held text=second two",
        kTeardown[0], kTeardown[1], kTeardown[2], kTeardown[3]};
    EXPECT_EQ(Record(), expected);
}

TEST_F(LogFacade, WriteWithoutAHoldLoadsWritesAndUnloadsEachTime)
{
    Prepare(L"qmtrace_recorder.dll");
    EXPECT_EQ(Run(L"unheld"), 0u);
    std::vector<std::string> expected;
    for (const char* text : {"one", "two"}) {
        expected.push_back("attach");
        expected.push_back("LogInit");
        expected.push_back(std::string("LogWrite depth=0 class=16 module=program function=Probe::Unheld text=") + text);
        expected.insert(expected.end(), std::begin(kTeardown), std::end(kTeardown));
    }
    EXPECT_EQ(Record(), expected);
}

TEST_F(LogFacade, ThousandsOfLoadsAndUnloadsLeaveTheLibraryWorking)
{
    ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"logprobe.exe").c_str(), (m_dir / L"logprobe.exe").c_str(), FALSE));
    ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), L"qmtrace.dll").c_str(), (m_dir / L"qmtrace.dll").c_str(), FALSE));
    ChildOptions options;
    options.environment = {L"QMTRACE_LOG=" + (m_dir / L"many.log")};
    EXPECT_EQ(RunChild(L"\"" + (m_dir / L"logprobe.exe") + L"\" unheld-many", options), std::optional<DWORD>(0));
    EXPECT_EQ(CountMessages(ReadLog(m_dir / L"many.log"), "-> Probe::Many()"), 1500u);
}

TEST_F(LogFacade, MessagesAreDroppedWhileNobodyHoldsLogging)
{
    Prepare(L"qmtrace_recorder.dll");
    EXPECT_EQ(Run(L"inactive"), 0u);
    EXPECT_TRUE(Record().empty()) << "the library must not even be loaded";
}

TEST_F(LogFacade, ScopeTracesWriteEntryAndExitWithDepthChanges)
{
    Prepare(L"qmtrace_recorder.dll");
    EXPECT_EQ(Run(L"nested"), 0u);
    auto lines = Record();
    ASSERT_EQ(lines.size(), 2u + 5u + 4u);
    EXPECT_EQ(lines[2], "LogWrite depth=1 class=32 module=program function=Probe::Outer text=-> Probe::Outer()");
    EXPECT_EQ(lines[3], "LogWrite depth=1 class=32 module=program function=Probe::Function text=-> [inner]");
    EXPECT_EQ(lines[4], "LogWrite depth=0 class=16 module=program function=Probe::Function text=inside");
    EXPECT_EQ(lines[5].rfind("LogWrite depth=-1 class=32 module=program function=Probe::Function text=<- [inner] [", 0), 0u)
        << lines[5];
    EXPECT_EQ(lines[6].rfind("LogWrite depth=-1 class=32 module=program function=Probe::Outer text=<- Probe::Outer() [", 0), 0u)
        << lines[6];
    EXPECT_EQ(lines[7], kTeardown[0]);
}

TEST_F(LogFacade, LibraryWithOnlyLogWriteIsUsedAndOnlyUnloaded)
{
    Prepare(L"qmtrace_writeonly.dll");
    EXPECT_EQ(Run(L"held"), 0u);
    const std::vector<std::string> expected = {
        "attach",
        "LogWrite depth=0 class=16 module=program function=Probe::Held text=first 1",
        "LogWrite depth=0 class=8 module=program function=Probe::Held text=second two",
        "detach"};
    EXPECT_EQ(Record(), expected);
    EXPECT_EQ(Run(L"stub"), 0u) << "a real LogWrite answers for itself";
}

TEST_F(LogFacade, WithoutALibraryWritesGoToTheStub)
{
    Prepare(nullptr);
    EXPECT_EQ(Run(L"held"), 0u);
    EXPECT_EQ(Run(L"nested"), 0u);
    EXPECT_EQ(Run(L"stub"), 0x80004002u);
    EXPECT_FALSE(FileExists(m_dir / L"record.txt"));
}

} // namespace
