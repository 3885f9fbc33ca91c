// libubus: both sides of a subscription, and events.
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"

using testing::ElementsAre;
using testing::IsEmpty;

// ---- Subscribers ----

class bus_subscriber : public bus_client
{
protected:
	subscriber sub_;

	void SetUp() override
	{
		bus_client::SetUp();
		connect();
		say(added_frames(1, subscriber_id));
		ASSERT_EQ(ubus_register_subscriber(ctx_, &sub_), 0);
		ASSERT_EQ(hear_bytes(), wire::frame(wire::add_object, 1, 0));
	}
};

TEST_F(bus_subscriber, subscribes_as_recorded)
{
	ctx_->request_seq = 8;
	say(status_frame(9, 0, 0));
	EXPECT_EQ(ubus_subscribe(ctx_, &sub_, demo_id), 0);
	EXPECT_EQ(hear_bytes(), hex("00080009 00000000 00000014 03000008 aa08ac77 08000008 fa7a1947"));
	say(status_frame(10, 0, 4));
	EXPECT_EQ(ubus_unsubscribe(ctx_, &sub_, demo_id), 4);
	EXPECT_EQ(hear_bytes(), hex("0009000a 00000000 00000014 03000008 aa08ac77 08000008 fa7a1947"));
	close_peer();
	EXPECT_EQ(ubus_subscribe(ctx_, &sub_, demo_id), 2);
}

TEST_F(bus_subscriber, is_notified_and_its_result_is_the_status)
{
	serve(hex("00050002 fc8b6722 00000050 0a000005 01000000 03000008 aa08ac77"
		  "04000009 7469636b 00000000 0c000009 726f6f74 00000000 0d000009 726f6f74 00000000"
		  "07000018") +
		json_data);
	EXPECT_TRUE(silence());
	sub_.result = 8;
	serve(invoke_frame(3, subscriber_id, "tock"));
	EXPECT_EQ(hear_bytes(), call_status(3, 8, subscriber_id));
	EXPECT_THAT(take_events(), ElementsAre("notified tick " + json_data, "notified tock "));
	sub_.cb = nullptr;
	serve(invoke_frame(4, subscriber_id, "tock"));
	EXPECT_EQ(hear_bytes(), call_status(4, 0, subscriber_id));
}

TEST_F(bus_subscriber, is_told_when_the_object_has_gone)
{
	serve(hex("00090001 00000000 00000014 03000008 aa08ac77 08000008 fa7a1947"));
	EXPECT_THAT(take_events(), ElementsAre("gone " + std::to_string(demo_id)));
	EXPECT_TRUE(silence());
	EXPECT_EQ(sub_.obj.id, subscriber_id);
	sub_.remove_cb = nullptr;
	serve(gone_frame(subscriber_id, demo_id));
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_subscriber, is_told_before_a_synchronous_call_returns)
{
	EXPECT_EQ(sync_call(gone_frame(subscriber_id, demo_id)), 0);
	EXPECT_THAT(take_events(), ElementsAre("gone " + std::to_string(demo_id)));
}

TEST_F(bus_subscriber, may_subscribe_again_in_its_callback)
{
	sub_.on_gone = [this](subscriber *self, uint32_t id) {
		say(status_frame(2, 0, 0));
		EXPECT_EQ(ubus_subscribe(ctx_, self, id + 1), 0);
	};
	serve(gone_frame(subscriber_id, demo_id));
	EXPECT_EQ(hear().type(), wire::subscribe);
}

TEST_F(bus_subscriber, removed_one_hears_nothing_more)
{
	say(added_frames(2, subscriber_id));
	EXPECT_EQ(ubus_remove_object(ctx_, &sub_.obj), 0);
	hear();
	serve(gone_frame(subscriber_id, demo_id) + invoke_frame(3, subscriber_id, "tick"));
	serve();
	EXPECT_THAT(take_events(), IsEmpty());
	EXPECT_EQ(hear_bytes(), answer_to_nobody(4));
}

TEST_F(bus_subscriber, is_unregistered_like_an_object)
{
	say(added_frames(2, subscriber_id));
	EXPECT_EQ(ubus_unregister_subscriber(ctx_, &sub_), 0);
	EXPECT_EQ(sub_.obj.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 0U);
}

TEST_F(bus_subscriber, removal_message_to_a_plain_object_is_ignored)
{
	object plain;
	add(&plain, demo_id);
	serve(gone_frame(demo_id, 5000) + gone_frame(demo_id + 1, 5000) +
		wire::frame(wire::unsubscribe, 1, 0, wire::number(wire::attr_objid, subscriber_id)) +
		wire::frame(wire::unsubscribe, 1, 0));
	for (int i = 0; i < 4; ++i)
		serve();
	EXPECT_THAT(take_events(), IsEmpty());
	EXPECT_TRUE(silence());
}

TEST_F(standin_client, refuses_automatic_subscriptions)
{
	connect();
	subscriber automatic;
	automatic.new_obj_cb = [](ubus_context *, ubus_subscriber *, const char *) { return true; };
	EXPECT_EQ(ubus_register_subscriber(ctx_, &automatic), 8);
	EXPECT_TRUE(silence());
}

// ---- The notifying side ----

class bus_notifier : public bus_client
{
protected:
	object demo_;
	buffer msg_;

	void SetUp() override
	{
		bus_client::SetUp();
		connect();
		add(&demo_, demo_id);
		blobmsg_add_field(&msg_, BLOBMSG_TYPE_UNSPEC, "json", "{\"a\":1}", 7);
	}
	static std::string list_frame(uint32_t seq, const std::vector<uint32_t> &ids)
	{
		std::string list;
		for (uint32_t id : ids)
			list += wire::number(0, id);
		return wire::frame(wire::status, seq, demo_id,
			wire::number(wire::attr_objid, demo_id) +
				wire::attribute(wire::attr_subscribers, list) +
				wire::number(wire::attr_status, 0));
	}
	static std::string subscriber_status(uint32_t seq, uint32_t id, uint32_t status)
	{
		return wire::frame(wire::status, seq, id,
			wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, id));
	}
};

TEST_F(bus_notifier, has_subscribers_as_it_is_told)
{
	serve(hex("000a0001 00000000 00000014 03000008 fa7a1947 09000005 01000000"));
	EXPECT_TRUE(demo_.has_subscribers);
	serve(active_frame(demo_id, 0));
	EXPECT_FALSE(demo_.has_subscribers);
	serve(wire::frame(wire::notify, 1, 0, wire::number(wire::attr_objid, demo_id)));
	serve(active_frame(demo_id + 1, 1));
	demo_.subscribe_cb = nullptr;
	serve(active_frame(demo_id, 1));
	EXPECT_TRUE(demo_.has_subscribers);
	EXPECT_THAT(take_events(), ElementsAre("subscribed", "unsubscribed"));
	EXPECT_TRUE(silence());
}

TEST_F(bus_notifier, does_not_wait_for_notifications_without_reply)
{
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tick", msg_.head, -1), 0);
	EXPECT_EQ(hear_bytes(), hex("000a0002 fa7a1947 00000038 03000008 fa7a1947"
				    "04000009 7469636b 00000000 07000018") +
					json_data + hex("0a000005 01000000"));
	close_peer();
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tick", msg_.head, -1), 0) << "although the write failed";
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tick", msg_.head, 0), 10) << "the answer is waited for";
}

TEST_F(bus_notifier, waits_for_all_subscribers_and_keeps_their_statuses_to_itself)
{
	say(hex("00010002 fa7a1947 00000020 03000008 fa7a1947 0b00000c 00000008 aa08ac77 01000008 00000000") +
		subscriber_status(2, subscriber_id, 9));
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tock", msg_.head, 0), 0);
	EXPECT_EQ(hear_bytes(), hex("000a0002 fa7a1947 00000030 03000008 fa7a1947"
				    "04000009 746f636b 00000000 07000018") +
					json_data);
	say(list_frame(3, {}));
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tock", msg_.head, 0), 0);
	say(status_frame(4, demo_id, 6));
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tock", msg_.head, 0), 0) << "refused by the daemon";
	say(list_frame(5, {2000, 2001}) + subscriber_status(5, 2001, 0));
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tock", msg_.head, 20), 7);
	EXPECT_TRUE(list_empty(&ctx_->requests));
	shutdown(peer_.get(), SHUT_WR);
	EXPECT_EQ(ubus_notify(ctx_, &demo_, "tock", msg_.head, 0), 10);
}

TEST_F(bus_notifier, connection_that_breaks_inside_the_last_status_ends_it_once)
{
	notification request;
	request.start(ctx_, &demo_);
	request.status_cb = [](ubus_notify_request *self, int, int) {
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(self->req.ctx, "x", &id), UBUS_STATUS_CONNECTION_FAILED);
	};
	say(list_frame(2, {2000}) + subscriber_status(2, 2000, 0));
	shutdown(peer_.get(), SHUT_WR);
	serve();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("complete 0: 0", "lost", "lost"));
}

TEST_F(bus_notifier, hears_each_subscriber_and_then_the_end)
{
	notification request;
	request.start(ctx_, &demo_);
	EXPECT_TRUE(request.req.notify);
	EXPECT_EQ(request.pending, 1U);
	EXPECT_EQ(request.id[0], demo_id);
	serve(list_frame(2, {2000, 2001, 2000}));
	EXPECT_EQ(request.pending, 0xeU);
	EXPECT_EQ(request.id[2], 2001U);
	for (const std::string &frame : {subscriber_status(2, 2001, 3), data_frame(2, 2000, "data"),
		     subscriber_status(2, 5000, 1), subscriber_status(2, 2000, 0)})
		serve(frame);
	EXPECT_THAT(take_events(), ElementsAre("status 2: 3", "data data", "status 1: 0"));
	serve(subscriber_status(2, 2000, 5));
	EXPECT_THAT(take_events(), ElementsAre("status 3: 5", "complete 0: 0"));
	EXPECT_EQ(request.pending, 0U);
	serve(subscriber_status(2, 2000, 5));
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_notifier, waits_for_sixteen_subscribers_at_most)
{
	notification request;
	request.start(ctx_, &demo_);
	std::vector<uint32_t> ids;
	for (uint32_t id = 2000; id < 2100; ++id)
		ids.push_back(id);
	serve(list_frame(2, ids));
	EXPECT_EQ(request.pending, 0x1fffeU);
	for (uint32_t id = 2099; id >= 2000; --id)
		serve(subscriber_status(2, id, 0));
	strings seen = take_events();
	ASSERT_EQ(seen.size(), 17U);
	EXPECT_EQ(seen.front(), "status 16: 0");
	EXPECT_EQ(seen.back(), "complete 0: 0");
}

TEST_F(bus_notifier, notification_ends_with_the_connection_as_if_all_had_answered)
{
	notification request, aborted;
	request.start(ctx_, &demo_);
	aborted.start(ctx_, &demo_);
	serve(list_frame(2, {2000}));
	ubus_abort_request(ctx_, &aborted.req);
	close_peer();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("complete 0: 0", "lost"));
}

TEST_F(bus_notifier, malformed_lists_of_subscribers_are_survived)
{
	for (const std::string &list : {wire::octet(0, 1), wire::attribute(0, "12345678"), hex("00000000"),
		     hex("00ffffff"), hex("00000001"), std::string("1")}) {
		notification request;
		request.start(ctx_, &demo_);
		serve(wire::frame(wire::status, ctx_->request_seq, demo_id,
			wire::attribute(wire::attr_subscribers, list)));
		EXPECT_THAT(take_events(), ElementsAre("complete 0: 0"));
	}
}

// ---- Events ----

TEST_F(bus_client, listener_is_registered_as_recorded)
{
	connect();
	listener ev;
	say(added_frames(1, listener_id) + status_frame(2, 1, 0));
	EXPECT_EQ(ubus_register_event_handler(ctx_, &ev, "ubus.object.*"), 0);
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 1, 0));
	EXPECT_EQ(
		hear_bytes(), hex("00050002 00000001 00000054"
				  "03000008 00000001 0400000d 72656769 73746572 00000000"
				  "07000038 85000014 00066f62 6a656374 00000000 c61fe656"
				  "8300001e 00077061 74746572 6e000000 75627573 2e6f626a 6563742e 2a000000"));
	std::string data =
		hex("85000010 00026964 00000000 fa7a1947 83000011 00047061 74680000 64656d6f 00000000");
	serve(hex("00050001 00000000 00000048 03000008 c61fe656 04000014 75627573 2e6f626a 6563742e 61646400"
		  "07000028") +
		data);
	EXPECT_THAT(take_events(), ElementsAre("ubus.object.add " + data));
	EXPECT_EQ(hear().status(), 0);

	say(status_frame(3, 1, 6));
	EXPECT_EQ(ubus_register_event_handler(ctx_, &ev, "x"), 6);
	EXPECT_EQ(hear().type(), wire::invoke) << "the object is there already";
	say(added_frames(4, listener_id));
	EXPECT_EQ(ubus_unregister_event_handler(ctx_, &ev), 0);
	EXPECT_EQ(ev.obj.id, 0U);
	say(status_frame(5, 0, 6));
	EXPECT_EQ(ubus_register_event_handler(ctx_, &ev, "x"), 6) << "the object is refused";
}

static std::string event_frame(uint32_t seq, const std::string &id, const std::string &table)
{
	return wire::frame(wire::invoke, seq, 1,
		wire::number(wire::attr_objid, 1) + wire::text(wire::attr_method, "send") +
			wire::attribute(wire::attr_data,
				wire::named_text("id", id) + wire::named(wire::table, "data", table)));
}

TEST_F(bus_client, event_is_sent_with_its_data_in_a_table)
{
	connect();
	buffer data;
	blobmsg_add_u32(&data, "n", 5);
	buffer empty;
	say(status_frame(1, 1, 0) + status_frame(2, 1, 6));
	EXPECT_EQ(ubus_send_event(ctx_, "my.event", data.head), 0);
	EXPECT_EQ(ubus_send_event(ctx_, "ubus.x", empty.head), 6);
	EXPECT_EQ(hear_bytes(), event_frame(1, "my.event", wire::named_number("n", 5)));
	EXPECT_EQ(hear_bytes(), event_frame(2, "ubus.x", ""));
}

// libubus reads them.
TEST_F(standin_client, event_needs_no_data)
{
	connect();
	say(status_frame(1, 1, 0));
	EXPECT_EQ(ubus_send_event(ctx_, "my.event", nullptr), 0);
	EXPECT_EQ(hear_bytes(), event_frame(1, "my.event", ""));
}
