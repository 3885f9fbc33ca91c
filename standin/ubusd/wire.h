// Messages on the wire: parsed without trusting a byte of them, and built.
//
// A message is a header of eight bytes (version, type, sequence number, peer) and one blob whose children are
// the message's attributes. Parsing never looks beyond the blob's own length. An attribute that does not fit its
// type counts as missing, so the rest of the daemon meets no malformed one.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <libubus.h> // for its constants and, with C linkage, libubox; the client library itself is not used

#include "../limits.h"

namespace ubusd
{

// The header and the blob's word: with these the length of a message is known.
inline constexpr size_t frame_head_bytes = sizeof(ubus_msghdr) + sizeof(blob_attr);

// A queue of bytes. An empty one keeps little memory.
class byte_queue
{
	std::vector<uint8_t> bytes_;
	size_t start_ = 0;

public:
	size_t size() const { return bytes_.size() - start_; }
	bool empty() const { return size() == 0; }
	uint8_t *data() { return bytes_.data() + start_; }
	void append(const void *bytes, size_t count);
	void consume(size_t count);
	void clear() { consume(size()); }
	// Moves the bytes so that the first one is aligned for a word; pointers into the queue are invalid then.
	void align();
};

// A message that was received. It points into the queue that it came from.
struct frame {
	uint8_t type = 0;
	uint16_t seq = 0;
	uint32_t peer = 0;
	blob_attr *body = nullptr;
	blob_attr *attributes[UBUS_ATTR_MAX] = {};

	bool has(int id) const { return attributes[id] != nullptr; }
	// These three are for attributes that are present. A number that is too short is read with its padding.
	uint32_t number(int id) const { return blob_get_u32(attributes[id]); }
	const char *text(int id) const { return blob_get_string(attributes[id]); }
	bool flag(int id) const { return blob_get_u8(attributes[id]) != 0; }
	// The bytes that it takes in the queue.
	size_t length() const { return sizeof(ubus_msghdr) + blob_raw_len(body); }
};

enum class framing {
	partial,   // more bytes are needed
	complete,  // the frame is filled in
	malformed, // the start of the next message is unknown
};

// Looks at the first message in `bytes`, which stay there.
framing frame_parse(byte_queue *bytes, frame *result);

// The attributes of a message under construction. If memory is short, or the message gets too long, body() is null and
// nothing is sent.
class message
{
	blob_buf buf_{};
	bool failed_ = false;

	blob_attr *keep(blob_attr *attribute)
	{
		failed_ |= !attribute;
		return attribute;
	}

public:
	message()
	{
		if (blob_buf_init(&buf_, 0) != 0)
			throw std::bad_alloc();
	}
	~message() { blob_buf_free(&buf_); }
	message(const message &) = delete;
	message &operator=(const message &) = delete;

	void put_number(int id, uint32_t value) { keep(blob_put_u32(&buf_, id, value)); }
	void put_flag(int id, bool value) { keep(blob_put_u8(&buf_, id, value)); }
	void put_text(int id, const char *value) { keep(blob_put_string(&buf_, id, value)); }
	void put_bytes(int id, std::string_view bytes);
	// Copies the payload of `attribute`, if there is one.
	void put_payload(int id, const blob_attr *attribute);
	void *nest_start(int id);
	void nest_end(void *cookie);
	void put_named_number(const char *name, uint32_t value);
	void put_named_text(const char *name, const char *value);
	// A number that can be set again, so that one message serves many receivers.
	size_t put_number_to_set(int id);
	void set_number(size_t place, uint32_t value);

	// The message to send, or null.
	const blob_attr *body() const;
};

} // namespace ubusd
