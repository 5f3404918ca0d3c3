// COM objects used through kit interfaces: vxl_unwrap and the two callbacks
// of every kit proxy class.
//
// A kit proxy is an ordinary kit object of the class "<name>_<type>_proxy"
// registered by a wrapper library, whose implementation pointer is the COM
// interface it stands for. As with wrapping, one proxy exists per (COM
// object, name, type), and all proxies of one COM object share one kit
// identity: the first proxy made for it.
#include "table.h"

#include <cstdio>
#include <cstring>

namespace {

const GUID *iidForType(const vxl_comifinfo &info, const char *wtype)
{
    if (strcmp(wtype, "com") == 0)
        return &info.iid_com;
    if (strcmp(wtype, "comS") == 0)
        return &info.iid_comS;
    if (strcmp(wtype, "comP") == 0)
        return &info.iid_comP;
    return nullptr;
}

// The COM interface for (name, type), loading the wrapper library registered
// for the pair when the first attempt gives nothing.
IUnknown *queryNamedInterface(IUnknown *pcom, const char *ifname, const char *wtype)
{
    IUnknown *itf = nullptr;
    for (int attempt = 0;; ++attempt) {
        vxl_comifinfo info;
        if (vxl_com_getifinfo(ifname, &info) == 0)
            if (const GUID *iid = iidForType(info, wtype))
                if (FAILED(pcom->QueryInterface(*iid, reinterpret_cast<void **>(&itf))))
                    itf = nullptr;
        if (itf || attempt == 1)
            return itf;
        vxl_com_wrapper_tryload(ifname, wtype);
    }
}

vxl_if makeProxy(IUnknown *pcomif, const char *ifname, const char *wtype)
{
    size_t size = strlen(ifname) + strlen(wtype) + 32;
    char *classname = static_cast<char *>(vxl_malloc(static_cast<int32_t>(size)));
    if (!classname)
        return nullptr;
    snprintf(classname, size, "%s_%s_proxy", ifname, wtype);
    vxl_if proxy = nullptr;
    if (vxl_encapsulate(classname, ifname, pcomif, &proxy) != VXL_OK)
        proxy = nullptr;
    if (proxy)
        pcomif->AddRef(); // the proxy's own reference, given back by its destructor
    vxl_free(classname);
    return proxy;
}

} // namespace

int32_t vxl_unwrap(IUnknown *pcom, const char *ifname, const char *wtype, vxl_if *result)
{
    if (!result)
        return VXL_EFAIL;
    if (!pcom) {
        *result = nullptr;
        return VXL_OK;
    }
    vxl_if proxy = nullptr;
    if (ifname && wtype) {
        vxl_wraptable_ensure();
        IUnknown *identity = nullptr;
        pcom->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&identity));

        vxl_com_lock(VXL_WRAPPER_LOCK);
        vxl_wraprow row = {};
        row.piunk = identity;
        row.ifname = ifname;
        row.wtype = wtype;
        bool found = vxl_wraptable_select(VXL_BY_IDENTITY_AND_NAME, &row);
        // A proxy whose count already reached 0 is dying on another thread,
        // its destroy callback waiting for this lock: it is not handed out
        // again; its row is set aside for that callback and a new proxy made.
        if (found && !vxl_increfifalive(row.pif)) {
            vxl_wraptable_retire(row);
            found = false;
        }
        if (found) {
            proxy = row.pif;
        } else if (IUnknown *itf = queryNamedInterface(pcom, ifname, wtype)) {
            proxy = makeProxy(itf, ifname, wtype);
            if (proxy) {
                // A later proxy takes the object's kit identity from an
                // earlier row and holds it; the first one is its own.
                vxl_wraprow earlier = {};
                earlier.piunk = identity;
                vxl_if pdef = proxy;
                // A dying kit identity has no other row left holding it: the
                // row found is its own, and the new proxy takes its place.
                if (vxl_wraptable_first(VXL_BY_IDENTITY, &earlier)) {
                    if (vxl_increfifalive(earlier.pdef))
                        pdef = earlier.pdef;
                    else
                        vxl_wraptable_retire(earlier);
                }
                identity->AddRef();
                vxl_wraptable_insert({identity, itf, pdef, proxy, ifname, wtype});
            }
            itf->Release();
        }
        vxl_com_unlock(VXL_WRAPPER_LOCK);
        if (identity)
            identity->Release();
    }
    *result = proxy;
    return proxy ? VXL_OK : VXL_ENOINTERFACE;
}

vxl_if vxl_unwrapptr(IUnknown *pcom, const char *ifname, const char *wtype)
{
    vxl_if result = nullptr;
    return vxl_unwrap(pcom, ifname, wtype, &result) == VXL_OK ? result : nullptr;
}

int32_t vxl_com_wrappergetinterface(void *pcomif, const char *name, vxl_if *result, vxl_if pif)
{
    IUnknown *itf = static_cast<IUnknown *>(pcomif);
    vxl_wraprow row = vxl_wraptable_findpair(itf, pif);
    if (!name) {
        row.pdef->slots->incref(row.pdef);
        *result = row.pdef;
        return VXL_OK;
    }
    // The row lives as long as the proxy, which our caller holds.
    return vxl_unwrap(itf, name, row.wtype, result);
}

int32_t vxl_com_wrapperdestructor(void *pcomif, vxl_if pif)
{
    IUnknown *itf = static_cast<IUnknown *>(pcomif);
    vxl_log("trn_delete: pcomif = %x, pif = %x\n", VXL_PTR(itf), VXL_PTR(pif));
    vxl_wraprow row = vxl_wraptable_deletepair(itf, pif);
    vxl_free(const_cast<char *>(row.ifname));
    vxl_free(const_cast<char *>(row.wtype));
    if (row.pdef != pif)
        row.pdef->slots->decref(row.pdef);
    row.piunk->Release();
    itf->Release();
    return 0;
}
