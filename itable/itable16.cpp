// 16-bit indexed table: 16 cans of 64 buckets of 64 slots.
//
// Storage is made on demand and is never cleared by the table: the
// allocator hands out zero-filled cans and buckets, so a null pointer always
// means "absent" and a null slot "free". The mark (itable16_maxentry) bounds
// every scan: no slot at or above it holds a pointer.
#include <cstdlib>
#include <cstring>
#include <syslog.h>

#include "heap.h"
#include "itable.h"
#include "priv_itable_steps.h"

namespace {

using Bucket = void**;
using Can = void***;

constexpr u_int32_t kIndices = 0x10000;
constexpr u_int32_t kCanSpan = ITABLE16_BUCKETS_PER_CAN * ITABLE16_ENTRIES_PER_BUCKET;  // 4096
constexpr u_int32_t kBucketSpan = ITABLE16_ENTRIES_PER_BUCKET;                           // 64
// A can and a bucket are both 64 pointers.
constexpr size_t kLevelBytes = 64 * sizeof(void*);
// The automatic cleanup runs on the removal that takes the count past this.
constexpr u_int32_t kRemovalsBeforeCleanup = 1024;

static_assert(ITABLE16_BUCKETS_PER_CAN == 64 && ITABLE16_ENTRIES_PER_BUCKET == 64);

constexpr u_int32_t can_of(u_int32_t index) { return index >> 12; }
constexpr u_int32_t bucket_of(u_int32_t index) { return (index >> 6) & 63; }
constexpr u_int32_t entry_of(u_int32_t index) { return index & 63; }

static_assert(can_of(0x1234) == 1 && bucket_of(0x1234) == 8 && entry_of(0x1234) == 52);

void _itable16_init(itable16_t* table, itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt) {
    table->itable16_maxindex = kIndices;
    table->itable16_packed = 0;
    table->cleanup_on_remove = 0;
    table->alloc_func = alloc_func;
    table->free_func = free_func;
    table->alloc_ctxt = ctxt;
}

void* level_alloc(itable16_t* table) { return table->alloc_func(table->alloc_ctxt, kLevelBytes); }

void level_free(itable16_t* table, void* level) { table->free_func(table->alloc_ctxt, level); }

// The bucket of an existing slot, or null when its can or bucket is absent.
Bucket bucket_if_present(const itable16_t* table, u_int32_t index) {
    Can can = table->cans[can_of(index)];
    return can != nullptr ? can[bucket_of(index)] : nullptr;
}

// Makes the can and bucket of `index` present. A can made here stays in
// place when its bucket cannot be had; it is empty and cleanup gives it back.
Bucket bucket_make_present(itable16_t* table, u_int32_t index) {
    Can& can = table->cans[can_of(index)];
    if (can == nullptr) {
        can = static_cast<Can>(level_alloc(table));
        if (can == nullptr) {
            return nullptr;
        }
    }
    Bucket& bucket = can[bucket_of(index)];
    if (bucket == nullptr) {
        bucket = static_cast<Bucket>(level_alloc(table));
    }
    return bucket;
}

bool bucket_empty(const Bucket bucket) {
    for (u_int32_t e = 0; e < kBucketSpan; ++e) {
        if (bucket[e] != nullptr) {
            return false;
        }
    }
    return true;
}

int bucket_count(const Bucket bucket) {
    int count = 0;
    for (u_int32_t e = 0; e < kBucketSpan; ++e) {
        count += bucket[e] != nullptr;
    }
    return count;
}

void itable16_cleanup_can(itable16_t* table, u_int32_t can_number) {
    Can can = table->cans[can_number];
    if (can == nullptr) {
        return;
    }
    bool buckets_left = false;
    for (u_int32_t b = 0; b < ITABLE16_BUCKETS_PER_CAN; ++b) {
        if (can[b] == nullptr) {
            continue;
        }
        if (bucket_empty(can[b])) {
            level_free(table, can[b]);
            can[b] = nullptr;
        } else {
            buckets_left = true;
        }
    }
    if (!buckets_left) {
        level_free(table, can);
        table->cans[can_number] = nullptr;
    }
}

status_t itable16_alloc_tail(itable16_t* table, void* ptr, index16_t* ret_index) {
    const u_int32_t index = table->itable16_maxentry;
    if (index >= table->itable16_maxindex) {
        return 12;
    }
    Bucket bucket = bucket_make_present(table, index);
    if (bucket == nullptr) {
        return 12;
    }
    bucket[entry_of(index)] = ptr;
    *ret_index = static_cast<index16_t>(index);
    table->itable16_maxentry = index + 1;
    return 0;
}

// Calls visit(can, b, first) for every bucket slot b of a present can whose
// first index lies below the mark, in ascending index order, until a visit
// answers true.
template <typename Visit>
bool visit_buckets_below(const itable16_t* table, u_int32_t mark, Visit visit) {
    for (u_int32_t c = 0; c < ITABLE16_CANS && c * kCanSpan < mark; ++c) {
        Can can = table->cans[c];
        if (can == nullptr) {
            continue;
        }
        for (u_int32_t b = 0; b < ITABLE16_BUCKETS_PER_CAN; ++b) {
            const u_int32_t first = c * kCanSpan + b * kBucketSpan;
            if (first >= mark) {
                break;
            }
            if (visit(can, b, first)) {
                return true;
            }
        }
    }
    return false;
}

// Holes below the mark, in three passes of ascending index: free slots of
// present buckets, then absent buckets of present cans, then absent cans.
// Reusing present storage first keeps released storage released.
status_t itable16_alloc_head(itable16_t* table, void* ptr, index16_t* ret_index) {
    const u_int32_t mark = table->itable16_maxentry;
    const bool in_present_bucket = visit_buckets_below(table, mark, [&](Can can, u_int32_t b, u_int32_t first) {
        if (can[b] == nullptr) {
            return false;
        }
        for (u_int32_t e = 0; e < kBucketSpan && first + e < mark; ++e) {
            if (can[b][e] == nullptr) {
                can[b][e] = ptr;
                *ret_index = static_cast<index16_t>(first + e);
                return true;
            }
        }
        return false;
    });
    if (in_present_bucket) {
        return 0;
    }
    status_t status = 0;
    const bool in_new_bucket = visit_buckets_below(table, mark, [&](Can can, u_int32_t b, u_int32_t first) {
        if (can[b] != nullptr) {
            return false;
        }
        can[b] = static_cast<Bucket>(level_alloc(table));
        if (can[b] == nullptr) {
            status = 12;
            return true;
        }
        can[b][0] = ptr;
        *ret_index = static_cast<index16_t>(first);
        return true;
    });
    if (in_new_bucket) {
        return status;
    }
    for (u_int32_t c = 0; c < ITABLE16_CANS && c * kCanSpan < mark; ++c) {
        if (table->cans[c] != nullptr) {
            continue;
        }
        Can can = static_cast<Can>(level_alloc(table));
        if (can == nullptr) {
            return 12;
        }
        can[0] = static_cast<Bucket>(level_alloc(table));
        if (can[0] == nullptr) {
            level_free(table, can);
            return 12;
        }
        table->cans[c] = can;
        can[0][0] = ptr;
        *ret_index = static_cast<index16_t>(c * kCanSpan);
        return 0;
    }
    return 12;
}

// The mark after the slot at `top` was cleared: one more than the highest
// index at or below `top` that still holds a pointer, 0 when none does.
u_int32_t mark_below(const itable16_t* table, u_int32_t top) {
    for (int c = static_cast<int>(can_of(top)); c >= 0; --c) {
        Can can = table->cans[c];
        if (can == nullptr) {
            continue;
        }
        const u_int32_t can_top = static_cast<u_int32_t>(c) == can_of(top) ? top : (c + 1) * kCanSpan - 1;
        for (int b = static_cast<int>(bucket_of(can_top)); b >= 0; --b) {
            Bucket bucket = can[b];
            if (bucket == nullptr) {
                continue;
            }
            const u_int32_t first = static_cast<u_int32_t>(c) * kCanSpan + static_cast<u_int32_t>(b) * kBucketSpan;
            const u_int32_t bucket_top = first + kBucketSpan - 1 < can_top ? first + kBucketSpan - 1 : can_top;
            for (int e = static_cast<int>(entry_of(bucket_top)); e >= 0; --e) {
                if (bucket[e] != nullptr) {
                    return first + static_cast<u_int32_t>(e) + 1;
                }
            }
        }
    }
    return 0;
}

}  // namespace

extern "C" {

void* itable16_alloc_default(void* /*alloc_ctxt*/, size_t size) { return kzalloc(size); }

void itable16_free_default(void* /*alloc_ctxt*/, void* ptr) { free(ptr); }

itable16_t* itable16_create(void) {
    auto* table = static_cast<itable16_t*>(itable16_alloc_default(nullptr, sizeof(itable16_t)));
    if (table != nullptr) {
        _itable16_init(table, itable16_alloc_default, itable16_free_default, nullptr);
    }
    return table;
}

itable16_t* itable16_create_shm(itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt) {
    if (alloc_func == nullptr || free_func == nullptr) {
        return nullptr;
    }
    auto* table = static_cast<itable16_t*>(alloc_func(ctxt, sizeof(itable16_t)));
    if (table != nullptr) {
        // The allocator promises zeros; clearing keeps a careless one from
        // leaving stray can pointers behind.
        memset(static_cast<void*>(table), 0, sizeof(*table));
        _itable16_init(table, alloc_func, free_func, ctxt);
    }
    return table;
}

void itable16_init(itable16_t* table) {
    if (table != nullptr) {
        _itable16_init(table, itable16_alloc_default, itable16_free_default, nullptr);
    }
}

void itable16_set_maxindex(itable16_t* table, u_int32_t maxindex) {
    if (table != nullptr && maxindex >= 1 && maxindex <= kIndices) {
        table->itable16_maxindex = maxindex;
    }
}

void itable16_set_packed(itable16_t* table, boolean packed) {
    if (table != nullptr) {
        table->itable16_packed = packed != 0;
    }
}

void itable16_set_cleanup_on_remove(itable16_t* table, boolean cleanup) {
    if (table != nullptr) {
        table->cleanup_on_remove = cleanup != 0;
    }
}

status_t itable16_alloc(itable16_t* table, void* ptr, index16_t* ret_index) {
    if (table->itable16_packed) {
        return itable16_alloc_head(table, ptr, ret_index) == 0 ? 0 : itable16_alloc_tail(table, ptr, ret_index);
    }
    return itable16_alloc_tail(table, ptr, ret_index) == 0 ? 0 : itable16_alloc_head(table, ptr, ret_index);
}

status_t itable16_insert(itable16_t* table, void* ptr, const index16_t* target_index) {
    const u_int32_t index = *target_index;
    if (index >= table->itable16_maxindex) {
        syslog(LOG_ERR, "ITABLE: inserting illegal index (%d)\n", static_cast<int>(index));
        return 1000;
    }
    Bucket bucket = bucket_make_present(table, index);
    if (bucket == nullptr) {
        return 12;
    }
    bucket[entry_of(index)] = ptr;
    if (index >= table->itable16_maxentry) {
        table->itable16_maxentry = index + 1;
    }
    return 0;
}

status_t itable16_bound(itable16_t* table, void* ptr, const index16_t* target_index) {
    const u_int32_t index = *target_index;
    if (index >= table->itable16_maxindex) {
        syslog(LOG_ERR, "ITABLE: insert illegal index (%d)\n", static_cast<int>(index));
        return 1000;
    }
    if (index == 0 && ptr == nullptr) {
        return 1000;
    }
    return itable16_insert(table, ptr, target_index);
}

void* itable16_lookup(itable16_t* table, const index16_t* target_index) {
    return corvex::itable::itable16_steps<0>(table, *target_index);
}

void* itable16_replace(itable16_t* table, const index16_t* target_index, void* new_pointer) {
    const u_int32_t index = *target_index;
    if (index >= table->itable16_maxentry) {
        return nullptr;
    }
    Bucket bucket = bucket_if_present(table, index);
    if (bucket == nullptr) {
        return nullptr;
    }
    void* previous = bucket[entry_of(index)];
    bucket[entry_of(index)] = new_pointer;
    return previous;
}

void itable16_remove(itable16_t* table, const index16_t* target_index) {
    const u_int32_t index = *target_index;
    Bucket bucket = bucket_if_present(table, index);
    if (bucket == nullptr || bucket[entry_of(index)] == nullptr) {
        return;
    }
    bucket[entry_of(index)] = nullptr;
    if (!table->itable16_packed) {
        if (!table->cleanup_on_remove) {
            if (++table->itable16_numremove > kRemovalsBeforeCleanup) {
                itable16_cleanup(table);
                table->itable16_numremove = 0;
            }
        } else {
            itable16_cleanup_can(table, can_of(index));
        }
    }
    if (index + 1 == table->itable16_maxentry) {
        table->itable16_maxentry = mark_below(table, index);
    }
}

void* itable16_getnext(itable16_t* table, const index16_t* prev_index, index16_t* ret_index) {
    const u_int32_t mark = table->itable16_maxentry;
    if (mark == 0) {
        return nullptr;
    }
    u_int32_t index = 0;
    if (prev_index != nullptr) {
        if (*prev_index >= mark - 1) {
            return nullptr;
        }
        index = *prev_index + 1u;
    }
    while (index < mark) {
        Can can = table->cans[can_of(index)];
        if (can == nullptr) {
            index = (can_of(index) + 1) * kCanSpan;
            continue;
        }
        Bucket bucket = can[bucket_of(index)];
        if (bucket == nullptr) {
            index = (index / kBucketSpan + 1) * kBucketSpan;
            continue;
        }
        if (bucket[entry_of(index)] != nullptr) {
            if (ret_index != nullptr) {
                *ret_index = static_cast<index16_t>(index);
            }
            return bucket[entry_of(index)];
        }
        ++index;
    }
    return nullptr;
}

void itable16_cleanup(itable16_t* table) {
    for (u_int32_t c = 0; c < ITABLE16_CANS; ++c) {
        itable16_cleanup_can(table, c);
    }
}

int itable16_destroy(itable16_t* table) {
    itable_free_t free_func = table->free_func;
    void* ctxt = table->alloc_ctxt;
    int count = 0;
    for (u_int32_t c = 0; c < ITABLE16_CANS; ++c) {
        Can can = table->cans[c];
        table->cans[c] = nullptr;
        if (can == nullptr) {
            continue;
        }
        for (u_int32_t b = 0; b < ITABLE16_BUCKETS_PER_CAN; ++b) {
            if (can[b] != nullptr) {
                count += bucket_count(can[b]);
                free_func(ctxt, can[b]);
            }
        }
        free_func(ctxt, can);
    }
    free_func(ctxt, table);
    return count;
}

}  // extern "C"
