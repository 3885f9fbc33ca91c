/*
 * Calls with JSON in both directions between two processes on the message bus, one at a time, in forms that put
 * the same bytes on the wire:
 *	plain   libubus alone; the text is ready-made, and received text is not parsed
 *	bare    libubus alone; jansson writes and reads by hand
 *	loop    the same on this library's loop
 *	apbase  lib/ubus on this library's loop
 *
 * usage: bus_call SOCKET FORM serve
 *        bus_call SOCKET FORM async|retry COUNT
 *	serve: answers calls until SIGTERM; prints a line when it is ready
 *	async: calls an object by its id; nobody reads the reply (ubus_req_async_to)
 *	retry: looks the object up for every call, and reads the reply (ubus_retry_request_invoke)
 * The calling side prints the nanoseconds that the calls took, and those of CPU time that it used for them.
 */
#define _GNU_SOURCE
#include <err.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <jansson.h>
#include <libubus.h>

#include "lib/evloop.h"
#include "lib/ubus.h"

#define OBJECT     "bench.call"
#define METHOD     "echo"
#define TIMEOUT_MS 10000

static const char text[] = "{\"mac\":\"00:11:22:33:44:55\",\"led\":\"blue\",\"on\":true,\"level\":37,"
			   "\"since\":1700000000,\"channels\":[1,6,11]}";

static enum { PLAIN, BARE, LOOP, APBASE } form;
static struct ubus_context *ctx;
static json_t *value; /* of `text` */

/* ---- Messages ---- */

static void add_text(struct blob_buf *buf, const char *bytes, size_t length)
{
	if (blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, "json", bytes, (unsigned int)length) != 0)
		errx(1, "blobmsg_add_field");
}

static void pack_by_hand(struct blob_buf *buf, json_t *json)
{
	size_t size = json_dumpb(json, NULL, 0, JSON_COMPACT);
	char *bytes = malloc(size);
	if (!bytes)
		err(1, "malloc");
	add_text(buf, bytes, json_dumpb(json, bytes, size, JSON_COMPACT));
	free(bytes);
}

static void pack(struct blob_buf *buf, json_t *json)
{
	if (form == PLAIN)
		add_text(buf, text, sizeof(text) - 1);
	else if (form == APBASE)
		ubus_pack_json_msg(buf, json);
	else
		pack_by_hand(buf, json);
}

static json_t *parse_by_hand(struct blob_attr *message)
{
	static const struct blobmsg_policy policy = {"json", BLOBMSG_TYPE_UNSPEC};
	struct blob_attr *attribute;
	if (blobmsg_parse(&policy, 1, &attribute, blob_data(message), (unsigned int)blob_len(message)) != 0 ||
		!attribute)
		return NULL;
	if (form == PLAIN)
		return json_incref(value);
	return json_loadb(blobmsg_data(attribute), blobmsg_data_len(attribute), 0, NULL);
}

static json_t *parse(struct blob_attr *message)
{
	json_t *json = NULL;
	if (form != APBASE)
		return parse_by_hand(message);
	return ubus_parse_json_msg(message, &json) == 0 ? json : NULL;
}

/* ---- Waiting ---- */

static void lost(struct ubus_context *context)
{
	(void)context;
	errx(1, "the bus has gone");
}

static struct evloop_io bus_io;
static void (*after_events)(void); /* or null */

static void serve_context(void)
{
	do
		ubus_handle_event(ctx);
	while (!list_empty(&ctx->pending));
	if (after_events)
		after_events();
}

static void on_bus(struct evloop_io *io, unsigned int events)
{
	(void)io, (void)events;
	serve_context();
}

static bool ended;

static void end_run(void)
{
	ended = true;
	evloop_end();
}

static void run_poll(void)
{
	struct pollfd entry = {ctx->sock.fd, POLLIN, 0};
	while (!ended)
		if (poll(&entry, 1, -1) > 0)
			serve_context();
}

static bool is_on_loop(void)
{
	return form == LOOP || form == APBASE;
}

static void run(void)
{
	if (is_on_loop())
		evloop_run();
	else
		run_poll();
}

static void connect_to(const char *path)
{
	if (is_on_loop() && evloop_init() < 0)
		err(1, "evloop_init");
	ctx = ubus_connect(path);
	if (!ctx)
		errx(1, "no bus at %s", path);
	ctx->connection_lost = lost;
	bus_io.cb = on_bus;
	bus_io.fd = ctx->sock.fd;
	if (is_on_loop() && evloop_io_add(&bus_io, EVLOOP_READ) != 0)
		err(1, "evloop_io_add");
}

/* ---- The called side ---- */

static struct blob_buf reply;

static int echo(struct ubus_context *context, struct ubus_object *object, struct ubus_request_data *request,
	const char *method, struct blob_attr *message)
{
	(void)object, (void)method;
	json_t *json = parse(message);
	if (!json)
		return UBUS_STATUS_INVALID_ARGUMENT;
	blob_buf_init(&reply, 0);
	pack(&reply, json);
	json_decref(json);
	return ubus_send_reply(context, request, reply.head);
}

static const struct ubus_method methods[] = {UBUS_METHOD_NOARG(METHOD, echo)};
static struct ubus_object_type type = UBUS_OBJECT_TYPE(OBJECT, methods);
static struct ubus_object object = {.name = OBJECT, .type = &type, .methods = methods, .n_methods = 1};

static void serve(void)
{
	if (ubus_add_object(ctx, &object) != 0)
		errx(1, "the bus does not take " OBJECT);
	signal(SIGTERM, SIG_DFL); /* libubox handles it for its own loop */
	puts("ready");
	fflush(stdout);
	run();
}

/* ---- The calling side ---- */

static long calls_left;
static long replies_read;
static uint32_t object_id;
static struct blob_buf call;
static struct ubus_request request;
static struct ubus_retry_request retry;

static void on_data(struct ubus_request *req, int kind, struct blob_attr *message)
{
	(void)req, (void)kind;
	json_t *json = parse(message);
	if (!json)
		errx(1, "a reply without JSON");
	json_decref(json);
	replies_read++;
}

static void make_call(uint32_t id)
{
	blob_buf_init(&call, 0);
	pack(&call, value);
	if (ubus_invoke_async_fd(ctx, id, METHOD, call.head, &request, -1) != 0)
		errx(1, "ubus_invoke_async_fd");
}

static void on_complete(struct ubus_request *req, int status)
{
	(void)req;
	if (status != 0)
		errx(1, "a call has failed: %s", ubus_strerror(status));
}

static void call_async_by_hand(void)
{
	make_call(object_id);
	request.complete_cb = on_complete;
	ubus_complete_request_async(ctx, &request);
}

static void call_async(void)
{
	blob_buf_init(&call, 0);
	pack(&call, value);
	if (ubus_req_async_to(ctx, object_id, METHOD, &call, TIMEOUT_MS) != 0)
		errx(1, "ubus_req_async_to");
}

static void call_retry_by_hand(void)
{
	uint32_t id;
	if (ubus_lookup_id(ctx, OBJECT, &id) != 0)
		errx(1, "no " OBJECT);
	make_call(id);
	request.data_cb = on_data;
	request.complete_cb = on_complete;
	ubus_complete_request_async(ctx, &request);
}

static int prepare(struct blob_buf *buf)
{
	pack(buf, value);
	return 0;
}

static void call_retry(void)
{
	if (ubus_retry_request_invoke(&retry) != 0)
		errx(1, "ubus_retry_request_invoke");
}

static void (*next_call)(void);

/* One call at a time is in flight: when no request is linked, it has been answered. */
static void call_when_answered(void)
{
	if (!list_empty(&ctx->requests))
		return;
	if (calls_left-- > 0)
		next_call();
	else
		end_run();
}

static int64_t nanoseconds(clockid_t clock)
{
	struct timespec now;
	clock_gettime(clock, &now);
	return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void make_calls(const char *kind, long count)
{
	bool reads = strcmp(kind, "retry") == 0;
	if (form == APBASE)
		next_call = reads ? call_retry : call_async;
	else
		next_call = reads ? call_retry_by_hand : call_async_by_hand;
	if (ubus_lookup_id(ctx, OBJECT, &object_id) != 0 ||
		ubus_retry_request_init(&retry, &ctx, METHOD, OBJECT, prepare, on_data) != 0)
		errx(1, "no " OBJECT);
	calls_left = count;
	after_events = call_when_answered;
	int64_t start = nanoseconds(CLOCK_MONOTONIC), cpu_start = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
	call_when_answered();
	run();
	int64_t cpu = nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_start;
	int64_t time = nanoseconds(CLOCK_MONOTONIC) - start;
	if (replies_read != (reads ? count : 0))
		errx(1, "%ld replies to %ld calls", replies_read, count);
	printf("%lld %lld\n", (long long)time, (long long)cpu);
}

static void usage(void)
{
	errx(2, "usage: bus_call SOCKET plain|bare|loop|apbase serve|{async|retry COUNT}");
}

int main(int argc, char **argv)
{
	static const char *const forms[] = {
		[PLAIN] = "plain", [BARE] = "bare", [LOOP] = "loop", [APBASE] = "apbase"};
	if (argc < 4)
		usage();
	while (strcmp(argv[2], forms[form]) != 0)
		if (form++ == APBASE)
			usage();
	value = json_loads(text, 0, NULL);
	if (!value)
		errx(1, "json_loads");
	connect_to(argv[1]);
	if (argc == 4 && strcmp(argv[3], "serve") == 0)
		serve();
	else if (argc == 5 && (strcmp(argv[3], "async") == 0 || strcmp(argv[3], "retry") == 0))
		make_calls(argv[3], atol(argv[4]));
	else
		usage();
	return 0;
}
