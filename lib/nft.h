/*
 * nft - nftables rules: expressions, sets, tables, chains and rules as libnftnl objects, batches of
 * changes, and the kernel's answer.
 *
 * A daemon builds objects, puts them into a batch, sends the batch as one transaction, and frees the
 * objects:
 *
 *	char *buf = xzalloc(KVNFT_BATCH_BUFFER_SIZE(limit)); // zeroed: libmnl leaves gaps as they are
 *	struct mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf, limit, 0);
 *	struct nftnl_rule *rule = kvnft_build_rule(NFPROTO_INET, "guest", "forward");
 *	nftnl_rule_add_expr(rule, kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1)); // and so on
 *	int error = kvnft_batch_add_rule(batch, rule, 1);
 *	if (!error)
 *		error = kvnft_batch_finish(batch, 2);
 *	if (!error)
 *		error = kvnft_batch_send(batch);
 *	nftnl_rule_free(rule), kvnft_batch_free(batch), free(buf);
 *
 * Null results must be looked at: what is built here is null when memory is exhausted, and nothing of
 * libnftnl takes null for an object. No argument may be null unless a function says so. Families,
 * registers, keys, operators, flags and verdicts are the kernel's numbers (<linux/netfilter.h>,
 * <linux/netfilter/nf_tables.h>). Names and data are copied, so nothing that is passed need outlive a
 * call. Nothing is logged; errors are negated errno values. One thread; nothing calls back but `cb` of
 * kvnft_send_msg_cb.
 */
#pragma once
#include <libmnl/libmnl.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct nftnl_expr;
struct nftnl_rule;
struct nftnl_set;
struct nftnl_table;

/*
 * ---- Expressions ----
 *
 * Each function makes one expression with a fixed choice of attributes. The caller owns the result,
 * usually until nftnl_rule_add_expr, which hands it to a rule; otherwise nftnl_expr_free releases it.
 * Null: memory is exhausted, or data is longer than the 64 bytes that the kernel's registers hold
 * together (most expressions use up to 16 of them, and the kernel refuses data beyond that). `dreg` is
 * the register that is written to, `sreg` the one read from. Data is compared and loaded as it stands:
 * fields of packets are in network order, marks in host order. Lengths and offsets are in bytes.
 */

/* "ct": loads the connection-tracking value `key` (NFT_CT_...). Attributes: KEY, DREG. */
struct nftnl_expr *kvnft_build_expr_ct(uint32_t dreg, uint32_t key);

/*
 * "reject": refuses the packet in the way of `type` (NFT_REJECT_...). Attributes: TYPE; and CODE, for
 * NFT_REJECT_ICMPX_UNREACH only. The code is not sent with the other types:
 * NFT_REJECT_TCP_RST has none, and the kernel refuses a rule with NFT_REJECT_ICMP_UNREACH (-EINVAL),
 * since it wants one.
 */
struct nftnl_expr *kvnft_build_expr_reject(uint32_t type, uint8_t code);

/*
 * "immediate": decides with `verdict`: NF_ACCEPT, NF_DROP or another one that names no chain, as
 * NFT_JUMP and NFT_GOTO do. Attributes: DREG 0, VERDICT.
 */
struct nftnl_expr *kvnft_build_expr_verdict(uint32_t verdict);

/* "immediate": loads `len` bytes of `data`. Attributes: DREG, DATA. */
struct nftnl_expr *kvnft_build_expr_imm(uint32_t dreg, const void *data, uint32_t len);

/*
 * "limit": matches the traffic beyond `rate` bytes a second; the only form there is. What may
 * pass at once is `rate` and `burst` bytes together; the low 32 bits of `burst` count. The kernel
 * refuses a rate of 0. Attributes: RATE, TYPE bytes, UNIT 1 (second), FLAGS inverted; and BURST unless
 * `burst` is 0.
 */
struct nftnl_expr *kvnft_build_expr_limit(uint64_t rate, uint64_t burst);

/*
 * "dynset": adds the value of `sreg_key` to a set for each packet, or with `update` also refreshes the
 * time-out of one that is there; `expr` is then evaluated for that element. `timeout_ms` is in
 * milliseconds; a negative one is sent as it is, which the kernel refuses. `set_id` is what
 * kvnft_build_set gave the set, if it is made in the same batch, and otherwise 0. The kernel wants a set
 * with NFT_SET_EVAL, and for a time-out also NFT_SET_TIMEOUT. Attributes: SREG_KEY, OP, TIMEOUT unless
 * 0, SET_NAME, SET_ID, EXPR.
 *
 * `set_name` and `expr` are required; without them the result is null. On success the result owns
 * `expr`; when it is null the caller still does, so keep it in a variable.
 */
struct nftnl_expr *kvnft_build_expr_dynset(uint32_t sreg_key, const char *set_name, uint32_t set_id,
	int64_t timeout_ms, bool update, struct nftnl_expr *expr);

/*
 * "payload": loads `len` bytes of a packet from `offset` behind `base` (NFT_PAYLOAD_...). Attributes:
 * DREG, BASE, OFFSET, LEN.
 */
struct nftnl_expr *kvnft_build_expr_payload(uint32_t dreg, uint32_t base, uint32_t offset, uint32_t len);

/* "payload": overwrites them. Attributes: SREG, BASE, OFFSET, LEN; no checksum is mended. */
struct nftnl_expr *kvnft_build_expr_payload_set(uint32_t sreg, uint32_t base, uint32_t offset, uint32_t len);

/* "log": hands the packet to the logging `group`. Attributes: GROUP. */
struct nftnl_expr *kvnft_build_expr_log(uint16_t group);

/* "meta": loads the packet's property `key` (NFT_META_...), or sets it. Attributes: KEY, DREG or SREG. */
struct nftnl_expr *kvnft_build_expr_meta(uint32_t key, uint32_t dreg);
struct nftnl_expr *kvnft_build_expr_meta_set(uint32_t key, uint32_t sreg);
/* Either of them: the latter if `is_set` is not 0. */
struct nftnl_expr *_kvnft_build_expr_meta(uint32_t key, uint32_t reg, int is_set);

/*
 * "cmp": goes on with the rule if the register and the data compare as `op` (NFT_CMP_...). Attributes:
 * SREG, OP, DATA.
 */
struct nftnl_expr *kvnft_build_expr_cmp(uint32_t sreg, uint32_t op, const void *data, uint32_t len);

/* "redir": redirects to this machine, to the port in `reg`, in network order. Attributes: REG_PROTO_MIN. */
struct nftnl_expr *kvnft_build_expr_redir(uint32_t reg);

/* "masq": replaces the source address with that of the outgoing interface. No attributes. */
struct nftnl_expr *kvnft_build_expr_masq(void);

/*
 * "queue": hands the packet to one of `total` queues from `num` on (0: to that one), as `flags`
 * (NFT_QUEUE_FLAG_...) say. Attributes: NUM, and TOTAL and FLAGS unless 0.
 */
struct nftnl_expr *kvnft_build_expr_queue(uint16_t num, uint16_t total, uint16_t flags);

/*
 * "lookup": goes on if the register's value is in the set; null if it is given neither a name nor an
 * id. The kernel wants a name in any case; where there is no set of that name yet, the id finds one
 * that the same batch makes.
 * Attributes: SREG; SET, SET_ID and FLAGS (NFT_LOOKUP_F_INV) unless null or 0.
 */
struct nftnl_expr *kvnft_build_expr_lookup(
	uint32_t sreg, const char *set_name, uint32_t set_id, uint32_t flags);

/*
 * "bitwise": dreg = (sreg & mask) ^ xor, over `len` bytes, which the kernel wants `mask_len` and
 * `xor_len` to be, too. Attributes: SREG, DREG, LEN, MASK, XOR.
 */
struct nftnl_expr *kvnft_build_expr_bitwise(uint32_t sreg, uint32_t dreg, uint32_t len, const void *mask,
	uint32_t mask_len, const void *xor_data, uint32_t xor_len);

/* Fields of headers, as "payload" loads them into `reg`. */
struct nftnl_expr *kvnft_build_expr_ether_saddr(uint32_t reg); /* link layer, 6 bytes at 6 */
struct nftnl_expr *kvnft_build_expr_ether_daddr(uint32_t reg); /* link layer, 6 bytes at 0 */
struct nftnl_expr *kvnft_build_expr_ether_type(uint32_t reg);  /* link layer, 2 bytes at 12 */
struct nftnl_expr *kvnft_build_expr_ip_daddr(uint32_t reg);    /* IPv4, 4 bytes at 16 */
struct nftnl_expr *kvnft_build_expr_udp_sport(uint32_t reg);   /* transport, 2 bytes at 0 */
struct nftnl_expr *kvnft_build_expr_udp_dport(uint32_t reg);   /* transport, 2 bytes at 2 */
struct nftnl_expr *kvnft_build_expr_tcp_dport(uint32_t reg);   /* the same place */
/* And one that is overwritten from `reg`: the Ethernet destination address. */
struct nftnl_expr *kvnft_build_expr_ether_set_daddr(uint32_t reg);

/*
 * ---- Sets, tables and rules ----
 *
 * The caller owns what is made and frees it with nftnl_set_free, nftnl_table_free, nftnl_rule_free,
 * which it may do as soon as it has been put into a batch. Null: memory is exhausted.
 */

/*
 * A set. Attributes: FAMILY; TABLE, NAME, FLAGS (NFT_SET_...) and KEY_LEN (bytes) unless null or 0; and
 * ID, by which rules of the same batch refer to it: 2 for the first set of a process, 3 for the next,
 * and so on. Key and data types are left to the caller.
 */
struct nftnl_set *kvnft_build_set(
	const char *table, const char *name, uint32_t family, uint32_t flags, uint32_t key_len);

/*
 * Adds an element to `set`, which owns it. Attributes: KEY; TIMEOUT (milliseconds) unless `timeout_ms`
 * is negative. With 0 the element stays for ever; with a negative number it has no time-out of its own:
 * as long as the set's default says, and this is also the number for a set without NFT_SET_TIMEOUT,
 * where the kernel refuses the others.
 *
 * Returns: 0, or -ENOMEM, also for a key that is longer than 64 bytes.
 */
int kvnft_build_set_add_elem(struct nftnl_set *set, const void *key, uint32_t key_len, int64_t timeout_ms);

/* A table. Attributes: FAMILY, NAME. */
struct nftnl_table *kvnft_build_table(const char *name, uint32_t family);

/*
 * A rule. Attributes: FAMILY, TABLE; and CHAIN unless null. Without a chain it stands for all rules of a
 * table, where rules are deleted, and cannot be added.
 */
struct nftnl_rule *kvnft_build_rule(uint32_t family, const char *table, const char *chain);

/*
 * These append an action to a rule. They return 0, or -ENOMEM; kvnft_rule_set_mark may then have
 * appended the first half, an "immediate".
 */
/* Sets the packet's mark, a number in host order, by way of register 1. */
int kvnft_rule_set_mark(struct nftnl_rule *rule, uint32_t mark);
/* As kvnft_build_expr_reject. */
int kvnft_rule_reject(struct nftnl_rule *rule, uint32_t type, uint8_t code);
/* NF_ACCEPT, NF_DROP, ...: 8 bits, so no jump, goto, return or continue; compatibility, narrow verdict */
int kvnft_rule_verdict(struct nftnl_rule *rule, uint8_t verdict);

/*
 * ---- Batches ----
 *
 * A batch collects messages in a buffer of the caller's, up to `limit` bytes. Allocate
 * KVNFT_BATCH_BUFFER_SIZE(limit) bytes for it: a message is written first and compared with the limit
 * afterwards, and up to a page may be written after the limit. A message that might be longer than 4096
 * bytes is built in memory of its own and copied into the batch once it is known to fit. How long it might
 * be is an estimate, and never too low: 13 ordinary expressions, or 60 elements, take no extra memory.
 *
 * Functions that append a message return 0, or -ENOMEM: it does not fit below the limit, memory is
 * exhausted, or a length in it cannot be said in netlink's 16 bits. Those bound each name and each list
 * with all that is in it: 65,530 characters, 4,095 elements of 4 bytes, or 2,340 with time-outs. What is
 * refused is not in the batch and not sent; what had been appended before stays, and a shorter message may
 * still fit. mnl_nlmsg_batch_reset empties the batch then, too: it moves no refused message to the front, as
 * it does where libmnl is used alone. They copy the object, and free none. `seq` is the message's sequence
 * number, the caller's choice; the kernel's answers repeat it.
 *
 * The kernel takes a batch in one piece: one longer than net.core.wmem_default (212992 less 32) is
 * refused with -EMSGSIZE. Each message asks for an acknowledgement, and all of them wait in the
 * socket's receive queue by the time that the batch has been sent. The kernel counts some 832 bytes for
 * each. For a batch of more than 4096 bytes the queue is made long enough for all of them. A process
 * without CAP_NET_ADMIN outside of user namespaces gets no more than twice net.core.rmem_max, which is
 * some 500 acknowledgements where nobody has changed it. Beyond that the kernel drops them, and the result is
 * -ENOBUFS, which says nothing about the change: it may have been made, or refused. A batch that is not
 * finished is taken, changes nothing, and gives 0.
 */
#define KVNFT_BATCH_BUFFER_SIZE(limit) ((size_t)(limit) + (size_t)MNL_SOCKET_BUFFER_SIZE)

/*
 * Starts a batch over `buf` with the message that begins a transaction. Null: memory is exhausted, or
 * the message does not fit. The buffer stays the caller's and must outlive the batch.
 */
struct mnl_nlmsg_batch *kvnft_batch_alloc_start(void *buf, size_t limit, uint32_t seq);

int kvnft_batch_add_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
int kvnft_batch_del_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* All elements of `set`, in one message. */
int kvnft_batch_add_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* The same; without any element in `set` the kernel deletes all that the set has. */
int kvnft_batch_del_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* After the chain's other rules. The kernel takes rules of up to 128 expressions. */
int kvnft_batch_add_rule(struct mnl_nlmsg_batch *batch, struct nftnl_rule *rule, uint32_t seq);

/* Appends the message that ends the transaction. */
int kvnft_batch_finish(struct mnl_nlmsg_batch *batch, uint32_t seq);

/*
 * Sends a finished batch and takes the kernel's answers; it may be sent again. The kernel makes all of
 * the changes, or none. One that is not finished changes nothing, and gives 0 all the same.
 *
 * Returns: as kvnft_send_msg_cb: 0, or the first error, such as -ENOENT, -EEXIST, -EBUSY or -EPERM.
 */
int kvnft_batch_send(struct mnl_nlmsg_batch *batch);

/* Releases the batch, not the buffer. */
void kvnft_batch_free(struct mnl_nlmsg_batch *batch);

/*
 * Sends `len` bytes of netlink messages over a socket of their own, and gives the messages that come
 * back to `cb` (null: none) with `data`, but not those of netlink's own, such as acknowledgements; see
 * mnl_cb_run. With MNL_CB_STOP `cb` skips the rest of what has been received at once, not what comes
 * after. It never waits: the kernel has answered by the time that it has taken the messages, and on
 * purpose an answer that were late would be lost, and the result be 0. The socket's descriptor may have any
 * number; memory is allocated for the socket only.
 *
 * Returns: 0, or the negated errno of the first step that failed, the kernel's refusal and `cb`'s
 *          (MNL_CB_ERROR with errno set) included; answers after that are not looked at. What fails
 *          after the sending says nothing about the change, which may have been made: -EINTR, a signal
 *          came; -ENOBUFS, the kernel had more answers than the receive queue takes; -ENOSPC, one of more
 *          than 4096 bytes, which before Linux 4.3 is also the refusal of a message that long; -ESRCH or
 *          -EBADMSG, one that is not for this socket, or malformed. Before it there is -EMSGSIZE, more at
 *          once than the kernel takes. The kernel refuses with some of the same numbers.
 */
int kvnft_send_msg_cb(const void *buf, size_t len, mnl_cb_t cb, void *data);

/*
 * ---- Whole changes ----
 *
 * The first ones append a message, as above, and need no object.
 */
int kvnft_batch_add_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq);
int kvnft_batch_del_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq);

/*
 * A chain: a base chain of `type` ("filter", "nat", "route") at the hook `hooknum`, with the priority
 * `prio`, bound to the interface `dev` in families that ask for one; or with a negative `hooknum` a
 * regular chain. Its object has the priority all the same; libnftnl sends it together with a
 * hook only. `type` and `dev` may be null. No policy is set, so a base chain accepts.
 */
int kvnft_batch_add_chain_simple(struct mnl_nlmsg_batch *batch, const char *name, const char *table,
	const char *type, int32_t hooknum, uint16_t family, int32_t prio, const char *dev, uint32_t seq);

/* Deletes every rule of the chain, or of the table; also of the table if `chain` is null. */
int kvnft_batch_flush_chain_simple(
	struct mnl_nlmsg_batch *batch, const char *chain, const char *table, uint32_t family, uint32_t seq);
int kvnft_batch_flush_table_simple(
	struct mnl_nlmsg_batch *batch, const char *table, uint32_t family, uint32_t seq);

/* A rule that accepts packets whose mark is `mark`, or is not. */
int kvnft_batch_accept_mark(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq);
int kvnft_batch_accept_mark_neq(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq);

/*
 * These make one change as a transaction of its own. They return what sending gives, or -ENOMEM if the
 * message could not be made; exhausted memory for the buffer ends the process. The object of a chain
 * that is deleted has the priority -1; the kernel does not see it.
 */
int kvnft_flush_chain_simple(const char *chain, const char *table, uint32_t family);
int kvnft_flush_table_simple(const char *table, uint32_t family);
int kvnft_del_table_simple(const char *name, uint32_t family);
int kvnft_del_chain_simple(const char *chain, const char *table, uint32_t family);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
