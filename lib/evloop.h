/*
 * evloop - descriptors, timeouts and child processes of a single-threaded daemon.
 *
 * One loop a process. Each pass runs every due timeout, reaps exited children (evloop-process.h),
 * and then dispatches at most one ready descriptor: however busy the descriptors are, timeouts and
 * children are looked after between any two of their callbacks.
 *
 * Every call is made on the loop's thread, from callbacks too; none is safe in a signal handler
 * (watch a signalfd). Records belong to the caller, who embeds them in records of their own and
 * finds those again from the address a callback is given. Nothing is allocated here.
 */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Events asked for, and events reported to a callback. */
#define EVLOOP_READ  1
#define EVLOOP_WRITE 2

/* Descriptors fetched by one wait; the rest stay in the kernel until the next. */
#define EVLOOP_MAX_EVENTS 10

/*
 * Watches one descriptor; start from zero bytes, set `cb` and `fd`.
 * While registered the loop holds its address: before its descriptor is closed, or its memory moved
 * or released, call evloop_io_delete.
 *
 * The loop is level-triggered: `cb` is called as long as the descriptor is ready. An error or a
 * hang-up is reported as EVLOOP_READ and EVLOOP_WRITE together, whatever was asked for, so that the
 * next read or write meets it. `cb` may add and delete any watcher, its own included, and release its
 * own record after deleting it; for the record of another see evloop_io_delete.
 */
struct evloop_io {
	void (*cb)(struct evloop_io *io, unsigned int events);
	int32_t fd;
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
 * A one-shot timer, embedded in the record it serves; start from zero bytes and set `cb`.
 * While `pending` the loop links to it, sorted: do not move, copy or release it, or change `expires`.
 */
struct evloop_timeout {
	struct evloop_timeout *next, *prev;         /* the loop's; null while not pending */
	uint8_t pending;                            /* the loop's; read it freely */
	void (*cb)(struct evloop_timeout *timeout); /* the caller's; may be null */
	int64_t expires;                            /* microseconds of CLOCK_MONOTONIC */
};

/*
 * Creates the epoll descriptor (closed on exec) unless there is one. Returns 0, or -1 with errno
 * set; the next call tries again. The two are the same.
 *
 * Call it before anything that watches a descriptor: evloop_io_add, sock_listen, streams, connections of the
 * HTTP server. Without it none of them is watched, which most do not report, and evloop_run logs an error
 * a pass, without a pause. Timeouts and child processes need it only to run.
 */
int evloop_init(void) __attribute__((warn_unused_result));
int evloop_io_init(void) __attribute__((warn_unused_result));

/*
 * Watches `io->fd` for `flags` (EVLOOP_READ, EVLOOP_WRITE; 0 keeps it in the set, reporting only
 * errors and hang-ups), or changes what a registered watcher asks for.
 *
 * Returns: 0; -EINVAL if `io->cb` is null, and nothing has changed; -1 with errno set, not a
 *          negated errno, if the kernel refuses. `io->flags` then holds the new value.
 */
int evloop_io_add(struct evloop_io *io, unsigned int flags);

/*
 * Stops watching. An event of the descriptor, or of this record if its `fd` was changed since, may have
 * been fetched and wait for its turn. It is dropped if its place in the batch is below the number of
 * events that still wait. Once part of a batch has been dispatched, events towards its end may still
 * reach `io->cb` after this call. So where a callback deletes
 * the watcher of another descriptor, set `cb` to null to have it left alone, and keep the record for
 * EVLOOP_MAX_EVENTS further passes, after which the batch is over (evloop_run returning does not end it).
 * Streams, connections and listening sockets of this library take care of themselves.
 *
 * The kernel knows watchers by descriptor: delete before closing it, since the number may come back, and
 * never delete a watcher that was not added, which may take another off the loop.
 *
 * Returns: 0, or -1 with errno set (also when the watcher was never registered).
 */
int evloop_io_delete(struct evloop_io *io);

/*
 * Runs passes until evloop_end; returns 0. It waits no longer than until the next timeout, and no
 * longer than 500 milliseconds when there is none, so that children are noticed then. It may be called
 * again later, not from a callback.
 */
int evloop_run(void);

/*
 * Makes evloop_run return at its next check: before it would wait, at the latest. Before
 * evloop_run it has no effect.
 */
void evloop_end(void);

/*
 * Cancels every timeout and deletes every child watcher, without calling their callbacks. Watchers
 * of descriptors, and the epoll descriptor itself, stay: a later evloop_init uses it again.
 */
void evloop_done(void);

/*
 * One descriptor's turn, as evloop_run takes it: waits up to `timeout_ms` milliseconds (-1: for
 * ever, 0: not at all) unless fetched events still wait, and dispatches at most one. A failing wait
 * is logged, except for EINTR.
 */
void evloop_handle_ios(int timeout_ms);

/*
 * Starts a timer with the `expires` its owner has set. Timeouts fire in the order of `expires`,
 * compared as unsigned numbers; among equals, in the order in which they were added. Adding walks
 * the sorted list from both ends at once, so that neither the usual delays nor immediate ones walk
 * past the many that idle connections keep.
 *
 * Returns: 0, or -1 if it is already pending, and nothing has changed.
 */
int evloop_timeout_add(struct evloop_timeout *timeout);

/* Stops a timer. Returns 0, or -1 if it is not pending, and nothing has changed. */
int evloop_timeout_cancel(struct evloop_timeout *timeout);

/*
 * Makes `timeout` fire once, `delay_ms` milliseconds from now; a pending one is moved. With 0 it
 * is due on the loop's next pass: set by a timeout's callback, it expires a microsecond later if the clock
 * still reads the same as when the pass began. It never fires inside this call. An expiry that 64 bits
 * cannot hold wraps.
 *
 * Returns:   0; nothing is allocated, nothing can fail.
 * Ownership: the caller keeps the record; the loop borrows it until it fires or is cancelled.
 * Callbacks: callable from any. `cb` runs with the timeout no longer pending, so it may set it
 *            again or release the record around it.
 */
int evloop_timeout_set(struct evloop_timeout *timeout, int64_t delay_ms);

/*
 * Whole seconds until `expires` (although delays are set in milliseconds: 1500 ms
 * reads 1), 0 once it has passed. It does not look at `pending`: a timer that has fired or was
 * cancelled answers from its old `expires`. Only the low 32 bits of the difference count, as a
 * signed number, so the answer wraps for timers more than 35 minutes away.
 */
int32_t evloop_timeout_remaining(struct evloop_timeout *timeout);

/*
 * Milliseconds, truncated, until the first timeout: 0 if it is due, -1 if there is none, at most
 * INT32_MAX.
 */
int32_t evloop_get_next_timeout(void);

/*
 * Runs every timeout that is due at the moment of the call. What a callback sets with a delay of 0
 * or more (evloop_timeout_set) is left for the next call; what it adds with an `expires` in the past is not.
 */
void evloop_handle_timeouts(void);

/* Cancels every timeout without calling its callback. */
void evloop_clean_timeouts(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
