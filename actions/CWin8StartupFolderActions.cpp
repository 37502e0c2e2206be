#include "actions/CWin8StartupFolderActions.h"

#include "actions/SwitchedItemLoops.h"
#include "actions/Win8StartupItem.h"
#include "support/ScopeTrace.h"

namespace actions {

namespace {

DWORD ApproveOff(const storage::StartupItem& item)
{
    return Win8StartupItem::Disable(item, FolderShortcut);
}

DWORD ApproveOn(const storage::StartupItem& item)
{
    return Win8StartupItem::Enable(item, FolderShortcut);
}

const ItemSwitch kApproval = {&ApproveOff, &ApproveOn, L"Win8StartupItem::Enable"};

} // namespace

int CWin8StartupFolderActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8StartupFolderActions::Disable");
    return SwitchOffItems(trace.FunctionName(), L"Disable", storage::kStartupDisabledSection,
                          kApproval, items, save);
}

int CWin8StartupFolderActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8StartupFolderActions::Delay");
    return SwitchOffItems(trace.FunctionName(), L"Delay", storage::kStartupDelayedSection,
                          kApproval, items, save);
}

int CWin8StartupFolderActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8StartupFolderActions::Enable");
    return SwitchOnItems(trace.FunctionName(), storage::kStartupDisabledSection,
                         storage::kStartupDelayedSection, kApproval, items, save);
}

int CWin8StartupFolderActions::Check(const storage::StartupItem& item)
{
    if (GetFileAttributesW(JoinFolderAndName(item.Path, item.Name).c_str()) == INVALID_FILE_ATTRIBUTES) {
        return kActionFailed;
    }
    return CheckCommandTarget(item.Cmd);
}

} // namespace actions
