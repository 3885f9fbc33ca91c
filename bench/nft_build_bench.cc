// Rules built into a batch, by lib/nft and by direct calls of libnftnl.
// Names are group/implementation/number of rules.
#include <benchmark/benchmark.h>

#include <vector>

#include "lib/nft.h"
#include "nft_rules.h"

namespace
{

constexpr size_t limit = 1 << 20;

std::vector<char> &buffer()
{
	static std::vector<char> bytes(KVNFT_BATCH_BUFFER_SIZE(limit));
	return bytes;
}

void build(benchmark::State &state, nft_build *how, bool are_short)
{
	nft_rules rules = {are_short, false, 0, static_cast<uint32_t>(state.range(0))};
	for (auto _ : state) {
		mnl_nlmsg_batch *batch = how(buffer().data(), limit, &rules);
		if (!batch) {
			state.SkipWithError("no memory");
			break;
		}
		mnl_nlmsg_batch_stop(batch);
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

// The implementations take turns, size by size, so that all meet the same state of the machine.
int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	for (uint32_t count : {1, 200, 1000})
		for (bool are_short : {false, true}) {
			nft_rules rules = {are_short, false, 0, count};
			nft_require_same_bytes(buffer().data(), limit, &rules);
			auto add = [=](const char *name, nft_build *how) {
				auto run = [=](benchmark::State &state) { build(state, how, are_short); };
				benchmark::RegisterBenchmark(name, run)->Arg(count);
			};
			add(are_short ? "3 expressions/apbase" : "10 expressions/apbase", nft_build_apbase);
			add(are_short ? "3 expressions/libnftnl" : "10 expressions/libnftnl",
				nft_build_direct);
		}
	benchmark::RunSpecifiedBenchmarks();
}
