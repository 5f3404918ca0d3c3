// Internal declarations of the COM server side: the text forms of GUIDs,
// the registry entries of COM classes, and COM instance creation.
#pragma once

#include "comserver/comserver.h"

#include <windows.h>

// ---- GUID text forms -----------------------------------------------------------
// Room for the registry form: braces, 36 characters and the NUL.
constexpr int VXL_GUIDTEXT_SIZE = 39;
// The registry form, as StringFromCLSID writes it: "{XXXXXXXX-...}" in upper
// case. An empty string when it cannot be made.
void vxl_com_guidtext(REFGUID guid, char (&text)[VXL_GUIDTEXT_SIZE]);
// One trace message: the GUID in lower case without braces, then suffix.
void vxl_com_logguid(REFGUID guid, const char *suffix);
// Reads the registry form in either letter case. Fields the text does not
// supply are left 0.
void vxl_com_parseguid(const char *text, GUID *guid);

// ---- registry entries of COM classes --------------------------------------------
// Key HKEY_CLASSES_ROOT\keypath[\subkey], created if need be, with its default
// value set to data when data is given: 1, or 0 when the key cannot be made.
int32_t vxl_com_setclasseskey(const char *keypath, const char *subkey, const char *data);
// The named value of the existing key HKEY_CLASSES_ROOT\keypath: 1, or 0
// when the key cannot be opened.
int32_t vxl_com_setclassesvalue(const char *keypath, const char *valuename, const char *data);
int32_t vxl_com_registerclass(const char *modulename, REFCLSID clsid, const char *description,
                              const char *viprogid, const char *progid, const char *threadingmodel);
int32_t vxl_com_unregisterclass(REFCLSID clsid, const char *progid, const char *viprogid);
// Deletes root\path and everything under it: the registry's error code, 0 on success.
LONG vxl_com_deletetree(HKEY root, const char *path);

// ---- COM instance creation --------------------------------------------------------
// Room for class names, key paths and values read from HKEY_CLASSES_ROOT.
constexpr int VXL_CLASSES_BUFFER = 256;
// The default value of HKEY_CLASSES_ROOT\keypath when it is a string: 0, else 1.
int32_t vxl_com_readclassesstring(const char *keypath, char (&buffer)[VXL_CLASSES_BUFFER]);
// 1 when classname is "<interface>_<type>_proxy" (its wrapper library was
// tried), else 0.
int32_t vxl_com_tryloadproxy(const char *classname);
