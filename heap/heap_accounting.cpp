// Heap accounting, what leaks are hunted with: the allocated blocks of a
// heap grouped by allocating PC, by data size or by both (largest bytes
// first), and the allocations and frees of each PC since the operator last
// asked. Reports only read the heap. Their tables have a fixed size and take
// no memory from any heap; what does not fit is summed as "other" and said.
//
// The groups are counted in one walk under the heap lock, so they describe
// one moment of the heap; printing comes after the lock is released.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <span>

#include "host_cli.h"
#include "priv_heap.h"
#include "priv_vty_selectors.h"
#include "time_util.h"

namespace corvex::heap {

u_int32_t heap_rates_counted;

namespace {

using namespace corvex::vty;

// Groups one report holds; blocks of further groups are summed as "other".
constexpr size_t kReportGroups = 200;
// Heaps whose rates may be counted at once, and PCs counted for each.
constexpr size_t kRateHeaps = 4;
constexpr size_t kRatePcs = 64;

// A fixed table of rows found by their key. Once it is full, rows of new
// keys are summed in `other`.
template <class Row, size_t N>
struct Tally {
    Row rows[N];
    size_t used;
    Row other;
    bool overflowed;

    Row& row_for(const Row& key) {
        for (size_t i = 0; i < used; ++i) {
            if (rows[i].same_key(key)) {
                return rows[i];
            }
        }
        if (used < N) {
            rows[used] = key;
            return rows[used++];
        }
        overflowed = true;
        return other;
    }

    void sort_largest_first() {
        std::sort(rows, rows + used, [](const Row& a, const Row& b) { return a.before(b); });
    }
};

// Allocated blocks of one PC, one data size, or one PC and size.
struct Group {
    uintptr_t pc;
    u_int32_t size;
    u_int32_t blocks;
    u_int64_t bytes;

    static constexpr size_t kValues = 2;
    bool same_key(const Group& other) const { return pc == other.pc && size == other.size; }
    // Largest bytes first; equal ones in key order, so a report reads the same each time.
    bool before(const Group& other) const {
        if (bytes != other.bytes) {
            return bytes > other.bytes;
        }
        return pc != other.pc ? pc < other.pc : size < other.size;
    }
    void values(u_int64_t* out) const {
        out[0] = blocks;
        out[1] = bytes;
    }
};

// Allocations and frees of the blocks that one PC allocated.
struct RateRow {
    uintptr_t pc;
    u_int32_t allocs;
    u_int32_t frees;
    u_int64_t alloc_bytes;
    u_int64_t freed_bytes;

    static constexpr size_t kValues = 4;
    bool same_key(const RateRow& other) const { return pc == other.pc; }
    bool before(const RateRow& other) const {
        return alloc_bytes != other.alloc_bytes ? alloc_bytes > other.alloc_bytes : pc < other.pc;
    }
    void values(u_int64_t* out) const {
        out[0] = allocs;
        out[1] = frees;
        out[2] = alloc_bytes;
        out[3] = freed_bytes;
    }
};

// The rates of one heap since `since`; read and written under the heap lock.
struct RateTable {
    heap_t* heap;
    time_ms_t since;
    Tally<RateRow, kRatePcs> tally;
};

RateTable rate_tables[kRateHeaps];

RateTable* rate_table_of(const heap_t* heap) {
    for (RateTable& table : rate_tables) {
        if (table.heap == heap) {
            return &table;
        }
    }
    return nullptr;
}

struct Column {
    const char* label;
    int width;
};

constexpr Column kGroupColumns[] = {{"Blocks", 9}, {"Bytes(b)", 12}};
constexpr Column kRateColumns[] = {{"Allocs", 9}, {"Frees", 9}, {"Alloc'd(b)", 12}, {"Freed(b)", 12}};

// A PC in all its hex digits (8 on the target), a size in 9 columns.
constexpr int kPcWidth = 2 * sizeof(uintptr_t);
constexpr int kSizeWidth = 9;
constexpr char kDashes[] = "--------------------";

// The dashes under a column of `width`.
const char* dashes(int width) { return kDashes + sizeof kDashes - 1 - width; }

// The lines of one report: a key column, then value columns, each line
// printed whole.
class ReportLines {
public:
    ReportLines(int key_width, std::span<const Column> columns) : key_width_(key_width), columns_(columns) {}

    void header(const char* key_label, const char* key_rule) {
        start(key_label);
        for (const Column& column : columns_) {
            append("  %*s", column.width, column.label);
        }
        finish();
        rule(key_rule);
    }

    void rule(const char* key_rule) {
        start(key_rule);
        for (const Column& column : columns_) {
            append("  %s", dashes(column.width));
        }
        finish();
    }

    void row(const char* key, const u_int64_t* values) {
        start(key);
        for (size_t i = 0; i < columns_.size(); ++i) {
            append("  %*" PRIu64, columns_[i].width, values[i]);
        }
        finish();
    }

private:
    void start(const char* key) {
        length_ = 0;
        append("   %-*s", key_width_, key);
    }
    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        const int n = vsnprintf(line_ + length_, sizeof line_ - length_, format, args);
        va_end(args);
        length_ = std::min(sizeof line_ - 1, length_ + static_cast<size_t>(n > 0 ? n : 0));
    }
    void finish() { parser_printf("%s\n", line_); }

    int key_width_;
    std::span<const Column> columns_;
    char line_[160] = {};
    size_t length_ = 0;
};

// Rows largest first, "other" when the table overflowed, and the total.
template <class Row, size_t N, class KeyText>
void print_rows(ReportLines& lines, Tally<Row, N>& tally, const char* key_rule, KeyText key_text) {
    tally.sort_largest_first();
    u_int64_t total[Row::kValues] = {};
    u_int64_t values[Row::kValues];
    auto print = [&](const char* key, const Row& row) {
        row.values(values);
        lines.row(key, values);
        for (size_t i = 0; i < Row::kValues; ++i) {
            total[i] += values[i];
        }
    };
    char key[48];
    for (size_t i = 0; i < tally.used; ++i) {
        key_text(tally.rows[i], key, sizeof key);
        print(key, tally.rows[i]);
    }
    if (tally.overflowed) {
        print("other", tally.other);
    }
    lines.rule(key_rule);
    lines.row("Total", total);
    if (tally.overflowed) {
        parser_printf("   (more than the %zu rows a report holds: the rest are summed as \"other\")\n", N);
    }
}

using GroupTally = Tally<Group, kReportGroups>;

boolean group_block(heap_t* /*heap*/, heap_block_t* block, heap_walk_arg_t* arg) {
    if (!block->header.allocated) {
        return TRUE;
    }
    void* data = data_of(block);
    const u_int32_t size = heap_block_size(data);
    Group key{};
    if (arg->magic != kShowBySize) {
        key.pc = reinterpret_cast<uintptr_t>(heap_get_pc(data));
    }
    if (arg->magic != kShowByPc) {
        key.size = size;
    }
    Group& row = static_cast<GroupTally*>(arg->context)->row_for(key);
    ++row.blocks;
    row.bytes += size;
    return TRUE;
}

void show_groups(heap_t* heap, u_int32_t by) {
    GroupTally tally{};
    heap_walk_arg_t arg{};
    arg.noisy = TRUE;
    arg.magic = by;
    arg.context = &tally;
    status_t status;
    {
        GlbLockGuard lock(heap_lock(), kSource, __LINE__);
        status = heap_walk(heap, group_block, &arg);
    }
    const char* name = heap_display_name(heap);
    const char* by_what = by == kShowByPc ? "PC" : by == kShowBySize ? "size" : "PC and size";
    parser_printf("\n Allocated blocks of heap %s by %s\n", name, by_what);
    char key_label[32];
    char key_rule[32];
    int key_width;
    if (by == kShowByPc) {
        key_width = kPcWidth;
        snprintf(key_label, sizeof key_label, "PC");
        snprintf(key_rule, sizeof key_rule, "%s", dashes(kPcWidth));
    } else if (by == kShowBySize) {
        key_width = kSizeWidth;
        snprintf(key_label, sizeof key_label, "%*s", kSizeWidth, "Size(b)");
        snprintf(key_rule, sizeof key_rule, "%s", dashes(kSizeWidth));
    } else {
        key_width = kPcWidth + 2 + kSizeWidth;
        snprintf(key_label, sizeof key_label, "%-*s  %*s", kPcWidth, "PC", kSizeWidth, "Size(b)");
        snprintf(key_rule, sizeof key_rule, "%s  %s", dashes(kPcWidth), dashes(kSizeWidth));
    }
    ReportLines lines(key_width, kGroupColumns);
    lines.header(key_label, key_rule);
    print_rows(lines, tally, key_rule, [by](const Group& group, char* text, size_t room) {
        if (by == kShowByPc) {
            snprintf(text, room, "%0*" PRIxPTR, kPcWidth, group.pc);
        } else if (by == kShowBySize) {
            snprintf(text, room, "%*u", kSizeWidth, group.size);
        } else {
            snprintf(text, room, "%0*" PRIxPTR "  %*u", kPcWidth, group.pc, kSizeWidth, group.size);
        }
    });
    if (status != 0) {
        parser_printf("   (the walk stopped at a corrupted block, reported in the system log: "
                      "the counts cover the blocks before it)\n");
    }
}

// The first look starts counting for the heap; every later one shows what
// was counted since the previous look and starts again.
void show_rates(heap_t* heap) {
    RateTable seen{};
    bool started = false;
    bool no_room = false;
    time_ms_t now;
    {
        GlbLockGuard lock(heap_lock(), kSource, __LINE__);
        now = time_get_ms();
        RateTable* table = rate_table_of(heap);
        if (table != nullptr) {
            seen = *table;
        } else {
            table = rate_table_of(nullptr);
            no_room = table == nullptr;
            started = !no_room;
            if (started) {
                ++heap_rates_counted;
            }
        }
        if (table != nullptr) {
            *table = RateTable{};
            table->heap = heap;
            table->since = now;
        }
    }
    const char* name = heap_display_name(heap);
    if (no_room) {
        parser_printf("Allocation rates are counted for %zu heaps already, as many as can be at once\n", kRateHeaps);
        return;
    }
    if (started) {
        parser_printf("Counting allocations and frees of heap %s by PC from now on: "
                      "the next accounting rates shows them\n",
                      name);
        return;
    }
    const time_ms_t elapsed = time_get_elapsed(seen.since, now);
    parser_printf("\n Allocations and frees of heap %s by PC in the last %" PRIu64 ".%03u seconds\n", name,
                  elapsed / 1000, static_cast<unsigned>(elapsed % 1000));
    ReportLines lines(kPcWidth, kRateColumns);
    lines.header("PC", dashes(kPcWidth));
    print_rows(lines, seen.tally, dashes(kPcWidth), [](const RateRow& row, char* text, size_t room) {
        snprintf(text, room, "%0*" PRIxPTR, kPcWidth, row.pc);
    });
}

}  // namespace

void heap_rates_count(heap_t* heap, heap_block_t* block, bool allocated) {
    RateTable* table = rate_table_of(heap);
    if (table == nullptr) {
        return;
    }
    RateRow key{};
    key.pc = reinterpret_cast<uintptr_t>(block->x.alloc.allocator.pc);
    RateRow& row = table->tally.row_for(key);
    const u_int64_t bytes = usable_size(block);
    if (allocated) {
        ++row.allocs;
        row.alloc_bytes += bytes;
    } else {
        ++row.frees;
        row.freed_bytes += bytes;
    }
}

void heap_accounting_show(heap_t* heap, u_int32_t selector) {
    if (selector == kShowRates) {
        show_rates(heap);
    } else {
        show_groups(heap, selector);
    }
}

}  // namespace corvex::heap
