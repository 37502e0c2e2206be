#include "tests/actions/legacy/LegacyTestSupport.h"

#include "storage/StartupItemsStorage.h"

using namespace testing_support;

namespace legacy_tests {

ScratchStore::ScratchStore() : m_file(m_dir / L"Storage.json")
{
    storage::CStartupItemsStorage::Instance().Init(m_file.c_str());
}

void ScratchStore::Refuse()
{
    CreateDirectoryW(m_file.c_str(), nullptr);
    storage::CStartupItemsStorage::Instance().Init(m_file.c_str());
}

storage::StartupItemList ScratchStore::Section(const char* section) const
{
    storage::StartupItemList items;
    if (FileExists(m_file)) {
        storage::CStartupItemsStorage::Instance().LoadStartupItems(section, items);
    }
    return items;
}

std::vector<std::wstring> ScratchStore::Names(const char* section) const
{
    std::vector<std::wstring> names;
    for (const auto& item : Section(section)) {
        names.push_back(item.Name);
    }
    return names;
}

storage::SharedStartupItem MakeItem(const std::wstring& name, const std::wstring& path, const std::wstring& cmd)
{
    auto item = std::make_shared<storage::StartupItem>();
    item->Name = name;
    item->Path = path;
    item->Cmd = cmd;
    item->IsUser = true;
    return item;
}

size_t CountLines(const std::vector<LogLine>& lines, const std::string& function, const std::string& message,
                  bool prefix)
{
    size_t count = 0;
    for (const auto& line : lines) {
        const bool matches = prefix ? line.message.rfind(message, 0) == 0 : line.message == message;
        count += line.function == function && matches ? 1 : 0;
    }
    return count;
}

size_t CountEntries(const std::vector<LogLine>& lines, const std::string& qualifiedName)
{
    return CountLines(lines, qualifiedName, "-> " + qualifiedName + "()");
}

bool CanKeepHiddenAttribute()
{
    TempDir probe;
    SetFileAttributesW(probe.Path().c_str(), FILE_ATTRIBUTE_HIDDEN);
    const DWORD attributes = GetFileAttributesW(probe.Path().c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_HIDDEN) != 0;
}

} // namespace legacy_tests
