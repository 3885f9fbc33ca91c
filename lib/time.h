/*
 * time - time values: signed 64-bit counts of microseconds.
 *
 * They count on CLOCK_MONOTONIC unless a clock is named: for intervals, not for dates. Nothing fails:
 * errors of the clocks are ignored, and a result that does not fit wraps.
 *
 * "Short range": the seconds come from the low 32 bits of the microseconds, as a signed number. They are
 * right below 2^31 microseconds (35 min 47 s), and wrap beyond.
 */
#pragma once
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Returns:   `time` in microseconds; nanoseconds are truncated. */
int64_t time_from_timespec(const struct timespec *time);
int64_t time_from_timeval(const struct timeval *time);

/* Returns:   the reading of `clock`, or of CLOCK_MONOTONIC, in microseconds. */
int64_t time_now_clock(clockid_t clock);
int64_t time_now(void);

/* Returns:   the same in milliseconds, truncated. */
uint64_t time_now_msec_clock(clockid_t clock);
uint64_t time_now_msec(void);

/* Returns:   the same in seconds. Short range: wraps some 36 minutes after the clock's zero. */
int32_t time_now_sec_clock(clockid_t clock);
int32_t time_now_sec(void);

/*
 * Split `time` into seconds, of the short range, and the rest. The nanoseconds of time_to_timespec come
 * from all 64 bits, read as unsigned. The microseconds of time_to_timeval come from the low 32 bits and
 * may be negative: 3,000,000,000 gives -1294 s and -967,296 us.
 *
 * Returns:   `result`, filled in.
 */
struct timespec *time_to_timespec(struct timespec *result, int64_t time);
struct timeval *time_to_timeval(struct timeval *result, int64_t time);

/*
 * time_to_utc turns local wall-clock time, read as standard time, into UTC. time_from_utc gives `time`
 * again, except around a change of daylight saving. Short range: not for present dates.
 *
 * Returns:   whole seconds, as microseconds; the rest is dropped.
 */
int64_t time_to_utc(int64_t time);
int64_t time_from_utc(int64_t time);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
