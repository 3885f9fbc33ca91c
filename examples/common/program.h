/*
 * program - what the examples share, daemons or not: standard streams, --help and --version, and errors of the
 * command line.
 */
#pragma once
#include <stdbool.h>
#include <stdint.h>

/* The exit status of a wrong command line. */
#define EXIT_USAGE 2

/*
 * Opens /dev/null, or the root directory where there is none, on those of the descriptors 0 to 2 that are closed.
 * Without it the next file that is opened becomes a standard stream, and gets what is printed.
 */
void open_standard_descriptors(void);

/*
 * Ends the printing on standard output. `well` says whether printing `what` has worked so far.
 *
 * Returns the status to exit with: 0, or 1 after a line on standard error.
 */
int printed(const char *program, const char *what, bool well);

/* Each prints on standard output, and returns the same as `printed`. */
int print_help(const char *program, const char *usage);
int print_version(const char *program);

/* Prints "PROGRAM: BEFORE 'WORD'AFTER" on standard error. Returns EXIT_USAGE. */
int usage_error(const char *program, const char *before, const char *word, const char *after);

/* The same, and after the word ", see PROGRAM --help". */
int usage_error_see_help(const char *program, const char *before, const char *word);

/* A decimal number of at most `max`: digits only, no sign, no space. -EINVAL if it is none. */
int64_t parse_number(const char *text, uint32_t max);
