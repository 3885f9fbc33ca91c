// Retry requests that are aborted.
#include "lib/ubus.h"

#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

TEST_F(ubus_retry, abort_of_an_idle_request_does_nothing)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	auto server = serve();
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, aborted_request_makes_no_further_attempt)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(request.data_count, 0);
}

TEST_F(ubus_retry, abort_in_flight_leaves_pending_set)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_TRUE(request.pending);
	EXPECT_EQ(request.state(), "aborted in flight");
}

TEST_F(ubus_retry, abort_again_after_one_in_flight_is_harmless)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	for (int count = 0; count < 3; ++count) {
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.state(), "aborted in flight");
	}
}

TEST_F(ubus_retry, invoke_after_an_abort_in_flight_makes_an_attempt_like_any_other)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, init_after_an_abort_in_flight_makes_a_new_request)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	request.init(&client.ctx, "other", object_path);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_EQ(server->calls()[1].method, "other");
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, request_aborted_in_flight_may_be_released)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	auto request = std::make_unique<retry>(&client.ctx);
	ASSERT_TRUE(invoke_reaches(*request, *server));
	EXPECT_EQ(request->abort(), 0);
	request.reset();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, abort_while_waiting_makes_no_further_attempt)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(evloop_get_next_timeout(), -1);

	auto server = serve();
	run_passes(5);
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
}

TEST_F(ubus_retry, abort_of_a_finished_request_does_nothing)
{
	auto server = serve();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, abort_leaves_other_requests_in_flight)
{
	auto server = serve_and_hold();
	retry first{&client.ctx}, second{&client.ctx}, third{&client.ctx};
	for (retry *request : {&first, &second, &third})
		EXPECT_EQ(request->invoke(), 0);
	EXPECT_EQ(second.abort(), 0);
	EXPECT_EQ(client.linked_requests(), 2);
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, first, 3);
	EXPECT_TRUE(run_until_at_rest(third));
	EXPECT_EQ(second.state(), "aborted in flight");
}

} // namespace
