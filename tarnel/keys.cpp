// Hashing and comparing the key columns of records and rows: pointer columns
// by value, string columns by their text (case-sensitive).
#include "store.h"

#include <cstring>

namespace trn {

namespace {

// Final mix of a 64-bit hash, so that pointers that differ only in their low
// alignment bits still spread over all buckets.
uint64_t mix(uint64_t h)
{
    h ^= h >> 30;
    h *= 0xbf58476d1ce4e5b9ull;
    h ^= h >> 27;
    h *= 0x94d049bb133111ebull;
    h ^= h >> 31;
    return h;
}

uint64_t hashText(const char *s)
{
    if (!s)
        return 0x9ae16a3b2f90404full; // a null string is a value of its own
    uint64_t h = 0xcbf29ce484222325ull;
    for (; *s; ++s) {
        h ^= static_cast<unsigned char>(*s);
        h *= 0x100000001b3ull;
    }
    return h;
}

const char *text(int64_t v) { return reinterpret_cast<const char *>(static_cast<intptr_t>(v)); }

bool sameColumn(int64_t type, int64_t a, int64_t b)
{
    if (type != TRN_COL_STRING || a == b)
        return a == b;
    const char *sa = text(a), *sb = text(b);
    return sa && sb && std::strcmp(sa, sb) == 0;
}

} // namespace

uint64_t hashKey(const Index &index, const int64_t *record)
{
    const std::vector<int64_t> &types = index.table->types;
    uint64_t h = 0x243f6a8885a308d3ull;
    for (int32_t col : index.keyColumns) {
        int64_t v = record[col];
        uint64_t part = types[col] == TRN_COL_STRING ? hashText(text(v)) : static_cast<uint64_t>(v);
        h = mix(h ^ part) + 0x9e3779b97f4a7c15ull;
    }
    return mix(h);
}

bool sameKey(const Index &index, const int64_t *a, const int64_t *b)
{
    const std::vector<int64_t> &types = index.table->types;
    for (int32_t col : index.keyColumns)
        if (!sameColumn(types[col], a[col], b[col]))
            return false;
    return true;
}

} // namespace trn
