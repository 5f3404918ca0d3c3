// Kit interfaces handed to COM: vxl_wrap and the two callbacks of every COM
// wrapper.
//
// The wrapper classes themselves live in wrapper libraries; the runtime adds
// the bookkeeping that makes all wrappers of one kit object behave as one
// COM object: one wrapper per (object, name, type), one IUnknown identity
// (the object's first wrapper, or the COM object behind a kit proxy), and a
// kit reference per row so the kit object outlives its wrappers.
#include "table.h"

#include <cstring>

namespace {

vxl_wrapmaker chooseMaker(const vxl_comifinfo &info, const char *wtype)
{
    if (strcmp(wtype, "com") == 0 && info.wrap_com)
        return info.wrap_com;
    if (strcmp(wtype, "comP") == 0 && info.wrap_comP)
        return info.wrap_comP;
    if (strcmp(wtype, "comS") == 0 && info.wrap_comS)
        return info.wrap_comS;
    return nullptr;
}

// Asks the interface's maker for a wrapper; when none is known or it makes
// nothing, the wrapper library registered for the pair loads and we ask once more.
IUnknown *makeWrapper(vxl_if named, const char *ifname, const char *wtype)
{
    IUnknown *wrapper = nullptr;
    for (int attempt = 0;; ++attempt) {
        vxl_comifinfo info;
        if (vxl_com_getifinfo(ifname, &info) == 0)
            if (vxl_wrapmaker maker = chooseMaker(info, wtype))
                maker(named, &wrapper);
        if (wrapper || attempt == 1)
            return wrapper;
        vxl_com_wrapper_tryload(ifname, wtype);
    }
}

} // namespace

int32_t vxl_wrap(vxl_if pif, const char *ifname, const char *wtype, IUnknown **result)
{
    if (!result)
        return VXL_EFAIL;
    vxl_log("vxl_wrap(%x, %s, %s)\n", VXL_PTR(pif), ifname, wtype);
    if (!pif) {
        *result = nullptr;
        return VXL_OK;
    }
    IUnknown *wrapper = nullptr;
    if (ifname && wtype) {
        vxl_wraptable_ensure();
        vxl_if identity = nullptr;
        pif->slots->getinterface(pif, nullptr, &identity);

        vxl_com_lock(VXL_WRAPPER_LOCK);
        vxl_wraprow row = {};
        row.pdef = identity;
        row.ifname = ifname;
        row.wtype = wtype;
        bool found = vxl_wraptable_select(VXL_BY_OBJECT_AND_NAME, &row);
        // A count that comes back as 1 was 0: the wrapper is dying on another
        // thread and blocked on this lock in vxl_com_releasewrapper. It must
        // not be handed out; it is set aside and a new one made.
        if (found && row.pcomif->AddRef() == 1) {
            vxl_wraptable_retire(row);
            found = false;
        }
        if (found) {
            wrapper = row.pcomif;
        } else {
            vxl_if named = nullptr;
            if (pif->slots->getinterface(pif, ifname, &named) == VXL_OK && named) {
                wrapper = makeWrapper(named, ifname, wtype);
                if (wrapper) {
                    // A later wrapper takes the object's COM identity from an
                    // earlier row and holds it; the first one is its own.
                    vxl_wraprow earlier = {};
                    earlier.pdef = identity;
                    IUnknown *piunk = wrapper;
                    // An identity that is dying has no other row left holding
                    // it: the row found is its own, and the new wrapper takes
                    // its place.
                    if (vxl_wraptable_first(VXL_BY_OBJECT, &earlier)) {
                        if (earlier.piunk->AddRef() == 1)
                            vxl_wraptable_retire(earlier);
                        else
                            piunk = earlier.piunk;
                    }
                    identity->slots->incref(identity);
                    vxl_wraptable_insert({piunk, wrapper, identity, pif, ifname, wtype});
                }
                named->slots->decref(named);
            }
        }
        vxl_com_unlock(VXL_WRAPPER_LOCK);
        if (identity)
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
    vxl_wraprow row = vxl_wraptable_deletepair(wrapper, pif);
    vxl_free(const_cast<char *>(row.ifname));
    vxl_free(const_cast<char *>(row.wtype));
    if (row.piunk != wrapper)
        row.piunk->Release();
    row.pdef->slots->decref(row.pdef);
}
