// Writes "-> name()" when an operation starts and "<- name() [ms]" when it is left by any path.
#pragma once

#include <windows.h>

namespace logging {

class ScopeTrace {
public:
    // Display name "<qualifiedName>()"; function name "<qualifiedName>".
    explicit ScopeTrace(const wchar_t* qualifiedName);
    // Display name "[<label>]" with a separate function name (the entry point's modes).
    ScopeTrace(const wchar_t* label, const wchar_t* functionName);
    ~ScopeTrace();
    ScopeTrace(const ScopeTrace&) = delete;
    ScopeTrace& operator=(const ScopeTrace&) = delete;

    const wchar_t* DisplayName() const noexcept { return m_displayName; }
    const wchar_t* FunctionName() const noexcept { return m_functionName; }

    // Longest qualified name kept before "()" is appended.
    static constexpr size_t kMaxQualifiedChars = 258;
    static constexpr size_t kNameChars = 260;

private:
    void WriteEntry() const;

    DWORD m_startTick;
    wchar_t m_displayName[kNameChars + 1] = {};
    wchar_t m_functionName[kNameChars + 1] = {};
};

} // namespace logging
