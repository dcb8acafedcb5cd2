// Base services: allocation wrappers, panic, traceback and processor hooks.
#include <algorithm>

#include <gtest/gtest.h>

#include "heap.h"
#include "interrupt.h"
#include "kdebug.h"
#include "syslog_capture.h"

namespace {

TEST(BaseServices, ZeroingWrappersTracebackAndProcessorHooks) {
    void* dirty = malloc(4096);  // dirty the allocator's free memory so a non-zeroing path would show
    memset(dirty, 0xA5, 4096);
    free(dirty);
    for (auto* alloc : {kzalloc, zalloc, sn_zalloc}) {
        auto* p = static_cast<char*>(alloc(4096));
        EXPECT_EQ(std::count(p, p + 4096, 0), 4096);
        sn_free(p);
    }
    corvex_test::syslog_clear();
    traceback("Freeing an already freed block!");
    do_traceback("bad block", nullptr);
    EXPECT_EQ(corvex_test::syslog_texts(3),
              (std::vector<std::string>{"traceback: Freeing an already freed block!\n", "do_traceback: bad block\n"}));
    void* frames[1] = {frames};
    EXPECT_EQ(std::tuple(get_backtrace(frames, 1), interrupt_raise_priority(7), cpu_disable_interrupts()),
              std::tuple(0, 0, 1));
    EXPECT_EQ(frames[0], static_cast<void*>(frames)) << "no frames written";
}

TEST(BaseServicesDeathTest, PanicLogsFourRecordsAtPriorityZeroThenAborts) {
    const std::string rule = "<0>--------------------------------------\n";
    EXPECT_LOGGED_DEATH(panic("Heap corruption at 0x%x\n", 0x1234),
                        rule + "<0>PANIC PANIC PANIC PANIC PANIC PANIC\n<0>Heap corruption at 0x1234\n" + rule);
    EXPECT_LOGGED_DEATH(panic("sheaf_alloc_default()"), "<0>sheaf_alloc_default\\(\\)<0>-----") << "logged unchanged";
}

}  // namespace
