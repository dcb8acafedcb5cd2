// Start-up of the packet module from the device's pool table, the start of
// its background module, and the periodic report of packet errors.
#include <syslog.h>

#include <cstring>

#include "priv_assert.h"
#include "priv_packet.h"

namespace corvex::packet {
namespace {

boolean sheaf_init_done;
sheaf_vector_t dflt_packet_vector;

sheaf_vector_t* vector_or_default(sheaf_vector_t* vector) {
    return vector != nullptr && vector->alloc != nullptr ? vector : &dflt_packet_vector;
}

// One error counter of the periodic report.
struct ErrorLine {
    packet_counter_t packet_stats_t::*count;
    u_int32_t packet_stats_t::*caller_pc;
    const char* format;
};

constexpr ErrorLine kErrorLines[] = {
    {&packet_stats_t::error_header_refcount, &packet_stats_t::caller_pc_error_header_refcount,
     "Packet error %10u bad header refcounts last error caller pc 0x%x\n"},
    {&packet_stats_t::error_buffer_refcount, &packet_stats_t::caller_pc_error_buffer_refcount,
     "Packet error %10u bad buffer refcounts last error caller pc 0x%x\n"},
    {&packet_stats_t::error_invalid, &packet_stats_t::caller_pc_error_invalid,
     "Packet error %10u invalid headers last error caller pc 0x%x\n"},
    {&packet_stats_t::error_null_buffer, &packet_stats_t::caller_pc_error_null_buffer,
     "Packet error %10u null buffers last error caller pc 0x%x\n"},
};

void packet_error_check_periodic(void* /*arg*/) {
    packet_stats_t snapshot{};
    {
        GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
        for (const ErrorLine& line : kErrorLines) {
            snapshot.*line.count = stat_read(packet_stats.*line.count);
            snapshot.*line.caller_pc = std::atomic_ref<u_int32_t>(packet_stats.*line.caller_pc).load();
        }
    }
    for (const ErrorLine& line : kErrorLines) {
        if (snapshot.*line.count == saved_pkt_stats.*line.count) continue;
        syslog(LOG_ERR, line.format, snapshot.*line.count, snapshot.*line.caller_pc);
        saved_pkt_stats.*line.count = snapshot.*line.count;
    }
}

void packet_periodic_exec(zrmodule_timer* /*timer*/, time_t /*interval*/) { packet_error_check_periodic(nullptr); }

}  // namespace
}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" {

void packet_internal_init(void) {
    packet_encap_bytes = 64;
    packet_trailer_bytes = 32;
}

void packet_module_init(void) {
    sheaf_init_done = TRUE;
    sheaf_init();
}

void packet_pool_init(sheaf_vector_t* user_vector, const packet_sheaf_block_t* sheaf_block, heap_t* buffer_heap) {
    packet_internal_init();
    if (!sheaf_init_done) {
        sheaf_init_done = TRUE;
        sheaf_init();
    }
    dflt_packet_vector = {packet_alloc, packet_free};
    sheaf_vector_t* pool_vector = vector_or_default(user_vector);
    packet_buffer_heap = buffer_heap;

    const packet_sheaf_block_t* clone_row = nullptr;
    for (const packet_sheaf_block_t* row = sheaf_block; row != nullptr && row->name != nullptr; ++row) {
        if (std::strcmp(row->name, "clone") == 0) {
            clone_row = row;
            continue;
        }
        sheaf_t* sheaf =
            sheaf_create(row->name, row->length, row->min, row->max, row->init, vector_or_default(row->vector), nullptr);
        if (sheaf == nullptr) break;
        sheaf->next = packet_common_sheaf;
        packet_common_sheaf = sheaf;
    }
    packet_misfit_sheaf = sheaf_create("packet(misfits)", 0, 0, 0, 0, pool_vector, nullptr);
    // Clone headers take their source's buffer, so the clone pool makes
    // header-only packets whatever length its row gives: a buffer of its
    // own would be lost in every clone.
    if (clone_row != nullptr)
        packet_clone_sheaf =
            sheaf_create("packet(clones)", 0, clone_row->min, clone_row->max, clone_row->init, pool_vector, nullptr);
}

void packet_task_start(void) {
    CORVEX_ASSERT(sheaf_init_done == 1, "sheaf_init_done == 1", "packet/packet_init");
    sheaf_spawn_perodic_task();
}

void packet_periodc_timer_start(zrmodule* module) {
    utime_t every_10s = {10, 0};
    zrmodule_timer_ucreate(module, "packet error check", 0, &every_10s, &every_10s, 0, packet_periodic_exec, nullptr);
}

}  // extern "C"
