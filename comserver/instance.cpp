// COM objects for kit clients. When the kit knows no class of a name, the
// name is first used to make the library that serves it load itself (a
// proxy class name loads its wrapper library, a ProgID its in-process
// server, which registers its kit classes as it loads); failing that, the
// name is taken as a ProgID, the COM object is created in-process or else as
// a local server, and the client gets it behind a kit interface.
//
// No lock is taken here: library loads happen with no runtime lock held.
#include "comserver/server.h"
#include "core/comside.h"

#include <objbase.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

namespace {

// Class-object requests of vxl_com_loadcomponent under way, on any thread.
// While one runs, the library it loads may look up kit classes of its own;
// those lookups must not start another request.
volatile LONG g_loading = 0;

// "<name><suffix>" as a key path, false when it does not fit.
bool keyPath(char (&key)[VXL_CLASSES_BUFFER], const char *name, const char *suffix)
{
    int n = snprintf(key, sizeof key, "%s%s", name, suffix);
    return n >= 0 && n < VXL_CLASSES_BUFFER;
}

// The order in which a new COM object is tried, with each line's own text.
struct UnwrapAttempt {
    const char *wtype;
    const char *logline;
};
const UnwrapAttempt kUnwrapOrder[] = {
    {"com", "  --> wrapped as vxi\n"},
    {"comP", "  -> wrapped as vxiP\n"},
    {"comS", "  --> wrapped as vxiS\n"},
};

} // namespace

int32_t vxl_com_readclassesstring(const char *keypath, char (&buffer)[VXL_CLASSES_BUFFER])
{
    buffer[0] = '\0';
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CLASSES_ROOT, keypath, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return 1;
    DWORD type = 0;
    DWORD size = VXL_CLASSES_BUFFER;
    LONG rc = RegQueryValueExA(key, nullptr, nullptr, &type, reinterpret_cast<BYTE *>(buffer), &size);
    RegCloseKey(key);
    // A value that fills the buffer without its terminator is too long.
    if (rc != ERROR_SUCCESS || type != REG_SZ || (size == VXL_CLASSES_BUFFER && buffer[size - 1] != '\0')) {
        buffer[0] = '\0';
        return 1;
    }
    buffer[size < VXL_CLASSES_BUFFER ? size : VXL_CLASSES_BUFFER - 1] = '\0';
    return 0;
}

int32_t vxl_com_tryloadproxy(const char *classname)
{
    const char *last = classname ? strrchr(classname, '_') : nullptr;
    if (!last || strcmp(last, "_proxy") != 0)
        return 0;
    const char *first = strchr(classname, '_');
    if (first == last)
        return 0;
    // "<interface>_<type>_proxy": the type is everything between the first
    // and the last underscore.
    char *parts = vxl_strdup(classname);
    if (parts) {
        parts[first - classname] = '\0';
        parts[last - classname] = '\0';
        vxl_com_wrapper_tryload(parts, parts + (first - classname) + 1);
        vxl_free(parts);
    }
    return 1;
}

void vxl_com_loadcomponent(const char *classname)
{
    if (!classname || vxl_com_tryloadproxy(classname))
        return;
    if (g_loading != 0)
        return;
    int n = MultiByteToWideChar(CP_ACP, MB_COMPOSITE, classname, -1, nullptr, 0);
    if (n <= 0)
        return;
    auto *wide = static_cast<wchar_t *>(vxl_malloc(n * static_cast<int32_t>(sizeof(wchar_t))));
    if (!wide)
        return;
    CLSID clsid;
    bool known = MultiByteToWideChar(CP_ACP, MB_COMPOSITE, classname, -1, wide, n) > 0 &&
                 SUCCEEDED(CLSIDFromProgID(wide, &clsid));
    vxl_free(wide);
    if (!known)
        return;
    // Only the loading of the server mattered, not its class object.
    IUnknown *classobject = nullptr;
    InterlockedIncrement(&g_loading);
    HRESULT hr = CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IUnknown,
                                  reinterpret_cast<void **>(&classobject));
    InterlockedDecrement(&g_loading);
    if (SUCCEEDED(hr) && classobject)
        classobject->Release();
}

int32_t vxl_com_createinstance(const char *classname, const char *ifname, vxl_if *out)
{
    if (!classname || !ifname || !out)
        return VXL_EFAIL;
    vxl_log("vxl_com_createinstance(%s, %s)\n", classname, ifname);

    char name[VXL_CLASSES_BUFFER];
    char key[VXL_CLASSES_BUFFER];
    char value[VXL_CLASSES_BUFFER];
    snprintf(name, sizeof name, "%s", classname);
    bool named = strlen(classname) < sizeof name;
    if (named && keyPath(key, name, "\\CurVer") && vxl_com_readclassesstring(key, value) == 0) {
        memcpy(name, value, sizeof name);
        vxl_log("   --> real name is %s\n", name);
    }
    if (!named || !keyPath(key, name, "\\CLSID") || vxl_com_readclassesstring(key, value) != 0) {
        vxl_log("vxl_com_createinstance() cannot find object CLSID %s\n", name);
        return VXL_EFAIL;
    }
    vxl_log("   --> is %s\n", value);
    CLSID clsid;
    vxl_com_parseguid(value, &clsid);

    IUnknown *object = nullptr;
    HRESULT hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                  reinterpret_cast<void **>(&object));
    if (hr == S_OK) {
        vxl_log("  --> got com dll component object\n");
    } else {
        if (object)
            object->Release();
        object = nullptr;
        hr = CoCreateInstance(clsid, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, reinterpret_cast<void **>(&object));
        if (hr == S_OK) {
            vxl_log("  --> got com exe component object\n");
        } else if (object) {
            object->Release();
            object = nullptr;
        }
    }
    if (!object) {
        vxl_log("vxl_com_createinstance() cannot instantiate com object\n");
        return VXL_EFAIL;
    }

    *out = nullptr;
    for (const UnwrapAttempt &attempt : kUnwrapOrder) {
        *out = vxl_unwrapptr(object, ifname, attempt.wtype);
        if (*out) {
            vxl_log("%s", attempt.logline);
            break;
        }
    }
    // The kit proxy holds its own reference.
    object->Release();
    if (!*out) {
        vxl_log("could not wrap\n");
        return VXL_ENOINTERFACE;
    }
    return VXL_OK;
}
