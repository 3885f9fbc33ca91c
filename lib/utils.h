/*
 * utils - programs run to their end, children signalled, the console, and checks of JSON and hex text.
 *
 * Every call is synchronous. Pointers must not be null unless a function says otherwise.
 */
#pragma once
#include <jansson.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Runs the program at `path` with `argv` (its name first, null last) and waits for its end: for short
 * tools at start-up; the loop has evloop_process. The program inherits what is not closed on exec. With
 * `quiet` it starts without standard error; the first file that it opens may get that number.
 *
 * Returns:   the status of waitpid, undecoded: 0 for exit code 0; 256 for 1, and if it cannot be started,
 *            which is logged (not on a closed standard error).
 * Errors:    a negative errno: no process can be made, or its end is lost (a daemon ignores SIGCHLD).
 */
int execute(const char *path, char *const argv[], int quiet);

/*
 * Sends SIGTERM to each child of `parent`, the caller included if it is one, not to their children; does
 * not wait. It reads /proc: a child that comes meanwhile may be missed. One with a blank in its command
 * name is missed, or taken for another's.
 *
 * Returns:   0: all of /proc has been read.
 * Errors:    -1, logged. A child that cannot be signalled is logged; the rest are signalled.
 */
int kill_children(pid_t parent);

/*
 * Reads the console's device name: what follows the first "console=" in the first 255 characters of the
 * kernel's command line, "ttyS0" of "console=ttyS0,115200". It ends at the first comma, even of a later
 * parameter; without one at the first blank; without either at the end, line feed included.
 *
 * Returns:   text; null if there is none, or it cannot be read.
 * Ownership: the caller frees the text.
 */
char *get_tty(void);

/*
 * Points standard output (if `out`) and standard error (if `err`) at /dev/null, even closed ones. What
 * stdio still holds goes there, too: flush first.
 *
 * Returns:   0.
 * Errors:    -1 with errno set: /dev/null cannot be opened.
 */
int redir_to_devnull(int out, int err);

/* Returns:   1 if `array` is a JSON array of `type` only, or empty; else 0, also for null. */
int json_array_elements_type_check(const json_t *array, json_type type);

/*
 * Compares `hex` with the `length` bytes at `bin`.
 *
 * Returns:   1 for two lower-case digits a byte and nothing else; else 0, also for a negative length.
 */
int hex_bin_equal(const char *hex, const unsigned char *bin, int length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
