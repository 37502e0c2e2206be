#include "actions/SwitchedItemLoops.h"

#include "actions/CommandTarget.h"
#include "actions/IStartupAppsActions.h"
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"

namespace actions {

bool HasEmptyField(const storage::StartupItem& item)
{
    return item.Name.empty() || item.Path.empty() || item.Cmd.empty();
}

std::wstring JoinFolderAndName(const std::wstring& folder, const std::wstring& name)
{
    if (!folder.empty() && folder.back() == L'\\') {
        return folder + name;
    }
    return folder + L"\\" + name;
}

int CheckCommandTarget(const std::wstring& commandLine)
{
    std::wstring target;
    if (!ResolveCommandTarget(commandLine.c_str(), target)) {
        return kActionFailed;
    }
    return GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES ? kActionSucceeded : kActionFailed;
}

int SwitchOffItems(const wchar_t* function, const wchar_t* verb, const char* section,
                   const ItemSwitch& itemSwitch, storage::SharedStartupItemList& items, bool save)
{
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, L"%s %s %s", verb, item->Path.c_str(), item->Name.c_str());
        bool succeeded = !HasEmptyField(*item) && itemSwitch.turnOff(*item) == ERROR_SUCCESS;
        if (succeeded && save &&
            storage::CStartupItemsStorage::Instance().SaveStartupItems(*item, section) != ERROR_SUCCESS) {
            // Not recorded, so not left switched off: the store and the location stay in step.
            itemSwitch.turnOn(*item);
            succeeded = false;
        }
        if (!succeeded) {
            QM_LOG_ERROR(function, L"FAILED %s", item->Path.c_str());
            result = kActionFailed;
        }
    }
    return result;
}

int SwitchOnItems(const wchar_t* function, const char* disabledSection, const char* delayedSection,
                  const ItemSwitch& itemSwitch, storage::SharedStartupItemList& items, bool save)
{
    int result = kActionSucceeded;
    for (const auto& item : items) {
        QM_LOG_INFO(function, L"Enable %s %s", item->Path.c_str(), item->Name.c_str());
        if (HasEmptyField(*item)) {
            continue;
        }
        if (itemSwitch.turnOn(*item) != ERROR_SUCCESS) {
            QM_LOG_ERROR(function, L"%s FAILED %s", itemSwitch.turnOnName, item->Path.c_str());
            result = kActionFailed;
        }
    }
    if (save) {
        auto& store = storage::CStartupItemsStorage::Instance();
        store.RemoveStartupItems(items, disabledSection);
        store.RemoveStartupItems(items, delayedSection);
    }
    return result;
}

} // namespace actions
