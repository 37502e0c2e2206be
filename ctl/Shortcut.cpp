#include "ctl/Shortcut.h"

#include <windows.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <cwchar>

namespace ctl {

namespace {

// The shell link's identifiers, defined here rather than taken from libuuid, whose one object
// holds every identifier of the SDK.
constexpr CLSID kShellLink = {0x00021401, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
constexpr IID kShellLinkW = {0x000214f9, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
constexpr IID kPersistFile = {0x0000010b, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// Releases a COM interface when it goes.
template <typename T> class ComPtr {
public:
    ComPtr() = default;
    ~ComPtr()
    {
        if (m_pointer != nullptr) {
            m_pointer->Release();
        }
    }
    ComPtr(const ComPtr&) = delete;
    ComPtr& operator=(const ComPtr&) = delete;
    T* operator->() const { return m_pointer; }
    T** put() { return &m_pointer; }
    T* get() const { return m_pointer; }

private:
    T* m_pointer = nullptr;
};

} // namespace

bool IsShortcutName(const std::wstring& name)
{
    return name.size() >= 4 && _wcsicmp(name.c_str() + name.size() - 4, L".lnk") == 0;
}

std::wstring ReadShortcutCommand(const std::wstring& path)
{
    ComPtr<IShellLinkW> link;
    if (FAILED(CoCreateInstance(kShellLink, nullptr,  // not aggregated
                                CLSCTX_INPROC_SERVER, kShellLinkW, reinterpret_cast<void**>(link.put())))) {
        return {};
    }
    ComPtr<IPersistFile> file;
    if (FAILED(link->QueryInterface(kPersistFile, reinterpret_cast<void**>(file.put()))) ||
        FAILED(file->Load(path.c_str(), STGM_READ))) {
        return {};
    }
    wchar_t target[MAX_PATH] = {};
    if (link->GetPath(target, MAX_PATH, nullptr, SLGP_RAWPATH) != S_OK || target[0] == L'\0') {
        return {};  // a shell item, not a file
    }
    wchar_t arguments[INFOTIPSIZE] = {};
    if (FAILED(link->GetArguments(arguments, INFOTIPSIZE))) {
        arguments[0] = L'\0';
    }
    std::wstring command = L"\"" + std::wstring(target) + L"\"";
    if (arguments[0] != L'\0') {
        command += L" ";
        command += arguments;
    }
    return command;
}

} // namespace ctl
