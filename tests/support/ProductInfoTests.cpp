// Product information access: the connection's life cycle as the qmsvccfg.dll double sees it,
// from a probe program placed beside the double in a folder of the test's own.
#include "support/ProductInfo.h"
#include "tests/support/SuiteFixture.h"

using namespace testing_support;
using namespace support_tests;

namespace {

TEST(ProductInfoInProcess, WithoutTheLibraryTheCallbackNeverRuns)
{
    ASSERT_FALSE(FileExists(JoinPath(ProgramFolder(), L"qmsvccfg.dll")))
        << "the test programs' folder must not hold the library";
    EXPECT_EQ(support::OpenProductInfoConnection(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    bool called = false;
    EXPECT_FALSE(support::WithProductInfo([&called](support::IProductInfoUI*) { called = true; }));
    EXPECT_FALSE(called);
    // Nothing to call, so an empty call-back is simply dropped.
    EXPECT_FALSE(support::WithProductInfo(nullptr));
}

class ProductInfo : public SuiteFolder {
protected:
    void SetUp() override { PlaceProgram(L"supportprobe.exe"); }
};

TEST_F(ProductInfo, EachFailedStepIsReturnedAndLeavesNothingLoaded)
{
    const auto opened = OpenedCalls();
    const std::vector<std::string> loadCreate(opened.begin(), opened.begin() + 2);
    const std::vector<std::string> toInterface(opened.begin(), opened.begin() + 3);
    const std::vector<std::string> toInit(opened.begin(), opened.begin() + 4);
    struct Case {
        const wchar_t* library;  // nullptr: no library at all
        const wchar_t* failure;  // QMSVCCFG_FAIL
        DWORD result;
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {nullptr, L"", ERROR_MOD_NOT_FOUND, {}},
        {L"qmsvccfg_nocreate.dll", L"", ERROR_PROC_NOT_FOUND, {"qmsvccfg load", "qmsvccfg unload"}},
        {L"qmsvccfg_nodestroy.dll", L"", ERROR_PROC_NOT_FOUND, {"qmsvccfg load", "qmsvccfg unload"}},
        {L"qmsvccfg.dll", L"create", 0x80040154, Concat({loadCreate, {"qmsvccfg unload"}})},
        {L"qmsvccfg.dll", L"interface", 632,
         Concat({toInterface, {"qmsvccfg QmDestroyObject productinfo", "qmsvccfg unload"}})},
        {L"qmsvccfg.dll", L"init", 5, Concat({toInit, ClosedCalls()})},
        {L"qmsvccfg.dll", L"start", 21, Concat({OpenedCalls(), ClosedCalls()})},
        {L"qmsvccfg.dll", L"", 0, OpenedCalls()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Utf8(std::wstring(c.library ? c.library : L"(none)") + L" " + c.failure));
        DeleteFileW((m_dir / L"qmsvccfg.dll").c_str());
        ClearRecord();
        if (c.library != nullptr) {
            PlaceDouble(c.library, L"qmsvccfg.dll");
        }
        m_environment = {std::wstring(L"QMSVCCFG_FAIL=") + c.failure};
        EXPECT_EQ(RunProbe(L"open"), c.result);
        // An open connection is closed by the probe after it has recorded the result.
        const auto closing = c.result == 0 ? ClosedCalls() : std::vector<std::string>{};
        EXPECT_EQ(Record(), Concat({c.calls, {"probe opened " + std::to_string(c.result)}, closing}));
    }
}

TEST_F(ProductInfo, CallbackGetsTheAnswerAndTheConnectionIsClosedAfterIt)
{
    PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
    m_environment = {L"QMSVCCFG_ITEM_400=C:\\Program Files\\Quillmark\\Settings"};
    EXPECT_EQ(RunProbe(L"with 400"), 1u);
    EXPECT_EQ(Record(), Concat({OpenedCalls(), {"probe call-back", "qmsvccfg GetString 400 Desktop"},
                                ClosedCalls(),
                                {"probe buffer C:\\Program Files\\Quillmark\\Settings"}}));
}

TEST_F(ProductInfo, NoAnswerLeavesTheBufferAsItWas)
{
    PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
    EXPECT_EQ(RunProbe(L"with 202"), 1u);
    const auto record = Record();
    ASSERT_FALSE(record.empty());
    EXPECT_EQ(record.back(), "probe buffer untouched");
}

TEST_F(ProductInfo, AnswerOf260CharactersOrMoreEndsTheProcess)
{
    PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
    for (const size_t length : {size_t{259}, size_t{260}, size_t{300}}) {
        SCOPED_TRACE(length);
        ClearRecord();
        const std::wstring answer(length, L'k');
        m_environment = {L"QMSVCCFG_ITEM_202=" + answer};
        const DWORD exitCode = RunProbe(L"with 202");
        const auto record = Record();
        if (length < 260) {
            EXPECT_EQ(exitCode, 1u);
            EXPECT_EQ(record.back(), "probe buffer " + std::string(length, 'k'));
        } else {
            EXPECT_EQ(exitCode, 0xC0000417u) << "invalid parameter";
            ASSERT_FALSE(record.empty());
            EXPECT_EQ(record.back(), "qmsvccfg GetString 202 Desktop") << "ended inside the copy";
        }
    }
}

TEST_F(ProductInfo, CallbackExceptionsLeaveAfterTheConnectionIsClosed)
{
    PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
    EXPECT_EQ(RunProbe(L"empty"), 3u) << "an empty call-back throws std::bad_function_call";
    EXPECT_EQ(Record(), Concat({OpenedCalls(), ClosedCalls(), {"probe caught bad_function_call"}}));

    ClearRecord();
    EXPECT_EQ(RunProbe(L"throwing"), 4u);
    EXPECT_EQ(Record(), Concat({OpenedCalls(), {"probe call-back"}, ClosedCalls(),
                                {"probe caught runtime_error"}}));
}

} // namespace
