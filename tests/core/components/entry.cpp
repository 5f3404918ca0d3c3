// Component libraries for vxl_loaddynamiclibrary: an entry point that counts
// its runs and answers ENTRY_STATUS, or (NO_ENTRY) none at all.
#include <cstdint>

extern "C" {
__declspec(dllexport) int32_t tc_runs = 0;
}

#ifndef NO_ENTRY
extern "C" __declspec(dllexport) int32_t vxl_dll_init(void)
{
    ++tc_runs;
    return ENTRY_STATUS;
}
#endif
