// The heap commands that change a heap (set and debug), the messages for a
// heap that does not exist, and the sanity walk that stops the process on
// corruption. What the displays print is held by the golden outputs.
#include <cstring>
#include <functional>
#include <string>

#include "cli_capture.h"
#include "cli_session.h"
#include "heap.h"
#include "syslog_capture.h"
#include "test_heaps.h"

namespace {

class HeapCommands : public testing::Test {
protected:
    HeapCommands() : session_(cli_session_create(&libcorvex_vty_tree)) {}
    ~HeapCommands() override { cli_session_destroy(session_); }

    std::string run(const std::string& line) {
        corvex_test::CliCapture capture;
        EXPECT_EQ(cli_session_execute(session_, line.c_str()), CLI_OK) << line;
        return capture.text();
    }
    // The only heap of this program; heap ID 7 never exists.
    static heap_t* heap() {
        static heap_t* made = corvex_test::make_heap(4096, "set");
        return made;
    }

    parser_config* session_;
};

TEST_F(HeapCommands, SetAndDebugChangeOnlyWhatTheyNameOthersSayWhy) {
    heap_t* h = heap();
    const std::string id = std::to_string(h->id);
    const struct {
        std::string line;
        const char* output;
        std::function<void(heap_t&)> change;
    } steps[] = {
        {"set heap " + id + " debug enable", "", [](heap_t& x) { x.debug_enabled = TRUE; }},
        {"set heap " + id + " debug disable", "", [](heap_t& x) { x.debug_enabled = FALSE; }},
        {"debug heap " + id, "", [](heap_t& x) { x.debug = TRUE; }},
        {"undebug heap " + id, "", [](heap_t& x) { x.debug = FALSE; }},
        {"set heap " + id + " low-watermark 5000", "", [](heap_t& x) { x.low_watermark_bytes = 5000; }},
        {"set heap " + id + " low-memory_recovery 25 50", "Usage Error: High mem > Low mem, e.g. 50 25\n", {}},
        {"set heap " + id + " low-memory_recovery 50 25", "", {}},
        {"set heap " + id + " low-memory_recovery 30 30", "", {}},
        {"show heap 7 accounting pc", "Failed to find a heap with ID 7\n", {}},
        {"show heap 7 blocks alloc", "Failed to find a heap with ID 7\n", {}},
        {"debug heap 7", "Couldn't find heap ID 7\n", {}},
        {"undebug heap 7", "Couldn't find heap ID 7\n", {}},
        {"set heap 7 debug enable", "No heap with ID 7 found\n", {}},
        {"set heap 7 low-watermark 1", "No heap with ID 7 found\n", {}},
    };
    for (const auto& step : steps) {
        heap_t expected;
        std::memcpy(&expected, h, sizeof expected);
        if (step.change) step.change(expected);
        EXPECT_EQ(run(step.line), step.output) << step.line;
        EXPECT_EQ(std::memcmp(&expected, h, sizeof expected), 0) << step.line << ": the heap record changed otherwise";
    }
    parser_result values{};  // a selector no command line has
    values.item_count = 1;
    values.item[0].data.unsigned_number = h->id;
    corvex_test::CliCapture capture;
    heap_set_command(session_, &values, 99);
    EXPECT_EQ(capture.text(), "Unknown magic number (99)\n");
}

TEST_F(HeapCommands, SanityActivePanicsOnACorruptedHeap) {
    EXPECT_LOGGED_DEATH(
        {
            void* p = heap_malloc(heap(), 64);
            reinterpret_cast<heap_block_t*>(static_cast<char*>(p) - sizeof(heap_block_t))->magic = 0;
            cli_session_security_level_set(session_, 10);
            run("show heap " + std::to_string(heap()->id) + " sanity active");
        },
        "Memory corruption in block");
}

}  // namespace
