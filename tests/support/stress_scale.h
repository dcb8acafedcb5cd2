// How long the stress tests run: their bounded default, times the factor
// in CORVEX_STRESS_SCALE (the long run sets it, e.g. 1000).
#pragma once

#include <cstdlib>

namespace corvex_test {

inline long stress_scaled(long operations) {
    const char* scale = std::getenv("CORVEX_STRESS_SCALE");
    const long factor = scale != nullptr ? std::atol(scale) : 1;
    return operations * (factor > 0 ? factor : 1);
}

}  // namespace corvex_test
