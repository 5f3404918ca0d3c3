// The wrapper table: one row per pairing of a kit interface with a COM
// interface, stored in tarnel.dll and guarded by the wrapper lock.
#pragma once

#include "comserver/comserver.h"

// One row; tarnel sees it as six 64-bit columns in this order.
struct vxl_wraprow {
    IUnknown *piunk;    // COM identity of the object
    IUnknown *pcomif;   // COM interface of this pairing
    vxl_if pdef;        // kit identity of the object
    vxl_if pif;         // kit interface of this pairing
    const char *ifname; // interface name
    const char *wtype;  // "com", "comS" or "comP"
};

enum vxl_wrapindex {
    VXL_BY_OBJECT,            // pdef, several rows per key
    VXL_BY_OBJECT_AND_NAME,   // pdef, ifname, wtype
    VXL_BY_IDENTITY,          // piunk, several rows per key
    VXL_BY_PAIR,              // pcomif, pif
    VXL_BY_IDENTITY_AND_NAME, // piunk, ifname, wtype
    VXL_WRAP_INDEX_COUNT
};

// Who made a row decides the references it holds. A wrapper row (vxl_wrap):
// one kit reference on pdef, and one COM reference on piunk unless piunk is
// pcomif. A proxy row (vxl_unwrap): one COM reference on piunk, and one kit
// reference on pdef unless pdef is pif; its proxy holds pcomif.
enum vxl_rowkind : uint8_t { VXL_WRAPPER_ROW, VXL_PROXY_ROW };

// Creates the table and its indexes once per process; fatal when tarnel fails.
void vxl_wraptable_ensure();

// Holds the wrapper lock for a scope. A thread may hold it several times
// over (a crossing that comes back into the bridge); vxl_wraptable_unlocked
// lets go of every hold.
class vxl_wraplock {
public:
    vxl_wraplock();
    ~vxl_wraplock();
    vxl_wraplock(const vxl_wraplock &) = delete;
    vxl_wraplock &operator=(const vxl_wraplock &) = delete;
};

// ---- with the wrapper lock held ----------------------------------------------------------
// The first row whose key (the index's columns of row) equals row's, that
// is not dying and for which take(found) answers true (it took the
// reference the caller needs): row is filled with it. A row for which take
// answers false belongs to a wrapper or proxy that is dying on another
// thread: it is marked, and no lookup finds it again (its own release still
// finds it by pair). With a kind given, rows of the other kind are passed
// over. False when there is no such row.
bool vxl_wraptable_find(vxl_wrapindex index, vxl_wraprow *row, bool (*take)(const vxl_wraprow &found),
                        int onlyKind = -1);
// ---- without the wrapper lock ----------------------------------------------------------
// The first row of the index whose key equals row's, when it is of the kind
// given and not dying and take(found) answers true: row is filled with it
// (and holds anything when the answer is false). Anything else (no row, a row of the other kind or dying, a table being
// changed) answers false, and the caller looks again with the lock held,
// where vxl_wraptable_find sees every row. take must only take a reference
// the runtime can count on: AddRef of a wrapper made by a wrapper maker, or
// the runtime's own incref of a kit proxy.
bool vxl_wraptable_findunlocked(vxl_wrapindex index, vxl_wraprow *row, bool (*take)(const vxl_wraprow &found),
                                vxl_rowkind kind);

// ---- with the wrapper lock held ----------------------------------------------------------
// Inserts row with its own copies of ifname and wtype, writing the trace
// line; fatal when the table refuses.
void vxl_wraptable_insert(const vxl_wraprow &row, vxl_rowkind kind);
// How a row found in the table was made.
vxl_rowkind vxl_wraptable_kind(const vxl_wraprow &row);

// Lets go of the wrapper lock entirely (as often as this thread holds it),
// runs f, and takes the lock again as often. A library may only load this
// way: its initialisation takes the loader lock, which a thread that
// releases a wrapper at its exit holds while it waits for the wrapper lock.
void vxl_wraptable_unlocked(void (*f)(void *), void *context);
template <typename F> void vxl_wraptable_unlocked(F f)
{
    vxl_wraptable_unlocked([](void *context) { (*static_cast<F *>(context))(); }, &f);
}

// A crossing in at most two attempts, each with the wrapper lock held. An
// attempt answers whether it is done: it found or made what it looked for,
// or failed for good. After a first attempt that is not, the wrapper
// library of (ifname, wtype) loads itself with the lock let go, and the
// second attempt starts again from its lookups: meanwhile another thread
// may have made what the first one missed.
template <typename Attempt> void vxl_wraptable_cross(const char *ifname, const char *wtype, Attempt attempt)
{
    vxl_wraplock lock;
    if (attempt(false))
        return;
    vxl_wraptable_unlocked([&] { vxl_com_wrapper_tryload(ifname, wtype); });
    attempt(true);
}

// ---- taking the wrapper lock themselves --------------------------------------------------
// The row of a live wrapper or proxy; fatal ("trn_select") when it has
// none: every live wrapper and proxy has one.
vxl_wraprow vxl_wraptable_findpair(IUnknown *pcomif, vxl_if pif);
// Ends the row of a wrapper or proxy whose count reached 0: removes it
// (fatal, "trn_delete", when it has none), frees its strings and gives back
// the references it held, those of the side made for the row first.
void vxl_wraptable_end(IUnknown *pcomif, vxl_if pif, vxl_rowkind kind);
