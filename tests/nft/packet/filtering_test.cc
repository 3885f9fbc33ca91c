// What rules made with nft do to packets: marks, verdicts, sets and rejections.
#include "tests/nft/packet/access_point.h"

#include <linux/errqueue.h>
#include <netinet/icmp6.h>
#include <netinet/ip_icmp.h>

#include <gmock/gmock.h>

using namespace packet_support;

namespace
{

using packet_support::ip; // and not the record of the C library

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

// `accept` appends a rule that accepts by the mark 5; the next rule drops. Packets that have the mark pass, or the others.
void expect_accepted(
	transaction &(transaction::*accept)(uint32_t family, uint32_t mark), bool those_with_mark)
{
	in_nft_network([=] {
		access_point ap;
		owned_fd marked = ap.socket_at_server(SOCK_DGRAM, 1001);
		owned_fd unmarked = ap.socket_at_server(SOCK_DGRAM, 1002);
		transaction change;
		(guarded_chain(change, inet, NF_INET_FORWARD).*accept)(inet, 5).rule(
			inet, {verdict(NF_DROP)});
		mark_packets_to(change, 1001, 5);
		ASSERT_EQ(change.send(), 0);
		EXPECT_EQ(ap.passes(ap.phone, marked, 1001), those_with_mark);
		EXPECT_EQ(ap.passes(ap.phone, unmarked, 1002), !those_with_mark);
	});
}

TEST(nft_packet, only_packets_with_the_mark_are_accepted)
{
	expect_accepted(&transaction::accept_mark, true);
}

TEST(nft_packet, all_packets_but_those_with_the_mark_are_accepted)
{
	expect_accepted(&transaction::accept_mark_neq, false);
}

// A socket option and a rule mean the same number in either byte order.
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

// A rule that the kernel refuses leaves the earlier rules at work.
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

} // namespace
