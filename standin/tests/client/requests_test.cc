// libubus: requests, with and without waiting for them.
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"

using testing::ElementsAre;
using testing::IsEmpty;

// ---- Requests ----

TEST_F(bus_client, call_is_sent_and_answered_as_recorded)
{
	connect();
	ctx_->request_seq = 4;
	buffer b;
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "json", "{\"a\":1}", 7);
	call request;
	EXPECT_EQ(request.invoke(ctx_, demo_id, "echo", b.head), 0);
	EXPECT_EQ(hear_bytes(), hex("00050005 fa7a1947 00000030"
				    "03000008 fa7a1947"
				    "04000009 6563686f 00000000"
				    "07000018 80000013 00046a73 6f6e0000 7b226122 3a317d00"));
	request.want_data();
	ubus_complete_request_async(ctx_, &request);
	serve(hex("00020005 fa7a1947 00000024 03000008 fa7a1947 07000018") + json_data +
		hex("00010005 fa7a1947 00000014 01000008 00000000 03000008 fa7a1947"));
	EXPECT_THAT(take_events(), ElementsAre("call data " + json_data, "call: 0"));
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, invoke_fills_the_request)
{
	connect();
	call request;
	memset(static_cast<ubus_request *>(&request), 0xff, sizeof(ubus_request));
	EXPECT_EQ(ubus_invoke_async_fd(ctx_, demo_id, "m", nullptr, &request, -1), 0);
	EXPECT_TRUE(list_empty(&request.list));
	EXPECT_TRUE(list_empty(&request.pending));
	EXPECT_EQ(request.seq, 1);
	EXPECT_EQ(request.peer, demo_id);
	EXPECT_EQ(request.ctx, ctx_);
	EXPECT_EQ(request.fd, -1);
	EXPECT_EQ(request.status_code, 0);
	EXPECT_FALSE(request.status_msg || request.blocked || request.cancelled || request.notify);
	EXPECT_TRUE(!request.raw_data_cb && !request.data_cb && !request.fd_cb && !request.complete_cb);
	EXPECT_EQ(request.priv, nullptr);
	EXPECT_EQ(hear_bytes(),
		wire::frame(wire::invoke, 1, demo_id,
			wire::number(wire::attr_objid, demo_id) + wire::text(wire::attr_method, "m") +
				wire::attribute(wire::attr_data, "")));
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, sequence_numbers_have_sixteen_bits)
{
	connect();
	ctx_->request_seq = 65'535;
	call request;
	request.start(ctx_);
	EXPECT_EQ(request.seq, 0);
	EXPECT_EQ(hear().seq(), 0);
	serve(status_frame(0, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call: 0"));
}

TEST_F(standin_client, passes_no_descriptors)
{
	connect();
	call request;
	EXPECT_EQ(ubus_invoke_async_fd(ctx_, demo_id, "m", nullptr, &request, ctx_->sock.fd), 8);
	EXPECT_TRUE(list_empty(&request.list));
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, latest_request_is_linked_first_and_once)
{
	connect();
	call first("first"), second("second");
	first.start(ctx_);
	second.start(ctx_);
	EXPECT_EQ(ctx_->requests.next, &second.list);
	EXPECT_EQ(second.list.next, &first.list);
	ubus_complete_request_async(ctx_, &first);
	EXPECT_EQ(ctx_->requests.next, &second.list);
	ubus_abort_request(ctx_, &first);
	ubus_abort_request(ctx_, &second);
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, answer_to_a_request_that_is_not_linked_is_dropped)
{
	connect();
	call request;
	EXPECT_EQ(request.invoke(ctx_), 0);
	request.want_data();
	serve(data_frame(1, demo_id, json_data) + status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), IsEmpty());
	EXPECT_FALSE(request.status_msg);
	ubus_complete_request_async(ctx_, &request);
	serve(status_frame(1, demo_id, 3));
	EXPECT_THAT(take_events(), ElementsAre("call: 3"));
}

TEST_F(bus_client, answer_must_have_the_number_and_the_peer_of_the_request)
{
	connect();
	call request;
	request.start(ctx_);
	serve(status_frame(2, demo_id, 0) + status_frame(0, demo_id, 0) + status_frame(1, demo_id + 1, 0) +
		status_frame(1, 0, 0) + status_frame(257, demo_id, 0));
	EXPECT_THAT(take_events(), IsEmpty());
	serve(status_frame(1, demo_id, 6));
	EXPECT_THAT(take_events(), ElementsAre("call: 6"));
}

TEST_F(bus_client, status_is_taken_from_its_attribute_or_is_invalid_argument)
{
	connect();
	auto result = [this](const std::string &attributes) {
		call request;
		request.start(ctx_);
		serve(wire::frame(wire::status, request.seq, demo_id, attributes));
		EXPECT_TRUE(request.status_msg);
		EXPECT_EQ(request.peer, demo_id);
		EXPECT_THAT(take_events(), ElementsAre("call: " + std::to_string(request.status_code)));
		return request.status_code;
	};
	EXPECT_EQ(result(wire::number(wire::attr_status, 9)), 9);
	EXPECT_EQ(result(wire::number(wire::attr_status, 0x7fffffff)), INT_MAX);
	EXPECT_EQ(result(""), 2);
	EXPECT_EQ(result(wire::octet(wire::attr_status, 0)), 2);
	EXPECT_EQ(result(wire::attribute(wire::attr_status, "12345678")), 2);
	EXPECT_EQ(result(hex("01000000")), 2);
	EXPECT_EQ(result(hex("01000001")), 2);
	EXPECT_EQ(result(hex("01ffffff 00000000")), 2);
	EXPECT_EQ(result(wire::number(wire::attr_status, 3) + hex("0100")), 3);
}

TEST_F(bus_client, raw_callback_gets_the_whole_message_before_the_data_callback)
{
	connect();
	call request;
	request.start(ctx_);
	request.raw_data_cb = [](ubus_request *, int type, blob_attr *msg) {
		EXPECT_EQ(type, int{UBUS_MSG_DATA});
		note("raw " + raw(msg));
	};
	std::string whole = data_frame(1, demo_id, json_data).substr(8), none = hex("00000004");
	serve(data_frame(1, demo_id, json_data) + wire::frame(wire::data, 1, demo_id));
	EXPECT_THAT(take_events(), ElementsAre("raw " + whole, "call data " + json_data, "raw " + none));
	request.data_cb = nullptr;
	serve(data_frame(1, demo_id, json_data));
	EXPECT_THAT(take_events(), ElementsAre("raw " + whole));
	request.raw_data_cb = nullptr;
	serve(data_frame(1, demo_id, json_data));
	EXPECT_THAT(take_events(), IsEmpty());
	ubus_abort_request(ctx_, &request);
}

// libubus reads the other messages into the same buffer.
TEST_F(standin_client, message_survives_a_synchronous_call_in_the_raw_callback)
{
	connect();
	call request;
	request.start(ctx_);
	static std::function<int(const std::string &)> wait;
	wait = [this](const std::string &before) { return sync_call(before); };
	request.raw_data_cb = [](ubus_request *, int, blob_attr *msg) {
		std::string before = raw(msg);
		EXPECT_EQ(wait(data_frame(77, 77, std::string(100'000, 'x'))), 0);
		EXPECT_EQ(raw(msg), before);
	};
	hear();
	serve(data_frame(1, demo_id, json_data));
	EXPECT_THAT(take_events(), ElementsAre("call data " + json_data));
	ubus_abort_request(ctx_, &request);
}

TEST_F(bus_client, completed_request_may_be_released_in_its_callback)
{
	connect();
	auto *request = new call;
	request->start(ctx_);
	request->on_complete = [](call *self) { delete self; };
	serve(status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call: 0"));
}

TEST_F(bus_client, completed_request_may_be_used_again_in_its_callback)
{
	connect();
	call request;
	request.start(ctx_);
	request.on_complete = [this](call *self) {
		self->on_complete = nullptr;
		self->start(ctx_);
	};
	serve(status_frame(1, demo_id, 7) + status_frame(2, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call: 7", "call: 0"));
}

TEST_F(bus_client, released_request_may_have_been_completed_within_its_data_callback)
{
	connect();
	auto *request = new call;
	request->start(ctx_);
	hear();
	request->on_data = [this](call *self, blob_attr *) {
		EXPECT_EQ(sync_call(status_frame(1, demo_id, 5)), 0);
		EXPECT_TRUE(self->status_msg);
		EXPECT_TRUE(list_empty(&self->list));
		note("end of callback");
	};
	request->on_complete = [](call *self) { delete self; };
	serve(data_frame(1, demo_id, "1234"));
	EXPECT_THAT(take_events(), ElementsAre("call data 1234", "end of callback", "call: 5"));
}

TEST_F(bus_client, blocked_request_gets_further_data_after_the_callback_the_latest_first)
{
	connect();
	call request;
	request.start(ctx_);
	hear();
	request.on_data = [this](call *self, blob_attr *) {
		self->on_data = nullptr;
		sync_call(data_frame(1, demo_id, "two ") + data_frame(1, demo_id, "tri ") +
			  status_frame(1, demo_id, 0));
		note("end of callback");
	};
	serve(data_frame(1, demo_id, "one "));
	EXPECT_THAT(take_events(), ElementsAre("call data one ", "end of callback", "call data tri ",
					   "call data two ", "call: 0"));
}

TEST_F(bus_client, request_aborted_in_its_data_callback_hears_nothing_more)
{
	connect();
	call request;
	request.start(ctx_);
	hear();
	request.on_data = [this](call *self, blob_attr *) {
		sync_call(data_frame(1, demo_id, "two ") + data_frame(1, demo_id, "tri "));
		ubus_abort_request(ctx_, self);
		EXPECT_TRUE(list_empty(&self->pending));
	};
	serve(data_frame(1, demo_id, "one "));
	serve(status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call data one "));
	EXPECT_TRUE(request.cancelled);
	EXPECT_FALSE(request.blocked);
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, request_that_ended_during_its_data_callback_cannot_be_aborted_any_more)
{
	connect();
	call request;
	request.start(ctx_);
	hear();
	request.on_data = [this](call *self, blob_attr *) {
		sync_call(status_frame(1, demo_id, 5));
		ubus_abort_request(ctx_, self);
		EXPECT_FALSE(self->cancelled);
	};
	serve(data_frame(1, demo_id, "one "));
	EXPECT_THAT(take_events(), ElementsAre("call data one ", "call: 5"));
}

TEST_F(bus_client, request_aborted_while_the_connection_is_lost_in_its_data_callback_never_completes)
{
	connect();
	call request, other("other");
	request.start(ctx_);
	other.start(ctx_);
	other.on_complete = [&](call *) { ubus_abort_request(ctx_, &request); };
	request.on_data = [this](call *, blob_attr *) {
		shutdown(peer_.get(), SHUT_WR);
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 10);
	};
	serve(data_frame(1, demo_id, "one "));
	EXPECT_THAT(take_events(), ElementsAre("call data one ", "other: 7", "lost", "lost"))
		<< "the inner call meets the end, and then the outer one";
}

TEST_F(bus_client, request_aborted_in_its_raw_callback_gets_the_data_of_that_message_and_nothing_else)
{
	connect();
	call request;
	request.start(ctx_);
	request.raw_data_cb = [](ubus_request *req, int, blob_attr *) { ubus_abort_request(req->ctx, req); };
	serve(data_frame(1, demo_id, "one ") + data_frame(1, demo_id, "two ") + status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call data one "));
}

TEST_F(bus_client, aborted_request_is_never_called_back)
{
	connect();
	call request;
	request.start(ctx_);
	ubus_abort_request(ctx_, &request);
	EXPECT_TRUE(request.cancelled);
	EXPECT_TRUE(list_empty(&request.list));
	EXPECT_TRUE(list_empty(&ctx_->requests));
	ubus_abort_request(ctx_, &request);
	serve(data_frame(1, demo_id, "one ") + status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_client, abort_does_not_read_the_context)
{
	connect();
	call linked, unlinked;
	linked.start(ctx_);
	unlinked.invoke(ctx_);
	auto *nowhere = reinterpret_cast<ubus_context *>(uintptr_t{64});
	ubus_abort_request(nowhere, &linked);
	ubus_abort_request(nowhere, &unlinked);
	EXPECT_TRUE(list_empty(&ctx_->requests));
	EXPECT_TRUE(linked.cancelled);
	EXPECT_FALSE(unlinked.cancelled);
}

TEST_F(bus_client, completed_request_is_left_alone_by_an_abort)
{
	connect();
	call request;
	request.start(ctx_);
	serve(status_frame(1, demo_id, 0));
	ubus_abort_request(ctx_, &request);
	EXPECT_FALSE(request.cancelled);
	EXPECT_THAT(take_events(), ElementsAre("call: 0"));
}

TEST_F(bus_client, other_requests_may_be_aborted_in_a_completion)
{
	connect();
	call first("first"), second("second"), third("third");
	for (call *each : {&first, &second, &third})
		each->start(ctx_);
	second.on_complete = [&](call *) {
		ubus_abort_request(ctx_, &first);
		ubus_abort_request(ctx_, &third);
	};
	serve(status_frame(2, demo_id, 0) + status_frame(1, demo_id, 0) + status_frame(3, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("second: 0"));
}

TEST_F(bus_client, a_thousand_requests_are_answered_in_any_order)
{
	connect();
	std::list<call> requests;
	std::vector<uint16_t> order;
	for (int i = 0; i < 1000; ++i) {
		requests.emplace_back(std::to_string(i + 1));
		requests.back().start(ctx_);
		order.push_back(requests.back().seq);
		ASSERT_EQ(hear().seq(), i + 1);
	}
	std::mt19937 random(5);
	std::shuffle(order.begin(), order.end(), random);
	strings expected;
	for (uint16_t seq : order) {
		serve(status_frame(seq, demo_id, seq % 10U));
		expected.push_back(std::to_string(seq) + ": " + std::to_string(seq % 10));
	}
	EXPECT_EQ(take_events(), expected);
}

TEST_F(bus_client, message_above_a_mebibyte_is_refused_and_nothing_is_sent)
{
	connect();
	buffer b;
	// The whole blob is 4 + 8 + 8 + 4 + 4 + 4 and the value.
	size_t value_length = wire::body_bytes_max - 32;
	std::string value(value_length + 1, 'x');
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "", value.data(), static_cast<unsigned>(value_length + 1));
	call request;
	EXPECT_EQ(request.invoke(ctx_, demo_id, "m", b.head), 2);
	EXPECT_EQ(request.seq, 0);
	EXPECT_EQ(ctx_->request_seq, 0) << "it takes no sequence number";
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_TRUE(silence());
}

// libubus leaves null links in it.
TEST_F(standin_client, request_refused_for_its_length_may_be_aborted)
{
	connect();
	buffer b;
	std::string value(wire::body_bytes_max, 'x');
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "", value.data(), wire::body_bytes_max);
	call request;
	EXPECT_EQ(request.invoke(ctx_, demo_id, "m", b.head), 2);
	EXPECT_TRUE(list_empty(&request.list));
	ubus_abort_request(ctx_, &request);
}

TEST_F(bus_client, reply_above_a_mebibyte_is_sent_for_the_daemon_to_refuse)
{
	connect();
	buffer b;
	std::string value(wire::body_bytes_max, 'x');
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "", value.data(), wire::body_bytes_max);
	size_t whole = 8 + 4 + 8 + blob_pad_len(b.head);
	std::string received;
	std::thread reader([&] { received = read_exactly(peer_.get(), whole); });
	ubus_request_data answered{};
	EXPECT_EQ(ubus_send_reply(ctx_, &answered, b.head), 0);
	reader.join();
	EXPECT_EQ(received.size(), whole);
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, message_of_a_mebibyte_is_sent_as_the_socket_takes_it)
{
	connect();
	buffer b;
	size_t value_length = wire::body_bytes_max - 32;
	std::string value(value_length, 'x');
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "", value.data(), static_cast<unsigned>(value_length));
	wire::received frame;
	std::thread reader([&] { frame = hear(); });
	call request;
	EXPECT_EQ(request.invoke(ctx_, demo_id, "m", b.head), 0);
	reader.join();
	EXPECT_EQ(frame.bytes.size(), size_t{8 + wire::body_bytes_max});
	EXPECT_EQ(frame.find(wire::attr_data).value_or("").substr(8), value);
}

TEST_F(bus_client, failed_write_is_an_invalid_argument_and_no_signal)
{
	connect();
	call waiting("waiting"), request;
	waiting.start(ctx_);
	close_peer();
	EXPECT_EQ(request.invoke(ctx_), 2);
	EXPECT_TRUE(ctx_->sock.eof);
	EXPECT_TRUE(list_empty(&request.list));
	EXPECT_THAT(take_events(), IsEmpty());
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 2);
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, nullptr, nullptr, 0), 2);
	ubus_request_data answered{};
	EXPECT_EQ(ubus_send_reply(ctx_, &answered, nullptr), 5);
	EXPECT_THAT(take_events(), IsEmpty());
	serve();
	EXPECT_THAT(take_events(), ElementsAre("waiting: 7", "lost"));
}

// libubus lets the signal happen.
TEST_F(standin_client, survives_a_failed_write_even_where_the_signal_is_deadly_again)
{
	connect();
	close_peer();
	expect_in_child([this] {
		signal(SIGPIPE, SIG_DFL);
		call request;
		EXPECT_EQ(request.invoke(ctx_), 2);
	});
}

TEST_F(bus_client, lost_connection_ends_all_requests_the_latest_first)
{
	connect();
	call first("first"), second("second"), aborted("aborted");
	first.start(ctx_);
	aborted.start(ctx_);
	second.start(ctx_);
	ubus_abort_request(ctx_, &aborted);
	say(data_frame(1, demo_id, "last"));
	close_peer();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("first data last", "second: 7", "first: 7", "lost"));
	EXPECT_TRUE(ctx_->sock.eof);
	EXPECT_TRUE(list_empty(&ctx_->requests));
	serve();
	EXPECT_THAT(take_events(), ElementsAre("lost"));
}

TEST_F(bus_client, request_may_be_released_or_abort_others_when_the_connection_is_lost)
{
	connect();
	auto *first = new call("first"), *third = new call("third");
	call second("second");
	first->start(ctx_);
	second.start(ctx_);
	third->start(ctx_);
	first->on_complete = [](call *self) { delete self; };
	third->on_complete = [&](call *self) {
		ubus_abort_request(ctx_, &second);
		delete self;
	};
	close_peer();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("third: 7", "first: 7", "lost"));
}

TEST_F(bus_client, requests_made_while_the_connection_is_lost_end_at_once)
{
	connect();
	call request;
	request.start(ctx_);
	request.on_complete = [this](call *self) {
		self->on_complete = nullptr;
		self->start(ctx_);
	};
	shutdown(peer_.get(), SHUT_WR); // the client can write, but hears nothing any more
	serve();
	EXPECT_THAT(take_events(), ElementsAre("call: 7", "call: 7", "lost"));
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, context_may_be_freed_when_the_connection_is_lost)
{
	connect();
	ctx_->connection_lost = [](ubus_context *ctx) {
		ubus_free(ctx);
		note("freed");
	};
	call request;
	request.start(ctx_);
	close_peer();
	serve();
	ctx_ = nullptr;
	EXPECT_THAT(take_events(), ElementsAre("call: 7", "freed"));
}

TEST_F(bus_client, nothing_to_read_is_no_event)
{
	connect();
	serve();
	EXPECT_THAT(take_events(), IsEmpty());
	EXPECT_FALSE(ctx_->sock.eof);
}

TEST_F(bus_client, message_in_pieces_is_waited_for)
{
	connect();
	call request;
	request.start(ctx_);
	std::string bytes = data_frame(1, demo_id, json_data) + status_frame(1, demo_id, 0);
	say(bytes.substr(0, 1));
	std::thread daemon([&] {
		for (char byte : bytes.substr(1))
			write_all(peer_.get(), std::string(1, byte));
	});
	ubus_handle_event(ctx_);
	daemon.join();
	serve(); // what was not there yet at the first turn
	EXPECT_THAT(take_events(), ElementsAre("call data " + json_data, "call: 0"));
}

TEST_F(bus_client, several_messages_are_processed_by_one_event_before_the_first_synchronous_call)
{
	connect();
	call first("first"), second("second");
	first.start(ctx_);
	second.start(ctx_);
	serve(status_frame(1, demo_id, 0) + status_frame(2, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("first: 0", "second: 0"));
	hear();
	hear();

	sync_call();
	call third("third"), fourth("fourth");
	third.start(ctx_);
	fourth.start(ctx_);
	serve(status_frame(4, demo_id, 0) + status_frame(5, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("third: 0"));
	EXPECT_TRUE(wait_for(ctx_->sock.fd, POLLIN, 0)) << "level-triggered watching must go on";
	serve();
	EXPECT_THAT(take_events(), ElementsAre("fourth: 0"));
}

// ---- Waiting ----

TEST_F(bus_client, synchronous_call_returns_the_status)
{
	connect();
	auto on_data = [](ubus_request *req, int, blob_attr *msg) {
		EXPECT_EQ(req->priv, static_cast<void *>(&events));
		note("data " + payload(msg));
	};
	say(data_frame(1, demo_id, "one ") + data_frame(1, demo_id, "two ") + status_frame(1, demo_id, 9));
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, on_data, &events, 0), 9);
	EXPECT_THAT(take_events(), ElementsAre("data one ", "data two "));
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, synchronous_call_gives_up_after_its_time)
{
	connect();
	int64_t start_ms = now_ms();
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, nullptr, nullptr, 30), 7);
	EXPECT_GE(now_ms() - start_ms, 29);
	EXPECT_TRUE(list_empty(&ctx_->requests));
	serve(status_frame(1, demo_id, 0));
	EXPECT_EQ(sync_call(), 0);
}

TEST_F(bus_client, synchronous_call_gives_up_although_other_messages_keep_coming)
{
	connect();
	std::atomic<bool> stop{false};
	std::thread daemon([&] {
		while (!stop && write_all(peer_.get(), status_frame(999, 1, 0)))
			;
	});
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, nullptr, nullptr, 50), 7);
	stop = true;
	while (wait_for(ctx_->sock.fd, POLLIN, 20))
		serve();
	daemon.join();
}

TEST_F(bus_client, completion_callback_of_a_waiting_call_gets_the_result_at_the_end)
{
	connect();
	call request;
	request.invoke(ctx_);
	say(status_frame(1, demo_id, 4));
	EXPECT_EQ(wait_for_call(&request), 4);
	EXPECT_THAT(take_events(), ElementsAre("call: 4"));
	request.invoke(ctx_);
	EXPECT_EQ(wait_for_call(&request, 1), 7);
	EXPECT_THAT(take_events(), ElementsAre("call: 7"));
	request.invoke(ctx_);
	close_peer();
	EXPECT_EQ(wait_for_call(&request), 10);
	EXPECT_THAT(take_events(), ElementsAre("lost", "call: 10"));
}

TEST_F(bus_client, synchronous_call_that_notices_the_loss_fails_with_10_after_the_others)
{
	connect();
	call first("first"), second("second");
	first.start(ctx_);
	second.start(ctx_);
	shutdown(peer_.get(), SHUT_WR);
	uint32_t id = 77;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 10);
	EXPECT_EQ(id, 77U);
	EXPECT_THAT(take_events(), ElementsAre("second: 7", "first: 7", "lost"));
	EXPECT_TRUE(ctx_->sock.eof);
	close_peer();
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 2);
}

TEST_F(bus_client, answer_that_came_before_the_loss_counts)
{
	connect();
	say(status_frame(1, 0, 4));
	shutdown(peer_.get(), SHUT_WR);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 4);
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_client, loss_noticed_in_a_nested_call_ends_the_outer_one_as_well)
{
	connect();
	call outer("outer");
	outer.invoke(ctx_);
	outer.want_data();
	outer.on_data = [this](call *, blob_attr *) {
		shutdown(peer_.get(), SHUT_WR);
		uint32_t id = 0;
		note("inner: " + std::to_string(ubus_lookup_id(ctx_, "x", &id)));
	};
	say(data_frame(1, demo_id, "one "));
	EXPECT_EQ(wait_for_call(&outer), 10);
	EXPECT_THAT(take_events(), ElementsAre("outer data one ", "lost", "inner: 10", "lost", "outer: 10"));
}

// libubus waits for ever.
TEST_F(standin_client, waiting_call_aborted_in_its_own_data_callback_returns)
{
	connect();
	call request;
	request.invoke(ctx_);
	request.want_data();
	request.on_data = [this](call *self, blob_attr *) { ubus_abort_request(ctx_, self); };
	say(data_frame(1, demo_id, "one ") + status_frame(1, demo_id, 0));
	EXPECT_EQ(ubus_complete_request(ctx_, &request, 0), 5);
	EXPECT_THAT(take_events(), ElementsAre("call data one "));
}

TEST_F(bus_client, asynchronous_requests_complete_inside_a_synchronous_call)
{
	connect();
	call request;
	request.start(ctx_);
	hear();
	EXPECT_EQ(sync_call(data_frame(1, demo_id, "one ") + status_frame(1, demo_id, 0)), 0);
	EXPECT_THAT(take_events(), ElementsAre("call data one ", "call: 0"));
}
