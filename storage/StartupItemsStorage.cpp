#include "storage/StartupItemsStorage.h"

#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <cwchar>
#include <fstream>

namespace storage {

CStartupItemsStorage& CStartupItemsStorage::Instance()
{
    static CStartupItemsStorage store;
    return store;
}

DWORD CStartupItemsStorage::Init(const wchar_t* path)
{
    logging::ScopeTrace trace(L"CStartupItemsStorage::Init");
    const size_t length = path ? wcslen(path) : 0;
    m_path = std::make_unique<wchar_t[]>(length + 1);
    wmemcpy(m_path.get(), path ? path : L"", length);
    QM_LOG_INFO(trace.FunctionName(), L"storage=%s", m_path.get());

    std::ifstream probe(m_path.get());
    m_fileAbsent = !probe.is_open();
    return ERROR_SUCCESS;
}

} // namespace storage
