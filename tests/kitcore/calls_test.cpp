// Method calls through slot tables and stubs: every method of every
// interface of the one-, two- and six-interface classes, arguments in
// registers and on the stack, integer and floating point, compared with
// direct calls of the same functions; and the stub bytes themselves.
#include "kitcore_support.h"

#include <cstring>
#include <vector>

namespace {

// Argument sets kept in the record the components fill, so one comparison
// serves every method shape; fields a shape does not take stay zero.
const tc_call argsA[] = {
    {0, nullptr, -7, 2.5, 0x123456789abcdefLL, 1.25f, "hello", -3.75, INT32_MAX, -0.5f,
     reinterpret_cast<void *>(0x1234abcd), 1e10, -9000000000LL, {}},
    {0, nullptr, INT32_MIN, -1e-3, -1, 3.5f, "", 6.0, 0, 1024.0f, nullptr, -123.5, INT64_MAX, {}},
};
const tc_call argsB[] = {
    {0, nullptr, 99, 0.125, -5000000000LL, -2.75f, "stack string", 7.5, -42, 0, nullptr, 3.0625, 0, {}},
    {0, nullptr, -1, -1e6, 1, 0.0f, "x", -0.25, INT32_MAX, 0, nullptr, 1e-3, 0, {}},
};
const tc_call argsC[] = {
    {0, nullptr, 0, 0, 0, 0, nullptr, 0, 0, 0, nullptr, 0, 0, {1.5f, -2.25f, 3.0f, 4.75f, -5.5f, 6.125f}}};

double call(tc_mixedA f, void *self, const tc_call &x)
{
    return f(self, x.a, x.b, x.c, x.d, x.s, x.e, x.f, x.g, x.p, x.h, x.k);
}
int64_t call(tc_mixedB f, void *self, const tc_call &x) { return f(self, x.b, x.a, x.d, x.c, x.e, x.s, x.f, x.h); }
float call(tc_floats f, void *self, const tc_call &x)
{
    const float *v = x.floats;
    return f(self, v[0], v[1], v[2], v[3], v[4], v[5]);
}

// What the last call received must be exactly x, seen by function with impl.
void expectReceived(int32_t function, void *impl, const tc_call &x)
{
    const tc_call &r = tc_getcontrol()->last;
    EXPECT_EQ(function, r.function);
    EXPECT_EQ(impl, r.impl);
    EXPECT_EQ(x.a, r.a);
    EXPECT_EQ(x.b, r.b);
    EXPECT_EQ(x.c, r.c);
    EXPECT_EQ(x.d, r.d);
    EXPECT_EQ(x.s, r.s);
    EXPECT_EQ(x.e, r.e);
    EXPECT_EQ(x.f, r.f);
    EXPECT_EQ(x.g, r.g);
    EXPECT_EQ(x.p, r.p);
    EXPECT_EQ(x.h, r.h);
    EXPECT_EQ(x.k, r.k);
    EXPECT_EQ(0, memcmp(x.floats, r.floats, sizeof x.floats));
}

template <typename F, size_t N>
void check(F direct, vxl_if pif, int32_t j, int32_t function, void *impl, const tc_call (&sets)[N])
{
    for (const tc_call &x : sets) {
        auto viaStub = call(VXL_METHOD(pif, j, F), pif, x);
        expectReceived(function, impl, x);
        auto viaDirect = call(direct, impl, x);
        expectReceived(function, impl, x);
        EXPECT_EQ(viaDirect, viaStub);
    }
}

// Method j of interface i of class def, called through pif (that interface).
void checkMethod(vxl_if pif, const vxl_componentdef *def, int32_t i, int32_t j, int32_t function, void *impl)
{
    SCOPED_TRACE(function);
    vxl_fn direct = def->interfaces[i]->methods[j];
    switch (def->interfaces[i]->def->methods[j]->name[0]) {
    case 'a':
        return check(reinterpret_cast<tc_mixedA>(direct), pif, j, function, impl, argsA);
    case 'b':
        return check(reinterpret_cast<tc_mixedB>(direct), pif, j, function, impl, argsB);
    default:
        return check(reinterpret_cast<tc_floats>(direct), pif, j, function, impl, argsC);
    }
}

} // namespace

TEST(Calls, EveryMethodOfEveryInterfaceMatchesADirectCall)
{
    kt::ensureComponents();
    // Function ids run base + 10 * interface index + method index.
    const struct {
        const char *name;
        int32_t base;
    } classes[] = {{"TcOne", TC_ONE_A}, {"TcTwo", TC_TWO_A}, {"TcSix", tc_sixid(0, 0)}};
    for (const auto &cls : classes) {
        SCOPED_TRACE(cls.name);
        const vxl_componentdef *def = kt::component(cls.name);
        vxl_if primary = kt::deadbeef;
        ASSERT_EQ(0, vxl_createinstance(cls.name, nullptr, &primary));
        tc_impl *impl = kt::implOf(primary);
        ASSERT_EQ(TC_MAGIC, impl->magic);
        EXPECT_EQ(primary, impl->primary);
        for (int32_t i = 0; i < def->ifcount; ++i) {
            vxl_if pif = kt::deadbeef;
            ASSERT_EQ(0, primary->slots->getinterface(primary, def->interfaces[i]->def->name, &pif));
            EXPECT_EQ(kt::iface(primary, i), pif);
            for (int32_t j = 0; j < def->interfaces[i]->def->methodcount; ++j)
                checkMethod(pif, def, i, j, cls.base + 10 * i + j, impl);
            EXPECT_EQ(0, pif->slots->decref(pif));
        }
        EXPECT_EQ(1, kt::refcount(primary));
        EXPECT_EQ(0, vxl_decref(primary));
    }
}

TEST(Calls, EncapsulatedImplementationReachesTheFunctions)
{
    kt::ensureComponents();
    tc_impl mine = {TC_MAGIC, 0, 777, nullptr};
    vxl_if pb = kt::deadbeef;
    ASSERT_EQ(0, vxl_encapsulate("TcTwo", "ITwoB", &mine, &pb));
    EXPECT_EQ(&mine, kt::implOf(kt::primaryFrom(pb, 1)));
    checkMethod(pb, kt::component("TcTwo"), 1, 0, TC_TWO_B, &mine);
    int32_t destroys = tc_getcontrol()->destroys;
    EXPECT_EQ(0, vxl_decref(pb));
    EXPECT_EQ(destroys + 1, tc_getcontrol()->destroys); // destroy runs for encapsulated ones too
    EXPECT_EQ(TC_MAGIC, mine.magic);                     // and leaves what it does not own
}

TEST(Stubs, BytesOfEveryInterfaceIndexWithTwoMethods)
{
    kt::ensureComponents();
    const vxl_componentdef *six = kt::component("TcSix");
    vxl_if primary = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcSix", nullptr, &primary));
    for (int32_t i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        auto *const *slots = reinterpret_cast<void *const *>(kt::iface(primary, i)->slots);
        auto *stub = static_cast<const uint8_t *>(slots[4]);
        EXPECT_EQ(stub + 16, slots[5]) << "stubs lie back to back";
        // mov rcx, [rcx + 8 (i + 1)]; mov rax, target; jmp rax
        std::vector<uint8_t> expected;
        for (int32_t j = 0; j < 2; ++j) {
            expected.insert(expected.end(), {0x48, 0x8B, 0x49, static_cast<uint8_t>(8 * (i + 1)), 0x48, 0xB8});
            auto target = reinterpret_cast<uint64_t>(six->interfaces[i]->methods[j]);
            for (int b = 0; b < 8; ++b)
                expected.push_back(static_cast<uint8_t>(target >> (8 * b)));
            expected.insert(expected.end(), {0xFF, 0xE0});
        }
        EXPECT_EQ(expected, std::vector<uint8_t>(stub, stub + 32));
        if (i == 2) {
            EXPECT_EQ(0x18, stub[3]);
            EXPECT_EQ(0x18, stub[19]);
        }
        MEMORY_BASIC_INFORMATION info = {};
        ASSERT_NE(0u, VirtualQuery(stub, &info, sizeof info));
        EXPECT_EQ(static_cast<DWORD>(PAGE_EXECUTE_READ), info.Protect) << "sealed after writing";
    }
    vxl_decref(primary);
}
