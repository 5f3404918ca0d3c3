// The four kit locks: recursive critical sections, created together exactly
// once on first use (even when several threads race for it), never deleted.
#include "kit.h"

#include <windows.h>

namespace {

CRITICAL_SECTION g_kitlocks[VXL_KIT_LOCK_COUNT];
INIT_ONCE g_kitlocksonce = INIT_ONCE_STATIC_INIT;

BOOL CALLBACK createKitLocks(PINIT_ONCE, PVOID, PVOID *)
{
    for (CRITICAL_SECTION &cs : g_kitlocks)
        InitializeCriticalSection(&cs);
    return TRUE;
}

} // namespace

void vxl_lock(vxl_kitlock lock)
{
    InitOnceExecuteOnce(&g_kitlocksonce, createKitLocks, nullptr, nullptr);
    EnterCriticalSection(&g_kitlocks[lock]);
}

void vxl_unlock(vxl_kitlock lock)
{
    LeaveCriticalSection(&g_kitlocks[lock]);
}
