// Dispatch calls, direct dispatch calls and combined values against a
// recording callee: what it receives, what comes back into the caller's
// variables, who owns what afterwards.
#include "dispatchfakes.h"
#include "counters.h"

using namespace dispatchtest;

namespace {

constexpr uint64_t kUnwritten = 0xdeadbeefdeadbeefull;
union Out { // a caller's out variable of any type, unwritten until a call writes it
    uint64_t raw = kUnwritten;
    int32_t i;
    float f;
    double d;
    BSTR b;
    IDispatch *p;
    SAFEARRAY *a;
};

class DispCall : public testing::Test {
protected:
    DispCall() { callee.names[L"f"] = 9; }
    void answer(VARIANT v) { VariantClear(&callee.answer), callee.answer = v; }
    void answer(SAFEARRAY *values, VARTYPE tag = VT_VARIANT)
    {
        answer(VARIANT{});
        V_VT(&callee.answer) = VT_ARRAY | tag, V_ARRAY(&callee.answer) = values;
    }
    Recorder callee;
};

TEST_F(DispCall, InArgumentsGoLastFirstWithTheirTagsAndNoLengths)
{
    Def def("f", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING), in(VXL_TYPE_FLOAT),
                  in(VXL_TYPE_INTERFACE), in(VXL_TYPE_INT, ~6), in(VXL_TYPE_INT)});
    BSTR text = SysAllocString(L"c");
    SAFEARRAY *values = SafeArrayCreateVector(VT_VARIANT, 0, 3);
    Recorder arg;
    IDispatch *object = &arg;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, 7, 2.5, text, 1.5f, object, &values));
    const Recorder::Call &call = callee.calls.at(0);
    ASSERT_EQ(6u, call.args.size());
    const VARIANT *a = call.args.data();
    EXPECT_EQ(9, call.dispid);
    EXPECT_TRUE(V_VT(&a[0]) == (VT_ARRAY | VT_VARIANT) && V_ARRAY(&a[0]) == values);
    EXPECT_TRUE(V_VT(&a[1]) == VT_DISPATCH && V_DISPATCH(&a[1]) == &arg);
    EXPECT_TRUE(V_VT(&a[2]) == VT_R4 && V_R4(&a[2]) == 1.5f);
    EXPECT_TRUE(V_VT(&a[3]) == VT_BSTR && V_BSTR(&a[3]) == text); // the caller's BSTR itself
    EXPECT_TRUE(V_VT(&a[4]) == VT_R8 && V_R8(&a[4]) == 2.5);
    EXPECT_TRUE(V_VT(&a[5]) == VT_I4 && V_I4(&a[5]) == 7);
    EXPECT_EQ(1, arg.refs); // the caller's, untouched

    // The direct form gives its in arguments up to the call.
    arg.AddRef();
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &def.method, 7, 2.5, text, 1.5f, object, &values));
    EXPECT_EQ(1, arg.refs);
}

TEST_F(DispCall, RefusedCallsReadNoArgumentAndWriteNothing)
{
    Out got;
    Def unknown("g", {out(VXL_TYPE_INT)});
    EXPECT_EQ(DISP_E_UNKNOWNNAME, vxl_com_dispcall(&callee, &unknown.method, &got));
    EXPECT_EQ(DISP_E_UNKNOWNNAME, vxl_com_directdispcall(&callee, &unknown.method, &got));
    vxl_methoddef nameless = {nullptr, 0, nullptr}, noParams = {"f", 2, nullptr};
    const vxl_paramdef *holes[] = {nullptr};
    vxl_methoddef withHole = {"f", 1, holes};
    Def badType("f", {in(7)});
    for (const vxl_methoddef *m : {&nameless, &noParams, &withHole, &badType.method})
        EXPECT_EQ(E_INVALIDARG, vxl_com_dispcall(&callee, m));
    EXPECT_EQ(E_POINTER, vxl_com_dispcall(nullptr, &badType.method));
    EXPECT_TRUE(callee.calls.empty() && got.raw == kUnwritten);
}

TEST_F(DispCall, InOutParametersReferToTheCallersVariable)
{
    VARIANT seen = {}; // the by-reference VARIANT the dispcall form passes, as the callee saw it
    callee.act = [&](DISPPARAMS *params) {
        VARIANT *target = V_VARIANTREF(&params->rgvarg[0]);
        seen = *target;
        if (V_VT(target) == (VT_BYREF | VT_I4))
            *V_I4REF(target) += 32;
        else
            VariantClear(target), *target = i4(3);
    };
    Def def("f", {inout(VXL_TYPE_INT)});
    int32_t value = 10;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &value));
    EXPECT_TRUE(value == 42 && V_VT(&callee.calls[0].args[0]) == (VT_BYREF | VT_VARIANT));
    EXPECT_TRUE(V_VT(&seen) == (VT_BYREF | VT_I4) && V_BYREF(&seen) == &value);

    VARIANT mine = bstr(L"before"); // the direct form hands over the caller's own VARIANT
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &def.method, &mine));
    EXPECT_TRUE(V_VARIANTREF(&callee.calls[1].args[0]) == &mine && V_VT(&mine) == VT_I4 && V_I4(&mine) == 3);
}

// One out value: the dispcall form stores it only from a tag the declared
// type accepts, the direct form by the result's own tag (the width written
// follows the tag). Either way a BSTR or interface stored is the caller's.
TEST_F(DispCall, OneOutValueByDeclaredTypeOrDirectlyByItsOwnTag)
{
    static LONG referenced = 77;
    constexpr uint64_t kTaken = 1;
    static const struct {
        int32_t type;
        VARTYPE tag;
        uint64_t value, dispcall, direct; // value: the result's bytes (I2 -5, I4 9, R4 and R8 2.5)
    } cases[] = {
        {VXL_TYPE_INT, VT_I2, 0xfffb, 0xdeadbeeffffffffb, 0xdeadbeeffffffffb},
        {VXL_TYPE_INT, VT_I4, 9, 0xdeadbeef00000009, 0xdeadbeef00000009},
        {VXL_TYPE_INT, VT_R8, 0x4004000000000000, kUnwritten, 0x4004000000000000},
        {VXL_TYPE_INT, VT_BYREF | VT_I4, 0, kUnwritten, 0xdeadbeef0000004d}, // 77 through the reference
        {VXL_TYPE_INT, VT_BOOL, 0xffff, kUnwritten, kUnwritten},
        {VXL_TYPE_INT, VT_EMPTY, 0, kUnwritten, kUnwritten},
        {VXL_TYPE_FLOAT, VT_R4, 0x40200000, 0xdeadbeef40200000, 0xdeadbeef40200000},
        {VXL_TYPE_FLOAT, VT_R8, 0x4004000000000000, kUnwritten, 0x4004000000000000},
        {VXL_TYPE_DOUBLE, VT_R4, 0x40200000, 0x4004000000000000, 0xdeadbeef40200000},
        {VXL_TYPE_DOUBLE, VT_R8, 0x4004000000000000, 0x4004000000000000, 0x4004000000000000},
        {VXL_TYPE_DOUBLE, VT_I4, 9, kUnwritten, 0xdeadbeef00000009},
        {VXL_TYPE_INTERFACE, VT_DISPATCH, 0, kTaken, kTaken},
        {VXL_TYPE_INTERFACE, VT_UNKNOWN, 0, kUnwritten, kTaken},
        {VXL_TYPE_STRING, VT_BSTR, 0, kTaken, kTaken},
        {VXL_TYPE_STRING, VT_I4, 9, kUnwritten, 0xdeadbeef00000009},
    };
    for (const auto &c : cases)
        for (bool direct : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << c.type << " tag " << c.tag << (direct ? " direct" : ""));
            Recorder object;
            VARIANT v = {};
            V_VT(&v) = c.tag, V_UI8(&v) = c.value;
            if (c.tag == VT_BSTR)
                V_BSTR(&v) = SysAllocString(L"text");
            else if (c.tag == VT_DISPATCH || c.tag == VT_UNKNOWN)
                V_DISPATCH(&v) = &object, object.AddRef();
            else if (c.tag & VT_BYREF)
                V_I4REF(&v) = &referenced;
            answer(v);
            Def def("f", {out(c.type)});
            Out got;
            ASSERT_EQ(S_OK, (direct ? vxl_com_directdispcall : vxl_com_dispcall)(&callee, &def.method, &got));
            answer(VARIANT{});
            if ((direct ? c.direct : c.dispcall) != kTaken) {
                EXPECT_EQ(direct ? c.direct : c.dispcall, got.raw);
                EXPECT_EQ(1, object.refs); // a result not stored was cleared
            } else if (c.tag == VT_BSTR) {
                EXPECT_STREQ(L"text", got.b);
                SysFreeString(got.b);
            } else {
                ASSERT_TRUE(got.p == &object && object.refs == 2); // not on to a BSTR whose owner is unclear
                got.p->Release();
            }
        }

    // Only the last out of the direct form is served, with the whole result.
    Def two("f", {out(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
    answer(SafeArrayCreateVector(VT_I4, 0, 2), VT_I4);
    Out first, second;
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &two.method, &first, &second));
    EXPECT_TRUE(first.raw == kUnwritten && second.raw != kUnwritten);
    EXPECT_EQ(2, vxl_com_safearraylen(second.a));
    SafeArrayDestroy(second.a);
}

// Several out values travel as one combined value, packed by one side and
// taken apart by the other with the same definition.
TEST_F(DispCall, SeveralOutValuesComeFromACombinedValue)
{
    Def def("f", {out(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), out(VXL_TYPE_STRING), out(VXL_TYPE_FLOAT)});
    answer(vxl_com_createcombined(&def.method, 7, "x", 1.5f));
    Out number, text, single;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 0.0, &text, &single));
    EXPECT_TRUE(number.i == 7 && single.f == 1.5f);
    EXPECT_STREQ(L"x", text.b);
    SysFreeString(text.b);

    // Fewer elements than out values: the missing ones stay unwritten; no
    // array at all: nothing is written.
    answer(variants({i4(8)}));
    number.raw = text.raw = single.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 0.0, &text, &single));
    EXPECT_TRUE(number.i == 8 && text.raw == kUnwritten && single.raw == kUnwritten);
    answer(i4(9));
    number.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 0.0, &text, &single));
    EXPECT_EQ(kUnwritten, number.raw);

    // An out array with an out length: two out values for the callee, so the
    // result is a combined value whose element 0 is the array.
    VARIANT inner;
    V_VT(&inner) = VT_ARRAY | VT_VARIANT, V_ARRAY(&inner) = SafeArrayCreateVector(VT_VARIANT, 0, 4);
    answer(variants({inner, i4(4)}));
    Def outs("f", {out(VXL_TYPE_DOUBLE, ~1), out(VXL_TYPE_INT)});
    Out got;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &outs.method, &got));
    EXPECT_EQ(4, vxl_com_safearraylen(got.a));
    SafeArrayDestroy(got.a);

    Def none("g", {in(VXL_TYPE_INT)}); // no out values: an empty combined value, not null
    SAFEARRAY *empty = vxl_com_createcombined(&none.method);
    EXPECT_TRUE(empty && vxl_com_safearraylen(empty) == 0);
    SafeArrayDestroy(empty);
}

// Element i of a SAFEARRAY of VARIANTs, copied out (the caller clears it).
VARIANT element(SAFEARRAY *values, LONG i)
{
    VARIANT v = {};
    SafeArrayGetElement(values, &i, &v);
    return v;
}

TEST(Combined, ArraysTakeTheirCountFromTheArrayFieldOrTheLengthSlot)
{
    const double reals[] = {1.5, 2.5, 3.5, 4.5};
    const int32_t ints[] = {1, 2, 3, 4};
    Def lengthAfter("f", {out(VXL_TYPE_DOUBLE, ~1), out(VXL_TYPE_INT)}); // read in the first walk
    Def fixed("f", {out(VXL_TYPE_INT, 4)});                             // no length slot
    Def lengthIn("f", {in(VXL_TYPE_INT), out(VXL_TYPE_INT, ~0)});       // no slot, 0 elements
    const struct {
        SAFEARRAY *values;
        int32_t elements; // of the inner array
        VARTYPE tag;      // of its elements
    } cases[] = {{vxl_com_createcombined(&lengthAfter.method, reals, 3), 3, VT_R8},
                 {vxl_com_createcombined(&fixed.method, ints), 4, VT_I4},
                 {vxl_com_createcombined(&lengthIn.method, ints), 0, VT_I4}};
    for (const auto &c : cases) {
        ASSERT_EQ(1, vxl_com_safearraylen(c.values));
        VARIANT e = element(c.values, 0);
        ASSERT_EQ(VT_ARRAY | VT_VARIANT, V_VT(&e));
        ASSERT_EQ(c.elements, vxl_com_safearraylen(V_ARRAY(&e)));
        for (LONG i = 0; i < c.elements; ++i) {
            VARIANT inner = element(V_ARRAY(&e), i);
            EXPECT_TRUE(V_VT(&inner) == c.tag && (c.tag == VT_R8 ? V_R8(&inner) == reals[i] : V_I4(&inner) == ints[i]));
        }
        VariantClear(&e);
        SafeArrayDestroy(c.values);
    }
}

TEST(Combined, AnOutInterfaceIsWrappedAndItsKitReferenceTakenOver)
{
    vxl_if counter = vxltest::newCounter();
    ASSERT_NE(nullptr, counter);
    const int32_t ints[] = {5, 6};
    // Slots: interface, wrapper type, name; then the array; then the in/out
    // length that follows it.
    Def def("f", {out(VXL_TYPE_INTERFACE), out(VXL_TYPE_INT, ~2), inout(VXL_TYPE_INT)});
    SAFEARRAY *values = vxl_com_createcombined(&def.method, counter, "comS", "ICounter", ints, 2);
    ASSERT_EQ(2, vxl_com_safearraylen(values));
    VARIANT e0 = element(values, 0), e1 = element(values, 1);
    EXPECT_TRUE(V_VT(&e0) == VT_DISPATCH && V_DISPATCH(&e0) && vxl_com_variantsafearraylen(&e1) == 2);
    VariantClear(&e0), VariantClear(&e1);
    EXPECT_EQ(1, vxltest::liveCounters); // held by its wrapper in the combined value
    SafeArrayDestroy(values);
    EXPECT_EQ(0, vxltest::liveCounters); // the caller's one reference went with it

    Def single("f", {out(VXL_TYPE_INTERFACE)}); // a null interface is a null element and drops nothing
    values = vxl_com_createcombined(&single.method, static_cast<vxl_if>(nullptr), "comS", "ICounter");
    VARIANT e = element(values, 0);
    EXPECT_TRUE(V_VT(&e) == VT_DISPATCH && !V_DISPATCH(&e));
    SafeArrayDestroy(values);
}

} // namespace
