// What htable keeps for the library's own modules.
#pragma once
#include "../htable.h"

// Whether finding the place of `key` takes more than `probes_max` steps.
bool htable_is_crowded(const htable *t, const void *key, int32_t probes_max);
