// The orderly stop for internal inconsistencies: four records at priority 0,
// then SIGABRT. Nothing is unlocked, flushed or freed first, so the state
// that caused the panic is left for a core dump to show.
#include <cstdarg>
#include <cstdlib>
#include <syslog.h>

#include "kdebug.h"

namespace {
constexpr const char kPanicRule[] = "--------------------------------------\n";
constexpr const char kPanicBanner[] = "PANIC PANIC PANIC PANIC PANIC PANIC\n";
static_assert(sizeof(kPanicRule) == 38 + 2, "38 dashes and a newline");
}  // namespace

extern "C" void panic(const char* format_string, ...) {
    syslog(0, "%s", kPanicRule);
    syslog(0, "%s", kPanicBanner);
    va_list args;
    va_start(args, format_string);
    vsyslog(0, format_string, args);
    va_end(args);
    syslog(0, "%s", kPanicRule);
    abort();
}
