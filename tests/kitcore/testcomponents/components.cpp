// The test component library. Its vxl_dll_init starts the kit on the thread
// and registers TcOne, TcTwo and TcSix (once; later runs only count).
#include "testcomponents.h"

#include <cstring>

namespace {

tc_control g_control;
int32_t g_serial = 0;
bool g_registered = false;

int32_t serialOf(void *self)
{
    auto *impl = static_cast<tc_impl *>(self);
    return impl && impl->magic == TC_MAGIC ? impl->serial : -1000;
}

// Every argument and the implementation pointer weigh in, each with its own factor.
template <int32_t Id>
double mixedA(void *self, int32_t a, double b, int64_t c, float d, const char *s, double e, int32_t f, float g,
              void *p, double h, int64_t k)
{
    tc_call &r = g_control.last;
    r = tc_call{};
    r.function = Id;
    r.impl = self;
    r.a = a, r.b = b, r.c = c, r.d = d, r.s = s, r.e = e, r.f = f, r.g = g, r.p = p, r.h = h, r.k = k;
    return Id * 1e6 + a * 3.0 + b * 5 + static_cast<double>(c) * 7 + d * 11.0 + (s ? strlen(s) : 0) * 13.0 +
           e * 17 + f * 19.0 + g * 23.0 + static_cast<double>(reinterpret_cast<uintptr_t>(p) & 0xffff) * 29 +
           h * 31 + static_cast<double>(k) * 37 + serialOf(self) * 41.0;
}

template <int32_t Id>
int64_t mixedB(void *self, double b, int32_t a, float d, int64_t c, double e, const char *s, int32_t f, double h)
{
    tc_call &r = g_control.last;
    r = tc_call{};
    r.function = Id;
    r.impl = self;
    r.b = b, r.a = a, r.d = d, r.c = c, r.e = e, r.s = s, r.f = f, r.h = h;
    return int64_t(Id) * 1000000000 + a * 3 + static_cast<int64_t>(b * 1000) * 5 + c * 7 +
           static_cast<int64_t>(d * 1000) * 11 + static_cast<int64_t>(e * 1000) * 13 +
           static_cast<int64_t>(s ? strlen(s) : 0) * 17 + f * 19 + static_cast<int64_t>(h * 1000) * 23 +
           serialOf(self) * 29;
}

template <int32_t Id> float floats(void *self, float a, float b, float c, float d, float e, float f)
{
    tc_call &r = g_control.last;
    r = tc_call{};
    r.function = Id;
    r.impl = self;
    float in[6] = {a, b, c, d, e, f};
    memcpy(r.floats, in, sizeof in);
    return Id + a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + serialOf(self);
}

int32_t create(void **implslot, vxl_if primary)
{
    auto *impl = new tc_impl{TC_MAGIC, 1, ++g_serial, primary};
    *implslot = impl;
    return 0;
}

int32_t destroy(void *self, vxl_if)
{
    ++g_control.destroys;
    if (g_control.destroystatus != 0)
        return g_control.destroystatus;
    auto *impl = static_cast<tc_impl *>(self);
    if (impl && impl->owned) {
        impl->magic = 0;
        delete impl;
    }
    return 0;
}

// ---- definitions -------------------------------------------------------------

const vxl_paramdef pInt = {"i", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pFloat = {"f", VXL_TYPE_FLOAT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pDouble = {"d", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pString = {"s", VXL_TYPE_STRING, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pIface = {"p", VXL_TYPE_INTERFACE, VXL_DIR_IN, 0, nullptr};

const vxl_paramdef *const paramsA[] = {&pInt, &pDouble, &pInt, &pFloat, &pString, &pDouble,
                                       &pInt, &pFloat, &pIface, &pDouble, &pInt};
const vxl_paramdef *const paramsB[] = {&pDouble, &pInt, &pFloat, &pInt, &pDouble, &pString, &pInt, &pDouble};
const vxl_paramdef *const paramsC[] = {&pFloat, &pFloat, &pFloat, &pFloat, &pFloat, &pFloat};
const vxl_methoddef methodA = {"a", 11, paramsA};
const vxl_methoddef methodB = {"b", 8, paramsB};
const vxl_methoddef methodC = {"c", 6, paramsC};

const vxl_methoddef *const methodsABC[] = {&methodA, &methodB, &methodC};
const vxl_methoddef *const methodsA[] = {&methodA};
const vxl_methoddef *const methodsBC[] = {&methodB, &methodC};
const vxl_methoddef *const methodsAB[] = {&methodA, &methodB};

const vxl_interfacedef iOne = {"IOne", 3, methodsABC};
const vxl_interfacedef iTwoA = {"ITwoA", 1, methodsA};
const vxl_interfacedef iTwoB = {"ITwoB", 2, methodsBC};
const vxl_interfacedef iSix[6] = {{"ISix0", 2, methodsAB}, {"ISix1", 2, methodsAB}, {"ISix2", 2, methodsAB},
                                  {"ISix3", 2, methodsAB}, {"ISix4", 2, methodsAB}, {"ISix5", 2, methodsAB}};

#define TC_FN(f) reinterpret_cast<vxl_fn>(f)

const vxl_fn oneFns[] = {TC_FN(&mixedA<TC_ONE_A>), TC_FN(&mixedB<TC_ONE_B>), TC_FN(&floats<TC_ONE_C>)};
const vxl_fn twoAFns[] = {TC_FN(&mixedA<TC_TWO_A>)};
const vxl_fn twoBFns[] = {TC_FN(&mixedB<TC_TWO_B>), TC_FN(&floats<TC_TWO_C>)};

#define TC_SIXFNS(i) {TC_FN(&mixedA<tc_sixid(i, 0)>), TC_FN(&mixedB<tc_sixid(i, 1)>)}
const vxl_fn sixFns[6][2] = {TC_SIXFNS(0), TC_SIXFNS(1), TC_SIXFNS(2), TC_SIXFNS(3), TC_SIXFNS(4), TC_SIXFNS(5)};

const vxl_componentinterface oneIf = {&iOne, oneFns};
const vxl_componentinterface twoAIf = {&iTwoA, twoAFns};
const vxl_componentinterface twoBIf = {&iTwoB, twoBFns};
const vxl_componentinterface sixIf[6] = {{&iSix[0], sixFns[0]}, {&iSix[1], sixFns[1]}, {&iSix[2], sixFns[2]},
                                         {&iSix[3], sixFns[3]}, {&iSix[4], sixFns[4]}, {&iSix[5], sixFns[5]}};

const vxl_componentinterface *const oneIfs[] = {&oneIf};
const vxl_componentinterface *const twoIfs[] = {&twoAIf, &twoBIf};
const vxl_componentinterface *const sixIfs[] = {&sixIf[0], &sixIf[1], &sixIf[2], &sixIf[3], &sixIf[4], &sixIf[5]};

const vxl_componentdef tcOne = {"TcOne", 1, oneIfs, create, destroy, nullptr};
const vxl_componentdef tcTwo = {"TcTwo", 2, twoIfs, create, destroy, nullptr};
const vxl_componentdef tcSix = {"TcSix", 6, sixIfs, create, destroy, nullptr};

const vxl_componentdef *const components[] = {&tcOne, &tcTwo, &tcSix, nullptr};
const vxl_interfacedef *const interfaces[] = {&iOne,    &iTwoA,   &iTwoB,   &iSix[0], &iSix[1],
                                              &iSix[2], &iSix[3], &iSix[4], &iSix[5], nullptr};

} // namespace

TC_API tc_control *tc_getcontrol(void)
{
    return &g_control;
}

TC_API const vxl_componentdef *const *tc_components(void)
{
    return components;
}

TC_API int32_t vxl_dll_init(void)
{
    ++g_control.initcalls;
    vxl_init();
    if (!g_registered) {
        int32_t status = vxl_register("tc_components", components, interfaces);
        if (status != 0)
            return status;
        g_registered = true;
    }
    return 0;
}
