// Started by the launcher in the end-to-end tests in place of a real startup program: appends
// its first argument, one line, to the file named by MG_START_RECORD.
#include <windows.h>

#include <string>

int wmain(int argc, wchar_t** argv)
{
    wchar_t path[MAX_PATH * 4];
    const DWORD length = GetEnvironmentVariableW(L"MG_START_RECORD", path, MAX_PATH * 4);
    if (length == 0 || length >= MAX_PATH * 4) {
        return 2;
    }
    std::wstring text = (argc > 1 ? argv[1] : L"(none)");
    text += L"\n";
    std::string bytes(text.begin(), text.end());  // the tests use ASCII names
    // Several recorders may start at once: retry while another one holds the file.
    for (int attempt = 0; attempt < 500; ++attempt) {
        HANDLE file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE) {
            DWORD written = 0;
            WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
            CloseHandle(file);
            return 0;
        }
        Sleep(10);
    }
    return 1;
}
