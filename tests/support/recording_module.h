// A recording stand-in for the host's module library, linked into the test
// binary so it takes the place of the real one: every call is kept, and the
// timer functions can be run by hand.
#pragma once

#include <string>
#include <vector>

#include "host_module.h"

namespace corvex_test {

// Every call written out with its arguments; the allocated module reads "module".
std::vector<std::string>& module_calls();
// What zrmodule_create returns next (non-zero: started).
void module_create_result(int result);
// The function of the last timer made with that name, or null.
zrmodule_timer_func recorded_timer(const std::string& name);

}  // namespace corvex_test
