// What the tests of the library share: the loop driven until something holds, checks for what a test leaves in it, and
// its records with function objects. The rest, which needs no loop, is in system.h.
#pragma once
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lib/evloop.h"
#include "tests/support/system.h"

namespace support
{

// The loop's epoll descriptor, or -1 before evloop_init. The test programs have no other.
inline int epoll_descriptor()
{
	for (int fd : open_descriptors())
		if (descriptor_target(fd) == "anon_inode:[eventpoll]")
			return fd;
	return -1;
}

// The descriptors in the loop's epoll set, as the kernel has them.
inline std::set<int> watched_descriptors()
{
	std::set<int> fds;
	std::string text = read_file("/proc/self/fdinfo/" + std::to_string(epoll_descriptor()));
	for (size_t at = text.find("tfd:"); at != std::string::npos; at = text.find("tfd:", at + 1))
		fds.insert(atoi(text.c_str() + at + 4));
	return fds;
}

// One pass of the loop, as evloop_run makes it, except that it waits at most `wait_max_ms`.
inline void run_pass(int wait_max_ms = 0)
{
	evloop_handle_timeouts();
	int next_ms = evloop_get_next_timeout();
	evloop_handle_ios(next_ms < 0 ? wait_max_ms : std::min(next_ms, wait_max_ms));
}

inline void run_passes(int count)
{
	while (count-- > 0)
		run_pass();
}

// Passes of the loop until `condition` holds; false at the deadline. Children are left alone.
inline bool run_until(const std::function<bool()> &condition, int timeout_ms = deadline_ms)
{
	int64_t end_ms = now_ms() + timeout_ms;
	while (!condition()) {
		if (now_ms() > end_ms)
			return false;
		run_pass(10);
	}
	return true;
}

// A fixture over an initialised loop, which must be left without timeouts, watchers, children and
// descriptors.
class loop_test : public descriptor_test
{
protected:
	void SetUp() override
	{
		ASSERT_EQ(evloop_init(), 0);
		descriptor_test::SetUp();
	}
	void TearDown() override
	{
		// Events fetched for a descriptor that a test has closed since must not meet the next test.
		for (int turn = 0; turn < EVLOOP_MAX_EVENTS; ++turn)
			evloop_handle_ios(0);
		EXPECT_EQ(evloop_get_next_timeout(), -1) << "a timeout is left pending";
		evloop_clean_timeouts();
		EXPECT_EQ(watched_descriptors(), std::set<int>());
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
		descriptor_test::TearDown();
	}
};

// Records of the loop that call a function object and count. The function object may release its record.
struct watcher : evloop_io {
	std::function<void(watcher *, unsigned int)> on_events;
	std::vector<unsigned int> seen; // the events of each call

	explicit watcher(int watched_fd, std::function<void(watcher *, unsigned int)> call = nullptr)
		: evloop_io{}, on_events(std::move(call))
	{
		fd = watched_fd;
		cb = [](evloop_io *io, unsigned int events) {
			watcher *self = static_cast<watcher *>(io);
			self->seen.push_back(events);
			if (auto copy = self->on_events)
				copy(self, events);
		};
	}
	watcher(const watcher &) = delete;
	watcher &operator=(const watcher &) = delete;
	size_t calls() const { return seen.size(); }
};

struct timer : evloop_timeout {
	std::function<void(timer *)> on_fire;
	int calls = 0;

	explicit timer(std::function<void(timer *)> call = nullptr)
		: evloop_timeout{}, on_fire(std::move(call))
	{
		cb = [](evloop_timeout *timeout) {
			timer *self = static_cast<timer *>(timeout);
			++self->calls;
			if (auto copy = self->on_fire)
				copy(self);
		};
	}
	timer(const timer &) = delete;
	timer &operator=(const timer &) = delete;
};

} // namespace support
