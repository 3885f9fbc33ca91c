/*
 * avl - a balanced search tree through nodes that are part of the items.
 *
 * All nodes are also linked in a list, in the order of their keys. Where equal keys are allowed, the first
 * of a group of equals (its leader) stands in the tree; the others follow it in the list only.
 */
#pragma once
#include <stdbool.h>
#include <stddef.h>

#include "list.h"

#pragma GCC visibility push(default)

struct avl_node {
	struct list_head list;
	struct avl_node *parent, *left, *right;
	const void *key;     /* set by the caller before the insertion; must not change while in the tree */
	signed char balance; /* height of the right side less that of the left one */
	bool leader;
};

/* Negative, 0 or positive, as `key1` comes before, with or after `key2`; `ptr` is the tree's. */
typedef int (*avl_tree_comp)(const void *key1, const void *key2, void *ptr);

struct avl_tree {
	struct list_head list_head;
	struct avl_node *root;
	unsigned int count;
	bool allow_dups;
	avl_tree_comp comp;
	void *cmp_ptr;
};

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr);

/* 0, or -1 when the key is there already and equal keys are not allowed. */
int avl_insert(struct avl_tree *tree, struct avl_node *node);

/* `node` must be in the tree. */
void avl_delete(struct avl_tree *tree, struct avl_node *node);

/* The (first) node of that key, or null. */
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);

static inline bool avl_is_empty(const struct avl_tree *tree)
{
	return tree->count == 0;
}

/* The item of that key, or null; `item` is a pointer to the items' type. */
#define avl_find_element(tree, key_pointer, item, field)                                                     \
	(__typeof__(item))avl_item(avl_find(tree, key_pointer), offsetof(__typeof__(*(item)), field))

static inline void *avl_item(struct avl_node *node, size_t offset)
{
	return node ? (char *)node - offset : NULL;
}

#define avl_for_each_element(tree, item, field) list_for_each_entry(item, &(tree)->list_head, field.list)
#define avl_for_each_element_safe(tree, item, field, after)                                                  \
	list_for_each_entry_safe(item, after, &(tree)->list_head, field.list)

#pragma GCC visibility pop
