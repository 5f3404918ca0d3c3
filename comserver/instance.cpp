// Creation of COM objects for kit clients, as the class factories call it.
// Stand-ins until COM instance creation is in place: loading a component's
// library by class name does nothing, and no COM object is ever found.
#include "core/comside.h"

void vxl_com_loadcomponent(const char *)
{
}

int32_t vxl_com_createinstance(const char *, const char *, vxl_if *out)
{
    if (out)
        *out = nullptr;
    return VXL_ECLASSNOTREG;
}
