// Interface wrapping end to end: kit objects handed to COM through the test
// wrapper library, fake COM objects used through kit proxies, the identities
// and references the wrapper table keeps, on-demand loading of the wrapper
// library, the trace lines, fatal stops, a leak check and a thread stress.
#include "core/object.h"
#include "harness.h"
#include "testifaces.h"

#include "tarnel.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- the kit component Counter { ICounter (primary), INamed } ----------------------

std::atomic<int> g_liveCounters{0};
std::atomic<int> g_counterDestroys{0};

struct CounterImpl {
    std::atomic<int32_t> value{0};
};

int32_t counterCreate(void **implslot, vxl_if)
{
    *implslot = new CounterImpl;
    ++g_liveCounters;
    return VXL_OK;
}
int32_t counterDestroy(void *impl, vxl_if)
{
    delete static_cast<CounterImpl *>(impl);
    --g_liveCounters;
    ++g_counterDestroys;
    return VXL_OK;
}
int32_t counterAddFn(void *impl, int32_t delta)
{
    static_cast<CounterImpl *>(impl)->value += delta;
    return VXL_OK;
}
int32_t counterGetFn(void *impl, int32_t *value)
{
    *value = static_cast<CounterImpl *>(impl)->value;
    return VXL_OK;
}
int32_t counterLabelFn(void *, const char **text)
{
    *text = "counter";
    return VXL_OK;
}

const vxl_fn counterFns[] = {reinterpret_cast<vxl_fn>(counterAddFn), reinterpret_cast<vxl_fn>(counterGetFn)};
const vxl_fn namedFns[] = {reinterpret_cast<vxl_fn>(counterLabelFn)};
const vxl_componentinterface counterCI = {&ICounterDef, counterFns};
const vxl_componentinterface namedCI = {&INamedDef, namedFns};
const vxl_componentinterface *const counterCIs[] = {&counterCI, &namedCI};
const vxl_componentdef counterClass = {"Counter", 2, counterCIs, counterCreate, counterDestroy, nullptr};

// A class whose interface no wrapper library serves.
const vxl_interfacedef IPlainDef = {"IPlain", 0, nullptr};
const vxl_componentinterface plainCI = {&IPlainDef, nullptr};
const vxl_componentinterface *const plainCIs[] = {&plainCI};
const vxl_componentdef plainClass = {"Plain", 1, plainCIs, counterCreate, counterDestroy, nullptr};

const vxl_componentdef *const kitClasses[] = {&counterClass, &plainClass, nullptr};
const vxl_interfacedef *const kitInterfaces[] = {&ICounterDef, &INamedDef, &IPlainDef, nullptr};

vxl_if newCounter(const char *ifname = "ICounter")
{
    vxl_if pif = nullptr;
    EXPECT_EQ(VXL_OK, vxl_createinstance("Counter", ifname, &pif));
    return pif;
}

vxl_if kitInterface(vxl_if pif, const char *name)
{
    vxl_if out = nullptr;
    EXPECT_EQ(VXL_OK, pif->slots->getinterface(pif, name, &out));
    return out;
}

// ---- a fake COM object: IVxCounter, IVxCounterP and IVxNamed, one identity --------

std::atomic<int> g_liveFakes{0};

class FakeCounter : public IVxCounter, public IVxCounterP, public IVxNamed {
public:
    FakeCounter() { ++g_liveFakes; }
    virtual ~FakeCounter() { --g_liveFakes; }
    LONG refs() const { return refs_; }
    LONG value = 0;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IVxCounter))
            *out = static_cast<IVxCounter *>(this);
        else if (IsEqualIID(iid, IID_IVxCounterP))
            *out = static_cast<IVxCounterP *>(this);
        else if (IsEqualIID(iid, IID_IVxNamed))
            *out = static_cast<IVxNamed *>(this);
        else {
            *out = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE Add(LONG delta) override
    {
        InterlockedExchangeAdd(&value, delta);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Get(LONG *out) override
    {
        *out = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Label(BSTR *text) override
    {
        *text = SysAllocString(L"fake");
        return S_OK;
    }
    IUnknown *identity() { return static_cast<IVxCounter *>(this); }

private:
    LONG refs_ = 1;
};

// ---- what the process can see of the runtime's state ---------------------------------

LONG liveWrappers()
{
    HMODULE lib = GetModuleHandleA("testwrappers.dll");
    auto live = lib ? reinterpret_cast<LONG (*)()>(reinterpret_cast<void *>(GetProcAddress(lib, "testwrappers_livewrappers"))) : nullptr;
    return live ? live() : 0;
}

int64_t tableRows()
{
    int64_t tables = 0, rows = 0;
    trn_processstats(&tables, &rows);
    return rows;
}

int64_t tableCount()
{
    int64_t tables = 0, rows = 0;
    trn_processstats(&tables, &rows);
    return tables;
}

std::string hex(const void *p)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return buf;
}

// The lines of a log text that start with one of the prefixes.
std::string linesStartingWith(const std::string &text, std::initializer_list<const char *> prefixes)
{
    std::istringstream in(text);
    std::string line, out;
    while (std::getline(in, line))
        for (const char *p : prefixes)
            if (line.rfind(p, 0) == 0) {
                out += line + "\n";
                break;
            }
    return out;
}

std::string bridgeLines(const std::string &text)
{
    return linesStartingWith(text, {"vxl_wrap", "trn_", "vxl_com_wrapper_tryload", "vxl_fatal"});
}

// ---- wrapper registry entries pointing at the test wrapper library -----------------------

const char *const kBaseKey = "SOFTWARE\\Quelt\\vexa\\interfaces\\";

void registerWrapperLibrary(const char *ifname, const char *wtype, const std::string &path)
{
    std::string key = std::string(kBaseKey) + ifname + "-" + wtype;
    HKEY hkey;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                             nullptr, &hkey, nullptr));
    RegSetValueExA(hkey, "wrapper-0", 0, REG_SZ, reinterpret_cast<const BYTE *>(path.c_str()),
                   static_cast<DWORD>(path.size() + 1));
    RegCloseKey(hkey);
}

void unregisterWrapperLibrary(const char *ifname, const char *wtype)
{
    std::string key = std::string(kBaseKey) + ifname + "-" + wtype;
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, key.c_str());
}

struct RegisteredPair {
    const char *ifname, *wtype;
};
const RegisteredPair kPairs[] = {{"ICounter", "com"}, {"ICounter", "comS"}, {"ICounter", "comP"}, {"INamed", "com"}};

void setUpProcess()
{
    vxl_init();
    vxl_register("wraptests", kitClasses, kitInterfaces);
    std::string path = vxltest::programDir() + "\\testwrappers.dll";
    for (const RegisteredPair &p : kPairs)
        registerWrapperLibrary(p.ifname, p.wtype, path);
}

class Wrapping : public testing::Test {
protected:
    static void SetUpTestSuite() { setUpProcess(); }
    static void TearDownTestSuite()
    {
        for (const RegisteredPair &p : kPairs)
            unregisterWrapperLibrary(p.ifname, p.wtype);
    }
    void TearDown() override
    {
        // Every test leaves the runtime as it found it.
        EXPECT_EQ(0, g_liveCounters.load());
        EXPECT_EQ(0, g_liveFakes.load());
        EXPECT_EQ(0, liveWrappers());
        EXPECT_EQ(0, tableRows());
    }
};

} // namespace

// ---- kit interfaces as COM objects --------------------------------------------------

TEST_F(Wrapping, SameObjectWrappedTwiceGivesOneWrapper)
{
    vxl_if pif = newCounter();
    vxltest::LogTail tail;
    IUnknown *first = reinterpret_cast<IUnknown *>(0xdeadbeef);
    ASSERT_EQ(VXL_OK, vxl_wrap(pif, "ICounter", "com", &first));
    IUnknown *second = vxl_wrapptr(pif, "ICounter", "com");
    EXPECT_EQ(first, second);
    EXPECT_EQ(1, liveWrappers());
    EXPECT_EQ(1, tableRows());

    std::string p = hex(pif), w = hex(first);
    std::string expected = "vxl_wrap(" + p + ", ICounter, com)\n" +
                           "trn_insert: piunk = " + w + ", pcomif = " + w + ", pdef = " + p + ", pif = " + p +
                           ", ifname = ICounter, wtype = com\n" + "vxl_wrap() = " + w + "\n" +
                           "vxl_wrap(" + p + ", ICounter, com)\n" + "vxl_wrap() = " + w + "\n";
    // The wrapper library may already be loaded by an earlier test.
    std::string log = linesStartingWith(tail.text(), {"vxl_wrap", "trn_"});
    EXPECT_EQ(expected, log);

    // The COM wrapper reaches the kit object.
    IVxCounter *counter = nullptr;
    ASSERT_EQ(S_OK, first->QueryInterface(IID_IVxCounter, reinterpret_cast<void **>(&counter)));
    EXPECT_EQ(static_cast<IUnknown *>(counter), first);
    EXPECT_EQ(S_OK, counter->Add(5));
    LONG value = 0;
    EXPECT_EQ(S_OK, counter->Get(&value));
    EXPECT_EQ(5, value);
    counter->Release();

    vxltest::LogTail releases;
    first->Release();
    EXPECT_EQ(1, liveWrappers());
    second->Release();
    EXPECT_EQ(0, liveWrappers());
    EXPECT_EQ(0, tableRows());
    EXPECT_EQ("trn_delete: pcomif = " + w + ", pobj = " + p + "\n",
              linesStartingWith(releases.text(), {"trn_"}));
    EXPECT_EQ(1, g_liveCounters.load()); // still ours
    vxl_decref(pif);
}

TEST_F(Wrapping, TwoNamesGiveTwoWrappersWithOneIdentity)
{
    vxl_if counterIf = newCounter();
    vxl_if namedIf = kitInterface(counterIf, "INamed");
    IUnknown *wc = vxl_wrapptr(counterIf, "ICounter", "com");
    vxltest::LogTail tail;
    IUnknown *wn = vxl_wrapptr(namedIf, "INamed", "com");
    ASSERT_NE(nullptr, wc);
    ASSERT_NE(nullptr, wn);
    EXPECT_NE(wc, wn);
    // The second row takes the first wrapper as its identity and the
    // primary interface as the kit identity.
    EXPECT_EQ("trn_insert: piunk = " + hex(wc) + ", pcomif = " + hex(wn) + ", pdef = " + hex(counterIf) +
                  ", pif = " + hex(namedIf) + ", ifname = INamed, wtype = com\n",
              linesStartingWith(tail.text(), {"trn_"}));

    for (IUnknown *w : {wc, wn}) {
        IUnknown *unk = reinterpret_cast<IUnknown *>(0xdeadbeef);
        ASSERT_EQ(S_OK, w->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk)));
        EXPECT_EQ(wc, unk);
        unk->Release();
    }
    // QueryInterface across the object reaches the one wrapper of each name.
    void *viaQI = nullptr;
    ASSERT_EQ(S_OK, wc->QueryInterface(IID_IVxNamed, &viaQI));
    EXPECT_EQ(static_cast<void *>(wn), viaQI);
    static_cast<IUnknown *>(viaQI)->Release();

    // The first wrapper outlives the second: the second's row holds it.
    wc->Release();
    EXPECT_EQ(2, liveWrappers());
    wn->Release();
    EXPECT_EQ(0, liveWrappers());
    vxl_decref(namedIf);
    vxl_decref(counterIf);
}

TEST_F(Wrapping, QueryInterfaceForDispatchAndUnknownIids)
{
    vxl_if pif = newCounter();
    IUnknown *w = vxl_wrapptr(pif, "ICounter", "com");
    ASSERT_NE(nullptr, w);

    IDispatch *disp = nullptr;
    ASSERT_EQ(S_OK, w->QueryInterface(IID_IDispatch, reinterpret_cast<void **>(&disp)));
    ASSERT_NE(nullptr, disp);
    EXPECT_NE(static_cast<IUnknown *>(disp), w); // the "comS" wrapper
    IUnknown *dispIdentity = nullptr;
    disp->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&dispIdentity));
    EXPECT_EQ(w, dispIdentity);
    dispIdentity->Release();

    // Through IDispatch, as a script would call it.
    LPOLESTR name = const_cast<LPOLESTR>(L"Add");
    DISPID id = 0;
    ASSERT_EQ(S_OK, disp->GetIDsOfNames(IID_NULL, &name, 1, 0, &id));
    VARIANT arg;
    VariantInit(&arg);
    V_VT(&arg) = VT_I4;
    V_I4(&arg) = 42;
    DISPPARAMS params = {&arg, nullptr, 1, 0};
    EXPECT_EQ(S_OK, disp->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr));
    IVxCounterS *dual = nullptr;
    ASSERT_EQ(S_OK, w->QueryInterface(IID_IVxCounterS, reinterpret_cast<void **>(&dual)));
    EXPECT_EQ(static_cast<IUnknown *>(dual), static_cast<IUnknown *>(disp));
    LONG value = 0;
    EXPECT_EQ(S_OK, dual->Get(&value));
    EXPECT_EQ(42, value);
    dual->Release();
    disp->Release();

    const IID unknownIid = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    void *none = reinterpret_cast<void *>(0xdeadbeef);
    EXPECT_EQ(E_NOINTERFACE, w->QueryInterface(unknownIid, &none));
    EXPECT_EQ(nullptr, none);

    w->Release();
    vxl_decref(pif);
}

TEST_F(Wrapping, ClassWithoutTheNameGivesNoInterface)
{
    vxl_if pif = newCounter();
    vxltest::LogTail tail;
    IUnknown *w = reinterpret_cast<IUnknown *>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(pif, "IAbsent", "com", &w));
    EXPECT_EQ(nullptr, w);
    EXPECT_EQ("vxl_wrap(" + hex(pif) + ", IAbsent, com)\nvxl_wrap() = 0\n", bridgeLines(tail.text()));
    vxl_decref(pif);
}

// ---- COM objects as kit interfaces ---------------------------------------------------

TEST_F(Wrapping, SameComObjectUnwrappedTwiceGivesOneProxy)
{
    auto *fake = new FakeCounter;
    vxltest::LogTail tail;
    vxl_if first = reinterpret_cast<vxl_if>(0xdeadbeef);
    ASSERT_EQ(VXL_OK, vxl_unwrap(fake->identity(), "ICounter", "com", &first));
    ASSERT_NE(nullptr, first);
    // Through another interface pointer of the same object: same proxy.
    vxl_if second = vxl_unwrapptr(static_cast<IVxNamed *>(fake), "ICounter", "com");
    EXPECT_EQ(first, second);
    EXPECT_EQ(1, tableRows());
    std::string f = hex(fake->identity()), p = hex(first);
    EXPECT_EQ("trn_insert: piunk = " + f + ", pcomif = " + f + ", pdef = " + p + ", pif = " + p +
                  ", ifname = ICounter, wtype = com\n",
              bridgeLines(tail.text()));
    // Ours, the row's on the identity, and the proxy's on its interface.
    EXPECT_EQ(3, fake->refs());

    EXPECT_EQ(VXL_OK, VXL_METHOD(first, 0, counter_add_slot)(first, 7));
    int32_t value = 0;
    EXPECT_EQ(VXL_OK, VXL_METHOD(first, 1, counter_get_slot)(first, &value));
    EXPECT_EQ(7, value);

    vxltest::LogTail releases;
    vxl_decref(second);
    EXPECT_EQ(3, fake->refs());
    vxl_decref(first);
    EXPECT_EQ("trn_delete: pcomif = " + f + ", pif = " + p + "\n", bridgeLines(releases.text()));
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

TEST_F(Wrapping, TwoNamesGiveTwoProxiesWithOneKitIdentity)
{
    auto *fake = new FakeCounter;
    vxl_if counterProxy = vxl_unwrapptr(fake->identity(), "ICounter", "com");
    vxl_if namedProxy = vxl_unwrapptr(fake->identity(), "INamed", "com");
    ASSERT_NE(nullptr, counterProxy);
    ASSERT_NE(nullptr, namedProxy);
    EXPECT_NE(counterProxy, namedProxy);

    for (vxl_if p : {counterProxy, namedProxy}) {
        vxl_if identity = reinterpret_cast<vxl_if>(0xdeadbeef);
        ASSERT_EQ(VXL_OK, p->slots->getinterface(p, nullptr, &identity));
        EXPECT_EQ(counterProxy, identity);
        vxl_decref(identity);
    }
    // getinterface by name on one proxy unwraps the same COM object.
    vxl_if viaKit = kitInterface(counterProxy, "INamed");
    EXPECT_EQ(namedProxy, viaKit);
    const char *label = nullptr;
    EXPECT_EQ(VXL_OK, VXL_METHOD(viaKit, 0, named_label_slot)(viaKit, &label));
    EXPECT_STREQ("fake", label);
    vxl_decref(viaKit);

    // The first proxy outlives the second, whose row holds it.
    vxltest::LogTail tail;
    vxl_decref(counterProxy);
    EXPECT_EQ("", bridgeLines(tail.text()));
    vxl_decref(namedProxy);
    EXPECT_EQ("trn_delete: pcomif = " + hex(static_cast<IVxNamed *>(fake)) + ", pif = " + hex(namedProxy) + "\n" +
                  "trn_delete: pcomif = " + hex(fake->identity()) + ", pif = " + hex(counterProxy) + "\n",
              bridgeLines(tail.text()));
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

TEST_F(Wrapping, WrappingAndUnwrappingUndoEachOther)
{
    // A COM wrapper unwrapped with its own name and type is its kit interface.
    vxl_if pif = newCounter();
    IUnknown *w = vxl_wrapptr(pif, "ICounter", "com");
    int64_t rows = tableRows();
    vxl_if back = vxl_unwrapptr(w, "ICounter", "com");
    EXPECT_EQ(pif, back);
    EXPECT_EQ(rows, tableRows());
    vxl_decref(back);
    w->Release();
    vxl_decref(pif);

    // A kit proxy wrapped with its own name and type is its COM interface.
    auto *fake = new FakeCounter;
    vxl_if proxy = vxl_unwrapptr(fake->identity(), "ICounter", "com");
    rows = tableRows();
    IUnknown *com = vxl_wrapptr(proxy, "ICounter", "com");
    EXPECT_EQ(fake->identity(), com);
    EXPECT_EQ(rows, tableRows());
    com->Release();
    vxl_decref(proxy);
    fake->Release();
}

TEST_F(Wrapping, NestedCrossingsEndWithoutAFatalStop)
{
    // Unwrapping a COM wrapper for a name its kit object was not wrapped for:
    // the wrapper's QueryInterface wraps it on the way, then a proxy stands
    // for that new wrapper.
    vxl_if pif = newCounter();
    IUnknown *w = vxl_wrapptr(pif, "ICounter", "com");
    vxl_if named = vxl_unwrapptr(w, "INamed", "com");
    ASSERT_NE(nullptr, named);
    const char *label = nullptr;
    EXPECT_EQ(VXL_OK, VXL_METHOD(named, 0, named_label_slot)(named, &label));
    EXPECT_STREQ("counter", label);
    vxl_decref(named);
    // The same for the dispatch form: the proxy calls the dual interface.
    vxl_if viaDispatch = vxl_unwrapptr(w, "ICounter", "comS");
    ASSERT_NE(nullptr, viaDispatch);
    EXPECT_NE(pif, viaDispatch);
    EXPECT_EQ(VXL_OK, VXL_METHOD(viaDispatch, 0, counter_add_slot)(viaDispatch, 3));
    int32_t value = 0;
    EXPECT_EQ(VXL_OK, VXL_METHOD(pif, 1, counter_get_slot)(pif, &value));
    EXPECT_EQ(3, value);
    vxl_decref(viaDispatch);
    w->Release();
    vxl_decref(pif);

    // The mirror: wrapping a kit proxy for a name its COM object was not
    // unwrapped for.
    auto *fake = new FakeCounter;
    vxl_if proxy = vxl_unwrapptr(fake->identity(), "ICounter", "com");
    vxl_if namedProxy = kitInterface(proxy, "INamed");
    IUnknown *wn = vxl_wrapptr(namedProxy, "INamed", "com");
    ASSERT_NE(nullptr, wn);
    BSTR text = nullptr;
    IVxNamed *asNamed = nullptr;
    ASSERT_EQ(S_OK, wn->QueryInterface(IID_IVxNamed, reinterpret_cast<void **>(&asNamed)));
    EXPECT_EQ(S_OK, asNamed->Label(&text));
    EXPECT_STREQ(L"fake", text);
    SysFreeString(text);
    asNamed->Release();
    wn->Release();
    vxl_decref(namedProxy);
    vxl_decref(proxy);
    fake->Release();
}

TEST_F(Wrapping, UnknownTypeOrMissingClassGivesNoProxy)
{
    auto *fake = new FakeCounter;
    vxl_if out = reinterpret_cast<vxl_if>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(fake->identity(), "ICounter", "comX", &out));
    EXPECT_EQ(nullptr, out);
    // The fake has no IVxCounterS: no "comS" proxy.
    out = reinterpret_cast<vxl_if>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(fake->identity(), "ICounter", "comS", &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

// ---- leaks and threads --------------------------------------------------------------------

TEST_F(Wrapping, LongMixedSequenceLeavesNothingBehind)
{
    static const char *const types[] = {"com", "comS", "comP"};
    std::vector<vxl_if> counters;
    std::vector<FakeCounter *> fakes;
    for (int k = 0; k < 8; ++k) {
        counters.push_back(newCounter());
        fakes.push_back(new FakeCounter);
    }
    for (int round = 0; round < 200; ++round) {
        vxl_if pif = counters[round % counters.size()];
        FakeCounter *fake = fakes[(round * 3) % fakes.size()];
        const char *type = types[round % 3];
        IUnknown *w = vxl_wrapptr(pif, "ICounter", type);
        ASSERT_NE(nullptr, w);
        IUnknown *unk = nullptr;
        w->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk));
        void *named = nullptr;
        if (SUCCEEDED(unk->QueryInterface(IID_IVxNamed, &named)))
            static_cast<IUnknown *>(named)->Release();
        vxl_if back = vxl_unwrapptr(w, "ICounter", type);
        EXPECT_EQ(pif, back);
        vxl_decref(back);
        vxl_if proxy = vxl_unwrapptr(fake->identity(), round % 2 ? "INamed" : "ICounter", "com");
        ASSERT_NE(nullptr, proxy);
        IUnknown *again = vxl_wrapptr(proxy, round % 2 ? "INamed" : "ICounter", "com");
        ASSERT_NE(nullptr, again);
        again->Release();
        if (round % 5 == 0) {
            vxl_if extra = vxl_unwrapptr(w, "INamed", "com");
            vxl_decref(extra);
        }
        vxl_decref(proxy);
        unk->Release();
        w->Release();
    }
    for (vxl_if pif : counters)
        vxl_decref(pif);
    for (FakeCounter *fake : fakes) {
        EXPECT_EQ(1, fake->refs());
        fake->Release();
    }
}

TEST_F(Wrapping, ThreadsWrappingAndUnwrappingTheSameObjects)
{
    // Three threads wrap, unwrap and release one kit object and one COM
    // object, so their wrappers and proxies die and are made again while
    // other threads look them up; each thread also makes and drops objects of
    // its own.
    vxl_if shared = newCounter();
    auto *sharedFake = new FakeCounter;

    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<int> rounds{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            vxl_com_init();
            while (!stop.load()) {
                IUnknown *w = vxl_wrapptr(shared, "ICounter", "com");
                vxl_if back = w ? vxl_unwrapptr(w, "ICounter", "com") : nullptr;
                vxl_if p = vxl_unwrapptr(sharedFake->identity(), "ICounter", "com");
                IUnknown *c = p ? vxl_wrapptr(p, "ICounter", "com") : nullptr;
                if (!w || back != shared || !p || c != sharedFake->identity())
                    failures.fetch_add(1);
                if (w && VXL_METHOD(back, 0, counter_add_slot)(back, 1) != VXL_OK)
                    failures.fetch_add(1);
                vxl_if own = newCounter();
                IUnknown *ow = vxl_wrapptr(own, "ICounter", "comP");
                auto *ownFake = new FakeCounter;
                vxl_if op = vxl_unwrapptr(ownFake->identity(), "INamed", "com");
                if (!ow || !op)
                    failures.fetch_add(1);
                if (op)
                    vxl_decref(op);
                ownFake->Release();
                if (ow)
                    ow->Release();
                vxl_decref(own);
                if (c)
                    c->Release();
                vxl_decref(p);
                vxl_decref(back);
                if (w)
                    w->Release();
                ++rounds;
            }
            vxl_com_uninit();
        });
    Sleep(3000);
    stop = true;
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_GT(rounds.load(), 300);
    int32_t added = 0;
    VXL_METHOD(shared, 1, counter_get_slot)(shared, &added);
    EXPECT_EQ(rounds.load(), added);
    EXPECT_EQ(1, sharedFake->refs());
    sharedFake->Release();
    vxl_decref(shared);
}

// ---- reference counts, foreign objects, refusals -------------------------------------------

namespace {

// The kit count of the object behind a kit interface, read from its core.
int32_t kitRefs(vxl_if primary)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(primary) + 1)->refcount;
}

// The count a COM object's Release answers after one AddRef.
ULONG comRefs(IUnknown *p)
{
    p->AddRef();
    return p->Release();
}

// A COM object nobody here wrote: it answers IUnknown and the IIDs it is
// given with itself and counts its references exactly, but may answer a
// constant from AddRef and Release, or refuse even IUnknown.
class Bare : public IUnknown {
public:
    explicit Bare(std::initializer_list<IID> iids, bool constantCounts = false, bool refuseUnknown = false)
        : iids_(iids), constant_(constantCounts), refuseUnknown_(refuseUnknown)
    {
        ++g_liveFakes;
    }
    virtual ~Bare() { --g_liveFakes; }
    LONG refs() const { return refs_; }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        bool known = IsEqualIID(iid, IID_IUnknown) ? !refuseUnknown_ : false;
        for (const IID &k : iids_)
            known = known || IsEqualIID(iid, k);
        *out = known ? this : nullptr;
        if (!known)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        LONG n = InterlockedIncrement(&refs_);
        return constant_ ? 1 : n;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG n = InterlockedDecrement(&refs_);
        if (n == 0)
            delete this;
        return constant_ ? 1 : n;
    }

private:
    std::vector<IID> iids_;
    bool constant_, refuseUnknown_;
    LONG refs_ = 1;
};

int32_t refuseAll(void *, const char *, vxl_if *, vxl_if) { return -7; }
const vxl_componentdef refuserClass = {"Refuser", 1, plainCIs, counterCreate, counterDestroy, refuseAll};
const vxl_componentdef *const refuserClasses[] = {&refuserClass, nullptr};
const vxl_interfacedef *const noInterfaces[] = {nullptr};

} // namespace

TEST_F(Wrapping, ReferenceCountsRiseByOnePerRowAndComeBack)
{
    // Kit side first: each wrapper row holds the object once, and every row
    // after the first holds the first wrapper (the COM identity) once. The
    // test wrappers hold their own kit reference too.
    vxl_if counterIf = newCounter();
    vxl_if namedIf = kitInterface(counterIf, "INamed");
    int32_t base = kitRefs(counterIf);
    IUnknown *wc = vxl_wrapptr(counterIf, "ICounter", "com");
    EXPECT_EQ(base + 2, kitRefs(counterIf));
    EXPECT_EQ(1u, comRefs(wc));
    IUnknown *wn = vxl_wrapptr(namedIf, "INamed", "com");
    EXPECT_EQ(base + 4, kitRefs(counterIf));
    EXPECT_EQ(2u, comRefs(wc));
    EXPECT_EQ(1u, comRefs(wn));
    IUnknown *unk = nullptr;
    ASSERT_EQ(S_OK, wn->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk)));
    EXPECT_EQ(wc, unk);
    EXPECT_EQ(3u, comRefs(wc));
    unk->Release();
    EXPECT_EQ(2u, comRefs(wc)) << "a QueryInterface and Release pair changes nothing";
    wn->Release();
    EXPECT_EQ(base + 2, kitRefs(counterIf));
    EXPECT_EQ(1u, comRefs(wc));
    wc->Release();
    EXPECT_EQ(base, kitRefs(counterIf));
    vxl_decref(namedIf);
    vxl_decref(counterIf);

    // COM side first: each proxy row holds the COM identity once and each
    // proxy its own interface once; every row after the first holds the
    // first proxy (the kit identity) once.
    auto *fake = new FakeCounter;
    vxl_if p1 = vxl_unwrapptr(fake->identity(), "ICounter", "com");
    EXPECT_EQ(3, fake->refs());
    EXPECT_EQ(1, kitRefs(p1));
    vxl_if p2 = vxl_unwrapptr(fake->identity(), "INamed", "com");
    EXPECT_EQ(5, fake->refs());
    EXPECT_EQ(2, kitRefs(p1));
    vxl_decref(p2);
    EXPECT_EQ(3, fake->refs());
    EXPECT_EQ(1, kitRefs(p1));
    vxl_decref(p1);
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

TEST_F(Wrapping, AForeignObjectsAnswerToAddRefDecidesNothing)
{
    // Behind a kit proxy stands a COM object whose AddRef always answers 1.
    auto *bare = new Bare({IID_IVxCounter}, true);
    vxl_if proxy = vxl_unwrapptr(bare, "ICounter", "com");
    ASSERT_NE(nullptr, proxy);
    IUnknown *same = vxl_wrapptr(proxy, "ICounter", "com");
    EXPECT_EQ(static_cast<IUnknown *>(bare), same) << "wrapping a proxy gives back its COM object";
    IUnknown *dual = vxl_wrapptr(proxy, "ICounter", "comS");
    ASSERT_NE(nullptr, dual);
    IUnknown *unk = nullptr;
    ASSERT_EQ(S_OK, dual->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk)));
    EXPECT_EQ(static_cast<IUnknown *>(bare), unk) << "the proxy's COM object stays the identity";
    EXPECT_EQ(2, tableRows());
    unk->Release();
    dual->Release();
    same->Release();
    vxl_decref(proxy);
    EXPECT_EQ(1, bare->refs());
    bare->Release();
}

TEST_F(Wrapping, RefusedIdentitiesAndWrongInterfacesGiveNoInterface)
{
    ASSERT_EQ(VXL_OK, vxl_register("refuser", refuserClasses, noInterfaces));
    vxl_if refuser = nullptr;
    ASSERT_EQ(VXL_OK, vxl_createinstance("Refuser", "IPlain", &refuser));
    IUnknown *w = reinterpret_cast<IUnknown *>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(refuser, "IPlain", "com", &w)) << "getinterface refuses a null name";
    EXPECT_EQ(nullptr, w);
    vxl_decref(refuser);
    EXPECT_EQ(VXL_OK, vxl_unregister(refuserClasses, noInterfaces));

    // A kit interface that is not the object's interface of the given name.
    vxl_if counterIf = newCounter();
    vxltest::LogTail tail;
    w = reinterpret_cast<IUnknown *>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(counterIf, "INamed", "com", &w));
    EXPECT_EQ(nullptr, w);
    EXPECT_EQ("vxl_wrap(" + hex(counterIf) + ", INamed, com)\nvxl_wrap() = 0\n", bridgeLines(tail.text()));
    EXPECT_EQ(0, liveWrappers());
    vxl_decref(counterIf);

    // A COM object that does not even answer IUnknown.
    auto *bare = new Bare({IID_IVxCounter}, false, true);
    vxl_if proxy = reinterpret_cast<vxl_if>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(bare, "ICounter", "com", &proxy));
    EXPECT_EQ(nullptr, proxy);
    EXPECT_EQ(1, bare->refs());
    bare->Release();
}

// ---- wrappers and proxies that die on another thread ----------------------------------------

namespace {

const IID IID_IBlock = {0x6f1c0a10, 0x5b1e, 0x4c3a, {0x9d, 0x1e, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x10}};

// Holds a dying wrapper or proxy after its count reached 0 and before it
// calls back into the runtime, until the test opens it.
struct Gate {
    HANDLE dying = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    bool armed = false;
    void pass()
    {
        if (!armed)
            return;
        SetEvent(dying);
        WaitForSingleObject(go, INFINITE);
    }
} g_gate;

class BlockingWrapper : public IUnknown {
public:
    explicit BlockingWrapper(vxl_if pif) : pif_(pif) { pif_->slots->incref(pif_); }
    virtual ~BlockingWrapper() = default;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        return vxl_com_wrapperqueryinterface(iid, out, this, pif_);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0) {
            g_gate.pass();
            vxl_com_releasewrapper(this, pif_);
            pif_->slots->decref(pif_);
            delete this;
        }
        return left;
    }

private:
    vxl_if pif_;
    LONG refs_ = 1;
};

int32_t makeBlocking(vxl_if pif, IUnknown **result)
{
    *result = new BlockingWrapper(pif);
    return VXL_OK;
}

int32_t blockingDestroy(void *impl, vxl_if primary)
{
    g_gate.pass();
    return vxl_com_wrapperdestructor(impl, primary);
}

const vxl_interfacedef IBlockDef = {"IBlock", 0, nullptr};
const vxl_componentinterface blockCI = {&IBlockDef, nullptr};
const vxl_componentinterface *const blockCIs[] = {&blockCI};
const vxl_componentdef blockerClass = {"Blocker", 1, blockCIs, counterCreate, counterDestroy, nullptr};
const vxl_componentdef blockProxyClass = {"IBlock_com_proxy", 1, blockCIs, nullptr, blockingDestroy,
                                          vxl_com_wrappergetinterface};
const vxl_componentdef *const blockClasses[] = {&blockerClass, &blockProxyClass, nullptr};
const vxl_interfacedef *const blockInterfaces[] = {&IBlockDef, nullptr};
const vxl_comifinfo blockInfo = {"IBlock", IID_IBlock, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                 makeBlocking, nullptr, nullptr, nullptr};
const vxl_comifinfo *const blockComInterfaces[] = {&blockInfo, nullptr};
const vxl_comcomponentinfo *const noComComponents[] = {nullptr};
const vxl_comlibinfo blockLib = {"wrap_test", GUID_NULL};

void registerBlockers()
{
    static bool done = false;
    if (!done) {
        ASSERT_EQ(VXL_OK, vxl_register("blockers", blockClasses, blockInterfaces));
        vxl_com_register(&blockLib, noComComponents, blockComInterfaces);
        done = true;
    }
}

// Lets the object die on a thread of its own, stopped at the gate; the
// test looks the object up meanwhile, then opens the gate.
template <typename Die, typename Meanwhile> void whileDying(Die die, Meanwhile meanwhile)
{
    ResetEvent(g_gate.dying);
    ResetEvent(g_gate.go);
    g_gate.armed = true;
    std::thread dying(die);
    WaitForSingleObject(g_gate.dying, INFINITE);
    g_gate.armed = false;
    meanwhile();
    SetEvent(g_gate.go);
    dying.join();
}

} // namespace

TEST_F(Wrapping, AWrapperOrProxyDyingOnAnotherThreadIsNotHandedOut)
{
    registerBlockers();
    vxl_if blocker = nullptr;
    ASSERT_EQ(VXL_OK, vxl_createinstance("Blocker", "IBlock", &blocker));
    IUnknown *w = vxl_wrapptr(blocker, "IBlock", "com");
    IUnknown *again = nullptr;
    whileDying([&] { w->Release(); }, [&] { again = vxl_wrapptr(blocker, "IBlock", "com"); });
    ASSERT_NE(nullptr, again);
    EXPECT_NE(w, again);
    EXPECT_EQ(1u, comRefs(again));
    EXPECT_EQ(1, tableRows());
    again->Release();
    vxl_decref(blocker);

    auto *bare = new Bare({IID_IBlock});
    vxl_if proxy = vxl_unwrapptr(bare, "IBlock", "com");
    vxl_if other = nullptr;
    whileDying([&] { vxl_decref(proxy); }, [&] { other = vxl_unwrapptr(bare, "IBlock", "com"); });
    ASSERT_NE(nullptr, other);
    EXPECT_NE(proxy, other);
    EXPECT_EQ(1, kitRefs(other));
    EXPECT_EQ(1, tableRows());
    vxl_decref(other);
    EXPECT_EQ(1, bare->refs());
    bare->Release();
}

// ---- per-process behaviour -------------------------------------------------------------

VXL_CHILD(null_pointers_make_no_table)
{
    vxl_init();
    int failures = 0;
    failures += vxl_wrapptr(nullptr, "ICounter", "com") != nullptr;
    failures += vxl_unwrapptr(nullptr, "ICounter", "com") != nullptr;
    vxl_if out = reinterpret_cast<vxl_if>(0xdeadbeef);
    failures += vxl_unwrap(nullptr, "ICounter", "com", &out) != VXL_OK || out != nullptr;
    failures += tableCount() != 0;
    return failures;
}

TEST(WrappingProcess, NullPointersCreateNoTable)
{
    std::string log = vxltest::scratchPath("wrap_null.log");
    EXPECT_EQ(0, vxltest::runChild("null_pointers_make_no_table", log.c_str()));
    EXPECT_EQ("vxl_wrap(0, ICounter, com)\n", vxltest::readLog(log));
}

VXL_CHILD(library_loads_on_demand)
{
    setUpProcess();
    vxl_if a = newCounter();
    vxl_if b = newCounter();
    IUnknown *wa = vxl_wrapptr(a, "ICounter", "com"); // loads the library
    IUnknown *wb = vxl_wrapptr(b, "ICounter", "com"); // already there
    IUnknown *missing = vxl_wrapptr(a, "IMissing", "com"); // not carried: nothing to load
    vxl_if plain = nullptr;
    vxl_createinstance("Plain", "IPlain", &plain);
    IUnknown *unserved = reinterpret_cast<IUnknown *>(0xdeadbeef);
    int failures = !wa + !wb + (missing != nullptr);
    for (int call = 0; call < 2; ++call) // each failing call tries the registry once
        failures += vxl_wrap(plain, "IPlain", "comP", &unserved) != VXL_ENOINTERFACE || unserved != nullptr;
    vxl_decref(plain);
    wa->Release();
    wb->Release();
    vxl_decref(a);
    vxl_decref(b);
    for (const RegisteredPair &p : kPairs)
        unregisterWrapperLibrary(p.ifname, p.wtype);
    return failures;
}

TEST(WrappingProcess, WrapperLibraryLoadsOncePerFailingCall)
{
    std::string log = vxltest::scratchPath("wrap_load.log");
    EXPECT_EQ(0, vxltest::runChild("library_loads_on_demand", log.c_str()));
    std::string lines = linesStartingWith(vxltest::readLog(log), {"vxl_com_wrapper_tryload"});
    std::string path = vxltest::programDir() + "\\testwrappers.dll";
    EXPECT_EQ("vxl_com_wrapper_tryload(ICounter, com) -> SOFTWARE\\Quelt\\vexa\\interfaces\\ICounter-com\n"
              "vxl_com_wrapper_tryload() loading " + path + "\n"
              "vxl_com_wrapper_tryload() ok\n"
              "vxl_com_wrapper_tryload(IPlain, comP) -> SOFTWARE\\Quelt\\vexa\\interfaces\\IPlain-comP\n"
              "vxl_com_wrapper_tryload() openkey failed 2\n"
              "vxl_com_wrapper_tryload(IPlain, comP) -> SOFTWARE\\Quelt\\vexa\\interfaces\\IPlain-comP\n"
              "vxl_com_wrapper_tryload() openkey failed 2\n",
              lines);
}

// One thread wraps an interface whose wrapper library loads but registers
// nothing, so every call loads it; short threads release a wrapper of their
// own as they end, from a thread-detach callback that the loader calls under
// its lock, as a DllMain or a thread_local destructor would.
namespace {

DWORD g_heldSlot = TlsAlloc();

void NTAPI releaseAtThreadExit(PVOID, DWORD reason, PVOID)
{
    if (reason != DLL_THREAD_DETACH || g_heldSlot == TLS_OUT_OF_INDEXES)
        return;
    if (auto *wrapper = static_cast<IUnknown *>(TlsGetValue(g_heldSlot)))
        wrapper->Release();
}

} // namespace

extern "C" __attribute__((used, section(".CRT$XLF"))) const PIMAGE_TLS_CALLBACK vxltest_threadexit =
    releaseAtThreadExit;

VXL_CHILD(loader_lock_race)
{
    setUpProcess();
    registerWrapperLibrary("IPlain", "com", vxltest::programDir() + "\\comtest_wrapperlib.dll");
    vxl_if plain = nullptr;
    vxl_createinstance("Plain", "IPlain", &plain);
    std::atomic<bool> stop{false};
    std::thread loader([&] {
        while (!stop.load()) {
            IUnknown *w = nullptr;
            vxl_wrap(plain, "IPlain", "com", &w);
        }
    });
    for (DWORD end = GetTickCount() + 3000; GetTickCount() < end;) {
        HANDLE t = CreateThread(nullptr, 0, [](LPVOID) -> DWORD {
            vxl_if object = newCounter();
            TlsSetValue(g_heldSlot, vxl_wrapptr(object, "ICounter", "com"));
            vxl_decref(object); // the wrapper holds it now
            return 0;
        }, nullptr, 0, nullptr);
        WaitForSingleObject(t, INFINITE);
        CloseHandle(t);
    }
    stop = true;
    loader.join();
    vxl_decref(plain);
    return g_liveCounters.load();
}

TEST(WrappingProcess, NoLibraryLoadsUnderTheWrapperLock)
{
    std::string log = vxltest::scratchPath("wrap_loaderlock.log");
    int status = vxltest::runChild("loader_lock_race", nullptr, 30000);
    unregisterWrapperLibrary("IPlain", "com");
    for (const RegisteredPair &p : kPairs)
        unregisterWrapperLibrary(p.ifname, p.wtype);
    EXPECT_EQ(0, status);
}

VXL_CHILD(unknown_pair_stops)
{
    setUpProcess();
    vxl_if pif = newCounter();
    IUnknown *w = vxl_wrapptr(pif, "ICounter", "com"); // makes the table
    void *out = nullptr;
    vxl_com_wrapperqueryinterface(IID_IUnknown, &out, w, reinterpret_cast<vxl_if>(0x1234));
    return 0; // not reached
}

VXL_CHILD(unknown_pair_released)
{
    setUpProcess();
    vxl_if pif = newCounter();
    vxl_wrapptr(pif, "ICounter", "com");
    vxl_com_releasewrapper(reinterpret_cast<IUnknown *>(0x5678), pif);
    return 0; // not reached
}

TEST(WrappingProcess, CallbackWithoutRowStopsTheProcess)
{
    std::string log = vxltest::scratchPath("wrap_fatal.log");
    EXPECT_EQ(3, vxltest::runChild("unknown_pair_stops", log.c_str()));
    std::string text = vxltest::readLog(log);
    EXPECT_EQ("vxl_fatal: trn_select\n", text.substr(text.rfind("vxl_fatal")));

    EXPECT_EQ(3, vxltest::runChild("unknown_pair_released", log.c_str()));
    // The children stopped before they could take their registry entries back.
    for (const RegisteredPair &p : kPairs)
        unregisterWrapperLibrary(p.ifname, p.wtype);
    text = vxltest::readLog(log);
    EXPECT_EQ("vxl_fatal: trn_delete\n", text.substr(text.rfind("vxl_fatal")));
    EXPECT_NE(std::string::npos, text.find("trn_delete: pcomif = 5678, pobj = "));
}
