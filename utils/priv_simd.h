// Sixteen-byte vector code (GCC vector extensions) for the library's few
// loops over memory: the heap's fill of freed blocks and the Internet
// checksum. On x86-64 the vector unit (SSE2) is always there; a 32-bit x86
// build targets processors that may lack it, so its vector functions are
// compiled for SSE2 separately and chosen at run time.
#pragma once

#include <cstdint>

namespace corvex {

typedef uint32_t u32x4 __attribute__((vector_size(16)));

#if defined(__i386__) && !defined(__SSE2__)
#define CORVEX_VECTOR_TARGET __attribute__((target("sse2")))
inline bool cpu_has_vector_unit() { return __builtin_cpu_supports("sse2"); }
#else
#define CORVEX_VECTOR_TARGET
inline bool cpu_has_vector_unit() { return true; }
#endif

}  // namespace corvex
