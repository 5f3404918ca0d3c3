// Calls and events between the runtime and real Automation objects: vtable
// objects behind oleaut32's standard dispatch, Wine's Scripting.Dictionary,
// and the type information of the registered test type library.
#include "dispatchfakes.h"
#include "harness.h"
#include "taskmemory.h"

using namespace dispatchtest;

namespace {

const GUID kUnregisteredLib = {0x4c7d2e60, 0x91a3, 0x4b8e, {0xa5, 0xf1, 0x3d, 0x2c, 0x1b, 0x0a, 0x9e, 0xff}};
const GUID kNotInLib = {0x4c7d2e60, 0x91a3, 0x4b8e, {0xa5, 0xf1, 0x3d, 0x2c, 0x1b, 0x0a, 0x9e, 0xfe}};

ITypeLib *g_typelib; // embedded in this program, registered while the tests run

// A vtable object whose IDispatch is oleaut32's standard dispatch over the
// embedded type library, so calls arrive exactly as any Automation client's
// would; the object itself answers only ICallee.
class Callee : public ICallee {
public:
    Callee()
    {
        ITypeInfo *info = nullptr;
        IUnknown *standard = nullptr;
        g_typelib->GetTypeInfoOfGuid(IID_ICallee, &info);
        CreateStdDispatch(this, this, info, &standard);
        standard->QueryInterface(IID_IDispatch, reinterpret_cast<void **>(&dispatch));
        standard->Release(), info->Release();
    }
    ~Callee() { dispatch->Release(); }
    IDispatch *dispatch = nullptr;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (iid == IID_IDispatch)
            return dispatch->AddRef(), *out = dispatch, S_OK;
        *out = iid == IID_IUnknown || iid == IID_ICallee ? this : nullptr;
        return *out ? AddRef(), S_OK : E_NOINTERFACE;
    }
    LONG refs = 1;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    // Calls by name reach the standard dispatch, never these.
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *, UINT *) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Mixed(int a, double b, BSTR c, BSTR *r) override
    {
        WCHAR text[64];
        swprintf(text, 64, L"%d %g %ls", a, b, c ? c : L"");
        return *r = SysAllocString(text), S_OK;
    }
    // In/out as Automation passes it: a VARIANT that refers to the caller's int.
    HRESULT STDMETHODCALLTYPE Bump(VARIANT *v) override
    {
        return V_VT(v) == (VT_BYREF | VT_I4) ? *V_I4REF(v) += 10, S_OK : DISP_E_TYPEMISMATCH;
    }
    HRESULT STDMETHODCALLTYPE Pair(int n, VARIANT *r) override // two out values: int, string
    {
        return V_VT(r) = VT_ARRAY | VT_VARIANT, V_ARRAY(r) = variants({i4(n), bstr(L"pair")}), S_OK;
    }
    std::wstring ticks;
    HRESULT STDMETHODCALLTYPE Tick(int n, BSTR text) override
    {
        return ticks += std::to_wstring(n) + L" " + (text ? text : L"") + L";", S_OK;
    }
};

ULONG refs(IUnknown *object) { return object->AddRef(), object->Release(); }

GUID guidOf(ITypeInfo *info)
{
    TYPEATTR *attr = nullptr;
    GUID guid = SUCCEEDED(info->GetTypeAttr(&attr)) ? attr->guid : GUID_NULL;
    return info->ReleaseTypeAttr(attr), guid;
}

// One vxl_com_register call of one or two entries, taken back when the test ends.
struct Registration {
    Registration(const GUID &libid, vxl_comifinfo first, vxl_comifinfo second = {})
        : entries{first, second}, library{"dispatchtest", libid}
    {
        vxl_com_register(&library, components, pointers);
    }
    ~Registration() { vxl_com_unregister(&library, components, pointers); }
    vxl_comifinfo entries[2];
    vxl_comlibinfo library;
    const vxl_comifinfo *pointers[3] = {&entries[0], entries[1].name ? &entries[1] : nullptr, nullptr};
    const vxl_comcomponentinfo *components[1] = {nullptr};
};
vxl_comifinfo entry(const char *name, const GUID &server, const GUID &events, vxl_getdispinterfacefn make = nullptr)
{
    vxl_comifinfo info = {};
    info.name = name, info.iid_comS = server, info.iid_CP = events, info.getdispinterface = make;
    return info;
}
const vxl_comifinfo kCallee = entry("ICallee", IID_ICallee, IID_ICalleeEvents);

class Automation : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        WCHAR path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        ASSERT_EQ(S_OK, LoadTypeLibEx(path, REGKIND_REGISTER, &g_typelib));
    }
    static void TearDownTestSuite()
    {
        g_typelib->Release();
        UnRegisterTypeLib(LIBID_VxlDispatchTest, 1, 0, 0, SYS_WIN64);
    }
    // Fires event 5 (Tick) to the sinks with these arguments (given last first).
    static HRESULT fire(const char *ifname, std::vector<IDispatch *> sinks, std::vector<VARIANT> &args)
    {
        DISPPARAMS params = {args.data(), nullptr, static_cast<UINT>(args.size()), 0};
        return vxl_com_cpinvoke(ifname, 5, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr,
                                static_cast<int32_t>(sinks.size()), sinks.data());
    }
};

// Every kind of call, made over and over, must be one a real Automation
// object understands and leave no BSTR or SAFEARRAY behind (the counter
// turns the BSTR cache off, so each is a block of task memory it counts).
TEST_F(Automation, StandardDispatchUnderstandsEveryCallAndNothingLeaks)
{
    Registration reg(LIBID_VxlDispatchTest, kCallee);
    ASSERT_NE(nullptr, vxl_com_gettypeinfo("ICallee", "CP")); // cached before counting
    Callee callee;
    IDispatch *object = callee.dispatch;
    Def mixed("Mixed", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING), out(VXL_TYPE_STRING)});
    Def noResult("Mixed", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING)});
    Def bump("Bump", {inout(VXL_TYPE_INT)}), pack("f", {out(VXL_TYPE_STRING), out(VXL_TYPE_DOUBLE, 2)});
    Def pair("Pair", {in(VXL_TYPE_INT), out(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
    const double reals[] = {1, 2};
    Recorder sink;
    static vxltest::TaskMemoryCounter memory; // outlives the test: a leaked block may be freed later
    ASSERT_TRUE(memory.install());
    for (int i = 0; i < 100 && !HasFailure(); ++i) {
        BSTR text = SysAllocString(L"x"), result = nullptr;
        EXPECT_EQ(S_OK, vxl_com_dispcall(object, &mixed.method, i, 2.5, text, &result));
        EXPECT_EQ(std::to_wstring(i) + L" 2.5 x", result);
        SysFreeString(result);
        int32_t value = i, n = -1;
        EXPECT_EQ(S_OK, vxl_com_dispcall(object, &bump.method, &value));
        EXPECT_EQ(i + 10, value);
        SAFEARRAY *both = nullptr;
        EXPECT_EQ(S_OK, vxl_com_dispcall(object, &pair.method, i, &n, &result));
        EXPECT_TRUE(n == i && result && wcscmp(result, L"pair") == 0);
        SysFreeString(result);
        EXPECT_EQ(S_OK, vxl_com_directdispcall(object, &pair.method, i, &n, &both)); // the last out gets it all
        EXPECT_EQ(2, vxl_com_safearraylen(both));
        SafeArrayDestroy(both);
        EXPECT_EQ(S_OK, vxl_com_directdispcall(object, &mixed.method, i, 0.5, text, &result)); // takes text
        SysFreeString(result);
        EXPECT_EQ(S_OK, vxl_com_directdispcall(object, &noResult.method, i, 0.5, SysAllocString(L"y")));
        std::vector<VARIANT> args = {bstr(L"event")};
        EXPECT_EQ(S_OK, fire("ICallee", {&sink, &sink}, args));
        VariantClear(&args[0]);
        SafeArrayDestroy(vxl_com_createcombined(&pack.method, "packed", reals));
    }
    memory.remove();
    EXPECT_EQ(0, memory.live);
}

TEST_F(Automation, DrivesScriptingDictionary)
{
    CLSID clsid;
    IDispatch *dictionary = nullptr;
    ASSERT_EQ(S_OK, CLSIDFromProgID(L"Scripting.Dictionary", &clsid));
    ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                     reinterpret_cast<void **>(&dictionary)));
    Def add("Add", {in(VXL_TYPE_STRING), in(VXL_TYPE_INT)});
    BSTR keys[] = {SysAllocString(L"one"), SysAllocString(L"two")};
    EXPECT_EQ(S_OK, vxl_com_dispcall(dictionary, &add.method, keys[0], 1));
    EXPECT_EQ(S_OK, vxl_com_dispcall(dictionary, &add.method, keys[1], 2));
    EXPECT_EQ(DISP_E_EXCEPTION, vxl_com_dispcall(dictionary, &add.method, keys[0], 3)); // the dictionary's own error
    Def items("Items", {out(VXL_TYPE_INT, 1)});
    SAFEARRAY *got = nullptr;
    ASSERT_EQ(S_OK, vxl_com_dispcall(dictionary, &items.method, &got));
    int32_t *values = vxl_com_createintarrayfromsafearray(got, 3);
    EXPECT_TRUE(vxl_com_safearraylen(got) == 2 && values[0] == 1 && values[1] == 2);
    vxl_free(values), SafeArrayDestroy(got), SysFreeString(keys[0]), SysFreeString(keys[1]), dictionary->Release();
}

TEST_F(Automation, TypeInfoIsCachedPerKindAndFailuresFallThroughOnlyWhereTheyMay)
{
    Registration older(LIBID_VxlDispatchTest, kCallee);
    vxltest::LogTail log;
    ITypeInfo *server = vxl_com_gettypeinfo("ICallee", "S"), *events = vxl_com_gettypeinfo("ICallee", "CP");
    ASSERT_TRUE(server && events);
    ULONG held = refs(server);
    EXPECT_TRUE(server == vxl_com_gettypeinfo("ICallee", "S") && events == vxl_com_gettypeinfo("ICallee", "CP"));
    EXPECT_TRUE(guidOf(server) == IID_ICallee && guidOf(events) == IID_ICalleeEvents && refs(server) == held);
    std::string line = "vxl_com_gettypeinfo: ICallee\n";
    EXPECT_EQ(line + line + line + line, log.text());
    {
        // A newer entry without a connection-point IID is passed over; one
        // whose GUID the library lacks is tried, logged and passed over.
        Registration newer(LIBID_VxlDispatchTest, entry("ICallee", kNotInLib, GUID_NULL),
                           entry("INoEvents", IID_ICallee, GUID_NULL));
        vxltest::LogTail log;
        EXPECT_EQ(nullptr, vxl_com_gettypeinfo("INoEvents", "CP"));
        EXPECT_EQ(server, vxl_com_gettypeinfo("ICallee", "S"));
        EXPECT_EQ("vxl_com_gettypeinfo: INoEvents\n" + line + "vxl_com_gettypeinfo: cannot get tinfo, hr = 8002802b\n",
                  log.text());
    }
    {
        // A library that cannot be loaded ends the walk, older entries or not.
        Registration broken(kUnregisteredLib, kCallee);
        vxltest::LogTail log;
        EXPECT_EQ(nullptr, vxl_com_gettypeinfo("ICallee", "CP"));
        EXPECT_EQ(line + "vxl_com_gettypeinfo: cannot load tlib\n", log.text());
    }
    EXPECT_EQ(nullptr, vxl_com_gettypeinfo(nullptr, "S"));

    ITypeInfo *info = vxl_com_getcomponentobjecttypeinfo(&LIBID_VxlDispatchTest, &IID_ICalleeEvents);
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(IID_ICalleeEvents, guidOf(info));
    info->Release(); // the caller's own reference
    EXPECT_EQ(nullptr, vxl_com_getcomponentobjecttypeinfo(&kUnregisteredLib, &IID_ICallee));
    EXPECT_EQ(nullptr, vxl_com_getcomponentobjecttypeinfo(&LIBID_VxlDispatchTest, &kNotInLib));
}

IDispatch *g_madeDispatch;
HRESULT makeDispatch(IUnknown *, IDispatch **out) { return g_madeDispatch->AddRef(), *out = g_madeDispatch, S_OK; }

TEST_F(Automation, DispatchInterfaceOfAnObject)
{
    Callee callee;
    Recorder notDual;
    g_madeDispatch = &notDual;
    Registration reg(LIBID_VxlDispatchTest, entry("ICallee", IID_ICallee, GUID_NULL, makeDispatch));
    IDispatch *out = reinterpret_cast<IDispatch *>(0xdeadbeef);
    BSTR empty = SysAllocString(L""), unknown = SysAllocString(L"INoSuchInterface"), name = SysAllocString(L"ICallee");
    EXPECT_EQ(S_OK, vxl_com_getdispinterface(empty, &out, &callee)); // the object's own
    EXPECT_EQ(callee.dispatch, out);
    out->Release();
    // A name nobody registered: the wrapper library is asked to load once.
    vxltest::LogTail log;
    EXPECT_EQ(E_NOINTERFACE, vxl_com_getdispinterface(unknown, &out, &callee));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ("vxl_com_wrapper_tryload(INoSuchInterface, comS) -> "
              "SOFTWARE\\Quelt\\vexa\\interfaces\\INoSuchInterface-comS\n"
              "vxl_com_wrapper_tryload() openkey failed 2\nvxl_com_getdispinterface: INoSuchInterface = 0\n",
              log.text());

    // A registered interface whose dispinterface function makes one; an
    // object without the server-side interface gets none.
    LONG held = callee.refs;
    EXPECT_EQ(S_OK, vxl_com_getdispinterface(name, &out, &callee));
    EXPECT_TRUE(out == &notDual && callee.refs == held);
    out->Release();
    EXPECT_EQ(E_NOINTERFACE, vxl_com_getdispinterface(name, &out, &notDual));
    EXPECT_EQ(1, notDual.refs);
    SysFreeString(empty), SysFreeString(unknown), SysFreeString(name);
}

TEST_F(Automation, EventsReachEachSinkByItsOwnDispidFromTheCallersArguments)
{
    Registration reg(LIBID_VxlDispatchTest, kCallee);
    Recorder renumbered, unnamed, last;
    renumbered.names[L"Tick"] = 7, last.names[L"Tick"] = 8;
    for (Recorder *sink : {&renumbered, &unnamed, &last})
        sink->act = [](DISPPARAMS *params) { V_I4(&params->rgvarg[1]) += 100, *V_I4REF(&params->rgvarg[0]) *= 2; };
    renumbered.invokeResult = E_FAIL;
    LONG shared = 3; // by reference: shared by all sinks
    VARIANT ref;
    V_VT(&ref) = VT_BYREF | VT_I4, V_I4REF(&ref) = &shared;
    std::vector<VARIANT> args = {ref, i4(1)};
    EXPECT_EQ(S_OK, fire("ICallee", {&renumbered, &unnamed, &last}, args));
    EXPECT_TRUE(renumbered.calls.at(0).dispid == 7 && unnamed.calls.at(0).dispid == 5 && last.calls.at(0).dispid == 8);
    for (Recorder *sink : {&renumbered, &unnamed, &last}) // each from the caller's arguments
        EXPECT_EQ(1, V_I4(&sink->calls[0].args[1]));
    EXPECT_TRUE(V_I4(&args[1]) == 101 && shared == 24); // as the last sink left them
    last.invokeResult = DISP_E_EXCEPTION;               // the last sink's answer is the answer
    EXPECT_EQ(DISP_E_EXCEPTION, fire("ICallee", {&renumbered, &last}, args));

    // No sinks: not even a type-information look-up. An unknown interface:
    // the caller's DISPID.
    vxltest::LogTail log;
    EXPECT_EQ(S_OK, fire("ICallee", {}, args));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(E_FAIL, fire("INotRegistered", {&renumbered}, args));
    EXPECT_EQ(5, renumbered.calls.at(2).dispid);

    // A C++ sink on oleaut32's standard dispatch, which numbers Tick its own
    // way, beside one that knows no names.
    Callee sink;
    std::vector<VARIANT> tick = {bstr(L"hi"), i4(4)};
    EXPECT_EQ(S_OK, fire("ICallee", {sink.dispatch, &unnamed, sink.dispatch}, tick));
    EXPECT_EQ(L"4 hi;4 hi;", sink.ticks);
    VariantClear(&tick[0]);
}

} // namespace
