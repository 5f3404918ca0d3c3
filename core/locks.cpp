// The four kit locks: recursive, created together exactly once on first use.
#include "kit.h"
#include "lockset.h"

namespace {

vxl_lockset<VXL_KIT_LOCK_COUNT> g_kitlocks(nullptr);

} // namespace

void vxl_lock(vxl_kitlock lock)
{
    g_kitlocks.enter(lock);
}

void vxl_unlock(vxl_kitlock lock)
{
    g_kitlocks.leave(lock);
}
