/*
 * The layout of the public records is interface: programs embed them, and run on other builds of these libraries too.
 * Sizes and offsets are in bytes, for 64-bit pointers and for 32-bit ones.
 */
#pragma once
#include <stddef.h>

#define LAYOUT_IS(value, bytes64, bytes32)                                                                   \
	((sizeof(void *) == 8 && (value) == (bytes64)) || (sizeof(void *) == 4 && (value) == (bytes32)))

#define LAYOUT_SIZE(record, bytes64, bytes32)                                                                \
	_Static_assert(LAYOUT_IS(sizeof(record), bytes64, bytes32), #record)
#define LAYOUT_FIELD(record, field, bytes64, bytes32)                                                        \
	_Static_assert(LAYOUT_IS(offsetof(record, field), bytes64, bytes32), #record ": " #field)
