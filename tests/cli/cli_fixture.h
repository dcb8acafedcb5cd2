// Command lines run through the host parser on libcorvex_vty_tree, against
// heaps and packet pools made once for the whole test binary.
#pragma once

#include <string>
#include <vector>

#include "../heap/heap_fixture.h"
#include "cli_capture.h"
#include "cli_session.h"
#include "packet_var.h"

namespace cli_test {

using heap_test::fmt;
using heap_test::hdr;
using heap_test::make_heap;

// Heap IDs 0, 1 and 2 in that order; the packet pools take buffers from "buffers".
struct World {
    heap_t* heap = make_heap(262144, "cli");
    heap_t* tiny = make_heap(64, "tiny");
    heap_t* buffers = make_heap(262144, "buffers");
    World() {
        static const packet_sheaf_block_t table[] = {{const_cast<char*>("512"), 512, 0, 8, 3, nullptr},
                                                     {const_cast<char*>("clone"), 0, 0, 8, 2, nullptr},
                                                     {const_cast<char*>("128"), 128, 0, 8, 3, nullptr},
                                                     {nullptr, 0, 0, 0, 0, nullptr}};
        packet_pool_init(nullptr, table, buffers);
    }
};

inline World& world() {
    static World* instance = new World;
    return *instance;
}

class Cli : public testing::Test {
protected:
    Cli() : world_(world()), session_(cli_session_create(&libcorvex_vty_tree)) {}
    ~Cli() override { cli_session_destroy(session_); }

    // What line printed; its status is expected to be `status`.
    std::string run(const std::string& line, cli_status status = CLI_OK) {
        corvex_test::CliCapture capture;
        EXPECT_EQ(cli_session_execute(session_, line.c_str()), status) << line;
        return capture.text();
    }

    struct Line {
        std::string text;
        std::string output;
        cli_status status = CLI_OK;
    };
    void expect_lines(const std::vector<Line>& lines) {
        for (const Line& line : lines) EXPECT_EQ(run(line.text, line.status), line.output) << line.text;
    }

    World& world_;
    parser_config* session_;
};

}  // namespace cli_test
