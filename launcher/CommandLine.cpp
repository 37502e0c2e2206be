#include "launcher/CommandLine.h"

#include "support/Handles.h"
#include "support/ProgramFolder.h"

#include <windows.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cstdint>
#include <cwchar>
#include <vector>

namespace launcher {

namespace {

constexpr DWORD kPathBufferChars = 32767;
constexpr wchar_t kFeatureFolder[] = L"Quillmark\\Dawnstep\\";
constexpr wchar_t kStorageFile[] = L"Storage.json";

template <size_t N>
bool StartsWith(const wchar_t* argument, const wchar_t (&prefix)[N])
{
    return wcsncmp(argument, prefix, N - 1) == 0;
}

bool EndsWithBackslash(const std::wstring& text)
{
    return !text.empty() && text.back() == L'\\';
}

void AppendBackslash(std::wstring& text)
{
    if (!EndsWithBackslash(text)) {
        text += L'\\';
    }
}

std::wstring RoamingAppDataFolder()
{
    std::vector<wchar_t> buffer(kPathBufferChars);
    if (!SHGetSpecialFolderPathW(nullptr,  // no owner window
                                 buffer.data(), CSIDL_APPDATA, FALSE /* do not create */)) {
        return {};
    }
    return buffer.data();
}

// The number at the start of text, read the way _wtoi64 documents it: leading blanks, an
// optional sign, decimal digits up to the first other character, 0 when there are none, and
// the 64-bit limit of the sign on overflow. Wine's msvcrt wraps around instead; a bound that
// wraps would silently start the wrong items, so the documented behaviour is kept here.
std::int64_t ReadTimeLimit(const wchar_t* text)
{
    while (*text == L' ' || *text == L'\t') {
        ++text;
    }
    const bool negative = *text == L'-';
    if (*text == L'-' || *text == L'+') {
        ++text;
    }
    std::uint64_t magnitude = 0;
    const std::uint64_t limit = negative ? static_cast<std::uint64_t>(INT64_MAX) + 1 : INT64_MAX;
    for (; *text >= L'0' && *text <= L'9'; ++text) {
        const unsigned digit = static_cast<unsigned>(*text - L'0');
        if (magnitude > (limit - digit) / 10) {
            return negative ? INT64_MIN : INT64_MAX;
        }
        magnitude = magnitude * 10 + digit;
    }
    return negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
}

} // namespace

LaunchSettings ParseCommandLine(const wchar_t* commandLine)
{
    LaunchSettings settings;
    int count = 0;
    support::UniqueLocal<LPWSTR> argv(CommandLineToArgvW(commandLine ? commandLine : L"", &count));
    if (!argv) {
        return settings;
    }
    for (int i = 0; i < count; ++i) {
        const wchar_t* argument = argv.get()[i];
        if (StartsWith(argument, L"/restore")) {
            settings.restore = true;
        } else if (StartsWith(argument, L"/time:")) {
            settings.timeLimit = ReadTimeLimit(argument + 6);
        } else if (StartsWith(argument, L"/checkcrtuser")) {
            settings.checkCurrentUser = true;
        } else if (StartsWith(argument, L"/checkuser:")) {
            settings.checkUser = true;
            settings.userFolder = argument + 11;
        }
    }
    return settings;
}

bool CreateFolderTree(const std::wstring& folder)
{
    // Walk up to the first folder that exists, then create the missing ones top down. Done
    // without recursion: a path of 32,767 backslashes must not exhaust the stack.
    std::vector<std::wstring> missing;
    std::wstring current = folder;
    while (!current.empty() && !PathFileExistsW(current.c_str())) {
        while (EndsWithBackslash(current)) {
            current.pop_back();
        }
        if (current.empty()) {
            break;
        }
        missing.push_back(current);
        const size_t lastSlash = current.rfind(L'\\');
        current = lastSlash == std::wstring::npos ? std::wstring() : current.substr(0, lastSlash);
    }
    bool created = true;
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        created = CreateDirectoryW(it->c_str(), nullptr /* default security */) ||
                  GetLastError() == ERROR_ALREADY_EXISTS;
    }
    return created;
}

std::wstring BuildStoragePath(const std::wstring& userFolder)
{
    std::wstring path = userFolder;
    if (path.empty()) {
        path = RoamingAppDataFolder();
    }
    if (!path.empty()) {
        AppendBackslash(path);
        path += kFeatureFolder;
        CreateFolderTree(path);  // a failure shows later, when the store cannot open its file
    } else {
        // Neither folder is known: the store lies beside the program, and nothing is created.
        path = support::ProgramFolder();
    }
    // Both folders end in a backslash by now; with neither, the file name stands alone, relative
    // to the current folder.
    return path + kStorageFile;
}

} // namespace launcher
