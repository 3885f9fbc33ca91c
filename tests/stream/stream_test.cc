#include "lib/stream.h"

#include <sys/eventfd.h>

#include <deque>
#include <memory>
#include <random>

#include "tests/support/support.h"

using namespace support;

namespace
{

// A stream whose callbacks count and call function objects, which may release the record.
struct test_stream : stream {
	std::function<void(test_stream *)> on_read, on_state, on_write;
	int reads = 0, states = 0, writes = 0;
	std::vector<int> states_seen; // `state` at each notify_state

	test_stream() : stream{}
	{
		notify_read = [](stream *s) { call(s, &test_stream::reads, &test_stream::on_read); };
		notify_state = [](stream *s) {
			static_cast<test_stream *>(s)->states_seen.push_back(s->state);
			call(s, &test_stream::states, &test_stream::on_state);
		};
		notify_write = [](stream *s) { call(s, &test_stream::writes, &test_stream::on_write); };
	}
	explicit test_stream(int fd) : test_stream() { EXPECT_EQ(stream_init(this, fd), 0); }
	~test_stream() { stream_cleanup(this); }
	test_stream(const test_stream &) = delete;
	test_stream &operator=(const test_stream &) = delete;

	std::string received()
	{
		int32_t length = 0;
		const char *bytes = buffer_get_data(rx, &length);
		return std::string(bytes, static_cast<size_t>(length));
	}
	std::string take_received()
	{
		std::string bytes = received();
		buffer_consume(rx, buffer_length(rx));
		return bytes;
	}
	std::string unsent()
	{
		int32_t length = 0;
		const char *bytes = buffer_get_data(tx, &length);
		return std::string(bytes, static_cast<size_t>(length));
	}

private:
	static void call(
		stream *s, int test_stream::*count, std::function<void(test_stream *)> test_stream::*function)
	{
		test_stream *self = static_cast<test_stream *>(s);
		++(self->*count);
		if (auto copy = self->*function)
			copy(self);
	}
};

// A stream whose `read` and `write` follow a script. Each entry is one result; a positive one moves that many
// bytes, and with an empty script reads find nothing and writes take nothing.
struct scripted_stream : test_stream {
	std::deque<int32_t> read_results, write_results;
	std::vector<uint32_t> read_counts, write_counts; // what was asked for
	std::string written;
	owned_fd event;

	// On an eventfd, which is writable, and readable once `make_readable` was called.
	scripted_stream() : event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
	{
		read = [](stream *s, void *bytes, uint32_t count) {
			auto *self = static_cast<scripted_stream *>(s);
			self->read_counts.push_back(count);
			int32_t result = next(&self->read_results, -EAGAIN);
			if (result > 0)
				memset(bytes, 'r', std::min(static_cast<uint32_t>(result), count));
			return result;
		};
		write = [](stream *s, const void *bytes, uint32_t count) {
			auto *self = static_cast<scripted_stream *>(s);
			self->write_counts.push_back(count);
			int32_t result = std::min(next(&self->write_results, 0), static_cast<int32_t>(count));
			if (result > 0)
				self->written.append(
					static_cast<const char *>(bytes), static_cast<size_t>(result));
			return result;
		};
		EXPECT_EQ(stream_init(this, event.get()), 0);
	}
	~scripted_stream() { stream_cleanup(this); } // before its descriptor is closed
	void make_readable() const { EXPECT_EQ(eventfd_write(event.get(), 1), 0); }
	void make_unreadable() const { read_available(event.get()); }

private:
	static int32_t next(std::deque<int32_t> *results, int32_t otherwise)
	{
		if (results->empty())
			return otherwise;
		int32_t result = results->front();
		results->pop_front();
		return result;
	}
};

std::string pattern(size_t length, unsigned seed = 1)
{
	std::mt19937 random(seed);
	std::string bytes(length, '\0');
	for (char &byte : bytes)
		byte = static_cast<char>(random());
	return bytes;
}

// Fills the socket's way to its peer; returns what went in.
std::string fill(int fd)
{
	std::string bytes;
	set_nonblocking(fd);
	std::string chunk(1000, 'f');
	ssize_t count;
	while ((count = write(fd, chunk.data(), chunk.size())) > 0)
		bytes.append(chunk, 0, static_cast<size_t>(count));
	return bytes;
}

void ignore_sigpipe()
{
	signal(SIGPIPE, SIG_IGN);
}

} // namespace

class stream_init_test : public loop_test
{
};
class stream_reading : public loop_test
{
};
class stream_writing : public loop_test
{
};
class stream_state : public loop_test
{
};
class stream_printf_test : public loop_test
{
};
class stream_flush : public loop_test
{
};
class stream_disable_read_test : public loop_test
{
};
class stream_notify_read_test : public loop_test
{
};
class stream_cleanup_test : public loop_test
{
};
class stream_release_in_callback : public loop_test
{
};

// ---- stream_init ----

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

// ---- reading ----

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

// ---- state: end of file and errors ----

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

// ---- writing ----

TEST_F(stream_writing, to_an_idle_stream_is_one_call_and_leaves_tx_alone)
{
	scripted_stream s;
	s.write_results = {10};
	EXPECT_EQ(stream_write(&s, "0123456789", 10), 10);
	EXPECT_EQ(s.write_counts, std::vector<uint32_t>{10});
	EXPECT_EQ(s.written, "0123456789");
	EXPECT_EQ(s.tx->length, 0);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
	run_passes(2);
	EXPECT_EQ(s.writes, 0); // nothing was drained
}

TEST_F(stream_writing, queues_what_the_kernel_does_not_take_and_asks_for_writability_until_it_is_sent)
{
	scripted_stream s;
	s.write_results = {4};
	EXPECT_EQ(stream_write(&s, "0123456789", 10), 10);
	EXPECT_EQ(s.unsent(), "456789");
	EXPECT_EQ(s.io.flags, EVLOOP_READ | EVLOOP_WRITE);
	EXPECT_EQ(s.write_counts, std::vector<uint32_t>{10});

	s.write_results = {1, 2, 0};
	evloop_handle_ios(0);
	EXPECT_EQ(s.write_counts, (std::vector<uint32_t>{10, 6, 5, 3}));
	EXPECT_EQ(s.unsent(), "789");
	EXPECT_EQ(s.io.flags, EVLOOP_READ | EVLOOP_WRITE);
	EXPECT_EQ(s.writes, 0);

	s.write_results = {3};
	evloop_handle_ios(0);
	EXPECT_EQ(s.written, "0123456789");
	EXPECT_EQ(s.tx->length, 0);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
	EXPECT_EQ(s.writes, 1); // at once, not on a later pass
	run_passes(3);
	EXPECT_EQ(s.writes, 1);
}

TEST_F(stream_writing, behind_a_backlog_is_only_queued)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "first ", 6), 6);
	EXPECT_EQ(stream_write(&s, "second ", 7), 7);
	EXPECT_EQ(stream_write(&s, "", 0), 0);
	EXPECT_EQ(stream_write(&s, "third", 5), 5);
	EXPECT_EQ(s.write_counts.size(), 1u); // of the first
	EXPECT_EQ(s.unsent(), "first second third");
	s.write_results = {18};
	run_pass();
	EXPECT_EQ(s.written, "first second third");
}

TEST_F(stream_writing, notifies_each_time_a_backlog_drains)
{
	scripted_stream s;
	for (int round = 1; round <= 3; ++round) {
		EXPECT_EQ(stream_write(&s, "abc", 3), 3);
		s.write_results = {3};
		run_pass();
		EXPECT_EQ(s.writes, round);
	}
}

TEST_F(stream_writing, from_notify_write_starts_the_next_backlog)
{
	scripted_stream s;
	s.on_write = [](test_stream *self) {
		EXPECT_EQ(self->tx->length, 0);
		EXPECT_EQ(self->io.flags, EVLOOP_READ);
		if (self->writes < 3) {
			EXPECT_EQ(stream_write(self, "more", 4), 4);
		}
	};
	EXPECT_EQ(stream_write(&s, "start", 5), 5);
	s.write_results = {5, 0, 4, 0, 4};
	run_passes(6);
	EXPECT_EQ(s.written, "startmoremore");
	EXPECT_EQ(s.writes, 3);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
}

TEST_F(stream_writing, works_without_notify_write)
{
	scripted_stream s;
	s.notify_write = nullptr;
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	s.write_results = {3};
	run_passes(2);
	EXPECT_EQ(s.written, "abc");
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
}

TEST_F(stream_writing, returns_the_negative_result_of_a_failing_write_and_0_from_then_on)
{
	for (int32_t error : {-1, -EPIPE, -EAGAIN, INT32_MIN}) {
		scripted_stream s;
		s.write_results = {error, 1};
		EXPECT_EQ(stream_write(&s, "abc", 3), error);
		EXPECT_EQ(s.state, STREAM_ERROR);
		EXPECT_EQ(s.io.flags, 0);
		EXPECT_EQ(s.tx->length, 0);
		EXPECT_EQ(s.states, 0);
		EXPECT_EQ(stream_write(&s, "abc", 3), 0);
		EXPECT_EQ(stream_printf(&s, "%d", 1), 0);
		EXPECT_EQ(s.write_counts.size(), 1u);
		run_passes(3);
		EXPECT_EQ(s.states_seen, std::vector<int>{STREAM_ERROR});
	}
}

TEST_F(stream_writing, that_fails_later_keeps_the_backlog_and_stops)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	s.write_results = {1, -7, 1};
	evloop_handle_ios(0);
	EXPECT_EQ(s.state, STREAM_ERROR);
	EXPECT_EQ(s.io.flags, 0);
	EXPECT_EQ(s.unsent(), "bc");
	EXPECT_EQ(s.states, 0);
	run_passes(3);
	EXPECT_EQ(s.states, 1);
	EXPECT_EQ(s.writes, 0);
	EXPECT_EQ(s.write_counts.size(), 3u);
	EXPECT_EQ(stream_write(&s, "abc", 3), 0);
	EXPECT_EQ(s.unsent(), "bc");
}

TEST_F(stream_writing, to_a_peer_that_has_gone_is_an_error)
{
	expect_in_child([] {
		ignore_sigpipe();
		socket_pair pair;
		test_stream s(pair.near.get());
		pair.far.reset();
		EXPECT_EQ(stream_write(&s, "x", 1), -1);
		EXPECT_EQ(errno, EPIPE);
		EXPECT_EQ(s.state, STREAM_ERROR);
		EXPECT_EQ(stream_write(&s, "x", 1), 0);
		EXPECT_EQ(stream_printf(&s, "x"), 0);
		EXPECT_TRUE(run_until([&] { return s.states == 1; }));
	});
}

TEST_F(stream_writing, that_meets_the_error_with_a_backlog_notifies_of_it)
{
	expect_in_child([] {
		ignore_sigpipe();
		socket_pair pair;
		test_stream s(pair.near.get());
		fill(pair.near.get());
		EXPECT_EQ(stream_write(&s, "x", 1), 1);
		pair.far.reset();
		EXPECT_TRUE(run_until([&] { return s.state & STREAM_ERROR; }));
		EXPECT_TRUE(run_until([&] { return s.states > 0; }));
		EXPECT_EQ(s.unsent(), "x");
		EXPECT_EQ(s.writes, 0);
	});
}

TEST_F(stream_writing, of_nothing_changes_nothing)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "", 0), 0);
	EXPECT_EQ(s.tx->length, 0);
	EXPECT_EQ(s.state, 0);
}

TEST_F(stream_writing, of_null_bytes_returns_0)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, nullptr, 0), 0);
	EXPECT_EQ(stream_write(&s, nullptr, 5), 0);
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	EXPECT_EQ(stream_write(&s, nullptr, 5), 0); // behind a backlog, too
	EXPECT_EQ(s.unsent(), "abc");
	EXPECT_EQ(s.state, 0);

	socket_pair pair;
	test_stream plain(pair.near.get());
	EXPECT_EQ(plain.write(&plain, nullptr, 5), 0); // the default function on its own
	EXPECT_EQ(read_available(pair.far.get()), "");
}

TEST_F(stream_writing, of_more_than_tx_could_hold_is_refused_before_anything_is_written)
{
	scripted_stream s;
	char byte = 0;
	for (uint32_t count : {0x8000'0000u, 0xffff'ffffu}) {
		EXPECT_EQ(stream_write(&s, &byte, count), -EINVAL);
	}
	EXPECT_TRUE(s.write_counts.empty());
	EXPECT_EQ(s.state, 0);

	EXPECT_EQ(stream_write(&s, "012345", 6), 6);
	EXPECT_EQ(stream_write(&s, &byte, uint32_t{INT32_MAX} - 5), -EINVAL);
	EXPECT_EQ(stream_write(&s, &byte, INT32_MAX), -EINVAL);
	EXPECT_EQ(s.unsent(), "012345");
	EXPECT_EQ(s.state, 0);
}

TEST_F(stream_writing, of_the_largest_count_succeeds_if_it_is_taken_at_once)
{
	static char byte;
	socket_pair pair;
	test_stream s;
	s.write = [](stream *, const void *, uint32_t count) { return static_cast<int32_t>(count); };
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	EXPECT_EQ(stream_write(&s, &byte, INT32_MAX), INT32_MAX);
	EXPECT_EQ(s.tx->length, 0);
}

TEST_F(stream_writing, before_init_and_after_cleanup_is_refused)
{
	stream s{};
	EXPECT_EQ(stream_write(&s, "x", 1), -EINVAL);
	EXPECT_EQ(stream_printf(&s, "x"), -EINVAL);
	socket_pair pair;
	ASSERT_EQ(stream_init(&s, pair.near.get()), 0);
	stream_cleanup(&s);
	EXPECT_EQ(stream_write(&s, "x", 1), -EINVAL);
	EXPECT_EQ(stream_write(&s, nullptr, 0), -EINVAL);
	EXPECT_EQ(stream_printf(&s, "x"), -EINVAL);
	EXPECT_EQ(read_available(pair.far.get()), "");
}

TEST_F(stream_writing, keeps_the_byte_order_whatever_the_descriptor_takes)
{
	std::mt19937 random(7);
	for (int round = 0; round < 40; ++round) {
		scripted_stream s;
		std::string sent;
		for (int step = 0; step < 200; ++step) {
			for (unsigned results = random() % 4; results > 0; --results)
				s.write_results.push_back(static_cast<int32_t>(random() % 300));
			if (random() % 2) {
				std::string bytes = pattern(random() % 400, static_cast<unsigned>(random()));
				ASSERT_EQ(stream_write(&s, bytes.data(), static_cast<uint32_t>(bytes.size())),
					static_cast<int32_t>(bytes.size()));
				sent += bytes;
			} else {
				evloop_handle_ios(0);
			}
			ASSERT_TRUE(s.written + s.unsent() == sent);
			ASSERT_EQ(s.io.flags, EVLOOP_READ | (s.tx->length > 0 ? EVLOOP_WRITE : 0));
		}
		while (s.tx->length > 0) {
			s.write_results.push_back(1000);
			evloop_handle_ios(0);
		}
		ASSERT_TRUE(s.written == sent);
	}
}

TEST_F(stream_writing, delivers_a_large_amount_through_a_small_socket_buffer)
{
	socket_pair pair;
	int size = 4096;
	setsockopt(pair.near.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
	test_stream s(pair.near.get());
	std::string sent = pattern(1'000'000);
	EXPECT_EQ(stream_write(&s, sent.data(), 600'000), 600'000);
	EXPECT_GT(s.tx->length, 0);
	EXPECT_LT(s.tx->length, 600'000);
	EXPECT_EQ(stream_write(&s, sent.data() + 600'000, 400'000), 400'000);
	std::string got;
	ASSERT_TRUE(run_until([&] {
		got += read_available(pair.far.get());
		return got.size() >= sent.size();
	}));
	EXPECT_TRUE(got == sent);
	ASSERT_TRUE(run_until([&] { return s.writes == 1; }));
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
}

TEST_F(stream_writing, and_reading_go_both_ways_at_once_between_two_streams)
{
	loopback_listener listener;
	owned_fd near = connect_to(listener.port), far = listener.accept_one();
	test_stream a(near.get()), b(far.get());
	std::string from_a = pattern(700'000, 1), from_b = pattern(500'000, 2), to_a, to_b;
	a.on_read = [&to_a](test_stream *self) { to_a += self->take_received(); };
	b.on_read = [&to_b](test_stream *self) { to_b += self->take_received(); };
	size_t a_at = 0, b_at = 0;
	ASSERT_TRUE(run_until([&] {
		auto send = [](test_stream *s, const std::string &all, size_t *at) {
			size_t count = std::min<size_t>(50'000, all.size() - *at);
			EXPECT_EQ(stream_write(s, all.data() + *at, static_cast<uint32_t>(count)),
				static_cast<int32_t>(count));
			*at += count;
		};
		send(&a, from_a, &a_at);
		send(&b, from_b, &b_at);
		return to_b.size() >= from_a.size() && to_a.size() >= from_b.size();
	}));
	EXPECT_TRUE(to_b == from_a);
	EXPECT_TRUE(to_a == from_b);
	EXPECT_EQ(a.states + b.states, 0);
}

// The event of a hang-up asks for a write, too, and nothing is left to write then.
TEST_F(stream_writing, counts_as_drained_when_a_half_close_is_reported_on_an_idle_stream)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	ASSERT_EQ(shutdown(pair.far.get(), SHUT_WR), 0);
	evloop_handle_ios(0);
	EXPECT_EQ(s.writes, 1);
	EXPECT_EQ(s.state, STREAM_EOF);
	run_passes(2);
	EXPECT_EQ(s.writes, 1);
}

// ---- stream_printf ----

TEST_F(stream_printf_test, formats_and_writes)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	EXPECT_EQ(stream_printf(&s, "%s-%d-%05.1f", "text", -7, 2.25), 13);
	EXPECT_EQ(read_available(pair.far.get()), "text--7-002.2");
	EXPECT_EQ(stream_printf(&s, "%s", ""), 0);
	EXPECT_EQ(s.state, 0);
}

TEST_F(stream_printf_test, takes_its_arguments_as_a_list_as_well)
{
	// In the style of a daemon's own wrapper.
	struct wrapper {
		__attribute__((format(printf, 2, 3))) static int32_t write(stream *s, const char *format, ...)
		{
			va_list arguments;
			va_start(arguments, format);
			int32_t result = stream_vprintf(s, format, arguments);
			va_end(arguments);
			return result;
		}
	};
	socket_pair pair;
	test_stream s(pair.near.get());
	EXPECT_EQ(wrapper::write(&s, "%s-%d", "text", -7), 7);
	EXPECT_EQ(read_available(pair.far.get()), "text--7");
	s.write = [](stream *, const void *, uint32_t) -> int32_t { return -5; };
	EXPECT_EQ(wrapper::write(&s, "%d", 1), -5);
	EXPECT_EQ(wrapper::write(&s, "%d", 1), 0);
	stream_cleanup(&s);
	EXPECT_EQ(wrapper::write(&s, "%d", 1), 0); // the error comes first
	stream never{};
	EXPECT_EQ(wrapper::write(&never, "%d", 1), -EINVAL);
}

TEST_F(stream_printf_test, writes_texts_of_any_length)
{
	socket_pair pair;
	test_stream s(pair.near.get());
	for (size_t length : {255u, 256u, 257u, 511u, 512u, 513u, 5000u, 1'000'000u}) {
		std::string text(length, 'x');
		EXPECT_EQ(stream_printf(&s, "<%s>", text.c_str()), static_cast<int32_t>(length + 2));
		std::string got;
		ASSERT_TRUE(run_until([&] {
			got += read_available(pair.far.get());
			return got.size() >= length + 2;
		}));
		EXPECT_TRUE(got == "<" + text + ">");
	}
}

TEST_F(stream_printf_test, queues_behind_a_backlog)
{
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "a", 1), 1);
	EXPECT_EQ(stream_printf(&s, "%d", 12), 2);
	EXPECT_EQ(s.unsent(), "a12");
}

TEST_F(stream_printf_test, writes_up_to_the_first_zero_byte)
{
	scripted_stream s;
	s.write_results = {100};
	EXPECT_EQ(stream_printf(&s, "ab%cde", 0), 2);
	EXPECT_EQ(s.written, "ab");
}

TEST_F(stream_printf_test, returns_a_negative_number_if_formatting_fails)
{
	scripted_stream s;
	EXPECT_LT(stream_printf(&s, "%lc", static_cast<wint_t>(0x7fff'ffff)), 0);
	EXPECT_TRUE(s.write_counts.empty());
	EXPECT_EQ(s.state, 0);
}

TEST_F(stream_printf_test, returns_what_the_write_returned)
{
	scripted_stream s;
	s.write_results = {-9};
	EXPECT_EQ(stream_printf(&s, "x"), -9);
	EXPECT_EQ(stream_printf(&s, "x"), 0);
}

// ---- stream_flush_tx_async ----

namespace
{

int flush_calls;

void count_flush(stream *)
{
	++flush_calls;
}

} // namespace

TEST_F(stream_flush, with_an_empty_tx_calls_back_before_it_returns)
{
	flush_calls = 0;
	scripted_stream s;
	auto before = s.notify_write;
	stream_flush_tx_async(&s, count_flush);
	EXPECT_EQ(flush_calls, 1);
	EXPECT_EQ(s.notify_write, before);
	EXPECT_EQ(s.writes, 0);
}

TEST_F(stream_flush, with_a_backlog_calls_back_when_it_has_been_sent_and_replaces_notify_write)
{
	flush_calls = 0;
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	stream_flush_tx_async(&s, count_flush);
	EXPECT_EQ(flush_calls, 0);
	EXPECT_EQ(s.notify_write, count_flush);
	s.write_results = {2};
	run_pass();
	EXPECT_EQ(flush_calls, 0);
	s.write_results = {1};
	run_pass();
	EXPECT_EQ(flush_calls, 1);
	EXPECT_EQ(s.writes, 0);

	EXPECT_EQ(stream_write(&s, "abc", 3), 3); // it stays set
	s.write_results = {3};
	run_pass();
	EXPECT_EQ(flush_calls, 2);
}

TEST_F(stream_flush, is_not_called_back_when_the_backlog_fails)
{
	flush_calls = 0;
	scripted_stream s;
	EXPECT_EQ(stream_write(&s, "abc", 3), 3);
	stream_flush_tx_async(&s, count_flush);
	s.write_results = {1, -1};
	run_passes(4);
	EXPECT_EQ(flush_calls, 0);
	EXPECT_EQ(s.states, 1);
	stream_flush_tx_async(&s, count_flush);
	run_passes(4);
	EXPECT_EQ(flush_calls, 0);
}

TEST_F(stream_flush, after_an_error_with_nothing_queued_calls_back_at_once)
{
	flush_calls = 0;
	scripted_stream s;
	s.write_results = {-1};
	EXPECT_EQ(stream_write(&s, "abc", 3), -1);
	stream_flush_tx_async(&s, count_flush);
	EXPECT_EQ(flush_calls, 1);
	EXPECT_EQ(s.states, 0);
	run_passes(3);
	EXPECT_EQ(s.states, 1);
}

TEST_F(stream_flush, lets_its_callback_release_the_stream_before_it_returns)
{
	socket_pair pair;
	auto *s = new test_stream(pair.near.get());
	EXPECT_EQ(stream_write(s, "bye", 3), 3);
	stream_flush_tx_async(s, [](stream *done) { delete static_cast<test_stream *>(done); });
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_EQ(read_available(pair.far.get()), "bye");
}

TEST_F(stream_flush, lets_its_callback_release_the_stream_later)
{
	flush_calls = 0;
	socket_pair pair;
	auto *s = new test_stream(pair.near.get());
	std::string sent = fill(pair.near.get());
	EXPECT_EQ(stream_write(s, "bye", 3), 3);
	stream_flush_tx_async(s, [](stream *done) {
		++flush_calls;
		delete static_cast<test_stream *>(done);
	});
	std::string got;
	ASSERT_TRUE(run_until([&] {
		got += read_available(pair.far.get());
		return got.size() >= sent.size() + 3;
	}));
	ASSERT_TRUE(run_until([] { return flush_calls == 1; }));
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(stream_flush, lets_its_callback_release_the_stream_when_bytes_and_a_close_arrive_in_the_same_event)
{
	flush_calls = 0;
	auto *s = new scripted_stream;
	EXPECT_EQ(stream_write(s, "bye", 3), 3);
	stream_flush_tx_async(s, [](stream *done) {
		++flush_calls;
		EXPECT_EQ(done->read_timer.pending + done->state_timer.pending, 2);
		delete static_cast<scripted_stream *>(done);
	});
	s->read_results = {500, 0};
	s->write_results = {3};
	s->make_readable();
	run_passes(4);
	EXPECT_EQ(flush_calls, 1);
}

// ---- stream_disable_read ----

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

// ---- stream_cleanup ----

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
