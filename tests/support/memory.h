// Memory that can be refused, and is counted: malloc and its relatives, as the libraries under test call them too. A
// program that includes this is linked with test_memory (tests/CMakeLists.txt).
#pragma once

#include <stddef.h>
#include <stdint.h>

struct memory_control {
	int requests_left = -1; // until one is refused; negative: none is
	bool for_good = false;  // so is every later one
	bool refused = false;   // it has come to that

	size_t size_min = 0, size_max = SIZE_MAX; // of the requests that are counted until one is refused

	int requests = 0;
	int blocks = 0; // in use
	size_t last_size = 0;

	bool dirty = false; // what malloc gives is filled with DIRT
	bool moves =
		false; // realloc always does, and fills the old block with DIRT: no stale pointer happens to be right

	// A test's own way with some blocks: gives one in place of what is asked for, or null where it has
	// none, and takes one back, or returns false where it is not its own. `old_block` is realloc's.
	void *(*give)(void *old_block, size_t size) = nullptr;
	bool (*take)(void *block) = nullptr;

	// Request number `nth` of these sizes is refused, counted from 0.
	void refuse(int nth, size_t smallest = 0, size_t largest = SIZE_MAX)
	{
		requests_left = nth;
		size_min = smallest;
		size_max = largest;
		for_good = refused = false;
	}
	// It and every later one are.
	void refuse_from(int nth, size_t smallest = 0, size_t largest = SIZE_MAX)
	{
		refuse(nth, smallest, largest);
		for_good = true;
	}
	// None is, from now on.
	void grant() { requests_left = -1; }
};

extern memory_control memory;

inline constexpr unsigned char DIRT = 0xa5;

// Memory that is neither counted nor refused.
void *next_malloc(size_t size);
