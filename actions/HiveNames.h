// The fixed table between full hive names and the predefined root keys.
#pragma once

#include <windows.h>

#include <string_view>

namespace actions {

// Exact, case-sensitive lookup ("HKEY_CURRENT_USER" ...); null for an unknown name.
HKEY HiveFromName(std::wstring_view name);
// The full name of a root key, "HKEY_UNKNOWN" for any other handle (for messages only).
const wchar_t* HiveName(HKEY root);

// Splits "<hive>\<key path>" at its first backslash. False for a path without a backslash or
// with an unknown hive name.
bool SplitRegistryPath(std::wstring_view path, HKEY& root, std::wstring& keyPath);

} // namespace actions
