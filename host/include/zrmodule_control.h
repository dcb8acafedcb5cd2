/*
 * What a host program (and a test) needs beyond the library's view of the
 * module library: stopping a module, reading what its task left behind,
 * and the contexts given at creation.
 */
#ifndef CORVEX_HOST_ZRMODULE_CONTROL_H
#define CORVEX_HOST_ZRMODULE_CONTROL_H

#include "host_module.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Ends module's task (waiting for a running timer function to return) and
 * frees the module with its timers. Returns 0, or 22 for a null module or
 * when called on the module's own task, which cannot wait for itself.
 */
int zrmodule_destroy(zrmodule* module);

/* The module's name and the context given to zrmodule_alloc. */
const char* zrmodule_name(const zrmodule* module);
void* zrmodule_context(const zrmodule* module);

/* Non-zero while the module's task runs (started and not yet ended). */
int zrmodule_running(const zrmodule* module);

/* The code the task passed to zrmodule_quit; -1 while it has not quit. */
int zrmodule_exit_code(const zrmodule* module);

/* The code of the last zrmodule_quit made outside any module's task; -1 if none. */
int zrmodule_last_quit_code(void);

/* The module running the calling thread's task; null on other threads. */
zrmodule* zrmodule_current(void);

/* The timer's name, the context given at creation, and how often it fired. */
const char* zrmodule_timer_name(const zrmodule_timer* timer);
void* zrmodule_timer_context(const zrmodule_timer* timer);
unsigned long zrmodule_timer_calls(const zrmodule_timer* timer);

/*
 * The clock of every module's timers: the monotonic clock, until a test
 * holds it. From zrmodule_clock_hold on, time stands still for the timers
 * except when zrmodule_clock_advance moves it on by the microseconds given;
 * advance returns once every running task has made the calls that fell due
 * by the new time (and they have returned). Advance from outside the tasks,
 * while no module is being destroyed.
 */
void zrmodule_clock_hold(void);
void zrmodule_clock_advance(unsigned long microseconds);

#ifdef __cplusplus
}
#endif

#endif /* CORVEX_HOST_ZRMODULE_CONTROL_H */
