// Cost of creating and releasing an object of the sample component
// (vxsample.dll) as a kit client does, with vxl_createinstance + vxl_decref,
// against a COM client's CoCreateInstance + Release of the same class
// through its class object in-process. The class object is registered with
// COM in this process, so COM needs no registry to find it; what it adds is
// its own lookup, the class object's CreateInstance and the COM wrapper.
// Tracing is off. Ratios are against the kit path, measured in the same run.
#include "benchtime.h"
#include "vexal.h"
#include "vxsample.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int ROUNDS = 20;

} // namespace

int main(int argc, char **argv)
{
    _putenv("VXLLOGNAME="); // tracing off
    int64_t iterations = argc > 1 ? atoll(argv[1]) : 50000; // per kind and round

    vxl_init();
    if (!LoadLibraryA("vxsample.dll")) {
        fprintf(stderr, "cannot load vxsample.dll\n");
        return 1;
    }
    IClassFactory *classobject = nullptr;
    DWORD cookie = 0;
    if (FAILED(vxl_com_getclassobject(&CLSID_Calculator, &IID_IClassFactory, reinterpret_cast<void **>(&classobject))) ||
        FAILED(CoRegisterClassObject(CLSID_Calculator, classobject, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                     &cookie))) {
        fprintf(stderr, "cannot register the class object\n");
        return 1;
    }

    bool failed = false;
    auto kit = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            vxl_if calc = nullptr;
            failed |= vxl_createinstance("VexalSample.Calculator", "ICalculator", &calc) != VXL_OK;
            vxl_decref(calc);
        }
    };
    auto classObject = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            ICalculator_com *calc = nullptr;
            failed |= FAILED(classobject->CreateInstance(nullptr, IID_ICalculator_com, reinterpret_cast<void **>(&calc)));
            calc->Release();
        }
    };
    auto com = [&](int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            ICalculator_com *calc = nullptr;
            failed |= FAILED(CoCreateInstance(CLSID_Calculator, nullptr, CLSCTX_INPROC_SERVER, IID_ICalculator_com,
                                              reinterpret_cast<void **>(&calc)));
            calc->Release();
        }
    };

    double k = 1e30, cf = 1e30, c = 1e30;
    for (int round = 0; round < ROUNDS && !failed; ++round) {
        k = std::min(k, timeRound(iterations, kit));
        cf = std::min(cf, timeRound(iterations, classObject));
        c = std::min(c, timeRound(iterations, com));
    }
    if (failed) {
        fprintf(stderr, "a creation failed\n");
        return 1;
    }

    printf("%lld creations per kind and round; best of %d rounds\n", static_cast<long long>(iterations), ROUNDS);
    printf("%-52s %10s %10s\n", "kind", "ns/op", "vs kit");
    printf("%-52s %10.1f %9.2fx\n", "vxl_createinstance + vxl_decref (kit class)", k, 1.0);
    printf("%-52s %10.1f %9.2fx\n", "IClassFactory::CreateInstance + Release (CFactory)", cf, cf / k);
    printf("%-52s %10.1f %9.2fx\n", "CoCreateInstance + Release (same class, in-process)", c, c / k);

    CoRevokeClassObject(cookie);
    classobject->Release();
    return 0;
}
