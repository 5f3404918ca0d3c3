// Cost of crossing between the kit and COM: wrapping a kit object that is
// already wrapped, unwrapping a COM object that is already unwrapped, and
// making and dropping a wrapper or proxy each time. The wrapper class and the
// proxy class live in this program, registered as a wrapper library would.
// Tracing is off. Ratios are against one AddRef + Release pair on a COM
// object, measured in the same run.
#include "benchtime.h"
#include "vexal.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

const IID IID_IBenchThing = {0x1b2c3d4e, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x01}};

struct IBenchThing : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Get(LONG *value) = 0;
};

// ---- the kit class and its COM wrapper -------------------------------------------

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
int32_t thingDestroy(void *, vxl_if)
{
    return VXL_OK;
}

class ThingWrapper final : public IBenchThing {
public:
    explicit ThingWrapper(vxl_if pif) : pif_(pif) { pif_->slots->incref(pif_); }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        return vxl_com_wrapperqueryinterface(iid, out, this, pif_);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0) {
            vxl_com_releasewrapper(this, pif_);
            pif_->slots->decref(pif_);
            delete this;
        }
        return left;
    }
    HRESULT STDMETHODCALLTYPE Get(LONG *value) override
    {
        int32_t v = 0;
        int32_t status = VXL_METHOD(pif_, 0, ThingGetSlot)(pif_, &v);
        *value = v;
        return vxl_com_err2hret(status);
    }

private:
    vxl_if pif_;
    LONG refs_ = 1;
};

int32_t makeThingWrapper(vxl_if pif, IUnknown **result)
{
    *result = new ThingWrapper(pif);
    return VXL_OK;
}

// ---- a plain COM object and the kit proxy class that stands for it ---------------------

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
const vxl_componentdef thingClass = {"BenchThing", 1, thingEntries, thingCreate, thingDestroy, nullptr};

const vxl_fn proxyFns[] = {reinterpret_cast<vxl_fn>(proxyGet)};
const vxl_componentinterface proxyEntry = {&IThing, proxyFns};
const vxl_componentinterface *const proxyEntries[] = {&proxyEntry};
const vxl_componentdef proxyClass = {"IBenchThing_com_proxy", 1, proxyEntries, refuseCreate,
                                     vxl_com_wrapperdestructor, vxl_com_wrappergetinterface};

const vxl_componentdef *const components[] = {&thingClass, &proxyClass, nullptr};
const vxl_interfacedef *const interfaces[] = {&IThing, nullptr};

const vxl_comifinfo thingInfo = {"IBenchThing", IID_IBenchThing, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                 makeThingWrapper, nullptr, nullptr, nullptr};
const vxl_comifinfo *const comInterfaces[] = {&thingInfo, nullptr};
const vxl_comcomponentinfo *const comComponents[] = {nullptr};
const vxl_comlibinfo libinfo = {"bench_wrap.exe", GUID_NULL};

// ---- timing --------------------------------------------------------------------------

constexpr int ROUNDS = 20;

} // namespace

int main(int argc, char **argv)
{
    _putenv("VXLLOGNAME="); // tracing off
    int64_t iterations = argc > 1 ? atoll(argv[1]) : 200000; // per kind and round

    vxl_init();
    if (vxl_register("bench_wrap", components, interfaces) != VXL_OK) {
        fprintf(stderr, "vxl_register failed\n");
        return 1;
    }
    vxl_com_register(&libinfo, comComponents, comInterfaces);

    vxl_if thing = nullptr;
    vxl_createinstance("BenchThing", "IBenchThing", &thing);
    IUnknown *held = vxl_wrapptr(thing, "IBenchThing", "com"); // keeps the wrapper alive
    auto *com = new ComThing;
    vxl_if heldProxy = vxl_unwrapptr(com, "IBenchThing", "com"); // keeps the proxy alive
    if (!thing || !held || !heldProxy) {
        fprintf(stderr, "setting up the crossings failed\n");
        return 1;
    }

    IUnknown *volatile hidden = com;
    auto addrefRelease = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            hidden->AddRef();
            hidden->Release();
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
    vxl_if fresh = nullptr;
    vxl_createinstance("BenchThing", "IBenchThing", &fresh);
    auto wrapNew = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_wrapptr(fresh, "IBenchThing", "com")->Release(); // row made and deleted
    };
    auto *freshCom = new ComThing;
    auto unwrapNew = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i)
            vxl_decref(vxl_unwrapptr(freshCom, "IBenchThing", "com")); // proxy made and freed
    };

    double base = 1e30, wf = 1e30, uf = 1e30, wn = 1e30, un = 1e30;
    for (int round = 0; round < ROUNDS; ++round) {
        base = std::min(base, timeRound(iterations, addrefRelease));
        wf = std::min(wf, timeRound(iterations, wrapFound));
        uf = std::min(uf, timeRound(iterations, unwrapFound));
        wn = std::min(wn, timeRound(iterations / 4, wrapNew));
        un = std::min(un, timeRound(iterations / 4, unwrapNew));
    }

    printf("%lld operations per kind and round (a quarter for the new ones); best of %d rounds\n",
           static_cast<long long>(iterations), ROUNDS);
    printf("%-44s %10s %14s\n", "kind", "ns/op", "vs AddRef+Release");
    printf("%-44s %10.1f %13.2fx\n", "COM AddRef + Release", base, 1.0);
    printf("%-44s %10.1f %13.2fx\n", "vxl_wrapptr (already wrapped) + Release", wf, wf / base);
    printf("%-44s %10.1f %13.2fx\n", "vxl_unwrapptr (already unwrapped) + decref", uf, uf / base);
    printf("%-44s %10.1f %13.2fx\n", "vxl_wrapptr (new wrapper) + Release", wn, wn / base);
    printf("%-44s %10.1f %13.2fx\n", "vxl_unwrapptr (new proxy) + decref", un, un / base);

    vxl_decref(fresh);
    freshCom->Release();
    vxl_decref(heldProxy);
    com->Release();
    held->Release();
    vxl_decref(thing);
    return 0;
}
