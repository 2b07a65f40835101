#include "metrics/metric_kdtree_collector.h"

#include <algorithm>

#include "codec/fnv_hash.h"
#include "metrics/metric.h"

namespace METRICS {
namespace {

constexpr size_t kTrees = 512;
constexpr uint32_t kTreeMask = 0x1ff;

}  // namespace

KDTreeCollector::KDTreeCollector(MetricCollectorFactory* factory, Metric* metric)
    : MetricCollectorBase(factory, metric) {}

KDTreeCollector::~KDTreeCollector() = default;

ReturnCode KDTreeCollector::Init() {
  trees_.reserve(kTrees);
  dimension_ = metric_->impl_->tag_count_;
  for (size_t i = 0; i < kTrees; ++i) {
    trees_.emplace_back(co_type_, dimension_, metric_, this);
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
