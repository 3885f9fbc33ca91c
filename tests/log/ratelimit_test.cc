// The rate limit of messages.
#include "tests/log/scene.h"

#include <syslog.h>

#include "lib/time.h"

using namespace log_tests;

namespace
{

// Runs `body` with messages on the standard streams, and returns those of priority 4.
std::string suppressed_reports(const std::function<void()> &body)
{
	child_result result = support::run_child([&body] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		body();
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out, "");
	return result.err;
}

// The results of `count` calls in a row.
std::string results(ratelimit_state *state, int count)
{
	std::string text;
	while (count-- > 0)
		text += ___ratelimit(state, "noise") ? '1' : '0';
	return text;
}

constexpr int32_t HOUR_MS = 3600 * 1000; // no test takes that long

} // namespace

TEST(ratelimit, of_interval_0_always_allows_and_leaves_the_counters_alone)
{
	for (int32_t burst : {0, 1, -1, 10}) {
		ratelimit_state state = {0, burst, 5, 6, 7};
		EXPECT_EQ(results(&state, 20), std::string(20, '1'));
		EXPECT_EQ(state.interval, 0);
		EXPECT_EQ(state.burst, burst);
		EXPECT_EQ(state.printed, 5);
		EXPECT_EQ(state.missed, 6);
		EXPECT_EQ(state.begin, 7u);
	}
	ratelimit_state fresh = {0, 1, 0, 0, 0};
	EXPECT_EQ(results(&fresh, 2), "11");
	EXPECT_EQ(fresh.begin, 0u);
}

TEST(ratelimit, allows_a_burst_and_then_refuses)
{
	ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
	EXPECT_EQ(results(&state, 5), "11100");
	EXPECT_EQ(state.printed, 3);
	EXPECT_EQ(state.missed, 2);
	EXPECT_EQ(state.interval, HOUR_MS);
	EXPECT_EQ(state.burst, 3);
}

TEST(ratelimit, starts_the_period_with_the_first_call)
{
	ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
	uint64_t before = time_now_msec();
	results(&state, 1);
	uint64_t begin = state.begin;
	EXPECT_LE(before, begin);
	EXPECT_LE(begin, time_now_msec());
	results(&state, 5);
	EXPECT_EQ(state.begin, begin);
}

TEST(ratelimit, reports_what_it_refused_with_the_first_call_of_the_next_period)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {1000, 3, 0, 0, 0};
		state.interval = HOUR_MS;
		EXPECT_EQ(results(&state, 5), "11100");
		uint64_t before = time_now_msec();
		state.begin = before - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "1");
		EXPECT_EQ(state.missed, 0);
		EXPECT_EQ(state.printed, 1);
		EXPECT_LE(before, state.begin);
		EXPECT_LE(state.begin, time_now_msec());
		EXPECT_EQ(results(&state, 4), "1100");
		EXPECT_EQ(state.missed, 2);
	});
	EXPECT_EQ(reports, "noise: 2 callbacks suppressed\n");
}

TEST(ratelimit, reports_at_priority_4)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, "foo");
		ratelimit_state state = {HOUR_MS, 1, 1, 5, time_now_msec() - HOUR_MS - 1};
		EXPECT_EQ(___ratelimit(&state, "%s"), 1);
	});
	EXPECT_EQ(s.kmsg(), "<4>foo: %s: 5 callbacks suppressed\n");
}

TEST(ratelimit, reports_nothing_after_a_period_without_refusals)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 3, 0, 0, 0};
		for (int period = 0; period < 3; period++) {
			EXPECT_EQ(results(&state, 3), "111");
			state.begin = time_now_msec() - HOUR_MS - 1;
		}
	});
	EXPECT_EQ(reports, "");
}

TEST(ratelimit, of_burst_0_refuses_all_and_reports_in_each_period)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 0, 0, 0, 0};
		EXPECT_EQ(results(&state, 4), "0000");
		EXPECT_EQ(state.missed, 4);
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.missed, 1); // the call that reported was refused, too
		EXPECT_EQ(results(&state, 1), "0");
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.printed, 0);
	});
	EXPECT_EQ(reports, "noise: 4 callbacks suppressed\nnoise: 2 callbacks suppressed\n");
}

TEST(ratelimit, of_burst_0_refuses_whatever_the_count_says)
{
	ratelimit_state state = {HOUR_MS, 0, -3, 0, 0};
	EXPECT_EQ(results(&state, 2), "00");
	EXPECT_EQ(state.printed, -3);
}

TEST(ratelimit, of_a_negative_burst_refuses_all)
{
	ratelimit_state state = {HOUR_MS, -5, 0, 0, 0};
	EXPECT_EQ(results(&state, 3), "000");
	EXPECT_EQ(state.missed, 3);
	EXPECT_EQ(state.printed, 0);
}

TEST(ratelimit, of_the_largest_burst_stops_there)
{
	ratelimit_state state = {HOUR_MS, INT32_MAX, INT32_MAX - 1, 0, 0};
	EXPECT_EQ(results(&state, 3), "100");
	EXPECT_EQ(state.printed, INT32_MAX);
}

TEST(ratelimit, counts_refusals_up_to_the_largest_number_and_stays_there)
{
	std::string reports = suppressed_reports([] {
		ratelimit_state state = {HOUR_MS, 0, 0, INT32_MAX - 1, 0};
		EXPECT_EQ(results(&state, 3), "000");
		EXPECT_EQ(state.missed, INT32_MAX);
		state.begin = time_now_msec() - HOUR_MS - 1;
		EXPECT_EQ(results(&state, 1), "0");
		EXPECT_EQ(state.missed, 1);
	});
	EXPECT_EQ(reports, "noise: 2147483647 callbacks suppressed\n");
}

TEST(ratelimit, counts_the_very_last_millisecond_to_the_period)
{
	// Repeated until the clock stands still around the call.
	for (int attempt = 0; attempt < 100000; attempt++) {
		ratelimit_state state = {1000, 1, 1, 1, 0};
		uint64_t now = time_now_msec();
		uint64_t begin = state.begin = now - 1000;
		int result = ___ratelimit(&state, "noise");
		if (time_now_msec() != now)
			continue;
		EXPECT_EQ(result, 0);
		EXPECT_EQ(state.missed, 2);
		EXPECT_EQ(state.begin, begin);
		return;
	}
	FAIL() << "the clock never stood still";
}

TEST(ratelimit, ends_the_period_one_millisecond_later)
{
	ratelimit_state state = {1000, 1, 1, 0, 0};
	state.begin = time_now_msec() - 1001;
	EXPECT_EQ(results(&state, 1), "1");
	EXPECT_EQ(state.printed, 1);
}

TEST(ratelimit, of_a_negative_interval_has_ended_when_it_began_recently)
{
	// begin - 1000 lies in the past: every call is the first of a new period.
	ratelimit_state state = {-1000, 1, 0, 0, 0};
	EXPECT_EQ(results(&state, 5), "11111");
	EXPECT_EQ(state.printed, 1);
	EXPECT_EQ(state.missed, 0);
}

TEST(ratelimit, of_a_negative_interval_never_ends_when_that_leads_below_the_clocks_zero)
{
	// 1 - 1000 is near the end of the unsigned range.
	for (int32_t interval : {-2, -1000, INT32_MIN}) {
		ratelimit_state state = {interval, 1, 1, 0, 1};
		EXPECT_EQ(results(&state, 3), "000");
		EXPECT_EQ(state.missed, 3);
		EXPECT_EQ(state.begin, 1u);
	}
}

TEST(ratelimit, of_the_largest_interval_is_computed_in_64_bits)
{
	ratelimit_state state = {INT32_MAX, 1, 1, 0, 0};
	state.begin = time_now_msec();
	EXPECT_EQ(results(&state, 1), "0");
	state.missed = 0;
	state.begin = time_now_msec() - INT32_MAX - 1; // may wrap below the clock's zero, and back
	EXPECT_EQ(results(&state, 1), "1");
}

TEST(ratelimit, waits_for_a_period_that_begins_in_the_future)
{
	ratelimit_state state = {1000, 1, 1, 0, 0};
	uint64_t begin = state.begin = time_now_msec() + HOUR_MS;
	EXPECT_EQ(results(&state, 2), "00");
	EXPECT_EQ(state.begin, begin);
}

TEST(ratelimit, keeps_its_states_apart)
{
	ratelimit_state one = {HOUR_MS, 1, 0, 0, 0}, other = {HOUR_MS, 2, 0, 0, 0};
	EXPECT_EQ(results(&one, 2), "10");
	EXPECT_EQ(results(&other, 3), "110");
	EXPECT_EQ(one.missed, 1);
	EXPECT_EQ(other.missed, 1);
}
