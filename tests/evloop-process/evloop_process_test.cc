#include "lib/evloop-process.h"

#include <memory>

#include "lib/evloop.h"
#include "lib/log.h"
#include "tests/support/support.h"

using namespace support;

namespace
{

// A watcher that keeps what it was told.
struct process : evloop_process {
	std::function<void(process *)> on_exit;
	std::vector<int> statuses;

	explicit process(pid_t child = 0, std::function<void(process *)> call = nullptr)
		: evloop_process{}, on_exit(std::move(call))
	{
		pid = child;
		cb = [](evloop_process *watched, int status) {
			process *self = static_cast<process *>(watched);
			self->statuses.push_back(status);
			if (auto copy = self->on_exit)
				copy(self);
		};
	}
	process(const process &) = delete;
	process &operator=(const process &) = delete;
};

pid_t start(const std::function<void()> &body)
{
	fflush(nullptr);
	pid_t pid = fork();
	if (pid == 0) {
		body();
		_exit(0);
	}
	EXPECT_GT(pid, 0);
	return pid;
}

// A child that runs until it is killed.
pid_t running_child()
{
	return start([] {
		for (;;)
			pause();
	});
}

// Kills and reaps a child that the loop does not know of any more.
void finish(pid_t pid)
{
	kill(pid, SIGKILL);
	EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

bool exists(pid_t pid) // a zombie does, too
{
	return kill(pid, 0) == 0;
}

} // namespace

using evloop_process_add_test = loop_test;
using evloop_process_delete_test = loop_test;
using evloop_process_kill_and_delete_test = loop_test;
using evloop_process_reaping = loop_test;

// ---- evloop_process_add, _delete, _is_pending ----

TEST_F(evloop_process_add_test, makes_the_watcher_pending)
{
	process p(1'000'000);
	EXPECT_EQ(evloop_process_is_pending(&p), 0);
	EXPECT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_is_pending(&p), 1);
	EXPECT_EQ(p.pending, 1);
	EXPECT_NE(p.next, nullptr);
	EXPECT_NE(p.prev, nullptr);
	EXPECT_EQ(evloop_process_delete(&p), 0);
}

TEST_F(evloop_process_add_test, refuses_a_watcher_that_is_pending)
{
	process p(1'000'000);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_add(&p), -EINVAL);
	EXPECT_EQ(evloop_process_is_pending(&p), 1);
	EXPECT_EQ(evloop_process_delete(&p), 0);
}

TEST_F(evloop_process_add_test, refuses_a_second_watcher_of_the_same_child)
{
	process first(1'000'000), other(1'000'001), second(1'000'000);
	ASSERT_EQ(evloop_process_add(&first), 0);
	ASSERT_EQ(evloop_process_add(&other), 0);
	EXPECT_EQ(evloop_process_add(&second), -EEXIST);
	EXPECT_EQ(evloop_process_is_pending(&second), 0);
	EXPECT_EQ(second.next, nullptr);
	EXPECT_EQ(evloop_process_delete(&first), 0);
	EXPECT_EQ(evloop_process_add(&second), 0);
	EXPECT_EQ(evloop_process_delete(&second), 0);
	EXPECT_EQ(evloop_process_delete(&other), 0);
}

TEST_F(evloop_process_add_test, finds_the_pending_watcher_at_fault_before_the_pid)
{
	process p(1'000'000);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_add(&p), -22); // not -17, although its pid is in the list
	EXPECT_EQ(evloop_process_delete(&p), 0);
}

TEST_F(evloop_process_add_test, appends_new_watchers)
{
	process first(1'000'000), second(1'000'001), third(1'000'002);
	for (process *p : {&first, &second, &third})
		ASSERT_EQ(evloop_process_add(p), 0);
	EXPECT_EQ(first.next, &second);
	EXPECT_EQ(second.next, &third);
	EXPECT_EQ(third.prev, &second);
	evloop_clean_processes();
}

TEST_F(evloop_process_delete_test, unlinks_the_watcher_and_leaves_the_child_alone)
{
	pid_t pid = running_child();
	process p(pid);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_delete(&p), 0);
	EXPECT_EQ(evloop_process_is_pending(&p), 0);
	EXPECT_EQ(p.next, nullptr);
	EXPECT_EQ(p.prev, nullptr);
	EXPECT_EQ(p.pid, pid);
	EXPECT_TRUE(exists(pid));
	evloop_handle_processes();
	EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the child does not run any more";
	finish(pid);
	EXPECT_TRUE(p.statuses.empty());
}

TEST_F(evloop_process_delete_test, refuses_a_watcher_that_is_not_pending)
{
	process p(1'000'000);
	EXPECT_EQ(evloop_process_delete(&p), -EINVAL);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_delete(&p), 0);
	EXPECT_EQ(evloop_process_delete(&p), -EINVAL);
}

TEST_F(evloop_process_delete_test, silences_a_child_that_has_exited_already)
{
	pid_t pid = exited_child(3);
	process p(pid);
	ASSERT_EQ(evloop_process_add(&p), 0);
	ASSERT_EQ(evloop_process_delete(&p), 0);
	evloop_handle_processes();
	EXPECT_TRUE(p.statuses.empty());
	EXPECT_FALSE(exists(pid));
}

TEST_F(evloop_process_delete_test, of_all_watchers_sends_no_signal_and_calls_nobody)
{
	pid_t pids[] = {running_child(), running_child(), running_child()};
	process first(pids[0]), second(pids[1]), third(pids[2]);
	for (process *p : {&first, &second, &third})
		ASSERT_EQ(evloop_process_add(p), 0);
	evloop_clean_processes();
	evloop_clean_processes();
	for (process *p : {&first, &second, &third}) {
		EXPECT_EQ(evloop_process_is_pending(p), 0);
		EXPECT_EQ(p->next, nullptr);
		EXPECT_EQ(p->prev, nullptr);
		EXPECT_TRUE(p->statuses.empty());
	}
	for (pid_t pid : pids) {
		EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
		finish(pid);
	}
}

// ---- evloop_process_kill_and_delete ----

TEST_F(evloop_process_kill_and_delete_test, kills_the_child_which_the_loop_reaps_later_without_a_word)
{
	pid_t pid = running_child();
	process p(pid);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_kill_and_delete(&p), 0);
	EXPECT_EQ(evloop_process_is_pending(&p), 0);

	siginfo_t info{};
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
	EXPECT_EQ(info.si_code, CLD_KILLED);
	EXPECT_EQ(info.si_status, SIGKILL);
	evloop_handle_processes();
	EXPECT_FALSE(exists(pid));
	EXPECT_TRUE(p.statuses.empty());
}

TEST_F(evloop_process_kill_and_delete_test, kills_also_through_a_watcher_that_is_not_pending)
{
	pid_t pid = running_child();
	process p(pid);
	EXPECT_EQ(evloop_process_kill_and_delete(&p), -EINVAL);
	int status = 0;
	EXPECT_EQ(waitpid(pid, &status, 0), pid);
	EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(evloop_process_kill_and_delete_test, succeeds_when_there_is_no_such_process)
{
	process p(exited_child(0));
	ASSERT_EQ(waitpid(p.pid, nullptr, 0), p.pid);
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_process_kill_and_delete(&p), 0);
	EXPECT_EQ(evloop_process_is_pending(&p), 0);
}

TEST_F(evloop_process_kill_and_delete_test, lets_the_record_be_released_at_once)
{
	auto p = std::make_unique<process>(running_child());
	pid_t pid = p->pid;
	ASSERT_EQ(evloop_process_add(p.get()), 0);
	EXPECT_EQ(evloop_process_kill_and_delete(p.get()), 0);
	p.reset();
	await_exit(pid);
	evloop_handle_processes();
	EXPECT_FALSE(exists(pid));
}

// In a process group of its own, in a process namespace of its own (for -1): a signal would end it.
TEST_F(evloop_process_kill_and_delete_test, signals_no_group_for_a_pid_of_zero_or_less)
{
	expect_in_child([] {
		ASSERT_EQ(unshare(CLONE_NEWPID), 0) << strerror(errno);
		pid_t init = start([] {
			// The first process of the namespace is spared by kill(-1), so another one stands beside it.
			ASSERT_EQ(setpgid(0, 0), 0);
			pid_t bystander = running_child();
			auto kill_through = [](pid_t pid) {
				process p(pid);
				EXPECT_EQ(evloop_process_kill_and_delete(&p), -EINVAL);
				EXPECT_EQ(evloop_process_add(&p), 0);
				EXPECT_EQ(evloop_process_kill_and_delete(&p), 0);
				EXPECT_EQ(evloop_process_is_pending(&p), 0);
			};
			kill_through(0);
			kill_through(-1);
			ASSERT_EQ(setpgid(bystander, bystander), 0);
			kill_through(-bystander);
			// A signal would have been sent before this one, which leaves a running process stopped.
			kill(bystander, SIGSTOP);
			siginfo_t info{};
			EXPECT_EQ(waitid(P_PID, static_cast<id_t>(bystander), &info, WEXITED | WSTOPPED), 0);
			EXPECT_EQ(info.si_code, CLD_STOPPED) << "the bystander was killed";
			kill(bystander, SIGKILL);
			_exit(testing::Test::HasFailure() ? 1 : 0);
		});
		int status = -1;
		EXPECT_EQ(waitpid(init, &status, 0), init);
		EXPECT_EQ(status, 0);
	});
}

// ---- null records ----

namespace
{

void expect_assertion_with_null(int (*function)(evloop_process *), int line, const std::string &name)
{
	child_result result = run_child([function] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		set_app_name("stationd");
		function(nullptr);
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, "stationd: lib/evloop-process.c:" + std::to_string(line) +
				      ": assertion p failed in " + name + "()\n");
	EXPECT_EQ(result.out, "");
}

// What a child in which `function` is called with null writes to the kernel log; it must end by abort.
std::string kernel_log_of_null(int (*function)(evloop_process *))
{
	std::string log;
	pipe_pair pipe;
	child_result result = run_child([&] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_file("/dev/kmsg", ""));
		pid_t pid = start([function] {
			log_open(LOG_DEST_KMSG, 0, "stationd");
			set_app_name("stationd");
			function(nullptr);
		});
		int status = 0;
		ASSERT_EQ(waitpid(pid, &status, 0), pid);
		EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
		EXPECT_TRUE(write_all(pipe.write_end.get(), read_file("/dev/kmsg")));
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	pipe.write_end.reset();
	return read_all(pipe.read_end.get());
}

} // namespace

TEST(evloop_process_null, to_kill_and_delete_ends_the_process)
{
	expect_assertion_with_null(evloop_process_kill_and_delete, 29, "evloop_process_kill_and_delete");
}

TEST(evloop_process_null, asked_about_pending_ends_the_process)
{
	expect_assertion_with_null(evloop_process_is_pending, 36, "evloop_process_is_pending");
}

TEST_F(evloop_process_kill_and_delete_test, of_null_is_reported_as_an_error)
{
	EXPECT_EQ(kernel_log_of_null(evloop_process_kill_and_delete),
		"<3>stationd: stationd: lib/evloop-process.c:29: assertion p failed in "
		"evloop_process_kill_and_delete()\n");
	EXPECT_EQ(kernel_log_of_null(evloop_process_is_pending),
		"<3>stationd: stationd: lib/evloop-process.c:36: assertion p failed in "
		"evloop_process_is_pending()\n");
}

// ---- evloop_handle_processes ----

TEST_F(evloop_process_reaping, reports_the_exit_code_once_to_a_watcher_no_longer_pending)
{
	process p(exited_child(3), [](process *self) {
		EXPECT_EQ(evloop_process_is_pending(self), 0);
		EXPECT_EQ(self->next, nullptr);
		EXPECT_EQ(self->prev, nullptr);
		EXPECT_FALSE(exists(self->pid)); // reaped before
	});
	ASSERT_EQ(evloop_process_add(&p), 0);
	evloop_handle_processes();
	evloop_handle_processes();
	EXPECT_EQ(p.statuses, std::vector<int>{3});
}

TEST_F(evloop_process_reaping, reports_exit_codes_as_signed_8_bit_numbers)
{
	const std::pair<int, int> cases[] = {{0, 0}, {1, 1}, {127, 127}, {128, -128}, {200, -56}, {255, -1}};
	for (auto [code, reported] : cases) {
		process p(exited_child(code));
		ASSERT_EQ(evloop_process_add(&p), 0);
		evloop_handle_processes();
		EXPECT_EQ(p.statuses, std::vector<int>{reported}) << code;
	}
}

TEST_F(evloop_process_reaping, reports_a_child_that_a_signal_ended_as_zero)
{
	for (int number : {SIGKILL, SIGTERM}) {
		pid_t pid = running_child();
		process p(pid);
		ASSERT_EQ(evloop_process_add(&p), 0);
		ASSERT_EQ(kill(pid, number), 0);
		await_exit(pid);
		evloop_handle_processes();
		EXPECT_EQ(p.statuses, std::vector<int>{0});
	}
}

TEST_F(evloop_process_reaping, leaves_no_zombie_of_a_child_that_nobody_watches)
{
	pid_t pid = exited_child(1);
	EXPECT_TRUE(exists(pid));
	evloop_handle_processes();
	EXPECT_FALSE(exists(pid));
	EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
}

TEST_F(evloop_process_reaping, returns_at_once_without_children)
{
	process p(1'000'000); // a watcher of what is no child
	ASSERT_EQ(evloop_process_add(&p), 0);
	evloop_handle_processes();
	EXPECT_EQ(evloop_process_is_pending(&p), 1);
	EXPECT_TRUE(p.statuses.empty());
	EXPECT_EQ(evloop_process_delete(&p), 0);
}

TEST_F(evloop_process_reaping, does_not_wait_for_a_child_that_runs)
{
	process p(running_child());
	ASSERT_EQ(evloop_process_add(&p), 0);
	evloop_handle_processes();
	EXPECT_EQ(evloop_process_is_pending(&p), 1);
	EXPECT_EQ(evloop_process_delete(&p), 0);
	finish(p.pid);
}

TEST_F(evloop_process_reaping, ignores_a_child_that_is_only_stopped)
{
	process p(running_child());
	ASSERT_EQ(evloop_process_add(&p), 0);
	ASSERT_EQ(kill(p.pid, SIGSTOP), 0);
	siginfo_t info{};
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(p.pid), &info, WSTOPPED | WNOWAIT), 0);
	evloop_handle_processes();
	EXPECT_EQ(evloop_process_is_pending(&p), 1);
	EXPECT_EQ(evloop_process_delete(&p), 0);
	finish(p.pid);
}

TEST_F(evloop_process_reaping, takes_all_that_have_exited_in_one_call_watched_or_not)
{
	std::vector<std::unique_ptr<process>> watched;
	for (int code = 0; code < 12; ++code) {
		pid_t pid = exited_child(code);
		if (code % 3 == 0)
			continue;
		watched.push_back(std::make_unique<process>(pid));
		ASSERT_EQ(evloop_process_add(watched.back().get()), 0);
	}
	process running(running_child());
	ASSERT_EQ(evloop_process_add(&running), 0);
	evloop_handle_processes();
	int code = 0;
	for (auto &p : watched) {
		code += code % 3 == 2 ? 2 : 1;
		EXPECT_EQ(p->statuses, std::vector<int>{code});
		EXPECT_EQ(evloop_process_is_pending(p.get()), 0);
	}
	EXPECT_EQ(evloop_process_is_pending(&running), 1);
	EXPECT_EQ(evloop_process_delete(&running), 0);
	finish(running.pid);
}

TEST_F(evloop_process_reaping, without_callback_takes_the_watcher_off)
{
	process p(exited_child(3));
	p.cb = nullptr;
	ASSERT_EQ(evloop_process_add(&p), 0);
	evloop_handle_processes();
	EXPECT_EQ(evloop_process_is_pending(&p), 0);
	EXPECT_FALSE(exists(p.pid));
}

TEST_F(evloop_process_reaping, lets_a_callback_release_its_record)
{
	int calls = 0;
	for (int count = 0; count < 3; ++count) {
		process *p = new process(exited_child(0), [&calls](process *self) {
			++calls;
			delete self;
		});
		ASSERT_EQ(evloop_process_add(p), 0);
	}
	evloop_handle_processes();
	EXPECT_EQ(calls, 3);
}

TEST_F(evloop_process_reaping, lets_a_callback_watch_another_child_with_the_same_record)
{
	process p(exited_child(1), [](process *self) {
		if (self->statuses.size() == 3)
			return;
		self->pid = exited_child(static_cast<int>(self->statuses.size()) + 1);
		EXPECT_EQ(evloop_process_add(self), 0);
	});
	ASSERT_EQ(evloop_process_add(&p), 0);
	evloop_handle_processes(); // goes on until no exited child is left
	EXPECT_EQ(p.statuses, (std::vector<int>{1, 2, 3}));
}

TEST_F(evloop_process_reaping, lets_a_callback_delete_and_release_the_watcher_of_another_exited_child)
{
	pid_t pids[] = {exited_child(0), exited_child(0)};
	std::unique_ptr<process> watchers[2];
	int calls = 0;
	for (int index : {0, 1})
		watchers[index] =
			std::make_unique<process>(pids[index], [&watchers, &calls, index](process *) {
				++calls;
				EXPECT_EQ(evloop_process_delete(watchers[1 - index].get()), 0);
				watchers[1 - index].reset();
			});
	for (auto &p : watchers)
		ASSERT_EQ(evloop_process_add(p.get()), 0);
	evloop_handle_processes();
	EXPECT_EQ(calls, 1); // whichever the kernel gave first
	EXPECT_FALSE(exists(pids[0]));
	EXPECT_FALSE(exists(pids[1]));
}

TEST_F(evloop_process_reaping, lets_a_callback_stop_all_watching)
{
	process first(exited_child(0), [](process *) { evloop_clean_processes(); });
	process second(exited_child(0), [](process *) { evloop_clean_processes(); });
	ASSERT_EQ(evloop_process_add(&first), 0);
	ASSERT_EQ(evloop_process_add(&second), 0);
	evloop_handle_processes();
	EXPECT_EQ(first.statuses.size() + second.statuses.size(), 1u);
}

TEST_F(evloop_process_reaping, goes_on_when_a_callback_reaps_itself)
{
	process first(exited_child(1), [](process *) { evloop_handle_processes(); });
	process second(exited_child(2), [](process *) { evloop_handle_processes(); });
	ASSERT_EQ(evloop_process_add(&first), 0);
	ASSERT_EQ(evloop_process_add(&second), 0);
	evloop_handle_processes();
	EXPECT_EQ(first.statuses, std::vector<int>{1});
	EXPECT_EQ(second.statuses, std::vector<int>{2});
}

TEST_F(evloop_process_reaping, happens_on_every_pass_of_the_loop_also_without_a_watcher)
{
	pid_t pid = exited_child(0);
	timer t([](timer *) { evloop_end(); });
	evloop_timeout_set(&t, 0);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_FALSE(exists(pid));
}

TEST_F(evloop_process_reaping, happens_after_the_timeouts_of_the_pass)
{
	std::vector<int> order;
	timer t([&order](timer *) { order.push_back(1); });
	t.expires = 1;
	evloop_timeout_add(&t);
	process p(exited_child(0), [&order](process *) {
		order.push_back(2);
		evloop_end();
	});
	ASSERT_EQ(evloop_process_add(&p), 0);
	EXPECT_EQ(evloop_run(), 0);
	EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(evloop_process_reaping, never_reports_a_grandchild)
{
	pipe_pair pipe;
	pid_t pid = start([&pipe] {
		pid_t grandchild = fork();
		if (grandchild == 0)
			_exit(9);
		EXPECT_TRUE(write_all(pipe.write_end.get(),
			std::string(reinterpret_cast<char *>(&grandchild), sizeof(grandchild))));
		_exit(4);
	});
	pid_t grandchild = 0;
	await_exit(pid);
	std::string bytes = read_available(pipe.read_end.get());
	ASSERT_EQ(bytes.size(), sizeof(grandchild));
	memcpy(&grandchild, bytes.data(), sizeof(grandchild));
	process child(pid), other(grandchild);
	ASSERT_EQ(evloop_process_add(&child), 0);
	ASSERT_EQ(evloop_process_add(&other), 0);
	evloop_handle_processes();
	EXPECT_EQ(child.statuses, std::vector<int>{4});
	EXPECT_TRUE(other.statuses.empty());
	EXPECT_EQ(evloop_process_delete(&other), 0);
}
