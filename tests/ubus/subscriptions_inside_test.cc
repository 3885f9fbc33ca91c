// Subscriptions: what happens while a call of theirs waits for the bus. A first call of mox_ubus_subscribe registers,
// looks up and subscribes; a later one unregisters before; an attempt of the timer looks up and subscribes.
#include "lib/ubus.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

#include <gmock/gmock.h>

#include "tests/ubus/subscription.h"

using namespace ubus_support;
using testing::ElementsAre;

namespace
{

// ---- Calls made inside ----

class ubus_subscriptions_inside : public ubus_subscriptions
{
protected:
	std::optional<probe> inside;

	void SetUp() override
	{
		ubus_subscriptions::SetUp();
		inside.emplace(*bus, client);
	}
	void TearDown() override
	{
		inside.reset();
		ubus_subscriptions::TearDown();
	}
	// `action` runs inside the synchronous call of that number from now on; 1 is the next.
	void run_inside(int number, std::function<void()> action)
	{
		inside->calls = 0;
		inside->on_call = [this, number, action = std::move(action)] {
			if (inside->calls < number)
				inside->send_call();
			else if (inside->calls == number)
				action();
		};
		inside->send_call();
	}
	// Unsubscribes inside synchronous call `number` of mox_ubus_subscribe, after which nothing is left.
	void expect_cancelled_inside(int number, subscription &s)
	{
		run_inside(number, [&] { EXPECT_EQ(s.unsubscribe(), 0); });
		EXPECT_EQ(mox_ubus_subscribe(&s, s.subscriber.cb), -ECANCELED);
		EXPECT_EQ(inside->calls, number);
		EXPECT_EQ(s.subscriber.obj.id, 0U);
		EXPECT_EQ(evloop_get_next_timeout(), -1);
		settle();
		EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
	}
	// Subscribes inside synchronous call `number` of mox_ubus_subscribe, which then gives up.
	void expect_taken_over_inside(int number)
	{
		server->add("target");
		subscription s{client.ctx};
		run_inside(number, [&] { EXPECT_EQ(s.subscribe(), 0); });
		EXPECT_EQ(s.subscribe(), -ECANCELED);
		EXPECT_EQ(s.subscribed, 1);
		EXPECT_EQ(copies_of_a_notification(s), 1);
		EXPECT_EQ(evloop_get_next_timeout(), -1);
	}
	// Releases the record inside synchronous call `number` of the timer's attempt.
	void release_inside_attempt(int number, std::unique_ptr<subscription> &s)
	{
		run_inside(number, [&] {
			s->unsubscribe();
			s.reset();
		});
		evloop_timeout_set(&s->retry, 0);
		evloop_handle_timeouts();
		EXPECT_EQ(inside->calls, number);
		EXPECT_EQ(s, nullptr);
		EXPECT_EQ(evloop_get_next_timeout(), -1);
		settle();
	}
};

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_registered_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_unregistered_for_another_call_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_is_unsubscribed_gives_ealready)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), -EALREADY); });
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(inside->calls, 1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_it_is_registered_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	expect_cancelled_inside(1, s);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_the_object_is_looked_up_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	expect_cancelled_inside(2, s);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_an_absent_object_is_looked_up_cancels_the_call)
{
	subscription s{client.ctx};
	expect_cancelled_inside(2, s);
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_it_subscribes_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	expect_cancelled_inside(3, s);
	EXPECT_EQ(s.subscribed, 0);
}

TEST_F(ubus_subscriptions_inside, unsubscribing_while_an_earlier_registration_ends_cancels_the_call)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	expect_cancelled_inside(1, s);
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions_inside, subscription_works_after_a_cancelled_call)
{
	server->add("target");
	subscription s{client.ctx};
	expect_cancelled_inside(1, s);
	expect_cancelled_inside(2, s);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_the_object_is_looked_up_takes_over)
{
	expect_taken_over_inside(2);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_it_subscribes_takes_over)
{
	expect_taken_over_inside(3);
}

TEST_F(ubus_subscriptions_inside, subscribing_while_the_timers_attempt_looks_up_takes_over)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	run_inside(1, [&] { EXPECT_EQ(s.subscribe(), 0); });
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_looks_up)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	release_inside_attempt(1, s);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_looks_up_in_vain)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	release_inside_attempt(1, s);
}

TEST_F(ubus_subscriptions_inside, record_may_be_released_while_the_timers_attempt_subscribes)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	release_inside_attempt(2, s);
	EXPECT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
}

TEST_F(ubus_subscriptions, notification_that_is_handled_inside_another_call_may_unsubscribe)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	s.on_notified = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	server->notify("target", "first");
	server->notify("target", "second");
	ASSERT_TRUE(wait_for(client.ctx->sock.fd, POLLIN));
	settle();
	EXPECT_THAT(s.seen, ElementsAre("first {}"));
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions_inside, object_removed_between_look_up_and_subscription_is_waited_for)
{
	server->add("target");
	subscription s{client.ctx};
	run_inside(2, [&] { server->remove("target"); });
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(inside->calls, 2);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, object_removed_while_it_is_subscribed_to_is_waited_for)
{
	server->add("target");
	server->remove_when_subscribed("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), 0);
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// The removal is handled inside the subscription itself, before this returns success.
TEST_F(ubus_subscriptions_inside, object_removed_before_its_subscription_returns_is_waited_for)
{
	server->add("target");
	server->remove_when_subscribed("target");
	subscription s{client.ctx};
	run_inside(3, [&] {
		// The subscription has been made; its answer has been read, the news of the removal may
		// not have been.
		EXPECT_TRUE(eventually([this] { return !is_on_bus("target"); }));
		uint32_t id = 0;
		ubus_lookup_id(client.ctx, "target", &id);
	});
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(inside->calls, 3);
	settle();
	EXPECT_TRUE(is_armed(s));
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions_inside, object_that_restarts_during_the_look_up_is_subscribed_to_once)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	server->add("target");
	run_inside(1, [&] {
		server->remove("target");
		server->add("target");
	});
	s.make_attempt(); // with the id of the one that has gone meanwhile
	EXPECT_TRUE(is_armed(s));
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- The connection breaks inside the synchronous calls ----

// The bus daemon stands still, and ends when something is sent to it on the client's connection: a
// synchronous call is made in vain.
class fatal_request
{
	pid_t pid_;

	static bool is_stopped(pid_t daemon)
	{
		return read_file("/proc/" + std::to_string(daemon) + "/stat").find(") T") !=
		       std::string::npos;
	}

public:
	fatal_request(const bus_daemon &bus, const bus_client &client)
	{
		::kill(bus.pid(), SIGSTOP);
		EXPECT_TRUE(eventually([&] { return is_stopped(bus.pid()); }));
		pid_ = fork();
		if (pid_ != 0)
			return;
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		bool sent = eventually([&] {
			int unread = 0;
			return ioctl(client.ctx->sock.fd, SIOCOUTQ, &unread) == 0 && unread > 0;
		});
		::kill(bus.pid(), SIGKILL);
		_exit(sent ? 0 : 1);
	}
	fatal_request(const fatal_request &) = delete;
	fatal_request &operator=(const fatal_request &) = delete;
	~fatal_request()
	{
		int status = -1;
		while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
			;
		EXPECT_EQ(status, 0) << "nothing was sent to the bus";
	}
};

TEST_F(ubus_subscriptions, connection_that_breaks_while_it_is_registered_gives_eagain)
{
	subscription s{client.ctx};
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s.subscribe(), -EAGAIN);
	}
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	expect_to_work_on_a_new_bus(s);
}

TEST_F(ubus_subscriptions, connection_that_breaks_in_an_attempt_leaves_the_retry_armed)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	{
		fatal_request next{*bus, client};
		s.make_attempt();
	}
	EXPECT_EQ(client.losses, 1);
	EXPECT_TRUE(is_armed(s));
	expect_to_work_on_a_new_bus(s);
}

TEST_F(ubus_subscriptions, record_may_be_released_when_the_connection_breaks_in_an_attempt)
{
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	client.on_lost = [&] {
		s->unsubscribe();
		s.reset();
	};
	{
		fatal_request next{*bus, client};
		evloop_timeout_set(&s->retry, 0);
		evloop_handle_timeouts();
	}
	EXPECT_EQ(s, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, record_may_be_released_when_unsubscribing_meets_the_loss)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s->unsubscribe(), 0);
	}
	EXPECT_EQ(client.losses, 1);
	s.reset();
	bus->restart();
	reconnect_client();
	settle();
}

TEST_F(ubus_subscriptions, removal_that_is_read_while_unsubscribing_meets_the_loss_begins_nothing)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(wait_for(client.ctx->sock.fd, POLLIN));
	{
		fatal_request next{*bus, client};
		EXPECT_EQ(s->unsubscribe(), 0);
	}
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.reset();
	run_passes(3);
}

TEST_F(ubus_subscriptions, subscribing_again_inside_the_loss_gives_eagain)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	client.on_lost = [&] { EXPECT_EQ(s.subscribe(), -EAGAIN); };
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

} // namespace
