// Subscriptions: made, ended, and kept over the loss of the object, the connection and the context.
#include "lib/ubus.h"

#include <gmock/gmock.h>

#include "tests/ubus/subscription.h"

using namespace ubus_support;
using testing::ElementsAre;

namespace
{

// ---- Subscriptions ----

TEST(ubus_subscription_record, attempts_are_500_ms_apart)
{
	EXPECT_EQ(UBUS_SUBSCRIBE_RETRY_MS, 500);
}

TEST_F(ubus_subscriptions, subscribing_to_an_object_that_is_there_returns_0)
{
	server->add("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_TRUE(eventually([this] { return server->has_subscribers("target"); }));
}

TEST_F(ubus_subscriptions, notification_reaches_the_handler_with_its_record_type_and_message)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->notify("target", "led", R"({"on":true})");
	ASSERT_TRUE(run_until([&] { return !s.seen.empty(); }));
	EXPECT_THAT(s.seen, ElementsAre(R"(led {"on":true})"));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribed_cb_may_be_null)
{
	server->add("target");
	subscription s{client.ctx};
	s.subscribed_cb = nullptr;
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, path_of_31_bytes_is_subscribed_to)
{
	std::string path(31, 'p');
	server->add(path);
	subscription s{client.ctx, path};
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s, path), 1);
}

TEST_F(ubus_subscriptions, absent_object_gives_the_status_and_arms_the_retry)
{
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_TRUE(is_armed(s));
}

TEST_F(ubus_subscriptions, attempts_go_on_while_the_object_is_absent)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	for (int attempt = 0; attempt < 3; ++attempt) {
		s.make_attempt();
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_FALSE(s.retry.pending);
}

TEST_F(ubus_subscriptions, object_that_appears_late_is_subscribed_to_by_itself)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	ASSERT_TRUE(run_until([&] { return s.subscribed > 0; }));
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, object_that_the_bus_does_not_name_is_as_good_as_absent)
{
	server->add_without_type("target");
	subscription s{client.ctx};
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_TRUE(is_armed(s));
	server->remove("target");
	server->add("target");
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions, refusal_by_the_bus_gives_the_status_and_arms_the_retry)
{
	ubus_method method{"own", nullptr, 0, 0, nullptr, 0};
	method.handler = [](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
		return 0;
	};
	ubus_object_type type{"own", 0, &method, 1};
	ubus_object own{};
	own.name = "target";
	own.type = &type;
	own.methods = &method;
	own.n_methods = 1;
	ASSERT_EQ(ubus_add_object(client.ctx, &own), 0);
	{
		subscription s{client.ctx}; // to an object of the same client
		EXPECT_EQ(s.subscribe(), UBUS_STATUS_INVALID_ARGUMENT);
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	EXPECT_EQ(ubus_remove_object(client.ctx, &own), 0);
}

TEST_F(ubus_subscriptions, removal_of_the_object_arms_the_retry)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_TRUE(is_armed(s));
	EXPECT_EQ(s.subscribed, 1);
}

TEST_F(ubus_subscriptions, object_that_comes_back_is_subscribed_to_again)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	for (int round = 2; round < 5; ++round) {
		server->remove("target");
		ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
		server->add("target");
		s.make_attempt();
		EXPECT_EQ(s.subscribed, round);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
}

TEST_F(ubus_subscriptions, owner_that_restarts_is_subscribed_to_again)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->kill();
	server.emplace(bus->path());
	ASSERT_TRUE(wait_until_gone("target"));
	server->add("target");
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, two_subscriptions_to_one_object_each_get_every_notification_once)
{
	server->add("target");
	subscription first{client.ctx}, second{client.ctx};
	ASSERT_EQ(first.subscribe(), 0);
	ASSERT_EQ(second.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(first), 1);
	EXPECT_EQ(copies_of_a_notification(second), 1);
	EXPECT_EQ(first.unsubscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(second), 1);
}

TEST_F(ubus_subscriptions, subscribing_from_a_method_handler_works)
{
	server->add("target");
	subscription s{client.ctx};
	probe call{*bus, client};
	call.on_call = [&] { EXPECT_EQ(s.subscribe(), 0); };
	call.send_call();
	ASSERT_TRUE(run_until([&] { return call.calls == 1; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- Unsubscribing ----

TEST_F(ubus_subscriptions, unsubscribing_ends_the_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_TRUE(eventually([this] { return server->has_subscribers("target"); }));
	EXPECT_EQ(s.unsubscribe(), 0);
	ASSERT_TRUE(eventually([this] { return !server->has_subscribers("target"); }));
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	server->notify("target", "tick");
	server->remove("target");
	settle();
	EXPECT_THAT(s.seen, ElementsAre());
	EXPECT_FALSE(s.retry.pending);
}

TEST_F(ubus_subscriptions, unsubscribing_while_a_retry_is_armed_cancels_it)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	server->add("target");
	settle();
	EXPECT_EQ(s.subscribed, 0);
	EXPECT_THAT(server->subscribers("target"), ElementsAre());
}

TEST_F(ubus_subscriptions, unsubscribing_after_the_object_has_gone_cancels_the_retry)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target");
	ASSERT_TRUE(run_until([&] { return s.retry.pending; }));
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, removal_reported_while_unsubscribing_begins_nothing)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target"); // the news waits in the socket
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	settle();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, unsubscribing_twice_is_harmless)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, unsubscribing_what_was_never_subscribed_is_harmless)
{
	subscription s{client.ctx};
	EXPECT_EQ(s.unsubscribe(), 0);
	settle();
}

TEST_F(ubus_subscriptions, subscribing_again_after_unsubscribing_works)
{
	server->add("target");
	subscription s{client.ctx};
	for (int round = 1; round < 4; ++round) {
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(s.subscribed, round);
		EXPECT_EQ(copies_of_a_notification(s), 1);
		EXPECT_EQ(s.unsubscribe(), 0);
	}
}

TEST_F(ubus_subscriptions, record_may_be_released_after_unsubscribing)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	server->notify("target", "tick"); // waits in the socket
	EXPECT_EQ(s->unsubscribe(), 0);
	s.reset();
	server->notify("target", "tock");
	server->remove("target");
	settle();
}

TEST_F(ubus_subscriptions, unsubscribing_inside_subscribed_cb_ends_it)
{
	server->add("target");
	subscription s{client.ctx};
	s.on_subscribed = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(s.subscriber.obj.id, 0U);
	server->remove("target");
	settle();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, record_may_be_released_inside_subscribed_cb)
{
	server->add("target");
	auto *s = new subscription{client.ctx};
	s->on_subscribed = [&] {
		s->unsubscribe();
		delete std::exchange(s, nullptr);
	};
	EXPECT_EQ(s->subscribe(), 0);
	EXPECT_EQ(s, nullptr);
	settle();
}

TEST_F(ubus_subscriptions, record_may_be_released_inside_the_subscribed_cb_of_a_later_attempt)
{
	auto *s = new subscription{client.ctx};
	s->on_subscribed = [&] {
		s->unsubscribe();
		delete std::exchange(s, nullptr);
	};
	ASSERT_EQ(s->subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	EXPECT_TRUE(run_until([&] { return !s; }));
	settle();
}

TEST_F(ubus_subscriptions, unsubscribing_inside_the_notification_handler_ends_it)
{
	server->add("target");
	subscription s{client.ctx};
	s.on_notified = [&] { EXPECT_EQ(s.unsubscribe(), 0); };
	ASSERT_EQ(s.subscribe(), 0);
	server->notify("target", "first");
	server->notify("target", "second");
	ASSERT_TRUE(run_until([&] { return !s.seen.empty(); }));
	settle();
	EXPECT_THAT(s.seen, ElementsAre("first {}"));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_subscriptions, subscribing_again_inside_the_notification_handler_works)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	s.on_notified = [&] {
		s.on_notified = nullptr;
		EXPECT_EQ(s.subscribe(), 0);
	};
	server->notify("target", "again");
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- Without a context, and without a registration ----

TEST_F(ubus_subscriptions, without_a_context_subscribing_gives_eagain)
{
	subscription s{nullptr};
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(s.unsubscribe(), 0);
}

TEST_F(ubus_subscriptions, retry_without_a_context_does_nothing)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	s.ctx = nullptr;
	s.make_attempt();
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.ctx = client.ctx;
}

TEST_F(ubus_subscriptions, unsubscribing_without_a_context_cancels_the_retry)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	s.ctx = nullptr;
	EXPECT_EQ(mox_ubus_unsubscribe(&s), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	s.ctx = client.ctx;
}

TEST_F(ubus_subscriptions, failing_registration_gives_eagain_and_nothing_is_due)
{
	server->add("target");
	subscription s{client.ctx};
	bus->kill();
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.subscribed, 0);
}

TEST_F(ubus_subscriptions, failing_registration_is_made_good_by_the_next_call)
{
	server->add("target");
	subscription s{client.ctx};
	bus->kill();
	EXPECT_EQ(s.subscribe(), -EAGAIN);
	ASSERT_TRUE(run_until_lost());
	bus->start();
	server->reconnect();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

// ---- The loss of the connection ----

TEST_F(ubus_subscriptions, loss_of_the_connection_alone_starts_nothing)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.unsubscribe(), 0);
}

TEST_F(ubus_subscriptions, one_call_after_a_reconnection_brings_notifications_back_once)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	for (int round = 0; round < 3; ++round) {
		restart_bus();
		reconnect_client();
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
	EXPECT_EQ(s.subscribed, 4);
}

TEST_F(ubus_subscriptions, one_call_after_a_reconnection_may_come_before_the_object)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	bus->start();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->reconnect();
	ASSERT_TRUE(run_until([&] { return s.subscribed == 2; }));
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, retry_armed_before_the_loss_and_a_call_after_it_make_one_subscription)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	reconnect_client();
	EXPECT_EQ(s.subscribe(), 0);
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, attempts_on_a_lost_connection_go_on_until_it_is_back)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	for (int attempt = 0; attempt < 3; ++attempt) {
		s.make_attempt();
		EXPECT_EQ(s.subscribed, 0);
		EXPECT_TRUE(is_armed(s));
	}
	reconnect_client();
	s.make_attempt();
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, retry_after_a_reconnection_and_a_call_behind_it_make_one_subscription)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	restart_bus();
	reconnect_client();
	s.make_attempt();
	ASSERT_EQ(s.subscribed, 1);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_takes_the_subscription_over_after_an_unsubscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.unsubscribe(), 0);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	s.ctx = client.ctx;
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_takes_the_subscription_over_from_a_freed_one)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	s.ctx = client.ctx;
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, new_context_at_the_same_address_takes_the_subscription_over)
{
	context_address_kept same_address;
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	ubus_context *before = client.ctx;
	server->add("target");
	{
		subscription s{client.ctx};
		ASSERT_EQ(s.subscribe(), 0);
		client.free();
		ASSERT_TRUE(client.connect(bus->path()));
		ASSERT_EQ(client.ctx, before);
		ASSERT_EQ(s.subscribe(), 0);
		EXPECT_EQ(copies_of_a_notification(s), 1);
	}
	client.free();
}

TEST_F(ubus_subscriptions, record_unsubscribed_while_the_bus_is_dead_may_be_released_before_a_reconnection)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(s->unsubscribe(), 0);
	EXPECT_EQ(s->subscriber.obj.id, 0U);
	s.reset();
	bus->start();
	server->reconnect();
	reconnect_client();
	subscription other{client.ctx};
	ASSERT_EQ(other.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(other), 1);
}

TEST_F(ubus_subscriptions, record_unsubscribed_before_the_loss_is_noticed_may_be_released)
{
	server->add("target");
	auto s = std::make_unique<subscription>(client.ctx);
	ASSERT_EQ(s->subscribe(), 0);
	bus->kill();
	EXPECT_EQ(s->unsubscribe(), 0);
	s.reset();
	EXPECT_TRUE(run_until([this] { return client.losses > 0 || client.ctx->sock.eof; }));
	bus->start();
	reconnect_client();
}

TEST_F(ubus_subscriptions, subscribing_twice_without_a_loss_makes_one_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_EQ(s.subscribe(), 0);
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(s.subscribed, 3);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_while_a_retry_is_armed_makes_one_attempt)
{
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), UBUS_STATUS_NOT_FOUND);
	server->add("target");
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_EQ(s.subscribed, 1);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_behind_an_unread_removal_makes_one_subscription)
{
	server->add("target");
	subscription s{client.ctx};
	ASSERT_EQ(s.subscribe(), 0);
	server->remove("target"); // the news waits in the socket
	server->add("target");
	ASSERT_EQ(s.subscribe(), 0);
	settle();
	EXPECT_FALSE(s.retry.pending);
	EXPECT_EQ(s.subscribed, 2);
	EXPECT_EQ(copies_of_a_notification(s), 1);
}

TEST_F(ubus_subscriptions, subscribing_again_replaces_the_handler)
{
	server->add("target");
	subscription s{client.ctx};
	static int calls_of_another;
	calls_of_another = 0;
	ASSERT_EQ(mox_ubus_subscribe(&s, [](ubus_context *, ubus_object *, ubus_request_data *, const char *,
						 blob_attr *) { return ++calls_of_another; }),
		0);
	server->notify("target", "tick");
	ASSERT_TRUE(run_until([] { return calls_of_another == 1; }));
	ASSERT_EQ(s.subscribe(), 0);
	EXPECT_EQ(copies_of_a_notification(s), 1);
	EXPECT_EQ(calls_of_another, 1);
}

} // namespace
