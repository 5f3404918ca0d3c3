// Cost of one method call made directly, through a C++ virtual function and
// through a kit slot and stub, and of creating and releasing an object of a
// class whose factory is cached. Tracing is off (VXLLOGNAME cleared), as in
// production. Ratios are against the virtual call measured in the same run.
#include "benchtime.h"
#include "vexal.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

struct Counter {
    int64_t total;
};

// The same work behind every kind of call; noipa keeps the compiler from
// inlining, cloning or specialising it for the call site.
__attribute__((noipa)) int64_t addDirect(void *impl, int64_t x)
{
    return static_cast<Counter *>(impl)->total += x;
}

struct Adder {
    virtual int64_t add(int64_t x) = 0;
    virtual ~Adder() = default;
};

struct CountingAdder : Adder {
    int64_t total = 0;
    __attribute__((noipa)) int64_t add(int64_t x) override
    {
        return total += x;
    }
};

volatile int64_t g_sink;

int32_t create(void **implslot, vxl_if)
{
    static Counter shared;
    *implslot = &shared;
    return 0;
}

int32_t destroy(void *, vxl_if)
{
    return 0;
}

const vxl_paramdef px = {"x", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef *const addParams[] = {&px};
const vxl_methoddef addMethod = {"add", 1, addParams};
const vxl_methoddef *const methods[] = {&addMethod};
const vxl_interfacedef iAdder = {"IAdder", 1, methods};
const vxl_fn functions[] = {reinterpret_cast<vxl_fn>(&addDirect)};
const vxl_componentinterface adderEntry = {&iAdder, functions};
const vxl_componentinterface *const entries[] = {&adderEntry};
const vxl_componentdef adderClass = {"BenchAdder", 1, entries, create, destroy, nullptr};
const vxl_componentdef *const components[] = {&adderClass, nullptr};
const vxl_interfacedef *const interfaces[] = {&iAdder, nullptr};

using KitAdd = int64_t (*)(vxl_if, int64_t);

// Many short rounds: on a shared machine some of them run undisturbed.
constexpr int ROUNDS = 30;
constexpr int64_t ROUND_PARTS = 10;

} // namespace

int main(int argc, char **argv)
{
    _putenv("VXLLOGNAME="); // tracing off: an empty name counts as unset
    int64_t iterations = argc > 1 ? atoll(argv[1]) : 50000000; // per kind, split into parts
    int64_t creations = iterations / 50;

    vxl_init();
    if (vxl_register("bench", components, interfaces) != 0) {
        fprintf(stderr, "vxl_register failed\n");
        return 1;
    }
    vxl_if pif = nullptr;
    if (vxl_createinstance("BenchAdder", "IAdder", &pif) != 0) {
        fprintf(stderr, "vxl_createinstance failed\n");
        return 1;
    }
    Counter counter = {0};
    Adder *volatile hidden = new CountingAdder; // no devirtualisation
    Adder *adder = hidden;

    auto directCalls = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            g_sink = addDirect(&counter, i);
    };
    auto virtualCalls = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            g_sink = adder->add(i);
    };
    auto kitCalls = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            g_sink = VXL_METHOD(pif, 0, KitAdd)(pif, i);
    };
    auto lifecycles = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            vxl_if obj = nullptr;
            vxl_createinstance("BenchAdder", nullptr, &obj);
            vxl_decref(obj);
        }
    };
    // The kinds take turns within each round, so a busy machine slows them
    // alike; the best round of each kind counts.
    int64_t perRound = std::max<int64_t>(1, iterations / ROUND_PARTS);
    int64_t creationsPerRound = std::max<int64_t>(1, creations / ROUND_PARTS);
    double direct = 1e30, virt = 1e30, kit = 1e30, lifecycle = 1e30;
    for (int round = 0; round < ROUNDS; ++round) {
        direct = std::min(direct, timeRound(perRound, directCalls));
        virt = std::min(virt, timeRound(perRound, virtualCalls));
        kit = std::min(kit, timeRound(perRound, kitCalls));
        lifecycle = std::min(lifecycle, timeRound(creationsPerRound, lifecycles));
    }

    printf("%lld calls and %lld object lifecycles per kind and round; best of %d rounds\n",
           static_cast<long long>(perRound), static_cast<long long>(creationsPerRound), ROUNDS);
    printf("%-42s %10s %12s\n", "kind", "ns/op", "vs virtual");
    printf("%-42s %10.3f %11.2fx\n", "direct C call", direct, direct / virt);
    printf("%-42s %10.3f %11.2fx\n", "C++ virtual call", virt, 1.0);
    printf("%-42s %10.3f %11.2fx\n", "kit slot + stub call", kit, kit / virt);
    printf("%-42s %10.3f %11.2fx\n", "vxl_createinstance + vxl_decref (cached)", lifecycle, lifecycle / virt);
    printf("stub call within 1.3x of the virtual call: %s\n", kit <= 1.3 * virt ? "yes" : "no");

    vxl_decref(pif);
    delete adder;
    return 0;
}
