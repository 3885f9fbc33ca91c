// libubox: blobs byte by byte.
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "blobs.h"

TEST(blob, empty_message_is_one_word)
{
	buffer b;
	EXPECT_EQ(b.bytes(), hex("00000004"));
	EXPECT_EQ(static_cast<void *>(b.head), b.buf);
	EXPECT_EQ(b.buflen, 256);
	buffer seven(7);
	EXPECT_EQ(seven.bytes(), hex("07000004"));
}

TEST(blob, numbers_and_strings_are_stored_in_network_order_and_padded)
{
	buffer b;
	EXPECT_NE(blob_put_int8(&b, 1, 0x12), nullptr);
	EXPECT_NE(blob_put_int16(&b, 2, 0x1234), nullptr);
	EXPECT_NE(blob_put_int32(&b, 3, 0x12345678), nullptr);
	EXPECT_NE(blob_put_int64(&b, 4, 0x123456789abcdef0), nullptr);
	EXPECT_NE(blob_put_string(&b, 5, "demo"), nullptr);
	EXPECT_NE(blob_put(&b, 6, nullptr, 0), nullptr);
	EXPECT_EQ(b.bytes(), hex("00000038"
				 "01000005 12000000"
				 "02000006 12340000"
				 "03000008 12345678"
				 "0400000c 12345678 9abcdef0"
				 "05000009 64656d6f 00000000"
				 "06000004"));
}

TEST(blob, readers_give_back_what_was_put)
{
	buffer b;
	EXPECT_EQ(blob_get_u8(blob_put_u8(&b, 1, 0xfe)), 0xfe);
	EXPECT_EQ(blob_get_int8(blob_put_u8(&b, 1, 0xfe)), -2);
	EXPECT_EQ(blob_get_u16(blob_put_u16(&b, 1, 0xfffe)), 0xfffe);
	EXPECT_EQ(blob_get_int16(blob_put_u16(&b, 1, 0xfffe)), -2);
	EXPECT_EQ(blob_get_u32(blob_put_u32(&b, 1, 0xfffffffe)), 0xfffffffe);
	EXPECT_EQ(blob_get_int32(blob_put_u32(&b, 1, 0xfffffffe)), -2);
	EXPECT_EQ(blob_get_u64(blob_put_u64(&b, 1, 0xfffffffffffffffe)), 0xfffffffffffffffe);
	EXPECT_EQ(blob_get_int64(blob_put_u64(&b, 1, 0xfffffffffffffffe)), -2);
	EXPECT_STREQ(blob_get_string(blob_put_string(&b, 1, "text")), "text");
}

TEST(blob, length_counts_the_word_but_not_the_padding)
{
	buffer b;
	blob_attr *attr = blob_put(&b, 9, "abcde", 5);
	EXPECT_EQ(blob_id(attr), 9U);
	EXPECT_FALSE(blob_is_extended(attr));
	EXPECT_EQ(blob_len(attr), 5U);
	EXPECT_EQ(blob_raw_len(attr), 9U);
	EXPECT_EQ(blob_pad_len(attr), 12U);
	EXPECT_EQ(reinterpret_cast<char *>(blob_next(attr)), reinterpret_cast<char *>(attr) + 12);
	EXPECT_EQ(memcmp(blob_data(attr), "abcde\0\0\0", 8), 0);
	EXPECT_EQ(blob_raw_len(b.head), 16U);
}

TEST(blob, id_is_cut_to_seven_bits)
{
	buffer b;
	EXPECT_EQ(blob_id(blob_new(&b, 0x1ff, 0)), 0x7fU);
	EXPECT_EQ(b.bytes(), hex("00000008 7f000004"));
}

TEST(blob, init_drops_the_contents_and_keeps_the_memory)
{
	buffer b;
	for (uint32_t value = 0; value < 1000; ++value)
		blob_put_u32(&b, 1, value);
	void *memory = b.buf;
	int length = b.buflen;
	EXPECT_EQ(blob_buf_init(&b, 3), 0);
	EXPECT_EQ(b.buf, memory);
	EXPECT_EQ(b.buflen, length);
	EXPECT_EQ(b.bytes(), hex("03000004"));
}

TEST(blob, freed_buffer_can_be_freed_and_used_again)
{
	buffer b;
	auto grow = b.grow;
	blob_buf_free(&b);
	EXPECT_EQ(b.buf, nullptr);
	EXPECT_EQ(b.head, nullptr);
	EXPECT_EQ(b.buflen, 0);
	EXPECT_EQ(b.grow, grow);
	blob_buf_free(&b);
	EXPECT_EQ(blob_buf_init(&b, 0), 0);
	EXPECT_NE(blob_put_u8(&b, 1, 1), nullptr);
}

TEST(blob, buffer_grows_in_zeroed_steps_and_the_head_moves_with_it)
{
	buffer b;
	void *nest = blob_nest_start(&b, 1);
	ptrdiff_t offset = reinterpret_cast<char *>(b.head) - static_cast<char *>(b.buf);
	EXPECT_EQ(offset, 4);
	ASSERT_TRUE(blob_buf_grow(&b, 256));
	EXPECT_EQ(b.buflen, 256 + 512);
	ASSERT_TRUE(blob_buf_grow(&b, 255));
	EXPECT_EQ(b.buflen, 256 + 512 + 256);
	EXPECT_EQ(reinterpret_cast<char *>(b.head) - static_cast<char *>(b.buf), offset);
	EXPECT_EQ(std::string(static_cast<char *>(b.buf) + 8, 1016), std::string(1016, '\0'));
	blob_nest_end(&b, nest);
	EXPECT_EQ(b.bytes(), hex("00000008 01000004"));
}

static bool refuse_growth(blob_buf *, int)
{
	return false;
}

TEST(blob, own_grow_function_is_kept_and_its_refusal_changes_nothing)
{
	blob_buf none{};
	none.grow = refuse_growth;
	EXPECT_EQ(blob_buf_init(&none, 0), -ENOMEM);

	buffer b;
	blob_put_u32(&b, 1, 1);
	std::string before = b.bytes();
	b.grow = refuse_growth;
	EXPECT_EQ(blob_new(&b, 1, 300), nullptr);
	EXPECT_EQ(blob_put_raw(&b, std::string(300, 'x').data(), 300), nullptr);
	EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", std::string(300, 'x').data(), 300), -1);
	EXPECT_EQ(blobmsg_open_table(&b, std::string(300, 'x').c_str()), nullptr);
	EXPECT_EQ(b.bytes(), before);
	blob_put(&b, 1, std::string(232, 'x').data(), 232); // fills the 256 bytes but 8
	before = b.bytes();
	EXPECT_NE(blob_nest_start(&b, 1), nullptr);
	EXPECT_NE(blob_nest_start(&b, 1), nullptr);
	EXPECT_EQ(blob_nest_start(&b, 1), nullptr);
}

TEST(blob, buffer_ends_below_sixteen_mebibytes)
{
	buffer b;
	std::string mebibyte(1 << 20, 'm');
	for (int count = 0; count < 15; ++count)
		ASSERT_NE(blob_put(&b, 1, mebibyte.data(), 1 << 20), nullptr);
	std::string before = b.bytes();
	EXPECT_EQ(blob_put(&b, 1, mebibyte.data(), 1 << 20), nullptr);
	EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_STRING, "name", mebibyte.data(), 1 << 20), -1);
	EXPECT_FALSE(blob_buf_grow(&b, 1 << 20));
	EXPECT_TRUE(b.bytes() == before);
}

// libubox rounds memory up beyond the limit, and then lets lengths overflow that have 24 bits.
TEST(standin_blob, buffer_can_be_filled_to_the_last_word_and_no_further)
{
	buffer b;
	std::string mebibyte(1 << 20, 'm');
	for (int count = 0; count < 15; ++count)
		ASSERT_NE(blob_put(&b, 1, mebibyte.data(), 1 << 20), nullptr);
	std::string before = b.bytes();
	int rest = 0xfffffc - static_cast<int>(before.size()) - 4;
	EXPECT_EQ(blob_new(&b, 1, rest + 1), nullptr);
	EXPECT_NE(blob_new(&b, 1, rest), nullptr);
	EXPECT_EQ(blob_raw_len(b.head), 0xfffffcU);
	EXPECT_EQ(blob_new(&b, 1, 0), nullptr);
	EXPECT_EQ(blob_nest_start(&b, 1), nullptr);
	EXPECT_EQ(blob_raw_len(b.head), 0xfffffcU);
}

TEST(blob, nested_attributes_share_the_limit_of_the_buffer)
{
	buffer b;
	std::string half(8 << 20, 'h');
	ASSERT_NE(blob_put(&b, 1, half.data(), 8 << 20), nullptr);
	void *nest = blob_nest_start(&b, 2);
	ASSERT_NE(nest, nullptr);
	EXPECT_EQ(blob_put(&b, 3, half.data(), 8 << 20), nullptr);
	blob_put_u8(&b, 3, 1);
	blob_nest_end(&b, nest);
	EXPECT_EQ(blob_raw_len(b.head), 4U + 4 + (8 << 20) + 4 + 8);
}

// libubox takes them for negative ones, and writes before the buffer.
TEST(standin_blob, absurd_sizes_are_refused)
{
	buffer b;
	EXPECT_EQ(blob_new(&b, 1, -1), nullptr);
	EXPECT_EQ(blob_new(&b, 1, INT_MAX), nullptr);
	EXPECT_EQ(blob_put(&b, 1, nullptr, UINT_MAX), nullptr);
	EXPECT_EQ(blob_put_raw(&b, "word", UINT_MAX), nullptr);
	EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", nullptr, UINT_MAX), -1);
	EXPECT_FALSE(blob_buf_grow(&b, INT_MAX));
	EXPECT_FALSE(blob_buf_grow(&b, 0xffffff));
	EXPECT_EQ(b.bytes(), hex("00000004"));
}

TEST(blob, put_without_bytes_leaves_the_payload_to_the_caller)
{
	buffer b;
	blob_attr *attr = blob_put(&b, 1, nullptr, 6);
	ASSERT_NE(attr, nullptr);
	memcpy(blob_data(attr), "sixsix", 6);
	EXPECT_EQ(b.bytes(), hex("00000010 0100000a 73697873 69780000"));
}

TEST(blob, padding_is_zeroed_where_a_message_was_before)
{
	buffer b;
	blob_put(&b, 1, "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff", 12);
	blob_buf_init(&b, 0);
	blob_put_u8(&b, 1, 1);
	EXPECT_EQ(b.bytes(), hex("0000000c 01000005 01000000"));
	blobmsg_add_u8(&b, "", 2);
	EXPECT_EQ(b.bytes(), hex("00000018 01000005 01000000 87000009 00000000 02000000"));
}

TEST(blob, put_raw_appends_whole_attributes)
{
	buffer b;
	std::string attributes = hex("01000005 aa000000 02000008 12345678");
	EXPECT_NE(blob_put_raw(&b, attributes.data(), 16), nullptr);
	EXPECT_EQ(b.bytes(), hex("00000014") + attributes);
	EXPECT_EQ(blob_put_raw(&b, attributes.data(), 3), nullptr);
	EXPECT_EQ(blob_put_raw(&b, nullptr, 8), nullptr);
	EXPECT_EQ(b.bytes(), hex("00000014") + attributes);
}

TEST(blob, nested_attribute_counts_the_padding_of_its_children)
{
	buffer b;
	blob_put_u8(&b, 1, 1);
	void *outer = blob_nest_start(&b, 2);
	ASSERT_NE(outer, nullptr);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(outer), uintptr_t{BLOB_COOKIE});
	blob_put_u8(&b, 3, 3);
	void *inner = blob_nest_start(&b, 4);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(inner), uintptr_t{BLOB_COOKIE} + 12);
	blob_put_u8(&b, 5, 5);
	blob_nest_end(&b, inner);
	blob_nest_end(&b, outer);
	blob_put_u8(&b, 6, 6);
	EXPECT_EQ(b.bytes(), hex("0000002c"
				 "01000005 01000000"
				 "02000018"
				 "  03000005 03000000"
				 "  0400000c 05000005 05000000"
				 "06000005 06000000"));
}

TEST(blob, nested_attributes_survive_the_memory_moving)
{
	buffer b;
	void *outer = blob_nest_start(&b, 1), *inner = blob_nest_start(&b, 2);
	std::string expected;
	for (uint32_t value = 0; value < 10'000; ++value) {
		blob_put_u32(&b, 3, value);
		expected += wire::number(3, value);
	}
	blob_nest_end(&b, inner);
	blob_nest_end(&b, outer);
	EXPECT_TRUE(b.bytes() == wire::attribute(0, wire::attribute(1, wire::attribute(2, expected))));
}

TEST(blob, length_bits_can_be_set_without_the_others)
{
	heap_attr attr(hex("ff000004 aabbccdd eeff0011"));
	blob_set_raw_len(attr.get(), 0x01000009);
	EXPECT_EQ(raw(attr.get()), hex("ff000009 aabbccdd ee"));
	blob_fill_pad(attr.get());
	EXPECT_EQ(std::string(static_cast<char *>(attr.data()), 12), hex("ff000009 aabbccdd ee000000"));
}

TEST(blob, equality_is_that_of_all_bytes)
{
	heap_attr a(hex("01000005 aa000000")), same(hex("01000005 aa000000")), id(hex("02000005 aa000000")),
		padding(hex("01000005 aa000001")), longer(hex("01000009 aa000000 00000000"));
	EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
	EXPECT_FALSE(blob_attr_equal(a.get(), nullptr));
	EXPECT_FALSE(blob_attr_equal(nullptr, a.get()));
	EXPECT_TRUE(blob_attr_equal(a.get(), a.get()));
	EXPECT_TRUE(blob_attr_equal(a.get(), same.get()));
	EXPECT_FALSE(blob_attr_equal(a.get(), id.get()));
	EXPECT_FALSE(blob_attr_equal(a.get(), padding.get()));
	EXPECT_FALSE(blob_attr_equal(a.get(), longer.get()));
}

TEST(blob, duplicate_has_the_padding_too)
{
	heap_attr attr(hex("01000005 aa000000"));
	blob_attr *copy = blob_memdup(attr.get());
	ASSERT_NE(copy, nullptr);
	EXPECT_NE(copy, attr.get());
	EXPECT_TRUE(blob_attr_equal(copy, attr.get()));
	free(copy);
}

TEST(blob, types_are_checked_by_their_length)
{
	struct {
		int type;
		std::vector<unsigned> good, bad;
	} const rows[] = {
		{BLOB_ATTR_UNSPEC, {0, 1, 9}, {}},
		{BLOB_ATTR_NESTED, {0, 1, 9}, {}},
		{BLOB_ATTR_BINARY, {0, 1, 9}, {}},
		{BLOB_ATTR_STRING, {1, 9}, {0}},
		{BLOB_ATTR_INT8, {1}, {0, 2}},
		{BLOB_ATTR_INT16, {2}, {0, 1, 3}},
		{BLOB_ATTR_INT32, {4}, {0, 3, 5}},
		{BLOB_ATTR_INT64, {8}, {0, 7, 9}},
		{BLOB_ATTR_DOUBLE, {8, 9}, {0, 7}},
		{BLOB_ATTR_LAST, {}, {0, 1, 4, 8}},
		{1000, {}, {0, 1, 4, 8}},
	};
	const char zeroes[16] = {};
	for (const auto &row : rows) {
		for (unsigned length : row.good)
			EXPECT_TRUE(blob_check_type(zeroes, length, row.type)) << row.type << " " << length;
		for (unsigned length : row.bad)
			EXPECT_FALSE(blob_check_type(zeroes, length, row.type)) << row.type << " " << length;
	}
	EXPECT_FALSE(blob_check_type("abc", 3, BLOB_ATTR_STRING));
	EXPECT_TRUE(blob_check_type("abc", 4, BLOB_ATTR_STRING));
}

TEST(blob, parse_stores_children_by_id_and_the_last_wins)
{
	heap_attr attr(wire::attribute(
		0, wire::number(1, 1) + wire::number(2, 2) + wire::number(1, 3) + wire::number(9, 4)));
	blob_attr *found[4] = {attr.get(), attr.get(), attr.get(), attr.get()};
	EXPECT_EQ(blob_parse(attr.get(), found, nullptr, 4), 2);
	EXPECT_EQ(found[0], nullptr);
	EXPECT_EQ(blob_get_u32(found[1]), 3U);
	EXPECT_EQ(blob_get_u32(found[2]), 2U);
	EXPECT_EQ(found[3], nullptr);
}

static bool is_odd(const blob_attr_info *, blob_attr *attr)
{
	return blob_get_u32(attr) & 1;
}

TEST(blob, parse_passes_over_what_the_table_refuses)
{
	blob_attr_info info[8]{};
	info[1].type = BLOB_ATTR_INT32;
	info[2].type = BLOB_ATTR_STRING;
	info[3].type = BLOB_ATTR_LAST;
	info[4].minlen = 7;
	info[5].maxlen = 8;
	info[6].type = BLOB_ATTR_INT32;
	info[6].validate = is_odd;
	auto parse = [&](const std::string &children) {
		heap_attr attr(wire::attribute(0, children));
		blob_attr *found[8];
		EXPECT_LE(blob_parse_untrusted(attr.get(), children.size() + 4, found, info, 8), 1);
		return std::find_if(found, found + 8, [](blob_attr *place) { return place; }) - found;
	};
	EXPECT_EQ(parse(wire::number(1, 1)), 1);
	EXPECT_EQ(parse(wire::octet(1, 1)), 8);
	EXPECT_EQ(parse(wire::text(2, "text")), 2);
	EXPECT_EQ(parse(wire::attribute(2, "text")), 8);
	EXPECT_EQ(parse(wire::attribute(2, "")), 8);
	EXPECT_EQ(parse(wire::attribute(3, "anything")), 3);
	EXPECT_EQ(parse(wire::attribute(4, "12")), 8);
	EXPECT_EQ(parse(wire::attribute(4, "123")), 4);
	EXPECT_EQ(parse(wire::attribute(5, "1234")), 5);
	EXPECT_EQ(parse(wire::attribute(5, "12345")), 8);
	EXPECT_EQ(parse(wire::number(6, 1)), 6);
	EXPECT_EQ(parse(wire::number(6, 2)), 8);
	EXPECT_EQ(parse(wire::number(6, 1) + wire::number(6, 2)), 6);
	EXPECT_EQ(parse(wire::octet(6, 1)), 8);
}

TEST(blob, untrusted_parse_refuses_an_attribute_that_is_not_all_there)
{
	std::string bytes = wire::attribute(0, wire::number(1, 1));
	heap_attr attr(bytes);
	blob_attr *marker = attr.get(), *found[2] = {marker, marker};
	EXPECT_EQ(blob_parse_untrusted(nullptr, 12, found, nullptr, 2), 0);
	for (size_t length = 0; length < bytes.size(); ++length)
		EXPECT_EQ(blob_parse_untrusted(attr.get(), length, found, nullptr, 2), 0) << length;
	EXPECT_EQ(found[0], marker);
	EXPECT_EQ(found[1], marker);
	EXPECT_EQ(blob_parse_untrusted(attr.get(), bytes.size(), found, nullptr, 2), 1);
	EXPECT_EQ(found[0], nullptr);
}

TEST(blob, walk_ends_at_the_first_broken_child)
{
	auto ids = [](const std::string &children) {
		heap_attr attr(wire::be32(static_cast<uint32_t>(children.size() + 4)) + children);
		std::string seen;
		blob_attr *child;
		size_t left;
		blob_for_each_attr(child, attr.get(), left) seen += std::to_string(blob_id(child));
		unsigned rest = static_cast<unsigned>(children.size());
		std::string again;
		__blob_for_each_attr(child, blob_data(attr.get()), rest) again +=
			std::to_string(blob_id(child));
		EXPECT_EQ(seen, again);
		return seen;
	};
	std::string good = wire::number(1, 0);
	EXPECT_EQ(ids(""), "");
	EXPECT_EQ(ids(good + wire::number(2, 0)), "12");
	EXPECT_EQ(ids(good + hex("02000000") + good), "1");
	EXPECT_EQ(ids(good + hex("0200000c") + hex("00000000")), "1");
	EXPECT_EQ(ids(good + hex("02000005") + hex("000000")), "1"); // its padding is missing
	EXPECT_EQ(ids(good + hex("020000")), "1");
	EXPECT_EQ(ids(good + hex("02ffffff")), "1");
	EXPECT_EQ(ids(good + hex("02000004")), "12");
}

TEST(blob, child_too_short_for_its_own_word_is_passed_over)
{
	for (uint32_t length : {1U, 2U, 3U}) {
		heap_attr attr(wire::attribute(0, wire::be32(0x01000000 | length) + wire::number(2, 5)));
		blob_attr *found[3];
		blob_attr_info info[3]{};
		EXPECT_EQ(blob_parse(attr.get(), found, info, 3), 1);
		EXPECT_EQ(found[1], nullptr);
		EXPECT_EQ(blob_get_u32(found[2]), 5U);
	}
}

// libubox's lengths are then just below 2^64.
TEST(standin_blob, attribute_too_short_for_its_own_word_or_name_has_no_payload)
{
	for (uint32_t length : {1U, 2U, 3U}) {
		heap_attr attr(wire::be32(0x01000000 | length));
		EXPECT_EQ(blob_len(attr.get()), 0U);
	}
	heap_attr too_short(hex("82000006 ffff0000"));
	EXPECT_EQ(blobmsg_data_len(too_short.get()), 0U);
}
