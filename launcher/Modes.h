// The launcher's three modes. Each returns true; the entry point ignores the result.
#pragma once

#include <cstdint>
#include <string>

namespace launcher {

// Starts every saved delayed item whose target exists and whose change time is within the
// limit (0 means no limit).
bool StartApps(std::int64_t timeLimit);
// Starts one command line; true when the process was created.
bool StartApp(const std::wstring& commandLine);

// Puts every saved item back into its startup location and removes it from the store.
bool RestoreApps();

// Applies the saved delayed and disabled states once more, without writing the store.
bool CheckCrtUserApps();

} // namespace launcher
