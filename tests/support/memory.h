// Memory that can be refused, and is counted. To be included by one source of a test program: its definitions
// stand before the C library's, for the libraries under test too, and pass everything else on to it, or to a
// sanitizer's.
#pragma once

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

static struct {
	int requests_left = -1; // until one is refused; negative: none is
	bool for_good = false;  // so is every later one
	bool refused = false;   // it has come to that

	int requests = 0;
	int blocks = 0; // in use
	size_t last_size = 0;

	bool dirty = false; // what malloc gives is filled with DIRT

	// A test's own way with some blocks: gives one in place of what is asked for, or null where it has
	// none, and takes one back, or returns false where it is not its own. `old_block` is realloc's.
	void *(*give)(void *old_block, size_t size) = nullptr;
	bool (*take)(void *block) = nullptr;

	// Request number `nth` is refused, counted from 0.
	void refuse(int nth)
	{
		requests_left = nth;
		for_good = refused = false;
	}
	// It and every later one are.
	void refuse_from(int nth)
	{
		refuse(nth);
		for_good = true;
	}
	// None is, from now on.
	void grant() { requests_left = -1; }
} memory;

static constexpr unsigned char DIRT = 0xa5;

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

// A sanitizer takes a request that no memory could meet for a mistake; the C library says ENOMEM.
PASSES_ON static bool refuses(size_t count, size_t size)
{
	bool vast = __builtin_mul_overflow(count, size, &memory.last_size) || memory.last_size > PTRDIFF_MAX;
	bool due = memory.requests_left == 0;
	memory.requests++;
	if (memory.requests_left > 0 || (due && !memory.for_good))
		memory.requests_left--;
	if (due)
		memory.refused = true;
	if (due || vast)
		errno = ENOMEM;
	return due || vast;
}

PASSES_ON static void *next_malloc(size_t size)
{
	return __interceptor_malloc ? __interceptor_malloc(size) : __libc_malloc(size);
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
	__interceptor_free ? __interceptor_free(block) : __libc_free(block);
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

#undef PASSES_ON
