// nft on the kernel: each expression, as the system's `nft` lists it.
#include "tests/nft/kernel/kernel.h"

#include <gmock/gmock.h>
#include <libnftnl/common.h>

using namespace kernel_support;

namespace
{

TEST(nft_kernel, verdicts_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_verdict(NF_ACCEPT)}, {accepts})
			.add({kvnft_build_expr_verdict(NF_DROP)}, {drops})
			.add({kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN))},
				{R"({"return": null})"})
			.add({kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_CONTINUE))},
				{R"({"continue": null})"})
			.check();
	});
}

TEST(nft_kernel, meta_and_compared_values_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t mark = 6;
		uint8_t tcp = IPPROTO_TCP;
		listed_rules()
			.add({kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &mark, 4)},
				{match("==", mark_key, "6")})
			.add({_kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_2, 0),
				     kvnft_build_expr_cmp(NFT_REG_2, NFT_CMP_NEQ, &mark, 4)},
				{match("!=", mark_key, "6")})
			.add({kvnft_build_expr_meta(NFT_META_L4PROTO, NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &tcp, 1)},
				{match("==", R"({"meta": {"key": "l4proto"}})", R"("tcp")")})
			.check();
	});
}

TEST(nft_kernel, every_comparison_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint16_t port = htons(8080);
		listed_rules list;
		struct {
			uint32_t op;
			const char *name;
		} comparisons[] = {{NFT_CMP_EQ, "=="}, {NFT_CMP_NEQ, "!="}, {NFT_CMP_LT, "<"},
			{NFT_CMP_LTE, "<="}, {NFT_CMP_GT, ">"}, {NFT_CMP_GTE, ">="}};
		for (auto [op, name] : comparisons)
			list.add({kvnft_build_expr_udp_dport(NFT_REG_1),
					 kvnft_build_expr_cmp(NFT_REG_1, op, &port, 2)},
				{match(name, field("th", "dport"), "8080")});
		list.check();
	});
}

TEST(nft_kernel, mark_that_is_set_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {});
		ASSERT_EQ(kvnft_rule_set_mark(rule.get(), 0x1234), 0);
		ASSERT_EQ(kvnft_rule_verdict(rule.get(), NF_ACCEPT), 0);
		EXPECT_EQ(transaction().rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{set_to(mark_key, "4660"), accepts}}));
	});
}

TEST(nft_kernel, accept_by_mark_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().accept_mark(inet, 5).accept_mark_neq(inet, 7).send(), 0);
		EXPECT_EQ(rules(), listing({
					   {match("==", mark_key, "5"), accepts},
					   {match("!=", mark_key, "7"), accepts},
				   }));
	});
}

TEST(nft_kernel, connection_state_masked_and_compared_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t known = 2 | 4; // established, related
		listed_rules()
			.add({kvnft_build_expr_ct(NFT_REG_1, NFT_CT_STATE),
				     kvnft_build_expr_bitwise(NFT_REG_1, NFT_REG_1, 4, &known, 4, &none, 4),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_NEQ, &none, 4),
				     kvnft_build_expr_verdict(NF_ACCEPT)},
				{match("in", R"({"ct": {"key": "state"}})", R"(["established", "related"])"),
					accepts})
			.check();
	});
}

TEST(nft_kernel, header_fields_are_listed_by_place_and_length)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t address = htonl(0x0a010002);
		uint16_t port = htons(67);
		listed_rules()
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6)},
				{match("==", bits("ll", 48, 48), "2199023255557")})
			.add({kvnft_build_expr_ether_daddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6)},
				{match("==", bits("ll", 0, 48), "2199023255557")})
			.add({kvnft_build_expr_ether_type(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, "\x08\x00", 2)},
				{match("==", bits("ll", 96, 16), "2048")})
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &address, 4)},
				{match("==", bits("nh", 128, 32), "167837698")})
			.add({kvnft_build_expr_udp_sport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "sport"), "67")})
			.add({kvnft_build_expr_udp_dport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "dport"), "67")})
			.add({kvnft_build_expr_tcp_dport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "dport"), "67")})
			.add({kvnft_build_expr_payload(NFT_REG_4, NFT_PAYLOAD_NETWORK_HEADER, 8, 1),
				     kvnft_build_expr_cmp(NFT_REG_4, NFT_CMP_EQ, "\x40", 1)},
				{match("==", bits("nh", 64, 8), "64")})
			.check();
	});
}

TEST(nft_kernel, masked_address_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t net = htonl(0x0a010200), mask = htonl(0xffffff00);
		listed_rules()
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_bitwise(NFT_REG_1, NFT_REG_1, 4, &mask, 4, &none, 4),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &net, 4)},
				{match("==", "{\"&\": [" + bits("nh", 128, 32) + ", 4294967040]}",
					"167838208")})
			.check();
	});
}

TEST(nft_kernel, header_field_that_is_overwritten_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_imm(NFT_REG_1, phone, 6),
				     kvnft_build_expr_ether_set_daddr(NFT_REG_1)},
				{set_to(field("ether", "daddr"), R"("02:00:00:00:00:05")")})
			.add({kvnft_build_expr_imm(NFT_REG_1, "\x01", 1),
				     kvnft_build_expr_payload_set(
					     NFT_REG_1, NFT_PAYLOAD_NETWORK_HEADER, 8, 1)},
				{set_to(bits("nh", 64, 8), "1")})
			.check();
	});
}

TEST(nft_kernel, byte_rate_limit_is_listed_as_the_traffic_over_it)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_limit(125000, 9000), kvnft_build_expr_verdict(NF_DROP)},
				{over("125000", "9000"), drops})
			.add({kvnft_build_expr_limit((1ULL << 33) + 1, 0)}, {over("8589934593", "0")})
			.add({kvnft_build_expr_limit(1000, (1ULL << 32) + 5)}, {over("1000", "5")})
			.check();
	});
}

TEST(nft_kernel, log_group_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules().add({kvnft_build_expr_log(7)}, {R"({"log": {"group": 7}})"}).check();
	});
}

TEST(nft_kernel, reset_and_family_independent_rejections_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_reject(NFT_REJECT_TCP_RST, 9)},
				{R"({"reject": {"type": "tcp reset"}})"})
			.add({kvnft_build_expr_reject(NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_NO_ROUTE)},
				{R"({"reject": {"type": "icmpx", "expr": "no-route"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_PORT_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "port-unreachable"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_HOST_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "host-unreachable"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_ADMIN_PROHIBITED)},
				{R"({"reject": {"type": "icmpx", "expr": "admin-prohibited"}})"})
			.check();
	});
}

TEST(nft_kernel, reject_of_a_rule_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(ip6);
		owned_rule rule = make_rule(ip6, {});
		ASSERT_EQ(kvnft_rule_reject(rule.get(), NFT_REJECT_TCP_RST, 0), 0);
		EXPECT_EQ(transaction().rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{R"({"reject": {"type": "tcp reset"}})"}}));
	});
}

// The kernel asks for the code that is left out.
TEST(nft_kernel, reject_by_the_familys_own_icmp_is_refused_for_want_of_a_code)
{
	in_nft_network([] {
		for (uint16_t family : {ip, ip6, inet, netdev}) {
			make_table_and_chain(family);
			transaction change;
			change.rule(family, {kvnft_build_expr_reject(NFT_REJECT_ICMP_UNREACH, 3)});
			EXPECT_EQ(change.send(), -EINVAL) << name_of(family);
			EXPECT_EQ(rules(), no_lines);
		}
	});
}

TEST(nft_kernel, rejections_of_bridge_are_listed)
{
	skip_if_emulated(no_netfilter);
	if (std::string reason =
			refusal_of("bridge", "add rule bridge t c reject with icmpx port-unreachable");
		!reason.empty())
		GTEST_SKIP() << "this kernel has no \"reject\" in the family bridge: " << reason;
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_PORT_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "port-unreachable"}})"})
			.check();
	});
}

TEST(nft_kernel, queue_is_listed)
{
	skip_if_emulated(no_netfilter);
	if (std::string reason = refusal_of("inet", "add rule inet t c queue num 0"); !reason.empty())
		GTEST_SKIP() << "this kernel has no \"queue\": " << reason;
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_queue(5, 0, 0)}, {R"({"queue": {"num": 5}})"})
			.add({kvnft_build_expr_queue(5, 1, NFT_QUEUE_FLAG_BYPASS)},
				{R"({"queue": {"num": 5, "flags": "bypass"}})"})
			.add({kvnft_build_expr_queue(5, 3, NFT_QUEUE_FLAG_CPU_FANOUT)},
				{R"({"queue": {"num": {"range": [5, 7]}, "flags": "fanout"}})"})
			.check();
	});
}

TEST(nft_kernel, redirect_and_masquerade_are_listed)
{
	in_nft_network([] {
		for (uint16_t family : {ip, ip6, inet}) {
			uint16_t port = htons(8080);
			transaction change;
			change.table(family)
				.base_chain(family, "c", "nat", NF_INET_PRE_ROUTING, -100)
				.base_chain(family, "d", "nat", NF_INET_POST_ROUTING, 100)
				.rule(family, {kvnft_build_expr_imm(NFT_REG_1, &port, 2),
						      kvnft_build_expr_redir(NFT_REG_1)})
				.rule(family, {kvnft_build_expr_masq()}, "d");
			EXPECT_EQ(change.send(), 0) << name_of(family);
			EXPECT_EQ(rules(),
				listing({{R"({"redirect": {"port": 8080}})"}, {R"({"masquerade": null})"}}));
			EXPECT_EQ(kvnft_del_table_simple("t", family), 0);
		}
	});
}

TEST(nft_kernel, redirect_and_masquerade_are_refused_outside_of_nat)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).base_chain(ip, "c", "filter", NF_INET_FORWARD).send(), 0);
		EXPECT_EQ(transaction().rule(ip, {kvnft_build_expr_masq()}).send(), -EOPNOTSUPP);
		uint16_t port = htons(80);
		transaction change;
		change.rule(
			ip, {kvnft_build_expr_imm(NFT_REG_1, &port, 2), kvnft_build_expr_redir(NFT_REG_1)});
		EXPECT_EQ(change.send(), -EOPNOTSUPP);
		EXPECT_EQ(rules(), no_lines);
	});
}

TEST(nft_kernel, rules_stand_in_the_order_of_their_messages)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().accept_mark(inet, 1).accept_mark(inet, 2).send(), 0);
		EXPECT_EQ(transaction().accept_mark(inet, 3).send(), 0);
		EXPECT_EQ(rules(),
			listing({{match("==", mark_key, "1"), accepts}, {match("==", mark_key, "2"), accepts},
				{match("==", mark_key, "3"), accepts}}));
	});
}

TEST(nft_kernel, rule_that_is_put_into_a_batch_twice_is_there_twice)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {kvnft_build_expr_verdict(NF_DROP)});
		EXPECT_EQ(transaction().rule(rule).rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{drops}, {drops}}));
	});
}

TEST(nft_kernel, rules_of_bridge_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", field("ether", "saddr"), R"("02:00:00:00:00:05")"), drops})
			.add({kvnft_build_expr_ether_type(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_NEQ, "\x88\x8e", 2)},
				{match("!=", field("ether", "type"), "34958")})
			.check();
	});
}

TEST(nft_kernel, rules_of_netdev_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(netdev);
		listed_rules(netdev)
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", bits("ll", 48, 48), "2199023255557"), drops})
			.check();
	});
}

TEST(nft_kernel, rules_of_arp_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(arp);
		listed_rules(arp)
			.add({kvnft_build_expr_payload(NFT_REG_1, NFT_PAYLOAD_NETWORK_HEADER, 6, 2),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, "\x00\x01", 2),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", field("arp", "operation"), R"("request")"), drops})
			.check();
	});
}

} // namespace
