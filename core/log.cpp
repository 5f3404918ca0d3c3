// The trace log: opened once per process from VXLLOGNAME, flushed per message.
#include "kit.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// Tried and found no file: set once, never cleared, so a reader that sees
// it needs no lock (vxl_traceoff, and the first thing vxl_log checks).
std::atomic<bool> vxl_logoff{false};

namespace {

std::atomic<FILE *> g_logfile{nullptr};
bool g_opentried = false; // with the log lock

} // namespace

void vxl_log(const char *format, ...)
{
    // Hot paths (incref/decref) log every call: with tracing off, stop here.
    if (vxl_logoff.load(std::memory_order_relaxed))
        return;

    vxl_lockguard guard(VXL_LOG_LOCK);
    if (!g_opentried) {
        const char *name = getenv("VXLLOGNAME");
        if (name && *name)
            g_logfile.store(fopen(name, "w"), std::memory_order_relaxed);
        g_opentried = true;
        if (!g_logfile.load(std::memory_order_relaxed))
            vxl_logoff.store(true, std::memory_order_relaxed);
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
