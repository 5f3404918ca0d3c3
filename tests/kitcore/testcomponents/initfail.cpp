// A component library whose start refuses with a component-defined status.
#include <cstdint>

extern "C" __declspec(dllexport) int32_t vxl_dll_init(void)
{
    return -4;
}
