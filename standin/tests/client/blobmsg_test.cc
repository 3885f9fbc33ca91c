// libubox: named attributes byte by byte, and what is safe to read.
#include <string.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "blobs.h"

using testing::ElementsAre;

TEST(blobmsg, name_takes_a_multiple_of_four_bytes)
{
	for (unsigned length : {0U, 1U})
		EXPECT_EQ(blobmsg_hdrlen(length), 4);
	for (unsigned length : {2U, 3U, 4U, 5U})
		EXPECT_EQ(blobmsg_hdrlen(length), 8);
	for (unsigned length : {6U, 9U})
		EXPECT_EQ(blobmsg_hdrlen(length), 12);
}

TEST(blobmsg, values_are_stored_behind_their_names)
{
	buffer b;
	EXPECT_EQ(blobmsg_add_u8(&b, "a", 0x12), 0);
	EXPECT_EQ(blobmsg_add_u16(&b, "ab", 0x1234), 0);
	EXPECT_EQ(blobmsg_add_u32(&b, "abcd", 0x12345678), 0);
	EXPECT_EQ(blobmsg_add_u64(&b, "abcde", 0x123456789abcdef0), 0);
	EXPECT_EQ(blobmsg_add_double(&b, "abcdef", 1.0), 0);
	EXPECT_EQ(blobmsg_add_string(&b, "", "text"), 0);
	EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "json", "{\"a\":1}", 7), 0);
	EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, nullptr, nullptr, 0), 0);
	EXPECT_EQ(b.bytes(), hex("00000088"
				 "87000009 00016100 12000000"
				 "8600000e 00026162 00000000 12340000"
				 "85000010 00046162 63640000 12345678"
				 "84000014 00056162 63646500 12345678 9abcdef0"
				 "88000018 00066162 63646566 00000000 3ff00000 00000000"
				 "8300000d 00000000 74657874 00000000"
				 "80000013 00046a73 6f6e0000 7b226122 3a317d00"
				 "80000008 00000000"));
}

TEST(blobmsg, values_are_read_as_they_were_added)
{
	buffer b;
	blobmsg_add_u8(&b, "bool", true);
	blobmsg_add_u8(&b, "u8", 200);
	blobmsg_add_u16(&b, "u16", 60'000);
	blobmsg_add_u32(&b, "u32", 4'000'000'000U);
	blobmsg_add_u64(&b, "u64", UINT64_MAX - 1);
	blobmsg_add_double(&b, "double", -0.125);
	blobmsg_add_string(&b, "string", "text");
	blobmsg_policy policy[7]{};
	const char *names[] = {"bool", "u8", "u16", "u32", "u64", "double", "string"};
	for (size_t i = 0; i < 7; ++i)
		policy[i].name = names[i];
	blob_attr *tb[7];
	ASSERT_EQ(blobmsg_parse_attr(policy, 7, tb, b.head), 0);
	EXPECT_TRUE(blobmsg_get_bool(tb[0]));
	EXPECT_EQ(blobmsg_get_u8(tb[1]), 200);
	EXPECT_EQ(blobmsg_get_u16(tb[2]), 60'000);
	EXPECT_EQ(blobmsg_get_u32(tb[3]), 4'000'000'000U);
	EXPECT_EQ(blobmsg_get_u64(tb[4]), UINT64_MAX - 1);
	EXPECT_EQ(blobmsg_get_double(tb[5]), -0.125);
	EXPECT_STREQ(blobmsg_get_string(tb[6]), "text");
	EXPECT_STREQ(blobmsg_name(tb[6]), "string");
	EXPECT_EQ(blobmsg_type(tb[6]), BLOBMSG_TYPE_STRING);
	EXPECT_EQ(blobmsg_data_len(tb[6]), 5U);
	EXPECT_EQ(blobmsg_len(tb[6]), 5U);
	EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
}

TEST(blobmsg, data_of_what_has_no_name_is_the_payload)
{
	EXPECT_EQ(blobmsg_data(nullptr), nullptr);
	EXPECT_EQ(blobmsg_data_len(nullptr), 0U);
	heap_attr plain(hex("07000009 64656d6f 00000000"));
	EXPECT_EQ(blobmsg_data(plain.get()), blob_data(plain.get()));
	EXPECT_EQ(blobmsg_data_len(plain.get()), 5U);
}

TEST(blobmsg, tables_and_arrays_nest)
{
	buffer b;
	void *table = blobmsg_open_table(&b, "t");
	blobmsg_add_u8(&b, "x", 1);
	void *array = blobmsg_open_array(&b, "list");
	blobmsg_add_u8(&b, nullptr, 2);
	blobmsg_add_u8(&b, "", 3);
	blobmsg_close_array(&b, array);
	blobmsg_close_table(&b, table);
	void *empty = blobmsg_open_nested(&b, nullptr, true);
	blob_nest_end(&b, empty);
	EXPECT_EQ(b.bytes(), hex("00000044"
				 "82000038 00017400"
				 "  87000009 00017800 01000000"
				 "  81000024 00046c69 73740000"
				 "    87000009 00000000 02000000"
				 "    87000009 00000000 03000000"
				 "81000008 00000000"));
}

TEST(blobmsg, attributes_are_copied_with_their_names)
{
	buffer from, to;
	blobmsg_add_string(&from, "name", "value");
	ASSERT_EQ(blobmsg_add_blob(&to, static_cast<blob_attr *>(blob_data(from.head))), 0);
	EXPECT_EQ(to.bytes(), from.bytes());
}

// libubox writes such a name with the length 0.
TEST(standin_blobmsg, name_longer_than_its_length_field_is_refused)
{
	buffer b;
	EXPECT_EQ(blobmsg_add_u8(&b, std::string(65'536, 'n').c_str(), 1), -1);
	EXPECT_EQ(b.bytes(), hex("00000004"));
}

TEST(blobmsg, name_may_be_as_long_as_its_length_field_can_say)
{
	buffer b;
	EXPECT_EQ(blobmsg_add_u8(&b, std::string(65'535, 'n').c_str(), 1), 0);
	auto *attr = static_cast<blob_attr *>(blob_data(b.head));
	EXPECT_TRUE(blobmsg_check_attr(attr, true));
	EXPECT_EQ(strlen(blobmsg_name(attr)), 65'535U);
}

TEST(blobmsg, message_buffer_is_a_table)
{
	blob_buf b{};
	EXPECT_EQ(blobmsg_buf_init(&b), 0);
	EXPECT_EQ(raw(b.head), hex("02000004"));
	blob_buf_free(&b);
}

TEST(blobmsg, check_refuses_what_is_malformed)
{
	auto check = [](const std::string &bytes, bool name) {
		heap_attr attr(bytes);
		return blobmsg_check_attr_len(attr.get(), name, bytes.size());
	};
	EXPECT_TRUE(check(hex("87000009 00016100 12000000"), true));
	EXPECT_TRUE(check(hex("07000005 12000000"), false)) << "without a name, none asked for";
	EXPECT_FALSE(check(hex("07000005 12000000"), true)) << "not extended";
	EXPECT_TRUE(check(hex("87000009 00000000 12000000"), false)) << "the empty name";
	EXPECT_FALSE(check(hex("87000009 00000000 12000000"), true)) << "the empty name";
	EXPECT_FALSE(check(hex("80000004"), false)) << "no room for a name";
	EXPECT_FALSE(check(hex("80000005 00000000"), false)) << "no room for a name's length";
	EXPECT_FALSE(check(hex("80000006 00000000"), false)) << "no room for the name";
	EXPECT_TRUE(check(hex("80000008 00000000"), false));
	EXPECT_FALSE(check(hex("80000008 00026100"), false)) << "name longer than the attribute";
	EXPECT_FALSE(check(hex("80000008 ffff6100"), false)) << "name longer than the attribute";
	EXPECT_FALSE(check(hex("80000008 00016162"), true)) << "no NUL at the name's end";
	EXPECT_FALSE(check(hex("80000003"), false));
	EXPECT_FALSE(check(hex("80000000"), false));
	EXPECT_FALSE(check(hex("89000008 00000000"), false)) << "unknown type";
	EXPECT_FALSE(check(hex("ff000008 00000000"), false)) << "unknown type";
	EXPECT_FALSE(check(hex("09000004"), false)) << "unknown type";
}

TEST(blobmsg, check_holds_each_type_to_its_value)
{
	auto check = [](uint8_t type, const std::string &value) {
		std::string bytes = wire::named(type, "n", value);
		heap_attr attr(bytes);
		return blobmsg_check_attr(attr.get(), true);
	};
	using namespace std::string_literals;
	for (size_t length : {0U, 1U, 4U, 7U})
		for (uint8_t type : {wire::unspec, wire::array, wire::table})
			EXPECT_TRUE(check(type, std::string(length, 'x')));
	EXPECT_TRUE(check(BLOBMSG_TYPE_STRING, "text\0"s));
	EXPECT_TRUE(check(BLOBMSG_TYPE_STRING, "\0"s));
	EXPECT_FALSE(check(BLOBMSG_TYPE_STRING, "text"));
	EXPECT_FALSE(check(BLOBMSG_TYPE_STRING, ""));
	const std::pair<uint8_t, size_t> integers[] = {{BLOBMSG_TYPE_INT8, 1}, {BLOBMSG_TYPE_INT16, 2},
		{BLOBMSG_TYPE_INT32, 4}, {BLOBMSG_TYPE_INT64, 8}};
	for (auto [type, length] : integers) {
		EXPECT_TRUE(check(type, std::string(length, 'x')));
		EXPECT_FALSE(check(type, std::string(length - 1, 'x')));
		EXPECT_FALSE(check(type, std::string(length + 1, 'x')));
	}
	EXPECT_FALSE(check(BLOBMSG_TYPE_DOUBLE, "1234567"));
	EXPECT_TRUE(check(BLOBMSG_TYPE_DOUBLE, "12345678"));
	EXPECT_TRUE(check(BLOBMSG_TYPE_DOUBLE, "123456789"));
}

TEST(blobmsg, check_needs_the_whole_attribute)
{
	std::string bytes = hex("87000009 00016100 12000000");
	heap_attr attr(bytes);
	for (size_t length = 0; length < 9; ++length)
		EXPECT_FALSE(blobmsg_check_attr_len(attr.get(), true, length)) << length;
	EXPECT_TRUE(blobmsg_check_attr_len(attr.get(), true, 9));
	EXPECT_TRUE(blobmsg_check_attr(attr.get(), true));
}

TEST(blobmsg, check_array_counts_the_elements)
{
	auto count = [](const std::string &bytes, int type) {
		heap_attr attr(bytes);
		int result = blobmsg_check_array(attr.get(), type);
		EXPECT_EQ(blobmsg_check_array_len(attr.get(), type, bytes.size()), result);
		EXPECT_EQ(blobmsg_check_array_len(attr.get(), type, 3), -1);
		return result;
	};
	std::string one = wire::named_number("", 1), named = wire::named_number("x", 1);
	std::string text = wire::named_text("", "text");
	EXPECT_EQ(count(wire::named(wire::array, "a", ""), BLOBMSG_TYPE_INT32), 0);
	EXPECT_EQ(count(wire::named(wire::array, "a", one + one + one), BLOBMSG_TYPE_INT32), 3);
	EXPECT_EQ(count(wire::named(wire::array, "a", one + text), BLOBMSG_TYPE_INT32), -1);
	EXPECT_EQ(count(wire::named(wire::array, "a", one + text), BLOBMSG_TYPE_UNSPEC), 2);
	EXPECT_EQ(count(wire::named(wire::table, "a", named), BLOBMSG_TYPE_UNSPEC), 1);
	EXPECT_EQ(count(wire::named(wire::table, "a", one), BLOBMSG_TYPE_UNSPEC), -1) << "no name";
	EXPECT_EQ(count(wire::named(wire::array, "a", hex("85000008 00000000")), BLOBMSG_TYPE_UNSPEC), -1);
	EXPECT_EQ(count(wire::named_text("a", "text"), BLOBMSG_TYPE_UNSPEC), -1);
	EXPECT_EQ(count(wire::attribute(2, named), BLOBMSG_TYPE_UNSPEC), 1) << "a table without a name";
}

// What blobmsg_parse finds of a policy: its result, then each place's name, or "-".
struct finding {
	int result = -2;
	strings places;
};

static finding parse(const std::vector<blobmsg_policy> &policy, const std::string &bytes)
{
	heap_attr data(bytes);
	std::vector<blob_attr *> tb(policy.size(), data.get());
	finding found;
	found.result = blobmsg_parse(policy.data(), static_cast<int>(policy.size()), tb.data(), data.data(),
		static_cast<unsigned>(bytes.size()));
	for (blob_attr *attr : tb) {
		if (!attr)
			found.places.push_back("-");
		else if (blobmsg_data_len(attr) == 4)
			found.places.push_back(std::to_string(blobmsg_get_u32(attr)));
		else
			found.places.push_back(
				std::string(static_cast<char *>(blobmsg_data(attr)), blobmsg_data_len(attr)));
	}
	return found;
}

TEST(blobmsg, parse_finds_by_name_and_type_and_the_first_wins)
{
	std::vector<blobmsg_policy> policy = {{"a", BLOBMSG_TYPE_INT32}, {"a", BLOBMSG_TYPE_UNSPEC},
		{"b", BLOBMSG_TYPE_STRING}, {"c", BLOBMSG_CAST_INT64}, {nullptr, BLOBMSG_TYPE_UNSPEC}};
	finding found = parse(policy, wire::named(BLOBMSG_TYPE_UNSPEC, "a", "raw") +
					      wire::named_number("a", 1) + wire::named_number("a", 2) +
					      wire::named_number("b", 3) + wire::named_number("c", 4) +
					      wire::named_number("c", 5) + wire::named_number("", 6));
	EXPECT_EQ(found.result, 0);
	EXPECT_THAT(found.places, ElementsAre("1", "raw", "-", "4", "-"));
}

TEST(blobmsg, cast_takes_the_four_integer_types)
{
	std::vector<blobmsg_policy> policy = {{"n", BLOBMSG_CAST_INT64}};
	const std::pair<uint8_t, size_t> types[] = {{BLOBMSG_TYPE_INT8, 1}, {BLOBMSG_TYPE_INT16, 2},
		{BLOBMSG_TYPE_INT32, 4}, {BLOBMSG_TYPE_INT64, 8}};
	for (auto [type, length] : types)
		EXPECT_NE(parse(policy, wire::named(type, "n", std::string(length, 'x'))).places[0], "-");
	for (uint8_t type : {wire::unspec, wire::array, wire::table})
		EXPECT_EQ(parse(policy, wire::named(type, "n", "12345678")).places[0], "-");
	EXPECT_EQ(parse(policy, wire::named(BLOBMSG_TYPE_DOUBLE, "n", "12345678")).places[0], "-");
	EXPECT_EQ(parse(policy, wire::named_text("n", "text")).places[0], "-");
}

TEST(blobmsg, parse_without_data_is_refused_but_clears)
{
	blobmsg_policy policy = {"a", BLOBMSG_TYPE_UNSPEC};
	char bytes[4] = {};
	heap_attr attr("word");
	blob_attr *tb = attr.get();
	EXPECT_EQ(blobmsg_parse(&policy, 1, &tb, nullptr, 4), -EINVAL);
	EXPECT_EQ(tb, nullptr);
	tb = attr.get();
	EXPECT_EQ(blobmsg_parse(&policy, 1, &tb, bytes, 0), -EINVAL);
	EXPECT_EQ(tb, nullptr);
}

TEST(blobmsg, malformed_attribute_ends_the_parse_whatever_its_name)
{
	std::vector<blobmsg_policy> policy = {{"a", BLOBMSG_TYPE_INT32}, {"b", BLOBMSG_TYPE_INT32}};
	std::string malformed = wire::named(BLOBMSG_TYPE_INT32, "other", "12345");
	finding found = parse(policy, wire::named_number("a", 1) + malformed + wire::named_number("b", 2));
	EXPECT_EQ(found.result, -1);
	EXPECT_THAT(found.places, ElementsAre("1", "-"));
}

TEST(blobmsg, truncated_attribute_just_ends_the_walk)
{
	std::vector<blobmsg_policy> policy = {{"a", BLOBMSG_TYPE_INT32}, {"b", BLOBMSG_TYPE_INT32}};
	std::string whole = wire::named_number("a", 1), cut = wire::named_number("b", 2);
	for (size_t length = 0; length < cut.size(); ++length) {
		finding found = parse(policy, whole + cut.substr(0, length));
		EXPECT_EQ(found.result, 0) << length;
		EXPECT_THAT(found.places, ElementsAre("1", "-")) << length;
	}
}

TEST(blobmsg, attribute_without_a_name_is_passed_over)
{
	std::vector<blobmsg_policy> policy = {{"a", BLOBMSG_TYPE_INT32}, {"", BLOBMSG_TYPE_UNSPEC}};
	finding found = parse(policy, wire::number(BLOBMSG_TYPE_INT32, 5) + wire::named_number("a", 1));
	EXPECT_EQ(found.result, 0);
	EXPECT_THAT(found.places, ElementsAre("1", "-"));
}

TEST(blobmsg, names_of_256_bytes_never_match)
{
	for (size_t length : {255U, 256U, 300U}) {
		std::string name(length, 'n');
		finding found = parse({{name.c_str(), BLOBMSG_TYPE_INT32}}, wire::named_number(name, 1));
		EXPECT_EQ(found.result, 0);
		EXPECT_EQ(found.places[0], length < 256 ? "1" : "-") << length;
	}
}

TEST(blobmsg, name_with_an_embedded_nul_does_not_match_its_beginning)
{
	using namespace std::string_literals;
	finding found = parse({{"a", BLOBMSG_TYPE_INT32}}, wire::named_number("a\0b"s, 1));
	EXPECT_EQ(found.result, 0);
	EXPECT_EQ(found.places[0], "-");
}

TEST(blobmsg, array_is_parsed_by_place)
{
	blobmsg_policy policy[] = {{nullptr, BLOBMSG_TYPE_INT32}, {nullptr, BLOBMSG_TYPE_UNSPEC},
		{nullptr, BLOBMSG_TYPE_STRING}};
	auto places = [&](const std::string &bytes, int wanted) {
		heap_attr data(bytes);
		blob_attr *tb[3] = {data.get(), data.get(), data.get()};
		EXPECT_EQ(
			blobmsg_parse_array(policy, 3, tb, data.data(), static_cast<unsigned>(bytes.size())),
			wanted);
		std::string types;
		for (blob_attr *attr : tb)
			types += attr ? std::to_string(blobmsg_type(attr)) : "-";
		return types;
	};
	std::string number = wire::named_number("", 1), text = wire::named_text("", "text");
	EXPECT_EQ(places(number + text + text, 0), "533");
	EXPECT_EQ(places(text + number + number + number, 0), "55-");
	EXPECT_EQ(places(number + number + text + text, 0), "553");
	EXPECT_EQ(places(number + hex("85000008 00000000") + text, -1), "5--");
	EXPECT_EQ(places(hex("83000008 00000000") + number, 0), "5--")
		<< "what is skipped is not looked into";
	EXPECT_EQ(places(number + number + text + hex("83000008 00000000"), 0), "553")
		<< "nor is what follows";
}

// libubox reads it.
TEST(standin_blobmsg, array_that_is_null_is_refused)
{
	blobmsg_policy policy = {nullptr, BLOBMSG_TYPE_INT32};
	blob_attr *place;
	EXPECT_EQ(blobmsg_parse_array(&policy, 1, &place, nullptr, 8), -EINVAL);
}

// Everything that reads foreign bytes, on these.
static void read_as_everything(const std::string &bytes)
{
	static const std::vector<blobmsg_policy> policy = {{"name", BLOBMSG_TYPE_STRING},
		{"number", BLOBMSG_TYPE_INT32}, {"long", BLOBMSG_CAST_INT64}, {"table", BLOBMSG_TYPE_TABLE},
		{"json", BLOBMSG_TYPE_UNSPEC}};
	finding found = parse(policy, bytes);
	EXPECT_THAT(found.result, testing::AnyOf(0, -1, -EINVAL));

	heap_attr data(bytes);
	blob_attr *tb[4], *places[16];
	blobmsg_parse_array(policy.data(), 4, tb, data.data(), static_cast<unsigned>(bytes.size()));
	size_t rest = bytes.size();
	blob_attr *attr;
	__blob_for_each_attr(attr, data.data(), rest) visit(attr, rest, false);
	blob_attr_info info[16]{};
	for (unsigned id = 0; id < 16; ++id)
		info[id].type = id % 10;
	blob_parse_untrusted(data.get(), bytes.size(), places, info, 16);

	std::string whole = wire::be32(static_cast<uint32_t>(bytes.size() + 4)) + bytes;
	heap_attr message(whole);
	blob_parse(message.get(), places, info, 16);
	blob_parse(message.get(), places, nullptr, 16);
}

TEST(blobmsg, message_cut_at_any_byte_is_read_safely)
{
	std::string message = sample_message();
	for (size_t length = 0; length <= message.size(); ++length)
		read_as_everything(message.substr(0, length));
}

TEST(blobmsg, message_with_any_byte_changed_is_read_safely)
{
	const std::string message = sample_message();
	for (size_t at = 0; at < message.size(); ++at) {
		for (int value : {0x00, 0x01, 0x03, 0x04, 0x7f, 0x80, 0xfe, 0xff}) {
			std::string changed = message;
			changed[at] = static_cast<char>(value);
			read_as_everything(changed);
		}
	}
}

TEST(blobmsg, garbage_is_read_safely)
{
	std::mt19937 random(3);
	for (int round = 0; round < 5000; ++round) {
		std::string bytes(random() % 96, '\0');
		for (char &byte : bytes)
			byte = static_cast<char>(random());
		// Small lengths now and then, or the walks would end at the first word.
		for (size_t at = 0; at + 4 <= bytes.size(); at += 4)
			if (random() % 2)
				bytes.replace(at, 4, wire::be32((random() & 0xff000000) | random() % 32));
		read_as_everything(bytes);
	}
}
