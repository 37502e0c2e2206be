// What Enable does to the store in every legacy class, the action objects the dispatcher holds
// under each Windows personality, and that Execute reaches them.
#include "actions/CRunKeyAppsActions.h"
#include "actions/CStartupFolderActions.h"
#include "actions/MicrosoftStoreAppsActions.h"
#include "actions/StartupAppsActionExec.h"
#include "tests/actions/legacy/LegacyTestSupport.h"

#include <tuple>
#include <typeinfo>

using namespace legacy_tests;

namespace {

TEST(LegacyEnable, SaveRemovesTheWholeListFromBothSectionsFailedItemsIncluded)
{
    actions::CRunKeyAppsActions runKey;
    actions::CStartupFolderActions folder{L"QmBkpFolder"};
    actions::MicrosoftStoreAppsActions storeApps;
    using Case = std::tuple<actions::IStartupAppsActions*, const char*, const char*>;
    TempDir nowhere;  // no value, file or task lies below it, so every item fails
    const storage::SharedStartupItemList items{MakeItem(L"First", nowhere.Path(), L"first.exe"),
                                               MakeItem(L"Second", nowhere.Path(), L"second.exe")};
    for (const auto& [actions, disabled, delayed] :
         {Case{&runKey, storage::kDisabledSection, storage::kDelayedSection},
          Case{&folder, storage::kStartupDisabledSection, storage::kStartupDelayedSection},
          Case{&storeApps, storage::kStartupDisabledSection, storage::kStartupDelayedSection}}) {
        SCOPED_TRACE(typeid(*actions).name());
        ScratchStore store;
        auto& saved = storage::CStartupItemsStorage::Instance();
        ASSERT_EQ(saved.SaveStartupItems(*MakeItem(L"Bystander", nowhere.Path(), L"x.exe"), disabled), 0u);
        ASSERT_EQ(saved.SaveStartupItems(items, disabled) | saved.SaveStartupItems(items, delayed), 0u);
        auto list = items;

        EXPECT_EQ(actions->Enable(list, true), 31);

        EXPECT_EQ(store.Saved(disabled), WStrings{L"Bystander"});
        EXPECT_TRUE(store.Saved(delayed).empty());
    }
}

TEST(LegacyDispatch, HoldsTheClassesOfThisWindowsVersionAndReachesThem)
{
    // The class reached for each kind, by its Enable's entry line; empty: no object for the kind.
    const Strings classes = IsWindows8OrLater() ? Strings{"CWin8RunKeyAppsActions", "CWin8StartupFolderActions",
                                                          "MicrosoftStoreAppsActions"}
                                                : Strings{"CRunKeyAppsActions", "CStartupFolderActions", ""};
    actions::StartupAppsActionExec exec;
    for (const int kind : {actions::RunKey, actions::StartupFolder, actions::StoreApp}) {
        SCOPED_TRACE(kind);
        storage::SharedStartupItemList none;
        LogCapture capture;

        const int result = exec.Execute(actions::ActionEnable, kind, none, false);

        EXPECT_EQ(exec[kind] != nullptr, !classes[kind].empty());
        EXPECT_EQ(result, classes[kind].empty() ? 31 : 0);
        EXPECT_EQ(CountMessages(capture.Lines(), "-> " + classes[kind] + "::Enable()"),
                  classes[kind].empty() ? 0u : 1u);
    }
}

}  // namespace
