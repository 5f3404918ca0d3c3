// A counted kit component whose ICounter crosses to COM through the test
// wrapper library (which registers ICounter's wrappers as it loads). Every
// wrapper holds a kit reference on its counter, so liveCounters back at 0
// means no reference and no wrapper leaked. Needs tests/wrap on the include path.
#pragma once

#include "testifaces.h"

#include <windows.h>

#include <atomic>

namespace vxltest {

inline std::atomic<int> liveCounters{0};

// A new counter holding one kit reference (the caller's); the first call
// registers the component and loads the wrapper library.
inline vxl_if newCounter()
{
    static const bool registered = [] {
        static const vxl_fn unused[2] = {};
        static const vxl_componentinterface ci = {&ICounterDef, unused};
        static const vxl_componentinterface *const cis[] = {&ci};
        static const vxl_componentdef counter = {
            "TestCounter", 1, cis, [](void **impl, vxl_if) { return *impl = nullptr, ++liveCounters, VXL_OK; },
            [](void *, vxl_if) { return --liveCounters, VXL_OK; }, nullptr};
        static const vxl_componentdef *const classes[] = {&counter, nullptr};
        static const vxl_interfacedef *const ifaces[] = {&ICounterDef, nullptr};
        vxl_init();
        return vxl_register("testcounters", classes, ifaces) == VXL_OK && LoadLibraryA("testwrappers.dll");
    }();
    vxl_if pif = nullptr;
    if (registered)
        vxl_createinstance("TestCounter", "ICounter", &pif);
    return pif;
}

} // namespace vxltest
