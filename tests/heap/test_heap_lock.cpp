// The global heap lock: re-entered from a hook and under a caller's hold,
// released afterwards, and the assertion for an impossible lock result.
#include <cerrno>
#include <thread>

#include "heap_fixture.h"

using namespace heap_test;

namespace {

heap_t* hook_heap;

// Allocates and releases from inside a release: the lock is already held.
void reentering_free_hook(void* p, size_t size) {
    heap_free(hook_heap, heap_malloc(hook_heap, 24));
    heap_block_post_free(p, size);
}

int trylock_from_other_thread() {
    int result = -1;
    std::thread([&] {
        result = pthread_mutex_trylock(&heap_alloc_glb_lock);
        if (result == 0) pthread_mutex_unlock(&heap_alloc_glb_lock);
    }).join();
    return result;
}

}  // namespace

TEST(HeapLock, ReenteredFromAHookOnTheSameThread) {
    heap_t* heap = make_heap(65536);
    hook_heap = make_heap(65536);
    heap_debug_proc_t hooks;
    heap_get_default_debug_proc(&hooks);
    hooks.post_free = reentering_free_hook;
    heap_set_debug_proc(heap, &hooks);
    void* p = heap_malloc(heap, 100);
    const heap_stats_t inner = hook_heap->stats;
    heap_free(heap, p);
    EXPECT_EQ(hook_heap->stats.allocs, inner.allocs + 1);
    EXPECT_EQ(hook_heap->stats.frees, inner.frees + 1);
    expect_whole(heap);
    expect_whole(hook_heap);
    EXPECT_EQ(trylock_from_other_thread(), 0);  // released by the outer call
}

TEST(HeapLock, CallerAlreadyHoldingTheLock) {
    heap_t* heap = make_heap(65536);
    void* warm = heap_malloc(heap, 8);
    const char* site = heap_alloc_glb_lock_filname;
    heap_alloc_glb_lock_line = -1;
    ASSERT_EQ(pthread_mutex_lock(&heap_alloc_glb_lock), 0);
    heap_free(heap, heap_malloc(heap, 10));
    heap_free(heap, warm);
    EXPECT_EQ(trylock_from_other_thread(), EBUSY);  // still held by this thread
    EXPECT_EQ(heap_alloc_glb_lock_line, -1);         // nothing recorded under a held lock
    EXPECT_EQ(heap_alloc_glb_lock_filname, site);
    ASSERT_EQ(pthread_mutex_unlock(&heap_alloc_glb_lock), 0);
    heap_free(heap, heap_malloc(heap, 10));
    EXPECT_GT(heap_alloc_glb_lock_line, 0);
    EXPECT_STREQ(heap_alloc_glb_lock_filname, "heap/heap");
    expect_whole(heap);
}

TEST(HeapLock, AnyOtherLockResultIsAnAssertion) {
    heap_t* heap = make_heap(65536);
    EXPECT_DEATH(
        {
            std::memset(static_cast<void*>(&heap_alloc_glb_lock), 0x7f, sizeof heap_alloc_glb_lock);
            heap_malloc(heap, 10);
        },
        "heap/heap.*\\(lock_err == 0\\) \\|\\| \\(lock_err == 35\\)");
}
