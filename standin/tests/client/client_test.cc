// libubox and libubus, the real ones or the stand-in: blobs byte by byte, and the client library against a peer that
// speaks the wire protocol from this file, message by message. What the peer will answer is mostly written before the
// call that asks: sequence numbers are known, and the client reads no message earlier than it needs it. The suites
// standin_* are about the stand-in only.
#include <libubus.h>

#include <limits.h>
#include <math.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bus.h"
#include "tests/support/system.h"

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

using strings = std::vector<std::string>;

// ---------------------------------------------------------------------------------------------------------
// Blobs.

// A buffer that is released with its owner.
struct buffer : blob_buf {
	explicit buffer(int id = 0) : blob_buf{} { EXPECT_EQ(blob_buf_init(this, id), 0); }
	buffer(const buffer &) = delete;
	buffer &operator=(const buffer &) = delete;
	~buffer() { blob_buf_free(this); }
	std::string bytes() const { return {reinterpret_cast<const char *>(head), blob_raw_len(head)}; }
};

// An attribute in a block of exactly its size, so that a read outside of it is found by the sanitizer.
class heap_attr
{
	std::unique_ptr<char[]> bytes_;

public:
	explicit heap_attr(const std::string &bytes) : bytes_(new char[bytes.size()])
	{
		memcpy(bytes_.get(), bytes.data(), bytes.size());
	}
	blob_attr *get() const { return reinterpret_cast<blob_attr *>(bytes_.get()); }
	void *data() const { return bytes_.get(); }
};

static std::string hex(const std::string &digits)
{
	return wire::from_hex(digits);
}

static std::string raw(const blob_attr *attr)
{
	return attr ? std::string(reinterpret_cast<const char *>(attr), blob_raw_len(attr)) : "(null)";
}

static std::string payload(const blob_attr *attr)
{
	return {static_cast<const char *>(blob_data(attr)), blob_len(attr)};
}

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

// ---------------------------------------------------------------------------------------------------------
// Named attributes.

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

// A message with every type, nested.
static std::string sample_message()
{
	std::string list = wire::named_text("", "one") + wire::named_number("", 2);
	std::string table = wire::named(wire::int8, "flag", "\1") + wire::named(wire::array, "list", list);
	return wire::named_text("name", "value") + wire::named_number("number", 7) +
	       wire::named(wire::int64, "long", "12345678") + wire::named(BLOBMSG_TYPE_INT16, "short", "12") +
	       wire::named(BLOBMSG_TYPE_DOUBLE, "double", "12345678") +
	       wire::named(wire::table, "table", table) + wire::named(wire::unspec, "json", "{\"a\":1}");
}

// Reads an attribute as a careful program does, to the bottom. The result keeps the reads alive.
static size_t visit(blob_attr *attr, size_t length, bool name)
{
	if (!blobmsg_check_attr_len(attr, name, length))
		return 0;
	size_t sum = blob_is_extended(attr) ? strlen(blobmsg_name(attr)) : 0;
	const auto *value = static_cast<const unsigned char *>(blobmsg_data(attr));
	for (size_t i = 0; i < blobmsg_data_len(attr); ++i)
		sum += value[i];
	int type = blobmsg_type(attr);
	if (type != BLOBMSG_TYPE_TABLE && type != BLOBMSG_TYPE_ARRAY)
		return sum;
	blob_attr *child;
	size_t left;
	blobmsg_for_each_attr(child, attr, left) sum += visit(child, left, type == BLOBMSG_TYPE_TABLE);
	return sum + static_cast<size_t>(blobmsg_check_array(attr, BLOBMSG_TYPE_UNSPEC) + 1);
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

// ---------------------------------------------------------------------------------------------------------
// Trees and lists.

struct item {
	int key = 0;
	int serial = 0;
	avl_node node{};
};

static int compare_numbers(const void *a, const void *b, void *direction)
{
	int difference = *static_cast<const int *>(a) - *static_cast<const int *>(b);
	return direction ? -difference : difference;
}

// The height below `node`, with everything that holds of a balanced tree expected on the way.
static int height_of(const avl_node *node)
{
	if (!node)
		return 0;
	for (const avl_node *child : {node->left, node->right}) {
		if (child) {
			EXPECT_EQ(child->parent, node);
		}
	}
	int left = height_of(node->left), right = height_of(node->right);
	EXPECT_EQ(right - left, node->balance);
	EXPECT_LE(abs(right - left), 1);
	return std::max(left, right) + 1;
}

static std::vector<int> keys_in(avl_tree *tree)
{
	std::vector<int> keys;
	item *each;
	avl_for_each_element(tree, each, node) keys.push_back(each->key);
	return keys;
}

static void insert(avl_tree *tree, item *what, int expected = 0)
{
	what->node.key = &what->key;
	EXPECT_EQ(avl_insert(tree, &what->node), expected);
}

TEST(avl, tree_stays_sorted_and_balanced)
{
	for (bool duplicates : {false, true}) {
		avl_tree tree;
		avl_init(&tree, compare_numbers, duplicates, nullptr);
		std::mt19937 random(11);
		std::list<item> items;
		std::multimap<int, int> model;
		for (int round = 0; round < 3000; ++round) {
			if (random() % 5 < 3) {
				int key = static_cast<int>(random() % 200);
				bool refused = !duplicates && model.count(key);
				items.push_back({key, round, {}});
				insert(&tree, &items.back(), refused ? -1 : 0);
				if (refused)
					items.pop_back();
				else
					model.emplace(key, round);
			} else if (!items.empty()) {
				auto victim = items.begin();
				std::advance(victim, random() % items.size());
				avl_delete(&tree, &victim->node);
				auto range = model.equal_range(victim->key);
				for (auto entry = range.first; entry != range.second; ++entry) {
					if (entry->second == victim->serial) {
						model.erase(entry);
						break;
					}
				}
				items.erase(victim);
			}
			if (round % 16 == 0)
				height_of(tree.root);
			ASSERT_EQ(tree.count, model.size());
		}
		// Equal keys stand in the order of their insertion, as in the model.
		std::vector<std::pair<int, int>> seen;
		item *each;
		avl_for_each_element(&tree, each, node) seen.emplace_back(each->key, each->serial);
		EXPECT_EQ(seen, (std::vector<std::pair<int, int>>(model.begin(), model.end())));
		for (const auto &[key, serial] : model) {
			item *found = nullptr;
			found = avl_find_element(&tree, &key, found, node);
			ASSERT_NE(found, nullptr);
			EXPECT_EQ(found->serial, model.find(key)->second);
		}
		int missing = 1000;
		EXPECT_EQ(avl_find(&tree, &missing), nullptr);
		item *after;
		avl_for_each_element_safe(&tree, each, node, after) avl_delete(&tree, &each->node);
		EXPECT_TRUE(avl_is_empty(&tree));
		EXPECT_EQ(tree.root, nullptr);
	}
}

TEST(avl, comparison_is_given_the_trees_pointer)
{
	avl_tree tree;
	avl_init(&tree, compare_numbers, false, &tree);
	item items[3] = {{1, 0, {}}, {2, 0, {}}, {3, 0, {}}};
	for (item &each : items)
		insert(&tree, &each);
	EXPECT_THAT(keys_in(&tree), ElementsAre(3, 2, 1));
}

TEST(list, items_are_added_at_both_ends_and_removed)
{
	struct entry {
		int number;
		list_head list;
	};
	list_head head = LIST_HEAD_INIT(head);
	EXPECT_TRUE(list_empty(&head));
	entry one{1, {}}, two{2, {}}, three{3, {}};
	list_add(&two.list, &head);
	list_add(&one.list, &head);
	list_add_tail(&three.list, &head);
	std::vector<int> numbers;
	entry *each, *after;
	list_for_each_entry(each, &head, list) numbers.push_back(each->number);
	EXPECT_THAT(numbers, ElementsAre(1, 2, 3));
	EXPECT_EQ(list_first_entry(&head, entry, list), &one);
	EXPECT_EQ(list_last_entry(&head, entry, list), &three);
	list_del_init(&two.list);
	EXPECT_TRUE(list_empty(&two.list));
	list_del_init(&two.list);
	list_for_each_entry_safe(each, after, &head, list) list_del(&each->list);
	EXPECT_TRUE(list_empty(&head));
	EXPECT_EQ(one.list.next, nullptr);
}

// ---------------------------------------------------------------------------------------------------------
// The loop. Each test has a process of its own, for the signals' sake.

// Other tests of the process may have opened the loop already.
static void in_child_without_loop(const std::function<void()> &body)
{
	expect_in_child([&] {
		uloop_done();
		body();
	});
}

TEST(uloop, opens_one_epoll_descriptor_and_one_pipe_closed_on_exec)
{
	in_child_without_loop([] {
		std::set<int> before = open_descriptors();
		EXPECT_EQ(uloop_init(), 0);
		std::multiset<std::string> kinds;
		for (int fd : open_descriptors()) {
			if (before.count(fd))
				continue;
			std::string target = descriptor_target(fd);
			kinds.insert(
				target.substr(0, target.find('[') == std::string::npos ? target.find(':')
										       : std::string::npos));
			EXPECT_TRUE(is_closed_on_exec(fd)) << target;
		}
		EXPECT_THAT(kinds, ElementsAre("anon_inode:[eventpoll]", testing::StartsWith("pipe"),
					   testing::StartsWith("pipe")));
		std::set<int> once = open_descriptors();
		EXPECT_EQ(uloop_init(), 0);
		EXPECT_EQ(open_descriptors(), once);
		uloop_done();
		EXPECT_EQ(open_descriptors(), before);
		EXPECT_EQ(uloop_init(), 0);
		uloop_done();
		EXPECT_EQ(open_descriptors(), before);
	});
}

static struct sigaction action_of(int number)
{
	struct sigaction action {
	};
	sigaction(number, nullptr, &action);
	return action;
}

static void on_signal_of_test(int) {}

TEST(uloop, takes_signals_only_where_they_had_their_default_action)
{
	in_child_without_loop([] {
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			signal(number, SIG_DFL);
		ASSERT_EQ(uloop_init(), 0);
		for (int number : {SIGINT, SIGTERM, SIGCHLD}) {
			struct sigaction action = action_of(number);
			EXPECT_NE(action.sa_handler, SIG_DFL) << number;
			EXPECT_EQ(action.sa_flags & SA_RESTART, 0) << number;
		}
		EXPECT_EQ(action_of(SIGPIPE).sa_handler, SIG_IGN);
		uloop_done();
		for (int number : {SIGINT, SIGTERM, SIGCHLD})
			EXPECT_EQ(action_of(number).sa_handler, SIG_DFL);
		EXPECT_EQ(action_of(SIGPIPE).sa_handler, SIG_IGN) << "stays ignored";
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			signal(number, on_signal_of_test);
		ASSERT_EQ(uloop_init(), 0);
		uloop_done();
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			EXPECT_EQ(action_of(number).sa_handler, on_signal_of_test);
	});
}

TEST(uloop, ends_with_the_number_of_the_signal)
{
	in_child_without_loop([] {
		signal(SIGTERM, SIG_DFL);
		ASSERT_EQ(uloop_init(), 0);
		uloop_timeout timer{};
		timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
		uloop_timeout_set(&timer, 1);
		EXPECT_EQ(uloop_run(), SIGTERM);
		uloop_timeout_set(&timer, 0);
		timer.cb = [](uloop_timeout *) { uloop_end(); };
		EXPECT_EQ(uloop_run(), 0);
		raise(SIGTERM); // nobody runs the loop, so it gets lost
		uloop_timeout_set(&timer, 1);
		EXPECT_EQ(uloop_run(), 0);
	});
}

struct numbered_timer : uloop_timeout {
	std::vector<int> *fired;
	int number;
};

TEST(uloop, timers_fire_in_the_order_of_their_times)
{
	in_child_without_loop([] {
		ASSERT_EQ(uloop_init(), 0);
		std::vector<int> fired;
		numbered_timer timers[4]{};
		for (int i = 0; i < 4; ++i) {
			timers[i].fired = &fired;
			timers[i].number = i;
			timers[i].cb = [](uloop_timeout *timeout) {
				auto *self = static_cast<numbered_timer *>(timeout);
				EXPECT_FALSE(self->pending);
				self->fired->push_back(self->number);
				if (self->number == 3)
					uloop_end();
			};
		}
		uloop_timeout_set(&timers[3], 30);
		uloop_timeout_set(&timers[2], 60'000);
		uloop_timeout_set(&timers[2], 20); // moved
		uloop_timeout_set(&timers[1], 5);
		uloop_timeout_set(&timers[0], 1);
		EXPECT_EQ(uloop_timeout_add(&timers[0]), -1) << "is pending";
		EXPECT_EQ(uloop_timeout_cancel(&timers[1]), 0);
		EXPECT_EQ(uloop_timeout_cancel(&timers[1]), -1);
		EXPECT_EQ(uloop_run(), 0);
		EXPECT_THAT(fired, ElementsAre(0, 2, 3));
		uloop_done();
	});
}

TEST(uloop, descriptor_is_served_until_deleted)
{
	in_child_without_loop([] {
		ASSERT_EQ(uloop_init(), 0);
		static int calls;
		static socket_pair pair;
		uloop_fd watcher{};
		watcher.fd = pair.near.get();
		watcher.cb = [](uloop_fd *fd, unsigned int events) {
			EXPECT_EQ(events, unsigned{ULOOP_READ});
			if (++calls == 3) {
				EXPECT_EQ(uloop_fd_delete(fd), 0);
				uloop_end();
			}
		};
		EXPECT_EQ(uloop_fd_add(&watcher, ULOOP_READ), 0);
		EXPECT_TRUE(watcher.registered);
		EXPECT_TRUE(is_nonblocking(watcher.fd));
		ASSERT_TRUE(write_all(pair.far.get(), "x"));
		EXPECT_EQ(uloop_run(), 0);
		EXPECT_EQ(calls, 3);
		EXPECT_FALSE(watcher.registered);
		EXPECT_EQ(uloop_fd_delete(&watcher), 0);
		uloop_done();
	});
}

// ---------------------------------------------------------------------------------------------------------
// The client library against a scripted peer.

static const uint32_t client_id = 0xfc8b6722, other_client = 0x618b9132, demo_id = 0xfa7a1947,
		      demo_type = 0xae8c6041, subscriber_id = 0xaa08ac77, listener_id = 0xc61fe656;

static const std::string hello = wire::frame(wire::hello, 0, client_id);
static const std::string json_data = hex("80000013 00046a73 6f6e0000 7b226122 3a317d00");

static std::string status_frame(uint32_t seq, uint32_t peer, uint32_t status)
{
	return wire::frame(wire::status, seq, peer, wire::number(wire::attr_status, status));
}

static std::string data_frame(uint32_t seq, uint32_t peer, const std::string &data)
{
	return wire::frame(wire::data, seq, peer,
		wire::number(wire::attr_objid, peer) + wire::attribute(wire::attr_data, data));
}

static std::string invoke_frame(uint32_t seq, uint32_t object, const std::string &method,
	const std::string &data = {}, const std::string &before = {})
{
	return wire::frame(wire::invoke, seq, other_client,
		before + wire::number(wire::attr_objid, object) + wire::text(wire::attr_method, method) +
			wire::text(wire::attr_user, "root") + wire::text(wire::attr_group, "wheel") +
			wire::attribute(wire::attr_data, data));
}

static std::string added_frames(uint32_t seq, uint32_t id, uint32_t type = 0)
{
	return wire::frame(wire::data, seq, 0,
		       wire::number(wire::attr_objid, id) +
			       (type ? wire::number(wire::attr_objtype, type) : std::string())) +
	       status_frame(seq, 0, 0);
}

static std::string active_frame(uint32_t object, uint8_t active)
{
	return wire::frame(wire::notify, 1, 0,
		wire::number(wire::attr_objid, object) + wire::octet(wire::attr_active, active));
}

static std::string gone_frame(uint32_t subscriber, uint32_t target)
{
	return wire::frame(wire::unsubscribe, 1, 0,
		wire::number(wire::attr_objid, subscriber) + wire::number(wire::attr_target, target));
}

// What the callbacks of a test have seen, in order.
static strings events;

static void note(const std::string &what)
{
	events.push_back(what);
}

static strings take_events()
{
	return std::exchange(events, {});
}

// A request whose callbacks are noted under a name.
struct call : ubus_request {
	std::string name;
	std::function<void(call *, blob_attr *)> on_data;
	std::function<void(call *)> on_complete;
	bool is_waited_for = false;

	explicit call(std::string called = "call") : ubus_request{}, name(std::move(called)) {}
	call(const call &) = delete;
	call &operator=(const call &) = delete;

	int invoke(ubus_context *bus, uint32_t object = demo_id, const char *method = "echo",
		blob_attr *msg = nullptr)
	{
		int result = ubus_invoke_async(bus, object, method, msg, this);
		complete_cb = [](ubus_request *req, int status) {
			auto *self = static_cast<call *>(req);
			EXPECT_TRUE(list_empty(&self->list));
			EXPECT_EQ(self->complete_cb != nullptr, self->is_waited_for);
			note(self->name + ": " + std::to_string(status));
			if (self->on_complete)
				std::function(self->on_complete)(self);
		};
		return result;
	}
	void want_data()
	{
		data_cb = [](ubus_request *req, int type, blob_attr *msg) {
			auto *self = static_cast<call *>(req);
			EXPECT_EQ(type, int{UBUS_MSG_DATA});
			EXPECT_EQ(blob_id(msg), unsigned{UBUS_ATTR_DATA});
			EXPECT_TRUE(self->blocked);
			note(self->name + " data " + payload(msg));
			if (self->on_data)
				self->on_data(self, msg);
		};
	}
	// Invokes and links.
	void start(ubus_context *bus)
	{
		EXPECT_EQ(invoke(bus), 0);
		want_data();
		ubus_complete_request_async(bus, this);
	}
};

// An object whose methods "echo" and "fail" and everything else are noted.
struct object : ubus_object {
	std::function<int(object *, ubus_request_data *, blob_attr *)> on_call;
	std::function<void(object *)> on_subscribers;

	static int handle(
		ubus_context *, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
	{
		auto *self = static_cast<object *>(obj);
		note(std::string("call ") + method);
		return self->on_call ? std::function(self->on_call)(self, req, msg) : 0;
	}
	explicit object(const char *with_name = nullptr, ubus_object_type *with_type = nullptr)
		: ubus_object{}
	{
		static const ubus_method catch_all = {nullptr, handle, 0, 0, nullptr, 0};
		name = with_name;
		type = with_type;
		methods = &catch_all;
		n_methods = 1;
		subscribe_cb = [](ubus_context *, ubus_object *obj) {
			note(obj->has_subscribers ? "subscribed" : "unsubscribed");
			auto *self = static_cast<object *>(obj);
			if (self->on_subscribers)
				self->on_subscribers(self);
		};
	}
	object(const object &) = delete;
	object &operator=(const object &) = delete;
};

static const blobmsg_policy echo_arguments[] = {{"n", BLOBMSG_TYPE_INT32}, {"s", BLOBMSG_TYPE_STRING}};
static const ubus_method demo_methods[] = {
	UBUS_METHOD("echo", object::handle, echo_arguments), UBUS_METHOD_NOARG("fail", object::handle)};

static ubus_object_type make_demo_type()
{
	return UBUS_OBJECT_TYPE("demo", demo_methods);
}

// A listening Unix socket that stands for the bus daemon; the test plays its part.
class bus_client : public descriptor_test
{
	private_directory directory_;
	owned_fd listener_;

protected:
	owned_fd peer_; // the daemon's end of the connection made last
	ubus_context *ctx_ = nullptr;

	int wait_for_call(call *request, int timeout_ms = 0)
	{
		request->is_waited_for = true;
		return ubus_complete_request(ctx_, request, timeout_ms);
	}
	std::string path() const { return directory_ / "bus.sock"; }
	int listener_fd() const { return listener_.get(); }

	void SetUp() override
	{
		alarm(120); // a call that hangs ends the test
		events.clear();
		ASSERT_EQ(uloop_init(), 0);
		descriptor_test::SetUp();
		listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
		sockaddr_un name{};
		name.sun_family = AF_UNIX;
		ASSERT_LT(path().size(), sizeof(name.sun_path));
		memcpy(name.sun_path, path().c_str(), path().size());
		ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		ASSERT_EQ(listen(listener_.get(), 16), 0);
	}
	void TearDown() override
	{
		disconnect();
		peer_.reset();
		listener_.reset();
		descriptor_test::TearDown();
		alarm(0);
	}

	// Plays the daemon while `connect` runs: accepts, sends `greeting`, and ends the stream if told to.
	template <typename F>
	void serve_connect(F connect, const std::string &greeting = hello, bool then_end = false)
	{
		std::thread daemon([&] {
			peer_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
			write_all(peer_.get(), greeting);
			if (then_end)
				shutdown(peer_.get(), SHUT_WR);
		});
		connect();
		daemon.join();
	}
	void connect()
	{
		disconnect();
		serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
		ASSERT_NE(ctx_, nullptr);
		ctx_->connection_lost = [](ubus_context *) { note("lost"); };
	}
	void disconnect()
	{
		if (ctx_)
			ubus_free(ctx_);
		ctx_ = nullptr;
	}

	void say(const std::string &bytes) { ASSERT_TRUE(write_all(peer_.get(), bytes)); }
	// What the client has sent, frame by frame.
	wire::received hear() { return receive_frame(peer_.get()); }
	std::string hear_bytes() { return hear().bytes; }
	bool silence() { return !wait_for(peer_.get(), POLLIN, 0); }
	// Lets the client process what it was told.
	void serve(const std::string &bytes = {})
	{
		if (!bytes.empty())
			say(bytes);
		ubus_handle_event(ctx_);
	}
	void close_peer() { peer_.reset(); }

	// A synchronous call that changes nothing; what `before` holds is there before its answer.
	int sync_call(const std::string &before = {})
	{
		say(before + status_frame(ctx_->request_seq + 1U, 0, 0));
		uint32_t id = 0;
		int status = ubus_lookup_id(ctx_, "x", &id);
		hear();
		return status;
	}
	void add(ubus_object *obj, uint32_t id)
	{
		say(added_frames(ctx_->request_seq + 1U, id));
		ASSERT_EQ(ubus_add_object(ctx_, obj), 0);
		ASSERT_EQ(hear().type(), wire::add_object);
	}
};

// What is about the stand-in only: where libubus crashes or hangs, or can do more.
using standin_client = bus_client;

// ---- connecting

TEST_F(bus_client, connected_context_is_ready_for_a_foreign_loop)
{
	connect();
	EXPECT_TRUE(is_nonblocking(ctx_->sock.fd));
	EXPECT_TRUE(is_closed_on_exec(ctx_->sock.fd));
	EXPECT_FALSE(ctx_->sock.registered);
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(ctx_->request_seq, 0);
	EXPECT_EQ(be32_to_cpu(ctx_->local_id), client_id);
	EXPECT_FALSE(ubus_context_is_channel(ctx_));
	EXPECT_TRUE(list_empty(&ctx_->requests));
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, default_connection_lost_does_nothing_on_a_foreign_loop)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	close_peer();
	serve();
	EXPECT_TRUE(ctx_->sock.eof);
}

TEST_F(bus_client, default_connection_lost_ends_the_own_loop)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	ubus_add_uloop(ctx_);
	EXPECT_TRUE(ctx_->sock.registered);
	call request;
	request.start(ctx_);
	say(status_frame(1, demo_id, 4));
	shutdown(peer_.get(), SHUT_WR);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_THAT(take_events(), ElementsAre("call: 4"));
}

TEST_F(bus_client, connection_closed_in_both_directions_leaves_the_own_loop_which_goes_on)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	ubus_add_uloop(ctx_);
	call request;
	request.start(ctx_);
	hear();
	close_peer();
	static ubus_context *ctx;
	ctx = ctx_;
	uloop_timeout timer{};
	timer.cb = [](uloop_timeout *self) {
		if (ctx->sock.registered)
			uloop_timeout_set(self, 1);
		else
			uloop_end();
	};
	uloop_timeout_set(&timer, 1);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_TRUE(ctx_->sock.eof && ctx_->sock.error);
	EXPECT_THAT(take_events(), ElementsAre("call: 7"));
}

TEST_F(bus_client, connecting_fails_without_a_daemon)
{
	EXPECT_EQ(ubus_connect((path() + ".none").c_str()), nullptr);
	EXPECT_EQ(ubus_connect(("/" + std::string(107, 'x')).c_str()), nullptr);
}

TEST_F(bus_client, connecting_fails_on_a_wrong_hello)
{
	const std::string wrong[] = {
		wire::frame(wire::status, 0, client_id),
		wire::frame(wire::hello, 0, 0),
		hex("01000000 fc8b6722 00000004"),
		hex("00000000 fc8b6722 00000003"),
		hex("00000000 fc8b6722 00100004"),
		hex("00000000 fc8b6722 00ffffff"),
	};
	for (const std::string &greeting : wrong) {
		serve_connect([this] { ctx_ = ubus_connect(path().c_str()); }, greeting);
		EXPECT_EQ(ctx_, nullptr) << wire::to_hex(greeting);
		disconnect();
	}
}

TEST_F(bus_client, connecting_fails_when_the_hello_is_cut_at_any_byte)
{
	std::string greeting = wire::frame(wire::hello, 0, client_id, wire::number(1, 2));
	for (size_t length = 0; length < greeting.size(); ++length) {
		serve_connect(
			[this] { ctx_ = ubus_connect(path().c_str()); }, greeting.substr(0, length), true);
		EXPECT_EQ(ctx_, nullptr) << length;
		disconnect();
	}
}

TEST_F(bus_client, hello_may_have_attributes)
{
	std::string greeting = wire::frame(wire::hello, 0, client_id, wire::text(1, std::string(300, 'x')));
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); }, greeting + status_frame(1, 0, 4));
	ASSERT_NE(ctx_, nullptr);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 4);
}

TEST_F(bus_client, hello_that_comes_in_pieces_makes_connecting_fail)
{
	for (size_t first_bytes : {1, 11, 13}) {
		std::string greeting = wire::frame(wire::hello, 0, client_id, wire::number(1, 2));
		serve_connect(
			[this] { ctx_ = ubus_connect(path().c_str()); }, greeting.substr(0, first_bytes));
		EXPECT_EQ(ctx_, nullptr) << first_bytes;
		disconnect();
	}
}

TEST_F(bus_client, signal_during_the_hello_makes_connecting_fail)
{
	expect_in_child([this] {
		struct sigaction action {
		};
		action.sa_handler = on_signal_of_test;
		sigaction(SIGALRM, &action, nullptr);
		itimerval every{{0, 50'000}, {0, 50'000}};
		setitimer(ITIMER_REAL, &every, nullptr);
		EXPECT_EQ(ubus_connect(path().c_str()), nullptr);
		every = {};
		setitimer(ITIMER_REAL, &every, nullptr);
	});
}

TEST_F(bus_client, freeing_calls_nothing_back)
{
	connect();
	call request, aborted("aborted");
	object obj;
	add(&obj, demo_id);
	request.start(ctx_);
	aborted.start(ctx_);
	ubus_abort_request(ctx_, &aborted);
	close_peer();
	disconnect();
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST(ubus_strerror, knows_every_status)
{
	EXPECT_STREQ(ubus_strerror(0), "Success");
	EXPECT_STREQ(ubus_strerror(1), "Invalid command");
	EXPECT_STREQ(ubus_strerror(2), "Invalid argument");
	EXPECT_STREQ(ubus_strerror(3), "Method not found");
	EXPECT_STREQ(ubus_strerror(4), "Not found");
	EXPECT_STREQ(ubus_strerror(5), "No response");
	EXPECT_STREQ(ubus_strerror(6), "Permission denied");
	EXPECT_STREQ(ubus_strerror(7), "Request timed out");
	EXPECT_STREQ(ubus_strerror(8), "Operation not supported");
	EXPECT_STREQ(ubus_strerror(9), "Unknown error");
	EXPECT_STREQ(ubus_strerror(10), "Connection failed");
	EXPECT_STREQ(ubus_strerror(11), "Out of memory");
	EXPECT_STREQ(ubus_strerror(12), "Parsing message data failed");
	EXPECT_STREQ(ubus_strerror(13), "System error");
	EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
	EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
	EXPECT_STREQ(ubus_strerror(INT_MIN), "Unknown error: -2147483648");
}

// ---- requests

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

// ---- waiting

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

// ---- looking up

static std::string found_frame(uint32_t seq, uint32_t id, const std::string &path)
{
	return wire::frame(wire::data, seq, 0,
		wire::text(wire::attr_objpath, path) + wire::number(wire::attr_objid, id) +
			wire::number(wire::attr_objtype, demo_type) +
			wire::attribute(wire::attr_signature, ""));
}

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

// ---- objects

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

static std::string call_status(uint32_t seq, uint32_t status, uint32_t object)
{
	return wire::frame(wire::status, seq, other_client,
		wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, object));
}

// To a call whose caller libubus has not come to know yet.
static std::string answer_to_nobody(uint32_t status)
{
	return wire::frame(wire::status, 0, 0,
		wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, 0));
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

// ---- the queue

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

// ---- subscribers

struct subscriber : ubus_subscriber {
	int result = 0;
	std::function<void(subscriber *, uint32_t)> on_gone;

	subscriber() : ubus_subscriber{}
	{
		cb = [](ubus_context *, ubus_object *called, ubus_request_data *, const char *method,
			     blob_attr *msg) {
			note(std::string("notified ") + method + " " + payload(msg));
			return static_cast<subscriber *>(container_of(called, ubus_subscriber, obj))->result;
		};
		remove_cb = [](ubus_context *, ubus_subscriber *sub, uint32_t id) {
			auto *self = static_cast<subscriber *>(sub);
			note("gone " + std::to_string(id));
			if (self->on_gone)
				std::function(self->on_gone)(self, id);
		};
	}
	subscriber(const subscriber &) = delete;
	subscriber &operator=(const subscriber &) = delete;
};

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

// ---- the notifying side

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

struct notification : ubus_notify_request {
	void start(ubus_context *ctx, ubus_object *obj)
	{
		ASSERT_EQ(ubus_notify_async(ctx, obj, "tock", nullptr, this), 0);
		status_cb = [](ubus_notify_request *, int index, int status) {
			note("status " + std::to_string(index) + ": " + std::to_string(status));
		};
		complete_cb = [](ubus_notify_request *self, int index, int status) {
			EXPECT_TRUE(list_empty(&self->req.list));
			note("complete " + std::to_string(index) + ": " + std::to_string(status));
		};
		data_cb = [](ubus_notify_request *, int type, blob_attr *msg) {
			EXPECT_EQ(type, int{UBUS_MSG_DATA});
			note("data " + payload(msg));
		};
		ubus_complete_request_async(ctx, &req);
	}
};

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

// ---- events

struct listener : ubus_event_handler {
	listener() : ubus_event_handler{}
	{
		cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
			note(std::string(type) + " " + payload(msg));
		};
	}
};

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

// ---- reconnecting

TEST_F(bus_client, reconnected_objects_get_new_ids_and_requests_are_left_alone)
{
	connect();
	ubus_object_type type = make_demo_type();
	object demo("demo", &type);
	add(&demo, demo_id);
	type.id = demo_type;
	subscriber sub;
	say(added_frames(2, subscriber_id));
	ASSERT_EQ(ubus_register_subscriber(ctx_, &sub), 0);
	call request;
	request.start(ctx_);

	// The ids' order is that of the objects in the table: the subscriber's comes first.
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		wire::frame(wire::hello, 0, other_client) + added_frames(4, 5000) +
			added_frames(5, 4000, 4001));
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 4, 0));
	wire::received added = hear();
	EXPECT_EQ(added.text(wire::attr_objpath), "demo");
	EXPECT_TRUE(added.has(wire::attr_signature)) << "the type was forgotten";
	EXPECT_TRUE(silence());
	EXPECT_EQ(sub.obj.id, 5000U);
	EXPECT_EQ(demo.id, 4000U);
	EXPECT_EQ(type.id, 4001U);
	EXPECT_EQ(be32_to_cpu(ctx_->local_id), other_client);
	EXPECT_EQ(ctx_->request_seq, 5);
	EXPECT_EQ(ctx_->requests.next, &request.list);
	EXPECT_TRUE(is_nonblocking(ctx_->sock.fd));
	EXPECT_FALSE(ctx_->sock.eof);

	serve(invoke_frame(1, 4000, "new") + invoke_frame(2, demo_id, "old") + status_frame(3, demo_id, 0));
	serve();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("call new", "call: 0"));
}

TEST_F(bus_client, context_may_be_reconnected_when_the_connection_is_lost)
{
	connect();
	object demo;
	add(&demo, demo_id);
	static std::string socket_path;
	socket_path = path();
	ctx_->connection_lost = [](ubus_context *ctx) {
		EXPECT_TRUE(ctx->sock.eof);
		EXPECT_EQ(ubus_reconnect(ctx, socket_path.c_str()), 0);
		note("reconnected");
	};
	call request;
	request.start(ctx_);
	close_peer();
	serve_connect([this] { ubus_handle_event(ctx_); }, hello + added_frames(3, 4000));
	EXPECT_THAT(take_events(), ElementsAre("call: 7", "reconnected"));
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(demo.id, 4000U);
	hear();
	EXPECT_EQ(sync_call(), 0);
}

TEST_F(bus_client, reconnecting_may_be_tried_again_after_a_failure)
{
	connect();
	object demo;
	add(&demo, demo_id);
	close_peer();
	EXPECT_EQ(ubus_reconnect(ctx_, (path() + ".none").c_str()), 10);
	EXPECT_EQ(ctx_->sock.fd, -1);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 2);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 9); },
		wire::frame(wire::status, 0, 5), true);
	EXPECT_FALSE(is_open(ctx_->sock.fd));
	ctx_->sock.fd = -1;
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 9); }, "", true);
	ctx_->sock.fd = -1;
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(ctx_->request_seq + 1U, 4000));
	EXPECT_EQ(demo.id, 4000U);
}

TEST_F(bus_client, objects_that_a_broken_daemon_does_not_take_have_no_id)
{
	connect();
	object first, second;
	add(&first, 2000);
	add(&second, 3000);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(3, 4000), true);
	EXPECT_EQ(first.id, 4000U);
	EXPECT_EQ(second.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 1U);
	EXPECT_TRUE(ctx_->sock.eof);
}

TEST_F(bus_client, calls_that_arrive_while_reconnecting_are_served_at_its_end)
{
	connect();
	object first, second;
	add(&first, 2000);
	add(&second, 3000);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(3, 4000) + invoke_frame(1, 4000, "early") + added_frames(4, 5000));
	EXPECT_THAT(take_events(), ElementsAre("call early"));
	EXPECT_EQ(second.id, 5000U);
}

// ---- broken messages

class bus_client_hostile : public bus_client
{
protected:
	// A context with everything that a message can reach.
	struct target {
		ubus_object_type type = make_demo_type();
		object demo{"demo", &type};
		subscriber sub;
		listener ev;
		call plain{"plain"}, raw_too{"raw"};
		notification told{};
	};

	void prepare(target *all)
	{
		connect();
		add(&all->demo, demo_id);
		say(added_frames(2, subscriber_id));
		ASSERT_EQ(ubus_register_subscriber(ctx_, &all->sub), 0);
		say(added_frames(3, listener_id) + status_frame(4, 1, 0));
		ASSERT_EQ(ubus_register_event_handler(ctx_, &all->ev, "*"), 0);
		all->plain.start(ctx_);   // 5
		all->raw_too.start(ctx_); // 6
		all->raw_too.raw_data_cb = [](ubus_request *, int, blob_attr *msg) { note(raw(msg)); };
		all->told.start(ctx_, &all->demo); // 7
	}
	static std::vector<std::string> valid_frames()
	{
		return {
			invoke_frame(1, demo_id, "echo", sample_message()),
			invoke_frame(2, subscriber_id, "tick", json_data),
			invoke_frame(3, listener_id, "an.event", json_data),
			active_frame(demo_id, 1),
			gone_frame(subscriber_id, demo_id),
			data_frame(5, demo_id, sample_message()),
			data_frame(6, demo_id, json_data),
			data_frame(7, demo_id, json_data),
			wire::frame(wire::status, 7, demo_id,
				wire::number(wire::attr_objid, demo_id) +
					wire::attribute(wire::attr_subscribers,
						wire::number(0, 2000) + wire::number(0, 2001)) +
					wire::number(wire::attr_status, 0)),
			status_frame(5, demo_id, 0),
			wire::frame(wire::monitor, 5, demo_id, json_data),
		};
	}
	// Serves until the end of the stream has been met, which the peer has already sent.
	void serve_to_the_end()
	{
		for (int turn = 0; turn < 100'000; ++turn) {
			ubus_handle_event(ctx_);
			if (ctx_->sock.eof)
				return;
		}
		ADD_FAILURE() << "the end of the stream was not met";
	}
	// The client on these bytes, then the end of the stream: no request may be left.
	void throw_at_client(const std::string &bytes)
	{
		target all;
		prepare(&all);
		if (HasFatalFailure())
			return;
		all.demo.on_call = [this](object *, ubus_request_data *req, blob_attr *msg) {
			visit(msg, blob_raw_len(msg), false);
			ubus_send_reply(ctx_, req, msg);
			return 0;
		};
		throw_bytes(bytes);
		serve_to_the_end();
		EXPECT_TRUE(list_empty(&ctx_->requests));
		EXPECT_EQ(events.back(), "lost");
		events.clear();
		disconnect();
		peer_.reset();
	}
	// All of them, without waiting for the client, who answers into a socket that is still open.
	void throw_bytes(const std::string &bytes)
	{
		int size = 1 << 20;
		setsockopt(peer_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
		set_nonblocking(peer_.get());
		size_t done = 0;
		while (done < bytes.size()) {
			ssize_t count = write(peer_.get(), bytes.data() + done, bytes.size() - done);
			ASSERT_GT(count, 0) << strerror(errno);
			done += static_cast<size_t>(count);
		}
		shutdown(peer_.get(), SHUT_WR);
	}
};

TEST_F(bus_client_hostile, frames_cut_at_any_byte_end_with_the_connection)
{
	for (const std::string &frame : valid_frames()) {
		for (size_t length = 0; length < frame.size(); ++length) {
			throw_at_client(frame.substr(0, length));
			ASSERT_FALSE(HasFailure()) << wire::to_hex(frame) << "cut at " << length;
		}
	}
}

TEST_F(bus_client_hostile, synchronous_call_ends_when_its_answer_is_cut_at_any_byte)
{
	std::string answer = found_frame(1, demo_id, "x") + status_frame(1, 0, 0);
	for (size_t length = 0; length < answer.size(); ++length) {
		connect();
		throw_bytes(answer.substr(0, length));
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 10) << length;
		EXPECT_THAT(take_events(), ElementsAre("lost"));
	}
}

TEST_F(bus_client_hostile, wrong_versions_and_lengths_stop_the_reading_but_not_the_program)
{
	for (const std::string &head : {hex("01010005 fa7a1947 0000000c"), hex("ff010005 fa7a1947 0000000c"),
		     hex("00010005 fa7a1947 00000000"), hex("00010005 fa7a1947 00000003"),
		     hex("00010005 fa7a1947 00100001"), hex("00010005 fa7a1947 00ffffff"),
		     hex("00010005 fa7a1947 ffffffff")}) {
		connect();
		call request;
		for (uint16_t seq = 0; seq < 5; ++seq)
			request.invoke(ctx_);
		ubus_complete_request_async(ctx_, &request);
		// Out of step, the status is read as a header; whole messages behind it are not.
		serve(head + hex("01000008 00000000 00000000"));
		serve();
		EXPECT_FALSE(request.status_msg) << wire::to_hex(head);
		shutdown(peer_.get(), SHUT_WR);
		serve_to_the_end();
		EXPECT_THAT(take_events(), ElementsAre("call: 7", "lost"));
		EXPECT_LE(ctx_->msgbuf_data_len, uint32_t{wire::body_bytes_max});
	}
}

TEST_F(bus_client_hostile, synchronous_call_keeps_its_time_among_broken_headers)
{
	connect();
	std::string broken;
	for (int i = 0; i < 1000; ++i)
		broken += hex("01010005 fa7a1947 00000000");
	say(broken);
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, nullptr, nullptr, 100), 7);
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(sync_call(), 0) << "in step again, by chance of the lengths";
}

TEST_F(bus_client_hostile, longest_message_is_received)
{
	connect();
	call request;
	request.start(ctx_);
	std::string value(wire::body_bytes_max - 16, 'x');
	std::string frame = data_frame(1, demo_id, value);
	ASSERT_EQ(frame.size(), size_t{8 + wire::body_bytes_max});
	std::thread daemon([&] { write_all(peer_.get(), frame + status_frame(1, demo_id, 0)); });
	while (!request.status_msg && wait_for(ctx_->sock.fd, POLLIN))
		ubus_handle_event(ctx_);
	daemon.join();
	EXPECT_EQ(take_events(), (strings{"call data " + value, "call: 0"}));
}

TEST_F(bus_client_hostile, length_that_is_no_multiple_of_four_counts_as_it_stands)
{
	connect();
	call request;
	request.start(ctx_);
	serve(hex("00010001 fa7a1947 0000000d 01000008 00000006 ff") + status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call: 6"));
}

TEST_F(bus_client_hostile, frames_with_any_byte_changed_are_survived)
{
	std::mt19937 random(17);
	for (int round = 0; round < 150; ++round) {
		std::string stream;
		for (int i = 0; i < 25; ++i) {
			std::vector<std::string> frames = valid_frames();
			std::string frame = frames[random() % frames.size()];
			for (unsigned count = random() % 3 + 1; count > 0; --count)
				frame[12 + random() % (frame.size() - 12)] = static_cast<char>(random());
			stream += frame;
		}
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}

TEST_F(bus_client_hostile, well_framed_garbage_is_survived)
{
	std::mt19937 random(23);
	const uint32_t peers[] = {0, demo_id, 1, 2000}, ids[] = {demo_id, subscriber_id, listener_id, 0, 5};
	for (int round = 0; round < 100; ++round) {
		std::string stream;
		for (int i = 0; i < 25; ++i) {
			std::string body;
			for (unsigned count = random() % 6; count > 0; --count) {
				auto id = static_cast<uint8_t>(random() % 16);
				switch (random() % 4) {
				case 0:
					body += wire::number(id, ids[random() % 5]);
					break;
				case 1:
					body += wire::text(id, "echo");
					break;
				case 2:
					body += wire::be32(uint32_t{id} << 24 | random() % 24);
					break;
				default:
					body += wire::attribute(id, std::string(random() % 9, '\1'));
				}
			}
			stream += wire::frame(
				static_cast<uint8_t>(random() % 13), random() % 8, peers[random() % 4], body);
		}
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}

TEST_F(bus_client_hostile, garbage_is_survived)
{
	std::mt19937 random(29);
	for (int round = 0; round < 100; ++round) {
		std::string stream(random() % 2000, '\0');
		for (char &byte : stream)
			byte = static_cast<char>(random() % 4 ? 0 : random());
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}
