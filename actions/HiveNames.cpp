#include "actions/HiveNames.h"

#include <string>

namespace actions {

namespace {

struct Hive {
    const wchar_t* name;
    HKEY root;
};

const Hive kHives[] = {
    {L"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
    {L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
    {L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
    {L"HKEY_USERS", HKEY_USERS},
    {L"HKEY_CURRENT_CONFIG", HKEY_CURRENT_CONFIG},
};

} // namespace

HKEY HiveFromName(std::wstring_view name)
{
    for (const auto& hive : kHives) {
        if (name == hive.name) {
            return hive.root;
        }
    }
    return nullptr;
}

const wchar_t* HiveName(HKEY root)
{
    for (const auto& hive : kHives) {
        if (root == hive.root) {
            return hive.name;
        }
    }
    return L"HKEY_UNKNOWN";
}

bool SplitRegistryPath(std::wstring_view path, HKEY& root, std::wstring& keyPath)
{
    const size_t slash = path.find(L'\\');
    if (slash == std::wstring_view::npos) {
        return false;
    }
    root = HiveFromName(path.substr(0, slash));
    if (root == nullptr) {
        return false;
    }
    keyPath.assign(path.substr(slash + 1));
    return true;
}

} // namespace actions
