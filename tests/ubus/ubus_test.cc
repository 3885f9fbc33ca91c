// JSON messages from every kind of sender, calls that nobody waits for in every order of answers,
// time-outs and lost connections, and subscriptions through all that can happen to their object, their bus
// and their record.
//
// The bus daemon and the serving side are processes of their own.
#include "lib/ubus.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/memory.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/ubus.h"

using namespace support;
using testing::ElementsAre;

extern "C" {
void __asan_poison_memory_region(void const volatile *, size_t) __attribute__((weak));
void __asan_unpoison_memory_region(void const volatile *, size_t) __attribute__((weak));
}

namespace
{

// While it lives, the next context's memory goes to nobody but the context after that.
class context_address_kept
{
	static inline void *block;
	static inline bool released;

	static void poison()
	{
		if (__asan_poison_memory_region)
			__asan_poison_memory_region(block, sizeof(ubus_context));
	}
	static void unpoison()
	{
		if (__asan_unpoison_memory_region)
			__asan_unpoison_memory_region(block, sizeof(ubus_context));
	}
	static void *give(void *old_block, size_t size)
	{
		if (old_block || size != sizeof(ubus_context))
			return nullptr;
		if (!block)
			return block = next_malloc(size);
		if (!std::exchange(released, false))
			return nullptr;
		unpoison();
		return block;
	}
	static bool take(void *given)
	{
		if (!given || given != block)
			return false;
		released = true;
		poison();
		return true;
	}

public:
	context_address_kept()
	{
		memory.give = give;
		memory.take = take;
	}
	~context_address_kept()
	{
		memory.give = nullptr;
		memory.take = nullptr;
		if (std::exchange(released, false)) {
			unpoison();
			free(block);
		}
		block = nullptr;
	}
	context_address_kept(const context_address_kept &) = delete;
	context_address_kept &operator=(const context_address_kept &) = delete;
};

// ---------------------------------------------------------------------------------------------------------
// Packing.

struct json_owner {
	json_t *value;

	explicit json_owner(json_t *own) : value(own) {}
	explicit json_owner(const std::string &text)
		: value(json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr))
	{
		EXPECT_TRUE(value) << text;
	}
	json_owner(const json_owner &) = delete;
	json_owner &operator=(const json_owner &) = delete;
	~json_owner() { json_decref(value); }
};

// What packing appends to an empty message.
std::string packed(json_t *value)
{
	blob_buf buf{};
	blob_buf_init(&buf, 0);
	EXPECT_EQ(ubus_pack_json_msg(&buf, value), 0);
	std::string bytes = contents_of(buf.head);
	blob_buf_free(&buf);
	return bytes;
}

std::string json_attribute(const std::string &text)
{
	return wire::named(wire::unspec, "json", text);
}

const std::string empty_attribute = json_attribute("");

TEST(ubus_json, packing_makes_one_attribute_json_of_type_unspec_without_a_terminating_nul)
{
	json_owner value{R"({"a":1})"};
	EXPECT_EQ(packed(value.value), wire::from_hex("80000013 00046a73 6f6e0000 7b226122 3a317d00"));
}

TEST(ubus_json, packed_text_is_compact_and_keeps_the_order)
{
	json_owner value{R"( { "b" : [ 1 , 2.5, {"c" : null} ], "a" : "x y", "z": true } )"};
	EXPECT_EQ(packed(value.value), json_attribute(R"({"b":[1,2.5,{"c":null}],"a":"x y","z":true})"));
}

TEST(ubus_json, packing_appends_to_what_the_buffer_holds)
{
	json_owner value{"[1]"};
	json_message message;
	message.add("before", "x");
	EXPECT_EQ(ubus_pack_json_msg(message.buf(), value.value), 0);
	message.add("after", "y");
	EXPECT_EQ(contents_of(message.head()), wire::named(wire::unspec, "before", "x") +
						       json_attribute("[1]") +
						       wire::named(wire::unspec, "after", "y"));
}

TEST(ubus_json, packing_leaves_the_reference_with_the_caller)
{
	json_owner value{R"({"a":[]})"};
	packed(value.value);
	EXPECT_EQ(value.value->refcount, 1U);
	EXPECT_EQ(json_object_get(value.value, "a")->refcount, 1U);
}

TEST(ubus_json, packing_a_scalar_makes_an_empty_attribute)
{
	for (const char *text : {"42", "4.5", "\"x\"", "true", "null"})
		EXPECT_EQ(packed(json_owner{text}.value), empty_attribute) << text;
}

TEST(ubus_json, packing_null_makes_an_empty_attribute)
{
	EXPECT_EQ(packed(nullptr), empty_attribute);
}

TEST(ubus_json, packing_invalid_utf8_makes_an_empty_attribute)
{
	json_owner array{json_array()};
	ASSERT_EQ(json_array_append_new(array.value, json_string_nocheck("\xff\xfe")), 0);
	EXPECT_EQ(packed(array.value), empty_attribute);
}

TEST(ubus_json, packing_a_value_that_contains_itself_makes_an_empty_attribute)
{
	json_owner outer{json_array()};
	json_t *inner = json_array();
	ASSERT_EQ(json_array_append_new(outer.value, inner), 0);
	ASSERT_EQ(json_array_append(inner, outer.value), 0);
	EXPECT_EQ(packed(outer.value), empty_attribute);
	json_array_clear(inner);
}

TEST(ubus_json, a_text_of_15_mib_is_packed_and_read_again)
{
	std::string text(15U << 20, 'x');
	json_owner array{json_array()};
	ASSERT_EQ(json_array_append_new(array.value, json_stringn(text.data(), text.size())), 0);
	blob_buf buf{};
	blob_buf_init(&buf, 0);
	EXPECT_EQ(ubus_pack_json_msg(&buf, array.value), 0);
	json_t *back = nullptr;
	EXPECT_EQ(ubus_parse_json_msg(buf.head, &back), 0);
	EXPECT_TRUE(json_equal(array.value, back));
	json_decref(back);
	blob_buf_free(&buf);
}

// The end of a process that packs `value` into `buf`.
child_result packing_child(blob_buf *buf, json_t *value)
{
	return run_child([&] {
		set_app_name("packer");
		ubus_pack_json_msg(buf, value);
	});
}

TEST(ubus_json, packing_more_than_16_mib_ends_the_process)
{
	std::string text(16U << 20, 'x');
	json_owner array{json_array()};
	ASSERT_EQ(json_array_append_new(array.value, json_stringn(text.data(), text.size())), 0);
	json_message message;
	child_result end = packing_child(message.buf(), array.value);
	EXPECT_TRUE(end.killed_by(SIGABRT)) << end.report();
	EXPECT_EQ(end.err, "packer: out of memory\n");
	EXPECT_EQ(end.out, "");
}

TEST(ubus_json, packing_into_a_buffer_that_cannot_grow_ends_the_process)
{
	json_owner array{"[\"" + std::string(4096, 'x') + "\"]"};
	blob_buf buf{};
	blob_buf_init(&buf, 0);
	buf.grow = [](blob_buf *, int) { return false; };
	child_result end = packing_child(&buf, array.value);
	blob_buf_free(&buf);
	EXPECT_TRUE(end.killed_by(SIGABRT)) << end.report();
	EXPECT_EQ(end.err, "packer: out of memory\n");
}

// ---------------------------------------------------------------------------------------------------------
// The policy.

TEST(ubus_json, policy_is_one_entry_json_of_any_type)
{
	EXPECT_EQ(sizeof(ubus_json_attrs), sizeof(blobmsg_policy));
	EXPECT_STREQ(ubus_json_attrs[0].name, "json");
	EXPECT_EQ(ubus_json_attrs[0].type, BLOBMSG_TYPE_UNSPEC);
}

TEST(ubus_json, policy_is_read_only)
{
	auto address = reinterpret_cast<uintptr_t>(ubus_json_attrs);
	std::istringstream maps(read_file("/proc/self/maps"));
	std::string line, permissions;
	while (std::getline(maps, line)) {
		unsigned long long begin = 0, end = 0;
		char flags[5] = "";
		if (sscanf(line.c_str(), "%llx-%llx %4s", &begin, &end, flags) == 3 && begin <= address &&
			address < end)
			permissions = flags;
	}
	EXPECT_EQ(permissions, "r--p");
}

TEST(ubus_json, policy_serves_a_daemon_that_calls_blobmsg_parse)
{
	json_message message;
	message.add("other", "x").add("json", "[1]");
	blob_attr *found = nullptr;
	EXPECT_EQ(blobmsg_parse(ubus_json_attrs, 1, &found, blob_data(message.head()),
			  static_cast<unsigned int>(blob_len(message.head()))),
		0);
	ASSERT_TRUE(found);
	EXPECT_STREQ(blobmsg_name(found), "json");
	EXPECT_EQ(std::string(static_cast<char *>(blobmsg_data(found)), blobmsg_data_len(found)), "[1]");
}

TEST(ubus_json, policy_finds_the_attribute_whatever_type_it_has)
{
	for (int type : {BLOBMSG_TYPE_UNSPEC, BLOBMSG_TYPE_ARRAY, BLOBMSG_TYPE_TABLE, BLOBMSG_TYPE_INT32}) {
		json_message message;
		message.add("json", "[12]", type);
		blob_attr *found = nullptr;
		EXPECT_EQ(blobmsg_parse(ubus_json_attrs, 1, &found, blob_data(message.head()),
				  static_cast<unsigned int>(blob_len(message.head()))),
			0);
		EXPECT_TRUE(found) << type;
	}
}

// ---------------------------------------------------------------------------------------------------------
// Reading.

const std::string refused = "refused";

// What comes of a message of exactly these bytes, its own word included, which lie at the end of their
// memory: the value as compact text, or `refused`. Either way the message stays as it was, and so does
// *out when refused.
std::string read_bytes(const std::string &bytes)
{
	std::unique_ptr<char, decltype(&free)> copy{static_cast<char *>(malloc(bytes.size())), free};
	memcpy(copy.get(), bytes.data(), bytes.size());
	json_t *const sentinel = reinterpret_cast<json_t *>(&copy);
	json_t *value = sentinel;
	int status = ubus_parse_json_msg(reinterpret_cast<blob_attr *>(copy.get()), &value);
	EXPECT_EQ(std::string(copy.get(), bytes.size()), bytes) << "the message was changed";
	if (status != 0) {
		EXPECT_EQ(status, UBUS_STATUS_INVALID_ARGUMENT);
		EXPECT_EQ(value, sentinel);
		return refused;
	}
	if (value == sentinel || !value) {
		ADD_FAILURE() << "accepted without a value";
		return {};
	}
	EXPECT_EQ(value->refcount, 1U);
	std::unique_ptr<char, decltype(&free)> text{json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY), free};
	json_decref(value);
	return text ? text.get() : "undumpable";
}

// The same for a message, as libubus hands it over, with these attributes.
std::string read_attributes(const std::string &attributes)
{
	return read_bytes(
		wire::be32(0x07000000U | static_cast<uint32_t>(attributes.size() + 4)) + attributes);
}

std::string read_text(const std::string &text)
{
	return read_attributes(json_attribute(text));
}

TEST(ubus_json, an_object_and_an_array_are_read)
{
	EXPECT_EQ(read_text(R"({"a":1})"), R"({"a":1})");
	EXPECT_EQ(read_text("[]"), "[]");
	EXPECT_EQ(read_text("{}"), "{}");
	EXPECT_EQ(read_text(" \t\r\n[ true , \"\\u00e4\" ]\n"), "[true,\"\xc3\xa4\"]");
}

TEST(ubus_json, what_was_packed_is_read_as_the_same_value)
{
	json_owner value{R"({"n":[0,-1,9223372036854775807,-9223372036854775808,1.5e-300],)"
			 R"("":{"deep":[[[]]]},"s":"\u0001\"\\\ud83d\ude00"})"};
	json_message message;
	ubus_pack_json_msg(message.buf(), value.value);
	json_t *back = nullptr;
	ASSERT_EQ(ubus_parse_json_msg(message.head(), &back), 0);
	EXPECT_TRUE(json_equal(value.value, back));
	json_decref(back);
}

TEST(ubus_json, the_value_lives_on_without_the_message)
{
	auto message = std::make_unique<json_message>(R"({"key":"value"})");
	json_t *value = nullptr;
	ASSERT_EQ(ubus_parse_json_msg(message->head(), &value), 0);
	message.reset();
	EXPECT_STREQ(json_string_value(json_object_get(value, "key")), "value");
	json_decref(value);
}

TEST(ubus_json, a_scalar_at_the_top_is_refused)
{
	for (const char *text : {"42", "-0.5", "\"x\"", "true", "false", "null"})
		EXPECT_EQ(read_text(text), refused) << text;
}

TEST(ubus_json, a_null_message_is_refused)
{
	json_t *value = nullptr;
	EXPECT_EQ(ubus_parse_json_msg(nullptr, &value), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(value, nullptr);
}

TEST(ubus_json, a_message_without_the_attribute_is_refused)
{
	EXPECT_EQ(read_attributes(""), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::unspec, "jso", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::unspec, "jsonx", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::unspec, "JSON", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::unspec, "", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named_number("a", 1) + wire::named_text("b", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::table, "t", json_attribute("[1]"))), refused);
}

TEST(ubus_json, an_empty_attribute_is_refused)
{
	EXPECT_EQ(read_text(""), refused);
	EXPECT_EQ(read_text(" "), refused);
}

TEST(ubus_json, attributes_of_other_names_do_not_matter)
{
	EXPECT_EQ(read_attributes(
			  wire::named_number("a", 1) + json_attribute("[1]") + wire::named_text("b", "{")),
		"[1]");
}

TEST(ubus_json, an_attribute_without_a_name_does_not_matter)
{
	EXPECT_EQ(read_attributes(wire::attribute(wire::unspec, "x") + json_attribute("[1]")), "[1]");
}

TEST(ubus_json, the_first_of_two_attributes_counts)
{
	EXPECT_EQ(read_attributes(json_attribute("[1]") + json_attribute("[2]")), "[1]");
	EXPECT_EQ(read_attributes(json_attribute("[1]") + json_attribute("{")), "[1]");
	EXPECT_EQ(read_attributes(json_attribute("{") + json_attribute("[2]")), refused);
	EXPECT_EQ(read_attributes(json_attribute("") + json_attribute("[2]")), refused);
}

TEST(ubus_json, text_is_read_from_an_attribute_of_any_type_that_it_fits)
{
	constexpr uint8_t float64 = 8, int16 = 6;
	EXPECT_EQ(read_attributes(wire::named(wire::array, "json", "[1]")), "[1]");
	EXPECT_EQ(read_attributes(wire::named(wire::table, "json", "[1]")), "[1]");
	EXPECT_EQ(read_attributes(wire::named(int16, "json", "{}")), "{}");
	EXPECT_EQ(read_attributes(wire::named(wire::int32, "json", "[12]")), "[12]");
	EXPECT_EQ(read_attributes(wire::named(wire::int64, "json", R"({"a":12})")), R"({"a":12})");
	EXPECT_EQ(read_attributes(wire::named(float64, "json", "[123456]")), "[123456]");
}

TEST(ubus_json, attributes_of_another_kind_are_refused)
{
	EXPECT_EQ(read_attributes(wire::named_number("json", 7)), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::int8, "json", "\1")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::table, "json", wire::named_number("a", 1))), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::array, "json", wire::named_text("", "[1]"))), refused);
}

TEST(ubus_json, a_string_attribute_is_refused_for_its_nul)
{
	EXPECT_EQ(read_attributes(wire::named_text("json", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named_text("json", "{}")), refused);
}

TEST(ubus_json, a_malformed_attribute_anywhere_is_refused)
{
	const std::map<std::string, std::string> malformed = {
		{"STRING without its NUL", wire::named(wire::string, "x", "abc")},
		{"empty STRING", wire::named(wire::string, "x", "")},
		{"INT32 of three bytes", wire::named(wire::int32, "x", "abc")},
		{"INT32 of five bytes", wire::named(wire::int32, "x", "abcde")},
		{"INT64 of four bytes", wire::named(wire::int64, "x", "abcd")},
		{"INT8 of no byte", wire::named(wire::int8, "x", "")},
		{"unknown type", wire::named(9, "x", "abc")},
		{"type 127", wire::named(127, "x", "abc")},
		{"less than its own word", wire::be32(0x80000003)},
		{"no name", wire::be32(0x80000004)},
		{"name of one byte", wire::padded(wire::be32(0x80000005) + "x")},
		{"name longer than the attribute", wire::be32(0x8000000c) + wire::be16(200) + "abcdef"},
		{"name without its NUL", wire::be32(0x8000000c) + wire::be16(2) + "abcdef"},
	};
	for (const auto &[name, bytes] : malformed) {
		EXPECT_EQ(read_attributes(bytes + json_attribute("[1]")), refused) << name << " before";
		EXPECT_EQ(read_attributes(json_attribute("[1]") + bytes), refused) << name << " after";
	}
	EXPECT_EQ(read_attributes(wire::named(wire::string, "json", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(wire::int32, "json", "[1]")), refused);
	EXPECT_EQ(read_attributes(wire::named(9, "json", "[1]")), refused);
}

TEST(ubus_json, a_truncated_attribute_is_refused)
{
	std::string whole = json_attribute("[1,2,3,4,5]");
	for (size_t length = 0; length < whole.size(); ++length)
		EXPECT_EQ(read_attributes(whole.substr(0, length)), refused) << length;
	EXPECT_EQ(read_attributes(whole), "[1,2,3,4,5]");
}

TEST(ubus_json, a_truncated_attribute_behind_does_not_matter)
{
	EXPECT_EQ(read_attributes(json_attribute("[1]") + wire::be32(0x80000100)), "[1]");
	EXPECT_EQ(read_attributes(json_attribute("[1]") + wire::be32(0x80000000)), "[1]");
	EXPECT_EQ(read_attributes(json_attribute("[1]") + std::string(3, '\x80')), "[1]");
}

TEST(ubus_json, a_message_that_has_a_name_itself_is_read_behind_it)
{
	constexpr uint8_t data = 7;
	EXPECT_EQ(read_bytes(wire::named(wire::table, "outer", json_attribute("[1]"))), "[1]");
	EXPECT_EQ(read_bytes(wire::named(data, "", json_attribute("[1]"))), "[1]");
}

// Answers may come with such an attribute: the bus daemon hands them on as they are.
TEST(ubus_json, a_message_too_short_for_the_name_it_claims_is_refused)
{
	EXPECT_EQ(read_bytes(wire::be32(0x87000004)), refused);
	EXPECT_EQ(read_bytes(wire::be32(0x87000005) + '\0'), refused);
	EXPECT_EQ(read_bytes(wire::be32(0x87000006) + wire::be16(0)), refused);
	EXPECT_EQ(read_bytes(wire::be32(0x87000006) + wire::be16(0xffff)), refused);
	EXPECT_EQ(read_bytes(wire::be32(0x8700000c) + wire::be16(0xffff) + "json"), refused);
	EXPECT_EQ(read_bytes(wire::be32(0x87000008) + wire::be16(2) + "ab"), refused);
}

TEST(ubus_json, a_message_shorter_than_its_own_word_is_refused)
{
	for (uint32_t length : {0U, 1U, 2U, 3U}) {
		EXPECT_EQ(read_bytes(wire::be32(0x07000000U | length)), refused) << length;
		EXPECT_EQ(read_bytes(wire::be32(0x87000000U | length)), refused) << length;
	}
}

TEST(ubus_json, every_truncation_of_a_text_is_refused)
{
	std::string text = R"({"a":[1,2.5e3,"x\u00e4",true,null,{"b":{}}]})";
	for (size_t length = 0; length < text.size(); ++length)
		EXPECT_EQ(read_text(text.substr(0, length)), refused) << length;
}

TEST(ubus_json, anything_behind_the_value_is_refused)
{
	for (const char *text : {"[1]x", "[1][2]", "{},", "[1] //", "{}}"})
		EXPECT_EQ(read_text(text), refused) << text;
}

TEST(ubus_json, what_is_not_quite_json_is_refused)
{
	for (const char *text : {"[1,]", "{\"a\":1,}", "{a:1}", "{'a':1}", "[01]", "[+1]", "[.5]", "[1.]",
		     "[0x1]", "[NaN]", "[Infinity]", "[-]", "[TRUE]", "[\"\t\"]", "[\"\\x41\"]",
		     "[\"\\u12\"]", "{\"a\"}", "{1:2}", "[1 2]", "\xef\xbb\xbf[1]"})
		EXPECT_EQ(read_text(text), refused) << text;
}

// Values inside each other, the innermost one included in `depth`.
std::string nested(
	size_t depth, const std::string &open, const std::string &innermost, const std::string &close)
{
	std::string text;
	for (size_t level = 1; level < depth; ++level)
		text += open;
	text += innermost;
	for (size_t level = 1; level < depth; ++level)
		text += close;
	return text;
}

TEST(ubus_json, nesting_of_2048_levels_is_read)
{
	for (const char *innermost : {"1", "[]", "{}", "\"x\""}) {
		std::string arrays = nested(2048, "[", innermost, "]");
		EXPECT_TRUE(read_text(arrays) == arrays) << innermost;
		std::string objects = nested(2048, "{\"a\":", innermost, "}");
		EXPECT_TRUE(read_text(objects) == objects) << innermost;
	}
}

TEST(ubus_json, nesting_beyond_2048_levels_is_refused)
{
	for (const char *innermost : {"1", "[]", "{}", "\"x\""}) {
		EXPECT_EQ(read_text(nested(2049, "[", innermost, "]")), refused) << innermost;
		EXPECT_EQ(read_text(nested(2049, "{\"a\":", innermost, "}")), refused) << innermost;
	}
	EXPECT_EQ(read_text(std::string(1'000'000, '[')), refused);
	EXPECT_EQ(read_text(nested(500'000, "[", "[]", "]")), refused);
}

TEST(ubus_json, integers_beyond_64_bits_are_refused)
{
	EXPECT_EQ(read_text("[9223372036854775807]"), "[9223372036854775807]");
	EXPECT_EQ(read_text("[-9223372036854775808]"), "[-9223372036854775808]");
	EXPECT_EQ(read_text("[9223372036854775808]"), refused);
	EXPECT_EQ(read_text("[-9223372036854775809]"), refused);
	EXPECT_EQ(read_text("[" + std::string(100'000, '9') + "]"), refused);
}

TEST(ubus_json, reals_beyond_the_range_are_refused)
{
	EXPECT_EQ(read_text("[1e308]").substr(0, 2), "[1");
	for (const char *text :
		{"[1e309]", "[1e999]", "[-1e999]", "[1e99999999999999999999]", "{\"a\":[2e308]}"})
		EXPECT_EQ(read_text(text), refused) << text;
	EXPECT_EQ(read_text("[" + std::string(400, '9') + ".0]"), refused);
}

TEST(ubus_json, invalid_utf8_is_refused)
{
	for (const char *bytes : {"\xff", "\x80", "\xc3", "\xc0\x80", "\xe2\x82", "\xed\xa0\x80",
		     "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xc3("}) {
		EXPECT_EQ(read_text("[\"" + std::string(bytes) + "\"]"), refused) << bytes;
		EXPECT_EQ(read_text("{\"" + std::string(bytes) + "\":1}"), refused) << bytes;
		EXPECT_EQ(read_text("[" + std::string(bytes) + "]"), refused) << bytes;
	}
}

TEST(ubus_json, lone_surrogates_are_refused)
{
	for (const char *text : {R"(["\ud800"])", R"(["\udc00"])", R"(["\ud800\ud800"])", R"(["\ud800x"])"})
		EXPECT_EQ(read_text(text), refused) << text;
}

TEST(ubus_json, a_nul_anywhere_is_refused)
{
	std::string nul(1, '\0');
	EXPECT_EQ(read_text("[\"a" + nul + "b\"]"), refused);
	EXPECT_EQ(read_text("{\"a" + nul + "b\":1}"), refused);
	EXPECT_EQ(read_text("[1" + nul + "]"), refused);
	EXPECT_EQ(read_text("[1," + nul + "2]"), refused);
	EXPECT_EQ(read_text("[1]" + nul), refused);
	EXPECT_EQ(read_text(nul + "[1]"), refused);
	EXPECT_EQ(read_text(nul), refused);
}

TEST(ubus_json, an_escaped_nul_is_refused)
{
	EXPECT_EQ(read_text(R"(["\u0000"])"), refused);
	EXPECT_EQ(read_text(R"({"a\u0000b":1})"), refused);
}

TEST(ubus_json, a_text_of_the_largest_message_is_read)
{
	std::string text = "[\"" + std::string((1U << 20) - 64, 'x') + "\"]";
	EXPECT_EQ(read_text(text), text);
}

// One random change; what it makes is broken most of the time, and sometimes not.
std::string mutated(std::string bytes, std::mt19937 &random)
{
	static constexpr char marks[] = "{}[]\",:0-9e.\\ua\x80\xff"; // and the NUL
	size_t at = bytes.empty() ? 0 : random() % bytes.size();
	char mark = marks[random() % sizeof(marks)];
	switch (random() % 6) {
	case 0:
		return bytes.insert(at, 1, mark);
	case 1:
		return bytes.erase(at, 1 + random() % 4);
	case 2:
		return bytes.substr(0, at);
	case 3:
		return bytes.insert(at, bytes.substr(random() % (bytes.size() + 1), random() % 16));
	case 4:
		if (!bytes.empty())
			bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
		return bytes;
	default:
		if (!bytes.empty())
			bytes[at] = mark;
		return bytes;
	}
}

TEST(ubus_json, thousands_of_mutated_messages_are_read_or_refused_and_nothing_else)
{
	const std::string seeds[] = {
		json_attribute(R"({"a":1})"),
		wire::named_number("n", 5) +
			json_attribute(R"([{"led":"power","state":true},[1.5e3,null]])") +
			wire::named_text("s", "text"),
		wire::named(wire::table, "t", wire::named_number("a", 1)) +
			json_attribute("[\"\xc3\xa4\\u00e4\"]"),
	};
	std::mt19937 random{20'240'229};
	int count_read = 0, count_refused = 0;
	for (int round = 0; round < 30'000; ++round) {
		std::string bytes = seeds[static_cast<size_t>(round) % std::size(seeds)];
		for (unsigned changes = 1 + random() % 3; changes > 0; --changes)
			bytes = mutated(bytes, random);
		std::string result = read_attributes(bytes);
		(result == refused ? count_refused : count_read)++;
		ASSERT_TRUE(result == refused || result[0] == '{' || result[0] == '[') << wire::to_hex(bytes);
		ASSERT_FALSE(HasFailure()) << wire::to_hex(bytes);
	}
	EXPECT_GT(count_read, 1000);
	EXPECT_GT(count_refused, 1000);
}

// ---------------------------------------------------------------------------------------------------------
// Calls that nobody waits for.

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
	// A call there and back, after everything that is on its way already.
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
	// The owner and the client are back on a new bus daemon.
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

// The worst case for whoever unlinks by pointers: the old calls point to the head of the new context's
// list.
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

// ---------------------------------------------------------------------------------------------------------
// Subscriptions.

// A subscription that keeps what it is told, "type json" for each notification, and ends with this object.
struct subscription : ubus_subscription {
	std::vector<std::string> seen;
	int subscribed = 0; // calls of subscribed_cb
	std::function<void()> on_subscribed, on_notified;
	bool ended = false; // nothing is left to do for the destructor

	explicit subscription(ubus_context *context, const std::string &object = "target")
		: ubus_subscription{}
	{
		ctx = context;
		strncpy(path, object.c_str(), sizeof(path) - 1);
		subscribed_cb = [](ubus_subscription *s) {
			subscription *self = static_cast<subscription *>(s);
			++self->subscribed;
			if (auto copy = self->on_subscribed)
				copy();
			return 0;
		};
	}
	subscription(const subscription &) = delete;
	subscription &operator=(const subscription &) = delete;
	~subscription()
	{
		if (!ended)
			mox_ubus_unsubscribe(this);
	}

	int subscribe()
	{
		ended = false;
		return mox_ubus_subscribe(this, on_notification);
	}
	int unsubscribe()
	{
		ended = true;
		return mox_ubus_unsubscribe(this);
	}
	// The attempt that is due later is made now.
	void make_attempt()
	{
		ASSERT_TRUE(retry.pending);
		evloop_timeout_set(&retry, 0);
		evloop_handle_timeouts();
	}

private:
	static int on_notification(ubus_context *, ubus_object *object, ubus_request_data *, const char *type,
		blob_attr *message)
	{
		auto *self = static_cast<subscription *>(ubus_object_to_subscription(object));
		self->seen.push_back(
			std::string(type) + " " + object_server::call{"", "", contents_of(message)}.json());
		if (auto copy = self->on_notified)
			copy();
		return 0;
	}
};

class ubus_subscriptions : public bus_test
{
protected:
	std::optional<object_server> server;

	void SetUp() override
	{
		bus_test::SetUp();
		server.emplace(bus->path());
	}
	void TearDown() override
	{
		server.reset();
		bus_test::TearDown();
	}

	// How often a notification reaches `s`.
	long copies_of_a_notification(subscription &s, const std::string &path = "target")
	{
		s.seen.clear();
		server->notify(path, "tick");
		server->notify(path, "tock");
		EXPECT_TRUE(run_until([&] { return !s.seen.empty() && s.seen.back() == "tock {}"; }));
		return std::count(s.seen.begin(), s.seen.end(), "tick {}");
	}
	bool is_armed(const subscription &s) const
	{
		return s.retry.pending && evloop_get_next_timeout() > 0 &&
		       evloop_get_next_timeout() <= UBUS_SUBSCRIBE_RETRY_MS;
	}
	// The bus daemon has been there anew for both sides; the objects of the server too.
	void restart_bus()
	{
		bus->kill();
		ASSERT_TRUE(run_until([this] { return client.ctx->sock.eof; }));
		bus->start();
		server->reconnect();
	}
	void reconnect_client() { ASSERT_EQ(client.reconnect(bus->path()), 0); }
	// Everything that the bus has sent so far has been handled.
	void settle()
	{
		uint32_t id = 0;
		ubus_lookup_id(client.ctx, "no such object", &id);
		run_passes(3);
	}
};

TEST(ubus_subscription_record, attempts_are_500_ms_apart)
{
	EXPECT_EQ(UBUS_SUBSCRIBE_RETRY_MS, 500);
}

TEST_F(ubus_subscriptions, subscribing_to_an_object_that_is_there_returns_0)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_TRUE(eventually([this] { return server->has_subscribers("target"); }));
}

TEST_F(ubus_subscriptions, notification_reaches_the_handler_with_its_record_type_and_message)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->notify("target", "led", R"({"on":true})");
	ASSERT_TRUE(run_until([&] { return !s.seen.empty(); }));
	EXPECT_THAT(s.seen, ElementsAre(R"(led {"on":true})"));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribed_cb_may_be_null)
{
	server->add("target");
	subscription s{client.ctx};
	s.subscribed_cb = nullptr;
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, path_of_31_bytes_is_subscribed_to)
{
	std::string path(31, 'p');
	server->add(path);
	subscription s{client.ctx, path};
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s, path), 1);
}

TEST_F(ubus_subscriptions, absent_object_gives_the_status_and_arms_the_retry)
{
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_TRUE(is_armed(s));
}

TEST_F(ubus_subscriptions, attempts_go_on_while_the_object_is_absent)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	for (int attempt = 0; attempt < 3; ++attempt) {
		s.make_attempt();
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_FALSE(s.retry.pending);
}

TEST_F(ubus_subscriptions, object_that_appears_late_is_subscribed_to_by_itself)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	ASSERT_TRUE(run_until([&] { return s.subscribed > 0; }));
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, object_that_the_bus_does_not_name_is_as_good_as_absent)
{
	server->add_without_type("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_TRUE(is_armed(s));
	server->remove("target");
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions, refusal_by_the_bus_gives_the_status_and_arms_the_retry)
{
	ubus_method method{"own", nullptr, 0, 0, nullptr, 0};
	method.handler = [](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
		return 0;
	};
	ubus_object_type type{"own", 0, &method, 1};
	ubus_object own{};
	own.name = "target";
	own.type = &type;
	own.methods = &method;
	own.n_methods = 1;
	ASSERT_EQ(ubus_add_object(client.ctx, &own), 0);
	{
		subscription s{client.ctx}; // to an object of the same client
		EXPECT_EQ(s.subscribe(), UBUS_STATUS_INVALID_ARGUMENT);
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	EXPECT_EQ(ubus_remove_object(client.ctx, &own), 0);
}

TEST_F(ubus_subscriptions, removal_of_the_object_arms_the_retry)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_TRUE(is_armed(s));
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions, object_that_comes_back_is_subscribed_to_again)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	for (int round = 2; round < 5; ++round) {
		server->remove("target");
		ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
		server->add("target");
		s.make_attempt();
		EXPECT_EQ(s.subscribed, round);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
}

TEST_F(ubus_subscriptions, owner_that_restarts_is_subscribed_to_again)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->kill();
	server.emplace(bus->path());
	ASSERT_TRUE(wait_until_gone("target"));
	server->add("target");
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, two_subscriptions_to_one_object_each_get_every_notification_once)
{
	server->add("target");
	subscription first{client.ctx}, second{client.ctx};
	ASSERT_EQ(first.subscribe(), 0);
	ASSERT_EQ(second.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(first), 1);
	EXPECT_EQ(copies_of_a_notification(second), 1);
	EXPECT_EQ(first.unsubscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(second), 1);
}

TEST_F(ubus_subscriptions, subscribing_from_a_method_handler_works)
{
	server->add("target");
	subscription s{client.ctx};
	probe call{*bus, client};
	call.on_call = [&] { EXPECT_EQ(s.subscribe(), 0); };
	call.send_call();
	ASSERT_TRUE(run_until([&] { return call.calls == 1; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- Unsubscribing.

TEST_F(ubus_subscriptions, unsubscribing_ends_the_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_TRUE(eventually([this] { return server->has_subscribers("target"); }));
	EXPECT_EQ(s.unsubscribe(), 0);
	ASSERT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	server->notify("target", "tick");
	server->remove("target");
	settle();
	EXPECT_THAT(s.seen, ElementsAre());
	EXPECT_FALSE(s.retry.pending);
}

TEST_F(ubus_subscriptions, unsubscribing_while_a_retry_is_armed_cancels_it)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	server->add("target");
	settle();
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions, unsubscribing_after_the_object_has_gone_cancels_the_retry)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, removal_reported_while_unsubscribing_begins_nothing)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target"); // the news waits in the socket
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	settle();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, unsubscribing_twice_is_harmless)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, unsubscribing_what_was_never_subscribed_is_harmless)
{
	subscription s{client.ctx};
	EXPECT_EQ(s.unsubscribe(), 0);
	settle();
}

TEST_F(ubus_subscriptions, subscribing_again_after_unsubscribing_works)
{
	server->add("target");
	subscription s{client.ctx};
	for (int round = 1; round < 4; ++round) {
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(s.subscribed, round);
		EXPECT_EQ(copies_of_a_notification(s), 1);
		EXPECT_EQ(s.unsubscribe(), 0);
	}
}

TEST_F(ubus_subscriptions, record_may_be_released_after_unsubscribing)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	server->notify("target", "tick"); // waits in the socket
	EXPECT_EQ(s->unsubscribe(), 0);
	s.reset();
	server->notify("target", "tock");
	server->remove("target");
	settle();
}

TEST_F(ubus_subscriptions, unsubscribing_inside_subscribed_cb_ends_it)
{
	server->add("target");
	subscription s{client.ctx};
	s.on_subscribed = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	server->remove("target");
	settle();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, record_may_be_released_inside_subscribed_cb)
{
	server->add("target");
	auto *s = new subscription{client.ctx};
	s->on_subscribed = [&] {
		s->unsubscribe();
		delete std::exchange(s, nullptr);
	};
	EXPECT_EQ(s->subscribe(), 0);
	EXPECT_EQ(s, nullptr);
	settle();
}

TEST_F(ubus_subscriptions, record_may_be_released_inside_the_subscribed_cb_of_a_later_attempt)
{
	auto *s = new subscription{client.ctx};
	s->on_subscribed = [&] {
		s->unsubscribe();
		delete std::exchange(s, nullptr);
	};
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	EXPECT_TRUE(run_until([&] { return !s; }));
	settle();
}

TEST_F(ubus_subscriptions, unsubscribing_inside_the_notification_handler_ends_it)
{
	server->add("target");
	subscription s{client.ctx};
	s.on_notified = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	ASSERT_EQ(s.subscribe(), 0);
	server->notify("target", "first");
	server->notify("target", "second");
	ASSERT_TRUE(run_until([&] { return !s.seen.empty(); }));
	settle();
	EXPECT_THAT(s.seen, ElementsAre("first {}"));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, subscribing_again_inside_the_notification_handler_works)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	s.on_notified = [&] {
		s.on_notified = nullptr;
		EXPECT_EQ(s.subscribe(), 0);
	};
	server->notify("target", "again");
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- Without a context, and without a registration.

TEST_F(ubus_subscriptions, without_a_context_subscribing_gives_eagain)
{
	subscription s{nullptr};
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(s.unsubscribe(), 0);
}

TEST_F(ubus_subscriptions, retry_without_a_context_does_nothing)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	s.ctx = nullptr;
	s.make_attempt();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.ctx = client.ctx;
}

TEST_F(ubus_subscriptions, unsubscribing_without_a_context_cancels_the_retry)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	s.ctx = nullptr;
	EXPECT_EQ(mox_ubus_unsubscribe(&s), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.ctx = client.ctx;
}

TEST_F(ubus_subscriptions, failing_registration_gives_eagain_and_nothing_is_due)
{
	server->add("target");
	subscription s{client.ctx};
	bus->kill();
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.subscribed, 0);
}

TEST_F(ubus_subscriptions, failing_registration_is_made_good_by_the_next_call)
{
	server->add("target");
	subscription s{client.ctx};
	bus->kill();
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	ASSERT_TRUE(run_until_lost());
	bus->start();
	server->reconnect();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- The loss of the connection.

TEST_F(ubus_subscriptions, loss_of_the_connection_alone_starts_nothing)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.unsubscribe(), 0);
}

TEST_F(ubus_subscriptions, one_call_after_a_reconnection_brings_notifications_back_once)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	for (int round = 0; round < 3; ++round) {
		restart_bus();
		reconnect_client();
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
	EXPECT_EQ(s.subscribed, 4);
}

TEST_F(ubus_subscriptions, one_call_after_a_reconnection_may_come_before_the_object)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	bus->start();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->reconnect();
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, retry_armed_before_the_loss_and_a_call_after_it_make_one_subscription)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, attempts_on_a_lost_connection_go_on_until_it_is_back)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	for (int attempt = 0; attempt < 3; ++attempt) {
		s.make_attempt();
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	reconnect_client();
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, retry_after_a_reconnection_and_a_call_behind_it_make_one_subscription)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	reconnect_client();
	s.make_attempt();
	ASSERT_EQ(s.subscribed, 1);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_takes_the_subscription_over_after_an_unsubscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	s.ctx = client.ctx;
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_takes_the_subscription_over_from_a_freed_one)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	s.ctx = client.ctx;
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_at_the_same_address_takes_the_subscription_over)
{
	context_address_kept same_address;
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	ubus_context *before = client.ctx;
	server->add("target");
	{
		subscription s{client.ctx};
		ASSERT_EQ(s.subscribe(), 0);
		client.free();
		ASSERT_TRUE(client.connect(bus->path()));
		ASSERT_EQ(client.ctx, before);
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
	client.free();
}

TEST_F(ubus_subscriptions, record_unsubscribed_while_the_bus_is_dead_may_be_released_before_a_reconnection)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(s->unsubscribe(), 0);
	EXPECT_EQ(s->subscriber.obj.id, 0U);
	s.reset();
	bus->start();
	server->reconnect();
	reconnect_client();
	subscription other{client.ctx};
	ASSERT_EQ(other.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(other), 1);
}

TEST_F(ubus_subscriptions, record_unsubscribed_before_the_loss_is_noticed_may_be_released)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	bus->kill();
	EXPECT_EQ(s->unsubscribe(), 0);
	s.reset();
	EXPECT_TRUE(run_until([this] { return client.losses > 0 || client.ctx->sock.eof; }));
	bus->start();
	reconnect_client();
}

TEST_F(ubus_subscriptions, subscribing_twice_without_a_loss_makes_one_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 3);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_while_a_retry_is_armed_makes_one_attempt)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_behind_an_unread_removal_makes_one_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target"); // the news waits in the socket
	server->add("target");
	ASSERT_EQ(s.subscribe(), 0);
	settle();
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_replaces_the_handler)
{
	server->add("target");
	subscription s{client.ctx};
	static int calls_of_another;
	calls_of_another = 0;
	ASSERT_EQ(mox_ubus_subscribe(&s, [](ubus_context *, ubus_object *, ubus_request_data *, const char *,
						 blob_attr *) { return ++calls_of_another; }),
		0);
	server->notify("target", "tick");
	ASSERT_TRUE(run_until([] { return calls_of_another == 1; }));
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(calls_of_another, 1);
}

// ---- What runs inside the synchronous calls. A first call registers, looks up and subscribes; a later one
// unregisters before; an attempt of the timer's looks up and subscribes.

class ubus_subscriptions_inside : public ubus_subscriptions
{
protected:
	std::optional<probe> inside;

	void SetUp() override
	{
		ubus_subscriptions::SetUp();
		inside.emplace(*bus, client);
	}
	void TearDown() override
	{
		inside.reset();
		ubus_subscriptions::TearDown();
	}
	// `action` runs inside the synchronous call of that number from now on; 1 is the next.
	void run_inside(int number, std::function<void()> action)
	{
		inside->calls = 0;
		inside->on_call = [this, number, action = std::move(action)] {
			if (inside->calls < number)
				inside->send_call();
			else if (inside->calls == number)
				action();
		};
		inside->send_call();
	}
};

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_registered_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_unregistered_for_another_call_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_unsubscribed_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
}

// Unsubscribes inside synchronous call `number` of mox_ubus_subscribe, after which nothing is left.
#define EXPECT_CANCELLED_INSIDE(number)                                                                      \
	do {                                                                                                 \
		run_inside(number, [&] { EXPECT_EQ(s.unsubscribe(), 0); });                                  \
		EXPECT_EQ(mox_ubus_subscribe(&s, s.subscriber.cb), -ECANCELED);                              \
		EXPECT_EQ(inside->calls, number);                                                            \
		EXPECT_EQ(s.subscriber.obj.id, 0U);                                                          \
		EXPECT_EQ(evloop_get_next_timeout(), -1);                                                    \
		settle();                                                                                    \
		EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));              \
	} while (false)

TEST_F(ubus_subscriptions_inside, unsubscribing_while_it_is_registered_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_CANCELLED_INSIDE(1);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_the_object_is_looked_up_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_CANCELLED_INSIDE(2);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_an_absent_object_is_looked_up_cancels_the_call)
{
	subscription s{client.ctx};
	EXPECT_CANCELLED_INSIDE(2);
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_it_subscribes_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_CANCELLED_INSIDE(3);
	EXPECT_EQ(s.subscribed, 0);
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_an_earlier_registration_ends_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_CANCELLED_INSIDE(1);
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions_inside, subscription_works_after_a_cancelled_call)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_CANCELLED_INSIDE(1);
	EXPECT_CANCELLED_INSIDE(2);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_the_object_is_looked_up_takes_over)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(2, [&] { EXPECT_EQ(s.subscribe(), 0); });
	EXPECT_EQ(s.subscribe(), -ECANCELED);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_subscribes_takes_over)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(3, [&] { EXPECT_EQ(s.subscribe(), 0); });
	EXPECT_EQ(s.subscribe(), -ECANCELED);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_the_timers_attempt_looks_up_takes_over)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), 0); });
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

// Releases the record inside synchronous call `number` of an attempt of the timer's.
#define RELEASE_INSIDE_ATTEMPT(number)                                                                       \
	do {                                                                                                 \
		run_inside(number, [&] {                                                                     \
			s->unsubscribe();                                                                    \
			s.reset();                                                                           \
		});                                                                                          \
		evloop_timeout_set(&s->retry, 0);                                                            \
		evloop_handle_timeouts();                                                                    \
		EXPECT_EQ(inside->calls, number);                                                            \
		EXPECT_EQ(s, nullptr);                                                                       \
		EXPECT_EQ(evloop_get_next_timeout(), -1);                                                    \
		settle();                                                                                    \
	} while (false)

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_looks_up)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	RELEASE_INSIDE_ATTEMPT(1);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_looks_up_in_vain)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	RELEASE_INSIDE_ATTEMPT(1);
}

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_subscribes)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	RELEASE_INSIDE_ATTEMPT(2);
	EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
}

TEST_F(ubus_subscriptions, notification_that_is_handled_inside_another_call_may_unsubscribe)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	s.on_notified = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	server->notify("target", "first");
	server->notify("target", "second");
	ASSERT_TRUE(wait_for(client.ctx->sock.fd, POLLIN));
	settle();
	EXPECT_THAT(s.seen, ElementsAre("first {}"));
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions_inside, object_removed_between_look_up_and_subscription_is_waited_for)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(2, [&] { server->remove("target"); });
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(inside->calls, 2);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, object_removed_while_it_is_subscribed_to_is_waited_for)
{
	server->add("target");
	server->remove_when_subscribed("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), 0);
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// The removal is handled inside the subscription itself, before this returns success.
TEST_F(ubus_subscriptions_inside, object_removed_before_its_subscription_returns_is_waited_for)
{
	server->add("target");
	server->remove_when_subscribed("target");
	subscription s{client.ctx};
	run_inside(3, [&] {
		// The subscription has been made; its answer has been read, the news of the removal may
		// not have been.
		EXPECT_TRUE(eventually([this] { return !is_on_bus("target"); }));
		uint32_t id = 0;
		ubus_lookup_id(client.ctx, "target", &id);
	});
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 3);
	settle();
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, object_that_restarts_during_the_look_up_is_subscribed_to_once)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	server->add("target");
	run_inside(1, [&] {
		server->remove("target");
		server->add("target");
	});
	s.make_attempt(); // with the id of the one that has gone meanwhile
	EXPECT_TRUE(is_armed(s));
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- The connection breaks inside the synchronous calls.

// The bus daemon stands still, and ends when something is sent to it on the client's connection: a
// synchronous call is made in vain.
class fatal_request
{
	pid_t pid_;

	static bool is_stopped(pid_t daemon)
	{
		return read_file("/proc/" + std::to_string(daemon) + "/stat").find(") T") !=
		       std::string::npos;
	}

public:
	fatal_request(const bus_daemon &bus, const bus_client &client)
	{
		::kill(bus.pid(), SIGSTOP);
		EXPECT_TRUE(eventually([&] { return is_stopped(bus.pid()); }));
		pid_ = fork();
		if (pid_ != 0)
			return;
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		bool sent = eventually([&] {
			int unread = 0;
			return ioctl(client.ctx->sock.fd, SIOCOUTQ, &unread) == 0 && unread > 0;
		});
		::kill(bus.pid(), SIGKILL);
		_exit(sent ? 0 : 1);
	}
	fatal_request(const fatal_request &) = delete;
	fatal_request &operator=(const fatal_request &) = delete;
	~fatal_request()
	{
		int status = -1;
		while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
			;
		EXPECT_EQ(status, 0) << "nothing was sent to the bus";
	}
};

TEST_F(ubus_subscriptions, connection_that_breaks_while_it_is_registered_gives_eagain)
{
	subscription s{client.ctx};
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s.subscribe(), -EAGAIN);
	}
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	bus->restart();
	server.emplace(bus->path());
	server->add("target");
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, connection_that_breaks_in_an_attempt_leaves_the_retry_armed)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	{
		fatal_request next{*bus, client};
		s.make_attempt();
	}
	EXPECT_EQ(client.losses, 1);
	EXPECT_TRUE(is_armed(s));
	bus->restart();
	server.emplace(bus->path());
	server->add("target");
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, record_may_be_released_when_the_connection_breaks_in_an_attempt)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	client.on_lost = [&] {
		s->unsubscribe();
		s.reset();
	};
	{
		fatal_request next{*bus, client};
		evloop_timeout_set(&s->retry, 0);
		evloop_handle_timeouts();
	}
	EXPECT_EQ(s, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, record_may_be_released_when_unsubscribing_meets_the_loss)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s->unsubscribe(), 0);
	}
	EXPECT_EQ(client.losses, 1);
	s.reset();
	bus->restart();
	reconnect_client();
	settle();
}

TEST_F(ubus_subscriptions, removal_that_is_read_while_unsubscribing_meets_the_loss_begins_nothing)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(wait_for(client.ctx->sock.fd, POLLIN));
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s->unsubscribe(), 0);
	}
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.reset();
	run_passes(3);
}

TEST_F(ubus_subscriptions, subscribing_again_inside_the_loss_gives_eagain)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	client.on_lost = [&] { EXPECT_EQ(s.subscribe(), -EAGAIN); };
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

} // namespace
