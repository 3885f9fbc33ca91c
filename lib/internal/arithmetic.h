// Arithmetic: units of time, a division that a 32-bit machine can afford, and sums that wrap.
#pragma once
#include <stdint.h>

inline constexpr int32_t USEC_PER_SEC = 1000000;
inline constexpr int32_t USEC_PER_MSEC = 1000;
inline constexpr int32_t NSEC_PER_USEC = 1000;

// Microseconds as whole milliseconds: a division by 1000. A 32-bit machine divides 32 bits at once, enough for
// an hour; more is divided digit by digit, in the base of 65536, by a tenth of the code that the compiler's
// run-time library has for it.
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

// Wrapping is computed unsigned, since overflow of a signed type is undefined.
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
