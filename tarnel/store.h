// Internal structures of the table library.
//
// Rows live in numbered slots; a slot number is the row's id in every index
// and cursor. Slot i of a table with n columns:
//
//   headers[i]                 values[i*n] ... values[i*n + n-1]
//   +----------+----------+    +----------+-----+------------+
//   | gen (32) | link (32)|    | column 0 | ... | column n-1 |  64 bits each
//   +----------+----------+    +----------+-----+------------+
//   0          4          8
//
// gen counts the rows the slot has held, so a cursor that remembered
// (slot, gen) notices when its row was deleted and the slot reused. link is
// kLive while the slot holds a row; otherwise the next free slot, kNone
// ending the free list.
//
// A hash index keeps one entry per slot (entries[i] belongs to slot i) and
// an array of bucket heads whose size is a power of two. Entries of one
// bucket form a doubly linked chain, so removing a row needs no search:
//
//   entries[i]
//   +---------------+-----------+-----------+
//   | hash (64)     | next (32) | prev (32) |   next/prev: slot numbers,
//   +---------------+-----------+-----------+   kNone at the chain ends
//   0               8           12          16
#pragma once

#include "tarnel.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace trn {

constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr uint32_t kLive = 0xFFFFFFFEu;
// Slot numbers stay clear of the two markers above.
constexpr uint32_t kMaxSlots = 0x7FFFFFFFu;
constexpr size_t kInitialBuckets = 16;

// Every handle starts with a tag word, so a handle of the wrong kind (or one
// already released) is refused instead of being misread.
constexpr uint32_t kTableTag = 0x544e5254u;  // "TRNT"
constexpr uint32_t kIndexTag = 0x494e5254u;  // "TRNI"
constexpr uint32_t kCursorTag = 0x434e5254u; // "TRNC"
constexpr uint32_t kDeadTag = 0x44414544u;   // "DEAD"

struct RowHeader {
    uint32_t gen;
    uint32_t link;
};
static_assert(sizeof(RowHeader) == 8, "row header is one 64-bit word");
static_assert(offsetof(RowHeader, gen) == 0, "row header layout");
static_assert(offsetof(RowHeader, link) == 4, "row header layout");

struct Entry {
    uint64_t hash;
    uint32_t next;
    uint32_t prev;
};
static_assert(sizeof(Entry) == 16, "index entry layout");
static_assert(offsetof(Entry, hash) == 0, "index entry layout");
static_assert(offsetof(Entry, next) == 8, "index entry layout");
static_assert(offsetof(Entry, prev) == 12, "index entry layout");

static_assert(sizeof(int64_t) == sizeof(void *), "a column holds one pointer");

struct Index;
struct Cursor;

struct Table {
    uint32_t tag = kTableTag;
    std::vector<int64_t> types; // TRN_COL_POINTER or TRN_COL_STRING per column
    std::vector<RowHeader> headers;
    std::vector<int64_t> values;
    uint32_t slotCount = 0; // slots handed out so far, live or free
    uint32_t freeHead = kNone;
    int64_t rowCount = 0;
    std::vector<Index *> indexes;
    Cursor *spareCursors = nullptr; // closed cursors, kept for reuse

    size_t columns() const { return types.size(); }
    bool live(uint32_t slot) const { return slot < slotCount && headers[slot].link == kLive; }
    int64_t *row(uint32_t slot) { return values.data() + size_t(slot) * columns(); }
    const int64_t *row(uint32_t slot) const { return values.data() + size_t(slot) * columns(); }
};

// A key column of an index, with its kind looked up once.
struct KeyColumn {
    int32_t column;
    bool text; // a string column, compared by its text
};

struct Index {
    uint32_t tag = kIndexTag;
    Table *table = nullptr;
    bool uniqueHint = false;
    std::vector<int32_t> keyColumns;
    std::vector<KeyColumn> keys; // keyColumns with their kinds, pointer columns first
    bool hashTexts = false;      // the key has no pointer column
    std::vector<uint32_t> heads;
    std::vector<Entry> entries;
};

struct CursorRow {
    uint32_t slot;
    uint32_t gen;
};

struct Cursor {
    uint32_t tag = kCursorTag;
    Table *table = nullptr;
    std::vector<CursorRow> rows;
    size_t next = 0;
    Cursor *nextSpare = nullptr;
};

// Handle checks: null unless the handle is live and of that kind.
inline uint32_t tagOf(void *handle)
{
    uint32_t tag;
    std::memcpy(&tag, handle, sizeof tag);
    return tag;
}
inline Table *asTable(void *handle)
{
    return handle && tagOf(handle) == kTableTag ? static_cast<Table *>(handle) : nullptr;
}
inline Index *asIndex(void *handle)
{
    return handle && tagOf(handle) == kIndexTag ? static_cast<Index *>(handle) : nullptr;
}
inline Cursor *asCursor(void *handle)
{
    return handle && tagOf(handle) == kCursorTag ? static_cast<Cursor *>(handle) : nullptr;
}

// Keys: keys.h. Records and rows are arrays of the table's columns.

// Index upkeep (hashindex.cpp). The two that may throw std::bad_alloc do so
// before anything changes.
void indexReserve(Index &index, uint32_t slots, int64_t rows); // may throw
void indexLink(Index &index, uint32_t slot);
void indexUnlink(Index &index, uint32_t slot);
// First slot in the chain of the record's key whose row has that key, or
// kNone. With prefer set, a row whose every column word equals prefer's wins.
uint32_t indexFind(const Index &index, const int64_t *record, const int64_t *prefer);
// Appends every row whose key equals the record's key (may throw).
void indexCollect(const Index &index, const int64_t *record, std::vector<CursorRow> &out);

// Takes the row out of every index and frees its slot (table.cpp).
void removeRow(Table &table, uint32_t slot);

} // namespace trn
