// What rules made with nft do to packets: clients, an access point and a server in network namespaces of
// their own, joined by veth, and real sockets that see what arrives.
#include "tests/support/nft.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/icmp6.h>
#include <netinet/ip_icmp.h>
#include <sched.h>

#include <gmock/gmock.h>

using namespace nft_support;

namespace
{

constexpr uint16_t ip = NFPROTO_IPV4, inet = NFPROTO_INET, bridge = NFPROTO_BRIDGE, netdev = NFPROTO_NETDEV;
constexpr uint8_t phone_mac[6] = {2, 0, 0, 0, 0, 5};
constexpr uint8_t laptop_mac[6] = {2, 0, 0, 0, 0, 6};
constexpr uint32_t none = 0;

// ---- Networks ----

// A network namespace.
class network
{
	owned_fd fd_{open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)};

public:
	// The one that this process is in.
	network() = default;
	// A new one, which this process is then in.
	static network make()
	{
		EXPECT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		return network();
	}
	void enter() const { EXPECT_EQ(setns(fd_.get(), CLONE_NEWNET), 0) << strerror(errno); }
	// As `ip` takes it.
	std::string path() const
	{
		return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_.get());
	}
};

void ip_commands(const std::string &lines)
{
	must_run("printf '%s\\n' '" + lines + "' | ip -batch -");
}

// What `make` gives in the network `at`; then this process is in `home` again.
template <typename F>
auto in_network(const network &at, const network &home, F make)
{
	at.enter();
	auto result = make();
	home.enter();
	return result;
}

struct socket_address {
	sockaddr_storage storage{};
	socklen_t length = 0;

	socket_address(const std::string &host, uint16_t port)
	{
		auto *v4 = reinterpret_cast<sockaddr_in *>(&storage);
		auto *v6 = reinterpret_cast<sockaddr_in6 *>(&storage);
		if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
			v4->sin_family = AF_INET;
			v4->sin_port = htons(port);
			length = sizeof(*v4);
		} else {
			EXPECT_EQ(inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr), 1) << host;
			v6->sin6_family = AF_INET6;
			v6->sin6_port = htons(port);
			length = sizeof(*v6);
		}
	}
	const sockaddr *name() const { return reinterpret_cast<const sockaddr *>(&storage); }
	int family() const { return storage.ss_family; }
};

owned_fd bound_socket(int type, const socket_address &at)
{
	owned_fd fd{socket(at.family(), type | SOCK_CLOEXEC, 0)};
	int yes = 1;
	setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
	EXPECT_EQ(bind(fd.get(), at.name(), at.length), 0) << strerror(errno);
	if (type == SOCK_STREAM) {
		EXPECT_EQ(listen(fd.get(), 16), 0);
	}
	return fd;
}

// The datagrams that are in the socket's queue.
std::vector<std::string> queued(const owned_fd &fd)
{
	std::vector<std::string> datagrams;
	char bytes[2048];
	ssize_t length;
	while ((length = recv(fd.get(), bytes, sizeof(bytes), MSG_DONTWAIT)) >= 0)
		datagrams.emplace_back(bytes, static_cast<size_t>(length));
	return datagrams;
}

std::string sender_of(const sockaddr_in &name)
{
	char text[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, &name.sin_addr, text, sizeof(text));
}

// Packets to this port pass every chain of these tests. One arrives after all that was sent before it:
// everything runs on one processor, which takes packets in their order.
constexpr uint16_t fence_port = 9;

// This process, an access point, between two clients and a server.
class access_point
{
	void stay_on_one_processor()
	{
		cpu_set_t set;
		CPU_ZERO(&set);
		CPU_SET(static_cast<size_t>(sched_getcpu()), &set);
		EXPECT_EQ(sched_setaffinity(0, sizeof(set), &set), 0);
	}
	void link(const network &other, const char *device, const char *mac)
	{
		ip_commands(std::string("link add dev ") + device + " type veth peer name eth0 address " +
			    mac + " netns " + other.path());
	}
	void configure(const network &other, const std::string &lines)
	{
		other.enter();
		ip_commands("link set dev lo up\nlink set dev eth0 up\n" + lines);
		home.enter();
	}
	// A device that is up still drops what is sent until the kernel has noticed.
	void wait_until_connected(const network &client) const
	{
		EXPECT_TRUE(eventually([&] {
			send_from(client, fence_port, "the first");
			return wait_for(fence.get(), POLLIN, 100);
		}));
		wait_behind(client);
	}
	static void number(const std::string &path, const char *value)
	{
		EXPECT_TRUE(write_file("/proc/sys/net/" + path, value)) << path;
	}
	void route();
	void join();

public:
	enum kind { routing, bridging };

	const network home;
	const network phone = network::make(), laptop = network::make(), server = network::make();
	std::string server_address, server_address6;
	owned_fd fence; // the server's

	explicit access_point(kind k = routing)
	{
		stay_on_one_processor();
		home.enter();
		link(phone, "wlan0", "02:00:00:00:00:05");
		link(laptop, "wlan1", "02:00:00:00:00:06");
		link(server, "wan", "02:00:00:00:00:09");
		if (k == routing)
			route();
		else
			join();
		fence = socket_at_server(SOCK_DGRAM, fence_port);
		wait_until_connected(phone);
		wait_until_connected(laptop);
	}
	access_point(const access_point &) = delete;
	access_point &operator=(const access_point &) = delete;

	owned_fd socket_at_server(int type, uint16_t port) const
	{
		return in_network(server, home,
			[&] { return bound_socket(type, socket_address(server_address, port)); });
	}
	// A datagram socket of a client's, connected to the server. The peer's refusals can be read in full.
	owned_fd socket_at(const network &client, uint16_t port, bool v6 = false) const
	{
		socket_address to(v6 ? server_address6 : server_address, port);
		return in_network(client, home, [&] {
			owned_fd fd{socket(to.family(), SOCK_DGRAM | SOCK_CLOEXEC, 0)};
			int yes = 1;
			EXPECT_EQ(setsockopt(fd.get(), v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_RECVERR : IP_RECVERR,
					  &yes, sizeof(yes)),
				0);
			EXPECT_EQ(connect(fd.get(), to.name(), to.length), 0) << strerror(errno);
			return fd;
		});
	}
	void send_from(const network &client, uint16_t port, const std::string &text) const
	{
		owned_fd fd = socket_at(client, port);
		EXPECT_EQ(send(fd.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
	}
	// Waits until all that `client` has sent has arrived at the server, or never will.
	void wait_behind(const network &client) const
	{
		static int count = 0;
		std::string text = "fence " + std::to_string(++count);
		send_from(client, fence_port, text);
		auto has_arrived = [&] {
			std::vector<std::string> texts = queued(fence);
			return std::count(texts.begin(), texts.end(), text) == 1;
		};
		EXPECT_TRUE(eventually(has_arrived)) << "the fence does not pass";
	}
	// Whether a datagram from the client arrives at `receiver`, a socket of the server's at `port`.
	bool passes(const network &client, const owned_fd &receiver, uint16_t port) const
	{
		send_from(client, port, "passes");
		wait_behind(client);
		return queued(receiver) == std::vector<std::string>{"passes"};
	}
};

void access_point::route()
{
	server_address = "10.9.0.2";
	server_address6 = "fd00:9::2";
	ip_commands("addr add 10.1.0.1/24 dev wlan0\naddr add 10.2.0.1/24 dev wlan1\naddr add 10.9.0.1/24 "
		    "dev wan\n"
		    "addr add fd00:1::1/64 dev wlan0 nodad\naddr add fd00:9::1/64 dev wan nodad\n"
		    "link set dev wlan0 up\nlink set dev wlan1 up\nlink set dev wan up");
	number("ipv4/ip_forward", "1");
	number("ipv6/conf/all/forwarding", "1");
	number("ipv4/icmp_ratelimit", "0");
	number("ipv6/icmp/ratelimit", "0");
	configure(phone, "addr add 10.1.0.2/24 dev eth0\naddr add fd00:1::2/64 dev eth0 nodad\n"
			 "route add default via 10.1.0.1\nroute add fd00:9::/64 via fd00:1::1");
	configure(laptop, "addr add 10.2.0.2/24 dev eth0\nroute add default via 10.2.0.1");
	configure(server, "addr add 10.9.0.2/24 dev eth0\naddr add fd00:9::2/64 dev eth0 nodad\n"
			  "route add default via 10.9.0.1\nroute add fd00:1::/64 via fd00:9::1");
}

void access_point::join()
{
	server_address = "10.5.0.9";
	ip_commands("link add dev br0 type bridge forward_delay 0\nlink set dev wlan0 master br0\n"
		    "link set dev wlan1 master br0\nlink set dev wan master br0\nlink set dev br0 up\n"
		    "link set dev wlan0 up\nlink set dev wlan1 up\nlink set dev wan up");
	configure(phone, "addr add 10.5.0.2/24 dev eth0");
	configure(laptop, "addr add 10.5.0.3/24 dev eth0");
	configure(server, "addr add 10.5.0.9/24 dev eth0");
}

// ---- Rules ----

nftnl_expr *equals(const void *data, uint32_t length)
{
	return kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, data, length);
}

nftnl_expr *equals_port(uint16_t port)
{
	uint16_t wire = htons(port);
	return equals(&wire, sizeof(wire));
}

nftnl_expr *verdict(uint32_t number)
{
	return kvnft_build_expr_verdict(number);
}

// The table "t" with the base chain "c", whose first rule lets the fence pass.
transaction &guarded_chain(transaction &change, uint16_t family, int32_t hook, const char *device = nullptr)
{
	return change.table(family)
		.base_chain(family, "c", "filter", hook, 0, device)
		.rule(family,
			{kvnft_build_expr_udp_dport(NFT_REG_1), equals_port(fence_port), verdict(NF_ACCEPT)});
}

// ---- Marks and verdicts ----

void mark_packets_to(transaction &change, uint16_t port, uint32_t mark)
{
	owned_rule rule =
		make_rule(inet, {kvnft_build_expr_udp_dport(NFT_REG_1), equals_port(port)}, "marking");
	EXPECT_EQ(kvnft_rule_set_mark(rule.get(), mark), 0);
	change.base_chain(inet, "marking", "filter", NF_INET_PRE_ROUTING, -150).rule(rule);
}

TEST(nft_packet, all_pass_before_there_are_rules_and_after_they_are_deleted)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		transaction change;
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD).rule(inet, {verdict(NF_DROP)}).send(),
			0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_EQ(kvnft_del_table_simple("t", inet), 0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
	});
}

TEST(nft_packet, only_packets_with_the_mark_are_accepted)
{
	in_nft_network([] {
		access_point ap;
		owned_fd marked = ap.socket_at_server(SOCK_DGRAM, 1001);
		owned_fd unmarked = ap.socket_at_server(SOCK_DGRAM, 1002);
		transaction change;
		guarded_chain(change, inet, NF_INET_FORWARD)
			.accept_mark(inet, 5)
			.rule(inet, {verdict(NF_DROP)});
		mark_packets_to(change, 1001, 5);
		ASSERT_EQ(change.send(), 0);
		EXPECT_TRUE(ap.passes(ap.phone, marked, 1001));
		EXPECT_FALSE(ap.passes(ap.phone, unmarked, 1002));
	});
}

TEST(nft_packet, all_packets_but_those_with_the_mark_are_accepted)
{
	in_nft_network([] {
		access_point ap;
		owned_fd marked = ap.socket_at_server(SOCK_DGRAM, 1001);
		owned_fd unmarked = ap.socket_at_server(SOCK_DGRAM, 1002);
		transaction change;
		guarded_chain(change, inet, NF_INET_FORWARD)
			.accept_mark_neq(inet, 5)
			.rule(inet, {verdict(NF_DROP)});
		mark_packets_to(change, 1001, 5);
		ASSERT_EQ(change.send(), 0);
		EXPECT_FALSE(ap.passes(ap.phone, marked, 1001));
		EXPECT_TRUE(ap.passes(ap.phone, unmarked, 1002));
	});
}

// The number that a socket option gives and the one that a rule compares are the same in either byte order.
TEST(nft_packet, mark_is_the_number_that_sockets_set)
{
	in_nft_network([] {
		transaction change;
		change.table(ip)
			.base_chain(ip, "c", "filter", NF_INET_LOCAL_OUT)
			.accept_mark(ip, 0x01020304)
			.rule(ip, {verdict(NF_DROP)});
		ASSERT_EQ(change.send(), 0);
		socket_address self("127.0.0.1", 1000);
		owned_fd receiver = bound_socket(SOCK_DGRAM, self);
		owned_fd sender{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
		EXPECT_EQ(sendto(sender.get(), "x", 1, 0, self.name(), self.length), -1);
		EXPECT_EQ(errno, EPERM);
		uint32_t mark = 0x01020304;
		ASSERT_EQ(setsockopt(sender.get(), SOL_SOCKET, SO_MARK, &mark, sizeof(mark)), 0);
		EXPECT_EQ(sendto(sender.get(), "y", 1, 0, self.name(), self.length), 1);
		EXPECT_TRUE(wait_for(receiver.get(), POLLIN));
		EXPECT_EQ(queued(receiver), std::vector<std::string>{"y"});
	});
}

TEST(nft_packet, masked_address_chooses_a_network)
{
	in_nft_network([] {
		access_point ap;
		must_run("ip route add 10.8.0.0/24 via 10.9.0.2");
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		uint32_t mask = htonl(0xffffff00), net = htonl(0x0a090000), other = htonl(0x0a080000);
		auto drop_to = [&](uint32_t address) {
			transaction change;
			return guarded_chain(change, ip, NF_INET_FORWARD)
				.rule(ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
						  kvnft_build_expr_bitwise(
							  NFT_REG_1, NFT_REG_1, 4, &mask, 4, &none, 4),
						  equals(&address, 4), verdict(NF_DROP)})
				.send();
		};
		ASSERT_EQ(drop_to(other), 0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		ASSERT_EQ(drop_to(net), 0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
	});
}

TEST(nft_packet, replies_pass_and_what_is_new_does_not)
{
	in_nft_network([] {
		access_point ap;
		uint32_t established = 2;
		transaction change;
		change.table(ip)
			.base_chain(ip, "c", "filter", NF_INET_FORWARD)
			.rule(ip, {kvnft_build_expr_ct(NFT_REG_1, NFT_CT_STATE),
					  kvnft_build_expr_bitwise(
						  NFT_REG_1, NFT_REG_1, 4, &established, 4, &none, 4),
					  kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_NEQ, &none, 4),
					  verdict(NF_ACCEPT)})
			.rule(ip, {kvnft_build_expr_ether_saddr(NFT_REG_1), equals(phone_mac, 6),
					  verdict(NF_ACCEPT)})
			.rule(ip, {verdict(NF_DROP)});
		ASSERT_EQ(change.send(), 0);

		owned_fd at_phone = in_network(ap.phone, ap.home,
			[] { return bound_socket(SOCK_DGRAM, socket_address("10.1.0.2", 1000)); });
		owned_fd at_server = ap.socket_at_server(SOCK_DGRAM, 1000);
		owned_fd stranger = ap.socket_at_server(SOCK_DGRAM, 1001);
		socket_address phone("10.1.0.2", 1000), server(ap.server_address, 1000);
		EXPECT_EQ(sendto(stranger.get(), "new", 3, 0, phone.name(), phone.length), 3);
		EXPECT_EQ(sendto(at_phone.get(), "request", 7, 0, server.name(), server.length), 7);
		ASSERT_TRUE(wait_for(at_server.get(), POLLIN));
		EXPECT_EQ(sendto(at_server.get(), "reply", 5, 0, phone.name(), phone.length), 5);
		ASSERT_TRUE(wait_for(at_phone.get(), POLLIN));
		EXPECT_EQ(queued(at_phone), std::vector<std::string>{"reply"});
	});
}

// ---- Sets ----

// Adds the phone's address to the set "s", or takes it out.
int change_set(uint16_t family, bool block, int64_t timeout_ms = -1)
{
	owned_set set = make_set(family, 0, type_ether);
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), phone_mac, 6, timeout_ms), 0);
	transaction change;
	return (block ? change.elements_of(set) : change.del_elements_of(set)).send();
}

void drop_by_set(uint16_t family, int32_t hook, uint32_t set_flags = 0, const char *device = nullptr)
{
	owned_set set = make_set(family, set_flags, type_ether);
	transaction change;
	ASSERT_EQ(guarded_chain(change, family, hook, device)
			  .set(set)
			  .rule(family, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						kvnft_build_expr_lookup(NFT_REG_1, "s", id_of(set), 0),
						verdict(NF_DROP)})
			  .send(),
		0);
}

TEST(nft_packet, client_is_dropped_while_its_address_is_in_the_set)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		drop_by_set(inet, NF_INET_FORWARD);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_EQ(change_set(inet, true), 0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_TRUE(ap.passes(ap.laptop, receiver, 1000));
		EXPECT_EQ(change_set(inet, false), 0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
	});
}

TEST(nft_packet, client_passes_again_when_its_time_in_the_set_is_out)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		drop_by_set(inet, NF_INET_FORWARD, NFT_SET_TIMEOUT);
		EXPECT_EQ(change_set(inet, true, 3'600'000), 0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_EQ(change_set(inet, false), 0);
		EXPECT_EQ(change_set(inet, true, 200), 0);
		EXPECT_TRUE(eventually([&] { return ap.passes(ap.phone, receiver, 1000); }));
	});
}

TEST(nft_packet, inverted_lookup_lets_only_members_pass)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), phone_mac, 6, -1), 0);
		transaction change;
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .set(set)
				  .elements_of(set)
				  .rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						      kvnft_build_expr_lookup(
							      NFT_REG_1, "s", 0, NFT_LOOKUP_F_INV),
						      verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_FALSE(ap.passes(ap.laptop, receiver, 1000));
	});
}

TEST(nft_packet, client_is_dropped_at_the_devices_ingress)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		drop_by_set(netdev, NF_NETDEV_INGRESS, 0, "wlan0");
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_EQ(change_set(netdev, true), 0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_TRUE(ap.passes(ap.laptop, receiver, 1000));
	});
}

TEST(nft_packet, client_is_dropped_between_ports_of_a_bridge)
{
	in_nft_network([] {
		access_point ap(access_point::bridging);
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		drop_by_set(bridge, NF_INET_FORWARD);
		EXPECT_EQ(change_set(bridge, true), 0);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_TRUE(ap.passes(ap.laptop, receiver, 1000));
		EXPECT_EQ(change_set(bridge, false), 0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
	});
}

// ---- Rejections ----

// The answer to a datagram, as the kernel puts it into the sender's error queue.
struct refusal {
	int origin = -1, type = -1, code = -1;

	bool operator==(const refusal &) const = default;
};

void PrintTo(const refusal &r, std::ostream *out)
{
	*out << "origin " << r.origin << ", type " << r.type << ", code " << r.code;
}

refusal refusal_at(const owned_fd &fd)
{
	char data[2048], control[512];
	iovec vector{data, sizeof(data)};
	msghdr message{};
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	message.msg_control = control;
	message.msg_controllen = sizeof(control);
	if (!wait_for(fd.get(), POLLERR) || recvmsg(fd.get(), &message, MSG_ERRQUEUE) < 0)
		return {};
	for (cmsghdr *item = CMSG_FIRSTHDR(&message); item; item = CMSG_NXTHDR(&message, item)) {
		bool is_error = (item->cmsg_level == SOL_IP && item->cmsg_type == IP_RECVERR) ||
				(item->cmsg_level == SOL_IPV6 && item->cmsg_type == IPV6_RECVERR);
		if (!is_error)
			continue;
		sock_extended_err error;
		memcpy(&error, CMSG_DATA(item), sizeof(error));
		return {error.ee_origin, error.ee_type, error.ee_code};
	}
	return {};
}

void reject_all(uint32_t type, uint8_t code)
{
	transaction change;
	owned_rule rule = make_rule(inet, {});
	ASSERT_EQ(kvnft_rule_reject(rule.get(), type, code), 0);
	change.table(inet).base_chain(inet, "c", "filter", NF_INET_FORWARD).flush_chain(inet).rule(rule);
	ASSERT_EQ(change.send(), 0);
}

TEST(nft_packet, every_family_independent_code_arrives_as_the_familys_own)
{
	in_nft_network([] {
		access_point ap;
		struct {
			uint8_t code, icmp, icmp6;
		} codes[] = {
			{NFT_REJECT_ICMPX_NO_ROUTE, ICMP_NET_UNREACH, ICMP6_DST_UNREACH_NOROUTE},
			{NFT_REJECT_ICMPX_PORT_UNREACH, ICMP_PORT_UNREACH, ICMP6_DST_UNREACH_NOPORT},
			{NFT_REJECT_ICMPX_HOST_UNREACH, ICMP_HOST_UNREACH, ICMP6_DST_UNREACH_ADDR},
			{NFT_REJECT_ICMPX_ADMIN_PROHIBITED, ICMP_PKT_FILTERED, ICMP6_DST_UNREACH_ADMIN},
		};
		for (auto [code, icmp, icmp6] : codes) {
			reject_all(NFT_REJECT_ICMPX_UNREACH, code);
			owned_fd v4 = ap.socket_at(ap.phone, 1000), v6 = ap.socket_at(ap.phone, 1000, true);
			EXPECT_EQ(send(v4.get(), "x", 1, 0), 1);
			EXPECT_EQ(refusal_at(v4), (refusal{SO_EE_ORIGIN_ICMP, ICMP_DEST_UNREACH, icmp}));
			EXPECT_EQ(send(v6.get(), "x", 1, 0), 1);
			EXPECT_EQ(refusal_at(v6), (refusal{SO_EE_ORIGIN_ICMP6, ICMP6_DST_UNREACH, icmp6}));
		}
	});
}

TEST(nft_packet, reset_refuses_a_connection_that_the_server_would_take)
{
	in_nft_network([] {
		access_point ap;
		owned_fd listener = ap.socket_at_server(SOCK_STREAM, 80);
		socket_address server(ap.server_address, 80);
		auto connect_error = [&] {
			return in_network(ap.phone, ap.home, [&] {
				owned_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
				return connect(fd.get(), server.name(), server.length) == 0 ? 0 : errno;
			});
		};
		EXPECT_EQ(connect_error(), 0);
		reject_all(NFT_REJECT_TCP_RST, 0);
		EXPECT_EQ(connect_error(), ECONNREFUSED);
		reject_all(NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_NO_ROUTE);
		EXPECT_EQ(connect_error(), ENETUNREACH);
	});
}

TEST(nft_packet, reset_ends_an_established_connection)
{
	in_nft_network([] {
		access_point ap;
		owned_fd listener = ap.socket_at_server(SOCK_STREAM, 80);
		socket_address server(ap.server_address, 80);
		owned_fd client = in_network(ap.phone, ap.home, [&] {
			owned_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
			EXPECT_EQ(connect(fd.get(), server.name(), server.length), 0);
			return fd;
		});
		reject_all(NFT_REJECT_TCP_RST, 0);
		EXPECT_EQ(send(client.get(), "x", 1, 0), 1);
		ASSERT_TRUE(wait_for(client.get(), POLLIN));
		char byte;
		EXPECT_EQ(recv(client.get(), &byte, 1, 0), -1);
		EXPECT_EQ(errno, ECONNRESET);
	});
}

// ---- Address translation ----

TEST(nft_packet, redirected_connection_reaches_the_portal)
{
	in_nft_network([] {
		access_point ap;
		owned_fd portal = bound_socket(SOCK_STREAM, socket_address("0.0.0.0", 8080));
		owned_fd web = ap.socket_at_server(SOCK_STREAM, 80),
			 other = ap.socket_at_server(SOCK_STREAM, 81);
		uint8_t tcp = IPPROTO_TCP;
		uint16_t portal_port = htons(8080);
		transaction change;
		change.table(ip)
			.base_chain(ip, "c", "nat", NF_INET_PRE_ROUTING, -100)
			.rule(ip, {kvnft_build_expr_meta(NFT_META_L4PROTO, NFT_REG_1), equals(&tcp, 1),
					  kvnft_build_expr_tcp_dport(NFT_REG_1), equals_port(80),
					  kvnft_build_expr_imm(NFT_REG_1, &portal_port, 2),
					  kvnft_build_expr_redir(NFT_REG_1)});
		ASSERT_EQ(change.send(), 0);
		auto connected_to = [&](uint16_t port) {
			socket_address to(ap.server_address, port);
			return in_network(ap.phone, ap.home, [&] {
				owned_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
				EXPECT_EQ(connect(fd.get(), to.name(), to.length), 0) << strerror(errno);
				return fd;
			});
		};

		owned_fd client = connected_to(80);
		sockaddr_in asked_for{};
		socklen_t length = sizeof(asked_for);
		ASSERT_TRUE(wait_for(portal.get(), POLLIN));
		owned_fd guest{accept4(portal.get(), nullptr, nullptr, SOCK_CLOEXEC)};
		ASSERT_EQ(getsockopt(guest.get(), SOL_IP, SO_ORIGINAL_DST, &asked_for, &length), 0);
		EXPECT_EQ(sender_of(asked_for), "10.9.0.2");
		EXPECT_EQ(ntohs(asked_for.sin_port), 80);
		EXPECT_TRUE(write_all(guest.get(), "portal"));
		guest.reset();
		EXPECT_EQ(read_all(client.get()), "portal");
		EXPECT_FALSE(wait_for(web.get(), POLLIN, 0));

		owned_fd unmoved = connected_to(81);
		EXPECT_TRUE(wait_for(other.get(), POLLIN));
	});
}

TEST(nft_packet, masqueraded_client_has_the_access_points_address)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		owned_fd client = ap.socket_at(ap.phone, 1000);
		auto sender_seen = [&] {
			sockaddr_in sender{};
			socklen_t length = sizeof(sender);
			char text[16];
			EXPECT_TRUE(wait_for(receiver.get(), POLLIN));
			EXPECT_EQ(recvfrom(receiver.get(), text, sizeof(text), 0,
					  reinterpret_cast<sockaddr *>(&sender), &length),
				1);
			EXPECT_EQ(sendto(receiver.get(), "reply", 5, 0, reinterpret_cast<sockaddr *>(&sender),
					  length),
				5);
			EXPECT_TRUE(wait_for(client.get(), POLLIN));
			EXPECT_EQ(queued(client), std::vector<std::string>{"reply"});
			return sender_of(sender);
		};
		EXPECT_EQ(send(client.get(), "x", 1, 0), 1);
		EXPECT_EQ(sender_seen(), "10.1.0.2");

		transaction change;
		change.table(ip)
			.base_chain(ip, "c", "nat", NF_INET_POST_ROUTING, 100)
			.rule(ip, {kvnft_build_expr_masq()});
		ASSERT_EQ(change.send(), 0);
		client = ap.socket_at(ap.phone, 1000); // what has begun goes on as it is
		EXPECT_EQ(send(client.get(), "x", 1, 0), 1);
		EXPECT_EQ(sender_seen(), "10.9.0.1");
	});
}

// ---- Rates ----

constexpr uint64_t rate = 20'000;      // bytes a second
constexpr uint64_t burst = 10'000;     // bytes
constexpr size_t packet_bytes = 1'000; // with the headers that rules see
const std::string load(packet_bytes - 28, 'x');
constexpr size_t burst_packets = (rate + burst) / packet_bytes;

// How many packets may have passed since `start_ms`: what fits into the bucket, and what has run in since.
size_t packets_max_since(int64_t start_ms)
{
	auto elapsed_ms = static_cast<uint64_t>(now_ms() - start_ms + 1);
	return burst_packets + rate * elapsed_ms / 1000 / packet_bytes + 1;
}

size_t count_arrived(const access_point &ap, const network &client, const owned_fd &receiver, size_t sent)
{
	owned_fd fd = ap.socket_at(client, 1000);
	for (size_t index = 0; index < sent; index++)
		EXPECT_EQ(send(fd.get(), load.data(), load.size(), 0), static_cast<ssize_t>(load.size()));
	ap.wait_behind(client);
	return queued(receiver).size();
}

owned_fd roomy_receiver(const access_point &ap)
{
	owned_fd fd = ap.socket_at_server(SOCK_DGRAM, 1000);
	int bytes = 4 << 20;
	EXPECT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)), 0);
	return fd;
}

TEST(nft_packet, everything_under_the_byte_rate_passes)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = roomy_receiver(ap);
		transaction change;
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .rule(inet, {kvnft_build_expr_limit(rate, burst), verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_EQ(count_arrived(ap, ap.phone, receiver, burst_packets), burst_packets);
	});
}

TEST(nft_packet, what_is_over_the_byte_rate_is_dropped)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = roomy_receiver(ap);
		transaction change;
		int64_t start_ms = now_ms();
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .rule(inet, {kvnft_build_expr_limit(rate, burst), verdict(NF_DROP)})
				  .send(),
			0);
		size_t arrived = count_arrived(ap, ap.phone, receiver, 400);
		EXPECT_GE(arrived, burst_packets);
		EXPECT_LE(arrived, packets_max_since(start_ms));
		EXPECT_LT(arrived, 400U);
		EXPECT_TRUE(eventually([&] { return count_arrived(ap, ap.phone, receiver, 1) == 1; }))
			<< "the bucket does not fill again";
	});
}

TEST(nft_packet, without_a_burst_the_bytes_of_a_second_pass_at_once)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = roomy_receiver(ap);
		transaction change;
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .rule(inet, {kvnft_build_expr_limit(rate, 0), verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_EQ(count_arrived(ap, ap.phone, receiver, rate / packet_bytes), rate / packet_bytes);
	});
}

TEST(nft_packet, each_client_has_a_byte_rate_of_its_own)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = roomy_receiver(ap);
		owned_set set = make_set(inet, NFT_SET_EVAL | NFT_SET_TIMEOUT, type_ether);
		transaction change;
		int64_t start_ms = now_ms();
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .set(set)
				  .rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						      kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set),
							      3'600'000, true,
							      kvnft_build_expr_limit(rate, burst)),
						      verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_EQ(elements(), "");
		size_t arrived = count_arrived(ap, ap.phone, receiver, 400);
		EXPECT_GE(arrived, burst_packets);
		EXPECT_LE(arrived, packets_max_since(start_ms));
		EXPECT_EQ(count_arrived(ap, ap.laptop, receiver, burst_packets), burst_packets);

		std::string listed = elements();
		EXPECT_THAT(listed, testing::HasSubstr("02:00:00:00:00:05"));
		EXPECT_THAT(listed, testing::HasSubstr("02:00:00:00:00:06"));
		EXPECT_THAT(listed, testing::HasSubstr(R"("timeout":3600)"));
	});
}

TEST(nft_packet, element_that_a_packet_added_goes_when_its_time_is_out)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = roomy_receiver(ap);
		owned_set set = make_set(inet, NFT_SET_EVAL | NFT_SET_TIMEOUT, type_ether);
		transaction change;
		ASSERT_EQ(
			guarded_chain(change, inet, NF_INET_FORWARD)
				.set(set)
				.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						    kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), 2'000,
							    true, kvnft_build_expr_limit(rate, burst)),
						    verdict(NF_DROP)})
				.send(),
			0);
		EXPECT_EQ(count_arrived(ap, ap.phone, receiver, 1), 1U);
		EXPECT_THAT(elements(), testing::HasSubstr("02:00:00:00:00:05"));
		EXPECT_TRUE(eventually([] { return elements() == ""; })) << elements();
	});
}

// ---- Other statements ----

// A socket that gets what is logged to `group` in this network.
class log_listener
{
	owned_fd fd_{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
	uint16_t group_;

	template <typename T>
	void configure(uint16_t attribute, const T &value)
	{
		alignas(nlmsghdr) char bytes[128];
		nlmsghdr *header = mnl_nlmsg_put_header(bytes);
		header->nlmsg_type = NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_CONFIG;
		header->nlmsg_flags = NLM_F_REQUEST;
		auto *extra = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
		extra->nfgen_family = AF_INET;
		extra->res_id = htons(group_);
		mnl_attr_put(header, attribute, sizeof(value), &value);
		EXPECT_EQ(send(fd_.get(), bytes, header->nlmsg_len, 0),
			static_cast<ssize_t>(header->nlmsg_len));
	}

public:
	explicit log_listener(uint16_t group) : group_(group)
	{
		configure(NFULA_CFG_CMD, nfulnl_msg_config_cmd{NFULNL_CFG_CMD_BIND});
		configure(NFULA_CFG_MODE, nfulnl_msg_config_mode{htonl(0xffff), NFULNL_COPY_PACKET, 0});
		configure(NFULA_CFG_QTHRESH, htonl(1));
	}
	// The next packet, with the log's headers around it.
	std::string next() const
	{
		EXPECT_TRUE(wait_for(fd_.get(), POLLIN));
		return read_available(fd_.get());
	}
};

TEST(nft_packet, logged_packet_reaches_the_group)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		log_listener seventh(7);
		transaction change;
		ASSERT_EQ(guarded_chain(change, inet, NF_INET_FORWARD)
				  .rule(inet, {kvnft_build_expr_log(7), verdict(NF_DROP)})
				  .send(),
			0);
		ap.send_from(ap.phone, 1000, "a text that is logged");
		EXPECT_THAT(seventh.next(), testing::HasSubstr("a text that is logged"));
		ap.wait_behind(ap.phone);
		EXPECT_EQ(queued(receiver), std::vector<std::string>{});
	});
}

// Frames as they arrive at the device, with their headers.
owned_fd frame_socket()
{
	owned_fd fd{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP))};
	EXPECT_GE(fd.get(), 0) << strerror(errno);
	return fd;
}

// The next frame with `text` in it.
std::string frame_with(const owned_fd &fd, const std::string &text)
{
	std::string found;
	EXPECT_TRUE(eventually([&] {
		for (const std::string &frame : queued(fd))
			if (frame.find(text) != std::string::npos)
				found = frame;
		return !found.empty();
	}));
	return found;
}

TEST(nft_packet, frame_goes_where_its_overwritten_address_says)
{
	in_nft_network([] {
		access_point ap(access_point::bridging);
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		EXPECT_TRUE(ap.passes(ap.laptop, receiver, 1000));
		owned_fd at_laptop = in_network(ap.laptop, ap.home, frame_socket);
		transaction change;
		ASSERT_EQ(guarded_chain(change, bridge, NF_INET_PRE_ROUTING)
				  .rule(bridge, {kvnft_build_expr_udp_dport(NFT_REG_1), equals_port(1000),
							kvnft_build_expr_imm(NFT_REG_1, laptop_mac, 6),
							kvnft_build_expr_ether_set_daddr(NFT_REG_1)})
				  .send(),
			0);
		ap.send_from(ap.phone, 1000, "a frame that is moved");
		std::string frame = frame_with(at_laptop, "a frame that is moved");
		EXPECT_EQ(frame.substr(0, 6), std::string(reinterpret_cast<const char *>(laptop_mac), 6));
		EXPECT_EQ(frame.substr(6, 6), std::string(reinterpret_cast<const char *>(phone_mac), 6));
		ap.wait_behind(ap.phone);
		EXPECT_EQ(queued(receiver), std::vector<std::string>{});
	});
}

TEST(nft_packet, ports_and_types_choose_packets)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		transaction change;
		ASSERT_EQ(
			guarded_chain(change, netdev, NF_NETDEV_INGRESS, "wlan0")
				.rule(netdev, {kvnft_build_expr_ether_type(NFT_REG_1), equals("\x08\x00", 2),
						      kvnft_build_expr_udp_sport(NFT_REG_1), equals_port(67),
						      verdict(NF_DROP)})
				.send(),
			0);
		EXPECT_TRUE(ap.passes(ap.phone, receiver, 1000));
		owned_fd from_67 = in_network(ap.phone, ap.home,
			[] { return bound_socket(SOCK_DGRAM, socket_address("10.1.0.2", 67)); });
		socket_address server(ap.server_address, 1000);
		EXPECT_EQ(sendto(from_67.get(), "x", 1, 0, server.name(), server.length), 1);
		ap.wait_behind(ap.phone);
		EXPECT_EQ(queued(receiver), std::vector<std::string>{});
	});
}

// A rule that the kernel refuses leaves what was there at work.
TEST(nft_packet, refused_transaction_leaves_the_rules_at_work)
{
	in_nft_network([] {
		access_point ap;
		owned_fd receiver = ap.socket_at_server(SOCK_DGRAM, 1000);
		drop_by_set(inet, NF_INET_FORWARD);
		ASSERT_EQ(change_set(inet, true), 0);
		EXPECT_EQ(transaction().flush_chain(inet).flush_chain(inet, "missing").send(), -ENOENT);
		EXPECT_FALSE(ap.passes(ap.phone, receiver, 1000));
	});
}

} // namespace
