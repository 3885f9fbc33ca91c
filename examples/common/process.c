#define _POSIX_C_SOURCE 200809L

#include "examples/common/process.h"

#include <spawn.h>
#include <stddef.h>
#include <sys/signalfd.h>

int process_spawn(
	pid_t *pid, const char *program, char *const arguments[], char *const environment[], bool own_group)
{
	short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
	posix_spawnattr_t attributes;
	sigset_t none, ignored;
	sigemptyset(&none);
	sigemptyset(&ignored);
	sigaddset(&ignored, SIGPIPE);
	int error = posix_spawnattr_init(&attributes);
	if (error)
		return error;
	posix_spawnattr_setsigmask(&attributes, &none);
	posix_spawnattr_setsigdefault(&attributes, &ignored);
	posix_spawnattr_setpgroup(&attributes, 0);
	posix_spawnattr_setflags(&attributes, (short)(own_group ? flags | POSIX_SPAWN_SETPGROUP : flags));
	error = posix_spawnp(pid, program, NULL, &attributes, arguments, environment);
	posix_spawnattr_destroy(&attributes);
	return error;
}

int process_watch_signals(
	struct evloop_io *io, int how, void (*cb)(struct evloop_io *io, unsigned int events))
{
	sigset_t set;
	sigemptyset(&set);
	sigaddset(&set, SIGTERM);
	sigaddset(&set, SIGINT);
	sigaddset(&set, SIGCHLD);
	if (sigprocmask(how, &set, NULL))
		return -1;
	io->fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
	io->cb = cb;
	return io->fd < 0 ? -1 : evloop_io_add(io, EVLOOP_READ);
}
