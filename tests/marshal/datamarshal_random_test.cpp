// Thousands of random SAFEARRAYs and VARIANTs (tags, shapes, bounds, wrong
// and oversized counts) through every reader and writer, in a child whose
// oleaut32 caches no BSTRs. Nothing may crash, write past what the array
// holds or read it differently by another route; and of passes run twice,
// the second may leave no block of task memory (counted by an IMallocSpy,
// which also fails every n-th allocation in half the passes) and no kit
// block (counted on the C runtime heap) behind.
#include "datamarshal.h"
#include "taskmemory.h"

#include <malloc.h>

#include <cstdio>
#include <random>

using namespace dm;

namespace {

vxltest::TaskMemoryCounter spy;
std::mt19937 rng;
unsigned pick(unsigned n) { return rng() % n; }
int faults = 0;

vxl_if pool[2];
IUnknown *poolWrappers[2];
IUnknown *poolRef() // a new reference, or null
{
    IUnknown *p = pick(3) ? poolWrappers[pick(2)] : nullptr;
    return p && p->AddRef(), p;
}
VARIANT targets[8]; // what by-reference VARIANTs point at, the last a reference itself

long kitBlocks()
{
    _HEAPINFO info = {};
    long used = 0;
    while (_heapwalk(&info) == _HEAPOK)
        used += info._useflag == _USEDENTRY;
    return used;
}

void randomVariant(VARIANT *v)
{
    static const VARTYPE converted[] = {VT_I4, VT_I2, VT_R4, VT_R8, VT_BSTR, VT_BOOL, VT_UI4, VT_DATE, VT_CY, VT_UI1};
    VariantInit(v);
    switch (pick(8)) {
    case 0: // a number, as oleaut32 converts it
        V_VT(v) = VT_I4, V_I4(v) = static_cast<int32_t>(rng()) >> pick(32);
        VariantChangeType(v, v, 0, converted[pick(10)]);
        break;
    case 1: V_VT(v) = VT_BSTR, V_BSTR(v) = pick(4) ? SysAllocString(L"text") : nullptr; break;
    case 2: V_VT(v) = pick(2) ? VT_DISPATCH : VT_UNKNOWN, V_UNKNOWN(v) = poolRef(); break;
    case 3: { // to a target's value, or to nothing
        VARIANT &target = targets[pick(7)];
        *v = byref(V_VT(&target), pick(8) ? &V_I4(&target) : nullptr);
        break;
    }
    case 4: *v = byref(VT_VARIANT, pick(8) ? &targets[pick(8)] : nullptr); break;
    case 5: V_VT(v) = VT_ARRAY | VT_I4, V_ARRAY(v) = SafeArrayCreateVector(VT_I4, 0, pick(3)); break;
    default: V_VT(v) = pick(2) ? VT_NULL : VT_EMPTY;
    }
}

SAFEARRAY *randomArray()
{
    static const VARTYPE tags[] = {VT_I4, VT_I2, VT_R4, VT_R8, VT_BSTR, VT_DISPATCH, VT_UNKNOWN, VT_VARIANT, VT_UI1, VT_BOOL};
    VARTYPE vt = tags[pick(10)];
    UINT dims = 1 + pick(3);
    SAFEARRAYBOUND bounds[3];
    ULONG n = 1;
    for (UINT d = 0; d < dims; ++d)
        bounds[d] = {pick(dims == 1 ? 9 : 4), static_cast<LONG>(pick(7)) - 3}, n *= bounds[d].cElements;
    SAFEARRAY *sa = dims == 1 && pick(4) == 0 ? SafeArrayCreateVector(vt, bounds[0].lLbound, bounds[0].cElements)
                                              : SafeArrayCreate(vt, dims, bounds);
    faults += sa && vxl_com_safearraylen(sa) != static_cast<int32_t>(bounds[0].cElements); // dimension 1's
    BYTE *data = nullptr;
    if (!sa || n == 0 || FAILED(SafeArrayAccessData(sa, reinterpret_cast<void **>(&data))))
        return sa;
    for (ULONG i = 0; i < n * SafeArrayGetElemsize(sa); ++i)
        data[i] = static_cast<BYTE>(rng());
    for (ULONG i = 0; i < n; ++i)
        if (vt == VT_VARIANT)
            randomVariant(reinterpret_cast<VARIANT *>(data) + i);
        else if (vt == VT_BSTR)
            reinterpret_cast<BSTR *>(data)[i] = pick(4) ? SysAllocString(L"element") : nullptr;
        else if (vt == VT_DISPATCH || vt == VT_UNKNOWN)
            reinterpret_cast<IUnknown **>(data)[i] = poolRef();
    SafeArrayUnaccessData(sa);
    return sa;
}

template <class In> In randomValue();
template <> int32_t randomValue() { return static_cast<int32_t>(rng()); }
template <> float randomValue() { return static_cast<float>(static_cast<int32_t>(rng())) / 7; }
template <> double randomValue() { return static_cast<double>(static_cast<int32_t>(rng())) / 3; }
template <> const char *randomValue() { return pick(4) ? "caf\xe9" + pick(5) : nullptr; }
template <> vxl_if randomValue() { return pick(3) ? pool[pick(2)] : nullptr; }

// Every array reader over sa, directly and through holder (which refers to
// sa when viaHolder), with counts of every sort. Nothing may be written past
// the array's data: the last four of room slots stay as they were.
void readEverything(SAFEARRAY *sa, const VARIANT *holder, bool viaHolder)
{
    uint64_t bytes = sa ? sa->cbElements : 0;
    for (USHORT d = 0; sa && d < sa->cDims; ++d)
        bytes *= sa->rgsabound[d].cElements;
    size_t room = bytes / 4 + 4; // no element is narrower than 4 bytes
    int32_t held = static_cast<int32_t>(bytes / 4), r = static_cast<int32_t>(pick(4));
    const int32_t counts[] = {0, held, held + 1 + r, -1 - r, r, INT32_MAX};
    int32_t count = counts[pick(6)];
    faults += (viaHolder ? vxl_com_safearraylen(sa) : 0) != vxl_com_variantsafearraylen(holder);
    forEachKind([&](auto &k) {
        KIND_TYPES(k);
        Out *dst = untouched<Out>(room), unread = dst[room - 1];
        k.copyFrom(dst, sa, count);
        for (size_t i = room - 4; i < room; ++i)
            faults += !same(dst[i], unread);
        Out *made = k.createFrom(sa, count), *fromHolder = k.readArray(holder, count);
        for (int32_t i = 0; made && fromHolder && i < count; ++i)
            faults += !same(made[i], fromHolder[i]);
        faults += !viaHolder && fromHolder;
        k.freeArray(dst, static_cast<int32_t>(room)), k.freeArray(made, made ? count : 0);
        k.freeArray(fromHolder, fromHolder ? count : 0);
    });
}

void readScalars(VARIANT *v)
{
    VARIANT outer = byref(VT_VARIANT, v);
    forEachKind([&](auto &k) { release(k.read(v)), release(k.read(&outer)); });
}

// Writers onto VARIANTs that hold nothing or a value of the kind, by value,
// through VT_BYREF|VT_VARIANT and through references; creators over random
// kit arrays; and the arrays they make through every reader.
void writeAndCreate()
{
    forEachKind([&](auto &k) {
        KIND_TYPES(k);
        In values[6];
        for (In &value : values)
            value = randomValue<In>();
        VARIANT inner = {}, outer = byref(VT_VARIANT, &inner), holder = {};
        LONGLONG stored = 0;
        SAFEARRAY *storedArray = pick(2) ? randomArray() : nullptr;
        VARIANT ref = byref(k.putTag, &stored), aref = byref(VT_ARRAY | VT_VARIANT, &storedArray);
        for (int twice = 0; twice < 2; ++twice)
            faults += k.put(pick(2) ? &inner : &outer, values[pick(6)]) + k.put(&ref, values[pick(6)]) +
                      k.putArray(pick(2) ? &holder : &aref, values, static_cast<int32_t>(pick(7)));
        V_VT(&outer) = k.putTag, memcpy(&V_I8(&outer), &stored, sizeof stored);
        readScalars(&outer), readScalars(&inner);
        readEverything(V_ARRAY(&holder), &holder, true);
        VariantClear(&outer), VariantClear(&inner), VariantClear(&holder), SafeArrayDestroy(storedArray);

        int32_t count = static_cast<int32_t>(pick(8)) - 1;
        SAFEARRAY *sa = (pick(2) ? k.create : k.createVariant)(values, count);
        VARIANT sref = byref(VT_ARRAY | VT_VARIANT, &sa);
        faults += count < 0 && sa;
        readEverything(sa, &sref, sa);
        SafeArrayDestroy(sa);
    });
}

void kitArrays()
{
    const char *strings[6];
    vxl_if kit[6];
    int32_t n = static_cast<int32_t>(pick(7));
    for (int i = 0; i < 6; ++i)
        strings[i] = randomValue<const char *>(), kit[i] = randomValue<vxl_if>();
    vxl_freestringarray(vxl_com_createstringarray(strings, n), n);
    vxl_com_freecomstringarray(vxl_com_createcomstringarray(strings, n), n);
    vxl_com_free(vxl_com_createcomintarray(&n, n ? 1 : 0));
    if (char **copy = vxl_com_createemptycomstringarray(n))
        vxl_com_copycomstringarray(copy, strings, n), vxl_com_freecomstringarray(copy, n);
    if (IUnknown **com = vxl_com_createemptycominterfacearray(n)) {
        vxl_com_copycominterfacearray(com, kit, n, DM_IF);
        if (vxl_if *back = vxl_com_createemptyinterfacearray(n))
            vxl_com_copyinterfacearray(back, com, n, DM_IF), vxl_freeinterfacearray(back, n);
        vxl_com_freecominterfacearray(com, n, DM_IF);
    }
}

void pass(unsigned seed, unsigned failEvery)
{
    rng.seed(seed);
    spy.failEvery = failEvery;
    for (int round = 0; round < 1000; ++round) {
        SAFEARRAY *sa = randomArray();
        VARTYPE vt = VT_VARIANT;
        SafeArrayGetVartype(sa, &vt);
        VARIANT owner, scalar, none;
        V_VT(&owner) = VT_ARRAY | (pick(2) ? vt : VARTYPE{VT_VARIANT}), V_ARRAY(&owner) = sa;
        V_VT(&none) = VT_I4, V_I4(&none) = 0x1000;
        VARIANT holders[] = {owner, byref(V_VT(&owner), &V_ARRAY(&owner)), byref(VT_VARIANT, &owner), none};
        unsigned h = pick(4);
        readEverything(sa, &holders[h], h < 3);
        randomVariant(&scalar);
        readScalars(&scalar);
        VariantClear(&scalar), VariantClear(&owner);
        writeAndCreate();
        kitArrays();
    }
    spy.failEvery = 0;
}

} // namespace

VXL_CHILD(randomized)
{
    for (int i = 0; i < 2; ++i)
        pool[i] = newCounter(), poolWrappers[i] = vxl_wrapptr(pool[i], DM_IF);
    static const VARTYPE tags[] = {VT_I4, VT_I2, VT_R4, VT_R8, VT_BSTR, VT_UI1};
    for (int i = 0; i < 6; ++i)
        V_VT(&targets[i]) = VT_I4, V_I4(&targets[i]) = 41, VariantChangeType(&targets[i], &targets[i], 0, tags[i]);
    V_VT(&targets[6]) = VT_DISPATCH, V_UNKNOWN(&targets[6]) = poolWrappers[0], targets[7] = byref(VT_VARIANT, &targets[1]);
    if (!spy.install())
        return 2;
    BSTR probe = SysAllocString(L"probe");
    LONG counted = spy.live;
    SysFreeString(probe);
    if (counted != 1 || spy.live != 0) // a BSTR kept in the cache would still count
        return 3;
    long blocks[2];
    for (int run = 0; run < 2; ++run)
        pass(1, 0), pass(2, 23), blocks[run] = kitBlocks();
    printf("task blocks left %ld, kit blocks %ld then %ld, faults %d\n", spy.live, blocks[0], blocks[1], faults);
    spy.remove();
    if (spy.live != 0 || blocks[1] != blocks[0] || faults)
        return 4;
    VariantClear(&targets[4]);
    for (int i = 0; i < 2; ++i)
        poolWrappers[i]->Release(), vxl_decref(pool[i]);
    return liveCounters == 0 ? 0 : 5;
}

TEST(DataMarshalRandom, EveryReaderOverRandomInputLeavesNothing)
{
    EXPECT_EQ(0, vxltest::runChild("randomized", nullptr));
}
