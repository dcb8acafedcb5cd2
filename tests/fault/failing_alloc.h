// Makes the library's allocations fail on purpose. This binary replaces the
// allocation wrappers the library calls through its exported names, kzalloc
// (sheaf records, packet headers, lists, tables) and heap_malloc (packet
// buffers); calls made from inside libcorvex count down once armed, and the
// n-th of them fails.
#pragma once

namespace fault_test {

// Fails the n-th library allocation from now on (n >= 1).
void fail_nth_allocation(int n);
// Stops failing; true when the armed failure happened.
bool disarm();

// Runs `op(n)` with the n-th library allocation failing for n = 1, 2, ...
// until a run needs fewer than n; returns the number of failure points met.
// An op may disarm for set-up and arm again with its n.
template <typename Op>
int sweep_failures(Op op) {
    int n = 1;
    for (;; ++n) {
        fail_nth_allocation(n);
        op(n);
        if (!disarm()) return n - 1;
    }
}

}  // namespace fault_test
