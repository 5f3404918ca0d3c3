// The standard-dispatch test object: oleaut32 builds its IDispatch from the
// type library embedded in this program, so calls arrive exactly as any
// Automation client's would.
#include "dispatchfakes.h"

#include <cstdio>

namespace dispatchtest {

ITypeLib *testTypeLib()
{
    static ITypeLib *typelib = [] {
        WCHAR path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        ITypeLib *loaded = nullptr;
        LoadTypeLibEx(path, REGKIND_NONE, &loaded);
        return loaded;
    }();
    return typelib;
}

HRESULT Callee::Mixed(int a, double b, BSTR c, BSTR *r)
{
    WCHAR text[64];
    swprintf(text, 64, L"%d %g %ls", a, b, c ? c : L"");
    *r = SysAllocString(text);
    return S_OK;
}

HRESULT Callee::Twice(int x, int *r)
{
    *r = 2 * x;
    return S_OK;
}

// In/out as Automation passes it: a VARIANT that refers to the caller's int.
HRESULT Callee::Bump(VARIANT *v)
{
    if (V_VT(v) != (VT_BYREF | VT_I4))
        return DISP_E_TYPEMISMATCH;
    *V_I4REF(v) += 10;
    return S_OK;
}

HRESULT Callee::Sum(SAFEARRAY *values, double *r)
{
    *r = 0;
    LONG lo = 0, hi = -1;
    SafeArrayGetLBound(values, 1, &lo);
    SafeArrayGetUBound(values, 1, &hi);
    for (LONG i = lo; i <= hi; ++i) {
        VARIANT v;
        VariantInit(&v);
        SafeArrayGetElement(values, &i, &v);
        if (SUCCEEDED(VariantChangeType(&v, &v, 0, VT_R8)))
            *r += V_R8(&v);
        VariantClear(&v);
    }
    return S_OK;
}

HRESULT Callee::Small(short *r)
{
    *r = -1;
    return S_OK;
}

// Two out values at once: a SAFEARRAY of VARIANTs, int then string.
HRESULT Callee::Pair(int n, VARIANT *r)
{
    SAFEARRAY *values = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    VARIANT v;
    LONG i = 0;
    V_VT(&v) = VT_I4;
    V_I4(&v) = n;
    SafeArrayPutElement(values, &i, &v);
    i = 1;
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = SysAllocString(L"pair");
    SafeArrayPutElement(values, &i, &v);
    VariantClear(&v);
    V_VT(r) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(r) = values;
    return S_OK;
}

HRESULT Callee::Nothing()
{
    ++nothingCalls;
    return S_OK;
}

} // namespace dispatchtest
