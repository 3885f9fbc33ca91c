// Blobs of the tests: buffers that are released, attributes in blocks of their own, and a message with everything.
#pragma once
#include <libubus.h>

#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bus.h"

using namespace support;

using strings = std::vector<std::string>;

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

inline std::string hex(const std::string &digits)
{
	return wire::from_hex(digits);
}

inline std::string raw(const blob_attr *attr)
{
	return attr ? std::string(reinterpret_cast<const char *>(attr), blob_raw_len(attr)) : "(null)";
}

inline std::string payload(const blob_attr *attr)
{
	return {static_cast<const char *>(blob_data(attr)), blob_len(attr)};
}

// A message with every type, nested.
inline std::string sample_message()
{
	std::string list = wire::named_text("", "one") + wire::named_number("", 2);
	std::string table = wire::named(wire::int8, "flag", "\1") + wire::named(wire::array, "list", list);
	return wire::named_text("name", "value") + wire::named_number("number", 7) +
	       wire::named(wire::int64, "long", "12345678") + wire::named(BLOBMSG_TYPE_INT16, "short", "12") +
	       wire::named(BLOBMSG_TYPE_DOUBLE, "double", "12345678") +
	       wire::named(wire::table, "table", table) + wire::named(wire::unspec, "json", "{\"a\":1}");
}

// Reads an attribute as a careful program does, to the bottom. The result keeps the reads alive.
inline size_t visit(blob_attr *attr, size_t length, bool name)
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
