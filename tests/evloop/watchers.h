// Watchers of the loop, and batches of descriptors that are ready together.
#pragma once
#include "lib/evloop.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/support.h"

namespace evloop_tests
{

using namespace support;

inline constexpr unsigned int both_events = EVLOOP_READ | EVLOOP_WRITE;

// What the kernel was asked to report for a descriptor of the loop's epoll set; EPOLLERR and EPOLLHUP, which
// it always adds, left out. -1 if the descriptor is not in the set.
inline int64_t epoll_mask_of(int fd)
{
	std::string text = read_file("/proc/self/fdinfo/" + std::to_string(epoll_descriptor()));
	for (size_t at = text.find("tfd:"); at != std::string::npos; at = text.find("tfd:", at + 1)) {
		int entry_fd = 0;
		unsigned int events = 0;
		if (sscanf(text.c_str() + at, "tfd: %d events: %x", &entry_fd, &events) == 2 &&
			entry_fd == fd)
			return events & ~static_cast<unsigned int>(EPOLLERR | EPOLLHUP);
	}
	return -1;
}

// A watcher of an eventfd that is readable from the moment it is added.
struct ready_watcher : watcher {
	owned_fd event;

	explicit ready_watcher(std::function<void(watcher *, unsigned int)> call = nullptr)
		: watcher(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK), std::move(call)), event(fd)
	{
		EXPECT_EQ(evloop_io_add(this, EVLOOP_READ), 0);
	}
	~ready_watcher()
	{
		if (registered) {
			EXPECT_EQ(evloop_io_delete(this), 0);
		}
	}
	void drain() const { read_available(event.get()); }
};

using ready_watchers = std::vector<std::unique_ptr<ready_watcher>>;

// `count` ready descriptors; the kernel reports them in this order. Each is drained when it is dispatched.
inline ready_watchers make_batch(size_t count, std::vector<size_t> *order = nullptr)
{
	ready_watchers batch;
	for (size_t index = 0; index < count; ++index)
		batch.push_back(std::make_unique<ready_watcher>([order, index](watcher *self, unsigned int) {
			static_cast<ready_watcher *>(self)->drain();
			if (order)
				order->push_back(index);
		}));
	return batch;
}

} // namespace evloop_tests
