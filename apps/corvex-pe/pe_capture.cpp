// The classic pcap format of corvex-pe's capture files.
#include "pe_capture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kMagicMicro = 0xa1b2c3d4;
constexpr uint32_t kMagicNano = 0xa1b23c4d;
constexpr uint32_t kMagicNg = 0x0a0d0d0a;  // a pcapng section header
constexpr uint32_t kLinkEthernet = 1;
constexpr uint32_t kSnapLength = 65535;   // written: above any frame corvex-pe sends
constexpr size_t kFileHeader = 24, kRecordHeader = 16;
constexpr size_t kBuffer = 256 * 1024;

uint32_t le32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

uint32_t word(const pe_capture_reader_t* reader, const uint8_t* bytes) {
    const uint32_t value = le32(bytes);
    return reader->swapped ? __builtin_bswap32(value) : value;
}

void le32_put(uint8_t* bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

// Reads size bytes: 1, 0 when the file ends before the first byte, -1 when
// it ends inside them (errno 0) or cannot be read (errno set).
int bytes_read(FILE* file, void* into, size_t size) {
    errno = 0;
    const size_t got = fread(into, 1, size, file);
    if (got == size) return 1;
    if (ferror(file)) return -1;
    errno = 0;
    return got == 0 ? 0 : -1;
}

bool refuse(FILE* err, const std::string& path, const char* what) {
    fprintf(err, "corvex-pe: %s: %s\n", path.c_str(), what);
    return false;
}

}  // namespace

bool pe_capture_open(pe_capture_reader_t* reader, const char* path, FILE* err) {
    reader->path = path;
    reader->file = fopen(path, "rb");
    if (reader->file == nullptr) return refuse(err, reader->path, strerror(errno));
    struct stat info;
    if (fstat(fileno(reader->file), &info) == 0 && S_ISDIR(info.st_mode))
        return refuse(err, reader->path, "is a directory");
    setvbuf(reader->file, nullptr, _IOFBF, kBuffer);
    uint8_t header[kFileHeader];
    const int got = bytes_read(reader->file, header, sizeof header);
    if (got < 0 && errno != 0) return refuse(err, reader->path, strerror(errno));
    if (got <= 0) return refuse(err, reader->path, "not a pcap capture: shorter than its file header");
    const uint32_t magic = le32(header);
    reader->swapped = magic == __builtin_bswap32(kMagicMicro) || magic == __builtin_bswap32(kMagicNano);
    const uint32_t own = reader->swapped ? __builtin_bswap32(magic) : magic;
    if (own == kMagicNg) return refuse(err, reader->path, "a pcapng capture: only classic pcap is read");
    if (own != kMagicMicro && own != kMagicNano) return refuse(err, reader->path, "not a pcap capture");
    reader->nanoseconds = own == kMagicNano;
    const unsigned major = reader->swapped ? header[4] << 8 | header[5] : header[5] << 8 | header[4];
    if (major != 2) return refuse(err, reader->path, "not a pcap capture of version 2");
    if (word(reader, header + 20) != kLinkEthernet) return refuse(err, reader->path, "not an Ethernet capture");
    reader->data = static_cast<uint8_t*>(malloc(PE_CAPTURE_WIRE_MAX));
    if (reader->data == nullptr) return refuse(err, reader->path, strerror(ENOMEM));
    return true;
}

int pe_capture_read(pe_capture_reader_t* reader, FILE* err) {
    uint8_t header[kRecordHeader];
    int got = bytes_read(reader->file, header, sizeof header);
    if (got == 0) return 0;
    char fault[96] = "";
    const uint32_t captured = got > 0 ? word(reader, header + 8) : 0;
    const uint32_t length = got > 0 ? word(reader, header + 12) : 0;
    if (got > 0 && captured > length)
        snprintf(fault, sizeof fault, "captured length %u exceeds its wire length %u", captured, length);
    else if (got > 0 && length > PE_CAPTURE_WIRE_MAX)
        snprintf(fault, sizeof fault, "wire length %u is beyond any frame (at most %u bytes)", length,
                 PE_CAPTURE_WIRE_MAX);
    else if (got > 0 && captured > 0)
        got = bytes_read(reader->file, reader->data, captured);
    if (fault[0] == '\0' && got != 1)
        snprintf(fault, sizeof fault, "%s", errno != 0 ? strerror(errno) : "cut short: the file ends inside it");
    if (fault[0] != '\0') {
        fprintf(err, "corvex-pe: %s: record %llu: %s\n", reader->path.c_str(),
                static_cast<unsigned long long>(reader->records + 1), fault);
        return -1;
    }
    const uint64_t fraction = word(reader, header + 4);
    reader->time_ns = word(reader, header) * 1000000000ull + (reader->nanoseconds ? fraction : fraction * 1000);
    reader->captured = captured;
    reader->length = length;
    ++reader->records;
    return 1;
}

void pe_capture_close(pe_capture_reader_t* reader) {
    if (reader->file != nullptr) fclose(reader->file);
    free(reader->data);
    reader->file = nullptr;
    reader->data = nullptr;
}

bool pe_capture_create(pe_capture_writer_t* writer, const char* path, const DiagInputs& inputs, FILE* err) {
    const std::string target = path;
    const size_t slash = target.rfind('/');
    if (slash != std::string::npos && slash > 0 && !diag_folder_make(target.substr(0, slash), "corvex-pe", err))
        return false;
    writer->output.emplace("corvex-pe", err);
    if (!writer->output->open(target, inputs)) return false;
    setvbuf(writer->output->file(), nullptr, _IOFBF, kBuffer);
    uint8_t header[kFileHeader] = {};
    le32_put(header, kMagicMicro);
    le32_put(header + 4, 2 | 4 << 16);  // version 2.4
    le32_put(header + 16, kSnapLength);
    le32_put(header + 20, kLinkEthernet);
    errno = 0;
    return writer->output->checked(fwrite(header, sizeof header, 1, writer->output->file()) == 1);
}

bool pe_capture_write(pe_capture_writer_t* writer, uint64_t time_ns, const uint8_t* frame, uint32_t length) {
    uint8_t header[kRecordHeader];
    le32_put(header, static_cast<uint32_t>(time_ns / 1000000000));
    le32_put(header + 4, static_cast<uint32_t>(time_ns % 1000000000 / 1000));
    le32_put(header + 8, length);
    le32_put(header + 12, length);
    FILE* file = writer->output->file();
    errno = 0;
    return writer->output->checked(fwrite(header, sizeof header, 1, file) == 1 && fwrite(frame, length, 1, file) == 1);
}

bool pe_capture_finish(pe_capture_writer_t* writer) { return writer->output->finish(); }

bool pe_capture_publish(pe_capture_writer_t* writer) { return writer->output->publish(); }

void pe_capture_discard(pe_capture_writer_t* writer) { writer->output.reset(); }
