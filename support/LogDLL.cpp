#include "support/LogDLL.h"

#include "support/Handles.h"

#include <cwchar>
#include <memory>

namespace logging {

namespace {

constexpr DWORD kPathBufferChars = 32767;
constexpr HRESULT kNoInterface = static_cast<HRESULT>(0x80004002);  // E_NOINTERFACE

// Stands in for LogWrite when the library or its export is missing.
HRESULT LogWriteStub(unsigned short, const int*, HMODULE, const wchar_t*, const wchar_t*, va_list)
{
    return kNoInterface;
}

// The process-wide state, guarded by the spin flag (the counts are also read without it by
// the active test).
CLogDLL* g_instance = nullptr;
std::atomic<std::int32_t> g_holderCount{0};
std::atomic<std::int32_t> g_pinnedCount{0};
std::atomic<long> g_spinFlag{0};

class SpinGuard {
public:
    SpinGuard()
    {
        while (g_spinFlag.exchange(1) == 1) {
            Sleep(1);
        }
    }
    ~SpinGuard() { g_spinFlag.exchange(0); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;
};

HMODULE LoadLibraryBesideProgram()
{
    auto path = std::make_unique<wchar_t[]>(kPathBufferChars);  // zero-filled
    const DWORD length = GetModuleFileNameW(nullptr, path.get(), kPathBufferChars);
    if (length == 0 || length >= kPathBufferChars) {
        return nullptr;
    }
    wchar_t* lastSlash = std::wcsrchr(path.get(), L'\\');
    if (lastSlash == nullptr) {
        return nullptr;
    }
    const size_t room = kPathBufferChars - static_cast<size_t>(lastSlash - path.get());
    if (wcscpy_s(lastSlash, room, L"\\qmtrace.dll") != 0) {
        return nullptr;
    }
    return LoadLibraryW(path.get());
}

void GiveBackOneHold()
{
    CLogDLL* toDestroy = nullptr;
    {
        SpinGuard guard;
        if (g_holderCount.load() >= 1) {
            --g_holderCount;
        } else if (g_pinnedCount.load() > 0) {
            g_pinnedCount.store(0);
        }
        if (g_instance != nullptr && g_holderCount.load() == 0 && g_pinnedCount.load() == 0) {
            toDestroy = g_instance;
            g_instance = nullptr;
        }
        // The unload happens under the flag, so that a racing acquire cannot load the library
        // again while it is still being torn down.
        delete toDestroy;
    }
}

} // namespace

CLogDLL::CLogDLL()
{
    m_module = LoadLibraryBesideProgram();
    if (m_module != nullptr) {
        if (auto init = support::GetExport<LogNotifyFn>(m_module, "LogInit")) {
            init();
        }
        m_applySettings = support::GetExport<AnyExport>(m_module, "LogApplySettings");
        m_setSettingsFile = support::GetExport<AnyExport>(m_module, "LogSetSettingsFile");
        m_enable = support::GetExport<AnyExport>(m_module, "LogEnable");
        m_setLevel = support::GetExport<AnyExport>(m_module, "LogSetLevel");
        m_setPath = support::GetExport<AnyExport>(m_module, "LogSetPath");
        m_setType = support::GetExport<AnyExport>(m_module, "LogSetType");
        m_setMode = support::GetExport<AnyExport>(m_module, "LogSetMode");
        m_setMaxSize = support::GetExport<AnyExport>(m_module, "LogSetMaxSize");
        m_setDepth = support::GetExport<AnyExport>(m_module, "LogSetDepth");
        m_write = support::GetExport<LogWriteFn>(m_module, "LogWrite");
        m_isEnabled = support::GetExport<AnyExport>(m_module, "LogIsEnabled");
        m_monitorSettings = support::GetExport<AnyExport>(m_module, "LogMonitorSettings");
        m_getLevel = support::GetExport<AnyExport>(m_module, "LogGetLevel");
        m_uninitDeskMetrics = support::GetExport<LogNotifyFn>(m_module, "LogUninitDeskMetrics");
        m_trackEvent = support::GetExport<AnyExport>(m_module, "LogTrackEvent");
        m_trackEventData = support::GetExport<AnyExport>(m_module, "LogTrackEventData");
        m_removeModule = support::GetExport<LogRemoveModuleFn>(m_module, "LogRemoveModule");
    }
    if (m_write == nullptr) {
        m_write = &LogWriteStub;
    }
}

CLogDLL::~CLogDLL()
{
    if (m_module == nullptr) {
        return;
    }
    if (auto deinit = support::GetExport<LogNotifyFn>(m_module, "LogDeinit")) {
        deinit();
    }
    if (m_uninitDeskMetrics != nullptr) {
        m_uninitDeskMetrics();
    }
    if (m_removeModule != nullptr) {
        m_removeModule("logging::CLogDLL::~CLogDLL");
    }
    FreeLibrary(m_module);
}

HRESULT CLogDLL::Write(unsigned short depthChange, int logClass, const wchar_t* function,
                       const wchar_t* format, va_list args) const
{
    return m_write(depthChange, &logClass, GetModuleHandleW(nullptr), function, format, args);
}

void Acquire(LogHolder& holder)
{
    CLogDLL* instance = nullptr;
    {
        SpinGuard guard;
        if (g_holderCount.load() == 0 && g_pinnedCount.load() == 0) {
            delete g_instance;
            g_instance = new CLogDLL();
        }
        ++g_holderCount;
        instance = g_instance;
    }
    holder.instance = instance;
    holder.holds.fetch_add(1);
}

CLogDLL* Get(LogHolder& holder)
{
    if (holder.instance == nullptr) {
        Acquire(holder);
    }
    return holder.instance;
}

void Release(LogHolder& holder)
{
    holder.instance = nullptr;
    while (holder.holds.fetch_sub(1) >= 1) {
        GiveBackOneHold();
    }
    holder.holds.fetch_add(1);
}

bool IsActive() noexcept
{
    return g_holderCount.load(std::memory_order_relaxed) + g_pinnedCount.load(std::memory_order_relaxed) != 0;
}

void WriteV(unsigned short depthChange, int logClass, const wchar_t* function,
            const wchar_t* format, va_list args)
{
    LogHold hold;
    hold.Get()->Write(depthChange, logClass, function, format, args);
}

void Write(unsigned short depthChange, int logClass, const wchar_t* function, const wchar_t* format,
           ...)
{
    va_list args;
    va_start(args, format);
    WriteV(depthChange, logClass, function, format, args);
    va_end(args);
}

} // namespace logging
