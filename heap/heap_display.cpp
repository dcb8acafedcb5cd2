// The block log (system log) and the block display (CLI): the same facts
// about one header, in two fixed formats. Neither reads outside the range
// of the heap it is given.
#include <cstdarg>
#include <cstdio>
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

constexpr size_t kLineMax = 192;  // the longest line holds three pointers

// Where a block report goes: the system log, one record a line, each line
// after "HEAP: "; or the operator's terminal, the lines as they are. Where
// the two have always been spelt differently, each keeps its spelling.
struct ReportSink {
    bool system_log;  // else the terminal
    int priority;     // of the log records
    const char* prefix;
    const char* offset_gap;     // between "offset" and its colon
    const char* trailer_tag;    // in front of the trailer lines, after the prefix
    const char* trailer_block;  // what the trailer lines call the block
    const char* pc_dump_gap;    // between "block PC" and "dump"
    bool size_signed;

    bool to_log() const { return system_log; }

    // One line after the prefix.
    __attribute__((format(printf, 2, 3))) void line(const char* format, ...) const {
        va_list args;
        va_start(args, format);
        emit(prefix, format, args);
        va_end(args);
    }
    // Text without the prefix; on the log, a record of its own.
    __attribute__((format(printf, 2, 3))) void bare(const char* format, ...) const {
        va_list args;
        va_start(args, format);
        emit("", format, args);
        va_end(args);
    }
    void validity_failed() const { bare("\n%s******** FAILED VALIDITY CHECKS **********\n\n", prefix); }

private:
    __attribute__((format(printf, 3, 0))) void emit(const char* lead, const char* format, va_list args) const {
        char text[kLineMax];
        vsnprintf(text, sizeof text, format, args);
        if (to_log()) {
            syslog(priority, "%s%s", lead, text);
        } else {
            parser_printf("%s%s", lead, text);
        }
    }
};

ReportSink log_sink(u_int32_t priority) {
    return {true, static_cast<int>(priority), "HEAP: ", "    ", "", "block", "      ", true};
}
constexpr ReportSink kTerminalSink = {false, 0, "", "   ", "HEAP: ", "heap block", "       ", false};

// The first words of the block as they are, never past the end of the
// range of `bound` when there is one.
void raw_dump(const ReportSink& out, heap_t* bound, heap_block_t* block) {
    auto* word_addr = reinterpret_cast<u_int8_t*>(block);
    for (int i = 0; i < kDumpWords; ++i, word_addr += 4) {
        if (bound != nullptr && reinterpret_cast<uintptr_t>(word_addr) + 4 > heap_end(bound)) {
            break;
        }
        u_int32_t w;
        std::memcpy(&w, word_addr, sizeof w);
        out.line("memory address = %p, data = 0x%08x\n", static_cast<void*>(word_addr), w);
    }
    out.bare("\n\n");
}

// One walk over a header's fields for both destinations. The log takes any
// header with any heap (null or broken included) and adds the raw dump and
// the allocating caller; the terminal is given a sound heap, judges the
// block by that heap alone, and shows pc_saved.
void block_report(const ReportSink& out, heap_t* heap, heap_block_t* block) {
    out.line("\n");
    out.line("\n");
    // An operator may type any address: the data address is worked out in
    // integers, and nothing outside the range is read.
    out.line("Heap block: Header Address: %p\n", static_cast<void*>(block));
    out.line("Heap block: Data   Address: %p\n\n", BlockFacts::shifted(block, kHeaderSize));
    if (heap_valid(heap) && !header_in_heap(heap, block)) {
        if (!out.to_log()) {
            out.line("Not a block of heap %p (%p - %p)\n", static_cast<void*>(heap),
                     reinterpret_cast<void*>(heap->base), reinterpret_cast<void*>(heap_end(heap)));
        }
        out.validity_failed();
        return;
    }
    const BlockFacts f(block);
    if (out.to_log()) {
        raw_dump(out, range_heap(heap, block), block);
    }
    out.line("Common Header : bit fields:  0x%08x\n\n", f.word);
    out.line("    allocated : %s\n", block->header.allocated ? "Allocated" : "Free");
    out.line("    orphaned  : %s\n", yes_no(block->header.orphaned));
    out.line("    debug     : %s\n", yes_no(block->header.debug));
    out.line("    unused    : %d\n", static_cast<int>(block->header.unused));
    out.line("    refcount  : %d%s\n", static_cast<int>(block->header.refcount),
             block->header.refcount == HEAP_REFCOUNT_LOCKED ? ": Node permanently locked" : "");
    if (out.to_log()) {
        out.line("\n");
    } else {
        out.line("    pc_saved  : %d          \n", static_cast<int>(block->header.pc_saved));
    }
    out.line("    offset%s: %8x    : %s Heap Block Magic number \n", out.offset_gap, static_cast<unsigned>(f.offset),
             f.marked ? "Good" : "Bad ");
    heap_t* checked = validated_heap(heap, block);
    if (checked == nullptr) {
        out.validity_failed();
        return;
    }
    if (out.to_log()) {
        out.line("    PC       : %p\n", heap_get_pc(f.data));
        out.bare("\n");
    }
    out.line("Heap Block Specific:\n");
    out.line("    prev          : %p      (Data address %p)\n", static_cast<void*>(block->prev), f.prev_data);
    if (block->header.allocated) {
        out.line("    alloc pc      : %p\n", block->x.alloc.allocator.pc);
        out.line("    alloc heap    : %p\n", static_cast<void*>(block->x.alloc.heap));
    } else {
        out.line("    free next     : %p      (Data address %p)\n", static_cast<void*>(block->x.free.links.next),
                 f.free_next_data);
        out.line("    free prev     : %p      (Data address %p)\n", static_cast<void*>(block->x.free.links.prev),
                 f.free_prev_data);
    }
    out.line("    size          : %4lld\n", out.size_signed ? static_cast<long long>(static_cast<int>(block->size))
                                                          : static_cast<long long>(static_cast<unsigned>(block->size)));
    out.line("    magic         : %4x\n", static_cast<unsigned>(block->magic));
    out.line("    freelist_id   : %4d\n", static_cast<int>(block->freelist_id));
    if (!block->header.debug) {
        return;
    }
    out.line("%s%s: TRAILER: Start %p\n", out.trailer_tag, out.trailer_block, static_cast<void*>(f.trailer_start));
    out.line("%s%s: TRAILER: End   %p\n", out.trailer_tag, out.trailer_block, static_cast<void*>(f.trailer_end));
    if (!trailer_in_heap(checked, block)) {
        out.line("%s%s: TRAILER: outside the heap\n", out.trailer_tag, out.trailer_block);
        return;
    }
    if (!trailer_intact_in(checked, block)) {
        out.line("%s%s: TRAILER: OVERRUN!!!!\n", out.trailer_tag, out.trailer_block);
        for (int i = 0; i < kGuardWords; ++i) {
            out.line("%sblock TRAILER dump:       address = %p, data = 0x%08x\n", out.trailer_tag,
                     static_cast<void*>(f.trailer_start + 4 * i), f.guard_word(i));
        }
        out.line("%sblock PC%sdump:       address = %p, data = 0x%08x\n", out.trailer_tag, out.pc_dump_gap,
                 static_cast<void*>(f.pc_word_addr()), f.pc_word());
    }
    if (out.to_log()) {
        out.line("block: PC: = %p\n", f.trailer_pc());
    }
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
    block_report(log_sink(priority), heap, block);
}

void heap_show_block(heap_t* heap, void* raw_block) {
    if (!heap_valid(heap)) {
        parser_printf("\n\nHeap bad: %p\n\n", static_cast<void*>(heap));
        return;
    }
    if (raw_block == nullptr) {
        return;
    }
    block_report(kTerminalSink, heap, block_of(raw_block));
}

}  // extern "C"
