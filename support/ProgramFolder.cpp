#include "support/ProgramFolder.h"

#include <windows.h>

#include <vector>

namespace support {

std::wstring ProgramFolder()
{
    constexpr DWORD kPathBufferChars = 32767;
    std::vector<wchar_t> buffer(kPathBufferChars);
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), kPathBufferChars);
    if (length == 0 || length >= kPathBufferChars) {
        return {};
    }
    std::wstring path(buffer.data(), length);
    const size_t lastSlash = path.rfind(L'\\');
    if (lastSlash == std::wstring::npos) {
        return {};
    }
    path.resize(lastSlash + 1);
    return path;
}

} // namespace support
