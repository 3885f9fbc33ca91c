// Functions of htable for the library's own modules.
#pragma once
#include "../htable.h"

// Whether the search for the slot of `key` passes more than `probes_max` slots in use.
bool htable_has_too_many_collisions(const htable *t, const void *key, int32_t probes_max);
