#include "ctl/Locations.h"

#include "actions/Win8StartupItem.h"
#include "ctl/Shortcut.h"
#include "support/Handles.h"

#include <shlobj.h>

#include <cstring>
#include <cwchar>
#include <vector>

namespace ctl {

namespace {

struct RunLocation {
    const wchar_t* label;
    HKEY root;
    const wchar_t* hiveName;  // the full name that saved items carry in their Path
    const wchar_t* key;
    bool isUser;
};

const RunLocation kRunLocations[] = {
    {L"HKCU\\Run", HKEY_CURRENT_USER, L"HKEY_CURRENT_USER", L"Software\\Microsoft\\Windows\\CurrentVersion\\Run",
     true},
    {L"HKLM\\Run", HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE", L"Software\\Microsoft\\Windows\\CurrentVersion\\Run",
     false},
    {L"HKLM\\Run32", HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE",
     L"Software\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Run", false},
};

struct FolderLocation {
    const wchar_t* label;
    int csidl;
    bool isUser;
};

const FolderLocation kFolderLocations[] = {
    {L"Startup", CSIDL_STARTUP, true},
    {L"CommonStartup", CSIDL_COMMON_STARTUP, false},
};

// Below HKEY_CLASSES_ROOT, which on Windows merges the user's own classes into the machine's.
constexpr wchar_t kTaskRoot[] = L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";

std::wstring RunKeyPath(const RunLocation& run)
{
    return std::wstring(run.hiveName) + L"\\" + run.key;
}

std::wstring FolderPath(int csidl)
{
    wchar_t folder[MAX_PATH] = {};
    if (!SHGetSpecialFolderPathW(nullptr,  // no owner window
                                 folder, csidl, FALSE /* do not create */)) {
        return {};
    }
    return folder;
}

std::vector<std::wstring> SubKeyNames(HKEY key)
{
    std::vector<std::wstring> names;
    wchar_t name[256];
    for (DWORD index = 0;; ++index) {
        DWORD chars = 256;
        if (RegEnumKeyExW(key, index, name, &chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            return names;
        }
        names.emplace_back(name, chars);
    }
}

void ReadRunKey(const RunLocation& run, bool windows8, std::vector<LocationEntry>& entries)
{
    support::UniqueHKey key;
    if (support::OpenKey(run.root, run.key, KEY_QUERY_VALUE, key) != ERROR_SUCCESS) {
        return;
    }
    std::vector<wchar_t> name(16384);
    std::vector<BYTE> data(65536);
    for (DWORD index = 0;; ++index) {
        DWORD nameChars = static_cast<DWORD>(name.size());
        DWORD type = REG_NONE;
        DWORD bytes = static_cast<DWORD>(data.size() - sizeof(wchar_t));
        const LSTATUS status = RegEnumValueW(key.get(), index, name.data(), &nameChars,
                                             nullptr,  // reserved
                                             &type, data.data(), &bytes);
        if (status == ERROR_NO_MORE_ITEMS) {
            return;
        }
        if (status != ERROR_SUCCESS || nameChars == 0 || (type != REG_SZ && type != REG_EXPAND_SZ)) {
            continue;  // a value too large to be a command, the default value, or no text
        }
        std::memset(data.data() + bytes, 0, sizeof(wchar_t));  // the data need not end in a null
        LocationEntry entry;
        entry.kind = EntryKind::RunValue;
        entry.location = run.label;
        entry.item.Name.assign(name.data(), nameChars);
        entry.item.Path = RunKeyPath(run);
        entry.item.Cmd = reinterpret_cast<const wchar_t*>(data.data());
        entry.item.IsUser = run.isUser;
        entry.switchedOn = !windows8 || ApprovedSaysOn(entry.item, EntryKind::RunValue);
        entries.push_back(std::move(entry));
    }
}

void ReadFolder(const FolderLocation& folder, bool windows8, std::vector<LocationEntry>& entries)
{
    const std::wstring path = FolderPath(folder.csidl);
    if (path.empty()) {
        return;
    }
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        // Folders (the backup folder among them), hidden files and desktop.ini are not entries.
        if ((found.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN)) != 0 ||
            _wcsicmp(found.cFileName, L"desktop.ini") == 0) {
            continue;
        }
        LocationEntry entry;
        entry.kind = EntryKind::FolderFile;
        entry.location = folder.label;
        entry.item.Name = found.cFileName;
        entry.item.Path = path;
        const std::wstring file = path + L"\\" + found.cFileName;
        // The launcher starts a shortcut's own command; any other file is started where it lies.
        entry.item.Cmd = IsShortcutName(entry.item.Name) ? ReadShortcutCommand(file) : file;
        entry.item.IsUser = folder.isUser;
        entry.switchedOn = !windows8 || ApprovedSaysOn(entry.item, EntryKind::FolderFile);
        entries.push_back(std::move(entry));
    } while (FindNextFileW(search, &found));
    FindClose(search);
}

void ReadStoreTasks(std::vector<LocationEntry>& entries)
{
    support::UniqueHKey packages;
    if (support::OpenKey(HKEY_CLASSES_ROOT, kTaskRoot, KEY_ENUMERATE_SUB_KEYS, packages) != ERROR_SUCCESS) {
        return;
    }
    for (const std::wstring& package : SubKeyNames(packages.get())) {
        support::UniqueHKey tasks;
        if (support::OpenKey(packages.get(), package.c_str(), KEY_ENUMERATE_SUB_KEYS, tasks) != ERROR_SUCCESS) {
            continue;
        }
        for (const std::wstring& task : SubKeyNames(tasks.get())) {
            DWORD state = 0;
            DWORD size = sizeof state;
            if (RegGetValueW(tasks.get(), task.c_str(), L"State", RRF_RT_REG_DWORD, nullptr, &state, &size) !=
                ERROR_SUCCESS) {
                continue;  // not a startup task
            }
            LocationEntry entry;
            entry.kind = EntryKind::StoreTask;
            entry.location = L"StoreApp\\" + package;
            entry.item.Name = task;
            entry.item.Path = std::wstring(kTaskRoot) + L"\\" + package + L"\\" + task;
            entry.item.IsUser = true;
            entry.taskState = state;
            entry.switchedOn = state == kTaskOn || state == kTaskOnByPolicy;
            entries.push_back(std::move(entry));
        }
    }
}

std::wstring WithoutFinalBackslash(std::wstring path)
{
    while (!path.empty() && path.back() == L'\\') {
        path.pop_back();
    }
    return path;
}

} // namespace

std::wstring Folded(const std::wstring& text)
{
    std::wstring folded = text;
    if (!folded.empty()) {
        CharUpperBuffW(folded.data(), static_cast<DWORD>(folded.size()));
    }
    return folded;
}

bool ApprovedSaysOn(const storage::StartupItem& item, EntryKind kind)
{
    const std::uint32_t approvedKind = kind == EntryKind::FolderFile ? actions::FolderShortcut : actions::RunValue;
    HKEY root = nullptr;
    std::wstring subKey;
    try {
        if (!actions::Win8StartupItem::GetItemRegKey(item, approvedKind, root, subKey) || root == nullptr) {
            return true;
        }
    } catch (const std::exception&) {
        return true;  // a key Explorer does not approve at all
    }
    BYTE data[actions::Win8StartupItem::kBufferBytes] = {};
    DWORD size = sizeof data;
    if (RegGetValueW(root, subKey.c_str(), item.Name.c_str(), RRF_RT_REG_BINARY, nullptr, data, &size) !=
            ERROR_SUCCESS ||
        size < sizeof(DWORD)) {
        return true;
    }
    DWORD state = 0;
    std::memcpy(&state, data, sizeof state);
    return state != 1 && state != 3;
}

std::vector<LocationEntry> ReadLocations(bool windows8)
{
    std::vector<LocationEntry> entries;
    for (const auto& run : kRunLocations) {
        ReadRunKey(run, windows8, entries);
    }
    for (const auto& folder : kFolderLocations) {
        ReadFolder(folder, windows8, entries);
    }
    if (windows8) {
        ReadStoreTasks(entries);
    }
    return entries;
}

std::optional<std::wstring> LocationOfPath(EntryKind kind, const std::wstring& path)
{
    const std::wstring wanted = Folded(WithoutFinalBackslash(path));
    if (kind == EntryKind::RunValue) {
        for (const auto& run : kRunLocations) {
            if (Folded(RunKeyPath(run)) == wanted) {
                return std::wstring(run.label);
            }
        }
    } else if (kind == EntryKind::FolderFile) {
        for (const auto& folder : kFolderLocations) {
            const std::wstring folderPath = FolderPath(folder.csidl);
            if (!folderPath.empty() && Folded(WithoutFinalBackslash(folderPath)) == wanted) {
                return std::wstring(folder.label);
            }
        }
    }
    return std::nullopt;
}

} // namespace ctl
