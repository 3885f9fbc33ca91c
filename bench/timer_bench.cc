// Timers as idle connections use them: many of one delay, each set again when its connection has input, and
// immediate ones in between. Names are group/implementation/number of timers.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include "lib/evloop.h"

namespace
{

constexpr int64_t idle_ms = 60000;

// Which timer is set again: always the oldest, or any.
std::vector<int> visiting_order(int count, bool shuffled)
{
	std::vector<int> order(static_cast<size_t>(count));
	for (int i = 0; i < count; i++)
		order[static_cast<size_t>(i)] = i;
	if (shuffled)
		std::shuffle(order.begin(), order.end(), std::mt19937(1));
	return order;
}

void apbase_rearm(benchmark::State &state, bool shuffled)
{
	std::vector<evloop_timeout> timers(static_cast<size_t>(state.range(0)));
	std::vector<int> order = visiting_order(static_cast<int>(timers.size()), shuffled);
	for (evloop_timeout &timer : timers)
		evloop_timeout_set(&timer, idle_ms);
	size_t turn = 0;
	for (auto _ : state) {
		evloop_timeout_set(&timers[static_cast<size_t>(order[turn])], idle_ms);
		turn = turn + 1 == order.size() ? 0 : turn + 1;
	}
	state.SetItemsProcessed(state.iterations());
	evloop_clean_timeouts();
}

// `common`: with event_base_init_common_timeout, libevent's queue for many timers of one delay.
void libevent_rearm(benchmark::State &state, bool shuffled, bool common)
{
	event_base *base = event_base_new();
	timeval idle = {idle_ms / 1000, 0};
	const timeval *delay = common ? event_base_init_common_timeout(base, &idle) : &idle;
	std::vector<event> timers(static_cast<size_t>(state.range(0)));
	std::vector<int> order = visiting_order(static_cast<int>(timers.size()), shuffled);
	for (event &timer : timers) {
		evtimer_assign(
			&timer, base, [](evutil_socket_t, short, void *) {}, nullptr);
		event_add(&timer, delay);
	}
	size_t turn = 0;
	for (auto _ : state) {
		event_add(&timers[static_cast<size_t>(order[turn])], delay);
		turn = turn + 1 == order.size() ? 0 : turn + 1;
	}
	state.SetItemsProcessed(state.iterations());
	for (event &timer : timers)
		event_del(&timer);
	event_base_free(base);
}

// One immediate timer, set and fired, beside idle ones.
void apbase_immediate(benchmark::State &state)
{
	std::vector<evloop_timeout> idle(static_cast<size_t>(state.range(0)));
	for (evloop_timeout &timer : idle)
		evloop_timeout_set(&timer, idle_ms);
	static int64_t fired;
	fired = 0;
	evloop_timeout immediate = {};
	immediate.cb = [](evloop_timeout *) { fired++; };
	for (auto _ : state) {
		evloop_timeout_set(&immediate, 0);
		evloop_handle_timeouts();
	}
	if (fired != state.iterations())
		state.SkipWithError("an immediate timer has not fired");
	state.SetItemsProcessed(state.iterations());
	evloop_clean_timeouts();
}

} // namespace

// The implementations take turns, size by size, so that all meet the same state of the machine.
int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	for (bool shuffled : {false, true}) {
		std::string group = shuffled ? "rearm any" : "rearm the oldest";
		for (int count : {10, 100, 1000, 10000}) {
			auto add = [&](const char *name, auto run) {
				benchmark::RegisterBenchmark((group + name).c_str(), run)->Arg(count);
			};
			add("/apbase", [=](benchmark::State &state) { apbase_rearm(state, shuffled); });
			add("/libevent",
				[=](benchmark::State &state) { libevent_rearm(state, shuffled, false); });
			add("/libevent, common",
				[=](benchmark::State &state) { libevent_rearm(state, shuffled, true); });
		}
	}
	for (int count : {0, 10, 100, 1000, 10000})
		benchmark::RegisterBenchmark("immediate beside idle ones/apbase", apbase_immediate)
			->Arg(count);
	benchmark::RunSpecifiedBenchmarks();
}
