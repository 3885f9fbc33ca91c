#include "lib/evloop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <array>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "lib/evloop-process.h"
#include "lib/log.h"
#include "lib/time.h"
#include "tests/support/support.h"
#include "tests/support/system_calls.h"

using namespace support;

namespace
{

// While it lives, the clock stands still.
class stopped_clock
{
	static timespec reading()
	{
		timespec now{};
		clock_gettime(CLOCK_MONOTONIC, &now);
		return now;
	}

	decltype(system_calls::clock_gettime)::replacement stopped_ =
		system_calls::clock_gettime.replace([now = reading()](clockid_t, timespec *time) {
			*time = now;
			return 0;
		});

public:
	const int64_t now = time_now();
};

constexpr unsigned int both_events = EVLOOP_READ | EVLOOP_WRITE;

// What the kernel was asked to report for a descriptor of the loop's epoll set; EPOLLERR and EPOLLHUP, which
// it always adds, left out. -1 if the descriptor is not in the set.
int64_t epoll_mask_of(int fd)
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
ready_watchers make_batch(size_t count, std::vector<size_t> *order = nullptr)
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

} // namespace

class evloop_init_test : public descriptor_test
{
};
class evloop_io_add_test : public loop_test
{
};
class evloop_io_delete_test : public loop_test
{
};
class evloop_dispatch : public loop_test
{
};
class evloop_run_test : public loop_test
{
};
class evloop_timeout_test : public loop_test
{
};
class evloop_timeout_order : public loop_test
{
};
class evloop_timeout_remaining_test : public loop_test
{
};
class evloop_next_timeout : public loop_test
{
};
class evloop_done_test : public loop_test
{
};

// ---- evloop_init ----

TEST_F(evloop_init_test, creates_one_descriptor_that_is_closed_on_exec)
{
	expect_in_child([] {
		ASSERT_EQ(evloop_init(), 0);
		int fd = epoll_descriptor();
		ASSERT_GE(fd, 0);
		EXPECT_TRUE(is_closed_on_exec(fd));
		std::set<int> before = open_descriptors();
		EXPECT_EQ(evloop_init(), 0);
		EXPECT_EQ(evloop_io_init(), 0);
		EXPECT_EQ(open_descriptors(), before);
	});
}

namespace
{

[[noreturn]] void try_to_init_without_descriptors()
{
	log_open(LOG_DEST_STDIO, 0, nullptr);
	rlimit limit{};
	getrlimit(RLIMIT_NOFILE, &limit);
	rlimit none{0, limit.rlim_max};
	setrlimit(RLIMIT_NOFILE, &none);
	errno = 0;
	bool failed = evloop_init() == -1 && errno == EMFILE;
	errno = 0;
	bool failed_again = evloop_io_init() == -1 && errno == EMFILE;
	setrlimit(RLIMIT_NOFILE, &limit);
	bool succeeded = evloop_init() == 0 && epoll_descriptor() >= 0;
	fprintf(stderr, "%d %d %d", failed, failed_again, succeeded);
	_exit(0);
}

[[noreturn]] void add_a_watcher_without_init()
{
	watcher w(0);
	errno = 0;
	int result = evloop_io_add(&w, EVLOOP_READ);
	fprintf(stderr, "%d %d %d", result, errno == EBADF, w.registered);
	_exit(0);
}

// The statement of a death test in the "threadsafe" style runs in a fresh process, where nothing has called
// evloop_init. An emulated program cannot start itself; but death tests run first, so a child that is forked
// for one finds the same.
void choose_fresh_process()
{
	GTEST_FLAG_SET(death_test_style, is_emulated ? "fast" : "threadsafe");
}

} // namespace

TEST(evloop_init_DeathTest, fails_silently_with_errno_and_tries_again_when_called_again)
{
	choose_fresh_process();
	EXPECT_EXIT(try_to_init_without_descriptors(), testing::ExitedWithCode(0), "^1 1 1$");
}

TEST(evloop_init_DeathTest, must_come_before_a_watcher_is_added)
{
	choose_fresh_process();
	EXPECT_EXIT(add_a_watcher_without_init(), testing::ExitedWithCode(0), "^-1 1 0$");
}

// ---- evloop_io_add ----

TEST_F(evloop_io_add_test, refuses_a_watcher_without_callback_and_changes_nothing)
{
	pipe_pair pipe;
	evloop_io io{};
	io.fd = pipe.read_end.get();
	io.flags = 7;
	EXPECT_EQ(evloop_io_add(&io, EVLOOP_READ), -EINVAL);
	EXPECT_EQ(io.flags, 7);
	EXPECT_EQ(io.registered, 0);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(evloop_io_add_test, refuses_a_registered_watcher_whose_callback_was_taken_away)
{
	pipe_pair pipe;
	watcher w(pipe.read_end.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	w.cb = nullptr;
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_WRITE), -EINVAL);
	EXPECT_EQ(w.flags, EVLOOP_READ);
	EXPECT_EQ(w.registered, 1);
	EXPECT_EQ(epoll_mask_of(w.fd), EPOLLIN | EPOLLRDHUP);
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_io_add_test, returns_minus_one_for_a_closed_descriptor_but_stores_the_flags)
{
	watcher w(-1);
	errno = 0;
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ | EVLOOP_WRITE), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(w.flags, EVLOOP_READ | EVLOOP_WRITE);
	EXPECT_EQ(w.registered, 0);
}

TEST_F(evloop_io_add_test, returns_minus_one_for_a_descriptor_epoll_cannot_watch)
{
	owned_fd file{open("/proc/self/status", O_RDONLY | O_CLOEXEC)};
	watcher w(file.get());
	errno = 0;
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ), -1);
	EXPECT_EQ(errno, EPERM);
	EXPECT_EQ(w.flags, EVLOOP_READ);
	EXPECT_EQ(w.registered, 0);
}

TEST_F(evloop_io_add_test, refuses_a_second_watcher_of_the_same_descriptor)
{
	pipe_pair pipe;
	watcher first(pipe.read_end.get()), second(pipe.read_end.get());
	ASSERT_EQ(evloop_io_add(&first, EVLOOP_READ), 0);
	errno = 0;
	EXPECT_EQ(evloop_io_add(&second, EVLOOP_READ), -1);
	EXPECT_EQ(errno, EEXIST);
	EXPECT_EQ(second.registered, 0);
	EXPECT_EQ(evloop_io_delete(&first), 0);
}

TEST_F(evloop_io_add_test, stores_the_flags_also_when_changing_a_registered_watcher_fails)
{
	pipe_pair pipe;
	watcher w(pipe.read_end.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	pipe.read_end.reset();
	errno = 0;
	EXPECT_EQ(evloop_io_add(&w, 0), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(w.flags, 0);
	EXPECT_EQ(w.registered, 1);
}

TEST_F(evloop_io_add_test, asks_for_input_and_half_close_or_for_output_and_stays_level_triggered)
{
	socket_pair pair;
	watcher w(pair.near.get());
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	EXPECT_EQ(epoll_mask_of(w.fd), EPOLLIN | EPOLLRDHUP);
	EXPECT_EQ(evloop_io_delete(&w), 0);

	EXPECT_EQ(evloop_io_add(&w, EVLOOP_WRITE), 0);
	EXPECT_EQ(epoll_mask_of(w.fd), EPOLLOUT);
	EXPECT_EQ(evloop_io_delete(&w), 0);
	EXPECT_EQ(epoll_mask_of(w.fd), -1);
}

TEST_F(evloop_io_add_test, changes_what_a_registered_watcher_asks_for)
{
	socket_pair pair;
	watcher w(pair.near.get());
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	for (unsigned int flags : {both_events, 0u, unsigned{EVLOOP_WRITE}, unsigned{EVLOOP_READ}}) {
		int64_t expected = 0;
		if (flags & EVLOOP_READ)
			expected |= EPOLLIN | EPOLLRDHUP;
		if (flags & EVLOOP_WRITE)
			expected |= EPOLLOUT;
		EXPECT_EQ(evloop_io_add(&w, flags), 0);
		EXPECT_EQ(w.flags, flags);
		EXPECT_EQ(w.registered, 1);
		EXPECT_EQ(epoll_mask_of(w.fd), expected);
	}
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_io_add_test, with_no_flags_keeps_the_descriptor_in_the_set_but_silent)
{
	socket_pair pair;
	watcher w(pair.near.get());
	EXPECT_EQ(evloop_io_add(&w, 0), 0);
	EXPECT_EQ(w.registered, 1);
	EXPECT_EQ(epoll_mask_of(w.fd), 0);
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	run_passes(3);
	EXPECT_EQ(w.calls(), 0u);
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_io_add_test, sets_the_most_significant_bit_of_its_byte_and_leaves_the_others_alone)
{
	pipe_pair pipe;
	watcher w(pipe.read_end.get());
	w.reserved = 0x55;
	auto flag_byte = [&w] {
		unsigned char bytes[sizeof(evloop_io)];
		memcpy(bytes, static_cast<evloop_io *>(&w), sizeof(bytes));
		return bytes[offsetof(evloop_io, flags) - 1];
	};
	EXPECT_EQ(flag_byte(), 0x55);
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	EXPECT_EQ(flag_byte(), 0xd5);
	ASSERT_EQ(evloop_io_delete(&w), 0);
	EXPECT_EQ(flag_byte(), 0x55);
}

// ---- evloop_io_delete ----

TEST_F(evloop_io_delete_test, clears_the_flags_and_leaves_the_epoll_set)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_EQ(evloop_io_add(&w, both_events), 0);
	EXPECT_EQ(evloop_io_delete(&w), 0);
	EXPECT_EQ(w.flags, 0);
	EXPECT_EQ(w.registered, 0);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	run_passes(2);
	EXPECT_EQ(w.calls(), 0u);
}

TEST_F(evloop_io_delete_test, fails_for_a_watcher_that_was_never_registered)
{
	pipe_pair pipe;
	watcher w(pipe.read_end.get());
	w.flags = EVLOOP_READ;
	errno = 0;
	EXPECT_EQ(evloop_io_delete(&w), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(w.flags, 0);
}

TEST_F(evloop_io_delete_test, fails_for_a_closed_descriptor_but_clears_the_flags)
{
	pipe_pair pipe;
	watcher w(pipe.read_end.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	pipe.read_end.reset();
	errno = 0;
	EXPECT_EQ(evloop_io_delete(&w), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(w.registered, 0);
	EXPECT_EQ(w.flags, 0);
}

TEST_F(evloop_io_delete_test, allows_the_watcher_to_be_added_again)
{
	ready_watcher w;
	ASSERT_EQ(evloop_io_delete(&w), 0);
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{EVLOOP_READ});
}

TEST_F(evloop_io_delete_test, drops_an_event_that_an_earlier_callback_of_the_batch_finds_waiting)
{
	ready_watchers batch = make_batch(3);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		EXPECT_EQ(evloop_io_delete(batch[1].get()), 0);
	};
	run_passes(3);
	EXPECT_EQ(batch[0]->calls(), 1u);
	EXPECT_EQ(batch[1]->calls(), 0u);
	EXPECT_EQ(batch[2]->calls(), 1u);
}

// With `count` events fetched and `dispatched` of them done, the scan covers the indexes from `dispatched` up
// to, and without, `count - dispatched`.
TEST_F(evloop_io_delete_test, drops_waiting_events_below_the_number_that_still_wait_and_no_others)
{
	for (size_t count : {2, 3, 5, 9, 10}) {
		for (size_t dispatched = 1; dispatched < count; ++dispatched) {
			for (size_t victim = dispatched; victim < count; ++victim) {
				SCOPED_TRACE(testing::Message() << count << " fetched, " << dispatched
								<< " dispatched, deleting " << victim);
				ready_watchers batch = make_batch(count);
				run_passes(static_cast<int>(dispatched));
				ASSERT_EQ(batch[dispatched - 1]->calls(), 1u);
				ASSERT_EQ(batch[dispatched]->calls(), 0u);

				ASSERT_EQ(evloop_io_delete(batch[victim].get()), 0);
				bool in_range = victim < count - dispatched;
				run_passes(static_cast<int>(count - dispatched));
				EXPECT_EQ(batch[victim]->calls(), in_range ? 0u : 1u);
				for (size_t index = 0; index < count; ++index)
					if (index != victim) {
						EXPECT_EQ(batch[index]->calls(), 1u) << index;
					}
				EXPECT_EQ(batch[victim]->registered, 0);
			}
		}
	}
}

TEST_F(evloop_io_delete_test, never_reaches_the_last_event_of_a_batch)
{
	// All events of a wait are fetched and the first is dispatched in one call, so the first chance to
	// delete is the first callback: the last event of a batch always escapes it.
	ready_watchers batch = make_batch(EVLOOP_MAX_EVENTS);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		for (size_t index = 1; index < batch.size(); ++index)
			EXPECT_EQ(evloop_io_delete(batch[index].get()), 0);
	};
	run_passes(EVLOOP_MAX_EVENTS);
	for (size_t index = 1; index + 1 < batch.size(); ++index)
		EXPECT_EQ(batch[index]->calls(), 0u) << index;
	EXPECT_EQ(batch.back()->calls(), 1u);
}

TEST_F(evloop_io_delete_test, of_a_watcher_out_of_reach_is_completed_by_taking_its_callback_away)
{
	ready_watchers batch = make_batch(2);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		EXPECT_EQ(evloop_io_delete(batch[1].get()), 0);
		batch[1]->cb = nullptr;
	};
	run_passes(3);
	EXPECT_EQ(batch[0]->calls(), 1u);
	EXPECT_EQ(batch[1]->calls(), 0u);
}

TEST_F(evloop_io_delete_test, lets_the_records_of_dropped_events_be_released_at_once)
{
	for (size_t count = 3; count <= EVLOOP_MAX_EVENTS; ++count) {
		ready_watchers batch = make_batch(count);
		batch[0]->on_events = [&](watcher *self, unsigned int) {
			static_cast<ready_watcher *>(self)->drain();
			for (size_t index = 1; index + 1 < count; ++index)
				batch[index].reset(); // each further deletion scans over the released ones
		};
		run_passes(static_cast<int>(count));
		EXPECT_EQ(batch[0]->calls(), 1u);
		EXPECT_EQ(batch[count - 1]->calls(), 1u);
	}
}

TEST_F(evloop_io_delete_test, lets_records_in_reach_be_released_between_any_two_dispatches)
{
	for (size_t dispatched = 1; dispatched < EVLOOP_MAX_EVENTS / 2; ++dispatched) {
		ready_watchers batch = make_batch(EVLOOP_MAX_EVENTS);
		run_passes(static_cast<int>(dispatched));
		for (size_t index = dispatched; index < EVLOOP_MAX_EVENTS - dispatched; ++index)
			batch[index].reset();
		for (size_t index = 0; index < dispatched; ++index)
			batch[index].reset(); // those that had their turn, too
		run_passes(EVLOOP_MAX_EVENTS);
		for (size_t index = EVLOOP_MAX_EVENTS - dispatched; index < EVLOOP_MAX_EVENTS; ++index)
			EXPECT_EQ(batch[index]->calls(), 1u) << index;
	}
}

// A descriptor may be given to another owner by changing `fd`; what a deletion compares is what was fetched.
TEST_F(evloop_io_delete_test, compares_the_descriptors_that_were_fetched)
{
	ready_watchers batch = make_batch(4);
	auto *moved = batch[1].get();
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		evloop_io other{};
		other.fd = moved->fd; // as whoever holds the descriptor now would delete it
		moved->fd = -1;
		EXPECT_EQ(evloop_io_delete(&other), 0);
		moved->registered = 0;
		batch[1].reset();
		EXPECT_EQ(evloop_io_delete(batch[2].get()), 0); // scans over the released one
	};
	run_passes(4);
	EXPECT_EQ(batch[2]->calls(), 0u);
	EXPECT_EQ(batch[3]->calls(), 1u);
}

TEST_F(evloop_io_delete_test, drops_the_event_of_its_own_record_although_the_descriptor_was_changed)
{
	ready_watchers batch = make_batch(4);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		ready_watcher &changed = *batch[1];
		changed.fd = -1; // the descriptor is closed by another owner
		errno = 0;
		EXPECT_EQ(evloop_io_delete(&changed), -1);
		EXPECT_EQ(errno, EBADF);
		batch[1].reset();
	};
	run_passes(4);
	EXPECT_EQ(batch[2]->calls(), 1u);
	EXPECT_EQ(batch[3]->calls(), 1u);
}

// The same bound for a record as for a descriptor.
TEST_F(evloop_io_delete_test, does_not_reach_its_own_record_beyond_the_number_that_still_wait)
{
	ready_watchers batch = make_batch(4);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		batch[3]->fd = -1;
		EXPECT_EQ(evloop_io_delete(batch[3].get()), -1);
	};
	run_passes(4);
	EXPECT_EQ(batch[3]->calls(), 1u);
}

TEST_F(evloop_io_delete_test, goes_by_the_descriptor_whichever_record_names_it)
{
	ready_watchers batch = make_batch(3);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		evloop_io other{};
		other.fd = batch[1]->fd;
		EXPECT_EQ(evloop_io_delete(&other), 0);
	};
	run_passes(3);
	EXPECT_EQ(batch[1]->calls(), 0u);
	EXPECT_EQ(epoll_mask_of(batch[1]->fd), -1);
	EXPECT_EQ(batch[1]->registered, 1); // its own record was not touched
	batch[1]->registered = 0;
}

TEST_F(evloop_io_delete_test, followed_by_an_add_fetches_the_event_anew)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(4, &order);
	auto first = batch[0]->on_events;
	batch[0]->on_events = [&, first](watcher *self, unsigned int events) {
		first(self, events);
		EXPECT_EQ(evloop_io_delete(batch[1].get()), 0);
		EXPECT_EQ(evloop_io_add(batch[1].get(), EVLOOP_READ), 0);
	};
	run_passes(5);
	EXPECT_EQ(order, (std::vector<size_t>{0, 2, 3, 1}));
}

// ---- dispatch ----

TEST_F(evloop_dispatch, reports_input_to_the_watcher_that_asked_for_it)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	run_pass();
	EXPECT_EQ(w.calls(), 0u);
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{EVLOOP_READ});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, reports_room_to_write)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "input that was not asked for"));
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_WRITE), 0);
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{EVLOOP_WRITE});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, reports_input_and_room_to_write_in_one_call)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	ASSERT_EQ(evloop_io_add(&w, both_events), 0);
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{both_events});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, repeats_while_the_descriptor_stays_ready)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	run_passes(3);
	EXPECT_EQ(w.calls(), 3u);
	EXPECT_EQ(read_available(pair.near.get()), "x");
	run_passes(3);
	EXPECT_EQ(w.calls(), 3u);
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, reports_a_half_close_as_both_events_while_reading_is_asked_for)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{both_events});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, does_not_report_a_half_close_while_only_writing_is_asked_for)
{
	socket_pair pair;
	watcher w(pair.near.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_WRITE), 0);
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	run_pass();
	EXPECT_EQ(w.seen, std::vector<unsigned int>{EVLOOP_WRITE});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, reports_a_hang_up_as_both_events_whatever_was_asked_for)
{
	for (unsigned int flags : {unsigned{EVLOOP_READ}, unsigned{EVLOOP_WRITE}, both_events, 0u}) {
		socket_pair pair;
		watcher w(pair.near.get());
		ASSERT_EQ(evloop_io_add(&w, flags), 0);
		pair.far.reset();
		run_pass();
		EXPECT_EQ(w.seen, std::vector<unsigned int>{both_events}) << "asked for " << flags;
		EXPECT_EQ(evloop_io_delete(&w), 0);
	}
}

TEST_F(evloop_dispatch, reports_an_error_as_both_events_whatever_was_asked_for)
{
	for (unsigned int flags : {unsigned{EVLOOP_READ}, unsigned{EVLOOP_WRITE}, 0u}) {
		pipe_pair pipe; // a pipe that has lost its reader reports an error, not a hang-up
		watcher w(pipe.write_end.get());
		ASSERT_EQ(evloop_io_add(&w, flags), 0);
		pipe.read_end.reset();
		run_pass();
		EXPECT_EQ(w.seen, std::vector<unsigned int>{both_events}) << "asked for " << flags;
		EXPECT_EQ(evloop_io_delete(&w), 0);
	}
}

TEST_F(evloop_dispatch, takes_three_turns_for_three_ready_descriptors)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(3, &order);
	evloop_handle_ios(0);
	EXPECT_EQ(order, (std::vector<size_t>{0}));
	evloop_handle_ios(0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1}));
	evloop_handle_ios(0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2}));
	evloop_handle_ios(0);
	EXPECT_EQ(order.size(), 3u);
}

TEST_F(evloop_dispatch, does_not_wait_again_before_the_whole_batch_has_had_its_turn)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(3, &order);
	evloop_handle_ios(0);
	auto late = std::make_unique<ready_watcher>([&order](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		order.push_back(99);
	});
	batch[0]->on_events = [&order](watcher *, unsigned int) { order.push_back(0); };
	ASSERT_EQ(eventfd_write(batch[0]->fd, 1), 0); // ready again, before the others had their turn
	evloop_handle_ios(0);
	evloop_handle_ios(0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2}));
	evloop_handle_ios(0);
	evloop_handle_ios(0);
	EXPECT_EQ(std::set<size_t>(order.begin() + 3, order.end()), (std::set<size_t>{0, 99}));
}

TEST_F(evloop_dispatch, does_not_wait_in_a_turn_that_finds_only_dropped_events)
{
	expect_in_child([] {
		ready_watchers batch = make_batch(3);
		batch[0]->on_events = [&](watcher *self, unsigned int) {
			static_cast<ready_watcher *>(self)->drain();
			EXPECT_EQ(evloop_io_delete(batch[1].get()), 0);
			EXPECT_EQ(evloop_io_delete(batch[2].get()), 0);
			batch[2]->cb = nullptr; // out of reach
		};
		evloop_handle_ios(-1);
		evloop_handle_ios(-1); // would wait for ever
		EXPECT_EQ(batch[0]->calls(), 1u);
	});
}

TEST_F(evloop_dispatch, passes_over_dropped_events_to_the_next_one_in_the_same_turn)
{
	ready_watchers batch = make_batch(6);
	batch[0]->on_events = [&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		EXPECT_EQ(evloop_io_delete(batch[1].get()), 0);
		EXPECT_EQ(evloop_io_delete(batch[2].get()), 0);
		batch[3]->cb = nullptr;
	};
	evloop_handle_ios(0);
	evloop_handle_ios(0);
	EXPECT_EQ(batch[4]->calls(), 1u);
	EXPECT_EQ(batch[5]->calls(), 0u);
	evloop_handle_ios(0);
	EXPECT_EQ(batch[5]->calls(), 1u);
	EXPECT_EQ(batch[3]->calls(), 0u);
}

TEST_F(evloop_dispatch, fetches_ten_events_at_a_time_and_leaves_the_rest_for_the_next_wait)
{
	constexpr size_t count = 25;
	std::vector<size_t> order;
	ready_watchers batch = make_batch(count, &order);
	evloop_handle_ios(0);
	for (size_t index = 1; index < count; ++index)
		batch[index]->drain(); // no longer ready, but the first ten were fetched
	for (size_t turn = 0; turn < count; ++turn)
		evloop_handle_ios(0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(evloop_dispatch, reaches_every_one_of_many_descriptors_that_stay_ready)
{
	constexpr int count = 35;
	ready_watchers batch;
	for (int index = 0; index < count; ++index)
		batch.push_back(std::make_unique<ready_watcher>());
	run_passes(2 * count);
	for (auto &w : batch)
		EXPECT_GE(w->calls(), 1u);
}

TEST_F(evloop_dispatch, lets_a_callback_delete_and_release_its_own_record)
{
	ready_watchers batch = make_batch(4);
	for (auto &w : batch)
		w->on_events = [&batch](watcher *self, unsigned int) {
			for (auto &owner : batch)
				if (owner.get() == self)
					owner.reset();
		};
	run_passes(5);
	for (auto &w : batch)
		EXPECT_EQ(w, nullptr);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(evloop_dispatch, lets_a_callback_change_its_own_events)
{
	socket_pair pair;
	watcher w(pair.near.get(),
		[](watcher *self, unsigned int) { EXPECT_EQ(evloop_io_add(self, EVLOOP_READ), 0); });
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_WRITE), 0);
	run_passes(3);
	EXPECT_EQ(w.seen, std::vector<unsigned int>{EVLOOP_WRITE});
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	run_pass();
	EXPECT_EQ(w.seen, (std::vector<unsigned int>{EVLOOP_WRITE, EVLOOP_READ}));
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(evloop_dispatch, lets_a_callback_add_watchers)
{
	ready_watchers added;
	ready_watcher first([&](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		for (auto &w : make_batch(12))
			added.push_back(std::move(w));
	});
	run_passes(13);
	ASSERT_EQ(added.size(), 12u);
	for (auto &w : added)
		EXPECT_EQ(w->calls(), 1u);
}

TEST_F(evloop_dispatch, goes_on_with_the_batch_when_a_callback_takes_a_turn_itself)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(4, &order);
	auto first = batch[0]->on_events;
	batch[0]->on_events = [&, first](watcher *self, unsigned int events) {
		evloop_handle_ios(0);
		evloop_handle_ios(0);
		first(self, events);
	};
	run_passes(3);
	EXPECT_EQ(order, (std::vector<size_t>{1, 2, 0, 3}));
}

TEST_F(evloop_dispatch, uses_the_callback_set_at_the_time_of_the_turn)
{
	ready_watchers batch = make_batch(2);
	static int replaced_calls;
	replaced_calls = 0;
	evloop_handle_ios(0);
	batch[1]->cb = [](evloop_io *, unsigned int) { ++replaced_calls; };
	evloop_handle_ios(0);
	EXPECT_EQ(replaced_calls, 1);
	EXPECT_EQ(batch[1]->calls(), 0u);
}

TEST_F(evloop_dispatch, logs_a_failing_wait)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		close(epoll_descriptor());
		evloop_handle_ios(0);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "evloop: epoll error -" + std::to_string(EBADF) + "\n");
	EXPECT_EQ(result.out, "");
}

TEST_F(evloop_dispatch, logs_a_failing_wait_as_an_error)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_file("/dev/kmsg", ""));
		log_open(LOG_DEST_KMSG, 0, "daemon");
		close(epoll_descriptor());
		evloop_handle_ios(0);
		EXPECT_EQ(read_file("/dev/kmsg"),
			"<3>daemon: evloop: epoll error -" + std::to_string(EBADF) + "\n");
	});
}

TEST_F(evloop_dispatch, is_silent_when_a_signal_interrupts_the_wait)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		struct sigaction action {
		};
		action.sa_handler = [](int) {};
		sigaction(SIGALRM, &action, nullptr);
		// Again and again, so that one comes during the wait.
		itimerval every_20_ms{{0, 20'000}, {0, 20'000}};
		setitimer(ITIMER_REAL, &every_20_ms, nullptr);
		evloop_handle_ios(-1);
		itimerval never{};
		setitimer(ITIMER_REAL, &never, nullptr);

		ready_watcher w; // and the loop goes on
		evloop_handle_ios(0);
		EXPECT_EQ(w.calls(), 1u);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "");
	EXPECT_EQ(result.out, "");
}

// ---- evloop_run ----

TEST_F(evloop_run_test, returns_zero_when_a_timeout_ends_it)
{
	timer t([](timer *) { evloop_end(); });
	evloop_timeout_set(&t, 0);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_run_test, returns_zero_when_a_descriptor_ends_it)
{
	ready_watcher w([](watcher *, unsigned int) { evloop_end(); });
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(w.calls(), 1u);
}

TEST_F(evloop_run_test, forgets_an_end_that_was_asked_for_before)
{
	timer first, second([](timer *) { evloop_end(); });
	evloop_timeout_set(&first, 0);
	evloop_timeout_set(&second, 20);
	evloop_end();
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
}

TEST_F(evloop_run_test, may_be_entered_again)
{
	int turns = 0;
	ready_watcher w([&turns](watcher *, unsigned int) {
		++turns;
		evloop_end();
	});
	for (int run = 1; run <= 3; ++run) {
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_EQ(turns, run);
	}
}

TEST_F(evloop_run_test, goes_on_with_the_batch_when_entered_again)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(3, &order);
	auto first = batch[0]->on_events;
	batch[0]->on_events = [first](watcher *self, unsigned int events) {
		first(self, events);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<size_t>{0}));
	batch[2]->on_events = [&, last = batch[2]->on_events](watcher *self, unsigned int events) {
		last(self, events);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2}));
}

TEST_F(evloop_run_test, ended_by_a_timeout_still_runs_the_other_timeouts_and_reaps_but_dispatches_nothing)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(5);
	ASSERT_GT(pid, 0);
	siginfo_t info{};
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);

	static int reported_status;
	reported_status = -1;
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int status) { reported_status = status; };
	ASSERT_EQ(evloop_process_add(&process), 0);
	timer first([](timer *) { evloop_end(); }), second;
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	ready_watcher w;

	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(reported_status, 5);
	EXPECT_EQ(w.calls(), 0u);
}

TEST_F(evloop_run_test, ended_by_a_child_dispatches_nothing)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(0);
	ASSERT_GT(pid, 0);
	siginfo_t info{};
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int) { evloop_end(); };
	ASSERT_EQ(evloop_process_add(&process), 0);
	ready_watcher w;
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(w.calls(), 0u);
}

TEST_F(evloop_run_test, ended_by_a_descriptor_runs_no_further_timeout)
{
	timer t;
	ready_watcher w([&t](watcher *, unsigned int) {
		t.expires = 1;
		evloop_timeout_add(&t);
		evloop_end();
	});
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(t.calls, 0);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_run_test, runs_due_timeouts_between_the_descriptors_of_one_batch)
{
	std::vector<int> order;
	timer t([&order](timer *) { order.push_back(-1); });
	ready_watchers batch = make_batch(3);
	for (size_t index = 0; index < batch.size(); ++index)
		batch[index]->on_events = [&order, &t, index](watcher *self, unsigned int) {
			static_cast<ready_watcher *>(self)->drain();
			order.push_back(static_cast<int>(index));
			t.expires = 1;
			evloop_timeout_add(&t);
			if (index == 2)
				t.on_fire = [&order](timer *) {
					order.push_back(-1);
					evloop_end();
				};
		};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<int>{0, -1, 1, -1, 2, -1}));
}

TEST_F(evloop_run_test, reaps_children_between_the_descriptors_of_one_batch)
{
	static std::vector<int> order;
	order.clear();
	evloop_process process{};
	process.cb = [](evloop_process *, int) { order.push_back(-1); };
	ready_watchers batch = make_batch(2);
	batch[0]->on_events = [&process](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		order.push_back(0);
		process.pid = fork();
		if (process.pid == 0)
			_exit(0);
		siginfo_t info{};
		EXPECT_EQ(waitid(P_PID, static_cast<id_t>(process.pid), &info, WEXITED | WNOWAIT), 0);
		EXPECT_EQ(evloop_process_add(&process), 0);
	};
	batch[1]->on_events = [](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		order.push_back(1);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<int>{0, -1, 1}));
}

TEST_F(evloop_run_test, goes_on_after_a_failing_wait)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		close(epoll_descriptor());
		timer t([](timer *self) {
			if (self->calls == 4)
				evloop_end();
			else
				EXPECT_EQ(evloop_timeout_set(self, 0), 0);
		});
		evloop_timeout_set(&t, 0);
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_EQ(t.calls, 4);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	std::string line = "evloop: epoll error -" + std::to_string(EBADF) + "\n";
	// Once for each pass that came to its wait.
	size_t count = result.err.size() / line.size();
	EXPECT_GE(count, 3u);
	for (size_t index = 0; index < count; ++index)
		EXPECT_EQ(result.err.substr(index * line.size(), line.size()), line);
	EXPECT_EQ(result.err.size(), count * line.size());
}

namespace
{

struct wait_arguments {
	long long events_max = -1, timeout_ms = -1;
};

bool is_wait(long number)
{
	if (is_emulated)
		return true; // it is this machine's number; what else the thread waits in has another descriptor
#ifdef SYS_epoll_wait
	if (number == SYS_epoll_wait)
		return true;
#endif
	return number == SYS_epoll_pwait;
}

// Runs the loop, looks from another thread at the wait in which the loop's thread blocks, and ends the loop.
wait_arguments look_at_wait()
{
	std::string path = "/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/syscall";
	wait_arguments found;
	const int epoll = epoll_descriptor();
	owned_fd wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
	watcher w(wake.get(), [](watcher *, unsigned int) { evloop_end(); });
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	std::thread observer([&] {
		eventually([&] {
			std::string line = read_file(path);
			long number = 0;
			unsigned long long fd = 0, events = 0, events_max = 0, timeout_ms = 0;
			if (sscanf(line.c_str(), "%ld %llx %llx %llx %llx", &number, &fd, &events,
				    &events_max, &timeout_ms) != 5)
				return false; // it runs just now
			if (!is_wait(number) || static_cast<int>(fd) != epoll)
				return false;
			found.events_max = static_cast<int>(events_max);
			found.timeout_ms = static_cast<int>(timeout_ms);
			return true;
		});
		eventfd_write(wake.get(), 1);
	});
	EXPECT_EQ(evloop_run(), 0);
	observer.join();
	EXPECT_EQ(evloop_io_delete(&w), 0);
	return found;
}

} // namespace

TEST_F(evloop_run_test, waits_500_milliseconds_at_a_time_without_timeouts_for_ten_events)
{
	wait_arguments wait = look_at_wait();
	EXPECT_EQ(wait.timeout_ms, 500);
	EXPECT_EQ(wait.events_max, EVLOOP_MAX_EVENTS);
}

TEST_F(evloop_run_test, waits_until_the_next_timeout_also_when_it_is_far)
{
	timer t;
	evloop_timeout_set(&t, 100'000);
	wait_arguments wait = look_at_wait();
	EXPECT_LE(wait.timeout_ms, 100'000);
	EXPECT_GT(wait.timeout_ms, 100'000 - deadline_ms);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_run_test, notices_a_child_without_timeouts_or_descriptors)
{
	expect_in_child([] {
		pid_t pid = fork();
		if (pid == 0) {
			poll(nullptr, 0, 50); // most likely the loop waits by then; either way it must notice
			_exit(0);
		}
		evloop_process process{};
		process.pid = pid;
		process.cb = [](evloop_process *, int) { evloop_end(); };
		EXPECT_EQ(evloop_process_add(&process), 0);
		int64_t start_ms = now_ms();
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_LT(now_ms() - start_ms, 20'000);
	});
}

TEST_F(evloop_run_test, fires_a_timeout_on_time_without_descriptors)
{
	timer t([](timer *) { evloop_end(); });
	int64_t start_ms = now_ms();
	evloop_timeout_set(&t, 30);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_GE(now_ms() - start_ms, 29);
	EXPECT_LT(now_ms() - start_ms, 20'000);
}

// ---- evloop_timeout_add, _cancel, _set ----

TEST_F(evloop_timeout_test, added_is_pending_and_linked_and_fires_once)
{
	timer t([](timer *self) {
		EXPECT_EQ(self->pending, 0);
		EXPECT_EQ(self->next, nullptr);
		EXPECT_EQ(self->prev, nullptr);
	});
	t.expires = 1;
	EXPECT_EQ(evloop_timeout_add(&t), 0);
	EXPECT_EQ(t.pending, 1);
	EXPECT_NE(t.next, nullptr);
	EXPECT_NE(t.prev, nullptr);
	EXPECT_EQ(t.expires, 1);
	evloop_handle_timeouts();
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
	EXPECT_EQ(t.expires, 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, added_twice_is_refused_and_stays_where_it_is)
{
	timer t;
	evloop_timeout_set(&t, 60'000);
	int64_t expires = t.expires;
	EXPECT_EQ(evloop_timeout_add(&t), -1);
	EXPECT_EQ(t.pending, 1);
	EXPECT_EQ(t.expires, expires);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, cancelled_is_unlinked_and_never_fires)
{
	timer t;
	t.expires = 1;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
	EXPECT_EQ(t.pending, 0);
	EXPECT_EQ(t.next, nullptr);
	EXPECT_EQ(t.prev, nullptr);
	EXPECT_EQ(t.expires, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 0);
}

TEST_F(evloop_timeout_test, cancelled_while_idle_is_refused)
{
	timer t;
	t.expires = 77;
	EXPECT_EQ(evloop_timeout_cancel(&t), -1);
	EXPECT_EQ(t.expires, 77);
	EXPECT_EQ(t.pending, 0);
}

TEST_F(evloop_timeout_test, set_expires_the_given_milliseconds_from_now)
{
	timer t;
	int64_t before = time_now();
	EXPECT_EQ(evloop_timeout_set(&t, 1500), 0);
	int64_t after = time_now();
	EXPECT_GE(t.expires, before + 1'500'000);
	EXPECT_LE(t.expires, after + 1'500'000);
	EXPECT_EQ(t.pending, 1);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_timeout_test, set_moves_one_that_is_pending)
{
	std::vector<int> order;
	timer first([&](timer *) { order.push_back(1); }), second([&](timer *) { order.push_back(2); });
	evloop_timeout_set(&first, 0);
	evloop_timeout_set(&second, 60'000);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	EXPECT_EQ(evloop_timeout_set(&first, 120'000), 0);
	EXPECT_GT(evloop_get_next_timeout(), 0);
	EXPECT_EQ(evloop_timeout_set(&second, 0), 0);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	ASSERT_TRUE(run_until([&] { return !order.empty(); }));
	EXPECT_EQ(order, std::vector<int>{2});
	EXPECT_EQ(evloop_timeout_cancel(&first), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, set_with_zero_never_fires_inside_the_call)
{
	timer t;
	EXPECT_EQ(evloop_timeout_set(&t, 0), 0);
	EXPECT_EQ(t.calls, 0);
	EXPECT_EQ(t.pending, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, set_with_a_negative_delay_is_due_at_once)
{
	timer t;
	EXPECT_EQ(evloop_timeout_set(&t, -1), 0);
	EXPECT_LT(t.expires, time_now());
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, set_beyond_64_bits_wraps)
{
	timer t;
	for (int64_t delay_ms :
		{INT64_MAX, INT64_MIN, INT64_MAX / 1000, INT64_MAX / 1000 + 1, INT64_MIN / 1000}) {
		uint64_t before = static_cast<uint64_t>(time_now());
		EXPECT_EQ(evloop_timeout_set(&t, delay_ms), 0);
		uint64_t after = static_cast<uint64_t>(time_now());
		uint64_t since = static_cast<uint64_t>(t.expires) - static_cast<uint64_t>(delay_ms) * 1000u;
		EXPECT_GE(since, before);
		EXPECT_LE(since, after);
	}
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_timeout_test, without_callback_is_taken_off_silently)
{
	evloop_timeout bare{};
	timer t;
	bare.expires = t.expires = 1;
	EXPECT_EQ(evloop_timeout_add(&bare), 0);
	EXPECT_EQ(evloop_timeout_add(&t), 0);
	evloop_handle_timeouts();
	EXPECT_EQ(bare.pending, 0);
	EXPECT_EQ(bare.next, nullptr);
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, that_is_not_due_does_not_fire)
{
	timer due, late;
	due.expires = 1;
	late.expires = time_now() + 60'000'000;
	evloop_timeout_add(&late);
	evloop_timeout_add(&due);
	evloop_handle_timeouts();
	EXPECT_EQ(due.calls, 1);
	EXPECT_EQ(late.calls, 0);
	EXPECT_EQ(late.pending, 1);
	evloop_timeout_cancel(&late);
	late.expires = 1; // moved instead of waited for
	evloop_timeout_add(&late);
	evloop_handle_timeouts();
	EXPECT_EQ(late.calls, 1);
}

// Many rounds, as two readings of a fine clock are often equal.
TEST_F(evloop_timeout_test, set_again_with_zero_by_its_own_callback_is_left_for_the_next_call)
{
	timer t([](timer *self) { EXPECT_EQ(evloop_timeout_set(self, 0), 0); });
	evloop_timeout_set(&t, 0);
	ASSERT_TRUE(eventually([] { return evloop_get_next_timeout() == 0; }));
	int calls_max = 0;
	for (int round = 0; round < 20'000; ++round) {
		int before = t.calls;
		evloop_handle_timeouts();
		calls_max = std::max(calls_max, t.calls - before);
		if (calls_max > 1)
			break;
	}
	EXPECT_EQ(calls_max, 1);
	EXPECT_GT(t.calls, 0);
	evloop_timeout_cancel(&t);
}

// A clock whose step is longer than a pass.
TEST_F(evloop_timeout_test, set_with_zero_in_a_pass_expires_a_microsecond_after_it)
{
	stopped_clock clock;
	timer second, first([&](timer *self) {
		evloop_timeout_set(self, 0);
		evloop_timeout_set(&second, 0);
	});
	first.expires = 1;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(first.expires, clock.now + 1);
	EXPECT_EQ(second.expires, clock.now + 1);
	evloop_clean_timeouts();
}

TEST_F(evloop_timeout_test, set_with_zero_outside_of_a_pass_expires_now)
{
	stopped_clock clock;
	timer t;
	evloop_handle_timeouts();
	evloop_timeout_set(&t, 0);
	EXPECT_EQ(t.expires, clock.now);
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_timeout_test, set_in_a_pass_expires_no_later_than_its_delay)
{
	stopped_clock clock;
	timer t;
	for (int64_t delay_ms : {1, 5, 2000, 60'000}) {
		timer first([&](timer *) { evloop_timeout_set(&t, delay_ms); });
		first.expires = 1;
		evloop_timeout_add(&first);
		evloop_handle_timeouts();
		EXPECT_EQ(t.expires, clock.now + delay_ms * 1000);
	}
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_timeout_test, set_with_a_negative_delay_in_a_pass_fires_in_it)
{
	stopped_clock clock;
	timer second, first([&](timer *) { evloop_timeout_set(&second, -1); });
	first.expires = 1;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(second.expires, clock.now - 1000);
}

TEST_F(evloop_timeout_test, set_with_zero_outside_of_a_callback_is_due_in_the_next_call)
{
	int missed = 0;
	for (int round = 0; round < 20'000; ++round) {
		timer t;
		evloop_handle_timeouts();
		evloop_timeout_set(&t, 0);
		evloop_handle_timeouts();
		missed += t.calls == 0;
		evloop_timeout_cancel(&t);
	}
	EXPECT_EQ(missed, 0);
}

TEST_F(evloop_timeout_test, set_with_zero_by_another_ones_callback_is_left_for_the_next_call)
{
	int early = 0;
	for (int round = 0; round < 20'000; ++round) {
		timer second, first([&second](timer *) { evloop_timeout_set(&second, 0); });
		first.expires = 1;
		evloop_timeout_add(&first);
		evloop_handle_timeouts();
		early += second.calls;
		evloop_timeout_cancel(&second);
	}
	EXPECT_EQ(early, 0);
}

TEST_F(evloop_timeout_test, added_by_a_callback_with_an_expiry_already_past_fires_in_the_same_call)
{
	timer second, first([&second](timer *) {
		second.expires = 1;
		EXPECT_EQ(evloop_timeout_add(&second), 0);
	});
	first.expires = 5;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 1);
}

TEST_F(evloop_timeout_test, cancelled_by_an_earlier_callback_never_fires)
{
	timer second, third, first([&second](timer *) { EXPECT_EQ(evloop_timeout_cancel(&second), 0); });
	first.expires = second.expires = third.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_add(&third);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, postponed_by_an_earlier_callback_does_not_fire_in_the_same_pass)
{
	timer second, first([&second](timer *) { EXPECT_EQ(evloop_timeout_set(&second, 60'000), 0); });
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(evloop_timeout_cancel(&second), 0);
}

TEST_F(evloop_timeout_test, cancelling_itself_in_its_callback_is_refused)
{
	int result = 0;
	timer t([&result](timer *self) { result = evloop_timeout_cancel(self); });
	t.expires = 1;
	evloop_timeout_add(&t);
	evloop_handle_timeouts();
	EXPECT_EQ(result, -1);
}

TEST_F(evloop_timeout_test, may_be_released_by_its_own_callback)
{
	int fired = 0;
	for (int count = 0; count < 5; ++count) {
		timer *t = new timer([&fired](timer *self) {
			++fired;
			delete self;
		});
		t->expires = 1;
		evloop_timeout_add(t);
	}
	evloop_handle_timeouts();
	EXPECT_EQ(fired, 5);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, may_be_cancelled_and_released_by_another_ones_callback)
{
	timer *second = new timer, third;
	timer first([second](timer *) {
		EXPECT_EQ(evloop_timeout_cancel(second), 0);
		delete second;
	});
	first.expires = second->expires = third.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(second);
	evloop_timeout_add(&third);
	evloop_handle_timeouts();
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, cleaned_up_from_a_callback_leaves_nothing_to_fire)
{
	timer second, third, first([](timer *) { evloop_clean_timeouts(); });
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_set(&third, 60'000);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls + third.calls, 0);
	EXPECT_EQ(second.pending + third.pending, 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, handled_from_a_callback_runs_the_others_once)
{
	timer second, third, first([](timer *) { evloop_handle_timeouts(); });
	first.expires = second.expires = third.expires = 1;
	for (timer *t : {&first, &second, &third})
		evloop_timeout_add(t);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, clean_timeouts_cancels_all_without_callbacks)
{
	std::array<timer, 5> timers;
	for (timer &t : timers) {
		t.expires = 1;
		evloop_timeout_add(&t);
	}
	evloop_clean_timeouts();
	evloop_clean_timeouts();
	evloop_handle_timeouts();
	for (timer &t : timers) {
		EXPECT_EQ(t.calls, 0);
		EXPECT_EQ(t.pending, 0);
		EXPECT_EQ(t.next, nullptr);
		EXPECT_EQ(t.prev, nullptr);
	}
}

// ---- order ----

namespace
{

// Adds one timeout for each of `expires`, and returns the indexes in the order in which they fire.
std::vector<size_t> firing_order(const std::vector<int64_t> &expires)
{
	std::vector<size_t> order;
	std::vector<std::unique_ptr<timer>> timers;
	for (size_t index = 0; index < expires.size(); ++index) {
		timers.push_back(
			std::make_unique<timer>([&order, index](timer *) { order.push_back(index); }));
		timers.back()->expires = expires[index];
		EXPECT_EQ(evloop_timeout_add(timers.back().get()), 0);
	}
	evloop_handle_timeouts();
	evloop_clean_timeouts();
	return order;
}

} // namespace

TEST_F(evloop_timeout_order, is_that_of_adding_among_equals)
{
	EXPECT_EQ(firing_order({7, 7, 7}), (std::vector<size_t>{0, 1, 2}));
	EXPECT_EQ(
		firing_order({7, 7, 9, 9, 7, 5, 9, 7, 5}), (std::vector<size_t>{5, 8, 0, 1, 4, 7, 2, 3, 6}));
}

TEST_F(evloop_timeout_order, is_that_of_expiry)
{
	EXPECT_EQ(firing_order({1, 2, 3, 4}), (std::vector<size_t>{0, 1, 2, 3}));
	EXPECT_EQ(firing_order({4, 3, 2, 1}), (std::vector<size_t>{3, 2, 1, 0}));
	EXPECT_EQ(firing_order({3, 1, 4, 2, 0}), (std::vector<size_t>{4, 1, 3, 0, 2}));
}

TEST_F(evloop_timeout_order, puts_a_timeout_set_anew_behind_its_equals)
{
	std::vector<int> order;
	timer first([&](timer *) { order.push_back(1); }), second([&](timer *) { order.push_back(2); });
	first.expires = second.expires = 3;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_cancel(&first);
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST_F(evloop_timeout_order, compares_unsigned_so_that_negative_expiries_come_last_and_are_never_due)
{
	EXPECT_EQ(firing_order({-1, 5, INT64_MIN, 3, -7}), (std::vector<size_t>{3, 1}));
	timer negative;
	negative.expires = -1;
	evloop_timeout_add(&negative);
	EXPECT_EQ(evloop_get_next_timeout(), INT32_MAX);
	evloop_handle_timeouts();
	EXPECT_EQ(negative.calls, 0);

	timer largest;
	largest.expires = time_now() + 90'000'000;
	evloop_timeout_add(&largest);
	EXPECT_LE(evloop_get_next_timeout(), 90'000); // before the negative one
	EXPECT_EQ(evloop_timeout_cancel(&negative), 0);
	EXPECT_EQ(evloop_timeout_cancel(&largest), 0);
}

TEST_F(evloop_timeout_order, compares_all_64_bits)
{
	constexpr int64_t high = int64_t{1} << 32;
	int64_t far = (int64_t{1} << 62);
	timer t[4];
	t[0].expires = far + high; // its low half is the smallest, its high half the largest
	t[1].expires = far + high - 1;
	t[2].expires = far + 0x8000'0000;
	t[3].expires = far + 0x7fff'ffff;
	for (timer &each : t)
		evloop_timeout_add(&each);
	EXPECT_EQ(t[3].next, &t[2]);
	EXPECT_EQ(t[2].next, &t[1]);
	EXPECT_EQ(t[1].next, &t[0]);
	evloop_clean_timeouts();
}

// Against an ordered multimap, which keeps equals in the order of insertion as well.
TEST_F(evloop_timeout_order, agrees_with_a_sorted_reference_under_random_use)
{
	std::mt19937 random(20240611);
	auto below = [&random](unsigned count) {
		return std::uniform_int_distribution<unsigned>(0, count - 1)(random);
	};
	constexpr unsigned count = 60;
	const std::array<int64_t, 6> extremes = {0, -1, INT64_MIN, INT64_MAX, INT64_MAX - 1, INT64_MIN + 1};
	for (int round = 0; round < 60; ++round) {
		std::multimap<uint64_t, timer *> reference;
		std::vector<timer *> fired;
		std::vector<std::unique_ptr<timer>> timers;
		for (unsigned index = 0; index < count; ++index)
			timers.push_back(
				std::make_unique<timer>([&fired](timer *self) { fired.push_back(self); }));
		auto forget = [&reference](timer *t) {
			for (auto entry = reference.begin(); entry != reference.end(); ++entry)
				if (entry->second == t) {
					reference.erase(entry);
					return true;
				}
			return false;
		};
		for (int step = 0; step < 400; ++step) {
			timer *t = timers[below(count)].get();
			switch (below(8)) {
			case 0:
			case 1:
			case 2:
			case 3: { // few different values, so that many are equal
				bool pending = t->pending;
				if (!pending)
					t->expires = below(40) == 0 ? extremes[below(extremes.size())]
								    : below(12) + 1;
				ASSERT_EQ(evloop_timeout_add(t), pending ? -1 : 0);
				if (!pending)
					reference.emplace(static_cast<uint64_t>(t->expires), t);
				break;
			}
			case 4:
			case 5: {
				bool pending = t->pending;
				ASSERT_EQ(forget(t), pending);
				ASSERT_EQ(evloop_timeout_cancel(t), pending ? 0 : -1);
				break;
			}
			case 6:
				forget(t);
				ASSERT_EQ(evloop_timeout_set(t, 3'600'000 + below(3)), 0);
				reference.emplace(static_cast<uint64_t>(t->expires), t);
				break;
			default:
				if (below(20) != 0)
					break;
				fired.clear();
				evloop_handle_timeouts();
				for (timer *was_due : fired) {
					ASSERT_FALSE(reference.empty());
					ASSERT_EQ(was_due, reference.begin()->second);
					reference.erase(reference.begin());
				}
				ASSERT_TRUE(reference.empty() || reference.begin()->first > 1000);
			}
			if (reference.empty())
				ASSERT_EQ(evloop_get_next_timeout(), -1);
			else
				ASSERT_EQ(evloop_get_next_timeout() == 0, reference.begin()->first <= 1000);
			// The loop's links run through all of them in order.
			const evloop_timeout *previous = nullptr;
			for (auto &entry : reference) {
				ASSERT_EQ(entry.second->pending, 1);
				if (previous) {
					ASSERT_EQ(previous->next, entry.second);
					ASSERT_EQ(entry.second->prev, previous);
				}
				previous = entry.second;
			}
		}
		evloop_clean_timeouts();
		for (auto &t : timers)
			ASSERT_EQ(t->pending, 0);
	}
}

TEST_F(evloop_timeout_order, holds_for_each_place_in_lists_of_each_length)
{
	for (int64_t length = 0; length <= 12; ++length)
		for (int64_t place = 0; place <= 2 * length + 1; ++place) {
			std::vector<int64_t> expires; // 2, 4, 6, ... and one at, or between, any of them
			for (int64_t index = 1; index <= length; ++index)
				expires.push_back(2 * index);
			expires.push_back(place + 1);
			std::vector<size_t> expected(expires.size());
			for (size_t index = 0; index < expected.size(); ++index)
				expected[index] = index;
			std::stable_sort(expected.begin(), expected.end(),
				[&](size_t a, size_t b) { return expires[a] < expires[b]; });
			ASSERT_EQ(firing_order(expires), expected) << length << " and one at " << place + 1;
		}
}

// ---- evloop_get_next_timeout ----

TEST_F(evloop_next_timeout, is_minus_one_without_timeouts)
{
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_next_timeout, is_zero_for_one_that_is_due)
{
	timer t;
	t.expires = time_now();
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
	t.expires = 0;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_next_timeout, is_truncated_to_whole_milliseconds)
{
	timer t;
	t.expires = time_now() + 999;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
	for (int64_t microseconds : {100'000'999, 100'000'001}) {
		t.expires = time_now() + microseconds;
		evloop_timeout_add(&t);
		EXPECT_LE(evloop_get_next_timeout(), 100'000);
		EXPECT_GT(evloop_get_next_timeout(), 100'000 - deadline_ms);
		evloop_timeout_cancel(&t);
	}
}

TEST_F(evloop_next_timeout, is_that_of_the_earliest)
{
	timer early, late;
	evloop_timeout_set(&late, 3'600'000);
	EXPECT_GT(evloop_get_next_timeout(), 3'600'000 - deadline_ms);
	evloop_timeout_set(&early, 600'000);
	EXPECT_LE(evloop_get_next_timeout(), 600'000);
	EXPECT_GT(evloop_get_next_timeout(), 600'000 - deadline_ms);
	evloop_timeout_cancel(&early);
	EXPECT_GT(evloop_get_next_timeout(), 3'600'000 - deadline_ms);
	evloop_timeout_cancel(&late);
}

TEST_F(evloop_next_timeout, saturates_at_the_largest_32_bit_number)
{
	constexpr int64_t largest_us = int64_t{INT32_MAX} * 1000;
	timer t;
	for (int64_t expires : {time_now() + largest_us + 60'000'000, time_now() + 3 * largest_us, INT64_MAX,
		     int64_t{-1}, INT64_MIN, INT64_MIN + time_now() + 5'000'000}) {
		t.expires = expires;
		evloop_timeout_add(&t);
		EXPECT_EQ(evloop_get_next_timeout(), INT32_MAX) << expires;
		evloop_timeout_cancel(&t);
	}
	t.expires = time_now() + largest_us - 1'000'000;
	evloop_timeout_add(&t);
	EXPECT_LE(evloop_get_next_timeout(), INT32_MAX - 1000);
	EXPECT_GT(evloop_get_next_timeout(), INT32_MAX - 1000 - deadline_ms);
	evloop_timeout_cancel(&t);
}

// ---- evloop_timeout_remaining ----

namespace
{

// The answer for a timeout `ahead_us` from now, from a call made within `slack_us` of reading the clock.
int32_t remaining_at(int64_t ahead_us, int64_t slack_us = 500'000)
{
	timer t;
	for (;;) {
		int64_t before = time_now();
		t.expires =
			static_cast<int64_t>(static_cast<uint64_t>(before) + static_cast<uint64_t>(ahead_us));
		int32_t answer = evloop_timeout_remaining(&t);
		if (time_now() - before < slack_us)
			return answer;
	}
}

} // namespace

TEST_F(evloop_timeout_remaining_test, counts_whole_seconds)
{
	EXPECT_EQ(remaining_at(1'500'000, 400'000), 1);
	EXPECT_EQ(remaining_at(999'999), 0);
	EXPECT_EQ(remaining_at(60'600'000), 60);
	EXPECT_EQ(remaining_at(2'146'900'000), 2146);
}

TEST_F(evloop_timeout_remaining_test, is_zero_once_the_expiry_has_passed)
{
	timer t;
	t.expires = time_now();
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
	EXPECT_EQ(remaining_at(-1), 0);
	EXPECT_EQ(remaining_at(-5'000'000), 0);
	t.expires = 1;
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
}

TEST_F(evloop_timeout_remaining_test, does_not_look_at_pending)
{
	timer t;
	for (;;) {
		int64_t before = time_now();
		evloop_timeout_set(&t, 7900);
		evloop_timeout_cancel(&t);
		int32_t answer = evloop_timeout_remaining(&t);
		if (time_now() - before < 500'000) {
			EXPECT_EQ(answer, 7);
			break;
		}
	}
	t.expires = 1;
	evloop_timeout_add(&t);
	evloop_handle_timeouts();
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
}

TEST_F(evloop_timeout_remaining_test, wraps_as_a_signed_32_bit_count_of_microseconds)
{
	constexpr int64_t wrap = int64_t{1} << 32;
	EXPECT_EQ(remaining_at(wrap + 5'900'000), 5);
	EXPECT_EQ(remaining_at(10 * wrap + 5'900'000), 5);
	// Above 2^31 microseconds the low half is negative; it is divided towards zero.
	EXPECT_EQ(remaining_at(wrap - 1'294'000'001), -1294);
	EXPECT_EQ(remaining_at(wrap - 400'000, 100'000), 0);
}

TEST_F(evloop_timeout_remaining_test, takes_a_negative_expiry_for_a_far_one)
{
	EXPECT_EQ(remaining_at(INT64_MIN + 5'900'000), 5);
}

// ---- evloop_done ----

TEST_F(evloop_done_test, cancels_timeouts_and_child_watchers_without_callbacks)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(0);
	ASSERT_GT(pid, 0);
	siginfo_t info{};
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
	static int process_calls;
	process_calls = 0;
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int) { ++process_calls; };
	ASSERT_EQ(evloop_process_add(&process), 0);
	timer due, late;
	due.expires = 1;
	evloop_timeout_add(&due);
	evloop_timeout_set(&late, 60'000);

	evloop_done();
	EXPECT_EQ(due.pending + late.pending, 0);
	EXPECT_EQ(evloop_process_is_pending(&process), 0);
	evloop_handle_timeouts();
	evloop_handle_processes(); // the child is reaped all the same
	EXPECT_EQ(due.calls + late.calls, 0);
	EXPECT_EQ(process_calls, 0);
}

TEST_F(evloop_done_test, keeps_the_epoll_descriptor_and_its_watchers)
{
	ready_watcher w;
	int fd = epoll_descriptor();
	std::set<int> before = open_descriptors();
	evloop_done();
	evloop_done();
	EXPECT_EQ(open_descriptors(), before);
	EXPECT_EQ(w.registered, 1);
	EXPECT_EQ(evloop_init(), 0);
	EXPECT_EQ(epoll_descriptor(), fd);
	run_pass();
	EXPECT_EQ(w.calls(), 1u);
}
