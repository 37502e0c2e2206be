// Shared pieces of the legacy action tests: a store of the test's own, items, and log queries.
#pragma once

#include "storage/StartupItem.h"
#include "tests/common/TestSupport.h"

#include <string>
#include <vector>

namespace legacy_tests {

// Points the process-wide store at a Storage.json of the test's own. Refuse() puts a folder
// where the file would be, so that every save fails.
class ScratchStore {
public:
    ScratchStore();
    void Refuse();
    const std::wstring& FilePath() const { return m_file; }
    // The names saved in a section; empty when the file is missing.
    std::vector<std::wstring> Names(const char* section) const;
    storage::StartupItemList Section(const char* section) const;

private:
    testing_support::TempDir m_dir;
    std::wstring m_file;
};

storage::SharedStartupItem MakeItem(const std::wstring& name, const std::wstring& path, const std::wstring& cmd);

// Lines written under one function whose message equals the text, or starts with it.
size_t CountLines(const std::vector<testing_support::LogLine>& lines, const std::string& function,
                  const std::string& message, bool prefix = false);
// The "-> Class::Method()" entry line of a scope trace.
size_t CountEntries(const std::vector<testing_support::LogLine>& lines, const std::string& qualifiedName);

// Whether the file system under %TEMP% keeps the hidden attribute of a folder.
bool CanKeepHiddenAttribute();

} // namespace legacy_tests
