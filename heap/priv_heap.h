// What the heap modules share: block geometry, range checks, the global
// lock and the internal operations behind the public entry points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "heap.h"
#include "priv_glb_lock.h"
#include "priv_invariants.h"
#include "priv_simd.h"

namespace corvex::heap {

// The source name every heap message, lock site and assertion carries.
inline constexpr const char kSource[] = "heap/heap";

// Block geometry. On the 32-bit target the header is 24 bytes, the
// smallest splittable excess 40 and the debug trailer 20; wider builds use
// their own sizes, derived here once.
inline constexpr size_t kHeaderSize = sizeof(heap_block_t);
inline constexpr size_t kMinBlock = 16;
inline constexpr size_t kSplitExcess = kHeaderSize + kMinBlock;
inline constexpr size_t kTrailerSize = HEAP_TRAILER_GUARD_BYTES + sizeof(void*);
inline constexpr size_t kAlign = 8;
inline constexpr size_t kFreeHookLimit = 1048576;
inline constexpr u_int32_t kOffsetField = static_cast<u_int32_t>(HEAP_BLOCK_OFFSET) & 0x3FFFu;
inline constexpr u_int32_t kUpperMark = 0xFFE4u;
// The header word heap_block_create stamps, whole (bit positions as heap.h
// lays the word out): a free block has only offset = -7; an allocated one
// adds allocated = 1, refcount = 1 and pc_saved = 1.
inline constexpr u_int32_t kFreeHeaderWord = kOffsetField << 18;
inline constexpr u_int32_t kAllocatedHeaderWord = kFreeHeaderWord | 1u << 15 | 1u << 7 | 1u;

static_assert(offsetof(heap_block_t, data) == kHeaderSize, "data follows the header directly");
static_assert(kHeaderSize % kAlign == 0, "data areas stay 8-byte aligned");
static_assert(sizeof(small_node_header_t) == 4, "the header word is one 32-bit word");
#if UINTPTR_MAX == 0xffffffffu
static_assert(kHeaderSize == 24 && kSplitExcess == 40 && kTrailerSize == 20, "target block geometry");
static_assert(offsetof(heap_block_t, x) == 4 && offsetof(heap_block_t, size) == 12, "header field positions");
static_assert(offsetof(heap_block_t, header) == 20, "header word position");
static_assert(offsetof(heap_t, links) == 4, "registry link offset");
#endif

inline constexpr u_int32_t kFreelistLinkOffset = offsetof(heap_block_t, x.free.links);
inline constexpr u_int32_t kHeapLinkOffset = offsetof(heap_t, links);

inline GlbLock heap_lock() { return GlbLock{heap_alloc_glb_lock, heap_alloc_glb_lock_filname, heap_alloc_glb_lock_line}; }

inline constexpr size_t round_up8(size_t n) { return (n + (kAlign - 1)) & ~(kAlign - 1); }

inline u_int8_t* data_of(heap_block_t* block) { return reinterpret_cast<u_int8_t*>(block) + kHeaderSize; }
// Integer arithmetic: the pointer may be anything a caller typed, and is
// range-checked only after this.
inline heap_block_t* block_of(void* raw_block) {
    return reinterpret_cast<heap_block_t*>(reinterpret_cast<uintptr_t>(raw_block) - kHeaderSize);
}
inline heap_block_t* block_of_link(list_item_t* link) {
    return link ? reinterpret_cast<heap_block_t*>(reinterpret_cast<u_int8_t*>(link) - kFreelistLinkOffset) : nullptr;
}

// The list in slot `id` when the slot is in use, else null.
inline heap_freelist_t* active_freelist(heap_t* heap, heap_freelist_id_t id) {
    return id < HEAP_FREELIST_MAX && heap->freelist_table[id].active ? &heap->freelist_table[id] : nullptr;
}

inline bool heap_valid(const heap_t* heap) { return heap != nullptr && heap->magic == HEAP_MAGIC; }

inline uintptr_t heap_end(const heap_t* heap) { return heap->base + heap->size; }

// Inside [base, base + size): the rule the heap's checks state.
inline bool addr_in_heap(const heap_t* heap, const void* addr) {
    uintptr_t a = reinterpret_cast<uintptr_t>(addr);
    return a >= heap->base && a - heap->base < heap->size;
}

// A header can be read at addr: aligned and wholly inside the range.
inline bool header_in_heap(const heap_t* heap, const void* addr) {
    // Below base the offset wraps to a huge value; base itself is aligned.
    const uintptr_t offset = reinterpret_cast<uintptr_t>(addr) - heap->base;
    return offset % alignof(heap_block_t) == 0 && heap->size >= kHeaderSize && offset <= heap->size - kHeaderSize;
}

// The block's data area ends inside the range (its header already does).
inline bool block_fits_heap(const heap_t* heap, heap_block_t* block) {
    uintptr_t data = reinterpret_cast<uintptr_t>(data_of(block));
    return block->size <= heap_end(heap) - data;
}

// Header of the physically next block, or null when the block ends at (or,
// corrupted, past) the end of the range.
inline heap_block_t* next_block_addr(const heap_t* heap, heap_block_t* block) {
    uintptr_t data = reinterpret_cast<uintptr_t>(data_of(block));
    if (block->size >= heap_end(heap) - data) {
        return nullptr;
    }
    return reinterpret_cast<heap_block_t*>(data + block->size);
}

inline bool block_is_live(const heap_block_t* block) { return block->magic == HEAP_BLOCK_MAGIC; }

inline bool header_word_marked(const heap_block_t* block) {
    u_int32_t word;
    std::memcpy(&word, &block->header, sizeof word);
    return ((word >> 16) & 0xFFFCu) == kUpperMark;
}

inline u_int32_t header_word(const heap_block_t* block) {
    u_int32_t word;
    std::memcpy(&word, &block->header, sizeof word);
    return word;
}

// Usable bytes: the trailer of a debug block is not the caller's.
inline size_t usable_size(const heap_block_t* block) {
    return block->header.debug ? block->size - kTrailerSize : block->size;
}

// The debug trailer lies inside the block and the range.
inline bool trailer_in_heap(const heap_t* heap, heap_block_t* block) {
    return block->size >= kTrailerSize && block_fits_heap(heap, block);
}
inline u_int8_t* trailer_of(heap_block_t* block) { return data_of(block) + block->size - kTrailerSize; }
// Every guard byte of the trailer is intact (false when it lies outside).
bool trailer_intact_in(heap_t* heap, heap_block_t* block);

// The shape of a heap's index, read once by an operation: the number of
// sized lists (the index is ordered by ascending size and ends with the
// default list, size 0) and the default list (null when there is none).
struct ListIndex {
    size_t sized;
    heap_freelist_t* deflt;
};
inline ListIndex list_index_of(const heap_t* heap) {
    const size_t lists = heap->freelist.item_count;
    if (lists > 0 && heap->freelist_size[lists - 1].size == 0) {
        return {lists - 1, heap->freelist_size[lists - 1].freelist};
    }
    return {lists, nullptr};
}
inline size_t sized_count(const heap_t* heap) { return list_index_of(heap).sized; }

// First index entry whose size is at least `size` (`sized` when none is).
inline size_t first_at_least(const heap_t* heap, size_t sized, size_t size) {
    size_t low = 0, high = sized;
    while (low < high) {
        size_t mid = (low + high) / 2;
        if (heap->freelist_size[mid].size < size) {
            low = mid + 1;
        } else {
            high = mid;
        }
    }
    return low;
}

// The bits of the sized lists that hold blocks (heap_freelist_bits.cpp),
// one record for each of the first kTrackedHeaps registered heaps, found by
// the heap's registry number and claimed by its address: attach once the
// heap is registered, rebuild when the index changes, note a list that
// became empty or non-empty, and find the first entry from `from` on whose
// list holds a block (`sized` when none does).
inline constexpr u_int32_t kTrackedHeaps = 1024;
struct ListBits {
    const heap_t* heap;
    u_int32_t nonempty;                          // bit k: index entry k is a sized list holding a block
    u_int8_t entry_of_slot[HEAP_FREELIST_MAX];  // index entry of each sized list, by slot id
};
extern __attribute__((visibility("hidden"))) ListBits list_bits[kTrackedHeaps];
inline ListBits* freelist_bits_of(const heap_t* heap) {
    if (heap->id >= kTrackedHeaps || list_bits[heap->id].heap != heap) {
        return nullptr;
    }
    return &list_bits[heap->id];
}
// No sized list holds a block, by the bits (false for a heap without them).
inline bool freelist_bits_none(const heap_t* heap) {
    const ListBits* bits = freelist_bits_of(heap);
    return bits != nullptr && bits->nonempty == 0;
}
void freelist_bits_attach(heap_t* heap);
void freelist_bits_rebuild(heap_t* heap);
void freelist_bits_note(heap_t* heap, heap_freelist_t* list);
size_t freelist_bits_first(heap_t* heap, size_t from, size_t sized);

// Lists every heap starts with (heap_create.cpp); more may be added later.
inline constexpr size_t kStartingLists = 15;

// After an operation that changed the heap: the invariants written at heap_t
// (heap.h) asserted, in builds made with CORVEX_INVARIANTS; nothing else.
#if CORVEX_INVARIANTS
void heap_invariants_check(heap_t* heap);
#else
inline void heap_invariants_check(heap_t*) {}
#endif

// Why a block fails validation: the error string of the first test that
// fails (null when all pass) and the neighbours the report names.
enum : unsigned { kNamesNone = 0, kNamesPrevious = 1, kNamesNext = 2, kNamesBoth = 3 };
// A block that passes has `next`: the next block's header, or null when the
// block is the last of the range.
struct BlockFailure {
    const char* error;
    unsigned neighbours;
    heap_block_t* next;
};

// What a caller already knows of a block it checks, from tests it has run
// since the last change that could undo them: a neighbour header (`beside`,
// the block before or after it) found inside the range, and whether that
// neighbour's mark and the block's own mark were found live. Tests whose
// outcome is known are not run again; the others run in their order.
struct KnownSound {
    const heap_block_t* beside = nullptr;
    bool beside_live = false;
    bool self_live = false;
};

// Tests 2 to 12, in their fixed order, on a block of a valid heap. A header
// is read only where one fits inside the range. Inline, so that the release
// path pays only for the tests (forced: the callers' own checks then fold
// into the tests).
[[gnu::always_inline]] inline BlockFailure block_first_failure(heap_t* heap, heap_block_t* block,
                                                               KnownSound known = {}) {
    if (!known.self_live && !block_is_live(block)) {
        return {"Invalid header magic number", kNamesNone, nullptr};
    }
    if (!header_word_marked(block)) {
        return {"Invalid header block magic number", kNamesNone, nullptr};
    }
    heap_block_t* prev = block->prev;
    const bool prev_known = prev == known.beside;
    if (prev != nullptr && !prev_known && !header_in_heap(heap, prev)) {
        return {"Possible block overrun - bad prev block pointer", kNamesNone, nullptr};
    }
    if (prev != nullptr && !(prev_known && known.beside_live) && !block_is_live(prev)) {
        return {"Possible block overrun - bad prev header magic number", kNamesPrevious, nullptr};
    }
    heap_block_t* next = next_block_addr(heap, block);
    if (next != nullptr) {
        const bool next_known = next == known.beside;
        const bool next_readable = next_known || header_in_heap(heap, next);
        if (!next_readable || !((next_known && known.beside_live) || block_is_live(next))) {
            return {"Possible block overrun - bad next header magic number",
                    next_readable ? kNamesBoth : kNamesPrevious, nullptr};
        }
    }
    if (block->header.allocated) {
        if (block->header.refcount == 0) {
            return {"Zero refcount in header for allocated block", kNamesBoth, next};
        }
        if (block->x.alloc.heap != heap) {
            return {"Invalid heap pointer in header", kNamesBoth, next};
        }
        if (block->header.debug && !trailer_intact_in(heap, block)) {
            return {"Block overrun - TRAILER overwritten", kNamesBoth, next};
        }
        return {nullptr, kNamesNone, next};
    }
    if (block->header.refcount != 0) {
        return {"Non-zero refcount in header for free block", kNamesBoth, next};
    }
    if (block->x.free.links.prev != nullptr && !addr_in_heap(heap, block->x.free.links.prev)) {
        return {"Invalid fprev pointer", kNamesBoth, next};
    }
    if (block->x.free.links.next != nullptr && !addr_in_heap(heap, block->x.free.links.next)) {
        return {"Invalid fnext pointer", kNamesBoth, next};
    }
    return {nullptr, kNamesNone, next};
}

// A block that failed (or a bad heap): the report when noisy or active,
// then 1000, or the panic when active.
status_t heap_block_validate_failed(heap_t* heap, heap_block_t* block, boolean noisy, boolean active);

// 0 when the block passes every test; otherwise as heap_block_validate_failed.
inline status_t heap_block_validate(heap_t* heap, heap_block_t* block, boolean noisy, boolean active) {
    if (heap_valid(heap) && block_first_failure(heap, block).error == nullptr) {
        return 0;
    }
    return heap_block_validate_failed(heap, block, noisy, active);
}
// The release path's checks, noisy and active, on a valid heap: of the
// released block and of a free neighbour of it. A failure is reported and
// ends in a panic; a block that passes gives its next block (null: the last
// of the range).
[[gnu::always_inline]] inline heap_block_t* heap_block_checked(heap_t* heap, heap_block_t* block,
                                                               KnownSound known = {}) {
    const BlockFailure failure = block_first_failure(heap, block, known);
    if (failure.error != nullptr) [[unlikely]] {
        heap_block_validate_failed(heap, block, TRUE, TRUE);
    }
    return failure.next;
}
[[noreturn]] void heap_bad_heap_panic(heap_t* heap);
// A block whose size runs past the end of its heap: report, then panic.
[[noreturn]] void heap_block_extent_panic(heap_t* heap, heap_block_t* block);
// The registered heap whose range holds a header at addr (a sound one before
// one whose magic is broken), or null.
heap_t* heap_registered_owner(const void* addr);
bool heap_is_registered(const heap_t* heap);
// heap_list exists (a heap has been created).
bool heap_registry_exists();

// The name displays show for a heap (its creator may have given none).
inline const char* heap_display_name(const heap_t* heap) { return heap->name != nullptr ? heap->name : "<none>"; }

// The accounting reports of `show heap ID accounting ...`, by selector (20 to 23).
void heap_accounting_show(heap_t* heap, u_int32_t selector);

// Per-PC counting of allocations and releases for the rates report. The
// number of heaps being counted is read under the heap lock by the
// allocation and release paths: while it is 0 they pay one load and one
// branch.
extern __attribute__((visibility("hidden"))) u_int32_t heap_rates_counted;
void heap_rates_count(heap_t* heap, heap_block_t* block, bool allocated);
// Counts block's allocation (allocated) or release, the heap lock held.
inline void heap_rates_note(heap_t* heap, heap_block_t* block, bool allocated) {
    if (heap_rates_counted != 0) [[unlikely]] {
        heap_rates_count(heap, block, allocated);
    }
}

// Free lists take released blocks at the tail (first in, first out).
inline bool heap_lists_fifo(const heap_t* heap) { return (heap->debug_flags & HEAP_DEBUG_FLAG_FIFO) != 0; }

// The default block hooks' work, for the exported hooks and for the paths
// that run a default hook in place of calling it (heap_debug.cpp).
inline void heap_fill_words(u_int32_t* word, size_t words) {
    // Two words a store: the same bytes, half the stores. With an odd
    // count the last store overlaps the one before it.
    constexpr u_int64_t kTwoWords = u_int64_t{HEAP_FREE_FILL} << 32 | HEAP_FREE_FILL;
    if (words < 2) {
        if (words != 0) {
            *word = HEAP_FREE_FILL;
        }
        return;
    }
    u_int32_t* last_two = word + words - 2;
    for (; word < last_two; word += 2) {
        std::memcpy(word, &kTwoWords, sizeof kTwoWords);
    }
    std::memcpy(last_two, &kTwoWords, sizeof kTwoWords);
}
void heap_fill_words_vector(u_int32_t* word, size_t words);
inline void heap_fill_released(void* p, size_t size) {
    if (size < 1 || size > kFreeHookLimit) {
        return;
    }
    // Below a few vector stores the plain loop is quicker.
    auto* word = static_cast<u_int32_t*>(p);
    if (size >= 64 && cpu_has_vector_unit()) {
        heap_fill_words_vector(word, size / 4);
    } else {
        heap_fill_words(word, size / 4);
    }
}
inline void heap_mark_swallowed(void* p, size_t old_size) {
    auto* dead = reinterpret_cast<heap_block_t*>(static_cast<u_int8_t*>(p) + old_size);
    dead->magic = HEAP_BLOCK_DEAD_MAGIC;
    dead->header.debug = 0;
}

}  // namespace corvex::heap

// The default hooks under the library's own addresses (hidden aliases of the
// exported ones, heap_debug.cpp). A hook slot holding one of these runs that
// default, which the allocation and release paths then do in place; a host
// that interposes a default under its exported name installs another
// address, which is called.
extern "C" {
__attribute__((visibility("hidden"))) void heap_own_post_free(void* p, size_t size);
__attribute__((visibility("hidden"))) void heap_own_post_coalesce(void* p, size_t size, size_t old_size);
__attribute__((visibility("hidden"))) void heap_own_pre_alloc(void* p, size_t size);
}

namespace corvex::heap {

// The common case of an allocation or a release: no trace (the heap's debug
// flag), no per-caller counting, last-in-first-out lists and the default
// hooks. Such an operation is compiled apart, without the tests and calls
// it does not need; everything it changes, it changes as the general one.
// (The flags are or-ed, not tested one by one: one branch for all.)
inline bool heap_alloc_is_plain(const heap_t* heap) {
    const u_int32_t flags = heap->debug | heap->debug_enabled | (heap->debug_flags & HEAP_DEBUG_FLAG_FIFO) |
                            heap_rates_counted;
    return flags == 0 && heap->debug_proc.pre_alloc == heap_own_pre_alloc;
}
inline bool heap_release_is_plain(const heap_t* heap) {
    const u_int32_t flags = heap->debug | (heap->debug_flags & HEAP_DEBUG_FLAG_FIFO) | heap_rates_counted;
    return flags == 0 && heap->debug_proc.post_free == heap_own_post_free &&
           heap->debug_proc.post_coalesce == heap_own_post_coalesce;
}

}  // namespace corvex::heap
