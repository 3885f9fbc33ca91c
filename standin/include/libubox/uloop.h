/*
 * uloop - a small event loop: descriptors and one-shot timers of a single-threaded process.
 *
 * Records belong to the caller and start from zero bytes; while registered or pending the loop links to
 * them. Functions that return a number return 0, or -1 on failure.
 */
#pragma once
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include "list.h"

#pragma GCC visibility push(default)

#define ULOOP_READ     (1 << 0)
#define ULOOP_WRITE    (1 << 1)
#define ULOOP_BLOCKING (1 << 3) /* uloop_fd_add leaves the descriptor's blocking mode alone */

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd *fd, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *timeout);

struct uloop_fd {
	uloop_fd_handler cb; /* may delete and release any record, its own included */
	int fd;
	bool eof;
	bool error;
	bool registered;
	uint8_t flags;
};

struct uloop_timeout {
	struct list_head list;
	bool pending;
	uloop_timeout_handler cb; /* called when no longer pending: may set it again or release the record */
	struct timeval time;      /* of CLOCK_MONOTONIC */
};

/*
 * Opens the loop, unless it is open: an epoll descriptor and a pipe, both closed on exec. SIGINT and SIGTERM
 * then end the loop and SIGCHLD wakes it, where these had their default action; SIGPIPE is ignored where it
 * had its own.
 */
int uloop_init(void);

/* Serves descriptors and timers until uloop_end; the number of the signal that ended it, or 0. */
int uloop_run(void);
void uloop_end(void);

/* Closes the loop's descriptors and gives the signals their default actions back. */
void uloop_done(void);

/* Watches `fd->fd` for the events in `flags`; again for an added one: with these flags from now on. */
int uloop_fd_add(struct uloop_fd *fd, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *fd);

/* Makes a timer pending that is not, due at `timeout->time`; -1 if it is pending. */
int uloop_timeout_add(struct uloop_timeout *timeout);

/* Makes a timer due in `ms` milliseconds, pending or not. */
int uloop_timeout_set(struct uloop_timeout *timeout, int ms);

/* -1 if it was not pending. */
int uloop_timeout_cancel(struct uloop_timeout *timeout);

#pragma GCC visibility pop
