// Retry requests that are aborted, released or invoked inside the look-up of an attempt.
#include "lib/ubus.h"

#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

// The two ways in which something happens inside a look-up: in the answer to another request, which is
// handled as it is read, and in a call of the client's own object, which is handled just before the look-up
// returns.
class ubus_retry_inside_lookup : public ubus_retry, public testing::WithParamInterface<const char *>
{
	std::unique_ptr<interruption> interruption_;
	std::unique_ptr<probe> probe_;

protected:
	void SetUp() override
	{
		ubus_retry::SetUp();
		probe_ = std::make_unique<probe>(*bus, client);
	}
	void TearDown() override
	{
		interruption_.reset();
		probe_.reset();
		ubus_retry::TearDown();
	}
	void in_next_lookup(std::function<void()> call)
	{
		if (GetParam() == std::string("completion")) {
			interruption_ = std::make_unique<interruption>(client.ctx, std::move(call));
			return;
		}
		probe_->on_call = std::move(call);
		probe_->send_call();
	}
};

INSTANTIATE_TEST_SUITE_P(each_way, ubus_retry_inside_lookup, testing::Values("completion", "handler"),
	[](const auto &way) { return std::string(way.param); });

TEST_P(ubus_retry_inside_lookup, abort_ends_the_attempt)
{
	auto server = serve();
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.abort(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(preparations, 0);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_P(ubus_retry_inside_lookup, abort_keeps_a_missing_object_from_being_logged)
{
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.abort(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(take_log(), "");
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_after_an_abort)
{
	auto server = serve();
	auto request = std::make_unique<retry>(&client.ctx);
	in_next_lookup([&] { request.reset(); });
	EXPECT_EQ(request->invoke(), -ECANCELED);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_an_attempt_of_the_retry_timers)
{
	auto request = std::make_unique<retry>(&client.ctx);
	EXPECT_EQ(request->invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	in_next_lookup([&] { request.reset(); });
	let_pass(&request->retry_timer);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_an_attempt_of_the_reply_timers)
{
	auto server = serve_and_hold();
	auto request = std::make_unique<retry>(&client.ctx);
	ASSERT_TRUE(invoke_reaches(*request, *server));
	client.stop_watching();
	in_next_lookup([&] { request.reset(); });
	let_pass(&request->reply_timer);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_FALSE(client.request_is_linked());
	client.watch_again();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_the_attempt_that_an_error_caused)
{
	auto server = serve_and_hold();
	auto request = std::make_unique<retry>(&client.ctx);
	ASSERT_TRUE(invoke_reaches(*request, *server));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);
	in_next_lookup([&] { request.reset(); }); // read after the error
	client.watch_again();
	EXPECT_TRUE(run_until([&] { return !request; }));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, invoke_makes_the_attempt_and_the_outer_one_sends_nothing)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.invoke(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	EXPECT_EQ(preparations, 1);
	serve_all(*server);
	ASSERT_TRUE(run_until_called(*server, 1));
	answer_all_and_finish(*server, request);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, invoke_that_fails_holds)
{
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.invoke(), -EBUSY); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_initialised_for_another_call)
{
	auto server = serve();
	retry request{&client.ctx};
	in_next_lookup([&] {
		request.abort();
		request.init(&client.ctx, "other", object_path);
		EXPECT_EQ(request.invoke(), 0);
	});
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].method, "other");
}

TEST_P(ubus_retry_inside_lookup, another_request_is_sent_at_once)
{
	auto server = serve();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	in_next_lookup([&] { EXPECT_EQ(other.invoke(), 0); });
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_TRUE(run_until_at_rest(other));
	ASSERT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(server->calls()[0].method, "other");
}

TEST_P(ubus_retry_inside_lookup, another_request_may_be_released)
{
	auto server = serve_and_hold();
	auto other = std::make_unique<retry>(&client.ctx, "other");
	retry request{&client.ctx};
	EXPECT_EQ(other->invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	in_next_lookup([&] { other.reset(); });
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, error_that_comes_inside_the_lookup_of_another_is_sent_again_on_the_next_pass)
{
	auto server = serve_and_hold();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);

	int64_t before = time_now();
	EXPECT_EQ(other.invoke(), 0);
	EXPECT_EQ(request.state(), "waiting");
	expect_due_in(request.retry_timer, 0, before, time_now());
	EXPECT_EQ(preparations, 2);

	evloop_handle_timeouts();
	EXPECT_EQ(request.state(), "in flight");
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, request, 2);
	EXPECT_TRUE(run_until_at_rest(other));
}

TEST_F(ubus_retry, data_that_comes_inside_the_lookup_of_another_may_invoke_its_request)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.invoke(), -EBUSY);
	};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.stop_watching();
	server->release(0);
	fence(*server);
	EXPECT_EQ(other.invoke(), 0);
	EXPECT_EQ(request.data_count, 1);
	EXPECT_EQ(request.state(), "waiting");
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, request, 2);
	EXPECT_TRUE(run_until_at_rest(other));
}

} // namespace
