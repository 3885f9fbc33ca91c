/* Checks that lib/nft and the direct calls build the same bytes. */
#include "nft_rules.h"

#include <err.h>
#include <stdlib.h>
#include <string.h>

#include "lib/nft.h"

/* In a cleared buffer: libmnl leaves gaps as they are. */
static size_t build_anew(nft_build *build, void *buf, size_t limit, const struct nft_rules *rules)
{
	memset(buf, 0, KVNFT_BATCH_BUFFER_SIZE(limit));
	struct mnl_nlmsg_batch *batch = build(buf, limit, rules);
	if (!batch)
		errx(1, "%u rules do not fit in %zu bytes", rules->count, limit);
	size_t size = mnl_nlmsg_batch_size(batch);
	mnl_nlmsg_batch_stop(batch);
	return size;
}

void nft_require_same_bytes(void *buf, size_t limit, const struct nft_rules *rules)
{
	size_t size = build_anew(nft_build_direct, buf, limit, rules);
	char *bytes = malloc(size);
	if (!bytes)
		err(1, "malloc");
	memcpy(bytes, buf, size);
	if (build_anew(nft_build_apbase, buf, limit, rules) != size || memcmp(buf, bytes, size) != 0)
		errx(1, "lib/nft and direct calls do not build the same bytes");
	free(bytes);
}
