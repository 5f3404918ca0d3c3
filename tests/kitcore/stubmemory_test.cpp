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

} // namespace

VXL_CHILD(growing_chunks)
{
    static WideInterface classes[5] = {
        {"NoMethods", "INoMethods", 0},
        {"Small1", "ISmall1", 2}, // the process's first stubs: the first chunk
        {"Big1", "IBig1", 20000}, // 320000 bytes: the next doubling, 524288, holds it
        {"Big2", "IBig2", 70000}, // 1120000 bytes: 1048576 is short, 2097152 holds it
        {"Small2", "ISmall2", 3}, // fits behind Big2
    };
    const int32_t chunks[5] = {0, 262144, 524288, 2097152, 0}; // 0: no new chunk
    const vxl_componentdef *components[6] = {};
    const vxl_interfacedef *interfaces[6] = {};
    for (int c = 0; c < 5; ++c) {
        components[c] = &classes[c].component;
        interfaces[c] = &classes[c].def;
    }
    if (vxl_register("stubmemory_test", components, interfaces) != 0)
        return 10;

    vxl_classfactory *f[5] = {};
    std::string expected;
    for (int c = 0; c < 5; ++c) {
        if (vxl_createclassfactory(&f[c], classes[c].component.name) != 0)
            return 11;
        expected += "vxl_createclassfactory\n";
        if (chunks[c])
            expected += kt::fmt("allocated %d bytes for trampoline = %x\n", chunks[c], VXL_PTR(f[c]->stubblocks[0]));
        expected += kt::fmt("createclassfactory %s = %x>\n", classes[c].component.name, VXL_PTR(f[c]));
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
