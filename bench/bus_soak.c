/*
 * Two daemons on a message bus that is restarted again and again. Between them is every kind of traffic of
 * lib/ubus: batches of asynchronous calls with a retry request among them, and a subscription.
 *
 * usage: bus_soak SOCKET serve
 *        bus_soak SOCKET call COUNT EVERY
 * The called side prints a line when it is ready, and ends on SIGTERM. The calling side ends when COUNT calls
 * have been answered. It prints, with N as the number of calls answered so far,
 *	at N      after every EVERY calls, except the last: the moment to restart the bus
 *	back N    at the start and after each restart, when a retry request, an asynchronous call and a
 *	          notification have succeeded
 *	end N     at the end
 */
#define _GNU_SOURCE
#include <err.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <jansson.h>
#include <libubus.h>

#include "lib/evloop.h"
#include "lib/sock.h"
#include "lib/ubus.h"

#define OBJECT         "bench.soak"
#define BATCH          8 /* asynchronous calls; and one retry request */
#define TIMEOUT_MS     10000
#define SERVE_DELAY_MS 20
#define CALL_DELAY_MS  100 /* so that the called side is usually connected first */

static const char *socket_path;
static struct ubus_context *ctx;
static struct evloop_io bus_io;
static struct stable_connection bus;
static void (*after_events)(void); /* or null */

/* ---- The connection ---- */

static void on_bus(struct evloop_io *io, unsigned int events)
{
	(void)io, (void)events;
	do
		ubus_handle_event(ctx);
	while (!ctx->sock.eof && !list_empty(&ctx->pending));
	if (after_events && !ctx->sock.eof)
		after_events();
}

static void on_bus_lost(struct ubus_context *context)
{
	(void)context;
	bus_io.cb = NULL; /* an event may have been fetched already */
	if (bus_io.registered)
		evloop_io_delete(&bus_io);
	stable_connection_lost(&bus);
}

static int bus_connect(void)
{
	if (!ctx)
		ctx = ubus_connect(socket_path);
	else if (ubus_reconnect(ctx, socket_path) != 0)
		ctx->sock.fd = -1; /* it may name a descriptor that is closed already */
	if (!ctx || ctx->sock.fd < 0 || ctx->sock.eof)
		return -1;
	ctx->connection_lost = on_bus_lost;
	bus_io.cb = on_bus;
	bus_io.fd = ctx->sock.fd;
	return evloop_io_add(&bus_io, EVLOOP_READ);
}

static void run(int (*on_connected)(void), int delay_ms)
{
	if (evloop_init() < 0)
		err(1, "evloop_init");
	bus.connect = bus_connect;
	bus.on_connected = on_connected;
	init_stable_connection(&bus, delay_ms);
	if (start_stable_connection(&bus) != 0 && !ctx)
		errx(1, "no bus at %s", socket_path);
	signal(SIGTERM, SIG_DFL); /* libubox handles it for its own loop */
	evloop_run();
}

static void say(const char *word, long number)
{
	printf("%s %ld\n", word, number);
	fflush(stdout);
}

/* A message with `json`, whose reference it drops; valid until the next call. */
static struct blob_buf *message_of(json_t *json)
{
	static struct blob_buf buf;
	if (!json)
		errx(1, "no JSON");
	blob_buf_init(&buf, 0);
	ubus_pack_json_msg(&buf, json);
	json_decref(json);
	return &buf;
}

/* ---- The called side ---- */

static struct ubus_object object;

static int echo(struct ubus_context *context, struct ubus_object *called, struct ubus_request_data *request,
	const char *method, struct blob_attr *message)
{
	(void)called, (void)method;
	json_t *json;
	int status = ubus_parse_json_msg(message, &json);
	return status != 0 ? status : ubus_send_reply(context, request, message_of(json)->head);
}

static int tick(struct ubus_context *context, struct ubus_object *called, struct ubus_request_data *request,
	const char *method, struct blob_attr *message)
{
	(void)request;
	json_t *json;
	int status = ubus_parse_json_msg(message, &json);
	return status != 0 ? status : ubus_notify(context, called, method, message_of(json)->head, -1);
}

static const struct ubus_method methods[] = {
	UBUS_METHOD_NOARG("echo", echo), UBUS_METHOD_NOARG("tick", tick)};
static struct ubus_object_type type = UBUS_OBJECT_TYPE(OBJECT, methods);
static struct ubus_object object = {.name = OBJECT, .type = &type, .methods = methods, .n_methods = 2};

/* On later connections libubus adds it again. */
static int serve_on_connected(void)
{
	if (object.id != 0)
		return 0;
	int status = ubus_add_object(ctx, &object);
	if (status == 0)
		say("ready", 0);
	return status;
}

/* ---- The calling side ---- */

static struct ubus_retry_request retry;
static struct ubus_subscription subscription;
static uint32_t object_id; /* 0: not found since the connection was lost */
static long wanted, every; /* of answered calls */
static long answered, restart_at;
static bool batch_under_way, retry_answered;

/* The kinds of traffic that have succeeded since the connection was lost. */
static struct {
	bool all, retry, notification;
} through;

static json_t *some_json(void)
{
	return json_pack("{s:s, s:i}", "mac", "00:11:22:33:44:55", "answered", (int)answered);
}

static int prepare(struct blob_buf *buf)
{
	json_t *json = some_json();
	int status = ubus_pack_json_msg(buf, json);
	json_decref(json);
	return status;
}

static void call_async(const char *method)
{
	ubus_req_async_to(ctx, object_id, method, message_of(some_json()), TIMEOUT_MS);
}

static void on_reply(struct ubus_request *req, int kind, struct blob_attr *message)
{
	(void)req, (void)kind;
	json_t *json;
	if (ubus_parse_json_msg(message, &json) != 0)
		errx(1, "a reply without JSON");
	json_decref(json);
	retry_answered = through.retry = true;
}

/* Sent for an asynchronous call that is made once the subscription is. */
static int on_notification(struct ubus_context *context, struct ubus_object *subscriber,
	struct ubus_request_data *request, const char *name, struct blob_attr *message)
{
	(void)context, (void)subscriber, (void)request, (void)name, (void)message;
	through.notification = true;
	return 0;
}

static int on_subscribed(struct ubus_subscription *s)
{
	(void)s;
	if (ubus_lookup_id(ctx, OBJECT, &object_id) == 0)
		call_async("tick");
	return 0;
}

static void call_batch(void)
{
	batch_under_way = true;
	retry_answered = false;
	for (int i = 0; i < BATCH; i++)
		call_async("echo");
	ubus_retry_request_invoke(&retry);
}

static void count_batch(void)
{
	if (!retry_answered)
		errx(1, "a retry request has ended without an answer");
	batch_under_way = false;
	answered += BATCH + 1;
	if (answered >= wanted) {
		say("end", answered);
		evloop_end();
	} else if (answered >= restart_at && restart_at + every <= wanted) {
		restart_at += every;
		say("at", answered);
	}
}

static void call_after_events(void)
{
	if (!list_empty(&ctx->requests) || retry.pending)
		return;
	if (!through.all && through.retry && through.notification) {
		through.all = true;
		say("back", answered);
	}
	if (batch_under_way)
		count_batch();
	if (through.all)
		call_batch();
}

static void forget_connection(void)
{
	memset(&through, 0, sizeof(through));
	batch_under_way = false;
	object_id = 0;
}

static int call_on_connected(void)
{
	forget_connection();
	ubus_retry_request_invoke(&retry);
	subscription.ctx = ctx;
	mox_ubus_subscribe(&subscription, on_notification);
	return 0;
}

static void call(long count, long restart_every)
{
	wanted = count;
	restart_at = every = restart_every;
	strcpy(subscription.path, OBJECT);
	subscription.subscribed_cb = on_subscribed;
	after_events = call_after_events;
	if (ubus_retry_request_init(&retry, &ctx, "echo", OBJECT, prepare, on_reply) != 0)
		errx(1, "ubus_retry_request_init");
	run(call_on_connected, CALL_DELAY_MS);
}

int main(int argc, char **argv)
{
	if (argc == 3 && strcmp(argv[2], "serve") == 0) {
		socket_path = argv[1];
		run(serve_on_connected, SERVE_DELAY_MS);
	} else if (argc == 5 && strcmp(argv[2], "call") == 0) {
		socket_path = argv[1];
		call(atol(argv[3]), atol(argv[4]));
	} else {
		errx(2, "usage: bus_soak SOCKET serve|{call COUNT EVERY}");
	}
	return 0;
}
