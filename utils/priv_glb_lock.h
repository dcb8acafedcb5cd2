// The lock protocol shared by the library's two global locks
// (heap_alloc_glb_lock and packet_glb_lock).
//
// Both are error-checking mutexes. Locking returns 0 when this call took the
// lock: the call site is recorded in the lock's companion globals and the
// lock is released when the guard goes out of scope. It returns 35
// (EDEADLK) when this thread already holds it: the work runs under the
// caller's hold, nothing is recorded and nothing is released. Any other
// result is a programming error and stops the process.
#pragma once

#include <pthread.h>

#include "priv_assert.h"

namespace corvex {

struct GlbLock {
    pthread_mutex_t& mutex;
    const char*& site_file;  // e.g. heap_alloc_glb_lock_filname
    int& site_line;          // e.g. heap_alloc_glb_lock_line
};

class GlbLockGuard {
public:
    GlbLockGuard(const GlbLock& lock, const char* source, int line) : lock_(lock) { acquire(source, line); }
    ~GlbLockGuard() { release(); }
    GlbLockGuard(const GlbLockGuard&) = delete;
    GlbLockGuard& operator=(const GlbLockGuard&) = delete;

    // Gives the lock back early (only if this guard took it).
    void release() {
        if (owned_) {
            owned_ = false;
            pthread_mutex_unlock(&lock_.mutex);
        }
    }

    // Takes the lock again after release(), recording the new site.
    void acquire(const char* source, int line) {
        int lock_err = pthread_mutex_lock(&lock_.mutex);
        owned_ = (lock_err == 0);
        if (owned_) [[likely]] {
            lock_.site_file = source;
            lock_.site_line = line;
        } else {
            CORVEX_ASSERT_AT(lock_err == 35, "(lock_err == 0) || (lock_err == 35)", source, line);
        }
    }

    // True when this guard took the lock (false when the caller already held it).
    bool owned() const { return owned_; }

private:
    GlbLock lock_;
    bool owned_ = false;
};

}  // namespace corvex
