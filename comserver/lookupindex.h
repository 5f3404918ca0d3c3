// A hash index over the entries of the COM registrations that keeps, for
// every key, the entries with that key in walk order: newest registration
// first, within one registration in array order. A lookup takes the first
// (or walks all of that key, to merge them) without passing any entry of
// another key, however many entries share a key (GUID_NULL, say).
//
// Each entry is one member node, owned by its registration (they are
// allocated with it and die with it). The first member of a key heads it:
// only heads are threaded into the hash table, the others hang off their
// head in order:
//
//   bucket -> head(key A) -> head(key B) -> null          (hashnext)
//               |               |
//               v               v
//             member(A)       null                        (next / prev)
//               |
//               v
//             member(A) ...
//
// A registration joins by putting its members for each key in front of the
// key's older ones; leaving, each member unlinks itself (a head hands its
// place in the bucket to the next member of its key).
#pragma once

#include "core/hashtable.h"

#include <cstdint>

struct vxl_lookupmember {
    vxl_lookupmember *hashnext; // heads only
    uint64_t hash;
    vxl_lookupmember *prev; // same key, earlier in walk order (null: this is the head)
    vxl_lookupmember *next; // same key, later in walk order
    const void *record;     // the library's vxl_comcomponentinfo or vxl_comifinfo
    int32_t field;          // which key of the record this member stands for
    int32_t unused;
};

static_assert(sizeof(vxl_lookupmember) == 48, "member layout");

// Key is a policy: static uint64_t hash(const vxl_lookupmember &) and
// static bool same(const vxl_lookupmember &, const vxl_lookupmember &).
template <typename Key> class vxl_lookupindex {
public:
    // The head of the members whose key equals probe's, or null.
    vxl_lookupmember *first(const vxl_lookupmember &probe)
    {
        return heads_.find(probe.hash, [&](const vxl_lookupmember &head) { return Key::same(head, probe); });
    }

    // Adds count members (their record and field set) so that they come
    // first among their keys, in the order given. Never fails.
    void addInFront(vxl_lookupmember *members, int32_t count)
    {
        // Each one pushed in front, from the last to the first, leaves them
        // in the order given.
        for (int32_t k = count - 1; k >= 0; --k) {
            vxl_lookupmember *member = &members[k];
            member->hash = Key::hash(*member);
            member->prev = nullptr;
            vxl_lookupmember *head = first(*member);
            member->next = head;
            if (head) {
                heads_.replace(head, member);
                head->prev = member;
                head->hashnext = nullptr;
            } else {
                heads_.insert(member);
            }
        }
    }

    void remove(vxl_lookupmember *members, int32_t count)
    {
        for (int32_t k = 0; k < count; ++k) {
            vxl_lookupmember *member = &members[k];
            if (member->prev) {
                member->prev->next = member->next;
                if (member->next)
                    member->next->prev = member->prev;
            } else if (member->next) {
                member->next->prev = nullptr;
                heads_.replace(member, member->next);
            } else {
                heads_.remove(member);
            }
        }
    }

private:
    vxl_hashtable<vxl_lookupmember> heads_;
};
