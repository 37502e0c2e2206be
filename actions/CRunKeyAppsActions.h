// Run-key items below Windows 8: the Run value itself is deleted on Disable and Delay and
// written back from the saved record on Enable.
#pragma once

#include "actions/IStartupAppsActions.h"

#include <windows.h>

namespace actions {

class CRunKeyAppsActions : public IStartupAppsActions {
public:
    int Disable(storage::SharedStartupItemList& items, bool save) override;
    int Enable(storage::SharedStartupItemList& items, bool save) override;
    int Delay(storage::SharedStartupItemList& items, bool save) override;
    // 0 when the file that the command runs exists (a folder counts); no log lines.
    int Check(const storage::StartupItem& item) override;

    // Deletes the value Name from the key in Path. A Windows status, or 31 when Path is not
    // "<full hive name>\<key path>".
    static DWORD RemoveFromRegistry(const storage::StartupItem& item);
    // Writes Cmd back as the REG_SZ value Name into the existing key in Path; same results.
    static DWORD RollbackToRegistry(const storage::StartupItem& item);

    // The two registry operations. Both return 0 without touching the registry when a text
    // argument is null; WriteRegistryValue never creates the key.
    static DWORD DeleteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name);
    static DWORD WriteRegistryValue(HKEY root, const wchar_t* keyPath, const wchar_t* name,
                                    const wchar_t* data);
};

} // namespace actions
