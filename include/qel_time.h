/*
 * qel_time.h: clocks, sleeps, local time stamps, random numbers and
 * version-4 UUIDs.
 *
 * Every time value is a 64-bit integer so that stamps and durations do not
 * overflow on the 32-bit ABI:
 *   - the tick count: unsigned milliseconds of CLOCK_MONOTONIC, unrelated to
 *     the calendar; it never goes backwards;
 *   - wall-clock values: signed seconds, milliseconds or microseconds since the
 *     Unix epoch, -1 on failure; they follow (and jump with) the system clock.
 *
 * Sleeps hand a 32-bit microsecond count to usleep: a sleep longer than
 * 4294967 ms (about 71 minutes) is cut to the low 32 bits of its microsecond
 * count. Callers sleep in short slices; the truncation is kept on purpose and
 * sleeps are not split.
 *
 * A UUID is 16 bytes in the order in which they are printed. qel_uuid_create
 * draws two values of random() to seed an xorshift128+ generator, so its output
 * is defined by the process's random() state, which it does not seed.
 *
 * Thread safety: every function is reentrant except qel_rand_by_time (it
 * reseeds srand, and so random) and qel_uuid_create (it draws from random);
 * both touch the C library's single process-wide random state.
 */
#ifndef QEL_TIME_H
#define QEL_TIME_H

#include <stdint.h>
#include <time.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* Wall-clock time as qel_gettimeofday reports it. Read-only for callers. */
typedef struct _qel_timeval_st {
    int64_t sec;  /* seconds since the epoch, sign-extended */
    int32_t usec; /* microseconds, 0 to 999999 */
} qel_timeval;

/* The time zone as the system reports it. Read-only for callers. */
typedef struct _qel_timezone_st {
    int32_t minuteswest;
    int32_t dsttime;
} qel_timezone;

/* The length of a UUID and of its text form with the terminating NUL. */
#define QEL_UUID_SIZE 16
#define QEL_UUID_CSTR_SIZE 37

/* Monotonic milliseconds: seconds * 1000 + nanoseconds / 1000000 of
 * CLOCK_MONOTONIC. (The name is spelled so on purpose.)
 * Returns: the tick count. */
QEL_API uint64_t qel_time_get_tick_cout(void);

/* Converts a time stamp in seconds to broken-down local time with localtime_r.
 * The stamp is taken as the platform's time_t (its low 32 bits on i386).
 * Returns: 0; QEL_E_INVALIDARG if tm or stamp is null or *stamp is negative;
 * QEL_E_FAIL if localtime_r failed. */
QEL_API qel_result qel_time_stamp_to_local(struct tm *tm, const int64_t *stamp);

/* Sleeps ms milliseconds with usleep(ms * 1000); the product traps on signed
 * 64-bit overflow and is cut to 32 bits (see above). */
QEL_API void qel_msleep(uint64_t ms);

/* qel_msleep(s * 1000). */
QEL_API void qel_sleep(uint64_t s);

/* Calls gettimeofday. On success fills tv and tz when they are not null.
 * Returns: 1 on success; 0 on failure, with the outputs untouched. */
QEL_API int qel_gettimeofday(qel_timeval *tv, qel_timezone *tz);

/* Returns: seconds since the epoch, or -1. */
QEL_API int64_t qel_time(void);

/* Returns: milliseconds since the epoch, or -1. */
QEL_API int64_t qel_mclock(void);

/* Returns: microseconds since the epoch, or -1. */
QEL_API int64_t qel_uclock(void);

/* Seeds srand with the monotonic milliseconds (cut to 32 bits) and returns
 * rand(). Two calls within one millisecond return the same number.
 * Returns: 0 to RAND_MAX. */
QEL_API int qel_rand_by_time(void);

/* Writes a version-4 UUID to uuid[0..15]: byte 6 is 0x4X, byte 8 0x8X to 0xBX.
 * Returns: 0; QEL_E_FAIL if uuid is null. */
QEL_API qel_result qel_uuid_create(uint8_t *uuid);

/* Returns: 1 if all 16 bytes of a and b are equal; 0 otherwise or if either
 * is null. */
QEL_API int qel_uuid_is_equal(const uint8_t *a, const uint8_t *b);

/* Writes the upper-case text form "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" and a
 * NUL to text, which holds at least QEL_UUID_CSTR_SIZE bytes.
 * Returns: 0; QEL_E_INVALIDARG if uuid or text is null; QEL_E_FAIL if the
 * formatted length is not 36. */
QEL_API qel_result qel_uuid_make_cstr(const uint8_t *uuid, char *text);

/* ---- unprefixed entry points ---------------------------------------------- */

/* As qel_time_get_tick_cout. */
QEL_API uint64_t time_get_tick_cout(void);

/* As qel_time_stamp_to_local, but the stamp is the platform's time_t (32 bits
 * on i386). */
QEL_API qel_result time_stamp_to_local(struct tm *out, const time_t *stamp);

/* As qel_rand_by_time, but srand is seeded with only the lowest 8 bits of the
 * monotonic milliseconds: 256 possible seeds. */
QEL_API int rand_by_time(void);

QEL_END_DECLS

#endif /* QEL_TIME_H */
