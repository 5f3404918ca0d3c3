// Cursors: the matching rows are picked when the cursor opens and remembered
// as (slot, generation) pairs. A row deleted while the cursor is open is
// skipped by fetch, even if its slot already holds a newer row; rows inserted
// after opening are not seen.
#include "store.h"

#include <cstring>
#include <memory>
#include <new>

using namespace trn;

void *trn_opencursor(void *handle, const int64_t *low, const int64_t *high)
{
    Index *index = asIndex(handle);
    if (!index || !low || !high)
        return nullptr;
    try {
        std::unique_ptr<Cursor> cursor(new Cursor);
        Table &table = *index->table;
        cursor->table = &table;
        if (sameKey(*index, low, high)) {
            indexCollect(*index, low, cursor->rows);
        } else if (compareKeys(*index, low, high) < 0) {
            // A hash index keeps no order, so a true range visits every row.
            for (uint32_t slot = 0; slot < table.slotCount; ++slot) {
                if (!table.live(slot))
                    continue;
                const int64_t *row = table.row(slot);
                if (compareKeys(*index, low, row) <= 0 && compareKeys(*index, row, high) <= 0)
                    cursor->rows.push_back(CursorRow{slot, table.headers[slot].gen});
            }
        }
        return cursor.release();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int32_t trn_fetch(void *handle, int64_t *record)
{
    Cursor *cursor = asCursor(handle);
    if (!cursor || !record)
        return TRN_EBADARG;
    const Table &table = *cursor->table;
    while (cursor->next < cursor->rows.size()) {
        CursorRow row = cursor->rows[cursor->next++];
        if (table.live(row.slot) && table.headers[row.slot].gen == row.gen) {
            std::memcpy(record, table.row(row.slot), table.columns() * sizeof(int64_t));
            return TRN_OK;
        }
    }
    return TRN_ENOTFOUND;
}

int32_t trn_closecursor(void *handle)
{
    Cursor *cursor = asCursor(handle);
    if (!cursor)
        return TRN_EBADARG;
    cursor->tag = kDeadTag;
    delete cursor;
    return TRN_OK;
}
