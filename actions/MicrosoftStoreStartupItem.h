// The "State" DWORD of a Store app's startup task, in the task's key below
// HKEY_CLASSES_ROOT (the item's Path). Windows writes 1 for disabled and 2 for enabled.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

namespace actions {

class MicrosoftStoreStartupItem {
public:
    static constexpr DWORD kStateDisabled = 1;
    static constexpr DWORD kStateEnabled = 2;

    // Windows status codes, 0 on success. The task key is never created.
    static DWORD Enable(const storage::StartupItem& item);
    static DWORD Disable(const storage::StartupItem& item);

    // Reads "State" as REG_DWORD; state is 0 unless the read succeeds. 31 without a subkey.
    static DWORD GetItemRegValue(HKEY root, const wchar_t* subKey, DWORD& state);
    // Writes "State" as REG_DWORD into the existing key. 31 without a subkey.
    static DWORD SetItemRegValue(HKEY root, const wchar_t* subKey, DWORD state);
};

} // namespace actions
