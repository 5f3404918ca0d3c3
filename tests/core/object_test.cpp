// Kit objects: the generic slots and the shared reference count with the
// exact trace each step writes, getinterface and destroy callbacks, and
// calls through every slot and stub against direct calls.
#include "core_support.h"

#include <cstring>

using kt::deadbeef;
using kt::hex;

namespace {

// ---- classes of 1, 2 and 6 interfaces whose methods record what arrives --------------------

struct Impl {
    int32_t serial;
    vxl_if primary;
};

// The arguments of the last call as the function received them; arguments
// 1 to 3 travel in registers (a float, an int and a double), the rest on
// the stack.
struct Call {
    int32_t function; // 100 * interface count + 10 * interface index + method index
    void *impl;
    float a;
    int32_t b;
    double c;
    int64_t d;
    const char *s;
    float e;
    double f;
    int32_t g;
    void *p;
    float h;
    int64_t k;
} g_last;
using Method = double (*)(void *, float, int32_t, double, int64_t, const char *, float, double, int32_t, void *, float,
                          int64_t);
int g_destroys, g_destroystatus, g_serial;

template <int32_t Id>
double method(void *self, float a, int32_t b, double c, int64_t d, const char *s, float e, double f, int32_t g, void *p,
              float h, int64_t k)
{
    memset(&g_last, 0, sizeof g_last); // padding too: whole records are compared
    g_last.function = Id, g_last.impl = self, g_last.a = a, g_last.b = b, g_last.c = c, g_last.d = d, g_last.s = s;
    g_last.e = e, g_last.f = f, g_last.g = g, g_last.p = p, g_last.h = h, g_last.k = k;
    return Id * 1e6 + a * 3.0 + b * 5 + c * 7 + double(d) * 11 + (s ? strlen(s) : 0) * 13.0 + e * 17.0 + f * 19 +
           g * 23.0 + double(reinterpret_cast<uintptr_t>(p) & 0xffff) * 29 + h * 31.0 + double(k) * 37 +
           (self ? static_cast<Impl *>(self)->serial : 0) * 41.0;
}
int32_t create(void **implslot, vxl_if primary) { return *implslot = new Impl{++g_serial, primary}, 0; }
int32_t destroy(void *self, vxl_if primary)
{
    ++g_destroys;
    if (!g_destroystatus && static_cast<Impl *>(self)->primary == primary) // not one a test handed in
        delete static_cast<Impl *>(self);
    return g_destroystatus;
}

const vxl_methoddef m0 = {"m0", 0, nullptr}, m1 = {"m1", 0, nullptr};
const vxl_methoddef *const methods[] = {&m0, &m1};
#define IFACE(name, count) {name, count, methods}
const vxl_interfacedef ifaces[] = {IFACE("IOne", 2),  IFACE("ITwoA", 1), IFACE("ITwoB", 2), IFACE("ISix0", 2),
                                   IFACE("ISix1", 2), IFACE("ISix2", 2), IFACE("ISix3", 2), IFACE("ISix4", 2),
                                   IFACE("ISix5", 2)};
#define FNS(id) {reinterpret_cast<vxl_fn>(&method<id>), reinterpret_cast<vxl_fn>(&method<id + 1>)}
const vxl_fn fns[][2] = {FNS(100), FNS(200), FNS(210), FNS(600), FNS(610), FNS(620), FNS(630), FNS(640), FNS(650)};
const vxl_componentinterface entries[] = {{&ifaces[0], fns[0]}, {&ifaces[1], fns[1]}, {&ifaces[2], fns[2]},
                                          {&ifaces[3], fns[3]}, {&ifaces[4], fns[4]}, {&ifaces[5], fns[5]},
                                          {&ifaces[6], fns[6]}, {&ifaces[7], fns[7]}, {&ifaces[8], fns[8]}};
const vxl_componentinterface *const entryList[] = {&entries[0], &entries[1], &entries[2], &entries[3], &entries[4],
                                                   &entries[5], &entries[6], &entries[7], &entries[8]};

// ObjCb { CbA, CbB } answers other names through a getinterface callback.
int g_cbcalls;
int32_t cbGetinterface(void *impl, const char *name, vxl_if *out, vxl_if primary)
{
    ++g_cbcalls;
    vxl_if found = !name ? primary : std::string(name) == "Alias" ? kt::iface(primary, 1) : nullptr;
    *out = found ? found : deadbeef; // the kit must not pass a refusal's out on
    if (found)
        found->slots->incref(found);
    return found ? 0 : -7;
}
const vxl_interfacedef iCbA = {"CbA", 0, nullptr}, iCbB = {"CbB", 0, nullptr};
const vxl_componentinterface cbA = {&iCbA, nullptr}, cbB = {&iCbB, nullptr};
const vxl_componentinterface *const cbIfs[] = {&cbA, &cbB}, *const dupIfs[] = {&entries[0], &entries[0]};

const vxl_componentdef classes[] = {{"TcOne", 1, entryList, create, destroy, nullptr},
                                    {"TcTwo", 2, entryList + 1, create, destroy, nullptr},
                                    {"TcSix", 6, entryList + 3, create, destroy, nullptr},
                                    {"ObjCb", 2, cbIfs, create, destroy, cbGetinterface},
                                    {"ObjDup", 2, dupIfs, create, destroy, nullptr}};
const vxl_componentdef *const classList[] = {&classes[0], &classes[1], &classes[2], &classes[3], &classes[4], nullptr};
const vxl_interfacedef *const ifaceList[] = {&ifaces[0], &ifaces[1], &ifaces[2], &ifaces[3], &ifaces[4], &ifaces[5],
                                             &ifaces[6], &ifaces[7], &ifaces[8], &iCbA, &iCbB, nullptr};

class Objects : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int32_t registered = vxl_register("object_test", classList, ifaceList);
        ASSERT_EQ(0, registered);
        g_destroys = g_destroystatus = 0;
    }
};

} // namespace

TEST_F(Objects, InterfacesOfOneObjectShareOneCount)
{
    vxl_if a = deadbeef, b = deadbeef, p = deadbeef, q = deadbeef, none = deadbeef;
    ASSERT_EQ(0, vxl_createinstance("TcTwo", nullptr, &a));
    vxl_classfactory *f = kt::coreOf(a)->factory;
    int32_t uses = f->usecount;
    vxltest::LogTail tail;
    ASSERT_EQ(0, a->slots->getinterface(a, "ITwoB", &b));
    EXPECT_EQ(kt::iface(a, 1), b) << "ITwoB lies one cell before ITwoA";
    ASSERT_EQ(0, b->slots->getinterface(b, nullptr, &p));
    EXPECT_EQ(a, p) << "a null name gives the primary interface";
    ASSERT_EQ(0, a->slots->getinterface(a, "ITwoA", &q));
    EXPECT_EQ(a, q);
    EXPECT_EQ(VXL_ENOINTERFACE, a->slots->getinterface(a, "INope", &none)) << "not carried, no callback";
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(4, kt::coreOf(a)->refcount);
    const char *name = nullptr;
    EXPECT_EQ(0, b->slots->getname(b, &name));
    EXPECT_EQ(ifaces[2].name, name) << "the component's own record";
    for (vxl_if x : {q, p, a})
        EXPECT_EQ(0, x->slots->decref(x));
    EXPECT_EQ(1, kt::coreOf(a)->refcount);
    EXPECT_EQ(0, g_destroys);
    EXPECT_EQ(0, b->slots->decref(b));
    EXPECT_EQ(1, g_destroys);
    EXPECT_EQ(uses - 1, f->usecount) << "the object's use went with it";
    std::string A = hex(a), B = hex(b);
    EXPECT_EQ("inccref(" + B + ")\ngetinterface(" + A + ", ITwoB) = " + B + "\ninccref(" + A + ")\ngetinterface(" + B +
                  ", (null)) = " + A + "\ninccref(" + A + ")\ngetinterface(" + A + ", ITwoA) = " + A +
                  "\ngetinterface(" + A + ", INope)\ndecref(" + A + ") = 4\ndecref(" + A + ") = 3\ndecref(" + A +
                  ") = 2\ndecref(" + B + ") = 1\n",
              tail.text());

    // A destroy callback that refuses keeps the object, with count 0 and its
    // use, until a later decref destroys it again.
    ASSERT_EQ(0, vxl_createinstance("TcTwo", nullptr, &a));
    g_destroystatus = 7;
    EXPECT_EQ(7, a->slots->decref(a));
    EXPECT_EQ(0, kt::coreOf(a)->refcount);
    EXPECT_EQ(uses, f->usecount);
    g_destroystatus = 0;
    a->slots->incref(a);
    EXPECT_EQ(0, a->slots->decref(a));
    EXPECT_EQ(3, g_destroys);
    EXPECT_EQ(uses - 1, f->usecount);
}

TEST_F(Objects, CallbackAnswersNamesTheClassDoesNotCarry)
{
    vxl_if a = nullptr;
    ASSERT_EQ(0, vxl_createinstance("ObjCb", nullptr, &a));
    vxl_if b = kt::iface(a, 1);
    std::string A = hex(a), B = hex(b);
    const struct {
        vxl_if self;
        const char *name;
        int32_t status;
        vxl_if out;
        int calls;
        std::string log;
    } cases[] = {
        {a, "Elsewhere", -7, nullptr, 1, "getinterface(" + A + ", Elsewhere) = 0 -7\n"},
        {b, nullptr, 0, a, 1, "inccref(" + A + ")\ngetinterface(" + B + ", (null)) = " + A + " 0\n"},
        {a, "Alias", 0, b, 1, "inccref(" + B + ")\ngetinterface(" + A + ", Alias) = " + B + " 0\n"},
        {b, "CbA", 0, a, 0, "inccref(" + A + ")\ngetinterface(" + B + ", CbA) = " + A + "\n"},
    };
    for (const auto &c : cases) {
        g_cbcalls = 0;
        vxl_if out = deadbeef;
        vxltest::LogTail tail;
        EXPECT_EQ(c.status, c.self->slots->getinterface(c.self, c.name, &out));
        EXPECT_EQ(c.out, out);
        EXPECT_EQ(c.calls, g_cbcalls);
        EXPECT_EQ(c.log, tail.text());
        vxl_decref(out);
    }
    EXPECT_EQ(1, kt::coreOf(a)->refcount);
    vxl_decref(a);
    vxl_if primary = nullptr;
    ASSERT_EQ(0, vxl_createinstance("ObjDup", "IOne", &a));
    ASSERT_EQ(0, a->slots->getinterface(a, nullptr, &primary));
    EXPECT_EQ(kt::iface(primary, 1), a) << "of two interfaces of one name, the later-listed answers";
    vxl_decref(primary);
    vxl_decref(a);
}

TEST_F(Objects, EveryMethodOfEveryInterfaceMatchesADirectCall)
{
    const Call sets[] = {
        {0, nullptr, 1.25f, -7, 2.5, 0x123456789abcdefLL, "hello", -3.75f, 1e10, INT32_MAX,
         reinterpret_cast<void *>(0x1234abcd), -0.5f, -9000000000LL},
        {0, nullptr, -2.75f, INT32_MIN, -1e-3, -1, "", 1024.0f, -123.5, 0, nullptr, 6.125f, INT64_MAX},
    };
    for (const vxl_componentdef &def : classes) {
        if (def.getinterface || def.interfaces == dupIfs)
            continue;
        vxl_if primary = deadbeef;
        ASSERT_EQ(0, vxl_createinstance(def.name, nullptr, &primary));
        auto *impl = static_cast<Impl *>(kt::coreOf(primary)->impl);
        EXPECT_EQ(primary, impl->primary);
        for (int32_t i = 0; i < def.ifcount; ++i) {
            vxl_if pif = deadbeef;
            ASSERT_EQ(0, primary->slots->getinterface(primary, def.interfaces[i]->def->name, &pif));
            EXPECT_EQ(kt::iface(primary, i), pif);
            for (int32_t j = 0; j < def.interfaces[i]->def->methodcount; ++j) {
                auto direct = reinterpret_cast<Method>(def.interfaces[i]->methods[j]);
                for (const Call &x : sets) {
                    double viaStub = VXL_METHOD(pif, j, Method)(pif, x.a, x.b, x.c, x.d, x.s, x.e, x.f, x.g, x.p, x.h, x.k);
                    Call seen = g_last;
                    EXPECT_EQ(direct(impl, x.a, x.b, x.c, x.d, x.s, x.e, x.f, x.g, x.p, x.h, x.k), viaStub);
                    EXPECT_EQ(0, memcmp(&seen, &g_last, sizeof seen)) << def.name << " " << i << " " << j;
                    EXPECT_EQ(impl, seen.impl);
                    EXPECT_EQ(100 * def.ifcount + 10 * i + j, seen.function);
                }
            }
            MEMORY_BASIC_INFORMATION info = {};
            ASSERT_NE(0u, VirtualQuery(VXL_SLOT(pif, 4), &info, sizeof info));
            EXPECT_EQ(static_cast<DWORD>(PAGE_EXECUTE_READ), info.Protect) << "stubs are sealed after writing";
            EXPECT_EQ(0, pif->slots->decref(pif));
        }
        EXPECT_EQ(1, kt::coreOf(primary)->refcount);
        EXPECT_EQ(0, vxl_decref(primary));
    }
    // An implementation of the caller's own reaches the functions too, and
    // destroy runs for it.
    Impl mine = {777, nullptr};
    vxl_if b = deadbeef;
    ASSERT_EQ(0, vxl_encapsulate("TcTwo", "ITwoB", &mine, &b));
    VXL_METHOD(b, 1, Method)(b, 0, 0, 0, 0, nullptr, 0, 0, 0, nullptr, 0, 0);
    EXPECT_EQ(&mine, g_last.impl);
    EXPECT_EQ(211, g_last.function);
    int destroys = g_destroys;
    EXPECT_EQ(0, vxl_decref(b));
    EXPECT_EQ(destroys + 1, g_destroys);
}
