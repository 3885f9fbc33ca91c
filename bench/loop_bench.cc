// Dispatch of ready descriptors: this library's loop, one descriptor a pass with a look at timeouts and
// children before each, against the smallest loop over epoll and against libevent.
// Names are group/implementation/number of descriptors ready at once.
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/evloop.h"

namespace
{

// A multiple of the events that one wait fetches, so that none is left when the watchers are deleted.
constexpr int64_t events_a_run = 100 * EVLOOP_MAX_EVENTS;
int64_t left;

// Two ends of a connection; a byte goes in at `far` and is waited for at `near`.
struct pair {
	int near = -1, far = -1;

	pair()
	{
		int fds[2];
		if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) < 0 ||
			write(fds[1], "x", 1) != 1)
			abort();
		near = fds[0];
		far = fds[1];
	}
	pair(const pair &) = delete;
	~pair()
	{
		close(near);
		close(far);
	}
};

// The work of a callback: none, so that the descriptor stays ready; or it takes the byte and sends the next.
void turn(int near, int far, bool ping)
{
	char byte;
	if (ping && (read(near, &byte, 1) != 1 || write(far, &byte, 1) != 1))
		abort();
	left--;
}

struct apbase_watch {
	evloop_io io = {}; // first, so that its address is the record's
	pair ends;
	bool ping;

	explicit apbase_watch(bool with_ping) : ping(with_ping)
	{
		io.fd = ends.near;
		io.cb = [](evloop_io *ready, unsigned int) {
			auto *self = reinterpret_cast<apbase_watch *>(ready);
			turn(self->ends.near, self->ends.far, self->ping);
			if (left <= 0)
				evloop_end();
		};
		if (evloop_io_add(&io, EVLOOP_READ) != 0)
			abort();
	}
	~apbase_watch() { evloop_io_delete(&io); }
};

void apbase_loop(benchmark::State &state, bool ping)
{
	if (evloop_init() != 0)
		abort();
	std::vector<apbase_watch *> watches;
	for (int64_t i = 0; i < state.range(0); i++)
		watches.push_back(new apbase_watch(ping));
	while (state.KeepRunningBatch(events_a_run)) {
		left = events_a_run;
		evloop_run();
	}
	state.SetItemsProcessed(state.iterations());
	for (apbase_watch *watch : watches)
		delete watch;
}

struct bare_watch : pair {
	void (*cb)(bare_watch *watch, unsigned int events) = nullptr;
};

void bare_loop(benchmark::State &state, bool ping)
{
	int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
	std::vector<bare_watch *> watches;
	for (int64_t i = 0; i < state.range(0); i++) {
		auto *watch = new bare_watch;
		if (ping)
			watch->cb = [](bare_watch *ready, unsigned int) {
				turn(ready->near, ready->far, true);
			};
		else
			watch->cb = [](bare_watch *ready, unsigned int) {
				turn(ready->near, ready->far, false);
			};
		epoll_event event = {};
		event.events = EPOLLIN | EPOLLRDHUP;
		event.data.ptr = watch;
		if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, watch->near, &event) < 0)
			abort();
		watches.push_back(watch);
	}
	while (state.KeepRunningBatch(events_a_run)) {
		left = events_a_run;
		while (left > 0) {
			epoll_event events[EVLOOP_MAX_EVENTS];
			int count = epoll_wait(epoll_fd, events, EVLOOP_MAX_EVENTS, -1);
			for (int i = 0; i < count; i++) {
				auto *watch = static_cast<bare_watch *>(events[i].data.ptr);
				watch->cb(watch, events[i].events);
			}
		}
	}
	state.SetItemsProcessed(state.iterations());
	for (bare_watch *watch : watches)
		delete watch;
	close(epoll_fd);
}

struct libevent_watch : pair {
	event_base *base;
	event *ready;
	bool ping;

	libevent_watch(event_base *loop, bool with_ping) : base(loop), ping(with_ping)
	{
		ready = event_new(base, near, EV_READ | EV_PERSIST, called, this);
		event_add(ready, nullptr);
	}
	~libevent_watch() { event_free(ready); }

	static void called(evutil_socket_t, short, void *user)
	{
		auto *self = static_cast<libevent_watch *>(user);
		turn(self->near, self->far, self->ping);
		if (left <= 0)
			event_base_loopbreak(self->base);
	}
};

void libevent_loop(benchmark::State &state, bool ping)
{
	event_base *base = event_base_new();
	std::vector<libevent_watch *> watches;
	for (int64_t i = 0; i < state.range(0); i++)
		watches.push_back(new libevent_watch(base, ping));
	while (state.KeepRunningBatch(events_a_run)) {
		left = events_a_run;
		event_base_dispatch(base);
	}
	state.SetItemsProcessed(state.iterations());
	for (libevent_watch *watch : watches)
		delete watch;
	event_base_free(base);
}

} // namespace

// The implementations take turns, size by size, so that all meet the same state of the machine.
int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	for (bool ping : {true, false}) {
		std::string group = ping ? "read and write a byte" : "empty callback";
		for (int count : {1, 10}) {
			auto add = [&](const char *name, auto loop) {
				auto run = [=](benchmark::State &state) { loop(state, ping); };
				benchmark::RegisterBenchmark((group + name).c_str(), run)->Arg(count);
			};
			add("/apbase", apbase_loop);
			add("/bare epoll", bare_loop);
			add("/libevent", libevent_loop);
		}
	}
	benchmark::RunSpecifiedBenchmarks();
}
