// Connection-point events: one IDispatch::Invoke on an outgoing interface,
// delivered to every connected sink in turn. Each sink is asked for its own
// DISPID of the event's name (a script's sink numbers its methods its own
// way), and each starts from the caller's arguments, not from what the
// previous sink left in them.
#include "comserver/comserver.h"
#include "dispatch/workarray.h"

#include <windows.h>
#include <oleauto.h>

HRESULT vxl_com_cpinvoke(const char *ifname, DISPID member, REFIID riid, LCID lcid, WORD flags, DISPPARAMS *params,
                         VARIANT *result, EXCEPINFO *excepinfo, UINT *argerr, int32_t sinkcount, IDispatch **sinks)
{
    if (sinkcount <= 0)
        return S_OK;
    if (!sinks || !params || (params->cArgs && !params->rgvarg))
        return E_INVALIDARG;

    UINT n = params->cArgs;
    vxl_workarray<VARIANT, kStackParams> own(static_cast<int32_t>(n));
    if (!own.ok())
        return E_OUTOFMEMORY;
    for (UINT k = 0; k < n; ++k)
        VariantInit(&own[k]);

    // The event's name as the connection-point side's type information has
    // it; the type information is the cache's and is not referenced here.
    BSTR name = nullptr;
    if (ITypeInfo *info = vxl_com_gettypeinfo(ifname, "CP")) {
        if (FAILED(info->GetDocumentation(member, &name, nullptr, nullptr, nullptr)))
            name = nullptr;
    }

    HRESULT hr = S_OK;
    for (int32_t s = 0; s < sinkcount; ++s) {
        IDispatch *sink = sinks[s];
        if (!sink) {
            hr = E_POINTER;
            continue;
        }
        DISPID dispid = member;
        if (name) {
            DISPID theirs = DISPID_UNKNOWN;
            if (SUCCEEDED(sink->GetIDsOfNames(IID_NULL, &name, 1, lcid, &theirs)))
                dispid = theirs;
        }
        for (UINT k = 0; k < n; ++k)
            VariantCopy(&own[k], &params->rgvarg[k]);
        DISPPARAMS theirs = {n ? own.data() : nullptr, params->rgdispidNamedArgs, n, params->cNamedArgs};
        hr = sink->Invoke(dispid, riid, lcid, flags, &theirs, result, excepinfo, argerr);
    }

    // The caller sees its arguments as the last sink left them.
    for (UINT k = 0; k < n; ++k) {
        VariantCopy(&params->rgvarg[k], &own[k]);
        VariantClear(&own[k]);
    }
    SysFreeString(name);
    return hr;
}
