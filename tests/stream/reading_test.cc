// What a stream receives: read into its buffer, announced, and left in the kernel while reading is disabled.
#include "tests/stream/streams.h"

#include <set>

using namespace stream_tests;
using namespace support;

// ---- reading ----

using stream_reading = loop_test;

TEST_F(stream_reading, of_3000_bytes_and_a_close_notifies_once_of_the_bytes_and_then_once_of_the_end)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	std::vector<std::string> events;
	s.on_read = [&](test_stream *) { events.push_back("read " + std::to_string(s.rx->length)); };
	s.on_state = [&](test_stream *) { events.push_back("state " + std::to_string(s.state)); };
	std::string sent = pattern(3000);
	ASSERT_TRUE(write_all(pair.far.get(), sent));
	pair.far.reset();

	evloop_handle_ios(0); // the dispatch itself only reads
	EXPECT_EQ(s.received(), sent);
	EXPECT_EQ(s.state, STREAM_EOF);
	EXPECT_TRUE(events.empty());
	evloop_handle_timeouts();
	EXPECT_EQ(events, (std::vector<std::string>{"read 3000", "state 1"}));
	run_passes(5);
	EXPECT_EQ(events.size(), 2u);
}

TEST_F(stream_reading, asks_for_chunks_of_1024_bytes_until_there_is_no_more)
{
	scripted_stream s;
	s.read_results = {1024, 1, 1024, 700, -EAGAIN, 5};
	s.make_readable();
	evloop_handle_ios(0);
	EXPECT_EQ(s.read_counts, std::vector<uint32_t>(5, 1024));
	EXPECT_EQ(s.received(), std::string(1024 + 1 + 1024 + 700, 'r'));
	EXPECT_EQ(s.reads, 0);
	s.make_unreadable();
	evloop_handle_timeouts();
	EXPECT_EQ(s.reads, 1);
}

TEST_F(stream_reading, that_finds_nothing_changes_nothing)
{
	scripted_stream s;
	s.make_readable();
	run_passes(4);
	EXPECT_GE(s.read_counts.size(), 3u);
	EXPECT_EQ(s.reads, 0);
	EXPECT_EQ(s.states, 0);
	EXPECT_EQ(s.state, 0);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
}

TEST_F(stream_reading, keeps_what_the_owner_does_not_consume)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "one"));
	ASSERT_TRUE(run_until([&] { return s.reads == 1; }));
	ASSERT_TRUE(write_all(pair.far.get(), "two"));
	ASSERT_TRUE(run_until([&] { return s.reads == 2; }));
	EXPECT_EQ(s.received(), "onetwo");
	buffer_consume(s.rx, 4);
	ASSERT_TRUE(write_all(pair.far.get(), "three"));
	ASSERT_TRUE(run_until([&] { return s.reads == 3; }));
	EXPECT_EQ(s.received(), "wothree");
}

TEST_F(stream_reading, grows_the_buffer_without_bound)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	std::string sent = pattern(500'000);
	set_nonblocking(pair.far.get());
	size_t done = 0;
	while (done < sent.size()) {
		ssize_t count = write(pair.far.get(), sent.data() + done, sent.size() - done);
		if (count > 0)
			done += static_cast<size_t>(count);
		run_pass();
	}
	ASSERT_TRUE(run_until([&] { return s.rx->length == 500'000; }));
	EXPECT_TRUE(s.received() == sent);
}

// As stream.h has it.
static int32_t read_up_to_a_mark(stream *s, void *bytes, uint32_t count)
{
	int32_t space = 10'000 - buffer_length(s->rx);
	if (space <= 0)
		return -EAGAIN;
	ssize_t length = read(s->io.fd, bytes, std::min(count, static_cast<uint32_t>(space)));
	if (length >= 0)
		return static_cast<int32_t>(length);
	return errno == EAGAIN || errno == EINTR ? -EAGAIN : -1;
}

TEST_F(stream_reading, is_bounded_by_a_read_that_stops_at_a_mark)
{
	socket_pair pair;
	test_stream s;
	s.read = read_up_to_a_mark;
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	std::string got;
	s.on_read = [&](test_stream *self) {
		EXPECT_LE(self->rx->length, 10'000);
		got += self->take_received();
	};
	std::string sent = pattern(100'000);
	set_nonblocking(pair.far.get());
	size_t done = 0;
	ASSERT_TRUE(run_until([&] {
		ssize_t count = write(pair.far.get(), sent.data() + done, sent.size() - done);
		done += count > 0 ? static_cast<size_t>(count) : 0;
		return got.size() == sent.size();
	}));
	EXPECT_TRUE(got == sent);
	EXPECT_LE(s.rx->size, 12'000);
	pair.far.reset();
	ASSERT_TRUE(run_until([&] { return s.states == 1; }));
	EXPECT_EQ(s.state, STREAM_EOF);
}

TEST_F(stream_reading, of_a_pipe_to_its_end_needs_one_notification)
{
	pipe_pair pipe;
	test_stream s(pipe.read_end.get());
	std::string got;
	s.on_state = [&](test_stream *self) {
		EXPECT_EQ(self->state, STREAM_EOF);
		got = self->received();
		stream_cleanup(self);
	};
	std::string sent = pattern(30'000);
	ASSERT_TRUE(write_all(pipe.write_end.get(), sent));
	pipe.write_end.reset();
	run_passes(4);
	EXPECT_TRUE(got == sent);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_reading, works_without_callbacks)
{
	socket_pair pair;
	stream s{};
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	ASSERT_TRUE(write_all(pair.far.get(), "x"));
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	run_passes(3);
	EXPECT_EQ(s.rx->length, 1);
	EXPECT_EQ(s.state, STREAM_EOF);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	stream_cleanup(&s);
}

TEST_F(stream_reading, notifies_on_a_later_pass_than_the_one_that_reads)
{
	// Other timeouts that fire before must not carry the notification into their own pass.
	for (int round = 0; round < 3000; ++round) {
		scripted_stream s;
		s.read_results = {10};
		s.make_readable();
		timer t([&](timer *) { evloop_handle_ios(0); }); // dispatches from inside the timeouts
		t.expires = 1;
		evloop_timeout_add(&t);
		evloop_handle_timeouts();
		ASSERT_EQ(s.rx->length, 10);
		ASSERT_EQ(s.reads, 0) << "round " << round;
		ASSERT_TRUE(run_until([&s] { return s.reads == 1; }));
	}
}

// More than was asked for cannot have been read: the chunk has no more.
TEST_F(stream_reading, takes_a_result_above_the_count_for_an_error)
{
	scripted_stream s;
	s.read_results = {1025};
	s.make_readable();
	run_passes(2);
	EXPECT_EQ(s.state, STREAM_ERROR);
	EXPECT_EQ(s.rx->length, 0);
	EXPECT_EQ(s.states, 1);
}

TEST_F(stream_reading, leaves_a_slow_reader_its_pending_notification_when_more_arrives)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	for (int part = 0; part < 5; ++part) {
		ASSERT_TRUE(write_all(pair.far.get(), "12345"));
		evloop_handle_ios(0); // no timeouts between
	}
	EXPECT_EQ(s.reads, 0);
	evloop_handle_timeouts();
	EXPECT_EQ(s.reads, 1);
	EXPECT_EQ(s.rx->length, 25);
}

// ---- stream_disable_read ----

using stream_disable_read_test = loop_test;

TEST_F(stream_disable_read_test, leaves_what_arrives_in_the_kernel)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	stream_disable_read(&s);
	EXPECT_EQ(s.state, STREAM_READ_DISABLED);
	EXPECT_EQ(s.io.flags, 0);
	ASSERT_TRUE(write_all(pair.far.get(), "not read"));
	run_passes(4);
	EXPECT_EQ(s.rx->length, 0);
	EXPECT_EQ(s.reads, 0);
	EXPECT_EQ(read_available(pair.near.get()), "not read");
}

TEST_F(stream_disable_read_test, leaves_what_has_arrived_in_rx_and_a_pending_notification_alone)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_TRUE(write_all(pair.far.get(), "early"));
	evloop_handle_ios(0);
	stream_disable_read(&s);
	stream_disable_read(&s);
	EXPECT_EQ(s.received(), "early");
	run_passes(3);
	EXPECT_EQ(s.reads, 1);
	EXPECT_EQ(s.received(), "early");
}

TEST_F(stream_disable_read_test, lets_writing_go_on)
{
	scripted_stream s;
	stream_disable_read(&s);
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	EXPECT_EQ(s.io.flags, EVLOOP_WRITE);
	s.write_results = {3};
	run_pass();
	EXPECT_EQ(s.written, "abc");
	EXPECT_EQ(s.io.flags, 0);
	EXPECT_TRUE(s.read_counts.empty());
}

TEST_F(stream_disable_read_test, with_a_backlog_keeps_asking_for_writability)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	stream_disable_read(&s);
	EXPECT_EQ(s.io.flags, EVLOOP_WRITE);
}

TEST_F(stream_disable_read_test, hears_once_of_a_peer_that_hangs_up_and_reads_nothing)
{
	for (const char *unread : {"", "not read"}) {
		socket_pair pair;
		test_stream s(pair.near.get());
		stream_disable_read(&s);
		ASSERT_TRUE(write_all(pair.far.get(), unread));
		run_passes(4);
		EXPECT_EQ(s.states, 0);
		pair.far.reset();
		evloop_handle_ios(0);
		EXPECT_EQ(s.states, 0); // not from inside the dispatch
		evloop_handle_timeouts();
		EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_READ_DISABLED | STREAM_ERROR});
		run_passes(4);
		EXPECT_EQ(s.states, 1);
		EXPECT_EQ(s.reads, 0);
		EXPECT_EQ(s.rx->length, 0);
		EXPECT_EQ(watched_descriptors(), std::set<int>()); // or the loop would spin
		EXPECT_EQ(read_available(pair.near.get()), unread);
		EXPECT_EQ(stream_write(&s, "x", 1), 0);
		EXPECT_EQ(watched_descriptors(), std::set<int>());
	}
}

TEST_F(stream_disable_read_test, hears_of_a_reset_connection)
{
	loopback_listener listener;
	owned_fd near = connect_to(listener.port), far = listener.accept_one();
	test_stream s(near.get());
	stream_disable_read(&s);
	linger reset{1, 0};
	ASSERT_EQ(setsockopt(far.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
	far.reset();
	ASSERT_TRUE(run_until([&] { return s.states == 1; }));
	EXPECT_EQ(s.state, STREAM_READ_DISABLED | STREAM_ERROR);
	run_passes(4);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_disable_read_test, hears_of_the_end_of_either_side_of_a_pipe)
{
	for (bool writing : {false, true}) {
		pipe_pair pipe;
		owned_fd *near = writing ? &pipe.write_end : &pipe.read_end;
		owned_fd *far = writing ? &pipe.read_end : &pipe.write_end;
		test_stream s(near->get());
		stream_disable_read(&s);
		far->reset();
		run_passes(4);
		EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_READ_DISABLED | STREAM_ERROR});
		EXPECT_EQ(watched_descriptors(), std::set<int>());
	}
}

TEST_F(stream_disable_read_test, hears_of_a_hang_up_without_asking_a_replaced_read)
{
	socket_pair pair;
	test_stream s;
	static int read_calls;
	read_calls = 0;
	s.read = [](stream *self, void *bytes, uint32_t count) {
		++read_calls;
		return static_cast<int32_t>(::read(self->io.fd, bytes, count));
	};
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	stream_disable_read(&s);
	ASSERT_TRUE(write_all(pair.far.get(), "not read"));
	pair.far.reset();
	run_passes(4);
	EXPECT_EQ(read_calls, 0);
	EXPECT_EQ(s.state, STREAM_READ_DISABLED | STREAM_ERROR);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_disable_read_test, by_a_replaced_read_takes_effect_before_its_next_call)
{
	scripted_stream s;
	s.read = [](stream *self, void *bytes, uint32_t) {
		*static_cast<char *>(bytes) = 'r';
		stream_disable_read(self);
		static_cast<scripted_stream *>(self)->read_counts.push_back(1);
		return static_cast<scripted_stream *>(self)->read_counts.size() < 3 ? 1 : -EAGAIN;
	};
	s.make_readable();
	run_passes(3);
	EXPECT_EQ(s.received(), "r");
	EXPECT_EQ(s.read_counts.size(), 1u);
	EXPECT_EQ(s.reads, 1);
}

TEST_F(stream_disable_read_test, hears_once_of_a_hang_up_that_a_backlog_meets_too)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	fill(pair.near.get());
	EXPECT_EQ(stream_write(&s, "backlog", 7), 7);
	stream_disable_read(&s);
	pair.far.reset();
	run_passes(4);
	EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_READ_DISABLED | STREAM_ERROR});
	EXPECT_EQ(s.writes, 0);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_disable_read_test, does_not_take_a_half_closed_peer_for_gone)
{
	loopback_listener listener;
	owned_fd near = connect_to(listener.port), far = listener.accept_one();
	test_stream s(near.get());
	ASSERT_EQ(shutdown(far.get(), SHUT_WR), 0);
	ASSERT_TRUE(wait_for(near.get(), POLLIN));
	stream_disable_read(&s);
	run_passes(4);
	EXPECT_EQ(s.states, 0);
	EXPECT_EQ(stream_write(&s, "still here", 10), 10);
	ASSERT_TRUE(wait_for(far.get(), POLLIN));
	EXPECT_EQ(read_available(far.get()), "still here");
}

TEST_F(stream_disable_read_test, works_without_callbacks_when_the_peer_hangs_up)
{
	socket_pair pair;
	stream s{};
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	stream_disable_read(&s);
	pair.far.reset();
	run_passes(2);
	EXPECT_EQ(s.state, STREAM_READ_DISABLED | STREAM_ERROR);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	stream_cleanup(&s);
}

TEST_F(stream_disable_read_test, holds_for_an_event_that_was_fetched_before)
{
	socket_pair first, second;
	test_stream a(first.near.get()), b(second.near.get());
	ASSERT_TRUE(write_all(first.far.get(), "one"));
	ASSERT_TRUE(write_all(second.far.get(), "two"));
	evloop_handle_ios(0); // fetches both, and reads the first
	ASSERT_EQ(a.received(), "one");
	stream_disable_read(&b);
	run_passes(3);
	EXPECT_EQ(b.rx->length, 0);
	EXPECT_EQ(b.states, 0);
	EXPECT_EQ(read_available(second.near.get()), "two");
}

TEST_F(stream_disable_read_test, after_cleanup_does_not_bring_the_stream_back)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	stream_cleanup(&s);
	stream_disable_read(&s);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_EQ(s.io.registered, 0);
}

// ---- stream_notify_read ----

using stream_notify_read_test = loop_test;

TEST_F(stream_notify_read_test, calls_back_on_the_next_pass_and_once)
{
	scripted_stream s;
	stream_notify_read(&s);
	stream_notify_read(&s);
	EXPECT_EQ(s.reads, 0);
	evloop_handle_timeouts();
	EXPECT_EQ(s.reads, 1);
	run_passes(3);
	EXPECT_EQ(s.reads, 1);
}

TEST_F(stream_notify_read_test, from_its_own_callback_waits_for_the_pass_after)
{
	scripted_stream s;
	s.on_read = [](test_stream *self) { stream_notify_read(self); };
	stream_notify_read(&s);
	int calls_max = 0;
	for (int pass = 0; pass < 5000; ++pass) {
		int before = s.reads;
		evloop_handle_timeouts();
		calls_max = std::max(calls_max, s.reads - before);
	}
	EXPECT_EQ(calls_max, 1);
}

TEST_F(stream_notify_read_test, without_callback_does_nothing)
{
	scripted_stream s;
	s.notify_read = nullptr;
	stream_notify_read(&s);
	EXPECT_EQ(s.read_timer.pending, 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(stream_notify_read_test, after_cleanup_does_nothing)
{
	scripted_stream s;
	stream_cleanup(&s);
	stream_notify_read(&s);
	EXPECT_EQ(s.read_timer.pending, 0);
}

TEST_F(stream_notify_read_test, works_after_end_of_file_and_disabled_reading)
{
	scripted_stream s;
	s.read_results = {5, 0};
	s.make_readable();
	run_passes(2);
	s.make_unreadable();
	EXPECT_EQ(s.reads, 1);
	stream_disable_read(&s);
	stream_notify_read(&s);
	run_pass();
	EXPECT_EQ(s.reads, 2);
	EXPECT_EQ(s.received(), "rrrrr");
}
