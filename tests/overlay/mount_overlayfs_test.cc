// The writable root, made for real: on flash memory, or in memory where that fails.
#include "lib/overlay.h"

#include "tests/overlay/overlay.h"

using namespace overlay_support;

namespace
{

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

constexpr char MOUNT_PARTITION[] = "mount mtd5 /data jffs2 0 null";
constexpr char MOUNT_FLASH_OVERLAY[] = "mount overlayfs:/data /mnt overlay noatime "
				       "lowerdir=/,upperdir=/data/upper,workdir=/data/work";
constexpr char MOUNT_MEMORY[] = "mount tmpfs /tmp/root tmpfs noatime mode=0755";
constexpr char MOUNT_MEMORY_OVERLAY[] = "mount overlayfs:/tmp/root /mnt overlay noatime "
					"lowerdir=/,upperdir=/tmp/root/upper,workdir=/tmp/root/work";
constexpr char MOVE_PROC[] = "mount /proc /mnt/proc null move,noatime null";

const lines flash_overlay_calls = lines{MOUNT_FLASH_OVERLAY, MOVE_PROC} + moves_after_pivot;
const lines memory_overlay_calls = lines{MOUNT_MEMORY, MOUNT_MEMORY_OVERLAY, MOVE_PROC} + moves_after_pivot;

constexpr char FALLBACK[] = "6 fallback to ramoverlay\n";
constexpr char NO_DATA_TO_MOVE[] = "3 mount_move err /system  /data: err=-22\n";

// The root is an overlay whose upper layer is in `dir`, and the old root is at /system.
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

// ---- What it leaves ----

// Calls mount_overlayfs with request number `request` for memory refused; a negative one: none.
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

} // namespace
