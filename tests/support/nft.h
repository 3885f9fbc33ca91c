// What the tests of nft on the kernel share: batches and rules in few words, and the ruleset as the system's
// `nft` prints it.
#pragma once
#include <netinet/in.h> // before the kernel's headers, which else define the same things

#include <jansson.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <initializer_list>
#include <memory>

#include "lib/nft.h"
#include "tests/support/support.h"

namespace nft_support
{

using namespace support;

// What the system's `nft` says when the kernel refuses these commands in a namespace with the table "t" and
// the chain "c" of `family`; empty if it takes them. For what a kernel may have been built without.
inline std::string refusal_of(const std::string &family, const std::string &commands)
{
	child_result result = run_child([&] {
		if (!enter_private_namespaces())
			_exit(2);
		std::string text = "add table " + family + " t\nadd chain " + family + " t c\n" + commands;
		shell_result command = run_in_shell("printf '%s\\n' '" + text + "' | nft -f -");
		printf("%s", command.text.c_str());
		if (command.status != 0)
			_exit((fflush(stdout), 3));
	});
	EXPECT_FALSE(result.exited_with(2)) << "no namespaces";
	return result.exited_with(0) ? std::string() : "nft: " + result.out + result.err;
}

// Runs `body` with its expectations in a child with namespaces of its own, and changes rulesets there.
inline void in_nft_network(const std::function<void()> &body)
{
	skip_if_emulated(no_netfilter);
	in_private_network(body);
}

// ---- JSON ----

class json
{
	json_t *value_;

public:
	explicit json(json_t *value = nullptr) : value_(value) {}
	json(json &&from) noexcept : value_(std::exchange(from.value_, nullptr)) {}
	json &operator=(json &&from) = delete;
	~json() { json_decref(value_); }
	json_t *get() const { return value_; }
};

inline json parse_json(const std::string &text)
{
	json_error_t error;
	json value{json_loads(text.c_str(), JSON_DECODE_ANY, &error)};
	EXPECT_NE(value.get(), nullptr) << error.text << " in:\n" << text;
	return value;
}

inline std::string text_of(const json_t *value)
{
	char *text = json_dumps(value, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
	std::string copy = text ? text : "";
	free(text);
	return copy;
}

// JSON in the form that is compared: the order of keys and white space are gone.
inline std::string plain(const std::string &text)
{
	return text_of(parse_json(text).get());
}

inline std::vector<std::string> plain(std::initializer_list<const char *> texts)
{
	std::vector<std::string> result;
	for (const char *text : texts)
		result.push_back(plain(std::string(text)));
	return result;
}

// Without what differs from run to run: the kernel's handles, and the time that elements have left.
inline void drop_what_varies(json_t *value)
{
	const char *key;
	json_t *item;
	void *next;
	size_t index;
	if (json_is_array(value)) {
		json_array_foreach(value, index, item)
			drop_what_varies(item);
	} else if (json_is_object(value)) {
		json_object_del(value, "handle");
		json_object_del(value, "expires");
		json_object_foreach_safe(value, next, key, item) drop_what_varies(item);
	}
}

// What `nft` finds in the kernel, one text for each table, chain, set and rule in the order of the listing.
inline std::vector<std::string> ruleset()
{
	json whole = parse_json(must_run("nft -j list ruleset"));
	drop_what_varies(whole.get());
	std::vector<std::string> lines;
	size_t index;
	json_t *item;
	json_array_foreach(json_object_get(whole.get(), "nftables"), index, item)
		if (!json_object_get(item, "metainfo"))
			lines.push_back(text_of(item));
	return lines;
}

// The expressions of each rule, as `nft` understands them.
inline std::vector<std::string> rules()
{
	std::vector<std::string> lines;
	for (const std::string &line : ruleset()) {
		json item = parse_json(line);
		if (json_t *rule = json_object_get(item.get(), "rule"))
			lines.push_back(text_of(json_object_get(rule, "expr")));
	}
	return lines;
}

// The elements of the set "s"; "null" if it has none.
inline std::string elements(const std::string &family = "inet")
{
	json whole = parse_json(must_run("nft -j list set " + family + " t s"));
	drop_what_varies(whole.get());
	size_t index;
	json_t *item;
	json_array_foreach(json_object_get(whole.get(), "nftables"), index, item)
		if (json_t *set = json_object_get(item, "set"))
			return text_of(json_object_get(set, "elem"));
	return "no set";
}

// ---- Objects and batches ----

struct nftnl_free {
	void operator()(nftnl_rule *rule) const { nftnl_rule_free(rule); }
	void operator()(nftnl_set *set) const { nftnl_set_free(set); }
};
using owned_rule = std::unique_ptr<nftnl_rule, nftnl_free>;
using owned_set = std::unique_ptr<nftnl_set, nftnl_free>;
using expressions = std::initializer_list<nftnl_expr *>;

// A rule of the chain "c" in the table "t".
inline owned_rule make_rule(uint32_t family, expressions exprs, const char *chain = "c")
{
	owned_rule rule{kvnft_build_rule(family, "t", chain)};
	for (nftnl_expr *e : exprs) {
		EXPECT_NE(e, nullptr);
		nftnl_rule_add_expr(rule.get(), e);
	}
	return rule;
}

// `nft`'s numbers for types of keys, which it keeps in the kernel and lists by.
inline constexpr uint32_t type_ipv4 = 7;
inline constexpr uint32_t type_ether = 9;

// The set "s" of the table "t".
inline owned_set make_set(uint32_t family, uint32_t flags, uint32_t key_type, const char *name = "s")
{
	owned_set set{kvnft_build_set("t", name, family, flags, key_type == type_ether ? 6 : 4)};
	nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, key_type);
	return set;
}

inline uint32_t id_of(const owned_set &set)
{
	return nftnl_set_get_u32(set.get(), NFTNL_SET_ID);
}

// "immediate" of a jump or goto, which the library has no builder for, but a daemon may make.
inline nftnl_expr *jump_to(const char *chain)
{
	nftnl_expr *e = nftnl_expr_alloc("immediate");
	nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
	nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_VERDICT, static_cast<uint32_t>(NFT_JUMP));
	nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, chain);
	return e;
}

// A transaction that is being written. The table is always "t".
class transaction
{
	std::unique_ptr<char[]> buffer_;
	mnl_nlmsg_batch *batch_;
	uint32_t seq_ = 0;

	transaction &appended(int error)
	{
		EXPECT_EQ(error, 0);
		return *this;
	}

public:
	explicit transaction(size_t limit = 65536)
		: buffer_(new char[KVNFT_BATCH_BUFFER_SIZE(limit)]),
		  batch_(kvnft_batch_alloc_start(buffer_.get(), limit, 0))
	{
		EXPECT_NE(batch_, nullptr);
	}
	transaction(const transaction &) = delete;
	transaction &operator=(const transaction &) = delete;
	~transaction() { kvnft_batch_free(batch_); }

	mnl_nlmsg_batch *get() const { return batch_; }
	size_t bytes() const { return mnl_nlmsg_batch_size(batch_); }

	transaction &table(uint32_t family, const char *name = "t")
	{
		return appended(kvnft_batch_add_table_simple(batch_, name, family, ++seq_));
	}
	transaction &del_table(uint32_t family, const char *name = "t")
	{
		return appended(kvnft_batch_del_table_simple(batch_, name, family, ++seq_));
	}
	transaction &base_chain(uint16_t family, const char *name, const char *type, int32_t hook,
		int32_t priority = 0, const char *device = nullptr)
	{
		return appended(kvnft_batch_add_chain_simple(
			batch_, name, "t", type, hook, family, priority, device, ++seq_));
	}
	transaction &chain(uint16_t family, const char *name = "c")
	{
		return appended(kvnft_batch_add_chain_simple(
			batch_, name, "t", nullptr, -1, family, 0, nullptr, ++seq_));
	}
	transaction &flush_chain(uint32_t family, const char *name = "c")
	{
		return appended(kvnft_batch_flush_chain_simple(batch_, name, "t", family, ++seq_));
	}
	transaction &flush_table(uint32_t family)
	{
		return appended(kvnft_batch_flush_table_simple(batch_, "t", family, ++seq_));
	}
	transaction &rule(uint32_t family, expressions exprs, const char *chain = "c")
	{
		return rule(make_rule(family, exprs, chain));
	}
	transaction &rule(const owned_rule &made)
	{
		return appended(kvnft_batch_add_rule(batch_, made.get(), ++seq_));
	}
	transaction &accept_mark(uint32_t family, uint32_t mark)
	{
		return appended(kvnft_batch_accept_mark(batch_, family, "t", "c", mark, ++seq_));
	}
	transaction &accept_mark_neq(uint32_t family, uint32_t mark)
	{
		return appended(kvnft_batch_accept_mark_neq(batch_, family, "t", "c", mark, ++seq_));
	}
	transaction &set(const owned_set &made)
	{
		return appended(kvnft_batch_add_set(batch_, made.get(), ++seq_));
	}
	transaction &del_set(const owned_set &made)
	{
		return appended(kvnft_batch_del_set(batch_, made.get(), ++seq_));
	}
	transaction &elements_of(const owned_set &made)
	{
		return appended(kvnft_batch_add_set_elem(batch_, made.get(), ++seq_));
	}
	transaction &del_elements_of(const owned_set &made)
	{
		return appended(kvnft_batch_del_set_elem(batch_, made.get(), ++seq_));
	}
	transaction &finish() { return appended(kvnft_batch_finish(batch_, ++seq_)); }
	int send()
	{
		finish();
		return kvnft_batch_send(batch_);
	}
};

} // namespace nft_support
