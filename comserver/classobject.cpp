// Class objects: what COM clients get for a kit component from its library's
// DllGetClassObject. One CFactory per component name lives in a process-wide
// cache, newest first; Release never destroys it, only vxl_com_inuse does,
// once nobody holds it.
//
//   CFactory (x64)   0 vtable: QueryInterface AddRef Release CreateInstance LockServer
//                    8 kit class factory (owned: one use of it)
//                   16 reference count (32-bit, atomic)                      (24)
//   cache entry      0 next   8 component name (vxl_strdup)   16 CFactory   (24)
//
// Locks: the in-use lock covers a sweep of vxl_com_inuse and the search and
// insertion of a creating lookup, so a sweep never destroys a class object
// that is being handed out; the cache lock guards the list and is taken
// after it. The kit class factory is built outside both, since building it
// may load the component's library.
#include "comserver/server.h"

#include <windows.h>

#include <cstddef>
#include <new>

namespace {

class CFactory final : public IClassFactory {
public:
    explicit CFactory(vxl_classfactory *kitfactory) : kitfactory(kitfactory) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown *outer, REFIID iid, void **out) override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

    vxl_classfactory *const kitfactory;
    volatile LONG refcount = 0;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(CFactory, kitfactory) == 8 && offsetof(CFactory, refcount) == 16 && sizeof(CFactory) == 24,
              "CFactory layout");
#pragma GCC diagnostic pop

struct CacheEntry {
    CacheEntry *next;
    char *name;
    CFactory *classobject;
};
static_assert(offsetof(CacheEntry, name) == 8 && offsetof(CacheEntry, classobject) == 16, "cache entry layout");

CacheEntry *g_classobjects = nullptr; // guarded by the class-object cache lock

CacheEntry *findEntry(const char *name)
{
    for (CacheEntry *entry = g_classobjects; entry; entry = entry->next)
        if (vxl_sameName(entry->name, name))
            return entry;
    return nullptr;
}

// Takes the in-use lock (when asked) and then the cache lock, as one.
class CacheLocks {
public:
    explicit CacheLocks(bool inuse) : inuse_(inuse)
    {
        if (inuse_)
            vxl_com_lock(VXL_INUSE_LOCK);
        vxl_com_lock(VXL_CLASSOBJECT_LOCK);
    }
    ~CacheLocks()
    {
        vxl_com_unlock(VXL_CLASSOBJECT_LOCK);
        if (inuse_)
            vxl_com_unlock(VXL_INUSE_LOCK);
    }
    CacheLocks(const CacheLocks &) = delete;
    CacheLocks &operator=(const CacheLocks &) = delete;

private:
    bool inuse_;
};

// The class object of a component. With create, a missing one is made and
// the result carries a reference for the caller; without, nothing is made and
// no reference is taken (only for vxl_com_inuse, under the in-use lock).
CFactory *vxl_com_getclassfactory(const char *name, bool create)
{
    {
        CacheLocks locks(create);
        if (CacheEntry *entry = findEntry(name)) {
            if (create)
                entry->classobject->AddRef();
            return entry->classobject;
        }
    }
    if (!create)
        return nullptr;

    vxl_classfactory *kitfactory = nullptr;
    if (vxl_createclassfactory(&kitfactory, name) != VXL_OK)
        return nullptr;

    CacheLocks locks(true);
    // Another thread may have made one meanwhile: one class object per name.
    if (CacheEntry *entry = findEntry(name)) {
        vxl_destroyclassfactory(kitfactory);
        entry->classobject->AddRef();
        return entry->classobject;
    }
    auto *entry = static_cast<CacheEntry *>(vxl_malloc(sizeof(CacheEntry)));
    char *namecopy = vxl_strdup(name);
    CFactory *classobject = entry && namecopy ? new (std::nothrow) CFactory(kitfactory) : nullptr;
    if (!classobject) {
        // Out of memory: the cache stays as it was, the caller reports it.
        vxl_free(entry);
        vxl_free(namecopy);
        vxl_destroyclassfactory(kitfactory);
        return nullptr;
    }
    *entry = CacheEntry{g_classobjects, namecopy, classobject};
    g_classobjects = entry;
    classobject->AddRef();
    return classobject;
}

// Only for a class object that is in the cache.
void vxl_com_removeclassfactory(CFactory *classobject)
{
    vxl_comlockguard lock(VXL_CLASSOBJECT_LOCK);
    for (CacheEntry **link = &g_classobjects; *link; link = &(*link)->next) {
        CacheEntry *entry = *link;
        if (entry->classobject != classobject)
            continue;
        *link = entry->next;
        vxl_destroyclassfactory(classobject->kitfactory);
        delete classobject;
        vxl_free(entry->name);
        vxl_free(entry);
        return;
    }
}

HRESULT CFactory::QueryInterface(REFIID iid, void **out)
{
    vxl_log("CFactory::QueryInterface %x ", VXL_PTR(this));
    vxl_com_logguid(iid, "\n");
    if (!out)
        return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory)) {
        *out = static_cast<IClassFactory *>(this);
        AddRef();
        return S_OK;
    }
    vxl_log("CFactory::QueryInterface: unknown interface\n");
    *out = nullptr;
    return E_NOINTERFACE;
}

ULONG CFactory::AddRef()
{
    vxl_log("CFactory::AddRef %x %d\n", VXL_PTR(this), static_cast<int>(refcount));
    return static_cast<ULONG>(InterlockedIncrement(&refcount));
}

// Never destroys, not even at 0 or below: the cache owns the object.
ULONG CFactory::Release()
{
    vxl_log("CFactory::Release %x %d\n", VXL_PTR(this), static_cast<int>(refcount));
    return static_cast<ULONG>(InterlockedDecrement(&refcount));
}

HRESULT CFactory::LockServer(BOOL lock)
{
    vxl_log("CFactory::LockServer: %d\n", static_cast<int>(lock));
    // A lock is a reference as far as vxl_com_inuse is concerned.
    if (lock)
        AddRef();
    else
        Release();
    return S_OK;
}

HRESULT CFactory::CreateInstance(IUnknown *outer, REFIID iid, void **out)
{
    vxl_log("CFactory::CreateInstance: %x ", VXL_PTR(this));
    vxl_com_logguid(iid, "\n");
    if (outer) {
        vxl_log("CFactory::CreateInstance: aggregation used\n");
        return CLASS_E_NOAGGREGATION;
    }
    if (!out)
        return E_POINTER;

    // IUnknown stands for the component's primary interface, in the first form.
    const char *ifname = nullptr;
    const char *wtype = "com";
    const vxl_interfacedef *def = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown)) {
        vxl_comifinfo info;
        if (vxl_com_getifinfobyiid(iid, &wtype, &info) != VXL_OK) {
            vxl_log("CFactory::CreateInstance: cannot find interface from id\n");
            return E_NOINTERFACE;
        }
        def = vxl_findinterfacedef(info.name);
        if (!def) {
            vxl_log("CFactory::CreateInstance: no interface def\n");
            return E_NOINTERFACE;
        }
        ifname = info.name;
    }

    vxl_if pif = nullptr;
    if (vxl_getinstancefromcf(kitfactory, ifname, &pif) != VXL_OK) {
        vxl_log("CFactory::CreateInstance: cannot create instance\n");
        return E_NOINTERFACE;
    }
    if (!def)
        def = vxl_getinterfacedef(pif);
    // The wrapper keeps its own kit reference.
    *out = vxl_wrapptr(pif, def ? def->name : nullptr, wtype);
    pif->slots->decref(pif);
    if (!*out) {
        vxl_log("CFactory::CreateInstance: cannot wrap interface\n");
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

} // namespace

HRESULT vxl_com_getclassobject(const CLSID *clsid, const IID *iid, void **out)
{
    if (!clsid || !iid)
        return E_INVALIDARG;
    if (!out)
        return E_POINTER;
    vxl_log("vxl_com_getclassobject: ");
    vxl_com_logguid(*clsid, " ");
    vxl_com_logguid(*iid, "\n");
    // GUID_NULL marks components that are not COM classes: none has a class object.
    const vxl_comcomponentinfo *component =
        IsEqualGUID(*clsid, GUID_NULL) ? nullptr : vxl_com_findcomponentbyclsid(*clsid);
    if (!component) {
        vxl_log("vxl_com_getclassobject: cannot find componentobject id\n");
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    CFactory *classobject = vxl_com_getclassfactory(component->name, true);
    if (!classobject) {
        vxl_log("vxl_com_getclassobject: cannot create cf\n");
        return E_OUTOFMEMORY;
    }
    HRESULT hr = classobject->QueryInterface(*iid, out);
    classobject->Release();
    return hr;
}

int32_t vxl_com_inuse(const vxl_comcomponentinfo *const *components, void *)
{
    vxl_log("vxl_com_inuse: ");
    {
        vxl_comlockguard lock(VXL_INUSE_LOCK);
        for (const vxl_comcomponentinfo *const *c = components; c && *c; ++c) {
            CFactory *classobject = (*c)->name ? vxl_com_getclassfactory((*c)->name, false) : nullptr;
            if (!classobject)
                continue;
            LONG count = classobject->refcount;
            if (count > 0) {
                vxl_log("yes %s %d\n", (*c)->name, static_cast<int>(count));
                return 1;
            }
            vxl_com_removeclassfactory(classobject);
        }
    }
    vxl_log("no\n");
    return 0;
}

int32_t vxl_com_registerclassobject(const CLSID *clsid, IUnknown *unknown, DWORD *cookie)
{
    if (clsid)
        CoRegisterClassObject(*clsid, unknown, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, cookie);
    return 0;
}

int32_t vxl_com_revokeclassobject(DWORD cookie, IUnknown *unknown)
{
    CoRevokeClassObject(cookie);
    if (unknown)
        unknown->Release();
    return 0;
}
