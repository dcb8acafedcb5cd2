// The block log (system log) and the block display (CLI): the same facts
// about one header, in two fixed formats. Neither reads outside the range
// of the heap it is given.
#include <cstring>
#include <syslog.h>

#include "host_cli.h"
#include "priv_heap.h"

namespace corvex::heap {

namespace {

constexpr int kDumpWords = 20;
constexpr int kGuardWords = HEAP_TRAILER_GUARD_BYTES / 4;

const char* yes_no(unsigned bit) { return bit ? "yes" : "no"; }

// What both formats print about a header, read once.
struct BlockFacts {
    heap_block_t* block;
    void* data;
    u_int32_t word;
    int32_t offset;  // sign-extended
    bool marked;
    void* prev_data;
    void* free_next_data;
    void* free_prev_data;
    u_int8_t* trailer_start;
    u_int8_t* trailer_end;

    explicit BlockFacts(heap_block_t* b)
        : block(b),
          data(data_of(b)),
          word(header_word(b)),
          offset(static_cast<int32_t>(static_cast<u_int32_t>(b->header.offset) << 18) >> 18),
          marked(header_word_marked(b)),
          prev_data(shifted(b->prev, kHeaderSize)),
          free_next_data(shifted(b->x.free.links.next, kHeaderSize - kFreelistLinkOffset)),
          free_prev_data(shifted(b->x.free.links.prev, kHeaderSize - kFreelistLinkOffset)),
          trailer_start(static_cast<u_int8_t*>(shifted(data, b->size - kTrailerSize))),
          trailer_end(static_cast<u_int8_t*>(shifted(trailer_start, HEAP_TRAILER_GUARD_BYTES - 1))) {}

    static void* shifted(const void* p, uintptr_t by) {
        return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) + by);
    }
    u_int32_t guard_word(int i) const {
        u_int32_t w;
        std::memcpy(&w, trailer_start + 4 * i, sizeof w);
        return w;
    }
    u_int8_t* pc_word_addr() const { return trailer_start + HEAP_TRAILER_GUARD_BYTES; }
    void* trailer_pc() const {
        void* pc;
        std::memcpy(&pc, pc_word_addr(), sizeof pc);
        return pc;
    }
    u_int32_t pc_word() const {
        u_int32_t w;
        std::memcpy(&w, pc_word_addr(), sizeof w);
        return w;
    }
};

// The heap whose range bounds the raw dump: the given one when it is sound,
// else the registered heap holding the header (one whose magic was broken
// still bounds where its blocks lie).
heap_t* range_heap(heap_t* heap, heap_block_t* block) {
    return heap_valid(heap) ? heap : heap_registered_owner(block);
}

void log_raw_dump(u_int32_t priority, heap_t* bound, heap_block_t* block) {
    auto* word_addr = reinterpret_cast<u_int8_t*>(block);
    for (int i = 0; i < kDumpWords; ++i, word_addr += 4) {
        if (bound != nullptr && reinterpret_cast<uintptr_t>(word_addr) + 4 > heap_end(bound)) {
            break;
        }
        u_int32_t w;
        std::memcpy(&w, word_addr, sizeof w);
        syslog(static_cast<int>(priority), "HEAP: memory address = %p, data = 0x%08x\n", static_cast<void*>(word_addr),
               w);
    }
    syslog(static_cast<int>(priority), "\n\n");
}

// The heap the block is valid in (null when it is not): the given one, or
// for a null heap the one an allocated header names, if that is registered.
heap_t* validated_heap(heap_t* heap, heap_block_t* block) {
    if (heap == nullptr && block->header.allocated) {
        heap = block->x.alloc.heap;
        if (!heap_is_registered(heap)) {
            return nullptr;
        }
    }
    return heap_block_validate(heap, block, FALSE, FALSE) == 0 ? heap : nullptr;
}

}  // namespace

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

void heap_block_log(u_int32_t priority, heap_t* heap, heap_block_t* block) {
    if (block == nullptr) {
        return;
    }
    heap_bp_failure();
    const int prio = static_cast<int>(priority);
    syslog(prio, "HEAP: \n");
    syslog(prio, "HEAP: \n");
    syslog(prio, "HEAP: Heap block: Header Address: %p\n", static_cast<void*>(block));
    syslog(prio, "HEAP: Heap block: Data   Address: %p\n\n", static_cast<void*>(data_of(block)));
    if (heap_valid(heap) && !header_in_heap(heap, block)) {
        syslog(prio, "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
        return;
    }
    const BlockFacts f(block);
    heap_t* bound = range_heap(heap, block);
    log_raw_dump(priority, bound, block);
    syslog(prio, "HEAP: Common Header : bit fields:  0x%08x\n\n", f.word);
    syslog(prio, "HEAP:     allocated : %s\n", block->header.allocated ? "Allocated" : "Free");
    syslog(prio, "HEAP:     orphaned  : %s\n", yes_no(block->header.orphaned));
    syslog(prio, "HEAP:     debug     : %s\n", yes_no(block->header.debug));
    syslog(prio, "HEAP:     unused    : %d\n", static_cast<int>(block->header.unused));
    if (block->header.refcount == HEAP_REFCOUNT_LOCKED) {
        syslog(prio, "HEAP:     refcount  : %d: Node permanently locked\n", static_cast<int>(block->header.refcount));
    } else {
        syslog(prio, "HEAP:     refcount  : %d\n", static_cast<int>(block->header.refcount));
    }
    syslog(prio, "HEAP: \n");
    syslog(prio, "HEAP:     offset    : %8x    : %s Heap Block Magic number \n", static_cast<unsigned>(f.offset),
           f.marked ? "Good" : "Bad ");
    heap_t* checked = validated_heap(heap, block);
    if (checked == nullptr) {
        syslog(prio, "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
        return;
    }
    syslog(prio, "HEAP:     PC       : %p\n", heap_get_pc(f.data));
    syslog(prio, "\n");
    syslog(prio, "HEAP: Heap Block Specific:\n");
    syslog(prio, "HEAP:     prev          : %p      (Data address %p)\n", static_cast<void*>(block->prev), f.prev_data);
    if (block->header.allocated) {
        syslog(prio, "HEAP:     alloc pc      : %p\n", block->x.alloc.allocator.pc);
        syslog(prio, "HEAP:     alloc heap    : %p\n", static_cast<void*>(block->x.alloc.heap));
    } else {
        syslog(prio, "HEAP:     free next     : %p      (Data address %p)\n",
               static_cast<void*>(block->x.free.links.next), f.free_next_data);
        syslog(prio, "HEAP:     free prev     : %p      (Data address %p)\n",
               static_cast<void*>(block->x.free.links.prev), f.free_prev_data);
    }
    syslog(prio, "HEAP:     size          : %4d\n", static_cast<int>(block->size));
    syslog(prio, "HEAP:     magic         : %4x\n", static_cast<unsigned>(block->magic));
    syslog(prio, "HEAP:     freelist_id   : %4d\n", static_cast<int>(block->freelist_id));
    if (!block->header.debug) {
        return;
    }
    syslog(prio, "HEAP: block: TRAILER: Start %p\n", static_cast<void*>(f.trailer_start));
    syslog(prio, "HEAP: block: TRAILER: End   %p\n", static_cast<void*>(f.trailer_end));
    if (!trailer_in_heap(checked, block)) {
        syslog(prio, "HEAP: block: TRAILER: outside the heap\n");
        return;
    }
    if (!trailer_intact_in(checked, block)) {
        syslog(prio, "HEAP: block: TRAILER: OVERRUN!!!!\n");
        for (int i = 0; i < kGuardWords; ++i) {
            syslog(prio, "HEAP: block TRAILER dump:       address = %p, data = 0x%08x\n",
                   static_cast<void*>(f.trailer_start + 4 * i), f.guard_word(i));
        }
        syslog(prio, "HEAP: block PC      dump:       address = %p, data = 0x%08x\n",
               static_cast<void*>(f.pc_word_addr()), f.pc_word());
    }
    syslog(prio, "HEAP: block: PC: = %p\n", f.trailer_pc());
}

void heap_show_block(heap_t* heap, void* raw_block) {
    if (!heap_valid(heap)) {
        parser_printf("\n\nHeap bad: %p\n\n", static_cast<void*>(heap));
        return;
    }
    if (raw_block == nullptr) {
        return;
    }
    heap_block_t* block = block_of(raw_block);
    parser_printf("\n\n");
    parser_printf("Heap block: Header Address: %p\n", static_cast<void*>(block));
    parser_printf("Heap block: Data   Address: %p\n\n", raw_block);
    // An operator may type any address: nothing outside the range is read.
    if (!header_in_heap(heap, block)) {
        parser_printf("Not a block of heap %p (%p - %p)\n", static_cast<void*>(heap),
                      reinterpret_cast<void*>(heap->base), reinterpret_cast<void*>(heap_end(heap)));
        parser_printf("\n******** FAILED VALIDITY CHECKS **********\n\n");
        return;
    }
    const BlockFacts f(block);
    parser_printf("Common Header : bit fields:  0x%08x\n\n", f.word);
    parser_printf("    allocated : %s\n", block->header.allocated ? "Allocated" : "Free");
    parser_printf("    orphaned  : %s\n", yes_no(block->header.orphaned));
    parser_printf("    debug     : %s\n", yes_no(block->header.debug));
    parser_printf("    unused    : %d\n", static_cast<int>(block->header.unused));
    parser_printf("    refcount  : %d", static_cast<int>(block->header.refcount));
    parser_printf(block->header.refcount == HEAP_REFCOUNT_LOCKED ? ": Node permanently locked\n" : "\n");
    parser_printf("    pc_saved  : %d          ", static_cast<int>(block->header.pc_saved));
    parser_printf("\n");
    parser_printf("    offset   : %8x", static_cast<unsigned>(f.offset));
    parser_printf("    : %s Heap Block Magic number \n", f.marked ? "Good" : "Bad ");
    if (heap_block_validate(heap, block, FALSE, FALSE) != 0) {
        parser_printf("\n******** FAILED VALIDITY CHECKS **********\n\n");
        return;
    }
    parser_printf("Heap Block Specific:\n");
    parser_printf("    prev          : %p      (Data address %p)\n", static_cast<void*>(block->prev), f.prev_data);
    if (block->header.allocated) {
        parser_printf("    alloc pc      : %p\n", block->x.alloc.allocator.pc);
        parser_printf("    alloc heap    : %p\n", static_cast<void*>(block->x.alloc.heap));
    } else {
        parser_printf("    free next     : %p      (Data address %p)\n", static_cast<void*>(block->x.free.links.next),
                      f.free_next_data);
        parser_printf("    free prev     : %p      (Data address %p)\n", static_cast<void*>(block->x.free.links.prev),
                      f.free_prev_data);
    }
    parser_printf("    size          : %4u\n", static_cast<unsigned>(block->size));
    parser_printf("    magic         : %4x\n", static_cast<unsigned>(block->magic));
    parser_printf("    freelist_id   : %4d\n", static_cast<int>(block->freelist_id));
    if (!block->header.debug) {
        return;
    }
    parser_printf("HEAP: heap block: TRAILER: Start %p\n", static_cast<void*>(f.trailer_start));
    parser_printf("HEAP: heap block: TRAILER: End   %p\n", static_cast<void*>(f.trailer_end));
    if (!trailer_in_heap(heap, block)) {
        parser_printf("HEAP: heap block: TRAILER: outside the heap\n");
        return;
    }
    if (!trailer_intact_in(heap, block)) {
        parser_printf("HEAP: heap block: TRAILER: OVERRUN!!!!\n");
        for (int i = 0; i < kGuardWords; ++i) {
            parser_printf("HEAP: block TRAILER dump:       address = %p, data = 0x%08x\n",
                          static_cast<void*>(f.trailer_start + 4 * i), f.guard_word(i));
        }
        parser_printf("HEAP: block PC       dump:       address = %p, data = 0x%08x\n",
                      static_cast<void*>(f.pc_word_addr()), f.pc_word());
    }
}

}  // extern "C"
