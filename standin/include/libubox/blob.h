/*
 * blob - attributes of an id and a length, nested in each other, as one block of bytes in network byte order.
 *
 * An attribute is one word (id and length), its payload, and zero bytes up to a multiple of 4. The length
 * counts the word, not the trailing padding; that of a container counts the padding of all its children.
 *
 * What comes from outside is read with blob_parse_untrusted, or walked once its outermost length is known to
 * lie within the bytes at hand: a walk never leaves the attribute it walks.
 */
#pragma once
#include <errno.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "utils.h"

#pragma GCC visibility push(default)

#define BLOB_COOKIE 0x01234567

#define BLOB_ATTR_ID_MASK  0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN    4
#define BLOB_ATTR_EXTENDED 0x80000000

/* The types of payloads; they are not on the wire: both sides know them from the id. */
enum {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_BINARY,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT16,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT64,
	BLOB_ATTR_DOUBLE,
	BLOB_ATTR_LAST
};

struct blob_attr {
	uint32_t id_len;
	__extension__ char data[];
} __packed;

/* What blob_parse asks of an attribute, by its id. */
struct blob_attr_info {
	unsigned int type;   /* BLOB_ATTR_...; BLOB_ATTR_LAST and above: any */
	unsigned int minlen; /* of the length with its word; 0: any */
	unsigned int maxlen;
	bool (*validate)(const struct blob_attr_info *info, struct blob_attr *attr); /* may be null */
};

/*
 * A message under construction. Starts from zero bytes; then only the functions touch it. Every append may
 * move the memory: no pointer into it survives one.
 */
struct blob_buf {
	struct blob_attr *head; /* what is appended to; outside of nesting, the message */
	bool (*grow)(struct blob_buf *buf, int minlen);
	int buflen;
	void *buf;
};

static inline void *blob_data(const struct blob_attr *attr)
{
	return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
	return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
	return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

static inline size_t blob_raw_len(const struct blob_attr *attr)
{
	return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* The payload's length; 0 for a malformed attribute, whose length does not even cover its own word. */
static inline size_t blob_len(const struct blob_attr *attr)
{
	size_t length = blob_raw_len(attr);
	return length < sizeof(struct blob_attr) ? 0 : length - sizeof(struct blob_attr);
}

static inline size_t blob_pad_len(const struct blob_attr *attr)
{
	return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
	return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
	return (uint8_t)attr->data[0];
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
	uint16_t value;
	memcpy(&value, attr->data, sizeof(value));
	return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
	uint32_t value;
	memcpy(&value, attr->data, sizeof(value));
	return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
	uint64_t value;
	memcpy(&value, attr->data, sizeof(value));
	return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
	return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
	return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
	return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
	return (int64_t)blob_get_u64(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
	return attr->data;
}

/* Makes `buf` an empty attribute of that id, in the memory it has; 0 or -ENOMEM. */
int blob_buf_init(struct blob_buf *buf, int id);

/* Releases the memory; may be called again, and blob_buf_init after it. */
void blob_buf_free(struct blob_buf *buf);

/* Makes room for `required` more bytes; false above 16 MiB - 1, or when memory is short. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/*
 * Append to `head`: an attribute with an unset payload of `payload` bytes; one with these bytes (a null `ptr`
 * leaves them unset); bytes that are attributes already. Null when there is no room; nothing has changed then.
 */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/* Opens an attribute: what is appended goes into it, until blob_nest_end with the result. Null on failure. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

void blob_set_raw_len(struct blob_attr *attr, unsigned int len);
void blob_fill_pad(struct blob_attr *attr);

/* Both null, or equal in all bytes, padding included. */
bool blob_attr_equal(const struct blob_attr *first, const struct blob_attr *second);

/* A copy to be released with free(); null when memory is short. */
struct blob_attr *blob_memdup(const struct blob_attr *attr);

/* Whether `len` bytes at `ptr` are a payload of that type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);

/*
 * Store each child of `attr` at data[its id], all of data[0..max) being cleared before; the last of several
 * wins, those that `info` (may be null) refuses are passed over. Result: how many places are filled.
 * The untrusted form is told how many bytes there are, and leaves `data` alone (0) when these do not hold
 * the attribute.
 */
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max);
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
	const struct blob_attr_info *info, int max);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *text)
{
	return blob_put(buf, id, text, (unsigned int)strlen(text) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t value)
{
	return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t value)
{
	value = cpu_to_be16(value);
	return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t value)
{
	value = cpu_to_be32(value);
	return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t value)
{
	value = cpu_to_be64(value);
	return blob_put(buf, id, &value, sizeof(value));
}

#define blob_put_int8  blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/* The walk's condition: a whole child lies in the `left` bytes at `attr`. */
static inline bool blob_has_next(const struct blob_attr *attr, size_t left)
{
	return left >= sizeof(struct blob_attr) && blob_pad_len(attr) >= sizeof(struct blob_attr) &&
	       blob_pad_len(attr) <= left;
}

/* What a walk over `attr`, which may be null, starts with. */
static inline size_t blob_children_len(const struct blob_attr *attr)
{
	return attr ? blob_len(attr) : 0;
}

static inline struct blob_attr *blob_children(const struct blob_attr *attr)
{
	return attr ? (struct blob_attr *)blob_data(attr) : NULL;
}

/* Walks the attributes in the `rem` (size_t or unsigned) bytes at `attr`; ends at the first broken one. */
#define __blob_for_each_attr(pos, attr, rem)                                                                 \
	for (pos = (struct blob_attr *)(attr); blob_has_next(pos, rem);                                      \
		rem -= blob_pad_len(pos), pos = blob_next(pos))

/* Walks the children of `attr`. */
#define blob_for_each_attr(pos, attr, rem)                                                                   \
	for (rem = blob_children_len(attr), pos = blob_children(attr); blob_has_next(pos, rem);              \
		rem -= blob_pad_len(pos), pos = blob_next(pos))

#pragma GCC visibility pop
