#include "metrics/metric_histogram.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "metrics/histo_util.h"
#include "util/metric_log.h"

namespace METRICS {

namespace {

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

MetricHistogram::MetricHistogram(unsigned short bucket_count)
    : buckets_(bucket_count), bucket_count_(bucket_count) {}

MetricHistogram::~MetricHistogram() = default;

void MetricHistogram::Emit(const long& /*value*/) {}

void MetricHistogram::Emit(const double& /*value*/) {}

void MetricHistogram::Emit(short index, const long& value) {
  Emit(index, static_cast<double>(value));
}

void MetricHistogram::Emit(short index, const double& value) {
  if (index < 0 || index >= bucket_count_) {
    return;
  }
  const FastReadGuard guard(rwlock_);
  FetchAddD(sum_, value);
  buckets_[static_cast<size_t>(index)].value.fetch_add(1, std::memory_order_relaxed);
}

SendRes MetricHistogram::Send(const unsigned int& /*interval*/) {
  SendRes result{false, {}, 0.0, bucket_count_ + 2U};
  const WriteGuard guard(rwlock_);
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
