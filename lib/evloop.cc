// Each pass runs the due timeouts, reaps the exited children, and calls the watcher of at most one descriptor. One
// wait fetches a batch of up to ten events. Each pass takes one of them, so timeouts and children are looked
// after between any two callbacks.
//
// A batch outlives many callbacks. They may delete a watcher whose event still waits, and release its record. So
// evloop_io_delete compares copies of the descriptors, made when the batch was fetched, and reads no record.

#include "evloop.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <syslog.h>

#include "evloop-process.h"
#include "internal/arithmetic.h"
#include "internal/evloop.h"
#include "internal/intrusive.h"
#include "internal/invariant.h"
#include "log.h"
#include "time.h"

static constexpr int EPOLL_SIZE_HINT = 32;
static constexpr int32_t IDLE_WAIT_MS = 500; // without a timeout; children are noticed at this pace

static constexpr uint32_t FAILURE_EVENTS = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
static constexpr uint32_t KNOWN_EVENTS = EPOLLIN | EPOLLOUT | FAILURE_EVENTS;

static int epoll_fd = -1;
static bool stop_requested;

// The events of one wait. Those from `batch_cursor` on are pending.
static epoll_event batch[EVLOOP_MAX_EVENTS];
static int32_t batch_fds[EVLOOP_MAX_EVENTS]; // each watcher's descriptor at the time of the wait
static int batch_count;
static int batch_cursor;

// While due timeouts run: the time up to which they are due. A timeout set meanwhile must be later.
static constexpr int64_t NOT_HANDLING = -1;
static int64_t handled_until = NOT_HANDLING;

constinit static ring<evloop_timeout> timeouts; // sorted by `expires`, first added first among equals

static evloop_io *watcher_of(const epoll_event *event)
{
	return static_cast<evloop_io *>(event->data.ptr);
}

int evloop_io_init(void)
{
	if (epoll_fd >= 0)
		return 0;
	epoll_fd = epoll_create(EPOLL_SIZE_HINT);
	if (epoll_fd < 0)
		return -1;
	fcntl(epoll_fd, F_SETFD, fcntl(epoll_fd, F_GETFD) | FD_CLOEXEC);
	return 0;
}

int evloop_init(void)
{
	return evloop_io_init();
}

static uint32_t epoll_mask(unsigned int flags)
{
	uint32_t mask = 0;
	if (flags & EVLOOP_READ)
		mask |= EPOLLIN | EPOLLRDHUP;
	if (flags & EVLOOP_WRITE)
		mask |= EPOLLOUT;
	return mask;
}

int evloop_io_add(struct evloop_io *io, unsigned int flags)
{
	if (!io->cb)
		return -EINVAL;
	epoll_event event = {};
	event.events = epoll_mask(flags);
	event.data.ptr = io;
	io->flags = static_cast<uint8_t>(flags); // compatibility, flags after a refusal
	int result = epoll_ctl(epoll_fd, io->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, io->fd, &event);
	if (result < 0)
		return result;
	io->registered = 1;
	return 0;
}

int evloop_io_delete(struct evloop_io *io)
{
	// The bound is the number of pending events, not where they end: compatibility, scan bound
	int pending_count = batch_count - batch_cursor;
	for (int i = batch_cursor; i < pending_count; i++) {
		const evloop_io *watcher = watcher_of(&batch[i]);
		if (watcher && (watcher == io || batch_fds[i] == io->fd))
			batch[i].data.ptr = nullptr;
	}
	io->flags = 0;
	io->registered = 0;
	return epoll_ctl(epoll_fd, EPOLL_CTL_DEL, io->fd, nullptr);
}

void evloop_forget(const evloop_io *io)
{
	for (int i = batch_cursor; i < batch_count; i++)
		if (watcher_of(&batch[i]) == io)
			batch[i].data.ptr = nullptr;
}

int evloop_run(void)
{
	stop_requested = false;
	while (!stop_requested) {
		evloop_handle_timeouts();
		evloop_handle_processes();
		if (stop_requested)
			break;
		int32_t wait_ms = evloop_get_next_timeout();
		evloop_handle_ios(wait_ms < 0 ? IDLE_WAIT_MS : wait_ms);
	}
	return 0;
}

void evloop_end(void)
{
	stop_requested = true;
}

void evloop_done(void)
{
	evloop_clean_timeouts();
	evloop_clean_processes();
}

static bool fetch_batch(int timeout_ms)
{
	int count = epoll_wait(epoll_fd, batch, EVLOOP_MAX_EVENTS, timeout_ms);
	batch_cursor = batch_count = 0;
	if (count < 0) {
		if (errno != EINTR)
			_log(LOG_ERR, "evloop: epoll error -%d\n", errno);
		return false;
	}
	batch_count = count;
	for (int i = 0; i < count; i++)
		batch_fds[i] = watcher_of(&batch[i])->fd;
	return true;
}

static unsigned int reported_events(uint32_t epoll_events)
{
	if (epoll_events & FAILURE_EVENTS)
		return EVLOOP_READ | EVLOOP_WRITE;
	return (epoll_events & EPOLLIN ? EVLOOP_READ : 0) | (epoll_events & EPOLLOUT ? EVLOOP_WRITE : 0);
}

void evloop_handle_ios(int timeout_ms)
{
	invariant(batch_cursor <= batch_count);
	if (batch_cursor == batch_count && !fetch_batch(timeout_ms))
		return;
	invariant(batch_count <= EVLOOP_MAX_EVENTS);
	while (batch_cursor < batch_count) {
		epoll_event *event = &batch[batch_cursor++];
		evloop_io *io = watcher_of(event);
		if (!io || !io->cb)
			continue;
		event->data.ptr = nullptr;
		if (!(event->events & KNOWN_EVENTS))
			continue;
		io->cb(io, reported_events(event->events));
		return;
	}
}

// `expires` counts as unsigned: one before the clock's zero is not past but very far away.
static bool is_later(int64_t a, int64_t b)
{
	return static_cast<uint64_t>(a) > static_cast<uint64_t>(b);
}

// The first timeout strictly later than `expires`, or null. The search runs from both ends at once: the usual
// delays belong near the end, immediate timeouts near the front. The timers of idle connections, which may be
// thousands, lie between.
static evloop_timeout *first_later_than(int64_t expires)
{
	evloop_timeout *front = timeouts.first();
	evloop_timeout *back = timeouts.last();
	evloop_timeout *after_back = nullptr;
	while (front && !is_later(front->expires, expires)) {
		if (!is_later(back->expires, expires))
			return after_back;
		after_back = back;
		back = timeouts.before(back);
		front = timeouts.after(front);
	}
	return front;
}

int evloop_timeout_add(struct evloop_timeout *timeout)
{
	if (timeout->pending)
		return -1;
	timeouts.insert_before(first_later_than(timeout->expires), timeout);
	timeout->pending = 1;
	return 0;
}

int evloop_timeout_cancel(struct evloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;
	timeouts.remove(timeout);
	timeout->pending = 0;
	return 0;
}

int evloop_timeout_set(struct evloop_timeout *timeout, int64_t delay_ms)
{
	evloop_timeout_cancel(timeout);
	int64_t now = time_now();
	if (delay_ms == 0 && now == handled_until) // the clock may stand still during a callback
		now++;
	timeout->expires = wrapping_add(now, wrapping_mul(delay_ms, USEC_PER_MSEC));
	return evloop_timeout_add(timeout);
}

int32_t evloop_timeout_remaining(struct evloop_timeout *timeout)
{
	int64_t now = time_now();
	if (!is_later(timeout->expires, now))
		return 0;
	// Of the low words only, and not in milliseconds: compatibility, whole seconds
	uint32_t difference = static_cast<uint32_t>(timeout->expires) - static_cast<uint32_t>(now);
	return static_cast<int32_t>(difference) / USEC_PER_SEC;
}

int32_t evloop_get_next_timeout(void)
{
	const evloop_timeout *first = timeouts.first();
	if (!first)
		return -1;
	int64_t now = time_now();
	if (!is_later(first->expires, now))
		return 0;
	uint64_t wait_ms = whole_msec(static_cast<uint64_t>(first->expires) - static_cast<uint64_t>(now));
	return wait_ms > INT32_MAX ? INT32_MAX : static_cast<int32_t>(wait_ms);
}

void evloop_handle_timeouts(void)
{
	// Read once, so that a timeout set by a callback is later, even with a delay of 0: it waits for the next pass.
	int64_t now = time_now();
	int64_t outer = handled_until;
	handled_until = now;
	evloop_timeout *first;
	while ((first = timeouts.first()) && !is_later(first->expires, now)) {
		evloop_timeout_cancel(first);
		invariant(!first->next); // or it would fire again, and `cb` may release it
		if (first->cb)
			first->cb(first);
	}
	invariant(handled_until == now); // passes inside callbacks have restored it
	handled_until = outer;
}

void evloop_clean_timeouts(void)
{
	while (evloop_timeout *first = timeouts.first())
		evloop_timeout_cancel(first);
}
