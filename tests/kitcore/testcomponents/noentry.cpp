// A library that loads but has no vxl_dll_init entry point.
#include <cstdint>

extern "C" __declspec(dllexport) int32_t tc_noentry_marker(void)
{
    return 42;
}
