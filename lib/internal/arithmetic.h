// Arithmetic: units of time, a division that is cheap on a 32-bit machine, and sums that wrap.
#pragma once
#include <stdint.h>

inline constexpr int32_t USEC_PER_SEC = 1000000;
inline constexpr int32_t USEC_PER_MSEC = 1000;
inline constexpr int32_t NSEC_PER_USEC = 1000;

// Microseconds as whole milliseconds, rounded down. A 32-bit machine divides 32 bits at once, which is enough for an
// hour. Longer times are divided in four digits of 16 bits. The compiler's run-time library would take ten
// times the code.
inline uint64_t whole_msec(uint64_t usec)
{
	if constexpr (sizeof(long) == sizeof usec)
		return usec / USEC_PER_MSEC;
	if (usec <= UINT32_MAX)
		return static_cast<uint32_t>(usec) / USEC_PER_MSEC;
	uint64_t quotient = 0;
	uint32_t rest = 0;
	for (int digit = 0; digit < 4; digit++) {
		rest = rest << 16 | static_cast<uint32_t>(usec >> 48);
		quotient = quotient << 16 | rest / USEC_PER_MSEC;
		rest %= USEC_PER_MSEC;
		usec <<= 16;
	}
	return quotient;
}

// Computed unsigned: overflow of a signed type is undefined.
inline int64_t wrapping_add(int64_t a, int64_t b)
{
	return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

inline int64_t wrapping_mul(int64_t a, int64_t b)
{
	return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// The low half of a time value as a signed number.
inline int32_t low_word(int64_t value)
{
	return static_cast<int32_t>(static_cast<uint32_t>(value));
}
