// Batches: what is appended, what does not fit, and what is sent.
#include "lib/nft.h"

#include <dlfcn.h>
#include <sched.h>

#include "tests/nft/appended.h"
#include "tests/support/memory.h"
#include "tests/support/system_calls.h"

using namespace nft_objects;

// What NFTNL_CHAIN_PRIO of chains was set to, and how often.
static struct {
	int32_t value;
	int count;
} priority;

extern "C" void nftnl_chain_set_s32(nftnl_chain *chain, uint16_t attribute, int32_t value)
{
	static const auto real =
		reinterpret_cast<decltype(&nftnl_chain_set_s32)>(dlsym(RTLD_NEXT, "nftnl_chain_set_s32"));
	if (attribute == NFTNL_CHAIN_PRIO) {
		priority.value = value;
		priority.count++;
	}
	real(chain, attribute, value);
}

namespace
{

// ---- Every function that appends a message ----

TEST_F(nft_append, sequence_number_is_the_callers)
{
	for (const append_case &one : cases)
		for (uint32_t seq : {0u, 0x01020304u, UINT32_MAX}) {
			std::string sent =
				message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, seq); });
			EXPECT_EQ(sent.substr(8, 4), host32(seq)) << one.name;
		}
}

TEST_F(nft_append, family_is_its_low_8_bits)
{
	for (const append_case &one : cases) {
		std::string sent = message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, 0); });
		EXPECT_EQ(sent[16], strcmp(one.name, "finish") == 0 ? 0 : 7) << one.name;
	}
}

TEST_F(nft_append, messages_come_one_behind_the_other)
{
	test_batch batch;
	std::vector<std::string> alone;
	for (const append_case &one : cases) {
		ASSERT_EQ(one.append(batch.get(), 9), 0) << one.name;
		alone.push_back(canonical(
			message_of([&](mnl_nlmsg_batch *another) { return one.append(another, 9); })));
	}
	std::vector<std::string> together;
	for (const std::string &each : batch.messages())
		together.push_back(canonical(each));
	EXPECT_EQ(together, alone);
}

TEST_F(nft_append, full_batch_is_reported_and_stays_as_it_is)
{
	for (const append_case &one : cases) {
		test_batch batch(20);
		for (int turn = 0; turn < 2; turn++) {
			EXPECT_EQ(one.append(batch.get(), 9), -ENOMEM) << one.name;
			EXPECT_EQ(hex(batch.bytes()), hex(begin_message(0))) << one.name;
		}
	}
}

TEST_F(nft_append, message_fits_up_to_the_last_byte)
{
	for (const append_case &one : cases) {
		size_t length =
			message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, 9); }).size();
		test_batch short_by_one(20 + length - 1), sufficient(20 + length);
		EXPECT_EQ(one.append(short_by_one.get(), 9), -ENOMEM) << one.name;
		EXPECT_EQ(short_by_one.size(), 20u);
		EXPECT_EQ(one.append(sufficient.get(), 9), 0) << one.name;
		EXPECT_EQ(sufficient.size(), 20 + length);
		EXPECT_EQ(one.append(sufficient.get(), 9), -ENOMEM) << one.name;
		EXPECT_EQ(sufficient.size(), 20 + length);
	}
}

TEST_F(nft_append, objects_can_be_appended_again_and_released_before_sending)
{
	test_batch batch;
	ASSERT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	ASSERT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	ASSERT_EQ(kvnft_batch_add_set(batch.get(), set.get(), 2), 0);
	ASSERT_EQ(kvnft_batch_del_set(batch.get(), set.get(), 3), 0);
	rule.reset();
	set.reset();
	std::vector<std::string> appended = batch.messages();
	ASSERT_EQ(appended.size(), 4u);
	EXPECT_EQ(canonical(appended[0]), canonical(appended[1]));
}

TEST_F(nft_append, message_of_an_object_asks_for_no_memory)
{
	test_batch batch;
	int requests = memory.requests;
	for (size_t i = 0; i < 5; i++)
		ASSERT_EQ(cases[i].append(batch.get(), 9), 0) << cases[i].name;
	ASSERT_EQ(kvnft_batch_finish(batch.get(), 9), 0);
	EXPECT_EQ(memory.requests, requests);
}

// ---- Batches ----

TEST(nft_batch, begins_with_the_message_that_begins_a_transaction)
{
	for (uint32_t seq : {0u, 0x01020304u, UINT32_MAX}) {
		test_batch batch(4096, seq);
		EXPECT_EQ(hex(batch.bytes()), hex(begin_message(seq)));
	}
}

TEST(nft_batch, ends_with_the_message_that_ends_a_transaction)
{
	test_batch batch(4096, 7);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 0x0a0b0c0d), 0);
	EXPECT_EQ(hex(batch.bytes()), hex(begin_message(7) + end_message(0x0a0b0c0d)));
}

TEST(nft_batch, with_too_small_a_limit_is_null)
{
	for (size_t limit : {0, 1, 16, 19}) {
		owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
		int blocks = memory.blocks;
		EXPECT_EQ(kvnft_batch_alloc_start(buf.get(), limit, 0), nullptr) << limit;
		EXPECT_EQ(memory.blocks, blocks);
	}
}

TEST(nft_batch, with_room_for_its_beginning_only_starts_and_cannot_be_finished)
{
	test_batch batch(20);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 1), -ENOMEM);
	EXPECT_EQ(hex(batch.bytes()), hex(begin_message(0)));
}

TEST(nft_batch, message_that_does_not_fit_leaves_what_is_there_and_a_shorter_one_fits)
{
	const std::string longer = characters(50);
	std::string short_message = change(0, REQUEST | ACK | CREATE, 2, 1, attribute(1, text("t")));
	test_batch batch(20 + short_message.size() + 20);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), longer.c_str(), NFPROTO_INET, 1), -ENOMEM);
	EXPECT_EQ(batch.size(), 20u);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 3), -ENOMEM);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 4), 0);
	std::vector<std::string> appended = batch.messages();
	ASSERT_EQ(appended.size(), 2u);
	EXPECT_EQ(canonical(appended[0]), canonical(short_message));
	EXPECT_EQ(canonical(appended[1]), canonical(end_message(4)));
}

TEST(nft_batch, full_one_cannot_be_finished)
{
	std::string one = change(0, REQUEST | ACK | CREATE, 1, 1, attribute(1, text("t")));
	for (size_t missing : {1, 20}) {
		test_batch batch(20 + one.size() + 20 - missing);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), -ENOMEM);
		ASSERT_EQ(batch.messages().size(), 1u);
		EXPECT_EQ(canonical(batch.messages()[0]), canonical(one));
	}
}

TEST(nft_batch, fills_up_to_its_limit)
{
	test_batch batch(4096);
	int added = 0;
	while (kvnft_batch_add_table_simple(batch.get(), "table", NFPROTO_INET, 1) == 0)
		added++;
	EXPECT_EQ(added, (4096 - 20) / 32);
	EXPECT_EQ(batch.messages().size(), static_cast<size_t>(added));
}

TEST(nft_batch, buffer_stays_the_callers)
{
	const size_t limit = 4096;
	owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
	int blocks = memory.blocks;
	mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf.get(), limit, 0);
	EXPECT_GT(memory.blocks, blocks);
	EXPECT_EQ(mnl_nlmsg_batch_head(batch), buf.get());
	kvnft_batch_free(batch);
	EXPECT_EQ(memory.blocks, blocks);
	EXPECT_EQ(hex(std::string(buf.get(), 20)), hex(begin_message(0)));
}

// Refuses with a message built at the batch's end, and with one built elsewhere.
const std::function<int(mnl_nlmsg_batch *)> refused_messages[] = {
	[](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_table_simple(batch, characters(3000).c_str(), NFPROTO_INET, 1);
	},
	[](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, long_rule().get(), 1); },
};

TEST(nft_batch, reset_after_a_refusal_is_empty)
{
	for (const auto &append : refused_messages) {
		test_batch batch(100);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		mnl_nlmsg_batch_reset(batch.get());
		EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
		EXPECT_EQ(mnl_nlmsg_batch_current(batch.get()), mnl_nlmsg_batch_head(batch.get()));
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
		EXPECT_EQ(hex(batch.bytes()), hex(end_message(2)));
	}
}

// At the batch's end libmnl finds what the longer message left there, or what the buffer held before.
TEST(nft_batch, reset_after_a_refusal_and_a_shorter_message_is_empty)
{
	for (const auto &append : refused_messages)
		for (size_t limit : {size_t{20 + 28}, size_t{100}, size_t{2000}}) {
			test_batch batch(limit);
			EXPECT_EQ(append(batch.get()), -ENOMEM);
			EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
			EXPECT_EQ(batch.messages().size(), 1u);
			mnl_nlmsg_batch_reset(batch.get());
			EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
			EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
			EXPECT_EQ(hex(batch.bytes()), hex(end_message(3)));
		}
}

TEST(nft_batch, reset_without_a_refusal_is_empty)
{
	test_batch batch(100);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
	mnl_nlmsg_batch_reset(batch.get());
	EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
}

TEST(nft_batch, goes_on_after_refusals_with_what_fits)
{
	std::string table = change(0, REQUEST | ACK | CREATE, 2, 1, attribute(1, text("t")));
	for (const auto &append : refused_messages) {
		test_batch batch(20 + 2 * table.size() + 20);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
		std::vector<std::string> messages = batch.messages();
		ASSERT_EQ(messages.size(), 3u);
		EXPECT_EQ(canonical(messages[0]), canonical(table));
		EXPECT_EQ(canonical(messages[1]), canonical(table));
		EXPECT_EQ(canonical(messages[2]), canonical(end_message(3)));
	}
}

// ---- What a call sends ----

// The last datagram that was sent while this lives.
class watched_sending
{
	std::string last_;
	decltype(system_calls::sendto)::replacement watch_ =
		system_calls::sendto.replace([this](int fd, const void *bytes, size_t count, auto... rest) {
			last_.assign(static_cast<const char *>(bytes), count);
			return system_calls::sendto.next(fd, bytes, count, rest...);
		});

public:
	const std::string &last() const { return last_; }
};

// What is sent by a call that meets a namespace without tables.
void expect_sent(const std::function<int()> &call, const std::vector<std::string> &expected)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([&] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		watched_sending sending;
		EXPECT_EQ(call(), -ENOENT);
		std::vector<std::string> sent, wanted;
		for (const std::string &each : split(sending.last()))
			sent.push_back(canonical(each));
		for (const std::string &each : expected)
			wanted.push_back(canonical(each));
		EXPECT_EQ(sent, wanted);
	});
}

TEST(nft_send, batch_goes_out_without_the_message_that_did_not_fit)
{
	std::string kept = change(2, REQUEST | ACK, 1, 1, attribute(1, text("t")));
	expect_sent(
		[&] {
			test_batch batch(20 + kept.size() + 20);
			EXPECT_EQ(kvnft_batch_del_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
			EXPECT_EQ(kvnft_batch_del_table_simple(
					  batch.get(), characters(100).c_str(), NFPROTO_INET, 2),
				-ENOMEM);
			EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
			return kvnft_batch_send(batch.get());
		},
		{begin_message(0), kept, end_message(3)});
}

TEST(nft_send, flush_of_a_chain_is_a_transaction)
{
	expect_sent([] { return kvnft_flush_chain_simple("chain", "table", NFPROTO_IPV4); },
		{begin_message(0),
			change(8, REQUEST | ACK, 1, 2,
				attribute(1, text("table")) + attribute(2, text("chain"))),
			end_message(2)});
}

TEST(nft_send, flush_of_a_table_is_a_transaction)
{
	expect_sent([] { return kvnft_flush_table_simple("table", NFPROTO_IPV4); },
		{begin_message(0), change(8, REQUEST | ACK, 1, 2, attribute(1, text("table"))),
			end_message(2)});
}

TEST(nft_send, deletion_of_a_table_is_a_transaction)
{
	expect_sent([] { return kvnft_del_table_simple("table", NFPROTO_IPV4); },
		{begin_message(0), change(2, REQUEST | ACK, 1, 2, attribute(1, text("table"))),
			end_message(2)});
}

TEST(nft_send, deletion_of_a_chain_is_a_transaction)
{
	expect_sent([] { return kvnft_del_chain_simple("chain", "table", NFPROTO_IPV4); },
		{begin_message(0),
			change(5, REQUEST | ACK, 1, 2,
				attribute(1, text("table")) + attribute(3, text("chain"))),
			end_message(2)});
}

TEST(nft_send, chain_to_be_deleted_has_a_priority_of_all_ones)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		priority.count = 0;
		EXPECT_EQ(kvnft_del_chain_simple("chain", "table", NFPROTO_IPV4), -ENOENT);
		EXPECT_EQ(priority.count, 1);
		EXPECT_EQ(priority.value, -1);
	});
}

// libmnl leaves the padding after a text as it is.
TEST(nft_send, whole_change_has_zeros_where_nothing_is_written)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		watched_sending sending;
		EXPECT_EQ(kvnft_del_table_simple("ab", NFPROTO_INET), -ENOENT);
		std::vector<std::string> sent = split(sending.last());
		ASSERT_EQ(sent.size(), 3u);
		EXPECT_EQ(sent[1].substr(24), std::string("ab\0\0", 4));
	});
}

TEST(nft_send, change_that_is_too_large_is_refused_and_nothing_is_sent)
{
	const std::string huge =
		characters(room - 63); // 63 less are 20 of the begin, 24 of headers, 20 of the end
	watched_sending sending;
	EXPECT_EQ(kvnft_flush_chain_simple(huge.c_str(), "t", NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_flush_chain_simple("c", huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_flush_table_simple(huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_table_simple(huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_chain_simple(huge.c_str(), "t", NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_chain_simple("c", huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(sending.last(), "");
}

TEST(nft_chain, regular_one_is_given_its_priority_all_the_same)
{
	priority.count = 0;
	message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_chain_simple(
			batch, "chain", "table", nullptr, -1, NFPROTO_IPV4, 7, nullptr, 9);
	});
	EXPECT_EQ(priority.count, 1);
	EXPECT_EQ(priority.value, 7);
}

} // namespace
