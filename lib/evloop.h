/*
 * evloop - descriptors, timeouts and child processes of a single-threaded daemon.
 *
 * One loop a process. Each pass runs every due timeout, reaps exited children (evloop-process.h), and
 * then dispatches at most one ready descriptor: timeouts and children wait for one callback at most.
 *
 * Every call is made on the loop's thread, from callbacks too, never in a signal handler (watch a
 * signalfd). Records are the caller's; nothing is allocated.
 */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Events: asked for, and reported. */
#define EVLOOP_READ  1
#define EVLOOP_WRITE 2

/* Events that one wait fetches, a batch; the rest stay in the kernel. */
#define EVLOOP_MAX_EVENTS 10

/*
 * Watches one descriptor; start from zero bytes. While it is registered the loop holds its address: call
 * evloop_io_delete before the descriptor is closed, or the record moved or released.
 *
 * The loop is level-triggered. An error or a hang-up is reported as both events, whatever was asked for;
 * the next read or write meets it. `cb` may add and delete any watcher, and release its own record after
 * deleting it; for others see evloop_io_delete.
 */
struct evloop_io {
	void (*cb)(struct evloop_io *io, unsigned int events); /* the caller's */
	int32_t fd;                                            /* the caller's */
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ /* the most significant bit of its byte, on either byte order */
	uint8_t registered : 1;            /* the loop's: the descriptor is in the epoll set */
	uint8_t reserved : 7;
#else
	uint8_t reserved : 7;
	uint8_t registered : 1;
#endif
	uint8_t flags; /* the loop's: the events last asked for */
};

/*
 * A one-shot timer; start from zero bytes. While `pending` the loop links to it, sorted: do not move,
 * copy or release it, or change `expires`.
 */
struct evloop_timeout {
	struct evloop_timeout *next, *prev;         /* the loop's; null while not pending */
	uint8_t pending;                            /* the loop's; read it freely */
	void (*cb)(struct evloop_timeout *timeout); /* the caller's; may be null */
	int64_t expires;                            /* microseconds of CLOCK_MONOTONIC */
};

/*
 * Creates the epoll descriptor, closed on exec, unless there is one. The two are the same.
 *
 * Call it before anything that watches a descriptor: evloop_io_add, sock_listen, streams, httpd. Without
 * it nothing is watched, mostly without an error, and evloop_run logs one a pass without a pause.
 * Timeouts and children need it only to run.
 *
 * Returns:   0.
 * Errors:    -1 with errno set; the next call tries again.
 */
int evloop_init(void) __attribute__((warn_unused_result));
int evloop_io_init(void) __attribute__((warn_unused_result));

/*
 * Watches `io->fd` for `flags` (EVLOOP_READ, EVLOOP_WRITE; 0: errors and hang-ups only), or changes what
 * a registered watcher asks for.
 *
 * Returns:   0.
 * Errors:    -EINVAL: `io->cb` is null, nothing has changed; -1 with errno set: the kernel refuses, and
 *            `io->flags` is changed all the same.
 */
int evloop_io_add(struct evloop_io *io, unsigned int flags);

/*
 * Stops watching. Delete before closing, and only what was added: the kernel goes by the descriptor's
 * number, which may be another watcher's.
 *
 * Events of its descriptor and record in the batch are dropped, but one near the end may still come. So
 * a callback that deletes another watcher sets that `cb` to null, and keeps the record for
 * EVLOOP_MAX_EVENTS passes, when the batch is over (it outlives evloop_run). Streams, connections and
 * sockets of this library do so themselves: compatibility, scan bound
 *
 * Returns:   0.
 * Errors:    -1 with errno set, also if the watcher was never registered.
 */
int evloop_io_delete(struct evloop_io *io);

/*
 * Runs passes until evloop_end; may be called again, not from a callback. A pass waits until the next
 * timeout at most, or 500 milliseconds without one.
 *
 * Returns:   0.
 */
int evloop_run(void);

/* Makes evloop_run return, before its next wait at the latest. No effect before evloop_run. */
void evloop_end(void);

/*
 * Cancels every timeout and child watcher, without callbacks. Watchers of descriptors stay, and the epoll
 * descriptor, for a later evloop_init.
 */
void evloop_done(void);

/*
 * Dispatches at most one descriptor. With an empty batch it first waits up to `timeout_ms` milliseconds
 * (-1: for ever, 0: not at all).
 *
 * Errors:    a failing wait is logged, except for EINTR.
 */
void evloop_handle_ios(int timeout_ms);

/*
 * Starts a timer with the `expires` that its owner has set. Timers fire in the order of `expires`, as
 * unsigned numbers; equal ones in the order of adding.
 *
 * Returns:   0; -1: already pending, nothing has changed.
 */
int evloop_timeout_add(struct evloop_timeout *timeout);

/*
 * Stops a timer.
 *
 * Returns:   0; -1: not pending, nothing has changed.
 */
int evloop_timeout_cancel(struct evloop_timeout *timeout);

/*
 * Makes `timeout` fire once, `delay_ms` milliseconds from now; a pending one is moved. With 0 it is due
 * on the next pass, never inside this call; if the clock still reads as when the running pass began, a
 * microsecond later. An expiry beyond 64 bits wraps.
 *
 * Returns:   0.
 * Ownership: the loop borrows the record until it fires or is cancelled.
 * Callbacks: `cb` runs with the timeout no longer pending: it may set it again, or release the record.
 */
int evloop_timeout_set(struct evloop_timeout *timeout, int64_t delay_ms);

/*
 * Reads the time until `expires`, pending or not.
 *
 * Returns:   whole seconds (1500 ms: 1), 0 once it has passed. Only the low 32 bits of the microseconds
 *            count, signed: it wraps beyond 35 minutes.
 */
int32_t evloop_timeout_remaining(struct evloop_timeout *timeout);

/* Returns:   milliseconds until the first timeout, truncated, at most INT32_MAX; 0: due; -1: none. */
int32_t evloop_get_next_timeout(void);

/*
 * Runs every timeout that is due at the moment of the call.
 *
 * Callbacks: what they set with a delay of 0 or more waits for the next call; what they add with a past
 *            `expires` does not.
 */
void evloop_handle_timeouts(void);

/* Cancels every timeout without calling its callback. */
void evloop_clean_timeouts(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
