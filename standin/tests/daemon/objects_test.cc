// The bus daemon: objects, calls, subscriptions and events, with every refusal and the order of what everybody hears.
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// ---- Adding and removing objects ----

TEST_F(ubusd, taken_path_is_refused_without_data)
{
	raw_client a = connect(), b = connect();
	ASSERT_NE(a.add("demo", demo_signature), 0U);
	EXPECT_THAT(b.answers(wire::add_object, 0, path("demo") + signature("")),
		ElementsAre(final_status(b, 0, 2)));
	EXPECT_THAT(a.answers(wire::add_object, 7, path("demo")), ElementsAre(final_status(a, 7, 2)));
}

TEST_F(ubusd, object_without_a_path_has_no_type)
{
	raw_client a = connect();
	std::vector<received> frames = a.answers(wire::add_object, 0);
	ASSERT_THAT(frames, SizeIs(2));
	EXPECT_THAT(frames[0], data_answer(a, objid(frames[0].number(wire::attr_objid))));
	EXPECT_THAT(frames[1], final_status(a, 0, 0));
}

TEST_F(ubusd, second_object_shares_a_type_and_only_the_last_removal_names_it)
{
	raw_client a = connect(), b = connect();
	std::vector<received> first =
		a.answers(wire::add_object, 0, path("first") + signature(demo_signature));
	uint32_t type = first[0].number(wire::attr_objtype);
	std::string typed = wire::number(wire::attr_objtype, type);
	std::vector<received> second = b.answers(wire::add_object, 0, path("second") + typed);
	uint32_t second_id = second[0].number(wire::attr_objid);
	EXPECT_THAT(second[0], data_answer(b, objid(second_id)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("second"))[0],
		data_answer(a, path("second") + objid(second_id) + typed + signature(demo_signature)));

	uint32_t first_id = first[0].number(wire::attr_objid);
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(first_id))[0], data_answer(a, objid(first_id)));
	EXPECT_THAT(b.answers(wire::remove_object, 0, objid(second_id))[0],
		data_answer(b, objid(second_id) + typed));
	// The type has gone with its last object.
	uint32_t third_id = b.add();
	ASSERT_NE(third_id, 0U);
	b.answers(wire::add_object, 0, path("fourth") + typed);
	EXPECT_THAT(b.answers(wire::lookup, 0, path("fourth")), ElementsAre(final_status(b, 0, 0)));
}

TEST_F(ubusd, object_with_an_unknown_type_or_a_malformed_signature_has_a_path_and_no_type)
{
	raw_client a = connect();
	const std::string unnamed = wire::named(wire::table, "", "");
	const std::string not_extended = wire::number(2, 1);
	const std::string overlong_name = wire::padded(wire::be32(0x8200000c) + wire::be16(400) + "abcdef");
	int count = 0;
	for (const std::string &attributes : {signature(unnamed), signature(not_extended),
		     signature(overlong_name), signature(wire::named(wire::table, "good", "") + unnamed),
		     wire::number(wire::attr_objtype, 0x12345678)}) {
		std::string name = "object" + std::to_string(count++);
		std::vector<received> frames = a.answers(wire::add_object, 0, path(name) + attributes);
		ASSERT_THAT(frames, SizeIs(2)) << name;
		EXPECT_THAT(frames[0], data_answer(a, objid(frames[0].number(wire::attr_objid)))) << name;
		EXPECT_THAT(a.answers(wire::lookup, 0, path(name)), ElementsAre(final_status(a, 0, 0)))
			<< name;
	}
}

TEST_F(ubusd, signature_of_anything_with_names_is_taken_as_it_is)
{
	raw_client a = connect();
	const std::string not_tables = wire::named_text("echo", "no table");
	std::vector<received> added = a.answers(wire::add_object, 0, path("demo") + signature(not_tables));
	ASSERT_THAT(added, SizeIs(2));
	uint32_t id = added[0].number(wire::attr_objid), type = added[0].number(wire::attr_objtype);
	EXPECT_NE(type, 0U);
	EXPECT_THAT(a.answers(wire::lookup, 0, path("demo")),
		ElementsAre(data_answer(a, path("demo") + objid(id) + wire::number(wire::attr_objtype, type) +
						   signature(not_tables)),
			final_status(a, 0, 0)));
}

TEST_F(ubusd, removal_without_an_id_of_an_unknown_and_of_a_foreign_object_is_refused)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add("demo", demo_signature);
	EXPECT_EQ(b.status_of(wire::remove_object, 0), 2);
	EXPECT_EQ(b.status_of(wire::remove_object, 0, wire::octet(wire::attr_objid, 1)), 2);
	EXPECT_EQ(b.remove(object + 1), 4);
	EXPECT_EQ(b.remove(wire::event_object), 6);
	EXPECT_EQ(b.remove(object), 6);
	EXPECT_EQ(a.remove(object), 0);
	EXPECT_EQ(a.remove(object), 4);
	EXPECT_NE(b.add("demo"), 0U) << "the path is free again";
}

TEST_F(ubusd, statuses_repeat_the_sequence_number_and_the_peer_of_the_request)
{
	raw_client a = connect();
	a.send(wire::frame(wire::lookup, 0xabcd, 0x01020304, path("nope")));
	EXPECT_EQ(a.receive(), exactly(wire::status, 0xabcd, 0x01020304, status(4)));
}

// ---- Look-ups ----

TEST_F(ubusd, patterns_are_prefixes_and_results_come_in_order_of_their_bytes)
{
	raw_client a = connect();
	for (const char *name : {"net.b", "net", "net.a", "nex", "\xc3\xa4", "Net", "net.a.b"})
		ASSERT_NE(a.add(name, demo_signature), 0U);
	ASSERT_NE(a.add(), 0U);
	auto found = [&](const std::string &pattern) {
		return paths_in(a.answers(wire::lookup, 0, path(pattern)));
	};
	EXPECT_THAT(found("net.*"), ElementsAre("net.a", "net.a.b", "net.b"));
	EXPECT_THAT(found("ne*"), ElementsAre("net", "net.a", "net.a.b", "net.b", "nex"));
	EXPECT_THAT(found("*"), ElementsAre("Net", "net", "net.a", "net.a.b", "net.b", "nex", "\xc3\xa4"));
	EXPECT_THAT(found("net"), ElementsAre("net"));
	EXPECT_THAT(paths_in(a.answers(wire::lookup, 0)), SizeIs(7));
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("net.*")), 0);
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("zet.*")), 4);
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("n*t")), 4)
		<< "a star stands for something at the end only";
}

TEST_F(ubusd, look_up_of_everything_finds_nothing_and_a_star_alone_fails)
{
	raw_client a = connect();
	EXPECT_THAT(a.answers(wire::lookup, 0), ElementsAre(final_status(a, 0, 0)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("*")), ElementsAre(final_status(a, 0, 4)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("")), ElementsAre(final_status(a, 0, 2)));
	// A path that is no string is none.
	EXPECT_THAT(a.answers(wire::lookup, 0, wire::attribute(wire::attr_objpath, "abcd")),
		ElementsAre(final_status(a, 0, 0)));
}

// ---- Calls ----

TEST_F(ubusd, call_without_a_method_or_an_object_is_refused)
{
	raw_client a = connect();
	uint32_t object = a.add();
	EXPECT_EQ(a.status_of(wire::invoke, object, objid(object) + payload("")), 2);
	EXPECT_EQ(a.status_of(wire::invoke, object, method("echo") + payload("")), 2);
	EXPECT_EQ(
		a.status_of(wire::invoke, object, objid(object) + wire::attribute(wire::attr_method, "echo")),
		2);
	EXPECT_EQ(a.status_of(wire::invoke, object, wire::text(wire::attr_objid, "abc") + method("x")), 4)
		<< "four bytes are a number";
	EXPECT_EQ(a.status_of(wire::invoke, object, wire::text(wire::attr_objid, "abcd") + method("x")), 2);
	EXPECT_EQ(a.status_of(wire::invoke, 1000, objid(1000) + method("echo")), 4);
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, client_may_call_its_own_object)
{
	raw_client a = connect();
	uint32_t object = a.add();
	uint16_t seq = a.invoke(object, "echo", wire::named_number("n", 7));
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, seq, a.id(),
			objid(object) + method("echo") + as_root + payload(wire::named_number("n", 7))));
	a.send(wire::frame(wire::status, seq, a.id(), status(0) + objid(object)));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, object, status(0) + objid(object)));
}

TEST_F(ubusd, caller_cannot_say_who_it_is_and_its_order_of_attributes_does_not_matter)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add("demo", demo_signature);
	uint16_t seq = b.request(wire::invoke, object,
		wire::text(wire::attr_user, "mallory") + payload("") + method("echo") + wire::number(13, 5) +
			wire::text(99, "of a later release") + objid(object));
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, seq, b.id(), objid(object) + method("echo") + as_root + payload("")));
}

TEST_F(ubusd, call_without_replies_reaches_the_owner_as_any_other)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	uint16_t seq = b.request(wire::invoke, object, objid(object) + method("echo") + no_reply);
	EXPECT_EQ(a.receive(), exactly(wire::invoke, seq, b.id(), objid(object) + method("echo") + as_root));
}

TEST_F(ubusd, reply_is_dropped_unless_it_comes_from_an_object_of_its_sender_and_has_what_it_needs)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add(), foreign = b.add();
	a.send(wire::frame(wire::status, 1, b.id(), status(0)));
	a.send(wire::frame(wire::status, 2, b.id(), status(0) + objid(foreign)));
	a.send(wire::frame(wire::status, 3, b.id(), objid(object)));
	a.send(wire::frame(wire::status, 4, b.id(), payload("") + objid(object)));
	a.send(wire::frame(wire::status, 5, b.id() + 1, status(0) + objid(object)));
	a.send(wire::frame(wire::status, 6, 0, status(0) + objid(object)));
	a.send(wire::frame(wire::data, 7, b.id(), objid(object)));
	a.send(wire::frame(wire::data, 8, b.id(), status(0) + objid(object)));
	a.send(wire::frame(wire::data, 9, b.id(), payload("") + objid(foreign)));
	a.send(wire::frame(wire::data, 10, b.id(), payload("") + objid(wire::event_object)));
	a.send(wire::frame(wire::data, 11, b.id(), payload("") + objid(object) + wire::number(5, 5)));
	EXPECT_THAT(a.drain(), IsEmpty()) << "replies are never answered";
	EXPECT_THAT(b.drain(), ElementsAre(exactly(wire::data, 11, object,
				       payload("") + objid(object) + wire::number(5, 5))));
}

TEST_F(ubusd, caller_hears_nothing_when_the_owner_disconnects)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	uint32_t subscriber = b.add();
	ASSERT_EQ(b.subscribe(subscriber, object), 0);
	b.invoke(object, "echo");
	a.close();
	EXPECT_EQ(b.receive().type(), wire::unsubscribe);
	EXPECT_THAT(b.drain(), IsEmpty());
}

TEST_F(ubusd, ping_comes_back_as_data)
{
	raw_client a = connect();
	std::string body = method("anything") + payload(wire::named_number("n", 1)) + wire::octet(77, 9);
	EXPECT_THAT(a.answers(wire::ping, 0xdeadbeef, body),
		ElementsAre(answer_to(&a, wire::data, 0xdeadbeef, body), final_status(a, 0xdeadbeef, 0)));
}

TEST_F(ubusd, types_without_a_handler_are_invalid_commands)
{
	raw_client a = connect();
	for (int type : {0, 11, 12, 13, 100, 128, 255})
		EXPECT_EQ(a.status_of(static_cast<uint8_t>(type), 5, path("x")), 1) << type;
}

TEST_F(ubusd, sequence_numbers_and_ids_take_all_of_their_bits)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	for (uint32_t seq : {0U, 1U, 0x7fffU, 0x8000U, 0xffffU}) {
		b.send(wire::frame(wire::invoke, seq, object, objid(object) + method("echo")));
		EXPECT_EQ(a.receive().seq(), seq);
		a.send(wire::frame(wire::status, seq, b.id(), status(0xfffffffe) + objid(object)));
		EXPECT_EQ(
			b.receive(), exactly(wire::status, seq, object, status(0xfffffffe) + objid(object)));
	}
}

// ---- Subscriptions and notifications ----

TEST_F(ubusd, subscription_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add("demo", demo_signature), other = a.add(), mine = b.add();
	for (uint8_t type : {wire::subscribe, wire::unsubscribe}) {
		SCOPED_TRACE(int{type});
		EXPECT_EQ(b.status_of(type, 0, target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + wire::octet(wire::attr_target, 1)), 4)
			<< "a number that goes on in its padding";
		EXPECT_EQ(b.status_of(type, 0, objid(mine + 1) + target(demo)), 4);
		EXPECT_EQ(b.status_of(type, 0, objid(wire::event_object) + target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(other) + target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(other) + target(demo + 1)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + target(demo + 1)), 4);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + target(wire::event_object)), 4);
	}
	EXPECT_EQ(a.subscribe(other, demo), 2) << "to an object of its own";
	EXPECT_EQ(b.unsubscribe(mine, demo), 4) << "without a subscription";
	EXPECT_EQ(b.subscribe(mine, demo), 0);
	EXPECT_EQ(b.unsubscribe(mine, demo), 0);
	EXPECT_EQ(b.unsubscribe(mine, demo), 4);
}

static received active(uint16_t counter, uint32_t object, uint8_t value)
{
	return exactly(wire::notify, counter, 0, objid(object) + wire::octet(wire::attr_active, value));
}

TEST_F(ubusd, owner_hears_of_its_first_and_its_last_subscriber)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add(), of_b = b.add(), of_c = c.add();
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(1, demo, 1)));
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(b.unsubscribe(of_b, demo), 0);
	EXPECT_EQ(c.unsubscribe(of_c, demo), 0);
	EXPECT_THAT(a.drain(), IsEmpty()) << "one of two equal subscriptions is left";
	EXPECT_EQ(c.unsubscribe(of_c, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(2, demo, 0)));
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(3, demo, 1)));
	EXPECT_THAT(b.drain(), IsEmpty());
}

TEST_F(ubusd, notification_goes_to_each_subscription_the_latest_first)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add(), of_b = b.add(), also_of_b = b.add(), of_c = c.add();
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(b.subscribe(also_of_b, demo), 0);
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	a.drain();
	uint16_t seq = a.request(wire::notify, demo, objid(demo) + method("tick") + payload(""));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, demo,
				       objid(demo) + subscribers({of_b, also_of_b, of_c, of_b}) + status(0)));
	auto tick = [&](uint32_t subscriber) {
		return exactly(wire::invoke, seq, a.id(),
			objid(subscriber) + method("tick") + as_root + payload(""));
	};
	EXPECT_THAT(b.drain(), ElementsAre(tick(of_b), tick(also_of_b), tick(of_b)));
	EXPECT_THAT(c.drain(), ElementsAre(tick(of_c)));
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, notification_without_subscribers_has_an_empty_list)
{
	raw_client a = connect();
	uint32_t demo = a.add();
	uint16_t seq = a.request(
		wire::notify, 99, objid(demo) + method("tick") + wire::octet(wire::attr_no_reply, 0));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, 99, objid(demo) + subscribers({}) + status(0)));
	a.request(wire::notify, demo, objid(demo) + method("tick") + no_reply);
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, notification_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add();
	EXPECT_EQ(a.status_of(wire::notify, demo, objid(demo)), 2);
	EXPECT_EQ(a.status_of(wire::notify, demo, method("tick")), 2);
	EXPECT_EQ(a.status_of(wire::notify, demo, objid(demo + 1) + method("tick")), 4);
	EXPECT_EQ(a.status_of(wire::notify, 1, objid(wire::event_object) + method("tick")), 6);
	EXPECT_EQ(b.status_of(wire::notify, demo, objid(demo) + method("tick")), 6);
}

TEST_F(ubusd, subscriber_without_a_subscription_hears_nothing)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add(), subscriber = b.add();
	EXPECT_EQ(b.subscribe(subscriber, demo), 0);
	EXPECT_EQ(b.unsubscribe(subscriber, demo), 0);
	a.request(wire::notify, demo, objid(demo) + method("tick") + no_reply);
	a.drain();
	EXPECT_THAT(b.drain(), IsEmpty());
}

// ---- What others hear of a removal, and in which order ----

static received object_event(uint16_t counter, uint32_t listener, const std::string &name, uint32_t object,
	const std::string &object_path)
{
	return exactly(wire::invoke, counter, 0,
		objid(listener) + method(name) +
			payload(wire::named_number("id", object) + wire::named_text("path", object_path)));
}

TEST_F(ubusd, own_listener_hears_of_an_addition_before_its_data_and_of_a_removal_before_its_status)
{
	raw_client a = connect();
	uint32_t listener = a.add();
	ASSERT_EQ(a.listen_to(listener, "ubus.object.*"), 0);
	std::vector<received> added = a.answers(wire::add_object, 0, path("demo"));
	ASSERT_THAT(added, SizeIs(3));
	uint32_t demo = added[1].number(wire::attr_objid);
	EXPECT_EQ(added[0], object_event(1, listener, "ubus.object.add", demo, "demo"));
	EXPECT_EQ(added[1].type(), wire::data);
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(demo)),
		ElementsAre(data_answer(a, objid(demo)),
			object_event(2, listener, "ubus.object.remove", demo, "demo"),
			final_status(a, 0, 0)));
	EXPECT_NE(a.add(), 0U);
	EXPECT_THAT(a.drain(), IsEmpty()) << "objects without a path are no events";
}

TEST_F(ubusd, removal_ends_subscriptions_then_tells_subscribers_then_sends_the_event)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.answers(wire::add_object, 0, path("demo"))[0].number(wire::attr_objid);
	uint32_t of_b = b.add(), also_of_b = b.add(), other = b.add(), of_c = c.add();
	ASSERT_EQ(b.listen_to(other, "*"), 0);
	ASSERT_EQ(a.subscribe(demo, other), 0); // the object that goes has a subscription itself
	ASSERT_EQ(b.subscribe(of_b, demo), 0);
	ASSERT_EQ(c.subscribe(of_c, demo), 0);
	ASSERT_EQ(b.subscribe(also_of_b, demo), 0);
	b.drain();
	a.drain();
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(demo)),
		ElementsAre(data_answer(a, objid(demo)), active(2, demo, 0), final_status(a, 0, 0)));
	auto gone = [&](uint32_t subscriber) {
		return exactly(wire::unsubscribe, 1, 0, objid(subscriber) + target(demo));
	};
	std::vector<received> heard = b.drain();
	ASSERT_THAT(heard, SizeIs(4));
	EXPECT_EQ(heard[0], active(2, other, 0));
	EXPECT_THAT(std::vector<received>(heard.begin() + 1, heard.begin() + 3),
		UnorderedElementsAre(gone(of_b), gone(also_of_b)));
	EXPECT_EQ(heard[3], object_event(1, other, "ubus.object.remove", demo, "demo"));
	EXPECT_THAT(c.drain(), ElementsAre(gone(of_c)));
}

TEST_F(ubusd, removal_of_a_subscriber_ends_its_subscriptions)
{
	raw_client a = connect(), b = connect();
	uint32_t first = a.add(), second = a.add(), subscriber = b.add();
	ASSERT_EQ(b.subscribe(subscriber, first), 0);
	ASSERT_EQ(b.subscribe(subscriber, second), 0);
	ASSERT_EQ(b.subscribe(subscriber, first), 0);
	a.drain();
	EXPECT_EQ(b.remove(subscriber), 0);
	EXPECT_THAT(a.drain(), UnorderedElementsAre(active(2, first, 0), active(2, second, 0)));
	EXPECT_THAT(b.drain(), IsEmpty());
	EXPECT_THAT(a.answers(wire::notify, first, objid(first) + method("tick")),
		ElementsAre(answer_to(&a, wire::status, first, objid(first) + subscribers({}) + status(0))));
}

TEST_F(ubusd, client_that_disconnects_loses_all_its_objects)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add("demo", demo_signature), watched = b.add(), of_b = b.add(), listener = c.add();
	ASSERT_EQ(a.subscribe(demo, watched), 0);
	ASSERT_EQ(b.subscribe(of_b, demo), 0);
	ASSERT_EQ(c.listen_to(listener, "ubus.object.remove"), 0);
	b.drain();
	a.close();
	EXPECT_EQ(b.receive(), active(2, watched, 0));
	EXPECT_EQ(b.receive(), exactly(wire::unsubscribe, 1, 0, objid(of_b) + target(demo)));
	EXPECT_EQ(c.receive(), object_event(1, listener, "ubus.object.remove", demo, "demo"));
	b.invoke(demo, "echo");
	EXPECT_THAT(b.receive(), final_status(b, demo, 4));
	EXPECT_EQ(b.status_of(wire::lookup, 0, path("demo")), 4);
	EXPECT_NE(b.add("demo"), 0U);
}

// ---- Events ----

TEST_F(ubusd, registration_of_a_listener_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t mine = a.add(), foreign = b.add();
	auto registered = [&](const std::string &children) {
		return a.status_of(wire::invoke, wire::event_object, event_call("register", children));
	};
	auto number = [](uint32_t id) { return wire::named_number("object", id); };
	const std::string pattern = wire::named_text("pattern", "x");
	EXPECT_EQ(registered(""), 2);
	EXPECT_EQ(registered(number(mine)), 2);
	EXPECT_EQ(registered(pattern), 2);
	EXPECT_EQ(registered(wire::named_text("object", "x") + pattern), 2);
	EXPECT_EQ(registered(number(mine) + wire::named_number("pattern", 1)), 2);
	EXPECT_EQ(a.status_of(wire::invoke, 1, objid(1) + method("register")), 2) << "without data";
	EXPECT_EQ(registered(number(1023) + pattern), 6);
	EXPECT_EQ(registered(number(foreign) + pattern), 6);
	EXPECT_EQ(registered(number(mine) + wire::named_text("pattern", "")), 6);
	EXPECT_EQ(registered(number(mine + 1) + pattern), 4);
	EXPECT_EQ(registered(pattern + number(mine)), 0);
	EXPECT_EQ(a.status_of(wire::invoke, 1, event_call("forget", pattern + number(mine))), 1);
}

TEST_F(ubusd, sending_of_an_event_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect();
	auto sent = [&](const std::string &children) {
		return a.status_of(wire::invoke, wire::event_object, event_call("send", children));
	};
	const std::string table = wire::named(wire::table, "data", "");
	EXPECT_EQ(sent(""), 2);
	EXPECT_EQ(sent(table), 2);
	EXPECT_EQ(sent(wire::named_text("id", "x")), 2);
	EXPECT_EQ(sent(wire::named_text("id", "x") + wire::named(wire::array, "data", "")), 2);
	EXPECT_EQ(sent(wire::named_text("id", "ubus.object.add") + table), 6);
	EXPECT_EQ(sent(wire::named_text("id", "ubus.") + table), 6);
	EXPECT_EQ(sent(wire::named_text("id", "ubus") + table), 0);
	EXPECT_EQ(sent(wire::named_text("id", "x") + table), 0);
}

TEST_F(ubusd, event_goes_once_to_each_object_with_a_matching_pattern)
{
	raw_client a = connect(), b = connect();
	std::vector<std::pair<uint32_t, std::string>> listeners;
	for (const char *pattern : {"net.up", "net.*", "*", "net.", "net.u", "net.up*", "net.up.", "up"}) {
		uint32_t object = b.add();
		ASSERT_EQ(b.listen_to(object, pattern), 0);
		listeners.emplace_back(object, pattern);
	}
	uint32_t twice = b.add();
	ASSERT_EQ(b.listen_to(twice, "net.*"), 0);
	ASSERT_EQ(b.listen_to(twice, "net.up"), 0);
	ASSERT_EQ(b.listen_to(twice, "net.up"), 0);
	listeners.emplace_back(twice, "twice");

	std::string children = wire::named_number("n", 1) + wire::named_text("s", "t");
	EXPECT_EQ(a.send_event("net.up", children), 0);
	std::vector<std::string> reached;
	for (const received &frame : b.drain()) {
		EXPECT_EQ(frame, exactly(wire::invoke, frame.seq(), 0,
					 objid(frame.number(wire::attr_objid)) + method("net.up") +
						 payload(children)));
		for (const auto &[object, pattern] : listeners)
			if (object == frame.number(wire::attr_objid))
				reached.push_back(pattern);
	}
	EXPECT_THAT(reached, UnorderedElementsAre("net.up", "net.*", "*", "net.up*", "twice"));
}

TEST_F(ubusd, event_does_not_come_back_to_its_sender)
{
	raw_client a = connect(), b = connect();
	uint32_t of_a = a.add(), of_b = b.add();
	ASSERT_EQ(a.listen_to(of_a, "*"), 0);
	ASSERT_EQ(b.listen_to(of_b, "*"), 0);
	EXPECT_EQ(a.send_event("from.a"), 0);
	EXPECT_THAT(a.drain(), IsEmpty());
	std::vector<received> heard = b.drain();
	ASSERT_THAT(heard, SizeIs(1));
	EXPECT_EQ(heard[0].text(wire::attr_method), "from.a");
	b.send(wire::frame(wire::status, heard[0].seq(), 0, status(0) + objid(of_b)));
	EXPECT_THAT(b.drain(), IsEmpty()) << "a listener's status leads nowhere";
	EXPECT_EQ(b.remove(of_b), 0);
	EXPECT_EQ(a.send_event("from.a"), 0);
	EXPECT_THAT(b.drain(), IsEmpty()) << "the registration has gone with its object";
}
