// Descriptors added, changed and removed, and what the loop dispatches to them.
#include "tests/evloop/watchers.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <set>

#include "lib/log.h"
#include "lib/time.h"

using namespace evloop_tests;
using namespace support;

// ---- evloop_io_add ----

using evloop_io_add_test = loop_test;

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

using evloop_io_delete_test = loop_test;

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

using evloop_dispatch = loop_test;

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
