/* The rules, built by direct calls of libnftnl and libmnl. */
#include "nft_rules.h"

#include <errno.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <sys/socket.h>

static bool add_payload(struct nftnl_rule *rule, uint32_t base, uint32_t offset, uint32_t len)
{
	struct nftnl_expr *expr = nftnl_expr_alloc("payload");
	if (!expr)
		return false;
	nftnl_expr_set_u32(expr, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_PAYLOAD_BASE, base);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_PAYLOAD_LEN, len);
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_meta(struct nftnl_rule *rule, uint32_t key)
{
	struct nftnl_expr *expr = nftnl_expr_alloc("meta");
	if (!expr)
		return false;
	nftnl_expr_set_u32(expr, NFTNL_EXPR_META_KEY, key);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_META_DREG, NFT_REG_1);
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_mask(struct nftnl_rule *rule, uint32_t mask)
{
	static const uint32_t no_bits = 0;
	struct nftnl_expr *expr = nftnl_expr_alloc("bitwise");
	if (!expr)
		return false;
	nftnl_expr_set_u32(expr, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_BITWISE_LEN, sizeof mask);
	if (nftnl_expr_set(expr, NFTNL_EXPR_BITWISE_MASK, &mask, sizeof mask) != 0 ||
		nftnl_expr_set(expr, NFTNL_EXPR_BITWISE_XOR, &no_bits, sizeof no_bits) != 0) {
		nftnl_expr_free(expr);
		return false;
	}
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_cmp(struct nftnl_rule *rule, const void *data, uint32_t len)
{
	struct nftnl_expr *expr = nftnl_expr_alloc("cmp");
	if (!expr)
		return false;
	nftnl_expr_set_u32(expr, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_CMP_OP, NFT_CMP_EQ);
	if (nftnl_expr_set(expr, NFTNL_EXPR_CMP_DATA, data, len) != 0) {
		nftnl_expr_free(expr);
		return false;
	}
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_verdict(struct nftnl_rule *rule, uint32_t verdict)
{
	struct nftnl_expr *expr = nftnl_expr_alloc("immediate");
	if (!expr)
		return false;
	nftnl_expr_set_u32(expr, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
	nftnl_expr_set_u32(expr, NFTNL_EXPR_IMM_VERDICT, verdict);
	nftnl_rule_add_expr(rule, expr);
	return true;
}

static bool add_network(struct nftnl_rule *rule, const struct nft_values *values)
{
	return add_payload(rule, NFT_PAYLOAD_NETWORK_HEADER, NFT_SADDR_OFFSET, sizeof values->network) &&
	       add_mask(rule, values->mask) && add_cmp(rule, &values->network, sizeof values->network);
}

static bool add_mark(struct nftnl_rule *rule, const struct nft_values *values)
{
	return add_meta(rule, NFT_META_MARK) && add_cmp(rule, &values->mark, sizeof values->mark);
}

static bool add_port(struct nftnl_rule *rule, const struct nft_values *values)
{
	static const uint8_t tcp = IPPROTO_TCP;
	return add_meta(rule, NFT_META_L4PROTO) && add_cmp(rule, &tcp, sizeof tcp) &&
	       add_payload(rule, NFT_PAYLOAD_TRANSPORT_HEADER, NFT_DPORT_OFFSET, sizeof values->port) &&
	       add_cmp(rule, &values->port, sizeof values->port);
}

static struct nftnl_rule *alloc_rule(void)
{
	struct nftnl_rule *rule = nftnl_rule_alloc();
	if (!rule)
		return NULL;
	nftnl_rule_set_u32(rule, NFTNL_RULE_FAMILY, NFPROTO_IPV4);
	if (nftnl_rule_set_str(rule, NFTNL_RULE_TABLE, NFT_TABLE) != 0 ||
		nftnl_rule_set_str(rule, NFTNL_RULE_CHAIN, NFT_CHAIN) != 0) {
		nftnl_rule_free(rule);
		return NULL;
	}
	return rule;
}

static struct nftnl_rule *build_rule(uint32_t number, bool is_short)
{
	struct nft_values values = nft_values_of(number);
	struct nftnl_rule *rule = alloc_rule();
	if (!rule)
		return NULL;
	if ((is_short || add_network(rule, &values)) && add_mark(rule, &values) &&
		(is_short || add_port(rule, &values)) && add_verdict(rule, NF_ACCEPT))
		return rule;
	nftnl_rule_free(rule);
	return NULL;
}

/* Ownership of the rule passes here; it may be null. */
static bool add_message(
	struct mnl_nlmsg_batch *batch, struct nftnl_rule *rule, uint16_t type, uint16_t flags, uint32_t seq)
{
	if (!rule)
		return false;
	struct nlmsghdr *header =
		nftnl_nlmsg_build_hdr(mnl_nlmsg_batch_current(batch), type, NFPROTO_IPV4, flags, seq);
	nftnl_rule_nlmsg_build_payload(header, rule);
	nftnl_rule_free(rule);
	return mnl_nlmsg_batch_next(batch);
}

static bool add_flush(struct mnl_nlmsg_batch *batch, uint32_t seq)
{
	return add_message(batch, alloc_rule(), NFT_MSG_DELRULE, NLM_F_ACK, seq);
}

static bool add_rule(struct mnl_nlmsg_batch *batch, uint32_t number, bool is_short, uint32_t seq)
{
	return add_message(batch, build_rule(number, is_short), NFT_MSG_NEWRULE,
		NLM_F_APPEND | NLM_F_CREATE | NLM_F_ACK, seq);
}

static bool add_rules(struct mnl_nlmsg_batch *batch, const struct nft_rules *rules)
{
	nftnl_batch_begin(mnl_nlmsg_batch_current(batch), 0);
	if (!mnl_nlmsg_batch_next(batch))
		return false;
	uint32_t seq = 1;
	if (nft_flushes(rules) && !add_flush(batch, seq++))
		return false;
	for (uint32_t i = 0; i < rules->count; i++)
		if (!add_rule(batch, rules->first + i, rules->are_short, seq++))
			return false;
	nftnl_batch_end(mnl_nlmsg_batch_current(batch), seq);
	return mnl_nlmsg_batch_next(batch);
}

struct mnl_nlmsg_batch *nft_build_direct(void *buf, size_t limit, const struct nft_rules *rules)
{
	struct mnl_nlmsg_batch *batch = mnl_nlmsg_batch_start(buf, limit);
	if (!batch)
		return NULL;
	if (!add_rules(batch, rules)) {
		mnl_nlmsg_batch_stop(batch);
		return NULL;
	}
	return batch;
}

/* When the send returns, the answers have arrived. */
static int take_answers(struct mnl_socket *nl)
{
	char answers[4096] __attribute__((aligned(8)));
	for (;;) {
		ssize_t length = mnl_socket_recvfrom(nl, answers, sizeof answers);
		if (length < 0)
			return errno == EAGAIN ? 0 : -errno;
		if (mnl_cb_run(answers, (size_t)length, 0, mnl_socket_get_portid(nl), NULL, NULL) < 0)
			return -errno;
	}
}

int nft_send_direct(struct mnl_nlmsg_batch *batch)
{
	struct mnl_socket *nl = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
	if (!nl)
		return -errno;
	int error = 0;
	if (mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) < 0 ||
		mnl_socket_sendto(nl, mnl_nlmsg_batch_head(batch), mnl_nlmsg_batch_size(batch)) < 0)
		error = -errno;
	else
		error = take_answers(nl);
	mnl_socket_close(nl);
	return error;
}
