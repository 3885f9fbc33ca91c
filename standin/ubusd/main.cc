// ubusd, the bus daemon of development machines: one thread, one epoll set, and a bus.
//
// Each pass serves the clients that epoll reports and those with unfinished work. Each gets a bounded amount of work, so
// that none starves. With nothing to do the daemon sleeps without a timeout.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../standard_descriptors.h"
#include "bus.h"

using namespace ubusd;

static constexpr const char default_path[] = "/var/run/ubus/ubus.sock";

static constexpr const char usage_text[] =
	"Usage: ubusd [-s PATH] [-A PATH]\n"
	"\n"
	"The message bus of a development machine, in the foreground until SIGTERM or SIGINT.\n"
	"\n"
	"  -s PATH     the socket to listen on (/var/run/ubus/ubus.sock)\n"
	"  -A PATH     the folder of access control files; accepted and not read: what holds without such\n"
	"              files holds here, so users other than root neither add, see nor call objects by path\n"
	"  -h, --help  this text\n"
	"  --version   the version\n";

// How many events and connections one pass takes.
static constexpr int events_per_pass = 64;
static constexpr int accepts_per_pass = 16;
// The pause in accepting after descriptors or memory ran out.
static constexpr int accept_pause_ms = 1000;
// One for each client, and some for the standard streams, the listener, epoll and signals.
static constexpr rlim_t descriptors_max = clients_max + 32;

// The names of the daemon's own descriptors in the epoll set; clients have ids from first_id.
static constexpr uint64_t listener_name = 0;
static constexpr uint64_t signals_name = 1;

static bool complain(const char *what, const char *on)
{
	fprintf(stderr, "ubusd: unable to %s %s: %s\n", what, on, strerror(errno));
	return false;
}

namespace
{

class server
{
	bus bus_;
	std::string path_;
	struct stat made_ = {}; // the socket file
	descriptor epoll_, listener_, signals_;
	int64_t accept_again_ms_ = 0;      // when a pause in accepting ends; 0 without one
	std::vector<uint32_t> unfinished_; // clients that have more to do at once

	bool open_listener();
	void remove_socket_file() const;
	bool open_signals();
	bool watch(int operation, int fd, uint64_t name, uint32_t events) const;
	void pause_accepting();
	void end_pause();
	bool accept_one();
	void accept_some();
	void serve(uint32_t client_id, uint32_t events);
	int wait_ms() const;

public:
	explicit server(std::string path) : path_(std::move(path)) {}
	~server() { remove_socket_file(); }
	server(const server &) = delete;
	server &operator=(const server &) = delete;

	bool open();
	int run(); // the exit status of the process
};

} // namespace

bool server::watch(int operation, int fd, uint64_t name, uint32_t events) const
{
	epoll_event event{};
	event.events = events;
	event.data.u64 = name;
	return epoll_ctl(epoll_.get(), operation, fd, &event) == 0 || complain("watch", path_.c_str());
}

// Removes the socket of a daemon that was killed: nobody listens on it. Anything else at the path stays, and keeps the
// address in use.
static void remove_leftover(const sockaddr_un &name)
{
	struct stat there = {};
	if (lstat(name.sun_path, &there) < 0 || !S_ISSOCK(there.st_mode))
		return;
	descriptor probe{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
	if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&name), sizeof(name)) < 0 &&
		errno == ECONNREFUSED)
		unlink(name.sun_path);
}

// Every user may connect; the bus decides what each may do.
bool server::open_listener()
{
	sockaddr_un name{};
	name.sun_family = AF_UNIX;
	if (path_.size() >= sizeof(name.sun_path)) {
		errno = ENAMETOOLONG;
		return complain("listen on", path_.c_str());
	}
	memcpy(name.sun_path, path_.c_str(), path_.size());
	remove_leftover(name);
	listener_ = descriptor{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
	mode_t before = umask(0111);
	bool bound = bind(listener_.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)) == 0;
	umask(before);
	if (!bound || listen(listener_.get(), SOMAXCONN) < 0 || stat(path_.c_str(), &made_) < 0)
		return complain("listen on", path_.c_str());
	return watch(EPOLL_CTL_ADD, listener_.get(), listener_name, EPOLLIN);
}

// Another daemon may have taken the path over; its socket stays.
void server::remove_socket_file() const
{
	struct stat now = {};
	if (made_.st_ino != 0 && stat(path_.c_str(), &now) == 0 && now.st_ino == made_.st_ino &&
		now.st_dev == made_.st_dev)
		unlink(path_.c_str());
}

// Signals arrive as events; the first one ends run().
bool server::open_signals()
{
	sigset_t set;
	sigemptyset(&set);
	sigaddset(&set, SIGTERM);
	sigaddset(&set, SIGINT);
	sigprocmask(SIG_BLOCK, &set, nullptr);
	signal(SIGPIPE, SIG_IGN);
	signals_ = descriptor{signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC)};
	return watch(EPOLL_CTL_ADD, signals_.get(), signals_name, EPOLLIN);
}

bool server::open()
{
	epoll_ = descriptor{epoll_create1(EPOLL_CLOEXEC)};
	return open_signals() && open_listener();
}

static int64_t now_ms()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Connections wait for a while: trying again at once would busy the processor.
void server::pause_accepting()
{
	complain("accept on", path_.c_str());
	accept_again_ms_ = now_ms() + accept_pause_ms;
	watch(EPOLL_CTL_MOD, listener_.get(), listener_name, 0);
}

void server::end_pause()
{
	if (accept_again_ms_ == 0 || now_ms() < accept_again_ms_)
		return;
	accept_again_ms_ = 0;
	watch(EPOLL_CTL_MOD, listener_.get(), listener_name, EPOLLIN);
}

// False when no connection waits, or descriptors or memory are short. A client beyond the bound, or unknown to the
// password file, finds its connection closed.
bool server::accept_one()
{
	descriptor fd{accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
	if (!fd.ok()) {
		if (errno == EINTR || errno == ECONNABORTED)
			return true;
		if (errno != EAGAIN)
			pause_accepting();
		return false;
	}
	if (bus_.full())
		return true;
	if (std::optional<identity> who = identity_of_peer(fd.get()))
		bus_.add_client(std::move(fd), epoll_.get(), std::move(*who));
	return true;
}

void server::accept_some()
{
	for (int left = accepts_per_pass; left > 0 && accept_one(); --left)
		;
}

void server::serve(uint32_t client_id, uint32_t events)
{
	if (bus_.serve(client_id, events))
		unfinished_.push_back(client_id);
}

int server::wait_ms() const
{
	if (!unfinished_.empty())
		return 0;
	if (accept_again_ms_ == 0)
		return -1;
	return static_cast<int>(std::max<int64_t>(accept_again_ms_ - now_ms(), 0)) + 1;
}

// Each pass serves the clients with events, then those that the last pass left unfinished.
int server::run()
{
	epoll_event events[events_per_pass];
	for (;;) {
		int count = epoll_wait(epoll_.get(), events, events_per_pass, wait_ms());
		if (count < 0 && errno != EINTR)
			return complain("wait on", path_.c_str()), EXIT_FAILURE;
		std::vector<uint32_t> unfinished = std::exchange(unfinished_, {});
		for (int i = 0; i < count; ++i) {
			uint64_t name = events[i].data.u64;
			if (name == signals_name)
				return EXIT_SUCCESS;
			if (name == listener_name) {
				accept_some();
				continue;
			}
			serve(static_cast<uint32_t>(name), events[i].events);
			std::erase(unfinished, name);
		}
		for (uint32_t client_id : unfinished)
			serve(client_id, 0);
		end_pause();
	}
}

// Allows enough descriptors for the bus's own bound on clients.
static void allow_descriptors()
{
	rlimit limit{};
	if (getrlimit(RLIMIT_NOFILE, &limit) < 0)
		return;
	limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, std::max<rlim_t>(limit.rlim_cur, descriptors_max));
	setrlimit(RLIMIT_NOFILE, &limit);
}

static int usage_error()
{
	fputs(usage_text, stderr);
	return EXIT_FAILURE;
}

int main(int argc, char **argv)
{
	static constexpr option long_options[] = {
		{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'}, {}};
	std::string path = default_path;

	open_standard_descriptors();
	for (int letter; (letter = getopt_long(argc, argv, "s:A:h", long_options, nullptr)) != -1;) {
		switch (letter) {
		case 's':
			path = optarg;
			break;
		case 'A':
			break;
		case 'h':
			fputs(usage_text, stdout);
			return EXIT_SUCCESS;
		case 'V':
			puts("ubusd " STANDIN_VERSION);
			return EXIT_SUCCESS;
		default:
			return usage_error();
		}
	}
	if (optind != argc)
		return usage_error();
	allow_descriptors();
	server bus_server(std::move(path));
	return bus_server.open() ? bus_server.run() : EXIT_FAILURE;
}
