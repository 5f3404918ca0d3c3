/*
 * vexal demo: a component library registers one component with the kit and
 * the program shows the trace log the runtime wrote meanwhile.
 */
#include <stdio.h>
#include <stdlib.h>

#include "vexal.h"

static const vxl_paramdef who = {"who", VXL_TYPE_STRING, VXL_DIR_IN, 0, NULL};
static const vxl_paramdef *const greetparams[] = {&who};
static const vxl_methoddef greet = {"greet", 1, greetparams};
static const vxl_methoddef *const greetermethods[] = {&greet};
static const vxl_interfacedef igreeter = {"IGreeter", 1, greetermethods};

static int32_t greeter_greet(void *impl, const char *whom)
{
    printf("  %s says hello to %s\n", (const char *)impl, whom);
    return 0;
}

static const vxl_fn greeterfns[] = {(vxl_fn)greeter_greet};
static const vxl_componentinterface greeteriface = {&igreeter, greeterfns};
static const vxl_componentinterface *const greeterifaces[] = {&greeteriface};

static int32_t greeter_create(void **implslot, vxl_if primary)
{
    *implslot = (void *)"the greeter";
    return 0;
}
static int32_t greeter_destroy(void *impl, vxl_if primary)
{
    return 0;
}

static const vxl_componentdef greeter = {"Greeter", 1, greeterifaces, greeter_create, greeter_destroy, NULL};
static const vxl_componentdef *const components[] = {&greeter, NULL};
static const vxl_interfacedef *const interfaces[] = {&igreeter, NULL};

int main(void)
{
    const char *logname = getenv("VXLLOGNAME");
    if (!logname) {
        logname = "vexal_demo.log";
        _putenv("VXLLOGNAME=vexal_demo.log");
    }

    vxl_init();
    printf("vxl_register(\"demo\") = %d\n", vxl_register("demo", components, interfaces));
    const vxl_methoddef *m = vxl_getmethod(&igreeter, "greet");
    printf("vxl_getmethod(IGreeter, greet) -> %s with %d parameter(s)\n", m ? m->name : "(none)",
           m ? m->paramcount : 0);
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
