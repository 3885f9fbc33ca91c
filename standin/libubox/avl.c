/*
 * The tree is balanced by height: the heights of a node's two sides differ by at most one, and each node stores the
 * difference. An insertion or deletion changes the height of one side. From there we walk up, and rotate where the
 * difference becomes two, until the height of a node is unchanged.
 *
 * The tree holds one node for each key, the leader. Further nodes of that key follow their leader in the list only.
 */
#include <libubox/avl.h>

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr)
{
	INIT_LIST_HEAD(&tree->list_head);
	tree->root = NULL;
	tree->count = 0;
	tree->allow_dups = allow_dups;
	tree->comp = comp;
	tree->cmp_ptr = ptr;
}

static int compare(const struct avl_tree *tree, const void *key, const struct avl_node *node)
{
	return tree->comp(key, node->key, tree->cmp_ptr);
}

/* The pointer that leads to `node`: its parent's, or the tree's. */
static struct avl_node **link_to(struct avl_tree *tree, const struct avl_node *node)
{
	struct avl_node *parent = node->parent;
	if (!parent)
		return &tree->root;
	return parent->left == node ? &parent->left : &parent->right;
}

static void set_left(struct avl_node *node, struct avl_node *child)
{
	node->left = child;
	if (child)
		child->parent = node;
}

static void set_right(struct avl_node *node, struct avl_node *child)
{
	node->right = child;
	if (child)
		child->parent = node;
}

/* Puts `substitute`, which may be null, where `node` is. */
static void replace(struct avl_tree *tree, struct avl_node *node, struct avl_node *substitute)
{
	*link_to(tree, node) = substitute;
	if (substitute)
		substitute->parent = node->parent;
}

/* Lifts `node`'s right child above it and sets both balances. Returns the child. */
static struct avl_node *rotate_left(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *child = node->right;
	replace(tree, node, child);
	set_right(node, child->left);
	set_left(child, node);
	node->balance = (signed char)(node->balance - 1 - (child->balance > 0 ? child->balance : 0));
	child->balance = (signed char)(child->balance - 1 + (node->balance < 0 ? node->balance : 0));
	return child;
}

static struct avl_node *rotate_right(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *child = node->left;
	replace(tree, node, child);
	set_left(node, child->right);
	set_right(child, node);
	node->balance = (signed char)(node->balance + 1 - (child->balance < 0 ? child->balance : 0));
	child->balance = (signed char)(child->balance + 1 + (node->balance > 0 ? node->balance : 0));
	return child;
}

/* Brings a difference of two back to one or zero. Returns the node that is then in `node`'s place. */
static struct avl_node *rebalance(struct avl_tree *tree, struct avl_node *node)
{
	if (node->balance > 1) {
		if (node->right->balance < 0)
			rotate_right(tree, node->right);
		return rotate_left(tree, node);
	}
	if (node->balance < -1) {
		if (node->left->balance > 0)
			rotate_left(tree, node->left);
		return rotate_right(tree, node);
	}
	return node;
}

static void rise_after_insertion(struct avl_tree *tree, struct avl_node *node)
{
	for (struct avl_node *parent = node->parent; parent; parent = node->parent) {
		parent->balance += parent->left == node ? -1 : 1;
		node = rebalance(tree, parent);
		if (node->balance == 0)
			return; /* the height is unchanged */
	}
}

/* Rebalances after the left or the right side of `node` has become lower by one. */
static void sink_after_deletion(struct avl_tree *tree, struct avl_node *node, bool left_sank)
{
	while (node) {
		node->balance += left_sank ? 1 : -1;
		node = rebalance(tree, node);
		if (node->balance != 0)
			return; /* the height is unchanged */
		left_sank = node->parent && node->parent->left == node;
		node = node->parent;
	}
}

/* The leader of the next group after that of `leader`, as a place in the list. */
static struct list_head *end_of_group(const struct avl_tree *tree, const struct avl_node *leader)
{
	struct list_head *place = leader->list.next;
	while (place != &tree->list_head && !container_of(place, struct avl_node, list)->leader)
		place = place->next;
	return place;
}

static int insert_follower(struct avl_tree *tree, struct avl_node *leader, struct avl_node *node)
{
	if (!tree->allow_dups)
		return -1;
	node->leader = false;
	list_add_tail(&node->list, end_of_group(tree, leader));
	++tree->count;
	return 0;
}

int avl_insert(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *parent = NULL, **link = &tree->root;
	struct list_head *before = &tree->list_head; /* the node's group precedes this in the list */
	while (*link) {
		parent = *link;
		int order = compare(tree, node->key, parent);
		if (order == 0)
			return insert_follower(tree, parent, node);
		if (order < 0)
			before = &parent->list;
		link = order < 0 ? &parent->left : &parent->right;
	}

	*link = node;
	node->parent = parent;
	node->left = node->right = NULL;
	node->balance = 0;
	node->leader = true;
	list_add_tail(&node->list, before);
	++tree->count;
	rise_after_insertion(tree, node);
	return 0;
}

/* Puts `heir` in `node`'s place in the tree. */
static void inherit(struct avl_tree *tree, struct avl_node *node, struct avl_node *heir)
{
	replace(tree, node, heir);
	set_left(heir, node->left);
	set_right(heir, node->right);
	heir->balance = node->balance;
	heir->leader = true;
}

static void unlink_with_one_side(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *parent = node->parent;
	bool was_left = parent && parent->left == node;
	replace(tree, node, node->left ? node->left : node->right);
	sink_after_deletion(tree, parent, was_left);
}

static struct avl_node *leftmost(struct avl_node *node)
{
	while (node->left)
		node = node->left;
	return node;
}

static void unlink_leader(struct avl_tree *tree, struct avl_node *node)
{
	if (!node->left || !node->right) {
		unlink_with_one_side(tree, node);
		return;
	}
	struct avl_node *heir = leftmost(node->right);
	unlink_with_one_side(tree, heir);
	inherit(tree, node, heir);
}

static struct avl_node *follower_of(const struct avl_tree *tree, const struct avl_node *node)
{
	if (node->list.next == &tree->list_head)
		return NULL;
	struct avl_node *next = container_of(node->list.next, struct avl_node, list);
	return next->leader ? NULL : next;
}

void avl_delete(struct avl_tree *tree, struct avl_node *node)
{
	if (node->leader) {
		struct avl_node *follower = follower_of(tree, node);
		if (follower)
			inherit(tree, node, follower);
		else
			unlink_leader(tree, node);
	}
	list_del(&node->list);
	--tree->count;
}

struct avl_node *avl_find(const struct avl_tree *tree, const void *key)
{
	struct avl_node *node = tree->root;
	while (node) {
		int order = compare(tree, key, node);
		if (order == 0)
			return node;
		node = order < 0 ? node->left : node->right;
	}
	return NULL;
}
