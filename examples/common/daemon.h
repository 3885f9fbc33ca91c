/*
 * daemon - the parts of every daemon here: a command line, an HTTP server, signals that end it, and a connection to
 * the message bus.
 *
 *	int main(int argc, char **argv)
 *	{
 *		struct daemon_options options = {.program = "name", .usage = "Usage: ...", .port = 8080};
 *		int status = daemon_options_parse(&options, argc, argv);
 *		return status == DAEMON_RUN ? run(&options) : status;
 *	}
 *
 * and `run` calls daemon_start, evloop_run and daemon_stop.
 */
#pragma once
#include "examples/common/bus.h"
#include "examples/common/message.h"
#include "lib/httpd.h"
#include "lib/sock.h"

/* The result of daemon_options_parse that is not an exit status. */
#define DAEMON_RUN (-1)

/* The command line. Set `program` and `usage`, and defaults of the rest. */
struct daemon_options {
	const char *program;
	const char *usage;
	const char *address; /* null: 127.0.0.1 */
	int port;            /* 0: a free one */
	const char *host;    /* a name that HTTP clients know us by; null: our address only */
	const char *bus;     /* the bus's socket; null: where libubus looks by itself */
	const char *name;    /* null: --name is no option of this program */
};

/* Reads the command line. Returns DAEMON_RUN; or the status to exit with, and everything has been printed. */
int daemon_options_parse(struct daemon_options *options, int argc, char **argv);

/* A running daemon; embed it in a record of your own, start from zero bytes, set `bus.joined`. */
struct daemon {
	char url[URL_SIZE]; /* of the HTTP server, with its true port */
	const char *host;   /* as in the options */
	struct httpd_ctx http;
	struct sock listener;
	struct evloop_io signals; /* a signalfd */
	struct bus bus;
};

/*
 * Opens /dev/null on standard descriptors that are closed, sets up the loop, signals and the HTTP server, prints
 * where it listens on standard output, and connects to the bus. Without a bus it prints that too, and connects
 * once there is one. SIGTERM and SIGINT end the loop; SIGCHLD wakes it, so that children are noticed at once.
 *
 * Returns 0, or -1 after a message on standard error; the process is to end then.
 */
int daemon_start(struct daemon *daemon, const struct daemon_options *options, httpd_handler handler);

/*
 * Releases everything after the loop has ended. Before that, complete all deferred answers (httpd_ctx_cleanup leaves
 * their connections alone), abort retry requests, and end subscriptions.
 */
void daemon_stop(struct daemon *daemon);
