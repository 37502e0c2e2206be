// Test double of the crash-handler library. Records every call (see SuiteRecord.h);
// EnableCrashHandler returns QMCRASH_ENABLE_RESULT (0 when unset) and installs an unhandled
// exception filter that records the exception code and lets the process die as it would have.
// Built once more without EnableCrashHandler (DOUBLE_NO_ENABLE) and without SetSettingsFile
// (DOUBLE_NO_SETTINGS).
#include "tools/doubles/SuiteRecord.h"

#include <cwchar>
#include <string>

namespace {

using doubles::Record;

[[maybe_unused]] LONG WINAPI RecordCrash(EXCEPTION_POINTERS* exception)
{
    wchar_t code[16];
    _snwprintf(code, 16, L"0x%08lx",
               static_cast<unsigned long>(exception->ExceptionRecord->ExceptionCode));
    Record(std::wstring(L"qmcrash caught ") + code);
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

extern "C" {

#ifndef DOUBLE_NO_ENABLE
__declspec(dllexport) HRESULT EnableCrashHandler(int first, int second, const wchar_t* options)
{
    Record(L"qmcrash EnableCrashHandler " + std::to_wstring(first) + L" " + std::to_wstring(second) +
           L" " + (options ? options : L"(null)"));
    SetUnhandledExceptionFilter(&RecordCrash);
    std::wstring result;
    if (!doubles::ReadSetting(L"QMCRASH_ENABLE_RESULT", result)) {
        return S_OK;
    }
    return static_cast<HRESULT>(std::wcstoul(result.c_str(), nullptr, 0));
}
#endif

#ifndef DOUBLE_NO_SETTINGS
__declspec(dllexport) HRESULT SetSettingsFile(const wchar_t* settingsFile)
{
    Record(L"qmcrash SetSettingsFile " + std::wstring(settingsFile ? settingsFile : L"(null)"));
    return S_OK;
}
#endif

} // extern "C"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    doubles::RecordAttachDetach(L"qmcrash", reason, reserved);
    return TRUE;
}
