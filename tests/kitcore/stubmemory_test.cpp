// Stub memory as a fresh process sees it: the first chunk of 262144 bytes,
// chunks that keep doubling, requests larger than a doubled chunk, stubs
// that still forward at the end of a large block, interfaces without methods.
#include "kitcore_support.h"

#include <vector>

namespace {

int32_t answer(void *, int32_t x) { return x + 1; }

const vxl_methoddef mAnswer = {"answer", 0, nullptr};

// An interface of count methods, every one answered by the same function.
struct WideInterface {
    std::vector<const vxl_methoddef *> methods;
    std::vector<vxl_fn> functions;
    vxl_interfacedef def;
    vxl_componentinterface entry;
    const vxl_componentinterface *entries[1];
    vxl_componentdef component;

    WideInterface(const char *classname, const char *ifname, int32_t count)
        : methods(count, &mAnswer), functions(count, reinterpret_cast<vxl_fn>(&answer))
    {
        def = {ifname, count, methods.data()};
        entry = {&def, functions.data()};
        entries[0] = &entry;
        component = {classname, 1, entries, nullptr, nullptr, nullptr};
    }
};

int registerAll(std::vector<WideInterface *> classes)
{
    static std::vector<const vxl_componentdef *> components;
    static std::vector<const vxl_interfacedef *> interfaces;
    for (WideInterface *c : classes) {
        components.push_back(&c->component);
        interfaces.push_back(&c->def);
    }
    components.push_back(nullptr);
    interfaces.push_back(nullptr);
    return vxl_register("stubmemory_test", components.data(), interfaces.data());
}

std::string built(const char *classname, vxl_classfactory *factory)
{
    return kt::fmt("createclassfactory %s = %x>\n", classname, VXL_PTR(factory));
}

std::string chunk(int32_t size, const void *address)
{
    return kt::fmt("allocated %d bytes for trampoline = %x\n", size, VXL_PTR(address));
}

} // namespace

VXL_CHILD(growing_chunks)
{
    static WideInterface none("NoMethods", "INoMethods", 0);
    static WideInterface small1("Small1", "ISmall1", 2);
    static WideInterface big1("Big1", "IBig1", 20000);  // 320000 bytes: the next doubling, 524288, holds it
    static WideInterface big2("Big2", "IBig2", 70000);  // 1120000 bytes: 1048576 is short, 2097152 holds it
    static WideInterface small2("Small2", "ISmall2", 3); // fits behind Big2
    if (registerAll({&none, &small1, &big1, &big2, &small2}) != 0)
        return 10;

    const char *names[5] = {"NoMethods", "Small1", "Big1", "Big2", "Small2"};
    const int32_t chunks[5] = {0, 262144, 524288, 2097152, 0}; // 0: no new chunk
    vxl_classfactory *f[5] = {};
    std::string expected;
    for (int c = 0; c < 5; ++c) {
        if (vxl_createclassfactory(&f[c], names[c]) != 0)
            return 11;
        expected += "vxl_createclassfactory\n";
        if (chunks[c])
            expected += chunk(chunks[c], f[c]->stubblocks[0]);
        expected += built(names[c], f[c]);
    }
    if (f[0]->stubblocks[0] != nullptr) // no methods: no stub memory, no protection change
        return 12;
    if (static_cast<uint8_t *>(f[4]->stubblocks[0]) != static_cast<uint8_t *>(f[3]->stubblocks[0]) + 16 * 70000)
        return 13;

    // The last stub of the largest block still forwards.
    vxl_if obj = nullptr;
    if (vxl_getinstancefromcf(f[3], nullptr, &obj) != 0)
        return 14;
    if (VXL_METHOD(obj, 69999, int32_t(*)(vxl_if, int32_t))(obj, 6) != 7)
        return 15;
    expected += "encapsulate = " + kt::hex(obj) + "\n";
    vxltest::writeExpected(expected);
    return 0;
}

TEST(StubMemory, TheFirstChunkIs262144BytesAndChunksDoubleUntilARequestFits)
{
    kt::expectChildLog("growing_chunks", 0);
}
