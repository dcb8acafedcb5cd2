// What grew: the allocated blocks of every heap noted at one moment (before
// the traffic, say), and later the blocks allocated since and still held,
// summed by the call site that allocated them: where a leak comes from.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "heap.h"

class DiagLeaks {
public:
    // Notes the allocated blocks of every heap of the process.
    void snapshot();
    // Prints, heap by heap, the blocks allocated since the snapshot and not
    // given back, by call site, most bytes first, under a title naming the
    // snapshot's moment (`since`). Returns how many blocks that is.
    uint64_t report(FILE* out, const char* since) const;

private:
    struct Block {
        uintptr_t header, pc;
        uint32_t size;
        auto operator<=>(const Block&) const = default;
    };
    struct Heap {
        heap_t* heap;
        std::vector<Block> blocks;  // allocated ones, in address order
    };
    static Heap heap_read(heap_t* heap);

    std::vector<Heap> heaps_;
};
