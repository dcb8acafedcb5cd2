/*
 * Shared-memory index table: a fixed number of fixed-size entries, a
 * validity bitmap and a common area in one file that several processes map
 * at once. It holds only the caller's bytes, never pointers.
 *
 * File layout (host byte order): the 32-byte header, the common area
 * (rounded up to 8 bytes), the bitmap ((entries + 31) / 32 words of 32 bits,
 * bit i % 32 of word i / 32 for index i), then the entries (each rounded up
 * to 8 bytes). The file is one byte longer than the mapping. Entries are
 * 8-byte aligned only when the number of bitmap words is even; otherwise
 * they are 4-byte aligned, so wider fields are best read with memcpy.
 *
 * Publishing an entry: itable_shm_index_alloc (proposes, does not mark),
 * itable_shm_entry_get, write the entry, itable_shm_entry_set. Setting the
 * bit releases the entry's bytes and readers acquire them with the bit, so
 * a walker never meets a half-written entry. Writers must be serialised by
 * the users of the region; readers need not be.
 */
#ifndef CORVEX_ITABLE_SHM_H
#define CORVEX_ITABLE_SHM_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

#define ITABLE_SHM_MAGIC 0x20141007

typedef struct itable_shm_header_ {
    u_int32_t magic_num;       /* ITABLE_SHM_MAGIC while live, 0 once deleted */
    u_int32_t version;         /* the caller's layout version */
    u_int32_t mmap_len;        /* length of the mapping */
    u_int16_t cmn_area_size;   /* rounded common-area size */
    u_int16_t entry_size;      /* rounded entry size */
    u_int32_t max_entries;
    u_int32_t cmn_area_offset; /* 32 */
    u_int32_t bmap_offset;
    u_int32_t entry_offset;
} itable_shm_header_t;

typedef struct itable_shm_ {
    char* shm_path;
    int shm_fd;
    u_int32_t max_widx; /* bitmap words */
    u_int32_t last_alloc_index;
    u_int32_t* bitmap;
    itable_shm_header_t* shm_hdr; /* start of this process's mapping */
} itable_shm_t;

/*
 * Attaches to the region at shm_path when its header matches these
 * parameters, else replaces the file by a new, empty region (3 attempts).
 * Null when the path cannot be opened, the parameters are out of range
 * (sizes 0..65528, entries >= 0, length within 32 bits; errno EINVAL) or no
 * region could be made.
 */
CORVEX_API itable_shm_t* itable_shm_alloc(const char* shm_path, unsigned int version, int cmn_area_size,
                                          int num_entries, int ent_size);
/* The lowest unmarked index, or -1. */
CORVEX_API int itable_shm_index_alloc(itable_shm_t* itbl_shm);
/* The entry's address (valid or not) and its bit in *is_valid; null out of range. */
CORVEX_API void* itable_shm_entry_get(itable_shm_t* itbl_shm, int index, int* is_valid);
CORVEX_API void itable_shm_entry_set(itable_shm_t* itbl_shm, int cur_index);
CORVEX_API void itable_shm_entry_unset(itable_shm_t* itbl_shm, int cur_index);
/* The next valid index after prev_index (from 0 when negative), or -1. */
CORVEX_API int itable_shm_get_next_index(itable_shm_t* itbl_shm, int prev_index);
CORVEX_API void* itable_shm_get_start_addr(itable_shm_t* shm_itbl);
CORVEX_API int itable_shm_get_mmap_size(itable_shm_t* shm_itbl);
CORVEX_API void* itable_shm_get_cmn_area(itable_shm_t* shm_itbl, int* size);
/* Marks the region dead, removes the file and releases the handle; the mapping stays. */
CORVEX_API void itable_shm_delete(itable_shm_t* shm_itbl);

CORVEX_END_DECLS

#endif /* CORVEX_ITABLE_SHM_H */
