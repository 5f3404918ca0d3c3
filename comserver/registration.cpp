// COM-side registrations of component libraries and the lookups the rest of
// the COM bridge makes in them. The list is newest first; every walk visits
// registrations in that order and, within one, the array entries in order.
// The library's records are held by pointer and never copied.
//
// Records as component libraries lay them out (x64, byte offsets):
//   vxl_comlibinfo        0 modulename   8 libid                      (24)
//   vxl_comcomponentinfo  0 name         8 clsid                      (24)
//   vxl_comifinfo         0 name         8 iid_com     24 iid_comS
//                        40 iid_comP    56 iid_CP      72 clsid_CP
//                        88 wrap_com    96 wrap_comS  104 wrap_comP
//                       112 getdispinterface                          (120)
//   vxl_comregistration   0 next         8 components  16 interfaces
//                        24 library     32 typelib     40 typeinfos
//                        48 proxytypeinfos                            (56)
#include "comserver/comserver.h"
#include "comserver/wrappertypes.h"

#include <climits>
#include <cstddef>
#include <cstring>

static_assert(offsetof(vxl_comlibinfo, libid) == 8 && sizeof(vxl_comlibinfo) == 24, "vxl_comlibinfo layout");
static_assert(offsetof(vxl_comcomponentinfo, clsid) == 8 && sizeof(vxl_comcomponentinfo) == 24,
              "vxl_comcomponentinfo layout");
static_assert(offsetof(vxl_comifinfo, iid_com) == 8 && offsetof(vxl_comifinfo, iid_comS) == 24 &&
                  offsetof(vxl_comifinfo, iid_comP) == 40 && offsetof(vxl_comifinfo, iid_CP) == 56 &&
                  offsetof(vxl_comifinfo, clsid_CP) == 72 && offsetof(vxl_comifinfo, wrap_com) == 88 &&
                  offsetof(vxl_comifinfo, wrap_comS) == 96 && offsetof(vxl_comifinfo, wrap_comP) == 104 &&
                  offsetof(vxl_comifinfo, getdispinterface) == 112 && sizeof(vxl_comifinfo) == 120,
              "vxl_comifinfo layout");
static_assert(offsetof(vxl_comregistration, components) == 8 && offsetof(vxl_comregistration, interfaces) == 16 &&
                  offsetof(vxl_comregistration, library) == 24 && offsetof(vxl_comregistration, typelib) == 32 &&
                  offsetof(vxl_comregistration, typeinfos) == 40 &&
                  offsetof(vxl_comregistration, proxytypeinfos) == 48 && sizeof(vxl_comregistration) == 56,
              "vxl_comregistration layout");

namespace {

vxl_comregistration *g_registrations = nullptr; // guarded by the registration lock


// A null array counts as an empty one: the runtime does not validate what a
// library hands in, but it must not fall over it either.
int32_t countInterfaces(const vxl_comifinfo *const *interfaces)
{
    int32_t n = 0;
    if (interfaces)
        while (interfaces[n] && n < INT32_MAX)
            ++n;
    return n;
}

bool sameGuid(const GUID &a, const GUID &b)
{
    return memcmp(&a, &b, sizeof(GUID)) == 0;
}

bool isNullGuid(const GUID &g)
{
    return sameGuid(g, GUID_NULL);
}

// Zero-filled cache of n type-information pointers in kit memory. n == 0 needs
// no room (and vxl_malloc gives null for 0 bytes anyway).
bool allocCache(int32_t n, ITypeInfo ***cache)
{
    *cache = nullptr;
    if (n == 0)
        return true;
    if (n > INT32_MAX / static_cast<int32_t>(sizeof(ITypeInfo *)))
        return false;
    int32_t bytes = n * static_cast<int32_t>(sizeof(ITypeInfo *));
    *cache = static_cast<ITypeInfo **>(vxl_malloc(bytes));
    if (!*cache)
        return false;
    memset(*cache, 0, static_cast<size_t>(bytes));
    return true;
}

void releaseCache(ITypeInfo **cache, int32_t n)
{
    if (!cache)
        return;
    for (int32_t i = 0; i < n; ++i)
        if (cache[i])
            cache[i]->Release();
    vxl_free(cache);
}

// Walks every component entry, newest registration first; stops at the
// first entry the predicate accepts.
template <typename Pred> const vxl_comcomponentinfo *findComponent(Pred pred)
{
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    for (vxl_comregistration *reg = g_registrations; reg; reg = reg->next) {
        if (!reg->components)
            continue;
        for (const vxl_comcomponentinfo *const *c = reg->components; *c; ++c)
            if (pred(**c))
                return *c;
    }
    return nullptr;
}

// Copies into the output every field the entry provides; a later call
// overwrites an earlier one field by field. The X-list keeps the five GUIDs
// and the four functions in one place each.
#define VXL_IFINFO_GUIDS(X) X(iid_com) X(iid_comS) X(iid_comP) X(iid_CP) X(clsid_CP)
#define VXL_IFINFO_FUNCTIONS(X) X(wrap_com) X(wrap_comS) X(wrap_comP) X(getdispinterface)

void mergeEntry(const vxl_comifinfo &entry, vxl_comifinfo *out)
{
    out->name = entry.name;
#define VXL_MERGE_GUID(field)                                                                       \
    if (!isNullGuid(entry.field))                                                                  \
        out->field = entry.field;
    VXL_IFINFO_GUIDS(VXL_MERGE_GUID)
#undef VXL_MERGE_GUID
#define VXL_MERGE_FN(field)                                                                         \
    if (entry.field)                                                                               \
        out->field = entry.field;
    VXL_IFINFO_FUNCTIONS(VXL_MERGE_FN)
#undef VXL_MERGE_FN
}

#define VXL_COUNT_FIELD(field) +1
static_assert(0 VXL_IFINFO_GUIDS(VXL_COUNT_FIELD) == 5 && 0 VXL_IFINFO_FUNCTIONS(VXL_COUNT_FIELD) == 4,
              "every optional field of vxl_comifinfo is merged");
#undef VXL_COUNT_FIELD

// The wrapper type of the first of the three IIDs that equals iid, or null.
const char *matchingWrapperType(const vxl_comifinfo &entry, const GUID &iid)
{
    for (const vxl_wrappertype &type : kWrapperTypes)
        if (sameGuid(entry.*type.iid, iid))
            return type.name;
    return nullptr;
}

} // namespace

vxl_comregistration *vxl_com_registrations()
{
    return g_registrations;
}

int32_t vxl_com_register(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                         const vxl_comifinfo *const *interfaces)
{
    vxl_log("vxl_com_register\n");
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);

    // Out of kit memory the call changes nothing and still answers 0, the only
    // status it has: the library's entries are simply not found later, and its
    // vxl_com_unregister answers 1. The list never holds a half-made record.
    auto *reg = static_cast<vxl_comregistration *>(vxl_malloc(sizeof(vxl_comregistration)));
    if (!reg)
        return VXL_OK;
    int32_t n = countInterfaces(interfaces);
    if (!allocCache(n, &reg->typeinfos)) {
        vxl_free(reg);
        return VXL_OK;
    }
    if (!allocCache(n, &reg->proxytypeinfos)) {
        vxl_free(reg->typeinfos);
        vxl_free(reg);
        return VXL_OK;
    }
    reg->next = g_registrations;
    reg->components = components;
    reg->interfaces = interfaces;
    reg->library = library;
    reg->typelib = nullptr;
    g_registrations = reg;
    return VXL_OK;
}

int32_t vxl_com_unregister(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                           const vxl_comifinfo *const *interfaces)
{
    vxl_log("vxl_com_unregister\n");
    vxl_comregistration *found = nullptr;
    {
        vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
        vxl_comregistration **link = &g_registrations;
        while (*link && !((*link)->components == components && (*link)->interfaces == interfaces &&
                          (*link)->library == library))
            link = &(*link)->next;
        if (*link) {
            found = *link;
            *link = found->next;
            // The caches are released under the lock that guards them; the
            // arrays are still the library's, unchanged, so the count holds.
            int32_t n = countInterfaces(found->interfaces);
            releaseCache(found->typeinfos, n);
            releaseCache(found->proxytypeinfos, n);
            if (found->typelib)
                found->typelib->Release();
            vxl_free(found);
        }
    }
    if (!found) {
        vxl_log("vxl_com_unregister: done2\n");
        return VXL_EFAIL;
    }
    vxl_log("vxl_com_unregister: done1\n");
    return VXL_OK;
}

const vxl_comcomponentinfo *vxl_com_findcomponentbyclsid(REFCLSID clsid)
{
    return findComponent([&](const vxl_comcomponentinfo &c) { return sameGuid(c.clsid, clsid); });
}

const vxl_comcomponentinfo *vxl_com_findcomponent(const char *name)
{
    if (!name)
        return nullptr;
    return findComponent([&](const vxl_comcomponentinfo &c) { return c.name && vxl_sameName(c.name, name); });
}

int32_t vxl_com_getifinfo(const char *name, vxl_comifinfo *out)
{
    if (!out)
        return VXL_EFAIL;
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    memset(out, 0, sizeof *out);
    if (!name)
        return VXL_EFAIL;
    int32_t status = VXL_EFAIL;
    for (vxl_comregistration *reg = g_registrations; reg; reg = reg->next) {
        if (!reg->interfaces)
            continue;
        for (const vxl_comifinfo *const *entry = reg->interfaces; *entry; ++entry) {
            if ((*entry)->name && vxl_sameName((*entry)->name, name)) {
                mergeEntry(**entry, out);
                status = VXL_OK;
            }
        }
    }
    return status;
}

int32_t vxl_com_getifinfobyiid(REFIID iid, const char **wtype, vxl_comifinfo *out)
{
    if (wtype)
        *wtype = nullptr;
    if (!out)
        return VXL_EFAIL;
    // The merge runs under the same (re-entrant) lock, so the matching entry
    // cannot be unregistered between finding it and reading it.
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    for (vxl_comregistration *reg = g_registrations; reg; reg = reg->next) {
        if (!reg->interfaces)
            continue;
        for (const vxl_comifinfo *const *entry = reg->interfaces; *entry; ++entry) {
            if (!(*entry)->name)
                continue; // a nameless entry could never be merged
            if (const char *type = matchingWrapperType(**entry, iid)) {
                int32_t status = vxl_com_getifinfo((*entry)->name, out);
                if (wtype)
                    *wtype = type;
                return status;
            }
        }
    }
    memset(out, 0, sizeof *out);
    return VXL_EFAIL;
}
