// Open addressing over three parallel arrays: hashes, keys and values. The hash of a slot tells its kind: 0 is empty,
// 1 is a tombstone, any other is the hash of a live entry. So probing reads the keys only where hashes are equal.
// Probing is triangular (1, 3, 6, 10, ... slots on). In a table of a power of two this visits every slot once.

#include "htable.h"

#include <stdlib.h>
#include <string.h>

#include "internal/htable.h"
#include "internal/invariant.h"

static constexpr uint32_t FNV_32_PRIME = 16777619;

static constexpr uint32_t EMPTY = 0;
static constexpr uint32_t TOMBSTONE = 1;
static constexpr uint32_t FIRST_HASH = 2; // of a live entry

static constexpr int SHIFT_MIN = 3;  // 8 slots
static constexpr int SHIFT_MAX = 30; // slots are counted in an int32_t
static constexpr int32_t NO_SLOT = -1;

// The largest prime below each power of two; 1, 2 and 3 for the first three.
static constexpr uint32_t PRIMES[SHIFT_MAX + 1] = {1, 2, 3, 7, 13, 31, 61, 127, 251, 509, 1021, 2039, 4093,
	8191, 16381, 32749, 65521, 131071, 262139, 524287, 1048573, 2097143, 4194301, 8388593, 16777213,
	33554393, 67108859, 134217689, 268435399, 536870909, 1073741789};

// They turn a division by a prime into a multiplication: 2^32 * (2^shift - prime) / prime + 1.
struct reciprocal_table {
	uint32_t of_shift[SHIFT_MAX + 1];
};

static constexpr reciprocal_table make_reciprocals()
{
	reciprocal_table table = {};
	for (int shift = SHIFT_MIN; shift <= SHIFT_MAX; shift++) {
		uint64_t excess = (uint64_t{1} << shift) - PRIMES[shift];
		table.of_shift[shift] = static_cast<uint32_t>((excess << 32) / PRIMES[shift] + 1);
	}
	return table;
}

static constexpr reciprocal_table RECIPROCALS = make_reciprocals();

uint32_t fnv_32_buf(const void *bytes, size_t length, uint32_t hash)
{
	const unsigned char *byte = static_cast<const unsigned char *>(bytes);
	for (const unsigned char *end = byte + length; byte < end; byte++)
		hash = (hash * FNV_32_PRIME) ^ *byte;
	return hash;
}

uint32_t fnv_32_str(const char *text, uint32_t hash)
{
	for (; *text; text++)
		hash = (hash * FNV_32_PRIME) ^ static_cast<unsigned char>(*text);
	return hash;
}

static void set_shift(htable *t, int shift)
{
	t->slot_count = int32_t{1} << shift;
	t->prime_mod = PRIMES[shift];
	t->mask = static_cast<uint32_t>(t->slot_count) - 1;
}

static bool is_set(const htable *t)
{
	return t->keys == t->values;
}

static bool is_live(const htable *t, int32_t slot)
{
	return t->hashes[slot] >= FIRST_HASH;
}

// All arrays lie in one allocation, which begins with the keys.
static void free_arrays(htable *t)
{
	free(t->keys);
}

// Gives `t` new, zeroed arrays; it forgets the old ones. False, with nothing changed, if memory is exhausted.
static bool renew_arrays(htable *t, size_t slot_count, bool separate_values)
{
	size_t pointers = separate_values ? 2 : 1;
	void *block = calloc(slot_count, pointers * sizeof(void *) + sizeof(uint32_t));
	if (!block)
		return false;
	t->keys = static_cast<void **>(block);
	t->values = t->keys + (pointers - 1) * slot_count;
	t->hashes = reinterpret_cast<uint32_t *>(t->keys + pointers * slot_count);
	return true;
}

// hash % prime_mod. A division would take as long as the rest of a look-up.
static uint32_t first_slot(const htable *t, uint32_t hash)
{
	int shift = 31 - __builtin_clz(static_cast<uint32_t>(t->slot_count));
	uint32_t high = static_cast<uint32_t>((uint64_t{hash} * RECIPROCALS.of_shift[shift]) >> 32);
	uint32_t quotient = (high + ((hash - high) >> 1)) >> (shift - 1);
	return hash - quotient * t->prime_mod;
}

static uint32_t hash_of(const htable *t, const void *key)
{
	uint32_t hash = t->hash_fn(key);
	return hash < FIRST_HASH ? FIRST_HASH : hash;
}

static bool holds_key(const htable *t, int32_t slot, const void *key)
{
	return t->equal_fn ? t->equal_fn(t->keys[slot], key) != 0 : t->keys[slot] == key;
}

// The slot of the entry with an equal key. Without such an entry, the slot to store it in: the first tombstone on the
// path, else the empty slot at its end. NO_SLOT if every slot has another entry.
static int32_t find_slot(const htable *t, const void *key, uint32_t hash)
{
	int32_t tombstone = NO_SLOT;
	uint32_t slot = first_slot(t, hash);
	for (uint32_t step = 1; step <= static_cast<uint32_t>(t->slot_count); step++) {
		int32_t index = static_cast<int32_t>(slot);
		uint32_t state = t->hashes[slot];
		if (state == EMPTY)
			return tombstone == NO_SLOT ? index : tombstone;
		if (state == hash) {
			if (holds_key(t, index, key))
				return index;
		} else if (state == TOMBSTONE && tombstone == NO_SLOT) {
			tombstone = index;
		}
		slot = (slot + step) & t->mask;
	}
	return tombstone;
}

bool htable_has_too_many_collisions(const htable *t, const void *key, int32_t probes_max)
{
	if (t->used_count < probes_max)
		return false;
	uint32_t slot = first_slot(t, hash_of(t, key));
	for (int32_t step = 1; step <= probes_max; step++) {
		if (t->hashes[slot] == EMPTY)
			return false;
		slot = (slot + static_cast<uint32_t>(step)) & t->mask;
	}
	return true;
}

// The slot of the live entry with an equal key, or NO_SLOT.
static int32_t find_entry(const htable *t, const void *key)
{
	int32_t slot = find_slot(t, key, hash_of(t, key));
	return slot != NO_SLOT && is_live(t, slot) ? slot : NO_SLOT;
}

static void reinsert(htable *t, uint32_t hash, void *key, void *value)
{
	invariant(t->used_count < t->slot_count); // so the search ends
	t->used_count++;
	uint32_t slot = first_slot(t, hash);
	for (uint32_t step = 1; t->hashes[slot] != EMPTY; step++)
		slot = (slot + step) & t->mask;
	t->hashes[slot] = hash;
	t->keys[slot] = key;
	t->values[slot] = value;
}

static int shift_for(int32_t live_count)
{
	int shift = SHIFT_MIN;
	while (shift <= SHIFT_MAX && int64_t{2} * live_count >= int64_t{1} << shift)
		shift++;
	return shift;
}

// Rebuilds the table without tombstones, in the size that fits its entries. False, with nothing changed, if memory
// is exhausted.
static bool resize(htable *t)
{
	invariant(t->live_count <= t->used_count);
	int shift = shift_for(t->live_count);
	htable old = *t;
	if (shift > SHIFT_MAX || !renew_arrays(t, size_t{1} << shift, !is_set(t)))
		return false;
	set_shift(t, shift);
	t->used_count = 0;
	for (int32_t slot = 0; slot < old.slot_count; slot++)
		if (is_live(&old, slot))
			reinsert(t, old.hashes[slot], old.keys[slot], old.values[slot]);
	invariant(t->used_count == t->live_count);
	free_arrays(&old);
	return true;
}

static void resize_if_due(htable *t)
{
	bool sparse = t->slot_count > int64_t{4} * t->live_count && t->slot_count > 1 << SHIFT_MIN;
	bool nearly_full = t->slot_count <= int64_t{t->used_count} + t->used_count / 16;
	if (sparse || nearly_full)
		resize(t); // without memory the table goes on as it is
}

static void destroy_entry(const htable *t, void *key, void *value)
{
	if (t->key_free_fn)
		t->key_free_fn(key);
	if (t->value_free_fn)
		t->value_free_fn(value);
}

// Copies slot_count bytes of the keys to the values, not slot_count pointers; the other values are null:
// compatibility, short copy
static bool become_map(htable *t)
{
	size_t slot_count = static_cast<size_t>(t->slot_count);
	htable old = *t;
	if (!renew_arrays(t, slot_count, true))
		return false;
	memcpy(t->hashes, old.hashes, slot_count * sizeof *t->hashes);
	memcpy(t->keys, old.keys, slot_count * sizeof *t->keys);
	memcpy(t->values, old.keys, slot_count);
	free_arrays(&old);
	return true;
}

// The table stays as it is. The new key and value are destroyed as if they had been replaced.
static int refuse(const htable *t, void *key, void *value)
{
	destroy_entry(t, key, value);
	return 0;
}

static int32_t slot_to_store(htable *t, const void *key, uint32_t hash)
{
	int32_t slot = find_slot(t, key, hash);
	if (slot == NO_SLOT && resize(t))
		slot = find_slot(t, key, hash);
	return slot;
}

static int store(htable *t, void *key, void *value, bool keeps_new_key)
{
	uint32_t hash = hash_of(t, key);
	int32_t slot = slot_to_store(t, key, hash);
	if (slot == NO_SLOT)
		return refuse(t, key, value);

	uint32_t old_state = t->hashes[slot];
	void *old_key = t->keys[slot];
	void *old_value = t->values[slot];
	bool is_new = old_state < FIRST_HASH;
	bool takes_key = is_new || keeps_new_key;
	if (is_set(t) && value != (takes_key ? key : old_key) && !become_map(t))
		return refuse(t, key, value);

	t->hashes[slot] = hash;
	if (takes_key)
		t->keys[slot] = key;
	t->values[slot] = value;
	if (!is_new) {
		destroy_entry(t, takes_key ? old_key : key, old_value);
		return 0;
	}
	t->live_count++;
	if (old_state == EMPTY) {
		t->used_count++;
		resize_if_due(t);
	}
	return 1;
}

static int take_out(htable *t, const void *key, bool destroys)
{
	int32_t slot = find_entry(t, key);
	if (slot == NO_SLOT)
		return 0;
	invariant(t->live_count > 0);
	void *old_key = t->keys[slot];
	void *old_value = t->values[slot];
	t->hashes[slot] = TOMBSTONE;
	t->keys[slot] = nullptr;
	t->values[slot] = nullptr;
	t->live_count--;
	if (destroys)
		destroy_entry(t, old_key, old_value);
	resize_if_due(t);
	return 1;
}

static void zero_arrays(htable *t)
{
	size_t slot_count = static_cast<size_t>(t->slot_count);
	memset(t->hashes, 0, slot_count * sizeof *t->hashes);
	memset(t->keys, 0, slot_count * sizeof *t->keys);
	memset(t->values, 0, slot_count * sizeof *t->values);
}

static void clear(htable *t, bool destroys)
{
	t->live_count = 0;
	t->used_count = 0;
	if (!destroys || (!t->key_free_fn && !t->value_free_fn)) {
		zero_arrays(t);
		return;
	}
	for (int32_t slot = 0; slot < t->slot_count; slot++) {
		if (t->hashes[slot] == EMPTY)
			continue;
		bool was_live = is_live(t, slot);
		void *key = t->keys[slot];
		void *value = t->values[slot];
		t->hashes[slot] = EMPTY; // first, so that a destroy function may look into the table
		t->keys[slot] = nullptr;
		t->values[slot] = nullptr;
		if (was_live)
			destroy_entry(t, key, value);
	}
}

struct htable *htable_new_full(htable_hash_fn hash_fn, htable_equal_fn equal_fn, htable_free_fn key_free_fn,
	htable_free_fn value_free_fn)
{
	if (!hash_fn)
		return nullptr;
	htable *t = static_cast<htable *>(calloc(1, sizeof *t));
	if (!t)
		return nullptr;
	set_shift(t, SHIFT_MIN);
	if (!renew_arrays(t, static_cast<size_t>(t->slot_count), false)) {
		free(t);
		return nullptr;
	}
	t->hash_fn = hash_fn;
	t->equal_fn = equal_fn;
	t->refcount = 1;
	t->key_free_fn = key_free_fn;
	t->value_free_fn = value_free_fn;
	return t;
}

struct htable *htable_new(htable_hash_fn hash_fn, htable_equal_fn equal_fn)
{
	return htable_new_full(hash_fn, equal_fn, nullptr, nullptr);
}

struct htable *htable_ref(struct htable *table)
{
	if (table)
		__atomic_add_fetch(&table->refcount, 1, __ATOMIC_SEQ_CST);
	return table;
}

void htable_unref(struct htable *table)
{
	if (!table || __atomic_sub_fetch(&table->refcount, 1, __ATOMIC_SEQ_CST) != 0)
		return;
	clear(table, true);
	free_arrays(table);
	free(table);
}

int htable_insert(struct htable *table, void *key, void *value)
{
	return table ? store(table, key, value, false) : 0;
}

int htable_replace(struct htable *table, void *key, void *value)
{
	return table ? store(table, key, value, true) : 0;
}

int htable_add(struct htable *table, void *key)
{
	return htable_replace(table, key, key);
}

int htable_contains(struct htable *table, const void *key)
{
	return table && find_entry(table, key) != NO_SLOT;
}

void *htable_lookup(struct htable *table, const void *key)
{
	if (!table)
		return nullptr;
	int32_t slot = find_entry(table, key);
	return slot == NO_SLOT ? nullptr : table->values[slot];
}

int htable_remove(struct htable *table, const void *key)
{
	return table ? take_out(table, key, true) : 0;
}

int htable_steal(struct htable *table, const void *key)
{
	return table ? take_out(table, key, false) : 0;
}

static void take_out_all(htable *t, bool destroys)
{
	if (!t)
		return;
	clear(t, destroys);
	resize_if_due(t);
}

void htable_remove_all(struct htable *table)
{
	take_out_all(table, true);
}

void htable_steal_all(struct htable *table)
{
	take_out_all(table, false);
}

void htable_destroy(struct htable *table)
{
	htable_remove_all(table);
	htable_unref(table);
}

int32_t htable_size(struct htable *table)
{
	return table ? table->live_count : 0;
}

// Counts the slots: while the table is cleared, `live_count` is 0 already, and a destroy function may ask.
static size_t count_live(const htable *t)
{
	size_t live_count = 0;
	for (int32_t slot = 0; slot < t->slot_count; slot++)
		live_count += is_live(t, slot);
	return live_count;
}

// The items of live slots, out of the table's keys or values.
static void **live_items(const htable *t, void *const *array, uint32_t *count)
{
	size_t live_count = count_live(t);
	void **items = static_cast<void **>(malloc((live_count + 1) * sizeof *items));
	if (!items)
		return nullptr;
	void **end = items;
	for (int32_t slot = 0; slot < t->slot_count; slot++)
		if (is_live(t, slot))
			*end++ = array[slot];
	*end = nullptr;
	if (count)
		*count = static_cast<uint32_t>(live_count);
	return items;
}

void **htable_get_keys(struct htable *table, uint32_t *count)
{
	return live_items(table, table->keys, count);
}

void **htable_get_values(struct htable *table, uint32_t *count)
{
	return live_items(table, table->values, count);
}
