/*
 * What the parts of the library share. Each part calls only those before it: io, requests, objects, subscribers,
 * context. There is one exception: a request that is waited for serves the context.
 */
#pragma once
#include <libubus.h>

#include "../limits.h"

#pragma GCC visibility push(hidden)

/* A message under construction. A failed append clears `complete`, and then it is not sent. */
struct ubus_message {
	struct blob_buf buf;
	bool complete;
};

void ubus_message_init(struct ubus_message *message);
void ubus_message_put(struct ubus_message *message, int id, const void *data, size_t len);
void ubus_message_put_u8(struct ubus_message *message, int id, uint8_t value);
void ubus_message_put_u32(struct ubus_message *message, int id, uint32_t value);
void ubus_message_put_string(struct ubus_message *message, int id, const char *text);
void ubus_message_put_children(struct ubus_message *message, int id, const struct blob_attr *parent);

/* Sends and releases a message. False when it is incomplete, or when the write fails, which sets `eof`. */
bool ubus_message_send(
	struct ubus_context *ctx, struct ubus_message *message, int type, uint16_t seq, uint32_t peer);

/* Stores the attributes of a message by their id; one that does not fit its type counts as missing. */
void ubus_parse_msg(struct blob_attr *msg, struct blob_attr *attrs[UBUS_ATTR_MAX]);

/* Unlinks the first item of a list that is not empty. */
static inline struct list_head *ubus_list_take(struct list_head *head)
{
	struct list_head *first = head->next;
	head->next = first->next;
	first->next->prev = head;
	return first;
}

/* A connected, blocking socket, or -1; `path` may be null. */
int ubus_socket_open(const char *path);

/* Waits for the daemon's hello, which has the client's id in its header. */
bool ubus_socket_read_hello(int fd, struct ubus_msghdr *header);

/* Waits until the socket is readable, or until `end_ms` (negative: forever); false when the time is over. */
bool ubus_socket_wait(int fd, int64_t end_ms);

int64_t ubus_now_ms(void);

/*
 * Reads one message into `ctx->msgbuf`. False when there is nothing to read, when the message is malformed, and at the
 * end of the connection or on an error, which set `eof`.
 */
bool ubus_receive(struct ubus_context *ctx);

/*
 * Synchronous calls and handlers run between these two. Messages for objects that arrive meanwhile are queued; the last
 * ubus_leave works off the queue.
 */
void ubus_enter(struct ubus_context *ctx);
void ubus_leave(struct ubus_context *ctx);
void ubus_work_off_queue(struct ubus_context *ctx);

/* Processes the message in `ctx->msgbuf`. */
void ubus_process_received(struct ubus_context *ctx);

/*
 * Reads and processes what has arrived; only one message if `cancel_poll` is set. If the connection is lost, ends all
 * requests and then calls `connection_lost`, as the last thing.
 */
void ubus_serve(struct ubus_context *ctx);

/* Makes `req` a new request to `peer`. */
void ubus_request_init(struct ubus_context *ctx, struct ubus_request *req, uint32_t peer);

/*
 * Sends `message` as the next request of the context, and releases it. Returns 0 or UBUS_STATUS_INVALID_ARGUMENT. A
 * message that is incomplete or too long is not sent, and takes no sequence number.
 */
int ubus_request_send(
	struct ubus_context *ctx, struct ubus_request *req, int type, struct ubus_message *message);

/* Processes STATUS and DATA; ends all linked requests when the connection is lost. */
void ubus_process_reply(struct ubus_context *ctx, const struct ubus_msghdr *header, struct blob_attr *msg);
void ubus_fail_requests(struct ubus_context *ctx);

void ubus_objects_init(struct ubus_context *ctx);
void ubus_objects_add_again(struct ubus_context *ctx);

/* The object of ours with that id, or null. */
struct ubus_object *ubus_object_find(struct ubus_context *ctx, uint32_t id);

/* Process INVOKE, NOTIFY and UNSUBSCRIBE for `obj`, which is null if the id is unknown. */
void ubus_object_process_call(struct ubus_context *ctx, struct ubus_object *obj,
	const struct ubus_msghdr *header, struct blob_attr **attrs);
void ubus_object_process_activity(
	struct ubus_context *ctx, struct ubus_object *obj, struct blob_attr **attrs);
void ubus_subscriber_process_removal(
	struct ubus_context *ctx, struct ubus_object *obj, struct blob_attr **attrs);

#pragma GCC visibility pop
