// Helpers shared by the kit core tests: the test components, the object and
// factory layouts seen from outside, and log text formatting.
#pragma once

#include "core/object.h"
#include "harness.h"
#include "testcomponents.h"

#include <string>

namespace kt {

// Registers the test components (runs tc_components.dll's vxl_dll_init) once.
void ensureComponents();
const vxl_componentdef *component(const char *name);

// printf into a string, for expected log text.
std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A pointer as the trace log prints it.
std::string hex(const void *p);

// Interface i of an object, from its primary interface pointer.
inline vxl_if iface(vxl_if primary, int32_t i)
{
    return reinterpret_cast<vxl_if>(reinterpret_cast<void **>(primary) - i);
}
// The primary interface pointer of an object, from its interface i.
inline vxl_if primaryFrom(vxl_if pif, int32_t i)
{
    return reinterpret_cast<vxl_if>(reinterpret_cast<void **>(pif) + i);
}
inline vxl_objectcore *coreOf(vxl_if primary)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(primary) + 1);
}
inline int32_t refcount(vxl_if primary)
{
    return coreOf(primary)->refcount;
}
inline tc_impl *implOf(vxl_if primary)
{
    return static_cast<tc_impl *>(coreOf(primary)->impl);
}

// The factory of a class (built if needed), without keeping a use.
vxl_classfactory *factoryOf(const char *classname);
inline int32_t usecount(const vxl_classfactory *factory)
{
    return factory->usecount;
}

} // namespace kt
