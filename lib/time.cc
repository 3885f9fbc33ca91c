// Converts between the system's time records and 64-bit microseconds. Sums wrap instead of overflowing. Several
// results come from the low 32 bits alone; the header says which.

#include "time.h"

#include "internal/arithmetic.h"

int64_t time_from_timespec(const struct timespec *time)
{
	return wrapping_add(wrapping_mul(time->tv_sec, USEC_PER_SEC), time->tv_nsec / NSEC_PER_USEC);
}

int64_t time_from_timeval(const struct timeval *time)
{
	return wrapping_add(wrapping_mul(time->tv_sec, USEC_PER_SEC), time->tv_usec);
}

int64_t time_now_clock(clockid_t clock)
{
	struct timespec now = {};
	clock_gettime(clock, &now);
	return time_from_timespec(&now);
}

int64_t time_now(void)
{
	return time_now_clock(CLOCK_MONOTONIC);
}

uint64_t time_now_msec_clock(clockid_t clock)
{
	uint64_t now = static_cast<uint64_t>(time_now_clock(clock));
	bool is_negative = now > INT64_MAX; // also rounded towards zero
	return is_negative ? 0 - whole_msec(0 - now) : whole_msec(now);
}

uint64_t time_now_msec(void)
{
	return time_now_msec_clock(CLOCK_MONOTONIC);
}

int32_t time_now_sec_clock(clockid_t clock)
{
	return low_word(time_now_clock(clock)) / USEC_PER_SEC; // compatibility, short range
}

int32_t time_now_sec(void)
{
	return time_now_sec_clock(CLOCK_MONOTONIC);
}

struct timespec *time_to_timespec(struct timespec *result, int64_t time)
{
	result->tv_sec = low_word(time) / USEC_PER_SEC;
	uint64_t usec = static_cast<uint64_t>(time);
	uint32_t seconds = static_cast<uint32_t>(whole_msec(whole_msec(usec)));
	// The rest has at most 20 bits, so the low words suffice.
	result->tv_nsec =
		static_cast<long>(static_cast<uint32_t>(usec) - seconds * USEC_PER_SEC) * NSEC_PER_USEC;
	return result;
}

struct timeval *time_to_timeval(struct timeval *result, int64_t time)
{
	result->tv_sec = low_word(time) / USEC_PER_SEC;
	result->tv_usec = low_word(time) % USEC_PER_SEC;
	return result;
}

static int64_t shifted_by(struct tm *(*break_down)(const time_t *, struct tm *), int64_t time)
{
	time_t seconds = low_word(time) / USEC_PER_SEC;
	struct tm parts = {};
	break_down(&seconds, &parts);
	return wrapping_mul(static_cast<int32_t>(mktime(&parts)), USEC_PER_SEC);
}

int64_t time_to_utc(int64_t time)
{
	return shifted_by(gmtime_r, time);
}

int64_t time_from_utc(int64_t time)
{
	return shifted_by(localtime_r, time);
}
