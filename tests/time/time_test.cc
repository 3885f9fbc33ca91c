// Time values: conversions, the short range and its wrapped results, and the clocks.
#include "lib/time.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>

#include "tests/support/system_calls.h"

namespace
{

class stopped_clock : public testing::Test
{
	timespec reading_{};
	decltype(system_calls::clock_gettime)::replacement stopped_ =
		system_calls::clock_gettime.replace([this](clockid_t clock, timespec *time) {
			clock_asked = clock;
			*time = reading_;
			return 0;
		});

protected:
	clockid_t clock_asked = -1;

	void stop_at(time_t sec, long nsec)
	{
		reading_ = {sec, nsec};
		clock_asked = -1;
	}
};

// The tests below set the process's time zone; the one found is put back.
class time_zone : public testing::Test
{
	std::string old_zone_;
	bool had_zone_;

protected:
	time_zone() : had_zone_(getenv("TZ") != nullptr)
	{
		if (had_zone_)
			old_zone_ = getenv("TZ");
	}

	~time_zone() override
	{
		if (had_zone_)
			setenv("TZ", old_zone_.c_str(), 1);
		else
			unsetenv("TZ");
		tzset();
	}

	static void enter(const char *zone)
	{
		setenv("TZ", zone, 1);
		tzset();
	}
};

int64_t from_timespec(time_t sec, long nsec)
{
	timespec time = {sec, nsec};
	return time_from_timespec(&time);
}

int64_t from_timeval(time_t sec, suseconds_t usec)
{
	timeval time = {sec, usec};
	return time_from_timeval(&time);
}

void expect_timespec(int64_t time, time_t sec, long nsec)
{
	timespec result = {77, 77};
	EXPECT_EQ(time_to_timespec(&result, time), &result);
	EXPECT_EQ(result.tv_sec, sec) << "of " << time;
	EXPECT_EQ(result.tv_nsec, nsec) << "of " << time;
}

void expect_timeval(int64_t time, time_t sec, suseconds_t usec)
{
	timeval result = {77, 77};
	EXPECT_EQ(time_to_timeval(&result, time), &result);
	EXPECT_EQ(result.tv_sec, sec) << "of " << time;
	EXPECT_EQ(result.tv_usec, usec) << "of " << time;
}

constexpr int64_t hour_us = 3600LL * 1000000;

} // namespace

TEST(time_from_timespec, truncates_nanoseconds_to_microseconds)
{
	EXPECT_EQ(from_timespec(2, 999999999), 2999999);
	EXPECT_EQ(from_timespec(0, 999), 0);
	EXPECT_EQ(from_timespec(0, 1000), 1);
	EXPECT_EQ(from_timespec(0, 0), 0);
}

TEST(time_from_timespec, adds_the_nanoseconds_to_negative_seconds)
{
	EXPECT_EQ(from_timespec(-1, 500000000), -500000);
	EXPECT_EQ(from_timespec(-3, 1999), -2999999);
}

TEST(time_from_timespec, truncates_negative_nanoseconds_towards_zero)
{
	EXPECT_EQ(from_timespec(0, -999), 0);
	EXPECT_EQ(from_timespec(0, -1001), -1);
	EXPECT_EQ(from_timespec(1, -1000), 999999);
}

TEST(time_from_timespec, works_on_64_bits)
{
	EXPECT_EQ(from_timespec(2148, 0), 2148000000);
	EXPECT_EQ(from_timespec(INT32_MAX, 999999999), 2147483647999999);
	EXPECT_EQ(from_timespec(INT32_MIN, 0), -2147483648000000);
}

TEST(time_from_timespec, wraps_a_result_that_does_not_fit)
{
	if constexpr (sizeof(time_t) == 8) {
		time_t most = static_cast<time_t>(INT64_MAX), least = static_cast<time_t>(INT64_MIN);
		EXPECT_EQ(from_timespec(most, 0), -1000000); // (2^63 - 1) * 1000000 mod 2^64
		EXPECT_EQ(from_timespec(least, 5000), 5);    // 2^63 * 1000000 mod 2^64 is 0
		EXPECT_EQ(from_timespec(9223372036854, 775808000), INT64_MIN); // one above INT64_MAX
		EXPECT_EQ(from_timespec(9223372036854, 775807000), INT64_MAX);
	}
}

TEST(time_from_timeval, adds_seconds_and_microseconds)
{
	EXPECT_EQ(from_timeval(0, 0), 0);
	EXPECT_EQ(from_timeval(1, 500000), 1500000);
	EXPECT_EQ(from_timeval(-1, 500000), -500000);
	EXPECT_EQ(from_timeval(-1, -500000), -1500000);
	EXPECT_EQ(from_timeval(1, -1), 999999);
}

TEST(time_from_timeval, works_on_64_bits)
{
	EXPECT_EQ(from_timeval(2148, 1), 2148000001);
	EXPECT_EQ(from_timeval(INT32_MAX, 999999), 2147483647999999);
	EXPECT_EQ(from_timeval(INT32_MIN, 0), -2147483648000000);
}

TEST(time_from_timeval, wraps_a_result_that_does_not_fit)
{
	if constexpr (sizeof(time_t) == 8) {
		EXPECT_EQ(from_timeval(static_cast<time_t>(INT64_MAX), 0), -1000000);
		EXPECT_EQ(from_timeval(static_cast<time_t>(INT64_MIN), 5), 5);
		EXPECT_EQ(from_timeval(9223372036854, 775807), INT64_MAX);
		EXPECT_EQ(from_timeval(9223372036854, 775808), INT64_MIN);
		EXPECT_EQ(from_timeval(0, static_cast<suseconds_t>(INT64_MIN)), INT64_MIN);
	}
}

TEST(time_to_timespec, splits_seconds_and_nanoseconds)
{
	expect_timespec(0, 0, 0);
	expect_timespec(2500000, 2, 500000000);
	expect_timespec(999999, 0, 999999000);
	expect_timespec(INT32_MAX, 2147, 483647000);
}

TEST(time_to_timespec, wraps_the_seconds_but_not_the_nanoseconds_above_the_short_range)
{
	expect_timespec(2147483648, -2147, 483648000);
	expect_timespec(3000000000, -1294, 0);
	expect_timespec(4294967296, 0, 967296000);
	expect_timespec(4294967296 + 1000000, 1, 967296000);
	expect_timespec(INT64_MAX, 0, 775807000);
}

TEST(time_to_timespec, reads_a_negative_value_as_unsigned_for_the_nanoseconds)
{
	expect_timespec(-1, 0, 551615000);       // 2^64 - 1 ends in 551615
	expect_timespec(-1500000, -1, 51616000); // 2^64 - 1500000 ends in 051616
	expect_timespec(INT32_MIN, -2147, 67968000);
	expect_timespec(INT64_MIN, 0, 775808000);
}

TEST(time_to_timeval, splits_seconds_and_microseconds)
{
	expect_timeval(0, 0, 0);
	expect_timeval(1500000, 1, 500000);
	expect_timeval(999999, 0, 999999);
	expect_timeval(INT32_MAX, 2147, 483647);
}

TEST(time_to_timeval, wraps_both_fields_above_the_short_range)
{
	expect_timeval(2147483648, -2147, -483648);
	expect_timeval(3000000000, -1294, -967296);
	expect_timeval(4294967296, 0, 0);
	expect_timeval(4294967296 + 1500000, 1, 500000);
	expect_timeval(INT64_MAX, 0, -1);
	expect_timeval(INT64_MIN, 0, 0);
}

TEST(time_to_timeval, gives_negative_fields_for_a_negative_value)
{
	expect_timeval(-1, 0, -1);
	expect_timeval(-1500000, -1, -500000);
	expect_timeval(INT32_MIN, -2147, -483648);
}

TEST(time_to_timeval, and_time_to_timespec_are_undone_in_the_short_range)
{
	for (int64_t time : {int64_t{0}, int64_t{1}, int64_t{999999}, int64_t{1000000}, int64_t{INT32_MAX}}) {
		timespec spec;
		timeval val;
		EXPECT_EQ(time_from_timespec(time_to_timespec(&spec, time)), time);
		EXPECT_EQ(time_from_timeval(time_to_timeval(&val, time)), time);
		EXPECT_EQ(time_from_timeval(time_to_timeval(&val, -time)), -time);
	}
}

TEST(time_now, reads_the_monotonic_clock_in_microseconds)
{
	timespec before, after;
	clock_gettime(CLOCK_MONOTONIC, &before);
	int64_t now = time_now();
	clock_gettime(CLOCK_MONOTONIC, &after);
	EXPECT_LE(time_from_timespec(&before), now);
	EXPECT_LE(now, time_from_timespec(&after));
}

TEST(time_now, never_decreases)
{
	int64_t last = time_now();
	for (int round = 0; round < 10000; round++) {
		int64_t now = time_now();
		ASSERT_LE(last, now);
		last = now;
	}
}

TEST(time_now_clock, reads_the_clock_named)
{
	for (clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC, CLOCK_BOOTTIME, CLOCK_PROCESS_CPUTIME_ID}) {
		timespec before, after;
		clock_gettime(clock, &before);
		int64_t now = time_now_clock(clock);
		clock_gettime(clock, &after);
		EXPECT_LE(time_from_timespec(&before), now) << "clock " << clock;
		EXPECT_LE(now, time_from_timespec(&after)) << "clock " << clock;
	}
}

TEST(time_now_msec, agrees_with_time_now)
{
	int64_t before = time_now() / 1000;
	uint64_t now = time_now_msec();
	int64_t after = time_now() / 1000;
	EXPECT_LE(static_cast<uint64_t>(before), now);
	EXPECT_LE(now, static_cast<uint64_t>(after));
}

TEST(time_now_msec_clock, agrees_with_time_now_clock)
{
	int64_t before = time_now_clock(CLOCK_REALTIME) / 1000;
	uint64_t now = time_now_msec_clock(CLOCK_REALTIME);
	int64_t after = time_now_clock(CLOCK_REALTIME) / 1000;
	EXPECT_LE(static_cast<uint64_t>(before), now);
	EXPECT_LE(now, static_cast<uint64_t>(after));
}

TEST(time_now_sec_clock, takes_its_seconds_from_the_low_32_bits_of_a_real_reading)
{
	// The date is far above the short range. Repeated until no second passes between the readings.
	for (int attempt = 0; attempt < 1000; attempt++) {
		timeval before, after;
		time_to_timeval(&before, time_now_clock(CLOCK_REALTIME));
		int32_t now = time_now_sec_clock(CLOCK_REALTIME);
		time_to_timeval(&after, time_now_clock(CLOCK_REALTIME));
		if (before.tv_sec == after.tv_sec) {
			EXPECT_EQ(now, before.tv_sec);
			return;
		}
	}
	FAIL() << "no two readings in one second";
}

TEST_F(stopped_clock, time_now_and_its_relatives_ask_for_the_monotonic_clock)
{
	stop_at(1, 0);
	time_now();
	EXPECT_EQ(clock_asked, CLOCK_MONOTONIC);
	stop_at(1, 0);
	time_now_msec();
	EXPECT_EQ(clock_asked, CLOCK_MONOTONIC);
	stop_at(1, 0);
	time_now_sec();
	EXPECT_EQ(clock_asked, CLOCK_MONOTONIC);
}

TEST_F(stopped_clock, readings_are_truncated_to_the_unit)
{
	stop_at(2, 999999999);
	EXPECT_EQ(time_now(), 2999999);
	EXPECT_EQ(time_now_clock(CLOCK_REALTIME), 2999999);
	EXPECT_EQ(clock_asked, CLOCK_REALTIME);
	EXPECT_EQ(time_now_msec(), 2999u);
	EXPECT_EQ(time_now_msec_clock(CLOCK_BOOTTIME), 2999u);
	EXPECT_EQ(clock_asked, CLOCK_BOOTTIME);
	EXPECT_EQ(time_now_sec(), 2);
	EXPECT_EQ(time_now_sec_clock(CLOCK_REALTIME), 2);
	EXPECT_EQ(clock_asked, CLOCK_REALTIME);
}

TEST_F(stopped_clock, microseconds_and_milliseconds_do_not_wrap_after_36_minutes)
{
	stop_at(100000000, 5000000);
	EXPECT_EQ(time_now(), 100000000005000);
	EXPECT_EQ(time_now_msec(), 100000000005u);
}

TEST_F(stopped_clock, seconds_wrap_35_minutes_and_47_seconds_after_the_zero)
{
	stop_at(2147, 483647999);
	EXPECT_EQ(time_now_sec(), 2147);
	stop_at(2147, 483648000);
	EXPECT_EQ(time_now_sec(), -2147);
	stop_at(3000, 0);
	EXPECT_EQ(time_now_sec(), -1294);
	EXPECT_EQ(time_now_sec_clock(CLOCK_REALTIME), -1294);
	stop_at(4294, 967295000);
	EXPECT_EQ(time_now_sec(), 0);
	stop_at(4295, 967296000);
	EXPECT_EQ(time_now_sec(), 1);
}

TEST_F(stopped_clock, a_reading_before_the_zero_is_negative)
{
	stop_at(-2, 500000000);
	EXPECT_EQ(time_now_clock(CLOCK_REALTIME), -1500000);
	EXPECT_EQ(time_now_sec_clock(CLOCK_REALTIME), -1);
}

TEST_F(time_zone, both_conversions_drop_the_microseconds_in_utc)
{
	enter("UTC0");
	EXPECT_EQ(time_to_utc(1234567), 1000000);
	EXPECT_EQ(time_from_utc(1234567), 1000000);
	EXPECT_EQ(time_to_utc(999999), 0);
	EXPECT_EQ(time_from_utc(999999), 0);
	EXPECT_EQ(time_to_utc(0), 0);
	EXPECT_EQ(time_from_utc(0), 0);
}

TEST_F(time_zone, negative_values_are_truncated_towards_zero)
{
	enter("UTC0");
	EXPECT_EQ(time_to_utc(-1), 0);
	EXPECT_EQ(time_from_utc(-1), 0);
	EXPECT_EQ(time_to_utc(-2999999), -2000000);
	EXPECT_EQ(time_from_utc(-2999999), -2000000);
}

TEST_F(time_zone, to_utc_takes_the_offset_of_a_zone_east_of_greenwich_away)
{
	enter("XXX-3");
	EXPECT_EQ(time_to_utc(1234567), 1000000 - 3 * hour_us);
	EXPECT_EQ(time_to_utc(0), -3 * hour_us);
	EXPECT_EQ(time_to_utc(-5000000), -5000000 - 3 * hour_us);
}

TEST_F(time_zone, to_utc_adds_the_offset_of_a_zone_west_of_greenwich)
{
	enter("XXX5:30");
	EXPECT_EQ(time_to_utc(1234567), 1000000 + 5 * hour_us + hour_us / 2);
	EXPECT_EQ(time_to_utc(0), 5 * hour_us + hour_us / 2);
}

TEST_F(time_zone, from_utc_gives_the_whole_seconds_in_any_zone)
{
	for (const char *zone : {"UTC0", "XXX-3", "XXX5:30", "XXX-14", "XXX12"}) {
		enter(zone);
		EXPECT_EQ(time_from_utc(1234567), 1000000) << zone;
		EXPECT_EQ(time_from_utc(2147000000), 2147000000) << zone;
		EXPECT_EQ(time_from_utc(-1234567), -1000000) << zone;
	}
}

TEST_F(time_zone, a_zone_with_summer_time_elsewhere_in_the_year_shifts_by_its_winter_offset)
{
	enter("CET-1CEST,M3.5.0,M10.5.0/3");
	EXPECT_EQ(time_to_utc(1234567), 1000000 - hour_us);
	EXPECT_EQ(time_from_utc(1234567), 1000000);
}

TEST_F(time_zone, to_utc_reads_the_time_as_standard_time_while_summer_time_is_in_force)
{
	// January is summer here. The broken-down time comes from UTC and says "no summer time".
	enter("AEST-10AEDT,M10.1.0,M4.1.0/3");
	EXPECT_EQ(time_to_utc(1234567), 1000000 - 10 * hour_us);
	EXPECT_EQ(time_from_utc(1234567), 1000000);
}

TEST_F(time_zone, the_seconds_of_both_conversions_are_of_the_short_range)
{
	enter("UTC0");
	EXPECT_EQ(time_to_utc(2147483647), 2147000000);
	EXPECT_EQ(time_to_utc(2147483648), -2147000000);
	EXPECT_EQ(time_to_utc(3000000000), -1294000000);
	EXPECT_EQ(time_from_utc(3000000000), -1294000000);
	EXPECT_EQ(time_to_utc(4294967296), 0);
	EXPECT_EQ(time_from_utc(4294967296 + 5000000), 5000000);
	EXPECT_EQ(time_to_utc(INT64_MAX), 0);
	EXPECT_EQ(time_from_utc(INT64_MIN), 0);
	enter("XXX-3");
	EXPECT_EQ(time_to_utc(3000000000), -1294000000 - 3 * hour_us);
}
