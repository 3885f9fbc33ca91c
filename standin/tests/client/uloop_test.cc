// libubox: the loop. Each test has a process of its own, for the signals' sake.
#include <libubus.h>

#include <signal.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/system.h"

using namespace support;
using testing::ElementsAre;

// Other tests of the process may have opened the loop already.
static void in_child_without_loop(const std::function<void()> &body)
{
	expect_in_child([&] {
		uloop_done();
		body();
	});
}

TEST(uloop, opens_one_epoll_descriptor_and_one_pipe_closed_on_exec)
{
	in_child_without_loop([] {
		std::set<int> before = open_descriptors();
		EXPECT_EQ(uloop_init(), 0);
		std::multiset<std::string> kinds;
		for (int fd : open_descriptors()) {
			if (before.count(fd))
				continue;
			std::string target = descriptor_target(fd);
			kinds.insert(
				target.substr(0, target.find('[') == std::string::npos ? target.find(':')
										       : std::string::npos));
			EXPECT_TRUE(is_closed_on_exec(fd)) << target;
		}
		EXPECT_THAT(kinds, ElementsAre("anon_inode:[eventpoll]", testing::StartsWith("pipe"),
					   testing::StartsWith("pipe")));
		std::set<int> once = open_descriptors();
		EXPECT_EQ(uloop_init(), 0);
		EXPECT_EQ(open_descriptors(), once);
		uloop_done();
		EXPECT_EQ(open_descriptors(), before);
		EXPECT_EQ(uloop_init(), 0);
		uloop_done();
		EXPECT_EQ(open_descriptors(), before);
	});
}

static struct sigaction action_of(int number)
{
	struct sigaction action {
	};
	sigaction(number, nullptr, &action);
	return action;
}

static void on_signal_of_test(int) {}

TEST(uloop, takes_signals_only_where_they_had_their_default_action)
{
	in_child_without_loop([] {
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			signal(number, SIG_DFL);
		ASSERT_EQ(uloop_init(), 0);
		for (int number : {SIGINT, SIGTERM, SIGCHLD}) {
			struct sigaction action = action_of(number);
			EXPECT_NE(action.sa_handler, SIG_DFL) << number;
			EXPECT_EQ(action.sa_flags & SA_RESTART, 0) << number;
		}
		EXPECT_EQ(action_of(SIGPIPE).sa_handler, SIG_IGN);
		uloop_done();
		for (int number : {SIGINT, SIGTERM, SIGCHLD})
			EXPECT_EQ(action_of(number).sa_handler, SIG_DFL);
		EXPECT_EQ(action_of(SIGPIPE).sa_handler, SIG_IGN) << "stays ignored";
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			signal(number, on_signal_of_test);
		ASSERT_EQ(uloop_init(), 0);
		uloop_done();
		for (int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
			EXPECT_EQ(action_of(number).sa_handler, on_signal_of_test);
	});
}

TEST(uloop, ends_with_the_number_of_the_signal)
{
	in_child_without_loop([] {
		signal(SIGTERM, SIG_DFL);
		ASSERT_EQ(uloop_init(), 0);
		uloop_timeout timer{};
		timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
		uloop_timeout_set(&timer, 1);
		EXPECT_EQ(uloop_run(), SIGTERM);
		uloop_timeout_set(&timer, 0);
		timer.cb = [](uloop_timeout *) { uloop_end(); };
		EXPECT_EQ(uloop_run(), 0);
		raise(SIGTERM); // nobody runs the loop, so it gets lost
		uloop_timeout_set(&timer, 1);
		EXPECT_EQ(uloop_run(), 0);
	});
}

struct numbered_timer : uloop_timeout {
	std::vector<int> *fired;
	int number;
};

TEST(uloop, timers_fire_in_the_order_of_their_times)
{
	in_child_without_loop([] {
		ASSERT_EQ(uloop_init(), 0);
		std::vector<int> fired;
		numbered_timer timers[4]{};
		for (int i = 0; i < 4; ++i) {
			timers[i].fired = &fired;
			timers[i].number = i;
			timers[i].cb = [](uloop_timeout *timeout) {
				auto *self = static_cast<numbered_timer *>(timeout);
				EXPECT_FALSE(self->pending);
				self->fired->push_back(self->number);
				if (self->number == 3)
					uloop_end();
			};
		}
		uloop_timeout_set(&timers[3], 30);
		uloop_timeout_set(&timers[2], 60'000);
		uloop_timeout_set(&timers[2], 20); // moved
		uloop_timeout_set(&timers[1], 5);
		uloop_timeout_set(&timers[0], 1);
		EXPECT_EQ(uloop_timeout_add(&timers[0]), -1) << "is pending";
		EXPECT_EQ(uloop_timeout_cancel(&timers[1]), 0);
		EXPECT_EQ(uloop_timeout_cancel(&timers[1]), -1);
		EXPECT_EQ(uloop_run(), 0);
		EXPECT_THAT(fired, ElementsAre(0, 2, 3));
		uloop_done();
	});
}

TEST(uloop, descriptor_is_served_until_deleted)
{
	in_child_without_loop([] {
		ASSERT_EQ(uloop_init(), 0);
		static int calls;
		static socket_pair pair;
		uloop_fd watcher{};
		watcher.fd = pair.near.get();
		watcher.cb = [](uloop_fd *fd, unsigned int events) {
			EXPECT_EQ(events, unsigned{ULOOP_READ});
			if (++calls == 3) {
				EXPECT_EQ(uloop_fd_delete(fd), 0);
				uloop_end();
			}
		};
		EXPECT_EQ(uloop_fd_add(&watcher, ULOOP_READ), 0);
		EXPECT_TRUE(watcher.registered);
		EXPECT_TRUE(is_nonblocking(watcher.fd));
		ASSERT_TRUE(write_all(pair.far.get(), "x"));
		EXPECT_EQ(uloop_run(), 0);
		EXPECT_EQ(calls, 3);
		EXPECT_FALSE(watcher.registered);
		EXPECT_EQ(uloop_fd_delete(&watcher), 0);
		uloop_done();
	});
}
