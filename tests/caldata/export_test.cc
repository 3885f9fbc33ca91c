// Slices of a flash device, which is a file here, copied to where drivers look for them.
#include "lib/caldata.h"

#include <map>

#include <gmock/gmock.h>

#include "tests/caldata/caldata.h"

using namespace caldata_support;

namespace
{

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

// The largest length is not taken as -1: the copy ends when the file system is full.
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

// Runs `export_slice`, which must not return. At its thousandth read in a row that finds the end of the data, the
// child checks the copy and ends.
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

// Makes a file at `path` by opening it, and removes it again. Returns the place where it was, or the error; neither
// if something was there already.
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

} // namespace
