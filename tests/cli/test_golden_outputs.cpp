// Golden outputs of the diagnostic commands. Each family of displays is one
// transcript in golden/ (every command line, then exactly what it printed),
// compared byte for byte. The heaps and their records lie at a fixed
// address, so block addresses and free-list links appear as they are; what
// varies by build (packet headers from the system allocator, the code
// addresses of the allocating calls) is masked with fixed-width placeholders
// (golden.h). Where header sizes and pointer widths make the text differ, a
// family has a .32 and a .64 file.
//
// After a deliberate change of a display, rewrite the files from a native
// and an -m32 build:
//   CORVEX_GOLDEN_UPDATE=1 build/<configuration>/tests/cli/test_golden_outputs
// and review every changed line with git diff before committing it.
//
// This program owns every heap and pool of its process (show heap lists all
// heaps): no other test may join it.
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>

#include "cli_capture.h"
#include "cli_session.h"
#include "fake_clock.h"
#include "golden.h"
#include "heap.h"
#include "packet_var.h"
#include "syslog_capture.h"

using corvex_test::fmt;

// The process's clocks, held still by the test from the monotonic clock's
// reading (to the millisecond) and moved only when told, so the rates
// report shows a known duration.
namespace {

std::optional<corvex_test::FakeClock> held;

void clock_hold() {
    struct timespec real {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &real);
    held.emplace();
    held->monotonic = {real.tv_sec, real.tv_nsec / 1000000 * 1000000};
}

void clock_move_ms(long ms) {
    const long ns = held->monotonic.tv_nsec + ms % 1000 * 1000000;
    held->monotonic = {held->monotonic.tv_sec + ms / 1000 + ns / 1000000000, ns % 1000000000};
}

// One mapping at a fixed address, free on x86-64 and i386 and under
// AddressSanitizer on both: the heap records in its first 4 KiB slots, the
// ranges from 64 KiB on.
constexpr uintptr_t kArenaAt = 0x10000000;
constexpr size_t kArenaBytes = 0xa0000;

heap_t* fixed_heap(int slot, uintptr_t first, size_t bytes, const char* name) {
    static_assert(sizeof(heap_t) <= 4096);
    auto* heap = reinterpret_cast<heap_t*>(kArenaAt + slot * 4096);
    EXPECT_EQ(heap_create(heap, first, first + bytes, const_cast<char*>(name)), 0);
    return heap;
}

// Two call sites: every block each one allocates carries its PC.
__attribute__((noinline)) void* at_a(heap_t* heap, size_t n) {
    void* p = heap_malloc(heap, n);
    asm volatile("" ::: "memory");  // keeps the call a call, not a jump
    return p;
}
__attribute__((noinline)) void* at_b(heap_t* heap, size_t n) {
    void* p = heap_zalloc(heap, n);
    asm volatile("" ::: "memory");
    return p;
}

// Heaps 0 to 4 in creation order; the packet pools take buffers from heap 2.
struct World {
    heap_t *cli, *tiny, *buffers, *broken, *many;
    void* a;        // allocated at a, 64 bytes
    void* gap;      // freed, between a and b, on a free list with another
    void* b;        // allocated at b, 64 bytes
    void* d;        // allocated at b in debug mode, 32 bytes
    void* foreign;  // the tiny heap's block
    void* overrun;  // a debug block of heap 3 written one byte past its end
    packet_t* pkt;  // a 128-byte sheaf's packet, its buffer filled 00 01 02 ...
    packet_t* odd;  // a 72-byte sheaf's packet: its dump ends in half a line
    packet_t* clone;
    packet_t* gone;  // a misfit packet, destroyed on return
};

World build_world(corvex_test::GoldenMasks& masks) {
    void* arena = mmap(reinterpret_cast<void*>(kArenaAt), kArenaBytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (arena != reinterpret_cast<void*>(kArenaAt)) {
        ADD_FAILURE() << "cannot map the heaps at their fixed address";
        std::abort();
    }
    srand(1);  // heap creation's self-test draws its requests from rand
    World w{};
    w.cli = fixed_heap(0, 0x10010000, 65536, "cli");
    w.tiny = fixed_heap(1, 0x10020000, 64, "tiny");
    w.buffers = fixed_heap(2, 0x10030000, 131072, "buffers");
    w.broken = fixed_heap(3, 0x10050000, 4096, "broken");
    w.many = fixed_heap(4, 0x10060000, 262144, "many");

    w.a = at_a(w.cli, 64);
    w.gap = at_b(w.cli, 100);
    w.b = at_b(w.cli, 64);
    at_a(w.cli, 200);
    void* gap2 = at_a(w.cli, 100);
    heap_enable_debug(w.cli);
    w.d = at_b(w.cli, 32);
    heap_disable_debug(w.cli);
    heap_free(w.cli, w.gap);
    heap_free(w.cli, gap2);  // the 96 list links two blocks
    w.foreign = heap_malloc(w.tiny, 1);
    at_a(w.broken, 2000);  // used / (total / 100) is not the exact share here
    heap_enable_debug(w.broken);
    w.overrun = at_a(w.broken, 16);
    static_cast<char*>(w.overrun)[heap_block_size(w.overrun)] = 'X';
    for (unsigned k = 0; k < 205; ++k) at_a(w.many, 16 + 8 * k);  // more sizes than a report holds
    masks.add_address(heap_get_pc(w.a), "pc_a");
    masks.add_address(heap_get_pc(w.b), "pc_b");

    static const packet_sheaf_block_t table[] = {
        {const_cast<char*>("512"), 512, 0, 8, 3, nullptr}, {const_cast<char*>("clone"), 0, 0, 8, 2, nullptr},
        {const_cast<char*>("128"), 128, 0, 8, 3, nullptr}, {const_cast<char*>("72"), 72, 0, 8, 1, nullptr},
        {nullptr, 0, 0, 0, 0, nullptr}};
    packet_pool_init(nullptr, table, w.buffers);
    packet_t* held[10];
    for (packet_t*& p : held) p = packet_get(100);
    for (int i = 0; i < 4; ++i) packet_return(held[i]);
    w.pkt = held[9];
    w.odd = packet_get(72);
    for (packet_t* p : {w.pkt, w.odd})
        for (size_t i = 0; i < 64 + p->sheaf->size; ++i) p->buffer_start[i] = static_cast<packet_data_t>(i);
    w.pkt->length = 60;
    w.pkt->layer3_start = w.pkt->frame_start + 14;
    w.pkt->layer4_start = w.pkt->frame_start + 34;
    w.clone = packet_clone(w.pkt);
    w.gone = packet_get(2000);
    packet_return(w.gone);
    masks.add_address(w.pkt, "pkt");
    masks.add_address(w.odd, "odd");
    masks.add_address(w.clone, "clone");
    masks.add_address(w.gone, "gone");
    const auto mask_resting = [&masks](sheaf_t* sheaf) {
        int n = 0;
        for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next)
            masks.add_address(p, fmt("s%ur%d", sheaf->id, ++n));
    };
    for (sheaf_t* sheaf = packet_common_sheaf; sheaf != nullptr; sheaf = sheaf->next) mask_resting(sheaf);
    mask_resting(packet_clone_sheaf);
    return w;
}

// Each counter its own value, in the order of the display; the first and
// the active one as wide as they go (more returns than successes: active wraps).
void plant_packet_counters() {
    packet_counter_t packet_stats_t::*const in_order[] = {
        &packet_stats_t::get_requests,       &packet_stats_t::get_successes,     &packet_stats_t::get_failures,
        &packet_stats_t::returns,            &packet_stats_t::clone_requests,    &packet_stats_t::clone_successes,
        &packet_stats_t::clone_returns,      &packet_stats_t::clone_failures,    &packet_stats_t::copy_requests,
        &packet_stats_t::copy_successes,     &packet_stats_t::copy_failures,     &packet_stats_t::coalesce_requests,
        &packet_stats_t::coalesce_successes, &packet_stats_t::coalesce_failures, &packet_stats_t::error_header_refcount,
        &packet_stats_t::error_buffer_refcount, &packet_stats_t::error_invalid,  &packet_stats_t::error_null_buffer};
    const packet_counter_t values[] = {4294967295u, 3000000000u, 1, 3000000002u, 20, 19, 18, 17, 30,
                                       29,          28,          40, 39,         38, 5,  6,  7,  8};
    for (size_t i = 0; i < std::size(values); ++i) packet_stats.*in_order[i] = values[i];
}

TEST(GoldenOutputs, EveryDisplayFamilyPrintsItsTranscript) {
    corvex_test::GoldenMasks masks;
    World w = build_world(masks);
    const auto at = [](const void* p) { return fmt("0x%" PRIxPTR, reinterpret_cast<uintptr_t>(p)); };
    void* kept = nullptr;
    const auto rates_activity = [&] {
        kept = at_a(w.cli, 64);
        heap_free(w.cli, at_a(w.cli, 64));
        heap_free(w.cli, at_b(w.cli, 1000));
        clock_move_ms(2500);
    };
    const auto rates_release = [&] {
        heap_free(w.cli, kept);
        clock_move_ms(61001);
    };

    // Each step's commands run in order, after its `before`; a family's
    // transcript is the entries of its steps.
    struct Step {
        const char* family;
        std::vector<std::string> commands;
        std::function<void()> before = {};
    };
    const std::string blocks = "show heap 0 blocks", address = "show heap 0 address ";
    const std::string pc_a = at(heap_get_pc(w.a)), pc_b = at(heap_get_pc(w.b));
    const Step steps[] = {
        {"heap_summary", {"show heap", "set heap 0 low-watermark 5000", "show heap 0", "show heap 1",
                          "show heap 0 help", "show heap 7"}},
        {"heap_extensive", {"show heap extensive"}},
        {"heap_blocks", {blocks, blocks + " 64", blocks + " free", blocks + " free 96", blocks + " alloc",
                         blocks + " alloc 64", blocks + " alloc pc " + pc_a, blocks + " alloc 64 pc " + pc_b,
                         blocks + " alloc 100 pc " + pc_b}},
        {"heap_address", {address + at(w.a), address + at(w.gap), address + at(w.d), address + at(w.foreign),
                          "show heap 3 address " + at(w.overrun), address + "0x10"}},
        {"heap_sanity", {"show heap 0 sanity", "show heap 1 sanity", "show heap 0 sanity active", "set security 10",
                         "show heap 0 sanity active", "show heap 3 sanity"}},
        {"heap_accounting", {"show heap 0 accounting pc", "show heap 0 accounting size",
                             "show heap 0 accounting pc size", "show heap 4 accounting size"}},
        {"heap_accounting", {"show heap 0 accounting rates"}, clock_hold},
        {"heap_accounting", {"show heap 0 accounting rates"}, rates_activity},
        {"heap_accounting", {"show heap 0 accounting rates"}, rates_release},
        {"heap_accounting", {"show heap 1 accounting rates", "show heap 2 accounting rates",
                             "show heap 3 accounting rates", "show heap 4 accounting rates"}},
        {"packet_sheaf", {"show packet", "show packet sheaf 2", "show packet sheaf 3", "show packet sheaf 5",
                          "show packet sheaf 99"}},
        {"packet_dump", {"show packet dump " + at(w.pkt), "show packet dump " + at(w.clone),
                         "show packet dump " + at(w.odd), "show packet dump " + at(w.gone), "show packet dump 0x10"}},
        {"packet_statistics", {"show packet statistics"}},
        {"packet_statistics", {"show packet statistics"}, plant_packet_counters},
    };

    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    std::map<std::string, std::string> transcripts;
    for (const Step& step : steps) {
        if (step.before) step.before();
        for (const std::string& command : step.commands) {
            corvex_test::CliCapture capture;
            cli_session_execute(session, command.c_str());
            transcripts[step.family] += corvex_test::golden_entry(command, capture.text());
        }
    }
    cli_session_destroy(session);
    held.reset();
    for (const auto& [family, transcript] : transcripts) {
        // Sanity lines and counters read the same on both widths.
        const bool one_width = family == "heap_sanity" || family == "packet_statistics";
        const std::string width = one_width ? "" : sizeof(void*) == 8 ? ".64" : ".32";
        EXPECT_TRUE(corvex_test::golden_matches(CORVEX_GOLDEN_DIR "/" + family + width + ".txt",
                                                masks.apply(transcript)));
    }
}

}  // namespace
