/* A component library built against the installed package: the class
   "Package.Doubler" with one interface, registered when the library is
   loaded with vxl_loaddynamiclibrary. */
#include <vexal.h>

static int32_t twice(void *impl, int32_t value, int32_t *result)
{
    *result = 2 * value;
    return VXL_OK;
}

static const vxl_paramdef valueParam = {"value", VXL_TYPE_INT, VXL_DIR_IN, 0, NULL};
static const vxl_paramdef resultParam = {"result", VXL_TYPE_INT, VXL_DIR_OUT, 0, NULL};
static const vxl_paramdef *const twiceParams[] = {&valueParam, &resultParam};
static const vxl_methoddef twiceMethod = {"twice", 2, twiceParams};
static const vxl_methoddef *const doublerMethods[] = {&twiceMethod};
static const vxl_interfacedef IDoubler = {"IDoubler", 1, doublerMethods};

static const vxl_fn doublerFunctions[] = {(vxl_fn)twice};
static const vxl_componentinterface doublerEntry = {&IDoubler, doublerFunctions};
static const vxl_componentinterface *const doublerInterfaces[] = {&doublerEntry};
/* No state: no create or destroy callback. */
static const vxl_componentdef Doubler = {"Package.Doubler", 1, doublerInterfaces, NULL, NULL, NULL};
static const vxl_componentdef *const components[] = {&Doubler, NULL};
static const vxl_interfacedef *const interfaces[] = {&IDoubler, NULL};

__declspec(dllexport) int32_t vxl_dll_init(void)
{
    return vxl_register("doubler", components, interfaces);
}
