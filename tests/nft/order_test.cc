// The order in which the library sets the attributes of libnftnl's objects.
#include "lib/nft.h"

#include <dlfcn.h>

#include "tests/nft/objects.h"

using namespace nft_objects;

// Notes the attributes of expressions, sets, elements, tables and rules as they are set. libnftnl sets some by
// calling another of these functions; that is one step. Nothing here asks for memory.
static struct {
	uint16_t attributes[16];
	size_t count;
	int depth; // of the calls that are under way
} steps;

class step
{
public:
	explicit step(uint16_t attribute)
	{
		if (steps.depth++ == 0 && steps.count < std::size(steps.attributes))
			steps.attributes[steps.count++] = attribute;
	}
	step(const step &) = delete;
	step &operator=(const step &) = delete;
	~step() { steps.depth--; }
};

#define WRITES_DOWN(returned, function, object, type)                                                        \
	extern "C" returned function(object *to, uint16_t attribute, type value)                             \
	{                                                                                                    \
		static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
		step written{attribute};                                                                     \
		return real(to, attribute, value);                                                           \
	}
#define WRITES_DOWN_BYTES(function, object)                                                                  \
	extern "C" int function(object *to, uint16_t attribute, const void *bytes, uint32_t length)          \
	{                                                                                                    \
		static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
		step written{attribute};                                                                     \
		return real(to, attribute, bytes, length);                                                   \
	}

WRITES_DOWN(void, nftnl_expr_set_u8, nftnl_expr, uint8_t)
WRITES_DOWN(void, nftnl_expr_set_u16, nftnl_expr, uint16_t)
WRITES_DOWN(void, nftnl_expr_set_u32, nftnl_expr, uint32_t)
WRITES_DOWN(void, nftnl_expr_set_u64, nftnl_expr, uint64_t)
WRITES_DOWN(int, nftnl_expr_set_str, nftnl_expr, const char *)
WRITES_DOWN_BYTES(nftnl_expr_set, nftnl_expr) // and nftnl_expr_set_data
WRITES_DOWN(void, nftnl_set_set_u32, nftnl_set, uint32_t)
WRITES_DOWN(void, nftnl_set_set_u64, nftnl_set, uint64_t)
WRITES_DOWN(int, nftnl_set_set_str, nftnl_set, const char *)
WRITES_DOWN_BYTES(nftnl_set_set_data, nftnl_set)
WRITES_DOWN(void, nftnl_set_elem_set_u32, nftnl_set_elem, uint32_t)
WRITES_DOWN(void, nftnl_set_elem_set_u64, nftnl_set_elem, uint64_t)
WRITES_DOWN(int, nftnl_set_elem_set_str, nftnl_set_elem, const char *)
WRITES_DOWN_BYTES(nftnl_set_elem_set, nftnl_set_elem)
WRITES_DOWN(void, nftnl_table_set_u8, nftnl_table, uint8_t)
WRITES_DOWN(void, nftnl_table_set_u32, nftnl_table, uint32_t)
WRITES_DOWN(void, nftnl_table_set_u64, nftnl_table, uint64_t)
WRITES_DOWN(int, nftnl_table_set_str, nftnl_table, const char *)
WRITES_DOWN_BYTES(nftnl_table_set_data, nftnl_table)
WRITES_DOWN(void, nftnl_rule_set_u32, nftnl_rule, uint32_t)
WRITES_DOWN(void, nftnl_rule_set_u64, nftnl_rule, uint64_t)
WRITES_DOWN(int, nftnl_rule_set_str, nftnl_rule, const char *)
WRITES_DOWN_BYTES(nftnl_rule_set_data, nftnl_rule)

namespace
{

using order = std::vector<uint16_t>;

template <typename F>
order order_of(F build)
{
	steps.count = 0;
	owned<std::remove_pointer_t<decltype(build())>> made{build()};
	EXPECT_TRUE(made);
	return {steps.attributes, steps.attributes + steps.count};
}

const struct {
	const char *name;
	nftnl_expr *(*build)();
	order attributes;
} orders_of_exprs[] = {
	{"ct", [] { return kvnft_build_expr_ct(1, 1); }, {NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG}},
	{"reject", [] { return kvnft_build_expr_reject(2, 1); },
		{NFTNL_EXPR_REJECT_TYPE, NFTNL_EXPR_REJECT_CODE}},
	{"verdict", [] { return kvnft_build_expr_verdict(1); },
		{NFTNL_EXPR_IMM_DREG, NFTNL_EXPR_IMM_VERDICT}},
	{"imm", [] { return kvnft_build_expr_imm(1, "data", 4); },
		{NFTNL_EXPR_IMM_DREG, NFTNL_EXPR_IMM_DATA}},
	{"limit", [] { return kvnft_build_expr_limit(1, 1); },
		{NFTNL_EXPR_LIMIT_RATE, NFTNL_EXPR_LIMIT_TYPE, NFTNL_EXPR_LIMIT_UNIT, NFTNL_EXPR_LIMIT_FLAGS,
			NFTNL_EXPR_LIMIT_BURST}},
	{"payload", [] { return kvnft_build_expr_payload(1, 1, 1, 1); },
		{NFTNL_EXPR_PAYLOAD_DREG, NFTNL_EXPR_PAYLOAD_BASE, NFTNL_EXPR_PAYLOAD_OFFSET,
			NFTNL_EXPR_PAYLOAD_LEN}},
	{"payload_set", [] { return kvnft_build_expr_payload_set(1, 1, 1, 1); },
		{NFTNL_EXPR_PAYLOAD_SREG, NFTNL_EXPR_PAYLOAD_BASE, NFTNL_EXPR_PAYLOAD_OFFSET,
			NFTNL_EXPR_PAYLOAD_LEN}},
	{"log", [] { return kvnft_build_expr_log(1); }, {NFTNL_EXPR_LOG_GROUP}},
	{"meta", [] { return kvnft_build_expr_meta(1, 1); }, {NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG}},
	{"meta_set", [] { return kvnft_build_expr_meta_set(1, 1); },
		{NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_SREG}},
	{"cmp", [] { return kvnft_build_expr_cmp(1, 1, "data", 4); },
		{NFTNL_EXPR_CMP_SREG, NFTNL_EXPR_CMP_OP, NFTNL_EXPR_CMP_DATA}},
	{"redir", [] { return kvnft_build_expr_redir(1); }, {NFTNL_EXPR_REDIR_REG_PROTO_MIN}},
	{"masq", [] { return kvnft_build_expr_masq(); }, {}},
	{"queue", [] { return kvnft_build_expr_queue(1, 1, 1); },
		{NFTNL_EXPR_QUEUE_NUM, NFTNL_EXPR_QUEUE_TOTAL, NFTNL_EXPR_QUEUE_FLAGS}},
	{"lookup", [] { return kvnft_build_expr_lookup(1, "clients", 1, 1); },
		{NFTNL_EXPR_LOOKUP_SREG, NFTNL_EXPR_LOOKUP_SET, NFTNL_EXPR_LOOKUP_SET_ID,
			NFTNL_EXPR_LOOKUP_FLAGS}},
	{"bitwise", [] { return kvnft_build_expr_bitwise(1, 1, 4, "mask", 4, "xor_", 4); },
		{NFTNL_EXPR_BITWISE_SREG, NFTNL_EXPR_BITWISE_DREG, NFTNL_EXPR_BITWISE_LEN,
			NFTNL_EXPR_BITWISE_MASK, NFTNL_EXPR_BITWISE_XOR}},
};

TEST(nft_order, attributes_of_expressions_are_set_as_they_are_listed)
{
	for (const auto &one : orders_of_exprs)
		EXPECT_EQ(order_of(one.build), one.attributes) << one.name;
}

TEST(nft_order, attributes_of_a_dynset_are_set_as_they_are_listed)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	EXPECT_EQ(order_of([=] { return kvnft_build_expr_dynset(1, "clients", 1, 1, true, inner); }),
		(order{NFTNL_EXPR_DYNSET_SREG_KEY, NFTNL_EXPR_DYNSET_OP, NFTNL_EXPR_DYNSET_TIMEOUT,
			NFTNL_EXPR_DYNSET_SET_NAME, NFTNL_EXPR_DYNSET_SET_ID, NFTNL_EXPR_DYNSET_EXPR}));
}

TEST(nft_order, attributes_of_a_set_are_set_as_they_are_listed)
{
	EXPECT_EQ(order_of([] { return kvnft_build_set("t", "s", 1, 1, 4); }),
		(order{NFTNL_SET_FAMILY, NFTNL_SET_TABLE, NFTNL_SET_NAME, NFTNL_SET_FLAGS, NFTNL_SET_KEY_LEN,
			NFTNL_SET_ID}));
}

TEST(nft_order, attributes_of_an_element_are_set_as_they_are_listed)
{
	owned_set set{kvnft_build_set("t", "s", 1, 1, 4)};
	steps.count = 0;
	ASSERT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, 1), 0);
	EXPECT_EQ((order{steps.attributes, steps.attributes + steps.count}),
		(order{NFTNL_SET_ELEM_KEY, NFTNL_SET_ELEM_TIMEOUT}));
}

TEST(nft_order, attributes_of_a_table_are_set_as_they_are_listed)
{
	EXPECT_EQ(order_of([] { return kvnft_build_table("t", 1); }),
		(order{NFTNL_TABLE_FAMILY, NFTNL_TABLE_NAME}));
}

TEST(nft_order, attributes_of_a_rule_are_set_as_they_are_listed)
{
	EXPECT_EQ(order_of([] { return kvnft_build_rule(1, "t", "c"); }),
		(order{NFTNL_RULE_FAMILY, NFTNL_RULE_TABLE, NFTNL_RULE_CHAIN}));
}

} // namespace
