#include "ctl/Console.h"

#include <windows.h>

namespace ctl {

namespace {

void WriteTo(DWORD which, const std::wstring& text)
{
    const HANDLE handle = GetStdHandle(which);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE || text.empty()) {
        return;
    }
    DWORD written = 0;
    DWORD mode = 0;
    if (GetConsoleMode(handle, &mode)) {
        WriteConsoleW(handle, text.data(), static_cast<DWORD>(text.size()), &written,
                      nullptr);  // reserved
        return;
    }
    const std::string bytes = ToUtf8(text);
    WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written,
              nullptr);  // not overlapped
}

} // namespace

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty()) {
        return {};
    }
    const int size = static_cast<int>(text.size());
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, utf8.data(), bytes, nullptr, nullptr);
    return utf8;
}

std::wstring FromUtf8(const std::string& text)
{
    if (text.empty()) {
        return {};
    }
    const int size = static_cast<int>(text.size());
    const int chars = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(chars), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), chars);
    return wide;
}

void Out(const std::wstring& text)
{
    WriteTo(STD_OUTPUT_HANDLE, text);
}

void Err(const std::wstring& text)
{
    WriteTo(STD_ERROR_HANDLE, text);
}

} // namespace ctl
