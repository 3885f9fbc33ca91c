// nft against the kernel: what it makes of the library's messages, as the system's `nft` lists it, and what
// it answers.
#include "tests/support/nft.h"

#include <grp.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter/nfnetlink.h>
#include <stddef.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <optional>

#include <gmock/gmock.h>

#include "tests/support/system_calls.h"

using namespace nft_support;

// The calls on the way of a message, counted, and made to fail in tests of what happens then.
static struct {
	int bind_error, getsockname_error, sendto_error, select_error, recvmsg_error; // 0: the real thing
	int sent, received, options, waiting; // waiting: calls of select that may wait
	void (*after_bind)(int fd), (*before_send)(int fd);
	bool (*refuses_option)(int level, int option);
} calls;

template <typename R>
static R failed(int error)
{
	errno = error;
	return -1;
}

static auto watched_bind = system_calls::bind.replace([](int fd, const sockaddr *name, socklen_t length) {
	if (calls.bind_error)
		return failed<int>(calls.bind_error);
	int result = system_calls::bind.next(fd, name, length);
	if (auto hook = std::exchange(calls.after_bind, nullptr))
		hook(fd);
	return result;
});

static auto watched_setsockopt = system_calls::setsockopt.replace(
	[](int fd, int level, int option, const void *value, socklen_t length) {
		calls.options++;
		return calls.refuses_option && calls.refuses_option(level, option)
			       ? failed<int>(EPERM)
			       : system_calls::setsockopt.next(fd, level, option, value, length);
	});

static auto watched_getsockname = system_calls::getsockname.replace([](auto... arguments) {
	return calls.getsockname_error ? failed<int>(calls.getsockname_error)
				       : system_calls::getsockname.next(arguments...);
});

static auto watched_sendto = system_calls::sendto.replace([](int fd, auto... arguments) {
	calls.sent++;
	if (auto hook = std::exchange(calls.before_send, nullptr))
		hook(fd);
	return calls.sendto_error ? failed<ssize_t>(calls.sendto_error)
				  : system_calls::sendto.next(fd, arguments...);
});

static auto watched_select = system_calls::select.replace(
	[](int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
		calls.waiting += !timeout || timeout->tv_sec != 0 || timeout->tv_usec != 0;
		return calls.select_error
			       ? failed<int>(calls.select_error)
			       : system_calls::select.next(count, readable, writable, exceptional, timeout);
	});

static auto watched_recvmsg = system_calls::recvmsg.replace([](int fd, msghdr *message, int flags) {
	calls.received++;
	return calls.recvmsg_error ? failed<ssize_t>(calls.recvmsg_error)
				   : system_calls::recvmsg.next(fd, message, flags);
});

namespace
{

constexpr uint16_t ip = NFPROTO_IPV4, ip6 = NFPROTO_IPV6, inet = NFPROTO_INET, arp = NFPROTO_ARP,
		   bridge = NFPROTO_BRIDGE, netdev = NFPROTO_NETDEV;
constexpr uint16_t families[] = {ip, ip6, inet, arp, bridge, netdev};
constexpr uint8_t phone[6] = {2, 0, 0, 0, 0, 5};
constexpr uint8_t laptop[6] = {2, 0, 0, 0, 0, 6};
constexpr uint32_t none = 0;
const std::vector<std::string> no_lines;

const char *name_of(uint16_t family)
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

void add_phone(const owned_set &set, int64_t timeout_ms = -1)
{
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), phone, sizeof(phone), timeout_ms), 0);
}

void add_laptop(const owned_set &set, int64_t timeout_ms = -1)
{
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), laptop, sizeof(laptop), timeout_ms), 0);
}

// The table "t" with the chain "c", as most tests need it.
void make_table_and_chain(uint16_t family = inet)
{
	ASSERT_EQ(transaction().table(family).chain(family).send(), 0);
}

// ---- Tables and chains ----

TEST(nft_kernel, tables_of_every_family_are_made)
{
	in_nft_network([] {
		transaction change;
		for (uint16_t family : families)
			change.table(family, (std::string(name_of(family)) + "_table").c_str());
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(ruleset(), plain({
					     R"({"table": {"family": "ip", "name": "ip_table"}})",
					     R"({"table": {"family": "ip6", "name": "ip6_table"}})",
					     R"({"table": {"family": "inet", "name": "inet_table"}})",
					     R"({"table": {"family": "arp", "name": "arp_table"}})",
					     R"({"table": {"family": "bridge", "name": "bridge_table"}})",
					     R"({"table": {"family": "netdev", "name": "netdev_table"}})",
				     }));
	});
}

TEST(nft_kernel, table_is_deleted_in_its_family_only)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).table(bridge).send(), 0);
		EXPECT_EQ(transaction().del_table(bridge).send(), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "ip", "name": "t"}})"}));
	});
}

TEST(nft_kernel, table_is_made_and_deleted_in_one_transaction)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(inet).chain(inet).del_table(inet).send(), 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, table_that_is_there_already_is_left_as_it_is)
{
	in_nft_network([] {
		make_table_and_chain();
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(ruleset(), before);
	});
}

struct base_chain {
	const char *type;
	int32_t hook;
	const char *hook_name;
	int32_t priority;
	const char *device = nullptr;
};

// Each is made in the table "t", and listed with what it was made of.
void expect_base_chains(uint16_t family, const std::vector<base_chain> &chains)
{
	transaction change;
	change.table(family);
	std::vector<std::string> expected;
	std::string in_family = std::string(R"("family": ")") + name_of(family) + "\"";
	expected.push_back(plain("{\"table\": {" + in_family + R"(, "name": "t"}})"));
	for (const base_chain &chain : chains) {
		std::string name = "chain" + std::to_string(expected.size());
		change.base_chain(family, name.c_str(), chain.type, chain.hook, chain.priority, chain.device);
		expected.push_back(plain("{\"chain\": {" + in_family + R"(, "table": "t", "name": ")" + name +
					 R"(", "type": ")" + chain.type + R"(", "hook": ")" +
					 chain.hook_name + R"(", "prio": )" + std::to_string(chain.priority) +
					 R"(, "policy": "accept"}})"));
	}
	EXPECT_EQ(change.send(), 0);
	EXPECT_EQ(ruleset(), expected);
}

const std::vector<base_chain> routed_chains = {
	{"filter", NF_INET_PRE_ROUTING, "prerouting", -300},
	{"filter", NF_INET_LOCAL_IN, "input", 0},
	{"filter", NF_INET_FORWARD, "forward", 0},
	{"filter", NF_INET_LOCAL_OUT, "output", 7},
	{"filter", NF_INET_POST_ROUTING, "postrouting", INT32_MAX},
	{"nat", NF_INET_PRE_ROUTING, "prerouting", -100},
	{"nat", NF_INET_LOCAL_IN, "input", 100},
	{"nat", NF_INET_LOCAL_OUT, "output", -100},
	{"nat", NF_INET_POST_ROUTING, "postrouting", 100},
	{"route", NF_INET_LOCAL_OUT, "output", -150},
};

TEST(nft_kernel, base_chains_of_ip_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(ip, routed_chains); });
}

TEST(nft_kernel, base_chains_of_ip6_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(ip6, routed_chains); });
}

TEST(nft_kernel, base_chains_of_inet_are_made_at_every_hook)
{
	in_nft_network([] { expect_base_chains(inet, routed_chains); });
}

TEST(nft_kernel, base_chains_of_bridge_are_made_at_every_hook)
{
	in_nft_network([] {
		expect_base_chains(bridge, {
						   {"filter", NF_INET_PRE_ROUTING, "prerouting", -300},
						   {"filter", NF_INET_LOCAL_IN, "input", 0},
						   {"filter", NF_INET_FORWARD, "forward", -200},
						   {"filter", NF_INET_LOCAL_OUT, "output", 0},
						   {"filter", NF_INET_POST_ROUTING, "postrouting", 300},
					   });
	});
}

TEST(nft_kernel, base_chains_of_arp_are_made_at_both_hooks)
{
	in_nft_network([] {
		expect_base_chains(arp, {{"filter", 0, "input", 0}, {"filter", 1, "output", -1}});
	});
}

// `nft` 1.0.6 names the device in its own language only.
TEST(nft_kernel, base_chains_of_netdev_are_bound_to_their_device)
{
	in_nft_network([] {
		must_run("ip link add dev wlan0 type veth peer name peer0");
		expect_base_chains(netdev, {
						   {"filter", NF_NETDEV_INGRESS, "ingress", -500, "wlan0"},
						   {"filter", NF_NETDEV_EGRESS, "egress", 0, "peer0"},
					   });
		std::string text = must_run("nft list ruleset");
		EXPECT_THAT(
			text, testing::HasSubstr("type filter hook ingress device \"wlan0\" priority -500"));
		EXPECT_THAT(
			text, testing::HasSubstr("type filter hook egress device \"peer0\" priority filter"));
	});
}

TEST(nft_kernel, base_chain_of_inet_at_ingress_is_bound_to_its_device)
{
	in_nft_network([] {
		must_run("ip link add dev wlan0 type veth peer name peer0");
		expect_base_chains(inet, {{"filter", NF_INET_INGRESS, "ingress", 0, "wlan0"}});
		EXPECT_THAT(must_run("nft list ruleset"), testing::HasSubstr("ingress device \"wlan0\""));
	});
}

TEST(nft_kernel, base_chain_without_a_type_filters)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).base_chain(ip, "c", nullptr, NF_INET_FORWARD, 3).send(), 0);
		EXPECT_EQ(ruleset().back(), plain(R"({"chain": {"family": "ip", "table": "t", "name": "c",
			"type": "filter", "hook": "forward", "prio": 3, "policy": "accept"}})"));
	});
}

TEST(nft_kernel, chain_without_a_hook_is_regular_though_it_has_a_priority)
{
	in_nft_network([] {
		for (uint16_t family : families) {
			transaction change;
			change.table(family);
			ASSERT_EQ(kvnft_batch_add_chain_simple(
					  change.get(), "c", "t", nullptr, -1, family, -7, nullptr, 2),
				0);
			EXPECT_EQ(change.send(), 0) << name_of(family);
			EXPECT_EQ(ruleset().back(),
				plain(std::string(R"({"chain": {"family": ")") + name_of(family) +
					R"(", "table": "t", "name": "c"}})"));
			EXPECT_EQ(kvnft_del_table_simple("t", family), 0);
		}
	});
}

TEST(nft_kernel, base_chain_is_refused_where_its_type_and_hook_do_not_go_together)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).send(), 0);
		EXPECT_EQ(transaction().base_chain(ip, "c", "nat", NF_INET_FORWARD).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "route", NF_INET_LOCAL_IN).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "filter", 99).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().base_chain(ip, "c", "no such type", NF_INET_FORWARD).send(), -ENOENT);
		EXPECT_EQ(rules(), no_lines);
	});
}

// ---- Rules ----

// How `nft` lists statements.
const std::string accepts = R"({"accept": null})", drops = R"({"drop": null})";
const std::string mark_key = R"({"meta": {"key": "mark"}})";

std::string match(const std::string &op, const std::string &left, const std::string &right)
{
	return R"({"match": {"op": ")" + op + R"(", "left": )" + left + R"(, "right": )" + right + "}}";
}

// Bits of a header, which `nft` names where it can.
std::string bits(const std::string &base, int offset, int length)
{
	return R"({"payload": {"base": ")" + base + R"(", "offset": )" + std::to_string(offset) +
	       R"(, "len": )" + std::to_string(length) + "}}";
}

std::string field(const std::string &protocol, const std::string &name)
{
	return R"({"payload": {"protocol": ")" + protocol + R"(", "field": ")" + name + "\"}}";
}

std::string set_to(const std::string &key, const std::string &value)
{
	return R"({"mangle": {"key": )" + key + R"(, "value": )" + value + "}}";
}

std::string over(const std::string &rate, const std::string &burst)
{
	return R"({"limit": {"rate": )" + rate + R"(, "burst": )" + burst +
	       R"(, "per": "second", "inv": true, "rate_unit": "bytes", "burst_unit": "bytes"}})";
}

std::string element_of_s(const std::string &op, const std::string &element, const std::string &statement)
{
	return R"({"set": {"op": ")" + op + R"(", "set": "@s", "elem": )" + element + R"(, "stmt": [)" +
	       statement + "]}}";
}

// A rule of these statements, as rules() gives it.
std::string listed(const std::vector<std::string> &statements)
{
	std::string text;
	for (const std::string &statement : statements)
		text += (text.empty() ? "" : ",") + statement;
	return plain("[" + text + "]");
}

std::vector<std::string> listing(const std::vector<std::vector<std::string>> &statements_of_rules)
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

TEST(nft_kernel, verdicts_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_verdict(NF_ACCEPT)}, {accepts})
			.add({kvnft_build_expr_verdict(NF_DROP)}, {drops})
			.add({kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN))},
				{R"({"return": null})"})
			.add({kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_CONTINUE))},
				{R"({"continue": null})"})
			.check();
	});
}

TEST(nft_kernel, meta_and_compared_values_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t mark = 6;
		uint8_t tcp = IPPROTO_TCP;
		listed_rules()
			.add({kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &mark, 4)},
				{match("==", mark_key, "6")})
			.add({_kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_2, 0),
				     kvnft_build_expr_cmp(NFT_REG_2, NFT_CMP_NEQ, &mark, 4)},
				{match("!=", mark_key, "6")})
			.add({kvnft_build_expr_meta(NFT_META_L4PROTO, NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &tcp, 1)},
				{match("==", R"({"meta": {"key": "l4proto"}})", R"("tcp")")})
			.check();
	});
}

TEST(nft_kernel, every_comparison_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint16_t port = htons(8080);
		listed_rules list;
		struct {
			uint32_t op;
			const char *name;
		} comparisons[] = {{NFT_CMP_EQ, "=="}, {NFT_CMP_NEQ, "!="}, {NFT_CMP_LT, "<"},
			{NFT_CMP_LTE, "<="}, {NFT_CMP_GT, ">"}, {NFT_CMP_GTE, ">="}};
		for (auto [op, name] : comparisons)
			list.add({kvnft_build_expr_udp_dport(NFT_REG_1),
					 kvnft_build_expr_cmp(NFT_REG_1, op, &port, 2)},
				{match(name, field("th", "dport"), "8080")});
		list.check();
	});
}

TEST(nft_kernel, mark_that_is_set_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {});
		ASSERT_EQ(kvnft_rule_set_mark(rule.get(), 0x1234), 0);
		ASSERT_EQ(kvnft_rule_verdict(rule.get(), NF_ACCEPT), 0);
		EXPECT_EQ(transaction().rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{set_to(mark_key, "4660"), accepts}}));
	});
}

TEST(nft_kernel, accept_by_mark_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().accept_mark(inet, 5).accept_mark_neq(inet, 7).send(), 0);
		EXPECT_EQ(rules(), listing({
					   {match("==", mark_key, "5"), accepts},
					   {match("!=", mark_key, "7"), accepts},
				   }));
	});
}

TEST(nft_kernel, connection_state_masked_and_compared_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t known = 2 | 4; // established, related
		listed_rules()
			.add({kvnft_build_expr_ct(NFT_REG_1, NFT_CT_STATE),
				     kvnft_build_expr_bitwise(NFT_REG_1, NFT_REG_1, 4, &known, 4, &none, 4),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_NEQ, &none, 4),
				     kvnft_build_expr_verdict(NF_ACCEPT)},
				{match("in", R"({"ct": {"key": "state"}})", R"(["established", "related"])"),
					accepts})
			.check();
	});
}

TEST(nft_kernel, header_fields_are_listed_by_place_and_length)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t address = htonl(0x0a010002);
		uint16_t port = htons(67);
		listed_rules()
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6)},
				{match("==", bits("ll", 48, 48), "2199023255557")})
			.add({kvnft_build_expr_ether_daddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6)},
				{match("==", bits("ll", 0, 48), "2199023255557")})
			.add({kvnft_build_expr_ether_type(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, "\x08\x00", 2)},
				{match("==", bits("ll", 96, 16), "2048")})
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &address, 4)},
				{match("==", bits("nh", 128, 32), "167837698")})
			.add({kvnft_build_expr_udp_sport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "sport"), "67")})
			.add({kvnft_build_expr_udp_dport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "dport"), "67")})
			.add({kvnft_build_expr_tcp_dport(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &port, 2)},
				{match("==", field("th", "dport"), "67")})
			.add({kvnft_build_expr_payload(NFT_REG_4, NFT_PAYLOAD_NETWORK_HEADER, 8, 1),
				     kvnft_build_expr_cmp(NFT_REG_4, NFT_CMP_EQ, "\x40", 1)},
				{match("==", bits("nh", 64, 8), "64")})
			.check();
	});
}

TEST(nft_kernel, masked_address_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		uint32_t net = htonl(0x0a010200), mask = htonl(0xffffff00);
		listed_rules()
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_bitwise(NFT_REG_1, NFT_REG_1, 4, &mask, 4, &none, 4),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, &net, 4)},
				{match("==", "{\"&\": [" + bits("nh", 128, 32) + ", 4294967040]}",
					"167838208")})
			.check();
	});
}

TEST(nft_kernel, header_field_that_is_overwritten_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_imm(NFT_REG_1, phone, 6),
				     kvnft_build_expr_ether_set_daddr(NFT_REG_1)},
				{set_to(field("ether", "daddr"), R"("02:00:00:00:00:05")")})
			.add({kvnft_build_expr_imm(NFT_REG_1, "\x01", 1),
				     kvnft_build_expr_payload_set(
					     NFT_REG_1, NFT_PAYLOAD_NETWORK_HEADER, 8, 1)},
				{set_to(bits("nh", 64, 8), "1")})
			.check();
	});
}

TEST(nft_kernel, byte_rate_limit_is_listed_as_the_traffic_over_it)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_limit(125000, 9000), kvnft_build_expr_verdict(NF_DROP)},
				{over("125000", "9000"), drops})
			.add({kvnft_build_expr_limit((1ULL << 33) + 1, 0)}, {over("8589934593", "0")})
			.add({kvnft_build_expr_limit(1000, (1ULL << 32) + 5)}, {over("1000", "5")})
			.check();
	});
}

TEST(nft_kernel, log_group_is_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules().add({kvnft_build_expr_log(7)}, {R"({"log": {"group": 7}})"}).check();
	});
}

TEST(nft_kernel, reset_and_family_independent_rejections_are_listed)
{
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_reject(NFT_REJECT_TCP_RST, 9)},
				{R"({"reject": {"type": "tcp reset"}})"})
			.add({kvnft_build_expr_reject(NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_NO_ROUTE)},
				{R"({"reject": {"type": "icmpx", "expr": "no-route"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_PORT_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "port-unreachable"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_HOST_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "host-unreachable"}})"})
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_ADMIN_PROHIBITED)},
				{R"({"reject": {"type": "icmpx", "expr": "admin-prohibited"}})"})
			.check();
	});
}

TEST(nft_kernel, reject_of_a_rule_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(ip6);
		owned_rule rule = make_rule(ip6, {});
		ASSERT_EQ(kvnft_rule_reject(rule.get(), NFT_REJECT_TCP_RST, 0), 0);
		EXPECT_EQ(transaction().rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{R"({"reject": {"type": "tcp reset"}})"}}));
	});
}

// The kernel asks for the code that is left out.
TEST(nft_kernel, reject_by_the_familys_own_icmp_is_refused_for_want_of_a_code)
{
	in_nft_network([] {
		for (uint16_t family : {ip, ip6, inet, netdev}) {
			make_table_and_chain(family);
			transaction change;
			change.rule(family, {kvnft_build_expr_reject(NFT_REJECT_ICMP_UNREACH, 3)});
			EXPECT_EQ(change.send(), -EINVAL) << name_of(family);
			EXPECT_EQ(rules(), no_lines);
		}
	});
}

TEST(nft_kernel, rejections_of_bridge_are_listed)
{
	skip_if_emulated(no_netfilter);
	if (std::string reason =
			refusal_of("bridge", "add rule bridge t c reject with icmpx port-unreachable");
		!reason.empty())
		GTEST_SKIP() << "this kernel has no \"reject\" in the family bridge: " << reason;
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_reject(
				     NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_PORT_UNREACH)},
				{R"({"reject": {"type": "icmpx", "expr": "port-unreachable"}})"})
			.check();
	});
}

TEST(nft_kernel, queue_is_listed)
{
	skip_if_emulated(no_netfilter);
	if (std::string reason = refusal_of("inet", "add rule inet t c queue num 0"); !reason.empty())
		GTEST_SKIP() << "this kernel has no \"queue\": " << reason;
	in_nft_network([] {
		make_table_and_chain();
		listed_rules()
			.add({kvnft_build_expr_queue(5, 0, 0)}, {R"({"queue": {"num": 5}})"})
			.add({kvnft_build_expr_queue(5, 1, NFT_QUEUE_FLAG_BYPASS)},
				{R"({"queue": {"num": 5, "flags": "bypass"}})"})
			.add({kvnft_build_expr_queue(5, 3, NFT_QUEUE_FLAG_CPU_FANOUT)},
				{R"({"queue": {"num": {"range": [5, 7]}, "flags": "fanout"}})"})
			.check();
	});
}

TEST(nft_kernel, redirect_and_masquerade_are_listed)
{
	in_nft_network([] {
		for (uint16_t family : {ip, ip6, inet}) {
			uint16_t port = htons(8080);
			transaction change;
			change.table(family)
				.base_chain(family, "c", "nat", NF_INET_PRE_ROUTING, -100)
				.base_chain(family, "d", "nat", NF_INET_POST_ROUTING, 100)
				.rule(family, {kvnft_build_expr_imm(NFT_REG_1, &port, 2),
						      kvnft_build_expr_redir(NFT_REG_1)})
				.rule(family, {kvnft_build_expr_masq()}, "d");
			EXPECT_EQ(change.send(), 0) << name_of(family);
			EXPECT_EQ(rules(),
				listing({{R"({"redirect": {"port": 8080}})"}, {R"({"masquerade": null})"}}));
			EXPECT_EQ(kvnft_del_table_simple("t", family), 0);
		}
	});
}

TEST(nft_kernel, redirect_and_masquerade_are_refused_outside_of_nat)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).base_chain(ip, "c", "filter", NF_INET_FORWARD).send(), 0);
		EXPECT_EQ(transaction().rule(ip, {kvnft_build_expr_masq()}).send(), -EOPNOTSUPP);
		uint16_t port = htons(80);
		transaction change;
		change.rule(
			ip, {kvnft_build_expr_imm(NFT_REG_1, &port, 2), kvnft_build_expr_redir(NFT_REG_1)});
		EXPECT_EQ(change.send(), -EOPNOTSUPP);
		EXPECT_EQ(rules(), no_lines);
	});
}

TEST(nft_kernel, rules_stand_in_the_order_of_their_messages)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().accept_mark(inet, 1).accept_mark(inet, 2).send(), 0);
		EXPECT_EQ(transaction().accept_mark(inet, 3).send(), 0);
		EXPECT_EQ(rules(),
			listing({{match("==", mark_key, "1"), accepts}, {match("==", mark_key, "2"), accepts},
				{match("==", mark_key, "3"), accepts}}));
	});
}

TEST(nft_kernel, rule_that_is_put_into_a_batch_twice_is_there_twice)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {kvnft_build_expr_verdict(NF_DROP)});
		EXPECT_EQ(transaction().rule(rule).rule(rule).send(), 0);
		EXPECT_EQ(rules(), listing({{drops}, {drops}}));
	});
}

TEST(nft_kernel, rules_of_bridge_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		listed_rules(bridge)
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", field("ether", "saddr"), R"("02:00:00:00:00:05")"), drops})
			.add({kvnft_build_expr_ether_type(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_NEQ, "\x88\x8e", 2)},
				{match("!=", field("ether", "type"), "34958")})
			.check();
	});
}

TEST(nft_kernel, rules_of_netdev_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(netdev);
		listed_rules(netdev)
			.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, phone, 6),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", bits("ll", 48, 48), "2199023255557"), drops})
			.check();
	});
}

TEST(nft_kernel, rules_of_arp_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(arp);
		listed_rules(arp)
			.add({kvnft_build_expr_payload(NFT_REG_1, NFT_PAYLOAD_NETWORK_HEADER, 6, 2),
				     kvnft_build_expr_cmp(NFT_REG_1, NFT_CMP_EQ, "\x00\x01", 2),
				     kvnft_build_expr_verdict(NF_DROP)},
				{match("==", field("arp", "operation"), R"("request")"), drops})
			.check();
	});
}

// ---- Sets ----

TEST(nft_kernel, set_is_listed_with_its_elements)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		EXPECT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(ruleset().back(), plain(R"({"set": {"family": "inet", "table": "t", "name": "s",
			"type": "ether_addr", "elem": ["02:00:00:00:00:05", "02:00:00:00:00:06"]}})"));
	});
}

TEST(nft_kernel, sets_of_every_family_are_made)
{
	in_nft_network([] {
		for (uint16_t family : families) {
			owned_set set = make_set(family, 0, type_ether);
			add_phone(set);
			EXPECT_EQ(transaction().table(family).set(set).elements_of(set).send(), 0)
				<< name_of(family);
			EXPECT_EQ(elements(name_of(family)), plain(R"(["02:00:00:00:00:05"])"));
		}
	});
}

TEST(nft_kernel, elements_are_listed_with_their_time_outs)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
		add_phone(set, 3'600'000);
		add_laptop(set);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "\x02\0\0\0\0\x07", 6, 0), 0);
		EXPECT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(elements(), plain(R"([{"elem": {"val": "02:00:00:00:00:05", "timeout": 3600}},
			"02:00:00:00:00:06", "02:00:00:00:00:07"])"));
	});
}

TEST(nft_kernel, element_is_gone_when_its_time_is_out)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
		add_phone(set, 50);
		add_laptop(set, 3'600'000);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string left = plain(R"([{"elem": {"val": "02:00:00:00:00:06", "timeout": 3600}}])");
		EXPECT_TRUE(eventually([&] { return elements() == left; })) << elements();
	});
}

// A set in which elements stay for so long if they do not say otherwise.
owned_set make_set_with_default(uint64_t timeout_ms)
{
	owned_set set = make_set(inet, NFT_SET_TIMEOUT, type_ether);
	nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, timeout_ms);
	add_phone(set, -1);
	add_laptop(set, 0);
	return set;
}

TEST(nft_kernel, element_without_a_time_out_gets_that_of_its_set_and_one_of_0_none)
{
	in_nft_network([] {
		owned_set set = make_set_with_default(60'000);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string listed = must_run("nft list set inet t s");
		EXPECT_THAT(listed, testing::ContainsRegex("timeout 1m\n"));
		EXPECT_THAT(
			listed, testing::ContainsRegex("\\{ 02:00:00:00:00:05 expires [0-9a-z]+,[[:space:]]+"
						       "02:00:00:00:00:06 \\}"));
	});
}

TEST(nft_kernel, element_with_a_time_out_of_0_stays_when_that_of_its_set_is_out)
{
	in_nft_network([] {
		owned_set set = make_set_with_default(50);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		std::string left = plain(R"(["02:00:00:00:00:06"])");
		EXPECT_TRUE(eventually([&] { return elements() == left; })) << elements();
	});
}

TEST(nft_kernel, element_with_a_time_out_is_refused_by_a_set_without)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		add_phone(set, 0); // even "for ever"
		EXPECT_EQ(transaction().elements_of(set).send(), -EINVAL);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, elements_are_deleted)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		owned_set blocked = make_set(inet, 0, type_ether);
		add_phone(blocked);
		EXPECT_EQ(transaction().del_elements_of(blocked).send(), 0);
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:06"])"));
		EXPECT_EQ(transaction().del_elements_of(blocked).send(), -ENOENT);
	});
}

TEST(nft_kernel, set_without_elements_deletes_all_of_them)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		add_laptop(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(transaction().del_elements_of(make_set(inet, 0, type_ether)).send(), 0);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, element_that_is_there_already_is_no_error)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		ASSERT_EQ(transaction().table(inet).set(set).elements_of(set).send(), 0);
		EXPECT_EQ(transaction().elements_of(set).send(), 0);
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:05"])"));
	});
}

TEST(nft_kernel, element_of_another_length_is_refused)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, -1), 0);
		EXPECT_EQ(transaction().elements_of(set).send(), -EINVAL);
	});
}

TEST(nft_kernel, set_is_deleted)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		EXPECT_EQ(transaction().del_set(set).send(), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_kernel, thousands_of_elements_go_in_one_message)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ipv4);
		ASSERT_EQ(transaction().table(inet).set(set).send(), 0);
		for (uint32_t index = 0; index < 4000; index++) {
			uint32_t address = htonl(0x0a000000 + index);
			ASSERT_EQ(kvnft_build_set_add_elem(set.get(), &address, 4, -1), 0);
		}
		EXPECT_EQ(transaction().elements_of(set).send(), 0);
		json listed = parse_json(elements());
		EXPECT_EQ(json_array_size(listed.get()), 4000U);
		EXPECT_EQ(transaction().del_elements_of(set).send(), 0);
		EXPECT_EQ(elements(), "");
	});
}

TEST(nft_kernel, rule_of_eighty_expressions_fits_the_conventional_batch)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_rule rule = make_rule(inet, {});
		for (uint32_t pair = 0; pair < 40; pair++) {
			nftnl_rule_add_expr(
				rule.get(), kvnft_build_expr_payload(1, NFT_PAYLOAD_NETWORK_HEADER, 16, 4));
			nftnl_rule_add_expr(rule.get(), kvnft_build_expr_cmp(1, NFT_CMP_NEQ, &pair, 4));
		}
		transaction change(4096);
		EXPECT_EQ(change.rule(rule).send(), 0);
		ASSERT_EQ(rules().size(), 1U);
		json listed = parse_json(rules()[0]);
		EXPECT_EQ(json_array_size(listed.get()), 40U);
	});
}

TEST(nft_kernel, hundreds_of_elements_go_in_several_messages)
{
	in_nft_network([] {
		transaction change;
		owned_set set = make_set(inet, 0, type_ipv4);
		change.table(inet).set(set);
		for (uint32_t first = 0; first < 1000; first += 100) {
			owned_set part = make_set(inet, 0, type_ipv4);
			for (uint32_t index = first; index < first + 100; index++) {
				uint32_t address = htonl(0x0a000000 + index);
				ASSERT_EQ(kvnft_build_set_add_elem(part.get(), &address, 4, -1), 0);
			}
			change.elements_of(part);
		}
		EXPECT_EQ(change.send(), 0);
		json listed = parse_json(elements());
		EXPECT_EQ(json_array_size(listed.get()), 1000U);
	});
}

TEST(nft_kernel, lookups_are_listed)
{
	in_nft_network([] {
		make_table_and_chain(bridge);
		owned_set set = make_set(bridge, 0, type_ether);
		listed_rules list(bridge);
		list.change().set(set);
		list.add({kvnft_build_expr_ether_saddr(NFT_REG_1),
				 kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0),
				 kvnft_build_expr_verdict(NF_DROP)},
			    {match("==", field("ether", "saddr"), R"("@s")"), drops})
			.add({kvnft_build_expr_ether_daddr(NFT_REG_1),
				     kvnft_build_expr_lookup(NFT_REG_1, "s", 0, NFT_LOOKUP_F_INV)},
				{match("!=", field("ether", "daddr"), R"("@s")")})
			.check();
	});
}

TEST(nft_kernel, set_is_made_and_used_by_name_in_one_batch)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		transaction change;
		change.table(inet).chain(inet).set(set).elements_of(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(rules(), listing({{match("==", bits("ll", 48, 48), R"("@s")")}}));
	});
}

// Two sets, so that only the id can tell which of them is meant.
TEST(nft_kernel, set_is_made_and_used_by_id_in_one_batch)
{
	in_nft_network([] {
		owned_set first = make_set(inet, 0, type_ether, "first");
		owned_set second = make_set(inet, 0, type_ether, "second");
		transaction change;
		change.table(inet).chain(inet).set(first).set(second);
		for (const owned_set *set : {&second, &first})
			change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
						  kvnft_build_expr_lookup(NFT_REG_1, "any", id_of(*set), 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(rules(), listing({
					   {match("==", bits("ll", 48, 48), R"("@second")")},
					   {match("==", bits("ll", 48, 48), R"("@first")")},
				   }));
	});
}

// The library can say it, but the kernel wants a name too, be it any.
TEST(nft_kernel, lookup_by_id_alone_is_refused)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		transaction change;
		change.table(inet).chain(inet).set(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, nullptr, id_of(set), 0)});
		EXPECT_EQ(change.send(), -EINVAL);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, set_ids_hold_in_their_own_batch_only)
{
	in_nft_network([] {
		make_table_and_chain();
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().set(set).send(), 0);
		transaction change;
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "any", id_of(set), 0)});
		EXPECT_EQ(change.send(), -ENOENT);
	});
}

TEST(nft_kernel, anonymous_set_is_bound_by_its_id)
{
	in_nft_network([] {
		owned_set set = make_set(inet, NFT_SET_ANONYMOUS | NFT_SET_CONSTANT, type_ether, "__set%d");
		add_phone(set);
		transaction change;
		change.table(inet).chain(inet).set(set).elements_of(set).rule(
			inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
				      kvnft_build_expr_lookup(NFT_REG_1, "__set%d", id_of(set), 0)});
		EXPECT_EQ(change.send(), 0);
		EXPECT_THAT(must_run("nft list ruleset"), testing::HasSubstr("02:00:00:00:00:05"));
		EXPECT_EQ(rules().size(), 1U);
	});
}

// ---- Elements that packets add ----

constexpr uint32_t dynamic_flags = NFT_SET_EVAL | NFT_SET_TIMEOUT;

TEST(nft_kernel, dynset_with_a_limit_is_listed)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		ASSERT_EQ(transaction().set(set).send(), 0);
		listed_rules(ip)
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), 5000, true,
					     kvnft_build_expr_limit(1000, 500)),
				     kvnft_build_expr_verdict(NF_DROP)},
				{element_of_s("update",
					 R"({"elem": {"timeout": 5, "val": )" + field("ip", "daddr") + "}}",
					 over("1000", "500")),
					drops})
			.add({kvnft_build_expr_ip_daddr(NFT_REG_1),
				     kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), 0, false,
					     kvnft_build_expr_limit(1000, 500))},
				{element_of_s("add", field("ip", "daddr"), over("1000", "500"))})
			.check();
	});
}

TEST(nft_kernel, dynset_finds_a_set_of_its_own_batch_by_id)
{
	in_nft_network([] {
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		transaction change;
		change.table(ip).chain(ip).set(set).rule(
			ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
				    kvnft_build_expr_dynset(NFT_REG_1, "any", id_of(set), 1000, true,
					    kvnft_build_expr_limit(1, 1))});
		EXPECT_EQ(change.send(), 0);
		EXPECT_THAT(rules().back(), testing::HasSubstr(R"("set":"@s")"));
	});
}

TEST(nft_kernel, dynset_is_refused_where_the_set_does_not_fit)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set fixed = make_set(ip, 0, type_ipv4, "fixed");
		owned_set eternal = make_set(ip, NFT_SET_EVAL, type_ipv4, "eternal");
		ASSERT_EQ(transaction().set(fixed).set(eternal).send(), 0);
		auto result_of = [](const char *name, int64_t timeout_ms) {
			transaction change;
			change.rule(ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
						kvnft_build_expr_dynset(NFT_REG_1, name, 0, timeout_ms, true,
							kvnft_build_expr_limit(1, 1))});
			return change.send();
		};
		EXPECT_EQ(result_of("fixed", 0), -EINVAL);
		EXPECT_EQ(result_of("eternal", 1000), -EOPNOTSUPP);
		EXPECT_EQ(result_of("missing", 0), -ENOENT);
		EXPECT_EQ(result_of("eternal", 0), 0);
	});
}

TEST(nft_kernel, negative_time_out_of_a_dynset_is_out_of_range)
{
	in_nft_network([] {
		make_table_and_chain(ip);
		owned_set set = make_set(ip, dynamic_flags, type_ipv4);
		transaction change;
		change.set(set).rule(ip, {kvnft_build_expr_ip_daddr(NFT_REG_1),
						 kvnft_build_expr_dynset(NFT_REG_1, "s", id_of(set), -5, true,
							 kvnft_build_expr_limit(1, 1))});
		EXPECT_EQ(change.send(), -ERANGE);
	});
}

// ---- Flushing and deleting ----

TEST(nft_kernel, flushed_chain_is_empty_and_others_are_not)
{
	in_nft_network([] {
		ASSERT_EQ(transaction()
				  .table(inet)
				  .chain(inet, "c")
				  .chain(inet, "d")
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_ACCEPT)}, "d")
				  .send(),
			0);
		EXPECT_EQ(transaction().flush_chain(inet, "c").send(), 0);
		EXPECT_EQ(rules(), listing({{accepts}}));
		EXPECT_EQ(ruleset().size(), 4U) << "a table, two chains and a rule";
	});
}

TEST(nft_kernel, flushed_table_keeps_chains_and_sets)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		ASSERT_EQ(transaction()
				  .table(inet)
				  .chain(inet, "c")
				  .chain(inet, "d")
				  .set(set)
				  .elements_of(set)
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)}, "c")
				  .rule(inet, {kvnft_build_expr_verdict(NF_ACCEPT)}, "d")
				  .send(),
			0);
		EXPECT_EQ(transaction().flush_table(inet).send(), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(ruleset().size(), 4U) << "a table, two chains and a set";
		EXPECT_EQ(elements(), plain(R"(["02:00:00:00:00:05"])"));
	});
}

TEST(nft_kernel, chain_is_flushed_and_filled_again_in_one_transaction)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).accept_mark(inet, 2).send(), 0);
		EXPECT_EQ(transaction()
				  .flush_chain(inet)
				  .rule(inet, {kvnft_build_expr_verdict(NF_DROP)})
				  .send(),
			0);
		EXPECT_EQ(rules(), listing({{drops}}));
	});
}

TEST(nft_kernel, one_call_flushes_a_chain)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0) << "an empty one";
		EXPECT_EQ(kvnft_flush_chain_simple("d", "t", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "u", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", ip), -ENOENT);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_kernel, one_call_flushes_a_table)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_flush_table_simple("t", inet), 0);
		EXPECT_EQ(rules(), no_lines);
		EXPECT_EQ(kvnft_flush_table_simple("t", inet), 0) << "an empty one";
		EXPECT_EQ(kvnft_flush_table_simple("u", inet), -ENOENT);
		EXPECT_EQ(kvnft_flush_table_simple("t", ip), -ENOENT);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_kernel, one_call_deletes_a_chain)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), -ENOENT);
		EXPECT_EQ(kvnft_del_chain_simple("c", "u", inet), -ENOENT);
	});
}

TEST(nft_kernel, one_call_deletes_a_base_chain_with_its_rules)
{
	in_nft_network([] {
		ASSERT_EQ(transaction()
				  .table(inet)
				  .base_chain(inet, "c", "filter", NF_INET_FORWARD, 5)
				  .accept_mark(inet, 1)
				  .send(),
			0);
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_kernel, one_call_deletes_a_table_with_all_that_is_in_it)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		ASSERT_EQ(transaction().table(inet).chain(inet).set(set).accept_mark(inet, 1).send(), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), 0);
		EXPECT_EQ(ruleset(), no_lines);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -ENOENT);
	});
}

TEST(nft_kernel, one_call_with_a_name_too_long_for_a_message_is_refused)
{
	in_nft_network([] {
		std::string name(10'000, 'x');
		calls.sent = 0;
		EXPECT_EQ(kvnft_flush_chain_simple(name.c_str(), "t", inet), -ENOMEM);
		EXPECT_EQ(kvnft_flush_table_simple(name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(kvnft_del_chain_simple("c", name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(kvnft_del_table_simple(name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(calls.sent, 0);
	});
}

// ---- Refusals ----

TEST(nft_kernel, what_is_missing_is_not_found)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		EXPECT_EQ(transaction().del_table(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().chain(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().set(set).send(), -ENOENT);
		EXPECT_EQ(transaction().flush_table(inet).send(), -ENOENT);
		ASSERT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(transaction().flush_chain(inet).send(), -ENOENT);
		EXPECT_EQ(transaction().accept_mark(inet, 1).send(), -ENOENT);
		EXPECT_EQ(transaction().elements_of(set).send(), -ENOENT);
		EXPECT_EQ(transaction().del_elements_of(set).send(), -ENOENT);
		EXPECT_EQ(transaction().del_set(set).send(), -ENOENT);
		ASSERT_EQ(transaction().chain(inet).send(), 0);
		transaction change;
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0)});
		EXPECT_EQ(change.send(), -ENOENT);
	});
}

TEST(nft_kernel, another_thing_of_the_same_name_exists)
{
	in_nft_network([] {
		make_table_and_chain();
		EXPECT_EQ(transaction().base_chain(inet, "c", "filter", NF_INET_FORWARD).send(), -EEXIST);
		ASSERT_EQ(transaction().set(make_set(inet, 0, type_ether)).send(), 0);
		EXPECT_EQ(transaction().set(make_set(inet, NFT_SET_TIMEOUT, type_ether)).send(), -EEXIST);
		EXPECT_EQ(transaction().set(make_set(inet, 0, type_ipv4)).send(), -EEXIST);
	});
}

TEST(nft_kernel, what_is_in_use_is_busy)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		transaction change;
		change.table(inet).chain(inet, "c").chain(inet, "target").set(set);
		change.rule(inet, {kvnft_build_expr_ether_saddr(NFT_REG_1),
					  kvnft_build_expr_lookup(NFT_REG_1, "s", 0, 0), jump_to("target")});
		ASSERT_EQ(change.send(), 0);
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(kvnft_del_chain_simple("target", "t", inet), -EBUSY);
		EXPECT_EQ(transaction().del_set(set).send(), -EBUSY);
		EXPECT_EQ(ruleset(), before);
		EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(kvnft_del_chain_simple("target", "t", inet), 0);
		EXPECT_EQ(transaction().del_set(set).send(), 0);
	});
}

TEST(nft_kernel, unknown_family_is_not_supported)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(NFPROTO_UNSPEC).send(), -EOPNOTSUPP);
		EXPECT_EQ(transaction().table(99).send(), -EOPNOTSUPP);
	});
}

TEST(nft_kernel, values_that_make_no_sense_are_refused)
{
	in_nft_network([] {
		make_table_and_chain();
		auto result_of = [](nftnl_expr *expression) {
			return transaction().rule(inet, {expression}).send();
		};
		EXPECT_EQ(result_of(kvnft_build_expr_limit(0, 5)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_limit(UINT64_MAX, 5)), -EOVERFLOW);
		EXPECT_EQ(result_of(kvnft_build_expr_verdict(77)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_reject(3, 0)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_reject(NFT_REJECT_ICMPX_UNREACH, 9)), -EINVAL);
		EXPECT_EQ(result_of(kvnft_build_expr_meta(255, NFT_REG_1)), -EOPNOTSUPP);
		EXPECT_EQ(rules(), no_lines);
	});
}

TEST(nft_kernel, name_longer_than_the_kernels_is_refused)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().table(inet, std::string(NFT_TABLE_MAXNAMELEN, 'x').c_str()).send(),
			-ERANGE);
		std::string longest(NFT_TABLE_MAXNAMELEN - 1, 'x');
		EXPECT_EQ(transaction().table(inet, longest.c_str()).send(), 0);
		EXPECT_THAT(ruleset().back(), testing::HasSubstr(longest));
	});
}

TEST(nft_kernel, process_without_the_capability_is_not_permitted)
{
	in_nft_network([] {
		make_table_and_chain();
		std::vector<std::string> before = ruleset();
		expect_in_child([] {
			ASSERT_EQ(setgroups(0, nullptr), 0);
			ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			EXPECT_EQ(transaction().send(), -EPERM);
			EXPECT_EQ(transaction().accept_mark(inet, 1).send(), -EPERM);
			EXPECT_EQ(kvnft_del_table_simple("t", inet), -EPERM);
			EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), -EPERM);
			EXPECT_EQ(kvnft_flush_table_simple("t", inet), -EPERM);
			EXPECT_EQ(kvnft_flush_chain_simple("c", "t", inet), -EPERM);
		});
		EXPECT_EQ(ruleset(), before);
	});
}

TEST(nft_kernel, batch_with_one_bad_message_changes_nothing)
{
	in_nft_network([] {
		make_table_and_chain();
		ASSERT_EQ(transaction().accept_mark(inet, 1).send(), 0);
		std::vector<std::string> before = ruleset();
		EXPECT_EQ(transaction()
				  .table(ip)
				  .chain(inet, "d")
				  .flush_chain(inet)
				  .accept_mark(inet, 2)
				  .flush_chain(inet, "missing") // the bad one
				  .accept_mark(inet, 3)
				  .del_table(inet)
				  .send(),
			-ENOENT);
		EXPECT_EQ(ruleset(), before);
	});
}

TEST(nft_kernel, first_of_several_refusals_is_the_result)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(ip).send(), 0);
		EXPECT_EQ(transaction()
				  .base_chain(ip, "c", "nat", NF_INET_FORWARD)
				  .chain(inet, "missing table")
				  .send(),
			-EOPNOTSUPP);
		EXPECT_EQ(transaction()
				  .chain(inet, "missing table")
				  .base_chain(ip, "c", "nat", NF_INET_FORWARD)
				  .send(),
			-ENOENT);
	});
}

TEST(nft_kernel, batch_of_begin_and_end_alone_succeeds)
{
	in_nft_network([] {
		EXPECT_EQ(transaction().send(), 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, batch_without_its_end_changes_nothing)
{
	in_nft_network([] {
		transaction change;
		change.table(inet);
		EXPECT_EQ(kvnft_batch_send(change.get()), 0) << "the kernel says nothing";
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_kernel, batch_may_be_sent_again)
{
	in_nft_network([] {
		make_table_and_chain();
		transaction change;
		change.accept_mark(inet, 1).finish();
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(rules().size(), 2U);
	});
}

TEST(nft_kernel, message_that_did_not_fit_is_not_sent)
{
	in_nft_network([] {
		make_table_and_chain();
		transaction change(500);
		size_t count = 0;
		while (kvnft_batch_accept_mark(change.get(), inet, "t", "c", 1, 1) == 0)
			count++;
		EXPECT_EQ(kvnft_batch_accept_mark(change.get(), inet, "t", "c", 1, 1), -ENOMEM) << "again";
		ASSERT_GT(count, 0U);
		EXPECT_EQ(change.send(), 0); // the end is shorter than a rule
		EXPECT_EQ(rules().size(), count);
	});
}

// ---- Sending ----

// A message of its own, outside of any batch: asks for all rules.
struct rules_request {
	alignas(nlmsghdr) char bytes[64];
	size_t length;

	rules_request()
		: length(nftnl_nlmsg_build_hdr(bytes, NFT_MSG_GETRULE, NFPROTO_UNSPEC, NLM_F_DUMP, 1)
				  ->nlmsg_len)
	{
	}
};

struct answers {
	int count = 0;
	int last_at = INT32_MAX; // the answer that ends it, by `last_result`
	int last_result = MNL_CB_OK;
	int last_errno = 0;

	static int take(const nlmsghdr *header, void *self_pointer)
	{
		auto *self = static_cast<answers *>(self_pointer);
		EXPECT_EQ(header->nlmsg_type & 0xff, NFT_MSG_NEWRULE);
		if (++self->count < self->last_at)
			return MNL_CB_OK;
		errno = self->last_errno;
		return self->last_result;
	}
};

void make_rules(uint32_t count)
{
	make_table_and_chain();
	for (uint32_t done = 0; done < count; done += 100) {
		transaction change;
		for (uint32_t mark = 0; mark < std::min(count - done, 100U); mark++)
			change.accept_mark(inet, mark);
		ASSERT_EQ(change.send(), 0);
	}
}

TEST(nft_sending, callback_sees_every_answer_of_many_datagrams)
{
	in_nft_network([] {
		make_rules(500);
		rules_request request;
		answers seen;
		calls.received = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), 0);
		EXPECT_EQ(seen.count, 500);
		EXPECT_GT(calls.received, 5);
	});
}

TEST(nft_sending, error_of_the_callback_is_the_result)
{
	in_nft_network([] {
		make_rules(100);
		rules_request request;
		answers seen{0, 3, MNL_CB_ERROR, EDOM};
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), -EDOM);
		EXPECT_EQ(seen.count, 3);
	});
}

TEST(nft_sending, callback_that_stops_skips_the_rest_of_a_datagram_without_an_error)
{
	in_nft_network([] {
		make_rules(100);
		rules_request request;
		answers seen{0, 1, MNL_CB_STOP, 0};
		calls.received = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), 0);
		EXPECT_EQ(seen.count, calls.received - 1)
			<< "one of each datagram, but the last, which has none";
	});
}

TEST(nft_sending, callback_is_not_asked_about_acknowledgements)
{
	in_nft_network([] {
		transaction change;
		change.table(inet).chain(inet).finish();
		answers seen;
		EXPECT_EQ(kvnft_send_msg_cb(
				  mnl_nlmsg_batch_head(change.get()), change.bytes(), answers::take, &seen),
			0);
		EXPECT_EQ(seen.count, 0);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_sending, answers_without_a_callback_are_let_go)
{
	in_nft_network([] {
		make_rules(300);
		rules_request request;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, nullptr, nullptr), 0);
	});
}

TEST(nft_sending, garbage_gets_no_answer)
{
	in_nft_network([] {
		char bytes[100];
		memset(bytes, 0xff, sizeof(bytes));
		EXPECT_EQ(kvnft_send_msg_cb(bytes, sizeof(bytes), nullptr, nullptr), 0);
		EXPECT_EQ(kvnft_send_msg_cb(bytes, 3, nullptr, nullptr), 0);
	});
}

// Elements of a set that is not there, in a message longer than what is received at once.
transaction &add_missing_elements(transaction &change)
{
	owned_set missing = make_set(inet, 0, type_ipv4);
	for (uint32_t address = 0; address < 1000; address++)
		EXPECT_EQ(kvnft_build_set_add_elem(missing.get(), &address, 4, -1), 0);
	size_t before = change.bytes();
	change.elements_of(missing);
	EXPECT_GT(change.bytes() - before, 4096U);
	return change;
}

TEST(nft_sending, refusal_of_a_message_of_more_than_4096_bytes_is_the_kernels)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(inet).send(), 0);
		transaction change;
		EXPECT_EQ(add_missing_elements(change).send(), -ENOENT);
	});
}

// As by kernels before 4.3, which repeat the message whole.
TEST(nft_sending, refusal_of_a_message_of_more_than_4096_bytes_that_is_repeated_has_no_space)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(inet).send(), 0);
		calls.refuses_option = [](int level, int) { return level == SOL_NETLINK; };
		transaction change;
		EXPECT_EQ(add_missing_elements(change).send(), -ENOSPC);
		EXPECT_EQ(transaction().del_table(inet, "missing").send(), -ENOENT);
		EXPECT_EQ(transaction().table(ip).send(), 0);
	});
}

// ---- Answers that are not the kernel's ----

sockaddr_nl address_of(int fd)
{
	sockaddr_nl name{};
	socklen_t length = sizeof(name);
	EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length), 0);
	return name;
}

std::string forged_bytes;
bool forged_for_its_port;

// Another process's privilege: puts a datagram into the queue of `fd`, in front of the kernel's answers.
void forge(int fd)
{
	owned_fd forger{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
	sockaddr_nl name = address_of(fd);
	if (forged_for_its_port && forged_bytes.size() >= sizeof(nlmsghdr)) {
		nlmsghdr header;
		memcpy(&header, forged_bytes.data(), sizeof(header));
		header.nlmsg_pid = name.nl_pid;
		memcpy(forged_bytes.data(), &header, sizeof(header));
	}
	EXPECT_EQ(sendto(forger.get(), forged_bytes.data(), forged_bytes.size(), 0,
			  reinterpret_cast<sockaddr *>(&name), sizeof(name)),
		static_cast<ssize_t>(forged_bytes.size()))
		<< strerror(errno);
}

// What sending gives when this datagram lies in front of the kernel's own answer.
int result_behind(const std::string &bytes, bool for_its_port = true)
{
	forged_bytes = bytes;
	forged_for_its_port = for_its_port;
	calls.before_send = forge;
	return transaction().table(inet).send();
}

// A message with `length_claimed` in its header and `payload_bytes` zero bytes behind that.
std::string message_bytes(uint16_t type, uint32_t length_claimed, size_t payload_bytes, uint16_t flags = 0)
{
	nlmsghdr header{length_claimed, type, flags, 1, 0};
	return std::string(reinterpret_cast<char *>(&header), sizeof(header)) +
	       std::string(payload_bytes, '\0');
}

TEST(nft_sending, forged_bytes_that_are_no_message_are_let_go)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(std::string(1, 'x')), 0);
		EXPECT_EQ(result_behind(std::string(15, '\xff')), 0);
		EXPECT_EQ(result_behind(message_bytes(NLMSG_DONE, 0, 20)), 0) << "no length";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_DONE, 15, 20)), 0) << "less than a header";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, 1000, 20)), 0) << "more than there is";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, UINT32_MAX, 20)), 0);
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 16, 0)), 0);
	});
}

TEST(nft_sending, forged_error_without_room_for_one_is_a_bad_message)
{
	in_nft_network([] { EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, 20, 4)), -EBADMSG); });
}

TEST(nft_sending, answer_for_another_port_is_not_taken)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 16, 0), false), 0) << "port 0: for all";
	});
	in_nft_network([] {
		std::string bytes = message_bytes(NLMSG_NOOP, 16, 0);
		const uint32_t another_port = 0x7ffffff1;
		memcpy(bytes.data() + offsetof(nlmsghdr, nlmsg_pid), &another_port, sizeof(another_port));
		EXPECT_EQ(result_behind(bytes, false), -ESRCH);
		EXPECT_EQ(ruleset().size(), 1U) << "the kernel has made the change all the same";
	});
}

TEST(nft_sending, forged_datagram_that_is_too_long_has_no_space)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 4096, 4080)), 0) << "the longest that fits";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 4097, 4081)), -ENOSPC);
	});
}

TEST(nft_sending, answers_cannot_be_forged_without_the_capability)
{
	in_nft_network([] {
		owned_fd target{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
		sockaddr_nl name{};
		name.nl_family = AF_NETLINK;
		ASSERT_EQ(bind(target.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		name = address_of(target.get());
		expect_in_child([&] {
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			owned_fd forger{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
			EXPECT_EQ(sendto(forger.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&name),
					  sizeof(name)),
				-1);
			EXPECT_EQ(errno, EPERM);
		});
	});
}

// ---- Many acknowledgements ----

constexpr int usual_queue_bytes = 212992;

// As net.core.rmem_default is where nobody has changed it. The kernel doubles what it is told.
void give_the_usual_queue(int fd)
{
	int bytes = usual_queue_bytes / 2;
	EXPECT_EQ(system_calls::setsockopt.next(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)), 0);
}

int queue_bytes;

void note_the_queue(int fd)
{
	socklen_t length = sizeof(queue_bytes);
	EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &queue_bytes, &length), 0);
}

// Sends so many messages over a socket with the usual queue.
int result_of_messages(size_t count)
{
	transaction change(size_t{4} << 20);
	for (size_t index = 0; index < count; index++)
		change.table(inet);
	change.finish();
	calls.after_bind = give_the_usual_queue;
	calls.before_send = note_the_queue;
	calls.received = calls.options = 0;
	return kvnft_batch_send(change.get());
}

// For processes that may not make the queue longer.
bool is_about_the_queue(int level, int option)
{
	return level == SOL_SOCKET && (option == SO_RCVBUF || option == SO_RCVBUFFORCE);
}

TEST(nft_sending, every_change_is_acknowledged)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		transaction change;
		change.table(inet)
			.chain(inet)
			.set(set)
			.elements_of(set)
			.accept_mark(inet, 1)
			.del_elements_of(set)
			.del_set(set)
			.flush_chain(inet)
			.flush_table(inet)
			.del_table(inet);
		calls.received = 0;
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(calls.received, 10);
		ASSERT_EQ(transaction().table(inet).chain(inet).send(), 0);
		calls.received = 0;
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(calls.received, 1);
	});
}

TEST(nft_sending, few_acknowledgements_fit_into_the_usual_queue)
{
	in_nft_network([] {
		EXPECT_EQ(result_of_messages(120), 0);
		EXPECT_EQ(calls.received, 120) << "one datagram each";
		EXPECT_EQ(queue_bytes, usual_queue_bytes);
		EXPECT_EQ(calls.options, 1) << "only that about refusals";
	});
}

TEST(nft_sending, thousands_of_acknowledgements_are_all_taken)
{
	in_nft_network([] {
		for (int count : {200, 1000, 5000}) {
			EXPECT_EQ(result_of_messages(static_cast<size_t>(count)), 0);
			EXPECT_EQ(calls.received, count);
		}
	});
}

TEST(nft_sending, longer_queue_is_left_as_it_is)
{
	in_nft_network([] {
		transaction change;
		for (int index = 0; index < 300; index++)
			change.table(inet);
		change.finish();
		calls.after_bind = [](int fd) {
			int bytes = 16 << 20;
			EXPECT_EQ(system_calls::setsockopt.next(
					  fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)),
				0);
		};
		calls.before_send = note_the_queue;
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(queue_bytes, 32 << 20);
	});
}

// As far as net.core.rmem_max allows.
TEST(nft_sending, queue_is_made_longer_without_the_capability)
{
	in_nft_network([] {
		calls.refuses_option = [](int level, int option) {
			return level == SOL_SOCKET && option == SO_RCVBUFFORCE;
		};
		int kernels_max = std::stoi(must_run("cat /proc/sys/net/core/rmem_max"));
		EXPECT_EQ(result_of_messages(200), 0);
		EXPECT_GT(queue_bytes, std::min(usual_queue_bytes, 2 * kernels_max - 1));
	});
}

TEST(nft_sending, acknowledgements_beyond_the_queue_are_no_buffer_space_though_the_change_is_made)
{
	in_nft_network([] {
		calls.refuses_option = is_about_the_queue;
		size_t fits = 200, does_not = 1000;
		ASSERT_EQ(result_of_messages(does_not), -ENOBUFS);
		while (does_not - fits > 1) {
			size_t count = (fits + does_not) / 2;
			int result = result_of_messages(count);
			ASSERT_TRUE(result == 0 || result == -ENOBUFS) << result;
			(result == 0 ? fits : does_not) = count;
		}
		EXPECT_GT(fits, 212992U / 1000) << "several hundred bytes each";
		EXPECT_LT(fits, 212992U / 500);

		ASSERT_EQ(kvnft_del_table_simple("t", inet), 0);
		EXPECT_EQ(result_of_messages(does_not), -ENOBUFS);
		EXPECT_LE(calls.received, 1) << "what is queued is not looked at";
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_sending, refusal_behind_too_many_messages_may_be_lost_and_nothing_is_changed)
{
	in_nft_network([] {
		transaction change(size_t{4} << 20);
		for (int index = 0; index < 2000; index++)
			change.table(inet);
		change.del_table(ip).finish();
		EXPECT_EQ(kvnft_batch_send(change.get()), -ENOENT) << "where the queue may be made longer";
		EXPECT_EQ(ruleset(), no_lines);
		calls.refuses_option = is_about_the_queue;
		calls.after_bind = give_the_usual_queue;
		EXPECT_EQ(kvnft_batch_send(change.get()), -ENOBUFS);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_sending, flood_of_acknowledgements_leaks_no_descriptor)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		calls.refuses_option = is_about_the_queue;
		for (int turn = 0; turn < 20; turn++)
			EXPECT_EQ(result_of_messages(5000), -ENOBUFS);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST(nft_sending, batch_longer_than_the_sockets_send_buffer_is_too_long)
{
	in_nft_network([] {
		owned_fd fd{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
		int send_buffer_bytes = 0;
		socklen_t length = sizeof(send_buffer_bytes);
		ASSERT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, &length), 0);
		auto bytes_max = static_cast<size_t>(send_buffer_bytes) - 32;
		transaction change(bytes_max * 2);
		while (change.bytes() + 20 <= bytes_max) // and the end
			change.table(inet);
		change.finish();
		ASSERT_GT(change.bytes(), bytes_max);
		EXPECT_EQ(kvnft_batch_send(change.get()), -EMSGSIZE);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

// ---- Descriptors ----

// The kernel takes its time to undo a change that it refuses: milliseconds each.
TEST(nft_sending, ten_thousand_sends_leave_no_descriptor)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		transaction accepted, refused;
		accepted.finish();
		refused.del_table(inet, "missing").finish();
		int failures = 0;
		for (int turn = 0; turn < 10'000; turn++) {
			failures += kvnft_batch_send(accepted.get()) != 0;
			if (turn % 100 == 0)
				failures += kvnft_batch_send(refused.get()) != -ENOENT;
		}
		EXPECT_EQ(failures, 0);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST(nft_sending, ten_thousand_refused_sends_leave_no_descriptor)
{
	in_nft_network([] {
		transaction change;
		change.table(inet).finish();
		expect_in_child([&] {
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			std::set<int> before = open_descriptors();
			int failures = 0;
			for (int turn = 0; turn < 10'000; turn++)
				failures += kvnft_batch_send(change.get()) != -EPERM;
			EXPECT_EQ(failures, 0);
			EXPECT_EQ(open_descriptors(), before);
		});
	});
}

TEST(nft_sending, no_descriptor_left_is_the_result)
{
	in_nft_network([] {
		int next_fd = dup(0);
		close(next_fd);
		rlimit limit{};
		ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
		rlimit none_left{static_cast<rlim_t>(next_fd), limit.rlim_max};
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none_left), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -EMFILE);
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -ENOENT);
	});
}

int last_socket;

// Opens descriptors up to number `last`.
std::vector<owned_fd> descriptors_up_to(int last)
{
	std::vector<owned_fd> fillers;
	rlimit limit{};
	EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	limit.rlim_cur = static_cast<rlim_t>(last) + 10;
	limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
	EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	while (fillers.empty() || fillers.back().get() < last) {
		fillers.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
		if (fillers.back().get() < 0)
			break;
	}
	EXPECT_EQ(fillers.back().get(), last) << strerror(errno);
	return fillers;
}

// The first and the last bit of select's words, and those beyond the words that an fd_set has.
TEST(nft_sending, socket_may_have_any_number)
{
	in_nft_network([] {
		std::vector<owned_fd> fillers;
		for (int number : {62, 63, 64, 127, 128, FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 1, 2000,
			     4095, 4096}) {
			for (owned_fd &more : descriptors_up_to(number - 1))
				fillers.push_back(std::move(more));
			calls.received = 0;
			calls.before_send = [](int fd) { last_socket = fd; };
			EXPECT_EQ(transaction().table(inet).send(), 0);
			EXPECT_EQ(last_socket, number);
			EXPECT_EQ(calls.received, 1);
			EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
			EXPECT_FALSE(is_open(number)) << "the socket";
		}
		calls.select_error = ENETDOWN;
		EXPECT_EQ(transaction().table(ip).send(), -ENETDOWN);
		calls.select_error = 0;
	});
}

// Each leaves no descriptor: in_nft_network looks.
TEST(nft_sending, every_step_that_fails_is_the_result_and_closes_the_socket)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		for (int *error : {&calls.bind_error, &calls.getsockname_error, &calls.sendto_error,
			     &calls.select_error, &calls.recvmsg_error}) {
			*error = ENETDOWN;
			EXPECT_EQ(transaction().table(inet).send(), -ENETDOWN);
			*error = 0;
			EXPECT_EQ(open_descriptors(), before);
		}
		EXPECT_EQ(transaction().table(inet).send(), 0);
	});
}

TEST(nft_sending, nothing_is_sent_when_binding_fails)
{
	in_nft_network([] {
		calls.sent = 0;
		calls.bind_error = EADDRINUSE;
		EXPECT_EQ(transaction().table(inet).send(), -EADDRINUSE);
		calls.bind_error = 0;
		EXPECT_EQ(calls.sent, 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_sending, change_is_made_although_its_answer_cannot_be_taken)
{
	in_nft_network([] {
		calls.recvmsg_error = EIO;
		EXPECT_EQ(transaction().table(inet).send(), -EIO);
		calls.recvmsg_error = 0;
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

// A signal is one of its reasons.
TEST(nft_sending, change_is_made_although_looking_for_answers_is_interrupted)
{
	in_nft_network([] {
		calls.select_error = EINTR;
		EXPECT_EQ(transaction().table(inet).send(), -EINTR);
		calls.select_error = 0;
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_sending, answers_are_never_waited_for)
{
	in_nft_network([] {
		calls.waiting = 0;
		EXPECT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
		make_rules(100);
		rules_request request;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, nullptr, nullptr), 0);
		EXPECT_EQ(calls.waiting, 0);
	});
}

// So neither the process's number nor that of another call may be the address.
TEST(nft_sending, callback_may_send_over_a_socket_of_its_own)
{
	in_nft_network([] {
		make_rules(2);
		rules_request request;
		auto send_another = [](const nlmsghdr *, void *count) {
			++*static_cast<int *>(count);
			EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
			answers seen;
			rules_request inner;
			EXPECT_EQ(kvnft_send_msg_cb(inner.bytes, inner.length, answers::take, &seen), 0);
			EXPECT_EQ(seen.count, 2);
			return MNL_CB_OK;
		};
		int count = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, send_another, &count), 0);
		EXPECT_EQ(count, 2);
	});
}

TEST(nft_sending, whole_change_takes_names_up_to_the_length_of_its_batch)
{
	in_nft_network([] {
		// The batch's begin and end, the message's two headers and the name's, and its terminator.
		const size_t name_max = static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE) - 20 - 20 - 20 - 4 - 1;
		EXPECT_EQ(kvnft_del_table_simple(std::string(name_max, 'n').c_str(), inet), -ERANGE)
			<< "the kernel's";
		EXPECT_EQ(kvnft_del_table_simple(std::string(name_max + 1, 'n').c_str(), inet), -ENOMEM)
			<< "ours";
	});
}

} // namespace
