// The sample component as the kit sees it: two interfaces and the callbacks
// of a class that implements both. The in-process server (vxsample.dll) and
// the local server (vxsampleserver.exe) each register a class built from
// these under a name of their own.
//
//   ICalculator  add(in int a, in int b, out int sum)
//                scale(in double value, in double factor, out double result)
//                describe(in string label, in double value, out string text)
//   IGreeter     greet(in string name, out string greeting)
//                greetings(out int count)
//
// Out strings are kit memory that the caller frees with vxl_free.
#pragma once

#include "vexal.h"

extern const vxl_interfacedef vxsample_ICalculator;
extern const vxl_interfacedef vxsample_IGreeter;
// Both interfaces, ICalculator first (the primary interface).
extern const vxl_componentinterface *const vxsample_calculatorinterfaces[2];
extern const vxl_interfacedef *const vxsample_interfaces[3]; // null-terminated

int32_t vxsample_createcalculator(void **implslot, vxl_if primary);
int32_t vxsample_destroycalculator(void *impl, vxl_if primary);

// add's status when the sum does not fit an int: a component-defined error,
// which reaches COM clients as an interface-specific HRESULT.
#define VXSAMPLE_E_OVERFLOW (-1)

// The methods as callers reach them through a kit interface's slots: the
// number of each method (its place in the interface definition) and its
// function type. The last name of each list counts the methods.
enum { VXSAMPLE_ADD, VXSAMPLE_SCALE, VXSAMPLE_DESCRIBE, VXSAMPLE_CALCULATOR_METHODS };
enum { VXSAMPLE_GREET, VXSAMPLE_GREETINGS, VXSAMPLE_GREETER_METHODS };
typedef int32_t (*vxsample_add_slot)(vxl_if self, int32_t a, int32_t b, int32_t *sum);
typedef int32_t (*vxsample_scale_slot)(vxl_if self, double value, double factor, double *result);
typedef int32_t (*vxsample_describe_slot)(vxl_if self, const char *label, double value, char **text);
typedef int32_t (*vxsample_greet_slot)(vxl_if self, const char *name, char **greeting);
typedef int32_t (*vxsample_greetings_slot)(vxl_if self, int32_t *count);
