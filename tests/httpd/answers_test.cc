// What a handler's writes become, and the responses and error pages that the library makes.
#include "tests/httpd/fixture.h"

#include <limits.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <set>

#include <gmock/gmock.h>

using namespace http_test;
using testing::ElementsAre;
using testing::StartsWith;

// ---- What the handler's writes become ----

using httpd_writes = server_test;

TEST_F(httpd_writes, reach_the_peer_while_the_handler_still_runs)
{
	client far = connect(SOCK_SEQPACKET);
	on_request = [&](httpd_conn *conn) {
		for (const char *part :
			{"HTTP/1.1 200 OK\r\n", "Content-Length: 4\r\n", "\r\n", "bo", "dy"}) {
			far.pieces.clear();
			EXPECT_EQ(write_text(conn, part), static_cast<int32_t>(strlen(part)));
			far.receive();
			EXPECT_THAT(far.pieces, ElementsAre(part));
		}
		return 1;
	};
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(far.got, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody");
}

TEST_F(httpd_writes, reach_the_peer_at_once_although_line_ends_or_a_part_of_a_request_wait)
{
	for (const char *more : {"\r\n", "\n\n\r\n\r\n\r\n", "GET /late HTTP/1.1\r\nHost: x\r\n"}) {
		client far = connect();
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "at once");
			far.receive();
			EXPECT_EQ(far.got, "at once");
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n"s + more);
		far.drain();
	}
	EXPECT_EQ(requests.size(), 3u);
}

// What serves one request in a process of its own, which its handler ends.
static support::child_result serve_in_child(httpd_ctx *ctx, support::socket_pair *pair)
{
	return support::run_child([=] {
		httpd_accept(pair->near.give(), 0, ctx);
		settle();
		ADD_FAILURE() << "the handler has returned";
	});
}

TEST_F(httpd_writes, are_delivered_by_a_handler_that_ends_the_process)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		write_text(conn, "head ");
		write_text(conn, "body");
		_exit(7);
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /reboot HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), "head body");
}

TEST_F(httpd_writes, are_delivered_by_a_handler_that_becomes_another_program)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		httpd_fail(conn, 1, 404);
		execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
		_exit(1);
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /upgrade HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), error_answer(1, 404));
}

TEST_F(httpd_writes, of_a_whole_run_are_delivered_by_a_last_handler_that_ends_the_process)
{
	for (bool writes : {true, false}) {
		on_request = [=](httpd_conn *conn) -> int32_t {
			std::string target = request_of(conn).target;
			if (target != "/last" || writes)
				write_text(conn, target);
			if (target == "/last")
				_exit(7);
			return 1;
		};
		support::socket_pair pair;
		ASSERT_TRUE(
			support::write_all(pair.far.get(), "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n"
							   "GET /last HTTP/1.1\r\n\r\n"));
		EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
		EXPECT_EQ(support::read_available(pair.far.get()), writes ? "/1/2/last" : "/1/2");
	}
}

TEST_F(httpd_writes, of_a_post_are_delivered_whatever_waits_behind_it)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		write_text(conn, request_of(conn).target);
		if (conn->method == HTTPD_METHOD_POST)
			_exit(7);
		return 1;
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /1 HTTP/1.1\r\n\r\nPOST /reboot HTTP/1.1\r\n\r\n"
						       "GET /late HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), "/1/reboot");
}

TEST_F(httpd_writes, come_before_those_of_a_child_that_is_handed_the_descriptor)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "head ");
		pid_t pid = fork();
		if (pid == 0)
			_exit(write(conn->stream.io.fd, "body ", 5) == 5 ? 0 : 1);
		EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
		write_text(conn, "tail");
		return 1;
	};
	EXPECT_EQ(ask("GET / HTTP/1.1\r\n\r\n"), "head body tail");
}

TEST_F(httpd_writes, fail_at_once_when_the_peer_has_gone)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		on_request = [&](httpd_conn *conn) {
			far.close_with_reset();
			EXPECT_EQ(write_text(conn, "lost"), -1);
			EXPECT_EQ(write_text(conn, "dropped"), 0);
			EXPECT_EQ(conn->stream.state, STREAM_ERROR);
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_writes, of_a_run_of_requests_leave_in_two_sends)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, "answer\n"); };
	client far = connect(SOCK_SEQPACKET);
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 16));
	far.drain();
	EXPECT_THAT(far.pieces, ElementsAre(repeated("answer\n", 15), "answer\n"));
}

TEST_F(httpd_writes, of_a_run_of_requests_with_blank_lines_between_leave_in_two_sends)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, "answer\n"); };
	client far = connect(SOCK_SEQPACKET);
	far.send(repeated("\r\n\nGET / HTTP/1.1\r\n\r\n\r\n", 16));
	far.drain();
	EXPECT_THAT(far.pieces, ElementsAre(repeated("answer\n", 15), "answer\n"));
}

TEST_F(httpd_writes, of_the_last_request_go_out_at_once_whatever_waits_behind_it)
{
	for (const char *line : {"HTTP/1.1\r\nConnection: close", "HTTP/1.0"}) {
		client far = connect();
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "at once");
			far.receive();
			EXPECT_EQ(far.got, "at once");
			return 1;
		};
		far.send_some("GET / "s + line + "\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
		far.drain();
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_writes, of_former_requests_are_out_when_the_last_is_handled)
{
	client far = connect();
	on_request = [&](httpd_conn *conn) {
		std::string target = request_of(conn).target;
		if (target == "/2") {
			far.receive();
			EXPECT_EQ(far.got, "/1");
		}
		write_text(conn, target);
		return 1;
	};
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "/1/2");
}

TEST_F(httpd_writes, of_a_handler_that_defers_are_out_from_then_on)
{
	client far = connect();
	on_request = [&](httpd_conn *conn) {
		write_text(conn, "1");
		httpd_defer(conn);
		far.receive();
		EXPECT_EQ(far.got, "1");
		write_text(conn, "2");
		far.receive();
		EXPECT_EQ(far.got, "12");
		httpd_defer_complete(conn, 0);
		return 0;
	};
	far.send_some("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
}

// The kernel, asked to wait for more, would send them by itself a fifth of a second later.
TEST_F(httpd_writes, over_tcp_do_not_wait_for_a_last_answer_that_is_deferred)
{
	skip_if_emulated("the emulator does not know SIOCOUTQNSD");
	on_request = [](httpd_conn *conn) {
		if (requests.size() == 1)
			return write_text(conn, "first");
		httpd_defer(conn);
		return 1;
	};
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 2; }));
	int unsent = -1;
	EXPECT_EQ(ioctl(newest()->stream.io.fd, SIOCOUTQNSD, &unsent), 0);
	EXPECT_EQ(unsent, 0);
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.got == "first"; }));
	httpd_defer_complete(newest(), 0);
	settle();
}

TEST_F(httpd_writes, an_error_page_of_a_handler_leaves_in_one_send)
{
	on_request = [](httpd_conn *conn) { return httpd_fail(conn, 1, 404); };
	client far = connect(SOCK_SEQPACKET);
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_THAT(far.pieces, ElementsAre(error_answer(1, 404)));
}

TEST_F(httpd_writes, an_error_page_leaves_in_one_send)
{
	client far = connect(SOCK_SEQPACKET);
	far.send("GET / HTTP/1.2\r\n\r\n");
	far.drain();
	EXPECT_THAT(far.pieces, ElementsAre(bad_request_1_0));
}

TEST_F(httpd_writes, former_answers_leave_although_a_later_one_is_deferred)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, request_of(conn).target);
		if (requests.size() == 2)
			httpd_defer(conn);
		return 1;
	};
	client far = connect();
	far.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "/1/2");
	httpd_defer_complete(newest(), 1);
	settle();
}

TEST_F(httpd_writes, many_small_ones_leave_in_order)
{
	std::string expected;
	on_request = [&](httpd_conn *conn) {
		for (int i = 0; i < 20000; ++i) {
			std::string text = std::to_string(i) + ",";
			EXPECT_EQ(write_text(conn, text), static_cast<int32_t>(text.size()));
			expected += text;
		}
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_TRUE(far.got == expected);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_writes, small_and_large_ones_leave_in_order)
{
	std::string expected;
	on_request = [&](httpd_conn *conn) {
		for (size_t length :
			{1u, 100u, 16383u, 16384u, 16385u, 2u, 300'000u, 3u, 0u, 8192u, 8192u, 1u}) {
			std::string text = pattern(length);
			EXPECT_EQ(write_text(conn, text), static_cast<int32_t>(length));
			expected += text;
		}
		EXPECT_EQ(stream_printf(&conn->stream, "%s-%d\n", "formatted", 7), 12);
		expected += "formatted-7\n";
		return 1;
	};
	client far = connect();
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 3));
	far.drain();
	EXPECT_EQ(requests.size(), 3u);
	EXPECT_TRUE(far.got == expected);
}

TEST_F(httpd_writes, that_are_gathered_are_out_when_they_have_been_flushed)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "1");
		static bool flushed;
		flushed = false;
		stream_flush_tx_async(&conn->stream, [](struct stream *) { flushed = true; });
		EXPECT_TRUE(flushed);
		EXPECT_EQ(write(conn->stream.io.fd, "2", 1), 1);
		write_text(conn, "3");
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "123123");
}

TEST_F(httpd_writes, of_several_connections_do_not_mix)
{
	client first = connect(), second = connect();
	httpd_conn *other = conn_of(newest()->node.next);
	on_request = [&](httpd_conn *conn) { // of the second connection, and it writes to both
		write_text(conn, "a");
		write_text(other, "b");
		write_text(conn, "c");
		write_text(other, "d");
		return 1;
	};
	second.send("GET / HTTP/1.1\r\n\r\n");
	second.drain();
	first.drain();
	EXPECT_EQ(second.got, "ac");
	EXPECT_EQ(first.got, "bd");
}

// ---- Responses and error pages ----

class httpd_response : public server_test
{
protected:
	// Runs `body` as a handler, once.
	std::string answer(const std::function<int32_t(httpd_conn *)> &body, bool keep = true)
	{
		on_request = body;
		client far = connect();
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_EQ(far.ended(), !keep);
		far.close();
		settle();
		return far.got;
	}
};

TEST(http_code_to_string, gives_the_reason_of_seven_codes_and_nothing_for_others)
{
	EXPECT_STREQ(http_code_to_string(200), "OK");
	EXPECT_STREQ(http_code_to_string(400), "Bad Request");
	EXPECT_STREQ(http_code_to_string(404), "Not found");
	EXPECT_STREQ(http_code_to_string(405), "Method Not Allowed");
	EXPECT_STREQ(http_code_to_string(406), "Not Acceptable");
	EXPECT_STREQ(http_code_to_string(417), "Expectation Failed");
	EXPECT_STREQ(http_code_to_string(501), "Not Implemented");
	const std::set<int> known = {200, 400, 404, 405, 406, 417, 501};
	for (int code = -10; code < 1100; ++code)
		EXPECT_EQ(http_code_to_string(code)[0] == '\0', known.count(code) == 0) << code;
	EXPECT_STREQ(http_code_to_string(INT_MIN), "");
	EXPECT_STREQ(http_code_to_string(INT_MAX), "");
}

struct owned_buffer {
	buffer *const b;
	explicit owned_buffer(int32_t size = 512) : b(buffer_new_with_size(size)) {}
	owned_buffer(const owned_buffer &) = delete;
	owned_buffer &operator=(const owned_buffer &) = delete;
	~owned_buffer() { buffer_free(b); }
	std::string text() const { return std::string(b->data, static_cast<size_t>(b->length)); }
};

TEST(http_res_put_status_line, appends_version_code_and_reason)
{
	owned_buffer head;
	EXPECT_EQ(http_res_put_status_line(head.b, 1, 200, "OK"), 0);
	EXPECT_EQ(http_res_put_status_line(head.b, 0, 404, "Not found"), 0);
	EXPECT_EQ(http_res_put_status_line(head.b, 5, 302, ""), 0);
	EXPECT_EQ(head.text(), "HTTP/1.1 200 OK\r\nHTTP/1.0 404 Not found\r\nHTTP/1.1 302 \r\n");
}

TEST(http_res_put_status_line, fails_as_buffer_printf_does_when_the_buffer_has_no_room)
{
	owned_buffer exact(18), small(17), tiny(4); // "HTTP/1.1 200 OK\r\n" has 17 bytes
	EXPECT_EQ(http_res_put_status_line(exact.b, 1, 200, "OK"), 0);
	EXPECT_EQ(http_res_put_status_line(small.b, 1, 200, "OK"), -ENOMEM);
	EXPECT_EQ(small.text(), "");
	EXPECT_EQ(http_res_put_status_line(tiny.b, 1, 200, "OK"), -ENOMEM);
	EXPECT_EQ(tiny.text(), "");
	EXPECT_EQ(http_res_put_status_line(nullptr, 1, 200, "OK"), -1);
}

TEST(http_res_put_header, writes_a_formatted_value_on_one_line)
{
	owned_buffer head;
	EXPECT_EQ(http_res_put_header(head.b, "Content-Type", "%s; %s", "text/html", "charset=utf-8"), 0);
	EXPECT_EQ(http_res_put_header(head.b, "Content-Length", "%d", 12), 0);
	EXPECT_EQ(http_res_put_header(head.b, "X-Percent", "%s", "100%s"), 0);
	EXPECT_EQ(head.text(),
		"Content-Type: text/html; charset=utf-8\r\nContent-Length: 12\r\nX-Percent: 100%s\r\n");
}

TEST(http_res_put_header, fails_when_the_value_has_no_room_and_leaves_what_was_written_before_it)
{
	owned_buffer exact(10), small(9); // "Name: " has 6 bytes, and the value needs one for its zero
	EXPECT_EQ(http_res_put_header(exact.b, "Name", "%s", "abc"), 0);
	EXPECT_EQ(exact.text(), "Name: abc\r\n");
	EXPECT_EQ(http_res_put_header(small.b, "Name", "%s", "abc"), -ENOMEM);
	EXPECT_EQ(small.text(), "Name: ");
	EXPECT_EQ(http_res_put_header(nullptr, "Name", "%s", "abc"), -1);
}

TEST(http_res_put_header, refuses_a_value_larger_than_the_buffer)
{
	owned_buffer head(64);
	std::string value(1000, 'v');
	EXPECT_EQ(http_res_put_header(head.b, "Name", "%s", value.c_str()), -ENOMEM);
}

TEST(httpd_common_headers, are_server_pragma_and_expires_in_this_order)
{
	owned_buffer head;
	httpd_conn conn{};
	conn.res_head = head.b;
	EXPECT_EQ(httpd_common_headers(&conn), 0);
	EXPECT_EQ(head.text(), "Server: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n");
}

TEST(httpd_common_headers, stop_with_minus_1_at_the_first_that_fails)
{
	httpd_conn conn{};
	EXPECT_EQ(httpd_common_headers(&conn), -1); // no buffer
	owned_buffer head(15); // "Server: " leaves 7 bytes, "kvhttpd" and its zero need 8
	conn.res_head = head.b;
	EXPECT_EQ(httpd_common_headers(&conn), -1);
	EXPECT_EQ(head.text(), "Server: ");
}

TEST(httpd_res_buffers_reset, empties_what_is_there)
{
	owned_buffer head, body;
	httpd_conn conn{};
	httpd_res_buffers_reset(&conn); // neither
	conn.res_head = head.b;
	buffer_write(head.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(head.b->length, 0);
	EXPECT_EQ(head.b->size, 512);
	conn.res_head = nullptr;
	conn.res_body = body.b;
	buffer_write(body.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(body.b->length, 0);
	conn.res_head = head.b;
	buffer_write(head.b, "abc", 3);
	buffer_write(body.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(head.b->length, 0);
	EXPECT_EQ(body.b->length, 0);
}

TEST_F(httpd_response, a_handler_composes_and_writes_its_own)
{
	std::string got = answer([](httpd_conn *conn) {
		buffer_write(conn->res_body, "body", 4);
		EXPECT_EQ(http_res_put_status_line(
				  conn->res_head, conn->version, 200, http_code_to_string(200)),
			0);
		EXPECT_EQ(httpd_common_headers(conn), 0);
		EXPECT_EQ(http_res_put_header(
				  conn->res_head, "Content-Length", "%d", buffer_length(conn->res_body)),
			0);
		buffer_write(conn->res_head, "\r\n", 2);
		stream_write(
			&conn->stream, conn->res_head->data, static_cast<uint32_t>(conn->res_head->length));
		stream_write(
			&conn->stream, conn->res_body->data, static_cast<uint32_t>(conn->res_body->length));
		httpd_res_buffers_reset(conn);
		return 1;
	});
	EXPECT_EQ(got, "HTTP/1.1 200 OK\r\nServer: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
		       "Content-Length: 4\r\n\r\nbody");
}

TEST_F(httpd_response, the_page_of_404_has_these_bytes)
{
	std::string got = answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404); });
	EXPECT_EQ(got, "HTTP/1.1 404 Not found\r\n"
		       "Server: kvhttpd\r\n"
		       "Pragma: no-cache\r\n"
		       "Expires: 0\r\n"
		       "Content-Type: text/html\r\n"
		       "Content-Length: 62\r\n"
		       "\r\n"
		       "<html><body><h1>404 - Not found</h1><p>Error</p></body></html>");
}

TEST_F(httpd_response, the_page_of_each_code_has_its_reason_and_length)
{
	for (int version : {0, 1})
		for (int code : {200, 400, 404, 405, 406, 417, 500, 501, 302, 0, -5, 99999}) {
			std::string got =
				answer([=](httpd_conn *conn) { return httpd_fail(conn, version, code); });
			EXPECT_EQ(got, error_answer(version, code));
		}
}

TEST_F(httpd_response, a_code_without_a_reason_keeps_the_space_before_it)
{
	EXPECT_THAT(answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 500); }),
		StartsWith("HTTP/1.1 500 \r\nServer: kvhttpd\r\n"));
}

TEST_F(httpd_response, failing_returns_2_and_leaves_both_buffers_empty)
{
	answer([](httpd_conn *conn) {
		EXPECT_EQ(httpd_fail(conn, 0, 400), 2);
		EXPECT_EQ(buffer_length(conn->res_head), 0);
		EXPECT_EQ(buffer_length(conn->res_body), 0);
		return 1;
	});
}

TEST_F(httpd_response, failing_discards_what_was_composed)
{
	EXPECT_EQ(answer([](httpd_conn *conn) {
		buffer_write(conn->res_head, "rubbish", 7);
		buffer_write(conn->res_body, "rubbish", 7);
		return httpd_fail(conn, 1, 404);
	}),
		error_answer(1, 404));
}

TEST_F(httpd_response, failing_does_not_close_the_connection)
{
	answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404); }, true);
	answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404), 0; }, false);
}

TEST_F(httpd_response, failing_on_a_stream_that_is_cleaned_up_gives_minus_12_and_keeps_the_buffers)
{
	httpd_conn conn{};
	owned_buffer head, body;
	conn.res_head = head.b;
	conn.res_body = body.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM); // a stream that never was initialised
	EXPECT_EQ(head.text() + body.text(), error_answer(1, 404));
}

TEST_F(httpd_response, failing_on_a_broken_stream_gives_minus_12_and_keeps_the_buffers)
{
	on_request = defer;
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	httpd_conn *conn = newest();
	far.close();
	settle();
	write_text(conn, "finds out");
	EXPECT_TRUE(conn->stream.state & STREAM_ERROR);
	EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
	EXPECT_GT(buffer_length(conn->res_head), 0);
	EXPECT_EQ(buffer_length(conn->res_body), 62);
	httpd_defer_complete(conn, 1);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_response, failing_on_a_peer_that_has_gone_gives_minus_12_and_keeps_the_buffers)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		on_request = [&](httpd_conn *conn) {
			far.close_with_reset();
			EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
			EXPECT_EQ(std::string(
					  conn->res_head->data, static_cast<size_t>(conn->res_head->length)) +
					  std::string(conn->res_body->data,
						  static_cast<size_t>(conn->res_body->length)),
				error_answer(1, 404));
			EXPECT_EQ(buffer_length(conn->res_body), 62);
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_response, failing_returns_the_result_of_the_step_that_failed_and_skips_the_rest)
{
	httpd_conn conn{};
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -1) << "the status line finds no buffer";

	owned_buffer no_status(10), no_server(39), room, no_page(62), page(63);
	conn.res_body = room.b;
	conn.res_head = no_status.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM);
	EXPECT_EQ(no_status.text(), "");

	conn.res_head = no_server.b; // status line and "Server: " take 32 bytes, and 7 are left
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -1);
	EXPECT_EQ(no_server.text(), "HTTP/1.1 404 Not found\r\nServer: ");
	EXPECT_EQ(room.text(), "");

	owned_buffer head;
	conn.res_head = head.b;
	conn.res_body = no_page.b; // 62 bytes and a zero do not fit
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM);
	EXPECT_EQ(head.text(),
		"HTTP/1.1 404 Not found\r\nServer: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
		"Content-Type: text/html\r\n");
	EXPECT_EQ(no_page.text(), "");

	conn.res_body = page.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM) << "there is no stream";
	EXPECT_EQ(head.text() + page.text(), error_answer(1, 404));
}
