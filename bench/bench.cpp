// The runtime's costs in one table, each figure a ratio against a baseline
// measured in the same run:
//   - look-ups and object creation with 100,000 classes registered and
//     cached, against 10 (each in a child process of its own, as a new user
//     would meet them; the two kinds of child take turns);
//   - one method call through a kit slot and stub, and creating and
//     releasing an object of a cached class, against a C++ virtual call;
//   - wrapping and unwrapping, found and new, against a COM AddRef + Release;
//   - two threads creating and releasing objects of one cached class,
//     against one thread;
//   - a trace-log call with no log file open, against an empty call.
// Tracing is off (VXLLOGNAME cleared), as in production. Every figure is the
// best of many short rounds, the kinds of one group taking turns within a
// round, so a busy machine slows them alike.
//
//   vexal_bench.exe            the table
//   vexal_bench.exe --scale N out.txt   (child) the look-up figures with N classes
#include "benchtime.h"
#include "comserver/comserver.h"
#include "core/kit.h"
#include "vexal.h"
#include "kitwrapper.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

volatile int64_t g_sink;

// ---- the table ------------------------------------------------------------------------------

enum class Target { None, AtMost, AtLeast, WithinNs };

struct Row {
    const char *figure;
    double measured;
    double baseline;
    const char *unit; // of measured and baseline
    Target target;
    double bound;
};

void printTable(const std::vector<Row> &rows)
{
    printf("%-58s %12s %12s %9s %9s %6s\n", "figure (measured vs baseline)", "measured", "baseline", "ratio",
           "target", "holds");
    for (const Row &row : rows) {
        double ratio = row.measured / row.baseline;
        char target[32] = "";
        const char *holds = "";
        switch (row.target) {
        case Target::None:
            break;
        case Target::AtMost:
            snprintf(target, sizeof target, "<=%.1fx", row.bound);
            holds = ratio <= row.bound ? "yes" : "NO";
            break;
        case Target::AtLeast:
            snprintf(target, sizeof target, ">=%.1fx", row.bound);
            holds = ratio >= row.bound ? "yes" : "NO";
            break;
        case Target::WithinNs:
            snprintf(target, sizeof target, "+%.0f ns", row.bound);
            holds = row.measured - row.baseline <= row.bound ? "yes" : "NO";
            break;
        }
        printf("%-58s %9.2f %-2s %9.2f %-2s %8.2fx %9s %6s\n", row.figure, row.measured, row.unit, row.baseline,
               row.unit, ratio, target, holds);
    }
}

// ---- a class with one method, and the C++ equivalent -------------------------------------------

struct Counter {
    int64_t total;
};

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
    __attribute__((noipa)) int64_t add(int64_t x) override { return total += x; }
};

Counter g_shared;

int32_t createAdder(void **implslot, vxl_if)
{
    *implslot = &g_shared;
    return 0;
}

int32_t destroyAdder(void *, vxl_if)
{
    return 0;
}

const vxl_paramdef px = {"x", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef *const addParams[] = {&px};
const vxl_methoddef addMethod = {"add", 1, addParams};
const vxl_methoddef *const addMethods[] = {&addMethod};
const vxl_fn addFunctions[] = {reinterpret_cast<vxl_fn>(&addDirect)};

using KitAdd = int64_t (*)(vxl_if, int64_t);

// ---- the scale children ------------------------------------------------------------------------
// Class i: "BenchClass<i>" with the one interface "IBench<i>", registered by
// a vxl_register of its own; COM registration i: component "BenchClass<i>"
// with CLSID i and interface "IBench<i>" with iid_com i, by a
// vxl_com_register of its own.

GUID numberedGuid(uint32_t i, uint16_t kind)
{
    return GUID{i, kind, 0x4abc, {0x80, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}};
}

struct ScaleClass {
    std::string name, ifname;
    vxl_interfacedef iface;
    const vxl_methoddef *const *methods;
    vxl_componentinterface entry;
    const vxl_componentinterface *entries[1];
    vxl_componentdef def;
    const vxl_componentdef *components[2];
    const vxl_interfacedef *interfaces[2];
    vxl_comcomponentinfo comcomponent;
    const vxl_comcomponentinfo *comcomponents[2];
    vxl_comifinfo comif;
    const vxl_comifinfo *comifs[2];
};

const vxl_comlibinfo scaleLib = {"vexal_bench.exe", GUID_NULL};

int runScale(int32_t count, const char *outpath)
{
    std::vector<ScaleClass> classes(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        ScaleClass &c = classes[size_t(i)];
        c.name = "BenchClass" + std::to_string(i);
        c.ifname = "IBench" + std::to_string(i);
        c.iface = {c.ifname.c_str(), 1, addMethods};
        c.entry = {&c.iface, addFunctions};
        c.entries[0] = &c.entry;
        c.def = {c.name.c_str(), 1, c.entries, createAdder, destroyAdder, nullptr};
        c.components[0] = &c.def;
        c.components[1] = nullptr;
        c.interfaces[0] = &c.iface;
        c.interfaces[1] = nullptr;
        c.comcomponent = {c.name.c_str(), numberedGuid(uint32_t(i), 1)};
        c.comcomponents[0] = &c.comcomponent;
        c.comcomponents[1] = nullptr;
        c.comif = {c.ifname.c_str(), numberedGuid(uint32_t(i), 2), GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                   nullptr,          nullptr,                      nullptr,   nullptr};
        c.comifs[0] = &c.comif;
        c.comifs[1] = nullptr;
        if (vxl_register(c.name.c_str(), c.components, c.interfaces) != VXL_OK) {
            fprintf(stderr, "vxl_register %s failed\n", c.name.c_str());
            return 1;
        }
        vxl_com_register(&scaleLib, c.comcomponents, c.comifs);
    }
    // Every factory built and cached.
    for (ScaleClass &c : classes) {
        vxl_if obj = nullptr;
        if (vxl_createinstance(c.name.c_str(), nullptr, &obj) != VXL_OK) {
            fprintf(stderr, "vxl_createinstance %s failed\n", c.name.c_str());
            return 1;
        }
        vxl_decref(obj);
    }

    // Each loop alternates between the first and the last registered class.
    const ScaleClass &first = classes.front(), &last = classes.back();
    const char *names[2] = {first.name.c_str(), last.name.c_str()};
    const char *ifnames[2] = {first.ifname.c_str(), last.ifname.c_str()};
    GUID iids[2] = {first.comif.iid_com, last.comif.iid_com};
    GUID clsids[2] = {first.comcomponent.clsid, last.comcomponent.clsid};
    auto creations = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            vxl_if obj = nullptr;
            vxl_createinstance(names[i & 1], nullptr, &obj);
            vxl_decref(obj);
        }
    };
    auto componentdefs = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            g_sink = reinterpret_cast<intptr_t>(vxl_findcomponentdef(names[i & 1]));
    };
    auto ifinfos = [&](int64_t n) {
        vxl_comifinfo info;
        for (int64_t i = 0; i < n; ++i)
            g_sink = vxl_com_getifinfo(ifnames[i & 1], &info);
    };
    auto ifinfosbyiid = [&](int64_t n) {
        vxl_comifinfo info;
        const char *wtype = nullptr;
        for (int64_t i = 0; i < n; ++i)
            g_sink = vxl_com_getifinfobyiid(iids[i & 1], &wtype, &info);
    };
    auto byclsid = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            g_sink = reinterpret_cast<intptr_t>(vxl_com_findcomponentbyclsid(clsids[i & 1]));
    };
    constexpr int64_t kPerRound = 20000;
    double ns[5] = {1e30, 1e30, 1e30, 1e30, 1e30};
    for (int round = 0; round < 60; ++round) {
        ns[0] = std::min(ns[0], timeRound(kPerRound, creations));
        ns[1] = std::min(ns[1], timeRound(kPerRound, componentdefs));
        ns[2] = std::min(ns[2], timeRound(kPerRound, ifinfos));
        ns[3] = std::min(ns[3], timeRound(kPerRound, ifinfosbyiid));
        ns[4] = std::min(ns[4], timeRound(kPerRound, byclsid));
    }
    FILE *out = fopen(outpath, "w");
    if (!out)
        return 1;
    fprintf(out, "%.3f %.3f %.3f %.3f %.3f\n", ns[0], ns[1], ns[2], ns[3], ns[4]);
    fclose(out);
    return 0;
}

// Runs this program as a scale child; false when it fails.
bool scaleChild(int32_t count, double ns[5])
{
    char exe[MAX_PATH];
    GetModuleFileNameA(nullptr, exe, sizeof exe);
    char outpath[MAX_PATH];
    snprintf(outpath, sizeof outpath, "%s.scale%d.txt", exe, count);
    std::string cmd = std::string("\"") + exe + "\" --scale " + std::to_string(count) + " \"" + outpath + "\"";
    STARTUPINFOA si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessA(nullptr, &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return false;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    FILE *in = fopen(outpath, "r");
    bool ok = code == 0 && in && fscanf(in, "%lf %lf %lf %lf %lf", &ns[0], &ns[1], &ns[2], &ns[3], &ns[4]) == 5;
    if (in)
        fclose(in);
    DeleteFileA(outpath);
    return ok;
}

// ---- wrapping: a kit class with its COM wrapper, a COM class with its kit proxy ------------------

const IID IID_IBenchThing = {0x1b2c3d4e, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x01}};

struct IBenchThing : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Get(LONG *value) = 0;
};

int32_t thingGet(void *, int32_t *value)
{
    *value = 7;
    return VXL_OK;
}
using ThingGetSlot = int32_t (*)(vxl_if, int32_t *);

int32_t thingCreate(void **implslot, vxl_if)
{
    *implslot = nullptr;
    return VXL_OK;
}

class ThingWrapper final : public Wrapper<IBenchThing> {
public:
    using Wrapper::Wrapper;
    HRESULT STDMETHODCALLTYPE Get(LONG *value) override
    {
        int32_t v = 0;
        int32_t status = VXL_METHOD(pif_, 0, ThingGetSlot)(pif_, &v);
        *value = v;
        return vxl_com_err2hret(status);
    }
};

int32_t makeThingWrapper(vxl_if pif, IUnknown **result)
{
    *result = new ThingWrapper(pif);
    return VXL_OK;
}

class ComThing final : public IBenchThing {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IBenchThing)) {
            *out = nullptr;
            return E_NOINTERFACE;
        }
        *out = static_cast<IBenchThing *>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE Get(LONG *value) override
    {
        *value = 7;
        return S_OK;
    }

private:
    LONG refs_ = 1;
};

int32_t proxyGet(void *impl, int32_t *value)
{
    LONG v = 0;
    HRESULT hr = static_cast<IBenchThing *>(impl)->Get(&v);
    *value = v;
    return vxl_com_hret2err(hr);
}

int32_t refuseCreate(void **, vxl_if)
{
    return VXL_EFAIL;
}

const vxl_paramdef valueParam = {"value", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef *const getParams[] = {&valueParam};
const vxl_methoddef getMethod = {"get", 1, getParams};
const vxl_methoddef *const thingMethods[] = {&getMethod};
const vxl_interfacedef IThing = {"IBenchThing", 1, thingMethods};
const vxl_fn thingFns[] = {reinterpret_cast<vxl_fn>(thingGet)};
const vxl_componentinterface thingEntry = {&IThing, thingFns};
const vxl_componentinterface *const thingEntries[] = {&thingEntry};
const vxl_componentdef thingClass = {"BenchThing", 1, thingEntries, thingCreate, destroyAdder, nullptr};
const vxl_fn proxyFns[] = {reinterpret_cast<vxl_fn>(proxyGet)};
const vxl_componentinterface proxyEntry = {&IThing, proxyFns};
const vxl_componentinterface *const proxyEntries[] = {&proxyEntry};
const vxl_componentdef proxyClass = {"IBenchThing_com_proxy", 1, proxyEntries, refuseCreate,
                                     vxl_com_wrapperdestructor, vxl_com_wrappergetinterface};

const vxl_interfacedef IAdder = {"IAdder", 1, addMethods};
const vxl_componentinterface adderEntry = {&IAdder, addFunctions};
const vxl_componentinterface *const adderEntries[] = {&adderEntry};
const vxl_componentdef adderClass = {"BenchAdder", 1, adderEntries, createAdder, destroyAdder, nullptr};

const vxl_componentdef *const components[] = {&adderClass, &thingClass, &proxyClass, nullptr};
const vxl_interfacedef *const interfaces[] = {&IAdder, &IThing, nullptr};

const vxl_comifinfo thingInfo = {"IBenchThing", IID_IBenchThing, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                 makeThingWrapper, nullptr, nullptr, nullptr};
const vxl_comifinfo *const comInterfaces[] = {&thingInfo, nullptr};
const vxl_comcomponentinfo *const comComponents[] = {nullptr};
const vxl_comlibinfo libinfo = {"vexal_bench.exe", GUID_NULL};

// ---- two threads -------------------------------------------------------------------------------
// Two workers that live for the whole run (each keeps its own stripe), each
// creating and releasing objects of the one class when told.

class Workers {
public:
    Workers()
    {
        for (int w = 0; w < 2; ++w) {
            go_[w] = CreateEventA(nullptr, FALSE, FALSE, nullptr);
            done_[w] = CreateEventA(nullptr, FALSE, FALSE, nullptr);
            threads_[w] = std::thread([this, w] { loop(w); });
        }
    }
    ~Workers()
    {
        iterations_ = -1;
        for (int w = 0; w < 2; ++w) {
            SetEvent(go_[w]);
            threads_[w].join();
            CloseHandle(go_[w]);
            CloseHandle(done_[w]);
        }
    }
    // Seconds for `workers` workers to make `iterations` lifecycles each
    // (or, with control set, as many calls of a function of their own,
    // which shows how far the machine lets two threads scale at the time).
    double run(int workers, int64_t iterations, bool control = false)
    {
        iterations_ = iterations;
        control_ = control;
        double start = benchNow();
        for (int w = 0; w < workers; ++w)
            SetEvent(go_[w]);
        WaitForMultipleObjects(static_cast<DWORD>(workers), done_, TRUE, INFINITE);
        return benchNow() - start;
    }

private:
    void loop(int w)
    {
        for (;;) {
            WaitForSingleObject(go_[w], INFINITE);
            int64_t n = iterations_;
            if (n < 0)
                return;
            Counter own = {0};
            for (int64_t i = 0; control_ && i < n; ++i)
                own.total += addDirect(&own, i) & 1;
            for (int64_t i = 0; !control_ && i < n; ++i) {
                vxl_if obj = nullptr;
                vxl_createinstance("BenchAdder", nullptr, &obj);
                vxl_decref(obj);
            }
            SetEvent(done_[w]);
        }
    }

    HANDLE go_[2];
    HANDLE done_[2];
    std::thread threads_[2];
    std::atomic<int64_t> iterations_{0};
    std::atomic<bool> control_{false};
};

// The same arguments as a typical trace line, to a function that does nothing.
__attribute__((noipa)) void emptyLog(const char *, ...) {}

} // namespace

int main(int argc, char **argv)
{
    _putenv("VXLLOGNAME="); // tracing off: an empty name counts as unset
    if (argc == 4 && strcmp(argv[1], "--scale") == 0)
        return runScale(atoi(argv[2]), argv[3]);

    vxl_init();
    if (vxl_register("bench", components, interfaces) != VXL_OK) {
        fprintf(stderr, "vxl_register failed\n");
        return 1;
    }
    vxl_com_register(&libinfo, comComponents, comInterfaces);
    std::vector<Row> rows;

    // Look-ups and creation, 100,000 classes against 10: the children take
    // turns, the best figure of each kind counts.
    double few[5] = {1e30, 1e30, 1e30, 1e30, 1e30}, many[5] = {1e30, 1e30, 1e30, 1e30, 1e30};
    for (int turn = 0; turn < 3; ++turn) {
        double ns[5];
        if (!scaleChild(10, ns)) {
            fprintf(stderr, "scale child (10) failed\n");
            return 1;
        }
        for (int k = 0; k < 5; ++k)
            few[k] = std::min(few[k], ns[k]);
        if (!scaleChild(100000, ns)) {
            fprintf(stderr, "scale child (100000) failed\n");
            return 1;
        }
        for (int k = 0; k < 5; ++k)
            many[k] = std::min(many[k], ns[k]);
    }
    const char *scaleFigures[5] = {
        "create + release, 100,000 classes vs 10",      "vxl_findcomponentdef, 100,000 vs 10",
        "vxl_com_getifinfo, 100,000 vs 10",             "vxl_com_getifinfobyiid, 100,000 vs 10",
        "vxl_com_findcomponentbyclsid, 100,000 vs 10",
    };
    for (int k = 0; k < 5; ++k)
        rows.push_back({scaleFigures[k], many[k], few[k], "ns", Target::AtMost, 1.5});

    // Calls and creation against a virtual call.
    vxl_if pif = nullptr;
    if (vxl_createinstance("BenchAdder", "IAdder", &pif) != VXL_OK) {
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
    auto logCalls = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_log("decref(%x) = %d\n", VXL_PTR(pif), static_cast<int>(i));
    };
    auto emptyCalls = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            emptyLog("decref(%x) = %d\n", VXL_PTR(pif), static_cast<int>(i));
    };
    double direct = 1e30, virt = 1e30, kit = 1e30, lifecycle = 1e30, logged = 1e30, empty = 1e30;
    // Short rounds, many of them: some will find the machine quiet.
    for (int round = 0; round < 100; ++round) {
        direct = std::min(direct, timeRound(200000, directCalls));
        virt = std::min(virt, timeRound(200000, virtualCalls));
        kit = std::min(kit, timeRound(200000, kitCalls));
        lifecycle = std::min(lifecycle, timeRound(20000, lifecycles));
        logged = std::min(logged, timeRound(200000, logCalls));
        empty = std::min(empty, timeRound(200000, emptyCalls));
    }
    rows.push_back({"create + release of a cached class vs C++ virtual call", lifecycle, virt, "ns", Target::AtMost,
                    30});
    rows.push_back({"kit slot + stub call vs C++ virtual call", kit, virt, "ns", Target::AtMost, 1.3});
    rows.push_back({"direct C call vs C++ virtual call", direct, virt, "ns", Target::None, 0});

    // Crossings against an AddRef + Release pair.
    vxl_if thing = nullptr;
    vxl_createinstance("BenchThing", "IBenchThing", &thing);
    IUnknown *held = vxl_wrapptr(thing, "IBenchThing", "com"); // keeps the wrapper alive
    auto *com = new ComThing;
    vxl_if heldProxy = vxl_unwrapptr(com, "IBenchThing", "com"); // keeps the proxy alive
    vxl_if fresh = nullptr;
    vxl_createinstance("BenchThing", "IBenchThing", &fresh);
    auto *freshCom = new ComThing;
    if (!thing || !held || !heldProxy || !fresh) {
        fprintf(stderr, "setting up the crossings failed\n");
        return 1;
    }
    IUnknown *volatile hiddenCom = com;
    auto addrefRelease = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            hiddenCom->AddRef();
            hiddenCom->Release();
        }
    };
    auto wrapFound = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_wrapptr(thing, "IBenchThing", "com")->Release();
    };
    auto unwrapFound = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_decref(vxl_unwrapptr(com, "IBenchThing", "com"));
    };
    auto wrapNew = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_wrapptr(fresh, "IBenchThing", "com")->Release(); // row made and deleted
    };
    auto unwrapNew = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_decref(vxl_unwrapptr(freshCom, "IBenchThing", "com")); // proxy made and freed
    };
    double pair = 1e30, wf = 1e30, uf = 1e30, wn = 1e30, un = 1e30;
    for (int round = 0; round < 100; ++round) {
        pair = std::min(pair, timeRound(100000, addrefRelease));
        wf = std::min(wf, timeRound(20000, wrapFound));
        uf = std::min(uf, timeRound(20000, unwrapFound));
        wn = std::min(wn, timeRound(2000, wrapNew));
        un = std::min(un, timeRound(2000, unwrapNew));
    }
    rows.push_back({"vxl_wrapptr (already wrapped) + Release vs AddRef+Release", wf, pair, "ns", Target::AtMost, 10});
    rows.push_back({"vxl_unwrapptr (already unwrapped) + decref vs AddRef+Release", uf, pair, "ns", Target::AtMost,
                    10});
    rows.push_back({"vxl_wrapptr (new wrapper) + Release vs AddRef+Release", wn, pair, "ns", Target::None, 0});
    rows.push_back({"vxl_unwrapptr (new proxy) + decref vs AddRef+Release", un, pair, "ns", Target::None, 0});

    // Throughput of two threads against one, on one cached class.
    {
        Workers workers;
        // The control (each thread calling a function on data of its own)
        // takes turns with the real thing: it shows how far the machine let
        // two threads scale while they were measured.
        constexpr int64_t kLifecycles = 50000, kCalls = 2000000;
        double one = 1e30, two = 1e30, controlOne = 1e30, controlTwo = 1e30;
        for (int round = 0; round < 60; ++round) {
            one = std::min(one, workers.run(1, kLifecycles));
            two = std::min(two, workers.run(2, kLifecycles));
            controlOne = std::min(controlOne, workers.run(1, kCalls, true));
            controlTwo = std::min(controlTwo, workers.run(2, kCalls, true));
        }
        rows.push_back({"2 threads vs 1, create + release of one cached class", 2 * kLifecycles / two / 1e6,
                        kLifecycles / one / 1e6, "M/s", Target::AtLeast, 1.6});
        rows.push_back({"(machine) 2 threads vs 1, direct calls on their own data", 2 * kCalls / controlTwo / 1e6,
                        kCalls / controlOne / 1e6, "M/s", Target::None, 0});
    }

    rows.push_back({"trace-log call with no log file vs empty call", logged, empty, "ns", Target::WithinNs, 2});

    printTable(rows);

    vxl_decref(fresh);
    freshCom->Release();
    vxl_decref(heldProxy);
    com->Release();
    held->Release();
    vxl_decref(thing);
    vxl_decref(pif);
    delete adder;
    return 0;
}
