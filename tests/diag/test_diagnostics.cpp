// The programs' diagnostics without the programs: call sites named in
// every kind of object and in the accounting reports, a heap map against a
// walk of the same heap, the event ring read back and turned into slices,
// and a leak planted in a forwarding step named by the leak report.
//
// The functions whose names the tests expect are exported, as the programs'
// are where dladdr names them.
#include <unistd.h>

// GCC 12 warns inside <regex> when it instruments for the sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cli_session.h"
#include "diag_call_sites.h"
#include "diag_heap_map.h"
#include "diag_leaks.h"
#include "diag_symbols.h"
#include "diag_trace.h"
#include "packet_pools.h"
#include "pe_config.h"
#include "pe_forward.h"
#include "time_util.h"

void* diag_test_held[64];
unsigned diag_test_holds;

// The call sites; each result is stored, so that no call is a tail call.
__attribute__((noinline)) void diag_test_allocate(heap_t* heap, size_t size) {
    diag_test_held[diag_test_holds++] = heap_malloc(heap, size);
}
constexpr int kAllocateLine = __LINE__ - 2;

namespace diag_test {
__attribute__((noinline)) void hold(heap_t* heap, int size) {
    diag_test_held[diag_test_holds++] = heap_malloc(heap, static_cast<size_t>(size));
}
}  // namespace diag_test

// An emit step of the forwarder that keeps a copy of each frame's
// addresses and never gives it back: the planted leak.
heap_t* diag_test_leak_heap;
__attribute__((noinline)) bool diag_test_emit_leaking(void*, unsigned, const packet_t* packet) {
    void* copy = heap_malloc(diag_test_leak_heap, 12);
    memcpy(copy, packet->frame_start, 12);
    return true;
}
constexpr int kLeakLine = __LINE__ - 4;

using namespace corvex_test;

namespace {

constexpr bool kLines = CORVEX_DIAG_LIBDW;

uintptr_t pc_of(const void* data) { return reinterpret_cast<uintptr_t>(heap_get_pc(const_cast<void*>(data))); }
const void* last_held(unsigned back = 1) { return diag_test_held[diag_test_holds - back]; }

// What diag_symbol_describe must say of a call in this file.
std::string site_pattern(const char* function, int line) {
    return std::string(function) + "\\+0x[0-9a-f]+" +
           (kLines ? "  tests/diag/test_diagnostics\\.cpp:" + (line != 0 ? std::to_string(line) : "[0-9]+") : "");
}

TEST(Symbols, NameFunctionsOfTheProgramTheLibraryAndTheSystem) {
    heap_t* heap = make_heap(4096, "symbols");
    diag_test_allocate(heap, 16);
    diag_test::hold(heap, 16);
    const struct {
        uintptr_t pc;
        const char* function;  // null: any name the object gives it
        const char* object;    // null: the test program
        int line;              // 0: not checked
    } kCases[] = {
        {pc_of(last_held(2)), "diag_test_allocate", nullptr, kAllocateLine},
        {pc_of(last_held(1)), "diag_test::hold", nullptr, 0},
        {reinterpret_cast<uintptr_t>(&heap_walk) + 8, "heap_walk", "libcorvex.so.", 0},
        {reinterpret_cast<uintptr_t>(&getpid) + 1, nullptr, "libc.so.6", 0},
    };
    for (const auto& c : kCases) {
        diag_symbol_t symbol;
        ASSERT_TRUE(diag_symbol_find(c.pc, &symbol)) << std::hex << c.pc;
        EXPECT_EQ(symbol.function, c.function != nullptr ? c.function : symbol.function);
        EXPECT_FALSE(symbol.function.empty());
        EXPECT_TRUE(symbol.object.starts_with(c.object != nullptr ? c.object : "test_diagnostics")) << symbol.object;
        if (c.line != 0 && kLines) {
            EXPECT_EQ(symbol.file, "tests/diag/test_diagnostics.cpp");
            EXPECT_EQ(symbol.line, c.line);
        }
        EXPECT_TRUE(std::regex_match(diag_symbol_describe(c.pc), std::regex(symbol.function + "\\+0x[0-9a-f]+.*")));
    }
    EXPECT_TRUE(std::regex_match(diag_symbol_describe(pc_of(last_held(2))), std::regex(site_pattern("diag_test_allocate", kAllocateLine))));
    EXPECT_EQ(diag_symbol_describe(0x10), "") << "no object holds it";
}

// A session on the library's tree whose text goes through the namer (or not).
std::string session_text(const std::vector<std::string>& commands, bool named) {
    std::string text;
    const cli_output_sink_t append = [](void* out, const char* bytes, size_t length) {
        static_cast<std::string*>(out)->append(bytes, length);
    };
    DiagCallSites names(append, &text);
    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    cli_session_output_set(session, named ? DiagCallSites::pass : append, named ? static_cast<void*>(&names) : &text);
    for (const std::string& command : commands) EXPECT_EQ(cli_session_execute(session, command.c_str()), CLI_OK);
    cli_session_destroy(session);
    names.flush();
    return text;
}

std::string pc_text(uintptr_t pc) {
    char text[24];
    snprintf(text, sizeof text, "%0*" PRIxPTR, int(2 * sizeof(void*)), pc);
    return text;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(CallSites, TheAccountingReportsByPcGainAColumnNamingEachPc) {
    heap_t* heap = make_heap(8192, "sites");
    const std::string show = "show heap " + std::to_string(heap->id) + " accounting ";
    session_text({show + "rates"}, false);  // counting starts
    for (int i = 0; i < 3; ++i) diag_test_allocate(heap, 64);
    diag_test::hold(heap, 200);
    // The rows of the two call sites: PC, the values, the name; the one holding more bytes first.
    const std::string kSites[] = {"   " + pc_text(pc_of(last_held(1))) + "( +[0-9]+)+  " + site_pattern("diag_test::hold", 0),
                                  "   " + pc_text(pc_of(last_held(2))) + "( +[0-9]+)+  " +
                                      site_pattern("diag_test_allocate", kAllocateLine)};
    // The library's lines, and those the namer passed on: the same, the
    // header, rules and rows of PCs with a column more.
    const auto check = [&](const std::string& command, bool named_column) {
        const std::vector<std::string> plain = lines_of(session_text({command}, false));
        const std::vector<std::string> named = lines_of(session_text({command}, true));
        ASSERT_EQ(named.size(), plain.size()) << command;
        size_t row = 0;
        for (size_t i = 0; i < plain.size(); ++i) {
            std::string expected = plain[i];
            if (named_column && plain[i].starts_with("   PC ")) expected += "  Call site";
            if (named_column && plain[i].starts_with("   -")) expected += "  ---------";
            if (named_column && row < 2 && plain[i].starts_with(kSites[row].substr(0, 3 + 2 * sizeof(void*)))) {
                EXPECT_TRUE(std::regex_match(named[i], std::regex(kSites[row++]))) << named[i];
                continue;
            }
            EXPECT_EQ(named[i], expected);
        }
        EXPECT_EQ(row, named_column ? 2u : 0u) << command;
    };
    check(show + "pc", true);
    check(show + "pc size", true);
    check(show + "size", false);
    // Rates restart at each look: the named look alone.
    const std::vector<std::string> rates = lines_of(session_text({show + "rates"}, true));
    ASSERT_EQ(rates.size(), 8u);
    EXPECT_TRUE(rates[2].ends_with("Freed(b)  Call site") && rates[3].ends_with("  ---------")) << rates[2];
    EXPECT_TRUE(std::regex_match(rates[4], std::regex(kSites[0]))) << rates[4];
    EXPECT_TRUE(std::regex_match(rates[5], std::regex(kSites[1]))) << rates[5];
    std::string passed;
    DiagCallSites names([](void* out, const char* text, size_t length) { static_cast<std::string*>(out)->append(text, length); },
                        &passed);
    DiagCallSites::pass(&names, "corvex> ", 8);
    EXPECT_EQ(passed, "corvex> ") << "a partial line outside a report goes on at once";
}

// A block as the map must draw it: header, data size, state, PC, trailer bytes.
using Block = std::tuple<std::string, unsigned, std::string, std::string, unsigned>;

TEST(HeapMap, DrawsEveryBlockOfAWalkInAddressOrder) {
    heap_t* heap = make_heap(16384, "map");
    diag_test_allocate(heap, 64);
    diag_test_allocate(heap, 64);
    heap_enable_debug(heap);
    diag_test::hold(heap, 40);
    heap_disable_debug(heap);
    diag_test::hold(heap, 1000);
    heap_free(heap, diag_test_held[diag_test_holds - 3]);
    diag_test_allocate(heap, 300);
    std::vector<Block> walked;
    uint64_t largest_free = 0;
    heap_walk_arg_t arg{};
    arg.context = &walked;
    arg.value = 0;
    ASSERT_EQ(heap_walk(heap, [](heap_t*, heap_block_t* block, heap_walk_arg_t* a) -> boolean {
        const bool allocated = block->header.allocated != 0;
        char header[24];
        snprintf(header, sizeof header, "%" PRIxPTR, reinterpret_cast<uintptr_t>(block));
        static_cast<std::vector<Block>*>(a->context)->emplace_back(
            header, static_cast<unsigned>(block->size), allocated ? "allocated" : "free",
            allocated ? pc_text(pc_of(block->data)).substr(pc_text(pc_of(block->data)).find_first_not_of('0')) : "",
            block->header.debug ? HEAP_TRAILER_GUARD_BYTES + sizeof(void*) : 0);
        return TRUE;
    }, &arg), 0);
    for (const Block& block : walked)
        if (std::get<2>(block) == "free") largest_free = std::max<uint64_t>(largest_free, std::get<1>(block) + sizeof(heap_block_t));

    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    diag_heap_map_draw(heap, out);
    fclose(out);
    const std::string svg(text, size);
    free(text);
    const std::regex element(R"re(<g class="block( debug)?" data-header="0x([0-9a-f]+)" data-size="([0-9]+)" )re"
                             R"re(data-state="(allocated|free)"(?: data-pc="0x([0-9a-f]+)")?(?: data-trailer="([0-9]+)")?>)re");
    std::vector<Block> drawn;
    for (auto it = std::sregex_iterator(svg.begin(), svg.end(), element); it != std::sregex_iterator(); ++it) {
        const std::smatch& m = *it;
        drawn.emplace_back(m[2], std::stoul(m[3]), m[4], m[5], m[6].matched ? std::stoul(m[6]) : 0);
        EXPECT_EQ(m[1].matched, m[6].matched) << "debug-mode blocks are marked";
    }
    EXPECT_EQ(drawn, walked);
    EXPECT_EQ(walked.size(), 6u) << "64, a hole of 64, 40 in debug mode, 1000, 300, the rest free";
    const size_t free_bytes = heap_get_free_bytes(heap);
    char line[160];
    snprintf(line, sizeof line, "%zu bytes at 0x%" PRIxPTR ": %zu free, largest free block %" PRIu64 ", fragmentation %.1f%%",
             heap->size, heap->base, free_bytes, largest_free, 100.0 - 100.0 * largest_free / free_bytes);
    EXPECT_NE(svg.find(line), std::string::npos) << line << "\n" << svg.substr(0, 600);
    size_t trailers = 0;
    const std::string trailer = "class=\"trailer\"/></g>";  // a block's last cell, not the legend's
    for (size_t at = svg.find(trailer); at != std::string::npos; at = svg.find(trailer, at + 1)) ++trailers;
    EXPECT_EQ(trailers, 1u);
}

using Event = std::tuple<std::string, uint64_t, uint64_t, bool, bool>;  // name, time, duration, slice, start

TEST(Trace, StartsAndEndsBecomeNestedSlicesAndUnmatchedMarksStayShown) {
    const struct {
        const char* what;
        std::vector<diag_mark_t> marks;
        std::vector<Event> events;
    } kCases[] = {
        {"nested and in sequence",
         {{"run", true, 100}, {"a", true, 110}, {"a", false, 120}, {"b", true, 130}, {"b", false, 150}, {"run", false, 200}},
         {{"run", 0, 100, true, true}, {"a", 10, 10, true, true}, {"b", 30, 20, true, true}}},
        {"an end closes the innermost start of its name",
         {{"x", true, 0}, {"x", true, 5}, {"x", false, 7}, {"x", false, 9}},
         {{"x", 0, 9, true, true}, {"x", 5, 2, true, true}}},
        {"an end closing nothing, a start never closed",
         {{"late", false, 0}, {"open", true, 4}},
         {{"late", 0, 0, false, false}, {"open", 4, 0, false, true}}},
        {"crossing: the start inside is left open",
         {{"a", true, 0}, {"b", true, 2}, {"a", false, 5}, {"b", false, 8}},
         {{"a", 0, 5, true, true}, {"b", 2, 0, false, true}, {"b", 8, 0, false, false}}},
    };
    for (const auto& c : kCases) {
        std::vector<Event> events;
        for (const diag_trace_event_t& e : diag_trace_events(c.marks))
            events.emplace_back(e.name, e.time_us, e.duration_us, e.slice, e.start);
        EXPECT_EQ(events, c.events) << c.what;
    }
}

TEST(Trace, ReadsTheRingOldestFirstAsTheLibraryPrintsIt) {
    static const std::string kLong(40, 'n');  // past the printed name column
    event_timestamp_record_init(4);
    event_timestamp_record("two words", 1);
    event_timestamp_record(kLong.c_str(), 1);
    event_timestamp_record(kLong.c_str(), 0);
    using Mark = std::pair<std::string, bool>;
    const auto read = [] {
        std::vector<Mark> marks;
        uint64_t last = 0;
        for (const diag_mark_t& mark : diag_trace_marks_read()) {
            EXPECT_GE(mark.time_us, last);
            last = mark.time_us;
            marks.emplace_back(mark.name, mark.start);
        }
        return marks;
    };
    EXPECT_EQ(read(), (std::vector<Mark>{{"two words", true}, {kLong, true}, {kLong, false}}));
    event_timestamp_record("two words", 0);
    event_timestamp_record("after", 1);
    // Wrapped: the ring's four slots print as three, the oldest left out.
    EXPECT_EQ(read(), (std::vector<Mark>{{kLong, false}, {"two words", false}, {"after", true}}));
}

TEST(Leaks, ABlockLeakedInAForwardingStepIsNamedWithItsCaller) {
    diag_test_leak_heap = make_heap(1 << 16, "leaky");
    packet_pool_init(nullptr, kPoolTable, make_heap(1 << 20, "packets"));
    const char kConfig[] = "upstream up\nport a 1\n";
    FILE* in = fmemopen(const_cast<char*>(kConfig), strlen(kConfig), "r");
    pe_config_t config{};
    ASSERT_EQ(pe_config_read(&config, in, "t.conf", make_heap(1 << 16, "tables"), stderr), 0);
    fclose(in);
    DiagLeaks leaks;
    leaks.snapshot();
    pe_forwarder_t forwarder;
    pe_forwarder_init(&forwarder, &config, diag_test_emit_leaking, nullptr);
    // Addresses, an E-tag for E-CID 1 and an EtherType, from the upstream port.
    const uint8_t frame[22] = {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0x89, 0x3F, 0, 0, 0, 1, 0, 0, 0x88, 0xB5};
    for (int i = 0; i < 3; ++i) pe_forward_frame(&forwarder, 0, frame, sizeof frame, sizeof frame);
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    EXPECT_EQ(leaks.report(out, "start-up"), 3u);
    fclose(out);
    const std::vector<std::string> lines = lines_of(std::string(text, size));
    free(text);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "Blocks allocated since start-up and not given back, by call site:");
    EXPECT_EQ(lines[1], "  Heap " + std::to_string(diag_test_leak_heap->id) + " leaky: 3 blocks, 48 bytes");
    EXPECT_TRUE(std::regex_match(lines[3], std::regex("    [0-9a-f]{" + std::to_string(2 * sizeof(void*)) +
                                                      "}          3            48  " +
                                                      site_pattern("diag_test_emit_leaking", kLeakLine))))
        << lines[3];
    pe_config_release(&config);
}

}  // namespace
