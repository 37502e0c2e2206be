#include "support/LogDLL.h"

#include "support/ProgramFolder.h"

#include <string>

namespace logging {

namespace {

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

// An empty folder (the program's path unknown) loads nothing rather than a library found on
// the search path.
HMODULE LoadLibraryBesideProgram()
{
    const std::wstring folder = support::ProgramFolder();
    return folder.empty() ? nullptr : LoadLibraryW((folder + L"qmtrace.dll").c_str());
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
    m_module.reset(LoadLibraryBesideProgram());
    if (m_module) {
        const HMODULE module = m_module.get();
        if (auto init = support::GetExport<LogNotifyFn>(module, "LogInit")) {
            init();
        }
        m_applySettings = support::GetExport<AnyExport>(module, "LogApplySettings");
        m_setSettingsFile = support::GetExport<AnyExport>(module, "LogSetSettingsFile");
        m_enable = support::GetExport<AnyExport>(module, "LogEnable");
        m_setLevel = support::GetExport<AnyExport>(module, "LogSetLevel");
        m_setPath = support::GetExport<AnyExport>(module, "LogSetPath");
        m_setType = support::GetExport<AnyExport>(module, "LogSetType");
        m_setMode = support::GetExport<AnyExport>(module, "LogSetMode");
        m_setMaxSize = support::GetExport<AnyExport>(module, "LogSetMaxSize");
        m_setDepth = support::GetExport<AnyExport>(module, "LogSetDepth");
        m_write = support::GetExport<LogWriteFn>(module, "LogWrite");
        m_isEnabled = support::GetExport<AnyExport>(module, "LogIsEnabled");
        m_monitorSettings = support::GetExport<AnyExport>(module, "LogMonitorSettings");
        m_getLevel = support::GetExport<AnyExport>(module, "LogGetLevel");
        m_uninitDeskMetrics = support::GetExport<LogNotifyFn>(module, "LogUninitDeskMetrics");
        m_trackEvent = support::GetExport<AnyExport>(module, "LogTrackEvent");
        m_trackEventData = support::GetExport<AnyExport>(module, "LogTrackEventData");
        m_removeModule = support::GetExport<LogRemoveModuleFn>(module, "LogRemoveModule");
    }
    if (m_write == nullptr) {
        m_write = &LogWriteStub;
    }
}

CLogDLL::~CLogDLL()
{
    if (!m_module) {
        return;
    }
    if (auto deinit = support::GetExport<LogNotifyFn>(m_module.get(), "LogDeinit")) {
        deinit();
    }
    if (m_uninitDeskMetrics != nullptr) {
        m_uninitDeskMetrics();
    }
    if (m_removeModule != nullptr) {
        m_removeModule("logging::CLogDLL::~CLogDLL");
    }
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

void WriteFormatted(unsigned short depthChange, int logClass, const wchar_t* function,
                    const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    {
        LogHold hold;
        hold.Get()->Write(depthChange, logClass, function, format, args);
    }
    va_end(args);
}

} // namespace logging
