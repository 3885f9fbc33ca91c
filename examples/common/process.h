/*
 * process - starting another program, and the signals that end this one.
 */
#pragma once
#include <signal.h>
#include <stdbool.h>
#include <sys/types.h>

#include "lib/evloop.h"

/*
 * Starts `program`, found in PATH unless it has a "/". The child has no signal blocked, and SIGPIPE has its default
 * action: a child inherits our mask, and the signals that we ignore. With `own_group` it leads a process group of its
 * own, so that its children can be ended with it.
 *
 * Returns 0, or an errno value, also if only the program cannot be executed.
 */
int process_spawn(
	pid_t *pid, const char *program, char *const arguments[], char *const environment[], bool own_group);

/*
 * Blocks SIGTERM, SIGINT and SIGCHLD, and has `cb` called when `io->fd`, a signalfd, has one of them. With SIG_BLOCK as
 * `how` other signals stay blocked, with SIG_SETMASK none does.
 *
 * SIGCHLD wakes the loop, which then reaps: it looks for ended children once a pass, and while idle timers are pending
 * a pass may wait for a minute.
 *
 * Returns 0, or -1 with errno set.
 */
int process_watch_signals(
	struct evloop_io *io, int how, void (*cb)(struct evloop_io *io, unsigned int events));
