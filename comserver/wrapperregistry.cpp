// The wrapper registry: for each interface name and wrapper type, the file
// paths of the wrapper libraries that register its COM-side record and proxy
// class when they load. Nothing of it is kept in memory.
//
//   HKEY_LOCAL_MACHINE\SOFTWARE\Quelt\vexa\interfaces\<interface>-<type>
//       "wrapper-0" = REG_SZ "<path of the newest wrapper library>"
//       "wrapper-1" ... further paths, tried in enumeration order on load
//
// The whole key path is at most 255 characters.
#include "comserver/comserver.h"

#include <windows.h>

#include <climits>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kBaseKey[] = "SOFTWARE\\Quelt\\vexa\\interfaces\\";
static_assert(sizeof kBaseKey - 1 == 31, "the base key ends in a backslash");
constexpr size_t kMaxKeyPath = 255;
constexpr DWORD kBufferSize = 1024; // value names and data are read with this much room

// The log shows a missing argument as the C runtime would, without handing
// it a null.
const char *shown(const char *s)
{
    return s ? s : "(null)";
}

// The key path of one interface and wrapper type, or the error code that
// stands in for the registry's own when the path cannot be formed: a missing
// argument, or a path beyond 255 characters.
struct KeyPath {
    char text[kMaxKeyPath + 1];
    LONG error;
};

KeyPath formKeyPath(const char *ifname, const char *wtype)
{
    KeyPath key;
    int n = snprintf(key.text, sizeof key.text, "%s%s-%s", kBaseKey, shown(ifname), shown(wtype));
    if (!ifname || !wtype)
        key.error = ERROR_INVALID_PARAMETER;
    else if (n < 0 || static_cast<size_t>(n) > kMaxKeyPath)
        key.error = ERROR_FILENAME_EXCED_RANGE;
    else
        key.error = ERROR_SUCCESS;
    return key;
}

// One value read at an index, NUL-terminated whatever the registry stored.
struct RegValue {
    char name[kBufferSize];
    char data[kBufferSize + 1];
};

LONG enumValue(HKEY key, DWORD index, RegValue *value)
{
    DWORD namelen = kBufferSize;
    DWORD datalen = kBufferSize;
    DWORD type = 0;
    LONG rc = RegEnumValueA(key, index, value->name, &namelen, nullptr, &type,
                            reinterpret_cast<BYTE *>(value->data), &datalen);
    value->data[rc == ERROR_SUCCESS && datalen <= kBufferSize ? datalen : 0] = '\0';
    return rc;
}

void numberedName(char (&name)[32], int n)
{
    snprintf(name, sizeof name, "wrapper-%d", n);
}

} // namespace

int32_t vxl_com_wrapper_register(const char *path, const char *ifname, const char *wtype)
{
    vxl_log("vxl_com_wrapper_register(%s, %s, %s) enter\n", shown(path), shown(ifname), shown(wtype));
    KeyPath keypath = formKeyPath(ifname, wtype);
    if (keypath.error == ERROR_SUCCESS && !path)
        keypath.error = ERROR_INVALID_PARAMETER;
    HKEY key = nullptr;
    LONG rc = keypath.error;
    if (rc == ERROR_SUCCESS)
        rc = RegCreateKeyExA(HKEY_LOCAL_MACHINE, keypath.text, 0, nullptr, REG_OPTION_NON_VOLATILE,
                             KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (rc != ERROR_SUCCESS) {
        vxl_log("wrapper register failed 0x%x\n", static_cast<unsigned>(rc));
        return VXL_EFAIL;
    }

    char name[32];
    numberedName(name, 0);
    HKEY setter = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, keypath.text, 0, KEY_SET_VALUE, &setter) == ERROR_SUCCESS) {
        RegSetValueExA(setter, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(path),
                       static_cast<DWORD>(strlen(path) + 1));
        RegCloseKey(setter);
    }

    // A new registration replaces the earlier ones: the numbered run after
    // 0 goes, up to its first gap; values beyond the gap and of other names stay.
    for (int n = 1; n < INT_MAX; ++n) {
        numberedName(name, n);
        if (RegQueryValueExA(key, name, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        RegDeleteValueA(key, name);
    }
    RegCloseKey(key);
    return VXL_OK;
}

int32_t vxl_com_wrapper_unregister(const char *path, const char *ifname, const char *wtype)
{
    vxl_log("vxl_com_wrapper_unregister(%s, %s, %s) enter\n", shown(path), shown(ifname), shown(wtype));
    HKEY base = nullptr;
    LONG rc = RegOpenKeyExA(HKEY_LOCAL_MACHINE, kBaseKey, 0, KEY_ALL_ACCESS, &base);
    if (rc != ERROR_SUCCESS) {
        vxl_log("wrapper unregister failed(1) 0x%x\n", static_cast<unsigned>(rc));
        return VXL_EFAIL;
    }
    KeyPath keypath = formKeyPath(ifname, wtype);
    const char *subname = keypath.text + (sizeof kBaseKey - 1); // relative to the base key
    HKEY sub = nullptr;
    rc = keypath.error;
    if (rc == ERROR_SUCCESS)
        rc = RegOpenKeyExA(base, subname, 0, KEY_ALL_ACCESS, &sub);
    if (rc != ERROR_SUCCESS) {
        RegCloseKey(base);
        vxl_log("wrapper unregister failed(2) 0x%x\n", static_cast<unsigned>(rc));
        return VXL_EFAIL;
    }

    // Only the first value holding exactly this path goes; the value's type
    // is not looked at.
    RegValue value;
    DWORD index = 0;
    for (;; ++index) {
        if (enumValue(sub, index, &value) != ERROR_SUCCESS) {
            RegCloseKey(sub);
            RegCloseKey(base);
            vxl_log("wrapper unregister failed(3)\n");
            return VXL_EFAIL;
        }
        if (path && strcmp(value.data, path) == 0)
            break;
    }
    RegDeleteValueA(sub, value.name);
    DWORD values = 1;
    LONG query = RegQueryInfoKeyA(sub, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                                  nullptr, nullptr, nullptr);
    RegCloseKey(sub);
    if (query == ERROR_SUCCESS && values == 0)
        RegDeleteKeyA(base, subname);
    RegCloseKey(base);
    return VXL_OK;
}

int32_t vxl_com_wrapper_tryload(const char *ifname, const char *wtype)
{
    KeyPath keypath = formKeyPath(ifname, wtype);
    vxl_log("vxl_com_wrapper_tryload(%s, %s) -> %s\n", shown(ifname), shown(wtype), keypath.text);
    HKEY key = nullptr;
    LONG rc = keypath.error;
    if (rc == ERROR_SUCCESS)
        rc = RegOpenKeyExA(HKEY_LOCAL_MACHINE, keypath.text, 0, KEY_READ, &key);
    if (rc != ERROR_SUCCESS) {
        vxl_log("vxl_com_wrapper_tryload() openkey failed %x\n", static_cast<unsigned>(rc));
        return VXL_EFAIL;
    }
    static_assert(KEY_READ == 0x20019, "the wrapper registry is read with KEY_READ");

    // Every value counts, whatever its name or type; a library that does not
    // load is passed over for the next one.
    RegValue value;
    for (DWORD index = 0;; ++index) {
        if (enumValue(key, index, &value) != ERROR_SUCCESS) {
            RegCloseKey(key);
            vxl_log("vxl_com_wrapper_tryload() failed\n");
            return VXL_EFAIL;
        }
        vxl_log("vxl_com_wrapper_tryload() loading %s\n", value.data);
        if (LoadLibraryA(value.data)) {
            RegCloseKey(key);
            vxl_log("vxl_com_wrapper_tryload() ok\n");
            return VXL_OK;
        }
    }
}
