// Storage.json: the saved startup items of one user, read afresh and written whole by every call.
#pragma once

#include "storage/StartupItem.h"

#include <windows.h>

#include <memory>

namespace storage {

class CStartupItemsStorage {
public:
    // The process-wide store, built on first use.
    static CStartupItemsStorage& Instance();

    CStartupItemsStorage() = default;
    CStartupItemsStorage(const CStartupItemsStorage&) = delete;
    CStartupItemsStorage& operator=(const CStartupItemsStorage&) = delete;

    // All operations return 0 (ERROR_SUCCESS) or 31 (ERROR_GEN_FAILURE).
    DWORD Init(const wchar_t* path);
    DWORD LoadStartupItems(const char* section, StartupItemList& items);
    DWORD SaveStartupItems(const SharedStartupItemList& items, const char* section);
    DWORD SaveStartupItems(const StartupItem& item, const char* section);
    DWORD RemoveStartupItems(const SharedStartupItemList& items, const char* section);

    const wchar_t* StoragePath() const noexcept { return m_path.get(); }

private:
    std::unique_ptr<wchar_t[]> m_path;
    bool m_fileAbsent = true;
};

} // namespace storage
