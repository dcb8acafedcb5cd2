/*
 * Heap manager and the allocation wrappers over the system allocator.
 */
#ifndef CORVEX_HEAP_H
#define CORVEX_HEAP_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/*
 * Allocation wrappers: each is one call into libc and reports failure only
 * by returning null. The zeroing forms are calloc(size, 1). Release with
 * free() or sn_free().
 */
CORVEX_API void* kmalloc(size_t size);
CORVEX_API void* kzalloc(size_t size);
CORVEX_API void* zalloc(size_t size);
CORVEX_API void* sn_malloc(size_t size);
CORVEX_API void* sn_zalloc(size_t size);
CORVEX_API void sn_free(void* addr);

CORVEX_END_DECLS

#endif /* CORVEX_HEAP_H */
