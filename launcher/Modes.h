// The launcher's three modes, and the two walks over the store that they share with the console
// companion. Each mode returns true; the entry point ignores the result.
#pragma once

#include "storage/StartupItem.h"

#include <cstdint>
#include <functional>
#include <string>

namespace launcher {

// What the logon run decides for one saved delayed item. The time bound is tested first, and
// the item's location is asked to check it only when the bound lets it through.
enum class StartDecision { Start, AfterTimeLimit, CheckFailed };
using StartStep = std::function<void(const storage::StartupItem& item, const char* section, StartDecision)>;

// Walks the saved delayed items in the order of the logon run (registry items, then
// Startup-folder items, each in store order) and hands each one, with its decision, to step.
void WalkDelayedItems(std::int64_t timeLimit, const StartStep& step);

// Starts every saved delayed item whose target exists and whose change time is within the
// limit (0 means no limit).
bool StartApps(std::int64_t timeLimit);
// Starts one command line; true when the process was created.
bool StartApp(const std::wstring& commandLine);

// One section of the store as the restore and the check walk it.
struct SavedSection {
    const char* section;
    int kind;                   // the location kind whose object acts on the section's items
    const wchar_t* loadFailure; // logged when the section cannot be loaded
    int reapplyAction;          // what the check puts back into force
};
using SectionVisit = std::function<void(const SavedSection&, storage::SharedStartupItemList& items)>;

// Loads the four sections in their fixed order (delayed before disabled, registry items before
// Startup-folder items in each pair) and hands each non-empty one to visit as shared records.
// A section that cannot be loaded is logged under function and skipped.
void WalkSavedSections(const wchar_t* function, const SectionVisit& visit);

// Puts every saved item back into its startup location and removes it from the store.
bool RestoreApps();

// Applies the saved delayed and disabled states once more, without writing the store.
bool CheckCrtUserApps();

} // namespace launcher
