// Tables and their rows: creation, insertion, removal, row count, and the
// checks that turn an opaque handle back into a table, index or cursor.
#include "store.h"

#include <atomic>
#include <cstring>
#include <new>
#include <type_traits>

namespace trn {

static_assert(std::is_standard_layout<Table>::value && std::is_standard_layout<Index>::value &&
                  std::is_standard_layout<Cursor>::value,
              "the tag word of every handle sits at its start");

namespace {

// Totals over every table of the process, for callers that cannot reach the
// handles (a runtime's tests checking that nothing is left behind). Tables
// of different callers may change on different threads at once.
std::atomic<int64_t> g_tablesMade{0};
std::atomic<int64_t> g_rowsLive{0};

} // namespace

void removeRow(Table &table, uint32_t slot)
{
    for (Index *index : table.indexes)
        indexUnlink(*index, slot);
    RowHeader &header = table.headers[slot];
    ++header.gen; // cursors that remembered this row now skip it
    header.link = table.freeHead;
    table.freeHead = slot;
    --table.rowCount;
    --g_rowsLive;
}

} // namespace trn

using namespace trn;

void *trn_createtable(const int32_t *tableoptions, const int64_t *columns)
{
    if (!tableoptions || !columns)
        return nullptr;
    if (tableoptions[0] != TRN_TABLE_OPTION0 || tableoptions[1] != TRN_TABLE_OPTION1)
        return nullptr;
    size_t count = 0;
    for (;; ++count) {
        int64_t code = columns[count];
        if (code == TRN_COL_END)
            break;
        if (count == TRN_MAX_COLUMNS || (code != TRN_COL_POINTER && code != TRN_COL_STRING))
            return nullptr;
    }
    if (count == 0)
        return nullptr;
    try {
        Table *table = new Table;
        table->types.assign(columns, columns + count);
        ++g_tablesMade;
        return table;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int32_t trn_insert(void *handle, const int64_t *record)
{
    Table *table = asTable(handle);
    if (!table || !record)
        return TRN_EBADARG;
    uint32_t slot = table->freeHead;
    uint32_t slots = table->slotCount;
    if (slot == kNone) {
        if (slots >= kMaxSlots)
            return TRN_ENOMEM;
        slot = slots++;
    }
    // Every allocation happens before the row is linked anywhere, so running
    // out of memory leaves the table as it was.
    try {
        if (table->headers.size() < slots)
            table->headers.resize(slots, RowHeader{0, kNone});
        if (table->values.size() < size_t(slots) * table->columns())
            table->values.resize(size_t(slots) * table->columns());
        for (Index *index : table->indexes)
            indexReserve(*index, slots, table->rowCount + 1);
    } catch (const std::bad_alloc &) {
        return TRN_ENOMEM;
    }
    RowHeader &header = table->headers[slot];
    if (slot == table->slotCount)
        table->slotCount = slots;
    else
        table->freeHead = header.link;
    header.link = kLive;
    std::memcpy(table->row(slot), record, table->columns() * sizeof(int64_t));
    for (Index *index : table->indexes)
        indexLink(*index, slot);
    ++table->rowCount;
    ++g_rowsLive;
    return TRN_OK;
}

int64_t trn_rowcount(void *handle)
{
    Table *table = asTable(handle);
    return table ? table->rowCount : -1;
}

void trn_processstats(int64_t *tables, int64_t *rows)
{
    if (tables)
        *tables = g_tablesMade.load();
    if (rows)
        *rows = g_rowsLive.load();
}
