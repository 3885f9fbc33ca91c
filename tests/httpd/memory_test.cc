// Each request for memory refused.
#include "tests/httpd/fixture.h"

#include <signal.h>

#include "lib/log.h"

using namespace http_test;

class httpd_memory : public server_test
{
protected:
	static int32_t answer_ok(httpd_conn *conn)
	{
		stream_write(&conn->stream, "ok", 2);
		return 1;
	}
	void SetUp() override
	{
		server_test::SetUp();
		ctx.handler = answer_ok;
	}
	// Runs `body`, which refuses request `nth` for memory, in a child for each of its requests. It must get
	// by, or end the process as the allocators do that never fail. Returns how many times it did the latter.
	int refuse_each(const std::function<void(int nth)> &body)
	{
		int fatal = 0;
		for (int nth = 0; nth < 1000; ++nth) {
			support::child_result result = support::run_child([&] {
				set_app_name("test");
				body(nth);
				if (!memory.refused)
					fprintf(stderr, "nothing refused\n");
				support::expect_no_leak();
			});
			if (result.err == "nothing refused\n") {
				EXPECT_TRUE(result.exited_with(0)) << result.report();
				EXPECT_GT(nth, 0);
				return fatal;
			}
			if (result.killed_by(SIGABRT) && result.err == "test: out of memory\n")
				++fatal;
			else
				EXPECT_TRUE(result.exited_with(0)) << nth << " " << result.report();
		}
		ADD_FAILURE() << "no end";
		return fatal;
	}
};

TEST_F(httpd_memory, a_connection_without_a_record_is_closed)
{
	support::socket_pair pair;
	int fd = pair.near.give();
	memory.refuse(0, sizeof(httpd_conn));
	httpd_accept(fd, 0, &ctx);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_FALSE(support::is_open(fd));
	EXPECT_EQ(connection_count(), 0);
	client far(std::move(pair.far));
	far.drain();
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_memory, no_allocation_that_fails_while_accepting_does_harm)
{
	int fatal = refuse_each([this](int nth) {
		int fds[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
		memory.refuse(nth);
		httpd_accept(fds[1], 0, &ctx);
		bool accepted = ctx.connections.next != &ctx.connections;
		EXPECT_EQ(support::is_open(fds[1]), accepted);
		memory.grant();
		client far{support::owned_fd(fds[0])};
		far.send("GET / HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nab");
		far.send("GET / HTTP/1.1\r\nA: b\r\n\r\n");
		far.drain();
		EXPECT_EQ(far.got, accepted ? "okok" : "");
		EXPECT_EQ(far.ended(), !accepted);
		httpd_ctx_cleanup(&ctx);
	});
	EXPECT_LE(fatal, 8); // the four buffers, each a record and its storage
}

TEST_F(httpd_memory, no_allocation_that_fails_while_parsing_does_harm)
{
	refuse_each([this](int nth) {
		client far = connect();
		memory.refuse(nth);
		far.send("POST /a%41?b HTTP/1.1\r\nFirst: 1\r\nFirst: 2\r\nLonger-Name: longer value\r\n"
			 "Content-Length: 0000000004\r\nLast: 3\r\n\r\nbodyGET http://host HTTP/1.1\r\n\r\n");
		memory.grant();
		far.drain();
		EXPECT_TRUE(far.got == "okok" || far.got == error_answer(1, 500) ||
			    (far.ended() && far.got.empty()))
			<< far.got;
		httpd_ctx_cleanup(&ctx);
	});
}

TEST_F(httpd_memory, a_length_that_cannot_be_copied_is_answered_500_without_a_reason)
{
	std::string value = std::string(300, '0') + "4";
	client far = connect();
	std::string bytes =
		"POST / HTTP/1.1\r\nContent-Length: " + value + "\r\n\r\nbodyGET / HTTP/1.1\r\n\r\n";
	memory.refuse_from(0, value.size(), value.size() + 2);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	far.drain();
	EXPECT_EQ(far.got, "HTTP/1.1 500 \r\n"
			   "Server: kvhttpd\r\n"
			   "Pragma: no-cache\r\n"
			   "Expires: 0\r\n"
			   "Content-Type: text/html\r\n"
			   "Content-Length: 53\r\n"
			   "\r\n"
			   "<html><body><h1>500 - </h1><p>Error</p></body></html>");
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_memory, a_header_value_that_cannot_be_copied_reads_as_absent)
{
	static const char *other, *missing;
	ctx.handler = [](httpd_conn *conn) {
		missing = httpd_header_table_get(conn, "Large");
		other = httpd_header_table_get(conn, "Other") ? "there" : "not there";
		return answer_ok(conn);
	};
	missing = "not looked at";
	client far = connect();
	std::string bytes = "GET / HTTP/1.1\r\nLarge: " + std::string(3000, 'v') + "\r\nOther: x\r\n\r\n";
	memory.refuse_from(0, 3000, 3002);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_EQ(missing, nullptr);
	EXPECT_STREQ(other, "there");
	far.drain();
	EXPECT_EQ(far.got, "ok");
}

TEST_F(httpd_memory, a_header_name_that_cannot_be_copied_does_no_harm)
{
	static const char *other;
	ctx.handler = [](httpd_conn *conn) {
		other = httpd_header_table_get(conn, "Other") ? "there" : "not there";
		return answer_ok(conn);
	};
	client far = connect();
	std::string bytes = "GET / HTTP/1.1\r\n" + std::string(3000, 'n') + ": v\r\nOther: x\r\n\r\n";
	memory.refuse_from(0, 3000, 3002);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_STREQ(other, "there");
	far.drain();
	EXPECT_EQ(far.got, "ok");
}
