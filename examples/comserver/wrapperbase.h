// What every wrapper library needs, whatever its interfaces: the base
// classes of COM wrappers, the two proxy-class callbacks a library supplies
// itself, and string conversions for both directions. wrappers.cpp builds
// the sample's wrappers and proxies from these; a new wrapper library can
// take this file as it is.
//
// A COM wrapper holds a kit reference on the interface it shows and answers
// QueryInterface through the runtime, so that all wrappers of one kit object
// share one COM identity; when its count reaches 0 it tells the runtime
// before it frees itself. The dual ("comS") forms implement IDispatch from
// the type library embedded in the module, which is what scripts call.
//
// A kit proxy is a kit object whose implementation pointer is the COM
// interface it stands for; its methods call that interface. The runtime
// creates proxies itself (vxl_encapsulate), with the two proxy callbacks
// vxl_com_wrappergetinterface and vxl_com_wrapperdestructor.
#pragma once

#include "vexal.h"

#include <windows.h>

#include <new>

// COM wrappers alive in this module, for DllCanUnloadNow.
inline volatile LONG g_livewrappers = 0;

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

    vxl_if pif_; // the kit interface shown, whose slots the methods call

private:
    LONG refs_ = 1;
};

// Type information of one interface from this module's own type library,
// loaded on first use and kept for the life of the process.
inline ITypeInfo *loadTypeInfo(REFIID iid)
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

// The wrapper maker of wrapper class W, as a vxl_comifinfo record holds it;
// the result is null when no wrapper could be made.
template <class W> int32_t makeWrapper(vxl_if pif, IUnknown **result)
{
    *result = new (std::nothrow) W(pif);
    return *result ? VXL_OK : VXL_ENOMEM;
}

// A kit string returned by a kit method as a BSTR; the kit string is freed.
inline HRESULT returnString(int32_t status, char *text, BSTR *out)
{
    *out = status == VXL_OK ? vxl_com_str2bstr(text) : nullptr;
    vxl_free(text);
    if (status == VXL_OK && !*out)
        status = VXL_ENOMEM;
    return vxl_com_err2hret(status);
}

// ---- kit proxies ---------------------------------------------------------------------

// The COM interface behind a proxy, from its implementation pointer.
template <class Itf> Itf *comOf(void *impl)
{
    return static_cast<Itf *>(impl);
}

// A BSTR returned by a COM method as a kit string; the BSTR is freed.
inline int32_t returnString(HRESULT hr, BSTR text, char **out)
{
    *out = SUCCEEDED(hr) ? vxl_com_bstr2str(text) : nullptr;
    vxl_com_freebstr(text);
    return vxl_com_hret2err(hr);
}

// The create and destroy callbacks of proxy classes. Proxies are made only by
// the runtime, around a COM interface; a client that asks for one by class
// name is refused. The destroy callback runs for the refused object as well,
// which has no COM interface behind it.
inline int32_t refuseProxyCreate(void **, vxl_if)
{
    return VXL_EFAIL;
}
inline int32_t destroyProxy(void *pcomif, vxl_if pif)
{
    return pcomif ? vxl_com_wrapperdestructor(pcomif, pif) : VXL_OK;
}
