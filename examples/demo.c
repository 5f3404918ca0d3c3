/*
 * vexal demo: a component library registers a class with two interfaces, a
 * client creates an object by class name, moves between its interfaces and
 * calls its methods through the generated stubs; then the library checks
 * that nothing is in use and unregisters. The trace log the runtime wrote
 * meanwhile is shown at the end.
 */
#include <stdio.h>
#include <stdlib.h>

#include "vexal.h"

/* ---- what the component library describes --------------------------------- */

static const vxl_paramdef whoParam = {"who", VXL_TYPE_STRING, VXL_DIR_IN, 0, NULL};
static const vxl_paramdef *const greetParams[] = {&whoParam};
static const vxl_methoddef greetMethod = {"greet", 1, greetParams};
static const vxl_methoddef *const greeterMethods[] = {&greetMethod};
static const vxl_interfacedef IGreeter = {"IGreeter", 1, greeterMethods};

static const vxl_paramdef aParam = {"a", VXL_TYPE_INT, VXL_DIR_IN, 0, NULL};
static const vxl_paramdef xParam = {"x", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, NULL};
static const vxl_paramdef sumParam = {"sum", VXL_TYPE_DOUBLE, VXL_DIR_OUT, 0, NULL};
static const vxl_paramdef *const addParams[] = {&aParam, &xParam, &sumParam};
static const vxl_methoddef addMethod = {"add", 3, addParams};
static const vxl_methoddef *const adderMethods[] = {&addMethod};
static const vxl_interfacedef IAdder = {"IAdder", 1, adderMethods};

struct greeter {
    const char *name;
    int greetings;
};

/* Component functions receive the implementation pointer first. */
static int32_t greeter_greet(void *impl, const char *whom)
{
    struct greeter *self = impl;
    self->greetings++;
    printf("  %s says hello to %s (greeting %d)\n", self->name, whom, self->greetings);
    return VXL_OK;
}

static int32_t greeter_add(void *impl, int32_t a, double x, double *sum)
{
    *sum = a + x;
    return VXL_OK;
}

static const vxl_fn greeterFns[] = {(vxl_fn)greeter_greet};
static const vxl_fn adderFns[] = {(vxl_fn)greeter_add};
static const vxl_componentinterface greeterIface = {&IGreeter, greeterFns};
static const vxl_componentinterface adderIface = {&IAdder, adderFns};
static const vxl_componentinterface *const greeterIfaces[] = {&greeterIface, &adderIface};

static int32_t greeter_create(void **implslot, vxl_if primary)
{
    struct greeter *self = malloc(sizeof *self);
    if (!self)
        return VXL_ENOMEM;
    self->name = "the greeter";
    self->greetings = 0;
    *implslot = self;
    return VXL_OK;
}

static int32_t greeter_destroy(void *impl, vxl_if primary)
{
    printf("  the greeter goes away after %d greeting(s)\n", ((struct greeter *)impl)->greetings);
    free(impl);
    return VXL_OK;
}

static const vxl_componentdef Greeter = {"Greeter", 2, greeterIfaces, greeter_create, greeter_destroy, NULL};
static const vxl_componentdef *const components[] = {&Greeter, NULL};
static const vxl_interfacedef *const interfaces[] = {&IGreeter, &IAdder, NULL};

/* ---- what a client sees ----------------------------------------------------- */

typedef int32_t (*greet_slot)(vxl_if self, const char *whom);
typedef int32_t (*add_slot)(vxl_if self, int32_t a, double x, double *sum);

int main(void)
{
    const char *logname = getenv("VXLLOGNAME");
    if (!logname) {
        logname = "vexal_demo.log";
        _putenv("VXLLOGNAME=vexal_demo.log");
    }

    vxl_init();
    printf("vxl_register(\"demo\") = %d\n", vxl_register("demo", components, interfaces));

    vxl_if greeter = NULL;
    printf("vxl_createinstance(Greeter, IGreeter) = %d\n", vxl_createinstance("Greeter", "IGreeter", &greeter));
    VXL_METHOD(greeter, 0, greet_slot)(greeter, "the world");
    VXL_METHOD(greeter, 0, greet_slot)(greeter, "the reader");

    vxl_if adder = NULL;
    greeter->slots->getinterface(greeter, "IAdder", &adder);
    double sum = 0;
    VXL_METHOD(adder, 0, add_slot)(adder, 40, 2.5, &sum);
    printf("  IAdder.add(40, 2.5) = %g\n", sum);

    printf("vxl_inuse while the object lives = %d\n", vxl_inuse(components));
    vxl_decref(adder);
    vxl_decref(greeter);
    printf("vxl_inuse after the last release = %d\n", vxl_inuse(components));
    printf("vxl_unregister = %d\n", vxl_unregister(components, interfaces));

    printf("\ntrace log (%s):\n", logname);
    FILE *log = fopen(logname, "rb");
    if (log) {
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, log)) > 0)
            fwrite(buf, 1, n, stdout);
        fclose(log);
    }
    return 0;
}
