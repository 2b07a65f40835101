#include "metrics/metric_kdtree_collector.h"

#include <algorithm>

#include "codec/fnv_hash.h"
#include "metrics/impl_parts.h"
#include "metrics/metric_parts.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

constexpr size_t kTrees = 512;
constexpr uint32_t kTreeMask = 0x1ff;

}  // namespace

KDTreeCollector::KDTreeCollector(CollectorFactoryParts* factory, MetricParts* metric)
    : MetricCollectorBase(factory, metric) {}

KDTreeCollector::~KDTreeCollector() = default;

ReturnCode KDTreeCollector::Init() {
  trees_.reserve(kTrees);
  dimension_ = metric_->impl_parts_->tag_count_;
  KDTreeItems& items = *this;
  for (size_t i = 0; i < kTrees; ++i) {
    trees_.emplace_back(co_type_, dimension_, items, factory_->total_series_);
  }
  return ReturnCode::kOk;
}

std::shared_ptr<MetricCollectorItem> KDTreeCollector::GetOrCreate(
    const std::vector<std::string>& tag_values) {
  if (standby_.load(std::memory_order_acquire)) {
    return nullptr;
  }
  const uint32_t hash = lattice_kit::codec::StrVecFNVHash(tag_values);
  return trees_[hash & kTreeMask].GetOrCreate(tag_values);
}

std::shared_ptr<MetricCollectorItem> KDTreeCollector::MakeTreeItem(
    const std::vector<std::string>& tag_values) {
  if (AtSeriesQuota() || HasTooLongTags(tag_values)) {
    return nullptr;
  }
  std::shared_ptr<MetricCollectorItem> item = MakeItem(tag_values, true);
  if (item == nullptr) {
    METRICS_LOG_ERROR("Internal Error for Unknown MetricCoItemType: %d\n",
                      static_cast<int>(co_type_));
  }
  return item;
}

void KDTreeCollector::DropTreeItem(MetricCollectorItem& item) { item.Drop(); }

std::vector<Series> KDTreeCollector::GetAll() {
  std::vector<Series> all;
  all.reserve(SeriesSize());
  for (KDTree& tree : trees_) {
    for (Series& series : tree.GetAll()) {
      all.push_back(std::move(series));
    }
  }
  return all;
}

bool KDTreeCollector::NextPiece(ListCursor& cursor, SeriesItems& items) {
  items.clear();
  while (cursor.next < trees_.size() && items.empty()) {
    for (const Series& series : trees_[cursor.next++].GetAll()) {
      items.push_back(series.second);
    }
  }
  return !items.empty();
}

unsigned long KDTreeCollector::SeriesSize() {
  unsigned long size = 0;
  for (const KDTree& tree : trees_) {
    size += tree.Size();
  }
  return size;
}

ReturnCode KDTreeCollector::Clear() {
  for (KDTree& tree : trees_) {
    tree.Clear();
  }
  return ReturnCode::kOk;
}

}  // namespace METRICS
