// The addresses of PHYs, in a /sys/class of the test's own.
#include "lib/net.h"

#include <limits.h>
#include <malloc.h>
#include <sys/stat.h>

#include <thread>

#include <gmock/gmock.h>

#include "tests/net/net.h"
#include "tests/support/memory.h"

using namespace net_support;
using testing::IsEmpty;

namespace
{

const std::string radios = "/sys/class/ieee80211/";
const std::string address_file = "/addresses";

std::string radio_path(const std::string &phy)
{
	return radios + phy + address_file;
}

void make_radio(const std::string &phy, const std::string &addresses)
{
	mkdir((radios + phy).c_str(), 0755);
	ASSERT_TRUE(write_file(radio_path(phy), addresses)) << strerror(errno);
}

// From now on /sys/class has nothing but an empty folder for PHYs; only in a private mount namespace.
void replace_radios()
{
	ASSERT_EQ(mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr), 0) << strerror(errno);
	ASSERT_EQ(mkdir(radios.c_str(), 0755), 0) << strerror(errno);
}

void with_radios(const std::function<void()> &body)
{
	in_private_network([&] {
		replace_radios();
		body();
	});
}

// A name of the PHY "phy0" (or "phy00", for the parity) that makes the path of its addresses `length` long.
std::string radio_name(size_t length)
{
	size_t rest = length - radios.size() - address_file.size();
	std::string name;
	while (rest - name.size() > 5)
		name += "./";
	return name + (rest - name.size() == 4 ? "phy0" : "phy00");
}

// What get_radio_mac gives (on stdout) and logs (on stderr, all of it) for a path of this length. Beside the
// addresses of both PHYs there is a file of the name `other_file`.
child_result ask_by_path_of_length(size_t length, const std::string &other_file = "other")
{
	child_result result = run_child([&] {
		log_open(LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		replace_radios();
		for (const char *phy : {"phy0", "phy00"}) {
			make_radio(phy, "00:11:22:33:44:55\n");
			write_file(radios + phy + "/" + other_file, "another's\n");
		}
		printf("%s", taken(get_radio_mac(radio_name(length).c_str())).c_str());
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	return result;
}

std::set<int> descriptors_on(const std::string &path)
{
	std::set<int> found;
	for (int fd : open_descriptors())
		if (descriptor_target(fd) == path)
			found.insert(fd);
	return found;
}

class get_radio_mac_test : public descriptor_test
{
protected:
	void SetUp() override
	{
		log_to_syslog();
		descriptor_test::SetUp();
	}
};

TEST_F(get_radio_mac_test, is_the_first_line_only)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55\n00:11:22:33:44:56\n00:11:22:33:44:57\n");
		make_radio("phy1", "66:11:22:33:44:55\n");
		EXPECT_EQ(taken(get_radio_mac("phy0")), "00:11:22:33:44:55");
		EXPECT_EQ(taken(get_radio_mac("phy1")), "66:11:22:33:44:55");
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(get_radio_mac_test, needs_no_line_feed)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55");
		EXPECT_EQ(taken(get_radio_mac("phy0")), "00:11:22:33:44:55");
	});
}

TEST_F(get_radio_mac_test, removes_one_line_feed_and_nothing_else)
{
	with_radios([] {
		for (const char *line :
			{"", " ", " 00:AA:bb:33:44:55\t ", "00:11:22:33:44:55\r", "no address", "%s%n"}) {
			make_radio("phy0", std::string(line) + "\n\nsecond\n");
			EXPECT_EQ(taken(get_radio_mac("phy0")), line);
		}
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(get_radio_mac_test, is_the_whole_line_however_long)
{
	with_radios([] {
		for (size_t length : {17UL, 118UL, 119UL, 120UL, 121UL, 4095UL, 4096UL, 4097UL, 100'000UL}) {
			make_radio("phy0", std::string(length, 'a') + "\nb\n");
			EXPECT_EQ(taken(get_radio_mac("phy0")), std::string(length, 'a'));
			make_radio("phy0", std::string(length, 'c'));
			EXPECT_EQ(taken(get_radio_mac("phy0")), std::string(length, 'c'));
		}
	});
}

TEST_F(get_radio_mac_test, gives_a_copy_that_stays)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55\n");
		std::unique_ptr<char, frees> first(get_radio_mac("phy0"));
		make_radio("phy0", "00:11:22:33:44:66\n");
		std::unique_ptr<char, frees> second(get_radio_mac("phy0"));
		EXPECT_STREQ(first.get(), "00:11:22:33:44:55");
		EXPECT_STREQ(second.get(), "00:11:22:33:44:66");
	});
}

TEST_F(get_radio_mac_test, reports_a_phy_that_does_not_exist)
{
	with_radios([] {
		EXPECT_EQ(taken(get_radio_mac("phy7")), "(null)");
		EXPECT_THAT(messages,
			testing::ElementsAre(logged{3, "cannot open file /sys/class/ieee80211/phy7/addresses "
						       "(No such file or directory)\n"}));
	});
}

TEST_F(get_radio_mac_test, reports_why_a_file_cannot_be_opened)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55\n");
		ASSERT_TRUE(write_file(radios + "phy1", "not a folder"));
		ASSERT_EQ(mkdir((radios + "phy2").c_str(), 0755), 0);
		ASSERT_EQ(symlink("addresses", radio_path("phy2").c_str()), 0);
		EXPECT_EQ(taken(get_radio_mac("phy1")), "(null)");
		EXPECT_EQ(taken(get_radio_mac("phy2")), "(null)");
		{
			no_descriptors while_it_lives;
			EXPECT_EQ(taken(get_radio_mac("phy0")), "(null)");
		}
		EXPECT_THAT(messages,
			testing::ElementsAre(
				logged{3, "cannot open file " + radio_path("phy1") + " (Not a directory)\n"},
				logged{3, "cannot open file " + radio_path("phy2") +
						  " (Too many levels of symbolic links)\n"},
				logged{3, "cannot open file " + radio_path("phy0") +
						  " (Too many open files)\n"}));
	});
}

TEST_F(get_radio_mac_test, reports_a_file_without_a_line)
{
	with_radios([] {
		make_radio("phy0", "");
		EXPECT_EQ(taken(get_radio_mac("phy0")), "(null)");
		EXPECT_THAT(messages,
			testing::ElementsAre(
				logged{3, "cannot read line of file /sys/class/ieee80211/phy0/addresses\n"}));
	});
}

TEST_F(get_radio_mac_test, reports_a_file_that_cannot_be_read)
{
	with_radios([] {
		ASSERT_EQ(mkdir((radios + "phy0").c_str(), 0755), 0);
		ASSERT_EQ(mkdir(radio_path("phy0").c_str(), 0755), 0);
		EXPECT_EQ(taken(get_radio_mac("phy0")), "(null)");
		EXPECT_THAT(messages,
			testing::ElementsAre(
				logged{3, "cannot read line of file /sys/class/ieee80211/phy0/addresses\n"}));
	});
}

TEST_F(get_radio_mac_test, takes_the_name_as_it_is)
{
	with_radios([] {
		for (const char *phy : {"%s%n", "a b", "..phy", "-", "\xff"}) {
			make_radio(phy, std::string("of ") + phy + "\n");
			EXPECT_EQ(taken(get_radio_mac(phy)), std::string("of ") + phy);
		}
		EXPECT_EQ(taken(get_radio_mac("%d%n")), "(null)");
		EXPECT_THAT(messages,
			testing::ElementsAre(logged{3, "cannot open file /sys/class/ieee80211/%d%n/addresses "
						       "(No such file or directory)\n"}));
	});
}

TEST_F(get_radio_mac_test, reads_by_a_path_of_4095_characters)
{
	child_result result = ask_by_path_of_length(4095);
	EXPECT_EQ(result.out, "00:11:22:33:44:55");
	EXPECT_EQ(result.err, "");
}

TEST_F(get_radio_mac_test, cuts_a_path_of_4096_characters_by_one)
{
	child_result result = ask_by_path_of_length(4096, "addresse");
	EXPECT_EQ(result.out, "another's");
	EXPECT_EQ(result.err, "");
	result = ask_by_path_of_length(4096);
	std::string path = radio_path(radio_name(4096)).substr(0, 4095);
	EXPECT_EQ(result.out, "(null)");
	EXPECT_EQ(result.err, "cannot open file " + path + " (No such file or directory)\n");
}

TEST_F(get_radio_mac_test, refuses_a_path_of_more_than_4096_characters)
{
	for (size_t length : {4097UL, 4098UL, 5000UL, 100'000UL}) {
		child_result result = ask_by_path_of_length(length, "addresse");
		EXPECT_EQ(result.out, "(null)") << length;
		EXPECT_EQ(result.err, "cannot create the " + radio_name(length) + " path\n") << length;
	}
}

TEST_F(get_radio_mac_test, logs_each_failure_as_an_error)
{
	with_radios([] {
		EXPECT_EQ(taken(get_radio_mac(std::string(5000, 'a').c_str())), "(null)");
		EXPECT_EQ(taken(get_radio_mac("phy0")), "(null)");
		make_radio("phy0", "");
		EXPECT_EQ(taken(get_radio_mac("phy0")), "(null)");
		ASSERT_EQ(messages.size(), 3U);
		for (const logged &message : messages)
			EXPECT_EQ(message.priority, 3) << message.text;
	});
}

TEST_F(get_radio_mac_test, reports_that_memory_is_exhausted_unless_it_is_for_the_copy)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55\n");
		std::set<int> before = open_descriptors();
		std::vector<std::string> failures; // what is logged of each
		memory.refused = true;
		for (int request = 0; memory.refused && request < 20; ++request) {
			messages.clear();
			memory.refuse(request);
			char *mac = get_radio_mac("phy0");
			memory.grant();
			EXPECT_LE(messages.size(), mac ? 0U : 1U);
			if (!mac)
				failures.push_back(messages.empty() ? "" : messages[0].text);
			EXPECT_EQ(taken(mac), mac ? "00:11:22:33:44:55" : "(null)");
		}
		EXPECT_FALSE(memory.refused);
		EXPECT_THAT(failures,
			testing::ElementsAre("cannot open file /sys/class/ieee80211/phy0/addresses "
					     "(Cannot allocate memory)\n",
				"cannot read line of file /sys/class/ieee80211/phy0/addresses\n", ""));
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(get_radio_mac_test, takes_no_more_memory_than_its_text_needs)
{
	with_radios([] {
		for (size_t length : {0UL, 1UL, 17UL, 100UL, 1000UL, 100'000UL}) {
			make_radio("phy0", std::string(length, 'a') + "\n");
			char *mac = get_radio_mac("phy0");
			EXPECT_EQ(memory.last_size, length + 1);
			EXPECT_LT(malloc_usable_size(mac), length + 65) << "what an allocator rounds to";
			EXPECT_EQ(taken(mac), std::string(length, 'a'));
		}
	});
}

TEST_F(get_radio_mac_test, closes_the_file_on_every_path)
{
	with_radios([] {
		make_radio("phy0", "00:11:22:33:44:55\n");
		make_radio("phy1", "");
		std::set<int> before = open_descriptors();
		for (const char *phy : {"phy0", "phy1", "phy2", "phy0"})
			taken(get_radio_mac(phy));
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(get_radio_mac_test, passes_the_file_to_no_other_program)
{
	with_radios([] {
		ASSERT_EQ(mkdir((radios + "phy0").c_str(), 0755), 0);
		ASSERT_EQ(mkfifo(radio_path("phy0").c_str(), 0600), 0);
		std::thread writer([] {
			owned_fd fifo{open(radio_path("phy0").c_str(), O_WRONLY | O_CLOEXEC)};
			std::set<int> both; // that, and the library's
			EXPECT_TRUE(eventually([&] {
				both = descriptors_on(radio_path("phy0"));
				return both.size() == 2;
			}));
			for (int fd : both)
				write_all(fifo.get(), is_closed_on_exec(fd) ? "closed " : "kept ");
		});
		EXPECT_EQ(taken(get_radio_mac("phy0")), "closed closed ");
		writer.join();
	});
}

} // namespace
