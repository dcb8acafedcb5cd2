// 32-bit indexed table: an upper 16-bit table whose slots hold lower 16-bit
// tables. Index i lives at slot (i & 0xFFFF) of the lower table stored at
// slot (i >> 16) of the upper table.
//
// The mark holds highest index + 1 in 32 bits, so index 0xFFFFFFFF is never
// stored: insert refuses it and the lower table of upper index 0xFFFF is
// limited to 0xFFFF indices, so no allocation can reach it either.
#include <cstdlib>
#include <cstring>

#include "heap.h"
#include "itable32.h"
#include "../itable/priv_itable_steps.h"

namespace {

constexpr u_int32_t kLowerIndices = 0x10000;
constexpr u_int32_t kTopUpper = 0xFFFF;
// Removals counted before the whole table is tidied.
constexpr u_int32_t kRemovalsBeforeCleanup = 10000;

constexpr index16_t upper_of(u_int32_t index) { return static_cast<index16_t>(index >> 16); }
constexpr index16_t lower_of(u_int32_t index) { return static_cast<index16_t>(index & 0xFFFF); }

// Indices a lower table at upper index `u` may hand out under the limit
// `maxindex`: the table holding the limit stops right after it; the one at
// 0xFFFF never reaches 0xFFFF, the index the mark cannot represent.
u_int32_t lower_limit(u_int32_t maxindex, u_int32_t u) {
    u_int32_t limit = u == upper_of(maxindex) ? lower_of(maxindex) + 1u : kLowerIndices;
    return u == kTopUpper && limit > kTopUpper ? kTopUpper : limit;
}

itable16_t* lower_at(const itable32_t* table, u_int32_t u) {
    return static_cast<itable16_t*>(itable16_lookup_inline(table->itable32_upper, static_cast<index16_t>(u)));
}

itable16_t* itable32_alloc_lower(itable32_t* table, u_int32_t u) {
    if (u > upper_of(table->itable32_maxindex)) {
        return nullptr;
    }
    itable16_t* lower = table->shm_flag
                            ? itable16_create_shm(table->alloc_func, table->free_func, table->alloc_ctxt)
                            : itable16_create();
    if (lower == nullptr) {
        return nullptr;
    }
    const index16_t slot = static_cast<index16_t>(u);
    if (itable16_insert(table->itable32_upper, lower, &slot) != 0) {
        itable16_destroy(lower);
        return nullptr;
    }
    itable16_set_packed(lower, table->itable32_packed);
    itable16_set_cleanup_on_remove(lower, table->cleanup_on_remove);
    itable16_set_maxindex(lower, lower_limit(table->itable32_maxindex, u));
    return lower;
}

itable16_t* lower_or_make(itable32_t* table, u_int32_t u) {
    itable16_t* lower = lower_at(table, u);
    return lower != nullptr ? lower : itable32_alloc_lower(table, u);
}

// Calls visit(lower) for every lower table in ascending upper index. The
// upper table's walk starts after index 0, so slot 0 is visited first on
// its own. `visit` may release the lower table but must not touch the upper.
template <typename Visit>
void for_each_lower(itable32_t* table, Visit visit) {
    itable16_t* upper = table->itable32_upper;
    index16_t u = 0;
    if (auto* lower = static_cast<itable16_t*>(itable16_lookup_inline(upper, 0)); lower != nullptr) {
        visit(lower);
    }
    while (auto* lower = static_cast<itable16_t*>(itable16_getnext(upper, &u, &u))) {
        visit(lower);
    }
}

void note_stored(itable32_t* table, u_int32_t index) {
    if (index >= table->itable32_maxentry) {
        table->itable32_maxentry = index + 1;
    }
}

// Empty lower tables are destroyed and removed, the others tidied, up to
// upper index `top`.
void cleanup_lowers(itable32_t* table, u_int32_t top) {
    for (u_int32_t u = 0; u <= top; ++u) {
        itable16_t* lower = lower_at(table, u);
        if (lower == nullptr) {
            continue;
        }
        if (lower->itable16_maxentry == 0) {
            itable16_destroy(lower);
            const index16_t slot = static_cast<index16_t>(u);
            itable16_remove(table->itable32_upper, &slot);
        } else {
            itable16_cleanup(lower);
        }
    }
}

// Highest index + 1 over the lower tables at or below upper index `from`.
u_int32_t mark_below(const itable32_t* table, u_int32_t from) {
    for (int u = static_cast<int>(from); u >= 0; --u) {
        const itable16_t* lower = lower_at(table, static_cast<u_int32_t>(u));
        if (lower != nullptr && lower->itable16_maxentry != 0) {
            return static_cast<u_int32_t>(u) * kLowerIndices + lower->itable16_maxentry;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

void* itable32_alloc_default(void* /*alloc_ctxt*/, size_t size) { return kzalloc(size); }

void itable32_free_default(void* /*alloc_ctxt*/, void* ptr) { free(ptr); }

status_t itable32_init(itable32_t* table, itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt,
                       int shm_flag) {
    if (table == nullptr) {
        return 1000;
    }
    table->itable32_maxindex = 0xFFFFFFFFu;
    table->itable32_packed = 0;
    table->cleanup_on_remove = 0;
    table->alloc_func = alloc_func;
    table->free_func = free_func;
    table->alloc_ctxt = ctxt;
    table->shm_flag = shm_flag != 0;
    table->itable32_upper = shm_flag ? itable16_create_shm(alloc_func, free_func, ctxt) : itable16_create();
    return table->itable32_upper != nullptr ? 0 : 1000;
}

// A record from the given allocator, cleared and initialised; null when
// either step fails (the record is then given back).
static itable32_t* itable32_make(itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt, boolean shm_flag) {
    auto* table = static_cast<itable32_t*>(alloc_func(ctxt, sizeof(itable32_t)));
    if (table == nullptr) {
        return nullptr;
    }
    memset(static_cast<void*>(table), 0, sizeof(*table));
    if (itable32_init(table, alloc_func, free_func, ctxt, shm_flag) != 0) {
        free_func(ctxt, table);
        return nullptr;
    }
    return table;
}

itable32_t* itable32_create(void) {
    return itable32_make(itable32_alloc_default, itable32_free_default, nullptr, 0);
}

itable32_t* itable32_create_shm(itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt) {
    if (alloc_func == nullptr || free_func == nullptr) {
        return nullptr;
    }
    return itable32_make(alloc_func, free_func, ctxt, 1);
}

void itable32_set_maxindex(itable32_t* table, u_int32_t maxindex) {
    if (table == nullptr || maxindex == 0) {
        return;
    }
    const u_int32_t old = table->itable32_maxindex;
    if (old != 0xFFFFFFFFu) {
        itable16_set_maxindex(lower_at(table, upper_of(old)), lower_limit(0xFFFFFFFFu, upper_of(old)));
    }
    itable16_set_maxindex(lower_at(table, upper_of(maxindex)), lower_limit(maxindex, upper_of(maxindex)));
    table->itable32_maxindex = maxindex;
}

void itable32_set_packed(itable32_t* table, boolean packed) {
    packed = packed != 0;
    if (table == nullptr || table->itable32_packed == packed) {
        return;
    }
    table->itable32_packed = packed;
    for_each_lower(table, [packed](itable16_t* lower) { itable16_set_packed(lower, packed); });
}

void itable32_set_cleanup_on_remove(itable32_t* table, boolean cleanup) {
    cleanup = cleanup != 0;
    if (table == nullptr || table->cleanup_on_remove == cleanup) {
        return;
    }
    table->cleanup_on_remove = cleanup;
    for_each_lower(table, [cleanup](itable16_t* lower) { itable16_set_cleanup_on_remove(lower, cleanup); });
}

status_t itable32_alloc(itable32_t* table, void* ptr, index32_t* ret_index32) {
    const u_int32_t mark = table->itable32_maxentry;
    const index16_t start = table->itable32_packed || mark == 0 ? 0 : upper_of(mark - 1);
    index16_t u = start;
    index16_t lower_index = 0;
    for (;;) {
        itable16_t* lower = lower_at(table, u);
        if (lower == nullptr) {
            lower = itable32_alloc_lower(table, u);
            if (lower == nullptr) {
                return 12;
            }
            const status_t status = itable16_alloc(lower, ptr, &lower_index);
            if (status != 0) {
                return status;
            }
            break;
        }
        if (itable16_alloc(lower, ptr, &lower_index) == 0) {
            break;
        }
        if (++u == start) {
            return 12;
        }
    }
    const u_int32_t index = static_cast<u_int32_t>(u) * kLowerIndices + lower_index;
    *ret_index32 = index;
    note_stored(table, index);
    return 0;
}

status_t itable32_insert(itable32_t* table, void* ptr, const index32_t* target_index) {
    const u_int32_t index = *target_index;
    if (index > table->itable32_maxindex || index == 0xFFFFFFFFu) {
        return 1000;
    }
    itable16_t* lower = lower_or_make(table, upper_of(index));
    if (lower == nullptr) {
        return 12;
    }
    const index16_t slot = lower_of(index);
    const status_t status = itable16_insert(lower, ptr, &slot);
    if (status != 0) {
        return status;
    }
    note_stored(table, index);
    return 0;
}

void* itable32_lookup(itable32_t* table, const index32_t* target_index) {
    if (table == nullptr || table->itable32_upper == nullptr) {
        return nullptr;
    }
    // Both halves are taken from the whole index (see itable16_steps).
    const u_int32_t index = *target_index;
    auto* lower = static_cast<itable16_t*>(corvex::itable::itable16_steps<16>(table->itable32_upper, index));
    return lower != nullptr ? corvex::itable::itable16_steps<0>(lower, index) : nullptr;
}

void* itable32_replace(itable32_t* table, const index32_t* target_index, void* new_pointer) {
    itable16_t* lower = lower_or_make(table, upper_of(*target_index));
    if (lower == nullptr) {
        return nullptr;
    }
    const index16_t slot = lower_of(*target_index);
    return itable16_replace(lower, &slot, new_pointer);
}

void itable32_remove(itable32_t* table, const index32_t* target_index) {
    const u_int32_t index = *target_index;
    itable16_t* lower = lower_at(table, upper_of(index));
    if (lower == nullptr) {
        return;
    }
    const index16_t slot = lower_of(index);
    itable16_remove(lower, &slot);
    const u_int32_t mark = table->itable32_maxentry;
    const u_int32_t top_upper = mark != 0 ? upper_of(mark - 1) : 0;
    if (!table->itable32_packed && !table->cleanup_on_remove &&
        ++table->itable32_numremove > kRemovalsBeforeCleanup) {
        cleanup_lowers(table, top_upper);
        table->itable32_numremove = 0;
    }
    if (index + 1 == table->itable32_maxentry) {
        table->itable32_maxentry = mark_below(table, upper_of(index));
    }
}

void* itable32_getnext(itable32_t* table, const index32_t* prev_index, index32_t* ret_index) {
    if (table->itable32_maxentry == 0) {
        return nullptr;
    }
    index16_t u = 0;
    index16_t l = 0;
    void* found = nullptr;
    if (prev_index == nullptr) {
        const index32_t first = 0;
        found = itable32_lookup(table, &first);
    } else {
        u = upper_of(*prev_index);
        l = lower_of(*prev_index);
    }
    while (found == nullptr) {
        itable16_t* lower = lower_at(table, u);
        if (lower != nullptr && (found = itable16_getnext(lower, &l, &l)) != nullptr) {
            break;
        }
        lower = static_cast<itable16_t*>(itable16_getnext(table->itable32_upper, &u, &u));
        if (lower == nullptr) {
            return nullptr;
        }
        l = 0;
        found = itable16_lookup_inline(lower, 0);
    }
    if (ret_index != nullptr) {
        *ret_index = static_cast<u_int32_t>(u) * kLowerIndices + l;
    }
    return found;
}

int itable32_destroy(itable32_t* table) {
    int stored = 0;
    for_each_lower(table, [&stored](itable16_t* lower) { stored += itable16_destroy(lower); });
    itable16_destroy(table->itable32_upper);
    table->itable32_upper = nullptr;
    table->free_func(table->alloc_ctxt, table);
    return stored;
}

}  // extern "C"
