// Owns one action object per startup location kind, chosen by Windows version, and forwards
// each requested action to the object of an item's kind.
#pragma once

#include "actions/IStartupAppsActions.h"

#include <map>
#include <memory>

namespace actions {

class StartupAppsActionExec {
public:
    StartupAppsActionExec();

    // Action 0 Enable, 1 Disable, 2 Delay on the object of kind; any other action, a kind
    // without an object, or an action that throws, gives 31.
    int Execute(const int& action, const int& kind, storage::SharedStartupItemList& items, bool save);

    // The object of a kind, or null when this Windows version has none.
    IStartupAppsActions* operator[](int kind) const;

    bool IsWindows8OrGreater() const noexcept { return m_windows8OrGreater; }

private:
    std::map<int, std::unique_ptr<IStartupAppsActions>> m_actions;
    bool m_windows8OrGreater = false;
};

// Windows 8 (6.2) or later, by VerifyVersionInfoW.
bool IsWindows8OrGreater();

} // namespace actions
