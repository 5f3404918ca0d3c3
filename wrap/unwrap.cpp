// COM objects used through kit interfaces: vxl_unwrap and the two callbacks
// of every kit proxy class.
//
// A kit proxy is an ordinary kit object of the class "<name>_<type>_proxy"
// registered by a wrapper library, whose implementation pointer is the COM
// interface it stands for. As with wrapping, one proxy exists per (COM
// object, name, type), and all proxies of one COM object share one kit
// identity: the first proxy made for it.
//
// A proxy's count is the runtime's own, so a proxy whose count reached 0
// (its destroy callback waiting for the wrapper lock) is told apart without
// asking anybody: it gets no new reference (vxl_increfifalive).
#include "table.h"

#include "comserver/wrappertypes.h"

#include <cstdio>
#include <cstring>

namespace {

// The reference the caller of vxl_unwrap gets on the kit interface of a row.
bool takeKitInterface(const vxl_wraprow &row)
{
    return vxl_increfifalive(row.pif);
}

// The reference a new row takes on the kit identity found in another row.
bool takeKitIdentity(const vxl_wraprow &row)
{
    return vxl_increfifalive(row.pdef);
}

// The COM interface of the COM object for (name, type), when the interface's
// record is known and the type is one of the three.
IUnknown *queryNamedInterface(IUnknown *pcom, const char *ifname, const char *wtype)
{
    vxl_comifinfo info;
    const vxl_wrappertype *type = vxl_com_wrappertype(wtype);
    IUnknown *itf = nullptr;
    if (!type || vxl_com_getifinfo(ifname, &info) != VXL_OK)
        return nullptr;
    if (FAILED(pcom->QueryInterface(info.*type->iid, reinterpret_cast<void **>(&itf))))
        return nullptr;
    return itf;
}

// The factory of the proxy class "<name>_<type>_proxy"; null when there is
// none. Its library may have to load itself first: called with the wrapper
// lock let go.
vxl_classfactory *proxyFactory(const char *ifname, const char *wtype)
{
    size_t size = strlen(ifname) + strlen(wtype) + 32;
    if (size > INT32_MAX)
        return nullptr;
    char *classname = static_cast<char *>(vxl_malloc(static_cast<int32_t>(size)));
    if (!classname)
        return nullptr;
    snprintf(classname, size, "%s_%s_proxy", ifname, wtype);
    vxl_classfactory *factory = nullptr;
    if (vxl_createclassfactory(&factory, classname) != VXL_OK)
        factory = nullptr;
    vxl_free(classname);
    return factory;
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
    IUnknown *identity = nullptr;
    if (ifname && wtype) {
        vxl_wraptable_ensure();
        if (FAILED(pcom->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&identity))))
            identity = nullptr;
    }
    if (identity) {
        // Already unwrapped: found without the wrapper lock.
        vxl_wraprow found = {};
        found.piunk = identity;
        found.ifname = ifname;
        found.wtype = wtype;
        if (vxl_wraptable_findunlocked(VXL_BY_IDENTITY_AND_NAME, &found, takeKitInterface, VXL_PROXY_ROW)) {
            identity->Release();
            *result = found.pif;
            return VXL_OK;
        }
        IUnknown *itf = nullptr;
        auto find = [&](int onlyKind) {
            vxl_wraprow row = {};
            row.piunk = identity;
            row.ifname = ifname;
            row.wtype = wtype;
            if (!vxl_wraptable_find(VXL_BY_IDENTITY_AND_NAME, &row, takeKitInterface, onlyKind))
                return false;
            proxy = row.pif;
            return true;
        };
        vxl_wraptable_cross(ifname, wtype, [&](bool second) {
            if (find(-1))
                return true;
            if (!itf)
                itf = queryNamedInterface(pcom, ifname, wtype);
            if (!itf)
                return second;
            vxl_classfactory *factory = nullptr;
            vxl_wraptable_unlocked([&] { factory = proxyFactory(ifname, wtype); });
            // Another thread may have made the proxy while the lock was let
            // go. (A row that this thread's QueryInterface made, when pcom is
            // a COM wrapper, is not one: the proxy stands for that wrapper.)
            if (factory && !find(VXL_PROXY_ROW)) {
                if (vxl_encapsulatefromcf(factory, ifname, itf, &proxy) != VXL_OK)
                    proxy = nullptr;
                if (proxy) {
                    itf->AddRef(); // the proxy's own reference, given back by its destructor
                    // A later proxy takes the object's kit identity from an
                    // earlier row and holds it; the first one is its own.
                    vxl_wraprow earlier = {};
                    earlier.piunk = identity;
                    vxl_if pdef = vxl_wraptable_find(VXL_BY_IDENTITY, &earlier, takeKitIdentity) ? earlier.pdef : proxy;
                    identity->AddRef();
                    vxl_wraptable_insert({identity, itf, pdef, proxy, ifname, wtype}, VXL_PROXY_ROW);
                }
            }
            vxl_destroyclassfactory(factory);
            return true;
        });
        if (itf)
            itf->Release();
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
    vxl_wraptable_end(itf, pif, VXL_PROXY_ROW);
    itf->Release();
    return 0;
}
