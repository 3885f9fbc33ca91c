// All that libubus keeps of a call is its request record, linked into the context until the answer, an
// abort, or the loss of the connection. Two things can go wrong with that, and each has one answer
// here.
//
// A context may be freed with requests linked, and nobody is told. Unlinking writes to the neighbours,
// so before it is done there is proof that they exist: the request is found in the list of a context
// that is known to live (the caller has just handed it over), or the socket that it was sent on is
// still open under its number.
//
// Synchronous calls serve the context, so anything can happen inside them, the end of the record they
// are made for included. A `call_guard` around them notices, and afterwards the record is looked at
// only if nothing did.

#include "ubus.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "internal/intrusive.h"
#include "log.h"

// ---- What all of them need ----

// Stands on the stack while libubus or the daemon is called for `record`, and learns of calls made
// inside.
class call_guard
{
	static inline constinit call_guard *innermost = nullptr;

	call_guard *const outer_ = innermost;
	const void *const record_;
	bool overtaken_ = false;
	bool held_ = false;

public:
	explicit call_guard(const void *record) : record_(record)
	{
		overtake(record);
		innermost = this;
	}
	call_guard(const call_guard &) = delete;
	call_guard &operator=(const call_guard &) = delete;
	~call_guard() { innermost = outer_; }

	// A later call has decided what becomes of the record; unless it was held, it may not even exist.
	bool overtaken() const { return overtaken_; }

	// While held, the record is in use by who was called, and must neither be used anew nor released.
	void hold() { held_ = true; }
	void let_go() { held_ = false; }

	static bool any() { return innermost; }
	static bool holds(const void *record)
	{
		for (const call_guard *guard = innermost; guard; guard = guard->outer_)
			if (guard->record_ == record && guard->held_)
				return true;
		return false;
	}
	static void overtake(const void *record)
	{
		for (call_guard *guard = innermost; guard; guard = guard->outer_)
			if (guard->record_ == record)
				guard->overtaken_ = true;
	}
};

static bool is_in_list(const list_head *list, const list_head *item)
{
	for (const list_head *link = list->next; link != list; link = link->next)
		if (link == item)
			return true;
	return false;
}

// Aborts the request if it is linked in `ctx`, which lives; if not, the list it was in may be gone.
static void abort_in(ubus_context *ctx, ubus_request *req)
{
	if (is_in_list(&ctx->requests, &req->list))
		ubus_abort_request(ctx, req);
}

// Returns 0 and the object's id, never 0, or a status.
static int look_up(ubus_context *ctx, const char *path, uint32_t *id)
{
	*id = 0;
	int status = ubus_lookup_id(ctx, path, id);
	// The bus says yes without naming the object if that has no methods, or none that we may know of.
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
	if (length > INT_MAX || blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "json", text,
					static_cast<unsigned int>(length)) != 0)
		out_of_memory();
	free(text);
	return 0;
}

// A message as a call carries it has no name. One that says it has, which nobody else checks, must have
// room for it.
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
	if (memchr(text, '\0', length)) // jansson passes over one that follows a number
		return UBUS_STATUS_INVALID_ARGUMENT;
	json_t *json = json_loadb(text, length, 0, nullptr);
	if (!json)
		return UBUS_STATUS_INVALID_ARGUMENT;
	*out = json;
	return 0;
}

// ---- Calls that nobody waits for ----

// What a descriptor refers to. It stays the same until the descriptor is closed, and is another
// afterwards, even if the number is in use again.
struct open_file {
	int fd;
	dev_t device;
	ino_t inode; // 0: nothing
};

static open_file file_behind(int fd)
{
	struct stat status;
	if (fstat(fd, &status) < 0)
		return {.fd = fd, .device = 0, .inode = 0};
	return {.fd = fd, .device = status.st_dev, .inode = status.st_ino};
}

static bool is_still_open(const open_file *file)
{
	open_file now = file_behind(file->fd);
	return now.inode != 0 && now.inode == file->inode && now.device == file->device;
}

struct ubus_async_request {
	ubus_context *ctx;
	ubus_request req;
	evloop_timeout timeout;
	open_file socket;
	ubus_async_request *next, *prev; // of `forsaken`
};

// Calls whose time is over, and whose context has been freed or reconnected since: in the one case
// nothing must be unlinked, in the other nothing released. Who is right shows when a context of that
// address is used again.
constinit static ring<ubus_async_request> forsaken;

static void resolve_forsaken(ubus_context *ctx)
{
	ubus_async_request *following = nullptr;
	for (ubus_async_request *r = forsaken.first(); r; r = following) {
		following = forsaken.after(r);
		if (r->ctx != ctx)
			continue;
		abort_in(ctx, &r->req);
		forsaken.remove(r);
		free(r);
	}
}

// It was linked in a context that has been reconnected, and that has lost its connection once more.
static void on_forsaken_complete(ubus_request *req, int)
{
	ubus_async_request *r = owner_of(req, &ubus_async_request::req);
	forsaken.remove(r);
	free(r);
}

static void on_async_complete(ubus_request *req, int status)
{
	ubus_async_request *r = owner_of(req, &ubus_async_request::req);
	if (status != 0)
		_log(3, "ubus-ureq-async: error: %d\n", status);
	evloop_timeout_cancel(&r->timeout);
	free(r);
}

static void on_async_timeout(evloop_timeout *timeout)
{
	ubus_async_request *r = owner_of(timeout, &ubus_async_request::timeout);
	_log(3, "ubus-ureq-async: timeout\n");
	if (!is_still_open(&r->socket)) {
		r->req.complete_cb = on_forsaken_complete;
		forsaken.insert_before(nullptr, r);
		return;
	}
	ubus_abort_request(r->ctx, &r->req);
	free(r);
}

int ubus_req_async_to(
	struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_buf *b, uint32_t timeout_ms)
{
	resolve_forsaken(ctx);
	ubus_async_request *r = static_cast<ubus_async_request *>(xzalloc(sizeof *r));
	int error = ubus_invoke_async_fd(ctx, obj, method, b->head, &r->req, -1);
	if (error != 0) {
		_log(3, "ubus-ureq-async: error invoking %s: %d\n", method, error);
		free(r);
		return -1;
	}
	r->ctx = ctx;
	r->socket = file_behind(ctx->sock.fd);
	r->req.complete_cb = on_async_complete;
	r->timeout.cb = on_async_timeout;
	evloop_timeout_set(&r->timeout, timeout_ms);
	ubus_complete_request_async(ctx, &r->req);
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

// Nothing more comes of the call, if there is one. With no context there is no list either that it
// could be in. Inside `data_cb`, data and a status may have been read that libubus hands over after it:
// not any more.
static void end_call(ubus_retry_request *rr)
{
	evloop_timeout_cancel(&rr->reply_timer);
	rr->req.data_cb = ignore_data;
	rr->req.complete_cb = nullptr;
	if (ubus_context *ctx = context_of(rr))
		abort_in(ctx, &rr->req);
}

// At once, unless this is inside another synchronous call of this module: many answers that have come
// meanwhile would make as many nested look-ups.
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
	evloop_timeout_cancel(&rr->reply_timer);
	rr->pending = false;
	if (status != 0)
		invoke_again(rr);
}

static void on_retry_timer(evloop_timeout *timer)
{
	ubus_retry_request_invoke(owner_of(timer, &ubus_retry_request::retry_timer));
}

static void on_reply_timer(evloop_timeout *timer)
{
	ubus_retry_request_invoke(owner_of(timer, &ubus_retry_request::reply_timer));
}

// Returns 0 with the message in `rr->buf`, or what `prepare_cb` failed with.
static int prepare(ubus_retry_request *rr, call_guard *guard)
{
	blob_buf_init(&rr->buf, 0);
	guard->hold();
	int error = rr->prepare_cb ? rr->prepare_cb(&rr->buf) : 0;
	guard->let_go();
	return error;
}

static int send(ubus_retry_request *rr, ubus_context *ctx, uint32_t id)
{
	int status = ubus_invoke_async_fd(ctx, id, rr->method, rr->buf.head, &rr->req, -1);
	if (status != 0) {
		_log(3, "ubus_retry_req %s.%s: invoke: %s\n", rr->object, rr->method, ubus_strerror(status));
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
	int status = look_up(ctx, rr->object, &id);
	if (guard->overtaken())
		return -ECANCELED;
	if (status != 0) {
		_log(3, "ubus_retry_req %s.%s: can't lookup object\n", rr->object, rr->method);
		return retry_later(rr);
	}
	if (context_of(rr) != ctx)
		return retry_on_next_pass(rr);
	int error = prepare(rr, guard);
	if (guard->overtaken()) {
		blob_buf_free(&rr->buf);
		return -ECANCELED;
	}
	if (error != 0) {
		_log(3, "ubus_retry_req %s.%s: message packing err: %d\n", rr->object, rr->method, error);
		return retry_later(rr);
	}
	if (context_of(rr) != ctx) // it has been stored inside `prepare_cb`
		return retry_on_next_pass(rr);
	return send(rr, ctx, id);
}

int ubus_retry_request_init(struct ubus_retry_request *rr, struct ubus_context **ctx, const char *method,
	const char *object, int (*prepare_cb)(struct blob_buf *buf), ubus_data_handler_t data_cb)
{
	if (!ctx) {
		_log(3, "ubus_init_retry_request: null ubus ctx\n");
		return -EINVAL;
	}
	if (strlen(method) >= sizeof rr->method) {
		_log(3, "ubus_init_retry_request: method too long\n");
		return -EINVAL;
	}
	if (strlen(object) >= sizeof rr->object) {
		_log(3, "ubus_init_retry_request: object too long\n");
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
	if (call_guard::holds(rr))
		return -EALREADY;
	evloop_timeout_cancel(&rr->retry_timer);
	if (!rr->ctx) {
		_log(3, "ubus_retry_req: %s.%s: invalid ctx ptr\n", rr->object, rr->method);
		return -EINVAL;
	}
	call_guard guard{rr};
	end_call(rr);
	rr->pending = false;
	ubus_context *ctx = context_of(rr);
	if (!ctx)
		return retry_later(rr);
	if (rr->req.blocked) // libubus is in `data_cb` and will look at the request once more
		return retry_on_next_pass(rr);
	return attempt(rr, ctx, &guard);
}

int ubus_retry_request_abort(struct ubus_retry_request *rr)
{
	call_guard::overtake(rr);
	end_call(rr); // `pending` stays: compatibility, pending after abort
	evloop_timeout_cancel(&rr->retry_timer);
	if (!call_guard::holds(rr)) // it is being filled; whoever has that done frees it
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
	int status = look_up(ctx, s->path, &id);
	if (guard->overtaken())
		return -ECANCELED;
	if (status != 0)
		return subscribe_later(s, status);
	// What has been removed until now was an earlier target.
	evloop_timeout_cancel(&s->retry);
	status = ubus_subscribe(ctx, &s->subscriber, id);
	if (guard->overtaken())
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

// Ends the registration and every subscription made by it, whether the bus can be told or not. In a
// context that does not know the object, because it is another than last time, there is nothing to end.
static void unregister(ubus_context *ctx, ubus_subscription *s)
{
	if (!is_registered(ctx, s))
		return;
	if (ubus_remove_object(ctx, &s->subscriber.obj) != 0 && is_registered(ctx, s))
		avl_delete(&ctx->objects, &s->subscriber.obj.avl);
	s->subscriber.obj.id = 0;
}

// Returns 0, or what libubus could not register it for. The record is in libubus's hands meanwhile.
static int register_anew(ubus_context *ctx, ubus_subscription *s, call_guard *guard)
{
	guard->hold();
	unregister(ctx, s);
	int status = ubus_register_subscriber(ctx, &s->subscriber);
	if (guard->overtaken())
		unregister(ctx, s);
	guard->let_go();
	return status;
}

int mox_ubus_subscribe(struct ubus_subscription *s, ubus_handler_t cb)
{
	if (call_guard::holds(s))
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
	if (guard.overtaken())
		return -ECANCELED;
	if (status != 0)
		return -EAGAIN; // compatibility, one refusal
	return subscribe(s, ctx, &guard);
}

int mox_ubus_unsubscribe(struct ubus_subscription *s)
{
	bool held = call_guard::holds(s); // then the call that holds it sees to the rest
	call_guard guard{s};
	guard.hold();
	evloop_timeout_cancel(&s->retry);
	if (s->ctx && !held)
		unregister(s->ctx, s);
	// A removal that libubus reported meanwhile is not the beginning of another attempt.
	evloop_timeout_cancel(&s->retry);
	return 0;
}

struct ubus_subscription *ubus_object_to_subscription(struct ubus_object *obj)
{
	ubus_subscriber *subscriber = owner_of(obj, &ubus_subscriber::obj);
	return owner_of(subscriber, &ubus_subscription::subscriber);
}
