// Kit objects: the generic slots (getinterface, getname, incref, decref),
// the static table of their 84 bound instances, object creation and the
// interface definition behind an interface pointer. Layout: object.h.
//
// The generic slots take no lock: everything they need is found from the
// interface pointer and the two constants their instance is bound to.
#include "object.h"

#include <windows.h>

#include <utility>

namespace {

static_assert(sizeof(LONG) == sizeof(int32_t), "interlocked operations act on the int32 counts");

inline volatile LONG *counter(int32_t *count)
{
    return reinterpret_cast<volatile LONG *>(count);
}

// ---- distances from an interface pointer (in cells) -------------------------

inline void **cells(vxl_if self)
{
    return reinterpret_cast<void **>(self);
}

inline vxl_objectcore *coreOf(vxl_if self, int32_t i)
{
    return reinterpret_cast<vxl_objectcore *>(cells(self) + i + 1);
}

inline vxl_if primaryOf(vxl_if self, int32_t i)
{
    return reinterpret_cast<vxl_if>(cells(self) + i);
}

inline void **blockOf(vxl_if self, int32_t last, int32_t i)
{
    return cells(self) - (last - i);
}

inline vxl_if headSlot(void **block, int32_t k)
{
    return reinterpret_cast<vxl_if>(block + k);
}

// ---- the four workers ---------------------------------------------------------

int32_t getinterfaceWorker(vxl_if self, const char *name, vxl_if *out, int32_t last, int32_t i)
{
    if (!out)
        return VXL_EFAIL;
    *out = nullptr;
    vxl_objectcore *core = coreOf(self, i);
    const vxl_componentdef *def = core->factory->componentdef;
    vxl_getinterfacefn callback = def->getinterface;

    vxl_if candidate = nullptr;
    if (!name) {
        if (!callback)
            candidate = primaryOf(self, i);
    } else {
        void **block = blockOf(self, last, i);
        for (int32_t k = 0; k <= last && !candidate; ++k) {
            vxl_if slot = headSlot(block, k);
            const char *slotname = nullptr;
            int32_t status = slot->slots->getname(slot, &slotname);
            if (status != VXL_OK)
                return status;
            if (vxl_sameName(slotname, name))
                candidate = slot;
        }
        if (!candidate && !callback) {
            vxl_loghot("getinterface(%x, %s)\n", VXL_PTR(self), name);
            return VXL_ENOINTERFACE;
        }
    }

    if (candidate) {
        int32_t status = candidate->slots->incref(candidate);
        if (status == VXL_OK)
            *out = candidate;
        vxl_loghot("getinterface(%x, %s) = %x\n", VXL_PTR(self), name, VXL_PTR(*out));
        return status;
    }

    int32_t status = callback(core->impl, name, out, primaryOf(self, i));
    if (status != VXL_OK)
        *out = nullptr;
    vxl_loghot("getinterface(%x, %s) = %x %d\n", VXL_PTR(self), name, VXL_PTR(*out), status);
    return status;
}

int32_t getnameWorker(vxl_if self, const char **out, int32_t last, int32_t i)
{
    if (!out)
        return VXL_EFAIL;
    const vxl_componentdef *def = coreOf(self, i)->factory->componentdef;
    *out = def->interfaces[i]->def->name;
    return VXL_OK;
}

int32_t increfWorker(vxl_if self, int32_t last, int32_t i)
{
    vxl_loghot("inccref(%x)\n", VXL_PTR(self));
    InterlockedIncrement(counter(&coreOf(self, i)->refcount));
    return VXL_OK;
}

int32_t decrefWorker(vxl_if self, int32_t last, int32_t i)
{
    vxl_objectcore *core = coreOf(self, i);
    // Read before the decrement; another thread may change it meanwhile.
    vxl_loghot("decref(%x) = %d\n", VXL_PTR(self), static_cast<int>(*counter(&core->refcount)));
    if (InterlockedDecrement(counter(&core->refcount)) != 0)
        return VXL_OK;
    vxl_classfactory *factory = core->factory;
    vxl_destroyfn destroy = factory->componentdef->destroy;
    if (destroy) {
        int32_t status = destroy(core->impl, primaryOf(self, i));
        if (status != VXL_OK)
            return status; // the object stays, with count 0
    }
    vxl_threadstate *thread = vxl_thisthread();
    vxl_adduses(factory, thread, -1);
    vxl_giveblock(thread, last + 1, blockOf(self, last, i));
    return VXL_OK;
}

// ---- the bound instances ------------------------------------------------------
// One template per kind; each instance calls its worker with its own
// constants last = n-1 and i.

template <int32_t Last, int32_t I> int32_t boundIncref(vxl_if self)
{
    return increfWorker(self, Last, I);
}

template <int32_t Last, int32_t I> int32_t boundDecref(vxl_if self)
{
    return decrefWorker(self, Last, I);
}

template <int32_t Last, int32_t I> int32_t boundGetinterface(vxl_if self, const char *name, vxl_if *out)
{
    return getinterfaceWorker(self, name, out, Last, I);
}

template <int32_t Last, int32_t I> int32_t boundGetname(vxl_if self, const char **out)
{
    return getnameWorker(self, out, Last, I);
}

template <int32_t N, int32_t I> constexpr vxl_genericgroup makeGroup()
{
    if constexpr (I < N)
        return {&boundIncref<N - 1, I>, &boundDecref<N - 1, I>, &boundGetinterface<N - 1, I>,
                &boundGetname<N - 1, I>};
    else
        return {nullptr, nullptr, nullptr, nullptr};
}

struct GenericRow {
    vxl_genericgroup groups[kMaxInterfaces];
};

template <int32_t N, size_t... I> constexpr GenericRow makeRow(std::index_sequence<I...>)
{
    return {{makeGroup<N, static_cast<int32_t>(I)>()...}};
}

constexpr GenericRow row1 = makeRow<1>(std::make_index_sequence<kMaxInterfaces>());
constexpr GenericRow row2 = makeRow<2>(std::make_index_sequence<kMaxInterfaces>());
constexpr GenericRow row3 = makeRow<3>(std::make_index_sequence<kMaxInterfaces>());
constexpr GenericRow row4 = makeRow<4>(std::make_index_sequence<kMaxInterfaces>());
constexpr GenericRow row5 = makeRow<5>(std::make_index_sequence<kMaxInterfaces>());
constexpr GenericRow row6 = makeRow<6>(std::make_index_sequence<kMaxInterfaces>());

} // namespace

#define VXL_ROW(r) {r.groups[0], r.groups[1], r.groups[2], r.groups[3], r.groups[4], r.groups[5]}
constexpr vxl_genericgroup vxl_genericslots[kMaxInterfaces][kMaxInterfaces] = {
    VXL_ROW(row1), VXL_ROW(row2), VXL_ROW(row3), VXL_ROW(row4), VXL_ROW(row5), VXL_ROW(row6),
};
#undef VXL_ROW

namespace {

constexpr int countGenericFunctions()
{
    int count = 0;
    for (const auto &row : vxl_genericslots)
        for (const vxl_genericgroup &group : row)
            count += (group.incref != nullptr) + (group.decref != nullptr) + (group.getinterface != nullptr) +
                     (group.getname != nullptr);
    return count;
}

// 21 (n, i) pairs with 1 <= n <= 6, 0 <= i < n; four slots each.
static_assert(countGenericFunctions() == 84, "one generic slot function per kind and (n, i) pair");
static_assert(sizeof vxl_genericslots == 6 * 24 * sizeof(void *), "6 rows of 24 entries");

} // namespace

// ---- objects ------------------------------------------------------------------

vxl_if vxl_newobject(vxl_classfactory *factory, void ***core)
{
    return vxl_newobjectwithuse(factory, vxl_thisthread(), false, core);
}

vxl_if vxl_newobjectwithuse(vxl_classfactory *factory, vxl_threadstate *thread, bool useTaken, void ***core)
{
    int32_t n = factory->headlength / static_cast<int32_t>(sizeof(void *));
    int64_t bytes = int64_t(factory->headlength) + int64_t(sizeof(vxl_objectcore));
    if (n < 1 || n > kMaxInterfaces || bytes > INT32_MAX)
        return nullptr;
    auto **block = static_cast<void **>(vxl_takeblock(thread, n, static_cast<int32_t>(bytes)));
    if (!block)
        return nullptr;
    for (int32_t k = 0; k < n; ++k)
        block[k] = factory->headtemplate[k];
    auto *objcore = reinterpret_cast<vxl_objectcore *>(block + n);
    objcore->impl = nullptr;
    objcore->factory = factory;
    objcore->refcount = 1;
    if (core)
        *core = &objcore->impl;
    if (!useTaken)
        vxl_adduses(factory, thread, 1);
    vxl_if primary = headSlot(block, n - 1);
    vxl_loghot("encapsulate = %x\n", VXL_PTR(primary));
    return primary;
}

const vxl_interfacedef *vxl_getinterfacedef(vxl_if pif)
{
    if (!pif)
        return nullptr;
    vxl_if primary = nullptr;
    // A success without an interface breaks the slot contract just as a failure does.
    if (pif->slots->getinterface(pif, nullptr, &primary) != VXL_OK || !primary)
        vxl_fatal("ooops");
    const char *name = nullptr;
    if (primary->slots->getname(primary, &name) != VXL_OK)
        vxl_fatal("oops");
    if (primary->slots->decref(primary) != VXL_OK)
        vxl_fatal("ooops");
    return vxl_findinterfacedef(name);
}

namespace {

// The index i of the interface within its object when pif is an interface
// of a kit object of this runtime (its incref slot tells the generic group,
// and with it the index that locates the core); -1 for any other interface.
int32_t genericIndexOf(vxl_if pif)
{
    for (int32_t n = 1; n <= kMaxInterfaces; ++n)
        for (int32_t i = 0; i < n; ++i)
            if (vxl_genericslots[n - 1][i].incref == pif->slots->incref)
                return i;
    return -1;
}

} // namespace

bool vxl_increfifalive(vxl_if pif)
{
    int32_t i = genericIndexOf(pif);
    if (i < 0) {
        pif->slots->incref(pif);
        return true;
    }
    volatile LONG *count = counter(&coreOf(pif, i)->refcount);
    for (LONG seen = *count; seen != 0; seen = *count) {
        if (InterlockedCompareExchange(count, seen + 1, seen) == seen) {
            vxl_loghot("inccref(%x)\n", VXL_PTR(pif));
            return true;
        }
    }
    return false;
}

vxl_if vxl_quietidentity(vxl_if pif)
{
    if (!vxl_traceoff())
        return nullptr;
    int32_t i = genericIndexOf(pif);
    if (i < 0 || coreOf(pif, i)->factory->componentdef->getinterface)
        return nullptr;
    return primaryOf(pif, i);
}

int32_t vxl_decref(vxl_if pif)
{
    if (pif)
        pif->slots->decref(pif);
    return VXL_OK;
}
