/*
 * tarnel: in-memory tables of 64-bit columns reached through hash indexes.
 *
 * A table holds rows of pointer-sized columns. Pointer columns compare by
 * value, string columns (a `const char *`) by their text, case-sensitively.
 * The table copies the column values of a row and never copies or frees what
 * they point to. Every index of a table holds every row; select, insert and
 * delete take constant time on average however many rows there are.
 *
 * There are no locks: a caller that shares a table between threads
 * serialises all access to it. Handles are opaque; a status of 0 (TRN_OK)
 * is success.
 */
#ifndef TARNEL_H
#define TARNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef TARNEL_BUILDING_DLL
#define TRN_API __declspec(dllexport)
#else
#define TRN_API __declspec(dllimport)
#endif

/* Statuses. */
#define TRN_OK 0
#define TRN_ENOTFOUND 1 /* no row with that key, or the cursor is done */
#define TRN_EBADARG 2   /* null or foreign handle, null record */
#define TRN_ENOMEM 3    /* out of memory or rows; nothing was changed */

/* The two leading words of a table option block: the only layout known. */
#define TRN_TABLE_OPTION0 32
#define TRN_TABLE_OPTION1 32

/* Column type codes of the column list (64-bit words). */
#define TRN_COL_POINTER 5
#define TRN_COL_STRING 6
#define TRN_COL_END 100
#define TRN_MAX_COLUMNS 64

/* Index option block (32-bit words): TRN_INDEX_HASH, then 0 or 1. */
#define TRN_INDEX_HASH 1
#define TRN_INDEX_MULTI 0
#define TRN_INDEX_UNIQUE 1 /* a hint only: duplicate keys are still kept */
/* Ends a key list of column numbers (32-bit words). */
#define TRN_KEY_END (-1)

/* A table with the given columns; null when the options or columns are bad. */
TRN_API void *trn_createtable(const int32_t *tableoptions, const int64_t *columns);
/* A hash index on the key columns; rows already in the table are indexed. */
TRN_API void *trn_createindex(void *table, const int32_t *indexoptions, const int32_t *keycolumns);
/* Stores a copy of the record's column values in the table and every index. */
TRN_API int32_t trn_insert(void *table, const int64_t *record);
/* Finds a row whose key equals the record's key columns and copies it over
   the whole record; the record is untouched when there is none. */
TRN_API int32_t trn_select(void *index, int64_t *record);
/* Removes one row whose key equals the record's key columns, preferring the
   row whose column values are exactly those of the record. */
TRN_API int32_t trn_delete(void *index, const int64_t *record);
/* A cursor over the rows whose key equals the bounds' key; bounds with
   different keys are refused (null). The bounds are read during this call
   only. */
TRN_API void *trn_opencursor(void *index, const int64_t *low, const int64_t *high);
/* Copies the next row of the cursor into the record. */
TRN_API int32_t trn_fetch(void *cursor, int64_t *record);
/* Releases the cursor; its handle is refused from then on. */
TRN_API int32_t trn_closecursor(void *cursor);
/* Rows in the table, or -1 for a bad handle. */
TRN_API int64_t trn_rowcount(void *table);
/* Tables ever made and rows alive, over every table of the process. */
TRN_API void trn_processstats(int64_t *tables, int64_t *rows);

#ifdef __cplusplus
}
#endif

#endif /* TARNEL_H */
