// The sample component itself: plain functions that receive the object's
// implementation pointer first, as the kit's method stubs pass it.
#include "calculator.h"

#include <windows.h>

#include <climits>
#include <cstdio>
#include <iterator>
#include <new>

namespace {

struct Calculator {
    volatile LONG greetings = 0;
};

Calculator *self(void *impl)
{
    return static_cast<Calculator *>(impl);
}

int32_t add(void *, int32_t a, int32_t b, int32_t *sum)
{
    long long wide = static_cast<long long>(a) + b;
    if (wide < INT_MIN || wide > INT_MAX)
        return VXSAMPLE_E_OVERFLOW;
    *sum = static_cast<int32_t>(wide);
    return VXL_OK;
}

int32_t scale(void *, double value, double factor, double *result)
{
    *result = value * factor;
    return VXL_OK;
}

// A copy in kit memory, which the caller frees with vxl_free.
int32_t formatted(char **out, const char *format, const char *text, double value = 0)
{
    int n = snprintf(nullptr, 0, format, text ? text : "", value);
    *out = static_cast<char *>(vxl_malloc(n + 1));
    if (!*out)
        return VXL_ENOMEM;
    snprintf(*out, n + 1, format, text ? text : "", value);
    return VXL_OK;
}

int32_t describe(void *, const char *label, double value, char **text)
{
    return formatted(text, "%s = %g", label, value);
}

int32_t greet(void *impl, const char *name, char **greeting)
{
    InterlockedIncrement(&self(impl)->greetings);
    return formatted(greeting, "Hello, %s!", name);
}

int32_t greetings(void *impl, int32_t *count)
{
    *count = self(impl)->greetings;
    return VXL_OK;
}

// ---- definitions -----------------------------------------------------------------

const vxl_paramdef intA = {"a", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef intB = {"b", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef intSum = {"sum", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef doubleValue = {"value", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef doubleFactor = {"factor", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef doubleResult = {"result", VXL_TYPE_DOUBLE, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef stringLabel = {"label", VXL_TYPE_STRING, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef stringText = {"text", VXL_TYPE_STRING, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef stringName = {"name", VXL_TYPE_STRING, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef stringGreeting = {"greeting", VXL_TYPE_STRING, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef intCount = {"count", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};

const vxl_paramdef *const addParams[] = {&intA, &intB, &intSum};
const vxl_paramdef *const scaleParams[] = {&doubleValue, &doubleFactor, &doubleResult};
const vxl_paramdef *const describeParams[] = {&stringLabel, &doubleValue, &stringText};
const vxl_paramdef *const greetParams[] = {&stringName, &stringGreeting};
const vxl_paramdef *const greetingsParams[] = {&intCount};

const vxl_methoddef addMethod = {"add", 3, addParams};
const vxl_methoddef scaleMethod = {"scale", 3, scaleParams};
const vxl_methoddef describeMethod = {"describe", 3, describeParams};
const vxl_methoddef greetMethod = {"greet", 2, greetParams};
const vxl_methoddef greetingsMethod = {"greetings", 1, greetingsParams};

const vxl_methoddef *const calculatorMethods[] = {&addMethod, &scaleMethod, &describeMethod};
const vxl_methoddef *const greeterMethods[] = {&greetMethod, &greetingsMethod};

// In the order of the methods (and of the VXSAMPLE_ method numbers).
const vxl_fn calculatorFunctions[] = {reinterpret_cast<vxl_fn>(add), reinterpret_cast<vxl_fn>(scale),
                                      reinterpret_cast<vxl_fn>(describe)};
const vxl_fn greeterFunctions[] = {reinterpret_cast<vxl_fn>(greet), reinterpret_cast<vxl_fn>(greetings)};

static_assert(std::size(calculatorMethods) == VXSAMPLE_CALCULATOR_METHODS, "one definition per method");
static_assert(std::size(calculatorFunctions) == VXSAMPLE_CALCULATOR_METHODS, "one function per method");
static_assert(std::size(greeterMethods) == VXSAMPLE_GREETER_METHODS, "one definition per method");
static_assert(std::size(greeterFunctions) == VXSAMPLE_GREETER_METHODS, "one function per method");

} // namespace

const vxl_interfacedef vxsample_ICalculator = {"ICalculator", VXSAMPLE_CALCULATOR_METHODS, calculatorMethods};
const vxl_interfacedef vxsample_IGreeter = {"IGreeter", VXSAMPLE_GREETER_METHODS, greeterMethods};

namespace {
const vxl_componentinterface calculatorEntry = {&vxsample_ICalculator, calculatorFunctions};
const vxl_componentinterface greeterEntry = {&vxsample_IGreeter, greeterFunctions};
} // namespace

const vxl_componentinterface *const vxsample_calculatorinterfaces[2] = {&calculatorEntry, &greeterEntry};
const vxl_interfacedef *const vxsample_interfaces[3] = {&vxsample_ICalculator, &vxsample_IGreeter, nullptr};

int32_t vxsample_createcalculator(void **implslot, vxl_if)
{
    *implslot = new (std::nothrow) Calculator;
    return *implslot ? VXL_OK : VXL_ENOMEM;
}

int32_t vxsample_destroycalculator(void *impl, vxl_if)
{
    delete self(impl);
    return VXL_OK;
}
