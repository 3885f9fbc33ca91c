/*
 * Rules built and sent in three ways: by lib/nft, by direct calls of libnftnl and libmnl, and by `nft -f` with
 * the same rules as text.
 *
 * usage: nft_commit text KIND FIRST COUNT
 *        nft_commit build apbase|direct KIND COUNT
 *        nft_commit send apbase|direct KIND COUNT
 *        nft_commit rounds ROUNDS KIND COUNT NFT FILE...
 *	text:   prints the rules for `nft -f`
 *	build:  builds one transaction
 *	send:   builds and sends one
 *	rounds: measures. Each way makes COUNT rules in one transaction for each FILE. The files have equal numbers
 *	        of rules as text, for the program NFT. Prints the nanoseconds of the three ways, a round a line; the
 *	        order changes from round to round.
 * KIND is one of
 *	long, short  rules of ten expressions, or of three
 *	replace      long rules in place of those that the chain has
 * The chain must exist; `rounds` makes it itself, outside of the measured time: empty, or for `replace` with the
 * same rules. Run this in a network namespace of its own.
 */
#define _GNU_SOURCE
#include "nft_rules.h" /* before the kernel's headers, which else define the same things */

#include <err.h>
#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <linux/netfilter.h>

#include "lib/nft.h"

#define LIMIT (1 << 20)
#define WAYS  3
/* The kernel releases deleted rules some time after the transaction. */
#define SETTLE_US 50000

static char *buffer; /* of a transaction */

/* ---- The ways ---- */

struct job {
	struct nft_rules rules;
	uint32_t transactions;
	char *nft;
	char **texts;
};

static void make_with(nft_build *build, nft_send *send, const struct job *job)
{
	struct nft_rules part = job->rules;
	part.count /= job->transactions;
	for (uint32_t i = 0; i < job->transactions; i++, part.first += part.count) {
		struct mnl_nlmsg_batch *batch = build(buffer, LIMIT, &part);
		if (!batch)
			errx(1, "%u rules do not fit", part.count);
		int error = send(batch);
		if (error)
			errx(1, "the kernel refuses %u rules: %s", part.count, strerror(-error));
		mnl_nlmsg_batch_stop(batch);
	}
}

static void make_apbase(const struct job *job)
{
	make_with(nft_build_apbase, nft_send_apbase, job);
}

static void make_direct(const struct job *job)
{
	make_with(nft_build_direct, nft_send_direct, job);
}

static void make_nft(const struct job *job)
{
	for (uint32_t i = 0; i < job->transactions; i++) {
		char option[] = "-f";
		char *words[] = {job->nft, option, job->texts[i], NULL};
		pid_t pid;
		int status, error = posix_spawn(&pid, job->nft, NULL, NULL, words, environ);
		if (error)
			errx(1, "%s: %s", job->nft, strerror(error));
		if (waitpid(pid, &status, 0) != pid || status != 0)
			errx(1, "%s -f %s has failed", job->nft, job->texts[i]);
	}
}

/* ---- Rounds ---- */

static void require(int error, const char *what)
{
	if (error)
		errx(1, "%s: %s", what, strerror(-error));
}

static void make_chain(void)
{
	size_t limit = (size_t)MNL_SOCKET_BUFFER_SIZE;
	int error = kvnft_del_table_simple(NFT_TABLE, NFPROTO_IPV4);
	require(error == -ENOENT ? 0 : error, "deleting the table");
	struct mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buffer, limit, 0);
	if (!batch || kvnft_batch_add_table_simple(batch, NFT_TABLE, NFPROTO_IPV4, 1) != 0 ||
		kvnft_batch_add_chain_simple(
			batch, NFT_CHAIN, NFT_TABLE, NULL, -1, NFPROTO_IPV4, 0, NULL, 2) != 0 ||
		kvnft_batch_finish(batch, 3) != 0)
		errx(1, "no memory");
	require(kvnft_batch_send(batch), "making the chain");
	kvnft_batch_free(batch);
}

static void start_anew(const struct job *job)
{
	make_chain();
	if (job->rules.replace)
		make_apbase(job);
	usleep(SETTLE_US);
}

static int64_t nanoseconds(void)
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void measure(long rounds, const struct job *job)
{
	static void (*const ways[WAYS])(const struct job *) = {make_apbase, make_direct, make_nft};
	for (long turn = 0; turn < rounds; turn++) {
		long long times[WAYS];
		for (long i = 0; i < WAYS; i++) {
			long way = (turn + i) % WAYS;
			start_anew(job);
			int64_t start = nanoseconds();
			ways[way](job);
			times[way] = nanoseconds() - start;
		}
		printf("%lld %lld %lld\n", times[0], times[1], times[2]);
		fflush(stdout);
	}
}

/* ---- Commands ---- */

static void print_text(const struct nft_rules *rules)
{
	if (nft_flushes(rules))
		printf("flush chain ip " NFT_TABLE " " NFT_CHAIN "\n");
	for (uint32_t number = rules->first; number < rules->first + rules->count; number++) {
		struct nft_values values = nft_values_of(number);
		struct in_addr network = {values.network};
		printf("add rule ip " NFT_TABLE " " NFT_CHAIN);
		if (rules->are_short)
			printf(" meta mark %u accept\n", values.mark);
		else
			printf(" ip saddr %s/20 meta mark %u tcp dport %u accept\n", inet_ntoa(network),
				values.mark, ntohs(values.port));
	}
}

static void run_once(bool is_sent, const char *way, const struct nft_rules *rules)
{
	bool is_apbase = strcmp(way, "apbase") == 0;
	nft_build *build = is_apbase ? nft_build_apbase : nft_build_direct;
	nft_send *send = is_apbase ? nft_send_apbase : nft_send_direct;
	struct mnl_nlmsg_batch *batch = build(buffer, LIMIT, rules);
	if (!batch)
		errx(1, "%u rules do not fit", rules->count);
	if (is_sent)
		require(send(batch), "sending");
	mnl_nlmsg_batch_stop(batch);
}

static uint32_t count_of(const char *word)
{
	return (uint32_t)strtoul(word, NULL, 10);
}

static struct nft_rules rules_of(const char *kind, const char *first, const char *count)
{
	struct nft_rules rules = {
		strcmp(kind, "short") == 0, strcmp(kind, "replace") == 0, count_of(first), count_of(count)};
	return rules;
}

static void run_rounds(int argc, char **argv)
{
	struct job job = {rules_of(argv[3], "0", argv[4]), (uint32_t)(argc - 6), argv[5], argv + 6};
	if (job.rules.count % job.transactions != 0)
		errx(2, "%u transactions of the same length do not make %u rules", job.transactions,
			job.rules.count);
	nft_require_same_bytes(buffer, LIMIT, &job.rules);
	measure(atol(argv[2]), &job);
}

static bool is_command(const char *word, const char *command, bool has_words)
{
	return has_words && strcmp(word, command) == 0;
}

int main(int argc, char **argv)
{
	const char *command = argc > 1 ? argv[1] : "";
	buffer = calloc(1, KVNFT_BATCH_BUFFER_SIZE(LIMIT));
	if (!buffer)
		err(1, "calloc");
	if (is_command(command, "text", argc == 5)) {
		struct nft_rules rules = rules_of(argv[2], argv[3], argv[4]);
		print_text(&rules);
	} else if (is_command(command, "build", argc == 5) || is_command(command, "send", argc == 5)) {
		struct nft_rules rules = rules_of(argv[3], "0", argv[4]);
		run_once(command[0] == 's', argv[2], &rules);
	} else if (is_command(command, "rounds", argc >= 7)) {
		run_rounds(argc, argv);
	} else {
		errx(2, "usage: nft_commit text|build|send|rounds ...");
	}
	free(buffer);
	return 0;
}
