// Stand-in wrapper library: loads and does nothing else, so the loader
// tests can see that it was the one loaded.
#include <windows.h>

extern "C" __declspec(dllexport) int comtest_wrapperlib_marker(void)
{
    return 42;
}

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}
