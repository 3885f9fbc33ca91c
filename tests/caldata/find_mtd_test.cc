// Partitions found in tables of many shapes.
#include "lib/caldata.h"

#include <sys/prctl.h>

#include "tests/caldata/caldata.h"
#include "tests/support/memory.h"

using namespace caldata_support;

namespace
{

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
		EXPECT_EQ(found_in("mtd4 \"a\" :\n", "a"), "mtd4 \"a\" "); // also one after the name
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

} // namespace
