// nft when memory is exhausted.
#include "lib/nft.h"

#include <sched.h>

#include "lib/log.h"
#include "tests/nft/appended.h"
#include "tests/nft/refusing.h"
#include "tests/support/system_calls.h"

using namespace nft_objects;

namespace
{

// Refuses the first request for memory that `call` makes, then the second, and so on until there is none
// left. Each time it has to result in `failure`, and to leave nothing. `succeed` gets what it results
// in at last.
template <typename result, typename F, typename G>
void expect_survives(int requests_min, result failure, F call, G succeed)
{
	for (bool for_good : {false, true}) {
		int nth = 0;
		for (;; nth++) {
			result got = failure;
			int blocks = memory.blocks;
			bool refused = run_refusing(nth, for_good, [&] { got = call(); });
			int left = memory.blocks - blocks;
			if (!refused) {
				EXPECT_NE(got, failure);
				succeed(got);
				break;
			}
			EXPECT_EQ(got, failure) << "request " << nth;
			EXPECT_EQ(left, 0) << "request " << nth;
		}
		EXPECT_GE(nth, requests_min);
	}
}

template <typename F>
void expect_null_without_memory(int requests_min, F make)
{
	expect_survives(requests_min, static_cast<decltype(make())>(nullptr), make,
		[](auto *made) { releases()(made); });
}

template <typename F>
void expect_error_without_memory(int requests_min, F call)
{
	expect_survives(requests_min, -ENOMEM, call, [](int result) { EXPECT_EQ(result, 0); });
}

TEST(nft_memory, expression_that_cannot_be_had_is_null)
{
	for (auto *build : expr_builders)
		expect_null_without_memory(1, build);
}

TEST(nft_memory, lookup_whose_name_cannot_be_copied_is_null)
{
	expect_null_without_memory(2, [] { return kvnft_build_expr_lookup(1, "clients", 1, 1); });
}

TEST(nft_memory, dynset_that_cannot_be_had_is_null_and_leaves_the_expression)
{
	for (bool for_good : {false, true})
		for (int nth = 0; nth < 2; nth++) { // itself, and its copy of the name
			int blocks_before = memory.blocks;
			nftnl_expr *inner = kvnft_build_expr_limit(7, 0), *e = inner;
			int blocks = memory.blocks;
			EXPECT_TRUE(run_refusing(nth, for_good,
				[&] { e = kvnft_build_expr_dynset(reg, "clients", wide, 1, true, inner); }));
			EXPECT_EQ(e, nullptr);
			EXPECT_EQ(memory.blocks, blocks);
			expect_expr(inner, "limit", limit_without_burst(7)); // and releases it
			EXPECT_EQ(memory.blocks, blocks_before);
		}
}

TEST(nft_memory, set_that_cannot_be_had_is_null)
{
	expect_null_without_memory(3, [] { return kvnft_build_set("t", "s", 1, 1, 4); });
	expect_null_without_memory(1, [] { return kvnft_build_set(nullptr, nullptr, 1, 1, 4); });
}

TEST(nft_memory, set_that_cannot_be_had_uses_up_no_id)
{
	owned_set before{kvnft_build_set("t", "s", 1, 1, 4)};
	for (int nth = 0; nth < 3; nth++) { // itself, and its copies of both names
		nftnl_set *set = before.get();
		EXPECT_TRUE(run_refusing(nth, false, [&] { set = kvnft_build_set("t", "s", 1, 1, 4); }));
		EXPECT_EQ(set, nullptr);
	}
	owned_set after{kvnft_build_set("t", "s", 1, 1, 4)};
	EXPECT_EQ(nftnl_set_get_u32(after.get(), NFTNL_SET_ID),
		nftnl_set_get_u32(before.get(), NFTNL_SET_ID) + 1);
}

TEST(nft_memory, element_that_cannot_be_had_is_not_added)
{
	owned_set set{kvnft_build_set("t", "s", 1, 1, 4)};
	expect_error_without_memory(1, [&] { return kvnft_build_set_add_elem(set.get(), "abcd", 4, 1); });
	EXPECT_EQ(elems_of(set.get()).size(), 2u); // of the two turns that succeeded
}

TEST(nft_memory, table_that_cannot_be_had_is_null)
{
	expect_null_without_memory(2, [] { return kvnft_build_table("t", 1); });
}

TEST(nft_memory, rule_that_cannot_be_had_is_null)
{
	expect_null_without_memory(3, [] { return kvnft_build_rule(1, "t", "c"); });
	expect_null_without_memory(2, [] { return kvnft_build_rule(1, "t", nullptr); });
}

TEST(nft_memory, action_that_cannot_be_had_is_not_appended)
{
	test_rule rule;
	expect_error_without_memory(1, [&] { return kvnft_rule_reject(rule.get(), 2, 1); });
	expect_error_without_memory(1, [&] { return kvnft_rule_verdict(rule.get(), 1); });
	EXPECT_EQ(exprs_of(rule.get()).size(), 4u); // of the turns that succeeded
}

TEST(nft_memory, setting_the_mark_may_leave_its_first_half)
{
	for (bool for_good : {false, true})
		for (int nth = 0; nth < 2; nth++) {
			test_rule rule;
			int error = 0;
			EXPECT_TRUE(run_refusing(
				nth, for_good, [&] { error = kvnft_rule_set_mark(rule.get(), 5); }));
			EXPECT_EQ(error, -ENOMEM);
			exprs expected{{"immediate",
				{{NFTNL_EXPR_IMM_DREG, host32(1)}, {NFTNL_EXPR_IMM_DATA, host32(5)}}}};
			EXPECT_EQ(rule.exprs(), nth == 0 ? exprs{} : expected);
		}
	test_rule rule;
	int error = -1;
	EXPECT_FALSE(run_refusing(2, false, [&] { error = kvnft_rule_set_mark(rule.get(), 5); }));
	EXPECT_EQ(error, 0);
}

TEST(nft_memory, batch_that_cannot_be_had_is_null)
{
	const size_t limit = 4096;
	owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
	for (bool for_good : {false, true}) {
		mnl_nlmsg_batch *batch = nullptr;
		int blocks = memory.blocks;
		EXPECT_TRUE(run_refusing(
			0, for_good, [&] { batch = kvnft_batch_alloc_start(buf.get(), limit, 0); }));
		EXPECT_EQ(batch, nullptr);
		EXPECT_EQ(memory.blocks, blocks);
	}
}

TEST(nft_memory, message_that_cannot_be_had_is_not_appended)
{
	const std::pair<int, std::function<int(mnl_nlmsg_batch *)>> calls[] = {
		{2, [](auto *batch) { return kvnft_batch_add_table_simple(batch, "t", 1, 1); }},
		{2, [](auto *batch) { return kvnft_batch_del_table_simple(batch, "t", 1, 1); }},
		{5,
			[](auto *batch) {
				return kvnft_batch_add_chain_simple(batch, "c", "t", "nat", 1, 1, 0, "e", 1);
			}},
		{3, [](auto *batch) { return kvnft_batch_flush_chain_simple(batch, "c", "t", 1, 1); }},
		{2, [](auto *batch) { return kvnft_batch_flush_table_simple(batch, "t", 1, 1); }},
		{6, [](auto *batch) { return kvnft_batch_accept_mark(batch, 1, "t", "c", 1, 1); }},
		{6, [](auto *batch) { return kvnft_batch_accept_mark_neq(batch, 1, "t", "c", 1, 1); }},
	};
	for (const auto &[requests_min, call] : calls) {
		test_batch batch;
		expect_error_without_memory(
			requests_min, [&, &append = call] { return append(batch.get()); });
		EXPECT_EQ(batch.messages().size(), 2u); // of the turns that succeeded
	}
}

// A long message is built in memory of its own; so is a list, to measure its length.
TEST(nft_memory, long_message_that_cannot_be_had_leaves_the_batch_as_it_is)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	for (int i = 0; i < 4000; i++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, -1), 0);
	owned_rule rule = long_rule();
	const std::pair<int, std::function<int(mnl_nlmsg_batch *)>> calls[] = {
		{1, [&](auto *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); }},
		{2, [&](auto *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 1); }},
	};
	for (const auto &[requests_min, append] : calls) {
		test_batch batch(1 << 18);
		ASSERT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
		const std::string before = batch.buffer();
		bool refused = true;
		int nth = 0, blocks = memory.blocks;
		for (; refused; nth++) {
			int error = 0;
			refused =
				run_refusing(nth, false, [&, &call = append] { error = call(batch.get()); });
			EXPECT_EQ(error, refused ? -ENOMEM : 0);
			EXPECT_TRUE(!refused || batch.buffer() == before) << nth;
			EXPECT_EQ(memory.blocks, blocks);
		}
		EXPECT_EQ(nth - 1, requests_min);
		EXPECT_EQ(batch.messages().size(), 2u);
	}
}

TEST(nft_memory, message_of_an_object_released_by_a_refusal_leaves_no_block)
{
	test_batch full(20);
	int blocks = memory.blocks;
	EXPECT_EQ(kvnft_batch_add_table_simple(full.get(), "t", 1, 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_add_chain_simple(full.get(), "c", "t", "nat", 1, 1, 0, "e", 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_flush_chain_simple(full.get(), "c", "t", 1, 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_accept_mark(full.get(), 1, "t", "c", 1, 1), -ENOMEM);
	EXPECT_EQ(memory.blocks, blocks);
}

// A whole change with one request after the other refused, each in a process of its own: that for its buffer
// ends the process. With any other, nothing is sent and nothing is left.
void expect_change_survives(int (*change_all)())
{
	skip_if_emulated(no_netfilter);
	int ended = 0;
	for (int nth = 0;; nth++) {
		child_result child = run_child([=] {
			set_app_name("app");
			ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
			std::set<int> fds = open_descriptors();
			bool sent = false;
			auto watch = system_calls::sendto.replace([&](auto... arguments) {
				sent = true;
				return system_calls::sendto.next(arguments...);
			});
			int result = 0, blocks = memory.blocks;
			bool refused = run_refusing(nth, false, [&] { result = change_all(); });
			EXPECT_EQ(memory.blocks, blocks);
			EXPECT_EQ(result, refused ? -ENOMEM : -ENOENT);
			EXPECT_EQ(sent, !refused);
			EXPECT_EQ(open_descriptors(), fds);
			if (!refused)
				fputs("complete", stderr);
		});
		if (child.killed_by(SIGABRT) && child.err == "app: out of memory\n") {
			ended++;
			continue;
		}
		ASSERT_TRUE(child.exited_with(0)) << "request " << nth << ": " << child.report();
		if (child.err == "complete")
			break;
	}
	EXPECT_EQ(ended, 1);
}

TEST(nft_memory, flush_of_a_chain_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_flush_chain_simple("c", "t", NFPROTO_INET); });
}

TEST(nft_memory, flush_of_a_table_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_flush_table_simple("t", NFPROTO_INET); });
}

TEST(nft_memory, deletion_of_a_table_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_del_table_simple("t", NFPROTO_INET); });
}

TEST(nft_memory, deletion_of_a_chain_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_del_chain_simple("c", "t", NFPROTO_INET); });
}

} // namespace
