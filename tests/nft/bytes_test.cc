// The bytes of the messages that objects become.
#include "lib/nft.h"

#include "tests/nft/objects.h"

using namespace nft_objects;

namespace
{

// What an expression becomes: its name, and its attributes nested.
std::string expr_bytes(uint16_t type, const std::string &name, const std::string &data)
{
	return nest(type, attribute(1, text(name)) + nest(2, data)); // NFTA_EXPR_NAME, NFTA_EXPR_DATA
}

// Holds a rule with one expression, released here, to its bytes.
void expect_bytes(nftnl_expr *made, const std::string &name, const std::string &data)
{
	ASSERT_NE(made, nullptr);
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	nftnl_rule_add_expr(rule.get(), made);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	std::string expected = change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
		attribute(1, text("t")) + attribute(2, text("c")) + // NFTA_RULE_TABLE, _CHAIN
			nest(4, expr_bytes(1, name, data)));        // NFTA_RULE_EXPRESSIONS, NFTA_LIST_ELEM
	EXPECT_EQ(canonical(sent), canonical(expected));
}

// NFTA_DATA_VALUE
std::string value(uint16_t type, const std::string &data)
{
	return nest(type, attribute(1, data));
}

TEST(nft_bytes, expected_ones_are_written_rightly)
{
	EXPECT_EQ(be32(1, 0x0a0b0c0d).substr(4), "\x0a\x0b\x0c\x0d");
	EXPECT_EQ(be16(1, 0x0102).substr(4), std::string("\x01\x02\0\0", 4));
	EXPECT_EQ(be64(1, 0x0102030405060708).substr(4), "\x01\x02\x03\x04\x05\x06\x07\x08");
	uint16_t length = 0, type = 0;
	memcpy(&length, nest(3, be16(1, 2)).data(), 2);
	memcpy(&type, nest(3, be16(1, 2)).data() + 2, 2);
	EXPECT_EQ(length, 12);
	EXPECT_EQ(type, NLA_F_NESTED | 3);
	EXPECT_EQ(begin_message(5).size(), 20u);
	EXPECT_EQ(begin_message(5).substr(16), std::string("\0\0\0\x0a", 4));
}

TEST(nft_bytes, ct)
{
	expect_bytes(kvnft_build_expr_ct(reg, 3), "ct", be32(1, reg) + be32(2, 3));
}

TEST(nft_bytes, reject_with_code)
{
	expect_bytes(kvnft_build_expr_reject(2, 3), "reject", be32(1, 2) + attribute(2, "\x03"));
}

TEST(nft_bytes, reject_without_code)
{
	expect_bytes(kvnft_build_expr_reject(1, 3), "reject", be32(1, 1));
}

TEST(nft_bytes, verdict)
{
	// NFTA_IMMEDIATE_DATA, NFTA_DATA_VERDICT, NFTA_VERDICT_CODE
	expect_bytes(
		kvnft_build_expr_verdict(NF_ACCEPT), "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 1))));
	expect_bytes(kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN)), "immediate",
		be32(1, 0) + nest(2, nest(2, be32(1, 0xfffffffb))));
}

TEST(nft_bytes, immediate)
{
	expect_bytes(kvnft_build_expr_imm(reg, "abcde", 5), "immediate", be32(1, reg) + value(2, "abcde"));
}

TEST(nft_bytes, limit)
{
	expect_bytes(kvnft_build_expr_limit(0x0102030405060708, 0x0a0b0c0d), "limit",
		be64(1, 0x0102030405060708) + be64(2, 1) + be32(3, 0x0a0b0c0d) + be32(4, 1) + be32(5, 1));
}

TEST(nft_bytes, limit_without_burst)
{
	expect_bytes(
		kvnft_build_expr_limit(7, 0), "limit", be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1));
}

TEST(nft_bytes, dynset)
{
	std::string limit = be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1);
	expect_bytes(kvnft_build_expr_dynset(
			     reg, "clients", 0x0a0b, 0x0102030405060708, true, kvnft_build_expr_limit(7, 0)),
		"dynset",
		attribute(1, text("clients")) + be32(2, 0x0a0b) + be32(3, 1) + be32(4, reg) +
			be64(6, 0x0102030405060708) + expr_bytes(7, "limit", limit));
}

TEST(nft_bytes, dynset_without_timeout)
{
	std::string limit = be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1);
	expect_bytes(kvnft_build_expr_dynset(reg, "clients", 5, 0, false, kvnft_build_expr_limit(7, 0)),
		"dynset",
		attribute(1, text("clients")) + be32(2, 5) + be32(3, 0) + be32(4, reg) +
			expr_bytes(7, "limit", limit));
}

TEST(nft_bytes, payload)
{
	expect_bytes(kvnft_build_expr_payload(reg, 2, 0x0506, 0x0708), "payload",
		be32(1, reg) + be32(2, 2) + be32(3, 0x0506) + be32(4, 0x0708));
}

TEST(nft_bytes, payload_set)
{
	expect_bytes(kvnft_build_expr_payload_set(reg, 2, 0x0506, 0x0708), "payload",
		be32(2, 2) + be32(3, 0x0506) + be32(4, 0x0708) + be32(5, reg));
}

TEST(nft_bytes, fields_of_headers)
{
	const struct {
		nftnl_expr *(*build)(uint32_t);
		uint32_t base, offset, length;
	} fields[] = {
		{kvnft_build_expr_ether_saddr, 0, 6, 6},
		{kvnft_build_expr_ether_daddr, 0, 0, 6},
		{kvnft_build_expr_ether_type, 0, 12, 2},
		{kvnft_build_expr_ip_daddr, 1, 16, 4},
		{kvnft_build_expr_udp_sport, 2, 0, 2},
		{kvnft_build_expr_udp_dport, 2, 2, 2},
		{kvnft_build_expr_tcp_dport, 2, 2, 2},
	};
	for (const auto &field : fields)
		expect_bytes(field.build(1), "payload",
			be32(1, 1) + be32(2, field.base) + be32(3, field.offset) + be32(4, field.length));
	expect_bytes(kvnft_build_expr_ether_set_daddr(1), "payload",
		be32(2, 0) + be32(3, 0) + be32(4, 6) + be32(5, 1));
}

TEST(nft_bytes, log)
{
	expect_bytes(kvnft_build_expr_log(0x0102), "log", be16(1, 0x0102));
}

TEST(nft_bytes, meta)
{
	expect_bytes(kvnft_build_expr_meta(NFT_META_MARK, reg), "meta", be32(1, reg) + be32(2, 3));
}

TEST(nft_bytes, meta_set)
{
	expect_bytes(kvnft_build_expr_meta_set(NFT_META_MARK, reg), "meta", be32(2, 3) + be32(3, reg));
}

TEST(nft_bytes, cmp)
{
	expect_bytes(kvnft_build_expr_cmp(reg, NFT_CMP_NEQ, "abcdef", 6), "cmp",
		be32(1, reg) + be32(2, 1) + value(3, "abcdef"));
}

TEST(nft_bytes, redir)
{
	expect_bytes(kvnft_build_expr_redir(reg), "redir", be32(1, reg));
}

TEST(nft_bytes, masq)
{
	expect_bytes(kvnft_build_expr_masq(), "masq", "");
}

TEST(nft_bytes, queue)
{
	expect_bytes(kvnft_build_expr_queue(0x0102, 0x0304, 0x0506), "queue",
		be16(1, 0x0102) + be16(2, 0x0304) + be16(3, 0x0506));
	expect_bytes(kvnft_build_expr_queue(5, 0, 0), "queue", be16(1, 5));
}

TEST(nft_bytes, lookup)
{
	expect_bytes(kvnft_build_expr_lookup(reg, "clients", 0x0a0b, 1), "lookup",
		attribute(1, text("clients")) + be32(2, reg) + be32(4, 0x0a0b) + be32(5, 1));
	expect_bytes(kvnft_build_expr_lookup(reg, "clients", 0, 0), "lookup",
		attribute(1, text("clients")) + be32(2, reg));
	expect_bytes(kvnft_build_expr_lookup(reg, nullptr, 7, 0), "lookup", be32(2, reg) + be32(4, 7));
}

TEST(nft_bytes, bitwise)
{
	expect_bytes(kvnft_build_expr_bitwise(reg, 0x0506, 4, "mask", 4, "xor_", 4), "bitwise",
		be32(1, reg) + be32(2, 0x0506) + be32(3, 4) + value(4, "mask") + value(5, "xor_"));
}

TEST(nft_bytes, data_of_64_bytes)
{
	const std::string all = characters(64);
	expect_bytes(kvnft_build_expr_imm(1, all.data(), 64), "immediate", be32(1, 1) + value(2, all));
	expect_bytes(
		kvnft_build_expr_cmp(1, 0, all.data(), 64), "cmp", be32(1, 1) + be32(2, 0) + value(3, all));
	expect_bytes(kvnft_build_expr_bitwise(1, 2, 64, all.data(), 64, all.data(), 64), "bitwise",
		be32(1, 1) + be32(2, 2) + be32(3, 64) + value(4, all) + value(5, all));
}

std::string mark_bytes(uint32_t op, uint32_t mark)
{
	return attribute(1, text("t")) + attribute(2, text("c")) +
	       nest(4, expr_bytes(1, "meta", be32(1, 1) + be32(2, 3)) +
			       expr_bytes(1, "cmp", be32(1, 1) + be32(2, op) + value(3, host32(mark))) +
			       expr_bytes(1, "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 1)))));
}

TEST(nft_bytes, rule_that_accepts_a_mark)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_accept_mark(batch, NFPROTO_BRIDGE, "t", "c", 0x0a0b0c0d, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 7, mark_bytes(0, 0x0a0b0c0d))));
}

TEST(nft_bytes, rule_that_accepts_all_but_a_mark)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_accept_mark_neq(batch, NFPROTO_INET, "t", "c", 5, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1, mark_bytes(1, 5))));
}

TEST(nft_bytes, rule_with_helpers)
{
	test_rule rule;
	kvnft_rule_set_mark(rule.get(), 0x0a0b0c0d);
	kvnft_rule_reject(rule.get(), 2, 1);
	kvnft_rule_verdict(rule.get(), NF_DROP);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	std::string list = expr_bytes(1, "immediate", be32(1, 1) + value(2, host32(0x0a0b0c0d))) +
			   expr_bytes(1, "meta", be32(2, 3) + be32(3, 1)) +
			   expr_bytes(1, "reject", be32(1, 2) + attribute(2, "\x01")) +
			   expr_bytes(1, "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 0))));
	EXPECT_EQ(
		canonical(sent), canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
					 attribute(1, text("t")) + attribute(2, text("c")) + nest(4, list))));
}

TEST(nft_bytes, rule_without_expressions)
{
	test_rule rule;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
					   attribute(1, text("t")) + attribute(2, text("c")))));
}

// A set with two elements, and what becomes of it: NFTA_SET_..., and NFTA_SET_ELEM_LIST_... for its elements.
struct test_set {
	owned_set set{kvnft_build_set("t", "clients", NFPROTO_BRIDGE, 0x11, 6)};
	uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);

	test_set()
	{
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcdef", 6, 0x0102030405060708), 0);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "uvwxyz", 6, -1), 0);
	}
	nftnl_set *get() const { return set.get(); }
	std::string bytes() const
	{
		return attribute(1, text("t")) + attribute(2, text("clients")) + be32(3, 0x11) + be32(5, 6) +
		       be32(10, id);
	}
	std::string elem_bytes() const
	{
		std::string first = value(1, "abcdef") + be64(4, 0x0102030405060708);
		return attribute(1, text("t")) + attribute(2, text("clients")) + be32(4, id) +
		       nest(3, nest(1, first) + nest(2, value(1, "uvwxyz")));
	}
};

TEST(nft_bytes, set_that_is_added)
{
	test_set set;
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 7, set.bytes())));
}

TEST(nft_bytes, set_that_is_deleted)
{
	test_set set;
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_del_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(11, REQUEST | ACK, 9, 7, set.bytes())));
}

TEST(nft_bytes, bare_set)
{
	owned_set set{kvnft_build_set(nullptr, nullptr, 2, 0, 0)};
	uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 2, be32(10, id))));
}

TEST(nft_bytes, set_with_types_of_the_callers)
{
	test_set set;
	nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, 9);
	nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, 60000);
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 7,
					   set.bytes() + be32(4, 9) + be64(11, 60000))));
}

TEST(nft_bytes, elements_that_are_added)
{
	test_set set;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(12, REQUEST | ACK | CREATE, 9, 7, set.elem_bytes())));
}

TEST(nft_bytes, elements_that_are_deleted)
{
	test_set set;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_del_set_elem(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(14, REQUEST | ACK, 9, 7, set.elem_bytes())));
}

TEST(nft_bytes, element_with_a_timeout_of_0)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 64)};
	ASSERT_EQ(kvnft_build_set_add_elem(set.get(), characters(64).data(), 64, 0), 0);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 9); });
	std::string expected = attribute(1, text("t")) + attribute(2, text("s")) +
			       be32(4, nftnl_set_get_u32(set.get(), NFTNL_SET_ID)) +
			       nest(3, nest(1, value(1, characters(64)) + be64(4, 0)));
	EXPECT_EQ(canonical(sent), canonical(change(12, REQUEST | ACK | CREATE, 9, 2, expected)));
}

TEST(nft_bytes, table_that_is_added)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_table_simple(batch, "guest", NFPROTO_NETDEV, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(0, REQUEST | ACK | CREATE, 9, 5, attribute(1, text("guest")))));
}

TEST(nft_bytes, table_that_is_deleted)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_del_table_simple(batch, "guest", NFPROTO_ARP, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(2, REQUEST | ACK, 9, 3, attribute(1, text("guest")))));
}

std::string chain_message(const char *type, int32_t hooknum, int32_t prio, const char *dev)
{
	return message_of([=](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_chain_simple(
			batch, "chain", "table", type, hooknum, NFPROTO_IPV4, prio, dev, 9);
	});
}

// NFTA_CHAIN_TABLE, NFTA_CHAIN_NAME, and more
std::string chain_bytes(const std::string &more)
{
	return change(3, REQUEST | ACK | CREATE, 9, 2,
		attribute(1, text("table")) + attribute(3, text("chain")) + more);
}

TEST(nft_bytes, base_chain_on_a_device)
{
	// NFTA_CHAIN_HOOK with number, priority and device; NFTA_CHAIN_TYPE
	EXPECT_EQ(canonical(chain_message("filter", 3, -200, "eth0")),
		canonical(chain_bytes(nest(4, be32(1, 3) + be32(2, 0xffffff38) + attribute(3, text("eth0"))) +
				      attribute(7, text("filter")))));
}

TEST(nft_bytes, base_chain_at_hook_0)
{
	EXPECT_EQ(canonical(chain_message("nat", 0, 0x0a0b0c0d, nullptr)),
		canonical(
			chain_bytes(nest(4, be32(1, 0) + be32(2, 0x0a0b0c0d)) + attribute(7, text("nat")))));
}

TEST(nft_bytes, base_chain_without_a_type)
{
	EXPECT_EQ(canonical(chain_message(nullptr, 1, 0, nullptr)),
		canonical(chain_bytes(nest(4, be32(1, 1) + be32(2, 0)))));
}

TEST(nft_bytes, regular_chain)
{
	EXPECT_EQ(canonical(chain_message(nullptr, -1, 7, nullptr)), canonical(chain_bytes("")));
	EXPECT_EQ(canonical(chain_message(nullptr, INT32_MIN, 7, nullptr)), canonical(chain_bytes("")));
}

TEST(nft_bytes, flush_of_a_chain)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_flush_chain_simple(batch, "chain", "table", NFPROTO_IPV6, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(8, REQUEST | ACK, 9, 10,
					   attribute(1, text("table")) + attribute(2, text("chain")))));
}

TEST(nft_bytes, flush_of_a_table)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_flush_table_simple(batch, "table", NFPROTO_IPV6, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(8, REQUEST | ACK, 9, 10, attribute(1, text("table")))));
}

} // namespace
