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
//
// Beside the list, hash indexes find the first match of a walk without
// walking (lookupindex.h): components by name and by CLSID, interface
// entries by name and by each of their three IIDs. Each registration is one
// block of kit memory, its list record first:
//
//   0    vxl_comregistration   what the list links and every walk reads
//   56   newer                 the registration in front of it in the list
//   64   hashnext, hash        its place among registrations of equal pointers
//   80   interface count       entries of interfaces (length of both caches)
//   84   member counts         per index
//   104  member pointers       per index, into the members that follow
//   136  members ...           by component name, by CLSID, by interface
//                              name, by IID (three per named entry)
#include "comserver/comserver.h"
#include "comserver/lookupindex.h"
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

// ---- the indexes ------------------------------------------------------------------------------

bool sameGuid(const GUID &a, const GUID &b)
{
    return memcmp(&a, &b, sizeof(GUID)) == 0;
}

bool isNullGuid(const GUID &g)
{
    return sameGuid(g, GUID_NULL);
}

const vxl_comcomponentinfo &component(const vxl_lookupmember &m)
{
    return *static_cast<const vxl_comcomponentinfo *>(m.record);
}

const vxl_comifinfo &interfaceEntry(const vxl_lookupmember &m)
{
    return *static_cast<const vxl_comifinfo *>(m.record);
}

// Field of an IID member: the index of the wrapper type in kWrapperTypes.
const GUID &memberIid(const vxl_lookupmember &m)
{
    return interfaceEntry(m).*kWrapperTypes[m.field].iid;
}

struct ComponentName {
    static uint64_t hash(const vxl_lookupmember &m) { return vxl_hashname(component(m).name); }
    static bool same(const vxl_lookupmember &a, const vxl_lookupmember &b)
    {
        return vxl_sameName(component(a).name, component(b).name);
    }
};

struct ComponentClsid {
    static uint64_t hash(const vxl_lookupmember &m) { return vxl_hashbytes16(&component(m).clsid); }
    static bool same(const vxl_lookupmember &a, const vxl_lookupmember &b)
    {
        return sameGuid(component(a).clsid, component(b).clsid);
    }
};

struct InterfaceName {
    static uint64_t hash(const vxl_lookupmember &m) { return vxl_hashname(interfaceEntry(m).name); }
    static bool same(const vxl_lookupmember &a, const vxl_lookupmember &b)
    {
        return vxl_sameName(interfaceEntry(a).name, interfaceEntry(b).name);
    }
};

struct InterfaceIid {
    static uint64_t hash(const vxl_lookupmember &m) { return vxl_hashbytes16(&memberIid(m)); }
    static bool same(const vxl_lookupmember &a, const vxl_lookupmember &b) { return sameGuid(memberIid(a), memberIid(b)); }
};

enum IndexKind { kByComponentName, kByClsid, kByInterfaceName, kByIid, kIndexCount };

vxl_lookupindex<ComponentName> g_byComponentName;
vxl_lookupindex<ComponentClsid> g_byClsid;
vxl_lookupindex<InterfaceName> g_byInterfaceName;
vxl_lookupindex<InterfaceIid> g_byIid;

struct RegistrationNode {
    vxl_comregistration record; // first: list links point at the node
    RegistrationNode *newer;
    RegistrationNode *hashnext;
    uint64_t hash; // of the three pointers
    int32_t interfaceCount;
    int32_t memberCounts[kIndexCount];
    vxl_lookupmember *members[kIndexCount];
};

static_assert(offsetof(RegistrationNode, record) == 0, "the list record starts the registration");
static_assert(offsetof(RegistrationNode, newer) == 56 && offsetof(RegistrationNode, hashnext) == 64 &&
                  offsetof(RegistrationNode, interfaceCount) == 80 && offsetof(RegistrationNode, memberCounts) == 84 &&
                  offsetof(RegistrationNode, members) == 104 && sizeof(RegistrationNode) == 136,
              "registration layout");

// Guarded by the registration lock: the list (through each record's next)
// and, beside it, the registrations by their three pointers.
RegistrationNode *g_registrations = nullptr;
vxl_hashtable<RegistrationNode> g_byPointers;

RegistrationNode *nodeOf(vxl_comregistration *record)
{
    return reinterpret_cast<RegistrationNode *>(record);
}

// Entries of a null-terminated array of records. A null array counts as an
// empty one: the runtime does not validate what a library hands in, but it
// must not fall over it either.
template <class Record> int32_t countEntries(const Record *const *records)
{
    int32_t n = 0;
    if (records)
        while (records[n] && n < INT32_MAX)
            ++n;
    return n;
}

int32_t countNamedInterfaces(const vxl_comifinfo *const *interfaces, int32_t n)
{
    int32_t named = 0;
    for (int32_t i = 0; i < n; ++i)
        named += interfaces[i]->name != nullptr;
    return named;
}

// Fills the members of a new registration, each index's in walk order.
// Nameless entries are found by no name, and a nameless interface entry
// could never be merged, so it is found by no IID either.
void fillMembers(RegistrationNode *node, const vxl_comcomponentinfo *const *components, int32_t ncomponents,
                 const vxl_comifinfo *const *interfaces, int32_t ninterfaces)
{
    int32_t counts[kIndexCount] = {};
    auto add = [&](IndexKind index, const void *record, int32_t field) {
        node->members[index][counts[index]++] = vxl_lookupmember{nullptr, 0, nullptr, nullptr, record, field, 0};
    };
    for (int32_t c = 0; c < ncomponents; ++c) {
        if (components[c]->name)
            add(kByComponentName, components[c], 0);
        add(kByClsid, components[c], 0);
    }
    for (int32_t i = 0; i < ninterfaces; ++i) {
        if (!interfaces[i]->name)
            continue;
        add(kByInterfaceName, interfaces[i], 0);
        for (int32_t field = 0; field < 3; ++field)
            add(kByIid, interfaces[i], field);
    }
}

void indexRegistration(RegistrationNode *node)
{
    g_byComponentName.addInFront(node->members[kByComponentName], node->memberCounts[kByComponentName]);
    g_byClsid.addInFront(node->members[kByClsid], node->memberCounts[kByClsid]);
    g_byInterfaceName.addInFront(node->members[kByInterfaceName], node->memberCounts[kByInterfaceName]);
    g_byIid.addInFront(node->members[kByIid], node->memberCounts[kByIid]);
}

void unindexRegistration(RegistrationNode *node)
{
    g_byComponentName.remove(node->members[kByComponentName], node->memberCounts[kByComponentName]);
    g_byClsid.remove(node->members[kByClsid], node->memberCounts[kByClsid]);
    g_byInterfaceName.remove(node->members[kByInterfaceName], node->memberCounts[kByInterfaceName]);
    g_byIid.remove(node->members[kByIid], node->memberCounts[kByIid]);
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

// The registration block for these arrays, its members filled; null when
// kit memory runs out.
RegistrationNode *newRegistration(const vxl_comcomponentinfo *const *components,
                                  const vxl_comifinfo *const *interfaces, int32_t ninterfaces)
{
    int32_t ncomponents = countEntries(components);
    int32_t named = countNamedInterfaces(interfaces, ninterfaces);
    int32_t namedComponents = 0;
    for (int32_t c = 0; c < ncomponents; ++c)
        namedComponents += components[c]->name != nullptr;
    int64_t counts[kIndexCount] = {namedComponents, ncomponents, named, 3 * int64_t(named)};
    int64_t members = counts[0] + counts[1] + counts[2] + counts[3];
    int64_t bytes = int64_t(sizeof(RegistrationNode)) + members * int64_t(sizeof(vxl_lookupmember));
    if (bytes > INT32_MAX)
        return nullptr;
    auto *node = static_cast<RegistrationNode *>(vxl_malloc(static_cast<int32_t>(bytes)));
    if (!node)
        return nullptr;
    auto *member = reinterpret_cast<vxl_lookupmember *>(node + 1);
    for (int index = 0; index < kIndexCount; ++index) {
        node->memberCounts[index] = static_cast<int32_t>(counts[index]);
        node->members[index] = member;
        member += counts[index];
    }
    fillMembers(node, components, ncomponents, interfaces, ninterfaces);
    return node;
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


} // namespace

vxl_comregistration *vxl_com_registrations()
{
    return g_registrations ? &g_registrations->record : nullptr;
}

int32_t vxl_com_register(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                         const vxl_comifinfo *const *interfaces)
{
    vxl_log("vxl_com_register\n");
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);

    // Out of kit memory the call changes nothing and still answers 0, the only
    // status it has: the library's entries are simply not found later, and its
    // vxl_com_unregister answers 1. The list never holds a half-made record.
    int32_t n = countEntries(interfaces);
    RegistrationNode *node = newRegistration(components, interfaces, n);
    if (!node)
        return VXL_OK;
    vxl_comregistration *reg = &node->record;
    if (!allocCache(n, &reg->typeinfos)) {
        vxl_free(node);
        return VXL_OK;
    }
    if (!allocCache(n, &reg->proxytypeinfos)) {
        vxl_free(reg->typeinfos);
        vxl_free(node);
        return VXL_OK;
    }
    reg->next = vxl_com_registrations();
    reg->components = components;
    reg->interfaces = interfaces;
    reg->library = library;
    reg->typelib = nullptr;
    node->newer = nullptr;
    node->hash = vxl_hashpointers(library, components, interfaces);
    node->interfaceCount = n;
    if (g_registrations)
        g_registrations->newer = node;
    g_registrations = node;
    g_byPointers.insert(node);
    indexRegistration(node);
    return VXL_OK;
}

int32_t vxl_com_unregister(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                           const vxl_comifinfo *const *interfaces)
{
    vxl_log("vxl_com_unregister\n");
    RegistrationNode *found = nullptr;
    {
        vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
        // Registrations of equal pointers are found newest first, as the
        // list walk would find them.
        found = g_byPointers.find(vxl_hashpointers(library, components, interfaces), [&](const RegistrationNode &r) {
            return r.record.components == components && r.record.interfaces == interfaces &&
                   r.record.library == library;
        });
        if (found) {
            g_byPointers.remove(found);
            unindexRegistration(found);
            RegistrationNode *older = nodeOf(found->record.next);
            if (found->newer)
                found->newer->record.next = found->record.next;
            else
                g_registrations = older;
            if (older)
                older->newer = found->newer;
            // The caches are released under the lock that guards them.
            releaseCache(found->record.typeinfos, found->interfaceCount);
            releaseCache(found->record.proxytypeinfos, found->interfaceCount);
            if (found->record.typelib)
                found->record.typelib->Release();
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

// The two find operations return the library's own record; a probe member
// stands in for the key.
const vxl_comcomponentinfo *vxl_com_findcomponentbyclsid(REFCLSID clsid)
{
    vxl_comcomponentinfo key = {nullptr, clsid};
    vxl_lookupmember probe = {nullptr, 0, nullptr, nullptr, &key, 0, 0};
    probe.hash = ComponentClsid::hash(probe);
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    vxl_lookupmember *first = g_byClsid.first(probe);
    return first ? &component(*first) : nullptr;
}

const vxl_comcomponentinfo *vxl_com_findcomponent(const char *name)
{
    if (!name)
        return nullptr;
    vxl_comcomponentinfo key = {name, GUID_NULL};
    vxl_lookupmember probe = {nullptr, 0, nullptr, nullptr, &key, 0, 0};
    probe.hash = ComponentName::hash(probe);
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    vxl_lookupmember *first = g_byComponentName.first(probe);
    return first ? &component(*first) : nullptr;
}

int32_t vxl_com_getifinfo(const char *name, vxl_comifinfo *out)
{
    if (!out)
        return VXL_EFAIL;
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    memset(out, 0, sizeof *out);
    if (!name)
        return VXL_EFAIL;
    vxl_comifinfo key = {};
    key.name = name;
    vxl_lookupmember probe = {nullptr, 0, nullptr, nullptr, &key, 0, 0};
    probe.hash = InterfaceName::hash(probe);
    vxl_lookupmember *member = g_byInterfaceName.first(probe);
    if (!member)
        return VXL_EFAIL;
    // Every entry of the name, in walk order: the last one walked wins a field.
    for (; member; member = member->next)
        mergeEntry(interfaceEntry(*member), out);
    return VXL_OK;
}

int32_t vxl_com_getifinfobyiid(REFIID iid, const char **wtype, vxl_comifinfo *out)
{
    if (wtype)
        *wtype = nullptr;
    if (!out)
        return VXL_EFAIL;
    // One probe per wrapper-type field would do as well; the first field's
    // member stands for the key, as all three compare the same GUID.
    vxl_comifinfo key = {};
    key.iid_com = iid;
    vxl_lookupmember probe = {nullptr, 0, nullptr, nullptr, &key, 0, 0};
    probe.hash = InterfaceIid::hash(probe);
    // The merge runs under the same (re-entrant) lock, so the matching entry
    // cannot be unregistered between finding it and reading it.
    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    if (vxl_lookupmember *first = g_byIid.first(probe)) {
        int32_t status = vxl_com_getifinfo(interfaceEntry(*first).name, out);
        if (wtype)
            *wtype = kWrapperTypes[first->field].name;
        return status;
    }
    memset(out, 0, sizeof *out);
    return VXL_EFAIL;
}
