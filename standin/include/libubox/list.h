/*
 * list - a circular doubly linked list through links that are part of the items.
 *
 * The head is a link that belongs to no item; an empty list is a head that points to itself.
 */
#pragma once
#include <stdbool.h>
#include <stddef.h>

struct list_head {
	struct list_head *next, *prev;
};

/* The record of type `type` whose `member` lies at `pointer`. */
#ifndef container_of
#define container_of(pointer, type, member) ((type *)(void *)((char *)(pointer)-offsetof(type, member)))
#endif

/* clang-format off */
#define LIST_HEAD_INIT(name) { &(name), &(name) }
/* clang-format on */

static inline void INIT_LIST_HEAD(struct list_head *list)
{
	list->next = list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
	return head->next == head;
}

/* Unlinks `item`; its own pointers are null afterwards. */
static inline void list_del(struct list_head *item)
{
	item->next->prev = item->prev;
	item->prev->next = item->next;
	item->next = item->prev = NULL;
}

/* Unlinks `item` and leaves it an empty list, which may be unlinked again. */
static inline void list_del_init(struct list_head *item)
{
	list_del(item);
	INIT_LIST_HEAD(item);
}

/* Links `item` after `place`: first, when `place` is the head. */
static inline void list_add(struct list_head *item, struct list_head *place)
{
	item->next = place->next;
	item->prev = place;
	place->next->prev = item;
	place->next = item;
}

/* Links `item` before `place`: last, when `place` is the head. */
static inline void list_add_tail(struct list_head *item, struct list_head *place)
{
	list_add(item, place->prev);
}

#define list_entry(pointer, type, field)    container_of(pointer, type, field)
#define list_first_entry(head, type, field) list_entry((head)->next, type, field)
#define list_last_entry(head, type, field)  list_entry((head)->prev, type, field)
#define list_next_entry(item, field)        list_entry((item)->field.next, __typeof__(*(item)), field)

/* The `_safe` form survives the removal, and the release, of the item it is at. */
#define list_for_each_entry(item, head, field)                                                               \
	for (item = list_first_entry(head, __typeof__(*item), field); &item->field != (head);                \
		item = list_next_entry(item, field))

#define list_for_each_entry_safe(item, after, head, field)                                                   \
	for (item = list_first_entry(head, __typeof__(*item), field), after = list_next_entry(item, field);  \
		&item->field != (head); item = after, after = list_next_entry(item, field))
