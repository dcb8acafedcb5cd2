#include "diag_leaks.h"

#include <algorithm>
#include <cinttypes>
#include <string>

#include "diag_blocks.h"
#include "diag_symbols.h"

namespace {

}  // namespace

DiagLeaks::Heap DiagLeaks::heap_read(heap_t* heap) {
    std::vector<diag_block_t> blocks;
    diag_blocks_read(heap, &blocks);
    Heap read{heap, {}};
    for (const diag_block_t& block : blocks)
        if (block.allocated) read.blocks.push_back({block.header, block.pc, block.size});
    return read;
}

void DiagLeaks::snapshot() {
    heaps_.clear();
    for (u_int32_t id = 0; heap_t* heap = heap_find_by_id(id); ++id) heaps_.push_back(heap_read(heap));
}

uint64_t DiagLeaks::report(FILE* out, const char* since) const {
    fprintf(out, "Blocks allocated since %s and not given back, by call site:\n", since);
    uint64_t total = 0;
    for (const Heap& before : heaps_) {
        const Heap now = heap_read(before.heap);
        // A block is new unless the snapshot had the same one: the same
        // header, caller and size (both lists are in address order).
        std::vector<Block> added;
        std::set_difference(now.blocks.begin(), now.blocks.end(), before.blocks.begin(), before.blocks.end(),
                            std::back_inserter(added));
        if (added.empty()) continue;
        DiagCallers callers;
        uint64_t bytes = 0;
        for (const Block& block : added) {
            callers.add(block.pc, block.size);
            bytes += block.size;
        }
        fprintf(out, "  Heap %u %s: %zu blocks, %" PRIu64 " bytes\n", before.heap->id,
                before.heap->name != nullptr ? before.heap->name : "", added.size(), bytes);
        fprintf(out, "    %-*s  %9s  %12s  Call site\n", kDiagPcDigits, "PC", "Blocks", "Bytes(b)");
        for (const diag_caller_t& row : callers.by_bytes()) {
            fprintf(out, "    %0*" PRIxPTR "  %9" PRIu64 "  %12" PRIu64 "  %s\n", kDiagPcDigits, row.pc, row.blocks, row.bytes,
                    diag_symbol_describe(row.pc).c_str());
        }
        total += added.size();
    }
    if (total == 0) fprintf(out, "  none\n");
    return total;
}
