// The action objects the dispatcher holds under each Windows personality, and that Execute
// reaches them.
#include "actions/CRunKeyAppsActions.h"
#include "actions/CStartupFolderActions.h"
#include "actions/CWin8RunKeyAppsActions.h"
#include "actions/CWin8StartupFolderActions.h"
#include "actions/MicrosoftStoreAppsActions.h"
#include "actions/StartupAppsActionExec.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>

using namespace testing_support;
using namespace legacy_tests;

namespace {

TEST(LegacyDispatch, HoldsTheClassesOfThisWindowsVersionAndReachesThem)
{
    const bool windows8 = IsWindows8OrLater();
    const struct {
        int kind;
        const std::type_info* type;  // null: no object for this kind
        const char* enable;
    } expected[] = {
        {actions::RunKey, windows8 ? &typeid(actions::CWin8RunKeyAppsActions) : &typeid(actions::CRunKeyAppsActions),
         windows8 ? "CWin8RunKeyAppsActions::Enable" : "CRunKeyAppsActions::Enable"},
        {actions::StartupFolder,
         windows8 ? &typeid(actions::CWin8StartupFolderActions) : &typeid(actions::CStartupFolderActions),
         windows8 ? "CWin8StartupFolderActions::Enable" : "CStartupFolderActions::Enable"},
        {actions::StoreApp, windows8 ? &typeid(actions::MicrosoftStoreAppsActions) : nullptr,
         "MicrosoftStoreAppsActions::Enable"},
    };
    ScratchStore store;
    std::unique_ptr<actions::StartupAppsActionExec> exec;
    {
        LogCapture capture;  // one capture at a time: the log library keeps the first file
        exec = std::make_unique<actions::StartupAppsActionExec>();
        EXPECT_EQ(CountLines(capture.Lines(), "StartupAppsActionExec::StartupAppsActionExec",
                             windows8 ? "Windows8OrGreater" : "bellow Windows8"),
                  1u);
    }
    for (const auto& e : expected) {
        SCOPED_TRACE(e.kind);
        actions::IStartupAppsActions* object = (*exec)[e.kind];
        if (e.type == nullptr) {
            EXPECT_EQ(object, nullptr);
            continue;
        }
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(typeid(*object), *e.type);
        storage::SharedStartupItemList none;
        LogCapture enableCapture;
        EXPECT_EQ(exec->Execute(actions::ActionEnable, e.kind, none, false), 0);
        EXPECT_EQ(CountEntries(enableCapture.Lines(), e.enable), 1u);
    }
}

TEST(LegacyDispatch, BelowWindows8FolderItemsComeBackFromQmBkpFolder)
{
    if (IsWindows8OrLater()) {
        GTEST_SKIP() << "the shortcut stays in place on Windows 8 and later";
    }
    ScratchStore store;
    TempDir startup;
    CreateDirectoryW((startup / L"QmBkpFolder").c_str(), nullptr);
    WriteFileBytes(startup / L"QmBkpFolder\\App.lnk", "shortcut");
    storage::SharedStartupItemList items{MakeItem(L"App.lnk", startup.Path(), L"app.exe")};
    actions::StartupAppsActionExec exec;
    LogCapture capture;

    EXPECT_EQ(exec.Execute(actions::ActionEnable, actions::StartupFolder, items, false), 0);

    EXPECT_EQ(ReadFileBytes(startup / L"App.lnk"), "shortcut");
    const std::string message = "Enable " + Utf8(startup.Path()) + " App.lnk";
    EXPECT_EQ(CountLines(capture.Lines(), "CStartupFolderActions::Enable", message), 1u);
}

} // namespace
