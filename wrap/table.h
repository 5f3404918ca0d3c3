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

// Creates the table and its indexes once per process; fatal when tarnel fails.
void vxl_wraptable_ensure();

// The caller holds the wrapper lock for these three.
// Fills row from the row whose key (the index's columns of row) is equal.
bool vxl_wraptable_select(vxl_wrapindex index, vxl_wraprow *row);
// As select, through a cursor: the first of the rows with an equal key.
bool vxl_wraptable_first(vxl_wrapindex index, vxl_wraprow *row);
// Inserts row with its own copies of ifname and wtype, writing the trace
// line; fatal when the table refuses.
void vxl_wraptable_insert(const vxl_wraprow &row);

// The caller holds the wrapper lock. Removes the pair's row, or the row put
// aside for it by vxl_wraptable_retire, into row; false when there is none.
bool vxl_wraptable_take(IUnknown *pcomif, vxl_if pif, vxl_wraprow *row);
// The caller holds the wrapper lock. Takes the row of a COM wrapper that is
// already dying (its count reached 0, its vxl_com_releasewrapper is on the
// way) out of the table, so that nobody finds it any more, and keeps it
// aside for that call.
void vxl_wraptable_retire(const vxl_wraprow &row);

// Take the wrapper lock themselves. Both are fatal when the pair has no row:
// every live wrapper and proxy has one.
vxl_wraprow vxl_wraptable_findpair(IUnknown *pcomif, vxl_if pif);
// Removes the pair's row and returns it; the caller frees its two strings
// and gives back its references.
vxl_wraprow vxl_wraptable_deletepair(IUnknown *pcomif, vxl_if pif);
