// Per-thread state: made on a thread's first hot-path call, cleaned up by a
// fiber-local callback when the thread ends. Layout: threadstate.h.
#include "threadstate.h"

#include <atomic>
#include <new>

std::atomic<DWORD> vxl_threadslot{TLS_OUT_OF_INDEXES};

namespace {

DWORD g_exitslot = FLS_OUT_OF_INDEXES;
INIT_ONCE g_slotsonce = INIT_ONCE_STATIC_INIT;
std::atomic<uint32_t> g_nextstripe{0};

// For threads that have no state of their own (no TLS slot or no memory to
// be had, or the thread is ending): stripe 0, nothing cached. Read-only, so
// any number of threads may share it.
vxl_threadstate g_shared = {0, 0, {}, nullptr};

void WINAPI threadExit(void *data)
{
    auto *state = static_cast<vxl_threadstate *>(data);
    if (!state || state == &g_shared)
        return;
    // The thread may still release objects after this (another library's
    // thread-detach code): from now on it takes and gives blocks directly.
    TlsSetValue(vxl_threadslot.load(std::memory_order_relaxed), &g_shared);
    for (vxl_freeblocks &cache : state->blocks) {
        while (void *block = cache.head) {
            cache.head = *static_cast<void **>(block);
            vxl_free(block);
        }
    }
    vxl_free(state->allocation);
}

BOOL CALLBACK allocSlots(PINIT_ONCE, PVOID, PVOID *)
{
    DWORD slot = TlsAlloc();
    if (slot != TLS_OUT_OF_INDEXES)
        g_exitslot = FlsAlloc(threadExit);
    // Published last: a thread that sees the slot finds the exit slot set.
    vxl_threadslot.store(slot, std::memory_order_release);
    return TRUE;
}

} // namespace

vxl_threadstate *vxl_newthreadstate()
{
    DWORD lasterror = GetLastError();
    InitOnceExecuteOnce(&g_slotsonce, allocSlots, nullptr, nullptr);
    DWORD slot = vxl_threadslot.load(std::memory_order_acquire);
    vxl_threadstate *state = &g_shared;
    if (slot != TLS_OUT_OF_INDEXES) {
        if (void *existing = TlsGetValue(slot)) {
            state = static_cast<vxl_threadstate *>(existing); // a slot beyond the TEB's own
        } else if (void *allocation = vxl_malloc(sizeof(vxl_threadstate) + kCacheLine)) {
            uintptr_t aligned = (reinterpret_cast<uintptr_t>(allocation) + kCacheLine - 1) & ~uintptr_t(kCacheLine - 1);
            auto *fresh = new (reinterpret_cast<void *>(aligned)) vxl_threadstate{
                g_nextstripe.fetch_add(1, std::memory_order_relaxed) % kStripes, 0, {}, allocation};
            // Without the exit callback the blocks could not be given back
            // when the thread ends: such a thread caches none.
            fresh->caching = g_exitslot != FLS_OUT_OF_INDEXES && FlsSetValue(g_exitslot, fresh);
            TlsSetValue(slot, fresh);
            state = fresh;
        } else {
            TlsSetValue(slot, &g_shared);
        }
    }
    SetLastError(lasterror);
    return state;
}
