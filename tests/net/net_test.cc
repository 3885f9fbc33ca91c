// Addresses: of real interfaces in a network of their own, of PHYs in a /sys/class of their own, and in one
// form made from the other.
#include "lib/net.h"

#include <arpa/inet.h>
#include <array>
#include <ctype.h>
#include <limits.h>
#include <malloc.h>
#include <memory>
#include <optional>
#include <random>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

#include <gmock/gmock.h>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

using namespace support;
using testing::IsEmpty;

// What the kernel is asked by ioctl, and on what socket.
struct question {
	unsigned long request;
	int domain, type, protocol;
	bool closed_on_exec;
	std::string bytes; // of the ifreq

	bool operator==(const question &other) const = default;
};

static int socket_option(int fd, int name)
{
	int value = -1;
	socklen_t size = sizeof(value);
	getsockopt(fd, SOL_SOCKET, name, &value, &size);
	return value;
}

// Read before any test has changed it.
static const std::string mac_at_start = mac_ntoa(mac_aton("zz"));

namespace
{

using mac_bytes = std::array<unsigned char, 6>;

struct frees {
	void operator()(char *text) const { free(text); }
};

// A text that the library has allocated; "(null)" if it has not.
std::string taken(char *text)
{
	std::unique_ptr<char, frees> owner(text);
	return text ? text : "(null)";
}

mac_bytes bytes_at(const unsigned char *mac)
{
	mac_bytes bytes;
	memcpy(bytes.data(), mac, bytes.size());
	return bytes;
}

std::string mac_text(const mac_bytes &mac, const char *format = "%02x:%02x:%02x:%02x:%02x:%02x")
{
	char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
	snprintf(text, sizeof(text), format, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
#pragma GCC diagnostic pop
	return text;
}

std::string upper_text_of(const mac_bytes &mac)
{
	return mac_text(mac, "%02X:%02X:%02X:%02X:%02X:%02X");
}

std::mt19937 numbers(20240607); // the same ones in every run

mac_bytes random_mac()
{
	mac_bytes mac;
	for (unsigned char &byte : mac)
		byte = static_cast<unsigned char>(numbers());
	return mac;
}

mac_bytes random_unicast_mac()
{
	mac_bytes mac = random_mac();
	mac[0] &= 0xfe;
	mac[5] |= 1; // an address of zeros is none
	return mac;
}

void log_to_syslog()
{
	log_open(LOG_DEST_SYSLOG, LOG_DAEMON, nullptr);
	messages.clear();
}

// ---- Interfaces ----

void make_interface(const std::string &name)
{
	must_run("ip link add " + name + " type veth peer name the_other_end");
}

owned_fd inet_socket()
{
	return owned_fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
}

ifreq request_for(const char *name)
{
	ifreq request{};
	strncpy(request.ifr_name, name, sizeof(request.ifr_name) - 1);
	return request;
}

void set_mac(const char *name, const mac_bytes &mac)
{
	ifreq request = request_for(name);
	request.ifr_hwaddr.sa_family = 1; // Ethernet
	memcpy(request.ifr_hwaddr.sa_data, mac.data(), mac.size());
	ASSERT_EQ(ioctl(inet_socket().get(), SIOCSIFHWADDR, &request), 0) << strerror(errno);
}

void set_ip(const char *name, uint32_t address)
{
	ifreq request = request_for(name);
	sockaddr_in place{};
	place.sin_family = AF_INET;
	place.sin_addr.s_addr = address;
	memcpy(&request.ifr_addr, &place, sizeof(place));
	ASSERT_EQ(ioctl(inet_socket().get(), SIOCSIFADDR, &request), 0) << strerror(errno);
}

// All that is asked of an interface, in one line.
std::string answers_of(const char *name)
{
	mac_bytes mac{1, 2, 3, 4, 5, 6};
	int result = iface_mac_binary(name, mac.data());
	return taken(iface_mac(name)) + " " + std::to_string(result) + " " + mac_text(mac) + " " +
	       std::to_string(get_iface_ip(name));
}

// Leaves something on the stack that is not zero.
[[gnu::noinline]] void soil_stack()
{
	volatile char soil[8192];
	for (volatile char &byte : soil)
		byte = 'x';
}

// What the kernel is asked for the MAC address as text, for that in binary, and for the IP address.
std::vector<question> questions_about(const std::string &name)
{
	std::vector<question> asked;
	unsigned char mac[6];
	auto watched = system_calls::ioctl.replace([&](int fd, unsigned long request, void *argument) {
		asked.push_back({request, socket_option(fd, SO_DOMAIN), socket_option(fd, SO_TYPE),
			socket_option(fd, SO_PROTOCOL), is_closed_on_exec(fd),
			std::string(static_cast<char *>(argument), sizeof(ifreq))});
		return system_calls::ioctl.next(fd, request, argument);
	});
	soil_stack();
	taken(iface_mac(name.c_str()));
	soil_stack();
	int result = iface_mac_binary(name.c_str(), mac);
	soil_stack();
	get_iface_ip(name.c_str());
	EXPECT_TRUE(result == 0 || result == -1) << result;
	return asked;
}

// An ifreq with this name, this family and nothing else.
std::string request_bytes(const std::string &name, sa_family_t family)
{
	std::string bytes = name + std::string(sizeof(ifreq) - name.size(), '\0');
	memcpy(&bytes[16], &family, sizeof(family));
	return bytes;
}

const char *const no_answers = "(null) -1 01:02:03:04:05:06 4294967295";

class interfaces : public descriptor_test
{
protected:
	void SetUp() override
	{
		log_to_syslog();
		descriptor_test::SetUp();
	}
};
using iface_mac_test = interfaces;
using get_iface_ip_test = interfaces;
using interface_queries = interfaces;

} // namespace

TEST_F(iface_mac_test, writes_lower_case_with_colons)
{
	in_private_network([] {
		make_interface("net0");
		set_mac("net0", {0x00, 0xab, 0xcd, 0xef, 0x0a, 0x01});
		EXPECT_EQ(taken(iface_mac("net0")), "00:ab:cd:ef:0a:01");
	});
}

TEST_F(iface_mac_test, gives_six_bytes_in_binary)
{
	in_private_network([] {
		make_interface("net0");
		set_mac("net0", {0x00, 0xab, 0xcd, 0xef, 0x0a, 0x01});
		unsigned char mac[8] = {9, 9, 9, 9, 9, 9, 9, 9};
		EXPECT_EQ(iface_mac_binary("net0", mac), 0);
		EXPECT_THAT(mac, testing::ElementsAre(0x00, 0xab, 0xcd, 0xef, 0x0a, 0x01, 9, 9));
	});
}

TEST_F(iface_mac_test, gives_every_address_that_an_interface_can_have)
{
	in_private_network([] {
		make_interface("net0");
		for (int round = 0; round < 200; ++round) {
			mac_bytes mac = random_unicast_mac(), read{};
			set_mac("net0", mac);
			EXPECT_EQ(taken(iface_mac("net0")), mac_text(mac));
			EXPECT_EQ(iface_mac_binary("net0", read.data()), 0);
			EXPECT_EQ(read, mac);
		}
	});
}

TEST_F(iface_mac_test, tells_the_ends_of_a_pair_apart)
{
	in_private_network([] {
		must_run("ip link add left address 02:00:00:00:00:0a type veth peer name right address "
			 "02:00:00:00:00:0b");
		EXPECT_EQ(taken(iface_mac("left")), "02:00:00:00:00:0a");
		EXPECT_EQ(taken(iface_mac("right")), "02:00:00:00:00:0b");
	});
}

TEST_F(iface_mac_test, is_zeros_for_the_loopback_interface)
{
	in_private_network([] { EXPECT_EQ(taken(iface_mac("lo")), "00:00:00:00:00:00"); });
}

TEST_F(iface_mac_test, follows_a_change)
{
	in_private_network([] {
		make_interface("net0");
		set_mac("net0", {2, 0, 0, 0, 0, 1});
		std::string before = taken(iface_mac("net0"));
		set_mac("net0", {2, 0, 0, 0, 0, 2});
		EXPECT_EQ(before, "02:00:00:00:00:01");
		EXPECT_EQ(taken(iface_mac("net0")), "02:00:00:00:00:02");
	});
}

TEST_F(iface_mac_test, does_not_touch_the_buffers_of_the_text_functions)
{
	in_private_network([] {
		unsigned char *binary = mac_aton("01:02:03:04:05:06");
		char *text = mac_ntoa(binary);
		EXPECT_EQ(taken(iface_mac("lo")), "00:00:00:00:00:00");
		EXPECT_STREQ(text, "01:02:03:04:05:06");
		EXPECT_EQ(bytes_at(binary), (mac_bytes{1, 2, 3, 4, 5, 6}));
	});
}

TEST_F(iface_mac_test, ends_the_process_without_memory_for_the_text)
{
	child_result result = run_child([] {
		set_app_name("net-test");
		memory.refuse(0);
		iface_mac("lo");
		memory.grant();
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, "net-test: out of memory\n");
}

TEST_F(get_iface_ip_test, is_in_network_byte_order)
{
	in_private_network([] {
		make_interface("net0");
		must_run("ip address add 10.1.2.3/24 dev net0");
		uint32_t address = get_iface_ip("net0");
		unsigned char bytes[4];
		memcpy(bytes, &address, sizeof(bytes));
		EXPECT_THAT(bytes, testing::ElementsAre(10, 1, 2, 3));
		EXPECT_STREQ(ip_ntoa(address), "10.1.2.3");
	});
}

TEST_F(get_iface_ip_test, gives_every_address_that_an_interface_can_have)
{
	in_private_network([] {
		make_interface("net0");
		for (int round = 0; round < 200; ++round) {
			uint32_t address = htonl(0x0a000001U + numbers() % 0x00fffff0U);
			set_ip("net0", address);
			EXPECT_EQ(get_iface_ip("net0"), address);
		}
		for (const char *text : {"1.0.0.1", "192.168.1.1", "223.255.255.254", "172.16.0.255"}) {
			set_ip("net0", inet_addr(text));
			EXPECT_EQ(get_iface_ip("net0"), inet_addr(text)) << text;
		}
	});
}

TEST_F(get_iface_ip_test, is_the_loopback_address_of_the_loopback_interface)
{
	in_private_network([] { EXPECT_EQ(get_iface_ip("lo"), htonl(INADDR_LOOPBACK)); });
}

TEST_F(get_iface_ip_test, takes_the_first_of_several)
{
	in_private_network([] {
		make_interface("net0");
		must_run("ip address add 10.0.0.9/24 dev net0");
		must_run("ip address add 10.0.0.1/24 dev net0");
		EXPECT_EQ(get_iface_ip("net0"), inet_addr("10.0.0.9"));
	});
}

TEST_F(get_iface_ip_test, needs_no_interface_that_is_up)
{
	in_private_network([] {
		make_interface("net0");
		must_run("ip address add 10.0.0.9/24 dev net0 && ip link set net0 down");
		EXPECT_EQ(get_iface_ip("net0"), inet_addr("10.0.0.9"));
	});
}

TEST_F(get_iface_ip_test, is_all_ones_without_an_address)
{
	in_private_network([] {
		make_interface("net0");
		EXPECT_EQ(get_iface_ip("net0"), 0xffffffffU);
		must_run("ip address add fd00::1/64 dev net0");
		EXPECT_EQ(get_iface_ip("net0"), 0xffffffffU) << "one of IPv6 is none";
	});
}

TEST_F(get_iface_ip_test, is_all_ones_after_the_address_has_gone)
{
	in_private_network([] {
		make_interface("net0");
		must_run("ip address add 10.0.0.9/24 dev net0");
		must_run("ip address del 10.0.0.9/24 dev net0");
		EXPECT_EQ(get_iface_ip("net0"), 0xffffffffU);
	});
}

TEST_F(interface_queries, fail_quietly_for_an_interface_that_does_not_exist)
{
	in_private_network([] {
		for (const char *name : {"nosuch0", "", " ", "lo ", "LO", "l", "loo", "%s%n", "a/b"})
			EXPECT_EQ(answers_of(name), no_answers) << "\"" << name << "\"";
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(interface_queries, fail_quietly_for_one_that_has_gone)
{
	in_private_network([] {
		make_interface("net0");
		must_run("ip link del net0");
		EXPECT_EQ(answers_of("net0"), no_answers);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(interface_queries, take_a_name_of_15_characters)
{
	in_private_network([] {
		make_interface("abcdefghijklmno");
		set_mac("abcdefghijklmno", {2, 0, 0, 0, 0, 5});
		set_ip("abcdefghijklmno", inet_addr("10.0.0.5"));
		EXPECT_EQ(answers_of("abcdefghijklmno"),
			"02:00:00:00:00:05 0 02:00:00:00:00:05 " + std::to_string(inet_addr("10.0.0.5")));
	});
}

TEST_F(interface_queries, cut_a_longer_name_to_15_characters)
{
	in_private_network([] {
		make_interface("abcdefghijklmno");
		set_mac("abcdefghijklmno", {2, 0, 0, 0, 0, 5});
		set_ip("abcdefghijklmno", inet_addr("10.0.0.5"));
		std::string expected =
			"02:00:00:00:00:05 0 02:00:00:00:00:05 " + std::to_string(inet_addr("10.0.0.5"));
		for (const std::string &more :
			{std::string("p"), std::string("pqrs"), std::string(100'000, 'x')})
			EXPECT_EQ(answers_of(("abcdefghijklmno" + more).c_str()), expected) << more.size();
		EXPECT_EQ(answers_of("abcdefghijklmn"), no_answers);
	});
}

TEST_F(interface_queries, fail_quietly_without_the_right_to_raw_sockets)
{
	in_private_network([] {
		without_capability while_it_lives{CAP_NET_RAW};
		EXPECT_EQ(answers_of("lo"), no_answers);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(interface_queries, fail_quietly_without_a_free_descriptor)
{
	in_private_network([] {
		std::string answers;
		{
			no_descriptors while_it_lives;
			answers = answers_of("lo");
		}
		EXPECT_EQ(answers, no_answers);
		EXPECT_THAT(messages, IsEmpty());
	});
}

TEST_F(interface_queries, close_their_sockets)
{
	in_private_network([] {
		std::set<int> before = open_descriptors();
		for (int round = 0; round < 10; ++round) {
			answers_of("lo");
			answers_of("nosuch0");
		}
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST_F(interface_queries, pass_no_socket_to_other_programs)
{
	in_private_network([] {
		std::vector<question> asked = questions_about("lo");
		EXPECT_EQ(asked.size(), 3U);
		for (const question &each : asked)
			EXPECT_TRUE(each.closed_on_exec) << each.request;
	});
}

TEST_F(interface_queries, ask_for_the_mac_on_a_raw_socket_and_for_the_ip_on_a_packet_socket)
{
	in_private_network([] {
		const std::string name = "lo";
		const question mac = {
			SIOCGIFHWADDR, AF_INET, SOCK_RAW, 255, true, request_bytes(name, AF_INET)};
		const question ip = {SIOCGIFADDR, AF_PACKET, SOCK_DGRAM, 0, true, request_bytes(name, 0)};
		EXPECT_EQ(questions_about(name), (std::vector<question>{mac, mac, ip}));
	});
}

TEST_F(interface_queries, hand_over_15_characters_of_the_name_and_else_zeros)
{
	in_private_network([] {
		for (size_t length = 0; length < 18; ++length) {
			std::string name = std::string("abcdefghijklmnopqr").substr(0, length);
			std::vector<question> asked = questions_about(name);
			ASSERT_EQ(asked.size(), 3U);
			for (size_t index : {0U, 1U, 2U})
				EXPECT_EQ(asked[index].bytes,
					request_bytes(name.substr(0, 15), index < 2 ? AF_INET : 0))
					<< length;
		}
	});
}

TEST_F(interface_queries, read_nothing_behind_the_terminator_of_the_name)
{
	in_private_network([] {
		// The last bytes of memory that may be read.
		size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
		void *pages =
			mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		ASSERT_NE(pages, MAP_FAILED);
		char *end = static_cast<char *>(pages) + page;
		ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
		for (const char *name : {"", "a", "nosuch0", "abcdefghijklmn", "abcdefghijklmno"}) {
			char *place = end - strlen(name) - 1;
			strcpy(place, name);
			EXPECT_EQ(answers_of(place), no_answers) << name;
		}
		EXPECT_EQ(answers_of(strcpy(end - 3, "lo")),
			"00:00:00:00:00:00 0 00:00:00:00:00:00 " + std::to_string(htonl(INADDR_LOOPBACK)));
		munmap(pages, 2 * page);
	});
}

TEST_F(interface_queries, work_with_the_standard_descriptors_closed)
{
	in_private_network([] {
		owned_fd saved[3];
		for (int fd = 0; fd < 3; ++fd) {
			saved[fd].reset(fcntl(fd, F_DUPFD_CLOEXEC, 10));
			close(fd);
		}
		std::string answers = answers_of("lo");
		bool reopened = is_open(0) || is_open(1) || is_open(2);
		for (int fd = 0; fd < 3; ++fd)
			if (saved[fd].get() >= 0)
				dup2(saved[fd].get(), fd);
		EXPECT_EQ(answers,
			"00:00:00:00:00:00 0 00:00:00:00:00:00 " + std::to_string(htonl(INADDR_LOOPBACK)));
		EXPECT_FALSE(reopened);
	});
}

// ---- Radios ----

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

} // namespace

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

// ---- MAC addresses as text and in binary ----

namespace
{

// The rules for reading an address, without the C library's strtol. The value ends up below 0 or above 255
// where no byte is meant.
std::optional<int> read_hex_number(const std::string &text, size_t *at)
{
	size_t place = *at;
	auto peek = [&](size_t ahead = 0) {
		return place + ahead < text.size() ? text[place + ahead] : '\0';
	};
	while (peek() && strchr(" \t\n\v\f\r", peek()))
		place++;
	bool negative = peek() == '-';
	if (peek() == '-' || peek() == '+')
		place++;
	if (peek() == '0' && (peek(1) == 'x' || peek(1) == 'X') && isxdigit(peek(2)))
		place += 2;
	size_t first_digit = place;
	int value = 0;
	for (; isxdigit(peek()); place++)
		value = std::min(
			value * 16 + (isdigit(peek()) ? peek() - '0' : tolower(peek()) - 'a' + 10), 256);
	if (place == first_digit)
		return std::nullopt;
	*at = place;
	return negative ? -value : value;
}

void read_as_documented(const std::string &text, mac_bytes *mac)
{
	size_t at = 0;
	for (size_t index = 0; index < mac->size(); ++index) {
		std::optional<int> value = read_hex_number(text, &at);
		if (!value || *value < 0 || *value > 255)
			return;
		if (index < 5 && (at >= text.size() || text[at] != ':'))
			return;
		(*mac)[index] = static_cast<unsigned char>(*value);
		at++;
	}
}

// Texts whose terminator is the last byte before memory that must not be touched.
class guarded_text
{
	size_t page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	char *pages_ = static_cast<char *>(
		mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));

public:
	guarded_text() { EXPECT_EQ(mprotect(pages_ + page_, page_, PROT_NONE), 0); }
	guarded_text(const guarded_text &) = delete;
	guarded_text &operator=(const guarded_text &) = delete;
	~guarded_text() { munmap(pages_, 2 * page_); }
	const char *operator()(const std::string &text)
	{
		char *place = pages_ + page_ - text.size() - 1;
		memcpy(place, text.c_str(), text.size() + 1);
		return place;
	}
};

std::string mutated(std::string text)
{
	static const std::string characters = "0123456789abcdefABCDEFxX:::+- \tgG.\xff";
	for (unsigned changes = numbers() % 4; changes > 0; --changes) {
		size_t place = numbers() % (text.size() + 1);
		char character = characters[numbers() % characters.size()];
		switch (numbers() % 4) {
		case 0:
			text.insert(place, 1, character);
			break;
		case 1:
			text = text.substr(0, place);
			break;
		case 2:
			text.erase(place, 1);
			break;
		default:
			if (place < text.size())
				text[place] = character;
		}
	}
	return text;
}

const mac_bytes previous = {0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5};

// What is in the buffer after `text`, when `previous` was in it before.
mac_bytes read_after_previous(const std::string &text)
{
	mac_aton("a0:b1:c2:d3:e4:f5");
	return bytes_at(mac_aton(text.c_str()));
}

// `previous` with the first of its bytes replaced.
mac_bytes previous_but(std::initializer_list<unsigned char> first)
{
	mac_bytes mac = previous;
	std::copy(first.begin(), first.end(), mac.begin());
	return mac;
}

} // namespace

TEST(mac_aton_test, begins_with_zeros)
{
	EXPECT_EQ(mac_at_start, "00:00:00:00:00:00");
}

TEST(mac_aton_test, reads_what_mac_ntoa_and_iface_mac_write)
{
	for (int round = 0; round < 1000; ++round) {
		mac_bytes mac = random_mac();
		EXPECT_EQ(bytes_at(mac_aton(mac_text(mac).c_str())), mac);
		EXPECT_EQ(bytes_at(mac_aton(upper_text_of(mac).c_str())), mac);
		EXPECT_EQ(bytes_at(mac_aton(mac_ntoa(mac.data()))), mac);
	}
}

TEST(mac_aton_test, reads_every_value_in_every_place)
{
	for (size_t index = 0; index < 6; ++index)
		for (int value = 0; value < 256; ++value) {
			mac_bytes mac = previous;
			mac[index] = static_cast<unsigned char>(value);
			EXPECT_EQ(read_after_previous(mac_text(mac)), mac);
		}
}

TEST(mac_aton_test, always_gives_the_same_buffer)
{
	unsigned char *mac = mac_aton("00:11:22:33:44:55");
	EXPECT_EQ(mac_aton("zz"), mac);
	EXPECT_EQ(mac_aton("66:77:88:99:aa:bb"), mac);
	EXPECT_EQ(bytes_at(mac), (mac_bytes{0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb}));
}

TEST(mac_aton_test, stores_nothing_of_a_text_without_a_number)
{
	for (const char *text :
		{"", "zz", ":", "::::::", "g0:11:22:33:44:55", "-", "+", " ", "x1:2:3:4:5:6", "- 1:2"})
		EXPECT_EQ(read_after_previous(text), previous) << text;
}

TEST(mac_aton_test, keeps_the_bytes_from_the_first_malformed_one_on)
{
	EXPECT_EQ(read_after_previous("01"), previous);
	EXPECT_EQ(read_after_previous("01:"), previous_but({1}));
	EXPECT_EQ(read_after_previous("01:02"), previous_but({1}));
	EXPECT_EQ(read_after_previous("01:02:"), previous_but({1, 2}));
	EXPECT_EQ(read_after_previous("01:02:xx:04:05:06"), previous_but({1, 2}));
	EXPECT_EQ(read_after_previous("01:02:03:04:"), previous_but({1, 2, 3, 4}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05"), previous_but({1, 2, 3, 4}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05:"), previous_but({1, 2, 3, 4, 5}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05:zz"), previous_but({1, 2, 3, 4, 5}));
	EXPECT_EQ(read_after_previous("01::03:04:05:06"), previous_but({1}));
}

TEST(mac_aton_test, stops_where_another_character_than_a_colon_follows)
{
	for (const char *other : {"-", ".", " ", " :", "", "g", ";", "\n"}) {
		EXPECT_EQ(read_after_previous(std::string("01") + other + "02:03:04:05:06"), previous)
			<< other;
		EXPECT_EQ(read_after_previous(std::string("1:2:3:4:05") + other + "g6"),
			previous_but({1, 2, 3, 4}))
			<< other;
	}
}

TEST(mac_aton_test, stops_at_a_number_of_256_or_more)
{
	EXPECT_EQ(read_after_previous("ff:100:3:4:5:6"), previous_but({0xff}));
	EXPECT_EQ(read_after_previous("1:2:3:4:5:100"), previous_but({1, 2, 3, 4, 5}));
	for (const char *number : {"100", "101", "fff", "7fffffff", "80000000", "ffffffff", "100000000",
		     "100000001", "7fffffffffffffff", "8000000000000000", "ffffffffffffffff",
		     "10000000000000001", "ffffffffffffffffffffffffffffffffff"})
		EXPECT_EQ(read_after_previous(std::string(number) + ":2:3:4:5:6"), previous) << number;
}

TEST(mac_aton_test, stops_at_a_number_below_0)
{
	for (const char *number : {"-1", "-ff", "-100", "-7fffffff", "-80000000", "-ffffffff", "-0xff",
		     "-8000000000000000", "-ffffffffffffffffffffffff"})
		EXPECT_EQ(read_after_previous(std::string(number) + ":2:3:4:5:6"), previous) << number;
	EXPECT_EQ(read_after_previous("-0:2:3:4:5:6"), (mac_bytes{0, 2, 3, 4, 5, 6}));
}

TEST(mac_aton_test, accepts_what_strtol_accepts)
{
	const mac_bytes expected = {1, 2, 3, 4, 5, 6};
	for (const char *text :
		{"1:2:3:4:5:6", " 1: 2:\t3:\n4:\v5:\f\r6", "+1:+2:+3:+4:+5:+6", "0x1:0X2:0x3:4:5:0x06",
			" +0x1:2:3:4:5:6", "001:0002:3:4:5:00000000000000000000000000006"})
		EXPECT_EQ(read_after_previous(text), expected) << text;
	EXPECT_EQ(read_after_previous("0x:2:3:4:5:6"), previous) << "the number is 0, and no colon follows";
	EXPECT_EQ(read_after_previous("1:2:3:4:5:0x"), previous_but({1, 2, 3, 4, 5, 0}));
}

TEST(mac_aton_test, does_not_look_behind_the_sixth_number)
{
	for (const char *rest : {":", ":07", " ", "\n", "-", "zz", ",02:03"})
		EXPECT_EQ(read_after_previous(std::string("01:02:03:04:05:06") + rest),
			(mac_bytes{1, 2, 3, 4, 5, 6}))
			<< rest;
}

TEST(mac_aton_test, reads_any_text_as_documented_and_nothing_behind_it)
{
	guarded_text guarded;
	mac_bytes expected = previous;
	mac_aton(mac_text(previous).c_str());
	for (int round = 0; round < 20'000; ++round) {
		std::string text = mutated(mac_text(random_mac()));
		read_as_documented(text, &expected);
		ASSERT_EQ(bytes_at(mac_aton(guarded(text))), expected) << text;
	}
}

TEST(mac_ntoa_test, writes_upper_case_with_colons)
{
	const unsigned char mac[6] = {0x00, 0xab, 0xcd, 0xef, 0x0a, 0x01};
	EXPECT_STREQ(mac_ntoa(mac), "00:AB:CD:EF:0A:01");
}

TEST(mac_ntoa_test, writes_every_value_in_every_place)
{
	for (size_t index = 0; index < 6; ++index)
		for (int value = 0; value < 256; ++value) {
			mac_bytes mac = previous;
			mac[index] = static_cast<unsigned char>(value);
			char digits[3];
			snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned>(value));
			EXPECT_EQ(mac_ntoa(mac.data()),
				std::string("A0:B1:C2:D3:E4:F5").replace(index * 3, 2, digits));
		}
}

TEST(mac_ntoa_test, always_gives_the_same_buffer)
{
	char *text = mac_ntoa(previous.data());
	const unsigned char zeros[6] = {};
	EXPECT_EQ(mac_ntoa(zeros), text);
	EXPECT_STREQ(text, "00:00:00:00:00:00");
}

// ---- Derived addresses ----

namespace
{

// The address `n` steps from `mac`, computed without wrapping anything before the end.
mac_bytes stepped(mac_bytes mac, int n)
{
	auto low_bits = [](int64_t value) { return static_cast<unsigned char>(((value % 256) + 256) % 256); };
	mac[4] = low_bits(int64_t{mac[4]} + n / 256);
	mac[5] = low_bits(int64_t{mac[5]} + n);
	return mac;
}

std::vector<int> steps()
{
	std::vector<int> all = {INT_MIN, INT_MIN + 1, INT_MIN + 255, INT_MIN + 256, INT_MIN + 257, INT_MAX,
		INT_MAX - 1, INT_MAX - 255, INT_MAX - 256};
	for (int n = -600; n <= 600; ++n)
		all.push_back(n);
	for (int n = -65536 - 3; n <= 65536 + 3; n += 251)
		all.push_back(n);
	for (int count = 0; count < 500; ++count)
		all.push_back(static_cast<int>(numbers()));
	return all;
}

} // namespace

TEST(add_mac_test, carries_nothing_out_of_the_sixth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:ff", 1), "00:11:22:33:44:00");
	EXPECT_STREQ(add_mac("00:11:22:33:44:f0", 32), "00:11:22:33:44:10");
	EXPECT_STREQ(add_mac("ff:ff:ff:ff:ff:ff", 1), "FF:FF:FF:FF:FF:00");
}

TEST(add_mac_test, borrows_nothing_for_the_sixth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:00", -1), "00:11:22:33:44:FF");
	EXPECT_STREQ(add_mac("00:11:22:33:00:00", -255), "00:11:22:33:00:01");
}

TEST(add_mac_test, adds_the_256th_part_to_the_fifth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:00", 256), "00:11:22:33:45:00");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", 255), "00:11:22:33:44:04");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", 513), "00:11:22:33:46:06");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", -256), "00:11:22:33:43:05");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", -257), "00:11:22:33:43:04");
	EXPECT_STREQ(add_mac("00:11:22:33:ff:05", 256), "00:11:22:33:00:05");
	EXPECT_STREQ(add_mac("00:11:22:33:00:05", -256), "00:11:22:33:FF:05");
}

TEST(add_mac_test, is_the_address_itself_for_a_step_of_0)
{
	EXPECT_STREQ(add_mac("00:11:22:ab:cd:ef", 0), "00:11:22:AB:CD:EF");
}

TEST(add_mac_test, is_exact_at_the_ends_of_the_range_of_steps)
{
	EXPECT_STREQ(
		add_mac("00:11:22:33:44:55", INT_MAX), "00:11:22:33:43:54"); // 0x7fffff and 0x7fffffff more
	EXPECT_STREQ(
		add_mac("00:11:22:33:44:55", INT_MIN), "00:11:22:33:44:55"); // 0x800000 and 0x80000000 less
	EXPECT_STREQ(add_mac("00:11:22:33:44:55", INT_MIN + 1), "00:11:22:33:45:56");
	EXPECT_STREQ(add_mac("00:11:22:33:00:00", INT_MAX), "00:11:22:33:FF:FF");
}

TEST(add_mac_test, never_changes_the_first_four_bytes)
{
	for (int n : steps()) {
		mac_bytes mac = random_mac();
		EXPECT_EQ(std::string(add_mac(mac_text(mac).c_str(), n)).substr(0, 11),
			upper_text_of(mac).substr(0, 11));
	}
}

TEST(add_mac_test, makes_every_step_from_every_address)
{
	for (int n : steps())
		for (int round = 0; round < 4; ++round) {
			mac_bytes mac = random_mac();
			ASSERT_EQ(add_mac(mac_text(mac).c_str(), n), upper_text_of(stepped(mac, n)))
				<< mac_text(mac) << " " << n;
		}
}

TEST(add_mac_test, returns_the_buffer_of_mac_ntoa)
{
	char *text = mac_ntoa(previous.data());
	EXPECT_EQ(add_mac("00:11:22:33:44:55", 1), text);
	EXPECT_EQ(gen_random_mac("00:11:22:33:44:55", 1), text);
	EXPECT_STREQ(text, "02:11:22:33:44:56");
}

TEST(add_mac_test, may_be_given_its_own_result)
{
	char *text = add_mac("00:11:22:33:44:55", 1);
	EXPECT_STREQ(add_mac(text, 1), "00:11:22:33:44:57");
	EXPECT_STREQ(gen_random_mac(text, 1), "02:11:22:33:44:58");
}

TEST(add_mac_test, goes_on_from_the_previous_result_where_the_text_is_malformed)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:55", 1), "00:11:22:33:44:56");
	EXPECT_STREQ(add_mac("zz", 1), "00:11:22:33:44:57");
	EXPECT_STREQ(add_mac("66:77:", 256), "66:77:22:33:45:57");
	EXPECT_STREQ(gen_random_mac("", 0), "66:77:22:33:45:57");
	EXPECT_STREQ(gen_random_mac("00:", 1), "02:77:22:33:45:58");
	EXPECT_STREQ(mac_ntoa(mac_aton("")), "02:77:22:33:45:58");
}

TEST(gen_random_mac_test, sets_the_bit_of_local_administration)
{
	EXPECT_STREQ(gen_random_mac("00:11:22:33:44:55", 0), "02:11:22:33:44:55");
	EXPECT_STREQ(gen_random_mac("02:11:22:33:44:55", 0), "02:11:22:33:44:55");
	EXPECT_STREQ(gen_random_mac("fc:11:22:33:44:ff", 1), "FE:11:22:33:44:00");
}

TEST(gen_random_mac_test, leaves_the_other_bits_of_the_first_byte)
{
	for (unsigned value = 0; value < 256; ++value) {
		mac_bytes mac = random_mac();
		mac[0] = static_cast<unsigned char>(value);
		mac_bytes expected = mac;
		expected[0] = static_cast<unsigned char>(value | 2);
		EXPECT_EQ(gen_random_mac(mac_text(mac).c_str(), 0), upper_text_of(expected));
	}
}

TEST(gen_random_mac_test, steps_as_add_mac_does)
{
	for (int n : steps()) {
		mac_bytes mac = random_mac();
		mac_bytes expected = stepped(mac, n);
		expected[0] |= 2;
		ASSERT_EQ(gen_random_mac(mac_text(mac).c_str(), n), upper_text_of(expected))
			<< mac_text(mac) << " " << n;
	}
}

TEST(gen_random_mac_test, is_the_same_each_time)
{
	std::string first = gen_random_mac("00:11:22:33:44:55", 77);
	for (int round = 0; round < 100; ++round)
		EXPECT_EQ(gen_random_mac("00:11:22:33:44:55", 77), first);
}

// ---- IPv4 addresses and netmasks ----

TEST(ip_ntoa_test, writes_the_bytes_in_the_order_of_the_network)
{
	for (const char *text : {"0.0.0.0", "1.2.3.4", "127.0.0.1", "192.168.1.20", "255.255.255.255"})
		EXPECT_STREQ(ip_ntoa(inet_addr(text)), text);
	EXPECT_STREQ(ip_ntoa(htonl(0x0a010203U)), "10.1.2.3");
	for (int round = 0; round < 1000; ++round) {
		uint32_t address = static_cast<uint32_t>(numbers());
		unsigned char bytes[4];
		memcpy(bytes, &address, sizeof(bytes));
		std::string expected = std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
				       std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
		EXPECT_EQ(ip_ntoa(address), expected);
	}
}

TEST(parse_netmask_string_test, is_the_length_of_each_prefix)
{
	for (int length = 0; length <= 32; ++length) {
		uint32_t mask = length == 0 ? 0 : ~uint32_t{0} << (32 - length);
		EXPECT_EQ(parse_netmask_string(ip_ntoa(htonl(mask))), length);
	}
	EXPECT_EQ(parse_netmask_string("255.255.255.0"), 24);
	EXPECT_EQ(parse_netmask_string("0.0.0.0"), 0);
	EXPECT_EQ(parse_netmask_string("255.255.255.255"), 32);
	EXPECT_EQ(parse_netmask_string("128.0.0.0"), 1);
}

TEST(parse_netmask_string_test, does_not_look_behind_the_first_zero_bit)
{
	EXPECT_EQ(parse_netmask_string("255.0.255.0"), 8);
	EXPECT_EQ(parse_netmask_string("0.255.255.255"), 0);
	EXPECT_EQ(parse_netmask_string("127.255.255.255"), 0);
	EXPECT_EQ(parse_netmask_string("255.255.255.253"), 30);
	EXPECT_EQ(parse_netmask_string("254.1.1.1"), 7);
	for (int round = 0; round < 1000; ++round) {
		uint32_t mask = static_cast<uint32_t>(numbers()) | ~uint32_t{0} << numbers() % 32;
		int length = 0;
		while (length < 32 && mask >> (31 - length) & 1)
			length++;
		EXPECT_EQ(parse_netmask_string(ip_ntoa(htonl(mask))), length);
	}
}

TEST(parse_netmask_string_test, refuses_what_is_no_address_in_dotted_form)
{
	for (const char *mask : {"garbage", "", " ", "24", "/24", "255", "255.255.255", "255.255.255.",
		     ".255.255.255", "255.255.255.256", "255.255.255.0.0", "255.255.255.0/24",
		     " 255.255.255.0", "255.255.255.0 ", "255.255.255.0\n", "0xff.0.0.0", "-1.0.0.0",
		     "+1.0.0.0", "255,255,255,0", "255..255.0", "ff.ff.ff.0", "::", "::ffff:255.255.255.0",
		     "4294967040", "255.255.255.1000", "255.255.255.0x"})
		EXPECT_EQ(parse_netmask_string(mask), -1) << mask;
}
