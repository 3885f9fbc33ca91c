// The client library against a peer that speaks the wire protocol message by message. The peer's answer is mostly written
// before the call that asks: sequence numbers are known, and the client reads no message earlier than it needs it.
#pragma once
#include <libubus.h>

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "blobs.h"
#include "tests/support/bus.h"
#include "tests/support/system.h"

inline const uint32_t client_id = 0xfc8b6722, other_client = 0x618b9132, demo_id = 0xfa7a1947,
		      demo_type = 0xae8c6041, subscriber_id = 0xaa08ac77, listener_id = 0xc61fe656;

inline const std::string hello = wire::frame(wire::hello, 0, client_id);
inline const std::string json_data = hex("80000013 00046a73 6f6e0000 7b226122 3a317d00");

inline std::string status_frame(uint32_t seq, uint32_t peer, uint32_t status)
{
	return wire::frame(wire::status, seq, peer, wire::number(wire::attr_status, status));
}

inline std::string data_frame(uint32_t seq, uint32_t peer, const std::string &data)
{
	return wire::frame(wire::data, seq, peer,
		wire::number(wire::attr_objid, peer) + wire::attribute(wire::attr_data, data));
}

inline std::string invoke_frame(uint32_t seq, uint32_t object, const std::string &method,
	const std::string &data = {}, const std::string &before = {})
{
	return wire::frame(wire::invoke, seq, other_client,
		before + wire::number(wire::attr_objid, object) + wire::text(wire::attr_method, method) +
			wire::text(wire::attr_user, "root") + wire::text(wire::attr_group, "wheel") +
			wire::attribute(wire::attr_data, data));
}

inline std::string added_frames(uint32_t seq, uint32_t id, uint32_t type = 0)
{
	return wire::frame(wire::data, seq, 0,
		       wire::number(wire::attr_objid, id) +
			       (type ? wire::number(wire::attr_objtype, type) : std::string())) +
	       status_frame(seq, 0, 0);
}

inline std::string active_frame(uint32_t object, uint8_t active)
{
	return wire::frame(wire::notify, 1, 0,
		wire::number(wire::attr_objid, object) + wire::octet(wire::attr_active, active));
}

inline std::string gone_frame(uint32_t subscriber, uint32_t target)
{
	return wire::frame(wire::unsubscribe, 1, 0,
		wire::number(wire::attr_objid, subscriber) + wire::number(wire::attr_target, target));
}

inline std::string found_frame(uint32_t seq, uint32_t id, const std::string &path)
{
	return wire::frame(wire::data, seq, 0,
		wire::text(wire::attr_objpath, path) + wire::number(wire::attr_objid, id) +
			wire::number(wire::attr_objtype, demo_type) +
			wire::attribute(wire::attr_signature, ""));
}

inline std::string call_status(uint32_t seq, uint32_t status, uint32_t object)
{
	return wire::frame(wire::status, seq, other_client,
		wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, object));
}

// The answer to a call before libubus knows the caller.
inline std::string answer_to_nobody(uint32_t status)
{
	return wire::frame(wire::status, 0, 0,
		wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, 0));
}

// What the callbacks of a test have seen, in order.
inline strings events;

inline void note(const std::string &what)
{
	events.push_back(what);
}

inline strings take_events()
{
	return std::exchange(events, {});
}

// A request whose callbacks are noted under a name.
struct call : ubus_request {
	std::string name;
	std::function<void(call *, blob_attr *)> on_data;
	std::function<void(call *)> on_complete;
	bool is_waited_for = false;

	explicit call(std::string called = "call") : ubus_request{}, name(std::move(called)) {}
	call(const call &) = delete;
	call &operator=(const call &) = delete;

	int invoke(ubus_context *bus, uint32_t object = demo_id, const char *method = "echo",
		blob_attr *msg = nullptr)
	{
		int result = ubus_invoke_async(bus, object, method, msg, this);
		complete_cb = [](ubus_request *req, int status) {
			auto *self = static_cast<call *>(req);
			EXPECT_TRUE(list_empty(&self->list));
			EXPECT_EQ(self->complete_cb != nullptr, self->is_waited_for);
			note(self->name + ": " + std::to_string(status));
			if (self->on_complete)
				std::function(self->on_complete)(self);
		};
		return result;
	}
	void want_data()
	{
		data_cb = [](ubus_request *req, int type, blob_attr *msg) {
			auto *self = static_cast<call *>(req);
			EXPECT_EQ(type, int{UBUS_MSG_DATA});
			EXPECT_EQ(blob_id(msg), unsigned{UBUS_ATTR_DATA});
			EXPECT_TRUE(self->blocked);
			note(self->name + " data " + payload(msg));
			if (self->on_data)
				self->on_data(self, msg);
		};
	}
	// Invokes and links.
	void start(ubus_context *bus)
	{
		EXPECT_EQ(invoke(bus), 0);
		want_data();
		ubus_complete_request_async(bus, this);
	}
};

// An object whose methods "echo" and "fail" and everything else are noted.
struct object : ubus_object {
	std::function<int(object *, ubus_request_data *, blob_attr *)> on_call;
	std::function<void(object *)> on_subscribers;

	static int handle(
		ubus_context *, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
	{
		auto *self = static_cast<object *>(obj);
		note(std::string("call ") + method);
		return self->on_call ? std::function(self->on_call)(self, req, msg) : 0;
	}
	explicit object(const char *with_name = nullptr, ubus_object_type *with_type = nullptr)
		: ubus_object{}
	{
		static const ubus_method catch_all = {nullptr, handle, 0, 0, nullptr, 0};
		name = with_name;
		type = with_type;
		methods = &catch_all;
		n_methods = 1;
		subscribe_cb = [](ubus_context *, ubus_object *obj) {
			note(obj->has_subscribers ? "subscribed" : "unsubscribed");
			auto *self = static_cast<object *>(obj);
			if (self->on_subscribers)
				self->on_subscribers(self);
		};
	}
	object(const object &) = delete;
	object &operator=(const object &) = delete;
};

inline const blobmsg_policy echo_arguments[] = {{"n", BLOBMSG_TYPE_INT32}, {"s", BLOBMSG_TYPE_STRING}};
inline const ubus_method demo_methods[] = {
	UBUS_METHOD("echo", object::handle, echo_arguments), UBUS_METHOD_NOARG("fail", object::handle)};

inline ubus_object_type make_demo_type()
{
	return UBUS_OBJECT_TYPE("demo", demo_methods);
}

struct subscriber : ubus_subscriber {
	int result = 0;
	std::function<void(subscriber *, uint32_t)> on_gone;

	subscriber() : ubus_subscriber{}
	{
		cb = [](ubus_context *, ubus_object *called, ubus_request_data *, const char *method,
			     blob_attr *msg) {
			note(std::string("notified ") + method + " " + payload(msg));
			return static_cast<subscriber *>(container_of(called, ubus_subscriber, obj))->result;
		};
		remove_cb = [](ubus_context *, ubus_subscriber *sub, uint32_t id) {
			auto *self = static_cast<subscriber *>(sub);
			note("gone " + std::to_string(id));
			if (self->on_gone)
				std::function(self->on_gone)(self, id);
		};
	}
	subscriber(const subscriber &) = delete;
	subscriber &operator=(const subscriber &) = delete;
};

struct listener : ubus_event_handler {
	listener() : ubus_event_handler{}
	{
		cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
			note(std::string(type) + " " + payload(msg));
		};
	}
};

struct notification : ubus_notify_request {
	void start(ubus_context *ctx, ubus_object *obj)
	{
		ASSERT_EQ(ubus_notify_async(ctx, obj, "tock", nullptr, this), 0);
		status_cb = [](ubus_notify_request *, int index, int status) {
			note("status " + std::to_string(index) + ": " + std::to_string(status));
		};
		complete_cb = [](ubus_notify_request *self, int index, int status) {
			EXPECT_TRUE(list_empty(&self->req.list));
			note("complete " + std::to_string(index) + ": " + std::to_string(status));
		};
		data_cb = [](ubus_notify_request *, int type, blob_attr *msg) {
			EXPECT_EQ(type, int{UBUS_MSG_DATA});
			note("data " + payload(msg));
		};
		ubus_complete_request_async(ctx, &req);
	}
};

// A listening Unix socket that stands for the bus daemon; the test plays its part.
class bus_client : public descriptor_test
{
	private_directory directory_;
	owned_fd listener_;

protected:
	owned_fd peer_; // the daemon's end of the connection made last
	ubus_context *ctx_ = nullptr;

	int wait_for_call(call *request, int timeout_ms = 0)
	{
		request->is_waited_for = true;
		return ubus_complete_request(ctx_, request, timeout_ms);
	}
	std::string path() const { return directory_ / "bus.sock"; }
	int listener_fd() const { return listener_.get(); }

	void SetUp() override
	{
		alarm(120); // a call that hangs ends the test
		events.clear();
		ASSERT_EQ(uloop_init(), 0);
		descriptor_test::SetUp();
		listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
		sockaddr_un name{};
		name.sun_family = AF_UNIX;
		ASSERT_LT(path().size(), sizeof(name.sun_path));
		memcpy(name.sun_path, path().c_str(), path().size());
		ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		ASSERT_EQ(listen(listener_.get(), 16), 0);
	}
	void TearDown() override
	{
		disconnect();
		peer_.reset();
		listener_.reset();
		descriptor_test::TearDown();
		alarm(0);
	}

	// Plays the daemon while `connect` runs: accepts, sends `greeting`, and ends the stream if told to.
	template <typename F>
	void serve_connect(F connect, const std::string &greeting = hello, bool then_end = false)
	{
		std::thread daemon([&] {
			peer_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
			write_all(peer_.get(), greeting);
			if (then_end)
				shutdown(peer_.get(), SHUT_WR);
		});
		connect();
		daemon.join();
	}
	void connect()
	{
		disconnect();
		serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
		ASSERT_NE(ctx_, nullptr);
		ctx_->connection_lost = [](ubus_context *) { note("lost"); };
	}
	void disconnect()
	{
		if (ctx_)
			ubus_free(ctx_);
		ctx_ = nullptr;
	}

	void say(const std::string &bytes) { ASSERT_TRUE(write_all(peer_.get(), bytes)); }
	// What the client has sent, frame by frame.
	wire::received hear() { return receive_frame(peer_.get()); }
	std::string hear_bytes() { return hear().bytes; }
	bool silence() { return !wait_for(peer_.get(), POLLIN, 0); }
	// Lets the client process what it was told.
	void serve(const std::string &bytes = {})
	{
		if (!bytes.empty())
			say(bytes);
		ubus_handle_event(ctx_);
	}
	void close_peer() { peer_.reset(); }

	// A synchronous call that changes nothing; what `before` holds is there before its answer.
	int sync_call(const std::string &before = {})
	{
		say(before + status_frame(ctx_->request_seq + 1U, 0, 0));
		uint32_t id = 0;
		int status = ubus_lookup_id(ctx_, "x", &id);
		hear();
		return status;
	}
	void add(ubus_object *obj, uint32_t id)
	{
		say(added_frames(ctx_->request_seq + 1U, id));
		ASSERT_EQ(ubus_add_object(ctx_, obj), 0);
		ASSERT_EQ(hear().type(), wire::add_object);
	}
};

// What is about the stand-in only: where libubus crashes or hangs, or can do more.
using standin_client = bus_client;
