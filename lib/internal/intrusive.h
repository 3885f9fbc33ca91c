// Intrusive containers: the links live in the items, so nothing is allocated.
#pragma once
#include <stddef.h>

#include "invariant.h"

// A circular list: each item links to both neighbours through its own `next` and `prev`. One item, the head, is
// never handed out. The two functions below check both directions of the links that they change.
template <typename T>
void list_insert_before(T *next, T *item)
{
	T *prev = next->prev;
	invariant(prev->next == next);
	item->next = next;
	item->prev = prev;
	prev->next = next->prev = item;
}

// Leaves null links in `item`.
template <typename T>
void list_remove(T *item)
{
	invariant(item->next->prev == item);
	invariant(item->prev->next == item);
	item->next->prev = item->prev;
	item->prev->next = item->next;
	item->next = item->prev = nullptr;
}

// Such a list with a head of its own.
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

	// A null place is the end.
	void insert_before(T *place, T *item) { list_insert_before(place ? place : &head_, item); }
	static void remove(T *item) { list_remove(item); }
};

// The record a member lies in: `owner_of(timeout, &httpd_conn::idle_timer)`. Typed, and free: the ABI
// keeps a data-member pointer as the offset.
template <typename T, typename M>
T *owner_of(M *member, M T::*field)
{
	return static_cast<T *>(
		static_cast<void *>(reinterpret_cast<char *>(member) - __builtin_bit_cast(ptrdiff_t, field)));
}
