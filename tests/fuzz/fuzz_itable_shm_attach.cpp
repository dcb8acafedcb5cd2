// itable_shm_alloc on a file of any contents: a file some other process
// left, truncated, grown or scribbled over. The table must come back (the
// file attached when it is a live region of these parameters, else made
// anew), and everything it then reports must lie inside its mapping: every
// valid index below the number of entries, in order, each entry's address
// given; a proposed index free; the whole mapping readable, the common
// area writable.
//
// Input: version, common-area size, entries, entry size, mode. Mode bit 0
// clear: the rest of the input is the whole file. Set: a live region of
// these parameters is made first and the rest of the input (after a 16-bit
// offset) is written over it at that offset; mode bit 1 then also cuts the
// file after what was written.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "itable_shm.h"
#include "shm_view.h"

namespace {

void require(bool holds) {
    if (!holds) abort();
}

const std::string& path() {
    static const std::string made = [] {
        const char* dir = getenv("TMPDIR");
        return std::string(dir != nullptr ? dir : "/tmp") + "/corvex_fuzz_shm." + std::to_string(getpid());
    }();
    return made;
}

void file_write(const uint8_t* bytes, size_t size, off_t at, bool cut) {
    const int fd = open(path().c_str(), O_RDWR | O_CREAT, 0600);
    require(fd >= 0);
    require(pwrite(fd, bytes, size, at) == static_cast<ssize_t>(size));
    if (cut) require(ftruncate(fd, at + static_cast<off_t>(size)) == 0);
    close(fd);
}

void check(itable_shm_t* table, int entries) {
    int previous = -1;
    for (int index; (index = itable_shm_get_next_index(table, previous)) != -1; previous = index) {
        int valid = 0;
        require(index > previous && index < entries && itable_shm_entry_get(table, index, &valid) != nullptr &&
                valid == 1);
    }
    const int proposed = itable_shm_index_alloc(table);
    if (proposed != -1) {
        int valid = 1;
        require(proposed >= 0 && proposed < entries && itable_shm_entry_get(table, proposed, &valid) != nullptr &&
                valid == 0);
        itable_shm_entry_set(table, proposed);
        require(itable_shm_get_next_index(table, proposed - 1) == proposed);
    }
    const auto* start = static_cast<const volatile uint8_t*>(itable_shm_get_start_addr(table));
    uint8_t sum = 0;
    for (int i = 0; i < itable_shm_get_mmap_size(table); ++i) sum = static_cast<uint8_t>(sum + start[i]);
    int size = -1;
    auto* common = static_cast<volatile uint8_t*>(itable_shm_get_cmn_area(table, &size));
    for (int i = 0; i < size; ++i) common[i] = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    const unsigned version = data[0] % 4;
    const int common = data[1] % 80, entries = data[2] % 100, entry_size = data[3] % 40;
    const uint8_t mode = data[4];
    data += 5;
    size -= 5;
    unlink(path().c_str());
    if ((mode & 1) == 0) {
        file_write(data, size, 0, true);
    } else {
        itable_shm_t* made = itable_shm_alloc(path().c_str(), version, common, entries, entry_size);
        require(made != nullptr);
        shm_view_release(made);
        if (size >= 2) file_write(data + 2, size - 2, data[0] | data[1] << 8, (mode & 2) != 0);
    }
    itable_shm_t* table = itable_shm_alloc(path().c_str(), version, common, entries, entry_size);
    require(table != nullptr);
    check(table, entries);
    void* start = itable_shm_get_start_addr(table);
    const size_t length = static_cast<size_t>(itable_shm_get_mmap_size(table));
    itable_shm_delete(table);
    munmap(start, length);
    return 0;
}
