// Morrowgate: starts the delayed startup programs at logon, or with a switch restores or
// re-applies the saved startup state. Windowless; all output goes to the suite's log.
#include "launcher/Launcher.h"

#include <windows.h>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR commandLine, int)
{
    // Nothing may escape into the runtime: whatever happens, the exit code stays documented.
    try {
        return launcher::RunLauncher(commandLine);
    } catch (...) {
        return 0;
    }
}
