// Which sized free lists of a heap hold blocks, one bit per index entry, so
// that the class search is a bit scan instead of a walk past empty lists.
//
// The heap record's layout is fixed, so the bits are kept beside it: one
// word for each of the first kTrackedHeaps registered heaps, found by the
// heap's registry number and claimed by its address. A heap without a word
// (not yet registered, or registered later) is searched list by list, which
// is what the bits stand for. The bits change with the lists, under the
// same serialisation: a list becoming empty or non-empty updates its bit.
#include <bit>

#include "priv_heap.h"

namespace corvex::heap {

ListBits list_bits[kTrackedHeaps];

namespace {

static_assert(HEAP_FREELIST_MAX <= 32, "one bit per index entry in a 32-bit word");

bool holds_blocks(const heap_t* heap, size_t k) { return heap->freelist_size[k].freelist->blocks.head != nullptr; }

}  // namespace

void freelist_bits_attach(heap_t* heap) {
    if (heap->id < kTrackedHeaps) {
        list_bits[heap->id].heap = heap;
        freelist_bits_rebuild(heap);
    }
}

void freelist_bits_rebuild(heap_t* heap) {
    ListBits* bits = freelist_bits_of(heap);
    if (bits == nullptr) {
        return;
    }
    bits->nonempty = 0;
    for (size_t k = 0, sized = sized_count(heap); k < sized; ++k) {
        bits->nonempty |= holds_blocks(heap, k) ? 1u << k : 0u;
        bits->entry_of_slot[heap->freelist_size[k].freelist->id % HEAP_FREELIST_MAX] = static_cast<u_int8_t>(k);
    }
}

void freelist_bits_note(heap_t* heap, heap_freelist_t* list) {
    ListBits* bits = freelist_bits_of(heap);
    if (bits == nullptr || list->size == 0) {
        return;
    }
    const size_t k = bits->entry_of_slot[list->id % HEAP_FREELIST_MAX];
    if (heap->freelist_size[k].freelist != list) {
        return;
    }
    const u_int32_t bit = 1u << k;
    bits->nonempty = list->blocks.head != nullptr ? bits->nonempty | bit : bits->nonempty & ~bit;
}

size_t freelist_bits_first(heap_t* heap, size_t from, size_t sized) {
    ListBits* bits = freelist_bits_of(heap);
    if (bits == nullptr) {
        while (from < sized && !holds_blocks(heap, from)) {
            ++from;
        }
        return from;
    }
    const u_int32_t below_from = from < 32 ? (1u << from) - 1 : ~0u;
    for (u_int32_t candidates = bits->nonempty & ~below_from; candidates != 0; candidates &= candidates - 1) {
        const auto k = static_cast<size_t>(std::countr_zero(candidates));
        if (k >= sized) {
            break;
        }
        if (holds_blocks(heap, k)) {
            return k;
        }
        // Emptied behind the heap's back: the list is the truth.
        bits->nonempty &= ~(1u << k);
    }
    return sized;
}

}  // namespace corvex::heap
