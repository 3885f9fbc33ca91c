// The erase tool, and how its end is reported.
#include "lib/overlay.h"

#include <sys/mman.h>

#include "tests/overlay/overlay.h"

using namespace overlay_support;

namespace
{

// The first argument, which a script cannot see, of the program that was started last: in memory that the
// process that becomes it shares.
char *const started_as = static_cast<char *>(
	mmap(nullptr, PATH_MAX, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

auto noted_execv = system_calls::execv.replace([](const char *path, char *const *argv) {
	snprintf(started_as, PATH_MAX, "%s", argv[0]);
	return system_calls::execv.next(path, argv);
});

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

// The end of the tool is reported with the undecoded status of the kernel.
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
		// The process that was to become the tool logs in its own memory, which is lost.
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
		// A process namespace takes no process after its first one has ended.
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
