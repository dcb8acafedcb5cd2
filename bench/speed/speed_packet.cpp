// Packet rows: hand-out and return from a warm pool, with and without a
// clone, beside the plain way of getting the same memory: malloc of a
// 128-byte header and a 1600-byte buffer (and a 128-byte clone header).
#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "packet_var.h"
#include "speed_table.h"

namespace speed {
namespace {

constexpr size_t kHeaderBytes = 128;
constexpr size_t kBufferBytes = 1600;

void build_pools() {
    static const bool done = [] {
        static heap_t heap;
        constexpr size_t kBytes = 8u << 20;
        auto* range = static_cast<char*>(std::aligned_alloc(64, kBytes));
        const auto first = reinterpret_cast<uintptr_t>(range);
        heap_create(&heap, first, first + kBytes, const_cast<char*>("speed packets"));
        static const packet_sheaf_block_t table[] = {
            {const_cast<char*>("1518"), 1518, 0, 64, 16, nullptr},
            {const_cast<char*>("512"), 512, 0, 64, 16, nullptr},
            {const_cast<char*>("clone"), 0, 0, 64, 16, nullptr},
            {const_cast<char*>("128"), 128, 0, 64, 16, nullptr},
            {nullptr, 0, 0, 0, 0, nullptr},
        };
        packet_pool_init(nullptr, table, &heap);
        return true;
    }();
    keep(done);
}

Row get_return_row(packet_length_t length) {
    build_pools();
    return {"packet_get+packet_return, warm pool, " + std::to_string(length) + " B",
            "malloc 128 B header + 1600 B buffer, two frees",
            0.5,
            [length](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    packet_t* packet = packet_get(length);
                    keep(packet);
                    packet_return(packet);
                }
            },
            [](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    void* header = std::malloc(kHeaderBytes);
                    void* buffer = std::malloc(kBufferBytes);
                    keep(header);
                    keep(buffer);
                    std::free(buffer);
                    std::free(header);
                }
            },
            "two lock round trips",
            [](size_t ops) { lock_round_trips(2 * ops); }};
}

// Four operations, each taking the packet lock once, and the three atomic
// changes of the shared buffer's reference count (clone, then each return).
void clone_floor(size_t ops) {
    static packet_refcount_t refcount = 1;
    std::atomic_ref<packet_refcount_t> shared(refcount);
    for (size_t i = 0; i < ops; ++i) {
        lock_round_trips(4);
        shared.fetch_add(1, std::memory_order_acq_rel);
        shared.fetch_add(-1, std::memory_order_acq_rel);
        shared.fetch_add(-1, std::memory_order_acq_rel);
        shared.store(1, std::memory_order_release);
    }
}

Row clone_row(packet_length_t length) {
    build_pools();
    return {"packet_get+packet_clone+two packet_returns, " + std::to_string(length) + " B",
            "the same plus a 128 B clone header",
            1.2,
            [length](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    packet_t* packet = packet_get(length);
                    packet_t* clone = packet_clone(packet);
                    keep(clone);
                    packet_return(packet);
                    packet_return(clone);
                }
            },
            [](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    void* header = std::malloc(kHeaderBytes);
                    void* buffer = std::malloc(kBufferBytes);
                    void* clone = std::malloc(kHeaderBytes);
                    keep(header);
                    keep(buffer);
                    keep(clone);
                    std::free(header);
                    std::free(clone);
                    std::free(buffer);
                }
            },
            "four lock round trips and three atomic reference-count changes",
            clone_floor};
}

}  // namespace

void add_packet_rows(std::vector<Row>& rows) {
    for (packet_length_t length : {64, 1500}) rows.push_back(get_return_row(length));
    for (packet_length_t length : {64, 1500}) rows.push_back(clone_row(length));
}

}  // namespace speed
