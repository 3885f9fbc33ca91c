/*
 * Requests. A linked request ends once: by STATUS, by the end of the connection, or by being aborted. It is unlinked
 * before its callback runs, and not touched afterwards. While one of its data callbacks runs the request is blocked:
 * further data, and its end, wait for the callback to return.
 */
#include <libubus.h>

#include "internal.h"

/* DATA for a blocked request. */
struct kept_data {
	struct list_head list;
	int type;
	struct blob_attr *msg;
};

static struct ubus_notify_request *notify_request(struct ubus_request *req)
{
	return container_of(req, struct ubus_notify_request, req);
}

void ubus_request_init(struct ubus_context *ctx, struct ubus_request *req, uint32_t peer)
{
	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->list);
	INIT_LIST_HEAD(&req->pending);
	req->fd = -1;
	req->ctx = ctx;
	req->peer = peer;
}

int ubus_request_send(
	struct ubus_context *ctx, struct ubus_request *req, int type, struct ubus_message *message)
{
	if (!message->complete || blob_pad_len(message->buf.head) > UBUS_MAX_MSGLEN) {
		blob_buf_free(&message->buf);
		return UBUS_STATUS_INVALID_ARGUMENT;
	}
	req->seq = ++ctx->request_seq;
	bool sent = ubus_message_send(ctx, message, type, req->seq, req->peer);
	return sent ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req)
{
	if (list_empty(&req->list))
		list_add(&req->list, &ctx->requests);
}

static struct kept_data *take_kept(struct ubus_request *req)
{
	return container_of(ubus_list_take(&req->pending), struct kept_data, list);
}

static void release_kept(struct kept_data *kept)
{
	free(kept->msg);
	free(kept);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req)
{
	(void)ctx; /* may be gone */
	if (list_empty(&req->list))
		return;
	req->cancelled = true;
	list_del_init(&req->list);
	while (!list_empty(&req->pending))
		release_kept(take_kept(req));
}

/* The callback may release the request. */
static void call_complete(struct ubus_request *req)
{
	ubus_complete_handler_t complete_cb = req->complete_cb;
	req->complete_cb = NULL;
	if (complete_cb)
		complete_cb(req, req->status_code);
}

/* A blocked request is completed when its data callback has returned. */
static void end_request(struct ubus_request *req, int status)
{
	list_del_init(&req->list);
	req->status_msg = true;
	req->status_code = status;
	if (!req->blocked)
		call_complete(req);
}

/* The callback of a request while a synchronous call waits for it; the waiting call then runs the real one. */
static void wake_waiting_call(struct ubus_request *req, int status)
{
	(void)status;
	req->ctx->cancel_poll = true;
}

/* Ends the requests that callbacks link meanwhile, too. */
void ubus_fail_requests(struct ubus_context *ctx)
{
	while (!list_empty(&ctx->requests))
		end_request(list_first_entry(&ctx->requests, struct ubus_request, list), UBUS_STATUS_TIMEOUT);
}

/* The index of a peer that has not answered a notification yet; -1: none. */
static int notify_index(struct ubus_notify_request *req, uint32_t peer)
{
	for (int index = 0; index <= UBUS_MAX_NOTIFY_PEERS; ++index)
		if ((req->pending & (1U << index)) && req->id[index] == peer)
			return index;
	return -1;
}

static bool answers(struct ubus_request *req, uint16_t seq, uint32_t peer)
{
	if (req->seq != seq)
		return false;
	return req->notify ? notify_index(notify_request(req), peer) >= 0 : req->peer == peer;
}

static struct ubus_request *find_request(struct ubus_context *ctx, uint16_t seq, uint32_t peer)
{
	struct ubus_request *req;
	list_for_each_entry(req, &ctx->requests, list)
	{
		if (answers(req, seq, peer))
			return req;
	}
	return NULL;
}

/* Takes the first subscribers of the daemon's list as the peers to wait for. */
static void wait_for_subscribers(struct ubus_notify_request *req, struct blob_attr *subscribers)
{
	int index = 0;
	struct blob_attr *subscriber;
	size_t left;
	blob_for_each_attr(subscriber, subscribers, left)
	{
		if (blob_len(subscriber) != sizeof(uint32_t))
			continue;
		if (++index > UBUS_MAX_NOTIFY_PEERS)
			return;
		req->id[index] = blob_get_u32(subscriber);
		req->pending |= 1U << index;
	}
}

static void process_notify_status(struct ubus_notify_request *req, uint32_t peer, struct blob_attr **attrs)
{
	int index = notify_index(req, peer);
	int status = attrs[UBUS_ATTR_STATUS] ? (int)blob_get_u32(attrs[UBUS_ATTR_STATUS]) : UBUS_STATUS_OK;
	req->pending &= ~(1U << index);
	if (index == 0)
		wait_for_subscribers(req, attrs[UBUS_ATTR_SUBSCRIBERS]);
	else if (req->status_cb)
		req->status_cb(req, index, status);
	if (!req->pending)
		end_request(&req->req, UBUS_STATUS_OK);
}

static void process_status(struct ubus_request *req, uint32_t peer, struct blob_attr *msg)
{
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg, attrs);
	if (req->notify) {
		process_notify_status(notify_request(req), peer, attrs);
		return;
	}
	req->peer = peer;
	end_request(req, attrs[UBUS_ATTR_STATUS] ? (int)blob_get_u32(attrs[UBUS_ATTR_STATUS])
						 : UBUS_STATUS_INVALID_ARGUMENT);
}

/* A synchronous call in the first callback may read other messages into the buffer that `msg` lies in. */
static void deliver_raw_and_data(struct ubus_request *req, int type, struct blob_attr *msg)
{
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	struct blob_attr *copy = blob_memdup(msg);
	if (!copy)
		return;
	ubus_parse_msg(copy, attrs);
	req->raw_data_cb(req, type, copy);
	if (attrs[UBUS_ATTR_DATA] && req->data_cb)
		req->data_cb(req, type, attrs[UBUS_ATTR_DATA]);
	free(copy);
}

static void deliver(struct ubus_request *req, int type, struct blob_attr *msg)
{
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	if (req->raw_data_cb && req->data_cb) {
		deliver_raw_and_data(req, type, msg);
	} else if (req->raw_data_cb) {
		req->raw_data_cb(req, type, msg);
	} else {
		ubus_parse_msg(msg, attrs);
		if (attrs[UBUS_ATTR_DATA])
			req->data_cb(req, type, attrs[UBUS_ATTR_DATA]);
	}
}

static void keep(struct ubus_request *req, int type, struct blob_attr *msg)
{
	struct kept_data *kept = malloc(sizeof(*kept));
	struct blob_attr *copy = blob_memdup(msg);
	if (!kept || !copy) {
		free(kept);
		free(copy);
		return;
	}
	kept->type = type;
	kept->msg = copy;
	list_add(&kept->list, &req->pending);
}

static void deliver_kept(struct ubus_request *req)
{
	while (!list_empty(&req->pending)) {
		struct kept_data *kept = take_kept(req);
		if (req->raw_data_cb || req->data_cb)
			deliver(req, kept->type, kept->msg);
		release_kept(kept);
	}
}

static void process_data(struct ubus_request *req, int type, struct blob_attr *msg)
{
	if (!req->raw_data_cb && !req->data_cb)
		return;
	if (req->blocked) {
		keep(req, type, msg);
		return;
	}
	req->blocked = true;
	deliver(req, type, msg);
	deliver_kept(req);
	req->blocked = false;
	if (req->status_msg && !req->cancelled)
		call_complete(req);
}

void ubus_process_reply(struct ubus_context *ctx, const struct ubus_msghdr *header, struct blob_attr *msg)
{
	uint32_t peer = be32_to_cpu(header->peer);
	struct ubus_request *req = find_request(ctx, be16_to_cpu(header->seq), peer);
	if (!req)
		return;
	if (header->type == UBUS_MSG_STATUS)
		process_status(req, peer, msg);
	else
		process_data(req, header->type, msg);
}

static bool has_ended(const struct ubus_request *req)
{
	return req->status_msg || req->cancelled;
}

/* Serves until the request has ended, the time is over, or the connection is lost, even in an inner call. */
static void serve_until_ended(struct ubus_context *ctx, struct ubus_request *req, int64_t end_ms)
{
	while (!has_ended(req)) {
		if (!ubus_socket_wait(ctx->sock.fd, end_ms)) {
			end_request(req, UBUS_STATUS_TIMEOUT);
			return;
		}
		ctx->cancel_poll = false;
		ubus_serve(ctx);
		if (ctx->sock.eof && !req->cancelled)
			end_request(req, UBUS_STATUS_CONNECTION_FAILED);
	}
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout_ms)
{
	ubus_complete_handler_t complete_cb = req->complete_cb;
	ubus_complete_request_async(ctx, req);
	req->complete_cb = wake_waiting_call;

	ubus_enter(ctx);
	serve_until_ended(ctx, req, timeout_ms > 0 ? ubus_now_ms() + timeout_ms : -1);
	ctx->cancel_poll = true;
	--ctx->stack_depth;

	list_del_init(&req->list); /* one that had ended before, and was linked once more */
	int status = req->cancelled ? UBUS_STATUS_NO_DATA : req->status_code;
	bool cancelled = req->cancelled;
	req->complete_cb = complete_cb;
	if (complete_cb && !cancelled)
		complete_cb(req, status);
	ubus_work_off_queue(ctx);
	return status;
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
	struct ubus_request *req, int fd)
{
	ubus_request_init(ctx, req, obj);
	req->fd = fd;
	if (fd >= 0)
		return UBUS_STATUS_NOT_SUPPORTED;

	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, obj);
	ubus_message_put_string(&message, UBUS_ATTR_METHOD, method);
	ubus_message_put_children(&message, UBUS_ATTR_DATA, msg);
	return ubus_request_send(ctx, req, UBUS_MSG_INVOKE, &message);
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
	ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
	struct ubus_request req;
	int status = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);
	if (status != UBUS_STATUS_OK)
		return status;
	req.data_cb = cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, timeout);
}

static int lookup(struct ubus_context *ctx, const char *path, ubus_data_handler_t on_data, void *priv)
{
	struct ubus_request req;
	struct ubus_message message;
	ubus_message_init(&message);
	if (path)
		ubus_message_put_string(&message, UBUS_ATTR_OBJPATH, path);
	ubus_request_init(ctx, &req, 0);
	int status = ubus_request_send(ctx, &req, UBUS_MSG_LOOKUP, &message);
	if (status != UBUS_STATUS_OK)
		return status;
	req.raw_data_cb = on_data;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, 0);
}

struct lookup_caller {
	ubus_lookup_handler_t cb;
	void *priv;
};

static void on_object_found(struct ubus_request *req, int type, struct blob_attr *msg)
{
	(void)type;
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg, attrs);
	if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_OBJPATH])
		return;
	struct ubus_object_data found = {
		.id = blob_get_u32(attrs[UBUS_ATTR_OBJID]),
		.type_id = attrs[UBUS_ATTR_OBJTYPE] ? blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]) : 0,
		.path = blob_get_string(attrs[UBUS_ATTR_OBJPATH]),
		.signature = attrs[UBUS_ATTR_SIGNATURE],
	};
	struct lookup_caller *caller = req->priv;
	caller->cb(req->ctx, &found, caller->priv);
}

/* The callback may read other messages into the buffer that this one is in. */
static void on_object_received(struct ubus_request *req, int type, struct blob_attr *msg)
{
	struct blob_attr *copy = blob_memdup(msg);
	if (!copy)
		return;
	on_object_found(req, type, copy);
	free(copy);
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
	struct lookup_caller caller = {cb, priv};
	return lookup(ctx, path, on_object_received, &caller);
}

static void on_id_found(struct ubus_request *req, int type, struct blob_attr *msg)
{
	(void)type;
	uint32_t *id = req->priv;
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg, attrs);
	if (attrs[UBUS_ATTR_OBJID])
		*id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
	return lookup(ctx, path, on_id_found, id);
}

static void on_notification_complete(struct ubus_request *req, int status)
{
	(void)status;
	struct ubus_notify_request *notification = notify_request(req);
	if (notification->complete_cb)
		notification->complete_cb(notification, 0, UBUS_STATUS_OK);
}

static void on_notification_data(struct ubus_request *req, int type, struct blob_attr *data)
{
	struct ubus_notify_request *notification = notify_request(req);
	if (notification->data_cb)
		notification->data_cb(notification, type, data);
}

static int send_notification(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
	struct blob_attr *msg, struct ubus_notify_request *req, bool reply)
{
	memset(req, 0, sizeof(*req));
	ubus_request_init(ctx, &req->req, obj->id);
	req->req.notify = true;
	req->req.complete_cb = on_notification_complete;
	req->req.data_cb = on_notification_data;
	req->id[0] = obj->id;
	req->pending = 1;

	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, obj->id);
	ubus_message_put_string(&message, UBUS_ATTR_METHOD, type);
	ubus_message_put_children(&message, UBUS_ATTR_DATA, msg);
	if (!reply)
		ubus_message_put_u8(&message, UBUS_ATTR_NO_REPLY, 1);
	return ubus_request_send(ctx, &req->req, UBUS_MSG_NOTIFY, &message);
}

int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
	struct blob_attr *msg, struct ubus_notify_request *req)
{
	return send_notification(ctx, obj, type, msg, req, true);
}

int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
	int timeout)
{
	struct ubus_notify_request req;
	int status = send_notification(ctx, obj, type, msg, &req, timeout >= 0);
	if (timeout < 0)
		return UBUS_STATUS_OK;
	/* After a failed write the wait reports the lost connection. */
	return status == UBUS_STATUS_OK || ctx->sock.eof ? ubus_complete_request(ctx, &req.req, timeout)
							 : status;
}
