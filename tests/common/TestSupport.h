// Helpers shared by the test programs: scratch folders and registry keys that clean up after
// themselves, files, child processes with bounded waits, and the development log.
#pragma once

#include "support/ProgramFolder.h"

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

// The folder of the running test program (build/bin), with its final backslash.
using support::ProgramFolder;
// The folder of the suite library test doubles (build/doubles).
std::wstring DoublesFolder();
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

// Deletes a folder tree, clearing read-only attributes on the way. Missing is fine.
void RemoveTree(const std::wstring& path);

// A registry key path of the test's own below a root, deleted before use and on destruction.
class ScratchKey {
public:
    ScratchKey(HKEY root, const std::wstring& subKey);
    ~ScratchKey();
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;
    HKEY Root() const { return m_root; }
    const std::wstring& SubKey() const { return m_subKey; }

private:
    HKEY m_root;
    std::wstring m_subKey;
};

// A name unique to this process and call, for keys and folders.
std::wstring UniqueName(const std::wstring& stem);

// Registry helpers (64-bit view, like the program).
bool KeyExists(HKEY root, const std::wstring& subKey);
void CreateKey(HKEY root, const std::wstring& subKey);
void DeleteTree(HKEY root, const std::wstring& subKey);
void DeleteValue(HKEY root, const std::wstring& subKey, const std::wstring& name);
void SetString(HKEY root, const std::wstring& subKey, const std::wstring& name,
               const std::wstring& data, DWORD type = REG_SZ);
void SetBinary(HKEY root, const std::wstring& subKey, const std::wstring& name,
               const std::vector<std::uint8_t>& data);
void SetDword(HKEY root, const std::wstring& subKey, const std::wstring& name, DWORD data);
struct RegValue {
    DWORD type = REG_NONE;
    std::vector<std::uint8_t> data;
};
std::optional<RegValue> ReadValue(HKEY root, const std::wstring& subKey, const std::wstring& name);
std::optional<std::wstring> ReadString(HKEY root, const std::wstring& subKey,
                                       const std::wstring& name);

// Files.
bool FileExists(const std::wstring& path);
std::optional<std::string> ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);

// Runs a command line, waits at most timeoutMs for the process and everything it started
// (through a job object), and returns its exit code; nullopt on a start failure or time-out.
struct ChildOptions {
    std::wstring currentFolder;              // empty: inherit
    std::vector<std::wstring> environment;   // NAME=VALUE entries added to the inherited block
    DWORD timeoutMs = 60000;
    bool waitForDescendants = false;
    std::wstring outputFile;                 // standard output goes here when set
    std::wstring errorFile;                  // standard error goes here when set
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

// One line of the development log.
struct LogLine {
    std::string level;     // error, info, trace
    int depth = 0;         // open scopes before the line
    std::string function;
    std::string message;
};
std::vector<LogLine> ReadLog(const std::wstring& path);
// Lines whose message equals text exactly, or contains it when partial is true.
size_t CountMessages(const std::vector<LogLine>& lines, const std::string& text, bool partial = false);

// Points the development logging library at a fresh file of the test's own and holds logging
// for the capture's life, so that every line the code under test writes lands in that file.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<LogLine> Lines() const { return ReadLog(m_path); }
    const std::wstring& Path() const { return m_path; }

private:
    TempDir m_dir;
    std::wstring m_path;
    ScopedEnvironment m_environment;
    struct Hold;
    Hold* m_hold;
};

// Wide to UTF-8, for comparing log text.
std::string Utf8(const std::wstring& text);

// True when the running process sees Windows 8 or later.
bool IsWindows8OrLater();
// Wine reports Windows `version` (win7, win10) to programs named exeName: the value that
// scripts/wine-prefix version writes for the test runs, the demo and the benchmarks.
void SetWineVersion(const std::wstring& exeName, const std::wstring& version);

} // namespace testing_support
