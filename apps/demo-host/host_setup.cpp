// The demonstration host's start-up and the traffic it leaves behind.
#include "host_setup.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "heap.h"
#include "packet_var.h"
#include "time_util.h"

namespace {

heap_t packet_heap;

// Rows from the largest frame size to the smallest, so each request gets
// the smallest sheaf that fits; "clone" is the pool of clone headers.
const packet_sheaf_block_t kPoolTable[] = {
    {const_cast<char*>("large"), 1518, 4, 64, 16, nullptr},
    {const_cast<char*>("medium"), 512, 4, 64, 16, nullptr},
    {const_cast<char*>("clone"), 0, 0, 64, 8, nullptr},
    {const_cast<char*>("small"), 128, 8, 128, 32, nullptr},
    {nullptr, 0, 0, 0, 0, nullptr},
};

// What the traffic holds, as the device's tables and queues would.
void* port_table[48];
void* vlan_table[16];
void* learning_cache[8];
void* io_rings[4];
void* dma_descriptors[32];
packet_t* held_packets[8];

// Each allocating function below is one call site, so the accounting
// reports show one PC for each.
__attribute__((noinline)) void ports_create() {
    for (void*& port : port_table) port = heap_zalloc(&bcm_sdk_heap, 64);
}

__attribute__((noinline)) void vlans_create() {
    for (void*& vlan : vlan_table) vlan = heap_malloc(&bcm_sdk_heap, 256);
}

// Learns eight entries and ages half of them out again.
__attribute__((noinline)) void learning_cache_fill() {
    for (void*& entry : learning_cache) entry = heap_malloc(&bcm_sdk_heap, 1000);
    for (size_t i = 0; i < 8; i += 2) {
        heap_free(&bcm_sdk_heap, learning_cache[i]);
        learning_cache[i] = nullptr;
    }
}

__attribute__((noinline)) void io_rings_create() {
    for (void*& ring : io_rings) ring = heap_malloc(&io_mem_heap, 2048);
}

__attribute__((noinline)) void dma_descriptors_create() {
    for (void*& descriptor : dma_descriptors) descriptor = heap_zalloc(&dma_desc_heap, 32);
}

// Frames of four sizes (the last fits no sheaf), two of them cloned for a
// second queue; one frame went out and was returned.
void packets_receive() {
    const packet_length_t lengths[] = {64, 300, 1500, 2000, 128};
    size_t held = 0;
    for (packet_length_t length : lengths) {
        packet_t* packet = packet_get(length);
        if (packet == nullptr) continue;
        memset(packet->frame_start, 0xA5, length);
        packet->length = length;
        held_packets[held++] = packet;
    }
    for (size_t i = 0; i < 2 && i < held; ++i) {
        held_packets[held] = packet_clone(held_packets[i]);
        if (held_packets[held] != nullptr) ++held;
    }
    if (held > 0) {
        packet_return(held_packets[--held]);
        held_packets[held] = nullptr;
    }
}

}  // namespace

extern "C" const host_setup_heap_t host_setup_heaps[] = {
    {"bcm_sdk", &bcm_sdk_heap, 1 << 20},
    {"io_mem", &io_mem_heap, 256 << 10},
    {"dma_desc", &dma_desc_heap, 64 << 10},
    {"packet_buffers", &packet_heap, 1 << 20},
    {nullptr, nullptr, 0},
};

extern "C" int host_setup_start(const char* app_name) {
    time_init_startup_time();
    thread_register(app_name, "cli");
    for (const host_setup_heap_t* region = host_setup_heaps; region->name != nullptr; ++region) {
        // The memory belongs to the heap for the life of the process.
        void* memory = aligned_alloc(64, region->bytes);
        const auto first = reinterpret_cast<uintptr_t>(memory);
        if (memory == nullptr || heap_create(region->heap, first, first + region->bytes,
                                             const_cast<char*>(region->name)) != 0) {
            fprintf(stderr, "%s: cannot create heap %s over %zu bytes\n", app_name, region->name, region->bytes);
            return -1;
        }
    }
    packet_module_init();
    packet_pool_init(nullptr, kPoolTable, &packet_heap);
    packet_task_start();
    return 0;
}

extern "C" void host_setup_traffic(void) {
    ports_create();
    vlans_create();
    learning_cache_fill();
    io_rings_create();
    dma_descriptors_create();
    packets_receive();
}
