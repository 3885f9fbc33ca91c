// The `ubus` command: its arguments, and `list`.
#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "command.h"

using testing::HasSubstr;
using testing::StartsWith;

// ---- The command line ----

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

// ---- list ----

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
