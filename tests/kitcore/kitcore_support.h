// Helpers shared by the kit core tests: the test components, the object and
// factory layouts seen from outside, and log text formatting.
#pragma once

#include "core/object.h"
#include "harness.h"
#include "testcomponents.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kt {

inline vxl_if const deadbeef = reinterpret_cast<vxl_if>(0xdeadbeef);

// Registers the test components (runs tc_components.dll's vxl_dll_init) once.
inline void ensureComponents()
{
    static bool loaded = false;
    if (!loaded) {
        ASSERT_EQ(0, vxl_loaddynamiclibrary("tc_components.dll"));
        loaded = true;
    }
}

inline const vxl_componentdef *component(const char *name)
{
    for (const vxl_componentdef *const *c = tc_components(); *c; ++c)
        if (std::string((*c)->name) == name)
            return *c;
    return nullptr;
}

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
inline std::string hex(const void *p) { return fmt("%x", VXL_PTR(p)); }

// The system's message for code as the trace shows it: without the final
// full stop and line end.
inline std::string systemText(DWORD code)
{
    char raw[1024] = "";
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, raw,
                             sizeof raw, nullptr);
    std::string text(raw, n);
    for (char end : {'\n', '\r', '.'})
        if (n > 3 && !text.empty() && text.back() == end)
            text.pop_back();
    return text;
}

// Interface i of an object, from its primary interface pointer, and back.
inline vxl_if iface(vxl_if primary, int32_t i)
{
    return reinterpret_cast<vxl_if>(reinterpret_cast<void **>(primary) - i);
}
inline vxl_if primaryFrom(vxl_if pif, int32_t i)
{
    return reinterpret_cast<vxl_if>(reinterpret_cast<void **>(pif) + i);
}
inline vxl_objectcore *coreOf(vxl_if primary)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(primary) + 1);
}
inline int32_t refcount(vxl_if primary) { return coreOf(primary)->refcount; }
inline tc_impl *implOf(vxl_if primary) { return static_cast<tc_impl *>(coreOf(primary)->impl); }
inline int32_t usecount(const vxl_classfactory *factory) { return factory->usecount; }

// The factory of a class (built if needed), without keeping a use.
inline vxl_classfactory *factoryOf(const char *classname)
{
    vxl_classfactory *factory = nullptr;
    if (vxl_createclassfactory(&factory, classname) != 0)
        return nullptr;
    vxl_destroyclassfactory(factory);
    return factory;
}

// Runs a child that writes the trace it expects next to its log (it alone
// knows the addresses) and compares the two.
inline void expectChildLog(const char *child, int exitcode)
{
    std::string log = vxltest::scratchPath(std::string(child) + ".log");
    vxltest::scratchPath(std::string(child) + ".log.expected");
    EXPECT_EQ(exitcode, vxltest::runChild(child, log.c_str())) << child;
    std::string expected = vxltest::readLog(log + ".expected");
    EXPECT_TRUE(vxltest::fileExists(log + ".expected")) << child;
    EXPECT_EQ(expected, vxltest::readLog(log)) << child;
}

} // namespace kt
