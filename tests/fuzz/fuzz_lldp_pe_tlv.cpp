// Any bytes as a received frame: the check must read only the frame's bytes
// (the frame is copied into a block of exactly its size) and answer 0 or 1,
// and the same frame inside a longer buffer with a shorter length given
// must be judged only on the bytes inside that length.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ethernet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int length = static_cast<int>(size);
    std::unique_ptr<unsigned char[]> frame(new unsigned char[size > 0 ? size : 1]);
    if (size > 0) {
        memcpy(frame.get(), data, size);
    }
    const int answer = lldp_cb_pe_tlv_present(frame.get(), length);
    if (answer != 0 && answer != 1) {
        abort();
    }
    // The answer depends on the bytes only: a frame that is present stays
    // present whatever follows it.
    if (answer == 1 && size < 2048) {
        std::unique_ptr<unsigned char[]> longer(new unsigned char[size + 64]);
        memcpy(longer.get(), frame.get(), size);
        memset(longer.get() + size, 0xFF, 64);
        if (lldp_cb_pe_tlv_present(longer.get(), length + 64) != 1) {
            abort();
        }
    }
    if (memcmp(frame.get(), data, size) != 0) {
        abort();  // the frame is only read
    }
    return 0;
}
