// Method calls through slot tables and stubs: every interface index of a
// six-interface class, arguments in registers and on the stack, integer and
// floating point, compared with direct calls of the same functions; and the
// stub bytes themselves.
#include "kitcore_support.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <vector>

namespace {

struct ArgsA {
    int32_t a;
    double b;
    int64_t c;
    float d;
    const char *s;
    double e;
    int32_t f;
    float g;
    void *p;
    double h;
    int64_t k;
};

const ArgsA argsA[] = {
    {-7, 2.5, 0x123456789abcdefLL, 1.25f, "hello", -3.75, INT32_MAX, -0.5f, reinterpret_cast<void *>(0x1234abcd),
     1e10, -9000000000LL},
    {INT32_MIN, -1e-3, -1, 3.5f, "", 6.0, 0, 1024.0f, nullptr, -123.5, INT64_MAX},
};

struct ArgsB {
    double b;
    int32_t a;
    float d;
    int64_t c;
    double e;
    const char *s;
    int32_t f;
    double h;
};

const ArgsB argsB[] = {
    {0.125, 99, -2.75f, -5000000000LL, 7.5, "stack string", -42, 3.0625},
    {-1e6, -1, 0.0f, 1, -0.25, "x", INT32_MAX, 1e-3},
};

const float argsC[6] = {1.5f, -2.25f, 3.0f, 4.75f, -5.5f, 6.125f};

void expectA(const tc_call &r, int32_t function, void *impl, const ArgsA &x)
{
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
}

void expectB(const tc_call &r, int32_t function, void *impl, const ArgsB &x)
{
    EXPECT_EQ(function, r.function);
    EXPECT_EQ(impl, r.impl);
    EXPECT_EQ(x.b, r.b);
    EXPECT_EQ(x.a, r.a);
    EXPECT_EQ(x.d, r.d);
    EXPECT_EQ(x.c, r.c);
    EXPECT_EQ(x.e, r.e);
    EXPECT_EQ(x.s, r.s);
    EXPECT_EQ(x.f, r.f);
    EXPECT_EQ(x.h, r.h);
}

// Calls method a through slot 4 of pif and directly; both must agree.
void checkMethodA(vxl_if pif, tc_mixedA direct, int32_t function, void *impl)
{
    for (const ArgsA &x : argsA) {
        SCOPED_TRACE(function);
        double viaStub = VXL_METHOD(pif, 0, tc_mixedA)(pif, x.a, x.b, x.c, x.d, x.s, x.e, x.f, x.g, x.p, x.h, x.k);
        expectA(tc_getcontrol()->last, function, impl, x);
        double viaDirect = direct(impl, x.a, x.b, x.c, x.d, x.s, x.e, x.f, x.g, x.p, x.h, x.k);
        expectA(tc_getcontrol()->last, function, impl, x);
        EXPECT_EQ(viaDirect, viaStub);
    }
}

void checkMethodB(vxl_if pif, int32_t slot, tc_mixedB direct, int32_t function, void *impl)
{
    for (const ArgsB &x : argsB) {
        SCOPED_TRACE(function);
        int64_t viaStub = VXL_METHOD(pif, slot, tc_mixedB)(pif, x.b, x.a, x.d, x.c, x.e, x.s, x.f, x.h);
        expectB(tc_getcontrol()->last, function, impl, x);
        int64_t viaDirect = direct(impl, x.b, x.a, x.d, x.c, x.e, x.s, x.f, x.h);
        expectB(tc_getcontrol()->last, function, impl, x);
        EXPECT_EQ(viaDirect, viaStub);
    }
}

void checkMethodC(vxl_if pif, int32_t slot, tc_floats direct, int32_t function, void *impl)
{
    const float *c = argsC;
    float viaStub = VXL_METHOD(pif, slot, tc_floats)(pif, c[0], c[1], c[2], c[3], c[4], c[5]);
    EXPECT_EQ(function, tc_getcontrol()->last.function);
    EXPECT_EQ(impl, tc_getcontrol()->last.impl);
    EXPECT_EQ(0, memcmp(c, tc_getcontrol()->last.floats, sizeof argsC));
    float viaDirect = direct(impl, c[0], c[1], c[2], c[3], c[4], c[5]);
    EXPECT_EQ(viaDirect, viaStub);
}

template <typename F> F fn(const vxl_componentdef *def, int32_t i, int32_t j)
{
    return reinterpret_cast<F>(def->interfaces[i]->methods[j]);
}

} // namespace

TEST(Calls, EveryInterfaceOfASixInterfaceClassReachesItsOwnFunctions)
{
    kt::ensureComponents();
    const vxl_componentdef *six = kt::component("TcSix");
    vxl_if primary = reinterpret_cast<vxl_if>(0xdeadbeef);
    ASSERT_EQ(0, vxl_createinstance("TcSix", nullptr, &primary));
    tc_impl *impl = kt::implOf(primary);
    ASSERT_EQ(TC_MAGIC, impl->magic);
    EXPECT_EQ(primary, impl->primary);

    for (int32_t i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        std::string name = "ISix" + std::to_string(i);
        vxl_if pif = reinterpret_cast<vxl_if>(0xdeadbeef);
        ASSERT_EQ(0, primary->slots->getinterface(primary, name.c_str(), &pif));
        EXPECT_EQ(kt::iface(primary, i), pif);
        checkMethodA(pif, fn<tc_mixedA>(six, i, 0), tc_sixid(i, 0), impl);
        checkMethodB(pif, 1, fn<tc_mixedB>(six, i, 1), tc_sixid(i, 1), impl);
        EXPECT_EQ(0, pif->slots->decref(pif));
    }
    EXPECT_EQ(1, kt::refcount(primary));
    EXPECT_EQ(0, vxl_decref(primary));
}

TEST(Calls, FloatArgumentsAndResultsOfOneAndTwoInterfaceClasses)
{
    kt::ensureComponents();
    const vxl_componentdef *one = kt::component("TcOne");
    const vxl_componentdef *two = kt::component("TcTwo");

    vxl_if pone = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcOne", "IOne", &pone));
    checkMethodA(pone, fn<tc_mixedA>(one, 0, 0), TC_ONE_A, kt::implOf(pone));
    checkMethodB(pone, 1, fn<tc_mixedB>(one, 0, 1), TC_ONE_B, kt::implOf(pone));
    checkMethodC(pone, 2, fn<tc_floats>(one, 0, 2), TC_ONE_C, kt::implOf(pone));
    vxl_decref(pone);

    vxl_if pb = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcTwo", "ITwoB", &pb));
    vxl_if pa = kt::primaryFrom(pb, 1);
    tc_impl *impl = kt::implOf(pa);
    checkMethodA(pa, fn<tc_mixedA>(two, 0, 0), TC_TWO_A, impl);
    checkMethodB(pb, 0, fn<tc_mixedB>(two, 1, 0), TC_TWO_B, impl);
    checkMethodC(pb, 1, fn<tc_floats>(two, 1, 1), TC_TWO_C, impl);
    vxl_decref(pb);
}

TEST(Calls, EncapsulatedImplementationReachesTheFunctions)
{
    kt::ensureComponents();
    const vxl_componentdef *two = kt::component("TcTwo");
    tc_impl mine = {TC_MAGIC, 0, 777, nullptr};
    vxl_if pb = reinterpret_cast<vxl_if>(0xdeadbeef);
    ASSERT_EQ(0, vxl_encapsulate("TcTwo", "ITwoB", &mine, &pb));
    EXPECT_EQ(&mine, kt::implOf(kt::primaryFrom(pb, 1)));
    checkMethodB(pb, 0, fn<tc_mixedB>(two, 1, 0), TC_TWO_B, &mine);
    int32_t destroys = tc_getcontrol()->destroys;
    EXPECT_EQ(0, vxl_decref(pb));
    EXPECT_EQ(destroys + 1, tc_getcontrol()->destroys); // destroy runs for encapsulated ones too
    EXPECT_EQ(TC_MAGIC, mine.magic);                     // and leaves what it does not own
}

TEST(Stubs, BytesOfAnInterfaceWithIndexTwoAndTwoMethods)
{
    kt::ensureComponents();
    const vxl_componentdef *six = kt::component("TcSix");
    vxl_if primary = nullptr;
    ASSERT_EQ(0, vxl_createinstance("TcSix", nullptr, &primary));

    for (int32_t i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        vxl_if pif = kt::iface(primary, i);
        auto *const *slots = reinterpret_cast<void *const *>(pif->slots);
        auto *stub = static_cast<const uint8_t *>(slots[4]);
        EXPECT_EQ(stub + 16, slots[5]) << "stubs lie back to back";

        std::vector<uint8_t> expected;
        for (int32_t j = 0; j < 2; ++j) {
            const uint8_t head[] = {0x48, 0x8B, 0x49, static_cast<uint8_t>(8 * (i + 1)), 0x48, 0xB8};
            expected.insert(expected.end(), head, head + sizeof head);
            auto target = reinterpret_cast<uint64_t>(six->interfaces[i]->methods[j]);
            for (int b = 0; b < 8; ++b)
                expected.push_back(static_cast<uint8_t>(target >> (8 * b)));
            expected.push_back(0xFF);
            expected.push_back(0xE0);
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
