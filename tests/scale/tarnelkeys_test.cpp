// tarnel's keys as the hashing sees them: a key with pointer columns is
// hashed by its pointers alone, so every row of one object shares a chain
// and only the text tells them apart; a key of strings only is hashed by
// its texts; the columns of a key list may come in any order.
#include "tarnel.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

enum { PTR, NAME, TYPE, NCOLS };
const int32_t kTableOptions[] = {32, 32};
const int64_t kColumns[] = {TRN_COL_POINTER, TRN_COL_STRING, TRN_COL_STRING, TRN_COL_END};
const int32_t kUnique[] = {TRN_INDEX_HASH, TRN_INDEX_UNIQUE};

int64_t S(const char *s) { return static_cast<int64_t>(reinterpret_cast<intptr_t>(s)); }

void *makeIndex(void *table, std::vector<int32_t> keys)
{
    keys.push_back(TRN_KEY_END);
    return trn_createindex(table, kUnique, keys.data());
}

} // namespace

TEST(TarnelKeys, RowsOfOnePointerAreToldApartByTheirTexts)
{
    void *table = trn_createtable(kTableOptions, kColumns);
    ASSERT_NE(nullptr, table);
    void *byAll = makeIndex(table, {PTR, NAME, TYPE});
    void *textFirst = makeIndex(table, {TYPE, NAME, PTR}); // the same key, listed the other way round
    ASSERT_NE(nullptr, byAll);
    ASSERT_NE(nullptr, textFirst);

    // 300 rows on pointer 7 (one object's many names), and one on pointer 8
    // with the same texts as the first.
    std::vector<std::string> names;
    for (int k = 0; k < 300; ++k)
        names.push_back("IName" + std::to_string(k));
    for (const std::string &name : names) {
        int64_t row[NCOLS] = {7, S(name.c_str()), S("com")};
        ASSERT_EQ(TRN_OK, trn_insert(table, row));
    }
    int64_t other[NCOLS] = {8, S(names[0].c_str()), S("com")};
    ASSERT_EQ(TRN_OK, trn_insert(table, other));

    // The caller's own copies of the texts: compared by text, and the row's
    // own text pointer comes back.
    std::string first = names[0];
    for (void *index : {byAll, textFirst}) {
        for (int k : {0, 1, 150, 299}) {
            std::string name = names[size_t(k)], type = "com";
            int64_t key[NCOLS] = {7, S(name.c_str()), S(type.c_str())};
            ASSERT_EQ(TRN_OK, trn_select(index, key)) << name;
            EXPECT_EQ(S(names[size_t(k)].c_str()), key[NAME]);
        }
        int64_t onEight[NCOLS] = {8, S(first.c_str()), S("com")}, wrongType[NCOLS] = {7, S(first.c_str()), S("comS")};
        int64_t prefix[NCOLS] = {7, S("IName1"), S("com")}; // a prefix of IName150 and others
        ASSERT_EQ(TRN_OK, trn_select(index, onEight));
        EXPECT_EQ(8, onEight[PTR]);
        EXPECT_EQ(TRN_ENOTFOUND, trn_select(index, wrongType));
        ASSERT_EQ(TRN_OK, trn_select(index, prefix));
        EXPECT_STREQ("IName1", reinterpret_cast<const char *>(prefix[NAME]));
    }

    // Deleting one row of pointer 7 leaves its siblings and pointer 8's row.
    std::string victim = names[150];
    int64_t del[NCOLS] = {7, S(victim.c_str()), S("com")}, gone[NCOLS] = {7, S(victim.c_str()), S("com")};
    int64_t sibling[NCOLS] = {7, S(names[151].c_str()), S("com")};
    ASSERT_EQ(TRN_OK, trn_delete(byAll, del));
    EXPECT_EQ(TRN_ENOTFOUND, trn_select(textFirst, gone));
    EXPECT_EQ(TRN_OK, trn_select(byAll, sibling));
    EXPECT_EQ(300, trn_rowcount(table));
}

TEST(TarnelKeys, KeysOfStringsOnlyAreHashedByText)
{
    void *table = trn_createtable(kTableOptions, kColumns);
    void *byName = makeIndex(table, {NAME});
    void *byNames = makeIndex(table, {TYPE, NAME});
    ASSERT_NE(nullptr, byName);
    ASSERT_NE(nullptr, byNames);
    const char *types[] = {"com", "comS", "comP"};
    std::vector<std::string> names;
    names.reserve(500); // the table keeps pointers to these texts
    for (int k = 0; k < 500; ++k) {
        names.push_back("N" + std::to_string(k));
        int64_t row[NCOLS] = {k, S(names.back().c_str()), S(types[k % 3])};
        ASSERT_EQ(TRN_OK, trn_insert(table, row));
    }
    int64_t nulls[NCOLS] = {999, 0, 0}; // a null text is a value of its own
    ASSERT_EQ(TRN_OK, trn_insert(table, nulls));

    for (int k : {0, 250, 499}) {
        std::string name = "N" + std::to_string(k), type = types[k % 3];
        int64_t key[NCOLS] = {-1, S(name.c_str()), S(type.c_str())}, byText[NCOLS] = {-1, S(name.c_str()), 0};
        int64_t wrong[NCOLS] = {-1, S(name.c_str()), S(types[(k + 1) % 3])};
        ASSERT_EQ(TRN_OK, trn_select(byNames, key)) << name;
        EXPECT_EQ(k, key[PTR]);
        ASSERT_EQ(TRN_OK, trn_select(byName, byText));
        EXPECT_EQ(k, byText[PTR]);
        EXPECT_EQ(TRN_ENOTFOUND, trn_select(byNames, wrong));
    }
    int64_t nullKey[NCOLS] = {-1, 0, 0}, emptyText[NCOLS] = {-1, S(""), S("")};
    ASSERT_EQ(TRN_OK, trn_select(byNames, nullKey));
    EXPECT_EQ(999, nullKey[PTR]);
    EXPECT_EQ(TRN_ENOTFOUND, trn_select(byNames, emptyText)) << "an empty text is not a null one";
}
