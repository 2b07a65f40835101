#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "metrics/metric_collector.h"
#include "util/logging_lock.h"
#include "util/metric_kdtree.h"

namespace METRICS {

/// A collector over 512 trees, chosen by a hash of the tag values. Stands beside `HashMapCollector`
/// for builds that give the factory's `collector_kind_` another default; its series do not expire.
///
/// At the series quota, or with tags that are too long, a new series gives a null item. Tags are
/// always encoded when the series is made. Where the metric has a limit of its own, new series are
/// made one at a time.
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
  void AddTreeItem(MetricCollectorItem& item) override;
  void DropTreeItem(MetricCollectorItem& item) override;
  template <class Values>
  KDTree& TreeOf(const Values& tag_values);
  /// How many series there are that do count in the metric's own limit, or do not.
  std::atomic<size_t>& SizeOf(bool counts) { return counts ? counted_ : uncounted_; }
  template <class Values>
  bool IsOneTooMany(const Values& tag_values);
  /// `GetOrCreate` within the metric's own limit; `one_too_many` where that forbids it.
  std::shared_ptr<MetricCollectorItem> GetWithinLimit(const std::vector<std::string>& tag_values,
                                                      bool& one_too_many);
  std::shared_ptr<MetricCollectorItem> Overflow(const std::vector<std::string>& tag_values);

  LoggingMutex making_;  ///< held while a series is made within the limit
  std::atomic<size_t> counted_{0};
  std::atomic<size_t> uncounted_{0};
  size_t dimension_ = 0;
  std::vector<KDTree> trees_;  ///< they change what stands above as they die
};

}  // namespace METRICS
