// Class factories: built once per class name from its registered component
// definition, cached process-wide (newest first) and counted by use; and the
// exports that create objects through them. Layout: object.h.
//
// Locks: a creating lookup holds the factory lock from its search through
// the build and the insertion, so a class is never built twice and stub
// memory is only ever touched by one build at a time. The cache list itself
// is guarded by the cache lock, always taken after the factory lock. The
// component library may have to load itself first (vxl_com_loadcomponent);
// that happens with no kit lock held.
#include "comside.h"
#include "object.h"
#include "x64stub.h"

#include <windows.h>

#include <cstring>

namespace {

struct CacheEntry {
    CacheEntry *next;
    char *name;
    vxl_classfactory *factory;
};

CacheEntry *g_factories = nullptr; // guarded by the cache lock

inline volatile LONG *counter(int32_t *count)
{
    return reinterpret_cast<volatile LONG *>(count);
}

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

// Frees what the build allocated; stub blocks stay in stub memory.
void freeFactory(vxl_classfactory *factory)
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
    vxl_free(factory);
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

// Called with the factory and cache locks held.
vxl_classfactory *buildFactory(const char *name)
{
    const vxl_componentdef *def = vxl_findcomponentdef(name);
    if (!def) {
        vxl_log("createclassfactory %s = <none>\n", name);
        return nullptr;
    }
    // No generic slot row exists for such a class: it simply has no factory.
    if (!buildable(def))
        return nullptr;

    int32_t n = def->ifcount;
    vxl_classfactory *factory = allocZeroed<vxl_classfactory>(1);
    if (!factory)
        return nullptr;
    factory->headlength = n * static_cast<int32_t>(sizeof(void *));
    factory->usecount = 0;
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
    if (!ok) {
        freeFactory(factory);
        return nullptr;
    }
    vxl_log("createclassfactory %s = %x>\n", name, VXL_PTR(factory));
    return factory;
}

CacheEntry *findEntry(const char *name)
{
    for (CacheEntry *entry = g_factories; entry; entry = entry->next)
        if (vxl_sameName(entry->name, name))
            return entry;
    return nullptr;
}

// Only from vxl_inuse, which holds the factory lock.
void removeFactory(vxl_classfactory *factory)
{
    CacheEntry *entry = nullptr;
    vxl_lock(VXL_CACHE_LOCK);
    for (CacheEntry **link = &g_factories; *link; link = &(*link)->next) {
        if ((*link)->factory == factory) {
            entry = *link;
            *link = entry->next;
            break;
        }
    }
    vxl_unlock(VXL_CACHE_LOCK);
    freeFactory(factory);
    vxl_log("freeclassfactory(%x)\n", VXL_PTR(factory));
    if (entry) {
        vxl_free(entry->name);
        vxl_free(entry);
    }
}

} // namespace

vxl_classfactory *vxl_findclassfactory(const char *name, int32_t create)
{
    if (!name)
        return nullptr;
    bool retried = false;
    for (;;) {
        if (create)
            vxl_lock(VXL_FACTORY_LOCK);
        vxl_lock(VXL_CACHE_LOCK);
        if (CacheEntry *entry = findEntry(name)) {
            vxl_classfactory *factory = entry->factory;
            if (create)
                InterlockedIncrement(counter(&factory->usecount));
            vxl_unlock(VXL_CACHE_LOCK);
            if (create)
                vxl_unlock(VXL_FACTORY_LOCK);
            return factory;
        }
        if (!create) {
            vxl_unlock(VXL_CACHE_LOCK);
            return nullptr;
        }
        if (!retried) {
            retried = true;
            vxl_unlock(VXL_CACHE_LOCK);
            vxl_unlock(VXL_FACTORY_LOCK);
            vxl_com_loadcomponent(name);
            continue;
        }
        vxl_classfactory *factory = buildFactory(name);
        CacheEntry *entry = nullptr;
        char *namecopy = nullptr;
        if (factory) {
            entry = static_cast<CacheEntry *>(vxl_malloc(sizeof(CacheEntry)));
            namecopy = vxl_strdup(name);
            if (!entry || !namecopy) {
                vxl_free(entry);
                vxl_free(namecopy);
                freeFactory(factory);
                factory = nullptr;
            }
        }
        if (factory) {
            *entry = CacheEntry{g_factories, namecopy, factory};
            g_factories = entry;
            InterlockedIncrement(counter(&factory->usecount));
        }
        vxl_unlock(VXL_CACHE_LOCK);
        vxl_unlock(VXL_FACTORY_LOCK);
        return factory;
    }
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
        InterlockedDecrement(counter(&factory->usecount));
    return VXL_OK;
}

namespace {

// Common to both ways of making an object: with a create callback, or with
// the caller's implementation pointer.
int32_t makeInstance(vxl_classfactory *factory, const char *ifname, bool useImpl, void *impl, vxl_if *out)
{
    if (!factory || !out)
        return VXL_EFAIL;
    void **implslot = nullptr;
    vxl_if primary = vxl_newobject(factory, &implslot);
    *out = primary;
    if (!primary)
        return VXL_ENOMEM;
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
    return makeInstance(factory, ifname, false, nullptr, out);
}

int32_t vxl_encapsulatefromcf(vxl_classfactory *factory, const char *ifname, void *impl, vxl_if *out)
{
    return makeInstance(factory, ifname, true, impl, out);
}

int32_t vxl_createinstance(const char *classname, const char *ifname, vxl_if *out)
{
    if (!out)
        return VXL_EFAIL;
    vxl_classfactory *factory = nullptr;
    if (vxl_createclassfactory(&factory, classname) != VXL_OK) {
        *out = nullptr;
        return vxl_com_createinstance(classname, ifname, out);
    }
    int32_t status = vxl_getinstancefromcf(factory, ifname, out);
    vxl_destroyclassfactory(factory);
    return status;
}

int32_t vxl_encapsulate(const char *classname, const char *ifname, void *impl, vxl_if *out)
{
    vxl_classfactory *factory = nullptr;
    int32_t status = vxl_createclassfactory(&factory, classname);
    if (status != VXL_OK)
        return status;
    status = vxl_encapsulatefromcf(factory, ifname, impl, out);
    vxl_destroyclassfactory(factory);
    return status;
}

int32_t vxl_inuse(const vxl_componentdef *const *components)
{
    vxl_log("vxl_inuse: ");
    vxl_lock(VXL_FACTORY_LOCK);
    for (const vxl_componentdef *const *c = components; c && *c; ++c) {
        vxl_classfactory *factory = vxl_findclassfactory((*c)->name, 0);
        if (!factory)
            continue;
        if (*counter(&factory->usecount) > 0) {
            vxl_log("yes\n");
            vxl_unlock(VXL_FACTORY_LOCK);
            return 1;
        }
        removeFactory(factory);
    }
    vxl_unlock(VXL_FACTORY_LOCK);
    vxl_log("no\n");
    return 0;
}
