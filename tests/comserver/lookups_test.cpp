// White box: the lookups in the COM registrations (merging of interface
// records, walk order, GUID_NULL as a key, exact names) and the first use
// of the COM lock set.
#include "comserver/comserver.h"
#include "harness.h"

#include <gtest/gtest.h>

#include <cstring>

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

// One vxl_com_register for the life of a scope.
struct Registration {
    const vxl_comlibinfo *lib;
    const vxl_comcomponentinfo *const *comps;
    const vxl_comifinfo *const *ifs;
    Registration(const vxl_comlibinfo *l, const vxl_comcomponentinfo *const *c, const vxl_comifinfo *const *i)
        : lib(l), comps(c), ifs(i)
    {
        EXPECT_EQ(0, vxl_com_register(lib, comps, ifs));
    }
    ~Registration() { EXPECT_EQ(0, vxl_com_unregister(lib, comps, ifs)); }
};

const vxl_comcomponentinfo *const kNoComps[] = {nullptr};
const vxl_comifinfo *const kNoIfs[] = {nullptr};
const vxl_comlibinfo kLib = {"lookups.dll", {}};

} // namespace

TEST(ComLookups, MergingByNameAndWalkOrderByIid)
{
    static const char oldName[] = "IMergeTest", newName[] = "IMergeTest"; // equal text, two pointers
    // In both: iid_com (the older value wins); iid_comS only in the older,
    // iid_comP and iid_CP only in the newer one.
    static const vxl_comifinfo mergeOld = {oldName, guid(1), guid(2), {}, {}, {}, wrapA, nullptr, nullptr, dispA};
    static const vxl_comifinfo mergeNew = {newName, guid(3), {}, guid(4), guid(5), {}, wrapB, wrapC, nullptr, dispB};
    // Twice in one registration: the later entry wins.
    static const vxl_comifinfo twice1 = {"ITwiceInOne", guid(10), {}, {}, {}, {}, nullptr, nullptr, wrapA, nullptr};
    static const vxl_comifinfo twice2 = ifinfo("ITwiceInOne", guid(11));
    // Two names claim guid(20): by IID the newer registration's entry answers, unmerged.
    static const vxl_comifinfo oldClaim = {"IOldClaim", guid(20), {}, {}, {}, {}, wrapA, nullptr, nullptr, nullptr};
    static const vxl_comifinfo newClaim = {"INewClaim", {}, guid(20), {}, {}, {}, nullptr, wrapB, nullptr, nullptr};
    // By IID the fields compare com, then comS, then comP; names exactly.
    static const vxl_comifinfo orderA = ifinfo("IOrderA", guid(30), guid(30), guid(30));
    static const vxl_comifinfo orderB = ifinfo("IOrderB", {}, guid(31), guid(31));
    static const vxl_comifinfo lower = ifinfo("iordera", {}, guid(32));
    static const vxl_comifinfo *const olderIfs[] = {&mergeOld, &oldClaim, &orderA, &orderB, &lower, nullptr};
    static const vxl_comifinfo *const newerIfs[] = {&mergeNew, &twice1, &twice2, &newClaim, nullptr};
    Registration first(&kLib, kNoComps, olderIfs), second(&kLib, kNoComps, newerIfs);

    // The name of the last entry walked (the oldest); clsid_CP, which nobody
    // set, cleared rather than left over. By IID: the merged record too.
    const vxl_comifinfo merged = {oldName, guid(1), guid(2), guid(4), guid(5), {}, wrapA, wrapC, nullptr, dispA};
    vxl_comifinfo out = byName("IMergeTest");
    EXPECT_EQ(0, memcmp(&merged, &out, sizeof out));
    out = byIid(guid(4), "comP");
    EXPECT_EQ(0, memcmp(&merged, &out, sizeof out));
    out = byName("ITwiceInOne");
    EXPECT_EQ(twice2.name, out.name);
    EXPECT_TRUE(same(guid(11), out.iid_com));
    EXPECT_EQ(wrapA, out.wrap_comP);
    out = byIid(guid(20), "comS");
    EXPECT_STREQ("INewClaim", out.name);
    EXPECT_EQ(nullptr, out.wrap_com) << "IOldClaim's fields are not merged in";
    EXPECT_STREQ("IOrderA", byIid(guid(30), "com").name);
    EXPECT_STREQ("IOrderB", byIid(guid(31), "comS").name);
    out = byName("iordera");
    EXPECT_TRUE(same(GUID_NULL, out.iid_com)) << "names differing in case are two interfaces";
    for (const char *other : {"IORDERA", "IOrder", "IOrderAX", "IUnknownToUs"})
        byName(other, 1);
}

TEST(ComLookups, GuidNullAndUnknownKeys)
{
    static const vxl_comifinfo full = ifinfo("IAllSet", guid(50), guid(51), guid(52));
    static const vxl_comifinfo partial = ifinfo("INoComS", guid(53), {}, guid(54));
    static const vxl_comifinfo *const ifs[] = {&full, &partial, nullptr};
    static const vxl_comcomponentinfo com = {"ComClass", guid(55)}, plain = {"KitOnly", GUID_NULL};
    static const vxl_comcomponentinfo cased = {"comclass", guid(56)};
    static const vxl_comcomponentinfo *const comps[] = {&com, &plain, &cased, nullptr};
    Registration reg(&kLib, comps, ifs);
    EXPECT_STREQ("INoComS", byIid(GUID_NULL, "comS").name) << "GUID_NULL equals the first unset field";
    EXPECT_EQ(&plain, vxl_com_findcomponentbyclsid(GUID_NULL));
    EXPECT_EQ(&com, vxl_com_findcomponentbyclsid(guid(55)));
    EXPECT_EQ(&cased, vxl_com_findcomponent("comclass"));
    static const vxl_comcomponentinfo newer = {"ComClass", guid(55)};
    static const vxl_comcomponentinfo *const newerComps[] = {&newer, nullptr};
    {
        Registration second(&kLib, newerComps, kNoIfs);
        EXPECT_EQ(&newer, vxl_com_findcomponentbyclsid(guid(55))) << "newer registrations answer first";
        EXPECT_EQ(&newer, vxl_com_findcomponent("ComClass"));
    }
    EXPECT_EQ(&com, vxl_com_findcomponent("ComClass"));
    vxltest::LogTail tail;
    byName(nullptr, 1);
    byIid(guid(57), nullptr, 1);
    const char *wtype = nullptr;
    EXPECT_EQ(1, vxl_com_getifinfo("IAllSet", nullptr));
    EXPECT_EQ(1, vxl_com_getifinfobyiid(guid(50), &wtype, nullptr));
    vxl_comifinfo out;
    EXPECT_EQ(0, vxl_com_getifinfobyiid(guid(51), nullptr, &out)) << "the type is optional";
    EXPECT_EQ(nullptr, vxl_com_findcomponent(nullptr));
    EXPECT_EQ(nullptr, vxl_com_findcomponent("COMCLASS"));
    EXPECT_EQ(nullptr, vxl_com_findcomponentbyclsid(guid(59)));
    EXPECT_EQ("", tail.text()) << "lookups trace nothing";
}

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
