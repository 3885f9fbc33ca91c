// The public records' layout is interface: daemons are built against it. The static_asserts that pin it
// hold for the target's ABI: 32-bit pointers, and 64-bit numbers aligned to 8 bytes.
#pragma once
#include <stddef.h>
#include <stdint.h>

struct layout_probe {
	char first;
	int64_t second;
};
inline constexpr bool layout_is_targets = sizeof(void *) == 4 && offsetof(layout_probe, second) == 8;

#define LAYOUT_SIZE(record, bytes) static_assert(!layout_is_targets || sizeof(record) == (bytes))
#define LAYOUT_FIELD(record, field, bytes)                                                                   \
	static_assert(!layout_is_targets || offsetof(record, field) == (bytes))
