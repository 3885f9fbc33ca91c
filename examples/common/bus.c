/*
 * The first connection makes the libubus context, and all later ones keep it: ubus_reconnect gives it a new socket and
 * adds its objects again. Only the watcher and the pointer `online` belong to one connection.
 */
#define _POSIX_C_SOURCE 200809L

#include "examples/common/bus.h"

#include <sys/socket.h>
#include <syslog.h>

#include "lib/log.h"

#define RETRY_DELAY_MS 1000

/* For callbacks that get no record. */
static struct bus *the_bus;

/* ---- The connection ---- */

/*
 * Calls that arrive inside a synchronous call of ours stay pending in libubus. They are served next: the descriptor
 * does not become ready for them.
 */
static void on_readable(struct evloop_io *io, unsigned int events)
{
	struct bus *bus = container_of(io, struct bus, io);
	(void)events;

	do
		ubus_handle_event(bus->ctx);
	while (bus->online && !list_empty(&bus->ctx->pending));
}

/*
 * The descriptor stays open until the next connection, and would be ready all the time. If another callback finds the
 * loss first, an event may be fetched already: without a `cb` it is dropped.
 */
static void stop_watching(struct bus *bus)
{
	bus->online = NULL;
	bus->io.cb = NULL;
	if (bus->io.registered)
		evloop_io_delete(&bus->io);
}

static void on_lost(struct ubus_context *ctx)
{
	(void)ctx;
	if (the_bus->online)
		_log(LOG_NOTICE, "the connection to the bus is lost\n");
	stop_watching(the_bus);
	stable_connection_lost(&the_bus->connection);
}

/* Returns 0, or -1: there is no bus, or it was lost again before all objects were added. */
static int open_context(struct bus *bus)
{
	if (!bus->ctx) {
		bus->ctx = ubus_connect(bus->path);
		return bus->ctx ? 0 : -1;
	}
	bus->reconnecting = true;
	int status = ubus_reconnect(bus->ctx, bus->path);
	bus->reconnecting = false;
	if (status) {
		bus->ctx->sock.fd = -1; /* it may name a descriptor that is closed already */
		return -1;
	}
	return bus->ctx->sock.eof ? -1 : 0;
}

static int on_connect(void)
{
	struct bus *bus = the_bus;

	if (open_context(bus))
		return -1;
	bus->ctx->connection_lost = on_lost;
	bus->io.cb = on_readable;
	bus->io.fd = bus->ctx->sock.fd;
	if (evloop_io_add(&bus->io, EVLOOP_READ))
		return -1;
	bus->online = bus->ctx;
	_log(LOG_NOTICE, "connected to the bus\n");
	return 0;
}

static int on_connected(void)
{
	the_bus->joined(the_bus);
	return 0;
}

void bus_start(struct bus *bus, const char *path)
{
	the_bus = bus;
	bus->path = path;
	bus->connection.connect = on_connect;
	bus->connection.on_connected = on_connected;
	init_stable_connection(&bus->connection, RETRY_DELAY_MS);
	start_stable_connection(&bus->connection);
}

/*
 * When a connection ends, libubus completes the calls in flight. When a context is freed, it forgets them, and their
 * records would leak. So the connection ends first, from our side.
 */
static void end_calls(struct ubus_context *ctx)
{
	if (!list_empty(&ctx->requests))
		shutdown(ctx->sock.fd, SHUT_RDWR);
	while (!list_empty(&ctx->requests))
		ubus_handle_event(ctx);
}

void bus_stop(struct bus *bus)
{
	stop_watching(bus);
	if (bus->ctx) {
		end_calls(bus->ctx);
		ubus_free(bus->ctx);
		bus->ctx = NULL;
	}
	evloop_timeout_cancel(&bus->connection.timer);
}

/* ---- Objects and messages ---- */

void bus_add_object(struct bus *bus, struct ubus_object *object)
{
	if (object->id != 0)
		return;
	int status = ubus_add_object(bus->ctx, object);
	if (status != UBUS_STATUS_OK)
		_log(LOG_ERR, "unable to add the object %s to the bus: %s\n", object->name,
			ubus_strerror(status));
}

static void pack(struct blob_buf *message, json_t *json)
{
	blob_buf_init(message, 0);
	ubus_pack_json_msg(message, json);
	json_decref(json);
}

int bus_reply(struct ubus_context *ctx, struct ubus_request_data *req, json_t *json)
{
	struct blob_buf message = {0};
	pack(&message, json);
	ubus_send_reply(ctx, req, message.head);
	blob_buf_free(&message);
	return UBUS_STATUS_OK;
}

void bus_notify(struct bus *bus, struct ubus_object *object, const char *type, json_t *json)
{
	struct blob_buf message = {0};
	pack(&message, json);
	if (bus->online || bus->reconnecting)
		ubus_notify(bus->ctx, object, type, message.head, -1);
	blob_buf_free(&message);
}

int bus_push(struct bus *bus, uint32_t object, const char *method, json_t *json, uint32_t timeout_ms)
{
	struct blob_buf message = {0};
	pack(&message, json);
	int error = bus->online ? ubus_req_async_to(bus->online, object, method, &message, timeout_ms) : -1;
	blob_buf_free(&message);
	return error;
}
