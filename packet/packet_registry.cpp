// The headers that sheaves have made and not yet destroyed. A command that
// is given an address by an operator reads it only when it names one of
// them. The registry changes only when a vector makes or destroys a header,
// never when a packet is handed out or returned, and is kept under
// packet_glb_lock.
#include <cstdlib>

#include "priv_packet.h"

namespace corvex::packet {
namespace {

// Open addressing with linear probing over a power-of-two table that
// doubles when half full. It never shrinks: it stays as large as the most
// headers the pools ever held at once.
constexpr size_t kFirstCapacity = 256;

const packet_t** slots;
size_t capacity;
size_t count;

size_t home_of(const packet_t* packet, size_t table_capacity) {
    // Fibonacci hashing: the product's high bits mix every bit of the address.
    const u_int64_t mixed = static_cast<u_int64_t>(reinterpret_cast<uintptr_t>(packet)) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(mixed >> 32) & (table_capacity - 1);
}

// The slot holding packet, or the empty slot where it would go.
size_t slot_of(const packet_t* packet) {
    size_t i = home_of(packet, capacity);
    while (slots[i] != nullptr && slots[i] != packet) {
        i = (i + 1) & (capacity - 1);
    }
    return i;
}

bool grow() {
    const size_t new_capacity = capacity == 0 ? kFirstCapacity : capacity * 2;
    auto* new_slots = static_cast<const packet_t**>(kzalloc(new_capacity * sizeof *slots));
    if (new_slots == nullptr) {
        return false;
    }
    const packet_t** old_slots = slots;
    const size_t old_capacity = capacity;
    slots = new_slots;
    capacity = new_capacity;
    for (size_t i = 0; i < old_capacity; ++i) {
        if (old_slots[i] != nullptr) {
            slots[slot_of(old_slots[i])] = old_slots[i];
        }
    }
    free(old_slots);
    return true;
}

}  // namespace

void packet_registry_add(packet_t* packet) {
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    // Without room a header stays unknown: it can be used, just not shown by address.
    if ((count + 1) * 2 > capacity && !grow() && count + 1 >= capacity) {
        return;
    }
    const size_t i = slot_of(packet);
    if (slots[i] == nullptr) {
        slots[i] = packet;
        ++count;
    }
}

void packet_registry_remove(packet_t* packet) {
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    if (count == 0) {
        return;
    }
    size_t hole = slot_of(packet);
    if (slots[hole] == nullptr) {
        return;
    }
    // Close the hole: later entries of the same probe run move back into it.
    for (size_t j = (hole + 1) & (capacity - 1); slots[j] != nullptr; j = (j + 1) & (capacity - 1)) {
        const size_t home = home_of(slots[j], capacity);
        const bool stays = hole < j ? (home > hole && home <= j) : (home > hole || home <= j);
        if (!stays) {
            slots[hole] = slots[j];
            hole = j;
        }
    }
    slots[hole] = nullptr;
    --count;
}

bool packet_registry_holds(const void* address) {
    GlbLockGuard lock(kPacketGlbLock, kPacketSource, __LINE__);
    return count != 0 && slots[slot_of(static_cast<const packet_t*>(address))] != nullptr;
}

}  // namespace corvex::packet
