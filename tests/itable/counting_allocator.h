// An allocator for the indexed tables that records every block it hands out,
// so a test sees what storage a table holds and whether it was given back,
// and can make the n-th allocation fail.
#pragma once

#include <cstdlib>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "itable.h"

namespace corvex_test {

class CountingAllocator {
public:
    ~CountingAllocator() {
        for (void* p : live_) free(p);
    }

    static void* alloc(void* ctxt, size_t size) {
        auto* self = static_cast<CountingAllocator*>(ctxt);
        if (self->budget_ == 0) return nullptr;
        if (self->budget_ > 0) --self->budget_;
        self->sizes_.push_back(size);
        return *self->live_.insert(calloc(size, 1)).first;
    }
    static void release(void* ctxt, void* p) {
        EXPECT_EQ(static_cast<CountingAllocator*>(ctxt)->live_.erase(p), 1u) << "not handed out by this allocator";
        free(p);
    }

    size_t live() const { return live_.size(); }  // handed out, not yet given back
    size_t allocations() const { return sizes_.size(); }
    const std::vector<size_t>& sizes() const { return sizes_; }  // of every block handed out, in order
    void fail_after(int n) { budget_ = n; }  // the next n allocations succeed, later ones fail; -1: never

private:
    std::set<void*> live_;
    std::vector<size_t> sizes_;
    int budget_ = -1;
};

// Distinct non-null values to store; never dereferenced by the tables.
inline void* token(uintptr_t n) { return reinterpret_cast<void*>((n + 1) * 16); }

}  // namespace corvex_test
