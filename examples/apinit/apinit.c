/*
 * apinit - the program that an access point starts first, and an example to copy from.
 *
 * It logs the board, has the LED blink, makes the root writable, exports the radios' calibration data, lights the LED,
 * and starts a command with its own environment and standard streams. A failure on the way does not keep it from that:
 * a device that does not start cannot be repaired over the network. From then on the loop reaps children; process 1
 * gets those of others as well.
 *
 * It moves mounts. So it does its work only as process 1, of the machine or of a pid namespace with a /proc of its own;
 * another process needs --change-this-machine. Without the directories /system, /mnt and /data the root stays as it is:
 * the overlay would fail half-way, and without /data it would erase the flash memory that it cannot mount there.
 *
 * /proc, /sys, /dev and /tmp must be mounted before, /tmp for writing. Each part that misses one of them logs it.
 *
 * The board's start-up work may never end (device.h), so it has a process of its own. That process is killed after
 * DEVICE_LIMIT_MS; a partly written file of its stays.
 *
 * SIGTERM and SIGINT are passed on to all its children, as SIGTERM. If the command has not ended STOP_PATIENCE_MS later,
 * it is killed. The command's own children are not: it stays in apinit's process group, since outside of that it could
 * not read from a terminal. A signal during the start takes effect after the current step; no command is started then.
 *
 * When the command has ended, the LED blinks fast, and apinit ends. Its status is the command's; 0 if a signal ended the
 * command (evloop-process.h), or came before it was started; 1 if the command had to be killed; 127 if it could not be
 * started. Without an event loop it ends with 1 before it does anything.
 *
 * The kernel panics if process 1 ends, so process 1 goes on in all these cases, and after a wrong command line: it
 * reaps. Without an event loop it still starts the command, but does not react to signals. It ends only after --help,
 * --version and --show, and in a pid namespace without a /proc of its own.
 *
 * Messages go to the standard streams; with --quiet, which points those at /dev/null, to the kernel log.
 *
 * With --show it changes nothing and prints the board as JSON (show.h).
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "examples/common/process.h"
#include "examples/common/program.h"
#include "lib/caldata.h"
#include "lib/device.h"
#include "lib/evloop-process.h"
#include "lib/evloop.h"
#include "lib/log.h"
#include "lib/overlay.h"
#include "lib/utils.h"
#include "show.h"

#define DEVICE_LIMIT_MS  5000 /* a copy out of flash memory takes far less */
#define STOP_PATIENCE_MS 5000

/* An exit status; and the result of functions that return one, if there is none yet. */
enum { EXIT_NOT_STARTED = 127, RUN = -1 };

extern char **environ;

/* The record that a member lies in, by the member's address. */
#define owner_of(address, type, member) ((type *)(void *)((char *)(address)-offsetof(type, member)))

/* The command line. */
struct options {
	int show, quiet, no_overlay, change_this_machine; /* flags, of the type that getopt_long sets */
	char **command;
};

/* The processes that it starts, and their limits. */
struct init {
	const struct options *options;
	struct evloop_io signals; /* a signalfd */
	struct evloop_timeout start;
	struct evloop_process device; /* the board's start-up work */
	struct evloop_timeout device_limit;
	struct evloop_process command;
	struct evloop_timeout patience;
	bool stopping; /* a signal has told us to */
	int status;    /* to exit with */
};

/* ---- The machine ---- */

/* Logs and frees `found`; null: nothing was found. The kernel's last parameter ends in a line feed. */
static void say(const char *what, char *found)
{
	if (found)
		found[strcspn(found, "\n")] = '\0';
	_log(LOG_INFO, "%s: %s\n", what, found ? found : "none");
	free(found);
}

/* Whether the root has the directories that the overlay needs. Logs the missing ones. */
static bool has_overlay_directories(void)
{
	static const char *const paths[] = {"/system", "/mnt", "/data"};
	char missing[32] = "";
	struct stat about;

	for (size_t index = 0; index < sizeof paths / sizeof paths[0]; index++)
		if (stat(paths[index], &about) || !S_ISDIR(about.st_mode))
			snprintf(missing + strlen(missing), sizeof missing - strlen(missing), " %s",
				paths[index]);
	if (*missing)
		_log(LOG_ERR, "the root lacks%s: it stays as it is, without an overlay\n", missing);
	return !*missing;
}

/* Makes the machine ready for the command, but for the board's start-up work. */
static void make_ready(const struct options *options)
{
	_log(LOG_INFO, "board: %s %s (%s)\n", dev_vendor(), dev_name(), dev_id());
	say("partition rootfs_data", find_mtd("rootfs_data"));
	say("partition EEPROM", find_mtd("EEPROM"));
	say("console", get_tty());
	dev_led_set(DEV_LED_WHITE_BLINK);
	if (!options->no_overlay && has_overlay_directories())
		mount_overlayfs();
	if (chdir("/")) /* it would still be below the old root */
		_log(LOG_ERR, "cannot change to the root: %s\n", strerror(errno));
}

/* ---- Processes ---- */

/* Starts the board's start-up work. Returns its process, or -1 with errno set. */
static pid_t fork_device(void)
{
	pid_t pid = fork();
	if (pid != 0)
		return pid;
	alarm(2 * DEVICE_LIMIT_MS / 1000); /* in case nobody kills it */
	_exit(dev_init() ? EXIT_FAILURE : EXIT_SUCCESS);
}

/* From now on the LED is the command's. Returns false if the command cannot be started. */
static bool spawn_command(pid_t *pid, char **command)
{
	_log(LOG_INFO, "starting %s\n", command[0]);
	dev_led_set(DEV_LED_BLUE_ON);
	int error = process_spawn(pid, command[0], command, environ, false);
	if (error)
		_log(LOG_ERR, "cannot start %s: %s\n", command[0], strerror(error));
	return !error;
}

/* Whether kill_children finds this child of ours. It does not if the name has a blank (utils.h). */
static bool is_found(pid_t pid)
{
	char path[64];
	int parent;
	snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
	FILE *file = fopen(path, "re");
	bool found = file && fscanf(file, "%*d %*s %*c %d", &parent) == 1 && parent == getpid();
	if (file)
		fclose(file);
	return found;
}

/* The rest of the life of a process 1 that has nothing else to do. */
static void reap_for_ever(void)
{
	for (;;)
		if (waitpid(-1, NULL, 0) < 0)
			sleep(1); /* there are none now; an orphan may come */
}

/* ---- The start, step by step, and the end ---- */

/* Ends the loop, unless this is process 1. */
static void finish(struct init *init, int status)
{
	dev_led_set(DEV_LED_WHITE_BLINK_FAST);
	init->status = status;
	if (getpid() != 1)
		evloop_end();
}

/* Takes the next step, unless a signal has arrived during the last. */
static void go_on(struct init *init, void (*step)(struct init *))
{
	evloop_handle_ios(0); /* calls handle_signals if there is one */
	if (init->stopping)
		finish(init, EXIT_SUCCESS);
	else
		step(init);
}

static void start_command(struct init *init)
{
	if (spawn_command(&init->command.pid, init->options->command))
		evloop_process_add(&init->command);
	else
		finish(init, EXIT_NOT_STARTED);
}

static void device_ended(struct evloop_process *process, int exit_status)
{
	struct init *init = owner_of(process, struct init, device);
	(void)exit_status; /* that process has logged its failures */
	evloop_timeout_cancel(&init->device_limit);
	go_on(init, start_command);
}

static void give_up_device(struct evloop_timeout *timeout)
{
	struct init *init = owner_of(timeout, struct init, device_limit);
	evloop_process_kill_and_delete(&init->device);
	_log(LOG_ERR, "the board's start-up work does not end, and was killed\n");
	go_on(init, start_command);
}

static void start_device(struct init *init)
{
	init->device.pid = fork_device();
	if (init->device.pid < 0) {
		_log(LOG_ERR, "cannot start the board's start-up work: %s\n", strerror(errno));
		go_on(init, start_command);
		return;
	}
	evloop_process_add(&init->device);
	evloop_timeout_set(&init->device_limit, DEVICE_LIMIT_MS);
}

static void start(struct evloop_timeout *timeout)
{
	struct init *init = owner_of(timeout, struct init, start);
	make_ready(init->options);
	go_on(init, start_device);
}

static void command_ended(struct evloop_process *process, int exit_status)
{
	struct init *init = owner_of(process, struct init, command);
	int status = exit_status & 255;
	evloop_timeout_cancel(&init->patience);
	_log(LOG_INFO, "%s has ended with status %d\n", init->options->command[0], status);
	finish(init, status);
}

static void lose_patience(struct evloop_timeout *timeout)
{
	struct init *init = owner_of(timeout, struct init, patience);
	evloop_process_kill_and_delete(&init->command);
	_log(LOG_WARNING, "%s had to be killed\n", init->options->command[0]);
	finish(init, EXIT_FAILURE);
}

/* The board's start-up work is a child, too. It ignores this, since it inherits our blocked signals. */
static void stop(struct init *init)
{
	if (!init->stopping)
		_log(LOG_INFO, "stopping\n");
	init->stopping = true;
	kill_children(getpid());
	if (!evloop_process_is_pending(&init->command))
		return;
	if (!is_found(init->command.pid))
		kill(init->command.pid, SIGTERM);
	if (!init->patience.pending)
		evloop_timeout_set(&init->patience, STOP_PATIENCE_MS);
}

/* One signal a call, so that timeouts are served however many signals come. SIGCHLD only wakes the loop. */
static void handle_signals(struct evloop_io *io, unsigned int events)
{
	struct signalfd_siginfo info;
	(void)events;

	if (read(io->fd, &info, sizeof info) == (ssize_t)sizeof info && info.ssi_signo != SIGCHLD)
		stop(owner_of(io, struct init, signals));
}

/* Process 1 without an event loop: the same steps, one after the other. */
static void run_without_loop(const struct options *options)
{
	make_ready(options);
	pid_t pid = fork_device();
	if (pid > 0)
		waitpid(pid, NULL, 0); /* its alarm ends it */
	spawn_command(&pid, options->command);
	reap_for_ever();
}

/* Returns the exit status. */
static int run(const struct options *options)
{
	struct init init = {
		.options = options,
		.start.cb = start,
		.device.cb = device_ended,
		.device_limit.cb = give_up_device,
		.command.cb = command_ended,
		.patience.cb = lose_patience,
	};

	if (evloop_init() || process_watch_signals(&init.signals, SIG_SETMASK, handle_signals)) {
		_log(LOG_ERR, "cannot set up the event loop: %s\n", strerror(errno));
		if (getpid() == 1)
			run_without_loop(options);
		return EXIT_FAILURE;
	}
	evloop_timeout_set(&init.start, 0);
	evloop_run();
	evloop_io_delete(&init.signals);
	close(init.signals.fd);
	evloop_done();
	return init.status;
}

/* ---- The process itself ---- */

/*
 * Whether /proc is of our own pid namespace: then it has our number for us. If it is not, the mounts belong to the
 * process that made the namespace.
 */
static bool has_own_proc(void)
{
	char line[128];
	int number = getpid();
	FILE *file = fopen("/proc/self/status", "re");
	if (!file)
		return true; /* there is none to move away */
	while (fgets(line, sizeof line, file) && sscanf(line, "Pid: %d", &number) != 1)
		continue;
	fclose(file);
	return number == getpid();
}

/* Returns RUN, or the status to exit with if the machine is not to be changed. */
static int check_process(const struct options *options)
{
	const char *what = getpid() != 1 ? "this is not process 1" : "/proc is of another pid namespace";
	if (options->change_this_machine || (getpid() == 1 && has_own_proc()))
		return RUN;
	fprintf(stderr, "apinit: nothing has been done, as %s: see --change-this-machine in apinit --help\n",
		what);
	return EXIT_USAGE;
}

/* Undoes settings that our parent may have made. */
static void set_up_signals(void)
{
	signal(SIGPIPE, SIG_IGN); /* a write to a reader that is gone then fails, and does not end us */
	signal(SIGCHLD, SIG_DFL); /* if it was ignored, the kernel would reap, and forget the status */
}

/* Sets where our messages go, and the standard streams of the command. */
static void set_up_output(bool quiet)
{
	setvbuf(stdout, NULL, _IOLBF, 0); /* keeps the order with standard error, and with the command */
	log_open(quiet ? LOG_DEST_KMSG : LOG_DEST_STDIO, LOG_DAEMON, "apinit");
	if (quiet && redir_to_devnull(1, 1))
		_log(LOG_ERR, "cannot open /dev/null: %s\n", strerror(errno));
}

/* ---- Command line ---- */

static const char usage[] =
	"Usage: apinit [--quiet] [--no-overlay] [--change-this-machine] [--] COMMAND [ARGUMENT]...\n"
	"       apinit --show | --help | -h | --version\n"
	"\n"
	"Makes the root writable, exports the radios' calibration data, sets the LED, and starts COMMAND.\n"
	"Ends with its status; as process 1 it goes on. SIGTERM and SIGINT end COMMAND.\n"
	"It moves mounts, and so does its work only as process 1 of a machine or a pid namespace.\n"
	"\n"
	"  --quiet                standard output and standard error go to /dev/null, messages to the kernel "
	"log\n"
	"  --no-overlay           leave the root as it is\n"
	"  --change-this-machine  do it all the same if this is not process 1: the mounts of whatever this "
	"is\n"
	"                         started on are moved, and stay so\n"
	"  --show                 only print the board as JSON; nothing is changed\n"
	"  -h, --help             print this text\n"
	"  --version              print the version\n";

/* Reads the command line. Returns RUN; or the status to exit with, and everything has been printed. */
static int parse(struct options *options, int argc, char **argv)
{
	int help = 0, version = 0;
	const struct option known[] = {
		{"quiet", no_argument, &options->quiet, 1},
		{"no-overlay", no_argument, &options->no_overlay, 1},
		{"change-this-machine", no_argument, &options->change_this_machine, 1},
		{"show", no_argument, &options->show, 1},
		{"help", no_argument, &help, 1},
		{"version", no_argument, &version, 1},
		{NULL, 0, NULL, 0},
	};
	const char *word;
	int found;

	/* "+" stops at the first word that is no option, ":" leaves the messages to us. */
	while (word = argv[optind],
		(found = getopt_long(argc, argv, "+:h", known, NULL)) == 0 || found == 'h')
		help |= found == 'h';
	if (found != -1)
		return usage_error_see_help("apinit", "bad option", word);
	if (help)
		return print_help("apinit", usage);
	if (version)
		return print_version("apinit");
	if (options->show && argv[optind])
		return usage_error_see_help("apinit", "unexpected argument", argv[optind]);
	if (options->show && (options->quiet || options->no_overlay || options->change_this_machine))
		return usage_error_see_help("apinit", "no other option goes with", "--show");
	if (!options->show && !argv[optind]) {
		fputs(usage, stderr);
		return EXIT_USAGE;
	}
	options->command = argv + optind;
	return RUN;
}

int main(int argc, char **argv)
{
	struct options options = {0};
	open_standard_descriptors();
	set_up_signals();
	int status = parse(&options, argc, argv);
	if (status == EXIT_USAGE && getpid() == 1)
		reap_for_ever();
	if (status != RUN)
		return status;
	if (!options.show)
		status = check_process(&options);
	if (status != RUN)
		return status;
	set_up_output(options.quiet);
	return options.show ? printed("apinit", "the board", show_board()) : run(&options);
}
