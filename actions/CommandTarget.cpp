#include "actions/CommandTarget.h"

#include "support/Handles.h"

#include <windows.h>
#include <shellapi.h>
#include <shlwapi.h>

#include <cwchar>
#include <memory>

namespace actions {

namespace {

constexpr DWORD kExpandBufferChars = 32767;

bool ContainsExecutableExtension(const wchar_t* argument)
{
    std::wstring lowered = argument;
    ToLowerInPlace(lowered);
    return lowered.find(L".exe") != std::wstring::npos || lowered.find(L".bat") != std::wstring::npos;
}

bool EndsWithComma(const std::wstring& text)
{
    return !text.empty() && text.back() == L',';
}

// The DLL path of a "rundll32.exe <dll>,<entry>" command: a comma at the end of an argument
// ends it; a comma inside one (x.dll,Entry) stays.
void TakeDllArgument(wchar_t** argv, int argc, std::wstring& target)
{
    target = argv[1];
    if (!target.empty() && target.front() == L'"') {
        return;
    }
    if (EndsWithComma(target)) {
        target.pop_back();
        return;
    }
    for (int i = 2; i < argc; ++i) {
        target += L' ';
        target += argv[i];
        if (EndsWithComma(target)) {
            target.pop_back();
            return;
        }
    }
}

} // namespace

void ToLowerInPlace(std::wstring& text)
{
    // One character at a time: libstdc++ on Windows has no named locales, so the user's
    // default locale is asked for directly.
    for (wchar_t& character : text) {
        wchar_t lowered = character;
        if (LCMapStringEx(LOCALE_NAME_USER_DEFAULT, LCMAP_LOWERCASE, &character, 1, &lowered, 1,
                          nullptr, nullptr, 0) == 1) {
            character = lowered;
        }
    }
}

void JoinArgumentsUntilExecutable(wchar_t** argv, int argc, std::wstring& target)
{
    target = argv[0];
    if (ContainsExecutableExtension(argv[0])) {
        return;
    }
    for (int i = 1; i < argc; ++i) {
        target += L' ';
        target += argv[i];
        if (ContainsExecutableExtension(argv[i])) {
            return;
        }
    }
}

bool ResolveCommandTarget(const wchar_t* commandLine, std::wstring& target)
{
    int argc = 0;
    support::UniqueLocal<LPWSTR> argv(CommandLineToArgvW(commandLine ? commandLine : L"", &argc));
    if (!argv || argc == 0) {
        return false;
    }
    wchar_t** args = argv.get();
    // Only the bare host name counts: with a folder in front it is an ordinary program.
    if (_wcsicmp(args[0], L"rundll32.exe") == 0 || _wcsicmp(args[0], L"rundll.exe") == 0) {
        if (argc < 2) {
            return false;
        }
        TakeDllArgument(args, argc, target);
    } else {
        JoinArgumentsUntilExecutable(args, argc, target);
    }

    // Searched before expansion, on purpose: "%windir%\notepad.exe" is never searched for.
    if (target.find(L'\\') == std::wstring::npos) {
        wchar_t found[MAX_PATH];
        if (target.size() >= MAX_PATH) {
            return false;  // no file name of that length can be on the path
        }
        wcscpy_s(found, MAX_PATH, target.c_str());
        if (!PathFindOnPathW(found, nullptr)) {
            return false;
        }
        target = found;
    }

    auto expanded = std::make_unique<wchar_t[]>(kExpandBufferChars);
    const DWORD length = ExpandEnvironmentStringsW(target.c_str(), expanded.get(), kExpandBufferChars);
    if (length != 0 && length <= kExpandBufferChars) {
        target = expanded.get();
    }
    return true;
}

} // namespace actions
