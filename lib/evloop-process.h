/*
 * evloop-process - tells a daemon that a child process has exited.
 *
 * The loop (evloop.h) reaps exited children on every pass, without a signal handler. It reaps every
 * child of the process, watched or not, so a daemon that runs the loop must not wait for children
 * by other means. A child is noticed on the loop's next pass: with the next event or timeout, or within
 * 500 milliseconds when no timeout is set. A daemon with long timeouts (an open HTTP connection has
 * one) that wants to know at once watches a signalfd of SIGCHLD, just to wake the loop.
 *
 * Records belong to the caller; nothing is allocated. One thread.
 * Failures are negated errno values.
 */
#pragma once
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Watches one child; start from zero bytes, set `pid` and `cb`.
 * While `pending` the loop links to it: do not move, copy or release it.
 *
 * `cb` is called once, after the child has been reaped, with the watcher no longer pending: it may
 * add it again for another child, or release the record around it. `exit_status` is the child's
 * exit code read as a signed 8-bit number, so 128 to 255 arrive as -128 to -1, and a child that a
 * signal ended arrives as 0.
 */
struct evloop_process {
	struct evloop_process *next, *prev;                          /* the loop's; null while not pending */
	uint8_t pending;                                             /* the loop's */
	pid_t pid;                                                   /* the caller's; set it before adding */
	void (*cb)(struct evloop_process *process, int exit_status); /* the caller's; may be null */
};

/*
 * Starts watching `process->pid`.
 * Returns: 0; -EINVAL if it is already pending; -EEXIST if another watcher has the same pid.
 */
int evloop_process_add(struct evloop_process *process);

/*
 * Stops watching; the child is neither signalled nor waited for.
 * Returns: 0, or -EINVAL if it is not pending.
 */
int evloop_process_delete(struct evloop_process *process);

/*
 * Sends SIGKILL to `process->pid` and stops watching it; the loop reaps the child later. For a pending
 * watcher only: it signals in any case, and once the child has been reaped its pid may be another's. A pid
 * of 0 or less, which would name a whole group of processes, is not signalled. Null ends the process with
 * an assertion. Returns: as evloop_process_delete.
 */
int evloop_process_kill_and_delete(struct evloop_process *process);

/* 1 while watched, else 0. Null ends the process with an assertion. */
int evloop_process_is_pending(struct evloop_process *process);

/* Stops watching every child, without signals and without callbacks. */
void evloop_clean_processes(void);

/*
 * Reaps every child that has exited, and calls the callbacks of those that are watched. Never
 * blocks. evloop_run calls it once a pass.
 */
void evloop_handle_processes(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
