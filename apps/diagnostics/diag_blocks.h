// A heap's blocks as one walk finds them, for the diagnostics that draw or
// compare them. The walk runs under the heap lock, so the blocks describe
// one moment of the heap even while other threads allocate.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "heap.h"

struct diag_block_t {
    uintptr_t header;    // the block header's address
    uint32_t size;       // its data bytes, a debug trailer included
    uint32_t trailer;    // the bytes of its debug trailer (0 without one)
    bool allocated;
    uintptr_t pc;        // the allocating caller's code address; 0 for a free block
};

// Every block of heap in address order; returns the walk's status (0, or
// the status of a walk that stopped: the blocks before that point).
status_t diag_blocks_read(heap_t* heap, std::vector<diag_block_t>* blocks);

// Blocks gathered by the caller that allocated them.
struct diag_caller_t {
    uintptr_t pc;
    uint64_t blocks, bytes;
};
class DiagCallers {
public:
    void add(uintptr_t pc, uint64_t bytes);
    // Every caller, the most bytes first (callers with as many bytes in PC order).
    std::vector<diag_caller_t> by_bytes() const;

private:
    std::map<uintptr_t, diag_caller_t> by_pc_;
};

// The bytes a block takes in its heap: header and data.
inline uint64_t diag_block_span(const diag_block_t& block) { return sizeof(heap_block_t) + block.size; }
