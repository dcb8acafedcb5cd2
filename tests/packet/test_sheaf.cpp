// Sheaves over a vector with a budget: creation, take and give-back, reserve
// refill, the background tick (grow, shrink, leak check), destruction.
#include <csignal>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace packet_test;

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

boolean plain_free(sheaf_t*, packet_t* packet) {
    std::free(packet);
    return TRUE;
}

sheaf_vector_t budget_vector = {budget_alloc, plain_free};

class SheafTest : public ::testing::Test {
protected:
    void SetUp() override {
        budget = 1 << 30;
        corvex_test::syslog_clear();
    }
    void TearDown() override {
        for (sheaf_t* sheaf : sheaves_) under_packet_lock([&] { EXPECT_TRUE(sheaf_destroy(sheaf)); });
    }
    // A sheaf that the test's end destroys (all its packets back by then).
    sheaf_t* make(const char* name, u_int32_t min, u_int32_t max, u_int32_t init) {
        sheaf_t* sheaf = sheaf_create(name, 0, min, max, init, &budget_vector, nullptr);
        EXPECT_NE(sheaf, nullptr);
        if (sheaf != nullptr) sheaves_.push_back(sheaf);
        return sheaf;
    }
    std::vector<sheaf_t*> sheaves_;
};

// The background tick, as the module library would run it.
void tick() {
    static zrmodule_timer_func periodic = [] {
        sheaf_spawn_perodic_task();
        return recorded_timer("Sheaf Periodic");
    }();
    ASSERT_NE(periodic, nullptr);
    periodic(nullptr, 5000);
}

std::vector<packet_t*> resting(sheaf_t* sheaf) {
    std::vector<packet_t*> packets;
    for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next) packets.push_back(p);
    return packets;
}

TEST_F(SheafTest, CreationMakesInitPacketsUpToMax) {
    sheaf_t* sheaf = make("pool", 0, 20, 50);
    EXPECT_EQ(std::tuple(sheaf->init, sheaf->total, sheaf->free, sheaf->nalloc, sheaf->high_thresh, sheaf->nfree,
                         sheaf->flags),
              std::tuple(20u, 20u, 20u, 20u, 20u, 0u, 0u));
    EXPECT_EQ(std::tuple(resting(sheaf).size(), std::string(sheaf->name), sheaf->vector),
              std::tuple(20u, "pool", &budget_vector));
    EXPECT_EQ(packet_glb_lock_filname, std::string("packet/sheaf"));
    sheaf_t* next = make(nullptr, 0, 1, 0);
    EXPECT_EQ(std::tuple(next->id, next->total), std::tuple(sheaf->id + 1, 0u));

    // The vector running dry stops creation and takes.
    budget = 2;
    sheaf_t* scarce = make("scarce", 0, 8, 5);
    EXPECT_EQ(std::tuple(scarce->total, scarce->nalloc, scarce->nempty), std::tuple(2u, 3u, 1u));
    under_packet_lock([&] {
        packet_t* a = sheaf_malloc(scarce, 0);
        packet_t* b = sheaf_malloc(scarce, 0);
        EXPECT_NE(b, nullptr);
        EXPECT_EQ(sheaf_malloc(scarce, 0), nullptr);
        EXPECT_EQ(scarce->nempty, 2u);
        sheaf_free(scarce, a);
        sheaf_free(scarce, b);
    });
}

TEST_F(SheafTest, TakeAndGiveBack) {
    sheaf_t* passthrough = make("passthrough", 0, 0, 5);
    sheaf_t* reserve = make("reserve", 4, 8, 2);
    sheaf_t* lifo = make("lifo", 0, 4, 0);
    under_packet_lock([&] {
        // Max 0 keeps nothing: every give-back destroys.
        for (u_int32_t i = 1; i <= 3; ++i) {
            packet_t* p = sheaf_malloc(passthrough, 0);
            EXPECT_EQ(passthrough->total, 1u);
            sheaf_free(passthrough, p);
            EXPECT_EQ(std::tuple(passthrough->nfree, passthrough->total, passthrough->free, passthrough->init),
                      std::tuple(i, 0u, 0u, 0u));
        }

        // A take refills the reserve to min + 1 first.
        packet_t* p = sheaf_malloc(reserve, 0);
        EXPECT_EQ(std::tuple(reserve->free, reserve->total, p->sheaf_next), std::tuple(4u, 5u, nullptr));
        sheaf_free(reserve, p);
        EXPECT_EQ(reserve->free, 5u);

        // The free list is last in first out; a resting packet changes no counter.
        EXPECT_EQ(sheaf_packet_dequeue(lifo), nullptr);
        packet_t* a = sheaf_alloc_inline(lifo, 0, TRUE);
        packet_t* b = sheaf_alloc_inline(lifo, 0, TRUE);
        sheaf_packet_enqueue(lifo, a);
        sheaf_packet_enqueue(lifo, b);
        sheaf_packet_enqueue(lifo, nullptr);
        EXPECT_EQ(std::tuple(lifo->nalloc, lifo->free), std::tuple(2u, 2u)) << "an empty list makes fresh packets";
        EXPECT_EQ(sheaf_alloc_inline(lifo, 0, TRUE), b);
        EXPECT_EQ(std::tuple(lifo->nalloc, b->sheaf_next), std::tuple(2u, nullptr));
        EXPECT_EQ(sheaf_packet_dequeue(lifo), a);
        EXPECT_EQ(lifo->free, 0u);
        sheaf_free_inline(lifo, a);
        sheaf_free_inline(lifo, b);
        sheaf_free_inline(nullptr, a);
        EXPECT_EQ(sheaf_alloc_inline(nullptr, 0, TRUE), nullptr);
        EXPECT_EQ(sheaf_malloc(nullptr, 0), nullptr);
    });
}

TEST_F(SheafTest, AReserveTheFreeListCannotHoldIsRefusedOrBounded) {
    sheaf_t* before = make("before", 0, 1, 0);
    EXPECT_EQ(sheaf_create("equal", 0, 4, 4, 0, &budget_vector, nullptr), nullptr);
    EXPECT_EQ(sheaf_create("below", 0, 4, 2, 0, &budget_vector, nullptr), nullptr);
    sheaf_t* after = make("after", 4, 5, 0);
    EXPECT_EQ(after->id, before->id + 1) << "a refused sheaf takes no id";

    // Max lowered below the reserve later: no packet is made only to be destroyed.
    after->max = 3;
    under_packet_lock([&] {
        packet_t* p = sheaf_malloc(after, 0);
        EXPECT_EQ(std::tuple(after->nfree, after->free), std::tuple(0u, 2u));
        sheaf_free(after, p);
    });
    tick();
    EXPECT_EQ(std::tuple(after->nfree, after->free), std::tuple(0u, 3u));
    after->max = 5;
}

TEST_F(SheafTest, TickGrowsToTheReserveAndShrinksToMax) {
    sheaf_t* sheaf = make("tuned", 3, 6, 0);
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total), std::tuple(3u, 3u));
    under_packet_lock([&] {
        std::vector<packet_t*> out;  // taken without the reserve refill
        for (int i = 0; i < 6; ++i) out.push_back(sheaf_alloc_inline(sheaf, 0, TRUE));
        for (packet_t* p : out) sheaf_free(sheaf, p);
    });
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total), std::tuple(6u, 6u));
    sheaf->max = 2;
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total, sheaf->nfree, resting(sheaf).size()), std::tuple(2u, 2u, 4u, 2u));
    sheaf->max = 6;
}

TEST_F(SheafTest, LeakIsReportedOnceEveryTwelveTicks) {
    sheaf_t* leaky = make(nullptr, 0, 2, 0);
    sheaf_t* borderline = make("borderline", 0, 2, 0);
    std::vector<packet_t*> out;
    under_packet_lock([&] {
        for (int i = 0; i < 21; ++i) out.push_back(sheaf_alloc_inline(leaky, 0, FALSE));
        for (int i = 0; i < 20; ++i) out.push_back(sheaf_alloc_inline(borderline, 0, FALSE));
    });
    corvex_test::syslog_clear();
    for (int i = 0; i < 12; ++i) tick();
    const std::string line = "SHEAF: possible leak, ID " + std::to_string(leaky->id) + " (<none>) (21/0/2)\n";
    EXPECT_EQ(corvex_test::syslog_records(), (std::vector<corvex_test::LogRecord>{{3, line}}));
    under_packet_lock([&] {
        leaky->max = borderline->max = 0;
        for (packet_t* p : out) sheaf_free(p->sheaf, p);
    });
}

TEST_F(SheafTest, DestroyWithPacketsOutKeepsTheRecordUntilTheyReturn) {
    auto* sheaf = sheaf_create("outstanding", 0, 0, 8, 5, &budget_vector, nullptr);
    std::vector<packet_t*> out;
    under_packet_lock([&] {
        for (int i = 0; i < 3; ++i) out.push_back(sheaf_malloc(sheaf, 0));
        EXPECT_TRUE(sheaf_destroy(sheaf));
    });
    EXPECT_EQ(std::tuple(sheaf->total, sheaf->free, sheaf->max, sheaf->nfree), std::tuple(3u, 0u, 0u, 2u));
    // No longer registered: the background task leaves it alone.
    sheaf->min = 1;
    sheaf->max = 5;
    const u_int32_t nalloc = sheaf->nalloc;
    tick();
    EXPECT_EQ(sheaf->nalloc, nalloc);
    sheaf->min = sheaf->max = 0;
    under_packet_lock([&] {
        for (packet_t* p : out) sheaf_free(sheaf, p);
    });
    EXPECT_EQ(std::tuple(sheaf->total, sheaf->nfree), std::tuple(0u, 5u));
    std::free(sheaf);  // a kzalloc record the destroy could not release
    EXPECT_FALSE(sheaf_destroy(nullptr));
}

TEST_F(SheafTest, WalkVisitsRestingPacketsFromTheHead) {
    sheaf_t* sheaf = make("walked", 0, 4, 3);
    const std::vector<packet_t*> all = resting(sheaf);
    static std::vector<packet_t*> seen;
    static boolean go_on;
    for (boolean walker_result : {FALSE, TRUE}) {
        go_on = walker_result;
        seen.clear();
        sheaf_walk(sheaf, [](sheaf_t*, packet_t* p) -> boolean {
            seen.push_back(p);
            return go_on;
        });
        EXPECT_EQ(seen, go_on ? all : std::vector<packet_t*>{all[0]});
    }
    sheaf_walk(nullptr, nullptr);
}

TEST_F(SheafTest, InitAgainKeepsTheRegistry) {
    sheaf_t* sheaf = make("kept", 2, 4, 0);
    sheaf_init();
    tick();
    EXPECT_EQ(sheaf->free, 2u) << "still tuned by the background task";
    EXPECT_EQ(make("next", 0, 1, 0)->id, sheaf->id + 1);
}

using SheafDeathTest = SheafTest;

TEST_F(SheafDeathTest, SheafWithoutVectorMustNeverMakeOrDestroy) {
    const struct {
        void (*run)();
        const char* stop;
    } cases[] = {
        {[] { sheaf_malloc(sheaf_create("bare", 0, 0, 4, 0, nullptr, nullptr), 0); }, "<0>sheaf_alloc_default\\(\\)"},
        {[] {
             packet_t packet{};
             sheaf_free(sheaf_create("bare", 0, 0, 0, 0, nullptr, nullptr), &packet);
         },
         "<0>sheaf_free_default\\(\\)"},
    };
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                corvex_test::syslog_echo_to_stderr(true);
                pthread_mutex_lock(&packet_glb_lock);
                c.run();
            },
            ::testing::KilledBySignal(SIGABRT), c.stop);
    }
}

}  // namespace
