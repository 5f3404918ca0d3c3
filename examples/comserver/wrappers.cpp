// COM wrappers and kit proxies of ICalculator and IGreeter (see wrappers.h);
// the parts that do not depend on the interface are in wrapperbase.h.
//
// For each interface and each COM form it is offered in, one wrapper class
// whose COM methods call the kit interface's slots; for each kit interface
// and COM form, one proxy class whose kit functions call the COM methods;
// and one vxl_comifinfo record that ties the interface's name to its IIDs
// and wrapper makers.
#include "wrappers.h"

#include "calculator.h"
#include "vxsample.h"
#include "wrapperbase.h"

#include <iterator>
#include <vector>

namespace {

// CLSID of the connection-point class "CPICalculator".
const CLSID CLSID_CPICalculator = {0x6bc3821b, 0x8673, 0x458a, {0x91, 0xfa, 0xac, 0x69, 0xa3, 0x80, 0x22, 0x79}};

// ---- COM wrappers: COM methods that call kit slots ---------------------------------

// The methods of ICalculator for both its COM forms: Base is
// Wrapper<IVxCalculator> ("com") or DispatchWrapper<IVxCalculatorDisp> ("comS").
template <class Base> class CalculatorWrapper : public Base {
public:
    using Base::Base;

    HRESULT STDMETHODCALLTYPE Add(LONG a, LONG b, LONG *sum) override
    {
        if (!sum)
            return E_POINTER;
        int32_t value = 0;
        int32_t status = VXL_METHOD(this->pif_, VXSAMPLE_ADD, vxsample_add_slot)(this->pif_, a, b, &value);
        *sum = value;
        return vxl_com_err2hret(status);
    }
    HRESULT STDMETHODCALLTYPE Scale(double value, double factor, double *result) override
    {
        if (!result)
            return E_POINTER;
        return vxl_com_err2hret(
            VXL_METHOD(this->pif_, VXSAMPLE_SCALE, vxsample_scale_slot)(this->pif_, value, factor, result));
    }
    HRESULT STDMETHODCALLTYPE Describe(BSTR label, double value, BSTR *text) override
    {
        if (!text)
            return E_POINTER;
        char *kitlabel = vxl_com_bstr2str(label);
        char *kittext = nullptr;
        int32_t status =
            VXL_METHOD(this->pif_, VXSAMPLE_DESCRIBE, vxsample_describe_slot)(this->pif_, kitlabel, value, &kittext);
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
            VXL_METHOD(this->pif_, VXSAMPLE_GREET, vxsample_greet_slot)(this->pif_, kitname, &kitgreeting);
        vxl_free(kitname);
        return returnString(status, kitgreeting, greeting);
    }
    HRESULT STDMETHODCALLTYPE Greetings(LONG *count) override
    {
        if (!count)
            return E_POINTER;
        int32_t value = 0;
        int32_t status = VXL_METHOD(this->pif_, VXSAMPLE_GREETINGS, vxsample_greetings_slot)(this->pif_, &value);
        *count = value;
        return vxl_com_err2hret(status);
    }
};

// ---- kit proxies: kit functions that call COM methods ---------------------------------

// The functions of an ICalculator proxy, for a COM interface Itf of either form.
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

// One function per method of the interface definition, in its order.
template <class Itf>
const vxl_fn calculatorProxyFunctions[] = {reinterpret_cast<vxl_fn>(proxyAdd<Itf>),
                                           reinterpret_cast<vxl_fn>(proxyScale<Itf>),
                                           reinterpret_cast<vxl_fn>(proxyDescribe<Itf>)};
const vxl_fn greeterProxyFunctions[] = {reinterpret_cast<vxl_fn>(proxyGreet),
                                        reinterpret_cast<vxl_fn>(proxyGreetings)};
static_assert(std::size(calculatorProxyFunctions<IVxCalculator>) == VXSAMPLE_CALCULATOR_METHODS,
              "one proxy function per method");
static_assert(std::size(greeterProxyFunctions) == VXSAMPLE_GREETER_METHODS, "one proxy function per method");

template <class Itf>
const vxl_componentinterface calculatorProxyEntry = {&vxsample_ICalculator, calculatorProxyFunctions<Itf>};
template <class Itf> const vxl_componentinterface *const calculatorProxyEntries[] = {&calculatorProxyEntry<Itf>};
const vxl_componentinterface greeterProxyEntry = {&vxsample_IGreeter, greeterProxyFunctions};
const vxl_componentinterface *const greeterProxyEntries[] = {&greeterProxyEntry};

// Named "<interface>_<wrapper type>_proxy", as the runtime looks them up.
const vxl_componentdef calculatorComProxy = {"ICalculator_com_proxy", 1, calculatorProxyEntries<IVxCalculator>,
                                             refuseProxyCreate, destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef calculatorComSProxy = {"ICalculator_comS_proxy", 1,
                                              calculatorProxyEntries<IVxCalculatorDisp>, refuseProxyCreate,
                                              destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef greeterComSProxy = {"IGreeter_comS_proxy", 1, greeterProxyEntries, refuseProxyCreate,
                                           destroyProxy, vxl_com_wrappergetinterface};
const vxl_componentdef *const proxyClasses[] = {&calculatorComProxy, &calculatorComSProxy, &greeterComSProxy,
                                                nullptr};

// ---- COM-side records: the forms of each interface and their wrapper makers ----------

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
