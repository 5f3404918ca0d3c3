// Definition registry: conflicts, equality of interface definitions, shared
// interfaces across registrations, deep copies, unregistering by identity,
// and concurrent register/unregister.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// An interface definition built at run time, so a test can vary one field or
// scribble over the registrant's memory after handing it over.
struct IfaceBuilder {
    struct Param {
        std::string name;
        int32_t type, direction, array;
        const char *second;
    };
    struct Method {
        std::string name;
        std::vector<Param> params;
    };
    std::string name;
    std::vector<Method> methods;

    // Storage that the built definition points into.
    std::vector<std::unique_ptr<vxl_paramdef>> paramStore;
    std::vector<std::vector<const vxl_paramdef *>> paramLists;
    std::vector<std::unique_ptr<vxl_methoddef>> methodStore;
    std::vector<const vxl_methoddef *> methodList;
    vxl_interfacedef def{};

    const vxl_interfacedef *build()
    {
        paramLists.reserve(methods.size());
        for (Method &m : methods) {
            paramLists.emplace_back();
            for (Param &p : m.params) {
                paramStore.emplace_back(
                    new vxl_paramdef{p.name.c_str(), p.type, p.direction, p.array, p.second});
                paramLists.back().push_back(paramStore.back().get());
            }
            methodStore.emplace_back(new vxl_methoddef{m.name.c_str(), static_cast<int32_t>(m.params.size()),
                                                       paramLists.back().data()});
            methodList.push_back(methodStore.back().get());
        }
        def = vxl_interfacedef{name.c_str(), static_cast<int32_t>(methodList.size()), methodList.data()};
        return &def;
    }
};

IfaceBuilder sampleIface(const char *name)
{
    IfaceBuilder b;
    b.name = name;
    b.methods = {
        {"add", {{"a", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr}, {"b", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr}}},
        {"fill",
         {{"n", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr}, {"v", VXL_TYPE_STRING, VXL_DIR_OUT, -1, "values"}}},
    };
    return b;
}

int32_t okCreate(void **, vxl_if) { return 0; }
int32_t okDestroy(void *, vxl_if) { return 0; }

// One registrant: its own component list and interface list.
struct Library {
    std::vector<const vxl_componentdef *> components{nullptr};
    std::vector<const vxl_interfacedef *> interfaces{nullptr};
    Library(std::initializer_list<const vxl_componentdef *> cs, std::initializer_list<const vxl_interfacedef *> is)
    {
        components.insert(components.begin(), cs);
        interfaces.insert(interfaces.begin(), is);
    }
    int32_t reg(const char *name = "lib") { return vxl_register(name, components.data(), interfaces.data()); }
    int32_t unreg() { return vxl_unregister(components.data(), interfaces.data()); }
};

const vxl_interfacedef emptyIface = {"IEmptyReg", 0, nullptr};
const vxl_componentinterface emptyCI = {&emptyIface, nullptr};
const vxl_componentinterface *const oneCI[] = {&emptyCI};

vxl_componentdef component(const char *name)
{
    return vxl_componentdef{name, 1, oneCI, okCreate, okDestroy, nullptr};
}

// Whether `def` is accepted next to what is registered now; accepted
// registrations are taken back at once.
bool acceptedNow(const vxl_interfacedef *def)
{
    Library probe({}, {def});
    if (probe.reg("probe") != VXL_OK)
        return false;
    EXPECT_EQ(VXL_OK, probe.unreg());
    return true;
}

} // namespace

TEST(Registry, EmptyListsRegisterAndUnregister)
{
    Library lib({}, {});
    EXPECT_EQ(VXL_OK, lib.reg());
    EXPECT_EQ(VXL_OK, lib.unreg());
    EXPECT_EQ(VXL_EFAIL, lib.unreg());
}

TEST(Registry, UnsoundInputIsRefusedAndChangesNothing)
{
    vxl_componentdef good = component("SoundClass");
    const vxl_componentdef *goodList[] = {&good, nullptr};
    const vxl_interfacedef *noIfaces[] = {nullptr};
    EXPECT_EQ(VXL_EFAIL, vxl_register(nullptr, goodList, noIfaces));
    EXPECT_EQ(VXL_EFAIL, vxl_register("lib", nullptr, noIfaces));
    EXPECT_EQ(VXL_EFAIL, vxl_register("lib", goodList, nullptr));

    vxl_componentdef none = component("NoInterfaces");
    none.ifcount = 0;
    vxl_componentdef seven = component("SevenInterfaces");
    seven.ifcount = 7;
    for (const vxl_componentdef *bad : {&none, &seven}) {
        const vxl_componentdef *list[] = {&good, bad, nullptr};
        EXPECT_EQ(VXL_EFAIL, vxl_register("lib", list, noIfaces));
    }
    // Nothing of the refused calls stayed: the good class is still free.
    EXPECT_EQ(VXL_OK, vxl_register("lib", goodList, noIfaces));
    EXPECT_EQ(VXL_OK, vxl_unregister(goodList, noIfaces));
}

TEST(Registry, BrokenInterfaceTablesAreRefusedAndChangeNothing)
{
    static const vxl_paramdef param = {"p", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
    static const vxl_paramdef *const params[] = {&param};
    static const vxl_paramdef *const nullParam[] = {nullptr};
    static const vxl_methoddef good = {"m", 1, params};
    static const vxl_methoddef noParams = {"m", 1, nullptr};
    static const vxl_methoddef nullParamEntry = {"m", 1, nullParam};
    static const vxl_methoddef negativeParams = {"m", -1, params};
    static const vxl_methoddef hugeParams = {"m", INT32_MAX, params};
    static const vxl_methoddef *const methodsOf[][1] = {{&noParams}, {&nullParamEntry}, {&negativeParams},
                                                         {&hugeParams}, {nullptr}, {&good}};
    const vxl_interfacedef broken[] = {
        {"IBroken", 1, methodsOf[0]}, {"IBroken", 1, methodsOf[1]}, {"IBroken", 1, methodsOf[2]},
        {"IBroken", 1, methodsOf[3]}, {"IBroken", 1, methodsOf[4]}, {"IBroken", 1, nullptr},
        {"IBroken", -1, methodsOf[5]}, {"IBroken", INT32_MAX, methodsOf[5]},
    };
    const vxl_interfacedef sound = {"IBroken", 1, methodsOf[5]};
    vxl_componentdef c = component("BrokenTablesClass");
    for (const vxl_interfacedef &bad : broken) {
        SCOPED_TRACE(&bad - broken);
        Library lib({&c}, {&sound, &bad});
        EXPECT_EQ(VXL_EFAIL, lib.reg());
        EXPECT_EQ(VXL_EFAIL, lib.unreg());
    }
    Library lib({&c}, {&sound}); // nothing of the refused calls stayed
    EXPECT_EQ(VXL_OK, lib.reg());
    EXPECT_EQ(VXL_OK, lib.unreg());
}

TEST(Registry, ComponentNameTakenByAnotherLibrary)
{
    vxl_componentdef a = component("TakenClass");
    vxl_componentdef b = component("TakenClass");
    vxl_componentdef c = component("OtherClass");
    Library first({&a}, {});
    Library second({&c, &b}, {});
    ASSERT_EQ(VXL_OK, first.reg("first"));
    EXPECT_EQ(VXL_EFAIL, second.reg("second"));
    // The refused library left no trace: OtherClass is still free.
    Library third({&c}, {});
    EXPECT_EQ(VXL_OK, third.reg("third"));
    EXPECT_EQ(VXL_OK, third.unreg());
    EXPECT_EQ(VXL_EFAIL, second.unreg());
    EXPECT_EQ(VXL_OK, first.unreg());
    EXPECT_EQ(VXL_OK, second.reg("second"));
    EXPECT_EQ(VXL_OK, second.unreg());
}

TEST(Registry, InterfaceEqualityRules)
{
    IfaceBuilder base = sampleIface("IEquality");
    Library lib({}, {base.build()});
    ASSERT_EQ(VXL_OK, lib.reg());

    struct Case {
        const char *what;
        void (*change)(IfaceBuilder &);
        bool accepted;
    };
    const Case cases[] = {
        {"identical copy", [](IfaceBuilder &) {}, true},
        {"direction code", [](IfaceBuilder &b) { b.methods[0].params[1].direction = VXL_DIR_INOUT; }, false},
        {"type code", [](IfaceBuilder &b) { b.methods[0].params[0].type = VXL_TYPE_FLOAT; }, false},
        {"array code", [](IfaceBuilder &b) { b.methods[1].params[1].array = -2; }, false},
        {"parameter name", [](IfaceBuilder &b) { b.methods[0].params[0].name = "x"; }, false},
        {"method name", [](IfaceBuilder &b) { b.methods[1].name = "Fill"; }, false},
        {"parameter count", [](IfaceBuilder &b) { b.methods[0].params.pop_back(); }, false},
        {"method count", [](IfaceBuilder &b) { b.methods.pop_back(); }, false},
        {"second name added", [](IfaceBuilder &b) { b.methods[0].params[0].second = "extra"; }, true},
        {"second name removed", [](IfaceBuilder &b) { b.methods[1].params[1].second = nullptr; }, false},
        {"second name changed", [](IfaceBuilder &b) { b.methods[1].params[1].second = "Values"; }, false},
    };
    for (const Case &c : cases) {
        IfaceBuilder variant = sampleIface("IEquality");
        c.change(variant);
        EXPECT_EQ(c.accepted, acceptedNow(variant.build())) << c.what;
    }
    EXPECT_EQ(VXL_OK, lib.unreg());
}

TEST(Registry, SharedInterfaceLivesWhileAnyRegistrationListsIt)
{
    auto first = std::make_unique<IfaceBuilder>(sampleIface("IShared"));
    IfaceBuilder second = sampleIface("IShared");
    Library a({}, {first->build()});
    Library b({}, {second.build()});
    ASSERT_EQ(VXL_OK, a.reg("a"));
    ASSERT_EQ(VXL_OK, b.reg("b")); // equal definition: accepted and shared

    // The cache holds its own copy: the first registrant's memory may go.
    ASSERT_EQ(VXL_OK, a.unreg());
    for (auto &p : first->paramStore)
        memset(p.get(), 0xcd, sizeof *p);
    for (auto &m : first->methodStore)
        memset(m.get(), 0xcd, sizeof *m);
    first.reset();

    IfaceBuilder different = sampleIface("IShared");
    different.methods[0].params[0].direction = VXL_DIR_OUT;
    EXPECT_FALSE(acceptedNow(different.build())); // still registered, still the same
    IfaceBuilder same = sampleIface("IShared");
    EXPECT_TRUE(acceptedNow(same.build()));

    ASSERT_EQ(VXL_OK, b.unreg());
    EXPECT_TRUE(acceptedNow(different.build())); // gone with the last registration
}

TEST(Registry, SecondNamesCompareAgainstTheCachedCopy)
{
    // A cached copy without a second name accepts one with it, and keeps
    // being the cached copy after its own registrant has gone.
    IfaceBuilder plain = sampleIface("ISecond");
    plain.methods[1].params[1].second = nullptr;
    IfaceBuilder named = sampleIface("ISecond");
    Library a({}, {plain.build()});
    Library b({}, {named.build()});
    ASSERT_EQ(VXL_OK, a.reg("a"));
    ASSERT_EQ(VXL_OK, b.reg("b"));
    EXPECT_EQ(VXL_OK, a.unreg());
    IfaceBuilder probe = sampleIface("ISecond");
    probe.methods[1].params[1].second = nullptr;
    EXPECT_TRUE(acceptedNow(probe.build()));
    EXPECT_EQ(VXL_OK, b.unreg());

    // Registered the other way round, the cached second name is required.
    ASSERT_EQ(VXL_OK, b.reg("b"));
    EXPECT_EQ(VXL_EFAIL, a.reg("a"));
    EXPECT_EQ(VXL_OK, b.unreg());
}

TEST(Registry, UnregisterNeedsTheVeryListPointers)
{
    vxl_componentdef c = component("CopiedListsClass");
    IfaceBuilder iface = sampleIface("ICopiedLists");
    Library lib({&c}, {iface.build()});
    ASSERT_EQ(VXL_OK, lib.reg());
    std::vector<const vxl_componentdef *> componentsCopy = lib.components;
    std::vector<const vxl_interfacedef *> interfacesCopy = lib.interfaces;
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(componentsCopy.data(), interfacesCopy.data()));
    EXPECT_EQ(VXL_EFAIL, vxl_unregister(lib.components.data(), interfacesCopy.data()));
    EXPECT_EQ(VXL_EFAIL, vxl_register("again", componentsCopy.data(), interfacesCopy.data()));
    EXPECT_EQ(VXL_OK, lib.unreg());
}

TEST(Registry, UnregisterLogsOneLine)
{
    vxltest::LogTail tail;
    vxl_unregister(nullptr, nullptr);
    EXPECT_EQ("vxl_unregister:\n", tail.text());
}

TEST(Registry, DuplicatesWithinOneCallKeepTheFirst)
{
    vxl_componentdef a = component("DupClass");
    vxl_componentdef b = component("DupClass");
    Library lib({&a, &b}, {});
    EXPECT_EQ(VXL_OK, lib.reg());
    EXPECT_EQ(VXL_OK, lib.unreg());
}

TEST(Registry, GetMethod)
{
    const vxl_methoddef first = {"twin", 0, nullptr};
    const vxl_methoddef second = {"twin", 0, nullptr};
    const vxl_methoddef other = {"other", 0, nullptr};
    const vxl_methoddef *methods[] = {&other, &first, &second};
    const vxl_interfacedef iface = {"ITwins", 3, methods};
    const vxl_interfacedef none = {"INone", 0, nullptr};
    EXPECT_EQ(&first, vxl_getmethod(&iface, "twin"));
    EXPECT_EQ(&other, vxl_getmethod(&iface, "other"));
    EXPECT_EQ(nullptr, vxl_getmethod(&iface, "Twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(&none, "twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(nullptr, "twin"));
    EXPECT_EQ(nullptr, vxl_getmethod(&iface, nullptr));
}

TEST(Registry, ConcurrentRegisterAndUnregister)
{
    // Each thread owns one library with a class of its own and an interface
    // shared by all; they register and unregister in a loop at the same time.
    constexpr int kThreads = 4, kRounds = 300;
    static vxl_componentdef defs[kThreads];
    static char names[kThreads][24];
    std::vector<std::unique_ptr<IfaceBuilder>> ifaces;
    std::vector<std::unique_ptr<Library>> libs;
    for (int t = 0; t < kThreads; ++t) {
        snprintf(names[t], sizeof names[t], "ConcurrentClass%d", t);
        defs[t] = component(names[t]);
        ifaces.push_back(std::make_unique<IfaceBuilder>(sampleIface("IConcurrent")));
        libs.push_back(std::make_unique<Library>(std::initializer_list<const vxl_componentdef *>{&defs[t]},
                                                 std::initializer_list<const vxl_interfacedef *>{ifaces[t]->build()}));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r) {
                if (libs[t]->reg() != VXL_OK)
                    failures.fetch_add(1);
                if (libs[t]->unreg() != VXL_OK)
                    failures.fetch_add(1);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());
    IfaceBuilder different = sampleIface("IConcurrent");
    different.methods.pop_back();
    EXPECT_TRUE(acceptedNow(different.build())); // nothing left behind
}
