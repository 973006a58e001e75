#pragma once

// The one container of the engine: values grouped by key in a red-black tree, one node per
// distinct key holding every value added under it in the order of adding. Size tables, digest
// tables and the stage tables of the hashing passes are all instances.
//
// The walk visits each node before its subtrees and its right subtree before its left. That is
// not key order, but it settles the order of the groups the engine reports, so it is kept
// exactly.

#include <cstdint>
#include <utility>
#include <vector>

namespace dff {

template <class Key, class Value>
class Duplicate {
 public:
  enum Colour : std::uint8_t { kRed = 0, kBlack = 1 };

  struct Node {
    Node(const Key& k, const Value& v, Colour c, Node* p) : key(k), colour(c), parent(p) {
      values.push_back(v);
    }
    Key key;
    std::vector<Value> values;  // never empty
    Colour colour;
    Node* parent;
    Node* left = nullptr;
    Node* right = nullptr;
  };

  class Iterator {
   public:
    Iterator() = default;
    explicit Iterator(Node* root) {
      if (root != nullptr) stack_.push_back(root);
    }
    Node& operator*() const { return *stack_.back(); }
    Node* operator->() const { return stack_.back(); }
    // Moves to the next node: the right child is visited before the left.
    Iterator& operator++() {
      Node* node = stack_.back();
      stack_.pop_back();
      if (node->left != nullptr) stack_.push_back(node->left);
      if (node->right != nullptr) stack_.push_back(node->right);
      return *this;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) {
      if (a.stack_.empty() || b.stack_.empty()) return a.stack_.empty() == b.stack_.empty();
      return a.stack_.back() == b.stack_.back();
    }

   private:
    std::vector<Node*> stack_;
  };

  Duplicate() = default;
  Duplicate(const Duplicate&) = delete;
  Duplicate& operator=(const Duplicate&) = delete;
  ~Duplicate() {
    // An explicit stack, so that depth costs no call stack.
    std::vector<Node*> stack;
    if (root != nullptr) stack.push_back(root);
    while (!stack.empty()) {
      Node* node = stack.back();
      stack.pop_back();
      if (node->left != nullptr) stack.push_back(node->left);
      if (node->right != nullptr) stack.push_back(node->right);
      delete node;
    }
  }

  // Files `value` under `key`, creating the node when the key is new.
  void add(const Key& key, const Value& value) {
    if (root == nullptr) {
      root = new Node(key, value, kBlack, nullptr);
      return;
    }
    Node* node = root;
    Node* added = nullptr;
    for (;;) {
      if (key < node->key) {
        if (node->left == nullptr) {
          added = node->left = new Node(key, value, kRed, node);
          break;
        }
        node = node->left;
      } else if (key > node->key) {
        if (node->right == nullptr) {
          added = node->right = new Node(key, value, kRed, node);
          break;
        }
        node = node->right;
      } else {
        node->values.push_back(value);
        return;
      }
    }
    if (added->parent->colour == kRed) insertCase3(added);
    // A rotation may have moved the root: climb from the old one to the top.
    while (root->parent != nullptr) root = root->parent;
  }

  Iterator begin() const { return Iterator(root); }
  Iterator end() const { return Iterator(); }

  Node* root = nullptr;

 private:
  static bool isBlack(const Node* node) { return node == nullptr || node->colour == kBlack; }

  void insertCase3(Node* node) {
    for (;;) {
      Node* parent = node->parent;
      Node* grand = parent->parent;
      Node* uncle = grand->left == parent ? grand->right : grand->left;
      if (isBlack(uncle)) {
        insertCase4(node);
        return;
      }
      parent->colour = kBlack;
      uncle->colour = kBlack;
      grand->colour = kRed;
      if (grand->parent == nullptr) {
        grand->colour = kBlack;
        return;
      }
      if (grand->parent->colour == kBlack) return;
      node = grand;
    }
  }

  void insertCase4(Node* node) {
    Node* parent = node->parent;
    Node* grand = parent->parent;
    if (node == parent->right && parent == grand->left) {
      rotateLeft(parent);
      node = parent;
    } else if (node == parent->left && parent == grand->right) {
      rotateRight(parent);
      node = parent;
    }
    insertCase5(node);
  }

  void insertCase5(Node* node) {
    Node* parent = node->parent;
    Node* grand = parent->parent;
    parent->colour = kBlack;
    grand->colour = kRed;
    if (node == parent->left && parent == grand->left) {
      rotateRight(grand);
    } else {
      rotateLeft(grand);
    }
  }

  static void replaceChild(Node* parent, Node* old, Node* replacement) {
    if (parent == nullptr) return;
    if (parent->left == old) {
      parent->left = replacement;
    } else {
      parent->right = replacement;
    }
  }

  static void rotateLeft(Node* node) {
    Node* pivot = node->right;
    replaceChild(node->parent, node, pivot);
    pivot->parent = node->parent;
    node->right = pivot->left;
    if (pivot->left != nullptr) pivot->left->parent = node;
    pivot->left = node;
    node->parent = pivot;
  }

  static void rotateRight(Node* node) {
    Node* pivot = node->left;
    replaceChild(node->parent, node, pivot);
    pivot->parent = node->parent;
    node->left = pivot->right;
    if (pivot->right != nullptr) pivot->right->parent = node;
    pivot->right = node;
    node->parent = pivot;
  }
};

}  // namespace dff
