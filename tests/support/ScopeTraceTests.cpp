// Scope traces and message lines as the development logging library writes them.
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace testing_support;

namespace {

int ElapsedOf(const LogLine& exitLine)
{
    const size_t open = exitLine.message.rfind('[');
    return std::atoi(exitLine.message.c_str() + open + 1);
}

TEST(ScopeTrace, EntryAndExitLinesFollowTheDepth)
{
    LogCapture capture;
    {
        logging::ScopeTrace outer(L"CStartupItemsStorage::LoadStartupItems");
        logging::ScopeTrace inner(L"START APPS", L"wWinMain");
        QM_LOG_INFO(L"wWinMain", L"inside");
    }
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].level, "trace");
    EXPECT_EQ(lines[0].depth, 0);
    EXPECT_EQ(lines[0].function, "CStartupItemsStorage::LoadStartupItems");
    EXPECT_EQ(lines[0].message, "-> CStartupItemsStorage::LoadStartupItems()");
    EXPECT_EQ(lines[1].depth, 1);
    EXPECT_EQ(lines[1].function, "wWinMain");
    EXPECT_EQ(lines[1].message, "-> [START APPS]");
    EXPECT_EQ(lines[2].level, "info");
    EXPECT_EQ(lines[2].depth, 2);
    EXPECT_EQ(lines[3].depth, 1);
    EXPECT_EQ(lines[3].message.rfind("<- [START APPS] [", 0), 0u);
    EXPECT_EQ(lines[4].level, "trace");
    EXPECT_EQ(lines[4].depth, 0);
    EXPECT_EQ(lines[4].message.rfind("<- CStartupItemsStorage::LoadStartupItems() [", 0), 0u);
}

TEST(ScopeTrace, ExitLineCarriesTheElapsedMilliseconds)
{
    LogCapture capture;
    {
        logging::ScopeTrace trace(L"Slow::Operation");
        Sleep(1500);
    }
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    const int elapsed = ElapsedOf(lines[1]);
    EXPECT_GE(elapsed, 1500);
    EXPECT_LT(elapsed, 5000) << "the bracket holds milliseconds, not a result code";
}

TEST(ScopeTrace, LongQualifiedNameIsCutTo258BeforeTheParentheses)
{
    const std::wstring name(300, L'n');
    logging::ScopeTrace trace(name.c_str());
    EXPECT_EQ(std::wstring(trace.DisplayName()), std::wstring(258, L'n') + L"()");
    EXPECT_EQ(std::wstring(trace.FunctionName()), std::wstring(260, L'n'));
}

int g_evaluations = 0;
const wchar_t* Counted()
{
    ++g_evaluations;
    return L"x";
}

TEST(MessageLines, ArgumentsAreNotEvaluatedWhileInactive)
{
    ASSERT_FALSE(logging::IsActive());
    g_evaluations = 0;
    QM_LOG_INFO(L"Test", L"%s", Counted());
    EXPECT_EQ(g_evaluations, 0);
    LogCapture capture;
    QM_LOG_INFO(L"Test", L"%s", Counted());
    EXPECT_EQ(g_evaluations, 1);
}

TEST(MessageLines, WideAndNarrowStringsUseTheMicrosoftConventions)
{
    LogCapture capture;
    QM_LOG_ERROR(L"Fmt::Test", L"wide=%s narrow=%S n=%d hex=%x big=%lld", L"caf\u00e9 \u65e5", "plain",
                 -3, 255u, -1099511627776LL);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, "error");
    EXPECT_EQ(lines[0].function, "Fmt::Test");
    EXPECT_EQ(lines[0].message, "wide=caf\xC3\xA9 \xE6\x97\xA5 narrow=plain n=-3 hex=ff big=-1099511627776");
}

TEST(MessageLines, ConcurrentWritersNeverShareALine)
{
    LogCapture capture;
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    auto worker = [](void* parameter) -> DWORD {
        const int id = static_cast<int>(reinterpret_cast<intptr_t>(parameter));
        for (int i = 0; i < kLines; ++i) {
            QM_LOG_INFO(L"Thread", L"writer %d line %d %s", id, i, std::wstring(100, L'a' + id).c_str());
        }
        return 0;
    };
    HANDLE threads[kThreads];
    for (int t = 0; t < kThreads; ++t) {
        threads[t] = CreateThread(nullptr, 0, worker, reinterpret_cast<void*>(static_cast<intptr_t>(t)), 0, nullptr);
        ASSERT_NE(threads[t], nullptr);
    }
    ASSERT_EQ(WaitForMultipleObjects(kThreads, threads, TRUE, 60000), WAIT_OBJECT_0);
    for (HANDLE thread : threads) {
        CloseHandle(thread);
    }
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& line : lines) {
        int id = -1, index = -1;
        char tail[128] = {};
        ASSERT_EQ(std::sscanf(line.message.c_str(), "writer %d line %d %127s", &id, &index, tail), 3)
            << line.message;
        EXPECT_EQ(std::string(tail), std::string(100, static_cast<char>('a' + id)));
    }
}

} // namespace
