// The kit core's internal operations, with its objects linked in: the table
// of generic slots, vxl_getinterfacedef and its fatal stops, the class
// factory lookup and its one retry through the COM side (stood in for
// here), the lifetime of cached definitions, and the instruction cache
// flush after stubs are written.
#include "core/comside.h"
#include "core_support.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

using kt::hex;

namespace {
int g_loadcalls, g_comcreates, g_destroys;
std::string g_loadname;
std::function<void()> g_onload;
} // namespace

void vxl_com_loadcomponent(const char *classname)
{
    ++g_loadcalls;
    g_loadname = classname;
    if (g_onload)
        g_onload();
}

int32_t vxl_com_createinstance(const char *classname, const char *ifname, vxl_if *out)
{
    g_comcreates += *out == nullptr; // handed over nulled
    g_loadname = std::string(classname) + "/" + ifname;
    return -33;
}

namespace {

int32_t destroy(void *, vxl_if) { return ++g_destroys, 0; }
int32_t refuseAll(void *, const char *, vxl_if *, vxl_if) { return -7; }
int32_t twice(void *impl, int32_t x) { return x * 2 + (impl != nullptr); }
const vxl_methoddef mTwice = {"twice", 0, nullptr};
const vxl_methoddef *const twiceMethods[] = {&mTwice, &mTwice};
const vxl_fn twiceFns[] = {reinterpret_cast<vxl_fn>(&twice), reinterpret_cast<vxl_fn>(&twice)};
const vxl_interfacedef iGdA = {"GdA", 0, nullptr}, iGdB = {"GdB", 0, nullptr}, iTwice = {"ITwice", 2, twiceMethods};
const vxl_interfacedef iHidden = {"GdHidden", 0, nullptr}; // never registered
const vxl_componentinterface gdA = {&iGdA, nullptr}, gdB = {&iGdB, nullptr}, hidden = {&iHidden, nullptr};
const vxl_componentinterface twiceEntry = {&iTwice, twiceFns};
const vxl_componentinterface *const twoIfs[] = {&gdA, &gdB}, *const hiddenIfs[] = {&hidden, &gdA};
const vxl_componentinterface *const flushedIfs[] = {&gdA, &twiceEntry};
const vxl_componentdef classes[] = {{"GdTwo", 2, twoIfs, nullptr, destroy, nullptr},
                                    {"GdHidden", 2, hiddenIfs, nullptr, destroy, nullptr},
                                    {"GdRefuse", 2, twoIfs, nullptr, destroy, refuseAll},
                                    {"Flushed", 2, flushedIfs, nullptr, destroy, nullptr}};
const vxl_componentdef *const components[] = {&classes[0], &classes[1], &classes[2], &classes[3], nullptr};
const vxl_interfacedef *const interfaces[] = {&iGdA, &iGdB, &iTwice, nullptr};

void ensureRegistered()
{
    static int32_t status = vxl_register("internal_test", components, interfaces);
    ASSERT_EQ(0, status);
}

} // namespace

TEST(GenericSlots, EveryGroupFindsItsObjectFromItsOwnInterface)
{
    // A class of n interfaces put together by hand from the table, as a
    // factory would: each slot function must find the core and the block
    // through its own (n-1, i) constants alone.
    const char *names[6] = {"H0", "H1", "H2", "H3", "H4", "H5"};
    for (int32_t n = 1; n <= kMaxInterfaces; ++n) {
        vxl_interfacedef defs[6];
        vxl_componentinterface entries[6];
        const vxl_componentinterface *entryptrs[6];
        const void *slots[6][4];
        void *head[6];
        for (int32_t i = 0; i < n; ++i) {
            const vxl_genericgroup &g = vxl_genericslots[n - 1][i];
            defs[i] = {names[i], 0, nullptr};
            entries[i] = {&defs[i], nullptr};
            entryptrs[i] = &entries[i];
            const void *group[4] = {reinterpret_cast<const void *>(g.getinterface), reinterpret_cast<const void *>(g.getname),
                                    reinterpret_cast<const void *>(g.incref), reinterpret_cast<const void *>(g.decref)};
            memcpy(slots[i], group, sizeof group);
            head[n - 1 - i] = slots[i];
        }
        vxl_componentdef def = {"HandMade", n, entryptrs, nullptr, destroy, nullptr};
        vxl_classfactory factory = {nullptr, n * 8, 0, head, &def};
        vxltest::LogTail tail;
        void **core = nullptr;
        vxl_if primary = vxl_newobject(&factory, &core);
        EXPECT_EQ(reinterpret_cast<void **>(primary) + 1, core);
        EXPECT_EQ(1, factory.usecount);
        EXPECT_EQ(1, kt::coreOf(primary)->refcount);
        EXPECT_EQ("encapsulate = " + hex(primary) + "\n", tail.text());
        for (int32_t i = 0; i < n; ++i) {
            SCOPED_TRACE(testing::Message() << n << " interfaces, index " << i);
            vxl_if self = kt::iface(primary, i), out = nullptr;
            ASSERT_EQ(slots[i], static_cast<const void *>(self->slots));
            const char *name = nullptr;
            EXPECT_EQ(0, self->slots->getname(self, &name));
            EXPECT_STREQ(names[i], name);
            EXPECT_EQ(0, self->slots->getinterface(self, nullptr, &out));
            EXPECT_EQ(primary, out);
            for (int32_t k = 0; k < n; ++k) {
                EXPECT_EQ(0, self->slots->getinterface(self, names[k], &out));
                EXPECT_EQ(kt::iface(primary, k), out);
            }
            EXPECT_EQ(2 + n, kt::coreOf(primary)->refcount);
            for (int32_t k = 0; k <= n; ++k)
                self->slots->decref(self);
        }
        int destroys = g_destroys;
        vxl_if last = kt::iface(primary, n - 1);
        EXPECT_EQ(0, last->slots->decref(last)); // the last reference, through the last interface
        EXPECT_EQ(destroys + 1, g_destroys);
        EXPECT_EQ(0, factory.usecount);
    }
}

// ---- vxl_getinterfacedef ----------------------------------------------------------------------

namespace {
int32_t g_fail; // the hand-made interface's slot that fails: 1 getinterface, 2 getname, 3 decref
vxl_ifcell g_fake;
const vxl_ifslots fakeSlots = {[](vxl_if, const char *, vxl_if *out) { return *out = &g_fake, int32_t(g_fail == 1); },
                               [](vxl_if, const char **out) { return *out = "GdA", g_fail == 2 ? 5 : 0; },
                               [](vxl_if) { return 0; }, [](vxl_if) { return g_fail == 3 ? 7 : 0; }};
int fakeChild(int32_t fail)
{
    ensureRegistered();
    g_fail = fail;
    g_fake.slots = &fakeSlots;
    vxltest::writeExpected(fail ? std::string("vxl_fatal: ") + (fail == 2 ? "oops" : "ooops") + "\n" : "");
    return vxl_getinterfacedef(&g_fake) == vxl_findinterfacedef("GdA") ? 0 : 1;
}
} // namespace

VXL_CHILD(gd_getinterface_fails) { return fakeChild(1); }
VXL_CHILD(gd_getname_fails) { return fakeChild(2); }
VXL_CHILD(gd_decref_fails) { return fakeChild(3); }
VXL_CHILD(gd_fake_succeeds) { return fakeChild(0); }
VXL_CHILD(gd_callback_refuses)
{
    ensureRegistered();
    vxl_if a = nullptr;
    if (vxl_createinstance("GdRefuse", nullptr, &a) != 0)
        return 10;
    vxltest::writeExpected("vxl_createclassfactory\ncreateclassfactory GdRefuse = " + hex(kt::coreOf(a)->factory) +
                           ">\nencapsulate = " + hex(a) + "\ngetinterface(" + hex(a) + ", (null)) = 0 -7\nvxl_fatal: ooops\n");
    return vxl_getinterfacedef(a) != nullptr;
}

TEST(GetInterfaceDef, IsTheCachedDefinitionOfThePrimaryInterfaceOrAFatalStop)
{
    ensureRegistered();
    vxl_if a = nullptr, h = nullptr;
    ASSERT_EQ(0, vxl_createinstance("GdTwo", nullptr, &a));
    vxltest::LogTail tail;
    const vxl_interfacedef *def = vxl_getinterfacedef(kt::iface(a, 1));
    EXPECT_EQ(vxl_findinterfacedef("GdA"), def);
    EXPECT_NE(&iGdA, def) << "the cached copy, not the registrant's record";
    EXPECT_EQ("inccref(" + hex(a) + ")\ngetinterface(" + hex(kt::iface(a, 1)) + ", (null)) = " + hex(a) + "\ndecref(" +
                  hex(a) + ") = 2\n",
              tail.text());
    EXPECT_EQ(nullptr, vxl_getinterfacedef(nullptr));
    ASSERT_EQ(0, vxl_createinstance("GdHidden", nullptr, &h));
    EXPECT_EQ(nullptr, vxl_getinterfacedef(h)) << "GdHidden is not a registered interface";
    vxl_decref(h);
    vxl_decref(a);
    for (const char *child : {"gd_getinterface_fails", "gd_getname_fails", "gd_decref_fails", "gd_callback_refuses",
                              "gd_fake_succeeds"}) {
        int exitcode = -1;
        EXPECT_EQ("", vxltest::childLogAgainstExpected(child, &exitcode)) << child;
        EXPECT_EQ(strcmp(child, "gd_fake_succeeds") ? 3 : 0, exitcode) << child;
    }
}

// ---- class factory lookups and vxl_com_loadcomponent ------------------------------------------

TEST(FindClassFactory, OneLoadCallWithNoKitLockHeldThenTheRegistryThenCom)
{
    static const vxl_componentdef late = {"LateClass", 1, twoIfs, nullptr, destroy, nullptr};
    static const vxl_componentdef *const lateComponents[] = {&late, nullptr};
    static const vxl_interfacedef *const noInterfaces[] = {nullptr};
    ensureRegistered();
    {
        vxl_lockguard factoryLock(VXL_FACTORY_LOCK);
        EXPECT_EQ(nullptr, vxl_findclassfactory("Flushed", 0)) << "looking only builds nothing";
    }
    // The library that registers while it loads is found; meanwhile another
    // thread can take the factory lock.
    bool otherThreadDone = false;
    g_onload = [&] {
        std::thread([&] { otherThreadDone = vxl_inuse(components) == 0; }).join();
        vxl_register("late", lateComponents, noInterfaces);
    };
    g_loadcalls = 0;
    vxl_classfactory *f = vxl_findclassfactory("LateClass", 1);
    g_onload = nullptr;
    ASSERT_NE(nullptr, f);
    EXPECT_TRUE(otherThreadDone);
    EXPECT_EQ(1, f->usecount);
    EXPECT_EQ(f, vxl_findclassfactory("LateClass", 1));
    EXPECT_EQ(1, g_loadcalls) << "a cached class needs no load";
    vxl_destroyclassfactory(f);
    vxl_destroyclassfactory(f);

    vxltest::LogTail tail;
    vxl_if out = kt::deadbeef;
    EXPECT_EQ(-33, vxl_createinstance("ComOnly", "IThing", &out));
    EXPECT_EQ(2, g_loadcalls);
    EXPECT_EQ(1, g_comcreates) << "an unknown class goes to COM with the out pointer nulled";
    EXPECT_EQ("ComOnly/IThing", g_loadname);
    EXPECT_EQ("vxl_createclassfactory\ncreateclassfactory ComOnly = <none>\n", tail.text());
}

TEST(ErrorText, WithoutASystemErrorTheTextOfErrnoElseNothing)
{
    char text[8];
    SetLastError(0);
    errno = ENOENT;
    EXPECT_EQ(7, vxl_errortext(text, sizeof text)) << "at most size - 1 characters";
    EXPECT_EQ(std::string(strerror(ENOENT)).substr(0, 7), text);
    errno = 0;
    EXPECT_EQ(0, vxl_errortext(text, sizeof text));
    EXPECT_STREQ("", text);
}

TEST(Definitions, ACopyHandedOutStaysReadableAfterItsRegistrationGoes)
{
    static const vxl_paramdef param = {"value", VXL_TYPE_DOUBLE, VXL_DIR_OUT, 0, "second"};
    static const vxl_paramdef *const params[] = {&param, &param};
    static const vxl_methoddef method = {"read", 2, params};
    static const vxl_methoddef *const methods[] = {&method, &method, &method};
    static vxl_interfacedef ifaces[17] = {{"ILater", 3, methods}};
    static const vxl_interfacedef *lists[17][2];
    static const vxl_componentdef *const none[] = {nullptr};
    static char names[16][16];
    for (int k = 0; k < 17; ++k) {
        if (k > 0)
            ifaces[k] = {(snprintf(names[k - 1], 16, "IOther%02d", k), names[k - 1]), 3, methods};
        lists[k][0] = &ifaces[k];
    }
    ASSERT_EQ(0, vxl_register("later", none, lists[0]));
    const vxl_interfacedef *def = vxl_findinterfacedef("ILater");
    ASSERT_EQ(0, vxl_unregister(none, lists[0]));
    EXPECT_EQ(nullptr, vxl_findinterfacedef("ILater"));
    for (int k = 1; k < 17; ++k) // other libraries come and go meanwhile, with copies of the same shape
        ASSERT_EQ(0, vxl_register("other", none, lists[k]));
    for (int k = 1; k < 17; ++k)
        ASSERT_EQ(0, vxl_unregister(none, lists[k]));
    EXPECT_STREQ("ILater", def->name) << "whoever got the copy from a lookup may still read it";
    for (int j = 0; j < 3; ++j)
        EXPECT_STREQ("second", def->methods[j]->params[1]->secondname);
    ASSERT_EQ(0, vxl_register("later", none, lists[0]));
    EXPECT_EQ(def, vxl_findinterfacedef("ILater")) << "an equal definition is served by the same copy again";
    ASSERT_EQ(0, vxl_unregister(none, lists[0]));
}

// This program links the runtime's objects, whose import of
// FlushInstructionCache is this pointer.
namespace {
std::vector<std::pair<const void *, SIZE_T>> g_flushes;
BOOL WINAPI countingFlush(HANDLE process, LPCVOID base, SIZE_T size)
{
    g_flushes.emplace_back(process == GetCurrentProcess() ? base : nullptr, size);
    return reinterpret_cast<BOOL(WINAPI *)(HANDLE, LPCVOID, SIZE_T)>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleA("kernel32.dll"), "FlushInstructionCache")))(process, base, size);
}
} // namespace
extern "C" {
decltype(&FlushInstructionCache) __imp_FlushInstructionCache = countingFlush;
}

TEST(Stubs, EveryStubBlockIsFlushedOnceWritten)
{
    ensureRegistered();
    g_flushes.clear();
    vxl_if b = nullptr;
    ASSERT_EQ(0, vxl_createinstance("Flushed", "ITwice", &b));
    ASSERT_EQ(1u, g_flushes.size()) << "one block has code; GdA has no methods";
    EXPECT_EQ(kt::coreOf(kt::iface(b, -1))->factory->stubblocks[1], g_flushes[0].first);
    EXPECT_EQ(32u, g_flushes[0].second);
    EXPECT_EQ(42, VXL_METHOD(b, 1, int32_t(*)(vxl_if, int32_t))(b, 21));
    vxl_decref(b);
}
