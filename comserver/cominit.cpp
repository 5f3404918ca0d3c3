// COM initialisation of the calling thread, apartment-threaded.
#include "comserver/comserver.h"

#include <objbase.h>

int32_t vxl_com_init(void)
{
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    return 0;
}

int32_t vxl_com_uninit(void)
{
    CoUninitialize();
    return 0;
}
