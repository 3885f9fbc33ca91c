// What tests share that need no loop: owned descriptors, sockets, checks for what a test leaves open, children and
// namespaces for tests that change the state of a whole process, commands of the shell, and what is taken away from a
// process for a while.
#pragma once
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/capability.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

// Of LeakSanitizer; null where it is not linked.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

// Where a program for another machine is emulated, the test is reported as skipped for that reason. Ends the function
// it stands in: a test, or a helper that returns nothing, after which the test goes on. For what the emulator cannot
// do, although the machine can.
#define skip_if_emulated(reason)                                                                             \
	if (support::is_emulated)                                                                            \
	GTEST_SKIP() << (reason)

// The same on machines with addresses of 32 bits, emulated or not.
#define skip_on_32_bit(reason)                                                                               \
	if (sizeof(void *) == 4)                                                                             \
	GTEST_SKIP() << (reason)

namespace support
{

inline constexpr char no_netfilter[] = "the emulator opens no sockets of netfilter";

// Long enough for a noisy machine under sanitizers or an emulator; a test that gets here has failed.
#ifdef __mips__
inline constexpr int deadline_ms = 90'000;
#else
inline constexpr int deadline_ms = 30'000;
#endif

inline int64_t now_ms()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// A descriptor that is closed with its owner.
class owned_fd
{
	int fd_;

public:
	explicit owned_fd(int fd = -1) : fd_(fd) {}
	owned_fd(owned_fd &&from) noexcept : fd_(from.give()) {}
	owned_fd &operator=(owned_fd &&from) noexcept
	{
		reset(from.give());
		return *this;
	}
	~owned_fd() { reset(); }
	int get() const { return fd_; }
	[[nodiscard]] int give() { return std::exchange(fd_, -1); }
	void reset(int fd = -1)
	{
		int saved_errno = errno;
		if (fd_ >= 0)
			close(fd_);
		fd_ = fd;
		errno = saved_errno;
	}
};

inline void set_nonblocking(int fd)
{
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

inline bool is_open(int fd)
{
	return fcntl(fd, F_GETFD) >= 0;
}

inline bool is_nonblocking(int fd)
{
	return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

inline bool is_closed_on_exec(int fd)
{
	return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

// A connected pair of Unix sockets, blocking.
struct socket_pair {
	owned_fd near, far;

	explicit socket_pair(int type = SOCK_STREAM)
	{
		int fds[2] = {-1, -1};
		EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds), 0) << strerror(errno);
		near.reset(fds[0]);
		far.reset(fds[1]);
	}
};

struct pipe_pair {
	owned_fd read_end, write_end;

	pipe_pair()
	{
		int fds[2] = {-1, -1};
		EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0) << strerror(errno);
		read_end.reset(fds[0]);
		write_end.reset(fds[1]);
	}
};

// Waits until `fd` reports one of `events` of poll; false at the deadline.
inline bool wait_for(int fd, short events, int timeout_ms = deadline_ms)
{
	pollfd entry{fd, events, 0};
	int64_t end_ms = now_ms() + timeout_ms;
	for (;;) {
		int64_t left_ms = std::max<int64_t>(end_ms - now_ms(), 0);
		int count = poll(&entry, 1, static_cast<int>(left_ms));
		if (count > 0)
			return true;
		if (count == 0 || errno != EINTR)
			return false;
	}
}

// Writes all of `bytes` to a blocking or non-blocking descriptor; false if that fails.
inline bool write_all(int fd, const std::string &bytes)
{
	size_t done = 0;
	while (done < bytes.size()) {
		ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
		if (count > 0)
			done += static_cast<size_t>(count);
		else if (count < 0 && errno == EAGAIN && wait_for(fd, POLLOUT))
			continue;
		else if (count >= 0 || errno != EINTR)
			return false;
	}
	return true;
}

// What can be read now, without waiting for more: up to `count_max` bytes.
inline std::string read_available(int fd, size_t count_max = SIZE_MAX)
{
	std::string bytes;
	char chunk[4096];
	while (bytes.size() < count_max && wait_for(fd, POLLIN, 0)) {
		ssize_t count = read(fd, chunk, std::min(sizeof(chunk), count_max - bytes.size()));
		if (count <= 0)
			break;
		bytes.append(chunk, static_cast<size_t>(count));
	}
	return bytes;
}

// Everything up to the end of file, or to an error or the deadline.
inline std::string read_all(int fd)
{
	std::string bytes;
	char chunk[4096];
	for (;;) {
		if (!wait_for(fd, POLLIN)) {
			ADD_FAILURE() << "no end of file on descriptor " << fd;
			return bytes;
		}
		ssize_t count = read(fd, chunk, sizeof(chunk));
		if (count > 0)
			bytes.append(chunk, static_cast<size_t>(count));
		else if (count == 0 || (errno != EINTR && errno != EAGAIN))
			return bytes;
	}
}

inline std::string read_file(const std::string &path)
{
	owned_fd fd{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
	std::string bytes;
	char chunk[4096];
	ssize_t count;
	while ((count = read(fd.get(), chunk, sizeof(chunk))) > 0)
		bytes.append(chunk, static_cast<size_t>(count));
	return bytes;
}

// Whether an emulator runs this program on the kernel of a machine with another processor. The same program may run on
// a board, or on one that is emulated as a whole.
#ifdef __mips__
inline const bool is_emulated = read_file("/proc/cpuinfo").find("MIPS") == std::string::npos;
#else
inline constexpr bool is_emulated = false;
#endif

inline bool write_file(const std::string &path, const std::string &bytes)
{
	owned_fd fd{open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
	return fd.get() >= 0 && write_all(fd.get(), bytes);
}

// The descriptors open in this process.
inline std::set<int> open_descriptors()
{
	std::set<int> fds;
	DIR *directory = opendir("/proc/self/fd");
	if (!directory)
		return fds;
	while (dirent *entry = readdir(directory))
		if (entry->d_name[0] != '.')
			fds.insert(atoi(entry->d_name));
	fds.erase(dirfd(directory));
	closedir(directory);
	return fds;
}

// What a descriptor is open on, as the kernel names it.
inline std::string descriptor_target(int fd)
{
	char target[PATH_MAX];
	ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target));
	return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

// Waits for `condition` without running the loop; for what the kernel or another process does.
inline bool eventually(const std::function<bool()> &condition, int timeout_ms = deadline_ms)
{
	int64_t end_ms = now_ms() + timeout_ms;
	while (!condition()) {
		if (now_ms() > end_ms)
			return false;
		poll(nullptr, 0, 1);
	}
	return true;
}

// A fixture that fails a test which leaves a descriptor open.
class descriptor_test : public testing::Test
{
	std::set<int> before_;

protected:
	void SetUp() override { before_ = open_descriptors(); }
	void TearDown() override
	{
		for (int fd : open_descriptors())
			EXPECT_TRUE(before_.count(fd)) << "left open: " << fd << " " << descriptor_target(fd);
		for (int fd : before_)
			EXPECT_TRUE(is_open(fd)) << "closed though not its own: " << fd;
	}
};

inline sockaddr_in loopback_address(uint16_t port, uint32_t address = INADDR_LOOPBACK)
{
	sockaddr_in name{};
	name.sin_family = AF_INET;
	name.sin_port = htons(port);
	name.sin_addr.s_addr = htonl(address);
	return name;
}

inline uint16_t local_port(int fd)
{
	sockaddr_in name{};
	socklen_t length = sizeof(name);
	if (getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length) < 0)
		return 0;
	return ntohs(name.sin_port);
}

// A socket that listens on a free port of 127.0.0.1; independent of the library.
struct loopback_listener {
	owned_fd fd;
	uint16_t port = 0;

	explicit loopback_listener(int backlog = 16)
	{
		fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
		sockaddr_in name = loopback_address(0);
		EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		EXPECT_EQ(listen(fd.get(), backlog), 0);
		port = local_port(fd.get());
	}
	owned_fd accept_one() const
	{
		return owned_fd{
			wait_for(fd.get(), POLLIN) ? accept4(fd.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1};
	}
};

// A listener that answers no further connection: its queue is full.
struct full_listener {
	loopback_listener listener{0};
	std::vector<owned_fd> waiting;

	full_listener()
	{
		sockaddr_in name = loopback_address(listener.port);
		for (int count = 0; count < 4; ++count) {
			waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
			connect(waiting.back().get(), reinterpret_cast<sockaddr *>(&name), sizeof(name));
		}
	}
};

// A blocking socket connected to `port` of 127.0.0.1; -1 inside on failure.
inline owned_fd connect_to(uint16_t port, uint32_t address = INADDR_LOOPBACK)
{
	owned_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_in name = loopback_address(port, address);
	if (connect(fd.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)) < 0)
		fd.reset();
	return fd;
}

// A port of 127.0.0.1 on which nothing listens: it was free a moment ago.
inline uint16_t free_port()
{
	owned_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_in name = loopback_address(0);
	EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
	return local_port(fd.get());
}

// How a child of run_child ended, and all that it wrote.
struct child_result {
	int status = -1; // as waitpid gives it
	std::string out, err;

	bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
	bool killed_by(int number) const { return WIFSIGNALED(status) && WTERMSIG(status) == number; }
	std::string report() const
	{
		return "wait status " + std::to_string(status) + "\nstdout:\n" + out + "\nstderr:\n" + err;
	}
};

// The emulator adds a line of its own to what a program that a signal ends has written.
inline void drop_emulators_line(std::string *text)
{
	size_t at = text->rfind("qemu: uncaught target signal ");
	if (is_emulated && at != std::string::npos)
		text->erase(at, text->find('\n', at) - at + 1);
}

// Runs `body` in a forked child with stdout and stderr collected; for what changes the state of a whole
// process (limits, namespaces, logging) or ends it. It exits with 0, or with 1 if an expectation failed in
// it.
inline child_result run_child(const std::function<void()> &body)
{
	pipe_pair out, err;
	fflush(nullptr);
	child_result result;
	pid_t pid = fork();
	if (pid < 0) {
		ADD_FAILURE() << "fork: " << strerror(errno);
		return result;
	}
	if (pid == 0) {
		alarm(static_cast<unsigned>(deadline_ms * 2 / 1000));
		dup2(out.write_end.get(), 1);
		dup2(err.write_end.get(), 2);
		for (owned_fd *fd : {&out.read_end, &out.write_end, &err.read_end, &err.write_end})
			fd->reset();
		body();
		fflush(nullptr);
		_exit(testing::Test::HasFailure() ? 1 : 0);
	}
	out.write_end.reset();
	err.write_end.reset();
	bool out_open = true, err_open = true;
	auto take = [](int fd, std::string *into) {
		char chunk[4096];
		ssize_t count = read(fd, chunk, sizeof(chunk));
		if (count > 0)
			into->append(chunk, static_cast<size_t>(count));
		return count > 0 || (count < 0 && errno == EINTR);
	};
	while (out_open || err_open) {
		pollfd entries[2] = {{out_open ? out.read_end.get() : -1, POLLIN, 0},
			{err_open ? err.read_end.get() : -1, POLLIN, 0}};
		if (poll(entries, 2, -1) < 0)
			continue;
		if (entries[0].revents)
			out_open = take(out.read_end.get(), &result.out);
		if (entries[1].revents)
			err_open = take(err.read_end.get(), &result.err);
	}
	while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR)
		;
	if (WIFSIGNALED(result.status))
		drop_emulators_line(&result.err);
	return result;
}

// Waits until the child has ended, without reaping it.
inline void await_exit(pid_t pid)
{
	siginfo_t info{};
	EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0) << strerror(errno);
}

// A child that has exited with `code` and waits to be reaped.
inline pid_t exited_child(int code)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(code);
	EXPECT_GT(pid, 0);
	await_exit(pid);
	return pid;
}

// Runs `body` with its expectations in a child; what fails there fails here.
inline void expect_in_child(const std::function<void()> &body)
{
	child_result result = run_child(body);
	EXPECT_TRUE(result.exited_with(0)) << result.report();
}

// Moves this process (a child of run_child) into mount and network namespaces of its own, the latter with
// nothing but a loopback interface. Needs root.
inline bool enter_private_namespaces()
{
	if (unshare(CLONE_NEWNS | CLONE_NEWNET) < 0)
		return false;
	if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)
		return false;
	owned_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
	ifreq request{};
	memcpy(request.ifr_name, "lo", sizeof("lo"));
	request.ifr_flags = IFF_UP | IFF_RUNNING;
	return ioctl(fd.get(), SIOCSIFFLAGS, &request) == 0;
}

// Only in a private mount namespace: `path` now reads as `text`, until the process ends.
inline bool replace_file(const std::string &path, const std::string &text)
{
	char name[] = "/tmp/apbase-test-XXXXXX";
	owned_fd fd{mkostemp(name, O_CLOEXEC)};
	bool done = write_all(fd.get(), text) && fchmod(fd.get(), 0644) == 0 &&
		    mount(name, path.c_str(), nullptr, MS_BIND, nullptr) == 0;
	unlink(name);
	return done;
}

// For a child, which ends by _exit: nobody else looks at the memory that it has lost.
inline void expect_no_leak()
{
	if (__lsan_do_recoverable_leak_check) {
		EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
	}
}

// Runs `body` with its expectations in a child with namespaces of its own. Descriptors and memory that it
// leaves behind fail the test.
inline void in_private_network(const std::function<void()> &body)
{
	expect_in_child([&] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		std::set<int> before = open_descriptors();
		body();
		for (int fd : open_descriptors())
			EXPECT_TRUE(before.count(fd)) << "left open: " << fd << " " << descriptor_target(fd);
		expect_no_leak();
	});
}

// How a command of the shell ended, and what it wrote.
struct shell_result {
	int status;
	std::string text;
};

inline shell_result run_in_shell(const std::string &command)
{
	shell_result result{-1, ""};
	FILE *pipe = popen((command + " 2>&1").c_str(), "re");
	if (!pipe)
		return result;
	result.text = read_all(fileno(pipe));
	result.status = pclose(pipe);
	return result;
}

// For what a test needs before it can begin.
inline std::string must_run(const std::string &command)
{
	shell_result result = run_in_shell(command);
	EXPECT_EQ(result.status, 0) << command << "\n" << result.text;
	return result.text;
}

// While it lives, no descriptor can be opened.
class no_descriptors
{
	rlimit before_{};

public:
	no_descriptors()
	{
		getrlimit(RLIMIT_NOFILE, &before_);
		rlimit none{0, before_.rlim_max};
		EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
	}
	no_descriptors(const no_descriptors &) = delete;
	no_descriptors &operator=(const no_descriptors &) = delete;
	~no_descriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
};

// While it lives, this process does without one of its capabilities.
class without_capability
{
	__user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct before_[2]{};

public:
	explicit without_capability(unsigned number)
	{
		EXPECT_EQ(syscall(SYS_capget, &header_, before_), 0);
		__user_cap_data_struct less[2] = {before_[0], before_[1]};
		less[number / 32].effective &= ~(1U << number % 32);
		EXPECT_EQ(syscall(SYS_capset, &header_, less), 0);
	}
	without_capability(const without_capability &) = delete;
	without_capability &operator=(const without_capability &) = delete;
	~without_capability() { syscall(SYS_capset, &header_, before_); }
};

} // namespace support
