// The speed table: each row times one piece of libcorvex work beside a peer
// doing the same work the plain way, in the same process and the same
// round, and reports the ratio libcorvex / peer (below 1: libcorvex is
// faster). Where the design fixes part of a row's cost (the global lock
// round trips, atomic reference counts, a call per lookup), the row also
// times that part alone, its floor: when floor / peer is already above the
// goal, no implementation of the design can meet it. Self-contained (no Google Benchmark) so that it builds for the
// 32-bit target as well as natively.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace speed {

// Runs one contender's work `ops` times.
using Work = std::function<void(size_t ops)>;

struct Row {
    std::string work;       // what libcorvex does
    std::string peer_name;  // who does the same work beside it
    double goal;            // largest acceptable ratio
    Work ours;
    Work peer;
    std::string floor_name;  // the fixed part alone (empty: no floor)
    Work floor;
};

// Keeps a value alive and opaque to the optimiser, so work whose result is
// unused is still done, and hides a pointer's provenance so a loop over
// the same buffer is not hoisted.
template <typename T>
inline void keep(const T& value) {
    asm volatile("" : : "g"(value) : "memory");
}
template <typename T>
inline T* opaque(T* pointer) {
    asm volatile("" : "+r"(pointer));
    return pointer;
}

// One round trip of an error-checking mutex, the kind of both global locks:
// the unit most floors are made of.
void lock_round_trips(size_t count);

// The rows of each family, in table order.
void add_heap_rows(std::vector<Row>& rows);
void add_packet_rows(std::vector<Row>& rows);
void add_lookup_rows(std::vector<Row>& rows);
void add_checksum_rows(std::vector<Row>& rows);

}  // namespace speed
