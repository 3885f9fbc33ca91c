/*
 * ubus - helpers for daemons on the message bus: JSON in messages, calls that nobody waits for, calls
 * repeated until they succeed, and subscriptions that outlive the object they are about.
 *
 * They work on a libubus context that the daemon connects, serves and frees. On the library's loop:
 *
 *	static struct ubus_context *ctx;
 *	static struct evloop_io bus_io;
 *	static struct stable_connection bus;
 *	static void on_bus(struct evloop_io *io, unsigned int events)
 *	{
 *		do
 *			ubus_handle_event(ctx); // serves one message, or all; calls that it put off come next
 *		while (!ctx->sock.eof && !list_empty(&ctx->pending));
 *	}
 *	static void on_bus_lost(struct ubus_context *c)
 *	{
 *		bus_io.cb = NULL; // an event may have been fetched already
 *		if (bus_io.registered)
 *			evloop_io_delete(&bus_io);
 *		stable_connection_lost(&bus);
 *	}
 *	static int bus_connect(void) // bus.connect
 *	{
 *		if (!ctx)
 *			ctx = ubus_connect(NULL);
 *		else if (ubus_reconnect(ctx, NULL))
 *			ctx->sock.fd = -1; // it may name a descriptor that is closed already
 *		if (!ctx || ctx->sock.fd < 0 || ctx->sock.eof)
 *			return -1; // no bus, or gone again: the timer tries once more
 *		ctx->connection_lost = on_bus_lost;
 *		bus_io.cb = on_bus, bus_io.fd = ctx->sock.fd;
 *		return evloop_io_add(&bus_io, EVLOOP_READ);
 *	}
 *
 * A lost connection means, for what was asked for here:
 * - a call of ubus_req_async_to is over, and logged as failed (status 7);
 * - a retry request in flight is sent again, every 2 seconds until the bus and the object are back; one
 *   whose answer had come is done. To have it sent once more on every new connection, call
 *   ubus_retry_request_invoke once from `on_connected`: it replaces whatever is left of the last time;
 * - a subscription is gone, and libubus does not say so: call mox_ubus_subscribe again from
 *   `on_connected`;
 * - the daemon's own objects are added again by ubus_reconnect; one that the bus did not take has the id 0
 *   afterwards, and libubus has forgotten it: add it again.
 *
 * A context may be freed, or reconnected, at any time that libubus allows, with calls in flight: nothing
 * here touches a freed context through them. What holds the context's address does, so when it is freed
 * the daemon stores null (or another context) where its retry requests look, and before that it calls
 * mox_ubus_unsubscribe for its subscriptions. A context that is put aside and lives on keeps what it has:
 * abort and unsubscribe first. To have nothing left over at the end of a process, end the connection
 * first: after shutdown(ctx->sock.fd, SHUT_RDWR), ubus_handle_event completes all calls, if it is called
 * until ctx->requests is empty. From callbacks that run inside ubus_reconnect (connection_lost among
 * them) no function of this header is called.
 *
 * libubus connects with handlers of its own for SIGINT, SIGTERM and SIGCHLD, where those had their
 * default action: a daemon blocks them before, and watches a signalfd.
 *
 * Looking up, registering and subscribing are synchronous in libubus: they block for as long as the bus
 * daemon takes to answer (for ever, if it drops the answer because this daemon does not keep up with what
 * comes), and meanwhile serve the context, so that handlers of calls, of notifications and of replies run
 * inside them; the functions that do it say so. One thread.
 *
 * libubox's headers use POSIX names, which a C compiler leaves out with -std=c11 alone. apbase's package files
 * (pkg-config and CMake) add -D_DEFAULT_SOURCE, which brings them back; -std=gnu11 has them anyway.
 */
#pragma once
#include <signal.h>

/* usock.h is libubox's own; the stand-in of development machines has no such header, and needs no such names. */
#if !defined(SIG_BLOCK) && __has_include(<libubox/usock.h>)
#error "libubox needs POSIX names: compile with -std=gnu11, or with -D_DEFAULT_SOURCE as apbase's package files say"
#else

#include <jansson.h>
#include <libubus.h>
#include <stdbool.h>
#include <stdint.h>

#include "evloop.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- JSON messages ---- */

/*
 * The policy of such a message for blobmsg_parse, one entry: "json", of any type. The attribute is made
 * with type UNSPEC, not STRING: its value is the text's bytes without a terminating NUL.
 */
extern const struct blobmsg_policy ubus_json_attrs[1];

/*
 * Appends `json` as compact text to `b`, which the caller has initialised (blob_buf_init). The caller
 * keeps its reference to `json`, an object or array. Anything else, and what jansson cannot write
 * (invalid UTF-8, a value that contains itself, null), becomes an empty attribute, which no receiver
 * takes for JSON.
 *
 * Returns: 0. A text that the buffer cannot hold (16 MiB), like exhausted memory, ends the process.
 */
int ubus_pack_json_msg(struct blob_buf *b, json_t *json);

/*
 * Reads the object or array in `msg`, a call's, a reply's or a notification's message as libubus hands
 * it over; it may be null. Hostile input is refused: malformed attributes or text, scalars, nesting
 * beyond what jansson allows (2048 levels), numbers too large, invalid UTF-8, a NUL anywhere (so one in a
 * STRING attribute, whose value ends in one).
 *
 * A value takes more memory than its text, up to some 80 times as much; the bus limits messages to 1 MiB.
 *
 * Returns: 0 and a new reference in `*out`, for the caller to drop with json_decref; or 2
 *          (UBUS_STATUS_INVALID_ARGUMENT, for a method's handler to return), and `*out` is as it was.
 */
int ubus_parse_json_msg(struct blob_attr *msg, json_t **out) __attribute__((warn_unused_result));

/* ---- Calls that nobody waits for ---- */

/*
 * Calls `method` of object `obj` with the message `b->head` and forgets about it: no reply reaches the
 * caller, and a failure (an error status, or no answer within `timeout_ms` milliseconds, with 0 by the
 * loop's next pass) is only logged. `b` may be reused or freed at once. `ctx` must be served, or every
 * call ends with its time-out.
 *
 * Returns:   0 once the call is on its way, -1 if it could not be sent.
 * Ownership: what a call needs lives until its answer or its time-out. If its context was freed or
 *            reconnected before the time-out, it is kept until this function is called with a context of
 *            that address, or that context loses its connection again, or for good: end a connection
 *            before its context is freed, as above, and nothing is left over.
 * Callbacks: none runs inside; sending waits while the socket is full.
 */
int ubus_req_async_to(
	struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_buf *b, uint32_t timeout_ms);

/* ---- Calls repeated until they succeed ---- */

/* Milliseconds between attempts, and those that an answer may take. */
#define UBUS_RETRY_DELAY_MS     2000

/*
 * A call repeated until it succeeds; embed it in a record of your own. From init on it is the
 * library's: fields are read, not set. It must stay where it is, and not be initialised again, until
 * the call has succeeded or ubus_retry_request_abort.
 */
struct ubus_retry_request {
	struct ubus_context **ctx; /* where the daemon keeps its context; null there: no bus now */
	char method[32];
	char object[32];                         /* the object's path */
	int (*prepare_cb)(struct blob_buf *buf); /* fills the message, anew for each attempt; or null */
	ubus_data_handler_t data_cb;             /* gets the reply's data; or null */
	struct ubus_request req;                 /* the current attempt */
	struct blob_buf buf;                     /* its message */
	struct evloop_timeout retry_timer;       /* the next attempt */
	struct evloop_timeout reply_timer;       /* the limit of waiting for the answer */
	bool pending;                            /* in flight, or aborted while in flight */
};

/*
 * Prepares `rr`, whatever it held, and sends nothing. `ctx` is where the daemon keeps its context. It
 * is looked at for every attempt, so a context stored there later is used. Null means that there is
 * none, or that it has lost its connection. While a call is in flight, another context, or null, may be
 * stored only if the one before has been freed or has lost its connection: otherwise abort first.
 * `method` and `object` (a path) are copied.
 *
 * `prepare_cb` fills the message of an attempt; with a result other than 0 the attempt has failed.
 * Null: an empty message. `data_cb` gets the data of a reply, in the terms of libubus, and finds its
 * request with ubus_req_to_retry_request. Until they return, neither may release or initialise the
 * request; both may abort it, and `data_cb` may invoke it.
 *
 * Returns: 0; or -EINVAL, logged, for a null `ctx` and for names of 32 bytes or more: nothing changes.
 */
int ubus_retry_request_init(struct ubus_retry_request *rr, struct ubus_context **ctx, const char *method,
	const char *object, int (*prepare_cb)(struct blob_buf *buf), ubus_data_handler_t data_cb);

/*
 * Makes an attempt now; a call that is still in flight is aborted, and nothing more comes of it.
 * An error status, or no answer within UBUS_RETRY_DELAY_MS, makes the next attempt at once, and is not
 * logged. Every other failure makes it after UBUS_RETRY_DELAY_MS, and is logged, except for a missing
 * context. There is no end to it.
 *
 * So a method that always answers with an error is called without a pause, as fast as it answers: 12,648
 * times in half a second were measured. Repeat only what can succeed later. Where a method may refuse for
 * good, have `prepare_cb` count the attempts: if it returns something other than 0, the next attempt comes
 * after UBUS_RETRY_DELAY_MS; if it aborts the request, none does.
 *
 * Returns:   0: in flight; -EBUSY: this attempt failed (no context, no such object, `prepare_cb`,
 *            sending), the next is due in UBUS_RETRY_DELAY_MS; -EINVAL: `rr->ctx` is null, nothing is
 *            due; -ECANCELED: a callback that ran inside has aborted or invoked `rr`, and what that did
 *            holds; -EALREADY: called from inside the request's own `prepare_cb`, nothing has changed.
 * Callbacks: looks up synchronously, then calls `prepare_cb`. What runs inside the look-up may also
 *            release the record, after aborting. An attempt waits for the loop's next pass, and the
 *            result is -EBUSY, when it is asked for by the request's own `data_cb`, or when the context
 *            has been replaced inside; so does one that an error status causes while another
 *            synchronous call of this module is being made.
 */
int ubus_retry_request_invoke(struct ubus_retry_request *rr);

/*
 * Ends it: no attempt follows, no callback is called any more, and the record may be released or
 * initialised again, though not before its own `prepare_cb` or `data_cb` has returned. It may be called
 * in any state after init, also again, and from any callback. `pending` stays set if a call
 * was in flight. Returns 0.
 */
int ubus_retry_request_abort(struct ubus_retry_request *rr);

/* The request that `req`, as `data_cb` gets it, belongs to. */
struct ubus_retry_request *ubus_req_to_retry_request(struct ubus_request *req);

/* ---- Subscriptions ---- */

/* Milliseconds between the attempts to subscribe. */
#define UBUS_SUBSCRIBE_RETRY_MS 500

/*
 * A subscription to the object at a path, whether it exists yet or not; embed it in a record of your
 * own, start from zero bytes, set `ctx`, `path` (at most 31 bytes and the NUL; it is not checked) and
 * perhaps `subscribed_cb`. From mox_ubus_subscribe until mox_ubus_unsubscribe it must stay where it is;
 * `ctx` changes only after mox_ubus_unsubscribe, or when the context has been freed.
 */
struct ubus_subscription {
	struct ubus_context *ctx;
	struct ubus_subscriber subscriber; /* libubus's; its handlers are set for you */
	struct evloop_timeout retry;       /* the next attempt */
	char path[32];
	int (*subscribed_cb)(struct ubus_subscription *s); /* after every success; may be null */
};

/*
 * Subscribes to `s->path`; notifications reach `cb`, which finds `s` with ubus_object_to_subscription.
 * While there is no such object, and again whenever it goes away, an attempt is made every
 * UBUS_SUBSCRIBE_RETRY_MS. Nothing is logged.
 *
 * Call it again when the bus connection is back. An earlier registration of `s` ends first, so
 * notifications never come twice. The result of `subscribed_cb` is not looked at.
 *
 * Returns:   0: subscribed; a ubus status (positive): not yet, the next attempt is due; -EAGAIN: the
 *            subscriber could not be registered, whatever the reason (one result for all of
 *            them), or `s->ctx` is null; nothing is due then, call it again with the next connection.
 *            -ECANCELED: before it was subscribed, a callback that ran inside has called
 *            mox_ubus_unsubscribe or this function; -EALREADY: called while the record is being
 *            registered or unregistered, nothing has changed.
 * Callbacks: registers, looks up and subscribes synchronously; `subscribed_cb` runs inside. All may
 *            unsubscribe, and after that `subscribed_cb`, and what runs inside an attempt of the timer's,
 *            may release the record.
 */
int mox_ubus_subscribe(struct ubus_subscription *s, ubus_handler_t cb);

/*
 * Ends it: no attempt, no notification and no callback follows, and the record may be released, though
 * not inside `cb`, which libubus may look behind, nor inside another call of this function or of
 * mox_ubus_subscribe for it. With the bus connection lost it does the same without the bus; so it does
 * with a null `s->ctx`, if the context was freed. Synchronous otherwise. Returns 0.
 */
int mox_ubus_unsubscribe(struct ubus_subscription *s);

/* The subscription that `obj`, as its notification handler gets it, belongs to. */
struct ubus_subscription *ubus_object_to_subscription(struct ubus_object *obj);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
