// Internal operations of the kit core, built into this program: the generic
// slot table, vxl_getinterfacedef and its fatal stops, vxl_findclassfactory
// and its retry through vxl_com_loadcomponent, and the error text.
#include "core/comside.h"
#include "kitcore_support.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

using kt::deadbeef;
using kt::hex;

namespace {

// ---- stand-ins for COM instance creation, observed by the tests ------------------

int g_loadcalls;
std::string g_loadname;
std::function<void(const char *)> g_onload;
int g_comcreates;
vxl_if g_comoutatentry;

} // namespace

void vxl_com_loadcomponent(const char *classname)
{
    ++g_loadcalls;
    g_loadname = classname;
    if (g_onload)
        g_onload(classname);
}

int32_t vxl_com_createinstance(const char *classname, const char *ifname, vxl_if *out)
{
    ++g_comcreates;
    g_comoutatentry = *out;
    g_loadname = std::string(classname) + "/" + (ifname ? ifname : "(null)");
    return -33;
}

namespace {

// ---- classes of this program ----------------------------------------------------------

int g_destroys;

int32_t destroy(void *, vxl_if) { ++g_destroys; return 0; }
int32_t refuseNull(void *, const char *, vxl_if *, vxl_if) { return -7; }

const vxl_interfacedef iGdA = {"GdA", 0, nullptr};
const vxl_interfacedef iGdB = {"GdB", 0, nullptr};
const vxl_interfacedef iHidden = {"GdHidden", 0, nullptr}; // never registered
const vxl_componentinterface gdA = {&iGdA, nullptr};
const vxl_componentinterface gdB = {&iGdB, nullptr};
const vxl_componentinterface hidden = {&iHidden, nullptr};
const vxl_componentinterface *const twoIfs[] = {&gdA, &gdB};
const vxl_componentinterface *const hiddenIfs[] = {&hidden, &gdA};
const vxl_componentdef gdTwo = {"GdTwo", 2, twoIfs, nullptr, destroy, nullptr};
const vxl_componentdef gdHidden = {"GdHidden", 2, hiddenIfs, nullptr, destroy, nullptr};
const vxl_componentdef gdRefuse = {"GdRefuse", 2, twoIfs, nullptr, destroy, refuseNull};
const vxl_componentdef lookOnly = {"LookOnly", 1, twoIfs, nullptr, destroy, nullptr};
const vxl_componentdef other = {"Other", 1, twoIfs, nullptr, destroy, nullptr};
const vxl_componentdef *const components[] = {&gdTwo, &gdHidden, &gdRefuse, &lookOnly, &other, nullptr};
const vxl_interfacedef *const interfaces[] = {&iGdA, &iGdB, nullptr};

void ensureRegistered()
{
    static int32_t status = vxl_register("internal_test", components, interfaces);
    ASSERT_EQ(0, status);
}

} // namespace

// ---- the generic slot table -------------------------------------------------------------

namespace {

// A class of n interfaces assembled by hand from the table, as a factory
// would: each slot function must find the core and the block through its
// own (n-1, i) constants alone.
struct HandMade {
    const char *names[6] = {"H0", "H1", "H2", "H3", "H4", "H5"};
    vxl_interfacedef defs[6];
    vxl_componentinterface entries[6];
    const vxl_componentinterface *entryptrs[6];
    vxl_componentdef def;
    void *slots[6][4];
    void *head[6];
    vxl_classfactory factory;

    explicit HandMade(int32_t n)
    {
        for (int32_t i = 0; i < n; ++i) {
            defs[i] = {names[i], 0, nullptr};
            entries[i] = {&defs[i], nullptr};
            entryptrs[i] = &entries[i];
            const vxl_genericgroup &g = vxl_genericslots[n - 1][i];
            slots[i][0] = reinterpret_cast<void *>(g.getinterface);
            slots[i][1] = reinterpret_cast<void *>(g.getname);
            slots[i][2] = reinterpret_cast<void *>(g.incref);
            slots[i][3] = reinterpret_cast<void *>(g.decref);
            head[n - 1 - i] = slots[i];
        }
        def = {"HandMade", n, entryptrs, nullptr, destroy, nullptr};
        factory = {nullptr, n * 8, 0, head, &def};
    }
};

} // namespace

TEST(GenericSlots, EveryGroupFindsItsObjectFromItsOwnInterface)
{
    for (int32_t n = 1; n <= 6; ++n) {
        HandMade cls(n);
        void **core = nullptr;
        vxltest::LogTail tail;
        vxl_if primary = vxl_newobject(&cls.factory, &core);
        ASSERT_NE(nullptr, primary);
        EXPECT_EQ(reinterpret_cast<void **>(primary) + 1, core);
        EXPECT_EQ(1, cls.factory.usecount);
        auto *objcore = reinterpret_cast<vxl_objectcore *>(core);
        EXPECT_EQ(nullptr, objcore->impl);
        EXPECT_EQ(&cls.factory, objcore->factory);
        EXPECT_EQ(1, objcore->refcount);
        EXPECT_EQ("encapsulate = " + hex(primary) + "\n", tail.text());

        for (int32_t i = 0; i < n; ++i) {
            SCOPED_TRACE(std::to_string(n) + " interfaces, index " + std::to_string(i));
            vxl_if self = reinterpret_cast<vxl_if>(reinterpret_cast<void **>(primary) - i);
            ASSERT_EQ(cls.slots[i], static_cast<const void *>(self->slots));
            const char *name = nullptr;
            EXPECT_EQ(0, self->slots->getname(self, &name));
            EXPECT_STREQ(cls.names[i], name);
            EXPECT_EQ(0, self->slots->incref(self));
            EXPECT_EQ(2, objcore->refcount);
            EXPECT_EQ(0, self->slots->decref(self));
            EXPECT_EQ(1, objcore->refcount);
            vxl_if out = deadbeef;
            EXPECT_EQ(0, self->slots->getinterface(self, nullptr, &out));
            EXPECT_EQ(primary, out);
            for (int32_t k = 0; k < n; ++k) {
                out = deadbeef;
                EXPECT_EQ(0, self->slots->getinterface(self, cls.names[k], &out));
                EXPECT_EQ(reinterpret_cast<void **>(primary) - k, reinterpret_cast<void **>(out));
            }
            EXPECT_EQ(2 + n, objcore->refcount);
            for (int32_t k = 0; k < n + 1; ++k)
                self->slots->decref(self);
            EXPECT_EQ(1, objcore->refcount);
        }
        // The last reference, dropped through the last interface: block freed.
        int destroys = g_destroys;
        vxl_if last = reinterpret_cast<vxl_if>(reinterpret_cast<void **>(primary) - (n - 1));
        EXPECT_EQ(0, last->slots->decref(last));
        EXPECT_EQ(destroys + 1, g_destroys);
        EXPECT_EQ(0, cls.factory.usecount);
    }
}

// ---- stubs reach the processor ------------------------------------------------------------
// The stub writer's FlushInstructionCache calls land here: this program links
// the runtime's objects, whose import of the function is this pointer.

namespace {

struct FlushCall {
    HANDLE process;
    const void *base;
    SIZE_T size;
};
std::vector<FlushCall> g_flushes;

BOOL WINAPI countingFlush(HANDLE process, LPCVOID base, SIZE_T size)
{
    g_flushes.push_back({process, base, size});
    auto real = reinterpret_cast<BOOL(WINAPI *)(HANDLE, LPCVOID, SIZE_T)>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "FlushInstructionCache")));
    return real(process, base, size);
}

int32_t stubTarget(void *impl, int32_t x) { return x * 2 + (impl ? 1 : 0); }
const vxl_methoddef mTwice = {"twice", 0, nullptr};
const vxl_methoddef *const twiceMethods[] = {&mTwice, &mTwice};
const vxl_interfacedef iTwice = {"ITwice", 2, twiceMethods};
const vxl_fn twiceFns[] = {reinterpret_cast<vxl_fn>(&stubTarget), reinterpret_cast<vxl_fn>(&stubTarget)};
const vxl_componentinterface twice = {&iTwice, twiceFns};
const vxl_componentinterface *const twiceIfs[] = {&gdA, &twice};
const vxl_componentdef flushed = {"Flushed", 2, twiceIfs, nullptr, destroy, nullptr};
const vxl_componentdef *const flushedList[] = {&flushed, nullptr};
const vxl_interfacedef *const flushedIfs[] = {&iTwice, nullptr};

} // namespace

extern "C" {
decltype(&FlushInstructionCache) __imp_FlushInstructionCache = countingFlush;
}

TEST(Stubs, EveryStubBlockIsFlushedOnceWrittenAndCallsThrough)
{
    ASSERT_EQ(0, vxl_register("flushed", flushedList, flushedIfs));
    g_flushes.clear();
    vxl_if b = nullptr;
    ASSERT_EQ(0, vxl_createinstance("Flushed", "ITwice", &b));
    vxl_classfactory *f = reinterpret_cast<vxl_classfactory **>(b)[3];
    ASSERT_EQ(1u, g_flushes.size()) << "one block has code; GdA has no methods";
    EXPECT_EQ(GetCurrentProcess(), g_flushes[0].process);
    EXPECT_EQ(f->stubblocks[1], g_flushes[0].base);
    EXPECT_EQ(32u, g_flushes[0].size);
    EXPECT_EQ(42, VXL_METHOD(b, 1, int32_t(*)(vxl_if, int32_t))(b, 21));
    vxl_decref(b);
}

// ---- vxl_getinterfacedef ----------------------------------------------------------------

TEST(GetInterfaceDef, IsTheCachedDefinitionOfThePrimaryInterface)
{
    ensureRegistered();
    vxl_if a = nullptr;
    ASSERT_EQ(0, vxl_createinstance("GdTwo", nullptr, &a));
    vxl_if b = reinterpret_cast<vxl_if>(reinterpret_cast<void **>(a) - 1);
    vxltest::LogTail tail;
    const vxl_interfacedef *def = vxl_getinterfacedef(b);
    EXPECT_EQ(vxl_findinterfacedef("GdA"), def);
    EXPECT_NE(&iGdA, def) << "the cached copy, not the registrant's record";
    EXPECT_EQ("inccref(" + hex(a) + ")\ngetinterface(" + hex(b) + ", (null)) = " + hex(a) + "\ndecref(" + hex(a) +
                  ") = 2\n",
              tail.text());
    EXPECT_EQ(nullptr, vxl_getinterfacedef(nullptr));

    vxl_if h = nullptr;
    ASSERT_EQ(0, vxl_createinstance("GdHidden", nullptr, &h));
    EXPECT_EQ(nullptr, vxl_getinterfacedef(h)) << "GdHidden is not a registered interface";
    vxl_decref(h);
    vxl_decref(a);
}

namespace {

// Hand-made interfaces whose generic slots fail on demand.
int32_t g_fail; // 1: getinterface, 2: getname, 3: decref
int32_t fakeGetinterface(vxl_if self, const char *, vxl_if *out);
int32_t fakeGetname(vxl_if, const char **out)
{
    *out = "GdA";
    return g_fail == 2 ? 5 : 0;
}
int32_t fakeIncref(vxl_if) { return 0; }
int32_t fakeDecref(vxl_if) { return g_fail == 3 ? 7 : 0; }
const vxl_ifslots fakeSlots = {fakeGetinterface, fakeGetname, fakeIncref, fakeDecref};
vxl_ifcell fakeObject = {&fakeSlots};
int32_t fakeGetinterface(vxl_if, const char *, vxl_if *out)
{
    *out = g_fail == 1 ? nullptr : &fakeObject;
    return g_fail == 1 ? 1 : 0;
}

int fakeChild(int32_t fail, const char *message)
{
    g_fail = fail;
    vxltest::writeExpected(std::string("vxl_fatal: ") + message + "\n");
    vxl_getinterfacedef(&fakeObject);
    return 0; // not reached
}

} // namespace

VXL_CHILD(gd_getinterface_fails) { return fakeChild(1, "ooops"); }
VXL_CHILD(gd_getname_fails) { return fakeChild(2, "oops"); }
VXL_CHILD(gd_decref_fails) { return fakeChild(3, "ooops"); }
VXL_CHILD(gd_fake_succeeds)
{
    g_fail = 0;
    ensureRegistered();
    vxltest::writeExpected("");
    return vxl_getinterfacedef(&fakeObject) == vxl_findinterfacedef("GdA") ? 0 : 1;
}
VXL_CHILD(gd_callback_refuses)
{
    static int32_t registered = vxl_register("internal_test", components, interfaces);
    vxl_if a = nullptr;
    if (registered != 0 || vxl_createinstance("GdRefuse", nullptr, &a) != 0)
        return 10;
    vxltest::writeExpected("vxl_createclassfactory\ncreateclassfactory GdRefuse = " +
                  hex(reinterpret_cast<void **>(a)[2]) + ">\nencapsulate = " + hex(a) + "\ngetinterface(" + hex(a) +
                  ", (null)) = 0 -7\nvxl_fatal: ooops\n");
    vxl_getinterfacedef(a);
    return 0;
}

TEST(GetInterfaceDef, BrokenGenericSlotsStopTheProcess)
{
    struct Case {
        const char *child;
        int exitcode;
    };
    const Case cases[] = {{"gd_getinterface_fails", 3}, {"gd_getname_fails", 3}, {"gd_decref_fails", 3},
                          {"gd_callback_refuses", 3},   {"gd_fake_succeeds", 0}};
    for (const Case &c : cases)
        kt::expectChildLog(c.child, c.exitcode);
}

// ---- cached interface definitions --------------------------------------------------------

TEST(Definitions, ACopyHandedOutStaysReadableAfterItsRegistrationGoes)
{
    static const vxl_paramdef param = {"value", VXL_TYPE_DOUBLE, VXL_DIR_OUT, 0, "second"};
    static const vxl_paramdef *const params[] = {&param, &param};
    static const vxl_methoddef method = {"read", 2, params};
    static const vxl_methoddef *const methods[] = {&method, &method, &method};
    static const vxl_interfacedef iLater = {"ILater", 3, methods};
    static const vxl_interfacedef *const laterList[] = {&iLater, nullptr};
    static const vxl_componentdef *const noComponents[] = {nullptr};
    ASSERT_EQ(0, vxl_register("later", noComponents, laterList));
    const vxl_interfacedef *def = vxl_findinterfacedef("ILater");
    ASSERT_NE(nullptr, def);
    ASSERT_EQ(0, vxl_unregister(noComponents, laterList));
    EXPECT_EQ(nullptr, vxl_findinterfacedef("ILater"));

    // Other libraries come and go meanwhile, with copies of the same shape.
    static char names[16][16];
    static vxl_interfacedef others[16];
    static const vxl_interfacedef *otherLists[16][2];
    for (int k = 0; k < 16; ++k) {
        snprintf(names[k], sizeof names[k], "IOther%02d", k);
        others[k] = {names[k], 3, methods};
        otherLists[k][0] = &others[k];
        ASSERT_EQ(0, vxl_register("other", noComponents, otherLists[k]));
    }
    for (int k = 0; k < 16; ++k)
        ASSERT_EQ(0, vxl_unregister(noComponents, otherLists[k]));

    // A lookup's answer is still the copy it was: whoever holds it may read it.
    EXPECT_STREQ("ILater", def->name);
    ASSERT_EQ(3, def->methodcount);
    for (int j = 0; j < 3; ++j) {
        EXPECT_STREQ("read", def->methods[j]->name);
        ASSERT_EQ(2, def->methods[j]->paramcount);
        EXPECT_STREQ("value", def->methods[j]->params[1]->name);
        EXPECT_STREQ("second", def->methods[j]->params[1]->secondname);
    }
    ASSERT_EQ(0, vxl_register("later", noComponents, laterList));
    EXPECT_EQ(def, vxl_findinterfacedef("ILater")) << "an equal definition is served by the same copy again";
    ASSERT_EQ(0, vxl_unregister(noComponents, laterList));
}

// ---- vxl_findclassfactory and vxl_com_loadcomponent ------------------------------------

TEST(FindClassFactory, LookingOnlyTakesNoUseAndBuildsNothing)
{
    ensureRegistered();
    {
        vxl_lockguard factoryLock(VXL_FACTORY_LOCK);
        EXPECT_EQ(nullptr, vxl_findclassfactory("LookOnly", 0));
    }
    vxl_classfactory *f = vxl_findclassfactory("LookOnly", 1);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(1, f->usecount);
    {
        vxl_lockguard factoryLock(VXL_FACTORY_LOCK);
        EXPECT_EQ(f, vxl_findclassfactory("LookOnly", 0));
    }
    EXPECT_EQ(1, f->usecount);
    vxl_destroyclassfactory(f);
}

TEST(FindClassFactory, NotCachedMeansOneLoadCallThenTheRegistry)
{
    ensureRegistered();
    g_loadcalls = 0;
    vxl_classfactory *f = reinterpret_cast<vxl_classfactory *>(0xdeadbeef);
    vxltest::LogTail tail;
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&f, "NotThere"));
    EXPECT_EQ(nullptr, f);
    EXPECT_EQ(1, g_loadcalls);
    EXPECT_EQ("NotThere", g_loadname);
    EXPECT_EQ("vxl_createclassfactory\ncreateclassfactory NotThere = <none>\n", tail.text());

    g_loadcalls = 0;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "Other")); // registered, not yet built
    EXPECT_EQ(1, g_loadcalls);
    vxl_classfactory *again = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&again, "Other"));
    EXPECT_EQ(f, again);
    EXPECT_EQ(1, g_loadcalls) << "a cached class needs no load";
    vxl_destroyclassfactory(f);
    vxl_destroyclassfactory(again);
}

namespace {

int32_t lateCreate(void **implslot, vxl_if) { *implslot = &g_loadcalls; return 0; }
const vxl_componentdef late = {"LateClass", 1, twoIfs, lateCreate, destroy, nullptr};
const vxl_componentdef *const lateComponents[] = {&late, nullptr};
const vxl_interfacedef *const noInterfaces[] = {nullptr};

} // namespace

TEST(FindClassFactory, ALibraryThatRegistersWhileLoadingIsFoundWithNoKitLockHeld)
{
    ensureRegistered();
    g_loadcalls = 0;
    bool otherThreadDone = false;
    g_onload = [&](const char *name) {
        if (std::string(name) != "LateClass")
            return;
        // Another thread must be able to take the factory lock meanwhile.
        HANDLE thread = CreateThread(
            nullptr, 0,
            [](LPVOID) -> DWORD {
                const vxl_componentdef *const list[] = {&other, nullptr};
                vxl_inuse(list);
                vxl_classfactory *f = nullptr;
                vxl_createclassfactory(&f, "Other");
                vxl_destroyclassfactory(f);
                return 0;
            },
            nullptr, 0, nullptr);
        otherThreadDone = WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0;
        CloseHandle(thread);
        vxl_register("late", lateComponents, noInterfaces);
    };
    vxl_if obj = deadbeef;
    EXPECT_EQ(0, vxl_createinstance("LateClass", "GdA", &obj));
    g_onload = nullptr;
    EXPECT_TRUE(otherThreadDone);
    EXPECT_EQ(2, g_loadcalls) << "LateClass, then Other from the other thread";
    ASSERT_NE(nullptr, obj);
    EXPECT_EQ(&g_loadcalls, reinterpret_cast<void **>(obj)[1]);
    vxl_decref(obj);
}

TEST(FindClassFactory, UnknownClassGoesToComWithOutNulled)
{
    g_comcreates = 0;
    vxl_if out = deadbeef;
    EXPECT_EQ(-33, vxl_createinstance("ComOnly", "IThing", &out));
    EXPECT_EQ(1, g_comcreates);
    EXPECT_EQ(nullptr, g_comoutatentry);
    EXPECT_EQ("ComOnly/IThing", g_loadname);
}

// ---- error text --------------------------------------------------------------------------

TEST(ErrorText, SystemMessageElseErrnoElseNothing)
{
    char text[1024];
    for (DWORD code : {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_MOD_NOT_FOUND, ERROR_PROC_NOT_FOUND,
                       ERROR_BAD_EXE_FORMAT}) {
        SCOPED_TRACE(code);
        memset(text, 'x', sizeof text);
        SetLastError(code);
        int32_t length = vxl_errortext(text, sizeof text);
        EXPECT_EQ(kt::systemText(code), text);
        EXPECT_EQ(static_cast<int32_t>(strlen(text)), length);
    }

    SetLastError(0);
    errno = ENOENT;
    EXPECT_EQ(static_cast<int32_t>(strlen(strerror(ENOENT))), vxl_errortext(text, sizeof text));
    EXPECT_STREQ(strerror(ENOENT), text);
    EXPECT_EQ(5, vxl_errortext(text, 6)) << "at most size - 1 characters";
    EXPECT_EQ(std::string(strerror(ENOENT), 5), text);

    errno = 0;
    memset(text, 'x', sizeof text);
    EXPECT_EQ(0, vxl_errortext(text, sizeof text));
    EXPECT_STREQ("", text);
    SetLastError(0x2badc0de); // no message for it
    EXPECT_EQ(0, vxl_errortext(text, sizeof text));
    EXPECT_STREQ("", text);
}
