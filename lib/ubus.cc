// Calls, repeated calls and subscriptions over libubus. Contexts and records may go away at any time: a record is
// released once, and nothing is written to a freed context.
//
// libubus keeps of a call only its request record, linked into the context until the answer, an abort, or the
// loss of the connection. Two things can go wrong, and each has one answer here.
//
// A context may be freed with requests linked, and nobody is told. Unlinking a request writes to its
// neighbours, so there must be proof first that they exist. Either the caller has just handed over the
// context, and the request is found in its list; or the socket that carried the call is still open under its
// number.
//
// A synchronous call serves the context, so any callback can run inside it, even one that releases the
// record the call is made for. A `call_guard` on the stack learns of that. After the call, the record is
// touched only if no later call has superseded this one.

#include "ubus.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include "internal/intrusive.h"
#include "internal/invariant.h"
#include "log.h"

// ---- Shared by calls and subscriptions ----

// Stands on the stack while libubus or the daemon is called for `record`. Calls made inside find it there.
class call_guard
{
	static inline constinit call_guard *innermost = nullptr;

	call_guard *const outer_ = innermost;
	const void *const record_;
	bool superseded_ = false;
	bool pinned_ = false;

public:
	explicit call_guard(const void *record) : record_(record)
	{
		supersede(record);
		innermost = this;
	}
	call_guard(const call_guard &) = delete;
	call_guard &operator=(const call_guard &) = delete;
	~call_guard()
	{
		invariant(innermost == this); // the guard taken last is released first
		innermost = outer_;
	}

	// A later call for the record was made inside. Unless the record was pinned, it may not even exist.
	bool superseded() const { return superseded_; }

	// While pinned, the record is in use by the code that was called: nobody may reuse or release it.
	void pin() { pinned_ = true; }
	void unpin()
	{
		invariant(pinned_); // pins and unpins are balanced
		pinned_ = false;
	}

	static bool any() { return innermost; }
	static bool is_pinned(const void *record)
	{
		for (const call_guard *guard = innermost; guard; guard = guard->outer_)
			if (guard->record_ == record && guard->pinned_)
				return true;
		return false;
	}
	static void supersede(const void *record)
	{
		for (call_guard *guard = innermost; guard; guard = guard->outer_)
			if (guard->record_ == record)
				guard->superseded_ = true;
	}
};

static bool is_in_list(const list_head *list, const list_head *item)
{
	for (const list_head *link = list->next; link != list; link = link->next)
		if (link == item)
			return true;
	return false;
}

// Aborts the request if it is linked in `ctx`, a context that lives. A request that is not linked there may be
// in the list of a freed context, and stays as it is.
static void abort_if_linked(ubus_context *ctx, ubus_request *req)
{
	if (is_in_list(&ctx->requests, &req->list))
		ubus_abort_request(ctx, req);
}

// Returns 0 and the object's id, which is not 0; or a status.
static int look_up_id(ubus_context *ctx, const char *path, uint32_t *id)
{
	*id = 0;
	int status = ubus_lookup_id(ctx, path, id);
	// For an object without methods, or without any that we may see, the bus reports success and no id.
	return status == 0 && *id == 0 ? UBUS_STATUS_NOT_FOUND : status;
}

// ---- JSON messages ----

extern const blobmsg_policy ubus_json_attrs[1] = {{"json", BLOBMSG_TYPE_UNSPEC}};

int ubus_pack_json_msg(struct blob_buf *b, json_t *json)
{
	size_t size = json_dumpb(json, nullptr, 0, JSON_COMPACT);
	char *text = static_cast<char *>(xmalloc(size));
	size_t length = json_dumpb(json, text, size, JSON_COMPACT);
	// Not a STRING, which would have a terminating zero: compatibility, raw json
	invariant(length <= size); // the text fits its memory
	if (length > INT_MAX || blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "json", text,
					static_cast<unsigned int>(length)) != 0)
		out_of_memory();
	free(text);
	return 0;
}

// The message of a call has no name. If it claims one, the name must fit: libubus does not check that.
static bool is_well_formed(const blob_attr *msg)
{
	if (blob_raw_len(msg) < sizeof *msg)
		return false;
	if (!blob_is_extended(msg))
		return true;
	const blobmsg_hdr *name = static_cast<const blobmsg_hdr *>(blob_data(msg));
	return blob_len(msg) >= sizeof *name &&
	       blob_len(msg) >= static_cast<size_t>(blobmsg_hdrlen(be16_to_cpu(name->namelen)));
}

int ubus_parse_json_msg(struct blob_attr *msg, json_t **out)
{
	if (!msg || !is_well_formed(msg))
		return UBUS_STATUS_INVALID_ARGUMENT;
	blob_attr *attribute = nullptr;
	if (blobmsg_parse(ubus_json_attrs, 1, &attribute, blobmsg_data(msg),
		    static_cast<unsigned int>(blobmsg_data_len(msg))) != 0 ||
		!attribute)
		return UBUS_STATUS_INVALID_ARGUMENT;
	const char *text = static_cast<const char *>(blobmsg_data(attribute));
	size_t length = blobmsg_data_len(attribute);
	if (memchr(text, '\0', length)) // jansson ignores one after a number
		return UBUS_STATUS_INVALID_ARGUMENT;
	json_t *json = json_loadb(text, length, 0, nullptr);
	if (!json)
		return UBUS_STATUS_INVALID_ARGUMENT;
	*out = json;
	return 0;
}

// ---- Calls that nobody waits for ----

// The file that a descriptor refers to: the same until the descriptor is closed, and another one
// afterwards, even if the number is in use again.
struct open_file {
	int fd;
	dev_t device;
	ino_t inode; // 0: none
};

static open_file file_of(int fd)
{
	struct stat status;
	if (fstat(fd, &status) < 0)
		return {.fd = fd, .device = 0, .inode = 0};
	return {.fd = fd, .device = status.st_dev, .inode = status.st_ino};
}

static bool is_still_open(const open_file *file)
{
	open_file now = file_of(file->fd);
	return now.inode != 0 && now.inode == file->inode && now.device == file->device;
}

struct async_call {
	ubus_context *ctx;
	ubus_request req;
	evloop_timeout timeout;
	open_file socket;
	async_call *next, *prev; // of `orphaned`
};

// Calls that timed out after their context was freed or reconnected. After a free, the request must not be
// unlinked; after a reconnection, it is linked and must not be released. Which of the two it was shows when a
// context of that address is used again.
constinit static ring<async_call> orphaned;

static void resolve_orphaned(ubus_context *ctx)
{
	async_call *following = nullptr;
	for (async_call *call = orphaned.first(); call; call = following) {
		following = orphaned.after(call);
		if (call->ctx != ctx)
			continue;
		invariant(!call->timeout.pending); // an orphaned call has timed out, so no timer leads to it
		abort_if_linked(ctx, &call->req);
		orphaned.remove(call);
		free(call);
	}
}

// The context was reconnected with the request linked, and has lost its connection again.
static void on_orphaned_complete(ubus_request *req, int)
{
	async_call *call = owner_of(req, &async_call::req);
	orphaned.remove(call);
	free(call);
}

static void on_async_complete(ubus_request *req, int status)
{
	async_call *call = owner_of(req, &async_call::req);
	invariant(call->timeout.pending); // a call that is not orphaned waits for its answer or its timeout
	if (status != 0)
		_log(LOG_ERR, "ubus-ureq-async: error: %d\n", status);
	evloop_timeout_cancel(&call->timeout);
	free(call);
}

static void on_async_timeout(evloop_timeout *timeout)
{
	async_call *call = owner_of(timeout, &async_call::timeout);
	_log(LOG_ERR, "ubus-ureq-async: timeout\n");
	if (!is_still_open(&call->socket)) {
		call->req.complete_cb = on_orphaned_complete;
		orphaned.insert_before(nullptr, call);
		return;
	}
	ubus_abort_request(call->ctx, &call->req);
	free(call);
}

int ubus_req_async_to(
	struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_buf *b, uint32_t timeout_ms)
{
	resolve_orphaned(ctx);
	async_call *call = static_cast<async_call *>(xzalloc(sizeof *call));
	int error = ubus_invoke_async_fd(ctx, obj, method, b->head, &call->req, -1);
	if (error != 0) {
		_log(LOG_ERR, "ubus-ureq-async: error invoking %s: %d\n", method, error);
		free(call);
		return -1;
	}
	call->ctx = ctx;
	call->socket = file_of(ctx->sock.fd);
	call->req.complete_cb = on_async_complete;
	call->timeout.cb = on_async_timeout;
	evloop_timeout_set(&call->timeout, timeout_ms);
	ubus_complete_request_async(ctx, &call->req);
	return 0;
}

// ---- Calls repeated until they succeed ----

static int retry_later(ubus_retry_request *rr)
{
	evloop_timeout_set(&rr->retry_timer, UBUS_RETRY_DELAY_MS);
	return -EBUSY;
}

static int retry_on_next_pass(ubus_retry_request *rr)
{
	evloop_timeout_set(&rr->retry_timer, 0);
	return -EBUSY;
}

static ubus_context *context_of(const ubus_retry_request *rr)
{
	return rr->ctx ? *rr->ctx : nullptr;
}

static void ignore_data(ubus_request *, int, blob_attr *) {}

// Ends the call in flight, if there is one: no callback follows. Without a context there is no list to unlink
// the request from. Inside `data_cb`, libubus may have read more data and a status already; neither is
// delivered any more.
static void end_call(ubus_retry_request *rr)
{
	evloop_timeout_cancel(&rr->reply_timer);
	rr->req.data_cb = ignore_data;
	rr->req.complete_cb = nullptr;
	if (ubus_context *ctx = context_of(rr))
		abort_if_linked(ctx, &rr->req);
}

// At once; but on the next pass inside another synchronous call of this module. There, many answers that have
// arrived would nest as many look-ups.
static void invoke_again(ubus_retry_request *rr)
{
	if (call_guard::any())
		retry_on_next_pass(rr);
	else
		ubus_retry_request_invoke(rr);
}

static void on_retry_complete(ubus_request *req, int status)
{
	ubus_retry_request *rr = ubus_req_to_retry_request(req);
	invariant(rr->reply_timer.pending); // a call in flight has its limit
	evloop_timeout_cancel(&rr->reply_timer);
	rr->pending = false;
	if (status != 0)
		invoke_again(rr);
}

static void on_retry_timer(evloop_timeout *timer)
{
	ubus_retry_request *rr = owner_of(timer, &ubus_retry_request::retry_timer);
	invariant(!rr->pending); // a request that waits for its next attempt has no call in flight
	ubus_retry_request_invoke(rr);
}

static void on_reply_timer(evloop_timeout *timer)
{
	ubus_retry_request *rr = owner_of(timer, &ubus_retry_request::reply_timer);
	invariant(rr->pending); // the limit is of a call in flight
	ubus_retry_request_invoke(rr);
}

// Returns 0 with the message in `rr->buf`, or the error of `prepare_cb`.
static int fill_message(ubus_retry_request *rr, call_guard *guard)
{
	blob_buf_init(&rr->buf, 0);
	guard->pin();
	int error = rr->prepare_cb ? rr->prepare_cb(&rr->buf) : 0;
	guard->unpin();
	return error;
}

static int send_message(ubus_retry_request *rr, ubus_context *ctx, uint32_t id)
{
	invariant(context_of(rr) == ctx);    // the id was looked up in the context that carries the call
	invariant(!rr->retry_timer.pending); // a call in flight and the next attempt exclude each other
	int status = ubus_invoke_async_fd(ctx, id, rr->method, rr->buf.head, &rr->req, -1);
	if (status != 0) {
		_log(LOG_ERR, "ubus_retry_req %s.%s: invoke: %s\n", rr->object, rr->method,
			ubus_strerror(status));
		return retry_later(rr);
	}
	rr->req.data_cb = rr->data_cb;
	rr->req.complete_cb = on_retry_complete;
	blob_buf_free(&rr->buf);
	rr->pending = true;
	evloop_timeout_set(&rr->reply_timer, UBUS_RETRY_DELAY_MS);
	ubus_complete_request_async(ctx, &rr->req);
	return 0;
}

static int attempt(ubus_retry_request *rr, ubus_context *ctx, call_guard *guard)
{
	uint32_t id;
	int status = look_up_id(ctx, rr->object, &id);
	if (guard->superseded())
		return -ECANCELED;
	if (status != 0) {
		_log(LOG_ERR, "ubus_retry_req %s.%s: can't lookup object\n", rr->object, rr->method);
		return retry_later(rr);
	}
	if (context_of(rr) != ctx)
		return retry_on_next_pass(rr);
	int error = fill_message(rr, guard);
	if (guard->superseded()) {
		blob_buf_free(&rr->buf);
		return -ECANCELED;
	}
	if (error != 0) {
		_log(LOG_ERR, "ubus_retry_req %s.%s: message packing err: %d\n", rr->object, rr->method,
			error);
		return retry_later(rr);
	}
	if (context_of(rr) != ctx) // `prepare_cb` has stored another
		return retry_on_next_pass(rr);
	return send_message(rr, ctx, id);
}

int ubus_retry_request_init(struct ubus_retry_request *rr, struct ubus_context **ctx, const char *method,
	const char *object, int (*prepare_cb)(struct blob_buf *buf), ubus_data_handler_t data_cb)
{
	if (!ctx) {
		_log(LOG_ERR, "ubus_init_retry_request: null ubus ctx\n");
		return -EINVAL;
	}
	if (strlen(method) >= sizeof rr->method) {
		_log(LOG_ERR, "ubus_init_retry_request: method too long\n");
		return -EINVAL;
	}
	if (strlen(object) >= sizeof rr->object) {
		_log(LOG_ERR, "ubus_init_retry_request: object too long\n");
		return -EINVAL;
	}
	*rr = {};
	rr->ctx = ctx;
	strncpy(rr->method, method, sizeof rr->method - 1);
	strncpy(rr->object, object, sizeof rr->object - 1);
	rr->prepare_cb = prepare_cb;
	rr->data_cb = data_cb;
	rr->retry_timer.cb = on_retry_timer;
	rr->reply_timer.cb = on_reply_timer;
	return 0;
}

int ubus_retry_request_invoke(struct ubus_retry_request *rr)
{
	if (call_guard::is_pinned(rr))
		return -EALREADY;
	evloop_timeout_cancel(&rr->retry_timer);
	if (!rr->ctx) {
		_log(LOG_ERR, "ubus_retry_req: %s.%s: invalid ctx ptr\n", rr->object, rr->method);
		return -EINVAL;
	}
	call_guard guard{rr};
	end_call(rr);
	rr->pending = false;
	ubus_context *ctx = context_of(rr);
	if (!ctx)
		return retry_later(rr);
	if (rr->req.blocked) // inside `data_cb`, after which libubus reads the request again
		return retry_on_next_pass(rr);
	return attempt(rr, ctx, &guard);
}

int ubus_retry_request_abort(struct ubus_retry_request *rr)
{
	call_guard::supersede(rr);
	end_call(rr); // `pending` stays: compatibility, pending after abort
	evloop_timeout_cancel(&rr->retry_timer);
	if (!call_guard::is_pinned(rr)) // inside `prepare_cb` the buffer is in use, and freed afterwards
		blob_buf_free(&rr->buf);
	return 0;
}

struct ubus_retry_request *ubus_req_to_retry_request(struct ubus_request *req)
{
	return owner_of(req, &ubus_retry_request::req);
}

// ---- Subscriptions ----

static int subscribe_later(ubus_subscription *s, int status)
{
	evloop_timeout_set(&s->retry, UBUS_SUBSCRIBE_RETRY_MS);
	return status;
}

static int subscribe(ubus_subscription *s, ubus_context *ctx, const call_guard *guard)
{
	uint32_t id;
	int status = look_up_id(ctx, s->path, &id);
	if (guard->superseded())
		return -ECANCELED;
	if (status != 0)
		return subscribe_later(s, status);
	// A removal that was reported until now was about an earlier target.
	evloop_timeout_cancel(&s->retry);
	status = ubus_subscribe(ctx, &s->subscriber, id);
	if (guard->superseded())
		return -ECANCELED;
	if (status != 0)
		return subscribe_later(s, status);
	if (s->subscribed_cb)
		s->subscribed_cb(s); // may release the record
	return 0;
}

static void on_subscribe_timer(evloop_timeout *timer)
{
	ubus_subscription *s = owner_of(timer, &ubus_subscription::retry);
	if (!s->ctx)
		return;
	call_guard guard{s};
	subscribe(s, s->ctx, &guard);
}

static void on_target_removed(ubus_context *, ubus_subscriber *subscriber, uint32_t)
{
	subscribe_later(owner_of(subscriber, &ubus_subscription::subscriber), 0);
}

static bool is_registered(const ubus_context *ctx, const ubus_subscription *s)
{
	return is_in_list(&ctx->objects.list_head, &s->subscriber.obj.avl.list);
}

// Ends the registration and all its subscriptions, whether or not the bus can be told. A context that does
// not know the object is another one than last time: there is nothing to end.
static void unregister(ubus_context *ctx, ubus_subscription *s)
{
	if (!is_registered(ctx, s))
		return;
	if (ubus_remove_object(ctx, &s->subscriber.obj) != 0 && is_registered(ctx, s))
		avl_delete(&ctx->objects, &s->subscriber.obj.avl);
	s->subscriber.obj.id = 0;
}

// Returns 0, or libubus's status. libubus uses the record meanwhile, so it is pinned.
static int register_anew(ubus_context *ctx, ubus_subscription *s, call_guard *guard)
{
	guard->pin();
	unregister(ctx, s);
	int status = ubus_register_subscriber(ctx, &s->subscriber);
	if (guard->superseded())
		unregister(ctx, s);
	guard->unpin();
	return status;
}

int mox_ubus_subscribe(struct ubus_subscription *s, ubus_handler_t cb)
{
	if (call_guard::is_pinned(s))
		return -EALREADY;
	call_guard guard{s};
	evloop_timeout_cancel(&s->retry);
	ubus_context *ctx = s->ctx;
	if (!ctx)
		return -EAGAIN;
	s->subscriber.cb = cb;
	s->subscriber.remove_cb = on_target_removed;
	s->retry.cb = on_subscribe_timer;
	int status = register_anew(ctx, s, &guard);
	if (guard.superseded())
		return -ECANCELED;
	if (status != 0)
		return -EAGAIN; // compatibility, one refusal
	return subscribe(s, ctx, &guard);
}

int mox_ubus_unsubscribe(struct ubus_subscription *s)
{
	bool pinned = call_guard::is_pinned(s); // then register_anew, further up the stack, unregisters it
	call_guard guard{s};
	guard.pin();
	evloop_timeout_cancel(&s->retry);
	if (s->ctx && !pinned)
		unregister(s->ctx, s);
	// libubus may have reported a removal meanwhile, which set the timer again.
	evloop_timeout_cancel(&s->retry);
	return 0;
}

struct ubus_subscription *ubus_object_to_subscription(struct ubus_object *obj)
{
	ubus_subscriber *subscriber = owner_of(obj, &ubus_subscriber::obj);
	return owner_of(subscriber, &ubus_subscription::subscriber);
}
