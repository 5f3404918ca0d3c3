// The definition registry: registrations of component libraries and the
// definition cache derived from them.
//
// Registrations keep the caller's lists by pointer. The cache holds, per
// kind and name, exactly one entry for every name some registration lists:
// components point at the registrant's record, interfaces at a deep copy in
// kit memory, so an interface outlives the library that first supplied it as
// long as another registration lists it. Everything here runs under the
// registry lock (recursive, so the lookups nest inside register/unregister).
//
// Registrations and cache entries sit in hash tables (by their two list
// pointers; by kind and name), so a lookup, a registration and an
// unregistration cost what their own lists hold, not what every library
// registered. Each entry counts the list entries of live registrations that
// name it: a registration adds its names, an unregistration takes them back,
// and an entry whose count falls to 0 leaves the cache. Which entry a name
// has never depended on the order of the registrations: component names
// are unique across them, and an interface keeps the copy it was first
// given while any registration lists it.
//
// A lookup hands out its copy after leaving the lock, and its caller may
// read it while another thread unregisters the last library that lists it.
// So a copy is never freed: an entry that leaves the cache is kept aside,
// and serves again when an identical definition is registered, which keeps
// the memory bounded by the distinct definitions a process ever registers.
#include "hashtable.h"
#include "kit.h"

#include <cstring>

namespace {

struct Registration {
    Registration *hashnext;
    uint64_t hash; // of the two list pointers
    char *libname;
    const vxl_componentdef *const *components;
    const vxl_interfacedef *const *interfaces;
};

enum EntryKind : int32_t { kComponentEntry = 0, kInterfaceEntry = 1 };

// One block: the entry, then its copy of the name.
struct CacheEntry {
    CacheEntry *hashnext;
    uint64_t hash; // of kind and name
    const char *name;
    int32_t kind;
    int32_t listings; // entries of live registrations' lists that name it
    // The registrant's component record or the interface copy; null while
    // no copy could be made (the next registration that lists it tries again).
    const void *def;
};

vxl_hashtable<Registration> g_registrations;
vxl_hashtable<CacheEntry> g_cache;
vxl_hashtable<CacheEntry> g_retired; // interface entries no registration lists any more

// ---- deep copies of interface definitions ----------------------------------
// Copied arrays get one extra null entry after the last.

void freeParam(vxl_paramdef *param)
{
    if (!param)
        return;
    vxl_free(const_cast<char *>(param->name));
    vxl_free(const_cast<char *>(param->secondname));
    vxl_free(param);
}

void freeMethod(vxl_methoddef *method)
{
    if (!method)
        return;
    if (method->params) {
        for (int32_t k = 0; k < method->paramcount; ++k)
            freeParam(const_cast<vxl_paramdef *>(method->params[k]));
        vxl_free(const_cast<vxl_paramdef **>(method->params));
    }
    vxl_free(const_cast<char *>(method->name));
    vxl_free(method);
}

void freeInterfaceCopy(vxl_interfacedef *def)
{
    if (!def)
        return;
    if (def->methods) {
        for (int32_t j = 0; j < def->methodcount; ++j)
            freeMethod(const_cast<vxl_methoddef *>(def->methods[j]));
        vxl_free(const_cast<vxl_methoddef **>(def->methods));
    }
    vxl_free(const_cast<char *>(def->name));
    vxl_free(def);
}

// A string copy that reports failure only when there was something to copy.
bool copyString(const char *from, const char **to)
{
    *to = vxl_strdup(from);
    return !from || *to;
}

// A zeroed block of kit memory, so that a copy abandoned half-way frees cleanly.
template <typename T> T *allocZeroed(int64_t count)
{
    int64_t bytes = count * static_cast<int64_t>(sizeof(T));
    if (count <= 0 || bytes > INT32_MAX)
        return nullptr;
    auto *block = static_cast<T *>(vxl_malloc(static_cast<int32_t>(bytes)));
    if (block)
        memset(block, 0, static_cast<size_t>(bytes));
    return block;
}

// Arrays of count entries plus the null terminator.
template <typename T> T **newPointerArray(int32_t count)
{
    return allocZeroed<T *>(int64_t(count) + 1);
}

vxl_paramdef *copyParam(const vxl_paramdef *from)
{
    auto *to = allocZeroed<vxl_paramdef>(1);
    if (!to)
        return nullptr;
    to->type = from->type;
    to->direction = from->direction;
    to->array = from->array;
    if (!copyString(from->name, &to->name) || !copyString(from->secondname, &to->secondname)) {
        freeParam(to);
        return nullptr;
    }
    return to;
}

vxl_methoddef *copyMethod(const vxl_methoddef *from)
{
    auto *to = allocZeroed<vxl_methoddef>(1);
    if (!to)
        return nullptr;
    to->paramcount = from->paramcount;
    vxl_paramdef **params = newPointerArray<vxl_paramdef>(from->paramcount);
    to->params = params;
    bool ok = params && copyString(from->name, &to->name);
    for (int32_t k = 0; ok && k < from->paramcount; ++k)
        ok = (params[k] = copyParam(from->params[k])) != nullptr;
    if (!ok) {
        freeMethod(to);
        return nullptr;
    }
    return to;
}

vxl_interfacedef *copyInterface(const vxl_interfacedef *from)
{
    auto *to = allocZeroed<vxl_interfacedef>(1);
    if (!to)
        return nullptr;
    to->methodcount = from->methodcount;
    vxl_methoddef **methods = newPointerArray<vxl_methoddef>(from->methodcount);
    to->methods = methods;
    bool ok = methods && copyString(from->name, &to->name);
    for (int32_t j = 0; ok && j < from->methodcount; ++j)
        ok = (methods[j] = copyMethod(from->methods[j])) != nullptr;
    if (!ok) {
        freeInterfaceCopy(to);
        return nullptr;
    }
    return to;
}

// A cached second name constrains; a new one alone does not. An exact
// comparison (for reusing a kept copy) wants both or neither, and equal.
bool secondNamesMatch(const char *cached, const char *fresh, bool exact)
{
    if (exact)
        return vxl_sameName(cached, fresh);
    return !cached || (fresh && vxl_sameName(cached, fresh));
}

bool sameInterface(const vxl_interfacedef *cached, const vxl_interfacedef *fresh, bool exact = false)
{
    if (!vxl_sameName(cached->name, fresh->name) || cached->methodcount != fresh->methodcount)
        return false;
    for (int32_t j = 0; j < cached->methodcount; ++j) {
        const vxl_methoddef *a = cached->methods[j];
        const vxl_methoddef *b = fresh->methods[j];
        if (!vxl_sameName(a->name, b->name) || a->paramcount != b->paramcount)
            return false;
        for (int32_t k = 0; k < a->paramcount; ++k) {
            const vxl_paramdef *p = a->params[k];
            const vxl_paramdef *q = b->params[k];
            if (!vxl_sameName(p->name, q->name) || p->type != q->type || p->direction != q->direction ||
                p->array != q->array || !secondNamesMatch(p->secondname, q->secondname, exact))
                return false;
        }
    }
    return true;
}

// ---- the cache ----------------------------------------------------------------

uint64_t entryHash(int32_t kind, const char *name)
{
    return vxl_hashmix(vxl_hashname(name) + static_cast<uint64_t>(kind));
}

CacheEntry *findEntry(vxl_hashtable<CacheEntry> &table, int32_t kind, const char *name)
{
    return table.find(entryHash(kind, name),
                      [&](const CacheEntry &e) { return e.kind == kind && vxl_sameName(e.name, name); });
}

const void *findDef(int32_t kind, const char *name)
{
    vxl_lockguard guard(VXL_REGISTRY_LOCK);
    CacheEntry *entry = name ? findEntry(g_cache, kind, name) : nullptr;
    return entry ? entry->def : nullptr;
}

CacheEntry *newEntry(int32_t kind, const char *name)
{
    size_t length = strlen(name) + 1;
    if (length > size_t(INT32_MAX) - sizeof(CacheEntry))
        return nullptr;
    auto *entry = static_cast<CacheEntry *>(vxl_malloc(static_cast<int32_t>(sizeof(CacheEntry) + length)));
    if (!entry)
        return nullptr;
    char *namecopy = reinterpret_cast<char *>(entry + 1);
    memcpy(namecopy, name, length);
    *entry = CacheEntry{nullptr, entryHash(kind, name), namecopy, kind, 0, nullptr};
    return entry;
}

// The copy of an interface: a kept one identical to the definition, or a
// new one (null when it cannot be made).
const vxl_interfacedef *interfaceCopy(const vxl_interfacedef *def)
{
    uint64_t hash = entryHash(kInterfaceEntry, def->name);
    CacheEntry *kept = g_retired.find(hash, [&](const CacheEntry &e) {
        return e.def && sameInterface(static_cast<const vxl_interfacedef *>(e.def), def, true);
    });
    if (!kept)
        return copyInterface(def);
    g_retired.remove(kept);
    const void *copy = kept->def;
    vxl_free(kept);
    return static_cast<const vxl_interfacedef *>(copy);
}

// Calls f(kind, name, def) for every entry of a registration's two lists.
template <typename F> void forEachListed(const Registration &reg, F f)
{
    for (const vxl_componentdef *const *c = reg.components; *c; ++c)
        f(kComponentEntry, (*c)->name, static_cast<const void *>(*c));
    for (const vxl_interfacedef *const *i = reg.interfaces; *i; ++i)
        f(kInterfaceEntry, (*i)->name, static_cast<const void *>(*i));
}

// Makes sure every name the registration lists has an entry (new ones still
// unlisted and without a definition, so lookups do not see them yet). False,
// with every entry made here taken out again, when kit memory runs out.
bool makeEntries(const Registration &reg)
{
    bool ok = true;
    forEachListed(reg, [&](int32_t kind, const char *name, const void *) {
        if (!ok || findEntry(g_cache, kind, name))
            return;
        if (CacheEntry *entry = newEntry(kind, name))
            g_cache.insert(entry);
        else
            ok = false;
    });
    if (!ok)
        forEachListed(reg, [](int32_t kind, const char *name, const void *) {
            CacheEntry *entry = findEntry(g_cache, kind, name);
            if (entry && entry->listings == 0) {
                g_cache.remove(entry);
                vxl_free(entry);
            }
        });
    return ok;
}

// The registration's names join the cache: the first of duplicates within
// one list gives the entry its definition.
void addListings(const Registration &reg)
{
    forEachListed(reg, [](int32_t kind, const char *name, const void *def) {
        CacheEntry *entry = findEntry(g_cache, kind, name);
        ++entry->listings;
        if (!entry->def)
            entry->def = kind == kComponentEntry ? def : interfaceCopy(static_cast<const vxl_interfacedef *>(def));
    });
}

// The registration's names leave the cache; an entry no list names any
// more goes, an interface copy into the kept ones.
void dropListings(const Registration &reg)
{
    forEachListed(reg, [](int32_t kind, const char *name, const void *) {
        CacheEntry *entry = findEntry(g_cache, kind, name);
        if (!entry || --entry->listings > 0)
            return;
        g_cache.remove(entry);
        if (kind == kInterfaceEntry && entry->def)
            g_retired.insert(entry);
        else
            vxl_free(entry);
    });
}

// A list of count entries that the deep copy can hold (count + 1 pointers
// in one kit-memory block) and that has an entry at every index.
template <typename T> bool listIsSound(const T *const *list, int32_t count)
{
    if (count < 0 || count >= INT32_MAX / static_cast<int32_t>(sizeof(void *)))
        return false;
    if (count > 0 && !list)
        return false;
    for (int32_t k = 0; k < count; ++k)
        if (!list[k])
            return false;
    return true;
}

bool interfaceIsSound(const vxl_interfacedef *def)
{
    if (!def->name || !listIsSound(def->methods, def->methodcount))
        return false;
    for (int32_t j = 0; j < def->methodcount; ++j)
        if (!listIsSound(def->methods[j]->params, def->methods[j]->paramcount))
            return false;
    return true;
}

// Lists the kit can never use are refused before anything changes: every
// name is compared later, a class needs one to six interfaces, and an
// interface is deep-copied entry by entry.
bool listsAreSound(const char *libname, const vxl_componentdef *const *components,
                   const vxl_interfacedef *const *interfaces)
{
    if (!libname || !components || !interfaces)
        return false;
    for (const vxl_componentdef *const *c = components; *c; ++c)
        if (!(*c)->name || (*c)->ifcount < 1 || (*c)->ifcount > kMaxInterfaces)
            return false;
    for (const vxl_interfacedef *const *i = interfaces; *i; ++i)
        if (!interfaceIsSound(*i))
            return false;
    return true;
}

} // namespace

const vxl_componentdef *vxl_findcomponentdef(const char *name)
{
    return static_cast<const vxl_componentdef *>(findDef(kComponentEntry, name));
}

const vxl_interfacedef *vxl_findinterfacedef(const char *name)
{
    return static_cast<const vxl_interfacedef *>(findDef(kInterfaceEntry, name));
}

int32_t vxl_register(const char *libname, const vxl_componentdef *const *components,
                     const vxl_interfacedef *const *interfaces)
{
    vxl_lockguard guard(VXL_REGISTRY_LOCK);
    if (!listsAreSound(libname, components, interfaces))
        return VXL_EFAIL;
    for (const vxl_componentdef *const *c = components; *c; ++c)
        if (vxl_findcomponentdef((*c)->name))
            return VXL_EFAIL;
    for (const vxl_interfacedef *const *i = interfaces; *i; ++i) {
        const vxl_interfacedef *cached = vxl_findinterfacedef((*i)->name);
        if (cached && !sameInterface(cached, *i))
            return VXL_EFAIL;
    }
    auto *reg = static_cast<Registration *>(vxl_malloc(sizeof(Registration)));
    char *namecopy = vxl_strdup(libname);
    if (!reg || !namecopy) {
        vxl_free(reg);
        vxl_free(namecopy);
        return VXL_ENOMEM;
    }
    *reg = Registration{nullptr, vxl_hashpointers(components, interfaces), namecopy, components, interfaces};
    // The entries belong to the registration record: without them nothing
    // is registered.
    if (!makeEntries(*reg)) {
        vxl_free(namecopy);
        vxl_free(reg);
        return VXL_ENOMEM;
    }
    g_registrations.insert(reg);
    addListings(*reg);
    return VXL_OK;
}

int32_t vxl_unregister(const vxl_componentdef *const *components, const vxl_interfacedef *const *interfaces)
{
    vxl_log("vxl_unregister:\n");
    vxl_lockguard guard(VXL_REGISTRY_LOCK);
    Registration *reg = g_registrations.find(vxl_hashpointers(components, interfaces), [&](const Registration &r) {
        return r.components == components && r.interfaces == interfaces;
    });
    if (!reg)
        return VXL_EFAIL;
    g_registrations.remove(reg);
    dropListings(*reg);
    vxl_free(reg->libname);
    vxl_free(reg);
    return VXL_OK;
}

const vxl_methoddef *vxl_getmethod(const vxl_interfacedef *def, const char *name)
{
    if (!def || !name)
        return nullptr;
    for (int32_t j = 0; j < def->methodcount; ++j)
        if (vxl_sameName(def->methods[j]->name, name))
            return def->methods[j];
    return nullptr;
}
