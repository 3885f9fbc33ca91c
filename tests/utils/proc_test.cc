// Children signalled as a real and a made-up /proc tell of them, and the console of made-up command lines.
#include "tests/utils/fixture.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/system_calls.h"

using namespace support;
using namespace utils_tests;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

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
owned_fd open_with_reader(const std::string &path)
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

} // namespace

// ---- Processes ----

using kill_children_test = utils_test;

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
// scan goes on after it.
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
				owned_fd fifo = open_with_reader(path);
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

using get_tty_test = utils_test;

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
			owned_fd fifo = open_with_reader("/proc/cmdline");
			EXPECT_EQ(kept_on_exec(), before);
			write_all(fifo.get(), "console=ttyS0,115200\n");
		});
		std::unique_ptr<char, void (*)(void *)> tty(get_tty(), free);
		EXPECT_STREQ(tty.get(), "ttyS0");
		writer.join();
	});
}
