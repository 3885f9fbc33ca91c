// Helpers of the tests of subscriptions: one that keeps what it is told, and a fixture with a bus and a server.
#pragma once
#include <algorithm>

#include "tests/ubus/context.h"

namespace ubus_support
{

// A subscription that keeps what it is told, "type json" for each notification, and ends with this object.
struct subscription : ubus_subscription {
	std::vector<std::string> seen;
	int subscribed = 0; // calls of subscribed_cb
	std::function<void()> on_subscribed, on_notified;
	bool ended = false; // nothing is left to do for the destructor

	explicit subscription(ubus_context *context, const std::string &object = "target")
		: ubus_subscription{}
	{
		ctx = context;
		strncpy(path, object.c_str(), sizeof(path) - 1);
		subscribed_cb = [](ubus_subscription *s) {
			subscription *self = static_cast<subscription *>(s);
			++self->subscribed;
			if (auto copy = self->on_subscribed)
				copy();
			return 0;
		};
	}
	subscription(const subscription &) = delete;
	subscription &operator=(const subscription &) = delete;
	~subscription()
	{
		if (!ended)
			mox_ubus_unsubscribe(this);
	}

	int subscribe()
	{
		ended = false;
		return mox_ubus_subscribe(this, on_notification);
	}
	int unsubscribe()
	{
		ended = true;
		return mox_ubus_unsubscribe(this);
	}
	// Makes the attempt that is due later.
	void make_attempt()
	{
		ASSERT_TRUE(retry.pending);
		evloop_timeout_set(&retry, 0);
		evloop_handle_timeouts();
	}

private:
	static int on_notification(ubus_context *, ubus_object *object, ubus_request_data *, const char *type,
		blob_attr *message)
	{
		auto *self = static_cast<subscription *>(ubus_object_to_subscription(object));
		self->seen.push_back(
			std::string(type) + " " + object_server::call{"", "", contents_of(message)}.json());
		if (auto copy = self->on_notified)
			copy();
		return 0;
	}
};

class ubus_subscriptions : public bus_test
{
protected:
	std::optional<object_server> server;

	void SetUp() override
	{
		bus_test::SetUp();
		server.emplace(bus->path());
	}
	void TearDown() override
	{
		server.reset();
		bus_test::TearDown();
	}

	// How often a notification reaches `s`.
	long copies_of_a_notification(subscription &s, const std::string &path = "target")
	{
		s.seen.clear();
		server->notify(path, "tick");
		server->notify(path, "tock");
		EXPECT_TRUE(run_until([&] { return !s.seen.empty() && s.seen.back() == "tock {}"; }));
		return std::count(s.seen.begin(), s.seen.end(), "tick {}");
	}
	bool is_armed(const subscription &s) const
	{
		return s.retry.pending && evloop_get_next_timeout() > 0 &&
		       evloop_get_next_timeout() <= UBUS_SUBSCRIBE_RETRY_MS;
	}
	// A new bus daemon, on which the server has its objects again.
	void restart_bus()
	{
		bus->kill();
		ASSERT_TRUE(run_until([this] { return client.ctx->sock.eof; }));
		bus->start();
		server->reconnect();
	}
	void reconnect_client() { ASSERT_EQ(client.reconnect(bus->path()), 0); }
	// The bus daemon and the server are new, and the subscription works again after one call.
	void expect_to_work_on_a_new_bus(subscription &s)
	{
		bus->restart();
		server.emplace(bus->path());
		server->add("target");
		reconnect_client();
		EXPECT_EQ(s.subscribe(), 0);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
	// Everything that the bus has sent so far has been handled.
	void settle()
	{
		uint32_t id = 0;
		ubus_lookup_id(client.ctx, "no such object", &id);
		run_passes(3);
	}
};

} // namespace ubus_support
