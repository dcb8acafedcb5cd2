// Internal invariant checks of test builds (CMake option CORVEX_INVARIANTS).
//
// A check walks a whole structure (every block of a heap, every resting
// packet of a sheaf), so it runs after an operation only once the
// operations since the previous check have paid for a walk of its size: on
// average at most kVisitsPerOperation items a structure are visited per
// operation. A small structure is checked after every operation, one of a
// thousand items after every few dozen: the tests stay quick under
// emulation and sanitizers, and no operation goes long unchecked.
#pragma once

#include <cstdint>

#ifndef CORVEX_INVARIANTS
#define CORVEX_INVARIANTS 0
#endif

namespace corvex {

class InvariantPace {
public:
    static constexpr uint32_t kVisitsPerOperation = 16;

    // Counts one operation; true when a check is due.
    bool due() { return ++operations_ >= (last_cost_ + kVisitsPerOperation - 1) / kVisitsPerOperation; }
    // A check has just visited `cost` items.
    void checked(uint32_t cost) {
        operations_ = 0;
        last_cost_ = cost;
    }

private:
    uint32_t operations_ = 0;
    uint32_t last_cost_ = 0;
};

// One pace for each record of a kind: a record's number picks the slot and
// its address claims it (a record that takes a slot over starts afresh).
template <typename Record>
class InvariantPaces {
public:
    InvariantPace& of(const Record* record, uint32_t number) {
        Slot& slot = slots_[number % kSlots];
        if (slot.record != record) {
            slot = {record, {}};
        }
        return slot.pace;
    }

private:
    static constexpr uint32_t kSlots = 1024;
    struct Slot {
        const Record* record;
        InvariantPace pace;
    };
    Slot slots_[kSlots] = {};
};

}  // namespace corvex
