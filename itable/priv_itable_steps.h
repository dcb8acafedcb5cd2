// The three array steps of a 16-bit table lookup, for the exported lookups
// of both indexed tables. The 16-bit index may sit `kShift` bits up in a
// wider word (the upper half of a 32-bit index): every step takes its
// number from the word itself, with one shift and one mask, worked out only
// once the step before has found a level. A lookup then keeps only the
// word, the pointer and one number in registers: on i386 that is the
// difference between three free registers and saving a fourth on every
// call.
#pragma once

#include "itable.h"

namespace corvex::itable {

template <unsigned kShift>
inline void* itable16_steps(const itable16_t* table, u_int32_t word) {
    constexpr bool kWide = sizeof(void*) == 8;
    constexpr unsigned kPointerShift = kWide ? 3 : 2;
    static_assert(sizeof(void*) == (1u << kPointerShift));
    constexpr u_int32_t kSlotBytes = 63u << kPointerShift;
    auto at = [](const void* level, u_int32_t offset) {
        return *reinterpret_cast<void* const*>(static_cast<const char*>(level) + offset);
    };
    // Can: bits 15..12 (no mask where nothing lies above them).
    const void* can = table->cans[(word >> (kShift + 12)) & 15u];
    if (can == nullptr) {
        return nullptr;
    }
    // Bucket: bits 11..6, already scaled to a byte offset.
    const void* bucket = at(can, (word >> (kShift + 6 - kPointerShift)) & kSlotBytes);
    if (bucket == nullptr) {
        return nullptr;
    }
    // Entry: bits 5..0. The 32-bit compiler keeps no copy of the word only
    // when it scales the entry number itself; the 64-bit one has registers
    // to spare and saves that instruction.
    if constexpr (kWide) {
        return static_cast<void* const*>(bucket)[(word >> kShift) & 63u];
    } else if constexpr (kShift >= kPointerShift) {
        return at(bucket, (word >> (kShift - kPointerShift)) & kSlotBytes);
    } else {
        return at(bucket, (word << (kPointerShift - kShift)) & kSlotBytes);
    }
}

}  // namespace corvex::itable
