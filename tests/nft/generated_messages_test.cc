// Whatever libnftnl can express: its message fits by its true length.
#include "lib/nft.h"

#include <random>

#include "tests/nft/appended.h"
#include "tests/support/memory.h"

using namespace nft_objects;

namespace
{

// Every expression and its attributes from the first one on: numbers of 1, 2, 4 or 8 bytes, texts, data,
// names of extensions and their information, jumps with the chain that is the next attribute; '-': not set.
const struct expr_kind {
	const char *name, *attributes;
} expr_kinds[] = {{"payload", "44444444"}, {"numgen", "4444"}, {"meta", "444"}, {"rt", "44"},
	{"socket", "444"}, {"tunnel", "44"}, {"cmp", "44d"}, {"range", "44dd"}, {"immediate", "4d"},
	{"immediate", "4-j-4"}, {"counter", "88"}, {"connlimit", "44"}, {"bitwise", "444dd4d"},
	{"target", "n4i"}, {"match", "n4i"}, {"nat", "4444444"}, {"tproxy", "444"}, {"lookup", "44t44"},
	{"dynset", "4448t4--4"}, {"log", "t24244"}, {"exthdr", "4144444"}, {"ct", "4414"},
	{"byteorder", "44444"}, {"limit", "88444"}, {"reject", "41"}, {"queue", "2224"}, {"quota", "848"},
	{"masq", "444"}, {"redir", "444"}, {"dup", "44"}, {"flow_offload", "t"}, {"fwd", "444"},
	{"hash", "4444444"}, {"fib", "444"}, {"objref", "4t4t4"}, {"osf", "414"}, {"xfrm", "44414"},
	{"synproxy", "214"}, {"last", "84"}};

// Objects at random, but the same ones in every run.
class generator
{
	std::mt19937 engine_;

	bool one_in(uint32_t count) { return below(count) == 0; }
	std::string any_text() { return characters(one_in(4) ? below(400) : below(20)); }

	void set_attribute(nftnl_expr *e, uint16_t number, char kind)
	{
		const std::string some = characters(64);
		if (kind == '1')
			nftnl_expr_set_u8(e, number, static_cast<uint8_t>(engine_()));
		else if (kind == '2')
			nftnl_expr_set_u16(e, number, static_cast<uint16_t>(engine_()));
		else if (kind == '4')
			nftnl_expr_set_u32(e, number, static_cast<uint32_t>(engine_()));
		else if (kind == '8')
			nftnl_expr_set_u64(e, number, engine_());
		else if (kind == 't')
			nftnl_expr_set_str(e, number, any_text().c_str());
		else if (kind == 'n')
			nftnl_expr_set_str(e, number, characters(below(40)).c_str());
		else if (kind == 'd')
			nftnl_expr_set_data(e, number, some.data(), below(65));
		else if (kind == 'i')
			set_information(e, number);
		else if (kind == 'j')
			set_jump(e, number);
	}

	void set_information(nftnl_expr *e, uint16_t number)
	{
		uint32_t length = 1 + below(300);
		void *given = calloc(1, length); // the expression releases it
		nftnl_expr_set_data(e, number, given, length);
	}

	void set_jump(nftnl_expr *e, uint16_t number)
	{
		nftnl_expr_set_u32(e, number, static_cast<uint32_t>(NFT_JUMP));
		nftnl_expr_set_str(e, static_cast<uint16_t>(number + 1), any_text().c_str());
	}

public:
	explicit generator(uint32_t seed) : engine_(seed) {}

	uint32_t below(uint32_t end) { return static_cast<uint32_t>(engine_() % end); }

	nftnl_expr *any_expr(uint32_t depth = 0)
	{
		const expr_kind &kind = expr_kinds[below(std::size(expr_kinds))];
		nftnl_expr *e = nftnl_expr_alloc(kind.name);
		EXPECT_NE(e, nullptr) << kind.name;
		bool all = one_in(3);
		for (size_t i = 0; kind.attributes[i]; i++)
			if (all || one_in(2))
				set_attribute(
					e, static_cast<uint16_t>(NFTNL_EXPR_BASE + i), kind.attributes[i]);
		if (strcmp(kind.name, "dynset") == 0 && depth < 2)
			for (uint32_t count = below(4); count > 0; count--)
				nftnl_expr_add_expr(e, NFTNL_EXPR_DYNSET_EXPRESSIONS, any_expr(depth + 1));
		return e;
	}

	owned_rule any_rule()
	{
		owned_rule rule{kvnft_build_rule(below(256), any_text().c_str(), any_text().c_str())};
		for (uint16_t number : {NFTNL_RULE_COMPAT_PROTO, NFTNL_RULE_COMPAT_FLAGS, NFTNL_RULE_ID,
			     NFTNL_RULE_POSITION_ID})
			if (one_in(2))
				nftnl_rule_set_u32(rule.get(), number, static_cast<uint32_t>(engine_()));
		for (uint16_t number : {NFTNL_RULE_HANDLE, NFTNL_RULE_POSITION})
			if (one_in(2))
				nftnl_rule_set_u64(rule.get(), number, engine_());
		for (uint32_t count = below(80); count > 0; count--)
			nftnl_rule_add_expr(rule.get(), any_expr());
		return rule;
	}

	nftnl_set_elem *any_elem()
	{
		nftnl_set_elem *elem = nftnl_set_elem_alloc();
		const std::string some = characters(64), name = any_text();
		for (uint16_t number : {NFTNL_SET_ELEM_KEY, NFTNL_SET_ELEM_KEY_END, NFTNL_SET_ELEM_USERDATA})
			if (one_in(2))
				nftnl_set_elem_set(elem, number, some.data(), below(65));
		if (one_in(2))
			nftnl_set_elem_set_str(elem, NFTNL_SET_ELEM_OBJREF, name.c_str());
		if (one_in(2))
			nftnl_set_elem_set_u32(elem, NFTNL_SET_ELEM_FLAGS, below(4));
		for (uint16_t number : {NFTNL_SET_ELEM_TIMEOUT, NFTNL_SET_ELEM_EXPIRATION})
			if (one_in(2))
				nftnl_set_elem_set_u64(elem, number, engine_());
		if (one_in(2)) {
			nftnl_set_elem_set_u32(elem, NFTNL_SET_ELEM_VERDICT, static_cast<uint32_t>(NFT_JUMP));
			nftnl_set_elem_set_str(elem, NFTNL_SET_ELEM_CHAIN, name.c_str());
		} else if (one_in(2)) {
			nftnl_set_elem_set(elem, NFTNL_SET_ELEM_DATA, some.data(), below(65));
		}
		for (uint32_t count = one_in(4) ? below(4) : 0; count > 0; count--)
			nftnl_set_elem_add_expr(elem, any_expr());
		return elem;
	}

	owned_set any_set()
	{
		owned_set set{kvnft_build_set(
			any_text().c_str(), any_text().c_str(), below(256), below(2), below(65))};
		for (uint16_t number :
			{NFTNL_SET_KEY_TYPE, NFTNL_SET_DATA_TYPE, NFTNL_SET_DATA_LEN, NFTNL_SET_OBJ_TYPE,
				NFTNL_SET_POLICY, NFTNL_SET_DESC_SIZE, NFTNL_SET_GC_INTERVAL})
			if (one_in(2))
				nftnl_set_set_u32(set.get(), number, static_cast<uint32_t>(engine_()));
		for (uint16_t number : {NFTNL_SET_TIMEOUT, NFTNL_SET_HANDLE})
			if (one_in(2))
				nftnl_set_set_u64(set.get(), number, engine_());
		if (one_in(2))
			nftnl_set_set_data(
				set.get(), NFTNL_SET_DESC_CONCAT, characters(16).data(), 1 + below(15));
		for (uint32_t count = one_in(2) ? below(8) : 0; count > 0; count--)
			nftnl_set_add_expr(set.get(), any_expr());
		for (uint32_t count = below(30); count > 0; count--)
			nftnl_set_elem_add(set.get(), any_elem());
		return set;
	}
};

nftnl_expr *fullest_expr(const expr_kind &kind)
{
	const std::string some = characters(64);
	nftnl_expr *e = nftnl_expr_alloc(kind.name);
	for (uint16_t i = 0; kind.attributes[i]; i++) {
		auto number = static_cast<uint16_t>(NFTNL_EXPR_BASE + i);
		switch (kind.attributes[i]) {
		case '1':
			nftnl_expr_set_u8(e, number, 1);
			break;
		case '2':
			nftnl_expr_set_u16(e, number, 1);
			break;
		case '4':
			nftnl_expr_set_u32(e, number, 1);
			break;
		case '8':
			nftnl_expr_set_u64(e, number, 1);
			break;
		case 'd':
			nftnl_expr_set_data(e, number, some.data(), 64);
			break;
		case 'i':
			nftnl_expr_set_data(e, number, calloc(1, 300), 300);
			break;
		case 'j':
			nftnl_expr_set_u32(e, number, static_cast<uint32_t>(NFT_JUMP));
			nftnl_expr_set_str(e, static_cast<uint16_t>(number + 1), some.c_str());
			break;
		case 't':
		case 'n':
			nftnl_expr_set_str(e, number, some.c_str());
			break;
		default:
			break;
		}
	}
	return e;
}

// The message about an object as libnftnl alone writes it, in a place of ample size.
template <typename T>
std::string message_by_libnftnl(T *object, void (*build)(nlmsghdr *, T *))
{
	static char place[ample];
	nlmsghdr *header = nftnl_nlmsg_build_hdr(place, 0, 0, 0, 0);
	build(header, object);
	return {place, header->nlmsg_len};
}

// The length of a message, and the length that the library computed for it: it asks for that much memory to build
// the message in.
struct lengths {
	size_t real, reckoned;
};

// The object needs padding, so that its message cannot be built at the batch's end. Other tests have lists that are
// too long.
template <typename T, typename F>
lengths lengths_of(T *object, void (*build)(nlmsghdr *, T *), F append)
{
	std::string real = message_by_libnftnl(object, build);
	EXPECT_LT(real.size(), 60000u);
	test_batch batch;
	int requests = memory.requests;
	int error = append(batch.get(), object, 1);
	size_t reckoned = memory.last_size;
	EXPECT_EQ(error, 0);
	EXPECT_GT(memory.requests, requests) << "it has been built in place";
	EXPECT_EQ(batch.size(), 20 + real.size());
	EXPECT_GE(reckoned, real.size());
	return {real.size(), reckoned};
}

const std::string padding = characters(room);

lengths lengths_of(nftnl_rule *rule)
{
	nftnl_rule_set_data(rule, NFTNL_RULE_USERDATA, padding.data(), static_cast<uint32_t>(padding.size()));
	return lengths_of(rule, nftnl_rule_nlmsg_build_payload, kvnft_batch_add_rule);
}

lengths lengths_of(nftnl_set *set)
{
	nftnl_set_set_data(set, NFTNL_SET_USERDATA, padding.data(), static_cast<uint32_t>(padding.size()));
	return lengths_of(set, nftnl_set_nlmsg_build_payload, kvnft_batch_add_set);
}

// The elements have no user data: the name of the table takes its place.
lengths lengths_of_elems(nftnl_set *set)
{
	nftnl_set_set_str(set, NFTNL_SET_TABLE, padding.c_str());
	return lengths_of(set, nftnl_set_elems_nlmsg_build_payload, kvnft_batch_add_set_elem);
}

// The library computes at least the true length of what has been added, and at most a small multiple of it.
void expect_added(const lengths &before, const lengths &after, const char *what = "")
{
	EXPECT_GE(after.reckoned - before.reckoned, after.real - before.real) << what;
	EXPECT_LE(after.reckoned - before.reckoned, 20 * (after.real - before.real)) << what;
}

template <typename T, typename F>
void expect_same_message_that_fits(T *object, void (*build)(nlmsghdr *, T *), F append)
{
	std::string real = message_by_libnftnl(object, build);
	std::string appended =
		message_that_fits([=](mnl_nlmsg_batch *batch) { return append(batch, object, 1); });
	ASSERT_EQ(appended.size(), real.size());
	EXPECT_EQ(canonical_attributes(appended.substr(20)), canonical_attributes(real.substr(20)));
}

TEST(nft_room, any_rule_fits_by_its_true_length)
{
	generator any{1};
	for (int i = 0; i < 200; i++) {
		owned_rule rule = any.any_rule();
		expect_same_message_that_fits(
			rule.get(), nftnl_rule_nlmsg_build_payload, kvnft_batch_add_rule);
		lengths_of(rule.get());
	}
}

TEST(nft_room, any_expression_adds_its_length_or_more)
{
	generator any{2};
	for (int i = 0; i < 2000; i++) {
		test_rule rule;
		nftnl_rule_add_expr(rule.get(), kvnft_build_expr_masq());
		lengths before = lengths_of(rule.get());
		nftnl_expr *e = any.any_expr();
		nftnl_rule_add_expr(rule.get(), e);
		expect_added(before, lengths_of(rule.get()), nftnl_expr_get_str(e, NFTNL_EXPR_NAME));
	}
}

// Every attribute that an expression can have, with the longest value for which there is a place.
TEST(nft_room, fullest_expression_of_every_kind_adds_its_length_or_more)
{
	for (const expr_kind &kind : expr_kinds) {
		test_rule rule;
		nftnl_rule_add_expr(rule.get(), kvnft_build_expr_masq());
		lengths before = lengths_of(rule.get());
		nftnl_rule_add_expr(rule.get(), fullest_expr(kind));
		expect_added(before, lengths_of(rule.get()), kind.name);
	}
}

TEST(nft_room, any_set_fits_by_its_true_length)
{
	generator any{3};
	for (int i = 0; i < 200; i++) {
		owned_set set = any.any_set();
		expect_same_message_that_fits(set.get(), nftnl_set_nlmsg_build_payload, kvnft_batch_add_set);
		lengths_of(set.get());
	}
}

// Every number that a set can have.
TEST(nft_room, fullest_set_fits_by_its_true_length)
{
	owned_set set{kvnft_build_set("t", "s", 1, 1, 64)};
	for (uint16_t number : {NFTNL_SET_KEY_TYPE, NFTNL_SET_DATA_TYPE, NFTNL_SET_DATA_LEN,
		     NFTNL_SET_OBJ_TYPE, NFTNL_SET_POLICY, NFTNL_SET_DESC_SIZE, NFTNL_SET_GC_INTERVAL})
		nftnl_set_set_u32(set.get(), number, 1);
	for (uint16_t number : {NFTNL_SET_TIMEOUT, NFTNL_SET_HANDLE})
		nftnl_set_set_u64(set.get(), number, 1);
	nftnl_set_set_data(set.get(), NFTNL_SET_DESC_CONCAT, characters(16).data(), 16);
	lengths found = lengths_of(set.get());
	EXPECT_LE(found.reckoned, found.real + 128);
}

TEST(nft_room, any_elements_fit_by_their_true_length)
{
	generator any{4};
	for (int i = 0; i < 200; i++) {
		owned_set set = any.any_set();
		expect_same_message_that_fits(
			set.get(), nftnl_set_elems_nlmsg_build_payload, kvnft_batch_add_set_elem);
		lengths_of_elems(set.get());
	}
}

TEST(nft_room, any_element_adds_its_length_or_more)
{
	generator any{5};
	for (int i = 0; i < 1000; i++) {
		owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
		nftnl_set_elem_add(set.get(), any.any_elem());
		lengths before = lengths_of_elems(set.get());
		nftnl_set_elem_add(set.get(), any.any_elem());
		expect_added(before, lengths_of_elems(set.get()));
	}
}

// The last byte that fits: libnftnl nests two expressions once more.
TEST(nft_room, list_of_expressions_in_an_expression_adds_its_length_or_more)
{
	for (int inner = 0; inner <= 3; inner++) {
		test_rule rule;
		nftnl_rule_add_expr(rule.get(), kvnft_build_expr_masq());
		lengths before = lengths_of(rule.get());
		nftnl_expr *dynset = nftnl_expr_alloc("dynset");
		for (int i = 0; i < inner; i++)
			nftnl_expr_add_expr(
				dynset, NFTNL_EXPR_DYNSET_EXPRESSIONS, nftnl_expr_alloc("counter"));
		nftnl_rule_add_expr(rule.get(), dynset);
		expect_added(before, lengths_of(rule.get()));
	}
}

nftnl_set_elem *element_with(int counters)
{
	nftnl_set_elem *elem = nftnl_set_elem_alloc();
	nftnl_set_elem_set(elem, NFTNL_SET_ELEM_KEY, "abcd", 4);
	for (int i = 0; i < counters; i++)
		nftnl_set_elem_add_expr(elem, nftnl_expr_alloc("counter"));
	return elem;
}

TEST(nft_room, list_of_expressions_in_an_element_adds_its_length_or_more)
{
	for (int inner = 0; inner <= 3; inner++) {
		owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
		nftnl_set_elem_add(set.get(), element_with(0));
		lengths before = lengths_of_elems(set.get());
		nftnl_set_elem_add(set.get(), element_with(inner));
		expect_added(before, lengths_of_elems(set.get()));
	}
}

TEST(nft_room, data_that_has_taken_the_place_of_a_chain_is_not_taken_for_its_name)
{
	test_rule rule;
	nftnl_expr *e = nftnl_expr_alloc("immediate");
	nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_1);
	nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, "c");
	free(const_cast<char *>(nftnl_expr_get_str(e, NFTNL_EXPR_IMM_CHAIN))); // which libnftnl forgets
	nftnl_expr_set_data(e, NFTNL_EXPR_IMM_DATA, "0123456789abcde", 16);
	nftnl_rule_add_expr(rule.get(), e);
	lengths_of(rule.get());
}

TEST(nft_room, data_of_an_element_that_has_taken_the_place_of_a_chain_is_not_taken_for_its_name)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	nftnl_set_elem *elem = nftnl_set_elem_alloc();
	nftnl_set_elem_set_str(elem, NFTNL_SET_ELEM_CHAIN, "c");
	char *name = const_cast<char *>(nftnl_set_elem_get_str(elem, NFTNL_SET_ELEM_CHAIN));
	nftnl_set_elem_set(elem, NFTNL_SET_ELEM_DATA, "0123456789abcde", 16);
	nftnl_set_elem_add(set.get(), elem);
	lengths_of_elems(set.get());
	char nothing[16] = {}; // which the element would release
	memcpy(nothing + 8, &name, sizeof name);
	nftnl_set_elem_set(elem, NFTNL_SET_ELEM_DATA, nothing, sizeof nothing);
}

} // namespace
