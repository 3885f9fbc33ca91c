// What a stream sends: at once, from its buffer, formatted, and flushed from the loop.
#include "tests/stream/streams.h"

#include <signal.h>
#include <stdio.h>

#include <set>

#include "lib/time.h"

using namespace stream_tests;
using namespace support;

namespace
{

void ignore_sigpipe()
{
	signal(SIGPIPE, SIG_IGN);
}

} // namespace

// ---- writing ----

using stream_writing = loop_test;

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
	EXPECT_EQ(stream_write(&s, nullptr, 5), 0); // after a backlog, too
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

using stream_printf_test = loop_test;

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

using stream_flush = loop_test;

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
