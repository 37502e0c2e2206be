// Finds the file that a startup command line really runs, so that it can be tested for
// existence. Pure: depends only on the input, the environment and the search path.
#pragma once

#include <string>

namespace actions {

// True with the file's path in target; false for an empty command, a DLL host without an
// argument, or a bare file name that is not on the search path.
bool ResolveCommandTarget(const wchar_t* commandLine, std::wstring& target);

// Rebuilds an unquoted path with blanks: joins argv[0..] with single blanks up to and
// including the first argument that contains ".exe" or ".bat" (case-blind).
void JoinArgumentsUntilExecutable(wchar_t** argv, int argc, std::wstring& target);

// Lower-cases each character with the user's default locale.
void ToLowerInPlace(std::wstring& text);

} // namespace actions
