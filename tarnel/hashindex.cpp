// Hash indexes: chained buckets threaded through one entry per row slot, a
// bucket array that doubles when the rows outnumber the buckets, and the
// select and delete operations that look a key up.
#include "keys.h"
#include "store.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace trn {

namespace {

size_t bucketOf(const Index &index, uint64_t hash) { return size_t(hash) & (index.heads.size() - 1); }

size_t bucketsFor(int64_t rows)
{
    size_t buckets = kInitialBuckets;
    while (int64_t(buckets) < rows)
        buckets *= 2;
    return buckets;
}

// Puts a row whose hash is known at the head of its bucket's chain.
void pushFront(Index &index, uint32_t slot)
{
    Entry &entry = index.entries[slot];
    size_t bucket = bucketOf(index, entry.hash);
    entry.prev = kNone;
    entry.next = index.heads[bucket];
    if (entry.next != kNone)
        index.entries[entry.next].prev = slot;
    index.heads[bucket] = slot;
}

// Threads every live row into a fresh bucket array of the given size.
void rebuild(Index &index, size_t buckets)
{
    std::vector<uint32_t> heads(buckets, kNone); // may throw; nothing changed yet
    index.heads.swap(heads);
    const Table &table = *index.table;
    for (uint32_t slot = 0; slot < table.slotCount; ++slot) {
        if (!table.live(slot))
            continue;
        pushFront(index, slot);
    }
}

} // namespace

void indexReserve(Index &index, uint32_t slots, int64_t rows)
{
    if (index.entries.size() < slots)
        index.entries.resize(slots);
    if (rows > int64_t(index.heads.size()))
        rebuild(index, bucketsFor(rows));
}

void indexLink(Index &index, uint32_t slot)
{
    index.entries[slot].hash = hashKey(index, index.table->row(slot));
    pushFront(index, slot);
}

void indexUnlink(Index &index, uint32_t slot)
{
    const Entry &entry = index.entries[slot];
    if (entry.prev != kNone)
        index.entries[entry.prev].next = entry.next;
    else
        index.heads[bucketOf(index, entry.hash)] = entry.next;
    if (entry.next != kNone)
        index.entries[entry.next].prev = entry.prev;
}

uint32_t indexFind(const Index &index, const int64_t *record, const int64_t *prefer)
{
    const Table &table = *index.table;
    uint64_t hash = hashKey(index, record);
    uint32_t first = kNone;
    for (uint32_t slot = index.heads[bucketOf(index, hash)]; slot != kNone; slot = index.entries[slot].next) {
        if (index.entries[slot].hash != hash || !sameKey(index, table.row(slot), record))
            continue;
        if (!prefer || std::memcmp(table.row(slot), prefer, table.columns() * sizeof(int64_t)) == 0)
            return slot;
        if (first == kNone)
            first = slot;
    }
    return first;
}

void indexCollect(const Index &index, const int64_t *record, std::vector<CursorRow> &out)
{
    const Table &table = *index.table;
    uint64_t hash = hashKey(index, record);
    for (uint32_t slot = index.heads[bucketOf(index, hash)]; slot != kNone; slot = index.entries[slot].next)
        if (index.entries[slot].hash == hash && sameKey(index, table.row(slot), record))
            out.push_back(CursorRow{slot, table.headers[slot].gen});
}

} // namespace trn

using namespace trn;

void *trn_createindex(void *handle, const int32_t *indexoptions, const int32_t *keycolumns)
{
    Table *table = asTable(handle);
    if (!table || !indexoptions || !keycolumns)
        return nullptr;
    if (indexoptions[0] != TRN_INDEX_HASH ||
        (indexoptions[1] != TRN_INDEX_MULTI && indexoptions[1] != TRN_INDEX_UNIQUE))
        return nullptr;
    try {
        std::unique_ptr<Index> index(new Index);
        index->table = table;
        index->uniqueHint = indexoptions[1] == TRN_INDEX_UNIQUE;
        // A valid list names each column at most once, so it ends within
        // columns() + 1 words; nothing past that is read.
        for (size_t i = 0;; ++i) {
            int32_t column = keycolumns[i];
            if (column == TRN_KEY_END)
                break;
            if (i == table->columns() || column < 0 || size_t(column) >= table->columns() ||
                std::find(index->keyColumns.begin(), index->keyColumns.end(), column) != index->keyColumns.end())
                return nullptr;
            index->keyColumns.push_back(column);
            index->keys.push_back(KeyColumn{column, table->types[size_t(column)] == TRN_COL_STRING});
        }
        if (index->keyColumns.empty())
            return nullptr;
        // Pointers compare in one instruction: they go first, so a row of
        // another object is passed over without looking at any text.
        std::stable_partition(index->keys.begin(), index->keys.end(), [](const KeyColumn &k) { return !k.text; });
        index->hashTexts = index->keys.front().text;
        index->heads.assign(bucketsFor(table->rowCount), kNone);
        index->entries.resize(table->slotCount);
        table->indexes.reserve(table->indexes.size() + 1);
        // Nothing below allocates: rows already stored join the new index.
        for (uint32_t slot = 0; slot < table->slotCount; ++slot)
            if (table->live(slot))
                indexLink(*index, slot);
        table->indexes.push_back(index.get());
        return index.release();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int32_t trn_select(void *handle, int64_t *record)
{
    Index *index = asIndex(handle);
    if (!index || !record)
        return TRN_EBADARG;
    uint32_t slot = indexFind(*index, record, nullptr);
    if (slot == kNone)
        return TRN_ENOTFOUND;
    const Table &table = *index->table;
    const int64_t *row = table.row(slot);
    for (size_t c = 0; c < table.columns(); ++c)
        record[c] = row[c];
    return TRN_OK;
}

int32_t trn_delete(void *handle, const int64_t *record)
{
    Index *index = asIndex(handle);
    if (!index || !record)
        return TRN_EBADARG;
    // Preferring the row equal to the whole record makes select-then-delete
    // remove exactly the row that select handed out, even among duplicates.
    uint32_t slot = indexFind(*index, record, record);
    if (slot == kNone)
        return TRN_ENOTFOUND;
    removeRow(*index->table, slot);
    return TRN_OK;
}
