/*
 * show - the board as JSON on standard output, as in examples/common/board.h. If "mac_addresses" is null, there is also
 * "mac_addresses_error", a text with the reason.
 */
#pragma once
#include <stdbool.h>

/* Returns false after a failure. Flush standard output to learn whether all has been written. */
bool show_board(void);
