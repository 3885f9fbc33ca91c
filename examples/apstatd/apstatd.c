/*
 * apstatd - the status daemon of an access point, and an example to copy from: an HTTP server on the event
 * loop, with answers that wait for a timer or for a child process, and an object on the message bus. Where
 * the library is installed, its headers are <apbase/evloop.h> and so on.
 *
 * There is one thread, one loop, and one record, `struct apstatd`, that owns everything. There are no globals
 * here: the library hands every callback the record it belongs to (a connection, a timer, a child watcher, an
 * object), and container_of, which comes with libubox, finds the record around it. One callback gets no
 * argument; it is in examples/common/bus.c.
 *
 * The table `routes` has one function for each request. It composes the answer in the connection's two buffers
 * and returns; or it makes a `struct deferred`, which owes the connection an answer until deferred_finish.
 *
 * On the bus it is the object "apstat", or "apstat.NAME", with JSON messages (ubus.h): the methods "status" and
 * "set_led", and a notification "led" for every LED that changes. It subscribes to the object "apctl", the
 * daemon that looks after all access points, and announces itself there whenever the subscription is made:
 * when apctl starts late, when it restarts, and when the bus does. `join` alone sees to that on a new
 * connection. Without a bus everything else works the same.
 *
 * It describes the board once, when it starts (board.h). It counts the requests in each step of the last
 * minutes, so that the page can plot them at once.
 *
 * examples/common/daemon.c ends the daemon. It then releases everything: first it completes the deferred answers,
 * then it ends its calls and subscriptions on the bus, then the rest.
 */
#define _POSIX_C_SOURCE 200809L

#include <jansson.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "examples/apstatd/page.h"
#include "examples/common/board.h"
#include "examples/common/daemon.h"
#include "examples/common/guard.h"
#include "examples/common/http.h"
#include "examples/common/message.h"
#include "examples/common/process.h"
#include "examples/common/program.h"
#include "lib/device.h"
#include "lib/evloop-process.h"
#include "lib/evloop.h"
#include "lib/httpd.h"
#include "lib/log.h"
#include "lib/time.h"
#include "lib/ubus.h"

/* The server closes a connection after 60 seconds without input, deferred or not: stay well below. */
#define SLOW_MS_MAX      30000
#define SLOW_MS_DEFAULT  1000
#define RUN_SECONDS_MAX  30
#define RUN_CODE_MAX     255
#define RUN_CHILDREN_MAX 32 /* at the same time; a peer must not fill the process table */

/* The page plots this many steps, five minutes. */
#define HISTORY_STEP_MS 5000
#define HISTORY_STEPS   60

#define LED_UNKNOWN (-1)

/* The number of requests in each of the last steps; in the present step, those since `requests_before`. */
struct history {
	uint64_t requests[HISTORY_STEPS]; /* a ring */
	int step;                         /* the index of the present step */
	uint64_t requests_before;
	struct evloop_timeout timeout; /* the end of the step */
};

/* The daemon. */
struct apstatd {
	struct daemon daemon;
	struct deferred *deferred; /* the answers owed, latest first */
	int64_t started;           /* microseconds of the monotonic clock */
	uint64_t requests;         /* that reached handle_request, the current one included */
	uint64_t timers_fired;
	int children; /* running */

	json_t *board; /* as described at the start */
	int led;       /* the state last set, DEV_LED_*, or LED_UNKNOWN */
	struct history history;

	struct announcement self; /* our name, object, URL and LEDs */
	struct ubus_object object;
	struct ubus_subscription apctl;
	struct ubus_retry_request announce;
	bool announced;       /* apctl has accepted our latest announcement */
	size_t access_points; /* known to apctl, by its last notification */
};

/*
 * A deferred answer, which waits for `timeout` or `process`. As long as it exists, the connection's record does, too,
 * even if the peer has gone. The answer is then dropped, so nothing here checks for that.
 */
struct deferred {
	struct deferred *next;
	struct deferred **link; /* the pointer to this one: the list's head, or a neighbour's `next` */
	struct httpd_conn *conn;
	struct evloop_timeout timeout;
	struct evloop_process process;
};

static struct apstatd *apstatd_of(const struct httpd_conn *conn)
{
	return container_of(conn->ctx, struct apstatd, daemon.http);
}

/* ---- Requests ---- */

/*
 * The decoded value of a parameter of the query, for the caller to free; null if there is none. `name` begins with a
 * "?": the library keeps that in the name of the first parameter, so it is looked up with and without it.
 */
static char *query_text(struct httpd_conn *conn, const char *name)
{
	char *value = http_req_lookup_param(conn, name);
	return value ? value : http_req_lookup_param(conn, name + 1);
}

/*
 * The same for a number from 0 to `max`. Without such a parameter, `*number` stays as it is. Returns 0, or a negative
 * number if the value is not such a number.
 */
static int query_number(struct httpd_conn *conn, const char *name, int max, int *number)
{
	char *text = query_text(conn, name);
	int value = text ? (int)parse_number(text, (uint32_t)max) : *number;
	free(text);
	if (value < 0)
		return value;
	*number = value;
	return 0;
}

/* ---- Deferred answers ---- */

static struct deferred *deferred_new(struct httpd_conn *conn)
{
	struct apstatd *apstatd = apstatd_of(conn);
	struct deferred *deferred = (struct deferred *)xzalloc(sizeof *deferred);

	deferred->conn = conn;
	deferred->next = apstatd->deferred;
	deferred->link = &apstatd->deferred;
	if (deferred->next)
		deferred->next->link = &deferred->next;
	apstatd->deferred = deferred;

	httpd_defer(conn);
	return deferred;
}

/* Ends it after the answer has been written. It is released, and its connection may be, too. */
static void deferred_finish(struct deferred *deferred, int32_t keep)
{
	*deferred->link = deferred->next;
	if (deferred->next)
		deferred->next->link = deferred->link;

	httpd_defer_complete(deferred->conn, keep);
	free(deferred);
}

/* ---- GET / ---- */

static int32_t get_page(struct httpd_conn *conn)
{
	buffer_write(conn->res_body, page, page_length);
	return answer_body(conn, "text/html; charset=utf-8");
}

/* ---- The requests of the last minutes ---- */

static void history_end_step(struct evloop_timeout *timeout)
{
	struct apstatd *apstatd = container_of(timeout, struct apstatd, history.timeout);
	struct history *history = &apstatd->history;

	history->requests[history->step] = apstatd->requests - history->requests_before;
	history->requests_before = apstatd->requests;
	history->step = (history->step + 1) % HISTORY_STEPS;
	evloop_timeout_set(timeout, HISTORY_STEP_MS);
}

static void history_start(struct history *history)
{
	history->timeout.cb = history_end_step;
	evloop_timeout_set(&history->timeout, HISTORY_STEP_MS);
}

/* The oldest step first, the present one last. */
static json_t *history_json(const struct apstatd *apstatd)
{
	const struct history *history = &apstatd->history;
	json_t *requests = json_array();
	for (int age = HISTORY_STEPS - 1; age > 0; age--) {
		int step = (history->step + HISTORY_STEPS - age) % HISTORY_STEPS;
		json_array_append_new(requests, json_integer((json_int_t)history->requests[step]));
	}
	json_array_append_new(
		requests, json_integer((json_int_t)(apstatd->requests - history->requests_before)));
	return json_pack("{s:i, s:o}", "step_s", HISTORY_STEP_MS / 1000, "requests", requests);
}

/* ---- GET /status ---- */

static json_int_t count_connections(const struct httpd_ctx *http)
{
	json_int_t count = 0;
	for (const struct httpd_link *link = http->connections.next; link != &http->connections;
		link = link->next)
		count++;
	return count;
}

static json_int_t count_deferred(const struct apstatd *apstatd)
{
	json_int_t count = 0;
	for (const struct deferred *deferred = apstatd->deferred; deferred; deferred = deferred->next)
		count++;
	return count;
}

/* Whole seconds, from the full 64 bits: time_now_sec would wrap after 36 minutes. */
static json_int_t uptime_s(const struct apstatd *apstatd)
{
	return (time_now() - apstatd->started) / 1000000;
}

static json_t *status_json(const struct apstatd *apstatd)
{
	return json_pack("{s:I, s:I, s:I, s:I, s:I, s:I}",                    //
		"pid", (json_int_t)getpid(),                                  //
		"uptime_s", uptime_s(apstatd),                                //
		"requests", (json_int_t)apstatd->requests,                    //
		"open_connections", count_connections(&apstatd->daemon.http), //
		"deferred_answers", count_deferred(apstatd),                  //
		"timers_fired", (json_int_t)apstatd->timers_fired);
}

static json_t *led_state_json(const struct apstatd *apstatd)
{
	return apstatd->led == LED_UNKNOWN ? json_null() : json_integer(apstatd->led);
}

static int32_t get_status(struct httpd_conn *conn)
{
	const struct apstatd *apstatd = apstatd_of(conn);
	json_t *status = status_json(apstatd);

	json_object_set(status, "board", apstatd->board);
	json_object_set_new(status, "led", led_state_json(apstatd));
	json_object_set_new(status, "history", history_json(apstatd));
	return answer_json(conn, status);
}

/* ---- POST /led?state=2 ---- */

/*
 * The state in a query that is "?state=" and one digit, or LED_UNKNOWN. query_number does not serve: for a POST, the
 * library looks up parameters in the body.
 */
static int led_wanted(const struct httpd_conn *conn)
{
	static const char name[] = "?state=";
	const int32_t name_length = sizeof name - 1;

	if (conn->query_len != name_length + 1 || memcmp(conn->query, name, sizeof name - 1) != 0)
		return LED_UNKNOWN;
	int state = conn->query[name_length] - '0';
	return state >= DEV_LED_OFF && state <= DEV_LED_BLUE_BLINK ? state : LED_UNKNOWN;
}

/* The board's LEDs can be set, but not read: their state is the one last set. */
static int32_t post_led(struct httpd_conn *conn)
{
	struct apstatd *apstatd = apstatd_of(conn);
	int state = led_wanted(conn);

	if (state == LED_UNKNOWN)
		return answer_error(conn, 400);
	dev_led_set((unsigned int)state);
	apstatd->led = state;
	return answer_json(conn, json_pack("{s:i}", "state", state));
}

/* ---- GET /leds ---- */

static int32_t get_leds(struct httpd_conn *conn)
{
	return answer_json(conn, leds_json(&apstatd_of(conn)->self.leds));
}

/* ---- GET /bus ---- */

/* When apctl goes away, the subscription waits for the next attempt. */
static bool is_subscribed(const struct apstatd *apstatd)
{
	return apstatd->daemon.bus.online && !apstatd->apctl.retry.pending;
}

static int32_t get_bus(struct httpd_conn *conn)
{
	const struct apstatd *apstatd = apstatd_of(conn);
	bool subscribed = is_subscribed(apstatd);
	return answer_json(conn,
		json_pack("{s:b, s:s, s:b, s:b, s:I}",                        //
			"connected", apstatd->daemon.bus.online != NULL,      //
			"object", apstatd->self.object,                       //
			"subscribed", (int)subscribed,                        //
			"announced", (int)(subscribed && apstatd->announced), //
			"access_points", (json_int_t)(subscribed ? apstatd->access_points : 0)));
}

/* ---- POST /echo ---- */

/* The bytes come back as they are, and their type does except for white space, which the server changes. */
static int32_t post_echo(struct httpd_conn *conn)
{
	const char *content_type = header_get(conn, "Content-Type");
	buffer_write(conn->res_body, conn->body, conn->body_len);
	return answer_body(conn, content_type ? content_type : "application/octet-stream");
}

/* ---- GET /param?x=text ---- */

/* Plain text, so that nothing in the value needs escaping. */
static int32_t get_param(struct httpd_conn *conn)
{
	char *value = query_text(conn, "?x");
	if (!value)
		return answer_error(conn, 400);
	put_text(conn->res_body, "x=");
	put_text(conn->res_body, value);
	put_text(conn->res_body, "\n");
	free(value);
	return answer_body(conn, "text/plain; charset=utf-8");
}

/* ---- GET /slow?ms=1000 ---- */

static void slow_answer(struct evloop_timeout *timeout)
{
	struct deferred *deferred = container_of(timeout, struct deferred, timeout);
	struct httpd_conn *conn = deferred->conn;

	apstatd_of(conn)->timers_fired++;
	put_text(conn->res_body, "done\n");
	deferred_finish(deferred, answer_body(conn, "text/plain; charset=utf-8"));
}

static int32_t get_slow(struct httpd_conn *conn)
{
	int delay_ms = SLOW_MS_DEFAULT;
	if (query_number(conn, "?ms", SLOW_MS_MAX, &delay_ms))
		return answer_error(conn, 400);

	struct deferred *deferred = deferred_new(conn);
	deferred->timeout.cb = slow_answer;
	evloop_timeout_set(&deferred->timeout, delay_ms);
	return 1;
}

/* ---- GET /run?code=0&seconds=0 ---- */

/*
 * Starts a shell that takes `seconds` and ends with `code`, in a process group of its own, so that its children can be
 * ended with it. It gets none of our descriptors but the standard ones: the library and signalfd close theirs on exec.
 * Only numbers are put into the command: text from the network has no place in one.
 *
 * Returns its process id, or a negated errno.
 */
static pid_t child_start(int seconds, int code)
{
	char command[64];
	snprintf(command, sizeof command, "sleep %d; exit %d", seconds, code);
	char shell[] = "sh", option[] = "-c", path[] = "PATH=/usr/bin:/bin";
	char *const arguments[] = {shell, option, command, NULL};
	char *const environment[] = {path, NULL};
	pid_t pid = 0;
	int error = process_spawn(&pid, "/bin/sh", arguments, environment, true);
	return error ? -error : pid;
}

/* Ends a child and its process group, and reaps it. Only after the loop has ended, which else reaps. */
static void child_kill(struct evloop_process *process)
{
	kill(-process->pid, SIGKILL);
	evloop_process_kill_and_delete(process);
	waitpid(process->pid, NULL, 0);
}

/*
 * The status arrives as a signed 8-bit number, 200 as -56; both are shown. A child that a signal ended arrives as 0,
 * like a success.
 */
static void run_answer(struct evloop_process *process, int exit_status)
{
	struct deferred *deferred = container_of(process, struct deferred, process);
	struct httpd_conn *conn = deferred->conn;
	json_t *result = json_pack("{s:i, s:i}", "exit_code", exit_status & 0xff, "reported", exit_status);

	apstatd_of(conn)->children--;
	deferred_finish(deferred, answer_json(conn, result));
}

static int32_t get_run(struct httpd_conn *conn)
{
	struct apstatd *apstatd = apstatd_of(conn);
	int seconds = 0, code = 0;

	if (query_number(conn, "?seconds", RUN_SECONDS_MAX, &seconds))
		return answer_error(conn, 400);
	if (query_number(conn, "?code", RUN_CODE_MAX, &code))
		return answer_error(conn, 400);
	if (apstatd->children == RUN_CHILDREN_MAX)
		return answer_error(conn, 503);
	pid_t pid = child_start(seconds, code);
	if (pid < 0) {
		_log(LOG_ERR, "unable to start a child process: err=%d\n", (int)pid);
		return answer_error(conn, 500);
	}

	apstatd->children++;
	struct deferred *deferred = deferred_new(conn);
	deferred->process.pid = pid;
	deferred->process.cb = run_answer;
	/* The child cannot be missed: the loop reaps on its next pass, not before. */
	int added = evloop_process_add(&deferred->process);
	log_assert(added == 0);
	return 1;
}

/* ---- Routes ---- */

static const struct route routes[] = {
	{"/", HTTPD_METHOD_GET, get_page},
	{"/status", HTTPD_METHOD_GET, get_status},
	{"/leds", HTTPD_METHOD_GET, get_leds},
	{"/bus", HTTPD_METHOD_GET, get_bus},
	{"/echo", HTTPD_METHOD_POST, post_echo},
	{"/param", HTTPD_METHOD_GET, get_param},
	{"/slow", HTTPD_METHOD_GET, get_slow},
	{"/run", HTTPD_METHOD_GET, get_run},
	{"/led", HTTPD_METHOD_POST, post_led},
};

static int32_t handle_request(struct httpd_conn *conn)
{
	apstatd_of(conn)->requests++;
	return answer_by_route(conn, routes, sizeof routes / sizeof routes[0], apstatd_of(conn)->daemon.host);
}

/* ---- The object on the bus ---- */

/* {"pid": 17, ..., "name": "hall", "leds": {"power": true}}: the numbers of GET /status, and more. */
static int bus_status(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *req,
	const char *method, struct blob_attr *message)
{
	const struct apstatd *apstatd = container_of(object, struct apstatd, object);
	json_t *status = status_json(apstatd);
	(void)method, (void)message;

	json_object_set_new(status, "name", json_string(apstatd->self.name));
	json_object_set_new(status, "leds", leds_json(&apstatd->self.leds));
	return bus_reply(ctx, req, status);
}

static void led_set(struct apstatd *apstatd, struct led *led, bool on)
{
	if (led->on == on)
		return;
	led->on = on;
	bus_notify(&apstatd->daemon.bus, &apstatd->object, "led", led_json(led));
}

/* Asked for {"led": "power", "on": true}, it answers the same. */
static int bus_set_led(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *req,
	const char *method, struct blob_attr *message)
{
	struct apstatd *apstatd = container_of(object, struct apstatd, object);
	struct led wanted;
	(void)method;

	if (led_parse(&wanted, message))
		return UBUS_STATUS_INVALID_ARGUMENT;
	struct led *led = leds_find(&apstatd->self.leds, wanted.name);
	if (!led)
		return UBUS_STATUS_INVALID_ARGUMENT;
	led_set(apstatd, led, wanted.on);
	return bus_reply(ctx, req, led_json(led));
}

static const struct ubus_method bus_methods[] = {
	UBUS_METHOD_NOARG("status", bus_status),
	UBUS_METHOD("set_led", bus_set_led, ubus_json_attrs),
};

/* ---- apctl ---- */

/* The buffer lies in the request, which leads to the daemon. */
static int announce_prepare(struct blob_buf *message)
{
	const struct ubus_retry_request *request = container_of(message, struct ubus_retry_request, buf);
	const struct apstatd *apstatd = container_of(request, struct apstatd, announce);
	json_t *json = announcement_json(&apstatd->self);

	ubus_pack_json_msg(message, json);
	json_decref(json);
	return 0;
}

/* {"accepted": true}. A refusal is an answer, too: an error status would have the request sent again and again. */
static void announce_answer(struct ubus_request *request, int type, struct blob_attr *message)
{
	struct apstatd *apstatd = container_of(ubus_req_to_retry_request(request), struct apstatd, announce);
	json_t *json = NULL;
	int accepted = 0;
	(void)type;

	if (ubus_parse_json_msg(message, &json))
		return;
	json_unpack(json, "{s:b}", "accepted", &accepted);
	json_decref(json);
	apstatd->announced = accepted;
	if (!accepted)
		_log(LOG_WARNING, "apctl has not accepted the announcement\n");
}

/* apctl is there, for the first time or again. */
static int apctl_found(struct ubus_subscription *subscription)
{
	struct apstatd *apstatd = container_of(subscription, struct apstatd, apctl);
	apstatd->announced = false;
	apstatd->access_points = 0;
	return ubus_retry_request_invoke(&apstatd->announce);
}

/* Counts the access points in the notification "aps": {"names": ["attic", "hall"]}. Ignores all others. */
static int apctl_notifies(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *req,
	const char *type, struct blob_attr *message)
{
	struct apstatd *apstatd = container_of(ubus_object_to_subscription(object), struct apstatd, apctl);
	json_t *json = NULL;
	(void)ctx, (void)req;

	if (strcmp(type, "aps") != 0)
		return UBUS_STATUS_OK;
	if (ubus_parse_json_msg(message, &json))
		return UBUS_STATUS_INVALID_ARGUMENT;
	apstatd->access_points = json_array_size(json_object_get(json, "names"));
	json_decref(json);
	return UBUS_STATUS_OK;
}

/* On every connection to the bus: adds the object, unless it was added before, and subscribes. */
static void join(struct bus *bus)
{
	struct apstatd *apstatd = container_of(bus, struct apstatd, daemon.bus);
	memcpy(apstatd->self.url, apstatd->daemon.url, sizeof apstatd->self.url);
	bus_add_object(bus, &apstatd->object);
	apstatd->apctl.ctx = bus->ctx;
	mox_ubus_subscribe(&apstatd->apctl, apctl_notifies);
}

/* ---- Start and stop ---- */

/* Two LEDs that exist only here, for apctl to set; POST /led sets those of the board. */
static const struct leds initial_leds = {.led = {{"power", true}, {"wlan", false}}, .count = 2};

/* Prepares the object, the subscription and the announcement. An empty name makes the object "apstat". */
static void apstatd_init_bus(struct apstatd *apstatd, const char *name, struct ubus_object_type *type)
{
	struct announcement *self = &apstatd->self;
	snprintf(self->name, sizeof self->name, "%s", *name ? name : "apstat");
	snprintf(self->object, sizeof self->object, "apstat%s%s", *name ? "." : "", name);
	self->leds = initial_leds;

	apstatd->object.name = self->object;
	apstatd->object.type = type;
	apstatd->object.methods = type->methods;
	apstatd->object.n_methods = type->n_methods;
	snprintf(apstatd->apctl.path, sizeof apstatd->apctl.path, "apctl");
	apstatd->apctl.subscribed_cb = apctl_found;
	ubus_retry_request_init(&apstatd->announce, &apstatd->daemon.bus.online, "announce", "apctl",
		announce_prepare, announce_answer);
	apstatd->daemon.bus.joined = join;
}

/* Completes a deferred answer with an error, so that its connection can be closed. */
static void deferred_abandon(struct deferred *deferred)
{
	evloop_timeout_cancel(&deferred->timeout);
	if (evloop_process_is_pending(&deferred->process))
		child_kill(&deferred->process);
	answer_error(deferred->conn, 503);
	deferred_finish(deferred, 0);
}

static void apstatd_stop(struct apstatd *apstatd)
{
	for (struct deferred *deferred = apstatd->deferred, *next; deferred; deferred = next) {
		next = deferred->next;
		deferred_abandon(deferred);
	}
	evloop_timeout_cancel(&apstatd->history.timeout);
	json_decref(apstatd->board);
	ubus_retry_request_abort(&apstatd->announce);
	mox_ubus_unsubscribe(&apstatd->apctl);
	daemon_stop(&apstatd->daemon);
}

/* Runs the daemon until a signal stops it. Returns the exit status. */
static int apstatd_run(const struct daemon_options *options)
{
	struct ubus_object_type type = UBUS_OBJECT_TYPE("apstat", bus_methods);
	struct apstatd apstatd = {.started = time_now(), .led = LED_UNKNOWN};

	apstatd_init_bus(&apstatd, options->name, &type);
	if (daemon_start(&apstatd.daemon, options, handle_request))
		return EXIT_FAILURE;
	apstatd.board = board_json();
	history_start(&apstatd.history);
	evloop_run();
	_log(LOG_INFO, "stopping\n");
	apstatd_stop(&apstatd);
	return EXIT_SUCCESS;
}

static const char usage[] =
	"Usage: apstatd [--address ADDRESS] [--port PORT] [--host HOST]\n"
	"               [--bus SOCKET] [--name NAME]\n"
	"\n"
	"Serves its own status over HTTP and on the message bus until SIGTERM or SIGINT.\n"
	"\n"
	"  --address ADDRESS  IPv4 address or host name to listen on (127.0.0.1);\n"
	"                     0.0.0.0 is every address of this machine\n"
	"  --port PORT        port to listen on, 0 to 65535 (8080); 0 takes a free one\n"
	"  --host HOST        a name that browsers reach it by, besides its address: requests\n"
	"                     that change something are refused if they name another host\n"
	"  --bus SOCKET       the bus to join when there is one (the system's)\n"
	"  --name NAME        be the object apstat.NAME on the bus (apstat)\n"
	"  -h, --help         print this text\n"
	"  --version          print the version\n"
	"\n"
	"GET  /                     a page that shows the status\n"
	"GET  /status               the status and the board as JSON\n"
	"POST /led?state=N          set the board's LEDs: 0 off, 1 white blinking, 2 blue,\n"
	"                           3 white blinking fast, 4 slowly, 5 blue blinking\n"
	"GET  /leds                 which LEDs are on, as JSON\n"
	"GET  /bus                  what the message bus looks like from here, as JSON\n"
	"POST /echo                 the body that was sent\n"
	"GET  /param?x=TEXT         the decoded parameter\n"
	"GET  /slow?ms=N            an answer after N milliseconds, 0 to 30000 (1000)\n"
	"GET  /run?code=N&seconds=S the exit code of a child process that ends with\n"
	"                           code N, 0 to 255 (0), after S seconds, 0 to 30 (0)\n"
	"\n"
	"On the bus, in JSON: the methods status and set_led {\"led\": TEXT, \"on\": BOOL},\n"
	"the notification led. It announces itself to the object apctl.\n";

int main(int argc, char **argv)
{
	struct daemon_options options = {.program = "apstatd", .usage = usage, .port = 8080, .name = ""};
	int status = daemon_options_parse(&options, argc, argv);
	return status == DAEMON_RUN ? apstatd_run(&options) : status;
}
