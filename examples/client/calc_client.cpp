/*
 * A kit client of the sample component: it creates an object by class name,
 * calls its methods through the slots of its interfaces and releases it.
 *
 *   calc_client [class name]      (default "VexalSample.Calculator")
 *
 * The same code serves two very different objects. "VexalSample.Calculator"
 * is a kit class: the runtime loads vxsample.dll (found through the class's
 * ProgID in the registry) and the calls go straight to the component's
 * functions. "VexalSample.RemoteCalculator" is a COM object in another
 * process (vxsampleserver.exe): the runtime creates it through COM and hands
 * back kit proxies, whose calls cross to the server and back.
 *
 * Exits with 1 when a call does not give what the component promises.
 */
#include <cstdio>
#include <cstring>

#include "vxsample_vexal.h"

using namespace VexalSample;

static int failures = 0;

/* Prints a call's result; anything but VXL_OK and the expected text fails. */
static void report(const char *call, int32_t status, const char *result, const char *expected)
{
    if (status == VXL_OK)
        printf("%s = %s\n", call, result);
    else
        printf("%s failed with status %d\n", call, (int)status);
    if (status != VXL_OK || strcmp(result, expected) != 0) {
        printf("  (expected %s)\n", expected);
        failures++;
    }
}

int main(int argc, char **argv)
{
    const char *classname = argc > 1 ? argv[1] : "VexalSample.Calculator";

    vxl_init(); /* starts COM on this thread */

    vxl_if greeter = NULL;
    int32_t status = vxl_createinstance(classname, "IGreeter", &greeter);
    if (status != VXL_OK) {
        printf("vxl_createinstance(%s, IGreeter) failed with status %d\n", classname, (int)status);
        return 1;
    }
    printf("vxl_createinstance(%s, IGreeter) = ok\n", classname);

    /* The generated callers (vxsample_vexal.h) call method j of an interface
       through its slot 4 + j. Out strings are kit memory, given back with
       vxl_free. */
    char *greeting = NULL;
    status = IGreeter_Greet(greeter, "kit", &greeting);
    report("IGreeter.Greet(\"kit\")", status, greeting ? greeting : "", "Hello, kit!");
    vxl_free(greeting);

    /* Each interface of an object leads to the others, by name. */
    vxl_if calc = NULL;
    status = greeter->slots->getinterface(greeter, "ICalculator", &calc);
    report("getinterface(ICalculator)", status, "ok", "ok");
    if (status == VXL_OK) {
        char text[32];
        int32_t sum = 0;
        status = ICalculator_Add(calc, 2, 40, &sum);
        snprintf(text, sizeof text, "%d", (int)sum);
        report("ICalculator.Add(2, 40)", status, text, "42");

        /* A status of the component's own comes back unchanged, through COM too. */
        status = ICalculator_Add(calc, 2147483647, 1, &sum);
        printf("ICalculator.Add(2147483647, 1) = status %d\n", (int)status);
        if (status != -1) {
            printf("  (expected the component's overflow status, -1)\n");
            failures++;
        }

        char *description = NULL;
        status = ICalculator_Describe(calc, "pi", 3.25, &description);
        report("ICalculator.Describe(\"pi\", 3.25)", status, description ? description : "", "pi = 3.25");
        vxl_free(description);
        vxl_decref(calc);
    }

    /* The last release of the object's last interface frees it. */
    vxl_decref(greeter);
    return failures ? 1 : 0;
}
