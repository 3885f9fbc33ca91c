// Arithmetic that wraps: computed unsigned, since overflow of a signed type is undefined.
#pragma once
#include <stdint.h>

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
