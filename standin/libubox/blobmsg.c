/*
 * Named attributes from outside are checked one at a time, when they are read: name and value must lie within the
 * attribute's length, and that length within the rest of the message.
 */
#include <libubox/blobmsg.h>

#include <stddef.h>

#include "internal.h"

/* The two enumerations of types have different orders. */
static const int payload_types[__BLOBMSG_TYPE_LAST] = {
	[BLOBMSG_TYPE_UNSPEC] = BLOB_ATTR_UNSPEC,
	[BLOBMSG_TYPE_ARRAY] = BLOB_ATTR_NESTED,
	[BLOBMSG_TYPE_TABLE] = BLOB_ATTR_NESTED,
	[BLOBMSG_TYPE_STRING] = BLOB_ATTR_STRING,
	[BLOBMSG_TYPE_INT64] = BLOB_ATTR_INT64,
	[BLOBMSG_TYPE_INT32] = BLOB_ATTR_INT32,
	[BLOBMSG_TYPE_INT16] = BLOB_ATTR_INT16,
	[BLOBMSG_TYPE_INT8] = BLOB_ATTR_INT8,
	[BLOBMSG_TYPE_DOUBLE] = BLOB_ATTR_DOUBLE,
};

static const struct blobmsg_hdr *header_of(const struct blob_attr *attr)
{
	return blob_data(attr);
}

static bool name_is_well_formed(const struct blob_attr *attr, bool must_be_named)
{
	if (!blob_is_extended(attr))
		return !must_be_named;
	if (blob_len(attr) < sizeof(struct blobmsg_hdr))
		return false;
	unsigned int length = blobmsg_namelen(header_of(attr));
	if (must_be_named && length == 0)
		return false;
	return blob_len(attr) >= (size_t)blobmsg_hdrlen(length) && header_of(attr)->name[length] == '\0';
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len)
{
	if (len < sizeof(struct blob_attr) || blob_raw_len(attr) < sizeof(struct blob_attr) ||
		blob_raw_len(attr) > len)
		return false;
	if (!name_is_well_formed(attr, name) || blob_id(attr) > BLOBMSG_TYPE_LAST)
		return false;
	return blob_check_type(
		blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr), payload_types[blob_id(attr)]);
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name)
{
	return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len)
{
	if (!blobmsg_check_attr_len(attr, false, len))
		return -1;
	bool named = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
	if (!named && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY)
		return -1;

	int count = 0;
	struct blob_attr *element;
	size_t left;
	blobmsg_for_each_attr(element, attr, left)
	{
		if (!blobmsg_check_attr_len(element, named, left))
			return -1;
		if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(element) != type)
			return -1;
		++count;
	}
	return count;
}

int blobmsg_check_array(const struct blob_attr *attr, int type)
{
	return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

static void clear_places(struct blob_attr **tb, int count)
{
	for (int index = 0; index < count; ++index)
		tb[index] = NULL;
}

static bool is_integer(int type)
{
	return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
}

static bool type_matches(const struct blobmsg_policy *policy, const struct blob_attr *attr)
{
	int type = blobmsg_type(attr);
	if (policy->type == BLOBMSG_CAST_INT64)
		return is_integer(type);
	return policy->type == BLOBMSG_TYPE_UNSPEC || (int)policy->type == type;
}

static bool name_matches(const struct blobmsg_policy *policy, const struct blob_attr *attr)
{
	unsigned int length = blobmsg_namelen(header_of(attr));
	return policy->name && length <= UINT8_MAX && strlen(policy->name) == length &&
	       memcmp(policy->name, header_of(attr)->name, length) == 0;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
	unsigned int len)
{
	clear_places(tb, policy_len);
	if (!data || !len)
		return -EINVAL;

	struct blob_attr *attr;
	__blob_for_each_attr(attr, data, len)
	{
		if (!blobmsg_check_attr_len(attr, false, len))
			return -1;
		if (!blob_is_extended(attr))
			continue;
		for (int index = 0; index < policy_len; ++index)
			if (!tb[index] && name_matches(&policy[index], attr) &&
				type_matches(&policy[index], attr))
				tb[index] = attr;
	}
	return 0;
}

int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
	void *data, unsigned int len)
{
	clear_places(tb, policy_len);
	if (!data || !len)
		return -EINVAL;

	int index = 0;
	struct blob_attr *attr;
	__blob_for_each_attr(attr, data, len)
	{
		if (index == policy_len)
			break;
		if (!type_matches(&policy[index], attr))
			continue;
		if (!blobmsg_check_attr_len(attr, false, len))
			return -1;
		tb[index++] = attr;
	}
	return 0;
}

/* Appends an attribute with its name and an unset value of `value_len` bytes; null when memory is short. */
static struct blob_attr *add_named(struct blob_buf *buf, int type, const char *name, size_t value_len)
{
	size_t name_len = strlen(name);
	if (name_len > UINT16_MAX || value_len > BLOB_ATTR_LEN_MASK)
		return NULL;
	int header_len = blobmsg_hdrlen((unsigned int)name_len);
	struct blob_attr *attr = blob_new(buf, type, header_len + (int)value_len);
	if (!attr)
		return NULL;
	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	struct blobmsg_hdr *header = blob_data(attr);
	header->namelen = cpu_to_be16((uint16_t)name_len);
	memcpy(header->name, name, name_len);
	memset(header->name + name_len, 0, (size_t)header_len - sizeof(*header) - name_len);
	return attr;
}

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
	struct blob_attr *attr = add_named(buf, type, name ? name : "", len);
	if (!attr)
		return -1;
	if (len > 0)
		memcpy(blobmsg_data(attr), data, len);
	return 0;
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array)
{
	size_t outer_offset = blob_head_offset(buf);
	int type = array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE;
	struct blob_attr *inner = add_named(buf, type, name ? name : "", 0);
	return inner ? blob_nest_enter(buf, outer_offset, inner) : NULL;
}
