// Shared-memory index table: header, common area, validity bitmap and
// entries in one file mapped shared by every process that attaches.
//
// The header carries every layout parameter, so a file is attached only
// when its header equals, byte for byte, the one the caller's parameters
// produce and its length is exactly what its creator wrote; anything else
// (another version or size, a deleted region, a truncated or foreign file)
// is removed and made anew, so a bad file is never mapped as valid.
//
// Bitmap words are touched through atomic_ref: setting a bit releases the
// entry bytes written before it, and readers acquire the word before they
// read an entry, so a walker never sees a bit ahead of its entry.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "heap.h"
#include "itable_shm.h"

static_assert(sizeof(itable_shm_header_t) == 32);
static_assert(offsetof(itable_shm_header_t, magic_num) == 0);
static_assert(offsetof(itable_shm_header_t, version) == 4);
static_assert(offsetof(itable_shm_header_t, mmap_len) == 8);
static_assert(offsetof(itable_shm_header_t, cmn_area_size) == 12);
static_assert(offsetof(itable_shm_header_t, entry_size) == 14);
static_assert(offsetof(itable_shm_header_t, max_entries) == 16);
static_assert(offsetof(itable_shm_header_t, cmn_area_offset) == 20);
static_assert(offsetof(itable_shm_header_t, bmap_offset) == 24);
static_assert(offsetof(itable_shm_header_t, entry_offset) == 28);
static_assert(std::atomic_ref<u_int32_t>::is_always_lock_free, "bitmap words are shared between processes");

namespace {

constexpr int kAttempts = 3;
// The largest size whose rounding up to 8 still fits the 16-bit fields.
constexpr int kMaxAreaSize = 65528;
constexpr u_int32_t kHeaderSize = sizeof(itable_shm_header_t);
constexpr u_int32_t kFullWord = 0xFFFFFFFFu;

constexpr u_int32_t round8(u_int32_t size) { return (size + 7u) & ~7u; }
constexpr u_int32_t bitmap_words(u_int32_t entries) { return (entries + 31u) / 32u; }

static_assert(round8(10) == 16 && bitmap_words(100) == 4 && bitmap_words(40) == 2);

using Word = std::atomic_ref<u_int32_t>;

// The header a region made with these parameters carries, or false when
// they cannot describe a region.
bool header_build(itable_shm_header_t* hdr, unsigned int version, int cmn_area_size, int num_entries,
                  int ent_size) {
    if (cmn_area_size < 0 || cmn_area_size > kMaxAreaSize || ent_size < 0 || ent_size > kMaxAreaSize ||
        num_entries < 0) {
        return false;
    }
    const u_int32_t cmn = round8(static_cast<u_int32_t>(cmn_area_size));
    const u_int32_t entry = round8(static_cast<u_int32_t>(ent_size));
    const u_int32_t entries = static_cast<u_int32_t>(num_entries);
    const u_int64_t bmap_offset = kHeaderSize + cmn;
    const u_int64_t entry_offset = bmap_offset + 4ull * bitmap_words(entries);
    const u_int64_t mmap_len = entry_offset + static_cast<u_int64_t>(entry) * entries;
    // The file holds one byte past the mapping, and its length is an off_t.
    if (mmap_len + 1 > 0x7FFFFFFFull) {
        return false;
    }
    memset(hdr, 0, sizeof(*hdr));
    hdr->magic_num = ITABLE_SHM_MAGIC;
    hdr->version = version;
    hdr->mmap_len = static_cast<u_int32_t>(mmap_len);
    hdr->cmn_area_size = static_cast<u_int16_t>(cmn);
    hdr->entry_size = static_cast<u_int16_t>(entry);
    hdr->max_entries = entries;
    hdr->cmn_area_offset = kHeaderSize;
    hdr->bmap_offset = static_cast<u_int32_t>(bmap_offset);
    hdr->entry_offset = static_cast<u_int32_t>(entry_offset);
    return true;
}

void* map_region(int fd, u_int32_t length) {
    void* map = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return map == MAP_FAILED ? nullptr : map;
}

// A new region: the file is sized by one byte past the mapping, the header
// goes in with its magic written last, so a region is never seen live with
// a stale common area or bitmap. The entries are left as the file's zeros.
void* region_create(int fd, const itable_shm_header_t& expected) {
    static const char kEndByte = 0;
    if (lseek(fd, expected.mmap_len, SEEK_SET) < 0 || write(fd, &kEndByte, 1) != 1) {
        return nullptr;
    }
    void* map = map_region(fd, expected.mmap_len);
    if (map == nullptr) {
        return nullptr;
    }
    auto* hdr = static_cast<itable_shm_header_t*>(map);
    memcpy(hdr, &expected, sizeof(expected));
    hdr->magic_num = 0;
    memset(static_cast<char*>(map) + expected.cmn_area_offset, 0, expected.cmn_area_size);
    memset(static_cast<char*>(map) + expected.bmap_offset, 0, expected.entry_offset - expected.bmap_offset);
    Word(hdr->magic_num).store(ITABLE_SHM_MAGIC, std::memory_order_release);
    return map;
}

// An existing region is mapped only when its header matches and the file is
// exactly as long as its creator made it: a shorter file would fault on
// access, a longer one is not ours.
void* region_attach(int fd, off_t length, const itable_shm_header_t& expected) {
    itable_shm_header_t found;
    if (length != static_cast<off_t>(expected.mmap_len) + 1 || lseek(fd, 0, SEEK_SET) != 0 ||
        read(fd, &found, sizeof(found)) != static_cast<ssize_t>(sizeof(found)) ||
        memcmp(&found, &expected, sizeof(found)) != 0) {
        errno = EAGAIN;
        return nullptr;
    }
    return map_region(fd, expected.mmap_len);
}

void* itable_shm_alloc_helper(int fd, const itable_shm_header_t& expected) {
    const off_t length = lseek(fd, 0, SEEK_END);
    if (length < 0) {
        return nullptr;
    }
    return length == 0 ? region_create(fd, expected) : region_attach(fd, length, expected);
}

bool index_in_range(const itable_shm_t* itbl, int index) {
    const auto i = static_cast<u_int32_t>(index);
    return i < itbl->shm_hdr->max_entries && i / 32 < itbl->max_widx;
}

void itable_shm_entry_set_unset(itable_shm_t* itbl, int index, bool do_set) {
    if (itbl == nullptr || !index_in_range(itbl, index)) {
        return;
    }
    const auto i = static_cast<u_int32_t>(index);
    Word word(itbl->bitmap[i / 32]);
    const u_int32_t bit = 1u << (i % 32);
    if (do_set) {
        word.fetch_or(bit, std::memory_order_release);
    } else {
        word.fetch_and(~bit, std::memory_order_release);
    }
}

// Bits of word `w` that name entries, so a stray bit past the last entry
// is never reported.
u_int32_t entry_bits(const itable_shm_t* itbl, u_int32_t w) {
    const u_int32_t bits = Word(itbl->bitmap[w]).load(std::memory_order_acquire);
    const u_int32_t first = w * 32;
    const u_int32_t entries = itbl->shm_hdr->max_entries;
    if (entries - first >= 32) {
        return bits;
    }
    return bits & ((1u << (entries - first)) - 1u);
}

}  // namespace

extern "C" {

itable_shm_t* itable_shm_alloc(const char* shm_path, unsigned int version, int cmn_area_size, int num_entries,
                               int ent_size) {
    itable_shm_header_t expected;
    if (shm_path == nullptr || !header_build(&expected, version, cmn_area_size, num_entries, ent_size)) {
        errno = EINVAL;
        return nullptr;
    }
    int fd = -1;
    void* map = nullptr;
    for (int attempt = 0; attempt < kAttempts && map == nullptr; ++attempt) {
        fd = open(shm_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            return nullptr;
        }
        map = itable_shm_alloc_helper(fd, expected);
        if (map == nullptr) {
            const int failure = errno;
            unlink(shm_path);
            close(fd);
            errno = failure;
        }
    }
    if (map == nullptr) {
        return nullptr;
    }
    auto* itbl = static_cast<itable_shm_t*>(kzalloc(sizeof(itable_shm_t)));
    char* path = strdup(shm_path);
    if (itbl == nullptr || path == nullptr) {
        // The region stays for the next attempt; only this process lets go.
        free(itbl);
        free(path);
        munmap(map, expected.mmap_len);
        close(fd);
        errno = ENOMEM;
        return nullptr;
    }
    itbl->shm_hdr = static_cast<itable_shm_header_t*>(map);
    itbl->max_widx = bitmap_words(expected.max_entries);
    itbl->shm_fd = fd;
    itbl->bitmap = reinterpret_cast<u_int32_t*>(static_cast<char*>(map) + itbl->shm_hdr->bmap_offset);
    itbl->shm_path = path;
    return itbl;
}

int itable_shm_index_alloc(itable_shm_t* itbl_shm) {
    if (itbl_shm == nullptr) {
        return -1;
    }
    for (u_int32_t w = 0; w < itbl_shm->max_widx; ++w) {
        const u_int32_t bits = Word(itbl_shm->bitmap[w]).load(std::memory_order_relaxed);
        if (bits == kFullWord) {
            continue;
        }
        const u_int32_t index = w * 32 + static_cast<u_int32_t>(__builtin_ctz(~bits));
        if (index >= itbl_shm->shm_hdr->max_entries) {
            return -1;
        }
        itbl_shm->last_alloc_index = index;
        return static_cast<int>(index);
    }
    return -1;
}

void* itable_shm_entry_get(itable_shm_t* itbl_shm, int index, int* is_valid) {
    if (itbl_shm == nullptr || !index_in_range(itbl_shm, index)) {
        return nullptr;
    }
    const auto i = static_cast<u_int32_t>(index);
    const itable_shm_header_t* hdr = itbl_shm->shm_hdr;
    if (is_valid != nullptr) {
        const u_int32_t bits = Word(itbl_shm->bitmap[i / 32]).load(std::memory_order_acquire);
        *is_valid = (bits >> (i % 32)) & 1u;
    }
    return reinterpret_cast<char*>(itbl_shm->shm_hdr) + hdr->entry_offset + static_cast<size_t>(hdr->entry_size) * i;
}

void itable_shm_entry_set(itable_shm_t* itbl_shm, int cur_index) { itable_shm_entry_set_unset(itbl_shm, cur_index, true); }

void itable_shm_entry_unset(itable_shm_t* itbl_shm, int cur_index) {
    itable_shm_entry_set_unset(itbl_shm, cur_index, false);
}

int itable_shm_get_next_index(itable_shm_t* itbl_shm, int prev_index) {
    if (itbl_shm == nullptr) {
        return -1;
    }
    u_int32_t w = 0;
    u_int32_t first_bit = 0;
    if (prev_index >= 0) {
        const auto prev = static_cast<u_int32_t>(prev_index);
        if (prev >= itbl_shm->shm_hdr->max_entries) {
            return -1;
        }
        w = (prev + 1) / 32;
        first_bit = (prev + 1) % 32;
    }
    if (w >= itbl_shm->max_widx) {
        return -1;
    }
    u_int32_t bits = entry_bits(itbl_shm, w) & (kFullWord << first_bit);
    while (bits == 0) {
        if (++w >= itbl_shm->max_widx) {
            return -1;
        }
        bits = entry_bits(itbl_shm, w);
    }
    return static_cast<int>(w * 32 + static_cast<u_int32_t>(__builtin_ctz(bits)));
}

void* itable_shm_get_start_addr(itable_shm_t* shm_itbl) { return shm_itbl != nullptr ? shm_itbl->shm_hdr : nullptr; }

int itable_shm_get_mmap_size(itable_shm_t* shm_itbl) {
    return shm_itbl != nullptr ? static_cast<int>(shm_itbl->shm_hdr->mmap_len) : 0;
}

void* itable_shm_get_cmn_area(itable_shm_t* shm_itbl, int* size) {
    if (shm_itbl == nullptr) {
        return nullptr;
    }
    const itable_shm_header_t* hdr = shm_itbl->shm_hdr;
    if (size != nullptr) {
        *size = hdr->cmn_area_size;
    }
    return reinterpret_cast<char*>(shm_itbl->shm_hdr) + hdr->cmn_area_offset;
}

void itable_shm_delete(itable_shm_t* shm_itbl) {
    if (shm_itbl == nullptr) {
        return;
    }
    Word(shm_itbl->shm_hdr->magic_num).store(0, std::memory_order_release);
    unlink(shm_itbl->shm_path);
    close(shm_itbl->shm_fd);
    free(shm_itbl->shm_path);
    free(shm_itbl);
}

}  // extern "C"
