// Class objects: the cache and its sweep, reference counts (LockServer and
// counts below 0), the failures of vxl_com_getclassobject and of
// CreateInstance, and registration with COM. The COM wrappers of ICounter
// come from the test wrapper library, loaded directly.
#include "harness.h"
#include "../wrap/testifaces.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace {

std::atomic<int> g_live{0};

int32_t create(void **implslot, vxl_if)
{
    *implslot = nullptr;
    ++g_live;
    return VXL_OK;
}
int32_t destroy(void *, vxl_if)
{
    --g_live;
    return VXL_OK;
}
int32_t counterAdd(void *, int32_t)
{
    return VXL_OK;
}
int32_t counterGet(void *, int32_t *value)
{
    *value = 7;
    return VXL_OK;
}

const vxl_fn counterFns[] = {reinterpret_cast<vxl_fn>(counterAdd), reinterpret_cast<vxl_fn>(counterGet)};
const vxl_componentinterface counterCI = {&ICounterDef, counterFns};
const vxl_componentinterface *const counterCIs[] = {&counterCI};
const vxl_componentdef counterClass = {"CoCounter", 1, counterCIs, create, destroy, nullptr};
const vxl_componentdef otherClass = {"CoOther", 1, counterCIs, create, destroy, nullptr};
const vxl_componentdef *const kitClasses[] = {&counterClass, &otherClass, nullptr};
const vxl_interfacedef *const kitInterfaces[] = {&ICounterDef, nullptr};

// 0a1b2c3d-0000-4000-8000-00000000000N
constexpr CLSID clsid(unsigned char n)
{
    return {0x0a1b2c3d, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, n}};
}
const CLSID CLSID_Counter = clsid(1), CLSID_Other = clsid(2), CLSID_NoKit = clsid(3), CLSID_Unknown = clsid(4);
const IID IID_Ghost = clsid(5);
const char kCounterText[] = "0a1b2c3d-0000-4000-8000-000000000001";

const vxl_comcomponentinfo counterInfo = {"CoCounter", CLSID_Counter};
const vxl_comcomponentinfo otherInfo = {"CoOther", CLSID_Other};
const vxl_comcomponentinfo noKitInfo = {"NoKitClass", CLSID_NoKit};
const vxl_comcomponentinfo notComInfo = {"CoOther", GUID_NULL};
const vxl_comcomponentinfo *const comComponents[] = {&notComInfo, &counterInfo, &otherInfo, &noKitInfo, nullptr};
// An interface with a COM record but no kit definition.
const vxl_comifinfo ghostInfo = {"IGhost", IID_Ghost, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                 nullptr, nullptr, nullptr, nullptr};
const vxl_comifinfo *const comInterfaces[] = {&ghostInfo, nullptr};
const vxl_comlibinfo libinfo = {"test_classobjects.exe", GUID_NULL};

const vxl_comcomponentinfo *const counterOnly[] = {&counterInfo, nullptr};
const vxl_comcomponentinfo *const counterThenOther[] = {&counterInfo, &otherInfo, nullptr};

std::string hex(const void *p)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return buf;
}

IClassFactory *classObject(const CLSID &clsid)
{
    IClassFactory *cf = nullptr;
    EXPECT_EQ(S_OK, vxl_com_getclassobject(&clsid, &IID_IClassFactory, reinterpret_cast<void **>(&cf)));
    return cf;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class ClassObjects : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        vxl_init();
        ASSERT_NE(nullptr, LoadLibraryA("testwrappers.dll"));
        ASSERT_EQ(VXL_OK, vxl_register("classobject test", kitClasses, kitInterfaces));
        vxl_com_register(&libinfo, comComponents, comInterfaces);
    }
    // Every test leaves the cache empty and no object alive.
    void TearDown() override
    {
        EXPECT_EQ(0, vxl_com_inuse(comComponents, nullptr));
        EXPECT_EQ(0, g_live);
    }
};

TEST_F(ClassObjects, IdleClassObjectStaysCachedUntilTheSweep)
{
    vxltest::LogTail tail;
    IClassFactory *cf = classObject(CLSID_Counter);
    EXPECT_EQ(0u, tail.text().find(std::string("vxl_com_getclassobject: ") + kCounterText +
                                   " 00000001-0000-0000-c000-000000000046\n"));
    IUnknown *unknown = nullptr;
    EXPECT_EQ(S_OK, cf->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unknown)));
    EXPECT_EQ(static_cast<IUnknown *>(cf), unknown);
    unknown->Release();
    void *other = reinterpret_cast<void *>(0xdeadbeef);
    EXPECT_EQ(E_NOINTERFACE, cf->QueryInterface(IID_IVxCounter, &other));
    EXPECT_EQ(nullptr, other);

    EXPECT_EQ(0u, cf->Release());
    vxltest::LogTail again;
    EXPECT_EQ(cf, classObject(CLSID_Counter));
    EXPECT_FALSE(contains(again.text(), "vxl_createclassfactory"));
    cf->Release();
    EXPECT_EQ(static_cast<ULONG>(-1), cf->Release()) << "a count below 0 is idle too";

    vxltest::LogTail sweep;
    EXPECT_EQ(0, vxl_com_inuse(counterOnly, nullptr));
    EXPECT_EQ("vxl_com_inuse: no\n", sweep.text());
    vxltest::LogTail fresh;
    classObject(CLSID_Counter)->Release();
    EXPECT_TRUE(contains(fresh.text(), "vxl_createclassfactory\n"));
}

// LockServer and COM's registration each hold a reference of their own.
TEST_F(ClassObjects, LockServerAndRegistrationWithComCountAsReferences)
{
    IClassFactory *cf = classObject(CLSID_Counter);
    EXPECT_EQ(S_OK, cf->LockServer(TRUE));
    DWORD cookie = 0;
    EXPECT_EQ(0, vxl_com_registerclassobject(&CLSID_Counter, cf, &cookie));
    EXPECT_NE(0u, cookie);
    cf->Release();
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_com_inuse(counterOnly, nullptr));
    EXPECT_EQ("vxl_com_inuse: yes CoCounter 2\n", tail.text());
    EXPECT_EQ(0, vxl_com_revokeclassobject(cookie, cf));
    EXPECT_EQ(S_OK, cf->LockServer(FALSE));
}

TEST_F(ClassObjects, SweepStopsAtTheFirstComponentInUse)
{
    IClassFactory *held = classObject(CLSID_Counter);
    classObject(CLSID_Other)->Release();
    EXPECT_EQ(1, vxl_com_inuse(counterThenOther, nullptr));
    vxltest::LogTail tail;
    classObject(CLSID_Other)->Release();
    EXPECT_FALSE(contains(tail.text(), "vxl_createclassfactory"));
    held->Release();
}

TEST_F(ClassObjects, NoClassObjectWithoutComponentOrKitClass)
{
    struct Case {
        const CLSID *clsid;
        HRESULT hr;
        const char *line;
    } cases[] = {
        {&CLSID_Unknown, CLASS_E_CLASSNOTAVAILABLE, "vxl_com_getclassobject: cannot find componentobject id\n"},
        {&GUID_NULL, CLASS_E_CLASSNOTAVAILABLE, "vxl_com_getclassobject: cannot find componentobject id\n"},
        {&CLSID_NoKit, E_OUTOFMEMORY, "vxl_com_getclassobject: cannot create cf\n"},
    };
    for (const Case &c : cases) {
        vxltest::LogTail tail;
        void *out = reinterpret_cast<void *>(0xdeadbeef);
        EXPECT_EQ(c.hr, vxl_com_getclassobject(c.clsid, &IID_IClassFactory, &out));
        EXPECT_EQ(reinterpret_cast<void *>(0xdeadbeef), out);
        EXPECT_TRUE(contains(tail.text(), c.line)) << tail.text();
    }
}

TEST_F(ClassObjects, CreateInstanceWrapsTheAskedForm)
{
    IClassFactory *cf = classObject(CLSID_Counter);
    void *out = reinterpret_cast<void *>(0xdeadbeef);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, cf->CreateInstance(cf, IID_IUnknown, &out));
    struct Case {
        const IID *iid;
        const char *line;
    } failures[] = {
        {&CLSID_Unknown, "CFactory::CreateInstance: cannot find interface from id\n"},
        {&IID_Ghost, "CFactory::CreateInstance: no interface def\n"},
        {&IID_IVxNamed, "CFactory::CreateInstance: cannot create instance\n"}, // CoCounter has no INamed
    };
    for (const Case &c : failures) {
        vxltest::LogTail tail;
        EXPECT_EQ(E_NOINTERFACE, cf->CreateInstance(nullptr, *c.iid, &out));
        EXPECT_TRUE(contains(tail.text(), c.line)) << tail.text();
    }
    EXPECT_EQ(reinterpret_cast<void *>(0xdeadbeef), out);
    EXPECT_EQ(0, g_live);

    // IUnknown gives the primary interface in the first form.
    vxltest::LogTail tail;
    IUnknown *unknown = nullptr;
    ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void **>(&unknown)));
    EXPECT_EQ(0u, tail.text().find("CFactory::CreateInstance: " + hex(cf) +
                                   " 00000000-0000-0000-c000-000000000046\n"));
    EXPECT_TRUE(contains(tail.text(), ", ICounter, com)\n"));
    IVxCounterS *dual = nullptr;
    ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, IID_IVxCounterS, reinterpret_cast<void **>(&dual)));
    EXPECT_TRUE(contains(tail.text(), ", ICounter, comS)\n"));
    LONG value = 0;
    EXPECT_EQ(S_OK, dual->Get(&value));
    EXPECT_EQ(7, value);
    EXPECT_EQ(2, g_live);
    unknown->Release();
    dual->Release();
    cf->Release();
}

} // namespace
