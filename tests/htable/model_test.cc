// Random calls, compared with a model.
#include "tests/htable/tables.h"

#include <random>
#include <set>

using namespace htable_tests;

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
