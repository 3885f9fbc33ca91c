/*
 * bus - a daemon's connection to the message bus, on the library's loop, that comes back by itself.
 *
 * A process has one: the callbacks of a stable connection have no argument to tell two apart. Without a bus, it tries
 * to connect once a second. The log says when a bus comes and goes.
 *
 * libubus waits for the bus daemon when it connects, looks up, adds or removes. Meanwhile the loop stands still, and
 * signals wait, too. The wait has no limit: the bus daemon drops messages, answers among them, beyond a queue's length.
 * A client that calls us faster than we serve can fill our queue.
 */
#pragma once
#include <jansson.h>

#include "lib/evloop.h"
#include "lib/sock.h"
#include "lib/ubus.h"

/* The connection; start from zero bytes, set `joined`. */
struct bus {
	/*
	 * Called on every new connection, the first included. libubus has added the objects of the former
	 * connection again, under new ids; nothing else is left of it. Subscribe and call again here.
	 */
	void (*joined)(struct bus *bus);
	const char *path;            /* of the socket; null: where libubus looks by itself */
	struct ubus_context *ctx;    /* one for all connections; null before the first */
	struct ubus_context *online; /* the same while connected, else null: for retry requests to ask */
	bool reconnecting;           /* inside ubus_reconnect, where our objects may already be called */
	struct evloop_io io;
	struct stable_connection connection;
};

/*
 * Connects now, or as soon as there is a bus. The record stays where it is until bus_stop; `path` is
 * borrowed.
 */
void bus_start(struct bus *bus, const char *path);

/*
 * Disconnects for good. Abort retry requests and end subscriptions before. Calls of ubus_req_async_to in flight end
 * here, and are logged as failed.
 */
void bus_stop(struct bus *bus);

/*
 * Adds an object, unless an earlier connection did. A failure is logged (say, the path is taken); the next connection
 * is the next attempt.
 */
void bus_add_object(struct bus *bus, struct ubus_object *object);

/*
 * Replies to a call. Returns the result for its handler. This function and the next two drop the reference to `json`,
 * an object or array.
 */
int bus_reply(struct ubus_context *ctx, struct ubus_request_data *req, json_t *json);

/* Notifies the subscribers of `object`, and waits for none of them. Without a bus it does nothing. */
void bus_notify(struct bus *bus, struct ubus_object *object, const char *type, json_t *json);

/* Calls `method` of the object with this id; see ubus_req_async_to. Returns 0, or -1 if it could not be sent. */
int bus_push(struct bus *bus, uint32_t object, const char *method, json_t *json, uint32_t timeout_ms);
