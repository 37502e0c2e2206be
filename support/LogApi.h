// The calling contract of the suite's logging library, qmtrace.dll: shared by the facade that
// loads it and by the development build of the library in tools/.
#pragma once

#include <windows.h>

#include <cstdarg>

namespace logging {

// Line classes understood by the library.
constexpr int kClassError = 8;
constexpr int kClassInfo = 16;
constexpr int kClassTrace = 32;

// Depth changes: +1 opens a scope, -1 (0xFFFF) closes it, 0 is a plain line.
constexpr unsigned short kDepthEnter = 1;
constexpr unsigned short kDepthLeave = 0xFFFF;
constexpr unsigned short kDepthNone = 0;

// Formats follow the Microsoft printf conventions: %s is a wide string, %S a narrow one.
using LogWriteFn = HRESULT (*)(unsigned short depthChange, const int* logClass, HMODULE module,
                               const wchar_t* function, const wchar_t* format, va_list args);
using LogNotifyFn = HRESULT (*)();                       // LogInit, LogDeinit, LogUninitDeskMetrics
using LogRemoveModuleFn = HRESULT (*)(const char* owner);  // LogRemoveModule

} // namespace logging
