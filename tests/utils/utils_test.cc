// Programs run to their end, children signalled as a real and a made-up /proc tell of them, the console of
// made-up command lines, standard descriptors pointed at /dev/null, and the checks of JSON and hex text.
#include "lib/utils.h"

#include <memory>
#include <random>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

#include <gmock/gmock.h>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

// Each element that the library fetches from an array of JSON comes through here.
static constinit interposed<json_t *(const json_t *, size_t)> fetched_element{"json_array_get"};

extern "C" json_t *json_array_get(const json_t *array, size_t index)
{
	return fetched_element(array, index);
}

namespace
{

std::mt19937 numbers(20240607); // the same ones in every run

class utils_test : public descriptor_test
{
protected:
	void SetUp() override
	{
		memory.grant();
		log_open(LOG_DEST_SYSLOG, LOG_DAEMON, nullptr);
		messages.clear();
		descriptor_test::SetUp();
	}
	void TearDown() override
	{
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
		descriptor_test::TearDown();
	}
};
using execute_test = utils_test;
using kill_children_test = utils_test;
using get_tty_test = utils_test;
using redir_to_devnull_test = utils_test;

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

// Those of the first descriptors that another program would be passed. Needs no /proc.
std::set<int> kept_on_exec()
{
	std::set<int> fds;
	for (int fd = 0; fd < 256; ++fd)
		if (is_open(fd) && !is_closed_on_exec(fd))
			fds.insert(fd);
	return fds;
}

// Opens the writing end of a fifo; returns when a descriptor of this process is there to read it.
owned_fd open_behind_reader(const std::string &path)
{
	owned_fd fifo{open(path.c_str(), O_WRONLY | O_CLOEXEC)};
	struct stat own = {};
	EXPECT_EQ(fstat(fifo.get(), &own), 0);
	EXPECT_TRUE(eventually([&] {
		int count = 0;
		for (int fd = 0; fd < 256; ++fd) {
			struct stat about = {};
			count += fstat(fd, &about) == 0 && about.st_dev == own.st_dev &&
				 about.st_ino == own.st_ino;
		}
		return count == 2;
	}));
	return fifo;
}

// ---- Programs ----

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

pid_t exited_child(int code)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(code);
	siginfo_t info{};
	EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0) << strerror(errno);
	return pid;
}

void expect_exited(pid_t pid, int code)
{
	int status = -1;
	EXPECT_EQ(waitpid(pid, &status, WNOHANG), pid);
	EXPECT_EQ(status, code * 256);
}

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

// ---- Processes ----

namespace
{

owned_fd real_proc; // wherever it is mounted

// Runs `body` as the first process of a namespace, with the /proc that belongs to it: whatever is signalled
// there, the processes outside are safe, and those inside end with it.
void in_private_processes(const std::function<void()> &body)
{
	expect_in_child([&] {
		ASSERT_EQ(unshare(CLONE_NEWPID), 0) << strerror(errno);
		in_private_network([&] {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			ASSERT_EQ(setsid(), 1);
			ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0) << strerror(errno);
			real_proc.reset(open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC));
			body();
			real_proc.reset();
		});
	});
}

// A child in which SIGTERM stays pending. It has run `prepare` when this returns.
pid_t start_child(const std::function<void()> &prepare = nullptr)
{
	sigset_t term;
	sigemptyset(&term);
	sigaddset(&term, SIGTERM);
	pipe_pair ready;
	pid_t pid = fork();
	if (pid == 0) {
		sigprocmask(SIG_BLOCK, &term, nullptr);
		if (prepare)
			prepare();
		write_all(ready.write_end.get(), ".");
		for (;;)
			pause();
	}
	EXPECT_TRUE(wait_for(ready.read_end.get(), POLLIN));
	return pid;
}

std::string status_of(pid_t pid)
{
	owned_fd fd{openat(real_proc.get(), (std::to_string(pid) + "/status").c_str(), O_RDONLY | O_CLOEXEC)};
	EXPECT_GE(fd.get(), 0) << "no process " << pid;
	return read_all(fd.get());
}

// Which signals wait to be delivered to a process, a bit each.
unsigned long long pending(pid_t pid)
{
	std::string text = status_of(pid);
	size_t at = text.find("ShdPnd:");
	return at == std::string::npos ? ~0ULL : strtoull(text.c_str() + at + strlen("ShdPnd:"), nullptr, 16);
}

constexpr unsigned long long nothing = 0, only_term = 1ULL << (SIGTERM - 1);

void name_this_process(const std::string &name)
{
	prctl(PR_SET_NAME, name.c_str());
}

// A /proc with nothing in it; the real one comes back with its end.
class made_up_proc
{
public:
	made_up_proc() { EXPECT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0) << strerror(errno); }
	made_up_proc(const made_up_proc &) = delete;
	made_up_proc &operator=(const made_up_proc &) = delete;
	~made_up_proc() { EXPECT_EQ(umount("/proc"), 0) << strerror(errno); }
	void add(const std::string &name) { EXPECT_EQ(mkdir(("/proc/" + name).c_str(), 0755), 0) << name; }
	void add(const std::string &name, const std::string &stat)
	{
		add(name);
		EXPECT_TRUE(write_file("/proc/" + name + "/stat", stat)) << name;
	}
};

constexpr pid_t nobody = 4242; // who is the parent in a made-up /proc

std::string text_of(pid_t pid)
{
	return std::to_string(pid);
}

std::string stat_of(const std::string &pid, pid_t parent = nobody)
{
	return pid + " (name) S " + text_of(parent) + " 1 1 0 -1 4194560 0 0\n";
}

std::string stat_of(pid_t pid, pid_t parent = nobody)
{
	return stat_of(text_of(pid), parent);
}

logged kill_report(pid_t pid, int error)
{
	return {3, "error killing " + text_of(pid) + ": err=-" + std::to_string(error) + "\n"};
}

const logged failure_report = {3, "error killing children of $d.\n"};

// Nobody may be signalled for an entry of this name with this file `stat`, nor anything be logged, and the
// scan goes on behind it.
void expect_passed_over(const std::string &name, const std::string &stat)
{
	pid_t bystander = start_child(), child = start_child();
	std::string own_name = name == "BYSTANDER" ? text_of(bystander) : name;
	{
		made_up_proc proc;
		proc.add(own_name, stat);
		if (own_name != text_of(child))
			proc.add(text_of(child), stat_of(child));
		messages.clear();
		EXPECT_EQ(kill_children(nobody), 0) << "\"" << name << "\"";
		EXPECT_THAT(messages, IsEmpty()) << "\"" << name << "\"";
	}
	EXPECT_EQ(pending(bystander), nothing) << "\"" << name << "\" \"" << stat << "\"";
	EXPECT_EQ(pending(child), only_term) << "\"" << name << "\"";
	for (pid_t pid : {bystander, child}) {
		kill(pid, SIGKILL);
		EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
	}
}

} // namespace

TEST_F(kill_children_test, signals_each_child_and_nobody_else)
{
	in_private_processes([] {
		std::vector<pid_t> children, grandchildren;
		pipe_pair from_children;
		for (int count = 0; count < 5; ++count) {
			children.push_back(start_child([&] {
				pid_t pid = start_child();
				write_all(from_children.write_end.get(),
					std::string(reinterpret_cast<const char *>(&pid), sizeof(pid)));
			}));
			pid_t pid;
			ASSERT_EQ(
				read(from_children.read_end.get(), &pid, sizeof(pid)), ssize_t{sizeof(pid)});
			grandchildren.push_back(pid);
		}
		EXPECT_EQ(kill_children(getpid()), 0);
		for (pid_t pid : children)
			EXPECT_EQ(pending(pid), only_term);
		for (pid_t pid : grandchildren)
			EXPECT_EQ(pending(pid), nothing);
		EXPECT_THAT(messages, IsEmpty());

		EXPECT_EQ(kill_children(children[2]), 0) << "another's";
		for (size_t index = 0; index < grandchildren.size(); ++index)
			EXPECT_EQ(pending(grandchildren[index]), index == 2 ? only_term : nothing);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, ends_children_that_do_not_mind_the_signal)
{
	in_private_processes([] {
		std::vector<pid_t> children;
		for (int count = 0; count < 20; ++count) {
			pid_t pid = fork();
			if (pid == 0)
				for (;;)
					pause();
			children.push_back(pid);
		}
		EXPECT_EQ(kill_children(getpid()), 0);
		for (pid_t pid : children) {
			int status = -1;
			EXPECT_EQ(waitpid(pid, &status, 0), pid);
			EXPECT_EQ(status, SIGTERM);
		}
	});
}

TEST_F(kill_children_test, signals_nobody_for_a_process_without_children)
{
	in_private_processes([] {
		pid_t one = start_child(), other = start_child();
		for (pid_t parent : {one, 4242, -1, -one, INT_MAX, INT_MIN})
			EXPECT_EQ(kill_children(parent), 0) << parent;
		EXPECT_EQ(pending(one), nothing);
		EXPECT_EQ(pending(other), nothing);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, does_not_mind_children_that_have_ended)
{
	in_private_processes([] {
		pid_t ended = exited_child(3), running = start_child();
		EXPECT_EQ(kill_children(getpid()), 0);
		EXPECT_EQ(pending(running), only_term);
		EXPECT_THAT(messages, IsEmpty());
		expect_exited(ended, 3);
	});
}

TEST_F(kill_children_test, goes_on_after_a_child_that_cannot_be_signalled)
{
	in_private_processes([] {
		auto become_another_user = [] { EXPECT_EQ(setresuid(12345, 12345, 12345), 0); };
		pid_t first = start_child(), others = start_child(become_another_user),
		      second = start_child(), others_too = start_child(become_another_user),
		      third = start_child();
		{
			without_capability while_it_lives{CAP_KILL};
			EXPECT_EQ(kill_children(getpid()), 0);
		}
		for (pid_t pid : {first, second, third})
			EXPECT_EQ(pending(pid), only_term);
		for (pid_t pid : {others, others_too})
			EXPECT_EQ(pending(pid), nothing);
		EXPECT_THAT(messages, testing::UnorderedElementsAre(
					      kill_report(others, EPERM), kill_report(others_too, EPERM)));
	});
}

TEST_F(kill_children_test, copes_with_processes_that_come_and_go)
{
	in_private_processes([] {
		pid_t steady = start_child();
		pid_t parent_of_many = fork();
		if (parent_of_many == 0)
			for (;;) {
				pid_t pid = fork();
				if (pid == 0)
					_exit(0);
				while (waitpid(pid, nullptr, 0) < 0)
					;
			}
		for (int round = 0; round < 300; ++round)
			ASSERT_EQ(kill_children(parent_of_many), 0);
		EXPECT_EQ(pending(steady), nothing);
		for (const logged &message : messages) {
			EXPECT_EQ(message.priority, 3);
			EXPECT_THAT(message.text,
				testing::MatchesRegex(
					"error stat /proc/[0-9]+: err=-2\n|error killing [0-9]+: err=-3\n"));
		}
	});
}

TEST_F(kill_children_test, misses_a_child_whose_name_has_a_blank)
{
	in_private_processes([] {
		pid_t blank = start_child([] { name_this_process("a b"); });
		pid_t brackets = start_child([] { name_this_process(") S 1 ("); });
		pid_t strange = start_child([] { name_this_process("%d)(\t"); });
		pid_t plain = start_child([] { name_this_process("()"); });
		EXPECT_EQ(kill_children(getpid()), 0);
		EXPECT_EQ(pending(blank), nothing);
		EXPECT_EQ(pending(brackets), only_term)
			<< "the number after the state is taken for the parent's";
		EXPECT_EQ(pending(strange), nothing);
		EXPECT_EQ(pending(plain), only_term);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, may_take_such_a_child_for_anothers)
{
	in_private_processes([] {
		pid_t child = start_child([] { name_this_process("a S 4242 "); });
		EXPECT_EQ(kill_children(nobody), 0);
		EXPECT_EQ(pending(child), only_term);
	});
}

TEST_F(kill_children_test, finds_nobody_in_an_empty_proc)
{
	in_private_processes([] {
		made_up_proc proc;
		EXPECT_EQ(kill_children(nobody), 0);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, takes_the_parent_from_the_file_stat)
{
	in_private_processes([] {
		pid_t child = start_child(), anothers = start_child();
		{
			made_up_proc proc;
			proc.add(text_of(child), stat_of(child));
			proc.add(text_of(anothers), stat_of(anothers, nobody + 1));
			EXPECT_EQ(kill_children(nobody), 0);
		}
		EXPECT_EQ(pending(child), only_term);
		EXPECT_EQ(pending(anothers), nothing);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, passes_over_names_that_are_not_entirely_a_number)
{
	in_private_processes([] {
		pid_t bystander = start_child();
		std::string number = text_of(bystander), stat = stat_of(bystander);
		char hexadecimal[16];
		snprintf(hexadecimal, sizeof(hexadecimal), "0x%x", static_cast<unsigned>(bystander));
		for (const std::string &name : {"x" + number, number + "x", number + " ", number + "\n",
			     number + ".0", number + "-", std::string(hexadecimal), std::string("self"),
			     std::string("+"), std::string("-"), std::string(" "), "+ " + number,
			     "--" + number, "+-" + number, std::string("%d"), number + "," + number})
			expect_passed_over(name, stat);
		EXPECT_EQ(pending(bystander), nothing);
	});
}

TEST_F(kill_children_test, takes_a_number_as_scanf_reads_it)
{
	in_private_processes([] {
		for (const std::string before :
			{"+", " ", "0", "\t\n +00", "0000000000000000000000000000000"}) {
			pid_t child = start_child();
			{
				made_up_proc proc;
				proc.add(before + text_of(child), stat_of(child));
				EXPECT_EQ(kill_children(nobody), 0);
			}
			EXPECT_EQ(pending(child), only_term) << "\"" << before << "\"";
		}
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, takes_a_name_of_any_length)
{
	in_private_processes([] {
		pid_t child = start_child();
		std::string number = text_of(child);
		{
			made_up_proc proc;
			proc.add(std::string(255 - number.size(), '0') + number, stat_of(child));
			proc.add(std::string(255, '9'), stat_of(child));
			EXPECT_EQ(kill_children(nobody), 0);
		}
		EXPECT_EQ(pending(child), only_term);
		EXPECT_THAT(messages, IsEmpty());
	});
}

// Other file systems than the kernel's own have longer ones than a folder's entry has room for.
TEST_F(kill_children_test, passes_over_names_longer_than_any_of_a_process)
{
	struct {
		dirent64 entry;
		char more[1024];
	} long_one = {};
	memset(long_one.entry.d_name, '0', sizeof(long_one) - offsetof(dirent64, d_name) - 2);
	for (size_t length : {256u, 257u, 261u, 270u, 290u, 1000u}) {
		int count = 0;
		std::string name = std::string(length - 1, '0') + "7";
		memcpy(long_one.entry.d_name, name.c_str(), name.size() + 1);
		auto directories = system_calls::lstat64.replace([](const char *, struct stat64 *about) {
			about->st_mode = S_IFDIR;
			return 0;
		});
		auto entries = system_calls::readdir64.replace(
			[&](DIR *) { return count++ ? nullptr : &long_one.entry; });
		EXPECT_EQ(kill_children(nobody), 0) << length;
	}
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(kill_children_test, never_signals_a_group)
{
	in_private_processes([] {
		pid_t bystander = start_child();
		pid_t leader = start_child([] { setpgid(0, 0); });
		for (const std::string name : {"-1", "0", "-0", "00", "+0", "-2147483648", "-2147483647"})
			expect_passed_over(name, stat_of(name));
		expect_passed_over("-" + text_of(leader), stat_of("-" + text_of(leader)));
		EXPECT_EQ(pending(bystander), nothing);
		EXPECT_EQ(pending(leader), nothing);
	});
}

TEST_F(kill_children_test, never_signals_what_remains_of_a_number_that_is_too_large)
{
	in_private_processes([] {
		pid_t bystander = start_child();
		const std::string wrapped[] = {std::to_string((1LL << 32) + bystander),
			std::to_string(-(1LL << 32) + bystander), "4294967295", "4294967296", "2147483648",
			"-2147483649", "9223372036854775807", "9223372036854775808", "18446744073709551615",
			"-9223372036854775808", "99999999999999999999999999"};
		for (const std::string &name : wrapped) {
			expect_passed_over(name, stat_of(name));
			expect_passed_over(name, stat_of(bystander));
			expect_passed_over(name, stat_of("-1"));
		}
		EXPECT_EQ(pending(bystander), nothing);
	});
}

TEST_F(kill_children_test, passes_over_an_entry_that_tells_of_another_process)
{
	in_private_processes([] {
		pid_t bystander = start_child();
		for (const std::string &name : {text_of(30'000), text_of(bystander + 1), std::string("1")})
			expect_passed_over(name, stat_of(bystander));
		EXPECT_EQ(pending(bystander), nothing);
	});
}

TEST_F(kill_children_test, passes_over_a_malformed_file_stat)
{
	in_private_processes([] {
		const std::string parent = text_of(nobody);
		for (const std::string &rest :
			{std::string(), std::string(" "), std::string(" (name)"), std::string(" (name) S"),
				std::string(" (name) S x"), std::string(" (name) S -"), " (a b) S " + parent,
				" (name) SS " + parent, " (name) " + parent, std::string("\n")}) {
			pid_t bystander = start_child();
			{
				made_up_proc proc;
				proc.add(text_of(bystander), text_of(bystander) + rest);
				EXPECT_EQ(kill_children(nobody), 0);
			}
			EXPECT_EQ(pending(bystander), nothing) << rest;
		}
		for (const std::string &stat :
			{std::string(), std::string("\n"), "x (name) S " + parent, "(name) S " + parent})
			expect_passed_over("BYSTANDER", stat);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, passes_over_what_is_no_folder)
{
	in_private_processes([] {
		pid_t by_file = start_child(), by_link = start_child(), child = start_child();
		{
			made_up_proc proc;
			EXPECT_TRUE(write_file("/proc/" + text_of(by_file), stat_of(by_file)));
			proc.add("folder", stat_of(by_link));
			EXPECT_EQ(symlink("folder", ("/proc/" + text_of(by_link)).c_str()), 0);
			proc.add(text_of(child), stat_of(child));
			EXPECT_EQ(kill_children(nobody), 0);
		}
		EXPECT_EQ(pending(by_file), nothing);
		EXPECT_EQ(pending(by_link), nothing);
		EXPECT_EQ(pending(child), only_term);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, passes_over_a_file_stat_that_cannot_be_read)
{
	in_private_processes([] {
		pid_t without = start_child(), folder = start_child(), broken = start_child();
		{
			made_up_proc proc;
			proc.add(text_of(without));
			proc.add(text_of(folder));
			proc.add(text_of(folder) + "/stat");
			proc.add(text_of(broken));
			EXPECT_EQ(symlink("nowhere", ("/proc/" + text_of(broken) + "/stat").c_str()), 0);
			EXPECT_EQ(kill_children(nobody), 0) << "an error before the end is not the scan's";
		}
		for (pid_t pid : {without, folder, broken})
			EXPECT_EQ(pending(pid), nothing);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, reports_an_entry_that_vanishes_before_it_is_looked_at)
{
	in_private_processes([] {
		pid_t child = start_child();
		{
			made_up_proc proc;
			proc.add("30000", stat_of(30'000));
			proc.add(text_of(child), stat_of(child));
			auto entries = system_calls::readdir64.replace([](DIR *directory) {
				dirent64 *entry = system_calls::readdir64.next(directory);
				if (entry && !strcmp(entry->d_name, "30000")) {
					unlink("/proc/30000/stat");
					rmdir("/proc/30000");
				}
				return entry;
			});
			EXPECT_EQ(kill_children(nobody), 0);
		}
		EXPECT_EQ(pending(child), only_term);
		EXPECT_THAT(messages, ElementsAre(logged{3, "error stat /proc/30000: err=-2\n"}));
	});
}

TEST_F(kill_children_test, reports_a_child_that_vanishes_before_it_is_signalled)
{
	in_private_processes([] {
		pid_t child = start_child();
		{
			made_up_proc proc;
			proc.add("30000", stat_of(30'000));
			proc.add(text_of(child), stat_of(child));
			proc.add("30001", stat_of(30'001));
			EXPECT_EQ(kill_children(nobody), 0);
		}
		EXPECT_EQ(pending(child), only_term);
		EXPECT_THAT(messages, testing::UnorderedElementsAre(
					      kill_report(30'000, ESRCH), kill_report(30'001, ESRCH)));
	});
}

TEST_F(kill_children_test, reports_a_scan_that_fails)
{
	in_private_processes([] {
		pid_t first = start_child(), second = start_child();
		std::set<int> before = open_descriptors();
		{
			made_up_proc proc;
			for (pid_t pid : {first, second})
				proc.add(text_of(pid), stat_of(pid));
			int children = 0;
			auto entries = system_calls::readdir64.replace([&](DIR *directory) -> dirent64 * {
				dirent64 *entry = system_calls::readdir64.next(directory);
				if (entry && entry->d_name[0] != '.' && ++children == 2) {
					errno = EIO;
					return nullptr;
				}
				return entry;
			});
			EXPECT_EQ(kill_children(nobody), -1);
		}
		EXPECT_EQ(pending(first) + pending(second), only_term) << "the one that was found";
		EXPECT_THAT(
			messages, ElementsAre(logged{3, "error scanning proc: err=-5\n"}, failure_report));
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(kill_children_test, is_not_misled_by_an_old_error)
{
	in_private_processes([] {
		made_up_proc proc;
		for (int number = 30'000; number < 30'010; ++number)
			proc.add(text_of(number));
		int wrong = 0;
		auto entries = system_calls::readdir64.replace([&](DIR *directory) {
			dirent64 *entry = system_calls::readdir64.next(directory);
			if (!entry && errno)
				wrong++;
			return entry;
		});
		errno = EIO;
		EXPECT_EQ(kill_children(nobody), 0);
		EXPECT_EQ(wrong, 0);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(kill_children_test, reports_that_there_is_no_proc)
{
	char root[] = "/tmp/apbase-utils-XXXXXX";
	ASSERT_TRUE(mkdtemp(root));
	expect_in_child([&] {
		ASSERT_EQ(chroot(root), 0) << strerror(errno);
		EXPECT_EQ(kill_children(getpid()), -1);
		EXPECT_THAT(messages, ElementsAre(logged{3, "cannot open /proc: err=-2\n"}, failure_report));
	});
	rmdir(root);
}

TEST_F(kill_children_test, reports_why_proc_cannot_be_opened)
{
	{
		no_descriptors while_it_lives;
		EXPECT_EQ(kill_children(4242), -1);
	}
	EXPECT_THAT(messages, ElementsAre(logged{3, "cannot open /proc: err=-24\n"}, failure_report));
	messages.clear();
	memory.refuse(0);
	EXPECT_EQ(kill_children(4242), -1);
	EXPECT_THAT(messages, ElementsAre(logged{3, "cannot open /proc: err=-12\n"}, failure_report));
}

TEST_F(kill_children_test, closes_what_it_opens)
{
	in_private_processes([] {
		start_child();
		std::set<int> before = open_descriptors();
		for (int round = 0; round < 10; ++round)
			EXPECT_EQ(kill_children(getpid()), 0);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(kill_children_test, passes_no_descriptor_to_other_programs)
{
	in_private_processes([] {
		const std::set<int> before = kept_on_exec();
		pid_t child = start_child();
		{
			made_up_proc proc;
			proc.add(text_of(child));
			const std::string path = "/proc/" + text_of(child) + "/stat";
			ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
			std::thread writer([&] {
				owned_fd fifo = open_behind_reader(path);
				EXPECT_EQ(kept_on_exec(), before) << "with /proc and this file open";
				write_all(fifo.get(), stat_of(child));
			});
			EXPECT_EQ(kill_children(nobody), 0);
			writer.join();
		}
		EXPECT_EQ(pending(child), only_term);
	});
}

// ---- The console ----

namespace
{

// What get_tty finds on this command line; "(null)" if nothing.
std::string tty_on(const std::string &command_line)
{
	EXPECT_TRUE(replace_file("/proc/cmdline", command_line)) << strerror(errno);
	std::unique_ptr<char, void (*)(void *)> tty(get_tty(), free);
	EXPECT_EQ(umount("/proc/cmdline"), 0);
	EXPECT_THAT(messages, IsEmpty());
	return tty ? tty.get() : "(null)";
}

} // namespace

TEST_F(get_tty_test, ends_at_the_first_comma)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("console=ttyS0,115200\n"), "ttyS0");
		EXPECT_EQ(tty_on("root=/dev/mtdblock2 console=ttyS0,115200 quiet\n"), "ttyS0");
		EXPECT_EQ(tty_on("console=ttyS0,115200,n8\n"), "ttyS0");
		EXPECT_EQ(tty_on("console=,115200\n"), "");
	});
}

TEST_F(get_tty_test, ends_at_a_comma_of_a_later_parameter)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("console=ttyS0 foo=a,b\n"), "ttyS0 foo=a");
		EXPECT_EQ(tty_on("console=tty0 console=ttyS0,115200\n"), "tty0 console=ttyS0");
		EXPECT_EQ(tty_on("console=ttyS0 ,\n"), "ttyS0 ");
	});
}

TEST_F(get_tty_test, ends_at_the_first_blank_without_any_comma)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("console=ttyS0 quiet\n"), "ttyS0");
		EXPECT_EQ(tty_on("console=ttyS0 quiet rw\n"), "ttyS0");
		EXPECT_EQ(tty_on("console= ttyS0\n"), "");
	});
}

TEST_F(get_tty_test, is_not_ended_by_what_stands_before)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("mtdparts=a,b,c console=ttyS0 quiet\n"), "ttyS0");
		EXPECT_EQ(tty_on("mtdparts=a,b,c quiet console=ttyS0\n"), "ttyS0\n");
	});
}

TEST_F(get_tty_test, is_the_rest_with_its_line_feed_without_either)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("console=ttyS0\n"), "ttyS0\n");
		EXPECT_EQ(tty_on("quiet console=ttyS0\n"), "ttyS0\n");
		EXPECT_EQ(tty_on("quiet console=ttyS0"), "ttyS0");
		EXPECT_EQ(tty_on("console=\n"), "\n");
		EXPECT_EQ(tty_on("console="), "");
	});
}

TEST_F(get_tty_test, takes_the_first_console)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("console=tty0 console=ttyS0\n"), "tty0");
		EXPECT_EQ(tty_on("console=console=x\n"), "console=x\n");
		EXPECT_EQ(tty_on("netconsole=@/eth0 console=ttyS0\n"), "@/eth0");
	});
}

TEST_F(get_tty_test, is_null_without_a_console)
{
	in_private_network([] {
		for (const char *line : {"", "\n", "quiet\n", "console\n", "console ttyS0\n",
			     "CONSOLE=ttyS0\n", "consol=e\n"})
			EXPECT_EQ(tty_on(line), "(null)") << line;
	});
}

TEST_F(get_tty_test, looks_at_the_first_line_only)
{
	in_private_network([] {
		EXPECT_EQ(tty_on("quiet\nconsole=ttyS0\n"), "(null)");
		EXPECT_EQ(tty_on("\nconsole=ttyS0\n"), "(null)");
		EXPECT_EQ(tty_on("console=ttyS0\na,b\n"), "ttyS0\n");
		EXPECT_EQ(tty_on(std::string("console=tty\0more,\n", 18)), "tty");
	});
}

TEST_F(get_tty_test, looks_at_255_characters_only)
{
	in_private_network([] {
		auto line = [](size_t before, const std::string &rest) {
			return std::string(before, 'x') + rest;
		};
		EXPECT_EQ(tty_on(line(242, "console=ttyS0\n")), "ttyS0") << "the line feed is the 256th";
		EXPECT_EQ(tty_on(line(241, "console=ttyS0\n")), "ttyS0\n");
		EXPECT_EQ(tty_on(line(243, "console=ttyS0\n")), "ttyS");
		EXPECT_EQ(tty_on(line(247, "console=ttyS0\n")), "");
		EXPECT_EQ(tty_on(line(248, "console=ttyS0\n")), "(null)");
		EXPECT_EQ(tty_on(line(255, "console=ttyS0\n")), "(null)");
		EXPECT_EQ(tty_on(line(5000, "console=ttyS0\n")), "(null)");
		EXPECT_EQ(tty_on("console=ttyS0 " + line(240, ",\n")), "ttyS0 " + line(240, ""));
		EXPECT_EQ(tty_on("console=ttyS0 " + line(241, ",\n")), "ttyS0") << "the comma is the 256th";
		EXPECT_EQ(tty_on("console=" + line(5000, "\n")), line(247, ""));
	});
}

TEST_F(get_tty_test, is_null_if_the_command_line_cannot_be_read)
{
	in_private_processes([] {
		{
			made_up_proc proc;
			EXPECT_EQ(get_tty(), nullptr);
			proc.add("cmdline");
			EXPECT_EQ(get_tty(), nullptr);
		}
		{
			no_descriptors while_it_lives;
			EXPECT_EQ(get_tty(), nullptr);
		}
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(get_tty_test, is_null_when_memory_is_exhausted)
{
	in_private_network([] {
		for (const char *line : {"console=ttyS0,115200\n", "console=ttyS0\n"}) {
			ASSERT_TRUE(replace_file("/proc/cmdline", line)) << strerror(errno);
			int failures = 0;
			bool refused = true;
			for (int request = 0; refused && request < 20; ++request) {
				memory.refuse(request);
				std::unique_ptr<char, void (*)(void *)> tty(get_tty(), free);
				memory.grant();
				refused = memory.refused;
				failures += !tty;
			}
			EXPECT_EQ(umount("/proc/cmdline"), 0);
			EXPECT_FALSE(refused);
			EXPECT_GE(failures, 2) << "the file and the copy need memory";
		}
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(get_tty_test, closes_the_file_on_every_path)
{
	in_private_network([] {
		std::set<int> before = open_descriptors();
		for (const char *line : {"console=ttyS0,1\n", "console=ttyS0\n", "quiet\n", ""})
			tty_on(line);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(get_tty_test, passes_the_file_to_no_other_program)
{
	in_private_processes([] {
		const std::set<int> before = kept_on_exec();
		made_up_proc proc;
		ASSERT_EQ(mkfifo("/proc/cmdline", 0600), 0);
		std::thread writer([&] {
			owned_fd fifo = open_behind_reader("/proc/cmdline");
			EXPECT_EQ(kept_on_exec(), before);
			write_all(fifo.get(), "console=ttyS0,115200\n");
		});
		std::unique_ptr<char, void (*)(void *)> tty(get_tty(), free);
		EXPECT_STREQ(tty.get(), "ttyS0");
		writer.join();
	});
}

// ---- Standard descriptors ----

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

// ---- JSON ----

namespace
{

using json_owner = std::unique_ptr<json_t, void (*)(json_t *)>;

json_owner parsed(const std::string &text)
{
	json_t *value = json_loads(text.c_str(), JSON_DECODE_ANY, nullptr);
	EXPECT_NE(value, nullptr) << text;
	return json_owner(value, json_decref);
}

int check(const std::string &text, json_type type)
{
	return json_array_elements_type_check(parsed(text).get(), type);
}

const struct {
	json_type type;
	const char *text;
} json_values[] = {{JSON_OBJECT, "{\"a\": [1]}"}, {JSON_ARRAY, "[1, \"a\"]"}, {JSON_STRING, "\"text\""},
	{JSON_INTEGER, "1"}, {JSON_REAL, "1.0"}, {JSON_TRUE, "true"}, {JSON_FALSE, "false"},
	{JSON_NULL, "null"}};

using json_array_elements_type_check_test = testing::Test;

} // namespace

TEST_F(json_array_elements_type_check_test, holds_if_all_elements_have_the_type)
{
	EXPECT_EQ(check("[\"a\", \"b\"]", JSON_STRING), 1);
	for (const auto &value : json_values)
		for (const auto &asked : json_values) {
			std::string one = value.text;
			EXPECT_EQ(check("[" + one + "]", asked.type), value.type == asked.type) << one;
			EXPECT_EQ(check("[" + one + "," + one + "," + one + "]", asked.type),
				value.type == asked.type)
				<< one;
		}
}

TEST_F(json_array_elements_type_check_test, fails_for_one_other_element_anywhere)
{
	EXPECT_EQ(check("[\"a\", 1]", JSON_STRING), 0);
	for (const auto &value : json_values)
		for (const auto &other : json_values)
			for (int place = 0; place < 4 && value.type != other.type; ++place) {
				std::string text;
				for (int index = 0; index < 4; ++index)
					text += std::string(index ? "," : "[") +
						(index == place ? other.text : value.text);
				EXPECT_EQ(check(text + "]", value.type), 0) << text;
			}
}

TEST_F(json_array_elements_type_check_test, holds_for_an_empty_array)
{
	for (const auto &asked : json_values)
		EXPECT_EQ(check("[]", asked.type), 1);
}

TEST_F(json_array_elements_type_check_test, fails_for_what_is_no_array)
{
	for (const auto &asked : json_values) {
		for (const auto &value : json_values)
			if (value.type != JSON_ARRAY) {
				EXPECT_EQ(check(value.text, asked.type), 0) << value.text;
			}
		EXPECT_EQ(check("{}", asked.type), 0);
		EXPECT_EQ(check("{\"0\": \"a\"}", asked.type), 0);
		EXPECT_EQ(json_array_elements_type_check(nullptr, asked.type), 0);
	}
}

TEST_F(json_array_elements_type_check_test, does_not_look_into_elements)
{
	EXPECT_EQ(check("[[1], [\"a\"], []]", JSON_ARRAY), 1);
	EXPECT_EQ(check("[[\"a\"], [\"b\"]]", JSON_STRING), 0);
}

TEST_F(json_array_elements_type_check_test, ends_well_where_no_element_can_be_fetched)
{
	json_owner array = parsed("[\"a\", \"b\", 3]");
	size_t left = 2; // elements that can be fetched
	auto fetched = fetched_element.replace([&](const json_t *from, size_t index) {
		return left == 0 ? nullptr : (left--, fetched_element.next(from, index));
	});
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_STRING), 1);
	left = 3;
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_STRING), 0);
}

TEST_F(json_array_elements_type_check_test, takes_no_reference)
{
	json_owner array = parsed("[\"a\", \"b\"]");
	json_t *element = json_array_get(array.get(), 0);
	json_array_elements_type_check(array.get(), JSON_STRING);
	json_array_elements_type_check(array.get(), JSON_TRUE);
	EXPECT_EQ(array->refcount, 1U);
	EXPECT_EQ(element->refcount, 1U);
}

TEST_F(json_array_elements_type_check_test, takes_arrays_of_any_length)
{
	json_owner array(json_array(), json_decref);
	for (int index = 0; index < 10'000; ++index)
		json_array_append_new(array.get(), json_integer(index));
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_INTEGER), 1);
	json_array_append_new(array.get(), json_real(1));
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_INTEGER), 0);
}

// ---- Hex text ----

namespace
{

std::string hex_of(const std::vector<unsigned char> &bytes, const char *digits = "0123456789abcdef")
{
	std::string text;
	for (unsigned char byte : bytes)
		text += {digits[byte / 16], digits[byte % 16]};
	return text;
}

int spells(const std::string &hex, const std::vector<unsigned char> &bytes)
{
	return hex_bin_equal(hex.c_str(), bytes.data(), static_cast<int>(bytes.size()));
}

} // namespace

TEST(hex_bin_equal_test, holds_for_exactly_the_byte_that_is_spelt)
{
	for (unsigned spelt = 0; spelt < 256; ++spelt)
		for (unsigned byte = 0; byte < 256; ++byte)
			ASSERT_EQ(spells(hex_of({static_cast<unsigned char>(spelt)}),
					  {static_cast<unsigned char>(byte)}),
				spelt == byte)
				<< spelt << " " << byte;
}

TEST(hex_bin_equal_test, takes_lower_case_only)
{
	EXPECT_EQ(spells("0a", {0x0a}), 1);
	EXPECT_EQ(spells("0A", {0x0a}), 0);
	EXPECT_EQ(spells("aB", {0xab}), 0);
	EXPECT_EQ(spells("00FF", {0x00, 0xff}), 0);
	for (unsigned byte = 0; byte < 256; ++byte) {
		std::vector<unsigned char> bytes = {static_cast<unsigned char>(byte)};
		bool has_letters = byte % 16 > 9 || byte / 16 > 9;
		EXPECT_EQ(spells(hex_of(bytes, "0123456789ABCDEF"), bytes), !has_letters) << byte;
	}
}

TEST(hex_bin_equal_test, holds_for_no_bytes_and_an_empty_text)
{
	const unsigned char bin[] = {1};
	EXPECT_EQ(hex_bin_equal("", bin, 0), 1);
	EXPECT_EQ(hex_bin_equal("", nullptr, 0), 1);
	EXPECT_EQ(hex_bin_equal("0", bin, 0), 0);
	EXPECT_EQ(hex_bin_equal("01", bin, 0), 0);
}

TEST(hex_bin_equal_test, fails_for_every_other_length_of_the_text)
{
	const unsigned char bin[] = {0x12, 0x34, 0x56};
	for (const char *hex : {"", "1", "12", "123", "1234", "12345", "1234567", "12345678", "123456123456"})
		EXPECT_EQ(hex_bin_equal(hex, bin, 3), 0) << hex;
	EXPECT_EQ(hex_bin_equal("123456", bin, 3), 1);
	EXPECT_EQ(hex_bin_equal("123456", bin, 2), 0);
}

TEST(hex_bin_equal_test, fails_for_a_negative_length)
{
	const unsigned char bin[] = {0x12};
	for (int length : {-1, -2, INT_MIN, INT_MIN + 1, INT_MIN / 2})
		for (const char *hex : {"", "1", "12", "1234"})
			EXPECT_EQ(hex_bin_equal(hex, bin, length), 0) << length << " " << hex;
}

TEST(hex_bin_equal_test, is_exact_at_the_end_of_the_range_of_lengths)
{
	const unsigned char bin[] = {0x12};
	for (int length : {INT_MAX, INT_MAX - 1, 0x40000000, 0x40000001})
		for (const char *hex : {"", "1", "12", "1234"})
			EXPECT_EQ(hex_bin_equal(hex, bin, length), 0) << length << " " << hex;
}

TEST(hex_bin_equal_test, takes_no_blanks_separators_or_signs)
{
	for (const char *hex :
		{" 1", "1 ", "0x", "+1", "-1", "\n1", "1\n", ":1", "%1", "g1", "1g", "\xb1\xb1", "/1", "`1"})
		EXPECT_EQ(spells(hex, {0x01}), 0) << hex;
	EXPECT_EQ(spells("12:34", {0x12, 0x34}), 0);
	EXPECT_EQ(spells("0x1234", {0x12, 0x34}), 0);
	EXPECT_EQ(spells("12 34 ", {0x12, 0x34, 0x00}), 0);
}

TEST(hex_bin_equal_test, finds_a_difference_in_any_digit)
{
	std::vector<unsigned char> bytes(64);
	for (unsigned char &byte : bytes)
		byte = static_cast<unsigned char>(numbers());
	const std::string text = hex_of(bytes);
	EXPECT_EQ(spells(text, bytes), 1);
	for (size_t place = 0; place < text.size(); ++place)
		for (int value = 1; value < 256; ++value) {
			std::string other = text;
			other[place] = static_cast<char>(value);
			ASSERT_EQ(spells(other, bytes), other == text) << place << " " << value;
		}
}

TEST(hex_bin_equal_test, takes_zero_bytes_as_any_other)
{
	EXPECT_EQ(spells("000000", {0, 0, 0}), 1);
	EXPECT_EQ(spells("000001", {0, 0, 0}), 0);
	EXPECT_EQ(spells("610062", {'a', 0, 'b'}), 1);
}
