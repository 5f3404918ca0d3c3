// Test component library: classes of 1, 2 and 6 interfaces whose methods
// take mixed arguments (integers and floating point interleaved, more than
// four so that some travel on the stack) and record exactly what arrived.
#pragma once

#include "vexal.h"

#include <cstdint>

#ifdef TC_BUILDING
#define TC_API extern "C" __declspec(dllexport)
#else
#define TC_API extern "C" __declspec(dllimport)
#endif

constexpr uint32_t TC_MAGIC = 0x7c0de11u;

// What a create callback puts behind an object (owned = 1), or what a test
// hands to vxl_encapsulate (owned = 0, never freed by destroy).
struct tc_impl {
    uint32_t magic;
    int32_t owned;
    int32_t serial;
    vxl_if primary;
};

// Arguments of the last method call, as the function received them.
struct tc_call {
    int32_t function; // id of the function that ran
    void *impl;
    int32_t a;
    double b;
    int64_t c;
    float d;
    const char *s;
    double e;
    int32_t f;
    float g;
    void *p;
    double h;
    int64_t k;
    float floats[6];
};

// Method shapes. Self is the implementation pointer when called through a
// stub; argument positions 1..3 are in registers, the rest on the stack.
typedef double (*tc_mixedA)(void *self, int32_t a, double b, int64_t c, float d, const char *s, double e,
                            int32_t f, float g, void *p, double h, int64_t k);
typedef int64_t (*tc_mixedB)(void *self, double b, int32_t a, float d, int64_t c, double e, const char *s,
                             int32_t f, double h);
typedef float (*tc_floats)(void *self, float a, float b, float c, float d, float e, float f);

struct tc_control {
    int32_t destroystatus; // returned by destroy (non-zero: implementation kept)
    int32_t destroys;
    int32_t initcalls; // runs of vxl_dll_init
    tc_call last;
};

TC_API tc_control *tc_getcontrol(void);
// "TcOne" (IOne: a, b, c), "TcTwo" (ITwoA: a; ITwoB: b, c),
// "TcSix" (ISix0..ISix5: a, b each); null-terminated.
TC_API const vxl_componentdef *const *tc_components(void);

// Function ids recorded in tc_call::function.
constexpr int32_t TC_ONE_A = 100, TC_ONE_B = 101, TC_ONE_C = 102;
constexpr int32_t TC_TWO_A = 200, TC_TWO_B = 210, TC_TWO_C = 211;
// ISix<i>: a = 300 + 10 i, b = 301 + 10 i.
constexpr int32_t tc_sixid(int32_t i, int32_t method)
{
    return 300 + 10 * i + method;
}
