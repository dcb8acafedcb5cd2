/*
 * Network packets: headers and data buffers drawn from sheaves.
 *
 * A packet is a header (packet_t) and, unless it is header-only, a data
 * buffer (packet_buffer_t) taken from packet_buffer_heap. The buffer keeps
 * packet_encap_bytes (64) of headroom in front of the frame, where tags and
 * encapsulations are inserted, and packet_trailer_bytes (32) after it; a
 * guard word follows the data area.
 *
 * A caller owns a packet from packet_get until packet_return. Clones share
 * the buffer of their original; the buffer goes back to its pool when the
 * original and every clone have been returned.
 */
#ifndef CORVEX_PACKET_VAR_H
#define CORVEX_PACKET_VAR_H

#include <pthread.h>

#include "corvex_types.h"
#include "heap.h"
#include "host_cli.h"
#include "host_module.h"
#include "sheaf.h"

CORVEX_BEGIN_DECLS

#define PACKET_MAGIC 0x50616B20u        /* every header made by the library */
#define PACKET_BUFFER_MAGIC 0x42756620u /* every buffer descriptor */
#define PACKET_BUFFER_GUARD 0xBD8A99DFu /* the word right after a data area */

typedef int16_t packet_refcount_t;
typedef u_int8_t packet_data_t;
typedef u_int8_t packet_priority_t;
typedef u_int8_t packet_sample_t;
typedef u_int8_t packet_notif_type_t;
typedef u_int32_t packet_counter_t;

/* Forward link for the caller's own queues. */
typedef struct queue_links_ {
    void* next;
} queue_links_t;

/* Carried for the caller, never interpreted here. */
typedef struct packet_handle_ {
    boolean i_bit;
    u_int32_t cell_num;
    u_int8_t bank_num;
    u_int16_t log_bchip;
    u_int16_t offset0;
    u_int16_t offset1;
    u_int16_t offset2;
    u_int16_t offset3;
} packet_handle_t;

/* Opaque time stamp, copied whole. */
typedef struct packet_ts_ {
    u_int32_t opaque_data[4];
} packet_ts_t;

typedef struct packet_buffer_ packet_buffer_t;

/* The packet header. */
struct packet_ {
    queue_links_t links;          /* caller's queues; cleared at hand-out */
    u_int32_t magic;              /* PACKET_MAGIC */
    sheaf_t* sheaf;               /* owning pool */
    packet_t* sheaf_next;         /* free-list link while resting */
    packet_refcount_t refcount;   /* holders of this header */
    u_int32_t ifd_input;
    u_int32_t ifd_output;
    u_int16_t vrf_id;
    u_int16_t hw_port;
    u_int8_t chip_inst;
    u_int16_t proto;
    packet_handle_t packet_handle;
    packet_priority_t priority;
    packet_priority_t queue;
    packet_sample_t sample;
    packet_notif_type_t notif_type;
    u_int32_t hint;
    u_int32_t packet_flags;
    packet_length_t length;       /* frame bytes from frame_start */
    packet_buffer_t* buffer;      /* null for a header-only packet */
    packet_t* fragment;           /* next packet of a fragment chain */
    packet_t* clone_next;         /* clone chain, starting at the original */
    packet_t* clone_prev;         /* null for the original */
    packet_data_t* buffer_start;  /* first byte of the data area */
    packet_data_t* frame_start;   /* first byte of the frame */
    packet_data_t* layer3_start;
    packet_data_t* layer4_start;
    packet_data_t* l2_start;
    packet_ts_t timestamp;
    void* pc;                     /* code address of the caller that took it */
    u_int8_t cos;
    u_int8_t code_point;
};

/*
 * Buffer descriptor, followed in the same heap block by `maximum` data
 * bytes and the guard word PACKET_BUFFER_GUARD.
 */
struct packet_buffer_ {
    packet_t* packet;           /* the original packet, which made the buffer */
    packet_length_t maximum;    /* bytes in the data area */
    packet_refcount_t refcount; /* 1 for the original plus 1 per live clone */
    u_int32_t magic;            /* PACKET_BUFFER_MAGIC */
    packet_data_t data[];
};

/* One row of a pool table; the table ends with a null `name`. */
typedef struct packet_sheaf_block_ {
    char* name;             /* "clone" describes the clone pool */
    packet_length_t length; /* sheaf size */
    u_int32_t min;
    u_int32_t max;
    u_int32_t init;
    sheaf_vector_t* vector; /* null: header plus buffer from packet_buffer_heap */
} packet_sheaf_block_t;

/* Live counters; the caller_pc_ words hold the code address of the caller of the failing operation. */
typedef struct packet_stats_ {
    packet_counter_t get_requests;
    packet_counter_t get_successes;
    packet_counter_t get_failures;
    packet_counter_t returns;
    packet_counter_t copy_requests;
    packet_counter_t copy_successes;
    packet_counter_t copy_failures;
    packet_counter_t clone_requests;
    packet_counter_t clone_successes;
    packet_counter_t clone_failures;
    packet_counter_t clone_returns;
    packet_counter_t coalesce_requests;
    packet_counter_t coalesce_failures;
    packet_counter_t coalesce_successes;
    packet_counter_t error_header_refcount;
    u_int32_t caller_pc_error_header_refcount;
    packet_counter_t error_buffer_refcount;
    u_int32_t caller_pc_error_buffer_refcount;
    packet_counter_t error_null_buffer;
    u_int32_t caller_pc_error_null_buffer;
    packet_counter_t error_invalid;
    u_int32_t caller_pc_error_invalid;
} packet_stats_t;

/* ---- module globals ------------------------------------------------------ */
CORVEX_API extern sheaf_t* packet_common_sheaf; /* chain of the sized sheaves, through `next` */
CORVEX_API extern sheaf_t* packet_misfit_sheaf; /* "packet(misfits)" */
CORVEX_API extern sheaf_t* packet_clone_sheaf;  /* "packet(clones)", or null */
CORVEX_API extern heap_t* packet_buffer_heap;
CORVEX_API extern packet_stats_t packet_stats;
CORVEX_API extern packet_stats_t saved_pkt_stats; /* errors as last reported */
CORVEX_API extern u_int32_t packet_encap_bytes;   /* headroom, 64 */
CORVEX_API extern u_int32_t packet_trailer_bytes; /* tail room, 32 */
/*
 * One error-checking lock for every sheaf and every reference decision. A
 * thread that holds it may call into the packet operations again.
 */
CORVEX_API extern pthread_mutex_t packet_glb_lock;
CORVEX_API extern const char* packet_glb_lock_filname;
CORVEX_API extern int packet_glb_lock_line;

/* ---- vector of header-plus-buffer packets -------------------------------- */
CORVEX_API packet_t* packet_alloc(sheaf_t* sheaf, packet_length_t length);
CORVEX_API boolean packet_free(sheaf_t* sheaf, packet_t* packet);

/* ---- hand-out and return ------------------------------------------------- */
/* A packet of the first sized sheaf that fits `length`, or of the misfit pool. */
CORVEX_API packet_t* packet_get(packet_length_t length);
CORVEX_API packet_t* packet_get_from_sheaf(sheaf_t* sheaf);
/* Gives the packet back; stops the process on a damaged or over-returned packet. */
CORVEX_API void packet_return(packet_t* packet);
/* 1 for a valid packet; stops the process otherwise. */
CORVEX_API int packet_verify(packet_t* packet, const char* where);

/* ---- clone, copy and fragments ------------------------------------------- */
CORVEX_API packet_t* packet_clone(packet_t* packet);
CORVEX_API boolean packet_copy(packet_t* src, packet_t* dst, boolean data);
CORVEX_API void packet_fragment_add(packet_t* packet, packet_t* fragment);
CORVEX_API packet_t* packet_fragment_coalesce(packet_t* fragment);

/* ---- start-up ------------------------------------------------------------ */
CORVEX_API void packet_internal_init(void);
CORVEX_API void packet_module_init(void);
CORVEX_API void packet_pool_init(sheaf_vector_t* user_vector, const packet_sheaf_block_t* sheaf_block,
                                 heap_t* buffer_heap);
CORVEX_API void packet_task_start(void);
CORVEX_API void packet_periodc_timer_start(zrmodule* module);

/* ---- diagnostic commands (callbacks of libcorvex_vty_tree) -------------- */

/* show packet: the sheaves of the pool table, the misfit and the clone pool. */
CORVEX_API void packet_show_command(parser_config* config, parser_result* result, u_int32_t magic);
/* show packet statistics: the counters of packet_stats. */
CORVEX_API void packet_show_stats_command(parser_config* config, parser_result* result, u_int32_t magic);
/* show packet dump ADDRESS: only an address that names a live header of a sheaf is read. */
CORVEX_API void packet_show_dump(parser_config* config, parser_result* result, u_int32_t magic);
/* show packet sheaf ID: the packets resting in that sheaf. */
CORVEX_API void packet_show_sheaf(parser_config* config, parser_result* result, u_int32_t magic);
/* Prints the header (and with show_buffer its sheaf and data) of a packet the caller holds. */
CORVEX_API void packet_dump(packet_t* packet, boolean show_buffer);

CORVEX_END_DECLS

#endif /* CORVEX_PACKET_VAR_H */
