// Retry requests and subscriptions whose context is replaced, taken away or freed.
#include "lib/ubus.h"

#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

// ---- A context that is taken away and put back, or replaced, while it lives ----

TEST_F(ubus_retry, context_taken_away_and_put_back_has_the_request_linked_once)
{
	auto server = serve_and_hold();
	ubus_context *place = client.ctx;
	retry request{&place};
	ASSERT_TRUE(invoke_reaches(request, *server));
	place = nullptr;
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "waiting");
	place = client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.ctx->requests.next, &request.req.list);
	EXPECT_EQ(client.ctx->requests.prev, &request.req.list);
	EXPECT_EQ(request.req.list.next, &client.ctx->requests);
	request.abort();
	EXPECT_EQ(client.linked_requests(), 0);
}

TEST_F(ubus_retry, request_left_linked_by_an_attempt_without_a_context_may_be_aborted_and_released)
{
	for (bool by_timer : {true, false}) {
		SCOPED_TRACE(by_timer);
		auto server = serve_and_hold();
		ubus_context *place = client.ctx;
		auto request = std::make_unique<retry>(&place);
		ASSERT_TRUE(invoke_reaches(*request, *server));
		place = nullptr;
		if (by_timer)
			let_pass(&request->reply_timer);
		else
			EXPECT_EQ(request->invoke(), -EBUSY);
		place = client.ctx;
		request->abort();
		EXPECT_EQ(client.linked_requests(), 0);
		request.reset();
		EXPECT_EQ(server->release(0), 1);
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
	}
}

TEST_F(ubus_retry, context_replaced_inside_prepare_cb_is_used_by_an_attempt_on_the_next_pass)
{
	auto server = serve_and_hold();
	bus_client other;
	ASSERT_TRUE(other.connect(bus->path()));
	ubus_context *place = client.ctx;
	retry request{&place};
	prepare = [&](blob_buf *) {
		place = other.ctx;
		return 0;
	};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(client.linked_requests(), 0);
	EXPECT_TRUE(request.retry_timer.pending);
	EXPECT_EQ(evloop_timeout_remaining(&request.retry_timer), 0);
	run_pass();
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 0);
	EXPECT_EQ(other.linked_requests(), 1);
	request.abort();
}

TEST_F(ubus_retry, context_freed_inside_prepare_cb_is_not_used_any_more)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [&](blob_buf *) {
		client.free();
		return 0;
	};
	EXPECT_EQ(request.invoke(), -EBUSY);
	run_pass();
	EXPECT_EQ(request.state(), "waiting");
	request.abort();
}

TEST_F(ubus_retry, context_replaced_inside_the_look_up_is_used_by_an_attempt_on_the_next_pass)
{
	auto server = serve_and_hold();
	bus_client other;
	ASSERT_TRUE(other.connect(bus->path()));
	ubus_context *place = client.ctx;
	retry request{&place};
	interruption replacing{client.ctx, [&] { place = other.ctx; }};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(preparations, 0);
	run_pass();
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(other.linked_requests(), 1);
	request.abort();
}

int ignore_notification(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	return 0;
}

// A subscription that waits for its next attempt.
struct waiting_subscription : ubus_subscription {
	explicit waiting_subscription(ubus_context *context) : ubus_subscription{}
	{
		ctx = context;
		strcpy(path, object_path);
		EXPECT_EQ(subscribe(), UBUS_STATUS_NOT_FOUND);
		EXPECT_TRUE(retry.pending);
	}
	waiting_subscription(const waiting_subscription &) = delete;
	waiting_subscription &operator=(const waiting_subscription &) = delete;
	~waiting_subscription() { mox_ubus_unsubscribe(this); }
	int subscribe() { return mox_ubus_subscribe(this, ignore_notification); }
};

TEST_F(ubus_retry, subscribing_anew_without_a_context_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	subscription.ctx = nullptr;
	EXPECT_EQ(subscription.subscribe(), -EAGAIN);
	EXPECT_FALSE(subscription.retry.pending);
	subscription.ctx = client.ctx;
}

TEST_F(ubus_retry, subscribing_anew_that_cannot_register_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	bus->kill();
	EXPECT_EQ(subscription.subscribe(), -EAGAIN);
	EXPECT_FALSE(subscription.retry.pending);
}

TEST_F(ubus_retry, subscribing_anew_that_succeeds_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	auto server = serve();
	EXPECT_EQ(subscription.subscribe(), 0);
	EXPECT_FALSE(subscription.retry.pending);
}

TEST_F(ubus_retry, subscription_whose_context_is_taken_away_inside_registering_fails)
{
	auto server = serve();
	ubus_subscription subscription{};
	subscription.ctx = client.ctx;
	strcpy(subscription.path, object_path);
	auto cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
		return 0;
	};
	EXPECT_EQ(mox_ubus_subscribe(&subscription, cb), 0);
	client.on_lost = [&] { subscription.ctx = nullptr; };
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	EXPECT_EQ(mox_ubus_subscribe(&subscription, cb), -EAGAIN);
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(subscription.subscriber.obj.id, 0u);
	mox_ubus_unsubscribe(&subscription);
}

// ---- Where the context is kept ----

TEST_F(ubus_retry, invoke_without_a_place_for_the_context_is_refused_and_nothing_is_due)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	request.ctx = nullptr;
	EXPECT_EQ(request.invoke(), -EINVAL);
	EXPECT_EQ(take_log(), "ubus_retry_req: owner.go: invalid ctx ptr\n");
	EXPECT_EQ(request.state(), "at rest");
}

TEST_F(ubus_retry, record_of_zero_bytes_is_refused)
{
	ubus_retry_request request{};
	EXPECT_EQ(ubus_retry_request_invoke(&request), -EINVAL);
	EXPECT_EQ(take_log(), "ubus_retry_req: .: invalid ctx ptr\n");
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_retry, missing_context_is_tried_again_every_two_seconds_until_there_is_one)
{
	ubus_context *place = nullptr;
	retry request{&place};
	for (int count = 0; count < 4; ++count) {
		int64_t before = time_now();
		if (count == 0) {
			EXPECT_EQ(request.invoke(), -EBUSY);
		} else {
			let_pass(&request.retry_timer);
		}
		expect_due_in(request.retry_timer, 2000, before, time_now());
		EXPECT_EQ(request.state(), "waiting");
	}
	EXPECT_EQ(take_log(), "");

	auto server = serve();
	place = client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, context_is_read_anew_for_every_attempt)
{
	bus_daemon other_bus;
	object_server other_server{other_bus.path()};
	other_server.add(object_path);
	bus_client other_client;
	ASSERT_TRUE(other_client.connect(other_bus.path()));

	ubus_context *place = client.ctx;
	retry request{&place};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	place = other_client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(other_server.calls().size(), 1u);
	place = client.ctx;
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry, context_freed_while_in_flight_is_not_touched_by_invoke)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), -EBUSY);
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_FALSE(request.pending);
}

TEST_F(ubus_retry, context_freed_while_in_flight_is_not_touched_by_abort)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	for (int count = 0; count < 2; ++count) {
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.state(), "aborted in flight");
	}
}

TEST_F(ubus_retry, request_in_flight_is_sent_again_on_the_context_that_replaced_a_freed_one)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, requests_in_flight_on_a_freed_context_may_be_released_in_any_order)
{
	auto server = serve_and_hold();
	std::vector<std::unique_ptr<retry>> requests;
	for (int count = 0; count < 6; ++count) {
		requests.push_back(std::make_unique<retry>(&client.ctx));
		EXPECT_EQ(requests.back()->invoke(), 0);
	}
	client.free();
	requests[1].reset(); // there is no context
	ASSERT_TRUE(client.connect(bus->path()));
	requests[4].reset(); // there is another
	EXPECT_EQ(requests[0]->invoke(), 0);
	requests[3].reset(); // and it has requests
	let_pass(&requests[2]->reply_timer);
	requests[0].reset();
	EXPECT_EQ(client.linked_requests(), 1);
	EXPECT_EQ(requests[5]->abort(), 0);
	ASSERT_TRUE(run_until_called(*server, 8));
	answer_all_and_finish(*server, *requests[2], 8);
}

TEST_F(ubus_retry, waiting_request_outlives_its_context)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	client.free();
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "waiting");
	ASSERT_TRUE(client.connect(bus->path()));
	auto server = serve();
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, request_aborted_before_its_context_was_freed_may_be_used_with_the_next)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	client.free();
	EXPECT_EQ(request.abort(), 0);
	ASSERT_TRUE(client.connect(bus->path()));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

} // namespace
