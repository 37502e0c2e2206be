#include "actions/StartupAppsActionExec.h"

#include "actions/CRunKeyAppsActions.h"
#include "actions/CStartupFolderActions.h"
#include "actions/CWin8RunKeyAppsActions.h"
#include "actions/CWin8StartupFolderActions.h"
#include "actions/MicrosoftStoreAppsActions.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <exception>

namespace actions {

namespace {
constexpr wchar_t kExecuteFunction[] = L"StartupAppsActionExec::Execute";
}

bool IsWindows8OrGreater()
{
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 2;
    version.wServicePackMajor = 0;
    DWORDLONG condition = 0;
    condition = VerSetConditionMask(condition, VER_MINORVERSION, VER_GREATER_EQUAL);
    condition = VerSetConditionMask(condition, VER_MAJORVERSION, VER_GREATER_EQUAL);
    condition = VerSetConditionMask(condition, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR,
                              condition) != FALSE;
}

StartupAppsActionExec::StartupAppsActionExec()
{
    logging::ScopeTrace trace(L"StartupAppsActionExec::StartupAppsActionExec");
    m_windows8OrGreater = actions::IsWindows8OrGreater();
    if (m_windows8OrGreater) {
        QM_LOG_TRACE(trace.FunctionName(), L"Windows8OrGreater");
        m_actions[StartupFolder] = std::make_unique<CWin8StartupFolderActions>();
        m_actions[RunKey] = std::make_unique<CWin8RunKeyAppsActions>();
        m_actions[StoreApp] = std::make_unique<MicrosoftStoreAppsActions>();
    } else {
        QM_LOG_TRACE(trace.FunctionName(), L"bellow Windows8");
        m_actions[StartupFolder] = std::make_unique<CStartupFolderActions>(L"QmBkpFolder");
        m_actions[RunKey] = std::make_unique<CRunKeyAppsActions>();
    }
}

IStartupAppsActions* StartupAppsActionExec::operator[](int kind) const
{
    const auto found = m_actions.find(kind);
    return found == m_actions.end() ? nullptr : found->second.get();
}

int StartupAppsActionExec::Execute(const int& action, const int& kind,
                                   storage::SharedStartupItemList& items, bool save)
{
    using Operation = int (IStartupAppsActions::*)(storage::SharedStartupItemList&, bool);
    Operation operation = nullptr;
    switch (action) {
    case ActionEnable:
        operation = &IStartupAppsActions::Enable;
        break;
    case ActionDisable:
        operation = &IStartupAppsActions::Disable;
        break;
    case ActionDelay:
        operation = &IStartupAppsActions::Delay;
        break;
    default:
        return kActionFailed;
    }
    IStartupAppsActions* target = (*this)[kind];
    if (target == nullptr) {
        QM_LOG_ERROR(kExecuteFunction, L"no action object for kind %d", kind);
        return kActionFailed;
    }
    // One malformed item must not take the whole launcher down.
    try {
        return (target->*operation)(items, save);
    } catch (const std::exception& error) {
        QM_LOG_ERROR(kExecuteFunction, L"action %d on kind %d failed: %S", action, kind, error.what());
        return kActionFailed;
    }
}

} // namespace actions
