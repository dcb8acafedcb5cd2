/*
 * Sheaves: pools of ready-made packets of one kind (header plus a buffer
 * for one frame size, or header only).
 *
 * A sheaf keeps up to `max` idle packets in a last-in-first-out free list,
 * tops up a reserve of `min` idle packets, makes packets through its vector
 * when the list is empty and destroys them through the same vector when the
 * list is full. Every sheaf sits in one registry that a background timer
 * walks every 5 seconds to trim each sheaf to its bounds.
 *
 * The take and give-back operations (sheaf_malloc, sheaf_free, the inline
 * pair, enqueue and dequeue) take no lock: their caller holds
 * packet_glb_lock (packet_var.h).
 */
#ifndef CORVEX_SHEAF_H
#define CORVEX_SHEAF_H

#include "corvex_types.h"
#include "llist_shared.h"

CORVEX_BEGIN_DECLS

/* Frame and buffer lengths. */
typedef u_int16_t packet_length_t;
/* Frame size a sheaf is made for. */
typedef packet_length_t sheaf_size_t;

typedef struct packet_ packet_t;
typedef struct sheaf_ sheaf_t;

/* Makes a packet for the sheaf (frame length given), or returns null. */
typedef packet_t* (*sheaf_vector_alloc_t)(sheaf_t* sheaf, packet_length_t length);
/* Destroys a packet of the sheaf; TRUE when it was destroyed. */
typedef boolean (*sheaf_vector_free_t)(sheaf_t* sheaf, packet_t* packet);
/* Visits one resting packet; FALSE stops the walk. */
typedef boolean (*sheaf_walker_t)(sheaf_t* sheaf, packet_t* packet);

/* How a sheaf makes and destroys its packets. */
typedef struct sheaf_vector_ {
    sheaf_vector_alloc_t alloc;
    sheaf_vector_free_t free;
} sheaf_vector_t;

/*
 * One pool. What holds between any two operations on a sheaf (builds made
 * with CORVEX_INVARIANTS assert each of these, by these words, after every
 * take, give-back, creation, destruction and tune):
 * - sheaf free count equals its list (the length of `packets`);
 * - free never exceeds total;
 * - a resting packet belongs to its sheaf.
 * A sheaf with a reserve (`min` > 0) is made with `max` > `min`.
 */
struct sheaf_ {
    list_item_t links;      /* link in the sheaf registry */
    sheaf_t* next;          /* next sheaf of the packet pool chain, or null */
    void* context;          /* caller's value, never used here */
    packet_t* packets;      /* free list, linked through sheaf_next, LIFO */
    sheaf_vector_t* vector; /* how packets are made and destroyed */
    const char* name;       /* caller's string, not copied; may be null */
    size_t size;            /* frame size of the packets; 0: header only or per request */
    u_int32_t id;           /* 1 for the first sheaf, in creation order */
    u_int32_t total;        /* made by the vector and not yet destroyed */
    u_int32_t high_thresh;  /* highest `total` seen */
    u_int32_t free;         /* packets resting in the free list */
    u_int32_t flags;        /* zero; not used by the library */
    u_int32_t min;          /* reserve kept resting (0: none) */
    u_int32_t max;          /* most packets that may rest */
    u_int32_t init;         /* packets made at creation (at most `max`) */
    u_int32_t nempty;       /* vector allocations that failed */
    u_int32_t nalloc;       /* vector allocations attempted */
    u_int32_t nfree;        /* packets handed to the vector's free */
};

/* Creates the registry; later calls keep the registry that exists. */
CORVEX_API void sheaf_init(void);
/*
 * Creates and registers a sheaf and makes `init` packets (at most
 * `max_size`). A null vector gets one that must never be asked to make or
 * destroy a packet. Returns null without memory, and for a reserve that the
 * free list could not hold (`min_size` > 0 with `max_size` <= `min_size`).
 */
CORVEX_API sheaf_t* sheaf_create(const char* name, sheaf_size_t size, u_int32_t min_size, u_int32_t max_size,
                                 u_int32_t init, sheaf_vector_t* vector, void* context);
/*
 * Destroys the resting packets and unregisters the sheaf. The record is
 * released when no packet of it is out; otherwise it stays allocated and
 * each returned packet is destroyed. FALSE only for a null sheaf.
 */
CORVEX_API boolean sheaf_destroy(sheaf_t* sheaf);

/* Takes a packet, topping up the reserve first. */
CORVEX_API packet_t* sheaf_malloc(sheaf_t* sheaf, sheaf_size_t size);
/* Gives a packet back: to the free list, or to the vector when it is full. */
CORVEX_API void sheaf_free(sheaf_t* sheaf, packet_t* packet);
/* One take: the head of the free list (when `dequeue`), else a fresh packet. */
CORVEX_API packet_t* sheaf_alloc_inline(sheaf_t* sheaf, sheaf_size_t size, boolean dequeue);
/* One give-back, as sheaf_free. */
CORVEX_API void sheaf_free_inline(sheaf_t* sheaf, packet_t* packet);
CORVEX_API void sheaf_packet_enqueue(sheaf_t* sheaf, packet_t* packet);
CORVEX_API packet_t* sheaf_packet_dequeue(sheaf_t* sheaf);

/* Calls the walker for each resting packet from the head; takes no lock. */
CORVEX_API void sheaf_walk(sheaf_t* sheaf, sheaf_walker_t walker);

/*
 * Starts the background module "SHEAF Backgroud" with the timers
 * "packet error check" (10 s) and "Sheaf Periodic" (5 s).
 */
CORVEX_API void sheaf_spawn_perodic_task(void);

/* Prints the sheaf's line of the show packet table on the CLI terminal. */
CORVEX_API void sheaf_display(sheaf_t* sheaf);

CORVEX_END_DECLS

#endif /* CORVEX_SHEAF_H */
