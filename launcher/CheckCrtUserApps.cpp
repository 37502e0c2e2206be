#include "launcher/Modes.h"

#include "actions/StartupAppsActionExec.h"
#include "support/ScopeTrace.h"

namespace launcher {

bool CheckCrtUserApps()
{
    logging::ScopeTrace trace(L"CheckCrtUserApps");
    actions::StartupAppsActionExec exec;
    // Which user's items these are is decided only by the store file the entry point opened.
    WalkSavedSections(trace.FunctionName(), [&exec](const SavedSection& step, storage::SharedStartupItemList& items) {
        exec.Execute(step.reapplyAction, step.kind, items, false);
    });
    return true;
}

} // namespace launcher
