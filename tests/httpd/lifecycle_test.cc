// Connections: kept, closed, timed, ended by either side and drained.
#include "tests/httpd/fixture.h"

#include <signal.h>

#include <gmock/gmock.h>

using namespace http_test;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- Keeping and closing connections ----

using httpd_keep_alive = server_test;

TEST_F(httpd_keep_alive, an_http_1_1_connection_stays_open_for_the_next_request)
{
	client far = connect();
	for (int turn = 1; turn <= 5; ++turn) {
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_EQ(requests.size(), static_cast<size_t>(turn));
		EXPECT_FALSE(far.ended());
	}
}

TEST_F(httpd_keep_alive, connection_close_ends_it_after_the_answer)
{
	client far = connect();
	far.send("GET / HTTP/1.1\r\nConnection: close\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_EQ(far.got, describe(requests[0]));
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_keep_alive, other_values_of_connection_do_not)
{
	for (const char *value : {"Close", "CLOSE", "keep-alive", "close, TE", "closed", "clos"}) {
		client far = connect();
		far.send("GET / HTTP/1.1\r\nConnection: "s + value + "\r\n\r\n");
		far.drain();
		EXPECT_FALSE(far.ended()) << value;
	}
	settle();
}

TEST_F(httpd_keep_alive, a_connection_header_without_a_value_is_refused)
{
	EXPECT_EQ(ask(with_headers("Connection:\r\n")), bad_request_1_1);
	EXPECT_EQ(ask(with_headers("Connection: \r\n")), bad_request_1_1);
}

TEST_F(httpd_keep_alive, close_stays_requested_whatever_a_second_connection_header_says)
{
	EXPECT_TRUE(only_request(with_headers("Connection: close\r\nConnection: keep-alive\r\n")).close);
}

TEST_F(httpd_keep_alive, an_http_1_0_connection_is_always_closed)
{
	client far = connect();
	far.send("GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_keep_alive, pipelined_requests_are_answered_in_order)
{
	client far = connect();
	std::string bytes, expected;
	for (int i = 0; i < 200; ++i)
		bytes += "POST /" + std::to_string(i) + " HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
	far.send(bytes);
	far.drain();
	ASSERT_EQ(requests.size(), 200u);
	for (size_t i = 0; i < requests.size(); ++i) {
		EXPECT_EQ(requests[i].target, "/" + std::to_string(i));
		expected += describe(requests[i]);
	}
	EXPECT_EQ(far.got, expected);
}

TEST_F(httpd_keep_alive, two_requests_sent_at_once_are_answered_from_one_read)
{
	client far = connect();
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	evloop_handle_ios(0);
	EXPECT_THAT(requests, IsEmpty()); // never from inside the dispatch of the descriptor
	evloop_handle_timeouts();
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_keep_alive, every_field_of_a_request_is_cleared_after_it)
{
	client far = connect(SOCK_STREAM, 77);
	far.send("POST http://h/p?q HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nab");
	ASSERT_EQ(requests.size(), 1u);
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->version, 0);
	EXPECT_EQ(conn->method, 0);
	EXPECT_EQ(conn->target, nullptr);
	EXPECT_EQ(conn->target_len, 0);
	EXPECT_EQ(conn->host, nullptr);
	EXPECT_EQ(conn->host_len, 0);
	EXPECT_EQ(conn->path, nullptr);
	EXPECT_EQ(conn->path_len, 0);
	EXPECT_EQ(conn->query, nullptr);
	EXPECT_EQ(conn->query_len, 0);
	EXPECT_EQ(conn->head_start, nullptr);
	EXPECT_EQ(conn->head_end, nullptr);
	EXPECT_EQ(conn->head_len, 0);
	EXPECT_EQ(conn->body, nullptr);
	EXPECT_EQ(conn->body_len, 0);
	EXPECT_EQ(conn->decoded_path, nullptr);
	EXPECT_EQ(conn->content_length, 0u);
	EXPECT_EQ(conn->close_requested, 0);
	EXPECT_EQ(conn->flags, 0);
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
	EXPECT_EQ(htable_size(conn->headers), 0);
	EXPECT_EQ(conn->stream.rx->length, 0);
	EXPECT_EQ(conn->arg, 77u);
}

TEST_F(httpd_keep_alive, nothing_of_a_request_reaches_the_next)
{
	client far = connect();
	far.send(
		"POST http://host/p?q HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nabGET / HTTP/1.1\r\n\r\n");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(describe(requests[1]),
		"{0 1.1 target=</> host=none path=</> query=none decoded=</> close=0 body=<>}\n");
}

TEST_F(httpd_keep_alive, a_response_composed_but_not_reset_is_still_there_for_the_next_request)
{
	client far = connect();
	std::vector<int32_t> lengths;
	on_request = [&](httpd_conn *conn) {
		lengths.push_back(buffer_length(conn->res_head));
		buffer_write(conn->res_head, "x", 1);
		return 1;
	};
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	EXPECT_THAT(lengths, ElementsAre(0, 1));
}

TEST_F(httpd_keep_alive, a_result_of_0_closes_after_the_answer)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "bye");
		return 0;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "bye");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_keep_alive, any_other_result_goes_on)
{
	for (int32_t result : {1, 2, -1, -12, INT32_MIN, INT32_MAX}) {
		on_request = [=](httpd_conn *) { return result; };
		client far = connect();
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_FALSE(far.ended()) << result;
	}
	settle();
}

TEST_F(httpd_keep_alive, without_a_handler_a_request_closes_the_connection_unanswered)
{
	ctx.handler = nullptr;
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_keep_alive, without_a_handler_a_malformed_request_is_still_refused)
{
	ctx.handler = nullptr;
	EXPECT_EQ(ask("GET / HTTP/9.9\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_keep_alive, the_state_tells_what_a_connection_waits_for)
{
	client far = connect();
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	far.send("\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	far.send("POST / HTTP/1.1\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_REQUEST_LINE);
	far.send("Content-Length: 1\r\n\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_BODY);
	on_request = defer;
	far.send("x");
	EXPECT_EQ(newest()->state, HTTPD_STATE_DISPATCH);
	httpd_conn *conn = newest();
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(conn->state, HTTPD_STATE_DONE);
	settle();
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
}

// ---- Connections: made, timed, ended ----

using httpd_connection = server_test;

TEST_F(httpd_connection, a_server_starts_without_any)
{
	EXPECT_EQ(ctx.handler, call_on_request);
	EXPECT_EQ(ctx.connections.next, &ctx.connections);
	EXPECT_EQ(ctx.connections.prev, &ctx.connections);
}

TEST_F(httpd_connection, starts_with_these_fields)
{
	int64_t before = time_now();
	client far = connect(SOCK_STREAM, 0xfedcba98);
	int64_t after = time_now();
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->ctx, &ctx);
	EXPECT_EQ(conn->arg, 0xfedcba98u);
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
	EXPECT_EQ(conn->flags, 0);
	EXPECT_NE(conn->headers, nullptr);
	EXPECT_EQ(buffer_length(conn->res_head), 0);
	EXPECT_EQ(conn->res_head->size, 512);
	EXPECT_EQ(conn->res_body->size, 512);
	EXPECT_TRUE(support::is_nonblocking(conn->stream.io.fd));
	EXPECT_EQ(conn->idle_timer.pending, 1);
	EXPECT_GE(conn->idle_timer.expires, before + 60'000'000);
	EXPECT_LE(conn->idle_timer.expires, after + 61'000'000);
}

TEST_F(httpd_connection, the_table_of_headers_hashes_names_from_zero)
{
	client far = connect();
	htable *headers = newest()->headers;
	EXPECT_EQ(headers->hash_fn("Host"), fnv_32_str("Host", 0));
	EXPECT_NE(headers->equal_fn("Host", "Host"), 0);
	EXPECT_EQ(headers->equal_fn("Host", "host"), 0);
}

TEST_F(httpd_connection, new_ones_come_first_in_the_list)
{
	client first = connect(SOCK_STREAM, 1), second = connect(SOCK_STREAM, 2),
	       third = connect(SOCK_STREAM, 3);
	std::vector<uint32_t> order, reverse;
	for (httpd_link *link = ctx.connections.next; link != &ctx.connections; link = link->next)
		order.push_back(conn_of(link)->arg);
	for (httpd_link *link = ctx.connections.prev; link != &ctx.connections; link = link->prev)
		reverse.push_back(conn_of(link)->arg);
	EXPECT_THAT(order, ElementsAre(3, 2, 1));
	EXPECT_THAT(reverse, ElementsAre(1, 2, 3));
}

TEST_F(httpd_connection, over_tcp_sends_without_delay)
{
	client far = connect_tcp();
	int value = 0;
	socklen_t length = sizeof(value);
	ASSERT_EQ(getsockopt(newest()->stream.io.fd, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
	EXPECT_NE(value, 0);
}

TEST_F(httpd_connection, its_arg_lasts_and_may_be_changed)
{
	std::vector<uint32_t> seen;
	on_request = [&](httpd_conn *conn) {
		seen.push_back(conn->arg++);
		return 1;
	};
	client far = connect(SOCK_STREAM, 5);
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_THAT(seen, ElementsAre(5, 6, 7));
}

TEST_F(httpd_connection, without_input_it_ends_after_60_seconds)
{
	client far = connect();
	make_due(&newest()->idle_timer);
	far.drain();
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(far.got, "");
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, ends_after_60_seconds_in_the_middle_of_a_request)
{
	for (const char *part : {"GET / HT", "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhel"}) {
		client far = connect();
		far.send(part);
		make_due(&newest()->idle_timer);
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(far.got, "");
	}
}

TEST_F(httpd_connection, every_byte_gives_it_another_60_seconds)
{
	client far = connect();
	httpd_conn *conn = newest();
	std::string bytes = "\r\nPOST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nab";
	for (char c : bytes) {
		evloop_timeout_cancel(&conn->idle_timer);
		evloop_timeout_set(&conn->idle_timer, 10'000); // 50 seconds have passed
		int64_t before = time_now();
		far.send(std::string(1, c));
		ASSERT_GE(conn->idle_timer.expires, before + 60'000'000);
		ASSERT_LE(conn->idle_timer.expires, time_now() + 61'000'000);
	}
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_connection, every_byte_gives_it_another_60_seconds_while_deferred)
{
	on_request = defer;
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	httpd_conn *conn = newest();
	evloop_timeout_cancel(&conn->idle_timer);
	evloop_timeout_set(&conn->idle_timer, 10'000);
	int64_t before = time_now();
	far.send("x");
	EXPECT_GE(conn->idle_timer.expires, before + 60'000'000);
	httpd_defer_complete(conn, 0);
	settle();
}

TEST_F(httpd_connection, ends_at_end_of_file)
{
	for (const char *part : {"", "\r\n", "GET / HT", "GET / HTTP/1.1\r\n\r\n"}) {
		client far = connect();
		far.send(part);
		far.close_sending();
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
	}
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_connection, a_request_that_comes_with_end_of_file_is_answered)
{
	client far = connect();
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.close_sending();
	far.drain();
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(far.got, describe(requests[0]) + describe(requests[1]));
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_connection, a_peer_that_has_gone_before_its_answer_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (int requests_sent : {1, 2, 50}) {
		client far = connect();
		far.send_some(repeated("GET / HTTP/1.1\r\n\r\n", static_cast<size_t>(requests_sent)));
		far.close();
		settle();
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_connection, a_reset_peer_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (bool with_request : {false, true}) {
		client far = connect_tcp();
		if (with_request)
			far.send_some("GET / HTTP/1.1\r\n\r\n");
		far.close_with_reset();
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
}

TEST_F(httpd_connection, a_reset_while_a_large_answer_is_sent_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (int32_t result : {0, 1}) {
		on_request = [=](httpd_conn *conn) {
			write_text(conn, std::string(20'000'000, 'x'));
			return result;
		};
		client far = connect_tcp();
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return far.receive(1000) > 0; }));
		EXPECT_EQ(connection_count(), 1);
		far.close_with_reset();
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
}

TEST_F(httpd_connection, writing_to_a_peer_that_has_gone_raises_no_signal)
{
	signal(SIGPIPE, SIG_DFL);
	on_request = defer;
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	httpd_conn *conn = newest();
	far.close_with_reset();
	EXPECT_TRUE(poll_until([&] { return (conn->flags & HTTPD_CLOSE_PENDING) != 0; }));
	for (int turn = 0; turn < 3; ++turn) {
		write_text(conn, "still here?");
		stream_printf(&conn->stream, "%s", "and now?");
		settle();
	}
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, a_slow_reader_gets_the_whole_answer_before_the_connection_is_closed)
{
	std::string large = pattern(3'000'000);
	on_request = [&](httpd_conn *conn) {
		EXPECT_EQ(write_text(conn, large), 3'000'000);
		return 0;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	while (!far.ended()) {
		size_t before = far.got.size();
		far.receive(10'000);
		settle();
		ASSERT_TRUE(far.ended() || far.got.size() > before);
	}
	EXPECT_TRUE(far.got == large);
	EXPECT_FALSE(far.was_reset());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, a_slow_reader_over_tcp_gets_the_whole_answer)
{
	std::string large = pattern(9'000'000);
	for (const char *version : {"1.0", "1.1"}) {
		on_request = [&](httpd_conn *conn) { return write_text(conn, large), 1; };
		client far = connect_tcp();
		far.send_some("GET / HTTP/"s + version + "\r\nConnection: close\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return far.receive(50'000), far.ended(); }));
		EXPECT_TRUE(far.got == large);
		EXPECT_FALSE(far.was_reset());
	}
}

TEST_F(httpd_connection, a_peer_that_closed_its_sending_side_gets_the_whole_answer)
{
	std::string large = pattern(2'000'000);
	for (int32_t result : {0, 1})
		for (bool at_once : {false, true}) {
			on_request = [&](httpd_conn *conn) {
				write_text(conn, large);
				return result;
			};
			client far = connect();
			far.send_some("GET / HTTP/1.1\r\n\r\n");
			if (!at_once)
				settle();
			far.close_sending();
			far.drain();
			EXPECT_TRUE(far.got == large) << far.got.size();
			EXPECT_TRUE(far.ended());
			EXPECT_FALSE(far.was_reset());
			EXPECT_EQ(connection_count(), 0);
		}
}

TEST_F(httpd_connection, a_half_closed_peer_over_tcp_gets_the_whole_answer)
{
	std::string large = pattern(9'000'000);
	on_request = [&](httpd_conn *conn) { return write_text(conn, large), 1; };
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	far.close_sending();
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_TRUE(far.got == large);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, the_idle_time_out_does_not_cut_off_an_answer_that_is_being_sent)
{
	std::string large = pattern(2'000'000);
	on_request = [&](httpd_conn *conn) { return write_text(conn, large), 1; };
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	make_due(&newest()->idle_timer);
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_connection, a_refused_peer_gets_the_answer_although_it_is_still_sending)
{
	for (const std::string &start : {"GET / HTTP/9.9\r\n\r\n"s, with_length(" 66561")}) {
		client far = connect_tcp();
		std::string bytes = start + std::string(60'000, 'x');
		far.send_some(bytes);
		EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
		EXPECT_EQ(far.got.substr(8), bad_request_1_0.substr(8));
	}
}

TEST_F(httpd_connection, a_refused_peer_is_not_reset_for_what_came_meanwhile)
{
	client far = connect_tcp();
	far.send_some("GET / HTTP/9.9\r\n\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some("and more");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_EQ(far.got, bad_request_1_0);
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, a_peer_that_sent_more_than_its_last_request_is_not_reset)
{
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.0\r\n\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some("\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, a_peer_over_a_unix_socket_that_sent_more_than_its_last_request_is_not_reset)
{
	client far = connect();
	far.send_some("GET / HTTP/1.0\r\n\r\n");
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some(std::string(50'000, 'x'));
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.ended());
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, after_a_large_answer_an_idle_one_keeps_only_a_small_buffer)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, std::string(1'000'000, 'x')); };
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	ASSERT_EQ(far.got.size(), 1'000'000u);
	on_request = [](httpd_conn *) { return 1; };
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_LE(newest()->stream.tx->size, 4096);
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests.size(), 3u);
}

TEST_F(httpd_connection, after_a_large_request_an_idle_one_keeps_only_a_small_buffer)
{
	client far = connect();
	far.send(with_length(" 66560"));
	far.send(std::string(66560, 'b'));
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_LE(newest()->stream.rx->size, 4096);
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_connection, a_handler_may_stop_the_reading_for_good)
{
	on_request = [](httpd_conn *conn) {
		stream_disable_read(&conn->stream);
		return answer_with_description(conn);
	};
	client far = connect();
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 2));
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 2u); // what had been received, and nothing more
	EXPECT_TRUE(newest()->stream.state & STREAM_READ_DISABLED);
	EXPECT_FALSE(far.ended());
}

// A connection that is being ended gracefully, with an answer that its peer has not taken yet.
class httpd_draining : public server_test
{
protected:
	std::string large = pattern(2'000'000);

	void SetUp() override
	{
		server_test::SetUp();
		on_request = [this](httpd_conn *conn) {
			write_text(conn, large);
			return 0;
		};
	}
	client start(client far, const std::string &more = "")
	{
		far.send("GET / HTTP/1.1\r\n\r\n" + more);
		EXPECT_EQ(requests.size(), 1u);
		EXPECT_EQ(connection_count(), 1);
		return far;
	}
};

TEST_F(httpd_draining, requests_that_came_with_the_last_one_are_not_handled)
{
	client far = start(connect(), repeated("GET /late HTTP/1.1\r\n\r\n", 10));
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, requests_that_come_late_are_not_handled)
{
	client far = start(connect());
	far.send_some(repeated("GET /late HTTP/1.1\r\n\r\n", 10));
	settle();
	far.receive(100'000);
	far.send_some("GET /later HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, a_read_that_was_announced_before_it_began_is_not_handled)
{
	client far = connect();
	on_request = [this](httpd_conn *conn) {
		write_text(conn, large);
		stream_notify_read(&conn->stream);
		return 0;
	};
	far.send("GET / HTTP/1.1\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.got == large);
}

TEST_F(httpd_draining, after_a_refused_request_nothing_is_handled)
{
	on_request = [this](httpd_conn *conn) { return write_text(conn, large), 1; };
	client far = start(connect(), "GET / HTTP/9.9\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
	far.send_some("GET /late HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.got == large + bad_request_1_0);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_draining, a_peer_that_closes_its_sending_side_gets_the_rest)
{
	client far = start(connect());
	far.close_sending();
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_draining, a_peer_that_goes_ends_it_at_once)
{
	client far = start(connect());
	far.receive(1000);
	far.close();
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_draining, a_reset_ends_it_at_once)
{
	large = pattern(20'000'000);
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	settle();
	ASSERT_EQ(connection_count(), 1);
	far.close_with_reset();
	EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
}

TEST_F(httpd_draining, over_tcp_a_slow_peer_gets_the_rest_although_it_sent_more)
{
	large = pattern(20'000'000);
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	settle();
	ASSERT_EQ(connection_count(), 1);
	far.send_some("\r\n"); // as some peers do after a body
	EXPECT_TRUE(poll_until([&] { return far.receive(100'000), far.ended(); }));
	EXPECT_TRUE(far.got == large) << far.got.size();
}

TEST_F(httpd_draining, without_progress_for_60_seconds_it_ends)
{
	client far = start(connect());
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->idle_timer.pending, 1);
	EXPECT_LE(conn->idle_timer.expires, time_now() + 61'000'000);
	make_due(&conn->idle_timer);
	settle();
	EXPECT_EQ(connection_count(), 0);
	far.drain();
	EXPECT_TRUE(far.ended());
	EXPECT_LT(far.got.size(), large.size());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, without_progress_it_ends_after_connection_close_as_well)
{
	on_request = [this](httpd_conn *conn) { return write_text(conn, large), 1; };
	client far = connect();
	far.send("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
	ASSERT_EQ(connection_count(), 1);
	make_due(&newest()->idle_timer);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_draining, progress_gives_it_another_60_seconds)
{
	client far = start(connect());
	httpd_conn *conn = newest();
	for (int turn = 0; turn < 5; ++turn) {
		evloop_timeout_set(&conn->idle_timer, 1'000); // 59 seconds have passed
		ASSERT_GT(far.receive(300'000), 0u);
		settle();
		ASSERT_EQ(connection_count(), 1);
		if (conn->idle_timer.expires <
			time_now() + 30'000'000) { // progress may be looked at when it is due
			make_due(&conn->idle_timer);
			settle();
			ASSERT_EQ(connection_count(), 1);
			ASSERT_GE(conn->idle_timer.expires, time_now() + 30'000'000);
		}
	}
	far.drain();
	EXPECT_TRUE(far.got == large);
}

TEST_F(httpd_draining, a_server_that_is_cleaned_up_ends_it)
{
	client far = start(connect());
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	far.drain();
	EXPECT_TRUE(far.ended());
}
