// Listening and connecting share one walk over the resolver's addresses. Only the last step differs, which makes a
// fresh socket listen or connect. A stable connection is a timer around two functions of the daemon's.

#include "sock.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/evloop.h"
#include "internal/intrusive.h"
#include "internal/nonblocking.h"
#include "internal/owned.h"
#include "log.h"

// One call of sock_listen or sock_connect: everything but the address that is tried.
struct attempt {
	struct sock *sock;
	int backlog;   // of a listening socket
	int timeout_s; // of a connecting one; 0 or less: no limit
};

using owned_addresses = owned<addrinfo *, nullptr, freeaddrinfo>;

// Accepts one connection. The loop calls again for the next one, and after a failure.
static void on_connection(evloop_io *io, unsigned int)
{
	struct sock *s = owner_of(io, &sock::io);
	sockaddr_in peer = {};
	socklen_t peer_size = sizeof peer;
	int cloexec = s->flags & SOCK_KEEP_ON_EXEC ? 0 : SOCK_CLOEXEC;
	int fd = accept4(io->fd, reinterpret_cast<sockaddr *>(&peer), &peer_size, SOCK_NONBLOCK | cloexec);
	if (fd >= 0 && s->accept_cb)
		s->accept_cb(fd, peer.sin_addr.s_addr, s->user);
}

static int start_listening(const attempt *a, const addrinfo *address, owned_fd fd)
{
	int on = 1;
	setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
	if (bind(fd.get(), address->ai_addr, address->ai_addrlen) < 0 || listen(fd.get(), a->backlog) < 0)
		return -errno;
	make_nonblocking(fd.get());
	a->sock->io.fd = fd.give();
	a->sock->io.cb = on_connection;
	evloop_io_add(&a->sock->io, EVLOOP_READ);
	return 0;
}

static void set_send_timeout(int fd, int seconds)
{
	struct timeval time = {};
	time.tv_sec = seconds;
	setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

// SO_SNDTIMEO limits a blocking connect as well.
static int start_connection(const attempt *a, const addrinfo *address, owned_fd fd)
{
	bool limited = a->timeout_s > 0;
	if (limited)
		set_send_timeout(fd.get(), a->timeout_s);
	if (connect(fd.get(), address->ai_addr, address->ai_addrlen) == 0) {
		if (limited)
			set_send_timeout(fd.get(), 0);
		a->sock->io.fd = fd.give();
		return 0;
	}
	int error = errno;
	if (!limited || (error != EAGAIN && error != EINPROGRESS))
		return -error;
	// Its owner closes it once more: compatibility, second close
	close(fd.get());
	return -ETIMEDOUT;
}

using start_fn = int (*)(const attempt *a, const addrinfo *address, owned_fd fd);

static int try_addresses(const attempt *a, const addrinfo *addresses, start_fn start)
{
	int cloexec = a->sock->flags & SOCK_KEEP_ON_EXEC ? 0 : SOCK_CLOEXEC;
	int result = -EINVAL;
	for (const addrinfo *address = addresses; address; address = address->ai_next) {
		owned_fd fd{socket(address->ai_family, address->ai_socktype | cloexec, address->ai_protocol)};
		if (!fd.ok()) {
			result = errno; // compatibility, positive errno
			continue;
		}
		result = start(a, address, static_cast<owned_fd &&>(fd));
		if (result == 0)
			break;
	}
	return result;
}

static int resolver_error(int code)
{
	switch (code) {
	case EAI_MEMORY:
		return -ENOMEM;
	case EAI_NONAME:
		return EAI_NONAME; // compatibility, resolver number
	default:
		return -EINVAL;
	}
}

static int open_socket(const attempt *a, const char *host, const char *service, start_fn start)
{
	if (!(a->sock->flags & SOCK_TCP))
		return -EOPNOTSUPP;
	addrinfo hints = {};
	hints.ai_flags = AI_PASSIVE;
	hints.ai_family = AF_INET;
	hints.ai_socktype = SOCK_STREAM;
	addrinfo *found = nullptr;
	int code = getaddrinfo(host, service, &hints, &found);
	if (code != 0)
		return resolver_error(code);
	owned_addresses addresses{found};
	return try_addresses(a, addresses.get(), start);
}

int sock_listen(struct sock *sock, const char *host, const char *service, int backlog)
{
	attempt a = {.sock = sock, .backlog = backlog, .timeout_s = 0};
	return open_socket(&a, host, service, start_listening);
}

int sock_connect(struct sock *sock, const char *host, const char *service, int timeout_s)
{
	attempt a = {.sock = sock, .backlog = 0, .timeout_s = timeout_s};
	return open_socket(&a, host, service, start_connection);
}

int sock_close(struct sock *sock)
{
	evloop_io_delete(&sock->io);
	evloop_forget(&sock->io);
	return close(sock->io.fd);
}

static void retry_later(stable_connection *c)
{
	c->retry_pending = 1;
	evloop_timeout_set(&c->timer, c->retry_delay);
}

static void on_retry(evloop_timeout *timer)
{
	stable_connection *c = owner_of(timer, &stable_connection::timer);
	c->retry_pending = 0;
	start_stable_connection(c);
}

void init_stable_connection(struct stable_connection *c, int retry_delay_ms)
{
	c->retry_delay = retry_delay_ms;
	c->timer.cb = on_retry;
}

int start_stable_connection(struct stable_connection *c)
{
	if (!c->connect) {
		_log(LOG_ERR,
			"stable_connection: start w/ NULL connect cb, abort\n"); // compatibility, no abort
		return -EINVAL;
	}
	if (c->retry_pending) // and stays set: compatibility, retry flag
		evloop_timeout_cancel(&c->timer);
	if (c->connect() != 0) {
		retry_later(c);
		return -EAGAIN;
	}
	c->connected = 1;
	return c->on_connected ? c->on_connected() : 0;
}

int stable_connection_lost(struct stable_connection *c)
{
	c->connected = 0;
	retry_later(c);
	return 0;
}
