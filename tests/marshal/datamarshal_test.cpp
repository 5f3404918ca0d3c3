// Kit arrays, safe arrays and VARIANTs: every kind through the same cases,
// over arrays and VARIANTs that oleaut32 itself builds, with the references
// of interface elements counted through the test wrapper library.
#include "datamarshal.h"

#include <vector>

using namespace dm;

namespace {

class DataMarshal : public testing::Test {
protected:
    static void SetUpTestSuite() { setUpProcess(); }
    void TearDown() override
    {
        EXPECT_EQ(0, liveCounters.load());
        EXPECT_EQ(0, liveWrappers());
    }
};

template <class T> void checkNumberArrays(T *(*kit)(const T *, int32_t), T *(*task)(const T *, int32_t),
                                          T *(*empty)(int32_t), const T (&src)[3])
{
    IMalloc *taskAllocator = nullptr;
    ASSERT_EQ(S_OK, CoGetMalloc(1, &taskAllocator));
    for (auto create : {kit, task}) {
        EXPECT_EQ(nullptr, create(reinterpret_cast<const T *>(8), 0)); // src is not read
        T *copy = create(src, 3);
        ASSERT_NE(nullptr, copy);
        EXPECT_EQ(0, memcmp(copy, src, sizeof src));
        EXPECT_EQ(create == task, taskAllocator->DidAlloc(copy) == 1);
        create == task ? vxl_com_free(copy) : vxl_free(copy);
    }
    taskAllocator->Release();
    EXPECT_EQ(nullptr, empty(0));
    EXPECT_EQ(nullptr, empty(-1));
    vxl_free(empty(3));
}

} // namespace

TEST_F(DataMarshal, NumberArraysInKitAndTaskMemory)
{
    checkNumberArrays(vxl_com_createintarray, vxl_com_createcomintarray, vxl_com_createemptyintarray, Samples<int32_t>().v);
    checkNumberArrays(vxl_com_createfloatarray, vxl_com_createcomfloatarray, vxl_com_createemptyfloatarray, Samples<float>().v);
    checkNumberArrays(vxl_com_createdoublearray, vxl_com_createcomdoublearray, vxl_com_createemptydoublearray, Samples<double>().v);
}

TEST_F(DataMarshal, StringArraysDuplicateIntoTheirHome)
{
    Samples<const char *> samples;
    const char *const *src = samples.v;
    IMalloc *taskAllocator = nullptr;
    ASSERT_EQ(S_OK, CoGetMalloc(1, &taskAllocator));
    EXPECT_EQ(nullptr, vxl_com_createcomstringarray(reinterpret_cast<const char *const *>(8), 0));
    char *copied[3];
    vxl_com_copystringarray(copied, src, 3);
    char **filled = vxl_com_createemptycomstringarray(3);
    ASSERT_TRUE(filled && !filled[0] && !filled[1] && !filled[2]);
    vxl_com_copycomstringarray(filled, src, 3);
    char **arrays[] = {vxl_com_createstringarray(src, 3), vxl_com_createcomstringarray(src, 3), copied, filled};
    for (int a = 0; a < 4; ++a)
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(same(arrays[a][i], src[i]) && (!src[i] || arrays[a][i] != src[i])) << a << i;
            EXPECT_EQ(src[i] && a % 2 == 1, taskAllocator->DidAlloc(arrays[a][i]) == 1) << a << i;
        }
    taskAllocator->Release();
    vxl_freestringarray(arrays[0], 3);
    vxl_com_freecomstringarray(arrays[1], 3);
    vxl_freestringarraycontents(copied, 3);
    EXPECT_EQ(0, vxl_com_freecomstringarraycontents(filled, 3));
    vxl_com_free(filled);
    char **none = vxl_com_createemptycomstringarray(0); // an empty block, not null
    EXPECT_NE(nullptr, none);
    vxl_com_free(none);
}

TEST_F(DataMarshal, InterfaceArraysWrapAndUnwrapHoldingOneReferenceEach)
{
    vxl_if counter = newCounter();
    const vxl_if src[] = {counter, nullptr, counter};
    EXPECT_EQ(nullptr, vxl_com_createinterfacearray(nullptr, 3, DM_IF));
    EXPECT_EQ(nullptr, vxl_com_createcominterfacearray(src, 3, DM_IF));
    IUnknown **com = vxl_com_createemptycominterfacearray(3);
    ASSERT_TRUE(com && !com[0] && !com[1] && !com[2]);
    vxl_com_copycominterfacearray(com, src, 3, DM_IF);
    EXPECT_TRUE(com[0] && com[0] == com[2] && !com[1]);
    EXPECT_EQ(1, liveWrappers());
    EXPECT_EQ(3u, com[0]->AddRef()); // one reference per element
    com[0]->Release();
    vxl_if back[3];
    vxl_com_copyinterfacearray(back, com, 3, DM_IF);
    EXPECT_TRUE(back[0] == counter && !back[1] && back[2] == counter);
    vxl_freeinterfacearraycontents(back, 3);
    EXPECT_EQ(0, vxl_com_freecominterfacearray(com, 3, DM_IF));
    EXPECT_EQ(0, liveWrappers());
    EXPECT_EQ(1, liveCounters.load()); // the unwrapped references were given back, no more
    vxl_if *kit = vxl_com_createemptyinterfacearray(2);
    kit[0] = counter, kit[1] = nullptr; // the array takes over the reference
    EXPECT_EQ(0, vxl_com_freeinterfacearray(kit, 2, DM_IF));
}

TEST_F(DataMarshal, SafeArraysOfEveryKindInBothShapesReadBack)
{
    forEachKind([](auto &k) {
        KIND_TYPES(k);
        SCOPED_TRACE(k.name);
        Samples<In> samples;
        for (bool variants : {false, true}) {
            SAFEARRAY *sa = (variants ? k.createVariant : k.create)(samples.v, 3);
            VARTYPE vt = 0;
            ASSERT_EQ(S_OK, SafeArrayGetVartype(sa, &vt));
            EXPECT_EQ(variants ? VARTYPE{VT_VARIANT} : k.elementTag, vt);
            EXPECT_EQ(1u, SafeArrayGetDim(sa));
            EXPECT_EQ(3, vxl_com_safearraylen(sa));
            if (variants) {
                VARIANT element;
                LONG index = 2;
                ASSERT_EQ(S_OK, SafeArrayGetElement(sa, &index, &element));
                EXPECT_EQ(k.elementTag, V_VT(&element));
                VariantClear(&element);
            }
            // Interfaces are read only from VT_DISPATCH elements, not the VT_UNKNOWN ones made here.
            bool readable = !(variants && k.elementTag == VT_UNKNOWN);
            Out *dst = untouched<Out>(5), *made = k.createFrom(sa, 5);
            Out unread = dst[4];
            k.copyFrom(dst, sa, 5); // two more than the array holds
            for (int i = 0; i < 5; ++i) {
                EXPECT_TRUE(same(dst[i], i < 3 && readable ? samples.v[i] : unread)) << i;
                EXPECT_TRUE(same(made[i], i < 3 && readable ? samples.v[i] : Out{})) << i;
            }
            k.freeArray(dst, 5);
            k.freeArray(made, 5);
            EXPECT_EQ(nullptr, k.createFrom(sa, 0));
            EXPECT_EQ(0, vxl_com_freesafearray(sa));
        }
        SAFEARRAY *empty = k.create(samples.v, 0);
        EXPECT_EQ(0, vxl_com_safearraylen(empty));
        vxl_com_freesafearray(empty);
    });
}

TEST_F(DataMarshal, ReadersOverArraysBuiltByOleaut)
{
    LONG i4 = 41;
    SHORT i2 = -3;
    double r8 = 0.125;
    SAFEARRAYBOUND bound = {7, 1};
    SAFEARRAY *sa = SafeArrayCreate(VT_VARIANT, 1, &bound);
    EXPECT_EQ(7, vxl_com_safearraylen(sa));
    VARIANT *v = nullptr;
    ASSERT_EQ(S_OK, SafeArrayAccessData(sa, reinterpret_cast<void **>(&v)));
    V_VT(&v[0]) = VT_I2, V_I2(&v[0]) = -2;
    v[2] = byref(VT_I4, &i4), v[3] = byref(VT_I2, &i2), v[5] = byref(VT_R8, &r8);
    V_VT(&v[4]) = VT_R4, V_R4(&v[4]) = 1.5f;
    V_VT(&v[6]) = VT_I4, V_I4(&v[6]) = 7;
    ASSERT_EQ(S_OK, VariantChangeType(&v[6], &v[6], 0, VT_BSTR));
    SafeArrayUnaccessData(sa);

    std::vector<int32_t> ints(8, 99); // one more than the array holds
    vxl_com_copyintarrayfromsafearray(ints.data(), sa, 8);
    EXPECT_EQ((std::vector<int32_t>{-2, 99, 41, -3, 99, 99, 99, 99}), ints);
    std::vector<float> floats(7, 99);
    vxl_com_copyfloatarrayfromsafearray(floats.data(), sa, 7);
    EXPECT_EQ((std::vector<float>{99, 99, 99, 99, 1.5f, 99, 99}), floats);
    std::vector<double> doubles(7, 99);
    vxl_com_copydoublearrayfromsafearray(doubles.data(), sa, 7);
    EXPECT_EQ((std::vector<double>{99, 99, 99, 99, 1.5, 0.125, 99}), doubles);
    char **strings = vxl_com_createstringarrayfromsafearray(sa, 7);
    for (int i = 0; i < 7; ++i)
        EXPECT_TRUE(same(strings[i], i == 6 ? "7" : nullptr)) << i;
    vxl_freestringarray(strings, 7);
    vxl_com_freesafearray(sa);

    // Two dimensions: the readers take the data from its start, the length is dimension 1's.
    SAFEARRAYBOUND bounds[] = {{2, -1}, {3, 5}};
    SAFEARRAY *grid = SafeArrayCreate(VT_I4, 2, bounds);
    EXPECT_EQ(2, vxl_com_safearraylen(grid));
    int32_t *cells = nullptr;
    SafeArrayAccessData(grid, reinterpret_cast<void **>(&cells));
    for (int i = 0; i < 6; ++i)
        cells[i] = 10 + i;
    SafeArrayUnaccessData(grid);
    int32_t *all = vxl_com_createintarrayfromsafearray(grid, 7);
    EXPECT_EQ((std::vector<int32_t>{10, 11, 12, 13, 14, 15, 0}), std::vector<int32_t>(all, all + 7));
    vxl_free(all);
    // Elements that are not BSTRs or COM pointers are not read as such.
    char **none = vxl_com_createstringarrayfromsafearray(grid, 6);
    vxl_if *noifs = vxl_com_createinterfacearrayfromsafearray(grid, 6, DM_IF);
    for (int i = 0; i < 6; ++i)
        EXPECT_TRUE(!none[i] && !noifs[i]);
    vxl_free(none), vxl_free(noifs);
    vxl_com_freesafearray(grid);
    EXPECT_EQ(0, vxl_com_safearraylen(nullptr));
    EXPECT_EQ(nullptr, vxl_com_createintarrayfromsafearray(nullptr, 3));
}

TEST_F(DataMarshal, ScalarReadsAcceptOnlyTheirTags)
{
    LONG i4 = 7;
    SHORT i2 = -2;
    float r4 = 1.5f;
    BSTR text = SysAllocString(L"text");
    struct Case {
        const char *what;
        VARIANT v;
        int32_t i;
        float f;
        double d;
        const char *s;
    } cases[] = {
        {"I4", {}, 7, 0, 0, nullptr},          {"I2", {}, -2, 0, 0, nullptr},
        {"byref I2", byref(VT_I2, &i2), -2, 0, 0, nullptr},
        {"byref I4", byref(VT_I4, &i4), 7, 0, 0, nullptr},
        {"R4", {}, 0, 1.5f, 1.5, nullptr},      {"byref R4", byref(VT_R4, &r4), 0, 1.5f, 1.5, nullptr},
        {"R8 made from I4", {}, 0, 0, 12.0, nullptr},
        {"BSTR made from I4", {}, 0, 0, 0, "12"},
        {"byref BSTR", byref(VT_BSTR, &text), 0, 0, 0, "text"},
        {"BOOL", {}, 0, 0, 0, nullptr},         {"EMPTY", {}, 0, 0, 0, nullptr},
        {"byref to nothing", byref(VT_I4, nullptr), 0, 0, 0, nullptr},
    };
    V_VT(&cases[0].v) = VT_I4, V_I4(&cases[0].v) = 7;
    V_VT(&cases[1].v) = VT_I2, V_I2(&cases[1].v) = -2;
    V_VT(&cases[4].v) = VT_R4, V_R4(&cases[4].v) = 1.5f;
    for (int c : {6, 7}) {
        VARIANT twelve;
        V_VT(&twelve) = VT_I4, V_I4(&twelve) = 12;
        ASSERT_EQ(S_OK, VariantChangeType(&cases[c].v, &twelve, 0, c == 6 ? VT_R8 : VT_BSTR));
    }
    V_VT(&cases[9].v) = VT_BOOL, V_BOOL(&cases[9].v) = VARIANT_TRUE;
    for (Case &c : cases) {
        VARIANT outer = byref(VT_VARIANT, &c.v); // the reference step is taken once...
        VARIANT twice = byref(VT_VARIANT, &outer); // ...and only once
        for (const VARIANT *v : {&c.v, &outer}) {
            SCOPED_TRACE(std::string(c.what) + (v == &outer ? " through a reference" : ""));
            EXPECT_EQ(c.i, vxl_com_readintfromvariant(v));
            EXPECT_EQ(c.f, vxl_com_readfloatfromvariant(v));
            EXPECT_EQ(c.d, vxl_com_readdoublefromvariant(v));
            char *s = vxl_com_readstringfromvariant(v);
            EXPECT_TRUE(same(s, c.s));
            vxl_free(s);
        }
        EXPECT_EQ(0, vxl_com_readintfromvariant(&twice));
    }
    VariantClear(&cases[6].v), VariantClear(&cases[7].v);
    SysFreeString(text);
    EXPECT_EQ(0, vxl_com_readintfromvariant(nullptr));
}

TEST_F(DataMarshal, EveryKindWrittenAndReadBackThroughEveryShape)
{
    forEachKind([](auto &k) {
        KIND_TYPES(k);
        SCOPED_TRACE(k.name);
        Samples<In> samples;
        VARIANT inner = {}; // VT_EMPTY with a null value slot
        VARIANT outer = byref(VT_VARIANT, &inner);
        for (int i : {0, 1, 2}) { // each write releases the value before it
            ASSERT_EQ(VXL_OK, k.put(i == 1 ? &outer : &inner, samples.v[i]));
            EXPECT_EQ(k.putTag, V_VT(&inner));
            EXPECT_EQ((VT_BYREF | VT_VARIANT), V_VT(&outer));
            Out back = k.read(&outer);
            EXPECT_TRUE(same(back, samples.v[i])) << i;
            release(back);
        }
        VariantClear(&inner);
        typename K::in_type value = samples.v[0];
        LONGLONG stored = 0; // room for any kind
        VARIANT ref = byref(k.putTag, &stored); // written through the reference
        ASSERT_EQ(VXL_OK, k.put(&ref, value));
        EXPECT_EQ(VT_BYREF | k.putTag, V_VT(&ref));
        Out back = k.read(&ref);
        EXPECT_TRUE(same(back, value));
        release(back);
        VARIANT plain = {};
        V_VT(&plain) = k.putTag, memcpy(&V_I8(&plain), &stored, sizeof stored);
        VariantClear(&plain); // the reference's target now owns what was written
        SHORT narrow = 5;
        VARIANT mismatched = byref(VT_I2, &narrow), nowhere = byref(k.putTag, nullptr);
        EXPECT_EQ(VXL_EFAIL, k.put(&mismatched, value));
        EXPECT_EQ(VXL_EFAIL, k.put(&nowhere, value));
        EXPECT_TRUE(narrow == 5 && V_VT(&mismatched) == (VT_BYREF | VT_I2));

        VARIANT holder = {};
        ASSERT_EQ(VXL_OK, k.putArray(&holder, samples.v, 3));
        EXPECT_EQ(VT_ARRAY | VT_VARIANT, V_VT(&holder));
        VARIANT aref = byref(VT_ARRAY | VT_VARIANT, &V_ARRAY(&holder)), arefref = byref(VT_VARIANT, &aref);
        EXPECT_EQ(3, vxl_com_variantsafearraylen(&arefref));
        Out *made = k.readArray(&arefref, 4);
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(same(made[i], i < 3 && k.elementTag != VT_UNKNOWN ? samples.v[i] : Out{})) << i;
        k.freeArray(made, 4);
        ASSERT_EQ(VXL_OK, k.putArray(&arefref, samples.v, 0)); // destroys the array it replaces
        EXPECT_EQ(VT_BYREF | VT_ARRAY | VT_VARIANT, V_VT(&aref));
        EXPECT_EQ(0, vxl_com_variantsafearraylen(&holder));
        EXPECT_EQ(nullptr, k.readArray(&inner, 3)); // VT_EMPTY holds no array
        VariantClear(&holder);
    });
}

TEST_F(DataMarshal, InterfaceReadOnlyFromDispatch)
{
    vxl_if counter = newCounter();
    VARIANT v;
    V_VT(&v) = VT_DISPATCH;
    V_DISPATCH(&v) = reinterpret_cast<IDispatch *>(vxl_wrapptr(counter, DM_IF));
    vxl_if back = vxl_com_readinterfacefromvariant(&v, DM_IF);
    EXPECT_EQ(counter, back);
    vxl_decref(back);
    V_VT(&v) = VT_UNKNOWN;
    EXPECT_EQ(nullptr, vxl_com_readinterfacefromvariant(&v, DM_IF));
    VariantClear(&v);
    vxl_decref(counter);
}
