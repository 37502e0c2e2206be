// Test double of the logging library: appends every call it receives, one line each, to the
// file named by QMTRACE_RECORD, so that a test can see what the facade loaded, called and
// unloaded, and in what order. Built twice: with every export, and with LogWrite alone.
#include "support/LogApi.h"
#include "tools/doubles/SuiteRecord.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

void Record(const std::wstring& text)
{
    doubles::Record(text, L"QMTRACE_RECORD");
}

[[maybe_unused]] std::wstring Widen(const char* text)
{
    std::wstring out;
    for (; text && *text; ++text) {
        out += static_cast<wchar_t>(static_cast<unsigned char>(*text));
    }
    return out;
}

} // namespace

extern "C" {

__declspec(dllexport) HRESULT LogWrite(unsigned short depthChange, const int* logClass,
                                       HMODULE module, const wchar_t* function,
                                       const wchar_t* format, va_list args)
{
    std::vector<wchar_t> text(65536);
    const int written = _vsnwprintf(text.data(), text.size() - 1, format ? format : L"", args);
    const bool isProgram = module == GetModuleHandleW(nullptr);
    wchar_t head[128];
    _snwprintf(head, 128, L"LogWrite depth=%d class=%d module=%ls function=",
               static_cast<short>(depthChange), logClass ? *logClass : -1,
               isProgram ? L"program" : L"other");
    Record(std::wstring(head) + (function ? function : L"") + L" text=" +
           std::wstring(text.data(), written < 0 ? 0 : static_cast<size_t>(written)));
    return S_OK;
}

#ifndef RECORDER_WRITE_ONLY
__declspec(dllexport) HRESULT LogInit()
{
    Record(L"LogInit");
    return S_OK;
}
__declspec(dllexport) HRESULT LogDeinit()
{
    Record(L"LogDeinit");
    return S_OK;
}
__declspec(dllexport) HRESULT LogUninitDeskMetrics()
{
    Record(L"LogUninitDeskMetrics");
    return S_OK;
}
__declspec(dllexport) HRESULT LogRemoveModule(const char* owner)
{
    Record(L"LogRemoveModule " + Widen(owner));
    return S_OK;
}
#endif

} // extern "C"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        Record(L"attach");
    } else if (reason == DLL_PROCESS_DETACH) {
        Record(L"detach");
    }
    return TRUE;
}
