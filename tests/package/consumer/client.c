/* Loads doubler.dll, creates its class by name and calls it. */
#include <stdio.h>
#include <vexal.h>

typedef int32_t (*twice_slot)(vxl_if self, int32_t value, int32_t *result);

int main(void)
{
    vxl_init();
    int32_t status = vxl_loaddynamiclibrary("doubler.dll");
    if (status != VXL_OK) {
        printf("vxl_loaddynamiclibrary(doubler.dll) = %d\n", (int)status);
        return 1;
    }
    vxl_if doubler = NULL;
    status = vxl_createinstance("Package.Doubler", "IDoubler", &doubler);
    if (status != VXL_OK) {
        printf("vxl_createinstance(Package.Doubler) = %d\n", (int)status);
        return 1;
    }
    int32_t result = 0xdeadbeef;
    status = VXL_METHOD(doubler, 0, twice_slot)(doubler, 21, &result);
    vxl_decref(doubler);
    printf("IDoubler.Twice(21) = %d, status %d\n", (int)result, (int)status);
    return status == VXL_OK && result == 42 ? 0 : 1;
}
