// Events: the object with id 1, at which clients register listeners and send events to all that listen.
#include <algorithm>

#include "bus.h"

namespace ubusd
{

// Finds two named values in a call's data, each of the type asked for; false when one is missing.
static bool find_two(const blob_attr *data, const blobmsg_policy (&wanted)[2], blob_attr *(&values)[2])
{
	return data &&
	       blobmsg_parse(wanted, 2, values, blob_data(data), static_cast<unsigned>(blob_len(data))) ==
		       0 &&
	       values[0] && values[1];
}

static std::string text_of(const blob_attr *value)
{
	return static_cast<const char *>(blobmsg_data(value));
}

// A star at a pattern's end matches anything.
static bool matches(const std::string &pattern, std::string_view name)
{
	if (pattern.back() != '*')
		return name == pattern;
	return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
}

static bool listens_to(const object &listener, std::string_view name)
{
	return std::any_of(listener.patterns.begin(), listener.patterns.end(),
		[name](const std::string &pattern) { return matches(pattern, name); });
}

int bus::event_request(client &from, const frame &request)
{
	std::string_view method = request.text(UBUS_ATTR_METHOD);
	if (method == "register")
		return event_register(from, request.attributes[UBUS_ATTR_DATA]);
	if (method == "send")
		return event_send(from, request.attributes[UBUS_ATTR_DATA]);
	return UBUS_STATUS_INVALID_COMMAND;
}

int bus::event_register(client &from, const blob_attr *data)
{
	static constexpr blobmsg_policy wanted[2] = {
		{"object", BLOBMSG_TYPE_INT32}, {"pattern", BLOBMSG_TYPE_STRING}};
	blob_attr *values[2];
	if (!find_two(data, wanted, values))
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t id = blobmsg_get_u32(values[0]);
	std::string pattern = text_of(values[1]);
	object *listener = find_object(id);
	if (!from.who().is_root() || id < first_id || (listener && listener->owner != &from) ||
		pattern.empty())
		return UBUS_STATUS_PERMISSION_DENIED;
	if (!listener)
		return UBUS_STATUS_NOT_FOUND;
	return listen(listener, std::move(pattern));
}

int bus::listen(object *listener, std::string pattern)
{
	client &owner = *listener->owner;
	size_t length = pattern.size();
	if (listener->patterns.contains(pattern))
		return UBUS_STATUS_OK; // it gets each event once in any case
	if (owner.pattern_count >= client_patterns_max || owner.held_bytes + length > client_bytes_max)
		return UBUS_STATUS_NO_MEMORY;
	++owner.pattern_count;
	owner.held_bytes += length;
	if (listener->patterns.empty())
		listeners_.push_back(listener);
	listener->patterns.insert(std::move(pattern));
	return UBUS_STATUS_OK;
}

void bus::stop_listening(object *listener)
{
	client &owner = *listener->owner;
	owner.pattern_count -= listener->patterns.size();
	for (const std::string &pattern : listener->patterns)
		owner.held_bytes -= pattern.size();
	listener->patterns.clear();
	std::erase(listeners_, listener);
}

int bus::event_send(client &from, const blob_attr *data)
{
	static constexpr blobmsg_policy wanted[2] = {
		{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}};
	blob_attr *values[2];
	if (!find_two(data, wanted, values))
		return UBUS_STATUS_INVALID_ARGUMENT;
	std::string name = text_of(values[0]);
	if (!from.who().is_root() || name.starts_with("ubus."))
		return UBUS_STATUS_PERMISSION_DENIED;
	message event;
	size_t place = event.put_number_to_set(UBUS_ATTR_OBJID);
	event.put_text(UBUS_ATTR_METHOD, name.c_str());
	event.put_bytes(UBUS_ATTR_DATA,
		{static_cast<const char *>(blobmsg_data(values[1])), blobmsg_data_len(values[1])});
	send_event(&from, name, &event, place);
	return UBUS_STATUS_OK;
}

// Sends an event of the bus itself to all that listen.
void bus::send_object_event(const char *name, const object &subject)
{
	message event;
	size_t place = event.put_number_to_set(UBUS_ATTR_OBJID);
	event.put_text(UBUS_ATTR_METHOD, name);
	void *cookie = event.nest_start(UBUS_ATTR_DATA);
	event.put_named_number("id", subject.id);
	event.put_named_text("path", subject.path->c_str());
	event.nest_end(cookie);
	send_event(nullptr, name, &event, place);
}

// Sends an event to each object that listens to it, with its id at `place`; to none of the client `except`.
void bus::send_event(const client *except, std::string_view name, message *event, size_t place)
{
	for (const object *listener : listeners_) {
		if (listener->owner == except || !listens_to(*listener, name))
			continue;
		event->set_number(place, listener->id);
		listener->owner->send(UBUS_MSG_INVOKE, ++event_sequence_, 0, *event);
	}
}

} // namespace ubusd
