/*
 * The HTTP server of this library with the simplest handler: a head and a body, composed and written in one
 * piece.
 *
 * usage: http_apbase PORT BODY_BYTES
 */
#include <err.h>
#include <stdlib.h>
#include <string.h>

#include "lib/evloop.h"
#include "lib/httpd.h"
#include "lib/sock.h"

#define BODY_BYTES_MAX 1024

static char body[BODY_BYTES_MAX];
static int32_t body_bytes;

static int32_t answer(struct httpd_conn *conn)
{
	struct buffer *head = conn->res_head;
	int32_t failed = http_res_put_status_line(head, conn->version, 200, http_code_to_string(200));
	if (!failed)
		failed = httpd_common_headers(conn);
	if (!failed)
		failed = http_res_put_header(head, "Content-Type", "text/plain");
	if (!failed && conn->close_requested)
		failed = http_res_put_header(head, "Connection", "close");
	if (!failed)
		failed = http_res_put_header(head, "Content-Length", "%d", (int)body_bytes);
	if (failed || buffer_write(head, "\r\n", 2) != 2)
		return 0;
	buffer_write(head, body, body_bytes);
	stream_write(&conn->stream, head->data, (uint32_t)head->length);
	httpd_res_buffers_reset(conn);
	return 1;
}

int main(int argc, char **argv)
{
	static struct httpd_ctx ctx;
	static struct sock listener;
	if (argc != 3 || (body_bytes = atoi(argv[2])) < 0 || body_bytes > BODY_BYTES_MAX)
		errx(2, "usage: http_apbase PORT BODY_BYTES");
	memset(body, 'x', (size_t)body_bytes);
	if (evloop_init() < 0)
		err(1, "evloop_init");
	httpd_ctx_init(&ctx, answer);
	listener.flags = SOCK_TCP;
	listener.accept_cb = httpd_accept;
	listener.user = &ctx;
	int result = sock_listen(&listener, "127.0.0.1", argv[1], 1024);
	if (result != 0)
		errx(1, "port %s: %s", argv[1], strerror(abs(result)));
	return evloop_run();
}
