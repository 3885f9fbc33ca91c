/*
 * apctl - the daemon that looks after access points, and an example to copy from: an object on the message
 * bus to which other daemons announce themselves, a subscription to each of them, and calls that nobody waits
 * for.
 *
 * On the bus it is the object "apctl", whose messages are JSON (ubus.h):
 *
 *	method announce   {"name": "hall", "object": "apstat.hall", "url": "http://192.0.2.1/",
 *	                   "leds": {"power": true}}; the answer is {"accepted": true}
 *	notification aps  {"names": ["attic", "hall"]}, after every announcement
 *	notification led  {"name": "hall", "led": "power", "on": true}, when an LED was asked to change
 *
 * Over HTTP:
 *
 *	GET  /aps         [{"name": "hall", "object": "apstat.hall", "url": "http://192.0.2.1/",
 *	                   "leds": {"power": true}, "reachable": true, "last_seen_s": 4}]
 *	POST /led         {"name": "hall", "led": "power", "on": false} has that access point change an
 *	                  LED. {"sent": true} comes at once; GET /aps shows the outcome.
 *
 * `struct apctl` has a table of fixed size. Handlers of the bus only write into that table: they may run
 * inside any synchronous call of libubus, even one for the same access point. Subscribing takes such calls, so
 * one timer does it, `subscribe_due`.
 *
 * Anybody whom the bus lets call us may announce. When the table is full, a new access point replaces the one
 * that has been out of reach the longest; those within reach stay.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <jansson.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "examples/common/daemon.h"
#include "examples/common/http.h"
#include "examples/common/message.h"
#include "lib/evloop.h"
#include "lib/httpd.h"
#include "lib/log.h"
#include "lib/time.h"
#include "lib/ubus.h"

#define APS_MAX         32
#define PUSH_TIMEOUT_MS 2000

/* An access point. */
struct ap {
	struct announcement said; /* its latest announcement; its LEDs follow the notifications */
	int64_t seen;             /* when its last message came; microseconds of the monotonic clock */
	struct ubus_subscription subscription;
	bool due; /* the subscription is still to be made, or is to another object */
};

/* The daemon. */
struct apctl {
	struct daemon daemon;
	struct ubus_object object;
	struct evloop_timeout subscribe_due;
	struct ap aps[APS_MAX];
	int ap_count;
};

static struct apctl *apctl_of(const struct httpd_conn *conn)
{
	return container_of(conn->ctx, struct apctl, daemon.http);
}

/* ---- The table ---- */

/* When its object goes away, the subscription waits for the next attempt. */
static bool is_reachable(const struct apctl *apctl, const struct ap *ap)
{
	return apctl->daemon.bus.online && !ap->due && !ap->subscription.retry.pending;
}

static struct ap *ap_find(struct apctl *apctl, const char *name)
{
	for (struct ap *ap = apctl->aps; ap < apctl->aps + apctl->ap_count; ap++)
		if (strcmp(ap->said.name, name) == 0)
			return ap;
	return NULL;
}

/* Null if all are within reach. One that is due to be subscribed to counts as within reach. */
static struct ap *ap_longest_gone(struct apctl *apctl)
{
	struct ap *longest = NULL;
	for (struct ap *ap = apctl->aps; ap < apctl->aps + apctl->ap_count; ap++) {
		if (ap->due || is_reachable(apctl, ap))
			continue;
		if (!longest || ap->seen < longest->seen)
			longest = ap;
	}
	return longest;
}

/* The entry for an access point of this name, new or not; null if the table is full. */
static struct ap *ap_place(struct apctl *apctl, const char *name)
{
	struct ap *ap = ap_find(apctl, name);
	if (ap)
		return ap;
	if (apctl->ap_count < APS_MAX)
		return &apctl->aps[apctl->ap_count++];
	return ap_longest_gone(apctl);
}

/* ---- Subscriptions to access points ---- */

/* {"led": "power", "on": true}; only LEDs that were announced can be on. */
static int ap_notifies(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *req,
	const char *type, struct blob_attr *message)
{
	struct ap *ap = container_of(ubus_object_to_subscription(object), struct ap, subscription);
	struct led led;
	(void)ctx, (void)req;

	if (ap->due) /* it is from the entry's former object */
		return UBUS_STATUS_OK;
	if (strcmp(type, "led") != 0)
		return UBUS_STATUS_OK;
	if (led_parse(&led, message))
		return UBUS_STATUS_INVALID_ARGUMENT;
	struct led *known = leds_find(&ap->said.leds, led.name);
	if (!known)
		return UBUS_STATUS_INVALID_ARGUMENT;
	known->on = led.on;
	ap->seen = time_now();
	return UBUS_STATUS_OK;
}

/* An announcement inside makes it due again. If the bus refuses or is lost, the next connection tries again. */
static void ap_subscribe(struct ap *ap, struct ubus_context *ctx)
{
	ap->due = false;
	ap->subscription.ctx = ctx;
	snprintf(ap->subscription.path, sizeof ap->subscription.path, "%s", ap->said.object);
	if (mox_ubus_subscribe(&ap->subscription, ap_notifies) == -EAGAIN)
		ap->due = true;
}

static void subscribe_where_due(struct evloop_timeout *timeout)
{
	struct apctl *apctl = container_of(timeout, struct apctl, subscribe_due);
	for (int index = 0; index < apctl->ap_count; index++)
		if (apctl->aps[index].due)
			ap_subscribe(&apctl->aps[index], apctl->daemon.bus.ctx);
}

/* ---- The object on the bus ---- */

static json_t *names_json(const struct apctl *apctl)
{
	json_t *names = json_array();
	for (int index = 0; index < apctl->ap_count; index++)
		json_array_append_new(names, json_string(apctl->aps[index].said.name));
	return json_pack("{s:o}", "names", names);
}

/* Writes it into the table. Returns false if the table is full. */
static bool take_announcement(struct apctl *apctl, const struct announcement *announcement)
{
	struct ap *ap = ap_place(apctl, announcement->name);
	if (!ap)
		return false;
	if (!is_reachable(apctl, ap) || strcmp(ap->said.object, announcement->object) != 0) {
		ap->due = true;
		evloop_timeout_set(&apctl->subscribe_due, 0);
	}
	ap->said = *announcement;
	ap->seen = time_now();
	return true;
}

static int bus_announce(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *req,
	const char *method, struct blob_attr *message)
{
	struct apctl *apctl = container_of(object, struct apctl, object);
	struct announcement announcement;
	(void)method;

	if (announcement_parse(&announcement, message))
		return UBUS_STATUS_INVALID_ARGUMENT;
	bool accepted = take_announcement(apctl, &announcement);
	if (accepted)
		bus_notify(&apctl->daemon.bus, object, "aps", names_json(apctl));
	return bus_reply(ctx, req, json_pack("{s:b}", "accepted", (int)accepted));
}

static const struct ubus_method bus_methods[] = {
	UBUS_METHOD("announce", bus_announce, ubus_json_attrs),
};

/* On every connection to the bus: adds the object, unless it was added before, and subscribes to each. */
static void join(struct bus *bus)
{
	struct apctl *apctl = container_of(bus, struct apctl, daemon.bus);
	bus_add_object(bus, &apctl->object);
	for (int index = 0; index < apctl->ap_count; index++)
		ap_subscribe(&apctl->aps[index], bus->ctx);
}

/* ---- GET /aps ---- */

static json_t *ap_json(const struct apctl *apctl, const struct ap *ap)
{
	json_t *json = announcement_json(&ap->said);
	json_object_set_new(json, "reachable", json_boolean(is_reachable(apctl, ap)));
	json_object_set_new(json, "last_seen_s", json_integer((time_now() - ap->seen) / 1000000));
	return json;
}

static int32_t get_aps(struct httpd_conn *conn)
{
	const struct apctl *apctl = apctl_of(conn);
	json_t *aps = json_array();
	for (int index = 0; index < apctl->ap_count; index++)
		json_array_append_new(aps, ap_json(apctl, &apctl->aps[index]));
	return answer_json(conn, aps);
}

/* ---- POST /led ---- */

/*
 * Has the access point change the LED, without waiting for it. It looks up the object's id each time: a restart changes
 * it. Returns the code of an HTTP answer.
 */
static int push_led(struct apctl *apctl, struct ap *ap, const struct led *led)
{
	struct bus *bus = &apctl->daemon.bus;
	uint32_t id = 0;

	if (!leds_find(&ap->said.leds, led->name))
		return 404;
	if (!is_reachable(apctl, ap) || ubus_lookup_id(bus->ctx, ap->said.object, &id) || id == 0)
		return 503;
	if (bus_push(bus, id, "set_led", led_json(led), PUSH_TIMEOUT_MS))
		return 503;
	return 200;
}

static void notify_led(struct apctl *apctl, const char *name, const struct led *led)
{
	json_t *json = led_json(led);
	json_object_set_new(json, "name", json_string(name));
	bus_notify(&apctl->daemon.bus, &apctl->object, "led", json);
}

/* Returns the code of the HTTP answer to the request `json`. */
static int change_led(struct apctl *apctl, json_t *json)
{
	struct led led;
	const char *name = json_string_value(json_object_get(json, "name"));
	if (!name || led_read(&led, json))
		return 400;
	struct ap *ap = ap_find(apctl, name);
	if (!ap)
		return 404;
	int code = push_led(apctl, ap, &led);
	if (code == 200)
		notify_led(apctl, name, &led);
	return code;
}

static int32_t post_led(struct httpd_conn *conn)
{
	json_t *json = json_loadb(conn->body, (size_t)conn->body_len, 0, NULL);
	int code = json ? change_led(apctl_of(conn), json) : 400;
	json_decref(json);
	return code == 200 ? answer_json(conn, json_pack("{s:b}", "sent", 1)) : answer_error(conn, code);
}

static const struct route routes[] = {
	{"/aps", HTTPD_METHOD_GET, get_aps},
	{"/led", HTTPD_METHOD_POST, post_led},
};

static int32_t handle_request(struct httpd_conn *conn)
{
	return answer_by_route(conn, routes, sizeof routes / sizeof routes[0], apctl_of(conn)->daemon.host);
}

/* ---- Start and stop ---- */

/* Runs the daemon until a signal stops it. Returns the exit status. */
static int apctl_run(const struct daemon_options *options)
{
	struct ubus_object_type type = UBUS_OBJECT_TYPE("apctl", bus_methods);
	struct apctl apctl = {
		.daemon.bus.joined = join,
		.object = {.name = "apctl",
			.type = &type,
			.methods = type.methods,
			.n_methods = type.n_methods},
		.subscribe_due.cb = subscribe_where_due,
	};

	if (daemon_start(&apctl.daemon, options, handle_request))
		return EXIT_FAILURE;
	evloop_run();
	_log(LOG_INFO, "stopping\n");
	for (int index = 0; index < apctl.ap_count; index++)
		mox_ubus_unsubscribe(&apctl.aps[index].subscription);
	daemon_stop(&apctl.daemon);
	return EXIT_SUCCESS;
}

static const char usage[] =
	"Usage: apctl [--address ADDRESS] [--port PORT] [--host HOST]\n"
	"             [--bus SOCKET]\n"
	"\n"
	"Looks after the access points that announce themselves on the message bus, until SIGTERM or\n"
	"SIGINT.\n"
	"\n"
	"  --address ADDRESS  IPv4 address or host name to listen on (127.0.0.1);\n"
	"                     0.0.0.0 is every address of this machine\n"
	"  --port PORT        port to listen on, 0 to 65535 (8081); 0 takes a free one\n"
	"  --host HOST        a name that browsers reach it by, besides its address: requests\n"
	"                     that change something are refused if they name another host\n"
	"  --bus SOCKET       the bus to join when there is one (the system's)\n"
	"  -h, --help         print this text\n"
	"  --version          print the version\n"
	"\n"
	"GET  /aps   the access points, as JSON\n"
	"POST /led   {\"name\": TEXT, \"led\": TEXT, \"on\": BOOL} changes an LED of an access point\n"
	"\n"
	"On the bus, in JSON: the object apctl with the method announce {\"name\": TEXT,\n"
	"\"object\": TEXT, \"url\": TEXT, \"leds\": {TEXT: BOOL}}, the notifications aps and led.\n";

int main(int argc, char **argv)
{
	struct daemon_options options = {.program = "apctl", .usage = usage, .port = 8081};
	int status = daemon_options_parse(&options, argc, argv);
	return status == DAEMON_RUN ? apctl_run(&options) : status;
}
