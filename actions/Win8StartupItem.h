// The Explorer StartupApproved value of a Run value or a Startup-folder shortcut (Windows 8
// and later): where it lives, and how its first four bytes say enabled or disabled.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace actions {

// Which StartupApproved list an item belongs to. Any value other than FolderShortcut is read
// as RunValue.
enum ApprovedEntryKind : std::uint32_t {
    RunValue = 0,
    FolderShortcut = 1,
};

class Win8StartupItem {
public:
    // The value's state word: 0 and 2 mean enabled, 1 and 3 disabled.
    static constexpr DWORD kBufferBytes = 128;
    static constexpr DWORD kFreshValueBytes = 12;

    // Windows status codes; 31 for an item whose value cannot be located.
    static DWORD Enable(const storage::StartupItem& item, const std::uint32_t& kind);
    static DWORD Disable(const storage::StartupItem& item, const std::uint32_t& kind);

    // Where the approved value lives. Throws std::out_of_range("invalid string position") for a
    // Run key that ends in a backslash: such a path is not accepted.
    static bool GetItemRegKey(const storage::StartupItem& item, const std::uint32_t& kind, HKEY& root,
                              std::wstring& subKey);
    // Reads a REG_BINARY value; a missing value is success with length 0.
    static DWORD GetItemRegValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                                 BYTE* data, DWORD& length);
    // Writes a REG_BINARY value, creating the key when needed.
    static DWORD SetItemRegValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                                 const BYTE* data, DWORD length);
};

} // namespace actions
