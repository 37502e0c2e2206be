// Development build of the suite's logging library. Appends one UTF-8 line per LogWrite call
// to a log file named by QMTRACE_LOG, or to "<program name>.log" beside the calling program:
//
//   2026-11-21 12:00:00.123 info  1234.5678 |    wWinMain: cmd line=/restore
//
// time, class, process and thread id, then two blanks per open scope, the function, the text.
// Formats follow the Microsoft conventions (%s wide, %S narrow), so this unit is built with
// __USE_MINGW_ANSI_STDIO=0 and formats with msvcrt's _vsnwprintf.
#include "support/LogApi.h"

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

CRITICAL_SECTION g_lock;
HANDLE g_file = INVALID_HANDLE_VALUE;
std::wstring g_pathOverride;
bool g_enabled = true;
int g_level = logging::kClassTrace;  // lines of a class above this are dropped
// The scope depth of each thread. A TLS slot taken and given back with the library: the
// library is loaded and unloaded for every line written while nobody holds logging, and
// compiler thread-locals would leave something behind on each unload.
DWORD g_depthSlot = TLS_OUT_OF_INDEXES;

int Depth()
{
    return static_cast<int>(reinterpret_cast<intptr_t>(TlsGetValue(g_depthSlot)));
}

void SetDepth(int depth)
{
    TlsSetValue(g_depthSlot, reinterpret_cast<void*>(static_cast<intptr_t>(depth)));
}

class Locked {
public:
    Locked() { EnterCriticalSection(&g_lock); }
    ~Locked() { LeaveCriticalSection(&g_lock); }
};

std::wstring DefaultLogPath()
{
    std::vector<wchar_t> path(32768);
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring text(path.data(), length);
    const size_t dot = text.find_last_of(L".\\");
    if (dot != std::wstring::npos && text[dot] == L'.') {
        text.resize(dot);
    }
    return text + L".log";
}

std::wstring LogPath()
{
    if (!g_pathOverride.empty()) {
        return g_pathOverride;
    }
    wchar_t fromEnvironment[32768];
    const DWORD length = GetEnvironmentVariableW(L"QMTRACE_LOG", fromEnvironment, 32768);
    if (length > 0 && length < 32768) {
        return fromEnvironment;
    }
    return DefaultLogPath();
}

// Called with the lock held. The handle is opened for appending only, so every WriteFile lands
// at the current end even when other processes write the same file.
HANDLE LogFile()
{
    if (g_file == INVALID_HANDLE_VALUE) {
        g_file = CreateFileW(LogPath().c_str(), FILE_APPEND_DATA,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr,  // default security
                             OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    return g_file;
}

void CloseLogFile()
{
    Locked lock;
    if (g_file != INVALID_HANDLE_VALUE) {
        CloseHandle(g_file);
        g_file = INVALID_HANDLE_VALUE;
    }
}

const char* ClassWord(int logClass, char* buffer, size_t size)
{
    switch (logClass) {
    case logging::kClassError:
        return "error";
    case logging::kClassInfo:
        return "info";
    case logging::kClassTrace:
        return "trace";
    default:
        std::snprintf(buffer, size, "c%d", logClass);
        return buffer;
    }
}

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty()) {
        return {};
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size,
                        nullptr, nullptr);
    return out;
}

std::wstring FormatMessageText(const wchar_t* format, va_list args)
{
    if (format == nullptr) {
        return {};
    }
    std::vector<wchar_t> buffer(1024);
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        const int written = _vsnwprintf(buffer.data(), buffer.size() - 1, format, copy);
        va_end(copy);
        if (written >= 0) {
            return std::wstring(buffer.data(), static_cast<size_t>(written));
        }
        if (buffer.size() >= (1u << 24)) {
            return std::wstring(buffer.data(), buffer.size() - 1);
        }
        buffer.assign(buffer.size() * 4, L'\0');
    }
}

} // namespace

extern "C" {

__declspec(dllexport) HRESULT LogWrite(unsigned short depthChange, const int* logClass, HMODULE,
                                       const wchar_t* function, const wchar_t* format, va_list args)
{
    const int cls = logClass ? *logClass : 0;
    const short change = static_cast<short>(depthChange);
    int depth = Depth();
    if (change < 0) {
        depth = depth + change < 0 ? 0 : depth + change;
        SetDepth(depth);
    } else if (change > 0) {
        SetDepth(depth + change);
    }
    if (!g_enabled || cls > g_level) {
        return S_FALSE;
    }

    const std::wstring message = FormatMessageText(format, args);
    SYSTEMTIME now;
    GetLocalTime(&now);
    char classBuffer[16];
    char head[96];
    std::snprintf(head, sizeof head, "%04u-%02u-%02u %02u:%02u:%02u.%03u %-5s %lu.%lu |",
                  now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                  now.wMilliseconds, ClassWord(cls, classBuffer, sizeof classBuffer),
                  GetCurrentProcessId(), GetCurrentThreadId());
    std::string line = head;
    line.append(static_cast<size_t>(depth) * 2, ' ');
    line += ToUtf8(function ? function : L"");
    line += ": ";
    line += ToUtf8(message);
    line += "\n";

    Locked lock;
    HANDLE file = LogFile();
    if (file == INVALID_HANDLE_VALUE) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    DWORD written = 0;
    if (!WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr)) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    return S_OK;
}

__declspec(dllexport) HRESULT LogInit() { return S_OK; }
__declspec(dllexport) HRESULT LogDeinit()
{
    CloseLogFile();
    return S_OK;
}
__declspec(dllexport) HRESULT LogUninitDeskMetrics() { return S_OK; }
__declspec(dllexport) HRESULT LogRemoveModule(const char*) { return S_OK; }

__declspec(dllexport) HRESULT LogEnable(BOOL enable)
{
    g_enabled = enable != FALSE;
    return S_OK;
}
__declspec(dllexport) BOOL LogIsEnabled() { return g_enabled ? TRUE : FALSE; }
__declspec(dllexport) HRESULT LogSetLevel(int level)
{
    g_level = level;
    return S_OK;
}
__declspec(dllexport) int LogGetLevel() { return g_level; }
__declspec(dllexport) HRESULT LogSetPath(const wchar_t* path)
{
    CloseLogFile();
    Locked lock;
    g_pathOverride = path ? path : L"";
    return S_OK;
}

// Settings, rotation and telemetry belong to the suite's own library; this build accepts the
// calls and keeps its single log file.
__declspec(dllexport) HRESULT LogApplySettings() { return S_OK; }
__declspec(dllexport) HRESULT LogSetSettingsFile(const wchar_t*) { return S_OK; }
__declspec(dllexport) HRESULT LogSetType(int) { return S_OK; }
__declspec(dllexport) HRESULT LogSetMode(int) { return S_OK; }
__declspec(dllexport) HRESULT LogSetMaxSize(DWORD) { return S_OK; }
__declspec(dllexport) HRESULT LogSetDepth(int) { return S_OK; }
__declspec(dllexport) HRESULT LogMonitorSettings(BOOL) { return S_OK; }
__declspec(dllexport) HRESULT LogTrackEvent(const wchar_t*) { return S_OK; }
__declspec(dllexport) HRESULT LogTrackEventData(const wchar_t*, const wchar_t*) { return S_OK; }

} // extern "C"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH) {
        InitializeCriticalSection(&g_lock);
        g_depthSlot = TlsAlloc();
        if (g_depthSlot == TLS_OUT_OF_INDEXES) {
            return FALSE;
        }
    } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
        CloseLogFile();
        TlsFree(g_depthSlot);
        DeleteCriticalSection(&g_lock);
    }
    return TRUE;
}
