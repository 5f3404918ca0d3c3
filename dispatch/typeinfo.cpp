// The Automation view of registered interfaces and components: cached type
// information of an interface's server side ("S") and connection-point side
// ("CP"), a dispatch interface for any COM object, and uncached type
// information of any GUID in a registered type library.
#include "comserver/comserver.h"

#include <windows.h>
#include <oleauto.h>

#include <cstring>

namespace {

bool isNullGuid(const GUID &g)
{
    return memcmp(&g, &GUID_NULL, sizeof(GUID)) == 0;
}

// Which entries a kind passes over: "S" those without a server-side IID,
// "CP" those without a connection-point IID; any other text none.
enum class Kind { server, connectionpoint, other };

const GUID &kindGuid(const vxl_comifinfo *entry, Kind kind)
{
    return kind == Kind::server ? entry->iid_comS : entry->iid_CP;
}

// One interface entry of one registration.
struct EntryRef {
    vxl_comregistration *registration = nullptr;
    int32_t index = -1;
};

// The next entry of the name, newest registration first and in array order
// within one, after the entry 'after' (from the start when that is empty).
// Called under the registration lock.
EntryRef nextEntry(const char *name, Kind kind, EntryRef after)
{
    bool started = after.registration == nullptr;
    for (vxl_comregistration *reg = vxl_com_registrations(); reg; reg = reg->next) {
        if (!reg->interfaces)
            continue;
        for (int32_t i = 0; reg->interfaces[i]; ++i) {
            if (!started) {
                started = reg == after.registration && i == after.index;
                continue;
            }
            const vxl_comifinfo *entry = reg->interfaces[i];
            if (!entry->name || !name || strcmp(entry->name, name) != 0)
                continue;
            if (kind != Kind::other && isNullGuid(kindGuid(entry, kind)))
                continue;
            return {reg, i};
        }
    }
    return {};
}

bool stillRegistered(const vxl_comregistration *wanted)
{
    for (vxl_comregistration *reg = vxl_com_registrations(); reg; reg = reg->next)
        if (reg == wanted)
            return true;
    return false;
}

} // namespace

ITypeInfo *vxl_com_gettypeinfo(const char *name, const char *kind)
{
    Kind k = !kind                     ? Kind::other
             : strcmp(kind, "S") == 0  ? Kind::server
             : strcmp(kind, "CP") == 0 ? Kind::connectionpoint
                                       : Kind::other;
    vxl_com_lock(VXL_REGISTRATION_LOCK);
    vxl_log("vxl_com_gettypeinfo: %s\n", name ? name : "(null)");
    ITypeInfo *found = nullptr;
    for (EntryRef at = nextEntry(name, k, {}); at.registration; at = nextEntry(name, k, at)) {
        vxl_comregistration *reg = at.registration;
        if (!reg->typelib) {
            // Loading a type library may load its module: never under a
            // runtime lock. Another thread may fill the slot meanwhile, or
            // the registration may go; then the walk starts over.
            GUID libid = reg->library ? reg->library->libid : GUID_NULL;
            vxl_com_unlock(VXL_REGISTRATION_LOCK);
            ITypeLib *typelib = nullptr;
            HRESULT hr = LoadRegTypeLib(libid, 1, 0, 0, &typelib);
            vxl_com_lock(VXL_REGISTRATION_LOCK);
            if (!stillRegistered(reg)) {
                if (typelib)
                    typelib->Release();
                at = {}; // the walk's next step starts from the newest again
                continue;
            } else if (FAILED(hr)) {
                vxl_log("vxl_com_gettypeinfo: cannot load tlib\n");
                break;
            } else if (reg->typelib) {
                typelib->Release();
            } else {
                reg->typelib = typelib;
            }
        }
        ITypeInfo **slot = (k == Kind::server ? reg->typeinfos : reg->proxytypeinfos) + at.index;
        if (!*slot) {
            HRESULT hr = reg->typelib->GetTypeInfoOfGuid(kindGuid(reg->interfaces[at.index], k), slot);
            if (FAILED(hr)) {
                *slot = nullptr;
                vxl_log("vxl_com_gettypeinfo: cannot get tinfo, hr = %x\n", static_cast<unsigned>(hr));
                continue;
            }
        }
        found = *slot;
        break;
    }
    vxl_com_unlock(VXL_REGISTRATION_LOCK);
    return found;
}

HRESULT vxl_com_getdispinterface(BSTR name, IDispatch **out, IUnknown *object)
{
    if (!out)
        return E_POINTER;
    char *narrow = vxl_com_bstr2str(name);
    *out = nullptr;
    if (!narrow || !*narrow) {
        if (object)
            object->QueryInterface(IID_IDispatch, reinterpret_cast<void **>(out));
    } else {
        for (int attempt = 0; attempt < 2 && !*out; ++attempt) {
            // The interface may be unknown until its wrapper library has
            // registered it: one load, then one more look.
            if (attempt == 1)
                vxl_com_wrapper_tryload(narrow, "comS");
            vxl_comifinfo info;
            if (vxl_com_getifinfo(narrow, &info) != 0 || !info.getdispinterface || !object)
                continue;
            IUnknown *server = nullptr;
            if (SUCCEEDED(object->QueryInterface(info.iid_comS, reinterpret_cast<void **>(&server))) && server) {
                info.getdispinterface(server, out);
                server->Release();
            }
        }
    }
    vxl_log("vxl_com_getdispinterface: %s = %x\n", narrow ? narrow : "(null)", VXL_PTR(*out));
    vxl_free(narrow);
    return *out ? S_OK : E_NOINTERFACE;
}

ITypeInfo *vxl_com_getcomponentobjecttypeinfo(const GUID *libid, const GUID *guid)
{
    if (!libid || !guid)
        return nullptr;
    ITypeLib *typelib = nullptr;
    if (FAILED(LoadRegTypeLib(*libid, 1, 0, 0, &typelib)) || !typelib)
        return nullptr;
    ITypeInfo *info = nullptr;
    if (FAILED(typelib->GetTypeInfoOfGuid(*guid, &info)))
        info = nullptr;
    typelib->Release();
    return info;
}
