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

// Makes path and the folders above it that are missing.
bool folder_make(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        if (mkdir(path.substr(0, slash).c_str(), 0777) != 0 && errno != EEXIST) return false;
    return mkdir(path.c_str(), 0777) == 0 || errno == EEXIST;
}

bool write_failed(FILE* err, const pe_capture_writer_t* writer) {
    return refuse(err, writer->path, strerror(errno != 0 ? errno : EIO));
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

bool pe_capture_create(pe_capture_writer_t* writer, const char* path, FILE* err) {
    writer->path = path;
    const size_t slash = writer->path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    if (name > 1 && !folder_make(writer->path.substr(0, name - 1)))
        return refuse(err, writer->path.substr(0, name - 1), strerror(errno));
    writer->temporary = writer->path.substr(0, name) + "." + writer->path.substr(name) + ".XXXXXX";
    const int fd = mkstemp(writer->temporary.data());
    if (fd < 0) {
        writer->temporary.clear();
        return write_failed(err, writer);
    }
    // mkstemp makes the file private; the capture gets the mode any new file would.
    const mode_t mask = umask(0);
    umask(mask);
    writer->file = fchmod(fd, 0666 & ~mask) == 0 ? fdopen(fd, "wb") : nullptr;
    if (writer->file == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
        return write_failed(err, writer);
    }
    setvbuf(writer->file, nullptr, _IOFBF, kBuffer);
    uint8_t header[kFileHeader] = {};
    le32_put(header, kMagicMicro);
    le32_put(header + 4, 2 | 4 << 16);  // version 2.4
    le32_put(header + 16, kSnapLength);
    le32_put(header + 20, kLinkEthernet);
    errno = 0;
    return fwrite(header, sizeof header, 1, writer->file) == 1 || write_failed(err, writer);
}

bool pe_capture_write(pe_capture_writer_t* writer, uint64_t time_ns, const uint8_t* frame, uint32_t length,
                      FILE* err) {
    uint8_t header[kRecordHeader];
    le32_put(header, static_cast<uint32_t>(time_ns / 1000000000));
    le32_put(header + 4, static_cast<uint32_t>(time_ns % 1000000000 / 1000));
    le32_put(header + 8, length);
    le32_put(header + 12, length);
    errno = 0;
    return (fwrite(header, sizeof header, 1, writer->file) == 1 && fwrite(frame, length, 1, writer->file) == 1) ||
           write_failed(err, writer);
}

bool pe_capture_finish(pe_capture_writer_t* writer, FILE* err) {
    errno = 0;
    const bool flushed = fflush(writer->file) == 0 && !ferror(writer->file);
    const int error = errno;
    const bool closed = fclose(writer->file) == 0;
    writer->file = nullptr;
    if (!flushed) errno = error;
    return (flushed && closed) || write_failed(err, writer);
}

bool pe_capture_publish(pe_capture_writer_t* writer, FILE* err) {
    if (rename(writer->temporary.c_str(), writer->path.c_str()) != 0) return write_failed(err, writer);
    writer->temporary.clear();
    return true;
}

void pe_capture_discard(pe_capture_writer_t* writer) {
    if (writer->file != nullptr) fclose(writer->file);
    writer->file = nullptr;
    if (!writer->temporary.empty()) unlink(writer->temporary.c_str());
    writer->temporary.clear();
}
