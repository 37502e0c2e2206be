// The logging facade as the logging library sees it: when the library is loaded, initialised
// and torn down, and the arguments of each line. Then one smoke test of the development build
// of the library, whose log the end-to-end tests read.
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"
#include "tests/support/SupportFolder.h"

#include <cstdlib>

using namespace testing_support;

namespace {

// The record with the time in each exit line's last bracket, checked to cover the probe's
// 100 ms sleep in the scope, replaced by "ms".
Lines WithoutTimes(Lines record)
{
    for (std::string& line : record) {
        const size_t bracket = line.rfind(" [");
        if (line.find(": <- ") != std::string::npos && bracket != std::string::npos) {
            const int elapsed = std::atoi(line.c_str() + bracket + 2);
            EXPECT_TRUE(elapsed >= 100 && elapsed < 10000) << line;
            line.replace(bracket, std::string::npos, " [ms]");
        }
    }
    return record;
}

using LogFacade = SupportFolder;

TEST_F(LogFacade, LibraryIsLoadedWhileHeldAndGetsEveryLineOfTheProgram)
{
    const std::string name(258, 'n'), function(260, 'n');  // a qualified name of 300 characters, cut
    const Lines held = {
        "LogWrite 1 32 program " + function + ": -> " + name + "()",
        "LogWrite 1 32 program Probe::Function: -> [inner]",
        "LogWrite 0 16 program Probe::Function: info 1",
        "LogWrite 0 8 program Probe::Function: error two",
        "LogWrite -1 32 program Probe::Function: <- [inner] [ms]",
        "LogWrite -1 32 program " + function + ": <- " + name + "() [ms]"};
    const Lines teardown = {"LogDeinit", "LogUninitDeskMetrics", "LogRemoveModule logging::CLogDLL::~CLogDLL",
                            "unload qmtrace.dll"};
    // Without a hold a plain message is dropped, and each direct write loads the library anew.
    const auto unheld = [&](const char* text) {
        return Lines{"load qmtrace.dll", "LogInit", std::string("LogWrite 0 16 program Probe::Unheld: ") + text} + teardown;
    };
    const struct {
        const wchar_t* library;  // placed as qmtrace.dll; nullptr: none
        const wchar_t* scenario;
        Lines record;
    } cases[] = {
        {L"suite_double.dll", L"held", Lines{"load qmtrace.dll", "LogInit"} + held + teardown},
        {L"suite_double.dll", L"unheld", unheld("one") + unheld("two")},
        {L"suite_double_write_only.dll", L"held", Lines{"load qmtrace.dll"} + held + Lines{"unload qmtrace.dll"}},
        {nullptr, L"held", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(std::wstring(c.library ? c.library : L"(none)") + L" " + c.scenario));
        Place(c.library, L"qmtrace.dll");
        EXPECT_EQ(Probe(c.scenario), 0u);
        EXPECT_EQ(WithoutTimes(Record()), c.record);
    }
}

TEST(DevelopmentLog, LinesShowClassDepthFunctionAndText)
{
    LogCapture capture;
    {
        logging::ScopeTrace trace(L"Smoke::Run");
        QM_LOG_ERROR(L"Smoke::Run", L"wide=%s narrow=%S", L"caf\u00e9", "plain");
    }
    Lines lines;
    for (const LogLine& line : capture.Lines()) {
        lines.push_back(line.level + " " + std::to_string(line.depth) + " " + line.function + ": " + line.message);
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "trace 0 Smoke::Run: -> Smoke::Run()");
    EXPECT_EQ(lines[1], "error 1 Smoke::Run: wide=caf\xC3\xA9 narrow=plain");
    EXPECT_EQ(lines[2].rfind("trace 0 Smoke::Run: <- Smoke::Run() [", 0), 0u) << lines[2];
}

} // namespace
