// Startup-folder items below Windows 8: the file itself is moved into a hidden backup folder
// inside its Startup folder on Disable and Delay, and moved back on Enable.
#pragma once

#include "actions/IStartupAppsActions.h"

#include <string>

namespace actions {

class CStartupFolderActions : public IStartupAppsActions {
public:
    explicit CStartupFolderActions(std::wstring backupFolderName);
    ~CStartupFolderActions() override = default;

    int Disable(storage::SharedStartupItemList& items, bool save) override;
    int Enable(storage::SharedStartupItemList& items, bool save) override;
    int Delay(storage::SharedStartupItemList& items, bool save) override;
    // 31 when the recorded backup file has vanished or the command's target does not exist.
    int Check(const storage::StartupItem& item) override;

    // "<startupFolder>\<backup folder name>\".
    std::wstring GetBackupFolderPath(const std::wstring& startupFolder) const;
    // Makes sure the backup folder of the item's Path exists; a new one is hidden.
    bool CreateBackupFolderForStartupItem(const storage::StartupItem& item) const;
    // Moves a file, clearing its read-only bit first and replacing the destination. 0 or 31.
    static int MoveStartupFile(const wchar_t* from, const wchar_t* to);

private:
    int MoveItemsOut(const wchar_t* function, const wchar_t* verb, const char* section,
                     storage::SharedStartupItemList& items, bool save) const;

    std::wstring m_backupFolderName;
};

} // namespace actions
