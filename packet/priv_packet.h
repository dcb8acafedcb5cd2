// Shared inside the packet subsystem: the global lock, counter and
// reference-count helpers, buffer geometry, and the entry points that carry
// the public caller's code address through internal calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "packet_var.h"
#include "priv_glb_lock.h"
#include "priv_invariants.h"

namespace corvex::packet {

using corvex::GlbLockGuard;

inline constexpr const char* kPacketSource = "packet/packet";
inline constexpr const char* kSheafSource = "packet/sheaf";

inline const GlbLock kPacketGlbLock{packet_glb_lock, packet_glb_lock_filname, packet_glb_lock_line};

// Counters are shared by every thread; the displays read them without the
// lock. A counter that is also changed outside the lock (copy, coalesce)
// takes an atomic add.
inline void stat_add(packet_counter_t& counter) {
    std::atomic_ref<packet_counter_t>(counter).fetch_add(1, std::memory_order_relaxed);
}
// A counter whose every change is made under packet_glb_lock (get, return,
// clone, errors): the lock already orders the changes, so a plain add
// stored whole is enough.
inline void stat_add_locked(packet_counter_t& counter) {
    std::atomic_ref<packet_counter_t> shared(counter);
    shared.store(shared.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}
inline packet_counter_t stat_read(packet_counter_t& counter) {
    return std::atomic_ref<packet_counter_t>(counter).load(std::memory_order_relaxed);
}
// Error sites are 32-bit code addresses; wider builds keep the low half.
inline void stat_record_pc(u_int32_t& word, void* pc) {
    std::atomic_ref<u_int32_t>(word).store(static_cast<u_int32_t>(reinterpret_cast<uintptr_t>(pc)),
                                           std::memory_order_relaxed);
}

// Reference counts of headers and buffers. Decrements and increments by one
// may run outside the lock (clone linking), so every access is atomic.
inline packet_refcount_t refcount_load(packet_refcount_t& count) {
    return std::atomic_ref<packet_refcount_t>(count).load(std::memory_order_acquire);
}
inline void refcount_store(packet_refcount_t& count, packet_refcount_t value) {
    std::atomic_ref<packet_refcount_t>(count).store(value, std::memory_order_release);
}
inline void refcount_add(packet_refcount_t& count, packet_refcount_t delta) {
    std::atomic_ref<packet_refcount_t>(count).fetch_add(delta, std::memory_order_acq_rel);
}

static_assert(sizeof(packet_buffer_t) % 4 == 0, "descriptor keeps the data area word-aligned");
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(packet_t) == 132 && offsetof(packet_t, refcount) == 16 && offsetof(packet_t, length) == 68 &&
                  offsetof(packet_t, buffer) == 72 && offsetof(packet_t, timestamp) == 108 &&
                  offsetof(packet_t, pc) == 124 && offsetof(packet_t, code_point) == 129,
              "packet header layout");
static_assert(sizeof(packet_buffer_t) == 12 && offsetof(packet_buffer_t, data) == 12, "buffer descriptor layout");
static_assert(sizeof(sheaf_t) == 76 && offsetof(sheaf_t, size) == 28 && offsetof(sheaf_t, nfree) == 72,
              "sheaf layout");
static_assert(sizeof(packet_sheaf_block_t) == 24, "pool table row layout");
#endif
static_assert(sizeof(packet_stats_t) == 22 * 4, "twenty-two counter words");

// The largest data area a 16-bit `maximum` describes with the guard word
// still word-aligned behind it.
inline constexpr u_int32_t kLargestMaximum = 65532;

inline u_int32_t round_up4(u_int32_t n) { return (n + 3u) & ~3u; }

// Data-area size for frames of `frame_size` bytes: headroom, frame, tail room.
inline u_int32_t buffer_maximum_for(u_int32_t frame_size) {
    return round_up4(frame_size + packet_encap_bytes + packet_trailer_bytes);
}
// Heap request for such a buffer: descriptor, data area and guard word.
inline u_int32_t buffer_block_bytes_for(u_int32_t frame_size) {
    return buffer_maximum_for(frame_size) + static_cast<u_int32_t>(sizeof(packet_buffer_t)) + 4u;
}

inline u_int32_t buffer_guard_read(const packet_buffer_t* buffer) {
    u_int32_t word;
    std::memcpy(&word, buffer->data + buffer->maximum, sizeof word);
    return word;
}
inline void buffer_guard_write(packet_buffer_t* buffer) {
    const u_int32_t word = PACKET_BUFFER_GUARD;
    std::memcpy(buffer->data + buffer->maximum, &word, sizeof word);
}
// Data bytes the buffer's heap block can describe, the guard word kept.
inline u_int32_t buffer_capacity(packet_buffer_t* buffer) {
    const u_int32_t block = heap_block_size(buffer);
    const u_int32_t overhead = static_cast<u_int32_t>(sizeof(packet_buffer_t)) + 4u;
    return block > overhead ? block - overhead : 0;
}

// `maximum` lies inside the buffer's heap block, so the guard word may be
// read. Every buffer of a sized sheaf is made for at least the sheaf's size:
// within that, no look at the heap block is needed.
inline bool buffer_describes_block(const sheaf_t* sheaf, packet_buffer_t* buffer) {
    if (sheaf->size != 0 && buffer->maximum <= buffer_maximum_for(static_cast<u_int32_t>(sheaf->size))) return true;
    return buffer->maximum <= buffer_capacity(buffer);
}

// Packets of such a sheaf carry buffers of packet_buffer_heap with a guard word.
inline bool sheaf_makes_buffers(const sheaf_t* sheaf) {
    return sheaf != nullptr && sheaf->vector != nullptr && sheaf->vector->alloc == packet_alloc;
}

inline bool packet_is_valid_inline(const packet_t* packet) {
    return packet != nullptr && packet->magic == PACKET_MAGIC &&
           (packet->buffer == nullptr || packet->buffer->magic == PACKET_BUFFER_MAGIC);
}
inline bool packet_is_clone(const packet_t* packet) { return packet->clone_prev != nullptr; }
inline packet_t* packet_original(const packet_t* packet) {
    return packet->buffer != nullptr ? packet->buffer->packet : nullptr;
}

// After an operation on a sheaf: the invariants written at sheaf_t (sheaf.h)
// asserted, in builds made with CORVEX_INVARIANTS; nothing else.
#if CORVEX_INVARIANTS
void sheaf_invariants_check(const sheaf_t* sheaf);
#else
inline void sheaf_invariants_check(const sheaf_t*) {}
#endif

// A sheaf's take and give-back, inline for the hand-out and return paths
// (the exported sheaf_* operations are these). The caller holds
// packet_glb_lock.
inline void sheaf_push(sheaf_t* sheaf, packet_t* packet) {
    packet->sheaf_next = sheaf->packets;
    sheaf->packets = packet;
    ++sheaf->free;
    sheaf_invariants_check(sheaf);
}

inline packet_t* sheaf_pop(sheaf_t* sheaf) {
    packet_t* packet = sheaf->packets;
    if (packet != nullptr) {
        sheaf->packets = packet->sheaf_next;
        packet->sheaf_next = nullptr;
        --sheaf->free;
        sheaf_invariants_check(sheaf);
    }
    return packet;
}

// The frame length a take from this sheaf asks for when none is given.
inline packet_length_t sheaf_size_of(const sheaf_t* sheaf) {
    return static_cast<packet_length_t>(sheaf != nullptr ? sheaf->size : 0);
}

// The live headers that sheaves made (packet_registry.cpp): added when a
// vector makes a header, removed before one is destroyed. Each takes
// packet_glb_lock (the caller may hold it already).
void packet_registry_add(packet_t* packet);
void packet_registry_remove(packet_t* packet);
bool packet_registry_holds(const void* address);

// One take: the head of the free list when `dequeue` allows, else a fresh
// packet from the vector.
inline packet_t* sheaf_take_once(sheaf_t* sheaf, sheaf_size_t size, bool dequeue) {
    if (dequeue && sheaf->packets != nullptr) return sheaf_pop(sheaf);
    ++sheaf->nalloc;
    packet_t* packet = sheaf->vector->alloc(sheaf, size);
    if (packet == nullptr) {
        ++sheaf->nempty;
        return nullptr;
    }
    if (++sheaf->total > sheaf->high_thresh) sheaf->high_thresh = sheaf->total;
    packet_registry_add(packet);
    sheaf_invariants_check(sheaf);
    return packet;
}

// One give-back: to the free list, or to the vector when the list is full.
inline void sheaf_give(sheaf_t* sheaf, packet_t* packet) {
    if (sheaf->free < sheaf->max) {
        sheaf_push(sheaf, packet);
        return;
    }
    ++sheaf->nfree;
    packet_registry_remove(packet);
    if (sheaf->vector->free(sheaf, packet)) --sheaf->total;
    sheaf_invariants_check(sheaf);
}

// A take that first refills the reserve to min + 1 resting packets, bounded
// by what the free list may hold should `max` have been lowered to the
// reserve or below.
[[gnu::always_inline]] inline packet_t* sheaf_take(sheaf_t* sheaf, sheaf_size_t size) {
    while (sheaf->min != 0 && sheaf->free <= sheaf->min && sheaf->free < sheaf->max) {
        packet_t* packet = sheaf_take_once(sheaf, size, false);
        if (packet == nullptr) break;
        sheaf_give(sheaf, packet);
    }
    return sheaf_take_once(sheaf, size, true);
}

// A resting buffer can be too small for a request only in a pool that
// makes packets per request (size 0) and was allowed to keep some.
inline bool buffer_fits(packet_t* packet, packet_length_t length) {
    if (packet->buffer == nullptr) return length == 0;
    return buffer_capacity(packet->buffer) >= buffer_maximum_for(length);
}

// The take of both get operations (and of a clone's header) for a caller
// that holds packet_glb_lock: the pool, the checks and the get_ counters;
// the header is not reset. Inline, as each caller's own code.
[[gnu::always_inline]] inline packet_t* packet_take_locked(sheaf_t* sheaf, packet_length_t length, bool sized) {
    stat_add_locked(packet_stats.get_requests);
    packet_t* packet = sheaf != nullptr ? sheaf_take(sheaf, length) : nullptr;
    if (packet != nullptr && sized && length > sheaf->size && sheaf_makes_buffers(sheaf) &&
        !buffer_fits(packet, length)) {
        sheaf_give(sheaf, packet);
        packet = sheaf_take_once(sheaf, length, false);
    }
    if (!packet_is_valid_inline(packet)) {
        stat_add_locked(packet_stats.get_failures);
        return nullptr;
    }
    stat_add_locked(packet_stats.get_successes);
    return packet;
}

// Internal forms of the public entries: `pc` is the code address of the
// public caller, recorded in the header and in the error counters.
packet_t* packet_get_at(packet_length_t length, void* pc);
void packet_return_at(packet_t* packet, void* pc);

}  // namespace corvex::packet
