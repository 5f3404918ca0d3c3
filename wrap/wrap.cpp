// Kit interfaces handed to COM: vxl_wrap and the two callbacks of every COM
// wrapper.
//
// The wrapper classes themselves live in wrapper libraries; the runtime adds
// the bookkeeping that makes all wrappers of one kit object behave as one
// COM object: one wrapper per (object, name, type), one IUnknown identity
// (the object's first wrapper, or the COM object behind a kit proxy), and a
// kit reference per row so the kit object outlives its wrappers.
//
// A COM wrapper's count may reach 0 on another thread while its row is
// still in the table (its vxl_com_releasewrapper waits for the wrapper
// lock); such a wrapper must not be handed out again. Only a wrapper made
// here by a wrapper maker can be in that state, and only in its own row: a
// COM object behind a kit proxy is held by the proxy and by every row of
// its object, and a first wrapper by every later row of its object. So the
// count an AddRef answers is read from those wrappers alone, where 1 means
// it was 0; any other COM object's answer decides nothing.
#include "table.h"

#include "comserver/wrappertypes.h"

namespace {

// The reference the caller of vxl_wrap gets on the COM interface of a row.
bool takeComInterface(const vxl_wraprow &row)
{
    ULONG count = row.pcomif->AddRef();
    return vxl_wraptable_kind(row) == VXL_PROXY_ROW || count != 1;
}

// The reference a new row takes on the COM identity found in another row.
bool takeComIdentity(const vxl_wraprow &row)
{
    ULONG count = row.piunk->AddRef();
    return vxl_wraptable_kind(row) == VXL_PROXY_ROW || row.piunk != row.pcomif || count != 1;
}

// The maker of the interface's record for the type, once the record is
// known; null otherwise.
vxl_wrapmaker chooseMaker(const char *ifname, const char *wtype)
{
    vxl_comifinfo info;
    const vxl_wrappertype *type = vxl_com_wrappertype(wtype);
    if (!type || vxl_com_getifinfo(ifname, &info) != VXL_OK)
        return nullptr;
    return info.*type->maker;
}

} // namespace

int32_t vxl_wrap(vxl_if pif, const char *ifname, const char *wtype, IUnknown **result)
{
    if (!result)
        return VXL_EFAIL;
    vxl_loghot("vxl_wrap(%x, %s, %s)\n", VXL_PTR(pif), ifname, wtype);
    if (!pif) {
        *result = nullptr;
        return VXL_OK;
    }
    IUnknown *wrapper = nullptr;
    vxl_if identity = nullptr;
    bool borrowed = false; // identity held by the caller's reference on pif, not by one of ours
    if (ifname && wtype) {
        vxl_wraptable_ensure();
        identity = vxl_quietidentity(pif);
        borrowed = identity != nullptr;
        if (!borrowed && pif->slots->getinterface(pif, nullptr, &identity) != VXL_OK)
            identity = nullptr;
    }
    if (identity) {
        // Already wrapped: found without the wrapper lock.
        vxl_wraprow found = {};
        found.pdef = identity;
        found.ifname = ifname;
        found.wtype = wtype;
        if (vxl_wraptable_findunlocked(VXL_BY_OBJECT_AND_NAME, &found, takeComInterface, VXL_WRAPPER_ROW)) {
            if (!borrowed)
                identity->slots->decref(identity);
            *result = found.pcomif;
            vxl_loghot("vxl_wrap() = %x\n", VXL_PTR(found.pcomif));
            return VXL_OK;
        }
        vxl_if named = nullptr;
        vxl_wraptable_cross(ifname, wtype, [&](bool second) {
            vxl_wraprow row = {};
            row.pdef = identity;
            row.ifname = ifname;
            row.wtype = wtype;
            if (vxl_wraptable_find(VXL_BY_OBJECT_AND_NAME, &row, takeComInterface)) {
                wrapper = row.pcomif;
                return true;
            }
            if (!named) {
                if (pif->slots->getinterface(pif, ifname, &named) != VXL_OK)
                    named = nullptr;
                // The row keeps the pointer handed in and the wrapper gets
                // the named one; the wrapper's callbacks find the row only
                // when the two are the same.
                if (named != pif)
                    return true;
            }
            if (vxl_wrapmaker maker = chooseMaker(ifname, wtype))
                maker(named, &wrapper);
            if (!wrapper)
                return second;
            // A later wrapper takes the object's COM identity from an
            // earlier row and holds it; the first one is its own.
            vxl_wraprow earlier = {};
            earlier.pdef = identity;
            IUnknown *piunk = vxl_wraptable_find(VXL_BY_OBJECT, &earlier, takeComIdentity) ? earlier.piunk : wrapper;
            identity->slots->incref(identity);
            vxl_wraptable_insert({piunk, wrapper, identity, pif, ifname, wtype}, VXL_WRAPPER_ROW);
            return true;
        });
        if (named)
            named->slots->decref(named);
        if (!borrowed)
            identity->slots->decref(identity);
    }
    *result = wrapper;
    vxl_log("vxl_wrap() = %x\n", VXL_PTR(wrapper));
    return wrapper ? VXL_OK : VXL_ENOINTERFACE;
}

IUnknown *vxl_wrapptr(vxl_if pif, const char *ifname, const char *wtype)
{
    IUnknown *result = nullptr;
    return vxl_wrap(pif, ifname, wtype, &result) == VXL_OK ? result : nullptr;
}

HRESULT vxl_com_wrapperqueryinterface(REFIID iid, void **result, IUnknown *wrapper, vxl_if pif)
{
    if (!result)
        return E_POINTER;
    vxl_wraprow row = vxl_wraptable_findpair(wrapper, pif);
    if (IsEqualIID(iid, IID_IUnknown)) {
        row.piunk->AddRef();
        *result = row.piunk;
        return S_OK;
    }

    vxl_comifinfo info;
    const char *ifname = nullptr;
    const char *wtype = nullptr;
    if (IsEqualIID(iid, IID_IDispatch)) {
        // Cached definitions are never freed, so the name stays readable
        // even if its library unregisters meanwhile.
        const vxl_interfacedef *def = vxl_getinterfacedef(pif);
        if (def && vxl_com_getifinfo(def->name, &info) == 0) {
            ifname = def->name;
            wtype = "comS";
        }
    } else if (vxl_com_getifinfobyiid(iid, &wtype, &info) == 0) {
        ifname = info.name;
    }
    vxl_if named = nullptr;
    if (!ifname || pif->slots->getinterface(pif, ifname, &named) != VXL_OK || !named) {
        *result = nullptr;
        return E_NOINTERFACE;
    }
    IUnknown *wrapped = nullptr;
    int32_t status = vxl_wrap(named, ifname, wtype, &wrapped);
    named->slots->decref(named);
    *result = wrapped;
    return vxl_com_err2hret(status);
}

void vxl_com_releasewrapper(IUnknown *wrapper, vxl_if pif)
{
    vxl_log("trn_delete: pcomif = %x, pobj = %x\n", VXL_PTR(wrapper), VXL_PTR(pif));
    vxl_wraptable_end(wrapper, pif, VXL_WRAPPER_ROW);
}
