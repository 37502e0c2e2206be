// The command a shortcut (.lnk) runs, read through the shell's link interface.
#pragma once

#include <string>

namespace ctl {

// The shortcut's target, quoted, followed by its arguments; empty when the shortcut cannot be
// read or points at something that is not a file. COM must be initialised on the thread.
std::wstring ReadShortcutCommand(const std::wstring& path);

bool IsShortcutName(const std::wstring& name);  // ends in ".lnk", in any case

} // namespace ctl
