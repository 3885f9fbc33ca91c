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
 * Runs the program at `path` with the arguments `argv` (ended by null, the first one its name) and waits
 * for its end, however long that takes: for short tools at start-up, not for the event loop, which has
 * evloop_process. With `quiet` the program starts without a standard error; the first file that it opens
 * may then get that number. It inherits everything else that is not closed on exec.
 *
 * Returns: the status as waitpid gives it, not decoded: 0 if the program exited with 0, 256 if with 1,
 *          as also when it cannot be started, which is logged (but not to a standard error that is
 *          closed). A negative errno if no process can be made, or if what became of it cannot be learnt
 *          (a daemon that ignores SIGCHLD).
 */
int execute(const char *path, char *const argv[], int quiet);

/*
 * Sends SIGTERM to each child of the process `parent`, the caller included if it is one, not to their
 * children, and does not wait for them. It reads /proc, so a child that is made or ends meanwhile is
 * found or not. One that cannot be signalled is logged and does not stop the rest. The parent is taken
 * from the fourth word of /proc/<pid>/stat, and a child whose command name holds a blank is thus missed,
 * or taken for another's.
 *
 * Returns: 0 if all of /proc has been read, else -1, which is logged.
 */
int kill_children(pid_t parent);

/*
 * The console's device name from the kernel's command line ("ttyS0" of "console=ttyS0,115200"): of its
 * first 255 characters what follows the first "console=". It ends at the first comma, even
 * one in a later parameter; only without any comma at the first blank; and without either it is the rest,
 * the line feed included.
 *
 * Returns text that the caller frees, or null if there is no console on it, or it cannot be read.
 */
char *get_tty(void);

/*
 * Points standard output (if `out` is not 0) and standard error (if `err` is not 0) at /dev/null, closed
 * before or not. What stdio still holds goes there, too: flush first.
 *
 * Returns: 0, or -1 with errno set if /dev/null cannot be opened.
 */
int redir_to_devnull(int out, int err);

/*
 * 1 if `array` is a JSON array whose elements are all of `type`, an empty one included; else 0, also for
 * null.
 */
int json_array_elements_type_check(const json_t *array, json_type type);

/*
 * 1 if `hex` spells the `length` bytes at `bin`, two digits a byte and nothing else; else 0, also for a
 * negative length. Digits in upper case never match.
 */
int hex_bin_equal(const char *hex, const unsigned char *bin, int length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
