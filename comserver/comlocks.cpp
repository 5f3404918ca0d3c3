// The COM lock set: four recursive critical sections, created together exactly
// once on the first use of any of them (even when threads race for it), never
// deleted. Order: wrapper lock before any other; in-use before class-object
// cache.
#include "comserver/comserver.h"

#include <windows.h>

namespace {

CRITICAL_SECTION g_comlocks[VXL_COM_LOCK_COUNT];
INIT_ONCE g_comlocksonce = INIT_ONCE_STATIC_INIT;
static_assert(VXL_COM_LOCK_COUNT == 4, "wrapper, in-use, class-object cache and registration lock");

// Racing threads wait inside InitOnceExecuteOnce until the set exists, so the
// message is written by exactly one of them.
BOOL CALLBACK createComLocks(PINIT_ONCE, PVOID, PVOID *)
{
    for (CRITICAL_SECTION &cs : g_comlocks)
        InitializeCriticalSection(&cs);
    vxl_log("new lock init in com\n");
    return TRUE;
}

} // namespace

void vxl_com_lock(vxl_comlock lock)
{
    InitOnceExecuteOnce(&g_comlocksonce, createComLocks, nullptr, nullptr);
    EnterCriticalSection(&g_comlocks[lock]);
}

void vxl_com_unlock(vxl_comlock lock)
{
    LeaveCriticalSection(&g_comlocks[lock]);
}
