// What the kit core asks of the COM bridge, and the only place where it
// depends on it: starting COM for the thread (vxl_com_init, exported),
// making the library that serves a class name load itself, and creating a
// COM object for a class name the kit does not know. The COM bridge
// implements these; the kit core calls them with no kit lock held.
#pragma once

#include "vexal.h"

// Makes the library serving a class name load itself; no result.
void vxl_com_loadcomponent(const char *classname);
// Creates the COM object registered for a ProgID behind a kit proxy.
int32_t vxl_com_createinstance(const char *classname, const char *ifname, vxl_if *out);
