// The values a command callback receives, as the library's callbacks read
// them: item i holds the i-th number or address typed on the line.
#pragma once

#include <cstdint>

#include "host_cli.h"

namespace corvex {

// A number item as the 32-bit value of an ID, a size or a count; an item
// the line did not collect reads 0.
inline u_int32_t parser_item_u32(const parser_result* result, int i) {
    if (result == nullptr || i >= result->item_count) return 0;
    return static_cast<u_int32_t>(result->item[i].data.unsigned_number);
}

// A number item that names an address (a PC, a block): as wide as an
// address of this build, so exactly 32 bits on the target.
inline uintptr_t parser_item_uintptr(const parser_result* result, int i) {
    if (result == nullptr || i >= result->item_count) return 0;
    return static_cast<uintptr_t>(result->item[i].data.unsigned_number);
}

// An address item.
inline void* parser_item_address(const parser_result* result, int i) {
    if (result == nullptr || i >= result->item_count) return nullptr;
    return result->item[i].data.address;
}

}  // namespace corvex
