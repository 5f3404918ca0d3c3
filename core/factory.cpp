// Class factories: built once per class name from its registered component
// definition, cached process-wide and counted by use; and the exports that
// create objects through them. Layout: object.h.
//
// Locks: a creating lookup that has to build holds the factory lock from
// its search through the build and the insertion, so a class is never built
// twice and stub memory is only ever touched by one build at a time. The
// cache's own changes take the cache lock, always after the factory lock.
// The component library may have to load itself first
// (vxl_com_loadcomponent); that happens with no kit lock held.
//
// Lookups of a factory that is built take no lock: creating objects of a
// cached class from several threads must not queue anywhere. The cache is
// an open-addressing table of entries, one per class name ever built:
//
//   table (power of two slots)          entry, never freed
//   +---------+                         +------------------------------+
//   | entry * | ----------------------> | vxl_classfactory (the record) |
//   | null    |                         | hash, copy of the name        |
//   | entry * |                         +------------------------------+
//   +---------+
//
// Entries are only ever added (under the cache lock), so a reader walking a
// probe sequence sees each slot either empty or holding an entry for good.
// When the table grows, the new one is published whole and the old one is
// kept (a reader may still be probing it; all the old ones together are
// smaller than the current one). A reader that misses an entry added
// meanwhile takes the locked way, which finds it.
//
// A factory that vxl_inuse frees keeps its entry and record: its slot
// tables and arrays are freed, its state says freed, and a later build of
// the same name fills the same record again. A lock-free reader may still
// hold the record, so it must stay readable; keeping it per name bounds the
// memory by the names a process ever builds.
//
// Taking a use without a lock (Dekker's handshake with vxl_inuse):
//   lookup:   add 1 to its stripe (full barrier); state still built? done;
//             otherwise take the unit back and go the locked way.
//   vxl_inuse: state = closing (full barrier); sum the cells; in use: state =
//             built again; else free, state = freed.
// Either the lookup sees closing, or vxl_inuse's sum sees the lookup's unit.
#include "comside.h"
#include "object.h"
#include "x64stub.h"

#include "hashtable.h"

#include <windows.h>

#include <atomic>
#include <cstring>
#include <new>

namespace {

struct CacheEntry {
    vxl_classfactory factory; // first: the factory's address is the entry's
    uint64_t hash;
    size_t length; // of the name
    char *name;
};

struct CacheTable {
    CacheTable *older; // the table this one replaced, kept for readers still in it
    size_t mask;
    std::atomic<CacheEntry *> slots[1]; // mask + 1 of them
};

std::atomic<CacheTable *> g_table{nullptr};
size_t g_entries = 0;           // guarded by the cache lock
int32_t *g_slab = nullptr;      // counter slab being carved, with the factory lock
int32_t g_slabused = kSlabFactories;

int32_t loadState(const vxl_classfactory *factory)
{
    return __atomic_load_n(&factory->state, __ATOMIC_SEQ_CST);
}

void storeState(vxl_classfactory *factory, int32_t state)
{
    __atomic_store_n(&factory->state, state, __ATOMIC_SEQ_CST);
}

// ---- the table ---------------------------------------------------------------------------

// The name's hash and length, worked out once per look-up.
struct NameKey {
    const char *name;
    uint64_t hash;
    size_t length;
    explicit NameKey(const char *n) : name(n) { hash = vxl_hashname(n, &length); }
};

CacheEntry *findEntry(const NameKey &key)
{
    CacheTable *table = g_table.load(std::memory_order_acquire);
    if (!table)
        return nullptr;
    for (size_t i = key.hash & table->mask;; i = (i + 1) & table->mask) {
        CacheEntry *entry = table->slots[i].load(std::memory_order_acquire);
        if (!entry)
            return nullptr;
        if (entry->hash == key.hash && entry->length == key.length && vxl_samebytes(entry->name, key.name, key.length))
            return entry;
    }
}

CacheTable *newTable(size_t slots)
{
    size_t bytes = sizeof(CacheTable) + (slots - 1) * sizeof(std::atomic<CacheEntry *>);
    if (bytes > size_t(INT32_MAX))
        return nullptr;
    auto *table = static_cast<CacheTable *>(vxl_malloc(static_cast<int32_t>(bytes)));
    if (!table)
        return nullptr;
    table->older = nullptr;
    table->mask = slots - 1;
    for (size_t i = 0; i < slots; ++i)
        new (&table->slots[i]) std::atomic<CacheEntry *>(nullptr);
    return table;
}

void placeEntry(CacheTable *table, CacheEntry *entry)
{
    size_t i = entry->hash & table->mask;
    while (table->slots[i].load(std::memory_order_relaxed))
        i = (i + 1) & table->mask;
    table->slots[i].store(entry, std::memory_order_release);
}

// With the cache lock. Keeps the table at most half full; false when it is
// full and cannot grow.
bool addEntry(CacheEntry *entry)
{
    CacheTable *table = g_table.load(std::memory_order_relaxed);
    size_t slots = table ? table->mask + 1 : 0;
    if (2 * (g_entries + 1) > slots) {
        CacheTable *grown = newTable(slots ? 2 * slots : 64);
        if (grown) {
            for (size_t i = 0; i < slots; ++i)
                if (CacheEntry *old = table->slots[i].load(std::memory_order_relaxed))
                    placeEntry(grown, old);
            grown->older = table;
            g_table.store(grown, std::memory_order_release);
            table = grown;
        } else if (!table || g_entries + 1 >= slots) {
            return false; // a probe sequence must always end at an empty slot
        }
    }
    placeEntry(table, entry);
    ++g_entries;
    return true;
}

// The factory's cells, one per stripe, carved from the current slab (with
// the factory lock). Null when no slab can be had: the factory then counts
// on its base cell alone, correct but shared by every thread.
int32_t *newCounters()
{
    if (g_slabused == kSlabFactories) {
        size_t bytes = size_t(kStripes) * kSlabFactories * sizeof(int32_t) + kCacheLine;
        auto *raw = static_cast<char *>(vxl_malloc(static_cast<int32_t>(bytes)));
        if (!raw)
            return nullptr;
        memset(raw, 0, bytes);
        // Slabs are never freed: an entry keeps its cells for good.
        auto aligned = (reinterpret_cast<uintptr_t>(raw) + kCacheLine - 1) & ~uintptr_t(kCacheLine - 1);
        g_slab = reinterpret_cast<int32_t *>(aligned);
        g_slabused = 0;
    }
    return g_slab + g_slabused++;
}

// ---- the build ----------------------------------------------------------------------------

// Sizes are reckoned in 64 bits; a block must fit the 32-bit size that
// kit memory takes.
bool fitsInt32(int64_t bytes)
{
    return bytes >= 0 && bytes <= INT32_MAX;
}

// Whether the build can make every slot table and stub block of a
// definition: 1 to 6 interfaces, each with a definition, a method count that
// is not negative and whose slot table and stubs fit, and a function per
// method.
bool buildable(const vxl_componentdef *def)
{
    if (def->ifcount < 1 || def->ifcount > kMaxInterfaces || !def->interfaces)
        return false;
    for (int32_t i = 0; i < def->ifcount; ++i) {
        const vxl_componentinterface *entry = def->interfaces[i];
        if (!entry || !entry->def || entry->def->methodcount < 0)
            return false;
        int64_t m = entry->def->methodcount;
        if (!fitsInt32((kGenericSlots + m) * int64_t(sizeof(void *))) || !fitsInt32(m * kStubSize))
            return false;
        if (m > 0 && !entry->methods)
            return false;
    }
    return true;
}

// Frees what the build allocated (stub blocks stay in stub memory) and
// leaves the record empty; its counters stay.
void freeBuilt(vxl_classfactory *factory)
{
    int32_t n = factory->headlength / static_cast<int32_t>(sizeof(void *));
    for (int32_t i = 0; i < n; ++i) {
        if (factory->stubblocks)
            vxl_releasestubblock(factory->stubblocks[i]);
        if (factory->headtemplate)
            vxl_free(factory->headtemplate[n - 1 - i]);
    }
    vxl_free(factory->headtemplate);
    vxl_free(factory->stubblocks);
    factory->headtemplate = nullptr;
    factory->stubblocks = nullptr;
    factory->headlength = 0;
    factory->componentdef = nullptr;
}

template <typename T> T *allocZeroed(int64_t count)
{
    int64_t bytes = count * int64_t(sizeof(T));
    if (count <= 0 || !fitsInt32(bytes))
        return nullptr;
    auto *p = static_cast<T *>(vxl_malloc(static_cast<int32_t>(bytes)));
    if (p)
        memset(p, 0, static_cast<size_t>(bytes));
    return p;
}

// Fills the record (empty, and not in reach of any lookup as built) from
// the registered definition. Called with the factory and cache locks held.
bool buildInto(vxl_classfactory *factory, const vxl_componentdef *def)
{
    int32_t n = def->ifcount;
    factory->headlength = n * static_cast<int32_t>(sizeof(void *));
    factory->componentdef = def;
    factory->headtemplate = allocZeroed<void *>(n);
    factory->stubblocks = allocZeroed<void *>(n);
    bool ok = factory->headtemplate && factory->stubblocks;

    const vxl_genericgroup *row = vxl_genericslots[n - 1];
    for (int32_t i = 0; ok && i < n; ++i) {
        const vxl_componentinterface *entry = def->interfaces[i];
        int32_t m = entry->def->methodcount;
        auto **slots = allocZeroed<void *>(int64_t(kGenericSlots) + m);
        if (!slots) {
            ok = false;
            break;
        }
        // The table's group order is incref, decref, getinterface, getname;
        // the slot order is getinterface, getname, incref, decref.
        slots[0] = reinterpret_cast<void *>(row[i].getinterface);
        slots[1] = reinterpret_cast<void *>(row[i].getname);
        slots[2] = reinterpret_cast<void *>(row[i].incref);
        slots[3] = reinterpret_cast<void *>(row[i].decref);
        factory->headtemplate[n - 1 - i] = slots;

        auto *stubs = static_cast<uint8_t *>(vxl_makestubblock(i, entry->methods, m));
        if (m > 0 && !stubs) {
            ok = false;
            break;
        }
        factory->stubblocks[i] = stubs;
        for (int32_t j = 0; j < m; ++j)
            slots[kGenericSlots + j] = stubs + kStubSize * j;
    }
    if (!ok)
        freeBuilt(factory);
    return ok;
}

// Builds the factory of a name that has none built, into its entry (made
// here for a name never built before) and takes the first use. Called with
// the factory and cache locks held.
vxl_classfactory *buildFactory(const NameKey &key, CacheEntry *entry, vxl_threadstate *thread)
{
    const char *name = key.name;
    const vxl_componentdef *def = vxl_findcomponentdef(name);
    if (!def) {
        vxl_log("createclassfactory %s = <none>\n", name);
        return nullptr;
    }
    // No generic slot row exists for such a class: it simply has no factory.
    if (!buildable(def))
        return nullptr;

    bool fresh = !entry;
    if (fresh) {
        entry = static_cast<CacheEntry *>(vxl_malloc(sizeof(CacheEntry)));
        char *namecopy = vxl_strdup(name);
        if (!entry || !namecopy) {
            vxl_free(entry);
            vxl_free(namecopy);
            return nullptr;
        }
        *entry = CacheEntry{vxl_classfactory{}, key.hash, key.length, namecopy};
        entry->factory.counts = newCounters();
    }
    vxl_classfactory *factory = &entry->factory;
    if (!buildInto(factory, def) || (fresh && !addEntry(entry))) {
        if (fresh) {
            freeBuilt(factory);
            vxl_free(entry->name);
            vxl_free(entry); // its counters stay carved, unused
        }
        return nullptr;
    }
    vxl_adduses(factory, thread, 1);
    storeState(factory, VXL_FACTORY_BUILT); // publishes the record to lock-free lookups
    vxl_log("createclassfactory %s = %x>\n", name, VXL_PTR(factory));
    return factory;
}

// A use of a built factory, taken without a lock; false sends the caller
// the locked way.
bool takeUseUnlocked(vxl_classfactory *factory, vxl_threadstate *thread)
{
    if (loadState(factory) != VXL_FACTORY_BUILT)
        return false;
    vxl_adduses(factory, thread, 1);
    if (loadState(factory) == VXL_FACTORY_BUILT)
        return true;
    vxl_adduses(factory, thread, -1);
    return false;
}

// vxl_findclassfactory(name, 1) for a caller that knows its thread.
vxl_classfactory *acquireFactory(const char *name, vxl_threadstate *thread)
{
    if (!name)
        return nullptr;
    NameKey key(name);
    if (CacheEntry *entry = findEntry(key))
        if (takeUseUnlocked(&entry->factory, thread))
            return &entry->factory;

    bool retried = false;
    for (;;) {
        vxl_lock(VXL_FACTORY_LOCK);
        vxl_lock(VXL_CACHE_LOCK);
        // vxl_inuse holds the factory lock while a factory is closing, so
        // here a factory is either built or freed.
        CacheEntry *entry = findEntry(key);
        if (entry && loadState(&entry->factory) == VXL_FACTORY_BUILT) {
            vxl_adduses(&entry->factory, thread, 1);
            vxl_unlock(VXL_CACHE_LOCK);
            vxl_unlock(VXL_FACTORY_LOCK);
            return &entry->factory;
        }
        if (!retried) {
            retried = true;
            vxl_unlock(VXL_CACHE_LOCK);
            vxl_unlock(VXL_FACTORY_LOCK);
            vxl_com_loadcomponent(name);
            continue;
        }
        vxl_classfactory *factory = buildFactory(key, entry, thread);
        vxl_unlock(VXL_CACHE_LOCK);
        vxl_unlock(VXL_FACTORY_LOCK);
        return factory;
    }
}

// Only from vxl_inuse, which holds the factory lock: the factory's uses are
// counted with the factory closing; 1 when it is in use (and stays built),
// else 0 after freeing it.
int32_t closeIfUnused(vxl_classfactory *factory)
{
    storeState(factory, VXL_FACTORY_CLOSING);
    if (vxl_totaluses(factory) > 0) {
        storeState(factory, VXL_FACTORY_BUILT);
        return 1;
    }
    vxl_lock(VXL_CACHE_LOCK);
    storeState(factory, VXL_FACTORY_FREED);
    vxl_unlock(VXL_CACHE_LOCK);
    freeBuilt(factory);
    vxl_log("freeclassfactory(%x)\n", VXL_PTR(factory));
    return 0;
}

} // namespace

vxl_classfactory *vxl_findclassfactory(const char *name, int32_t create)
{
    if (create)
        return acquireFactory(name, vxl_thisthread());
    if (!name)
        return nullptr;
    vxl_lockguard cacheLock(VXL_CACHE_LOCK);
    CacheEntry *entry = findEntry(NameKey(name));
    return entry && loadState(&entry->factory) != VXL_FACTORY_FREED ? &entry->factory : nullptr;
}

int32_t vxl_createclassfactory(vxl_classfactory **out, const char *classname)
{
    vxl_log("vxl_createclassfactory\n");
    if (!out)
        return VXL_EFAIL; // nowhere to put the use it would take
    *out = vxl_findclassfactory(classname, 1);
    return *out ? VXL_OK : VXL_ECLASSNOTREG;
}

int32_t vxl_destroyclassfactory(vxl_classfactory *factory)
{
    if (factory)
        vxl_adduses(factory, vxl_thisthread(), -1);
    return VXL_OK;
}

namespace {

// Common to every way of making an object: with a create callback, or with
// the caller's implementation pointer. With useTaken the caller hands the
// use it holds on the factory to the new object (vxl_createinstance and
// vxl_encapsulate, whose handle would end with the call anyway); the use
// is given back when no object comes of it.
int32_t makeInstance(vxl_classfactory *factory, const char *ifname, bool useImpl, void *impl, vxl_if *out,
                     vxl_threadstate *thread, bool useTaken)
{
    void **implslot = nullptr;
    vxl_if primary = vxl_newobjectwithuse(factory, thread, useTaken, &implslot);
    *out = primary;
    if (!primary) {
        if (useTaken)
            vxl_adduses(factory, thread, -1);
        return VXL_ENOMEM;
    }
    if (useImpl) {
        *implslot = impl;
    } else if (vxl_createfn create = factory->componentdef->create) {
        int32_t status = create(implslot, primary);
        if (status != VXL_OK) {
            *out = nullptr;
            primary->slots->decref(primary);
            return status;
        }
    }
    if (!ifname)
        return VXL_OK;
    int32_t status = primary->slots->getinterface(primary, ifname, out);
    primary->slots->decref(primary);
    return status;
}

} // namespace

int32_t vxl_getinstancefromcf(vxl_classfactory *factory, const char *ifname, vxl_if *out)
{
    if (!factory || !out)
        return VXL_EFAIL;
    return makeInstance(factory, ifname, false, nullptr, out, vxl_thisthread(), false);
}

int32_t vxl_encapsulatefromcf(vxl_classfactory *factory, const char *ifname, void *impl, vxl_if *out)
{
    if (!factory || !out)
        return VXL_EFAIL;
    return makeInstance(factory, ifname, true, impl, out, vxl_thisthread(), false);
}

// vxl_createinstance and vxl_encapsulate are vxl_createclassfactory, then
// vxl_getinstancefromcf or vxl_encapsulatefromcf, then
// vxl_destroyclassfactory, with the handle's use passed on to the object.
int32_t vxl_createinstance(const char *classname, const char *ifname, vxl_if *out)
{
    if (!out)
        return VXL_EFAIL;
    vxl_loghot("vxl_createclassfactory\n");
    vxl_threadstate *thread = vxl_thisthread();
    vxl_classfactory *factory = acquireFactory(classname, thread);
    if (!factory) {
        *out = nullptr;
        return vxl_com_createinstance(classname, ifname, out);
    }
    return makeInstance(factory, ifname, false, nullptr, out, thread, true);
}

int32_t vxl_encapsulate(const char *classname, const char *ifname, void *impl, vxl_if *out)
{
    vxl_log("vxl_createclassfactory\n");
    vxl_threadstate *thread = vxl_thisthread();
    vxl_classfactory *factory = acquireFactory(classname, thread);
    if (!factory)
        return VXL_ECLASSNOTREG;
    if (!out) {
        vxl_adduses(factory, thread, -1);
        return VXL_EFAIL;
    }
    return makeInstance(factory, ifname, true, impl, out, thread, true);
}

int32_t vxl_inuse(const vxl_componentdef *const *components)
{
    vxl_log("vxl_inuse: ");
    vxl_lock(VXL_FACTORY_LOCK);
    for (const vxl_componentdef *const *c = components; c && *c; ++c) {
        vxl_classfactory *factory = vxl_findclassfactory((*c)->name, 0);
        if (factory && closeIfUnused(factory)) {
            vxl_log("yes\n");
            vxl_unlock(VXL_FACTORY_LOCK);
            return 1;
        }
    }
    vxl_unlock(VXL_FACTORY_LOCK);
    vxl_log("no\n");
    return 0;
}
