// Expressions, sets, tables and rules for the kernel's nftables, and batches of changes. A message is written only
// where it fits: neither libnftnl nor libmnl is told how much memory there is.
//
// So libnftnl gets no value that is longer than the kernel's registers, which its records have space for. And an
// upper bound of a message's length decides where the message is built: in the batch, or in memory of its own.
// Whether it then fits the batch is decided by its true length.
//
// The functions differ in a few words only. The put_ functions set one attribute of an expression, append() adds
// a message to a batch, and transact() sends one change alone.

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

#include "internal/invariant.h"
#include "internal/owned.h"
#include "log.h"

// The kernel's registers together (NFT_REG_SIZE * 4), and libnftnl's room for a value.
constexpr uint32_t DATA_BYTES_MAX = 64;

// The most that one datagram of answers is read into.
constexpr size_t ANSWER_BYTES_MAX = 4096;

// The shortest change that the kernel answers: two headers, and a name of up to three bytes.
constexpr size_t CHANGE_BYTES_MIN = 28;

// The share of the receive queue for one acknowledgement. A 64-bit kernel counts 832 bytes, and more where it
// allocates memory in larger pieces.
constexpr size_t ANSWER_QUEUE_BYTES = 2048;

// The answers to a batch of this length fit the queue that a socket starts with, 163840 bytes or more.
constexpr size_t ANSWERS_FIT_BYTES = 4096;

// ---- Expressions ----

// Each sets an attribute of the expression. Null stays null, so builders check once, at their end.

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

// These two release the expression and return null if the value cannot be set.
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

static nftnl_expr *build_payload(uint32_t reg, uint32_t base, uint32_t offset, uint32_t len, bool is_set)
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
	put_u32(e, NFTNL_EXPR_LIMIT_FLAGS, NFT_LIMIT_F_INV); // compatibility, over the rate
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
	if (e) // ownership of `inner` passes here
		nftnl_expr_set(e, NFTNL_EXPR_DYNSET_EXPR, inner, 0);
	return e;
}

struct nftnl_expr *kvnft_build_expr_payload(uint32_t dreg, uint32_t base, uint32_t offset, uint32_t len)
{
	return build_payload(dreg, base, offset, len, false);
}

struct nftnl_expr *kvnft_build_expr_payload_set(uint32_t sreg, uint32_t base, uint32_t offset, uint32_t len)
{
	return build_payload(sreg, base, offset, len, true);
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

constinit static uint32_t last_set_id = 1;

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
	nftnl_set_set_u32(set.get(), NFTNL_SET_ID, ++last_set_id);
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

// Appends the expression, which passes to the rule. Null: it could not be built.
static int append_expr(nftnl_rule *rule, nftnl_expr *e)
{
	if (!e)
		return -ENOMEM;
	nftnl_rule_add_expr(rule, e);
	return 0;
}

int kvnft_rule_set_mark(struct nftnl_rule *rule, uint32_t mark)
{
	int error = append_expr(rule, kvnft_build_expr_imm(NFT_REG_1, &mark, sizeof mark));
	return error ? error : append_expr(rule, kvnft_build_expr_meta_set(NFT_META_MARK, NFT_REG_1));
}

int kvnft_rule_reject(struct nftnl_rule *rule, uint32_t type, uint8_t code)
{
	return append_expr(rule, kvnft_build_expr_reject(type, code));
}

int kvnft_rule_verdict(struct nftnl_rule *rule, uint8_t verdict)
{
	return append_expr(rule, kvnft_build_expr_verdict(verdict));
}

// ---- How long a message can become ----

// An object that is sent. A set is sent in two ways: by itself, or as the list of its elements.
struct nft_object {
	enum object_kind { TABLE, CHAIN, RULE, SET, ELEMENTS } kind;
	union {
		nftnl_table *table;
		nftnl_chain *chain;
		nftnl_rule *rule;
		nftnl_set *set;
	};

	explicit nft_object(nftnl_table *t) : kind(TABLE), table(t) {}
	explicit nft_object(nftnl_chain *c) : kind(CHAIN), chain(c) {}
	explicit nft_object(nftnl_rule *r) : kind(RULE), rule(r) {}
	explicit nft_object(nftnl_set *s, object_kind k = SET) : kind(k), set(s) {}
};

static void write_object(nlmsghdr *header, const nft_object &object)
{
	switch (object.kind) {
	case nft_object::TABLE:
		return nftnl_table_nlmsg_build_payload(header, object.table);
	case nft_object::CHAIN:
		return nftnl_chain_nlmsg_build_payload(header, object.chain);
	case nft_object::RULE:
		return nftnl_rule_nlmsg_build_payload(header, object.rule);
	case nft_object::SET:
		return nftnl_set_nlmsg_build_payload(header, object.set);
	case nft_object::ELEMENTS:
		return nftnl_set_elems_nlmsg_build_payload(header, object.set);
	}
}

// Calls `expr` or `elem` for each part of the object's list, until one returns a negative number, the result.
static int for_each_part(const nft_object &object, int (*expr)(nftnl_expr *, void *),
	int (*elem)(nftnl_set_elem *, void *), void *data)
{
	switch (object.kind) {
	case nft_object::RULE:
		return nftnl_expr_foreach(object.rule, expr, data);
	case nft_object::SET:
		return nftnl_set_expr_foreach(object.set, expr, data);
	case nft_object::ELEMENTS:
		return nftnl_set_elem_foreach(object.set, elem, data);
	default:
		return 0;
	}
}

constexpr size_t MESSAGE_BYTES = 384; // see length_bound_of
constexpr size_t EXPR_BYTES = 272;

// The longest value of an attribute, whose length has 16 bits. The name of a device lies deeper: it shares an
// attribute with the two numbers of the hook, and is padded to 4 bytes there.
constexpr size_t VALUE_BYTES_MAX = UINT16_MAX - MNL_ATTR_HDRLEN;
constexpr size_t DEVICE_BYTES_MAX = VALUE_BYTES_MAX - MNL_ATTR_HDRLEN - 16 - 3;

struct length_bound {
	uint64_t bytes = MESSAGE_BYTES; // 64 bits: no number of parts makes it wrap
	bool refused = false;           // the message cannot be sent: a length does not fit its 16 bits

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
	template <auto get, typename T>
	void add_attribute(T *object, uint16_t attribute)
	{
		uint32_t length = 0;
		if (get(object, attribute, &length))
			add_value(length);
	}
};

// libnftnl's attributes are bits of a word.
constexpr uint16_t ATTRIBUTES_END = 32;

// The common expressions, each with the attribute that lies outside of its record; 0: none.
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

// Null for other expressions. Unrolled, so that a name is compared as one word or two.
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

// Adds an expression of any kind, and those in its own list.
static int add_expr_length(nftnl_expr *e, void *data)
{
	length_bound *bound = static_cast<length_bound *>(data);
	bound->bytes += EXPR_BYTES;
	if (const expr_kind *kind = kind_of(e)) {
		// An "immediate" with data sends no chain: the data lies where the pointer to its name would be.
		bool has_text = kind->text && !(kind->text == NFTNL_EXPR_IMM_CHAIN &&
						      nftnl_expr_is_set(e, NFTNL_EXPR_IMM_DATA));
		if (has_text)
			bound->add_attribute<nftnl_expr_get>(e, kind->text);
		return 0;
	}
	for (uint16_t attribute = NFTNL_EXPR_BASE; attribute < ATTRIBUTES_END; attribute++)
		bound->add_attribute<nftnl_expr_get>(e, attribute);
	if (strcmp(nftnl_expr_get_str(e, NFTNL_EXPR_NAME), "dynset") == 0)
		nftnl_expr_expr_foreach(e, add_expr_length, bound);
	return 0;
}

static int add_elem_length(nftnl_set_elem *elem, void *data)
{
	length_bound *bound = static_cast<length_bound *>(data);
	bound->bytes += 2 * MNL_ATTR_HDRLEN;
	bool has_verdict =
		nftnl_set_elem_is_set(elem, NFTNL_SET_ELEM_VERDICT); // without one, no chain is sent
	for (uint16_t attribute = 0; attribute <= NFTNL_SET_ELEM_MAX; attribute++)
		if (has_verdict || attribute != NFTNL_SET_ELEM_CHAIN)
			bound->add_attribute<nftnl_set_elem_get>(elem, attribute);
	return nftnl_set_elem_expr_foreach(elem, add_expr_length, bound);
}

// The true length of a list: each part is built alone, all in the same place.
struct list_length {
	nlmsghdr *place;
	uint64_t place_bytes;
	size_t bytes = MNL_ATTR_HDRLEN;
};

template <auto build, typename T>
static int measure(T *part, void *data)
{
	list_length *list = static_cast<list_length *>(data);
	list->place->nlmsg_len = MNL_NLMSG_HDRLEN;
	build(list->place, part);
	invariant(list->place->nlmsg_len <= list->place_bytes); // a part keeps to the bound of the whole
	list->bytes += MNL_ATTR_HDRLEN + list->place->nlmsg_len - MNL_NLMSG_HDRLEN;
	return list->bytes <= UINT16_MAX ? 0 : -1;
}

// Whether the list's length fits its 16 bits. libnftnl would write the low bits, and the kernel take the shorter
// message that they make.
static bool list_fits(const nft_object &object, uint64_t bytes_max)
{
	owned_memory place{bytes_max > PTRDIFF_MAX ? nullptr : malloc(static_cast<size_t>(bytes_max))};
	list_length list{static_cast<nlmsghdr *>(place.get()), bytes_max};
	return place.ok() && for_each_part(object, measure<nftnl_expr_build_payload>,
				     measure<nftnl_set_elem_nlmsg_build_payload>, &list) == 0;
}

// An upper bound of the length of the message that write_object makes. libnftnl never writes more, and often less:
//
// - MESSAGE_BYTES holds the headers and all numbers of a table, chain, rule or set. A set has the most: the headers
//   of netlink and netfilter (20), handle and timeout (24), nine numbers of 32 bits (72), the fields of a
//   concatenation (208), and the header of the list (4).
// - A value with a length of its own is one attribute, within two others at most: the chain in the verdict in the
//   data of an element or of an "immediate". That makes three headers.
// - An element is an attribute of the list, and so is the list of its own expressions: two headers.
// - EXPR_BYTES holds an expression, but for values outside of its record. "bitwise" has the most: the attribute of
//   the list and the one around its own attributes (8), the name (12), four numbers (32), and three values that
//   fill their place in the record (3 * 72). A "dynset" has a list in place of values. A "match" or "target" may
//   have empty information.
// - All other values are added with their lengths.
//
// This was checked against each function of libnftnl that builds a message; append() asserts it of each message.
static length_bound length_bound_of(const nft_object &object)
{
	length_bound bound;
	switch (object.kind) {
	case nft_object::TABLE:
		bound.add_text(nftnl_table_get_str(object.table, NFTNL_TABLE_NAME));
		break;
	case nft_object::CHAIN:
		for (uint16_t attribute : {NFTNL_CHAIN_NAME, NFTNL_CHAIN_TABLE, NFTNL_CHAIN_TYPE})
			bound.add_text(nftnl_chain_get_str(object.chain, attribute));
		if (nftnl_chain_is_set(object.chain, NFTNL_CHAIN_HOOKNUM)) // without one, no device is sent
			bound.add_text(nftnl_chain_get_str(object.chain, NFTNL_CHAIN_DEV), DEVICE_BYTES_MAX);
		break;
	case nft_object::RULE:
		for (uint16_t attribute : {NFTNL_RULE_TABLE, NFTNL_RULE_CHAIN, NFTNL_RULE_USERDATA})
			bound.add_attribute<nftnl_rule_get_data>(object.rule, attribute);
		break;
	case nft_object::SET:
		bound.add_attribute<nftnl_set_get_data>(object.set, NFTNL_SET_USERDATA);
		[[fallthrough]];
	case nft_object::ELEMENTS:
		for (uint16_t attribute : {NFTNL_SET_TABLE, NFTNL_SET_NAME})
			bound.add_attribute<nftnl_set_get_data>(object.set, attribute);
		break;
	}
	for_each_part(object, add_expr_length, add_elem_length, &bound);
	if (!bound.refused && bound.bytes > UINT16_MAX)
		bound.refused = !list_fits(object, bound.bytes);
	return bound;
}

// ---- Batches ----

// The space after a batch's limit: a page, and none is smaller.
constexpr size_t PAGE_BYTES_MIN = 4096;

// Where the next message goes.
static nlmsghdr *batch_end(mnl_nlmsg_batch *batch)
{
	return static_cast<nlmsghdr *>(mnl_nlmsg_batch_current(batch));
}

// Takes the message written at the batch's end into the batch, if it is within the limit.
//
// If it is not, the next mnl_nlmsg_batch_reset moves the message at the end to the front, as long as its header
// says. That may reach far beyond the limit, or be bytes that never were a message. So there is always a length
// of 0 at the end.
static int advance(mnl_nlmsg_batch *batch)
{
	bool fits = mnl_nlmsg_batch_next(batch);
	batch_end(batch)->nlmsg_len = 0;
	return fits ? 0 : -ENOMEM;
}

struct message {
	uint16_t type;  // NFT_MSG_...
	uint16_t flags; // besides NLM_F_REQUEST
};

// Appends the object's message. It is built at the batch's end, or in memory of its own if it may be longer than
// the space there. libmnl reads only the header to see whether a message fits; the rest is copied once it does.
static int append(mnl_nlmsg_batch *batch, message m, uint32_t family, uint32_t seq, const nft_object &object)
{
	length_bound bound = length_bound_of(object);
	if (bound.refused)
		return -ENOMEM;
	nlmsghdr *place = batch_end(batch), *header = place;
	owned_memory own;
	if (bound.bytes > PAGE_BYTES_MIN) {
		own.take(
			calloc(1, static_cast<size_t>(bound.bytes))); // zeros: libmnl leaves gaps as they are
		header = static_cast<nlmsghdr *>(own.get());
	}
	if (!header)
		return -ENOMEM;
	nftnl_nlmsg_build_hdr(
		reinterpret_cast<char *>(header), m.type, static_cast<uint16_t>(family), m.flags, seq);
	write_object(header, object);
	size_t length = header->nlmsg_len;
	invariant(length <= bound.bytes); // nothing was written beyond the memory
	*place = *header;
	int error = advance(batch);
	if (error)
		return error;
	const char *end = reinterpret_cast<char *>(place) + length;
	invariant(reinterpret_cast<char *>(batch_end(batch)) == end); // the batch has taken the whole message
	if (own.ok())
		memcpy(place + 1, header + 1, length - sizeof *header);
	return 0;
}

static int append_set(mnl_nlmsg_batch *batch, message m, nftnl_set *set, uint32_t seq)
{
	return append(batch, m, nftnl_set_get_u32(set, NFTNL_SET_FAMILY), seq, nft_object{set});
}

static int append_set_elems(mnl_nlmsg_batch *batch, message m, nftnl_set *set, uint32_t seq)
{
	uint32_t family = nftnl_set_get_u32(set, NFTNL_SET_FAMILY);
	return append(batch, m, family, seq, nft_object{set, nft_object::ELEMENTS});
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
	return append(batch, {NFT_MSG_NEWRULE, NLM_F_APPEND | CREATE}, family, seq, nft_object{rule});
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

// Whether an answer has arrived: 1, 0, or -1 with errno set. The set of descriptors is an array of words as long as
// `fd` needs, since an fd_set ends at 1024. Never inlined, so that the array leaves the stack before the next call.
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

// Takes one datagram of answers. Returns -1 with errno set for an error of the socket, of the kernel, or of `cb`.
static int take_answers(mnl_socket *nl, mnl_cb_t cb, void *data)
{
	alignas(nlmsghdr) char answers[ANSWER_BYTES_MAX];
	ssize_t length = mnl_socket_recvfrom(nl, answers, sizeof answers);
	if (length < 0)
		return -1;
	return mnl_cb_run(answers, static_cast<size_t>(length), 0, mnl_socket_get_portid(nl), cb, data);
}

// Makes the receive queue long enough for the answers to `len` bytes of messages, as far as the process may: when the
// messages have been sent, all answers wait there. A failure leaves the queue as it is.
static void lengthen_receive_queue(int fd, size_t len)
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
	// A refusal then repeats only the message's header, and is never too long to be received.
	mnl_socket_setsockopt(nl.get(), NETLINK_CAP_ACK, &yes, sizeof yes);
	if (len > ANSWERS_FIT_BYTES)
		lengthen_receive_queue(fd, len);
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
	return append(batch, m, family, seq, nft_object{table.get()});
}

// Deletes the rules of a chain, or of the whole table.
static int append_flush(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain, uint32_t seq)
{
	owned_rule rule{kvnft_build_rule(family, table, chain)};
	if (!rule.ok())
		return -ENOMEM;
	return append(batch, {NFT_MSG_DELRULE, NLM_F_ACK}, family, seq, nft_object{rule.get()});
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
	return append(batch, {NFT_MSG_NEWCHAIN, CREATE}, family, seq, nft_object{chain.get()});
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

// A rule that accepts packets with this mark, or with any other.
static int append_accept_mark(mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain,
	uint32_t mark, uint32_t seq, bool equal)
{
	owned_rule rule{kvnft_build_rule(family, table, chain)};
	uint32_t op = equal ? NFT_CMP_EQ : NFT_CMP_NEQ;
	if (!rule.ok() || append_expr(rule.get(), kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1)) != 0 ||
		append_expr(rule.get(), kvnft_build_expr_cmp(NFT_REG_1, op, &mark, sizeof mark)) != 0 ||
		append_expr(rule.get(), kvnft_build_expr_verdict(NF_ACCEPT)) != 0)
		return -ENOMEM;
	return kvnft_batch_add_rule(batch, rule.get(), seq);
}

int kvnft_batch_accept_mark(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq)
{
	return append_accept_mark(batch, family, table, chain, mark, seq, true);
}

int kvnft_batch_accept_mark_neq(struct mnl_nlmsg_batch *batch, uint32_t family, const char *table,
	const char *chain, uint32_t mark, uint32_t seq)
{
	return append_accept_mark(batch, family, table, chain, mark, seq, false);
}

using owned_batch = owned<mnl_nlmsg_batch *, nullptr, mnl_nlmsg_batch_stop>;

// Appends one change of a table, or of a chain in it. Returns 0 or -ENOMEM.
using append_change = int (*)(
	mnl_nlmsg_batch *batch, uint32_t family, const char *table, const char *chain, uint32_t seq);

// Sends one change as a transaction of its own.
static int transact(append_change append_one, uint32_t family, const char *table, const char *chain)
{
	size_t limit = static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE);
	owned_memory buf{xzalloc(KVNFT_BATCH_BUFFER_SIZE(limit))};
	owned_batch batch{kvnft_batch_alloc_start(buf.get(), limit, 0)};
	if (!batch.ok() || append_one(batch.get(), family, table, chain, 1) != 0 ||
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
	return append(batch, {NFT_MSG_DELCHAIN, NLM_F_ACK}, family, seq, nft_object{named.get()});
}

int kvnft_del_chain_simple(const char *chain, const char *table, uint32_t family)
{
	return transact(append_chain_deletion, family, table, chain);
}
