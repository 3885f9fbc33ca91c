// A new table, and single entries: stored, found, replaced and removed.
#include "tests/htable/tables.h"

using namespace htable_tests;

// ---- FNV-1 ----

TEST(fnv_32, of_nothing_is_the_starting_value)
{
	EXPECT_EQ(fnv_32_str("", 2166136261), 2166136261u);
	EXPECT_EQ(fnv_32_buf("abc", 0, 2166136261), 2166136261u);
	EXPECT_EQ(fnv_32_buf("abc", 0, 0), 0u);
	EXPECT_EQ(fnv_32_buf(nullptr, 0, 5), 5u);
}

TEST(fnv_32, gives_the_published_results_of_fnv_1)
{
	EXPECT_EQ(fnv_32_str("a", 2166136261), 0x050c5d7eu);
	EXPECT_EQ(fnv_32_str("b", 2166136261), 0x050c5d7du);
	EXPECT_EQ(fnv_32_str("foobar", 2166136261), 0x31f0b262u);
	EXPECT_EQ(fnv_32_buf("foobar", 6, 2166136261), 0x31f0b262u);
}

TEST(fnv_32, applies_no_basis_of_its_own)
{
	EXPECT_EQ(fnv_32_str("a", 0), 0x61u);
	// The text whose hash from 0 is where the usual basis comes from.
	EXPECT_EQ(fnv_32_str("chongo <Landon Curt Noll> /\\../\\", 0), 2166136261u);
}

TEST(fnv_32, goes_on_from_an_earlier_result)
{
	uint32_t hash = fnv_32_str("foo", 2166136261);
	EXPECT_EQ(fnv_32_str("bar", hash), 0x31f0b262u);
	EXPECT_EQ(fnv_32_buf("bar", 3, hash), 0x31f0b262u);
}

TEST(fnv_32, takes_bytes_as_unsigned)
{
	// 2166136261 * 16777619 mod 2^32 is 0x050c5d1f.
	EXPECT_EQ(fnv_32_str("\xff", 2166136261), 0x050c5de0u);
	EXPECT_EQ(fnv_32_buf("\xff", 1, 2166136261), 0x050c5de0u);
}

TEST(fnv_32, of_bytes_goes_past_zeros_and_of_text_stops_there)
{
	EXPECT_EQ(fnv_32_buf("\0", 1, 2166136261), 0x050c5d1fu);
	EXPECT_EQ(fnv_32_str("a\0b", 2166136261), fnv_32_str("a", 2166136261));
	EXPECT_NE(fnv_32_buf("a\0b", 3, 2166136261), fnv_32_buf("a", 1, 2166136261));
}

// ---- A new table ----

TEST(htable_new, has_8_slots_and_one_reference)
{
	owned_table t(htable_new(hash_number, equal_thousandth));
	EXPECT_EQ(t->slot_count, 8);
	EXPECT_EQ(t->prime_mod, 7u);
	EXPECT_EQ(t->mask, 7u);
	EXPECT_EQ(t->live_count, 0);
	EXPECT_EQ(t->used_count, 0);
	EXPECT_EQ(t->refcount, 1);
	EXPECT_EQ(t->hash_fn, &hash_number);
	EXPECT_EQ(t->equal_fn, &equal_thousandth);
	EXPECT_EQ(t->key_free_fn, nullptr);
	EXPECT_EQ(t->value_free_fn, nullptr);
	expect_sound(t);
}

TEST(htable_new, is_a_set_with_one_array_for_keys_and_values)
{
	owned_table t;
	EXPECT_EQ(t->keys, t->values);
}

TEST(htable_new, without_a_hash_function_is_null)
{
	EXPECT_EQ(htable_new(nullptr, equal_text), nullptr);
	EXPECT_EQ(htable_new_full(nullptr, nullptr, free, free), nullptr);
}

TEST(htable_new_full, keeps_its_four_functions)
{
	owned_table t(htable_new_full(hash_text, equal_text, destroy_key, destroy_value));
	EXPECT_EQ(t->hash_fn, &hash_text);
	EXPECT_EQ(t->equal_fn, &equal_text);
	EXPECT_EQ(t->key_free_fn, &destroy_key);
	EXPECT_EQ(t->value_free_fn, &destroy_value);
	EXPECT_EQ(t->refcount, 1);
}

TEST(htable_new_full, without_memory_is_null_and_keeps_none)
{
	int needed = requests_of([] { htable_unref(htable_new(hash_number, nullptr)); });
	EXPECT_GT(needed, 0);
	for (int granted = 0; granted < needed; granted++) {
		scarce_memory scarce(granted);
		EXPECT_EQ(htable_new(hash_number, nullptr), nullptr) << granted;
		EXPECT_EQ(htable_new_full(hash_number, nullptr, free, free), nullptr) << granted;
	}
}

// ---- Null in place of a table ----

TEST(htable_null, is_accepted_by_every_function_but_the_two_that_list)
{
	EXPECT_EQ(htable_ref(nullptr), nullptr);
	htable_unref(nullptr);
	EXPECT_EQ(htable_insert(nullptr, item(1), item(2)), 0);
	EXPECT_EQ(htable_replace(nullptr, item(1), item(2)), 0);
	EXPECT_EQ(htable_add(nullptr, item(1)), 0);
	EXPECT_EQ(htable_contains(nullptr, item(1)), 0);
	EXPECT_EQ(htable_lookup(nullptr, item(1)), nullptr);
	EXPECT_EQ(htable_remove(nullptr, item(1)), 0);
	EXPECT_EQ(htable_steal(nullptr, item(1)), 0);
	htable_remove_all(nullptr);
	htable_steal_all(nullptr);
	htable_destroy(nullptr);
	EXPECT_EQ(htable_size(nullptr), 0);
}

// ---- Storing and finding ----

TEST(htable_insert, of_a_new_key_stores_it_and_returns_1)
{
	owned_table t(htable_new(hash_text, equal_text));
	char key[] = "host", value[] = "example";
	EXPECT_EQ(htable_insert(t, key, value), 1);
	EXPECT_EQ(htable_lookup(t, "host"), value);
	EXPECT_EQ(htable_contains(t, "host"), 1);
	EXPECT_EQ(htable_size(t), 1);
	EXPECT_EQ(htable_lookup(t, "hos"), nullptr);
	EXPECT_EQ(htable_contains(t, "hos"), 0);
}

TEST(htable_insert, of_an_equal_key_keeps_the_stored_key_and_destroys_the_new_one_and_the_old_value)
{
	owned_table t(table_that_destroys());
	EXPECT_EQ(htable_insert(t, item(5), item(50)), 1);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(htable_insert(t, item(1005), item(51)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k1005", "v50"}));
	EXPECT_EQ(keys_of(t), list{5});
	EXPECT_EQ(values_of(t), list{51});
	EXPECT_EQ(htable_size(t), 1);
}

TEST(htable_replace, of_an_equal_key_keeps_the_new_key_and_destroys_the_old_one_and_the_old_value)
{
	owned_table t(table_that_destroys());
	EXPECT_EQ(htable_replace(t, item(5), item(50)), 1);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(htable_replace(t, item(1005), item(51)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v50"}));
	EXPECT_EQ(keys_of(t), list{1005});
	EXPECT_EQ(values_of(t), list{51});
	EXPECT_EQ(htable_size(t), 1);
}

TEST(htable_replace, with_the_very_same_key_destroys_it_though_it_stays)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	EXPECT_EQ(htable_replace(t, item(5), item(51)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v50"}));
	EXPECT_EQ(keys_of(t), list{5});
	EXPECT_EQ(htable_insert(t, item(5), item(52)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v51"}));
	EXPECT_EQ(keys_of(t), list{5});
	EXPECT_EQ(values_of(t), list{52});
}

TEST(htable_replace, with_the_very_same_value_destroys_it_though_it_stays)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	htable_replace(t, item(1005), item(50));
	EXPECT_EQ(take_destroyed(), (names{"k5", "v50"}));
	EXPECT_EQ(htable_lookup(t, item(5)), item(50));
}

TEST(htable_insert, destroys_with_the_one_function_given)
{
	owned_table keys(htable_new_full(hash_thousandth, equal_thousandth, destroy_key, nullptr));
	htable_insert(keys, item(5), item(50));
	htable_insert(keys, item(1005), item(51));
	EXPECT_EQ(take_destroyed(), names{"k1005"});
	htable_replace(keys, item(2005), item(52));
	EXPECT_EQ(take_destroyed(), names{"k5"});
	owned_table values(htable_new_full(hash_thousandth, equal_thousandth, nullptr, destroy_value));
	htable_insert(values, item(5), item(50));
	htable_insert(values, item(1005), item(51));
	EXPECT_EQ(take_destroyed(), names{"v50"});
	htable_replace(values, item(2005), item(52));
	EXPECT_EQ(take_destroyed(), names{"v51"});
}

TEST(htable_insert, has_stored_the_new_value_when_the_destroy_functions_run)
{
	static htable *table;
	static list seen;
	auto look = [](void *old) {
		seen.push_back(number_of(old));
		seen.push_back(number_of(htable_lookup(table, item(5))));
		seen.push_back(static_cast<uintptr_t>(htable_size(table)));
	};
	owned_table t(htable_new_full(hash_thousandth, equal_thousandth, look, look));
	table = t;
	htable_insert(t, item(5), item(50));
	seen.clear();
	htable_insert(t, item(1005), item(51));
	EXPECT_EQ(seen, (list{1005, 51, 1, 50, 51, 1}));
	seen.clear();
	htable_replace(t, item(2005), item(52));
	EXPECT_EQ(seen, (list{5, 52, 1, 51, 52, 1}));
}

TEST(htable_insert, stores_a_null_value_that_only_contains_can_tell)
{
	owned_table t;
	EXPECT_EQ(htable_insert(t, item(5), nullptr), 1);
	EXPECT_EQ(htable_lookup(t, item(5)), nullptr);
	EXPECT_EQ(htable_contains(t, item(5)), 1);
	EXPECT_EQ(htable_size(t), 1);
	EXPECT_EQ(htable_insert(t, item(5), item(50)), 0);
	EXPECT_EQ(htable_lookup(t, item(5)), item(50));
}

TEST(htable_insert, stores_a_null_key)
{
	owned_table t;
	EXPECT_EQ(htable_contains(t, nullptr), 0);
	EXPECT_EQ(htable_insert(t, nullptr, item(50)), 1);
	EXPECT_EQ(htable_contains(t, nullptr), 1);
	EXPECT_EQ(htable_lookup(t, nullptr), item(50));
	EXPECT_EQ(htable_remove(t, nullptr), 1);
	EXPECT_EQ(htable_contains(t, nullptr), 0);
}

TEST(htable_insert, compares_keys_as_pointers_without_an_equality_function)
{
	owned_table t(htable_new(hash_text, nullptr));
	char first[] = "same", second[] = "same";
	EXPECT_EQ(htable_insert(t, first, item(1)), 1);
	EXPECT_EQ(htable_insert(t, second, item(2)), 1);
	EXPECT_EQ(htable_lookup(t, first), item(1));
	EXPECT_EQ(htable_lookup(t, second), item(2));
	EXPECT_EQ(htable_size(t), 2);
}

TEST(htable_lookup, asks_the_equality_function_with_the_stored_key_first_and_only_for_equal_hashes)
{
	static std::vector<std::pair<uintptr_t, uintptr_t>> asked;
	auto equal = [](const void *stored, const void *key) {
		asked.emplace_back(number_of(stored), number_of(key));
		return equal_thousandth(stored, key);
	};
	owned_table t(htable_new(hash_thousandth, equal));
	asked.clear();
	htable_insert(t, item(3), item(30));
	htable_insert(t, item(10), item(100)); // the same first slot, 3, another hash
	EXPECT_TRUE(asked.empty());
	EXPECT_EQ(htable_lookup(t, item(1003)), item(30));
	EXPECT_EQ(htable_lookup(t, item(1010)), item(100));
	EXPECT_EQ(htable_lookup(t, item(1017)), nullptr);
	EXPECT_EQ(asked, (std::vector<std::pair<uintptr_t, uintptr_t>>{{3, 1003}, {10, 1010}}));
}

TEST(htable_lookup, takes_any_non_zero_result_for_equal)
{
	for (static int result; int value : {1, -1, 256, INT32_MIN}) {
		result = value;
		owned_table t(htable_new(hash_thousandth, [](const void *, const void *) { return result; }));
		htable_insert(t, item(5), item(50));
		EXPECT_EQ(htable_lookup(t, item(2005)), item(50));
		EXPECT_EQ(htable_contains(t, item(2005)), 1);
		EXPECT_EQ(htable_insert(t, item(3005), item(51)), 0);
	}
}

TEST(htable_lookup, goes_past_an_unequal_key_with_the_same_hash)
{
	auto never = [](const void *, const void *) { return 0; };
	owned_table t(htable_new(hash_number, never));
	htable_insert(t, item(3), item(30));
	htable_insert(t, item(3), item(31));
	EXPECT_EQ(htable_size(t), 2);
	EXPECT_EQ(t->keys[3], item(3));
	EXPECT_EQ(t->keys[4], item(3));
	EXPECT_EQ(htable_lookup(t, item(3)), nullptr);
}

TEST(htable_hash, of_0_and_1_is_stored_as_2)
{
	owned_table t(htable_new(hash_number, nullptr));
	EXPECT_EQ(htable_insert(t, item(0), item(100)), 1);
	EXPECT_EQ(htable_insert(t, item(1), item(101)), 1);
	EXPECT_EQ(htable_insert(t, item(2), item(102)), 1);
	EXPECT_EQ(t->hashes[2], 2u);
	EXPECT_EQ(t->hashes[3], 2u);
	EXPECT_EQ(t->hashes[5], 2u);
	EXPECT_EQ(t->keys[2], item(0));
	EXPECT_EQ(t->keys[3], item(1));
	EXPECT_EQ(t->keys[5], item(2));
	for (uintptr_t key : {0, 1, 2})
		EXPECT_EQ(htable_lookup(t, item(key)), item(100 + key));
	EXPECT_EQ(htable_remove(t, item(1)), 1);
	EXPECT_EQ(htable_lookup(t, item(0)), item(100));
	EXPECT_EQ(htable_lookup(t, item(1)), nullptr);
	EXPECT_EQ(htable_lookup(t, item(2)), item(102));
	expect_sound(t);
}

TEST(htable_hash, of_32_bits_is_kept_whole)
{
	owned_table t(htable_new([](const void *) { return UINT32_MAX; }, nullptr));
	htable_insert(t, item(5), item(50));
	EXPECT_EQ(t->hashes[UINT32_MAX % 7], UINT32_MAX);
	EXPECT_EQ(htable_lookup(t, item(5)), item(50));
}

TEST(htable_hash, is_asked_once_a_call_and_never_for_a_resize)
{
	static int calls;
	auto counting = [](const void *key) {
		calls++;
		return hash_number(key);
	};
	owned_table t(htable_new(counting, nullptr));
	calls = 0;
	for (uintptr_t key = 2; key < 102; key++)
		htable_insert(t, item(key), item(1));
	EXPECT_EQ(calls, 100);
	EXPECT_GT(t->slot_count, 100);
	for (uintptr_t key = 2; key < 102; key++)
		htable_contains(t, item(key));
	EXPECT_EQ(calls, 200);
	for (uintptr_t key = 2; key < 102; key++)
		htable_remove(t, item(key));
	EXPECT_EQ(calls, 300);
	EXPECT_EQ(t->slot_count, 8);
}

TEST(htable_probing, starts_at_the_hash_modulo_the_prime_and_goes_on_1_2_3_slots)
{
	owned_table t;
	// All start in slot 2: then 3, 5, 0, 4, 1, 7.
	for (uintptr_t key : {2, 9, 16, 23, 30, 37, 44})
		EXPECT_EQ(htable_insert(t, item(key), item(1)), 1);
	EXPECT_EQ(t->slot_count, 8);
	list by_slot;
	for (int32_t slot = 0; slot < 8; slot++)
		by_slot.push_back(number_of(t->keys[slot]));
	EXPECT_EQ(by_slot, (list{23, 37, 2, 9, 30, 16, 0, 44}));
	EXPECT_EQ(t->hashes[6], 0u);
}

// ---- Sets ----

TEST(htable_add, stores_the_key_as_its_value_and_keeps_one_array)
{
	owned_table t;
	EXPECT_EQ(htable_add(t, item(5)), 1);
	EXPECT_EQ(htable_add(t, item(6)), 1);
	EXPECT_EQ(htable_add(t, item(5)), 0);
	EXPECT_EQ(htable_size(t), 2);
	EXPECT_EQ(htable_lookup(t, item(5)), item(5));
	EXPECT_EQ(t->keys, t->values);
	EXPECT_EQ(keys_of(t), (list{5, 6}));
}

TEST(htable_add, of_an_equal_key_keeps_the_new_one_and_destroys_the_old_one_as_key_and_as_value)
{
	owned_table t(table_that_destroys());
	htable_add(t, item(5));
	EXPECT_EQ(htable_add(t, item(1005)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v5"}));
	EXPECT_EQ(keys_of(t), list{1005});
	EXPECT_EQ(t->keys, t->values);
}

TEST(htable_set, stays_one_through_inserts_of_keys_as_their_values_resizes_and_clearing)
{
	owned_table t;
	for (uintptr_t key = 2; key < 102; key++)
		EXPECT_EQ(htable_insert(t, item(key), item(key)), 1);
	EXPECT_EQ(t->keys, t->values);
	expect_sound(t);
	for (uintptr_t key = 2; key < 102; key++)
		EXPECT_EQ(htable_lookup(t, item(key)), item(key));
	for (uintptr_t key = 2; key < 92; key++)
		EXPECT_EQ(htable_remove(t, item(key)), 1);
	EXPECT_EQ(t->keys, t->values);
	htable_remove_all(t);
	EXPECT_EQ(t->keys, t->values);
}

TEST(htable_set, becomes_a_map_with_the_first_value_that_differs_from_its_key)
{
	owned_table t;
	htable_insert(t, item(5), item(50));
	EXPECT_NE(t->keys, t->values);
	EXPECT_EQ(htable_lookup(t, item(5)), item(50));
}

TEST(htable_set, that_has_become_a_map_never_turns_back)
{
	owned_table t;
	htable_insert(t, item(5), item(50));
	htable_replace(t, item(5), item(5));
	EXPECT_NE(t->keys, t->values);
	htable_remove_all(t);
	EXPECT_NE(t->keys, t->values);
	for (uintptr_t key = 2; key < 102; key++)
		htable_add(t, item(key));
	EXPECT_NE(t->keys, t->values);
	EXPECT_EQ(htable_lookup(t, item(50)), item(50));
	htable_steal_all(t);
	EXPECT_NE(t->keys, t->values);
}

TEST(htable_set, keeps_as_a_map_only_the_values_in_the_first_slot_count_bytes)
{
	memory.dirty = true;
	owned_table t;
	for (uintptr_t key : {7, 8, 9, 10, 11}) // slots 0 to 4
		htable_add(t, item(key));
	EXPECT_EQ(htable_insert(t, item(12), item(99)), 1);
	memory.dirty = false;

	int32_t kept = t->slot_count / static_cast<int32_t>(sizeof(void *));
	ASSERT_EQ(t->slot_count, 8);
	for (int32_t slot = 0; slot < 5; slot++) {
		EXPECT_EQ(t->keys[slot], item(7 + static_cast<uintptr_t>(slot)));
		EXPECT_EQ(t->values[slot], slot < kept ? t->keys[slot] : nullptr) << "slot " << slot;
		EXPECT_EQ(htable_contains(t, t->keys[slot]), 1);
	}
	EXPECT_EQ(t->values[5], item(99));
	EXPECT_EQ(t->values[6], nullptr);
	EXPECT_EQ(t->values[7], nullptr);
	EXPECT_EQ(htable_size(t), 6);
}

TEST(htable_set, of_32_slots_keeps_as_a_map_the_values_of_its_first_32_bytes)
{
	memory.dirty = true;
	owned_table t;
	for (uintptr_t key = 31; key < 31 + 20; key++) // slots 0 to 19
		htable_add(t, item(key));
	ASSERT_EQ(t->slot_count, 32);
	htable_insert(t, item(31 + 25), item(99));
	memory.dirty = false;

	int32_t kept = 32 / static_cast<int32_t>(sizeof(void *));
	for (int32_t slot = 0; slot < 32; slot++) {
		void *value = slot < kept ? t->keys[slot] : slot == 25 ? item(99) : nullptr;
		EXPECT_EQ(t->values[slot], value) << "slot " << slot;
	}
}

TEST(htable_set, becomes_a_map_also_when_a_stored_key_gets_another_value)
{
	owned_table t(table_that_destroys());
	htable_add(t, item(7));
	htable_add(t, item(12));
	EXPECT_EQ(htable_replace(t, item(1012), item(99)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k12", "v12"}));
	EXPECT_NE(t->keys, t->values);
	EXPECT_EQ(htable_lookup(t, item(12)), item(99));
	EXPECT_EQ(htable_lookup(t, item(7)), item(7)); // in slot 0
	EXPECT_EQ(keys_of(t), (list{7, 1012}));
}

TEST(htable_set, becomes_a_map_by_insert_of_an_equal_key_as_its_value)
{
	// The stored key stays, so the value differs from it.
	owned_table t(table_that_destroys());
	htable_add(t, item(5));
	EXPECT_EQ(htable_insert(t, item(1005), item(1005)), 0);
	EXPECT_EQ(take_destroyed(), (names{"k1005", "v5"}));
	EXPECT_NE(t->keys, t->values);
	EXPECT_EQ(keys_of(t), list{5});
	EXPECT_EQ(values_of(t), list{1005});
}

// ---- Removal ----

TEST(htable_remove, takes_the_entry_out_and_destroys_key_then_value)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	htable_insert(t, item(6), item(60));
	EXPECT_EQ(htable_remove(t, item(1005)), 1);
	EXPECT_EQ(take_destroyed(), (names{"k5", "v50"}));
	EXPECT_EQ(htable_contains(t, item(5)), 0);
	EXPECT_EQ(htable_lookup(t, item(6)), item(60));
	EXPECT_EQ(htable_size(t), 1);
}

TEST(htable_remove, of_an_absent_key_returns_0_and_changes_nothing)
{
	owned_table t(table_that_destroys());
	EXPECT_EQ(htable_remove(t, item(5)), 0);
	htable_insert(t, item(5), item(50));
	EXPECT_EQ(htable_remove(t, item(6)), 0);
	EXPECT_EQ(htable_remove(t, item(5)), 1);
	take_destroyed();
	EXPECT_EQ(htable_remove(t, item(5)), 0);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(htable_size(t), 0);
}

TEST(htable_remove, leaves_a_tombstone_with_null_key_and_value)
{
	owned_table t;
	htable_insert(t, item(5), item(50));
	htable_insert(t, item(6), item(60));
	EXPECT_EQ(htable_remove(t, item(5)), 1);
	EXPECT_EQ(t->hashes[5], 1u);
	EXPECT_EQ(t->keys[5], nullptr);
	EXPECT_EQ(t->values[5], nullptr);
	EXPECT_EQ(t->live_count, 1);
	EXPECT_EQ(t->used_count, 2);
}

TEST(htable_remove, lets_the_destroy_functions_find_the_entry_gone)
{
	static htable *table;
	static list seen;
	auto look = [](void *old) {
		seen.push_back(number_of(old));
		seen.push_back(static_cast<uintptr_t>(htable_contains(table, item(5))));
		seen.push_back(static_cast<uintptr_t>(htable_size(table)));
		seen.push_back(number_of(htable_lookup(table, item(6))));
	};
	owned_table t(htable_new_full(hash_thousandth, equal_thousandth, look, look));
	table = t;
	htable_insert(t, item(5), item(50));
	htable_insert(t, item(6), item(60));
	seen.clear();
	EXPECT_EQ(htable_remove(t, item(5)), 1);
	EXPECT_EQ(seen, (list{5, 0, 1, 60, 50, 0, 1, 60}));
}

TEST(htable_remove, resizes_only_after_the_destroy_functions)
{
	static htable *table;
	static std::vector<int32_t> sizes;
	auto look = [](void *) { sizes.push_back(table->slot_count); };
	owned_table t(htable_new_full(hash_number, nullptr, look, look));
	table = t;
	for (uintptr_t key = 2; key < 10; key++)
		htable_add(t, item(key));
	sizes.clear();
	htable_remove(t, item(2));
	EXPECT_EQ(sizes, (std::vector<int32_t>{32, 32}));
	EXPECT_EQ(t->slot_count, 16);
	sizes.clear();
	htable_remove_all(t);
	EXPECT_EQ(sizes, std::vector<int32_t>(14, 16));
	EXPECT_EQ(t->slot_count, 8);
}

TEST(htable_remove, takes_a_key_that_its_own_destroy_function_releases)
{
	owned_table t(htable_new_full(hash_text, equal_text, free, free));
	char *key = strdup("key");
	htable_insert(t, key, strdup("value"));
	EXPECT_EQ(htable_remove(t, key), 1);
	EXPECT_EQ(htable_size(t), 0);
}

TEST(htable_steal, takes_the_entry_out_without_the_destroy_functions)
{
	owned_table t(table_that_destroys());
	htable_insert(t, item(5), item(50));
	htable_insert(t, item(6), item(60));
	EXPECT_EQ(htable_steal(t, item(5)), 1);
	EXPECT_EQ(htable_steal(t, item(5)), 0);
	EXPECT_EQ(htable_steal(t, item(7)), 0);
	EXPECT_EQ(take_destroyed(), names());
	EXPECT_EQ(t->hashes[5], 1u);
	EXPECT_EQ(t->keys[5], nullptr);
	EXPECT_EQ(t->values[5], nullptr);
	EXPECT_EQ(htable_size(t), 1);
}

TEST(htable_tombstone, is_passed_by_a_search)
{
	owned_table t;
	for (uintptr_t key : {2, 9, 16}) // slots 2, 3, 5
		htable_insert(t, item(key), item(10 * key));
	htable_remove(t, item(9));
	EXPECT_EQ(htable_lookup(t, item(9)), nullptr);
	EXPECT_EQ(htable_contains(t, item(9)), 0);
	EXPECT_EQ(htable_lookup(t, item(16)), item(160));
	EXPECT_EQ(htable_remove(t, item(16)), 1);
	EXPECT_EQ(htable_lookup(t, item(2)), item(20));
}

TEST(htable_tombstone, first_on_the_path_is_used_again)
{
	owned_table t;
	for (uintptr_t key : {2, 9, 16, 23}) // slots 2, 3, 5, 0
		htable_insert(t, item(key), item(10 * key));
	htable_remove(t, item(9));
	htable_remove(t, item(16));
	EXPECT_EQ(t->used_count, 4);
	EXPECT_EQ(htable_insert(t, item(30), item(300)), 1);
	EXPECT_EQ(t->keys[3], item(30));
	EXPECT_EQ(t->hashes[5], 1u);
	EXPECT_EQ(t->used_count, 4);
	EXPECT_EQ(t->live_count, 3);
	EXPECT_EQ(htable_lookup(t, item(30)), item(300));
	EXPECT_EQ(htable_insert(t, item(9), item(91)), 1);
	EXPECT_EQ(t->keys[5], item(9));
	EXPECT_EQ(t->used_count, 4);
	EXPECT_EQ(htable_lookup(t, item(23)), item(230));
}

TEST(htable_tombstone, does_not_hide_an_equal_key_behind_it)
{
	owned_table t;
	for (uintptr_t key : {2, 9})
		htable_insert(t, item(key), item(10 * key));
	htable_remove(t, item(2));
	EXPECT_EQ(htable_insert(t, item(9), item(91)), 0);
	EXPECT_EQ(t->keys[3], item(9));
	EXPECT_EQ(t->hashes[2], 1u);
	EXPECT_EQ(htable_size(t), 1);
}

TEST(htable_tombstone, used_again_does_not_resize)
{
	owned_table t;
	for (uintptr_t key = 2; key < 9; key++) // 7 of 8 slots
		htable_insert(t, item(key), item(1));
	EXPECT_EQ(t->slot_count, 8);
	for (int round = 0; round < 20; round++) {
		htable_remove(t, item(5));
		htable_insert(t, item(5), item(1));
		EXPECT_EQ(t->slot_count, 8);
		EXPECT_EQ(t->used_count, 7);
	}
}
