// Shared by the doubles of the suite's libraries: each call they receive is appended, one line
// each, to the file named by QMSUITE_RECORD, so that a test sees from outside the process which
// calls arrived and in what order. Without the variable nothing is recorded.
#pragma once

#include <windows.h>

#include <cstdio>
#include <string>

namespace doubles {

inline void Record(const std::wstring& text, const wchar_t* fileVariable = L"QMSUITE_RECORD")
{
    wchar_t path[32768];
    const DWORD length = GetEnvironmentVariableW(fileVariable, path, 32768);
    if (length == 0 || length >= 32768) {
        return;
    }
    const std::wstring line = text + L"\n";
    const int size = WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()),
                                         nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), bytes.data(), size,
                        nullptr, nullptr);
    HANDLE file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return;
    }
    DWORD written = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
}

// The value of an environment variable, or nothing when it is not set.
inline bool ReadSetting(const wchar_t* name, std::wstring& value)
{
    wchar_t buffer[32768];
    SetLastError(ERROR_SUCCESS);
    const DWORD length = GetEnvironmentVariableW(name, buffer, 32768);
    if (length >= 32768 || (length == 0 && GetLastError() == ERROR_ENVVAR_NOT_FOUND)) {
        return false;
    }
    value.assign(buffer, length);
    return true;
}

inline std::wstring FormatGuid(const GUID& id)
{
    wchar_t text[40];
    _snwprintf(text, 40, L"{%08lx-%04hx-%04hx-%02x%02x-%02x%02x%02x%02x%02x%02x}",
               static_cast<unsigned long>(id.Data1), id.Data2, id.Data3, id.Data4[0], id.Data4[1],
               id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

// Records load and unload. At process exit (reserved != null) nothing is recorded, so an
// "unload" line always means that the program freed the library.
inline void RecordAttachDetach(const wchar_t* library, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH) {
        Record(std::wstring(library) + L" load");
    } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
        Record(std::wstring(library) + L" unload");
    }
}

} // namespace doubles
