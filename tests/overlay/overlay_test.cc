// The writable root, made for real: in a disposable root, with the kernel's own pivot_root and overlay. Only
// JFFS2, and the flash memory below it, is a stand-in.
#include "lib/overlay.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <array>
#include <map>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/overlay_root.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

using namespace overlay_root;
using namespace support;

using lines = std::vector<std::string>;

// What the test's own stand-ins need is never refused.
struct test_memory {
	int requests_left = std::exchange(memory.requests_left, -1);

	~test_memory() { memory.requests_left = requests_left; }
};

// The kernel, seen on the way to it: what it was asked to mount and unmount, and what it is to refuse. Its
// JFFS2, if there is to be one, mounts what is at /flash, unless the device's file holds noise.
struct refusal {
	const char *type; // of the next file system that is not to be mounted
	int error;        // 0: it has been refused
};

static struct {
	lines calls;
	std::vector<int> errors;  // one a call; 0: it succeeded
	std::vector<size_t> said; // one a call: the messages before it
	std::array<refusal, 2> refusals;
	bool has_jffs2;
} kernel = {{}, {}, {}, {}, true};

static void forget_calls()
{
	lines().swap(kernel.calls);
	std::vector<int>().swap(kernel.errors);
	std::vector<size_t>().swap(kernel.said);
}

static constexpr char NOISE[] = "noise";

static std::string shown(const void *text)
{
	return text ? static_cast<const char *>(text) : "null";
}

static std::string shown_flags(unsigned long flags)
{
	if (flags == (MS_MOVE | MS_NOATIME))
		return "move,noatime";
	return flags == MS_NOATIME ? "noatime" : std::to_string(flags);
}

static int note_call(const std::string &call, int result)
{
	kernel.calls.push_back(call);
	kernel.errors.push_back(result == 0 ? 0 : errno);
	kernel.said.push_back(messages.size());
	return result;
}

static int mount_jffs2(const char *source, const char *target)
{
	if (read_file(std::string("/dev/") + source) != NOISE)
		return system_calls::mount.next("/flash", target, nullptr, MS_BIND, nullptr);
	errno = EINVAL;
	return -1;
}

static bool refuses_mount(const char *type)
{
	for (refusal &next : kernel.refusals)
		if (next.error && shown(type) == next.type) {
			errno = std::exchange(next.error, 0);
			return true;
		}
	return false;
}

static int refuse_or_mount(
	const char *source, const char *target, const char *type, unsigned long flags, const void *data)
{
	if (refuses_mount(type))
		return -1;
	if (kernel.has_jffs2 && shown(type) == "jffs2")
		return mount_jffs2(source, target);
	return system_calls::mount.next(source, target, type, flags, data);
}

static auto noted_mount = system_calls::mount.replace(
	[](const char *source, const char *target, const char *type, unsigned long flags, const void *data) {
		test_memory unrefused;
		int result = refuse_or_mount(source, target, type, flags, data);
		return note_call("mount " + shown(source) + " " + shown(target) + " " + shown(type) + " " +
					 shown_flags(flags) + " " + shown(data),
			result);
	});

static auto noted_umount = system_calls::umount.replace([](const char *target) {
	test_memory unrefused;
	return note_call("umount " + shown(target), system_calls::umount.next(target));
});

// The first argument, which a script cannot see, of the program that was started last: in memory that the
// process that becomes it shares.
static char *const started_as = static_cast<char *>(
	mmap(nullptr, PATH_MAX, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

static auto noted_execv = system_calls::execv.replace([](const char *path, char *const *argv) {
	snprintf(started_as, PATH_MAX, "%s", argv[0]);
	return system_calls::execv.next(path, argv);
});

namespace
{

constexpr char ERASE_TOOL[] = "/usr/sbin/flash_eraseall";
constexpr char ERASED[] = "/tmp/erased"; // a line for each call of the tool
constexpr char ERASED_MTD5_ONCE[] = "/usr/sbin/flash_eraseall -jq /dev/mtd5, open: 0 1\n";

// An erase tool that notes how it was called, and which standard descriptors it has; then does as told.
void install_erase_tool(const std::string &ending)
{
	EXPECT_TRUE(write_program(
		ERASE_TOOL, "#!/bin/sh\n"
			    "open=\n"
			    "for fd in 0 1 2; do [ -e /proc/self/fd/$fd ] && open=\"$open $fd\"; done\n"
			    "echo \"$0 $*, open:$open\" >>" +
				    std::string(ERASED) + "\n" + ending + "\n"));
}

constexpr char ERASE[] = ": >$2";

void write_partitions(const std::string &text)
{
	EXPECT_TRUE(write_file("/proc/mtd", "dev:    size   erasesize  name\n" + text));
}

// A board with a good partition at mtd5, and an erase tool that works.
void install_board()
{
	write_partitions("mtd0: 00060000 00010000 \"u-boot\"\n"
			 "mtd5: 00790000 00010000 \"rootfs_data\"\n"
			 "mtd6: 00010000 00010000 \"EEPROM\"\n");
	EXPECT_TRUE(write_file("/dev/mtd5", ""));
	EXPECT_TRUE(mount_memory("/flash"));
	install_erase_tool(ERASE);
}

void install_nothing() {}

void install_noise()
{
	install_board();
	EXPECT_TRUE(write_file("/dev/mtd5", NOISE));
}

void install_noise_for_good()
{
	install_noise();
	install_erase_tool("exit 0");
}

void install_board_without_partition()
{
	install_board();
	write_partitions("mtd0: 00060000 00010000 \"u-boot\"\n");
}

// In a child whose root is the tree that `install` has furnished.
void in_tree(void (*install)(), const std::function<void()> &body)
{
	expect_in_tree(install, [&] {
		int null = open("/dev/null", O_RDWR | O_CREAT | O_CLOEXEC, 0644); // only a file there
		dup2(null, STDIN_FILENO);
		close(null);
		log_open(LOG_DEST_SYSLOG, -1, "test");
		forget_calls();
		body();
	});
}

// What was logged, each line after its priority.
lines log_lines()
{
	lines found;
	for (const logged &message : messages)
		found.push_back(std::to_string(message.priority) + " " + message.text);
	return found;
}

// Calls and messages in the order in which they came.
lines story()
{
	lines told = log_lines(), all;
	size_t next = 0;
	for (size_t call = 0; call < kernel.calls.size(); call++) {
		while (next < kernel.said[call])
			all.push_back(told[next++]);
		all.push_back(kernel.calls[call]);
	}
	all.insert(all.end(), told.begin() + static_cast<ptrdiff_t>(next), told.end());
	return all;
}

const lines moves_after_pivot = {
	"mount /system/dev /dev null move,noatime null",
	"mount /system/tmp /tmp null move,noatime null",
	"mount /system/sys /sys null move,noatime null",
	"mount /system/data /data null move,noatime null",
};

constexpr char MOUNT_PARTITION[] = "mount mtd5 /data jffs2 0 null";
constexpr char MOUNT_FLASH_OVERLAY[] = "mount overlayfs:/data /mnt overlay noatime "
				       "lowerdir=/,upperdir=/data/upper,workdir=/data/work";
constexpr char MOUNT_MEMORY[] = "mount tmpfs /tmp/root tmpfs noatime mode=0755";
constexpr char MOUNT_MEMORY_OVERLAY[] = "mount overlayfs:/tmp/root /mnt overlay noatime "
					"lowerdir=/,upperdir=/tmp/root/upper,workdir=/tmp/root/work";
constexpr char MOVE_PROC[] = "mount /proc /mnt/proc null move,noatime null";

lines operator+(lines first, const lines &second)
{
	first.insert(first.end(), second.begin(), second.end());
	return first;
}

const lines flash_overlay_calls = lines{MOUNT_FLASH_OVERLAY, MOVE_PROC} + moves_after_pivot;
const lines memory_overlay_calls = lines{MOUNT_MEMORY, MOUNT_MEMORY_OVERLAY, MOVE_PROC} + moves_after_pivot;

constexpr char FALLBACK[] = "6 fallback to ramoverlay\n";
constexpr char NO_DATA_TO_MOVE[] = "3 mount_move err /system  /data: err=-22\n";

// The root is an overlay with its upper layer in `dir`, and the old root is below /system.
void expect_overlay_root(const std::string &dir)
{
	mount_entry root = mount_at("/");
	EXPECT_EQ(root.type, "overlay");
	EXPECT_EQ(root.source, "overlayfs:" + dir);
	EXPECT_TRUE(has_option(root.options, "noatime")) << root.options;
	EXPECT_TRUE(has_option(root.details, "lowerdir=/")) << root.details;
	EXPECT_TRUE(has_option(root.details, "upperdir=" + dir + "/upper")) << root.details;
	EXPECT_TRUE(has_option(root.details, "workdir=" + dir + "/work")) << root.details;
	EXPECT_EQ(mount_at("/system").source, "tree");
	EXPECT_EQ(mount_at("/mnt").id, 0);
}

void expect_old_root()
{
	EXPECT_EQ(mount_at("/").source, "tree");
	EXPECT_FALSE(write_file("/note", "")) << "the root is writable";
}

void expect_flash_overlay()
{
	expect_overlay_root("/data");
	EXPECT_EQ(mount_at("/data").source, "/flash");
}

void expect_memory_overlay()
{
	expect_overlay_root("/tmp/root");
	EXPECT_EQ(mount_at("/data").id, 0);
}

// ---- The overlay on flash memory ----

TEST(mount_overlayfs, makes_an_overlay_of_the_root_and_the_flash_partition_the_root)
{
	in_tree(install_board, [] {
		expect_old_root();
		mount_overlayfs();
		expect_flash_overlay();
		EXPECT_EQ(log_lines(), lines{});
	});
}

TEST(mount_overlayfs,
	mounts_the_partition_then_the_overlay_and_moves_proc_before_the_pivot_and_the_rest_after_it)
{
	in_tree(install_board, [] {
		mount_overlayfs();
		EXPECT_EQ(kernel.calls, lines{MOUNT_PARTITION} + flash_overlay_calls);
	});
}

TEST(mount_overlayfs, puts_what_is_written_to_the_root_into_the_upper_directory_and_leaves_the_old_root_alone)
{
	in_tree(install_board, [] {
		mount_overlayfs();
		EXPECT_TRUE(write_file("/note", "written")) << strerror(errno);
		EXPECT_EQ(read_file("/data/upper/note"), "written");
		EXPECT_EQ(read_file("/system/flash/upper/note"), "written");
		EXPECT_FALSE(exists("/system/note"));
	});
}

TEST(mount_overlayfs, keeps_what_was_on_the_old_root_to_be_read_and_changed)
{
	in_tree(install_board, [] {
		std::string tool = read_file(ERASE_TOOL);
		mount_overlayfs();
		EXPECT_EQ(read_file(ERASE_TOOL), tool);
		EXPECT_TRUE(write_file(ERASE_TOOL, "changed"));
		EXPECT_EQ(read_file(ERASE_TOOL), "changed");
		EXPECT_EQ(read_file(std::string("/system") + ERASE_TOOL), tool);
	});
}

TEST(mount_overlayfs, leaves_proc_dev_tmp_and_sys_mounted_where_they_were)
{
	in_tree(install_board, [] {
		std::map<std::string, int> ids;
		for (const char *place : {"/proc", "/proc/kernel", "/dev", "/tmp", "/sys"})
			ids[place] = mount_at(place).id;
		mount_overlayfs();
		for (const auto &[place, id] : ids) {
			EXPECT_NE(id, 0) << place;
			EXPECT_EQ(mount_at(place).id, id) << place;
			EXPECT_EQ(mount_at("/system" + place).id, 0) << place;
		}
		EXPECT_EQ(mount_at("/system/data").id, 0);
	});
}

TEST(mount_overlayfs, makes_the_upper_and_the_work_directory_with_mode_0755)
{
	in_tree(install_board, [] {
		umask(0);
		mount_overlayfs();
		EXPECT_EQ(mode_of("/data/upper"), 0755u);
		EXPECT_EQ(mode_of("/data/work"), 0755u);
	});
}

TEST(mount_overlayfs, shows_again_what_was_written_before_a_restart)
{
	auto install_used_flash = [] {
		install_board();
		make_directories("/flash", {"upper", "work"});
		EXPECT_TRUE(write_file("/flash/upper/note", "kept"));
	};
	in_tree(install_used_flash, [] {
		mount_overlayfs();
		expect_flash_overlay();
		EXPECT_EQ(read_file("/note"), "kept");
		EXPECT_EQ(log_lines(), lines{});
	});
}

TEST(mount_overlayfs, does_not_erase_a_partition_that_mounts)
{
	in_tree(install_board, [] {
		mount_overlayfs();
		EXPECT_FALSE(exists(ERASED));
	});
}

TEST(mount_overlayfs, moves_the_working_directory_from_the_old_root_to_the_new_one)
{
	in_tree(install_board, [] {
		mount_overlayfs();
		EXPECT_TRUE(write_file("note", "written"));
		EXPECT_EQ(read_file("/note"), "written");
	});
}

TEST(mount_overlayfs, takes_the_partition_from_its_line_in_proc_mtd)
{
	auto install_other_device = [] {
		install_board();
		write_partitions(
			"mtd5: 00060000 00010000 \"u-boot\"\nmtd11: 00060000 00010000 \"rootfs_data\"\n");
	};
	in_tree(install_other_device, [] {
		mount_overlayfs();
		expect_flash_overlay();
		EXPECT_EQ(kernel.calls, lines{"mount mtd11 /data jffs2 0 null"} + flash_overlay_calls);
	});
}

// ---- A partition that does not mount ----

TEST(mount_overlayfs, erases_a_partition_that_does_not_mount_and_uses_it_if_it_mounts_then)
{
	in_tree(install_noise, [] {
		mount_overlayfs();
		expect_flash_overlay();
		EXPECT_EQ(read_file(ERASED), ERASED_MTD5_ONCE);
		EXPECT_EQ(kernel.calls, (lines{MOUNT_PARTITION, MOUNT_PARTITION} + flash_overlay_calls));
		EXPECT_EQ(log_lines(), lines{});
	});
}

TEST(mount_overlayfs, uses_an_erased_partition_even_if_the_tool_reports_a_failure)
{
	auto install_grumbling_tool = [] {
		install_noise();
		install_erase_tool(std::string(ERASE) + "\nexit 1");
	};
	in_tree(install_grumbling_tool, [] {
		mount_overlayfs();
		expect_flash_overlay();
		EXPECT_EQ(log_lines(), lines{"3 overlay: flash_eraseall has failed: err=256\n"});
	});
}

TEST(mount_overlayfs, falls_back_to_memory_if_the_partition_does_not_mount_after_one_erase_either)
{
	in_tree(install_noise_for_good, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(read_file(ERASED), ERASED_MTD5_ONCE);
		EXPECT_EQ(kernel.calls, (lines{MOUNT_PARTITION, MOUNT_PARTITION} + memory_overlay_calls));
		EXPECT_EQ(log_lines(),
			(lines{"3 data partition mount failed: err=-22\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, says_what_failed_before_it_does_what_comes_next)
{
	in_tree(install_noise_for_good, [] {
		mount_overlayfs();
		EXPECT_EQ(story(), (lines{MOUNT_PARTITION, MOUNT_PARTITION,
					    "3 data partition mount failed: err=-22\n", FALLBACK} +
					   memory_overlay_calls + lines{NO_DATA_TO_MOVE}));
	});
	in_tree(install_board, [] {
		kernel.refusals = {{{"overlay", EIO}}};
		mount_overlayfs();
		EXPECT_EQ(story(), (lines{MOUNT_PARTITION, MOUNT_FLASH_OVERLAY,
					    "3 overlayfs mount failed: err=-5\n", "umount /data", FALLBACK} +
					   memory_overlay_calls + lines{NO_DATA_TO_MOVE}));
	});
	in_tree(install_board_without_partition, [] {
		mount_overlayfs();
		EXPECT_EQ(story(), (lines{"3 not found a valid overlay filesystem\n", FALLBACK} +
					   memory_overlay_calls + lines{NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, logs_the_error_of_the_second_attempt)
{
	in_tree(install_board, [] {
		kernel.refusals = {{{"jffs2", EIO}, {"jffs2", EACCES}}};
		mount_overlayfs();
		EXPECT_EQ(log_lines(),
			(lines{"3 data partition mount failed: err=-13\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, falls_back_to_memory_on_a_kernel_without_the_file_system)
{
	in_tree(install_board, [] {
		kernel.has_jffs2 = false; // the kernel itself is asked, and there is no such device either
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(read_file(ERASED), ERASED_MTD5_ONCE);
		EXPECT_EQ(log_lines(),
			(lines{"3 data partition mount failed: err=-19\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, comes_up_in_memory_without_an_erase_tool)
{
	auto install_no_tool = [] {
		install_noise();
		EXPECT_EQ(unlink(ERASE_TOOL), 0);
	};
	in_tree(install_no_tool, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(log_lines(),
			(lines{"3 overlay: flash_eraseall has failed: err=256\n",
				"3 data partition mount failed: err=-22\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, logs_a_missing_partition_and_neither_mounts_nor_erases_one)
{
	in_tree(install_board_without_partition, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_FALSE(exists(ERASED));
		EXPECT_EQ(kernel.calls, memory_overlay_calls);
		EXPECT_EQ(log_lines(),
			(lines{"3 not found a valid overlay filesystem\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, falls_back_to_memory_on_a_kernel_without_flash_memory)
{
	in_tree(install_nothing, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(log_lines(),
			(lines{"3 unable to read /proc/mtd\n", "3 not found a valid overlay filesystem\n",
				FALLBACK, NO_DATA_TO_MOVE}));
	});
}

// ---- The overlay in memory ----

TEST(mount_overlayfs, in_memory_puts_what_is_written_to_the_root_below_tmp_root)
{
	in_tree(install_board_without_partition, [] {
		mount_overlayfs();
		EXPECT_TRUE(write_file("/note", "written")) << strerror(errno);
		EXPECT_EQ(read_file("/tmp/root/upper/note"), "written");
		EXPECT_FALSE(exists("/system/note"));
	});
}

TEST(mount_overlayfs, in_memory_has_a_file_system_of_its_own_that_moves_with_tmp)
{
	in_tree(install_board_without_partition, [] {
		mount_overlayfs();
		mount_entry entry = mount_at("/tmp/root");
		EXPECT_EQ(entry.type, "tmpfs");
		EXPECT_EQ(entry.source, "tmpfs");
		EXPECT_TRUE(has_option(entry.options, "noatime")) << entry.options;
		EXPECT_EQ(mode_of("/tmp/root"), 0755u);
		EXPECT_EQ(mount_at("/system/tmp/root").id, 0);
	});
}

TEST(mount_overlayfs, in_memory_leaves_proc_dev_tmp_and_sys_mounted_where_they_were)
{
	in_tree(install_board_without_partition, [] {
		std::map<std::string, int> ids;
		for (const char *place : {"/proc", "/dev", "/tmp", "/sys"})
			ids[place] = mount_at(place).id;
		mount_overlayfs();
		for (const auto &[place, id] : ids) {
			EXPECT_EQ(mount_at(place).id, id) << place;
			EXPECT_EQ(mount_at("/system" + place).id, 0) << place;
		}
	});
}

TEST(mount_overlayfs, in_memory_uses_a_directory_that_is_there_already)
{
	auto install_used_tmp = [] {
		install_board_without_partition();
		make_directories("/tmp", {"root"});
	};
	in_tree(install_used_tmp, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(mount_at("/tmp/root").type, "tmpfs");
	});
}

TEST(mount_overlayfs, in_memory_does_with_a_directory_of_mode_0755_if_no_file_system_can_be_mounted_on_it)
{
	in_tree(install_board_without_partition, [] {
		umask(0);
		kernel.refusals = {{{"tmpfs", ENOMEM}}};
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(mount_at("/tmp/root").id, 0);
		EXPECT_EQ(mode_of("/tmp/root"), 0755u);
		EXPECT_EQ(log_lines(),
			(lines{"3 not found a valid overlay filesystem\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

// ---- An overlay that fails ----

TEST(mount_overlayfs, unmounts_the_partition_before_the_fallback_if_no_overlay_can_be_made_on_it)
{
	auto install_file_in_the_way = [] {
		install_board();
		EXPECT_TRUE(write_file("/flash/upper", "not a directory"));
	};
	in_tree(install_file_in_the_way, [] {
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(kernel.calls,
			(lines{MOUNT_PARTITION, MOUNT_FLASH_OVERLAY, "umount /data"} + memory_overlay_calls));
		EXPECT_NE(kernel.errors.at(1), 0);
		EXPECT_EQ(log_lines(),
			(lines{"3 overlayfs mount failed: err=-" + std::to_string(kernel.errors.at(1)) + "\n",
				FALLBACK, NO_DATA_TO_MOVE}));
		EXPECT_FALSE(exists(ERASED));
	});
}

TEST(mount_overlayfs, logs_the_error_of_an_overlay_that_the_kernel_refuses)
{
	in_tree(install_board, [] {
		kernel.refusals = {{{"overlay", EIO}}};
		mount_overlayfs();
		expect_memory_overlay();
		EXPECT_EQ(log_lines(),
			(lines{"3 overlayfs mount failed: err=-5\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

TEST(mount_overlayfs, leaves_the_root_as_it_was_if_the_fallback_fails_too)
{
	in_tree(install_board, [] {
		int root = mount_at("/").id;
		kernel.refusals = {{{"overlay", ENODEV}, {"overlay", ENOMEM}}};
		mount_overlayfs();
		EXPECT_EQ(mount_at("/").id, root);
		expect_old_root();
		EXPECT_EQ(mount_at("/data").id, 0);
		EXPECT_EQ(kernel.calls, (lines{MOUNT_PARTITION, MOUNT_FLASH_OVERLAY, "umount /data",
						MOUNT_MEMORY, MOUNT_MEMORY_OVERLAY}));
		EXPECT_EQ(log_lines(), (lines{"3 overlayfs mount failed: err=-19\n", FALLBACK,
					       "3 overlayfs mount failed: err=-12\n"}));
	});
}

TEST(mount_overlayfs, logs_a_switch_that_fails_and_tries_once_more_in_memory)
{
	auto install_no_place_for_the_old_root = [] {
		install_board();
		EXPECT_EQ(rmdir("/system"), 0);
	};
	in_tree(install_no_place_for_the_old_root, [] {
		mount_overlayfs();
		// /proc is in the first overlay, and cannot be moved once more.
		EXPECT_EQ(
			kernel.calls, (lines{MOUNT_PARTITION, MOUNT_FLASH_OVERLAY, MOVE_PROC, "umount /data",
					      MOUNT_MEMORY, MOUNT_MEMORY_OVERLAY, MOVE_PROC}));
		EXPECT_EQ(kernel.errors, (std::vector<int>{0, 0, 0, 0, 0, 0, EINVAL}));
		EXPECT_EQ(log_lines(),
			(lines{"3 root pivoting failed: err=-2\n", "3 overlayfs switch failed\n", FALLBACK,
				"3 mount_move err  /mnt /proc: err=-22\n", "3 overlayfs switch failed\n"}));
		EXPECT_FALSE(write_file("/note", ""));
	});
}

TEST(mount_overlayfs, only_logs_what_it_may_not_do)
{
	in_tree(install_board, [] {
		ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
		mount_overlayfs();
		expect_old_root();
		EXPECT_EQ(mount_at("/tmp/root").id, 0);
		EXPECT_EQ(log_lines(), (lines{"3 overlay: flash_eraseall has failed: err=256\n",
					       "3 data partition mount failed: err=-1\n", FALLBACK,
					       "3 overlayfs mount failed: err=-1\n"}));
	});
}

// ---- What it leaves behind ----

// Calls mount_overlayfs with one request for memory refused, or none if `request` is negative.
void expect_nothing_left(int request = -1)
{
	std::set<int> descriptors = open_descriptors();
	int blocks = memory.blocks;
	memory.refuse(request);
	mount_overlayfs();
	EXPECT_EQ(memory.requests_left, -1) << "there were fewer requests";
	memory.grant();
	forget_calls();
	std::vector<logged>().swap(messages);
	EXPECT_EQ(memory.blocks, blocks);
	EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(mount_overlayfs, leaves_no_memory_and_no_descriptor_whichever_way_it_goes)
{
	auto expect_none_left = [] { expect_nothing_left(); };
	for (auto install : {install_board, install_noise, install_noise_for_good,
		     install_board_without_partition, install_nothing})
		in_tree(install, expect_none_left);
	in_tree(install_board, [] {
		kernel.refusals = {{{"overlay", EIO}, {"overlay", EIO}}};
		expect_nothing_left();
	});
}

TEST(mount_overlayfs, comes_up_writable_if_memory_is_refused_at_any_of_its_requests)
{
	// The file /proc/mtd and its buffer, the partition's name, the device's path.
	for (int request : {0, 1, 2, 3})
		in_tree(install_noise, [request] {
			expect_nothing_left(request);
			EXPECT_EQ(mount_at("/").type, "overlay") << request;
			EXPECT_TRUE(write_file("/note", "written")) << request;
		});
}

TEST(mount_overlayfs, takes_a_partition_as_missing_if_its_name_cannot_be_kept)
{
	in_tree(install_noise, [] {
		memory.refuse(2);
		mount_overlayfs();
		EXPECT_EQ(log_lines(),
			(lines{"3 not found a valid overlay filesystem\n", FALLBACK, NO_DATA_TO_MOVE}));
	});
}

// ---- pivot ----

// A file system at `path`, to become the root.
void install_new_root(const std::string &path, const lines &directories)
{
	EXPECT_TRUE(mount_memory(path)) << strerror(errno);
	make_directories(path, directories);
}

const lines all_directories = {"proc", "dev", "tmp", "sys", "data", "system"};

void install_new()
{
	install_new_root("/new", all_directories);
	EXPECT_TRUE(mount_memory("/data"));
}

TEST(pivot, makes_the_new_root_the_root_and_keeps_the_old_one)
{
	in_tree(install_new, [] {
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_EQ(mount_at("/").source, "/new");
		EXPECT_EQ(mount_at("/system").source, "tree");
		for (const char *place : {"/proc", "/dev", "/tmp", "/sys", "/data"})
			EXPECT_EQ(mount_at(place).source, place);
		EXPECT_EQ(log_lines(), lines{});
	});
}

TEST(pivot, moves_proc_and_then_dev_tmp_sys_and_data_in_this_order)
{
	in_tree(install_new, [] {
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_EQ(kernel.calls,
			lines{"mount /proc /new/proc null move,noatime null"} + moves_after_pivot);
	});
}

TEST(pivot, keeps_the_old_root_in_any_directory_below_the_new_one)
{
	auto install_deep_place = [] {
		install_new();
		make_directories("/new", {"system/old"});
	};
	in_tree(install_deep_place, [] {
		EXPECT_EQ(pivot("/new", "/system/old"), 0);
		EXPECT_EQ(mount_at("/system/old").source, "tree");
		EXPECT_EQ(mount_at("/dev").source, "/dev");
		EXPECT_EQ(log_lines(), lines{});
	});
}

TEST(pivot, moves_the_working_directory_if_it_was_the_old_root)
{
	in_tree(install_new, [] {
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_TRUE(write_file("note", "written"));
		EXPECT_EQ(read_file("/note"), "written");
	});
}

TEST(pivot, leaves_the_working_directory_where_it_is_if_it_was_another)
{
	in_tree(install_new, [] {
		ASSERT_EQ(chdir("/usr/sbin"), 0);
		EXPECT_EQ(pivot("/new", "/system"), 0);
		char path[PATH_MAX];
		EXPECT_STREQ(getcwd(path, sizeof(path)), "/system/usr/sbin");
	});
}

TEST(pivot, only_logs_directories_that_were_not_mounted)
{
	in_tree(install_new, [] {
		ASSERT_EQ(umount2("/dev", MNT_DETACH), 0);
		ASSERT_EQ(umount2("/tmp", MNT_DETACH), 0);
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_EQ(mount_at("/").source, "/new");
		EXPECT_EQ(mount_at("/sys").source, "/sys");
		EXPECT_EQ(mount_at("/data").source, "/data");
		EXPECT_EQ(log_lines(), (lines{"3 mount_move err /system  /dev: err=-22\n",
					       "3 mount_move err /system  /tmp: err=-22\n"}));
	});
}

TEST(pivot, only_logs_directories_that_the_new_root_lacks)
{
	auto install_bare_root = [] { install_new_root("/new", {"proc", "system"}); };
	in_tree(install_bare_root, [] {
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_EQ(mount_at("/").source, "/new");
		EXPECT_EQ(mount_at("/system/dev").source, "/dev");
		EXPECT_EQ(log_lines(), (lines{"3 mount_move err /system  /dev: err=-2\n",
					       "3 mount_move err /system  /tmp: err=-2\n",
					       "3 mount_move err /system  /sys: err=-2\n",
					       "3 mount_move err /system  /data: err=-2\n"}));
	});
}

// Whether pivot to /new fails with `error` at its first step, and goes no further.
void expect_proc_not_moved(int error)
{
	owned_fd mountinfo{open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)};
	std::string before = read_all(mountinfo.get());
	EXPECT_FALSE(before.empty());
	EXPECT_EQ(pivot("/new", "/system"), -error);
	lseek(mountinfo.get(), 0, SEEK_SET);
	EXPECT_EQ(read_all(mountinfo.get()), before);
	EXPECT_EQ(kernel.calls, lines{"mount /proc /new/proc null move,noatime null"});
	EXPECT_EQ(log_lines(), lines{"3 mount_move err  /new /proc: err=-" + std::to_string(error) + "\n"});
}

TEST(pivot, returns_the_error_and_changes_nothing_if_the_new_root_has_no_proc_directory)
{
	auto install_no_proc = [] { install_new_root("/new", {"dev", "tmp", "sys", "data", "system"}); };
	in_tree(install_no_proc, [] { expect_proc_not_moved(ENOENT); });
}

TEST(pivot, returns_the_error_and_changes_nothing_without_the_right_to_mount)
{
	in_tree(install_new, [] {
		ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
		expect_proc_not_moved(EPERM);
	});
}

TEST(pivot, returns_the_error_and_changes_nothing_if_proc_is_not_mounted)
{
	in_tree(install_new, [] {
		ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
		EXPECT_EQ(pivot("/new", "/system"), -EINVAL);
		EXPECT_EQ(kernel.calls, lines{"mount /proc /new/proc null move,noatime null"});
		EXPECT_EQ(log_lines(), lines{"3 mount_move err  /new /proc: err=-22\n"});
		ASSERT_EQ(mount("kernel", "/proc", "proc", 0, nullptr), 0);
		EXPECT_EQ(mount_at("/").source, "tree");
		for (const char *place : {"/new", "/dev", "/tmp", "/sys", "/data"})
			EXPECT_EQ(mount_at(place).source, place);
	});
}

// Whether pivot to /new fails with `error` at its second step: /proc has moved by then.
void expect_root_refused(int error)
{
	EXPECT_EQ(pivot("/new", "/system"), -1);
	EXPECT_EQ(kernel.calls, lines{"mount /proc /new/proc null move,noatime null"});
	EXPECT_EQ(log_lines(), lines{"3 root pivoting failed: err=-" + std::to_string(error) + "\n"});
	EXPECT_EQ(mount_at("/", "/new/proc").source, "tree");
	EXPECT_EQ(mount_at("/new/proc", "/new/proc").source, "/proc");
	EXPECT_FALSE(exists("/proc/self"));
}

TEST(pivot, fails_after_the_move_of_proc_if_the_new_root_is_no_mount_point)
{
	auto install_plain_directory = [] {
		make_directories("", {"new"});
		make_directories("/new", all_directories);
	};
	in_tree(install_plain_directory, [] { expect_root_refused(EBUSY); });
}

TEST(pivot, fails_after_the_move_of_proc_if_there_is_no_place_for_the_old_root)
{
	auto install_no_place = [] { install_new_root("/new", {"proc", "dev", "tmp", "sys", "data"}); };
	in_tree(install_no_place, [] { expect_root_refused(ENOENT); });
}

TEST(pivot, leaves_no_descriptor)
{
	in_tree(install_new, [] {
		std::set<int> descriptors = open_descriptors();
		EXPECT_EQ(pivot("/new", "/system"), 0);
		EXPECT_EQ(open_descriptors(), descriptors);
	});
}

// ---- Paths that are too long ----

// A path of `length` bytes for a directory in the root.
std::string path_of(size_t length)
{
	return "/" + std::string(length - 1, 'n');
}

TEST(pivot, uses_a_path_of_63_bytes_whole)
{
	auto install_long_root = [] {
		install_new_root(path_of(58), {"proc", "dev", "tmp", "sys", "data", "old1"});
	};
	in_tree(install_long_root, [] {
		ASSERT_EQ(umount2("/sys", MNT_DETACH), 0);
		EXPECT_EQ(pivot(path_of(58).c_str(), "/old1"), 0);
		EXPECT_EQ(mount_at("/proc").source, "/proc");
		EXPECT_EQ(mount_at("/old1").source, "tree");
		EXPECT_EQ(log_lines(), (lines{"3 mount_move err /old1  /sys: err=-22\n",
					       "3 mount_move err /old1  /data: err=-22\n"}));
	});
}

TEST(pivot, cuts_a_path_of_64_bytes_by_its_last)
{
	auto install_long_root = [] {
		install_new_root(path_of(59), {"pro", "old", "dev", "tmp", "sys", "data"});
	};
	in_tree(install_long_root, [] {
		EXPECT_EQ(pivot(path_of(59).c_str(), "/old1"), 0);
		EXPECT_EQ(kernel.calls.at(0), "mount /proc " + path_of(59) + "/pro null move,noatime null");
		EXPECT_EQ(mount_at("/pro", "/pro").source, "/proc");
		EXPECT_EQ(mount_at("/old", "/pro").source, "tree");
	});
}

TEST(pivot, does_with_what_is_left_of_the_paths_into_a_new_root_with_a_long_name)
{
	auto install_long_root = [] {
		install_new_root(path_of(61), {"p", "s", "dev", "tmp", "sys", "data"});
	};
	in_tree(install_long_root, [] {
		EXPECT_EQ(pivot(path_of(61).c_str(), "/system"), 0);
		EXPECT_EQ(kernel.calls, lines{"mount /proc " + path_of(61) + "/p null move,noatime null"} +
						moves_after_pivot);
		EXPECT_EQ(mount_at("/p", "/p").source, "/proc");
		EXPECT_EQ(mount_at("/s", "/p").source, "tree");
	});
}

TEST(pivot, does_with_what_is_left_of_the_paths_out_of_an_old_root_with_a_long_name)
{
	auto install_short_names = [] {
		install_new_root("/r", {"proc", "dev", "tmp", "sys", "data", path_of(61).substr(1)});
		for (const char *place : {"/d", "/t", "/s"})
			EXPECT_TRUE(mount_memory(place));
	};
	in_tree(install_short_names, [] {
		const std::string old = path_of(61);
		EXPECT_EQ(pivot("/r", old.c_str()), 0);
		EXPECT_EQ(kernel.calls, (lines{"mount /proc /r/proc null move,noatime null",
						"mount " + old + "/d /dev null move,noatime null",
						"mount " + old + "/t /tmp null move,noatime null",
						"mount " + old + "/s /sys null move,noatime null",
						"mount " + old + "/d /data null move,noatime null"}));
		EXPECT_EQ(mount_at(old).source, "tree");
		EXPECT_EQ(mount_at("/dev").source, "/d");
		EXPECT_EQ(mount_at("/tmp").source, "/t");
		EXPECT_EQ(mount_at("/sys").source, "/s");
		EXPECT_EQ(log_lines(), lines{"3 mount_move err " + old + "  /data: err=-22\n"});
	});
}

TEST(pivot, cuts_a_new_root_longer_than_any_path_and_moves_proc_nowhere)
{
	in_tree(install_new, [] {
		const std::string much = path_of(100);
		EXPECT_EQ(pivot(much.c_str(), "/system"), -ENOENT);
		EXPECT_EQ(kernel.calls, lines{"mount /proc " + path_of(63) + " null move,noatime null"});
		EXPECT_EQ(log_lines(), lines{"3 mount_move err  " + much + " /proc: err=-2\n"});
	});
}

// ---- erase_flash ----

TEST(erase_flash, runs_the_tool_on_the_device_without_a_standard_error)
{
	in_tree(install_noise, [] {
		erase_flash("mtd5");
		EXPECT_EQ(read_file(ERASED), ERASED_MTD5_ONCE);
		EXPECT_STREQ(started_as, ERASE_TOOL);
		EXPECT_EQ(read_file("/dev/mtd5"), "");
		EXPECT_EQ(log_lines(), lines{});
		EXPECT_TRUE(is_open(STDERR_FILENO));
	});
}

TEST(erase_flash, does_not_cut_the_path_of_the_device)
{
	in_tree(install_board, [] {
		const std::string name(200, 'm');
		erase_flash(name.c_str());
		EXPECT_EQ(read_file(ERASED), "/usr/sbin/flash_eraseall -jq /dev/" + name + ", open: 0 1\n");
		EXPECT_EQ(log_lines(), lines{});
	});
}

// Whether a tool that ends so is reported with the status that the kernel gives, not decoded.
void expect_status_logged(const char *ending, int status)
{
	in_tree(install_nothing, [=] {
		// On a file system of its own: the root is read-only by now.
		ASSERT_TRUE(mount_memory("/usr/sbin"));
		install_erase_tool(ending);
		erase_flash("mtd5");
		EXPECT_EQ(read_file(ERASED), ERASED_MTD5_ONCE);
		EXPECT_EQ(log_lines(),
			lines{"3 overlay: flash_eraseall has failed: err=" + std::to_string(status) + "\n"});
	});
}

TEST(erase_flash, logs_the_exit_code_1_as_256)
{
	expect_status_logged("exit 1", 256);
}

TEST(erase_flash, logs_the_exit_code_255_as_65280)
{
	expect_status_logged("exit 255", 65280);
}

TEST(erase_flash, logs_a_signal_as_its_number)
{
	expect_status_logged("kill -KILL $$", SIGKILL);
}

TEST(erase_flash, logs_a_missing_tool_like_one_that_exits_with_1)
{
	in_tree(install_nothing, [] {
		// The process that was to become the tool logs, too: what it keeps in its memory is lost.
		ASSERT_EQ(mkfifo("/dev/kmsg", 0600), 0);
		owned_fd kmsg{open("/dev/kmsg", O_RDWR | O_NONBLOCK | O_CLOEXEC)};
		log_open(LOG_DEST_KMSG, -1, "test");
		erase_flash("mtd5");
		EXPECT_EQ(read_available(kmsg.get()),
			"<3>test: execute: execv: No such file or directory\n"
			"<3>test: overlay: flash_eraseall has failed: err=256\n");
	});
}

TEST(erase_flash, logs_that_no_process_can_be_made)
{
	in_tree(install_board, [] {
		// After the first process of a process namespace has ended, there are no more in it.
		ASSERT_EQ(unshare(CLONE_NEWPID), 0);
		pid_t first = fork();
		if (first == 0)
			_exit(0);
		ASSERT_EQ(waitpid(first, nullptr, 0), first);
		erase_flash("mtd5");
		EXPECT_EQ(log_lines(), lines{"3 overlay: flash_eraseall has failed: err=-12\n"});
		EXPECT_FALSE(exists(ERASED));
	});
}

TEST(erase_flash, logs_that_there_is_no_memory_for_the_path_and_runs_nothing)
{
	in_tree(install_board, [] {
		memory.refuse(0);
		erase_flash("mtd5");
		EXPECT_EQ(memory.requests_left, -1);
		EXPECT_EQ(log_lines(), lines{"3 overlay: asprintf has failed\n"});
		EXPECT_FALSE(exists(ERASED));
	});
}

TEST(erase_flash, leaves_no_memory_no_descriptor_and_no_process)
{
	in_tree(install_board, [] {
		std::set<int> descriptors = open_descriptors();
		int blocks = memory.blocks;
		erase_flash("mtd5");
		EXPECT_EQ(memory.blocks, blocks);
		EXPECT_EQ(open_descriptors(), descriptors);
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
		EXPECT_EQ(errno, ECHILD);
	});
}

} // namespace
