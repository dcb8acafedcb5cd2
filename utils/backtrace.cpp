// Traceback hooks. A Linux process of this platform captures no stack:
// the two reporting hooks log their message, the capturing ones give nothing.
#include <syslog.h>

#include "kdebug.h"

extern "C" {

void traceback(const char* message) { syslog(LOG_ERR, "traceback: %s\n", message); }

void do_traceback(const char* message, void* /*frame*/) { syslog(LOG_ERR, "do_traceback: %s\n", message); }

void get_traceback(char* /*trace*/) {}

void cpu_get_traceback(char* /*trace*/, int /*size*/, int /*max_depth*/) {}

int get_backtrace(void** /*callstack*/, u_int32_t /*n_frames*/) { return 0; }

}  // extern "C"
