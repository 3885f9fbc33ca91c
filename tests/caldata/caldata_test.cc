// Partitions found in tables of many shapes, and slices of a flash device, a file here, copied to where
// drivers look for them, or not: full and read-only file systems, devices that cannot be read, and addresses
// patched in.
#include "lib/caldata.h"

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <map>

#include <gmock/gmock.h>

#include "tests/support/board.h"
#include "tests/support/memory.h"

using namespace board_support;

namespace
{

// Called before and after each call of the functions below, with its name and its file's path as it was before.
std::function<void(const std::string &call, const std::string &path)> on_call;

template <typename F>
int reported(const std::string &call, const std::string &path, F make)
{
	if (on_call)
		on_call(call, path);
	int result = make();
	int saved_errno = errno;
	if (on_call)
		on_call(call + " done", path);
	errno = saved_errno;
	return result;
}

auto reported_unlink = system_calls::unlink.replace([](const char *path) {
	return reported("unlink", path, [&] { return system_calls::unlink.next(path); });
});
auto reported_rename = system_calls::rename.replace([](const char *path, const char *new_path) {
	return reported("rename", path, [&] { return system_calls::rename.next(path, new_path); });
});
auto reported_fsync = system_calls::fsync.replace([](int fd) {
	return reported("fsync", descriptor_target(fd), [&] { return system_calls::fsync.next(fd); });
});
auto reported_flock = system_calls::flock.replace([](int fd, int operation) {
	return reported(
		"flock", descriptor_target(fd), [&] { return system_calls::flock.next(fd, operation); });
});

const char *const no_table = "unable to read /proc/mtd\n";
const char *const no_partition = "caldata: not found 'EEPROM' mtd partition\n";
const std::string firmware = "/lib/firmware/";
const std::string unfinished = "_"; // a copy in the making
const unsigned char mac[6] = {0x00, 0xff, 0x80, 0x0a, 0x25, 0x7f};
const std::string mac_bytes(reinterpret_cast<const char *>(mac), sizeof(mac));

std::string unable_to_open(const std::string &path, int error)
{
	return "caldata: unable to open " + path + ": err=-" + std::to_string(error) + "\n";
}

int export_all(const std::string &file, unsigned length)
{
	return caldata_export(file.c_str(), "EEPROM", 0, length);
}

int patch_all(const std::string &file, unsigned length)
{
	return ath10k_caldata_patch(file.c_str(), "EEPROM", mac, 0, length);
}

// No file of more than `bytes` can be written any more, and trying is an error, not a signal.
void limit_file_size(rlim_t bytes)
{
	signal(SIGXFSZ, SIG_IGN);
	rlimit limit{bytes, bytes};
	require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "a limit");
}

// Only `count` more descriptors can be opened while `body` runs.
void with_descriptors(int count, const std::function<void()> &body)
{
	rlimit before;
	require(getrlimit(RLIMIT_NOFILE, &before) == 0, "the limit");
	rlimit limit{static_cast<rlim_t>(*open_descriptors().rbegin() + 1 + count), before.rlim_max};
	std::vector<owned_fd> gaps;
	while (true) {
		owned_fd fd{open("/", O_PATH | O_CLOEXEC)};
		if (fd.get() >= static_cast<int>(limit.rlim_cur) - count)
			break;
		gaps.push_back(std::move(fd));
	}
	require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "a limit");
	body();
	require(setrlimit(RLIMIT_NOFILE, &before) == 0, "the old limit");
}

// A file name that makes a path of `length` characters in /lib/firmware; what counts of it is `name`.
std::string padded(const std::string &name, size_t length)
{
	return std::string(length - firmware.size() - name.size(), '/') + name;
}

// ---- find_mtd ----

// What is found in a table of this text; "(nothing)" for null.
std::string found_in(const std::string &table, const char *name)
{
	make_file("/proc/mtd", table);
	char *device = find_mtd(name);
	std::string copy = device ? device : "(nothing)";
	free(device);
	return copy;
}

TEST(find_mtd, gives_the_device_of_a_partition)
{
	on_bare_board([] {
		std::string table = partition_table({"u-boot", "EEPROM", "rootfs"});
		EXPECT_EQ(found_in(table, "u-boot"), "mtd0");
		EXPECT_EQ(found_in(table, "EEPROM"), "mtd1");
		EXPECT_EQ(found_in(table, "rootfs"), "mtd2");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(find_mtd, gives_each_caller_a_text_of_its_own)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		char *first = find_mtd("EEPROM"), *second = find_mtd("EEPROM");
		EXPECT_NE(first, second);
		first[0] = 'X';
		EXPECT_STREQ(second, "mtd0");
		free(first);
		free(second);
	});
}

// Whether the table that the process `reader` is about to read, a pipe, is closed when it starts a program;
// the process is stopped by the pipe until it gets a line.
bool table_is_closed_on_exec(pid_t reader)
{
	owned_fd pipe{open("/proc/mtd", O_WRONLY | O_CLOEXEC)};
	const std::string process = "/proc/kernel/" + std::to_string(reader);
	std::string information;
	auto look = [&] {
		for (const std::string &fd : names_in(process + "/fd")) {
			std::error_code gone;
			if (std::filesystem::read_symlink(process + "/fd/" + fd, gone) == "/proc/mtd")
				information = read_file(process + "/fdinfo/" + fd);
		}
		return !information.empty();
	};
	bool seen = eventually(look) && write_all(pipe.get(), "mtd0: \"EEPROM\"\n");
	size_t flags = information.find("flags:");
	return seen && flags != std::string::npos &&
	       (strtoul(information.c_str() + flags + strlen("flags:"), nullptr, 8) & O_CLOEXEC);
}

TEST(find_mtd, reads_a_table_that_is_closed_on_exec)
{
	on_bare_board([] {
		require(mkfifo("/proc/mtd", 0600) == 0, "a pipe");
		pid_t reader = getpid(), looker = fork();
		if (looker == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			_exit(table_is_closed_on_exec(reader) ? 0 : 1);
		}
		char *device = find_mtd("EEPROM");
		EXPECT_STREQ(device, "mtd0");
		free(device);
		int status = -1;
		EXPECT_EQ(waitpid(looker, &status, 0), looker);
		EXPECT_EQ(status, 0);
	});
}

TEST(find_mtd, without_a_table_logs_and_finds_nothing)
{
	on_bare_board([] {
		EXPECT_EQ(find_mtd("EEPROM"), nullptr);
		EXPECT_EQ(messages, errors({no_table}));
	});
}

TEST(find_mtd, without_a_descriptor_for_the_table_logs_and_finds_nothing)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		with_descriptors(0, [] { EXPECT_EQ(find_mtd("EEPROM"), nullptr); });
		EXPECT_EQ(messages, errors({no_table}));
	});
}

// One request refused after the other; without a buffer the C library reads the table all the same.
TEST(find_mtd, without_memory_finds_the_partition_or_nothing)
{
	on_bare_board([] {
		make_file("/proc/mtd", partition_table({"EEPROM"}));
		std::vector<bool> found;
		do {
			memory.refuse(static_cast<int>(found.size()));
			char *device = find_mtd("EEPROM");
			memory.grant();
			found.push_back(device != nullptr);
			EXPECT_TRUE(!device || strcmp(device, "mtd0") == 0) << device;
			free(device);
		} while (memory.refused);
		EXPECT_GE(found.size(), 2u);
		EXPECT_FALSE(found.front());
		EXPECT_TRUE(found.back());
		EXPECT_EQ(messages, errors({no_table}));
	});
}

TEST(find_mtd, finds_nothing_in_a_table_that_is_empty_or_no_more_than_its_heading)
{
	on_bare_board([] {
		EXPECT_EQ(found_in("", "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in("\n\n", "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in(partition_table({}), "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in(partition_table({}), "name"), "(nothing)");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(find_mtd, silently_finds_nothing_in_a_table_that_is_a_directory)
{
	on_bare_board([] {
		make_directory("/proc/mtd");
		EXPECT_EQ(find_mtd("EEPROM"), nullptr);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(find_mtd, silently_finds_nothing_for_a_name_that_is_not_in_the_table)
{
	on_bare_board([] {
		std::string table = partition_table({"u-boot", "EEPROM"});
		EXPECT_EQ(found_in(table, "rootfs"), "(nothing)");
		EXPECT_EQ(found_in(table, "eeprom"), "(nothing)");
		EXPECT_EQ(found_in(table, "mtd1"), "(nothing)");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(find_mtd, finds_the_first_of_several_partitions_of_one_name)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"x", "EEPROM", "EEPROM", "EEPROM"}), "EEPROM"), "mtd1");
	});
}

TEST(find_mtd, also_finds_a_name_that_ends_in_the_one_asked_for)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"rootfs", "rootfs_data"}), "data"), "mtd1");
		EXPECT_EQ(found_in(partition_table({"rootfs_data", "data"}), "data"), "mtd0");
		EXPECT_EQ(found_in(partition_table({"data", "rootfs_data"}), "data"), "mtd0");
	});
}

TEST(find_mtd, takes_an_opening_quote_in_the_name_as_the_start_of_the_partitions)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"rootfs_data", "data"}), "\"data"), "mtd1");
	});
}

TEST(find_mtd, does_not_find_a_name_that_goes_on_after_the_one_asked_for)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"EEPROM2", "EEPROM ", "EEPROM-old", "EEPROM"}), "EEPROM"),
			"mtd3");
		EXPECT_EQ(found_in(partition_table({"EEPROM2"}), "EEPROM"), "(nothing)");
	});
}

TEST(find_mtd, looks_only_at_the_first_place_of_a_line_with_the_name)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"data_data"}), "data"), "(nothing)");
		EXPECT_EQ(found_in(partition_table({"0001"}), "0001"), "(nothing)"); // as in the size
		EXPECT_EQ(found_in("mtd0: data\"data\n", "data"), "mtd0");
		EXPECT_EQ(found_in("mtd7: 1 1 \"a\" \"b\"\n", "a"), "mtd7"); // whatever follows
	});
}

TEST(find_mtd, needs_the_quote_behind_the_name)
{
	on_bare_board([] {
		EXPECT_EQ(found_in("mtd0: 1 1 EEPROM\nmtd1: 1 1 \"EEPROM\nmtd2: 1 1 'EEPROM'\n", "EEPROM"),
			"(nothing)");
		EXPECT_EQ(found_in("mtd0: 1 1 EEPROM", "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in("mtd0: 1 1 EEPROM\"", "EEPROM"), "mtd0");
	});
}

TEST(find_mtd, skips_a_line_without_a_colon)
{
	on_bare_board([] {
		EXPECT_EQ(found_in("mtd0 1 1 \"EEPROM\"\n", "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in("mtd0 1 1 \"EEPROM\"\nmtd1: 1 1 \"EEPROM\"\n", "EEPROM"), "mtd1");
	});
}

TEST(find_mtd, ends_the_device_at_the_first_colon)
{
	on_bare_board([] {
		EXPECT_EQ(found_in("mtd0: 1 1 \"a:b\"\n", "a:b"), "mtd0");
		EXPECT_EQ(found_in("mtd0:1:1:\"a\"\n", "a"), "mtd0");
		EXPECT_EQ(found_in(": 1 1 \"a\"\n", "a"), "");
		EXPECT_EQ(found_in("  mtd3 : 1 1 \"a\"\n", "a"), "  mtd3 ");
		EXPECT_EQ(found_in("mtd4 \"a\" :\n", "a"), "mtd4 \"a\" "); // one behind the name, too
	});
}

TEST(find_mtd, finds_a_last_line_without_a_line_feed)
{
	on_bare_board(
		[] { EXPECT_EQ(found_in("mtd0: 1 1 \"x\"\nmtd12: 1 1 \"EEPROM\"", "EEPROM"), "mtd12"); });
}

TEST(find_mtd, with_an_empty_name_finds_a_line_that_begins_with_a_quote)
{
	on_bare_board([] {
		EXPECT_EQ(found_in(partition_table({"", "EEPROM"}), ""), "(nothing)");
		EXPECT_EQ(found_in("\"x:\n", ""), "\"x");
	});
}

TEST(find_mtd, reads_a_line_of_up_to_255_characters_whole)
{
	on_bare_board([] {
		std::string line = "mtd0: \"EEPROM\"";
		for (size_t length : {253u, 254u, 255u}) {
			std::string blanks(length - line.size(), ' ');
			EXPECT_EQ(found_in("mtd0: " + blanks + "\"EEPROM\"\nmtd1: \"EEPROM\"\n", "EEPROM"),
				"mtd0")
				<< length;
		}
	});
}

TEST(find_mtd, reads_the_rest_of_a_longer_line_as_a_line_of_its_own)
{
	on_bare_board([] {
		std::string blanks(255 - 5, ' ');
		EXPECT_EQ(found_in("mtd0:" + blanks + "\"EEPROM\"\n", "EEPROM"), "(nothing)");
		EXPECT_EQ(found_in("mtd0:" + blanks + "mtd9: \"EEPROM\"\n", "EEPROM"), "mtd9");
		EXPECT_EQ(found_in("mtd0:" + blanks + "\"EEPROM\"\nmtd1: \"EEPROM\"\n", "EEPROM"), "mtd1");
		EXPECT_EQ(found_in("mtd0:" + blanks.substr(3) + "\"EEPROM\": \n", "EEPROM"),
			"(nothing)"); // in two
		EXPECT_EQ(found_in("mtd0: \"EEPROM\"" + blanks + blanks + "\n", "EEPROM"), "mtd0");
	});
}

// ---- caldata_export ----

TEST(caldata_export, copies_a_slice_of_the_partition)
{
	on_bare_board([] {
		std::string flash = random_bytes(32768);
		make_flash(flash);
		EXPECT_EQ(caldata_export("cal.bin", "EEPROM", 4096, 16384), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), flash.substr(4096, 16384));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
		EXPECT_EQ(read_file("/dev/mtd1"), flash);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, copies_slices_of_any_offset_and_length)
{
	on_bare_board([] {
		const unsigned slices[][2] = {{0, 1}, {1, 511}, {3, 512}, {7, 513}, {511, 1023}, {513, 1024},
			{4097, 2117}, {8191, 1}, {0, 8192}, {2, 8190}};
		std::string flash = random_bytes(8192);
		make_flash(flash);
		for (const auto &[offset, length] : slices) {
			std::string file = std::to_string(offset) + "-" + std::to_string(length);
			EXPECT_EQ(caldata_export(file.c_str(), "EEPROM", offset, length), 0) << file;
			EXPECT_EQ(read_file(firmware + file), flash.substr(offset, length)) << file;
		}
	});
}

TEST(caldata_export, reads_and_writes_512_bytes_at_a_time_and_the_rest_at_last)
{
	on_bare_board([] {
		std::string flash = random_bytes(4096);
		make_flash(flash);
		const std::string copy = std::filesystem::canonical(firmware).string() + "/" + unfinished;
		size_t at = 100;
		bool reads_next = true;
		std::vector<size_t> chunks;
		auto check = [&](const transfer &each) {
			EXPECT_EQ(each.is_read, reads_next);
			EXPECT_EQ(each.path, each.is_read ? "/dev/mtd1" : copy);
			EXPECT_EQ(each.bytes, flash.substr(at, each.requested));
			if (each.is_read)
				chunks.push_back(each.requested);
			else
				at += each.requested;
			reads_next = !reads_next;
		};
		watch_transfers(check, [] { EXPECT_EQ(caldata_export("cal.bin", "EEPROM", 100, 2116), 0); });
		EXPECT_EQ(chunks, (std::vector<size_t>{512, 512, 512, 512, 68}));
		EXPECT_EQ(at, 100u + 2116);
	});
}

TEST(caldata_export, of_a_multiple_of_512_bytes_ends_with_a_whole_chunk)
{
	on_bare_board([] {
		make_flash(random_bytes(4096));
		std::vector<transfer> seen = transfers_of([] { EXPECT_EQ(export_all("cal.bin", 1024), 0); });
		ASSERT_EQ(seen.size(), 4u);
		for (const transfer &each : seen)
			EXPECT_EQ(each.requested, 512u);
	});
}

TEST(caldata_export, closes_its_files_on_exec)
{
	on_bare_board([] {
		make_flash(random_bytes(512));
		std::vector<transfer> seen = transfers_of([] { EXPECT_EQ(patch_all("cal.bin", 512), 0); });
		ASSERT_EQ(seen.size(), 3u); // the device, the copy, and the copy again for the address
		for (const transfer &each : seen)
			EXPECT_TRUE(each.closed_on_exec) << testing::PrintToString(each);
	});
}

TEST(caldata_export, of_no_bytes_makes_an_empty_file_and_reads_nothing)
{
	on_bare_board([] {
		make_flash("");
		std::vector<transfer> seen =
			transfers_of([] { EXPECT_EQ(caldata_export("cal.bin", "EEPROM", 4096, 0), 0); });
		EXPECT_TRUE(seen.empty()) << testing::PrintToString(seen);
		EXPECT_TRUE(exists("/lib/firmware/cal.bin"));
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "");
	});
}

TEST(caldata_export, makes_a_file_that_everybody_may_read_and_the_owner_write)
{
	on_bare_board([] {
		make_flash(random_bytes(10));
		EXPECT_EQ(export_all("cal.bin", 10), 0);
		struct stat about {
		};
		EXPECT_EQ(stat("/lib/firmware/cal.bin", &about), 0);
		EXPECT_EQ(about.st_mode, static_cast<mode_t>(S_IFREG | 0644));
	});
}

TEST(caldata_export, takes_an_offset_beyond_2_gigabytes)
{
	on_bare_board([] {
		make_flash("");
		std::string bytes = random_bytes(600);
		owned_fd device{open("/dev/mtd1", O_WRONLY | O_CLOEXEC)};
		for (unsigned offset : {0x7fffff00u, 0x80000001u, 0xffffff00u}) {
			require(pwrite64(device.get(), bytes.data(), bytes.size(), off64_t{offset}) == 600,
				"flash");
			std::string file = std::to_string(offset);
			EXPECT_EQ(caldata_export(file.c_str(), "EEPROM", offset, 600), 0) << file;
			EXPECT_EQ(read_file(firmware + file), bytes) << file;
		}
	});
}

// The largest length is not minus one: the copy ends where the file system does.
TEST(caldata_export, takes_a_length_beyond_2_gigabytes)
{
	on_bare_board([] {
		make_flash("");
		require(truncate64("/dev/mtd1", off64_t{1} << 32) == 0, "flash");
		mount_tmpfs(firmware, "size=16k");
		size_t written = 0;
		auto count = [&](const transfer &each) { written += each.is_read ? 0 : each.bytes.size(); };
		watch_transfers(count, [] { EXPECT_EQ(export_all("cal.bin", 0xffffffffu), -ENOSPC); });
		EXPECT_EQ(written, 16384u);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n"}));
	});
}

// Runs `export_slice`, which must not come back: at its thousandth read in a row that finds the end of the
// data the child looks at the copy and ends.
void expect_endless(const std::string &copied, const std::function<void()> &export_slice)
{
	int at_the_end = 0;
	auto look = [&](const transfer &each) {
		EXPECT_TRUE(each.is_read || !each.bytes.empty());
		at_the_end = each.is_read && each.count == 0 ? at_the_end + 1 : 0;
		if (at_the_end < 1000)
			return;
		EXPECT_EQ(each.path, "/dev/mtd1");
		EXPECT_EQ(read_file(firmware + unfinished), copied);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{unfinished});
		EXPECT_EQ(messages, errors({}));
		fflush(nullptr);
		_exit(testing::Test::HasFailure() ? 1 : 0);
	};
	watch_transfers(look, export_slice);
	ADD_FAILURE() << "it came back";
}

TEST(caldata_export, goes_on_reading_at_the_end_of_the_data)
{
	on_bare_board([] {
		std::string flash = random_bytes(1000);
		make_flash(flash);
		expect_endless(flash.substr(100), [] { caldata_export("cal.bin", "EEPROM", 100, 901); });
	});
}

TEST(caldata_export, goes_on_reading_from_an_offset_beyond_the_end_of_the_data)
{
	on_bare_board([] {
		make_flash(random_bytes(1000));
		expect_endless("", [] { caldata_export("cal.bin", "EEPROM", 5000, 1); });
	});
}

TEST(caldata_export, copies_from_the_first_partition_whose_name_ends_in_the_one_asked_for)
{
	on_bare_board([] {
		make_flash("right");
		EXPECT_EQ(caldata_export("cal.bin", "ROM", 0, 5), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "right");
	});
}

TEST(caldata_export, makes_the_file_in_a_directory_that_is_there)
{
	on_bare_board([] {
		make_flash("bytes");
		make_directory("/lib/firmware/ath10k");
		EXPECT_EQ(export_all("ath10k/cal-pci-0000:00:00.0.bin", 5), 0);
		EXPECT_EQ(read_file("/lib/firmware/ath10k/cal-pci-0000:00:00.0.bin"), "bytes");
	});
}

TEST(caldata_export, takes_names_as_they_are)
{
	on_bare_board([] {
		make_flash("bytes");
		make_file("/proc/mtd", "mtd1: 1 1 \"%s%n\"\n");
		EXPECT_EQ(caldata_export("%d %s.bin", "%s%n", 0, 5), 0);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"%d %s.bin"});
		EXPECT_EQ(caldata_export("other", "%d%s", 0, 5), -ENOENT);
		EXPECT_EQ(messages, errors({"caldata: not found '%d%s' mtd partition\n"}));
	});
}

// ---- A file that is there ----

TEST(caldata_export, finds_its_file_the_second_time_and_opens_nothing)
{
	on_bare_board([] {
		make_flash("first bytes");
		EXPECT_EQ(export_all("cal.bin", 11), 0);
		for (const char *path : {"/proc/mtd", "/dev/mtd1"})
			require(unlink(path) == 0, path);
		struct stat before {
		}, after{};
		EXPECT_EQ(stat("/lib/firmware/cal.bin", &before), 0);
		std::vector<transfer> seen = transfers_of([] { EXPECT_EQ(export_all("cal.bin", 5), 0); });
		EXPECT_TRUE(seen.empty()) << testing::PrintToString(seen);
		EXPECT_EQ(stat("/lib/firmware/cal.bin", &after), 0);
		EXPECT_EQ(after.st_ino, before.st_ino);
		EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
		EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "first bytes");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, needs_no_descriptor_to_find_its_file)
{
	on_bare_board([] {
		make_file("/lib/firmware/cal.bin", "");
		with_descriptors(0, [] { EXPECT_EQ(export_all("cal.bin", 5), 0); });
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, never_overwrites_what_is_there_whatever_it_is)
{
	on_bare_board([] {
		make_flash("flash");
		make_file("/lib/firmware/empty", "");
		make_directory("/lib/firmware/directory");
		make_file("/lib/firmware/file", "other");
		require(symlink("file", "/lib/firmware/link") == 0, "a link");
		for (const char *name : {"empty", "directory", "file", "link"})
			EXPECT_EQ(export_all(name, 5), 0) << name;
		EXPECT_EQ(read_file("/lib/firmware/empty"), "");
		EXPECT_EQ(read_file("/lib/firmware/file"), "other");
		EXPECT_TRUE(names_in("/lib/firmware/directory").empty());
	});
}

TEST(caldata_export, writes_through_a_link_to_a_file_that_is_not_there)
{
	on_bare_board([] {
		make_flash("flash");
		make_directory("/lib/firmware/elsewhere");
		require(symlink("elsewhere/file", "/lib/firmware/link") == 0, "a link");
		EXPECT_EQ(export_all("link", 5), 0);
		EXPECT_EQ(read_file("/lib/firmware/elsewhere/file"), "flash");
		struct stat about {
		};
		EXPECT_EQ(lstat("/lib/firmware/link", &about), 0);
		EXPECT_TRUE(S_ISLNK(about.st_mode));
	});
}

TEST(caldata_export, writes_through_links_of_every_kind)
{
	on_bare_board([] {
		make_flash("flash");
		for (const char *path : {"/lib/firmware/a", "/lib/firmware/b", "/dev/c"})
			make_directory(path);
		const std::pair<const char *, const char *> links[] = {{"relative", "a/1"},
			{"absolute", "/lib/firmware/a/2"}, {"upwards", "a/../b/./3"}, {"chain", "a/chain"},
			{"a/chain", "../b/chain"}, {"b/chain", "/dev/c/chain"}, {"/dev/c/chain", "4"},
			{"folder", "/dev/c"}, {"file_system", "folder/5"}};
		for (const auto &[link, target] : links)
			require(symlink(target, (link[0] == '/' ? link : firmware + link).c_str()) == 0,
				link);
		for (const char *link : {"relative", "absolute", "upwards", "chain", "file_system"})
			EXPECT_EQ(export_all(link, 5), 0) << link;
		for (const char *path : {"/lib/firmware/a/1", "/lib/firmware/a/2", "/lib/firmware/b/3",
			     "/dev/c/4", "/dev/c/5"})
			EXPECT_EQ(read_file(path), "flash") << path;
		for (const auto &[link, target] : links)
			EXPECT_TRUE(std::filesystem::is_symlink(link[0] == '/' ? link : firmware + link))
				<< link;
		EXPECT_EQ(names_in("/dev/c"), (std::set<std::string>{"chain", "4", "5"}));
		EXPECT_EQ(names_in("/lib/firmware/a"), (std::set<std::string>{"chain", "1", "2"}));
		EXPECT_EQ(messages, errors({}));
	});
}

// Makes a file at `path` as opening does, and removes it again. Returns where it was, or what failed; 0 also where
// there is something already.
std::pair<std::string, int> made_by_opening(const std::string &path)
{
	if (access(path.c_str(), F_OK) == 0)
		return {"", 0};
	owned_fd fd{open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)};
	if (fd.get() < 0)
		return {"", errno};
	std::string made = std::filesystem::canonical(path);
	require(unlink(made.c_str()) == 0, made);
	return {made, 0};
}

TEST(caldata_export, makes_a_file_or_fails_as_opening_its_path_does)
{
	on_bare_board([] {
		make_flash("flash");
		make_file(firmware + "file", "");
		make_directory(firmware + "folder");
		std::map<std::string, std::string> links{{"to_a_file_in_none", "none/cal.bin"},
			{"to_a_slash", "cal/"}, {"to_a_link_to_a_slash", "to_a_slash"},
			{"to_a_file_below_a_file", "file/cal.bin"}, {"to_a_long_name", std::string(256, 'x')},
			{"to_a_name_of_255", std::string(255, 'x')},
			{"to_a_way_back_from_none", "none/../cal"},
			{"to_a_long_path", std::string(4000, '/') + firmware + "cal"},
			{"to_itself", "to_itself"}, {"link_0", "cal"}};
		for (int links_before = 0; links_before < 42; links_before++)
			links["link_" + std::to_string(links_before + 1)] =
				"link_" + std::to_string(links_before);
		for (const auto &[link, target] : links)
			require(symlink(target.c_str(), (firmware + link).c_str()) == 0, link);
		std::vector<std::string> files{"cal", "none/cal", "file/cal", "cal/", "none/cal/", "file/",
			"cal/.", "folder//cal", "folder/../cal", "none/../cal", std::string(255, 'x'),
			std::string(256, 'x'), padded("cal.bin", 4095), padded("cal.bin/", 4095),
			padded("c", 4095)};
		for (const auto &[link, target] : links)
			files.push_back(link);
		const std::set<std::string> before = names_in(firmware);
		std::set<int> results;
		for (const std::string &file : files) {
			SCOPED_TRACE(file.substr(0, 30));
			const auto [made, error] = made_by_opening(firmware + file);
			results.insert(error);
			messages.clear();
			EXPECT_EQ(export_all(file, 5), -error);
			ASSERT_EQ(messages.size(), error ? 1u : 0u);
			if (error) { // a message is cut at some length
				EXPECT_THAT(unable_to_open(firmware + file, error),
					testing::StartsWith(messages[0].text.substr(0, 200)));
			}
			if (!made.empty()) {
				EXPECT_EQ(read_file(made), "flash");
				require(unlink(made.c_str()) == 0, made);
			}
			EXPECT_EQ(names_in(firmware), before);
		}
		EXPECT_EQ(results, (std::set<int>{0, ENOENT, ENOTDIR, EISDIR, ELOOP, ENAMETOOLONG}));
	});
}

// ---- A copy that is not finished ----

struct bytes_of_copy {
	std::string flash = random_bytes(1300);
	std::string whole = std::string(flash).replace(6, 6, mac_bytes);
};

// Runs `body` in a process that is killed at the `nth` of its reads, writes and other calls. Returns whether it
// has come to its end before.
bool ends_before(int nth, const std::function<void()> &body)
{
	pid_t child = fork();
	if (child == 0) {
		int left = nth;
		auto step = [&] {
			if (left-- == 0)
				kill(getpid(), SIGKILL);
		};
		on_call = [&](const std::string &, const std::string &) { step(); };
		watch_transfers([&](const transfer &) { step(); }, body);
		_exit(0);
	}
	int status = -1;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status) || WTERMSIG(status) == SIGKILL) << status;
	return WIFEXITED(status);
}

TEST(caldata_export, killed_at_any_point_leaves_no_file_or_a_whole_one_and_the_next_call_finishes_it)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		int points = 0;
		size_t without_file = 0, with_file = 0;
		while (!ends_before(points, [] { patch_all("cal.bin", 1300); })) {
			(exists(firmware + "cal.bin") ? with_file : without_file)++;
			if (exists(firmware + "cal.bin")) {
				EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole) << points;
				EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"}) << points;
			}
			EXPECT_EQ(patch_all("cal.bin", 1300), 0) << points;
			EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole) << points;
			EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"}) << points;
			require(unlink((firmware + "cal.bin").c_str()) == 0, "the file");
			points++;
		}
		// Three chunks are read and written, and the address is written.
		EXPECT_GE(without_file, 7u + 2);
		EXPECT_GE(with_file, 1u);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, is_on_the_medium_before_it_has_its_name_and_then_the_name_is)
{
	on_bare_board([] {
		make_flash(random_bytes(600));
		const std::string folder = std::filesystem::canonical(firmware).string();
		const std::string copy = folder + "/" + unfinished;
		std::vector<std::string> seen;
		on_call = [&](const std::string &call, const std::string &path) {
			if (call == "fsync" || call == "rename done")
				seen.push_back(call + " " + path);
		};
		auto note = [&](const transfer &each) {
			if (!each.is_read)
				seen.push_back("write " + each.path);
		};
		watch_transfers(note, [] { EXPECT_EQ(patch_all("cal.bin", 600), 0); });
		on_call = nullptr;
		EXPECT_EQ(seen,
			(std::vector<std::string>{"write " + copy, "write " + copy, "write " + copy,
				"fsync " + copy, "rename done " + firmware + unfinished, "fsync " + folder}));
	});
}

TEST(caldata_export, starts_anew_whatever_stands_in_the_place_of_its_copy)
{
	on_bare_board([] {
		make_flash("flash");
		const std::string copy = firmware + unfinished;
		make_file("/dev/other", "other");
		const std::function<int()> obstacles[] = {
			[&] { return write_file(copy, std::string(5000, 'x')) ? 0 : -1; },
			[&] { return symlink("/dev/other", copy.c_str()); },
			[&] { return symlink(unfinished.c_str(), copy.c_str()); },
			[&] { return mkfifo(copy.c_str(), 0600); },
			[&] { return mknod(copy.c_str(), S_IFSOCK | 0600, 0); }};
		for (const auto &put : obstacles) {
			require(put() == 0, "an obstacle");
			EXPECT_EQ(export_all("cal.bin", 5), 0);
			EXPECT_EQ(read_file(firmware + "cal.bin"), "flash");
			EXPECT_TRUE(std::filesystem::is_regular_file(
				std::filesystem::symlink_status(firmware + "cal.bin")));
			EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
			require(unlink((firmware + "cal.bin").c_str()) == 0, "the file");
		}
		EXPECT_EQ(read_file("/dev/other"), "other");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, does_not_write_to_another_file_that_its_leftover_is_a_link_to)
{
	on_bare_board([] {
		make_flash("flash");
		make_file(firmware + "other", "other");
		require(link((firmware + "other").c_str(), (firmware + unfinished).c_str()) == 0, "a link");
		EXPECT_EQ(export_all("cal.bin", 5), 0);
		EXPECT_EQ(read_file(firmware + "other"), "other");
	});
}

TEST(caldata_export, reports_what_stands_in_its_way_and_cannot_be_removed)
{
	on_bare_board([] {
		make_flash("flash");
		make_directory(firmware + unfinished);
		EXPECT_EQ(export_all("cal.bin", 5), -EISDIR);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/cal.bin", EISDIR)}));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{unfinished});
	});
}

TEST(caldata_export, replaces_the_copy_that_a_killed_process_left_of_another_file)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		EXPECT_FALSE(ends_before(5, [] { export_all("first.bin", 1300); }));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{unfinished});
		EXPECT_EQ(export_all("second.bin", 1000), 0);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"second.bin"});
		EXPECT_EQ(read_file(firmware + "second.bin"), bytes.flash.substr(0, 1000));
	});
}

// Two processes of which the second comes to wait for the first, which stops in the middle of its copy until then.
void export_at_the_same_time(const std::function<void()> &first, const std::function<void()> &second)
{
	pipe_pair in_the_middle, waiting;
	auto start = [&](const std::function<void()> &body) {
		pid_t child = fork();
		if (child == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			body();
			_exit(testing::Test::HasFailure() ? 1 : 0);
		}
		return child;
	};
	auto pause = [&](const transfer &each) {
		if (each.is_read || each.count == 0 || in_the_middle.write_end.get() < 0)
			return;
		in_the_middle.write_end.reset();
		waiting.write_end.reset();
		EXPECT_TRUE(wait_for(waiting.read_end.get(), POLLIN)); // the second closes the last one
	};
	pid_t first_child = start([&] { watch_transfers(pause, first); });
	in_the_middle.write_end.reset();
	EXPECT_TRUE(wait_for(in_the_middle.read_end.get(), POLLIN));
	pid_t second_child = start([&] {
		on_call = [&](const std::string &call, const std::string &) {
			if (call == "flock")
				waiting.write_end.reset();
		};
		second();
	});
	waiting.write_end.reset();
	for (pid_t child : {first_child, second_child}) {
		int status = -1;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);
	}
}

TEST(caldata_export, of_two_files_at_the_same_time_makes_both)
{
	on_bare_board([] {
		const std::string flash = random_bytes(2000);
		make_flash(flash);
		export_at_the_same_time([] { EXPECT_EQ(export_all("first.bin", 1300), 0); },
			[] { EXPECT_EQ(export_all("second.bin", 2000), 0); });
		EXPECT_EQ(names_in(firmware), (std::set<std::string>{"first.bin", "second.bin"}));
		EXPECT_EQ(read_file(firmware + "first.bin"), flash.substr(0, 1300));
		EXPECT_EQ(read_file(firmware + "second.bin"), flash);
	});
}

TEST(caldata_export, of_one_file_at_the_same_time_leaves_that_of_the_first)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		export_at_the_same_time([] { EXPECT_EQ(patch_all("cal.bin", 1300), 0); },
			[] { EXPECT_EQ(export_all("cal.bin", 1300), 0); });
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
		EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole);
	});
}

// ---- Failures of the copy ----

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

// ---- Long paths ----

TEST(caldata_export, takes_a_path_of_4095_characters_as_it_is)
{
	on_bare_board([] {
		make_flash("flash");
		EXPECT_EQ(export_all(padded("cal.bin", 4095), 5), 0);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
	});
}

TEST(caldata_export, takes_a_path_of_4096_characters_without_the_last)
{
	on_bare_board([] {
		make_flash("flash");
		EXPECT_EQ(export_all(padded("cal.bin", 4096), 5), 0);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bi"});
		require(unlink("/proc/mtd") == 0, "the table");
		EXPECT_EQ(export_all(padded("cal.bix", 4096), 5), 0); // the same file, which is there
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, silently_refuses_a_path_of_more_than_4096_characters)
{
	on_bare_board([] {
		make_flash("flash");
		EXPECT_EQ(export_all(padded("cal.bin", 4097), 5), -1);
		EXPECT_EQ(patch_all(padded("cal.bin", 10000), 5), -1);
		EXPECT_EQ(messages, errors({}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(caldata_export, logs_a_long_path_whole)
{
	std::string file = "none/" + padded("cal.bin", 4090);
	child_result result = run_child([&] {
		require(enter_private_namespaces(), "namespaces");
		mount_proc();
		have_directory("/lib", "firmware");
		for (const char *path : {"/dev", "/lib/firmware"})
			mount_tmpfs(path);
		make_flash("flash");
		log_open(LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		EXPECT_EQ(export_all(file, 5), -ENOENT);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, unable_to_open(firmware + file, ENOENT));
}

// ---- ath10k_caldata_patch ----

TEST(ath10k_caldata_patch, writes_the_address_over_the_bytes_from_the_sixth_on_and_no_other)
{
	on_bare_board([] {
		std::string flash = random_bytes(32768);
		make_flash(flash);
		EXPECT_EQ(ath10k_caldata_patch("cal.bin", "EEPROM", mac, 20480, 2116), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"),
			flash.substr(20480, 2116).replace(6, 6, mac_bytes));
		EXPECT_EQ(read_file("/dev/mtd1"), flash);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(ath10k_caldata_patch, makes_a_shorter_file_long_enough_for_the_address)
{
	on_bare_board([] {
		std::string flash = random_bytes(64);
		make_flash(flash);
		for (unsigned length : {0u, 1u, 5u, 6u, 8u, 11u, 12u, 13u}) {
			std::string file = std::to_string(length);
			EXPECT_EQ(patch_all(file, length), 0);
			std::string expected = flash.substr(0, length);
			expected.resize(std::max(length, 12u), '\0');
			EXPECT_EQ(read_file(firmware + file), expected.replace(6, 6, mac_bytes)) << length;
		}
	});
}

TEST(ath10k_caldata_patch, leaves_a_file_that_is_there_without_the_address)
{
	on_bare_board([] {
		std::string flash = random_bytes(64);
		make_flash(flash);
		EXPECT_EQ(export_all("cal.bin", 64), 0);
		EXPECT_EQ(patch_all("cal.bin", 64), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), flash);
	});
}

TEST(ath10k_caldata_patch, leaves_the_address_of_the_first_time)
{
	on_bare_board([] {
		const unsigned char other[6] = {1, 2, 3, 4, 5, 6};
		std::string flash = random_bytes(64);
		make_flash(flash);
		EXPECT_EQ(patch_all("cal.bin", 64), 0);
		EXPECT_EQ(ath10k_caldata_patch("cal.bin", "EEPROM", other, 0, 64), 0);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), flash.replace(6, 6, mac_bytes));
	});
}

TEST(ath10k_caldata_patch, without_an_address_logs_and_touches_nothing)
{
	on_bare_board([] {
		std::vector<transfer> seen = transfers_of([] {
			with_descriptors(0, [] {
				EXPECT_EQ(ath10k_caldata_patch("cal.bin", "EEPROM", nullptr, 0, 5), -EINVAL);
			});
		});
		EXPECT_TRUE(seen.empty());
		EXPECT_EQ(messages,
			errors({"caldata: the MAC address is not valid\n"})); // and not what else is missing
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

TEST(ath10k_caldata_patch, without_an_address_fails_even_if_the_file_is_there)
{
	on_bare_board([] {
		make_flash("flash");
		make_file("/lib/firmware/cal.bin", "other");
		EXPECT_EQ(ath10k_caldata_patch("cal.bin", "EEPROM", nullptr, 0, 5), -EINVAL);
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "other");
		EXPECT_EQ(messages, errors({"caldata: the MAC address is not valid\n"}));
	});
}

TEST(ath10k_caldata_patch, fails_as_the_export_does_and_writes_no_address_then)
{
	on_bare_board([] {
		EXPECT_EQ(patch_all("cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({no_table, no_partition}));
		messages.clear();
		make_flash(random_bytes(16384));
		EXPECT_EQ(patch_all("none/cal.bin", 5), -ENOENT);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/none/cal.bin", 2)}));
		messages.clear();
		mount_tmpfs(firmware, "size=8k");
		EXPECT_EQ(patch_all("cal.bin", 16384), -ENOSPC);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n"}));
		EXPECT_TRUE(names_in(firmware).empty());
	});
}

// A file may be made with a mode that keeps its owner from opening it again, unless that is root.
TEST(ath10k_caldata_patch, keeps_the_copy_when_it_cannot_be_opened_for_the_address)
{
	on_bare_board([] {
		std::string flash = random_bytes(64);
		make_flash(flash);
		require(chmod("/lib/firmware", 0777) == 0, "a mode");
		umask(0222);
		require(seteuid(65534) == 0, "another user");
		EXPECT_EQ(patch_all("cal.bin", 64), -EACCES);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/cal.bin", 13)}));
		EXPECT_EQ(patch_all("cal.bin", 64), 0);
		require(seteuid(0) == 0, "root again");
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), flash);
	});
}

TEST(ath10k_caldata_patch, keeps_the_copy_when_the_address_cannot_be_written)
{
	on_bare_board([] {
		make_flash(random_bytes(64));
		mount_tmpfs(firmware, "size=4k");
		make_file("/lib/firmware/filler", std::string(4096, 'x'));
		EXPECT_EQ(patch_all("cal.bin", 0), -ENOSPC);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-28\n"}));
		EXPECT_TRUE(exists("/lib/firmware/cal.bin"));
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "");
		require(unlink("/lib/firmware/filler") == 0, "room");
		EXPECT_EQ(patch_all("cal.bin", 0), 0); // it is there now
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), "");
		EXPECT_EQ(messages.size(), 1u);
	});
}

TEST(ath10k_caldata_patch, reports_an_address_that_is_written_in_part)
{
	on_bare_board([] {
		std::string flash = random_bytes(8);
		make_flash(flash);
		limit_file_size(8);
		EXPECT_EQ(patch_all("cal.bin", 8), -EFBIG);
		EXPECT_EQ(messages, errors({"caldata: write error: err=-27\n"}));
		EXPECT_EQ(read_file("/lib/firmware/cal.bin"), flash.replace(6, 2, mac_bytes.substr(0, 2)));
	});
}

} // namespace
