// The types of nft's functions, and the attributes of each expression.
#include "lib/nft.h"

#include <type_traits>

#include "tests/nft/refusing.h"

using namespace nft_objects;

namespace
{

// ---- The interface ----

// Whether the functions have this very type.
template <typename type, auto... functions>
constexpr bool all_are = (std::is_same_v<decltype(functions), type *> && ...);

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using text_pointer = const char *;
using batch_pointer = mnl_nlmsg_batch *;

static_assert(all_are<nftnl_expr *(), kvnft_build_expr_masq>);
static_assert(all_are<nftnl_expr *(u16), kvnft_build_expr_log>);
static_assert(all_are<nftnl_expr *(u16, u16, u16), kvnft_build_expr_queue>);
static_assert(all_are<nftnl_expr *(u32, u8), kvnft_build_expr_reject>);
static_assert(all_are<nftnl_expr *(u32), kvnft_build_expr_verdict, kvnft_build_expr_redir,
	kvnft_build_expr_ether_saddr, kvnft_build_expr_ether_daddr, kvnft_build_expr_ether_type,
	kvnft_build_expr_ip_daddr, kvnft_build_expr_udp_sport, kvnft_build_expr_udp_dport,
	kvnft_build_expr_tcp_dport, kvnft_build_expr_ether_set_daddr>);
static_assert(all_are<nftnl_expr *(u32, u32), kvnft_build_expr_ct, kvnft_build_expr_meta,
	kvnft_build_expr_meta_set>);
static_assert(all_are<nftnl_expr *(u32, u32, int), _kvnft_build_expr_meta>);
static_assert(
	all_are<nftnl_expr *(u32, u32, u32, u32), kvnft_build_expr_payload, kvnft_build_expr_payload_set>);
static_assert(all_are<nftnl_expr *(uint64_t, uint64_t), kvnft_build_expr_limit>);
static_assert(all_are<nftnl_expr *(u32, const void *, u32), kvnft_build_expr_imm>);
static_assert(all_are<nftnl_expr *(u32, u32, const void *, u32), kvnft_build_expr_cmp>);
static_assert(all_are<nftnl_expr *(u32, text_pointer, u32, u32), kvnft_build_expr_lookup>);
static_assert(
	all_are<nftnl_expr *(u32, u32, u32, const void *, u32, const void *, u32), kvnft_build_expr_bitwise>);
static_assert(
	all_are<nftnl_expr *(u32, text_pointer, u32, int64_t, bool, nftnl_expr *), kvnft_build_expr_dynset>);

static_assert(all_are<nftnl_set *(text_pointer, text_pointer, u32, u32, u32), kvnft_build_set>);
static_assert(all_are<int(nftnl_set *, const void *, u32, int64_t), kvnft_build_set_add_elem>);
static_assert(all_are<nftnl_table *(text_pointer, u32), kvnft_build_table>);
static_assert(all_are<nftnl_rule *(u32, text_pointer, text_pointer), kvnft_build_rule>);
static_assert(all_are<int(nftnl_rule *, u32), kvnft_rule_set_mark>);
static_assert(all_are<int(nftnl_rule *, u32, u8), kvnft_rule_reject>);
static_assert(all_are<int(nftnl_rule *, u8), kvnft_rule_verdict>);

static_assert(all_are<batch_pointer(void *, size_t, u32), kvnft_batch_alloc_start>);
static_assert(all_are<int(batch_pointer, nftnl_set *, u32), kvnft_batch_add_set, kvnft_batch_del_set,
	kvnft_batch_add_set_elem, kvnft_batch_del_set_elem>);
static_assert(all_are<int(batch_pointer, nftnl_rule *, u32), kvnft_batch_add_rule>);
static_assert(all_are<int(batch_pointer, u32), kvnft_batch_finish>);
static_assert(all_are<int(batch_pointer), kvnft_batch_send>);
static_assert(all_are<void(batch_pointer), kvnft_batch_free>);
static_assert(all_are<int(const void *, size_t, mnl_cb_t, void *), kvnft_send_msg_cb>);

static_assert(all_are<int(batch_pointer, text_pointer, u32, u32), kvnft_batch_add_table_simple,
	kvnft_batch_del_table_simple, kvnft_batch_flush_table_simple>);
static_assert(all_are<int(batch_pointer, text_pointer, text_pointer, text_pointer, int32_t, u16, int32_t,
			      text_pointer, u32),
	kvnft_batch_add_chain_simple>);
static_assert(
	all_are<int(batch_pointer, text_pointer, text_pointer, u32, u32), kvnft_batch_flush_chain_simple>);
static_assert(all_are<int(batch_pointer, u32, text_pointer, text_pointer, u32, u32), kvnft_batch_accept_mark,
	kvnft_batch_accept_mark_neq>);
static_assert(
	all_are<int(text_pointer, text_pointer, u32), kvnft_flush_chain_simple, kvnft_del_chain_simple>);
static_assert(all_are<int(text_pointer, u32), kvnft_flush_table_simple, kvnft_del_table_simple>);

// ---- Expressions ----

TEST(nft_expr, ct_has_key_and_register)
{
	expect_expr(kvnft_build_expr_ct(reg, wide), "ct",
		{{NFTNL_EXPR_CT_KEY, host32(wide)}, {NFTNL_EXPR_CT_DREG, host32(reg)}});
}

TEST(nft_expr, reject_with_the_common_unreachable_type_has_its_code)
{
	expect_expr(kvnft_build_expr_reject(2, 3), "reject",
		{{NFTNL_EXPR_REJECT_TYPE, host32(2)}, {NFTNL_EXPR_REJECT_CODE, "\x03"}});
}

TEST(nft_expr, reject_with_the_common_unreachable_type_has_a_code_of_0_too)
{
	expect_expr(kvnft_build_expr_reject(2, 0), "reject",
		{{NFTNL_EXPR_REJECT_TYPE, host32(2)}, {NFTNL_EXPR_REJECT_CODE, std::string(1, '\0')}});
}

TEST(nft_expr, reject_with_another_type_has_no_code)
{
	for (uint32_t type : {0u, 1u, 3u, 0x102u, high | 2, wide})
		expect_expr(
			kvnft_build_expr_reject(type, 3), "reject", {{NFTNL_EXPR_REJECT_TYPE, host32(type)}});
}

TEST(nft_expr, verdict_is_an_immediate_to_the_verdict_register)
{
	expect_expr(kvnft_build_expr_verdict(NF_ACCEPT), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host32(1)}});
}

TEST(nft_expr, verdict_may_be_a_negative_one)
{
	expect_expr(kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN)), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host(int32_t{-5})}});
}

TEST(nft_expr, immediate_has_register_and_data)
{
	expect_expr(kvnft_build_expr_imm(reg, "abc\0de", 6), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(reg)}, {NFTNL_EXPR_IMM_DATA, std::string("abc\0de", 6)}});
}

TEST(nft_expr, limit_is_of_bytes_beyond_the_rate_each_second)
{
	expect_expr(kvnft_build_expr_limit(0x0102030405060708, 9), "limit",
		{{NFTNL_EXPR_LIMIT_RATE, host(uint64_t{0x0102030405060708})},
			{NFTNL_EXPR_LIMIT_TYPE, host32(1)}, {NFTNL_EXPR_LIMIT_UNIT, host(uint64_t{1})},
			{NFTNL_EXPR_LIMIT_FLAGS, host32(1)}, {NFTNL_EXPR_LIMIT_BURST, host32(9)}});
}

TEST(nft_expr, limit_with_a_burst_of_0_has_none)
{
	expect_expr(kvnft_build_expr_limit(7, 0), "limit", limit_without_burst(7));
}

TEST(nft_expr, limit_takes_the_low_32_bits_of_a_burst)
{
	attributes expected = limit_without_burst(7);
	expected[NFTNL_EXPR_LIMIT_BURST] = host32(5);
	expect_expr(kvnft_build_expr_limit(7, 0x900000005), "limit", expected);
	expected[NFTNL_EXPR_LIMIT_BURST] = host32(0);
	expect_expr(kvnft_build_expr_limit(7, 0x100000000), "limit", expected);
}

attributes dynset(uint32_t op)
{
	return {{NFTNL_EXPR_DYNSET_SREG_KEY, host32(reg)}, {NFTNL_EXPR_DYNSET_OP, host32(op)},
		{NFTNL_EXPR_DYNSET_SET_NAME, text("clients")}, {NFTNL_EXPR_DYNSET_SET_ID, host32(wide)},
		{NFTNL_EXPR_DYNSET_EXPR, ""}};
}

TEST(nft_expr, dynset_that_updates_has_a_timeout_and_its_expression)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	nftnl_expr *e = kvnft_build_expr_dynset(reg, "clients", wide, 0x0102030405060708, true, inner);
	ASSERT_NE(e, nullptr);
	uint32_t length = 0;
	EXPECT_EQ(nftnl_expr_get(e, NFTNL_EXPR_DYNSET_EXPR, &length), inner);
	attributes expected = dynset(1);
	expected[NFTNL_EXPR_DYNSET_TIMEOUT] = host(uint64_t{0x0102030405060708});
	expect_expr(e, "dynset", expected);
}

TEST(nft_expr, dynset_that_adds_with_a_timeout_of_0_has_none)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	expect_expr(kvnft_build_expr_dynset(reg, "clients", wide, 0, false, inner), "dynset", dynset(0));
}

TEST(nft_expr, dynset_has_a_negative_timeout_as_it_is)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	attributes expected = dynset(0);
	expected[NFTNL_EXPR_DYNSET_TIMEOUT] = host(int64_t{-2});
	expect_expr(kvnft_build_expr_dynset(reg, "clients", wide, -2, false, inner), "dynset", expected);
}

TEST(nft_expr, dynset_has_a_set_id_of_0_too)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	attributes expected = dynset(0);
	expected[NFTNL_EXPR_DYNSET_SET_ID] = host32(0);
	expect_expr(kvnft_build_expr_dynset(reg, "clients", 0, 0, false, inner), "dynset", expected);
}

TEST(nft_expr, dynset_releases_its_expression)
{
	int blocks = memory.blocks;
	nftnl_expr *e = kvnft_build_expr_dynset(1, "clients", 7, 0, true, kvnft_build_expr_limit(7, 0));
	EXPECT_EQ(memory.blocks, blocks + 3); // the two, and the name
	nftnl_expr_free(e);
	EXPECT_EQ(memory.blocks, blocks);
}

TEST(nft_expr, dynset_without_a_set_name_is_null_and_leaves_the_expression)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	EXPECT_EQ(kvnft_build_expr_dynset(1, nullptr, 7, 0, true, inner), nullptr);
	expect_expr(inner, "limit", limit_without_burst(7));
}

TEST(nft_expr, dynset_without_an_expression_is_null)
{
	int requests = memory.requests;
	EXPECT_EQ(kvnft_build_expr_dynset(1, "clients", 7, 0, true, nullptr), nullptr);
	EXPECT_EQ(memory.requests, requests);
}

TEST(nft_expr, payload_has_register_base_offset_and_length)
{
	expect_expr(kvnft_build_expr_payload(reg, wide, 0x090a0b0c, 0x0d0e0f10), "payload",
		payload(wide, 0x090a0b0c, 0x0d0e0f10));
}

TEST(nft_expr, payload_that_is_set_has_a_source_register_and_no_checksum)
{
	expect_expr(kvnft_build_expr_payload_set(reg, wide, 0x090a0b0c, 0x0d0e0f10), "payload",
		{{NFTNL_EXPR_PAYLOAD_SREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(wide)},
			{NFTNL_EXPR_PAYLOAD_OFFSET, host32(0x090a0b0c)},
			{NFTNL_EXPR_PAYLOAD_LEN, host32(0x0d0e0f10)}});
}

TEST(nft_expr, log_has_a_group)
{
	expect_expr(kvnft_build_expr_log(0x0102), "log", {{NFTNL_EXPR_LOG_GROUP, host(uint16_t{0x0102})}});
	expect_expr(kvnft_build_expr_log(0), "log", {{NFTNL_EXPR_LOG_GROUP, host(uint16_t{0})}});
}

const attributes meta_read = {{NFTNL_EXPR_META_KEY, host32(wide)}, {NFTNL_EXPR_META_DREG, host32(reg)}};
const attributes meta_write = {{NFTNL_EXPR_META_KEY, host32(wide)}, {NFTNL_EXPR_META_SREG, host32(reg)}};

TEST(nft_expr, meta_has_key_and_destination_register)
{
	expect_expr(kvnft_build_expr_meta(wide, reg), "meta", meta_read);
}

TEST(nft_expr, meta_that_is_set_has_key_and_source_register)
{
	expect_expr(kvnft_build_expr_meta_set(wide, reg), "meta", meta_write);
}

TEST(nft_expr, meta_of_either_kind_is_set_if_told_by_anything_but_0)
{
	expect_expr(_kvnft_build_expr_meta(wide, reg, 0), "meta", meta_read);
	for (int is_set : {1, -1, 0x100, 0x10000})
		expect_expr(_kvnft_build_expr_meta(wide, reg, is_set), "meta", meta_write);
}

TEST(nft_expr, cmp_has_register_operator_and_data)
{
	expect_expr(kvnft_build_expr_cmp(reg, wide, "abc", 3), "cmp",
		{{NFTNL_EXPR_CMP_SREG, host32(reg)}, {NFTNL_EXPR_CMP_OP, host32(wide)},
			{NFTNL_EXPR_CMP_DATA, "abc"}});
}

TEST(nft_expr, cmp_has_an_operator_of_0_too)
{
	expect_expr(kvnft_build_expr_cmp(reg, NFT_CMP_EQ, "abc", 3), "cmp",
		{{NFTNL_EXPR_CMP_SREG, host32(reg)}, {NFTNL_EXPR_CMP_OP, host32(0)},
			{NFTNL_EXPR_CMP_DATA, "abc"}});
}

TEST(nft_expr, redir_has_the_register_of_the_port)
{
	expect_expr(kvnft_build_expr_redir(reg), "redir", {{NFTNL_EXPR_REDIR_REG_PROTO_MIN, host32(reg)}});
}

TEST(nft_expr, masq_is_bare)
{
	expect_expr(kvnft_build_expr_masq(), "masq", {});
}

TEST(nft_expr, queue_has_number_total_and_flags)
{
	expect_expr(kvnft_build_expr_queue(0x0102, 0x0304, 0x0506), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{0x0102})},
			{NFTNL_EXPR_QUEUE_TOTAL, host(uint16_t{0x0304})},
			{NFTNL_EXPR_QUEUE_FLAGS, host(uint16_t{0x0506})}});
}

TEST(nft_expr, queue_has_a_number_of_0_but_no_total_and_no_flags)
{
	expect_expr(kvnft_build_expr_queue(5, 0, 0), "queue", {{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}});
	expect_expr(kvnft_build_expr_queue(0, 0, 0), "queue", {{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{0})}});
}

TEST(nft_expr, queue_may_have_a_total_or_flags_alone)
{
	expect_expr(kvnft_build_expr_queue(5, 2, 0), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}, {NFTNL_EXPR_QUEUE_TOTAL, host(uint16_t{2})}});
	expect_expr(kvnft_build_expr_queue(5, 0, 2), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}, {NFTNL_EXPR_QUEUE_FLAGS, host(uint16_t{2})}});
}

TEST(nft_expr, lookup_has_register_set_id_and_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, "clients", wide, 0x090a0b0c), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")},
			{NFTNL_EXPR_LOOKUP_SET_ID, host32(wide)},
			{NFTNL_EXPR_LOOKUP_FLAGS, host32(0x090a0b0c)}});
}

TEST(nft_expr, lookup_by_name_has_no_id_and_no_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, "clients", 0, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")}});
}

TEST(nft_expr, lookup_by_an_empty_name_has_the_name)
{
	expect_expr(kvnft_build_expr_lookup(reg, "", 0, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("")}});
}

TEST(nft_expr, lookup_by_id_has_no_name_and_no_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, nullptr, 7, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET_ID, host32(7)}});
}

TEST(nft_expr, lookup_by_an_id_of_high_bits_only_has_it)
{
	for (uint32_t id : {0x100u, high, 0x80000000u})
		expect_expr(kvnft_build_expr_lookup(reg, nullptr, id, 0), "lookup",
			{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET_ID, host32(id)}});
}

TEST(nft_expr, lookup_with_flags_of_high_bits_only_has_them)
{
	for (uint32_t flags : {0x100u, high, 0x80000000u})
		expect_expr(kvnft_build_expr_lookup(reg, "clients", 0, flags), "lookup",
			{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")},
				{NFTNL_EXPR_LOOKUP_FLAGS, host32(flags)}});
}

TEST(nft_expr, lookup_without_name_and_id_is_null_and_asks_for_no_memory)
{
	int requests = memory.requests;
	EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, 0), nullptr);
	EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, NFT_LOOKUP_F_INV), nullptr);
	EXPECT_EQ(memory.requests, requests);
}

TEST(nft_expr, bitwise_has_both_registers_length_mask_and_xor)
{
	expect_expr(kvnft_build_expr_bitwise(reg, wide, 0x090a0b0c, "mask", 4, "xo", 2), "bitwise",
		{{NFTNL_EXPR_BITWISE_SREG, host32(reg)}, {NFTNL_EXPR_BITWISE_DREG, host32(wide)},
			{NFTNL_EXPR_BITWISE_LEN, host32(0x090a0b0c)}, {NFTNL_EXPR_BITWISE_MASK, "mask"},
			{NFTNL_EXPR_BITWISE_XOR, "xo"}});
}

TEST(nft_field, ether_saddr_is_6_bytes_at_6_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_saddr(reg), "payload", payload(0, 6, 6));
}

TEST(nft_field, ether_daddr_is_6_bytes_at_0_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_daddr(reg), "payload", payload(0, 0, 6));
}

TEST(nft_field, ether_type_is_2_bytes_at_12_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_type(reg), "payload", payload(0, 12, 2));
}

TEST(nft_field, ip_daddr_is_4_bytes_at_16_of_the_network_layer)
{
	expect_expr(kvnft_build_expr_ip_daddr(reg), "payload", payload(1, 16, 4));
}

TEST(nft_field, udp_sport_is_2_bytes_at_0_of_the_transport_layer)
{
	expect_expr(kvnft_build_expr_udp_sport(reg), "payload", payload(2, 0, 2));
}

TEST(nft_field, udp_dport_is_2_bytes_at_2_of_the_transport_layer)
{
	expect_expr(kvnft_build_expr_udp_dport(reg), "payload", payload(2, 2, 2));
}

TEST(nft_field, tcp_dport_is_the_same_as_udp_dport)
{
	expect_expr(kvnft_build_expr_tcp_dport(reg), "payload", payload(2, 2, 2));
}

TEST(nft_field, ether_set_daddr_writes_6_bytes_at_0_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_set_daddr(reg), "payload",
		{{NFTNL_EXPR_PAYLOAD_SREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(0)},
			{NFTNL_EXPR_PAYLOAD_OFFSET, host32(0)}, {NFTNL_EXPR_PAYLOAD_LEN, host32(6)}});
}

TEST(nft_expr, what_is_passed_need_not_outlive_the_call)
{
	std::string name = "clients", data = "data", mask = "mask";
	owned_expr imm{kvnft_build_expr_imm(1, data.data(), 4)};
	owned_expr cmp{kvnft_build_expr_cmp(1, NFT_CMP_EQ, data.data(), 4)};
	owned_expr bitwise{kvnft_build_expr_bitwise(1, 1, 4, mask.data(), 4, data.data(), 4)};
	owned_expr lookup{kvnft_build_expr_lookup(1, name.c_str(), 0, 0)};
	owned_expr dynamic{
		kvnft_build_expr_dynset(1, name.c_str(), 0, 0, false, kvnft_build_expr_limit(1, 0))};
	name = "another", data = "xxxx", mask = "yyyy";
	EXPECT_EQ(attributes_of(imm.get())[NFTNL_EXPR_IMM_DATA], "data");
	EXPECT_EQ(attributes_of(cmp.get())[NFTNL_EXPR_CMP_DATA], "data");
	EXPECT_EQ(attributes_of(bitwise.get())[NFTNL_EXPR_BITWISE_MASK], "mask");
	EXPECT_EQ(attributes_of(bitwise.get())[NFTNL_EXPR_BITWISE_XOR], "data");
	EXPECT_STREQ(nftnl_expr_get_str(lookup.get(), NFTNL_EXPR_LOOKUP_SET), "clients");
	EXPECT_STREQ(nftnl_expr_get_str(dynamic.get(), NFTNL_EXPR_DYNSET_SET_NAME), "clients");
}

// ---- Data that the kernel's registers do not hold ----

TEST(nft_expr, data_of_up_to_64_bytes_is_kept_whole)
{
	const std::string all = characters(64);
	for (const data_case &one : with_data)
		for (uint32_t length : {0u, 1u, 16u, 63u, 64u}) {
			owned_expr e{one.build(all.data(), length)};
			ASSERT_TRUE(e);
			EXPECT_EQ(attributes_of(e.get())[one.attribute], all.substr(0, length));
		}
}

TEST(nft_expr, data_of_more_than_64_bytes_is_refused)
{
	const std::string all = characters(65540);
	int blocks = memory.blocks;
	for (const data_case &one : with_data)
		for (uint32_t length : {65u, 68u, 128u, 260u, 65536u, 65540u})
			EXPECT_EQ(one.build(all.data(), length), nullptr) << one.attribute << " " << length;
	for (const data_case &one : with_data)
		EXPECT_EQ(one.build(nullptr, UINT32_MAX), nullptr); // and not looked at
	EXPECT_EQ(memory.blocks, blocks);
}

} // namespace
