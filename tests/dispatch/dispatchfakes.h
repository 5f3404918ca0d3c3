// Test doubles of the dispatch tests: an IDispatch that records what each
// Invoke received and answers a programmed result, and objects served by
// oleaut32's standard dispatch over a vtable.
#pragma once

#include "dispatchtest.h"
#include "vexal.h"

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace dispatchtest {

// An Automation object nobody needs to trust: it numbers the names it is
// given, records every Invoke, and may write into by-reference arguments.
class Recorder : public IDispatch {
public:
    Recorder() { VariantInit(&answer); }
    ~Recorder()
    {
        VariantClear(&answer);
        forget();
    }
    // Drops the recorded calls and the references their copies hold.
    void forget()
    {
        for (auto &call : calls)
            for (auto &v : call.args)
                if (!(V_VT(&v) & VT_BYREF))
                    VariantClear(&v);
        calls.clear();
    }

    struct Call {
        DISPID dispid;
        UINT cArgs;
        bool hadArgArray;
        std::vector<VARIANT> args;      // copies; by-reference ones as the pointers they were
        std::vector<VARTYPE> innerTags; // tags behind VT_BYREF|VT_VARIANT, else VT_EMPTY
        std::vector<void *> innerRefs;  // and the pointers they held
        std::vector<void *> raw;        // each argument's pointer field as passed
    };

    std::map<std::wstring, DISPID> names; // unknown names fail the look-up
    VARIANT answer;                        // copied into each result
    HRESULT invokeResult = S_OK;
    std::function<void(DISPPARAMS *)> act; // what the callee does with its arguments
    std::vector<Call> calls;
    LONG refs = 1;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (iid == IID_IUnknown || iid == IID_IDispatch) {
            *out = this;
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *n) override
    {
        *n = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *namelist, UINT count, LCID, DISPID *ids) override
    {
        auto it = count == 1 ? names.find(namelist[0]) : names.end();
        if (it == names.end())
            return DISP_E_UNKNOWNNAME;
        ids[0] = it->second;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS *params, VARIANT *result,
                                     EXCEPINFO *, UINT *) override
    {
        Call call{dispid, params->cArgs, params->rgvarg != nullptr, {}, {}, {}, {}};
        for (UINT k = 0; k < params->cArgs; ++k) {
            VARIANT &arg = params->rgvarg[k];
            VARIANT copy;
            VariantInit(&copy);
            if (V_VT(&arg) & VT_BYREF)
                copy = arg;
            else
                VariantCopy(&copy, &arg);
            call.args.push_back(copy);
            VARIANT *inner = V_VT(&arg) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(&arg) : nullptr;
            call.innerTags.push_back(inner ? V_VT(inner) : static_cast<VARTYPE>(VT_EMPTY));
            call.innerRefs.push_back(inner ? V_BYREF(inner) : nullptr);
            call.raw.push_back(V_BYREF(&arg));
        }
        calls.push_back(call);
        if (act)
            act(params);
        if (result)
            VariantCopy(result, &answer);
        return invokeResult;
    }
};

// The type library embedded in this test program.
ITypeLib *testTypeLib();

// A vtable object whose IDispatch is oleaut32's standard dispatch, built
// from the interface's type information in the embedded type library; the
// object itself answers only its own interface.
template <class Itf> class StdDispatched : public Itf {
public:
    explicit StdDispatched(REFIID iid) : iid_(iid)
    {
        ITypeInfo *info = nullptr;
        testTypeLib()->GetTypeInfoOfGuid(iid, &info);
        IUnknown *standard = nullptr;
        CreateStdDispatch(this, static_cast<Itf *>(this), info, &standard);
        standard->QueryInterface(IID_IDispatch, reinterpret_cast<void **>(&dispatch_));
        standard->Release();
        info->Release();
    }
    virtual ~StdDispatched() { dispatch_->Release(); }
    IDispatch *dispatch() { return dispatch_; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (iid == IID_IDispatch) {
            dispatch_->AddRef();
            *out = dispatch_;
            return S_OK;
        }
        *out = iid == IID_IUnknown || iid == iid_ ? static_cast<Itf *>(this) : nullptr;
        return *out ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    // Calls by name reach the standard dispatch, never these.
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *,
                                     UINT *) override
    {
        return E_NOTIMPL;
    }

private:
    IID iid_;
    IDispatch *dispatch_ = nullptr;
};

class Callee : public StdDispatched<ICallee> {
public:
    Callee() : StdDispatched(IID_ICallee) {}
    int nothingCalls = 0;
    HRESULT STDMETHODCALLTYPE Mixed(int a, double b, BSTR c, BSTR *r) override;
    HRESULT STDMETHODCALLTYPE Twice(int x, int *r) override;
    HRESULT STDMETHODCALLTYPE Bump(VARIANT *v) override;
    HRESULT STDMETHODCALLTYPE Sum(SAFEARRAY *values, double *r) override;
    HRESULT STDMETHODCALLTYPE Small(short *r) override;
    HRESULT STDMETHODCALLTYPE Pair(int n, VARIANT *r) override;
    HRESULT STDMETHODCALLTYPE Nothing() override;
};

// Parameter definitions and method definitions made at run time.
inline vxl_paramdef param(int32_t type, int32_t direction, int32_t array = 0)
{
    return {"p", type, direction, array, nullptr};
}
inline vxl_paramdef in(int32_t type, int32_t array = 0)
{
    return param(type, VXL_DIR_IN, array);
}
inline vxl_paramdef out(int32_t type, int32_t array = 0)
{
    return param(type, VXL_DIR_OUT, array);
}
inline vxl_paramdef inout(int32_t type, int32_t array = 0)
{
    return param(type, VXL_DIR_INOUT, array);
}

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
