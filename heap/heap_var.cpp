// Allocation wrappers over libc. Each is exactly one libc call: no logging,
// no retry, no accounting; a failed allocation is a null result for the
// caller to judge. A request for 0 bytes goes to libc unchanged.
#include <cstdlib>

#include "heap.h"

extern "C" {

void* kmalloc(size_t size) { return malloc(size); }

void* kzalloc(size_t size) { return calloc(size, 1); }

void* zalloc(size_t size) { return calloc(size, 1); }

void* sn_malloc(size_t size) { return malloc(size); }

void* sn_zalloc(size_t size) { return calloc(size, 1); }

void sn_free(void* addr) { free(addr); }

}  // extern "C"
