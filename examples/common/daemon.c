/*
 * Signals are read from a descriptor like any other. SIGTERM and SIGINT end the loop, after which everything is
 * released. libubus installs handlers for them, too; the signals are blocked, so those never run.
 */
#define _POSIX_C_SOURCE 200809L

#include "examples/common/daemon.h"

#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "examples/common/process.h"
#include "examples/common/program.h"

#define LISTEN_BACKLOG 128

/* ---- Command line ---- */

/* Sets an option. Returns DAEMON_RUN, or the status to exit with. */
static int option_set(struct daemon_options *options, int option, const char *value)
{
	switch (option) {
	case 'a':
		options->address = value;
		return DAEMON_RUN;
	case 'p':
		options->port = (int)parse_number(value, UINT16_MAX);
		if (options->port < 0)
			return usage_error(
				options->program, "bad port", value, ": not a number from 0 to 65535");
		return DAEMON_RUN;
	case 'o':
		if (!*value || strchr(value, ':') || !http_check_host_port(value))
			return usage_error(
				options->program, "bad host", value, ": a name without a port is wanted");
		options->host = value;
		return DAEMON_RUN;
	case 'b':
		if (strlen(value) >= sizeof((struct sockaddr_un *)NULL)->sun_path)
			return usage_error(
				options->program, "bad bus", value, ": too long for the path of a socket");
		options->bus = value;
		return DAEMON_RUN;
	case 'n':
		if (!is_name(value, AP_NAME_SIZE))
			return usage_error(options->program, "bad name", value,
				": 1 to 24 of A-Z, a-z, 0-9, '-', '_' and '.'");
		options->name = value;
		return DAEMON_RUN;
	case 'V':
		return print_version(options->program);
	default:
		return print_help(options->program, options->usage);
	}
}

int daemon_options_parse(struct daemon_options *options, int argc, char **argv)
{
	const struct option known[] = {
		{"address", required_argument, NULL, 'a'},
		{"port", required_argument, NULL, 'p'},
		{"host", required_argument, NULL, 'o'},
		{"bus", required_argument, NULL, 'b'},
		{"help", no_argument, NULL, 'h'},
		{"version", no_argument, NULL, 'V'},
		{options->name ? "name" : NULL, required_argument, NULL, 'n'},
		{NULL, 0, NULL, 0},
	};
	const char *word;
	int found;

	/* "+" stops at the first word that is no option, ":" leaves the messages to us. */
	while (word = argv[optind], (found = getopt_long(argc, argv, "+:h", known, NULL)) != -1) {
		if (found == ':')
			return usage_error(options->program, "option", word, " needs a value");
		if (found == '?')
			return usage_error_see_help(options->program, "bad option", word);
		int status = option_set(options, found, optarg);
		if (status != DAEMON_RUN)
			return status;
	}
	if (optind != argc)
		return usage_error_see_help(options->program, "unexpected argument", argv[optind]);
	return DAEMON_RUN;
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

/* ---- Start and stop ---- */

static int listen_on(struct daemon *daemon, const char *address, int port)
{
	char service[16];
	snprintf(service, sizeof service, "%d", port);

	daemon->listener.flags = SOCK_TCP;
	daemon->listener.accept_cb = httpd_accept;
	daemon->listener.user = &daemon->http;
	return sock_listen(&daemon->listener, address, service, LISTEN_BACKLOG);
}

/* A failure of sock_listen, in words for the user. */
static const char *listen_error_text(int error)
{
	if (error == EAI_NONAME)
		return "Unknown address";
	if (error == -EINVAL)
		return "The address cannot be resolved";
	return strerror(abs(error));
}

/* The URL, read back from the socket: the kernel may have chosen the port. */
static void find_url(struct daemon *daemon)
{
	struct sockaddr_in bound = {0};
	socklen_t size = sizeof bound;
	char address[INET_ADDRSTRLEN] = "";

	getsockname(daemon->listener.io.fd, (struct sockaddr *)&bound, &size);
	inet_ntop(AF_INET, &bound.sin_addr, address, sizeof address);
	snprintf(daemon->url, sizeof daemon->url, "http://%s:%d/", address, ntohs(bound.sin_port));
}

/* Printed once, at the start; from then on the log says when a bus comes and goes. */
static void say_if_there_is_no_bus(const struct daemon *daemon, const char *program)
{
	const char *path = daemon->bus.path;
	if (daemon->bus.online)
		return;
	printf("%s: there is no bus%s%s: looking for it once a second\n", program, path ? " at " : "",
		path ? path : "");
	fflush(stdout);
}

int daemon_start(struct daemon *daemon, const struct daemon_options *options, httpd_handler handler)
{
	const char *program = options->program;
	const char *address = options->address ? options->address : "127.0.0.1";

	open_standard_descriptors();
	daemon->host = options->host;
	httpd_ctx_init(&daemon->http, handler);
	if (evloop_init()) {
		fprintf(stderr, "%s: cannot set up the event loop: %s\n", program, strerror(errno));
		return -1;
	}
	signal(SIGCHLD, SIG_DFL); /* if it was ignored, the kernel would reap, and forget the status */
	if (process_watch_signals(&daemon->signals, SIG_BLOCK, handle_signals)) {
		fprintf(stderr, "%s: cannot watch for signals: %s\n", program, strerror(errno));
		return -1;
	}
	int error = listen_on(daemon, address, options->port);
	if (error) {
		fprintf(stderr, "%s: cannot listen on %s:%d: %s\n", program, address, options->port,
			listen_error_text(error));
		return -1;
	}
	find_url(daemon);
	printf("%s: listening on %s\n", program, daemon->url);
	fflush(stdout);
	bus_start(&daemon->bus, options->bus);
	say_if_there_is_no_bus(daemon, program);
	return 0;
}

void daemon_stop(struct daemon *daemon)
{
	sock_close(&daemon->listener);
	httpd_ctx_cleanup(&daemon->http);
	bus_stop(&daemon->bus);
	evloop_io_delete(&daemon->signals);
	close(daemon->signals.fd);
	evloop_done();
}
