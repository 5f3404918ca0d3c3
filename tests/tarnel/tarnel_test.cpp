// The table library on its own: large tables, duplicate keys, cursors over
// several rows per key, string keys compared by text, deletes while a cursor
// is open, refused arguments, and the wrapper table exactly as the runtime
// builds and uses it.
#include "tarnel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int64_t kDead = 0xdeadbeef;
constexpr int64_t kGuard = 0x6775617264776f72; // after the last column

const int32_t kTableOptions[] = {32, 32, 0, 0};
const int64_t kWrapperColumns[] = {5, 5, 5, 5, 6, 6, 100};
const int32_t kMulti[] = {1, 0};
const int32_t kUnique[] = {1, 1};

enum { PIUNK, PCOMIF, PDEF, PIF, IFNAME, WTYPE, NCOLS };

// A wrapper-shaped record with one guard word behind it, so a write past
// the six columns shows.
struct Rec {
    int64_t c[NCOLS + 1];
    Rec() { fill(kDead); }
    void fill(int64_t v)
    {
        for (int i = 0; i < NCOLS; ++i)
            c[i] = v;
        c[NCOLS] = kGuard;
    }
    int64_t *data() { return c; }
};

int64_t P(uintptr_t v) { return static_cast<int64_t>(v); }
int64_t S(const char *s) { return static_cast<int64_t>(reinterpret_cast<intptr_t>(s)); }

Rec row(int64_t piunk, int64_t pcomif, int64_t pdef, int64_t pif, const char *ifname, const char *wtype)
{
    Rec r;
    const int64_t columns[NCOLS] = {piunk, pcomif, pdef, pif, S(ifname), S(wtype)};
    std::copy(columns, columns + NCOLS, r.c);
    return r;
}

void *wrapperTable() { return trn_createtable(kTableOptions, kWrapperColumns); }

void *index(void *table, const int32_t *options, std::vector<int32_t> keys)
{
    keys.push_back(-1);
    return trn_createindex(table, options, keys.data());
}

// All rows a cursor yields, read into the record that also served as bounds.
std::vector<Rec> drain(void *idx, Rec &key)
{
    std::vector<Rec> out;
    void *cursor = trn_opencursor(idx, key.data(), key.data());
    EXPECT_NE(cursor, nullptr);
    if (!cursor)
        return out;
    while (trn_fetch(cursor, key.data()) == 0) {
        EXPECT_EQ(key.c[NCOLS], kGuard);
        out.push_back(key);
    }
    EXPECT_NE(trn_fetch(cursor, key.data()), 0) << "a finished cursor stays finished";
    EXPECT_EQ(trn_closecursor(cursor), 0);
    return out;
}

bool sameRow(const Rec &a, const Rec &b) { return std::memcmp(a.c, b.c, sizeof a.c) == 0; }

// A record with one column set, every other one kDead.
Rec only(int col, int64_t v)
{
    Rec r;
    r.c[col] = v;
    return r;
}

// Whether idx finds a row whose column col holds v.
bool has(void *idx, int col, int64_t v)
{
    Rec r = only(col, v);
    return trn_select(idx, r.data()) == 0;
}

// ---- many rows ---------------------------------------------------------------

TEST(Tarnel, HundredThousandRowsInsertSelectDelete)
{
    constexpr int kRows = 100000;
    static const char *names[] = {"IAlpha", "IBeta", "IGamma"};
    const char *com = "com", *comS = "comS";
    void *table = wrapperTable();
    ASSERT_NE(table, nullptr);
    void *byPif = index(table, kUnique, {PIF});
    void *byName = index(table, kMulti, {IFNAME, PIUNK});
    ASSERT_NE(byPif, nullptr);
    ASSERT_NE(byName, nullptr);
    // Keys shaped like heap pointers: only the high bits vary much.
    auto pif = [](int i) { return P(0x7ff600000000ull + uintptr_t(i) * 32); };
    auto rowOf = [&](int i, const char *wtype) { return row(P(i), P(i + 1), P(i + 2), pif(i), names[i % 3], wtype); };
    auto nameKey = [&](int i) { return row(P(i), kDead, kDead, kDead, names[i % 3], "x"); };

    for (int i = 0; i < kRows; ++i)
        ASSERT_EQ(trn_insert(table, rowOf(i, com).data()), 0) << i;
    EXPECT_EQ(trn_rowcount(table), kRows);

    // An index made after the rows exist finds them too.
    void *byPcomif = index(table, kUnique, {PCOMIF});
    ASSERT_NE(byPcomif, nullptr);
    for (int i = 0; i < kRows; ++i) {
        Rec r = only(PIF, pif(i)), s = only(PCOMIF, P(i + 1));
        ASSERT_EQ(trn_select(byPif, r.data()), 0) << i;
        ASSERT_EQ(trn_select(byPcomif, s.data()), 0) << i;
        ASSERT_TRUE(sameRow(r, rowOf(i, com)) && sameRow(s, rowOf(i, com))) << i;
    }
    Rec missing = only(PIF, pif(kRows));
    EXPECT_NE(trn_select(byPif, missing.data()), 0);
    EXPECT_TRUE(sameRow(missing, only(PIF, pif(kRows)))) << "a failed select leaves the record alone";

    // Delete every row through its key only, odd ones first.
    for (int pass = 1; pass >= 0; --pass)
        for (int i = pass; i < kRows; i += 2) {
            Rec r = only(PIF, pif(i));
            ASSERT_EQ(trn_delete(byPif, r.data()), 0) << i;
            ASSERT_NE(trn_delete(byPif, r.data()), 0) << i;
        }
    EXPECT_EQ(trn_rowcount(table), 0);
    for (int i = 0; i < kRows; i += 997) {
        EXPECT_FALSE(has(byPif, PIF, pif(i)));
        EXPECT_FALSE(has(byPcomif, PCOMIF, P(i + 1)));
        Rec k = nameKey(i);
        EXPECT_TRUE(drain(byName, k).empty());
    }

    // Freed slots are used again and every index stays consistent.
    for (int i = 0; i < kRows; ++i)
        ASSERT_EQ(trn_insert(table, rowOf(i, comS).data()), 0);
    EXPECT_EQ(trn_rowcount(table), kRows);
    for (int i = 0; i < kRows; i += 101) {
        Rec k = nameKey(i);
        std::vector<Rec> got = drain(byName, k);
        ASSERT_EQ(got.size(), 1u) << i;
        EXPECT_TRUE(sameRow(got[0], rowOf(i, comS))) << i;
    }
}

// ---- duplicate keys --------------------------------------------------------

TEST(Tarnel, DuplicateKeysOfAUniqueIndexAreKeptAndDeletedOneAtATime)
{
    void *table = wrapperTable();
    void *byName = index(table, kUnique, {PIUNK, IFNAME, WTYPE});
    void *byPif = index(table, kUnique, {PIF});
    ASSERT_NE(byName, nullptr);
    ASSERT_NE(byPif, nullptr);
    std::set<int64_t> live; // PIF of the rows that must be there
    auto fill = [&] {
        for (int i = 0; i < 5; ++i) {
            Rec r = row(0x77, 0x500 + i, 0x88, 0x900 + i, "IDup", "comP");
            ASSERT_EQ(trn_insert(table, r.data()), 0) << "a row with an existing key is kept";
            live.insert(r.c[PIF]);
        }
    };
    // Seen through the other index: exactly the live rows are left.
    auto expectLive = [&] {
        EXPECT_EQ(trn_rowcount(table), int64_t(live.size()));
        for (int64_t p = 0x900; p < 0x905; ++p)
            EXPECT_EQ(live.count(p) == 1, has(byPif, PIF, p)) << std::hex << p;
    };
    auto key = [] { return row(0x77, kDead, kDead, kDead, "IDup", "comP"); };

    fill();
    Rec k = key();
    EXPECT_EQ(drain(byName, k).size(), 5u);
    // Delete by key alone removes one row, whichever it is.
    k = key();
    ASSERT_EQ(trn_delete(byName, k.data()), 0);
    for (auto it = live.begin(); it != live.end();)
        it = has(byPif, PIF, *it) ? std::next(it) : live.erase(it);
    EXPECT_EQ(live.size(), 4u);
    expectLive();
    // Select then delete with the record select filled: the selected row goes.
    while (!live.empty()) {
        Rec r = key();
        ASSERT_EQ(trn_select(byName, r.data()), 0);
        ASSERT_EQ(live.count(r.c[PIF]), 1u);
        ASSERT_EQ(trn_delete(byName, r.data()), 0);
        live.erase(r.c[PIF]);
        expectLive();
    }
    k = key();
    EXPECT_NE(trn_delete(byName, k.data()), 0);

    // A record found through another index names one particular row among
    // those sharing its key; deleting through the shared key removes that one.
    fill();
    for (int64_t p : {0x902, 0x900, 0x904, 0x901, 0x903}) {
        Rec r = only(PIF, p);
        ASSERT_EQ(trn_select(byPif, r.data()), 0);
        ASSERT_EQ(trn_delete(byName, r.data()), 0);
        live.erase(p);
        expectLive();
    }
}

// ---- cursors ---------------------------------------------------------------

TEST(Tarnel, NonUniqueCursorYieldsEveryMatchingRowOnce)
{
    void *table = wrapperTable();
    void *byDef = index(table, kMulti, {PDEF});
    ASSERT_NE(byDef, nullptr);
    // Key k gets k rows, inserted interleaved with the other keys.
    constexpr int kKeys = 40;
    std::map<int64_t, std::multiset<int64_t>> expected;
    int serial = 0;
    for (int round = 0; round < kKeys; ++round)
        for (int k = 1; k <= kKeys; ++k)
            if (round < k) {
                Rec r = row(0x10, 0x20000 + serial, 0x4000 + k * 8, 0x60000 + serial, "I", "com");
                ASSERT_EQ(trn_insert(table, r.data()), 0);
                expected[r.c[PDEF]].insert(r.c[PIF]);
                ++serial;
            }
    for (auto &e : expected) {
        Rec key = only(PDEF, e.first);
        std::multiset<int64_t> got;
        for (const Rec &r : drain(byDef, key)) {
            EXPECT_EQ(r.c[PDEF], e.first);
            got.insert(r.c[PIF]);
        }
        EXPECT_EQ(got, e.second) << "key " << e.first;
        EXPECT_EQ(std::set<int64_t>(got.begin(), got.end()).size(), got.size()) << "no row twice";
    }
    Rec none = only(PDEF, 0x4000);
    EXPECT_TRUE(drain(byDef, none).empty());
    for (int i = 0; i < NCOLS; ++i)
        EXPECT_EQ(none.c[i], i == PDEF ? 0x4000 : kDead) << "an empty cursor writes nothing";
}

TEST(Tarnel, DeletesWhileCursorIsOpenAreSkipped)
{
    void *table = wrapperTable();
    void *byDef = index(table, kMulti, {PDEF});
    void *byPif = index(table, kUnique, {PIF});
    for (int i = 0; i < 6; ++i) {
        Rec r = row(1, 2, 0xabc0, 0x100 + i, "I", "com");
        ASSERT_EQ(trn_insert(table, r.data()), 0);
    }
    Rec key = only(PDEF, 0xabc0);
    void *cursor = trn_opencursor(byDef, key.data(), key.data());
    ASSERT_NE(cursor, nullptr);
    std::set<int64_t> seen;
    ASSERT_EQ(trn_fetch(cursor, key.data()), 0);
    seen.insert(key.c[PIF]);
    // Remove two rows not yet fetched and the one just fetched, then insert
    // rows of the same key, which take the freed slots.
    std::set<int64_t> removed;
    for (int i = 0; i < 6 && removed.size() < 2; ++i)
        if (!seen.count(0x100 + i))
            removed.insert(0x100 + i);
    removed.insert(key.c[PIF]);
    for (int64_t p : removed) {
        Rec d = only(PIF, p);
        ASSERT_EQ(trn_delete(byPif, d.data()), 0);
    }
    for (int i = 0; i < 3; ++i) {
        Rec r = row(1, 2, 0xabc0, 0x200 + i, "I", "com");
        ASSERT_EQ(trn_insert(table, r.data()), 0);
    }
    while (trn_fetch(cursor, key.data()) == 0) {
        EXPECT_EQ(seen.count(key.c[PIF]), 0u) << "no row twice";
        EXPECT_EQ(removed.count(key.c[PIF]), 0u) << "deleted rows are skipped";
        EXPECT_LT(key.c[PIF], 0x200) << "rows inserted after opening are not seen";
        seen.insert(key.c[PIF]);
    }
    EXPECT_EQ(seen.size(), 4u); // 6 rows, 1 fetched before, 2 removed ahead of it
    EXPECT_EQ(trn_closecursor(cursor), 0);

    // A table emptied under an open cursor: fetch finds nothing.
    key.fill(kDead);
    key.c[PDEF] = 0xabc0;
    cursor = trn_opencursor(byDef, key.data(), key.data());
    ASSERT_NE(cursor, nullptr);
    Rec d = only(PDEF, 0xabc0);
    while (trn_delete(byDef, d.data()) == 0) {
    }
    EXPECT_EQ(trn_rowcount(table), 0);
    EXPECT_NE(trn_fetch(cursor, key.data()), 0);
    EXPECT_EQ(key.c[PIF], kDead);
    EXPECT_EQ(trn_closecursor(cursor), 0);
}

// ---- string keys -----------------------------------------------------------

TEST(Tarnel, StringKeysCompareByText)
{
    void *table = wrapperTable();
    void *byName = index(table, kUnique, {PIUNK, IFNAME, WTYPE});
    char stored[] = "IFoo";
    char storedType[] = "comS";
    Rec r = row(0x42, 1, 2, 3, stored, storedType);
    ASSERT_EQ(trn_insert(table, r.data()), 0);
    Rec nullName = row(0x42, 4, 5, 6, nullptr, storedType);
    ASSERT_EQ(trn_insert(table, nullName.data()), 0);

    struct Case {
        const char *name, *type;
        int64_t found; // pif of the row found, 0 for none
    } cases[] = {
        {"IFoo", "comS", 3},  {"ifoo", "comS", 0},  {"IFOO", "comS", 0},    {"IFo", "comS", 0},
        {"IFooo", "comS", 0}, {"IFoo", "coms", 0},  {"IFoo", "com", 0},     {"", "comS", 0},
        {nullptr, "comS", 6}, {"IFoo", nullptr, 0}, {"IFoo\0x", "comS", 3},
    };
    for (const Case &c : cases) {
        // Copies, so only the text can match, never the pointer.
        std::string name = c.name ? c.name : "", type = c.type ? c.type : "";
        Rec k = row(0x42, kDead, kDead, kDead, c.name ? name.c_str() : nullptr, c.type ? type.c_str() : nullptr);
        Rec before = k;
        int32_t status = trn_select(byName, k.data());
        if (c.found) {
            ASSERT_EQ(status, 0) << (c.name ? c.name : "(null)") << "/" << (c.type ? c.type : "(null)");
            EXPECT_EQ(k.c[PIF], c.found);
            EXPECT_EQ(k.c[WTYPE], S(storedType)) << "the row's own string pointers come back";
            if (c.found == 3) {
                EXPECT_EQ(k.c[IFNAME], S(stored));
            }
        } else {
            EXPECT_NE(status, 0) << (c.name ? c.name : "(null)") << "/" << (c.type ? c.type : "(null)");
            EXPECT_TRUE(sameRow(k, before));
        }
    }
    // Pointer columns compare by value even when they point at equal text.
    char other[] = "IFoo";
    Rec k = row(0x43, kDead, kDead, kDead, other, "comS");
    EXPECT_NE(trn_select(byName, k.data()), 0);
}

// ---- refused arguments -----------------------------------------------------

TEST(Tarnel, BadArgumentsAreRefused)
{
    const int32_t badOptions[][2] = {{31, 32}, {32, 0}, {0, 0}, {64, 32}};
    for (const auto &o : badOptions)
        EXPECT_EQ(trn_createtable(o, kWrapperColumns), nullptr) << o[0] << "," << o[1];
    EXPECT_EQ(trn_createtable(nullptr, kWrapperColumns), nullptr);
    EXPECT_EQ(trn_createtable(kTableOptions, nullptr), nullptr);
    const std::vector<std::vector<int64_t>> badColumns = {
        {100}, {5, 7, 100}, {0, 100}, {4, 100}, {-1, 100}, {5, 6, 101}, {1000, 100},
    };
    for (const auto &cols : badColumns)
        EXPECT_EQ(trn_createtable(kTableOptions, cols.data()), nullptr) << cols[0] << "," << cols[1];
    std::vector<int64_t> tooMany(TRN_MAX_COLUMNS + 1, 5);
    tooMany.push_back(100);
    EXPECT_EQ(trn_createtable(kTableOptions, tooMany.data()), nullptr);
    tooMany.erase(tooMany.begin());
    void *wide = trn_createtable(kTableOptions, tooMany.data());
    EXPECT_NE(wide, nullptr) << "the largest column count is accepted";

    void *table = wrapperTable();
    ASSERT_NE(table, nullptr);
    const int32_t badIndexOptions[][2] = {{0, 0}, {2, 0}, {1, 2}, {1, -1}};
    for (const auto &o : badIndexOptions)
        EXPECT_EQ(index(table, o, {0}), nullptr) << o[0] << "," << o[1];
    const std::vector<std::vector<int32_t>> badKeys = {{}, {6}, {-2}, {0, 0}, {3, 6}, {1, 2, 1}, {100}};
    for (const auto &keys : badKeys)
        EXPECT_EQ(index(table, kUnique, keys), nullptr) << keys.size();
    const int32_t unterminated[] = {0, 1, 2, 3, 4, 5, 0, 0, 0};
    EXPECT_EQ(trn_createindex(table, kUnique, unterminated), nullptr);
    EXPECT_EQ(index(nullptr, kUnique, {0}), nullptr);
    EXPECT_EQ(trn_createindex(table, nullptr, std::vector<int32_t>{0, -1}.data()), nullptr);
    EXPECT_EQ(trn_createindex(table, kUnique, nullptr), nullptr);
    void *idx = index(table, kUnique, {0, 1, 2, 3, 4, 5});
    ASSERT_NE(idx, nullptr) << "every column once is a valid key";
    EXPECT_EQ(index(idx, kUnique, {0}), nullptr) << "an index is not a table";

    Rec r = row(1, 2, 3, 4, "I", "com");
    EXPECT_NE(trn_insert(nullptr, r.data()), 0);
    EXPECT_NE(trn_insert(table, nullptr), 0);
    EXPECT_NE(trn_insert(idx, r.data()), 0);
    ASSERT_EQ(trn_insert(table, r.data()), 0);
    EXPECT_NE(trn_select(nullptr, r.data()), 0);
    EXPECT_NE(trn_select(idx, nullptr), 0);
    EXPECT_NE(trn_select(table, r.data()), 0) << "a table is not an index";
    EXPECT_NE(trn_delete(nullptr, r.data()), 0);
    EXPECT_NE(trn_delete(idx, nullptr), 0);
    EXPECT_NE(trn_delete(table, r.data()), 0);
    EXPECT_EQ(trn_rowcount(table), 1);
    EXPECT_EQ(trn_rowcount(nullptr), -1);
    EXPECT_EQ(trn_rowcount(idx), -1);

    EXPECT_EQ(trn_opencursor(nullptr, r.data(), r.data()), nullptr);
    EXPECT_EQ(trn_opencursor(idx, nullptr, r.data()), nullptr);
    EXPECT_EQ(trn_opencursor(idx, r.data(), nullptr), nullptr);
    EXPECT_EQ(trn_opencursor(table, r.data(), r.data()), nullptr);
    void *cursor = trn_opencursor(idx, r.data(), r.data());
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(trn_opencursor(cursor, r.data(), r.data()), nullptr) << "a cursor is not an index";
    EXPECT_NE(trn_fetch(nullptr, r.data()), 0);
    EXPECT_NE(trn_fetch(cursor, nullptr), 0);
    EXPECT_NE(trn_fetch(idx, r.data()), 0);
    EXPECT_NE(trn_closecursor(nullptr), 0);
    EXPECT_NE(trn_closecursor(idx), 0);
    EXPECT_EQ(trn_fetch(cursor, r.data()), 0) << "the cursor still works after refused calls";
    EXPECT_EQ(trn_closecursor(cursor), 0);
    EXPECT_EQ(trn_rowcount(table), 1);
}

TEST(Tarnel, ClosedCursorIsRefusedEvenWhenItsMemoryServesAnotherCursor)
{
    void *table = wrapperTable();
    void *byDef = index(table, kMulti, {PDEF});
    Rec r = row(1, 2, 0xabc0, 3, "I", "com");
    ASSERT_EQ(trn_insert(table, r.data()), 0);
    void *other = wrapperTable();
    void *otherByDef = index(other, kMulti, {PDEF});
    ASSERT_EQ(trn_insert(other, r.data()), 0);
    void *closed = trn_opencursor(byDef, r.data(), r.data());
    ASSERT_NE(closed, nullptr);
    ASSERT_EQ(trn_closecursor(closed), 0);
    // A cursor of another table, opened now, may take the same memory.
    void *live = trn_opencursor(otherByDef, r.data(), r.data());
    ASSERT_NE(live, nullptr);
    EXPECT_EQ(trn_fetch(closed, r.data()), TRN_EBADARG);
    EXPECT_EQ(trn_closecursor(closed), TRN_EBADARG);
    EXPECT_EQ(trn_fetch(live, r.data()), 0) << "the live cursor is untouched";
    EXPECT_EQ(trn_closecursor(live), 0);
}

// ---- the wrapper table -----------------------------------------------------

TEST(Tarnel, WrapperTableAsTheRuntimeUsesIt)
{
    void *table = wrapperTable();
    ASSERT_NE(table, nullptr);
    void *byObject = index(table, kMulti, {PDEF});
    void *byObjectName = index(table, kUnique, {PDEF, IFNAME, WTYPE});
    void *byIdentity = index(table, kMulti, {PIUNK});
    void *byPair = index(table, kUnique, {PCOMIF, PIF});
    void *byIdentityName = index(table, kUnique, {PIUNK, IFNAME, WTYPE});
    for (void *x : {byObject, byObjectName, byIdentity, byPair, byIdentityName})
        ASSERT_NE(x, nullptr);

    // Rows carry their own copies of the strings, as the runtime makes them.
    struct Owned {
        Rec rec;
        char *name, *type;
    };
    auto make = [&](int64_t piunk, int64_t pcomif, int64_t pdef, int64_t pif, const char *n, const char *t) {
        Owned o{Rec(), strdup(n), strdup(t)};
        o.rec = row(piunk, pcomif, pdef, pif, o.name, o.type);
        EXPECT_EQ(trn_insert(table, o.rec.data()), 0);
        return o;
    };
    // Object A wrapped for two interfaces; the second row's identity is the
    // first wrapper. Object B unwrapped once. Then the nested case: a proxy
    // row with the same identity, name and type as a wrapper row.
    std::vector<Owned> rows = {
        make(0xA100, 0xA100, 0xA000, 0xA000, "IFirst", "com"),
        make(0xA100, 0xA200, 0xA000, 0xA010, "ISecond", "comS"),
        make(0xB100, 0xB100, 0xB000, 0xB000, "IFirst", "com"),
        make(0xA100, 0xA300, 0xA000, 0xA020, "IThird", "comP"),
        make(0xA100, 0xA310, 0xA000, 0xA030, "IThird", "comP"),
    };
    EXPECT_EQ(trn_rowcount(table), 5);

    // Identity lookups: fetch once, use only the first row.
    Rec k = only(PDEF, 0xA000);
    EXPECT_EQ(drain(byObject, k).size(), 4u);
    k = only(PIUNK, 0xB100);
    std::vector<Rec> b = drain(byIdentity, k);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0].c[PDEF], 0xB000);

    // "Is it already wrapped" with the caller's own strings.
    Rec q = row(kDead, kDead, 0xA000, kDead, "ISecond", "comS");
    ASSERT_EQ(trn_select(byObjectName, q.data()), 0);
    EXPECT_TRUE(sameRow(q, rows[1].rec));
    q = row(0xA100, kDead, kDead, kDead, "IThird", "comP");
    ASSERT_EQ(trn_select(byIdentityName, q.data()), 0);
    EXPECT_TRUE(q.c[PIF] == 0xA020 || q.c[PIF] == 0xA030);

    // Each wrapper or proxy deletes its own row: select by pair, then delete
    // through the same index with the record select filled.
    for (size_t i : {4, 1, 3, 2, 0}) {
        Rec r = only(PCOMIF, rows[i].rec.c[PCOMIF]);
        r.c[PIF] = rows[i].rec.c[PIF];
        ASSERT_EQ(trn_select(byPair, r.data()), 0) << i;
        ASSERT_TRUE(sameRow(r, rows[i].rec)) << i;
        ASSERT_EQ(trn_delete(byPair, r.data()), 0) << i;
        EXPECT_STREQ(reinterpret_cast<char *>(r.c[IFNAME]), rows[i].name) << "the table left the strings alone";
        free(rows[i].name);
        free(rows[i].type);
        r = only(PCOMIF, rows[i].rec.c[PCOMIF]);
        r.c[PIF] = rows[i].rec.c[PIF];
        EXPECT_NE(trn_select(byPair, r.data()), 0) << i;
        if (i == 4) {
            // The nested twin is still found by identity and name.
            Rec t = row(0xA100, kDead, kDead, kDead, "IThird", "comP");
            ASSERT_EQ(trn_select(byIdentityName, t.data()), 0);
            EXPECT_EQ(t.c[PIF], 0xA020);
        }
    }
    EXPECT_EQ(trn_rowcount(table), 0);
    for (void *x : {byObject, byObjectName, byIdentity, byPair, byIdentityName})
        EXPECT_TRUE(drain(x, k).empty());
}

} // namespace
