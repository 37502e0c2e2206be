#include "actions/Win8StartupItem.h"

#include "actions/CommandTarget.h"
#include "actions/HiveNames.h"
#include "support/Handles.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <cstring>
#include <stdexcept>

namespace actions {

namespace {

constexpr wchar_t kFolderApprovedKey[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
constexpr wchar_t kGetFunction[] = L"GetItemRegValue";
constexpr wchar_t kSetFunction[] = L"SetItemRegValue";

bool EndsWith(const std::wstring& text, std::wstring_view tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

DWORD ReadStateWord(const BYTE* data)
{
    DWORD state = 0;
    std::memcpy(&state, data, sizeof state);
    return state;
}

void WriteStateWord(BYTE* data, DWORD state)
{
    std::memcpy(data, &state, sizeof state);
}

// Where an item's approved value lives and what it held when read.
struct ApprovedValue {
    HKEY root = nullptr;
    std::wstring subKey;
    BYTE data[Win8StartupItem::kBufferBytes] = {};
    DWORD length = Win8StartupItem::kBufferBytes;
};

// What a failed read means: Enable gives up, Disable starts from a fresh value.
enum class ReadFailure { Fails, StartsFresh };

// The common start of Enable and Disable in one step: the argument dump, the value's location
// and the read. 31 when the value cannot be located; otherwise the read's status, which is
// success whenever a failed or empty read starts fresh (state word and timestamp zero).
DWORD ReadApproved(const storage::StartupItem& item, const std::uint32_t& kind, const wchar_t* function,
                   ReadFailure onFailure, ApprovedValue& value)
{
    QM_LOG_TRACE(function, L"%s %s", item.Path.c_str(), item.Name.c_str());
    if (!Win8StartupItem::GetItemRegKey(item, kind, value.root, value.subKey)) {
        QM_LOG_ERROR(function, L"GetItemRegKey failed");
        return ERROR_GEN_FAILURE;
    }
    if (value.root == nullptr) {
        QM_LOG_ERROR(function, L"null parent key");
        return ERROR_GEN_FAILURE;
    }
    const DWORD status = Win8StartupItem::GetItemRegValue(value.root, value.subKey.c_str(), item.Name.c_str(),
                                                          value.data, value.length);
    if (status != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"GetItemRegValue failed 0x%x", GetLastError());
    }
    if (onFailure == ReadFailure::Fails || (status == ERROR_SUCCESS && value.length != 0)) {
        return status;
    }
    std::memset(value.data, 0, sizeof value.data);
    value.length = Win8StartupItem::kFreshValueBytes;
    return ERROR_SUCCESS;
}

// Puts the new state word in front of the bytes read and writes them back at the length read.
DWORD WriteState(ApprovedValue& value, const storage::StartupItem& item, DWORD state, const wchar_t* function)
{
    WriteStateWord(value.data, state);
    const DWORD written = Win8StartupItem::SetItemRegValue(value.root, value.subKey.c_str(), item.Name.c_str(),
                                                           value.data, value.length);
    if (written != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"SetItemRegValue failed 0x%x", GetLastError());
    }
    return written;
}

} // namespace

bool Win8StartupItem::GetItemRegKey(const storage::StartupItem& item, const std::uint32_t& kind,
                                    HKEY& root, std::wstring& subKey)
{
    if (kind == FolderShortcut) {
        root = item.IsUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
        subKey = kFolderApprovedKey;
        return true;
    }
    subKey = item.Path;
    const size_t slash = item.Path.find(L'\\');
    if (slash == std::wstring::npos) {
        return false;
    }
    root = HiveFromName(std::wstring_view(item.Path).substr(0, slash));
    if (root == nullptr) {
        return false;
    }
    std::wstring key = item.Path.substr(slash + 1);
    ToLowerInPlace(key);
    if (EndsWith(key, L"\\")) {
        // The trim aims at the position of the whole path's last character, which always lies
        // past the end of the key: a Run key written with a final backslash is refused here.
        const size_t position = item.Path.size() - 1;
        if (position > key.size()) {
            throw std::out_of_range("invalid string position");
        }
        key.erase(position, 1);
    }
    if (!EndsWith(key, L"run")) {
        return false;  // RunOnce and every other key
    }
    key.resize(key.size() - 3);
    constexpr std::wstring_view kWow64 = L"wow6432node\\";
    const size_t wow64 = key.find(kWow64);
    if (wow64 != std::wstring::npos) {
        key.erase(wow64, kWow64.size());
        key += L"explorer\\startupapproved\\run32";
    } else {
        key += L"explorer\\startupapproved\\run";
    }
    subKey = key;
    return true;
}

DWORD Win8StartupItem::GetItemRegValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                                       BYTE* data, DWORD& length)
{
    if (subKey == nullptr || valueName == nullptr || data == nullptr || length == 0) {
        return ERROR_GEN_FAILURE;
    }
    support::UniqueHKey key;
    if (const LSTATUS status = support::OpenKey(root, subKey, KEY_QUERY_VALUE, key); status != ERROR_SUCCESS) {
        QM_LOG_ERROR(kGetFunction, L"failed open %s %s", HiveName(root), subKey);
        return static_cast<DWORD>(status);
    }
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExW(key.get(), valueName, nullptr, &type, data, &length);
    if (status == ERROR_FILE_NOT_FOUND) {
        length = 0;  // no value yet: nothing recorded means enabled
        return ERROR_SUCCESS;
    }
    if (status == ERROR_SUCCESS && type != REG_BINARY) {
        return ERROR_GEN_FAILURE;
    }
    return static_cast<DWORD>(status);
}

DWORD Win8StartupItem::SetItemRegValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                                       const BYTE* data, DWORD length)
{
    if (subKey == nullptr || valueName == nullptr || data == nullptr || length == 0) {
        return ERROR_GEN_FAILURE;
    }
    support::UniqueHKey key;
    if (support::OpenKey(root, subKey, KEY_SET_VALUE, key) != ERROR_SUCCESS) {
        QM_LOG_ERROR(kSetFunction, L"failed open %s %s, try create", HiveName(root), subKey);
        if (const LSTATUS status = support::CreateKey(root, subKey, KEY_ALL_ACCESS, key); status != ERROR_SUCCESS) {
            QM_LOG_ERROR(kSetFunction, L"failed create %s %s", HiveName(root), subKey);
            return static_cast<DWORD>(status);
        }
    }
    const LSTATUS status = RegSetValueExW(key.get(), valueName, 0, REG_BINARY, data, length);
    if (status != ERROR_SUCCESS) {
        QM_LOG_ERROR(kSetFunction, L"failed set value %s %s %s", HiveName(root), subKey, valueName);
    }
    return static_cast<DWORD>(status);
}

DWORD Win8StartupItem::Enable(const storage::StartupItem& item, const std::uint32_t& kind)
{
    logging::ScopeTrace trace(L"Win8StartupItem::Enable");
    const wchar_t* function = trace.FunctionName();
    ApprovedValue value;
    if (const DWORD read = ReadApproved(item, kind, function, ReadFailure::Fails, value); read != ERROR_SUCCESS) {
        return read;
    }
    const DWORD state = value.length == 0 ? 0 : ReadStateWord(value.data);
    if (state == 0 || state == 2) {
        QM_LOG_INFO(function, L"item is enabled");
        return ERROR_SUCCESS;
    }
    return WriteState(value, item, state == 1 ? 0 : 2, function);
}

DWORD Win8StartupItem::Disable(const storage::StartupItem& item, const std::uint32_t& kind)
{
    logging::ScopeTrace trace(L"Win8StartupItem::Disable");
    const wchar_t* function = trace.FunctionName();
    ApprovedValue value;
    if (const DWORD read = ReadApproved(item, kind, function, ReadFailure::StartsFresh, value);
        read != ERROR_SUCCESS) {
        return read;
    }
    const DWORD state = ReadStateWord(value.data);
    if (state == 1 || state == 3) {
        QM_LOG_INFO(function, L"item is disabled");
        return ERROR_SUCCESS;
    }
    return WriteState(value, item, state == 0 ? 1 : 3, function);
}

} // namespace actions
