// Helpers shared by the test programs: scratch folders and registry keys that clean up after
// themselves, files, and child processes with bounded waits.
#pragma once

#include "support/ProgramFolder.h"

#include <windows.h>
#include <versionhelpers.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

// The folder of the running test program (build/bin), with its final backslash.
using support::ProgramFolder;
std::wstring JoinPath(const std::wstring& folder, const std::wstring& name);

// A fresh, empty folder below %TEMP%, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& Path() const { return m_path; }
    std::wstring operator/(const std::wstring& name) const { return JoinPath(m_path, name); }

private:
    std::wstring m_path;
};

// Deletes a file or a folder tree, clearing read-only attributes on the way. Missing is fine.
void RemoveTree(const std::wstring& path);

// A registry key of the test's own below a root, deleted before use and on destruction.
class ScratchKey {
public:
    ScratchKey(HKEY root, const std::wstring& subKey);
    ~ScratchKey();
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;
    const std::wstring& SubKey() const { return m_subKey; }

private:
    HKEY m_root;
    std::wstring m_subKey;
};

// Registry helpers (64-bit view, like the program). Setting a value creates its key.
bool KeyExists(HKEY root, const std::wstring& subKey);
void CreateKey(HKEY root, const std::wstring& subKey);
void DeleteTree(HKEY root, const std::wstring& subKey);
void SetValue(HKEY root, const std::wstring& subKey, const std::wstring& name, DWORD type,
              const std::vector<std::uint8_t>& data);
void SetString(HKEY root, const std::wstring& subKey, const std::wstring& name,
               const std::wstring& data, DWORD type = REG_SZ);
struct RegValue {
    DWORD type = REG_NONE;
    std::vector<std::uint8_t> data;
};
std::optional<RegValue> ReadValue(HKEY root, const std::wstring& subKey, const std::wstring& name);
// A REG_SZ or REG_EXPAND_SZ value without its terminating nulls.
std::optional<std::wstring> ReadString(HKEY root, const std::wstring& subKey,
                                       const std::wstring& name);

// Files.
bool FileExists(const std::wstring& path);
std::optional<std::string> ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);

// Runs a command line, waits at most a minute for the process (and, when asked, everything it
// started: a job object holds them all) and returns its exit code; nullopt on a start failure or
// a time-out.
struct ChildOptions {
    std::vector<std::wstring> environment;  // NAME=VALUE entries added to the inherited block
    bool waitForDescendants = false;
    std::wstring outputFile{};              // standard output goes here when set
    std::wstring errorFile{};               // standard error goes here when set
};
std::optional<DWORD> RunChild(const std::wstring& commandLine, const ChildOptions& options = {});

// Environment variable of this process; restored on destruction.
class ScopedEnvironment {
public:
    ScopedEnvironment(const std::wstring& name, const std::wstring& value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::wstring m_name;
    std::optional<std::wstring> m_previous;
};

// Wide to UTF-8, for comparing with what the programs write.
std::string Utf8(const std::wstring& text);

} // namespace testing_support
