// Test double of the suite's three libraries, qmsvccfg.dll, qmcrash.dll and qmtrace.dll: one
// source, copied into place under the library's name. Each call it receives is appended as one
// line to the file named by DOUBLE_RECORD, so that a test sees from outside the process which
// calls arrived and in what order. Built once more per missing export: DOUBLE_NO_CREATE,
// DOUBLE_NO_DESTROY, DOUBLE_NO_ENABLE, DOUBLE_NO_SETTINGS, and DOUBLE_WRITE_ONLY (of the
// logging exports only LogWrite). Other settings, from the environment:
//   DOUBLE_ITEM_<n>          the answer to GetString(n, ...); unset: no string
//   DOUBLE_FAIL              the product information step that fails: create, interface, init, start
//   DOUBLE_ENABLE_RESULT     what EnableCrashHandler returns
//   DOUBLE_LOGINIT_DELAY_MS  how long LogInit takes
#include "support/LogApi.h"
#include "support/ProductInfoApi.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace {

std::wstring Setting(const std::wstring& name)  // empty when unset
{
    wchar_t value[4096];
    const DWORD length = GetEnvironmentVariableW(name.c_str(), value, 4096);
    return std::wstring(value, length < 4096 ? length : 0);
}

void Record(const std::wstring& line)
{
    if (FILE* file = _wfopen(Setting(L"DOUBLE_RECORD").c_str(), L"ab")) {
        std::fprintf(file, "%ls\n", line.c_str());
        std::fclose(file);
    }
}

std::wstring Text(const wchar_t* text)
{
    return text ? text : L"(null)";
}

std::wstring Guid(const GUID& id)
{
    wchar_t text[40];
    _snwprintf(text, 40, L"{%08lx-%04hx-%04hx-%02x%02x-%02x%02x%02x%02x%02x%02x}", id.Data1, id.Data2, id.Data3,
               id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

int FailsAt(const wchar_t* step, int error)
{
    return Setting(L"DOUBLE_FAIL") == step ? error : 0;
}

class ProductInfoUI final : public support::IProductInfoUI {
public:
    void Reserved0() override { Record(L"slot 0"); }
    int Init(int flags) override { return Record(L"Init " + std::to_wstring(flags)), FailsAt(L"init", 5); }
    void Release() override { Record(L"Release"); }
    int Start() override { return Record(L"Start"), FailsAt(L"start", 21); }
    void Uninit() override { Record(L"Uninit"); }
    void Reserved5() override { Record(L"slot 5"); }
    const wchar_t* GetString(int item, const wchar_t* context) override
    {
        Record(L"GetString " + std::to_wstring(item) + L" " + Text(context));
        m_answer = Setting(L"DOUBLE_ITEM_" + std::to_wstring(item));
        return m_answer.empty() ? nullptr : m_answer.c_str();  // owned by the interface
    }

private:
    std::wstring m_answer;
};

class ProductInfoObject final : public support::IProductInfoObject {
public:
    support::IProductInfoUI* GetInterface(const GUID& id) override
    {
        Record(L"GetInterface " + Guid(id));
        return FailsAt(L"interface", 1) ? nullptr : &m_ui;
    }

private:
    ProductInfoUI m_ui;
};

[[maybe_unused]] ProductInfoObject* g_created = nullptr;

[[maybe_unused]] LONG WINAPI RecordCrash(EXCEPTION_POINTERS* exception)
{
    wchar_t code[16];
    _snwprintf(code, 16, L"0x%08lx", exception->ExceptionRecord->ExceptionCode);
    Record(std::wstring(L"caught ") + code);
    return EXCEPTION_CONTINUE_SEARCH;  // the process dies as it would have
}

} // namespace

extern "C" {

#ifndef DOUBLE_NO_CREATE
__declspec(dllexport) int QmCreateObject(const wchar_t* name, const GUID* id, void** object)
{
    Record(L"QmCreateObject " + Text(name) + L" " + (id ? Guid(*id) : L"(null)"));
    if (const int error = FailsAt(L"create", static_cast<int>(REGDB_E_CLASSNOTREG))) {
        return error;
    }
    *object = g_created = new ProductInfoObject;
    return 0;
}
#endif

#ifndef DOUBLE_NO_DESTROY
__declspec(dllexport) int QmDestroyObject(const wchar_t* name, void* object)
{
    Record(L"QmDestroyObject " + Text(name) + (object == g_created ? L"" : L" unknown-object"));
    delete g_created;
    g_created = nullptr;
    return 0;
}
#endif

#ifndef DOUBLE_NO_ENABLE
__declspec(dllexport) HRESULT EnableCrashHandler(int first, int second, const wchar_t* options)
{
    Record(L"EnableCrashHandler " + std::to_wstring(first) + L" " + std::to_wstring(second) + L" " + Text(options));
    SetUnhandledExceptionFilter(&RecordCrash);
    return static_cast<HRESULT>(std::wcstoul(Setting(L"DOUBLE_ENABLE_RESULT").c_str(), nullptr, 0));
}
#endif

#ifndef DOUBLE_NO_SETTINGS
__declspec(dllexport) HRESULT SetSettingsFile(const wchar_t* settingsFile)
{
    return Record(L"SetSettingsFile " + Text(settingsFile)), S_OK;
}
#endif

// "LogWrite <depth change> <class> <module> <function>: <text>"
__declspec(dllexport) HRESULT LogWrite(unsigned short depthChange, const int* logClass, HMODULE module,
                                       const wchar_t* function, const wchar_t* format, va_list args)
{
    wchar_t text[2048] = {};
    _vsnwprintf(text, 2047, format, args);
    wchar_t head[64];
    _snwprintf(head, 64, L"LogWrite %d %d %ls ", static_cast<short>(depthChange), *logClass,
               module == GetModuleHandleW(nullptr) ? L"program" : L"other");
    return Record(head + Text(function) + L": " + text), S_OK;
}

#ifndef DOUBLE_WRITE_ONLY
__declspec(dllexport) HRESULT LogInit()
{
    Record(L"LogInit");
    Sleep(std::wcstoul(Setting(L"DOUBLE_LOGINIT_DELAY_MS").c_str(), nullptr, 10));
    return S_OK;
}
__declspec(dllexport) HRESULT LogDeinit() { return Record(L"LogDeinit"), S_OK; }
__declspec(dllexport) HRESULT LogUninitDeskMetrics() { return Record(L"LogUninitDeskMetrics"), S_OK; }
__declspec(dllexport) HRESULT LogRemoveModule(const char* owner)
{
    return Record(L"LogRemoveModule " + std::wstring(owner, owner + std::strlen(owner))), S_OK;
}
#endif

} // extern "C"

// Load and unload, under the name the double was placed as. At process exit (reserved set)
// nothing is recorded, so an "unload" line always means that the program freed the library.
BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH || (reason == DLL_PROCESS_DETACH && reserved == nullptr)) {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(self, path, MAX_PATH);
        Record((reason == DLL_PROCESS_ATTACH ? L"load " : L"unload ") + std::wstring(std::wcsrchr(path, L'\\') + 1));
    }
    return TRUE;
}
