// The definitions of malloc and its relatives: they stand before the C library's and pass on to it, or to a sanitizer's.
#include "tests/support/memory.h"

#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

constinit memory_control memory;

// They run before a sanitizer is ready.
#define PASSES_ON __attribute__((no_sanitize("address", "undefined")))

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *__interceptor_malloc(size_t) __attribute__((weak));
void *__interceptor_calloc(size_t, size_t) __attribute__((weak));
void *__interceptor_realloc(void *, size_t) __attribute__((weak));
void __interceptor_free(void *) __attribute__((weak));
}

PASSES_ON void *next_malloc(size_t size)
{
	return __interceptor_malloc ? __interceptor_malloc(size) : __libc_malloc(size);
}

PASSES_ON static void next_free(void *block)
{
	__interceptor_free ? __interceptor_free(block) : __libc_free(block);
}

// A sanitizer takes a request that no memory could meet for a mistake; the C library says ENOMEM.
PASSES_ON static bool refuses(size_t count, size_t size)
{
	bool vast = __builtin_mul_overflow(count, size, &memory.last_size) || memory.last_size > PTRDIFF_MAX;
	bool counts = memory.last_size >= memory.size_min && memory.last_size <= memory.size_max;
	bool due = counts && memory.requests_left == 0;
	memory.requests++;
	if (counts && (memory.requests_left > 0 || (due && !memory.for_good)))
		memory.requests_left--;
	if (due)
		memory.refused = true;
	if (due || vast)
		errno = ENOMEM;
	return due || vast;
}

PASSES_ON static void *given(void *old_block, size_t size)
{
	return memory.give ? memory.give(old_block, size) : nullptr;
}

PASSES_ON static void *counted(void *block)
{
	if (block)
		memory.blocks++;
	return block;
}

PASSES_ON static void *soiled(void *block, size_t size)
{
	return block && memory.dirty ? memset(block, DIRT, size) : block;
}

// A block in place of `block`, elsewhere.
PASSES_ON static void *moved(void *block, size_t size)
{
	void *fresh = next_malloc(size);
	if (!fresh)
		return nullptr;
	size_t old_size = malloc_usable_size(block);
	memcpy(fresh, block, old_size < size ? old_size : size);
	memset(block, DIRT, old_size);
	next_free(block);
	return fresh;
}

extern "C" {
PASSES_ON void *malloc(size_t size) noexcept
{
	if (refuses(1, size))
		return nullptr;
	if (void *block = given(nullptr, size))
		return counted(block);
	return counted(soiled(next_malloc(size), size));
}

PASSES_ON void *calloc(size_t count, size_t size) noexcept
{
	if (refuses(count, size))
		return nullptr;
	if (void *block = given(nullptr, count * size))
		return counted(memset(block, 0, count * size));
	return counted(__interceptor_calloc ? __interceptor_calloc(count, size) : __libc_calloc(count, size));
}

PASSES_ON void free(void *block) noexcept
{
	if (block)
		memory.blocks--;
	if (memory.take && memory.take(block))
		return;
	next_free(block);
}

PASSES_ON void *realloc(void *block, size_t size) noexcept
{
	if (!block)
		return malloc(size);
	if (size == 0)
		return (free(block), nullptr);
	if (refuses(1, size))
		return nullptr;
	if (void *own = given(block, size))
		return own;
	if (memory.moves)
		return moved(block, size);
	return __interceptor_realloc ? __interceptor_realloc(block, size) : __libc_realloc(block, size);
}

// A sanitizer has ones of its own, which do not come by malloc, and may insist on a terminator.
PASSES_ON static char *copied(const char *text, size_t length)
{
	char *copy = static_cast<char *>(malloc(length + 1));
	if (!copy)
		return nullptr;
	copy[length] = '\0';
	return static_cast<char *>(memcpy(copy, text, length));
}

PASSES_ON char *strndup(const char *text, size_t length_max) noexcept
{
	return copied(text, strnlen(text, length_max));
}

PASSES_ON char *strdup(const char *text) noexcept
{
	return copied(text, strlen(text));
}
}
