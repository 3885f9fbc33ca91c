// Helpers of the tests of packets: an access point between two clients and a server, each in a network
// namespace of its own, and rules in few words.
#pragma once
#include <arpa/inet.h>
#include <sched.h>

#include <string>
#include <vector>

#include "tests/support/nft.h"

namespace packet_support
{

using namespace nft_support;

inline constexpr uint16_t ip = NFPROTO_IPV4, inet = NFPROTO_INET, bridge = NFPROTO_BRIDGE,
			  netdev = NFPROTO_NETDEV;
inline constexpr uint8_t phone_mac[6] = {2, 0, 0, 0, 0, 5};
inline constexpr uint8_t laptop_mac[6] = {2, 0, 0, 0, 0, 6};
inline constexpr uint32_t none = 0;

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

inline void ip_commands(const std::string &lines)
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

inline owned_fd bound_socket(int type, const socket_address &at)
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
inline std::vector<std::string> queued(const owned_fd &fd)
{
	std::vector<std::string> datagrams;
	char bytes[2048];
	ssize_t length;
	while ((length = recv(fd.get(), bytes, sizeof(bytes), MSG_DONTWAIT)) >= 0)
		datagrams.emplace_back(bytes, static_cast<size_t>(length));
	return datagrams;
}

inline std::string sender_of(const sockaddr_in &name)
{
	char text[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, &name.sin_addr, text, sizeof(text));
}

// Packets to this port pass every chain of these tests. Such a packet arrives after all that was sent before it:
// everything runs on one processor, which takes packets in order.
inline constexpr uint16_t fence_port = 9;

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
	// A client's datagram socket, connected to the server. Its error queue has the peer's refusals.
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
	// Waits until everything that `client` has sent has arrived at the server or was dropped.
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

inline void access_point::route()
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

inline void access_point::join()
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

inline nftnl_expr *equals(const void *data, uint32_t length)
{
	return kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, data, length);
}

inline nftnl_expr *equals_port(uint16_t port)
{
	uint16_t wire = htons(port);
	return equals(&wire, sizeof(wire));
}

inline nftnl_expr *verdict(uint32_t number)
{
	return kvnft_build_expr_verdict(number);
}

// The table "t" with the base chain "c", whose first rule lets the fence pass.
inline transaction &guarded_chain(
	transaction &change, uint16_t family, int32_t hook, const char *device = nullptr)
{
	return change.table(family)
		.base_chain(family, "c", "filter", hook, 0, device)
		.rule(family,
			{kvnft_build_expr_udp_dport(NFT_REG_1), equals_port(fence_port), verdict(NF_ACCEPT)});
}

} // namespace packet_support
