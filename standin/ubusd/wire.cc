// Turns bytes into messages and back. All input of a client goes through frame_parse.
#include "wire.h"

#include <string.h>

namespace ubusd
{

// Memory that an empty queue may keep: enough for ordinary traffic to allocate nothing.
static constexpr size_t queue_kept_bytes = size_t{64} * 1024;

void byte_queue::append(const void *bytes, size_t count)
{
	// Bytes move to the front when at least as many have left, so each is moved but a few times.
	if (start_ > size()) {
		bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(start_));
		start_ = 0;
	}
	const uint8_t *first = static_cast<const uint8_t *>(bytes);
	bytes_.insert(bytes_.end(), first, first + count);
}

void byte_queue::consume(size_t count)
{
	start_ += count;
	if (!empty())
		return;
	start_ = 0;
	bytes_.clear();
	if (bytes_.capacity() > queue_kept_bytes)
		bytes_.shrink_to_fit();
}

void byte_queue::align()
{
	if (start_ % BLOB_ATTR_ALIGN == 0)
		return;
	bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(start_));
	start_ = 0;
}

// The types of the attributes of requests. The others may have any payload; some must have one.
static constexpr blob_attr_info info_of(unsigned type, unsigned bytes_min = 0)
{
	return {type, bytes_min, 0, nullptr};
}

static constexpr unsigned bytes_with_payload = sizeof(blob_attr) + 1;

static constexpr blob_attr_info attribute_info[UBUS_ATTR_MAX] = {
	info_of(BLOB_ATTR_UNSPEC),
	info_of(BLOB_ATTR_INT32),                      // STATUS
	info_of(BLOB_ATTR_STRING),                     // OBJPATH
	info_of(BLOB_ATTR_INT32),                      // OBJID
	info_of(BLOB_ATTR_STRING),                     // METHOD
	info_of(BLOB_ATTR_INT32),                      // OBJTYPE
	info_of(BLOB_ATTR_NESTED),                     // SIGNATURE
	info_of(BLOB_ATTR_NESTED),                     // DATA
	info_of(BLOB_ATTR_UNSPEC, bytes_with_payload), // TARGET
	info_of(BLOB_ATTR_UNSPEC),                     // ACTIVE
	info_of(BLOB_ATTR_UNSPEC, bytes_with_payload), // NO_REPLY
	info_of(BLOB_ATTR_NESTED),                     // SUBSCRIBERS
	info_of(BLOB_ATTR_STRING),                     // USER
	info_of(BLOB_ATTR_STRING),                     // GROUP
};

framing frame_parse(byte_queue *bytes, frame *result)
{
	if (bytes->size() < frame_head_bytes)
		return framing::partial;
	bytes->align();
	ubus_msghdr header;
	memcpy(&header, bytes->data(), sizeof(header));
	blob_attr *body = reinterpret_cast<blob_attr *>(bytes->data() + sizeof(header));
	// Another version may have another framing.
	if (header.version != 0)
		return framing::malformed;
	if (blob_raw_len(body) < sizeof(blob_attr) || blob_pad_len(body) > UBUS_MAX_MSGLEN)
		return framing::malformed;
	if (bytes->size() < sizeof(header) + blob_raw_len(body))
		return framing::partial;
	*result = {};
	result->type = header.type;
	result->seq = be16_to_cpu(header.seq);
	result->peer = be32_to_cpu(header.peer);
	result->body = body;
	blob_parse_untrusted(body, blob_raw_len(body), result->attributes, attribute_info, UBUS_ATTR_MAX);
	return framing::complete;
}

void message::put_bytes(int id, std::string_view bytes)
{
	keep(blob_put(&buf_, id, bytes.data(), static_cast<unsigned>(bytes.size())));
}

void message::put_payload(int id, const blob_attr *attribute)
{
	if (attribute)
		keep(blob_put(&buf_, id, blob_data(attribute), static_cast<unsigned>(blob_len(attribute))));
}

void *message::nest_start(int id)
{
	void *cookie = blob_nest_start(&buf_, id);
	failed_ |= !cookie;
	return cookie;
}

void message::nest_end(void *cookie)
{
	if (cookie)
		blob_nest_end(&buf_, cookie);
}

void message::put_named_number(const char *name, uint32_t value)
{
	failed_ |= blobmsg_add_u32(&buf_, name, value) != 0;
}

void message::put_named_text(const char *name, const char *value)
{
	failed_ |= blobmsg_add_string(&buf_, name, value) != 0;
}

size_t message::put_number_to_set(int id)
{
	blob_attr *attribute = keep(blob_put_u32(&buf_, id, 0));
	if (!attribute)
		return 0;
	return static_cast<size_t>(static_cast<char *>(blob_data(attribute)) - static_cast<char *>(buf_.buf));
}

void message::set_number(size_t place, uint32_t value)
{
	uint32_t on_wire = cpu_to_be32(value);
	if (!failed_)
		memcpy(static_cast<char *>(buf_.buf) + place, &on_wire, sizeof(on_wire));
}

const blob_attr *message::body() const
{
	return failed_ || blob_pad_len(buf_.head) > UBUS_MAX_MSGLEN ? nullptr : buf_.head;
}

} // namespace ubusd
