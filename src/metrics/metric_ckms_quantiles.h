#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "metrics/metric_data.h"
#include "util/metric_lock.h"

namespace METRICS {

/// Estimates the percentiles of an interval's samples without keeping them all: the targeted
/// quantiles of G. Cormode, F. Korn, S. Muthukrishnan and D. Srivastava, "Effective Computation of
/// Biased Quantiles over Data Streams" (2005), with an error of 0.01 in rank at 0.5, 0.9, 0.95,
/// 0.99 and 0.999. Count and sum are exact; so are the minimum and the maximum, unless all samples
/// are NaN or infinite, or none is above 0.
///
/// Threads: one mutex serialises everything. Every 500th sample pays for a merge, whose cost grows
/// with the samples kept: about 1,300 of 10,000 random ones and 12,000 of a million. The memory is
/// kept from interval to interval. Where there is none for a merge, `Insert` throws and has taken
/// nothing. NaNs count, go through the sum, and blur the percentiles.
class CKMSQuantiles {
 public:
  /// A percentile that is aimed at, and its allowed error.
  struct Quantile {
    Quantile(double target, double allowed_error);

    double quantile;
    double error;
    double u;
    double v;
  };

  /// A sample that is kept.
  struct Item {
    Item(double sample, int rank_distance, int rank_uncertainty)
        : value(sample), g(rank_distance), delta(rank_uncertainty) {}

    double value;
    int32_t g;      ///< rank distance from the kept sample before it
    int32_t delta;  ///< uncertainty of its rank
  };

  CKMSQuantiles();
  ~CKMSQuantiles();
  CKMSQuantiles(const CKMSQuantiles&) = delete;
  CKMSQuantiles& operator=(const CKMSQuantiles&) = delete;

  void Insert(double value);
  /// The ten numbers of a summary, and a new interval.
  SendRes Send(const unsigned int& interval);
  void reset();

 private:
  friend class SummaryTest;  // looks at the number of samples that are kept

  static constexpr size_t kBufferSize = 500;

  double get(double q) METRICS_REQUIRES(mutex_);
  void MergeBuffer() METRICS_REQUIRES(mutex_);
  bool insertBatch() METRICS_REQUIRES(mutex_);
  void compress() METRICS_REQUIRES(mutex_);
  /// The rank error that is allowed at `rank` of a list of `kept` items.
  double allowableError(int rank, size_t kept) const;
  void ResetLocked() METRICS_REQUIRES(mutex_);

  const std::vector<Quantile> quantiles_;
  int64_t count_ METRICS_GUARDED_BY(mutex_) = 0;
  std::vector<Item> sample_ METRICS_GUARDED_BY(mutex_);  ///< sorted by value
  std::vector<Item> merged_ METRICS_GUARDED_BY(mutex_);  ///< where the next `sample_` is made
  std::array<double, kBufferSize> buffer_ METRICS_GUARDED_BY(mutex_){};  ///< not yet merged
  uint64_t buffer_count_ METRICS_GUARDED_BY(mutex_) = 0;
  double min_ METRICS_GUARDED_BY(mutex_);
  double max_ METRICS_GUARDED_BY(mutex_);
  Mutex mutex_;
  double sum_ METRICS_GUARDED_BY(mutex_) = 0.0;
};

}  // namespace METRICS
