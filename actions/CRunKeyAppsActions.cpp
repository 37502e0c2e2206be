#include "actions/CRunKeyAppsActions.h"

#include "actions/HiveNames.h"
#include "actions/SwitchedItemLoops.h"
#include "storage/StartupItemsStorage.h"
#include "support/Handles.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <cwchar>
#include <string>

namespace actions {

namespace {

// Disable and Delay differ only in their texts and section: the value goes, and comes back
// when the store will not record it, so that no entry is lost without a saved record.
int RemoveItems(const wchar_t* function, const wchar_t* verb, const char* section,
                storage::SharedStartupItemList& items, bool save)
{
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, verb, item->Path.c_str(), item->Name.c_str());
        bool succeeded = !HasEmptyField(*item) && CRunKeyAppsActions::RemoveFromRegistry(*item) == ERROR_SUCCESS;
        if (succeeded && save &&
            storage::CStartupItemsStorage::Instance().SaveStartupItems(*item, section) != ERROR_SUCCESS) {
            CRunKeyAppsActions::RollbackToRegistry(*item);
            succeeded = false;
        }
        if (!succeeded) {
            QM_LOG_ERROR(function, L"FAILED %s", item->Path.c_str());
            result = kActionFailed;
        }
    }
    return result;
}

} // namespace

int CRunKeyAppsActions::RemoveFromRegistry(const storage::StartupItem& item)
{
    HKEY root = nullptr;
    std::wstring keyPath;
    if (!SplitRegistryPath(item.Path, root, keyPath)) {
        return kActionFailed;
    }
    return static_cast<int>(DeleteRegistryValue(root, keyPath.c_str(), item.Name.c_str()));
}

int CRunKeyAppsActions::RollbackToRegistry(const storage::StartupItem& item)
{
    HKEY root = nullptr;
    std::wstring keyPath;
    if (!SplitRegistryPath(item.Path, root, keyPath)) {
        return kActionFailed;
    }
    return static_cast<int>(WriteRegistryValue(root, keyPath.c_str(), item.Name.c_str(), item.Cmd.c_str()));
}

LSTATUS CRunKeyAppsActions::DeleteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name)
{
    if (keyPath == nullptr || name == nullptr) {
        return ERROR_SUCCESS;
    }
    HKEY opened = nullptr;
    // The process's own view: the program is 64-bit, so this is the 64-bit Run key.
    const LSTATUS openStatus = RegOpenKeyExW(root, keyPath, 0, KEY_WRITE, &opened);
    if (openStatus != ERROR_SUCCESS) {
        return openStatus;
    }
    support::UniqueHKey key(opened);
    return RegDeleteValueW(key.get(), name);
}

LSTATUS CRunKeyAppsActions::WriteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name,
                                               const wchar_t* data)
{
    if (keyPath == nullptr || name == nullptr || data == nullptr) {
        return ERROR_SUCCESS;
    }
    HKEY opened = nullptr;
    // RegOpenKeyW, not RegCreateKeyW: a Run key that has gone meanwhile stays gone.
    const LSTATUS openStatus = RegOpenKeyW(root, keyPath, &opened);
    if (openStatus != ERROR_SUCCESS) {
        return openStatus;
    }
    support::UniqueHKey key(opened);
    // Always REG_SZ, whatever type the value had before it was removed.
    const DWORD bytes = static_cast<DWORD>((wcslen(data) + 1) * sizeof(wchar_t));
    return RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(data), bytes);
}

int CRunKeyAppsActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Disable");
    return RemoveItems(trace.FunctionName(), L"Disable %s %s", storage::kDisabledSection, items, save);
}

int CRunKeyAppsActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Delay");
    return RemoveItems(trace.FunctionName(), L"Delay %s %s", storage::kDelayedSection, items, save);
}

int CRunKeyAppsActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Enable");
    const wchar_t* function = trace.FunctionName();
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, L"Enable %s %s", item->Path.c_str(), item->Name.c_str());
        if (HasEmptyField(*item)) {
            continue;  // nothing to write back; not a failure
        }
        if (RollbackToRegistry(*item) != ERROR_SUCCESS) {
            QM_LOG_ERROR(function, L"RollbackToRegistry FAILED %s", item->Path.c_str());
            result = kActionFailed;
        }
    }
    if (save) {
        // The whole list, failed items included: an entry that cannot come back is not kept.
        auto& store = storage::CStartupItemsStorage::Instance();
        store.RemoveStartupItems(items, storage::kDisabledSection);
        store.RemoveStartupItems(items, storage::kDelayedSection);
    }
    return result;
}

int CRunKeyAppsActions::Check(const storage::StartupItem& item)
{
    return CheckCommandTarget(item.Cmd);
}

} // namespace actions
