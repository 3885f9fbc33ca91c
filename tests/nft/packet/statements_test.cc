// What rules made with nft do to packets: address translation, rates, logs and overwritten addresses.
#include "tests/nft/packet/access_point.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <linux/netfilter_ipv4.h>

#include <gmock/gmock.h>

using namespace packet_support;

namespace
{

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

// How many packets may have passed since `start_ms`: the bucket's size, and what has been added to it since.
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

} // namespace
