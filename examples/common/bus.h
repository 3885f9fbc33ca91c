/*
 * bus - a daemon's connection to the message bus, on the library's loop, that comes back by itself.
 *
 * There is one a process, because the callbacks of a stable connection have no argument to tell two apart.
 * While there is no bus it is looked for once a second; coming and going are logged.
 *
 * libubus waits for the bus daemon when it connects, looks something up, adds or removes: for that time the
 * loop stands still, the descriptor of the signals with it. It waits without a limit, and the bus daemon
 * drops what exceeds its queue for us, answers included: a client that is allowed to call us, and calls
 * faster than we serve, can bring that about.
 */
#pragma once
#include <jansson.h>

#include "lib/evloop.h"
#include "lib/sock.h"
#include "lib/ubus.h"

/* The connection; start from zero bytes, set `joined`. */
struct bus {
	/*
	 * Called on every new connection, the first included. libubus itself has added the objects of the
	 * former connection again, under new ids; nothing else is left of it. The place for one call each:
	 * whatever was asked for is asked for again here.
	 */
	void (*joined)(struct bus *bus);
	const char *path;            /* of the socket; null: where libubus looks by itself */
	struct ubus_context *ctx;    /* from the first connection on the same one; null before it */
	struct ubus_context *online; /* the same while connected, else null: for retry requests to ask */
	bool reconnecting;           /* inside ubus_reconnect, where our objects are called already */
	struct evloop_io io;
	struct stable_connection connection;
};

/*
 * Connects now, or as soon as there is a bus. The record stays where it is until bus_stop; `path` is
 * borrowed.
 */
void bus_start(struct bus *bus, const char *path);

/*
 * Disconnects for good. Before it, retry requests are aborted and subscriptions ended; calls of
 * ubus_req_async_to that still wait for their answer are ended, and logged as failed, here.
 */
void bus_stop(struct bus *bus);

/*
 * Adds an object unless it is there from an earlier connection. A failure (the path is another's, say) is
 * logged; the next connection is the next attempt.
 */
void bus_add_object(struct bus *bus, struct ubus_object *object);

/*
 * Each drops the reference to `json`, an object or array. The reply to a call; returns what a handler
 * returns.
 */
int bus_reply(struct ubus_context *ctx, struct ubus_request_data *req, json_t *json);

/*
 * A notification to whoever has subscribed to `object`; none while there is no bus. Does not wait for
 * anybody.
 */
void bus_notify(struct bus *bus, struct ubus_object *object, const char *type, json_t *json);

/*
 * Calls `method` of the object with this id; see ubus_req_async_to. Returns 0, or -1 if that could not be
 * sent.
 */
int bus_push(struct bus *bus, uint32_t object, const char *method, json_t *json, uint32_t timeout_ms);
