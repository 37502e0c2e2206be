#include "launcher/Modes.h"

#include "actions/StartupAppsActionExec.h"
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <memory>

namespace launcher {

namespace {

// The four sections in the order they are walked: delayed before disabled, and in each pair
// registry items before Startup-folder items.
struct SectionStep {
    const char* section;
    int kind;
    const wchar_t* loadFailure;
    int reapplyAction;  // what the check puts back into force
};

const SectionStep kSteps[] = {
    {storage::kDelayedSection, actions::RunKey, L"FAILED load regkeys delayed", actions::ActionDelay},
    {storage::kStartupDelayedSection, actions::StartupFolder, L"FAILED load files delayed", actions::ActionDelay},
    {storage::kDisabledSection, actions::RunKey, L"FAILED load regkeys disabled", actions::ActionDisable},
    {storage::kStartupDisabledSection, actions::StartupFolder, L"FAILED load filess disabled",
     actions::ActionDisable},
};

// Hands every saved item of each section to its location object: restore enables them and
// removes them from the store; the check re-applies the saved state and leaves the store alone.
void WalkSavedItems(const wchar_t* function, bool restore)
{
    actions::StartupAppsActionExec exec;
    auto& store = storage::CStartupItemsStorage::Instance();
    for (const auto& step : kSteps) {
        storage::StartupItemList loaded;
        if (store.LoadStartupItems(step.section, loaded) != ERROR_SUCCESS) {
            QM_LOG_INFO(function, step.loadFailure);
            continue;
        }
        if (loaded.empty()) {
            continue;
        }
        storage::SharedStartupItemList items;
        for (const auto& item : loaded) {
            items.push_back(std::make_shared<storage::StartupItem>(item));
        }
        const int action = restore ? actions::ActionEnable : step.reapplyAction;
        exec.Execute(action, step.kind, items, restore);
    }
}

} // namespace

bool RestoreApps()
{
    logging::ScopeTrace trace(L"RestoreApps");
    WalkSavedItems(trace.FunctionName(), true);
    return true;
}

bool CheckCrtUserApps()
{
    logging::ScopeTrace trace(L"CheckCrtUserApps");
    WalkSavedItems(trace.FunctionName(), false);
    return true;
}

} // namespace launcher
