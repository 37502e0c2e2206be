// Started by the launcher in the end-to-end tests in place of a real startup program: appends
// its first argument, one line, to the file named by MG_START_RECORD.
#include <windows.h>

#include <cstdio>
#include <share.h>

int wmain(int argc, wchar_t** argv)
{
    // Several recorders may start at once: each waits while another one holds the file.
    const wchar_t* path = _wgetenv(L"MG_START_RECORD");
    for (int attempt = 0; path != nullptr && attempt < 500; ++attempt, Sleep(10)) {
        if (FILE* file = _wfsopen(path, L"ab", _SH_DENYRW)) {
            std::fprintf(file, "%ls\n", argc > 1 ? argv[1] : L"(none)");
            return std::fclose(file) == 0 ? 0 : 1;
        }
    }
    return 1;
}
