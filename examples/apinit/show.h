/*
 * show - the board as JSON on standard output: what examples/common/board.h says, and, if "mac_addresses" is
 * null, "mac_addresses_error", a text that says why.
 */
#pragma once
#include <stdbool.h>

/* Returns false if something has failed; whether all of it has been written is known after a flush. */
bool show_board(void);
