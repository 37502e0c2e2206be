#include "actions/MicrosoftStoreAppsActions.h"

#include "actions/CommandTarget.h"
#include "actions/MicrosoftStoreStartupItem.h"
#include "actions/SwitchedItemLoops.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <string>

namespace actions {

namespace {

const ItemSwitch kTaskState = {&MicrosoftStoreStartupItem::Disable, &MicrosoftStoreStartupItem::Enable,
                               L"MicrosoftStoreStartupItem::Enable"};

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

} // namespace

int MicrosoftStoreAppsActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"MicrosoftStoreAppsActions::Disable");
    return SwitchOffItems(trace.FunctionName(), L"Disable", storage::kStartupDisabledSection, kTaskState,
                          items, save);
}

int MicrosoftStoreAppsActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"MicrosoftStoreAppsActions::Delay");
    return SwitchOffItems(trace.FunctionName(), L"Delay", storage::kStartupDelayedSection, kTaskState,
                          items, save);
}

int MicrosoftStoreAppsActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"MicrosoftStoreAppsActions::Enable");
    return SwitchOnItems(trace.FunctionName(), storage::kStartupDisabledSection, storage::kStartupDelayedSection,
                         kTaskState, items, save);
}

int MicrosoftStoreAppsActions::Check(const storage::StartupItem& item)
{
    logging::ScopeTrace trace(L"MicrosoftStoreAppsActions::Check");
    const wchar_t* function = trace.FunctionName();
    std::wstring path = JoinFolderAndName(item.Path, item.Name);
    bool exists = Exists(path);
    QM_LOG_INFO(function, L"file %s exists: %d", path.c_str(), exists ? 1 : 0);
    if (!exists) {
        return kActionFailed;
    }
    if (!ResolveCommandTarget(item.Cmd.c_str(), path)) {
        return kActionFailed;
    }
    exists = Exists(path);
    QM_LOG_INFO(function, L"file %s exists: %d", path.c_str(), exists ? 1 : 0);
    return exists ? kActionSucceeded : kActionFailed;
}

} // namespace actions
