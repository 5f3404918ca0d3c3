// The COM lock set: four recursive critical sections, created together exactly
// once on the first use of any of them (even when threads race for it), never
// deleted. Order: wrapper lock before any other; in-use before class-object
// cache.
#include "comserver/comserver.h"
#include "core/lockset.h"

namespace {

static_assert(VXL_COM_LOCK_COUNT == 4, "wrapper, in-use, class-object cache and registration lock");

// Written inside the one-time creation, so exactly once per process.
void announce()
{
    vxl_log("new lock init in com\n");
}

vxl_lockset<VXL_COM_LOCK_COUNT> g_comlocks(announce);

} // namespace

void vxl_com_lock(vxl_comlock lock)
{
    g_comlocks.enter(lock);
}

void vxl_com_unlock(vxl_comlock lock)
{
    g_comlocks.leave(lock);
}
