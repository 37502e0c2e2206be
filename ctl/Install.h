// Registers Morrowgate.exe, the launcher beside mgctl.exe, to run at the user's logon, and takes
// it off again. Each returns the exit code.
#pragma once

namespace ctl {

int Install();
// Puts every saved item back first; deletes the registration only when that succeeded.
int Uninstall();

} // namespace ctl
