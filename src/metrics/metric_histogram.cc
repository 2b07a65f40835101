#include "metrics/metric_histogram.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <string>
#include <utility>

#include "metrics/histo_util.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"
#include "util/thread_slot.h"

namespace METRICS {

namespace {

SpreadCells spread_histograms;

constexpr size_t kWordBits = 64;

/// Bit i: `bounds[i]` is above `value`. One pass without a branch that depends on them: which way
/// a search would go at each bound is hard to predict. REQUIRES: at most 64 bounds.
uint64_t BoundsAbove(const double* bounds, size_t count, double value) {
  uint64_t above = 0;
  size_t left = count;
  if (left % 2 != 0) {
    --left;
    above = bounds[left] > value ? 1 : 0;
  }
  const __m128d values = _mm_set1_pd(value);
  for (; left != 0; left -= 2) {
    const int pair = _mm_movemask_pd(_mm_cmpgt_pd(_mm_loadu_pd(bounds + left - 2), values));
    above = above * 4 + static_cast<uint64_t>(pair);
  }
  return above;
}

/// The first bound above `value`, or the number of bounds.
size_t FirstAbove(const std::vector<double>& bounds, double value) {
  for (size_t begin = 0; begin < bounds.size(); begin += kWordBits) {
    const size_t count = std::min(bounds.size() - begin, kWordBits);
    if (const uint64_t above = BoundsAbove(bounds.data() + begin, count, value); above != 0) {
      return begin + static_cast<size_t>(__builtin_ctzll(above));
    }
  }
  return bounds.size();
}

/// The first bucket from `begin` on whose bounds enclose `value`, or the last bucket.
size_t FirstEnclosing(const std::vector<double>& bounds, double value, size_t begin) {
  const size_t last = bounds.size() - 1;
  size_t i = begin;
  while (i < last && !(value >= bounds[i] && bounds[i + 1] > value)) {
    ++i;
  }
  return i;
}

}  // namespace

short GetHistoIndex(const double& value, const std::vector<double>& bounds) {
  const size_t above = FirstAbove(bounds, value);
  if (above == 0) {
    return kNoHistoBucket;
  }
  if (above == bounds.size() || value >= bounds[above - 1]) {
    return static_cast<short>(above - 1);
  }
  return static_cast<short>(FirstEnclosing(bounds, value, above));  // after a bound that is a NaN
}

bool CheckBounds(const HistoUtilBase& histo) {
  if (histo.Check()) {
    return true;
  }
  const std::string reason = histo.Reason();
  METRICS_LOG_WARN("Bounds of a histogram refused: %s\n",
                   reason.empty() ? "their Check() says so" : reason.c_str());
  return false;
}

MetricHistogram::Part::Part(uint16_t bucket_count) noexcept {
  for (uint16_t i = 0; i < bucket_count; ++i) {
    new (Counts() + i) std::atomic<long>(0);
  }
}

size_t MetricHistogram::Part::Bytes(uint16_t bucket_count) {
  return sizeof(Part) + bucket_count * sizeof(std::atomic<long>);
}

void MetricHistogram::Part::Add(size_t bucket, double value) {
  sum.store(sum.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
  std::atomic<long>& count = Counts()[bucket];
  count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

MetricHistogram::MetricHistogram(unsigned short bucket_count)
    : buckets_(bucket_count), bucket_count_(bucket_count) {}

MetricHistogram::~MetricHistogram() { RepairInForkTeardown(rwlock_, parts_); }

void MetricHistogram::Emit(const long& /*value*/) {}

void MetricHistogram::Emit(const double& /*value*/) {}

void MetricHistogram::Emit(short index, const long& value) {
  Emit(index, static_cast<double>(value));
}

void MetricHistogram::Emit(short index, const double& value) {
  if (index < 0 || index >= bucket_count_) {
    return;
  }
  const auto bucket = static_cast<size_t>(index);
  bool alone = true;
  {
    const FastReadGuard guard(rwlock_);
    const uint32_t slot = parts_ != nullptr ? ThreadSlot() : kNoThreadSlot;
    if (slot != kNoThreadSlot && slot < parts_->Count()) {
      (*parts_)[slot].Add(bucket, value);
    } else {
      alone = AddShared(bucket, value);
    }
  }
  if (!alone) {
    CountCollision();
  }
}

bool MetricHistogram::AddShared(size_t bucket, double value) {
  double sum = sum_.load(std::memory_order_relaxed);
  const bool alone = sum_.compare_exchange_strong(sum, sum + value, std::memory_order_relaxed);
  if (!alone) {
    FetchAddD(sum_, value);
  }
  buckets_[bucket].value.fetch_add(1, std::memory_order_relaxed);
  return alone;
}

void MetricHistogram::CountCollision() {
  const uint8_t before = collisions_.load(std::memory_order_relaxed);
  if (before < kCollisionsToSpread) {  // threads that meet here may count one
    collisions_.store(static_cast<uint8_t>(before + 1), std::memory_order_relaxed);
    if (before + 1 == kCollisionsToSpread) {
      Spread();
    }
  }
}

void MetricHistogram::Spread() {
  std::unique_ptr<Parts> parts =
      Parts::Make(spread_histograms, PartsForThreads(), Part::Bytes(bucket_count_), bucket_count_);
  if (parts == nullptr) {
    return;
  }
  const WriteGuard guard(rwlock_);
  if (parts_ == nullptr || parts_->Count() < parts->Count()) {
    Gather();
    parts_.swap(parts);
  }
}

bool MetricHistogram::Gather() {
  if (parts_ == nullptr) {
    return false;
  }
  double sum = sum_.load(std::memory_order_relaxed);
  bool any = false;
  for (uint32_t slot = 0; slot < parts_->Count(); ++slot) {
    Part& part = (*parts_)[slot];
    for (AtomicWrapper<long>& bucket : buckets_) {
      std::atomic<long>& of_part = part.Counts()[&bucket - buckets_.data()];
      if (const long count = of_part.load(std::memory_order_relaxed); count != 0) {
        bucket.value.store(bucket.value.load(std::memory_order_relaxed) + count,
                           std::memory_order_relaxed);
        of_part.store(0, std::memory_order_relaxed);
        any = true;
      }
    }
    sum += part.sum.load(std::memory_order_relaxed);
    part.sum.store(0.0, std::memory_order_relaxed);
  }
  sum_.store(sum, std::memory_order_relaxed);
  return any;
}

SendRes MetricHistogram::Send(const unsigned int& /*interval*/) {
  SendRes result{false, {}, 0.0, bucket_count_ + 2U};
  std::unique_ptr<Parts> unused;  // goes without the lock
  const WriteGuard guard(rwlock_);
  collisions_.store(0, std::memory_order_relaxed);
  if (!Gather()) {
    unused = std::move(parts_);
  }
  const double sum = sum_.load();
  if (sum == 0.0) {
    return result;
  }
  result.values.reserve(buckets_.size() + 2);
  double total = 0.0;
  for (AtomicWrapper<long>& bucket : buckets_) {
    const long count = bucket.value.load();
    result.values.push_back(static_cast<double>(count));
    total = std::trunc(total + static_cast<double>(count));
    bucket.value.fetch_sub(count);
  }
  result.values.push_back(sum);
  result.values.push_back(total);
  FetchSubD(sum_, sum);
  return result;
}

}  // namespace METRICS
