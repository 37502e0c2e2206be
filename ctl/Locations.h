// The startup locations that mgctl shows, read the way the launcher's action objects see them:
// the three Run keys, the user's and the common Startup folder, and on Windows 8 and later the
// startup tasks of Store apps.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace ctl {

enum class EntryKind { RunValue, FolderFile, StoreTask };

// One entry as its location shows it.
struct LocationEntry {
    EntryKind kind = EntryKind::RunValue;
    std::wstring location;       // "HKCU\Run", "Startup", "StoreApp\<package>" ...
    storage::StartupItem item;   // Name, Path, Cmd and IsUser as a delay or disable saves them
    bool switchedOn = false;     // the location starts it at logon
    DWORD taskState = 0;         // Store app tasks only: the task's "State"
};

std::vector<LocationEntry> ReadLocations(bool windows8);

// The location label ("HKCU\Run", "CommonStartup" ...) of a saved item's Path, for the kind of
// section it is saved in; nothing when the Path is none of the managed locations.
std::optional<std::wstring> LocationOfPath(EntryKind kind, const std::wstring& path);

// Whether the StartupApproved value of a Run value or a Startup-folder file says "on" (no value
// at all means on).
bool ApprovedSaysOn(const storage::StartupItem& item, EntryKind kind);

// Text compared the way Windows compares key paths, value names and file names.
std::wstring Folded(const std::wstring& text);

// The Store app task states that Windows writes.
constexpr DWORD kTaskOffByApp = 0;
constexpr DWORD kTaskOffByUser = 1;
constexpr DWORD kTaskOn = 2;
constexpr DWORD kTaskOffByPolicy = 3;
constexpr DWORD kTaskOnByPolicy = 4;

} // namespace ctl
