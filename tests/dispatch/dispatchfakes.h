// Shared by the dispatch tests: an IDispatch that records what each Invoke
// received and answers a programmed result, VARIANT makers, and method
// definitions made at run time.
#pragma once

#include "dispatchtest.h"
#include "vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace dispatchtest {

inline const HRESULT comApartment = CoInitialize(nullptr); // of the thread that runs the tests

// An Automation object nobody needs to trust. Arguments are recorded as they
// were passed (no copy, no reference taken): read what they point at only
// while the caller still owns it.
struct Recorder : IDispatch {
    struct Call {
        DISPID dispid;
        std::vector<VARIANT> args;
    };
    std::map<std::wstring, DISPID> names; // unknown names fail the look-up
    VARIANT answer = {};                   // copied into each result
    HRESULT invokeResult = S_OK;
    std::function<void(DISPPARAMS *)> act; // what the callee does with its arguments
    std::vector<Call> calls;
    LONG refs = 1;

    ~Recorder() { VariantClear(&answer); }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        *out = iid == IID_IUnknown || iid == IID_IDispatch ? this : nullptr;
        return *out ? AddRef(), S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *n) override { return *n = 0, S_OK; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *namelist, UINT count, LCID, DISPID *ids) override
    {
        auto it = count == 1 ? names.find(namelist[0]) : names.end();
        return it == names.end() ? DISP_E_UNKNOWNNAME : (ids[0] = it->second, S_OK);
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS *params, VARIANT *result,
                                     EXCEPINFO *, UINT *) override
    {
        calls.push_back({dispid, {params->rgvarg, params->rgvarg + params->cArgs}});
        if (act)
            act(params);
        if (result)
            VariantCopy(result, &answer);
        return invokeResult;
    }
};

inline VARIANT i4(int32_t value)
{
    VARIANT v;
    V_VT(&v) = VT_I4, V_I4(&v) = value;
    return v;
}
inline VARIANT bstr(const wchar_t *text)
{
    VARIANT v;
    V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(text);
    return v;
}
// A SAFEARRAY of these VARIANTs (a combined value as a callee returns it),
// which takes them over.
inline SAFEARRAY *variants(std::initializer_list<VARIANT> values)
{
    SAFEARRAY *array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    LONG i = 0;
    for (VARIANT v : values)
        SafeArrayPutElement(array, &i, &v), VariantClear(&v), ++i;
    return array;
}

// Method definitions made at run time.
inline vxl_paramdef in(int32_t type, int32_t array = 0) { return {"p", type, VXL_DIR_IN, array, nullptr}; }
inline vxl_paramdef out(int32_t type, int32_t array = 0) { return {"p", type, VXL_DIR_OUT, array, nullptr}; }
inline vxl_paramdef inout(int32_t type, int32_t array = 0) { return {"p", type, VXL_DIR_INOUT, array, nullptr}; }
struct Def {
    Def(const char *name, std::initializer_list<vxl_paramdef> list) : params(list)
    {
        for (auto &p : params)
            pointers.push_back(&p);
        method = {name, static_cast<int32_t>(params.size()), pointers.data()};
    }
    std::vector<vxl_paramdef> params;
    std::vector<const vxl_paramdef *> pointers;
    vxl_methoddef method;
};

} // namespace dispatchtest
