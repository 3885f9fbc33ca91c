// Retry requests: answers that are errors, late or missing, and calls made inside data_cb.
#include "lib/ubus.h"

#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

// ---- Answers that are errors, that are late, or that never come ----

TEST_F(ubus_retry, any_status_but_0_is_sent_again_at_once)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	size_t calls = 1;
	for (int status : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 77, -1}) {
		ASSERT_TRUE(run_until_called(*server, calls));
		int64_t before = time_now();
		EXPECT_EQ(server->release(status), 1);
		EXPECT_TRUE(run_until([&] {
			EXPECT_EQ(request.state(), "in flight");
			return server->calls().size() > calls;
		}));
		expect_due_in(request.reply_timer, 2000, before, time_now());
		++calls;
	}
	answer_all_and_finish(*server, request);
	EXPECT_EQ(server->calls().size(), calls);
	EXPECT_EQ(preparations, static_cast<int>(calls));
}

TEST_F(ubus_retry, error_after_data_is_sent_again_and_the_data_is_delivered_twice)
{
	auto server = serve_and_hold();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_EQ(request.data_count, 1);
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 2);
}

TEST_F(ubus_retry, error_of_an_object_that_has_gone_since_is_tried_again_in_two_seconds)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	server->remove(object_path);
	client.watch_again();
	EXPECT_TRUE(logs(missing));
	EXPECT_EQ(request.state(), "waiting");
}

TEST_F(ubus_retry, silence_of_two_seconds_is_answered_by_another_call_at_once)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	for (int count = 0; count < 3; ++count) {
		int64_t before = time_now();
		let_pass(&request.reply_timer);
		EXPECT_EQ(request.state(), "in flight");
		expect_due_in(request.reply_timer, 2000, before, time_now());
		EXPECT_EQ(client.linked_requests(), 1);
	}
	ASSERT_TRUE(run_until_called(*server, 4));
	answer_all_and_finish(*server, request, 4);
}

TEST_F(ubus_retry, the_real_silence_ends_on_the_loop)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	int64_t begin = now_ms();
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_GE(now_ms() - begin, 1999);
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, answer_to_a_call_given_up_is_not_taken_for_that_of_the_next)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.stop_watching();
	EXPECT_EQ(server->release(0), 1);
	fence(*server);
	let_pass(&request.reply_timer);
	client.watch_again();

	serve_all(*server);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(request.data_count, 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 1);
}

TEST_F(ubus_retry, late_error_for_a_call_given_up_causes_no_further_one)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);
	let_pass(&request.reply_timer);
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(request.state(), "at rest");
}

TEST_F(ubus_retry, silence_and_a_context_that_has_gone_is_waiting)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "waiting");
}

// ---- Inside data_cb ----

TEST_F(ubus_retry, data_cb_may_abort_its_request)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) { EXPECT_EQ(request.abort(), 0); };
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	serve_all(*server);
	EXPECT_EQ(request.state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_retry, request_aborted_in_data_cb_may_be_released_right_after)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	auto request = std::make_unique<retry>(&client.ctx);
	timer release{[&](timer *) { request.reset(); }};
	request->on_data = [&](blob_attr *) {
		request->abort();
		evloop_timeout_set(&release, 0);
	};
	EXPECT_EQ(request->invoke(), 0);
	EXPECT_TRUE(run_until([&] { return !request; }));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, invoke_in_data_cb_makes_its_attempt_on_the_next_pass)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.invoke(), -EBUSY);
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_LE(request.retry_timer.expires, time_now() + 1);
		EXPECT_EQ(preparations, 1);
	};
	ASSERT_TRUE(invoke_reaches(request, *server));
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	ASSERT_TRUE(run_until_called(*server, 2));
	serve_all(*server); // the first call's error is among it
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(server->calls().size(), 2u);
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 2);
}

TEST_F(ubus_retry, data_cb_may_abort_and_then_invoke)
{
	auto server = serve();
	server->answer(0, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.invoke(), -EBUSY);
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 2; }));
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, data_cb_may_invoke_and_then_abort)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		EXPECT_EQ(request.invoke(), -EBUSY);
		EXPECT_EQ(request.abort(), 0);
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	serve_all(*server);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, data_cb_may_invoke_another_request)
{
	auto server = serve();
	server->answer(0, "[1]");
	retry request{&client.ctx}, other{&client.ctx, "other"};
	request.on_data = [&](blob_attr *) { EXPECT_EQ(other.invoke(), 0); };
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return other.data_count == 1; }));
	EXPECT_TRUE(run_until_at_rest(other));
	EXPECT_TRUE(run_until_at_rest(request));
}

// The server's data and its status both wait in the socket, and a synchronous call inside data_cb reads the
// status.
class ubus_retry_status_inside_data_cb : public ubus_retry
{
protected:
	std::unique_ptr<object_server> server;
	std::unique_ptr<retry> request;

	void TearDown() override
	{
		request.reset();
		server.reset();
		ubus_retry::TearDown();
	}
	// `call` runs in data_cb when the status has been read.
	void meet(int status, const std::function<void()> &call)
	{
		server = serve();
		server->answer(0, "[1]");
		server->hold();
		request = std::make_unique<retry>(&client.ctx);
		request->on_data = [this, call](blob_attr *) {
			if (request->data_count > 1)
				return;
			uint32_t id;
			EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
			ASSERT_TRUE(request->req.status_msg);
			call();
		};
		ASSERT_TRUE(invoke_reaches(*request, *server));
		client.stop_watching();
		EXPECT_EQ(server->release(status), 1);
		fence(*server);
		client.watch_again();
		EXPECT_TRUE(run_until([&] { return request->data_count == 1; }));
	}
};

TEST_F(ubus_retry_status_inside_data_cb, success_finishes_the_request_after_it)
{
	meet(0, [&] { EXPECT_EQ(request->state(), "in flight"); });
	EXPECT_TRUE(run_until_at_rest(*request));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry_status_inside_data_cb, error_is_sent_again_after_it)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(preparations, 1); });
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, *request);
	EXPECT_EQ(request->data_count, 2);
}

TEST_F(ubus_retry_status_inside_data_cb, abort_makes_no_further_attempt)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(request->abort(), 0); });
	serve_all(*server);
	EXPECT_EQ(request->state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry_status_inside_data_cb, abort_after_a_success_changes_nothing_any_more)
{
	meet(0, [&] { EXPECT_EQ(request->abort(), 0); });
	serve_all(*server);
	EXPECT_EQ(request->state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(request->abort(), 0);
}

TEST_F(ubus_retry_status_inside_data_cb, invoke_makes_one_attempt_not_two)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(request->invoke(), -EBUSY); });
	ASSERT_TRUE(run_until_called(*server, 2));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(request->state(), "in flight");
	answer_all_and_finish(*server, *request);
}

// An owner whose every frame the test chooses. It has been called, and what it answers waits in the socket.
class ubus_retry_data : public ubus_retry
{
	uint32_t object_ = 0;
	wire::received call_;

protected:
	std::optional<raw_client> owner;
	std::unique_ptr<retry> request;
	std::vector<std::string> data;

	void SetUp() override
	{
		ubus_retry::SetUp();
		owner.emplace(bus->path());
		object_ = owner->add(object_path, wire::named(wire::table, "go", ""));
		request = std::make_unique<retry>(&client.ctx);
		ASSERT_EQ(request->invoke(), 0);
		call_ = owner->receive();
		ASSERT_EQ(call_.type(), wire::invoke);
		client.stop_watching();
	}
	void TearDown() override
	{
		request.reset();
		owner.reset();
		ubus_retry::TearDown();
	}
	void answer(wire::message type, const std::string &attribute)
	{
		owner->send(wire::frame(type, call_.seq(), call_.peer(),
			wire::number(wire::attr_objid, object_) + attribute));
		owner->drain();
	}
	void answer_data(const char *json)
	{
		answer(wire::data, wire::attribute(wire::attr_data, wire::named(wire::unspec, "json", json)));
	}
	void answer_twice_and_fail()
	{
		answer_data("[1]");
		answer_data("[2]");
		answer(wire::status, wire::number(wire::attr_status, UBUS_STATUS_UNKNOWN_ERROR));
	}
	// Notes all data; `call` runs in the first data_cb.
	void take_data(const std::function<void()> &call)
	{
		request->on_data = [this, call](blob_attr *message) {
			data.push_back(contents_of(message));
			if (data.size() == 1)
				call();
		};
		client.watch_again();
		EXPECT_TRUE(run_until([&] { return !data.empty(); }));
	}
	void read_all()
	{
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
	}
	static std::string message(const char *json) { return contents_of(json_message{json}.head()); }
	size_t further_calls()
	{
		read_all();
		run_passes(3);
		return owner->drain().size();
	}
};

TEST_F(ubus_retry_data, all_data_are_delivered)
{
	answer_twice_and_fail();
	take_data([] {});
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]"), message("[2]")}));
	EXPECT_EQ(request->state(), "in flight");
}

TEST_F(ubus_retry_data, all_data_are_delivered_when_a_synchronous_call_reads_them)
{
	answer_twice_and_fail();
	take_data([&] { read_all(); });
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]"), message("[2]")}));
}

TEST_F(ubus_retry_data, abort_drops_the_rest)
{
	answer_twice_and_fail();
	take_data([&] { request->abort(); });
	EXPECT_EQ(further_calls(), 0u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
}

TEST_F(ubus_retry_data, abort_drops_the_rest_that_a_synchronous_call_has_read)
{
	answer_twice_and_fail();
	take_data([&] {
		read_all();
		request->abort();
	});
	EXPECT_EQ(further_calls(), 0u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
	EXPECT_EQ(request->state(), "aborted in flight");
}

TEST_F(ubus_retry_data, invoke_drops_the_rest_that_a_synchronous_call_has_read)
{
	answer_twice_and_fail();
	take_data([&] {
		read_all();
		EXPECT_EQ(request->invoke(), -EBUSY);
	});
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
	EXPECT_EQ(request->state(), "in flight");
}

TEST_F(ubus_retry_data, connection_that_breaks_inside_data_cb_is_an_error_after_it)
{
	answer_data("[1]");
	interruption killer{client.ctx, [&] { bus->kill(); }};
	take_data([&] {
		stop_bus();
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), UBUS_STATUS_CONNECTION_FAILED);
		EXPECT_EQ(client.losses, 1);
		EXPECT_EQ(request->state(), "in flight");
	});
	EXPECT_EQ(request->state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry_data, abort_inside_data_cb_holds_when_the_connection_has_broken_in_it)
{
	answer_data("[1]");
	interruption killer{client.ctx, [&] { bus->kill(); }};
	take_data([&] {
		stop_bus();
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), UBUS_STATUS_CONNECTION_FAILED);
		request->abort();
	});
	EXPECT_EQ(request->state(), "aborted in flight");
}

} // namespace
