// Helper of the tests of ubus: a context at the address of an earlier one.
#pragma once
#include "tests/support/memory.h"
#include "tests/support/ubus.h"

extern "C" {
void __asan_poison_memory_region(void const volatile *, size_t) __attribute__((weak));
void __asan_unpoison_memory_region(void const volatile *, size_t) __attribute__((weak));
}

namespace ubus_support
{

using namespace support;

// While this lives, the memory of the next context is kept for the context after it.
class context_address_kept
{
	static inline void *block;
	static inline bool released;

	static void poison()
	{
		if (__asan_poison_memory_region)
			__asan_poison_memory_region(block, sizeof(ubus_context));
	}
	static void unpoison()
	{
		if (__asan_unpoison_memory_region)
			__asan_unpoison_memory_region(block, sizeof(ubus_context));
	}
	static void *give(void *old_block, size_t size)
	{
		if (old_block || size != sizeof(ubus_context))
			return nullptr;
		if (!block)
			return block = next_malloc(size);
		if (!std::exchange(released, false))
			return nullptr;
		unpoison();
		return block;
	}
	static bool take(void *given)
	{
		if (!given || given != block)
			return false;
		released = true;
		poison();
		return true;
	}

public:
	context_address_kept()
	{
		memory.give = give;
		memory.take = take;
	}
	~context_address_kept()
	{
		memory.give = nullptr;
		memory.take = nullptr;
		if (std::exchange(released, false)) {
			unpoison();
			free(block);
		}
		block = nullptr;
	}
	context_address_kept(const context_address_kept &) = delete;
	context_address_kept &operator=(const context_address_kept &) = delete;
};

} // namespace ubus_support
