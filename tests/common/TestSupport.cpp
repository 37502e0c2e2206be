#include "tests/common/TestSupport.h"

#include "support/Handles.h"

#include <atomic>
#include <deque>
#include <fstream>
#include <sstream>

namespace testing_support {

std::wstring JoinPath(const std::wstring& folder, const std::wstring& name)
{
    return folder + (!folder.empty() && folder.back() == L'\\' ? L"" : L"\\") + name;
}

TempDir::TempDir()
{
    static std::atomic<unsigned> counter{0};
    wchar_t temp[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    m_path = JoinPath(std::wstring(temp, length), L"mgtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                                      std::to_wstring(GetTickCount()) + L"-" + std::to_wstring(++counter));
    CreateDirectoryW(m_path.c_str(), nullptr);
}

TempDir::~TempDir()
{
    RemoveTree(m_path);
}

void RemoveTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW(JoinPath(path, L"*").c_str(), &found);  // fails for a file
    for (bool more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found)) {
        if (wcscmp(found.cFileName, L".") != 0 && wcscmp(found.cFileName, L"..") != 0) {
            RemoveTree(JoinPath(path, found.cFileName));
        }
    }
    FindClose(search);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(path.c_str())) {
        RemoveDirectoryW(path.c_str());
    }
}

ScratchKey::ScratchKey(HKEY root, const std::wstring& subKey) : m_root(root), m_subKey(subKey)
{
    DeleteTree(m_root, m_subKey);
}

ScratchKey::~ScratchKey()
{
    DeleteTree(m_root, m_subKey);
}

bool KeyExists(HKEY root, const std::wstring& subKey)
{
    support::UniqueHKey key;
    return support::OpenKey(root, subKey.c_str(), KEY_READ, key) == ERROR_SUCCESS;
}

void CreateKey(HKEY root, const std::wstring& subKey)
{
    support::UniqueHKey key;
    support::CreateKey(root, subKey.c_str(), KEY_ALL_ACCESS, key);
}

void DeleteTree(HKEY root, const std::wstring& subKey)
{
    RegDeleteTreeW(root, subKey.c_str());
    RegDeleteKeyW(root, subKey.c_str());
}

void SetValue(HKEY root, const std::wstring& subKey, const std::wstring& name, DWORD type,
              const std::vector<std::uint8_t>& data)
{
    support::UniqueHKey key;
    if (support::CreateKey(root, subKey.c_str(), KEY_ALL_ACCESS, key) == ERROR_SUCCESS) {
        RegSetValueExW(key.get(), name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()));
    }
}

void SetString(HKEY root, const std::wstring& subKey, const std::wstring& name,
               const std::wstring& data, DWORD type)
{
    const auto bytes = reinterpret_cast<const std::uint8_t*>(data.c_str());
    SetValue(root, subKey, name, type, {bytes, bytes + (data.size() + 1) * sizeof(wchar_t)});
}

std::optional<RegValue> ReadValue(HKEY root, const std::wstring& subKey, const std::wstring& name)
{
    RegValue value;
    DWORD size = 0;
    const auto get = [&](void* data) {
        return RegGetValueW(root, subKey.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &value.type, data, &size);
    };
    if (get(nullptr) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    value.data.resize(size);
    if (get(value.data.data()) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    value.data.resize(size);
    return value;
}

std::optional<std::wstring> ReadString(HKEY root, const std::wstring& subKey,
                                       const std::wstring& name)
{
    auto value = ReadValue(root, subKey, name);
    if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ)) {
        return std::nullopt;
    }
    std::wstring text(reinterpret_cast<const wchar_t*>(value->data.data()),
                      value->data.size() / sizeof(wchar_t));
    while (!text.empty() && text.back() == L'\0') {
        text.pop_back();
    }
    return text;
}

bool FileExists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::optional<std::string> ReadFileBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteFileBytes(const std::wstring& path, const std::string& bytes)
{
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::optional<DWORD> RunChild(const std::wstring& commandLine, const ChildOptions& options)
{
    support::UniqueHandle job(CreateJobObjectW(nullptr, nullptr));
    if (!job) {
        return std::nullopt;
    }
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    std::vector<wchar_t> writable(commandLine.begin(), commandLine.end());
    writable.push_back(L'\0');
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    auto openOutput = [&inheritable](const std::wstring& path) {
        return support::UniqueFile(path.empty() ? INVALID_HANDLE_VALUE
                                                : CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    const support::UniqueFile output = openOutput(options.outputFile), error = openOutput(options.errorFile);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output ? output.get() : GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = error ? error.get() : GetStdHandle(STD_ERROR_HANDLE);
    // The child inherits this process's environment with the entries set meanwhile; they are
    // undone newest first, so that a name given twice gets its old value back.
    std::deque<ScopedEnvironment> environment;
    for (const auto& entry : options.environment) {
        environment.emplace_back(entry.substr(0, entry.find(L'=')), entry.substr(entry.find(L'=') + 1));
    }
    PROCESS_INFORMATION process{};
    const BOOL started = CreateProcessW(nullptr, writable.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                                        nullptr, &startup, &process);
    while (!environment.empty()) {
        environment.pop_back();
    }
    if (!started) {
        return std::nullopt;
    }
    const support::UniqueHandle processHandle(process.hProcess), threadHandle(process.hThread);
    AssignProcessToJobObject(job.get(), process.hProcess);
    ResumeThread(process.hThread);
    for (DWORD waited = 0; waited < 60000; waited += 20) {
        const bool ended = WaitForSingleObject(process.hProcess, 0) == WAIT_OBJECT_0;
        JOBOBJECT_BASIC_ACCOUNTING_INFORMATION accounting{};
        QueryInformationJobObject(job.get(), JobObjectBasicAccountingInformation, &accounting, sizeof accounting, nullptr);
        if (ended && (!options.waitForDescendants || accounting.ActiveProcesses == 0)) {
            DWORD exitCode = 0;
            GetExitCodeProcess(process.hProcess, &exitCode);
            return exitCode;
        }
        Sleep(20);
    }
    TerminateJobObject(job.get(), 0xDEAD);
    return std::nullopt;
}

ScopedEnvironment::ScopedEnvironment(const std::wstring& name, const std::wstring& value)
    : m_name(name)
{
    std::vector<wchar_t> buffer(32768);
    const DWORD length = GetEnvironmentVariableW(name.c_str(), buffer.data(), 32768);
    if (length > 0 && length < 32768) {
        m_previous = std::wstring(buffer.data(), length);
    }
    SetEnvironmentVariableW(name.c_str(), value.c_str());
}

ScopedEnvironment::~ScopedEnvironment()
{
    SetEnvironmentVariableW(m_name.c_str(), m_previous ? m_previous->c_str() : nullptr);
}

std::string Utf8(const std::wstring& text)
{
    std::string out(text.size() * 3, '\0');  // a UTF-16 unit takes at most three bytes
    out.resize(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                   static_cast<int>(out.size()), nullptr, nullptr));
    return out;
}

} // namespace testing_support
