// A recording stand-in for the host's module library, linked into the test
// binary so it takes the place of the real one: every call is kept, and the
// timer functions can be run by hand.
#pragma once

#include <string>
#include <vector>

#include "host_module.h"

namespace packet_test {

struct ModuleCall {
    std::string what;  // "alloc", "create", "quit", "timer"
    std::string name;  // module or timer name
    long sec = 0, usec = 0;
    bool same_time_pointers = false;
    int number = 0;    // alloc's int, quit's code, timer's count
    bool null_pointer = true;  // alloc's and timer's context, timer flags == 0 folded in
    zrmodule* module = nullptr;
    zrmodule_timer_func func = nullptr;
};

std::vector<ModuleCall>& module_calls();
// What zrmodule_create returns next (non-zero: started).
void module_create_result(int result);
// The function of the recorded timer with that name, or null.
zrmodule_timer_func recorded_timer(const std::string& name);

}  // namespace packet_test
