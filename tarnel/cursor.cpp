// Cursors: the rows whose key equals the cursor's key are picked when it
// opens and remembered as (slot, generation) pairs. A row deleted while the
// cursor is open is skipped by fetch, even if its slot already holds a newer
// row; rows inserted after opening are not seen.
//
// A closed cursor is never freed: it waits on its table's list of spare
// cursors, so a handle that was closed still points at a cursor, one whose
// tag refuses it (until the table hands that cursor out again).
#include "keys.h"
#include "store.h"

#include <cstring>
#include <new>

using namespace trn;

void *trn_opencursor(void *handle, const int64_t *low, const int64_t *high)
{
    Index *index = asIndex(handle);
    if (!index || !low || !high || !sameKey(*index, low, high))
        return nullptr;
    Table &table = *index->table;
    Cursor *cursor = table.spareCursors;
    try {
        if (cursor)
            cursor->rows.clear();
        else
            cursor = new Cursor;
        indexCollect(*index, low, cursor->rows);
    } catch (const std::bad_alloc &) {
        if (cursor && cursor != table.spareCursors) // a new one never handed out
            delete cursor;
        return nullptr;
    }
    if (cursor == table.spareCursors)
        table.spareCursors = cursor->nextSpare;
    cursor->tag = kCursorTag;
    cursor->table = &table;
    cursor->next = 0;
    cursor->nextSpare = nullptr;
    return cursor;
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
    cursor->nextSpare = cursor->table->spareCursors;
    cursor->table->spareCursors = cursor;
    return TRN_OK;
}
