// Storage of the wrapper table in tarnel.dll.
//
// A row as tarnel stores it, six 64-bit columns:
//
//   offset  0  piunk    TRN_COL_POINTER (compared by value)
//   offset  8  pcomif   TRN_COL_POINTER
//   offset 16  pdef     TRN_COL_POINTER
//   offset 24  pif      TRN_COL_POINTER
//   offset 32  ifname   TRN_COL_STRING (compared by text)
//   offset 40  wtype    TRN_COL_STRING
//
// The row's two strings are the runtime's own copies, made in one block of
// kit memory behind two bytes that tarnel never sees:
//
//   [kind][dying][ifname text, NUL][wtype text, NUL]
//                 ^ ifname column  ^ wtype column
//
// kind tells a wrapper row from a proxy row; dying marks the row of a
// wrapper or proxy whose count reached 0 while its release waits for the
// wrapper lock. A dying row stays in the table for that release to find by
// pair, and every other lookup passes over it.
//
// Finding a row that is already there must not queue on the wrapper lock:
// vxl_wrap of an object already wrapped and vxl_unwrap of an object already
// unwrapped first look through a read gate (core/readgate.h) instead. Every
// change of the table (insert, delete) is made with the wrapper lock held
// and the gate closed, so a reader inside the gate sees tarnel's indexes
// standing still; tarnel's select only reads, so readers may select side
// by side. Inside the gate a reader does nothing but select and take its
// reference (AddRef of a wrapper made by a wrapper maker, or the runtime's
// own incref of a kit proxy), so a closed gate never waits long. The dying
// mark is the one byte readers write; it is read and written atomically.
//
// Rows are made under the wrapper lock by vxl_wrap and vxl_unwrap, which
// look before they insert. A crossing that comes back into the bridge, or
// one that lets the lock go to load a library, can still insert a second
// row with an existing key; tarnel keeps both, so that never stops the
// process.
#include "table.h"

#include "tarnel.h"

#include "core/readgate.h"

#include <atomic>
#include <cstddef>
#include <cstring>

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
thread_local int g_lockdepth = 0; // holds of the wrapper lock by this thread
vxl_readgate g_readers;

const int32_t kTableOptions[] = {TRN_TABLE_OPTION0, TRN_TABLE_OPTION1};
const int64_t kColumns[] = {TRN_COL_POINTER, TRN_COL_POINTER, TRN_COL_POINTER, TRN_COL_POINTER,
                            TRN_COL_STRING,  TRN_COL_STRING,  TRN_COL_END};

#define VXL_COLUMN(field) static_cast<int32_t>(offsetof(vxl_wraprow, field) / sizeof(int64_t))
struct IndexDef {
    int32_t options[2];
    int32_t keys[4];
};
// In creation order, which is the order of vxl_wrapindex.
const IndexDef kIndexes[VXL_WRAP_INDEX_COUNT] = {
    {{TRN_INDEX_HASH, TRN_INDEX_MULTI}, {VXL_COLUMN(pdef), TRN_KEY_END}},
    {{TRN_INDEX_HASH, TRN_INDEX_UNIQUE}, {VXL_COLUMN(pdef), VXL_COLUMN(ifname), VXL_COLUMN(wtype), TRN_KEY_END}},
    {{TRN_INDEX_HASH, TRN_INDEX_MULTI}, {VXL_COLUMN(piunk), TRN_KEY_END}},
    {{TRN_INDEX_HASH, TRN_INDEX_UNIQUE}, {VXL_COLUMN(pcomif), VXL_COLUMN(pif), TRN_KEY_END}},
    {{TRN_INDEX_HASH, TRN_INDEX_UNIQUE}, {VXL_COLUMN(piunk), VXL_COLUMN(ifname), VXL_COLUMN(wtype), TRN_KEY_END}},
};
#undef VXL_COLUMN

int64_t *columns(vxl_wraprow *row)
{
    return reinterpret_cast<int64_t *>(row);
}

// ---- the row's own bytes --------------------------------------------------------------------

enum RowByte { kKindByte, kDyingByte, kRowBytes };

uint8_t *rowBytes(const vxl_wraprow &row)
{
    return reinterpret_cast<uint8_t *>(const_cast<char *>(row.ifname)) - kRowBytes;
}

bool isDying(const vxl_wraprow &row)
{
    return __atomic_load_n(&rowBytes(row)[kDyingByte], __ATOMIC_RELAXED) != 0;
}

void markDying(const vxl_wraprow &row)
{
    __atomic_store_n(&rowBytes(row)[kDyingByte], uint8_t(1), __ATOMIC_RELAXED);
}

// Holds the read gate closed for a scope (with the wrapper lock held).
class ChangingTable {
public:
    ChangingTable() { g_readers.close(); }
    ~ChangingTable() { g_readers.open(); }
    ChangingTable(const ChangingTable &) = delete;
    ChangingTable &operator=(const ChangingTable &) = delete;
};

// Points the row's string columns at the runtime's copies; false when no
// kit memory holds them.
bool copyStrings(vxl_wraprow *row, vxl_rowkind kind)
{
    size_t namelen = strlen(row->ifname) + 1, typelen = strlen(row->wtype) + 1;
    if (namelen + typelen > static_cast<size_t>(INT32_MAX) - kRowBytes)
        return false;
    auto *block = static_cast<uint8_t *>(vxl_malloc(static_cast<int32_t>(kRowBytes + namelen + typelen)));
    if (!block)
        return false;
    block[kKindByte] = kind;
    block[kDyingByte] = 0;
    char *name = reinterpret_cast<char *>(block + kRowBytes);
    memcpy(name, row->ifname, namelen);
    memcpy(name + namelen, row->wtype, typelen);
    row->ifname = name;
    row->wtype = name + namelen;
    return true;
}

void freeStrings(const vxl_wraprow &row)
{
    vxl_free(rowBytes(row));
}

} // namespace

vxl_wraplock::vxl_wraplock()
{
    vxl_com_lock(VXL_WRAPPER_LOCK);
    ++g_lockdepth;
}

vxl_wraplock::~vxl_wraplock()
{
    --g_lockdepth;
    vxl_com_unlock(VXL_WRAPPER_LOCK);
}

void vxl_wraptable_unlocked(void (*f)(void *), void *context)
{
    int held = g_lockdepth;
    for (int k = 0; k < held; ++k)
        vxl_com_unlock(VXL_WRAPPER_LOCK);
    g_lockdepth = 0;
    f(context);
    for (int k = 0; k < held; ++k)
        vxl_com_lock(VXL_WRAPPER_LOCK);
    g_lockdepth = held;
}

void vxl_wraptable_ensure()
{
    if (g_tableready.load(std::memory_order_acquire))
        return;
    vxl_wraplock lock;
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

bool vxl_wraptable_find(vxl_wrapindex index, vxl_wraprow *row, bool (*take)(const vxl_wraprow &found), int onlyKind)
{
    void *cursor = trn_opencursor(g_indexes[index], columns(row), columns(row));
    if (!cursor)
        return false;
    vxl_wraprow found;
    bool taken = false;
    while (!taken && trn_fetch(cursor, columns(&found)) == TRN_OK) {
        if (isDying(found) || (onlyKind >= 0 && vxl_wraptable_kind(found) != onlyKind))
            continue;
        taken = take(found);
        if (!taken)
            markDying(found);
    }
    trn_closecursor(cursor);
    if (taken)
        *row = found;
    return taken;
}

bool vxl_wraptable_findunlocked(vxl_wrapindex index, vxl_wraprow *row, bool (*take)(const vxl_wraprow &found),
                                vxl_rowkind kind)
{
    if (!g_tableready.load(std::memory_order_acquire))
        return false;
    vxl_threadstate *thread = vxl_thisthread();
    if (!g_readers.enter(thread))
        return false;
    bool taken = trn_select(g_indexes[index], columns(row)) == TRN_OK && !isDying(*row) &&
                 vxl_wraptable_kind(*row) == kind;
    if (taken) {
        taken = take(*row);
        if (!taken)
            markDying(*row);
    }
    g_readers.leave(thread);
    return taken;
}

vxl_rowkind vxl_wraptable_kind(const vxl_wraprow &row)
{
    return static_cast<vxl_rowkind>(rowBytes(row)[kKindByte]);
}

void vxl_wraptable_insert(const vxl_wraprow &row, vxl_rowkind kind)
{
    vxl_wraprow stored = row;
    int32_t status = TRN_ENOMEM;
    if (copyStrings(&stored, kind)) {
        ChangingTable change;
        status = trn_insert(g_table, columns(&stored));
    }
    vxl_log("trn_insert: piunk = %x, pcomif = %x, pdef = %x, pif = %x, ifname = %s, wtype = %s\n",
            VXL_PTR(row.piunk), VXL_PTR(row.pcomif), VXL_PTR(row.pdef), VXL_PTR(row.pif), row.ifname, row.wtype);
    if (status != TRN_OK)
        vxl_fatal("trn_insert");
}

vxl_wraprow vxl_wraptable_findpair(IUnknown *pcomif, vxl_if pif)
{
    vxl_wraprow row = {};
    row.pcomif = pcomif;
    row.pif = pif;
    bool found;
    {
        vxl_wraplock lock;
        found = trn_select(g_indexes[VXL_BY_PAIR], columns(&row)) == TRN_OK;
    }
    if (!found)
        vxl_fatal("trn_select");
    return row;
}

void vxl_wraptable_end(IUnknown *pcomif, vxl_if pif, vxl_rowkind kind)
{
    vxl_wraprow row = {};
    row.pcomif = pcomif;
    row.pif = pif;
    bool removed;
    {
        vxl_wraplock lock;
        ChangingTable change;
        removed = trn_select(g_indexes[VXL_BY_PAIR], columns(&row)) == TRN_OK &&
                  trn_delete(g_indexes[VXL_BY_PAIR], columns(&row)) == TRN_OK;
    }
    if (!removed)
        vxl_fatal("trn_delete");
    freeStrings(row);
    auto giveKit = [&] {
        if (kind == VXL_WRAPPER_ROW || row.pdef != row.pif)
            row.pdef->slots->decref(row.pdef);
    };
    auto giveCom = [&] {
        if (kind == VXL_PROXY_ROW || row.piunk != row.pcomif)
            row.piunk->Release();
    };
    if (kind == VXL_WRAPPER_ROW) {
        giveCom();
        giveKit();
    } else {
        giveKit();
        giveCom();
    }
}
