/*
 * apfw - the firewall of a guest network as a command, and an example to copy from: sets, chains and rules
 * built with nft.h and sent as one transaction, and sets read back from the kernel.
 *
 *	apfw up [OPTION]...  builds the firewall; one that is up is replaced, and who was blocked forgotten
 *	apfw down            deletes it
 *	apfw status          says whether it is up, who is blocked, and which guests were seen lately
 *	apfw block MAC       lets a guest get no further than the portal
 *	apfw unblock MAC     lets it on again
 *
 * In the network of process 1, which is the machine's, it changes nothing without --change-this-machine. To try it on
 * a workstation, use a network namespace.
 *
 * Each change is one transaction: the kernel makes all of it, or nothing, and no packet meets half of a
 * firewall. Everything is in the table "apfw" of the family inet, which sees IPv4 and IPv6:
 *
 *	set blocked       Ethernet addresses of guests that are blocked
 *	set clients       those of guests seen lately, each with a limit of its own
 *	chain prerouting  drops packets of a guest beyond its rate, and marks the rest
 *	chain portal      redirects HTTP of blocked guests to the portal on this machine
 *	chain forward     accepts packets of guests with the guests' mark, and drops their other packets
 *	chain input       guests reach DHCP, DNS, ICMP and the portal of this machine; the rest is rejected
 *
 * A guest is known by its Ethernet address. With another address it gets a new limit, and is not blocked. With
 * CLIENTS_MAX in the set, further guests have no limit. Expressions go to the kernel as they are, so a packet's fields
 * are compared in network order, a mark in the machine's.
 *
 * Exit status: 0; 1 if the kernel refused, which it also does when the firewall is not up; 2 if the command
 * line is wrong, or does not say that this machine is to be changed.
 */
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include "examples/common/program.h"
#include "lib/nft.h"

#define TABLE             "apfw"
#define BATCH_BYTES       32768 /* "up" takes some 4500 */
#define BLOCKED_MAX       1024
#define CLIENTS_MAX       1024
#define CLIENT_TIMEOUT_MS 300000
#define READ_TRIES        5
#define MARK_GUEST        0x67 /* of packets that guests send */
#define MARK_BLOCKED      0x62
#define MAC_LEN           6
#define NFT_TYPE_ETHER    9 /* ether_addr of `nft`; the kernel only keeps the number */

/* The command line. */
struct options {
	const char *guest; /* the interface of the guest network */
	uint32_t portal;   /* a TCP port of this machine */
	uint32_t rate;     /* bytes per second that a guest may send */
	uint8_t mac[MAC_LEN];
	bool change_this_machine;
};

/* ---- A transaction ---- */

struct change {
	char *buf;
	struct mnl_nlmsg_batch *batch;
	struct nftnl_rule *rule; /* the current one */
	uint32_t seq;
};

/* Building fails only when memory is exhausted; then the command ends. */
static void must(bool done)
{
	if (done)
		return;
	fputs("apfw: out of memory, nothing has been changed\n", stderr);
	exit(EXIT_FAILURE);
}

static void change_begin(struct change *change)
{
	change->buf = calloc(1, KVNFT_BATCH_BUFFER_SIZE(BATCH_BYTES));
	must(change->buf);
	change->batch = kvnft_batch_alloc_start(change->buf, BATCH_BYTES, change->seq = 0);
	must(change->batch);
}

/* Returns 0, or the kernel's refusal. */
static int change_send(struct change *change)
{
	must(kvnft_batch_finish(change->batch, ++change->seq) == 0);
	int error = kvnft_batch_send(change->batch);
	kvnft_batch_free(change->batch);
	free(change->buf);
	return error;
}

/* A set of Ethernet addresses. */
static struct nftnl_set *make_set(const char *name, uint32_t flags)
{
	struct nftnl_set *set = kvnft_build_set(TABLE, name, NFPROTO_INET, flags, MAC_LEN);
	must(set);
	nftnl_set_set_u32(set, NFTNL_SET_KEY_TYPE, NFT_TYPE_ETHER);
	return set;
}

/* Returns the id by which rules of the same transaction refer to the set. */
static uint32_t add_set(struct change *change, const char *name, uint32_t flags, uint32_t elements_max)
{
	struct nftnl_set *set = make_set(name, flags);
	uint32_t id = nftnl_set_get_u32(set, NFTNL_SET_ID);
	nftnl_set_set_u32(set, NFTNL_SET_DESC_SIZE, elements_max);
	must(kvnft_batch_add_set(change->batch, set, ++change->seq) == 0);
	nftnl_set_free(set);
	return id;
}

static void add_chain(struct change *change, const char *name, const char *type, int hook, int priority)
{
	must(kvnft_batch_add_chain_simple(change->batch, name, TABLE, type, hook, NFPROTO_INET, priority,
		     NULL, ++change->seq) == 0);
}

/* ---- A rule: its chain, then matches, then the verdict ---- */

static void rule_begin(struct change *change, const char *chain)
{
	change->rule = kvnft_build_rule(NFPROTO_INET, TABLE, chain);
	must(change->rule);
}

/* Ownership of the expression passes to the rule. */
static void rule_add(struct change *change, struct nftnl_expr *expr)
{
	must(expr);
	nftnl_rule_add_expr(change->rule, expr);
}

/* Compares register 1 with the data. */
static void rule_compare(struct change *change, uint32_t op, const void *data, uint32_t len)
{
	rule_add(change, kvnft_build_expr_cmp(NFT_REG_1, op, data, len));
}

/* The kernel compares the whole field, and so the zeros after the name. */
static void rule_match_interface(struct change *change, uint32_t op, const char *name)
{
	char field[IF_NAMESIZE] = "";
	snprintf(field, sizeof field, "%s", name);
	rule_add(change, kvnft_build_expr_meta(NFT_META_IIFNAME, NFT_REG_1));
	rule_compare(change, op, field, sizeof field);
}

/* Loads the Ethernet source address into register 1, if the packet has one. */
static void rule_load_source(struct change *change)
{
	uint16_t type = ARPHRD_ETHER;
	rule_add(change, kvnft_build_expr_meta(NFT_META_IIFTYPE, NFT_REG_1));
	rule_compare(change, NFT_CMP_EQ, &type, sizeof type);
	rule_add(change, kvnft_build_expr_ether_saddr(NFT_REG_1));
}

/* `port` is of TCP or UDP; 0: any. */
static void rule_match_service(struct change *change, uint8_t protocol, uint16_t port)
{
	uint16_t field = htons(port);
	rule_add(change, kvnft_build_expr_meta(NFT_META_L4PROTO, NFT_REG_1));
	rule_compare(change, NFT_CMP_EQ, &protocol, sizeof protocol);
	if (port == 0)
		return;
	rule_add(change, kvnft_build_expr_tcp_dport(NFT_REG_1));
	rule_compare(change, NFT_CMP_EQ, &field, sizeof field);
}

/* `appended` is the result of appending the last expression. */
static void rule_end(struct change *change, int appended)
{
	must(appended == 0);
	must(kvnft_batch_add_rule(change->batch, change->rule, ++change->seq) == 0);
	nftnl_rule_free(change->rule);
}

/* ---- up ---- */

static void add_prerouting(struct change *change, const struct options *options)
{
	uint32_t blocked = add_set(change, "blocked", 0, BLOCKED_MAX);
	uint32_t clients = add_set(change, "clients", NFT_SET_EVAL | NFT_SET_TIMEOUT, CLIENTS_MAX);
	add_chain(change, "prerouting", "filter", NF_INET_PRE_ROUTING, NF_IP_PRI_MANGLE);

	rule_begin(change, "prerouting");
	rule_match_interface(change, NFT_CMP_NEQ, options->guest);
	rule_end(change, kvnft_rule_verdict(change->rule, NF_ACCEPT));

	/* Each element gets a copy of the limit, which matches only beyond the rate. */
	rule_begin(change, "prerouting");
	rule_load_source(change);
	struct nftnl_expr *limit = kvnft_build_expr_limit(options->rate, 0);
	rule_add(change,
		kvnft_build_expr_dynset(NFT_REG_1, "clients", clients, CLIENT_TIMEOUT_MS, true, limit));
	rule_end(change, kvnft_rule_verdict(change->rule, NF_DROP));

	rule_begin(change, "prerouting");
	rule_end(change, kvnft_rule_set_mark(change->rule, MARK_GUEST));

	rule_begin(change, "prerouting");
	rule_load_source(change);
	rule_add(change, kvnft_build_expr_lookup(NFT_REG_1, "blocked", blocked, 0));
	rule_end(change, kvnft_rule_set_mark(change->rule, MARK_BLOCKED));
}

static void add_portal(struct change *change, const struct options *options)
{
	const uint32_t mark = MARK_BLOCKED;
	uint16_t port = htons((uint16_t)options->portal);
	add_chain(change, "portal", "nat", NF_INET_PRE_ROUTING, NF_IP_PRI_NAT_DST);

	rule_begin(change, "portal");
	rule_add(change, kvnft_build_expr_meta(NFT_META_MARK, NFT_REG_1));
	rule_compare(change, NFT_CMP_EQ, &mark, sizeof mark);
	rule_match_service(change, IPPROTO_TCP, 80);
	rule_add(change, kvnft_build_expr_imm(NFT_REG_1, &port, sizeof port));
	rule_add(change, kvnft_build_expr_redir(NFT_REG_1));
	rule_end(change, 0);
}

static void add_forward(struct change *change, const struct options *options)
{
	add_chain(change, "forward", "filter", NF_INET_FORWARD, NF_IP_PRI_FILTER);
	must(kvnft_batch_accept_mark(
		     change->batch, NFPROTO_INET, TABLE, "forward", MARK_GUEST, ++change->seq) == 0);

	rule_begin(change, "forward");
	rule_match_interface(change, NFT_CMP_EQ, options->guest);
	rule_end(change, kvnft_rule_verdict(change->rule, NF_DROP));
}

static void add_input(struct change *change, const struct options *options)
{
	const struct {
		uint8_t protocol;
		uint16_t port;
	} services[] = {
		{IPPROTO_ICMP, 0},
		{IPPROTO_ICMPV6, 0}, /* finds neighbours */
		{IPPROTO_UDP, 53},   /* DNS */
		{IPPROTO_TCP, 53},
		{IPPROTO_UDP, 67},  /* DHCP */
		{IPPROTO_UDP, 547}, /* DHCPv6 */
		{IPPROTO_TCP, (uint16_t)options->portal},
	};
	add_chain(change, "input", "filter", NF_INET_LOCAL_IN, NF_IP_PRI_FILTER);

	rule_begin(change, "input");
	rule_match_interface(change, NFT_CMP_NEQ, options->guest);
	rule_end(change, kvnft_rule_verdict(change->rule, NF_ACCEPT));

	for (size_t index = 0; index < sizeof services / sizeof services[0]; index++) {
		rule_begin(change, "input");
		rule_match_service(change, services[index].protocol, services[index].port);
		rule_end(change, kvnft_rule_verdict(change->rule, NF_ACCEPT));
	}

	rule_begin(change, "input");
	rule_match_service(change, IPPROTO_TCP, 0);
	rule_end(change, kvnft_rule_reject(change->rule, NFT_REJECT_TCP_RST, 0));

	rule_begin(change, "input");
	rule_end(change,
		kvnft_rule_reject(change->rule, NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_ADMIN_PROHIBITED));
}

/* Adds the table so that it can be deleted, whether or not it existed; then builds it anew. */
static int up(const struct options *options)
{
	struct change change;
	change_begin(&change);
	must(kvnft_batch_add_table_simple(change.batch, TABLE, NFPROTO_INET, ++change.seq) == 0);
	must(kvnft_batch_del_table_simple(change.batch, TABLE, NFPROTO_INET, ++change.seq) == 0);
	must(kvnft_batch_add_table_simple(change.batch, TABLE, NFPROTO_INET, ++change.seq) == 0);
	add_prerouting(&change, options);
	add_portal(&change, options);
	add_forward(&change, options);
	add_input(&change, options);
	return change_send(&change);
}

/* ---- down, block, unblock ---- */

static int down(const struct options *options)
{
	(void)options;
	return kvnft_del_table_simple(TABLE, NFPROTO_INET);
}

/* Adds the address to the blocked ones, or deletes it from them, as `append` does. */
static int change_blocked(
	const uint8_t *mac, int (*append)(struct mnl_nlmsg_batch *, struct nftnl_set *, uint32_t))
{
	struct change change;
	struct nftnl_set *set = make_set("blocked", 0);
	must(kvnft_build_set_add_elem(set, mac, MAC_LEN, -1) == 0);
	change_begin(&change);
	must(append(change.batch, set, ++change.seq) == 0);
	nftnl_set_free(set);
	return change_send(&change);
}

static int block(const struct options *options)
{
	return change_blocked(options->mac, kvnft_batch_add_set_elem);
}

static int unblock(const struct options *options)
{
	return change_blocked(options->mac, kvnft_batch_del_set_elem);
}

/* ---- status ---- */

/* A set comes in one message or more; this adds the elements of each to `set`. */
static int take_elements(const struct nlmsghdr *answer, void *set)
{
	return nftnl_set_elems_nlmsg_parse(answer, set) < 0 ? MNL_CB_ERROR : MNL_CB_OK;
}

static int print_element(struct nftnl_set_elem *elem, void *unused)
{
	uint32_t len = 0;
	const uint8_t *mac = nftnl_set_elem_get(elem, NFTNL_SET_ELEM_KEY, &len);
	(void)unused;
	if (mac && len == MAC_LEN)
		printf("  %02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	return 0;
}

/* Reads a set from the kernel and prints it. */
static int print_set(const char *title, const char *name)
{
	union {
		struct nlmsghdr header;
		char bytes[256]; /* two short names take far less */
	} request;
	struct nftnl_set *set = make_set(name, 0);
	nftnl_nlmsg_build_hdr(request.bytes, NFT_MSG_GETSETELEM, NFPROTO_INET, NLM_F_DUMP, 0);
	nftnl_set_elems_nlmsg_build_payload(&request.header, set);
	int error = kvnft_send_msg_cb(&request, request.header.nlmsg_len, take_elements, set);
	if (!error) {
		puts(title);
		nftnl_set_elem_foreach(set, print_element, NULL);
	}
	nftnl_set_free(set);
	return error;
}

/* A change of the ruleset meanwhile ends the reading with -EINTR. */
static int print_set_patiently(const char *title, const char *name)
{
	int error = -EINTR;
	for (int tries = 0; error == -EINTR && tries < READ_TRIES; tries++)
		error = print_set(title, name);
	return error;
}

static int status(const struct options *options)
{
	(void)options;
	int error = print_set_patiently("the firewall is up\nblocked:", "blocked");
	return error ? error : print_set_patiently("seen lately:", "clients");
}

/* ---- The command line ---- */

static const char usage[] =
	"Usage: apfw [--change-this-machine] up [OPTION]...\n"
	"       apfw [--change-this-machine] down | status | block MAC | unblock MAC\n"
	"       apfw --help | -h | --version\n"
	"\n"
	"up builds the firewall of a guest network, in place of one that is up. MAC is a guest's\n"
	"Ethernet address, such as 02:00:5e:10:00:01; a blocked guest gets no further than the portal.\n"
	"In the network of process 1, a machine's own, nothing is changed without --change-this-machine.\n"
	"\n"
	"  --guest IFACE  interface of the guest network (br-guest)\n"
	"  --portal PORT  TCP port of the portal on this machine, 1 to 65535 (8080)\n"
	"  --rate BYTES   what a guest may send in a second, 1 to 4294967295 (1250000)\n";

static const struct command {
	const char *name;
	int (*run)(const struct options *options); /* returns 0, or the kernel's refusal */
	bool only_reads;
	const char *object;  /* what the kernel refused */
	const char *missing; /* the meaning of -ENOENT */
} commands[] = {
	{"up", up, false, "the firewall", " (this kernel lacks a part of nftables)"},
	{"down", down, false, "to delete it", " (the firewall is not up)"},
	{"status", status, true, "to list it", " (the firewall is not up)"},
	{"block", block, false, "to block the guest", " (the firewall is not up)"},
	{"unblock", unblock, false, "to unblock the guest",
		" (it is not blocked, or the firewall is not up)"},
};

static const struct command *command_find(const char *name)
{
	for (size_t index = 0; index < sizeof commands / sizeof commands[0]; index++)
		if (strcmp(commands[index].name, name) == 0)
			return &commands[index];
	return NULL;
}

/* Prints what is wrong with a word of the command line, and ends. */
static _Noreturn void refuse(const char *before, const char *word, const char *after)
{
	exit(usage_error("apfw", before, word, after));
}

/* Reads a number from 1 to `max`; ends if it is none. */
static uint32_t parse_positive(const char *text, uint32_t max, const char *before, const char *after)
{
	int64_t value = parse_number(text, max);
	if (value < 1)
		refuse(before, text, after);
	return (uint32_t)value;
}

/* Six bytes of two hexadecimal digits, with colons between them and nothing else. */
static void parse_mac(const char *text, uint8_t *mac)
{
	static const char form[] = "xx:xx:xx:xx:xx:xx";
	bool fits = strlen(text) == strlen(form);
	for (size_t index = 0; fits && form[index]; index++)
		fits = form[index] == 'x' ? isxdigit((unsigned char)text[index]) : text[index] == ':';
	if (!fits)
		refuse("bad MAC", text, ": not six bytes such as 02:00:5e:10:00:01");
	for (size_t index = 0; index < MAC_LEN; index++)
		mac[index] = (uint8_t)strtoul(text + 3 * index, NULL, 16);
}

/* `value` is null if the command line ends with the name. */
static void option_set(struct options *options, const char *name, const char *value)
{
	bool is_guest = strcmp(name, "--guest") == 0;
	bool is_portal = strcmp(name, "--portal") == 0;
	if (!is_guest && !is_portal && strcmp(name, "--rate") != 0)
		refuse("bad option", name, ", see apfw --help");
	if (!value)
		refuse("option", name, " needs a value");
	if (is_guest) {
		if (*value == '\0' || strlen(value) >= IF_NAMESIZE)
			refuse("bad interface", value, ": not 1 to 15 characters");
		options->guest = value;
	} else if (is_portal) {
		options->portal =
			parse_positive(value, UINT16_MAX, "bad port", ": not a number from 1 to 65535");
	} else {
		options->rate =
			parse_positive(value, UINT32_MAX, "bad rate", ": not a number from 1 to 4294967295");
	}
}

/* Reads the words after the command. */
static void arguments_parse(struct options *options, const struct command *command, char **argument)
{
	if (command->run == up) {
		for (; *argument; argument += argument[1] ? 2 : 1)
			option_set(options, argument[0], argument[1]);
	} else if (command->run == block || command->run == unblock) {
		if (!*argument)
			refuse("command", command->name, " needs a MAC");
		parse_mac(*argument++, options->mac);
	}
	if (*argument)
		refuse("unexpected argument", *argument, ", see apfw --help");
}

/* Without the right to look at process 1, this is in another namespace, or has no right to change that network. */
static bool is_network_of_process_1(void)
{
	struct stat ours, its;
	if (stat("/proc/self/ns/net", &ours))
		return true; /* it cannot be told */
	return stat("/proc/1/ns/net", &its) == 0 && its.st_ino == ours.st_ino && its.st_dev == ours.st_dev;
}

/* A hint for the user, or an empty text. */
static const char *reason(const struct command *command, int error)
{
	switch (error) {
	case -EPERM:
		return " (run it as root)";
	case -ENOENT:
		return command->missing;
	case -ENFILE:
		return " (too many are blocked)";
	default:
		return "";
	}
}

/* Returns the exit status. */
static int run(const struct command *command, const struct options *options)
{
	if (!command->only_reads && !options->change_this_machine && is_network_of_process_1()) {
		fprintf(stderr,
			"apfw: %s: nothing has been changed, as this network is the machine's own: "
			"see --change-this-machine in apfw --help\n",
			command->name);
		return EXIT_USAGE;
	}
	int error = command->run(options);
	if (!error)
		return EXIT_SUCCESS;
	fprintf(stderr, "apfw: %s: the kernel refused %s: %s%s\n", command->name, command->object,
		strerror(-error), reason(command, error));
	return EXIT_FAILURE;
}

/* Whether this is the only word of the command line. */
static bool is_alone(char **argv, const char *word)
{
	return argv[1] && !argv[2] && strcmp(argv[1], word) == 0;
}

int main(int argc, char **argv)
{
	struct options options = {.guest = "br-guest", .portal = 8080, .rate = 1250000};
	char **word = argv + 1;
	(void)argc;

	open_standard_descriptors();
	if (is_alone(argv, "--help") || is_alone(argv, "-h"))
		return print_help("apfw", usage);
	if (is_alone(argv, "--version"))
		return print_version("apfw");
	options.change_this_machine = *word && strcmp(*word, "--change-this-machine") == 0;
	word += options.change_this_machine;
	const struct command *command = *word ? command_find(*word) : NULL;
	if (!command) {
		fputs(usage, stderr);
		return EXIT_USAGE;
	}
	arguments_parse(&options, command, word + 1);
	return run(command, &options);
}
