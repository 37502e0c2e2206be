// What mgctl prints for list and plan: an aligned table, or one JSON array.
#pragma once

#include "ctl/Entries.h"

#include <cstdint>

namespace ctl {

void PrintEntries(const std::vector<Entry>& entries, bool json);

// The saved delayed items in the order of the next logon run, each with whether it would be
// started and if not why, without starting anything.
void PrintPlan(std::int64_t timeLimit, bool json);

} // namespace ctl
