// The addresses of real interfaces, in a network of the test's own.
#include "lib/net.h"

#include <arpa/inet.h>
#include <sys/mman.h>

#include <gmock/gmock.h>

#include "tests/net/net.h"
#include "tests/support/memory.h"
#include "tests/support/system_calls.h"

using namespace net_support;
using testing::IsEmpty;

namespace
{

// What the kernel is asked by ioctl, and on what socket.
struct question {
	unsigned long request;
	int domain, type, protocol;
	bool closed_on_exec;
	std::string bytes; // of the ifreq

	bool operator==(const question &other) const = default;
};

int socket_option(int fd, int name)
{
	int value = -1;
	socklen_t size = sizeof(value);
	getsockopt(fd, SOL_SOCKET, name, &value, &size);
	return value;
}

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

} // namespace
