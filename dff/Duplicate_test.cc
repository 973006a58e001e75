#include "dff/Duplicate.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <random>
#include <set>
#include <string>

#include "dff/File.h"

namespace dff {
namespace {

using Table = Duplicate<long long, int>;
using Node = Table::Node;

// Checks every red-black invariant and the parent links; gives the black height.
int checkSubtree(const Node* node, const Node* parent, long long low, long long high) {
  if (node == nullptr) return 1;
  EXPECT_EQ(node->parent, parent);
  EXPECT_GT(node->key, low);
  EXPECT_LT(node->key, high);
  EXPECT_FALSE(node->values.empty());
  if (node->colour == Table::kRed) {
    EXPECT_TRUE(node->left == nullptr || node->left->colour == Table::kBlack);
    EXPECT_TRUE(node->right == nullptr || node->right->colour == Table::kBlack);
  }
  int left = checkSubtree(node->left, node, low, node->key);
  int right = checkSubtree(node->right, node, node->key, high);
  EXPECT_EQ(left, right);
  return left + (node->colour == Table::kBlack ? 1 : 0);
}

int depth(const Node* node) {
  return node == nullptr ? 0 : 1 + std::max(depth(node->left), depth(node->right));
}

void checkTree(const Table& table, std::size_t keys) {
  ASSERT_NE(table.root, nullptr);
  EXPECT_EQ(table.root->colour, Table::kBlack);
  checkSubtree(table.root, nullptr, LLONG_MIN, LLONG_MAX);
  EXPECT_LE(depth(table.root), 2 * std::log2(keys + 1) + 1);
}

TEST(DuplicateTest, AnExistingKeyTakesTheValueBehindTheOthersAndChangesNothingElse) {
  Table table;
  for (long long k : {10, 5, 15, 3}) table.add(k, static_cast<int>(k));
  Node* root = table.root;
  Node* node = table.root->left;
  auto colour = node->colour;
  table.add(5, 50);
  table.add(5, 51);
  EXPECT_EQ(table.root, root);
  EXPECT_EQ(table.root->left, node);
  EXPECT_EQ(node->colour, colour);
  EXPECT_EQ(node->values, (std::vector<int>{5, 50, 51}));
}

// Rising keys rotate at every level (the first rotation moves the root); random ones with
// repeats take every other path of the rebalancing.
TEST(DuplicateTest, RisingAndRandomKeysKeepEveryInvariant) {
  Table rising;
  for (long long k = 0; k < 1000; ++k) rising.add(k, 0);
  checkTree(rising, 1000);

  std::mt19937_64 random(7);
  Table table;
  std::set<long long> keys;
  for (int i = 0; i < 20000; ++i) {
    long long k = static_cast<long long>(random() % 5000) - 2500;
    keys.insert(k);
    table.add(k, i);
  }
  checkTree(table, keys.size());
  std::size_t nodes = 0, values = 0;
  for (auto& node : table) {
    ++nodes;
    values += node.values.size();
  }
  EXPECT_EQ(nodes, keys.size());
  EXPECT_EQ(values, 20000u);
}

TEST(DuplicateTest, WalkVisitsEachNodeBeforeItsSubtreesRightBeforeLeft) {
  Table table;
  // Keys 4, 2, 6, 1, 3, 5, 7 in this order make a perfect tree without rotations.
  for (long long k : {4, 2, 6, 1, 3, 5, 7}) table.add(k, 0);
  std::vector<long long> order;
  for (auto& node : table) order.push_back(node.key);
  EXPECT_EQ(order, (std::vector<long long>{4, 6, 7, 5, 2, 3, 1}));
}

TEST(DuplicateTest, HashValueKeysCompareAsUnsignedWords) {
  HashValue high{0x8000000000000000ULL, 0};
  HashValue low{0x7FFFFFFFFFFFFFFFULL, ~0ULL};
  EXPECT_TRUE(low < high);
  EXPECT_TRUE(high > low);
  EXPECT_TRUE((HashValue{1, 2} < HashValue{1, 3}));
  Duplicate<HashValue, int> table;
  table.add(high, 1);
  table.add(low, 2);
  table.add(high, 3);
  std::size_t nodes = 0;
  for (auto& node : table) nodes += node.values.size() == 2 ? 1 : 0;
  EXPECT_EQ(nodes, 1u);
}

}  // namespace
}  // namespace dff
