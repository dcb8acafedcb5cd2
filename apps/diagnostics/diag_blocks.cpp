#include "diag_blocks.h"

#include <algorithm>

namespace {

boolean block_note(heap_t*, heap_block_t* block, heap_walk_arg_t* arg) {
    auto* blocks = static_cast<std::vector<diag_block_t>*>(arg->context);
    const bool allocated = block->header.allocated != 0;
    blocks->push_back({reinterpret_cast<uintptr_t>(block), static_cast<uint32_t>(block->size),
                       static_cast<uint32_t>(block->size - heap_block_size(block->data)), allocated,
                       allocated ? reinterpret_cast<uintptr_t>(heap_get_pc(block->data)) : 0});
    return TRUE;
}

}  // namespace

status_t diag_blocks_read(heap_t* heap, std::vector<diag_block_t>* blocks) {
    blocks->clear();
    heap_walk_arg_t arg{};
    arg.context = blocks;
    // Held as the heap's own operations hold it; a holder on this thread
    // (EDEADLK) keeps its hold.
    const int locked = pthread_mutex_lock(&heap_alloc_glb_lock);
    const status_t status = heap_walk(heap, block_note, &arg);
    if (locked == 0) pthread_mutex_unlock(&heap_alloc_glb_lock);
    return status;
}

void DiagCallers::add(uintptr_t pc, uint64_t bytes) {
    diag_caller_t& caller = by_pc_.try_emplace(pc, diag_caller_t{pc, 0, 0}).first->second;
    ++caller.blocks;
    caller.bytes += bytes;
}

std::vector<diag_caller_t> DiagCallers::by_bytes() const {
    std::vector<diag_caller_t> callers;
    for (const auto& entry : by_pc_) callers.push_back(entry.second);
    std::stable_sort(callers.begin(), callers.end(),
                     [](const diag_caller_t& a, const diag_caller_t& b) { return a.bytes > b.bytes; });
    return callers;
}
