#include "failing_alloc.h"

#include <dlfcn.h>

#include "heap.h"
#include "sheaf.h"

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

// The library's own definition, behind this binary's replacement.
template <typename Function>
Function* library_function(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace fault_test {

void fail_nth_allocation(int n) {
    if (library_base == nullptr) {
        Dl_info info{};
        dladdr(reinterpret_cast<void*>(&sheaf_create), &info);
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

extern "C" void* kzalloc(size_t size) {
    if (fail_now(__builtin_return_address(0))) return nullptr;
    static auto* const library_kzalloc = library_function<void*(size_t)>("kzalloc");
    return library_kzalloc(size);
}

extern "C" void* heap_malloc(heap_t* heap, size_t size) {
    if (fail_now(__builtin_return_address(0))) return nullptr;
    static auto* const library_heap_malloc = library_function<void*(heap_t*, size_t)>("heap_malloc");
    return library_heap_malloc(heap, size);
}
