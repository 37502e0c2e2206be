#include "actions/MicrosoftStoreStartupItem.h"

#include "actions/HiveNames.h"
#include "support/Handles.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

namespace actions {

namespace {

constexpr wchar_t kStateValue[] = L"State";
constexpr wchar_t kGetFunction[] = L"MicrosoftStoreStartupItem::GetItemRegValue";
constexpr wchar_t kSetFunction[] = L"MicrosoftStoreStartupItem::SetItemRegValue";

bool IsMissing(const wchar_t* subKey)
{
    // An empty subkey would name HKEY_CLASSES_ROOT itself.
    return subKey == nullptr || *subKey == L'\0';
}

} // namespace

DWORD MicrosoftStoreStartupItem::GetItemRegValue(HKEY root, const wchar_t* subKey, DWORD& state)
{
    if (IsMissing(subKey)) {
        return ERROR_GEN_FAILURE;
    }
    state = 0;
    DWORD read = 0;
    DWORD size = sizeof read;
    const LSTATUS status = RegGetValueW(root, subKey, kStateValue, RRF_RT_REG_DWORD,
                                        nullptr,  // type not needed: restricted to REG_DWORD
                                        &read, &size);
    if (status != ERROR_SUCCESS) {
        QM_LOG_ERROR(kGetFunction, L"RegQueryInfoKey %s failed 0x%x", subKey, static_cast<unsigned>(status));
        return static_cast<DWORD>(status);
    }
    state = read;
    return ERROR_SUCCESS;
}

DWORD MicrosoftStoreStartupItem::SetItemRegValue(HKEY root, const wchar_t* subKey, DWORD state)
{
    if (IsMissing(subKey)) {
        return ERROR_GEN_FAILURE;
    }
    support::UniqueHKey key;
    if (const LSTATUS status = support::OpenKey(root, subKey, KEY_SET_VALUE, key); status != ERROR_SUCCESS) {
        // The message promises a create, but a task key that is gone is left gone.
        QM_LOG_ERROR(kSetFunction, L"failed open %s %s, try create", HiveName(root), subKey);
        return static_cast<DWORD>(status);
    }
    const LSTATUS status =
        RegSetValueExW(key.get(), kStateValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&state), sizeof state);
    if (status != ERROR_SUCCESS) {
        QM_LOG_ERROR(kSetFunction, L"failed set value %s %s %s", HiveName(root), subKey, kStateValue);
    }
    return static_cast<DWORD>(status);
}

DWORD MicrosoftStoreStartupItem::Enable(const storage::StartupItem& item)
{
    logging::ScopeTrace trace(L"MicrosoftStoreStartupItem::Enable");
    const wchar_t* function = trace.FunctionName();
    QM_LOG_TRACE(function, L"%s %s", item.Path.c_str(), item.Name.c_str());
    DWORD state = 0;
    const DWORD read = GetItemRegValue(HKEY_CLASSES_ROOT, item.Path.c_str(), state);
    if (read != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"GetItemRegValue failed 0x%x", GetLastError());
        return read;
    }
    if (state == kStateEnabled) {
        QM_LOG_INFO(function, L"item is enabled");
        return ERROR_SUCCESS;
    }
    // 0 becomes 1, not 2: a task that never had a state is not switched on by us.
    const DWORD written =
        SetItemRegValue(HKEY_CLASSES_ROOT, item.Path.c_str(), state == 0 ? kStateDisabled : kStateEnabled);
    if (written != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"SetItemRegValue failed 0x%x", GetLastError());
    }
    return written;
}

DWORD MicrosoftStoreStartupItem::Disable(const storage::StartupItem& item)
{
    logging::ScopeTrace trace(L"MicrosoftStoreStartupItem::Disable");
    const wchar_t* function = trace.FunctionName();
    QM_LOG_TRACE(function, L"%s %s", item.Path.c_str(), item.Name.c_str());
    DWORD state = 0;
    if (GetItemRegValue(HKEY_CLASSES_ROOT, item.Path.c_str(), state) != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"GetItemRegValue failed 0x%x", GetLastError());
        state = kStateDisabled;  // nothing readable to switch off: done, without a write
    }
    if (state == kStateDisabled) {
        QM_LOG_INFO(function, L"item is disabled");
        return ERROR_SUCCESS;
    }
    const DWORD written = SetItemRegValue(HKEY_CLASSES_ROOT, item.Path.c_str(), kStateDisabled);
    if (written != ERROR_SUCCESS) {
        QM_LOG_ERROR(function, L"SetItemRegValue failed 0x%x", GetLastError());
    }
    return written;
}

} // namespace actions
