#include "metrics/metric_histogram.h"

#include <cmath>
#include <string>

#include "metrics/histo_util.h"
#include "util/metric_log.h"

namespace METRICS {

short GetHistoIndex(const double& value, const std::vector<double>& bounds) {
  if (bounds.empty() || value < bounds[0]) {
    return kNoHistoBucket;
  }
  // At most a hundred bounds: a scan is as good as a search.
  const auto last = static_cast<short>(bounds.size() - 1);
  for (short i = 0; i < last; ++i) {
    const auto index = static_cast<size_t>(i);
    if (value >= bounds[index] && bounds[index + 1] > value) {
      return i;
    }
  }
  return last;
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
