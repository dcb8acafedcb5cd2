// The packet commands of the diagnostic command line: the sheaf table, the
// packet counters, one packet's header and data, and the packets resting in
// one sheaf.
//
// The table and the counters are read without the lock, as they are at that
// moment. Whatever is read through a packet pointer is read under
// packet_glb_lock, so the packet cannot be destroyed while it is shown; an
// address typed by an operator is read only when it names a live header.
#include <cinttypes>

#include "hexdump.h"
#include "host_cli.h"
#include "priv_packet.h"
#include "priv_parser_items.h"

namespace corvex::packet {
namespace {

const char* name_of(const sheaf_t* sheaf) {
    return sheaf != nullptr && sheaf->name != nullptr ? sheaf->name : "<none>";
}

boolean packet_show_sheaf_walker(sheaf_t* /*sheaf*/, packet_t* packet) {
    packet_dump(packet, FALSE);
    return TRUE;
}

// The sized sheaves first, then the clone pool, then the misfit pool.
sheaf_t* sheaf_with_id(u_int32_t id) {
    for (sheaf_t* sheaf = packet_common_sheaf; sheaf != nullptr; sheaf = sheaf->next) {
        if (sheaf->id == id) {
            return sheaf;
        }
    }
    for (sheaf_t* pool : {packet_clone_sheaf, packet_misfit_sheaf}) {
        if (pool != nullptr && pool->id == id) {
            return pool;
        }
    }
    return nullptr;
}

// Bytes of the data area from `from` to its end; 0 when `from` lies outside it.
size_t data_bytes_from(const packet_buffer_t* buffer, const packet_data_t* from) {
    const auto start = reinterpret_cast<uintptr_t>(buffer->data);
    const auto at = reinterpret_cast<uintptr_t>(from);
    return at >= start && at - start <= buffer->maximum ? buffer->maximum - (at - start) : 0;
}

struct StatLine {
    packet_counter_t packet_stats_t::*count;
    const char* what;
};

constexpr StatLine kRequestLines[] = {
    {&packet_stats_t::get_requests, "get requests"},
    {&packet_stats_t::get_successes, "get successes"},
    {&packet_stats_t::get_failures, "get failures"},
    {&packet_stats_t::returns, "returns"},
};
constexpr StatLine kCopyLines[] = {
    {&packet_stats_t::clone_requests, "clone requests"},
    {&packet_stats_t::clone_successes, "clone successes"},
    {&packet_stats_t::clone_returns, "clone returns"},
    {&packet_stats_t::clone_failures, "clone failures"},
    {&packet_stats_t::copy_requests, "copy requests"},
    {&packet_stats_t::copy_successes, "copy successes"},
    {&packet_stats_t::copy_failures, "copy failures"},
    {&packet_stats_t::coalesce_requests, "coalesce requests"},
    {&packet_stats_t::coalesce_successes, "coalesce successes"},
    {&packet_stats_t::coalesce_failures, "coalesce failures"},
};
constexpr StatLine kErrorLines[] = {
    {&packet_stats_t::error_header_refcount, "bad header refcounts"},
    {&packet_stats_t::error_buffer_refcount, "bad buffer refcounts"},
    {&packet_stats_t::error_invalid, "invalid headers"},
    {&packet_stats_t::error_null_buffer, "null buffers"},
};

void print_count(packet_counter_t value, const char* what) { parser_printf(" %10u %s\n", value, what); }

template <size_t N>
void print_counts(const StatLine (&lines)[N]) {
    for (const StatLine& line : lines) {
        print_count(stat_read(packet_stats.*line.count), line.what);
    }
}

}  // namespace
}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" {

void sheaf_display(sheaf_t* sheaf) {
    parser_printf("%3d  %4d(%4d, %4d)  %4d(%4d, %4d)  %4d/%4d/%4d %s\n", static_cast<int>(sheaf->id),
                  static_cast<int>(sheaf->total), static_cast<int>(sheaf->init), static_cast<int>(sheaf->high_thresh),
                  static_cast<int>(sheaf->free), static_cast<int>(sheaf->min), static_cast<int>(sheaf->max),
                  static_cast<int>(sheaf->nalloc), static_cast<int>(sheaf->nfree), static_cast<int>(sheaf->nempty),
                  name_of(sheaf));
}

void packet_dump(packet_t* packet, boolean show_buffer) {
    if (!packet_is_valid_inline(packet)) {
        parser_printf("%p is not a valid packet\n", static_cast<void*>(packet));
        return;
    }
    const sheaf_t* sheaf = packet->sheaf;
    const int size = sheaf != nullptr ? static_cast<int>(sheaf->size) : 0;
    const int encap = static_cast<int>(packet_encap_bytes);
    packet_buffer_t* buffer = packet->buffer;
    parser_printf("\nHeader information for %p:\n", static_cast<void*>(packet));
    if (show_buffer) {
        parser_printf("\n  sheaf %s, id %d, maximum size %d (%d + %d)", name_of(sheaf),
                      sheaf != nullptr ? static_cast<int>(sheaf->id) : 0, size + encap, encap, size);
    }
    parser_printf("\n  buffer %p, buffer_start %p", static_cast<void*>(buffer),
                  static_cast<void*>(packet->buffer_start));
    parser_printf("\n  frame_start %p, layer3_start %p, layer4_start %p", static_cast<void*>(packet->frame_start),
                  static_cast<void*>(packet->layer3_start), static_cast<void*>(packet->layer4_start));
    parser_printf("\n  length %d", static_cast<int>(packet->length));
    if (buffer != nullptr) {
        parser_printf(", refcount %d, packet %p", static_cast<int>(refcount_load(buffer->refcount)),
                      static_cast<void*>(buffer->packet));
    }
    parser_printf("\n");
    if (show_buffer && buffer != nullptr) {
        parser_printf("\nBuffer data for %p:\n\n", static_cast<void*>(packet));
        // The headroom and the sheaf-sized frame room, never past the data area.
        const size_t room = data_bytes_from(buffer, packet->buffer_start);
        const size_t wanted = static_cast<size_t>(encap + size);
        hex_dump("  ", packet->buffer_start, wanted < room ? wanted : room);
        parser_printf("\n");
    }
}

void packet_show_command(parser_config* /*config*/, parser_result* /*result*/, u_int32_t /*magic*/) {
    parser_printf("Packet Sheaves:\n\n");
    parser_printf(" ID Total(Init, High)  Free( Min,  Max)  Nall/Nfre/Nemp Name\n");
    for (sheaf_t* sheaf = packet_common_sheaf; sheaf != nullptr; sheaf = sheaf->next) {
        sheaf_display(sheaf);
    }
    for (sheaf_t* pool : {packet_misfit_sheaf, packet_clone_sheaf}) {
        if (pool != nullptr) {
            sheaf_display(pool);
        }
    }
}

void packet_show_stats_command(parser_config* /*config*/, parser_result* /*result*/, u_int32_t /*magic*/) {
    parser_printf("Packet Statistics:\n");
    print_counts(kRequestLines);
    print_count(stat_read(packet_stats.get_successes) - stat_read(packet_stats.returns), "active");
    print_counts(kCopyLines);
    parser_printf("\nPacket Errors:\n");
    print_counts(kErrorLines);
}

void packet_show_dump(parser_config* /*config*/, parser_result* result, u_int32_t /*magic*/) {
    auto* packet = static_cast<packet_t*>(corvex::parser_item_address(result, 0));
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    if (!packet_registry_holds(packet)) {
        parser_printf("%p is not a valid packet\n", static_cast<void*>(packet));
        return;
    }
    packet_dump(packet, TRUE);
}

void packet_show_sheaf(parser_config* /*config*/, parser_result* result, u_int32_t /*magic*/) {
    const u_int32_t id = corvex::parser_item_u32(result, 0);
    sheaf_t* sheaf = sheaf_with_id(id);
    if (sheaf == nullptr) {
        parser_printf("No packet sheaf with ID %d found.\n", static_cast<int>(id));
        return;
    }
    // Resting packets stay resting, and alive, while they are shown.
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    sheaf_walk(sheaf, packet_show_sheaf_walker);
}

}  // extern "C"
