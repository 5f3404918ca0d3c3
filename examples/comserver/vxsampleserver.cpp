// vxsampleserver.exe: a local (out-of-process) COM server whose component
// is a kit class, "VexalSample.RemoteCalculator".
//
//   vxsampleserver /RegServer     registers it (LocalServer32) and its type library
//   vxsampleserver /UnregServer   removes that again
//   vxsampleserver -Embedding     what COM runs when a client creates the class:
//                                 serves its class object until the last object
//                                 is released
//
// The COM wrappers of its interfaces live in vxsample.dll, their wrapper
// library, so vxsample.dll must be registered as well.
#include "vxsample_vexal.h"
#include "vxsampleserver.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

namespace {

DWORD g_mainthread = 0;
volatile LONG g_objects = 0;
bool g_served = false;

// The shared component, counted so that the server knows when to stop.
int32_t create(void **implslot, vxl_if primary)
{
    int32_t status = VexalSample::Calculator_createimpl(implslot, primary);
    if (status == VXL_OK) {
        InterlockedIncrement(&g_objects);
        g_served = true;
    }
    return status;
}

int32_t destroy(void *impl, vxl_if primary)
{
    int32_t status = VexalSample::Calculator_destroyimpl(impl, primary);
    if (InterlockedDecrement(&g_objects) == 0)
        PostThreadMessageA(g_mainthread, WM_QUIT, 0, 0);
    return status;
}

// The generated parts of vxsample's Calculator under a class record of the server's own.
const vxl_componentdef remoteClass = {"VexalSample.RemoteCalculator",
                                      static_cast<int32_t>(std::size(VexalSample::Calculator_interfaces)),
                                      VexalSample::Calculator_interfaces, create, destroy, nullptr};
const vxl_componentdef *const kitComponents[] = {&remoteClass, nullptr};

const vxl_comlibinfo library = {"vxsampleserver.exe", LIBID_VexalSampleServer};
const vxl_comcomponentinfo remoteInfo = {"VexalSample.RemoteCalculator", CLSID_RemoteCalculator};
const vxl_comcomponentinfo *const comComponents[] = {&remoteInfo, nullptr};
const vxl_comifinfo *const noInterfaces[] = {nullptr}; // served by vxsample.dll

// A client that does not turn up within this time is not waited for.
constexpr UINT kIdleMilliseconds = 60000;

bool hasSwitch(int argc, char **argv, const char *name)
{
    for (int i = 1; i < argc; ++i)
        if ((argv[i][0] == '/' || argv[i][0] == '-') && _stricmp(argv[i] + 1, name) == 0)
            return true;
    return false;
}

// COM starts the server with the environment of the client that asked for
// it. A client that traces to the file VXLLOGNAME names would see its log
// overwritten by the server's, so a server started by COM traces to that
// name with ".server" added. It must run before the runtime's first message,
// which reads the name.
void traceApartFromClient()
{
    const char *name = getenv("VXLLOGNAME");
    if (name && *name)
        _putenv(("VXLLOGNAME=" + std::string(name) + ".server").c_str());
}

int serve()
{
    // Loading the wrapper library up front lets the first request already
    // name any of its interfaces.
    LoadLibraryA("vxsample.dll");

    IUnknown *classobject = nullptr;
    if (FAILED(vxl_com_getclassobject(&CLSID_RemoteCalculator, &IID_IUnknown, reinterpret_cast<void **>(&classobject))))
        return 1;
    DWORD cookie = 0;
    vxl_com_registerclassobject(&CLSID_RemoteCalculator, classobject, &cookie);

    // Calls from clients arrive as window messages of this apartment.
    SetTimer(nullptr, 0, kIdleMilliseconds, nullptr);
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        if (msg.message == WM_TIMER && !msg.hwnd && !g_served)
            break;
        DispatchMessageA(&msg);
    }
    vxl_com_revokeclassobject(cookie, classobject);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    g_mainthread = GetCurrentThreadId();
    if (hasSwitch(argc, argv, "Embedding"))
        traceApartFromClient();
    vxl_init();
    vxl_register("vxsampleserver", kitComponents, VexalSample::interfaces);
    vxl_com_register(&library, comComponents, noInterfaces);

    int status;
    HMODULE self = GetModuleHandleA(nullptr);
    if (hasSwitch(argc, argv, "RegServer"))
        status = vxl_com_registerserver(self, &library, comComponents, nullptr) == 0 ? 0 : 1;
    else if (hasSwitch(argc, argv, "UnregServer"))
        status = SUCCEEDED(vxl_com_unregisterserver(self, &library, comComponents, nullptr)) ? 0 : 1;
    else
        status = serve();

    vxl_com_unregister(&library, comComponents, noInterfaces);
    vxl_unregister(kitComponents, VexalSample::interfaces);
    vxl_com_uninit();
    return status;
}
