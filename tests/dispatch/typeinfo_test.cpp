// Type information of registered interfaces and connection-point events.
// The test type library is registered in the test prefix for the duration
// of the program; the interfaces are registered with the runtime per test.
#include "dispatchfakes.h"
#include "dispatchtest.h"
#include "harness.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace dispatchtest;

namespace {

const GUID kUnregisteredLib = {0x4c7d2e60, 0x91a3, 0x4b8e, {0xa5, 0xf1, 0x3d, 0x2c, 0x1b, 0x0a, 0x9e, 0xff}};
const GUID kNotInLib = {0x4c7d2e60, 0x91a3, 0x4b8e, {0xa5, 0xf1, 0x3d, 0x2c, 0x1b, 0x0a, 0x9e, 0xfe}};

vxl_comifinfo entry(const char *name, const GUID &server, const GUID &events)
{
    vxl_comifinfo info = {};
    info.name = name;
    info.iid_comS = server;
    info.iid_CP = events;
    return info;
}

// One vxl_com_register call that is taken back when the test ends.
class Registration {
public:
    Registration(const GUID &libid, std::initializer_list<vxl_comifinfo> entries) : entries_(entries)
    {
        library_ = {"dispatchtest", libid};
        for (auto &e : entries_)
            pointers_.push_back(&e);
        pointers_.push_back(nullptr);
        vxl_com_register(&library_, components_, pointers_.data());
    }
    ~Registration() { vxl_com_unregister(&library_, components_, pointers_.data()); }

private:
    vxl_comlibinfo library_;
    std::vector<vxl_comifinfo> entries_;
    std::vector<const vxl_comifinfo *> pointers_;
    const vxl_comcomponentinfo *const components_[1] = {nullptr};
};

GUID guidOf(ITypeInfo *info)
{
    TYPEATTR *attr = nullptr;
    info->GetTypeAttr(&attr);
    GUID guid = attr->guid;
    info->ReleaseTypeAttr(attr);
    return guid;
}

class TypeInfo : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        CoInitialize(nullptr);
        WCHAR path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        ASSERT_EQ(S_OK, RegisterTypeLib(testTypeLib(), path, nullptr));
    }
    static void TearDownTestSuite()
    {
        UnRegisterTypeLib(LIBID_VxlDispatchTest, 1, 0, 0, SYS_WIN64);
        CoUninitialize();
    }
};

TEST_F(TypeInfo, EachKindIsCachedApart)
{
    Registration reg(LIBID_VxlDispatchTest, {entry("ICallee", IID_ICallee, IID_ICalleeEvents)});
    vxltest::LogTail log;
    ITypeInfo *server = vxl_com_gettypeinfo("ICallee", "S");
    ITypeInfo *events = vxl_com_gettypeinfo("ICallee", "CP");
    ASSERT_NE(nullptr, server);
    ASSERT_NE(nullptr, events);
    EXPECT_EQ(server, vxl_com_gettypeinfo("ICallee", "S"));
    EXPECT_EQ(events, vxl_com_gettypeinfo("ICallee", "CP"));
    EXPECT_EQ(IID_ICallee, guidOf(server));
    EXPECT_EQ(IID_ICalleeEvents, guidOf(events));
    std::string line = "vxl_com_gettypeinfo: ICallee\n";
    EXPECT_EQ(line + line + line + line, log.text());
}

TEST_F(TypeInfo, FailuresAreLoggedAndFallThroughOnlyWhereTheyMay)
{
    Registration older(LIBID_VxlDispatchTest, {entry("ICallee", IID_ICallee, IID_ICalleeEvents)});
    {
        // A newer entry without a connection-point IID is passed over; one
        // whose GUID the library lacks is tried, logged and passed over.
        Registration newer(LIBID_VxlDispatchTest,
                           {entry("ICallee", kNotInLib, GUID_NULL), entry("INoEvents", IID_ICallee, GUID_NULL)});
        vxltest::LogTail log;
        EXPECT_EQ(nullptr, vxl_com_gettypeinfo("INoEvents", "CP"));
        ITypeInfo *server = vxl_com_gettypeinfo("ICallee", "S");
        ASSERT_NE(nullptr, server);
        EXPECT_EQ(IID_ICallee, guidOf(server));
        EXPECT_EQ("vxl_com_gettypeinfo: INoEvents\n"
                  "vxl_com_gettypeinfo: ICallee\n"
                  "vxl_com_gettypeinfo: cannot get tinfo, hr = 8002802b\n",
                  log.text());
    }
    {
        // A library that cannot be loaded ends the walk, older entries or not.
        Registration broken(kUnregisteredLib, {entry("ICallee", IID_ICallee, IID_ICalleeEvents)});
        vxltest::LogTail log;
        EXPECT_EQ(nullptr, vxl_com_gettypeinfo("ICallee", "CP"));
        EXPECT_EQ("vxl_com_gettypeinfo: ICallee\n"
                  "vxl_com_gettypeinfo: cannot load tlib\n",
                  log.text());
    }
    EXPECT_EQ(nullptr, vxl_com_gettypeinfo(nullptr, "S"));
}

TEST_F(TypeInfo, ComponentObjectTypeInfoCarriesItsOwnReference)
{
    ITypeInfo *info = vxl_com_getcomponentobjecttypeinfo(&LIBID_VxlDispatchTest, &IID_ICalleeEvents);
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(IID_ICalleeEvents, guidOf(info));
    info->Release();
    EXPECT_EQ(nullptr, vxl_com_getcomponentobjecttypeinfo(&kUnregisteredLib, &IID_ICallee));
    EXPECT_EQ(nullptr, vxl_com_getcomponentobjecttypeinfo(&LIBID_VxlDispatchTest, &kNotInLib));
}

IDispatch *g_madeDispatch;
HRESULT makeDispatch(IUnknown *object, IDispatch **out)
{
    g_madeDispatch->AddRef();
    *out = g_madeDispatch;
    return S_OK;
}

TEST_F(TypeInfo, DispatchInterfaceOfAnObject)
{
    Callee callee;
    Recorder notDual;
    IDispatch *out = reinterpret_cast<IDispatch *>(0xdeadbeef);

    // No name: the object's own IDispatch, or none.
    vxltest::LogTail log;
    BSTR empty = SysAllocString(L"");
    EXPECT_EQ(S_OK, vxl_com_getdispinterface(empty, &out, static_cast<ICallee *>(&callee)));
    EXPECT_EQ(callee.dispatch(), out);
    out->Release();
    SysFreeString(empty);

    // A name nobody registered: the wrapper library is asked to load once.
    BSTR unknown = SysAllocString(L"INoSuchInterface");
    out = reinterpret_cast<IDispatch *>(0xdeadbeef);
    EXPECT_EQ(E_NOINTERFACE, vxl_com_getdispinterface(unknown, &out, static_cast<ICallee *>(&callee)));
    EXPECT_EQ(nullptr, out);
    SysFreeString(unknown);
    char own[64];
    snprintf(own, sizeof own, "vxl_com_getdispinterface:  = %x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(callee.dispatch())));
    EXPECT_EQ(std::string(own) +
                  "vxl_com_wrapper_tryload(INoSuchInterface, comS) -> "
                  "SOFTWARE\\Quelt\\vexa\\interfaces\\INoSuchInterface-comS\n"
                  "vxl_com_wrapper_tryload() openkey failed 2\n"
                  "vxl_com_getdispinterface: INoSuchInterface = 0\n",
              log.text());

    // A registered interface whose dispinterface function makes one.
    vxl_comifinfo info = entry("ICallee", IID_ICallee, GUID_NULL);
    info.getdispinterface = makeDispatch;
    const vxl_comifinfo *entries[] = {&info, nullptr};
    const vxl_comcomponentinfo *components[] = {nullptr};
    vxl_comlibinfo library = {"dispatchtest", LIBID_VxlDispatchTest};
    vxl_com_register(&library, components, entries);
    g_madeDispatch = &notDual;
    BSTR name = SysAllocString(L"ICallee");
    EXPECT_EQ(S_OK, vxl_com_getdispinterface(name, &out, static_cast<ICallee *>(&callee)));
    EXPECT_EQ(&notDual, out);
    out->Release();
    // An object that does not carry the server-side interface gets none.
    EXPECT_EQ(E_NOINTERFACE, vxl_com_getdispinterface(name, &out, &notDual));
    EXPECT_EQ(1, notDual.refs);
    SysFreeString(name);
    vxl_com_unregister(&library, components, entries);
}

} // namespace
