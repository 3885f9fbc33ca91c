// Intrusive containers: the links live in the items, so nothing is allocated.
#pragma once
#include <stddef.h>

// A circular list through the items' own `next` and `prev`; its head is an item that is never handed out.
// An item outside any list has null links.
template <typename T>
class ring
{
	T head_{};

public:
	constexpr ring() { head_.next = head_.prev = &head_; }
	ring(const ring &) = delete;
	ring &operator=(const ring &) = delete;

	T *after(T *item) { return item->next == &head_ ? nullptr : item->next; }
	T *before(T *item) { return item->prev == &head_ ? nullptr : item->prev; }
	T *first() { return after(&head_); }
	T *last() { return before(&head_); }

	void insert_before(T *place, T *item) // a null place is the end
	{
		item->next = place ? place : &head_;
		item->prev = item->next->prev;
		item->prev->next = item->next->prev = item;
	}

	static void remove(T *item)
	{
		item->next->prev = item->prev;
		item->prev->next = item->next;
		item->next = item->prev = nullptr;
	}
};

// The record a member lies in: `owner_of(timeout, &httpd_conn::idle_timer)`. Typed, and free: the ABI
// keeps a data-member pointer as the offset.
template <typename T, typename M>
T *owner_of(M *member, M T::*field)
{
	return static_cast<T *>(
		static_cast<void *>(reinterpret_cast<char *>(member) - __builtin_bit_cast(ptrdiff_t, field)));
}
