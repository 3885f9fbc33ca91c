// libubus: connecting, and connecting again.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"

using testing::ElementsAre;
using testing::IsEmpty;

// ---- Connecting ----

TEST_F(bus_client, connected_context_is_ready_for_a_foreign_loop)
{
	connect();
	EXPECT_TRUE(is_nonblocking(ctx_->sock.fd));
	EXPECT_TRUE(is_closed_on_exec(ctx_->sock.fd));
	EXPECT_FALSE(ctx_->sock.registered);
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(ctx_->request_seq, 0);
	EXPECT_EQ(be32_to_cpu(ctx_->local_id), client_id);
	EXPECT_FALSE(ubus_context_is_channel(ctx_));
	EXPECT_TRUE(list_empty(&ctx_->requests));
	EXPECT_TRUE(silence());
}

TEST_F(bus_client, default_connection_lost_does_nothing_on_a_foreign_loop)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	close_peer();
	serve();
	EXPECT_TRUE(ctx_->sock.eof);
}

TEST_F(bus_client, default_connection_lost_ends_the_own_loop)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	ubus_add_uloop(ctx_);
	EXPECT_TRUE(ctx_->sock.registered);
	call request;
	request.start(ctx_);
	say(status_frame(1, demo_id, 4));
	shutdown(peer_.get(), SHUT_WR);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_THAT(take_events(), ElementsAre("call: 4"));
}

TEST_F(bus_client, connection_closed_in_both_directions_leaves_the_own_loop_which_goes_on)
{
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); });
	ASSERT_NE(ctx_, nullptr);
	ubus_add_uloop(ctx_);
	call request;
	request.start(ctx_);
	hear();
	close_peer();
	static ubus_context *ctx;
	ctx = ctx_;
	uloop_timeout timer{};
	timer.cb = [](uloop_timeout *self) {
		if (ctx->sock.registered)
			uloop_timeout_set(self, 1);
		else
			uloop_end();
	};
	uloop_timeout_set(&timer, 1);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_TRUE(ctx_->sock.eof && ctx_->sock.error);
	EXPECT_THAT(take_events(), ElementsAre("call: 7"));
}

TEST_F(bus_client, connecting_fails_without_a_daemon)
{
	EXPECT_EQ(ubus_connect((path() + ".none").c_str()), nullptr);
	EXPECT_EQ(ubus_connect(("/" + std::string(107, 'x')).c_str()), nullptr);
}

TEST_F(bus_client, connecting_fails_on_a_wrong_hello)
{
	const std::string wrong[] = {
		wire::frame(wire::status, 0, client_id),
		wire::frame(wire::hello, 0, 0),
		hex("01000000 fc8b6722 00000004"),
		hex("00000000 fc8b6722 00000003"),
		hex("00000000 fc8b6722 00100004"),
		hex("00000000 fc8b6722 00ffffff"),
	};
	for (const std::string &greeting : wrong) {
		serve_connect([this] { ctx_ = ubus_connect(path().c_str()); }, greeting);
		EXPECT_EQ(ctx_, nullptr) << wire::to_hex(greeting);
		disconnect();
	}
}

TEST_F(bus_client, connecting_fails_when_the_hello_is_cut_at_any_byte)
{
	std::string greeting = wire::frame(wire::hello, 0, client_id, wire::number(1, 2));
	for (size_t length = 0; length < greeting.size(); ++length) {
		serve_connect(
			[this] { ctx_ = ubus_connect(path().c_str()); }, greeting.substr(0, length), true);
		EXPECT_EQ(ctx_, nullptr) << length;
		disconnect();
	}
}

TEST_F(bus_client, hello_may_have_attributes)
{
	std::string greeting = wire::frame(wire::hello, 0, client_id, wire::text(1, std::string(300, 'x')));
	serve_connect([this] { ctx_ = ubus_connect(path().c_str()); }, greeting + status_frame(1, 0, 4));
	ASSERT_NE(ctx_, nullptr);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 4);
}

TEST_F(bus_client, hello_that_comes_in_pieces_makes_connecting_fail)
{
	for (size_t first_bytes : {1, 11, 13}) {
		std::string greeting = wire::frame(wire::hello, 0, client_id, wire::number(1, 2));
		serve_connect(
			[this] { ctx_ = ubus_connect(path().c_str()); }, greeting.substr(0, first_bytes));
		EXPECT_EQ(ctx_, nullptr) << first_bytes;
		disconnect();
	}
}

TEST_F(bus_client, signal_during_the_hello_makes_connecting_fail)
{
	expect_in_child([this] {
		struct sigaction action {
		};
		action.sa_handler = [](int) {};
		sigaction(SIGALRM, &action, nullptr);
		itimerval every{{0, 50'000}, {0, 50'000}};
		setitimer(ITIMER_REAL, &every, nullptr);
		EXPECT_EQ(ubus_connect(path().c_str()), nullptr);
		every = {};
		setitimer(ITIMER_REAL, &every, nullptr);
	});
}

TEST_F(bus_client, freeing_calls_nothing_back)
{
	connect();
	call request, aborted("aborted");
	object obj;
	add(&obj, demo_id);
	request.start(ctx_);
	aborted.start(ctx_);
	ubus_abort_request(ctx_, &aborted);
	close_peer();
	disconnect();
	EXPECT_THAT(take_events(), IsEmpty());
}

TEST(ubus_strerror, knows_every_status)
{
	EXPECT_STREQ(ubus_strerror(0), "Success");
	EXPECT_STREQ(ubus_strerror(1), "Invalid command");
	EXPECT_STREQ(ubus_strerror(2), "Invalid argument");
	EXPECT_STREQ(ubus_strerror(3), "Method not found");
	EXPECT_STREQ(ubus_strerror(4), "Not found");
	EXPECT_STREQ(ubus_strerror(5), "No response");
	EXPECT_STREQ(ubus_strerror(6), "Permission denied");
	EXPECT_STREQ(ubus_strerror(7), "Request timed out");
	EXPECT_STREQ(ubus_strerror(8), "Operation not supported");
	EXPECT_STREQ(ubus_strerror(9), "Unknown error");
	EXPECT_STREQ(ubus_strerror(10), "Connection failed");
	EXPECT_STREQ(ubus_strerror(11), "Out of memory");
	EXPECT_STREQ(ubus_strerror(12), "Parsing message data failed");
	EXPECT_STREQ(ubus_strerror(13), "System error");
	EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
	EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
	EXPECT_STREQ(ubus_strerror(INT_MIN), "Unknown error: -2147483648");
}

// ---- Reconnecting ----

TEST_F(bus_client, reconnected_objects_get_new_ids_and_requests_are_left_alone)
{
	connect();
	ubus_object_type type = make_demo_type();
	object demo("demo", &type);
	add(&demo, demo_id);
	type.id = demo_type;
	subscriber sub;
	say(added_frames(2, subscriber_id));
	ASSERT_EQ(ubus_register_subscriber(ctx_, &sub), 0);
	call request;
	request.start(ctx_);

	// The ids' order is that of the objects in the table: the subscriber's comes first.
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		wire::frame(wire::hello, 0, other_client) + added_frames(4, 5000) +
			added_frames(5, 4000, 4001));
	EXPECT_EQ(hear_bytes(), wire::frame(wire::add_object, 4, 0));
	wire::received added = hear();
	EXPECT_EQ(added.text(wire::attr_objpath), "demo");
	EXPECT_TRUE(added.has(wire::attr_signature)) << "the type was forgotten";
	EXPECT_TRUE(silence());
	EXPECT_EQ(sub.obj.id, 5000U);
	EXPECT_EQ(demo.id, 4000U);
	EXPECT_EQ(type.id, 4001U);
	EXPECT_EQ(be32_to_cpu(ctx_->local_id), other_client);
	EXPECT_EQ(ctx_->request_seq, 5);
	EXPECT_EQ(ctx_->requests.next, &request.list);
	EXPECT_TRUE(is_nonblocking(ctx_->sock.fd));
	EXPECT_FALSE(ctx_->sock.eof);

	serve(invoke_frame(1, 4000, "new") + invoke_frame(2, demo_id, "old") + status_frame(3, demo_id, 0));
	serve();
	serve();
	EXPECT_THAT(take_events(), ElementsAre("call new", "call: 0"));
}

TEST_F(bus_client, context_may_be_reconnected_when_the_connection_is_lost)
{
	connect();
	object demo;
	add(&demo, demo_id);
	static std::string socket_path;
	socket_path = path();
	ctx_->connection_lost = [](ubus_context *ctx) {
		EXPECT_TRUE(ctx->sock.eof);
		EXPECT_EQ(ubus_reconnect(ctx, socket_path.c_str()), 0);
		note("reconnected");
	};
	call request;
	request.start(ctx_);
	close_peer();
	serve_connect([this] { ubus_handle_event(ctx_); }, hello + added_frames(3, 4000));
	EXPECT_THAT(take_events(), ElementsAre("call: 7", "reconnected"));
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(demo.id, 4000U);
	hear();
	EXPECT_EQ(sync_call(), 0);
}

TEST_F(bus_client, reconnecting_may_be_tried_again_after_a_failure)
{
	connect();
	object demo;
	add(&demo, demo_id);
	close_peer();
	EXPECT_EQ(ubus_reconnect(ctx_, (path() + ".none").c_str()), 10);
	EXPECT_EQ(ctx_->sock.fd, -1);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 2);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 9); },
		wire::frame(wire::status, 0, 5), true);
	EXPECT_FALSE(is_open(ctx_->sock.fd));
	ctx_->sock.fd = -1;
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 9); }, "", true);
	ctx_->sock.fd = -1;
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(ctx_->request_seq + 1U, 4000));
	EXPECT_EQ(demo.id, 4000U);
}

TEST_F(bus_client, objects_that_a_broken_daemon_does_not_take_have_no_id)
{
	connect();
	object first, second;
	add(&first, 2000);
	add(&second, 3000);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(3, 4000), true);
	EXPECT_EQ(first.id, 4000U);
	EXPECT_EQ(second.id, 0U);
	EXPECT_EQ(ctx_->objects.count, 1U);
	EXPECT_TRUE(ctx_->sock.eof);
}

TEST_F(bus_client, calls_that_arrive_while_reconnecting_are_served_at_its_end)
{
	connect();
	object first, second;
	add(&first, 2000);
	add(&second, 3000);
	serve_connect([this] { EXPECT_EQ(ubus_reconnect(ctx_, path().c_str()), 0); },
		hello + added_frames(3, 4000) + invoke_frame(1, 4000, "early") + added_frames(4, 5000));
	EXPECT_THAT(take_events(), ElementsAre("call early"));
	EXPECT_EQ(second.id, 5000U);
}
