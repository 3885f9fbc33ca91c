/*
 * sock - listening and connecting TCP sockets over IPv4, and a connection of any kind that comes back.
 *
 * The records belong to the caller; start from zero bytes. Errors of sockets are returned, never
 * logged; after one, the record is as it was before. One thread.
 *
 * evloop_init comes first (evloop.h): sock_listen, streams and whatever else watches a descriptor use the
 * loop's set, and do not create it.
 */
#pragma once
#include <stdint.h>

#include "evloop.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bits of `flags`. */
#define SOCK_KEEP_ON_EXEC 1 /* leave the listening, connected and accepted descriptors open on exec */
#define SOCK_TCP          2 /* required: TCP is the only kind there is */

/* A socket; set `flags`. */
struct sock {
	struct evloop_io io; /* `io.fd` is the socket after success; its `cb` accepts, when listening */
	/*
	 * Called for each accepted connection, from the loop; set it before or after sock_listen. It owns
	 * `fd`, which is non-blocking, from then on; while it is null, accepted descriptors stay open and
	 * unused. `address` is the peer's, in network byte order. It may call sock_close and release
	 * the record.
	 */
	void (*accept_cb)(int fd, uint32_t address, void *user);
	void *user;    /* handed to `accept_cb` */
	uint8_t flags; /* set by the caller */
};

/*
 * Opens a socket that listens at `host` (an address or a name; null for every address) and
 * `service` (a port number or a service's name), and watches it with the loop. `backlog` connections may
 * wait; one is accepted a pass. An address that a former listener left in TIME_WAIT can be taken again.
 *
 * Whether the loop could watch the socket is not checked. Without evloop_init it could not: the result is
 * still 0, the kernel takes connections, and nobody accepts them. `io.registered` says.
 *
 * A connection that cannot be accepted is tried again on the next pass: with no descriptor left the
 * loop stays busy with that until one is closed.
 *
 * Returns: 0; -EOPNOTSUPP without SOCK_TCP; what resolving gives: -ENOMEM, -2 (EAI_NONAME, the
 *          resolver's own number) for an unknown name, -EINVAL otherwise; the failure of the last
 *          address tried: -errno, or the positive errno if its socket could not even be
 *          created.
 */
int sock_listen(struct sock *sock, const char *host, const char *service, int backlog)
	__attribute__((warn_unused_result));

/*
 * Opens a connected, blocking socket in `sock->io.fd`, for a stream to take up; nothing is watched.
 * It blocks while it resolves and connects; a `timeout_s` above 0 bounds, in seconds, the connecting
 * to each address, 0 or less sets no bound.
 *
 * Returns: as sock_listen, and -ETIMEDOUT when the bound is reached.
 */
int sock_connect(struct sock *sock, const char *host, const char *service, int timeout_s)
	__attribute__((warn_unused_result));

/*
 * Stops watching and closes the socket, of either kind. Returns the result of close: 0, or -1 with
 * errno set.
 */
int sock_close(struct sock *sock);

/*
 * Keeps a daemon connected to a service. The daemon says how to connect, and when the connection has
 * gone; between attempts always the same delay passes. Start from zero bytes, set `connect` and perhaps
 * `on_connected`, and call init_stable_connection. Nothing is allocated; a daemon that gives up cancels
 * `timer` itself, and keeps the record until then.
 */
struct stable_connection {
	int (*connect)(void);      /* connects: 0, or anything else for a failure */
	int (*on_connected)(void); /* called when that went well; may be null */
	uint8_t connected;         /* set by a successful connect, cleared by stable_connection_lost */
	uint8_t retry_pending; /* a retry is due; see start_stable_connection for when it is out of date */
	struct evloop_timeout timer; /* the retry */
	int32_t retry_delay;         /* milliseconds */
};

/* Sets the delay before a retry, in milliseconds, and prepares the timer. */
void init_stable_connection(struct stable_connection *c, int retry_delay_ms);

/*
 * Connects now, in the caller's time, instead of the retry that may be due. In that
 * case it leaves `retry_pending` set, although no timer runs any more if it succeeds; the timer's own
 * attempts clear it. Failures are not logged.
 *
 * Returns:   what `on_connected` returns, 0 without one; -EAGAIN if `connect` failed, which will be
 *            tried again after the delay; -EINVAL, logged, without a `connect`: nothing is tried, and
 *            nothing else changes.
 * Callbacks: both run inside, and may call stable_connection_lost. `on_connected` may also release the
 *            record.
 */
int start_stable_connection(struct stable_connection *c);

/*
 * The connection has gone: `connect` will be called after the full delay, even if a retry was due
 * earlier. Never calls back. Returns 0.
 */
int stable_connection_lost(struct stable_connection *c);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
