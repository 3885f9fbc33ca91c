// Copies that fail: full and read-only file systems, and devices that cannot be read.
#include "lib/caldata.h"

#include <sys/mman.h>

#include "tests/caldata/caldata.h"
#include "tests/support/memory.h"

using namespace caldata_support;

namespace
{

TEST(caldata_export, without_the_partition_logs_and_makes_no_file)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"u-boot"}));
		EXPECT_EQ(export_all("cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({no_partition}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, without_a_table_of_partitions_logs_both)
{
	on_bare_board([] {
		EXPECT_EQ(export_all("cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({no_table, no_partition}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, without_the_device_logs_and_makes_no_file)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		EXPECT_EQ(export_all("cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({unable_to_open("/dev/mtd0", ENOENT)}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, returns_why_the_device_cannot_be_opened)
{
	on_bare_board([] {
		make_file("/proc/mtd", "mtd0: \"EEPROM\"\nmtd1/x: \"ROM\"\n");
		require(mknod("/dev/mtd0", S_IFSOCK | 0600, 0) == 0, "a socket");
		make_file("/dev/mtd1", "");
		EXPECT_EQ(export_all("cal.bin", 5), -ENXIO);
		make_file("/proc/mtd", "mtd1/x: \"EEPROM\"\n");
		EXPECT_EQ(export_all("cal.bin", 5), -ENOTDIR);
		EXPECT_EQ(messages,
			errors({unable_to_open("/dev/mtd0", 6), unable_to_open("/dev/mtd1/x", 20)}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, into_a_directory_that_is_not_there_fails)
{
	on_bare_board([] {
		make_flash("flash");
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/ath10k/cal.bin", 2)}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, returns_why_the_file_cannot_be_made)
{
	on_bare_board([] {
		make_flash("flash");
		make_file("/lib/firmware/ath10k", "no directory");
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -ENOTDIR);
		require(symlink("loop", "/lib/firmware/loop") == 0, "a link");
		EXPECT_EQ(export_all("loop", 5), -ELOOP);
		require(mount(nullptr, "/lib/firmware", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0,
			"read only");
		EXPECT_EQ(export_all("cal.bin", 5), -EROFS);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/ath10k/cal.bin", 20),
					    unable_to_open("/lib/firmware/loop", ELOOP),
					    unable_to_open("/lib/firmware/cal.bin", 30)}));
		EXPECT_EQ(read_file("/lib/firmware/ath10k"), "no directory");
	});
}

TEST(caldata_export, with_one_descriptor_left_opens_the_device_and_cannot_make_the_file)
{
	on_bare_board([] {
		make_flash("flash");
		with_descriptors(1, [] { EXPECT_EQ(export_all("cal.bin", 5), -EMFILE); });
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/cal.bin", 24)}));
	});
}

TEST(caldata_export, with_two_descriptors_left_succeeds)
{
	on_bare_board([] {
		make_flash("flash");
		with_descriptors(2, [] { EXPECT_EQ(patch_all("cal.bin", 5), 0); });
	});
}

TEST(caldata_export, silently_removes_the_file_when_the_device_cannot_seek)
{
	on_bare_board([] {
		make_flash("");
		require(unlink("/dev/mtd1") == 0 && mkfifo("/dev/mtd1", 0600) == 0, "a pipe");
		owned_fd pipe{open("/dev/mtd1", O_RDWR | O_CLOEXEC)};
		require(write_all(pipe.get(), "flash"), "the pipe");
		EXPECT_EQ(export_all("cal.bin", 5), -ESPIPE);
		EXPECT_EQ(messages, errors({}));
		EXPECT_TRUE(names_in(firmware).empty());
		EXPECT_EQ(read_available(pipe.get()), "flash");
	});
}

TEST(caldata_export, removes_the_file_when_the_device_cannot_be_read)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		make_directory("/dev/mtd0");
		EXPECT_EQ(export_all("cal.bin", 5), -EISDIR);
		EXPECT_EQ(messages, errors({"caldata: read error: err=-21\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

// This process's memory is a device that can be read up to the end of a page.
TEST(caldata_export, removes_the_file_when_the_device_fails_in_the_middle)
{
	skip_if_emulated("/proc/self/mem is the emulator's memory");
	on_bare_board([] {
		void *const place = reinterpret_cast<void *>(uintptr_t{0x10000000});
		size_t page = static_cast<size_t>(getpagesize());
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		require(symlink("/proc/self/mem", "/dev/mtd0") == 0, "a link");
		require(mmap(place, page, PROT_READ | PROT_WRITE,
				MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) == place,
			"a page");
		size_t written = 0;
		auto count = [&](const transfer &each) { written += each.is_read ? 0 : each.bytes.size(); };
		watch_transfers(count, [&] {
			EXPECT_EQ(caldata_export(
					  "cal.bin", "EEPROM", 0x10000000u, static_cast<unsigned>(page) + 1),
				-EIO);
		});
		EXPECT_EQ(written, page);
		EXPECT_EQ(messages, errors({"caldata: read error: err=-5\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, removes_the_file_when_the_file_system_is_full)
{
	on_bare_board([] {
		make_flash(random_bytes(16384));
		mount_tmpfs(firmware, "size=8k");
		EXPECT_EQ(export_all("cal.bin", 16384), -ENOSPC);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
		EXPECT_EQ(export_all("cal.bin", 8192), 0); // so its room is free again
	});
}

TEST(caldata_export, removes_a_file_that_takes_nothing_and_does_not_say_why)
{
	on_bare_board([] {
		make_flash(random_bytes(2048));
		auto no_reason =
			system_calls::write.replace([](int fd, const void *bytes, size_t count) -> ssize_t {
				if (descriptor_target(fd).find("/lib/firmware/") != std::string::npos)
					return 0;
				return system_calls::write.next(fd, bytes, count);
			});
		EXPECT_EQ(export_all("cal.bin", 2048), -ENOSPC);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

// The copy is still open, since it is locked.
TEST(caldata_export, closes_the_device_before_it_removes_the_copy)
{
	on_bare_board([] {
		make_flash(random_bytes(16384));
		mount_tmpfs(firmware, "size=8k");
		size_t before = open_descriptors().size(), removed = 0;
		on_call = [&](const std::string &call, const std::string &path) {
			if (call != "unlink")
				return;
			EXPECT_EQ(path, firmware + unfinished);
			EXPECT_EQ(open_descriptors().size(), before + 1);
			removed++;
		};
		EXPECT_EQ(export_all("cal.bin", 16384), -ENOSPC);
		on_call = nullptr;
		EXPECT_EQ(removed, 1u);
	});
}

TEST(caldata_export, removes_the_file_when_a_chunk_is_written_in_part)
{
	on_bare_board([] {
		make_flash(random_bytes(2048));
		limit_file_size(700);
		std::vector<transfer> seen =
			transfers_of([] { EXPECT_EQ(export_all("cal.bin", 2048), -EFBIG); });
		ASSERT_GE(seen.size(), 4u);
		EXPECT_EQ(seen[3].count, 700 - 512);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-27\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, can_be_called_again_after_each_failure)
{
	on_bare_board([] {
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -ENOENT); // no table
		make_file("/proc/mtd", partition_table({"u-boot", "EEPROM"}));
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -ENOENT); // no device
		make_directory("/dev/mtd1");
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -ENOENT); // no directory
		make_directory("/lib/firmware/ath10k");
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), -EISDIR);
		require(rmdir("/dev/mtd1") == 0, "the device");
		make_flash("flash");
		EXPECT_EQ(export_all("ath10k/cal.bin", 5), 0);
		EXPECT_EQ(read_file("/lib/firmware/ath10k/cal.bin"), "flash");
	});
}

TEST(caldata_export, without_memory_finds_no_partition)
{
	on_bare_board([] {
		make_flash("flash");
		memory.refuse(0);
		int result = export_all("cal.bin", 5);
		memory.grant();
		EXPECT_TRUE(memory.refused);
		EXPECT_EQ(result, -ENOENT);
		EXPECT_EQ(messages, errors({no_table, no_partition}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, removes_the_copy_that_cannot_be_given_its_name)
{
	on_bare_board([] {
		make_flash("flash");
		on_call = [](const std::string &call, const std::string &) {
			if (call == "rename")
				make_directory("/lib/firmware/cal.bin");
		};
		EXPECT_EQ(export_all("cal.bin", 5), -EISDIR);
		on_call = nullptr;
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/cal.bin", EISDIR)}));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
	});
}

TEST(caldata_export, removes_the_copy_that_cannot_be_flushed)
{
	on_bare_board([] {
		make_flash("flash");
		int error = EIO;
		auto flush = system_calls::fsync.replace([&](int) { return errno = error, -1; });
		EXPECT_EQ(export_all("cal.bin", 5), -EIO);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-5\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
		error = EINVAL; // of a file system without a medium
		EXPECT_EQ(export_all("cal.bin", 5), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "flash");
	});
}

} // namespace
