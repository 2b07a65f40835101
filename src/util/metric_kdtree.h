#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/logging_lock.h"
#include "util/metric_common.h"

namespace METRICS {

class MetricCollectorItem;

/// What makes the items of a tree, and ends them.
class KDTreeItems {
 public:
  /// The item of a new series; null where there is to be none.
  virtual std::shared_ptr<MetricCollectorItem> MakeTreeItem(
      const std::vector<std::string>& tag_values) = 0;
  /// `item` has come into the tree.
  virtual void AddTreeItem(MetricCollectorItem& item) = 0;
  /// `item` is in the tree no more.
  virtual void DropTreeItem(MetricCollectorItem& item) = 0;

 protected:
  ~KDTreeItems() = default;
};

/// A binary tree of series that branches on one tag value per level.
///
/// Threads: look-ups and insertions share the lock and run in parallel: an insertion writes a null
/// child pointer once, by compare-exchange, and a node never moves. `Clear` excludes them. Nodes
/// are never removed singly and the tree is never balanced. Owns its nodes; a series that `GetAll`
/// handed out keeps its node alive.
class KDTree {
 public:
  using ItemPtr = std::shared_ptr<MetricCollectorItem>;
  /// A key and its item; the pointer keeps both alive.
  using KeyedItem = std::pair<const std::vector<std::string>&, ItemPtr>;

  /// `dimension` is how many tag values are branched on; a key that has fewer compares as if the
  /// missing ones were empty. `items` makes items of kind `co_type`; `total` counts the series of
  /// all tables that share it. Both must outlive the tree.
  KDTree(MetricCoItemType co_type, size_t dimension, KDTreeItems& items,
         std::atomic<unsigned long>& total);
  ~KDTree();
  /// Leaves `other` empty.
  KDTree(KDTree&& other) noexcept;
  KDTree& operator=(KDTree&& other) noexcept;
  KDTree(const KDTree&) = delete;
  KDTree& operator=(const KDTree&) = delete;

  /// The item of a known series, or null. `Values` is any list that gives its texts by index.
  template <class Values>
  ItemPtr Find(const Values& tag_values) {
    const ReadGuard<RwLock> guard(rwlock_);  // an emission's, and writes no lines
    size_t depth = 0;
    std::atomic<TreeNode*>* slot = &root_;
    const TreeNode* const found = Descend(slot, depth, tag_values);
    return found == nullptr ? nullptr : found->item;
  }
  /// The item of the series, made on first sight; null where `KDTreeItems` makes none.
  ItemPtr GetOrCreate(const std::vector<std::string>& tag_values);
  /// All series, newest first.
  std::vector<KeyedItem> GetAll();
  size_t Size() const { return size_.load(); }
  bool IsEmpty() const { return root_.load() == nullptr; }
  size_t Dimension() const { return dimension_; }
  /// Drops all series, and takes them out of the total.
  void Clear();

 private:
  struct TreeNode {
    TreeNode(const std::vector<std::string>& key, ItemPtr series)
        : tag_values(key), item(std::move(series)) {}

    const std::vector<std::string> tag_values;
    const ItemPtr item;
    std::atomic<TreeNode*> left{nullptr};   ///< smaller in this level's dimension
    std::atomic<TreeNode*> right{nullptr};  ///< equal or greater
    TreeNode* next_node = nullptr;          ///< chain of all nodes, newest first
    std::shared_ptr<TreeNode> self;         ///< the tree's hold on the node
  };

  template <class Values>
  static bool Same(const std::vector<std::string>& a, const Values& b) {
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) {
      ++i;
    }
    return i == a.size() && i == b.size();
  }
  template <class Values>
  static std::string_view ValueAt(const Values& values, size_t index) {
    return index < values.size() ? std::string_view(values[index]) : std::string_view();
  }
  /// Whether `a` sorts before `b` at the level `depth`.
  template <class Values>
  bool SortsBefore(const Values& a, const std::vector<std::string>& b, size_t depth) const {
    const size_t index = dimension_ == 0 ? a.size() + b.size() : depth % dimension_;
    return ValueAt(a, index) < ValueAt(b, index);
  }
  /// The node of `tag_values` below `slot`, or null; `slot`, found empty then, is where it belongs,
  /// and `depth` its level.
  template <class Values>
  const TreeNode* Descend(std::atomic<TreeNode*>*& slot, size_t& depth,
                          const Values& tag_values) const {
    // Each slot is read once: what another thread puts there later is found by the exchange.
    for (TreeNode* node = slot->load(); node != nullptr; node = slot->load()) {
      if (Same(node->tag_values, tag_values)) {
        return node;
      }
      slot = SortsBefore(tag_values, node->tag_values, depth) ? &node->left : &node->right;
      ++depth;
    }
    return nullptr;
  }
  /// A node that nobody else sees yet, or null.
  std::shared_ptr<TreeNode> NewNode(const std::vector<std::string>& tag_values) const;
  void LinkIntoChain(TreeNode* node);
  void TakeFrom(KDTree& other);

  MetricCoItemType co_type_;
  size_t dimension_;
  KDTreeItems* items_;                 ///< not owned
  std::atomic<unsigned long>* total_;  ///< not owned
  std::atomic<TreeNode*> root_{nullptr};
  std::atomic<TreeNode*> all_nodes_{nullptr};
  std::atomic<size_t> size_{0};
  LoggingRwLock rwlock_;
};

}  // namespace METRICS
