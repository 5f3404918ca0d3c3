// Kit arrays, safe arrays and VARIANTs: every kind through the same cases,
// over arrays and VARIANTs that oleaut32 itself builds, with the references
// of interface elements counted through the test wrapper library.
#include "datamarshal.h"

#include <vector>

using namespace dm;

namespace {

class DataMarshal : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(0, liveCounters); }
};

template <class T> void checkNumberArrays(T *(*kit)(const T *, int32_t), T *(*task)(const T *, int32_t),
                                          T *(*empty)(int32_t), const T (&src)[3])
{
    for (auto create : {kit, task}) {
        EXPECT_EQ(nullptr, create(reinterpret_cast<const T *>(8), 0)); // the source is not read
        T *copy = create(src, 3);
        EXPECT_TRUE(memcmp(copy, src, sizeof src) == 0 && (taskSize(copy) != 0) == (create == task));
        create == task ? vxl_com_free(copy) : vxl_free(copy);
    }
    EXPECT_TRUE(!empty(0) && !empty(-1));
    vxl_free(empty(3));
}

} // namespace

TEST_F(DataMarshal, KitArraysCopyIntoTheirHome)
{
    checkNumberArrays(vxl_com_createintarray, vxl_com_createcomintarray, vxl_com_createemptyintarray, Samples<int32_t>().v);
    checkNumberArrays(vxl_com_createfloatarray, vxl_com_createcomfloatarray, vxl_com_createemptyfloatarray, Samples<float>().v);
    checkNumberArrays(vxl_com_createdoublearray, vxl_com_createcomdoublearray, vxl_com_createemptydoublearray, Samples<double>().v);

    Samples<const char *> strings;
    char *copied[3], **filled = vxl_com_createemptycomstringarray(3);
    ASSERT_TRUE(filled && !filled[0] && !filled[1] && !filled[2]);
    vxl_com_copystringarray(copied, strings.v, 3);
    vxl_com_copycomstringarray(filled, strings.v, 3);
    char **arrays[] = {vxl_com_createstringarray(strings.v, 3), vxl_com_createcomstringarray(strings.v, 3), copied, filled};
    for (int a = 0; a < 4; ++a)
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(same(arrays[a][i], strings.v[i]) && (!arrays[a][i] || arrays[a][i] != strings.v[i]) &&
                        (taskSize(arrays[a][i]) != 0) == (strings.v[i] && a % 2 == 1)) << a << i;
    EXPECT_EQ(nullptr, vxl_com_createcomstringarray(reinterpret_cast<const char *const *>(8), 0));
    vxl_freestringarray(arrays[0], 3);
    vxl_com_freecomstringarray(arrays[1], 3);
    vxl_freestringarraycontents(copied, 3);
    EXPECT_EQ(0, vxl_com_freecomstringarraycontents(filled, 3));
    vxl_com_free(filled);
    char **none = vxl_com_createemptycomstringarray(0); // an empty block, not null
    EXPECT_NE(nullptr, none);
    vxl_com_free(none);
}

TEST_F(DataMarshal, InterfaceKitArraysHoldOneReferencePerElement)
{
    vxl_if counter = newCounter();
    const vxl_if src[] = {counter, nullptr, counter};
    EXPECT_TRUE(!vxl_com_createinterfacearray(nullptr, 3, DM_IF) && !vxl_com_createcominterfacearray(src, 3, DM_IF));
    IUnknown **com = vxl_com_createemptycominterfacearray(3);
    ASSERT_TRUE(com && !com[0] && !com[1] && !com[2]);
    vxl_com_copycominterfacearray(com, src, 3, DM_IF);
    EXPECT_TRUE(com[0] && com[0] == com[2] && !com[1]);
    EXPECT_EQ(3u, com[0]->AddRef()); // one reference per element
    com[0]->Release();
    vxl_if back[3];
    vxl_com_copyinterfacearray(back, com, 3, DM_IF);
    EXPECT_TRUE(back[0] == counter && !back[1] && back[2] == counter);
    vxl_freeinterfacearraycontents(back, 3);
    EXPECT_EQ(0, vxl_com_freecominterfacearray(com, 3, DM_IF));
    EXPECT_EQ(1, liveCounters); // the wrapper and the unwrapped references were given back, no more
    vxl_if *kit = vxl_com_createemptyinterfacearray(2);
    kit[0] = counter, kit[1] = nullptr; // the array takes over the reference
    EXPECT_EQ(0, vxl_com_freeinterfacearray(kit, 2, DM_IF));
}

TEST_F(DataMarshal, ReadersTakeTheDataFromItsStartWhateverTheBounds)
{
    LONG i4 = 41;
    SAFEARRAYBOUND bound = {3, 1};
    SAFEARRAY *sa = SafeArrayCreate(VT_VARIANT, 1, &bound);
    VARIANT *v = nullptr;
    SafeArrayAccessData(sa, reinterpret_cast<void **>(&v));
    V_VT(&v[0]) = VT_I2, V_I2(&v[0]) = -2, v[2] = byref(VT_I4, &i4); // v[1] stays VT_EMPTY
    SafeArrayUnaccessData(sa);
    std::vector<int32_t> ints(5, 99);
    vxl_com_copyintarrayfromsafearray(ints.data(), sa, 5); // two more than the array holds
    EXPECT_EQ((std::vector<int32_t>{-2, 99, 41, 99, 99}), ints);
    EXPECT_EQ(3, vxl_com_safearraylen(sa));
    vxl_com_freesafearray(sa);

    EXPECT_TRUE(!vxl_com_safearraylen(nullptr) && !vxl_com_createintarrayfromsafearray(nullptr, 3));
}

TEST_F(DataMarshal, ScalarReadsAcceptOnlyTheirTagsThroughOneReference)
{
    LONG i4 = 7;
    SHORT i2 = -2;
    float r4 = 1.5f;
    BSTR text = SysAllocString(L"text");
    struct Case {
        VARIANT v;
        int32_t i;
        float f;
        double d;
        const char *s;
    } cases[] = {{{}, 7, 0, 0, nullptr}, {{}, -2, 0, 0, nullptr}, {{}, 0, 1.5f, 1.5, nullptr},
                 {{}, 0, 0, 12.0, nullptr}, {{}, 0, 0, 0, "12"}, {{}, 0, 0, 0, nullptr}, // VT_BOOL
                 {{}, 0, 0, 0, nullptr}, // VT_EMPTY
                 {byref(VT_I2, &i2), -2, 0, 0, nullptr}, {byref(VT_I4, &i4), 7, 0, 0, nullptr},
                 {byref(VT_R4, &r4), 0, 1.5f, 1.5, nullptr}, {byref(VT_BSTR, &text), 0, 0, 0, "text"},
                 {byref(VT_I4, nullptr), 0, 0, 0, nullptr}};
    V_VT(&cases[0].v) = VT_I4, V_I4(&cases[0].v) = 7, V_VT(&cases[1].v) = VT_I2, V_I2(&cases[1].v) = -2;
    V_VT(&cases[2].v) = VT_R4, V_R4(&cases[2].v) = 1.5f, V_VT(&cases[5].v) = VT_BOOL, V_BOOL(&cases[5].v) = -1;
    for (int c : {3, 4}) { // made by oleaut32 from VT_I4 12
        VARIANT twelve;
        V_VT(&twelve) = VT_I4, V_I4(&twelve) = 12;
        VariantChangeType(&cases[c].v, &twelve, 0, c == 3 ? VT_R8 : VT_BSTR);
    }
    for (Case &c : cases) {
        VARIANT outer = byref(VT_VARIANT, &c.v), twice = byref(VT_VARIANT, &outer);
        for (const VARIANT *v : {&c.v, &outer}) {
            char *s = vxl_com_readstringfromvariant(v);
            EXPECT_TRUE(vxl_com_readintfromvariant(v) == c.i && vxl_com_readfloatfromvariant(v) == c.f &&
                        vxl_com_readdoublefromvariant(v) == c.d && same(s, c.s)) << (&c - cases) << (v == &outer);
            vxl_free(s);
        }
        EXPECT_EQ(0, vxl_com_readintfromvariant(&twice)); // the reference step is taken once
    }
    VariantClear(&cases[4].v), SysFreeString(text);
}

TEST_F(DataMarshal, EveryKindThroughSafeArraysOfBothShapesAndEveryShapeOfVariant)
{
    forEachKind([](auto &k) {
        KIND_TYPES(k);
        SCOPED_TRACE(k.name);
        Samples<In> samples;
        for (bool variants : {false, true}) {
            SAFEARRAY *sa = (variants ? k.createVariant : k.create)(samples.v, 3);
            VARTYPE vt = 0, element = 0;
            SafeArrayGetVartype(sa, &vt);
            EXPECT_TRUE(vt == (variants ? VARTYPE{VT_VARIANT} : k.elementTag) && SafeArrayGetDim(sa) == 1 &&
                        vxl_com_safearraylen(sa) == 3);
            if (variants) {
                VARIANT v;
                LONG index = 2;
                SafeArrayGetElement(sa, &index, &v);
                element = V_VT(&v);
                VariantClear(&v);
                EXPECT_EQ(k.elementTag, element);
            }
            // Interfaces are read only from VT_DISPATCH elements, not the VT_UNKNOWN ones made here.
            bool readable = !(variants && k.elementTag == VT_UNKNOWN);
            Out *dst = untouched<Out>(5), *made = k.createFrom(sa, 5), unread = dst[4];
            k.copyFrom(dst, sa, 5); // two more than the array holds
            for (int i = 0; i < 5; ++i)
                EXPECT_TRUE(same(dst[i], i < 3 && readable ? samples.v[i] : unread) &&
                            same(made[i], i < 3 && readable ? samples.v[i] : Out{})) << i;
            k.freeArray(dst, 5), k.freeArray(made, 5);
            EXPECT_TRUE(!k.createFrom(sa, 0) && vxl_com_freesafearray(sa) == 0);
        }
        SAFEARRAY *empty = k.create(samples.v, 0);
        EXPECT_TRUE(empty && vxl_com_safearraylen(empty) == 0);
        vxl_com_freesafearray(empty);

        VARIANT inner = {}, outer = byref(VT_VARIANT, &inner); // VT_EMPTY with a null value slot
        for (int i : {0, 1, 2}) { // each write releases the value before it
            ASSERT_EQ(VXL_OK, k.put(i == 1 ? &outer : &inner, samples.v[i]));
            Out back = k.read(&outer);
            EXPECT_TRUE(same(back, samples.v[i]) && V_VT(&inner) == k.putTag && V_VT(&outer) == (VT_BYREF | VT_VARIANT));
            release(back);
        }
        VariantClear(&inner);
        LONGLONG stored = 0; // a reference to the kind's storage is written through
        SHORT narrow = 5;
        VARIANT ref = byref(k.putTag, &stored), mismatched = byref(VT_I2, &narrow), nowhere = byref(k.putTag, nullptr);
        ASSERT_EQ(VXL_OK, k.put(&ref, samples.v[0]));
        Out back = k.read(&ref);
        EXPECT_TRUE(same(back, samples.v[0]) && V_VT(&ref) == (VT_BYREF | k.putTag));
        release(back);
        V_VT(&inner) = k.putTag, memcpy(&V_I8(&inner), &stored, sizeof stored);
        VariantClear(&inner); // the storage owns what was written
        EXPECT_TRUE(k.put(&mismatched, samples.v[0]) == VXL_EFAIL && k.put(&nowhere, samples.v[0]) == VXL_EFAIL &&
                    narrow == 5 && V_VT(&mismatched) == (VT_BYREF | VT_I2));

        VARIANT holder = {};
        ASSERT_EQ(VXL_OK, k.putArray(&holder, samples.v, 3));
        VARIANT aref = byref(VT_ARRAY | VT_VARIANT, &V_ARRAY(&holder)), arefref = byref(VT_VARIANT, &aref);
        Out *made = k.readArray(&arefref, 4);
        EXPECT_TRUE(V_VT(&holder) == (VT_ARRAY | VT_VARIANT) && vxl_com_variantsafearraylen(&arefref) == 3);
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(same(made[i], i < 3 && k.elementTag != VT_UNKNOWN ? samples.v[i] : Out{})) << i;
        k.freeArray(made, 4);
        ASSERT_EQ(VXL_OK, k.putArray(&arefref, samples.v, 0)); // destroys the array it replaces
        EXPECT_TRUE(V_VT(&aref) == (VT_BYREF | VT_ARRAY | VT_VARIANT) && vxl_com_safearraylen(V_ARRAY(&holder)) == 0 &&
                    !k.readArray(&inner, 3)); // VT_EMPTY holds no array
        VariantClear(&holder);
    });
}
