// Registry entries of a COM server: its type library, one class per COM
// component and per connection-point class "CP<interface>", and the
// wrapper-library entries of the interfaces it serves. Registering twice
// writes the same entries again; removal deletes whole subtrees.
//
// One class, under HKEY_CLASSES_ROOT ({G}: the CLSID's registry text, N: the
// ProgID, which is also the version-independent ProgID and the description):
//   CLSID\{G}                        (default) N, AppID {G}
//   CLSID\{G}\InprocServer32         (default) module path   - path without ".exe"
//   CLSID\{G}\LocalServer32          (default) module path   - path with ".exe"
//   CLSID\{G}\ProgID                 (default) N
//   CLSID\{G}\VersionIndependentProgID (default) N
//   N                                (default) N, subkeys CLSID {G} and CurVer N
//   AppID\{G}                        (default) N, DllSurrogate ""  - library only
#include "comserver/server.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kJoinedKeyMax = 1023;
constexpr int kModulePathSize = 256; // the module path of the type library and wrapper entries
constexpr int kClassModulePathSize = 512;

const char *const kWrapperTypes[] = {"com", "comS", "comP"};
constexpr int kWrapperTypeCount = sizeof kWrapperTypes / sizeof kWrapperTypes[0];
static_assert(kWrapperTypeCount == 3, "one IID per wrapper type");

const GUID &iidOfType(const vxl_comifinfo &info, int type)
{
    const GUID *iids[kWrapperTypeCount] = {&info.iid_com, &info.iid_comS, &info.iid_comP};
    return *iids[type];
}

bool isSet(const GUID &guid)
{
    return !IsEqualGUID(guid, GUID_NULL);
}

// The component library's file name: false when there is none or it does
// not fit the buffer.
bool modulePath(HMODULE module, char (&path)[kModulePathSize])
{
    DWORD n = GetModuleFileNameA(module, path, kModulePathSize);
    if (n == 0 || n >= static_cast<DWORD>(kModulePathSize)) {
        path[0] = '\0';
        return false;
    }
    return true;
}

struct ConnectionPointClass {
    char name[256];
    vxl_comifinfo info;
    bool registrable; // both its IID and its CLSID are set
};

void connectionPointClass(const char *ifname, ConnectionPointClass *cp)
{
    snprintf(cp->name, sizeof cp->name, "CP%s", ifname);
    // A name without a record reads as one with nothing set.
    vxl_com_getifinfo(ifname, &cp->info);
    cp->registrable = isSet(cp->info.iid_CP) && isSet(cp->info.clsid_CP);
}

} // namespace

int32_t vxl_com_setclasseskey(const char *keypath, const char *subkey, const char *data)
{
    char joined[kJoinedKeyMax + 1];
    int n = subkey ? snprintf(joined, sizeof joined, "%s\\%s", keypath, subkey)
                   : snprintf(joined, sizeof joined, "%s", keypath);
    if (n < 0 || n > kJoinedKeyMax)
        return 0;
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_CLASSES_ROOT, joined, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                        &key, nullptr) != ERROR_SUCCESS)
        return 0;
    if (data)
        RegSetValueExA(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE *>(data),
                       static_cast<DWORD>(strlen(data) + 1));
    RegCloseKey(key);
    return 1;
}

int32_t vxl_com_setclassesvalue(const char *keypath, const char *valuename, const char *data)
{
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CLASSES_ROOT, keypath, 0, KEY_SET_VALUE, &key) != ERROR_SUCCESS)
        return 0;
    if (data)
        RegSetValueExA(key, valuename, 0, REG_SZ, reinterpret_cast<const BYTE *>(data),
                       static_cast<DWORD>(strlen(data) + 1));
    RegCloseKey(key);
    return 1;
}

int32_t vxl_com_registerclass(const char *modulename, REFCLSID clsid, const char *description,
                              const char *viprogid, const char *progid, const char *threadingmodel)
{
    char path[kClassModulePathSize];
    DWORD n = GetModuleFileNameA(GetModuleHandleA(modulename), path, sizeof path);
    path[n < sizeof path ? n : sizeof path - 1] = '\0';
    // Case-sensitive on purpose: ".EXE" is not a local server.
    bool localserver = strstr(path, ".exe") != nullptr;

    char guid[VXL_GUIDTEXT_SIZE];
    vxl_com_guidtext(clsid, guid);
    char clsidkey[8 + VXL_GUIDTEXT_SIZE];
    char appidkey[8 + VXL_GUIDTEXT_SIZE];
    snprintf(clsidkey, sizeof clsidkey, "CLSID\\%s", guid);
    snprintf(appidkey, sizeof appidkey, "AppID\\%s", guid);

    // Single rows that fail are passed over; the rest are still written.
    vxl_com_setclasseskey(clsidkey, nullptr, description);
    vxl_com_setclassesvalue(clsidkey, "AppID", guid);
    if (!localserver) {
        vxl_com_setclasseskey(clsidkey, "InprocServer32", path);
        if (threadingmodel) {
            char inprockey[sizeof clsidkey + 16];
            snprintf(inprockey, sizeof inprockey, "%s\\InprocServer32", clsidkey);
            vxl_com_setclassesvalue(inprockey, "ThreadingModel", threadingmodel);
        }
    } else {
        vxl_com_setclasseskey(clsidkey, "LocalServer32", path);
    }
    vxl_com_setclasseskey(clsidkey, "ProgID", progid);
    vxl_com_setclasseskey(clsidkey, "VersionIndependentProgID", viprogid);
    vxl_com_setclasseskey(viprogid, nullptr, description);
    vxl_com_setclasseskey(viprogid, "CLSID", guid);
    vxl_com_setclasseskey(viprogid, "CurVer", progid);
    vxl_com_setclasseskey(progid, nullptr, description);
    vxl_com_setclasseskey(progid, "CLSID", guid);
    vxl_com_setclasseskey(appidkey, nullptr, description);
    if (!localserver)
        vxl_com_setclassesvalue(appidkey, "DllSurrogate", "");
    return 0;
}

int32_t vxl_com_unregisterclass(REFCLSID clsid, const char *progid, const char *viprogid)
{
    char guid[VXL_GUIDTEXT_SIZE];
    vxl_com_guidtext(clsid, guid);
    char key[8 + VXL_GUIDTEXT_SIZE];
    snprintf(key, sizeof key, "CLSID\\%s", guid);
    vxl_com_deletetree(HKEY_CLASSES_ROOT, key);
    // Equal ProgIDs are simply not found the second time.
    vxl_com_deletetree(HKEY_CLASSES_ROOT, progid);
    vxl_com_deletetree(HKEY_CLASSES_ROOT, viprogid);
    snprintf(key, sizeof key, "AppID\\%s", guid);
    vxl_com_deletetree(HKEY_CLASSES_ROOT, key);
    return 0;
}

LONG vxl_com_deletetree(HKEY root, const char *path)
{
    if (!path)
        return ERROR_INVALID_PARAMETER;
    HKEY key = nullptr;
    LONG rc = RegOpenKeyExA(root, path, 0, KEY_ALL_ACCESS, &key);
    if (rc != ERROR_SUCCESS)
        return rc;
    for (;;) {
        char name[256];
        DWORD namelen = sizeof name;
        // An enumeration error also ends the walk; the final delete then
        // reports what is left.
        if (RegEnumKeyExA(key, 0, name, &namelen, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        rc = vxl_com_deletetree(key, name);
        if (rc != ERROR_SUCCESS) {
            RegCloseKey(key);
            return rc;
        }
    }
    RegCloseKey(key);
    return RegDeleteKeyA(root, path);
}

int32_t vxl_com_registerserver(HMODULE module, const vxl_comlibinfo *library,
                               const vxl_comcomponentinfo *const *components, const char *const *proxies)
{
    vxl_log("vxl_com_registerserver\n");
    char path[kModulePathSize];
    wchar_t widepath[kModulePathSize];
    ITypeLib *typelib = nullptr;
    if (!library || !modulePath(module, path) || mbstowcs(widepath, path, kModulePathSize) >= kModulePathSize ||
        FAILED(LoadTypeLibEx(widepath, REGKIND_REGISTER, &typelib))) {
        vxl_log("cannot load typelibrary\n");
        return 1;
    }
    typelib->Release();

    for (const vxl_comcomponentinfo *const *c = components; c && *c; ++c) {
        vxl_log("vxl_com_registerserver: component %s\n", (*c)->name);
        // Components the library never registered have no CLSID to write.
        const vxl_comcomponentinfo *component = vxl_com_findcomponent((*c)->name);
        if (component && isSet(component->clsid))
            vxl_com_registerclass(library->modulename, component->clsid, (*c)->name, (*c)->name, (*c)->name,
                                  nullptr);
    }
    if (!proxies)
        return 0;
    for (const char *const *p = proxies; *p; ++p) {
        vxl_log("vxl_com_registerserver: proxy %s\n", *p);
        ConnectionPointClass cp;
        connectionPointClass(*p, &cp);
        if (cp.registrable)
            vxl_com_registerclass(library->modulename, cp.info.clsid_CP, cp.name, cp.name, cp.name, nullptr);
    }
    for (const char *const *p = proxies; *p; ++p) {
        vxl_log("vxl_com_registerserver: proxy %s\n", *p);
        vxl_comifinfo info;
        if (vxl_com_getifinfo(*p, &info) != VXL_OK)
            vxl_fatal("vxl_com_registerserver: no ifinfo?\n");
        for (int t = 0; t < kWrapperTypeCount; ++t)
            if (isSet(iidOfType(info, t)) && vxl_com_wrapper_register(path, *p, kWrapperTypes[t]) != VXL_OK)
                vxl_log("vxl_com_registerserver: cannot register %s %s", *p, kWrapperTypes[t]);
    }
    return 0;
}

HRESULT vxl_com_unregisterserver(HMODULE module, const vxl_comlibinfo *library,
                                 const vxl_comcomponentinfo *const *components, const char *const *proxies)
{
    vxl_log("vxl_com_unregisterserver\n");
    if (!library)
        return E_INVALIDARG;
    for (const vxl_comcomponentinfo *const *c = components; c && *c; ++c) {
        vxl_log("vxl_com_unregisterserver: component %s\n", (*c)->name);
        const vxl_comcomponentinfo *component = vxl_com_findcomponent((*c)->name);
        if (component && isSet(component->clsid))
            vxl_com_unregisterclass(component->clsid, (*c)->name, (*c)->name);
    }
    if (proxies) {
        for (const char *const *p = proxies; *p; ++p) {
            vxl_log("vxl_com_unregisterserver: proxy %s\n", *p);
            ConnectionPointClass cp;
            connectionPointClass(*p, &cp);
            if (cp.registrable)
                vxl_com_unregisterclass(cp.info.clsid_CP, cp.name, cp.name);
        }
    }
    char path[kModulePathSize];
    modulePath(module, path);
    if (proxies) {
        for (const char *const *p = proxies; *p; ++p) {
            vxl_log("vxl_com_unregisterserver: proxy %s\n", *p);
            vxl_comifinfo info;
            if (vxl_com_getifinfo(*p, &info) != VXL_OK)
                vxl_fatal("vxl_com_unregisterserver: no ifinfo?\n");
            for (int t = 0; t < kWrapperTypeCount; ++t)
                if (isSet(iidOfType(info, t)) && vxl_com_wrapper_unregister(path, *p, kWrapperTypes[t]) != VXL_OK)
                    vxl_log("vxl_com_unregisterserver: cannot unreg %s %s", *p, kWrapperTypes[t]);
        }
    }
    HRESULT hr = UnRegisterTypeLib(library->libid, 1, 0, 0, SYS_WIN64);
    if (FAILED(hr)) {
        vxl_log("cannot unregister typelibrary\n");
        return hr;
    }
    return S_OK;
}
