/*
 * The connection, and the order in which messages are processed. Replies are processed as soon as they are read. The
 * other messages run the program's handlers, and handlers never run inside one another: while a handler or a synchronous
 * call is active (`stack_depth`), these messages wait in a queue.
 */
#include <libubus.h>

#include <fcntl.h>
#include <stddef.h>
#include <unistd.h>

#include "internal.h"

/* A message for an object that waits in `ctx->pending`. */
struct queued_message {
	struct list_head list;
	struct ubus_msghdr_buf msg;
};

const char *ubus_strerror(int error)
{
	static const char *const texts[__UBUS_STATUS_LAST] = {
		[UBUS_STATUS_OK] = "Success",
		[UBUS_STATUS_INVALID_COMMAND] = "Invalid command",
		[UBUS_STATUS_INVALID_ARGUMENT] = "Invalid argument",
		[UBUS_STATUS_METHOD_NOT_FOUND] = "Method not found",
		[UBUS_STATUS_NOT_FOUND] = "Not found",
		[UBUS_STATUS_NO_DATA] = "No response",
		[UBUS_STATUS_PERMISSION_DENIED] = "Permission denied",
		[UBUS_STATUS_TIMEOUT] = "Request timed out",
		[UBUS_STATUS_NOT_SUPPORTED] = "Operation not supported",
		[UBUS_STATUS_UNKNOWN_ERROR] = "Unknown error",
		[UBUS_STATUS_CONNECTION_FAILED] = "Connection failed",
		[UBUS_STATUS_NO_MEMORY] = "Out of memory",
		[UBUS_STATUS_PARSE_ERROR] = "Parsing message data failed",
		[UBUS_STATUS_SYSTEM_ERROR] = "System error",
	};
	static char unknown[32];

	if (error >= 0 && error < __UBUS_STATUS_LAST)
		return texts[error];
	snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
	return unknown;
}

static void queue_received(struct ubus_context *ctx)
{
	struct queued_message *queued = malloc(sizeof(*queued));
	struct blob_attr *data = blob_memdup(ctx->msgbuf.data);
	if (!queued || !data) {
		free(queued);
		free(data);
		return;
	}
	queued->msg.hdr = ctx->msgbuf.hdr;
	queued->msg.data = data;
	list_add_tail(&queued->list, &ctx->pending);
}

static struct queued_message *take_queued(struct ubus_context *ctx)
{
	return container_of(ubus_list_take(&ctx->pending), struct queued_message, list);
}

static void release_queued(struct queued_message *queued)
{
	free(queued->msg.data);
	free(queued);
}

static void process_object_message(struct ubus_context *ctx, const struct ubus_msghdr_buf *msg)
{
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg->data, attrs);
	if (!attrs[UBUS_ATTR_OBJID])
		return;
	struct ubus_object *obj = ubus_object_find(ctx, blob_get_u32(attrs[UBUS_ATTR_OBJID]));

	/* Not ubus_leave: the callers work off the queue in a loop, instead of one message inside another. */
	ubus_enter(ctx);
	if (msg->hdr.type == UBUS_MSG_INVOKE)
		ubus_object_process_call(ctx, obj, &msg->hdr, attrs);
	else if (msg->hdr.type == UBUS_MSG_NOTIFY)
		ubus_object_process_activity(ctx, obj, attrs);
	else
		ubus_subscriber_process_removal(ctx, obj, attrs);
	--ctx->stack_depth;
}

void ubus_work_off_queue(struct ubus_context *ctx)
{
	while (ctx->stack_depth == 0 && !list_empty(&ctx->pending)) {
		struct queued_message *queued = take_queued(ctx);
		process_object_message(ctx, &queued->msg);
		release_queued(queued);
	}
}

void ubus_enter(struct ubus_context *ctx)
{
	++ctx->stack_depth;
}

void ubus_leave(struct ubus_context *ctx)
{
	--ctx->stack_depth;
	ubus_work_off_queue(ctx);
}

/* A handler may make synchronous calls and still read its message, so these calls get another buffer. */
static void process_with_own_buffer(struct ubus_context *ctx)
{
	struct ubus_msghdr_buf own = ctx->msgbuf;
	uint32_t own_len = ctx->msgbuf_data_len;
	ctx->msgbuf.data = NULL;
	ctx->msgbuf_data_len = 0;

	process_object_message(ctx, &own);

	free(ctx->msgbuf.data);
	ctx->msgbuf = own;
	ctx->msgbuf_data_len = own_len;
}

void ubus_process_received(struct ubus_context *ctx)
{
	switch (ctx->msgbuf.hdr.type) {
	case UBUS_MSG_STATUS:
	case UBUS_MSG_DATA:
		ubus_process_reply(ctx, &ctx->msgbuf.hdr, ctx->msgbuf.data);
		break;
	case UBUS_MSG_INVOKE:
	case UBUS_MSG_NOTIFY:
	case UBUS_MSG_UNSUBSCRIBE:
		if (ctx->stack_depth == 0)
			process_with_own_buffer(ctx);
		else
			queue_received(ctx);
		break;
	default:
		break;
	}
}

/* At the end of the connection `connection_lost` may release the context. */
void ubus_serve(struct ubus_context *ctx)
{
	do {
		ubus_work_off_queue(ctx);
		if (!ubus_receive(ctx))
			break;
		ubus_process_received(ctx);
	} while (!ctx->cancel_poll);
	ubus_work_off_queue(ctx);
	if (ctx->sock.eof) {
		ubus_fail_requests(ctx);
		ctx->connection_lost(ctx);
	}
}

static void on_readable(struct uloop_fd *sock, unsigned int events)
{
	(void)events;
	ubus_serve(container_of(sock, struct ubus_context, sock));
}

/* The default `connection_lost`: otherwise the loop would spin on a descriptor that stays readable. */
static void end_loop(struct ubus_context *ctx)
{
	if (ctx->sock.registered)
		uloop_end();
}

/* Connects and reads the daemon's hello. */
static int connect_to(struct ubus_context *ctx, const char *path)
{
	struct ubus_msghdr hello;
	uloop_init();
	ctx->sock.fd = ubus_socket_open(path);
	if (ctx->sock.fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	if (!ubus_socket_read_hello(ctx->sock.fd, &hello)) {
		close(ctx->sock.fd);
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	ctx->local_id = hello.peer;
	ctx->sock.eof = false;
	fcntl(ctx->sock.fd, F_SETFL, fcntl(ctx->sock.fd, F_GETFL) | O_NONBLOCK);
	return UBUS_STATUS_OK;
}

/* Messages in the queue stay there. */
static void disconnect(struct ubus_context *ctx)
{
	uloop_fd_delete(&ctx->sock);
	if (ctx->sock.fd >= 0)
		close(ctx->sock.fd);
	ctx->sock.fd = -1;
}

struct ubus_context *ubus_connect(const char *path)
{
	struct ubus_context *ctx = calloc(1, sizeof(*ctx));
	if (!ctx)
		return NULL;
	INIT_LIST_HEAD(&ctx->requests);
	INIT_LIST_HEAD(&ctx->pending);
	INIT_LIST_HEAD(&ctx->auto_subscribers);
	ubus_objects_init(ctx);
	ctx->sock.cb = on_readable;
	ctx->connection_lost = end_loop;
	if (connect_to(ctx, path) != UBUS_STATUS_OK) {
		free(ctx);
		return NULL;
	}
	return ctx;
}

int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
	disconnect(ctx);
	int status = connect_to(ctx, path);
	if (status == UBUS_STATUS_OK)
		ubus_objects_add_again(ctx);
	return status;
}

void ubus_free(struct ubus_context *ctx)
{
	disconnect(ctx);
	while (!list_empty(&ctx->pending))
		release_queued(take_queued(ctx));
	free(ctx->msgbuf.data);
	free(ctx);
}
