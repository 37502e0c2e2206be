#pragma once

#include <string>

namespace support {

// The folder of the running program with its final backslash, or empty when the program's
// path cannot be read or holds no backslash.
std::wstring ProgramFolder();

} // namespace support
