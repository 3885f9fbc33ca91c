/*
 * htable - a hash table of untyped keys and values, and FNV-1 hashing.
 *
 * Keys and values are pointers that the table never looks into; they are the caller's unless there are
 * destroy functions. A set, in which each value equals its key, has one array for both.
 *
 * One thread at a time, but several may take and drop references. With a null table functions return 0 or
 * null, or do nothing; only htable_get_keys and htable_get_values require one.
 *
 * Exhausted memory is not fatal: a resize is tried again at the next change, and only a full table
 * refuses a new key.
 *
 * Destroy functions may look into the table, not change it. While all entries are removed its size is 0,
 * and a look-up may miss one.
 */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint32_t (*htable_hash_fn)(const void *key);
/* Returns:   non-zero if equal. */
typedef int (*htable_equal_fn)(const void *stored, const void *key);
typedef void (*htable_free_fn)(void *item);

/* For reading by debuggers and tests; use the functions. */
struct htable {
	int32_t slot_count;           /* power of two, at least 8 */
	uint32_t prime_mod;           /* hash % prime_mod: the first slot looked at */
	uint32_t mask;                /* slot_count - 1 */
	int32_t live_count;           /* entries */
	int32_t used_count;           /* entries and tombstones */
	uint32_t *hashes;             /* per slot: 0 empty, 1 tombstone, else the entry's hash */
	void **keys;                  /* per slot */
	void **values;                /* per slot; the same array as `keys` in a set */
	htable_hash_fn hash_fn;       /* a hash of 0 or 1 counts as 2 */
	htable_equal_fn equal_fn;     /* null: keys are compared as pointers */
	int32_t refcount;             /* starts at 1 */
	htable_free_fn key_free_fn;   /* may be null */
	htable_free_fn value_free_fn; /* may be null */
};

/*
 * FNV-1 (not FNV-1a) of `length` bytes, or of a text without its zero. `hash` is 2166136261, or an
 * earlier result to go on from.
 *
 * Returns:   the hash.
 */
uint32_t fnv_32_buf(const void *bytes, size_t length, uint32_t hash);
uint32_t fnv_32_str(const char *text, uint32_t hash);

/*
 * Make a table; all but `hash_fn` may be null. Destroy functions get keys and values that are replaced,
 * removed or cleared.
 *
 * Returns:   the table, with one reference.
 * Errors:    null: memory is exhausted, or `hash_fn` is null.
 */
struct htable *htable_new_full(htable_hash_fn hash_fn, htable_equal_fn equal_fn, htable_free_fn key_free_fn,
	htable_free_fn value_free_fn);
struct htable *htable_new(htable_hash_fn hash_fn, htable_equal_fn equal_fn);

/* Returns:   the table, with one more reference. */
struct htable *htable_ref(struct htable *table);

/* Drops a reference; the last one destroys all entries and frees the table. */
void htable_unref(struct htable *table);

/*
 * Store `value` under `key`. Of two equal keys htable_insert destroys the one passed, htable_replace the
 * stored one. Both destroy the former value.
 *
 * The first value that differs from its stored key makes a set a map, for good: the values outside the
 * first slot_count bytes of the array become null. Add to a set with htable_add only: htable_insert keeps
 * the stored key, but stores the passed one as the value.
 *
 * Returns:   1: the key was new; 0: it was not.
 * Errors:    0, with key and value destroyed: no memory for a full table, or for the values of a map.
 */
int htable_insert(struct htable *table, void *key, void *value);
int htable_replace(struct htable *table, void *key, void *value);

/* Adds to a set: htable_replace with the key as its value. */
int htable_add(struct htable *table, void *key);

/* Returns:   1 if there is an equal key, else 0. */
int htable_contains(struct htable *table, const void *key);

/* Returns:   the value of `key`, still the table's; null if there is none (or if it is null). */
void *htable_lookup(struct htable *table, const void *key);

/*
 * Remove an entry; htable_steal calls no destroy function.
 *
 * Returns:   1 if there was one, else 0.
 */
int htable_remove(struct htable *table, const void *key);
int htable_steal(struct htable *table, const void *key);

/* Remove every entry; htable_steal_all calls no destroy function. */
void htable_remove_all(struct htable *table);
void htable_steal_all(struct htable *table);

/* As htable_remove_all, then htable_unref. */
void htable_destroy(struct htable *table);

/* Returns:   the number of entries. */
int32_t htable_size(struct htable *table);

/*
 * List all keys, or values, in slot order, with a final null that `*count` does not count; `count` may be
 * null.
 *
 * Returns:   a new array.
 * Errors:    null: memory is exhausted, `*count` unwritten.
 * Ownership: the caller frees the array, not what it points to.
 */
void **htable_get_keys(struct htable *table, uint32_t *count);
void **htable_get_values(struct htable *table, uint32_t *count);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
