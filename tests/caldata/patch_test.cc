// An address written into the copy of a slice.
#include "lib/caldata.h"

#include "tests/caldata/caldata.h"

using namespace caldata_support;

namespace
{

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
