/*
 * Common ground of libcorvex: fixed-width types, the truth value, result
 * codes and the export/linkage macros every public header uses.
 */
#ifndef CORVEX_TYPES_H
#define CORVEX_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h> /* u_int8_t, u_int16_t, u_int32_t, u_int64_t */

#ifdef __cplusplus
#define CORVEX_BEGIN_DECLS extern "C" {
#define CORVEX_END_DECLS }
#else
#define CORVEX_BEGIN_DECLS
#define CORVEX_END_DECLS
#endif

/* Only names marked CORVEX_API leave libcorvex.so; everything else is hidden. */
#define CORVEX_API __attribute__((visibility("default")))

CORVEX_BEGIN_DECLS

/* 0 is false; the library stores 1 for true and reads any non-zero as true. */
typedef u_int8_t boolean;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/*
 * Result code. The values are the interface; the library has no names for
 * them: 0 success, 12 no room, 22 invalid argument, 1000 failure,
 * 1001 walk stopped by its walker.
 */
typedef int status_t;

/* Milliseconds of the monotonic clock since the process's time origin. */
typedef u_int64_t time_ms_t;

/* An interrupt priority level. */
typedef u_int8_t level_t;

CORVEX_END_DECLS

#endif /* CORVEX_TYPES_H */
