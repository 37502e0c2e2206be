#include "actions/CWin8RunKeyAppsActions.h"

#include "actions/HiveNames.h"
#include "actions/SwitchedItemLoops.h"
#include "actions/Win8StartupItem.h"
#include "support/Handles.h"
#include "support/ScopeTrace.h"

namespace actions {

namespace {

DWORD ApproveOff(const storage::StartupItem& item)
{
    return Win8StartupItem::Disable(item, RunValue);
}

DWORD ApproveOn(const storage::StartupItem& item)
{
    return Win8StartupItem::Enable(item, RunValue);
}

const ItemSwitch kApproval = {&ApproveOff, &ApproveOn, L"Win8StartupItem::Enable"};

} // namespace

int CWin8RunKeyAppsActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8RunKeyAppsActions::Disable");
    return SwitchOffItems(trace.FunctionName(), L"Disable", storage::kDisabledSection, kApproval,
                          items, save);
}

int CWin8RunKeyAppsActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8RunKeyAppsActions::Delay");
    return SwitchOffItems(trace.FunctionName(), L"Delay", storage::kDelayedSection, kApproval,
                          items, save);
}

int CWin8RunKeyAppsActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CWin8RunKeyAppsActions::Enable");
    return SwitchOnItems(trace.FunctionName(), storage::kDisabledSection, storage::kDelayedSection,
                         kApproval, items, save);
}

int CWin8RunKeyAppsActions::Check(const storage::StartupItem& item)
{
    HKEY root = nullptr;
    std::wstring keyPath;
    if (!SplitRegistryPath(item.Path, root, keyPath)) {
        return kActionFailed;
    }
    // A registry status is the result as it is: the Run value must still be there.
    support::UniqueHKey key;
    if (const LSTATUS status = support::OpenKey(root, keyPath.c_str(), KEY_QUERY_VALUE, key); status != ERROR_SUCCESS) {
        return status;
    }
    if (const LSTATUS status = RegQueryValueExW(key.get(), item.Name.c_str(), nullptr, nullptr, nullptr, nullptr);
        status != ERROR_SUCCESS) {
        return status;
    }
    return CheckCommandTarget(item.Cmd);
}

} // namespace actions
