// COM wrappers and kit proxies of ICalculator and IGreeter (see wrappers.h).
//
// A COM wrapper holds a kit reference on the interface it shows and answers
// QueryInterface through the runtime, so that all wrappers of one kit object
// share one COM identity; when its count reaches 0 it tells the runtime
// before it frees itself. The dual ("comS") forms implement IDispatch from
// the type library embedded in this module, which is what scripts call.
//
// A kit proxy is a kit object whose implementation pointer is the COM
// interface it stands for; its methods call that interface. The runtime
// creates proxies itself (vxl_encapsulate), with the two proxy callbacks
// vxl_com_wrappergetinterface and vxl_com_wrapperdestructor.
#include "wrappers.h"

#include "calculator.h"
#include "vxsample.h"

#include <windows.h>

#include <new>
#include <vector>

namespace {

// CLSID of the connection-point class "CPICalculator".
const CLSID CLSID_CPICalculator = {0x6bc3821b, 0x8673, 0x458a, {0x91, 0xfa, 0xac, 0x69, 0xa3, 0x80, 0x22, 0x79}};

volatile LONG g_livewrappers = 0;

// ---- COM wrappers ------------------------------------------------------------------

template <class Itf> class Wrapper : public Itf {
public:
    explicit Wrapper(vxl_if pif) : pif_(pif)
    {
        pif_->slots->incref(pif_);
        InterlockedIncrement(&g_livewrappers);
    }

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

protected:
    virtual ~Wrapper() { InterlockedDecrement(&g_livewrappers); }

    template <class Slot> Slot method(int j) const { return VXL_METHOD(pif_, j, Slot); }
    vxl_if pif_;

private:
    LONG refs_ = 1;
};

// Type information of one interface from this module's own type library,
// loaded on first use and kept for the life of the process.
ITypeInfo *loadTypeInfo(REFIID iid)
{
    HMODULE self = nullptr;
    wchar_t path[MAX_PATH];
    ITypeLib *typelib = nullptr;
    ITypeInfo *info = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCWSTR>(&loadTypeInfo), &self) &&
        GetModuleFileNameW(self, path, MAX_PATH) && SUCCEEDED(LoadTypeLibEx(path, REGKIND_NONE, &typelib))) {
        typelib->GetTypeInfoOfGuid(iid, &info);
        typelib->Release();
    }
    return info;
}

template <class Itf> ITypeInfo *typeInfo()
{
    static ITypeInfo *const info = loadTypeInfo(__uuidof(Itf));
    return info;
}

// IDispatch of a dual interface: the type library maps names and calls the
// interface's own methods.
template <class Itf> class DispatchWrapper : public Wrapper<Itf> {
public:
    using Wrapper<Itf>::Wrapper;

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *count) override
    {
        if (!count)
            return E_POINTER;
        *count = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo **out) override
    {
        if (!out)
            return E_POINTER;
        *out = index == 0 ? typeInfo<Itf>() : nullptr;
        if (!*out)
            return index == 0 ? E_UNEXPECTED : DISP_E_BADINDEX;
        (*out)->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *names, UINT count, LCID, DISPID *ids) override
    {
        ITypeInfo *info = typeInfo<Itf>();
        return info ? DispGetIDsOfNames(info, names, count, ids) : E_UNEXPECTED;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS *params, VARIANT *result,
                                     EXCEPINFO *exception, UINT *argerror) override
    {
        ITypeInfo *info = typeInfo<Itf>();
        return info ? DispInvoke(static_cast<Itf *>(this), info, id, flags, params, result, exception, argerror)
                    : E_UNEXPECTED;
    }
};

// A kit string returned by a kit method as a BSTR; the kit string is freed.
HRESULT returnString(int32_t status, char *text, BSTR *out)
{
    *out = status == VXL_OK ? vxl_com_str2bstr(text) : nullptr;
    vxl_free(text);
    if (status == VXL_OK && !*out)
        status = VXL_ENOMEM;
    return vxl_com_err2hret(status);
}

template <class Base> class CalculatorWrapper : public Base {
public:
    using Base::Base;

    HRESULT STDMETHODCALLTYPE Add(LONG a, LONG b, LONG *sum) override
    {
        if (!sum)
            return E_POINTER;
        int32_t value = 0;
        int32_t status = this->template method<vxsample_add_slot>(VXSAMPLE_ADD)(this->pif_, a, b, &value);
        *sum = value;
        return vxl_com_err2hret(status);
    }
    HRESULT STDMETHODCALLTYPE Scale(double value, double factor, double *result) override
    {
        if (!result)
            return E_POINTER;
        return vxl_com_err2hret(
            this->template method<vxsample_scale_slot>(VXSAMPLE_SCALE)(this->pif_, value, factor, result));
    }
    HRESULT STDMETHODCALLTYPE Describe(BSTR label, double value, BSTR *text) override
    {
        if (!text)
            return E_POINTER;
        char *kitlabel = vxl_com_bstr2str(label);
        char *kittext = nullptr;
        int32_t status =
            this->template method<vxsample_describe_slot>(VXSAMPLE_DESCRIBE)(this->pif_, kitlabel, value, &kittext);
        vxl_free(kitlabel);
        return returnString(status, kittext, text);
    }
};

// The scripts' form also serves the outgoing interface: it keeps the sinks
// connected through it and fires Overflow to them, through the runtime,
// which calls each sink by its own number for the event's name. Sinks are
// called on the wrapper's own thread, as its apartment requires.
class CalculatorDispatchWrapper final : public CalculatorWrapper<DispatchWrapper<IVxCalculatorDisp>> {
public:
    using CalculatorWrapper::CalculatorWrapper;
    ~CalculatorDispatchWrapper() override
    {
        for (IDispatch *sink : sinks_)
            sink->Release();
    }

    HRESULT STDMETHODCALLTYPE Listen(IDispatch *sink) override
    {
        if (!sink)
            return E_POINTER;
        try {
            sinks_.push_back(sink);
        } catch (const std::bad_alloc &) {
            return E_OUTOFMEMORY;
        }
        sink->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Add(LONG a, LONG b, LONG *sum) override
    {
        HRESULT hr = CalculatorWrapper::Add(a, b, sum);
        if (hr == vxl_com_err2hret(VXSAMPLE_E_OVERFLOW) && !sinks_.empty()) {
            VARIANT args[2]; // last argument first
            V_VT(&args[0]) = VT_I4;
            V_I4(&args[0]) = b;
            V_VT(&args[1]) = VT_I4;
            V_I4(&args[1]) = a;
            DISPPARAMS params = {args, nullptr, 2, 0};
            vxl_com_cpinvoke("ICalculator", DISPID_OVERFLOW, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD,
                             &params, nullptr, nullptr, nullptr, static_cast<int32_t>(sinks_.size()),
                             sinks_.data());
        }
        return hr;
    }

private:
    static constexpr DISPID DISPID_OVERFLOW = 1; // as IVxCalculatorEvents numbers it
    std::vector<IDispatch *> sinks_;
};

template <class Base> class GreeterWrapper final : public Base {
public:
    using Base::Base;

    HRESULT STDMETHODCALLTYPE Greet(BSTR name, BSTR *greeting) override
    {
        if (!greeting)
            return E_POINTER;
        char *kitname = vxl_com_bstr2str(name);
        char *kitgreeting = nullptr;
        int32_t status =
            this->template method<vxsample_greet_slot>(VXSAMPLE_GREET)(this->pif_, kitname, &kitgreeting);
        vxl_free(kitname);
        return returnString(status, kitgreeting, greeting);
    }
    HRESULT STDMETHODCALLTYPE Greetings(LONG *count) override
    {
        if (!count)
            return E_POINTER;
        int32_t value = 0;
        int32_t status = this->template method<vxsample_greetings_slot>(VXSAMPLE_GREETINGS)(this->pif_, &value);
        *count = value;
        return vxl_com_err2hret(status);
    }
};

// The wrapper makers the runtime calls; the result is null when no wrapper
// could be made.
template <class W> int32_t makeWrapper(vxl_if pif, IUnknown **result)
{
    *result = new (std::nothrow) W(pif);
    return *result ? VXL_OK : VXL_ENOMEM;
}

// ---- kit proxies ---------------------------------------------------------------------

template <class Itf> Itf *comOf(void *impl)
{
    return static_cast<Itf *>(impl);
}

// A BSTR returned by a COM method as a kit string; the BSTR is freed.
int32_t returnString(HRESULT hr, BSTR text, char **out)
{
    *out = SUCCEEDED(hr) ? vxl_com_bstr2str(text) : nullptr;
    vxl_com_freebstr(text);
    return vxl_com_hret2err(hr);
}

template <class Itf> int32_t proxyAdd(void *impl, int32_t a, int32_t b, int32_t *sum)
{
    LONG value = 0;
    HRESULT hr = comOf<Itf>(impl)->Add(a, b, &value);
    *sum = value;
    return vxl_com_hret2err(hr);
}
template <class Itf> int32_t proxyScale(void *impl, double value, double factor, double *result)
{
    return vxl_com_hret2err(comOf<Itf>(impl)->Scale(value, factor, result));
}
template <class Itf> int32_t proxyDescribe(void *impl, const char *label, double value, char **text)
{
    BSTR comlabel = vxl_com_str2bstr(label);
    BSTR comtext = nullptr;
    HRESULT hr = comOf<Itf>(impl)->Describe(comlabel, value, &comtext);
    vxl_com_freebstr(comlabel);
    return returnString(hr, comtext, text);
}
int32_t proxyGreet(void *impl, const char *name, char **greeting)
{
    BSTR comname = vxl_com_str2bstr(name);
    BSTR comgreeting = nullptr;
    HRESULT hr = comOf<IVxGreeter>(impl)->Greet(comname, &comgreeting);
    vxl_com_freebstr(comname);
    return returnString(hr, comgreeting, greeting);
}
int32_t proxyGreetings(void *impl, int32_t *count)
{
    LONG value = 0;
    HRESULT hr = comOf<IVxGreeter>(impl)->Greetings(&value);
    *count = value;
    return vxl_com_hret2err(hr);
}

// Proxies are made only by the runtime, around a COM interface; a client
// that asks for one by class name is refused. The destroy callback runs for
// the refused object as well, which has no COM interface behind it.
int32_t refuseCreate(void **, vxl_if)
{
    return VXL_EFAIL;
}
int32_t destroyProxy(void *pcomif, vxl_if pif)
{
    return pcomif ? vxl_com_wrapperdestructor(pcomif, pif) : VXL_OK;
}

template <class Itf>
const vxl_fn calculatorProxyFunctions[] = {reinterpret_cast<vxl_fn>(proxyAdd<Itf>),
                                           reinterpret_cast<vxl_fn>(proxyScale<Itf>),
                                           reinterpret_cast<vxl_fn>(proxyDescribe<Itf>)};
const vxl_fn greeterProxyFunctions[] = {reinterpret_cast<vxl_fn>(proxyGreet),
                                        reinterpret_cast<vxl_fn>(proxyGreetings)};

template <class Itf>
const vxl_componentinterface calculatorProxyEntry = {&vxsample_ICalculator, calculatorProxyFunctions<Itf>};
template <class Itf> const vxl_componentinterface *const calculatorProxyEntries[] = {&calculatorProxyEntry<Itf>};
const vxl_componentinterface greeterProxyEntry = {&vxsample_IGreeter, greeterProxyFunctions};
const vxl_componentinterface *const greeterProxyEntries[] = {&greeterProxyEntry};

// Named "<interface>_<wrapper type>_proxy", as the runtime looks them up.
const vxl_componentdef calculatorComProxy = {"ICalculator_com_proxy", 1, calculatorProxyEntries<IVxCalculator>,
                                             refuseCreate, destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef calculatorComSProxy = {"ICalculator_comS_proxy", 1,
                                              calculatorProxyEntries<IVxCalculatorDisp>, refuseCreate,
                                              destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef greeterComSProxy = {"IGreeter_comS_proxy", 1, greeterProxyEntries, refuseCreate,
                                           destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef *const proxyClasses[] = {&calculatorComProxy, &calculatorComSProxy, &greeterComSProxy,
                                                nullptr};

// ---- COM-side records ----------------------------------------------------------------

const vxl_comifinfo calculatorInfo = {
    "ICalculator",
    IID_IVxCalculator,
    IID_IVxCalculatorDisp,
    GUID_NULL, // no "comP" form
    IID_IVxCalculatorEvents,
    CLSID_CPICalculator,
    makeWrapper<CalculatorWrapper<Wrapper<IVxCalculator>>>,
    makeWrapper<CalculatorDispatchWrapper>,
    nullptr,
    nullptr,
};
const vxl_comifinfo greeterInfo = {
    "IGreeter",
    GUID_NULL, // scripts only: the dual form alone
    IID_IVxGreeter,
    GUID_NULL,
    GUID_NULL,
    GUID_NULL,
    nullptr,
    makeWrapper<GreeterWrapper<DispatchWrapper<IVxGreeter>>>,
    nullptr,
    nullptr,
};

} // namespace

const vxl_comifinfo *const vxsample_cominterfaces[] = {&calculatorInfo, &greeterInfo, nullptr};
const char *const vxsample_proxyinterfaces[] = {"ICalculator", "IGreeter", nullptr};

void vxsample_registerwrappers(void)
{
    vxl_register("vxsample wrappers", proxyClasses, vxsample_interfaces);
}

void vxsample_unregisterwrappers(void)
{
    vxl_unregister(proxyClasses, vxsample_interfaces);
}

bool vxsample_wrappersinuse(void)
{
    return g_livewrappers != 0 || vxl_inuse(proxyClasses) != 0;
}
