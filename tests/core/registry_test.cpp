// Definition registry: refused input, conflicts, unregistering by identity,
// equality of interface definitions, and interfaces shared across
// registrations as copies of their own.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

// One registrant's IEquality { add(a, b); fill(n, v) }, to vary or scribble over.
struct Iface {
    vxl_paramdef params[4] = {{"a", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr}, {"b", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr},
                              {"n", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr}, {"v", VXL_TYPE_STRING, VXL_DIR_OUT, -1, "values"}};
    const vxl_paramdef *lists[2][2] = {{&params[0], &params[1]}, {&params[2], &params[3]}};
    vxl_methoddef methods[2] = {{"add", 2, lists[0]}, {"fill", 2, lists[1]}};
    const vxl_methoddef *methodList[2] = {&methods[0], &methods[1]};
    vxl_interfacedef def = {"IEquality", 2, methodList};
    const vxl_interfacedef *list[2] = {&def, nullptr};
};

const vxl_componentdef *const kNone[] = {nullptr};
const vxl_interfacedef *const kNoIfaces[] = {nullptr};

// Whether def is accepted next to what is registered now; an accepted
// registration is taken back at once.
bool acceptedNow(const Iface &i)
{
    return vxl_register("probe", kNone, i.list) == VXL_OK && vxl_unregister(kNone, i.list) == VXL_OK;
}

const vxl_interfacedef emptyIface = {"IEmptyReg", 0, nullptr};
const vxl_componentinterface emptyEntry = {&emptyIface, nullptr};
const vxl_componentinterface *const oneEntry[] = {&emptyEntry};
vxl_componentdef component(const char *name, int32_t ifcount = 1)
{
    return {name, ifcount, oneEntry, nullptr, nullptr, nullptr};
}

} // namespace

TEST(Registry, UnsoundListsAreRefusedAndChangeNothing)
{
    static const vxl_paramdef param = {"p", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
    static const vxl_paramdef *const params[] = {&param}, *const nullParam[] = {nullptr};
    static const vxl_methoddef good = {"m", 1, params}, noParams = {"m", 1, nullptr}, nullEntry = {"m", 1, nullParam};
    static const vxl_methoddef negative = {"m", -1, params}, huge = {"m", INT32_MAX, params};
    static const vxl_methoddef *const m[][1] = {{&noParams}, {&nullEntry}, {&negative}, {&huge}, {nullptr}, {&good}};
    const vxl_interfacedef sound = {"IBroken", 1, m[5]};
    const vxl_interfacedef broken[] = {{"IBroken", 1, m[0]},  {"IBroken", 1, m[1]}, {"IBroken", 1, m[2]},
                                       {"IBroken", 1, m[3]},  {"IBroken", 1, m[4]}, {"IBroken", 1, nullptr},
                                       {"IBroken", -1, m[5]}, {"IBroken", INT32_MAX, m[5]}, {nullptr, 1, m[5]}};
    vxl_componentdef c = component("SoundClass"), none = component("NoInterfaces", 0);
    vxl_componentdef seven = component("SevenInterfaces", 7), nameless = component(nullptr);
    const vxl_componentdef *goodList[] = {&c, nullptr};
    for (const vxl_interfacedef &bad : broken) {
        const vxl_interfacedef *list[] = {&sound, &bad, nullptr};
        EXPECT_EQ(VXL_EFAIL, vxl_register("lib", goodList, list)) << &bad - broken;
    }
    const vxl_interfacedef *soundList[] = {&sound, nullptr};
    for (const vxl_componentdef *bad : {&none, &seven, &nameless}) {
        const vxl_componentdef *list[] = {&c, bad, nullptr};
        EXPECT_EQ(VXL_EFAIL, vxl_register("lib", list, soundList));
    }
    EXPECT_EQ(VXL_EFAIL, vxl_register(nullptr, goodList, soundList));
    EXPECT_EQ(VXL_EFAIL, vxl_register("lib", nullptr, soundList));
    EXPECT_EQ(VXL_EFAIL, vxl_register("lib", goodList, nullptr));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(goodList, soundList)) << "nothing of the refused calls stayed";
    EXPECT_EQ(VXL_OK, vxl_register("lib", goodList, soundList));
    EXPECT_EQ(VXL_OK, vxl_unregister(goodList, soundList));
}

TEST(Registry, ComponentNamesConflictAndUnregisterNeedsBothListPointers)
{
    vxl_componentdef a = component("TakenClass"), b = component("TakenClass"), c = component("OtherClass");
    const vxl_componentdef *first[] = {&a, nullptr}, *second[] = {&c, &b, nullptr}, *dups[] = {&c, &a, nullptr};
    const vxl_componentdef *firstCopy[] = {&a, nullptr};
    const vxl_interfacedef *ifaces[] = {nullptr}, *ifacesCopy[] = {nullptr};
    ASSERT_EQ(VXL_OK, vxl_register("first", first, ifaces));
    EXPECT_EQ(VXL_EFAIL, vxl_register("second", second, kNoIfaces));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(second, kNoIfaces)) << "the refused library left no trace";
    // Copies of the very lists, or one of the two pointers, are another registration.
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(firstCopy, ifacesCopy));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(first, ifacesCopy));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(firstCopy, ifaces));
    vxltest::LogTail tail;
    EXPECT_EQ(VXL_OK, vxl_unregister(first, ifaces));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(first, ifaces));
    EXPECT_EQ("vxl_unregister:\nvxl_unregister:\n", tail.text());
    EXPECT_EQ(VXL_OK, vxl_register("dups", dups, kNoIfaces)) << "duplicates within one call keep the first";
    EXPECT_EQ(VXL_OK, vxl_unregister(dups, kNoIfaces));
}

TEST(Registry, InterfaceEqualityRulesAgainstTheCachedCopy)
{
    auto first = std::make_unique<Iface>();
    ASSERT_EQ(VXL_OK, vxl_register("first", kNone, first->list));
    const struct {
        const char *what;
        void (*change)(Iface &);
        bool accepted;
    } cases[] = {
        {"identical copy", [](Iface &) {}, true},
        {"direction code", [](Iface &i) { i.params[1].direction = VXL_DIR_INOUT; }, false},
        {"type code", [](Iface &i) { i.params[0].type = VXL_TYPE_FLOAT; }, false},
        {"array code", [](Iface &i) { i.params[3].array = -2; }, false},
        {"parameter name", [](Iface &i) { i.params[0].name = "x"; }, false},
        {"method name", [](Iface &i) { i.methods[1].name = "Fill"; }, false},
        {"parameter count", [](Iface &i) { i.methods[0].paramcount = 1; }, false},
        {"method count", [](Iface &i) { i.def.methodcount = 1; }, false},
        {"second name added", [](Iface &i) { i.params[0].secondname = "extra"; }, true},
        {"second name removed", [](Iface &i) { i.params[3].secondname = nullptr; }, false},
        {"second name changed", [](Iface &i) { i.params[3].secondname = "Values"; }, false},
    };
    for (const auto &c : cases) {
        Iface variant;
        c.change(variant);
        EXPECT_EQ(c.accepted, acceptedNow(variant)) << c.what;
    }
    // An equal definition is shared; the cache holds its own copy, so the
    // first registrant's memory may go while another lists the interface.
    Iface second, different;
    different.params[0].direction = VXL_DIR_OUT;
    ASSERT_EQ(VXL_OK, vxl_register("second", kNone, second.list));
    ASSERT_EQ(VXL_OK, vxl_unregister(kNone, first->list));
    memset(static_cast<void *>(first.get()), 0xcd, sizeof *first);
    first.reset();
    EXPECT_FALSE(acceptedNow(different)) << "still registered, still the same";
    EXPECT_TRUE(acceptedNow(Iface()));
    ASSERT_EQ(VXL_OK, vxl_unregister(kNone, second.list));
    EXPECT_TRUE(acceptedNow(different)) << "gone with the last registration";
    Iface plain; // a cached copy without a second name accepts one with it
    plain.params[3].secondname = nullptr;
    ASSERT_EQ(VXL_OK, vxl_register("plain", kNone, plain.list));
    EXPECT_TRUE(acceptedNow(Iface()));
    ASSERT_EQ(VXL_OK, vxl_unregister(kNone, plain.list));
}

TEST(Registry, GetMethodFindsTheFirstOfAName)
{
    const vxl_methoddef first = {"twin", 0, nullptr}, second = {"twin", 0, nullptr}, other = {"other", 0, nullptr};
    const vxl_methoddef *methods[] = {&other, &first, &second};
    const vxl_interfacedef iface = {"ITwins", 3, methods}, none = {"INone", 0, nullptr};
    EXPECT_EQ(&first, vxl_getmethod(&iface, "twin"));
    EXPECT_EQ(&other, vxl_getmethod(&iface, "other"));
    EXPECT_EQ(nullptr, vxl_getmethod(&iface, "Twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(&none, "twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(nullptr, "twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(&iface, nullptr));
}
