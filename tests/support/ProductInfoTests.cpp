// Product information access: the connection's life cycle as the qmsvccfg.dll double sees it,
// from the probe and from Morrowgate.exe placed beside the double.
#include "support/ProductInfo.h"
#include "tests/support/SuiteFixture.h"

using namespace testing_support;
using namespace support_tests;

namespace {

using ProductInfo = SuiteFolder;

TEST_F(ProductInfo, EachFailedStepIsReturnedAndLeavesNothingLoadedAndTheLauncherGoesOn)
{
    const auto upTo = [](long calls) { return Lines(kOpenedCalls.begin(), kOpenedCalls.begin() + calls); };
    struct Case {
        const wchar_t* library;  // nullptr: no library at all
        const wchar_t* failure;  // QMSVCCFG_FAIL
        DWORD result;
        Lines calls;
    };
    const Case cases[] = {
        {nullptr, L"", ERROR_MOD_NOT_FOUND, {}},
        {L"qmsvccfg_nocreate.dll", L"", ERROR_PROC_NOT_FOUND, {"qmsvccfg load", "qmsvccfg unload"}},
        {L"qmsvccfg_nodestroy.dll", L"", ERROR_PROC_NOT_FOUND, {"qmsvccfg load", "qmsvccfg unload"}},
        {L"qmsvccfg.dll", L"create", 0x80040154, Concat({upTo(2), {"qmsvccfg unload"}})},
        {L"qmsvccfg.dll", L"interface", 632,
         Concat({upTo(3), {"qmsvccfg QmDestroyObject productinfo", "qmsvccfg unload"}})},
        {L"qmsvccfg.dll", L"init", 5, Concat({upTo(4), kClosedCalls})},
        {L"qmsvccfg.dll", L"start", 21, Concat({kOpenedCalls, kClosedCalls})},
        {L"qmsvccfg.dll", L"", 0, kOpenedCalls},
    };
    const auto environment = m_environment;
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(std::wstring(c.library ? c.library : L"(none)") + L" " + c.failure));
        DeleteFileW((m_dir / L"qmsvccfg.dll").c_str());
        if (c.library != nullptr) {
            PlaceDouble(c.library, L"qmsvccfg.dll");
        }
        m_environment = environment;
        m_environment.push_back(std::wstring(L"QMSVCCFG_FAIL=") + c.failure);
        ClearRecord();
        EXPECT_EQ(RunProbe(L"open"), c.result);
        // An open connection is closed by the probe after it has recorded the result.
        EXPECT_EQ(Record(), Concat({c.calls, {"probe opened " + std::to_string(c.result)},
                                    c.result == 0 ? kClosedCalls : Lines{}}));

        // Morrowgate.exe: the crash handler's two attempts come before logging is taken, and the
        // mode runs all the same.
        ClearRecord();
        EXPECT_EQ(RunLauncher(), 0u);
        const Lines launched = c.result == 0 ? Concat({kProductQueries, {"qmcrash load", kCrashHandlerEnabled}})
                                             : Concat({c.calls, c.calls});
        const Lines record = Record();
        ASSERT_GT(record.size(), launched.size());
        EXPECT_EQ(Lines(record.begin(), record.begin() + static_cast<long>(launched.size()) + 1),
                  Concat({launched, {"attach"}}));
        EXPECT_EQ(Count("text=-> [CHECK USER]"), 1u);
        EXPECT_EQ(Count("qmsvccfg load"), Count("qmsvccfg unload")) << "nothing left loaded";
        EXPECT_EQ(record.back(), "detach") << "logging is released last";
    }
}

TEST_F(ProductInfo, CallbackRunsOnAConnectionOfItsOwnThatIsClosedAfterIt)
{
    const Lines called = Concat({kOpenedCalls, {"probe call-back", "qmsvccfg GetString 202 Desktop"}});
    const struct {
        const wchar_t* scenario;
        size_t answer;  // characters of the answer to item 202; 0: no answer
        DWORD exitCode;
        Lines record;
    } cases[] = {
        {L"with 202", 0, 1, Concat({called, kClosedCalls, {"probe buffer untouched"}})},
        {L"with 202", 259, 1, Concat({called, kClosedCalls, {"probe buffer " + std::string(259, 'k')}})},
        // An answer that does not fit ends the process inside the copy, as an invalid parameter.
        {L"with 202", 260, 0xC0000417, called},
        {L"with 202", 300, 0xC0000417, called},
        {L"throwing", 0, 4,
         Concat({kOpenedCalls, {"probe call-back"}, kClosedCalls, {"probe caught runtime_error"}})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(c.scenario) + " answer " + std::to_string(c.answer));
        m_environment.clear();
        if (c.answer > 0) {
            m_environment.push_back(L"QMSVCCFG_ITEM_202=" + std::wstring(c.answer, L'k'));
        }
        ClearRecord();
        EXPECT_EQ(RunProbe(c.scenario), c.exitCode);
        EXPECT_EQ(Record(), c.record);
    }
}

} // namespace
