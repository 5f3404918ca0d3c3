// Kit objects and class factories: the binary layouts shared by the generic
// slots, the class factory build and the stubs.
//
// One object of a class with n interfaces (1..6) is one block of kit memory:
//
//   cell           contents
//   0              head slot 0   -> slot table of interface n-1
//   1              head slot 1   -> slot table of interface n-2
//   ...
//   n-1            head slot n-1 -> slot table of interface 0   <- primary interface pointer
//   n              core.impl       implementation pointer (the component's)
//   n+1            core.factory    the vxl_classfactory that made the object
//   n+2            core.refcount   int32, shared by all interfaces, then padding
//
// The interface pointer of interface i is the address of head slot n-1-i.
// From it, in cells: the core is i+1 further on, the block starts n-1-i
// before it, the primary interface pointer is i further on. These distances
// depend on (n, i) only, so each generic slot function and each stub is
// bound to fixed constants instead of looking anything up.
//
// A class factory:
//
//   offset  field
//   0       stubblocks    -> n stub blocks, interface order
//   8       headlength    int32, n * 8 bytes
//   12      usecount      int32, base cell of the use count (below)
//   16      headtemplate  -> n slot tables, head-slot order (entry k: interface n-1-k)
//   24      componentdef  -> the registrant's record
//   32      counts        -> this factory's cell in stripe 0 of its counter slab,
//                            or null (a factory not made by the cache)
//   40      state         int32, the cache's view: freed, built, closing
//
// The use count (handles handed out + objects alive) is the base cell plus
// one cell per stripe. A thread adds and takes its units on its own
// stripe's cell, so threads creating and releasing objects of one class at
// once write no common cache line; only the sum means anything, and reading
// usecount as a number sums. Cells of one stripe for consecutive factories
// lie side by side in a slab (factory.cpp), the stripes one after another:
//
//   slab:  [stripe 0: f0 f1 ... f1023][stripe 1: f0 f1 ... f1023] ... [stripe 7: ...]
//          counts of f1 ----^            ^---- counts + 1 * kSlabFactories
//
// The slot table of interface i holds 4 + m pointers: getinterface, getname,
// incref, decref, then one stub per method.
#pragma once

#include "kit.h"
#include "threadstate.h"

#include <cstddef>

constexpr int32_t kGenericSlots = 4;

struct vxl_objectcore {
    void *impl;
    vxl_classfactory *factory;
    int32_t refcount; // changed only with Interlocked*
};

static_assert(offsetof(vxl_objectcore, impl) == 0, "implementation pointer is the core's first cell");
static_assert(offsetof(vxl_objectcore, factory) == 8, "class factory is the core's second cell");
static_assert(offsetof(vxl_objectcore, refcount) == 16, "reference count is the core's third cell");
static_assert(sizeof(vxl_objectcore) == 24, "the core is three cells");

// Factories per counter slab; a stripe's cells for them fill whole cache lines.
constexpr int32_t kSlabFactories = 1024;
static_assert(kSlabFactories * sizeof(int32_t) % kCacheLine == 0, "stripes of a slab start on cache lines");

// The base cell of a use count; read as a number it is the whole count.
struct vxl_usecount {
    int32_t base; // changed only atomically
    vxl_usecount(int32_t start = 0) : base(start) {}
    operator int32_t() const;
};
static_assert(sizeof(vxl_usecount) == sizeof(int32_t), "the base cell is one int32");

// What the cache knows of a factory.
enum vxl_factorystate : int32_t {
    VXL_FACTORY_FREED,   // not built (or freed by vxl_inuse): lookups pass it by
    VXL_FACTORY_BUILT,   // in the cache
    VXL_FACTORY_CLOSING, // vxl_inuse is counting its uses: new uses take the locked way
};

struct vxl_classfactory {
    void **stubblocks;
    int32_t headlength;
    vxl_usecount usecount;
    void **headtemplate;
    const vxl_componentdef *componentdef;
    int32_t *counts = nullptr;
    int32_t state = VXL_FACTORY_FREED; // a vxl_factorystate, read and written atomically
};

static_assert(offsetof(vxl_classfactory, stubblocks) == 0, "class factory layout");
static_assert(offsetof(vxl_classfactory, headlength) == 8, "class factory layout");
static_assert(offsetof(vxl_classfactory, usecount) == 12, "class factory layout");
static_assert(offsetof(vxl_classfactory, headtemplate) == 16, "class factory layout");
static_assert(offsetof(vxl_classfactory, componentdef) == 24, "class factory layout");
static_assert(offsetof(vxl_classfactory, counts) == 32, "class factory layout");
static_assert(offsetof(vxl_classfactory, state) == 40, "class factory layout");
static_assert(sizeof(vxl_classfactory) == 48, "class factory layout");

// Adds delta units to the factory's use count, on the thread's stripe. A
// full barrier, which a new use needs (see vxl_findclassfactory).
inline void vxl_adduses(vxl_classfactory *factory, const vxl_threadstate *thread, int32_t delta)
{
    int32_t *cell = factory->counts ? factory->counts + thread->stripe * kSlabFactories : &factory->usecount.base;
    __atomic_add_fetch(cell, delta, __ATOMIC_SEQ_CST);
}

// The whole use count: the base cell and every stripe. Cells may go below 0
// (a unit taken on one thread, given back on another); the sum wraps back
// exactly.
inline int32_t vxl_totaluses(const vxl_classfactory *factory)
{
    uint32_t total = static_cast<uint32_t>(__atomic_load_n(&factory->usecount.base, __ATOMIC_SEQ_CST));
    if (factory->counts)
        for (uint32_t s = 0; s < kStripes; ++s)
            total += static_cast<uint32_t>(__atomic_load_n(factory->counts + s * kSlabFactories, __ATOMIC_SEQ_CST));
    return static_cast<int32_t>(total);
}

inline vxl_usecount::operator int32_t() const
{
    // The base cell is a field of its factory, which holds the stripes.
    uintptr_t factory = reinterpret_cast<uintptr_t>(this) - offsetof(vxl_classfactory, usecount);
    return vxl_totaluses(reinterpret_cast<const vxl_classfactory *>(factory));
}

// vxl_newobject for a caller that knows its thread; with useTaken the new
// object holds a use the caller took (and the caller no longer does).
vxl_if vxl_newobjectwithuse(vxl_classfactory *factory, vxl_threadstate *thread, bool useTaken, void ***core);

// The head slots are cells of one pointer; the interface pointer type views
// one of them.
static_assert(sizeof(vxl_ifcell) == sizeof(void *), "a head slot is one cell");

// ---- the generic slot table -------------------------------------------------
// One group per (interface count n, interface index i): the four generic
// slot functions bound to (n-1, i). Row n-1 holds the groups of n interfaces
// in index order; groups n..5 of that row are empty (null).
struct vxl_genericgroup {
    int32_t (*incref)(vxl_if self);
    int32_t (*decref)(vxl_if self);
    int32_t (*getinterface)(vxl_if self, const char *name, vxl_if *out);
    int32_t (*getname)(vxl_if self, const char **out);
};

using vxl_genericrow = vxl_genericgroup[kMaxInterfaces];
static_assert(sizeof(vxl_genericrow) == 24 * sizeof(void *), "a row holds 24 entries");

// Row n-1 of the table (n = 1..6).
extern const vxl_genericgroup vxl_genericslots[kMaxInterfaces][kMaxInterfaces];

// ---- stub memory ----------------------------------------------------------------
// Stub block of interface index i (0..5) forwarding to m functions; sealed
// executable before it is returned. Null for m = 0 (no code needed) or when
// no stub memory can be had. Callers hold the factory lock.
void *vxl_makestubblock(int32_t index, const vxl_fn *functions, int32_t count);
// Stub memory is never given back; this only marks the point where a block
// stops being used.
void vxl_releasestubblock(void *block);
