// Allocation wrappers over libc, and the three global heap records.
//
// Each wrapper is exactly one libc call: no logging, no retry, no
// accounting; a failed allocation is a null result for the caller to
// judge. A request for 0 bytes goes to libc unchanged.
//
// The global heap records stay zero (and so fail every heap check) until
// the host turns each into a heap over a region of its own.
#include <cstdlib>

#include "heap.h"

extern "C" {

heap_t bcm_sdk_heap;
heap_t io_mem_heap;
heap_t dma_desc_heap;

void* kmalloc(size_t size) { return malloc(size); }

void* kzalloc(size_t size) { return calloc(size, 1); }

void* zalloc(size_t size) { return calloc(size, 1); }

void* sn_malloc(size_t size) { return malloc(size); }

void* sn_zalloc(size_t size) { return calloc(size, 1); }

void sn_free(void* addr) { free(addr); }

}  // extern "C"
