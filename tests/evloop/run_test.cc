// The loop made, run and ended.
#include "tests/evloop/watchers.h"

#include <stdio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "lib/evloop-process.h"
#include "lib/log.h"
#include "lib/time.h"

using namespace evloop_tests;
using namespace support;

// ---- evloop_init ----

using evloop_init_test = descriptor_test;

TEST_F(evloop_init_test, creates_one_descriptor_that_is_closed_on_exec)
{
	expect_in_child([] {
		ASSERT_EQ(evloop_init(), 0);
		int fd = epoll_descriptor();
		ASSERT_GE(fd, 0);
		EXPECT_TRUE(is_closed_on_exec(fd));
		std::set<int> before = open_descriptors();
		EXPECT_EQ(evloop_init(), 0);
		EXPECT_EQ(evloop_io_init(), 0);
		EXPECT_EQ(open_descriptors(), before);
	});
}

namespace
{

[[noreturn]] void try_to_init_without_descriptors()
{
	log_open(LOG_DEST_STDIO, 0, nullptr);
	rlimit limit{};
	getrlimit(RLIMIT_NOFILE, &limit);
	rlimit none{0, limit.rlim_max};
	setrlimit(RLIMIT_NOFILE, &none);
	errno = 0;
	bool failed = evloop_init() == -1 && errno == EMFILE;
	errno = 0;
	bool failed_again = evloop_io_init() == -1 && errno == EMFILE;
	setrlimit(RLIMIT_NOFILE, &limit);
	bool succeeded = evloop_init() == 0 && epoll_descriptor() >= 0;
	fprintf(stderr, "%d %d %d", failed, failed_again, succeeded);
	_exit(0);
}

[[noreturn]] void add_a_watcher_without_init()
{
	watcher w(0);
	errno = 0;
	int result = evloop_io_add(&w, EVLOOP_READ);
	fprintf(stderr, "%d %d %d", result, errno == EBADF, w.registered);
	_exit(0);
}

// The statement of a death test in the "threadsafe" style runs in a fresh process, where nothing has called
// evloop_init. An emulated program cannot start itself; but death tests run first, so a child that is forked
// for one finds the same.
void choose_fresh_process()
{
	GTEST_FLAG_SET(death_test_style, is_emulated ? "fast" : "threadsafe");
}

} // namespace

TEST(evloop_init_DeathTest, fails_silently_with_errno_and_tries_again_when_called_again)
{
	choose_fresh_process();
	EXPECT_EXIT(try_to_init_without_descriptors(), testing::ExitedWithCode(0), "^1 1 1$");
}

TEST(evloop_init_DeathTest, must_come_before_a_watcher_is_added)
{
	choose_fresh_process();
	EXPECT_EXIT(add_a_watcher_without_init(), testing::ExitedWithCode(0), "^-1 1 0$");
}

// ---- evloop_run ----

using evloop_run_test = loop_test;

TEST_F(evloop_run_test, returns_zero_when_a_timeout_ends_it)
{
	timer t([](timer *) { evloop_end(); });
	evloop_timeout_set(&t, 0);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_run_test, returns_zero_when_a_descriptor_ends_it)
{
	ready_watcher w([](watcher *, unsigned int) { evloop_end(); });
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(w.calls(), 1u);
}

TEST_F(evloop_run_test, forgets_an_end_that_was_asked_for_before)
{
	timer first, second([](timer *) { evloop_end(); });
	evloop_timeout_set(&first, 0);
	evloop_timeout_set(&second, 20);
	evloop_end();
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
}

TEST_F(evloop_run_test, may_be_entered_again)
{
	int turns = 0;
	ready_watcher w([&turns](watcher *, unsigned int) {
		++turns;
		evloop_end();
	});
	for (int run = 1; run <= 3; ++run) {
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_EQ(turns, run);
	}
}

TEST_F(evloop_run_test, goes_on_with_the_batch_when_entered_again)
{
	std::vector<size_t> order;
	ready_watchers batch = make_batch(3, &order);
	auto first = batch[0]->on_events;
	batch[0]->on_events = [first](watcher *self, unsigned int events) {
		first(self, events);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<size_t>{0}));
	batch[2]->on_events = [&, last = batch[2]->on_events](watcher *self, unsigned int events) {
		last(self, events);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2}));
}

TEST_F(evloop_run_test, ended_by_a_timeout_still_runs_the_other_timeouts_and_reaps_but_dispatches_nothing)
{
	pid_t pid = exited_child(5);

	static int reported_status;
	reported_status = -1;
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int status) { reported_status = status; };
	ASSERT_EQ(evloop_process_add(&process), 0);
	timer first([](timer *) { evloop_end(); }), second;
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	ready_watcher w;

	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(reported_status, 5);
	EXPECT_EQ(w.calls(), 0u);
}

TEST_F(evloop_run_test, ended_by_a_child_dispatches_nothing)
{
	pid_t pid = exited_child(0);
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int) { evloop_end(); };
	ASSERT_EQ(evloop_process_add(&process), 0);
	ready_watcher w;
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(w.calls(), 0u);
}

TEST_F(evloop_run_test, ended_by_a_descriptor_runs_no_further_timeout)
{
	timer t;
	ready_watcher w([&t](watcher *, unsigned int) {
		t.expires = 1;
		evloop_timeout_add(&t);
		evloop_end();
	});
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(t.calls, 0);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_run_test, runs_due_timeouts_between_the_descriptors_of_one_batch)
{
	std::vector<int> order;
	timer t([&order](timer *) { order.push_back(-1); });
	ready_watchers batch = make_batch(3);
	for (size_t index = 0; index < batch.size(); ++index)
		batch[index]->on_events = [&order, &t, index](watcher *self, unsigned int) {
			static_cast<ready_watcher *>(self)->drain();
			order.push_back(static_cast<int>(index));
			t.expires = 1;
			evloop_timeout_add(&t);
			if (index == 2)
				t.on_fire = [&order](timer *) {
					order.push_back(-1);
					evloop_end();
				};
		};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<int>{0, -1, 1, -1, 2, -1}));
}

TEST_F(evloop_run_test, reaps_children_between_the_descriptors_of_one_batch)
{
	static std::vector<int> order;
	order.clear();
	evloop_process process{};
	process.cb = [](evloop_process *, int) { order.push_back(-1); };
	ready_watchers batch = make_batch(2);
	batch[0]->on_events = [&process](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		order.push_back(0);
		process.pid = exited_child(0);
		EXPECT_EQ(evloop_process_add(&process), 0);
	};
	batch[1]->on_events = [](watcher *self, unsigned int) {
		static_cast<ready_watcher *>(self)->drain();
		order.push_back(1);
		evloop_end();
	};
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<int>{0, -1, 1}));
}

TEST_F(evloop_run_test, goes_on_after_a_failing_wait)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		close(epoll_descriptor());
		timer t([](timer *self) {
			if (self->calls == 4)
				evloop_end();
			else
				EXPECT_EQ(evloop_timeout_set(self, 0), 0);
		});
		evloop_timeout_set(&t, 0);
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_EQ(t.calls, 4);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	std::string line = "evloop: epoll error -" + std::to_string(EBADF) + "\n";
	// Once for each pass that came to its wait.
	size_t count = result.err.size() / line.size();
	EXPECT_GE(count, 3u);
	for (size_t index = 0; index < count; ++index)
		EXPECT_EQ(result.err.substr(index * line.size(), line.size()), line);
	EXPECT_EQ(result.err.size(), count * line.size());
}

namespace
{

struct wait_arguments {
	long long events_max = -1, timeout_ms = -1;
};

bool is_wait(long number)
{
	if (is_emulated)
		return true; // it is this machine's number; what else the thread waits in has another descriptor
#ifdef SYS_epoll_wait
	if (number == SYS_epoll_wait)
		return true;
#endif
	return number == SYS_epoll_pwait;
}

// Runs the loop, looks from another thread at the wait in which the loop's thread blocks, and ends the loop.
wait_arguments look_at_wait()
{
	std::string path = "/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/syscall";
	wait_arguments found;
	const int epoll = epoll_descriptor();
	owned_fd wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
	watcher w(wake.get(), [](watcher *, unsigned int) { evloop_end(); });
	EXPECT_EQ(evloop_io_add(&w, EVLOOP_READ), 0);
	std::thread observer([&] {
		eventually([&] {
			std::string line = read_file(path);
			long number = 0;
			unsigned long long fd = 0, events = 0, events_max = 0, timeout_ms = 0;
			if (sscanf(line.c_str(), "%ld %llx %llx %llx %llx", &number, &fd, &events,
				    &events_max, &timeout_ms) != 5)
				return false; // it runs just now
			if (!is_wait(number) || static_cast<int>(fd) != epoll)
				return false;
			found.events_max = static_cast<int>(events_max);
			found.timeout_ms = static_cast<int>(timeout_ms);
			return true;
		});
		eventfd_write(wake.get(), 1);
	});
	EXPECT_EQ(evloop_run(), 0);
	observer.join();
	EXPECT_EQ(evloop_io_delete(&w), 0);
	return found;
}

} // namespace

TEST_F(evloop_run_test, waits_500_milliseconds_at_a_time_without_timeouts_for_ten_events)
{
	wait_arguments wait = look_at_wait();
	EXPECT_EQ(wait.timeout_ms, 500);
	EXPECT_EQ(wait.events_max, EVLOOP_MAX_EVENTS);
}

TEST_F(evloop_run_test, waits_until_the_next_timeout_also_when_it_is_far)
{
	timer t;
	evloop_timeout_set(&t, 100'000);
	wait_arguments wait = look_at_wait();
	EXPECT_LE(wait.timeout_ms, 100'000);
	EXPECT_GT(wait.timeout_ms, 100'000 - deadline_ms);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_run_test, notices_a_child_without_timeouts_or_descriptors)
{
	expect_in_child([] {
		pid_t pid = fork();
		if (pid == 0) {
			poll(nullptr, 0, 50); // most likely the loop waits by then; either way it must notice
			_exit(0);
		}
		evloop_process process{};
		process.pid = pid;
		process.cb = [](evloop_process *, int) { evloop_end(); };
		EXPECT_EQ(evloop_process_add(&process), 0);
		int64_t start_ms = now_ms();
		EXPECT_EQ(evloop_run(), 0);
		EXPECT_LT(now_ms() - start_ms, 20'000);
	});
}

TEST_F(evloop_run_test, fires_a_timeout_on_time_without_descriptors)
{
	timer t([](timer *) { evloop_end(); });
	int64_t start_ms = now_ms();
	evloop_timeout_set(&t, 30);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_GE(now_ms() - start_ms, 29);
	EXPECT_LT(now_ms() - start_ms, 20'000);
}

// ---- evloop_done ----

using evloop_done_test = loop_test;

TEST_F(evloop_done_test, cancels_timeouts_and_child_watchers_without_callbacks)
{
	pid_t pid = exited_child(0);
	static int process_calls;
	process_calls = 0;
	evloop_process process{};
	process.pid = pid;
	process.cb = [](evloop_process *, int) { ++process_calls; };
	ASSERT_EQ(evloop_process_add(&process), 0);
	timer due, late;
	due.expires = 1;
	evloop_timeout_add(&due);
	evloop_timeout_set(&late, 60'000);

	evloop_done();
	EXPECT_EQ(due.pending + late.pending, 0);
	EXPECT_EQ(evloop_process_is_pending(&process), 0);
	evloop_handle_timeouts();
	evloop_handle_processes(); // the child is reaped all the same
	EXPECT_EQ(due.calls + late.calls, 0);
	EXPECT_EQ(process_calls, 0);
}

TEST_F(evloop_done_test, keeps_the_epoll_descriptor_and_its_watchers)
{
	ready_watcher w;
	int fd = epoll_descriptor();
	std::set<int> before = open_descriptors();
	evloop_done();
	evloop_done();
	EXPECT_EQ(open_descriptors(), before);
	EXPECT_EQ(w.registered, 1);
	EXPECT_EQ(evloop_init(), 0);
	EXPECT_EQ(epoll_descriptor(), fd);
	run_pass();
	EXPECT_EQ(w.calls(), 1u);
}
