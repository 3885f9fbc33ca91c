/*
 * httpd - a small HTTP/1.0 and HTTP/1.1 server inside a daemon's event loop.
 *
 * The daemon gives accepted descriptors to httpd_accept (the `accept_cb` of sock.h). The server calls the
 * daemon's handler with each request, and keeps or closes the connection. README.md has a whole daemon.
 * One thread; call evloop_init first.
 *
 * A BODY WHOSE LENGTH IS NOT UNDERSTOOD IS PARSED AS THE NEXT REQUEST, whoever wrote it. Only
 * "Content-Length" in this spelling counts, not "content-length", not chunks. A handler that changes
 * anything refuses such requests and returns 0: docs/recipes.md, "Handle any client".
 *
 * Head and body have at most 66560 bytes each; more is answered 400. All that has arrived when a head is
 * parsed, body and further requests, counts with it: do not rely on more for head and body together. Also
 * answered 400: different values of "Content-Length", a zero byte in a header's name, and hundreds of
 * names chosen to collide in the table.
 *
 * A connection ends after 60 seconds without a byte from the peer; while answers wait for the peer,
 * without a byte taken by it. HTTP/1.1 without "Connection: close" keeps it open, unless a request is
 * refused or the handler ends it.
 *
 * Reading stops at HTTPD_RX_BYTES_MAX received bytes until requests are answered; reading and answering
 * stop while HTTPD_TX_BYTES_STALL bytes of answers are not taken. The table of headers takes up to ten
 * times the bytes of a head.
 */
#pragma once
#include <stdarg.h>
#include <stdint.h>

#include "buffer.h"
#include "evloop.h"
#include "htable.h"
#include "stream.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A request is refused from this many bytes on: of head, and of "Content-Length". */
#define HTTPD_REQUEST_BYTES_LIMIT 66561
/* The largest request, and enough of the next to refuse it. */
#define HTTPD_RX_BYTES_MAX (2 * (HTTPD_REQUEST_BYTES_LIMIT - 1) + HTTPD_REQUEST_BYTES_LIMIT)
/* Unsent bytes from which on further requests wait. */
#define HTTPD_TX_BYTES_STALL 65536

/* `method` of a request, by its exact token. */
#define HTTPD_METHOD_GET   0
#define HTTPD_METHOD_POST  1
#define HTTPD_METHOD_OTHER 2 /* HEAD, too; the request line begins at `head_end` - `head_len` */

/* Bits of a connection's `flags`. */
#define HTTPD_DEFERRED      128 /* the answer comes later: httpd_defer */
#define HTTPD_FD_CLOSED     64  /* the descriptor was closed while deferred; writes fail with -EINVAL */
#define HTTPD_CLOSE_PENDING 32 /* the connection ends with the deferral; the peer may still take the answer */

/* `state` of a connection's parser. */
#define HTTPD_STATE_IDLE         0
#define HTTPD_STATE_REQUEST_LINE 1
#define HTTPD_STATE_HEADERS      2
#define HTTPD_STATE_BODY         3
#define HTTPD_STATE_DISPATCH     4
#define HTTPD_STATE_DONE         5

struct httpd_conn;

/*
 * Handles one request: writes the answer to `conn->stream`, or calls httpd_defer and answers later. Each
 * write is sent at once (stream_write): the handler may then work for long, end the process, or hand the
 * descriptor to a child.
 *
 * The exception is corking: while the whole head of another request is there, answers to GETs that keep
 * the connection are gathered, up to 16 KiB, and count as taken. So a handler of a GET calls
 * stream_flush_tx_async before it ends the process or hands the descriptor on. Details: docs/recipes.md,
 * "Know when answers leave".
 *
 * Returns:   non-zero to go on; 0 to close the connection once what was written is sent.
 * Callbacks: may call httpd_defer, httpd_defer_complete and httpd_ctx_cleanup; `conn` stays valid until
 *            it returns. Must not call stream_cleanup on `conn->stream`, nor run the loop.
 */
typedef int32_t (*httpd_handler)(struct httpd_conn *conn);

struct httpd_link {
	struct httpd_link *next, *prev;
};

/* A server; in place until its last connection, deferred ones included, is gone. */
struct httpd_ctx {
	httpd_handler handler;         /* null: every request closes its connection unanswered */
	struct httpd_link connections; /* the server's */
};

/*
 * A connection and its request; the server makes and releases it.
 *
 * `const char` pointers lead into `stream.rx`, not terminated. They hold while the handler runs, or until
 * httpd_defer_complete, and move with `rx`: keep no copies of them.
 *
 * Trust none of it. A target may contain line ends: do not echo it into a header. The decoded path may
 * contain any byte, zeros included.
 */
struct httpd_conn {
	struct httpd_ctx *ctx;
	struct stream stream;             /* its callbacks are the server's */
	struct httpd_link node;           /* the server's */
	struct evloop_timeout idle_timer; /* the server's */

	int32_t version; /* 0: HTTP/1.0, 1: HTTP/1.1 */
	int32_t method;  /* HTTPD_METHOD_* */
	const char *target;
	int32_t target_len; /* as sent */
	const char *host;
	int32_t host_len; /* of an absolute target ("http://host/..."); null and 0 without one */
	const char *path;
	int32_t path_len; /* of the target, up to its first "?"; null and 0 for "http://host" */
	const char *query;
	int32_t query_len;      /* from that "?", included; null and 0 without one */
	const char *head_start; /* the first header line */
	const char *head_end;   /* after the blank line */
	int32_t head_len;       /* request line, header lines and blank line */
	const char *body;
	int32_t body_len;

	uint32_t arg;  /* from httpd_accept; the handler may change it, it lasts with the connection */
	uint8_t flags; /* HTTPD_* */
	/*
	 * The server's: `path` as of http_alloc_url_decode, or "/". Each escape brings two of the bytes
	 * that follow: "/a%20b HTTP/1.1" reads "/a b H".
	 */
	char *decoded_path;
	uint8_t close_requested; /* 1: "Connection: close" */
	uint32_t content_length;
	int32_t state;          /* HTTPD_STATE_* */
	struct htable *headers; /* name to value, both strings; use httpd_header_table_get */
	/*
	 * For the handler to compose in; empty them afterwards with httpd_res_buffers_reset. Each starts
	 * with 512 bytes, and only buffer_write extends it: without space buffer_printf, http_res_put_*
	 * and httpd_common_headers fail. Do not send what has failed; httpd_fail starts anew.
	 */
	struct buffer *res_head;
	struct buffer *res_body;
};

/* Sets up a server without connections. */
void httpd_ctx_init(struct httpd_ctx *ctx, httpd_handler handler);

/*
 * Ends all connections at once, not the listening socket. A deferred one is logged as LOG_CRIT
 * ("BUG: deferred connections around") and marked HTTPD_CLOSE_PENDING; it lives, and `ctx` with it, until
 * its httpd_defer_complete.
 */
void httpd_ctx_cleanup(struct httpd_ctx *ctx);

/*
 * Takes up a connected descriptor, and sets TCP_NODELAY on it. `ctx` is a `struct httpd_ctx *`.
 *
 * Errors:    without memory for the record the descriptor is closed.
 * Ownership: the descriptor is the server's.
 */
void httpd_accept(int fd, uint32_t arg, void *ctx);

/*
 * Called by a handler: defers the answer. The handler's result then does not count, unless it calls
 * httpd_defer_complete as well. Further requests wait. A second call has no effect.
 *
 * A peer that goes, or sends its last byte, sets HTTPD_CLOSE_PENDING: requests that wait are not handled
 * any more. 60 seconds without input close the descriptor (HTTPD_FD_CLOSED).
 *
 * Ownership: request and record stay valid until httpd_defer_complete, whatever the peer does.
 */
void httpd_defer(struct httpd_conn *conn);

/*
 * Ends a deferral, after the answer was written. With HTTPD_CLOSE_PENDING the connection ends once that
 * is sent; otherwise it goes on as after a handler that returned `keep`. Without a deferral it does
 * nothing.
 *
 * Ownership: do not use `conn` afterwards, except in a handler that has not returned yet.
 */
void httpd_defer_complete(struct httpd_conn *conn, int keep);

/* Empties `res_head` and `res_body`, and keeps their storage. */
void httpd_res_buffers_reset(struct httpd_conn *conn);

/*
 * Looks up a header, in exactly this spelling of case. "Content-Length" and "Connection", spelt so, are
 * in the record instead.
 *
 * Returns:   the value, runs of white space as one space; of repeated headers the last; null if none.
 * Ownership: the request's.
 */
const char *httpd_header_table_get(struct httpd_conn *conn, const char *name);

/* Returns:   the reason ("OK") of 200, 400, 404, 405, 406, 417 and 501; "" for every other code. */
const char *http_code_to_string(int code);

/*
 * Append a line to a head: "HTTP/1.1 <code> <reason>" ("HTTP/1.0" if `version` is 0), or
 * "<name>: <value>".
 *
 * Returns:   0.
 * Errors:    negative, as buffer_printf: -ENOMEM without space. A failed header's name stays in the
 *            buffer: drop the head.
 */
int32_t http_res_put_status_line(struct buffer *buffer, int version, int code, const char *reason)
	__attribute__((warn_unused_result));
int32_t http_res_put_header(struct buffer *buffer, const char *name, const char *format, ...)
	__attribute__((format(printf, 3, 4), warn_unused_result));

/*
 * Appends "Server: kvhttpd", "Pragma: no-cache" and "Expires: 0" to `res_head`.
 *
 * Returns:   0; -1 as soon as one fails.
 */
int32_t httpd_common_headers(struct httpd_conn *conn) __attribute__((warn_unused_result));

/*
 * Discards what was composed, and sends an error answer with a small HTML page, in one write. The
 * connection stays; the handler's result decides.
 *
 * Returns:   2.
 * Errors:    the negative result of the step that failed; -ENOMEM if the stream did not take it all. The
 *            buffers keep what was composed.
 */
int32_t httpd_fail(struct httpd_conn *conn, int version, int code);

/*
 * Decodes "%41" and "+". An escape cut off by the end or a zero byte loses its "%". Digits are not
 * checked. Each escape makes it read, and decode, two more bytes after the input, which must be the
 * caller's: `length` * 3 bytes suffice, zeros after the text.
 *
 * Returns:   a new string of `length` characters, less each lost "%".
 * Errors:    null: null `bytes`, or a negative length.
 * Ownership: the caller frees it.
 */
char *http_alloc_url_decode(const char *bytes, int32_t length);

/*
 * Encodes: ASCII letters, digits and "-._~" stay, a space becomes "+", every other byte "%" and two
 * lower-case digits.
 *
 * Returns:   a new string.
 * Errors:    null: null `bytes`, or a negative length.
 * Ownership: the caller frees it.
 */
char *http_alloc_url_encode(const char *bytes, int32_t length);

/*
 * Looks up the parameter `name`, in any case, in the query of a GET or the body of a POST of any type.
 * The first one of a query carries the "?": "?a=1&b=2" has "?a" and "b".
 *
 * Returns:   the first match's decoded value, "" without "="; null if there is none, and for other
 *            methods.
 * Ownership: the caller frees it.
 */
char *http_req_lookup_param(struct httpd_conn *conn, const char *name);

/*
 * Checks that `text` may be a host with an optional port: none of "/%? ", and after a first ":" a number
 * from 1 to 65535. An IPv6 address in brackets is refused.
 *
 * Returns:   1 or 0.
 */
int http_check_host_port(const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
