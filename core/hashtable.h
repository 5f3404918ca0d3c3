// Hashing of names, GUIDs and pointers, and the chained hash table that the
// definition registry and the COM registrations keep beside their lists.
//
// The tables only find things faster: whoever owns a table decides what a
// match is and, where several entries share a key, in which order they are
// found (the owner keeps same-key entries in its own order, see
// comserver/lookupindex.h). Names are hashed by their exact bytes, as they
// are compared.
#pragma once

#include "kit.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// Final mix, so that keys differing only in a few low bits (aligned pointers,
// GUIDs one apart) spread over every bucket.
inline uint64_t vxl_hashmix(uint64_t h)
{
    h ^= h >> 30;
    h *= 0xbf58476d1ce4e5b9ull;
    h ^= h >> 27;
    h *= 0x94d049bb133111ebull;
    h ^= h >> 31;
    return h;
}

// The length of a name, and a hash of its bytes taken eight at a time (only
// bytes of the name are read); a null name hashes apart. Names are short:
// one multiply per eight bytes keeps the hash off the critical path of a
// look-up, where one per byte would not be.
inline uint64_t vxl_hashname(const char *name, size_t *length = nullptr)
{
    if (!name) {
        if (length)
            *length = 0;
        return 0x9ae16a3b2f90404full;
    }
    size_t n = 0;
    while (name[n])
        ++n;
    if (length)
        *length = n;
    uint64_t h = 0xcbf29ce484222325ull ^ n;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t word;
        memcpy(&word, name + i, 8);
        h = (h ^ word) * 0x9e3779b97f4a7c15ull;
        h ^= h >> 32;
    }
    uint64_t tail = 0;
    for (size_t k = 0; i + k < n; ++k)
        tail |= uint64_t(static_cast<unsigned char>(name[i + k])) << (8 * k);
    return vxl_hashmix((h ^ tail) * 0x9e3779b97f4a7c15ull);
}

// Whether two names of the same known length have the same bytes, eight at
// a time.
inline bool vxl_samebytes(const char *a, const char *b, size_t n)
{
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x, y;
        memcpy(&x, a + i, 8);
        memcpy(&y, b + i, 8);
        if (x != y)
            return false;
    }
    for (; i < n; ++i)
        if (a[i] != b[i])
            return false;
    return true;
}

inline uint64_t vxl_hashbytes16(const void *bytes)
{
    uint64_t half[2];
    memcpy(half, bytes, sizeof half);
    return vxl_hashmix(half[0] ^ vxl_hashmix(half[1] + 0x9e3779b97f4a7c15ull));
}

inline uint64_t vxl_hashpointers(const void *a, const void *b = nullptr, const void *c = nullptr)
{
    uint64_t h = vxl_hashmix(reinterpret_cast<uintptr_t>(a) + 0x9e3779b97f4a7c15ull);
    h = vxl_hashmix(h ^ reinterpret_cast<uintptr_t>(b));
    return vxl_hashmix(h ^ reinterpret_cast<uintptr_t>(c));
}

// Nodes carry their own link and hash:
//
//   struct Node { Node *hashnext; uint64_t hash; ...the owner's fields... };
//
// and live wherever their owner puts them; the table only threads them into
// buckets. A bucket array that cannot grow (no kit memory) keeps its size:
// chains get longer, every lookup still finds what it did. Not thread-safe:
// the owner's lock guards it.
template <typename Node> class vxl_hashtable {
public:
    vxl_hashtable() = default;
    vxl_hashtable(const vxl_hashtable &) = delete;
    vxl_hashtable &operator=(const vxl_hashtable &) = delete;

    // The link that points at the first node with this hash that match
    // accepts (walking the bucket from its head), or null.
    template <typename Match> Node **findLink(uint64_t hash, Match match)
    {
        if (!buckets_)
            return nullptr;
        for (Node **link = &buckets_[hash & mask_]; *link; link = &(*link)->hashnext)
            if ((*link)->hash == hash && match(**link))
                return link;
        return nullptr;
    }
    template <typename Match> Node *find(uint64_t hash, Match match)
    {
        Node **link = findLink(hash, match);
        return link ? *link : nullptr;
    }
    // Puts node (its hash set) at the head of its bucket.
    void insert(Node *node)
    {
        if (count_ >= capacity())
            grow();
        if (!buckets_) {
            // Not even the first bucket array could be had: one bucket of
            // our own keeps the table usable.
            buckets_ = &spare_;
            mask_ = 0;
        }
        Node **bucket = &buckets_[node->hash & mask_];
        node->hashnext = *bucket;
        *bucket = node;
        ++count_;
    }
    // Takes the node out; it must be in the table.
    void remove(Node *node)
    {
        Node **link = findLink(node->hash, [node](const Node &n) { return &n == node; });
        if (link) {
            *link = node->hashnext;
            --count_;
        }
    }
    // Puts replacement where node is (same hash), keeping its place in the
    // chain: the node that heads a key's entries hands over to the next.
    void replace(Node *node, Node *replacement)
    {
        Node **link = findLink(node->hash, [node](const Node &n) { return &n == node; });
        if (link) {
            replacement->hashnext = node->hashnext;
            *link = replacement;
        }
    }
    size_t size() const { return count_; }

private:
    size_t capacity() const { return buckets_ && buckets_ != &spare_ ? mask_ + 1 : 0; }

    // Doubles the bucket array (16 at first) and rethreads every node; the
    // relative order of nodes that land in one bucket is kept.
    void grow()
    {
        size_t size = capacity() ? (mask_ + 1) * 2 : 16;
        if (size * sizeof(Node *) > size_t(INT32_MAX))
            return;
        auto **fresh = static_cast<Node **>(vxl_malloc(static_cast<int32_t>(size * sizeof(Node *))));
        if (!fresh)
            return;
        memset(fresh, 0, size * sizeof(Node *));
        // Appending at each new chain's tail keeps the order within a chain.
        auto **tails = static_cast<Node ***>(vxl_malloc(static_cast<int32_t>(size * sizeof(Node **))));
        if (!tails) {
            vxl_free(fresh);
            return;
        }
        for (size_t b = 0; b < size; ++b)
            tails[b] = &fresh[b];
        size_t old = buckets_ ? mask_ + 1 : 0;
        for (size_t b = 0; b < old; ++b) {
            for (Node *node = buckets_[b]; node;) {
                Node *next = node->hashnext;
                size_t to = node->hash & (size - 1);
                node->hashnext = nullptr;
                *tails[to] = node;
                tails[to] = &node->hashnext;
                node = next;
            }
        }
        vxl_free(tails);
        if (buckets_ != &spare_)
            vxl_free(buckets_);
        buckets_ = fresh;
        mask_ = size - 1;
    }

    Node **buckets_ = nullptr;
    Node *spare_ = nullptr;
    size_t mask_ = 0;
    size_t count_ = 0;
};
