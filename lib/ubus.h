/*
 * ubus - helpers for daemons on the message bus: JSON in messages, calls that nobody waits for, calls
 * repeated until they succeed, and subscriptions that outlive the object they are about.
 *
 * They work on a libubus context that the daemon connects, serves and frees: docs/recipes.md,
 * "Live on the message bus". One thread.
 *
 * "Synchronous" means that libubus blocks until the bus daemon answers (for ever, if it drops the answer
 * because this daemon does not keep up), and serves the context meanwhile: handlers of calls,
 * notifications and replies run inside.
 *
 * A context may be freed or reconnected with calls in flight. Before it is freed, end its subscriptions;
 * then store null, or another context, where its retry requests look. Before it is put aside alive, also
 * abort its retry requests. Callbacks inside ubus_reconnect, such as connection_lost, call no function of
 * this header.
 *
 * libubus connects with handlers of its own for SIGINT, SIGTERM and SIGCHLD, where those had their
 * default action: block them before, and watch a signalfd.
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
 * The policy for blobmsg_parse: one entry "json", of any type. It is made with type UNSPEC, not STRING:
 * its value is the text without a NUL.
 */
extern const struct blobmsg_policy ubus_json_attrs[1];

/*
 * Appends `json`, an object or array, as compact text to `b`, which is initialised (blob_buf_init).
 *
 * Returns:   0.
 * Errors:    anything else, and what jansson cannot write (invalid UTF-8, a value that contains itself,
 *            null), becomes an empty attribute, which is no JSON. A text beyond 16 MiB, like exhausted
 *            memory, ends the process.
 * Ownership: the caller keeps its reference.
 */
int ubus_pack_json_msg(struct blob_buf *b, json_t *json);

/*
 * Reads the object or array in `msg`, a message from libubus, or null. It takes up to some 80 times the
 * memory of its text, which the bus limits to 1 MiB.
 *
 * Returns:   0.
 * Errors:    2 (UBUS_STATUS_INVALID_ARGUMENT, for a handler to return), with `*out` as it was: malformed
 *            attributes or text, scalars, over 2048 levels, numbers too large, invalid UTF-8, a NUL
 *            anywhere (a STRING ends in one).
 * Ownership: `*out` is a new reference; drop it with json_decref.
 */
int ubus_parse_json_msg(struct blob_attr *msg, json_t **out) __attribute__((warn_unused_result));

/* ---- Calls that nobody waits for ---- */

/*
 * Calls `method` of object `obj` with the message `b->head` and forgets about it; reply data is dropped.
 * Unless `ctx` is served, each call ends with its time-out.
 *
 * Returns:   0: the call is on its way; -1: it could not be sent.
 * Errors:    logged as LOG_ERR: an error status (7 if the connection is lost), or no answer within
 *            `timeout_ms` milliseconds (0: by the loop's next pass).
 * Ownership: `b` may be reused or freed at once. A call whose context is freed or reconnected before its
 *            time-out leaves a record until a context of that address calls this or loses its connection:
 *            end the connection first (docs/recipes.md).
 * Callbacks: none runs inside; sending waits while the socket is full.
 */
int ubus_req_async_to(
	struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_buf *b, uint32_t timeout_ms);

/* ---- Calls repeated until they succeed ---- */

/* Milliseconds between attempts, and for an answer. */
#define UBUS_RETRY_DELAY_MS     2000

/*
 * A call repeated until it succeeds. From init on only read it; do not move or initialise it until it has
 * succeeded or ubus_retry_request_abort.
 */
struct ubus_retry_request {
	struct ubus_context **ctx; /* where the daemon keeps its context; null there: no bus now */
	char method[32];
	char object[32];                         /* the object's path */
	int (*prepare_cb)(struct blob_buf *buf); /* fills the message of each attempt; or null */
	ubus_data_handler_t data_cb;             /* gets the reply's data; or null */
	struct ubus_request req;                 /* the current attempt */
	struct blob_buf buf;                     /* its message */
	struct evloop_timeout retry_timer;       /* the next attempt */
	struct evloop_timeout reply_timer;       /* ends the wait for the answer */
	bool pending;                            /* in flight, or aborted while in flight */
};

/*
 * Prepares `rr`, whatever it held, and sends nothing. `*ctx` is read for every attempt; null: no context,
 * or no connection. While a call is in flight, change it only if the former context was freed or has lost
 * its connection; otherwise abort first.
 *
 * Returns:   0.
 * Errors:    -EINVAL, logged: null `ctx`, or a name of 32 bytes or more; nothing changes.
 * Ownership: `method` and `object` (a path) are copied.
 * Callbacks: `prepare_cb` fills a message (null: an empty one); unless it returns 0 the attempt has
 *            failed. `data_cb` gets a reply's data, and finds `rr` with ubus_req_to_retry_request. Both
 *            may abort `rr`, and `data_cb` may invoke it; neither may release or initialise it.
 */
int ubus_retry_request_init(struct ubus_retry_request *rr, struct ubus_context **ctx, const char *method,
	const char *object, int (*prepare_cb)(struct blob_buf *buf), ubus_data_handler_t data_cb);

/*
 * Makes an attempt now; a call in flight is aborted. After an error status, or no answer within
 * UBUS_RETRY_DELAY_MS, the next follows at once, unlogged. After any other failure it follows in
 * UBUS_RETRY_DELAY_MS, logged as LOG_ERR except for a missing context. There is no limit: a call lost
 * with the connection is repeated until bus and object are back.
 *
 * So a method that always refuses is called as fast as it answers, 25000 times a second in a measurement.
 * Let `prepare_cb` count attempts, and return anything but 0 to delay the next, or abort.
 *
 * Returns:   0: in flight; -EBUSY: the attempt failed (no context, no such object, `prepare_cb`,
 *            sending), and the next is due.
 * Errors:    -EINVAL, logged: `rr->ctx` is null, nothing is due; -ECANCELED: a callback inside has
 *            aborted or invoked `rr`, and that holds; -EALREADY: called from its own `prepare_cb`,
 *            nothing has changed.
 * Callbacks: looks up (synchronous), then calls `prepare_cb`. What runs inside the look-up may abort and
 *            release `rr`. The attempt waits for the next pass (-EBUSY) if its `data_cb` asks for it, if
 *            the context was replaced inside, or after an error status inside another synchronous call.
 */
int ubus_retry_request_invoke(struct ubus_retry_request *rr);

/*
 * Ends it, in any state after init: no attempt or callback follows. `pending` stays set if a call was in
 * flight.
 *
 * Returns:   0.
 * Ownership: `rr` may be released or initialised, but not inside its own `prepare_cb` or `data_cb`.
 * Callbacks: callable from any.
 */
int ubus_retry_request_abort(struct ubus_retry_request *rr);

/* Returns:   the retry request of `req`, as `data_cb` gets it. */
struct ubus_retry_request *ubus_req_to_retry_request(struct ubus_request *req);

/* ---- Subscriptions ---- */

/* Milliseconds between attempts. */
#define UBUS_SUBSCRIBE_RETRY_MS 500

/*
 * A subscription to the object at a path, whether it exists yet or not; start from zero bytes. Until
 * mox_ubus_unsubscribe do not move it, nor change `ctx` unless the context has been freed.
 */
struct ubus_subscription {
	struct ubus_context *ctx;          /* the daemon's */
	struct ubus_subscriber subscriber; /* libubus's; its handlers are set for you */
	struct evloop_timeout retry;       /* the next attempt */
	char path[32];                     /* the daemon's: at most 31 bytes and the NUL; not checked */
	int (*subscribed_cb)(struct ubus_subscription *s); /* after each success; may be null */
};

/*
 * Subscribes to `s->path`. While there is no such object, also later, an attempt follows every
 * UBUS_SUBSCRIBE_RETRY_MS, unlogged. A lost connection ends the subscription silently: call this again
 * when it is back. It replaces an earlier registration of `s`: no notification comes twice.
 *
 * Returns:   0: subscribed; a ubus status (positive): not yet, the next attempt is due.
 * Errors:    -EAGAIN: the subscriber could not be registered, for any reason, or `s->ctx` is null;
 *            nothing is due, so call this on the next connection. -ECANCELED: before it was subscribed, a
 *            callback inside has called this or mox_ubus_unsubscribe. -EALREADY: `s` is being registered
 *            or unregistered; nothing has changed.
 * Callbacks: registers, looks up and subscribes (synchronous). `cb` gets the notifications, and finds `s`
 *            with ubus_object_to_subscription. `subscribed_cb` runs inside; its result is ignored. All
 *            may unsubscribe, and then release `s` in `subscribed_cb` or inside an attempt of the timer.
 */
int mox_ubus_subscribe(struct ubus_subscription *s, ubus_handler_t cb);

/*
 * Ends it: no attempt, notification or callback follows. Synchronous, but without the bus if the
 * connection is lost, or `s->ctx` is null because the context was freed.
 *
 * Returns:   0.
 * Ownership: `s` may be released, but not inside `cb`, as libubus may look at it afterwards, nor inside
 *            another call of this or mox_ubus_subscribe for it.
 */
int mox_ubus_unsubscribe(struct ubus_subscription *s);

/* Returns:   the subscription of `obj`, as its notification handler gets it. */
struct ubus_subscription *ubus_object_to_subscription(struct ubus_object *obj);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
