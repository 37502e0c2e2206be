// Benchmark baseline for the logon run: starts the command lines listed in a file (one per
// line) with CreateProcessW and nothing else, the way the launcher starts delayed items.
//
//   startbaseline.exe <file of command lines>
#include <windows.h>
#include <shellapi.h>

#include <fstream>
#include <string>
#include <vector>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int)
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (argv == nullptr || argc < 2) {
        return 2;
    }
    std::ifstream in(argv[1]);
    std::string line;
    int failures = 0;
    while (std::getline(in, line)) {
        if (line.empty()) {
            continue;
        }
        std::vector<wchar_t> command(line.begin(), line.end());  // the benchmark writes ASCII
        command.push_back(L'\0');
        STARTUPINFOW startup{};
        PROCESS_INFORMATION process{};
        if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                           &process)) {
            CloseHandle(process.hProcess);
            CloseHandle(process.hThread);
        } else {
            ++failures;
        }
    }
    return failures;
}
