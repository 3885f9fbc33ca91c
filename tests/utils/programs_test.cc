// Programs run to their end, and standard descriptors pointed at /dev/null.
#include "tests/utils/fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/system_calls.h"

using namespace support;
using namespace utils_tests;
using testing::IsEmpty;

namespace
{

// While it lives, the standard descriptors of this process are copies kept elsewhere, and free to be changed.
class standard_descriptors_aside
{
	owned_fd copies_[3];

public:
	standard_descriptors_aside()
	{
		for (int fd = 0; fd < 3; ++fd)
			copies_[fd].reset(fcntl(fd, F_DUPFD_CLOEXEC, 100));
	}
	standard_descriptors_aside(const standard_descriptors_aside &) = delete;
	standard_descriptors_aside &operator=(const standard_descriptors_aside &) = delete;
	~standard_descriptors_aside() { restore(); }
	void restore()
	{
		for (int fd = 0; fd < 3; ++fd)
			if (copies_[fd].get() >= 0)
				dup2(copies_[fd].get(), fd);
			else
				close(fd);
	}
};

} // namespace

// ---- Programs ----

using execute_test = utils_test;

namespace
{

int run(const std::string &path, std::vector<std::string> arguments, int quiet = 0)
{
	std::vector<char *> argv;
	for (std::string &argument : arguments)
		argv.push_back(argument.data());
	argv.push_back(nullptr);
	return execute(path.c_str(), argv.data(), quiet);
}

int run_shell(const std::string &script, int quiet = 0)
{
	return run("/bin/sh", {"sh", "-c", script}, quiet);
}

// Runs `body` with what is logged on standard error, as nothing but the message.
child_result run_logged(const std::function<void()> &body)
{
	child_result result = run_child([&] {
		log_open(LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		body();
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	return result;
}

// What `body` writes to the kernel log, the last message only.
std::string kernel_log_of(const std::function<void()> &body)
{
	child_result result = run_child([&] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_file("/dev/kmsg", "")) << strerror(errno);
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "daemon");
		body();
		fflush(nullptr);
		write_all(1, read_file("/dev/kmsg"));
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	return result.out;
}

constexpr int status_of_failure = 256; // exit code 1

} // namespace

TEST_F(execute_test, is_0_for_a_program_that_exits_with_0)
{
	EXPECT_EQ(run("/bin/true", {"true"}), 0);
}

TEST_F(execute_test, gives_the_exit_code_undecoded)
{
	EXPECT_EQ(run("/bin/false", {"false"}), 256);
	for (int code : {0, 1, 2, 42, 126, 127, 128, 255})
		EXPECT_EQ(run_shell("exit " + std::to_string(code)), code * 256);
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(execute_test, gives_the_signal_that_ended_the_program)
{
	EXPECT_EQ(run_shell("kill -KILL $$"), SIGKILL);
	EXPECT_EQ(run_shell("kill -TERM $$"), SIGTERM);
	EXPECT_EQ(run_shell("kill -USR1 $$"), SIGUSR1);
	int status = run_shell("ulimit -c 0; kill -SEGV $$");
	EXPECT_TRUE(WIFSIGNALED(status));
	EXPECT_EQ(WTERMSIG(status), SIGSEGV);
}

TEST_F(execute_test, waits_through_a_stop_of_the_program)
{
	EXPECT_EQ(run_shell("(until grep -q '^State:.T' /proc/$$/status; do :; done; kill -CONT $$) & "
			    "kill -STOP $$; wait; exit 7"),
		7 * 256);
}

TEST_F(execute_test, returns_only_after_the_end_of_the_program)
{
	child_result result = run_child([] {
		run_shell("i=0; while [ $i -lt 5000 ]; do i=$((i + 1)); done; echo program");
		write_all(1, "parent\n");
	});
	EXPECT_EQ(result.out, "program\nparent\n");
}

TEST_F(execute_test, passes_the_arguments_as_they_are)
{
	child_result result = run_child([] {
		EXPECT_EQ(
			run("/bin/sh", {"sh", "-c", "for a in \"$0\" \"$@\"; do printf '<%s>' \"$a\"; done",
					       "zero", "a b", "", "$HOME", "*", "'\"\\", "line\nfeed", "%s"}),
			0);
	});
	EXPECT_EQ(result.out, "<zero><a b><><$HOME><*><'\"\\><line\nfeed><%s>");
}

TEST_F(execute_test, takes_any_name_for_the_program)
{
	child_result result = run_child([] {
		EXPECT_EQ(run("/bin/sh", {"other", "-c", "printf %s \"$0\""}), 0);
	});
	EXPECT_EQ(result.out, "other");
}

TEST_F(execute_test, passes_the_environment)
{
	child_result result = run_child([] {
		setenv("APBASE_TEST", "a value", 1);
		EXPECT_EQ(run_shell("printf %s \"$APBASE_TEST\""), 0);
	});
	EXPECT_EQ(result.out, "a value");
}

TEST_F(execute_test, passes_what_is_not_closed_on_exec)
{
	pipe_pair kept, closed;
	fcntl(kept.write_end.get(), F_SETFD, 0);
	std::string kept_fd = std::to_string(kept.write_end.get()),
		    closed_fd = std::to_string(closed.write_end.get());
	EXPECT_EQ(
		run_shell("[ -h /proc/$$/fd/" + kept_fd + " ] && ! [ -h /proc/$$/fd/" + closed_fd + " ]"), 0);
}

TEST_F(execute_test, reports_a_program_that_does_not_exist)
{
	child_result result =
		run_logged([] { EXPECT_EQ(run("/no/such/program", {"program"}), status_of_failure); });
	EXPECT_EQ(result.err, "execute: execv: No such file or directory\n");
	EXPECT_EQ(result.out, "");
}

TEST_F(execute_test, reports_a_program_that_cannot_be_started)
{
	child_result result = run_logged([] {
		char name[] = "/tmp/apbase-utils-XXXXXX";
		owned_fd fd{mkostemp(name, O_CLOEXEC)};
		EXPECT_EQ(run("/tmp", {"tmp"}), status_of_failure);
		EXPECT_EQ(run(name, {name}), status_of_failure);
		fchmod(fd.get(), 0755);
		fd.reset();
		EXPECT_EQ(run(name, {name}), status_of_failure);
		EXPECT_EQ(run(std::string(name) + "/x", {"x"}), status_of_failure);
		unlink(name);
	});
	EXPECT_EQ(result.err, "execute: execv: Permission denied\n"
			      "execute: execv: Permission denied\n"
			      "execute: execv: Exec format error\n"
			      "execute: execv: Not a directory\n");
}

TEST_F(execute_test, does_not_search_for_the_program)
{
	child_result result = run_logged([] { EXPECT_EQ(run("true", {"true"}), status_of_failure); });
	EXPECT_EQ(result.err, "execute: execv: No such file or directory\n");
}

TEST_F(execute_test, logs_as_an_error)
{
	EXPECT_EQ(kernel_log_of([] { EXPECT_EQ(run("/no/such/program", {"program"}), status_of_failure); }),
		"<3>daemon: execute: execv: No such file or directory\n");
}

TEST_F(execute_test, logs_without_a_line_feed_if_execv_returns_anything_else)
{
	auto body = [] {
		auto returning = system_calls::execv.replace([](auto...) { return 0; });
		EXPECT_EQ(run("/bin/true", {"true"}), status_of_failure);
	};
	EXPECT_EQ(run_logged(body).err, "execute: execv failed");
	EXPECT_EQ(kernel_log_of(body), "<3>daemon: execute: execv failed");
}

TEST_F(execute_test, leaves_the_parents_output_and_exit_handlers_to_the_parent)
{
	child_result result = run_logged([] {
		atexit([] { write_all(2, "handler\n"); });
		printf("held");
		EXPECT_EQ(run("/no/such/program", {"program"}), status_of_failure);
	});
	EXPECT_EQ(result.out, "held");
	EXPECT_EQ(result.err, "execute: execv: No such file or directory\n");
}

TEST_F(execute_test, starts_a_quiet_program_without_standard_error)
{
	const char *has_standard_error = "[ -h /proc/$$/fd/2 ]";
	EXPECT_EQ(run_shell(has_standard_error, 0), 0);
	EXPECT_EQ(run_shell(has_standard_error, 1), 256);
	EXPECT_EQ(run_shell(has_standard_error, -1), 256);
	EXPECT_EQ(run_shell("[ -h /proc/$$/fd/0 ] && [ -h /proc/$$/fd/1 ]", 1), 0);
}

TEST_F(execute_test, leaves_the_parents_standard_error_open)
{
	child_result result = run_child([] {
		EXPECT_EQ(run_shell("echo lost >&2; echo out", 1), 0);
		write_all(2, "parent\n");
		EXPECT_EQ(run_shell("echo loud >&2", 0), 0);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "out\n");
	EXPECT_EQ(result.err, "parent\nloud\n");
}

TEST_F(execute_test, logs_a_quiet_failure_elsewhere_than_on_standard_error)
{
	auto body = [] { EXPECT_EQ(run("/no/such/program", {"program"}, 1), status_of_failure); };
	EXPECT_EQ(run_logged(body).err, "");
	EXPECT_EQ(kernel_log_of(body), "<3>daemon: execute: execv: No such file or directory\n");
}

TEST_F(execute_test, is_negative_when_no_process_can_be_made)
{
	expect_in_child([] {
		pid_t other = exited_child(3);
		rlimit none{0, 0};
		ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
		uid_t nobody_else = 100'000 + static_cast<uid_t>(getpid());
		ASSERT_EQ(setresuid(nobody_else, nobody_else, nobody_else), 0);
		EXPECT_EQ(run("/bin/true", {"true"}), -EAGAIN);
		EXPECT_EQ(run("/no/such/program", {"program"}, 1), -EAGAIN);
		EXPECT_THAT(messages, IsEmpty());
		expect_exited(other, 3);
	});
}

TEST_F(execute_test, works_with_the_standard_descriptors_closed)
{
	expect_in_child([] {
		standard_descriptors_aside aside;
		for (int fd = 0; fd < 3; ++fd)
			close(fd);
		int loud = run_shell("exit 7"), quiet = run_shell("exit 8", 1);
		int missing = run("/no/such/program", {"program"});
		bool reopened = is_open(0) || is_open(1) || is_open(2);
		aside.restore();
		EXPECT_EQ(loud, 7 * 256);
		EXPECT_EQ(quiet, 8 * 256);
		EXPECT_EQ(missing, status_of_failure);
		EXPECT_FALSE(reopened);
	});
}

TEST_F(execute_test, waits_though_the_daemon_ignores_its_children)
{
	child_result result = run_child([] {
		signal(SIGCHLD, SIG_IGN);
		EXPECT_EQ(
			run_shell("i=0; while [ $i -lt 5000 ]; do i=$((i + 1)); done; echo program; exit 3"),
			-ECHILD);
		write_all(1, "parent\n");
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "program\nparent\n");
}

TEST_F(execute_test, goes_on_waiting_when_a_signal_is_handled)
{
	expect_in_child([] {
		pipe_pair input;
		dup2(input.read_end.get(), 0);
		struct sigaction action = {};
		action.sa_handler = [](int) {};
		sigaction(SIGUSR1, &action, nullptr); // which does not restart system calls
		pid_t nuisance = fork();
		if (nuisance == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			for (;;) {
				kill(getppid(), SIGUSR1);
				poll(nullptr, 0, 1);
			}
		}
		int interruptions = 0;
		auto waiting = system_calls::waitpid.replace([&](pid_t pid, int *status, int options) {
			pid_t result = system_calls::waitpid.next(pid, status, options);
			if (result < 0 && errno == EINTR) {
				if (++interruptions == 3)
					write_all(input.write_end.get(), "end\n");
				errno = EINTR;
			}
			return result;
		});
		EXPECT_EQ(run_shell("read line; [ \"$line\" = end ] && exit 5"), 5 * 256);
		EXPECT_GE(interruptions, 3);
		kill(nuisance, SIGKILL);
		while (waitpid(nuisance, nullptr, 0) != nuisance)
			;
	});
}

TEST_F(execute_test, leaves_other_children_to_the_parent)
{
	pid_t before = exited_child(3), running = fork();
	if (running == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		for (;;)
			pause();
	}
	EXPECT_EQ(run_shell("exit 5"), 5 * 256);
	EXPECT_EQ(run("/no/such/program", {"program"}), status_of_failure);
	expect_exited(before, 3);
	EXPECT_EQ(waitpid(running, nullptr, WNOHANG), 0);
	kill(running, SIGKILL);
	EXPECT_EQ(waitpid(running, nullptr, 0), running);
}

TEST_F(execute_test, can_be_repeated)
{
	for (int round = 0; round < 50; ++round)
		ASSERT_EQ(run("/bin/true", {"true"}, round % 2), 0);
}

// ---- Standard descriptors ----

using redir_to_devnull_test = utils_test;

namespace
{

// Calls redir_to_devnull with those standard descriptors closed that have a bit in `closed`, and tells what
// is not as it should be then, the result included.
std::string faults_of_redirection(unsigned closed, int out, int err, int expected_result)
{
	standard_descriptors_aside aside;
	pipe_pair files; // so that what is open is not /dev/null before
	for (int fd = 0; fd < 3; ++fd)
		if (closed & 1U << fd)
			close(fd);
		else
			dup2(fd == 0 ? files.read_end.get() : files.write_end.get(), fd);
	std::set<int> expected = open_descriptors();
	const std::string before = descriptor_target(files.read_end.get());
	int result = redir_to_devnull(out, err);
	int error = errno;

	std::string faults;
	if (result != expected_result)
		faults += "result " + std::to_string(result) + " " + strerror(error) + "; ";
	for (int fd = 0; fd < 3; ++fd) {
		std::string name = "descriptor " + std::to_string(fd);
		bool redirected = result == 0 && ((fd == 1 && out) || (fd == 2 && err));
		if (redirected)
			expected.insert(fd);
		if (redirected && descriptor_target(fd) != "/dev/null")
			faults += name + " is not redirected; ";
		if (redirected && is_closed_on_exec(fd))
			faults += name + " is closed on exec; ";
		if (redirected && (fcntl(fd, F_GETFL) & O_ACCMODE) != O_WRONLY)
			faults += name + " is not for writing only; ";
		if (!redirected && is_open(fd) && descriptor_target(fd) != before)
			faults += name + " has changed; ";
	}
	if (open_descriptors() != expected)
		faults += "other descriptors are open than should be; ";
	aside.restore();
	return faults;
}

} // namespace

TEST_F(redir_to_devnull_test, redirects_what_is_asked_for_whatever_is_closed)
{
	expect_in_child([] {
		for (unsigned closed = 0; closed < 8; ++closed)
			for (int out : {0, 1, -7})
				for (int err : {0, 1, 256})
					EXPECT_EQ(faults_of_redirection(closed, out, err, 0), "")
						<< closed << " " << out << " " << err;
	});
}

TEST_F(redir_to_devnull_test, changes_nothing_without_the_device)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, nullptr), 0) << strerror(errno);
		errno = 0;
		EXPECT_EQ(redir_to_devnull(0, 0), -1);
		EXPECT_EQ(errno, ENOENT);
		for (unsigned closed = 0; closed < 8; ++closed)
			for (int out : {0, 1})
				for (int err : {0, 1})
					EXPECT_EQ(faults_of_redirection(closed, out, err, -1), "")
						<< closed << " " << out << " " << err;
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(redir_to_devnull_test, fails_quietly_without_a_free_descriptor)
{
	child_result result = run_child([] {
		{
			no_descriptors while_it_lives;
			EXPECT_EQ(redir_to_devnull(1, 1), -1);
			EXPECT_EQ(errno, EMFILE);
		}
		write_all(1, "out");
		write_all(2, "err");
		EXPECT_THAT(messages, IsEmpty());
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "out");
	EXPECT_EQ(result.err, "err");
}

TEST_F(redir_to_devnull_test, holds_for_programs_started_later)
{
	for (int out : {0, 1})
		for (int err : {0, 1}) {
			child_result result = run_child([&] {
				EXPECT_EQ(redir_to_devnull(out, err), 0);
				EXPECT_EQ(run_shell("echo out && echo err >&2"), 0);
			});
			EXPECT_TRUE(result.exited_with(0)) << result.report();
			EXPECT_EQ(result.out, out ? "" : "out\n");
			EXPECT_EQ(result.err, err ? "" : "err\n");
		}
}

TEST_F(redir_to_devnull_test, passes_the_temporary_descriptor_to_no_other_program)
{
	for (bool closed : {false, true})
		expect_in_child([&] {
			standard_descriptors_aside aside;
			if (closed)
				close(0); // whose number the temporary descriptor then gets
			int duplicated = -1;
			bool is_closed = false;
			{
				auto watched = system_calls::dup2.replace([&](int from, int to) {
					duplicated = from;
					is_closed = is_closed_on_exec(from);
					return system_calls::dup2.next(from, to);
				});
				redir_to_devnull(1, 0);
			}
			aside.restore();
			EXPECT_EQ(duplicated == 0, closed);
			EXPECT_TRUE(is_closed);
		});
}

TEST_F(redir_to_devnull_test, can_be_repeated)
{
	expect_in_child([] {
		std::set<int> before = open_descriptors();
		standard_descriptors_aside aside;
		int failures = 0;
		for (int round = 0; round < 100; ++round)
			failures += redir_to_devnull(1, round % 2) != 0;
		aside.restore();
		EXPECT_EQ(failures, 0);
		EXPECT_EQ(open_descriptors().size(), before.size() + 3);
	});
}
