// Kit objects: block layout, the generic slots and the shared reference
// count, with the exact trace each step writes.
#include "kitcore_support.h"

#include <thread>
#include <vector>

using kt::hex;

namespace {

// ---- classes local to this program ----------------------------------------------

struct CbRecord {
    int calls;
    void *impl;
    std::string name; // "(none)" for null
    vxl_if primary;
};
CbRecord g_cb;
int g_cbimpl;
int g_localdestroys;

int32_t cbGetinterface(void *impl, const char *name, vxl_if *out, vxl_if primary)
{
    ++g_cb.calls;
    g_cb.impl = impl;
    g_cb.name = name ? name : "(none)";
    g_cb.primary = primary;
    vxl_if found = nullptr;
    if (!name)
        found = primary;
    else if (std::string(name) == "Alias")
        found = kt::iface(primary, 1);
    if (!found) {
        *out = reinterpret_cast<vxl_if>(0xdeadbeef); // the kit must not pass this on
        return -7;
    }
    found->slots->incref(found);
    *out = found;
    return 0;
}

int32_t localCreate(void **implslot, vxl_if) { *implslot = &g_cbimpl; return 0; }
int32_t localDestroy(void *, vxl_if) { ++g_localdestroys; return 0; }
int32_t dupFirst(void *) { return 1; }
int32_t dupSecond(void *) { return 2; }

const vxl_methoddef dupMethod = {"m", 0, nullptr};
const vxl_methoddef *const dupMethods[] = {&dupMethod};
const vxl_interfacedef iCbA = {"CbA", 0, nullptr};
const vxl_interfacedef iCbB = {"CbB", 0, nullptr};
const vxl_interfacedef iDup = {"IDup", 1, dupMethods};
const vxl_fn dupFirstFns[] = {reinterpret_cast<vxl_fn>(&dupFirst)};
const vxl_fn dupSecondFns[] = {reinterpret_cast<vxl_fn>(&dupSecond)};
const vxl_componentinterface cbA = {&iCbA, nullptr};
const vxl_componentinterface cbB = {&iCbB, nullptr};
const vxl_componentinterface dup0 = {&iDup, dupFirstFns};
const vxl_componentinterface dup1 = {&iDup, dupSecondFns};
const vxl_componentinterface *const cbIfs[] = {&cbA, &cbB};
const vxl_componentinterface *const dupIfs[] = {&dup0, &dup1};
const vxl_componentdef objCb = {"ObjCb", 2, cbIfs, localCreate, localDestroy, cbGetinterface};
const vxl_componentdef objDup = {"ObjDup", 2, dupIfs, localCreate, localDestroy, nullptr};
const vxl_componentdef *const localComponents[] = {&objCb, &objDup, nullptr};
const vxl_interfacedef *const localInterfaces[] = {&iCbA, &iCbB, &iDup, nullptr};

class Objects : public ::testing::Test {
protected:
    void SetUp() override
    {
        kt::ensureComponents();
        static int32_t registered = vxl_register("objects_test", localComponents, localInterfaces);
        ASSERT_EQ(0, registered);
        *tc_getcontrol() = tc_control{};
    }
    void TearDown() override { tc_getcontrol()->destroystatus = 0; }
};

using kt::deadbeef;

} // namespace

TEST_F(Objects, BlockLayoutOfASixInterfaceObject)
{
    vxl_classfactory *f = kt::factoryOf("TcSix");
    ASSERT_NE(nullptr, f);
    int32_t uses = kt::usecount(f);
    vxl_if primary = deadbeef;
    ASSERT_EQ(0, vxl_createinstance("TcSix", nullptr, &primary));
    EXPECT_EQ(uses + 1, kt::usecount(f)) << "each object holds one use";

    EXPECT_EQ(6 * 8, f->headlength);
    EXPECT_EQ(kt::component("TcSix"), f->componentdef);
    auto **block = reinterpret_cast<void **>(primary) - 5;
    for (int32_t k = 0; k < 6; ++k) {
        EXPECT_EQ(f->headtemplate[k], block[k]) << k;
        // head slot k belongs to interface 5 - k
        auto **slots = static_cast<void **>(block[k]);
        EXPECT_EQ(f->stubblocks[5 - k], slots[4]) << k;
    }
    EXPECT_EQ(kt::implOf(primary), block[6]);
    EXPECT_EQ(f, block[7]);
    EXPECT_EQ(1, *reinterpret_cast<int32_t *>(&block[8]));

    EXPECT_EQ(0, vxl_decref(primary));
    EXPECT_EQ(uses, kt::usecount(f));
}

TEST_F(Objects, ReferencesAcrossTheInterfacesOfOneObjectShareOneCount)
{
    vxl_classfactory *f = kt::factoryOf("TcTwo");
    int32_t uses = kt::usecount(f);
    vxl_if a = deadbeef, b = deadbeef, p = deadbeef, q = deadbeef;
    vxltest::LogTail tail;
    ASSERT_EQ(0, vxl_createinstance("TcTwo", nullptr, &a));
    EXPECT_EQ(1, kt::refcount(a));
    ASSERT_EQ(0, a->slots->getinterface(a, "ITwoB", &b));
    EXPECT_EQ(kt::iface(a, 1), b) << "ITwoB lies one cell before ITwoA";
    ASSERT_EQ(0, b->slots->getinterface(b, nullptr, &p));
    EXPECT_EQ(a, p) << "a null name gives the primary interface";
    ASSERT_EQ(0, a->slots->getinterface(a, "ITwoA", &q));
    EXPECT_EQ(a, q);
    vxl_if none = deadbeef;
    EXPECT_EQ(VXL_ENOINTERFACE, a->slots->getinterface(a, "INope", &none)) << "not carried, no callback";
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(4, kt::refcount(a));

    const char *name = nullptr;
    EXPECT_EQ(0, b->slots->getname(b, &name));
    EXPECT_EQ(kt::component("TcTwo")->interfaces[1]->def->name, name) << "the component's own record";

    EXPECT_EQ(0, q->slots->decref(q));
    EXPECT_EQ(0, p->slots->decref(p));
    EXPECT_EQ(0, vxl_decref(a));
    EXPECT_EQ(1, kt::refcount(a));
    EXPECT_EQ(uses + 1, kt::usecount(f));
    EXPECT_EQ(0, tc_getcontrol()->destroys);
    EXPECT_EQ(0, b->slots->decref(b));
    EXPECT_EQ(1, tc_getcontrol()->destroys);
    EXPECT_EQ(uses, kt::usecount(f));

    std::string A = hex(a), B = hex(b);
    EXPECT_EQ("vxl_createclassfactory\n"
              "encapsulate = " + A + "\n"
              "inccref(" + B + ")\n"
              "getinterface(" + A + ", ITwoB) = " + B + "\n"
              "inccref(" + A + ")\n"
              "getinterface(" + B + ", (null)) = " + A + "\n"
              "inccref(" + A + ")\n"
              "getinterface(" + A + ", ITwoA) = " + A + "\n"
              "getinterface(" + A + ", INope)\n"
              "decref(" + A + ") = 4\n"
              "decref(" + A + ") = 3\n"
              "decref(" + A + ") = 2\n"
              "decref(" + B + ") = 1\n",
              tail.text());
}

TEST_F(Objects, RefusingDestroyKeepsTheObjectUntilALaterDecref)
{
    vxl_classfactory *f = kt::factoryOf("TcTwo");
    int32_t uses = kt::usecount(f);
    vxl_if a = nullptr, b = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcTwo", nullptr, &a));
    ASSERT_EQ(0, a->slots->getinterface(a, "ITwoB", &b));
    ASSERT_EQ(0, vxl_decref(a));
    tc_getcontrol()->destroystatus = 7;

    vxltest::LogTail tail;
    EXPECT_EQ(7, b->slots->decref(b));
    EXPECT_EQ(1, tc_getcontrol()->destroys);
    EXPECT_EQ(0, kt::refcount(a)) << "the object stays with count 0";
    EXPECT_EQ(TC_MAGIC, kt::implOf(a)->magic);
    EXPECT_EQ(uses + 1, kt::usecount(f)) << "and keeps its use";
    EXPECT_EQ("decref(" + hex(b) + ") = 1\n", tail.text());

    tc_getcontrol()->destroystatus = 0;
    vxltest::LogTail again;
    EXPECT_EQ(0, b->slots->incref(b));
    EXPECT_EQ(1, kt::refcount(a));
    EXPECT_EQ(0, b->slots->decref(b));
    EXPECT_EQ(2, tc_getcontrol()->destroys);
    EXPECT_EQ(uses, kt::usecount(f));
    EXPECT_EQ("inccref(" + hex(b) + ")\ndecref(" + hex(b) + ") = 1\n", again.text());
}

TEST_F(Objects, CallbackAnswersNamesTheClassDoesNotCarry)
{
    vxl_if a = nullptr;
    ASSERT_EQ(0, vxl_createinstance("ObjCb", nullptr, &a));
    vxl_if b = kt::iface(a, 1);
    std::string A = hex(a), B = hex(b);
    g_cb = CbRecord{};

    struct Case {
        vxl_if self;
        const char *name;
        int32_t status;
        vxl_if out;
        int calls; // callback calls
        std::string log;
    };
    const Case cases[] = {
        {a, "Elsewhere", -7, nullptr, 1, "getinterface(" + A + ", Elsewhere) = 0 -7\n"},
        {b, nullptr, 0, a, 1, "inccref(" + A + ")\ngetinterface(" + B + ", (null)) = " + A + " 0\n"},
        {a, "Alias", 0, b, 1, "inccref(" + B + ")\ngetinterface(" + A + ", Alias) = " + B + " 0\n"},
        {b, "CbA", 0, a, 0, "inccref(" + A + ")\ngetinterface(" + B + ", CbA) = " + A + "\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        g_cb.calls = 0;
        vxl_if out = deadbeef;
        vxltest::LogTail tail;
        EXPECT_EQ(c.status, c.self->slots->getinterface(c.self, c.name, &out));
        EXPECT_EQ(c.out, out);
        EXPECT_EQ(c.calls, g_cb.calls);
        if (c.calls) {
            EXPECT_EQ(&g_cbimpl, g_cb.impl);
            EXPECT_EQ(a, g_cb.primary);
            EXPECT_EQ(c.name ? c.name : "(none)", g_cb.name);
        }
        EXPECT_EQ(c.log, tail.text());
        if (out)
            vxl_decref(out);
    }
    EXPECT_EQ(1, kt::refcount(a));
    int destroys = g_localdestroys;
    vxl_decref(a);
    EXPECT_EQ(destroys + 1, g_localdestroys);
}

TEST_F(Objects, TwoInterfacesOfOneNameAnswerWithTheLaterListed)
{
    vxl_if a = nullptr, d = deadbeef;
    ASSERT_EQ(0, vxl_createinstance("ObjDup", nullptr, &a));
    ASSERT_EQ(0, a->slots->getinterface(a, "IDup", &d));
    EXPECT_EQ(kt::iface(a, 1), d);
    EXPECT_EQ(2, VXL_METHOD(d, 0, int32_t(*)(vxl_if))(d));
    EXPECT_EQ(1, VXL_METHOD(a, 0, int32_t(*)(vxl_if))(a));
    vxl_decref(d);
    vxl_decref(a);
}

TEST_F(Objects, ReferencesFromSeveralThreadsBalance)
{
    vxl_if a = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcSix", nullptr, &a));
    std::vector<std::thread> threads;
    for (int32_t t = 0; t < 4; ++t)
        threads.emplace_back([a, t] {
            vxl_if pif = kt::iface(a, t + 1);
            for (int n = 0; n < 1000; ++n) {
                pif->slots->incref(pif);
                pif->slots->decref(pif);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(1, kt::refcount(a));
    EXPECT_EQ(0, tc_getcontrol()->destroys);
    vxl_decref(a);
    EXPECT_EQ(1, tc_getcontrol()->destroys);
}
