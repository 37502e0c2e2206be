// Test double of the logging library whose LogInit takes QMTRACE_INIT_DELAY_MS milliseconds:
// it holds the launcher at the point where it takes logging, just after the test crash has
// been armed, so that a test can watch that crash end the process. Writes nothing.
#include "support/LogApi.h"
#include "tools/doubles/SuiteRecord.h"

#include <cwchar>
#include <string>

extern "C" {

__declspec(dllexport) HRESULT LogInit()
{
    std::wstring delay;
    if (doubles::ReadSetting(L"QMTRACE_INIT_DELAY_MS", delay)) {
        Sleep(static_cast<DWORD>(std::wcstoul(delay.c_str(), nullptr, 10)));
    }
    return S_OK;
}

__declspec(dllexport) HRESULT LogWrite(unsigned short, const int*, HMODULE, const wchar_t*,
                                       const wchar_t*, va_list)
{
    return S_OK;
}

} // extern "C"
