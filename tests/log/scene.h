// A process of its own for each test of the log, since the logging state is a process's. Its /dev and /proc are
// directories that the test has made, mounted in a private namespace (which takes root): what it writes to /dev/kmsg and
// /dev/log comes back to the test.
#pragma once
#include "lib/log.h"

#include <errno.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace log_tests
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

inline int lowest_free_descriptor()
{
	int fd = dup(STDIN_FILENO);
	if (fd < 0)
		fd = memfd_create("probe", 0);
	close(fd);
	return fd;
}

// The program name that the C library, and the fatal reports, fall back on.
inline std::string program()
{
	return program_invocation_short_name;
}

inline void expect_abort(const child_result &result, const std::string &err)
{
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, err);
	EXPECT_EQ(result.out, "");
}

} // namespace log_tests
