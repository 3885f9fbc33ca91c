/*
 * One epoll descriptor serves all. Each pass runs the timers that are due and dispatches one ready descriptor; so no
 * event is left over for a descriptor that a callback deletes. Signals reach the loop through a pipe.
 */
#include <libubox/uloop.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <libubox/utils.h>

#define US_PER_S 1000000

static int epoll_fd = -1;
static int wake_fds[2] = {-1, -1}; /* written by signal handlers */
static volatile sig_atomic_t ended;
static volatile sig_atomic_t ending_signal;
static struct list_head timeouts = LIST_HEAD_INIT(timeouts); /* sorted, the next one first */

/* Signals are handled only where they had their default action; `taken` remembers which. */
static struct {
	int number;
	bool taken;
} signals[] = {{SIGINT, false}, {SIGTERM, false}, {SIGCHLD, false}, {SIGPIPE, false}};

static void on_signal(int number)
{
	int saved_errno = errno;
	if (number != SIGCHLD) {
		ending_signal = number;
		ended = 1;
	}
	/* If the pipe is full, the loop wakes anyway. */
	ssize_t count = write(wake_fds[1], "", 1);
	(void)count;
	errno = saved_errno;
}

static void take_signals(void)
{
	for (size_t index = 0; index < ARRAY_SIZE(signals); ++index) {
		int number = signals[index].number;
		struct sigaction action;
		if (sigaction(number, NULL, &action) < 0 || action.sa_handler != SIG_DFL)
			continue;
		action.sa_handler = number == SIGPIPE ? SIG_IGN : on_signal;
		action.sa_flags = 0;
		sigemptyset(&action.sa_mask);
		signals[index].taken = sigaction(number, &action, NULL) == 0;
	}
}

static void give_signals_back(void)
{
	for (size_t index = 0; index < ARRAY_SIZE(signals); ++index) {
		/* SIGPIPE stays ignored: a later write may still meet a broken connection. */
		if (signals[index].taken && signals[index].number != SIGPIPE)
			signal(signals[index].number, SIG_DFL);
		signals[index].taken = false;
	}
}

static int control(int operation, int fd, uint32_t events, struct uloop_fd *record)
{
	struct epoll_event event = {.events = events, .data = {.ptr = record}};
	return epoll_ctl(epoll_fd, operation, fd, &event);
}

static void close_descriptors(void)
{
	int *fds[] = {&epoll_fd, &wake_fds[0], &wake_fds[1]};
	for (size_t index = 0; index < ARRAY_SIZE(fds); ++index) {
		if (*fds[index] >= 0)
			close(*fds[index]);
		*fds[index] = -1;
	}
}

int uloop_init(void)
{
	if (epoll_fd >= 0)
		return 0;
	epoll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (epoll_fd < 0 || pipe2(wake_fds, O_CLOEXEC | O_NONBLOCK) < 0 ||
		control(EPOLL_CTL_ADD, wake_fds[0], EPOLLIN, NULL) < 0) {
		close_descriptors();
		return -1;
	}
	take_signals();
	return 0;
}

void uloop_done(void)
{
	give_signals_back();
	close_descriptors();
}

static uint32_t epoll_events(unsigned int flags)
{
	return (flags & ULOOP_READ ? EPOLLIN | EPOLLRDHUP : 0U) | (flags & ULOOP_WRITE ? EPOLLOUT : 0U);
}

int uloop_fd_add(struct uloop_fd *fd, unsigned int flags)
{
	if (!epoll_events(flags))
		return uloop_fd_delete(fd);
	if (!(flags & ULOOP_BLOCKING) && fcntl(fd->fd, F_SETFL, fcntl(fd->fd, F_GETFL) | O_NONBLOCK) < 0)
		return -1;
	int operation = fd->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
	if (control(operation, fd->fd, epoll_events(flags), fd) < 0)
		return -1;
	fd->registered = true;
	fd->flags = (uint8_t)flags;
	fd->eof = fd->error = false;
	return 0;
}

int uloop_fd_delete(struct uloop_fd *fd)
{
	if (!fd->registered)
		return 0;
	fd->registered = false;
	fd->flags = 0;
	return control(EPOLL_CTL_DEL, fd->fd, 0, NULL);
}

static struct timeval now(void)
{
	struct timespec time;
	clock_gettime(CLOCK_MONOTONIC, &time);
	return (struct timeval){.tv_sec = time.tv_sec, .tv_usec = time.tv_nsec / 1000};
}

static int64_t microseconds_between(struct timeval from, struct timeval to)
{
	return ((int64_t)to.tv_sec - from.tv_sec) * US_PER_S + ((int64_t)to.tv_usec - from.tv_usec);
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
	if (timeout->pending)
		return -1;
	struct list_head *place = &timeouts;
	struct uloop_timeout *other;
	list_for_each_entry(other, &timeouts, list)
	{
		if (microseconds_between(timeout->time, other->time) > 0) {
			place = &other->list;
			break;
		}
	}
	list_add_tail(&timeout->list, place);
	timeout->pending = true;
	return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int ms)
{
	uloop_timeout_cancel(timeout);
	timeout->time = now();
	int64_t us = timeout->time.tv_usec + (int64_t)ms * 1000;
	timeout->time.tv_sec += us / US_PER_S;
	timeout->time.tv_usec = us % US_PER_S;
	return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;
	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

/* Runs only timers that are due now: one that a callback sets to 0 ms waits for the next pass. */
static void run_due_timeouts(void)
{
	struct timeval until = now();
	while (!ended && !list_empty(&timeouts)) {
		struct uloop_timeout *first = list_first_entry(&timeouts, struct uloop_timeout, list);
		if (microseconds_between(first->time, until) < 0)
			return;
		uloop_timeout_cancel(first);
		if (first->cb)
			first->cb(first);
	}
}

/* How long epoll may wait, in milliseconds; -1: forever. */
static int next_timeout_ms(void)
{
	if (list_empty(&timeouts))
		return -1;
	struct uloop_timeout *first = list_first_entry(&timeouts, struct uloop_timeout, list);
	int64_t ms = (microseconds_between(now(), first->time) + 999) / 1000;
	return ms < 0 ? 0 : ms > INT_MAX ? INT_MAX : (int)ms;
}

static void drain_wake_pipe(void)
{
	char bytes[64];
	while (read(wake_fds[0], bytes, sizeof(bytes)) > 0)
		;
}

/* A descriptor that is broken, or closed in both directions, leaves the loop before its callback. */
static void dispatch(struct uloop_fd *fd, uint32_t events)
{
	bool broken = (events & (EPOLLHUP | EPOLLERR)) != 0;
	fd->eof |= (events & EPOLLRDHUP) != 0;
	fd->error |= broken;
	if (broken)
		uloop_fd_delete(fd);
	unsigned int flags = (events & EPOLLIN ? ULOOP_READ : 0U) | (events & EPOLLOUT ? ULOOP_WRITE : 0U);
	if (fd->cb)
		fd->cb(fd, flags);
}

static void serve_one_descriptor(int wait_ms)
{
	struct epoll_event event;
	if (epoll_wait(epoll_fd, &event, 1, wait_ms) < 1)
		return;
	if (event.data.ptr)
		dispatch(event.data.ptr, event.events);
	else
		drain_wake_pipe();
}

/* A signal or uloop_end before this call does not end it. */
int uloop_run(void)
{
	ended = 0;
	ending_signal = 0;
	while (!ended) {
		run_due_timeouts();
		if (!ended)
			serve_one_descriptor(next_timeout_ms());
	}
	return ending_signal;
}

void uloop_end(void)
{
	ended = 1;
}
