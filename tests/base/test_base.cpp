// Base services: allocation wrappers, panic, traceback and processor hooks.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "heap.h"
#include "interrupt.h"
#include "kdebug.h"
#include "syslog_capture.h"

using corvex_test::LogRecord;
using corvex_test::syslog_clear;
using corvex_test::syslog_records;

namespace {

bool all_zero(const void* p, size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

TEST(AllocationWrappers, ZeroingFormsReturnZeroedMemory) {
    // Dirty the allocator's free memory first so a non-zeroing path would show.
    void* dirty = malloc(4096);
    memset(dirty, 0xA5, 4096);
    free(dirty);
    for (auto* alloc : {kzalloc, zalloc, sn_zalloc}) {
        auto* p = alloc(4096);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(all_zero(p, 4096));
        sn_free(p);
    }
    for (auto* alloc : {kmalloc, sn_malloc}) {
        auto* p = static_cast<unsigned char*>(alloc(64));
        ASSERT_NE(p, nullptr);
        p[63] = 1;  // the whole size is usable (AddressSanitizer checks)
        free(p);
    }
    sn_free(nullptr);
}

TEST(AllocationWrappers, ZeroBytesArePassedToLibc) {
    // glibc answers a unique pointer for 0 bytes; the wrappers pass it on.
    void* a = kmalloc(0);
    void* b = kzalloc(0);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(a, b);
    free(a);
    free(b);
}

TEST(AllocationWrappers, FailureIsANullResult) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(kmalloc(SIZE_MAX - 16), nullptr);
    EXPECT_EQ(kzalloc(SIZE_MAX - 16), nullptr);
    EXPECT_EQ(zalloc(SIZE_MAX - 16), nullptr);
    EXPECT_TRUE(syslog_records().empty());
#else
    GTEST_SKIP() << "sanitizer allocators report impossible sizes instead of failing";
#endif
}

TEST(TracebackHooks, LogOrDoNothing) {
    syslog_clear();
    traceback("Freeing an already freed block!");
    do_traceback("bad block", reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{3, "traceback: Freeing an already freed block!\n"},
                                                        {3, "do_traceback: bad block\n"}}));
    char trace[8] = "keep";
    get_traceback(trace);
    cpu_get_traceback(trace, sizeof trace, 4);
    EXPECT_STREQ(trace, "keep");
    void* frames[2] = {trace, trace};
    EXPECT_EQ(get_backtrace(frames, 0), 0);
    EXPECT_EQ(get_backtrace(frames, 2), 0);
    EXPECT_EQ(frames[0], trace);
    EXPECT_EQ(frames[1], trace);
}

TEST(ProcessorHooks, FixedAnswers) {
    EXPECT_EQ(isr_nested_count, 0u);
    EXPECT_EQ(platform_all_disable, 0);
    EXPECT_EQ(platform_nets_disable, 0);
    for (level_t level : {0, 1, 7, 255}) EXPECT_EQ(interrupt_raise_priority(level), 0);
    interrupt_restore_priority(5);
    EXPECT_EQ(cpu_disable_interrupts(), 1);
    cpu_restore_interrupts(0);
    int range[4] = {1, 2, 3, 4};
    cpu_dcache_flush_range(range, range + 4);
    cpu_dcache_invalidate_range(range, range + 4);
    cpu_intr_lock_create();
    EXPECT_EQ(range[3], 4);
}

TEST(PanicDeathTest, FourRecordsAtPriorityZeroThenAbort) {
    const char* rule = "<0>--------------------------------------\n";
    const std::string expected = std::string(rule) + "<0>PANIC PANIC PANIC PANIC PANIC PANIC\n" +
                                 "<0>Heap corruption at 0x1234\n" + rule;
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            panic("Heap corruption at 0x%x\n", 0x1234);
        },
        testing::KilledBySignal(SIGABRT), testing::HasSubstr(expected));
    // A message without a newline is logged unchanged, as one record.
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            panic("sheaf_alloc_default()");
        },
        testing::KilledBySignal(SIGABRT), testing::HasSubstr("<0>sheaf_alloc_default()<0>-----"));
}

}  // namespace
