// The whole run of mgctl for one command line; returns the exit code: 0 success, 1 an action
// failed (with a message on standard error), 2 wrong usage or an unknown entry.
#pragma once

#include <string>
#include <vector>

namespace ctl {

int RunCommand(const std::vector<std::wstring>& arguments);

} // namespace ctl
