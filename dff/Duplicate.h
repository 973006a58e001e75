#pragma once

// The one container of the engine: values grouped by key in a red-black tree, one node per
// distinct key holding every value added under it in the order of adding. Size tables, digest
// tables and the stage tables of the hashing passes are all instances.
//
// The walk visits each node before its subtrees and its right subtree before its left. That is
// not key order, but it settles the order of the groups the engine reports, so it is kept
// exactly.

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace dff {

// The values of one key in the order of adding, the first two held in place: most keys of a
// digest table hold one or two, and a table of a million keys would otherwise make a million
// small allocations.
template <class Value>
class Values {
  static_assert(std::is_trivially_copyable_v<Value>);
  static constexpr std::uint32_t kInPlace = 2;

 public:
  using value_type = Value;
  using iterator = Value*;
  using const_iterator = const Value*;

  Values() = default;
  template <class Iterator>
  Values(Iterator first, Iterator last) {
    for (; first != last; ++first) push_back(*first);
  }
  Values(const Values& other) : Values(other.begin(), other.end()) {}
  Values(Values&& other) noexcept { take(other); }
  Values& operator=(Values other) noexcept {
    release();
    take(other);
    return *this;
  }
  ~Values() { release(); }

  // The values as a vector; a table's values taken out leave it empty.
  operator std::vector<Value>() && {  // NOLINT: implicit by design
    std::vector<Value> out(begin(), end());
    release();
    return out;
  }

  void push_back(const Value& value) {
    if (size_ == kInPlace) {
      Value* grown = new Value[2 * kInPlace];
      std::memcpy(static_cast<void*>(grown), place_, sizeof(place_));
      heap_ = grown;
    } else if (size_ > kInPlace && std::has_single_bit(size_)) {
      Value* grown = new Value[2 * size_];
      std::memcpy(static_cast<void*>(grown), heap_, sizeof(Value) * size_);
      delete[] heap_;
      heap_ = grown;
    }
    Value* at = size_ >= kInPlace ? heap_ : place_;
    at[size_++] = value;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Value* data() { return size_ > kInPlace ? heap_ : place_; }
  const Value* data() const { return size_ > kInPlace ? heap_ : place_; }
  Value* begin() { return data(); }
  Value* end() { return data() + size_; }
  const Value* begin() const { return data(); }
  const Value* end() const { return data() + size_; }
  Value& front() { return data()[0]; }
  const Value& front() const { return data()[0]; }
  Value& operator[](std::size_t i) { return data()[i]; }
  const Value& operator[](std::size_t i) const { return data()[i]; }

  friend bool operator==(const Values& a, const std::vector<Value>& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
  }

 private:
  void release() {
    if (size_ > kInPlace) delete[] heap_;
    size_ = 0;
  }
  void take(Values& other) {
    std::memcpy(static_cast<void*>(place_), other.place_, std::max(sizeof(place_), sizeof(heap_)));
    size_ = other.size_;
    other.size_ = 0;
  }

  // Past the two in place, the values lie on the heap in room for the next power of two.
  union {
    Value place_[kInPlace];
    Value* heap_;
  };
  std::uint32_t size_ = 0;
};

template <class Key, class Value>
class Duplicate {
 public:
  enum Colour : std::uint8_t { kRed = 0, kBlack = 1 };

  struct Node {
    Node(const Key& k, const Value& v, Colour c, Node* p) : key(k), colour(c), parent(p) {
      values.push_back(v);
    }
    Key key;
    [[no_unique_address]] Values<Value> values;  // never empty while the table is filled
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
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
      const Block& block = blocks_[b];
      const std::size_t used = b + 1 < blocks_.size() ? block.capacity : lastUsed_;
      for (std::size_t n = 0; n < used; ++n) block.nodes[n].~Node();
      if (mapped(block.capacity)) {
        ::munmap(block.nodes, block.capacity * sizeof(Node));
      } else {
        ::operator delete(block.nodes);
      }
    }
  }

  // Files `value` under `key`, creating the node when the key is new.
  void add(const Key& key, const Value& value) {
    if (root == nullptr) {
      root = make(key, value, kBlack, nullptr);
      return;
    }
    Node* node = root;
    Node* added = nullptr;
    for (;;) {
      if (key < node->key) {
        if (node->left == nullptr) {
          added = node->left = make(key, value, kRed, node);
          break;
        }
        node = node->left;
      } else if (key > node->key) {
        if (node->right == nullptr) {
          added = node->right = make(key, value, kRed, node);
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
  // Nodes are made in blocks, each twice the last, the large ones mapped from the system and
  // given back whole when the table goes: a table of a million nodes leaves no scattered free
  // memory behind, and the many small tables of the hashing passes cost one allocation each.
  static constexpr std::size_t kFirstBlock = 8;
  static constexpr std::size_t kLargestBlock = (256 * 1024) / sizeof(Node);
  static bool mapped(std::size_t capacity) { return capacity * sizeof(Node) >= 128 * 1024; }

  Node* make(const Key& key, const Value& value, Colour colour, Node* parent) {
    if (blocks_.empty() || lastUsed_ == blocks_.back().capacity) {
      const std::size_t capacity =
          blocks_.empty() ? kFirstBlock : std::min(kLargestBlock, 2 * blocks_.back().capacity);
      void* memory;
      if (mapped(capacity)) {
        memory = ::mmap(nullptr, capacity * sizeof(Node), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
      } else {
        memory = ::operator new(capacity * sizeof(Node));
      }
      blocks_.push_back({static_cast<Node*>(memory), capacity});
      lastUsed_ = 0;
    }
    Node* node = new (blocks_.back().nodes + lastUsed_) Node(key, value, colour, parent);
    ++lastUsed_;
    return node;
  }

  struct Block {
    Node* nodes;
    std::size_t capacity;
  };
  std::vector<Block> blocks_;
  std::size_t lastUsed_ = 0;

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
