// What every kind of startup location can do with saved startup items.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

namespace actions {

// Location kinds, the keys of the dispatcher's map.
enum StartupLocationKind : int {
    RunKey = 0,
    StartupFolder = 1,
    StoreApp = 2,  // Windows 8 and later only
};

// Action codes. The numbering is fixed by the callers and does not follow the slot order.
enum StartupAction : int {
    ActionEnable = 0,
    ActionDisable = 1,
    ActionDelay = 2,
};

// Result codes of every action.
constexpr int kActionSucceeded = ERROR_SUCCESS;
constexpr int kActionFailed = ERROR_GEN_FAILURE;  // 31

class IStartupAppsActions {
public:
    // Each acts on every item in list order; one failing item never stops the others. The
    // result is 0 when all succeeded, 31 when any failed. With save set, Disable and Delay
    // record each changed item in the store and Enable removes the items from it.
    virtual int Disable(storage::SharedStartupItemList& items, bool save) = 0;
    virtual int Enable(storage::SharedStartupItemList& items, bool save) = 0;
    virtual int Delay(storage::SharedStartupItemList& items, bool save) = 0;
    // 0 when the file that the item's command runs exists, 31 otherwise. Changes nothing.
    virtual int Check(const storage::StartupItem& item) = 0;
    virtual ~IStartupAppsActions() = default;
};

} // namespace actions
