// What the tests of the message bus share: a real bus daemon on a socket of its own, frames as they stand on
// the wire, and a client that speaks them without any library.
//
// The daemon is the one built here, or the program that the environment variable UBUSD names.
#pragma once
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/system.h"

namespace support
{

// ---- Frames: numbers are big-endian, attributes padded to four bytes ----

namespace wire
{

enum message : uint8_t {
	hello = 0,
	status = 1,
	data = 2,
	ping = 3,
	lookup = 4,
	invoke = 5,
	add_object = 6,
	remove_object = 7,
	subscribe = 8,
	unsubscribe = 9,
	notify = 10,
	monitor = 11,
};

enum attribute_id : uint8_t {
	attr_status = 1,
	attr_objpath = 2,
	attr_objid = 3,
	attr_method = 4,
	attr_objtype = 5,
	attr_signature = 6,
	attr_data = 7,
	attr_target = 8,
	attr_active = 9,
	attr_no_reply = 10,
	attr_subscribers = 11,
	attr_user = 12,
	attr_group = 13,
};

// Types of named attributes.
enum value_type : uint8_t { unspec = 0, array = 1, table = 2, string = 3, int64 = 4, int32 = 5, int8 = 7 };

inline constexpr uint32_t body_bytes_max = 1024 * 1024; // with its length word
inline constexpr uint32_t event_object = 1;

inline std::string be16(uint32_t value)
{
	return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

inline std::string be32(uint32_t value)
{
	return be16(value >> 16) + be16(value & 0xffff);
}

inline uint32_t number_at(std::string_view bytes, size_t offset = 0)
{
	uint32_t value = 0;
	for (size_t i = 0; i < 4 && offset + i < bytes.size(); ++i)
		value = value << 8 | static_cast<uint8_t>(bytes[offset + i]);
	return value;
}

inline std::string padded(std::string bytes)
{
	bytes.resize((bytes.size() + 3) / 4 * 4);
	return bytes;
}

inline std::string attribute(uint8_t id, const std::string &payload)
{
	return padded(be32(uint32_t{id} << 24 | static_cast<uint32_t>(payload.size() + 4)) + payload);
}

inline std::string number(uint8_t id, uint32_t value)
{
	return attribute(id, be32(value));
}

inline std::string octet(uint8_t id, uint8_t value)
{
	return attribute(id, std::string(1, static_cast<char>(value)));
}

inline std::string text(uint8_t id, const std::string &value)
{
	return attribute(id, value + '\0');
}

// A named attribute: the name's length, the name with its NUL, both padded together, then the value.
inline std::string named(uint8_t type, const std::string &name, const std::string &value)
{
	std::string payload = padded(be16(static_cast<uint32_t>(name.size())) + name + '\0') + value;
	return padded(be32(0x80000000U | uint32_t{type} << 24 | static_cast<uint32_t>(payload.size() + 4)) +
		      payload);
}

inline std::string named_number(const std::string &name, uint32_t value)
{
	return named(int32, name, be32(value));
}

inline std::string named_text(const std::string &name, const std::string &value)
{
	return named(string, name, value + '\0');
}

inline std::string frame(uint8_t type, uint32_t seq, uint32_t peer, const std::string &attributes = {})
{
	std::string head{0, static_cast<char>(type)};
	return head + be16(seq) + be32(peer) + be32(static_cast<uint32_t>(attributes.size() + 4)) +
	       attributes;
}

// The bytes of a text like "00 06 00 01 fc8b6722", for exchanges that were recorded.
inline std::string from_hex(std::string_view hex)
{
	std::string bytes;
	int digits = 0, value = 0;
	for (char c : hex) {
		if (!isxdigit(static_cast<unsigned char>(c)))
			continue;
		value = value * 16 + (c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
		if (++digits % 2 == 0)
			bytes += static_cast<char>(std::exchange(value, 0));
	}
	return bytes;
}

// Words of four bytes in hexadecimal, so that two frames can be compared by eye.
inline std::string to_hex(std::string_view bytes)
{
	std::string hex;
	for (size_t i = 0; i < bytes.size(); ++i) {
		char digits[4];
		snprintf(digits, sizeof(digits), "%02x", static_cast<uint8_t>(bytes[i]));
		hex += digits;
		hex += i % 4 == 3 ? '\n' : ' ';
	}
	return hex;
}

// A frame that was received, or none: at the end of the stream, at the deadline, or out of step.
struct received {
	std::string bytes;

	bool ok() const { return bytes.size() >= 12; }
	explicit operator bool() const { return ok(); }
	uint8_t version() const { return ok() ? static_cast<uint8_t>(bytes[0]) : 0xff; }
	uint8_t type() const { return ok() ? static_cast<uint8_t>(bytes[1]) : 0xff; }
	uint16_t seq() const { return static_cast<uint16_t>(number_at(bytes) & 0xffff); }
	uint32_t peer() const { return number_at(bytes, 4); }
	std::string attributes() const { return ok() ? bytes.substr(12) : std::string(); }

	// The first attribute of that id, without its word and padding.
	std::optional<std::string> find(uint8_t id) const
	{
		for (size_t at = 12; at + 4 <= bytes.size();) {
			uint32_t word = number_at(bytes, at);
			size_t length = word & 0xffffff;
			if (length < 4 || at + length > bytes.size())
				break;
			if (word >> 24 == id)
				return bytes.substr(at + 4, length - 4);
			at += (length + 3) / 4 * 4;
		}
		return std::nullopt;
	}
	bool has(uint8_t id) const { return find(id).has_value(); }
	uint32_t number(uint8_t id) const { return number_at(find(id).value_or(std::string())); }
	std::string text(uint8_t id) const { return find(id).value_or(std::string()).c_str(); }
	// The status that the frame carries; -1 when it carries none.
	int status() const { return has(attr_status) ? static_cast<int>(number(attr_status)) : -1; }
};

inline bool operator==(const received &a, const received &b)
{
	return a.bytes == b.bytes;
}

inline std::ostream &operator<<(std::ostream &stream, const received &frame)
{
	return stream << "frame:\n" << to_hex(frame.bytes);
}

} // namespace wire

// ---- Connections ----

// A blocking socket connected to the Unix socket at `path`; -1 inside on failure, with errno.
inline owned_fd connect_to_path(const std::string &path)
{
	owned_fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_un name{};
	name.sun_family = AF_UNIX;
	if (path.size() >= sizeof(name.sun_path)) {
		errno = ENAMETOOLONG;
		fd.reset();
		return fd;
	}
	memcpy(name.sun_path, path.c_str(), path.size() + 1);
	if (connect(fd.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)) < 0)
		fd.reset();
	return fd;
}

// Reads exactly `count` bytes; fewer at the end of the stream, on an error or at the deadline.
inline std::string read_exactly(int fd, size_t count, int timeout_ms = deadline_ms)
{
	std::string bytes;
	int64_t end_ms = now_ms() + timeout_ms;
	char chunk[65536];
	while (bytes.size() < count) {
		if (!wait_for(fd, POLLIN, static_cast<int>(std::max<int64_t>(end_ms - now_ms(), 0))))
			break;
		ssize_t length = read(fd, chunk, std::min(sizeof(chunk), count - bytes.size()));
		if (length > 0)
			bytes.append(chunk, static_cast<size_t>(length));
		else if (length == 0 || (errno != EINTR && errno != EAGAIN))
			break;
	}
	return bytes;
}

inline wire::received receive_frame(int fd, int timeout_ms = deadline_ms)
{
	std::string bytes = read_exactly(fd, 12, timeout_ms);
	if (bytes.size() < 12)
		return {};
	uint32_t length = wire::number_at(bytes, 8) & 0xffffff;
	if (length < 4 || length > wire::body_bytes_max)
		return {};
	bytes += read_exactly(fd, length - 4, timeout_ms);
	if (bytes.size() != size_t{length} + 8)
		return {};
	return {bytes};
}

// A connection to the bus without a library: every call waits at most until the deadline, and a call that
// gets there fails the test.
class raw_client
{
	owned_fd fd_;
	uint32_t id_ = 0;
	uint16_t seq_ = 0;

public:
	raw_client() = default;
	// Connects and takes the hello.
	explicit raw_client(const std::string &path) : fd_(connect_to_path(path))
	{
		EXPECT_GE(fd_.get(), 0) << path << ": " << strerror(errno);
		wire::received first = receive();
		EXPECT_EQ(first.type(), wire::hello) << first;
		id_ = first.peer();
	}

	int fd() const { return fd_.get(); }
	uint32_t id() const { return id_; }
	uint16_t last_seq() const { return seq_; }
	void close() { fd_.reset(); }

	bool send(const std::string &bytes) const
	{
		size_t done = 0;
		while (done < bytes.size()) {
			ssize_t count = ::send(fd(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
			if (count > 0)
				done += static_cast<size_t>(count);
			else if (errno != EINTR)
				return false;
		}
		return true;
	}
	// Sends a frame with the next sequence number, which it returns.
	uint16_t request(uint8_t type, uint32_t peer, const std::string &attributes = {})
	{
		++seq_;
		EXPECT_TRUE(send(wire::frame(type, seq_, peer, attributes))) << strerror(errno);
		return seq_;
	}
	// The next frame; a failure of the test when none comes.
	wire::received receive() const
	{
		wire::received frame = receive_frame(fd());
		EXPECT_TRUE(frame.ok()) << "no frame from the bus";
		return frame;
	}
	// A request of the daemon: the frames up to its STATUS, which comes last.
	std::vector<wire::received> answers(uint8_t type, uint32_t peer, const std::string &attributes = {})
	{
		uint16_t seq = request(type, peer, attributes);
		std::vector<wire::received> frames;
		do {
			frames.push_back(receive());
		} while (frames.back().ok() &&
			 (frames.back().type() != wire::status || frames.back().seq() != seq ||
				 frames.back().peer() != peer));
		return frames;
	}
	// The same, for the status alone; -1 if none came.
	int status_of(uint8_t type, uint32_t peer, const std::string &attributes = {})
	{
		return answers(type, peer, attributes).back().status();
	}
	// True when the daemon closes the connection before the deadline; what it sent before is dropped.
	bool is_closed() const
	{
		char chunk[65536];
		while (wait_for(fd(), POLLIN)) {
			ssize_t count = read(fd(), chunk, sizeof(chunk));
			if (count == 0 || (count < 0 && errno == ECONNRESET))
				return true;
			if (count < 0 && errno != EINTR)
				return false;
		}
		return false;
	}
	// What has arrived so far: the frames before the answers to a ping.
	std::vector<wire::received> drain()
	{
		std::vector<wire::received> frames = answers(wire::ping, 0);
		frames.pop_back();
		if (!frames.empty())
			frames.pop_back();
		return frames;
	}

	// An object; its id, or 0 when the daemon refuses. The empty path stands for none.
	uint32_t add(const std::string &path = {}, const std::string &signature = {})
	{
		std::string attributes;
		if (!path.empty())
			attributes = wire::text(wire::attr_objpath, path) +
				     wire::attribute(wire::attr_signature, signature);
		uint32_t id = 0;
		for (const wire::received &frame : answers(wire::add_object, 0, attributes))
			if (frame.type() == wire::data && frame.peer() == 0 && frame.seq() == seq_)
				id = frame.number(wire::attr_objid);
		return id;
	}
	int remove(uint32_t object)
	{
		return status_of(wire::remove_object, 0, wire::number(wire::attr_objid, object));
	}
	int subscribe(uint32_t subscriber, uint32_t target)
	{
		return status_of(wire::subscribe, 0,
			wire::number(wire::attr_objid, subscriber) + wire::number(wire::attr_target, target));
	}
	int unsubscribe(uint32_t subscriber, uint32_t target)
	{
		return status_of(wire::unsubscribe, 0,
			wire::number(wire::attr_objid, subscriber) + wire::number(wire::attr_target, target));
	}
	uint16_t invoke(uint32_t object, const std::string &method, const std::string &data = {})
	{
		return request(wire::invoke, object,
			wire::number(wire::attr_objid, object) + wire::text(wire::attr_method, method) +
				wire::attribute(wire::attr_data, data));
	}
	int listen_to(uint32_t object, const std::string &pattern)
	{
		return status_of(wire::invoke, wire::event_object,
			wire::number(wire::attr_objid, wire::event_object) +
				wire::text(wire::attr_method, "register") +
				wire::attribute(
					wire::attr_data, wire::named_number("object", object) +
								 wire::named_text("pattern", pattern)));
	}
	int send_event(const std::string &id, const std::string &data = {})
	{
		return status_of(wire::invoke, wire::event_object,
			wire::number(wire::attr_objid, wire::event_object) +
				wire::text(wire::attr_method, "send") +
				wire::attribute(wire::attr_data,
					wire::named_text("id", id) + wire::named(wire::table, "data", data)));
	}
};

// ---- The daemon ----

// A directory below /tmp that is removed with its contents; others may pass through it.
class private_directory
{
	std::string path_ = "/tmp/apbase-bus-XXXXXX";

public:
	private_directory()
	{
		if (!mkdtemp(path_.data()) || chmod(path_.c_str(), 0711) < 0)
			ADD_FAILURE() << path_ << ": " << strerror(errno);
	}
	private_directory(const private_directory &) = delete;
	private_directory &operator=(const private_directory &) = delete;
	~private_directory()
	{
		if (DIR *directory = opendir(path_.c_str())) {
			while (dirent *entry = readdir(directory))
				unlinkat(dirfd(directory), entry->d_name, 0);
			closedir(directory);
		}
		rmdir(path_.c_str());
	}
	std::string operator/(const std::string &name) const { return path_ + "/" + name; }
};

// A bus daemon on a socket in a private directory. It dies with this process at the latest. Not for a test
// that lets evloop_run reap children: that takes the daemon's exit status as well.
class bus_daemon
{
	private_directory directory_;
	pid_t pid_ = -1;

	// Another daemon may say what it likes on standard error.
	static const char *foreign_program() { return getenv("UBUSD"); }
	static const char *program() { return foreign_program() ? foreign_program() : APBASE_UBUSD; }
	std::string errors_path() const { return directory_ / "stderr"; }

	[[noreturn]] void run(pid_t parent) const
	{
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		if (getppid() != parent)
			_exit(127);
		int null = open("/dev/null", O_RDWR);
		int errors = open(errors_path().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
		dup2(null, 0);
		dup2(null, 1);
		dup2(errors, 2);
		close_range(3, ~0U, 0);
		for (int number : {SIGTERM, SIGINT, SIGPIPE})
			signal(number, SIG_DFL);
		sigset_t none;
		sigemptyset(&none);
		sigprocmask(SIG_SETMASK, &none, nullptr);
		// A sanitizer keeps freed memory for a while; that would look like memory held.
		const char *options = getenv("ASAN_OPTIONS");
		setenv("ASAN_OPTIONS",
			((options ? options : "") + std::string(":quarantine_size_mb=1")).c_str(), 1);
		std::string socket_path = path();
		execl(program(), program(), "-s", socket_path.c_str(), nullptr);
		dprintf(2, "unable to run %s: %s\n", program(), strerror(errno));
		_exit(127);
	}
	bool says_hello() const
	{
		owned_fd fd = connect_to_path(path());
		return fd.get() >= 0 && receive_frame(fd.get()).type() == wire::hello;
	}
	// Waits for the process; its wait status, or -1 when it does not end or somebody else has waited.
	int take_status(int timeout_ms = deadline_ms)
	{
		int status = -1;
		pid_t ended = 0;
		eventually([&] { return (ended = waitpid(pid_, &status, WNOHANG)) != 0; }, timeout_ms);
		if (ended == 0)
			return -1;
		EXPECT_EQ(ended, pid_) << "somebody else has waited for the bus daemon";
		pid_ = -1;
		return ended < 0 ? -1 : status;
	}
	void expect_silence()
	{
		if (!foreign_program()) {
			EXPECT_EQ(errors(), "") << "the bus daemon's standard error";
		}
		unlink(errors_path().c_str());
	}

public:
	struct not_started {
	};

	bus_daemon() { start(); }
	explicit bus_daemon(not_started) {}
	~bus_daemon()
	{
		if (running())
			kill();
	}
	bus_daemon(const bus_daemon &) = delete;
	bus_daemon &operator=(const bus_daemon &) = delete;

	// The path of the socket; the same for this object's whole life.
	std::string path() const { return directory_ / "bus.sock"; }
	pid_t pid() const { return pid_; }
	bool running() const { return pid_ > 0; }
	std::string errors() const { return read_file(errors_path()); }
	// What it has complained about so far, which the end of the test then does not hold against it.
	std::string take_errors()
	{
		std::string text = errors();
		EXPECT_EQ(truncate(errors_path().c_str(), 0), 0);
		return text;
	}

	// Returns when the daemon has said hello to a first connection.
	void start()
	{
		ASSERT_FALSE(running());
		fflush(nullptr);
		pid_t parent = getpid();
		pid_ = fork();
		if (pid_ == 0)
			run(parent);
		ASSERT_GT(pid_, 0) << strerror(errno);
		bool gone = false;
		bool ready = eventually([&] {
			siginfo_t info{};
			gone = waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) <
				       0 ||
			       info.si_pid != 0;
			return gone || says_hello();
		});
		ASSERT_TRUE(ready && !gone) << "no bus daemon: " << errors();
	}
	// Ends it without a chance to clean up: its clients see the end of their streams, the socket file stays.
	void kill()
	{
		ASSERT_TRUE(running());
		::kill(pid_, SIGKILL);
		int status = take_status();
		EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
			<< "the bus daemon had ended before: wait status " << status << "\n"
			<< errors();
		expect_silence();
	}
	// Asks it to end, which has to succeed and to remove the socket file.
	void stop(int number = SIGTERM)
	{
		ASSERT_TRUE(running());
		::kill(pid_, number);
		int status = take_status();
		if (running()) {
			ADD_FAILURE() << "the bus daemon does not end";
			kill();
			return;
		}
		EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status << "\n"
									   << errors();
		EXPECT_NE(access(path().c_str(), F_OK), 0) << "the socket file is left";
		expect_silence();
	}
	// Kills it and starts another one on the same path.
	void restart()
	{
		if (running())
			kill();
		start();
	}

	// The daemon's resident memory in KiB, and the number of its descriptors.
	long resident_kib() const
	{
		std::string text = read_file("/proc/" + std::to_string(pid_) + "/status");
		size_t at = text.find("VmRSS:");
		return at == std::string::npos ? -1 : atol(text.c_str() + at + strlen("VmRSS:"));
	}
	size_t descriptor_count() const
	{
		size_t count = 0;
		if (DIR *directory = opendir(("/proc/" + std::to_string(pid_) + "/fd").c_str())) {
			while (dirent *entry = readdir(directory))
				count += entry->d_name[0] != '.';
			closedir(directory);
		}
		return count;
	}
	// The processor time that it has used, in clock ticks.
	long ticks_used() const
	{
		std::string text = read_file("/proc/" + std::to_string(pid_) + "/stat");
		size_t at = text.rfind(')');
		long user = 0, system = 0;
		if (at == std::string::npos ||
			sscanf(text.c_str() + at, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
				&user, &system) != 2)
			return -1;
		return user + system;
	}
};

} // namespace support
