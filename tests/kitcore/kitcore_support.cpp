#include "kitcore_support.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>

namespace kt {

void ensureComponents()
{
    static bool loaded = false;
    if (!loaded) {
        ASSERT_EQ(0, vxl_loaddynamiclibrary("tc_components.dll"));
        loaded = true;
    }
}

const vxl_componentdef *component(const char *name)
{
    for (const vxl_componentdef *const *c = tc_components(); *c; ++c)
        if (std::string((*c)->name) == name)
            return *c;
    return nullptr;
}

std::string fmt(const char *format, ...)
{
    char buf[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

std::string hex(const void *p)
{
    return fmt("%x", VXL_PTR(p));
}

vxl_classfactory *factoryOf(const char *classname)
{
    vxl_classfactory *factory = nullptr;
    if (vxl_createclassfactory(&factory, classname) != 0)
        return nullptr;
    vxl_destroyclassfactory(factory);
    return factory;
}

} // namespace kt
