/*
 * httpd - a small HTTP/1.0 and HTTP/1.1 server inside a daemon's event loop.
 *
 * The daemon owns the listening socket and hands every accepted descriptor to httpd_accept (which
 * fits `accept_cb` of sock.h). The server parses requests, calls the daemon's one handler with each
 * complete request, and closes or keeps the connection. Everything runs on the loop's thread.
 *
 *	static int32_t handle(struct httpd_conn *conn)
 *	{
 *		...compose conn->res_body, then conn->res_head, or call httpd_fail...
 *		...append the body to the head, and stream_write both at once to &conn->stream...
 *		return 1;
 *	}
 *
 *	httpd_ctx_init(&ctx, handle);
 *	listener.accept_cb = httpd_accept;
 *	listener.user = &ctx;
 *	sock_listen(&listener, NULL, "8080", 16);
 *
 * Call evloop_init before the first httpd_accept: a connection watches its descriptor and sets a timeout.
 *
 * Limits. A request's head has at most 66,560 bytes, and its body 66,560. The first counts all that has
 * arrived when the head is parsed: a peer that sends the body, or further requests, in one burst with it
 * stays below 66,561 bytes in all. What exceeds them is answered 400. So whether a body of nearly 66,560
 * bytes is taken depends on how it arrives: after its head it is, together with it it is not. Do not rely on
 * more than 66,560 bytes for head and body together.
 *
 * The length of a body comes from "Content-Length", in this spelling, and from nothing else. A BODY WHOSE
 * LENGTH WAS NOT UNDERSTOOD IS PARSED AS THE NEXT REQUEST: one that is announced by "content-length", or that
 * is sent in chunks. What the peer put there, or somebody whose text it passes on, is then a request of
 * its own, and the handler is called with it. A handler that changes anything refuses such requests and
 * returns 0.
 *
 * A connection never holds more than HTTPD_RX_BYTES_MAX received bytes: it stops reading there until
 * requests have been answered. (The headers of a request take up to some ten times the bytes of its head
 * beside that, while it lasts.) It also stops reading, and answering, while HTTPD_TX_BYTES_STALL or more
 * bytes of former answers have not been taken by the peer.
 *
 * The names of a request's headers are kept in a hash table. Names chosen to collide in it, by the hundred,
 * which would cost the time of all other peers, are answered 400. So are a name with a zero byte in it, and
 * two "Content-Length" of different numbers.
 *
 * What the peer can rely on: 60 seconds without a byte from it, or, while answers wait for it, without one
 * taken by it, end a connection; a request without "Connection: close" on HTTP/1.1 leaves it open, unless
 * it is refused or the handler ends it. Header names are compared exactly as sent: only "Content-Length"
 * and "Connection", in this spelling, mean something to the server.
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
/* The largest request, and behind it enough of the next to know that it is to be refused. */
#define HTTPD_RX_BYTES_MAX (2 * (HTTPD_REQUEST_BYTES_LIMIT - 1) + HTTPD_REQUEST_BYTES_LIMIT)
/* Unsent bytes from which on further requests of the connection wait. */
#define HTTPD_TX_BYTES_STALL 65536

/* `method` of a request: by its token; the handler judges the others. */
#define HTTPD_METHOD_GET   0
#define HTTPD_METHOD_POST  1
#define HTTPD_METHOD_OTHER 2

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

/*
 * What clients do that surprises a handler. examples/common/guard.h and http.h do what is advised here.
 *
 * - Node's fetch, HAProxy and other gateways from HTTP/2 write header names in lower case. "content-length" is then
 *   a header like any other: `body_len` is 0, and the body is parsed as the next request, which may be one that an
 *   attacker wrote. Refuse a request with that name in any other spelling: answer 400 and return 0; what follows is
 *   then never parsed. Compare other names regardless of case.
 * - A chunked body is announced by "Transfer-Encoding". The server does not decode it, so the same holds. A header name
 *   with white space or a control character in it may be a way to get either past a proxy: refuse it as well.
 * - HEAD is HTTPD_METHOD_OTHER; the request line begins at `head_end` - `head_len`. Answer as for GET, but write no
 *   body: a client would take it for the next answer. httpd_fail writes one; return 0 after it.
 * - "Expect: 100-continue" waits for an interim answer, which the server does not send. The handler is called once the
 *   body has arrived; most clients send it after a second, and at once if told not to use that header.
 * - A half-closed peer, which sends no more but still reads, gets the answers to all it has sent, up to the first
 *   deferred one; then the connection ends. Requests that wait for a deferred answer are not handled any more.
 * - A proxy sends requests of many users over one connection. An answer has exactly the bytes that its
 *   "Content-Length" says, the handler keeps nothing of one request for the next, and an answer that ends the
 *   connection has "Connection: close", or the proxy may send it the next user's request meanwhile.
 * - A browser sends requests for any page that it shows. Before a request changes anything, compare its "Host" with
 *   the names that the daemon is reached by, and its "Origin", if there is one, with that "Host".
 */

struct httpd_conn;

/*
 * Called once for every complete request. It writes the answer to `conn->stream`, or calls
 * httpd_defer and answers later. Returns non-zero to go on, 0 to have the connection closed once
 * what has been written is sent.
 *
 * It may call httpd_defer and httpd_defer_complete, and httpd_ctx_cleanup: `conn` stays valid until
 * it returns. It must not call stream_cleanup on the connection's stream, nor run the loop.
 *
 * What it writes is sent at once, as stream_write says: it may then work for long, end the process, or
 * hand the descriptor to a child. So one write of head and body costs one send, and two cost two.
 *
 * There is one exception: answers are gathered, up to 16 KiB, while the whole head of another request has
 * been received, too, and the one being answered is a GET that keeps the connection. They leave together.
 * What is gathered counts as taken: that the peer has gone shows in no result, but ends the connection
 * afterwards. It is handed to the kernel before the handler is called for the last of these requests, or for
 * one that is not a GET; by httpd_defer; and by stream_flush_tx_async, which a handler of a GET calls before it
 * ends the process or hands the descriptor to a child. Over TCP the kernel may wait for the last answer, to send it
 * in one piece with the others: as long as it would for an acknowledgement, some 200 ms if the peer is near.
 */
typedef int32_t (*httpd_handler)(struct httpd_conn *conn);

struct httpd_link {
	struct httpd_link *next, *prev;
};

/* A server; owned by the daemon, and in place until its last connection, deferred ones included, is gone. */
struct httpd_ctx {
	httpd_handler handler; /* null: every request closes its connection without an answer */
	struct httpd_link connections;
};

/*
 * A connection, and the request it carries; owned by the server, which makes and releases it.
 *
 * Pointers to `const char` point into `stream.rx`, are not terminated, and hold from the call of
 * the handler until it returns or, if it deferred the answer, until httpd_defer_complete. They are
 * kept right when the receive buffer moves, so read them afresh from here instead of keeping copies.
 *
 * Trust none of it: a target ends at a space, so it may contain line ends (do not echo it into a header),
 * and the decoded path any byte, zeros included.
 */
struct httpd_conn {
	struct httpd_ctx *ctx;
	struct stream stream; /* its callbacks are the server's */
	struct httpd_link node;
	struct evloop_timeout idle_timer;

	int32_t version; /* 0: HTTP/1.0, 1: HTTP/1.1 */
	int32_t method;  /* HTTPD_METHOD_* */
	const char *target;
	int32_t target_len; /* as sent */
	const char *host;
	int32_t host_len; /* of an absolute target ("http://host/..."); null and 0 if there is none */
	const char *path;
	int32_t path_len; /* of the target, up to its first "?"; null and 0 for "http://host" */
	const char *query;
	int32_t query_len;      /* from that "?", included; null and 0 if there is none */
	const char *head_start; /* the first header line */
	const char *head_end;   /* behind the blank line */
	int32_t head_len;       /* request line, header lines and blank line */
	const char *body;
	int32_t body_len;

	uint32_t arg;  /* as given to httpd_accept; the handler may change it, it lasts with the connection */
	uint8_t flags; /* HTTPD_* */
	/* The path decoded as http_alloc_url_decode does, "/" if there is none; the server's.
	 * Each escape in it brings two of the bytes that follow the path: "/a%20b HTTP/1.1" reads "/a b H".
	 */
	char *decoded_path;
	uint8_t close_requested; /* 1: "Connection: close" */
	uint32_t content_length;
	int32_t state;          /* HTTPD_STATE_* */
	struct htable *headers; /* name to value, both strings; use httpd_header_table_get */
	/*
	 * The answer's head and body, for the handler to compose in; empty them with httpd_res_buffers_reset
	 * when done. Each starts with 512 bytes. buffer_write extends them, but what formats into them
	 * (buffer_printf, http_res_put_*, httpd_common_headers) fills only the space that is free: a text that does
	 * not fit is missing, and the result is negative. Do not send what has failed; httpd_fail starts anew.
	 */
	struct buffer *res_head;
	struct buffer *res_body;
};

/* Sets up a server without connections. */
void httpd_ctx_init(struct httpd_ctx *ctx, httpd_handler handler);

/*
 * Ends all connections at once. One whose answer is deferred is only marked HTTPD_CLOSE_PENDING
 * (with "BUG: deferred connections around" logged at priority 2): it lives, and `ctx`
 * with it, until its httpd_defer_complete. Does not touch the listening socket.
 */
void httpd_ctx_cleanup(struct httpd_ctx *ctx);

/*
 * Takes up a connected descriptor; `ctx` is a `struct httpd_ctx *`. TCP_NODELAY is set on it. The
 * descriptor is closed when there is no memory for the connection's record.
 */
void httpd_accept(int fd, uint32_t arg, void *ctx);

/*
 * Called by a handler that will answer later, before it returns. Its result then does not count, unless it
 * has called httpd_defer_complete as well.
 * The request stays as it is, and the next one waits, until httpd_defer_complete; the record stays
 * valid until then, even if the peer goes, or sends its last byte, which sets HTTPD_CLOSE_PENDING. 60
 * seconds without input close the descriptor meanwhile. A second call has no effect.
 */
void httpd_defer(struct httpd_conn *conn);

/*
 * Ends a deferral, after the answer has been written. The connection goes on as after a handler
 * that returned `keep`, or ends if HTTPD_CLOSE_PENDING is set, what has been written going out first. So
 * `conn` must not be used afterwards, except by a handler that has not returned yet. Without a deferral it
 * does nothing.
 */
void httpd_defer_complete(struct httpd_conn *conn, int keep);

/* Empties `res_head` and `res_body`, keeping their storage. */
void httpd_res_buffers_reset(struct httpd_conn *conn);

/*
 * The value of the request's header `name`, in exactly this spelling of case; null if there is none.
 * Of repeated headers the last counts; white space inside a value is one space each. "Content-Length" and
 * "Connection" are not here but in the record. Valid as long as the request.
 */
const char *httpd_header_table_get(struct httpd_conn *conn, const char *name);

/* "OK", "Bad Request", ... for 200, 400, 404, 405, 406, 417 and 501; "" for every other code. */
const char *http_code_to_string(int code);

/*
 * Append "HTTP/1.1 <code> <reason>" (or "HTTP/1.0", if `version` is 0) and "<name>: <value>", each
 * with its line end, to a head being composed. Return 0, or a negative number: as buffer_printf does, a
 * formatted text that does not fit the buffer with its terminating zero fails with -ENOMEM. The name of a
 * header that failed is in the buffer nevertheless: drop the head.
 */
int32_t http_res_put_status_line(struct buffer *buffer, int version, int code, const char *reason)
	__attribute__((warn_unused_result));
int32_t http_res_put_header(struct buffer *buffer, const char *name, const char *format, ...)
	__attribute__((format(printf, 3, 4), warn_unused_result));

/*
 * Appends "Server: kvhttpd", "Pragma: no-cache" and "Expires: 0" to `res_head`. Returns 0, or -1
 * as soon as one fails.
 */
int32_t httpd_common_headers(struct httpd_conn *conn) __attribute__((warn_unused_result));

/*
 * Composes a whole error answer with a small HTML page, and writes it in one piece; what was composed
 * before is discarded. It does not close the connection: return 0 or non-zero from the handler.
 *
 * Returns: 2 on success (not 0: what appending the blank line gave), the negative
 *          result of the step that failed otherwise, -ENOMEM if the stream did not take it all. After a
 *          failure the buffers keep what was composed.
 */
int32_t httpd_fail(struct httpd_conn *conn, int version, int code);

/*
 * Decodes "%41" and "+" to a new string for the caller to free; null for null `bytes` or a negative
 * length. An escape cut off by the end, or by a zero byte, loses its "%". Digits are not checked:
 * whatever follows a "%" is combined.
 *
 * The result has `length` characters also when there are escapes: each makes it read,
 * and decode, two more bytes behind the input. The caller must own them: `length` * 3 bytes are
 * always enough, and behind the text proper they should be zero.
 */
char *http_alloc_url_decode(const char *bytes, int32_t length);

/*
 * Encodes to a new string for the caller to free: ASCII letters, digits and "-._~" stay, a space
 * becomes "+", every other byte "%" and two lower-case digits. Null for null `bytes` or a negative
 * length.
 */
char *http_alloc_url_encode(const char *bytes, int32_t length);

/*
 * The decoded value of the parameter `name` (in any case) in a new string for the caller to free:
 * from the query of a GET, from the body of a POST whatever its type. "" if it has no "="; null if
 * there is no such parameter, and for other methods. The first match counts.
 *
 * The first parameter of a query carries the "?" in its name: in "?a=1&b=2" they are
 * called "?a" and "b".
 */
char *http_req_lookup_param(struct httpd_conn *conn, const char *name);

/*
 * 1 if `text` looks like a host with an optional port ("host", "host:80"), else 0: it has none of
 * "/%? ", and what follows its first ":", if there is one, is a number from 1 to 65535. So an IPv6
 * address in brackets is refused.
 */
int http_check_host_port(const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
