// Interface wrapping end to end: kit objects handed to COM through the test
// wrapper library, fake COM objects used through kit proxies, the identities
// and references the wrapper table keeps, wrappers and proxies that die on
// another thread, on-demand loading of wrapper libraries, the trace lines,
// fatal stops, and threads. Every test leaves nothing behind.
#include "core/object.h"
#include "harness.h"
#include "testifaces.h"

#include "tarnel.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

namespace {

// ---- the kit classes Counter { ICounter, INamed }, Plain { IPlain } and Refuser ------------

std::atomic<int> g_liveCounters{0};
using Count = std::atomic<int32_t>;

int32_t create(void **implslot, vxl_if) { return *implslot = new Count(0), ++g_liveCounters, VXL_OK; }
int32_t destroy(void *impl, vxl_if) { return delete static_cast<Count *>(impl), --g_liveCounters, VXL_OK; }
int32_t add(void *impl, int32_t delta) { return *static_cast<Count *>(impl) += delta, VXL_OK; }
int32_t get(void *impl, int32_t *value) { return *value = *static_cast<Count *>(impl), VXL_OK; }
int32_t label(void *, const char **text) { return *text = "counter", VXL_OK; }
int32_t refuseAll(void *, const char *, vxl_if *, vxl_if) { return -7; }

const vxl_fn counterFns[] = {reinterpret_cast<vxl_fn>(add), reinterpret_cast<vxl_fn>(get)};
const vxl_fn namedFns[] = {reinterpret_cast<vxl_fn>(label)};
const vxl_interfacedef IPlainDef = {"IPlain", 0, nullptr};
const vxl_componentinterface counterCI = {&ICounterDef, counterFns}, namedCI = {&INamedDef, namedFns};
const vxl_componentinterface plainCI = {&IPlainDef, nullptr};
const vxl_componentinterface *const counterCIs[] = {&counterCI, &namedCI}, *const plainCIs[] = {&plainCI};
const vxl_componentdef kitClasses[] = {{"Counter", 2, counterCIs, create, destroy, nullptr},
                                       {"Plain", 1, plainCIs, create, destroy, nullptr}, // no wrapper library
                                       {"Refuser", 1, plainCIs, create, destroy, refuseAll}}; // no identity
const vxl_componentdef *const kitClassList[] = {&kitClasses[0], &kitClasses[1], &kitClasses[2], nullptr};
const vxl_interfacedef *const kitInterfaces[] = {&ICounterDef, &INamedDef, &IPlainDef, nullptr};

vxl_if make(const char *cls, const char *ifname)
{
    vxl_if pif = nullptr;
    EXPECT_EQ(VXL_OK, vxl_createinstance(cls, ifname, &pif));
    return pif;
}

vxl_if kitInterface(vxl_if pif, const char *name)
{
    vxl_if out = nullptr;
    EXPECT_EQ(VXL_OK, pif->slots->getinterface(pif, name, &out));
    return out;
}

// The kit count of the object behind its primary interface.
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

// ---- a fake COM object nobody here wrote ------------------------------------------------------
// IVxCounter (also its IUnknown), IVxCounterP and IVxNamed; it counts exactly,
// but may answer a constant from AddRef and Release, or refuse IUnknown.

std::atomic<int> g_liveFakes{0};

class Fake : public IVxCounter, public IVxCounterP, public IVxNamed {
public:
    explicit Fake(bool constantCounts = false, bool noUnknown = false) : constant_(constantCounts), noUnknown_(noUnknown)
    {
        ++g_liveFakes;
    }
    virtual ~Fake() { --g_liveFakes; }
    LONG refs() const { return refs_; }
    IUnknown *identity() { return static_cast<IVxCounter *>(this); }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        *out = IsEqualIID(iid, IID_IVxCounter) || (IsEqualIID(iid, IID_IUnknown) && !noUnknown_)
                   ? static_cast<IUnknown *>(static_cast<IVxCounter *>(this))
               : IsEqualIID(iid, IID_IVxCounterP) ? static_cast<IUnknown *>(static_cast<IVxCounterP *>(this))
               : IsEqualIID(iid, IID_IVxNamed)    ? static_cast<IUnknown *>(static_cast<IVxNamed *>(this))
                                                  : nullptr;
        return *out ? (AddRef(), S_OK) : E_NOINTERFACE;
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
    HRESULT STDMETHODCALLTYPE Add(LONG delta) override { return InterlockedExchangeAdd(&value_, delta), S_OK; }
    HRESULT STDMETHODCALLTYPE Get(LONG *out) override { return *out = value_, S_OK; }
    HRESULT STDMETHODCALLTYPE Label(BSTR *text) override { return *text = SysAllocString(L"fake"), S_OK; }

private:
    bool constant_, noUnknown_;
    LONG refs_ = 1, value_ = 0;
};

// ---- what the process can see of the runtime's state ------------------------------------------

FARPROC wrapperLibrary(const char *name)
{
    HMODULE lib = GetModuleHandleA("testwrappers.dll");
    return lib ? GetProcAddress(lib, name) : nullptr;
}

LONG liveWrappers()
{
    FARPROC live = wrapperLibrary("testwrappers_livewrappers");
    return live ? reinterpret_cast<LONG (*)()>(reinterpret_cast<void *>(live))() : 0;
}

int64_t tableRows()
{
    int64_t tables = 0, rows = 0;
    trn_processstats(&tables, &rows);
    return rows;
}

std::string hex(const void *p)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return buf;
}

// The lines of the bridge (wrap, table, fatal stops, and unless told not to
// wrapper library loading).
std::string bridgeLines(const std::string &text, bool withLoads = true)
{
    std::istringstream in(text);
    std::string out;
    auto starts = [](const std::string &line, const char *prefix) { return line.rfind(prefix, 0) == 0; };
    for (std::string line; std::getline(in, line);)
        if (starts(line, "vxl_wrap") || starts(line, "trn_") || starts(line, "vxl_fatal") ||
            (withLoads && starts(line, "vxl_com_wrapper_tryload")))
            out += line + "\n";
    return out;
}

// ---- wrapper registry entries pointing at the test wrapper library -----------------------------

const char *const kPairs[][2] = {{"ICounter", "com"}, {"ICounter", "comS"}, {"ICounter", "comP"},
                                 {"INamed", "com"},   {"IPlain", "com"}};

void registerWrapperLibrary(const char *ifname, const char *wtype, const char *dll)
{
    HKEY key;
    std::string name = std::string("SOFTWARE\\Quelt\\vexa\\interfaces\\") + ifname + "-" + wtype;
    std::string path = vxltest::programDir() + "\\" + dll;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                             &key, nullptr));
    RegSetValueExA(key, "wrapper-0", 0, REG_SZ, reinterpret_cast<const BYTE *>(path.c_str()), path.size() + 1);
    RegCloseKey(key);
}

void unregisterWrapperLibraries()
{
    for (const auto &p : kPairs)
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, (std::string("SOFTWARE\\Quelt\\vexa\\interfaces\\") + p[0] + "-" + p[1]).c_str());
}

void setUpProcess()
{
    vxl_init();
    vxl_register("wraptests", kitClassList, kitInterfaces);
    for (int k = 0; k < 4; ++k) // IPlain has none, but for the loader lock child
        registerWrapperLibrary(kPairs[k][0], kPairs[k][1], "testwrappers.dll");
}

class Wrapping : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        setUpProcess();
        LoadLibraryA("testwrappers.dll"); // its loading on demand is a child's test
    }
    static void TearDownTestSuite() { unregisterWrapperLibraries(); }
    void TearDown() override
    {
        EXPECT_EQ(0, g_liveCounters.load());
        EXPECT_EQ(0, g_liveFakes.load());
        EXPECT_EQ(0, liveWrappers());
        EXPECT_EQ(0, tableRows());
    }
};

} // namespace

// ---- kit interfaces as COM objects ------------------------------------------------------------

TEST_F(Wrapping, OneWrapperPerObjectNameAndTypeWithOneIdentityAndCountedReferences)
{
    vxl_if counterIf = make("Counter", "ICounter");
    vxl_if namedIf = kitInterface(counterIf, "INamed");
    int32_t base = kitRefs(counterIf);
    vxltest::LogTail tail;
    IUnknown *wc = reinterpret_cast<IUnknown *>(0xdeadbeef);
    ASSERT_EQ(VXL_OK, vxl_wrap(counterIf, "ICounter", "com", &wc));
    EXPECT_EQ(wc, vxl_wrapptr(counterIf, "ICounter", "com")) << "the same wrapper again";
    std::string p = hex(counterIf), w = hex(wc), n = hex(namedIf);
    // Each row holds the object once (the test wrappers hold it too); the
    // second name's row takes the first wrapper as identity and holds it.
    EXPECT_EQ(base + 2, kitRefs(counterIf));
    EXPECT_EQ(2u, comRefs(wc));
    IUnknown *wn = vxl_wrapptr(namedIf, "INamed", "com");
    EXPECT_EQ(base + 4, kitRefs(counterIf));
    EXPECT_EQ(3u, comRefs(wc));
    EXPECT_EQ("vxl_wrap(" + p + ", ICounter, com)\ntrn_insert: piunk = " + w + ", pcomif = " + w + ", pdef = " + p +
                  ", pif = " + p + ", ifname = ICounter, wtype = com\nvxl_wrap() = " + w + "\nvxl_wrap(" + p +
                  ", ICounter, com)\nvxl_wrap() = " + w + "\nvxl_wrap(" + n + ", INamed, com)\ntrn_insert: piunk = " +
                  w + ", pcomif = " + hex(wn) + ", pdef = " + p + ", pif = " + n +
                  ", ifname = INamed, wtype = com\nvxl_wrap() = " + hex(wn) + "\n",
              bridgeLines(tail.text()));
    for (IUnknown *x : {wc, wn}) {
        IUnknown *unk = nullptr;
        ASSERT_EQ(S_OK, x->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk)));
        EXPECT_EQ(wc, unk);
        EXPECT_EQ(4u, comRefs(wc));
        unk->Release();
    }
    void *viaQI = nullptr;
    ASSERT_EQ(S_OK, wc->QueryInterface(IID_IVxNamed, &viaQI)) << "across the object: the one wrapper of each name";
    EXPECT_EQ(static_cast<void *>(wn), viaQI);
    static_cast<IUnknown *>(viaQI)->Release();
    IDispatch *disp = nullptr;
    IVxCounterS *dual = nullptr;
    ASSERT_EQ(S_OK, wc->QueryInterface(IID_IDispatch, reinterpret_cast<void **>(&disp)));
    ASSERT_EQ(S_OK, wc->QueryInterface(IID_IVxCounterS, reinterpret_cast<void **>(&dual)));
    EXPECT_EQ(static_cast<IUnknown *>(dual), static_cast<IUnknown *>(disp)) << "IDispatch is the \"comS\" wrapper";
    LONG value = 0;
    EXPECT_EQ(S_OK, dual->Add(5));
    EXPECT_EQ(S_OK, dual->Get(&value));
    EXPECT_EQ(5, value) << "the wrapper reaches the kit object";
    dual->Release();
    disp->Release();
    const IID unknownIid = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    EXPECT_EQ(E_NOINTERFACE, wc->QueryInterface(unknownIid, &viaQI));
    EXPECT_EQ(nullptr, viaQI);
    EXPECT_EQ(E_POINTER, vxl_com_wrapperqueryinterface(IID_IUnknown, nullptr, wc, counterIf));

    vxltest::LogTail releases;
    wc->Release();
    wc->Release();
    EXPECT_EQ(2, liveWrappers()) << "the first wrapper outlives the second, whose row holds it";
    wn->Release();
    EXPECT_EQ(base, kitRefs(counterIf));
    EXPECT_EQ("trn_delete: pcomif = " + hex(wn) + ", pobj = " + n + "\ntrn_delete: pcomif = " + w + ", pobj = " + p + "\n",
              bridgeLines(releases.text()));
    vxl_decref(namedIf);
    vxl_decref(counterIf);
}

// ---- COM objects as kit interfaces -------------------------------------------------------------

TEST_F(Wrapping, OneProxyPerObjectNameAndTypeWithOneKitIdentityAndCountedReferences)
{
    auto *fake = new Fake;
    vxltest::LogTail tail;
    vxl_if first = reinterpret_cast<vxl_if>(0xdeadbeef);
    ASSERT_EQ(VXL_OK, vxl_unwrap(fake->identity(), "ICounter", "com", &first));
    EXPECT_EQ(first, vxl_unwrapptr(static_cast<IVxNamed *>(fake), "ICounter", "com")) << "the same object: same proxy";
    std::string f = hex(fake->identity()), p = hex(first);
    // (The first proxy of its class may make its wrapper library load first.)
    EXPECT_EQ("trn_insert: piunk = " + f + ", pcomif = " + f + ", pdef = " + p + ", pif = " + p +
                  ", ifname = ICounter, wtype = com\n",
              bridgeLines(tail.text(), false)); // the first proxy of its class may load its library
    EXPECT_EQ(3, fake->refs()) << "ours, the row's on the identity, and the proxy's on its interface";
    EXPECT_EQ(2, kitRefs(first));
    vxl_decref(first);
    vxl_if named = vxl_unwrapptr(fake->identity(), "INamed", "com");
    EXPECT_EQ(5, fake->refs());
    EXPECT_EQ(2, kitRefs(first)) << "the second row holds the first proxy";
    for (vxl_if x : {first, named}) {
        vxl_if identity = nullptr;
        ASSERT_EQ(VXL_OK, x->slots->getinterface(x, nullptr, &identity));
        EXPECT_EQ(first, identity);
        vxl_decref(identity);
    }
    vxl_if viaKit = kitInterface(first, "INamed");
    EXPECT_EQ(named, viaKit) << "getinterface by name unwraps the same COM object";
    const char *text = nullptr;
    EXPECT_EQ(VXL_OK, VXL_METHOD(viaKit, 0, named_label_slot)(viaKit, &text));
    EXPECT_STREQ("fake", text);
    vxl_decref(viaKit);
    int32_t value = 0;
    EXPECT_EQ(VXL_OK, VXL_METHOD(first, 0, counter_add_slot)(first, 7));
    EXPECT_EQ(VXL_OK, VXL_METHOD(first, 1, counter_get_slot)(first, &value));
    EXPECT_EQ(7, value);

    vxltest::LogTail releases;
    vxl_decref(first);
    EXPECT_EQ("", bridgeLines(releases.text())) << "the first proxy outlives the second";
    vxl_decref(named);
    EXPECT_EQ("trn_delete: pcomif = " + hex(static_cast<IVxNamed *>(fake)) + ", pif = " + hex(named) +
                  "\ntrn_delete: pcomif = " + f + ", pif = " + p + "\n",
              bridgeLines(releases.text()));
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

TEST_F(Wrapping, WrappingAndUnwrappingUndoEachOtherAlsoWhenNested)
{
    vxl_if pif = make("Counter", "ICounter");
    IUnknown *w = vxl_wrapptr(pif, "ICounter", "com");
    vxl_if back = vxl_unwrapptr(w, "ICounter", "com");
    EXPECT_EQ(pif, back) << "a wrapper unwrapped with its own name and type is its kit interface";
    vxl_decref(back);
    // For names its object was not wrapped for, the wrapper's QueryInterface
    // wraps the object on the way, and a proxy stands for that new wrapper.
    vxl_if named = vxl_unwrapptr(w, "INamed", "com"), viaDispatch = vxl_unwrapptr(w, "ICounter", "comS");
    const char *text = nullptr;
    EXPECT_EQ(VXL_OK, VXL_METHOD(named, 0, named_label_slot)(named, &text));
    EXPECT_STREQ("counter", text);
    ASSERT_NE(nullptr, viaDispatch);
    EXPECT_NE(pif, viaDispatch);
    int32_t value = 0;
    EXPECT_EQ(VXL_OK, VXL_METHOD(viaDispatch, 0, counter_add_slot)(viaDispatch, 3));
    EXPECT_EQ(VXL_OK, VXL_METHOD(pif, 1, counter_get_slot)(pif, &value));
    EXPECT_EQ(3, value);
    vxl_decref(viaDispatch);
    vxl_decref(named);
    w->Release();
    vxl_decref(pif);

    // A proxy wrapped with its own name and type is its COM interface, also
    // when that object's AddRef answers a constant.
    for (bool constant : {false, true}) {
        auto *fake = new Fake(constant);
        vxl_if proxy = vxl_unwrapptr(fake->identity(), "ICounter", "com");
        IUnknown *com = vxl_wrapptr(proxy, "ICounter", "com");
        EXPECT_EQ(fake->identity(), com);
        EXPECT_EQ(1, tableRows());
        IUnknown *dual = vxl_wrapptr(proxy, "ICounter", "comS"), *unk = nullptr;
        ASSERT_EQ(S_OK, dual->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&unk)));
        EXPECT_EQ(fake->identity(), unk) << "the proxy's COM object stays the identity";
        for (IUnknown *x : {unk, dual, com})
            x->Release();
        vxl_decref(proxy);
        EXPECT_EQ(1, fake->refs());
        fake->Release();
    }
}

TEST_F(Wrapping, WhatCannotBeCrossedGivesNoInterfaceAndNoRow)
{
    vxl_if counterIf = make("Counter", "ICounter"), refuser = make("Refuser", "IPlain");
    vxltest::LogTail tail;
    IUnknown *w = reinterpret_cast<IUnknown *>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(counterIf, "IAbsent", "com", &w)) << "the class has no IAbsent";
    EXPECT_EQ(nullptr, w);
    EXPECT_EQ("vxl_wrap(" + hex(counterIf) + ", IAbsent, com)\nvxl_wrap() = 0\n", bridgeLines(tail.text()));
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(counterIf, "INamed", "com", &w)) << "not the object's INamed interface";
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(refuser, "IPlain", "com", &w)) << "getinterface refuses a null name";
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_wrap(counterIf, nullptr, "com", &w));
    EXPECT_EQ(VXL_EFAIL, vxl_wrap(counterIf, "ICounter", "com", nullptr));
    EXPECT_EQ(nullptr, w);
    vxl_decref(refuser);
    vxl_decref(counterIf);

    auto *fake = new Fake, *noUnknown = new Fake(false, true);
    vxl_if out = reinterpret_cast<vxl_if>(0xdeadbeef);
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(fake->identity(), "ICounter", "comX", &out));
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(fake->identity(), "ICounter", "comS", &out)) << "no IVxCounterS";
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_unwrap(noUnknown->identity(), "ICounter", "com", &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, fake->refs() * noUnknown->refs());
    fake->Release();
    noUnknown->Release();
}

// ---- wrappers and proxies that die on another thread --------------------------------------------

namespace {

// Holds a wrapper or proxy whose count reached 0 before it calls back into
// the runtime, until the test has looked it up.
HANDLE g_dying = CreateEventA(nullptr, FALSE, FALSE, nullptr), g_go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
std::atomic<bool> g_armed{false};

void atTheGate()
{
    if (g_armed.exchange(false)) {
        SetEvent(g_dying);
        WaitForSingleObject(g_go, INFINITE);
    }
}

template <typename Die, typename Meanwhile> void whileDying(Die die, Meanwhile meanwhile)
{
    reinterpret_cast<void (*)(void (*)())>(reinterpret_cast<void *>(wrapperLibrary("testwrappers_setdyinghook")))(atTheGate);
    g_armed = true;
    std::thread dying(die);
    WaitForSingleObject(g_dying, INFINITE);
    meanwhile();
    SetEvent(g_go);
    dying.join();
}

} // namespace

TEST_F(Wrapping, AWrapperOrProxyDyingOnAnotherThreadIsNotHandedOut)
{
    vxl_if counterIf = make("Counter", "ICounter");
    IUnknown *w = vxl_wrapptr(counterIf, "ICounter", "com"), *again = nullptr;
    whileDying([&] { w->Release(); }, [&] { again = vxl_wrapptr(counterIf, "ICounter", "com"); });
    ASSERT_NE(nullptr, again);
    EXPECT_NE(w, again);
    EXPECT_EQ(1u, comRefs(again));
    EXPECT_EQ(1, tableRows());
    again->Release();
    vxl_decref(counterIf);

    auto *fake = new Fake;
    vxl_if proxy = vxl_unwrapptr(fake->identity(), "ICounter", "com"), other = nullptr;
    whileDying([&] { vxl_decref(proxy); }, [&] { other = vxl_unwrapptr(fake->identity(), "ICounter", "com"); });
    ASSERT_NE(nullptr, other);
    EXPECT_NE(proxy, other);
    EXPECT_EQ(1, kitRefs(other));
    EXPECT_EQ(1, tableRows());
    vxl_decref(other);
    EXPECT_EQ(1, fake->refs());
    fake->Release();
}

TEST_F(Wrapping, ThreadsWrappingAndUnwrappingTheSameObjects)
{
    // Threads wrap, unwrap and release one kit object and one COM object, so
    // their wrappers and proxies die and are made again while other threads
    // look them up; each thread also makes and drops objects of its own.
    vxl_if shared = make("Counter", "ICounter");
    auto *sharedFake = new Fake;
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0}, rounds{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            vxl_com_init();
            while (!stop.load()) {
                IUnknown *w = vxl_wrapptr(shared, "ICounter", "com");
                vxl_if back = w ? vxl_unwrapptr(w, "ICounter", "com") : nullptr;
                vxl_if p = vxl_unwrapptr(sharedFake->identity(), "ICounter", "com");
                IUnknown *c = p ? vxl_wrapptr(p, "ICounter", "com") : nullptr;
                failures += !w || back != shared || !p || c != sharedFake->identity();
                failures += w && VXL_METHOD(back, 0, counter_add_slot)(back, 1) != VXL_OK;
                vxl_if own = make("Counter", "ICounter");
                IUnknown *ow = vxl_wrapptr(own, "ICounter", "comP");
                auto *ownFake = new Fake;
                vxl_if op = vxl_unwrapptr(ownFake->identity(), "INamed", "com");
                failures += !ow || !op;
                for (IUnknown *x : {static_cast<IUnknown *>(ownFake->identity()), ow, c, w})
                    if (x)
                        x->Release();
                for (vxl_if x : {op, own, p, back})
                    vxl_decref(x);
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

// ---- per-process behaviour ---------------------------------------------------------------------

VXL_CHILD(null_pointers_make_no_table)
{
    vxl_init();
    vxl_if out = reinterpret_cast<vxl_if>(0xdeadbeef);
    int64_t tables = 0, rows = 0;
    int failures = vxl_wrapptr(nullptr, "ICounter", "com") != nullptr;
    failures += vxl_unwrap(nullptr, "ICounter", "com", &out) != VXL_OK || out != nullptr;
    trn_processstats(&tables, &rows);
    return failures + (tables != 0);
}

VXL_CHILD(library_loads_on_demand)
{
    setUpProcess();
    vxl_if a = make("Counter", "ICounter"), b = make("Counter", "ICounter"), plain = make("Plain", "IPlain");
    IUnknown *wa = vxl_wrapptr(a, "ICounter", "com"); // loads the library
    IUnknown *wb = vxl_wrapptr(b, "ICounter", "com"); // already there
    IUnknown *unserved = reinterpret_cast<IUnknown *>(0xdeadbeef);
    int failures = !wa + !wb;
    for (int call = 0; call < 2; ++call) // each failing call tries the registry once
        failures += vxl_wrap(plain, "IPlain", "comP", &unserved) != VXL_ENOINTERFACE || unserved != nullptr;
    wa->Release();
    wb->Release();
    for (vxl_if x : {a, b, plain})
        vxl_decref(x);
    return failures;
}

VXL_CHILD(unknown_pair_stops)
{
    setUpProcess();
    IUnknown *w = vxl_wrapptr(make("Counter", "ICounter"), "ICounter", "com"); // makes the table
    void *out = nullptr;
    vxl_com_wrapperqueryinterface(IID_IUnknown, &out, w, reinterpret_cast<vxl_if>(0x1234));
    return 0; // not reached
}

VXL_CHILD(unknown_pair_released)
{
    setUpProcess();
    vxl_if pif = make("Counter", "ICounter");
    vxl_wrapptr(pif, "ICounter", "com");
    vxl_com_releasewrapper(reinterpret_cast<IUnknown *>(0x5678), pif);
    return 0; // not reached
}

// One thread wraps an interface whose wrapper library loads but registers
// nothing, so every call loads it; short threads release a wrapper of their
// own as they end, from a thread-detach callback that the loader calls under
// its lock, as a DllMain or a thread_local destructor would.
namespace {
DWORD g_heldSlot = TlsAlloc();
void NTAPI releaseAtThreadExit(PVOID, DWORD reason, PVOID)
{
    if (reason == DLL_THREAD_DETACH && g_heldSlot != TLS_OUT_OF_INDEXES)
        if (auto *wrapper = static_cast<IUnknown *>(TlsGetValue(g_heldSlot)))
            wrapper->Release();
}
} // namespace

extern "C" __attribute__((used, section(".CRT$XLF"))) const PIMAGE_TLS_CALLBACK vxltest_threadexit = releaseAtThreadExit;

VXL_CHILD(loader_lock_race)
{
    setUpProcess();
    registerWrapperLibrary("IPlain", "com", "comtest_wrapperlib.dll");
    vxl_if plain = make("Plain", "IPlain");
    std::atomic<bool> stop{false};
    std::thread loader([&] {
        for (IUnknown *w = nullptr; !stop.load();)
            vxl_wrap(plain, "IPlain", "com", &w);
    });
    for (DWORD end = GetTickCount() + 3000; GetTickCount() < end;) {
        HANDLE t = CreateThread(nullptr, 0, [](LPVOID) -> DWORD {
            vxl_if object = make("Counter", "ICounter");
            TlsSetValue(g_heldSlot, vxl_wrapptr(object, "ICounter", "com"));
            return vxl_decref(object); // the wrapper holds it now
        }, nullptr, 0, nullptr);
        WaitForSingleObject(t, INFINITE);
        CloseHandle(t);
    }
    stop = true;
    loader.join();
    vxl_decref(plain);
    return g_liveCounters.load();
}

TEST(WrappingProcess, PerProcessBehaviour)
{
    std::string log = vxltest::scratchPath("wrap_child.log");
    EXPECT_EQ(0, vxltest::runChild("null_pointers_make_no_table", log.c_str()));
    EXPECT_EQ("vxl_wrap(0, ICounter, com)\n", vxltest::readLog(log)) << "vxl_wrap still traces";

    EXPECT_EQ(0, vxltest::runChild("library_loads_on_demand", log.c_str()));
    std::string tryload = "vxl_com_wrapper_tryload", got;
    std::string missing = tryload + "(IPlain, comP) -> SOFTWARE\\Quelt\\vexa\\interfaces\\IPlain-comP\n" + tryload +
                          "() openkey failed 2\n";
    std::istringstream in(vxltest::readLog(log));
    for (std::string line; std::getline(in, line);)
        if (line.rfind(tryload, 0) == 0)
            got += line + "\n";
    EXPECT_EQ(tryload + "(ICounter, com) -> SOFTWARE\\Quelt\\vexa\\interfaces\\ICounter-com\n" + tryload +
                  "() loading " + vxltest::programDir() + "\\testwrappers.dll\n" + tryload + "() ok\n" + missing + missing,
              got);

    // A callback for a pair that has no row stops the process.
    EXPECT_EQ(3, vxltest::runChild("unknown_pair_stops", log.c_str()));
    std::string text = vxltest::readLog(log);
    EXPECT_EQ("vxl_fatal: trn_select\n", text.substr(text.rfind("vxl_fatal")));
    EXPECT_EQ(3, vxltest::runChild("unknown_pair_released", log.c_str()));
    text = vxltest::readLog(log);
    EXPECT_EQ("vxl_fatal: trn_delete\n", text.substr(text.rfind("vxl_fatal")));
    EXPECT_NE(std::string::npos, text.find("trn_delete: pcomif = 5678, pobj = "));

    // No library loads under the wrapper lock: this hung within seconds.
    EXPECT_EQ(0, vxltest::runChild("loader_lock_race", nullptr, 30000));
    unregisterWrapperLibraries(); // the children leave theirs behind
}
