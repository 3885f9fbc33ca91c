// The hash table: its operations, the slots behind them, the destroy functions, and exhausted memory.
#include "lib/htable.h"

#include <gtest/gtest.h>
#include <latch>
#include <map>
#include <random>
#include <set>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/memory.h"

namespace
{

// Items of most tests are numbers dressed as pointers, and each hashes to itself: the slot of a key is
// known. In 8 slots the first slot looked at is the number modulo 7.
void *item(uintptr_t number)
{
	return reinterpret_cast<void *>(number);
}

uintptr_t number_of(const void *pointer)
{
	return reinterpret_cast<uintptr_t>(pointer);
}

uint32_t hash_number(const void *key)
{
	return static_cast<uint32_t>(number_of(key));
}

// Numbers from 1000 on are other keys than those below 1000, with the same hashes and equal to them.
uint32_t hash_thousandth(const void *key)
{
	return static_cast<uint32_t>(number_of(key) % 1000);
}

int equal_thousandth(const void *stored, const void *key)
{
	return number_of(stored) % 1000 == number_of(key) % 1000;
}

uint32_t hash_text(const void *key)
{
	return fnv_32_str(static_cast<const char *>(key), 2166136261);
}

int equal_text(const void *stored, const void *key)
{
	return strcmp(static_cast<const char *>(stored), static_cast<const char *>(key)) == 0;
}

// What the destroy functions were called with, in order: "k5" a key, "v5" a value.
std::vector<std::string> destroyed;

void destroy_key(void *key)
{
	destroyed.push_back("k" + std::to_string(number_of(key)));
}

void destroy_value(void *value)
{
	destroyed.push_back("v" + std::to_string(number_of(value)));
}

// While one lives, only so many allocations succeed. Notes of what is destroyed need none.
struct scarce_memory {
	explicit scarce_memory(int requests)
	{
		destroyed.reserve(64);
		memory.refuse_from(requests);
	}
	scarce_memory(const scarce_memory &) = delete;
	scarce_memory &operator=(const scarce_memory &) = delete;
	~scarce_memory() { memory.grant(); }
};

// How many allocations `calls` makes.
template <typename F>
int requests_of(F calls)
{
	int before = memory.requests;
	calls();
	return memory.requests - before;
}

using names = std::vector<std::string>;

names take_destroyed()
{
	return std::exchange(destroyed, {});
}

// A table that is released with its owner; the constructor's default table takes the numbers above.
struct owned_table {
	htable *t;

	explicit owned_table(htable *table = htable_new(hash_number, nullptr)) : t(table)
	{
		destroyed.clear();
	}
	owned_table(const owned_table &) = delete;
	owned_table &operator=(const owned_table &) = delete;
	~owned_table() { htable_unref(t); }
	htable *operator->() const { return t; }
	operator htable *() const { return t; }
};

htable *table_that_destroys()
{
	return htable_new_full(hash_thousandth, equal_thousandth, destroy_key, destroy_value);
}

std::vector<uintptr_t> numbers_in(void **items, uint32_t count)
{
	std::vector<uintptr_t> numbers;
	for (uint32_t index = 0; items && index < count; index++)
		numbers.push_back(number_of(items[index]));
	EXPECT_TRUE(items && !items[count]);
	free(items);
	return numbers;
}

std::vector<uintptr_t> keys_of(htable *t)
{
	uint32_t count = 77;
	void **keys = htable_get_keys(t, &count);
	return numbers_in(keys, count);
}

std::vector<uintptr_t> values_of(htable *t)
{
	uint32_t count = 77;
	void **values = htable_get_values(t, &count);
	return numbers_in(values, count);
}

using list = std::vector<uintptr_t>;

uint32_t largest_prime_up_to(uint32_t number)
{
	for (;; number--) {
		bool prime = number >= 2;
		for (uint64_t divisor = 2; prime && divisor * divisor <= number; divisor++)
			prime = number % divisor != 0;
		if (prime)
			return number;
	}
}

// The largest prime below a power of two, for the sizes that tests reach.
uint32_t prime_below(int32_t slot_count)
{
	static std::map<int32_t, uint32_t> known;
	uint32_t &prime = known[slot_count];
	if (!prime)
		prime = largest_prime_up_to(static_cast<uint32_t>(slot_count) - 1);
	return prime;
}

// What holds of the fields after every call that had the memory it wanted.
void expect_sound(const htable *t)
{
	ASSERT_GE(t->slot_count, 8);
	ASSERT_EQ(t->slot_count & (t->slot_count - 1), 0);
	ASSERT_EQ(t->mask, static_cast<uint32_t>(t->slot_count) - 1);
	ASSERT_EQ(t->prime_mod, prime_below(t->slot_count));

	int32_t live_count = 0, used_count = 0;
	for (int32_t slot = 0; slot < t->slot_count; slot++) {
		used_count += t->hashes[slot] != 0;
		if (t->hashes[slot] < 2) {
			ASSERT_EQ(t->keys[slot], nullptr);
			ASSERT_EQ(t->values[slot], nullptr);
			continue;
		}
		live_count++;
		uint32_t hash = t->hash_fn(t->keys[slot]);
		ASSERT_EQ(t->hashes[slot], hash < 2 ? 2 : hash);
		uint32_t place = t->hashes[slot] % t->prime_mod;
		for (uint32_t step = 1; place != static_cast<uint32_t>(slot); step++) {
			ASSERT_NE(t->hashes[place], 0u) << "slot " << slot << " cannot be reached";
			place = (place + step) & t->mask;
		}
	}
	ASSERT_EQ(live_count, t->live_count);
	ASSERT_EQ(used_count, t->used_count);
	ASSERT_FALSE(t->slot_count > 4 * t->live_count && t->slot_count >= 9) << "should have shrunk";
	ASSERT_FALSE(t->slot_count <= t->used_count + t->used_count / 16) << "should have grown";
}

} // namespace

// FNV-1

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

// A new table

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

// Null in place of a table

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

// Storing and finding

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

// Sets

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

// Removal

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

// Re-sizing

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

// All at once

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
	// The size is 0 from the start; an entry is gone before its own call; those behind are still there.
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

// Lifetime

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

// Listing

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

// Exhausted memory

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

// Against a model

namespace
{

// Hash functions from good to as bad as can be.
uint32_t hash_spread(const void *key)
{
	uint32_t number = static_cast<uint32_t>(number_of(key) % 1000);
	return fnv_32_buf(&number, sizeof number, 2166136261);
}

uint32_t hash_few(const void *key)
{
	return static_cast<uint32_t>(number_of(key) % 1000 % 5);
}

uint32_t hash_same(const void *)
{
	return 0;
}

struct model_entry {
	uintptr_t key, value;
	bool operator==(const model_entry &) const = default;
};

// The table as a map from what makes keys equal to key and value.
using model = std::map<uintptr_t, model_entry>;

void expect_same_content(htable *t, const model &entries)
{
	list keys = keys_of(t), values = values_of(t);
	ASSERT_EQ(keys.size(), entries.size());
	ASSERT_EQ(values.size(), entries.size());
	model found;
	for (size_t index = 0; index < keys.size(); index++)
		found[keys[index] % 1000] = {keys[index], values[index]};
	ASSERT_EQ(found, entries);
}

std::string key_name(uintptr_t key)
{
	return "k" + std::to_string(key);
}

std::string value_name(uintptr_t value)
{
	return "v" + std::to_string(value);
}

void compare_with_model(htable_hash_fn hash, unsigned seed, uintptr_t different_keys)
{
	std::mt19937 random(seed);
	owned_table t(htable_new_full(hash, equal_thousandth, destroy_key, destroy_value));
	htable_insert(t, item(1), item(2)); // a map from the start
	htable_steal_all(t);
	model entries;
	for (int step = 0; step < 4000; step++) {
		// Phases of mostly storing and mostly removing, so that the table grows and shrinks.
		bool removes = random() % 100 < (step / 500 % 2 ? 75u : 25u);
		uintptr_t number = 1 + random() % different_keys;
		uintptr_t key = number + 1000 * (random() % 4), value = 1 + random() % 900;
		auto stored = entries.find(number);
		bool is_stored = stored != entries.end();
		names expected;
		SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));

		if (random() % 1000 == 0) {
			bool notifies = random() % 2;
			notifies ? htable_remove_all(t) : htable_steal_all(t);
			ASSERT_EQ(take_destroyed().size(), notifies ? 2 * entries.size() : 0);
			entries.clear();
		} else if (removes && random() % 2) {
			ASSERT_EQ(htable_remove(t, item(key)), is_stored);
			if (is_stored)
				expected = {key_name(stored->second.key), value_name(stored->second.value)};
			entries.erase(number);
		} else if (removes) {
			ASSERT_EQ(htable_steal(t, item(key)), is_stored);
			entries.erase(number);
		} else if (random() % 2) {
			ASSERT_EQ(htable_insert(t, item(key), item(value)), !is_stored);
			if (is_stored)
				expected = {key_name(key), value_name(stored->second.value)};
			entries[number] = {is_stored ? stored->second.key : key, value};
		} else {
			bool adds = random() % 2;
			if (adds)
				value = key;
			ASSERT_EQ(adds ? htable_add(t, item(key)) : htable_replace(t, item(key), item(value)),
				!is_stored);
			if (is_stored)
				expected = {key_name(stored->second.key), value_name(stored->second.value)};
			entries[number] = {key, value};
		}
		ASSERT_EQ(take_destroyed(), expected);
		ASSERT_EQ(htable_size(t), static_cast<int32_t>(entries.size()));

		uintptr_t other = 1 + random() % different_keys;
		auto found = entries.find(other);
		ASSERT_EQ(htable_contains(t, item(other + 1000)), found != entries.end());
		ASSERT_EQ(number_of(htable_lookup(t, item(other + 2000))),
			found != entries.end() ? found->second.value : 0);
		if (step % 16 == 0) {
			ASSERT_NO_FATAL_FAILURE(expect_sound(t));
			ASSERT_NO_FATAL_FAILURE(expect_same_content(t, entries));
		}
	}
	htable_ref(t);
	htable_destroy(t);
	ASSERT_EQ(take_destroyed().size(), 2 * entries.size());
}

} // namespace

TEST(htable, behaves_like_a_map_under_random_calls_with_a_good_hash)
{
	for (unsigned seed = 1; seed <= 6; seed++)
		compare_with_model(hash_spread, seed, seed * 150);
}

TEST(htable, behaves_like_a_map_under_random_calls_with_consecutive_hashes)
{
	for (unsigned seed = 1; seed <= 6; seed++)
		compare_with_model(hash_thousandth, seed, seed * 150);
}

TEST(htable, behaves_like_a_map_under_random_calls_with_few_hashes)
{
	for (unsigned seed = 1; seed <= 4; seed++)
		compare_with_model(hash_few, seed, seed * 40);
}

TEST(htable, behaves_like_a_map_under_random_calls_with_one_hash)
{
	for (unsigned seed = 1; seed <= 4; seed++)
		compare_with_model(hash_same, seed, seed * 20);
}

TEST(htable, behaves_like_a_set_under_random_calls)
{
	for (unsigned seed = 1; seed <= 6; seed++) {
		std::mt19937 random(seed);
		owned_table t;
		std::set<uintptr_t> members;
		for (int step = 0; step < 5000; step++) {
			uintptr_t key = 1 + random() % (seed * 100);
			if (random() % 100 < (step / 700 % 2 ? 70u : 30u))
				ASSERT_EQ(htable_remove(t, item(key)), static_cast<int>(members.erase(key)));
			else
				ASSERT_EQ(htable_add(t, item(key)), members.insert(key).second);
			ASSERT_EQ(htable_size(t), static_cast<int32_t>(members.size()));
			ASSERT_EQ(htable_lookup(t, item(key)), members.count(key) ? item(key) : nullptr);
			ASSERT_EQ(t->keys, t->values);
			if (step % 16 == 0) {
				ASSERT_NO_FATAL_FAILURE(expect_sound(t));
				list keys = keys_of(t);
				ASSERT_EQ(std::set<uintptr_t>(keys.begin(), keys.end()), members);
			}
		}
	}
}

TEST(htable, survives_random_calls_with_memory_that_fails_at_random)
{
	for (unsigned seed = 1; seed <= 10; seed++) {
		std::mt19937 random(seed);
		owned_table t;
		std::map<uintptr_t, uintptr_t> entries;
		for (int step = 0; step < 3000; step++) {
			uintptr_t key = 1 + random() % 200, value = 1000 + random() % 1000;
			bool was_stored = entries.count(key),
			     removes = random() % 100 < (step / 500 % 2 ? 70u : 30u);
			int result;
			{
				scarce_memory scarce(random() % 3 ? -1 : static_cast<int>(random() % 4));
				result = removes ? htable_remove(t, item(key))
						 : htable_insert(t, item(key), item(value));
			}
			SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
			if (removes) {
				ASSERT_EQ(result, was_stored);
				entries.erase(key);
			} else if (was_stored) {
				ASSERT_EQ(result, 0);
				entries[key] = value;
			} else if (result) {
				entries[key] = value;
			} else { // refused: a full table, or a set that could not become a map
				ASSERT_FALSE(htable_contains(t, item(key)));
				ASSERT_TRUE(t->keys == t->values || t->live_count == t->slot_count);
			}
			ASSERT_EQ(htable_size(t), static_cast<int32_t>(entries.size()));
			for (auto &[stored, its_value] : entries)
				ASSERT_EQ(number_of(htable_lookup(t, item(stored))), its_value);
		}
	}
}
