/*
 * program - what every example does first, and how it answers --help and --version.
 */
#pragma once
#include <stdbool.h>

/*
 * Opens /dev/null, or the root directory where there is none, on those of the descriptors 0 to 2 that are closed.
 * Without it the next file that is opened becomes a standard stream, and what is printed goes there.
 */
void open_standard_descriptors(void);

/*
 * Ends what was printed on standard output. `well` says whether printing `what` has worked so far.
 *
 * Returns the status to exit with: 0, or 1 after a line on standard error.
 */
int printed(const char *program, const char *what, bool well);

/* Each prints on standard output, and returns what `printed` does. */
int print_help(const char *program, const char *usage);
int print_version(const char *program);
