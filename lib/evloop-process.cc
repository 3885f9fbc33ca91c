// Each pass asks waitpid for any child that has exited. This polling needs no signal handler and no descriptor, and
// no child of the daemon stays a zombie, watched or not.

#include "evloop-process.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <sys/wait.h>

#include "internal/intrusive.h"
#include "log.h"

constinit static ring<evloop_process> processes;

static evloop_process *watcher_of(pid_t pid)
{
	for (evloop_process *p = processes.first(); p; p = processes.after(p))
		if (p->pid == pid)
			return p;
	return nullptr;
}

int evloop_process_add(struct evloop_process *process)
{
	if (process->pending)
		return -EINVAL;
	if (watcher_of(process->pid))
		return -EEXIST;
	processes.insert_before(nullptr, process);
	process->pending = 1;
	return 0;
}

int evloop_process_delete(struct evloop_process *process)
{
	if (!process->pending)
		return -EINVAL;
	processes.remove(process);
	process->pending = 0;
	return 0;
}

// The two reports below name fixed places: daemons' logs are searched for them. They stay when this file changes.
int evloop_process_kill_and_delete(struct evloop_process *process)
{
	if (!process)
		assert_failure("lib/evloop-process.c:29", __func__, "p");
	if (process->pid > 0)
		kill(process->pid, SIGKILL);
	return evloop_process_delete(process);
}

int evloop_process_is_pending(struct evloop_process *process)
{
	if (!process)
		assert_failure("lib/evloop-process.c:36", __func__, "p");
	return process->pending;
}

void evloop_clean_processes(void)
{
	while (evloop_process *first = processes.first())
		evloop_process_delete(first);
}

// The pid of a child that has exited and its status; 0 or less if there is none.
static pid_t reap(int *status)
{
	pid_t pid;
	do
		pid = waitpid(-1, status, WNOHANG);
	while (pid < 0 && errno == EINTR);
	return pid;
}

// 200 is -56, and a child that a signal ended has 0 in these bits: compatibility, signed exit code
static int exit_code(int status)
{
	return static_cast<int8_t>(static_cast<uint8_t>(static_cast<unsigned>(status) >> 8));
}

void evloop_handle_processes(void)
{
	int status;
	for (pid_t pid = reap(&status); pid > 0; pid = reap(&status)) {
		evloop_process *p = watcher_of(pid);
		if (!p)
			continue;
		evloop_process_delete(p);
		if (p->cb)
			p->cb(p, exit_code(status));
	}
}
