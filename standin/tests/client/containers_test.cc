// libubox: trees and lists.
#include <libubus.h>

#include <algorithm>
#include <list>
#include <random>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/system.h"

using testing::ElementsAre;

struct item {
	int key = 0;
	int serial = 0;
	avl_node node{};
};

static int compare_numbers(const void *a, const void *b, void *direction)
{
	int difference = *static_cast<const int *>(a) - *static_cast<const int *>(b);
	return direction ? -difference : difference;
}

// The height below `node`, with everything that holds of a balanced tree expected on the way.
static int height_of(const avl_node *node)
{
	if (!node)
		return 0;
	for (const avl_node *child : {node->left, node->right}) {
		if (child) {
			EXPECT_EQ(child->parent, node);
		}
	}
	int left = height_of(node->left), right = height_of(node->right);
	EXPECT_EQ(right - left, node->balance);
	EXPECT_LE(abs(right - left), 1);
	return std::max(left, right) + 1;
}

static std::vector<int> keys_in(avl_tree *tree)
{
	std::vector<int> keys;
	item *each;
	avl_for_each_element(tree, each, node) keys.push_back(each->key);
	return keys;
}

static void insert(avl_tree *tree, item *what, int expected = 0)
{
	what->node.key = &what->key;
	EXPECT_EQ(avl_insert(tree, &what->node), expected);
}

TEST(avl, tree_stays_sorted_and_balanced)
{
	for (bool duplicates : {false, true}) {
		avl_tree tree;
		avl_init(&tree, compare_numbers, duplicates, nullptr);
		std::mt19937 random(11);
		std::list<item> items;
		std::multimap<int, int> model;
		for (int round = 0; round < 3000; ++round) {
			if (random() % 5 < 3) {
				int key = static_cast<int>(random() % 200);
				bool refused = !duplicates && model.count(key);
				items.push_back({key, round, {}});
				insert(&tree, &items.back(), refused ? -1 : 0);
				if (refused)
					items.pop_back();
				else
					model.emplace(key, round);
			} else if (!items.empty()) {
				auto victim = items.begin();
				std::advance(victim, random() % items.size());
				avl_delete(&tree, &victim->node);
				auto range = model.equal_range(victim->key);
				for (auto entry = range.first; entry != range.second; ++entry) {
					if (entry->second == victim->serial) {
						model.erase(entry);
						break;
					}
				}
				items.erase(victim);
			}
			if (round % 16 == 0)
				height_of(tree.root);
			ASSERT_EQ(tree.count, model.size());
		}
		// Equal keys stand in the order of their insertion, as in the model.
		std::vector<std::pair<int, int>> seen;
		item *each;
		avl_for_each_element(&tree, each, node) seen.emplace_back(each->key, each->serial);
		EXPECT_EQ(seen, (std::vector<std::pair<int, int>>(model.begin(), model.end())));
		for (const auto &[key, serial] : model) {
			item *found = nullptr;
			found = avl_find_element(&tree, &key, found, node);
			ASSERT_NE(found, nullptr);
			EXPECT_EQ(found->serial, model.find(key)->second);
		}
		int missing = 1000;
		EXPECT_EQ(avl_find(&tree, &missing), nullptr);
		item *after;
		avl_for_each_element_safe(&tree, each, node, after) avl_delete(&tree, &each->node);
		EXPECT_TRUE(avl_is_empty(&tree));
		EXPECT_EQ(tree.root, nullptr);
	}
}

TEST(avl, comparison_is_given_the_trees_pointer)
{
	avl_tree tree;
	avl_init(&tree, compare_numbers, false, &tree);
	item items[3] = {{1, 0, {}}, {2, 0, {}}, {3, 0, {}}};
	for (item &each : items)
		insert(&tree, &each);
	EXPECT_THAT(keys_in(&tree), ElementsAre(3, 2, 1));
}

TEST(list, items_are_added_at_both_ends_and_removed)
{
	struct entry {
		int number;
		list_head list;
	};
	list_head head = LIST_HEAD_INIT(head);
	EXPECT_TRUE(list_empty(&head));
	entry one{1, {}}, two{2, {}}, three{3, {}};
	list_add(&two.list, &head);
	list_add(&one.list, &head);
	list_add_tail(&three.list, &head);
	std::vector<int> numbers;
	entry *each, *after;
	list_for_each_entry(each, &head, list) numbers.push_back(each->number);
	EXPECT_THAT(numbers, ElementsAre(1, 2, 3));
	EXPECT_EQ(list_first_entry(&head, entry, list), &one);
	EXPECT_EQ(list_last_entry(&head, entry, list), &three);
	list_del_init(&two.list);
	EXPECT_TRUE(list_empty(&two.list));
	list_del_init(&two.list);
	list_for_each_entry_safe(each, after, &head, list) list_del(&each->list);
	EXPECT_TRUE(list_empty(&head));
	EXPECT_EQ(one.list.next, nullptr);
}
