// Shared by the marshalling tests: one row of functions per element kind, so
// every case runs over all five kinds, with interface elements crossing as
// counted test counters.
#pragma once

#include "counters.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <tuple>
#include <type_traits>

namespace dm {

using vxltest::liveCounters;
using vxltest::newCounter;

// The size of a block of COM task memory; 0 for any other pointer.
inline size_t taskSize(void *block)
{
    IMalloc *task = nullptr;
    CoGetMalloc(1, &task);
    size_t size = task->DidAlloc(block) == 1 ? task->GetSize(block) : 0;
    task->Release();
    return size;
}

template <class In, class Out> struct Kind {
    using in_type = In;
    using out_type = Out;
    const char *name;
    SAFEARRAY *(*create)(const In *, int32_t);
    SAFEARRAY *(*createVariant)(const In *, int32_t);
    void (*copyFrom)(Out *, SAFEARRAY *, int32_t);
    Out *(*createFrom)(SAFEARRAY *, int32_t);
    Out (*read)(const VARIANT *);
    int32_t (*put)(VARIANT *, In);
    int32_t (*putArray)(VARIANT *, const In *, int32_t);
    Out *(*readArray)(const VARIANT *, int32_t);
    void (*freeArray)(Out *, int32_t); // frees a kit array of the kind
    VARTYPE elementTag, putTag;
};

// Interfaces cross as ICounter in its dispatch form, so VT_DISPATCH holds a
// real IDispatch; the trailing arguments are the interface functions' extra ones.
#define DM_IF "ICounter", "comS"
#define DM_KIND(k, In, Out, freeArray, elementTag, putTag, ...)                                    \
    Kind<In, Out>                                                                                  \
    {                                                                                              \
        #k, [](const In *s, int32_t n) { return vxl_com_create##k##safearray(s, n __VA_ARGS__); }, \
            [](const In *s, int32_t n) { return vxl_com_createvariant##k##safearray(s, n __VA_ARGS__); }, \
            [](Out *d, SAFEARRAY *sa, int32_t n) { vxl_com_copy##k##arrayfromsafearray(d, sa, n __VA_ARGS__); }, \
            [](SAFEARRAY *sa, int32_t n) { return vxl_com_create##k##arrayfromsafearray(sa, n __VA_ARGS__); }, \
            [](const VARIANT *v) { return vxl_com_read##k##fromvariant(v __VA_ARGS__); },         \
            [](VARIANT *v, In x) { return vxl_com_put##k##tovariant(v, x __VA_ARGS__); },          \
            [](VARIANT *v, const In *s, int32_t n) {                                               \
                return vxl_com_copy##k##arraytovariantsafearrayvariant(v, s, n __VA_ARGS__);       \
            },                                                                                     \
            [](const VARIANT *v, int32_t n) {                                                      \
                return vxl_com_copy##k##arrayfromvariantsafearrayvariant(v, n __VA_ARGS__);        \
            },                                                                                     \
            [](Out *a, int32_t n) { freeArray; }, elementTag, putTag                               \
    }

using cstring = const char *;
template <class F> void forEachKind(F f)
{
    auto all = std::make_tuple(DM_KIND(int, int32_t, int32_t, vxl_free(a), VT_I4, VT_I4),
                               DM_KIND(float, float, float, vxl_free(a), VT_R4, VT_R4),
                               DM_KIND(double, double, double, vxl_free(a), VT_R8, VT_R8),
                               DM_KIND(string, cstring, char *, vxl_freestringarray(a, n), VT_BSTR, VT_BSTR),
                               DM_KIND(interface, vxl_if, vxl_if, vxl_freeinterfacearray(a, n), VT_UNKNOWN,
                                       VT_DISPATCH, , DM_IF));
    std::apply([&](auto &...kind) { (f(kind), ...); }, all);
}

#define KIND_TYPES(k)                                                                              \
    using K = std::decay_t<decltype(k)>;                                                           \
    using In [[maybe_unused]] = typename K::in_type;                                               \
    using Out [[maybe_unused]] = typename K::out_type

// Three values of each kind; the second is null for strings and interfaces.
template <class In> struct Samples;
template <> struct Samples<int32_t> { int32_t v[3] = {7, -2, 123456}; };
template <> struct Samples<float> { float v[3] = {1.5f, -0.25f, 3e8f}; };
template <> struct Samples<double> { double v[3] = {2.5, -1e300, 0.1}; };
template <> struct Samples<const char *> { const char *v[3] = {"one", nullptr, "caf\xe9"}; };
template <> struct Samples<vxl_if> {
    vxl_if v[3] = {newCounter(), nullptr, newCounter()};
    ~Samples() { vxl_decref(v[0]), vxl_decref(v[2]); }
};

// Numbers compare by their bytes, strings by their text, interfaces by pointer.
template <class T> bool same(T a, T b) { return memcmp(&a, &b, sizeof a) == 0; }
inline bool same(const char *a, const char *b) { return a && b ? strcmp(a, b) == 0 : a == b; }
inline bool same(char *a, const char *b) { return same(static_cast<const char *>(a), b); }
inline bool same(char *a, char *b) { return same(static_cast<const char *>(a), b); }

// Gives back one value read out of a VARIANT.
template <class T> void release(T) {}
inline void release(char *string) { vxl_free(string); }
inline void release(vxl_if pif) { vxl_decref(pif); }

// A kit array of n elements that no reader may touch: null pointers, or 0x5A bytes.
template <class Out> Out *untouched(size_t n)
{
    Out *array = static_cast<Out *>(vxl_malloc(static_cast<int32_t>(n * sizeof(Out))));
    memset(static_cast<void *>(array), std::is_pointer_v<Out> ? 0 : 0x5A, n * sizeof(Out));
    return array;
}

inline VARIANT byref(VARTYPE vt, void *target)
{
    VARIANT v;
    V_VT(&v) = VT_BYREF | vt, V_BYREF(&v) = target;
    return v;
}

} // namespace dm
