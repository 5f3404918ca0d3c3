// Cost of an Automation call described by a kit method definition
// (vxl_com_dispcall) against the same call made by hand: GetIDsOfNames,
// the argument VARIANTs last first, Invoke, the result read back, on the
// same object. The target object is Wine's Scripting.Dictionary, a real
// Automation object; a do-nothing IDispatch shows the runtime's fixed cost
// per call in nanoseconds.
#include "benchtime.h"
#include "vexal.h"

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// Scale(in int a, in double b, in string c) -> int: a + b + length of c.
class Scaler : public IDispatch {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        *out = iid == IID_IUnknown || iid == IID_IDispatch ? this : nullptr;
        return *out ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *n) override
    {
        *n = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *names, UINT, LCID, DISPID *ids) override
    {
        if (wcscmp(names[0], L"Scale") != 0)
            return DISP_E_UNKNOWNNAME;
        ids[0] = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS *p, VARIANT *result, EXCEPINFO *,
                                     UINT *) override
    {
        if (id != 1 || p->cArgs != 3)
            return DISP_E_BADPARAMCOUNT;
        V_VT(result) = VT_I4;
        V_I4(result) = V_I4(&p->rgvarg[2]) + static_cast<LONG>(V_R8(&p->rgvarg[1])) +
                       static_cast<LONG>(SysStringLen(V_BSTR(&p->rgvarg[0])));
        return S_OK;
    }
};

const vxl_paramdef pa = {"a", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pb = {"b", VXL_TYPE_DOUBLE, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pc = {"c", VXL_TYPE_STRING, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef pr = {"r", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef *const scaleParams[] = {&pa, &pb, &pc, &pr};
const vxl_methoddef scale = {"Scale", 4, scaleParams};

const vxl_paramdef key = {"key", VXL_TYPE_STRING, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef found = {"found", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};
const vxl_paramdef *const existsParams[] = {&key, &found};
const vxl_methoddef exists = {"Exists", 2, existsParams};

volatile int32_t g_sink;
constexpr int ROUNDS = 30;

// The same call as the definition describes it, written out by hand.
void callByHand(IDispatch *object, LPOLESTR name, VARIANT *args, UINT count)
{
    DISPID id;
    if (FAILED(object->GetIDsOfNames(IID_NULL, &name, 1, GetUserDefaultLCID(), &id)))
        return;
    DISPPARAMS params = {args, nullptr, count, 0};
    VARIANT result;
    VariantInit(&result);
    object->Invoke(id, IID_NULL, GetUserDefaultLCID(), DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    if (V_VT(&result) == VT_I4)
        g_sink = V_I4(&result);
    VariantClear(&result);
}

struct Row {
    const char *what;
    double hand, kit;
};

template <typename Kit, typename Hand> Row measure(const char *what, int64_t perRound, Kit kit, Hand hand)
{
    Row row = {what, 1e30, 1e30};
    for (int round = 0; round < ROUNDS; ++round) {
        row.hand = std::min(row.hand, timeRound(perRound, hand));
        row.kit = std::min(row.kit, timeRound(perRound, kit));
    }
    return row;
}

} // namespace

int main(int argc, char **argv)
{
    _putenv("VXLLOGNAME=");
    int64_t iterations = argc > 1 ? atoll(argv[1]) : 300000;
    int64_t perRound = std::max<int64_t>(1, iterations / 10);
    CoInitialize(nullptr);
    BSTR text = SysAllocString(L"abc");

    CLSID clsid;
    IDispatch *dictionary = nullptr;
    if (FAILED(CLSIDFromProgID(L"Scripting.Dictionary", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                reinterpret_cast<void **>(&dictionary)))) {
        fprintf(stderr, "Scripting.Dictionary is not available\n");
        return 1;
    }
    Row real = measure(
        "Scripting.Dictionary.Exists(key)", perRound / 4,
        [&](int64_t n) {
            for (int64_t i = 0; i < n; ++i) {
                int32_t r = 0;
                vxl_com_dispcall(dictionary, &exists, text, &r);
            }
        },
        [&](int64_t n) {
            for (int64_t i = 0; i < n; ++i) {
                WCHAR name[] = L"Exists";
                VARIANT arg;
                VariantInit(&arg);
                V_VT(&arg) = VT_BSTR;
                V_BSTR(&arg) = text;
                callByHand(dictionary, name, &arg, 1);
            }
        });

    Scaler scaler;
    Row fixed = measure(
        "do-nothing IDispatch, Scale(int, double, string)", perRound,
        [&](int64_t n) {
            for (int64_t i = 0; i < n; ++i) {
                int32_t r = 0;
                vxl_com_dispcall(&scaler, &scale, static_cast<int32_t>(i), 2.0, text, &r);
                g_sink = r;
            }
        },
        [&](int64_t n) {
            for (int64_t i = 0; i < n; ++i) {
                WCHAR name[] = L"Scale";
                VARIANT args[3];
                VariantInit(&args[2]);
                V_VT(&args[2]) = VT_I4;
                V_I4(&args[2]) = static_cast<LONG>(i);
                VariantInit(&args[1]);
                V_VT(&args[1]) = VT_R8;
                V_R8(&args[1]) = 2.0;
                VariantInit(&args[0]);
                V_VT(&args[0]) = VT_BSTR;
                V_BSTR(&args[0]) = text;
                callByHand(&scaler, name, args, 3);
            }
        });

    printf("best of %d rounds\n", ROUNDS);
    printf("%-50s %10s %10s %10s\n", "object and call", "by hand", "dispcall", "ratio");
    for (const Row &row : {real, fixed})
        printf("%-50s %8.1fns %8.1fns %9.2fx\n", row.what, row.hand, row.kit, row.kit / row.hand);
    printf("dispcall within 1.05x of the call by hand on a real Automation object: %s\n",
           real.kit <= 1.05 * real.hand ? "yes" : "no");
    dictionary->Release();
    SysFreeString(text);
    CoUninitialize();
    return 0;
}
