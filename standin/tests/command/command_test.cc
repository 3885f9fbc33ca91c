// The `ubus` command from outside: a process on a real bus, with peers that speak frames, so that nothing
// that libubus would refuse is kept from it.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bus.h"
#include "tests/support/system.h"

namespace
{

using namespace support;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uint8_t type_int16 = 6, type_double = 8;

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

child_result run_command(const std::vector<std::string> &words)
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
	// What a call with `words` behind the method's name arrives with; the command has to succeed.
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
	// Nobody tells that a listener is there: events are sent until one is printed. The lines of these events
	// are left out by `event_line`.
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

void expect_failure(const child_result &result, int status, const std::string &text)
{
	EXPECT_TRUE(result.exited_with(status)) << result.report();
	EXPECT_EQ(result.out, "");
	EXPECT_EQ(result.err, "Command failed: " + text + "\n");
}

void expect_output(const child_result &result, const std::string &out)
{
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, out);
	EXPECT_EQ(result.err, "");
}

std::string big_endian(uint64_t value, int bytes)
{
	std::string text;
	while (bytes-- > 0)
		text += static_cast<char>(value >> 8 * bytes & 0xff);
	return text;
}

std::string double_value(double value)
{
	static_assert(std::numeric_limits<double>::is_iec559);
	return big_endian(__builtin_bit_cast(uint64_t, value), 8);
}

// ---------------------------------------------------------------------------------------------------------
// The command line.

TEST(bus_command_line, help_is_printed_to_stdout_and_needs_no_bus)
{
	child_result result = run_command({"--help"});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_THAT(result.out, StartsWith("usage: ubus "));
	for (const char *word : {"list", "call", "subscribe", "listen", "--json", "-v", "-s", "-t"})
		EXPECT_THAT(result.out, HasSubstr(word));
	EXPECT_EQ(result.err, "");
}

TEST(bus_command_line, what_is_no_command_ends_with_2_and_a_line_that_says_why)
{
	const std::vector<std::vector<std::string>> wrong = {
		{},
		{"lists"},
		{""},
		{"-x", "list"},
		{"-s"},
		{"list", "-x"},
		{"list", "a", "b"},
		{"call", "a"},
		{"call", "--jso", "a", "b"},
		{"call", "a", "b", "{}", "c"},
		{"subscribe"},
		{"-t", "", "list"},
		{"-t", "x", "list"},
		{"-t", "1x", "list"},
		{"-t", "-1", "list"},
		{"-t", "99999999999", "list"},
	};
	for (const auto &words : wrong) {
		child_result result = run_command(words);
		EXPECT_TRUE(result.exited_with(2)) << testing::PrintToString(words) << result.report();
		EXPECT_EQ(result.out, "");
		EXPECT_THAT(result.err, testing::MatchesRegex("[^\n]+\n"));
	}
}

TEST(bus_command_line, without_a_bus_every_command_fails_with_connection_failed)
{
	private_directory directory;
	const std::vector<std::vector<std::string>> commands = {
		{"list"}, {"call", "a", "b"}, {"subscribe", "a"}, {"listen"}};
	for (std::vector<std::string> words : commands) {
		words.insert(words.begin(), {"-s", directory / "none"});
		expect_failure(run_command(words), 10, "Connection failed");
	}
}

TEST(bus_command_line, a_bus_that_never_says_hello_is_given_up_after_the_time_limit)
{
	private_directory directory;
	owned_fd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_un name{};
	name.sun_family = AF_UNIX;
	strncpy(name.sun_path, (directory / "silent").c_str(), sizeof(name.sun_path) - 1);
	ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
	ASSERT_EQ(listen(listener.get(), 1), 0);
	expect_failure(run_command({"-s", directory / "silent", "-t", "1", "list"}), 7, "Request timed out");
}

// ---------------------------------------------------------------------------------------------------------
// list

TEST_F(bus_command, list_prints_the_paths_of_all_objects_in_their_order)
{
	for (const char *path : {"radio", "apstat", "radio.5"})
		owner->add(path);
	owner->add(); // has no path
	expect_output(ubus({"list"}), "apstat\nradio\nradio.5\n");
}

TEST_F(bus_command, list_of_an_empty_bus_prints_nothing_and_succeeds)
{
	expect_output(ubus({"list"}), "");
}

TEST_F(bus_command, list_of_a_path_or_a_pattern_prints_what_it_names)
{
	for (const char *path : {"radio", "apstat", "radio.5"})
		owner->add(path);
	expect_output(ubus({"list", "radio"}), "radio\n");
	expect_output(ubus({"list", "radio*"}), "radio\nradio.5\n");
}

TEST_F(bus_command, list_of_what_is_not_there_fails_with_not_found)
{
	expect_failure(ubus({"list", "nope"}), 4, "Not found");
	expect_failure(ubus({"list", "nope*"}), 4, "Not found");
}

TEST_F(bus_command, verbose_list_shows_ids_methods_and_the_types_of_their_arguments)
{
	std::string arguments;
	const char *const types[] = {
		"any", "array", "table", "string", "int64", "int32", "int16", "bool", "double"};
	std::string expected;
	for (uint32_t type = 0; type < std::size(types); ++type) {
		arguments += wire::named_number("a" + std::to_string(type), type);
		expected += (type ? ", a" : "a") + std::to_string(type) + ": " + types[type];
	}
	uint32_t id = owner->add(
		"demo", wire::named(wire::table, "status", {}) + wire::named(wire::table, "set", arguments));
	char line[32];
	snprintf(line, sizeof(line), "demo @%08x\n", static_cast<unsigned>(id));
	expect_output(ubus({"list", "-v"}), line + ("\tstatus()\n\tset(" + expected + ")\n"));
	expect_output(ubus({"list", "-v", "demo"}), line + ("\tstatus()\n\tset(" + expected + ")\n"));
}

TEST_F(bus_command, verbose_list_keeps_control_characters_from_the_terminal)
{
	uint32_t id = owner->add("demo\x1b\n",
		wire::named(wire::table, "\x1b[2J\x7f\xff", wire::named_number("\x1b]0;x\a", wire::int32)));
	char expected[64];
	snprintf(expected, sizeof(expected), "demo?? @%08x\n\t?[2J?\xef\xbf\xbd(?]0;x?: int32)\n",
		static_cast<unsigned>(id));
	expect_output(ubus({"list", "-v"}), expected);
	expect_output(ubus({"list"}), "demo??\n");
}

// A bus that answers one look-up with `attributes`.
class lying_bus
{
	private_directory directory_;
	owned_fd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};

public:
	lying_bus()
	{
		sockaddr_un name{};
		name.sun_family = AF_UNIX;
		strncpy(name.sun_path, path().c_str(), sizeof(name.sun_path) - 1);
		EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		EXPECT_EQ(listen(listener_.get(), 1), 0);
	}
	std::string path() const { return directory_ / "bus"; }
	void answer(const std::string &attributes) const
	{
		ASSERT_TRUE(wait_for(listener_.get(), POLLIN));
		owned_fd client{accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)};
		EXPECT_TRUE(write_all(client.get(), wire::frame(wire::hello, 0, 0x12345678)));
		wire::received lookup = receive_frame(client.get());
		EXPECT_EQ(lookup.type(), wire::lookup) << lookup;
		EXPECT_TRUE(write_all(client.get(), wire::frame(wire::data, lookup.seq(), 0, attributes) +
							    wire::frame(wire::status, lookup.seq(), 0,
								    wire::number(wire::attr_status, 0))));
		read_all(client.get());
	}
};

TEST(bus_command_line, verbose_list_survives_signatures_that_make_no_sense)
{
	const std::string head = wire::text(wire::attr_objpath, "demo") +
				 wire::number(wire::attr_objid, 0x0badcafe) +
				 wire::number(wire::attr_objtype, 1);
	const std::string good = wire::named(wire::table, "ok", {});
	auto with = [&](const std::string &signature) {
		return head + wire::attribute(wire::attr_signature, signature);
	};
	const std::string tails[] = {
		with(good + wire::from_hex("85ffffff 00000000")),
		with(good + wire::from_hex("82000003 00000000")),
		with(wire::named_text("no table", "x") + good),
		with(wire::from_hex("82000008 ffff 6100") + good),
		with(good + wire::from_hex("000000")),
	};
	for (const std::string &attributes : tails) {
		lying_bus bus;
		running_command list{{"-s", bus.path(), "list", "-v"}};
		bus.answer(attributes);
		expect_output(list.finish(), "demo @0badcafe\n\tok()\n");
	}
	const std::string odd = wire::named(wire::int8, "byte", "\1") + wire::named_number("n", 77) +
				wire::named_number("m", 0xffffffff);
	lying_bus bus;
	running_command list{{"-s", bus.path(), "list", "-v"}};
	bus.answer(with(wire::named(wire::table, "odd", odd)));
	expect_output(list.finish(), "demo @0badcafe\n\todd(n: ?, m: ?)\n");
}

TEST(bus_command_line, list_leaves_out_what_the_bus_tells_incompletely)
{
	for (const std::string &attributes :
		{std::string(), wire::text(wire::attr_objpath, "demo"), wire::number(wire::attr_objid, 5),
			wire::from_hex("02000008 64656d6f 03000008 00000005")}) {
		lying_bus bus;
		running_command list{{"-s", bus.path(), "list", "-v"}};
		bus.answer(attributes);
		expect_output(list.finish(), "");
	}
}

// ---------------------------------------------------------------------------------------------------------
// call: what is sent

TEST_F(bus_command, call_without_json_sends_an_empty_message)
{
	EXPECT_EQ(sent_by_call({}), "");
}

TEST_F(bus_command, call_sends_the_members_of_an_object_as_named_attributes)
{
	EXPECT_EQ(
		sent_by_call({R"({"n": 5, "s": "text", "on": true, "off": false, "d": 1.5, "none": null})"}),
		wire::named(wire::int32, "n", wire::be32(5)) + wire::named_text("s", "text") +
			wire::named(wire::int8, "on", "\1") +
			wire::named(wire::int8, "off", std::string(1, '\0')) +
			wire::named(type_double, "d", double_value(1.5)) +
			wire::named(wire::unspec, "none", {}));
}

TEST_F(bus_command, call_sends_integers_with_the_bits_that_they_need)
{
	EXPECT_EQ(sent_by_call({R"({"a": -2147483648, "b": 2147483647, "c": -2147483649, "d": 2147483648})"}),
		wire::named(wire::int32, "a", wire::be32(0x80000000)) +
			wire::named(wire::int32, "b", wire::be32(0x7fffffff)) +
			wire::named(wire::int64, "c", big_endian(0xffffffff7fffffff, 8)) +
			wire::named(wire::int64, "d", big_endian(0x80000000, 8)));
}

TEST_F(bus_command, call_sends_tables_and_arrays_within_each_other)
{
	std::string inner = wire::named(wire::int32, "", wire::be32(1)) + wire::named_text("", "x") +
			    wire::named(wire::table, "", wire::named(wire::int8, "b", "\1")) +
			    wire::named(wire::array, "", {});
	EXPECT_EQ(sent_by_call({R"({"t": {"l": [1, "x", {"b": true}, []]}, "e": {}})"}),
		wire::named(wire::table, "t", wire::named(wire::array, "l", inner)) +
			wire::named(wire::table, "e", {}));
}

TEST_F(bus_command, call_with_json_sends_the_text_in_one_attribute_without_a_nul)
{
	EXPECT_EQ(sent_by_call({R"({ "a": [1, "ü"] })"}, "--json"),
		wire::named(wire::unspec, "json", R"({"a":[1,"ü"]})"));
	EXPECT_EQ(sent_by_call({"[1, 2]"}, "--json"), wire::named(wire::unspec, "json", "[1,2]"));
	EXPECT_EQ(sent_by_call({}, "--json"), wire::named(wire::unspec, "json", "{}"));
}

TEST_F(bus_command, call_with_text_that_is_not_json_says_why_and_sends_nothing)
{
	demo();
	for (const char *text : {"", "{", "42", "{\"a\": 1} x", "{\"a\": 99999999999999999999}",
		     "{\"a\": \"\xff\"}", "{\"a\": \"\\u0000\"}"}) {
		child_result result = ubus({"call", "demo", "set", text});
		EXPECT_TRUE(result.exited_with(2)) << text << result.report();
		EXPECT_EQ(result.out, "");
		EXPECT_THAT(result.err, StartsWith("ubus: not JSON: "));
		EXPECT_THAT(result.err, EndsWith("\nCommand failed: Invalid argument\n"));
	}
	EXPECT_THAT(owner->drain(), testing::IsEmpty());
}

TEST_F(bus_command, call_with_what_no_message_can_carry_sends_nothing)
{
	demo();
	expect_failure(ubus({"call", "demo", "set", "[1]"}), 2, "Invalid argument");
	for (size_t length : {256, 70000}) {
		std::string name(length, 'n');
		expect_failure(ubus({"call", "demo", "set", "{\"" + name + "\": 1}"}), 2, "Invalid argument");
		expect_failure(ubus({"call", "demo", "set", "{\"a\": [{\"" + name + "\": 1}]}"}), 2,
			"Invalid argument");
	}
	EXPECT_THAT(owner->drain(), testing::IsEmpty());
}

TEST_F(bus_command, call_takes_names_of_up_to_255_bytes)
{
	std::string name(255, 'n');
	EXPECT_EQ(sent_by_call({"{\"" + name + "\": 1}"}), wire::named(wire::int32, name, wire::be32(1)));
}

TEST_F(bus_command, call_takes_nesting_as_deep_as_json_is_read)
{
	std::string expected = wire::named(wire::array, "", {});
	for (int depth = 0; depth < 1000; ++depth)
		expected = wire::named(wire::array, "", expected);
	std::string text = std::string(1001, '[') + std::string(1001, ']');
	// The outermost one has a name.
	EXPECT_EQ(sent_by_call({"{\"d\": " + text + "}"}), wire::named(wire::array, "d", expected.substr(8)));
}

// ---------------------------------------------------------------------------------------------------------
// call: what comes of it

TEST_F(bus_command, call_prints_the_reply_as_json)
{
	child_result result = call_answered_with(
		wire::named(wire::int32, "i", wire::be32(0xffffffff)) +
		wire::named(wire::int64, "l", big_endian(0x8000000000000000, 8)) +
		wire::named(type_int16, "s", big_endian(0x8000, 2)) + wire::named(wire::int8, "b", "\1") +
		wire::named_text("t", "say \"ü\"\n") + wire::named(type_double, "d", double_value(-0.25)) +
		wire::named(wire::unspec, "u", "raw") + wire::named(wire::unspec, "e", {}) +
		wire::named(wire::array, "a", wire::named_number("", 7) + wire::named(wire::table, "", {})) +
		wire::named(wire::table, "o", wire::named_number("n", 8)));
	expect_output(result, R"({
  "i": -1,
  "l": -9223372036854775808,
  "s": -32768,
  "b": true,
  "t": "say \"ü\"\n",
  "d": -0.25,
  "u": "raw",
  "e": null,
  "a": [
    7,
    {}
  ],
  "o": {
    "n": 8
  }
}
)");
}

TEST_F(bus_command, call_prints_the_json_that_a_reply_carries_as_that_json)
{
	expect_output(call_answered_with(wire::named(wire::unspec, "json", R"({"a":[1,"ü",null]})")), R"({
  "a": [
    1,
    "ü",
    null
  ]
}
)");
	expect_output(call_answered_with(wire::named(wire::unspec, "json", "[]")), "[]\n");
}

TEST_F(bus_command, call_prints_an_attribute_json_that_is_something_else_as_an_attribute)
{
	auto as_member = [](const std::string &value) { return "{\n  \"json\": " + value + "\n}\n"; };
	auto of_unspec = [](const std::string &value) { return wire::named(wire::unspec, "json", value); };
	expect_output(call_answered_with(of_unspec("{\"a\":")), as_member(R"("{\"a\":")"));
	expect_output(call_answered_with(of_unspec("42")), as_member("\"42\""));
	expect_output(call_answered_with(of_unspec(std::string("{}\0", 3))), as_member(R"("{}\u0000")"));
	expect_output(call_answered_with(wire::named_text("json", "{}")), as_member("\"{}\""));
	expect_output(call_answered_with(of_unspec("{}") + wire::named_number("n", 1)),
		"{\n  \"json\": \"{}\",\n  \"n\": 1\n}\n");
	expect_output(
		call_answered_with(wire::named(wire::unspec, "jso", "{}")), "{\n  \"jso\": \"{}\"\n}\n");
}

TEST_F(bus_command, call_prints_every_reply_and_nothing_for_none)
{
	uint32_t id = demo();
	for (int count : {0, 1, 3}) {
		running_command call{on_bus({"call", "demo", "get"})};
		wire::received invoke = owner->receive();
		std::string expected;
		for (int reply = 0; reply < count; ++reply) {
			send_reply(invoke, id,
				wire::attribute(wire::attr_data,
					wire::named_number("r", static_cast<uint32_t>(reply))));
			expected += "{\n  \"r\": " + std::to_string(reply) + "\n}\n";
		}
		send_status(invoke, id, 0);
		expect_output(call.finish(), expected);
	}
}

TEST_F(bus_command, call_ends_with_the_status_that_the_owner_gives)
{
	const std::pair<uint32_t, const char *> statuses[] = {{1, "Invalid command"}, {2, "Invalid argument"},
		{3, "Method not found"}, {6, "Permission denied"}, {9, "Unknown error"},
		{77, "Unknown error: 77"}};
	for (const auto &[status, text] : statuses) {
		running_command call{on_bus({"call", "demo", "get"})};
		uint32_t id = demo();
		wire::received invoke = owner->receive();
		send_status(invoke, id, status);
		expect_failure(call.finish(), static_cast<int>(status), text);
	}
}

TEST_F(bus_command, call_does_not_end_like_a_success_when_the_status_does_not_fit_an_exit_status)
{
	uint32_t id = demo();
	for (uint32_t status : {256U, 0xffffff00U, 0x80000000U}) {
		running_command call{on_bus({"call", "demo", "get"})};
		send_status(owner->receive(), id, status);
		expect_failure(
			call.finish(), 255, "Unknown error: " + std::to_string(static_cast<int32_t>(status)));
	}
}

TEST_F(bus_command, call_prints_replies_that_came_before_an_error)
{
	uint32_t id = demo();
	running_command call{on_bus({"call", "demo", "get"})};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, {}));
	send_status(invoke, id, 5);
	child_result result = call.finish();
	EXPECT_TRUE(result.exited_with(5)) << result.report();
	EXPECT_EQ(result.out, "{}\n");
	EXPECT_EQ(result.err, "Command failed: No response\n");
}

TEST_F(bus_command, call_of_an_unknown_object_fails_with_not_found)
{
	expect_failure(ubus({"call", "nope", "get"}), 4, "Not found");
}

TEST_F(bus_command, call_of_an_object_that_the_bus_names_but_does_not_show_fails_with_not_found)
{
	// Without a type, so that a look-up succeeds and brings nothing.
	owner->answers(wire::add_object, 0, wire::text(wire::attr_objpath, "hidden"));
	ASSERT_EQ(owner->answers(wire::lookup, 0, wire::text(wire::attr_objpath, "hidden")).size(), 1U);
	expect_failure(ubus({"call", "hidden", "get"}), 4, "Not found");
	expect_failure(ubus({"subscribe", "hidden"}), 4, "Not found");
}

TEST_F(bus_command, call_that_nobody_answers_is_given_up_after_the_time_limit)
{
	uint32_t id = demo();
	running_command call{on_bus({"-t", "1", "call", "demo", "get"})};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, wire::named_number("r", 1)));
	child_result result = call.finish();
	EXPECT_TRUE(result.exited_with(7)) << result.report();
	EXPECT_EQ(result.out, "{\n  \"r\": 1\n}\n");
	EXPECT_EQ(result.err, "Command failed: Request timed out\n");
}

TEST_F(bus_command, call_ends_when_the_bus_does)
{
	demo();
	running_command call{on_bus({"call", "demo", "get"})};
	owner->receive();
	bus->kill();
	expect_failure(call.finish(), 10, "Connection failed");
}

TEST_F(bus_command, call_that_waits_is_ended_by_an_interrupt)
{
	demo();
	running_command call{on_bus({"call", "demo", "get"})};
	owner->receive();
	call.signal_with(SIGINT);
	EXPECT_TRUE(call.finish().killed_by(SIGINT));
}

// ---------------------------------------------------------------------------------------------------------
// Hostile replies

TEST_F(bus_command, what_is_not_utf8_is_replaced_in_names_and_values)
{
	const std::string mark = "\xef\xbf\xbd";
	auto times = [&](int count) {
		std::string text;
		while (count-- > 0)
			text += mark;
		return text;
	};
	const std::pair<std::string, std::string> values[] = {
		{"a\xff z", "a" + mark + " z"},
		{"\x80", mark},
		{"\xc3", mark},                 // cut off
		{"\xe2\x82", times(2)},         // cut off
		{"\xf0\x9f\x98", times(3)},     // cut off
		{"\xc0\x80", times(2)},         // a NUL in two bytes
		{"\xe0\x9f\xbf", times(3)},     // in three bytes what fits two
		{"\xf0\x8f\xbf\xbf", times(4)}, // in four what fits three
		{"\xed\xa0\x80", times(3)},     // half of a pair of UTF-16
		{"\xf4\x90\x80\x80", times(4)}, // beyond the last code point
		{"\xf5\x80\x80\x80", times(4)}, // never begins a sequence
		{"\xc3(", mark + "("},          // does not go on
		{"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf",
			"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf"},
	};
	for (const auto &[bytes, text] : values) {
		expect_output(call_answered_with(wire::named_text(bytes, bytes)),
			"{\n  \"" + text + "\": \"" + text + "\"\n}\n");
		expect_output(call_answered_with(wire::named(wire::unspec, "u", bytes)),
			"{\n  \"u\": \"" + text + "\"\n}\n");
	}
}

TEST_F(bus_command, a_nul_ends_names_and_strings_as_it_does_for_everybody_who_reads_them)
{
	expect_output(call_answered_with(
			      wire::named(wire::string, std::string("n\0x", 3), std::string("v\0y\0", 4))),
		"{\n  \"n\": \"v\"\n}\n");
}

TEST_F(bus_command, of_members_with_one_name_the_first_counts)
{
	expect_output(call_answered_with(wire::named_number("n", 1) + wire::named_number("n", 2)),
		"{\n  \"n\": 1\n}\n");
}

TEST_F(bus_command, numbers_that_json_lacks_are_null)
{
	for (double value :
		{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()})
		expect_output(call_answered_with(wire::named(type_double, "d", double_value(value))),
			"{\n  \"d\": null\n}\n");
}

TEST_F(bus_command, malformed_attributes_are_left_out)
{
	const std::string good = wire::named_number("n", 1);
	const std::string malformed[] = {
		wire::named(wire::int32, "short", "\1"),
		wire::named(wire::int64, "long", std::string(12, '\1')), wire::named(wire::int8, "none", {}),
		wire::named(type_double, "half", wire::be32(1)), wire::named(wire::string, "endless", "text"),
		wire::named(wire::string, "empty", {}), wire::named(9, "type", "?"),
		wire::named(127, "type", "?"), wire::number(wire::int32, 1), // without a name
		wire::from_hex("83000006 0000 0000"),                        // cut off in the name
		wire::from_hex("83000008 ffff 6100"),                      // a name longer than its attribute
		wire::from_hex("83000010 0003 61 62 63 64 0000 78000000"), // a name without its NUL
		wire::from_hex("80000004"),                                // nothing at all
	};
	for (const std::string &bytes : malformed)
		expect_output(call_answered_with(bytes + good), "{\n  \"n\": 1\n}\n");
}

TEST_F(bus_command, lengths_that_make_no_sense_end_a_container)
{
	for (const char *word : {"8500ffff", "85ffffff", "85000000", "85000003", "ffffffff"}) {
		std::string bytes = wire::from_hex(word) + std::string(12, '\0');
		expect_output(
			call_answered_with(wire::named_number("n", 1) + bytes + wire::named_number("m", 2)),
			"{\n  \"n\": 1\n}\n");
		expect_output(
			call_answered_with(wire::named(wire::table, "t", bytes) + wire::named_number("m", 2)),
			"{\n  \"t\": {},\n  \"m\": 2\n}\n");
	}
}

TEST_F(bus_command, data_that_claims_to_have_a_name_is_read_within_its_bounds)
{
	uint32_t id = demo();
	for (const char *hex :
		{"87000004", "87000008 ffff 0000", "8700000c 0004 6162 63640000", "87000005 ff000000"}) {
		running_command call{on_bus({"call", "demo", "get"})};
		wire::received invoke = owner->receive();
		send_reply(invoke, id, wire::from_hex(hex));
		send_status(invoke, id, 0);
		child_result result = call.finish();
		EXPECT_TRUE(result.exited_with(0)) << hex << result.report();
		EXPECT_EQ(result.err, "");
	}
}

TEST_F(bus_command, nesting_is_shown_to_a_depth_of_100_and_survived_beyond)
{
	std::string bytes, shown;
	for (int depth = 0; depth < 100; ++depth)
		bytes = wire::named(wire::array, "", bytes);
	child_result result = call_answered_with(wire::named(wire::table, "t", bytes));
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_THAT(result.out, HasSubstr("(nested too deeply)"));
	result = call_answered_with(wire::named(wire::table, "t", bytes.substr(8)));
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_THAT(result.out, testing::Not(HasSubstr("(nested too deeply)")));
	// As deep as a message can be: each level takes eight bytes.
	const uint32_t levels = 130'000;
	bytes.clear();
	for (uint32_t level = levels; level > 0; --level)
		bytes += wire::be32(0x81000000 | level * 8) + wire::be32(0);
	result = call_answered_with(bytes);
	EXPECT_TRUE(result.exited_with(0)) << result.err;
	EXPECT_THAT(result.out, HasSubstr("(nested too deeply)"));
}

TEST_F(bus_command, a_table_as_large_as_a_message_is_printed)
{
	const int count = 50'000;
	std::string bytes;
	for (int index = 0; index < count; ++index)
		bytes += wire::named(wire::int8, "m" + std::to_string(index), "\1");
	ASSERT_LT(bytes.size(), wire::body_bytes_max - 100);
	child_result result = call_answered_with(bytes);
	EXPECT_TRUE(result.exited_with(0)) << result.err;
	EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), count + 2);
}

// ---------------------------------------------------------------------------------------------------------
// subscribe

TEST_F(bus_command, subscribe_prints_each_notification_at_once_on_a_line)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	notify(id, "led", wire::named_text("name", "blue") + wire::named(wire::int8, "on", "\1"));
	EXPECT_EQ(subscribe.line(), R"({"led": {"name": "blue", "on": true}})");
	notify(id, "led", wire::named(wire::unspec, "json", R"({"a":[1,{"b":2}]})"));
	EXPECT_EQ(subscribe.line(), R"({"led": {"a": [1, {"b": 2}]}})");
	notify(id, "empty");
	EXPECT_EQ(subscribe.line(), R"({"empty": {}})");
	notify(id, "\"\n\xff");
	EXPECT_EQ(subscribe.line(), "{\"\\\"\\n\xef\xbf\xbd\": {}}");
	subscribe.signal_with(SIGTERM);
	expect_output(subscribe.finish(), "");
}

TEST_F(bus_command, subscribe_answers_notifications_that_want_an_answer)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	uint16_t seq = owner->request(wire::notify, id,
		wire::number(wire::attr_objid, id) + wire::text(wire::attr_method, "tock") +
			wire::attribute(wire::attr_data, {}));
	EXPECT_TRUE(owner->receive().has(wire::attr_subscribers));
	wire::received answer = owner->receive();
	EXPECT_EQ(answer.type(), wire::status) << answer;
	EXPECT_EQ(answer.seq(), seq);
	EXPECT_EQ(answer.status(), 0);
	EXPECT_EQ(subscribe.line(), R"({"tock": {}})");
}

TEST_F(bus_command, subscribe_takes_several_objects_and_goes_on_until_the_last_has_gone)
{
	uint32_t first = owner->add("first"), second = owner->add("second");
	running_command subscribe{on_bus({"subscribe", "first", "second"})};
	wait_for_subscriber(first);
	wait_for_subscriber(second);
	notify(first, "from first");
	EXPECT_EQ(subscribe.line(), R"({"from first": {}})");
	EXPECT_EQ(owner->remove(first), 0);
	notify(second, "from second");
	EXPECT_EQ(subscribe.line(), R"({"from second": {}})");
	EXPECT_EQ(owner->remove(second), 0);
	child_result result = subscribe.finish();
	EXPECT_TRUE(result.exited_with(4)) << result.report();
	EXPECT_EQ(result.out, "");
	char expected[128];
	snprintf(expected, sizeof(expected),
		"ubus: object %08x has gone\nubus: object %08x has gone\nCommand failed: Not found\n",
		static_cast<unsigned>(first), static_cast<unsigned>(second));
	EXPECT_EQ(result.err, expected);
}

TEST_F(bus_command, subscribe_to_what_is_not_there_fails_with_not_found)
{
	demo();
	expect_failure(ubus({"subscribe", "nope"}), 4, "Not found");
	expect_failure(ubus({"subscribe", "demo", "nope"}), 4, "Not found");
}

TEST_F(bus_command, subscribe_and_listen_end_well_on_either_signal_however_early)
{
	uint32_t id = demo();
	for (int number : {SIGINT, SIGTERM}) {
		running_command subscribe{on_bus({"subscribe", "demo"})};
		wait_for_subscriber(id);
		subscribe.signal_with(number);
		expect_output(subscribe.finish(), "");
		owner->drain(); // it has no subscriber any more
		running_command listen{on_bus({"listen"})};
		wait_for_listener(&listen, "probe");
		listen.signal_with(number);
		child_result result = listen.finish();
		EXPECT_TRUE(result.exited_with(0)) << result.report();
		EXPECT_EQ(result.err, "");
	}
}

TEST_F(bus_command, subscribe_and_listen_fail_when_the_bus_ends)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	bus->kill();
	expect_failure(subscribe.finish(), 10, "Connection failed");
	child_result result = listen.finish();
	EXPECT_TRUE(result.exited_with(10)) << result.report();
	EXPECT_EQ(result.err, "Command failed: Connection failed\n");
}

TEST_F(bus_command, subscribe_waits_longer_than_the_time_limit_for_notifications)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"-t", "1", "subscribe", "demo"})};
	wait_for_subscriber(id);
	notify(id, "first");
	EXPECT_EQ(subscribe.line(), R"({"first": {}})");
	EXPECT_FALSE(subscribe.has_output(1500)); // nothing, and it goes on
	notify(id, "second");
	EXPECT_EQ(subscribe.line(), R"({"second": {}})");
}

TEST_F(bus_command, output_that_nobody_reads_any_more_ends_it)
{
	uint32_t id = demo();
	running_command subscribe{on_bus({"subscribe", "demo"})};
	wait_for_subscriber(id);
	subscribe.stop_reading();
	notify(id, "unheard");
	expect_failure(subscribe.finish(), 13, "System error");
}

TEST_F(bus_command, output_that_cannot_be_written_is_an_error)
{
	uint32_t id = demo();
	expect_failure(running_command(on_bus({"list"}), "/dev/full").finish(), 13, "System error");
	running_command call{on_bus({"call", "demo", "get"}), "/dev/full"};
	wire::received invoke = owner->receive();
	send_reply(invoke, id, wire::attribute(wire::attr_data, {}));
	send_status(invoke, id, 0);
	expect_failure(call.finish(), 13, "System error");
}

// ---------------------------------------------------------------------------------------------------------
// listen

TEST_F(bus_command, listen_prints_every_event_at_once_on_a_line)
{
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	EXPECT_EQ(owner->send_event("led.on", wire::named_text("name", "blue")), 0);
	EXPECT_EQ(event_line(&listen, "probe"), R"({"led.on": {"name": "blue"}})");
	EXPECT_EQ(owner->send_event("as.json", wire::named(wire::unspec, "json", "[1,2]")), 0);
	EXPECT_EQ(listen.line(), R"({"as.json": [1, 2]})");
}

TEST_F(bus_command, listen_prints_the_events_of_the_bus_itself)
{
	running_command listen{on_bus({"listen", "ubus.object.*", "probe"})};
	wait_for_listener(&listen, "probe");
	uint32_t id = owner->add("late");
	EXPECT_EQ(event_line(&listen, "probe"),
		"{\"ubus.object.add\": {\"id\": " + std::to_string(static_cast<int32_t>(id)) +
			", \"path\": \"late\"}}");
}

TEST_F(bus_command, listen_prints_what_one_of_its_patterns_names_once)
{
	running_command listen{on_bus({"listen", "led.*", "led.on", "exact", "probe"})};
	wait_for_listener(&listen, "probe");
	for (const char *id : {"radio.on", "led.on", "exact.not", "exact", "led.off"})
		EXPECT_EQ(owner->send_event(id), 0);
	EXPECT_EQ(event_line(&listen, "probe"), R"({"led.on": {}})");
	EXPECT_EQ(listen.line(), R"({"exact": {}})");
	EXPECT_EQ(listen.line(), R"({"led.off": {}})");
}

TEST_F(bus_command, listen_survives_events_with_malformed_data)
{
	running_command listen{on_bus({"listen"})};
	wait_for_listener(&listen, "probe");
	owner->send_event("broken", wire::from_hex("83000008 ffff 6100") + wire::from_hex("85ffffff"));
	EXPECT_EQ(event_line(&listen, "probe"), R"({"broken": {}})");
	owner->send_event("a\tb\xff");
	EXPECT_EQ(listen.line(), "{\"a\\tb\xef\xbf\xbd\": {}}");
}

} // namespace
