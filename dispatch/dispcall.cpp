// Automation calls described by a kit method definition: the variadic
// arguments become the DISPPARAMS of one IDispatch::Invoke. The two exported
// forms build the call alike and differ in what they do with in/out
// parameters and with the result; the shared part is callByDefinition.
//
// No lock and no shared state: the call runs on the caller's thread, and its
// working storage lives on the stack for ordinary parameter counts.
#include "dispatch/paramwalk.h"

#include <windows.h>
#include <oleauto.h>

#include <cstdarg>
#include <climits>
#include <cstring>

namespace {

enum class CallForm { dispcall, direct };

// Stores one out value whose declared type the caller's variable has, when
// the source's tag is one that type accepts. Answers whether the BSTR or
// interface reference of the source now belongs to the caller.
bool storeDeclared(const vxl_paramdef *p, VARIANT *src, void *dst)
{
    VARTYPE vt = V_VT(src);
    if (p->array != 0) {
        if ((vt & VT_ARRAY) && !(vt & VT_BYREF) && V_ARRAY(src))
            SafeArrayCopy(V_ARRAY(src), static_cast<SAFEARRAY **>(dst));
        return false;
    }
    switch (p->type) {
    case VXL_TYPE_INT:
        if (vt == VT_I4)
            *static_cast<int32_t *>(dst) = V_I4(src);
        else if (vt == VT_I2)
            *static_cast<int32_t *>(dst) = V_I2(src);
        return false;
    case VXL_TYPE_FLOAT:
        if (vt == VT_R4)
            *static_cast<float *>(dst) = V_R4(src);
        return false;
    case VXL_TYPE_DOUBLE:
        if (vt == VT_R8)
            *static_cast<double *>(dst) = V_R8(src);
        else if (vt == VT_R4)
            *static_cast<double *>(dst) = V_R4(src);
        return false;
    case VXL_TYPE_STRING:
        if (vt != VT_BSTR)
            return false;
        *static_cast<BSTR *>(dst) = V_BSTR(src);
        return true;
    default:
        if (vt != VT_DISPATCH)
            return false;
        *static_cast<IDispatch **>(dst) = V_DISPATCH(src);
        return true;
    }
}

// Stores the result by its own tag, whatever the parameter declared; the
// width written follows the tag. Answers whether anything was stored.
bool storeByTag(VARIANT *result, void *dst)
{
    VARTYPE vt = V_VT(result);
    if ((vt & VT_ARRAY) && (vt & VT_BYREF)) {
        *static_cast<SAFEARRAY **>(dst) = *V_ARRAYREF(result);
        return true;
    }
    if (vt & VT_ARRAY) {
        *static_cast<SAFEARRAY **>(dst) = V_ARRAY(result);
        return true;
    }
    switch (vt) {
    case VT_I2:
        *static_cast<int32_t *>(dst) = V_I2(result);
        return true;
    case VT_I4:
        *static_cast<int32_t *>(dst) = V_I4(result);
        return true;
    case VT_R4:
        *static_cast<float *>(dst) = V_R4(result);
        return true;
    case VT_R8:
        *static_cast<double *>(dst) = V_R8(result);
        return true;
    case VT_BSTR:
    case VT_DISPATCH:
    case VT_UNKNOWN:
        *static_cast<void **>(dst) = V_BYREF(result);
        return true;
    case VT_BYREF | VT_I2:
        *static_cast<int32_t *>(dst) = *V_I2REF(result);
        return true;
    case VT_BYREF | VT_I4:
    case VT_BYREF | VT_R4:
        memcpy(dst, V_BYREF(result), 4);
        return true;
    case VT_BYREF | VT_R8:
    case VT_BYREF | VT_BSTR:
    case VT_BYREF | VT_DISPATCH:
    case VT_BYREF | VT_UNKNOWN:
        memcpy(dst, V_BYREF(result), 8);
        return true;
    default:
        return false;
    }
}

// Bytes of a name with its terminator; -1 when that does not fit an int.
int32_t nameLength(const char *name)
{
    size_t length = strlen(name);
    return length < static_cast<size_t>(INT32_MAX) ? static_cast<int32_t>(length) + 1 : -1;
}

// The method name in UTF-16. Every ANSI code page maps the ASCII range to
// the same characters, so a name of ASCII alone (nearly every name) is
// widened in place; MultiByteToWideChar costs more than the rest of a call.
void widenName(const char *name, int chars, WCHAR *wide)
{
    for (int i = 0; i < chars; ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c >= 0x80) {
            MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, name, chars, wide, chars);
            return;
        }
        wide[i] = c;
    }
}

// An in argument by value, read from its variadic slot.
void readInArgument(const vxl_paramdef *p, va_list *args, VARIANT *arg)
{
    if (p->array != 0) {
        SAFEARRAY **caller = va_arg(*args, SAFEARRAY **);
        V_ARRAY(arg) = caller ? *caller : nullptr;
    } else {
        switch (p->type) {
        case VXL_TYPE_INT:
            V_I4(arg) = va_arg(*args, int32_t);
            break;
        case VXL_TYPE_FLOAT:
            V_R4(arg) = static_cast<float>(va_arg(*args, double));
            break;
        case VXL_TYPE_DOUBLE:
            V_R8(arg) = va_arg(*args, double);
            break;
        case VXL_TYPE_STRING:
            V_BSTR(arg) = va_arg(*args, BSTR);
            break;
        default:
            V_DISPATCH(arg) = va_arg(*args, IDispatch *);
            break;
        }
    }
    V_VT(arg) = vxl_paramtag(p);
}

// Out values of a dispcall: the result itself for one, the elements of a
// combined value (a SAFEARRAY of VARIANTs) for several.
void deliverOutValues(const vxl_methoddef *method, vxl_paramplan &plan, void **outptrs, VARIANT *result)
{
    bool combined = plan.outCount() > 1;
    SAFEARRAY *values = nullptr;
    // Only a real array of VARIANTs can be fetched into a VARIANT; anything
    // else would be copied with the wrong element size.
    if (combined && V_VT(result) == (VT_ARRAY | VT_VARIANT) && V_ARRAY(result) &&
        (V_ARRAY(result)->fFeatures & FADF_VARIANT) && V_ARRAY(result)->cbElements == sizeof(VARIANT))
        values = V_ARRAY(result);
    LONG index = 0;
    for (int32_t i = 0; i < plan.count(); ++i) {
        if (plan.role(i) != vxl_paramrole::out)
            continue;
        const vxl_paramdef *p = method->params[i];
        if (!combined) {
            if (outptrs[i] && storeDeclared(p, result, outptrs[i]))
                V_VT(result) = VT_EMPTY; // the caller owns it now
            continue;
        }
        VARIANT element;
        VariantInit(&element);
        LONG at = index++;
        if (!values || FAILED(SafeArrayGetElement(values, &at, &element)))
            continue;
        if (!outptrs[i] || !storeDeclared(p, &element, outptrs[i]))
            VariantClear(&element);
    }
}

HRESULT callByDefinition(CallForm form, IDispatch *object, const vxl_methoddef *method, va_list *args)
{
    vxl_paramplan plan(method);
    if (!object)
        return E_POINTER;
    if (!plan.valid())
        return E_INVALIDARG;

    int32_t chars = nameLength(method->name);
    if (chars < 0)
        return E_INVALIDARG;
    vxl_workarray<WCHAR, kStackNameChars> name(chars);
    if (!name.ok())
        return E_OUTOFMEMORY;
    widenName(method->name, chars, name.data());
    LPOLESTR names[1] = {name.data()};
    DISPID dispid = DISPID_UNKNOWN;
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, GetUserDefaultLCID(), &dispid);
    if (FAILED(hr))
        return hr;

    int32_t nin = plan.inCount();
    vxl_workarray<VARIANT, kStackParams> argv(nin);
    vxl_workarray<VARIANT, kStackParams> references(form == CallForm::dispcall ? plan.count() : 0);
    vxl_workarray<void *, kStackParams> outptrs(plan.count());
    if (!argv.ok() || !references.ok() || !outptrs.ok())
        return E_OUTOFMEMORY;
    // Argument elements are written whole below (tag, reserved words and
    // value), which is what VariantInit and a store would do.

    // IDispatch takes its arguments last first.
    int32_t slot = nin;
    void *resultptr = nullptr;
    for (int32_t i = 0; i < plan.count(); ++i) {
        const vxl_paramdef *p = method->params[i];
        switch (plan.role(i)) {
        case vxl_paramrole::length:
            break;
        case vxl_paramrole::in:
            readInArgument(p, args, &argv[--slot]);
            break;
        case vxl_paramrole::inout: {
            VARIANT *arg = &argv[--slot];
            void *caller = va_arg(*args, void *);
            VARIANT *target = static_cast<VARIANT *>(caller);
            if (form == CallForm::dispcall) {
                // The call's own VARIANT refers to the caller's variable, so
                // the callee changes that variable directly.
                target = &references[i];
                V_VT(target) = VT_BYREF | vxl_paramtag(p);
                V_BYREF(target) = caller;
            }
            V_VT(arg) = VT_BYREF | VT_VARIANT;
            V_VARIANTREF(arg) = target;
            break;
        }
        case vxl_paramrole::out:
            outptrs[i] = va_arg(*args, void *);
            resultptr = outptrs[i]; // the direct form serves only the last
            break;
        }
    }

    DISPPARAMS params = {nin ? argv.data() : nullptr, nullptr, static_cast<UINT>(nin), 0};
    VARIANT result;
    VariantInit(&result);
    hr = object->Invoke(dispid, IID_NULL, GetUserDefaultLCID(), DISPATCH_METHOD, &params, &result, nullptr,
                        nullptr);

    if (form == CallForm::dispcall) {
        if (plan.outCount() >= 1)
            deliverOutValues(method, plan, outptrs.data(), &result);
        VariantClear(&result);
        return hr;
    }

    // The direct form gives its in arguments up to the call.
    for (int32_t k = 0; k < nin; ++k)
        VariantClear(&argv[k]);
    // What is stored now belongs to the caller; a result nobody receives
    // is not left to leak.
    if (!resultptr || !storeByTag(&result, resultptr))
        VariantClear(&result);
    return hr;
}

} // namespace

HRESULT vxl_com_dispcall(IDispatch *object, const vxl_methoddef *method, ...)
{
    va_list args;
    va_start(args, method);
    HRESULT hr = callByDefinition(CallForm::dispcall, object, method, &args);
    va_end(args);
    return hr;
}

HRESULT vxl_com_directdispcall(IDispatch *object, const vxl_methoddef *method, ...)
{
    va_list args;
    va_start(args, method);
    HRESULT hr = callByDefinition(CallForm::direct, object, method, &args);
    va_end(args);
    return hr;
}
