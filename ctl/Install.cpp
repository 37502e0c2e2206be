#include "ctl/Install.h"

#include "ctl/Console.h"
#include "ctl/EntryChanges.h"
#include "support/Handles.h"
#include "support/ProgramFolder.h"

#include <windows.h>

namespace ctl {

namespace {

constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kValueName[] = L"Morrowgate";

int Fail(const std::wstring& message)
{
    Err(L"mgctl: " + message + L"\r\n");
    return 1;
}

} // namespace

int Install()
{
    const std::wstring launcher = support::ProgramFolder() + L"Morrowgate.exe";
    if (GetFileAttributesW(launcher.c_str()) == INVALID_FILE_ATTRIBUTES) {
        return Fail(L"Morrowgate.exe is not beside mgctl.exe (" + launcher + L"); nothing was registered");
    }
    support::UniqueHKey key;
    LSTATUS status = support::CreateKey(HKEY_CURRENT_USER, kRunKey, KEY_SET_VALUE, key);
    if (status == ERROR_SUCCESS) {
        const std::wstring command = L"\"" + launcher + L"\"";
        status = RegSetValueExW(key.get(), kValueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(command.c_str()),
                                static_cast<DWORD>((command.size() + 1) * sizeof(wchar_t)));
    }
    if (status != ERROR_SUCCESS) {
        return Fail(L"could not write HKCU\\" + std::wstring(kRunKey) + L"\\" + kValueName + L" (error " +
                    std::to_wstring(status) + L")");
    }
    Out(L"Morrowgate.exe runs at logon: HKCU\\Run\\Morrowgate = \"" + launcher + L"\"\r\n");
    return 0;
}

int Uninstall()
{
    if (EnableAllSaved() != 0) {
        return Fail(L"Morrowgate stays registered at logon, so that the items still saved are not forgotten");
    }
    support::UniqueHKey key;
    LSTATUS status = support::OpenKey(HKEY_CURRENT_USER, kRunKey, KEY_SET_VALUE, key);
    if (status == ERROR_SUCCESS) {
        status = RegDeleteValueW(key.get(), kValueName);
    }
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        return Fail(L"could not delete HKCU\\Run\\Morrowgate (error " + std::to_wstring(status) + L")");
    }
    Out(L"Morrowgate no longer runs at logon\r\n");
    return 0;
}

} // namespace ctl
