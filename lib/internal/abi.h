// Whether this build is for the target's ABI: 32-bit pointers, and 64-bit numbers aligned to 8 bytes.
#pragma once
#include <stddef.h>
#include <stdint.h>

struct abi_probe {
	char first;
	int64_t second;
};
inline constexpr bool abi_is_targets = sizeof(void *) == 4 && offsetof(abi_probe, second) == 8;
