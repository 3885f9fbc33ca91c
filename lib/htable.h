/*
 * htable - a hash table of untyped keys and values, and FNV-1 hashing.
 *
 * Open addressing with triangular probing, tombstones and a prime modulus. Keys and values are
 * pointers that the table never looks into: they belong to the caller, unless destroy functions are
 * given. A set, in which every value equals its key, keeps one array for both.
 *
 * Only the reference count is atomic: references may be taken and dropped by several threads, all
 * else is for one thread at a time. A null table makes every function return 0 or null, or do
 * nothing, except htable_get_keys and htable_get_values, which require a table.
 *
 * Exhausted memory is not fatal here. When a re-size cannot have its arrays the table goes on with
 * those it has, and tries again at the next change; only a table with no free slot left refuses a
 * new key.
 *
 * The destroy functions may look into the table; they must not change it. While all entries are being
 * removed htable_size is 0 from the beginning, and a look-up may miss an entry that is still to go.
 */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint32_t (*htable_hash_fn)(const void *key);
/* Non-zero if equal; the key stored comes first, the key looked for second. */
typedef int (*htable_equal_fn)(const void *stored, const void *key);
typedef void (*htable_free_fn)(void *item);

/* For reading by debuggers and tests; use the functions. */
struct htable {
	int32_t slot_count;         /* a power of two, at least 8 */
	uint32_t prime_mod;         /* hash % prime_mod is the first slot looked at */
	uint32_t mask;              /* slot_count - 1 */
	int32_t live_count;         /* entries */
	int32_t used_count;         /* entries and tombstones */
	uint32_t *hashes;           /* per slot: 0 empty, 1 tombstone, else the entry's hash */
	void **keys;                /* per slot */
	void **values;              /* per slot; the array of the keys itself as long as the table is a set */
	htable_hash_fn hash_fn;     /* a hash of 0 or 1 counts as 2 */
	htable_equal_fn equal_fn;   /* null: keys are compared as pointers */
	int32_t refcount;           /* starts at 1 */
	htable_free_fn key_free_fn; /* may be null */
	htable_free_fn value_free_fn; /* may be null */
};

/*
 * FNV-1 (not FNV-1a) of `length` bytes, or of a text without its zero. `hash` is the starting value:
 * 2166136261 for the usual hash, or an earlier result to go on from.
 */
uint32_t fnv_32_buf(const void *bytes, size_t length, uint32_t hash);
uint32_t fnv_32_str(const char *text, uint32_t hash);

/*
 * A new table with one reference. `equal_fn` may be null, and so may the destroy functions, which are
 * called on keys and values that leave the table by being replaced, removed or cleared.
 * Null when memory is exhausted, and for a null `hash_fn`.
 */
struct htable *htable_new_full(htable_hash_fn hash_fn, htable_equal_fn equal_fn, htable_free_fn key_free_fn,
	htable_free_fn value_free_fn);
struct htable *htable_new(htable_hash_fn hash_fn, htable_equal_fn equal_fn);

/* Takes one more reference; returns the table. */
struct htable *htable_ref(struct htable *table);

/* Drops a reference; the last one destroys all entries and frees the table. */
void htable_unref(struct htable *table);

/*
 * Stores `value` under `key`. Of two equal keys htable_insert keeps the stored one and destroys the
 * one passed, htable_replace keeps the one passed; the former value is destroyed in either case.
 *
 * The first value that differs from its stored key makes the table a map, which it stays. The values of
 * the entries already stored are carried over only in the first slot_count bytes of the array: the
 * others become null. So do not turn a set that has entries into a map, and add to a set
 * with htable_add only: htable_insert keeps the stored key, from which the one passed, as the value,
 * may differ.
 *
 * Returns: 1 if the key was new, 0 if not. When the table is full and memory exhausted, or there is
 *          none for the map's values, key and value are destroyed and the result is 0.
 */
int htable_insert(struct htable *table, void *key, void *value);
int htable_replace(struct htable *table, void *key, void *value);

/* Adds to a set: htable_replace with the key as its value. */
int htable_add(struct htable *table, void *key);

/* 1 if there is an entry with an equal key, else 0. */
int htable_contains(struct htable *table, const void *key);

/* The value stored under `key`; null if there is none (or if it is null). The table still owns it. */
void *htable_lookup(struct htable *table, const void *key);

/* Removes an entry, with and without calling the destroy functions. 1 if there was one, else 0. */
int htable_remove(struct htable *table, const void *key);
int htable_steal(struct htable *table, const void *key);

/* Remove every entry, with and without calling the destroy functions. */
void htable_remove_all(struct htable *table);
void htable_steal_all(struct htable *table);

/* htable_remove_all, then htable_unref. */
void htable_destroy(struct htable *table);

/* Number of entries. */
int32_t htable_size(struct htable *table);

/*
 * A new array of all keys, or values, in slot order, with a null pointer at its end that
 * `*count` (unless `count` is null) does not count. The caller frees the array; what it points to
 * stays the table's. Null when memory is exhausted, and `*count` is then not written.
 */
void **htable_get_keys(struct htable *table, uint32_t *count);
void **htable_get_values(struct htable *table, uint32_t *count);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
