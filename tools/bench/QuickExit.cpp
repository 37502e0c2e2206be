// The startup program of the benchmark: a windowless program that exits at once, so that the
// figures measure starting processes and nothing they do.
#include <windows.h>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int)
{
    return 0;
}
