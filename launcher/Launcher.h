#pragma once

namespace launcher {

// The whole run of the program for one command line (the arguments without the program name).
// Returns the exit code: 0, or 1 when the store could not be opened.
int RunLauncher(const wchar_t* commandLine);

} // namespace launcher
