// Tables of numbers whose slots are known, the calls of their destroy functions, and what holds of every table.
#pragma once
#include "lib/htable.h"

#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/memory.h"

namespace htable_tests
{

// Items of most tests are numbers dressed as pointers, and each hashes to itself: the slot of a key is
// known. In 8 slots the first slot looked at is the number modulo 7.
inline void *item(uintptr_t number)
{
	return reinterpret_cast<void *>(number);
}

inline uintptr_t number_of(const void *pointer)
{
	return reinterpret_cast<uintptr_t>(pointer);
}

inline uint32_t hash_number(const void *key)
{
	return static_cast<uint32_t>(number_of(key));
}

// Numbers from 1000 on are other keys than those below 1000, with the same hashes and equal to them.
inline uint32_t hash_thousandth(const void *key)
{
	return static_cast<uint32_t>(number_of(key) % 1000);
}

inline int equal_thousandth(const void *stored, const void *key)
{
	return number_of(stored) % 1000 == number_of(key) % 1000;
}

inline uint32_t hash_text(const void *key)
{
	return fnv_32_str(static_cast<const char *>(key), 2166136261);
}

inline int equal_text(const void *stored, const void *key)
{
	return strcmp(static_cast<const char *>(stored), static_cast<const char *>(key)) == 0;
}

// What the destroy functions were called with, in order: "k5" a key, "v5" a value.
inline std::vector<std::string> destroyed;

inline void destroy_key(void *key)
{
	destroyed.push_back("k" + std::to_string(number_of(key)));
}

inline void destroy_value(void *value)
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

inline names take_destroyed()
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

inline htable *table_that_destroys()
{
	return htable_new_full(hash_thousandth, equal_thousandth, destroy_key, destroy_value);
}

inline std::vector<uintptr_t> numbers_in(void **items, uint32_t count)
{
	std::vector<uintptr_t> numbers;
	for (uint32_t index = 0; items && index < count; index++)
		numbers.push_back(number_of(items[index]));
	EXPECT_TRUE(items && !items[count]);
	free(items);
	return numbers;
}

inline std::vector<uintptr_t> keys_of(htable *t)
{
	uint32_t count = 77;
	void **keys = htable_get_keys(t, &count);
	return numbers_in(keys, count);
}

inline std::vector<uintptr_t> values_of(htable *t)
{
	uint32_t count = 77;
	void **values = htable_get_values(t, &count);
	return numbers_in(values, count);
}

using list = std::vector<uintptr_t>;

inline uint32_t largest_prime_up_to(uint32_t number)
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
inline uint32_t prime_below(int32_t slot_count)
{
	static std::map<int32_t, uint32_t> known;
	uint32_t &prime = known[slot_count];
	if (!prime)
		prime = largest_prime_up_to(static_cast<uint32_t>(slot_count) - 1);
	return prime;
}

// What holds of the fields after every call that had the memory it wanted.
inline void expect_sound(const htable *t)
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

} // namespace htable_tests
