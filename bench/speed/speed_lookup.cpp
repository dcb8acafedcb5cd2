// Indexed-table and checksum rows. Lookups of 65536 dense keys in random
// order beside a flat pointer array; the Internet checksum beside a plain
// loop that sums 32-bit words into a 64-bit sum.
#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "hexdump.h"
#include "itable.h"
#include "itable32.h"
#include "speed_table.h"

namespace speed {
namespace {

constexpr size_t kKeys = 1 << 16;
// The 32-bit target pays more per call (arguments on the stack, fewer
// registers): its lookup goals are wider.
constexpr bool k32Bit = sizeof(void*) == 4;

void* value_of(uint32_t index) { return reinterpret_cast<void*>(static_cast<uintptr_t>(index) * 8 + 8); }

template <typename Index>
std::vector<Index> shuffled_keys() {
    std::vector<Index> keys(kKeys);
    std::iota(keys.begin(), keys.end(), Index{0});
    std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    return keys;
}

Work flat_lookups(std::vector<uint32_t> order) {
    auto flat = std::make_shared<std::vector<void*>>(kKeys);
    for (uint32_t i = 0; i < kKeys; ++i) (*flat)[i] = value_of(i);
    auto keys = std::make_shared<std::vector<uint32_t>>(std::move(order));
    return [flat, keys](size_t ops) {
        uintptr_t sum = 0;
        for (size_t i = 0; i < ops; ++i) sum += reinterpret_cast<uintptr_t>((*flat)[(*keys)[i & (kKeys - 1)]]);
        keep(sum);
    };
}

// Every lookup is a call through a pointer the optimiser cannot see
// through, as a host's call into the library is.
template <typename Index, typename Table>
Work table_lookups(Table* table, void* (*lookup)(Table*, const Index*)) {
    auto keys = std::make_shared<std::vector<Index>>(shuffled_keys<Index>());
    return [table, lookup, keys](size_t ops) {
        auto* call = opaque(lookup);
        uintptr_t sum = 0;
        for (size_t i = 0; i < ops; ++i) sum += reinterpret_cast<uintptr_t>(call(table, &(*keys)[i & (kKeys - 1)]));
        keep(sum);
    };
}

// The floor of a lookup: the same call, reaching one flat array.
struct FlatTable {
    std::vector<void*> slots;
};

template <typename Index>
__attribute__((noinline)) void* flat_call(FlatTable* table, const Index* index) {
    return table->slots[*index];
}

template <typename Index>
Work flat_calls() {
    auto* table = new FlatTable{std::vector<void*>(kKeys)};
    for (uint32_t i = 0; i < kKeys; ++i) table->slots[i] = value_of(i);
    return table_lookups<Index>(table, flat_call<Index>);
}

Row lookup16_row() {
    itable16_t* table = itable16_create();
    for (uint32_t i = 0; i < kKeys; ++i) {
        const auto index = static_cast<index16_t>(i);
        itable16_insert(table, value_of(i), &index);
    }
    return {"itable16_lookup, 65536 dense keys, random order", "a flat pointer array", k32Bit ? 3.5 : 2.0,
            table_lookups<index16_t>(table, itable16_lookup), flat_lookups(shuffled_keys<uint32_t>()),
            "the flat array behind a call of the same shape", flat_calls<index16_t>()};
}

Row lookup32_row() {
    itable32_t* table = itable32_create();
    for (uint32_t i = 0; i < kKeys; ++i) {
        const index32_t index = i;
        itable32_insert(table, value_of(i), &index);
    }
    return {"itable32_lookup, 65536 dense keys, random order", "a flat pointer array", k32Bit ? 6.0 : 2.5,
            table_lookups<index32_t>(table, itable32_lookup), flat_lookups(shuffled_keys<uint32_t>()),
            "the flat array behind a call of the same shape", flat_calls<index32_t>()};
}

// The checksum as plainly written: 32-bit words into a 64-bit sum, the
// odd half-word and byte, one fold at the end.
__attribute__((noinline)) uint16_t plain_checksum(const uint8_t* p, uint32_t bytes) {
    uint64_t sum = 0;
    uint32_t i = 0;
    for (; i + 4 <= bytes; i += 4) {
        uint32_t word;
        std::memcpy(&word, p + i, sizeof word);
        sum += word;
    }
    if (i + 2 <= bytes) {
        uint16_t half;
        std::memcpy(&half, p + i, sizeof half);
        sum += half;
        i += 2;
    }
    if (i < bytes) sum += p[i];
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

Row checksum_row(uint32_t bytes, const std::string& label) {
    auto data = std::make_shared<std::vector<uint8_t>>(bytes);
    std::mt19937 rng(bytes);
    for (auto& byte : *data) byte = static_cast<uint8_t>(rng());
    return {"ip_cksum, " + label, "a plain loop, 32-bit words into a 64-bit sum", 1.0,
            [data, bytes](size_t ops) {
                for (size_t i = 0; i < ops; ++i) keep(ip_cksum(opaque(data->data()), bytes));
            },
            [data, bytes](size_t ops) {
                for (size_t i = 0; i < ops; ++i) keep(plain_checksum(opaque(data->data()), bytes));
            },
            "",
            {}};
}

}  // namespace

void add_lookup_rows(std::vector<Row>& rows) {
    rows.push_back(lookup16_row());
    rows.push_back(lookup32_row());
}

void add_checksum_rows(std::vector<Row>& rows) {
    rows.push_back(checksum_row(64, "64 B"));
    rows.push_back(checksum_row(1500, "1500 B"));
    rows.push_back(checksum_row(64 * 1024, "64 KiB"));
}

}  // namespace speed
