/*
 * Heap manager and the allocation wrappers over the system allocator.
 *
 * A heap carves one caller-supplied address range into blocks. Every block
 * is a header followed by its data area; callers hold data pointers, which
 * sit exactly one header (sizeof(heap_block_t): 24 bytes on the 32-bit
 * target) above the header. The header layout below is a memory format:
 * displays and callers rely on the field positions.
 *
 * Heap creation, allocation and release are serialised by one global lock,
 * heap_alloc_glb_lock, which a thread may re-enter (a hook that allocates
 * from inside a heap operation proceeds under the caller's hold). Walks,
 * validation, displays and queries take no lock: their callers serialise.
 */
#ifndef CORVEX_HEAP_H
#define CORVEX_HEAP_H

#include <pthread.h>

#include "corvex_types.h"
#include "host_cli.h"
#include "llist_shared.h"

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

/* ---- marks and fill values --------------------------------------------- */

#define HEAP_MAGIC 0xCACAD000u             /* heap_t.magic of a created heap */
#define HEAP_BLOCK_MAGIC 0x0EC0EDu         /* 24-bit mark of a live block header */
#define HEAP_BLOCK_DEAD_MAGIC 0xF13F12u    /* header swallowed by a merge */
#define HEAP_BLOCK_OFFSET (-7)             /* second header mark (14-bit field) */
#define HEAP_FREELIST_NONE 0x20u           /* freelist_id of a block on no list */
#define HEAP_FREELIST_MAX 32               /* free-list slots per heap */
#define HEAP_TRAILER_FILL 0x55u            /* guard bytes of a debug trailer */
#define HEAP_TRAILER_GUARD_BYTES 16
#define HEAP_FREE_FILL 0xDEADBEEFu         /* default fill of released data */
#define HEAP_SELF_TEST_FILL 0xA7u          /* fill of self-test blocks */
#define HEAP_REFCOUNT_LOCKED 255u          /* a block that is never released */
#define HEAP_FAILURE_RING 10               /* reporting sites kept by heap_bp_failure */
#define HEAP_DEBUG_FLAG_FIFO 0x1u          /* heap_t.debug_flags: append freed blocks */

typedef u_int32_t heap_id_t;
typedef u_int8_t heap_freelist_id_t;

typedef struct heap_ heap_t;
typedef struct heap_block_ heap_block_t;

/* Cumulative counters; they wrap at 2^32 and are never reset. */
typedef struct heap_stats_ {
    time_ms_t sample_time;
    u_int32_t allocs;
    u_int32_t failed_allocs;
    u_int32_t frees;
    u_int32_t coalesces;
    u_int32_t splits;
} heap_stats_t;

typedef struct low_memory_s {
    u_int32_t heap_prev_gc_index;
    u_int32_t heap_gc_index;
    u_int32_t sparse_chunk_percent;
} low_memory_t;

/*
 * The last word of a block header, bit 0 least significant. offset holds
 * -7 as a 14-bit two's complement value (0x3FF9); read together with
 * pc_saved's upper bits the top half-word masked with 0xFFFC is 0xFFE4.
 */
typedef struct small_node_header_s {
    unsigned int allocated : 1;
    unsigned int small_node : 1;
    unsigned int orphaned : 1;
    unsigned int debug : 1;
    unsigned int unused : 3;
    unsigned int refcount : 8;
    unsigned int pc_saved : 3;
    unsigned int offset : 14;
} small_node_header_t;

typedef struct heap_block_free_ {
    list_item_t links;
} heap_block_free_t;

typedef struct heap_block_alloc_ {
    union {
        void* pc;
        void* callstack;
    } allocator;
    heap_t* heap;
} heap_block_alloc_t;

/*
 * Block header, written into the managed range. Blocks tile the range:
 * the next header starts at data + size; prev names the physically
 * preceding block (null for the first). x is the free-list link of a free
 * block and {caller address, owning heap} of an allocated one.
 */
struct heap_block_ {
    heap_block_t* prev;
    union {
        heap_block_free_t free;
        heap_block_alloc_t alloc;
    } x;
    size_t size;
    u_int32_t magic : 24;
    u_int32_t freelist_id : 8;
    small_node_header_t header;
    u_int8_t data[];
};

typedef struct heap_freelist_ {
    list_item_t links;
    size_t size;
    list_t blocks;
    heap_freelist_id_t id;
    u_int8_t active;
    u_int32_t allocs;
    u_int32_t frees;
    size_t free_bytes;
    u_int32_t largest;
    u_int32_t smallest;
} heap_freelist_t;

/* Entry k of the search index describes the k-th list of heap_t.freelist. */
struct heap_freelist_size_ {
    size_t size;
    heap_freelist_t* freelist;
};

typedef void (*heap_block_post_free_proc)(void* p, size_t size);
typedef void (*heap_block_post_coalesce_proc)(void* p, size_t size, size_t old_size);
typedef void (*heap_block_pre_alloc_proc)(void* p, size_t size);

typedef struct heap_debug_proc_ {
    heap_block_post_free_proc post_free;
    heap_block_post_coalesce_proc post_coalesce;
    heap_block_pre_alloc_proc pre_alloc;
} heap_debug_proc_t;

/*
 * A heap's control record: storage belongs to the caller.
 *
 * What holds between any two operations on a heap (builds made with
 * CORVEX_INVARIANTS assert each of these, by these words, after every
 * allocation, release, heap creation and list creation):
 * - blocks tile the range: from base, each header lies in the range, each
 *   data area ends inside it and the last ends exactly at base + size;
 * - prev names the physically preceding block (null for the first);
 * - no two free blocks are adjacent;
 * - every free block is on the list its size selects (a list added later
 *   splits the range of the list below it, and blocks already there stay:
 *   a heap with added lists keeps every block of a sized list at least as
 *   large as the list's size);
 * - an allocated block is on no list;
 * - a list's blocks are free and carry its id;
 * - list counts equal what a walk finds (item_count of each list);
 * - list free bytes equal what a walk finds (size + header of each block);
 * - free bytes equal what a walk finds (the sum over all free blocks);
 * - largest_block is null or a free block on a list;
 * - the index mirrors the lists: entry k is the k-th list, sizes ascending,
 *   the default list last.
 */
struct heap_ {
    u_int32_t magic;
    list_item_t links;
    heap_id_t id;
    uintptr_t base;
    size_t size;
    list_t freelist;
    char* name;
    heap_freelist_t freelist_table[HEAP_FREELIST_MAX];
    struct heap_freelist_size_ freelist_size[HEAP_FREELIST_MAX];
    boolean fill_pattern_enabled;
    boolean debug_enabled;
    low_memory_t low_memory;
    boolean debug;
    boolean interrupt_safe;
    size_t low_watermark_bytes;
    size_t available_bytes_watermark;
    size_t free_bytes;
    heap_block_t* largest_block;
    heap_stats_t stats;
    heap_stats_t stats_1sec;
    heap_stats_t stats_10sec;
    heap_stats_t stats_1min;
    u_int32_t debug_flags;
    heap_debug_proc_t debug_proc;
    void* callstacks;
};

/* Walk argument, handed unchanged to every walker call. */
typedef struct heap_walk_arg_ {
    boolean noisy;      /* log a corruption report when a block fails */
    boolean active;     /* report and panic when a block fails */
    u_int32_t magic;    /* the walker's own */
    u_int32_t value;    /* the walker's own */
    u_int32_t pcaddr;   /* the walker's own */
    void* context;      /* the walker's own */
} heap_walk_arg_t;

/* TRUE continues the walk, FALSE stops it (status 1001). block is a header. */
typedef boolean (*heap_walk_function_t)(heap_t* heap, heap_block_t* block, heap_walk_arg_t* arg);

/* ---- globals ------------------------------------------------------------- */

CORVEX_API extern list_t heap_list;
CORVEX_API extern heap_id_t heap_id;
CORVEX_API extern u_int32_t heap_version_prev_fix;
CORVEX_API extern pthread_mutex_t heap_alloc_glb_lock;
CORVEX_API extern const char* heap_alloc_glb_lock_filname;
CORVEX_API extern int heap_alloc_glb_lock_line;
CORVEX_API extern u_int32_t heap_bp_failure_count;
CORVEX_API extern u_int32_t heap_bp_failure_pc_index;
CORVEX_API extern void* heap_bp_failure_count_last_pc[HEAP_FAILURE_RING];
CORVEX_API extern heap_t bcm_sdk_heap;
CORVEX_API extern heap_t io_mem_heap;
CORVEX_API extern heap_t dma_desc_heap;

/* ---- creation and free lists -------------------------------------------- */

/* 0, or 1000 when the range is unusable. Runs the heap's self-test. */
CORVEX_API status_t heap_create(heap_t* heap, uintptr_t first, uintptr_t last, char* name);
/* 0 (also when the size exists), 22 null heap, 12 no free slot. */
CORVEX_API status_t heap_freelist_create(heap_t* heap, size_t size);
CORVEX_API heap_freelist_t* heap_freelist_find_by_size(heap_t* heap, size_t size, boolean empty_check);
CORVEX_API u_int32_t heap_best_fit_freelist_size(heap_t* heap, size_t size);
CORVEX_API heap_freelist_t* heap_freelist_find_by_id(heap_t* heap, heap_freelist_id_t id, boolean active_check);

/* ---- allocation and release ---------------------------------------------- */

/* A null heap falls back to kmalloc / zalloc (memory heap_free cannot take). */
CORVEX_API void* heap_malloc(heap_t* heap, size_t size);
CORVEX_API void* heap_zalloc(heap_t* heap, size_t size);
/* A null heap means the heap named in the block's header. */
CORVEX_API void heap_free(heap_t* heap, void* addr);

/* ---- validation, displays, debug mode ------------------------------------ */

CORVEX_API void heap_block_log(u_int32_t priority, heap_t* heap, heap_block_t* block);
CORVEX_API void heap_show_block(heap_t* heap, void* raw_block);
CORVEX_API void* heap_get_pc(void* raw_block);
CORVEX_API void heap_bp_failure(void);

CORVEX_API void heap_block_post_free(void* p, size_t size);
CORVEX_API void heap_block_post_coalesce(void* p, size_t size, size_t old_size);
CORVEX_API void heap_block_pre_alloc(void* p, size_t size);
CORVEX_API void heap_get_default_debug_proc(heap_debug_proc_t* debug_proc);
CORVEX_API void heap_get_debug_proc(heap_t* heap, heap_debug_proc_t* debug_proc);
CORVEX_API void heap_set_debug_proc(heap_t* heap, heap_debug_proc_t* debug_proc);
CORVEX_API void heap_set_debug_flag(heap_t* heap, u_int32_t flag, boolean on_off);
CORVEX_API void heap_enable_debug(heap_t* heap);
CORVEX_API void heap_disable_debug(heap_t* heap);
CORVEX_API boolean heap_is_debug_enabled(heap_t* heap);

/* ---- walks and queries --------------------------------------------------- */

CORVEX_API status_t heap_walk(heap_t* heap, heap_walk_function_t walker, heap_walk_arg_t* arg);
CORVEX_API status_t heap_freelist_walk(heap_t* heap, heap_freelist_t* freelist, heap_walk_function_t walker,
                                       heap_walk_arg_t* arg);
CORVEX_API heap_t* heap_find_by_id(u_int32_t id);
CORVEX_API size_t heap_size(heap_t* heap);
CORVEX_API size_t heap_get_free_bytes(heap_t* heap);
CORVEX_API u_int32_t heap_utilization(heap_t* heap);
CORVEX_API size_t heap_low_watermark_get(heap_t* heap);
CORVEX_API status_t heap_low_watermark_set(heap_t* heap, size_t low_watermark_bytes);
CORVEX_API boolean heap_low_watermark_check(heap_t* heap);
CORVEX_API void heap_mem_params(heap_t* heap, uintptr_t* startp, uintptr_t* endp, uintptr_t* sizep);
CORVEX_API u_int32_t heap_block_size(void* raw_block);

/* ---- diagnostic commands (callbacks of libcorvex_vty_tree) -------------- */

/* Does nothing: the command tree is constant data. */
CORVEX_API void heap_parser_init(void);
/* debug heap ID (magic 1) and undebug heap ID (magic 0): the heap's trace flag. */
CORVEX_API void heap_debug_command(parser_config* config, parser_result* result, u_int32_t magic);
/* Every show heap command: summaries, free lists, block listings, sanity, accounting. */
CORVEX_API void heap_show_command(parser_config* config, parser_result* result, u_int32_t magic);
/* Every set heap command: low watermark, debug mode, low-memory recovery limits. */
CORVEX_API void heap_set_command(parser_config* config, parser_result* result, u_int32_t magic);
/* Prints the heap commands' help text; heap is not used. */
CORVEX_API void heap_display_help(heap_t* heap);

CORVEX_END_DECLS

#endif /* CORVEX_HEAP_H */
