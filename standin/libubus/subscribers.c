/*
 * Subscribers and event listeners. Each is an object without a path; its one method takes every notification or event.
 */
#include <libubus.h>

#include "internal.h"

static int on_notification(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
	const char *method, struct blob_attr *msg)
{
	struct ubus_subscriber *subscriber = container_of(obj, struct ubus_subscriber, obj);
	return subscriber->cb ? subscriber->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

static const struct ubus_method subscriber_method = {.name = NULL, .handler = on_notification};

static struct ubus_subscriber *subscriber_of(struct ubus_object *obj)
{
	return obj->methods == &subscriber_method ? container_of(obj, struct ubus_subscriber, obj) : NULL;
}

void ubus_subscriber_process_removal(
	struct ubus_context *ctx, struct ubus_object *obj, struct blob_attr **attrs)
{
	struct ubus_subscriber *subscriber = obj ? subscriber_of(obj) : NULL;
	if (subscriber && subscriber->remove_cb && attrs[UBUS_ATTR_TARGET])
		subscriber->remove_cb(ctx, subscriber, blob_get_u32(attrs[UBUS_ATTR_TARGET]));
}

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj)
{
	if (obj->new_obj_cb)
		return UBUS_STATUS_NOT_SUPPORTED;
	INIT_LIST_HEAD(&obj->list);
	obj->obj.methods = &subscriber_method;
	obj->obj.n_methods = 1;
	return ubus_add_object(ctx, &obj->obj);
}

static int change_subscription(struct ubus_context *ctx, int type, uint32_t subscriber, uint32_t target)
{
	struct ubus_request req;
	struct ubus_message message;
	ubus_message_init(&message);
	ubus_message_put_u32(&message, UBUS_ATTR_OBJID, subscriber);
	ubus_message_put_u32(&message, UBUS_ATTR_TARGET, target);
	ubus_request_init(ctx, &req, 0);
	int status = ubus_request_send(ctx, &req, type, &message);
	return status == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req, 0) : status;
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id)
{
	return change_subscription(ctx, UBUS_MSG_SUBSCRIBE, obj->obj.id, id);
}

int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id)
{
	return change_subscription(ctx, UBUS_MSG_UNSUBSCRIBE, obj->obj.id, id);
}

static int on_event(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
	const char *method, struct blob_attr *msg)
{
	(void)req;
	struct ubus_event_handler *handler = container_of(obj, struct ubus_event_handler, obj);
	handler->cb(ctx, handler, method, msg);
	return UBUS_STATUS_OK;
}

static const struct ubus_method event_method = {.name = NULL, .handler = on_event};

/* Calls a method of the daemon's event object and releases `buf`. */
static int call_event_object(
	struct ubus_context *ctx, const char *method, struct blob_buf *buf, bool complete)
{
	int status = UBUS_STATUS_INVALID_ARGUMENT;
	if (complete)
		status = ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, method, buf->head, NULL, NULL, 0);
	blob_buf_free(buf);
	return status;
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern)
{
	if (!ev->obj.id) {
		ev->obj.methods = &event_method;
		ev->obj.n_methods = 1;
		int status = ubus_add_object(ctx, &ev->obj);
		if (status != UBUS_STATUS_OK)
			return status;
	}
	struct blob_buf buf = {0};
	bool complete = blob_buf_init(&buf, 0) == 0 && blobmsg_add_u32(&buf, "object", ev->obj.id) == 0 &&
			blobmsg_add_string(&buf, "pattern", pattern) == 0;
	return call_event_object(ctx, "register", &buf, complete);
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data)
{
	struct blob_buf buf = {0};
	const void *children = data ? blob_data(data) : NULL;
	unsigned int children_len = data ? (unsigned int)blob_len(data) : 0;
	bool complete = blob_buf_init(&buf, 0) == 0 && blobmsg_add_string(&buf, "id", id) == 0 &&
			blobmsg_add_field(&buf, BLOBMSG_TYPE_TABLE, "data", children, children_len) == 0;
	return call_event_object(ctx, "send", &buf, complete);
}
