// The logging facade: loads qmtrace.dll from the program's folder while somebody holds it and
// sends every line through the library's LogWrite. Without the library every write is a no-op.
#pragma once

#include "support/Handles.h"
#include "support/LogApi.h"
#include "support/LogFormat.h"

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace logging {

// The loaded library and its exports. One instance per process, created and destroyed by the
// hold counting below; never create one directly outside the facade and its tests.
class CLogDLL {
public:
    CLogDLL();
    ~CLogDLL();
    CLogDLL(const CLogDLL&) = delete;
    CLogDLL& operator=(const CLogDLL&) = delete;

    HRESULT Write(unsigned short depthChange, int logClass, const wchar_t* function,
                  const wchar_t* format, va_list args) const;
    bool IsLoaded() const noexcept { return m_module != nullptr; }

private:
    using AnyExport = void (*)();

    // First, so that it is freed last: after the destructor's teardown calls into the library.
    support::UniqueModule m_module;
    // Resolved and kept, in the library's order; the library configures itself, so only
    // LogWrite and the teardown exports are ever called.
    AnyExport m_applySettings = nullptr;
    AnyExport m_setSettingsFile = nullptr;
    AnyExport m_enable = nullptr;
    AnyExport m_setLevel = nullptr;
    AnyExport m_setPath = nullptr;
    AnyExport m_setType = nullptr;
    AnyExport m_setMode = nullptr;
    AnyExport m_setMaxSize = nullptr;
    AnyExport m_setDepth = nullptr;
    LogWriteFn m_write = nullptr;
    AnyExport m_isEnabled = nullptr;
    AnyExport m_monitorSettings = nullptr;
    LogNotifyFn m_uninitDeskMetrics = nullptr;
    AnyExport m_trackEvent = nullptr;
    AnyExport m_trackEventData = nullptr;
    LogRemoveModuleFn m_removeModule = nullptr;
    AnyExport m_getLevel = nullptr;
};

// A caller's claim on the process-wide instance. Empty until acquired.
struct LogHolder {
    CLogDLL* instance = nullptr;
    std::atomic<std::int32_t> holds{0};
};

void Acquire(LogHolder& holder);
CLogDLL* Get(LogHolder& holder);  // acquires first when the holder is still empty
void Release(LogHolder& holder);  // gives back every hold the holder took

// True while any hold is outstanding; plain messages are written only then.
bool IsActive() noexcept;

// Holds logging for the lifetime of the object (the entry point keeps one for the whole run).
class LogHold {
public:
    LogHold() { Acquire(m_holder); }
    ~LogHold() { Release(m_holder); }
    LogHold(const LogHold&) = delete;
    LogHold& operator=(const LogHold&) = delete;
    CLogDLL* Get() { return logging::Get(m_holder); }

private:
    LogHolder m_holder;
};

// The unchecked variadic call below the checked ones; never called directly.
void WriteFormatted(unsigned short depthChange, int logClass, const wchar_t* function,
                    const wchar_t* format, ...);

// One line through a short-lived holder, whether or not logging is active. The format is a
// literal that the compiler has checked against the arguments.
template <typename... Args>
void Write(unsigned short depthChange, int logClass, const wchar_t* function,
           LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    WriteFormatted(depthChange, logClass, function, format.Text(), args...);
}

} // namespace logging

// A plain message line: written, and its arguments evaluated, only while logging is active.
#define QM_LOG(logClass, function, ...)                                                \
    do {                                                                               \
        if (::logging::IsActive()) {                                                   \
            ::logging::Write(::logging::kDepthNone, (logClass), (function), __VA_ARGS__); \
        }                                                                              \
    } while (false)

#define QM_LOG_ERROR(function, ...) QM_LOG(::logging::kClassError, function, __VA_ARGS__)
#define QM_LOG_INFO(function, ...) QM_LOG(::logging::kClassInfo, function, __VA_ARGS__)
#define QM_LOG_TRACE(function, ...) QM_LOG(::logging::kClassTrace, function, __VA_ARGS__)
