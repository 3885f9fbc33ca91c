// Deferred answers.
#include "tests/httpd/fixture.h"

using namespace http_test;

TEST_F(httpd_deferral, the_connection_waits_for_the_answer)
{
	client far = connect();
	far.send(get("/later") + get("/next"));
	far.send(get("/another"));
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_EQ(deferred->flags, HTTPD_DEFERRED);
	far.drain();
	EXPECT_EQ(far.got, "");
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(requests.size(), 1u); // the next one is parsed from the loop
	far.drain();
	EXPECT_EQ(far.got, "late\nnow:/next\nnow:/another\n");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, the_result_of_the_handler_does_not_count)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 0;
	};
	client far = connect();
	far.send(get("/"));
	far.drain();
	EXPECT_FALSE(far.ended());
	httpd_defer_complete(newest(), 1);
	far.drain();
	EXPECT_FALSE(far.ended());
	EXPECT_EQ(connection_count(), 1);
}

TEST_F(httpd_deferral, completed_without_keep_the_connection_ends_when_the_answer_is_sent)
{
	std::string large = pattern(1'000'000);
	client far = connect();
	far.send(get("/later") + get("/next"));
	write_text(deferred, large);
	httpd_defer_complete(deferred, 0);
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_deferral, completed_with_keep_the_connection_ends_if_the_request_wants_it)
{
	for (const char *bytes : {"GET /later HTTP/1.0\r\n\r\n",
		     "GET /later HTTP/1.1\r\nConnection: close\r\n\r\nGET / HTTP/1.1\r\n\r\n"}) {
		client far = connect();
		far.send(bytes);
		write_text(deferred, "late");
		httpd_defer_complete(deferred, 1);
		far.drain();
		EXPECT_EQ(far.got, "late");
		EXPECT_TRUE(far.ended());
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_deferral, can_be_completed_at_once_or_later_and_before_or_after_writing)
{
	for (bool inside : {false, true})
		for (int keep : {0, 1})
			for (int32_t result : {0, 1})
				for (bool pipelined : {false, true}) {
					requests.clear();
					on_request = [&](httpd_conn *conn) {
						if (requests.size() > 1) {
							write_text(conn, "next");
							return 1;
						}
						write_text(conn, "a");
						httpd_defer(conn);
						write_text(conn, "b");
						deferred = conn;
						if (inside) {
							httpd_defer_complete(conn, keep);
							EXPECT_EQ(conn->arg, 5u); // still valid
						}
						return result;
					};
					client far = connect(SOCK_STREAM, 5);
					far.send(get("/first") + (pipelined ? get("/second") : ""));
					if (!inside)
						httpd_defer_complete(deferred, keep);
					if (!pipelined)
						far.send(get("/second"));
					far.drain();
					std::string name = std::to_string(inside) + std::to_string(keep) +
							   std::to_string(result) + std::to_string(pipelined);
					// With the deferral over before the handler returns, its result counts.
					bool goes_on = keep && (!inside || result);
					EXPECT_EQ(far.got, goes_on ? "abnext" : "ab") << name;
					EXPECT_EQ(far.ended(), !goes_on) << name;
					far.close();
					settle();
					EXPECT_EQ(connection_count(), 0) << name;
				}
}

TEST_F(httpd_deferral, a_second_call_of_either_has_no_effect)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		httpd_defer(conn);
		EXPECT_EQ(conn->flags, HTTPD_DEFERRED);
		return 1;
	};
	client far = connect();
	far.send(get("/"));
	httpd_conn *conn = newest();
	httpd_defer_complete(conn, 1);
	httpd_defer_complete(conn, 0);
	far.drain();
	EXPECT_FALSE(far.ended());
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
}

TEST_F(httpd_deferral, completing_without_one_does_nothing)
{
	client far = connect();
	httpd_defer_complete(newest(), 0);
	httpd_defer_complete(newest(), 1);
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	on_request = [](httpd_conn *conn) {
		httpd_defer_complete(conn, 0);
		write_text(conn, "x");
		return 1;
	};
	far.send(get("/") + get("/"));
	far.drain();
	EXPECT_EQ(far.got, "xx");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, several_in_a_row_on_one_connection)
{
	client far = connect();
	std::string expected;
	far.send(repeated(get("/later"), 20));
	for (int turn = 0; turn < 20; ++turn) {
		ASSERT_EQ(requests.size(), static_cast<size_t>(turn + 1));
		write_text(deferred, std::to_string(turn));
		expected += std::to_string(turn);
		httpd_defer_complete(deferred, 1);
		far.drain();
	}
	EXPECT_EQ(far.got, expected);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, on_several_connections_can_be_completed_in_any_order)
{
	std::vector<client> peers;
	std::vector<httpd_conn *> conns;
	for (int i = 0; i < 6; ++i) {
		peers.push_back(connect());
		peers.back().send(get("/later"));
		conns.push_back(deferred);
	}
	for (size_t i : {3u, 0u, 5u, 1u, 4u, 2u}) {
		write_text(conns[i], "for " + std::to_string(i));
		httpd_defer_complete(conns[i], static_cast<int>(i % 2));
		peers[i].drain();
		EXPECT_EQ(peers[i].got, "for " + std::to_string(i));
		EXPECT_EQ(peers[i].ended(), i % 2 == 0);
	}
}

TEST_F(httpd_deferral, the_request_stays_readable_while_more_arrives_behind_it)
{
	client far = connect();
	on_request = defer;
	std::string head = "POST http://host/path?query=1 HTTP/1.1\r\nA: b\r\nContent-Length: 4\r\n\r\n";
	far.send(head + "body");
	httpd_conn *conn = newest();
	std::string before = describe(request_of(conn));
	const char *old_data = conn->stream.rx->data;
	for (int turn = 0; turn < 50; ++turn) {
		far.send(std::string(1000, 'x'));
		EXPECT_EQ(describe(request_of(conn)), before);
		expect_consistent(conn);
	}
	EXPECT_NE(conn->stream.rx->data, old_data) << "the buffer has not moved: this shows nothing";
	httpd_defer_complete(conn, 0);
	settle();
}

TEST_F(httpd_deferral, requests_received_meanwhile_are_all_answered_afterwards)
{
	client far = connect();
	std::string expected;
	far.send(get("/later"));
	for (int i = 0; i < 1000; ++i) {
		far.send(get("/" + std::to_string(i)));
		expected += "now:/" + std::to_string(i) + "\n";
	}
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, "late\n" + expected);
}

TEST_F(httpd_deferral, a_flood_meanwhile_is_bounded_and_refused_afterwards)
{
	client far = connect();
	far.send(get("/later"));
	std::string flood = repeated(get("/flood"), 500);
	size_t taken = 0;
	for (size_t count = 1; count > 0 && taken < 10'000'000;) {
		count = far.send_some(flood);
		taken += count;
		settle(); // fails the test if the loop spins
		ASSERT_LE(deferred->stream.rx->length, HTTPD_RX_BYTES_MAX);
	}
	EXPECT_LT(taken, 10'000'000u) << "the peer was never stopped";
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	// More than one request may have: as if all had been received.
	EXPECT_EQ(far.got, "late\n" + bad_request_1_0);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, of_the_largest_request_a_flood_behind_it_is_bounded)
{
	client far = connect();
	std::string head = "POST /later HTTP/1.1\r\nContent-Length: 66560\r\nFill: ";
	head += std::string(66560 - head.size() - 4, 'f') + "\r\n\r\n";
	far.send(head);
	std::string body = pattern(66560);
	far.send(body);
	ASSERT_EQ(requests.size(), 1u);
	while (far.send_some(std::string(100'000, 'x')) > 0) {
		settle();
		ASSERT_LE(deferred->stream.rx->length, HTTPD_RX_BYTES_MAX);
	}
	EXPECT_TRUE(request_of(deferred).body == body);
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, bad_request_1_0);
}

TEST_F(httpd_deferral, a_peer_that_goes_meanwhile_leaves_the_record_alive)
{
	client far = connect();
	far.send(get("/later"));
	std::string before = describe(request_of(deferred));
	far.close();
	settle();
	EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
	EXPECT_EQ(connection_count(), 1);
	EXPECT_EQ(describe(request_of(deferred)), before);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_goes_meanwhile_does_not_make_the_loop_spin)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		far.send_some(get("/later"));
		deferred = nullptr;
		ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
		far.close();
		ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
		settle(); // fails the test if the loop spins
		long events = waits.events;
		for (int pass = 0; pass < 100; ++pass)
			support::run_pass();
		EXPECT_EQ(waits.events, events);
		write_text(deferred, std::string(1'000'000, 'x'));
		support::run_passes(100);
		settle();
		events = waits.events;
		for (int pass = 0; pass < 100; ++pass)
			support::run_pass();
		EXPECT_EQ(waits.events, events);
		httpd_defer_complete(deferred, 0);
		settle();
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_deferral, a_reset_meanwhile_does_not_make_the_loop_spin)
{
	client far = connect_tcp();
	far.send_some(get("/later"));
	ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
	far.close_with_reset();
	ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
	settle();
	long events = waits.events;
	for (int pass = 0; pass < 100; ++pass)
		support::run_pass();
	EXPECT_EQ(waits.events, events);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_floods_and_goes_meanwhile_does_not_make_the_loop_spin)
{
	client far = connect();
	far.send(get("/later"));
	while (far.send_some(std::string(100'000, 'x')) > 0)
		settle();
	far.close();
	settle();
	long events = waits.events;
	for (int pass = 0; pass < 100; ++pass)
		support::run_pass();
	EXPECT_EQ(waits.events, events);
	EXPECT_EQ(connection_count(), 1);
	httpd_defer_complete(deferred, 1);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_only_closed_its_sending_side_gets_the_whole_answer)
{
	std::string large = pattern(2'000'000);
	for (bool tcp : {false, true})
		for (int keep : {0, 1})
			for (bool eof_first : {false, true}) {
				client far = tcp ? connect_tcp() : connect();
				deferred = nullptr;
				far.send_some(get("/later"));
				if (eof_first)
					far.close_sending();
				ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
				settle();
				write_text(deferred, large);
				if (!eof_first)
					far.close_sending();
				settle();
				httpd_defer_complete(deferred, keep);
				EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
				EXPECT_TRUE(far.got == large) << tcp << keep << eof_first << far.got.size();
				EXPECT_FALSE(far.was_reset());
				EXPECT_EQ(connection_count(), 0);
			}
}

TEST_F(httpd_deferral, a_half_closed_peer_gets_no_answer_to_what_waits_for_the_deferred_one)
{
	client far = connect();
	far.send_some(get("/now") + get("/later") + get("/behind"));
	far.close_sending();
	settle();
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, "now:/now\nlate\n");
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, a_half_closed_peer_gets_an_answer_written_in_parts)
{
	client far = connect();
	far.send(get("/later"));
	far.close_sending();
	std::string expected;
	for (int i = 0; i < 50; ++i) {
		settle();
		write_text(deferred, pattern(20'000));
		expected += pattern(20'000);
	}
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_TRUE(far.got == expected);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, sixty_seconds_without_input_close_the_descriptor_only)
{
	client far = connect();
	on_request = defer;
	far.send("POST http://host/path?query HTTP/1.1\r\nA: b\r\nContent-Length: 7\r\n\r\nx=%41&y");
	httpd_conn *conn = newest();
	std::string before = describe(request_of(conn));
	int fd = conn->stream.io.fd;
	make_due(&conn->idle_timer);
	settle();
	EXPECT_EQ(conn->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING | HTTPD_FD_CLOSED);
	EXPECT_FALSE(support::is_open(fd));
	far.drain();
	EXPECT_EQ(far.got, "");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 1);

	EXPECT_EQ(describe(request_of(conn)), before); // the request is still there
	char *value = http_req_lookup_param(conn, "x");
	EXPECT_STREQ(value, "A");
	free(value);
	EXPECT_EQ(write_text(conn, "too late"), -EINVAL);
	EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
	EXPECT_EQ(buffer_length(conn->res_body), 62);
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_descriptor_that_was_closed_is_not_closed_again)
{
	client far = connect();
	far.send(get("/later"));
	int fd = deferred->stream.io.fd;
	make_due(&deferred->idle_timer);
	settle();
	ASSERT_FALSE(support::is_open(fd));
	support::owned_fd reused(dup(far.fd()));
	if (reused.get() != fd) {
		ASSERT_EQ(dup2(far.fd(), fd), fd);
		reused.reset(fd);
	}
	httpd_defer_complete(deferred, 0);
	EXPECT_EQ(connection_count(), 0);
	EXPECT_TRUE(support::is_open(fd));
}

TEST_F(httpd_deferral, a_handler_that_stops_the_reading_of_a_peer_that_has_gone_does_not_make_the_loop_spin)
{
	client far = connect();
	far.send(get("/later"));
	far.close();
	settle();
	write_text(deferred, "finds out");
	settle();
	stream_disable_read(&deferred->stream);
	settle(); // fails the test if the loop spins
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_half_closed_peer_that_goes_when_it_has_read_all_does_not_make_the_loop_spin)
{
	std::string large = pattern(1'000'000);
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		deferred = nullptr;
		far.send_some(get("/later"));
		ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
		write_text(deferred, large);
		far.close_sending();
		ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
		ASSERT_TRUE(poll_until([&] { return far.receive(), far.got.size() == large.size(); }));
		settle();
		far.close();
		settle(); // fails the test if the loop spins
		long events = waits.events;
		support::run_passes(100);
		EXPECT_EQ(waits.events, events);
		EXPECT_TRUE(far.got == large);
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_deferral, can_be_completed_by_the_handler_of_another_connection)
{
	for (int keep : {0, 1}) {
		client first = connect(), second = connect();
		first.send(get("/later") + get("/next"));
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "a");
			if (deferred) {
				write_text(deferred, "late");
				httpd_defer_complete(std::exchange(deferred, nullptr), keep);
			}
			write_text(conn, "b");
			return 1;
		};
		second.send(get("/") + get("/"));
		second.drain();
		first.drain();
		EXPECT_EQ(second.got, "abab");
		EXPECT_EQ(first.got, keep ? "lateab" : "late");
		EXPECT_EQ(first.ended(), !keep);
		defer_later();
	}
}

TEST_F(httpd_deferral, the_idle_time_out_comes_also_after_the_peer_has_gone)
{
	client far = connect();
	far.send(get("/later"));
	far.close();
	settle();
	if (deferred->idle_timer.pending)
		make_due(&deferred->idle_timer);
	settle();
	EXPECT_TRUE(deferred->flags & HTTPD_CLOSE_PENDING);
	EXPECT_EQ(connection_count(), 1);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, an_answer_to_the_deferred_request_may_be_larger_than_what_the_peer_takes)
{
	std::string large = pattern(2'000'000);
	client far = connect();
	far.send(get("/later") + get("/next"));
	write_text(deferred, large);
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_TRUE(far.got == large + "now:/next\n");
	EXPECT_FALSE(far.ended());
}
