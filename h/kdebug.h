/*
 * Fatal errors and traceback hooks.
 *
 * panic() logs four records at priority 0 (a 38-dash line, the banner, the
 * caller's message, the dash line again) and aborts. On this platform no
 * stack is captured: the traceback hooks only log or do nothing.
 */
#ifndef CORVEX_KDEBUG_H
#define CORVEX_KDEBUG_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

CORVEX_API void panic(const char* format_string, ...)
    __attribute__((noreturn, format(printf, 1, 2)));

CORVEX_API void traceback(const char* message);
CORVEX_API void do_traceback(const char* message, void* frame);
CORVEX_API void get_traceback(char* trace);
CORVEX_API void cpu_get_traceback(char* trace, int size, int max_depth);
CORVEX_API int get_backtrace(void** callstack, u_int32_t n_frames);

CORVEX_END_DECLS

#endif /* CORVEX_KDEBUG_H */
