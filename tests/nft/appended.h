// Helpers of the tests of nft without the kernel: every function that appends a message, and messages appended
// to batches of any size.
#pragma once
#include "tests/nft/objects.h"

namespace nft_objects
{

struct append_case {
	const char *name;
	std::function<int(mnl_nlmsg_batch *batch, uint32_t seq)> append;
};

// Each has names of one byte, and a family with more bits than any field.
class nft_append : public testing::Test
{
protected:
	const uint32_t family = 0x01020307;
	owned_set set{kvnft_build_set("t", "s", family, 0, 4)};
	owned_rule rule{kvnft_build_rule(family, "t", "c")};
	std::vector<append_case> cases = {
		{"add_set",
			[this](auto *batch, auto seq) { return kvnft_batch_add_set(batch, set.get(), seq); }},
		{"del_set",
			[this](auto *batch, auto seq) { return kvnft_batch_del_set(batch, set.get(), seq); }},
		{"add_set_elem",
			[this](auto *batch, auto seq) {
				return kvnft_batch_add_set_elem(batch, set.get(), seq);
			}},
		{"del_set_elem",
			[this](auto *batch, auto seq) {
				return kvnft_batch_del_set_elem(batch, set.get(), seq);
			}},
		{"add_rule", [this](auto *batch,
				     auto seq) { return kvnft_batch_add_rule(batch, rule.get(), seq); }},
		{"add_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_add_table_simple(batch, "t", family, seq);
			}},
		{"del_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_del_table_simple(batch, "t", family, seq);
			}},
		{"add_chain_simple",
			[](auto *batch, auto seq) {
				return kvnft_batch_add_chain_simple(
					batch, "c", "t", "filter", 1, 0x0307, 0, "e", seq);
			}},
		{"flush_chain_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_flush_chain_simple(batch, "c", "t", family, seq);
			}},
		{"flush_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_flush_table_simple(batch, "t", family, seq);
			}},
		{"accept_mark",
			[this](auto *batch, auto seq) {
				return kvnft_batch_accept_mark(batch, family, "t", "c", 5, seq);
			}},
		{"accept_mark_neq",
			[this](auto *batch, auto seq) {
				return kvnft_batch_accept_mark_neq(batch, family, "t", "c", 5, seq);
			}},
		{"finish", [](auto *batch, auto seq) { return kvnft_batch_finish(batch, seq); }},
	};
	nft_append() { EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, 1), 0); }
};

inline constexpr size_t ample = 1 << 19; // for the longest message that there can be, and more

// Appends to a batch with space for `bytes` of messages. Returns what has been appended; empty if it is refused.
inline std::string appended_within(size_t bytes, const std::function<int(mnl_nlmsg_batch *)> &append)
{
	test_batch batch(20 + bytes); // looks at its guards
	std::string before = batch.buffer();
	int error = append(batch.get());
	if (error == 0)
		return batch.bytes().substr(20);
	EXPECT_EQ(error, -ENOMEM);
	EXPECT_EQ(batch.size(), 20u);
	EXPECT_TRUE(bytes != ample || batch.buffer() == before) << "written though nothing could be appended";
	return "";
}

// The message that is accepted wherever there is space for it, to the last byte, and nowhere else. Empty: it is
// refused whatever the space.
inline std::string message_that_fits(const std::function<int(mnl_nlmsg_batch *)> &append)
{
	std::string message = appended_within(ample, append);
	if (message.empty())
		return message;
	EXPECT_EQ(appended_within(message.size(), append).size(), message.size());
	EXPECT_EQ(appended_within(message.size() - 1, append).size(), 0u) << message.size();
	EXPECT_EQ(appended_within(0, append).size(), 0u) << message.size();
	return message;
}

// A payload takes 52 bytes, a comparison of four bytes 44; the headers, names and the list take 40.
inline void add_pairs(nftnl_rule *rule, int count)
{
	for (int i = 0; i < count; i++) {
		nftnl_rule_add_expr(rule, kvnft_build_expr_ip_daddr(1));
		nftnl_rule_add_expr(rule, kvnft_build_expr_cmp(1, NFT_CMP_EQ, "abcd", 4));
	}
}

// A rule whose message cannot be built at the batch's end.
inline owned_rule long_rule(int pairs = 100)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	add_pairs(rule.get(), pairs);
	return rule;
}

} // namespace nft_objects
