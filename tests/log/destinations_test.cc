// Messages at each destination with their exact bytes.
#include "tests/log/scene.h"

#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>

using namespace log_tests;

// The compiler warns of %m, which is not ISO C++; it is what some of these tests are about.
#pragma GCC diagnostic ignored "-Wformat"

namespace
{

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

} // namespace

TEST(log_destination, several_get_the_message_each)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		_log(LOG_INFO, "x\n");
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
		_log(LOG_ERR, "%d %s %lld %.2f %*d %c %m\n", -1, "two", 3000000000LL, 4.5, 3, 5, '6');
		_log(LOG_NOTICE, "%s%%\n", "second");
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
		_log(LOG_EMERG, "emergency\n");
		_log(LOG_DEBUG, "debug\n");
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
		_log(LOG_EMERG, "emergency\n");
		_log(LOG_DEBUG, "debug\n");
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
		_log(LOG_INFO, "x\n");
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
		_log(LOG_DEBUG, "x\n");
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
		_log(LOG_INFO, "message, ");
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
		_log(LOG_INFO, "lost with the buffer\n");
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
		_log(LOG_ERR, "x %m\n");
		_log(LOG_INFO, "y %m\n");
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
		_log(LOG_INFO, "no end");
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
		_log(LOG_ERR, "%s", "");
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
		_log(LOG_INFO, "first\n");
		_log(LOG_ERR, "%s %d\n", "second", 2);
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
		_log(LOG_INFO, "%s\n", text.c_str());
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
		_log(LOG_INFO, "a first message\n");
		_log(LOG_INFO, "second\n");
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
		_log(LOG_INFO, "x %m\n");
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
		_log(LOG_INFO, "dropped\n");
		rmdir("/dev/kmsg");
		close(open("/dev/kmsg", O_WRONLY | O_CREAT, 0600));
		_log(LOG_INFO, "written\n");
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
		_log(LOG_INFO, "x %m\n");
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
		_log(LOG_INFO, "x\n");
		EXPECT_EQ(lowest_free_descriptor(), free_before);
		_log(LOG_INFO, "x\n");
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
		_log(LOG_ERR, "x %m\n");
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
		_log(LOG_ERR, "x\n");
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
			_log(LOG_ERR, "%m\n");
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
		_log(LOG_ERR, "%m\n");
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
		_log(LOG_ERR, "x\n");
		int after = errno;
		dup2(out, STDOUT_FILENO);
		dup2(err, STDERR_FILENO);
		EXPECT_EQ(after, EACCES);
	});
}
