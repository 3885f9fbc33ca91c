// Another root for the process: what moves there, what may fail, and paths that are too long.
#include "lib/overlay.h"

#include <map>

#include "tests/overlay/overlay.h"

using namespace overlay_support;

namespace
{

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

// pivot to /new fails with `error` at its first step, and goes no further.
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

// pivot to /new fails with `error` at its second step, after /proc has moved.
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

} // namespace
