#pragma once

#include <cstddef>
#include <vector>

#include "util/metric_export.h"

namespace METRICS {

/// The application's description of the bounds of a histogram.
///
/// The library copies `bounds` when a metric is made with it or `Metric::SetHistogram` is called,
/// and keeps no reference; the object stays the application's.
class METRICS_API HistoUtilBase {
 public:
  static constexpr size_t kMaxBounds = 100;

  HistoUtilBase() = default;
  explicit HistoUtilBase(std::vector<double> ascending_bounds);
  virtual ~HistoUtilBase();

  /// Whether the description may be used: at most `kMaxBounds` bounds.
  virtual bool Check() const;

  /// Lower bounds of the buckets, ascending, in the unit of the samples.
  std::vector<double> bounds;
};

}  // namespace METRICS
