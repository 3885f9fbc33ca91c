/*
 * ubusmsg - the bus on the wire: a header, and one blob whose children are the message's attributes.
 */
#pragma once
#include <stdint.h>

#include <libubox/blob.h>

#define UBUS_MSG_CHUNK_SIZE 65536

#define UBUS_SYSTEM_OBJECT_EVENT   1
#define UBUS_SYSTEM_OBJECT_ACL     2
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX     1024 /* ids below are the daemon's */

#define UBUS_CLIENT_ID_CHANNEL 1

/* Numbers in network byte order. */
struct ubus_msghdr {
	uint8_t version; /* 0 */
	uint8_t type;
	uint16_t seq;
	uint32_t peer;
} __attribute__((packed, aligned(4)));

struct ubus_msghdr_buf {
	struct ubus_msghdr hdr;
	struct blob_attr *data;
};

enum ubus_msg_type {
	UBUS_MSG_HELLO,
	UBUS_MSG_STATUS,
	UBUS_MSG_DATA,
	UBUS_MSG_PING,
	UBUS_MSG_LOOKUP,
	UBUS_MSG_INVOKE,
	UBUS_MSG_ADD_OBJECT,
	UBUS_MSG_REMOVE_OBJECT,
	UBUS_MSG_SUBSCRIBE,
	UBUS_MSG_UNSUBSCRIBE,
	UBUS_MSG_NOTIFY,
	UBUS_MSG_MONITOR,
	__UBUS_MSG_LAST
};

enum ubus_msg_attr {
	UBUS_ATTR_UNSPEC,
	UBUS_ATTR_STATUS,      /* INT32 */
	UBUS_ATTR_OBJPATH,     /* string */
	UBUS_ATTR_OBJID,       /* INT32 */
	UBUS_ATTR_METHOD,      /* string */
	UBUS_ATTR_OBJTYPE,     /* INT32 */
	UBUS_ATTR_SIGNATURE,   /* nested: a named table for each method */
	UBUS_ATTR_DATA,        /* nested: named attributes */
	UBUS_ATTR_TARGET,      /* INT32 */
	UBUS_ATTR_ACTIVE,      /* INT8 */
	UBUS_ATTR_NO_REPLY,    /* INT8 */
	UBUS_ATTR_SUBSCRIBERS, /* nested: INT32 attributes of id 0 */
	UBUS_ATTR_USER,        /* string */
	UBUS_ATTR_GROUP,       /* string */
	UBUS_ATTR_MAX
};

enum ubus_msg_status {
	UBUS_STATUS_OK,
	UBUS_STATUS_INVALID_COMMAND,
	UBUS_STATUS_INVALID_ARGUMENT,
	UBUS_STATUS_METHOD_NOT_FOUND,
	UBUS_STATUS_NOT_FOUND,
	UBUS_STATUS_NO_DATA,
	UBUS_STATUS_PERMISSION_DENIED,
	UBUS_STATUS_TIMEOUT,
	UBUS_STATUS_NOT_SUPPORTED,
	UBUS_STATUS_UNKNOWN_ERROR,
	UBUS_STATUS_CONNECTION_FAILED,
	UBUS_STATUS_NO_MEMORY,
	UBUS_STATUS_PARSE_ERROR,
	UBUS_STATUS_SYSTEM_ERROR,
	__UBUS_STATUS_LAST
};
