// Streams made, ended by their peer or an error, cleaned up and released.
#include "tests/stream/streams.h"

#include <fcntl.h>

#include <memory>
#include <set>

using namespace stream_tests;
using namespace support;

// ---- stream_init ----

using stream_init_test = loop_test;

TEST_F(stream_init_test, starts_reading_with_empty_buffers_and_no_state)
{
	socket_pair pair;
	stream s{};
	s.state = 0xff;
	EXPECT_EQ(stream_init(&s, pair.near.get()), 0);
	EXPECT_EQ(s.io.fd, pair.near.get());
	EXPECT_EQ(s.io.registered, 1);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
	EXPECT_EQ(s.state, 0);
	EXPECT_EQ(s.tx->length, 0);
	EXPECT_EQ(s.tx->size, 256);
	EXPECT_EQ(s.rx->length, 0);
	EXPECT_EQ(s.rx->size, 512);
	EXPECT_NE(s.read, nullptr);
	EXPECT_NE(s.write, nullptr);
	EXPECT_EQ(s.state_timer.pending, 0);
	EXPECT_EQ(s.read_timer.pending, 0);
	EXPECT_EQ(s.notify_read, nullptr);
	EXPECT_EQ(s.notify_state, nullptr);
	EXPECT_EQ(s.notify_write, nullptr);
	EXPECT_EQ(watched_descriptors(), std::set<int>{pair.near.get()});
	stream_cleanup(&s);
}

TEST_F(stream_init_test, makes_the_descriptor_non_blocking_and_keeps_its_other_flags)
{
	pipe_pair pipe;
	ASSERT_EQ(fcntl(pipe.read_end.get(), F_SETFL, O_NOATIME), 0);
	int flags = fcntl(pipe.read_end.get(), F_GETFL);
	test_stream s(pipe.read_end.get());
	EXPECT_EQ(fcntl(pipe.read_end.get(), F_GETFL), flags | O_NONBLOCK);
}

TEST_F(stream_init_test, keeps_the_functions_and_callbacks_that_are_set)
{
	auto read = [](stream *, void *, uint32_t) -> int32_t { return -EAGAIN; };
	auto write = [](stream *, const void *, uint32_t count) { return static_cast<int32_t>(count); };
	auto notify = [](stream *) {};
	socket_pair pair;
	stream s{};
	s.read = read;
	s.write = write;
	s.notify_read = s.notify_state = s.notify_write = notify;
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	EXPECT_EQ(s.read, static_cast<decltype(s.read)>(read));
	EXPECT_EQ(s.write, static_cast<decltype(s.write)>(write));
	EXPECT_EQ(s.notify_read, static_cast<decltype(s.notify_read)>(notify));
	EXPECT_EQ(s.notify_state, static_cast<decltype(s.notify_state)>(notify));
	EXPECT_EQ(s.notify_write, static_cast<decltype(s.notify_write)>(notify));
	stream_cleanup(&s);
}

TEST_F(stream_init_test, does_not_look_whether_the_loop_takes_the_descriptor)
{
	owned_fd file{open("/proc/self/status", O_RDONLY | O_CLOEXEC)};
	stream s{};
	EXPECT_EQ(stream_init(&s, file.get()), 0); // epoll cannot watch a file
	EXPECT_EQ(s.io.registered, 0);
	stream_cleanup(&s);
}

TEST_F(stream_init_test, takes_a_cleaned_up_record_again)
{
	socket_pair first, second;
	test_stream s(first.near.get());
	ASSERT_TRUE(write_all(first.far.get(), "old"));
	run_pass();
	stream_cleanup(&s);
	ASSERT_EQ(stream_init(&s, second.near.get()), 0);
	ASSERT_TRUE(write_all(second.far.get(), "new"));
	ASSERT_TRUE(run_until([&] { return s.reads > 0; }));
	EXPECT_EQ(s.received(), "new");
	EXPECT_EQ(s.reads, 1);
}

TEST_F(stream_init_test, lets_callbacks_be_set_later)
{
	socket_pair pair;
	stream s{};
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	static int calls;
	calls = 0;
	s.notify_read = [](stream *) { ++calls; };
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	run_passes(3);
	EXPECT_EQ(calls, 1);
	stream_cleanup(&s);
}

// ---- state: end of file and errors ----

using stream_state = loop_test;

TEST_F(stream_state, end_of_file_stops_reading_and_is_notified_once)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	evloop_handle_ios(0);
	EXPECT_EQ(s.state, STREAM_EOF);
	EXPECT_EQ(s.states, 0);
	EXPECT_EQ(s.io.flags, 0);
	run_passes(5);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(s.reads, 0);
}

TEST_F(stream_state, after_end_of_file_writing_goes_on)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	ASSERT_TRUE(run_until([&] { return s.states == 1; }));
	EXPECT_EQ(stream_write(&s, "still here", 10), 10);
	EXPECT_EQ(read_available(pair.far.get()), "still here");

	std::string sent = fill(pair.near.get());
	EXPECT_EQ(stream_write(&s, "backlog", 7), 7);
	EXPECT_EQ(s.unsent(), "backlog");
	EXPECT_EQ(s.io.flags, EVLOOP_WRITE);
	std::string got;
	ASSERT_TRUE(run_until([&] {
		got += read_available(pair.far.get());
		return got.size() >= sent.size() + 7;
	}));
	EXPECT_EQ(got, sent + "backlog");
	EXPECT_EQ(s.io.flags, 0);
	EXPECT_EQ(s.states, 1);
}

TEST_F(stream_state, a_read_error_stops_reading_and_writing_and_is_notified_once)
{
	for (int32_t error : {-1, -EIO, -EINTR, INT32_MIN}) {
		scripted_stream s;
		s.read_results = {100, error, 100};
		s.make_readable();
		evloop_handle_ios(0);
		EXPECT_EQ(s.state, STREAM_ERROR);
		EXPECT_EQ(s.io.flags, 0);
		EXPECT_EQ(s.states, 0);
		EXPECT_EQ(s.rx->length, 100);
		run_passes(3);
		EXPECT_EQ(s.reads, 1);
		EXPECT_EQ(s.states, 1);
		EXPECT_EQ(s.read_counts.size(), 2u);
		EXPECT_EQ(stream_write(&s, "x", 1), 0);
		EXPECT_TRUE(s.write_counts.empty());
	}
}

// An event fetched before the watcher was changed, or a hang-up, comes after the end.
TEST_F(stream_state, reached_again_is_not_notified_again)
{
	for (int32_t result : {0, -1}) {
		scripted_stream s;
		s.read_results = {result, result, result};
		for (int event = 0; event < 3; ++event) {
			s.io.cb(&s.io, EVLOOP_READ);
			run_passes(2);
		}
		EXPECT_EQ(s.states, 1);
		EXPECT_EQ(s.state, result == 0 ? STREAM_EOF : STREAM_ERROR);
	}
}

TEST_F(stream_state, a_reset_connection_is_an_error)
{
	loopback_listener listener;
	owned_fd near = connect_to(listener.port), far = listener.accept_one();
	test_stream s(near.get());
	linger reset{1, 0};
	ASSERT_EQ(setsockopt(far.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
	far.reset();
	ASSERT_TRUE(run_until([&] { return s.states == 1; }));
	EXPECT_EQ(s.state, STREAM_ERROR);
	run_passes(3);
	EXPECT_EQ(s.states, 1);
}

TEST_F(stream_state, after_an_error_a_hang_up_does_not_make_the_loop_spin)
{
	socket_pair pair;
	test_stream s;
	s.write = [](stream *, const void *, uint32_t) -> int32_t { return -1; };
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	pair.far.reset();
	EXPECT_EQ(stream_write(&s, "x", 1), -1);
	run_passes(4);
	EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_ERROR});
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_state, an_error_after_end_of_file_is_notified_once_more)
{
	scripted_stream s;
	s.read_results = {0};
	s.make_readable();
	run_passes(2);
	s.make_unreadable();
	EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_EOF});
	s.write_results = {-5};
	EXPECT_EQ(stream_write(&s, "x", 1), -5);
	EXPECT_EQ(s.states, 1); // not from inside the call
	run_passes(3);
	EXPECT_EQ(s.states_seen, (std::vector<int>{STREAM_EOF, STREAM_EOF | STREAM_ERROR}));
}

TEST_F(stream_state, end_of_file_and_an_error_before_the_next_pass_are_notified_together)
{
	scripted_stream s;
	s.read_results = {0};
	s.make_readable();
	evloop_handle_ios(0);
	s.make_unreadable();
	s.write_results = {-5};
	EXPECT_EQ(stream_write(&s, "x", 1), -5);
	run_passes(3);
	EXPECT_EQ(s.states_seen, (std::vector<int>{STREAM_EOF | STREAM_ERROR}));
}

TEST_F(stream_state, is_not_notified_to_a_callback_that_is_set_afterwards)
{
	scripted_stream s;
	auto callback = s.notify_state;
	s.notify_state = nullptr;
	s.read_results = {0};
	s.make_readable();
	evloop_handle_ios(0);
	s.make_unreadable();
	EXPECT_EQ(s.state, STREAM_EOF);
	s.notify_state = callback;
	run_passes(3);
	EXPECT_EQ(s.states, 0);
}

TEST_F(stream_state, is_not_notified_to_a_callback_that_was_taken_away)
{
	scripted_stream s;
	s.read_results = {10, 0};
	s.make_readable();
	evloop_handle_ios(0);
	s.make_unreadable();
	s.notify_state = nullptr;
	s.notify_read = nullptr;
	run_passes(3);
	EXPECT_EQ(s.states + s.reads, 0);
}

TEST_F(stream_state, after_an_error_nothing_is_read_although_the_descriptor_hangs_up)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	s.write = [](stream *, const void *, uint32_t) -> int32_t { return -1; };
	EXPECT_EQ(stream_write(&s, "x", 1), -1);
	ASSERT_TRUE(write_all(pair.far.get(), "late"));
	pair.far.reset(); // the loop reports a hang-up whatever is asked for
	run_passes(4);
	EXPECT_EQ(s.rx->length, 0);
	EXPECT_EQ(s.reads, 0);
	EXPECT_EQ(s.state, STREAM_ERROR);
	EXPECT_EQ(s.states, 1);
}

TEST_F(stream_state, after_end_of_file_a_hang_up_is_not_notified_again)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	ASSERT_TRUE(run_until([&] { return s.states == 1; }));
	pair.far.reset();
	run_passes(5);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(s.state, STREAM_EOF);
}

// ---- stream_cleanup ----

using stream_cleanup_test = loop_test;

TEST_F(stream_cleanup_test, leaves_the_loop_frees_the_buffers_and_keeps_the_descriptor_open)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	fill(pair.near.get());
	EXPECT_EQ(stream_write(&s, "lost", 4), 4);
	auto notify_read = s.notify_read, notify_state = s.notify_state, notify_write = s.notify_write;
	stream_cleanup(&s);
	EXPECT_EQ(s.tx, nullptr);
	EXPECT_EQ(s.rx, nullptr);
	EXPECT_EQ(s.io.registered, 0);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_TRUE(is_open(pair.near.get()));
	EXPECT_EQ(s.notify_read, notify_read);
	EXPECT_EQ(s.notify_state, notify_state);
	EXPECT_EQ(s.notify_write, notify_write);
	EXPECT_EQ(read_available(pair.far.get()).find("lost"), std::string::npos);
	run_passes(3);
	EXPECT_EQ(s.reads + s.states + s.writes, 0);
}

TEST_F(stream_cleanup_test, cancels_the_notifications_that_are_due)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	pair.far.reset();
	evloop_handle_ios(0);
	ASSERT_EQ(s.read_timer.pending + s.state_timer.pending, 2);
	int writes = s.writes;
	stream_cleanup(&s);
	EXPECT_EQ(s.read_timer.pending + s.state_timer.pending, 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	run_passes(3);
	EXPECT_EQ(s.reads + s.states, 0);
	EXPECT_EQ(s.writes, writes);
}

TEST_F(stream_cleanup_test, leaves_alone_a_stream_that_is_cleaned_up_or_was_never_initialised)
{
	stream never{};
	stream_cleanup(&never);
	EXPECT_EQ(never.tx, nullptr);

	socket_pair pair;
	test_stream s(pair.near.get());
	stream_cleanup(&s);
	// Whoever watches the descriptor now is not disturbed.
	watcher w(pair.near.get());
	ASSERT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	stream_cleanup(&s);
	EXPECT_EQ(watched_descriptors(), std::set<int>{pair.near.get()});
	EXPECT_EQ(evloop_io_delete(&w), 0);
}

TEST_F(stream_cleanup_test, works_after_the_descriptor_was_closed)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	pair.near.reset();
	stream_cleanup(&s);
	EXPECT_EQ(s.tx, nullptr);
}

// Ten events are fetched; evloop_io_delete on its own reaches only the first of those that wait. Released
// records are on the heap, so that a sanitizer sees any look at them.
TEST_F(stream_cleanup_test, of_streams_whose_events_wait_anywhere_in_the_batch_prevents_their_dispatch)
{
	for (size_t dispatched = 1; dispatched < EVLOOP_MAX_EVENTS; ++dispatched) {
		std::vector<std::unique_ptr<socket_pair>> pairs;
		std::vector<std::unique_ptr<test_stream>> streams;
		for (size_t index = 0; index < EVLOOP_MAX_EVENTS; ++index) {
			pairs.push_back(std::make_unique<socket_pair>());
			streams.push_back(std::make_unique<test_stream>(pairs.back()->near.get()));
			ASSERT_TRUE(write_all(pairs.back()->far.get(), "x"));
		}
		for (size_t turn = 0; turn < dispatched; ++turn)
			evloop_handle_ios(0);
		ASSERT_EQ(streams[dispatched - 1]->rx->length, 1);
		ASSERT_EQ(streams[dispatched]->rx->length, 0);
		for (size_t index = EVLOOP_MAX_EVENTS; index-- > dispatched;)
			streams[index].reset();
		run_passes(EVLOOP_MAX_EVENTS);
		for (size_t index = 0; index < EVLOOP_MAX_EVENTS; ++index)
			if (index >= dispatched) {
				EXPECT_EQ(read_available(pairs[index]->near.get()), "x") << index;
			}
	}
}

TEST_F(stream_cleanup_test, of_the_last_stream_of_a_batch_from_the_first_ones_callback_prevents_its_dispatch)
{
	for (size_t count : {2, 3, 10}) {
		std::vector<std::unique_ptr<scripted_stream>> streams;
		for (size_t index = 0; index < count; ++index) {
			streams.push_back(std::make_unique<scripted_stream>());
			streams.back()->on_write = [&](test_stream *) { streams.back().reset(); };
			EXPECT_EQ(stream_write(streams.back().get(), "x", 1), 1);
			streams.back()->write_results = {1};
		}
		evloop_handle_ios(0);
		EXPECT_EQ(streams.front()->writes, 1);
		EXPECT_EQ(streams.back(), nullptr);
		streams.pop_back();
		for (auto &s : streams)
			s->on_write = nullptr;
		run_passes(static_cast<int>(count));
		for (auto &s : streams)
			EXPECT_EQ(s->writes, 1);
	}
}

// The memory, and the descriptor's number, of a released stream serve a new one while the batch still goes on.
TEST_F(stream_cleanup_test, keeps_old_events_from_a_new_stream_in_the_same_place)
{
	std::vector<std::unique_ptr<scripted_stream>> streams;
	for (size_t index = 0; index < EVLOOP_MAX_EVENTS; ++index) {
		streams.push_back(std::make_unique<scripted_stream>());
		streams.back()->make_readable();
	}
	evloop_handle_ios(0);
	scripted_stream *last = streams.back().get();
	stream_cleanup(last);
	ASSERT_EQ(stream_init(last, last->event.get()), 0);
	for (size_t turn = 1; turn < EVLOOP_MAX_EVENTS; ++turn)
		evloop_handle_ios(0);
	EXPECT_TRUE(last->read_counts.empty());
	for (size_t turn = 0; turn < EVLOOP_MAX_EVENTS; ++turn)
		evloop_handle_ios(0);
	EXPECT_EQ(last->read_counts.size(), 1u); // fetched anew
}

// ---- releasing the record ----

using stream_release_in_callback = loop_test;

TEST_F(stream_release_in_callback, notify_read)
{
	socket_pair pair;
	bool released = false;
	auto *s = new test_stream(pair.near.get());
	s->on_read = [&released](test_stream *self) {
		EXPECT_EQ(self->received(), "x");
		EXPECT_EQ(self->state_timer.pending, 1);
		released = true;
		delete self;
	};
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	pair.far.reset();
	ASSERT_TRUE(run_until([&] { return released; }));
	run_passes(3);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_TRUE(is_open(pair.near.get()));
}

TEST_F(stream_release_in_callback, notify_state_at_end_of_file)
{
	socket_pair pair;
	bool released = false;
	auto *s = new test_stream(pair.near.get());
	s->on_state = [&released](test_stream *self) {
		EXPECT_EQ(self->state, STREAM_EOF);
		released = true;
		delete self;
	};
	pair.far.reset();
	ASSERT_TRUE(run_until([&] { return released; }));
	run_passes(3);
}

TEST_F(stream_release_in_callback, notify_state_after_an_error)
{
	bool released = false;
	auto *s = new scripted_stream;
	s->on_state = [&released](test_stream *self) {
		EXPECT_EQ(self->state, STREAM_ERROR);
		released = true;
		delete static_cast<scripted_stream *>(self);
	};
	s->write_results = {-1};
	EXPECT_EQ(stream_write(s, "x", 1), -1);
	ASSERT_TRUE(run_until([&] { return released; }));
}

TEST_F(stream_release_in_callback, notify_write)
{
	bool released = false;
	auto *s = new scripted_stream;
	s->on_write = [&released](test_stream *self) {
		released = true;
		delete static_cast<scripted_stream *>(self);
	};
	EXPECT_EQ(stream_write(s, "x", 1), 1);
	s->write_results = {1};
	s->read_results = {100, 100};
	s->make_readable();
	ASSERT_TRUE(run_until([&] { return released; }));
	run_passes(3);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(stream_release_in_callback, of_another_stream_with_notifications_due)
{
	socket_pair first, second;
	auto a = std::make_unique<test_stream>(first.near.get()),
	     b = std::make_unique<test_stream>(second.near.get());
	a->on_read = [&](test_stream *) { b.reset(); };
	ASSERT_TRUE(write_all(first.far.get(), "x"));
	ASSERT_TRUE(write_all(second.far.get(), "x"));
	second.far.reset();
	evloop_handle_ios(0);
	evloop_handle_ios(0);
	ASSERT_EQ(b->read_timer.pending, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(a->reads, 1);
	EXPECT_EQ(b, nullptr);
	run_passes(3);
}

TEST_F(stream_release_in_callback, and_building_a_new_stream_on_the_same_descriptor)
{
	socket_pair pair;
	std::unique_ptr<test_stream> s, next;
	s = std::make_unique<test_stream>(pair.near.get());
	s->on_read = [&](test_stream *self) {
		EXPECT_EQ(self->received(), "for the old one");
		s.reset();
		next = std::make_unique<test_stream>(pair.near.get());
	};
	ASSERT_TRUE(write_all(pair.far.get(), "for the old one"));
	ASSERT_TRUE(run_until([&] { return next != nullptr; }));
	ASSERT_TRUE(write_all(pair.far.get(), "for the new one"));
	ASSERT_TRUE(run_until([&] { return next->reads == 1; }));
	EXPECT_EQ(next->received(), "for the new one");
}
