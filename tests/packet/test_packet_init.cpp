// Packet module start-up: pools from a table with vectors of its own, the
// background module and its two timers, and the periodic error report.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

int user_allocs = 0;
packet_t* user_alloc(sheaf_t* sheaf, packet_length_t length) {
    ++user_allocs;
    return packet_alloc(sheaf, length);
}
sheaf_vector_t user_vector = {user_alloc, packet_free};
sheaf_vector_t row_vector = {user_alloc, packet_free};
sheaf_vector_t no_alloc_vector = {nullptr, packet_free};

const packet_sheaf_block_t kTable[] = {
    {const_cast<char*>("big"), 1000, 0, 8, 2, nullptr},
    {const_cast<char*>("odd"), 300, 0, 8, 2, &no_alloc_vector},
    {const_cast<char*>("custom"), 200, 0, 8, 1, &row_vector},
    {const_cast<char*>("refused"), 100, 4, 4, 0, nullptr},
    {const_cast<char*>("ignored"), 50, 0, 8, 0, nullptr},
    {nullptr, 0, 0, 0, 0, nullptr},
};

class PacketStart : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        packet_module_init();
        packet_pool_init(&user_vector, kTable, make_heap(1 << 20));
    }
};

TEST_F(PacketStart, TableRowsUntilARefusedOneAndPoolsOfTheUserVector) {
    // Rows without a usable vector of their own ignore the user vector; the misfit pool takes it.
    std::vector<std::tuple<std::string, u_int32_t, sheaf_vector_alloc_t>> chain;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) chain.emplace_back(s->name, s->id, s->vector->alloc);
    EXPECT_EQ(chain, (decltype(chain){{"custom", 3, user_alloc}, {"odd", 2, packet_alloc}, {"big", 1, packet_alloc}}))
        << "rows after the refused one are ignored";
    EXPECT_EQ(std::tuple(packet_common_sheaf->vector, packet_common_sheaf->total, user_allocs),
              std::tuple(&row_vector, 1u, 1));
    EXPECT_EQ(std::tuple(packet_misfit_sheaf->id, packet_misfit_sheaf->vector, packet_clone_sheaf),
              std::tuple(4u, &user_vector, nullptr));

    packet_t* p = packet_get(150);
    ASSERT_EQ(p->sheaf, packet_common_sheaf);
    const packet_stats_t before = packet_stats;
    EXPECT_EQ(packet_clone(p), nullptr) << "no clone pool";
    expect_counted(before, {.get_requests = 1, .get_failures = 1, .clone_requests = 1, .clone_failures = 1});
    packet_return(p);
}

TEST_F(PacketStart, BackgroundModuleAndItsTimers) {
    const std::string error_timer = "timer(module, packet error check, 0, 10s+0us, 10s+0us, 0, func, null)";
    const std::string sheaf_timer = "timer(module, Sheaf Periodic, 0, 5s+0us, 5s+0us, 0, func, null)";
    module_calls().clear();
    packet_task_start();
    EXPECT_EQ(module_calls(), (std::vector<std::string>{"alloc(SHEAF Backgroud, 0, null)", "create(module)",
                                                         error_timer, sheaf_timer}));
    EXPECT_NE(recorded_timer("packet error check"), recorded_timer("Sheaf Periodic"));

    // A module that cannot start is quit with 22; the timers still follow.
    module_calls().clear();
    module_create_result(0);
    packet_task_start();
    module_create_result(1);
    EXPECT_EQ(module_calls(), (std::vector<std::string>{"alloc(SHEAF Backgroud, 0, null)", "create(module)",
                                                         "quit(22)", error_timer, sheaf_timer}));
}

__attribute__((noinline)) void return_here(packet_t* packet) {
    packet_return(packet);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail jump
}

LogRecord error_line(const char* what, u_int32_t count, u_int32_t pc) {
    return {3, fmt("Packet error %10u %s last error caller pc 0x%x\n", count, what, pc)};
}

TEST_F(PacketStart, ErrorCheckReportsEachChangedCounterOnce) {
    packet_task_start();
    zrmodule_timer_func check = recorded_timer("packet error check");
    ASSERT_NE(check, nullptr);
    check(nullptr, 10000);
    syslog_clear();

    // The misfit pool hands out header-only packets by sheaf.
    packet_t* header = packet_get_from_sheaf(packet_misfit_sheaf);
    ASSERT_EQ(header->buffer, nullptr);
    const u_int32_t nulls = packet_stats.error_null_buffer;
    return_here(header);
    const u_int32_t pc = packet_stats.caller_pc_error_null_buffer;
    const auto here = static_cast<u_int32_t>(reinterpret_cast<uintptr_t>(&return_here));
    EXPECT_TRUE(pc > here && pc < here + 256) << "the return address inside return_here";
    check(nullptr, 10000);
    EXPECT_EQ(syslog_records(), std::vector<LogRecord>{error_line("null buffers", nulls + 1, pc)});
    syslog_clear();
    check(nullptr, 10000);
    EXPECT_TRUE(syslog_records().empty());
    give_back(header);

    // Order of the report, and a counter that went down is reported too.
    packet_stats_t& s = packet_stats;
    std::tie(s.error_invalid, s.caller_pc_error_invalid, s.error_buffer_refcount, s.caller_pc_error_buffer_refcount,
             s.error_header_refcount, s.caller_pc_error_header_refcount) = std::tuple(7, 0x9abc, 6, 0x5678, 5, 0x1234);
    check(nullptr, 10000);
    EXPECT_EQ(syslog_records(),
              (std::vector<LogRecord>{error_line("bad header refcounts", 5, 0x1234),
                                      error_line("bad buffer refcounts", 6, 0x5678),
                                      error_line("invalid headers", 7, 0x9abc)}));
    syslog_clear();
    s.error_header_refcount = 2;
    check(nullptr, 10000);
    EXPECT_EQ(syslog_records(), std::vector<LogRecord>{error_line("bad header refcounts", 2, 0x1234)});
}

TEST(PacketStartDeathTest, TaskBeforeInitialisationStops) {
    EXPECT_DEATH(packet_task_start(),
                 "packet/packet_init:[0-9]+: packet_task_start: Assertion `sheaf_init_done == 1' failed");
}

}  // namespace
