// Dispatch calls and direct dispatch calls: what the callee receives, what
// comes back into the caller's variables, who owns what afterwards. The
// callee is a recording fake where exact DISPPARAMS matter, and oleaut32's
// standard dispatch or Wine's Scripting.Dictionary where a real Automation
// object must understand the call.
#include "dispatchfakes.h"
#include "dispatchtest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <vector>

using namespace dispatchtest;

namespace {

// A combined value as a callee returns it: a SAFEARRAY of these VARIANTs.
SAFEARRAY *combined(std::initializer_list<VARIANT> values)
{
    SAFEARRAY *array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    LONG i = 0;
    for (VARIANT v : values) {
        SafeArrayPutElement(array, &i, &v);
        VariantClear(&v);
        ++i;
    }
    return array;
}
VARIANT i4(int32_t value)
{
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}
VARIANT bstr(const wchar_t *text)
{
    VARIANT v;
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = SysAllocString(text);
    return v;
}

constexpr uint64_t kUnwritten = 0xdeadbeefdeadbeefull;
union Out {
    uint64_t raw;
    int32_t i;
    float f;
    double d;
    BSTR b;
    IDispatch *p;
    SAFEARRAY *a;
};

class DispCall : public testing::Test {
protected:
    void SetUp() override
    {
        CoInitialize(nullptr);
        callee.names[L"f"] = 9;
    }
    void TearDown() override { CoUninitialize(); }
    Recorder callee;
};

TEST_F(DispCall, ArgumentsGoLastFirstWithTheirTagsAndStayTheCallers)
{
    Def def("f", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING), in(VXL_TYPE_FLOAT),
                  in(VXL_TYPE_INTERFACE)});
    BSTR text = SysAllocString(L"c");
    Recorder arg;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, 7, 2.5, text, 1.5f, static_cast<IDispatch *>(&arg)));
    ASSERT_EQ(1u, callee.calls.size());
    const Recorder::Call &call = callee.calls[0];
    EXPECT_EQ(9, call.dispid);
    ASSERT_EQ(5u, call.cArgs);
    EXPECT_EQ(VT_DISPATCH, V_VT(&call.args[0]));
    EXPECT_EQ(&arg, call.raw[0]);
    EXPECT_EQ(VT_R4, V_VT(&call.args[1]));
    EXPECT_EQ(1.5f, V_R4(&call.args[1]));
    EXPECT_EQ(VT_BSTR, V_VT(&call.args[2]));
    EXPECT_EQ(text, call.raw[2]); // the caller's BSTR itself
    EXPECT_EQ(VT_R8, V_VT(&call.args[3]));
    EXPECT_EQ(2.5, V_R8(&call.args[3]));
    EXPECT_EQ(VT_I4, V_VT(&call.args[4]));
    EXPECT_EQ(7, V_I4(&call.args[4]));
    EXPECT_EQ(2, arg.refs); // one taken by the recorder's copy, none by the call
    EXPECT_EQ(1u, SysStringLen(text));
    SysFreeString(text);
    callee.forget();
}

TEST_F(DispCall, NoParametersMeansNoArgumentArray)
{
    Def def("f", {});
    VariantClear(&callee.answer);
    callee.answer = bstr(L"discarded");
    EXPECT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method));
    ASSERT_EQ(1u, callee.calls.size());
    EXPECT_EQ(0u, callee.calls[0].cArgs);
    EXPECT_FALSE(callee.calls[0].hadArgArray);
}

TEST_F(DispCall, LengthParametersAreNeitherPassedNorRead)
{
    SAFEARRAY *values = SafeArrayCreateVector(VT_VARIANT, 0, 3);
    Def def("f", {in(VXL_TYPE_INT, ~1), in(VXL_TYPE_INT), in(VXL_TYPE_INT)});
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &values, 5));
    ASSERT_EQ(2u, callee.calls[0].cArgs);
    EXPECT_EQ(VT_I4, V_VT(&callee.calls[0].args[0]));
    EXPECT_EQ(5, V_I4(&callee.calls[0].args[0]));
    EXPECT_EQ(VT_ARRAY | VT_VARIANT, V_VT(&callee.calls[0].args[1]));
    EXPECT_EQ(values, callee.calls[0].raw[1]);
    SafeArrayDestroy(values);

    // An out array with an out length: two out values, so the result is a
    // combined value whose element 0 is the array.
    VARIANT inner;
    V_VT(&inner) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&inner) = SafeArrayCreateVector(VT_VARIANT, 0, 4);
    V_VT(&callee.answer) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&callee.answer) = combined({inner, i4(4)});
    Def outs("f", {out(VXL_TYPE_DOUBLE, ~1), out(VXL_TYPE_INT)});
    SAFEARRAY *got = nullptr;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &outs.method, &got));
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(4u, got->rgsabound[0].cElements);
    SafeArrayDestroy(got);
}

TEST_F(DispCall, InOutParametersReferToTheCallersVariable)
{
    callee.act = [](DISPPARAMS *params) {
        VARIANT *target = V_VARIANTREF(&params->rgvarg[0]);
        if (V_VT(target) == (VT_BYREF | VT_I4)) {
            *V_I4REF(target) += 32;
        } else {
            VariantClear(target);
            V_VT(target) = VT_I4;
            V_I4(target) = 3;
        }
    };
    Def def("f", {inout(VXL_TYPE_INT)});
    int32_t value = 10;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &value));
    EXPECT_EQ(42, value);
    EXPECT_EQ(VT_BYREF | VT_VARIANT, V_VT(&callee.calls[0].args[0]));
    EXPECT_EQ(VT_BYREF | VT_I4, callee.calls[0].innerTags[0]);
    EXPECT_EQ(&value, callee.calls[0].innerRefs[0]);

    // The direct form hands over the caller's own VARIANT.
    VARIANT mine;
    V_VT(&mine) = VT_BSTR;
    V_BSTR(&mine) = SysAllocString(L"before");
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &def.method, &mine));
    EXPECT_EQ(&mine, callee.calls[1].raw[0]);
    EXPECT_EQ(VT_I4, V_VT(&mine));
    EXPECT_EQ(3, V_I4(&mine));
}

TEST_F(DispCall, OneOutValueIsStoredOnlyFromATagItsTypeAccepts)
{
    static const struct {
        int32_t type;
        VARTYPE tag;
        double value;
        bool written;
    } cases[] = {
        {VXL_TYPE_INT, VT_I2, -1, true},    {VXL_TYPE_INT, VT_I4, 7, true},
        {VXL_TYPE_INT, VT_R8, 7, false},    {VXL_TYPE_FLOAT, VT_R4, 1.5, true},
        {VXL_TYPE_FLOAT, VT_R8, 1.5, false}, {VXL_TYPE_DOUBLE, VT_R4, 1.5, true},
        {VXL_TYPE_DOUBLE, VT_R8, 2.25, true}, {VXL_TYPE_DOUBLE, VT_I4, 2, false},
        {VXL_TYPE_STRING, VT_BSTR, 0, true}, {VXL_TYPE_STRING, VT_I4, 0, false},
        {VXL_TYPE_INTERFACE, VT_DISPATCH, 0, true}, {VXL_TYPE_INTERFACE, VT_UNKNOWN, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " tag " << c.tag);
        Recorder answerObject;
        VariantClear(&callee.answer);
        V_VT(&callee.answer) = c.tag;
        switch (c.tag) {
        case VT_I2: V_I2(&callee.answer) = static_cast<SHORT>(c.value); break;
        case VT_I4: V_I4(&callee.answer) = static_cast<LONG>(c.value); break;
        case VT_R4: V_R4(&callee.answer) = static_cast<float>(c.value); break;
        case VT_R8: V_R8(&callee.answer) = c.value; break;
        case VT_BSTR: V_BSTR(&callee.answer) = SysAllocString(L"text"); break;
        default: V_DISPATCH(&callee.answer) = &answerObject; answerObject.AddRef(); break;
        }
        Def def("f", {out(c.type)});
        Out got;
        got.raw = kUnwritten;
        ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &got));
        VariantClear(&callee.answer);
        if (!c.written) {
            EXPECT_EQ(kUnwritten, got.raw);
            EXPECT_EQ(1, answerObject.refs); // the refused result was cleared
            continue;
        }
        switch (c.type) {
        case VXL_TYPE_INT: EXPECT_EQ(static_cast<int32_t>(c.value), got.i); break;
        case VXL_TYPE_FLOAT: EXPECT_EQ(static_cast<float>(c.value), got.f); break;
        case VXL_TYPE_DOUBLE: EXPECT_EQ(c.value, got.d); break;
        case VXL_TYPE_STRING:
            EXPECT_STREQ(L"text", got.b);
            SysFreeString(got.b);
            break;
        default:
            EXPECT_EQ(&answerObject, got.p);
            EXPECT_EQ(2, answerObject.refs); // the caller's reference
            got.p->Release();
        }
    }
}

TEST_F(DispCall, SeveralOutValuesComeFromACombinedValue)
{
    Def def("f", {out(VXL_TYPE_INT), in(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
    V_VT(&callee.answer) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&callee.answer) = combined({i4(7), bstr(L"x")});
    Out number, text;
    number.raw = text.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 1, &text));
    EXPECT_EQ(7, number.i);
    EXPECT_STREQ(L"x", text.b);
    SysFreeString(text.b);

    // Fewer elements than out values: the missing one stays unwritten; no
    // array at all: nothing is written.
    VariantClear(&callee.answer);
    V_VT(&callee.answer) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&callee.answer) = combined({i4(8)});
    number.raw = text.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 1, &text));
    EXPECT_EQ(8, number.i);
    EXPECT_EQ(kUnwritten, text.raw);
    VariantClear(&callee.answer);
    callee.answer = i4(9);
    number.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, &number, 1, &text));
    EXPECT_EQ(kUnwritten, number.raw);
}

TEST_F(DispCall, AnUnknownNameReadsNoArgumentAndWritesNothing)
{
    Def def("g", {out(VXL_TYPE_INT)});
    Out got;
    got.raw = kUnwritten;
    EXPECT_EQ(DISP_E_UNKNOWNNAME, vxl_com_dispcall(&callee, &def.method, &got));
    EXPECT_EQ(DISP_E_UNKNOWNNAME, vxl_com_directdispcall(&callee, &def.method, &got));
    EXPECT_TRUE(callee.calls.empty());
    EXPECT_EQ(kUnwritten, got.raw);
}

TEST_F(DispCall, BadDefinitionsAreRefusedBeforeTheCall)
{
    vxl_methoddef nameless = {nullptr, 0, nullptr};
    vxl_methoddef noParams = {"f", 2, nullptr};
    const vxl_paramdef *holes[] = {nullptr};
    vxl_methoddef withHole = {"f", 1, holes};
    Def badType("f", {in(7)});
    for (const vxl_methoddef *m : {&nameless, &noParams, &withHole, &badType.method})
        EXPECT_EQ(E_INVALIDARG, vxl_com_dispcall(&callee, m));
    EXPECT_EQ(E_POINTER, vxl_com_dispcall(nullptr, &badType.method));
    EXPECT_TRUE(callee.calls.empty());
}

TEST_F(DispCall, DirectFormStoresTheResultByItsOwnTag)
{
    static LONG referenced = 77;
    static const struct {
        VARTYPE tag;
        uint64_t expected;
    } cases[] = {
        {VT_I2, 0xdeadbeeffffffffbull},           // -5, four bytes
        {VT_I4, 0xdeadbeef00000009ull},
        {VT_R4, 0xdeadbeef40200000ull},           // the single 2.5
        {VT_R8, 0x4004000000000000ull},           // 2.5
        {VT_BYREF | VT_I4, 0xdeadbeef0000004dull}, // 77 through the reference
        {VT_BOOL, kUnwritten},
        {VT_EMPTY, kUnwritten},
    };
    Def def("f", {out(VXL_TYPE_INT)});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tag);
        VariantClear(&callee.answer);
        V_VT(&callee.answer) = c.tag;
        V_R8(&callee.answer) = 0;
        switch (c.tag) {
        case VT_I2: V_I2(&callee.answer) = -5; break;
        case VT_I4: V_I4(&callee.answer) = 9; break;
        case VT_R4: V_R4(&callee.answer) = 2.5f; break;
        case VT_R8: V_R8(&callee.answer) = 2.5; break;
        case VT_BYREF | VT_I4: V_I4REF(&callee.answer) = &referenced; break;
        case VT_BOOL: V_BOOL(&callee.answer) = VARIANT_TRUE; break;
        }
        Out got;
        got.raw = kUnwritten;
        ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &def.method, &got));
        EXPECT_EQ(c.expected, got.raw);
    }

    // Resources pass to the caller as they are; only the last out is served.
    Def two("f", {out(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
    VariantClear(&callee.answer);
    V_VT(&callee.answer) = VT_ARRAY | VT_I4;
    V_ARRAY(&callee.answer) = SafeArrayCreateVector(VT_I4, 0, 2);
    Out first, second;
    first.raw = second.raw = kUnwritten;
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &two.method, &first, &second));
    EXPECT_EQ(kUnwritten, first.raw);
    ASSERT_NE(kUnwritten, second.raw);
    EXPECT_EQ(2u, second.a->rgsabound[0].cElements);
    SafeArrayDestroy(second.a);
}

TEST_F(DispCall, DirectFormTakesOverInArguments)
{
    Def def("f", {in(VXL_TYPE_INTERFACE)});
    Recorder arg;
    ASSERT_EQ(S_OK, vxl_com_dispcall(&callee, &def.method, static_cast<IDispatch *>(&arg)));
    EXPECT_EQ(2, arg.refs); // the recorder's copy only
    ASSERT_EQ(S_OK, vxl_com_directdispcall(&callee, &def.method, static_cast<IDispatch *>(&arg)));
    EXPECT_EQ(2, arg.refs); // the recorder's second copy, less the caller's given up
    callee.forget();
}

// oleaut32's own dispatch over a vtable object: the call must be one that a
// real Automation object understands.
TEST(DispCallStandard, ReachesAVtableObjectThroughOleaut32)
{
    CoInitialize(nullptr);
    {
        Callee callee;
        IDispatch *object = callee.dispatch();
        Def mixed("Mixed", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING), out(VXL_TYPE_STRING)});
        BSTR c = SysAllocString(L"x");
        BSTR r = nullptr;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &mixed.method, 3, 2.5, c, &r));
        EXPECT_STREQ(L"3 2.5 x", r);
        SysFreeString(r);
        SysFreeString(c);

        Def twice("Twice", {in(VXL_TYPE_INT), out(VXL_TYPE_INT)});
        int32_t doubled = 0;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &twice.method, 21, &doubled));
        EXPECT_EQ(42, doubled);

        Def bump("Bump", {inout(VXL_TYPE_INT)});
        int32_t value = 5;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &bump.method, &value));
        EXPECT_EQ(15, value);

        Def sum("Sum", {in(VXL_TYPE_DOUBLE, ~1), in(VXL_TYPE_INT), out(VXL_TYPE_DOUBLE)});
        SAFEARRAY *values = combined({i4(1), i4(2), i4(4)});
        double total = 0;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &sum.method, &values, &total));
        EXPECT_EQ(7.0, total);
        SafeArrayDestroy(values);

        Def small("Small", {out(VXL_TYPE_INT)});
        int32_t widened = 0;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &small.method, &widened));
        EXPECT_EQ(-1, widened);

        Def pair("Pair", {in(VXL_TYPE_INT), out(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
        int32_t n = 0;
        BSTR word = nullptr;
        ASSERT_EQ(S_OK, vxl_com_dispcall(object, &pair.method, 5, &n, &word));
        EXPECT_EQ(5, n);
        EXPECT_STREQ(L"pair", word);
        SysFreeString(word);

        Def nothing("Nothing", {});
        EXPECT_EQ(S_OK, vxl_com_dispcall(object, &nothing.method));
        EXPECT_EQ(1, callee.nothingCalls);
        Def missing("Missing", {});
        EXPECT_EQ(DISP_E_UNKNOWNNAME, vxl_com_dispcall(object, &missing.method));
    }
    CoUninitialize();
}

// Wine's Scripting.Dictionary: an Automation object nobody here wrote.
TEST(DispCallStandard, DrivesScriptingDictionary)
{
    CoInitialize(nullptr);
    CLSID clsid;
    IDispatch *dictionary = nullptr;
    ASSERT_EQ(S_OK, CLSIDFromProgID(L"Scripting.Dictionary", &clsid));
    ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                     reinterpret_cast<void **>(&dictionary)));
    Def add("Add", {in(VXL_TYPE_STRING), in(VXL_TYPE_INT)});
    BSTR keys[] = {SysAllocString(L"one"), SysAllocString(L"two")};
    EXPECT_EQ(S_OK, vxl_com_dispcall(dictionary, &add.method, keys[0], 1));
    EXPECT_EQ(S_OK, vxl_com_dispcall(dictionary, &add.method, keys[1], 2));
    // A second Add of one key is the dictionary's error, passed on as it is.
    EXPECT_EQ(DISP_E_EXCEPTION, vxl_com_dispcall(dictionary, &add.method, keys[0], 3));

    // Exists answers VT_BOOL, which no kit type accepts: the call succeeds
    // and the variable stays as it was.
    Def exists("Exists", {in(VXL_TYPE_STRING), out(VXL_TYPE_INT)});
    int32_t found = 0xdeadbeef;
    EXPECT_EQ(S_OK, vxl_com_dispcall(dictionary, &exists.method, keys[1], &found));
    EXPECT_EQ(static_cast<int32_t>(0xdeadbeef), found);

    // Keys comes back as a SAFEARRAY of VARIANTs, read with the kit's readers.
    Def keysMethod("Keys", {out(VXL_TYPE_STRING, 1)});
    SAFEARRAY *got = nullptr;
    ASSERT_EQ(S_OK, vxl_com_dispcall(dictionary, &keysMethod.method, &got));
    int32_t n = vxl_com_safearraylen(got);
    ASSERT_EQ(2, n);
    char **strings = vxl_com_createstringarrayfromsafearray(got, n);
    EXPECT_STREQ("one", strings[0]);
    EXPECT_STREQ("two", strings[1]);
    vxl_freestringarray(strings, n);
    SafeArrayDestroy(got);

    Def items("Items", {out(VXL_TYPE_INT, 1)});
    ASSERT_EQ(S_OK, vxl_com_directdispcall(dictionary, &items.method, &got)); // the callee's own array
    int32_t *values = vxl_com_createintarrayfromsafearray(got, vxl_com_safearraylen(got));
    EXPECT_EQ(1, values[0]);
    EXPECT_EQ(2, values[1]);
    vxl_free(values);
    SafeArrayDestroy(got);

    for (BSTR key : keys)
        SysFreeString(key);
    dictionary->Release();
    CoUninitialize();
}

} // namespace
