/*
 * libubus - a client of the message bus: requests, objects that serve them, subscriptions and events.
 *
 * Single-threaded. Functions that return an int return a UBUS_STATUS_..., 0 being success, unless they say
 * otherwise. A call that waits (a synchronous one) serves the context meanwhile: callbacks for data and
 * completion run inside it, those for calls, notifications and removals just before the outermost one
 * returns. When the connection breaks, linked requests end with 7 (TIMEOUT), the synchronous call that
 * noticed with 10 (CONNECTION_FAILED), and whatever cannot be sent with 2 (INVALID_ARGUMENT).
 */
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include <stdint.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#pragma GCC visibility push(default)

#define UBUS_MAX_NOTIFY_PEERS 16

#define UBUS_TAG_STATUS  1
#define UBUS_TAG_ADMIN   2
#define UBUS_TAG_PRIVATE 4

struct ubus_context;
struct ubus_event_handler;
struct ubus_notify_request;
struct ubus_object;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_subscriber;

typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
	struct ubus_request_data *req, const char *method, struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
typedef void (*ubus_event_handler_t)(
	struct ubus_context *ctx, struct ubus_event_handler *ev, const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request *req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request *req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
typedef bool (*ubus_new_object_handler_t)(
	struct ubus_context *ctx, struct ubus_subscriber *sub, const char *path);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);

/* Initialisers for tables of methods and for types. The policy is an array, not a pointer. */
#define __UBUS_METHOD(_name, _handler, _mask, _tags, _policy)                                                \
	{                                                                                                    \
		.name = _name, .handler = _handler, .mask = _mask, .tags = _tags, .policy = _policy,         \
		.n_policy = ARRAY_SIZE(_policy)                                                              \
	}
#define __UBUS_METHOD_NOARG(_name, _handler, _tags)                                                          \
	{                                                                                                    \
		.name = _name, .handler = _handler, .mask = 0, .tags = _tags, .policy = NULL, .n_policy = 0  \
	}
#define UBUS_METHOD(_name, _handler, _policy)             __UBUS_METHOD(_name, _handler, 0, 0, _policy)
#define UBUS_METHOD_NOARG(_name, _handler)                __UBUS_METHOD_NOARG(_name, _handler, 0)
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask) __UBUS_METHOD(_name, _handler, _mask, 0, _policy)
#define UBUS_METHOD_TAG(_name, _handler, _policy, _tags)  __UBUS_METHOD(_name, _handler, 0, _tags, _policy)
#define UBUS_METHOD_TAG_NOARG(_name, _handler, _tags)     __UBUS_METHOD_NOARG(_name, _handler, _tags)

#define UBUS_OBJECT_TYPE(_name, _methods)                                                                    \
	{                                                                                                    \
		.name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods)               \
	}

struct ubus_method {
	const char *name; /* null: any */
	ubus_handler_t handler;
	unsigned long mask; /* if not 0: the bits of the arguments that are announced */
	unsigned long tags;
	const struct blobmsg_policy *policy;
	int n_policy;
};

struct ubus_object_type {
	const char *name;
	uint32_t id; /* the library's; 0 while the bus does not know it */
	const struct ubus_method *methods;
	int n_methods;
};

/* Its memory, and what it points to, stays as long as it is added. */
struct ubus_object {
	struct avl_node avl;
	const char *name; /* null: without a path */
	uint32_t id;      /* the library's; 0 while not added */
	const char *path; /* not used */
	struct ubus_object_type *type;
	ubus_state_handler_t subscribe_cb; /* may be null; after `has_subscribers` changed */
	bool has_subscribers;
	const struct ubus_method *methods;
	int n_methods;
};

struct ubus_subscriber {
	struct list_head list;
	struct ubus_object obj;
	ubus_handler_t cb;                    /* notifications; may be null */
	ubus_remove_handler_t remove_cb;      /* the object subscribed to has gone; may be null */
	ubus_new_object_handler_t new_obj_cb; /* must be null here */
};

struct ubus_event_handler {
	struct ubus_object obj;
	ubus_event_handler_t cb;
};

struct ubus_context {
	struct list_head requests; /* the linked ones, the latest first */
	struct avl_tree objects;
	struct list_head pending; /* messages received that must wait */
	struct uloop_fd sock;
	struct uloop_timeout pending_timer;
	uint32_t local_id; /* in network byte order */
	uint16_t request_seq;
	bool cancel_poll; /* ubus_handle_event stops after one message */
	int stack_depth;  /* of active handlers and synchronous calls */
	void (*connection_lost)(struct ubus_context *ctx);
	void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);
	struct ubus_msghdr_buf msgbuf;
	uint32_t msgbuf_data_len;
	int msgbuf_reduction_counter;
	__extension__ union {
		__extension__ struct {
			struct list_head auto_subscribers;
			struct ubus_event_handler auto_subscribe_event_handler;
		};
		ubus_handler_t request_handler;
	};
};

/* What ubus_lookup tells; it lives during the callback. */
struct ubus_object_data {
	uint32_t id;
	uint32_t type_id;
	const char *path;
	struct blob_attr *signature;
};

struct ubus_acl_key {
	const char *user;
	const char *group;
	const char *object;
};

/* A call being served; it lives during the handler, unless deferred. */
struct ubus_request_data {
	uint32_t object;
	uint32_t peer;
	uint16_t seq;
	struct ubus_acl_key acl; /* during the handler only */
	bool deferred;
	int fd;
	int req_fd;
};

/*
 * A call made. ubus_invoke_async_fd fills it, zeroing the callbacks; it is waited for once linked, until
 * it is completed or aborted, and must not be moved or released meanwhile.
 */
struct ubus_request {
	struct list_head list;
	struct list_head pending;
	int status_code;
	bool status_msg;
	bool blocked;
	bool cancelled;
	bool notify;
	uint32_t peer;
	uint16_t seq;
	ubus_data_handler_t raw_data_cb; /* the whole message */
	ubus_data_handler_t data_cb;     /* its DATA; may abort the request, but not release it */
	ubus_fd_handler_t fd_cb;
	ubus_complete_handler_t complete_cb; /* no longer linked: may release or reuse the request */
	int fd;
	struct ubus_context *ctx;
	void *priv;
};

struct ubus_notify_request {
	struct ubus_request req;
	ubus_notify_complete_handler_t status_cb;   /* for each subscriber, counted from 1 */
	ubus_notify_complete_handler_t complete_cb; /* all have answered */
	ubus_notify_data_handler_t data_cb;
	uint32_t pending; /* who has to answer: bit 0 the bus daemon, bit i subscriber i */
	uint32_t id[UBUS_MAX_NOTIFY_PEERS + 1];
};

/* A static text. */
const char *ubus_strerror(int error);

/* A context connected to the daemon at `path` (null: the usual one); null on any failure. Waits. */
struct ubus_context *ubus_connect(const char *path);

/* Calls no callback. Linked requests must have been aborted. */
void ubus_free(struct ubus_context *ctx);

/*
 * Connects anew and adds all objects again, with new ids; subscriptions and event registrations are not
 * made again, requests are left alone. 10 when the connecting fails; 9 when the daemon's greeting is wrong,
 * and then `sock.fd` names a descriptor that is closed already.
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);

/* Reads and processes what has arrived. `connection_lost` may release the context when called from here. */
static inline void ubus_handle_event(struct ubus_context *ctx)
{
	ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
	uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

static inline bool ubus_context_is_channel(struct ubus_context *ctx)
{
	return ctx->local_id == UBUS_CLIENT_ID_CHANNEL;
}

/* Links the request and waits; 0 ms: for ever. */
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout_ms);

/* Links the request; the rest happens when the context is served. */
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);

/* Unlinks a linked request, which then never calls back. */
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

/* Calls `cb` for the object of that path, for all that match it (a star at its end), or for all (null). */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj);

static inline int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj)
{
	if (!list_empty(&obj->list))
		list_del_init(&obj->list);
	return ubus_remove_object(ctx, &obj->obj);
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);

/* Makes the call and waits for its end. Descriptors are not passed here: `fd` is -1, or the result is 8. */
int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
	ubus_data_handler_t cb, void *priv, int timeout, int fd);

static inline int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
	struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout)
{
	return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

/* Sends the call; set callbacks and link the request afterwards. `msg` may be reused at once. */
int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
	struct ubus_request *req, int fd);

static inline int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
	struct blob_attr *msg, struct ubus_request *req)
{
	return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

/* Reply data for a call; any number of times. */
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

/* The call's end is sent later, with ubus_complete_deferred_request on `new_req`. */
static inline void ubus_defer_request(
	struct ubus_context *ctx, struct ubus_request_data *req, struct ubus_request_data *new_req)
{
	(void)ctx;
	memcpy(new_req, req, sizeof(*req));
	req->deferred = true;
}

static inline void ubus_request_set_fd(struct ubus_context *ctx, struct ubus_request_data *req, int fd)
{
	(void)ctx;
	req->fd = fd;
}

static inline int ubus_request_get_caller_fd(struct ubus_request_data *req)
{
	int fd = req->req_fd;
	req->req_fd = -1;
	return fd;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

/* A notification to all subscribers. Without waiting for them when `timeout` is negative; 0: for ever. */
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
	int timeout);
int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
	struct blob_attr *msg, struct ubus_notify_request *req);

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev)
{
	return ubus_remove_object(ctx, &ev->obj);
}

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif
