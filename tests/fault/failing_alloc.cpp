#include "failing_alloc.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

#include "heap.h"

namespace {

int countdown;  // library allocations until the failing one; 0: disarmed
bool failed;
const void* library_base;

bool from_library(void* return_address) {
    Dl_info info{};
    return dladdr(return_address, &info) != 0 && info.dli_fbase == library_base;
}

bool fail_now(void* return_address) {
    if (countdown == 0 || !from_library(return_address) || --countdown > 0) return false;
    failed = true;
    return true;
}

}  // namespace

namespace fault_test {

void fail_nth_allocation(int n) {
    if (library_base == nullptr) {
        Dl_info info{};
        dladdr(reinterpret_cast<void*>(&kzalloc), &info);
        library_base = info.dli_fbase;
    }
    failed = false;
    countdown = n;
}

bool disarm() {
    countdown = 0;
    return failed;
}

}  // namespace fault_test

extern "C" void* calloc(size_t count, size_t size) noexcept {
    size_t bytes;
    if (fail_now(__builtin_return_address(0)) || __builtin_mul_overflow(count, size, &bytes)) return nullptr;
    void* p = malloc(bytes);
    // Opaque to the optimiser, which would otherwise fold malloc and memset back into calloc.
    asm volatile("" : "+r"(p));
    if (p != nullptr) std::memset(p, 0, bytes);
    return p;
}

extern "C" void* heap_malloc(heap_t* heap, size_t size) {
    if (fail_now(__builtin_return_address(0))) return nullptr;
    static auto* const library_heap_malloc = reinterpret_cast<void* (*)(heap_t*, size_t)>(dlsym(RTLD_NEXT, "heap_malloc"));
    return library_heap_malloc(heap, size);
}
