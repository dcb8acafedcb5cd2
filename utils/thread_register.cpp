// Thread registration files and the event timestamp ring: two small aids
// for looking at a running host from outside, neither of which takes a lock.
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "time_util.h"

namespace {

constexpr const char kRegistrationDir[] = "/var/run";
constexpr size_t kNameRoom = 128;  // paths, contents and the default name

// Empty until thread_register_set_app_name.
char dflt_app_name[kNameRoom];

struct ev_timestamp_t {
    const char* evt_name;  // the caller's string; null: never written
    uint8_t is_start;
    struct timespec tv;
};

ev_timestamp_t* ev_timestamp_buf;
uint16_t ev_timestamp_buf_size;
uint16_t ev_timestamp_buf_widx;  // the slot that the next record overwrites

constexpr int kMaxRecords = UINT16_MAX;

}  // namespace

extern "C" {

void thread_register(const char* app_name, const char* thread_name) {
    if (thread_name == nullptr) {
        return;
    }
    const auto tid = static_cast<unsigned int>(syscall(SYS_gettid));
    const char* app = app_name != nullptr ? app_name : (dflt_app_name[0] != '\0' ? dflt_app_name : nullptr);

    // Both texts are cut to what the buffer holds, by design.
    char text[kNameRoom];
    const int path_length = app != nullptr
                                ? snprintf(text, sizeof text, "%s/%s-%s", kRegistrationDir, app, thread_name)
                                : snprintf(text, sizeof text, "%s/%s", kRegistrationDir, thread_name);
    if (path_length < 0) {
        return;
    }
    const int fd = open(text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return;  // registration is a diagnostic aid: no place, no file
    }
    const int length = snprintf(text, sizeof text, "%u %s ", tid, thread_name);
    if (length > 0) {
        const auto written = write(fd, text, std::min(static_cast<size_t>(length), sizeof text - 1));
        static_cast<void>(written);
    }
    close(fd);
}

void thread_register_set_app_name(const char* app_name) {
    // strncpy fills the rest with zero bytes; the last byte stays zero.
    strncpy(dflt_app_name, app_name != nullptr ? app_name : "", sizeof dflt_app_name - 1);
    dflt_app_name[sizeof dflt_app_name - 1] = '\0';
}

void event_timestamp_record_init(int rec_entries) {
    free(ev_timestamp_buf);
    ev_timestamp_buf = nullptr;
    ev_timestamp_buf_size = 0;
    ev_timestamp_buf_widx = 0;
    if (rec_entries <= 0) {
        return;
    }
    const auto entries = static_cast<uint16_t>(std::min(rec_entries, kMaxRecords));
    ev_timestamp_buf = static_cast<ev_timestamp_t*>(calloc(entries, sizeof(ev_timestamp_t)));
    if (ev_timestamp_buf != nullptr) {
        ev_timestamp_buf_size = entries;
    }
}

void event_timestamp_record(const char* evt_name, int start) {
    if (ev_timestamp_buf == nullptr) {
        return;
    }
    ev_timestamp_t& slot = ev_timestamp_buf[ev_timestamp_buf_widx];
    slot.evt_name = evt_name;
    slot.is_start = static_cast<uint8_t>(start);
    clock_gettime(CLOCK_MONOTONIC, &slot.tv);
    ev_timestamp_buf_widx = static_cast<uint16_t>(ev_timestamp_buf_widx + 1 == ev_timestamp_buf_size
                                                      ? 0
                                                      : ev_timestamp_buf_widx + 1);
}

void event_timestamp_record_print(int (*recprint)(const char*, ...)) {
    if (ev_timestamp_buf == nullptr || recprint == nullptr) {
        return;
    }
    const unsigned int size = ev_timestamp_buf_size;
    const unsigned int write_index = ev_timestamp_buf_widx;
    const auto next = [size](unsigned int index) { return index + 1 == size ? 0 : index + 1; };
    // A written last slot means the ring has wrapped: the oldest record sits
    // at the write index and is about to be overwritten, so it is skipped.
    unsigned int index = ev_timestamp_buf[size - 1].evt_name != nullptr ? next(write_index) : 0;
    for (; index != write_index; index = next(index)) {
        const ev_timestamp_t& record = ev_timestamp_buf[index];
        if (recprint("%-32s  %-5s at %u sec %u usec\n", record.evt_name != nullptr ? record.evt_name : "(null)",
                     record.is_start != 0 ? "start" : "end", static_cast<unsigned int>(record.tv.tv_sec),
                     static_cast<unsigned int>(record.tv.tv_nsec / 1000)) < 0) {
            return;
        }
    }
}

}  // extern "C"
