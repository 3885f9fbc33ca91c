// The `ubus` command: `subscribe` and `listen`.
#include <signal.h>

#include <string>

#include <gtest/gtest.h>

#include "command.h"

// ---- subscribe ----

TEST_F(bus_command, subscribe_prints_each_notification_at_once_on_a_line)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	notify(id, "led", wire::named_text("name", "blue") + wire::named(wire::int8, "on", "\1"));
	EXPECT_EQ(subscribe.line(), R"({"led": {"name": "blue", "on": true}})");
	notify(id, "led", wire::named(wire::unspec, "json", R"({"a":[1,{"b":2}]})"));
	EXPECT_EQ(subscribe.line(), R"({"led": {"a": [1, {"b": 2}]}})");
	notify(id, "empty");
	EXPECT_EQ(subscribe.line(), R"({"empty": {}})");
	notify(id, "\"\n\xff");
	EXPECT_EQ(subscribe.line(), "{\"\\\"\\n\xef\xbf\xbd\": {}}");
	subscribe.signal_with(SIGTERM);
	expect_output(subscribe.finish(), "");
}

TEST_F(bus_command, subscribe_answers_notifications_that_want_an_answer)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	uint16_t seq = owner->request(wire::notify, id,
		wire::number(wire::attr_objid, id) + wire::text(wire::attr_method, "tock") +
			wire::attribute(wire::attr_data, {}));
	EXPECT_TRUE(owner->receive().has(wire::attr_subscribers));
	wire::received answer = owner->receive();
	EXPECT_EQ(answer.type(), wire::status) << answer;
	EXPECT_EQ(answer.seq(), seq);
	EXPECT_EQ(answer.status(), 0);
	EXPECT_EQ(subscribe.line(), R"({"tock": {}})");
}

TEST_F(bus_command, subscribe_takes_several_objects_and_goes_on_until_the_last_has_gone)
{
	uint32_t first = owner->add("first"), second = owner->add("second");
	running_command subscribe{on_bus({"subscribe", "first", "second"})};
	wait_for_subscriber(first);
	wait_for_subscriber(second);
	notify(first, "from first");
	EXPECT_EQ(subscribe.line(), R"({"from first": {}})");
	EXPECT_EQ(owner->remove(first), 0);
	notify(second, "from second");
	EXPECT_EQ(subscribe.line(), R"({"from second": {}})");
	EXPECT_EQ(owner->remove(second), 0);
	child_result result = subscribe.finish();
	EXPECT_TRUE(result.exited_with(4)) << result.report();
	EXPECT_EQ(result.out, "");
	char expected[128];
	snprintf(expected, sizeof(expected),
		"ubus: object %08x has gone\nubus: object %08x has gone\nCommand failed: Not found\n",
		static_cast<unsigned>(first), static_cast<unsigned>(second));
	EXPECT_EQ(result.err, expected);
}

TEST_F(bus_command, subscribe_to_what_is_not_there_fails_with_not_found)
{
	demo();
	expect_failure(ubus({"subscribe", "nope"}), 4, "Not found");
	expect_failure(ubus({"subscribe", "demo", "nope"}), 4, "Not found");
}

TEST_F(bus_command, subscribe_and_listen_end_well_on_either_signal_however_early)
{
	uint32_t id = demo();
	for (int number : {SIGINT, SIGTERM}) {
		running_command subscribe{on_bus({"subscribe", "demo"})};
		wait_for_subscriber(id);
		subscribe.signal_with(number);
		expect_output(subscribe.finish(), "");
		owner->drain(); // it has no subscriber any more
		running_command listen{on_bus({"listen"})};
		wait_for_listener(&listen, "probe");
		listen.signal_with(number);
		child_result result = listen.finish();
		EXPECT_TRUE(result.exited_with(0)) << result.report();
		EXPECT_EQ(result.err, "");
	}
}

TEST_F(bus_command, subscribe_and_listen_fail_when_the_bus_ends)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	bus->kill();
	expect_failure(subscribe.finish(), 10, "Connection failed");
	child_result result = listen.finish();
	EXPECT_TRUE(result.exited_with(10)) << result.report();
	EXPECT_EQ(result.err, "Command failed: Connection failed\n");
}

TEST_F(bus_command, subscribe_waits_longer_than_the_time_limit_for_notifications)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"-t", "1", "subscribe", "demo"})};
	wait_for_subscriber(id);
	notify(id, "first");
	EXPECT_EQ(subscribe.line(), R"({"first": {}})");
	EXPECT_FALSE(subscribe.has_output(1500)); // nothing, and it goes on
	notify(id, "second");
	EXPECT_EQ(subscribe.line(), R"({"second": {}})");
}

TEST_F(bus_command, output_that_nobody_reads_any_more_ends_it)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	subscribe.stop_reading();
	notify(id, "unheard");
	expect_failure(subscribe.finish(), 13, "System error");
}

TEST_F(bus_command, output_that_cannot_be_written_is_an_error)
{
	uint32_t id = demo();
	expect_failure(running_command(on_bus({"list"}), "/dev/full").finish(), 13, "System error");
	running_command call{on_bus({"call", "demo", "get"}), "/dev/full"};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, {}));
	send_status(invoke, id, 0);
	expect_failure(call.finish(), 13, "System error");
}

// ---- listen ----

TEST_F(bus_command, listen_prints_every_event_at_once_on_a_line)
{
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	EXPECT_EQ(owner->send_event("led.on", wire::named_text("name", "blue")), 0);
	EXPECT_EQ(event_line(&listen, "probe"), R"({"led.on": {"name": "blue"}})");
	EXPECT_EQ(owner->send_event("as.json", wire::named(wire::unspec, "json", "[1,2]")), 0);
	EXPECT_EQ(listen.line(), R"({"as.json": [1, 2]})");
}

TEST_F(bus_command, listen_prints_the_events_of_the_bus_itself)
{
	running_command listen{on_bus({"listen", "ubus.object.*", "probe"})};
	wait_for_listener(&listen, "probe");
	uint32_t id = owner->add("late");
	EXPECT_EQ(event_line(&listen, "probe"),
		"{\"ubus.object.add\": {\"id\": " + std::to_string(static_cast<int32_t>(id)) +
			", \"path\": \"late\"}}");
}

TEST_F(bus_command, listen_prints_what_one_of_its_patterns_names_once)
{
	running_command listen{on_bus({"listen", "led.*", "led.on", "exact", "probe"})};
	wait_for_listener(&listen, "probe");
	for (const char *id : {"radio.on", "led.on", "exact.not", "exact", "led.off"})
		EXPECT_EQ(owner->send_event(id), 0);
	EXPECT_EQ(event_line(&listen, "probe"), R"({"led.on": {}})");
	EXPECT_EQ(listen.line(), R"({"exact": {}})");
	EXPECT_EQ(listen.line(), R"({"led.off": {}})");
}

TEST_F(bus_command, listen_survives_events_with_malformed_data)
{
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	owner->send_event("broken", wire::from_hex("83000008 ffff 6100") + wire::from_hex("85ffffff"));
	EXPECT_EQ(event_line(&listen, "probe"), R"({"broken": {}})");
	owner->send_event("a\tb\xff");
	EXPECT_EQ(listen.line(), "{\"a\\tb\xef\xbf\xbd\": {}}");
}
