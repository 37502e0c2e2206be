// mgctl: the console companion of Morrowgate. Lists the startup entries, delays, disables and
// enables them in the same store and with the same action objects as the launcher, and
// registers the launcher at logon.
#include "ctl/Commands.h"
#include "ctl/Console.h"
#include "support/LogDLL.h"

#include <windows.h>
#include <objbase.h>

#include <exception>

int wmain(int argc, wchar_t** argv)
{
    logging::LogHold hold;  // qmtrace.dll beside mgctl.exe logs the whole run
    QM_LOG_INFO(L"wmain", L"cmd line=%s", GetCommandLineW());
    // Shortcuts are read through the shell's link object.
    const HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    int exitCode = 1;
    try {
        exitCode = ctl::RunCommand(std::vector<std::wstring>(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        ctl::Err(L"mgctl: " + ctl::FromUtf8(error.what()) + L"\r\n");
    }
    if (SUCCEEDED(com)) {
        CoUninitialize();
    }
    return exitCode;
}
