// The firewall builder without the kernel's help: what its objects hold, the bytes that they become, batches
// that are full, objects that are too large, and exhausted memory.
#include "lib/nft.h"

#include <dlfcn.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <map>
#include <memory>
#include <random>
#include <type_traits>

// Behind the C library's, which they would redefine.
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

using namespace support;

// What is sent, and what priority a chain is given, is looked at on its way.
static struct {
	char sent[65536]; // the last datagram
	size_t sent_length;
	int32_t priority; // NFTNL_CHAIN_PRIO
	int priorities;   // how often it was given
} seen;

// The errors that steps of sending fail with; 0: they do not.
static struct {
	int bind, sendto, select, recvfrom;
} failing;

extern "C" ssize_t mnl_socket_sendto(const mnl_socket *nl, const void *buf, size_t length)
{
	static const auto real =
		reinterpret_cast<decltype(&mnl_socket_sendto)>(dlsym(RTLD_NEXT, "mnl_socket_sendto"));
	if (failing.sendto)
		return errno = failing.sendto, -1;
	seen.sent_length = std::min(length, sizeof(seen.sent));
	memcpy(seen.sent, buf, seen.sent_length);
	return real(nl, buf, length);
}

extern "C" int mnl_socket_bind(mnl_socket *nl, unsigned groups, pid_t pid)
{
	static const auto real =
		reinterpret_cast<decltype(&mnl_socket_bind)>(dlsym(RTLD_NEXT, "mnl_socket_bind"));
	return failing.bind ? (errno = failing.bind, -1) : real(nl, groups, pid);
}

extern "C" ssize_t mnl_socket_recvfrom(const mnl_socket *nl, void *buf, size_t size)
{
	static const auto real =
		reinterpret_cast<decltype(&mnl_socket_recvfrom)>(dlsym(RTLD_NEXT, "mnl_socket_recvfrom"));
	return failing.recvfrom ? (errno = failing.recvfrom, -1) : real(nl, buf, size);
}

static auto failing_select = system_calls::select.replace([](auto... arguments) {
	return failing.select ? (errno = failing.select, -1) : system_calls::select.next(arguments...);
});

extern "C" void nftnl_chain_set_s32(nftnl_chain *chain, uint16_t attribute, int32_t value)
{
	static const auto real =
		reinterpret_cast<decltype(&nftnl_chain_set_s32)>(dlsym(RTLD_NEXT, "nftnl_chain_set_s32"));
	if (attribute == NFTNL_CHAIN_PRIO) {
		seen.priority = value;
		seen.priorities++;
	}
	real(chain, attribute, value);
}

// The attributes of expressions, sets, elements, tables and rules are written down as they are set. libnftnl
// sets some by way of others of these functions; that is one step. Nothing here asks for memory.
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

// ---- The interface ----

// Whether the functions are of this type, with every argument as wide as that.
template <typename type, auto... functions>
constexpr bool all_are = (std::is_same_v<decltype(functions), type *> && ...);

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using text_pointer = const char *;
using batch_pointer = mnl_nlmsg_batch *;

static_assert(all_are<nftnl_expr *(), kvnft_build_expr_masq>);
static_assert(all_are<nftnl_expr *(u16), kvnft_build_expr_log>);
static_assert(all_are<nftnl_expr *(u16, u16, u16), kvnft_build_expr_queue>);
static_assert(all_are<nftnl_expr *(u32, u8), kvnft_build_expr_reject>);
static_assert(all_are<nftnl_expr *(u32), kvnft_build_expr_verdict, kvnft_build_expr_redir,
	kvnft_build_expr_ether_saddr, kvnft_build_expr_ether_daddr, kvnft_build_expr_ether_type,
	kvnft_build_expr_ip_daddr, kvnft_build_expr_udp_sport, kvnft_build_expr_udp_dport,
	kvnft_build_expr_tcp_dport, kvnft_build_expr_ether_set_daddr>);
static_assert(all_are<nftnl_expr *(u32, u32), kvnft_build_expr_ct, kvnft_build_expr_meta,
	kvnft_build_expr_meta_set>);
static_assert(all_are<nftnl_expr *(u32, u32, int), _kvnft_build_expr_meta>);
static_assert(
	all_are<nftnl_expr *(u32, u32, u32, u32), kvnft_build_expr_payload, kvnft_build_expr_payload_set>);
static_assert(all_are<nftnl_expr *(uint64_t, uint64_t), kvnft_build_expr_limit>);
static_assert(all_are<nftnl_expr *(u32, const void *, u32), kvnft_build_expr_imm>);
static_assert(all_are<nftnl_expr *(u32, u32, const void *, u32), kvnft_build_expr_cmp>);
static_assert(all_are<nftnl_expr *(u32, text_pointer, u32, u32), kvnft_build_expr_lookup>);
static_assert(
	all_are<nftnl_expr *(u32, u32, u32, const void *, u32, const void *, u32), kvnft_build_expr_bitwise>);
static_assert(
	all_are<nftnl_expr *(u32, text_pointer, u32, int64_t, bool, nftnl_expr *), kvnft_build_expr_dynset>);

static_assert(all_are<nftnl_set *(text_pointer, text_pointer, u32, u32, u32), kvnft_build_set>);
static_assert(all_are<int(nftnl_set *, const void *, u32, int64_t), kvnft_build_set_add_elem>);
static_assert(all_are<nftnl_table *(text_pointer, u32), kvnft_build_table>);
static_assert(all_are<nftnl_rule *(u32, text_pointer, text_pointer), kvnft_build_rule>);
static_assert(all_are<int(nftnl_rule *, u32), kvnft_rule_set_mark>);
static_assert(all_are<int(nftnl_rule *, u32, u8), kvnft_rule_reject>);
static_assert(all_are<int(nftnl_rule *, u8), kvnft_rule_verdict>);

static_assert(all_are<batch_pointer(void *, size_t, u32), kvnft_batch_alloc_start>);
static_assert(all_are<int(batch_pointer, nftnl_set *, u32), kvnft_batch_add_set, kvnft_batch_del_set,
	kvnft_batch_add_set_elem, kvnft_batch_del_set_elem>);
static_assert(all_are<int(batch_pointer, nftnl_rule *, u32), kvnft_batch_add_rule>);
static_assert(all_are<int(batch_pointer, u32), kvnft_batch_finish>);
static_assert(all_are<int(batch_pointer), kvnft_batch_send>);
static_assert(all_are<void(batch_pointer), kvnft_batch_free>);
static_assert(all_are<int(const void *, size_t, mnl_cb_t, void *), kvnft_send_msg_cb>);

static_assert(all_are<int(batch_pointer, text_pointer, u32, u32), kvnft_batch_add_table_simple,
	kvnft_batch_del_table_simple, kvnft_batch_flush_table_simple>);
static_assert(all_are<int(batch_pointer, text_pointer, text_pointer, text_pointer, int32_t, u16, int32_t,
			      text_pointer, u32),
	kvnft_batch_add_chain_simple>);
static_assert(
	all_are<int(batch_pointer, text_pointer, text_pointer, u32, u32), kvnft_batch_flush_chain_simple>);
static_assert(all_are<int(batch_pointer, u32, text_pointer, text_pointer, u32, u32), kvnft_batch_accept_mark,
	kvnft_batch_accept_mark_neq>);
static_assert(
	all_are<int(text_pointer, text_pointer, u32), kvnft_flush_chain_simple, kvnft_del_chain_simple>);
static_assert(all_are<int(text_pointer, u32), kvnft_flush_table_simple, kvnft_del_table_simple>);

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

// The first two sets of this process, made before any test can make one.
struct earliest_sets : testing::Environment {
	static inline owned_set first, second;

	void SetUp() override
	{
		if (first || testing::Test::IsSkipped())
			return;
		first.reset(kvnft_build_set("t", "a", NFPROTO_INET, 0, 4));
		second.reset(kvnft_build_set("t", "b", NFPROTO_INET, 0, 4));
	}
};
testing::Environment *const earliest = testing::AddGlobalTestEnvironment(new earliest_sets);

const size_t room = static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE); // for one message behind a batch's limit

// ---- Values as libnftnl has them, and as the kernel reads them ----

// In the order of this machine.
template <typename T>
std::string host(T number)
{
	return {reinterpret_cast<const char *>(&number), sizeof(number)};
}

std::string host32(uint32_t number)
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

std::string text(const std::string &characters)
{
	return characters + '\0';
}

// An attribute: its length with the 4 bytes before the value, its type, the value, and zeros up to a multiple
// of 4.
std::string attribute(uint16_t type, const std::string &value)
{
	std::string bytes = host(static_cast<uint16_t>(4 + value.size())) + host(type) + value;
	return bytes.append((4 - bytes.size() % 4) % 4, '\0');
}

std::string be16(uint16_t type, uint16_t number)
{
	return attribute(type, network(number));
}

std::string be32(uint16_t type, uint32_t number)
{
	return attribute(type, network(number));
}

std::string be64(uint16_t type, uint64_t number)
{
	return attribute(type, network(number));
}

std::string nest(uint16_t type, const std::string &attributes)
{
	return attribute(type | 0x8000, attributes);
}

// A message: 16 bytes of netlink's header (length, type, flags, sequence number, port) and 4 of the netfilter
// subsystem's (family, version, resource).
std::string message(uint16_t type, uint16_t flags, uint32_t seq, uint8_t family, uint16_t resource,
	const std::string &attributes)
{
	return host32(static_cast<uint32_t>(20 + attributes.size())) + host(type) + host(flags) +
	       host32(seq) + host32(0) + static_cast<char>(family) + '\0' + network(resource) + attributes;
}

constexpr uint16_t NFTABLES = 10; // the subsystem
constexpr uint16_t REQUEST = 0x001, ACK = 0x004, CREATE = 0x400, APPEND = 0x800;

std::string change(
	uint16_t number, uint16_t flags, uint32_t seq, uint8_t family, const std::string &attributes)
{
	return message(static_cast<uint16_t>(NFTABLES << 8 | number), flags, seq, family, 0, attributes);
}

std::string begin_message(uint32_t seq)
{
	return message(0x10, REQUEST, seq, 0, NFTABLES, "");
}

std::string end_message(uint32_t seq)
{
	return message(0x11, REQUEST, seq, 0, NFTABLES, "");
}

// The attributes sorted by type, as they come in any order, with the order of equals kept (they are lists),
// and with zeros behind short values, where libmnl leaves what was there.
std::string canonical_attributes(const std::string &bytes)
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

std::string hex(const std::string &bytes)
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

std::string canonical(const std::string &one_message)
{
	if (one_message.size() < 20)
		return hex(one_message);
	return hex(one_message.substr(0, 20) + canonical_attributes(one_message.substr(20)));
}

std::vector<std::string> split(const std::string &bytes)
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
			<< "written behind the buffer";
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
	// Those behind the one that begins the batch.
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

attributes attributes_of(const nftnl_expr *e)
{
	return attributes_in(
		NFTNL_EXPR_BASE, 32, [=](uint16_t number) { return nftnl_expr_is_set(e, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_expr_get(e, number, length); });
}

attributes attributes_of(const nftnl_set *set)
{
	return attributes_in(
		0, NFTNL_SET_MAX + 1, [=](uint16_t number) { return nftnl_set_is_set(set, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_set_get_data(set, number, length); });
}

attributes attributes_of(nftnl_set_elem *elem)
{
	return attributes_in(
		0, NFTNL_SET_ELEM_MAX + 1,
		[=](uint16_t number) { return nftnl_set_elem_is_set(elem, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_set_elem_get(elem, number, length); });
}

attributes attributes_of(const nftnl_table *table)
{
	return attributes_in(
		0, NFTNL_TABLE_MAX + 1, [=](uint16_t number) { return nftnl_table_is_set(table, number); },
		[=](uint16_t number, uint32_t *length) {
			return nftnl_table_get_data(table, number, length);
		});
}

attributes attributes_of(const nftnl_rule *rule)
{
	return attributes_in(
		0, NFTNL_RULE_MAX + 1, [=](uint16_t number) { return nftnl_rule_is_set(rule, number); },
		[=](uint16_t number, uint32_t *length) { return nftnl_rule_get_data(rule, number, length); });
}

// Holds an object just made, and released here, to exactly these attributes.
void expect_expr(nftnl_expr *made, const std::string &name, const attributes &expected)
{
	owned_expr e{made};
	ASSERT_TRUE(e);
	EXPECT_EQ(nftnl_expr_get_str(e.get(), NFTNL_EXPR_NAME), name);
	EXPECT_EQ(attributes_of(e.get()), expected);
}

std::vector<nftnl_expr *> exprs_of(nftnl_rule *rule)
{
	std::vector<nftnl_expr *> all;
	auto add = [](nftnl_expr *e, void *to) {
		static_cast<std::vector<nftnl_expr *> *>(to)->push_back(e);
		return 0;
	};
	nftnl_expr_foreach(rule, add, &all);
	return all;
}

std::vector<nftnl_set_elem *> elems_of(nftnl_set *set)
{
	std::vector<nftnl_set_elem *> all;
	auto add = [](nftnl_set_elem *elem, void *to) {
		static_cast<std::vector<nftnl_set_elem *> *>(to)->push_back(elem);
		return 0;
	};
	nftnl_set_elem_foreach(set, add, &all);
	return all;
}

// All of their bytes differ: number and order show, and which argument they came as.
const uint32_t reg = 0x01020304;
const uint32_t wide = 0x05060708;
const uint32_t high = 0x10000; // nothing in the low 16 bits

attributes payload(uint32_t base, uint32_t offset, uint32_t length)
{
	return {{NFTNL_EXPR_PAYLOAD_DREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(base)},
		{NFTNL_EXPR_PAYLOAD_OFFSET, host32(offset)}, {NFTNL_EXPR_PAYLOAD_LEN, host32(length)}};
}

std::string characters(size_t length)
{
	std::string all;
	while (all.size() < length)
		all += static_cast<char>('a' + all.size() % 26);
	return all;
}

// ---- Expressions ----

TEST(nft_expr, ct_has_key_and_register)
{
	expect_expr(kvnft_build_expr_ct(reg, wide), "ct",
		{{NFTNL_EXPR_CT_KEY, host32(wide)}, {NFTNL_EXPR_CT_DREG, host32(reg)}});
}

TEST(nft_expr, reject_with_the_common_unreachable_type_has_its_code)
{
	expect_expr(kvnft_build_expr_reject(2, 3), "reject",
		{{NFTNL_EXPR_REJECT_TYPE, host32(2)}, {NFTNL_EXPR_REJECT_CODE, "\x03"}});
}

TEST(nft_expr, reject_with_the_common_unreachable_type_has_a_code_of_0_too)
{
	expect_expr(kvnft_build_expr_reject(2, 0), "reject",
		{{NFTNL_EXPR_REJECT_TYPE, host32(2)}, {NFTNL_EXPR_REJECT_CODE, std::string(1, '\0')}});
}

TEST(nft_expr, reject_with_another_type_has_no_code)
{
	for (uint32_t type : {0u, 1u, 3u, 0x102u, high | 2, wide})
		expect_expr(
			kvnft_build_expr_reject(type, 3), "reject", {{NFTNL_EXPR_REJECT_TYPE, host32(type)}});
}

TEST(nft_expr, verdict_is_an_immediate_to_the_verdict_register)
{
	expect_expr(kvnft_build_expr_verdict(NF_ACCEPT), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host32(1)}});
}

TEST(nft_expr, verdict_may_be_a_negative_one)
{
	expect_expr(kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN)), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host(int32_t{-5})}});
}

TEST(nft_expr, immediate_has_register_and_data)
{
	expect_expr(kvnft_build_expr_imm(reg, "abc\0de", 6), "immediate",
		{{NFTNL_EXPR_IMM_DREG, host32(reg)}, {NFTNL_EXPR_IMM_DATA, std::string("abc\0de", 6)}});
}

TEST(nft_expr, limit_is_of_bytes_beyond_the_rate_each_second)
{
	expect_expr(kvnft_build_expr_limit(0x0102030405060708, 9), "limit",
		{{NFTNL_EXPR_LIMIT_RATE, host(uint64_t{0x0102030405060708})},
			{NFTNL_EXPR_LIMIT_TYPE, host32(1)}, {NFTNL_EXPR_LIMIT_UNIT, host(uint64_t{1})},
			{NFTNL_EXPR_LIMIT_FLAGS, host32(1)}, {NFTNL_EXPR_LIMIT_BURST, host32(9)}});
}

attributes limit_without_burst(uint64_t rate)
{
	return {{NFTNL_EXPR_LIMIT_RATE, host(rate)}, {NFTNL_EXPR_LIMIT_TYPE, host32(1)},
		{NFTNL_EXPR_LIMIT_UNIT, host(uint64_t{1})}, {NFTNL_EXPR_LIMIT_FLAGS, host32(1)}};
}

TEST(nft_expr, limit_with_a_burst_of_0_has_none)
{
	expect_expr(kvnft_build_expr_limit(7, 0), "limit", limit_without_burst(7));
}

TEST(nft_expr, limit_takes_the_low_32_bits_of_a_burst)
{
	attributes expected = limit_without_burst(7);
	expected[NFTNL_EXPR_LIMIT_BURST] = host32(5);
	expect_expr(kvnft_build_expr_limit(7, 0x900000005), "limit", expected);
	expected[NFTNL_EXPR_LIMIT_BURST] = host32(0);
	expect_expr(kvnft_build_expr_limit(7, 0x100000000), "limit", expected);
}

attributes dynset(uint32_t op)
{
	return {{NFTNL_EXPR_DYNSET_SREG_KEY, host32(reg)}, {NFTNL_EXPR_DYNSET_OP, host32(op)},
		{NFTNL_EXPR_DYNSET_SET_NAME, text("clients")}, {NFTNL_EXPR_DYNSET_SET_ID, host32(wide)},
		{NFTNL_EXPR_DYNSET_EXPR, ""}};
}

TEST(nft_expr, dynset_that_updates_has_a_timeout_and_its_expression)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	nftnl_expr *e = kvnft_build_expr_dynset(reg, "clients", wide, 0x0102030405060708, true, inner);
	ASSERT_NE(e, nullptr);
	uint32_t length = 0;
	EXPECT_EQ(nftnl_expr_get(e, NFTNL_EXPR_DYNSET_EXPR, &length), inner);
	attributes expected = dynset(1);
	expected[NFTNL_EXPR_DYNSET_TIMEOUT] = host(uint64_t{0x0102030405060708});
	expect_expr(e, "dynset", expected);
}

TEST(nft_expr, dynset_that_adds_with_a_timeout_of_0_has_none)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	expect_expr(kvnft_build_expr_dynset(reg, "clients", wide, 0, false, inner), "dynset", dynset(0));
}

TEST(nft_expr, dynset_has_a_negative_timeout_as_it_is)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	attributes expected = dynset(0);
	expected[NFTNL_EXPR_DYNSET_TIMEOUT] = host(int64_t{-2});
	expect_expr(kvnft_build_expr_dynset(reg, "clients", wide, -2, false, inner), "dynset", expected);
}

TEST(nft_expr, dynset_has_a_set_id_of_0_too)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	attributes expected = dynset(0);
	expected[NFTNL_EXPR_DYNSET_SET_ID] = host32(0);
	expect_expr(kvnft_build_expr_dynset(reg, "clients", 0, 0, false, inner), "dynset", expected);
}

TEST(nft_expr, dynset_releases_its_expression)
{
	int blocks = memory.blocks;
	nftnl_expr *e = kvnft_build_expr_dynset(1, "clients", 7, 0, true, kvnft_build_expr_limit(7, 0));
	EXPECT_EQ(memory.blocks, blocks + 3); // the two, and the name
	nftnl_expr_free(e);
	EXPECT_EQ(memory.blocks, blocks);
}

TEST(nft_expr, dynset_without_a_set_name_is_null_and_leaves_the_expression)
{
	nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
	EXPECT_EQ(kvnft_build_expr_dynset(1, nullptr, 7, 0, true, inner), nullptr);
	expect_expr(inner, "limit", limit_without_burst(7));
}

TEST(nft_expr, dynset_without_an_expression_is_null)
{
	int requests = memory.requests;
	EXPECT_EQ(kvnft_build_expr_dynset(1, "clients", 7, 0, true, nullptr), nullptr);
	EXPECT_EQ(memory.requests, requests);
}

TEST(nft_expr, payload_has_register_base_offset_and_length)
{
	expect_expr(kvnft_build_expr_payload(reg, wide, 0x090a0b0c, 0x0d0e0f10), "payload",
		payload(wide, 0x090a0b0c, 0x0d0e0f10));
}

TEST(nft_expr, payload_that_is_set_has_a_source_register_and_no_checksum)
{
	expect_expr(kvnft_build_expr_payload_set(reg, wide, 0x090a0b0c, 0x0d0e0f10), "payload",
		{{NFTNL_EXPR_PAYLOAD_SREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(wide)},
			{NFTNL_EXPR_PAYLOAD_OFFSET, host32(0x090a0b0c)},
			{NFTNL_EXPR_PAYLOAD_LEN, host32(0x0d0e0f10)}});
}

TEST(nft_expr, log_has_a_group)
{
	expect_expr(kvnft_build_expr_log(0x0102), "log", {{NFTNL_EXPR_LOG_GROUP, host(uint16_t{0x0102})}});
	expect_expr(kvnft_build_expr_log(0), "log", {{NFTNL_EXPR_LOG_GROUP, host(uint16_t{0})}});
}

const attributes meta_read = {{NFTNL_EXPR_META_KEY, host32(wide)}, {NFTNL_EXPR_META_DREG, host32(reg)}};
const attributes meta_write = {{NFTNL_EXPR_META_KEY, host32(wide)}, {NFTNL_EXPR_META_SREG, host32(reg)}};

TEST(nft_expr, meta_has_key_and_destination_register)
{
	expect_expr(kvnft_build_expr_meta(wide, reg), "meta", meta_read);
}

TEST(nft_expr, meta_that_is_set_has_key_and_source_register)
{
	expect_expr(kvnft_build_expr_meta_set(wide, reg), "meta", meta_write);
}

TEST(nft_expr, meta_of_either_kind_is_set_if_told_by_anything_but_0)
{
	expect_expr(_kvnft_build_expr_meta(wide, reg, 0), "meta", meta_read);
	for (int is_set : {1, -1, 0x100, 0x10000})
		expect_expr(_kvnft_build_expr_meta(wide, reg, is_set), "meta", meta_write);
}

TEST(nft_expr, cmp_has_register_operator_and_data)
{
	expect_expr(kvnft_build_expr_cmp(reg, wide, "abc", 3), "cmp",
		{{NFTNL_EXPR_CMP_SREG, host32(reg)}, {NFTNL_EXPR_CMP_OP, host32(wide)},
			{NFTNL_EXPR_CMP_DATA, "abc"}});
}

TEST(nft_expr, cmp_has_an_operator_of_0_too)
{
	expect_expr(kvnft_build_expr_cmp(reg, NFT_CMP_EQ, "abc", 3), "cmp",
		{{NFTNL_EXPR_CMP_SREG, host32(reg)}, {NFTNL_EXPR_CMP_OP, host32(0)},
			{NFTNL_EXPR_CMP_DATA, "abc"}});
}

TEST(nft_expr, redir_has_the_register_of_the_port)
{
	expect_expr(kvnft_build_expr_redir(reg), "redir", {{NFTNL_EXPR_REDIR_REG_PROTO_MIN, host32(reg)}});
}

TEST(nft_expr, masq_is_bare)
{
	expect_expr(kvnft_build_expr_masq(), "masq", {});
}

TEST(nft_expr, queue_has_number_total_and_flags)
{
	expect_expr(kvnft_build_expr_queue(0x0102, 0x0304, 0x0506), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{0x0102})},
			{NFTNL_EXPR_QUEUE_TOTAL, host(uint16_t{0x0304})},
			{NFTNL_EXPR_QUEUE_FLAGS, host(uint16_t{0x0506})}});
}

TEST(nft_expr, queue_has_a_number_of_0_but_no_total_and_no_flags)
{
	expect_expr(kvnft_build_expr_queue(5, 0, 0), "queue", {{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}});
	expect_expr(kvnft_build_expr_queue(0, 0, 0), "queue", {{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{0})}});
}

TEST(nft_expr, queue_may_have_a_total_or_flags_alone)
{
	expect_expr(kvnft_build_expr_queue(5, 2, 0), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}, {NFTNL_EXPR_QUEUE_TOTAL, host(uint16_t{2})}});
	expect_expr(kvnft_build_expr_queue(5, 0, 2), "queue",
		{{NFTNL_EXPR_QUEUE_NUM, host(uint16_t{5})}, {NFTNL_EXPR_QUEUE_FLAGS, host(uint16_t{2})}});
}

TEST(nft_expr, lookup_has_register_set_id_and_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, "clients", wide, 0x090a0b0c), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")},
			{NFTNL_EXPR_LOOKUP_SET_ID, host32(wide)},
			{NFTNL_EXPR_LOOKUP_FLAGS, host32(0x090a0b0c)}});
}

TEST(nft_expr, lookup_by_name_has_no_id_and_no_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, "clients", 0, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")}});
}

TEST(nft_expr, lookup_by_an_empty_name_has_the_name)
{
	expect_expr(kvnft_build_expr_lookup(reg, "", 0, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("")}});
}

TEST(nft_expr, lookup_by_id_has_no_name_and_no_flags)
{
	expect_expr(kvnft_build_expr_lookup(reg, nullptr, 7, 0), "lookup",
		{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET_ID, host32(7)}});
}

TEST(nft_expr, lookup_by_an_id_of_high_bits_only_has_it)
{
	for (uint32_t id : {0x100u, high, 0x80000000u})
		expect_expr(kvnft_build_expr_lookup(reg, nullptr, id, 0), "lookup",
			{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET_ID, host32(id)}});
}

TEST(nft_expr, lookup_with_flags_of_high_bits_only_has_them)
{
	for (uint32_t flags : {0x100u, high, 0x80000000u})
		expect_expr(kvnft_build_expr_lookup(reg, "clients", 0, flags), "lookup",
			{{NFTNL_EXPR_LOOKUP_SREG, host32(reg)}, {NFTNL_EXPR_LOOKUP_SET, text("clients")},
				{NFTNL_EXPR_LOOKUP_FLAGS, host32(flags)}});
}

TEST(nft_expr, lookup_without_name_and_id_is_null_and_asks_for_no_memory)
{
	int requests = memory.requests;
	EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, 0), nullptr);
	EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, NFT_LOOKUP_F_INV), nullptr);
	EXPECT_EQ(memory.requests, requests);
}

TEST(nft_expr, bitwise_has_both_registers_length_mask_and_xor)
{
	expect_expr(kvnft_build_expr_bitwise(reg, wide, 0x090a0b0c, "mask", 4, "xo", 2), "bitwise",
		{{NFTNL_EXPR_BITWISE_SREG, host32(reg)}, {NFTNL_EXPR_BITWISE_DREG, host32(wide)},
			{NFTNL_EXPR_BITWISE_LEN, host32(0x090a0b0c)}, {NFTNL_EXPR_BITWISE_MASK, "mask"},
			{NFTNL_EXPR_BITWISE_XOR, "xo"}});
}

TEST(nft_field, ether_saddr_is_6_bytes_at_6_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_saddr(reg), "payload", payload(0, 6, 6));
}

TEST(nft_field, ether_daddr_is_6_bytes_at_0_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_daddr(reg), "payload", payload(0, 0, 6));
}

TEST(nft_field, ether_type_is_2_bytes_at_12_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_type(reg), "payload", payload(0, 12, 2));
}

TEST(nft_field, ip_daddr_is_4_bytes_at_16_of_the_network_layer)
{
	expect_expr(kvnft_build_expr_ip_daddr(reg), "payload", payload(1, 16, 4));
}

TEST(nft_field, udp_sport_is_2_bytes_at_0_of_the_transport_layer)
{
	expect_expr(kvnft_build_expr_udp_sport(reg), "payload", payload(2, 0, 2));
}

TEST(nft_field, udp_dport_is_2_bytes_at_2_of_the_transport_layer)
{
	expect_expr(kvnft_build_expr_udp_dport(reg), "payload", payload(2, 2, 2));
}

TEST(nft_field, tcp_dport_is_the_same_as_udp_dport)
{
	expect_expr(kvnft_build_expr_tcp_dport(reg), "payload", payload(2, 2, 2));
}

TEST(nft_field, ether_set_daddr_writes_6_bytes_at_0_of_the_link_layer)
{
	expect_expr(kvnft_build_expr_ether_set_daddr(reg), "payload",
		{{NFTNL_EXPR_PAYLOAD_SREG, host32(reg)}, {NFTNL_EXPR_PAYLOAD_BASE, host32(0)},
			{NFTNL_EXPR_PAYLOAD_OFFSET, host32(0)}, {NFTNL_EXPR_PAYLOAD_LEN, host32(6)}});
}

TEST(nft_expr, what_is_passed_need_not_outlive_the_call)
{
	std::string name = "clients", data = "data", mask = "mask";
	owned_expr imm{kvnft_build_expr_imm(1, data.data(), 4)};
	owned_expr cmp{kvnft_build_expr_cmp(1, NFT_CMP_EQ, data.data(), 4)};
	owned_expr bitwise{kvnft_build_expr_bitwise(1, 1, 4, mask.data(), 4, data.data(), 4)};
	owned_expr lookup{kvnft_build_expr_lookup(1, name.c_str(), 0, 0)};
	owned_expr dynamic{
		kvnft_build_expr_dynset(1, name.c_str(), 0, 0, false, kvnft_build_expr_limit(1, 0))};
	name = "another", data = "xxxx", mask = "yyyy";
	EXPECT_EQ(attributes_of(imm.get())[NFTNL_EXPR_IMM_DATA], "data");
	EXPECT_EQ(attributes_of(cmp.get())[NFTNL_EXPR_CMP_DATA], "data");
	EXPECT_EQ(attributes_of(bitwise.get())[NFTNL_EXPR_BITWISE_MASK], "mask");
	EXPECT_EQ(attributes_of(bitwise.get())[NFTNL_EXPR_BITWISE_XOR], "data");
	EXPECT_STREQ(nftnl_expr_get_str(lookup.get(), NFTNL_EXPR_LOOKUP_SET), "clients");
	EXPECT_STREQ(nftnl_expr_get_str(dynamic.get(), NFTNL_EXPR_DYNSET_SET_NAME), "clients");
}

// ---- Data that the kernel's registers do not hold ----

struct data_case {
	nftnl_expr *(*build)(const void *data, uint32_t length);
	uint16_t attribute;
};

const data_case with_data[] = {
	{[](const void *data, uint32_t length) { return kvnft_build_expr_imm(1, data, length); },
		NFTNL_EXPR_IMM_DATA},
	{[](const void *data, uint32_t length) { return kvnft_build_expr_cmp(1, 0, data, length); },
		NFTNL_EXPR_CMP_DATA},
	{[](const void *data, uint32_t length) {
		 return kvnft_build_expr_bitwise(1, 1, 4, data, length, "xor_", 4);
	 },
		NFTNL_EXPR_BITWISE_MASK},
	{[](const void *data, uint32_t length) {
		 return kvnft_build_expr_bitwise(1, 1, 4, "mask", 4, data, length);
	 },
		NFTNL_EXPR_BITWISE_XOR},
};

TEST(nft_expr, data_of_up_to_64_bytes_is_kept_whole)
{
	const std::string all = characters(64);
	for (const data_case &one : with_data)
		for (uint32_t length : {0u, 1u, 16u, 63u, 64u}) {
			owned_expr e{one.build(all.data(), length)};
			ASSERT_TRUE(e);
			EXPECT_EQ(attributes_of(e.get())[one.attribute], all.substr(0, length));
		}
}

TEST(nft_expr, data_of_more_than_64_bytes_is_refused)
{
	const std::string all = characters(65540);
	int blocks = memory.blocks;
	for (const data_case &one : with_data)
		for (uint32_t length : {65u, 68u, 128u, 260u, 65536u, 65540u})
			EXPECT_EQ(one.build(all.data(), length), nullptr) << one.attribute << " " << length;
	for (const data_case &one : with_data)
		EXPECT_EQ(one.build(nullptr, UINT32_MAX), nullptr); // and not looked at
	EXPECT_EQ(memory.blocks, blocks);
}

// ---- Sets ----

attributes attributes_without_id(nftnl_set *made)
{
	owned_set set{made};
	if (!set)
		return {};
	attributes all = attributes_of(set.get());
	EXPECT_EQ(all.erase(NFTNL_SET_ID), 1u);
	return all;
}

TEST(nft_set, ids_of_a_process_start_at_2_and_go_up)
{
	EXPECT_EQ(nftnl_set_get_u32(earliest_sets::first.get(), NFTNL_SET_ID), 2u);
	EXPECT_EQ(nftnl_set_get_u32(earliest_sets::second.get(), NFTNL_SET_ID), 3u);
}

TEST(nft_set, id_is_never_given_again)
{
	uint32_t before = 0;
	for (int i = 0; i < 100; i++) {
		owned_set set{kvnft_build_set("t", "s", NFPROTO_INET, 0, 4)};
		uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);
		EXPECT_TRUE(before == 0 || id == before + 1) << before << " and " << id;
		before = id;
	}
}

TEST(nft_set, built_with_everything_has_everything)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set("t", "clients", reg, wide, 0x090a0b0c)),
		(attributes{{NFTNL_SET_FAMILY, host32(reg)}, {NFTNL_SET_TABLE, text("t")},
			{NFTNL_SET_NAME, text("clients")}, {NFTNL_SET_FLAGS, host32(wide)},
			{NFTNL_SET_KEY_LEN, host32(0x090a0b0c)}}));
}

TEST(nft_set, flags_and_key_length_of_high_bits_only_are_there)
{
	const std::pair<uint16_t, std::string> family{NFTNL_SET_FAMILY, host32(2)};
	for (uint32_t number : {0x100u, high, 0x80000000u}) {
		EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, number, 0)),
			(attributes{family, {NFTNL_SET_FLAGS, host32(number)}}));
		EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, number)),
			(attributes{family, {NFTNL_SET_KEY_LEN, host32(number)}}));
	}
}

TEST(nft_set, built_with_nothing_has_family_and_id_only)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, 0)),
		(attributes{{NFTNL_SET_FAMILY, host32(2)}}));
}

TEST(nft_set, family_of_0_is_there)
{
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 0, 0, 0)),
		(attributes{{NFTNL_SET_FAMILY, host32(0)}}));
}

TEST(nft_set, table_name_flags_and_key_length_come_one_by_one)
{
	const std::pair<uint16_t, std::string> family{NFTNL_SET_FAMILY, host32(2)};
	EXPECT_EQ(attributes_without_id(kvnft_build_set("t", nullptr, 2, 0, 0)),
		(attributes{family, {NFTNL_SET_TABLE, text("t")}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, "s", 2, 0, 0)),
		(attributes{family, {NFTNL_SET_NAME, text("s")}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 1, 0)),
		(attributes{family, {NFTNL_SET_FLAGS, host32(1)}}));
	EXPECT_EQ(attributes_without_id(kvnft_build_set(nullptr, nullptr, 2, 0, 4)),
		(attributes{family, {NFTNL_SET_KEY_LEN, host32(4)}}));
}

TEST(nft_set, names_are_copied)
{
	std::string table = "table", name = "name";
	owned_set set{kvnft_build_set(table.c_str(), name.c_str(), 2, 0, 0)};
	table = "other", name = "else";
	EXPECT_STREQ(nftnl_set_get_str(set.get(), NFTNL_SET_TABLE), "table");
	EXPECT_STREQ(nftnl_set_get_str(set.get(), NFTNL_SET_NAME), "name");
}

// The attributes of an element with this time-out.
attributes element_with(int64_t timeout_ms)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 4)};
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, timeout_ms), 0);
	std::vector<nftnl_set_elem *> elems = elems_of(set.get());
	EXPECT_EQ(elems.size(), 1u);
	return elems.empty() ? attributes{} : attributes_of(elems[0]);
}

TEST(nft_set, element_has_key_and_timeout)
{
	EXPECT_EQ(element_with(0x0102030405060708),
		(attributes{{NFTNL_SET_ELEM_KEY, "abcd"},
			{NFTNL_SET_ELEM_TIMEOUT, host(uint64_t{0x0102030405060708})}}));
}

TEST(nft_set, element_has_a_timeout_of_0)
{
	EXPECT_EQ(element_with(0),
		(attributes{{NFTNL_SET_ELEM_KEY, "abcd"}, {NFTNL_SET_ELEM_TIMEOUT, host(uint64_t{0})}}));
}

TEST(nft_set, element_with_a_negative_timeout_has_none)
{
	EXPECT_EQ(element_with(-1), (attributes{{NFTNL_SET_ELEM_KEY, "abcd"}}));
	EXPECT_EQ(element_with(INT64_MIN), (attributes{{NFTNL_SET_ELEM_KEY, "abcd"}}));
}

TEST(nft_set, elements_stay_in_order_with_copied_keys)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 4)};
	std::string key = "key0";
	for (key[3] = '0'; key[3] <= '9'; key[3]++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), key.data(), 4, -1), 0);
	std::string order;
	for (nftnl_set_elem *elem : elems_of(set.get()))
		order += attributes_of(elem)[NFTNL_SET_ELEM_KEY][3];
	EXPECT_EQ(order, "0123456789");
}

TEST(nft_set, element_key_has_up_to_64_bytes)
{
	const std::string all = characters(64);
	for (uint32_t length : {1u, 16u, 63u, 64u}) {
		owned_set set{kvnft_build_set("t", "s", 2, 0, length)};
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), all.data(), length, -1), 0);
		EXPECT_EQ(attributes_of(elems_of(set.get())[0])[NFTNL_SET_ELEM_KEY], all.substr(0, length));
	}
}

TEST(nft_set, element_with_a_longer_key_is_refused_and_not_added)
{
	const std::string all = characters(65540);
	owned_set set{kvnft_build_set("t", "s", 2, 0, 65)};
	int blocks = memory.blocks;
	for (uint32_t length : {65u, 68u, 260u, 1000u, 65536u, 65540u})
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), all.data(), length, 1), -ENOMEM);
	EXPECT_EQ(kvnft_build_set_add_elem(set.get(), nullptr, UINT32_MAX, 1), -ENOMEM);
	EXPECT_EQ(memory.blocks, blocks);
	EXPECT_TRUE(elems_of(set.get()).empty());
}

// ---- Tables and rules ----

TEST(nft_table, has_family_and_name)
{
	owned<nftnl_table> table{kvnft_build_table("guest", reg)};
	ASSERT_TRUE(table);
	EXPECT_EQ(attributes_of(table.get()),
		(attributes{{NFTNL_TABLE_FAMILY, host32(reg)}, {NFTNL_TABLE_NAME, text("guest")}}));
}

TEST(nft_rule, has_family_table_and_chain)
{
	owned_rule rule{kvnft_build_rule(reg, "t", "c")};
	ASSERT_TRUE(rule);
	EXPECT_EQ(attributes_of(rule.get()),
		(attributes{{NFTNL_RULE_FAMILY, host32(reg)}, {NFTNL_RULE_TABLE, text("t")},
			{NFTNL_RULE_CHAIN, text("c")}}));
	EXPECT_TRUE(exprs_of(rule.get()).empty());
}

TEST(nft_rule, without_a_chain_has_none)
{
	owned_rule rule{kvnft_build_rule(2, "t", nullptr)};
	ASSERT_TRUE(rule);
	EXPECT_EQ(attributes_of(rule.get()),
		(attributes{{NFTNL_RULE_FAMILY, host32(2)}, {NFTNL_RULE_TABLE, text("t")}}));
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

TEST(nft_rule, setting_the_mark_goes_by_register_1_in_host_order)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_set_mark(rule.get(), 0x0a0b0c0d), 0);
	EXPECT_EQ(rule.exprs(),
		(exprs{{"immediate",
			       {{NFTNL_EXPR_IMM_DREG, host32(1)}, {NFTNL_EXPR_IMM_DATA, host32(0x0a0b0c0d)}}},
			{"meta", {{NFTNL_EXPR_META_KEY, host32(3)}, {NFTNL_EXPR_META_SREG, host32(1)}}}}));
}

TEST(nft_rule, rejecting_appends_a_reject)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_reject(rule.get(), 0, 3), 0);
	EXPECT_EQ(kvnft_rule_reject(rule.get(), 2, 3), 0);
	EXPECT_EQ(rule.exprs(), (exprs{{"reject", {{NFTNL_EXPR_REJECT_TYPE, host32(0)}}},
					{"reject", {{NFTNL_EXPR_REJECT_TYPE, host32(2)},
							   {NFTNL_EXPR_REJECT_CODE, "\x03"}}}}));
}

attributes verdict(uint32_t code)
{
	return {{NFTNL_EXPR_IMM_DREG, host32(0)}, {NFTNL_EXPR_IMM_VERDICT, host32(code)}};
}

TEST(nft_rule, verdict_is_appended)
{
	test_rule rule;
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), NF_ACCEPT), 0);
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), NF_DROP), 0);
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), 255), 0);
	EXPECT_EQ(rule.exprs(),
		(exprs{{"immediate", verdict(1)}, {"immediate", verdict(0)}, {"immediate", verdict(255)}}));
}

TEST(nft_rule, verdict_is_its_low_8_bits)
{
	test_rule rule;
	int accept_and_more = 0x7f01;
	EXPECT_EQ(kvnft_rule_verdict(rule.get(), static_cast<uint8_t>(accept_and_more)), 0);
	EXPECT_EQ(rule.exprs(), (exprs{{"immediate", verdict(1)}}));
}

// ---- The order in which attributes are set ----

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

// ---- Messages ----

// What an expression becomes: its name, and its attributes nested.
std::string expr_bytes(uint16_t type, const std::string &name, const std::string &data)
{
	return nest(type, attribute(1, text(name)) + nest(2, data)); // NFTA_EXPR_NAME, NFTA_EXPR_DATA
}

// Holds a rule with one expression, released here, to its bytes.
void expect_bytes(nftnl_expr *made, const std::string &name, const std::string &data)
{
	ASSERT_NE(made, nullptr);
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	nftnl_rule_add_expr(rule.get(), made);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	std::string expected = change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
		attribute(1, text("t")) + attribute(2, text("c")) + // NFTA_RULE_TABLE, _CHAIN
			nest(4, expr_bytes(1, name, data)));        // NFTA_RULE_EXPRESSIONS, NFTA_LIST_ELEM
	EXPECT_EQ(canonical(sent), canonical(expected));
}

// NFTA_DATA_VALUE
std::string value(uint16_t type, const std::string &data)
{
	return nest(type, attribute(1, data));
}

TEST(nft_bytes, expected_ones_are_written_rightly)
{
	EXPECT_EQ(be32(1, 0x0a0b0c0d).substr(4), "\x0a\x0b\x0c\x0d");
	EXPECT_EQ(be16(1, 0x0102).substr(4), std::string("\x01\x02\0\0", 4));
	EXPECT_EQ(be64(1, 0x0102030405060708).substr(4), "\x01\x02\x03\x04\x05\x06\x07\x08");
	uint16_t length = 0, type = 0;
	memcpy(&length, nest(3, be16(1, 2)).data(), 2);
	memcpy(&type, nest(3, be16(1, 2)).data() + 2, 2);
	EXPECT_EQ(length, 12);
	EXPECT_EQ(type, NLA_F_NESTED | 3);
	EXPECT_EQ(begin_message(5).size(), 20u);
	EXPECT_EQ(begin_message(5).substr(16), std::string("\0\0\0\x0a", 4));
}

TEST(nft_bytes, ct)
{
	expect_bytes(kvnft_build_expr_ct(reg, 3), "ct", be32(1, reg) + be32(2, 3));
}

TEST(nft_bytes, reject_with_code)
{
	expect_bytes(kvnft_build_expr_reject(2, 3), "reject", be32(1, 2) + attribute(2, "\x03"));
}

TEST(nft_bytes, reject_without_code)
{
	expect_bytes(kvnft_build_expr_reject(1, 3), "reject", be32(1, 1));
}

TEST(nft_bytes, verdict)
{
	// NFTA_IMMEDIATE_DATA, NFTA_DATA_VERDICT, NFTA_VERDICT_CODE
	expect_bytes(
		kvnft_build_expr_verdict(NF_ACCEPT), "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 1))));
	expect_bytes(kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_RETURN)), "immediate",
		be32(1, 0) + nest(2, nest(2, be32(1, 0xfffffffb))));
}

TEST(nft_bytes, immediate)
{
	expect_bytes(kvnft_build_expr_imm(reg, "abcde", 5), "immediate", be32(1, reg) + value(2, "abcde"));
}

TEST(nft_bytes, limit)
{
	expect_bytes(kvnft_build_expr_limit(0x0102030405060708, 0x0a0b0c0d), "limit",
		be64(1, 0x0102030405060708) + be64(2, 1) + be32(3, 0x0a0b0c0d) + be32(4, 1) + be32(5, 1));
}

TEST(nft_bytes, limit_without_burst)
{
	expect_bytes(
		kvnft_build_expr_limit(7, 0), "limit", be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1));
}

TEST(nft_bytes, dynset)
{
	std::string limit = be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1);
	expect_bytes(kvnft_build_expr_dynset(
			     reg, "clients", 0x0a0b, 0x0102030405060708, true, kvnft_build_expr_limit(7, 0)),
		"dynset",
		attribute(1, text("clients")) + be32(2, 0x0a0b) + be32(3, 1) + be32(4, reg) +
			be64(6, 0x0102030405060708) + expr_bytes(7, "limit", limit));
}

TEST(nft_bytes, dynset_without_timeout)
{
	std::string limit = be64(1, 7) + be64(2, 1) + be32(4, 1) + be32(5, 1);
	expect_bytes(kvnft_build_expr_dynset(reg, "clients", 5, 0, false, kvnft_build_expr_limit(7, 0)),
		"dynset",
		attribute(1, text("clients")) + be32(2, 5) + be32(3, 0) + be32(4, reg) +
			expr_bytes(7, "limit", limit));
}

TEST(nft_bytes, payload)
{
	expect_bytes(kvnft_build_expr_payload(reg, 2, 0x0506, 0x0708), "payload",
		be32(1, reg) + be32(2, 2) + be32(3, 0x0506) + be32(4, 0x0708));
}

TEST(nft_bytes, payload_set)
{
	expect_bytes(kvnft_build_expr_payload_set(reg, 2, 0x0506, 0x0708), "payload",
		be32(2, 2) + be32(3, 0x0506) + be32(4, 0x0708) + be32(5, reg));
}

TEST(nft_bytes, fields_of_headers)
{
	const struct {
		nftnl_expr *(*build)(uint32_t);
		uint32_t base, offset, length;
	} fields[] = {
		{kvnft_build_expr_ether_saddr, 0, 6, 6},
		{kvnft_build_expr_ether_daddr, 0, 0, 6},
		{kvnft_build_expr_ether_type, 0, 12, 2},
		{kvnft_build_expr_ip_daddr, 1, 16, 4},
		{kvnft_build_expr_udp_sport, 2, 0, 2},
		{kvnft_build_expr_udp_dport, 2, 2, 2},
		{kvnft_build_expr_tcp_dport, 2, 2, 2},
	};
	for (const auto &field : fields)
		expect_bytes(field.build(1), "payload",
			be32(1, 1) + be32(2, field.base) + be32(3, field.offset) + be32(4, field.length));
	expect_bytes(kvnft_build_expr_ether_set_daddr(1), "payload",
		be32(2, 0) + be32(3, 0) + be32(4, 6) + be32(5, 1));
}

TEST(nft_bytes, log)
{
	expect_bytes(kvnft_build_expr_log(0x0102), "log", be16(1, 0x0102));
}

TEST(nft_bytes, meta)
{
	expect_bytes(kvnft_build_expr_meta(NFT_META_MARK, reg), "meta", be32(1, reg) + be32(2, 3));
}

TEST(nft_bytes, meta_set)
{
	expect_bytes(kvnft_build_expr_meta_set(NFT_META_MARK, reg), "meta", be32(2, 3) + be32(3, reg));
}

TEST(nft_bytes, cmp)
{
	expect_bytes(kvnft_build_expr_cmp(reg, NFT_CMP_NEQ, "abcdef", 6), "cmp",
		be32(1, reg) + be32(2, 1) + value(3, "abcdef"));
}

TEST(nft_bytes, redir)
{
	expect_bytes(kvnft_build_expr_redir(reg), "redir", be32(1, reg));
}

TEST(nft_bytes, masq)
{
	expect_bytes(kvnft_build_expr_masq(), "masq", "");
}

TEST(nft_bytes, queue)
{
	expect_bytes(kvnft_build_expr_queue(0x0102, 0x0304, 0x0506), "queue",
		be16(1, 0x0102) + be16(2, 0x0304) + be16(3, 0x0506));
	expect_bytes(kvnft_build_expr_queue(5, 0, 0), "queue", be16(1, 5));
}

TEST(nft_bytes, lookup)
{
	expect_bytes(kvnft_build_expr_lookup(reg, "clients", 0x0a0b, 1), "lookup",
		attribute(1, text("clients")) + be32(2, reg) + be32(4, 0x0a0b) + be32(5, 1));
	expect_bytes(kvnft_build_expr_lookup(reg, "clients", 0, 0), "lookup",
		attribute(1, text("clients")) + be32(2, reg));
	expect_bytes(kvnft_build_expr_lookup(reg, nullptr, 7, 0), "lookup", be32(2, reg) + be32(4, 7));
}

TEST(nft_bytes, bitwise)
{
	expect_bytes(kvnft_build_expr_bitwise(reg, 0x0506, 4, "mask", 4, "xor_", 4), "bitwise",
		be32(1, reg) + be32(2, 0x0506) + be32(3, 4) + value(4, "mask") + value(5, "xor_"));
}

TEST(nft_bytes, data_of_64_bytes)
{
	const std::string all = characters(64);
	expect_bytes(kvnft_build_expr_imm(1, all.data(), 64), "immediate", be32(1, 1) + value(2, all));
	expect_bytes(
		kvnft_build_expr_cmp(1, 0, all.data(), 64), "cmp", be32(1, 1) + be32(2, 0) + value(3, all));
	expect_bytes(kvnft_build_expr_bitwise(1, 2, 64, all.data(), 64, all.data(), 64), "bitwise",
		be32(1, 1) + be32(2, 2) + be32(3, 64) + value(4, all) + value(5, all));
}

std::string mark_bytes(uint32_t op, uint32_t mark)
{
	return attribute(1, text("t")) + attribute(2, text("c")) +
	       nest(4, expr_bytes(1, "meta", be32(1, 1) + be32(2, 3)) +
			       expr_bytes(1, "cmp", be32(1, 1) + be32(2, op) + value(3, host32(mark))) +
			       expr_bytes(1, "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 1)))));
}

TEST(nft_bytes, rule_that_accepts_a_mark)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_accept_mark(batch, NFPROTO_BRIDGE, "t", "c", 0x0a0b0c0d, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 7, mark_bytes(0, 0x0a0b0c0d))));
}

TEST(nft_bytes, rule_that_accepts_all_but_a_mark)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_accept_mark_neq(batch, NFPROTO_INET, "t", "c", 5, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1, mark_bytes(1, 5))));
}

TEST(nft_bytes, rule_with_helpers)
{
	test_rule rule;
	kvnft_rule_set_mark(rule.get(), 0x0a0b0c0d);
	kvnft_rule_reject(rule.get(), 2, 1);
	kvnft_rule_verdict(rule.get(), NF_DROP);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	std::string list = expr_bytes(1, "immediate", be32(1, 1) + value(2, host32(0x0a0b0c0d))) +
			   expr_bytes(1, "meta", be32(2, 3) + be32(3, 1)) +
			   expr_bytes(1, "reject", be32(1, 2) + attribute(2, "\x01")) +
			   expr_bytes(1, "immediate", be32(1, 0) + nest(2, nest(2, be32(1, 0))));
	EXPECT_EQ(
		canonical(sent), canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
					 attribute(1, text("t")) + attribute(2, text("c")) + nest(4, list))));
}

TEST(nft_bytes, rule_without_expressions)
{
	test_rule rule;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(6, REQUEST | ACK | CREATE | APPEND, 9, 1,
					   attribute(1, text("t")) + attribute(2, text("c")))));
}

// A set with two elements, and what becomes of it: NFTA_SET_..., and NFTA_SET_ELEM_LIST_... for its elements.
struct test_set {
	owned_set set{kvnft_build_set("t", "clients", NFPROTO_BRIDGE, 0x11, 6)};
	uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);

	test_set()
	{
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcdef", 6, 0x0102030405060708), 0);
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "uvwxyz", 6, -1), 0);
	}
	nftnl_set *get() const { return set.get(); }
	std::string bytes() const
	{
		return attribute(1, text("t")) + attribute(2, text("clients")) + be32(3, 0x11) + be32(5, 6) +
		       be32(10, id);
	}
	std::string elem_bytes() const
	{
		std::string first = value(1, "abcdef") + be64(4, 0x0102030405060708);
		return attribute(1, text("t")) + attribute(2, text("clients")) + be32(4, id) +
		       nest(3, nest(1, first) + nest(2, value(1, "uvwxyz")));
	}
};

TEST(nft_bytes, set_that_is_added)
{
	test_set set;
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 7, set.bytes())));
}

TEST(nft_bytes, set_that_is_deleted)
{
	test_set set;
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_del_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(11, REQUEST | ACK, 9, 7, set.bytes())));
}

TEST(nft_bytes, bare_set)
{
	owned_set set{kvnft_build_set(nullptr, nullptr, 2, 0, 0)};
	uint32_t id = nftnl_set_get_u32(set.get(), NFTNL_SET_ID);
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 2, be32(10, id))));
}

TEST(nft_bytes, set_with_types_of_the_callers)
{
	test_set set;
	nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, 9);
	nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, 60000);
	std::string sent =
		message_of([&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(9, REQUEST | ACK | CREATE, 9, 7,
					   set.bytes() + be32(4, 9) + be64(11, 60000))));
}

TEST(nft_bytes, elements_that_are_added)
{
	test_set set;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(12, REQUEST | ACK | CREATE, 9, 7, set.elem_bytes())));
}

TEST(nft_bytes, elements_that_are_deleted)
{
	test_set set;
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_del_set_elem(batch, set.get(), 9); });
	EXPECT_EQ(canonical(sent), canonical(change(14, REQUEST | ACK, 9, 7, set.elem_bytes())));
}

TEST(nft_bytes, element_with_a_timeout_of_0)
{
	owned_set set{kvnft_build_set("t", "s", 2, 0, 64)};
	ASSERT_EQ(kvnft_build_set_add_elem(set.get(), characters(64).data(), 64, 0), 0);
	std::string sent = message_of(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 9); });
	std::string expected = attribute(1, text("t")) + attribute(2, text("s")) +
			       be32(4, nftnl_set_get_u32(set.get(), NFTNL_SET_ID)) +
			       nest(3, nest(1, value(1, characters(64)) + be64(4, 0)));
	EXPECT_EQ(canonical(sent), canonical(change(12, REQUEST | ACK | CREATE, 9, 2, expected)));
}

TEST(nft_bytes, table_that_is_added)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_table_simple(batch, "guest", NFPROTO_NETDEV, 9);
	});
	EXPECT_EQ(canonical(sent),
		canonical(change(0, REQUEST | ACK | CREATE, 9, 5, attribute(1, text("guest")))));
}

TEST(nft_bytes, table_that_is_deleted)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_del_table_simple(batch, "guest", NFPROTO_ARP, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(2, REQUEST | ACK, 9, 3, attribute(1, text("guest")))));
}

std::string chain_message(const char *type, int32_t hooknum, int32_t prio, const char *dev)
{
	return message_of([=](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_chain_simple(
			batch, "chain", "table", type, hooknum, NFPROTO_IPV4, prio, dev, 9);
	});
}

// NFTA_CHAIN_TABLE, NFTA_CHAIN_NAME, and more
std::string chain_bytes(const std::string &more)
{
	return change(3, REQUEST | ACK | CREATE, 9, 2,
		attribute(1, text("table")) + attribute(3, text("chain")) + more);
}

TEST(nft_bytes, base_chain_on_a_device)
{
	// NFTA_CHAIN_HOOK with number, priority and device; NFTA_CHAIN_TYPE
	EXPECT_EQ(canonical(chain_message("filter", 3, -200, "eth0")),
		canonical(chain_bytes(nest(4, be32(1, 3) + be32(2, 0xffffff38) + attribute(3, text("eth0"))) +
				      attribute(7, text("filter")))));
}

TEST(nft_bytes, base_chain_at_hook_0)
{
	EXPECT_EQ(canonical(chain_message("nat", 0, 0x0a0b0c0d, nullptr)),
		canonical(
			chain_bytes(nest(4, be32(1, 0) + be32(2, 0x0a0b0c0d)) + attribute(7, text("nat")))));
}

TEST(nft_bytes, base_chain_without_a_type)
{
	EXPECT_EQ(canonical(chain_message(nullptr, 1, 0, nullptr)),
		canonical(chain_bytes(nest(4, be32(1, 1) + be32(2, 0)))));
}

TEST(nft_bytes, regular_chain)
{
	EXPECT_EQ(canonical(chain_message(nullptr, -1, 7, nullptr)), canonical(chain_bytes("")));
	EXPECT_EQ(canonical(chain_message(nullptr, INT32_MIN, 7, nullptr)), canonical(chain_bytes("")));
}

TEST(nft_chain, regular_one_is_given_its_priority_all_the_same)
{
	seen.priorities = 0;
	chain_message(nullptr, -1, 7, nullptr);
	EXPECT_EQ(seen.priorities, 1);
	EXPECT_EQ(seen.priority, 7);
}

TEST(nft_bytes, flush_of_a_chain)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_flush_chain_simple(batch, "chain", "table", NFPROTO_IPV6, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(8, REQUEST | ACK, 9, 10,
					   attribute(1, text("table")) + attribute(2, text("chain")))));
}

TEST(nft_bytes, flush_of_a_table)
{
	std::string sent = message_of([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_flush_table_simple(batch, "table", NFPROTO_IPV6, 9);
	});
	EXPECT_EQ(canonical(sent), canonical(change(8, REQUEST | ACK, 9, 10, attribute(1, text("table")))));
}

// ---- Every function that appends a message ----

struct append_case {
	const char *name;
	std::function<int(mnl_nlmsg_batch *batch, uint32_t seq)> append;
};

// Each with the shortest names there are, of a family with more bits than fit anywhere.
class nft_append : public testing::Test
{
protected:
	const uint32_t family = 0x01020307;
	owned_set set{kvnft_build_set("t", "s", family, 0, 4)};
	owned_rule rule{kvnft_build_rule(family, "t", "c")};
	std::vector<append_case> cases = {
		{"add_set",
			[this](auto *batch, auto seq) { return kvnft_batch_add_set(batch, set.get(), seq); }},
		{"del_set",
			[this](auto *batch, auto seq) { return kvnft_batch_del_set(batch, set.get(), seq); }},
		{"add_set_elem",
			[this](auto *batch, auto seq) {
				return kvnft_batch_add_set_elem(batch, set.get(), seq);
			}},
		{"del_set_elem",
			[this](auto *batch, auto seq) {
				return kvnft_batch_del_set_elem(batch, set.get(), seq);
			}},
		{"add_rule", [this](auto *batch,
				     auto seq) { return kvnft_batch_add_rule(batch, rule.get(), seq); }},
		{"add_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_add_table_simple(batch, "t", family, seq);
			}},
		{"del_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_del_table_simple(batch, "t", family, seq);
			}},
		{"add_chain_simple",
			[](auto *batch, auto seq) {
				return kvnft_batch_add_chain_simple(
					batch, "c", "t", "filter", 1, 0x0307, 0, "e", seq);
			}},
		{"flush_chain_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_flush_chain_simple(batch, "c", "t", family, seq);
			}},
		{"flush_table_simple",
			[this](auto *batch, auto seq) {
				return kvnft_batch_flush_table_simple(batch, "t", family, seq);
			}},
		{"accept_mark",
			[this](auto *batch, auto seq) {
				return kvnft_batch_accept_mark(batch, family, "t", "c", 5, seq);
			}},
		{"accept_mark_neq",
			[this](auto *batch, auto seq) {
				return kvnft_batch_accept_mark_neq(batch, family, "t", "c", 5, seq);
			}},
		{"finish", [](auto *batch, auto seq) { return kvnft_batch_finish(batch, seq); }},
	};
	nft_append() { EXPECT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, 1), 0); }
};

TEST_F(nft_append, sequence_number_is_the_callers)
{
	for (const append_case &one : cases)
		for (uint32_t seq : {0u, 0x01020304u, UINT32_MAX}) {
			std::string sent =
				message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, seq); });
			EXPECT_EQ(sent.substr(8, 4), host32(seq)) << one.name;
		}
}

TEST_F(nft_append, family_is_its_low_8_bits)
{
	for (const append_case &one : cases) {
		std::string sent = message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, 0); });
		EXPECT_EQ(sent[16], strcmp(one.name, "finish") == 0 ? 0 : 7) << one.name;
	}
}

TEST_F(nft_append, messages_come_one_behind_the_other)
{
	test_batch batch;
	std::vector<std::string> alone;
	for (const append_case &one : cases) {
		ASSERT_EQ(one.append(batch.get(), 9), 0) << one.name;
		alone.push_back(canonical(
			message_of([&](mnl_nlmsg_batch *another) { return one.append(another, 9); })));
	}
	std::vector<std::string> together;
	for (const std::string &each : batch.messages())
		together.push_back(canonical(each));
	EXPECT_EQ(together, alone);
}

TEST_F(nft_append, full_batch_is_reported_and_stays_as_it_is)
{
	for (const append_case &one : cases) {
		test_batch batch(20);
		for (int turn = 0; turn < 2; turn++) {
			EXPECT_EQ(one.append(batch.get(), 9), -ENOMEM) << one.name;
			EXPECT_EQ(hex(batch.bytes()), hex(begin_message(0))) << one.name;
		}
	}
}

TEST_F(nft_append, message_fits_up_to_the_last_byte)
{
	for (const append_case &one : cases) {
		size_t length =
			message_of([&](mnl_nlmsg_batch *batch) { return one.append(batch, 9); }).size();
		test_batch short_by_one(20 + length - 1), sufficient(20 + length);
		EXPECT_EQ(one.append(short_by_one.get(), 9), -ENOMEM) << one.name;
		EXPECT_EQ(short_by_one.size(), 20u);
		EXPECT_EQ(one.append(sufficient.get(), 9), 0) << one.name;
		EXPECT_EQ(sufficient.size(), 20 + length);
		EXPECT_EQ(one.append(sufficient.get(), 9), -ENOMEM) << one.name;
		EXPECT_EQ(sufficient.size(), 20 + length);
	}
}

TEST_F(nft_append, objects_can_be_appended_again_and_released_before_sending)
{
	test_batch batch;
	ASSERT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	ASSERT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	ASSERT_EQ(kvnft_batch_add_set(batch.get(), set.get(), 2), 0);
	ASSERT_EQ(kvnft_batch_del_set(batch.get(), set.get(), 3), 0);
	rule.reset();
	set.reset();
	std::vector<std::string> appended = batch.messages();
	ASSERT_EQ(appended.size(), 4u);
	EXPECT_EQ(canonical(appended[0]), canonical(appended[1]));
}

TEST_F(nft_append, message_of_an_object_asks_for_no_memory)
{
	test_batch batch;
	int requests = memory.requests;
	for (size_t i = 0; i < 5; i++)
		ASSERT_EQ(cases[i].append(batch.get(), 9), 0) << cases[i].name;
	ASSERT_EQ(kvnft_batch_finish(batch.get(), 9), 0);
	EXPECT_EQ(memory.requests, requests);
}

// ---- Batches ----

TEST(nft_batch, begins_with_the_message_that_begins_a_transaction)
{
	for (uint32_t seq : {0u, 0x01020304u, UINT32_MAX}) {
		test_batch batch(4096, seq);
		EXPECT_EQ(hex(batch.bytes()), hex(begin_message(seq)));
	}
}

TEST(nft_batch, ends_with_the_message_that_ends_a_transaction)
{
	test_batch batch(4096, 7);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 0x0a0b0c0d), 0);
	EXPECT_EQ(hex(batch.bytes()), hex(begin_message(7) + end_message(0x0a0b0c0d)));
}

TEST(nft_batch, with_too_small_a_limit_is_null)
{
	for (size_t limit : {0, 1, 16, 19}) {
		owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
		int blocks = memory.blocks;
		EXPECT_EQ(kvnft_batch_alloc_start(buf.get(), limit, 0), nullptr) << limit;
		EXPECT_EQ(memory.blocks, blocks);
	}
}

TEST(nft_batch, with_room_for_its_beginning_only_starts_and_cannot_be_finished)
{
	test_batch batch(20);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 1), -ENOMEM);
	EXPECT_EQ(hex(batch.bytes()), hex(begin_message(0)));
}

TEST(nft_batch, message_that_does_not_fit_leaves_what_is_there_and_a_shorter_one_fits)
{
	const std::string longer = characters(50);
	std::string short_message = change(0, REQUEST | ACK | CREATE, 2, 1, attribute(1, text("t")));
	test_batch batch(20 + short_message.size() + 20);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), longer.c_str(), NFPROTO_INET, 1), -ENOMEM);
	EXPECT_EQ(batch.size(), 20u);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 3), -ENOMEM);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 4), 0);
	std::vector<std::string> appended = batch.messages();
	ASSERT_EQ(appended.size(), 2u);
	EXPECT_EQ(canonical(appended[0]), canonical(short_message));
	EXPECT_EQ(canonical(appended[1]), canonical(end_message(4)));
}

TEST(nft_batch, full_one_cannot_be_finished)
{
	std::string one = change(0, REQUEST | ACK | CREATE, 1, 1, attribute(1, text("t")));
	for (size_t missing : {1, 20}) {
		test_batch batch(20 + one.size() + 20 - missing);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), -ENOMEM);
		ASSERT_EQ(batch.messages().size(), 1u);
		EXPECT_EQ(canonical(batch.messages()[0]), canonical(one));
	}
}

TEST(nft_batch, fills_up_to_its_limit)
{
	test_batch batch(4096);
	int added = 0;
	while (kvnft_batch_add_table_simple(batch.get(), "table", NFPROTO_INET, 1) == 0)
		added++;
	EXPECT_EQ(added, (4096 - 20) / 32);
	EXPECT_EQ(batch.messages().size(), static_cast<size_t>(added));
}

TEST(nft_batch, buffer_stays_the_callers)
{
	const size_t limit = 4096;
	owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
	int blocks = memory.blocks;
	mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf.get(), limit, 0);
	EXPECT_GT(memory.blocks, blocks);
	EXPECT_EQ(mnl_nlmsg_batch_head(batch), buf.get());
	kvnft_batch_free(batch);
	EXPECT_EQ(memory.blocks, blocks);
	EXPECT_EQ(hex(std::string(buf.get(), 20)), hex(begin_message(0)));
}

// ---- What a call sends ----

// What is sent by a call that meets a namespace without tables.
void expect_sent(const std::function<int()> &call, const std::vector<std::string> &expected)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([&] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		EXPECT_EQ(call(), -ENOENT);
		std::vector<std::string> sent, wanted;
		for (const std::string &each : split({seen.sent, seen.sent_length}))
			sent.push_back(canonical(each));
		for (const std::string &each : expected)
			wanted.push_back(canonical(each));
		EXPECT_EQ(sent, wanted);
	});
}

TEST(nft_send, batch_goes_out_without_the_message_that_did_not_fit)
{
	std::string kept = change(2, REQUEST | ACK, 1, 1, attribute(1, text("t")));
	expect_sent(
		[&] {
			test_batch batch(20 + kept.size() + 20);
			EXPECT_EQ(kvnft_batch_del_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
			EXPECT_EQ(kvnft_batch_del_table_simple(
					  batch.get(), characters(100).c_str(), NFPROTO_INET, 2),
				-ENOMEM);
			EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
			return kvnft_batch_send(batch.get());
		},
		{begin_message(0), kept, end_message(3)});
}

TEST(nft_send, flush_of_a_chain_is_a_transaction)
{
	expect_sent([] { return kvnft_flush_chain_simple("chain", "table", NFPROTO_IPV4); },
		{begin_message(0),
			change(8, REQUEST | ACK, 1, 2,
				attribute(1, text("table")) + attribute(2, text("chain"))),
			end_message(2)});
}

TEST(nft_send, flush_of_a_table_is_a_transaction)
{
	expect_sent([] { return kvnft_flush_table_simple("table", NFPROTO_IPV4); },
		{begin_message(0), change(8, REQUEST | ACK, 1, 2, attribute(1, text("table"))),
			end_message(2)});
}

TEST(nft_send, deletion_of_a_table_is_a_transaction)
{
	expect_sent([] { return kvnft_del_table_simple("table", NFPROTO_IPV4); },
		{begin_message(0), change(2, REQUEST | ACK, 1, 2, attribute(1, text("table"))),
			end_message(2)});
}

TEST(nft_send, deletion_of_a_chain_is_a_transaction)
{
	expect_sent([] { return kvnft_del_chain_simple("chain", "table", NFPROTO_IPV4); },
		{begin_message(0),
			change(5, REQUEST | ACK, 1, 2,
				attribute(1, text("table")) + attribute(3, text("chain"))),
			end_message(2)});
}

TEST(nft_send, chain_to_be_deleted_has_a_priority_of_all_ones)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		seen.priorities = 0;
		EXPECT_EQ(kvnft_del_chain_simple("chain", "table", NFPROTO_IPV4), -ENOENT);
		EXPECT_EQ(seen.priorities, 1);
		EXPECT_EQ(seen.priority, -1);
	});
}

// libmnl leaves gaps behind texts as they are.
TEST(nft_send, whole_change_has_zeros_where_nothing_is_written)
{
	skip_if_emulated(no_netfilter);
	expect_in_child([] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		EXPECT_EQ(kvnft_del_table_simple("ab", NFPROTO_INET), -ENOENT);
		std::vector<std::string> sent = split({seen.sent, seen.sent_length});
		ASSERT_EQ(sent.size(), 3u);
		EXPECT_EQ(sent[1].substr(24), std::string("ab\0\0", 4));
	});
}

TEST(nft_send, change_that_is_too_large_is_refused_and_nothing_is_sent)
{
	const std::string huge =
		characters(room - 63); // 63 less are 20 of the begin, 24 of headers, 20 of the end
	seen.sent_length = 0;
	EXPECT_EQ(kvnft_flush_chain_simple(huge.c_str(), "t", NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_flush_chain_simple("c", huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_flush_table_simple(huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_table_simple(huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_chain_simple(huge.c_str(), "t", NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(kvnft_del_chain_simple("c", huge.c_str(), NFPROTO_INET), -ENOMEM);
	EXPECT_EQ(seen.sent_length, 0u);
}

// ---- Long messages ----

constexpr size_t ample = 1 << 19; // for the longest message that there can be, and more

// Appends to a batch with space for `bytes` of messages. Returns what has been appended; empty if it is refused.
std::string appended_within(size_t bytes, const std::function<int(mnl_nlmsg_batch *)> &append)
{
	test_batch batch(20 + bytes); // looks at its guards
	std::string before = batch.buffer();
	int error = append(batch.get());
	if (error == 0)
		return batch.bytes().substr(20);
	EXPECT_EQ(error, -ENOMEM);
	EXPECT_EQ(batch.size(), 20u);
	EXPECT_TRUE(bytes != ample || batch.buffer() == before) << "written though nothing could be appended";
	return "";
}

// The message that is accepted wherever there is space for it, to the last byte, and nowhere else. Empty: it is
// refused whatever the space.
std::string message_that_fits(const std::function<int(mnl_nlmsg_batch *)> &append)
{
	std::string message = appended_within(ample, append);
	if (message.empty())
		return message;
	EXPECT_EQ(appended_within(message.size(), append).size(), message.size());
	EXPECT_EQ(appended_within(message.size() - 1, append).size(), 0u) << message.size();
	EXPECT_EQ(appended_within(0, append).size(), 0u) << message.size();
	return message;
}

// Appends with texts, or data, of growing length. Whatever the length, no byte may be out of bounds; up to
// `length_max`, which is what 16 bits can say of the attribute and all that it is nested in, it must be accepted.
void expect_accepted_up_to(
	size_t length_max, const std::function<int(mnl_nlmsg_batch *, const std::string &text)> &append)
{
	const std::string all = characters(200000);
	std::vector<size_t> lengths = {1, 2, 3, 4, 5, 2000, 10000, 60000, length_max - 1, length_max,
		length_max + 1, length_max + 2, length_max + 3, 65532, 65535, 65536, 65537, 65540, 131072,
		131076, 200000};
	for (size_t length = 3400; length < room + 100; length += 57) // around the end of the page
		lengths.push_back(length);
	for (size_t length : lengths) {
		std::string message = message_that_fits(
			[&](mnl_nlmsg_batch *batch) { return append(batch, all.substr(0, length)); });
		EXPECT_EQ(!message.empty(), length <= length_max) << length;
		EXPECT_TRUE(message.empty() || message.find(all.substr(0, length)) != std::string::npos)
			<< length;
	}
}

int append_with(mnl_nlmsg_batch *batch, nftnl_expr *made)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	nftnl_rule_add_expr(rule.get(), made);
	return kvnft_batch_add_rule(batch, rule.get(), 1);
}

int append_with(
	mnl_nlmsg_batch *batch, const char *expr_name, uint16_t attribute_number, const std::string &value)
{
	nftnl_expr *e = nftnl_expr_alloc(expr_name);
	EXPECT_NE(e, nullptr);
	nftnl_expr_set_str(e, attribute_number, value.c_str());
	return append_with(batch, e);
}

TEST(nft_room, table_with_a_long_name)
{
	for (auto *append : {kvnft_batch_add_table_simple, kvnft_batch_del_table_simple})
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, name.c_str(), NFPROTO_INET, 1);
		});
}

TEST(nft_room, chain_with_a_long_name)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, name.c_str(), "t", nullptr, -1, 1, 0, nullptr, 1);
	});
}

TEST(nft_room, chain_in_a_table_with_a_long_name)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", name.c_str(), "filter", 0, 1, 0, "e", 1);
	});
}

TEST(nft_room, chain_of_a_long_type)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", "t", name.c_str(), 0, 1, 0, "e", 1);
	});
}

TEST(nft_room, chain_on_a_device_with_a_long_name)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_add_chain_simple(batch, "c", "t", "filter", 0, 1, 0, name.c_str(), 1);
	});
}

TEST(nft_room, chain_with_four_long_names)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &name) {
		const char *n = name.c_str();
		return kvnft_batch_add_chain_simple(batch, n, n, n, 0, 1, 0, n, 1);
	});
}

TEST(nft_room, flushes_with_long_names)
{
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_table_simple(batch, name.c_str(), 1, 1);
	});
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_chain_simple(batch, name.c_str(), "t", 1, 1);
	});
	expect_accepted_up_to(65530, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return kvnft_batch_flush_chain_simple(batch, "c", name.c_str(), 1, 1);
	});
}

TEST(nft_room, rules_about_a_mark_with_long_names)
{
	for (auto *append : {kvnft_batch_accept_mark, kvnft_batch_accept_mark_neq}) {
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, 1, name.c_str(), "c", 5, 1);
		});
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			return append(batch, 1, "t", name.c_str(), 5, 1);
		});
	}
}

TEST(nft_room, sets_with_long_names)
{
	for (auto *append : {kvnft_batch_add_set, kvnft_batch_del_set, kvnft_batch_add_set_elem,
		     kvnft_batch_del_set_elem}) {
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			owned_set set{kvnft_build_set(name.c_str(), "s", 1, 0, 4)};
			return append(batch, set.get(), 1);
		});
		expect_accepted_up_to(65530, [=](mnl_nlmsg_batch *batch, const std::string &name) {
			owned_set set{kvnft_build_set("t", name.c_str(), 1, 0, 4)};
			return append(batch, set.get(), 1);
		});
	}
}

TEST(nft_room, set_with_user_data)
{
	expect_accepted_up_to(65531, [](mnl_nlmsg_batch *batch, const std::string &data) {
		owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
		nftnl_set_set_data(
			set.get(), NFTNL_SET_USERDATA, data.data(), static_cast<uint32_t>(data.size()));
		return kvnft_batch_add_set(batch, set.get(), 1);
	});
}

TEST(nft_room, rule_with_user_data)
{
	expect_accepted_up_to(65531, [](mnl_nlmsg_batch *batch, const std::string &data) {
		test_rule rule;
		nftnl_rule_set_data(
			rule.get(), NFTNL_RULE_USERDATA, data.data(), static_cast<uint32_t>(data.size()));
		return kvnft_batch_add_rule(batch, rule.get(), 1);
	});
}

TEST(nft_room, lookup_with_a_long_name)
{
	expect_accepted_up_to(65479, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, kvnft_build_expr_lookup(1, name.c_str(), 1, 1));
	});
}

TEST(nft_room, dynset_with_a_long_name)
{
	expect_accepted_up_to(65399, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch,
			kvnft_build_expr_dynset(1, name.c_str(), 1, 1, true, kvnft_build_expr_limit(1, 1)));
	});
}

TEST(nft_room, dynset_around_a_lookup_with_a_long_name)
{
	expect_accepted_up_to(65415, [](mnl_nlmsg_batch *batch, const std::string &name) {
		nftnl_expr *inner = kvnft_build_expr_lookup(1, name.c_str(), 1, 1);
		return append_with(batch, kvnft_build_expr_dynset(1, "s", 1, 1, true, inner));
	});
}

TEST(nft_room, log_with_a_long_prefix)
{
	expect_accepted_up_to(65507, [](mnl_nlmsg_batch *batch, const std::string &prefix) {
		return append_with(batch, "log", NFTNL_EXPR_LOG_PREFIX, prefix);
	});
}

TEST(nft_room, jump_to_a_chain_with_a_long_name)
{
	expect_accepted_up_to(65475, [](mnl_nlmsg_batch *batch, const std::string &name) {
		nftnl_expr *e = kvnft_build_expr_verdict(static_cast<uint32_t>(NFT_JUMP));
		nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, name.c_str());
		return append_with(batch, e);
	});
}

TEST(nft_room, names_of_other_expressions)
{
	expect_accepted_up_to(65504, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, "objref", NFTNL_EXPR_OBJREF_IMM_NAME, name);
	});
	expect_accepted_up_to(65495, [](mnl_nlmsg_batch *batch, const std::string &name) {
		return append_with(batch, "flow_offload", NFTNL_EXPR_FLOW_TABLE_NAME, name);
	});
}

TEST(nft_room, match_and_target_with_much_information)
{
	const std::pair<const char *, uint16_t> kinds[] = {
		{"match", NFTNL_EXPR_MT_INFO}, {"target", NFTNL_EXPR_TG_INFO}};
	for (const auto &[name, number] : kinds)
		expect_accepted_up_to(65468, [name = name, number = number](
						     auto *batch, const std::string &data) {
			nftnl_expr *e = nftnl_expr_alloc(name);
			void *given = malloc(data.size()); // the expression releases it
			memcpy(given, data.data(), data.size());
			nftnl_expr_set_data(e, number, given, static_cast<uint32_t>(data.size()));
			nftnl_expr_set_str(e, NFTNL_EXPR_MT_NAME, "a name of more than 29 bytes is cut");
			return append_with(batch, e);
		});
}

TEST(nft_room, element_with_user_data_or_the_name_of_an_object)
{
	const std::pair<uint16_t, bool> kinds[] = {
		{NFTNL_SET_ELEM_USERDATA, false}, {NFTNL_SET_ELEM_OBJREF, true}};
	for (const auto &[number, is_text] : kinds)
		expect_accepted_up_to(65496 - is_text,
			[number = number, is_text = is_text](auto *batch, const std::string &data) {
				owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
				kvnft_build_set_add_elem(set.get(), "abcd", 4, 1);
				nftnl_set_elem *elem = elems_of(set.get())[0];
				nftnl_set_elem_set(elem, number, data.c_str(),
					static_cast<uint32_t>(data.size() + is_text));
				return kvnft_batch_add_set_elem(batch, set.get(), 1);
			});
}

TEST(nft_room, device_that_is_not_sent_may_have_any_name)
{
	std::string message = message_that_fits([](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_chain_simple(
			batch, "c", "t", nullptr, -1, 1, 0, characters(70000).c_str(), 1);
	});
	EXPECT_EQ(message.size(), 36u);
}

// Lists of growing length, of parts with `part_bytes` each, beside `other_bytes` that they share 16 bits with; `add`
// adds a part. One is accepted as long as it can be said.
void expect_list_accepted(size_t part_bytes, size_t other_bytes, const std::function<void()> &add,
	const std::function<int(mnl_nlmsg_batch *)> &append)
{
	size_t most = (65535 - other_bytes) / part_bytes, head = 0, count = 0;
	for (size_t wanted : {size_t{1}, room / 2 / part_bytes, room / part_bytes, room / part_bytes + 1,
		     most, most + 1}) {
		for (; count < wanted; count++)
			add();
		std::string message = message_that_fits(append);
		if (head == 0)
			head = message.size() - count * part_bytes;
		EXPECT_EQ(message.size(), count <= most ? head + count * part_bytes : 0) << count;
	}
}

void expect_elements_accepted(size_t part_bytes, uint32_t key_length, int64_t timeout_ms)
{
	const std::string key = characters(64);
	owned_set set{kvnft_build_set("guest", "clients", NFPROTO_INET, 0, key_length)};
	auto add = [&] {
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), key.data(), key_length, timeout_ms), 0);
	};
	for (auto *append : {kvnft_batch_add_set_elem, kvnft_batch_del_set_elem}) {
		set.reset(kvnft_build_set("guest", "clients", NFPROTO_INET, 0, key_length));
		expect_list_accepted(part_bytes, 4, add,
			[&](mnl_nlmsg_batch *batch) { return append(batch, set.get(), 1); });
	}
}

TEST(nft_room, set_of_thousands_of_elements)
{
	// 4 bytes of the element's and 4 of its key's nesting, 4 and the key, 12 of the time-out.
	expect_elements_accepted(16, 4, -1);
	expect_elements_accepted(28, 4, 60000);
	expect_elements_accepted(20, 6, -1);
	expect_elements_accepted(88, 64, 60000);
}

TEST(nft_room, elements_without_attributes)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	expect_list_accepted(
		4, 4, [&] { nftnl_set_elem_add(set.get(), nftnl_set_elem_alloc()); },
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 1); });
}

TEST(nft_room, set_itself_may_have_any_number_of_elements)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	for (int i = 0; i < 5000; i++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, 1), 0);
	test_batch batch(4096);
	EXPECT_EQ(kvnft_batch_add_set(batch.get(), set.get(), 1), 0);
	EXPECT_EQ(kvnft_batch_del_set(batch.get(), set.get(), 2), 0);
	EXPECT_EQ(kvnft_batch_add_set_elem(batch.get(), set.get(), 3), -ENOMEM);
	EXPECT_EQ(kvnft_batch_del_set_elem(batch.get(), set.get(), 4), -ENOMEM);
	EXPECT_EQ(batch.messages().size(), 2u);
}

TEST(nft_room, rule_of_very_many_expressions)
{
	const std::pair<size_t, std::function<nftnl_expr *()>> kinds[] = {
		{20, [] { return kvnft_build_expr_masq(); }},
		{104, [] { return kvnft_build_expr_cmp(1, 0, characters(64).data(), 64); }},
		{68, [] { return kvnft_build_expr_limit(1, 1); }},
		{56, [] { return kvnft_build_expr_lookup(1, "clients", 1, 1); }},
		{136,
			[] {
				return kvnft_build_expr_dynset(
					1, "clients", 1, 1, true, kvnft_build_expr_limit(1, 1));
			}},
	};
	for (const auto &[part_bytes, build] : kinds) {
		test_rule rule;
		expect_list_accepted(
			part_bytes, 4, [&, &make = build] { nftnl_rule_add_expr(rule.get(), make()); },
			[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
	}
}

TEST(nft_room, dynset_of_very_many_expressions)
{
	nftnl_expr *e = kvnft_build_expr_dynset(1, "s", 1, 1, true, kvnft_build_expr_limit(1, 1));
	test_rule rule;
	nftnl_rule_add_expr(rule.get(), e);
	auto add = [&] {
		nftnl_expr_add_expr(e, NFTNL_EXPR_DYNSET_EXPRESSIONS, kvnft_build_expr_limit(1, 1));
	};
	add(); // two are a list
	// The list of the rule, the dynset with its name, its attributes, and its own list with these two.
	expect_list_accepted(68, 4 + 20 + 8 + 8 + 12 + 8 + 8 + 4 + 2 * 68, add,
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
}

TEST(nft_room, set_of_very_many_expressions)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	auto add = [&] { nftnl_set_add_expr(set.get(), kvnft_build_expr_limit(1, 1)); };
	add(); // two are a list
	expect_list_accepted(68, 4 + 68, add,
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_set(batch, set.get(), 1); });
}

// A payload is 52 bytes and a comparison of four bytes 44; the headers, names and the list are 40.
void add_pairs(nftnl_rule *rule, int count)
{
	for (int i = 0; i < count; i++) {
		nftnl_rule_add_expr(rule, kvnft_build_expr_ip_daddr(1));
		nftnl_rule_add_expr(rule, kvnft_build_expr_cmp(1, NFT_CMP_EQ, "abcd", 4));
	}
}

TEST(nft_room, forty_pairs_of_payload_and_comparison_fit_the_conventional_batch)
{
	test_rule fits, is_too_long;
	add_pairs(fits.get(), 42);
	add_pairs(is_too_long.get(), 43);
	test_batch batch(20 + 40 + 42 * 96);
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), is_too_long.get(), 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), fits.get(), 1), 0);
	EXPECT_EQ(batch.messages()[0].size(), 40u + 42 * 96);

	test_rule forty;
	add_pairs(forty.get(), 40);
	test_batch conventional(4096);
	EXPECT_EQ(kvnft_batch_add_rule(conventional.get(), forty.get(), 1), 0);
	EXPECT_EQ(kvnft_batch_finish(conventional.get(), 2), 0);
}

TEST(nft_room, thirteen_ordinary_expressions_ask_for_no_memory)
{
	test_rule rule;
	add_pairs(rule.get(), 6);
	nftnl_rule_add_expr(rule.get(), kvnft_build_expr_verdict(NF_ACCEPT));
	test_batch batch;
	int requests = memory.requests;
	EXPECT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), 0);
	EXPECT_EQ(memory.requests, requests);
}

// A rule whose message cannot be built at the batch's end.
owned_rule long_rule(int pairs = 100)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	add_pairs(rule.get(), pairs);
	return rule;
}

TEST(nft_room, long_message_that_is_refused_touches_the_space_of_its_header_only)
{
	owned_rule rule = long_rule(600);
	for (size_t limit : {size_t{20}, size_t{4096}, size_t{9616}}) {
		test_batch batch(limit);
		std::string before = batch.buffer();
		EXPECT_EQ(kvnft_batch_add_rule(batch.get(), rule.get(), 1), -ENOMEM);
		std::string after = batch.buffer();
		EXPECT_TRUE(before.substr(0, 20) == after.substr(0, 20));
		EXPECT_TRUE(before.substr(36) == after.substr(36));
	}
}

TEST(nft_room, long_message_has_zeros_where_nothing_is_written)
{
	owned_rule rule{kvnft_build_rule(NFPROTO_INET, "t", "c")};
	for (int i = 0; i < 30; i++)
		nftnl_rule_add_expr(rule.get(), kvnft_build_expr_masq());
	std::string message = message_that_fits(
		[&](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); });
	EXPECT_EQ(hex(message.substr(20, 16)), hex(attribute(1, text("t")) + attribute(2, text("c"))));
	EXPECT_EQ(message.find('\xa5'), std::string::npos);
}

// Refuses with a message built at the batch's end, and with one built elsewhere.
const std::function<int(mnl_nlmsg_batch *)> refused_messages[] = {
	[](mnl_nlmsg_batch *batch) {
		return kvnft_batch_add_table_simple(batch, characters(3000).c_str(), NFPROTO_INET, 1);
	},
	[](mnl_nlmsg_batch *batch) { return kvnft_batch_add_rule(batch, long_rule().get(), 1); },
};

TEST(nft_batch, reset_after_a_refusal_is_empty)
{
	for (const auto &append : refused_messages) {
		test_batch batch(100);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		mnl_nlmsg_batch_reset(batch.get());
		EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
		EXPECT_EQ(mnl_nlmsg_batch_current(batch.get()), mnl_nlmsg_batch_head(batch.get()));
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
		EXPECT_EQ(hex(batch.bytes()), hex(end_message(2)));
	}
}

// What libmnl finds at the batch's end is what the longer message has left there, or what the buffer had before.
TEST(nft_batch, reset_after_a_refusal_and_a_shorter_message_is_empty)
{
	for (const auto &append : refused_messages)
		for (size_t limit : {size_t{20 + 28}, size_t{100}, size_t{2000}}) {
			test_batch batch(limit);
			EXPECT_EQ(append(batch.get()), -ENOMEM);
			EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
			EXPECT_EQ(batch.messages().size(), 1u);
			mnl_nlmsg_batch_reset(batch.get());
			EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
			EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
			EXPECT_EQ(hex(batch.bytes()), hex(end_message(3)));
		}
}

TEST(nft_batch, reset_without_a_refusal_is_empty)
{
	test_batch batch(100);
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
	mnl_nlmsg_batch_reset(batch.get());
	EXPECT_TRUE(mnl_nlmsg_batch_is_empty(batch.get()));
}

TEST(nft_batch, goes_on_after_refusals_with_what_fits)
{
	std::string table = change(0, REQUEST | ACK | CREATE, 2, 1, attribute(1, text("t")));
	for (const auto &append : refused_messages) {
		test_batch batch(20 + 2 * table.size() + 20);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 2), 0);
		EXPECT_EQ(append(batch.get()), -ENOMEM);
		EXPECT_EQ(kvnft_batch_finish(batch.get(), 3), 0);
		std::vector<std::string> messages = batch.messages();
		ASSERT_EQ(messages.size(), 3u);
		EXPECT_EQ(canonical(messages[0]), canonical(table));
		EXPECT_EQ(canonical(messages[1]), canonical(table));
		EXPECT_EQ(canonical(messages[2]), canonical(end_message(3)));
	}
}

// ---- The same with whatever libnftnl can express ----

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

// How many bytes there are in a message, and how many the library has reckoned with: what it has asked for as memory
// to build the message in.
struct lengths {
	size_t real, reckoned;
};

// The object needs padding, so that its message cannot be built at the batch's end. Lists that cannot be said are for
// other tests.
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

// What has been added is reckoned with its length or more, and with no more than a small multiple of it.
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

// The last bytes that there may be: with two expressions libnftnl nests them once more.
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

// ---- Exhausted memory ----

// Runs `call` with its request number `nth` for memory refused, counted from 0, and with every later one too
// if it is exhausted for good. Returns whether there was such a request.
template <typename F>
bool run_refusing(int nth, bool for_good, F call)
{
	for_good ? memory.refuse_from(nth) : memory.refuse(nth);
	call();
	memory.grant();
	return memory.refused;
}

// Refuses the first request for memory that `call` makes, then the second, and so on until there is none
// left. Each time it has to result in `failure`, and to leave nothing behind. `succeed` gets what it results
// in at last.
template <typename result, typename F, typename G>
void expect_survives(int requests_min, result failure, F call, G succeed)
{
	for (bool for_good : {false, true}) {
		int nth = 0;
		for (;; nth++) {
			result got = failure;
			int blocks = memory.blocks;
			bool refused = run_refusing(nth, for_good, [&] { got = call(); });
			int left = memory.blocks - blocks;
			if (!refused) {
				EXPECT_NE(got, failure);
				succeed(got);
				break;
			}
			EXPECT_EQ(got, failure) << "request " << nth;
			EXPECT_EQ(left, 0) << "request " << nth;
		}
		EXPECT_GE(nth, requests_min);
	}
}

template <typename F>
void expect_null_without_memory(int requests_min, F make)
{
	expect_survives(requests_min, static_cast<decltype(make())>(nullptr), make,
		[](auto *made) { releases()(made); });
}

template <typename F>
void expect_error_without_memory(int requests_min, F call)
{
	expect_survives(requests_min, -ENOMEM, call, [](int result) { EXPECT_EQ(result, 0); });
}

// Every builder of an expression but the dynset.
nftnl_expr *(*const expr_builders[])() = {
	[] { return kvnft_build_expr_ct(1, 1); },
	[] { return kvnft_build_expr_reject(2, 1); },
	[] { return kvnft_build_expr_reject(0, 1); },
	[] { return kvnft_build_expr_verdict(1); },
	[] { return kvnft_build_expr_imm(1, "data", 4); },
	[] { return kvnft_build_expr_limit(1, 1); },
	[] { return kvnft_build_expr_payload(1, 1, 1, 1); },
	[] { return kvnft_build_expr_payload_set(1, 1, 1, 1); },
	[] { return kvnft_build_expr_log(1); },
	[] { return kvnft_build_expr_meta(1, 1); },
	[] { return kvnft_build_expr_meta_set(1, 1); },
	[] { return _kvnft_build_expr_meta(1, 1, 1); },
	[] { return kvnft_build_expr_cmp(1, 1, "data", 4); },
	[] { return kvnft_build_expr_redir(1); },
	[] { return kvnft_build_expr_masq(); },
	[] { return kvnft_build_expr_queue(1, 1, 1); },
	[] { return kvnft_build_expr_lookup(1, nullptr, 1, 1); },
	[] { return kvnft_build_expr_bitwise(1, 1, 4, "mask", 4, "xor_", 4); },
	[] { return kvnft_build_expr_ether_saddr(1); },
	[] { return kvnft_build_expr_ether_daddr(1); },
	[] { return kvnft_build_expr_ether_type(1); },
	[] { return kvnft_build_expr_ip_daddr(1); },
	[] { return kvnft_build_expr_udp_sport(1); },
	[] { return kvnft_build_expr_udp_dport(1); },
	[] { return kvnft_build_expr_tcp_dport(1); },
	[] { return kvnft_build_expr_ether_set_daddr(1); },
};

TEST(nft_memory, expression_that_cannot_be_had_is_null)
{
	for (auto *build : expr_builders)
		expect_null_without_memory(1, build);
}

TEST(nft_memory, lookup_whose_name_cannot_be_copied_is_null)
{
	expect_null_without_memory(2, [] { return kvnft_build_expr_lookup(1, "clients", 1, 1); });
}

TEST(nft_memory, dynset_that_cannot_be_had_is_null_and_leaves_the_expression)
{
	for (bool for_good : {false, true})
		for (int nth = 0; nth < 2; nth++) { // itself, and its copy of the name
			int blocks_before = memory.blocks;
			nftnl_expr *inner = kvnft_build_expr_limit(7, 0), *e = inner;
			int blocks = memory.blocks;
			EXPECT_TRUE(run_refusing(nth, for_good,
				[&] { e = kvnft_build_expr_dynset(reg, "clients", wide, 1, true, inner); }));
			EXPECT_EQ(e, nullptr);
			EXPECT_EQ(memory.blocks, blocks);
			expect_expr(inner, "limit", limit_without_burst(7)); // and releases it
			EXPECT_EQ(memory.blocks, blocks_before);
		}
}

TEST(nft_memory, set_that_cannot_be_had_is_null)
{
	expect_null_without_memory(3, [] { return kvnft_build_set("t", "s", 1, 1, 4); });
	expect_null_without_memory(1, [] { return kvnft_build_set(nullptr, nullptr, 1, 1, 4); });
}

TEST(nft_memory, set_that_cannot_be_had_uses_up_no_id)
{
	owned_set before{kvnft_build_set("t", "s", 1, 1, 4)};
	for (int nth = 0; nth < 3; nth++) { // itself, and its copies of both names
		nftnl_set *set = before.get();
		EXPECT_TRUE(run_refusing(nth, false, [&] { set = kvnft_build_set("t", "s", 1, 1, 4); }));
		EXPECT_EQ(set, nullptr);
	}
	owned_set after{kvnft_build_set("t", "s", 1, 1, 4)};
	EXPECT_EQ(nftnl_set_get_u32(after.get(), NFTNL_SET_ID),
		nftnl_set_get_u32(before.get(), NFTNL_SET_ID) + 1);
}

TEST(nft_memory, element_that_cannot_be_had_is_not_added)
{
	owned_set set{kvnft_build_set("t", "s", 1, 1, 4)};
	expect_error_without_memory(1, [&] { return kvnft_build_set_add_elem(set.get(), "abcd", 4, 1); });
	EXPECT_EQ(elems_of(set.get()).size(), 2u); // of the two turns that succeeded
}

TEST(nft_memory, table_that_cannot_be_had_is_null)
{
	expect_null_without_memory(2, [] { return kvnft_build_table("t", 1); });
}

TEST(nft_memory, rule_that_cannot_be_had_is_null)
{
	expect_null_without_memory(3, [] { return kvnft_build_rule(1, "t", "c"); });
	expect_null_without_memory(2, [] { return kvnft_build_rule(1, "t", nullptr); });
}

TEST(nft_memory, action_that_cannot_be_had_is_not_appended)
{
	test_rule rule;
	expect_error_without_memory(1, [&] { return kvnft_rule_reject(rule.get(), 2, 1); });
	expect_error_without_memory(1, [&] { return kvnft_rule_verdict(rule.get(), 1); });
	EXPECT_EQ(exprs_of(rule.get()).size(), 4u); // of the turns that succeeded
}

TEST(nft_memory, setting_the_mark_may_leave_its_first_half)
{
	for (bool for_good : {false, true})
		for (int nth = 0; nth < 2; nth++) {
			test_rule rule;
			int error = 0;
			EXPECT_TRUE(run_refusing(
				nth, for_good, [&] { error = kvnft_rule_set_mark(rule.get(), 5); }));
			EXPECT_EQ(error, -ENOMEM);
			exprs expected{{"immediate",
				{{NFTNL_EXPR_IMM_DREG, host32(1)}, {NFTNL_EXPR_IMM_DATA, host32(5)}}}};
			EXPECT_EQ(rule.exprs(), nth == 0 ? exprs{} : expected);
		}
	test_rule rule;
	int error = -1;
	EXPECT_FALSE(run_refusing(2, false, [&] { error = kvnft_rule_set_mark(rule.get(), 5); }));
	EXPECT_EQ(error, 0);
}

TEST(nft_memory, batch_that_cannot_be_had_is_null)
{
	const size_t limit = 4096;
	owned<char> buf{static_cast<char *>(malloc(KVNFT_BATCH_BUFFER_SIZE(limit)))};
	for (bool for_good : {false, true}) {
		mnl_nlmsg_batch *batch = nullptr;
		int blocks = memory.blocks;
		EXPECT_TRUE(run_refusing(
			0, for_good, [&] { batch = kvnft_batch_alloc_start(buf.get(), limit, 0); }));
		EXPECT_EQ(batch, nullptr);
		EXPECT_EQ(memory.blocks, blocks);
	}
}

TEST(nft_memory, message_that_cannot_be_had_is_not_appended)
{
	const std::pair<int, std::function<int(mnl_nlmsg_batch *)>> calls[] = {
		{2, [](auto *batch) { return kvnft_batch_add_table_simple(batch, "t", 1, 1); }},
		{2, [](auto *batch) { return kvnft_batch_del_table_simple(batch, "t", 1, 1); }},
		{5,
			[](auto *batch) {
				return kvnft_batch_add_chain_simple(batch, "c", "t", "nat", 1, 1, 0, "e", 1);
			}},
		{3, [](auto *batch) { return kvnft_batch_flush_chain_simple(batch, "c", "t", 1, 1); }},
		{2, [](auto *batch) { return kvnft_batch_flush_table_simple(batch, "t", 1, 1); }},
		{6, [](auto *batch) { return kvnft_batch_accept_mark(batch, 1, "t", "c", 1, 1); }},
		{6, [](auto *batch) { return kvnft_batch_accept_mark_neq(batch, 1, "t", "c", 1, 1); }},
	};
	for (const auto &[requests_min, call] : calls) {
		test_batch batch;
		expect_error_without_memory(
			requests_min, [&, &append = call] { return append(batch.get()); });
		EXPECT_EQ(batch.messages().size(), 2u); // of the turns that succeeded
	}
}

// It is built elsewhere; a list whose length has to be measured is built there, too.
TEST(nft_memory, long_message_that_cannot_be_had_leaves_the_batch_as_it_is)
{
	owned_set set{kvnft_build_set("t", "s", 1, 0, 4)};
	for (int i = 0; i < 4000; i++)
		ASSERT_EQ(kvnft_build_set_add_elem(set.get(), "abcd", 4, -1), 0);
	owned_rule rule = long_rule();
	const std::pair<int, std::function<int(mnl_nlmsg_batch *)>> calls[] = {
		{1, [&](auto *batch) { return kvnft_batch_add_rule(batch, rule.get(), 1); }},
		{2, [&](auto *batch) { return kvnft_batch_add_set_elem(batch, set.get(), 1); }},
	};
	for (const auto &[requests_min, append] : calls) {
		test_batch batch(1 << 18);
		ASSERT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
		const std::string before = batch.buffer();
		bool refused = true;
		int nth = 0, blocks = memory.blocks;
		for (; refused; nth++) {
			int error = 0;
			refused =
				run_refusing(nth, false, [&, &call = append] { error = call(batch.get()); });
			EXPECT_EQ(error, refused ? -ENOMEM : 0);
			EXPECT_TRUE(!refused || batch.buffer() == before) << nth;
			EXPECT_EQ(memory.blocks, blocks);
		}
		EXPECT_EQ(nth - 1, requests_min);
		EXPECT_EQ(batch.messages().size(), 2u);
	}
}

TEST(nft_memory, message_of_an_object_released_by_a_refusal_leaves_no_block)
{
	test_batch full(20);
	int blocks = memory.blocks;
	EXPECT_EQ(kvnft_batch_add_table_simple(full.get(), "t", 1, 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_add_chain_simple(full.get(), "c", "t", "nat", 1, 1, 0, "e", 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_flush_chain_simple(full.get(), "c", "t", 1, 1), -ENOMEM);
	EXPECT_EQ(kvnft_batch_accept_mark(full.get(), 1, "t", "c", 1, 1), -ENOMEM);
	EXPECT_EQ(memory.blocks, blocks);
}

// A whole change with one request after the other refused, each in a process of its own: that for its buffer
// ends the process, and with any other nothing is sent and nothing left behind.
void expect_change_survives(int (*change_all)())
{
	skip_if_emulated(no_netfilter);
	int ended = 0;
	for (int nth = 0;; nth++) {
		child_result child = run_child([=] {
			set_app_name("app");
			ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
			std::set<int> fds = open_descriptors();
			int result = 0, blocks = memory.blocks;
			bool refused = run_refusing(nth, false, [&] { result = change_all(); });
			EXPECT_EQ(memory.blocks, blocks);
			EXPECT_EQ(result, refused ? -ENOMEM : -ENOENT);
			EXPECT_EQ(seen.sent_length == 0, refused);
			EXPECT_EQ(open_descriptors(), fds);
			if (!refused)
				fputs("complete", stderr);
		});
		if (child.killed_by(SIGABRT) && child.err == "app: out of memory\n") {
			ended++;
			continue;
		}
		ASSERT_TRUE(child.exited_with(0)) << "request " << nth << ": " << child.report();
		if (child.err == "complete")
			break;
	}
	EXPECT_EQ(ended, 1);
}

TEST(nft_memory, flush_of_a_chain_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_flush_chain_simple("c", "t", NFPROTO_INET); });
}

TEST(nft_memory, flush_of_a_table_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_flush_table_simple("t", NFPROTO_INET); });
}

TEST(nft_memory, deletion_of_a_table_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_del_table_simple("t", NFPROTO_INET); });
}

TEST(nft_memory, deletion_of_a_chain_survives_refused_requests)
{
	expect_change_survives([] { return kvnft_del_chain_simple("c", "t", NFPROTO_INET); });
}

// ---- Silence ----

// What `body` writes to the standard streams and to the system log, in a process of its own and a namespace
// without tables, with every message let through.
std::string said_by(const std::function<void()> &body)
{
	child_result child = run_child([&] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		log_open(LOG_DEST_STDIO | LOG_DEST_SYSLOG, LOG_USER, "app");
		messages.clear();
		body();
		for (const logged &one : messages)
			fprintf(stderr, "syslog %d: %s", one.priority, one.text.c_str());
	});
	EXPECT_TRUE(child.exited_with(0)) << child.report();
	return child.out + child.err;
}

// Refuses one request for memory of `call` after the other, from the `nth` on, and none at last.
template <typename F>
void run_with_each_request_refused(F call, int nth = 0)
{
	while (run_refusing(nth, false, call))
		nth++;
}

TEST(nft_silence, would_be_broken_by_any_message)
{
	EXPECT_EQ(said_by([] { _log(LOG_ERR, "word\n"); }), "app: word\nsyslog 3: word\n");
	EXPECT_EQ(said_by([] { _log(LOG_DEBUG, "word\n"); }), "app: word\nsyslog 7: word\n");
	EXPECT_EQ(said_by([] { _log(LOG_INFO, "word\n"); }), "app: word\nsyslog 6: word\n");
	EXPECT_EQ(said_by([] { fputs("word", stderr); }), "word");
}

TEST(nft_silence, is_kept_when_expressions_are_built_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		for (auto *build : expr_builders)
			run_with_each_request_refused([=] { owned_expr e{build()}; });
		run_with_each_request_refused([] {
			nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
			nftnl_expr *e = kvnft_build_expr_dynset(1, "clients", 7, 1, true, inner);
			owned_expr made{e ? e : inner};
		});
		const std::string all = characters(65);
		for (const data_case &one : with_data)
			EXPECT_EQ(one.build(all.data(), 65), nullptr);
		EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, 0), nullptr);
		owned_expr inner{kvnft_build_expr_limit(7, 0)};
		EXPECT_EQ(kvnft_build_expr_dynset(1, nullptr, 7, 1, true, inner.get()), nullptr);
	}),
		"");
}

TEST(nft_silence, is_kept_when_sets_tables_and_rules_are_built_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		run_with_each_request_refused([] { owned_set set{kvnft_build_set("t", "s", 1, 1, 4)}; });
		run_with_each_request_refused([] { owned<nftnl_table> table{kvnft_build_table("t", 1)}; });
		run_with_each_request_refused([] { owned_rule rule{kvnft_build_rule(1, "t", "c")}; });
		owned_set set{kvnft_build_set("t", "s", 1, 1, 4)};
		run_with_each_request_refused([&] { kvnft_build_set_add_elem(set.get(), "abcd", 4, 1); });
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), characters(65).data(), 65, 1), -ENOMEM);
		test_rule rule;
		run_with_each_request_refused([&] { kvnft_rule_set_mark(rule.get(), 5); });
		run_with_each_request_refused([&] { kvnft_rule_reject(rule.get(), 2, 1); });
		run_with_each_request_refused([&] { kvnft_rule_verdict(rule.get(), 1); });
	}),
		"");
}

TEST_F(nft_append, says_nothing_about_messages_that_are_appended_or_cannot_be)
{
	for (const append_case &one : cases)
		EXPECT_EQ(said_by([&] {
			test_batch batch, full(20);
			run_with_each_request_refused([&] { one.append(batch.get(), 1); });
			EXPECT_EQ(one.append(full.get(), 1), -ENOMEM);
		}),
			"")
			<< one.name;
}

TEST_F(nft_append, says_nothing_about_objects_that_are_too_large)
{
	EXPECT_EQ(said_by([&] {
		const std::string huge = characters(70000);
		test_batch batch;
		owned_set named{kvnft_build_set("t", huge.c_str(), 1, 0, 4)};
		owned_rule in_chain{kvnft_build_rule(1, "t", huge.c_str())};
		EXPECT_EQ(kvnft_batch_add_set(batch.get(), named.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_set_elem(batch.get(), named.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_rule(batch.get(), in_chain.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), huge.c_str(), 1, 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_chain_simple(
				  batch.get(), huge.c_str(), "t", nullptr, -1, 1, 0, nullptr, 1),
			-ENOMEM);
	}),
		"");
}

TEST(nft_silence, is_kept_when_batches_are_started_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		std::string buf(KVNFT_BATCH_BUFFER_SIZE(4096), '\0');
		EXPECT_EQ(kvnft_batch_alloc_start(buf.data(), 19, 0), nullptr);
		run_with_each_request_refused([&] {
			if (mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf.data(), 4096, 0))
				kvnft_batch_free(batch);
		});
	}),
		"");
}

// The result of a batch that makes a table.
int send_table()
{
	test_batch batch;
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
	return kvnft_batch_send(batch.get());
}

TEST(nft_silence, is_kept_when_batches_are_sent_or_cannot_be)
{
	skip_if_emulated(no_netfilter);
	EXPECT_EQ(said_by([] {
		EXPECT_EQ(send_table(), 0);
		for (int *error : {&failing.bind, &failing.sendto, &failing.select, &failing.recvfrom}) {
			*error = ENETDOWN;
			EXPECT_EQ(send_table(), -ENETDOWN);
			*error = 0;
		}
		rlimit limit{};
		ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
		limit.rlim_cur = FD_SETSIZE;
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		while (dup(0) >= 0)
			;
		EXPECT_EQ(send_table(), -EMFILE);
		limit.rlim_cur = FD_SETSIZE + 1; // a descriptor beyond those of an fd_set
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		EXPECT_EQ(send_table(), 0);
	}),
		"");
}

TEST(nft_silence, is_kept_when_answers_are_given_to_a_callback_or_refused_by_it)
{
	skip_if_emulated(no_netfilter);
	const std::string which_generation = change(16, REQUEST, 1, 0, "");
	auto send = [&](mnl_cb_t cb) {
		return kvnft_send_msg_cb(which_generation.data(), which_generation.size(), cb, nullptr);
	};
	EXPECT_EQ(said_by([&] {
		EXPECT_EQ(send([](const nlmsghdr *, void *) { return MNL_CB_OK; }), 0);
		EXPECT_EQ(send([](const nlmsghdr *, void *) { return errno = EIO, MNL_CB_ERROR; }), -EIO);
	}),
		"");
}

int (*const changes[])(const char *table) = {
	[](const char *table) { return kvnft_flush_chain_simple("c", table, NFPROTO_INET); },
	[](const char *table) { return kvnft_flush_table_simple(table, NFPROTO_INET); },
	[](const char *table) { return kvnft_del_chain_simple("c", table, NFPROTO_INET); },
	[](const char *table) { return kvnft_del_table_simple(table, NFPROTO_INET); },
};

TEST(nft_silence, is_kept_when_whole_changes_are_made_or_cannot_be)
{
	skip_if_emulated(no_netfilter);
	for (auto *change_all : changes)
		EXPECT_EQ(said_by([=] {
			// Without the first, for the buffer, the process ends.
			run_with_each_request_refused([=] { change_all("t"); }, 1);
			EXPECT_EQ(change_all("t"), -ENOENT);
			EXPECT_EQ(change_all(characters(room + 1).c_str()), -ENOMEM);
			ASSERT_EQ(send_table(), 0);
			test_batch batch;
			ASSERT_EQ(kvnft_batch_add_chain_simple(
					  batch.get(), "c", "t", nullptr, -1, NFPROTO_INET, 0, nullptr, 1),
				0);
			ASSERT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
			ASSERT_EQ(kvnft_batch_send(batch.get()), 0);
			EXPECT_EQ(change_all("t"), 0);
		}),
			"");
}

} // namespace
