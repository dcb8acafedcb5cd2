/*
 * 32-bit indexed table: maps an index32_t to one caller pointer, built from
 * 16-bit tables. The upper table, indexed by bits 31..16, holds lower tables
 * indexed by bits 15..0; lower tables are made on demand, so clustered
 * indices cost only their regions.
 *
 * Index 0xFFFFFFFF is never stored: the mark (highest index + 1) could not
 * represent it, so it is refused like an index above the limit.
 *
 * No lock: the caller serialises every use of one table, lookups included.
 */
#ifndef CORVEX_ITABLE32_H
#define CORVEX_ITABLE32_H

#include "itable.h"

CORVEX_BEGIN_DECLS

typedef u_int32_t index32_t;

typedef struct itable32_ {
    /* One more than the highest index stored; 0 when empty. */
    u_int32_t itable32_maxentry;
    /* Largest valid index, inclusive; default 0xFFFFFFFF. */
    u_int32_t itable32_maxindex;
    /* Removals counted since the last automatic cleanup. */
    u_int32_t itable32_numremove;
    itable_alloc_t alloc_func;
    itable_free_t free_func;
    void* alloc_ctxt;
    /* 1: the upper and lower tables come from alloc_func as well. */
    u_int8_t shm_flag;
    u_int8_t itable32_packed;
    u_int8_t cleanup_on_remove;
    itable16_t* itable32_upper;
} itable32_t;

CORVEX_API void* itable32_alloc_default(void* alloc_ctxt, size_t size);
CORVEX_API void itable32_free_default(void* alloc_ctxt, void* ptr);

CORVEX_API itable32_t* itable32_create(void);
CORVEX_API itable32_t* itable32_create_shm(itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt);
/* Prepares a zero-filled record; 0, or 1000 when the upper table cannot be made. */
CORVEX_API status_t itable32_init(itable32_t* table, itable_alloc_t alloc_func, itable_free_t free_func, void* ctxt,
                                  int shm_flag);

CORVEX_API void itable32_set_maxindex(itable32_t* table, u_int32_t maxindex);
CORVEX_API void itable32_set_packed(itable32_t* table, boolean packed);
CORVEX_API void itable32_set_cleanup_on_remove(itable32_t* table, boolean cleanup);

/* 0, or 12 when no index or no memory is left. */
CORVEX_API status_t itable32_alloc(itable32_t* table, void* ptr, index32_t* ret_index32);
/* 0, 12 (no memory) or 1000 (index above the limit). */
CORVEX_API status_t itable32_insert(itable32_t* table, void* ptr, const index32_t* target_index);
CORVEX_API void* itable32_lookup(itable32_t* table, const index32_t* target_index);
CORVEX_API void* itable32_replace(itable32_t* table, const index32_t* target_index, void* new_pointer);
CORVEX_API void itable32_remove(itable32_t* table, const index32_t* target_index);
/* Ordered walk; prev_index null starts at index 0; both may name one variable. */
CORVEX_API void* itable32_getnext(itable32_t* table, const index32_t* prev_index, index32_t* ret_index);
/* Releases everything; returns how many entries were still stored. */
CORVEX_API int itable32_destroy(itable32_t* table);

CORVEX_END_DECLS

#endif /* CORVEX_ITABLE32_H */
