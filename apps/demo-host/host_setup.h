/*
 * A demonstration host: what the control software of a port extender does
 * at start-up, over memory of the process's own, so that the library's
 * commands have something true to show. corvex-shell and corvex-pe run
 * on it.
 */
#ifndef CORVEX_TOOLS_HOST_SETUP_H
#define CORVEX_TOOLS_HOST_SETUP_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Fixes the time origin, registers the calling thread as app_name's "cli",
 * creates the heaps bcm_sdk_heap (ID 0), io_mem_heap (1), dma_desc_heap (2)
 * and the packet buffer heap (3), builds the packet pools from a pool table
 * and starts the packet module's background task. Returns 0, or -1 after
 * saying on stderr which step failed. Call once, before other threads.
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
