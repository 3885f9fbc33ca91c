// JSON in bus messages: packed, described by the policy, and read from every kind of sender.
#include "lib/ubus.h"

#include <random>

#include <gmock/gmock.h>

#include "tests/support/ubus.h"

using namespace support;

namespace
{

// ---- Packing ----

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

// ---- The policy ----

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

// ---- Reading ----

const std::string refused = "refused";

// Reads a message of exactly these bytes, its own word included, which lie at the end of their memory. Returns the
// value as compact text, or `refused`. The message is not changed, nor is *out when it is refused.
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

// The same for a message with these attributes, as libubus passes it.
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

// The bus daemon passes such an attribute on unchanged, so an answer may have one.
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

// Values nested `depth` deep, the innermost one counted.
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

// One random change, after which the message is mostly malformed.
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

} // namespace
