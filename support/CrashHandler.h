// Hooks up the suite's crash handler, qmcrash.dll from the product's install folder, and arms
// the testers' deliberate crash. Both run first thing, before logging, and log nothing.
#pragma once

#include <windows.h>

namespace support {

// The exports of qmcrash.dll that are used. The first two arguments of EnableCrashHandler are
// always 0 here.
using EnableCrashHandlerFn = HRESULT (*)(int, int, const wchar_t* options);
using SetSettingsFileFn = HRESULT (*)(const wchar_t* settingsFile);

// Finds the install folder through the product information and the product's registry key,
// loads qmcrash.dll from it (for the life of the process) and enables it. Returns the
// library's own result, or the HRESULT of the step that failed.
HRESULT InstallCrashHandler();

// With a "#crash#<ms>#" argument on the command line and the HKLM key
// "Software\Quillmark\InternalCrashEnabled" present, starts a thread that waits <ms> and then
// writes to address zero.
void ArmTestCrash();

// The delay of the "#crash#<ms>#" argument in commandLine, or -1 when there is none or it is
// malformed. Only the first "#crash#" counts, and only at the start or after a space or tab.
long long ParseCrashArgument(const wchar_t* commandLine);

} // namespace support
