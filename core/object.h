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
//   12      usecount      int32, handles handed out + objects alive
//   16      headtemplate  -> n slot tables, head-slot order (entry k: interface n-1-k)
//   24      componentdef  -> the registrant's record
//
// The slot table of interface i holds 4 + m pointers: getinterface, getname,
// incref, decref, then one stub per method.
#pragma once

#include "kit.h"

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

struct vxl_classfactory {
    void **stubblocks;
    int32_t headlength;
    int32_t usecount; // changed only with Interlocked*
    void **headtemplate;
    const vxl_componentdef *componentdef;
};

static_assert(offsetof(vxl_classfactory, stubblocks) == 0, "class factory layout");
static_assert(offsetof(vxl_classfactory, headlength) == 8, "class factory layout");
static_assert(offsetof(vxl_classfactory, usecount) == 12, "class factory layout");
static_assert(offsetof(vxl_classfactory, headtemplate) == 16, "class factory layout");
static_assert(offsetof(vxl_classfactory, componentdef) == 24, "class factory layout");
static_assert(sizeof(vxl_classfactory) == 32, "class factory layout");

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
