#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "metrics/metric_collector.h"
#include "util/metric_kdtree.h"

namespace METRICS {

/// A collector over 512 trees, chosen by a hash of the tag values. Stands beside `HashMapCollector`
/// for builds that give the factory's `collector_kind_` another default; its series do not expire.
///
/// At the series quota, or with tags that are too long, a new series gives a null item. Tags are
/// always encoded when the series is made.
class KDTreeCollector final : public MetricCollectorBase, private KDTreeItems {
 public:
  KDTreeCollector(CollectorFactoryParts* factory, MetricParts* metric);
  ~KDTreeCollector() override;

  /// Makes the trees.
  ReturnCode Init() override;
  std::vector<Series> GetAll() override;
  unsigned long SeriesSize() override;
  unsigned long DPSize() override { return CountCells(); }
  ReturnCode Clear() override;
  std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values) override;
  uint32_t Id() override { return 3; }
  bool NextPiece(ListCursor& cursor, SeriesItems& items) override;

 private:
  std::shared_ptr<MetricCollectorItem> MakeTreeItem(
      const std::vector<std::string>& tag_values) override;
  void DropTreeItem(MetricCollectorItem& item) override;

  size_t dimension_ = 0;
  std::vector<KDTree> trees_;
};

}  // namespace METRICS
