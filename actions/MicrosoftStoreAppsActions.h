// Store app startup tasks (Windows 8 and later): the task stays; its "State" is switched.
#pragma once

#include "actions/IStartupAppsActions.h"

namespace actions {

class MicrosoftStoreAppsActions : public IStartupAppsActions {
public:
    int Disable(storage::SharedStartupItemList& items, bool save) override;
    int Enable(storage::SharedStartupItemList& items, bool save) override;
    int Delay(storage::SharedStartupItemList& items, bool save) override;
    // 0 when "<Path>\<Name>" exists as a file and the command's target exists.
    int Check(const storage::StartupItem& item) override;
};

} // namespace actions
