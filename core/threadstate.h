// The runtime's per-thread state: the thread's stripe (which of the striped
// counters it writes) and its cache of freed object blocks. Hot paths reach
// it through one native TLS slot read straight from the thread's TEB, which
// costs one load; mingw's thread_local is emulated through a function call.
//
// One block of kit memory per thread:
//
//   offset  field
//   0       stripe        uint32, 0 .. kStripes-1, handed out round robin
//   4       caching       uint32, 0 once the thread's exit cleanup has run
//   8       blocks[0..5]  freed object blocks of classes with 1..6
//                         interfaces: { head, count } each, 16 bytes
//   104     allocation    the block it was carved from (it starts on a
//                         cache line and fills two)
//
// A thread that leaves the runtime (its fiber-local cleanup at thread exit)
// frees its cached blocks; anything it still does afterwards (a component's
// thread-detach code releasing objects) runs on a shared state that caches
// nothing.
#pragma once

#include "kit.h"

#include <windows.h>
#include <winternl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// Striped counters give each thread its own cache line: two threads that
// first used the runtime one after the other never share a stripe while
// fewer than kStripes threads run.
constexpr uint32_t kStripes = 8;
constexpr size_t kCacheLine = 64;

// Freed object blocks one thread keeps per interface count, at most.
constexpr uint32_t kCachedBlocksPerSize = 32;

struct vxl_freeblocks {
    void *head; // first cell of each block links to the next
    uint32_t count;
};

// Each thread's state fills cache lines of its own: two threads' states
// must not share a line that both write with every object they make.
struct alignas(kCacheLine) vxl_threadstate {
    uint32_t stripe;
    uint32_t caching;
    vxl_freeblocks blocks[kMaxInterfaces];
    void *allocation; // the kit-memory block the state was aligned within
};

static_assert(offsetof(vxl_threadstate, stripe) == 0, "thread state layout");
static_assert(offsetof(vxl_threadstate, caching) == 4, "thread state layout");
static_assert(offsetof(vxl_threadstate, blocks) == 8, "thread state layout");
static_assert(offsetof(vxl_threadstate, allocation) == 104, "thread state layout");
static_assert(sizeof(vxl_threadstate) == 2 * kCacheLine, "thread state layout");
static_assert(sizeof(vxl_freeblocks) == 16, "thread state layout");

// The TLS index of the thread state; TLS_OUT_OF_INDEXES until first use.
extern std::atomic<DWORD> vxl_threadslot;

// Makes the calling thread's state (first call of a thread); never null.
vxl_threadstate *vxl_newthreadstate();

// On x64 Windows gs:0x30 holds the thread's own TEB address.
inline TEB *vxl_currentteb()
{
    TEB *teb;
    __asm__("movq %%gs:0x30, %0" : "=r"(teb));
    return teb;
}

inline vxl_threadstate *vxl_thisthread()
{
    // The first 64 TLS slots sit in the TEB itself; reading it directly
    // also leaves the thread's last-error value alone, as TlsGetValue would
    // not.
    DWORD slot = vxl_threadslot.load(std::memory_order_relaxed);
    void *state = slot < TLS_MINIMUM_AVAILABLE ? vxl_currentteb()->TlsSlots[slot] : nullptr;
    if (__builtin_expect(state != nullptr, 1))
        return static_cast<vxl_threadstate *>(state);
    return vxl_newthreadstate();
}

// Object blocks from the heap carry one cache line of padding behind what
// the object uses, so whatever the heap puts next starts on a later line:
// objects of two threads that the heap happened to place side by side
// would otherwise share a line that both write with every reference they
// count. (The heap packs small blocks of all threads together.)
constexpr int32_t kObjectPadding = kCacheLine;

// An object block of the given size for a class with n interfaces: a cached
// one of this thread, else from kit memory. Null when none can be had.
inline void *vxl_takeblock(vxl_threadstate *thread, int32_t n, int32_t bytes)
{
    vxl_freeblocks &cache = thread->blocks[n - 1];
    if (void *block = cache.head) {
        cache.head = *static_cast<void **>(block);
        --cache.count;
        return block;
    }
    return bytes <= INT32_MAX - kObjectPadding ? vxl_malloc(bytes + kObjectPadding) : nullptr;
}

// Gives back an object block of a class with n interfaces, whichever thread
// took it: kept for this thread's next object of that size, or freed.
inline void vxl_giveblock(vxl_threadstate *thread, int32_t n, void *block)
{
    vxl_freeblocks &cache = thread->blocks[n - 1];
    if (cache.count < kCachedBlocksPerSize && thread->caching) {
        *static_cast<void **>(block) = cache.head;
        cache.head = block;
        ++cache.count;
        return;
    }
    vxl_free(block);
}
