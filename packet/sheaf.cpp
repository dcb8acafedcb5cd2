// Sheaves: the registry, creation and destruction, the take and give-back
// operations on a sheaf's free list, and walks over its resting packets.
#include <cstdlib>

#include "kdebug.h"
#include "llist.h"
#include "priv_sheaf.h"

namespace corvex::packet {

list_t* sheaflist;

namespace {

u_int32_t sheaf_id;
sheaf_vector_t sheaf_default_vector;

// Stands for a missing vector: a sheaf made without one must never need a
// fresh packet nor destroy one.
packet_t* sheaf_alloc_default(sheaf_t*, packet_length_t) { panic("sheaf_alloc_default()"); }
boolean sheaf_free_default(sheaf_t*, packet_t*) { panic("sheaf_free_default()"); }

}  // namespace
}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" {

void sheaf_init(void) {
    // The registry is made once: replacing it would hide every sheaf made so
    // far from the background task.
    if (sheaflist != nullptr) return;
    sheaflist = list_create("Sheaves", 0);
    sheaf_id = 1;
    sheaf_default_vector = {sheaf_alloc_default, sheaf_free_default};
}

sheaf_t* sheaf_create(const char* name, sheaf_size_t size, u_int32_t min_size, u_int32_t max_size, u_int32_t init,
                      sheaf_vector_t* vector, void* context) {
    // A reserve the free list cannot hold would have every refill make and
    // destroy packets without end.
    if (min_size != 0 && max_size <= min_size) return nullptr;
    if (sheaflist == nullptr) sheaf_init();
    auto* sheaf = static_cast<sheaf_t*>(kzalloc(sizeof(sheaf_t)));
    if (sheaf == nullptr) return nullptr;
    sheaf->id = sheaf_id++;
    sheaf->name = name;
    sheaf->size = size;
    sheaf->max = max_size;
    sheaf->min = min_size;
    sheaf->init = init < max_size ? init : max_size;
    sheaf->vector = vector != nullptr ? vector : &sheaf_default_vector;
    sheaf->context = context;
    list_append(sheaflist, &sheaf->links);

    if (size != 0 && packet_buffer_heap != nullptr)
        heap_freelist_create(packet_buffer_heap, buffer_block_bytes_for(size));

    GlbLockGuard lock(kPacketGlbLock, kSheafSource, __LINE__);
    while (sheaf->total < sheaf->init) {
        packet_t* packet = sheaf_alloc_inline(sheaf, size, FALSE);
        if (packet == nullptr) break;
        sheaf_free(sheaf, packet);
    }
    return sheaf;
}

boolean sheaf_destroy(sheaf_t* sheaf) {
    if (sheaf == nullptr) return FALSE;
    GlbLockGuard lock(kPacketGlbLock, kSheafSource, __LINE__);
    sheaf->max = 0;
    sheaf->min = 0;
    while (packet_t* packet = sheaf_packet_dequeue(sheaf)) sheaf_free(sheaf, packet);
    list_yank(sheaflist, &sheaf->links);
    // With packets still out the record stays: each is destroyed on return.
    if (sheaf->total == 0) free(sheaf);
    return TRUE;
}

packet_t* sheaf_malloc(sheaf_t* sheaf, sheaf_size_t size) { return sheaf != nullptr ? sheaf_take(sheaf, size) : nullptr; }

void sheaf_free(sheaf_t* sheaf, packet_t* packet) { sheaf_free_inline(sheaf, packet); }

packet_t* sheaf_alloc_inline(sheaf_t* sheaf, sheaf_size_t size, boolean dequeue) {
    return sheaf != nullptr ? sheaf_take_once(sheaf, size, dequeue) : nullptr;
}

void sheaf_free_inline(sheaf_t* sheaf, packet_t* packet) {
    if (sheaf != nullptr && packet != nullptr) sheaf_give(sheaf, packet);
}

void sheaf_packet_enqueue(sheaf_t* sheaf, packet_t* packet) {
    if (sheaf != nullptr && packet != nullptr) sheaf_push(sheaf, packet);
}

packet_t* sheaf_packet_dequeue(sheaf_t* sheaf) { return sheaf != nullptr ? sheaf_pop(sheaf) : nullptr; }

void sheaf_walk(sheaf_t* sheaf, sheaf_walker_t walker) {
    if (sheaf == nullptr || walker == nullptr) return;
    for (packet_t* packet = sheaf->packets; packet != nullptr;) {
        packet_t* next = packet->sheaf_next;
        if (!walker(sheaf, packet)) return;
        packet = next;
    }
}

}  // extern "C"
