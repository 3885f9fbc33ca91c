/*
 * sock - listening and connecting TCP sockets over IPv4.
 *
 * The record belongs to the caller; start from zero bytes and set `flags`. Errors are returned,
 * never logged; after one, the record is as it was before. One thread.
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
 * `service` (a port number or a service's name), and watches it with the loop, which must have been
 * initialised. `backlog` connections may wait; one is accepted a pass. An address that a former
 * listener left in TIME_WAIT can be taken again.
 *
 * A connection that cannot be accepted is tried again on the next pass: with no descriptor left the
 * loop stays busy with that until one is closed. Whether the loop could watch the socket is not checked;
 * `io.registered` says.
 *
 * Returns: 0; -EOPNOTSUPP without SOCK_TCP; what resolving gives: -ENOMEM, -2 (EAI_NONAME, the
 *          resolver's own number) for an unknown name, -EINVAL otherwise; the failure of the last
 *          address tried: -errno, or on purpose the positive errno if its socket could not even be
 *          created.
 */
int sock_listen(struct sock *sock, const char *host, const char *service, int backlog);

/*
 * Opens a connected, blocking socket in `sock->io.fd`, for a stream to take up; nothing is watched.
 * It blocks while it resolves and connects; a `timeout_s` above 0 bounds, in seconds, the connecting
 * to each address, 0 or less sets no bound.
 *
 * Returns: as sock_listen, and -ETIMEDOUT when the bound is reached.
 */
int sock_connect(struct sock *sock, const char *host, const char *service, int timeout_s);

/*
 * Stops watching and closes the socket, of either kind. Returns the result of close: 0, or -1 with
 * errno set.
 */
int sock_close(struct sock *sock);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
