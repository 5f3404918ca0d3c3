// White box: the COM registrations' lookups (merging of interface records,
// walk order, GUID_NULL as a key, exact names), the registration record and
// its caches, and the COM lock set.
#include "comserver/comserver.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using vxltest::LogTail;

namespace {

GUID guid(uint32_t n)
{
    return GUID{0x5eed0000u + n, 0x2222, 0x4333, {0x84, 0x44, 0x55, 0x55, 0x66, 0x66, 0x77, 0x77}};
}

bool same(const GUID &a, const GUID &b) { return memcmp(&a, &b, sizeof a) == 0; }

// Distinct bodies keep the linker from folding them into one address.
int32_t wrapA(vxl_if, IUnknown **) { return 101; }
int32_t wrapB(vxl_if, IUnknown **) { return 102; }
int32_t wrapC(vxl_if, IUnknown **) { return 103; }
HRESULT dispA(IUnknown *, IDispatch **) { return 201; }
HRESULT dispB(IUnknown *, IDispatch **) { return 202; }

// A record with only a name and the three wrapper IIDs set.
vxl_comifinfo ifinfo(const char *name, GUID com = {}, GUID comS = {}, GUID comP = {})
{
    return {name, com, comS, comP, {}, {}, nullptr, nullptr, nullptr, nullptr};
}

// The lookups, each into a poisoned record that a failure must clear (and
// a wrapper type that it must null).
vxl_comifinfo byName(const char *name, int32_t status = 0)
{
    vxl_comifinfo out, zero = ifinfo(nullptr);
    memset(&out, 0xde, sizeof out);
    EXPECT_EQ(status, vxl_com_getifinfo(name, &out)) << (name ? name : "(null)");
    if (status) {
        EXPECT_EQ(0, memcmp(&zero, &out, sizeof out));
    }
    return out;
}

vxl_comifinfo byIid(const GUID &iid, const char *wtype, int32_t status = 0)
{
    vxl_comifinfo out, zero = ifinfo(nullptr);
    memset(&out, 0xde, sizeof out);
    const char *got = reinterpret_cast<const char *>(0xdeadbeef);
    EXPECT_EQ(status, vxl_com_getifinfobyiid(iid, &got, &out));
    if (status) {
        EXPECT_EQ(nullptr, got);
        EXPECT_EQ(0, memcmp(&zero, &out, sizeof out));
    } else {
        EXPECT_STREQ(wtype, got);
    }
    return out;
}

// One vxl_com_register for the life of a test; unregistered at its end.
class Registration {
public:
    Registration(const vxl_comlibinfo *lib, const vxl_comcomponentinfo *const *comps,
                 const vxl_comifinfo *const *ifs)
        : lib_(lib), comps_(comps), ifs_(ifs)
    {
        EXPECT_EQ(0, vxl_com_register(lib, comps, ifs));
    }
    ~Registration()
    {
        if (active_) {
            EXPECT_EQ(0, vxl_com_unregister(lib_, comps_, ifs_));
        }
    }
    void forget() { active_ = false; }

private:
    const vxl_comlibinfo *lib_;
    const vxl_comcomponentinfo *const *comps_;
    const vxl_comifinfo *const *ifs_;
    bool active_ = true;
};

const vxl_comcomponentinfo *const kNoComps[] = {nullptr};
const vxl_comifinfo *const kNoIfs[] = {nullptr};

// Counts the Release calls the registration makes on cached type information.
struct FakeRef {
    const void *const *vtbl;
    int releases;
};
HRESULT STDMETHODCALLTYPE fakeQueryInterface(FakeRef *, REFIID, void **out)
{
    *out = nullptr;
    return E_NOINTERFACE;
}
ULONG STDMETHODCALLTYPE fakeAddRef(FakeRef *) { return 2; }
ULONG STDMETHODCALLTYPE fakeRelease(FakeRef *self) { ++self->releases; return 1; }
const void *const kFakeVtbl[] = {reinterpret_cast<const void *>(fakeQueryInterface),
                                 reinterpret_cast<const void *>(fakeAddRef),
                                 reinterpret_cast<const void *>(fakeRelease)};

} // namespace

// ---- merging by name, walk order ------------------------------------------------

TEST(ComLookups, MergingByNameAndWalkOrderByIid)
{
    // Fields: name, iid_com, iid_comS, iid_comP, iid_CP, clsid_CP, wrap_com,
    // wrap_comS, wrap_comP, getdispinterface.
    static const char oldName[] = "IMergeTest", newName[] = "IMergeTest"; // equal text, two pointers
    // IMergeTest in both: iid_com set in both (the older value wins), iid_comS
    // only in the older, iid_comP and iid_CP only in the newer one.
    static const vxl_comifinfo mergeOld = {oldName, guid(1), guid(2), {}, {}, {}, wrapA, nullptr, nullptr, dispA};
    static const vxl_comifinfo mergeNew = {newName, guid(3), {}, guid(4), guid(5), {}, wrapB, wrapC, nullptr, dispB};
    // ITwiceInOne twice in one registration: the later entry wins.
    static const vxl_comifinfo twice1 = {"ITwiceInOne", guid(10), {}, {}, {}, {}, nullptr, nullptr, wrapA, nullptr};
    static const vxl_comifinfo twice2 = ifinfo("ITwiceInOne", guid(11));
    // Two names claim guid(20): by IID the newer registration's entry answers, unmerged.
    static const vxl_comifinfo oldClaim = {"IOldClaim", guid(20), {}, {}, {}, {}, wrapA, nullptr, nullptr, nullptr};
    static const vxl_comifinfo newClaim = {"INewClaim", {}, guid(20), {}, {}, {}, nullptr, wrapB, nullptr, nullptr};
    // By IID the fields compare com, then comS, then comP.
    static const vxl_comifinfo orderA = ifinfo("IOrderA", guid(30), guid(30), guid(30));
    static const vxl_comifinfo orderB = ifinfo("IOrderB", {}, guid(31), guid(31));
    static const vxl_comifinfo *const olderIfs[] = {&mergeOld, &oldClaim, &orderA, &orderB, nullptr};
    static const vxl_comifinfo *const newerIfs[] = {&mergeNew, &twice1, &twice2, &newClaim, nullptr};
    static const vxl_comlibinfo lib = {"merge.dll", {}};
    Registration first(&lib, kNoComps, olderIfs);
    Registration second(&lib, kNoComps, newerIfs);

    vxl_comifinfo out = byName("IMergeTest");
    EXPECT_EQ(oldName, out.name); // the last entry walked: the oldest
    EXPECT_TRUE(same(guid(1), out.iid_com));
    EXPECT_TRUE(same(guid(2), out.iid_comS));
    EXPECT_TRUE(same(guid(4), out.iid_comP));
    EXPECT_TRUE(same(guid(5), out.iid_CP));
    EXPECT_TRUE(same(GUID_NULL, out.clsid_CP)); // nobody set it: cleared, not left over
    EXPECT_EQ(wrapA, out.wrap_com);
    EXPECT_EQ(wrapC, out.wrap_comS);
    EXPECT_EQ(nullptr, out.wrap_comP);
    EXPECT_EQ(dispA, out.getdispinterface);
    out = byIid(guid(4), "comP");
    EXPECT_TRUE(same(guid(1), out.iid_com)); // the merged record, not the bare entry
    EXPECT_EQ(wrapA, out.wrap_com);

    out = byName("ITwiceInOne");
    EXPECT_EQ(twice2.name, out.name);
    EXPECT_TRUE(same(guid(11), out.iid_com));
    EXPECT_EQ(wrapA, out.wrap_comP);

    out = byIid(guid(20), "comS");
    EXPECT_STREQ("INewClaim", out.name);
    EXPECT_EQ(wrapB, out.wrap_comS);
    EXPECT_EQ(nullptr, out.wrap_com); // IOldClaim's fields are not merged in

    EXPECT_STREQ("IOrderA", byIid(guid(30), "com").name);
    EXPECT_STREQ("IOrderB", byIid(guid(31), "comS").name);
}

TEST(ComLookups, UnknownKeysAnswerOneWithClearedOutputs)
{
    static const vxl_comifinfo a = ifinfo("IKnown", guid(40), guid(41), guid(42));
    static const vxl_comifinfo *const ifs[] = {&a, nullptr};
    static const vxl_comlibinfo lib = {"known.dll", {}};
    Registration reg(&lib, kNoComps, ifs);

    LogTail tail;
    byName("IUnknownToUs", 1);
    byName(nullptr, 1);
    EXPECT_EQ(1, vxl_com_getifinfo("IKnown", nullptr));
    byIid(guid(43), nullptr, 1);
    const char *wtype = nullptr;
    EXPECT_EQ(1, vxl_com_getifinfobyiid(guid(40), &wtype, nullptr));
    vxl_comifinfo out;
    EXPECT_EQ(0, vxl_com_getifinfobyiid(guid(41), nullptr, &out)); // the type is optional
    EXPECT_STREQ("IKnown", out.name);

    EXPECT_EQ(nullptr, vxl_com_findcomponent(nullptr));
    EXPECT_EQ(nullptr, vxl_com_findcomponent("NoSuchComponent"));
    EXPECT_EQ(nullptr, vxl_com_findcomponentbyclsid(guid(49)));
    EXPECT_EQ("", tail.text()); // lookups trace nothing
}

// ---- GUID_NULL, CLSIDs and names -----------------------------------------------

TEST(ComLookups, GuidNullMatchesTheFirstUnsetFieldAndNewerRegistrationsAnswerFirst)
{
    static const vxl_comifinfo full = ifinfo("IAllSet", guid(50), guid(51), guid(52));
    static const vxl_comifinfo partial = ifinfo("INoComS", guid(53), {}, guid(54));
    static const vxl_comifinfo *const ifs[] = {&full, &partial, nullptr};
    static const vxl_comcomponentinfo com = {"ComClass", guid(55)}, plain = {"KitOnly", GUID_NULL};
    static const vxl_comcomponentinfo *const comps[] = {&com, &plain, nullptr};
    static const vxl_comlibinfo lib = {"null.dll", {}};
    Registration reg(&lib, comps, ifs);

    vxl_comifinfo out = byIid(GUID_NULL, "comS");
    EXPECT_STREQ("INoComS", out.name);
    EXPECT_TRUE(same(GUID_NULL, out.iid_comS));
    // CLSIDs are compared as bytes too: GUID_NULL finds the non-COM component.
    EXPECT_EQ(&plain, vxl_com_findcomponentbyclsid(GUID_NULL));
    EXPECT_EQ(&com, vxl_com_findcomponentbyclsid(guid(55)));

    // The same CLSID and name in a newer registration is found while it lasts.
    static const vxl_comcomponentinfo newer = {"ComClass", guid(55)};
    static const vxl_comcomponentinfo *const newerComps[] = {&newer, nullptr};
    {
        Registration second(&lib, newerComps, kNoIfs);
        EXPECT_EQ(&newer, vxl_com_findcomponentbyclsid(guid(55)));
        EXPECT_EQ(&newer, vxl_com_findcomponent("ComClass"));
    }
    EXPECT_EQ(&com, vxl_com_findcomponentbyclsid(guid(55)));
    EXPECT_EQ(&com, vxl_com_findcomponent("ComClass"));
}

TEST(ComLookups, NamesDifferingInCaseAreDifferent)
{
    static const vxl_comifinfo upper = ifinfo("ICaseTest", guid(70));
    static const vxl_comifinfo lower = ifinfo("icasetest", {}, guid(71));
    static const vxl_comifinfo *const ifs[] = {&upper, &lower, nullptr};
    static const vxl_comcomponentinfo cu = {"CaseComp", guid(72)}, cl = {"casecomp", guid(73)};
    static const vxl_comcomponentinfo *const comps[] = {&cu, &cl, nullptr};
    static const vxl_comlibinfo lib = {"case.dll", {}};
    Registration reg(&lib, comps, ifs);

    vxl_comifinfo out = byName("icasetest");
    EXPECT_EQ(lower.name, out.name);
    EXPECT_TRUE(same(GUID_NULL, out.iid_com));
    EXPECT_TRUE(same(guid(71), out.iid_comS));
    for (const char *other : {"ICASETEST", "ICaseTes", "ICaseTestX"})
        byName(other, 1);
    EXPECT_EQ(&cl, vxl_com_findcomponent("casecomp"));
    EXPECT_EQ(&cu, vxl_com_findcomponent("CaseComp"));
    EXPECT_EQ(nullptr, vxl_com_findcomponent("CASECOMP"));
}

// ---- registrations ---------------------------------------------------------------

TEST(ComLookups, RegisterTwiceUnregisterOnceKeepsOne)
{
    static const vxl_comifinfo a = ifinfo("ITwiceRegistered", guid(80));
    static const vxl_comifinfo *const ifs[] = {&a, nullptr};
    static const vxl_comcomponentinfo c = {"TwiceComp", guid(81)};
    static const vxl_comcomponentinfo *const comps[] = {&c, nullptr};
    static const vxl_comlibinfo lib = {"twice.dll", {}};
    static const vxl_comlibinfo otherLib = {"twice.dll", {}};
    LogTail tail;
    Registration first(&lib, comps, ifs);
    {
        Registration second(&lib, comps, ifs);
        EXPECT_EQ(1, vxl_com_unregister(&otherLib, comps, ifs));
    }
    byName("ITwiceRegistered");
    EXPECT_EQ(&c, vxl_com_findcomponentbyclsid(guid(81)));
    EXPECT_EQ(0, vxl_com_unregister(&lib, comps, ifs));
    first.forget();
    byName("ITwiceRegistered", 1);
    EXPECT_EQ(nullptr, vxl_com_findcomponentbyclsid(guid(81)));
    EXPECT_EQ(nullptr, vxl_com_findcomponent("TwiceComp"));
    EXPECT_EQ("vxl_com_register\nvxl_com_register\n"
              "vxl_com_unregister\nvxl_com_unregister: done2\n"
              "vxl_com_unregister\nvxl_com_unregister: done1\n"
              "vxl_com_unregister\nvxl_com_unregister: done1\n",
              tail.text());
}

TEST(ComLookups, RecordHoldsThePointersAndOneEmptyCacheSlotPerEntry)
{
    static const vxl_comifinfo a = ifinfo("ICacheA"), b = ifinfo("ICacheB"), c = ifinfo("ICacheC");
    static const vxl_comifinfo *const ifs[] = {&a, &b, &c, nullptr};
    static const vxl_comlibinfo lib = {"cache.dll", {}};
    vxl_comregistration *before = vxl_com_registrations();
    {
        // Empty and null arrays make registrations too, which find nothing.
        Registration empty(&lib, kNoComps, kNoIfs);
        Registration null(nullptr, nullptr, nullptr);
        byIid(GUID_NULL, nullptr, 1);
        EXPECT_EQ(nullptr, vxl_com_findcomponentbyclsid(GUID_NULL));
        vxl_comlockguard guard(VXL_REGISTRATION_LOCK);
        vxl_comregistration *head = vxl_com_registrations();
        EXPECT_EQ(nullptr, head->interfaces);
        EXPECT_EQ(nullptr, head->typeinfos); // no entries, no cache
        EXPECT_EQ(kNoIfs, head->next->interfaces);
        EXPECT_EQ(nullptr, head->next->typeinfos);
        EXPECT_EQ(before, head->next->next);
    }
    ASSERT_EQ(0, vxl_com_register(&lib, kNoComps, ifs));

    vxl_com_lock(VXL_REGISTRATION_LOCK);
    vxl_comregistration *reg = vxl_com_registrations();
    EXPECT_EQ(before, reg->next); // the new record is the head
    EXPECT_EQ(&lib, reg->library);
    EXPECT_EQ(kNoComps, reg->components);
    EXPECT_EQ(ifs, reg->interfaces);
    EXPECT_EQ(nullptr, reg->typelib);
    ASSERT_NE(nullptr, reg->typeinfos);
    ASSERT_NE(nullptr, reg->proxytypeinfos);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, reg->typeinfos[i]);
        EXPECT_EQ(nullptr, reg->proxytypeinfos[i]);
    }
    // What type information would load on demand is released at unregistration.
    FakeRef s0{kFakeVtbl, 0}, s2{kFakeVtbl, 0}, p1{kFakeVtbl, 0}, lib0{kFakeVtbl, 0};
    reg->typeinfos[0] = reinterpret_cast<ITypeInfo *>(&s0);
    reg->typeinfos[2] = reinterpret_cast<ITypeInfo *>(&s2);
    reg->proxytypeinfos[1] = reinterpret_cast<ITypeInfo *>(&p1);
    reg->typelib = reinterpret_cast<ITypeLib *>(&lib0);
    vxl_com_unlock(VXL_REGISTRATION_LOCK);

    EXPECT_EQ(0, vxl_com_unregister(&lib, kNoComps, ifs));
    EXPECT_EQ(1, s0.releases);
    EXPECT_EQ(1, s2.releases);
    EXPECT_EQ(1, p1.releases);
    EXPECT_EQ(1, lib0.releases);
    EXPECT_EQ(before, vxl_com_registrations());
}

// ---- the COM lock set -------------------------------------------------------------

VXL_CHILD(com_lock_race)
{
    vxltest::runTogether(16, [](int t) {
        vxl_comlock lock = static_cast<vxl_comlock>(t % VXL_COM_LOCK_COUNT);
        vxl_com_lock(lock);
        vxl_com_lock(lock); // re-entrant for the holder
        vxl_com_unlock(lock);
        vxl_com_unlock(lock);
    });
    return 0;
}

TEST(ComLocks, FirstUseRaceCreatesTheSetOnce)
{
    for (int run = 0; run < 2; ++run) {
        std::string log = vxltest::scratchPath("comlookups_race.log");
        ASSERT_EQ(0, vxltest::runChild("com_lock_race", log.c_str()));
        EXPECT_EQ("new lock init in com\n", vxltest::readLog(log));
    }
}

TEST(ComLocks, EachLockExcludesOtherThreadsOnlyFromItself)
{
    for (int held = 0; held < VXL_COM_LOCK_COUNT; ++held) {
        SCOPED_TRACE(held);
        vxl_com_lock(static_cast<vxl_comlock>(held));
        std::atomic<int> others{0};
        std::atomic<bool> gotHeld{false};
        std::thread t([&] {
            for (int l = 0; l < VXL_COM_LOCK_COUNT; ++l) {
                if (l == held)
                    continue;
                vxl_com_lock(static_cast<vxl_comlock>(l));
                vxl_com_unlock(static_cast<vxl_comlock>(l));
                others.fetch_add(1);
            }
            vxl_com_lock(static_cast<vxl_comlock>(held));
            gotHeld = true;
            vxl_com_unlock(static_cast<vxl_comlock>(held));
        });
        for (int i = 0; i < 200 && others.load() < VXL_COM_LOCK_COUNT - 1; ++i)
            Sleep(5);
        Sleep(50);
        EXPECT_EQ(VXL_COM_LOCK_COUNT - 1, others.load());
        EXPECT_FALSE(gotHeld.load());
        vxl_com_unlock(static_cast<vxl_comlock>(held));
        t.join();
        EXPECT_TRUE(gotHeld.load());
    }
}
