// Retry requests, subscriptions and other calls, thousands of them too, when the bus goes away and comes back.
#include "lib/ubus.h"

#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

// ---- Many at once ----

constexpr size_t crowd_size = 1000;

using crowd_of_requests = std::vector<std::unique_ptr<retry>>;

crowd_of_requests make_crowd(ubus_context **place)
{
	crowd_of_requests crowd;
	for (size_t i = 0; i < crowd_size; ++i)
		crowd.push_back(std::make_unique<retry>(place, ("m" + std::to_string(i)).c_str()));
	return crowd;
}

void invoke_all(const crowd_of_requests &crowd)
{
	for (const auto &request : crowd)
		ASSERT_EQ(request->invoke(), 0);
}

size_t count_in_state(const crowd_of_requests &crowd, const std::string &state)
{
	return static_cast<size_t>(std::count_if(
		crowd.begin(), crowd.end(), [&](const auto &request) { return request->state() == state; }));
}

// However slow the machine, no silence is long enough for another call.
void postpone_silence(const crowd_of_requests &crowd)
{
	constexpr int64_t hour_us = 3'600'000'000;
	for (const auto &request : crowd) {
		evloop_timeout *timer = &request->reply_timer;
		if (!timer->pending || timer->expires > time_now() + hour_us / 2)
			continue;
		evloop_timeout_cancel(timer);
		timer->expires += hour_us;
		evloop_timeout_add(timer);
	}
}

// Takes the server's reports of its calls meanwhile: it waits while nobody reads them.
bool run_until_all_at_rest(const crowd_of_requests &crowd, object_server &server)
{
	return run_until([&] {
		postpone_silence(crowd);
		return server.calls(), count_in_state(crowd, "at rest") == crowd.size();
	});
}

bool run_until_all_called(const crowd_of_requests &crowd, object_server &server, size_t count)
{
	return run_until([&] {
		postpone_silence(crowd);
		return server.calls().size() >= count;
	});
}

// The calls from `first` on are one for each request.
void expect_one_call_each(const std::vector<object_server::call> &calls, size_t first)
{
	std::set<std::string> methods;
	for (size_t i = first; i < calls.size(); ++i)
		methods.insert(calls[i].method);
	EXPECT_EQ(calls.size() - first, crowd_size);
	EXPECT_EQ(methods.size(), crowd_size);
}

TEST_F(ubus_retry, thousand_requests_in_flight_at_once_are_all_answered)
{
	auto server = serve_and_hold();
	auto crowd = make_crowd(&client.ctx);
	invoke_all(crowd);
	EXPECT_EQ(client.linked_requests(), static_cast<int>(crowd_size));
	ASSERT_TRUE(run_until_all_called(crowd, *server, crowd_size));
	expect_one_call_each(server->calls(), 0);
	EXPECT_EQ(server->release(0), static_cast<int64_t>(crowd_size));
	EXPECT_TRUE(run_until_all_at_rest(crowd, *server));
	EXPECT_EQ(server->calls().size(), crowd_size);
}

TEST_F(ubus_retry, thousand_errors_at_once_are_sent_again_in_a_bounded_stack)
{
	auto server = serve_and_hold();
	auto crowd = make_crowd(&client.ctx);
	invoke_all(crowd);
	ASSERT_TRUE(run_until_all_called(crowd, *server, crowd_size));

	uintptr_t deepest = UINTPTR_MAX;
	prepare = [&](blob_buf *) {
		deepest = std::min(deepest, reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
		return 0;
	};
	client.stop_watching();
	EXPECT_EQ(server->release(UBUS_STATUS_UNKNOWN_ERROR), static_cast<int64_t>(crowd_size));
	fence(*server);
	client.watch_again();
	ASSERT_TRUE(run_until_all_called(crowd, *server, 2 * crowd_size));
	expect_one_call_each(server->calls(), crowd_size);
	EXPECT_EQ(count_in_state(crowd, "in flight"), crowd_size);
	// A thousand nested attempts would take a megabyte; two take a few kilobytes.
	EXPECT_LT(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) - deepest, 64u * 1024);

	EXPECT_EQ(server->release(0), static_cast<int64_t>(crowd_size));
	EXPECT_TRUE(run_until_all_at_rest(crowd, *server));
}

// ---- The bus goes away, and comes back ----

TEST_F(ubus_retry, lost_connection_is_an_error_and_the_attempt_it_causes_fails)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	int64_t before = time_now();
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry, request_in_flight_is_delivered_after_a_reconnect)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), missing);
	restart_bus(*server);
	server->answer(0);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, request_in_flight_when_the_daemon_reconnects_unasked_is_sent_again_after_its_silence)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	EXPECT_EQ(client.linked_requests(), 1);
	let_pass(&request.reply_timer);
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, request_invoked_on_every_new_connection_is_delivered_once_on_each)
{
	auto server = serve();
	retry request{&client.ctx};
	for (size_t round = 1; round <= 3; ++round) {
		EXPECT_EQ(request.invoke(), 0);
		EXPECT_TRUE(run_until_at_rest(request));
		serve_all(*server);
		EXPECT_EQ(server->calls().size(), round);
		bus->kill();
		ASSERT_TRUE(run_until_lost());
		restart_bus(*server);
	}
}

TEST_F(ubus_retry, connection_that_breaks_inside_a_lookup_is_a_missing_object)
{
	auto server = serve_and_hold();
	retry request{&client.ctx}, in_flight{&client.ctx, "other"};
	EXPECT_EQ(in_flight.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), -EBUSY);
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(take_log(), missing);

	// The other one failed inside that look-up; on the next pass it meets the loss itself.
	expect_due_in(in_flight.retry_timer, 0, before, time_now());
	evloop_handle_timeouts();
	EXPECT_EQ(in_flight.state(), "waiting");
	EXPECT_EQ(take_log(), "ubus_retry_req owner.other: can't lookup object\n");
}

TEST_F(ubus_retry, record_may_be_released_when_the_connection_breaks_inside_its_lookup)
{
	auto server = serve();
	auto request = std::make_unique<retry>(&client.ctx);
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	client.on_lost = [&] { request.reset(); };
	EXPECT_EQ(request->invoke(), -ECANCELED);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

// ---- A daemon that is put together as lib/ubus.h shows ----

std::string bus_path;

ubus_context *ctx;
evloop_io bus_io;
stable_connection bus_connection;

void on_bus(evloop_io *, unsigned int)
{
	do
		ubus_handle_event(ctx);
	while (!ctx->sock.eof && !list_empty(&ctx->pending));
}

void on_bus_lost(ubus_context *)
{
	bus_io.cb = nullptr;
	if (bus_io.registered)
		evloop_io_delete(&bus_io);
	stable_connection_lost(&bus_connection);
}

int bus_connect()
{
	const char *path = bus_path.c_str();
	if (!ctx)
		ctx = ubus_connect(path);
	else if (ubus_reconnect(ctx, path))
		ctx->sock.fd = -1;
	if (!ctx || ctx->sock.fd < 0 || ctx->sock.eof)
		return -1;
	ctx->connection_lost = on_bus_lost;
	bus_io.cb = on_bus, bus_io.fd = ctx->sock.fd;
	return evloop_io_add(&bus_io, EVLOOP_READ);
}

std::function<void()> after_connect;

class ubus_reconnect : public ubus_retry
{
protected:
	void SetUp() override
	{
		ubus_retry::SetUp();
		client.free(); // here the daemon's own context takes its place
		bus_path = bus->path();
		after_connect = nullptr;
		bus_connection = {};
		bus_connection.connect = bus_connect;
		bus_connection.on_connected = [] { return after_connect ? after_connect() : void(), 0; };
		init_stable_connection(&bus_connection, 1000);
	}
	void TearDown() override
	{
		leave_bus();
		ubus_retry::TearDown();
	}

	static void leave_bus()
	{
		evloop_timeout_cancel(&bus_connection.timer);
		if (bus_io.registered)
			evloop_io_delete(&bus_io);
		if (ctx)
			ubus_free(std::exchange(ctx, nullptr));
	}
	void lose_bus()
	{
		bus->kill();
		EXPECT_TRUE(run_until([] { return !bus_connection.connected; }));
	}
	void bring_bus_back(object_server &server)
	{
		bus->start();
		server.reconnect();
		let_pass(&bus_connection.timer);
		EXPECT_TRUE(bus_connection.connected);
	}
};

#ifdef __SANITIZE_ADDRESS__
constexpr bool keeps_released_memory = true;
#else
constexpr bool keeps_released_memory = false;
#endif

long resident_kib()
{
	std::string text = read_file("/proc/self/status");
	size_t at = text.find("VmRSS:");
	return at == std::string::npos ? -1 : atol(text.c_str() + at + strlen("VmRSS:"));
}

TEST_F(ubus_reconnect, bus_that_starts_later_is_joined)
{
	bus->kill();
	EXPECT_EQ(start_stable_connection(&bus_connection), -EAGAIN);
	retry request{&ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(request.state(), "waiting");
	postpone(&request.retry_timer);

	bus->start();
	auto server = serve();
	let_pass(&bus_connection.timer);
	ASSERT_TRUE(bus_connection.connected);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_reconnect, connection_is_tried_again_until_the_bus_is_back)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	lose_bus();
	for (int count = 0; count < 3; ++count) {
		let_pass(&bus_connection.timer);
		EXPECT_FALSE(bus_connection.connected);
	}
	bus->start();
	auto server = serve();
	let_pass(&bus_connection.timer);
	ASSERT_TRUE(bus_connection.connected);
	retry request{&ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
}

TEST_F(ubus_reconnect, failed_reconnects_leave_waiting_requests_waiting)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	retry request{&ctx};
	ASSERT_TRUE(invoke_reaches(request, *server));
	lose_bus();
	EXPECT_EQ(take_log(), missing);
	let_pass(&bus_connection.timer); // in vain
	for (int count = 0; count < 2; ++count) {
		let_pass(&request.retry_timer);
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_EQ(take_log(), missing);
	}
	postpone(&request.retry_timer);
	server->answer(0);
	bring_bus_back(*server);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_reconnect, thousand_requests_in_flight_survive_the_death_of_the_bus)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	auto crowd = make_crowd(&ctx);
	invoke_all(crowd);
	ASSERT_TRUE(run_until_all_called(crowd, *server, crowd_size));

	lose_bus();
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size);
	std::string log = take_log();
	EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), static_cast<int64_t>(crowd_size));
	for (auto &request : crowd)
		EXPECT_NE(log.find("ubus_retry_req owner." + std::string(request->method) +
				   ": can't lookup object\n"),
			std::string::npos);
	for (auto &request : crowd)
		postpone(&request->retry_timer);

	server->answer(0);
	bring_bus_back(*server);
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size);
	for (auto &request : crowd)
		make_due(&request->retry_timer);
	EXPECT_TRUE(run_until_all_at_rest(crowd, *server));
	expect_one_call_each(server->calls(), crowd_size);
}

TEST_F(ubus_reconnect, thousand_requests_in_flight_survive_the_end_of_their_context)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	auto crowd = make_crowd(&ctx);
	invoke_all(crowd);
	ASSERT_TRUE(run_until_all_called(crowd, *server, crowd_size));

	leave_bus();
	server->answer(0);
	for (size_t i = 0; i < crowd_size; i += 2)
		make_due(&crowd[i]->reply_timer);
	evloop_handle_timeouts();
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size / 2);

	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	for (size_t i = 0; i < crowd_size; ++i)
		make_due(i % 2 == 0 ? &crowd[i]->retry_timer : &crowd[i]->reply_timer);
	evloop_handle_timeouts(); // before any silence is postponed
	EXPECT_TRUE(run_until_all_at_rest(crowd, *server));
	expect_one_call_each(server->calls(), crowd_size);
}

// A daemon with a subscription, a request that it repeats on every connection, and calls in between.
struct small_daemon {
	retry announcement{&ctx, "announce"};
	ubus_subscription subscription{};
	int connections = 0;
	static inline int subscriptions, notifications;

	small_daemon()
	{
		subscriptions = notifications = 0;
		strcpy(subscription.path, object_path);
		subscription.subscribed_cb = [](ubus_subscription *) { return ++subscriptions; };
		after_connect = [this] { connected(); };
	}
	small_daemon(const small_daemon &) = delete;
	small_daemon &operator=(const small_daemon &) = delete;
	~small_daemon()
	{
		after_connect = nullptr;
		mox_ubus_unsubscribe(&subscription);
	}
	void connected()
	{
		++connections;
		subscription.ctx = ctx;
		mox_ubus_subscribe(&subscription,
			[](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
				++notifications;
				return 0;
			});
		ubus_retry_request_invoke(&announcement);
	}
	// A call that nobody waits for; false if it could not be sent.
	static bool call(const char *method)
	{
		uint32_t id = 0;
		json_message message{"{}"};
		return ubus_lookup_id(ctx, object_path, &id) == 0 &&
		       ubus_req_async_to(ctx, id, method, message.buf(), 5000) == 0;
	}
};

size_t count_calls(object_server &server, const std::string &method)
{
	const auto &calls = server.calls();
	return static_cast<size_t>(std::count_if(
		calls.begin(), calls.end(), [&](const auto &call) { return call.method == method; }));
}

TEST_F(ubus_reconnect, everything_a_daemon_asked_for_works_again_after_each_restart)
{
	auto server = serve();
	small_daemon daemon;
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	for (int round = 1; round <= 4; ++round) {
		EXPECT_EQ(daemon.connections, round);
		EXPECT_TRUE(run_until_at_rest(daemon.announcement));
		EXPECT_EQ(count_calls(*server, "announce"), static_cast<size_t>(round));
		EXPECT_EQ(small_daemon::subscriptions, round);
		server->notify(object_path, "tick");
		EXPECT_TRUE(run_until([&] { return small_daemon::notifications >= round; }));
		EXPECT_EQ(small_daemon::notifications, round);
		EXPECT_TRUE(small_daemon::call("answered"));
		EXPECT_TRUE(run_until([] { return list_empty(&ctx->requests); }));
		EXPECT_EQ(count_calls(*server, "answered"), static_cast<size_t>(round));

		server->hold();
		EXPECT_TRUE(small_daemon::call("unanswered"));
		EXPECT_TRUE(run_until(
			[&] { return count_calls(*server, "unanswered") == static_cast<size_t>(round); }));
		lose_bus();
		EXPECT_EQ(take_log(), "ubus-ureq-async: error: 7\n");
		server->answer(0);
		bring_bus_back(*server);
	}
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
}

TEST_F(ubus_reconnect, owner_that_restarts_between_two_restarts_of_the_bus_is_found_again)
{
	auto server = serve();
	small_daemon daemon;
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
	server->kill();
	EXPECT_TRUE(run_until([&] { return daemon.subscription.retry.pending != 0; }));
	server = serve();
	let_pass(&daemon.subscription.retry);
	EXPECT_EQ(small_daemon::subscriptions, 2);

	lose_bus();
	bring_bus_back(*server);
	EXPECT_EQ(small_daemon::subscriptions, 3);
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
	EXPECT_EQ(count_calls(*server, "announce"), 1u);
	server->notify(object_path, "tick");
	EXPECT_TRUE(run_until([] { return small_daemon::notifications > 0; }));
	EXPECT_EQ(small_daemon::notifications, 1);
}

TEST_F(ubus_reconnect, thousands_of_calls_over_many_restarts_take_no_memory_and_no_descriptors)
{
	constexpr int rounds = 8, turns = 40, requests = 10;
	constexpr long growth_kib_max = 4096; // all messages together are seven times as big
	prepare = [](blob_buf *buf) { return put_json(buf, "[\"" + std::string(8000, 'x') + "\"]"); };
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	crowd_of_requests crowd;
	for (int count = 0; count < requests; ++count)
		crowd.push_back(std::make_unique<retry>(&ctx));
	size_t crowd_count = crowd.size();

	long settled_kib = 0;
	size_t settled_descriptors = 0;
	for (int round = 0; round < rounds; ++round) {
		auto server = serve();
		for (int turn = 0; turn < turns; ++turn) {
			bool errors_first = turn % 4 == 0;
			if (errors_first)
				server->hold();
			size_t calls_before = server->calls().size();
			invoke_all(crowd);
			ASSERT_TRUE(small_daemon::call("async"));
			if (errors_first) {
				ASSERT_TRUE(
					run_until_all_called(crowd, *server, calls_before + crowd_count + 1));
				server->release(UBUS_STATUS_UNKNOWN_ERROR);
				server->answer(0);
				server->release(0);
				ASSERT_TRUE(logs("ubus-ureq-async: error: 9\n"));
			}
			ASSERT_TRUE(run_until_all_at_rest(crowd, *server));
			ASSERT_TRUE(run_until([] { return list_empty(&ctx->requests); }));
		}
		server->hold();
		invoke_all(crowd);
		lose_bus();
		EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_count);
		take_log();
		for (auto &request : crowd)
			postpone(&request->retry_timer);
		bring_bus_back(*server);
		server->answer(0);
		for (auto &request : crowd)
			make_due(&request->retry_timer);
		ASSERT_TRUE(run_until_all_at_rest(crowd, *server));
		server.reset();
		ASSERT_TRUE(wait_until_gone(object_path));
		if (round == 2) {
			settled_kib = resident_kib();
			settled_descriptors = open_descriptors().size();
		}
	}
	EXPECT_EQ(open_descriptors().size(), settled_descriptors);
	if (!keeps_released_memory) {
		EXPECT_LT(resident_kib() - settled_kib, growth_kib_max);
	}
}

} // namespace
