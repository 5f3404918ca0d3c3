// The wrapper-library half of vxsample.dll: COM wrappers that show the kit
// interfaces ICalculator and IGreeter to COM clients, and kit proxy classes
// that show COM objects of those interfaces to kit clients. The runtime
// finds this library through the wrapper registry and loads it on demand in
// any process that meets these interfaces.
#pragma once

#include "vexal.h"

// The COM-side records of both interfaces, null-terminated.
extern const vxl_comifinfo *const vxsample_cominterfaces[];
// Interface names for vxl_com_registerserver, null-terminated.
extern const char *const vxsample_proxyinterfaces[];

// Registers the kit proxy classes (at load time); the COM-side records go
// to vxl_com_register with the library's components.
void vxsample_registerwrappers(void);
void vxsample_unregisterwrappers(void);
// True while a COM wrapper or kit proxy made by this library is alive.
bool vxsample_wrappersinuse(void);
