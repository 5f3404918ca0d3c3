// The trace log: opened once per process from VXLLOGNAME, flushed per message.
#include "kit.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

// The file pointer is published before the flag, so a reader that sees the
// flag set and no file knows tracing is off for good and needs no lock.
std::atomic<FILE *> g_logfile{nullptr};
std::atomic<int32_t> g_opentried{0};

} // namespace

void vxl_log(const char *format, ...)
{
    // Hot paths (incref/decref) log every call: with tracing off, stop here.
    if (g_opentried.load(std::memory_order_acquire) && !g_logfile.load(std::memory_order_relaxed))
        return;

    vxl_lockguard guard(VXL_LOG_LOCK);
    if (!g_opentried.load(std::memory_order_relaxed)) {
        const char *name = getenv("VXLLOGNAME");
        if (name && *name)
            g_logfile.store(fopen(name, "w"), std::memory_order_relaxed);
        g_opentried.store(1, std::memory_order_release);
    }
    FILE *file = g_logfile.load(std::memory_order_relaxed);
    if (!file)
        return;
    va_list args;
    va_start(args, format);
    vfprintf(file, format, args);
    va_end(args);
    fflush(file);
}

void vxl_fatal(const char *message)
{
    vxl_log("vxl_fatal: %s\n", message);
    abort();
}
