// Messages at each destination with their exact bytes, the decisions of the first message, the rate limit,
// the fatal reports, and the allocation that never fails.
//
// The logging state is a process's, so every case has a child of its own. Its /dev and /proc are directories
// that the test has made, mounted in a private namespace (which takes root): what it writes to /dev/kmsg and
// /dev/log comes back to the test.
#include "lib/log.h"

#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <initializer_list>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "lib/time.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"

// The compiler warns of %m, which is not ISO C++; it is what some of these tests are about.
#pragma GCC diagnostic ignored "-Wformat"

namespace
{

using support::child_result;
using support::owned_fd;
using lines = std::vector<std::string>;

// The surroundings of one child: /dev with a kernel log, a syslog socket and a console, and /proc with a
// status. A file of another kind, or none, may be put in their place before the child starts.
class scene
{
	std::string dir_;
	owned_fd kmsg_, log_;
	bool own_proc_ = true;

	void forget(const char *name) const { remove((dir_ + name).c_str()); }

public:
	scene()
	{
		char name[] = "/tmp/apbase-log-XXXXXX";
		EXPECT_TRUE(mkdtemp(name)) << strerror(errno);
		dir_ = name;
		for (const char *part : {"/dev", "/proc", "/proc/self"})
			EXPECT_EQ(mkdir(path(part).c_str(), 0755), 0) << strerror(errno);
		EXPECT_EQ(mkfifo(path("/dev/kmsg").c_str(), 0600), 0) << strerror(errno);
		kmsg_.reset(open(path("/dev/kmsg").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
		EXPECT_TRUE(support::write_file(path("/dev/console"), ""));
		set_status("Name:\tdaemon\nUmask:\t0022\n");

		log_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
		sockaddr_un address{};
		address.sun_family = AF_UNIX;
		strncpy(address.sun_path, path("/dev/log").c_str(), sizeof address.sun_path - 1);
		EXPECT_EQ(bind(log_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0)
			<< strerror(errno);
	}
	scene(const scene &) = delete;
	scene &operator=(const scene &) = delete;
	~scene()
	{
		for (const char *name : {"/dev/kmsg", "/dev/log", "/dev/console", "/dev", "/proc/self/status",
			     "/proc/self", "/proc", ""})
			forget(name);
	}

	std::string path(const char *name) const { return dir_ + name; }

	void set_status(const std::string &text) const
	{
		EXPECT_TRUE(support::write_file(path("/proc/self/status"), text));
	}
	void use_real_proc() { own_proc_ = false; }
	void drop_status() const { forget("/proc/self/status"); }
	void make_status_a_directory() const
	{
		drop_status();
		EXPECT_EQ(mkdir(path("/proc/self/status").c_str(), 0755), 0);
	}
	void drop_syslog() const { forget("/dev/log"); }
	void make_kmsg_a_file(const std::string &text) const
	{
		forget("/dev/kmsg");
		EXPECT_TRUE(support::write_file(path("/dev/kmsg"), text));
	}
	void make_kmsg_a_directory() const
	{
		forget("/dev/kmsg");
		EXPECT_EQ(mkdir(path("/dev/kmsg").c_str(), 0755), 0);
	}

	// In the child: from here on /dev and /proc are ours.
	bool enter() const
	{
		rlimit none = {0, 0};
		setrlimit(RLIMIT_CORE, &none); // some cases end by abort
		if (unshare(CLONE_NEWNS) < 0 ||
			mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)
			return false;
		if (own_proc_ && mount(path("/proc").c_str(), "/proc", nullptr, MS_BIND, nullptr) < 0)
			return false;
		return mount(path("/dev").c_str(), "/dev", nullptr, MS_BIND, nullptr) == 0;
	}

	child_result run(const std::function<void()> &body) const
	{
		return support::run_child([&] {
			if (enter())
				body();
			else
				ADD_FAILURE() << "no private mounts: " << strerror(errno);
		});
	}

	// As run, for what is to end well.
	child_result log(const std::function<void()> &body) const
	{
		child_result result = run(body);
		EXPECT_TRUE(result.exited_with(0)) << result.report();
		return result;
	}

	// What came since the last time.
	std::string kmsg() const { return support::read_available(kmsg_.get()); }
	std::string console() const { return support::read_file(path("/dev/console")); }
	lines syslog() const
	{
		lines datagrams;
		char bytes[8192];
		ssize_t count;
		while ((count = recv(log_.get(), bytes, sizeof bytes, MSG_DONTWAIT)) >= 0)
			datagrams.push_back(without_time({bytes, static_cast<size_t>(count)}));
		return datagrams;
	}

private:
	// "<30>Nov  1 12:00:00 name: text" as "<30>name: text".
	static std::string without_time(std::string text)
	{
		size_t begin = text.find('>') + 1;
		const std::string shape = "Aaa d0 00:00:00 ";
		for (size_t index = 0; index < shape.size(); index++) {
			char found = begin + index < text.size() ? text[begin + index] : '\0';
			bool fits = shape[index] == 'A'   ? isupper(found)
				    : shape[index] == 'a' ? islower(found)
				    : shape[index] == 'd' ? found == ' ' || isdigit(found)
				    : shape[index] == '0' ? isdigit(found)
							  : found == shape[index];
			if (!fits)
				return "no time in " + text;
		}
		return text.erase(begin, shape.size());
	}
};

// A terminal that passes bytes on unchanged.
struct terminal {
	owned_fd master, slave;

	terminal()
	{
		int fds[2] = {-1, -1};
		EXPECT_EQ(openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr), 0) << strerror(errno);
		master.reset(fds[0]);
		slave.reset(fds[1]);
		termios settings{};
		tcgetattr(fds[1], &settings);
		cfmakeraw(&settings);
		tcsetattr(fds[1], TCSANOW, &settings);
	}
	// In the child: standard output is this terminal, or a file that is none.
	void become_stdout() const { dup2(slave.get(), STDOUT_FILENO); }
	std::string text() const { return support::read_available(master.get()); }
};

int lowest_free_descriptor()
{
	int fd = dup(STDIN_FILENO);
	if (fd < 0)
		fd = memfd_create("probe", 0);
	close(fd);
	return fd;
}

constexpr char no_ptrace[] = "the emulator has no ptrace";

// The system calls with which `body` writes its messages, in a traced child: "open kmsg", "write kmsg 12",
// "close kmsg", "write stderr 12", "send 30".
lines trace(const scene &s, const std::function<void()> &body)
{
	fflush(nullptr);
	pid_t pid = fork();
	if (pid == 0) {
		alarm(60);
		if (!s.enter() || dup2(memfd_create("stderr", 0), STDERR_FILENO) < 0 ||
			ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) < 0)
			_exit(99);
		raise(SIGSTOP);
		body();
		_exit(0);
	}
	int status = 0;
	waitpid(pid, &status, 0);
	EXPECT_TRUE(WIFSTOPPED(status)) << "cannot trace: wait status " << status;
	if (!WIFSTOPPED(status))
		return {};
	ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);

	lines calls;
	int kmsg = -1;
	bool opens_kmsg = false;
	while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
		WIFSTOPPED(status)) {
		__ptrace_syscall_info info{};
		if (WSTOPSIG(status) != (SIGTRAP | 0x80) ||
			ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0)
			continue;
		if (info.op == PTRACE_SYSCALL_INFO_EXIT && opens_kmsg) {
			kmsg = static_cast<int>(info.exit.rval);
			opens_kmsg = false;
		}
		if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
			continue;
		int fd = static_cast<int>(info.entry.args[0]);
		std::string file = fd == kmsg ? "kmsg" : fd == STDERR_FILENO ? "stderr" : "another file";
		if (info.entry.nr == SYS_openat) {
			char opened[sizeof "/dev/kmsg"] = "";
			iovec local = {opened, sizeof opened};
			iovec remote = {reinterpret_cast<void *>(info.entry.args[1]), sizeof opened};
			process_vm_readv(pid, &local, 1, &remote, 1, 0);
			opens_kmsg = memcmp(opened, "/dev/kmsg", sizeof opened) == 0;
			if (opens_kmsg)
				calls.push_back("open kmsg");
		} else if (info.entry.nr == SYS_write) {
			calls.push_back("write " + file + " " + std::to_string(info.entry.args[2]));
		} else if (info.entry.nr == SYS_writev) {
			calls.push_back("writev " + file);
		} else if (info.entry.nr == SYS_sendto) {
			calls.push_back("send");
		} else if (info.entry.nr == SYS_close && fd == kmsg) {
			calls.push_back("close kmsg");
			kmsg = -1;
		}
	}
	EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
	return calls;
}

// The program name that the C library, and the fatal reports, fall back on.
std::string program()
{
	return program_invocation_short_name;
}

void expect_abort(const child_result &result, const std::string &err)
{
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, err);
	EXPECT_EQ(result.out, "");
}

} // namespace

// Destinations

TEST(log_destination, several_get_the_message_each)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>foo: x\n");
	EXPECT_EQ(result.out, "foo: x\n");
	EXPECT_EQ(result.err, "");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_destination, all_three_format_the_same_arguments)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_LOCAL3, "foo");
		errno = ENOENT;
		_log(3, "%d %s %lld %.2f %*d %c %m\n", -1, "two", 3000000000LL, 4.5, 3, 5, '6');
		_log(5, "%s%%\n", "second");
	});
	const std::string first = "-1 two 3000000000 4.50   5 6 No such file or directory\n";
	EXPECT_EQ(s.kmsg(), "<3>foo: " + first + "<5>foo: second%\n");
	EXPECT_EQ(result.err, "foo: " + first);
	EXPECT_EQ(result.out, "foo: second%\n");
	EXPECT_EQ(s.syslog(), (lines{"<155>foo: " + first, "<157>foo: second%\n"}));
}

TEST(log_destination, kmsg_alone_leaves_the_others_empty)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		_log(0, "emergency\n");
		_log(7, "debug\n");
	});
	EXPECT_EQ(s.kmsg(), "<0>foo: emergency\n<7>foo: debug\n");
	EXPECT_EQ(result.out + result.err, "");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_destination, syslog_alone_leaves_the_others_empty)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_USER, "foo");
		_log(0, "emergency\n");
		_log(7, "debug\n");
	});
	EXPECT_EQ(s.syslog(), (lines{"<8>foo: emergency\n", "<15>foo: debug\n"}));
	EXPECT_EQ(result.out + result.err, "");
	EXPECT_EQ(s.kmsg(), "");
}

TEST(log_destination, none_is_silence)
{
	scene s;
	child_result result = s.log([] {
		log_open(0, LOG_USER, "foo");
		for (int priority = 0; priority < 8; priority++)
			_log(priority, "x\n");
	});
	EXPECT_EQ(result.out + result.err + s.kmsg(), "");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_destination, bits_without_a_meaning_are_ignored)
{
	scene s;
	child_result result = s.log([] {
		log_open(8 | LOG_DEST_KMSG, LOG_USER, "foo");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>foo: x\n");
	EXPECT_EQ(result.out + result.err, "");
}

TEST(log_stdio, takes_notices_and_information_on_stdout_and_all_else_on_stderr)
{
	for (int priority = 0; priority < 8; priority++) {
		scene s;
		child_result result = s.log([priority] {
			log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
			_log(priority, "x\n");
		});
		bool is_report = priority == 5 || priority == 6;
		EXPECT_EQ(result.out, is_report ? "x\n" : "") << "priority " << priority;
		EXPECT_EQ(result.err, is_report ? "" : "x\n") << "priority " << priority;
	}
}

TEST(log_stdio, takes_debug_on_stderr)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		_log(7, "x\n");
	});
	EXPECT_EQ(result.err, "foo: x\n");
	EXPECT_EQ(result.out, "");
}

TEST(log_stdio, stays_in_order_with_what_the_daemon_prints)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		printf("before, ");
		_log(6, "message, ");
		printf("after\n");
	});
	EXPECT_EQ(result.out, "before, message, after\n");
}

TEST(log_stdio, is_not_flushed)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		setvbuf(stdout, nullptr, _IOFBF, 4096);
		_log(6, "lost with the buffer\n");
		_exit(0);
	});
	EXPECT_EQ(result.out, "");
}

TEST(log_stdio, that_is_closed_is_silence)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO | LOG_DEST_KMSG, LOG_USER, "foo");
		close(STDOUT_FILENO);
		close(STDERR_FILENO);
		errno = EACCES;
		_log(3, "x %m\n");
		_log(6, "y %m\n");
		fflush(stdout);
		_exit(0);
	});
	EXPECT_EQ(s.kmsg(), "<3>foo: x Permission denied\n<6>foo: y Permission denied\n");
}

TEST(log_message, has_no_line_end_but_its_own)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_USER, "foo");
		_log(6, "no end");
	});
	EXPECT_EQ(s.kmsg(), "<6>foo: no end");
	EXPECT_EQ(s.syslog(), lines{"<14>foo: no end"});
	EXPECT_EQ(result.out, "foo: no end");
}

TEST(log_message, may_be_empty)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_USER, "foo");
		_log(3, "%s", "");
	});
	EXPECT_EQ(s.kmsg(), "<3>foo: ");
	EXPECT_EQ(result.err, "foo: ");
}

TEST(log_kmsg, prints_the_priority_as_it_is_given)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		for (int priority = 0; priority < 8; priority++)
			_log(priority, "x\n");
		_log(LOG_LOCAL0 | LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.kmsg(),
		"<0>foo: x\n<1>foo: x\n<2>foo: x\n<3>foo: x\n<4>foo: x\n<5>foo: x\n<6>foo: x\n<7>foo: "
		"x\n<134>foo: x\n");
}

TEST(log_kmsg, takes_each_message_in_an_opening_and_a_write_of_its_own)
{
	skip_if_emulated(no_ptrace);
	scene s;
	lines calls = trace(s, [] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		_log(6, "first\n");
		_log(3, "%s %d\n", "second", 2);
	});
	EXPECT_EQ(calls, (lines{"open kmsg", "write kmsg 14", "close kmsg", "open kmsg", "write kmsg 17",
				 "close kmsg"}));
	EXPECT_EQ(s.kmsg(), "<6>foo: first\n<3>foo: second 2\n");
}

TEST(log_kmsg, takes_a_long_message_in_one_write_too)
{
	skip_if_emulated(no_ptrace);
	scene s;
	const std::string text(3000, 'y');
	lines calls = trace(s, [&text] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		_log(6, "%s\n", text.c_str());
	});
	EXPECT_EQ(calls, (lines{"open kmsg", "write kmsg 3009", "close kmsg"}));
	EXPECT_EQ(s.kmsg(), "<6>foo: " + text + "\n");
}

TEST(log_kmsg, is_opened_for_writing_anew)
{
	scene s;
	s.make_kmsg_a_file("what was there before, and is longer\n");
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		_log(6, "a first message\n");
		_log(6, "second\n");
	});
	EXPECT_EQ(support::read_file(s.path("/dev/kmsg")), "<6>foo: second\n");
}

TEST(log_kmsg, that_cannot_be_opened_costs_the_other_destinations_nothing)
{
	scene s;
	s.make_kmsg_a_directory();
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		errno = EACCES;
		_log(6, "x %m\n");
		EXPECT_EQ(errno, EACCES);
	});
	EXPECT_EQ(result.out, "foo: x Permission denied\n");
	EXPECT_EQ(result.err, "");
	EXPECT_EQ(s.syslog(), lines{"<30>foo: x Permission denied\n"});
}

TEST(log_kmsg, is_tried_again_with_the_next_message)
{
	scene s;
	s.make_kmsg_a_directory();
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "foo");
		_log(6, "dropped\n");
		rmdir("/dev/kmsg");
		close(open("/dev/kmsg", O_WRONLY | O_CREAT, 0600));
		_log(6, "written\n");
	});
	EXPECT_EQ(support::read_file(s.path("/dev/kmsg")), "<6>foo: written\n");
}

TEST(log_kmsg, that_takes_no_bytes_costs_the_other_destinations_nothing)
{
	scene s;
	s.make_kmsg_a_file("");
	child_result result = support::run_child([&s] {
		owned_fd full{open("/dev/full", O_WRONLY | O_CLOEXEC)};
		ASSERT_GE(full.get(), 0);
		std::string source = "/proc/self/fd/" + std::to_string(full.get());
		ASSERT_EQ(unshare(CLONE_NEWNS), 0);
		ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
		ASSERT_EQ(mount("/dev/full", s.path("/dev/kmsg").c_str(), nullptr, MS_BIND, nullptr), 0);
		ASSERT_EQ(mount(s.path("/dev").c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr), 0);
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		int free_before = lowest_free_descriptor();
		errno = EACCES;
		_log(6, "x %m\n");
		EXPECT_EQ(errno, EACCES);
		EXPECT_EQ(lowest_free_descriptor(), free_before);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "foo: x Permission denied\n");
}

TEST(log_kmsg, leaves_no_descriptor_open)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_DAEMON, nullptr);
		int free_before = lowest_free_descriptor();
		_log(6, "x\n");
		EXPECT_EQ(lowest_free_descriptor(), free_before);
		_log(6, "x\n");
		EXPECT_EQ(lowest_free_descriptor(), free_before);
	});
}

TEST(log_syslog, that_nobody_listens_to_is_silence)
{
	scene s;
	s.drop_syslog();
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		errno = EACCES;
		_log(3, "x %m\n");
		EXPECT_EQ(errno, EACCES);
	});
	EXPECT_EQ(s.kmsg(), "<3>foo: x Permission denied\n");
	EXPECT_EQ(result.err, "foo: x Permission denied\n");
	EXPECT_EQ(s.console(), "");
}

TEST(log_destination, order_is_kmsg_then_stdio_then_syslog)
{
	skip_if_emulated(no_ptrace);
	scene s;
	lines calls = trace(s, [] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		_log(3, "x\n");
	});
	lines order;
	for (const std::string &call : calls) {
		std::string name = call == "open kmsg"                ? "kmsg"
				   : call.starts_with("write stderr") ? "stderr"
				   : call == "send"                   ? "syslog"
								      : "";
		if (!name.empty() && (order.empty() || order.back() != name))
			order.push_back(name);
	}
	EXPECT_EQ(order, (lines{"kmsg", "stderr", "syslog"}));
}

TEST(log_errno, is_kept_and_printed_at_every_destination)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_USER, nullptr);
		for (int error : {EACCES, 0, ENOTTY}) {
			errno = error;
			_log(3, "%m\n");
			EXPECT_EQ(errno, error);
		}
	});
	const std::string prefix = "daemon: ";
	const lines texts = {"Permission denied\n", "Success\n", "Inappropriate ioctl for device\n"};
	std::string kmsg, err;
	lines syslog;
	for (const std::string &text : texts) {
		kmsg += "<3>" + prefix + text;
		err += prefix + text;
		syslog.push_back("<11>" + prefix + text);
	}
	EXPECT_EQ(s.kmsg(), kmsg);
	EXPECT_EQ(result.err, err);
	EXPECT_EQ(s.syslog(), syslog);
}

TEST(log_errno, survives_the_decisions_of_the_first_message)
{
	scene s;
	s.drop_status(); // and standard output is no terminal: ENOENT and ENOTTY on the way
	s.log([] {
		errno = EACCES;
		_log(3, "%m\n");
		EXPECT_EQ(errno, EACCES);
	});
	EXPECT_EQ(s.syslog(), lines{"<27>" + program() + ": Permission denied\n"});
}

TEST(log_errno, survives_when_every_destination_fails)
{
	scene s;
	s.make_kmsg_a_directory();
	s.drop_syslog();
	s.drop_status();
	s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, -1, nullptr);
		int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO);
		close(STDOUT_FILENO);
		close(STDERR_FILENO);
		errno = EACCES;
		_log(3, "x\n");
		int after = errno;
		dup2(out, STDOUT_FILENO);
		dup2(err, STDERR_FILENO);
		EXPECT_EQ(after, EACCES);
	});
}

// What the first message decides

TEST(log_first_message, without_log_open_goes_to_the_terminal_that_there_is)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		t.become_stdout();
		_log(3, "error\n");
		_log(6, "information\n");
	});
	EXPECT_EQ(result.err, "error\n");
	EXPECT_EQ(t.text(), "information\n");
	EXPECT_EQ(s.syslog(), lines());
	EXPECT_EQ(s.kmsg(), "");
}

TEST(log_first_message, without_log_open_and_terminal_goes_to_syslog_as_a_daemon_under_the_process_name)
{
	scene s;
	child_result result = s.log([] {
		_log(3, "error\n");
		_log(6, "information\n");
	});
	EXPECT_EQ(s.syslog(), (lines{"<27>daemon: error\n", "<30>daemon: information\n"}));
	EXPECT_EQ(result.out + result.err, "");
	EXPECT_EQ(s.kmsg(), "");
	EXPECT_EQ(s.console(), "");
}

TEST(log_first_message, looks_at_descriptor_1_only)
{
	scene s;
	terminal t;
	s.log([&t] {
		dup2(t.slave.get(), STDIN_FILENO);
		dup2(t.slave.get(), STDERR_FILENO);
		_log(3, "error\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: error\n"});
	EXPECT_EQ(t.text(), "");
}

TEST(log_first_message, decides_a_negative_mask_and_facility_of_log_open)
{
	scene s;
	s.log([] {
		log_open(-1, -1, nullptr);
		_log(3, "error\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: error\n"});
	terminal t;
	child_result result = s.log([&t] {
		log_open(INT32_MIN, INT32_MIN, nullptr);
		t.become_stdout();
		_log(3, "error\n");
	});
	EXPECT_EQ(result.err, "error\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_first_message, decides_the_facility_apart_from_the_mask)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_SYSLOG, -1, "foo");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<30>foo: x\n"});
	terminal t;
	s.log([&t] {
		t.become_stdout();
		log_open(LOG_DEST_SYSLOG, -1, "foo");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<14>foo: x\n"});
	s.log([] {
		log_open(-1, LOG_LOCAL7, "foo");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<190>foo: x\n"});
}

TEST(log_first_message, takes_the_kernel_facility_for_one_that_was_given)
{
	// It is 0, and the C library reads 0 in a priority, not in openlog, as "none".
	scene s;
	s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_KERN, "foo");
		_log(6, "x\n");
	});
	lines datagrams = s.syslog();
	s.log([] {
		openlog("foo", 0, LOG_KERN);
		syslog(6, "x\n");
	});
	EXPECT_EQ(datagrams, s.syslog());
	EXPECT_EQ(datagrams.size(), 1u);
}

TEST(log_first_message, decides_once)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		int out = dup(STDOUT_FILENO);
		t.become_stdout();
		_log(3, "on a terminal\n");
		dup2(out, STDOUT_FILENO);
		close(out);
		_log(3, "on none\n");
	});
	EXPECT_EQ(result.err, "on a terminal\non none\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_open, only_stores)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		std::set<int> before = support::open_descriptors();
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		EXPECT_EQ(support::open_descriptors(), before);
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "last");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>last: x\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_open, borrows_the_identity)
{
	scene s;
	child_result result = s.log([] {
		static char ident[] = "old";
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_USER, ident);
		memcpy(ident, "new", 3);
		_log(6, "x\n");
		memcpy(ident, "red", 3);
		_log(6, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>new: x\n<6>red: y\n");
	EXPECT_EQ(result.out, "new: x\nred: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<14>new: x\n", "<14>red: y\n"}));
}

TEST(log_open, called_later_moves_all_but_the_identity_and_facility_of_syslog)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_LOCAL0, "first");
		_log(6, "x\n");
		log_open(LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_LOCAL1, "second");
		_log(6, "y\n");
		log_open(LOG_DEST_KMSG, LOG_LOCAL1, "third");
		_log(6, "z\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>first: x\n<6>third: z\n");
	EXPECT_EQ(result.out, "second: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<134>first: x\n", "<134>first: y\n"}));
}

TEST(log_open, that_adds_syslog_later_gets_the_c_librarys_name_and_facility)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_LOCAL0, "foo");
		_log(6, "x\n");
		log_open(LOG_DEST_SYSLOG, LOG_LOCAL0, "foo");
		_log(6, "y\n");
	});
	EXPECT_EQ(result.out, "foo: x\n");
	EXPECT_EQ(s.syslog(), lines{"<14>" + program() + ": y\n"});
}

TEST(log_open, called_later_without_an_identity_leaves_bare_lines)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(6, "x\n");
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(6, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>daemon: x\n<6>y\n");
	EXPECT_EQ(result.out, "daemon: x\ny\n");
}

TEST(log_open, called_later_with_a_negative_mask_means_every_destination)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_USER, "foo");
		_log(6, "x\n");
		log_open(-1, -1, "bar");
		_log(6, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>bar: y\n");
	EXPECT_EQ(result.out, "bar: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<14>foo: x\n", "<14>foo: y\n"}));
}

TEST(log_open, called_later_takes_a_negative_mask_for_its_bits)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_USER, "foo");
		_log(6, "x\n");
		log_open(~LOG_DEST_SYSLOG, LOG_USER, "bar");
		_log(6, "y\n");
		log_open(INT32_MIN, LOG_USER, "baz");
		_log(6, "z\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>bar: y\n");
	EXPECT_EQ(result.out, "bar: y\n");
	EXPECT_EQ(s.syslog(), lines{"<14>foo: x\n"});
}

// The identity

TEST(log_identity, is_missing_on_the_standard_streams_alone)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(6, "x\n");
		// Too late: that was decided.
		log_open(LOG_DEST_STDIO | LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(6, "y\n");
	});
	EXPECT_EQ(result.out, "x\ny\n");
	EXPECT_EQ(s.kmsg(), "<6>y\n");
}

TEST(log_identity, given_to_log_open_stands_on_the_standard_streams)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		t.become_stdout();
		log_open(-1, -1, "foo");
		_log(3, "x\n");
		_log(6, "y\n");
	});
	EXPECT_EQ(result.err, "foo: x\n");
	EXPECT_EQ(t.text(), "foo: y\n");
}

TEST(log_identity, is_the_processs_name_with_any_other_destination)
{
	for (int mask : {LOG_DEST_KMSG, LOG_DEST_SYSLOG, LOG_DEST_KMSG | LOG_DEST_SYSLOG,
		     LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_DEST_SYSLOG | LOG_DEST_STDIO,
		     LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO}) {
		scene s;
		child_result result = s.log([mask] {
			log_open(mask, LOG_USER, nullptr);
			_log(6, "x\n");
		});
		EXPECT_EQ(s.kmsg(), mask & LOG_DEST_KMSG ? "<6>daemon: x\n" : "");
		EXPECT_EQ(result.out, mask & LOG_DEST_STDIO ? "daemon: x\n" : "");
		EXPECT_EQ(s.syslog(), mask & LOG_DEST_SYSLOG ? lines{"<14>daemon: x\n"} : lines());
	}
}

TEST(log_identity, comes_from_the_real_status_of_the_process)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		prctl(PR_SET_NAME, "ap daemon");
		_log(6, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<30>ap daemon: x\n"});
}

TEST(log_identity, is_read_once)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		prctl(PR_SET_NAME, "early");
		_log(6, "x\n");
		prctl(PR_SET_NAME, "late");
		_log(6, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>early: x\n<6>early: y\n");
}

TEST(log_identity, is_the_second_token_of_the_first_name_line)
{
	struct {
		std::string status, prefix;
	} const cases[] = {
		{"Name:\tplain\n", "plain: "},
		{"Name:\twith spaces in it\n", "with spaces in it: "},
		{"Name:\t\t\ttabs\n", "tabs: "},
		{"Name:\tone\ttwo\n", "one: "},
		{"Name:\tno end", "no end: "},
		{"Umask:\t0022\nState:\tR (running)\nName:\tthird line\n", "third line: "},
		{"Name:\tfirst\nName:\tsecond\n", "first: "},
		{"name:\tlower\nName:\tright\n", "right: "},
		{" Name:\tindented\nName:\tright\n", "right: "},
		{"Name: x\tafter a blank\n", "after a blank: "},
		{"Name:x\n", ""},               // one token
		{"Name:\n", ""},                // one token
		{"Name:\t\n", ""},              // one token
		{"Name:\nName:\tsecond\n", ""}, // the first such line is the one
		{"Name\tno colon\n", ""},
		{"Umask:\t0022\n", ""},
		{"\n\n", ""},
		{"", ""},
	};
	for (const auto &[status, prefix] : cases) {
		scene s;
		s.set_status(status);
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			_log(6, "x\n");
		});
		EXPECT_EQ(s.kmsg(), "<6>" + prefix + "x\n") << "of " << status;
	}
}

TEST(log_identity, is_cut_where_the_line_exceeds_63_characters)
{
	scene s;
	const std::string name(100, 'n');
	s.set_status("Name:\t" + name + "\nName:\tsecond\n");
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(6, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>" + name.substr(0, 57) + ": x\n");
}

TEST(log_identity, is_found_behind_a_long_line)
{
	for (size_t length : {62, 63, 64, 65, 126, 127, 500}) {
		scene s;
		s.set_status("Groups:" + std::string(length - 7, ' ') + "\nName:\tbehind\n");
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			_log(6, "x\n");
		});
		EXPECT_EQ(s.kmsg(), "<6>behind: x\n") << "length " << length;
	}
}

TEST(log_identity, is_taken_from_a_later_63_characters_of_a_long_line_too)
{
	scene s;
	s.set_status(std::string(63, 'x') + "Name:\tinside\nName:\tbehind\n");
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(6, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>inside: x\n");
}

TEST(log_identity, without_a_status_file_is_none)
{
	scene s;
	s.drop_status();
	s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_USER, nullptr);
		int free_before = lowest_free_descriptor();
		_log(6, "x\n");
		EXPECT_LE(lowest_free_descriptor(), free_before + 1); // the C library's connection to syslog
	});
	EXPECT_EQ(s.kmsg(), "<6>x\n");
	EXPECT_EQ(s.syslog(), lines{"<14>" + program() + ": x\n"});
}

TEST(log_identity, in_a_status_that_cannot_be_read_is_none)
{
	scene s;
	s.make_status_a_directory();
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		int free_before = lowest_free_descriptor();
		errno = EACCES;
		_log(6, "x %m\n");
		EXPECT_EQ(errno, EACCES);
		EXPECT_EQ(lowest_free_descriptor(), free_before);
	});
	EXPECT_EQ(s.kmsg(), "<6>x Permission denied\n");
}

TEST(log_identity, leaves_the_status_closed_whether_found_or_not)
{
	for (const char *status : {"Name:\tfound\n", "Umask:\t0022\n", "Name:\n"}) {
		scene s;
		s.set_status(status);
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			int free_before = lowest_free_descriptor();
			_log(6, "x\n");
			EXPECT_EQ(lowest_free_descriptor(), free_before);
		});
	}
}

// Fatal reports

TEST(assert_failure, reports_name_place_expression_and_function_and_aborts)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		assert_failure("lib/evloop-process.c:36", "evloop_process_is_pending", "p");
	}),
		"app: lib/evloop-process.c:36: assertion p failed in evloop_process_is_pending()\n");
}

TEST(assert_failure, is_a_message_of_priority_3_at_every_destination)
{
	scene s;
	const std::string text = "foo: app: a.c:1: assertion b failed in c()\n";
	expect_abort(s.run([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		set_app_name("app");
		assert_failure("a.c:1", "c", "b");
	}),
		text);
	EXPECT_EQ(s.kmsg(), "<3>" + text);
	EXPECT_EQ(s.syslog(), lines{"<27>" + text});
}

TEST(assert_failure, may_be_the_first_message)
{
	scene s;
	expect_abort(s.run([] {
		set_app_name("app");
		assert_failure("a.c:1", "c", "b");
	}),
		"");
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: app: a.c:1: assertion b failed in c()\n"});
}

TEST(assert_failure, prints_its_texts_as_they_are)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("%s%n");
		assert_failure("%d.c:1", "%f", "a %s b");
	}),
		"%s%n: %d.c:1: assertion a %s b failed in %f()\n");
}

TEST(assert_failure, without_an_application_name_prints_the_programs)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		assert_failure("a.c:1", "c", "b");
	}),
		program() + ": a.c:1: assertion b failed in c()\n");
}

TEST(set_app_name, borrows_the_name_and_takes_null_back)
{
	scene s;
	expect_abort(s.run([] {
		static char name[] = "old";
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name(name);
		memcpy(name, "new", 3);
		assert_failure("a.c:1", "c", "b");
	}),
		"new: a.c:1: assertion b failed in c()\n");
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		set_app_name(nullptr);
		assert_failure("a.c:1", "c", "b");
	}),
		program() + ": a.c:1: assertion b failed in c()\n");
}

TEST(set_app_name, is_not_the_identity)
{
	scene s;
	s.log([] {
		set_app_name("app");
		log_open(LOG_DEST_KMSG, LOG_USER, "foo");
		_log(6, "x\n");
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(6, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>foo: x\n<6>y\n");
}

TEST(assert_failure, lets_the_daemons_handler_of_the_signal_run)
{
	scene s;
	child_result result = s.run([] {
		signal(SIGABRT, [](int) { _exit(77); });
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		assert_failure("a.c:1", "c", "b");
	});
	EXPECT_TRUE(result.exited_with(77)) << result.report();
}

TEST(log_assert, that_holds_is_evaluated_once_and_nothing_more)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		int count = 0;
		log_assert(++count);
		EXPECT_EQ(count, 1);
		if (count)
			log_assert(count == 1);
		else
			log_assert(!count);
	});
	EXPECT_EQ(result.out + result.err, "");
}

namespace
{
constexpr int check_line = __LINE__ + 3;
void check_even(int number)
{
	log_assert(number % 2 == 0 && "even");
}
} // namespace

TEST(log_assert, that_fails_reports_its_place_function_and_expression)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		check_even(2);
		check_even(3);
	}),
		"app: " __FILE__ ":" + std::to_string(check_line) +
			": assertion number % 2 == 0 && \"even\" failed in check_even()\n");
}

TEST(out_of_memory, writes_straight_to_stderr_and_aborts)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_USER, "foo");
		set_app_name("app");
		out_of_memory();
	}),
		"app: out of memory\n");
	EXPECT_EQ(s.kmsg(), "");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(out_of_memory, prints_no_identity)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		set_app_name("app");
		out_of_memory();
	}),
		"app: out of memory\n");
}

TEST(out_of_memory, without_an_application_name_prints_the_programs)
{
	scene s;
	expect_abort(s.run([] { out_of_memory(); }), program() + ": out of memory\n");
}

// The rate limit

namespace
{

// Runs `body` with messages on the standard streams, and returns those of priority 4.
std::string suppressed_reports(const std::function<void()> &body)
{
	child_result result = support::run_child([&body] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		body();
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "");
	return result.err;
}

// The results of `count` calls in a row.
std::string results(ratelimit_state *state, int count)
{
	std::string text;
	while (count-- > 0)
		text += ___ratelimit(state, "noise") ? '1' : '0';
	return text;
}

constexpr int32_t HOUR_MS = 3600 * 1000; // no test takes that long

} // namespace

TEST(ratelimit, of_interval_0_always_allows_and_leaves_the_counters_alone)
{
	for (int32_t burst : {0, 1, -1, 10}) {
		ratelimit_state state = {0, burst, 5, 6, 7};
		EXPECT_EQ(results(&state, 20), std::string(20, '1'));
		EXPECT_EQ(state.interval, 0);
		EXPECT_EQ(state.burst, burst);
		EXPECT_EQ(state.printed, 5);
		EXPECT_EQ(state.missed, 6);
		EXPECT_EQ(state.begin, 7u);
	}
	ratelimit_state fresh = {0, 1, 0, 0, 0};
	EXPECT_EQ(results(&fresh, 2), "11");
	EXPECT_EQ(fresh.begin, 0u);
}

TEST(ratelimit, allows_a_burst_and_then_refuses)
{
	ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
	EXPECT_EQ(results(&state, 5), "11100");
	EXPECT_EQ(state.printed, 3);
	EXPECT_EQ(state.missed, 2);
	EXPECT_EQ(state.interval, HOUR_MS);
	EXPECT_EQ(state.burst, 3);
}

TEST(ratelimit, starts_the_period_with_the_first_call)
{
	ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
	uint64_t before = time_now_msec();
	results(&state, 1);
	uint64_t begin = state.begin;
	EXPECT_LE(before, begin);
	EXPECT_LE(begin, time_now_msec());
	results(&state, 5);
	EXPECT_EQ(state.begin, begin);
}

TEST(ratelimit, reports_what_it_refused_with_the_first_call_of_the_next_period)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {1000, 3, 0, 0, 0};
		state.interval = HOUR_MS;
		EXPECT_EQ(results(&state, 5), "11100");
		uint64_t before = time_now_msec();
		state.begin = before - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "1");
		EXPECT_EQ(state.missed, 0);
		EXPECT_EQ(state.printed, 1);
		EXPECT_LE(before, state.begin);
		EXPECT_LE(state.begin, time_now_msec());
		EXPECT_EQ(results(&state, 4), "1100");
		EXPECT_EQ(state.missed, 2);
	});
	EXPECT_EQ(reports, "noise: 2 callbacks suppressed\n");
}

TEST(ratelimit, reports_at_priority_4)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, "foo");
		ratelimit_state state = {HOUR_MS, 1, 1, 5, time_now_msec() - HOUR_MS - 1};
		EXPECT_EQ(___ratelimit(&state, "%s"), 1);
	});
	EXPECT_EQ(s.kmsg(), "<4>foo: %s: 5 callbacks suppressed\n");
}

TEST(ratelimit, reports_nothing_after_a_period_without_refusals)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
		for (int period = 0; period < 3; period++) {
			EXPECT_EQ(results(&state, 3), "111");
			state.begin = time_now_msec() - HOUR_MS - 1;
		}
	});
	EXPECT_EQ(reports, "");
}

TEST(ratelimit, of_burst_0_refuses_all_and_reports_in_each_period)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 0, 0, 0, 0};
		EXPECT_EQ(results(&state, 4), "0000");
		EXPECT_EQ(state.missed, 4);
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.missed, 1); // the call that reported was refused, too
		EXPECT_EQ(results(&state, 1), "0");
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.printed, 0);
	});
	EXPECT_EQ(reports, "noise: 4 callbacks suppressed\nnoise: 2 callbacks suppressed\n");
}

TEST(ratelimit, of_burst_0_refuses_whatever_the_count_says)
{
	ratelimit_state state = {HOUR_MS, 0, -3, 0, 0};
	EXPECT_EQ(results(&state, 2), "00");
	EXPECT_EQ(state.printed, -3);
}

TEST(ratelimit, of_a_negative_burst_refuses_all)
{
	ratelimit_state state = {HOUR_MS, -5, 0, 0, 0};
	EXPECT_EQ(results(&state, 3), "000");
	EXPECT_EQ(state.missed, 3);
	EXPECT_EQ(state.printed, 0);
}

TEST(ratelimit, of_the_largest_burst_stops_there)
{
	ratelimit_state state = {HOUR_MS, INT32_MAX, INT32_MAX - 1, 0, 0};
	EXPECT_EQ(results(&state, 3), "100");
	EXPECT_EQ(state.printed, INT32_MAX);
}

TEST(ratelimit, counts_refusals_up_to_the_largest_number_and_stays_there)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 0, 0, INT32_MAX - 1, 0};
		EXPECT_EQ(results(&state, 3), "000");
		EXPECT_EQ(state.missed, INT32_MAX);
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.missed, 1);
	});
	EXPECT_EQ(reports, "noise: 2147483647 callbacks suppressed\n");
}

TEST(ratelimit, counts_the_very_last_millisecond_to_the_period)
{
	// Repeated until the clock stands still around the call.
	for (int attempt = 0; attempt < 100000; attempt++) {
		ratelimit_state state = {1000, 1, 1, 1, 0};
		uint64_t now = time_now_msec();
		uint64_t begin = state.begin = now - 1000;
		int result = ___ratelimit(&state, "noise");
		if (time_now_msec() != now)
			continue;
		EXPECT_EQ(result, 0);
		EXPECT_EQ(state.missed, 2);
		EXPECT_EQ(state.begin, begin);
		return;
	}
	FAIL() << "the clock never stood still";
}

TEST(ratelimit, ends_the_period_one_millisecond_later)
{
	ratelimit_state state = {1000, 1, 1, 0, 0};
	state.begin = time_now_msec() - 1001;
	EXPECT_EQ(results(&state, 1), "1");
	EXPECT_EQ(state.printed, 1);
}

TEST(ratelimit, of_a_negative_interval_has_ended_when_it_began_recently)
{
	// begin - 1000 lies in the past: every call is the first of a new period.
	ratelimit_state state = {-1000, 1, 0, 0, 0};
	EXPECT_EQ(results(&state, 5), "11111");
	EXPECT_EQ(state.printed, 1);
	EXPECT_EQ(state.missed, 0);
}

TEST(ratelimit, of_a_negative_interval_never_ends_when_that_leads_below_the_clocks_zero)
{
	// 1 - 1000 is near the end of the unsigned range.
	for (int32_t interval : {-2, -1000, INT32_MIN}) {
		ratelimit_state state = {interval, 1, 1, 0, 1};
		EXPECT_EQ(results(&state, 3), "000");
		EXPECT_EQ(state.missed, 3);
		EXPECT_EQ(state.begin, 1u);
	}
}

TEST(ratelimit, of_the_largest_interval_is_computed_in_64_bits)
{
	ratelimit_state state = {INT32_MAX, 1, 1, 0, 0};
	state.begin = time_now_msec();
	EXPECT_EQ(results(&state, 1), "0");
	state.missed = 0;
	state.begin = time_now_msec() - INT32_MAX - 1; // may wrap below the clock's zero, and back
	EXPECT_EQ(results(&state, 1), "1");
}

TEST(ratelimit, waits_for_a_period_that_begins_in_the_future)
{
	ratelimit_state state = {1000, 1, 1, 0, 0};
	uint64_t begin = state.begin = time_now_msec() + HOUR_MS;
	EXPECT_EQ(results(&state, 2), "00");
	EXPECT_EQ(state.begin, begin);
}

TEST(ratelimit, keeps_its_states_apart)
{
	ratelimit_state one = {HOUR_MS, 1, 0, 0, 0}, other = {HOUR_MS, 2, 0, 0, 0};
	EXPECT_EQ(results(&one, 2), "10");
	EXPECT_EQ(results(&other, 3), "110");
	EXPECT_EQ(one.missed, 1);
	EXPECT_EQ(other.missed, 1);
}

// Allocation

namespace
{

// The compiler knows that these never return null, and would not look.
template <typename T>
bool is_null(T *pointer)
{
	T *volatile unknown = pointer;
	return !unknown;
}

class dirty_memory : public testing::Test
{
protected:
	dirty_memory() { memory.dirty = true; }
	~dirty_memory() override { memory.dirty = false; }
};

void expect_out_of_memory(const std::function<void()> &body)
{
	child_result result = support::run_child([&body] {
		rlimit none = {0, 0};
		setrlimit(RLIMIT_CORE, &none);
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		set_app_name("app");
		body();
	});
	expect_abort(result, "app: out of memory\n");
}

unsigned char first_byte(void *block)
{
	return *static_cast<volatile unsigned char *>(block);
}

} // namespace

TEST(xmalloc, of_0_gives_a_block_of_one_byte)
{
	void *one = xmalloc(0), *other = xmalloc(0);
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(one));
	EXPECT_FALSE(is_null(other));
	EXPECT_NE(one, other);
	*static_cast<char *>(one) = 'x';
	free(one);
	free(other);
}

TEST(xmalloc, gives_the_size_asked_for)
{
	void *block = xmalloc(1000);
	EXPECT_EQ(memory.last_size, 1000u);
	memset(block, 'x', 1000);
	free(block);
}

TEST(xmalloc, without_memory_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xmalloc(1));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xmalloc(0));
	});
}

TEST(xmalloc, of_more_than_there_can_be_ends_the_process)
{
	expect_out_of_memory([] { free(xmalloc(SIZE_MAX)); });
}

TEST_F(dirty_memory, xcalloc_zeroes)
{
	char *block = static_cast<char *>(xcalloc(25, 40));
	EXPECT_EQ(memory.last_size, 1000u);
	EXPECT_EQ(std::string(block, 1000), std::string(1000, '\0'));
	free(block);
}

TEST_F(dirty_memory, xcalloc_of_0_gives_a_byte_that_is_not_zeroed)
{
	const size_t sizes[][2] = {{0, 8}, {8, 0}, {0, 0}, {0, SIZE_MAX}, {SIZE_MAX, 0}};
	for (auto [count, size] : sizes) {
		void *block = xcalloc(count, size);
		EXPECT_EQ(memory.last_size, 1u);
		EXPECT_FALSE(is_null(block));
		EXPECT_EQ(first_byte(block), DIRT);
		free(block);
	}
}

TEST_F(dirty_memory, xzalloc_zeroes)
{
	char *block = static_cast<char *>(xzalloc(1000));
	EXPECT_EQ(memory.last_size, 1000u);
	EXPECT_EQ(std::string(block, 1000), std::string(1000, '\0'));
	free(block);
}

TEST_F(dirty_memory, xzalloc_of_0_gives_a_byte_that_is_not_zeroed)
{
	void *block = xzalloc(0);
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(block));
	EXPECT_EQ(first_byte(block), DIRT);
	free(block);
}

TEST(xcalloc, without_memory_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xcalloc(2, 3));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xcalloc(0, 3));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xzalloc(1));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xzalloc(0));
	});
}

TEST(xcalloc, of_a_product_that_overflows_ends_the_process)
{
	expect_out_of_memory([] { free(xcalloc(SIZE_MAX / 2 + 2, 2)); });
	expect_out_of_memory(
		[] { free(xcalloc(size_t{1} << (sizeof(size_t) * 4), size_t{1} << (sizeof(size_t) * 4))); });
	expect_out_of_memory([] { free(xcalloc(SIZE_MAX, SIZE_MAX)); });
}

TEST(xrealloc, keeps_the_content)
{
	char *block = static_cast<char *>(xmalloc(4));
	memcpy(block, "abc", 4);
	block = static_cast<char *>(xrealloc(block, 100000));
	EXPECT_STREQ(block, "abc");
	block[99999] = 'x';
	block = static_cast<char *>(xrealloc(block, 2));
	EXPECT_EQ(block[0], 'a');
	EXPECT_EQ(block[1], 'b');
	free(block);
}

TEST(xrealloc, to_0_shrinks_to_one_byte_and_does_not_free)
{
	char *block = static_cast<char *>(xmalloc(100));
	block[0] = 'a';
	block = static_cast<char *>(xrealloc(block, 0));
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(block));
	EXPECT_EQ(block[0], 'a');
	free(block);
}

TEST(xrealloc, of_null_gives_a_new_block)
{
	void *block = xrealloc(nullptr, 100);
	EXPECT_EQ(memory.last_size, 100u);
	memset(block, 'x', 100);
	void *smallest = xrealloc(nullptr, 0);
	EXPECT_FALSE(is_null(smallest));
	EXPECT_EQ(memory.last_size, 1u);
	free(block);
	free(smallest);
}

TEST(xrealloc, without_memory_ends_the_process)
{
	for (size_t size : {size_t{0}, size_t{1000}})
		expect_out_of_memory([size] {
			void *block = xmalloc(10);
			memory.refuse_from(0);
			free(xrealloc(block, size));
		});
	expect_out_of_memory([] { free(xrealloc(xmalloc(10), SIZE_MAX)); });
}

TEST(xstrdup, gives_a_copy)
{
	for (const char *text : {"", "x", "a longer text"}) {
		char *copy = xstrdup(text);
		EXPECT_STREQ(copy, text);
		EXPECT_NE(copy, text);
		free(copy);
	}
}

TEST(xstrdup, without_memory_is_null)
{
	memory.refuse_from(0);
	char *copy = xstrdup("text");
	memory.grant();
	EXPECT_EQ(copy, nullptr);
}

TEST(xstrndup, gives_a_copy_of_at_most_so_many_bytes)
{
	struct {
		size_t length_max;
		const char *copy;
	} const cases[] = {{0, ""}, {1, "t"}, {3, "tex"}, {4, "text"}, {5, "text"}, {SIZE_MAX, "text"}};
	for (auto [length_max, expected] : cases) {
		char *copy = xstrndup("text", length_max);
		EXPECT_STREQ(copy, expected);
		free(copy);
	}
}

TEST(xstrndup, reads_no_byte_beyond_the_length)
{
	// The last bytes of memory that may be read, without a zero at their end.
	size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	char *pages = static_cast<char *>(
		mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(static_cast<void *>(pages), MAP_FAILED);
	ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
	memcpy(pages + page - 3, "abc", 3);
	char *copy = xstrndup(pages + page - 3, 3);
	EXPECT_STREQ(copy, "abc");
	free(copy);
	munmap(pages, 2 * page);
}

TEST(xstrndup, without_memory_is_null)
{
	memory.refuse_from(0);
	char *copy = xstrndup("text", 2);
	memory.grant();
	EXPECT_EQ(copy, nullptr);
}
