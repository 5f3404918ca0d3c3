// vxsample.dll: an in-process COM server whose component is a kit class.
//
// COM reaches it through the four standard entry points, each of which
// hands its work to the runtime:
//   DllGetClassObject    vxl_com_getclassobject
//   DllCanUnloadNow      vxl_com_inuse and vxl_inuse
//   DllRegisterServer    vxl_com_registerserver   (regsvr32 vxsample.dll)
//   DllUnregisterServer  vxl_com_unregisterserver (regsvr32 /u vxsample.dll)
// The library is also the wrapper library of its interfaces (wrappers.cpp),
// so kit clients in any process can use COM objects of them.
//
// From a script, once registered:
//   var calc = new ActiveXObject("VexalSample.Calculator");
//   WScript.Echo(calc.Add(2, 40));
#include "calculator.h"
#include "vxsample.h"
#include "wrappers.h"

#include <olectl.h>
#include <windows.h>

namespace {

HMODULE g_module = nullptr;

// The kit class. Its name is also its ProgID.
const vxl_componentdef calculatorClass = {"VexalSample.Calculator", 2, vxsample_calculatorinterfaces,
                                          vxsample_createcalculator, vxsample_destroycalculator, nullptr};
const vxl_componentdef *const kitComponents[] = {&calculatorClass, nullptr};

// Its COM side: module, type library, CLSID.
const vxl_comlibinfo library = {"vxsample.dll", LIBID_VexalSample};
const vxl_comcomponentinfo calculatorInfo = {"VexalSample.Calculator", CLSID_Calculator};
const vxl_comcomponentinfo *const comComponents[] = {&calculatorInfo, nullptr};

} // namespace

// Registering only allocates and takes the runtime's own locks, which is
// safe while the loader lock is held.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        DisableThreadLibraryCalls(instance);
        vxl_register("vxsample", kitComponents, vxsample_interfaces);
        vxsample_registerwrappers();
        vxl_com_register(&library, comComponents, vxsample_cominterfaces);
    } else if (reason == DLL_PROCESS_DETACH && !reserved) {
        // Unloaded by FreeLibrary (not at process exit): the runtime must not
        // keep pointers into this library.
        vxl_com_unregister(&library, comComponents, vxsample_cominterfaces);
        vxsample_unregisterwrappers();
        vxl_unregister(kitComponents, vxsample_interfaces);
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void **out)
{
    return vxl_com_getclassobject(&clsid, &iid, out);
}

// The class objects go first: each keeps its kit class factory in use.
STDAPI DllCanUnloadNow(void)
{
    if (vxl_com_inuse(comComponents, nullptr) || vxl_inuse(kitComponents) || vxsample_wrappersinuse())
        return S_FALSE;
    return S_OK;
}

STDAPI DllRegisterServer(void)
{
    if (vxl_com_registerserver(g_module, &library, comComponents, vxsample_proxyinterfaces) != 0)
        return SELFREG_E_TYPELIB;
    return S_OK;
}

STDAPI DllUnregisterServer(void)
{
    return vxl_com_unregisterserver(g_module, &library, comComponents, vxsample_proxyinterfaces);
}
