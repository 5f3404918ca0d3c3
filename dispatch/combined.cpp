// Combined values: the out values of one kit method packed into a single
// SAFEARRAY of VARIANTs, element k holding the k-th out value that is not a
// length. A component serving a method with several out values to COM
// returns this in its result; vxl_com_dispcall unpacks it on the other side.
//
// The variadic slots are read twice, the same way each time: once to learn
// the counts that length parameters give (a length may follow its array),
// once to pack.
#include "dispatch/paramwalk.h"

#include <windows.h>
#include <oleauto.h>

#include <cstdarg>

namespace {

// The slots one out value occupies, read in declaration order.
struct OutSlots {
    int32_t number = 0;       // out int
    double real = 0;          // out float (promoted) or double
    const char *text = nullptr;
    vxl_if pif = nullptr;
    const char *wtype = nullptr;
    const char *ifname = nullptr;
    const void *array = nullptr;
};

// Reads the slots of parameter p (role as the plan says) from args. A
// length parameter whose direction is out or in/out gives its count.
void readSlots(const vxl_paramdef *p, vxl_paramrole role, va_list *args, OutSlots *slots, int32_t *length)
{
    if (role == vxl_paramrole::length) {
        if (p->direction != VXL_DIR_IN)
            *length = va_arg(*args, int32_t);
        return;
    }
    if (role != vxl_paramrole::out)
        return;
    if (p->array != 0) {
        if (p->type == VXL_TYPE_INTERFACE) {
            slots->wtype = va_arg(*args, const char *);
            slots->ifname = va_arg(*args, const char *);
        }
        slots->array = va_arg(*args, const void *);
        return;
    }
    switch (p->type) {
    case VXL_TYPE_INT:
        slots->number = va_arg(*args, int32_t);
        break;
    case VXL_TYPE_FLOAT:
    case VXL_TYPE_DOUBLE:
        slots->real = va_arg(*args, double);
        break;
    case VXL_TYPE_STRING:
        slots->text = va_arg(*args, const char *);
        break;
    default:
        slots->pif = va_arg(*args, vxl_if);
        slots->wtype = va_arg(*args, const char *);
        slots->ifname = va_arg(*args, const char *);
        break;
    }
}

// The element of one out value; its resources are the element's.
void buildElement(const vxl_paramdef *p, const OutSlots &slots, int32_t count, VARIANT *element)
{
    VariantInit(element);
    if (p->array != 0) {
        SAFEARRAY *inner = nullptr;
        switch (p->type) {
        case VXL_TYPE_INT:
            inner = vxl_com_createvariantintsafearray(static_cast<const int32_t *>(slots.array), count);
            break;
        case VXL_TYPE_FLOAT:
            inner = vxl_com_createvariantfloatsafearray(static_cast<const float *>(slots.array), count);
            break;
        case VXL_TYPE_DOUBLE:
            inner = vxl_com_createvariantdoublesafearray(static_cast<const double *>(slots.array), count);
            break;
        case VXL_TYPE_STRING:
            inner = vxl_com_createvariantstringsafearray(static_cast<const char *const *>(slots.array), count);
            break;
        default:
            inner = vxl_com_createvariantinterfacesafearray(static_cast<const vxl_if *>(slots.array), count,
                                                            slots.ifname, slots.wtype);
            break;
        }
        V_VT(element) = VT_ARRAY | VT_VARIANT;
        V_ARRAY(element) = inner;
        return;
    }
    switch (p->type) {
    case VXL_TYPE_INT:
        V_VT(element) = VT_I4;
        V_I4(element) = slots.number;
        break;
    case VXL_TYPE_FLOAT:
        V_VT(element) = VT_R4;
        V_R4(element) = static_cast<float>(slots.real);
        break;
    case VXL_TYPE_DOUBLE:
        V_VT(element) = VT_R8;
        V_R8(element) = slots.real;
        break;
    case VXL_TYPE_STRING:
        V_VT(element) = VT_BSTR;
        V_BSTR(element) = vxl_com_str2bstr(slots.text);
        break;
    default:
        // The combined value takes over one kit reference of the interface.
        V_VT(element) = VT_DISPATCH;
        V_DISPATCH(element) = reinterpret_cast<IDispatch *>(vxl_wrapptr(slots.pif, slots.ifname, slots.wtype));
        if (slots.pif)
            slots.pif->slots->decref(slots.pif);
        break;
    }
}

} // namespace

SAFEARRAY *vxl_com_createcombined(const vxl_methoddef *method, ...)
{
    vxl_paramplan plan(method);
    if (!plan.valid())
        return nullptr;
    int32_t n = plan.count();
    vxl_workarray<int32_t, kStackParams> lengths(n);
    if (!lengths.ok())
        return nullptr;

    // First walk: the counts that out and in/out lengths give.
    va_list args;
    va_start(args, method);
    for (int32_t i = 0; i < n; ++i) {
        lengths[i] = 0;
        OutSlots ignored;
        readSlots(method->params[i], plan.role(i), &args, &ignored, &lengths[i]);
    }
    va_end(args);

    SAFEARRAYBOUND bound = {static_cast<ULONG>(plan.outValues()), 0};
    SAFEARRAY *values = SafeArrayCreate(VT_VARIANT, 1, &bound);
    if (!values)
        return nullptr;

    // Second walk: pack each out value where its index says.
    va_start(args, method);
    LONG index = 0;
    for (int32_t i = 0; i < n; ++i) {
        const vxl_paramdef *p = method->params[i];
        OutSlots slots;
        int32_t ignored = 0;
        readSlots(p, plan.role(i), &args, &slots, &ignored);
        if (plan.role(i) != vxl_paramrole::out)
            continue;
        int32_t count = p->array > 0 ? p->array : p->array < 0 && ~p->array < n ? lengths[~p->array] : 0;
        VARIANT element;
        buildElement(p, slots, count, &element);
        SafeArrayPutElement(values, &index, &element);
        ++index;
        VariantClear(&element);
    }
    va_end(args);
    return values;
}
