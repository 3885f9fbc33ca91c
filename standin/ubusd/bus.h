// The bus: which objects there are, whose they are, who subscribes to them and who listens to events.
//
// A request is handled at once. A call is passed on and forgotten, since its caller matches the reply. So the bus holds
// for a client only what that client has added. The bounds of this are below; a request beyond one gets
// UBUS_STATUS_NO_MEMORY.
#pragma once
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "client.h"

namespace ubusd
{

// The bounds are far above what the daemons of one machine use together, and small enough that a client that runs wild
// meets them before the machine's. The units are pieces, but for the bytes.
inline constexpr size_t clients_max = 1024; // as many as have descriptors by default
inline constexpr size_t client_objects_max = 4096;
inline constexpr size_t client_subscriptions_max = 4096;
inline constexpr size_t client_patterns_max = 1024;    // each event is compared with all of them
inline constexpr size_t object_subscribers_max = 4096; // the list of them has to fit into a message
// Paths, signatures and patterns of one client. A type's signature counts for each object that has it.
inline constexpr size_t client_bytes_max = size_t{16} * 1024 * 1024;

// The words that ids are drawn from start here; those below are the bus's own.
inline constexpr uint32_t first_id = UBUS_SYSTEM_OBJECT_MAX;

// A signature that objects share. It lives as long as one of them does.
struct object_type {
	uint32_t id = 0;
	std::string signature; // the payload of the attribute
	bool has_methods = false;
	size_t object_count = 0;
};

struct object {
	uint32_t id = 0;
	client *owner = nullptr;
	object_type *type = nullptr; // may be null
	std::optional<std::string> path;
	uint16_t sequence = 0;             // of the bus's own messages about this object
	std::vector<object *> subscribers; // the latest last; one that has subscribed twice is here twice
	std::vector<object *> targets;     // what it has subscribed to
	std::set<std::string> patterns;    // of the events that it listens to

	size_t held_bytes() const { return (path ? path->size() : 0) + (type ? type->signature.size() : 0); }
};

class bus
{
	std::unordered_map<uint32_t, std::unique_ptr<client>> clients_;
	std::unordered_map<uint32_t, std::unique_ptr<object>> objects_;
	std::unordered_map<uint32_t, std::unique_ptr<object_type>> types_;
	std::map<std::string, object *> paths_;
	std::vector<object *> listeners_; // the objects that have patterns
	uint16_t event_sequence_ = 0;

	// The outcome of a request: the status to answer with, or no answer, at least for now.
	static constexpr int no_answer = -1;
	using handler = int (bus::*)(client &, const frame &);
	static handler handler_of(uint8_t type);
	void handle(client &from, const frame &request);
	void remove_client(uint32_t id);

	enum class progress {
		waits,      // for something that epoll reports
		unfinished, // there is more to do at once
		ended,      // the client has gone, or sends what cannot be understood
	};
	progress handle_frames(client &from);

	object *find_object(uint32_t id) const;
	int hand_on_status(client &from, const frame &request);
	int hand_on_data(client &from, const frame &request);
	int ping(client &from, const frame &request);
	int look_up(client &from, const frame &request);
	int invoke(client &from, const frame &request);
	int add_object(client &from, const frame &request);
	int remove_object(client &from, const frame &request);
	int subscribe(client &from, const frame &request);
	int unsubscribe(client &from, const frame &request);
	int notify(client &from, const frame &request);

	int hand_on(client &from, const frame &reply);
	int look_up_one(client &from, const frame &request, const std::string &path);
	void continue_lookup(client &from);
	bool lookup_step(client &from);
	object_type *take_type(const frame &request);
	object_type *make_type(const blob_attr *signature);
	void drop_type(object_type *type);
	const object &place_object(std::unique_ptr<object> added);
	void remove(object *gone);
	int find_own_object(const client &from, uint32_t id, object **found) const;
	int find_subscriber(const client &from, const frame &request, object **subscriber) const;

	// events.cc
	int event_request(client &from, const frame &request);
	int event_register(client &from, const blob_attr *data);
	int event_send(client &from, const blob_attr *data);
	int listen(object *listener, std::string pattern);
	void stop_listening(object *listener);
	void send_event(const client *except, std::string_view name, message *event, size_t place);
	void send_object_event(const char *name, const object &subject);

public:
	bus() = default;
	bus(const bus &) = delete;
	bus &operator=(const bus &) = delete;

	bool full() const { return clients_.size() >= clients_max; }
	// Takes a connection in and greets it; the connection is closed when that fails.
	void add_client(descriptor fd, int epoll_fd, identity who);
	// Does a bounded amount of work for a client for which epoll has reported `events`, possibly none. True
	// when there is more to do at once. Removes a client that has gone; an unknown one was removed before.
	bool serve(uint32_t client_id, uint32_t events);
};

} // namespace ubusd
