// Helpers of the tests of nft without the kernel: owners of libnftnl's objects, the bytes of messages, batches
// whose ends are guarded, and what libnftnl reads back.
#pragma once
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <netinet/in.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// After the C library's, which they would redefine.
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>

#include "lib/nft.h"
#include "tests/support/support.h"

namespace nft_objects
{

using namespace support;

struct releases {
	void operator()(nftnl_expr *e) const { nftnl_expr_free(e); }
	void operator()(nftnl_rule *rule) const { nftnl_rule_free(rule); }
	void operator()(nftnl_set *set) const { nftnl_set_free(set); }
	void operator()(nftnl_table *table) const { nftnl_table_free(table); }
	void operator()(nftnl_chain *chain) const { nftnl_chain_free(chain); }
	void operator()(nftnl_set_elem *elem) const { nftnl_set_elem_free(elem); }
	void operator()(char *block) const { free(block); }
};
template <typename T>
using owned = std::unique_ptr<T, releases>;
using owned_expr = owned<nftnl_expr>;
using owned_rule = owned<nftnl_rule>;
using owned_set = owned<nftnl_set>;

inline const size_t room =
	static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE); // for one message after a batch's limit

// ---- Values as libnftnl has them, and as the kernel reads them ----

// In the order of this machine.
template <typename T>
std::string host(T number)
{
	return {reinterpret_cast<const char *>(&number), sizeof(number)};
}

inline std::string host32(uint32_t number)
{
	return host(number);
}

// In the order of the network.
template <typename T>
std::string network(T number)
{
	std::string bytes;
	for (size_t shift = 8 * sizeof(number); shift > 0; shift -= 8)
		bytes += static_cast<char>(static_cast<uint64_t>(number) >> (shift - 8) & 0xff);
	return bytes;
}

inline std::string text(const std::string &characters)
{
	return characters + '\0';
}

// An attribute: its length with the 4 bytes before the value, its type, the value, and zeros up to a multiple
// of 4.
inline std::string attribute(uint16_t type, const std::string &value)
{
	std::string bytes = host(static_cast<uint16_t>(4 + value.size())) + host(type) + value;
	return bytes.append((4 - bytes.size() % 4) % 4, '\0');
}

inline std::string be16(uint16_t type, uint16_t number)
{
	return attribute(type, network(number));
}

inline std::string be32(uint16_t type, uint32_t number)
{
	return attribute(type, network(number));
}

inline std::string be64(uint16_t type, uint64_t number)
{
	return attribute(type, network(number));
}

inline std::string nest(uint16_t type, const std::string &attributes)
{
	return attribute(type | 0x8000, attributes);
}

// A message: 16 bytes of netlink's header (length, type, flags, sequence number, port) and 4 of the netfilter
// subsystem's (family, version, resource).
inline std::string message(uint16_t type, uint16_t flags, uint32_t seq, uint8_t family, uint16_t resource,
	const std::string &attributes)
{
	return host32(static_cast<uint32_t>(20 + attributes.size())) + host(type) + host(flags) +
	       host32(seq) + host32(0) + static_cast<char>(family) + '\0' + network(resource) + attributes;
}

inline constexpr uint16_t NFTABLES = 10; // the subsystem
constexpr uint16_t REQUEST = 0x001, ACK = 0x004, CREATE = 0x400, APPEND = 0x800;

inline std::string change(
	uint16_t number, uint16_t flags, uint32_t seq, uint8_t family, const std::string &attributes)
{
	return message(static_cast<uint16_t>(NFTABLES << 8 | number), flags, seq, family, 0, attributes);
}

inline std::string begin_message(uint32_t seq)
{
	return message(0x10, REQUEST, seq, 0, NFTABLES, "");
}

inline std::string end_message(uint32_t seq)
{
	return message(0x11, REQUEST, seq, 0, NFTABLES, "");
}

// The attributes sorted by type, as they come in any order, with the order of equals kept (they are lists),
// and with zeros after short values, where libmnl leaves the old bytes.
inline std::string canonical_attributes(const std::string &bytes)
{
	std::vector<std::pair<uint16_t, std::string>> sorted;
	for (size_t at = 0; at < bytes.size();) {
		nlattr header{};
		if (at + sizeof(header) <= bytes.size())
			memcpy(&header, bytes.data() + at, sizeof(header));
		if (header.nla_len < sizeof(header) || at + header.nla_len > bytes.size()) {
			ADD_FAILURE() << "no attributes: " << testing::PrintToString(bytes);
			return bytes;
		}
		std::string value = bytes.substr(at + sizeof(header), header.nla_len - sizeof(header));
		if (header.nla_type & 0x8000)
			value = canonical_attributes(value);
		sorted.emplace_back(header.nla_type, attribute(header.nla_type, value));
		at += (header.nla_len + 3u) & ~3u;
	}
	std::stable_sort(
		sorted.begin(), sorted.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
	std::string all;
	for (const auto &[type, one] : sorted)
		all += one;
	return all;
}

inline std::string hex(const std::string &bytes)
{
	static const char digits[] = "0123456789abcdef";
	std::string printed;
	for (size_t i = 0; i < bytes.size(); i++) {
		auto byte = static_cast<unsigned char>(bytes[i]);
		printed += digits[byte >> 4];
		printed += digits[byte & 15];
		if (i % 4 == 3)
			printed += i % 32 == 31 ? '\n' : ' ';
	}
	return printed;
}

inline std::string canonical(const std::string &one_message)
{
	if (one_message.size() < 20)
		return hex(one_message);
	return hex(one_message.substr(0, 20) + canonical_attributes(one_message.substr(20)));
}

inline std::vector<std::string> split(const std::string &bytes)
{
	std::vector<std::string> found;
	for (size_t at = 0; at < bytes.size();) {
		nlmsghdr header{};
		if (at + sizeof(header) <= bytes.size())
			memcpy(&header, bytes.data() + at, sizeof(header));
		if (header.nlmsg_len < sizeof(header) || at + header.nlmsg_len > bytes.size()) {
			ADD_FAILURE() << "no message at " << at;
			break;
		}
		found.push_back(bytes.substr(at, header.nlmsg_len));
		at += (header.nlmsg_len + 3) & ~size_t{3};
	}
	return found;
}

// A batch over a buffer that is just as large as callers are told to make it, with bytes around that nobody
// may touch: the sanitizer's, or guards.
class test_batch
{
#ifdef __SANITIZE_ADDRESS__
	static constexpr size_t guard = 0;
#else
	static constexpr size_t guard = 256;
#endif
	static constexpr char dirt = '\xa5';
	size_t size_;
	owned<char> block_;
	mnl_nlmsg_batch *batch_;

public:
	explicit test_batch(size_t limit = 65536, uint32_t seq = 0)
		: size_(KVNFT_BATCH_BUFFER_SIZE(limit)),
		  block_(static_cast<char *>(malloc(guard + size_ + guard)))
	{
		memset(block_.get(), dirt, guard + size_ + guard);
		batch_ = kvnft_batch_alloc_start(block_.get() + guard, limit, seq);
		EXPECT_NE(batch_, nullptr);
	}
	test_batch(const test_batch &) = delete;
	test_batch &operator=(const test_batch &) = delete;
	~test_batch()
	{
		kvnft_batch_free(batch_);
		const std::string whole(guard, dirt);
		EXPECT_EQ(std::string(block_.get(), guard), whole) << "written before the buffer";
		EXPECT_EQ(std::string(block_.get() + guard + size_, guard), whole)
			<< "written after the buffer";
	}
	mnl_nlmsg_batch *get() const
	{
		return batch_;
	}
	size_t size() const
	{
		return mnl_nlmsg_batch_size(batch_);
	}
	std::string bytes() const
	{
		return {block_.get() + guard, size()};
	}
	std::string buffer() const
	{
		return {block_.get() + guard, size_};
	}
	// Those after the one that begins the batch.
	std::vector<std::string> messages() const
	{
		std::vector<std::string> all = split(bytes());
		EXPECT_FALSE(all.empty());
		return {all.begin() + !all.empty(), all.end()};
	}
};

// The one message that `append` puts into a batch.
template <typename F>
std::string message_of(F append)
{
	test_batch batch;
	EXPECT_EQ(append(batch.get()), 0);
	std::vector<std::string> appended = batch.messages();
	EXPECT_EQ(appended.size(), 1u);
	return appended.empty() ? "" : appended[0];
}

// ---- Reading back ----

using attributes = std::map<uint16_t, std::string>;

template <typename F, typename G>
attributes attributes_in(uint16_t first, uint16_t end, F is_set, G get)
{
	attributes found;
	for (uint16_t number = first; number < end; number++) {
		uint32_t length = 0;
		if (!is_set(number))
			continue;
		const void *value = get(number, &length);
		found[number] = std::string(static_cast<const char *>(value), value ? length : 0);
	}
	return found;
}

inline attributes attributes_of(const nftnl_expr *e)
{
	return attributes_in(
		NFTNL_EXPR_BASE, 32, [=](uint16_t number) { return nftnl_expr_is_set(e, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_expr_get(e, number, length); });
}

inline attributes attributes_of(const nftnl_set *set)
{
	return attributes_in(
		0, NFTNL_SET_MAX + 1, [=](uint16_t number) { return nftnl_set_is_set(set, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_set_get_data(set, number, length); });
}

inline attributes attributes_of(nftnl_set_elem *elem)
{
	return attributes_in(
		0, NFTNL_SET_ELEM_MAX + 1,
		[=](uint16_t number) { return nftnl_set_elem_is_set(elem, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_set_elem_get(elem, number, length); });
}

inline attributes attributes_of(const nftnl_table *table)
{
	return attributes_in(
		0, NFTNL_TABLE_MAX + 1, [=](uint16_t number) { return nftnl_table_is_set(table, number); },
		[=](uint16_t number, uint32_t *length) {
			return nftnl_table_get_data(table, number, length);
		});
}

inline attributes attributes_of(const nftnl_rule *rule)
{
	return attributes_in(
		0, NFTNL_RULE_MAX + 1, [=](uint16_t number) { return nftnl_rule_is_set(rule, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_rule_get_data(rule, number, length); });
}

// Holds an object just made, and released here, to exactly these attributes.
inline void expect_expr(nftnl_expr *made, const std::string &name, const attributes &expected)
{
	owned_expr e{made};
	ASSERT_TRUE(e);
	EXPECT_EQ(nftnl_expr_get_str(e.get(), NFTNL_EXPR_NAME), name);
	EXPECT_EQ(attributes_of(e.get()), expected);
}

inline std::vector<nftnl_expr *> exprs_of(nftnl_rule *rule)
{
	std::vector<nftnl_expr *> all;
	auto add = [](nftnl_expr *e, void *to) {
		static_cast<std::vector<nftnl_expr *> *>(to)->push_back(e);
		return 0;
	};
	nftnl_expr_foreach(rule, add, &all);
	return all;
}

inline std::vector<nftnl_set_elem *> elems_of(nftnl_set *set)
{
	std::vector<nftnl_set_elem *> all;
	auto add = [](nftnl_set_elem *elem, void *to) {
		static_cast<std::vector<nftnl_set_elem *> *>(to)->push_back(elem);
		return 0;
	};
	nftnl_set_elem_foreach(set, add, &all);
	return all;
}

// All of their bytes differ, so that a wrong width, order or argument shows.
inline const uint32_t reg = 0x01020304;
inline const uint32_t wide = 0x05060708;
inline const uint32_t high = 0x10000; // nothing in the low 16 bits

inline attributes payload(uint32_t base, uint32_t offset, uint32_t length)
{
	return {{NFTNL_EXPR_PAYLOAD_DREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(base)},
		{NFTNL_EXPR_PAYLOAD_OFFSET, host32(offset)}, {NFTNL_EXPR_PAYLOAD_LEN, host32(length)}};
}

inline std::string characters(size_t length)
{
	std::string all;
	while (all.size() < length)
		all += static_cast<char>('a' + all.size() % 26);
	return all;
}

// A rule whose expressions are looked at.
struct test_rule {
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};

	nftnl_rule *get() const { return rule.get(); }
	// "name" and attributes of each
	std::vector<std::pair<std::string, attributes>> exprs() const
	{
		std::vector<std::pair<std::string, attributes>> all;
		for (nftnl_expr *e : exprs_of(rule.get()))
			all.emplace_back(nftnl_expr_get_str(e, NFTNL_EXPR_NAME), attributes_of(e));
		return all;
	}
};
using exprs = std::vector<std::pair<std::string, attributes>>;

} // namespace nft_objects
