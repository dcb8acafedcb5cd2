// Heap maps: a heap drawn as an SVG picture that a browser opens. The
// blocks lie in address order, row after row, each a cell as long as the
// bytes it takes (header and data); allocated blocks are coloured by the
// call site that allocated them, with a legend of the callers holding the
// most bytes, free blocks grey, blocks allocated in debug mode outlined
// with their trailer drawn dark. The header gives the heap's size, free
// bytes, largest free block and fragmentation (1 - largest free block /
// free bytes; 0 with nothing free). Hovering a cell names the block.
//
// Every block is one <g class="block"> element, in address order, whose
// data-header, data-size (data bytes), data-state ("allocated" or "free"),
// data-pc and data-trailer attributes say what the walk found.
#pragma once

#include <cstdio>
#include <string>

#include "diag_output.h"
#include "heap.h"

// Draws heap into out as an SVG document.
void diag_heap_map_draw(heap_t* heap, FILE* out);

// The file name of heap's map: "heap-ID-NAME.svg", the name's bytes that a
// file name should not hold written as '_'.
std::string diag_heap_map_name(const heap_t* heap);

// Writes the map of every heap of the process into folder (made when
// missing), each file whole or not at all. False after a line on err for
// each map that could not be written.
bool diag_heap_maps_write(const std::string& folder, const DiagInputs& inputs, const char* program, FILE* err);
