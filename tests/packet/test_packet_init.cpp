// Packet module start-up: pools from a table with vectors of its own, the
// background module and its two timers, and the periodic error report.
#include <gtest/gtest.h>

#include "packet_pools.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

packet_t* user_alloc(sheaf_t* sheaf, packet_length_t length) { return packet_alloc(sheaf, length); }
sheaf_vector_t user_vector = {user_alloc, packet_free}, row_vector = {user_alloc, packet_free};
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
    static void SetUpTestSuite() { packet_module_init(), packet_pool_init(&user_vector, kTable, make_heap(1 << 20)); }
};

TEST_F(PacketStart, TableRowsUntilARefusedOneAndTheBackgroundModuleWithItsTimers) {
    // Rows without a usable vector of their own ignore the user vector; the misfit pool takes it.
    std::vector<std::tuple<std::string, u_int32_t, sheaf_vector_alloc_t>> chain;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next)
        chain.emplace_back(s->name, s->id, s->vector->alloc);
    EXPECT_EQ(chain, (decltype(chain){{"custom", 3, user_alloc}, {"odd", 2, packet_alloc}, {"big", 1, packet_alloc}}));
    EXPECT_EQ(std::tuple(packet_common_sheaf->vector, packet_misfit_sheaf->id, packet_misfit_sheaf->vector,
                         packet_clone_sheaf),
              std::tuple(&row_vector, 4u, &user_vector, nullptr));
    const std::string timers[] = {"timer(module, packet error check, 0, 10s+0us, 10s+0us, 0, func, null)",
                                  "timer(module, Sheaf Periodic, 0, 5s+0us, 5s+0us, 0, func, null)"};
    module_calls().clear();
    module_create_result(0);  // a module that cannot start is quit with 22; the timers still follow
    packet_task_start();
    module_create_result(1);
    EXPECT_EQ(module_calls(), (std::vector<std::string>{"alloc(SHEAF Backgroud, 0, null)", "create(module)", "quit(22)",
                                                         timers[0], timers[1]}));
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
    check(nullptr, 10000);
    syslog_clear();
    packet_t* header = packet_get_from_sheaf(packet_misfit_sheaf);  // header-only: its return is an error
    const u_int32_t nulls = packet_stats.error_null_buffer;
    return_here(header);
    const u_int32_t pc = packet_stats.caller_pc_error_null_buffer;
    EXPECT_LT(pc - static_cast<u_int32_t>(reinterpret_cast<uintptr_t>(&return_here)), 256u) << "inside return_here";
    check(nullptr, 10000);
    check(nullptr, 10000);
    EXPECT_EQ(syslog_records(), std::vector<LogRecord>{error_line("null buffers", nulls + 1, pc)});
    give_back(header);
    syslog_clear();
    packet_stats_t& s = packet_stats;  // the order of the report; a counter that went down is reported too
    std::tie(s.error_invalid, s.caller_pc_error_invalid, s.error_header_refcount, s.caller_pc_error_header_refcount,
             s.error_null_buffer) = std::tuple(7, 0x9abc, 5, 0x1234, 0);
    check(nullptr, 10000);
    EXPECT_EQ(syslog_records(),
              (std::vector<LogRecord>{error_line("bad header refcounts", 5, 0x1234),
                                      error_line("invalid headers", 7, 0x9abc), error_line("null buffers", 0, pc)}));
}

TEST(PacketStartDeathTest, TaskBeforeInitialisationStops) {
    EXPECT_DEATH(packet_task_start(),
                 "packet/packet_init:[0-9]+: packet_task_start: Assertion `sheaf_init_done == 1' failed");
}

}  // namespace
