// The requests: each makes its checks in order, takes effect, and tells the other clients.
//
// Access is what it is without access control files. Root may do everything. Other users may not add, call or
// subscribe to an object with a path, see an object with methods, or use events. Any client may use an object without
// a path if it has been told the id; but to subscribe to it, even root must have the user or the group of its owner.
#include "bus.h"

#include <algorithm>

#include <sys/epoll.h>
#include <sys/random.h>

namespace ubusd
{

// Work for one client in one turn; then it is the other clients' turn.
static constexpr int frames_per_turn = 32;
static constexpr int lookup_steps_per_turn = 64;
// More than a socket's buffer holds: 212,992 bytes are 555 turns of the shortest frames.
static constexpr int last_turns_max = 1024;

// A random word that is no key of `taken`; 0 when the kernel gives no random words.
template <typename map>
static uint32_t free_id(const map &taken)
{
	for (;;) {
		uint32_t id = 0;
		if (getrandom(&id, sizeof(id), 0) != sizeof(id))
			return 0;
		if (id >= first_id && !taken.contains(id))
			return id;
	}
}

static void send_status(client &to, uint16_t seq, uint32_t peer, int status)
{
	message answer;
	answer.put_number(UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
	to.send(UBUS_MSG_STATUS, seq, peer, answer);
}

// ---- Access ----

static bool may_see(const identity &who, const object &seen)
{
	return who.is_root() || !seen.type || !seen.type->has_methods;
}

static bool may_call(const identity &who, const object &called)
{
	return who.is_root() || !called.path;
}

static bool may_subscribe(const identity &who, const object &target)
{
	const identity &owner = target.owner->who();
	return target.path ? who.is_root() : who.uid == owner.uid || who.gid == owner.gid;
}

// ---- Clients ----

void bus::add_client(descriptor fd, int epoll_fd, identity who)
{
	uint32_t id = free_id(clients_);
	if (id == 0)
		return;
	auto added = std::make_unique<client>(std::move(fd), epoll_fd, id, std::move(who));
	added->send(UBUS_MSG_HELLO, 0, id, message());
	if (added->watch())
		clients_.emplace(id, std::move(added));
}

void bus::remove_client(uint32_t id)
{
	client &gone = *clients_.at(id);
	gone.hang_up();
	while (!gone.objects.empty())
		remove(gone.objects.front());
	clients_.erase(id);
}

bool bus::serve(uint32_t client_id, uint32_t events)
{
	auto at = clients_.find(client_id);
	if (at == clients_.end())
		return false;
	client &served = *at->second;
	if (events & (EPOLLHUP | EPOLLERR))
		served.hang_up();
	if (events & EPOLLOUT)
		served.flush();
	continue_lookup(served);
	progress made = handle_frames(served);
	// A client that has hung up is served to the end at once, so that its objects are gone before it connects again.
	// Only what its socket's buffer held is left to read.
	for (int turns = last_turns_max; (events & EPOLLHUP) && made != progress::ended && turns > 0; --turns)
		made = handle_frames(served);
	if (made == progress::ended || !served.watch())
		remove_client(client_id);
	return made == progress::unfinished;
}

bus::progress bus::handle_frames(client &from)
{
	bool has_read = false;
	for (int left = frames_per_turn; left > 0;) {
		if (from.lookup)
			return progress::waits;
		frame request;
		switch (from.next(&request)) {
		case framing::malformed:
			return progress::ended;
		case framing::complete:
			handle(from, request);
			from.consume(request);
			--left;
			break;
		case framing::partial:
			if (from.input_ended())
				return progress::ended;
			if (has_read)
				return progress::waits;
			from.fill();
			has_read = true;
			break;
		}
	}
	return progress::unfinished;
}

// ---- Requests ----

bus::handler bus::handler_of(uint8_t type)
{
	static constexpr handler handlers[] = {
		nullptr, // HELLO
		&bus::hand_on_status,
		&bus::hand_on_data,
		&bus::ping,
		&bus::look_up,
		&bus::invoke,
		&bus::add_object,
		&bus::remove_object,
		&bus::subscribe,
		&bus::unsubscribe,
		&bus::notify,
	};
	return type < std::size(handlers) ? handlers[type] : nullptr;
}

void bus::handle(client &from, const frame &request)
{
	handler handle_request = handler_of(request.type);
	int status = handle_request ? (this->*handle_request)(from, request) : UBUS_STATUS_INVALID_COMMAND;
	if (status != no_answer)
		send_status(from, request.seq, request.peer, status);
}

// Any client may call the bus's own objects, and do nothing else with them.
static bool is_system_object(uint32_t id)
{
	return id >= UBUS_SYSTEM_OBJECT_EVENT && id <= UBUS_SYSTEM_OBJECT_MONITOR;
}

object *bus::find_object(uint32_t id) const
{
	auto at = objects_.find(id);
	return at == objects_.end() ? nullptr : at->second.get();
}

int bus::ping(client &from, const frame &request)
{
	from.send(UBUS_MSG_DATA, request.seq, request.peer, request.body);
	return UBUS_STATUS_OK;
}

// A reply goes to the client that the header names; there the header names the object that replies.
int bus::hand_on(client &from, const frame &reply)
{
	if (!reply.has(UBUS_ATTR_OBJID))
		return no_answer;
	const object *source = find_object(reply.number(UBUS_ATTR_OBJID));
	auto to = clients_.find(reply.peer);
	if (source && source->owner == &from && to != clients_.end())
		to->second->send(reply.type, reply.seq, source->id, reply.body);
	return no_answer;
}

int bus::hand_on_status(client &from, const frame &request)
{
	return request.has(UBUS_ATTR_STATUS) ? hand_on(from, request) : no_answer;
}

int bus::hand_on_data(client &from, const frame &request)
{
	return request.has(UBUS_ATTR_DATA) ? hand_on(from, request) : no_answer;
}

// ---- Look-ups ----

// Answers about one object; false when that client may not see it.
static bool describe(const identity &who, const object &found, message *answer)
{
	if (!found.type || !may_see(who, found))
		return false;
	answer->put_text(UBUS_ATTR_OBJPATH, found.path->c_str());
	answer->put_number(UBUS_ATTR_OBJID, found.id);
	answer->put_number(UBUS_ATTR_OBJTYPE, found.type->id);
	answer->put_bytes(UBUS_ATTR_SIGNATURE, found.type->signature);
	return true;
}

int bus::look_up(client &from, const frame &request)
{
	pending_lookup lookup;
	lookup.seq = request.seq;
	lookup.peer = request.peer;
	lookup.found = !request.has(UBUS_ATTR_OBJPATH);
	if (!lookup.found) {
		lookup.prefix = request.text(UBUS_ATTR_OBJPATH);
		if (lookup.prefix.empty())
			return UBUS_STATUS_INVALID_ARGUMENT;
		if (lookup.prefix.back() != '*')
			return look_up_one(from, request, lookup.prefix);
		lookup.prefix.pop_back();
	}
	from.lookup = std::move(lookup);
	continue_lookup(from);
	return no_answer;
}

int bus::look_up_one(client &from, const frame &request, const std::string &path)
{
	auto at = paths_.find(path);
	if (at == paths_.end())
		return UBUS_STATUS_NOT_FOUND;
	message answer;
	if (describe(from.who(), *at->second, &answer))
		from.send(UBUS_MSG_DATA, request.seq, request.peer, answer);
	return UBUS_STATUS_OK;
}

// Objects may come and go between two steps, so a step starts from the last path that was handled.
void bus::continue_lookup(client &from)
{
	for (int left = lookup_steps_per_turn; from.lookup && left > 0; --left)
		if (!lookup_step(from))
			break;
}

// Sends the next object of a look-up, or its end; false when its client has to read first.
bool bus::lookup_step(client &from)
{
	pending_lookup &lookup = *from.lookup;
	auto at = lookup.begun ? paths_.upper_bound(lookup.last) : paths_.lower_bound(lookup.prefix);
	bool at_end = at == paths_.end() || !at->first.starts_with(lookup.prefix);
	message answer;
	if (at_end)
		answer.put_number(UBUS_ATTR_STATUS, lookup.found ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
	bool says_something = at_end || describe(from.who(), *at->second, &answer);
	if (says_something && !from.has_room(answer))
		return false;
	uint16_t seq = lookup.seq;
	uint32_t peer = lookup.peer;
	if (at_end) {
		from.lookup.reset();
	} else {
		lookup.last = at->first;
		lookup.begun = lookup.found = true;
	}
	if (says_something)
		from.send(at_end ? UBUS_MSG_STATUS : UBUS_MSG_DATA, seq, peer, answer);
	return true;
}

// ---- Subscriptions: who is told when they begin and end ----

static void tell_active(object *target, bool active)
{
	message change;
	change.put_number(UBUS_ATTR_OBJID, target->id);
	change.put_flag(UBUS_ATTR_ACTIVE, active);
	target->owner->send(UBUS_MSG_NOTIFY, ++target->sequence, 0, change);
}

static void tell_subscriber_of_removal(object *subscriber, const object &gone)
{
	message removal;
	removal.put_number(UBUS_ATTR_OBJID, subscriber->id);
	removal.put_number(UBUS_ATTR_TARGET, gone.id);
	subscriber->owner->send(UBUS_MSG_UNSUBSCRIBE, ++subscriber->sequence, 0, removal);
}

static void tell_if_last(object *target)
{
	if (target->subscribers.empty())
		tell_active(target, false);
}

// Takes the latest of several equal ones out of a list.
static bool erase_latest(std::vector<object *> *list, const object *item)
{
	auto at = std::find(list->rbegin(), list->rend(), item);
	if (at == list->rend())
		return false;
	list->erase(std::next(at).base());
	return true;
}

static bool unlink_subscription(object *subscriber, object *target)
{
	if (!erase_latest(&subscriber->targets, target))
		return false;
	erase_latest(&target->subscribers, subscriber);
	--subscriber->owner->subscription_count;
	return true;
}

static bool end_subscription(object *subscriber, object *target)
{
	if (!unlink_subscription(subscriber, target))
		return false;
	tell_if_last(target);
	return true;
}

// ---- Adding and removing objects ----

// The number of methods in a signature, which is a sequence of named values, one a method; -1 if it is anything else.
// The values should be tables, but their type is not checked.
static int method_count(const blob_attr *signature)
{
	int count = 0;
	blob_attr *method;
	size_t rest;
	blob_for_each_attr(method, signature, rest)
	{
		if (!blobmsg_check_attr(method, true))
			return -1;
		++count;
	}
	return count;
}

object_type *bus::make_type(const blob_attr *signature)
{
	uint32_t id = free_id(types_);
	int methods = method_count(signature);
	if (id == 0 || methods < 0)
		return nullptr;
	auto type = std::make_unique<object_type>();
	type->id = id;
	type->signature.assign(static_cast<const char *>(blob_data(signature)), blob_len(signature));
	type->has_methods = methods > 0;
	return types_.emplace(id, std::move(type)).first->second.get();
}

// The type of a new object, or null.
object_type *bus::take_type(const frame &request)
{
	object_type *type = nullptr;
	if (request.has(UBUS_ATTR_OBJTYPE)) {
		auto at = types_.find(request.number(UBUS_ATTR_OBJTYPE));
		if (at != types_.end())
			type = at->second.get();
	} else if (request.has(UBUS_ATTR_SIGNATURE)) {
		type = make_type(request.attributes[UBUS_ATTR_SIGNATURE]);
	}
	if (type)
		++type->object_count;
	return type;
}

void bus::drop_type(object_type *type)
{
	if (type && --type->object_count == 0)
		types_.erase(type->id);
}

// Whether the bounds allow another object. The answer to a look-up of it must fit into a message, too.
static bool may_hold(const client &owner, const object &added)
{
	static const identity root{};
	message answer;
	if (added.path)
		describe(root, added, &answer);
	return owner.objects.size() < client_objects_max &&
	       owner.held_bytes + added.held_bytes() <= client_bytes_max && answer.body();
}

int bus::add_object(client &from, const frame &request)
{
	auto added = std::make_unique<object>();
	if (request.has(UBUS_ATTR_OBJPATH)) {
		added->path = request.text(UBUS_ATTR_OBJPATH);
		if (paths_.contains(*added->path) || !from.who().is_root())
			return UBUS_STATUS_INVALID_ARGUMENT;
	}
	added->id = free_id(objects_);
	added->owner = &from;
	added->type = take_type(request);
	if (added->id == 0 || !may_hold(from, *added)) {
		drop_type(added->type);
		return UBUS_STATUS_NO_MEMORY;
	}
	const object &placed = place_object(std::move(added));
	if (placed.path)
		send_object_event("ubus.object.add", placed);
	message answer;
	answer.put_number(UBUS_ATTR_OBJID, placed.id);
	if (placed.type && request.has(UBUS_ATTR_SIGNATURE))
		answer.put_number(UBUS_ATTR_OBJTYPE, placed.type->id);
	from.send(UBUS_MSG_DATA, request.seq, request.peer, answer);
	return UBUS_STATUS_OK;
}

const object &bus::place_object(std::unique_ptr<object> added)
{
	object *placed = added.get();
	placed->owner->objects.push_back(placed);
	placed->owner->held_bytes += placed->held_bytes();
	if (placed->path)
		paths_.emplace(*placed->path, placed);
	objects_.emplace(placed->id, std::move(added));
	return *placed;
}

int bus::find_own_object(const client &from, uint32_t id, object **found) const
{
	*found = find_object(id);
	if (!*found && !is_system_object(id))
		return UBUS_STATUS_NOT_FOUND;
	return *found && (*found)->owner == &from ? UBUS_STATUS_OK : UBUS_STATUS_PERMISSION_DENIED;
}

int bus::remove_object(client &from, const frame &request)
{
	if (!request.has(UBUS_ATTR_OBJID))
		return UBUS_STATUS_INVALID_ARGUMENT;
	object *gone;
	if (int status = find_own_object(from, request.number(UBUS_ATTR_OBJID), &gone))
		return status;
	message answer;
	answer.put_number(UBUS_ATTR_OBJID, gone->id);
	if (gone->type && gone->type->object_count == 1)
		answer.put_number(UBUS_ATTR_OBJTYPE, gone->type->id);
	from.send(UBUS_MSG_DATA, request.seq, request.peer, answer);
	remove(gone);
	return UBUS_STATUS_OK;
}

void bus::remove(object *gone)
{
	while (!gone->targets.empty())
		end_subscription(gone, gone->targets.back());
	while (!gone->subscribers.empty()) {
		object *subscriber = gone->subscribers.back();
		unlink_subscription(subscriber, gone);
		tell_subscriber_of_removal(subscriber, *gone);
		tell_if_last(gone);
	}
	stop_listening(gone);
	if (gone->path) {
		paths_.erase(*gone->path);
		send_object_event("ubus.object.remove", *gone);
	}
	gone->owner->held_bytes -= gone->held_bytes();
	std::erase(gone->owner->objects, gone);
	drop_type(gone->type);
	objects_.erase(gone->id);
}

// ---- Subscribing ----

// The object that a client subscribes with; it must be its own.
int bus::find_subscriber(const client &from, const frame &request, object **subscriber) const
{
	if (!request.has(UBUS_ATTR_OBJID) || !request.has(UBUS_ATTR_TARGET))
		return UBUS_STATUS_INVALID_ARGUMENT;
	int status = find_own_object(from, request.number(UBUS_ATTR_OBJID), subscriber);
	return status == UBUS_STATUS_PERMISSION_DENIED ? UBUS_STATUS_INVALID_ARGUMENT : status;
}

int bus::subscribe(client &from, const frame &request)
{
	object *subscriber;
	if (int status = find_subscriber(from, request, &subscriber))
		return status;
	object *target = find_object(request.number(UBUS_ATTR_TARGET));
	if (!target)
		return UBUS_STATUS_NOT_FOUND;
	if (target->owner == &from)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (!may_subscribe(from.who(), *target))
		return UBUS_STATUS_NOT_FOUND;
	if (from.subscription_count >= client_subscriptions_max ||
		target->subscribers.size() >= object_subscribers_max)
		return UBUS_STATUS_NO_MEMORY;
	++from.subscription_count;
	subscriber->targets.push_back(target);
	target->subscribers.push_back(subscriber);
	if (target->subscribers.size() == 1)
		tell_active(target, true);
	return UBUS_STATUS_OK;
}

int bus::unsubscribe(client &from, const frame &request)
{
	object *subscriber;
	if (int status = find_subscriber(from, request, &subscriber))
		return status;
	object *target = find_object(request.number(UBUS_ATTR_TARGET));
	return target && end_subscription(subscriber, target) ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
}

// ---- Calls and notifications ----

static bool wants_no_reply(const frame &request)
{
	return request.has(UBUS_ATTR_NO_REPLY) && request.flag(UBUS_ATTR_NO_REPLY);
}

// Puts together what an object is called with; returns the place of the object's id. The caller's names come from the
// kernel, not from the caller.
static size_t put_call(message *call, const identity &caller, const frame &request)
{
	size_t place = call->put_number_to_set(UBUS_ATTR_OBJID);
	call->put_text(UBUS_ATTR_METHOD, request.text(UBUS_ATTR_METHOD));
	call->put_text(UBUS_ATTR_USER, caller.user.c_str());
	call->put_text(UBUS_ATTR_GROUP, caller.group.c_str());
	call->put_payload(UBUS_ATTR_DATA, request.attributes[UBUS_ATTR_DATA]);
	return place;
}

int bus::invoke(client &from, const frame &request)
{
	if (!request.has(UBUS_ATTR_METHOD) || !request.has(UBUS_ATTR_OBJID))
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t id = request.number(UBUS_ATTR_OBJID);
	if (id == UBUS_SYSTEM_OBJECT_EVENT)
		return event_request(from, request);
	if (is_system_object(id))
		return UBUS_STATUS_NOT_SUPPORTED; // this bus has neither of them
	object *called = find_object(id);
	if (!called)
		return UBUS_STATUS_NOT_FOUND;
	if (!may_call(from.who(), *called))
		return UBUS_STATUS_PERMISSION_DENIED;
	message call;
	call.set_number(put_call(&call, from.who(), request), id);
	if (!call.body()) // the caller's names have made it too long
		return UBUS_STATUS_NO_MEMORY;
	called->owner->send(UBUS_MSG_INVOKE, request.seq, from.id(), call);
	return no_answer;
}

// The subscribers whose statuses the sender of a notification may wait for, the latest first.
static void send_subscribers(client &to, uint16_t seq, uint32_t peer, const object &source)
{
	message list;
	list.put_number(UBUS_ATTR_OBJID, source.id);
	void *cookie = list.nest_start(UBUS_ATTR_SUBSCRIBERS);
	for (size_t index = source.subscribers.size(); index-- > 0;)
		list.put_number(0, source.subscribers[index]->id);
	list.nest_end(cookie);
	list.put_number(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
	to.send(UBUS_MSG_STATUS, seq, peer, list);
}

int bus::notify(client &from, const frame &request)
{
	if (!request.has(UBUS_ATTR_METHOD) || !request.has(UBUS_ATTR_OBJID))
		return UBUS_STATUS_INVALID_ARGUMENT;
	object *source;
	if (int status = find_own_object(from, request.number(UBUS_ATTR_OBJID), &source))
		return status;
	message call;
	if (wants_no_reply(request))
		call.put_flag(UBUS_ATTR_NO_REPLY, true);
	size_t place = put_call(&call, from.who(), request);
	if (!call.body())
		return UBUS_STATUS_NO_MEMORY;
	if (!wants_no_reply(request))
		send_subscribers(from, request.seq, request.peer, *source);
	for (size_t index = source->subscribers.size(); index-- > 0;) {
		const object *subscriber = source->subscribers[index];
		call.set_number(place, subscriber->id);
		subscriber->owner->send(UBUS_MSG_INVOKE, request.seq, from.id(), call);
	}
	return no_answer;
}

} // namespace ubusd
