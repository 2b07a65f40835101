#include "metrics/metric_kdtree_collector.h"

#include "codec/fnv_hash.h"
#include "metrics/impl_parts.h"
#include "metrics/metric_parts.h"
#include "metrics/series_limit.h"
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
  if (max_series_ == 0) {
    return TreeOf(tag_values).GetOrCreate(tag_values);
  }
  bool one_too_many = false;
  std::shared_ptr<MetricCollectorItem> item = GetWithinLimit(tag_values, one_too_many);
  return one_too_many ? Overflow(tag_values) : item;
}

template <class Values>
KDTree& KDTreeCollector::TreeOf(const Values& tag_values) {
  uint32_t hash = lattice_kit::codec::kFNVOffsetBasis;
  for (size_t i = 0; i < tag_values.size(); ++i) {
    hash = lattice_kit::codec::DelimitedFNVHash(tag_values[i], hash);
  }
  return trees_[hash & kTreeMask];
}

template <class Values>
bool KDTreeCollector::IsOneTooMany(const Values& tag_values) {
  const bool counts = !IsOverflow(tag_values, co_type_);
  return SizeOf(counts).load() >= MostSeries(tag_values, co_type_, max_series_);
}

std::shared_ptr<MetricCollectorItem> KDTreeCollector::GetWithinLimit(
    const std::vector<std::string>& tag_values, bool& one_too_many) {
  KDTree& tree = TreeOf(tag_values);
  std::shared_ptr<MetricCollectorItem> item = tree.Find(tag_values);
  if (item == nullptr && !IsOneTooMany(tag_values)) {
    const WriteGuard guard(making_);
    if (!IsOneTooMany(tag_values)) {
      return tree.GetOrCreate(tag_values);
    }
  }
  if (item == nullptr) {  // the last one before the limit may be this one
    item = tree.Find(tag_values);
    one_too_many = item == nullptr;
  }
  return item;
}

std::shared_ptr<MetricCollectorItem> KDTreeCollector::Overflow(
    const std::vector<std::string>& tag_values) {
  std::shared_ptr<MetricCollectorItem> item;
  bool one_too_many = false;
  for (const bool tagged : {true, false}) {
    const OverflowValues<std::vector<std::string>> values(tag_values, co_type_, tagged);
    item = TreeOf(values).Find(values);
    one_too_many = item == nullptr && IsOneTooMany(values);
    if (item == nullptr && !one_too_many) {
      item = GetWithinLimit(values.ToVector(), one_too_many);
    }
    if (!one_too_many) {
      break;
    }
  }
  if (item != nullptr) {
    CountOverflow();
  }
  return item;
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

void KDTreeCollector::AddTreeItem(MetricCollectorItem& item) {
  if (max_series_ != 0) {
    SizeOf(SeriesKeys::Counts(item)).fetch_add(1);
  }
}

void KDTreeCollector::DropTreeItem(MetricCollectorItem& item) {
  item.Drop();
  if (max_series_ != 0) {
    SizeOf(SeriesKeys::Counts(item)).fetch_sub(1);
  }
}

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
