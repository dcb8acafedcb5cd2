// Packet hand-out and return: the vector that makes header-plus-buffer
// packets, the two get operations, the reference-counted return that
// handles clones and fragment chains, and verification.
#include <syslog.h>

#include <cstdlib>

#include "kdebug.h"
#include "priv_assert.h"
#include "priv_packet.h"

extern "C" {
sheaf_t* packet_common_sheaf;
sheaf_t* packet_misfit_sheaf;
sheaf_t* packet_clone_sheaf;
heap_t* packet_buffer_heap;
packet_stats_t packet_stats;
packet_stats_t saved_pkt_stats;
u_int32_t packet_encap_bytes;
u_int32_t packet_trailer_bytes;
pthread_mutex_t packet_glb_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
const char* packet_glb_lock_filname;
int packet_glb_lock_line;
}

namespace corvex::packet {
namespace {

// Zeroes a header with word stores, which the compiler may pair into
// vector stores: for a record this small a string instruction costs more.
[[gnu::always_inline]] inline void packet_header_clear(packet_t* packet) {
    using Word = std::uint32_t __attribute__((may_alias));
    static_assert(sizeof(packet_t) % sizeof(Word) == 0 && alignof(packet_t) >= alignof(Word));
    auto* word = reinterpret_cast<Word*>(packet);
#pragma GCC unroll 64
    for (size_t i = 0; i < sizeof(packet_t) / sizeof(Word); ++i) {
        word[i] = 0;
    }
}

// Hand-out reset: only the header is cleared, never the buffer.
[[gnu::always_inline]] inline void packet_reset_for_handout(packet_t* packet) {
    sheaf_t* sheaf = packet->sheaf;
    packet_buffer_t* buffer = packet->buffer;
    packet_header_clear(packet);
    packet->sheaf = sheaf;
    packet->buffer = buffer;
    packet->magic = PACKET_MAGIC;
    if (buffer != nullptr) {
        refcount_store(buffer->refcount, 1);
        packet->buffer_start = buffer->data;
        packet->frame_start = buffer->data + packet_encap_bytes;
    }
    refcount_store(packet->refcount, 1);
}

// The take, checks and reset common to both get operations. `sized` is set
// for packet_get: the buffer is then described for exactly `length`.
[[gnu::always_inline]] inline packet_t* packet_get_inline(sheaf_t* sheaf, packet_length_t length, bool sized,
                                                          void* pc) {
    packet_t* packet;
    {
        // Only the pool is shared: the lock covers the take, nothing more.
        GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
        packet = packet_take_locked(sheaf, length, sized);
    }
    if (packet == nullptr) return nullptr;
    // The caller owns the packet alone from here on.
    packet_reset_for_handout(packet);
    if (sized && packet->buffer != nullptr && sheaf_makes_buffers(packet->sheaf)) {
        packet->buffer->maximum = static_cast<packet_length_t>(buffer_maximum_for(length));
        buffer_guard_write(packet->buffer);
    }
    packet->pc = pc;
    return packet;
}

[[noreturn]] void packet_return_refcount_failure(packet_t* packet, const char* what, int count) {
    const char* name = packet->sheaf != nullptr && packet->sheaf->name != nullptr ? packet->sheaf->name : "<none>";
    syslog(LOG_ERR, "packet_return(): 0x%x (sheaf %s) %s %d\n",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(packet)), name, what, count);
    __assert_fail("0", kPacketSource, __LINE__, "packet_return");
}

[[gnu::always_inline]] inline void give_back_to_sheaf(packet_t* packet) {
    if (packet->sheaf != nullptr) sheaf_give(packet->sheaf, packet);
}

// Joins the clone's neighbours and drops its share of the buffer.
void packet_clone_remove(packet_t* original, packet_t* clone) {
    if (clone->clone_prev != nullptr) clone->clone_prev->clone_next = clone->clone_next;
    if (clone->clone_next != nullptr) clone->clone_next->clone_prev = clone->clone_prev;
    clone->clone_next = nullptr;
    clone->clone_prev = nullptr;
    if (original != nullptr && original->buffer != nullptr) refcount_add(original->buffer->refcount, -1);
}

// Last holder of a clone: the header goes back to the clone pool, and the
// original follows when it was returned earlier and this was the last clone.
void packet_return_clone(packet_t* clone) {
    packet_buffer_t* buffer = clone->buffer;
    packet_t* original = buffer->packet;
    packet_clone_remove(original, clone);
    clone->buffer = nullptr;
    refcount_store(clone->refcount, 0);
    give_back_to_sheaf(clone);
    stat_add_locked(packet_stats.returns);
    stat_add_locked(packet_stats.clone_returns);
    if (original != nullptr && refcount_load(original->refcount) == 0 && refcount_load(buffer->refcount) == 0) {
        stat_add_locked(packet_stats.returns);
        give_back_to_sheaf(original);
    }
}

}  // namespace

packet_t* packet_get_at(packet_length_t length, void* pc) {
    sheaf_t* chosen = packet_misfit_sheaf;
    for (sheaf_t* sheaf = packet_common_sheaf; sheaf != nullptr; sheaf = sheaf->next) {
        if (sheaf->size >= length) {
            chosen = sheaf;
            length = static_cast<packet_length_t>(sheaf->size);
            break;
        }
    }
    return packet_get_inline(chosen, length, true, pc);
}

void packet_return_at(packet_t* packet, void* pc) {
    if (!packet_is_valid_inline(packet)) {
        stat_record_pc(packet_stats.caller_pc_error_invalid, pc);
        panic("packet_return: invalid packet (addr = 0x%p)\n", static_cast<void*>(packet));
    }
    packet_buffer_t* buffer = packet->buffer;
    if (buffer != nullptr && sheaf_makes_buffers(packet->sheaf) &&
        (buffer->maximum == 0 || !buffer_describes_block(packet->sheaf, buffer) ||
         buffer_guard_read(buffer) != PACKET_BUFFER_GUARD)) {
        stat_record_pc(packet_stats.caller_pc_error_invalid, pc);
        panic("packet_return: packet corruption (addr = 0x%p)\n", static_cast<void*>(packet));
    }

    const char* failure = nullptr;
    int failure_count = 0;
    {
        GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
        if (buffer == nullptr) {
            stat_record_pc(packet_stats.caller_pc_error_null_buffer, pc);
            stat_add_locked(packet_stats.error_null_buffer);
            return;
        }
        const packet_refcount_t holders = refcount_load(packet->refcount);
        if (holders == 1) {
            for (packet_t* fragment = packet->fragment; fragment != nullptr;) {
                packet_t* next = fragment->fragment;
                fragment->fragment = nullptr;
                packet_return_at(fragment, pc);
                fragment = next;
            }
            if (packet_is_clone(packet)) {
                packet_return_clone(packet);
            } else {
                refcount_store(packet->refcount, 0);
                const packet_refcount_t users = refcount_load(buffer->refcount);
                if (users == 1) {
                    refcount_store(buffer->refcount, 0);
                    stat_add_locked(packet_stats.returns);
                    give_back_to_sheaf(packet);
                } else if (users > 1) {
                    // Clones still read the frame: the header waits for the last of them.
                    refcount_add(buffer->refcount, -1);
                } else {
                    stat_record_pc(packet_stats.caller_pc_error_buffer_refcount, pc);
                    stat_add_locked(packet_stats.error_buffer_refcount);
                    failure = "has a buffer refcount of";
                    failure_count = users;
                }
            }
        } else if (holders > 1) {
            refcount_add(packet->refcount, -1);
        } else {
            stat_record_pc(packet_stats.caller_pc_error_header_refcount, pc);
            stat_add_locked(packet_stats.error_header_refcount);
            failure = "has a packet refcount of";
            failure_count = holders;
        }
    }
    if (failure != nullptr) packet_return_refcount_failure(packet, failure, failure_count);
}

}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" {

packet_t* packet_alloc(sheaf_t* sheaf, packet_length_t length) {
    auto* packet = static_cast<packet_t*>(kzalloc(sizeof(packet_t)));
    if (packet == nullptr) return nullptr;
    packet->sheaf = sheaf;
    packet->magic = PACKET_MAGIC;
    if (length == 0) return packet;

    const u_int32_t frame_size = sheaf != nullptr && sheaf->size > length ? static_cast<u_int32_t>(sheaf->size)
                                                                          : length;
    const u_int32_t maximum = buffer_maximum_for(frame_size);
    // Without a heap a buffer could never be released; past kLargestMaximum
    // the 16-bit `maximum` cannot describe it.
    void* block = nullptr;
    if (packet_buffer_heap != nullptr && maximum <= kLargestMaximum)
        block = heap_malloc(packet_buffer_heap, buffer_block_bytes_for(frame_size));
    if (block == nullptr) {
        free(packet);
        return nullptr;
    }
    auto* buffer = static_cast<packet_buffer_t*>(block);
    buffer->magic = PACKET_BUFFER_MAGIC;
    buffer->packet = packet;
    buffer->refcount = 0;
    buffer->maximum = static_cast<packet_length_t>(maximum);
    buffer_guard_write(buffer);
    packet->buffer = buffer;
    packet->buffer_start = buffer->data;
    return packet;
}

boolean packet_free(sheaf_t* /*sheaf*/, packet_t* packet) {
    packet_registry_remove(packet);
    if (packet->buffer != nullptr) heap_free(packet_buffer_heap, packet->buffer);
    free(packet);
    return TRUE;
}

packet_t* packet_get(packet_length_t length) { return packet_get_at(length, __builtin_return_address(0)); }

packet_t* packet_get_from_sheaf(sheaf_t* sheaf) {
    return packet_get_inline(sheaf, sheaf_size_of(sheaf), false, __builtin_return_address(0));
}

void packet_return(packet_t* packet) { packet_return_at(packet, __builtin_return_address(0)); }

int packet_verify(packet_t* packet, const char* /*where*/) {
    if (packet_is_valid_inline(packet)) return 1;
    static constexpr const char* kRule = "packet_verify: >>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>\n";
    syslog(LOG_ERR, "%s", kRule);
    syslog(LOG_ERR, "packet_verify: Buffer will underflow....\n");
    if (packet != nullptr) {
        syslog(LOG_ERR, "packet_verify: frame start: 0x%p, buffer start: 0x%p\n",
               static_cast<void*>(packet->frame_start), static_cast<void*>(packet->buffer_start));
    }
    syslog(LOG_ERR, "%s", kRule);
    panic("packet_verify: invalid buffer");
}

}  // extern "C"
