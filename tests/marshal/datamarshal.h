// Shared by the data marshalling tests: a counted kit component whose
// ICounter crosses to COM through the test wrapper library, and one table
// row per element kind holding that kind's functions, so every test runs
// the same cases over int, float, double, string and interface.
#pragma once

#include "harness.h"
#include "testifaces.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <tuple>
#include <type_traits>

namespace dm {

inline std::atomic<int> liveCounters{0};

inline int32_t counterCreate(void **impl, vxl_if)
{
    *impl = nullptr;
    ++liveCounters;
    return VXL_OK;
}
inline int32_t counterDestroy(void *, vxl_if)
{
    --liveCounters;
    return VXL_OK;
}
inline int32_t counterAdd(void *, int32_t) { return VXL_OK; }
inline int32_t counterGet(void *, int32_t *value)
{
    *value = 0;
    return VXL_OK;
}

// Registers the component and loads the wrapper library (which registers
// ICounter's wrappers and proxies as it loads).
inline void setUpProcess()
{
    static const vxl_fn fns[] = {reinterpret_cast<vxl_fn>(counterAdd), reinterpret_cast<vxl_fn>(counterGet)};
    static const vxl_componentinterface ci = {&ICounterDef, fns};
    static const vxl_componentinterface *const cis[] = {&ci};
    static const vxl_componentdef counter = {"MarshalCounter", 1, cis, counterCreate, counterDestroy, nullptr};
    static const vxl_componentdef *const classes[] = {&counter, nullptr};
    static const vxl_interfacedef *const ifaces[] = {&ICounterDef, nullptr};
    vxl_init();
    vxl_register("marshaltests", classes, ifaces);
    LoadLibraryA("testwrappers.dll");
}

inline vxl_if newCounter()
{
    vxl_if pif = nullptr;
    vxl_createinstance("MarshalCounter", "ICounter", &pif);
    return pif;
}

inline LONG liveWrappers()
{
    auto live = reinterpret_cast<LONG (*)()>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("testwrappers.dll"), "testwrappers_livewrappers")));
    return live ? live() : -1;
}

// Interfaces cross as ICounter in its dispatch form, so VT_DISPATCH holds a
// real IDispatch.
#define DM_IF "ICounter", "comS"

// The functions of one element kind. In is what the kit hands in, Out what
// it gets back.
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
    void (*freeArray)(Out *, int32_t); // a kit array with the kind's free function
    VARTYPE elementTag, putTag;
};

inline void freeNumbers(void *array, int32_t) { vxl_free(array); }

#define DM_NUMBER_KIND(name, T, tag)                                                               \
    Kind<T, T>                                                                                     \
    {                                                                                              \
        #name, vxl_com_create##name##safearray, vxl_com_createvariant##name##safearray,            \
            vxl_com_copy##name##arrayfromsafearray, vxl_com_create##name##arrayfromsafearray,      \
            vxl_com_read##name##fromvariant, vxl_com_put##name##tovariant,                         \
            vxl_com_copy##name##arraytovariantsafearrayvariant,                                    \
            vxl_com_copy##name##arrayfromvariantsafearrayvariant,                                  \
            [](T *a, int32_t n) { freeNumbers(a, n); }, tag, tag                                   \
    }

inline auto kinds()
{
    return std::make_tuple(
        DM_NUMBER_KIND(int, int32_t, VT_I4), DM_NUMBER_KIND(float, float, VT_R4),
        DM_NUMBER_KIND(double, double, VT_R8),
        Kind<const char *, char *>{"string", vxl_com_createstringsafearray, vxl_com_createvariantstringsafearray,
                                   vxl_com_copystringarrayfromsafearray, vxl_com_createstringarrayfromsafearray,
                                   vxl_com_readstringfromvariant, vxl_com_putstringtovariant,
                                   vxl_com_copystringarraytovariantsafearrayvariant,
                                   vxl_com_copystringarrayfromvariantsafearrayvariant, vxl_freestringarray, VT_BSTR,
                                   VT_BSTR},
        Kind<vxl_if, vxl_if>{
            "interface", [](const vxl_if *s, int32_t n) { return vxl_com_createinterfacesafearray(s, n, DM_IF); },
            [](const vxl_if *s, int32_t n) { return vxl_com_createvariantinterfacesafearray(s, n, DM_IF); },
            [](vxl_if *d, SAFEARRAY *sa, int32_t n) { vxl_com_copyinterfacearrayfromsafearray(d, sa, n, DM_IF); },
            [](SAFEARRAY *sa, int32_t n) { return vxl_com_createinterfacearrayfromsafearray(sa, n, DM_IF); },
            [](const VARIANT *v) { return vxl_com_readinterfacefromvariant(v, DM_IF); },
            [](VARIANT *v, vxl_if p) { return vxl_com_putinterfacetovariant(v, p, DM_IF); },
            [](VARIANT *v, const vxl_if *s, int32_t n) {
                return vxl_com_copyinterfacearraytovariantsafearrayvariant(v, s, n, DM_IF);
            },
            [](const VARIANT *v, int32_t n) { return vxl_com_copyinterfacearrayfromvariantsafearrayvariant(v, n, DM_IF); },
            [](vxl_if *a, int32_t n) { vxl_freeinterfacearray(a, n); }, VT_UNKNOWN, VT_DISPATCH});
}

template <class F> void forEachKind(F f)
{
    auto all = kinds();
    std::apply([&](auto &...kind) { (f(kind), ...); }, all);
}

// Values compare as numbers, strings by their text, interfaces by pointer.
template <class T> bool same(T a, T b) { return memcmp(&a, &b, sizeof a) == 0; }
inline bool same(char *a, const char *b) { return a && b ? strcmp(a, b) == 0 : a == b; }
inline bool same(char *a, char *b) { return same(a, static_cast<const char *>(b)); }

} // namespace dm

namespace dm {

// Three values of each kind: the second is null for strings and interfaces.
template <class In> struct Samples;
template <> struct Samples<int32_t> { int32_t v[3] = {7, -2, 123456}; };
template <> struct Samples<float> { float v[3] = {1.5f, -0.25f, 3e8f}; };
template <> struct Samples<double> { double v[3] = {2.5, -1e300, 0.1}; };
template <> struct Samples<const char *> { const char *v[3] = {"one", nullptr, "caf\xe9"}; };
template <> struct Samples<vxl_if> {
    vxl_if v[3];
    Samples() : v{newCounter(), nullptr, newCounter()} {}
    ~Samples() { vxl_decref(v[0]), vxl_decref(v[2]); }
};

// A kit array of n elements that no reader may touch: zero pointers, or 0x5A bytes.
template <class Out> Out *untouched(size_t n)
{
    Out *array = static_cast<Out *>(vxl_malloc(static_cast<int32_t>(n * sizeof(Out))));
    memset(static_cast<void *>(array), std::is_pointer_v<Out> ? 0 : 0x5A, n * sizeof(Out));
    return array;
}

inline VARIANT byref(VARTYPE vt, void *target)
{
    VARIANT v;
    V_VT(&v) = VT_BYREF | vt;
    V_BYREF(&v) = target;
    return v;
}

#define KIND_TYPES(k)                                                                              \
    using K = std::decay_t<decltype(k)>;                                                           \
    using In [[maybe_unused]] = typename K::in_type;                                                              \
    using Out [[maybe_unused]] = typename K::out_type

// Gives back one value read out of a VARIANT.
template <class T> void release(T) {}
inline void release(char *string) { vxl_free(string); }
inline void release(vxl_if pif) { vxl_decref(pif); }

} // namespace dm
