// nft on the kernel: sets, their elements, and the elements that packets add.
#include "tests/nft/kernel/kernel.h"

#include <gmock/gmock.h>
#include <libnftnl/common.h>

using namespace kernel_support;

namespace
{

// ---- Sets ----

TEST(nft_kernel, set_is_listed_with_its_elements)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		EXPECT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(ruleset().back(), plain(R"({"set": {"family": "inet", "table": "t", "name": "s",
			"type": "ether_addr", "elem": ["02:00:00:00:00:05", "02:00:00:00:00:06"]}})"));
	});
}

TEST(nft_kernel, sets_of_every_family_are_made)
{
	in_nft_network([] {
		for (uint16_t family : families) {
			owned_set set = make_set(family, 0, type_ether);
			add_phone(set);
			EXPECT_EQ(transaction().table(family).set(set).elements_of(set).send(), 0)
				<< name_of(family);
			EXPECT_EQ(elements(name_of(family)), plain(R"(["02:00:00:00:00:05"])"));
		}
	});
}

TEST(nft_kernel, elements_are_listed_with_their_time_outs)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
		add_phone(set, 3'600'000);
		add_laptop(set);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "\x02\0\0\0\0\x07", 6, 0), 0);
		EXPECT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(elements(), plain(R"([{"elem": {"val": "02:00:00:00:00:05", "timeout": 3600}},
			"02:00:00:00:00:06", "02:00:00:00:00:07"])"));
	});
}

TEST(nft_kernel, element_is_gone_when_its_time_is_out)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
		add_phone(set, 50);
		add_laptop(set, 3'600'000);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string left = plain(R"([{"elem": {"val": "02:00:00:00:00:06", "timeout": 3600}}])");
		EXPECT_TRUE(eventually([&] { return elements() == left; })) << elements();
	});
}

// A set with a default time-out for its elements.
owned_set make_set_with_default(uint64_t timeout_ms)
{
	owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
	nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, timeout_ms);
	add_phone(set, -1);
	add_laptop(set, 0);
	return set;
}

TEST(nft_kernel, element_without_a_time_out_gets_that_of_its_set_and_one_of_0_none)
{
	in_nft_network([] {
		owned_set set = make_set_with_default(60'000);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string listed = must_run("nft list set inet t s");
		EXPECT_THAT(listed, testing::ContainsRegex("timeout 1m\n"));
		EXPECT_THAT(
			listed, testing::ContainsRegex("\\{ 02:00:00:00:00:05 expires [0-9a-z]+,[[:space:]]+"
						       "02:00:00:00:00:06 \\}"));
	});
}

TEST(nft_kernel, element_with_a_time_out_of_0_stays_when_that_of_its_set_is_out)
{
	in_nft_network([] {
		owned_set set = make_set_with_default(50);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string left = plain(R"(["02:00:00:00:00:06"])");
		EXPECT_TRUE(eventually([&] { return elements() == left; })) << elements();
	});
}

TEST(nft_kernel, element_with_a_time_out_is_refused_by_a_set_without)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		add_phone(set, 0); // even "for ever"
		EXPECT_EQ(transaction().elements_of(set).send(), -EINVAL);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, elements_are_deleted)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		owned_set blocked = make_set(inet, 0, type_ether);
		add_phone(blocked);
		EXPECT_EQ(transaction().del_elements_of(blocked).send(), 0);
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:06"])"));
		EXPECT_EQ(transaction().del_elements_of(blocked).send(), -ENOENT);
	});
}

TEST(nft_kernel, set_without_elements_deletes_all_of_them)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(transaction().del_elements_of(make_set(inet, 0, type_ether)).send(), 0);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, element_that_is_there_already_is_no_error)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(transaction().elements_of(set).send(), 0);
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:05"])"));
	});
}

TEST(nft_kernel, element_of_another_length_is_refused)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, -1), 0);
		EXPECT_EQ(transaction().elements_of(set).send(), -EINVAL);
	});
}

TEST(nft_kernel, set_is_deleted)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		EXPECT_EQ(transaction().del_set(set).send(), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_kernel, thousands_of_elements_go_in_one_message)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ipv4);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		for (uint32_t index = 0; index < 4000; index++) {
			uint32_t address = htonl(0x0a000000 + index);
			ASSERT_EQ(kvnft_build_set_add_elem(set.get(), &address, 4, -1), 0);
		}
		EXPECT_EQ(transaction().elements_of(set).send(), 0);
		json listed = parse_json(elements());
		EXPECT_EQ(json_array_size(listed.get()), 4000U);
		EXPECT_EQ(transaction().del_elements_of(set).send(), 0);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, rule_of_eighty_expressions_fits_the_conventional_batch)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {});
		for (uint32_t pair = 0; pair < 40; pair++) {
			nftnl_rule_add_expr(
				rule.get(), kvnft_build_expr_payload(1, NFT_PAYLOAD_NETWORK_HEADER, 16, 4));
			nftnl_rule_add_expr(rule.get(), kvnft_build_expr_cmp(1, NFT_CMP_NEQ, &pair, 4));
		}
		transaction change(4096);
		EXPECT_EQ(change.rule(rule).send(), 0);
		ASSERT_EQ(rules().size(), 1U);
		json listed = parse_json(rules()[0]);
		EXPECT_EQ(json_array_size(listed.get()), 40U);
	});
}

TEST(nft_kernel, hundreds_of_elements_go_in_several_messages)
{
	in_nft_network([] {
		transaction change;
		owned_set set = make_set(inet, 0, type_ipv4);
		change.table(inet).set(set);
		for (uint32_t first = 0; first < 1000; first += 100) {
			owned_set part = make_set(inet, 0, type_ipv4);
			for (uint32_t index = first; index < first + 100; index++) {
				uint32_t address = htonl(0x0a000000 + index);
				ASSERT_EQ(kvnft_build_set_add_elem(part.get(), &address, 4, -1), 0);
			}
			change.elements_of(part);
		}
		EXPECT_EQ(change.send(), 0);
		json listed = parse_json(elements());
		EXPECT_EQ(json_array_size(listed.get()), 1000U);
	});
}

TEST(nft_kernel, lookups_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		owned_set set = make_set(bridge, 0, type_ether);
		listed_rules list(bridge);
		list.change().set(set);
		list.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				 kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0),
				 kvnft_build_expr_verdict(NF_DROP)},
			    {match("==", field("ether", "saddr"), R"("@s")"), drops})
			.add({kvnft_build_expr_ether_daddr(NFT_REG_1),
				     kvnft_build_expr_lookup(NFT_REG_1, "s", 0, NFT_LOOKUP_F_INV)},
				{match("!=", field("ether", "daddr"), R"("@s")")})
			.check();
	});
}

TEST(nft_kernel, set_is_made_and_used_by_name_in_one_batch)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		transaction change;
		change.table(inet).chain(inet).set(set).elements_of(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(rules(), listing({{match("==", bits("ll", 48, 48), R"("@s")")}}));
	});
}

// There are two sets, so that only the id tells which one is meant.
TEST(nft_kernel, set_is_made_and_used_by_id_in_one_batch)
{
	in_nft_network([] {
		owned_set first = make_set(inet, 0, type_ether, "first");
		owned_set second = make_set(inet, 0, type_ether, "second");
		transaction change;
		change.table(inet).chain(inet).set(first).set(second);
		for (const owned_set *set : {&second, &first})
			change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						  kvnft_build_expr_lookup(NFT_REG_1, "any", id_of(*set), 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(rules(), listing({
					   {match("==", bits("ll", 48, 48), R"("@second")")},
					   {match("==", bits("ll", 48, 48), R"("@first")")},
				   }));
	});
}

// The library can write it, but the kernel also wants a name, whichever.
TEST(nft_kernel, lookup_by_id_alone_is_refused)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		transaction change;
		change.table(inet).chain(inet).set(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, nullptr, id_of(set), 0)});
		EXPECT_EQ(change.send(), -EINVAL);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, set_ids_hold_in_their_own_batch_only)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().set(set).send(), 0);
		transaction change;
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "any", id_of(set), 0)});
		EXPECT_EQ(change.send(), -ENOENT);
	});
}

TEST(nft_kernel, anonymous_set_is_bound_by_its_id)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_ANONYMOUS | NFT_SET_CONSTANT, type_ether, "__set%d");
		add_phone(set);
		transaction change;
		change.table(inet).chain(inet).set(set).elements_of(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, "__set%d", id_of(set), 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_THAT(must_run("nft list ruleset"), testing::HasSubstr("02:00:00:00:00:05"));
		EXPECT_EQ(rules().size(), 1U);
	});
}

// ---- Elements that packets add ----

constexpr uint32_t dynamic_flags = NFT_SET_EVAL | NFT_SET_TIMEOUT;

TEST(nft_kernel, dynset_with_a_limit_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		ASSERT_EQ(transaction().set(set).send(), 0);
		listed_rules(ip)
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), 5000, true,
					     kvnft_build_expr_limit(1000, 500)),
				     kvnft_build_expr_verdict(NF_DROP)},
				{element_of_s("update",
					 R"({"elem": {"timeout": 5, "val": )" + field("ip", "daddr") + "}}",
					 over("1000", "500")),
					drops})
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), 0, false,
					     kvnft_build_expr_limit(1000, 500))},
				{element_of_s("add", field("ip", "daddr"), over("1000", "500"))})
			.check();
	});
}

TEST(nft_kernel, dynset_finds_a_set_of_its_own_batch_by_id)
{
	in_nft_network([] {
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		transaction change;
		change.table(ip).chain(ip).set(set).rule(
			ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
				    kvnft_build_expr_dynset(NFT_REG_1, "any", id_of(set), 1000, true,
					    kvnft_build_expr_limit(1, 1))});
		EXPECT_EQ(change.send(), 0);
		EXPECT_THAT(rules().back(), testing::HasSubstr(R"("set":"@s")"));
	});
}

TEST(nft_kernel, dynset_is_refused_where_the_set_does_not_fit)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set fixed = make_set(ip, 0, type_ipv4, "fixed");
		owned_set eternal = make_set(ip, NFT_SET_EVAL, type_ipv4, "eternal");
		ASSERT_EQ(transaction().set(fixed).set(eternal).send(), 0);
		auto result_of = [](const char *name, int64_t timeout_ms) {
			transaction change;
			change.rule(ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
						kvnft_build_expr_dynset(NFT_REG_1, name, 0, timeout_ms, true,
							kvnft_build_expr_limit(1, 1))});
			return change.send();
		};
		EXPECT_EQ(result_of("fixed", 0), -EINVAL);
		EXPECT_EQ(result_of("eternal", 1000), -EOPNOTSUPP);
		EXPECT_EQ(result_of("missing", 0), -ENOENT);
		EXPECT_EQ(result_of("eternal", 0), 0);
	});
}

TEST(nft_kernel, negative_time_out_of_a_dynset_is_out_of_range)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		transaction change;
		change.set(set).rule(ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
						 kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), -5, true,
							 kvnft_build_expr_limit(1, 1))});
		EXPECT_EQ(change.send(), -ERANGE);
	});
}

} // namespace
