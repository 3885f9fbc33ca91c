/*
 * Objects: adds and removes them, and serves their calls. A handler may remove and release its own object, so what the
 * answer needs of the object is copied before.
 */
#include <libubus.h>

#include <limits.h>

#include "internal.h"

static int compare_ids(const void *key1, const void *key2, void *ptr)
{
	(void)ptr;
	uint32_t id1 = *(const uint32_t *)key1, id2 = *(const uint32_t *)key2;
	return (id1 > id2) - (id1 < id2);
}

void ubus_objects_init(struct ubus_context *ctx)
{
	avl_init(&ctx->objects, compare_ids, false, NULL);
}

struct ubus_object *ubus_object_find(struct ubus_context *ctx, uint32_t id)
{
	struct ubus_object *obj = NULL;
	return avl_find_element(&ctx->objects, &id, obj, avl);
}

static bool argument_is_announced(const struct ubus_method *method, int index)
{
	int bits = (int)sizeof(method->mask) * CHAR_BIT;
	return !method->mask || (index < bits && (method->mask >> index & 1));
}

static bool put_method(struct blob_buf *buf, const struct ubus_method *method)
{
	void *table = blobmsg_open_table(buf, method->name);
	if (!table)
		return false;
	for (int index = 0; index < method->n_policy; ++index) {
		const struct blobmsg_policy *argument = &method->policy[index];
		if (argument_is_announced(method, index) &&
			blobmsg_add_u32(buf, argument->name, (uint32_t)argument->type) != 0)
			return false;
	}
	blobmsg_close_table(buf, table);
	return true;
}

static bool put_signature(struct blob_buf *buf, const struct ubus_object_type *type)
{
	void *signature = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);
	if (!signature)
		return false;
	for (int index = 0; index < type->n_methods; ++index)
		if (!put_method(buf, &type->methods[index]))
			return false;
	blob_nest_end(buf, signature);
	return true;
}

static void put_object(struct ubus_message *message, const struct ubus_object *obj)
{
	if (!obj->name || !obj->type)
		return;
	ubus_message_put_string(message, UBUS_ATTR_OBJPATH, obj->name);
	if (obj->type->id)
		ubus_message_put_u32(message, UBUS_ATTR_OBJTYPE, obj->type->id);
	else
		message->complete = message->complete && put_signature(&message->buf, obj->type);
}

static void on_added(struct ubus_request *req, int type, struct blob_attr *msg)
{
	(void)type;
	struct ubus_object *obj = req->priv;
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg, attrs);
	if (!attrs[UBUS_ATTR_OBJID])
		return;
	obj->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
	obj->avl.key = &obj->id;
	if (avl_insert(&req->ctx->objects, &obj->avl) != 0) {
		obj->id = 0; /* the daemon never gives an id twice */
		return;
	}
	if (obj->type && attrs[UBUS_ATTR_OBJTYPE])
		obj->type->id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
}

static void on_removed(struct ubus_request *req, int type, struct blob_attr *msg)
{
	(void)type;
	struct ubus_object *obj = req->priv;
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	ubus_parse_msg(msg, attrs);
	if (!attrs[UBUS_ATTR_OBJID])
		return;
	if (ubus_object_find(req->ctx, obj->id) == obj)
		avl_delete(&req->ctx->objects, &obj->avl);
	obj->id = 0;
	if (obj->type && attrs[UBUS_ATTR_OBJTYPE])
		obj->type->id = 0;
}

/* Sends an addition or a removal, and waits for the answer. */
static int ask(struct ubus_context *ctx, int type, struct ubus_message *message, struct ubus_object *obj,
	ubus_data_handler_t on_answer)
{
	struct ubus_request req;
	ubus_request_init(ctx, &req, 0);
	int status = ubus_request_send(ctx, &req, type, message);
	if (status != UBUS_STATUS_OK)
		return status;
	req.raw_data_cb = on_answer;
	req.priv = obj;
	return ubus_complete_request(ctx, &req, 0);
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct ubus_message message;
	ubus_message_init(&message);
	put_object(&message, obj);
	int status = ask(ctx, UBUS_MSG_ADD_OBJECT, &message, obj, on_added);
	return status == UBUS_STATUS_OK && !obj->id ? UBUS_STATUS_NO_DATA : status;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, obj->id);
	int status = ask(ctx, UBUS_MSG_REMOVE_OBJECT, &message, obj, on_removed);
	return status == UBUS_STATUS_OK && obj->id ? UBUS_STATUS_NO_DATA : status;
}

/* Moves all objects from the tree to `list`: the new daemon does not know them. */
static void take_objects(struct ubus_context *ctx, struct list_head *list)
{
	struct ubus_object *obj, *after;
	INIT_LIST_HEAD(list);
	avl_for_each_element_safe(&ctx->objects, obj, avl, after)
	{
		avl_delete(&ctx->objects, &obj->avl);
		list_add_tail(&obj->avl.list, list);
		obj->id = 0;
		if (obj->type)
			obj->type->id = 0;
	}
}

void ubus_objects_add_again(struct ubus_context *ctx)
{
	struct list_head objects;
	struct ubus_object *obj, *after;
	ubus_enter(ctx);
	take_objects(ctx, &objects);
	list_for_each_entry_safe(obj, after, &objects, avl.list)
	{
		ubus_add_object(ctx, obj);
	}
	ubus_leave(ctx);
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg)
{
	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, req->object);
	ubus_message_put_children(&message, UBUS_ATTR_DATA, msg);
	bool sent = ubus_message_send(ctx, &message, UBUS_MSG_DATA, req->seq, req->peer);
	return sent ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret)
{
	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_STATUS, (uint32_t)ret);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, req->object);
	ubus_message_send(ctx, &message, UBUS_MSG_STATUS, req->seq, req->peer);
}

static const struct ubus_method *find_method(const struct ubus_object *obj, const char *name)
{
	for (int index = 0; index < obj->n_methods; ++index) {
		const struct ubus_method *method = &obj->methods[index];
		if (!method->name || strcmp(method->name, name) == 0)
			return method;
	}
	return NULL;
}

/* Calls the handler. Returns its result, or the status that refuses the call. */
static int serve_call(struct ubus_context *ctx, struct ubus_object *obj, const struct ubus_msghdr *header,
	struct blob_attr **attrs, struct ubus_request_data *req)
{
	if (!obj)
		return UBUS_STATUS_NOT_FOUND;
	if (!attrs[UBUS_ATTR_METHOD])
		return UBUS_STATUS_INVALID_ARGUMENT;
	req->object = obj->id;
	req->peer = be32_to_cpu(header->peer);
	req->seq = be16_to_cpu(header->seq);

	const char *name = blob_get_string(attrs[UBUS_ATTR_METHOD]);
	const struct ubus_method *method = find_method(obj, name);
	if (!method)
		return UBUS_STATUS_METHOD_NOT_FOUND;
	if (!attrs[UBUS_ATTR_DATA])
		return UBUS_STATUS_INVALID_ARGUMENT;

	if (attrs[UBUS_ATTR_USER] && attrs[UBUS_ATTR_GROUP]) {
		req->acl.user = blob_get_string(attrs[UBUS_ATTR_USER]);
		req->acl.group = blob_get_string(attrs[UBUS_ATTR_GROUP]);
		req->acl.object = obj->name;
	}
	bool no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]);
	int status = method->handler(ctx, obj, req, name, attrs[UBUS_ATTR_DATA]);
	/* Nobody waits for the result, so none is sent. */
	req->deferred |= no_reply;
	return status;
}

/*
 * The answer to a call of an unknown object, or without a method, has the object, the peer and the sequence number 0, as
 * from the real libubus. It reaches nobody, and the caller waits until its own timeout.
 */
void ubus_object_process_call(struct ubus_context *ctx, struct ubus_object *obj,
	const struct ubus_msghdr *header, struct blob_attr **attrs)
{
	struct ubus_request_data req = {.fd = -1, .req_fd = -1};
	int status = serve_call(ctx, obj, header, attrs, &req);
	if (!req.deferred)
		ubus_complete_deferred_request(ctx, &req, status);
}

void ubus_object_process_activity(struct ubus_context *ctx, struct ubus_object *obj, struct blob_attr **attrs)
{
	if (!obj || !attrs[UBUS_ATTR_ACTIVE])
		return;
	obj->has_subscribers = blob_get_u8(attrs[UBUS_ATTR_ACTIVE]) != 0;
	if (obj->subscribe_cb)
		obj->subscribe_cb(ctx, obj);
}
