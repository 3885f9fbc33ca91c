/*
 * libevent's HTTP server, answering every request with the same page.
 *
 * usage: http_evhttp PORT BODY_BYTES
 */
#include <err.h>
#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#define BODY_BYTES_MAX 1024
#define IDLE_TIMEOUT_S 60 /* like the other servers */

static char body[BODY_BYTES_MAX];
static size_t body_bytes;

static void answer(struct evhttp_request *request, void *user)
{
	(void)user;
	/* Straight into the output buffer: no way of the interface copies less. */
	evbuffer_add(evhttp_request_get_output_buffer(request), body, body_bytes);
	evhttp_send_reply(request, 200, "OK", NULL);
}

int main(int argc, char **argv)
{
	if (argc != 3 || (body_bytes = (size_t)atoi(argv[2])) > BODY_BYTES_MAX)
		errx(2, "usage: http_evhttp PORT BODY_BYTES");
	memset(body, 'x', body_bytes);
	signal(SIGPIPE, SIG_IGN);
	struct event_base *base = event_base_new();
	struct evhttp *http = base ? evhttp_new(base) : NULL;
	if (!http)
		errx(1, "out of memory");
	evhttp_set_timeout(http, IDLE_TIMEOUT_S);
	evhttp_set_gencb(http, answer, NULL);
	struct evhttp_bound_socket *bound =
		evhttp_bind_socket_with_handle(http, "127.0.0.1", (uint16_t)atoi(argv[1]));
	if (!bound)
		errx(1, "port %s: cannot be listened at", argv[1]);
	/* Accepted sockets inherit it. Without it pipelined answers wait for delayed acknowledgements. */
	int on = 1;
	setsockopt(evhttp_bound_socket_get_fd(bound), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
	event_base_dispatch(base);
	return 1;
}
