// One owner per kind of Windows handle, each closed by the function that matches it.
#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace support {

struct RegKeyCloser {
    void operator()(HKEY key) const noexcept { RegCloseKey(key); }
};
struct ModuleFreer {
    void operator()(HMODULE module) const noexcept { FreeLibrary(module); }
};
struct HandleCloser {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
struct LocalFreer {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};

using UniqueHKey = std::unique_ptr<std::remove_pointer_t<HKEY>, RegKeyCloser>;

// Opens root\subKey straight into its owner, so that no raw HKEY is ever left to close. The
// owner is emptied first and stays empty when the open fails.
inline LSTATUS OpenKey(HKEY root, const wchar_t* subKey, REGSAM access, UniqueHKey& key)
{
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(root, subKey, 0, access, &opened);
    key.reset(status == ERROR_SUCCESS ? opened : nullptr);
    return status;
}

// The same for RegCreateKeyExW: opens root\subKey, creating it (non-volatile, default security)
// when it is missing.
inline LSTATUS CreateKey(HKEY root, const wchar_t* subKey, REGSAM access, UniqueHKey& key)
{
    HKEY created = nullptr;
    const LSTATUS status = RegCreateKeyExW(root, subKey, 0,
                                           nullptr,  // no class
                                           REG_OPTION_NON_VOLATILE, access,
                                           nullptr,  // default security
                                           &created,
                                           nullptr);  // created or opened: either will do
    key.reset(status == ERROR_SUCCESS ? created : nullptr);
    return status;
}

using UniqueModule = std::unique_ptr<std::remove_pointer_t<HMODULE>, ModuleFreer>;
// For handles whose invalid value is null (processes, threads, semaphores, mappings).
using UniqueHandle = std::unique_ptr<void, HandleCloser>;
// For memory that an API hands back to be freed with LocalFree (CommandLineToArgvW).
template <typename T>
using UniqueLocal = std::unique_ptr<T, LocalFreer>;

// File handles report failure as INVALID_HANDLE_VALUE, not null.
class UniqueFile {
public:
    UniqueFile() = default;
    explicit UniqueFile(HANDLE handle) noexcept : m_handle(handle) {}
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;
    UniqueFile(UniqueFile&& other) noexcept : m_handle(other.release()) {}
    UniqueFile& operator=(UniqueFile&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~UniqueFile() { reset(); }

    HANDLE get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE release() noexcept
    {
        HANDLE handle = m_handle;
        m_handle = INVALID_HANDLE_VALUE;
        return handle;
    }
    void reset(HANDLE handle = INVALID_HANDLE_VALUE) noexcept
    {
        if (m_handle != INVALID_HANDLE_VALUE) {
            CloseHandle(m_handle);
        }
        m_handle = handle;
    }

private:
    HANDLE m_handle = INVALID_HANDLE_VALUE;
};

// GetProcAddress into a pointer typed from the export's signature. The detour through a
// generic function pointer keeps GCC's -Wcast-function-type quiet.
template <typename Fn>
Fn GetExport(HMODULE module, const char* name) noexcept
{
    FARPROC proc = GetProcAddress(module, name);
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(proc));
}

} // namespace support
