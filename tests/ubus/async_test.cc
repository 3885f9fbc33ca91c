// Calls that nobody waits for.
#include "lib/ubus.h"

#include "tests/support/syslog_messages.h"
#include "tests/ubus/context.h"

using namespace ubus_support;

namespace
{

constexpr uint32_t never_ms = 600'000; // longer than any test
const std::string timed_out = "ubus-ureq-async: timeout\n";

std::string failed(int status)
{
	return "ubus-ureq-async: error: " + std::to_string(status) + "\n";
}

std::string repeated(const std::string &text, int count)
{
	std::string all;
	while (count-- > 0)
		all += text;
	return all;
}

class ubus_async : public bus_test
{
protected:
	std::optional<object_server> server;
	uint32_t object = 0;

	void SetUp() override
	{
		bus_test::SetUp();
		server.emplace(bus->path());
		object = server->add("target");
	}
	void TearDown() override
	{
		server.reset();
		bus_test::TearDown();
	}

	int call(const char *method, uint32_t timeout_ms = never_ms, const std::string &text = "{}")
	{
		json_message message{text};
		return ubus_req_async_to(client.ctx, object, method, message.buf(), timeout_ms);
	}
	// Calls that the server does not answer.
	void put_in_flight(int count, uint32_t timeout_ms = never_ms)
	{
		server->hold();
		size_t seen = server->calls().size();
		for (int i = 0; i < count; ++i)
			ASSERT_EQ(call("held", timeout_ms), 0);
		ASSERT_TRUE(eventually(
			[&] { return server->calls().size() == seen + static_cast<size_t>(count); }));
	}
	bool run_until_idle()
	{
		return run_until([this] { return !client.request_is_linked(); });
	}
	// Makes a call and takes its answer, after everything that is on its way already.
	void expect_a_call_to_work()
	{
		server->answer(0);
		size_t seen = server->calls().size();
		ASSERT_EQ(call("another"), 0);
		EXPECT_TRUE(run_until([&] {
			return server->calls().size() == seen + 1 && evloop_get_next_timeout() == -1;
		}));
		EXPECT_EQ(take_log(), "");
	}
	// A new bus daemon and a new owner.
	void restart_everything()
	{
		bus->restart();
		server.emplace(bus->path());
		object = server->add("target");
	}
};

TEST_F(ubus_async, call_reaches_the_method_with_its_message)
{
	ASSERT_EQ(call("announce", never_ms, R"({"a":1})"), 0);
	ASSERT_TRUE(run_until_idle());
	ASSERT_EQ(server->calls().size(), 1U);
	EXPECT_EQ(server->calls()[0].object, "target");
	EXPECT_EQ(server->calls()[0].method, "announce");
	EXPECT_EQ(server->calls()[0].json(), R"({"a":1})");
}

TEST_F(ubus_async, success_is_not_logged_and_leaves_nothing)
{
	ASSERT_EQ(call("m"), 0);
	EXPECT_EQ(client.linked_requests(), 1);
	EXPECT_NE(evloop_get_next_timeout(), -1);
	ASSERT_TRUE(run_until_idle());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(take_log(), "");
}

TEST_F(ubus_async, reply_data_is_dropped)
{
	server->answer(0, R"({"answer":[1,2,3]})");
	ASSERT_EQ(call("m"), 0);
	EXPECT_TRUE(run_until_idle());
}

TEST_F(ubus_async, message_buffer_is_the_callers_again_at_once)
{
	blob_buf buf{};
	blob_buf_init(&buf, 0);
	blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "json", "[1]", 3);
	ASSERT_EQ(ubus_req_async_to(client.ctx, object, "first", &buf, never_ms), 0);
	blob_buf_init(&buf, 0);
	blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "json", "[2]", 3);
	ASSERT_EQ(ubus_req_async_to(client.ctx, object, "second", &buf, never_ms), 0);
	blob_buf_free(&buf);
	ASSERT_TRUE(run_until_idle());
	ASSERT_EQ(server->calls().size(), 2U);
	EXPECT_EQ(server->calls()[0].json(), "[1]");
	EXPECT_EQ(server->calls()[1].json(), "[2]");
}

TEST_F(ubus_async, nothing_is_logged_and_no_answer_taken_inside_the_call)
{
	server->answer(9);
	ASSERT_EQ(call("m"), 0);
	ASSERT_TRUE(wait_for(client.ctx->sock.fd, POLLIN));
	EXPECT_EQ(call("m"), 0);
	EXPECT_EQ(client.linked_requests(), 2);
	EXPECT_EQ(take_log(), "");
	EXPECT_TRUE(logs(repeated(failed(9), 2)));
}

TEST_F(ubus_async, error_status_is_logged)
{
	for (int status : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 255, -22}) {
		server->answer(status);
		ASSERT_EQ(call("m"), 0);
		EXPECT_TRUE(logs(failed(status)));
		EXPECT_FALSE(client.request_is_linked());
		EXPECT_EQ(evloop_get_next_timeout(), -1);
	}
}

TEST_F(ubus_async, error_status_behind_reply_data_is_logged)
{
	server->answer(13, "[1]");
	ASSERT_EQ(call("m"), 0);
	EXPECT_TRUE(logs(failed(13)));
}

TEST_F(ubus_async, call_of_an_object_that_is_gone_is_logged_as_not_found)
{
	server->remove("target");
	ASSERT_EQ(call("m"), 0);
	EXPECT_TRUE(logs(failed(UBUS_STATUS_NOT_FOUND)));
}

TEST_F(ubus_async, call_of_an_object_of_the_same_context_is_answered)
{
	int calls = 0;
	ubus_method method{};
	method.handler = [](ubus_context *, ubus_object *own, ubus_request_data *, const char *,
				 blob_attr *) {
		++*static_cast<int *>(const_cast<void *>(static_cast<const void *>(own->path)));
		return int{UBUS_STATUS_NO_DATA};
	};
	ubus_object own{};
	own.methods = &method;
	own.n_methods = 1;
	own.path = reinterpret_cast<const char *>(&calls);
	ASSERT_EQ(ubus_add_object(client.ctx, &own), 0);
	object = own.id;
	ASSERT_EQ(call("m"), 0);
	EXPECT_TRUE(logs(failed(UBUS_STATUS_NO_DATA)));
	EXPECT_EQ(calls, 1);
	EXPECT_EQ(ubus_remove_object(client.ctx, &own), 0);
}

TEST_F(ubus_async, silence_beyond_the_timeout_is_logged_and_ends_the_call)
{
	int64_t begin_ms = now_ms();
	put_in_flight(1, 60);
	EXPECT_TRUE(logs(timed_out));
	EXPECT_GE(now_ms() - begin_ms, 60);
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, every_failure_is_logged_at_priority_3)
{
	messages.clear();
	log_open(LOG_DEST_SYSLOG, LOG_USER, nullptr);
	EXPECT_EQ(call("big", never_ms, std::string(1U << 20, 'x')), -1);
	put_in_flight(1, 1);
	ASSERT_TRUE(run_until_idle());
	server->answer(9);
	ASSERT_EQ(call("m"), 0);
	ASSERT_TRUE(run_until_idle());
	EXPECT_EQ(messages, (std::vector<logged>{{3, "ubus-ureq-async: error invoking big: 2\n"},
				    {3, timed_out}, {3, failed(9)}}));
}

TEST_F(ubus_async, answer_after_the_timeout_is_ignored)
{
	put_in_flight(1, 1);
	EXPECT_TRUE(logs(timed_out));
	server->answer(0, "[1]");
	EXPECT_EQ(server->release(9), 1);
	expect_a_call_to_work();
}

TEST_F(ubus_async, answer_before_the_timeout_cancels_it)
{
	put_in_flight(1, 5000);
	EXPECT_EQ(server->release(0), 1);
	ASSERT_TRUE(run_until_idle());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, error_before_the_timeout_cancels_it)
{
	put_in_flight(1, 5000);
	EXPECT_EQ(server->release(4), 1);
	EXPECT_TRUE(logs(failed(4)));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, timeout_of_0_fires_on_the_next_pass_and_not_inside_the_call)
{
	server->hold();
	ASSERT_EQ(call("m", 0), 0);
	EXPECT_EQ(take_log(), "");
	EXPECT_EQ(client.linked_requests(), 1);
	run_pass();
	EXPECT_EQ(take_log(), timed_out);
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_TRUE(eventually([this] { return server->calls().size() == 1; }));
}

TEST_F(ubus_async, timeouts_of_all_32_bits_are_not_negative)
{
	put_in_flight(1, UINT32_MAX);
	EXPECT_EQ(evloop_get_next_timeout(), INT32_MAX);
	put_in_flight(1, 0x80000000U);
	EXPECT_GT(evloop_get_next_timeout(), INT32_MAX - deadline_ms);
	run_passes(3);
	EXPECT_EQ(client.linked_requests(), 2);
	EXPECT_EQ(server->release(0), 2);
	EXPECT_TRUE(run_until_idle());
}

TEST_F(ubus_async, call_whose_context_is_not_served_ends_with_its_timeout)
{
	client.stop_watching();
	ASSERT_EQ(call("m", 1), 0);
	EXPECT_TRUE(logs(timed_out));
	client.watch_again();
	expect_a_call_to_work();
}

TEST_F(ubus_async, answer_is_also_taken_inside_a_synchronous_call)
{
	put_in_flight(1);
	EXPECT_EQ(server->release(6), 1);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(client.ctx, "target", &id), 0);
	EXPECT_EQ(take_log(), failed(6));
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, message_above_1_mib_is_refused)
{
	EXPECT_EQ(call("big", never_ms, std::string(1U << 20, 'x')), -1);
	EXPECT_EQ(take_log(), "ubus-ureq-async: error invoking big: 2\n");
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	expect_a_call_to_work();
}

TEST_F(ubus_async, message_just_below_1_mib_arrives)
{
	ASSERT_EQ(call("big", never_ms, std::string((1U << 20) - 256, 'x')), 0);
	ASSERT_TRUE(run_until_idle());
	EXPECT_EQ(server->calls().size(), 1U);
}

TEST_F(ubus_async, call_on_a_broken_connection_is_refused)
{
	bus->kill();
	EXPECT_EQ(call("first"), -1);
	EXPECT_EQ(call("second"), -1);
	EXPECT_EQ(take_log(), "ubus-ureq-async: error invoking first: 2\n"
			      "ubus-ureq-async: error invoking second: 2\n");
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, call_from_inside_connection_lost_is_refused)
{
	client.on_lost = [this] { EXPECT_EQ(call("late"), -1); };
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), "ubus-ureq-async: error invoking late: 2\n");
}

TEST_F(ubus_async, refused_call_leaves_those_in_flight_alone)
{
	put_in_flight(2);
	EXPECT_EQ(call("big", never_ms, std::string(1U << 20, 'x')), -1);
	EXPECT_EQ(take_log(), "ubus-ureq-async: error invoking big: 2\n");
	EXPECT_EQ(client.linked_requests(), 2);
	EXPECT_EQ(server->release(0), 2);
	EXPECT_TRUE(run_until_idle());
}

TEST_F(ubus_async, loss_of_the_connection_ends_every_call_with_status_7)
{
	put_in_flight(5);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 5));
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, loss_noticed_by_a_refused_call_still_ends_those_in_flight)
{
	put_in_flight(2);
	bus->kill();
	EXPECT_EQ(call("m"), -1);
	EXPECT_EQ(take_log(), "ubus-ureq-async: error invoking m: 2\n");
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 2));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, timeout_after_an_unnoticed_loss_is_logged_once)
{
	put_in_flight(1, 1);
	bus->kill();
	client.stop_watching();
	EXPECT_TRUE(logs(timed_out));
	client.watch_again();
	ASSERT_TRUE(run_until_lost());
}

TEST_F(ubus_async, loss_inside_connection_lost_may_free_the_context)
{
	put_in_flight(3);
	client.on_lost = [this] { client.free(); };
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 3));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, call_works_after_a_reconnection)
{
	put_in_flight(1);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), failed(7));
	restart_everything();
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	expect_a_call_to_work();
}

TEST_F(ubus_async, context_may_be_freed_with_calls_in_flight)
{
	put_in_flight(3, 1);
	client.free();
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, context_may_be_freed_and_its_descriptor_used_for_something_else)
{
	put_in_flight(3, 1);
	int number = client.ctx->sock.fd;
	client.free();
	pipe_pair other;
	owned_fd same_number{dup2(other.read_end.get(), number)};
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	EXPECT_TRUE(is_open(number));
}

TEST_F(ubus_async, new_context_does_not_inherit_the_calls_of_a_freed_one)
{
	put_in_flight(3, 50);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	put_in_flight(2);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	EXPECT_EQ(client.linked_requests(), 2);
	server->answer(0);
	EXPECT_EQ(server->release(0), 5);
	EXPECT_TRUE(run_until_idle());
	expect_a_call_to_work();
}

// The old calls point to the head of the new context's list: unlinking them by their pointers would be wrong.
TEST_F(ubus_async, new_context_at_the_same_address_is_not_touched_by_old_calls)
{
	context_address_kept same_address;
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	ubus_context *before = client.ctx;
	put_in_flight(3, 50);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	ASSERT_EQ(client.ctx, before);
	put_in_flight(2);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	EXPECT_EQ(client.linked_requests(), 2);
	put_in_flight(1); // here the old ones are let go
	EXPECT_EQ(client.linked_requests(), 3);
	EXPECT_EQ(server->release(0), 6);
	EXPECT_TRUE(run_until_idle());
	expect_a_call_to_work();
	client.free();
}

TEST_F(ubus_async, old_calls_of_a_context_at_the_same_address_may_time_out_before_its_first_call)
{
	context_address_kept same_address;
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	put_in_flight(3, 1);
	client.free();
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	ASSERT_TRUE(client.connect(bus->path()));
	put_in_flight(1);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), failed(7));
	client.free();
}

TEST_F(ubus_async, reconnected_context_with_calls_in_flight_works_on_after_their_timeouts)
{
	put_in_flight(3, 50);
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	put_in_flight(1);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	EXPECT_EQ(server->release(0), 4);
	expect_a_call_to_work();
	EXPECT_FALSE(client.request_is_linked());

	put_in_flight(2);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 2));
}

TEST_F(ubus_async, reconnected_context_may_be_lost_again_after_the_timeouts)
{
	put_in_flight(3, 1);
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_FALSE(client.request_is_linked());
	restart_everything();
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	expect_a_call_to_work();
}

TEST_F(ubus_async, reconnected_context_that_is_lost_again_ends_old_and_new_calls)
{
	put_in_flight(3);
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	put_in_flight(2);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 5));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, reconnected_context_may_be_freed_after_the_timeouts)
{
	put_in_flight(3, 1);
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	expect_a_call_to_work();
}

TEST_F(ubus_async, failed_reconnection_and_freeing_leave_the_timeouts_harmless)
{
	put_in_flight(3, 50);
	bus->kill();
	EXPECT_NE(client.reconnect(bus->path()), 0);
	EXPECT_TRUE(logs(repeated(timed_out, 3)));
	client.free();
}

TEST_F(ubus_async, two_contexts_do_not_disturb_each_other)
{
	bus_client other;
	ASSERT_TRUE(other.connect(bus->path()));
	put_in_flight(2, 50);
	std::swap(client.ctx, other.ctx);
	put_in_flight(1);
	std::swap(client.ctx, other.ctx);
	client.free();
	EXPECT_TRUE(logs(repeated(timed_out, 2)));
	EXPECT_EQ(server->release(5), 3);
	EXPECT_TRUE(logs(failed(5)));
	EXPECT_FALSE(other.request_is_linked());
}

TEST_F(ubus_async, a_thousand_calls_in_flight_are_answered)
{
	put_in_flight(1000);
	EXPECT_EQ(client.linked_requests(), 1000);
	EXPECT_EQ(server->release(0), 1000);
	ASSERT_TRUE(run_until_idle());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_async, a_thousand_calls_in_flight_fail)
{
	put_in_flight(1000);
	EXPECT_EQ(server->release(9), 1000);
	EXPECT_TRUE(logs(repeated(failed(9), 1000)));
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_async, a_thousand_calls_in_flight_time_out)
{
	server->hold();
	for (uint32_t i = 0; i < 1000; ++i)
		ASSERT_EQ(call("m", i % 7), 0);
	EXPECT_TRUE(logs(repeated(timed_out, 1000)));
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_TRUE(eventually([this] { return server->calls().size() == 1000; }));
	EXPECT_EQ(server->release(9), 1000);
	expect_a_call_to_work();
}

TEST_F(ubus_async, a_thousand_calls_in_flight_are_lost_with_the_bus)
{
	put_in_flight(1000);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), repeated(failed(7), 1000));
}

TEST_F(ubus_async, sequence_numbers_may_wrap_with_calls_in_flight)
{
	client.ctx->request_seq = 65530;
	put_in_flight(12);
	EXPECT_EQ(server->release(4), 12);
	EXPECT_TRUE(logs(repeated(failed(4), 12)));
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_async, owner_that_ends_in_a_call_is_silence)
{
	server->end_when_called();
	ASSERT_EQ(call("m", 200), 0);
	ASSERT_TRUE(wait_until_gone("target"));
	EXPECT_TRUE(logs(timed_out));
}

} // namespace
