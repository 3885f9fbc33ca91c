// The `ubus` command from outside: a process on a real bus. Its peers speak frames, so they also send what libubus would
// refuse to send.
#pragma once
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bus.h"
#include "tests/support/system.h"

using namespace support;

inline constexpr uint8_t type_int16 = 6, type_double = 8;

// The command while it runs. It ends with this object at the latest.
class running_command
{
	pid_t pid_ = -1;
	pipe_pair out_, err_;
	std::string unread_; // what has come of stdout beyond the lines taken

	[[noreturn]] void run(pid_t parent, std::vector<std::string> words, const char *out_path) const
	{
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		if (getppid() != parent)
			_exit(127);
		int null = open("/dev/null", O_RDONLY);
		dup2(null, 0);
		dup2(out_path ? open(out_path, O_WRONLY) : out_.write_end.get(), 1);
		dup2(err_.write_end.get(), 2);
		for (int number : {SIGTERM, SIGINT, SIGPIPE})
			signal(number, SIG_DFL);
		std::vector<char *> arguments;
		for (std::string &word : words)
			arguments.push_back(word.data());
		arguments.push_back(nullptr);
		execv(arguments[0], arguments.data());
		_exit(127);
	}

public:
	// With `out_path`, its output goes there instead of into `line` and `finish`.
	explicit running_command(const std::vector<std::string> &words, const char *out_path = nullptr)
	{
		std::vector<std::string> all{APBASE_UBUS};
		all.insert(all.end(), words.begin(), words.end());
		fflush(nullptr);
		pid_t parent = getpid();
		pid_ = fork();
		if (pid_ == 0)
			run(parent, all, out_path);
		EXPECT_GT(pid_, 0) << strerror(errno);
		out_.write_end.reset();
		err_.write_end.reset();
	}
	running_command(const running_command &) = delete;
	running_command &operator=(const running_command &) = delete;
	~running_command()
	{
		if (pid_ <= 0)
			return;
		::kill(pid_, SIGKILL);
		while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR)
			;
	}

	// The next line of stdout without its end; empty at the end of the output or at the deadline.
	std::string line()
	{
		size_t end;
		while ((end = unread_.find('\n')) == std::string::npos) {
			char chunk[65536];
			if (!wait_for(out_.read_end.get(), POLLIN))
				return {};
			ssize_t count = read(out_.read_end.get(), chunk, sizeof(chunk));
			if (count <= 0)
				return {};
			unread_.append(chunk, static_cast<size_t>(count));
		}
		std::string text = unread_.substr(0, end);
		unread_.erase(0, end + 1);
		return text;
	}
	bool has_output(int timeout_ms)
	{
		return !unread_.empty() || wait_for(out_.read_end.get(), POLLIN, timeout_ms);
	}
	void stop_reading() { out_.read_end.reset(); }
	void signal_with(int number) const { ::kill(pid_, number); }
	bool is_running() const
	{
		siginfo_t info{};
		return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
		       info.si_pid == 0;
	}

	// Waits for its end; the rest of the output.
	child_result finish()
	{
		child_result result;
		if (out_.read_end.get() >= 0)
			result.out = unread_ + read_all(out_.read_end.get());
		result.err = read_all(err_.read_end.get());
		pid_t ended = 0;
		eventually([&] { return (ended = waitpid(pid_, &result.status, WNOHANG)) != 0; });
		EXPECT_EQ(ended, pid_) << "the command does not end";
		if (ended == pid_)
			pid_ = -1;
		return result;
	}
};

inline child_result run_command(const std::vector<std::string> &words)
{
	return running_command(words).finish();
}

// A bus, and a peer without libubus on it.
class bus_command : public descriptor_test
{
	uint32_t demo_ = 0;

protected:
	std::optional<bus_daemon> bus;
	std::optional<raw_client> owner;

	void SetUp() override
	{
		descriptor_test::SetUp();
		bus.emplace();
		owner.emplace(bus->path());
	}
	void TearDown() override
	{
		owner.reset();
		bus.reset();
		descriptor_test::TearDown();
	}

	std::vector<std::string> on_bus(std::vector<std::string> words) const
	{
		words.insert(words.begin(), {"-s", bus->path()});
		return words;
	}
	child_result ubus(const std::vector<std::string> &words) const { return run_command(on_bus(words)); }

	// The object that is called.
	uint32_t demo() { return demo_ ? demo_ : demo_ = owner->add("demo"); }
	// Calls it with the command, which gets `reply` as the reply's named attributes.
	child_result call_answered_with(const std::string &reply)
	{
		uint32_t id = demo();
		running_command call{on_bus({"call", "demo", "get"})};
		wire::received invoke = owner->receive();
		send_reply(invoke, id, wire::attribute(wire::attr_data, reply));
		send_status(invoke, id, 0);
		return call.finish();
	}
	// What a call with `words` after the method's name arrives with; the command has to succeed.
	std::string sent_by_call(const std::vector<std::string> &words, const std::string &option = {})
	{
		uint32_t id = demo();
		std::vector<std::string> all{"call"};
		if (!option.empty())
			all.push_back(option);
		all.insert(all.end(), {"demo", "set"});
		all.insert(all.end(), words.begin(), words.end());
		running_command call{on_bus(all)};
		wire::received invoke = owner->receive();
		EXPECT_EQ(invoke.type(), wire::invoke) << invoke;
		EXPECT_EQ(invoke.text(wire::attr_method), "set");
		send_status(invoke, id, 0);
		child_result result = call.finish();
		EXPECT_TRUE(result.exited_with(0)) << result.report();
		EXPECT_EQ(result.out + result.err, "");
		return invoke.find(wire::attr_data).value_or("no data");
	}
	void send_reply(const wire::received &invoke, uint32_t object, const std::string &data) const
	{
		EXPECT_TRUE(owner->send(wire::frame(wire::data, invoke.seq(), invoke.peer(),
			wire::number(wire::attr_objid, object) + data)));
	}
	void send_status(const wire::received &invoke, uint32_t object, uint32_t status) const
	{
		EXPECT_TRUE(owner->send(wire::frame(wire::status, invoke.seq(), invoke.peer(),
			wire::number(wire::attr_status, status) + wire::number(wire::attr_objid, object))));
	}
	void notify(uint32_t object, const std::string &name, const std::string &data = {})
	{
		owner->request(wire::notify, object,
			wire::number(wire::attr_objid, object) + wire::text(wire::attr_method, name) +
				wire::attribute(wire::attr_data, data) + wire::octet(wire::attr_no_reply, 1));
	}
	// Until somebody has subscribed to an object of the owner's.
	void wait_for_subscriber(uint32_t object) const
	{
		wire::received frame = owner->receive();
		EXPECT_EQ(frame.type(), wire::notify) << frame;
		EXPECT_EQ(frame.number(wire::attr_objid), object);
		EXPECT_EQ(frame.find(wire::attr_active), std::string(1, '\1'));
	}
	// No message says that a listener is there, so events are sent until one is printed. `event_line` leaves out
	// their lines.
	void wait_for_listener(running_command *listen, const std::string &id)
	{
		bool heard = eventually([&] {
			EXPECT_EQ(owner->send_event(id), 0);
			return listen->has_output(20) || !listen->is_running();
		});
		EXPECT_TRUE(heard && listen->is_running());
	}
	static std::string event_line(running_command *listen, const std::string &but_not)
	{
		std::string text;
		do
			text = listen->line();
		while (text == "{\"" + but_not + "\": {}}");
		return text;
	}
};

inline void expect_failure(const child_result &result, int status, const std::string &text)
{
	EXPECT_TRUE(result.exited_with(status)) << result.report();
	EXPECT_EQ(result.out, "");
	EXPECT_EQ(result.err, "Command failed: " + text + "\n");
}

inline void expect_output(const child_result &result, const std::string &out)
{
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, out);
	EXPECT_EQ(result.err, "");
}

inline std::string big_endian(uint64_t value, int bytes)
{
	std::string text;
	while (bytes-- > 0)
		text += static_cast<char>(value >> 8 * bytes & 0xff);
	return text;
}

inline std::string double_value(double value)
{
	static_assert(std::numeric_limits<double>::is_iec559);
	return big_endian(__builtin_bit_cast(uint64_t, value), 8);
}
