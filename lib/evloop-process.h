/*
 * evloop-process - tells a daemon that a child process has exited.
 *
 * The loop (evloop.h) reaps every exited child on each pass, watched or not: do not wait for children by
 * other means. A pass comes with an event or timeout, or after 500 milliseconds without a timeout. To
 * know at once in spite of long timeouts (httpd has them), watch a signalfd of SIGCHLD.
 *
 * One thread. Records are the caller's; nothing is allocated. Failures are negated errno values.
 */
#pragma once
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Watches one child; start from zero bytes. While `pending` the loop links to it: do not move, copy or
 * release it.
 *
 * `cb` is called once, when the child has been reaped. The watcher is not pending then, and may be added
 * again or released. `exit_status` is the exit code as a signed 8-bit number (255: -1), or 0 if a signal
 * ended the child.
 */
struct evloop_process {
	struct evloop_process *next, *prev;                          /* the loop's; null while not pending */
	uint8_t pending;                                             /* the loop's; read it freely */
	pid_t pid;                                                   /* the caller's; set it before adding */
	void (*cb)(struct evloop_process *process, int exit_status); /* the caller's; may be null */
};

/*
 * Starts watching `process->pid`.
 *
 * Returns:   0.
 * Errors:    -EINVAL: already pending; -EEXIST: another watcher has this pid.
 */
int evloop_process_add(struct evloop_process *process);

/*
 * Stops watching; the child is neither signalled nor waited for.
 *
 * Returns:   0.
 * Errors:    -EINVAL: not pending.
 */
int evloop_process_delete(struct evloop_process *process);

/*
 * Sends SIGKILL to the child and stops watching; the loop reaps it. For a pending watcher only: it
 * signals in any case, and a reaped child's pid may be another's. A pid of 0 or less (a group) is not
 * signalled.
 *
 * Returns:   0.
 * Errors:    -EINVAL: not pending. Null is an assertion that fails.
 */
int evloop_process_kill_and_delete(struct evloop_process *process);

/* Returns:   1 while watched, else 0. Null is an assertion that fails. */
int evloop_process_is_pending(struct evloop_process *process);

/* Stops watching every child, without signals or callbacks. */
void evloop_clean_processes(void);

/* Reaps exited children and calls their watchers' callbacks; never blocks. Part of each pass. */
void evloop_handle_processes(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
