// Messages of every length that fit a batch, and those that are too long.
#include "lib/nft.h"

#include "tests/nft/appended.h"
#include "tests/support/memory.h"

using namespace nft_objects;

namespace
{

// Appends with texts, or data, of growing length. Whatever the length, no byte may be out of bounds; up to
// `length_max` it must be accepted: the length of the attribute, and of all that it is nested in, has 16 bits.
void expect_accepted_up_to(
	size_t length_max, const std::function<int(mnl_nlmsg_batch *, const std::string &text)> &append)
{
	const std::string all = characters(200000);
	std::vector<size_t> lengths = {1, 2, 3, 4, 5, 2000, 10000, 60000, length_max - 1, length_max,
		length_max + 1, length_max + 2, length_max + 3, 65532, 65535, 65536, 65537, 65540, 131072,
		131076, 200000};
	for (size_t length = 3400; length < room + 100; length += 57) // around the end of the page
		lengths.push_back(length);
	for (size_t length : lengths) {
		std::string message = message_that_fits(
			[&](mnl_nlmsg_batch *batch) { return append(batch, all.substr(0, length)); });
		EXPECT_EQ(!message.empty(), length <= length_max) << length;
		EXPECT_TRUE(message.empty() || message.find(all.substr(0, length)) != std::string::npos)
			<< length;
	}
}

int append_with(mnl_nlmsg_batch *batch, nftnl_expr *made)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	nftnl_rule_add_expr(rule.get(), made);
	return kvnft_batch_add_rule(batch, rule.get(), 1);
}

int append_with(
	mnl_nlmsg_batch *batch, const char *expr_name, uint16_t attribute_number, const std::string &value)
{
	nftnl_expr *e = nftnl_expr_alloc(expr_name);
	EXPECT_NE(e, nullptr);
	nftnl_expr_set_str(e, attribute_number, value.c_str());
	return append_with(batch, e);
}

TEST(nft_room, table_with_a_long_name)
{
	for (auto *append : {kvnft_batch_add_table_simple, kvnft_batch_del_table_simple})
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, name.c_str(), NFPROTO_INET, 1);
		});
}

TEST(nft_room, chain_with_a_long_name)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, name.c_str(), "t", nullptr, -1, 1, 0, nullptr, 1);
	});
}

TEST(nft_room, chain_in_a_table_with_a_long_name)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", name.c_str(), "filter", 0, 1, 0, "e", 1);
	});
}

TEST(nft_room, chain_of_a_long_type)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", "t", name.c_str(), 0, 1, 0, "e", 1);
	});
}

TEST(nft_room, chain_on_a_device_with_a_long_name)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", "t", "filter", 0, 1, 0, name.c_str(), 1);
	});
}

TEST(nft_room, chain_with_four_long_names)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &name) {
		const char *n = name.c_str();
		return kvnft_batch_add_chain_simple(batch, n, n, n, 0, 1, 0, n, 1);
	});
}

TEST(nft_room, flushes_with_long_names)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_table_simple(batch, name.c_str(), 1, 1);
	});
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_chain_simple(batch, name.c_str(), "t", 1, 1);
	});
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_chain_simple(batch, "c", name.c_str(), 1, 1);
	});
}

TEST(nft_room, rules_about_a_mark_with_long_names)
{
	for (auto *append : {kvnft_batch_accept_mark, kvnft_batch_accept_mark_neq}) {
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, 1, name.c_str(), "c", 5, 1);
		});
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, 1, "t", name.c_str(), 5, 1);
		});
	}
}

TEST(nft_room, sets_with_long_names)
{
	for (auto *append : {kvnft_batch_add_set, kvnft_batch_del_set, kvnft_batch_add_set_elem,
		     kvnft_batch_del_set_elem}) {
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			owned_set set{kvnft_build_set(name.c_str(), "s", 1, 0, 4)};
			return append(batch, set.get(), 1);
		});
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			owned_set set{kvnft_build_set("t", name.c_str(), 1, 0, 4)};
			return append(batch, set.get(), 1);
		});
	}
}

TEST(nft_room, set_with_user_data)
{
	expect_accepted_up_to(65531, [](mnl_nlmsg_batch *batch, const std::string &data) {
		owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
		nftnl_set_set_data(
			set.get(), NFTNL_SET_USERDATA, data.data(), static_cast<uint32_t>(data.size()));
		return kvnft_batch_add_set(batch, set.get(), 1);
	});
}

TEST(nft_room, rule_with_user_data)
{
	expect_accepted_up_to(65531, [](mnl_nlmsg_batch *batch, const std::string &data) {
		test_rule rule;
		nftnl_rule_set_data(
			rule.get(), NFTNL_RULE_USERDATA, data.data(), static_cast<uint32_t>(data.size()));
		return kvnft_batch_add_rule(batch, rule.get(), 1);
	});
}

TEST(nft_room, lookup_with_a_long_name)
{
	expect_accepted_up_to(65479, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, kvnft_build_expr_lookup(1, name.c_str(), 1, 1));
	});
}

TEST(nft_room, dynset_with_a_long_name)
{
	expect_accepted_up_to(65399, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch,
			kvnft_build_expr_dynset(1, name.c_str(), 1, 1, true, kvnft_build_expr_limit(1, 1)));
	});
}

TEST(nft_room, dynset_around_a_lookup_with_a_long_name)
{
	expect_accepted_up_to(65415, [](mnl_nlmsg_batch *batch, const std::string &name) {
		nftnl_expr *inner = kvnft_build_expr_lookup(1, name.c_str(), 1, 1);
		return append_with(batch, kvnft_build_expr_dynset(1, "s", 1, 1, true, inner));
	});
}

TEST(nft_room, log_with_a_long_prefix)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &prefix) {
		return append_with(batch, "log", NFTNL_EXPR_LOG_PREFIX, prefix);
	});
}

TEST(nft_room, jump_to_a_chain_with_a_long_name)
{
	expect_accepted_up_to(65475, [](mnl_nlmsg_batch *batch, const std::string &name) {
		nftnl_expr *e = kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_JUMP));
		nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, name.c_str());
		return append_with(batch, e);
	});
}

TEST(nft_room, names_of_other_expressions)
{
	expect_accepted_up_to(65504, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, "objref", NFTNL_EXPR_OBJREF_IMM_NAME, name);
	});
	expect_accepted_up_to(65495, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, "flow_offload", NFTNL_EXPR_FLOW_TABLE_NAME, name);
	});
}

TEST(nft_room, match_and_target_with_much_information)
{
	const std::pair<const char *, uint16_t> kinds[] = {
		{"match", NFTNL_EXPR_MT_INFO}, {"target", NFTNL_EXPR_TG_INFO}};
	for (const auto &[name, number] : kinds)
		expect_accepted_up_to(65468, [name = name, number = number](
						     auto *batch, const std::string &data) {
			nftnl_expr *e = nftnl_expr_alloc(name);
			void *given = malloc(data.size()); // the expression releases it
			memcpy(given, data.data(), data.size());
			nftnl_expr_set_data(e, number, given, static_cast<uint32_t>(data.size()));
			nftnl_expr_set_str(e, NFTNL_EXPR_MT_NAME, "a name of more than 29 bytes is cut");
			return append_with(batch, e);
		});
}

TEST(nft_room, element_with_user_data_or_the_name_of_an_object)
{
	const std::pair<uint16_t, bool> kinds[] = {
		{NFTNL_SET_ELEM_USERDATA, false}, {NFTNL_SET_ELEM_OBJREF, true}};
	for (const auto &[number, is_text] : kinds)
		expect_accepted_up_to(65496 - is_text,
			[number = number, is_text = is_text](auto *batch, const std::string &data) {
				owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
				kvnft_build_set_add_elem(set.get(), "abcd", 4, 1);
				nftnl_set_elem *elem = elems_of(set.get())[0];
				nftnl_set_elem_set(elem, number, data.c_str(),
					static_cast<uint32_t>(data.size() + is_text));
				return kvnft_batch_add_set_elem(batch, set.get(), 1);
			});
}

TEST(nft_room, device_that_is_not_sent_may_have_any_name)
{
	std::string message = message_that_fits([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_chain_simple(
			batch, "c", "t", nullptr, -1, 1, 0, characters(70000).c_str(), 1);
	});
	EXPECT_EQ(message.size(), 36u);
}

// Lists of growing length; `add` adds a part of `part_bytes`. A list is accepted as long as 16 bits can hold its
// length and the `other_bytes` that count with it.
void expect_list_accepted(size_t part_bytes, size_t other_bytes, const std::function<void()> &add,
	const std::function<int(mnl_nlmsg_batch *)> &append)
{
	size_t most = (65535 - other_bytes) / part_bytes, head = 0, count = 0;
	for (size_t wanted : {size_t{1}, room / 2 / part_bytes, room / part_bytes, room / part_bytes + 1,
		     most, most + 1}) {
		for (; count < wanted; count++)
			add();
		std::string message = message_that_fits(append);
		if (head == 0)
			head = message.size() - count * part_bytes;
		EXPECT_EQ(message.size(), count <= most ? head + count * part_bytes : 0) << count;
	}
}

void expect_elements_accepted(size_t part_bytes, uint32_t key_length, int64_t timeout_ms)
{
	const std::string key = characters(64);
	owned_set set{kvnft_build_set("guest", "clients", NFPROTO_INET, 0, key_length)};
	auto add = [&] {
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), key.data(), key_length, timeout_ms), 0);
	};
	for (auto *append : {kvnft_batch_add_set_elem, kvnft_batch_del_set_elem}) {
		set.reset(kvnft_build_set("guest", "clients", NFPROTO_INET, 0, key_length));
		expect_list_accepted(part_bytes, 4, add,
			[&](mnl_nlmsg_batch *batch) { return append(batch, set.get(), 1); });
	}
}

TEST(nft_room, set_of_thousands_of_elements)
{
	// 4 bytes of the element's and 4 of its key's nesting, 4 and the key, 12 of the time-out.
	expect_elements_accepted(16, 4, -1);
	expect_elements_accepted(28, 4, 60000);
	expect_elements_accepted(20, 6, -1);
	expect_elements_accepted(88, 64, 60000);
}

TEST(nft_room, elements_without_attributes)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	expect_list_accepted(
		4, 4, [&] { nftnl_set_elem_add(set.get(), nftnl_set_elem_alloc()); },
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 1); });
}

TEST(nft_room, set_itself_may_have_any_number_of_elements)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	for (int i = 0; i < 5000; i++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, 1), 0);
	test_batch batch(4096);
	EXPECT_EQ(kvnft_batch_add_set(batch.get(), set.get(), 1), 0);
	EXPECT_EQ(kvnft_batch_del_set(batch.get(), set.get(), 2), 0);
	EXPECT_EQ(kvnft_batch_add_set_elem(batch.get(), set.get(), 3), -ENOMEM);
	EXPECT_EQ(kvnft_batch_del_set_elem(batch.get(), set.get(), 4), -ENOMEM);
	EXPECT_EQ(batch.messages().size(), 2u);
}

TEST(nft_room, rule_of_very_many_expressions)
{
	const std::pair<size_t, std::function<nftnl_expr *()>> kinds[] = {
		{20, [] { return kvnft_build_expr_masq(); }},
		{104, [] { return kvnft_build_expr_cmp(1, 0, characters(64).data(), 64); }},
		{68, [] { return kvnft_build_expr_limit(1, 1); }},
		{56, [] { return kvnft_build_expr_lookup(1, "clients", 1, 1); }},
		{136,
			[] {
				return kvnft_build_expr_dynset(
					1, "clients", 1, 1, true, kvnft_build_expr_limit(1, 1));
			}},
	};
	for (const auto &[part_bytes, build] : kinds) {
		test_rule rule;
		expect_list_accepted(
			part_bytes, 4, [&, &make = build] { nftnl_rule_add_expr(rule.get(), make()); },
			[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
	}
}

TEST(nft_room, dynset_of_very_many_expressions)
{
	nftnl_expr *e = kvnft_build_expr_dynset(1, "s", 1, 1, true, kvnft_build_expr_limit(1, 1));
	test_rule rule;
	nftnl_rule_add_expr(rule.get(), e);
	auto add = [&] {
		nftnl_expr_add_expr(e, NFTNL_EXPR_DYNSET_EXPRESSIONS, kvnft_build_expr_limit(1, 1));
	};
	add(); // two are a list
	// The list of the rule, the dynset with its name, its attributes, and its own list with these two.
	expect_list_accepted(68, 4 + 20 + 8 + 8 + 12 + 8 + 8 + 4 + 2 * 68, add,
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
}

TEST(nft_room, set_of_very_many_expressions)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	auto add = [&] { nftnl_set_add_expr(set.get(), kvnft_build_expr_limit(1, 1)); };
	add(); // two are a list
	expect_list_accepted(68, 4 + 68, add,
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 1); });
}

TEST(nft_room, forty_pairs_of_payload_and_comparison_fit_the_conventional_batch)
{
	test_rule fits, is_too_long;
	add_pairs(fits.get(), 42);
	add_pairs(is_too_long.get(), 43);
	test_batch batch(20 + 40 + 42 * 96);
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), is_too_long.get(), 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), fits.get(), 1), 0);
	EXPECT_EQ(batch.messages()[0].size(), 40u + 42 * 96);

	test_rule forty;
	add_pairs(forty.get(), 40);
	test_batch conventional(4096);
	EXPECT_EQ(kvnft_batch_add_rule(conventional.get(), forty.get(), 1), 0);
	EXPECT_EQ(kvnft_batch_finish(conventional.get(), 2), 0);
}

TEST(nft_room, thirteen_ordinary_expressions_ask_for_no_memory)
{
	test_rule rule;
	add_pairs(rule.get(), 6);
	nftnl_rule_add_expr(rule.get(), kvnft_build_expr_verdict(NF_ACCEPT));
	test_batch batch;
	int requests = memory.requests;
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	EXPECT_EQ(memory.requests, requests);
}

TEST(nft_room, long_message_that_is_refused_touches_the_space_of_its_header_only)
{
	owned_rule rule = long_rule(600);
	for (size_t limit : {size_t{20}, size_t{4096}, size_t{9616}}) {
		test_batch batch(limit);
		std::string before = batch.buffer();
		EXPECT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), -ENOMEM);
		std::string after = batch.buffer();
		EXPECT_TRUE(before.substr(0, 20) == after.substr(0, 20));
		EXPECT_TRUE(before.substr(36) == after.substr(36));
	}
}

TEST(nft_room, long_message_has_zeros_where_nothing_is_written)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	for (int i = 0; i < 30; i++)
		nftnl_rule_add_expr(rule.get(), kvnft_build_expr_masq());
	std::string message = message_that_fits(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
	EXPECT_EQ(hex(message.substr(20, 16)), hex(attribute(1, text("t")) + attribute(2, text("c"))));
	EXPECT_EQ(message.find('\xa5'), std::string::npos);
}

} // namespace
