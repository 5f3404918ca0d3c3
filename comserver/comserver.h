// Internal declarations of the COM bridge: registration lookups, the COM
// lock set and the wrapper registry.
#pragma once

#include "core/kit.h"

// The COM lock set. Order: wrapper lock before any other; in-use lock
// before the class-object cache lock.
enum vxl_comlock { VXL_WRAPPER_LOCK, VXL_INUSE_LOCK, VXL_CLASSOBJECT_LOCK, VXL_REGISTRATION_LOCK, VXL_COM_LOCK_COUNT };
// Creates the set on first use ("new lock init in com\n"), then enters the lock.
void vxl_com_lock(vxl_comlock lock);
void vxl_com_unlock(vxl_comlock lock);

using vxl_comlockguard = vxl_scopedlock<vxl_comlock, vxl_com_lock, vxl_com_unlock>;

// One vxl_com_register call, kept newest first.
struct vxl_comregistration {
    vxl_comregistration *next;
    const vxl_comcomponentinfo *const *components;
    const vxl_comifinfo *const *interfaces;
    const vxl_comlibinfo *library;
    ITypeLib *typelib;          // loaded on demand, released at unregistration
    ITypeInfo **typeinfos;      // one per interfaces entry, kind "S"
    ITypeInfo **proxytypeinfos; // one per interfaces entry, kind "CP"
};

// Head of the registration list; walk it under the registration lock.
vxl_comregistration *vxl_com_registrations();

const vxl_comcomponentinfo *vxl_com_findcomponentbyclsid(REFCLSID clsid);
const vxl_comcomponentinfo *vxl_com_findcomponent(const char *name);
// Merged record of every entry of that name: 0, or 1 when none has it.
int32_t vxl_com_getifinfo(const char *name, vxl_comifinfo *out);
// Record of the entry one of whose three IIDs equals iid, and the wrapper
// type of the matching field ("com", "comS" or "comP"): 0, or 1.
int32_t vxl_com_getifinfobyiid(REFIID iid, const char **wtype, vxl_comifinfo *out);

// Wrapper registry under HKLM "SOFTWARE\Quelt\vexa\interfaces\".
int32_t vxl_com_wrapper_register(const char *path, const char *ifname, const char *wtype);
int32_t vxl_com_wrapper_unregister(const char *path, const char *ifname, const char *wtype);
int32_t vxl_com_wrapper_tryload(const char *ifname, const char *wtype);
