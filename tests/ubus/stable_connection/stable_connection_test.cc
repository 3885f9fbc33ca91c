// The stable connection of lib/sock: what each call does to the record and its timer, directly and from the loop.
// Delays are read from the timer, and made to pass by moving its `expires`.
#include "lib/sock.h"

#include <stdarg.h>
#include <stddef.h>
#include <syslog.h>

#include <memory>
#include <type_traits>

#include "lib/log.h"
#include "lib/time.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"

using namespace support;

namespace
{

constexpr int delay_ms = 1000;

// Fields of different sizes in the order that daemons are compiled against.
static_assert(offsetof(stable_connection, connect) == 0);
static_assert(offsetof(stable_connection, on_connected) == sizeof(void *));
static_assert(offsetof(stable_connection, connected) == 2 * sizeof(void *));
static_assert(offsetof(stable_connection, retry_pending) == 2 * sizeof(void *) + 1);
static_assert(offsetof(stable_connection, retry_delay) ==
	      offsetof(stable_connection, timer) + sizeof(evloop_timeout));
static_assert(std::is_same_v<decltype(stable_connection::retry_delay), int32_t>);
static_assert(std::is_same_v<decltype(stable_connection::connected), uint8_t>);
static_assert(std::is_same_v<decltype(stable_connection::retry_pending), uint8_t>);

// The two functions have no argument, so their state is here. They succeed unless the test sets a function object.
struct service {
	int connects = 0;
	int connections = 0; // calls of on_connected
	std::function<int()> connect;
	std::function<int()> on_connected;
};

service *current;

int connect_current()
{
	++current->connects;
	auto copy = current->connect;
	return copy ? copy() : 0;
}

int on_current_connected()
{
	++current->connections;
	auto copy = current->on_connected;
	return copy ? copy() : 0;
}

class stable_connection_test : public loop_test
{
protected:
	service daemon;
	std::unique_ptr<stable_connection> owned = std::make_unique<stable_connection>();
	stable_connection *c = owned.get();

	void SetUp() override
	{
		log_open(LOG_DEST_SYSLOG, LOG_USER, "test");
		messages.clear();
		current = &daemon;
		init_stable_connection(c, delay_ms);
		c->connect = connect_current;
		c->on_connected = on_current_connected;
		loop_test::SetUp();
	}
	void TearDown() override
	{
		if (owned)
			evloop_timeout_cancel(&c->timer);
		loop_test::TearDown();
		EXPECT_EQ(messages, std::vector<logged>()) << "first: " << messages[0].text;
		current = nullptr;
	}

	// The next `count` calls of `connect` fail.
	void fail_connects(int count)
	{
		int last = daemon.connects + count;
		daemon.connect = [this, last] { return daemon.connects <= last ? -1 : 0; };
	}

	// The timer is armed, and was set for `ms` milliseconds from a moment in [from, to].
	void expect_due_in(int64_t ms, int64_t from_us, int64_t to_us)
	{
		EXPECT_TRUE(c->timer.pending);
		EXPECT_GE(c->timer.expires, from_us + ms * 1000);
		EXPECT_LE(c->timer.expires, to_us + ms * 1000);
	}

	// Lets the delay pass, and the loop notice.
	void let_retry_come()
	{
		ASSERT_TRUE(c->timer.pending);
		make_due();
		evloop_handle_timeouts();
	}

	void make_due()
	{
		evloop_timeout_cancel(&c->timer);
		c->timer.expires = time_now();
		evloop_timeout_add(&c->timer);
	}
};

} // namespace

TEST_F(stable_connection_test, init_stores_the_delay_and_prepares_the_timer_and_does_nothing_else)
{
	stable_connection fresh{};
	init_stable_connection(&fresh, 1234);
	EXPECT_EQ(fresh.retry_delay, 1234);
	EXPECT_NE(fresh.timer.cb, nullptr);
	EXPECT_EQ(fresh.connect, nullptr);
	EXPECT_EQ(fresh.on_connected, nullptr);
	EXPECT_EQ(fresh.connected, 0);
	EXPECT_EQ(fresh.retry_pending, 0);
	EXPECT_FALSE(fresh.timer.pending);
	EXPECT_EQ(daemon.connects, 0);
}

TEST_F(stable_connection_test, init_leaves_functions_that_were_set_before_it)
{
	init_stable_connection(c, 5);
	EXPECT_EQ(c->connect, connect_current);
	EXPECT_EQ(c->on_connected, on_current_connected);
}

TEST_F(stable_connection_test, start_connects_in_the_callers_time)
{
	EXPECT_EQ(start_stable_connection(c), 0);
	EXPECT_EQ(daemon.connects, 1);
	EXPECT_EQ(daemon.connections, 1);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, connected_is_set_before_on_connected_is_called)
{
	int seen = -1;
	daemon.on_connected = [&] { return seen = c->connected, 0; };
	start_stable_connection(c);
	EXPECT_EQ(seen, 1);
}

TEST_F(stable_connection_test, connected_is_not_yet_set_while_connect_runs)
{
	int seen = -1;
	daemon.connect = [&] { return seen = c->connected, 0; };
	start_stable_connection(c);
	EXPECT_EQ(seen, 0);
}

TEST_F(stable_connection_test, start_returns_what_on_connected_returns)
{
	for (int result : {0, 1, -1, -11, INT_MAX, INT_MIN}) {
		daemon.on_connected = [result] { return result; };
		EXPECT_EQ(start_stable_connection(c), result);
	}
}

TEST_F(stable_connection_test, a_failing_on_connected_leaves_the_connection_standing)
{
	daemon.on_connected = [] { return -EIO; };
	EXPECT_EQ(start_stable_connection(c), -EIO);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, start_without_an_on_connected_returns_0)
{
	c->on_connected = nullptr;
	EXPECT_EQ(start_stable_connection(c), 0);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(daemon.connections, 0);
}

TEST_F(stable_connection_test, failed_connect_arms_the_retry_for_the_whole_delay)
{
	fail_connects(1);
	int64_t before = time_now();
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);
	expect_due_in(delay_ms, before, time_now());
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(daemon.connections, 0);
}

TEST_F(stable_connection_test, any_result_of_connect_but_0_is_a_failure)
{
	for (int result : {-1, 1, -EAGAIN, 111, INT_MAX, INT_MIN}) {
		daemon.connect = [result] { return result; };
		EXPECT_EQ(start_stable_connection(c), -EAGAIN);
		EXPECT_EQ(c->connected, 0);
		EXPECT_TRUE(c->timer.pending);
	}
	EXPECT_EQ(daemon.connections, 0);
}

TEST_F(stable_connection_test, failed_connects_are_not_logged)
{
	fail_connects(3);
	start_stable_connection(c);
	let_retry_come();
	let_retry_come();
	EXPECT_EQ(messages, std::vector<logged>());
}

TEST_F(stable_connection_test, retry_does_not_come_before_its_time)
{
	fail_connects(1);
	init_stable_connection(c, 3'600'000);
	start_stable_connection(c);
	run_passes(20);
	EXPECT_EQ(daemon.connects, 1);
	EXPECT_TRUE(c->timer.pending);
}

TEST_F(stable_connection_test, third_attempt_succeeds_two_delays_after_the_first_and_connects_once)
{
	fail_connects(2);
	int64_t before = time_now();
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);
	expect_due_in(delay_ms, before, time_now());

	before = time_now();
	let_retry_come();
	EXPECT_EQ(daemon.connects, 2);
	expect_due_in(delay_ms, before, time_now());
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_EQ(daemon.connections, 0);
	EXPECT_EQ(c->connected, 0);

	let_retry_come();
	EXPECT_EQ(daemon.connects, 3);
	EXPECT_EQ(daemon.connections, 1);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, the_delay_does_not_grow_with_failures)
{
	fail_connects(50);
	start_stable_connection(c);
	for (int count = 0; count < 49; ++count) {
		int64_t before = time_now();
		let_retry_come();
		expect_due_in(delay_ms, before, time_now());
	}
	EXPECT_EQ(daemon.connects, 50);
}

TEST_F(stable_connection_test, the_timers_attempt_clears_retry_pending_before_it_connects)
{
	fail_connects(1);
	start_stable_connection(c);
	int seen = -1;
	daemon.connect = [&] { return seen = c->retry_pending, 0; };
	let_retry_come();
	EXPECT_EQ(seen, 0);
}

TEST_F(stable_connection_test, result_of_on_connected_has_no_effect_when_the_timer_connected)
{
	fail_connects(1);
	start_stable_connection(c);
	daemon.on_connected = [] { return -1; };
	let_retry_come();
	EXPECT_EQ(c->connected, 1);
	EXPECT_FALSE(c->timer.pending);
	EXPECT_EQ(c->retry_pending, 0);
}

TEST_F(stable_connection_test, real_delay_passes_on_the_loop)
{
	fail_connects(2);
	init_stable_connection(c, 20);
	int64_t begin = now_ms();
	start_stable_connection(c);
	EXPECT_TRUE(run_until([this] { return daemon.connections == 1; }));
	EXPECT_GE(now_ms() - begin, 38);
	EXPECT_EQ(daemon.connects, 3);
}

TEST_F(stable_connection_test, delay_of_0_is_one_attempt_a_pass)
{
	fail_connects(1000);
	init_stable_connection(c, 0);
	start_stable_connection(c);
	EXPECT_EQ(daemon.connects, 1);
	evloop_handle_timeouts();
	EXPECT_LE(daemon.connects, 2);
	EXPECT_TRUE(run_until([this] { return daemon.connects == 10; }));
	EXPECT_TRUE(c->timer.pending);
}

TEST_F(stable_connection_test, longest_delay_does_not_wrap)
{
	fail_connects(1);
	init_stable_connection(c, INT32_MAX);
	int64_t before = time_now();
	start_stable_connection(c);
	expect_due_in(INT32_MAX, before, time_now());
}

TEST_F(stable_connection_test, delay_changed_in_the_record_counts_from_the_next_failure)
{
	fail_connects(2);
	start_stable_connection(c);
	c->retry_delay = 77;
	int64_t before = time_now();
	let_retry_come();
	expect_due_in(77, before, time_now());
}

TEST_F(stable_connection_test, start_instead_of_a_retry_that_is_due_cancels_it)
{
	fail_connects(1);
	start_stable_connection(c);
	ASSERT_TRUE(c->timer.pending);
	EXPECT_EQ(start_stable_connection(c), 0);
	EXPECT_FALSE(c->timer.pending);
	run_passes(5);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(daemon.connections, 1);
}

TEST_F(stable_connection_test, the_retry_is_cancelled_before_connect_runs)
{
	fail_connects(1);
	start_stable_connection(c);
	int seen = -1;
	daemon.connect = [&] { return seen = c->timer.pending, 0; };
	start_stable_connection(c);
	EXPECT_EQ(seen, 0);
}

TEST_F(stable_connection_test, start_leaves_retry_pending_set_without_a_timer)
{
	fail_connects(1);
	start_stable_connection(c);
	start_stable_connection(c);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, out_of_date_retry_pending_hinders_no_later_call)
{
	fail_connects(1);
	start_stable_connection(c);
	start_stable_connection(c);
	ASSERT_EQ(c->retry_pending, 1);

	EXPECT_EQ(start_stable_connection(c), 0);
	int64_t before = time_now();
	EXPECT_EQ(stable_connection_lost(c), 0);
	expect_due_in(delay_ms, before, time_now());
	let_retry_come();
	EXPECT_EQ(daemon.connects, 4);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
}

TEST_F(stable_connection_test, failed_start_instead_of_a_retry_that_is_due_restarts_the_delay)
{
	fail_connects(2);
	start_stable_connection(c);
	c->retry_delay = 5000;
	int64_t before = time_now();
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);
	expect_due_in(5000, before, time_now());
	let_retry_come();
	EXPECT_EQ(daemon.connects, 3);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, start_while_connected_connects_once_more)
{
	start_stable_connection(c);
	start_stable_connection(c);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(daemon.connections, 2);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, only_a_report_of_the_loss_clears_connected)
{
	start_stable_connection(c);
	fail_connects(1);
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);
	EXPECT_EQ(c->connected, 1);
	stable_connection_lost(c);
	EXPECT_EQ(c->connected, 0);
}

TEST_F(stable_connection_test, loss_waits_for_the_whole_delay_before_it_connects)
{
	start_stable_connection(c);
	int64_t before = time_now();
	EXPECT_EQ(stable_connection_lost(c), 0);
	expect_due_in(delay_ms, before, time_now());
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_EQ(daemon.connects, 1);

	let_retry_come();
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(daemon.connections, 2);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
}

TEST_F(stable_connection_test, loss_while_a_retry_is_due_restarts_the_delay_with_the_one_timer)
{
	start_stable_connection(c);
	stable_connection_lost(c);
	make_due();
	int64_t before = time_now();
	EXPECT_EQ(stable_connection_lost(c), 0);
	expect_due_in(delay_ms, before, time_now());
	EXPECT_EQ(c->retry_pending, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(daemon.connects, 1);

	let_retry_come();
	run_passes(5);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, loss_before_the_first_start_begins_with_a_delay)
{
	EXPECT_EQ(stable_connection_lost(c), 0);
	EXPECT_EQ(daemon.connects, 0);
	EXPECT_EQ(c->retry_pending, 1);
	let_retry_come();
	EXPECT_EQ(daemon.connects, 1);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, loss_that_is_reported_many_times_is_one_retry)
{
	start_stable_connection(c);
	for (int count = 0; count < 100; ++count)
		EXPECT_EQ(stable_connection_lost(c), 0);
	let_retry_come();
	run_passes(5);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, loss_inside_a_connect_that_fails_is_one_retry)
{
	daemon.connect = [this] { return stable_connection_lost(c), -1; };
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_TRUE(c->timer.pending);
	daemon.connect = nullptr;
	let_retry_come();
	run_passes(5);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, loss_inside_a_connect_that_succeeds_is_followed_by_a_retry)
{
	daemon.connect = [this] { return stable_connection_lost(c), 0; };
	EXPECT_EQ(start_stable_connection(c), 0);
	EXPECT_EQ(daemon.connections, 1);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 1);
	daemon.connect = nullptr;
	let_retry_come();
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(c->retry_pending, 0);
	EXPECT_FALSE(c->timer.pending);
}

TEST_F(stable_connection_test, loss_inside_on_connected_holds)
{
	daemon.on_connected = [this] { return stable_connection_lost(c), 5; };
	int64_t before = time_now();
	EXPECT_EQ(start_stable_connection(c), 5);
	expect_due_in(delay_ms, before, time_now());
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(c->retry_pending, 1);
	daemon.on_connected = nullptr;
	let_retry_come();
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, loss_inside_the_timers_on_connected_holds)
{
	stable_connection_lost(c);
	daemon.on_connected = [this] { return stable_connection_lost(c); };
	let_retry_come();
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_TRUE(c->timer.pending);
}

TEST_F(stable_connection_test, on_connected_may_release_the_record)
{
	daemon.on_connected = [this] { return owned.reset(), 3; };
	EXPECT_EQ(start_stable_connection(c), 3);
	EXPECT_EQ(owned, nullptr);
}

TEST_F(stable_connection_test, the_timers_on_connected_may_release_the_record)
{
	fail_connects(1);
	start_stable_connection(c);
	daemon.on_connected = [this] { return owned.reset(), 0; };
	let_retry_come();
	EXPECT_EQ(owned, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(stable_connection_test, on_connected_may_start_again)
{
	daemon.on_connected = [this] {
		return daemon.connections == 1 ? start_stable_connection(c) + 10 : 1;
	};
	EXPECT_EQ(start_stable_connection(c), 11);
	EXPECT_EQ(daemon.connects, 2);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, daemon_that_gives_up_cancels_the_timer_itself)
{
	fail_connects(1);
	start_stable_connection(c);
	EXPECT_EQ(evloop_timeout_cancel(&c->timer), 0);
	run_passes(5);
	EXPECT_EQ(daemon.connects, 1);
	owned.reset(); // nothing refers to it any more
	run_passes(5);
}

TEST_F(stable_connection_test, daemon_that_gave_up_may_start_again)
{
	fail_connects(1);
	start_stable_connection(c);
	evloop_timeout_cancel(&c->timer);
	EXPECT_EQ(start_stable_connection(c), 0);
	EXPECT_EQ(c->connected, 1);
}

TEST_F(stable_connection_test, start_without_a_connect_is_refused_and_logged)
{
	c->connect = nullptr;
	EXPECT_EQ(start_stable_connection(c), -EINVAL);
	EXPECT_EQ(
		messages, (std::vector<logged>{{3, "stable_connection: start w/ NULL connect cb, abort\n"}}));
	messages.clear();
	EXPECT_FALSE(c->timer.pending);
	EXPECT_EQ(c->retry_pending, 0);
	EXPECT_EQ(c->connected, 0);
	EXPECT_EQ(daemon.connections, 0);
}

TEST_F(stable_connection_test, start_without_a_connect_leaves_a_retry_and_a_connection_as_they_are)
{
	start_stable_connection(c);
	stable_connection_lost(c);
	c->connected = 1;
	int64_t expires = c->timer.expires;
	c->connect = nullptr;
	EXPECT_EQ(start_stable_connection(c), -EINVAL);
	EXPECT_TRUE(c->timer.pending);
	EXPECT_EQ(c->timer.expires, expires);
	EXPECT_EQ(c->retry_pending, 1);
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(messages.size(), 1u);
	messages.clear();
}

TEST_F(stable_connection_test, retry_without_a_connect_is_logged_and_is_the_last)
{
	fail_connects(1);
	start_stable_connection(c);
	c->connect = nullptr;
	let_retry_come();
	EXPECT_EQ(
		messages, (std::vector<logged>{{3, "stable_connection: start w/ NULL connect cb, abort\n"}}));
	messages.clear();
	EXPECT_FALSE(c->timer.pending);
	EXPECT_EQ(c->retry_pending, 0);
}

TEST_F(stable_connection_test, connections_do_not_disturb_each_other)
{
	stable_connection other{};
	init_stable_connection(&other, 9000);
	other.connect = [] { return -1; };
	fail_connects(1);
	start_stable_connection(c);
	int64_t before = time_now();
	EXPECT_EQ(start_stable_connection(&other), -EAGAIN);
	let_retry_come();
	EXPECT_EQ(c->connected, 1);
	EXPECT_EQ(other.connected, 0);
	EXPECT_TRUE(other.timer.pending);
	EXPECT_GE(other.timer.expires, before + 9'000'000);
	evloop_timeout_cancel(&other.timer);
}

TEST_F(stable_connection_test, a_real_socket_is_connected_again_whenever_its_peer_has_gone)
{
	static uint16_t port;
	static sock client;
	client = {};
	client.flags = SOCK_TCP;
	port = free_port();
	daemon.connect = [] { return sock_connect(&client, "127.0.0.1", std::to_string(port).c_str(), 0); };
	EXPECT_EQ(start_stable_connection(c), -EAGAIN);

	loopback_listener listener;
	port = listener.port;
	let_retry_come();
	for (int round = 0; round < 3; ++round) {
		ASSERT_EQ(c->connected, 1);
		owned_fd accepted = listener.accept_one();
		ASSERT_GE(accepted.get(), 0);
		accepted.reset();
		ASSERT_TRUE(wait_for(client.io.fd, POLLIN));
		EXPECT_EQ(close(client.io.fd), 0);
		stable_connection_lost(c);
		EXPECT_EQ(c->connected, 0);
		let_retry_come();
	}
	EXPECT_EQ(daemon.connections, 4);
	close(client.io.fd);
}
