// Storage of the wrapper table in tarnel.dll.
//
// A row as tarnel stores it, six 64-bit columns:
//
//   offset  0  piunk    type 5 (pointer, compared by value)
//   offset  8  pcomif   type 5
//   offset 16  pdef     type 5
//   offset 24  pif      type 5
//   offset 32  ifname   type 6 (string, compared by text)
//   offset 40  wtype    type 6
//
// Rows are made under the wrapper lock by vxl_wrap and vxl_unwrap, which
// select before they insert. A nested wrap or unwrap on the same thread can
// still insert a second row with an existing unique key; tarnel keeps both,
// so that case never stops the process.
#include "table.h"

#include "tarnel.h"

#include <atomic>
#include <cstddef>
#include <vector>

static_assert(sizeof(vxl_wraprow) == 6 * sizeof(int64_t), "a row is six 64-bit columns");
static_assert(offsetof(vxl_wraprow, piunk) == 0, "column 0");
static_assert(offsetof(vxl_wraprow, pcomif) == 8, "column 1");
static_assert(offsetof(vxl_wraprow, pdef) == 16, "column 2");
static_assert(offsetof(vxl_wraprow, pif) == 24, "column 3");
static_assert(offsetof(vxl_wraprow, ifname) == 32, "column 4");
static_assert(offsetof(vxl_wraprow, wtype) == 40, "column 5");

namespace {

void *g_table = nullptr;
void *g_indexes[VXL_WRAP_INDEX_COUNT];
std::atomic<bool> g_tableready{false};
// Rows of dying COM wrappers, out of the table until their release comes.
std::vector<vxl_wraprow> g_retired;

const int32_t kTableOptions[] = {32, 32};
const int64_t kColumns[] = {5, 5, 5, 5, 6, 6, 100};

struct IndexDef {
    int32_t options[2];
    int32_t keys[4];
};
// In creation order, which is the order of vxl_wrapindex.
const IndexDef kIndexes[VXL_WRAP_INDEX_COUNT] = {
    {{1, 0}, {2, -1}},        // by-object
    {{1, 1}, {2, 4, 5, -1}},  // by-object-and-name
    {{1, 0}, {0, -1}},        // by-identity
    {{1, 1}, {1, 3, -1}},     // by-pair
    {{1, 1}, {0, 4, 5, -1}},  // by-identity-and-name
};

int64_t *columns(vxl_wraprow *row)
{
    return reinterpret_cast<int64_t *>(row);
}


} // namespace

void vxl_wraptable_ensure()
{
    if (g_tableready.load(std::memory_order_acquire))
        return;
    vxl_comlockguard lock(VXL_WRAPPER_LOCK);
    if (g_tableready.load(std::memory_order_relaxed))
        return;
    g_table = trn_createtable(kTableOptions, kColumns);
    if (!g_table)
        vxl_fatal("tarnel can't create table\n");
    bool allmade = true;
    for (int k = 0; k < VXL_WRAP_INDEX_COUNT; ++k) {
        g_indexes[k] = trn_createindex(g_table, kIndexes[k].options, kIndexes[k].keys);
        allmade = allmade && g_indexes[k];
    }
    if (!allmade)
        vxl_fatal("tarnel can't create index\n");
    g_tableready.store(true, std::memory_order_release);
}

bool vxl_wraptable_select(vxl_wrapindex index, vxl_wraprow *row)
{
    vxl_wraprow found = *row;
    if (trn_select(g_indexes[index], columns(&found)) != 0)
        return false;
    *row = found;
    return true;
}

bool vxl_wraptable_first(vxl_wrapindex index, vxl_wraprow *row)
{
    void *cursor = trn_opencursor(g_indexes[index], columns(row), columns(row));
    if (!cursor)
        return false;
    vxl_wraprow found = *row;
    bool fetched = trn_fetch(cursor, columns(&found)) == 0;
    trn_closecursor(cursor);
    if (fetched)
        *row = found;
    return fetched;
}

void vxl_wraptable_insert(const vxl_wraprow &row)
{
    vxl_wraprow stored = row;
    stored.ifname = vxl_strdup(row.ifname);
    stored.wtype = vxl_strdup(row.wtype);
    int32_t status = trn_insert(g_table, columns(&stored));
    vxl_log("trn_insert: piunk = %x, pcomif = %x, pdef = %x, pif = %x, ifname = %s, wtype = %s\n",
            VXL_PTR(row.piunk), VXL_PTR(row.pcomif), VXL_PTR(row.pdef), VXL_PTR(row.pif), row.ifname, row.wtype);
    if (status != 0 || !stored.ifname || !stored.wtype)
        vxl_fatal("trn_insert");
}

vxl_wraprow vxl_wraptable_findpair(IUnknown *pcomif, vxl_if pif)
{
    vxl_wraprow row = {};
    row.pcomif = pcomif;
    row.pif = pif;
    bool found;
    {
        vxl_comlockguard lock(VXL_WRAPPER_LOCK);
        found = vxl_wraptable_select(VXL_BY_PAIR, &row);
    }
    if (!found)
        vxl_fatal("trn_select");
    return row;
}

bool vxl_wraptable_take(IUnknown *pcomif, vxl_if pif, vxl_wraprow *row)
{
    *row = {};
    row->pcomif = pcomif;
    row->pif = pif;
    trn_select(g_indexes[VXL_BY_PAIR], columns(row));
    if (trn_delete(g_indexes[VXL_BY_PAIR], columns(row)) == 0)
        return true;
    for (auto it = g_retired.begin(); it != g_retired.end(); ++it) {
        if (it->pcomif == pcomif && it->pif == pif) {
            *row = *it;
            g_retired.erase(it);
            return true;
        }
    }
    return false;
}

void vxl_wraptable_retire(const vxl_wraprow &row)
{
    vxl_wraprow found = row;
    trn_select(g_indexes[VXL_BY_PAIR], columns(&found));
    if (trn_delete(g_indexes[VXL_BY_PAIR], columns(&found)) != 0)
        vxl_fatal("trn_delete");
    g_retired.push_back(found);
}

vxl_wraprow vxl_wraptable_deletepair(IUnknown *pcomif, vxl_if pif)
{
    vxl_wraprow row;
    bool taken;
    {
        vxl_comlockguard lock(VXL_WRAPPER_LOCK);
        taken = vxl_wraptable_take(pcomif, pif, &row);
    }
    if (!taken)
        vxl_fatal("trn_delete");
    return row;
}
