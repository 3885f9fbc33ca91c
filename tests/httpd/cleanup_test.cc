// The end of a server, and of all its connections.
#include "tests/httpd/fixture.h"

#include <gmock/gmock.h>

#include "lib/log.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

using namespace http_test;
using testing::IsEmpty;

using httpd_cleanup = httpd_deferral;

TEST_F(httpd_cleanup, ends_every_connection_at_once)
{
	client idle = connect(), half = connect(), served = connect();
	half.send("GET / HT");
	served.send(get("/"));
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	for (client *far : {&idle, &half, &served}) {
		far->receive();
		EXPECT_TRUE(far->ended());
	}
}

TEST_F(httpd_cleanup, of_an_empty_or_cleaned_server_does_nothing)
{
	httpd_ctx_cleanup(&ctx);
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	client far = connect(); // it can be used again
	far.send(get("/"));
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_cleanup, reports_each_deferred_connection_and_leaves_it_to_its_completion)
{
	support::child_result result = support::run_child([this] {
		ASSERT_TRUE(support::enter_private_namespaces());
		ASSERT_TRUE(support::replace_file("/dev/kmsg", ""));
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, 0, "test");
		client first = connect(), second = connect(), third = connect();
		second.send(get("/later"));
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(newest(), deferred);
		EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
		EXPECT_EQ(support::read_file("/dev/kmsg"), "<2>test: BUG: deferred connections around\n");
		first.receive();
		third.receive();
		second.receive();
		EXPECT_TRUE(first.ended());
		EXPECT_TRUE(third.ended());
		EXPECT_FALSE(second.ended());
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
		second.receive();
		EXPECT_TRUE(second.ended());
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "test: BUG: deferred connections around\n");
}

TEST_F(httpd_cleanup, reports_two_deferred_connections_twice)
{
	support::child_result result = support::run_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client first = connect(), second = connect();
		first.send(get("/later"));
		httpd_conn *other = deferred;
		second.send(get("/later"));
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 2);
		httpd_defer_complete(deferred, 0);
		httpd_defer_complete(other, 0);
		EXPECT_EQ(connection_count(), 0);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, repeated("test: BUG: deferred connections around\n", 2));
}

TEST_F(httpd_cleanup, of_a_deferred_connection_whose_descriptor_is_closed_leaves_it_to_its_completion)
{
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/later"));
		make_due(&deferred->idle_timer);
		settle();
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(request_of(deferred).target, "/later");
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
	});
}

TEST_F(httpd_cleanup, reports_nothing_without_deferred_connections)
{
	support::child_result result = support::run_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		httpd_ctx_cleanup(&ctx);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "");
}

TEST_F(httpd_cleanup, in_a_handler_leaves_its_connection_valid_until_it_returns)
{
	for (int32_t result : {0, 1}) {
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "before");
			httpd_ctx_cleanup(&ctx);
			EXPECT_EQ(request_of(conn).target, "/target"); // still readable
			write_text(conn, "after");
			httpd_fail(conn, 1, 404);
			httpd_res_buffers_reset(conn);
			EXPECT_EQ(httpd_header_table_get(conn, "None"), nullptr);
			return result;
		};
		requests.clear();
		client other = connect(), far = connect(), third = connect();
		far.send(get("/target") + get("/late"));
		settle();
		EXPECT_EQ(connection_count(), 0);
		EXPECT_EQ(requests.size(), 1u);
		for (client *peer : {&other, &far, &third}) {
			peer->receive();
			EXPECT_TRUE(peer->ended());
		}
	}
}

TEST_F(httpd_cleanup, in_a_handler_that_has_deferred_waits_for_the_completion)
{
	on_request = [this](httpd_conn *conn) {
		httpd_defer(conn);
		deferred = conn;
		httpd_ctx_cleanup(&ctx);
		return 0;
	};
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/"));
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
		EXPECT_EQ(request_of(deferred).target, "/");
		httpd_defer_complete(deferred, 1);
		settle();
		EXPECT_EQ(connection_count(), 0);
	});
}

TEST_F(httpd_cleanup, in_a_handler_that_has_deferred_and_completed_ends_the_connection)
{
	for (int keep : {0, 1}) {
		on_request = [&](httpd_conn *conn) {
			httpd_defer(conn);
			httpd_defer_complete(conn, keep);
			httpd_ctx_cleanup(&ctx);
			EXPECT_EQ(request_of(conn).target, "/");
			return 1;
		};
		client far = connect();
		far.send(get("/") + get("/late"));
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_cleanup, in_a_handler_between_defer_and_complete_ends_the_connection)
{
	on_request = [this](httpd_conn *conn) {
		httpd_defer(conn);
		httpd_ctx_cleanup(&ctx);
		httpd_defer_complete(conn, 1);
		EXPECT_EQ(request_of(conn).target, "/");
		return 1;
	};
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/") + get("/late"));
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
		EXPECT_EQ(requests.size(), 1u);
	});
}

// A server that is not to be looked at once it has been released.
class brief_server
{
	httpd_ctx ctx_;

public:
	explicit brief_server(httpd_handler handler) { httpd_ctx_init(&ctx_, handler); }
	brief_server(const brief_server &) = delete;
	brief_server &operator=(const brief_server &) = delete;
	~brief_server()
	{
#if defined(__SANITIZE_ADDRESS__)
		__asan_unpoison_memory_region(&ctx_, sizeof(ctx_));
#endif
		httpd_ctx poison;
		memset(static_cast<void *>(&poison), 0xa5, sizeof(poison));
		EXPECT_EQ(memcmp(&ctx_, &poison, sizeof(ctx_)), 0) << "it was written to";
	}
	httpd_ctx *ctx()
	{
		return &ctx_;
	}
	void release()
	{
		memset(static_cast<void *>(&ctx_), 0xa5, sizeof(ctx_));
#if defined(__SANITIZE_ADDRESS__)
		__asan_poison_memory_region(&ctx_, sizeof(ctx_));
#endif
	}
};

TEST_F(httpd_cleanup, in_a_handler_the_server_may_be_released_when_nothing_is_deferred)
{
	for (int32_t result : {0, 1})
		for (bool defers : {false, true}) {
			brief_server brief(call_on_request);
			on_request = [&](httpd_conn *conn) {
				if (defers) {
					httpd_defer(conn);
					httpd_defer_complete(conn, result);
				}
				httpd_ctx_cleanup(brief.ctx());
				brief.release();
				EXPECT_EQ(request_of(conn).target, "/");
				return result;
			};
			support::socket_pair here, elsewhere;
			httpd_accept(here.near.give(), 0, brief.ctx());
			httpd_accept(elsewhere.near.give(), 0, brief.ctx());
			client far(std::move(here.far)), other(std::move(elsewhere.far));
			far.send(get("/") + get("/late"));
			far.drain();
			other.drain();
			EXPECT_TRUE(far.ended());
			EXPECT_TRUE(other.ended());
		}
	EXPECT_EQ(requests.size(), 4u);
}

TEST_F(httpd_cleanup, the_server_may_be_released_when_it_has_ended)
{
	brief_server brief(call_on_request);
	std::string large = pattern(1'000'000);
	on_request = [&](httpd_conn *conn) {
		write_text(conn, large);
		return 0;
	};
	support::socket_pair here, elsewhere;
	httpd_accept(here.near.give(), 0, brief.ctx());
	httpd_accept(elsewhere.near.give(), 0, brief.ctx());
	client draining(std::move(here.far)), idle(std::move(elsewhere.far));
	draining.send(get("/"));
	idle.send_some(get("/never"));
	evloop_handle_ios(0); // read, and the parser's turn is pending
	httpd_ctx_cleanup(brief.ctx());
	brief.release();
	draining.drain();
	idle.drain();
	EXPECT_TRUE(draining.ended());
	EXPECT_TRUE(idle.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_cleanup, an_event_that_was_fetched_for_an_ended_connection_reaches_nothing)
{
	std::vector<client> peers;
	for (int i = 0; i < 10; ++i) {
		peers.push_back(connect());
		peers.back().send_some(get("/"));
	}
	for (int dispatched = 0; dispatched < 7; ++dispatched) // all ten were fetched by one wait
		evloop_handle_ios(0);
	httpd_ctx_cleanup(&ctx);
	settle();
	EXPECT_EQ(connection_count(), 0);
	EXPECT_THAT(requests, IsEmpty());
}
