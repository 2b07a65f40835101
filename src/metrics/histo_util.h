#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "util/metric_export.h"

namespace METRICS {

/// The application's description of the bounds of a histogram.
///
/// The library copies `bounds` when a metric is made with it or `Metric::SetHistogram` is called,
/// and keeps no reference; the object stays the application's.
class METRICS_API HistoUtilBase {
 public:
  /// The most bounds that a histogram can have.
  static constexpr size_t kMaxBounds = 100;

  /// No bounds, which `Check` lets pass: a histogram without bounds drops all samples.
  HistoUtilBase() = default;
  /// With these bounds, which are not checked here; of bounds that do not ascend samples go into
  /// the wrong buckets. `HistoUtil` checks them.
  explicit HistoUtilBase(std::vector<double> ascending_bounds);
  virtual ~HistoUtilBase();

  /// Whether the description may be used: at most `kMaxBounds` bounds.
  virtual bool Check() const;

  /// Lower bounds of the buckets, ascending, in the unit of the samples.
  std::vector<double> bounds;

  /// Why `Check` refuses, in English, for the log line about it; empty if nothing is wrong.
  virtual std::string Reason() const;
};

/// Bounds that are checked as a whole: whoever makes a metric with bad ones gets 36, and reads here
/// what is wrong with them.
///
///     HistoUtil bounds = HistoUtil::Exponential(100, 2, 10);  // 100, 200, 400, ... 51200
///     definition.histo = &bounds;
///
/// Each bound begins a bucket, and the first one is the smallest sample that counts. Bad are no
/// bounds, more than 100, ones that are not finite, ones that do not ascend, and neighbours that
/// are equal at six decimals: a packet names a bucket by its bound at six decimals. A plain value
/// without locks.
class METRICS_API HistoUtil : public HistoUtilBase {
 public:
  /// `count` bounds from `first` on, `width` apart.
  static HistoUtil Linear(double first, double width, size_t count);
  /// `count` bounds from `first` on, each `factor` times the one before.
  static HistoUtil Exponential(double first, double factor, size_t count);
  /// These bounds.
  static HistoUtil Explicit(std::vector<double> bounds);

  /// False for bad bounds, see above.
  bool Check() const override;
  /// What is wrong, in English; empty if nothing is.
  std::string Reason() const override;

 private:
  explicit HistoUtil(std::vector<double> ascending_bounds);
};

}  // namespace METRICS
