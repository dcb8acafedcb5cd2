// Making one packet from another: clones that share the original's buffer,
// copies of the descriptive fields (and optionally the buffer contents),
// and fragment chains coalesced into one packet.
#include "priv_packet.h"

namespace corvex::packet {
namespace {

// Links the clone right after the original (newest clone first) and counts
// its share of the buffer.
void packet_clone_add(packet_t* original, packet_t* clone) {
    clone->clone_prev = original;
    clone->clone_next = original->clone_next;
    if (original->clone_next != nullptr) original->clone_next->clone_prev = clone;
    original->clone_next = clone;
    if (original->buffer != nullptr) refcount_add(original->buffer->refcount, 1);
}

packet_data_t* shifted(packet_data_t* marker, uintptr_t from_base, uintptr_t to_base) {
    if (marker == nullptr) return nullptr;
    return reinterpret_cast<packet_data_t*>(reinterpret_cast<uintptr_t>(marker) - from_base + to_base);
}

// Bytes of the data area from buffer_start to its end (0 when buffer_start
// does not lie inside the data area).
u_int32_t room_from_buffer_start(const packet_t* packet) {
    const packet_buffer_t* buffer = packet->buffer;
    if (buffer == nullptr || packet->buffer_start < buffer->data ||
        packet->buffer_start > buffer->data + buffer->maximum)
        return 0;
    return static_cast<u_int32_t>(buffer->data + buffer->maximum - packet->buffer_start);
}

u_int32_t smaller(u_int32_t a, u_int32_t b) { return a < b ? a : b; }

// Writes the head's headroom and every member's frame, in chain order, into
// the buffer of `whole`, which holds at least `total` frame bytes.
void append_chain_frames(packet_t* whole, const packet_t* head, u_int32_t total) {
    // The frame keeps the head's offset from the buffer start, unless the
    // whole frame would then run past the new buffer.
    if (whole->frame_start == nullptr || whole->frame_start < whole->buffer_start ||
        static_cast<u_int32_t>(whole->frame_start - whole->buffer_start) + total > whole->buffer->maximum)
        whole->frame_start = whole->buffer_start + packet_encap_bytes;
    const auto headroom = static_cast<u_int32_t>(whole->frame_start - whole->buffer_start);
    if (headroom > 0 && head->buffer_start != nullptr)
        std::memcpy(whole->buffer_start, head->buffer_start, smaller(headroom, room_from_buffer_start(head)));
    packet_data_t* out = whole->frame_start;
    for (const packet_t* member = head; member != nullptr; member = member->fragment) {
        if (member->length == 0 || member->frame_start == nullptr) continue;
        std::memcpy(out, member->frame_start, member->length);
        out += member->length;
    }
}

}  // namespace
}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" {

packet_t* packet_clone(packet_t* packet) {
    // One lock round trip covers the counters, the take and the chain: holders
    // of different members of one chain may clone and return on different
    // threads.
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    stat_add_locked(packet_stats.clone_requests);
    // A header-only packet has no original to share a buffer with.
    packet_t* clone = nullptr;
    if (packet_is_valid_inline(packet) && packet->buffer != nullptr) {
        clone = packet_take_locked(packet_clone_sheaf, sheaf_size_of(packet_clone_sheaf), false);
    }
    if (clone == nullptr) {
        stat_add_locked(packet_stats.clone_failures);
        return nullptr;
    }
    // The whole header is copied over the clone's, so it is not reset first.
    sheaf_t* own_sheaf = clone->sheaf;
    *clone = *packet;
    clone->sheaf = own_sheaf;
    clone->sheaf_next = nullptr;
    clone->fragment = nullptr;
    clone->clone_next = nullptr;
    clone->clone_prev = nullptr;
    clone->links.next = nullptr;
    refcount_store(clone->refcount, 1);
    packet_clone_add(packet_original(packet), clone);
    stat_add_locked(packet_stats.clone_successes);
    return clone;
}

boolean packet_copy(packet_t* src, packet_t* dst, boolean data) {
    stat_add(packet_stats.copy_requests);
    // Contents can only move between two buffers.
    if (src == nullptr || dst == nullptr || (data && (src->buffer == nullptr || dst->buffer == nullptr))) {
        stat_add(packet_stats.copy_failures);
        return FALSE;
    }
    dst->proto = src->proto;
    dst->length = src->length;
    dst->ifd_input = src->ifd_input;
    dst->ifd_output = src->ifd_output;
    dst->hint = src->hint;
    dst->sample = src->sample;
    dst->priority = src->priority;
    dst->notif_type = src->notif_type;
    dst->cos = src->cos;
    dst->timestamp = src->timestamp;

    if (data) {
        const u_int32_t src_size = src->sheaf != nullptr ? static_cast<u_int32_t>(src->sheaf->size) : 0;
        const u_int32_t dst_size = dst->sheaf != nullptr ? static_cast<u_int32_t>(dst->sheaf->size) : 0;
        u_int32_t bytes = (smaller(src_size, dst_size) + packet_encap_bytes) % 65536u;
        bytes = smaller(bytes, smaller(room_from_buffer_start(src), room_from_buffer_start(dst)));
        std::memmove(dst->buffer_start, src->buffer_start, bytes);
    }
    // Markers keep their offsets from the start of the buffer.
    if (src->buffer_start != nullptr && dst->buffer_start != nullptr) {
        const auto from = reinterpret_cast<uintptr_t>(src->buffer_start);
        const auto to = reinterpret_cast<uintptr_t>(dst->buffer_start);
        dst->frame_start = shifted(src->frame_start, from, to);
        dst->layer3_start = shifted(src->layer3_start, from, to);
        dst->layer4_start = shifted(src->layer4_start, from, to);
    }
    stat_add(packet_stats.copy_successes);
    return TRUE;
}

void packet_fragment_add(packet_t* packet, packet_t* fragment) {
    if (packet == nullptr || fragment == nullptr) return;
    packet_t* last = packet;
    for (;;) {
        // A packet already in the chain stays where it is: adding it again
        // would close a loop.
        if (last == fragment) return;
        if (last->fragment == nullptr) break;
        last = last->fragment;
    }
    last->fragment = fragment;
    fragment->fragment = nullptr;
}

packet_t* packet_fragment_coalesce(packet_t* fragment) {
    packet_t* head = fragment;
    if (head == nullptr || head->fragment == nullptr) return head;
    void* pc = __builtin_return_address(0);
    stat_add(packet_stats.coalesce_requests);

    u_int32_t total = 0;
    for (packet_t* member = head; member != nullptr; member = member->fragment) total += member->length;
    // A frame longer than a 16-bit length cannot be described; the chain is
    // consumed as on any other failure.
    packet_t* whole = total <= 0xFFFFu ? packet_get_at(static_cast<packet_length_t>(total), pc) : nullptr;
    if (whole == nullptr) {
        packet_return_at(head, pc);
        stat_add(packet_stats.coalesce_failures);
        return nullptr;
    }
    packet_copy(head, whole, FALSE);
    if (whole->buffer != nullptr) append_chain_frames(whole, head, total);
    whole->length = static_cast<packet_length_t>(total);
    packet_return_at(head, pc);
    stat_add(packet_stats.coalesce_successes);
    return whole;
}

}  // extern "C"
