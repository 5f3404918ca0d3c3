// Connection-point events fanned out to sinks: each sink by its own DISPID
// of the event's name, each from the caller's arguments, the caller left
// with what the last sink made of them.
#include "dispatchfakes.h"
#include "dispatchtest.h"
#include "harness.h"
#include "taskmemory.h"

#include <gtest/gtest.h>

using namespace dispatchtest;

namespace {

constexpr DISPID kTick = 5; // as the events interface numbers it

// A sink as a C++ component would write one: a vtable object behind
// oleaut32's standard dispatch.
class EventSink : public StdDispatched<ICalleeEvents> {
public:
    EventSink() : StdDispatched(IID_ICalleeEvents) {}
    std::vector<std::wstring> ticks;
    HRESULT STDMETHODCALLTYPE Tick(int n, BSTR text) override
    {
        ticks.push_back(std::to_wstring(n) + L" " + text);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Grow(int *v) override
    {
        *v *= 2;
        return S_OK;
    }
};

class CpInvoke : public testing::Test {
protected:
    void SetUp() override
    {
        CoInitialize(nullptr);
        WCHAR path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        ASSERT_EQ(S_OK, RegisterTypeLib(testTypeLib(), path, nullptr));
        info_.name = "ICallee";
        info_.iid_comS = IID_ICallee;
        info_.iid_CP = IID_ICalleeEvents;
        vxl_com_register(&library_, components_, entries_);
    }
    void TearDown() override
    {
        vxl_com_unregister(&library_, components_, entries_);
        UnRegisterTypeLib(LIBID_VxlDispatchTest, 1, 0, 0, SYS_WIN64);
        CoUninitialize();
    }

    // Fires the event to the sinks with these arguments (given last first).
    HRESULT fire(const char *ifname, std::vector<IDispatch *> sinks, std::vector<VARIANT> &args)
    {
        DISPPARAMS params = {args.empty() ? nullptr : args.data(), nullptr, static_cast<UINT>(args.size()), 0};
        return vxl_com_cpinvoke(ifname, kTick, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr,
                                static_cast<int32_t>(sinks.size()), sinks.data());
    }

private:
    vxl_comifinfo info_ = {};
    vxl_comlibinfo library_ = {"dispatchtest", LIBID_VxlDispatchTest};
    const vxl_comifinfo *entries_[2] = {&info_, nullptr};
    const vxl_comcomponentinfo *components_[1] = {nullptr};
};

VARIANT intArg(int32_t value)
{
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}

TEST_F(CpInvoke, EachSinkStartsFromTheCallersArgumentsByItsOwnDispid)
{
    Recorder renumbered, unnamed, last;
    renumbered.names[L"Tick"] = 7;
    last.names[L"Tick"] = 8;
    for (Recorder *sink : {&renumbered, &unnamed, &last})
        sink->act = [](DISPPARAMS *params) { V_I4(&params->rgvarg[0]) += 100; };
    renumbered.invokeResult = E_FAIL;
    std::vector<VARIANT> args = {intArg(1)};
    EXPECT_EQ(S_OK, fire("ICallee", {&renumbered, &unnamed, &last}, args));
    const Recorder *sinks[] = {&renumbered, &unnamed, &last};
    const DISPID expected[] = {7, kTick, 8};
    for (int s = 0; s < 3; ++s) {
        ASSERT_EQ(1u, sinks[s]->calls.size());
        EXPECT_EQ(expected[s], sinks[s]->calls[0].dispid);
        EXPECT_EQ(1, V_I4(&sinks[s]->calls[0].args[0]));
    }
    EXPECT_EQ(101, V_I4(&args[0])); // as the last sink left it

    // The last sink's failure is the answer.
    last.invokeResult = DISP_E_EXCEPTION;
    EXPECT_EQ(DISP_E_EXCEPTION, fire("ICallee", {&renumbered, &last}, args));
}

TEST_F(CpInvoke, ByReferenceArgumentsAreSharedBySinks)
{
    Recorder a, b, c;
    for (Recorder *sink : {&a, &b, &c})
        sink->act = [](DISPPARAMS *params) { *V_I4REF(&params->rgvarg[0]) *= 2; };
    LONG shared = 3;
    VARIANT ref;
    V_VT(&ref) = VT_BYREF | VT_I4;
    V_I4REF(&ref) = &shared;
    std::vector<VARIANT> args = {ref};
    EXPECT_EQ(S_OK, fire("ICallee", {&a, &b, &c}, args));
    EXPECT_EQ(24, shared);
}

TEST_F(CpInvoke, NoSinksTouchNothingAndUnknownInterfacesKeepTheDispid)
{
    vxltest::LogTail log;
    std::vector<VARIANT> args = {intArg(1)};
    EXPECT_EQ(S_OK, fire("ICallee", {}, args));
    EXPECT_EQ("", log.text()); // not even a type-information look-up
    EXPECT_EQ(1, V_I4(&args[0]));

    Recorder knowsTick;
    knowsTick.names[L"Tick"] = 7;
    EXPECT_EQ(S_OK, fire("INotRegistered", {&knowsTick}, args));
    EXPECT_EQ(kTick, knowsTick.calls.at(0).dispid);
}

TEST_F(CpInvoke, ReachesAStandardDispatchSink)
{
    EventSink sink;
    Recorder other;
    VARIANT text;
    V_VT(&text) = VT_BSTR;
    V_BSTR(&text) = SysAllocString(L"hi");
    std::vector<VARIANT> args = {text, intArg(4)};
    EXPECT_EQ(S_OK, fire("ICallee", {sink.dispatch(), &other}, args));
    ASSERT_EQ(1u, sink.ticks.size());
    EXPECT_EQ(L"4 hi", sink.ticks[0]);
    EXPECT_EQ(kTick, other.calls.at(0).dispid);
    for (auto &v : args)
        VariantClear(&v);
}

} // namespace

namespace {

// A thousand calls of each kind with strings, arrays and combined values in
// both directions leave no BSTR or SAFEARRAY behind (the BSTR cache is off
// for this program, so each is a block of task memory the spy counts).
TEST(DispatchLeaks, AThousandCallsOfEachKindLeaveNothing)
{
    CoInitialize(nullptr);
    {
        Callee callee;
        IDispatch *object = callee.dispatch();
        Def mixed("Mixed", {in(VXL_TYPE_INT), in(VXL_TYPE_DOUBLE), in(VXL_TYPE_STRING), out(VXL_TYPE_STRING)});
        Def pair("Pair", {in(VXL_TYPE_INT), out(VXL_TYPE_INT), out(VXL_TYPE_STRING)});
        Def sum("Sum", {in(VXL_TYPE_DOUBLE, ~1), in(VXL_TYPE_INT), out(VXL_TYPE_DOUBLE)});
        Def pack("f", {out(VXL_TYPE_STRING), out(VXL_TYPE_DOUBLE, 2)});
        const double reals[] = {1, 2};
        Recorder sink;
        sink.names[L"Tick"] = 3;
        vxltest::TaskMemoryCounter memory;
        ASSERT_TRUE(memory.install());
        for (int i = 0; i < 1000; ++i) {
            BSTR text = SysAllocString(L"leak?");
            BSTR result = nullptr;
            vxl_com_dispcall(object, &mixed.method, i, 0.5, text, &result);
            SysFreeString(result);
            int32_t n = 0;
            vxl_com_dispcall(object, &pair.method, i, &n, &result);
            SysFreeString(result);
            SAFEARRAY *values = SafeArrayCreateVector(VT_VARIANT, 0, 2);
            double total = 0;
            vxl_com_dispcall(object, &sum.method, &values, &total);
            SafeArrayDestroy(values);
            SAFEARRAY *both = nullptr;
            vxl_com_directdispcall(object, &pair.method, i, &n, &both); // the last out gets the whole result
            SafeArrayDestroy(both);
            vxl_com_directdispcall(object, &mixed.method, i, 0.5, text, &result); // takes text
            SysFreeString(result);
            VARIANT arg;
            V_VT(&arg) = VT_BSTR;
            V_BSTR(&arg) = SysAllocString(L"event");
            DISPPARAMS params = {&arg, nullptr, 1, 0};
            IDispatch *sinks[] = {&sink, &sink};
            vxl_com_cpinvoke("ICallee", 3, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr, 2,
                             sinks);
            VariantClear(&arg);
            sink.forget();
            SafeArrayDestroy(vxl_com_createcombined(&pack.method, "packed", reals));
        }
        memory.remove();
        EXPECT_EQ(0, memory.live);
    }
    CoUninitialize();
}

} // namespace
