// Hashing and comparing the key columns of records and rows: pointer columns
// by value, string columns by their text (case-sensitive). Inline: every
// select, delete and cursor hashes and compares a key, and the work is a few
// instructions per column.
#pragma once

#include "store.h"

namespace trn {

namespace keys {

// Final mix of a 64-bit hash, so that pointers that differ only in their low
// alignment bits still spread over all buckets.
inline uint64_t mix(uint64_t h)
{
    h ^= h >> 30;
    h *= 0xbf58476d1ce4e5b9ull;
    h ^= h >> 27;
    h *= 0x94d049bb133111ebull;
    h ^= h >> 31;
    return h;
}

inline uint64_t hashText(const char *s)
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

inline const char *text(int64_t v) { return reinterpret_cast<const char *>(static_cast<intptr_t>(v)); }

// Key strings are short names: compared in place, without a call.
inline bool sameText(const char *a, const char *b)
{
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

inline bool sameColumn(bool isText, int64_t a, int64_t b)
{
    if (!isText || a == b)
        return a == b;
    const char *sa = text(a), *sb = text(b);
    return sa && sb && sameText(sa, sb);
}

} // namespace keys

// A key with pointer columns is hashed by those alone: rows that share its
// pointers (one object's rows for its few interface names) share a chain
// and are told apart by the text compare, and a lookup hashes no text. A
// key of strings only hashes its texts.
inline uint64_t hashKey(const Index &index, const int64_t *record)
{
    // One multiply folds each column in; the final mix spreads the result.
    uint64_t h = 0x243f6a8885a308d3ull;
    for (const KeyColumn &key : index.keys) {
        int64_t v = record[key.column];
        if (key.text && !index.hashTexts)
            continue;
        uint64_t part = key.text ? keys::hashText(keys::text(v)) : static_cast<uint64_t>(v);
        h = (h ^ part) * 0x9e3779b97f4a7c15ull + 0x632be59bd9b4e019ull;
    }
    return keys::mix(h);
}

inline bool sameKey(const Index &index, const int64_t *a, const int64_t *b)
{
    for (const KeyColumn &key : index.keys)
        if (!keys::sameColumn(key.text, a[key.column], b[key.column]))
            return false;
    return true;
}

} // namespace trn
