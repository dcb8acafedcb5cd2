// The three array steps of a 16-bit table lookup, for the exported lookups
// of both indexed tables. The 16-bit index may sit `kShift` bits up in a
// wider word (the upper half of a 32-bit index): every step takes its byte
// offset from the word with one shift and one mask, so a lookup keeps only
// the word, the pointer and one offset in registers. On i386 that is the
// difference between three free registers and saving a fourth on every
// call.
#pragma once

#include "itable.h"

namespace corvex::itable {

template <unsigned kShift>
inline void* itable16_steps(const itable16_t* table, u_int32_t word) {
    constexpr unsigned kPointerShift = sizeof(void*) == 8 ? 3 : 2;
    static_assert(sizeof(void*) == (1u << kPointerShift));
    constexpr u_int32_t kSlotBytes = 63u << kPointerShift;
    auto step = [](const void* level, u_int32_t offset) {
        return *reinterpret_cast<void* const*>(static_cast<const char*>(level) + offset);
    };
    // The can (bits 15..12; no mask where nothing lies above them), then the
    // byte offsets of the bucket (11..6) and the entry (5..0), each worked
    // out only once the step before has found a level, so that no offset
    // waits in a register of its own.
    const void* can = table->cans[(word >> (kShift + 12)) & 15u];
    if (can == nullptr) {
        return nullptr;
    }
    const void* bucket = step(can, (word >> (kShift + 6 - kPointerShift)) & kSlotBytes);
    if (bucket == nullptr) {
        return nullptr;
    }
    if constexpr (kShift >= kPointerShift) {
        return step(bucket, (word >> (kShift - kPointerShift)) & kSlotBytes);
    } else {
        return step(bucket, (word << (kPointerShift - kShift)) & kSlotBytes);
    }
}

}  // namespace corvex::itable
