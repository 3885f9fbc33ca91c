/* The rules, built by lib/nft. */
#include "nft_rules.h"

#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "lib/nft.h"

static bool add(struct nftnl_rule *rule, struct nftnl_expr *expr)
{
	if (!expr)
		return false;
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_cmp(struct nftnl_rule *rule, const void *data, uint32_t len)
{
	return add(rule, kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, data, len));
}

static bool add_network(struct nftnl_rule *rule, const struct nft_values *values)
{
	static const uint32_t no_bits = 0;
	return add(rule, kvnft_build_expr_payload(NFT_REG_1, NFT_PAYLOAD_NETWORK_HEADER, NFT_SADDR_OFFSET,
				 sizeof values->network)) &&
	       add(rule, kvnft_build_expr_bitwise(NFT_REG_1, NFT_REG_1, sizeof values->mask, &values->mask,
				 sizeof values->mask, &no_bits, sizeof no_bits)) &&
	       add_cmp(rule, &values->network, sizeof values->network);
}

static bool add_mark(struct nftnl_rule *rule, const struct nft_values *values)
{
	return add(rule, kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1)) &&
	       add_cmp(rule, &values->mark, sizeof values->mark);
}

static bool add_port(struct nftnl_rule *rule, const struct nft_values *values)
{
	static const uint8_t tcp = IPPROTO_TCP;
	return add(rule, kvnft_build_expr_meta(NFT_META_L4PROTO, NFT_REG_1)) &&
	       add_cmp(rule, &tcp, sizeof tcp) && add(rule, kvnft_build_expr_tcp_dport(NFT_REG_1)) &&
	       add_cmp(rule, &values->port, sizeof values->port);
}

static bool add_expressions(struct nftnl_rule *rule, const struct nft_values *values, bool is_short)
{
	return (is_short || add_network(rule, values)) && add_mark(rule, values) &&
	       (is_short || add_port(rule, values)) && kvnft_rule_verdict(rule, NF_ACCEPT) == 0;
}

static bool add_rule(struct mnl_nlmsg_batch *batch, uint32_t number, bool is_short, uint32_t seq)
{
	struct nft_values values = nft_values_of(number);
	struct nftnl_rule *rule = kvnft_build_rule(NFPROTO_IPV4, NFT_TABLE, NFT_CHAIN);
	if (!rule)
		return false;
	bool added = add_expressions(rule, &values, is_short) && kvnft_batch_add_rule(batch, rule, seq) == 0;
	nftnl_rule_free(rule);
	return added;
}

static bool add_rules(struct mnl_nlmsg_batch *batch, const struct nft_rules *rules)
{
	uint32_t seq = 1;
	if (nft_flushes(rules) &&
		kvnft_batch_flush_chain_simple(batch, NFT_CHAIN, NFT_TABLE, NFPROTO_IPV4, seq++) != 0)
		return false;
	for (uint32_t i = 0; i < rules->count; i++)
		if (!add_rule(batch, rules->first + i, rules->are_short, seq++))
			return false;
	return kvnft_batch_finish(batch, seq) == 0;
}

struct mnl_nlmsg_batch *nft_build_apbase(void *buf, size_t limit, const struct nft_rules *rules)
{
	struct mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf, limit, 0);
	if (!batch)
		return NULL;
	if (!add_rules(batch, rules)) {
		kvnft_batch_free(batch);
		return NULL;
	}
	return batch;
}

int nft_send_apbase(struct mnl_nlmsg_batch *batch)
{
	return kvnft_batch_send(batch);
}
