// A table without memory: it keeps what it has, or is not made.
#include "tests/htable/tables.h"

using namespace htable_tests;

TEST(htable_without_memory, goes_on_in_the_arrays_it_has)
{
	owned_table with_memory;
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(with_memory, item(key), item(key * 10));
	int needed = requests_of([&] { htable_insert(with_memory, item(9), item(90)); });
	ASSERT_EQ(with_memory->slot_count, 32);
	EXPECT_GT(needed, 0);
	for (int granted = 0; granted < needed; granted++) {
		owned_table t(table_that_destroys());
		for (uintptr_t key = 2; key < 9; key++)
			htable_insert(t, item(key), item(key * 10));
		{
			scarce_memory scarce(granted);
			EXPECT_EQ(htable_insert(t, item(9), item(90)), 1);
		}
		EXPECT_EQ(t->slot_count, 8);
		EXPECT_EQ(t->used_count, 8);
		EXPECT_EQ(htable_size(t), 8);
		for (uintptr_t key = 2; key < 10; key++)
			EXPECT_EQ(htable_lookup(t, item(key)), item(key * 10));
		EXPECT_EQ(htable_lookup(t, item(10)), nullptr); // no empty slot ends this search
		EXPECT_EQ(htable_contains(t, item(10)), 0);
		EXPECT_EQ(htable_remove(t, item(10)), 0);
		EXPECT_EQ(take_destroyed(), names());
	}
}

TEST(htable_without_memory, refuses_a_new_key_when_full_and_destroys_key_and_value)
{
	owned_table t(table_that_destroys());
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(key * 10));
	{
		scarce_memory scarce(0);
		EXPECT_EQ(htable_insert(t, item(9), item(90)), 1);
		EXPECT_EQ(htable_insert(t, item(10), item(100)), 0);
	}
	EXPECT_EQ(take_destroyed(), (names{"k10", "v100"}));
	EXPECT_EQ(htable_size(t), 8);
	EXPECT_EQ(htable_contains(t, item(10)), 0);
	for (uintptr_t key = 2; key < 10; key++)
		EXPECT_EQ(htable_lookup(t, item(key)), item(key * 10));
}

TEST(htable_without_memory, still_stores_under_the_keys_it_has)
{
	owned_table t(htable_new(hash_thousandth, equal_thousandth));
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(key * 10));
	scarce_memory scarce(0);
	EXPECT_EQ(htable_insert(t, item(9), item(90)), 1);
	EXPECT_EQ(htable_insert(t, item(1005), item(51)), 0);
	EXPECT_EQ(htable_lookup(t, item(5)), item(51));
	EXPECT_EQ(htable_replace(t, item(2005), item(52)), 0);
	EXPECT_EQ(htable_lookup(t, item(5)), item(52));
}

TEST(htable_without_memory, fills_the_slot_of_a_removed_entry)
{
	owned_table t;
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(key * 10));
	scarce_memory scarce(0);
	EXPECT_EQ(htable_insert(t, item(9), item(90)), 1);
	EXPECT_EQ(htable_remove(t, item(4)), 1);
	EXPECT_EQ(t->slot_count, 8);
	EXPECT_EQ(htable_insert(t, item(20), item(200)), 1);
	EXPECT_EQ(htable_lookup(t, item(20)), item(200));
	EXPECT_EQ(htable_insert(t, item(21), item(210)), 0);
	EXPECT_EQ(htable_size(t), 8);
}

TEST(htable_without_memory, grows_at_the_next_key_once_there_is_memory_again)
{
	owned_table t(table_that_destroys());
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(key * 10));
	{
		scarce_memory scarce(0);
		htable_insert(t, item(9), item(90));
	}
	EXPECT_EQ(htable_insert(t, item(10), item(100)), 1);
	EXPECT_EQ(t->slot_count, 32);
	EXPECT_EQ(htable_size(t), 9);
	for (uintptr_t key = 2; key < 11; key++)
		EXPECT_EQ(htable_lookup(t, item(key)), item(key * 10));
	EXPECT_EQ(take_destroyed(), names());
	expect_sound(t);
}

TEST(htable_without_memory, grows_or_cleans_up_at_the_next_removal_once_there_is_memory_again)
{
	owned_table t;
	for (uintptr_t key = 2; key < 9; key++)
		htable_insert(t, item(key), item(key * 10));
	{
		scarce_memory scarce(0);
		htable_insert(t, item(9), item(90));
		htable_remove(t, item(9));
	}
	EXPECT_EQ(t->used_count, 8);
	EXPECT_EQ(htable_remove(t, item(8)), 1);
	EXPECT_EQ(t->slot_count, 16); // 6 entries
	expect_sound(t);
}

TEST(htable_without_memory, stays_as_large_as_it_is_when_entries_go)
{
	owned_table t;
	for (uintptr_t key = 2; key < 42; key++)
		htable_insert(t, item(key), item(key * 10));
	{
		scarce_memory scarce(0);
		for (uintptr_t key = 2; key < 41; key++)
			EXPECT_EQ(htable_remove(t, item(key)), 1);
		EXPECT_EQ(t->slot_count, 64);
		EXPECT_EQ(htable_lookup(t, item(41)), item(410));
		htable_remove_all(t);
		EXPECT_EQ(t->slot_count, 64);
		EXPECT_EQ(htable_size(t), 0);
		htable_steal_all(t);
		EXPECT_EQ(htable_insert(t, item(5), item(50)), 1);
		EXPECT_EQ(htable_lookup(t, item(5)), item(50));
	}
	htable_remove(t, item(5));
	EXPECT_EQ(t->slot_count, 8);
	expect_sound(t);
}

TEST(htable_without_memory, refuses_the_value_that_would_make_a_set_a_map)
{
	owned_table t(table_that_destroys());
	htable_add(t, item(5));
	{
		scarce_memory scarce(0);
		EXPECT_EQ(htable_insert(t, item(6), item(60)), 0);
	}
	EXPECT_EQ(take_destroyed(), (names{"k6", "v60"}));
	EXPECT_EQ(t->keys, t->values);
	EXPECT_EQ(t->used_count, 1);
	expect_sound(t);
	EXPECT_EQ(keys_of(t), list{5});
	EXPECT_EQ(htable_insert(t, item(6), item(60)), 1);
	EXPECT_EQ(htable_lookup(t, item(6)), item(60));
}

TEST(htable_without_memory, keeps_a_sets_key_that_should_have_had_another_value)
{
	owned_table t(table_that_destroys());
	htable_add(t, item(5));
	{
		scarce_memory scarce(0);
		EXPECT_EQ(htable_replace(t, item(1005), item(60)), 0);
	}
	EXPECT_EQ(take_destroyed(), (names{"k1005", "v60"}));
	EXPECT_EQ(t->keys, t->values);
	EXPECT_EQ(keys_of(t), list{5});
	expect_sound(t);
}

TEST(htable_without_memory, keeps_a_set_in_the_arrays_it_has)
{
	owned_table with_memory;
	for (uintptr_t key = 2; key < 9; key++)
		htable_add(with_memory, item(key));
	int needed = requests_of([&] { htable_add(with_memory, item(9)); });
	ASSERT_EQ(with_memory->slot_count, 32);
	EXPECT_GT(needed, 0);
	for (int granted = 0; granted < needed; granted++) {
		owned_table t;
		for (uintptr_t key = 2; key < 9; key++)
			htable_add(t, item(key));
		{
			scarce_memory scarce(granted);
			EXPECT_EQ(htable_add(t, item(9)), 1);
			EXPECT_EQ(t->slot_count, 8);
		}
		for (uintptr_t key = 2; key < 10; key++)
			EXPECT_EQ(htable_lookup(t, item(key)), item(key));
		EXPECT_EQ(t->keys, t->values);
		EXPECT_EQ(htable_add(t, item(10)), 1);
		expect_sound(t);
	}
}
