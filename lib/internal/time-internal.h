// What time keeps for the library's own modules.
#pragma once
#include "units.h"

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
