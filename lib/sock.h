/*
 * sock - listening and connecting TCP sockets over IPv4, and a connection of any kind that comes back.
 *
 * One thread; call evloop_init first (evloop.h). Records are the caller's; start from zero bytes. Errors
 * of sockets are returned, never logged, and leave the record as it was.
 */
#pragma once
#include <stdint.h>

#include "evloop.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bits of `flags`. */
#define SOCK_KEEP_ON_EXEC 1 /* listening, connected and accepted descriptors stay open on exec */
#define SOCK_TCP          2 /* required: the only kind */

/* A socket; set `flags`. */
struct sock {
	struct evloop_io io; /* `io.fd` is the socket after success */
	/*
	 * Called for each accepted connection; set before or after sock_listen. It owns `fd`, which is
	 * non-blocking; while it is null, accepted descriptors stay open and unused. `address` is the
	 * peer's, in network byte order. It may call sock_close and release the record.
	 */
	void (*accept_cb)(int fd, uint32_t address, void *user);
	void *user;    /* handed to `accept_cb` */
	uint8_t flags; /* SOCK_*; the caller's */
};

/*
 * Listens at `host` (an address or name; null: every address) and `service` (a port or name). The loop
 * accepts one connection a pass; `backlog` more may wait. An address in TIME_WAIT can be taken again.
 *
 * Without evloop_init nobody accepts: the result is 0, but `io.registered` stays 0. A connection that
 * cannot be accepted is tried again on each pass: without a free descriptor the loop stays busy.
 *
 * Returns:   0.
 * Errors:    -EOPNOTSUPP without SOCK_TCP. Resolving: -ENOMEM; -2 (the resolver's EAI_NONAME) for an
 *            unknown name; else -EINVAL. The last address tried: -errno, or the positive errno if its
 *            socket could not be created.
 */
int sock_listen(struct sock *sock, const char *host, const char *service, int backlog)
	__attribute__((warn_unused_result));

/*
 * Opens a connected, blocking socket in `sock->io.fd`, for a stream to take up; nothing is watched.
 * Resolving and connecting block. A `timeout_s` above 0 bounds connecting to each address, in seconds.
 *
 * Returns:   0.
 * Errors:    as sock_listen; -ETIMEDOUT when the bound is reached.
 */
int sock_connect(struct sock *sock, const char *host, const char *service, int timeout_s)
	__attribute__((warn_unused_result));

/*
 * Stops watching and closes the socket, of either kind.
 *
 * Returns:   the result of close: 0, or -1 with errno set.
 */
int sock_close(struct sock *sock);

/*
 * Keeps a daemon connected: the daemon connects, and reports a loss; attempts are the same delay apart.
 * Set `connect` and perhaps `on_connected`, and call init_stable_connection. To give up, cancel `timer`;
 * keep the record until then.
 */
struct stable_connection {
	int (*connect)(void);        /* connects; 0: done, anything else: failed */
	int (*on_connected)(void);   /* called after that; may be null */
	uint8_t connected;           /* set by a successful connect, cleared by stable_connection_lost */
	uint8_t retry_pending;       /* a retry is due, or was: see start_stable_connection */
	struct evloop_timeout timer; /* the retry */
	int32_t retry_delay;         /* milliseconds */
};

/* Sets the delay before a retry, in milliseconds, and prepares the timer. */
void init_stable_connection(struct stable_connection *c, int retry_delay_ms);

/*
 * Connects now, instead of a retry that is due. `retry_pending` stays set then, although after a success
 * no timer runs; the timer's own attempts clear it.
 *
 * Returns:   the result of `on_connected`, 0 without one.
 * Errors:    -EAGAIN: `connect` failed, unlogged; it is tried again after the delay. -EINVAL, logged: no
 *            `connect`, nothing changes.
 * Callbacks: both run inside, and may call stable_connection_lost. `on_connected` may release the record.
 */
int start_stable_connection(struct stable_connection *c);

/*
 * Reports the loss: `connect` is called after the full delay, even if a retry was due earlier.
 *
 * Returns:   0.
 * Callbacks: none runs inside.
 */
int stable_connection_lost(struct stable_connection *c);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
