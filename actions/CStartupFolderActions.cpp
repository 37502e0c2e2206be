#include "actions/CStartupFolderActions.h"

#include "actions/SwitchedItemLoops.h"
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <utility>

namespace actions {

namespace {

bool IsFolder(DWORD attributes)
{
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Shortcuts keep their command; any other file is started from where it lies, so its command
// follows the file. The test is case-sensitive on purpose: "App.LNK" counts as a plain file.
bool IsShortcutPath(const std::wstring& path)
{
    return path.rfind(L".lnk") != std::wstring::npos;
}

} // namespace

CStartupFolderActions::CStartupFolderActions(std::wstring backupFolderName)
    : m_backupFolderName(std::move(backupFolderName))
{
}

std::wstring CStartupFolderActions::GetBackupFolderPath(const std::wstring& startupFolder) const
{
    return JoinFolderAndName(startupFolder, m_backupFolderName) + L"\\";
}

bool CStartupFolderActions::CreateBackupFolderForStartupItem(const storage::StartupItem& item) const
{
    const std::wstring folder = GetBackupFolderPath(item.Path);
    if (IsFolder(GetFileAttributesW(folder.c_str()))) {
        return true;
    }
    // Read again: the folder may have appeared meanwhile, and then it must not stay read-only.
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    if (IsFolder(attributes)) {
        if ((attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
            !SetFileAttributesW(folder.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY)) {
            return false;
        }
        return true;
    }
    // One level only: the Startup folder itself must exist.
    if (!CreateDirectoryW(folder.c_str(), nullptr /* default security */)) {
        return false;
    }
    SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_HIDDEN);  // cosmetic; the folder works without it
    return true;
}

int CStartupFolderActions::MoveStartupFile(const wchar_t* from, const wchar_t* to)
{
    if (from == nullptr || to == nullptr) {
        return kActionFailed;
    }
    const DWORD attributes = GetFileAttributesW(from);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return kActionFailed;
    }
    // A read-only file cannot be moved over another one; it stays writable afterwards.
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
        !SetFileAttributesW(from, attributes & ~FILE_ATTRIBUTE_READONLY)) {
        return kActionFailed;
    }
    return MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING) ? kActionSucceeded : kActionFailed;
}

// Disable and Delay. A backup folder that cannot be made is logged but not counted, and a file
// that cannot be moved (usually already gone) is skipped without a word: both are deliberate.
int CStartupFolderActions::MoveItemsOut(const wchar_t* function, const wchar_t* verb, const char* section,
                                        storage::SharedStartupItemList& items, bool save) const
{
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, L"%s %s %s", verb, item->Path.c_str(), item->Name.c_str());
        if (!CreateBackupFolderForStartupItem(*item)) {
            QM_LOG_ERROR(function, L"FAILED CreateBackupFolderForStartupItem %s", item->Path.c_str());
            continue;
        }
        const std::wstring startupFile = JoinFolderAndName(item->Path, item->Name);
        const std::wstring backupFile = GetBackupFolderPath(item->Path) + item->Name;
        if (MoveStartupFile(startupFile.c_str(), backupFile.c_str()) != kActionSucceeded) {
            continue;
        }
        item->BkpPath = backupFile;
        if (!IsShortcutPath(startupFile)) {
            item->Cmd = backupFile;
        }
        if (save && storage::CStartupItemsStorage::Instance().SaveStartupItems(*item, section) != ERROR_SUCCESS) {
            // Not recorded, so not left out of the Startup folder.
            MoveStartupFile(backupFile.c_str(), startupFile.c_str());
            result = kActionFailed;
            QM_LOG_ERROR(function, L"FAILED storage::SaveStartupItem %s", item->Path.c_str());
        }
    }
    return result;
}

int CStartupFolderActions::Disable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CStartupFolderActions::Disable");
    return MoveItemsOut(trace.FunctionName(), L"Disable", storage::kStartupDisabledSection, items, save);
}

int CStartupFolderActions::Delay(storage::SharedStartupItemList& items, bool save)
{
    // Deliberately without a scope trace, unlike Disable and Enable.
    return MoveItemsOut(L"CStartupFolderActions::Delay", L"Delay", storage::kStartupDelayedSection, items,
                        save);
}

int CStartupFolderActions::Enable(storage::SharedStartupItemList& items, bool save)
{
    logging::ScopeTrace trace(L"CStartupFolderActions::Enable");
    const wchar_t* function = trace.FunctionName();
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, L"Enable %s %s", item->Path.c_str(), item->Name.c_str());
        // Both paths come from Path and Name again; the recorded BkpPath is not trusted.
        const std::wstring startupFile = JoinFolderAndName(item->Path, item->Name);
        const std::wstring backupFile = GetBackupFolderPath(item->Path) + item->Name;
        if (MoveStartupFile(backupFile.c_str(), startupFile.c_str()) != kActionSucceeded) {
            result = kActionFailed;
            QM_LOG_ERROR(function, L"FAILED MoveFile(%s, %s)", backupFile.c_str(), startupFile.c_str());
            continue;
        }
        if (!IsShortcutPath(backupFile)) {
            item->Cmd = startupFile;
        }
    }
    if (save) {
        auto& store = storage::CStartupItemsStorage::Instance();
        store.RemoveStartupItems(items, storage::kStartupDisabledSection);
        store.RemoveStartupItems(items, storage::kStartupDelayedSection);
    }
    return result;
}

int CStartupFolderActions::Check(const storage::StartupItem& item)
{
    logging::ScopeTrace trace(L"CStartupFolderActions::Check");
    if (!item.BkpPath.empty() && GetFileAttributesW(item.BkpPath.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return kActionFailed;
    }
    return CheckCommandTarget(item.Cmd);
}

} // namespace actions
