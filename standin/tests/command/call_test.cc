// The `ubus` command: `call`, and replies of every kind.
#include <signal.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "command.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// ---- call: what is sent ----

TEST_F(bus_command, call_without_json_sends_an_empty_message)
{
	EXPECT_EQ(sent_by_call({}), "");
}

TEST_F(bus_command, call_sends_the_members_of_an_object_as_named_attributes)
{
	EXPECT_EQ(
		sent_by_call({R"({"n": 5, "s": "text", "on": true, "off": false, "d": 1.5, "none": null})"}),
		wire::named(wire::int32, "n", wire::be32(5)) + wire::named_text("s", "text") +
			wire::named(wire::int8, "on", "\1") +
			wire::named(wire::int8, "off", std::string(1, '\0')) +
			wire::named(type_double, "d", double_value(1.5)) +
			wire::named(wire::unspec, "none", {}));
}

TEST_F(bus_command, call_sends_integers_with_the_bits_that_they_need)
{
	EXPECT_EQ(sent_by_call({R"({"a": -2147483648, "b": 2147483647, "c": -2147483649, "d": 2147483648})"}),
		wire::named(wire::int32, "a", wire::be32(0x80000000)) +
			wire::named(wire::int32, "b", wire::be32(0x7fffffff)) +
			wire::named(wire::int64, "c", big_endian(0xffffffff7fffffff, 8)) +
			wire::named(wire::int64, "d", big_endian(0x80000000, 8)));
}

TEST_F(bus_command, call_sends_tables_and_arrays_within_each_other)
{
	std::string inner = wire::named(wire::int32, "", wire::be32(1)) + wire::named_text("", "x") +
			    wire::named(wire::table, "", wire::named(wire::int8, "b", "\1")) +
			    wire::named(wire::array, "", {});
	EXPECT_EQ(sent_by_call({R"({"t": {"l": [1, "x", {"b": true}, []]}, "e": {}})"}),
		wire::named(wire::table, "t", wire::named(wire::array, "l", inner)) +
			wire::named(wire::table, "e", {}));
}

TEST_F(bus_command, call_with_json_sends_the_text_in_one_attribute_without_a_nul)
{
	EXPECT_EQ(sent_by_call({R"({ "a": [1, "ü"] })"}, "--json"),
		wire::named(wire::unspec, "json", R"({"a":[1,"ü"]})"));
	EXPECT_EQ(sent_by_call({"[1, 2]"}, "--json"), wire::named(wire::unspec, "json", "[1,2]"));
	EXPECT_EQ(sent_by_call({}, "--json"), wire::named(wire::unspec, "json", "{}"));
}

TEST_F(bus_command, call_with_text_that_is_not_json_says_why_and_sends_nothing)
{
	demo();
	for (const char *text : {"", "{", "42", "{\"a\": 1} x", "{\"a\": 99999999999999999999}",
		     "{\"a\": \"\xff\"}", "{\"a\": \"\\u0000\"}"}) {
		child_result result = ubus({"call", "demo", "set", text});
		EXPECT_TRUE(result.exited_with(2)) << text << result.report();
		EXPECT_EQ(result.out, "");
		EXPECT_THAT(result.err, StartsWith("ubus: not JSON: "));
		EXPECT_THAT(result.err, EndsWith("\nCommand failed: Invalid argument\n"));
	}
	EXPECT_THAT(owner->drain(), testing::IsEmpty());
}

TEST_F(bus_command, call_with_what_no_message_can_carry_sends_nothing)
{
	demo();
	expect_failure(ubus({"call", "demo", "set", "[1]"}), 2, "Invalid argument");
	for (size_t length : {256, 70000}) {
		std::string name(length, 'n');
		expect_failure(ubus({"call", "demo", "set", "{\"" + name + "\": 1}"}), 2, "Invalid argument");
		expect_failure(ubus({"call", "demo", "set", "{\"a\": [{\"" + name + "\": 1}]}"}), 2,
			"Invalid argument");
	}
	EXPECT_THAT(owner->drain(), testing::IsEmpty());
}

TEST_F(bus_command, call_takes_names_of_up_to_255_bytes)
{
	std::string name(255, 'n');
	EXPECT_EQ(sent_by_call({"{\"" + name + "\": 1}"}), wire::named(wire::int32, name, wire::be32(1)));
}

TEST_F(bus_command, call_takes_nesting_as_deep_as_json_is_read)
{
	std::string expected = wire::named(wire::array, "", {});
	for (int depth = 0; depth < 1000; ++depth)
		expected = wire::named(wire::array, "", expected);
	std::string text = std::string(1001, '[') + std::string(1001, ']');
	// The outermost one has a name.
	EXPECT_EQ(sent_by_call({"{\"d\": " + text + "}"}), wire::named(wire::array, "d", expected.substr(8)));
}

// ---- call: what comes of it ----

TEST_F(bus_command, call_prints_the_reply_as_json)
{
	child_result result = call_answered_with(
		wire::named(wire::int32, "i", wire::be32(0xffffffff)) +
		wire::named(wire::int64, "l", big_endian(0x8000000000000000, 8)) +
		wire::named(type_int16, "s", big_endian(0x8000, 2)) + wire::named(wire::int8, "b", "\1") +
		wire::named_text("t", "say \"ü\"\n") + wire::named(type_double, "d", double_value(-0.25)) +
		wire::named(wire::unspec, "u", "raw") + wire::named(wire::unspec, "e", {}) +
		wire::named(wire::array, "a", wire::named_number("", 7) + wire::named(wire::table, "", {})) +
		wire::named(wire::table, "o", wire::named_number("n", 8)));
	expect_output(result, R"({
  "i": -1,
  "l": -9223372036854775808,
  "s": -32768,
  "b": true,
  "t": "say \"ü\"\n",
  "d": -0.25,
  "u": "raw",
  "e": null,
  "a": [
    7,
    {}
  ],
  "o": {
    "n": 8
  }
}
)");
}

TEST_F(bus_command, call_prints_the_json_that_a_reply_carries_as_that_json)
{
	expect_output(call_answered_with(wire::named(wire::unspec, "json", R"({"a":[1,"ü",null]})")), R"({
  "a": [
    1,
    "ü",
    null
  ]
}
)");
	expect_output(call_answered_with(wire::named(wire::unspec, "json", "[]")), "[]\n");
}

TEST_F(bus_command, call_prints_an_attribute_json_that_is_something_else_as_an_attribute)
{
	auto as_member = [](const std::string &value) { return "{\n  \"json\": " + value + "\n}\n"; };
	auto of_unspec = [](const std::string &value) { return wire::named(wire::unspec, "json", value); };
	expect_output(call_answered_with(of_unspec("{\"a\":")), as_member(R"("{\"a\":")"));
	expect_output(call_answered_with(of_unspec("42")), as_member("\"42\""));
	expect_output(call_answered_with(of_unspec(std::string("{}\0", 3))), as_member(R"("{}\u0000")"));
	expect_output(call_answered_with(wire::named_text("json", "{}")), as_member("\"{}\""));
	expect_output(call_answered_with(of_unspec("{}") + wire::named_number("n", 1)),
		"{\n  \"json\": \"{}\",\n  \"n\": 1\n}\n");
	expect_output(
		call_answered_with(wire::named(wire::unspec, "jso", "{}")), "{\n  \"jso\": \"{}\"\n}\n");
}

TEST_F(bus_command, call_prints_every_reply_and_nothing_for_none)
{
	uint32_t id = demo();
	for (int count : {0, 1, 3}) {
		running_command call{on_bus({"call", "demo", "get"})};
		wire::received invoke = owner->receive();
		std::string expected;
		for (int reply = 0; reply < count; ++reply) {
			send_reply(invoke, id,
				wire::attribute(wire::attr_data,
					wire::named_number("r", static_cast<uint32_t>(reply))));
			expected += "{\n  \"r\": " + std::to_string(reply) + "\n}\n";
		}
		send_status(invoke, id, 0);
		expect_output(call.finish(), expected);
	}
}

TEST_F(bus_command, call_ends_with_the_status_that_the_owner_gives)
{
	const std::pair<uint32_t, const char *> statuses[] = {{1, "Invalid command"}, {2, "Invalid argument"},
		{3, "Method not found"}, {6, "Permission denied"}, {9, "Unknown error"},
		{77, "Unknown error: 77"}};
	for (const auto &[status, text] : statuses) {
		running_command call{on_bus({"call", "demo", "get"})};
		uint32_t id = demo();
		wire::received invoke = owner->receive();
		send_status(invoke, id, status);
		expect_failure(call.finish(), static_cast<int>(status), text);
	}
}

TEST_F(bus_command, call_does_not_end_like_a_success_when_the_status_does_not_fit_an_exit_status)
{
	uint32_t id = demo();
	for (uint32_t status : {256U, 0xffffff00U, 0x80000000U}) {
		running_command call{on_bus({"call", "demo", "get"})};
		send_status(owner->receive(), id, status);
		expect_failure(
			call.finish(), 255, "Unknown error: " + std::to_string(static_cast<int32_t>(status)));
	}
}

TEST_F(bus_command, call_prints_replies_that_came_before_an_error)
{
	uint32_t id = demo();
	running_command call{on_bus({"call", "demo", "get"})};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, {}));
	send_status(invoke, id, 5);
	child_result result = call.finish();
	EXPECT_TRUE(result.exited_with(5)) << result.report();
	EXPECT_EQ(result.out, "{}\n");
	EXPECT_EQ(result.err, "Command failed: No response\n");
}

TEST_F(bus_command, call_of_an_unknown_object_fails_with_not_found)
{
	expect_failure(ubus({"call", "nope", "get"}), 4, "Not found");
}

TEST_F(bus_command, call_of_an_object_that_the_bus_names_but_does_not_show_fails_with_not_found)
{
	// Without a type, so that a look-up succeeds and brings nothing.
	owner->answers(wire::add_object, 0, wire::text(wire::attr_objpath, "hidden"));
	ASSERT_EQ(owner->answers(wire::lookup, 0, wire::text(wire::attr_objpath, "hidden")).size(), 1U);
	expect_failure(ubus({"call", "hidden", "get"}), 4, "Not found");
	expect_failure(ubus({"subscribe", "hidden"}), 4, "Not found");
}

TEST_F(bus_command, call_that_nobody_answers_is_given_up_after_the_time_limit)
{
	uint32_t id = demo();
	running_command call{on_bus({"-t", "1", "call", "demo", "get"})};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, wire::named_number("r", 1)));
	child_result result = call.finish();
	EXPECT_TRUE(result.exited_with(7)) << result.report();
	EXPECT_EQ(result.out, "{\n  \"r\": 1\n}\n");
	EXPECT_EQ(result.err, "Command failed: Request timed out\n");
}

TEST_F(bus_command, call_ends_when_the_bus_does)
{
	demo();
	running_command call{on_bus({"call", "demo", "get"})};
	owner->receive();
	bus->kill();
	expect_failure(call.finish(), 10, "Connection failed");
}

TEST_F(bus_command, call_that_waits_is_ended_by_an_interrupt)
{
	demo();
	running_command call{on_bus({"call", "demo", "get"})};
	owner->receive();
	call.signal_with(SIGINT);
	EXPECT_TRUE(call.finish().killed_by(SIGINT));
}

// ---- Hostile replies ----

TEST_F(bus_command, what_is_not_utf8_is_replaced_in_names_and_values)
{
	const std::string mark = "\xef\xbf\xbd";
	auto times = [&](int count) {
		std::string text;
		while (count-- > 0)
			text += mark;
		return text;
	};
	const std::pair<std::string, std::string> values[] = {
		{"a\xff z", "a" + mark + " z"},
		{"\x80", mark},
		{"\xc3", mark},                 // cut off
		{"\xe2\x82", times(2)},         // cut off
		{"\xf0\x9f\x98", times(3)},     // cut off
		{"\xc0\x80", times(2)},         // a NUL in two bytes
		{"\xe0\x9f\xbf", times(3)},     // in three bytes what fits two
		{"\xf0\x8f\xbf\xbf", times(4)}, // in four what fits three
		{"\xed\xa0\x80", times(3)},     // half of a pair of UTF-16
		{"\xf4\x90\x80\x80", times(4)}, // beyond the last code point
		{"\xf5\x80\x80\x80", times(4)}, // never begins a sequence
		{"\xc3(", mark + "("},          // does not go on
		{"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf",
			"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf"},
	};
	for (const auto &[bytes, text] : values) {
		expect_output(call_answered_with(wire::named_text(bytes, bytes)),
			"{\n  \"" + text + "\": \"" + text + "\"\n}\n");
		expect_output(call_answered_with(wire::named(wire::unspec, "u", bytes)),
			"{\n  \"u\": \"" + text + "\"\n}\n");
	}
}

TEST_F(bus_command, a_nul_ends_names_and_strings_as_it_does_for_everybody_who_reads_them)
{
	expect_output(call_answered_with(
			      wire::named(wire::string, std::string("n\0x", 3), std::string("v\0y\0", 4))),
		"{\n  \"n\": \"v\"\n}\n");
}

TEST_F(bus_command, of_members_with_one_name_the_first_counts)
{
	expect_output(call_answered_with(wire::named_number("n", 1) + wire::named_number("n", 2)),
		"{\n  \"n\": 1\n}\n");
}

TEST_F(bus_command, numbers_that_json_lacks_are_null)
{
	for (double value :
		{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()})
		expect_output(call_answered_with(wire::named(type_double, "d", double_value(value))),
			"{\n  \"d\": null\n}\n");
}

TEST_F(bus_command, malformed_attributes_are_left_out)
{
	const std::string good = wire::named_number("n", 1);
	const std::string malformed[] = {
		wire::named(wire::int32, "short", "\1"),
		wire::named(wire::int64, "long", std::string(12, '\1')), wire::named(wire::int8, "none", {}),
		wire::named(type_double, "half", wire::be32(1)), wire::named(wire::string, "endless", "text"),
		wire::named(wire::string, "empty", {}), wire::named(9, "type", "?"),
		wire::named(127, "type", "?"), wire::number(wire::int32, 1), // without a name
		wire::from_hex("83000006 0000 0000"),                        // cut off in the name
		wire::from_hex("83000008 ffff 6100"),                      // a name longer than its attribute
		wire::from_hex("83000010 0003 61 62 63 64 0000 78000000"), // a name without its NUL
		wire::from_hex("80000004"),                                // nothing at all
	};
	for (const std::string &bytes : malformed)
		expect_output(call_answered_with(bytes + good), "{\n  \"n\": 1\n}\n");
}

TEST_F(bus_command, lengths_that_make_no_sense_end_a_container)
{
	for (const char *word : {"8500ffff", "85ffffff", "85000000", "85000003", "ffffffff"}) {
		std::string bytes = wire::from_hex(word) + std::string(12, '\0');
		expect_output(
			call_answered_with(wire::named_number("n", 1) + bytes + wire::named_number("m", 2)),
			"{\n  \"n\": 1\n}\n");
		expect_output(
			call_answered_with(wire::named(wire::table, "t", bytes) + wire::named_number("m", 2)),
			"{\n  \"t\": {},\n  \"m\": 2\n}\n");
	}
}

TEST_F(bus_command, data_that_claims_to_have_a_name_is_read_within_its_bounds)
{
	uint32_t id = demo();
	for (const char *hex :
		{"87000004", "87000008 ffff 0000", "8700000c 0004 6162 63640000", "87000005 ff000000"}) {
		running_command call{on_bus({"call", "demo", "get"})};
		wire::received invoke = owner->receive();
		send_reply(invoke, id, wire::from_hex(hex));
		send_status(invoke, id, 0);
		child_result result = call.finish();
		EXPECT_TRUE(result.exited_with(0)) << hex << result.report();
		EXPECT_EQ(result.err, "");
	}
}

TEST_F(bus_command, nesting_is_shown_to_a_depth_of_100_and_survived_beyond)
{
	std::string bytes, shown;
	for (int depth = 0; depth < 100; ++depth)
		bytes = wire::named(wire::array, "", bytes);
	child_result result = call_answered_with(wire::named(wire::table, "t", bytes));
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_THAT(result.out, HasSubstr("(nested too deeply)"));
	result = call_answered_with(wire::named(wire::table, "t", bytes.substr(8)));
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_THAT(result.out, testing::Not(HasSubstr("(nested too deeply)")));
	// As deep as a message can be: each level takes eight bytes.
	const uint32_t levels = 130'000;
	bytes.clear();
	for (uint32_t level = levels; level > 0; --level)
		bytes += wire::be32(0x81000000 | level * 8) + wire::be32(0);
	result = call_answered_with(bytes);
	EXPECT_TRUE(result.exited_with(0)) << result.err;
	EXPECT_THAT(result.out, HasSubstr("(nested too deeply)"));
}

TEST_F(bus_command, a_table_as_large_as_a_message_is_printed)
{
	const int count = 50'000;
	std::string bytes;
	for (int index = 0; index < count; ++index)
		bytes += wire::named(wire::int8, "m" + std::to_string(index), "\1");
	ASSERT_LT(bytes.size(), wire::body_bytes_max - 100);
	child_result result = call_answered_with(bytes);
	EXPECT_TRUE(result.exited_with(0)) << result.err;
	EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), count + 2);
}
