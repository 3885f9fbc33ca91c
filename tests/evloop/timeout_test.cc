// Timeouts: set, moved, cancelled, their order and what is left of them.
#include "tests/evloop/watchers.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>

#include <gmock/gmock.h>

#include "lib/log.h"
#include "lib/time.h"
#include "tests/support/system_calls.h"

using namespace evloop_tests;
using namespace support;

namespace
{

// While it lives, the clock stands still.
class stopped_clock
{
	static timespec reading()
	{
		timespec now{};
		clock_gettime(CLOCK_MONOTONIC, &now);
		return now;
	}

	decltype(system_calls::clock_gettime)::replacement stopped_ =
		system_calls::clock_gettime.replace([now = reading()](clockid_t, timespec *time) {
			*time = now;
			return 0;
		});

public:
	const int64_t now = time_now();
};

} // namespace

// ---- evloop_timeout_add, _cancel, _set ----

using evloop_timeout_test = loop_test;

TEST_F(evloop_timeout_test, added_is_pending_and_linked_and_fires_once)
{
	timer t([](timer *self) {
		EXPECT_EQ(self->pending, 0);
		EXPECT_EQ(self->next, nullptr);
		EXPECT_EQ(self->prev, nullptr);
	});
	t.expires = 1;
	EXPECT_EQ(evloop_timeout_add(&t), 0);
	EXPECT_EQ(t.pending, 1);
	EXPECT_NE(t.next, nullptr);
	EXPECT_NE(t.prev, nullptr);
	EXPECT_EQ(t.expires, 1);
	evloop_handle_timeouts();
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
	EXPECT_EQ(t.expires, 1);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, added_twice_is_refused_and_stays_where_it_is)
{
	timer t;
	evloop_timeout_set(&t, 60'000);
	int64_t expires = t.expires;
	EXPECT_EQ(evloop_timeout_add(&t), -1);
	EXPECT_EQ(t.pending, 1);
	EXPECT_EQ(t.expires, expires);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, cancelled_is_unlinked_and_never_fires)
{
	timer t;
	t.expires = 1;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
	EXPECT_EQ(t.pending, 0);
	EXPECT_EQ(t.next, nullptr);
	EXPECT_EQ(t.prev, nullptr);
	EXPECT_EQ(t.expires, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 0);
}

// Memory that somebody wrote over: the process ends at the first step that meets it, and says where.
TEST_F(evloop_timeout_test, with_a_link_that_was_written_over_ends_the_process_and_names_the_line)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		set_app_name("stationd");
		timer first, second;
		first.expires = second.expires = 1;
		evloop_timeout_add(&first);
		evloop_timeout_add(&second);
		second.prev = nullptr;
		evloop_timeout_cancel(&first);
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_THAT(result.err,
		testing::MatchesRegex("stationd: .*lib/internal/intrusive.h:[0-9]+: invariant broken\n"));
	EXPECT_EQ(result.out, "");
}

TEST_F(evloop_timeout_test, cancelled_while_idle_is_refused)
{
	timer t;
	t.expires = 77;
	EXPECT_EQ(evloop_timeout_cancel(&t), -1);
	EXPECT_EQ(t.expires, 77);
	EXPECT_EQ(t.pending, 0);
}

TEST_F(evloop_timeout_test, set_expires_the_given_milliseconds_from_now)
{
	timer t;
	int64_t before = time_now();
	EXPECT_EQ(evloop_timeout_set(&t, 1500), 0);
	int64_t after = time_now();
	EXPECT_GE(t.expires, before + 1'500'000);
	EXPECT_LE(t.expires, after + 1'500'000);
	EXPECT_EQ(t.pending, 1);
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_timeout_test, set_moves_one_that_is_pending)
{
	std::vector<int> order;
	timer first([&](timer *) { order.push_back(1); }), second([&](timer *) { order.push_back(2); });
	evloop_timeout_set(&first, 0);
	evloop_timeout_set(&second, 60'000);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	EXPECT_EQ(evloop_timeout_set(&first, 120'000), 0);
	EXPECT_GT(evloop_get_next_timeout(), 0);
	EXPECT_EQ(evloop_timeout_set(&second, 0), 0);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	ASSERT_TRUE(run_until([&] { return !order.empty(); }));
	EXPECT_EQ(order, std::vector<int>{2});
	EXPECT_EQ(evloop_timeout_cancel(&first), 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, set_with_zero_never_fires_inside_the_call)
{
	timer t;
	EXPECT_EQ(evloop_timeout_set(&t, 0), 0);
	EXPECT_EQ(t.calls, 0);
	EXPECT_EQ(t.pending, 1);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, set_with_a_negative_delay_is_due_at_once)
{
	timer t;
	EXPECT_EQ(evloop_timeout_set(&t, -1), 0);
	EXPECT_LT(t.expires, time_now());
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_handle_timeouts();
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, set_beyond_64_bits_wraps)
{
	timer t;
	for (int64_t delay_ms :
		{INT64_MAX, INT64_MIN, INT64_MAX / 1000, INT64_MAX / 1000 + 1, INT64_MIN / 1000}) {
		uint64_t before = static_cast<uint64_t>(time_now());
		EXPECT_EQ(evloop_timeout_set(&t, delay_ms), 0);
		uint64_t after = static_cast<uint64_t>(time_now());
		uint64_t since = static_cast<uint64_t>(t.expires) - static_cast<uint64_t>(delay_ms) * 1000u;
		EXPECT_GE(since, before);
		EXPECT_LE(since, after);
	}
	EXPECT_EQ(evloop_timeout_cancel(&t), 0);
}

TEST_F(evloop_timeout_test, without_callback_is_taken_off_silently)
{
	evloop_timeout bare{};
	timer t;
	bare.expires = t.expires = 1;
	EXPECT_EQ(evloop_timeout_add(&bare), 0);
	EXPECT_EQ(evloop_timeout_add(&t), 0);
	evloop_handle_timeouts();
	EXPECT_EQ(bare.pending, 0);
	EXPECT_EQ(bare.next, nullptr);
	EXPECT_EQ(t.calls, 1);
}

TEST_F(evloop_timeout_test, that_is_not_due_does_not_fire)
{
	timer due, late;
	due.expires = 1;
	late.expires = time_now() + 60'000'000;
	evloop_timeout_add(&late);
	evloop_timeout_add(&due);
	evloop_handle_timeouts();
	EXPECT_EQ(due.calls, 1);
	EXPECT_EQ(late.calls, 0);
	EXPECT_EQ(late.pending, 1);
	evloop_timeout_cancel(&late);
	late.expires = 1; // moved instead of waited for
	evloop_timeout_add(&late);
	evloop_handle_timeouts();
	EXPECT_EQ(late.calls, 1);
}

// Many rounds, as two readings of a fine clock are often equal.
TEST_F(evloop_timeout_test, set_again_with_zero_by_its_own_callback_is_left_for_the_next_call)
{
	timer t([](timer *self) { EXPECT_EQ(evloop_timeout_set(self, 0), 0); });
	evloop_timeout_set(&t, 0);
	ASSERT_TRUE(eventually([] { return evloop_get_next_timeout() == 0; }));
	int calls_max = 0;
	for (int round = 0; round < 20'000; ++round) {
		int before = t.calls;
		evloop_handle_timeouts();
		calls_max = std::max(calls_max, t.calls - before);
		if (calls_max > 1)
			break;
	}
	EXPECT_EQ(calls_max, 1);
	EXPECT_GT(t.calls, 0);
	evloop_timeout_cancel(&t);
}

// A clock whose step is longer than a pass.
TEST_F(evloop_timeout_test, set_with_zero_in_a_pass_expires_a_microsecond_after_it)
{
	stopped_clock clock;
	timer second, first([&](timer *self) {
		evloop_timeout_set(self, 0);
		evloop_timeout_set(&second, 0);
	});
	first.expires = 1;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(first.expires, clock.now + 1);
	EXPECT_EQ(second.expires, clock.now + 1);
	evloop_clean_timeouts();
}

TEST_F(evloop_timeout_test, set_with_zero_outside_of_a_pass_expires_now)
{
	stopped_clock clock;
	timer t;
	evloop_handle_timeouts();
	evloop_timeout_set(&t, 0);
	EXPECT_EQ(t.expires, clock.now);
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_timeout_test, set_in_a_pass_expires_no_later_than_its_delay)
{
	stopped_clock clock;
	timer t;
	for (int64_t delay_ms : {1, 5, 2000, 60'000}) {
		timer first([&](timer *) { evloop_timeout_set(&t, delay_ms); });
		first.expires = 1;
		evloop_timeout_add(&first);
		evloop_handle_timeouts();
		EXPECT_EQ(t.expires, clock.now + delay_ms * 1000);
	}
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_timeout_test, set_with_a_negative_delay_in_a_pass_fires_in_it)
{
	stopped_clock clock;
	timer second, first([&](timer *) { evloop_timeout_set(&second, -1); });
	first.expires = 1;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(second.expires, clock.now - 1000);
}

TEST_F(evloop_timeout_test, set_with_zero_outside_of_a_callback_is_due_in_the_next_call)
{
	int missed = 0;
	for (int round = 0; round < 20'000; ++round) {
		timer t;
		evloop_handle_timeouts();
		evloop_timeout_set(&t, 0);
		evloop_handle_timeouts();
		missed += t.calls == 0;
		evloop_timeout_cancel(&t);
	}
	EXPECT_EQ(missed, 0);
}

TEST_F(evloop_timeout_test, set_with_zero_by_another_ones_callback_is_left_for_the_next_call)
{
	int early = 0;
	for (int round = 0; round < 20'000; ++round) {
		timer second, first([&second](timer *) { evloop_timeout_set(&second, 0); });
		first.expires = 1;
		evloop_timeout_add(&first);
		evloop_handle_timeouts();
		early += second.calls;
		evloop_timeout_cancel(&second);
	}
	EXPECT_EQ(early, 0);
}

TEST_F(evloop_timeout_test, added_by_a_callback_with_an_expiry_already_past_fires_in_the_same_call)
{
	timer second, first([&second](timer *) {
		second.expires = 1;
		EXPECT_EQ(evloop_timeout_add(&second), 0);
	});
	first.expires = 5;
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 1);
}

TEST_F(evloop_timeout_test, cancelled_by_an_earlier_callback_never_fires)
{
	timer second, third, first([&second](timer *) { EXPECT_EQ(evloop_timeout_cancel(&second), 0); });
	first.expires = second.expires = third.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_add(&third);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, postponed_by_an_earlier_callback_does_not_fire_in_the_same_pass)
{
	timer second, first([&second](timer *) { EXPECT_EQ(evloop_timeout_set(&second, 60'000), 0); });
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls, 0);
	EXPECT_EQ(evloop_timeout_cancel(&second), 0);
}

TEST_F(evloop_timeout_test, cancelling_itself_in_its_callback_is_refused)
{
	int result = 0;
	timer t([&result](timer *self) { result = evloop_timeout_cancel(self); });
	t.expires = 1;
	evloop_timeout_add(&t);
	evloop_handle_timeouts();
	EXPECT_EQ(result, -1);
}

TEST_F(evloop_timeout_test, may_be_released_by_its_own_callback)
{
	int fired = 0;
	for (int count = 0; count < 5; ++count) {
		timer *t = new timer([&fired](timer *self) {
			++fired;
			delete self;
		});
		t->expires = 1;
		evloop_timeout_add(t);
	}
	evloop_handle_timeouts();
	EXPECT_EQ(fired, 5);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, may_be_cancelled_and_released_by_another_ones_callback)
{
	timer *second = new timer, third;
	timer first([second](timer *) {
		EXPECT_EQ(evloop_timeout_cancel(second), 0);
		delete second;
	});
	first.expires = second->expires = third.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(second);
	evloop_timeout_add(&third);
	evloop_handle_timeouts();
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, cleaned_up_from_a_callback_leaves_nothing_to_fire)
{
	timer second, third, first([](timer *) { evloop_clean_timeouts(); });
	first.expires = second.expires = 1;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_set(&third, 60'000);
	evloop_handle_timeouts();
	EXPECT_EQ(second.calls + third.calls, 0);
	EXPECT_EQ(second.pending + third.pending, 0);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_timeout_test, handled_from_a_callback_runs_the_others_once)
{
	timer second, third, first([](timer *) { evloop_handle_timeouts(); });
	first.expires = second.expires = third.expires = 1;
	for (timer *t : {&first, &second, &third})
		evloop_timeout_add(t);
	evloop_handle_timeouts();
	EXPECT_EQ(first.calls, 1);
	EXPECT_EQ(second.calls, 1);
	EXPECT_EQ(third.calls, 1);
}

TEST_F(evloop_timeout_test, clean_timeouts_cancels_all_without_callbacks)
{
	std::array<timer, 5> timers;
	for (timer &t : timers) {
		t.expires = 1;
		evloop_timeout_add(&t);
	}
	evloop_clean_timeouts();
	evloop_clean_timeouts();
	evloop_handle_timeouts();
	for (timer &t : timers) {
		EXPECT_EQ(t.calls, 0);
		EXPECT_EQ(t.pending, 0);
		EXPECT_EQ(t.next, nullptr);
		EXPECT_EQ(t.prev, nullptr);
	}
}

// ---- order ----

using evloop_timeout_order = loop_test;

namespace
{

// Adds one timeout for each of `expires`, and returns the indexes in the order in which they fire.
std::vector<size_t> firing_order(const std::vector<int64_t> &expires)
{
	std::vector<size_t> order;
	std::vector<std::unique_ptr<timer>> timers;
	for (size_t index = 0; index < expires.size(); ++index) {
		timers.push_back(
			std::make_unique<timer>([&order, index](timer *) { order.push_back(index); }));
		timers.back()->expires = expires[index];
		EXPECT_EQ(evloop_timeout_add(timers.back().get()), 0);
	}
	evloop_handle_timeouts();
	evloop_clean_timeouts();
	return order;
}

} // namespace

TEST_F(evloop_timeout_order, is_that_of_adding_among_equals)
{
	EXPECT_EQ(firing_order({7, 7, 7}), (std::vector<size_t>{0, 1, 2}));
	EXPECT_EQ(
		firing_order({7, 7, 9, 9, 7, 5, 9, 7, 5}), (std::vector<size_t>{5, 8, 0, 1, 4, 7, 2, 3, 6}));
}

TEST_F(evloop_timeout_order, is_that_of_expiry)
{
	EXPECT_EQ(firing_order({1, 2, 3, 4}), (std::vector<size_t>{0, 1, 2, 3}));
	EXPECT_EQ(firing_order({4, 3, 2, 1}), (std::vector<size_t>{3, 2, 1, 0}));
	EXPECT_EQ(firing_order({3, 1, 4, 2, 0}), (std::vector<size_t>{4, 1, 3, 0, 2}));
}

TEST_F(evloop_timeout_order, puts_a_timeout_set_anew_behind_its_equals)
{
	std::vector<int> order;
	timer first([&](timer *) { order.push_back(1); }), second([&](timer *) { order.push_back(2); });
	first.expires = second.expires = 3;
	evloop_timeout_add(&first);
	evloop_timeout_add(&second);
	evloop_timeout_cancel(&first);
	evloop_timeout_add(&first);
	evloop_handle_timeouts();
	EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST_F(evloop_timeout_order, compares_unsigned_so_that_negative_expiries_come_last_and_are_never_due)
{
	EXPECT_EQ(firing_order({-1, 5, INT64_MIN, 3, -7}), (std::vector<size_t>{3, 1}));
	timer negative;
	negative.expires = -1;
	evloop_timeout_add(&negative);
	EXPECT_EQ(evloop_get_next_timeout(), INT32_MAX);
	evloop_handle_timeouts();
	EXPECT_EQ(negative.calls, 0);

	timer largest;
	largest.expires = time_now() + 90'000'000;
	evloop_timeout_add(&largest);
	EXPECT_LE(evloop_get_next_timeout(), 90'000); // before the negative one
	EXPECT_EQ(evloop_timeout_cancel(&negative), 0);
	EXPECT_EQ(evloop_timeout_cancel(&largest), 0);
}

TEST_F(evloop_timeout_order, compares_all_64_bits)
{
	constexpr int64_t high = int64_t{1} << 32;
	int64_t far = (int64_t{1} << 62);
	timer t[4];
	t[0].expires = far + high; // its low half is the smallest, its high half the largest
	t[1].expires = far + high - 1;
	t[2].expires = far + 0x8000'0000;
	t[3].expires = far + 0x7fff'ffff;
	for (timer &each : t)
		evloop_timeout_add(&each);
	EXPECT_EQ(t[3].next, &t[2]);
	EXPECT_EQ(t[2].next, &t[1]);
	EXPECT_EQ(t[1].next, &t[0]);
	evloop_clean_timeouts();
}

// Against an ordered multimap, which keeps equals in the order of insertion as well.
TEST_F(evloop_timeout_order, agrees_with_a_sorted_reference_under_random_use)
{
	std::mt19937 random(20240611);
	auto below = [&random](unsigned count) {
		return std::uniform_int_distribution<unsigned>(0, count - 1)(random);
	};
	constexpr unsigned count = 60;
	const std::array<int64_t, 6> extremes = {0, -1, INT64_MIN, INT64_MAX, INT64_MAX - 1, INT64_MIN + 1};
	for (int round = 0; round < 60; ++round) {
		std::multimap<uint64_t, timer *> reference;
		std::vector<timer *> fired;
		std::vector<std::unique_ptr<timer>> timers;
		for (unsigned index = 0; index < count; ++index)
			timers.push_back(
				std::make_unique<timer>([&fired](timer *self) { fired.push_back(self); }));
		auto forget = [&reference](timer *t) {
			for (auto entry = reference.begin(); entry != reference.end(); ++entry)
				if (entry->second == t) {
					reference.erase(entry);
					return true;
				}
			return false;
		};
		for (int step = 0; step < 400; ++step) {
			timer *t = timers[below(count)].get();
			switch (below(8)) {
			case 0:
			case 1:
			case 2:
			case 3: { // few different values, so that many are equal
				bool pending = t->pending;
				if (!pending)
					t->expires = below(40) == 0 ? extremes[below(extremes.size())]
								    : below(12) + 1;
				ASSERT_EQ(evloop_timeout_add(t), pending ? -1 : 0);
				if (!pending)
					reference.emplace(static_cast<uint64_t>(t->expires), t);
				break;
			}
			case 4:
			case 5: {
				bool pending = t->pending;
				ASSERT_EQ(forget(t), pending);
				ASSERT_EQ(evloop_timeout_cancel(t), pending ? 0 : -1);
				break;
			}
			case 6:
				forget(t);
				ASSERT_EQ(evloop_timeout_set(t, 3'600'000 + below(3)), 0);
				reference.emplace(static_cast<uint64_t>(t->expires), t);
				break;
			default:
				if (below(20) != 0)
					break;
				fired.clear();
				evloop_handle_timeouts();
				for (timer *was_due : fired) {
					ASSERT_FALSE(reference.empty());
					ASSERT_EQ(was_due, reference.begin()->second);
					reference.erase(reference.begin());
				}
				ASSERT_TRUE(reference.empty() || reference.begin()->first > 1000);
			}
			if (reference.empty())
				ASSERT_EQ(evloop_get_next_timeout(), -1);
			else
				ASSERT_EQ(evloop_get_next_timeout() == 0, reference.begin()->first <= 1000);
			// The loop's links run through all of them in order.
			const evloop_timeout *previous = nullptr;
			for (auto &entry : reference) {
				ASSERT_EQ(entry.second->pending, 1);
				if (previous) {
					ASSERT_EQ(previous->next, entry.second);
					ASSERT_EQ(entry.second->prev, previous);
				}
				previous = entry.second;
			}
		}
		evloop_clean_timeouts();
		for (auto &t : timers)
			ASSERT_EQ(t->pending, 0);
	}
}

TEST_F(evloop_timeout_order, holds_for_each_place_in_lists_of_each_length)
{
	for (int64_t length = 0; length <= 12; ++length)
		for (int64_t place = 0; place <= 2 * length + 1; ++place) {
			std::vector<int64_t> expires; // 2, 4, 6, ... and one at, or between, any of them
			for (int64_t index = 1; index <= length; ++index)
				expires.push_back(2 * index);
			expires.push_back(place + 1);
			std::vector<size_t> expected(expires.size());
			for (size_t index = 0; index < expected.size(); ++index)
				expected[index] = index;
			std::stable_sort(expected.begin(), expected.end(),
				[&](size_t a, size_t b) { return expires[a] < expires[b]; });
			ASSERT_EQ(firing_order(expires), expected) << length << " and one at " << place + 1;
		}
}

// ---- evloop_get_next_timeout ----

using evloop_next_timeout = loop_test;

TEST_F(evloop_next_timeout, is_minus_one_without_timeouts)
{
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(evloop_next_timeout, is_zero_for_one_that_is_due)
{
	timer t;
	t.expires = time_now();
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
	t.expires = 0;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
}

TEST_F(evloop_next_timeout, is_truncated_to_whole_milliseconds)
{
	timer t;
	t.expires = time_now() + 999;
	evloop_timeout_add(&t);
	EXPECT_EQ(evloop_get_next_timeout(), 0);
	evloop_timeout_cancel(&t);
	for (int64_t microseconds : {100'000'999, 100'000'001}) {
		t.expires = time_now() + microseconds;
		evloop_timeout_add(&t);
		EXPECT_LE(evloop_get_next_timeout(), 100'000);
		EXPECT_GT(evloop_get_next_timeout(), 100'000 - deadline_ms);
		evloop_timeout_cancel(&t);
	}
}

TEST_F(evloop_next_timeout, is_that_of_the_earliest)
{
	timer early, late;
	evloop_timeout_set(&late, 3'600'000);
	EXPECT_GT(evloop_get_next_timeout(), 3'600'000 - deadline_ms);
	evloop_timeout_set(&early, 600'000);
	EXPECT_LE(evloop_get_next_timeout(), 600'000);
	EXPECT_GT(evloop_get_next_timeout(), 600'000 - deadline_ms);
	evloop_timeout_cancel(&early);
	EXPECT_GT(evloop_get_next_timeout(), 3'600'000 - deadline_ms);
	evloop_timeout_cancel(&late);
}

TEST_F(evloop_next_timeout, saturates_at_the_largest_32_bit_number)
{
	constexpr int64_t largest_us = int64_t{INT32_MAX} * 1000;
	timer t;
	for (int64_t expires : {time_now() + largest_us + 60'000'000, time_now() + 3 * largest_us, INT64_MAX,
		     int64_t{-1}, INT64_MIN, INT64_MIN + time_now() + 5'000'000}) {
		t.expires = expires;
		evloop_timeout_add(&t);
		EXPECT_EQ(evloop_get_next_timeout(), INT32_MAX) << expires;
		evloop_timeout_cancel(&t);
	}
	t.expires = time_now() + largest_us - 1'000'000;
	evloop_timeout_add(&t);
	EXPECT_LE(evloop_get_next_timeout(), INT32_MAX - 1000);
	EXPECT_GT(evloop_get_next_timeout(), INT32_MAX - 1000 - deadline_ms);
	evloop_timeout_cancel(&t);
}

// ---- evloop_timeout_remaining ----

using evloop_timeout_remaining_test = loop_test;

namespace
{

// The answer for a timeout `ahead_us` from now, from a call made within `slack_us` of reading the clock.
int32_t remaining_at(int64_t ahead_us, int64_t slack_us = 500'000)
{
	timer t;
	for (;;) {
		int64_t before = time_now();
		t.expires =
			static_cast<int64_t>(static_cast<uint64_t>(before) + static_cast<uint64_t>(ahead_us));
		int32_t answer = evloop_timeout_remaining(&t);
		if (time_now() - before < slack_us)
			return answer;
	}
}

} // namespace

TEST_F(evloop_timeout_remaining_test, counts_whole_seconds)
{
	EXPECT_EQ(remaining_at(1'500'000, 400'000), 1);
	EXPECT_EQ(remaining_at(999'999), 0);
	EXPECT_EQ(remaining_at(60'600'000), 60);
	EXPECT_EQ(remaining_at(2'146'900'000), 2146);
}

TEST_F(evloop_timeout_remaining_test, is_zero_once_the_expiry_has_passed)
{
	timer t;
	t.expires = time_now();
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
	EXPECT_EQ(remaining_at(-1), 0);
	EXPECT_EQ(remaining_at(-5'000'000), 0);
	t.expires = 1;
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
}

TEST_F(evloop_timeout_remaining_test, does_not_look_at_pending)
{
	timer t;
	for (;;) {
		int64_t before = time_now();
		evloop_timeout_set(&t, 7900);
		evloop_timeout_cancel(&t);
		int32_t answer = evloop_timeout_remaining(&t);
		if (time_now() - before < 500'000) {
			EXPECT_EQ(answer, 7);
			break;
		}
	}
	t.expires = 1;
	evloop_timeout_add(&t);
	evloop_handle_timeouts();
	EXPECT_EQ(evloop_timeout_remaining(&t), 0);
}

TEST_F(evloop_timeout_remaining_test, wraps_as_a_signed_32_bit_count_of_microseconds)
{
	constexpr int64_t wrap = int64_t{1} << 32;
	EXPECT_EQ(remaining_at(wrap + 5'900'000), 5);
	EXPECT_EQ(remaining_at(10 * wrap + 5'900'000), 5);
	// Above 2^31 microseconds the low half is negative; it is divided towards zero.
	EXPECT_EQ(remaining_at(wrap - 1'294'000'001), -1294);
	EXPECT_EQ(remaining_at(wrap - 400'000, 100'000), 0);
}

TEST_F(evloop_timeout_remaining_test, takes_a_negative_expiry_for_a_far_one)
{
	EXPECT_EQ(remaining_at(INT64_MIN + 5'900'000), 5);
}
