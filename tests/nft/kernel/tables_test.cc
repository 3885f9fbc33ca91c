// nft on the kernel: tables and chains are made, flushed and deleted.
#include "tests/nft/kernel/kernel.h"

#include <gmock/gmock.h>

using namespace kernel_support;

namespace
{

// ---- Tables and chains ----

TEST(nft_kernel, tables_of_every_family_are_made)
{
	in_nft_network([] {
		transaction change;
		for (uint16_t family : families)
			change.table(family, (std::string(name_of(family)) + "_table").c_str());
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(ruleset(), plain({
					     R"({"table": {"family": "ip", "name": "ip_table"}})",
					     R"({"table": {"family": "ip6", "name": "ip6_table"}})",
					     R"({"table": {"family": "inet", "name": "inet_table"}})",
					     R"({"table": {"family": "arp", "name": "arp_table"}})",
					     R"({"table": {"family": "bridge", "name": "bridge_table"}})",
					     R"({"table": {"family": "netdev", "name": "netdev_table"}})",
				     }));
	});
}

TEST(nft_kernel, table_is_deleted_in_its_family_only)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).table(bridge).send(), 0);
		EXPECT_EQ(transaction().del_table(bridge).send(), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "ip", "name": "t"}})"}));
	});
}

TEST(nft_kernel, table_is_made_and_deleted_in_one_transaction)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(inet).chain(inet).del_table(inet).send(), 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, table_that_is_there_already_is_left_as_it_is)
{
	in_nft_network([] {
		make_table_and_chain();
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(ruleset(), before);
	});
}

struct base_chain {
	const char *type;
	int32_t hook;
	const char *hook_name;
	int32_t priority;
	const char *device = nullptr;
};

// Each is made in the table "t", and listed with what it was made of.
void expect_base_chains(uint16_t family, const std::vector<base_chain> &chains)
{
	transaction change;
	change.table(family);
	std::vector<std::string> expected;
	std::string in_family = std::string(R"("family": ")") + name_of(family) + "\"";
	expected.push_back(plain("{\"table\": {" + in_family + R"(, "name": "t"}})"));
	for (const base_chain &chain : chains) {
		std::string name = "chain" + std::to_string(expected.size());
		change.base_chain(family, name.c_str(), chain.type, chain.hook, chain.priority, chain.device);
		expected.push_back(plain("{\"chain\": {" + in_family + R"(, "table": "t", "name": ")" + name +
					 R"(", "type": ")" + chain.type + R"(", "hook": ")" +
					 chain.hook_name + R"(", "prio": )" + std::to_string(chain.priority) +
					 R"(, "policy": "accept"}})"));
	}
	EXPECT_EQ(change.send(), 0);
	EXPECT_EQ(ruleset(), expected);
}

const std::vector<base_chain> routed_chains = {
	{"filter", NF_INET_PRE_ROUTING, "prerouting", -300},
	{"filter", NF_INET_LOCAL_IN, "input", 0},
	{"filter", NF_INET_FORWARD, "forward", 0},
	{"filter", NF_INET_LOCAL_OUT, "output", 7},
	{"filter", NF_INET_POST_ROUTING, "postrouting", INT32_MAX},
	{"nat", NF_INET_PRE_ROUTING, "prerouting", -100},
	{"nat", NF_INET_LOCAL_IN, "input", 100},
	{"nat", NF_INET_LOCAL_OUT, "output", -100},
	{"nat", NF_INET_POST_ROUTING, "postrouting", 100},
	{"route", NF_INET_LOCAL_OUT, "output", -150},
};

TEST(nft_kernel, base_chains_of_ip_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(ip, routed_chains); });
}

TEST(nft_kernel, base_chains_of_ip6_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(ip6, routed_chains); });
}

TEST(nft_kernel, base_chains_of_inet_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(inet, routed_chains); });
}

TEST(nft_kernel, base_chains_of_bridge_are_made_at_every_hook)
{
	in_nft_network([] {
		expect_base_chains(bridge, {
						   {"filter", NF_INET_PRE_ROUTING, "prerouting", -300},
						   {"filter", NF_INET_LOCAL_IN, "input", 0},
						   {"filter", NF_INET_FORWARD, "forward", -200},
						   {"filter", NF_INET_LOCAL_OUT, "output", 0},
						   {"filter", NF_INET_POST_ROUTING, "postrouting", 300},
					   });
	});
}

TEST(nft_kernel, base_chains_of_arp_are_made_at_both_hooks)
{
	in_nft_network([] {
		expect_base_chains(arp, {{"filter", 0, "input", 0}, {"filter", 1, "output", -1}});
	});
}

// `nft` 1.0.6 names the device in its own language only.
TEST(nft_kernel, base_chains_of_netdev_are_bound_to_their_device)
{
	in_nft_network([] {
		must_run("ip link add dev wlan0 type veth peer name peer0");
		expect_base_chains(netdev, {
						   {"filter", NF_NETDEV_INGRESS, "ingress", -500, "wlan0"},
						   {"filter", NF_NETDEV_EGRESS, "egress", 0, "peer0"},
					   });
		std::string text = must_run("nft list ruleset");
		EXPECT_THAT(
			text, testing::HasSubstr("type filter hook ingress device \"wlan0\" priority -500"));
		EXPECT_THAT(
			text, testing::HasSubstr("type filter hook egress device \"peer0\" priority filter"));
	});
}

TEST(nft_kernel, base_chain_of_inet_at_ingress_is_bound_to_its_device)
{
	in_nft_network([] {
		must_run("ip link add dev wlan0 type veth peer name peer0");
		expect_base_chains(inet, {{"filter", NF_INET_INGRESS, "ingress", 0, "wlan0"}});
		EXPECT_THAT(must_run("nft list ruleset"), testing::HasSubstr("ingress device \"wlan0\""));
	});
}

TEST(nft_kernel, base_chain_without_a_type_filters)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).base_chain(ip, "c", nullptr, NF_INET_FORWARD, 3).send(), 0);
		EXPECT_EQ(ruleset().back(), plain(R"({"chain": {"family": "ip", "table": "t", "name": "c",
			"type": "filter", "hook": "forward", "prio": 3, "policy": "accept"}})"));
	});
}

TEST(nft_kernel, chain_without_a_hook_is_regular_though_it_has_a_priority)
{
	in_nft_network([] {
		for (uint16_t family : families) {
			transaction change;
			change.table(family);
			ASSERT_EQ(kvnft_batch_add_chain_simple(
					  change.get(), "c", "t", nullptr, -1, family, -7, nullptr, 2),
				0);
			EXPECT_EQ(change.send(), 0) << name_of(family);
			EXPECT_EQ(ruleset().back(),
				plain(std::string(R"({"chain": {"family": ")") + name_of(family) +
					R"(", "table": "t", "name": "c"}})"));
			EXPECT_EQ(kvnft_del_table_simple("t", family), 0);
		}
	});
}

TEST(nft_kernel, base_chain_is_refused_where_its_type_and_hook_do_not_go_together)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).send(), 0);
		EXPECT_EQ(transaction().base_chain(ip, "c", "nat", NF_INET_FORWARD).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "route", NF_INET_LOCAL_IN).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "filter", 99).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "no such type", NF_INET_FORWARD).send(), -ENOENT);
		EXPECT_EQ(rules(), no_lines);
	});
}

// ---- Flushing and deleting ----

TEST(nft_kernel, flushed_chain_is_empty_and_others_are_not)
{
	in_nft_network([] {
		ASSERT_EQ(transaction()
				  .table(inet)
				  .chain(inet, "c")
				  .chain(inet, "d")
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_ACCEPT)}, "d")
				  .send(),
			0);
		EXPECT_EQ(transaction().flush_chain(inet, "c").send(), 0);
		EXPECT_EQ(rules(), listing({{accepts}}));
		EXPECT_EQ(ruleset().size(), 4U) << "a table, two chains and a rule";
	});
}

TEST(nft_kernel, flushed_table_keeps_chains_and_sets)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		ASSERT_EQ(transaction()
				  .table(inet)
				  .chain(inet, "c")
				  .chain(inet, "d")
				  .set(set)
				  .elements_of(set)
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_ACCEPT)}, "d")
				  .send(),
			0);
		EXPECT_EQ(transaction().flush_table(inet).send(), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(ruleset().size(), 4U) << "a table, two chains and a set";
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:05"])"));
	});
}

TEST(nft_kernel, chain_is_flushed_and_filled_again_in_one_transaction)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).accept_mark(inet, 2).send(), 0);
		EXPECT_EQ(transaction()
				  .flush_chain(inet)
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_EQ(rules(), listing({{drops}}));
	});
}

TEST(nft_kernel, one_call_flushes_a_chain)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0) << "an empty one";
		EXPECT_EQ(kvnft_flush_chain_simple("d", "t", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "u", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", ip), -ENOENT);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_kernel, one_call_flushes_a_table)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_flush_table_simple("t", inet), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(kvnft_flush_table_simple("t", inet), 0) << "an empty one";
		EXPECT_EQ(kvnft_flush_table_simple("u", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_table_simple("t", ip), -ENOENT);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_kernel, one_call_deletes_a_chain)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), -ENOENT);
		EXPECT_EQ(kvnft_del_chain_simple("c", "u", inet), -ENOENT);
	});
}

TEST(nft_kernel, one_call_deletes_a_base_chain_with_its_rules)
{
	in_nft_network([] {
		ASSERT_EQ(transaction()
				  .table(inet)
				  .base_chain(inet, "c", "filter", NF_INET_FORWARD, 5)
				  .accept_mark(inet, 1)
				  .send(),
			0);
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_kernel, one_call_deletes_a_table_with_all_that_is_in_it)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).chain(inet).set(set).accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), 0);
		EXPECT_EQ(ruleset(), no_lines);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -ENOENT);
	});
}

} // namespace
