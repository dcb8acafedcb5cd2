// The packet commands run as command lines: the sheaf table, the counters,
// dumps of live, unknown and destroyed packets, and the idle packets of a
// sheaf.
#include <vector>

#include "cli_fixture.h"
#include "hexdump.h"

using namespace cli_test;

namespace {

std::string sheaf_row(const sheaf_t* s) {
    return fmt("%3u  %4u(%4u, %4u)  %4u(%4u, %4u)  %4u/%4u/%4u %s\n", s->id, s->total, s->init, s->high_thresh, s->free,
               s->min, s->max, s->nalloc, s->nfree, s->nempty, s->name);
}

// The header part of a dump; with its sheaf line when `sheaf`.
std::string header_of(const packet_t* p, bool sheaf) {
    return fmt("\nHeader information for %p:\n", static_cast<const void*>(p)) +
           (sheaf ? fmt("\n  sheaf %s, id %u, maximum size %zu (64 + %zu)", p->sheaf->name, p->sheaf->id,
                        p->sheaf->size + 64, p->sheaf->size)
                  : "") +
           fmt("\n  buffer %p, buffer_start %p\n  frame_start %p, layer3_start %p, layer4_start %p\n  length %d, "
               "refcount %d, packet %p\n",
               static_cast<void*>(p->buffer), static_cast<void*>(p->buffer_start), static_cast<void*>(p->frame_start),
               static_cast<void*>(p->layer3_start), static_cast<void*>(p->layer4_start), p->length,
               p->buffer->refcount, static_cast<void*>(p->buffer->packet));
}

std::string statistics() {
    const packet_stats_t& s = packet_stats;
    return fmt("Packet Statistics:\n %10u get requests\n %10u get successes\n %10u get failures\n %10u returns\n"
               " %10u active\n %10u clone requests\n %10u clone successes\n %10u clone returns\n"
               " %10u clone failures\n",
               s.get_requests, s.get_successes, s.get_failures, s.returns, s.get_successes - s.returns,
               s.clone_requests, s.clone_successes, s.clone_returns, s.clone_failures) +
           fmt(" %10u copy requests\n %10u copy successes\n %10u copy failures\n %10u coalesce requests\n"
               " %10u coalesce successes\n %10u coalesce failures\n\nPacket Errors:\n %10u bad header refcounts\n"
               " %10u bad buffer refcounts\n %10u invalid headers\n %10u null buffers\n",
               s.copy_requests, s.copy_successes, s.copy_failures, s.coalesce_requests, s.coalesce_successes,
               s.coalesce_failures, s.error_header_refcount, s.error_buffer_refcount, s.error_invalid,
               s.error_null_buffer);
}

}  // namespace

using PacketCommands = Cli;

TEST_F(PacketCommands, TableCountersDumpsAndSheaves) {
    sheaf_t* small = packet_common_sheaf;  // 128 bytes: the table lists it first
    sheaf_t* medium = small->next;
    ASSERT_EQ(packet_stats.get_successes, 0u);
    std::vector<packet_t*> held;
    for (int i = 0; i < 10; ++i) held.push_back(packet_get(100));
    for (int i = 0; i < 4; ++i) packet_return(held[i]);
    EXPECT_NE(run("show packet statistics").find("\n          6 active\n"), std::string::npos);
    packet_t* p = held.back();
    memset(p->buffer_start, 'A', 192);
    packet_t* clone = packet_clone(p);
    packet_t* misfit = packet_get(2000);
    packet_return(misfit);  // the misfit pool keeps nothing: its header is destroyed
    std::string data;
    {
        corvex_test::CliCapture capture;
        hex_dump("  ", p->buffer_start, 192);  // headroom and the 128-byte frame room
        data = capture.text();
    }
    std::string resting;
    for (packet_t* q = medium->packets; q != nullptr; q = q->sheaf_next) resting += header_of(q, false);
    ASSERT_EQ(medium->free, 3u);
    expect_lines({
        {"show packet", "Packet Sheaves:\n\n ID Total(Init, High)  Free( Min,  Max)  Nall/Nfre/Nemp Name\n" +
                            sheaf_row(small) + sheaf_row(medium) + sheaf_row(packet_misfit_sheaf) +
                            sheaf_row(packet_clone_sheaf)},
        {"show packet statistics", statistics()},
        {fmt("show packet dump %p", static_cast<void*>(p)),
         header_of(p, true) + fmt("\nBuffer data for %p:\n\n", static_cast<void*>(p)) + data + "\n"},
        {fmt("show packet dump %p", static_cast<void*>(misfit)), fmt("%p is not a valid packet\n", misfit)},
        {"show packet dump 0x10", "0x10 is not a valid packet\n"},
        {"sho pa sh 1", resting},
        {"show packet sheaf 99", "No packet sheaf with ID 99 found.\n"},
    });
    packet_return(clone);
    for (size_t i = 4; i < held.size(); ++i) packet_return(held[i]);
}
