// Delay, disable and enable of single entries, and the enable of every saved item. Each returns
// the exit code: 0 done (or nothing to do), 1 an action failed or was refused.
#pragma once

#include "ctl/Entries.h"

namespace ctl {

int DelayEntry(const Entry& entry);
int DisableEntry(const Entry& entry);
int EnableEntry(const Entry& entry);

// Puts every saved item back into its location and then removes from the store only the items
// that are back; those that could not be put back stay saved and are named.
int EnableAllSaved();

// Seconds since 1970 (UTC): the change time of what mgctl saves.
std::int64_t UnixTimeNow();

} // namespace ctl
