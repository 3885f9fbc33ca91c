// Helpers of the tests of nft without the kernel: every builder of an expression, and memory that is refused.
#pragma once
#include "tests/nft/objects.h"
#include "tests/support/memory.h"

namespace nft_objects
{

// Runs `call` with its request number `nth` for memory refused, counted from 0, and with every later one too
// if it is exhausted for good. Returns whether there was such a request.
template <typename F>
bool run_refusing(int nth, bool for_good, F call)
{
	for_good ? memory.refuse_from(nth) : memory.refuse(nth);
	call();
	memory.grant();
	return memory.refused;
}

// Every builder of an expression but the dynset.
inline nftnl_expr *(*const expr_builders[])() = {
	[] { return kvnft_build_expr_ct(1, 1); },
	[] { return kvnft_build_expr_reject(2, 1); },
	[] { return kvnft_build_expr_reject(0, 1); },
	[] { return kvnft_build_expr_verdict(1); },
	[] { return kvnft_build_expr_imm(1, "data", 4); },
	[] { return kvnft_build_expr_limit(1, 1); },
	[] { return kvnft_build_expr_payload(1, 1, 1, 1); },
	[] { return kvnft_build_expr_payload_set(1, 1, 1, 1); },
	[] { return kvnft_build_expr_log(1); },
	[] { return kvnft_build_expr_meta(1, 1); },
	[] { return kvnft_build_expr_meta_set(1, 1); },
	[] { return _kvnft_build_expr_meta(1, 1, 1); },
	[] { return kvnft_build_expr_cmp(1, 1, "data", 4); },
	[] { return kvnft_build_expr_redir(1); },
	[] { return kvnft_build_expr_masq(); },
	[] { return kvnft_build_expr_queue(1, 1, 1); },
	[] { return kvnft_build_expr_lookup(1, nullptr, 1, 1); },
	[] { return kvnft_build_expr_bitwise(1, 1, 4, "mask", 4, "xor_", 4); },
	[] { return kvnft_build_expr_ether_saddr(1); },
	[] { return kvnft_build_expr_ether_daddr(1); },
	[] { return kvnft_build_expr_ether_type(1); },
	[] { return kvnft_build_expr_ip_daddr(1); },
	[] { return kvnft_build_expr_udp_sport(1); },
	[] { return kvnft_build_expr_udp_dport(1); },
	[] { return kvnft_build_expr_tcp_dport(1); },
	[] { return kvnft_build_expr_ether_set_daddr(1); },
};

inline attributes limit_without_burst(uint64_t rate)
{
	return {{NFTNL_EXPR_LIMIT_RATE, host(rate)}, {NFTNL_EXPR_LIMIT_TYPE, host32(1)},
		{NFTNL_EXPR_LIMIT_UNIT, host(uint64_t{1})}, {NFTNL_EXPR_LIMIT_FLAGS, host32(1)}};
}

// The builders that take data, and the attribute that it becomes.
struct data_case {
	nftnl_expr *(*build)(const void *data, uint32_t length);
	uint16_t attribute;
};

inline const data_case with_data[] = {
	{[](const void *data, uint32_t length) { return kvnft_build_expr_imm(1, data, length); },
		NFTNL_EXPR_IMM_DATA},
	{[](const void *data, uint32_t length) { return kvnft_build_expr_cmp(1, 0, data, length); },
		NFTNL_EXPR_CMP_DATA},
	{[](const void *data, uint32_t length) {
		 return kvnft_build_expr_bitwise(1, 1, 4, data, length, "xor_", 4);
	 },
		NFTNL_EXPR_BITWISE_MASK},
	{[](const void *data, uint32_t length) {
		 return kvnft_build_expr_bitwise(1, 1, 4, "mask", 4, data, length);
	 },
		NFTNL_EXPR_BITWISE_XOR},
};

} // namespace nft_objects
