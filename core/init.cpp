// The library's start call. The kit core itself needs none: its locks and the
// trace log come into being on first use; only COM needs the calling thread.
#include "comside.h"

int32_t vxl_init(void)
{
    vxl_com_init();
    return 0;
}
