#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "metrics/metric_ckms_quantiles.h"
#include "metrics/metric_data.h"
#include "util/byte_lock.h"
#include "util/metric_common.h"
#include "util/metric_lock.h"
#include "util/spread_parts.h"

namespace METRICS {

/// Sorts `count` samples in place and returns their summary: minimum, maximum, average, sum, count
/// and the percentiles 0.5, 0.9, 0.95, 0.99 and 0.999, each the sample at rank floor(q * count)
/// counted from zero, without interpolation.
///
/// NaNs are sorted after the numbers; they count, and go through the sum as IEEE 754 says.
/// REQUIRES: `count` is not 0.
std::vector<double> SummarizeSamples(double* samples, size_t count);

/// Append-only store of samples: a list of blocks, newest first, whose sizes grow from 256 to 8192
/// samples, after every four blocks. Samples are never moved until they are drained.
///
/// Not thread-safe. Owns its blocks. Memory exhaustion ends the process.
class ChainedVector {
 public:
  ChainedVector() = default;
  ~ChainedVector();
  /// Leaves `other` as new.
  ChainedVector(ChainedVector&& other) noexcept;
  ChainedVector(const ChainedVector&) = delete;
  ChainedVector& operator=(const ChainedVector&) = delete;
  ChainedVector& operator=(ChainedVector&&) = delete;

  /// Appends a sample; allocates only when the newest block is full.
  void Add(double value) {
    if (head_ != nullptr && head_->used != head_->capacity) {
      head_->Samples()[head_->used++] = value;
      return;
    }
    AddBlock(value);
  }
  bool IsEmpty() const { return head_ == nullptr; }
  /// Takes all samples of `other`.
  void Append(ChainedVector other);
  /// The ten numbers of `SummarizeSamples`; leaves the store as new. REQUIRES: there are samples.
  std::vector<double> Send();

 private:
  friend class SummaryTest;  // looks at the blocks

  struct Block {
    double* Samples() { return reinterpret_cast<double*>(this + 1); }

    Block* next;  ///< the older block
    uint16_t used;
    uint16_t capacity;
  };
  static_assert(sizeof(Block) % alignof(double) == 0);

  static constexpr uint16_t block_sizes_[] = {256, 512, 1024, 2048, 4096, 8192};

  [[gnu::noinline]] void AddBlock(double value);
  void ExpandBlockSize();
  /// Unlinks and frees the newest block.
  void FreeHead();

  Block* head_ = nullptr;             ///< newest block, the only one that is being filled
  uint16_t block_index_ = 0;          ///< size of the newest block, an index of `block_sizes_`
  uint16_t blocks_at_size_ = 0xffff;  ///< blocks made at this size, less one
};

/// Exact summary over one growing array. `CreateData` makes `MetricSummaryVecV2` instead.
class MetricSummaryVecV1 final : public MetricSummaryData {
 public:
  ~MetricSummaryVecV1() override;

  void Emit(const long& value) override;
  void Emit(const double& value) override;
  SendRes Send(const unsigned int& interval) override;

 private:
  std::vector<double> samples_ METRICS_GUARDED_BY(mutex_);
  Mutex mutex_;
};

/// Exact summary: keeps every sample of the interval, 8 bytes each. Where no flush comes (an item
/// that was kept across `Block`, or a sender that never runs) it keeps them until the item goes.
///
/// An emission takes the cell's mutex and allocates once per block. Threads that wait for each
/// other there often in one interval get chains of samples of their own, each with its mutex, which
/// stay until the cell goes: `PartsForThreads` of 64 bytes each. A chain that gets a sample in an
/// interval has a block of at least 256 until the flush. The flush holds a mutex only to take the
/// chain away; it sorts on its own thread. All samples are freed at every flush.
class MetricSummaryVecV2 final : public MetricSummaryData {
 public:
  ~MetricSummaryVecV2() override;

  void Emit(const long& value) override;
  void Emit(const double& value) override;
  SendRes Send(const unsigned int& interval) override;

 private:
  friend class SpreadTimer;  // of a test

  class Chain {
   public:
    Chain() = default;
    ~Chain();
    void Add(double value);
    ChainedVector Take();

   private:
    ByteLock mutex_;
    ChainedVector samples_ METRICS_GUARDED_BY(mutex_);
  };

  void EmitColliding(double value);
  /// Gives threads chains of their own, unless there are enough such cells.
  void Spread();
  ChainedVector TakeSamples();

  ByteLock mutex_;
  /// How often a thread found the mutex held since the last flush.
  uint8_t collisions_ METRICS_GUARDED_BY(mutex_) = 0;
  ChainedVector samples_ METRICS_GUARDED_BY(mutex_);
  /// Null, or the chains of a spread cell. Published once by the thread that makes them; owned.
  std::atomic<SpreadParts<Chain>*> chains_{nullptr};
};

/// Estimating summary; see `CKMSQuantiles`.
class MetricSummaryCKMS final : public MetricSummaryData {
 public:
  MetricSummaryCKMS();
  ~MetricSummaryCKMS() override;

  void Emit(const long& value) override;
  void Emit(const double& value) override;
  SendRes Send(const unsigned int& interval) override;

 private:
  const std::unique_ptr<CKMSQuantiles> quantiles_;
};

}  // namespace METRICS
