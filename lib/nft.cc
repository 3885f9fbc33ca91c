// Many functions that differ in a few words: the put_ functions say how an expression is made, append() how a message
// is put into a batch, transact() how one is sent alone. What stands in the functions themselves is what
// differs.
//
// libnftnl and libmnl write where they are told, as much as there is. So nothing longer than a kernel register
// set is given to libnftnl, whose records have space for just that, and before a message is built an upper bound
// of its length is taken from the object (`extent`). The bound decides only where the message is built; whether
// it fits the batch is libmnl's decision, by the true length.

#include "nft.h"

#include <errno.h>
#include <initializer_list>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <limits.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>

#include "internal/owned.h"
#include "log.h"

// The kernel's registers together (NFT_REG_SIZE * 4), and libnftnl's room for a value.
constexpr uint32_t DATA_BYTES_MAX = 64;

// What is received at once.
constexpr size_t ANSWER_BYTES_MAX = 4096;

// The shortest change that the kernel answers: two headers, and a name of up to three bytes. For an acknowledgement
// the kernel counts 832 bytes of the receive queue on a 64-bit machine, and more where memory is dealt out in
// larger pieces.
constexpr size_t CHANGE_BYTES_MIN = 28;
constexpr size_t ANSWER_QUEUE_BYTES = 2048;

// The answers to so many bytes fit the queue of 163840 bytes or more that a socket has from the start.
constexpr size_t ANSWERS_FIT_BYTES = 4096;

// ---- Expressions ----

// Each puts a value into an expression being made, if there still is one.

static void put_u8(nftnl_expr *e, uint16_t attribute, uint8_t value)
{
	if (e)
		nftnl_expr_set_u8(e, attribute, value);
}

static void put_u16(nftnl_expr *e, uint16_t attribute, uint16_t value)
{
	if (e)
		nftnl_expr_set_u16(e, attribute, value);
}

static void put_u32(nftnl_expr *e, uint16_t attribute, uint32_t value)
{
	if (e)
		nftnl_expr_set_u32(e, attribute, value);
}

static void put_u64(nftnl_expr *e, uint16_t attribute, uint64_t value)
{
	if (e)
		nftnl_expr_set_u64(e, attribute, value);
}

// The result is the expression, or null if the value does not fit: then there is none any more.
static nftnl_expr *put_text(nftnl_expr *e, uint16_t attribute, const char *value)
{
	if (!e || nftnl_expr_set_str(e, attribute, value) == 0)
		return e;
	nftnl_expr_free(e);
	return nullptr;
}

static nftnl_expr *put_data(nftnl_expr *e, uint16_t attribute, const void *value, uint32_t length)
{
	if (!e || (length <= DATA_BYTES_MAX && nftnl_expr_set_data(e, attribute, value, length) == 0))
		return e;
	nftnl_expr_free(e);
	return nullptr;
}

static nftnl_expr *kvnft_payload_expr(uint32_t reg, uint32_t base, uint32_t offset, uint32_t len, bool is_set)
{
	nftnl_expr *e = nftnl_expr_alloc("payload");
	put_u32(e, is_set ? NFTNL_EXPR_PAYLOAD_SREG : NFTNL_EXPR_PAYLOAD_DREG, reg);
	put_u32(e, NFTNL_EXPR_PAYLOAD_BASE, base);
	put_u32(e, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
	put_u32(e, NFTNL_EXPR_PAYLOAD_LEN, len);
	return e;
}

struct nftnl_expr *_kvnft_build_expr_meta(uint32_t key, uint32_t reg, int is_set)
{
	nftnl_expr *e = nftnl_expr_alloc("meta");
	put_u32(e, NFTNL_EXPR_META_KEY, key);
	put_u32(e, is_set ? NFTNL_EXPR_META_SREG : NFTNL_EXPR_META_DREG, reg);
	return e;
}

struct nftnl_expr *kvnft_build_expr_ct(uint32_t dreg, uint32_t key)
{
	nftnl_expr *e = nftnl_expr_alloc("ct");
	put_u32(e, NFTNL_EXPR_CT_KEY, key);
	put_u32(e, NFTNL_EXPR_CT_DREG, dreg);
	return e;
}

struct nftnl_expr *kvnft_build_expr_reject(uint32_t type, uint8_t code)
{
	nftnl_expr *e = nftnl_expr_alloc("reject");
	put_u32(e, NFTNL_EXPR_REJECT_TYPE, type);
	if (type == NFT_REJECT_ICMPX_UNREACH) // compatibility, reject codes
		put_u8(e, NFTNL_EXPR_REJECT_CODE, code);
	return e;
}

struct nftnl_expr *kvnft_build_expr_verdict(uint32_t verdict)
{
	nftnl_expr *e = nftnl_expr_alloc("immediate");
	put_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
	put_u32(e, NFTNL_EXPR_IMM_VERDICT, verdict);
	return e;
}

struct nftnl_expr *kvnft_build_expr_imm(uint32_t dreg, const void *data, uint32_t len)
{
	nftnl_expr *e = nftnl_expr_alloc("immediate");
	put_u32(e, NFTNL_EXPR_IMM_DREG, dreg);
	return put_data(e, NFTNL_EXPR_IMM_DATA, data, len);
}

struct nftnl_expr *kvnft_build_expr_limit(uint64_t rate, uint64_t burst)
{
	nftnl_expr *e = nftnl_expr_alloc("limit");
	put_u64(e, NFTNL_EXPR_LIMIT_RATE, rate);
	put_u32(e, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKT_BYTES);
	put_u64(e, NFTNL_EXPR_LIMIT_UNIT, 1);
	// Always: compatibility, over the rate
	put_u32(e, NFTNL_EXPR_LIMIT_FLAGS, NFT_LIMIT_F_INV);
	if (burst)
		put_u32(e, NFTNL_EXPR_LIMIT_BURST, static_cast<uint32_t>(burst));
	return e;
}

struct nftnl_expr *kvnft_build_expr_dynset(uint32_t sreg_key, const char *set_name, uint32_t set_id,
	int64_t timeout_ms, bool update, struct nftnl_expr *inner)
{
	if (!set_name || !inner)
		return nullptr;
	nftnl_expr *e = nftnl_expr_alloc("dynset");
	put_u32(e, NFTNL_EXPR_DYNSET_SREG_KEY, sreg_key);
	put_u32(e, NFTNL_EXPR_DYNSET_OP, update ? NFT_DYNSET_OP_UPDATE : NFT_DYNSET_OP_ADD);
	if (timeout_ms != 0)
		put_u64(e, NFTNL_EXPR_DYNSET_TIMEOUT, static_cast<uint64_t>(timeout_ms));
	e = put_text(e, NFTNL_EXPR_DYNSET_SET_NAME, set_name);
	put_u32(e, NFTNL_EXPR_DYNSET_SET_ID, set_id);
	if (e) // which takes over the other only now
		nftnl_expr_set(e, NFTNL_EXPR_DYNSET_EXPR, inner, 0);
	return e;
}

struct nftnl_expr *kvnft_build_expr_payload(uint32_t dreg, uint32_t base, uint32_t offset, uint32_t len)
{
	return kvnft_payload_expr(dreg, base, offset, len, false);
}

struct nftnl_expr *kvnft_build_expr_payload_set(uint32_t sreg, uint32_t base, uint32_t offset, uint32_t len)
{
	return kvnft_payload_expr(sreg, base, offset, len, true);
}

struct nftnl_expr *kvnft_build_expr_log(uint16_t group)
{
	nftnl_expr *e = nftnl_expr_alloc("log");
	put_u16(e, NFTNL_EXPR_LOG_GROUP, group);
	return e;
}

struct nftnl_expr *kvnft_build_expr_meta(uint32_t key, uint32_t dreg)
{
	return _kvnft_build_expr_meta(key, dreg, 0);
}

struct nftnl_expr *kvnft_build_expr_meta_set(uint32_t key, uint32_t sreg)
{
	return _kvnft_build_expr_meta(key, sreg, 1);
}

struct nftnl_expr *kvnft_build_expr_cmp(uint32_t sreg, uint32_t op, const void *data, uint32_t len)
{
	nftnl_expr *e = nftnl_expr_alloc("cmp");
	put_u32(e, NFTNL_EXPR_CMP_SREG, sreg);
	put_u32(e, NFTNL_EXPR_CMP_OP, op);
	return put_data(e, NFTNL_EXPR_CMP_DATA, data, len);
}

struct nftnl_expr *kvnft_build_expr_redir(uint32_t reg)
{
	nftnl_expr *e = nftnl_expr_alloc("redir");
	put_u32(e, NFTNL_EXPR_REDIR_REG_PROTO_MIN, reg);
	return e;
}

struct nftnl_expr *kvnft_build_expr_masq(void)
{
	return nftnl_expr_alloc("masq");
}

struct nftnl_expr *kvnft_build_expr_queue(uint16_t num, uint16_t total, uint16_t flags)
{
	nftnl_expr *e = nftnl_expr_alloc("queue");
	put_u16(e, NFTNL_EXPR_QUEUE_NUM, num);
	if (total)
		put_u16(e, NFTNL_EXPR_QUEUE_TOTAL, total);
	if (flags)
		put_u16(e, NFTNL_EXPR_QUEUE_FLAGS, flags);
	return e;
}

struct nftnl_expr *kvnft_build_expr_lookup(
	uint32_t sreg, const char *set_name, uint32_t set_id, uint32_t flags)
{
	if (!set_name && !set_id)
		return nullptr;
	nftnl_expr *e = nftnl_expr_alloc("lookup");
	put_u32(e, NFTNL_EXPR_LOOKUP_SREG, sreg);
	if (set_name)
		e = put_text(e, NFTNL_EXPR_LOOKUP_SET, set_name);
	if (set_id)
		put_u32(e, NFTNL_EXPR_LOOKUP_SET_ID, set_id);
	if (flags)
		put_u32(e, NFTNL_EXPR_LOOKUP_FLAGS, flags);
	return e;
}

struct nftnl_expr *kvnft_build_expr_bitwise(uint32_t sreg, uint32_t dreg, uint32_t len, const void *mask,
	uint32_t mask_len, const void *xor_data, uint32_t xor_len)
{
	nftnl_expr *e = nftnl_expr_alloc("bitwise");
	put_u32(e, NFTNL_EXPR_BITWISE_SREG, sreg);
	put_u32(e, NFTNL_EXPR_BITWISE_DREG, dreg);
	put_u32(e, NFTNL_EXPR_BITWISE_LEN, len);
	e = put_data(e, NFTNL_EXPR_BITWISE_MASK, mask, mask_len);
	return put_data(e, NFTNL_EXPR_BITWISE_XOR, xor_data, xor_len);
}

struct nftnl_expr *kvnft_build_expr_ether_saddr(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_LL_HEADER, 6, 6);
}

struct nftnl_expr *kvnft_build_expr_ether_daddr(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_LL_HEADER, 0, 6);
}

struct nftnl_expr *kvnft_build_expr_ether_type(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_LL_HEADER, 12, 2);
}

struct nftnl_expr *kvnft_build_expr_ip_daddr(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_NETWORK_HEADER, 16, 4);
}

struct nftnl_expr *kvnft_build_expr_udp_sport(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_TRANSPORT_HEADER, 0, 2);
}

struct nftnl_expr *kvnft_build_expr_udp_dport(uint32_t reg)
{
	return kvnft_build_expr_payload(reg, NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2);
}

struct nftnl_expr *kvnft_build_expr_tcp_dport(uint32_t reg)
{
	return kvnft_build_expr_udp_dport(reg);
}

struct nftnl_expr *kvnft_build_expr_ether_set_daddr(uint32_t reg)
{
	return kvnft_build_expr_payload_set(reg, NFT_PAYLOAD_LL_HEADER, 0, 6);
}

// ---- Sets, tables and rules ----

using owned_set = owned<nftnl_set *, nullptr, nftnl_set_free>;
using owned_elem = owned<nftnl_set_elem *, nullptr, nftnl_set_elem_free>;
using owned_table = owned<nftnl_table *, nullptr, nftnl_table_free>;
using owned_chain = owned<nftnl_chain *, nullptr, nftnl_chain_free>;
using owned_rule = owned<nftnl_rule *, nullptr, nftnl_rule_free>;
using owned_memory = owned<void *, nullptr, free>;

constinit static uint32_t kvnft_set_id_counter = 1;

struct nftnl_set *kvnft_build_set(
	const char *table, const char *name, uint32_t family, uint32_t flags, uint32_t key_len)
{
	owned_set set{nftnl_set_alloc()};
	if (!set.ok())
		return nullptr;
	nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, family);
	if (table && nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, table) != 0)
		return nullptr;
	if (name && nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name) != 0)
		return nullptr;
	if (flags)
		nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, flags);
	if (key_len)
		nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, key_len);
	nftnl_set_set_u32(set.get(), NFTNL_SET_ID, ++kvnft_set_id_counter);
	return set.give();
}

int kvnft_build_set_add_elem(struct nftnl_set *set, const void *key, uint32_t key_len, int64_t timeout_ms)
{
	owned_elem elem{key_len <= DATA_BYTES_MAX ? nftnl_set_elem_alloc() : nullptr};
	if (!elem.ok() || nftnl_set_elem_set(elem.get(), NFTNL_SET_ELEM_KEY, key, key_len) != 0)
		return -ENOMEM;
	if (timeout_ms >= 0)
		nftnl_set_elem_set_u64(elem.get(), NFTNL_SET_ELEM_TIMEOUT, static_cast<uint64_t>(timeout_ms));
	nftnl_set_elem_add(set, elem.give());
	return 0;
}

struct nftnl_table *kvnft_build_table(const char *name, uint32_t family)
{
	owned_table table{nftnl_table_alloc()};
	if (!table.ok())
		return nullptr;
	nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, family);
	if (nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name) != 0)
		return nullptr;
	return table.give();
}

struct nftnl_rule *kvnft_build_rule(uint32_t family, const char *table, const char *chain)
{
	owned_rule rule{nftnl_rule_alloc()};
	if (!rule.ok())
		return nullptr;
	nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, family);
	if (nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, table) != 0)
		return nullptr;
	if (chain && nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain) != 0)
		return nullptr;
	return rule.give();
}

// Gives an expression just built, or not, to the rule.
static int add_expr(nftnl_rule *rule, nftnl_expr *e)
{
	if (!e)
		return -ENOMEM;
	nftnl_rule_add_expr(rule, e);
	return 0;
}

int kvnft_rule_set_mark(struct nftnl_rule *rule, uint32_t mark)
{
	int error = add_expr(rule, kvnft_build_expr_imm(NFT_REG_1, &mark, sizeof mark));
	return error ? error : add_expr(rule, kvnft_build_expr_meta_set(NFT_META_MARK, NFT_REG_1));
}

int kvnft_rule_reject(struct nftnl_rule *rule, uint32_t type, uint8_t code)
{
	return add_expr(rule, kvnft_build_expr_reject(type, code));
}

int kvnft_rule_verdict(struct nftnl_rule *rule, uint8_t verdict)
{
	return add_expr(rule, kvnft_build_expr_verdict(verdict));
}

// ---- How long a message can become ----

// The most that the 16-bit length of one attribute leaves for its value; and for the device of a chain, which
// shares an attribute with the hook's two numbers, and is aligned to 4 there.
constexpr size_t VALUE_BYTES_MAX = UINT16_MAX - MNL_ATTR_HDRLEN;
constexpr size_t DEVICE_BYTES_MAX = VALUE_BYTES_MAX - MNL_ATTR_HDRLEN - 16 - 3;

// The bytes that an object takes in a message: never less than libnftnl writes, and often more. The rule, checked
// against every build function of libnftnl:
//
// - MESSAGE_BYTES for the headers and all numbers of a table, chain, rule or set. A set has the most: netlink's
//   and netfilter's header (20), handle and time-out (24), nine numbers of 32 bits (72), the fields of a
//   concatenation (208), and the header of the list (4).
// - A value that has a length of its own is one attribute, in two others at the most: the chain in the verdict in
//   the data of an element or an "immediate". That makes three headers.
// - An element is an attribute of the list; so is the list of its own expressions.
// - EXPR_BYTES for an expression without what has a length of its own outside of the record. "bitwise" has the
//   most: the attribute of the list and that around its own (8), the name (12), four numbers (32), and three
//   values that fill their place in the record (3 * 72). A "dynset" has a list in place of values, and a "match"
//   or "target" may have empty information.
struct extent {
	uint64_t bytes; // so wide that no number of parts makes it wrap
	bool refused = false;

	void add_value(uint64_t length, size_t length_max = VALUE_BYTES_MAX)
	{
		bytes += 3 * MNL_ATTR_HDRLEN + MNL_ALIGN(length);
		refused |= length > length_max;
	}
	void add_text(const char *text, size_t length_max = VALUE_BYTES_MAX)
	{
		if (text)
			add_value(strlen(text) + 1, length_max);
	}
};

constexpr size_t MESSAGE_BYTES = 384;
constexpr size_t EXPR_BYTES = 272;

// Of libnftnl's attributes, which are bits of a word.
constexpr uint16_t ATTRIBUTES_END = 32;

template <auto get, typename T>
static void add_attribute(extent *sum, T *object, uint16_t attribute)
{
	uint32_t length = 0;
	if (get(object, attribute, &length))
		sum->add_value(length);
}

// The expressions that rules are mostly made of, and which attribute of theirs is not in the record; 0: none.
struct expr_kind {
	char name[12] = {};
	uint8_t name_size; // with the terminator
	uint8_t text;

	template <size_t size>
	consteval expr_kind(const char (&kind_name)[size], uint8_t attribute = 0)
		: name_size(size), text(attribute)
	{
		for (size_t index = 0; index < size; index++)
			name[index] = kind_name[index];
	}
};

static constexpr expr_kind expr_kinds[] = {{"cmp"}, {"payload"}, {"meta"},
	{"immediate", NFTNL_EXPR_IMM_CHAIN}, {"lookup", NFTNL_EXPR_LOOKUP_SET}, {"ct"}, {"bitwise"},
	{"limit"}, {"reject"}, {"redir"}, {"masq"}, {"queue"}};

// Null for the others. Unrolled, so that a name is compared as the word or two that it is.
[[gnu::always_inline]] static inline const expr_kind *kind_of(const nftnl_expr *e)
{
	uint32_t name_size = 0;
	const void *name = nftnl_expr_get(e, NFTNL_EXPR_NAME, &name_size);
#pragma GCC unroll 16
	for (const expr_kind &kind : expr_kinds)
		if (kind.name_size == name_size && memcmp(kind.name, name, kind.name_size) == 0)
			return &kind;
	return nullptr;
}

static int add_expr(nftnl_expr *e, void *data);

static void add_other_expr(extent *sum, nftnl_expr *e)
{
	for (uint16_t attribute = NFTNL_EXPR_BASE; attribute < ATTRIBUTES_END; attribute++)
		add_attribute<nftnl_expr_get>(sum, e, attribute);
	if (strcmp(nftnl_expr_get_str(e, NFTNL_EXPR_NAME), "dynset") == 0)
		nftnl_expr_expr_foreach(e, add_expr, sum);
}

static int add_expr(nftnl_expr *e, void *data)
{
	extent *sum = static_cast<extent *>(data);
	sum->bytes += EXPR_BYTES;
	const expr_kind *kind = kind_of(e);
	if (!kind)
		add_other_expr(sum, e);
	else if (kind->text == NFTNL_EXPR_IMM_CHAIN && nftnl_expr_is_set(e, NFTNL_EXPR_IMM_DATA))
		return 0; // the data lies where the pointer to the name would be, and is sent in place of it
	else if (kind->text)
		add_attribute<nftnl_expr_get>(sum, e, kind->text);
	return 0;
}

static int add_elem(nftnl_set_elem *elem, void *data)
{
	extent *sum = static_cast<extent *>(data);
	sum->bytes += 2 * MNL_ATTR_HDRLEN;
	bool has_chain = nftnl_set_elem_is_set(elem, NFTNL_SET_ELEM_VERDICT); // without one, none is sent
	for (uint16_t attribute = 0; attribute <= NFTNL_SET_ELEM_MAX; attribute++)
		if (has_chain || attribute != NFTNL_SET_ELEM_CHAIN)
			add_attribute<nftnl_set_elem_get>(sum, elem, attribute);
	return nftnl_set_elem_expr_foreach(elem, add_expr, sum);
}

// The true length of a list, from each part built alone in one place.
struct list_length {
	nlmsghdr *part;
	size_t bytes = MNL_ATTR_HDRLEN;
};

template <auto build, typename T>
static int measure(T *part, void *data)
{
	list_length *sum = static_cast<list_length *>(data);
	sum->part->nlmsg_len = MNL_NLMSG_HDRLEN;
	build(sum->part, part);
	sum->bytes += MNL_ATTR_HDRLEN + sum->part->nlmsg_len - MNL_NLMSG_HDRLEN;
	return sum->bytes <= UINT16_MAX ? 0 : -1;
}

static bool is_too_long(uint64_t bytes)
{
	return bytes > PTRDIFF_MAX;
}

// Refuses a list that is longer than its 16-bit length can say. libnftnl would write the length's low bits, and the
// kernel take the shorter message that they make. `measure_all` gives each part of `object` to measure().
static extent with_list(extent sum, void *object, int (*measure_all)(void *object, list_length *sum))
{
	if (sum.refused || sum.bytes <= UINT16_MAX)
		return sum;
	owned_memory place{is_too_long(sum.bytes) ? nullptr : malloc(static_cast<size_t>(sum.bytes))};
	list_length length{static_cast<nlmsghdr *>(place.get())};
	sum.refused = !place.ok() || measure_all(object, &length) != 0;
	return sum;
}

static int measure_exprs(void *rule, list_length *sum)
{
	return nftnl_expr_foreach(static_cast<nftnl_rule *>(rule), measure<nftnl_expr_build_payload>, sum);
}

static int measure_exprs_of_set(void *set, list_length *sum)
{
	return nftnl_set_expr_foreach(static_cast<nftnl_set *>(set), measure<nftnl_expr_build_payload>, sum);
}

static int measure_elems(void *set, list_length *sum)
{
	return nftnl_set_elem_foreach(
		static_cast<nftnl_set *>(set), measure<nftnl_set_elem_nlmsg_build_payload>, sum);
}

static extent extent_of(nftnl_table *table)
{
	extent sum{MESSAGE_BYTES};
	sum.add_text(nftnl_table_get_str(table, NFTNL_TABLE_NAME));
	return sum;
}

static extent extent_of(nftnl_chain *chain)
{
	extent sum{MESSAGE_BYTES};
	for (uint16_t attribute : {NFTNL_CHAIN_NAME, NFTNL_CHAIN_TABLE, NFTNL_CHAIN_TYPE})
		sum.add_text(nftnl_chain_get_str(chain, attribute));
	if (nftnl_chain_is_set(chain, NFTNL_CHAIN_HOOKNUM)) // without one, no device is sent
		sum.add_text(nftnl_chain_get_str(chain, NFTNL_CHAIN_DEV), DEVICE_BYTES_MAX);
	return sum;
}

static extent extent_of(nftnl_rule *rule)
{
	extent sum{MESSAGE_BYTES};
	for (uint16_t attribute : {NFTNL_RULE_TABLE, NFTNL_RULE_CHAIN, NFTNL_RULE_USERDATA})
		add_attribute<nftnl_rule_get_data>(&sum, rule, attribute);
	nftnl_expr_foreach(rule, add_expr, &sum);
	return with_list(sum, rule, measure_exprs);
}

static extent extent_of(nftnl_set *set)
{
	extent sum{MESSAGE_BYTES};
	for (uint16_t attribute : {NFTNL_SET_TABLE, NFTNL_SET_NAME, NFTNL_SET_USERDATA})
		add_attribute<nftnl_set_get_data>(&sum, set, attribute);
	nftnl_set_expr_foreach(set, add_expr, &sum);
	return with_list(sum, set, measure_exprs_of_set);
}

static extent extent_of_elems(nftnl_set *set)
{
	extent sum{MESSAGE_BYTES};
	for (uint16_t attribute : {NFTNL_SET_TABLE, NFTNL_SET_NAME})
		add_attribute<nftnl_set_get_data>(&sum, set, attribute);
	nftnl_set_elem_foreach(set, add_elem, &sum);
	return with_list(sum, set, measure_elems);
}

// ---- Batches ----

// What is sure behind a batch's limit: no page is smaller than that.
constexpr size_t PAGE_BYTES_MIN = 4096;

static nlmsghdr *current(mnl_nlmsg_batch *batch)
{
	return static_cast<nlmsghdr *>(mnl_nlmsg_batch_current(batch));
}

// Takes up the message that has been written at the batch's end, if it is within the limit.
//
// If it is not, libmnl's next mnl_nlmsg_batch_reset moves what is at the end then to the front, by the length in
// its header, and the batch goes on after it. That may be far beyond the limit, or bytes that never were a
// message. So there is always a length of 0 at the end.
static int advance(mnl_nlmsg_batch *batch)
{
	bool fits = mnl_nlmsg_batch_next(batch);
	current(batch)->nlmsg_len = 0;
	return fits ? 0 : -ENOMEM;
}

struct message {
	uint16_t type;  // NFT_MSG_...
	uint16_t flags; // NLM_F_REQUEST comes along
};

// One of libnftnl's functions that write an object into a message.
template <auto build, typename T>
static void put_object(nlmsghdr *header, void *object)
{
	build(header, static_cast<T *>(object));
}

// Appends the message that `write_object` makes of the object: built at the batch's end, or where it might be longer than
// what is sure there, in memory of its own. libmnl looks at nothing but the header to see if a message fits, and from
// then on there is space for the rest.
static int append(mnl_nlmsg_batch *batch, message m, uint32_t family, uint32_t seq, const extent &sum,
	void (*write_object)(nlmsghdr *header, void *object), void *object)
{
	if (sum.refused || is_too_long(sum.bytes))
		return -ENOMEM;
	nlmsghdr *place = current(batch), *header = place;
	owned_memory own;
	if (sum.bytes > PAGE_BYTES_MIN) {
		own.take(calloc(1, static_cast<size_t>(sum.bytes))); // zeros: libmnl leaves gaps as they are
		header = static_cast<nlmsghdr *>(own.get());
	}
	if (!header)
		return -ENOMEM;
	nftnl_nlmsg_build_hdr(
		reinterpret_cast<char *>(header), m.type, static_cast<uint16_t>(family), m.flags, seq);
	write_object(header, object);
	*place = *header;
	int error = advance(batch);
	if (!error && own.ok())
		memcpy(place + 1, header + 1, header->nlmsg_len - sizeof *header);
	return error;
}

static int append_set(mnl_nlmsg_batch *batch, message m, nftnl_set *set, uint32_t seq)
{
	return append(batch, m, nftnl_set_get_u32(set, NFTNL_SET_FAMILY), seq, extent_of(set),
		put_object<nftnl_set_nlmsg_build_payload, nftnl_set>, set);
}

static int append_set_elems(mnl_nlmsg_batch *batch, message m, nftnl_set *set, uint32_t seq)
{
	return append(batch, m, nftnl_set_get_u32(set, NFTNL_SET_FAMILY), seq, extent_of_elems(set),
		put_object<nftnl_set_elems_nlmsg_build_payload, nftnl_set>, set);
}

static int kvnft_batch_rule_msg(mnl_nlmsg_batch *batch, nftnl_rule *rule, uint16_t type, uint32_t family,
	uint16_t flags, uint32_t seq)
{
	return append(batch, {type, flags}, family, seq, extent_of(rule),
		put_object<nftnl_rule_nlmsg_build_payload, nftnl_rule>, rule);
}

constexpr uint16_t CREATE = NLM_F_CREATE | NLM_F_ACK;

struct mnl_nlmsg_batch *kvnft_batch_alloc_start(void *buf, size_t limit, uint32_t seq)
{
	mnl_nlmsg_batch *batch = mnl_nlmsg_batch_start(buf, limit);
	if (!batch)
		return nullptr;
	nftnl_batch_begin(static_cast<char *>(mnl_nlmsg_batch_current(batch)), seq);
	if (advance(batch) != 0) {
		mnl_nlmsg_batch_stop(batch);
		return nullptr;
	}
	return batch;
}

int kvnft_batch_add_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq)
{
	return append_set(batch, {NFT_MSG_NEWSET, CREATE}, set, seq);
}

int kvnft_batch_del_set(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq)
{
	return append_set(batch, {NFT_MSG_DELSET, NLM_F_ACK}, set, seq);
}

int kvnft_batch_add_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq)
{
	return append_set_elems(batch, {NFT_MSG_NEWSETELEM, CREATE}, set, seq);
}

int kvnft_batch_del_set_elem(struct mnl_nlmsg_batch *batch, struct nftnl_set *set, uint32_t seq)
{
	return append_set_elems(batch, {NFT_MSG_DELSETELEM, NLM_F_ACK}, set, seq);
}

int kvnft_batch_add_rule(struct mnl_nlmsg_batch *batch, struct nftnl_rule *rule, uint32_t seq)
{
	uint32_t family = nftnl_rule_get_u32(rule, NFTNL_RULE_FAMILY);
	return kvnft_batch_rule_msg(batch, rule, NFT_MSG_NEWRULE, family, NLM_F_APPEND | CREATE, seq);
}

int kvnft_batch_finish(struct mnl_nlmsg_batch *batch, uint32_t seq)
{
	nftnl_batch_end(static_cast<char *>(mnl_nlmsg_batch_current(batch)), seq);
	return advance(batch);
}

int kvnft_batch_send(struct mnl_nlmsg_batch *batch)
{
	return kvnft_send_msg_cb(mnl_nlmsg_batch_head(batch), mnl_nlmsg_batch_size(batch), nullptr, nullptr);
}

void kvnft_batch_free(struct mnl_nlmsg_batch *batch)
{
	mnl_nlmsg_batch_stop(batch);
}

// ---- Sending ----

using owned_socket = owned<mnl_socket *, nullptr, quietly<mnl_socket *, mnl_socket_close>>;

// Whether an answer is there already: 1, 0, or -1 with errno set. A set of descriptors is an array of words, in which
// the kernel looks at as many bits as it is told; fd_set is one of 1024. Never inlined, so that the words are gone
// from the stack before the next call.
[[gnu::noinline]] static int is_readable(int fd)
{
	constexpr size_t WORD_BITS = 8 * sizeof(unsigned long);
	size_t number = static_cast<size_t>(fd), size = (number / WORD_BITS + 1) * sizeof(unsigned long);
	unsigned long *readable = static_cast<unsigned long *>(__builtin_alloca(size));
	memset(readable, 0, size);
	readable[number / WORD_BITS] = 1UL << number % WORD_BITS;
	timeval no_time = {}; // compatibility, no waiting
	return select(fd + 1, reinterpret_cast<fd_set *>(readable), nullptr, nullptr, &no_time);
}

// Takes one datagram of answers. Returns -1 with errno set for an error of the socket's, the kernel's
// or `cb`'s.
static int take_answers(mnl_socket *nl, mnl_cb_t cb, void *data)
{
	alignas(nlmsghdr) char answers[ANSWER_BYTES_MAX];
	ssize_t length = mnl_socket_recvfrom(nl, answers, sizeof answers);
	if (length < 0)
		return -1;
	return mnl_cb_run(answers, static_cast<size_t>(length), 0, mnl_socket_get_portid(nl), cb, data);
}

// Makes the receive queue long enough for the answers to `len` bytes of messages, as far as the process may: all wait
// there by the time that the messages have been sent. Without it they are as before, so no failure counts.
static void provide_for_answers(int fd, size_t len)
{
	size_t answers = len / CHANGE_BYTES_MIN;
	int wanted = answers < INT_MAX / ANSWER_QUEUE_BYTES ? static_cast<int>(answers * ANSWER_QUEUE_BYTES)
							    : INT_MAX;
	int bytes = 0;
	socklen_t length = sizeof bytes;
	if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &length) != 0 || bytes >= wanted)
		return;
	int half = wanted / 2; // the kernel doubles it
	if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half) != 0)
		setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &half, sizeof half);
}

int kvnft_send_msg_cb(const void *buf, size_t len, mnl_cb_t cb, void *data)
{
	owned_socket nl{mnl_socket_open(NETLINK_NETFILTER)};
	if (!nl.ok() || mnl_socket_bind(nl.get(), 0, MNL_SOCKET_AUTOPID) < 0)
		return -errno;
	int fd = mnl_socket_get_fd(nl.get()), yes = 1;
	// A refusal then repeats the message's header only, and is never too long to be received.
	mnl_socket_setsockopt(nl.get(), NETLINK_CAP_ACK, &yes, sizeof yes);
	if (len > ANSWERS_FIT_BYTES)
		provide_for_answers(fd, len);
	if (mnl_socket_sendto(nl.get(), buf, len) < 0)
		return -errno;
	int ready;
	while ((ready = is_readable(fd)) > 0)
		if (take_answers(nl.get(), cb, data) < 0)
			return -errno;
	return ready < 0 ? -errno : 0;
}

// ---- Whole changes ----

static int append_table(mnl_nlmsg_batch *batch, message m, const char *name, uint32_t family, uint32_t seq)
{
	owned_table table{kvnft_build_table(name, family)};
	if (!table.ok())
		return -ENOMEM;
	return append(batch, m, family, seq, extent_of(table.get()),
		put_object<nftnl_table_nlmsg_build_payload, nftnl_table>, table.get());
}

// Deletes the rules of a chain, or of the whole table.
static int append_flush(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain, uint32_t seq)
{
	owned_rule rule{kvnft_build_rule(family, table, chain)};
	if (!rule.ok())
		return -ENOMEM;
	return kvnft_batch_rule_msg(batch, rule.get(), NFT_MSG_DELRULE, family, NLM_F_ACK, seq);
}

static nftnl_chain *build_chain(const char *table, const char *name, const char *type, int32_t hooknum,
	int32_t prio, const char *dev, uint32_t family)
{
	owned_chain chain{nftnl_chain_alloc()};
	if (!chain.ok() || nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table) != 0 ||
		nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name) != 0)
		return nullptr;
	if (type && nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, type) != 0)
		return nullptr;
	if (hooknum >= 0)
		nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, static_cast<uint32_t>(hooknum));
	nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, prio); // compatibility, priority of regular chains
	if (dev && nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_DEV, dev) != 0)
		return nullptr;
	nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, family);
	return chain.give();
}

static int append_chain(mnl_nlmsg_batch *batch, message m, uint32_t family, uint32_t seq, nftnl_chain *chain)
{
	return append(batch, m, family, seq, extent_of(chain),
		put_object<nftnl_chain_nlmsg_build_payload, nftnl_chain>, chain);
}

int kvnft_batch_add_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq)
{
	return append_table(batch, {NFT_MSG_NEWTABLE, CREATE}, name, family, seq);
}

int kvnft_batch_del_table_simple(
	struct mnl_nlmsg_batch *batch, const char *name, uint32_t family, uint32_t seq)
{
	return append_table(batch, {NFT_MSG_DELTABLE, NLM_F_ACK}, name, family, seq);
}

int kvnft_batch_add_chain_simple(struct mnl_nlmsg_batch *batch, const char *name, const char *table,
	const char *type, int32_t hooknum, uint16_t family, int32_t prio, const char *dev, uint32_t seq)
{
	owned_chain chain{build_chain(table, name, type, hooknum, prio, dev, family)};
	if (!chain.ok())
		return -ENOMEM;
	return append_chain(batch, {NFT_MSG_NEWCHAIN, CREATE}, family, seq, chain.get());
}

int kvnft_batch_flush_chain_simple(
	struct mnl_nlmsg_batch *batch, const char *chain, const char *table, uint32_t family, uint32_t seq)
{
	return append_flush(batch, family, table, chain, seq);
}

int kvnft_batch_flush_table_simple(
	struct mnl_nlmsg_batch *batch, const char *table, uint32_t family, uint32_t seq)
{
	return append_flush(batch, family, table, nullptr, seq);
}

static int kvnft_batch_accept_mark_rule(mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq, bool equal)
{
	owned_rule rule{kvnft_build_rule(family, table, chain)};
	uint32_t op = equal ? NFT_CMP_EQ : NFT_CMP_NEQ;
	if (!rule.ok() || add_expr(rule.get(), kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1)) != 0 ||
		add_expr(rule.get(), kvnft_build_expr_cmp(NFT_REG_1, op, &mark, sizeof mark)) != 0 ||
		add_expr(rule.get(), kvnft_build_expr_verdict(NF_ACCEPT)) != 0)
		return -ENOMEM;
	return kvnft_batch_add_rule(batch, rule.get(), seq);
}

int kvnft_batch_accept_mark(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq)
{
	return kvnft_batch_accept_mark_rule(batch, family, table, chain, mark, seq, true);
}

int kvnft_batch_accept_mark_neq(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq)
{
	return kvnft_batch_accept_mark_rule(batch, family, table, chain, mark, seq, false);
}

using owned_batch = owned<mnl_nlmsg_batch *, nullptr, mnl_nlmsg_batch_stop>;

// Appends one change of a table, or of a chain in it. 0, or -ENOMEM.
using change = int (*)(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain, uint32_t seq);

// One change as a transaction of its own.
static int transact(change append_change, uint32_t family, const char *table, const char *chain)
{
	size_t limit = static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE);
	owned_memory buf{xzalloc(KVNFT_BATCH_BUFFER_SIZE(limit))};
	owned_batch batch{kvnft_batch_alloc_start(buf.get(), limit, 0)};
	if (!batch.ok() || append_change(batch.get(), family, table, chain, 1) != 0 ||
		kvnft_batch_finish(batch.get(), 2) != 0)
		return -ENOMEM;
	return kvnft_batch_send(batch.get());
}

int kvnft_flush_chain_simple(const char *chain, const char *table, uint32_t family)
{
	return transact(append_flush, family, table, chain);
}

int kvnft_flush_table_simple(const char *table, uint32_t family)
{
	return transact(append_flush, family, table, nullptr);
}

static int append_table_deletion(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *, uint32_t seq)
{
	return kvnft_batch_del_table_simple(batch, table, family, seq);
}

int kvnft_del_table_simple(const char *name, uint32_t family)
{
	return transact(append_table_deletion, family, name, nullptr);
}

static int append_chain_deletion(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain, uint32_t seq)
{
	// compatibility, priority of deleted chains
	owned_chain named{build_chain(table, chain, nullptr, -1, -1, nullptr, family)};
	if (!named.ok())
		return -ENOMEM;
	return append_chain(batch, {NFT_MSG_DELCHAIN, NLM_F_ACK}, family, seq, named.get());
}

int kvnft_del_chain_simple(const char *chain, const char *table, uint32_t family)
{
	return transact(append_chain_deletion, family, table, chain);
}
