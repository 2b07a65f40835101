#pragma once

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "metrics/metric_data.h"
#include "util/metric_common.h"
#include "util/metric_data_util.h"
#include "util/metric_lock.h"
#include "util/spread_parts.h"

namespace METRICS {

class HistoUtilBase;

/// The index of a sample that belongs to no bucket.
constexpr short kNoHistoBucket = -32768;

/// The bucket of `value`: the last bound that is not above it. `kNoHistoBucket` below the first
/// bound and without bounds; a NaN belongs to the last bucket. Of bounds that do not ascend it is
/// the first one that is not above `value` while the next one is, or else the last one.
short GetHistoIndex(const double& value, const std::vector<double>& bounds);

/// `histo.Check()`, with a Warn line that gives the reason where it refuses.
bool CheckBounds(const HistoUtilBase& histo);

/// Counts samples by value range and adds them up. Bucket i holds the samples from bound i
/// (inclusive) to bound i + 1 (exclusive), the last one all from its bound on; a sample below the
/// first bound is dropped, from the sum too.
///
/// Reports the buckets, the sum and the count. Emitters share a lock and run in parallel; a flush
/// excludes them, so that sum and counts belong to the same samples. Samples that add up to 0.0
/// count as a quiet interval and are reported with the next one that does not. NaN and infinity go
/// through the sum as IEEE 754 says, and stay in it.
///
/// Threads that meet at the sum often in one interval get a sum and buckets of their own, which
/// they write without a locked instruction: whole lines for each, until an interval in which none
/// of them has a sample. Only an emission that makes them allocates.
class MetricHistogram final : public MetricBasicData {
 public:
  explicit MetricHistogram(unsigned short bucket_count);
  ~MetricHistogram() override;

  /// Without a bucket index there is nothing to do.
  void Emit(const long& value) override;
  void Emit(const double& value) override;
  /// A sample of the bucket `index`, a result of `GetHistoIndex`. An index beyond the cell's
  /// buckets is ignored like `kNoHistoBucket`.
  void Emit(short index, const long& value);
  void Emit(short index, const double& value);
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kHistogram; }

 private:
  friend class SpreadHistogram;  // of a test

  /// The samples of the thread with one slot, not yet flushed. Its counts come right after it.
  struct Part {
    explicit Part(uint16_t bucket_count) noexcept;
    static size_t Bytes(uint16_t bucket_count);
    /// REQUIRES: no other thread adds.
    void Add(size_t bucket, double value);
    std::atomic<long>* Counts() { return reinterpret_cast<std::atomic<long>*>(this + 1); }

    std::atomic<double> sum{0.0};
  };
  using Parts = SpreadParts<Part>;

  /// False when other threads were adding to the sum, too.
  bool AddShared(size_t bucket, double value) METRICS_REQUIRES_SHARED(rwlock_);
  void CountCollision();
  /// Gives the threads with a slot parts of their own, or more of them. Not when there are enough
  /// such cells.
  void Spread();
  /// Moves what is in the parts to `buckets_` and `sum_`. False when there was nothing.
  bool Gather() METRICS_REQUIRES(rwlock_);

  /// Samples not yet flushed.
  std::vector<AtomicWrapper<long>> buckets_ METRICS_GUARDED_BY(rwlock_);
  const uint16_t bucket_count_;
  std::atomic<uint8_t> collisions_{0};                        ///< since the last flush
  std::unique_ptr<Parts> parts_ METRICS_GUARDED_BY(rwlock_);  ///< null unless the cell is spread
  std::atomic<double> sum_ METRICS_GUARDED_BY(rwlock_){0.0};  ///< of the samples in `buckets_`
  BiasedRwLock rwlock_;  ///< shared by emitters, exclusive to the flush
};

/// A number into a histogram cell with these bounds. REQUIRES: `cell` is one.
template <class Number>
void EmitSample(MetricBasicData& cell, const Number& number, const std::vector<double>& bounds) {
  assert(cell.Type() == MetricsType::kHistogram);
  const short index = GetHistoIndex(static_cast<double>(number), bounds);
  static_cast<MetricHistogram&>(cell).Emit(index, number);
}

}  // namespace METRICS
