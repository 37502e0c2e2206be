// The saved record of one startup entry that was disabled or delayed, and the names under
// which such records are stored.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace storage {

struct StartupItem {
    std::wstring Name;     // the entry's name within its location (value or file name)
    std::wstring Path;     // where the entry lives (Run key, Startup folder, task key)
    std::wstring BkpPath;  // where the entry sits while it is out of its location; may be empty
    std::wstring Cmd;      // the command line the entry runs
    bool IsUser = false;   // stored under "user" (true) or "system" (false)
    std::int64_t ChangedTime = 0;
};

using StartupItemList = std::list<StartupItem>;
using SharedStartupItem = std::shared_ptr<StartupItem>;
using SharedStartupItemList = std::list<SharedStartupItem>;

// Section names: which list an item is in is given by the section that holds it.
inline constexpr char kDisabledSection[] = "Disabled";
inline constexpr char kDelayedSection[] = "Delayed";
inline constexpr char kStartupDisabledSection[] = "StartupDisabled";
inline constexpr char kStartupDelayedSection[] = "StartupDelayed";

// Keys of one stored item.
inline constexpr char kNameKey[] = "Name";
inline constexpr char kPathKey[] = "Path";
inline constexpr char kBkpPathKey[] = "BkpPath";
inline constexpr char kCmdKey[] = "Cmd";
inline constexpr char kChangedTimeKey[] = "ChangedTime";

// Top-level scope members of the document.
inline constexpr char kUserScope[] = "user";
inline constexpr char kSystemScope[] = "system";
// Reserved beside the scope keys; never read or written.
inline constexpr char kBootTimeKey[] = "boot_time";

} // namespace storage
