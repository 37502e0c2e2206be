// Run-key items on Windows 8 and later: the Run value stays; its StartupApproved state is
// switched.
#pragma once

#include "actions/IStartupAppsActions.h"

namespace actions {

class CWin8RunKeyAppsActions : public IStartupAppsActions {
public:
    int Disable(storage::SharedStartupItemList& items, bool save) override;
    int Enable(storage::SharedStartupItemList& items, bool save) override;
    int Delay(storage::SharedStartupItemList& items, bool save) override;
    // 0 when the Run value still exists and its command's target file exists.
    int Check(const storage::StartupItem& item) override;
};

} // namespace actions
