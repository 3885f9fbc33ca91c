// The board that is built in: what its description says, its LEDs attribute by attribute, and the calibration
// data that its start-up work copies from flash.
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>

#include <gmock/gmock.h>

#include "lib/device.h"
#include "tests/support/board.h"

using namespace board_support;

namespace
{

const std::string leds = "/sys/class/leds/";
const char *const white = "ubnt:white:dome";
const char *const blue = "ubnt:blue:dome";

// ---- The description ----

TEST(board, is_a_unifi_ac_pro)
{
	EXPECT_STREQ(dev_id(), "unifiacpro");
	EXPECT_STREQ(dev_vendor(), "Ubiquiti");
	EXPECT_STREQ(dev_name(), "UniFi AC PRO");
}

// Where a file is mapped, and whether that can be written to.
struct mapping {
	uintptr_t begin, end;
	bool writable;
	std::string path;
};

std::vector<mapping> mappings()
{
	std::vector<mapping> found;
	FILE *file = fopen("/proc/self/maps", "re");
	unsigned long begin, end;
	char rights[5], path[PATH_MAX];
	char line[PATH_MAX + 100];
	while (file && fgets(line, sizeof(line), file))
		if (sscanf(line, "%lx-%lx %4s %*s %*s %*s %4095s", &begin, &end, rights, path) == 4)
			found.push_back({begin, end, rights[1] == 'w', path});
	if (file)
		fclose(file);
	return found;
}

std::string file_mapped_at(const void *address)
{
	for (const mapping &each : mappings())
		if (each.begin <= uintptr_t(address) && uintptr_t(address) < each.end)
			return each.path;
	return "";
}

// Whether the description, which begins with three texts, stands in the mapping. Copied by the kernel, since a
// sanitizer guards what lies around it.
bool holds_description(const mapping &where)
{
	const std::vector<const void *> begin = {dev_id(), dev_vendor(), dev_name()};
	std::vector<const void *> words((where.end - where.begin) / sizeof(void *));
	const size_t bytes = words.size() * sizeof(void *);
	owned_fd copy{memfd_create("copy", MFD_CLOEXEC)};
	return syscall(SYS_write, copy.get(), where.begin, bytes) == static_cast<ssize_t>(bytes) &&
	       pread(copy.get(), words.data(), bytes, 0) == static_cast<ssize_t>(bytes) &&
	       std::search(words.begin(), words.end(), begin.begin(), begin.end()) != words.end();
}

TEST(board, is_described_in_memory_that_cannot_be_written_to)
{
	const std::string library = file_mapped_at(dev_id());
	int found = 0;
	for (const mapping &each : mappings())
		if (each.path == library && holds_description(each)) {
			EXPECT_FALSE(each.writable);
			++found;
		}
	EXPECT_EQ(found, 1);
}

void expect_described_in_a_copy(const std::string &library)
{
	void *copy = dlmopen(LM_ID_NEWLM, library.c_str(), RTLD_NOW);
	ASSERT_NE(copy, nullptr) << dlerror();
	auto id_of_copy = reinterpret_cast<const char *(*)()>(dlsym(copy, "dev_id"));
	ASSERT_NE(id_of_copy, nullptr);
	EXPECT_STREQ(id_of_copy(), "unifiacpro");
	EXPECT_NE(id_of_copy(), dev_id());
	dlclose(copy);
}

TEST(board, is_there_when_the_library_is_loaded_later)
{
	const char *script = "import ctypes, sys; id = ctypes.CDLL(sys.argv[1]).dev_id;"
			     "id.restype = ctypes.c_char_p; print(id().decode())";
	const std::string library = file_mapped_at(dev_id());
	if (is_emulated) // where python3 is another machine's; what loads a copy here, sanitizers do not cope with
		return expect_described_in_a_copy(library);
	child_result result = run_child([&] {
		for (const mapping &each : mappings()) // what a sanitized library needs before anything else
			if (each.path.find("/libasan.so") != std::string::npos)
				setenv("LD_PRELOAD", each.path.c_str(), 1);
		setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
		execlp("python3", "python3", "-c", script, library.c_str(), nullptr);
	});
	EXPECT_EQ(result.out, "unifiacpro\n") << result.report();
}

TEST(board, has_one_ethernet_interface_for_the_wan)
{
	EXPECT_STREQ(dev_wan_iface(), "eth0");
	EXPECT_EQ(dev_lan_iface(), nullptr);
}

TEST(board, has_two_radios_numbered_crosswise)
{
	EXPECT_EQ(dev_has_radio(0), 1);
	EXPECT_STREQ(dev_radio1_phy(), "phy1");
	EXPECT_EQ(dev_radio1_mode(), 14u);
	EXPECT_EQ(dev_has_radio(1), 1);
	EXPECT_STREQ(dev_radio2_phy(), "phy0");
	EXPECT_EQ(dev_radio2_mode(), 25u);
	EXPECT_EQ(dev_has_radio(2), 0);
}

TEST(board, has_a_switch_with_one_cpu_port_for_both_wan_and_lan)
{
	EXPECT_EQ(dev_has_switch(), 1);
	EXPECT_STREQ(dev_switch_dev(), "switch0");
	EXPECT_STREQ(dev_switch_cpu(), "0");
	EXPECT_STREQ(dev_switch_cpu_lan(), "0");
	EXPECT_STREQ(dev_switch_wan(), "2");
	EXPECT_STREQ(dev_switch_lan(), "3");
}

TEST(board, lists_the_addresses_of_eth0_and_of_its_radios_crosswise)
{
	on_bare_board([] {
		const char *command =
			"ip link add dev eth0 address 02:00:00:00:00:01 type veth peer name peer0";
		require(system(command) == 0, command);
		make_directory("/sys/class/ieee80211");
		for (const char *phy : {"phy0", "phy1"}) {
			std::string directory = std::string("/sys/class/ieee80211/") + phy;
			make_directory(directory);
			make_file(directory + "/addresses", std::string("02:00:00:00:01:0") + phy[3] + "\n");
		}
		json_t *array = nullptr;
		ASSERT_EQ(dev_get_mac_json_array(&array), 0);
		std::vector<std::string> addresses;
		for (size_t index = 0; index < json_array_size(array); ++index)
			addresses.push_back(json_string_value(json_array_get(array, index)));
		json_decref(array);
		EXPECT_EQ(addresses, (std::vector<std::string>{
					     "02:00:00:00:00:01", "02:00:00:00:01:01", "02:00:00:00:01:00"}));
	});
}

TEST(board, has_no_work_after_an_upgrade)
{
	on_bare_board([] {
		std::vector<transfer> seen = transfers_of([] { EXPECT_EQ(dev_post_upgrade(), 0); });
		EXPECT_TRUE(seen.empty());
		EXPECT_EQ(messages, errors({}));
		EXPECT_TRUE(names_in("/lib/firmware").empty());
	});
}

// ---- LEDs ----

void make_leds()
{
	make_directory(leds);
	for (const char *led : {white, blue})
		make_directory(leds + led);
}

// The attributes that are written for a state, in order: "<led>/<attribute>=<value>".
std::vector<std::string> written_for(unsigned state)
{
	std::vector<std::string> written;
	auto note = [&](const transfer &each) {
		EXPECT_FALSE(each.is_read);
		EXPECT_EQ(each.path.compare(0, leds.size(), leds), 0) << each.path;
		written.push_back(each.path.substr(leds.size()) + "=" + each.bytes);
	};
	watch_transfers(note, [&] { EXPECT_EQ(dev_led_set(state), 0); });
	EXPECT_EQ(messages, errors({}));
	return written;
}

void expect_written(unsigned state, const std::vector<std::string> &expected)
{
	on_bare_board([&] {
		make_leds();
		EXPECT_EQ(written_for(state), expected);
	});
}

TEST(board_leds, are_both_off_in_state_0)
{
	expect_written(DEV_LED_OFF, {"ubnt:white:dome/trigger=none", "ubnt:white:dome/brightness=0",
					    "ubnt:blue:dome/trigger=none", "ubnt:blue:dome/brightness=0"});
}

TEST(board_leds, blink_white_in_state_1)
{
	expect_written(DEV_LED_WHITE_BLINK, {"ubnt:blue:dome/trigger=none", "ubnt:blue:dome/brightness=0",
						    "ubnt:white:dome/trigger=timer"});
}

TEST(board_leds, shine_blue_in_state_2)
{
	expect_written(
		DEV_LED_BLUE_ON, {"ubnt:white:dome/trigger=none", "ubnt:white:dome/brightness=0",
					 "ubnt:blue:dome/trigger=none", "ubnt:blue:dome/brightness=255"});
}

TEST(board_leds, blink_white_fast_in_state_3)
{
	expect_written(DEV_LED_WHITE_BLINK_FAST,
		{"ubnt:blue:dome/trigger=none", "ubnt:blue:dome/brightness=0",
			"ubnt:white:dome/trigger=timer", "ubnt:white:dome/delay_on=100",
			"ubnt:white:dome/delay_off=100"});
}

TEST(board_leds, blink_white_slowly_in_state_4)
{
	expect_written(DEV_LED_WHITE_BLINK_SLOW,
		{"ubnt:blue:dome/trigger=none", "ubnt:blue:dome/brightness=0",
			"ubnt:white:dome/trigger=timer", "ubnt:white:dome/delay_on=1000",
			"ubnt:white:dome/delay_off=1000"});
}

TEST(board_leds, blink_blue_in_state_5)
{
	expect_written(DEV_LED_BLUE_BLINK, {"ubnt:white:dome/trigger=none", "ubnt:white:dome/brightness=0",
						   "ubnt:blue:dome/trigger=timer"});
}

TEST(board_leds, stay_as_they_are_in_any_other_state)
{
	for (unsigned state : {6u, 7u, 256u, 0x80000000u, UINT_MAX})
		expect_written(state, {});
}

TEST(board_leds, are_not_looked_for_in_any_other_state)
{
	on_bare_board([] {
		for (unsigned state : {6u, 7u, UINT_MAX})
			EXPECT_EQ(written_for(state), std::vector<std::string>{}); // and nothing logged
	});
}

TEST(board_leds, hold_what_was_written_last)
{
	on_bare_board([] {
		make_leds();
		for (unsigned state : {DEV_LED_WHITE_BLINK_SLOW, DEV_LED_WHITE_BLINK_FAST, DEV_LED_BLUE_ON})
			EXPECT_EQ(dev_led_set(state), 0);
		EXPECT_EQ(names_in(leds + white),
			(std::set<std::string>{"trigger", "brightness", "delay_on", "delay_off"}));
		EXPECT_EQ(read_file(leds + white + "/trigger"), "none");
		EXPECT_EQ(read_file(leds + white + "/brightness"), "0");
		EXPECT_EQ(read_file(leds + white + "/delay_on"), "100");
		EXPECT_EQ(names_in(leds + blue), (std::set<std::string>{"trigger", "brightness"}));
		EXPECT_EQ(read_file(leds + blue + "/trigger"), "none");
		EXPECT_EQ(read_file(leds + blue + "/brightness"), "255");
	});
}

std::string missing(const std::string &led, const std::string &attribute)
{
	return "led: unable to open /sys/class/leds/" + led + "/" + attribute + ": err=-2\n";
}

TEST(board_leds, that_are_missing_are_logged_write_by_write)
{
	on_bare_board([] {
		EXPECT_EQ(dev_led_set(DEV_LED_OFF), 0);
		EXPECT_EQ(messages, errors({missing(white, "trigger"), missing(white, "brightness"),
					    missing(blue, "trigger"), missing(blue, "brightness")}));
		messages.clear();
		EXPECT_EQ(dev_led_set(DEV_LED_WHITE_BLINK_FAST), 0);
		EXPECT_EQ(messages, errors({missing(blue, "trigger"), missing(blue, "brightness"),
					    missing(white, "trigger"), missing(white, "delay_on"),
					    missing(white, "delay_off")}));
	});
}

TEST(board_leds, that_do_not_take_a_value_are_no_failure_and_get_the_next)
{
	on_bare_board([] {
		make_leds();
		std::string full = leds + white + "/trigger";
		require(mknod(full.c_str(), S_IFCHR | 0600, makedev(1, 7)) == 0, "/dev/full");
		EXPECT_EQ(dev_led_set(DEV_LED_WHITE_BLINK_FAST), 0);
		EXPECT_EQ(read_file(leds + white + "/delay_off"), "100");
		EXPECT_EQ(dev_led_set(DEV_LED_OFF), 0);
		EXPECT_EQ(read_file(leds + white + "/brightness"), "0");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(board_leds, work_one_without_the_other)
{
	on_bare_board([] {
		make_directory(leds);
		make_directory(leds + blue);
		EXPECT_EQ(dev_led_set(DEV_LED_BLUE_ON), 0);
		EXPECT_EQ(messages, errors({missing(white, "trigger"), missing(white, "brightness")}));
		EXPECT_EQ(read_file(leds + blue + "/brightness"), "255");
	});
}

// ---- Start-up ----

const std::string first_file = "ath9k-eeprom-ahb-18100000.wmac.bin";
const std::string second_file = "ath10k/cal-pci-0000:00:00.0.bin";
const std::string first_path = "/lib/firmware/" + first_file;
const std::string second_path = "/lib/firmware/" + second_file;
constexpr size_t first_at = 4096, first_bytes = 16384, second_at = 20480, second_bytes = 2116;

std::string not_exported(const std::string &file)
{
	return "unable to export the " + file + "\n";
}

TEST(board_init, exports_the_calibration_data_of_both_radios)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes); // to the byte
		make_flash(flash);
		make_directory("/lib/firmware/ath10k");
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(read_file(first_path), flash.substr(first_at, first_bytes));
		EXPECT_EQ(read_file(second_path), flash.substr(second_at, second_bytes));
		EXPECT_EQ(names_in("/lib/firmware"), (std::set<std::string>{first_file, "ath10k"}));
		EXPECT_EQ(names_in("/lib/firmware/ath10k").size(), 1u);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(board_init, changes_nothing_the_second_time)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes);
		make_flash(flash);
		make_directory("/lib/firmware/ath10k");
		EXPECT_EQ(dev_init(), 0);
		require(unlink("/proc/mtd") == 0, "the table");
		std::vector<transfer> seen = transfers_of([] { EXPECT_EQ(dev_init(), 0); });
		EXPECT_TRUE(seen.empty());
		EXPECT_EQ(read_file(first_path), flash.substr(first_at, first_bytes));
		EXPECT_EQ(read_file(second_path), flash.substr(second_at, second_bytes));
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(board_init, exports_only_the_file_that_is_missing)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes);
		make_flash(flash);
		make_directory("/lib/firmware/ath10k");
		make_file(first_path, "older data");
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(read_file(first_path), "older data");
		EXPECT_EQ(read_file(second_path), flash.substr(second_at, second_bytes));
	});
}

TEST(board_init, without_the_partition_logs_both_files_and_succeeds)
{
	on_bare_board([] {
		const char *none = "caldata: not found 'EEPROM' mtd partition\n";
		make_file("/proc/mtd", partition_table({"u-boot", "rootfs"}));
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(
			messages, errors({none, not_exported(first_file), none, not_exported(second_file)}));
		EXPECT_TRUE(names_in("/lib/firmware").empty());
	});
}

TEST(board_init, without_a_table_of_partitions_succeeds)
{
	on_bare_board([] {
		const char *unreadable = "unable to read /proc/mtd\n";
		const char *none = "caldata: not found 'EEPROM' mtd partition\n";
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(messages, errors({unreadable, none, not_exported(first_file), unreadable, none,
					    not_exported(second_file)}));
	});
}

TEST(board_init, exports_the_second_file_whatever_became_of_the_first)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes);
		make_flash(flash);
		make_directory("/lib/firmware/ath10k");
		require(symlink("none/file", first_path.c_str()) == 0, "a link");
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(messages, errors({"caldata: unable to open " + first_path + ": err=-2\n",
					    not_exported(first_file)}));
		EXPECT_EQ(read_file(second_path), flash.substr(second_at, second_bytes));
	});
}

TEST(board_init, exports_the_first_file_without_a_directory_for_the_second)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes);
		make_flash(flash);
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(messages, errors({"caldata: unable to open " + second_path + ": err=-2\n",
					    not_exported(second_file)}));
		EXPECT_EQ(read_file(first_path), flash.substr(first_at, first_bytes));
	});
}

TEST(board_init, logs_a_file_that_does_not_fit_and_leaves_nothing_of_it)
{
	on_bare_board([] {
		std::string flash = random_bytes(second_at + second_bytes);
		make_flash(flash);
		mount_tmpfs("/lib/firmware", "size=8k"); // room for the second file, not for the first
		make_directory("/lib/firmware/ath10k");
		EXPECT_EQ(dev_init(), 0);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n", not_exported(first_file)}));
		EXPECT_FALSE(exists(first_path));
		EXPECT_EQ(read_file(second_path), flash.substr(second_at, second_bytes));
	});
}

} // namespace
