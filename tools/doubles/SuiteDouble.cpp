// Test double of the suite's three libraries, qmsvccfg.dll, qmcrash.dll and qmtrace.dll: one
// source, copied into place under each library's name. Each call it receives is appended as a
// line to the file named by DOUBLE_RECORD, so that a test sees from outside the process which
// calls arrived and in what order. Built once more per missing export: DOUBLE_NO_CREATE,
// DOUBLE_NO_DESTROY, DOUBLE_NO_ENABLE, DOUBLE_NO_SETTINGS, and DOUBLE_WRITE_ONLY (of the logging
// exports only LogWrite). Settings, from the environment:
//   DOUBLE_ITEM_<n>          the answer to GetString(n, ...); unset or empty: no string
//   DOUBLE_FAIL              the product information step that fails: create, interface, init, start
//   DOUBLE_ENABLE_RESULT     what EnableCrashHandler returns
//   DOUBLE_LOGINIT_DELAY_MS  how long LogInit takes
#include "support/LogApi.h"
#include "support/ProductInfoApi.h"

#include <cstdio>
#include <cwchar>
#include <string>
#include <utility>

#define DOUBLE_EXPORT extern "C" __declspec(dllexport)

namespace {

// Like the real library, the double knows its object and interface by these identifiers only.
constexpr GUID kObjectId = {0x66551ab3, 0xfca3, 0xbc90, {0x5f, 0x42, 0xc5, 0xf7, 0x92, 0xe2, 0x4b, 0x51}};
constexpr GUID kInterfaceId = {0x1623905a, 0x2177, 0x944e, {0xc7, 0x42, 0x7a, 0x10, 0xb1, 0xe0, 0xf0, 0xa0}};

std::wstring Setting(const std::wstring& name)
{
    wchar_t value[4096];
    const DWORD length = GetEnvironmentVariableW(name.c_str(), value, 4096);
    return std::wstring(value, length < 4096 ? length : 0);
}

// Formats with msvcrt's printf: %s is a wide string, %S a narrow one.
void Record(const wchar_t* format, ...)
{
    wchar_t line[4096] = {};
    va_list args;
    va_start(args, format);
    _vsnwprintf(line, 4095, format, args);
    va_end(args);
    if (FILE* file = _wfopen(Setting(L"DOUBLE_RECORD").c_str(), L"ab")) {
        std::fprintf(file, "%ls\n", line);
        std::fclose(file);
    }
}

struct ProductInfoUI final : support::IProductInfoUI {
    std::wstring answer;  // owned by the interface, as the real one's
    void Reserved0() override { Record(L"slot 0"); }
    int Init(int flags) override { return Record(L"Init %d", flags), Setting(L"DOUBLE_FAIL") == L"init" ? 5 : 0; }
    void Release() override { Record(L"Release"); }
    int Start() override { return Record(L"Start"), Setting(L"DOUBLE_FAIL") == L"start" ? 21 : 0; }
    void Uninit() override { Record(L"Uninit"); }
    void Reserved5() override { Record(L"slot 5"); }
    const wchar_t* GetString(int item, const wchar_t* context) override
    {
        Record(L"GetString %d %s", item, context);
        answer = Setting(L"DOUBLE_ITEM_" + std::to_wstring(item));
        return answer.empty() ? nullptr : answer.c_str();
    }
};

struct ProductInfoObject final : support::IProductInfoObject {
    ProductInfoUI ui;
    support::IProductInfoUI* GetInterface(const GUID& id) override
    {
        Record(L"GetInterface");
        return IsEqualGUID(id, kInterfaceId) && Setting(L"DOUBLE_FAIL") != L"interface" ? &ui : nullptr;
    }
};

[[maybe_unused]] ProductInfoObject* g_created = nullptr;

} // namespace

#ifndef DOUBLE_NO_CREATE
DOUBLE_EXPORT int QmCreateObject(const wchar_t* name, const GUID* id, void** object)
{
    Record(L"QmCreateObject %s", name);
    *object = IsEqualGUID(*id, kObjectId) && Setting(L"DOUBLE_FAIL") != L"create" ? (g_created = new ProductInfoObject) : nullptr;
    return *object ? 0 : static_cast<int>(REGDB_E_CLASSNOTREG);
}
#endif

#ifndef DOUBLE_NO_DESTROY
DOUBLE_EXPORT int QmDestroyObject(const wchar_t* name, void* object)
{
    Record(L"QmDestroyObject %s%s", name, object == g_created ? L"" : L" unknown-object");
    delete std::exchange(g_created, nullptr);
    return 0;
}
#endif

#ifndef DOUBLE_NO_ENABLE
DOUBLE_EXPORT HRESULT EnableCrashHandler(int first, int second, const wchar_t* options)
{
    Record(L"EnableCrashHandler %d %d %s", first, second, options);
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* exception) -> LONG {
        Record(L"caught 0x%08lx", exception->ExceptionRecord->ExceptionCode);
        return EXCEPTION_CONTINUE_SEARCH;  // the process dies as it would have
    });
    return static_cast<HRESULT>(std::wcstoul(Setting(L"DOUBLE_ENABLE_RESULT").c_str(), nullptr, 0));
}
#endif

#ifndef DOUBLE_NO_SETTINGS
DOUBLE_EXPORT HRESULT SetSettingsFile(const wchar_t* settingsFile) { return Record(L"SetSettingsFile %s", settingsFile), S_OK; }
#endif

// "LogWrite <depth change> <class> <module> <function>: <text>"
DOUBLE_EXPORT HRESULT LogWrite(unsigned short depthChange, const int* logClass, HMODULE module, const wchar_t* function,
                               const wchar_t* format, va_list args)
{
    wchar_t text[2048] = {};
    _vsnwprintf(text, 2047, format, args);
    const wchar_t* caller = module == GetModuleHandleW(nullptr) ? L"program" : L"other";
    return Record(L"LogWrite %d %d %s %s: %s", static_cast<short>(depthChange), *logClass, caller, function, text), S_OK;
}

#ifndef DOUBLE_WRITE_ONLY
DOUBLE_EXPORT HRESULT LogInit() { return Record(L"LogInit"), Sleep(_wtoi(Setting(L"DOUBLE_LOGINIT_DELAY_MS").c_str())), S_OK; }
DOUBLE_EXPORT HRESULT LogDeinit() { return Record(L"LogDeinit"), S_OK; }
DOUBLE_EXPORT HRESULT LogUninitDeskMetrics() { return Record(L"LogUninitDeskMetrics"), S_OK; }
DOUBLE_EXPORT HRESULT LogRemoveModule(const char* owner) { return Record(L"LogRemoveModule %S", owner), S_OK; }
#endif

// Load and unload, under the name the double was placed as. At process exit (reserved set)
// nothing is recorded, so an "unload" line always means that the program freed the library.
BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID reserved)
{
    wchar_t path[MAX_PATH] = {};
    if (GetModuleFileNameW(self, path, MAX_PATH) && (reason == DLL_PROCESS_ATTACH || (reason == DLL_PROCESS_DETACH && !reserved))) {
        Record(L"%s %s", reason == DLL_PROCESS_ATTACH ? L"load" : L"unload", std::wcsrchr(path, L'\\') + 1);
    }
    return TRUE;
}
