/*
 * Time services, thread registration and event timestamps.
 *
 * All time in the library is a time_ms_t: milliseconds of the monotonic
 * clock counted from an origin that is fixed once per process. Call
 * time_init_startup_time() once during start-up, before any other time
 * function and before other threads start: it fixes the origin and takes the
 * wall-clock reading that time_stamp_to_timeofday() counts from.
 *
 * Thread registration leaves, for each registered thread, a file
 * /var/run/APP-THREAD (or /var/run/THREAD without an application name)
 * holding "TID THREAD " so that outside tools can find a thread by its role.
 *
 * The event timestamp log is a fixed-size ring of start and end marks with
 * monotonic timestamps, printed through any printf-style function. It takes
 * no lock: one thread records at a time, and printing is not concurrent
 * with recording.
 */
#ifndef CORVEX_TIME_UTIL_H
#define CORVEX_TIME_UTIL_H

#include <sys/time.h> /* struct timeval */

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* Flags of time_elapsed_to_str; other bits are ignored. */
#define TIME_STR_COMPACT 2 /* "D+HH:MM:SS" instead of "1 day, 2 hours, ..." */
#define TIME_STR_MSEC 4    /* show the milliseconds too */

/* Milliseconds since the origin; the first call of a process fixes the origin. */
CORVEX_API time_ms_t time_get_ms(void);

/* finish - start, or 0 when start is later than finish. */
CORVEX_API time_ms_t time_get_elapsed(time_ms_t start, time_ms_t finish);

/* 1 when time lies strictly after the present moment, else 0. */
CORVEX_API int time_is_in_future(time_ms_t time);

/*
 * Writes the duration ms into buffer (room: size bytes) and returns buffer.
 * Worded: "1 day, 1 hour, 1 minute, 1 second"; compact: "1+01:01:01". Text
 * that does not fit is cut at size - 1 characters. With size 0 nothing is
 * written.
 */
CORVEX_API char* time_elapsed_to_str(time_ms_t ms, u_int32_t flags, char* buffer, size_t size);

/* Returns after useconds microseconds of wall-clock time. */
CORVEX_API void time_delay_us(u_int32_t useconds);

/* The wall-clock time of the time stamp tstmp. */
CORVEX_API void time_stamp_to_timeofday(time_ms_t tstmp, struct timeval* tv);

/*
 * The UTC date of tstmp as "Thu Jan  1 00:00:01 1970\n" (26 bytes with the
 * terminator); returns the milliseconds within that second. A buffer of
 * fewer than 26 bytes receives the first size - 1 characters.
 */
CORVEX_API u_int32_t time_stamp_to_timeofday_str(time_ms_t tstmp, char* buffer, size_t size);

/* Fixes the origin and takes the wall-clock reading; later calls do nothing. */
CORVEX_API void time_init_startup_time(void);

/* The monotonic clock in milliseconds, not relative to the origin. */
CORVEX_API time_ms_t thread_get_runtime(void);

/*
 * Writes the registration file of the calling thread. app_name, when not
 * null, wins over the default application name.
 */
CORVEX_API void thread_register(const char* app_name, const char* thread_name);

/* Sets the default application name (at most 127 characters are kept). */
CORVEX_API void thread_register_set_app_name(const char* app_name);

/*
 * Creates an empty ring of rec_entries records (1 to 65535; larger counts
 * are clamped to 65535, and 0 or less leaves no ring, so recording is off).
 * A ring made earlier is released.
 */
CORVEX_API void event_timestamp_record_init(int rec_entries);

/*
 * Appends one mark (start non-zero: a start, 0: an end), overwriting the
 * oldest when the ring is full. evt_name is kept by pointer, not copied.
 */
CORVEX_API void event_timestamp_record(const char* evt_name, int start);

/*
 * Prints the marks from oldest to newest, one recprint call each; a
 * negative result of recprint stops the printing. Once the ring has
 * wrapped, the oldest mark (the next to be overwritten) is not printed.
 */
CORVEX_API void event_timestamp_record_print(int (*recprint)(const char*, ...));

CORVEX_END_DECLS

#endif /* CORVEX_TIME_UTIL_H */
