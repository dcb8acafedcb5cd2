// The pcapng blocks written (all in this machine's byte order, which the
// section header's magic number tells readers): a section header, one
// interface description per port, one enhanced packet per dropped frame.
#include "pe_drops.h"

#include <cstring>

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A, kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kInterfaceDescription = 1, kEnhancedPacket = 6;
constexpr uint16_t kLinkEthernet = 1;
constexpr uint32_t kSnapLength = 262144;
constexpr uint16_t kOptionEnd = 0, kOptionComment = 1, kInterfaceName = 2, kInterfaceDescriptionText = 3,
                   kInterfaceTimeResolution = 9;
constexpr uint8_t kNanoseconds = 9;

// One block: its body and options are gathered, then written with its
// type and length before and the length again after.
class Block {
public:
    template <class T>
    void value(T v) {
        body_.append(reinterpret_cast<const char*>(&v), sizeof v);
    }
    // Bytes of a frame or an option's value: padded to 32 bits.
    void bytes(const void* data, size_t length) {
        if (length > 0) body_.append(static_cast<const char*>(data), length);
        body_.append((4 - body_.size() % 4) % 4, '\0');
    }
    void option(uint16_t code, const void* data, size_t length) {
        value(code);
        value(static_cast<uint16_t>(length));
        bytes(data, length);
    }
    void option(uint16_t code, const std::string& text) {
        if (!text.empty()) option(code, text.data(), text.size());
    }
    void write(uint32_t type, FILE* out) {
        option(kOptionEnd, nullptr, 0);
        const auto total = static_cast<uint32_t>(body_.size() + 12);
        fwrite(&type, sizeof type, 1, out);
        fwrite(&total, sizeof total, 1, out);
        fwrite(body_.data(), 1, body_.size(), out);
        fwrite(&total, sizeof total, 1, out);
    }

private:
    std::string body_;
};

}  // namespace

bool PeDrops::open(const std::string& path, const DiagInputs& inputs,
                   const std::vector<std::pair<std::string, std::string>>& ports) {
    if (!output_.open(path, inputs)) return false;
    Block section;
    section.value(kByteOrderMagic);
    section.value(uint16_t{1});
    section.value(uint16_t{0});
    section.value(int64_t{-1});  // section length not given
    section.write(kSectionHeader, output_.file());
    for (const auto& [name, source] : ports) {
        Block interface;
        interface.value(kLinkEthernet);
        interface.value(uint16_t{0});
        interface.value(kSnapLength);
        interface.option(kInterfaceName, name);
        interface.option(kInterfaceDescriptionText, source);
        interface.option(kInterfaceTimeResolution, &kNanoseconds, 1);
        interface.write(kInterfaceDescription, output_.file());
    }
    return true;
}

void PeDrops::add(unsigned port, const char* reason, uint64_t number, uint64_t time_ns, const uint8_t* frame,
                  uint32_t captured, uint32_t length) {
    Block packet;
    packet.value(static_cast<uint32_t>(port));
    packet.value(static_cast<uint32_t>(time_ns >> 32));
    packet.value(static_cast<uint32_t>(time_ns));
    packet.value(captured);
    packet.value(length);
    packet.bytes(frame, captured);
    packet.option(kOptionComment, std::string(reason) + ": frame " + std::to_string(number) + " of its input");
    packet.write(kEnhancedPacket, output_.file());
}
