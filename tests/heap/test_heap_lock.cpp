// The global heap lock: re-entered from a hook on the same thread, released
// by the call that took it, and the assertion for an impossible lock result.
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

TEST(HeapLock, ReenteredFromAHookAndReleasedByTheCallThatTookIt) {
    heap_t* heap = make_heap(65536);
    hook_heap = make_heap(65536);
    heap_debug_proc_t hooks;
    heap_get_default_debug_proc(&hooks);
    hooks.post_free = reentering_free_hook;
    heap_set_debug_proc(heap, &hooks);
    const u_int32_t inner_frees = hook_heap->stats.frees;
    heap_free(heap, heap_malloc(heap, 100));
    int other_thread = -1;
    std::thread([&] {
        if ((other_thread = pthread_mutex_trylock(&heap_alloc_glb_lock)) == 0)
            pthread_mutex_unlock(&heap_alloc_glb_lock);
    }).join();
    EXPECT_EQ(std::tuple(hook_heap->stats.frees, other_thread), std::tuple(inner_frees + 1, 0));
    EXPECT_TRUE(heap_alloc_glb_lock_line > 0 && std::string(heap_alloc_glb_lock_filname) == "heap/heap");
    EXPECT_DEATH(
        {
            std::memset(static_cast<void*>(&heap_alloc_glb_lock), 0x7f, sizeof heap_alloc_glb_lock);
            heap_malloc(heap, 10);
        },
        "heap/heap.*\\(lock_err == 0\\) \\|\\| \\(lock_err == 35\\)");
}

}  // namespace
