#include "util/metric_kdtree.h"

#include "util/fork_guard.h"
#include "util/metric_log.h"

namespace METRICS {

KDTree::KDTree(MetricCoItemType co_type, size_t dimension, KDTreeItems& items,
               std::atomic<unsigned long>& total)
    : co_type_(co_type), dimension_(dimension), items_(&items), total_(&total) {}

KDTree::~KDTree() {
  // Unless a thread of the parent was taking the nodes apart.
  if (!RepairInForkTeardown(rwlock_)) {
    Clear();
  }
}

KDTree::KDTree(KDTree&& other) noexcept
    : co_type_(other.co_type_),
      dimension_(other.dimension_),
      items_(other.items_),
      total_(other.total_) {
  TakeFrom(other);
}

KDTree& KDTree::operator=(KDTree&& other) noexcept {
  if (this != &other) {
    Clear();
    co_type_ = other.co_type_;
    dimension_ = other.dimension_;
    items_ = other.items_;
    total_ = other.total_;
    TakeFrom(other);
  }
  return *this;
}

void KDTree::TakeFrom(KDTree& other) {
  root_.exchange(other.root_.exchange(nullptr));
  all_nodes_.exchange(other.all_nodes_.exchange(nullptr));
  size_.exchange(other.size_.exchange(0));
}

KDTree::ItemPtr KDTree::GetOrCreate(const std::vector<std::string>& tag_values) {
  const ReadGuard guard(rwlock_);
  size_t depth = 0;
  std::atomic<TreeNode*>* slot = &root_;
  if (const TreeNode* const found = Descend(slot, depth, tag_values); found != nullptr) {
    return found->item;
  }
  const std::shared_ptr<TreeNode> made = NewNode(tag_values);
  if (made == nullptr) {
    return nullptr;
  }
  // Where another thread was first, the descent goes on from its node; the quota was passed.
  for (TreeNode* winner = nullptr; !slot->compare_exchange_strong(winner, made.get());
       winner = nullptr) {
    if (const TreeNode* const found = Descend(slot, depth, tag_values); found != nullptr) {
      return found->item;
    }
  }
  made->self = made;
  LinkIntoChain(made.get());
  items_->AddTreeItem(*made->item);
  size_.fetch_add(1);
  total_->fetch_add(1);
  if (LogLevel() == 0) {
    DebugMsg(tag_values, "Create a Item in KDTree with DataBase type: %d",
             static_cast<int>(co_type_));
  }
  return made->item;
}

std::shared_ptr<KDTree::TreeNode> KDTree::NewNode(
    const std::vector<std::string>& tag_values) const {
  ItemPtr item = items_->MakeTreeItem(tag_values);
  return item == nullptr ? nullptr : std::make_shared<TreeNode>(tag_values, std::move(item));
}

void KDTree::LinkIntoChain(TreeNode* node) {
  node->next_node = all_nodes_.load();
  while (!all_nodes_.compare_exchange_weak(node->next_node, node)) {
  }
}

std::vector<KDTree::KeyedItem> KDTree::GetAll() {
  std::vector<KeyedItem> all;
  const ReadGuard guard(rwlock_);
  all.reserve(Size());
  for (TreeNode* node = all_nodes_.load(); node != nullptr; node = node->next_node) {
    all.emplace_back(node->tag_values, ItemPtr(node->self, node->item.get()));
  }
  return all;
}

void KDTree::Clear() {
  const WriteGuard guard(rwlock_);
  TreeNode* node = all_nodes_.exchange(nullptr);
  root_.exchange(nullptr);
  total_->fetch_sub(size_.exchange(0));
  while (node != nullptr) {
    TreeNode* const next = node->next_node;
    items_->DropTreeItem(*node->item);
    const std::shared_ptr<TreeNode> dropped = std::move(node->self);
    node = next;
  }
}

}  // namespace METRICS
