// libubus: objects that are looked up, objects of our own, and the queue of what is told to them.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"

using testing::ElementsAre;
using testing::IsEmpty;

// ---- Looking up ----

TEST_F(bus_client, object_is_looked_up_as_recorded)
{
	connect();
	ctx_->request_seq = 2;
	say(hex("00020003 00000000 00000054"
		"02000009 64656d6f 00000000 03000008 fa7a1947 05000008 ae8c6041"
		"06000034"
		"82000024 00046563 686f0000 8500000c 00016e00 00000005 8500000c 00017300 00000003"
		"8200000c 00046661 696c0000") +
		status_frame(3, 0, 0) + hex("00010004 00000000 0000000c 01000008 00000004"));
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "demo", &id), 0);
	EXPECT_EQ(id, demo_id);
	EXPECT_EQ(hear_bytes(), hex("00040003 00000000 00000010 02000009 64656d6f 00000000"));
	EXPECT_EQ(ubus_lookup_id(ctx_, "nope", &id), 4);
	EXPECT_EQ(id, demo_id) << "is left alone";
}

TEST_F(bus_client, lookup_without_data_leaves_the_id_alone)
{
	connect();
	uint32_t id = 77;
	say(status_frame(1, 0, 0) + wire::frame(wire::data, 2, 0, wire::octet(wire::attr_objid, 1)) +
		status_frame(2, 0, 0));
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 0);
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 0);
	EXPECT_EQ(id, 77U);
}

TEST_F(bus_client, lookup_of_a_pattern_gives_the_last_id_and_every_object)
{
	connect();
	uint32_t id = 0;
	say(found_frame(1, 2000, "a") + found_frame(1, 3000, "b") + status_frame(1, 0, 0));
	EXPECT_EQ(ubus_lookup_id(ctx_, "*", &id), 0);
	EXPECT_EQ(id, 3000U);
	EXPECT_EQ(hear().text(wire::attr_objpath), "*");

	auto on_object = [](ubus_context *ctx, ubus_object_data *data, void *priv) {
		EXPECT_EQ(ctx, priv);
		EXPECT_EQ(data->type_id, demo_type);
		EXPECT_EQ(blob_raw_len(data->signature), 4U);
		note(std::string(data->path) + " " + std::to_string(data->id));
	};
	say(found_frame(2, 2000, "a") + wire::frame(wire::data, 2, 0, wire::number(wire::attr_objid, 5)) +
		found_frame(2, 3000, "b") + status_frame(2, 0, 0));
	EXPECT_EQ(ubus_lookup(ctx_, nullptr, on_object, ctx_), 0);
	EXPECT_THAT(take_events(), ElementsAre("a 2000", "b 3000"));
	EXPECT_EQ(hear_bytes(), wire::frame(wire::lookup, 2, 0));
	say(status_frame(3, 0, 4));
	EXPECT_EQ(ubus_lookup(ctx_, "no*", on_object, ctx_), 4);
}

// libubus reads the other messages into the same buffer.
TEST_F(standin_client, found_object_lives_as_long_as_its_callback_whatever_that_reads)
{
	connect();
	auto on_object = [](ubus_context *ctx, ubus_object_data *data, void *) {
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
		note(data->path);
		EXPECT_EQ(blob_raw_len(data->signature), 4U);
	};
	say(found_frame(1, 2000, "a") +
		wire::frame(wire::data, 9, 9, wire::text(1, std::string(100'000, 'x'))) +
		status_frame(2, 0, 0) + status_frame(1, 0, 0));
	EXPECT_EQ(ubus_lookup(ctx_, nullptr, on_object, nullptr), 0);
	EXPECT_THAT(take_events(), ElementsAre("a"));
}

// libubus leaves the first one linked, and waits for the second for ever.
TEST_F(standin_client, waiting_for_a_request_that_has_ended_leaves_it_unlinked)
{
	connect();
	call ended;
	ended.start(ctx_);
	EXPECT_EQ(sync_call(status_frame(1, demo_id, 4)), 0);
	EXPECT_THAT(take_events(), ElementsAre("call: 4"));
	EXPECT_EQ(ubus_complete_request(ctx_, &ended, 0), 4);
	EXPECT_TRUE(list_empty(&ctx_->requests));
	call aborted;
	aborted.start(ctx_);
	ubus_abort_request(ctx_, &aborted);
	ubus_complete_request(ctx_, &aborted, 0);
	EXPECT_TRUE(list_empty(&ctx_->requests));
}

TEST_F(bus_client, data_that_claims_to_have_a_name_reaches_the_callback_all_the_same)
{
	connect();
	call request;
	request.start(ctx_);
	std::string named = wire::attribute(wire::attr_data, "");
	named[0] = static_cast<char>(named[0] | 0x80);
	serve(wire::frame(wire::data, 1, demo_id, wire::number(wire::attr_objid, demo_id) + named) +
		status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call data ", "call: 0"));
}

// ---- Objects ----

TEST_F(bus_client, object_is_added_as_recorded)
{
	connect();
	ubus_object_type type = make_demo_type();
	object demo("demo", &type);
	say(hex("00020001 00000000 00000014 03000008 fa7a1947 05000008 ae8c6041"
		"00010001 00000000 0000000c 01000008 00000000"));
	EXPECT_EQ(ubus_add_object(ctx_, &demo), 0);
	EXPECT_EQ(hear_bytes(), hex("00060001 00000000 00000044"
				    "02000009 64656d6f 00000000"
				    "06000034"
				    "82000024 00046563 686f0000"
				    "8500000c 00016e00 00000005 8500000c 00017300 00000003"
				    "8200000c 00046661 696c0000"));
	EXPECT_EQ(demo.id, demo_id);
	EXPECT_EQ(type.id, demo_type);
	EXPECT_EQ(ctx_->objects.count, 1U);

	object again("again", &type);
	say(added_frames(2, demo_id + 1));
	EXPECT_EQ(ubus_add_object(ctx_, &again), 0);
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 2, 0,
					wire::text(wire::attr_objpath, "again") +
						wire::number(wire::attr_objtype, demo_type)));
	EXPECT_EQ(type.id, demo_type) << "the answer had none";
}

TEST_F(bus_client, object_without_a_name_or_a_type_is_added_without_attributes)
{
	connect();
	ubus_object_type type = make_demo_type();
	object typed(nullptr, &type), named("name");
	say(added_frames(1, 2000) + added_frames(2, 3000));
	EXPECT_EQ(ubus_add_object(ctx_, &typed), 0);
	EXPECT_EQ(ubus_add_object(ctx_, &named), 0);
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 1, 0));
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 2, 0));
	EXPECT_EQ(typed.id, 2000U);
	EXPECT_EQ(named.id, 3000U);
}

TEST_F(bus_client, mask_selects_the_arguments_that_are_announced)
{
	connect();
	static const ubus_method methods[] = {UBUS_METHOD_MASK("m", object::handle, echo_arguments, 2),
		UBUS_METHOD_TAG("t", object::handle, echo_arguments, UBUS_TAG_ADMIN)};
	ubus_object_type type = UBUS_OBJECT_TYPE("masked", methods);
	object masked("masked", &type);
	say(added_frames(1, 2000));
	EXPECT_EQ(ubus_add_object(ctx_, &masked), 0);
	EXPECT_EQ(hear().find(wire::attr_signature),
		wire::named(wire::table, "m", wire::named_number("s", 3)) +
			wire::named(
				wire::table, "t", wire::named_number("n", 5) + wire::named_number("s", 3)));
}

TEST_F(bus_client, object_that_is_refused_is_not_linked)
{
	connect();
	object obj;
	say(status_frame(1, 0, 2));
	EXPECT_EQ(ubus_add_object(ctx_, &obj), 2);
	say(status_frame(2, 0, 0));
	EXPECT_EQ(ubus_add_object(ctx_, &obj), 5) << "no id came";
	EXPECT_EQ(obj.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 0U);
	close_peer();
	EXPECT_EQ(ubus_add_object(ctx_, &obj), 2);
}

TEST_F(bus_client, object_is_linked_as_soon_as_its_id_comes)
{
	connect();
	object obj;
	say(wire::frame(wire::data, 1, 0, wire::number(wire::attr_objid, 2000)) + status_frame(1, 0, 9));
	EXPECT_EQ(ubus_add_object(ctx_, &obj), 9);
	EXPECT_EQ(obj.id, 2000U);
	EXPECT_EQ(ctx_->objects.count, 1U);
}

// libubus has the second one unlink what is not linked.
TEST_F(standin_client, id_given_twice_does_not_break_the_table_of_objects)
{
	connect();
	object first, second;
	add(&first, 2000);
	say(added_frames(2, 2000));
	EXPECT_EQ(ubus_add_object(ctx_, &second), 5);
	EXPECT_EQ(second.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 1U);
	say(added_frames(3, 2000));
	EXPECT_EQ(ubus_remove_object(ctx_, &second), 0);
	EXPECT_EQ(ctx_->objects.count, 1U);
	say(added_frames(4, 2000));
	EXPECT_EQ(ubus_remove_object(ctx_, &first), 0);
	EXPECT_EQ(ctx_->objects.count, 0U);
}

TEST_F(bus_client, object_is_removed_as_recorded)
{
	connect();
	ubus_object_type type = make_demo_type();
	object demo("demo", &type);
	add(&demo, demo_id);
	type.id = demo_type;
	ctx_->request_seq = 3;
	say(wire::frame(wire::data, 4, 0,
		    wire::number(wire::attr_objid, demo_id) + wire::number(wire::attr_objtype, demo_type)) +
		active_frame(demo_id, 0) + status_frame(4, 0, 0));
	EXPECT_EQ(ubus_remove_object(ctx_, &demo), 0);
	EXPECT_EQ(hear_bytes(), hex("00070004 00000000 0000000c 03000008 fa7a1947"));
	EXPECT_EQ(demo.id, 0U);
	EXPECT_EQ(type.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 0U);
	serve(active_frame(demo_id, 0));
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_client, object_that_cannot_be_removed_keeps_its_id_and_place)
{
	connect();
	ubus_object_type type = make_demo_type();
	object demo("demo", &type);
	add(&demo, demo_id);
	type.id = demo_type;
	say(status_frame(2, 0, 6));
	EXPECT_EQ(ubus_remove_object(ctx_, &demo), 6);
	say(status_frame(3, 0, 0));
	EXPECT_EQ(ubus_remove_object(ctx_, &demo), 5);
	EXPECT_EQ(demo.id, demo_id);
	EXPECT_EQ(type.id, demo_type);
	say(added_frames(4, demo_id));
	EXPECT_EQ(ubus_remove_object(ctx_, &demo), 0);
	EXPECT_EQ(type.id, demo_type) << "others have the type still";
}

TEST_F(bus_client, call_is_served_as_recorded)
{
	connect();
	object demo("demo");
	add(&demo, demo_id);
	demo.methods = demo_methods;
	demo.n_methods = 2;
	demo.on_call = [this](object *self, ubus_request_data *req, blob_attr *msg) {
		EXPECT_EQ(self->id, demo_id);
		EXPECT_EQ(req->object, demo_id);
		EXPECT_EQ(req->peer, other_client);
		EXPECT_EQ(req->seq, 5);
		EXPECT_STREQ(req->acl.user, "root");
		EXPECT_STREQ(req->acl.group, "root");
		EXPECT_STREQ(req->acl.object, "demo");
		EXPECT_FALSE(req->deferred);
		EXPECT_EQ(req->fd, -1);
		EXPECT_EQ(ubus_request_get_caller_fd(req), -1);
		EXPECT_EQ(blobmsg_data(msg), blob_data(msg));
		EXPECT_EQ(raw(msg), hex("07000018") + json_data);
		EXPECT_EQ(ubus_send_reply(ctx_, req, msg), 0);
		EXPECT_EQ(ubus_send_reply(ctx_, req, nullptr), 0);
		return 0;
	};
	serve(hex("00050005 618b9132 00000048 03000008 fa7a1947 04000009 6563686f 00000000"
		  "0c000009 726f6f74 00000000 0d000009 726f6f74 00000000 07000018") +
		json_data);
	EXPECT_THAT(take_events(), ElementsAre("call echo"));
	EXPECT_EQ(hear_bytes(), hex("00020005 618b9132 00000024 03000008 fa7a1947 07000018") + json_data);
	EXPECT_EQ(hear_bytes(), hex("00020005 618b9132 00000010 03000008 fa7a1947 07000004"));
	EXPECT_EQ(hear_bytes(), hex("00010005 618b9132 00000014 01000008 00000000 03000008 fa7a1947"));
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, result_of_the_handler_is_the_status)
{
	connect();
	object demo;
	add(&demo, demo_id);
	demo.on_call = [](object *, ubus_request_data *, blob_attr *) { return 11; };
	serve(invoke_frame(9, demo_id, "anything"));
	EXPECT_EQ(hear_bytes(), call_status(9, 11, demo_id));
}

TEST_F(bus_client, first_method_without_a_name_or_of_that_name_is_called)
{
	connect();
	object demo;
	add(&demo, demo_id);
	static const auto named = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method,
					  blob_attr *) {
		note(std::string("named ") + method);
		return 0;
	};
	static const auto rest = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method,
					 blob_attr *) {
		note(std::string("rest ") + method);
		return 0;
	};
	static const ubus_method methods[] = {{"a", named, 0, 0, nullptr, 0},
		{nullptr, rest, 0, 0, nullptr, 0}, {"b", named, 0, 0, nullptr, 0}};
	demo.methods = methods;
	demo.n_methods = 3;
	serve(invoke_frame(1, demo_id, "a") + invoke_frame(2, demo_id, "b"));
	serve();
	EXPECT_THAT(take_events(), ElementsAre("named a", "rest b"));
}

TEST_F(bus_client, call_that_cannot_be_made_is_answered)
{
	connect();
	object demo;
	add(&demo, demo_id);
	demo.methods = demo_methods;
	demo.n_methods = 2;
	auto answer_to = [this](const std::string &frame) {
		serve(frame);
		return hear_bytes();
	};
	std::string id = wire::number(wire::attr_objid, demo_id),
		    method = wire::text(wire::attr_method, "echo"),
		    data = wire::attribute(wire::attr_data, "");
	EXPECT_EQ(answer_to(invoke_frame(1, demo_id + 1, "echo")), answer_to_nobody(4));
	EXPECT_EQ(answer_to(wire::frame(wire::invoke, 2, other_client, id + data)), answer_to_nobody(2));
	EXPECT_EQ(answer_to(wire::frame(wire::invoke, 3, other_client, id + method)),
		call_status(3, 2, demo_id));
	EXPECT_EQ(answer_to(invoke_frame(4, demo_id, "other")), call_status(4, 3, demo_id));
	EXPECT_EQ(answer_to(wire::frame(wire::invoke, 5, other_client,
			  id + wire::attribute(wire::attr_method, "echo") + data)),
		answer_to_nobody(2))
		<< "no NUL";
	serve(wire::frame(wire::invoke, 6, other_client, method + data));
	EXPECT_TRUE(silence()) << "no object";
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST_F(bus_client, deferred_call_is_answered_later)
{
	connect();
	object demo;
	add(&demo, demo_id);
	ubus_request_data later;
	demo.on_call = [&](object *, ubus_request_data *req, blob_attr *) {
		ubus_defer_request(ctx_, req, &later);
		return 9;
	};
	serve(invoke_frame(9, demo_id, "m"));
	EXPECT_TRUE(silence());
	EXPECT_EQ(ubus_send_reply(ctx_, &later, nullptr), 0);
	ubus_complete_deferred_request(ctx_, &later, 6);
	EXPECT_EQ(hear().type(), wire::data);
	EXPECT_EQ(hear_bytes(), call_status(9, 6, demo_id));
}

TEST_F(bus_client, call_without_reply_is_not_answered)
{
	connect();
	object demo;
	add(&demo, demo_id);
	serve(invoke_frame(9, demo_id, "m", "", wire::octet(wire::attr_no_reply, 1)));
	EXPECT_TRUE(silence());
	serve(invoke_frame(10, demo_id, "m", "", wire::octet(wire::attr_no_reply, 0)));
	EXPECT_EQ(hear_bytes(), call_status(10, 0, demo_id));
	EXPECT_THAT(take_events(), ElementsAre("call m", "call m"));
}

TEST_F(bus_client, object_may_be_removed_and_released_in_its_own_handler)
{
	connect();
	auto *demo = new object;
	add(demo, demo_id);
	demo->on_call = [this](object *self, ubus_request_data *, blob_attr *) {
		say(added_frames(2, demo_id));
		EXPECT_EQ(ubus_remove_object(ctx_, self), 0);
		EXPECT_EQ(hear().type(), wire::remove_object);
		delete self;
		return 0;
	};
	serve(invoke_frame(9, demo_id, "m") + invoke_frame(10, demo_id, "m"));
	serve();
	EXPECT_EQ(hear_bytes(), call_status(9, 0, demo_id));
	EXPECT_EQ(hear_bytes(), answer_to_nobody(4));
}

TEST_F(bus_client, message_survives_a_synchronous_call_in_the_handler)
{
	connect();
	object demo;
	add(&demo, demo_id);
	demo.on_call = [this](object *, ubus_request_data *req, blob_attr *msg) {
		EXPECT_EQ(sync_call(data_frame(77, 77, std::string(100'000, 'x'))), 0);
		EXPECT_EQ(payload(msg), json_data);
		EXPECT_STREQ(req->acl.user, "root");
		return 0;
	};
	serve(invoke_frame(9, demo_id, "m", json_data));
	EXPECT_EQ(hear_bytes(), call_status(9, 0, demo_id));
}

// ---- The queue ----

TEST_F(bus_client, calls_that_arrive_during_a_synchronous_call_are_served_before_it_returns)
{
	connect();
	object demo;
	add(&demo, demo_id);
	call request;
	request.start(ctx_);
	hear();
	EXPECT_EQ(sync_call(invoke_frame(1, demo_id, "one") + active_frame(demo_id, 1) +
			    data_frame(2, demo_id, "data") + invoke_frame(2, demo_id, "two")),
		0);
	EXPECT_THAT(take_events(), ElementsAre("call data data", "call one", "subscribed", "call two"));
	EXPECT_EQ(hear_bytes(), call_status(1, 0, demo_id));
	EXPECT_EQ(hear_bytes(), call_status(2, 0, demo_id));
	ubus_abort_request(ctx_, &request);
}

TEST_F(bus_client, no_handler_runs_inside_another)
{
	connect();
	object demo;
	add(&demo, demo_id);
	demo.on_call = [this](object *self, ubus_request_data *, blob_attr *) {
		self->on_call = nullptr;
		sync_call(invoke_frame(2, demo_id, "two") + active_frame(demo_id, 1));
		note("end of one");
		return 0;
	};
	demo.on_subscribers = [this](object *self) {
		self->on_subscribers = nullptr;
		sync_call(invoke_frame(3, demo_id, "three"));
		note("end of subscribers");
	};
	serve(invoke_frame(1, demo_id, "one"));
	EXPECT_THAT(take_events(), ElementsAre("call one", "end of one", "call two", "subscribed",
					   "end of subscribers", "call three"));
}

TEST_F(bus_client, synchronous_call_in_a_data_or_completion_callback_works_the_queue_off)
{
	connect();
	object demo;
	add(&demo, demo_id);
	call request;
	request.start(ctx_);
	hear();
	request.on_data = [this](call *, blob_attr *) {
		sync_call(invoke_frame(1, demo_id, "one"));
		note("end of data");
	};
	request.on_complete = [this](call *) {
		sync_call(invoke_frame(2, demo_id, "two"));
		note("end of completion");
	};
	serve(data_frame(2, demo_id, "data"));
	hear();
	serve(status_frame(2, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call data data", "call one", "end of data", "call: 0",
					   "call two", "end of completion"));
}

TEST_F(bus_client, inner_synchronous_call_leaves_the_queue_to_the_outer_one)
{
	connect();
	object demo;
	add(&demo, demo_id);
	call outer("outer");
	outer.invoke(ctx_);
	outer.want_data();
	hear();
	outer.on_data = [this](call *, blob_attr *) {
		sync_call(invoke_frame(1, demo_id, "one"));
		note("end of data");
		say(status_frame(2, demo_id, 0));
	};
	say(data_frame(2, demo_id, "data"));
	EXPECT_EQ(wait_for_call(&outer), 0);
	EXPECT_THAT(take_events(), ElementsAre("outer data data", "end of data", "outer: 0", "call one"));
}

TEST_F(bus_client, call_of_an_object_being_added_finds_it)
{
	connect();
	object demo;
	say(wire::frame(wire::data, 1, 0, wire::number(wire::attr_objid, demo_id)) +
		invoke_frame(9, demo_id, "early") + status_frame(1, 0, 0));
	EXPECT_EQ(ubus_add_object(ctx_, &demo), 0);
	EXPECT_THAT(take_events(), ElementsAre("call early"));
	hear();
	EXPECT_EQ(hear_bytes(), call_status(9, 0, demo_id));
}

TEST_F(bus_client, what_is_queued_outlives_the_old_connection)
{
	connect();
	object demo;
	add(&demo, demo_id);
	demo.on_call = [this](object *self, ubus_request_data *, blob_attr *) {
		self->on_call = nullptr;
		sync_call(invoke_frame(2, demo_id, "two"));
		EXPECT_FALSE(list_empty(&ctx_->pending));
		serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
			hello + added_frames(3, demo_id));
		EXPECT_EQ(self->id, demo_id);
		return 0;
	};
	serve(invoke_frame(1, demo_id, "one"));
	EXPECT_THAT(take_events(), ElementsAre("call one", "call two"));
}
