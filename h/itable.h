/*
 * 16-bit indexed table: maps an index16_t to one caller pointer.
 *
 * An index is split, most significant bits first, into a can number
 * (bits 15..12, one of 16 cans), a bucket number (bits 11..6, one of 64
 * buckets in the can) and an entry number (bits 5..0, one of 64 slots in
 * the bucket); 0x1234 is entry 52 of bucket 8 of can 1. Cans and buckets
 * are made on demand and may be given back when they fall empty. A null
 * slot is a free index, so null cannot be stored as a value.
 *
 * The table owns only its cans, buckets and (when it made it) its record;
 * the stored pointers are never followed. It takes no lock: the caller
 * serialises every use of one table, lookups included.
 */
#ifndef CORVEX_ITABLE_H
#define CORVEX_ITABLE_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

typedef u_int16_t index16_t;

/* Returns `size` zero-filled bytes, or null. */
typedef void* (*itable_alloc_t)(void* alloc_ctxt, size_t size);
typedef void (*itable_free_t)(void* alloc_ctxt, void* ptr);

#define ITABLE16_CANS 16
#define ITABLE16_BUCKETS_PER_CAN 64
#define ITABLE16_ENTRIES_PER_BUCKET 64

typedef struct itable16_ {
    /* One more than the highest index whose slot was filled; 0 when empty. */
    u_int32_t itable16_maxentry;
    /* Number of usable indices (1..65536): valid indices are below it. */
    u_int32_t itable16_maxindex;
    /* Removals counted since the last automatic cleanup. */
    u_int32_t itable16_numremove;
    itable_alloc_t alloc_func;
    itable_free_t free_func;
    void* alloc_ctxt;
    /* 0: hand out the tail first; 1: fill holes below the mark first. */
    u_int8_t itable16_packed;
    /* 1: give empty buckets and cans back on every removal. */
    u_int8_t cleanup_on_remove;
    /* A can is 64 bucket pointers; a bucket is 64 slots; null = absent. */
    void*** cans[ITABLE16_CANS];
} itable16_t;

CORVEX_API void* itable16_alloc_default(void* alloc_ctxt, size_t size);
CORVEX_API void itable16_free_default(void* alloc_ctxt, void* ptr);

CORVEX_API itable16_t* itable16_create(void);
CORVEX_API itable16_t* itable16_create_shm(itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt);
/* Prepares a zero-filled record from kzalloc (destroy releases it with free). */
CORVEX_API void itable16_init(itable16_t* table);

CORVEX_API void itable16_set_maxindex(itable16_t* table, u_int32_t maxindex);
CORVEX_API void itable16_set_packed(itable16_t* table, boolean packed);
CORVEX_API void itable16_set_cleanup_on_remove(itable16_t* table, boolean cleanup);

/* 0, or 12 when no index or no memory is left. */
CORVEX_API status_t itable16_alloc(itable16_t* table, void* ptr, index16_t* ret_index);
/* 0, 12 (no memory) or 1000 (index not below the limit). */
CORVEX_API status_t itable16_insert(itable16_t* table, void* ptr, const index16_t* target_index);
/* As itable16_insert; also 1000 for a null pointer at index 0. */
CORVEX_API status_t itable16_bound(itable16_t* table, void* ptr, const index16_t* target_index);
CORVEX_API void* itable16_lookup(itable16_t* table, const index16_t* target_index);
/* Acts only below the mark on present storage; returns the previous pointer. */
CORVEX_API void* itable16_replace(itable16_t* table, const index16_t* target_index, void* new_pointer);
CORVEX_API void itable16_remove(itable16_t* table, const index16_t* target_index);
/*
 * The first stored pointer after *prev_index (from index 0 when prev_index
 * is null); its index goes to *ret_index. Both may name one variable.
 */
CORVEX_API void* itable16_getnext(itable16_t* table, const index16_t* prev_index, index16_t* ret_index);
/* Gives back every empty bucket, and every can left without buckets. */
CORVEX_API void itable16_cleanup(itable16_t* table);
/* Releases all storage and the record; returns how many slots still held a pointer. */
CORVEX_API int itable16_destroy(itable16_t* table);

/* Lookup without a call: three array steps, no limit or mark check. */
static inline void* itable16_lookup_inline(const itable16_t* table, index16_t index) {
    const unsigned int i = index; /* shifts in full-width registers */
    void*** can = table->cans[i >> 12];
    void** bucket;
    if (can == NULL) {
        return NULL;
    }
    bucket = can[(i >> 6) & 63];
    if (bucket == NULL) {
        return NULL;
    }
    return bucket[i & 63];
}

CORVEX_END_DECLS

#endif /* CORVEX_ITABLE_H */
