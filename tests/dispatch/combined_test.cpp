// Combined values: the slots a definition calls for, the elements they
// become, and a round trip through vxl_com_dispcall on the other side.
#include "dispatchfakes.h"
#include "testifaces.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace dispatchtest;

namespace {

std::atomic<int> g_liveCounters{0};

// A kit counter whose interface crosses to COM through the test wrapper
// library (which registers ICounter's wrappers as it loads).
vxl_if newCounter()
{
    static bool registered = [] {
        static const vxl_fn unused[2] = {};
        static const vxl_componentinterface ci = {&ICounterDef, unused};
        static const vxl_componentinterface *const cis[] = {&ci};
        static const vxl_componentdef counter = {
            "CombinedCounter", 1, cis, [](void **impl, vxl_if) { return *impl = nullptr, ++g_liveCounters, 0; },
            [](void *, vxl_if) { return --g_liveCounters, 0; }, nullptr};
        static const vxl_componentdef *const classes[] = {&counter, nullptr};
        static const vxl_interfacedef *const ifaces[] = {&ICounterDef, nullptr};
        vxl_init();
        return vxl_register("combinedtests", classes, ifaces) == 0 && LoadLibraryA("testwrappers.dll");
    }();
    vxl_if pif = nullptr;
    if (registered)
        vxl_createinstance("CombinedCounter", "ICounter", &pif);
    return pif;
}

// Element i of a combined value, copied out (the caller clears it).
VARIANT element(SAFEARRAY *values, LONG i)
{
    VARIANT v;
    VariantInit(&v);
    SafeArrayGetElement(values, &i, &v);
    return v;
}

ULONG count(SAFEARRAY *values)
{
    return values ? values->rgsabound[0].cElements : 0xdeadbeef;
}

TEST(Combined, ScalarsPackInDeclarationOrderAndUnpackOnTheOtherSide)
{
    CoInitialize(nullptr);
    Def def("f", {out(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), out(VXL_TYPE_STRING), out(VXL_TYPE_FLOAT)});
    SAFEARRAY *values = vxl_com_createcombined(&def.method, 7, "x", 1.5f);
    ASSERT_EQ(3u, count(values));
    VARIANT e0 = element(values, 0), e1 = element(values, 1), e2 = element(values, 2);
    EXPECT_EQ(VT_I4, V_VT(&e0));
    EXPECT_EQ(7, V_I4(&e0));
    EXPECT_EQ(VT_BSTR, V_VT(&e1));
    EXPECT_STREQ(L"x", V_BSTR(&e1));
    EXPECT_EQ(VT_R4, V_VT(&e2));
    EXPECT_EQ(1.5f, V_R4(&e2));
    VariantClear(&e1);

    // The calling side takes the same definition apart again.
    Recorder callee;
    callee.names[L"f"] = 1;
    V_VT(&callee.answer) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&callee.answer) = values;
    int32_t number = 0;
    BSTR text = nullptr;
    float single = 0;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 0.0, &text, &single));
    EXPECT_EQ(7, number);
    EXPECT_STREQ(L"x", text);
    EXPECT_EQ(1.5f, single);
    SysFreeString(text);

    // No out values: an empty combined value, not null.
    Def none("g", {in(VXL_TYPE_INT)});
    SAFEARRAY *empty = vxl_com_createcombined(&none.method);
    EXPECT_EQ(0u, count(empty));
    SafeArrayDestroy(empty);
    CoUninitialize();
}

TEST(Combined, ArraysTakeTheirCountFromTheArrayFieldOrTheLengthSlot)
{
    CoInitialize(nullptr);
    const double reals[] = {1.5, 2.5, 3.5, 4.5};
    const int32_t ints[] = {1, 2, 3, 4};
    struct Case {
        Def def;
        ULONG elements;   // of the inner array
        VARTYPE tag;      // of its elements
        SAFEARRAY *values;
    };
    Case cases[] = {
        // Length named by the array and following it: read in the first walk.
        {Def("f", {out(VXL_TYPE_DOUBLE, ~1), out(VXL_TYPE_INT)}), 3, VT_R8, nullptr},
        // A positive array field is the count; no length slot.
        {Def("f", {out(VXL_TYPE_INT, 4)}), 4, VT_I4, nullptr},
        // A length that travels in gives no slot and 0 elements.
        {Def("f", {in(VXL_TYPE_INT), out(VXL_TYPE_INT, ~0)}), 0, VT_I4, nullptr},
    };
    cases[0].values = vxl_com_createcombined(&cases[0].def.method, reals, 3);
    cases[1].values = vxl_com_createcombined(&cases[1].def.method, ints);
    cases[2].values = vxl_com_createcombined(&cases[2].def.method, ints);
    for (Case &c : cases) {
        ASSERT_EQ(1u, count(c.values));
        VARIANT e = element(c.values, 0);
        ASSERT_EQ(VT_ARRAY | VT_VARIANT, V_VT(&e));
        ASSERT_EQ(c.elements, count(V_ARRAY(&e)));
        for (LONG i = 0; i < static_cast<LONG>(c.elements); ++i) {
            VARIANT inner = element(V_ARRAY(&e), i);
            EXPECT_EQ(c.tag, V_VT(&inner));
            if (c.tag == VT_R8)
                EXPECT_EQ(reals[i], V_R8(&inner));
            else
                EXPECT_EQ(ints[i], V_I4(&inner));
        }
        VariantClear(&e);
        SafeArrayDestroy(c.values);
    }
    CoUninitialize();
}

TEST(Combined, AnOutInterfaceIsWrappedAndItsKitReferenceTakenOver)
{
    CoInitialize(nullptr);
    vxl_if counter = newCounter();
    ASSERT_NE(nullptr, counter);
    const int32_t ints[] = {5, 6};
    // Slots: interface, wrapper type, name; then the array; then the in/out
    // length that follows it.
    Def def("f", {out(VXL_TYPE_INTERFACE), out(VXL_TYPE_INT, ~2), inout(VXL_TYPE_INT)});
    SAFEARRAY *values = vxl_com_createcombined(&def.method, counter, "comS", "ICounter", ints, 2);
    ASSERT_EQ(2u, count(values));
    VARIANT e0 = element(values, 0), e1 = element(values, 1);
    EXPECT_EQ(VT_DISPATCH, V_VT(&e0));
    EXPECT_NE(nullptr, V_DISPATCH(&e0));
    EXPECT_EQ(2u, count(V_ARRAY(&e1)));
    VariantClear(&e0);
    VariantClear(&e1);
    EXPECT_EQ(1, g_liveCounters); // held by its wrapper in the combined value
    SafeArrayDestroy(values);
    EXPECT_EQ(0, g_liveCounters); // the caller's one reference went with it

    // A null interface is a null element and drops nothing.
    Def single("f", {out(VXL_TYPE_INTERFACE)});
    values = vxl_com_createcombined(&single.method, static_cast<vxl_if>(nullptr), "comS", "ICounter");
    VARIANT e = element(values, 0);
    EXPECT_EQ(VT_DISPATCH, V_VT(&e));
    EXPECT_EQ(nullptr, V_DISPATCH(&e));
    SafeArrayDestroy(values);
    CoUninitialize();
}

} // namespace
