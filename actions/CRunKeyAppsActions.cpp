#include "actions/CRunKeyAppsActions.h"

#include "actions/HiveNames.h"
#include "actions/SwitchedItemLoops.h"
#include "support/Handles.h"
#include "support/ScopeTrace.h"

#include <cwchar>
#include <string>

namespace actions {

namespace {

// Disable and Delay take the value out; it comes back when the store will not record it, so
// that no entry is lost without a saved record. The switch-off loop is the one shared with the
// locations switched by a state value.
const ItemSwitch kRunValue = {&CRunKeyAppsActions::RemoveFromRegistry, &CRunKeyAppsActions::RollbackToRegistry,
                              L"RollbackToRegistry"};

} // namespace

DWORD CRunKeyAppsActions::RemoveFromRegistry(const storage::StartupItem& item)
{
    HKEY root = nullptr;
    std::wstring keyPath;
    if (!SplitRegistryPath(item.Path, root, keyPath)) {
        return ERROR_GEN_FAILURE;
    }
    return DeleteRegistryValue(root, keyPath.c_str(), item.Name.c_str());
}

DWORD CRunKeyAppsActions::RollbackToRegistry(const storage::StartupItem& item)
{
    HKEY root = nullptr;
    std::wstring keyPath;
    if (!SplitRegistryPath(item.Path, root, keyPath)) {
        return ERROR_GEN_FAILURE;
    }
    return WriteRegistryValue(root, keyPath.c_str(), item.Name.c_str(), item.Cmd.c_str());
}

DWORD CRunKeyAppsActions::DeleteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name)
{
    if (keyPath == nullptr || name == nullptr) {
        return ERROR_SUCCESS;
    }
    support::UniqueHKey key;
    // The process's own view: the program is 64-bit, so this is the 64-bit Run key.
    if (const LSTATUS status = support::OpenKey(root, keyPath, KEY_WRITE, key); status != ERROR_SUCCESS) {
        return static_cast<DWORD>(status);
    }
    return static_cast<DWORD>(RegDeleteValueW(key.get(), name));
}

DWORD CRunKeyAppsActions::WriteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name,
                                             const wchar_t* data)
{
    if (keyPath == nullptr || name == nullptr || data == nullptr) {
        return ERROR_SUCCESS;
    }
    support::UniqueHKey key;
    // What RegOpenKeyW asks for; opened, not created: a Run key that has gone meanwhile stays gone.
    if (const LSTATUS status = support::OpenKey(root, keyPath, MAXIMUM_ALLOWED, key); status != ERROR_SUCCESS) {
        return static_cast<DWORD>(status);
    }
    // Always REG_SZ, whatever type the value had before it was removed.
    const DWORD bytes = static_cast<DWORD>((wcslen(data) + 1) * sizeof(wchar_t));
    return static_cast<DWORD>(
        RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(data), bytes));
}

int CRunKeyAppsActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Disable");
    return SwitchOffItems(trace.FunctionName(), L"Disable", storage::kDisabledSection, kRunValue, items, save);
}

int CRunKeyAppsActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Delay");
    return SwitchOffItems(trace.FunctionName(), L"Delay", storage::kDelayedSection, kRunValue, items, save);
}

int CRunKeyAppsActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    // An item with an empty field is skipped without failing; with save the whole list leaves
    // both sections, failed items included.
    logging::ScopeTrace trace(L"CRunKeyAppsActions::Enable");
    return SwitchOnItems(trace.FunctionName(), storage::kDisabledSection, storage::kDelayedSection, kRunValue,
                         items, save);
}

int CRunKeyAppsActions::Check(const storage::StartupItem& item)
{
    return CheckCommandTarget(item.Cmd);
}

} // namespace actions
