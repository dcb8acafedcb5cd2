// The live loop's pause handshake, with a loop that sleeps in poll on the
// control's descriptor between batches as corvex-pe's does: a request
// wakes it, what the pausing thread reads and changes while the loop rests
// is ordered with the loop's batches (plain variables: the thread
// sanitizer sees any race), the outer pause of a nested pair holds the
// loop, and once the loop has ended a pause no longer waits.
#include <poll.h>

#include <cstdint>
#include <thread>

#include <gtest/gtest.h>

#include "pe_control.h"

namespace {

TEST(PeControl, PausesHoldTheLoopAtABatchBoundaryAndTheEndStopsIt) {
    pe_control_t* control = pe_control_create();
    ASSERT_NE(control, nullptr);
    uint64_t batches = 0, set_by_console = 0, seen_by_loop = 0;
    int timeouts = 0;
    std::thread loop([&] {
        for (;;) {
            ++batches;
            seen_by_loop = set_by_console;
            pollfd fd{pe_control_fd(control), POLLIN, 0};
            if (poll(&fd, 1, 10000) == 0) ++timeouts;  // asleep, as an idle loop is, until a request
            if (pe_control_asked(control) && pe_control_serve(control)) break;
        }
        pe_control_finish(control);
    });
    for (uint64_t round = 1; round <= 100; ++round) {
        pe_control_pause(control);
        pe_control_pause(control);
        const uint64_t resting_at = batches;
        set_by_console = round;
        pe_control_resume(control);  // the inner pair: the loop still rests
        EXPECT_EQ(batches, resting_at);
        EXPECT_LT(seen_by_loop, round);
        pe_control_resume(control);
    }
    pe_control_end_traffic(control);
    loop.join();
    EXPECT_EQ(timeouts, 0) << "a request did not wake the loop";
    pe_control_pause(control);  // returns: nothing left to hold
    pe_control_resume(control);
    pe_control_destroy(control);
}

}  // namespace
