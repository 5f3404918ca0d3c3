// Helpers shared by the kit core tests: the object layout seen from outside
// and log text formatting.
#pragma once

#include "core/object.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kt {

inline vxl_if const deadbeef = reinterpret_cast<vxl_if>(0xdeadbeef);

// printf into a string, for expected log text.
inline std::string __attribute__((format(printf, 1, 2))) fmt(const char *format, ...)
{
    char buf[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

// A pointer as the trace log prints it.
inline std::string hex(const void *p)
{
    return fmt("%x", VXL_PTR(p));
}

// Interface i of an object, from its primary interface pointer, and its core.
inline vxl_if iface(vxl_if primary, int32_t i)
{
    return reinterpret_cast<vxl_if>(reinterpret_cast<void **>(primary) - i);
}
inline vxl_objectcore *coreOf(vxl_if primary)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(primary) + 1);
}

} // namespace kt
