// The whole table: re-sized, emptied, released and listed.
#include "tests/htable/tables.h"

#include <latch>
#include <set>
#include <thread>

using namespace htable_tests;

// ---- Re-sizing ----

TEST(htable_resize, happens_with_the_eighth_key_of_a_new_table)
{
	owned_table t;
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(1));
	EXPECT_EQ(t->slot_count, 8);
	EXPECT_EQ(t->used_count, 7);
	htable_insert(t, item(9), item(1));
	EXPECT_EQ(t->slot_count, 32);
	EXPECT_EQ(t->prime_mod, 31u);
	EXPECT_EQ(t->mask, 31u);
	EXPECT_EQ(t->live_count, 8);
	EXPECT_EQ(t->used_count, 8);
	expect_sound(t);
}

TEST(htable_resize, grows_as_stated_from_size_to_size)
{
	// At these numbers of entries the table becomes this large.
	const std::map<uintptr_t, int32_t> growth = {
		{8, 32}, {31, 64}, {61, 128}, {121, 256}, {241, 512}, {482, 1024}, {964, 2048}, {1928, 4096}};
	owned_table t;
	int32_t slot_count = 8;
	for (uintptr_t count = 1; count <= 2500; count++) {
		htable_insert(t, item(count + 1), item(1));
		if (auto found = growth.find(count); found != growth.end())
			slot_count = found->second;
		ASSERT_EQ(t->slot_count, slot_count) << count << " entries";
		ASSERT_EQ(t->live_count, static_cast<int32_t>(count));
		ASSERT_EQ(t->used_count, static_cast<int32_t>(count));
	}
	expect_sound(t);
}

TEST(htable_resize, uses_the_largest_prime_below_each_power_of_two)
{
	const std::map<int32_t, uint32_t> primes = {{8, 7}, {16, 13}, {32, 31}, {64, 61}, {128, 127},
		{256, 251}, {512, 509}, {1024, 1021}, {2048, 2039}, {4096, 4093}, {8192, 8191},
		{16384, 16381}, {32768, 32749}, {65536, 65521}, {131072, 131071}, {262144, 262139},
		{524288, 524287}};
	owned_table t;
	std::set<int32_t> met;
	auto check = [&] {
		met.insert(t->slot_count);
		auto found = primes.find(t->slot_count);
		ASSERT_NE(found, primes.end());
		ASSERT_EQ(t->prime_mod, found->second);
		ASSERT_EQ(t->mask, static_cast<uint32_t>(t->slot_count) - 1);
	};
	for (uintptr_t key = 2; key < 250002; key++) {
		htable_add(t, item(key));
		check();
	}
	for (uintptr_t key = 2; key < 250002; key++) {
		htable_remove(t, item(key));
		check();
	}
	EXPECT_EQ(met.size(), primes.size());
}

TEST(htable_resize, shrinks_on_the_removal_that_leaves_fewer_than_a_quarter)
{
	owned_table t;
	for (uintptr_t key = 2; key < 42; key++) // 40 entries, 64 slots
		htable_insert(t, item(key), item(key * 10));
	ASSERT_EQ(t->slot_count, 64);
	for (uintptr_t key = 2; key < 26; key++) // 16 are left: 64 is not more than 4 * 16
		htable_remove(t, item(key));
	EXPECT_EQ(t->slot_count, 64);
	EXPECT_EQ(t->used_count, 40);
	htable_remove(t, item(26));
	EXPECT_EQ(t->slot_count, 32); // 2 * 15 has five bits
	EXPECT_EQ(t->live_count, 15);
	EXPECT_EQ(t->used_count, 15);
	for (uintptr_t key = 27; key < 42; key++)
		EXPECT_EQ(htable_lookup(t, item(key)), item(key * 10));
	expect_sound(t);
}

TEST(htable_resize, never_goes_below_8_slots)
{
	owned_table t;
	for (uintptr_t key = 2; key < 10; key++)
		htable_insert(t, item(key), item(1));
	std::vector<int32_t> sizes;
	for (uintptr_t key = 2; key < 10; key++) {
		htable_remove(t, item(key));
		sizes.push_back(t->slot_count);
	}
	EXPECT_EQ(sizes, (std::vector<int32_t>{16, 16, 16, 16, 8, 8, 8, 8}));
	EXPECT_EQ(t->prime_mod, 7u);
}

TEST(htable_resize, shrinks_after_a_steal_too)
{
	owned_table t;
	for (uintptr_t key = 2; key < 10; key++)
		htable_insert(t, item(key), item(1));
	htable_steal(t, item(2));
	EXPECT_EQ(t->slot_count, 16);
	EXPECT_EQ(t->used_count, 7);
}

TEST(htable_resize, clears_tombstones_away_when_they_crowd_the_table)
{
	owned_table t;
	for (uintptr_t key : {7, 8, 9, 10, 4, 5, 6}) // slots 0 to 6
		htable_insert(t, item(key), item(key * 10));
	for (uintptr_t key : {7, 8, 9, 10, 6})
		htable_remove(t, item(key));
	EXPECT_EQ(t->used_count, 7);
	EXPECT_EQ(t->live_count, 2);
	htable_insert(t, item(11), item(110)); // slots 4 and 5 are taken, 7 is empty
	EXPECT_EQ(t->slot_count, 8);
	EXPECT_EQ(t->used_count, 3);
	EXPECT_EQ(t->live_count, 3);
	expect_sound(t);
	for (uintptr_t key : {4, 5, 11})
		EXPECT_EQ(htable_lookup(t, item(key)), item(key * 10));
}

TEST(htable_resize, puts_the_entries_anew_in_the_order_of_their_old_slots)
{
	owned_table t;
	// In 8 slots they lie 16, 64, 2, 9, 23, 33, 37, 30; in 32 slots 64, 2 and 33 start in slot 2.
	for (uintptr_t key : {33, 2, 64, 9, 16, 23, 30, 37})
		htable_insert(t, item(key), item(key * 10));
	ASSERT_EQ(t->slot_count, 32);
	expect_sound(t);
	const std::map<int32_t, uintptr_t> places = {
		{2, 64}, {3, 2}, {5, 33}, {6, 37}, {9, 9}, {16, 16}, {23, 23}, {30, 30}};
	for (auto [slot, key] : places) {
		EXPECT_EQ(t->keys[slot], item(key));
		EXPECT_EQ(t->values[slot], item(key * 10));
	}
}

// ---- All at once ----

TEST(htable_remove_all, destroys_every_entry_in_slot_order_key_before_value)
{
	owned_table t(table_that_destroys());
	for (uintptr_t key : {6, 3, 7, 4}) // slots 6, 3, 0, 4
		htable_insert(t, item(key), item(key * 10));
	htable_remove_all(t);
	EXPECT_EQ(take_destroyed(), (names{"k7", "v70", "k3", "v30", "k4", "v40", "k6", "v60"}));
	EXPECT_EQ(htable_size(t), 0);
	EXPECT_EQ(t->used_count, 0);
	expect_sound(t);
}

TEST(htable_remove_all, passes_tombstones_over_and_clears_them)
{
	owned_table t(table_that_destroys());
	for (uintptr_t key : {2, 3, 4})
		htable_insert(t, item(key), item(key * 10));
	htable_remove(t, item(3));
	take_destroyed();
	htable_remove_all(t);
	EXPECT_EQ(take_destroyed(), (names{"k2", "v20", "k4", "v40"}));
	expect_sound(t);
}

TEST(htable_remove_all, calls_only_the_destroy_function_there_is)
{
	owned_table keys(htable_new_full(hash_number, nullptr, destroy_key, nullptr));
	owned_table values(htable_new_full(hash_number, nullptr, nullptr, destroy_value));
	owned_table neither;
	for (htable *t : {keys.t, values.t, neither.t}) {
		htable_insert(t, item(5), item(50));
		htable_insert(t, item(2), item(20));
		htable_remove(t, item(2));
	}
	take_destroyed();
	htable_remove_all(keys);
	EXPECT_EQ(take_destroyed(), names{"k5"});
	htable_remove_all(values);
	EXPECT_EQ(take_destroyed(), names{"v50"});
	htable_remove_all(neither);
	EXPECT_EQ(take_destroyed(), names());
	for (htable *t : {keys.t, values.t, neither.t})
		expect_sound(t);
}

TEST(htable_remove_all, of_a_set_destroys_each_item_as_key_and_as_value)
{
	owned_table t(table_that_destroys());
	htable_add(t, item(5));
	htable_remove_all(t);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v5"}));
}

TEST(htable_remove_all, destroys_null_keys_and_values_too)
{
	owned_table t(table_that_destroys());
	htable_insert(t, nullptr, item(50));
	htable_insert(t, item(5), nullptr);
	htable_remove_all(t);
	EXPECT_EQ(take_destroyed(), (names{"k0", "v50", "k5", "v0"}));
}

TEST(htable_remove_all, brings_the_table_back_to_8_slots)
{
	owned_table with(table_that_destroys()), without;
	for (htable *t : {with.t, without.t}) {
		for (uintptr_t key = 2; key < 102; key++)
			htable_insert(t, item(key), item(1));
		EXPECT_GT(t->slot_count, 100);
		htable_remove_all(t);
		EXPECT_EQ(t->slot_count, 8);
		EXPECT_EQ(t->prime_mod, 7u);
		expect_sound(t);
		EXPECT_EQ(htable_insert(t, item(5), item(50)), 1);
		EXPECT_EQ(htable_lookup(t, item(5)), item(50));
	}
	EXPECT_EQ(take_destroyed().size(), 200u);
}

TEST(htable_remove_all, lets_the_destroy_functions_look_into_the_table)
{
	static htable *table;
	static std::vector<list> seen;
	auto look = [](void *old) {
		seen.push_back({number_of(old), static_cast<uintptr_t>(htable_size(table)),
			static_cast<uintptr_t>(htable_contains(table, old)),
			static_cast<uintptr_t>(htable_contains(table, item(4)))});
	};
	owned_table t(htable_new_full(hash_number, nullptr, look, nullptr));
	table = t;
	for (uintptr_t key : {3, 4, 5})
		htable_insert(t, item(key), item(1));
	seen.clear();
	htable_remove_all(t);
	// The size is 0 from the start; an entry is gone before its own call; those after it are still there.
	EXPECT_EQ(seen, (std::vector<list>{{3, 0, 0, 1}, {4, 0, 0, 0}, {5, 0, 0, 0}}));
}

TEST(htable_remove_all, lets_the_destroy_functions_list_what_is_left)
{
	static htable *table;
	static std::vector<size_t> listed;
	auto look = [](void *) {
		for (auto get : {htable_get_keys, htable_get_values}) {
			uint32_t count = 77;
			void **items = get(table, &count);
			size_t ended_at = 0;
			while (items[ended_at])
				ended_at++;
			EXPECT_EQ(ended_at, count);
			listed.push_back(ended_at);
			free(items);
		}
	};
	owned_table t(htable_new_full(hash_number, nullptr, look, nullptr));
	table = t;
	for (uintptr_t key = 2; key < 62; key++)
		htable_insert(t, item(key), item(key));
	listed.clear();
	htable_remove_all(t);
	ASSERT_EQ(listed.size(), 120u);
	for (size_t index = 0; index < listed.size(); index++)
		EXPECT_EQ(listed[index], 59 - index / 2);
}

TEST(htable_steal_all, forgets_every_entry_without_the_destroy_functions)
{
	owned_table t(table_that_destroys());
	for (uintptr_t key = 2; key < 102; key++)
		htable_insert(t, item(key), item(1));
	htable_remove(t, item(5));
	take_destroyed();
	htable_steal_all(t);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(htable_size(t), 0);
	EXPECT_EQ(t->slot_count, 8);
	expect_sound(t);
	EXPECT_EQ(htable_insert(t, item(6), item(60)), 1);
	htable_steal_all(t);
	EXPECT_EQ(htable_contains(t, item(6)), 0);
	expect_sound(t);
}

TEST(htable_remove_all, of_an_empty_table_does_nothing)
{
	owned_table t(table_that_destroys());
	htable_remove_all(t);
	htable_steal_all(t);
	EXPECT_EQ(take_destroyed(), names());
	expect_sound(t);
}

// ---- Lifetime ----

TEST(htable_destroy, destroys_the_entries_and_drops_the_reference)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	EXPECT_EQ(htable_ref(t), t.t);
	EXPECT_EQ(t->refcount, 2);
	htable_destroy(t);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v50"}));
	EXPECT_EQ(t->refcount, 1); // the table itself lives on, empty
	EXPECT_EQ(htable_size(t), 0);
	EXPECT_EQ(htable_insert(t, item(6), item(60)), 1);
}

TEST(htable_unref, of_the_last_reference_destroys_the_entries_in_slot_order)
{
	htable *t = table_that_destroys();
	take_destroyed();
	for (uintptr_t key : {6, 3, 7})
		htable_insert(t, item(key), item(key * 10));
	htable_ref(t);
	htable_unref(t);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(htable_size(t), 3);
	htable_unref(t);
	EXPECT_EQ(take_destroyed(), (names{"k7", "v70", "k3", "v30", "k6", "v60"}));
}

TEST(htable_unref, lets_the_destroy_functions_look_into_the_table)
{
	static htable *table;
	static list seen;
	auto look = [](void *old) {
		seen.push_back(number_of(old));
		seen.push_back(static_cast<uintptr_t>(htable_contains(table, item(4))));
	};
	table = htable_new_full(hash_number, nullptr, look, nullptr);
	htable_add(table, item(3));
	htable_add(table, item(4));
	seen.clear();
	htable_unref(table);
	EXPECT_EQ(seen, (list{3, 1, 4, 0}));
}

TEST(htable_ref, and_unref_may_come_from_several_threads)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	std::vector<std::thread> threads;
	std::latch start(4);
	for (int index = 0; index < 4; index++)
		threads.emplace_back([&t, &start] {
			start.arrive_and_wait();
			for (int round = 0; round < 1000000; round++) {
				htable_ref(t);
				htable_unref(t);
			}
		});
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(t->refcount, 1);
	EXPECT_EQ(take_destroyed(), names());
}

TEST(htable_unref, from_several_threads_destroys_once)
{
	for (int round = 0; round < 100; round++) {
		htable *t = table_that_destroys();
		take_destroyed();
		htable_insert(t, item(5), item(50));
		for (int index = 0; index < 3; index++)
			htable_ref(t);
		std::vector<std::thread> threads;
		for (int index = 0; index < 4; index++)
			threads.emplace_back(htable_unref, t);
		for (std::thread &thread : threads)
			thread.join();
		ASSERT_EQ(take_destroyed(), (names{"k5", "v50"}));
	}
}

// ---- Listing ----

TEST(htable_get_keys, and_values_list_in_slot_order)
{
	owned_table t;
	for (uintptr_t key : {6, 3, 7, 4}) // slots 6, 3, 0, 4
		htable_insert(t, item(key), item(key * 10));
	htable_remove(t, item(3));
	EXPECT_EQ(keys_of(t), (list{7, 4, 6}));
	EXPECT_EQ(values_of(t), (list{70, 40, 60}));
	EXPECT_EQ(htable_size(t), 3);
}

TEST(htable_get_keys, of_an_empty_table_is_a_lone_null)
{
	owned_table t;
	EXPECT_EQ(keys_of(t), list());
	EXPECT_EQ(values_of(t), list());
	htable_insert(t, item(5), item(50));
	htable_remove(t, item(5));
	EXPECT_EQ(keys_of(t), list());
	EXPECT_EQ(values_of(t), list());
}

TEST(htable_get_keys, takes_null_for_the_count)
{
	owned_table t;
	htable_insert(t, item(5), item(50));
	void **keys = htable_get_keys(t, nullptr), **values = htable_get_values(t, nullptr);
	ASSERT_TRUE(keys && values);
	EXPECT_EQ(keys[0], item(5));
	EXPECT_EQ(keys[1], nullptr);
	EXPECT_EQ(values[0], item(50));
	EXPECT_EQ(values[1], nullptr);
	free(keys);
	free(values);
}

TEST(htable_get_keys, of_a_set_are_its_values)
{
	owned_table t;
	htable_add(t, item(5));
	htable_add(t, item(3));
	EXPECT_EQ(keys_of(t), (list{3, 5}));
	EXPECT_EQ(values_of(t), (list{3, 5}));
}

TEST(htable_get_keys, counts_null_keys_and_values)
{
	owned_table t;
	htable_insert(t, nullptr, nullptr);
	htable_insert(t, item(5), nullptr);
	EXPECT_EQ(keys_of(t), (list{0, 5}));
	EXPECT_EQ(values_of(t), (list{0, 0}));
}

TEST(htable_get_keys, without_memory_is_null_and_leaves_the_count_alone)
{
	owned_table t;
	htable_insert(t, item(5), item(50));
	scarce_memory scarce(0);
	uint32_t count = 77;
	EXPECT_EQ(htable_get_keys(t, &count), nullptr);
	EXPECT_EQ(count, 77u);
	EXPECT_EQ(htable_get_values(t, &count), nullptr);
	EXPECT_EQ(count, 77u);
	EXPECT_EQ(htable_get_keys(t, nullptr), nullptr);
}
