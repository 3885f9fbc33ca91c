// nft on the kernel: changes that the kernel refuses, and the error that the caller gets.
#include "tests/nft/kernel/kernel.h"

#include <gmock/gmock.h>
#include <grp.h>

using namespace kernel_support;

namespace
{

TEST(nft_kernel, what_is_missing_is_not_found)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		EXPECT_EQ(transaction().del_table(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().chain(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().set(set).send(), -ENOENT);
		EXPECT_EQ(transaction().flush_table(inet).send(), -ENOENT);
		ASSERT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(transaction().flush_chain(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().accept_mark(inet, 1).send(), -ENOENT);
		EXPECT_EQ(transaction().elements_of(set).send(), -ENOENT);
		EXPECT_EQ(transaction().del_elements_of(set).send(), -ENOENT);
		EXPECT_EQ(transaction().del_set(set).send(), -ENOENT);
		ASSERT_EQ(transaction().chain(inet).send(), 0);
		transaction change;
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0)});
		EXPECT_EQ(change.send(), -ENOENT);
	});
}

TEST(nft_kernel, another_thing_of_the_same_name_exists)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().base_chain(inet, "c", "filter", NF_INET_FORWARD).send(), -EEXIST);
		ASSERT_EQ(transaction().set(make_set(inet, 0, type_ether)).send(), 0);
		EXPECT_EQ(transaction().set(make_set(inet, NFT_SET_TIMEOUT, type_ether)).send(), -EEXIST);
		EXPECT_EQ(transaction().set(make_set(inet, 0, type_ipv4)).send(), -EEXIST);
	});
}

TEST(nft_kernel, what_is_in_use_is_busy)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		transaction change;
		change.table(inet).chain(inet, "c").chain(inet, "target").set(set);
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0), jump_to("target")});
		ASSERT_EQ(change.send(), 0);
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(kvnft_del_chain_simple("target", "t", inet), -EBUSY);
		EXPECT_EQ(transaction().del_set(set).send(), -EBUSY);
		EXPECT_EQ(ruleset(), before);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(kvnft_del_chain_simple("target", "t", inet), 0);
		EXPECT_EQ(transaction().del_set(set).send(), 0);
	});
}

TEST(nft_kernel, unknown_family_is_not_supported)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(NFPROTO_UNSPEC).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().table(99).send(), -EOPNOTSUPP);
	});
}

TEST(nft_kernel, values_that_make_no_sense_are_refused)
{
	in_nft_network([] {
		make_table_and_chain();
		auto result_of = [](nftnl_expr *expression) {
			return transaction().rule(inet, {expression}).send();
		};
		EXPECT_EQ(result_of(kvnft_build_expr_limit(0, 5)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_limit(UINT64_MAX, 5)), -EOVERFLOW);
		EXPECT_EQ(result_of(kvnft_build_expr_verdict(77)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_reject(3, 0)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_reject(NFT_REJECT_ICMPX_UNREACH, 9)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_meta(255, NFT_REG_1)), -EOPNOTSUPP);
		EXPECT_EQ(rules(), no_lines);
	});
}

TEST(nft_kernel, name_longer_than_the_kernels_is_refused)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(inet, std::string(NFT_TABLE_MAXNAMELEN, 'x').c_str()).send(),
			-ERANGE);
		std::string longest(NFT_TABLE_MAXNAMELEN - 1, 'x');
		EXPECT_EQ(transaction().table(inet, longest.c_str()).send(), 0);
		EXPECT_THAT(ruleset().back(), testing::HasSubstr(longest));
	});
}

TEST(nft_kernel, process_without_the_capability_is_not_permitted)
{
	in_nft_network([] {
		make_table_and_chain();
		std::vector<std::string> before = ruleset();
		expect_in_child([] {
			ASSERT_EQ(setgroups(0, nullptr), 0);
			ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			EXPECT_EQ(transaction().send(), -EPERM);
			EXPECT_EQ(transaction().accept_mark(inet, 1).send(), -EPERM);
			EXPECT_EQ(kvnft_del_table_simple("t", inet), -EPERM);
			EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), -EPERM);
			EXPECT_EQ(kvnft_flush_table_simple("t", inet), -EPERM);
			EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), -EPERM);
		});
		EXPECT_EQ(ruleset(), before);
	});
}

TEST(nft_kernel, batch_with_one_bad_message_changes_nothing)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(transaction()
				  .table(ip)
				  .chain(inet, "d")
				  .flush_chain(inet)
				  .accept_mark(inet, 2)
				  .flush_chain(inet, "missing") // the bad one
				  .accept_mark(inet, 3)
				  .del_table(inet)
				  .send(),
			-ENOENT);
		EXPECT_EQ(ruleset(), before);
	});
}

TEST(nft_kernel, first_of_several_refusals_is_the_result)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).send(), 0);
		EXPECT_EQ(transaction()
				  .base_chain(ip, "c", "nat", NF_INET_FORWARD)
				  .chain(inet, "missing table")
				  .send(),
			-EOPNOTSUPP);
		EXPECT_EQ(transaction()
				  .chain(inet, "missing table")
				  .base_chain(ip, "c", "nat", NF_INET_FORWARD)
				  .send(),
			-ENOENT);
	});
}

TEST(nft_kernel, batch_of_begin_and_end_alone_succeeds)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().send(), 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, batch_without_its_end_changes_nothing)
{
	in_nft_network([] {
		transaction change;
		change.table(inet);
		EXPECT_EQ(kvnft_batch_send(change.get()), 0) << "the kernel says nothing";
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, batch_may_be_sent_again)
{
	in_nft_network([] {
		make_table_and_chain();
		transaction change;
		change.accept_mark(inet, 1).finish();
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(rules().size(), 2U);
	});
}

TEST(nft_kernel, message_that_did_not_fit_is_not_sent)
{
	in_nft_network([] {
		make_table_and_chain();
		transaction change(500);
		size_t count = 0;
		while (kvnft_batch_accept_mark(change.get(), inet, "t", "c", 1, 1) == 0)
			count++;
		EXPECT_EQ(kvnft_batch_accept_mark(change.get(), inet, "t", "c", 1, 1), -ENOMEM) << "again";
		ASSERT_GT(count, 0U);
		EXPECT_EQ(change.send(), 0); // the end is shorter than a rule
		EXPECT_EQ(rules().size(), count);
	});
}

} // namespace
