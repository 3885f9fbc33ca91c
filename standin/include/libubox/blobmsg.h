/*
 * blobmsg - blob attributes that carry a name and whose id is the type of their value.
 *
 * The payload of such an ("extended") attribute is the name's length in two bytes, the name with its NUL,
 * zeroes up to a multiple of 4, and the value. Elements of arrays have the empty name. A message is an
 * attribute without a name (blob_buf_init(buf, 0)) around named ones.
 */
#pragma once
#include "blob.h"

#pragma GCC visibility push(default)

enum blobmsg_type {
	BLOBMSG_TYPE_UNSPEC,
	BLOBMSG_TYPE_ARRAY,
	BLOBMSG_TYPE_TABLE,
	BLOBMSG_TYPE_STRING,
	BLOBMSG_TYPE_INT64,
	BLOBMSG_TYPE_INT32,
	BLOBMSG_TYPE_INT16,
	BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_DOUBLE,
	__BLOBMSG_TYPE_LAST,
	BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
	BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST /* in policies: any of the four integer types */
};

struct blobmsg_hdr {
	uint16_t namelen;
	__extension__ uint8_t name[];
} __packed;

/* What blobmsg_parse looks for. */
struct blobmsg_policy {
	const char *name;
	enum blobmsg_type type; /* BLOBMSG_TYPE_UNSPEC: any */
};

/* The bytes from the payload's beginning to the value. */
static inline int blobmsg_hdrlen(unsigned int namelen)
{
	return (int)((sizeof(struct blobmsg_hdr) + namelen + 1 + BLOB_ATTR_ALIGN - 1) &
		     ~(size_t)(BLOB_ATTR_ALIGN - 1));
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *header)
{
	return be16_to_cpu(header->namelen);
}

/* For extended attributes only. */
static inline const char *blobmsg_name(const struct blob_attr *attr)
{
	return (const char *)((const struct blobmsg_hdr *)blob_data(attr))->name;
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
	return (int)blob_id(attr);
}

/* The bytes that the name takes of the payload. */
static inline size_t blobmsg_name_part(const struct blob_attr *attr)
{
	if (!blob_is_extended(attr))
		return 0;
	return (size_t)blobmsg_hdrlen(blobmsg_namelen((const struct blobmsg_hdr *)blob_data(attr)));
}

/* The value. The attribute has passed blobmsg_check_attr, or is not extended, or is null (null). */
static inline void *blobmsg_data(const struct blob_attr *attr)
{
	return attr ? (char *)blob_data(attr) + blobmsg_name_part(attr) : NULL;
}

/* 0 also for an extended attribute that is too short for its name. */
static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
	if (!attr || blobmsg_name_part(attr) > blob_len(attr))
		return 0;
	return blob_len(attr) - blobmsg_name_part(attr);
}

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
	return blobmsg_data_len(attr);
}

/*
 * Whether an attribute from outside is well-formed: its name, its type, and that the value fits the type.
 * The insides of tables and arrays are not looked at. With `name`, it must be extended and have one.
 */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

/* How many elements, all well-formed and of `type` (UNSPEC: any), the table or array has; else -1. */
int blobmsg_check_array(const struct blob_attr *attr, int type);
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len);

/*
 * Finds the attributes of a policy among the `len` bytes of named attributes at `data`; the first of several
 * wins, missing ones are null in `tb`. 0, also when nothing was found; -EINVAL without data; -1 at the first
 * malformed attribute, with those before it in their places.
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
	unsigned int len);

/* By place instead of by name: an element whose type is not that of the next place is skipped. */
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
	void *data, unsigned int len);

static inline int blobmsg_parse_attr(
	const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, struct blob_attr *attr)
{
	return blobmsg_parse(
		policy, policy_len, tb, blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr));
}

/* Appends one attribute; a null name is the empty one. 0, or -1 when there is no room. */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);

/* Opens a table or an array; a cookie for blob_nest_end, null on failure. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline int blobmsg_buf_init(struct blob_buf *buf)
{
	return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t value)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof(value));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t value)
{
	value = cpu_to_be16(value);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &value, sizeof(value));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t value)
{
	value = cpu_to_be32(value);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &value, sizeof(value));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t value)
{
	value = cpu_to_be64(value);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &value, sizeof(value));
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double value)
{
	uint64_t bits;
	memcpy(&bits, &value, sizeof(bits));
	bits = cpu_to_be64(bits);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *text)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text, (unsigned int)strlen(text) + 1);
}

static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr)
{
	return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
		(unsigned int)blobmsg_data_len(attr));
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, true);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

/* The values of attributes that have passed the check, by their type. */
static inline uint8_t blobmsg_get_u8(const struct blob_attr *attr)
{
	return *(const uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(const struct blob_attr *attr)
{
	return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(const struct blob_attr *attr)
{
	uint16_t value;
	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(const struct blob_attr *attr)
{
	uint32_t value;
	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(const struct blob_attr *attr)
{
	uint64_t value;
	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be64_to_cpu(value);
}

static inline double blobmsg_get_double(const struct blob_attr *attr)
{
	double value;
	uint64_t bits = blobmsg_get_u64(attr);
	memcpy(&value, &bits, sizeof(value));
	return value;
}

/* Null for null. */
static inline char *blobmsg_get_string(const struct blob_attr *attr)
{
	return (char *)blobmsg_data(attr);
}

/* Walks the children of a table, an array or a message; `attr` may be null, `rem` is a size_t or unsigned. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                                \
	for (rem = blobmsg_data_len(attr), pos = (struct blob_attr *)blobmsg_data(attr);                     \
		blob_has_next(pos, rem); rem -= blob_pad_len(pos), pos = blob_next(pos))

#pragma GCC visibility pop
