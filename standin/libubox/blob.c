/*
 * A buffer holds one attribute, from its first byte on. Appends go to `head`: that attribute, or one nested in it that
 * ends where the buffer ends. So an append always lengthens `head` at the end of the buffer. The outer attribute is
 * lengthened when the inner one is closed.
 */
#include <libubox/blob.h>

#include <stddef.h>

#include "internal.h"

/* Memory grows in steps of this many bytes. */
#define GROWTH_STEP 256

/* An attribute's length has 24 bits, so no buffer is longer. */
#define BUFFER_BYTES_MAX BLOB_ATTR_LEN_MASK

static size_t padded(size_t length)
{
	return (length + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static void set_id_len(struct blob_attr *attr, int id, size_t length)
{
	uint32_t id_bits = ((uint32_t)id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;
	attr->id_len = cpu_to_be32(id_bits | (uint32_t)length);
}

size_t blob_head_offset(const struct blob_buf *buf)
{
	return buf->head ? (size_t)((const char *)buf->head - (const char *)buf->buf) : 0;
}

static struct blob_attr *attr_at(const struct blob_buf *buf, size_t offset)
{
	return (struct blob_attr *)((char *)buf->buf + offset);
}

static bool grow_by_steps(struct blob_buf *buf, int minlen)
{
	size_t added = ((size_t)minlen / GROWTH_STEP + 1) * GROWTH_STEP;
	char *memory = realloc(buf->buf, (size_t)buf->buflen + added);
	if (!memory)
		return false;
	memset(memory + buf->buflen, 0, added);
	buf->buf = memory;
	buf->buflen += (int)added;
	return true;
}

bool blob_buf_grow(struct blob_buf *buf, int required)
{
	if (required < 0 || (size_t)buf->buflen + (size_t)required > BUFFER_BYTES_MAX)
		return false;
	size_t head_offset = blob_head_offset(buf);
	if (!buf->grow || !buf->grow(buf, required))
		return false;
	buf->head = attr_at(buf, head_offset);
	return true;
}

/* Makes the buffer at least `length` bytes long. */
static bool reserve(struct blob_buf *buf, size_t length)
{
	if (length > BUFFER_BYTES_MAX)
		return false;
	size_t available = (size_t)buf->buflen;
	return length <= available || blob_buf_grow(buf, (int)(length - available));
}

int blob_buf_init(struct blob_buf *buf, int id)
{
	if (!buf->grow)
		buf->grow = grow_by_steps;
	buf->head = buf->buf;
	if (!reserve(buf, sizeof(struct blob_attr)))
		return -ENOMEM;
	set_id_len(buf->head, id, sizeof(struct blob_attr));
	return 0;
}

void blob_buf_free(struct blob_buf *buf)
{
	free(buf->buf);
	buf->buf = NULL;
	buf->head = NULL;
	buf->buflen = 0;
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len)
{
	attr->id_len &= cpu_to_be32(~(uint32_t)BLOB_ATTR_LEN_MASK);
	attr->id_len |= cpu_to_be32(len & BLOB_ATTR_LEN_MASK);
}

void blob_fill_pad(struct blob_attr *attr)
{
	size_t length = blob_raw_len(attr);
	memset((char *)attr + length, 0, blob_pad_len(attr) - length);
}

/* Lengthens `head` by `length` bytes. Returns the first of them; null on failure. */
static struct blob_attr *extend_head(struct blob_buf *buf, size_t length)
{
	size_t end = blob_head_offset(buf) + blob_pad_len(buf->head);
	if (!reserve(buf, end + padded(length)))
		return NULL;
	blob_set_raw_len(buf->head, (unsigned int)(blob_pad_len(buf->head) + padded(length)));
	return attr_at(buf, end);
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload)
{
	if (payload < 0 || payload > BUFFER_BYTES_MAX)
		return NULL;
	size_t length = sizeof(struct blob_attr) + (size_t)payload;
	struct blob_attr *attr = extend_head(buf, length);
	if (!attr)
		return NULL;
	set_id_len(attr, id, length);
	blob_fill_pad(attr);
	return attr;
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len)
{
	if (len > BUFFER_BYTES_MAX)
		return NULL;
	struct blob_attr *attr = blob_new(buf, id, (int)len);
	if (attr && ptr && len > 0)
		memcpy(blob_data(attr), ptr, len);
	return attr;
}

struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len)
{
	if (!ptr || len < sizeof(struct blob_attr) || len > BUFFER_BYTES_MAX)
		return NULL;
	struct blob_attr *attr = extend_head(buf, len);
	if (!attr)
		return NULL;
	memcpy(attr, ptr, len);
	memset((char *)attr + len, 0, padded(len) - len);
	return attr;
}

void *blob_nest_enter(struct blob_buf *buf, size_t outer_offset, struct blob_attr *inner)
{
	/* The outer one is lengthened when the inner one is closed. */
	struct blob_attr *outer = attr_at(buf, outer_offset);
	blob_set_raw_len(outer, (unsigned int)(blob_raw_len(outer) - blob_pad_len(inner)));
	buf->head = inner;
	// NOLINTNEXTLINE(performance-no-int-to-ptr): a number that callers hold as a pointer
	return (void *)(uintptr_t)(outer_offset + BLOB_COOKIE);
}

void *blob_nest_start(struct blob_buf *buf, int id)
{
	size_t outer_offset = blob_head_offset(buf);
	struct blob_attr *inner = blob_new(buf, id, 0);
	return inner ? blob_nest_enter(buf, outer_offset, inner) : NULL;
}

void blob_nest_end(struct blob_buf *buf, void *cookie)
{
	struct blob_attr *outer = attr_at(buf, (size_t)((uintptr_t)cookie - BLOB_COOKIE));
	blob_set_raw_len(outer, (unsigned int)(blob_raw_len(outer) + blob_pad_len(buf->head)));
	buf->head = outer;
}

bool blob_attr_equal(const struct blob_attr *first, const struct blob_attr *second)
{
	if (!first || !second)
		return first == second;
	return blob_pad_len(first) == blob_pad_len(second) && memcmp(first, second, blob_pad_len(first)) == 0;
}

struct blob_attr *blob_memdup(const struct blob_attr *attr)
{
	struct blob_attr *copy = malloc(blob_pad_len(attr));
	if (copy)
		memcpy(copy, attr, blob_pad_len(attr));
	return copy;
}

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
	switch (type) {
	case BLOB_ATTR_UNSPEC:
	case BLOB_ATTR_NESTED:
	case BLOB_ATTR_BINARY:
		return true;
	case BLOB_ATTR_STRING:
		return len >= 1 && ((const char *)ptr)[len - 1] == '\0';
	case BLOB_ATTR_INT8:
		return len == sizeof(uint8_t);
	case BLOB_ATTR_INT16:
		return len == sizeof(uint16_t);
	case BLOB_ATTR_INT32:
		return len == sizeof(uint32_t);
	case BLOB_ATTR_INT64:
		return len == sizeof(uint64_t);
	case BLOB_ATTR_DOUBLE:
		return len >= sizeof(double);
	default:
		return false;
	}
}

static bool info_accepts(const struct blob_attr_info *info, struct blob_attr *attr)
{
	if (info->type < BLOB_ATTR_LAST &&
		!blob_check_type(blob_data(attr), (unsigned int)blob_len(attr), (int)info->type))
		return false;
	if (info->minlen && blob_raw_len(attr) < info->minlen)
		return false;
	if (info->maxlen && blob_raw_len(attr) > info->maxlen)
		return false;
	return !info->validate || info->validate(info, attr);
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max)
{
	for (int id = 0; id < max; ++id)
		data[id] = NULL;

	int found = 0;
	struct blob_attr *child;
	size_t left;
	blob_for_each_attr(child, attr, left)
	{
		int id = (int)blob_id(child);
		bool has_word = blob_raw_len(child) >= sizeof(*child);
		if (id >= max || !has_word || (info && !info_accepts(&info[id], child)))
			continue;
		if (!data[id])
			++found;
		data[id] = child;
	}
	return found;
}

int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
	const struct blob_attr_info *info, int max)
{
	if (!attr || attr_len < sizeof(struct blob_attr) || blob_raw_len(attr) > attr_len)
		return 0;
	return blob_parse(attr, data, info, max);
}
