#include "support/ScopeTrace.h"

#include "support/LogDLL.h"

#include <mmsystem.h>

#include <cwchar>
#include <iterator>

namespace logging {

namespace {

// Copies at most maxChars characters and always terminates; dest holds maxChars + 1.
void CopyBounded(wchar_t* dest, const wchar_t* source, size_t maxChars)
{
    const size_t length = source ? wcsnlen(source, maxChars) : 0;
    wmemcpy(dest, source ? source : L"", length);
    dest[length] = L'\0';
}

} // namespace

ScopeTrace::ScopeTrace(const wchar_t* qualifiedName) : m_startTick(timeGetTime())
{
    CopyBounded(m_displayName, qualifiedName, kMaxQualifiedChars);
    wcscat_s(m_displayName, std::size(m_displayName), L"()");  // fits: 258 + 2 of 260
    CopyBounded(m_functionName, qualifiedName, kNameChars);
    WriteEntry();
}

ScopeTrace::ScopeTrace(const wchar_t* label, const wchar_t* functionName)
    : m_startTick(timeGetTime())
{
    m_displayName[0] = L'[';
    CopyBounded(m_displayName + 1, label, kMaxQualifiedChars);
    wcscat_s(m_displayName, std::size(m_displayName), L"]");  // fits: 1 + 258 + 1 of 260
    CopyBounded(m_functionName, functionName, kNameChars);
    WriteEntry();
}

ScopeTrace::~ScopeTrace()
{
    const DWORD elapsed = timeGetTime() - m_startTick;
    Write(kDepthLeave, kClassTrace, m_functionName, L"<- %s [%d]", m_displayName,
          static_cast<int>(elapsed));
}

void ScopeTrace::WriteEntry() const
{
    Write(kDepthEnter, kClassTrace, m_functionName, L"-> %s", m_displayName);
}

} // namespace logging
