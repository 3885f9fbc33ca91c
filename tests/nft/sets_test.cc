// Sets, their elements, tables and rules, as libnftnl reads them back.
#include "lib/nft.h"

#include "tests/nft/objects.h"
#include "tests/support/memory.h"

using namespace nft_objects;

namespace
{

// ---- Sets ----

attributes attributes_without_id(nftnl_set *made)
{
	owned_set set{made};
	if (!set)
		return {};
	attributes all = attributes_of(set.get());
	EXPECT_EQ(all.erase(NFTNL_SET_ID), 1u);
	return all;
}

// The first two sets of this process, made before any test makes one.
struct earliest_sets : testing::Environment {
	static inline owned_set first, second;

	void SetUp() override
	{
		if (first || testing::Test::IsSkipped())
			return;
		first.reset(kvnft_build_set("t", "a", NFPROTO_INET, 0, 4));
		second.reset(kvnft_build_set("t", "b", NFPROTO_INET, 0, 4));
	}
};
testing::Environment *const earliest = testing::AddGlobalTestEnvironment(new earliest_sets);

TEST(nft_set, ids_of_a_process_start_at_2_and_go_up)
{
	EXPECT_EQ(nftnl_set_get_u32(earliest_sets::first.get(), NFTNL_SET_ID), 2u);
	EXPECT_EQ(nftnl_set_get_u32(earliest_sets::second.get(), NFTNL_SET_ID), 3u);
}

TEST(nft_set, id_is_never_given_again)
{
	uint32_t before = 0;
	for (int i = 0; i < 100; i++) {
		owned_set set{kvnft_build_set("t", "s", NFPROTO_INET, 0, 4)};
		uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);
		EXPECT_TRUE(before == 0 || id == before + 1) << before << " and " << id;
		before = id;
	}
}

TEST(nft_set, built_with_everything_has_everything)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set("t", "clients", reg, wide, 0x090a0b0c)),
		(attributes{{NFTNL_SET_FAMILY, host32(reg)}, {NFTNL_SET_TABLE, text("t")},
			{NFTNL_SET_NAME, text("clients")}, {NFTNL_SET_FLAGS, host32(wide)},
			{NFTNL_SET_KEY_LEN, host32(0x090a0b0c)}}));
}

TEST(nft_set, flags_and_key_length_of_high_bits_only_are_there)
{
	const std::pair<uint16_t, std::string> family{NFTNL_SET_FAMILY, host32(2)};
	for (uint32_t number : {0x100u, high, 0x80000000u}) {
		EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, number, 0)),
			(attributes{family, {NFTNL_SET_FLAGS, host32(number)}}));
		EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, number)),
			(attributes{family, {NFTNL_SET_KEY_LEN, host32(number)}}));
	}
}

TEST(nft_set, built_with_nothing_has_family_and_id_only)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, 0)),
		(attributes{{NFTNL_SET_FAMILY, host32(2)}}));
}

TEST(nft_set, family_of_0_is_there)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 0, 0, 0)),
		(attributes{{NFTNL_SET_FAMILY, host32(0)}}));
}

TEST(nft_set, table_name_flags_and_key_length_come_one_by_one)
{
	const std::pair<uint16_t, std::string> family{NFTNL_SET_FAMILY, host32(2)};
	EXPECT_EQ(attributes_without_id(kvnft_build_set("t", nullptr, 2, 0, 0)),
		(attributes{family, {NFTNL_SET_TABLE, text("t")}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, "s", 2, 0, 0)),
		(attributes{family, {NFTNL_SET_NAME, text("s")}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 1, 0)),
		(attributes{family, {NFTNL_SET_FLAGS, host32(1)}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, 4)),
		(attributes{family, {NFTNL_SET_KEY_LEN, host32(4)}}));
}

TEST(nft_set, names_are_copied)
{
	std::string table = "table", name = "name";
	owned_set set{kvnft_build_set(table.c_str(), name.c_str(), 2, 0, 0)};
	table = "other", name = "else";
	EXPECT_STREQ(nftnl_set_get_str(set.get(), NFTNL_SET_TABLE), "table");
	EXPECT_STREQ(nftnl_set_get_str(set.get(), NFTNL_SET_NAME), "name");
}

// The attributes of an element with this time-out.
attributes element_with(int64_t timeout_ms)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 4)};
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, timeout_ms), 0);
	std::vector<nftnl_set_elem *> elems = elems_of(set.get());
	EXPECT_EQ(elems.size(), 1u);
	return elems.empty() ? attributes{} : attributes_of(elems[0]);
}

TEST(nft_set, element_has_key_and_timeout)
{
	EXPECT_EQ(element_with(0x0102030405060708),
		(attributes{{NFTNL_SET_ELEM_KEY, "abcd"},
			{NFTNL_SET_ELEM_TIMEOUT, host(uint64_t{0x0102030405060708})}}));
}

TEST(nft_set, element_has_a_timeout_of_0)
{
	EXPECT_EQ(element_with(0),
		(attributes{{NFTNL_SET_ELEM_KEY, "abcd"}, {NFTNL_SET_ELEM_TIMEOUT, host(uint64_t{0})}}));
}

TEST(nft_set, element_with_a_negative_timeout_has_none)
{
	EXPECT_EQ(element_with(-1), (attributes{{NFTNL_SET_ELEM_KEY, "abcd"}}));
	EXPECT_EQ(element_with(INT64_MIN), (attributes{{NFTNL_SET_ELEM_KEY, "abcd"}}));
}

TEST(nft_set, elements_stay_in_order_with_copied_keys)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 4)};
	std::string key = "key0";
	for (key[3] = '0'; key[3] <= '9'; key[3]++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), key.data(), 4, -1), 0);
	std::string order;
	for (nftnl_set_elem *elem : elems_of(set.get()))
		order += attributes_of(elem)[NFTNL_SET_ELEM_KEY][3];
	EXPECT_EQ(order, "0123456789");
}

TEST(nft_set, element_key_has_up_to_64_bytes)
{
	const std::string all = characters(64);
	for (uint32_t length : {1u, 16u, 63u, 64u}) {
		owned_set set{kvnft_build_set("t", "s", 2, 0, length)};
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), all.data(), length, -1), 0);
		EXPECT_EQ(attributes_of(elems_of(set.get())[0])[NFTNL_SET_ELEM_KEY], all.substr(0, length));
	}
}

TEST(nft_set, element_with_a_longer_key_is_refused_and_not_added)
{
	const std::string all = characters(65540);
	owned_set set{kvnft_build_set("t", "s", 2, 0, 65)};
	int blocks = memory.blocks;
	for (uint32_t length : {65u, 68u, 260u, 1000u, 65536u, 65540u})
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), all.data(), length, 1), -ENOMEM);
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), nullptr, UINT32_MAX, 1), -ENOMEM);
	EXPECT_EQ(memory.blocks, blocks);
	EXPECT_TRUE(elems_of(set.get()).empty());
}

// ---- Tables and rules ----

TEST(nft_table, has_family_and_name)
{
	owned<nftnl_table> table{kvnft_build_table("guest", reg)};
	ASSERT_TRUE(table);
	EXPECT_EQ(attributes_of(table.get()),
		(attributes{{NFTNL_TABLE_FAMILY, host32(reg)}, {NFTNL_TABLE_NAME, text("guest")}}));
}

TEST(nft_rule, has_family_table_and_chain)
{
	owned_rule rule{kvnft_build_rule(reg, "t", "c")};
	ASSERT_TRUE(rule);
	EXPECT_EQ(attributes_of(rule.get()),
		(attributes{{NFTNL_RULE_FAMILY, host32(reg)}, {NFTNL_RULE_TABLE, text("t")},
			{NFTNL_RULE_CHAIN, text("c")}}));
	EXPECT_TRUE(exprs_of(rule.get()).empty());
}

TEST(nft_rule, without_a_chain_has_none)
{
	owned_rule rule{kvnft_build_rule(2, "t", nullptr)};
	ASSERT_TRUE(rule);
	EXPECT_EQ(attributes_of(rule.get()),
		(attributes{{NFTNL_RULE_FAMILY, host32(2)}, {NFTNL_RULE_TABLE, text("t")}}));
}

TEST(nft_rule, setting_the_mark_goes_by_register_1_in_host_order)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_set_mark(rule.get(), 0x0a0b0c0d), 0);
	EXPECT_EQ(rule.exprs(),
		(exprs{{"immediate",
			       {{NFTNL_EXPR_IMM_DREG, host32(1)}, {NFTNL_EXPR_IMM_DATA, host32(0x0a0b0c0d)}}},
			{"meta", {{NFTNL_EXPR_META_KEY, host32(3)}, {NFTNL_EXPR_META_SREG, host32(1)}}}}));
}

TEST(nft_rule, rejecting_appends_a_reject)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_reject(rule.get(), 0, 3), 0);
	EXPECT_EQ(kvnft_rule_reject(rule.get(), 2, 3), 0);
	EXPECT_EQ(rule.exprs(), (exprs{{"reject", {{NFTNL_EXPR_REJECT_TYPE, host32(0)}}},
					{"reject", {{NFTNL_EXPR_REJECT_TYPE, host32(2)},
							   {NFTNL_EXPR_REJECT_CODE, "\x03"}}}}));
}

attributes verdict(uint32_t code)
{
	return {{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host32(code)}};
}

TEST(nft_rule, verdict_is_appended)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), NF_ACCEPT), 0);
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), NF_DROP), 0);
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), 255), 0);
	EXPECT_EQ(rule.exprs(),
		(exprs{{"immediate", verdict(1)}, {"immediate", verdict(0)}, {"immediate", verdict(255)}}));
}

TEST(nft_rule, verdict_is_its_low_8_bits)
{
	test_rule rule;
	int accept_and_more = 0x7f01;
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), static_cast<uint8_t>(accept_and_more)), 0);
	EXPECT_EQ(rule.exprs(), (exprs{{"immediate", verdict(1)}}));
}

} // namespace
