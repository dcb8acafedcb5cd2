/*
 * What the library expects of the host's module library: a named task that
 * runs periodic timers. The host provides these symbols at load time;
 * libcorvex itself does not link any module library.
 */
#ifndef CORVEX_HOST_MODULE_H
#define CORVEX_HOST_MODULE_H

#include <time.h>

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* A module: a named task of the host. Opaque. */
typedef struct _zrmodule zrmodule;

/* A periodic timer running on a module's task. Opaque. */
typedef struct _zrmodule_timer zrmodule_timer;

/* A timer's function, called on the module's task with the timer and its interval. */
typedef void (*zrmodule_timer_func)(zrmodule_timer* tp, time_t interval);

/* A duration: seconds and microseconds. */
typedef struct _utime_t {
    time_t ut_sec;
    time_t ut_usec;
} utime_t;

typedef u_int32_t flag_t;
typedef void* void_t;
#ifndef __u_char_defined /* <sys/types.h> has it only outside strict ISO modes */
typedef unsigned int u_int;
#endif

/*
 * Makes a module record named name (copied). The module does not run until
 * zrmodule_create. The host library's stand-in reads the int as the task's
 * stack size in KiB (0: the system default) and keeps the pointer as the
 * module's context. Null when name is null or memory is short.
 */
zrmodule* zrmodule_alloc(const char* name, int stack_kib, void* context);

/*
 * Starts the module's task. Returns 0 when the module cannot start (no
 * module, already started, or the system refuses the task); non-zero on
 * success.
 */
int zrmodule_create(zrmodule* module);

/*
 * Called on a module's task (from a timer function), ends that task once the
 * function returns: its timers stop and code is kept as the module's exit
 * code. Called anywhere else, only records code as the last quit request and
 * returns.
 */
void zrmodule_quit(int code);

/*
 * Adds a timer to module: func(timer, interval) is called on the module's
 * task first after initial (null: after one interval), then once every
 * interval, on absolute deadlines so calls do not drift, until the process
 * ends; a non-zero count stops the timer after that many calls. The
 * interval passed to func is the period in milliseconds. Both durations
 * and name are copied. A timer added before zrmodule_create starts with the
 * task. flags are reserved (pass 0); context is kept for the timer's owner.
 * Null when module, interval or func is null, a duration is negative, the
 * interval is zero or longer than 2^31 seconds, or memory is short.
 */
zrmodule_timer* zrmodule_timer_ucreate(zrmodule* module, const char* name, flag_t flags,
                                       utime_t* initial, utime_t* interval, u_int count,
                                       zrmodule_timer_func func, void_t context);

CORVEX_END_DECLS

#endif /* CORVEX_HOST_MODULE_H */
