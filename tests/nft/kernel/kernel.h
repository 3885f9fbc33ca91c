// Helpers of the tests of nft on the kernel: the families, two clients, and rules as `nft` lists them.
#pragma once
#include <string>
#include <vector>

#include "tests/support/nft.h"

namespace kernel_support
{

using namespace nft_support;

inline constexpr uint16_t ip = NFPROTO_IPV4, ip6 = NFPROTO_IPV6, inet = NFPROTO_INET, arp = NFPROTO_ARP,
			  bridge = NFPROTO_BRIDGE, netdev = NFPROTO_NETDEV;
inline constexpr uint16_t families[] = {ip, ip6, inet, arp, bridge, netdev};
inline constexpr uint8_t phone[6] = {2, 0, 0, 0, 0, 5};
inline constexpr uint8_t laptop[6] = {2, 0, 0, 0, 0, 6};
inline constexpr uint32_t none = 0;
inline const std::vector<std::string> no_lines;

inline const char *name_of(uint16_t family)
{
	switch (family) {
	case ip:
		return "ip";
	case ip6:
		return "ip6";
	case inet:
		return "inet";
	case arp:
		return "arp";
	case bridge:
		return "bridge";
	default:
		return "netdev";
	}
}

inline void add_phone(const owned_set &set, int64_t timeout_ms = -1)
{
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), phone, sizeof(phone), timeout_ms), 0);
}

inline void add_laptop(const owned_set &set, int64_t timeout_ms = -1)
{
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), laptop, sizeof(laptop), timeout_ms), 0);
}

// The table "t" with the chain "c", as most tests need it.
inline void make_table_and_chain(uint16_t family = inet)
{
	ASSERT_EQ(transaction().table(family).chain(family).send(), 0);
}

// How `nft` lists statements.
inline const std::string accepts = R"({"accept": null})", drops = R"({"drop": null})";
inline const std::string mark_key = R"({"meta": {"key": "mark"}})";

inline std::string match(const std::string &op, const std::string &left, const std::string &right)
{
	return R"({"match": {"op": ")" + op + R"(", "left": )" + left + R"(, "right": )" + right + "}}";
}

// Bits of a header, which `nft` names where it can.
inline std::string bits(const std::string &base, int offset, int length)
{
	return R"({"payload": {"base": ")" + base + R"(", "offset": )" + std::to_string(offset) +
	       R"(, "len": )" + std::to_string(length) + "}}";
}

inline std::string field(const std::string &protocol, const std::string &name)
{
	return R"({"payload": {"protocol": ")" + protocol + R"(", "field": ")" + name + "\"}}";
}

inline std::string set_to(const std::string &key, const std::string &value)
{
	return R"({"mangle": {"key": )" + key + R"(, "value": )" + value + "}}";
}

inline std::string over(const std::string &rate, const std::string &burst)
{
	return R"({"limit": {"rate": )" + rate + R"(, "burst": )" + burst +
	       R"(, "per": "second", "inv": true, "rate_unit": "bytes", "burst_unit": "bytes"}})";
}

inline std::string element_of_s(
	const std::string &op, const std::string &element, const std::string &statement)
{
	return R"({"set": {"op": ")" + op + R"(", "set": "@s", "elem": )" + element + R"(, "stmt": [)" +
	       statement + "]}}";
}

// A rule of these statements, as rules() gives it.
inline std::string listed(const std::vector<std::string> &statements)
{
	std::string text;
	for (const std::string &statement : statements)
		text += (text.empty() ? "" : ",") + statement;
	return plain("[" + text + "]");
}

inline std::vector<std::string> listing(const std::vector<std::vector<std::string>> &statements_of_rules)
{
	std::vector<std::string> lines;
	for (const std::vector<std::string> &statements : statements_of_rules)
		lines.push_back(listed(statements));
	return lines;
}

// Rules of the chain "c", and the statements that `nft` lists for each.
class listed_rules
{
	uint16_t family_;
	transaction change_;
	std::vector<std::string> expected_;

public:
	explicit listed_rules(uint16_t family = inet) : family_(family) {}
	transaction &change() { return change_; }
	listed_rules &add(expressions exprs, const std::vector<std::string> &statements)
	{
		change_.rule(family_, exprs);
		expected_.push_back(listed(statements));
		return *this;
	}
	void check()
	{
		EXPECT_EQ(change_.send(), 0);
		EXPECT_EQ(rules(), expected_);
	}
};

} // namespace kernel_support
