// The item loops shared by the startup locations whose entries are switched off and back on one
// item at a time: StartupApproved values (Windows 8 and later), Store app task state, and Run
// values taken out of their key below Windows 8. Switch, record in the store, and switch back
// when the store refuses the item.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

namespace actions {

// Both turns return a Windows status.
struct ItemSwitch {
    DWORD (*turnOff)(const storage::StartupItem& item);  // Disable and Delay
    DWORD (*turnOn)(const storage::StartupItem& item);   // Enable, and the rollback
    const wchar_t* turnOnName;                           // in "<turnOnName> FAILED <Path>"
};

// Disable or Delay: "<verb> <Path> <Name>" per item; an item with an empty Name, Path or Cmd
// fails; with save set each switched item is saved into section, and switched back when that
// fails.
int SwitchOffItems(const wchar_t* function, const wchar_t* verb, const char* section,
                   const ItemSwitch& itemSwitch, storage::SharedStartupItemList& items, bool save);

// Enable: items with an empty field are skipped without failing; with save set the whole list
// is then removed from both sections, failed items included.
int SwitchOnItems(const wchar_t* function, const char* disabledSection, const char* delayedSection,
                  const ItemSwitch& itemSwitch, storage::SharedStartupItemList& items, bool save);

bool HasEmptyField(const storage::StartupItem& item);

// "<folder>\<name>", with the backslash only when the folder does not end with one.
std::wstring JoinFolderAndName(const std::wstring& folder, const std::wstring& name);

// 0 when the file that the command runs exists, else 31.
int CheckCommandTarget(const std::wstring& commandLine);

} // namespace actions
