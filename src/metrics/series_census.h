#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/distinct_count.h"
#include "util/metric_common.h"
#include "util/metric_lock.h"

namespace METRICS {

class MetricCollectorItem;
class MetricImpl;

/// What `DebugString` tells of the series of one metric: how many there are, and how many values
/// each tag has. Found by a walk over their pieces, in bounded memory.
///
/// Belongs to one thread.
class SeriesCensus {
 public:
  /// A compatible metric may have any number of tag keys; those after the first ones of them are
  /// left out.
  static constexpr size_t kMostKeys = 32;

  struct Tag {
    std::string key;
    DistinctCount values;
  };

  /// Walks the series of `impl`, which the caller keeps alive.
  explicit SeriesCensus(MetricImpl& impl);

  size_t Series() const { return series_; }
  size_t Cells() const { return cells_; }
  /// In the order of the declared names, or of appearance.
  const std::vector<Tag>& Tags() const { return tags_; }
  /// How many values a tag has: no more than there are series, whatever the estimate.
  uint64_t ValuesOf(const Tag& tag) const {
    return std::min<uint64_t>(tag.values.Count(), series_);
  }

 private:
  void Add(MetricCollectorItem& item);
  Tag* FindKey(std::string_view key, size_t expected);

  const MetricCoItemType form_;
  size_t series_ = 0;
  size_t cells_ = 0;
  std::vector<Tag> tags_;
};

/// What has grown from one `DebugString` to the next.
///
/// Any thread. Owned by the client, whose `AtFork` ends it in a child. Remembers a number for each
/// metric and each of its tags.
class SeriesGrowth {
 public:
  /// The sizes of one metric.
  struct Sizes {
    uint64_t series = 0;
    std::map<std::string, uint64_t> tags;  ///< their values
  };
  /// By tenant and full name.
  using Metrics = std::map<std::pair<std::string, std::string>, Sizes>;
  /// The metric that has gained the most series, and of its tags the one that has gained the most
  /// values; empty texts for none.
  struct Fastest {
    std::string tenant;
    std::string metric;
    std::string tag;
    uint64_t series = 0;
    uint64_t values = 0;
    bool exact = true;         ///< `values` is no difference of estimates
    bool since_start = false;  ///< there was no call before
  };

  SeriesGrowth() = default;
  ~SeriesGrowth();
  SeriesGrowth(const SeriesGrowth&) = delete;
  SeriesGrowth& operator=(const SeriesGrowth&) = delete;

  /// Remembers `now` in place of what it knew, and gives the difference.
  Fastest Update(Metrics now);

 private:
  Mutex mutex_;
  Metrics last_ METRICS_GUARDED_BY(mutex_);
  bool called_ METRICS_GUARDED_BY(mutex_) = false;
};

}  // namespace METRICS
