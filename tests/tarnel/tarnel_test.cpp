// The table library on its own: duplicate keys kept and deleted one at a
// time, cursors over many rows per key and deletes while a cursor is open,
// indexes made after their rows, string keys compared by text, and handles
// refused when they are of the wrong kind or already closed.
#include "tarnel.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int64_t kDead = 0xdeadbeef;
constexpr int64_t kGuard = 0x6775617264776f72; // after the last column
const int32_t kTableOptions[] = {TRN_TABLE_OPTION0, TRN_TABLE_OPTION1};
const int64_t kColumns[] = {TRN_COL_POINTER, TRN_COL_POINTER, TRN_COL_POINTER, TRN_COL_POINTER,
                            TRN_COL_STRING,  TRN_COL_STRING,  TRN_COL_END};
const int32_t kMulti[] = {TRN_INDEX_HASH, TRN_INDEX_MULTI}, kUnique[] = {TRN_INDEX_HASH, TRN_INDEX_UNIQUE};
enum { PIUNK, PCOMIF, PDEF, PIF, IFNAME, WTYPE, NCOLS };

// A wrapper-shaped record with a guard word behind it, so a write past the
// six columns shows; columns not given hold kDead.
struct Rec {
    int64_t c[NCOLS + 1] = {kDead, kDead, kDead, kDead, kDead, kDead, kGuard};
    Rec() = default;
    Rec(int col, int64_t v) { c[col] = v; }
    Rec(int64_t piunk, int64_t pcomif, int64_t pdef, int64_t pif, const char *name, const char *type)
        : c{piunk, pcomif, pdef, pif, reinterpret_cast<intptr_t>(name), reinterpret_cast<intptr_t>(type), kGuard}
    {
    }
    int64_t *data() { return c; }
    bool operator==(const Rec &o) const { return memcmp(c, o.c, sizeof c) == 0; }
};

void *index(void *table, const int32_t *options, std::vector<int32_t> keys)
{
    keys.push_back(TRN_KEY_END);
    return trn_createindex(table, options, keys.data());
}

// All rows a cursor yields, read into the record that also served as bounds.
std::vector<Rec> drain(void *idx, Rec key)
{
    std::vector<Rec> out;
    void *cursor = trn_opencursor(idx, key.data(), key.data());
    EXPECT_NE(cursor, nullptr);
    while (cursor && trn_fetch(cursor, key.data()) == TRN_OK) {
        EXPECT_EQ(key.c[NCOLS], kGuard);
        out.push_back(key);
    }
    EXPECT_EQ(trn_fetch(cursor, key.data()), TRN_ENOTFOUND) << "a finished cursor stays finished";
    EXPECT_EQ(trn_closecursor(cursor), TRN_OK);
    return out;
}

bool has(void *idx, int col, int64_t v)
{
    Rec r(col, v);
    return trn_select(idx, r.data()) == TRN_OK;
}

} // namespace

TEST(Tarnel, DuplicateKeysAreKeptAndDeletedOneAtATime)
{
    void *table = trn_createtable(kTableOptions, kColumns);
    void *byName = index(table, kUnique, {PIUNK, IFNAME, WTYPE}), *byPif = index(table, kUnique, {PIF});
    std::set<int64_t> live; // PIF of the rows that must be there
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(trn_insert(table, Rec(0x77, 0x500 + i, 0x88, 0x900 + i, "IDup", "comP").data()), TRN_OK);
        live.insert(0x900 + i);
    }
    Rec key(0x77, kDead, kDead, kDead, "IDup", "comP");
    EXPECT_EQ(drain(byName, key).size(), 5u);
    // A record found through another index names one of the rows sharing its
    // key; select-then-delete through the shared key removes exactly that row.
    for (int64_t p : {0x902, 0x900, 0x904}) {
        Rec r(PIF, p);
        ASSERT_EQ(trn_select(byPif, r.data()), TRN_OK);
        ASSERT_EQ(trn_delete(byName, r.data()), TRN_OK);
        live.erase(p);
        for (int64_t q = 0x900; q < 0x905; ++q)
            EXPECT_EQ(live.count(q) == 1, has(byPif, PIF, q)) << std::hex << q;
    }
    Rec r = key;
    ASSERT_EQ(trn_select(byName, r.data()), TRN_OK);
    ASSERT_EQ(trn_delete(byName, r.data()), TRN_OK);
    EXPECT_FALSE(has(byPif, PIF, r.c[PIF])) << "the row select handed out";
    ASSERT_EQ(trn_delete(byName, key.data()), TRN_OK);
    EXPECT_EQ(trn_delete(byName, key.data()), TRN_ENOTFOUND);
    EXPECT_EQ(trn_rowcount(table), 0);
}

TEST(Tarnel, CursorsYieldEveryMatchingRowOnceAndSkipRowsDeletedMeanwhile)
{
    void *table = trn_createtable(kTableOptions, kColumns);
    void *byDef = index(table, kMulti, {PDEF});
    for (int k = 1; k <= 20; ++k) // key k gets k rows; the buckets double as the rows grow
        for (int round = 0; round < k; ++round)
            ASSERT_EQ(trn_insert(table, Rec(1, 2, 0x4000 + k * 8, 0x10000 * k + round, "I", "com").data()), TRN_OK);
    void *byPif = index(table, kUnique, {PIF}); // made after the rows: it finds them too
    for (int k = 1; k <= 20; ++k)
        EXPECT_TRUE(has(byPif, PIF, 0x10000 * k + k - 1)) << k;
    for (int k = 1; k <= 20; ++k) {
        std::set<int64_t> got;
        for (const Rec &r : drain(byDef, Rec(PDEF, 0x4000 + k * 8)))
            got.insert(r.c[PIF]);
        EXPECT_EQ(got.size(), size_t(k)) << k;
        EXPECT_TRUE(got.empty() || (*got.begin() == 0x10000 * k && *got.rbegin() == 0x10000 * k + k - 1)) << k;
    }
    Rec none(PDEF, 0x4000);
    EXPECT_TRUE(drain(byDef, none).empty());
    EXPECT_TRUE(none == Rec(PDEF, 0x4000)) << "an empty cursor writes nothing";

    // Rows deleted after the cursor opened are skipped, even when their
    // slots already hold rows inserted later, which are not seen.
    Rec key(PDEF, 0x4000 + 6 * 8);
    void *cursor = trn_opencursor(byDef, key.data(), key.data());
    ASSERT_EQ(trn_fetch(cursor, key.data()), TRN_OK);
    int64_t fetched = key.c[PIF];
    std::set<int64_t> removed = {fetched, fetched == 0x60000 ? 0x60001 : 0x60000, fetched == 0x60005 ? 0x60004 : 0x60005};
    for (int64_t p : removed)
        ASSERT_EQ(trn_delete(byPif, Rec(PIF, p).data()), TRN_OK);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(trn_insert(table, Rec(1, 2, 0x4000 + 6 * 8, 0x70000 + i, "I", "com").data()), TRN_OK);
    int seen = 1;
    for (; trn_fetch(cursor, key.data()) == TRN_OK; ++seen)
        EXPECT_TRUE(!removed.count(key.c[PIF]) && key.c[PIF] < 0x70000) << std::hex << key.c[PIF];
    EXPECT_EQ(seen, 4); // 6 rows, 2 removed ahead of the fetched one
    EXPECT_EQ(trn_closecursor(cursor), TRN_OK);
}

TEST(Tarnel, StringKeysCompareByText)
{
    void *table = trn_createtable(kTableOptions, kColumns);
    void *byName = index(table, kUnique, {PIUNK, IFNAME, WTYPE});
    char stored[] = "IFoo", storedType[] = "comS";
    ASSERT_EQ(trn_insert(table, Rec(0x42, 1, 2, 3, stored, storedType).data()), TRN_OK);
    ASSERT_EQ(trn_insert(table, Rec(0x42, 4, 5, 6, nullptr, storedType).data()), TRN_OK);
    const struct {
        const char *name, *type;
        int64_t found; // pif of the row found, 0 for none
    } cases[] = {{"IFoo", "comS", 3}, {"ifoo", "comS", 0}, {"IFo", "comS", 0},    {"IFooo", "comS", 0},
                 {"IFoo", "coms", 0}, {"", "comS", 0},     {nullptr, "comS", 6}, {"IFoo", nullptr, 0}};
    for (const auto &c : cases) {
        // Copies, so only the text can match, never the pointer.
        std::string name = c.name ? c.name : "", type = c.type ? c.type : "";
        Rec k(0x42, kDead, kDead, kDead, c.name ? name.c_str() : nullptr, c.type ? type.c_str() : nullptr), before = k;
        EXPECT_EQ(c.found ? TRN_OK : TRN_ENOTFOUND, trn_select(byName, k.data())) << name << "/" << type;
        EXPECT_EQ(c.found ? c.found : before.c[PIF], k.c[PIF]);
        if (c.found) {
            EXPECT_EQ(k.c[WTYPE], reinterpret_cast<intptr_t>(storedType)) << "the row's own string comes back";
        }
    }
    EXPECT_EQ(trn_select(byName, Rec(0x43, kDead, kDead, kDead, "IFoo", "comS").data()), TRN_ENOTFOUND);
}

TEST(Tarnel, HandlesOfTheWrongKindOrClosedAreRefused)
{
    EXPECT_EQ(trn_createtable(std::vector<int32_t>{31, 32}.data(), kColumns), nullptr);
    EXPECT_EQ(trn_createtable(kTableOptions, std::vector<int64_t>{TRN_COL_END}.data()), nullptr);
    void *table = trn_createtable(kTableOptions, kColumns), *other = trn_createtable(kTableOptions, kColumns);
    void *idx = index(table, kMulti, {PDEF}), *otherIdx = index(other, kMulti, {PDEF});
    EXPECT_EQ(index(table, kMulti, {PDEF, PDEF}), nullptr);
    EXPECT_EQ(index(idx, kMulti, {PDEF}), nullptr) << "an index is not a table";
    Rec r(1, 2, 0xabc0, 3, "I", "com");
    EXPECT_EQ(trn_insert(idx, r.data()), TRN_EBADARG);
    ASSERT_EQ(trn_insert(table, r.data()), TRN_OK);
    ASSERT_EQ(trn_insert(other, r.data()), TRN_OK);
    EXPECT_EQ(trn_select(table, r.data()), TRN_EBADARG) << "a table is not an index";
    EXPECT_EQ(trn_rowcount(idx), -1);
    Rec high = r;
    high.c[PDEF] = 0xabc8;
    EXPECT_EQ(trn_opencursor(idx, r.data(), high.data()), nullptr) << "one key, no ranges";
    void *closed = trn_opencursor(idx, r.data(), r.data());
    EXPECT_EQ(trn_fetch(idx, r.data()), TRN_EBADARG);
    ASSERT_EQ(trn_closecursor(closed), TRN_OK);
    // A cursor of another table, opened now, may take the same memory.
    void *live = trn_opencursor(otherIdx, r.data(), r.data());
    EXPECT_EQ(trn_fetch(closed, r.data()), TRN_EBADARG);
    EXPECT_EQ(trn_closecursor(closed), TRN_EBADARG);
    EXPECT_EQ(trn_fetch(live, r.data()), TRN_OK) << "the live cursor is untouched";
    EXPECT_EQ(trn_closecursor(live), TRN_OK);
}
