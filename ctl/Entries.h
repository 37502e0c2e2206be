// Every startup entry mgctl knows: what the locations show, merged with what the store holds.
#pragma once

#include "ctl/Locations.h"

#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct Entry {
    EntryKind kind = EntryKind::RunValue;
    std::wstring id;            // "HKCU\Run\<value>", "Startup\<file>", "StoreApp\<package>\<task>" ...
    std::wstring location;
    storage::StartupItem item;  // as the location shows it, or the saved record when it shows nothing
    bool shown = false;         // the location shows the entry
    bool switchedOn = false;    // the location starts it at logon
    DWORD taskState = 0;
    std::optional<storage::StartupItem> saved;  // the saved record, with its scope in IsUser
    const char* section = nullptr;              // the store section that holds it
};

// "delayed", "disabled" or "enabled".
std::wstring StateOf(const Entry& entry);
bool IsDelayedSection(const char* section);
// The store says delayed or disabled, but the location starts the entry again.
bool HasDrift(const Entry& entry);
// "user/Delayed", or empty when the store does not hold the entry.
std::wstring SavedText(const Entry& entry);
// Only ASCII survives the store's one byte per UTF-16 code unit.
bool IsStorable(const storage::StartupItem& item);
// The file the command runs, as the launcher's check resolves it.
std::optional<std::wstring> TargetOf(const std::wstring& command);

// The kind of entry a section of the store holds, from the location kind that acts on it.
EntryKind KindOfSection(int locationKind);
// The section of the store that holds an entry of this kind when delayed or disabled.
const char* SectionFor(EntryKind kind, bool delayed);

// Every entry of the locations of this Windows generation, then every saved item that no
// location shows. The store must be open.
std::vector<Entry> CollectEntries(bool windows8);

// The id that names a saved item on the command line.
std::wstring IdOfSavedItem(EntryKind kind, const storage::StartupItem& item);

// The entry named by text: its id in any case, or a name that exactly one entry has. On failure
// returns nothing and fills problem with a message that lists the candidates.
const Entry* FindEntry(const std::vector<Entry>& entries, const std::wstring& text, std::wstring& problem);

} // namespace ctl
