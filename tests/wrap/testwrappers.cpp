// A wrapper library for the test interfaces ICounter and INamed, as a
// component vendor would write one: COM wrapper classes with their makers,
// and the kit proxy classes "<interface>_<type>_proxy". It registers both
// with the runtime when it loads; the runtime finds it through the wrapper
// registry and loads it on demand. A test may set a hook that a wrapper or
// proxy calls when its count has reached 0, before it calls back.
#include "testifaces.h"

#include <windows.h>

#include <atomic>

namespace {

std::atomic<LONG> g_livewrappers{0};
void (*g_dyinghook)() = nullptr;

void dying()
{
    if (g_dyinghook)
        g_dyinghook();
}

// ---- COM wrappers ------------------------------------------------------------------------
// Each keeps its own kit reference on the interface it wraps and answers
// QueryInterface through the runtime, so all wrappers of one kit object
// share one COM identity.

template <class Itf> class Wrapper : public Itf {
public:
    explicit Wrapper(vxl_if pif) : pif_(pif)
    {
        pif_->slots->incref(pif_);
        ++g_livewrappers;
    }
    virtual ~Wrapper() { --g_livewrappers; }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **result) override
    {
        return vxl_com_wrapperqueryinterface(iid, result, this, pif_);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0) {
            dying();
            vxl_com_releasewrapper(this, pif_);
            pif_->slots->decref(pif_);
            delete this;
        }
        return left;
    }

protected:
    vxl_if pif_;

private:
    LONG refs_ = 1;
};

template <class Itf> class CounterWrapper : public Wrapper<Itf> {
public:
    using Wrapper<Itf>::Wrapper;
    HRESULT STDMETHODCALLTYPE Add(LONG delta) override
    {
        return vxl_com_err2hret(VXL_METHOD(this->pif_, 0, counter_add_slot)(this->pif_, delta));
    }
    HRESULT STDMETHODCALLTYPE Get(LONG *value) override
    {
        int32_t v = 0, status = VXL_METHOD(this->pif_, 1, counter_get_slot)(this->pif_, &v);
        *value = v;
        return vxl_com_err2hret(status);
    }
};

// The "comS" form, a dual interface; its dispatch side is not used here.
class CounterDispatchWrapper : public CounterWrapper<IVxCounterS> {
public:
    using CounterWrapper<IVxCounterS>::CounterWrapper;
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *count) override
    {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *, UINT *) override
    {
        return E_NOTIMPL;
    }
};

class NamedWrapper : public Wrapper<IVxNamed> {
public:
    using Wrapper<IVxNamed>::Wrapper;
    HRESULT STDMETHODCALLTYPE Label(BSTR *text) override
    {
        const char *label = nullptr;
        int32_t status = VXL_METHOD(pif_, 0, named_label_slot)(pif_, &label);
        *text = status == VXL_OK ? vxl_com_str2bstr(label) : nullptr;
        return vxl_com_err2hret(status);
    }
};

template <class W> int32_t makeWrapper(vxl_if pif, IUnknown **result)
{
    *result = static_cast<IUnknown *>(new W(pif));
    return VXL_OK;
}

// ---- kit proxies ----------------------------------------------------------------------------
// The implementation pointer of a proxy is the COM interface it stands for.

template <class Itf> int32_t proxyAdd(void *impl, int32_t delta)
{
    return vxl_com_hret2err(static_cast<Itf *>(impl)->Add(delta));
}
template <class Itf> int32_t proxyGet(void *impl, int32_t *value)
{
    LONG v = 0;
    HRESULT hr = static_cast<Itf *>(impl)->Get(&v);
    *value = v;
    return vxl_com_hret2err(hr);
}
int32_t proxyLabel(void *impl, const char **text)
{
    static thread_local char *last = nullptr; // kept so the caller need not free it
    BSTR label = nullptr;
    HRESULT hr = static_cast<IVxNamed *>(impl)->Label(&label);
    vxl_free(last);
    last = vxl_com_bstr2str(label);
    vxl_com_freebstr(label);
    *text = last;
    return vxl_com_hret2err(hr);
}
int32_t proxyDestroy(void *impl, vxl_if primary)
{
    dying();
    return vxl_com_wrapperdestructor(impl, primary);
}

template <class Itf>
const vxl_fn counterProxyMethods[] = {reinterpret_cast<vxl_fn>(proxyAdd<Itf>), reinterpret_cast<vxl_fn>(proxyGet<Itf>)};
template <class Itf> const vxl_componentinterface counterProxyIface = {&ICounterDef, counterProxyMethods<Itf>};
template <class Itf> const vxl_componentinterface *const counterProxyIfaces[] = {&counterProxyIface<Itf>};
const vxl_fn namedProxyMethods[] = {reinterpret_cast<vxl_fn>(proxyLabel)};
const vxl_componentinterface namedProxyIface = {&INamedDef, namedProxyMethods};
const vxl_componentinterface *const namedProxyIfaces[] = {&namedProxyIface};

// Proxies are made only by the runtime, through vxl_encapsulate: no create.
#define PROXY(name, ifaces) {name, 1, ifaces, nullptr, proxyDestroy, vxl_com_wrappergetinterface}
const vxl_componentdef proxyClassDefs[] = {PROXY("ICounter_com_proxy", counterProxyIfaces<IVxCounter>),
                                           PROXY("ICounter_comS_proxy", counterProxyIfaces<IVxCounterS>),
                                           PROXY("ICounter_comP_proxy", counterProxyIfaces<IVxCounterP>),
                                           PROXY("INamed_com_proxy", namedProxyIfaces)};
const vxl_componentdef *const proxyClasses[] = {&proxyClassDefs[0], &proxyClassDefs[1], &proxyClassDefs[2],
                                                &proxyClassDefs[3], nullptr};
const vxl_interfacedef *const proxyInterfaces[] = {&ICounterDef, &INamedDef, nullptr};

// ---- COM-side records ------------------------------------------------------------------------

const vxl_comifinfo counterInfo = {"ICounter", IID_IVxCounter, IID_IVxCounterS, IID_IVxCounterP, GUID_NULL,
                                   GUID_NULL, makeWrapper<CounterWrapper<IVxCounter>>,
                                   makeWrapper<CounterDispatchWrapper>, makeWrapper<CounterWrapper<IVxCounterP>>,
                                   nullptr};
const vxl_comifinfo namedInfo = {"INamed", IID_IVxNamed, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                 makeWrapper<NamedWrapper>, nullptr, nullptr, nullptr};
const vxl_comifinfo *const comInterfaces[] = {&counterInfo, &namedInfo, nullptr};
const vxl_comcomponentinfo *const comComponents[] = {nullptr};
const vxl_comlibinfo libinfo = {"testwrappers.dll", GUID_NULL};

} // namespace

extern "C" __declspec(dllexport) LONG testwrappers_livewrappers(void)
{
    return g_livewrappers.load();
}

extern "C" __declspec(dllexport) void testwrappers_setdyinghook(void (*hook)())
{
    g_dyinghook = hook;
}

// Registration only allocates and takes the runtime's locks, which is safe
// under the loader lock; the library is never unloaded.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        vxl_register("testwrappers", proxyClasses, proxyInterfaces);
        vxl_com_register(&libinfo, comComponents, comInterfaces);
    }
    return TRUE;
}
