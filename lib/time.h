/*
 * time - time values: signed 64-bit counts of microseconds.
 *
 * They count on CLOCK_MONOTONIC unless a clock is named: they measure intervals and set timeouts,
 * they do not tell the date. Nothing here fails; errors of the system's clock functions are not
 * looked at.
 *
 * Mind the short range. time_now_sec, time_now_sec_clock, time_to_timespec, time_to_timeval and the
 * two UTC conversions use only the low 32 bits of a value for its seconds, read as a signed number:
 * they are meant for durations below 2^31 microseconds (35 minutes 47 seconds) and give wrapped results
 * above. The others work on the full 64 bits; a result that does not fit them wraps.
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

/* Nanoseconds are truncated to microseconds. */
int64_t time_from_timespec(const struct timespec *time);
int64_t time_from_timeval(const struct timeval *time);

/* The reading of `clock`, or of CLOCK_MONOTONIC, in microseconds. */
int64_t time_now_clock(clockid_t clock);
int64_t time_now(void);

/* The same in milliseconds, truncated. */
uint64_t time_now_msec_clock(clockid_t clock);
uint64_t time_now_msec(void);

/* Seconds, of the short range: wraps about 36 minutes after the clock's zero. */
int32_t time_now_sec_clock(clockid_t clock);
int32_t time_now_sec(void);

/*
 * Fill in `*result` and return it. Above the short range the seconds are wrapped. The nanoseconds
 * of time_to_timespec come from all 64 bits (read as unsigned), the microseconds of time_to_timeval
 * from the wrapped low half, so they may be negative: 3,000,000,000 gives -1294 s and -967,296 us.
 */
struct timespec *time_to_timespec(struct timespec *result, int64_t time);
struct timeval *time_to_timeval(struct timeval *result, int64_t time);

/*
 * Break `time` down, as UTC (time_to_utc) or as local time (time_from_utc), and have mktime read the
 * result as local time. The first shifts a count of local wall-clock time to the UTC count; the
 * second gives `time` again, apart from hours that a change of daylight saving makes doubtful. Whole
 * seconds; the microseconds are dropped. Of the short range: not for the dates of our days.
 */
int64_t time_to_utc(int64_t time);
int64_t time_from_utc(int64_t time);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
