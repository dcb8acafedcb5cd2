// Sheaves over a vector with a budget: creation, take and give-back, reserve
// refill, the background tick (grow, shrink, leak check), destruction.
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

// Header-only packets from the process allocator; `budget` packets can be
// made before the vector reports that it has nothing. A sheaf's `total`
// moves only when the vector made or destroyed a packet.
int budget = 1 << 30;

packet_t* budget_alloc(sheaf_t* sheaf, packet_length_t) {
    if (budget-- <= 0) return nullptr;
    auto* packet = static_cast<packet_t*>(std::calloc(1, sizeof(packet_t)));
    std::tie(packet->magic, packet->sheaf) = std::tuple(PACKET_MAGIC, sheaf);
    return packet;
}

boolean plain_free(sheaf_t*, packet_t* packet) { return std::free(packet), TRUE; }

sheaf_vector_t budget_vector = {budget_alloc, plain_free};

sheaf_t* make(const char* name, u_int32_t min, u_int32_t max, u_int32_t init) {
    return sheaf_create(name, 0, min, max, init, &budget_vector, nullptr);
}

// The background tick, as the module library would run it.
void tick() {
    static zrmodule_timer_func periodic = [] { return sheaf_spawn_perodic_task(), recorded_timer("Sheaf Periodic"); }();
    periodic(nullptr, 5000);
}

// Takes n packets without the reserve refill, then gives them all back.
void cycle(sheaf_t* sheaf, int n) {
    under_packet_lock([&] {
        std::vector<packet_t*> out;
        for (int i = 0; i < n; ++i) out.push_back(sheaf_alloc_inline(sheaf, 0, TRUE));
        for (packet_t* p : out) sheaf_free(sheaf, p);
    });
}

TEST(Sheaf, CreationTakeAndGiveBack) {
    sheaf_t* pool = make("pool", 0, 20, 50);  // init is capped by max
    EXPECT_EQ(std::tuple(pool->init, pool->total, pool->free, pool->nalloc), std::tuple(20u, 20u, 20u, 20u));
    EXPECT_EQ(std::tuple(make("equal", 4, 4, 0), make("below", 4, 2, 0)), std::tuple(nullptr, nullptr))
        << "a reserve the free list cannot hold";
    sheaf_t* reserve = make("reserve", 4, 8, 2);
    EXPECT_EQ(reserve->id, pool->id + 1) << "a refused sheaf takes no id";
    budget = 2;
    sheaf_t* scarce = make("scarce", 0, 8, 5);
    EXPECT_EQ(std::tuple(scarce->total, scarce->nalloc, scarce->nempty), std::tuple(2u, 3u, 1u));
    budget = 1 << 30;
    under_packet_lock([&] {
        // A take refills the reserve to min + 1 first; the free list is last in, first out.
        packet_t* p = sheaf_malloc(reserve, 0);
        EXPECT_EQ(std::tuple(reserve->free, reserve->total, p->sheaf_next), std::tuple(4u, 5u, nullptr));
        sheaf_free(reserve, p);
        EXPECT_EQ(std::tuple(reserve->free, reserve->packets), std::tuple(5u, p));
        sheaf_t* passthrough = make("passthrough", 0, 0, 5);  // max 0 keeps nothing: every give-back destroys
        sheaf_free(passthrough, sheaf_malloc(passthrough, 0));
        EXPECT_EQ(std::tuple(passthrough->nfree, passthrough->total, passthrough->free), std::tuple(1u, 0u, 0u));
        EXPECT_TRUE(sheaf_destroy(passthrough));
        EXPECT_EQ(sheaf_malloc(nullptr, 0), nullptr);
    });
}

TEST(Sheaf, TickGrowsToTheReserveShrinksToMaxAndReportsLeaksEveryTwelfthTime) {
    sheaf_t* sheaf = make("tuned", 3, 6, 0);
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total), std::tuple(3u, 3u));
    cycle(sheaf, 6);
    sheaf->max = 2;
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total, sheaf->nfree), std::tuple(2u, 2u, 4u));
    // Max lowered below the reserve: no packet is made only to be destroyed.
    const u_int32_t nalloc = sheaf->nalloc;
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->nalloc), std::tuple(2u, nalloc));
    sheaf->max = 6;

    sheaf_t* leaky = make(nullptr, 0, 2, 0);
    sheaf_t* borderline = make("borderline", 0, 2, 0);
    std::vector<packet_t*> out;
    under_packet_lock([&] {
        for (int i = 0; i < 21; ++i) out.push_back(sheaf_alloc_inline(leaky, 0, FALSE));
        for (int i = 0; i < 20; ++i) out.push_back(sheaf_alloc_inline(borderline, 0, FALSE));
    });
    syslog_clear();
    for (int i = 0; i < 12; ++i) tick();
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{3, fmt("SHEAF: possible leak, ID %u (<none>) (21/0/2)\n", leaky->id)}}));
    under_packet_lock([&] {
        leaky->max = borderline->max = 0;
        for (packet_t* p : out) sheaf_free(p->sheaf, p);
    });
}

TEST(SheafDeathTest, SheafWithoutVectorMustNeverMakeOrDestroy) {
    EXPECT_LOGGED_DEATH(pthread_mutex_lock(&packet_glb_lock);
                        sheaf_malloc(sheaf_create("bare", 0, 0, 4, 0, nullptr, nullptr), 0), "<0>sheaf_alloc_default\\(\\)");
    packet_t packet{};
    EXPECT_LOGGED_DEATH(pthread_mutex_lock(&packet_glb_lock);
                        sheaf_free(sheaf_create("bare", 0, 0, 0, 0, nullptr, nullptr), &packet), "<0>sheaf_free_default\\(\\)");
}

}  // namespace
