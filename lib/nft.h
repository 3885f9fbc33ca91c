/*
 * nft - nftables rules: expressions, sets, tables, chains and rules as libnftnl objects, batches of
 * changes, and the kernel's answer.
 *
 * A daemon builds objects, puts them into a batch, sends the batch as one transaction, and frees the
 * objects: docs/recipes.md, "Change the firewall".
 *
 * Look at each result that may be null: no function of libnftnl takes null. No argument may be null
 * unless a function says so. Names and data are copied. Families, registers, keys, operators, flags and
 * verdicts are the kernel's numbers (<linux/netfilter.h>, <linux/netfilter/nf_tables.h>).
 *
 * One thread. Nothing is logged; errors are negated errno values.
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
 * Each function makes one expression, with the attributes in brackets. `dreg` is the register written,
 * `sreg` the one read. Data is taken as it stands: packet fields in network order, marks in host order.
 * Lengths and offsets are in bytes.
 *
 * Errors:    null: memory is exhausted, or data exceeds the kernel's 64 bytes of registers (most
 *            expressions use up to 16, and the kernel refuses more).
 * Ownership: the caller's, until nftnl_rule_add_expr hands it to a rule; nftnl_expr_free releases it.
 */

/* "ct": loads the connection-tracking value `key` (NFT_CT_...). [KEY, DREG] */
struct nftnl_expr *kvnft_build_expr_ct(uint32_t dreg, uint32_t key);

/*
 * "reject": refuses the packet in the way of `type` (NFT_REJECT_...). NFT_REJECT_TCP_RST needs no code;
 * NFT_REJECT_ICMP_UNREACH does, and the kernel refuses it here (-EINVAL).
 * [TYPE; CODE with NFT_REJECT_ICMPX_UNREACH only]
 */
struct nftnl_expr *kvnft_build_expr_reject(uint32_t type, uint8_t code);

/*
 * "immediate": decides with `verdict`: NF_ACCEPT, NF_DROP or another that names no chain (NFT_JUMP and
 * NFT_GOTO do).
 * [DREG 0, VERDICT]
 */
struct nftnl_expr *kvnft_build_expr_verdict(uint32_t verdict);

/* "immediate": loads `len` bytes of `data`. [DREG, DATA] */
struct nftnl_expr *kvnft_build_expr_imm(uint32_t dreg, const void *data, uint32_t len);

/*
 * "limit": matches the traffic beyond `rate` bytes a second; the only form there is. `rate` and `burst`
 * bytes together may pass at once; the low 32 bits of `burst` count. The kernel refuses a rate of 0.
 * [RATE, TYPE bytes, UNIT 1 (second), FLAGS inverted; BURST unless 0]
 */
struct nftnl_expr *kvnft_build_expr_limit(uint64_t rate, uint64_t burst);

/*
 * "dynset": adds the value of `sreg_key` to a set for each packet, with `update` also refreshes its
 * time-out, and evaluates `expr` for that element. The kernel refuses a negative `timeout_ms`
 * (milliseconds), and wants a set with NFT_SET_EVAL, for a time-out also NFT_SET_TIMEOUT. `set_id` is the
 * ID of a set of the same batch, else 0.
 * [SREG_KEY, OP, TIMEOUT unless 0, SET_NAME, SET_ID, EXPR]
 *
 * Errors:    null, also without `set_name` or `expr`.
 * Ownership: on success the result owns `expr`; on failure the caller does: keep it in a variable.
 */
struct nftnl_expr *kvnft_build_expr_dynset(uint32_t sreg_key, const char *set_name, uint32_t set_id,
	int64_t timeout_ms, bool update, struct nftnl_expr *expr);

/*
 * "payload": loads `len` bytes of a packet, `offset` bytes after `base` (NFT_PAYLOAD_...).
 * [DREG, BASE, OFFSET, LEN]
 */
struct nftnl_expr *kvnft_build_expr_payload(uint32_t dreg, uint32_t base, uint32_t offset, uint32_t len);

/* "payload": overwrites them; no checksum is mended. [SREG, BASE, OFFSET, LEN] */
struct nftnl_expr *kvnft_build_expr_payload_set(uint32_t sreg, uint32_t base, uint32_t offset, uint32_t len);

/* "log": hands the packet to the logging `group`. [GROUP] */
struct nftnl_expr *kvnft_build_expr_log(uint16_t group);

/* "meta": loads the packet's property `key` (NFT_META_...), or sets it. [KEY, DREG or SREG] */
struct nftnl_expr *kvnft_build_expr_meta(uint32_t key, uint32_t dreg);
struct nftnl_expr *kvnft_build_expr_meta_set(uint32_t key, uint32_t sreg);
/* Either of them: sets if `is_set` is not 0. */
struct nftnl_expr *_kvnft_build_expr_meta(uint32_t key, uint32_t reg, int is_set);

/* "cmp": goes on if register and data compare as `op` (NFT_CMP_...). [SREG, OP, DATA] */
struct nftnl_expr *kvnft_build_expr_cmp(uint32_t sreg, uint32_t op, const void *data, uint32_t len);

/* "redir": redirects to the port in `reg` (network order) of this machine. [REG_PROTO_MIN] */
struct nftnl_expr *kvnft_build_expr_redir(uint32_t reg);

/* "masq": makes the source address that of the outgoing interface. */
struct nftnl_expr *kvnft_build_expr_masq(void);

/*
 * "queue": hands the packet to one of `total` queues from `num` on (0: to that one), as `flags`
 * (NFT_QUEUE_FLAG_...) say.
 * [NUM; TOTAL and FLAGS unless 0]
 */
struct nftnl_expr *kvnft_build_expr_queue(uint16_t num, uint16_t total, uint16_t flags);

/*
 * "lookup": goes on if the register's value is in the set. The kernel always wants a name; if there is no
 * such set yet, the id finds one of the same batch.
 * [SREG; SET, SET_ID and FLAGS (NFT_LOOKUP_F_INV) unless null or 0]
 *
 * Errors:    null, also with neither name nor id.
 */
struct nftnl_expr *kvnft_build_expr_lookup(
	uint32_t sreg, const char *set_name, uint32_t set_id, uint32_t flags);

/*
 * "bitwise": dreg = (sreg & mask) ^ xor, over `len` bytes; the kernel wants `mask_len` and `xor_len` to
 * be the same.
 * [SREG, DREG, LEN, MASK, XOR]
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
/* Overwrites the Ethernet destination address from `reg`. */
struct nftnl_expr *kvnft_build_expr_ether_set_daddr(uint32_t reg);

/*
 * ---- Sets, tables and rules ----
 *
 * Errors:    null: memory is exhausted.
 * Ownership: the caller's, also after it has been put into a batch; nftnl_set_free, nftnl_table_free and
 *            nftnl_rule_free release it.
 */

/*
 * A set; rules of the same batch refer to it by its ID: 2, 3, ... in the order of making. Key and data
 * types are left to the caller.
 * [FAMILY; TABLE, NAME, FLAGS (NFT_SET_...) and KEY_LEN (bytes) unless null or 0; ID]
 */
struct nftnl_set *kvnft_build_set(
	const char *table, const char *name, uint32_t family, uint32_t flags, uint32_t key_len);

/*
 * Adds an element. A `timeout_ms` of 0 milliseconds keeps it for ever; with a negative one the set's
 * default holds, and a set without NFT_SET_TIMEOUT takes no other.
 * [KEY; TIMEOUT unless negative]
 *
 * Returns:   0.
 * Errors:    -ENOMEM, also for a key of more than 64 bytes.
 * Ownership: the element is the set's.
 */
int kvnft_build_set_add_elem(struct nftnl_set *set, const void *key, uint32_t key_len, int64_t timeout_ms);

/* A table. [FAMILY, NAME] */
struct nftnl_table *kvnft_build_table(const char *name, uint32_t family);

/*
 * A rule; without a chain it stands for all rules of a table, to be deleted, not added.
 * [FAMILY, TABLE; CHAIN unless null]
 */
struct nftnl_rule *kvnft_build_rule(uint32_t family, const char *table, const char *chain);

/*
 * These append an action to a rule.
 *
 * Returns:   0.
 * Errors:    -ENOMEM; kvnft_rule_set_mark may then have appended its first half, an "immediate".
 */
/* Sets the packet's mark, in host order, by way of register 1. */
int kvnft_rule_set_mark(struct nftnl_rule *rule, uint32_t mark);
/* As kvnft_build_expr_reject. */
int kvnft_rule_reject(struct nftnl_rule *rule, uint32_t type, uint8_t code);
/* NF_ACCEPT, NF_DROP, ...: 8 bits, so no jump, goto, return or continue; compatibility, narrow verdict */
int kvnft_rule_verdict(struct nftnl_rule *rule, uint8_t verdict);

/*
 * ---- Batches ----
 *
 * A batch collects messages in the caller's buffer, up to `limit` bytes. Allocate
 * KVNFT_BATCH_BUFFER_SIZE(limit) bytes, zeroed: libmnl leaves gaps, and writes a message before it
 * compares it with the limit. A message that might exceed 4096 bytes (13 ordinary expressions, or 60
 * elements, do not) takes memory of its own.
 *
 * The kernel takes a batch of at most net.core.wmem_default (212992) less 32 bytes. A process without
 * CAP_NET_ADMIN learns the result of some 500 messages at most: docs/recipes.md.
 *
 * All functions that append a message: `seq` is any number; the kernel's answers repeat it.
 *
 * Returns:   0.
 * Errors:    -ENOMEM: the message does not fit below the limit, memory is exhausted, or a name or list is
 *            too long for netlink (65530 characters, 2340 elements with time-outs). The batch stays as it
 *            was: a shorter message may fit, and mnl_nlmsg_batch_reset empties it.
 * Ownership: objects are copied, and stay the caller's.
 */
#define KVNFT_BATCH_BUFFER_SIZE(limit) ((size_t)(limit) + (size_t)MNL_SOCKET_BUFFER_SIZE)

/*
 * Starts a batch over `buf` with the message that begins a transaction.
 *
 * Errors:    null: memory is exhausted, or the message does not fit.
 * Ownership: the batch is the caller's (kvnft_batch_free), and so is the buffer, which must outlive it.
 */
struct mnl_nlmsg_batch *kvnft_batch_alloc_start(void *buf, size_t limit, uint32_t seq);

int kvnft_batch_add_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
int kvnft_batch_del_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* All elements of `set`, in one message. */
int kvnft_batch_add_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* The same; without an element in `set` the kernel deletes all. */
int kvnft_batch_del_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq);
/* After the chain's other rules. The kernel takes rules of up to 128 expressions. */
int kvnft_batch_add_rule(struct mnl_nlmsg_batch *batch, struct nftnl_rule *rule, uint32_t seq);

/* Appends the message that ends the transaction. */
int kvnft_batch_finish(struct mnl_nlmsg_batch *batch, uint32_t seq);

/*
 * Sends a finished batch, which may be sent again. The kernel makes all of the changes, or none. An
 * unfinished batch changes nothing, and gives 0.
 *
 * Returns:   0.
 * Errors:    as kvnft_send_msg_cb: the first error, such as -ENOENT, -EEXIST, -EBUSY or -EPERM.
 */
int kvnft_batch_send(struct mnl_nlmsg_batch *batch);

/* Releases the batch, not the buffer. */
void kvnft_batch_free(struct mnl_nlmsg_batch *batch);

/*
 * Sends `len` bytes of netlink messages over a socket of its own; its descriptor may have any number. The
 * answers queued by then go to `cb` (may be null) with `data`, as mnl_cb_run does; netlink's own, such as
 * acknowledgements, do not. It waits for none: a late answer is lost.
 *
 * With these results the change may have been made: -EINTR, a signal; -ENOBUFS, more answers than the
 * queue takes; -ENOSPC, an answer of over 4096 bytes (before Linux 4.3 also the refusal of such a
 * message); -ESRCH or -EBADMSG, an answer for another socket, or malformed. The kernel refuses with some
 * of these, too.
 *
 * Returns:   0.
 * Errors:    the first step that failed, the kernel's refusal and `cb`'s (MNL_CB_ERROR with errno)
 *            included. -EMSGSIZE: more at once than the kernel takes.
 * Callbacks: MNL_CB_STOP skips the rest of what was received at once, not what comes after.
 */
int kvnft_send_msg_cb(const void *buf, size_t len, mnl_cb_t cb, void *data);

/*
 * ---- Whole changes ----
 *
 * These append a message, as above, without an object.
 */
int kvnft_batch_add_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq);
int kvnft_batch_del_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq);

/*
 * A base chain of `type` ("filter", "nat", "route") at `hooknum` with the priority `prio`, bound to the
 * interface `dev` in families that ask for one; with a negative `hooknum` a regular chain, whose object
 * has the priority all the same. `type` and `dev` may be null. A base chain accepts.
 */
int kvnft_batch_add_chain_simple(struct mnl_nlmsg_batch *batch, const char *name, const char *table,
	const char *type, int32_t hooknum, uint16_t family, int32_t prio, const char *dev, uint32_t seq);

/* Delete every rule of the chain, or of the table; of the table also if `chain` is null. */
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
 * These make one change as a transaction of its own. A deleted chain's object has the priority -1, which
 * is not sent.
 *
 * Returns:   0.
 * Errors:    as kvnft_batch_send; -ENOMEM: the message could not be made. Without memory for the buffer
 *            the process ends.
 */
int kvnft_flush_chain_simple(const char *chain, const char *table, uint32_t family);
int kvnft_flush_table_simple(const char *table, uint32_t family);
int kvnft_del_table_simple(const char *name, uint32_t family);
int kvnft_del_chain_simple(const char *chain, const char *table, uint32_t family);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
