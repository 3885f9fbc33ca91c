// The board's description, and what is reported without one; the addresses of real interfaces and of radios, and
// LED attributes, in a /sys/class of the test's own.
#include "lib/device.h"

#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>

#include <gmock/gmock.h>

#include "tests/support/board.h"

using namespace board_support;

namespace
{

// Read before main, by a constructor of the program's.
const std::string id_before_main = dev_id();

constexpr device_switch two_port_switch = {"switch1", "6", "5", "4", "1 2 3"};

int led_calls;
unsigned led_state;

int show_led(unsigned state)
{
	led_calls++;
	led_state = state;
	return -7;
}

int start()
{
	return 42;
}

int after_upgrade()
{
	return -3;
}

constexpr device full_board = {"router1", "Somebody", "Router 1", &two_port_switch, "wan0", "lan0", "phy3",
	255, "phy4", 128, show_led, start, after_upgrade};

// Only the required fields.
constexpr device bare_board = {nullptr, nullptr, nullptr, nullptr, "wan0", nullptr, nullptr, 0, nullptr, 0,
	nullptr, nullptr, nullptr};

// A process has one description, so each test of one has a child.
void on_board(const device *board, const std::function<void()> &body)
{
	on_bare_board([&] {
		device_set(board);
		body();
	});
}

// ---- The description ----

TEST(device, describes_the_built_in_board_before_a_constructor_of_the_program_runs)
{
	EXPECT_EQ(id_before_main, "unifiacpro");
}

TEST(device, gives_the_members_of_the_description_as_they_are)
{
	on_board(&full_board, [] {
		EXPECT_EQ(dev_id(), full_board.id);
		EXPECT_EQ(dev_vendor(), full_board.vendor);
		EXPECT_EQ(dev_name(), full_board.name);
		EXPECT_EQ(dev_wan_iface(), full_board.wan_iface);
		EXPECT_EQ(dev_lan_iface(), full_board.lan_iface);
		EXPECT_EQ(dev_radio1_phy(), full_board.radio1_phy);
		EXPECT_EQ(dev_radio2_phy(), full_board.radio2_phy);
		EXPECT_EQ(dev_switch_dev(), two_port_switch.dev);
		EXPECT_EQ(dev_switch_cpu(), two_port_switch.cpu);
		EXPECT_EQ(dev_switch_cpu_lan(), two_port_switch.cpu_lan);
		EXPECT_EQ(dev_switch_wan(), two_port_switch.wan);
		EXPECT_EQ(dev_switch_lan(), two_port_switch.lan);
	});
}

TEST(device, gives_the_modes_of_the_radios_as_numbers_without_a_sign)
{
	on_board(&full_board, [] {
		EXPECT_EQ(dev_radio1_mode(), 255u);
		EXPECT_EQ(dev_radio2_mode(), 128u);
	});
}

TEST(device, gives_null_for_names_that_the_board_does_not_have)
{
	on_board(&bare_board, [] {
		EXPECT_EQ(dev_id(), nullptr);
		EXPECT_EQ(dev_vendor(), nullptr);
		EXPECT_EQ(dev_name(), nullptr);
		EXPECT_STREQ(dev_wan_iface(), "wan0");
		EXPECT_EQ(dev_lan_iface(), nullptr);
		EXPECT_EQ(dev_radio1_phy(), nullptr);
		EXPECT_EQ(dev_radio2_phy(), nullptr);
		EXPECT_EQ(dev_radio1_mode(), 0u);
		EXPECT_EQ(dev_radio2_mode(), 0u);
	});
}

TEST(device, is_replaced_by_the_one_set_last)
{
	on_board(&full_board, [] {
		EXPECT_STREQ(dev_id(), "router1");
		device_set(&bare_board);
		EXPECT_EQ(dev_id(), nullptr);
		device_set(nullptr);
		device_set(&full_board);
		EXPECT_STREQ(dev_id(), "router1");
	});
}

// The record is borrowed, not copied.
TEST(device, is_read_anew_by_each_call)
{
	device board = full_board;
	on_board(&board, [&] {
		board.id = "changed";
		EXPECT_STREQ(dev_id(), "changed");
	});
}

TEST(dev_has_radio, says_which_of_two_radios_there_are)
{
	device board = full_board;
	on_board(&board, [&] {
		EXPECT_EQ(dev_has_radio(0), 1);
		EXPECT_EQ(dev_has_radio(1), 1);
		board.radio1_phy = nullptr;
		EXPECT_EQ(dev_has_radio(0), 0);
		EXPECT_EQ(dev_has_radio(1), 1);
		board.radio1_phy = "";
		board.radio2_phy = nullptr;
		EXPECT_EQ(dev_has_radio(0), 1); // an empty name is a name
		EXPECT_EQ(dev_has_radio(1), 0);
	});
}

TEST(dev_has_radio, knows_no_third_radio_even_without_a_description)
{
	for (const device *board : {&full_board, static_cast<const device *>(nullptr)})
		on_board(board, [] {
			for (unsigned index : {2u, 3u, 256u, 0x80000000u, UINT_MAX})
				EXPECT_EQ(dev_has_radio(index), 0) << index;
			EXPECT_EQ(messages, errors({}));
		});
}

TEST(dev_has_switch, says_whether_there_is_a_switch)
{
	on_board(&full_board, [] { EXPECT_EQ(dev_has_switch(), 1); });
	on_board(&bare_board, [] { EXPECT_EQ(dev_has_switch(), 0); });
}

TEST(dev_switch, gives_null_for_everything_without_a_switch)
{
	on_board(&bare_board, [] {
		EXPECT_EQ(dev_switch_dev(), nullptr);
		EXPECT_EQ(dev_switch_cpu(), nullptr);
		EXPECT_EQ(dev_switch_cpu_lan(), nullptr);
		EXPECT_EQ(dev_switch_wan(), nullptr);
		EXPECT_EQ(dev_switch_lan(), nullptr);
	});
}

TEST(dev_switch, gives_null_for_members_that_are_null)
{
	constexpr device_switch nameless = {};
	device board = full_board;
	board.sw = &nameless;
	on_board(&board, [] {
		EXPECT_EQ(dev_has_switch(), 1);
		EXPECT_EQ(dev_switch_dev(), nullptr);
		EXPECT_EQ(dev_switch_cpu(), nullptr);
		EXPECT_EQ(dev_switch_cpu_lan(), nullptr);
		EXPECT_EQ(dev_switch_wan(), nullptr);
		EXPECT_EQ(dev_switch_lan(), nullptr);
	});
}

TEST(dev_switch, has_one_cpu_port_for_both_unless_there_is_one_for_the_lan)
{
	device_switch one_cpu_port = two_port_switch;
	one_cpu_port.cpu_lan = nullptr;
	device board = full_board;
	board.sw = &one_cpu_port;
	on_board(&board, [] {
		EXPECT_STREQ(dev_switch_cpu_lan(), "6");
		EXPECT_STREQ(dev_switch_cpu(), "6");
	});
}

// ---- Functions of the board ----

TEST(device, returns_what_the_functions_of_the_board_return)
{
	on_board(&full_board, [] {
		EXPECT_EQ(dev_init(), 42);
		EXPECT_EQ(dev_led_set(0), -7);
		EXPECT_EQ(dev_post_upgrade(), -3);
	});
}

TEST(device, silently_returns_0_for_functions_that_the_board_does_not_have)
{
	on_board(&bare_board, [] {
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(dev_led_set(DEV_LED_BLUE_ON), 0);
		EXPECT_EQ(dev_post_upgrade(), 0);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(dev_led_set, hands_any_state_to_the_board)
{
	on_board(&full_board, [] {
		for (unsigned state : {0u, 5u, 6u, 0x80000000u, UINT_MAX}) {
			led_calls = 0;
			dev_led_set(state);
			EXPECT_EQ(led_calls, 1);
			EXPECT_EQ(led_state, state);
		}
	});
}

TEST(dev_led_set, has_the_numbers_0_to_5_for_states)
{
	EXPECT_EQ(DEV_LED_OFF, 0);
	EXPECT_EQ(DEV_LED_WHITE_BLINK, 1);
	EXPECT_EQ(DEV_LED_BLUE_ON, 2);
	EXPECT_EQ(DEV_LED_WHITE_BLINK_FAST, 3);
	EXPECT_EQ(DEV_LED_WHITE_BLINK_SLOW, 4);
	EXPECT_EQ(DEV_LED_BLUE_BLINK, 5);
}

// ---- Without a description ----

// What a program writes when `call` ends it because its description, or a part of that, is missing.
std::string last_words(const device *board, const std::function<void()> &call)
{
	child_result result = run_child([&] {
		rlimit none{0, 0};
		setrlimit(RLIMIT_CORE, &none);
		log_open(LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		set_app_name("app");
		device_set(board);
		call();
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.out, "");
	return result.err;
}

TEST(device, without_a_description_ends_the_program_with_the_place_and_the_function)
{
	const struct {
		const char *location, *function;
		void (*call)();
		const char *expression = "dev";
	} checks[] = {
		{"lib/device.c:20", "dev_id", [] { dev_id(); }},
		{"lib/device.c:26", "dev_vendor", [] { dev_vendor(); }},
		{"lib/device.c:32", "dev_name", [] { dev_name(); }},
		{"lib/device.c:39", "dev_wan_iface", [] { dev_wan_iface(); }, "dev && dev->wan_iface"},
		{"lib/device.c:46", "dev_lan_iface", [] { dev_lan_iface(); }},
		{"lib/device.c:52", "dev_radio1_phy", [] { dev_radio1_phy(); }},
		{"lib/device.c:58", "dev_radio1_mode", [] { dev_radio1_mode(); }},
		{"lib/device.c:64", "dev_radio2_phy", [] { dev_radio2_phy(); }},
		{"lib/device.c:70", "dev_radio2_mode", [] { dev_radio2_mode(); }},
		{"lib/device.c:76", "dev_init", [] { dev_init(); }},
		{"lib/device.c:98", "dev_led_set", [] { dev_led_set(0); }},
		{"lib/device.c:98", "dev_led_set", [] { dev_led_set(6); }},
		{"lib/device.c:52", "dev_radio1_phy", [] { dev_has_radio(0); }},
		{"lib/device.c:64", "dev_radio2_phy", [] { dev_has_radio(1); }},
		{"lib/device.c:118", "dev_has_switch", [] { dev_has_switch(); }},
		{"lib/device.c:124", "dev_switch_dev", [] { dev_switch_dev(); }},
		{"lib/device.c:130", "dev_switch_cpu", [] { dev_switch_cpu(); }},
		{"lib/device.c:136", "dev_switch_cpu_lan", [] { dev_switch_cpu_lan(); }},
		{"lib/device.c:149", "dev_switch_wan", [] { dev_switch_wan(); }},
		{"lib/device.c:155", "dev_switch_lan", [] { dev_switch_lan(); }},
		{"lib/device.c:161", "dev_post_upgrade", [] { dev_post_upgrade(); }},
		{"lib/device.c:39", "dev_wan_iface",
			[] {
				json_t *array;
				dev_get_mac_json_array(&array);
			},
			"dev && dev->wan_iface"},
	};
	for (const auto &check : checks)
		EXPECT_EQ(last_words(nullptr, check.call), std::string("app: ") + check.location +
								   ": assertion " + check.expression +
								   " failed in " + check.function + "()\n");
}

TEST(dev_wan_iface, also_ends_the_program_on_a_board_without_a_wan_interface)
{
	device board = full_board;
	board.wan_iface = nullptr;
	const char *report =
		"app: lib/device.c:39: assertion dev && dev->wan_iface failed in dev_wan_iface()\n";
	EXPECT_EQ(last_words(&board, [] { dev_wan_iface(); }), report);
	EXPECT_EQ(last_words(&board,
			  [] {
				  json_t *array;
				  dev_get_mac_json_array(&array);
			  }),
		report);
}

TEST(device, needs_the_wan_interface_for_nothing_else)
{
	device board = full_board;
	board.wan_iface = nullptr;
	on_board(&board, [] {
		EXPECT_STREQ(dev_id(), "router1");
		EXPECT_STREQ(dev_lan_iface(), "lan0");
		EXPECT_EQ(dev_has_radio(0), 1);
		EXPECT_STREQ(dev_switch_wan(), "4");
	});
}

// ---- dev_get_mac_json_array ----

const char *const wan_mac = "02:00:5e:10:00:ff";

// The interface "wan0" with the address above.
void make_wan()
{
	std::string command =
		std::string("ip link add dev wan0 address ") + wan_mac + " type veth peer name peer0";
	require(system(command.c_str()) == 0, command);
}

// A radio whose addresses are these lines.
void make_radio(const std::string &phy, const std::string &lines)
{
	if (!exists("/sys/class/ieee80211"))
		make_directory("/sys/class/ieee80211");
	make_directory("/sys/class/ieee80211/" + phy);
	make_file("/sys/class/ieee80211/" + phy + "/addresses", lines);
}

// Not a value that the library could have made.
json_t *const untouched = reinterpret_cast<json_t *>(uintptr_t{8});

std::string addresses()
{
	json_t *array = untouched;
	EXPECT_EQ(dev_get_mac_json_array(&array), 0);
	if (array == untouched)
		return "(untouched)";
	EXPECT_EQ(array->refcount, 1u);
	char *text = json_dumps(array, JSON_COMPACT);
	std::string copy = text;
	free(text);
	json_decref(array);
	return copy;
}

void expect_no_addresses(int error)
{
	json_t *array = untouched;
	EXPECT_EQ(dev_get_mac_json_array(&array), error);
	EXPECT_EQ(array, untouched);
}

TEST(dev_get_mac_json_array, lists_the_wan_interface_and_the_radios_in_this_order)
{
	on_board(&full_board, [] {
		make_wan();
		make_radio("phy4", "02:00:00:00:00:01\n");
		make_radio("phy3", "02:00:00:00:00:0A\n02:00:00:00:00:0b\n");
		EXPECT_EQ(addresses(), "[\"02:00:5e:10:00:ff\",\"02:00:00:00:00:0A\",\"02:00:00:00:00:01\"]");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(dev_get_mac_json_array, makes_a_new_array_each_time)
{
	on_board(&bare_board, [] {
		make_wan();
		json_t *first = nullptr, *second = nullptr;
		EXPECT_EQ(dev_get_mac_json_array(&first), 0);
		EXPECT_EQ(dev_get_mac_json_array(&second), 0);
		EXPECT_NE(first, second);
		EXPECT_TRUE(json_equal(first, second));
		json_decref(first);
		json_decref(second);
	});
}

TEST(dev_get_mac_json_array, has_one_element_on_a_board_without_radios)
{
	on_board(&bare_board, [] {
		make_wan();
		make_radio("phy3", "02:00:00:00:00:03\n"); // which the board knows nothing of
		EXPECT_EQ(addresses(), "[\"02:00:5e:10:00:ff\"]");
	});
}

TEST(dev_get_mac_json_array, leaves_a_radio_out_that_the_board_does_not_have)
{
	device board = full_board;
	on_board(&board, [&] {
		make_wan();
		make_radio("phy3", "02:00:00:00:00:03\n");
		make_radio("phy4", "02:00:00:00:00:04\n");
		board.radio1_phy = nullptr;
		EXPECT_EQ(addresses(), "[\"02:00:5e:10:00:ff\",\"02:00:00:00:00:04\"]");
		board.radio1_phy = "phy3";
		board.radio2_phy = nullptr;
		EXPECT_EQ(addresses(), "[\"02:00:5e:10:00:ff\",\"02:00:00:00:00:03\"]");
	});
}

TEST(dev_get_mac_json_array, follows_the_address_of_the_interface)
{
	on_board(&bare_board, [] {
		make_wan();
		require(system("ip link set dev wan0 address 06:00:00:00:00:01") == 0, "an address");
		EXPECT_EQ(addresses(), "[\"06:00:00:00:00:01\"]");
	});
}

// The radios are not asked, or the log would say that they are missing.
TEST(dev_get_mac_json_array, without_the_wan_interface_silently_fails)
{
	on_board(&full_board, [] {
		expect_no_addresses(-ENOENT);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(dev_get_mac_json_array, fails_without_a_radio_that_the_board_has)
{
	const char *first =
		"cannot open file /sys/class/ieee80211/phy3/addresses (No such file or directory)\n";
	const char *second =
		"cannot open file /sys/class/ieee80211/phy4/addresses (No such file or directory)\n";
	on_board(&full_board, [&] {
		make_wan();
		expect_no_addresses(-ENOENT);
		EXPECT_EQ(messages, errors({first}));
		make_radio("phy3", "02:00:00:00:00:03\n");
		expect_no_addresses(-ENOENT);
		EXPECT_EQ(messages, errors({first, second}));
		make_radio("phy4", "02:00:00:00:00:04\n");
		EXPECT_EQ(addresses(), "[\"02:00:5e:10:00:ff\",\"02:00:00:00:00:03\",\"02:00:00:00:00:04\"]");
	});
}

TEST(dev_get_mac_json_array, fails_on_a_radio_that_has_no_address)
{
	on_board(&full_board, [] {
		make_wan();
		make_radio("phy3", "");
		make_radio("phy4", "02:00:00:00:00:04\n");
		expect_no_addresses(-ENOENT);
		EXPECT_EQ(
			messages, errors({"cannot read line of file /sys/class/ieee80211/phy3/addresses\n"}));
	});
}

// Memory of jansson: how many requests are left until one is refused, and how many blocks are in use.
int json_requests_left, json_blocks;

void *json_memory(size_t size)
{
	if (json_requests_left-- == 0)
		return nullptr;
	json_blocks++;
	return malloc(size);
}

void free_json_memory(void *block)
{
	if (block)
		json_blocks--;
	free(block);
}

// Fails, and keeps no memory of jansson.
void expect_no_addresses_and_no_memory(int error)
{
	json_requests_left = -1;
	json_set_alloc_funcs(json_memory, free_json_memory);
	expect_no_addresses(error);
	EXPECT_EQ(json_blocks, 0);
}

TEST(dev_get_mac_json_array, keeps_no_memory_when_an_address_cannot_be_read)
{
	on_board(&full_board, [] {
		expect_no_addresses_and_no_memory(-ENOENT); // without the interface
		make_wan();
		expect_no_addresses_and_no_memory(-ENOENT); // without radios
		make_radio("phy3", "02:00:00:00:00:03\n");
		expect_no_addresses_and_no_memory(-ENOENT); // without the second
	});
}

TEST(dev_get_mac_json_array, fails_on_an_address_that_json_cannot_hold)
{
	on_board(&full_board, [] {
		make_wan();
		make_radio("phy3", "02:00:00:00:00:03\n");
		make_radio("phy4", "\xff\xfe\n");
		expect_no_addresses_and_no_memory(-ENOMEM);
		EXPECT_EQ(messages, errors({}));
	});
}

// Takes the right away to open raw sockets.
void drop_net_raw()
{
	__user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
	require(syscall(SYS_capget, &header, data) == 0, "capget");
	data[0].effective &= ~(1u << CAP_NET_RAW);
	require(syscall(SYS_capset, &header, data) == 0, "capset");
}

TEST(dev_get_mac_json_array, without_the_right_to_open_a_raw_socket_silently_fails)
{
	on_board(&full_board, [] {
		make_wan();
		make_radio("phy3", "02:00:00:00:00:03\n");
		make_radio("phy4", "02:00:00:00:00:04\n");
		drop_net_raw();
		expect_no_addresses(-ENOENT);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(dev_get_mac_json_array, without_memory_fails_and_keeps_none)
{
	on_board(&full_board, [] {
		make_wan();
		make_radio("phy3", "02:00:00:00:00:03\n");
		make_radio("phy4", "02:00:00:00:00:04\n");
		json_set_alloc_funcs(json_memory, free_json_memory);
		int refused = 0;
		for (;; ++refused) {
			json_requests_left = refused;
			json_t *array = untouched;
			int error = dev_get_mac_json_array(&array);
			if (json_requests_left >= 0) { // none was refused
				EXPECT_EQ(error, 0);
				json_decref(array);
				break;
			}
			EXPECT_EQ(error, -ENOMEM) << refused;
			EXPECT_EQ(array, untouched) << refused;
			EXPECT_EQ(json_blocks, 0) << refused;
		}
		EXPECT_GE(refused, 4); // the array and each text
		EXPECT_EQ(json_blocks, 0);
		EXPECT_EQ(messages, errors({}));
	});
}

// ---- _led_set_attr ----

const std::string leds = "/sys/class/leds/";

void make_led(const std::string &name)
{
	if (!exists(leds))
		make_directory(leds);
	make_directory(leds + name);
}

TEST(led_set_attr, writes_the_value_at_once_as_it_is)
{
	on_bare_board([] {
		make_led("dome");
		make_file(leds + "dome/trigger", "");
		std::vector<transfer> seen = transfers_of([] { _led_set_attr("dome", "trigger", "timer"); });
		ASSERT_EQ(seen.size(), 1u);
		EXPECT_EQ(seen[0].path, "/sys/class/leds/dome/trigger");
		EXPECT_EQ(seen[0].bytes, "timer");
		EXPECT_EQ(read_file(leds + "dome/trigger"), "timer");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(led_set_attr, closes_its_file_on_exec)
{
	on_bare_board([] {
		make_led("dome");
		std::vector<transfer> seen = transfers_of([] { _led_set_attr("dome", "trigger", "timer"); });
		ASSERT_EQ(seen.size(), 1u);
		EXPECT_TRUE(seen[0].closed_on_exec);
	});
}

TEST(led_set_attr, opens_its_file_for_writing_only)
{
	on_bare_board([] {
		make_led("dome");
		std::vector<transfer> seen = transfers_of([] { _led_set_attr("dome", "trigger", "timer"); });
		ASSERT_EQ(seen.size(), 1u);
		EXPECT_EQ(seen[0].access, O_WRONLY);
	});
}

mode_t mode_of(const std::string &path)
{
	struct stat about = {};
	EXPECT_EQ(stat(path.c_str(), &about), 0) << path;
	return about.st_mode & 07777;
}

TEST(led_set_attr, makes_a_file_that_all_may_read_and_write_but_for_the_umask)
{
	on_bare_board([] {
		make_led("dome");
		for (mode_t mask : {0, 022, 0137}) {
			umask(mask);
			std::string attribute = "made_with_" + std::to_string(mask);
			_led_set_attr("dome", attribute.c_str(), "");
			EXPECT_EQ(mode_of(leds + "dome/" + attribute), 0666 & ~mask);
		}
	});
}

TEST(led_set_attr, leaves_nothing_of_what_was_there)
{
	on_bare_board([] {
		make_led("dome");
		make_file(leds + "dome/trigger", "[none] timer default-on\n");
		_led_set_attr("dome", "trigger", "none");
		EXPECT_EQ(read_file(leds + "dome/trigger"), "none");
		_led_set_attr("dome", "trigger", "");
		EXPECT_EQ(read_file(leds + "dome/trigger"), "");
	});
}

TEST(led_set_attr, takes_names_and_values_as_they_are)
{
	on_bare_board([] {
		make_led("%s");
		std::string value = "%n\n" + random_bytes(10000);
		value.erase(std::remove(value.begin(), value.end(), '\0'), value.end());
		_led_set_attr("%s", "%d", value.c_str());
		EXPECT_EQ(read_file(leds + "%s/%d"), value);
	});
}

TEST(led_set_attr, logs_an_led_that_is_not_there)
{
	on_bare_board([] {
		_led_set_attr("dome", "trigger", "none");
		make_led("other");
		_led_set_attr("ubnt:white:dome", "delay_on", "100");
		make_file(leds + "file", "");
		_led_set_attr("file", "trigger", "none");
		EXPECT_EQ(messages,
			errors({"led: unable to open /sys/class/leds/dome/trigger: err=-2\n",
				"led: unable to open /sys/class/leds/ubnt:white:dome/delay_on: err=-2\n",
				"led: unable to open /sys/class/leds/file/trigger: err=-20\n"}));
		EXPECT_EQ(names_in(leds), (std::set<std::string>{"other", "file"}));
	});
}

TEST(led_set_attr, logs_an_attribute_that_cannot_be_opened)
{
	on_bare_board([] {
		make_led("dome");
		make_directory(leds + "dome/trigger");
		_led_set_attr("dome", "trigger", "none");
		require(mount(nullptr, "/sys/class", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0,
			"read only");
		_led_set_attr("dome", "brightness", "0");
		EXPECT_EQ(
			messages, errors({"led: unable to open /sys/class/leds/dome/trigger: err=-21\n",
					  "led: unable to open /sys/class/leds/dome/brightness: err=-30\n"}));
	});
}

TEST(led_set_attr, says_nothing_when_the_value_is_not_taken)
{
	on_bare_board([] {
		make_led("dome");
		require(mknod((leds + "dome/trigger").c_str(), S_IFCHR | 0600, makedev(1, 7)) == 0,
			"/dev/full");
		std::vector<transfer> seen = transfers_of([] { _led_set_attr("dome", "trigger", "none"); });
		ASSERT_EQ(seen.size(), 1u);
		EXPECT_EQ(seen[0].count, -1);
		EXPECT_EQ(messages, errors({}));
	});
}

// An LED name that makes a path of `length` characters with "/trigger"; its last part is "dome".
std::string padded_led(size_t length)
{
	const std::string name = "dome";
	return std::string(length - leds.size() - name.size() - strlen("/trigger"), '/') + name;
}

TEST(led_set_attr, takes_a_path_of_4095_characters_as_it_is)
{
	on_bare_board([] {
		make_led("dome");
		_led_set_attr(padded_led(4095).c_str(), "trigger", "none");
		EXPECT_EQ(names_in(leds + "dome"), std::set<std::string>{"trigger"});
	});
}

TEST(led_set_attr, takes_a_path_of_4096_characters_without_the_last)
{
	on_bare_board([] {
		make_led("dome");
		_led_set_attr(padded_led(4096).c_str(), "trigger", "none");
		EXPECT_EQ(names_in(leds + "dome"), std::set<std::string>{"trigge"});
		EXPECT_EQ(messages, errors({}));
	});
}

// Text of 2 GiB, more than can be formatted: the same mebibyte again and again.
const char *endless_text()
{
	constexpr size_t piece_bytes = 1 << 20, pieces = 2048;
	owned_fd memory{memfd_create("text", MFD_CLOEXEC)};
	require(write_all(memory.get(), std::string(piece_bytes, 'x')), "a piece of text");
	const size_t room_bytes = (pieces + 1) * piece_bytes; // the last piece stays zeros
	void *room = mmap(nullptr, room_bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	require(room != MAP_FAILED, "room");
	char *text = static_cast<char *>(room);
	for (size_t piece = 0; piece < pieces; ++piece)
		require(mmap(text + piece * piece_bytes, piece_bytes, PROT_READ, MAP_SHARED | MAP_FIXED,
				memory.get(), 0) != MAP_FAILED,
			"a piece");
	return text;
}

TEST(led_set_attr, logs_a_path_that_cannot_be_formatted_and_writes_nothing)
{
	skip_on_32_bit("addresses of 32 bits have no room for 2 GiB in one piece");
	if (__lsan_do_recoverable_leak_check)
		GTEST_SKIP() << "the sanitizer's own look at such a text fails: it counts in int";
	on_bare_board([] {
		alarm(240); // the C library takes such a text in pieces of 64 bytes
		make_led("dome");
		_led_set_attr("dome", endless_text(), "none");
		EXPECT_EQ(messages, errors({"led: error while generating the path\n"}));
		EXPECT_TRUE(names_in(leds + "dome").empty());
	});
}

TEST(led_set_attr, logs_a_path_of_more_than_4096_characters_and_writes_nothing)
{
	on_bare_board([] {
		make_led("dome");
		_led_set_attr(padded_led(4097).c_str(), "trigger", "none");
		_led_set_attr("dome", std::string(10000, 'x').c_str(), "none");
		EXPECT_EQ(messages, errors({"led: error while generating the path\n",
					    "led: error while generating the path\n"}));
		EXPECT_TRUE(names_in(leds + "dome").empty());
	});
}

} // namespace
