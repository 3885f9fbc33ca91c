// How the units of time relate.
#pragma once
#include <stdint.h>

inline constexpr int32_t USEC_PER_SEC = 1000000;
inline constexpr int32_t USEC_PER_MSEC = 1000;
inline constexpr int32_t NSEC_PER_USEC = 1000;
