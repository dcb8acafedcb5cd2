// Capture files of corvex-pe in the classic pcap format, read and written
// without any capture library: a 24-byte file header (magic number,
// version 2.4, time zone, accuracy, snapshot length, link type), then one
// 16-byte header per record (seconds, microseconds or nanoseconds,
// captured length, wire length) followed by the captured bytes.
//
// Read: either byte order, microsecond (0xa1b2c3d4) or nanosecond
// (0xa1b23c4d) timestamps, link type 1 (Ethernet) only. Written:
// little-endian, microseconds, Ethernet, under a temporary name in the
// output's folder until the run that writes it ends well.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "diag_output.h"

// The largest wire length a record may claim; beyond it the file is
// damaged, whatever its snapshot length says.
constexpr uint32_t PE_CAPTURE_WIRE_MAX = 262144;

struct pe_capture_reader_t {
    FILE* file = nullptr;
    std::string path;
    bool swapped = false;      // written in the other byte order
    bool nanoseconds = false;  // timestamp fractions in nanoseconds
    uint64_t records = 0;      // records read so far
    // The record last read.
    uint64_t time_ns = 0;
    uint32_t captured = 0, length = 0;
    uint8_t* data = nullptr;  // PE_CAPTURE_WIRE_MAX bytes
};

// Opens path and reads its file header. Returns false after one line on
// err naming the file and what is wrong with it.
bool pe_capture_open(pe_capture_reader_t* reader, const char* path, FILE* err);
// Reads the next record: 1, 0 at the end of the file, -1 after one line
// on err naming the file and the record when it is cut short or damaged
// (captured length beyond the wire length, wire length beyond
// PE_CAPTURE_WIRE_MAX) or cannot be read.
int pe_capture_read(pe_capture_reader_t* reader, FILE* err);
void pe_capture_close(pe_capture_reader_t* reader);

// A capture being written: under a temporary name beside its path until it
// is published (diag_output.h).
struct pe_capture_writer_t {
    std::optional<DiagOutput> output;
};

// Creates the capture under a temporary name beside path (making the
// folders it lacks) and writes its file header. Every write error (here,
// in pe_capture_write and at the close) is one line on err naming path
// and the system's reason.
bool pe_capture_create(pe_capture_writer_t* writer, const char* path, const DiagInputs& inputs, FILE* err);
bool pe_capture_write(pe_capture_writer_t* writer, uint64_t time_ns, const uint8_t* frame, uint32_t length);
// Writes out what is buffered and closes the file; the capture is then
// complete under its temporary name.
bool pe_capture_finish(pe_capture_writer_t* writer);
// Renames a finished capture into place.
bool pe_capture_publish(pe_capture_writer_t* writer);
// Closes the capture if it is open and removes its temporary file.
void pe_capture_discard(pe_capture_writer_t* writer);
