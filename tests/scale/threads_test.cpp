// The hot paths under threads: use counts that several threads add to and
// take from, lock-free factory look-ups racing with vxl_inuse, each
// thread's cache of object blocks (and its end with the thread), the read
// gate, and wrapper look-ups without the wrapper lock racing with changes
// of the wrapper table. Tracing off (quiet.h), as the shortcuts it allows
// are part of what runs.
#include "core/object.h"
#include "core/readgate.h"
#include "core/threadstate.h"
#include "quiet.h"
#include "kitwrapper.h"

#include <atomic>
#include <set>
#include <thread>
#include <vector>

QUIET_TEST_CHILD()

namespace {

// ---- a kit class with a method, whose objects count their lives ------------------------------

std::atomic<int> g_alive{0};

int32_t get(void *impl, int32_t x)
{
    return static_cast<int32_t>(reinterpret_cast<intptr_t>(impl)) + x;
}
using GetSlot = int32_t (*)(vxl_if, int32_t);

int32_t create(void **implslot, vxl_if)
{
    ++g_alive;
    *implslot = reinterpret_cast<void *>(intptr_t(40));
    return 0;
}
int32_t destroy(void *, vxl_if)
{
    --g_alive;
    return 0;
}

const vxl_paramdef kArg = {"x", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef *const kArgs[] = {&kArg};
const vxl_methoddef kGet = {"get", 1, kArgs};
const vxl_methoddef *const kMethods[] = {&kGet};
const vxl_interfacedef kIHot = {"IHot", 1, kMethods};
const vxl_interfacedef kISecond = {"ISecond", 1, kMethods};
const vxl_fn kFunctions[] = {reinterpret_cast<vxl_fn>(get)};
const vxl_componentinterface kHotEntry = {&kIHot, kFunctions};
const vxl_componentinterface kSecondEntry = {&kISecond, kFunctions};
const vxl_componentinterface *const kOne[] = {&kHotEntry};
const vxl_componentinterface *const kTwo[] = {&kHotEntry, &kSecondEntry};
const vxl_componentdef kHot = {"Hot", 1, kOne, create, destroy, nullptr};
const vxl_componentdef kRaced = {"Raced", 1, kOne, create, destroy, nullptr};
const vxl_componentdef kPair = {"Pair", 2, kTwo, create, destroy, nullptr};

int32_t pairByCallback(void *, const char *, vxl_if *out, vxl_if primary)
{
    primary->slots->incref(primary);
    *out = primary;
    return 0;
}
const vxl_componentdef kCalled = {"Called", 2, kTwo, create, destroy, pairByCallback};

const vxl_componentdef *const kComponents[] = {&kHot, &kRaced, &kPair, &kCalled, nullptr};
const vxl_interfacedef *const kInterfaces[] = {&kIHot, &kISecond, nullptr};

void registerOnce()
{
    static int32_t status = vxl_register("threads_test", kComponents, kInterfaces);
    ASSERT_EQ(0, status);
}

vxl_if make(const char *classname)
{
    vxl_if obj = nullptr;
    EXPECT_EQ(0, vxl_createinstance(classname, nullptr, &obj));
    return obj;
}

vxl_classfactory *factoryOf(vxl_if obj)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(obj) + 1)->factory;
}

} // namespace

// ---- use counts -------------------------------------------------------------------------------

QUIET_TEST(UseCounts, ThreadsThatCreateAndReleaseEachOthersObjectsLeaveTheSumExact)
{
    registerOnce();
    vxl_if first = make("Hot");
    vxl_classfactory *f = factoryOf(first);
    ASSERT_NE(nullptr, f->counts) << "a cached factory counts on stripes";
    EXPECT_EQ(1, f->usecount);

    constexpr int kThreads = 6, kEach = 500;
    std::vector<vxl_if> objects(kThreads * kEach);
    std::vector<uint32_t> stripes(kThreads);
    vxltest::runTogether(kThreads, [&](int t) {
        stripes[size_t(t)] = vxl_thisthread()->stripe;
        for (int k = 0; k < kEach; ++k)
            objects[size_t(t * kEach + k)] = make("Hot");
    });
    EXPECT_EQ(1 + kThreads * kEach, f->usecount);
    EXPECT_EQ(kThreads, static_cast<int>(std::set<uint32_t>(stripes.begin(), stripes.end()).size()))
        << "threads that came one after another got stripes of their own";
    // Each thread releases another thread's objects: units go back on
    // stripes they were not taken on.
    vxltest::runTogether(kThreads, [&](int t) {
        int other = (t + 1) % kThreads;
        for (int k = 0; k < kEach; ++k)
            vxl_decref(objects[size_t(other * kEach + k)]);
    });
    EXPECT_EQ(1, f->usecount);
    EXPECT_EQ(1, g_alive.load());
    vxl_decref(first);
    EXPECT_EQ(0, f->usecount);
    const vxl_componentdef *const list[] = {&kHot, nullptr};
    EXPECT_EQ(0, vxl_inuse(list)) << "nothing left in use";
}

QUIET_TEST(UseCounts, InuseRacingWithCreatorsNeverFreesAFactoryInUse)
{
    registerOnce();
    const vxl_componentdef *const list[] = {&kRaced, nullptr};
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, made{0};
    vxltest::runTogether(3, [&](int t) {
        if (t == 0) {
            // Asks again and again while the others create and call.
            for (int k = 0; k < 3000 || made < 20000; ++k) {
                int32_t answer = vxl_inuse(list);
                if (answer != 0 && answer != 1)
                    ++bad;
            }
            stop = true;
            return;
        }
        while (!stop) {
            vxl_if obj = nullptr;
            if (vxl_createinstance("Raced", "IHot", &obj) != 0 || !obj) {
                ++bad;
                continue;
            }
            // A factory freed under a live object would leave its slot
            // table freed behind this call. (It may be closing: vxl_inuse
            // is counting its uses.)
            if (VXL_METHOD(obj, 0, GetSlot)(obj, 2) != 42 || factoryOf(obj)->state == VXL_FACTORY_FREED)
                ++bad;
            vxl_decref(obj);
            // Pauses now and then leave the class idle, so that it is also
            // freed and built again while the race goes on.
            if (++made % 512 == 0)
                Sleep(1);
        }
    });
    EXPECT_EQ(0, bad.load());
    EXPECT_LT(0, made.load());
    EXPECT_EQ(0, g_alive.load());
    EXPECT_EQ(0, vxl_inuse(list)) << "with the creators gone it is freed";
    vxl_if again = make("Raced");
    ASSERT_NE(nullptr, again) << "and built again on demand";
    EXPECT_EQ(1, factoryOf(again)->usecount);
    vxl_decref(again);
}

// ---- object blocks ----------------------------------------------------------------------------

QUIET_TEST(ObjectBlocks, AReleasedBlockServesTheReleasingThreadAndItKeepsAtMostItsShare)
{
    registerOnce();
    vxl_if a = make("Hot");
    vxl_decref(a);
    vxl_if b = make("Hot");
    EXPECT_EQ(a, b) << "the same block again";
    vxl_decref(b);
    vxl_if pair = make("Pair");
    EXPECT_NE(reinterpret_cast<void **>(b), reinterpret_cast<void **>(pair) - 1) << "another size, another block";
    vxl_decref(pair);

    // A block released on another thread serves that thread next.
    vxl_if mine = make("Hot");
    vxl_if theirs = nullptr;
    std::thread([&] {
        vxl_decref(mine);
        theirs = make("Hot");
    }).join();
    EXPECT_EQ(mine, theirs);
    vxl_decref(theirs);

    // A thread keeps at most its share and gives the rest back.
    std::vector<vxl_if> objects;
    for (uint32_t k = 0; k < kCachedBlocksPerSize + 8; ++k)
        objects.push_back(make("Hot"));
    vxl_threadstate *thread = vxl_thisthread();
    EXPECT_EQ(0u, thread->blocks[0].count);
    for (vxl_if obj : objects)
        vxl_decref(obj);
    EXPECT_EQ(kCachedBlocksPerSize, thread->blocks[0].count);
    EXPECT_EQ(0, g_alive.load());
}

namespace {

// Runs on the ending thread, after (or before) the runtime's own cleanup.
std::vector<vxl_if> g_atexit;
uint32_t g_cachingAtExit = 99;

void WINAPI releaseAtExit(void *)
{
    for (vxl_if obj : g_atexit)
        vxl_decref(obj);
    g_cachingAtExit = vxl_thisthread()->caching;
}

} // namespace

QUIET_TEST(ObjectBlocks, AnEndingThreadGivesBackItsBlocksAndMayStillRelease)
{
    registerOnce();
    vxl_thisthread(); // the runtime's slots exist before this test's own
    DWORD slot = FlsAlloc(releaseAtExit);
    ASSERT_NE(FLS_OUT_OF_INDEXES, slot);
    int before = g_alive;
    std::thread([&] {
        std::vector<vxl_if> objects;
        for (int k = 0; k < 6; ++k)
            objects.push_back(make("Hot"));
        for (int k = 0; k < 3; ++k)
            vxl_decref(objects[size_t(k)]); // cached on this thread
        g_atexit.assign(objects.begin() + 3, objects.end());
        FlsSetValue(slot, &g_atexit);
    }).join();
    EXPECT_EQ(before, g_alive.load()) << "the objects released at the thread's end were destroyed";
    EXPECT_LE(g_cachingAtExit, 1u);
    vxl_if obj = make("Hot");
    EXPECT_EQ(before + 1, g_alive.load());
    vxl_decref(obj);
    FlsFree(slot);
}

// ---- the read gate ------------------------------------------------------------------------------

QUIET_TEST(ReadGate, AWriterWaitsForReadersAndReadersNeverWait)
{
    static vxl_readgate gate;
    vxl_threadstate *me = vxl_thisthread();
    ASSERT_TRUE(gate.enter(me));
    std::atomic<bool> closed{false};
    std::thread writer([&] {
        gate.close();
        closed = true;
    });
    Sleep(50);
    EXPECT_FALSE(closed.load()) << "a reader inside holds the writer";
    gate.leave(me);
    // A reader that arrives while the writer waits or writes is turned
    // away rather than waiting.
    while (!closed)
        Sleep(1);
    EXPECT_FALSE(gate.enter(me));
    writer.join();
    gate.open();
    EXPECT_TRUE(gate.enter(me));
    gate.leave(me);
}

// ---- wrapping without the wrapper lock ---------------------------------------------------------

namespace {

const IID IID_IHot = {0x7a11c0de, 0x0013, 0x4000, {0x80, 0x13, 0, 0, 0, 0, 0, 0x01}};

class HotWrapper final : public Wrapper<IUnknown> {
public:
    using Wrapper::Wrapper;
    vxl_if pif() const { return pif_; }
};

int32_t makeHotWrapper(vxl_if pif, IUnknown **result)
{
    *result = new HotWrapper(pif);
    return VXL_OK;
}

// A plain COM object, and the kit proxy class that stands for it.
class ComHot final : public IUnknown {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IHot);
        *out = known ? this : nullptr;
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0)
            delete this;
        return left;
    }
    LONG refs() const { return refs_; }

private:
    LONG refs_ = 1;
};

int32_t proxyGet(void *, int32_t x)
{
    return 100 + x;
}
const vxl_fn kProxyFunctions[] = {reinterpret_cast<vxl_fn>(proxyGet)};
const vxl_componentinterface kProxyEntry = {&kIHot, kProxyFunctions};
const vxl_componentinterface *const kProxyEntries[] = {&kProxyEntry};
int32_t refuseCreate(void **, vxl_if) { return VXL_EFAIL; }
const vxl_componentdef kProxy = {"IHot_com_proxy", 1, kProxyEntries, refuseCreate, vxl_com_wrapperdestructor,
                                 vxl_com_wrappergetinterface};
const vxl_componentdef *const kProxyComponents[] = {&kProxy, nullptr};
const vxl_interfacedef *const kNoInterfaces[] = {nullptr};

const vxl_comifinfo kHotInfo = {"IHot", IID_IHot, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                makeHotWrapper, nullptr, nullptr, nullptr};
const vxl_comifinfo kSecondInfo = {"ISecond", GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL, GUID_NULL,
                                   makeHotWrapper, nullptr, nullptr, nullptr};
const vxl_comifinfo *const kComInterfaces[] = {&kHotInfo, &kSecondInfo, nullptr};
const vxl_comcomponentinfo *const kComComponents[] = {nullptr};
const vxl_comlibinfo kLib = {"test_scale.exe", GUID_NULL};

void registerCrossings()
{
    registerOnce();
    static int32_t status = vxl_register("threads_test_proxies", kProxyComponents, kNoInterfaces);
    ASSERT_EQ(0, status);
    static int32_t comstatus = vxl_com_register(&kLib, kComComponents, kComInterfaces);
    ASSERT_EQ(0, comstatus);
}

} // namespace

QUIET_TEST(Crossings, FoundWrappersAndProxiesWhileOtherThreadsChangeTheTable)
{
    registerCrossings();
    vxl_if thing = nullptr;
    ASSERT_EQ(0, vxl_createinstance("Hot", "IHot", &thing));
    IUnknown *held = vxl_wrapptr(thing, "IHot", "com");
    ASSERT_NE(nullptr, held);
    auto *com = new ComHot;
    vxl_if heldProxy = vxl_unwrapptr(com, "IHot", "com");
    ASSERT_NE(nullptr, heldProxy);

    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    vxltest::runTogether(4, [&](int t) {
        if (t == 0) {
            // Rows come and go: every one of these inserts and deletes.
            for (int k = 0; k < 2000; ++k) {
                vxl_if fresh = make("Hot");
                IUnknown *w = vxl_wrapptr(fresh, "IHot", "com");
                auto *c = new ComHot;
                vxl_if p = vxl_unwrapptr(c, "IHot", "com");
                if (!w || !p || w == held || p == heldProxy)
                    ++wrong;
                vxl_decref(p);
                c->Release();
                if (w)
                    w->Release();
                vxl_decref(fresh);
            }
            stop = true;
            return;
        }
        while (!stop) {
            IUnknown *w = vxl_wrapptr(thing, "IHot", "com");
            vxl_if p = vxl_unwrapptr(com, "IHot", "com");
            if (w != held || p != heldProxy)
                ++wrong;
            if (w)
                w->Release();
            vxl_decref(p);
        }
    });
    EXPECT_EQ(0, wrong.load());
    vxl_decref(heldProxy);
    EXPECT_EQ(1, com->refs()) << "every crossing gave back what it took";
    com->Release();
    held->Release();
    vxl_decref(thing);
    EXPECT_EQ(0, g_alive.load());
}

QUIET_TEST(Crossings, AnObjectReachedThroughAnyInterfaceHasOneWrapperPerName)
{
    registerCrossings();
    // Pair: its identity is worked out from the slot table, whichever
    // interface is handed in. Called: its getinterface callback decides.
    for (const char *classname : {"Pair", "Called"}) {
        SCOPED_TRACE(classname);
        vxl_if primary = make(classname);
        vxl_if second = nullptr;
        ASSERT_EQ(0, primary->slots->getinterface(primary, "ISecond", &second));
        IUnknown *viaSecond = vxl_wrapptr(second, "ISecond", "com");
        ASSERT_NE(nullptr, viaSecond);
        IUnknown *again = vxl_wrapptr(second, "ISecond", "com");
        EXPECT_EQ(viaSecond, again) << "found, not made again";
        EXPECT_EQ(second, static_cast<HotWrapper *>(viaSecond)->pif());
        IUnknown *hot = vxl_wrapptr(primary, "IHot", "com");
        ASSERT_NE(nullptr, hot);
        IUnknown *identity = nullptr, *hotIdentity = nullptr;
        ASSERT_EQ(S_OK, viaSecond->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&identity)));
        ASSERT_EQ(S_OK, hot->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&hotIdentity)));
        EXPECT_EQ(identity, hotIdentity) << "one COM identity for the object";
        identity->Release();
        hotIdentity->Release();
        hot->Release();
        again->Release();
        viaSecond->Release();
        vxl_decref(second);
        vxl_decref(primary);
    }
    EXPECT_EQ(0, g_alive.load());
}
