#include "launcher/Modes.h"

#include "actions/StartupAppsActionExec.h"
#include "support/ScopeTrace.h"

namespace launcher {

bool RestoreApps()
{
    logging::ScopeTrace trace(L"RestoreApps");
    actions::StartupAppsActionExec exec;
    // Enable with save removes each list from the store, items that could not be put back included.
    WalkSavedSections(trace.FunctionName(), [&exec](const SavedSection& step, storage::SharedStartupItemList& items) {
        exec.Execute(actions::ActionEnable, step.kind, items, true);
    });
    return true;
}

} // namespace launcher
