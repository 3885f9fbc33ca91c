/*
 * The measured rules, numbered from 0, and two ways to put them into a batch and send it: by lib/nft, and by
 * direct calls of libnftnl and libmnl. Both build the same bytes.
 *
 * A long rule has ten expressions, a short one three; in the words of `nft`
 *	ip saddr 10.x.y.0/20 meta mark NUMBER tcp dport NUMBER accept
 *	meta mark NUMBER accept
 */
#pragma once
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NFT_TABLE "bench"
#define NFT_CHAIN "rules"

#define NFT_SADDR_OFFSET 12 /* in an IPv4 header */
#define NFT_DPORT_OFFSET 2  /* in a TCP header */

struct nft_rules {
	bool are_short;
	bool replace; /* the transaction with rule 0 first deletes all rules of the chain */
	uint32_t first;
	uint32_t count; /* first + count <= 4096, the number of networks */
};

/* The values of one rule; addresses and ports in network order. */
struct nft_values {
	uint32_t network, mask;
	uint32_t mark;
	uint16_t port;
};

static inline bool nft_flushes(const struct nft_rules *rules)
{
	return rules->replace && rules->first == 0;
}

static inline struct nft_values nft_values_of(uint32_t number)
{
	struct nft_values values;
	values.network = htonl((UINT32_C(10) << 24) + (number << 12));
	values.mask = htonl(UINT32_C(0xfffff000));
	values.mark = number + 1;
	values.port = htons((uint16_t)(1024 + number));
	return values;
}

/*
 * Builds the transaction in `buf`, which has KVNFT_BATCH_BUFFER_SIZE(limit) bytes. The messages have the
 * sequence numbers 0, 1 and so on. Null: memory is exhausted, or the limit too low. To be ended with
 * mnl_nlmsg_batch_stop.
 */
typedef struct mnl_nlmsg_batch *nft_build(void *buf, size_t limit, const struct nft_rules *rules);
nft_build nft_build_apbase, nft_build_direct;

/* Sends it, and takes the kernel's answers: 0, or a negated errno value. */
typedef int nft_send(struct mnl_nlmsg_batch *batch);
nft_send nft_send_apbase, nft_send_direct;

/* Ends the process if the two ways do not give the same bytes. */
void nft_require_same_bytes(void *buf, size_t limit, const struct nft_rules *rules);

#ifdef __cplusplus
}
#endif
