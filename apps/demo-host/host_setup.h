/*
 * A demonstration host: what the control software of a port extender does
 * at start-up, over memory of the process's own, so that the library's
 * commands have something true to show. corvex-shell and corvex-pe run
 * on it.
 */
#ifndef CORVEX_TOOLS_HOST_SETUP_H
#define CORVEX_TOOLS_HOST_SETUP_H

#include <stddef.h>

#include "heap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A heap of the host: the name the diagnostic commands show, its record
 * and the bytes of memory it is laid over. */
typedef struct host_setup_heap_s {
    const char* name;
    heap_t* heap;
    size_t bytes;
} host_setup_heap_t;

/*
 * The heaps host_setup_start creates, in this order (the order of their IDs
 * on the command line), then an entry whose name is null: "bcm_sdk"
 * (bcm_sdk_heap), "io_mem" (io_mem_heap), "dma_desc" (dma_desc_heap) and
 * "packet_buffers", the heap of the packet pools.
 */
extern const host_setup_heap_t host_setup_heaps[];

/*
 * Fixes the time origin, registers the calling thread as app_name's "cli",
 * creates the heaps of host_setup_heaps, builds the packet pools from a
 * pool table and starts the packet module's background task. Returns 0, or
 * -1 after saying on stderr which step failed. Call once, before other
 * threads.
 */
int host_setup_start(const char* app_name);

/*
 * Leaves traffic behind: blocks that a few call sites allocated (and some
 * released) in the three exported heaps, and packets of several sizes held
 * by their takers, some of them cloned.
 */
void host_setup_traffic(void);

#ifdef __cplusplus
}
#endif

#endif /* CORVEX_TOOLS_HOST_SETUP_H */
