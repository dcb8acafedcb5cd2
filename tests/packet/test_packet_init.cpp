// Packet module start-up: pools from a table with vectors of its own, the
// background module and its two timers, and the periodic error report.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace packet_test;
using corvex_test::LogRecord;

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
        packet_pool_init(&user_vector, kTable, make_buffer_heap(1 << 20));
    }
};

TEST_F(PacketStart, TableRowsUntilARefusedOneAndPoolsOfTheUserVector) {
    sheaf_t* custom = packet_common_sheaf;
    ASSERT_NE(custom, nullptr);
    EXPECT_STREQ(custom->name, "custom");
    ASSERT_NE(custom->next, nullptr);
    sheaf_t* odd = custom->next;
    EXPECT_STREQ(odd->name, "odd");
    ASSERT_NE(odd->next, nullptr);
    sheaf_t* big = odd->next;
    EXPECT_STREQ(big->name, "big");
    EXPECT_EQ(big->next, nullptr) << "rows after the refused one are ignored";
    EXPECT_EQ(big->id, 1u);
    EXPECT_EQ(odd->id, 2u);
    EXPECT_EQ(custom->id, 3u);
    EXPECT_EQ(custom->vector, &row_vector);
    EXPECT_EQ(odd->vector->alloc, packet_alloc) << "a vector without alloc is replaced";
    EXPECT_EQ(big->vector->alloc, packet_alloc) << "a row without vector ignores the user vector";
    EXPECT_EQ(custom->total, 1u);
    EXPECT_EQ(user_allocs, 1);
    ASSERT_NE(packet_misfit_sheaf, nullptr);
    EXPECT_EQ(packet_misfit_sheaf->id, 4u);
    EXPECT_EQ(packet_misfit_sheaf->vector, &user_vector);
    EXPECT_EQ(packet_clone_sheaf, nullptr);

    packet_t* p = packet_get(150);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->sheaf, custom);
    const packet_stats_t before = packet_stats;
    EXPECT_EQ(packet_clone(p), nullptr) << "no clone pool";
    EXPECT_EQ(packet_stats.clone_failures - before.clone_failures, 1u);
    EXPECT_EQ(packet_stats.get_failures - before.get_failures, 1u);
    packet_return(p);
}

TEST_F(PacketStart, BackgroundModuleAndItsTimers) {
    module_calls().clear();
    packet_task_start();
    const std::vector<ModuleCall>& calls = module_calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].what, "alloc");
    EXPECT_EQ(calls[0].name, "SHEAF Backgroud");
    EXPECT_EQ(calls[0].number, 0);
    EXPECT_TRUE(calls[0].null_pointer);
    EXPECT_EQ(calls[1].what, "create");
    EXPECT_EQ(calls[1].module, calls[0].module);
    struct Expected {
        const char* name;
        long sec;
    } timers[] = {{"packet error check", 10}, {"Sheaf Periodic", 5}};
    for (int i = 0; i < 2; ++i) {
        const ModuleCall& timer = calls[2 + i];
        EXPECT_EQ(timer.what, "timer");
        EXPECT_EQ(timer.name, timers[i].name);
        EXPECT_EQ(timer.module, calls[0].module);
        EXPECT_EQ(timer.sec, timers[i].sec);
        EXPECT_EQ(timer.usec, 0);
        EXPECT_TRUE(timer.same_time_pointers);
        EXPECT_EQ(timer.number, 0);
        EXPECT_TRUE(timer.null_pointer);
        EXPECT_NE(timer.func, nullptr);
    }
    EXPECT_NE(calls[2].func, calls[3].func);

    // A module that cannot start is quit with 22; the timers still follow.
    module_calls().clear();
    module_create_result(0);
    packet_task_start();
    module_create_result(1);
    ASSERT_EQ(module_calls().size(), 5u);
    EXPECT_EQ(module_calls()[2].what, "quit");
    EXPECT_EQ(module_calls()[2].number, 22);
    EXPECT_EQ(module_calls()[3].name, "packet error check");
    EXPECT_EQ(module_calls()[4].name, "Sheaf Periodic");
}

__attribute__((noinline)) void return_here(packet_t* packet) {
    packet_return(packet);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail jump
}

std::string error_line(const char* what, u_int32_t count, u_int32_t pc) {
    char line[128];
    std::snprintf(line, sizeof line, "Packet error %10u %s last error caller pc 0x%x\n", count, what, pc);
    return line;
}

TEST_F(PacketStart, ErrorCheckReportsEachChangedCounterOnce) {
    module_calls().clear();
    packet_task_start();
    zrmodule_timer_func check = recorded_timer("packet error check");
    ASSERT_NE(check, nullptr);
    check(nullptr, 10000);
    corvex_test::syslog_clear();

    // The misfit pool hands out header-only packets by sheaf.
    packet_t* header = packet_get_from_sheaf(packet_misfit_sheaf);
    ASSERT_NE(header, nullptr);
    ASSERT_EQ(header->buffer, nullptr);
    const u_int32_t nulls = packet_stats.error_null_buffer;
    return_here(header);
    const u_int32_t pc = packet_stats.caller_pc_error_null_buffer;
    const auto here = static_cast<u_int32_t>(reinterpret_cast<uintptr_t>(&return_here));
    EXPECT_GT(pc, here);
    EXPECT_LT(pc, here + 256);
    check(nullptr, 10000);
    EXPECT_EQ(corvex_test::syslog_records(),
              (std::vector<LogRecord>{{3, error_line("null buffers", nulls + 1, pc)}}));
    EXPECT_EQ(saved_pkt_stats.error_null_buffer, nulls + 1);
    corvex_test::syslog_clear();
    check(nullptr, 10000);
    EXPECT_TRUE(corvex_test::syslog_records().empty());
    under_packet_lock([&] { sheaf_free(packet_misfit_sheaf, header); });

    // Order of the report, and a counter that went down is reported too.
    packet_stats.error_invalid = 7;
    packet_stats.caller_pc_error_invalid = 0x9abc;
    packet_stats.error_buffer_refcount = 6;
    packet_stats.caller_pc_error_buffer_refcount = 0x5678;
    packet_stats.error_header_refcount = 5;
    packet_stats.caller_pc_error_header_refcount = 0x1234;
    check(nullptr, 10000);
    EXPECT_EQ(corvex_test::syslog_records(),
              (std::vector<LogRecord>{{3, error_line("bad header refcounts", 5, 0x1234)},
                                      {3, error_line("bad buffer refcounts", 6, 0x5678)},
                                      {3, error_line("invalid headers", 7, 0x9abc)}}));
    EXPECT_EQ(saved_pkt_stats.caller_pc_error_header_refcount, 0u) << "addresses are not saved";
    corvex_test::syslog_clear();
    packet_stats.error_header_refcount = 2;
    check(nullptr, 10000);
    EXPECT_EQ(corvex_test::syslog_records(),
              (std::vector<LogRecord>{{3, error_line("bad header refcounts", 2, 0x1234)}}));
    EXPECT_EQ(packet_glb_lock_filname, std::string("packet/packet"));
}

TEST(PacketStartDeathTest, TaskBeforeInitialisationStops) {
    EXPECT_DEATH(packet_task_start(),
                 "packet/packet_init:[0-9]+: packet_task_start: Assertion `sheaf_init_done == 1' failed");
}

}  // namespace
