// Shared pieces of the legacy action tests: a store of the test's own, items, and log queries.
#pragma once

#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

namespace legacy_tests {

using namespace testing_support;
using Strings = std::vector<std::string>;
using WStrings = std::vector<std::wstring>;

// Points the process-wide store at a Storage.json of the test's own. A refusing one has a folder
// where the file would be, so that every save fails.
class ScratchStore {
public:
    explicit ScratchStore(bool refusing = false)
    {
        if (refusing) {
            CreateDirectoryW(m_file.c_str(), nullptr);
        }
        storage::CStartupItemsStorage::Instance().Init(m_file.c_str());
    }
    // The names saved in a section; empty when the file is missing.
    WStrings Saved(const char* section) const
    {
        storage::StartupItemList items;
        if (FileExists(m_file)) {
            storage::CStartupItemsStorage::Instance().LoadStartupItems(section, items);
        }
        WStrings names;
        for (const auto& item : items) {
            names.push_back(item.Name);
        }
        return names;
    }

private:
    TempDir m_dir;
    std::wstring m_file = m_dir / L"Storage.json";
};

inline storage::SharedStartupItem MakeItem(const std::wstring& name, const std::wstring& path, const std::wstring& cmd)
{
    return std::make_shared<storage::StartupItem>(storage::StartupItem{name, path, L"", cmd, true, 0});
}

// Disable or Delay of one actions class, and the section it records into.
template <class Actions> struct Removal {
    const char* verb;
    int (Actions::*operation)(storage::SharedStartupItemList&, bool);
    const char* section;
};
template <class Actions> void PrintTo(const Removal<Actions>& removal, std::ostream* out) { *out << removal.verb; }
template <class Actions> auto Removals(const char* disabledSection, const char* delayedSection)
{
    return ::testing::Values(Removal<Actions>{"Disable", &Actions::Disable, disabledSection},
                             Removal<Actions>{"Delay", &Actions::Delay, delayedSection});
}
inline constexpr auto RemovalName = [](const auto& info) { return std::string(info.param.verb); };

// The messages of the error lines outside the store (function empty), or of every non-trace line
// of one function, each cut before " 0x" so that status codes do not matter.
inline Strings Messages(const std::vector<LogLine>& lines, const std::string& function = "")
{
    Strings messages;
    for (const auto& line : lines) {
        if (function.empty() ? line.level == "error" && line.function.rfind("CStartupItemsStorage::", 0) != 0
                             : line.function == function && line.level != "trace") {
            messages.push_back(line.message.substr(0, line.message.find(" 0x")));
        }
    }
    return messages;
}

}  // namespace legacy_tests
