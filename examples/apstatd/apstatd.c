/*
 * apstatd - a status daemon, and an example to copy from: an HTTP server on the event loop, with
 * answers that wait for a timer or for a child process. Where the library is installed, its headers
 * are <apbase/evloop.h> and so on.
 *
 * There is one thread, one loop, and one record, `struct apstatd`, that owns all there is. There
 * are no globals: the library hands every callback the record it belongs to (a connection, a timer,
 * a child watcher), and container_of finds what lies around it.
 *
 * A request is looked up in the table `routes` and answered by one function, in one of two ways.
 * Either it composes the answer in the connection's two buffers and returns, or it makes a `struct
 * deferred`, which owes the connection an answer until deferred_finish.
 *
 * Signals are a descriptor like any other. SIGTERM and SIGINT end the loop, after which everything
 * is given back: first the listening socket, then the answers still owed, then the connections.
 * SIGCHLD only has to wake the loop, which then reaps.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <jansson.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/evloop-process.h"
#include "lib/evloop.h"
#include "lib/httpd.h"
#include "lib/log.h"
#include "lib/sock.h"
#include "lib/time.h"

/* The record that `member`, of the given name and type, lies in. */
#define container_of(member, type, name) ((type *)(void *)((char *)(member)-offsetof(type, name)))

#define LISTEN_BACKLOG 128

/* The server closes a connection after 60 seconds without input, deferred or not: stay well below. */
#define SLOW_MS_MAX      30000
#define SLOW_MS_DEFAULT  1000
#define RUN_SECONDS_MAX  30
#define RUN_CODE_MAX     255
#define RUN_CHILDREN_MAX 32 /* at the same time; a peer must not fill the process table */

/* The daemon. */
struct apstatd {
	struct httpd_ctx http;
	struct sock listener;
	struct evloop_io signals;  /* a signalfd */
	struct deferred *deferred; /* the answers owed, latest first */
	int64_t started;           /* microseconds of the monotonic clock */
	uint64_t requests;         /* that reached handle_request, the current one included */
	uint64_t timers_fired;
	int children; /* that are running */
};

/*
 * An answer that is owed to a connection, and what it waits for: `timeout` or `process`. As long as
 * it exists the connection's record does too, even if the peer has gone; what is written then is
 * dropped, so nobody here has to ask whether there is still somebody to answer.
 */
struct deferred {
	struct deferred *next;
	struct deferred **link; /* what points here: the list's head, or a neighbour's `next` */
	struct httpd_conn *conn;
	struct evloop_timeout timeout;
	struct evloop_process process;
};

struct options {
	const char *address;
	int port;
};

static struct apstatd *apstatd_of(const struct httpd_conn *conn)
{
	return container_of(conn->ctx, struct apstatd, http);
}

/* ---- Requests ---- */

/*
 * Reads a decimal number of at most `max`: digits only, no sign, no space around. Returns 0, or
 * -EINVAL, and then `*number` is as it was.
 */
static int parse_number(const char *text, int max, int *number)
{
	int value = 0;
	const char *digit = text;

	for (; *digit >= '0' && *digit <= '9'; digit++) {
		value = value * 10 + (*digit - '0');
		if (value > max)
			return -EINVAL;
	}
	if (digit == text || *digit != '\0')
		return -EINVAL;
	*number = value;
	return 0;
}

/*
 * The decoded value of one of the query's parameters, wherever it stands, for the caller to free; null
 * if there is none. `name` is written with a "?" before it: by that name the library knows the first
 * parameter of a query, and any other without it.
 */
static char *query_text(struct httpd_conn *conn, const char *name)
{
	char *value = http_req_lookup_param(conn, name);
	return value ? value : http_req_lookup_param(conn, name + 1);
}

/*
 * The same for a number from 0 to `max`; without such a parameter `*number` keeps the default it has.
 * Returns 0, or -EINVAL for anything that is not such a number.
 */
static int query_number(struct httpd_conn *conn, const char *name, int max, int *number)
{
	char *text = query_text(conn, name);
	int error = text ? parse_number(text, max, number) : 0;
	free(text);
	return error;
}

static int path_is(const struct httpd_conn *conn, const char *path)
{
	if (conn->path_len == 0) /* "GET http://host HTTP/1.1" */
		return strcmp(path, "/") == 0;
	return (size_t)conn->path_len == strlen(path) && memcmp(conn->path, path, strlen(path)) == 0;
}

/* ---- Answers: they return what a handler returns, 1 to keep the connection and 0 to close it ---- */

/*
 * Sends an error page instead of whatever was composed. The page would be taken for the next answer by whoever
 * asked with HEAD, so only the two methods that are understood keep their connection.
 */
static int32_t answer_error(struct httpd_conn *conn, int code)
{
	httpd_fail(conn, conn->version, code);
	return conn->method != HTTPD_METHOD_OTHER;
}

static void put_text(struct buffer *buffer, const char *text)
{
	buffer_write(buffer, text, (int32_t)strlen(text));
}

/*
 * Sends the body that was composed in `res_body`, behind a head.
 *
 * What formats into a buffer only fills the space that is free. It comes first, while the head has the
 * 512 bytes it starts with. The type, which may be a peer's text of any length, is appended.
 */
static int32_t answer_body(struct httpd_conn *conn, const char *content_type)
{
	struct buffer *head = conn->res_head;
	struct buffer *body = conn->res_body;

	http_res_put_status_line(head, conn->version, 200, http_code_to_string(200));
	httpd_common_headers(conn);
	http_res_put_header(head, "Content-Length", "%d", (int)buffer_length(body));
	if (conn->close_requested)
		put_text(head, "Connection: close\r\n");
	put_text(head, "X-Content-Type-Options: nosniff\r\n"
		       "Content-Type: ");
	put_text(head, content_type);
	put_text(head, "\r\n\r\n");

	stream_write(&conn->stream, head->data, (uint32_t)head->length);
	stream_write(&conn->stream, body->data, (uint32_t)body->length);
	httpd_res_buffers_reset(conn);
	return 1;
}

/* Sends `json`, and drops the reference to it. Null, when memory was exhausted, becomes an error page. */
static int32_t answer_json(struct httpd_conn *conn, json_t *json)
{
	char *text = json_dumps(json, 0);
	json_decref(json);
	if (!text)
		return answer_error(conn, 500);
	put_text(conn->res_body, text);
	put_text(conn->res_body, "\n");
	free(text);
	return answer_body(conn, "application/json");
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

/* Ends it, after the answer has been written. It, and perhaps its connection, are gone afterwards. */
static void deferred_finish(struct deferred *deferred, int32_t keep)
{
	*deferred->link = deferred->next;
	if (deferred->next)
		deferred->next->link = deferred->link;

	httpd_defer_complete(deferred->conn, keep);
	free(deferred);
}

/* ---- GET / ---- */

static const char page[] = "<!DOCTYPE html>\n"
			   "<html lang=\"en\">\n"
			   "<head>\n"
			   "<meta charset=\"utf-8\">\n"
			   "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
			   "<link rel=\"icon\" href=\"data:,\">\n"
			   "<title>apstatd</title>\n"
			   "<style>\n"
			   ":root { color-scheme: light dark; font: 1.1rem/1.5 system-ui, sans-serif }\n"
			   "body { max-width: 28rem; margin: 2rem auto; padding: 0 1rem }\n"
			   "dl { display: grid; grid-template-columns: 1fr auto; gap: .6rem 1rem }\n"
			   "dd { margin: 0; text-align: right; font-variant-numeric: tabular-nums }\n"
			   "#state { opacity: .7 }\n"
			   "</style>\n"
			   "</head>\n"
			   "<body>\n"
			   "<h1>apstatd</h1>\n"
			   "<p id=\"state\" role=\"status\">Loading</p>\n"
			   "<dl>\n"
			   "<dt>Process</dt><dd id=\"pid\">&ndash;</dd>\n"
			   "<dt>Uptime, seconds</dt><dd id=\"uptime_s\">&ndash;</dd>\n"
			   "<dt>Requests</dt><dd id=\"requests\">&ndash;</dd>\n"
			   "<dt>Open connections</dt><dd id=\"open_connections\">&ndash;</dd>\n"
			   "<dt>Deferred answers</dt><dd id=\"deferred_answers\">&ndash;</dd>\n"
			   "<dt>Timers fired</dt><dd id=\"timers_fired\">&ndash;</dd>\n"
			   "</dl>\n"
			   "<script>\n"
			   "async function refresh() {\n"
			   "  const state = document.getElementById('state');\n"
			   "  try {\n"
			   "    const status = await (await fetch('/status')).json();\n"
			   "    for (const name in status)\n"
			   "      document.getElementById(name).textContent = status[name];\n"
			   "    state.textContent = 'Running';\n"
			   "  } catch (error) {\n"
			   "    state.textContent = 'No answer';\n"
			   "  }\n"
			   "  setTimeout(refresh, 2000);\n"
			   "}\n"
			   "refresh();\n"
			   "</script>\n"
			   "</body>\n"
			   "</html>\n";

static int32_t get_page(struct httpd_conn *conn)
{
	put_text(conn->res_body, page);
	return answer_body(conn, "text/html; charset=utf-8");
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

static int32_t get_status(struct httpd_conn *conn)
{
	const struct apstatd *apstatd = apstatd_of(conn);
	return answer_json(conn,
		json_pack("{s:I, s:I, s:I, s:I, s:I, s:I}",                    //
			"pid", (json_int_t)getpid(),                           //
			"uptime_s", uptime_s(apstatd),                         //
			"requests", (json_int_t)apstatd->requests,             //
			"open_connections", count_connections(&apstatd->http), //
			"deferred_answers", count_deferred(apstatd),           //
			"timers_fired", (json_int_t)apstatd->timers_fired));
}

/* ---- POST /echo ---- */

/* Any bytes come back as they are; so does their type, but for white space, which the server tidies up. */
static int32_t post_echo(struct httpd_conn *conn)
{
	const char *content_type = httpd_header_table_get(conn, "Content-Type");
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
 * Starts a shell that takes `seconds` and ends with `code`. It gets an empty signal mask, as ours is
 * inherited otherwise; a process group of its own, so that what it starts can be ended with it; and
 * none of our descriptors but the standard ones, as the library and signalfd close theirs on exec.
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
	sigset_t no_signals;
	sigemptyset(&no_signals);
	posix_spawnattr_t attributes;
	int error = posix_spawnattr_init(&attributes);
	if (error)
		return -error;
	posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
	posix_spawnattr_setsigmask(&attributes, &no_signals);
	posix_spawnattr_setpgroup(&attributes, 0);
	error = posix_spawn(&pid, "/bin/sh", NULL, &attributes, arguments, environment);
	posix_spawnattr_destroy(&attributes);
	return error ? -error : pid;
}

/* Ends a child and all it has started, once the loop, which would have reaped it, runs no more. */
static void child_kill(struct evloop_process *process)
{
	kill(-process->pid, SIGKILL);
	evloop_process_kill_and_delete(process);
	waitpid(process->pid, NULL, 0);
}

/*
 * The status arrives as a signed number of 8 bits, 200 as -56; both are shown. A child that was
 * ended by a signal arrives as 0 and cannot be told from one that went well.
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
		_log(3, "unable to start a child process: err=%d\n", (int)pid);
		return answer_error(conn, 500);
	}

	apstatd->children++;
	struct deferred *deferred = deferred_new(conn);
	deferred->process.pid = pid;
	deferred->process.cb = run_answer;
	/* Never too late: children are reaped on the loop's next pass, not before. */
	int added = evloop_process_add(&deferred->process);
	log_assert(added == 0);
	return 1;
}

/* ---- Routes ---- */

static const struct route {
	const char *path;
	int32_t method;
	int32_t (*answer)(struct httpd_conn *conn);
} routes[] = {
	{"/", HTTPD_METHOD_GET, get_page},
	{"/status", HTTPD_METHOD_GET, get_status},
	{"/echo", HTTPD_METHOD_POST, post_echo},
	{"/param", HTTPD_METHOD_GET, get_param},
	{"/slow", HTTPD_METHOD_GET, get_slow},
	{"/run", HTTPD_METHOD_GET, get_run},
};

/*
 * Paths are compared as they were sent. `decoded_path` holds, by design of the decoder, two more
 * bytes behind the path for each escape in it; and no path here has a character that needs one.
 */
static const struct route *route_of(const struct httpd_conn *conn)
{
	for (size_t index = 0; index < sizeof routes / sizeof routes[0]; index++)
		if (path_is(conn, routes[index].path))
			return &routes[index];
	return NULL;
}

static int32_t handle_request(struct httpd_conn *conn)
{
	const struct route *route = route_of(conn);

	apstatd_of(conn)->requests++;
	if (!route)
		return answer_error(conn, 404);
	if (conn->method != route->method)
		return answer_error(conn, 405);
	return route->answer(conn);
}

/* ---- Signals ---- */

static void handle_signals(struct evloop_io *io, unsigned int events)
{
	struct signalfd_siginfo info;
	(void)events;

	while (read(io->fd, &info, sizeof info) == (ssize_t)sizeof info)
		if (info.ssi_signo != SIGCHLD)
			evloop_end();
}

/*
 * SIGCHLD is among them because the loop looks for exited children once a pass, and with the idle
 * timers of open connections pending a pass may wait for a minute. A parent that ignored SIGCHLD
 * would have left us a kernel that reaps our children for us, and forgets how they ended.
 *
 * Returns 0, or a negated errno.
 */
static int signals_watch(struct evloop_io *io)
{
	sigset_t set;
	sigemptyset(&set);
	sigaddset(&set, SIGTERM);
	sigaddset(&set, SIGINT);
	sigaddset(&set, SIGCHLD);
	signal(SIGCHLD, SIG_DFL);
	if (sigprocmask(SIG_BLOCK, &set, NULL))
		return -errno;

	io->fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
	if (io->fd < 0)
		return -errno;
	io->cb = handle_signals;
	return evloop_io_add(io, EVLOOP_READ) ? -errno : 0;
}

/* ---- Start and stop ---- */

static int apstatd_listen(struct apstatd *apstatd, const struct options *options)
{
	char service[16];
	snprintf(service, sizeof service, "%d", options->port);

	apstatd->listener.flags = SOCK_TCP;
	apstatd->listener.accept_cb = httpd_accept;
	apstatd->listener.user = &apstatd->http;
	return sock_listen(&apstatd->listener, options->address, service, LISTEN_BACKLOG);
}

/* What a failure of sock_listen means to whoever typed the command. */
static const char *listen_error_text(int error)
{
	if (error == EAI_NONAME)
		return "Unknown address";
	if (error == -EINVAL)
		return "The address cannot be resolved";
	return strerror(abs(error));
}

/* Says where it listens, as read back from the socket: the port may have been the kernel's choice. */
static void announce(const struct sock *listener)
{
	struct sockaddr_in bound = {0};
	socklen_t size = sizeof bound;
	char address[INET_ADDRSTRLEN] = "";

	getsockname(listener->io.fd, (struct sockaddr *)&bound, &size);
	inet_ntop(AF_INET, &bound.sin_addr, address, sizeof address);
	printf("apstatd: listening on http://%s:%d/\n", address, ntohs(bound.sin_port));
	fflush(stdout);
}

/* Answers what is owed with an error, so that the connection is free to be closed. */
static void deferred_abandon(struct deferred *deferred)
{
	evloop_timeout_cancel(&deferred->timeout);
	if (evloop_process_is_pending(&deferred->process))
		child_kill(&deferred->process);
	answer_error(deferred->conn, 503);
	deferred_finish(deferred, 0);
}

/*
 * The order matters: no new connection may come, and httpd_ctx_cleanup leaves connections alone whose
 * answer is owed.
 */
static void apstatd_stop(struct apstatd *apstatd)
{
	sock_close(&apstatd->listener);
	for (struct deferred *deferred = apstatd->deferred, *next; deferred; deferred = next) {
		next = deferred->next;
		deferred_abandon(deferred);
	}
	httpd_ctx_cleanup(&apstatd->http);
}

/* Runs the daemon until a signal stops it. Returns the exit status. */
static int apstatd_run(const struct options *options)
{
	struct apstatd apstatd = {.started = time_now()};
	httpd_ctx_init(&apstatd.http, handle_request);

	if (evloop_init()) {
		fprintf(stderr, "apstatd: cannot set up the event loop: %s\n", strerror(errno));
		return EXIT_FAILURE;
	}
	int error = signals_watch(&apstatd.signals);
	if (error) {
		fprintf(stderr, "apstatd: cannot watch for signals: %s\n", strerror(-error));
		return EXIT_FAILURE;
	}
	error = apstatd_listen(&apstatd, options);
	if (error) {
		fprintf(stderr, "apstatd: cannot listen on %s:%d: %s\n", options->address, options->port,
			listen_error_text(error));
		return EXIT_FAILURE;
	}

	announce(&apstatd.listener);
	evloop_run();
	_log(6, "stopping\n");

	apstatd_stop(&apstatd);
	evloop_io_delete(&apstatd.signals);
	close(apstatd.signals.fd);
	evloop_done();
	return EXIT_SUCCESS;
}

/* ---- Command line ---- */

static const char usage[] = "Usage: apstatd [--address ADDRESS] [--port PORT]\n"
			    "\n"
			    "Serves its own status over HTTP until SIGTERM or SIGINT.\n"
			    "\n"
			    "  --address ADDRESS  IPv4 address or host name to listen on (127.0.0.1);\n"
			    "                     0.0.0.0 is every address of this machine\n"
			    "  --port PORT        port to listen on, 0 to 65535 (8080); 0 takes a free one\n"
			    "  --help             print this text\n"
			    "\n"
			    "GET  /                     a page that shows the status\n"
			    "GET  /status               the status as JSON\n"
			    "POST /echo                 the body that was sent\n"
			    "GET  /param?x=TEXT         the decoded parameter\n"
			    "GET  /slow?ms=N            an answer after N milliseconds, 0 to 30000 (1000)\n"
			    "GET  /run?code=N&seconds=S the exit code of a child process that ends with\n"
			    "                           code N, 0 to 255 (0), after S seconds, 0 to 30 (0)\n";

/* The two results of options_parse that are not an exit status of this program. */
enum { EXIT_USAGE = 2, OPTIONS_RUN = -1 };

/* Reads the command line into `options`. Returns OPTIONS_RUN, or the status to exit with. */
static int options_parse(int argc, char **argv, struct options *options)
{
	static const struct option known[] = {
		{"address", required_argument, NULL, 'a'},
		{"port", required_argument, NULL, 'p'},
		{"help", no_argument, NULL, 'h'},
		{NULL, 0, NULL, 0},
	};
	const char *word;
	int found;

	/* "+" stops at the first word that is no option, ":" leaves the messages to us. */
	while (word = argv[optind], (found = getopt_long(argc, argv, "+:", known, NULL)) != -1) {
		switch (found) {
		case 'a':
			options->address = optarg;
			break;
		case 'p':
			if (parse_number(optarg, UINT16_MAX, &options->port) == 0)
				break;
			fprintf(stderr, "apstatd: bad port '%s': not a number from 0 to 65535\n", optarg);
			return EXIT_USAGE;
		case 'h':
			fputs(usage, stdout);
			return EXIT_SUCCESS;
		case ':':
			fprintf(stderr, "apstatd: option '%s' needs a value\n", word);
			return EXIT_USAGE;
		default:
			fprintf(stderr, "apstatd: bad option '%s', see apstatd --help\n", word);
			return EXIT_USAGE;
		}
	}
	if (optind == argc)
		return OPTIONS_RUN;
	fprintf(stderr, "apstatd: unexpected argument '%s', see apstatd --help\n", argv[optind]);
	return EXIT_USAGE;
}

int main(int argc, char **argv)
{
	struct options options = {.address = "127.0.0.1", .port = 8080};
	int status = options_parse(argc, argv, &options);
	return status == OPTIONS_RUN ? apstatd_run(&options) : status;
}
