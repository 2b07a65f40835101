#include "metrics/scoped_timer.h"

#include "util/metric_log.h"

namespace METRICS {

ScopedTimer& ScopedTimer::operator=(ScopedTimer other) noexcept {
  std::swap(metric_, other.metric_);
  tags_.swap(other.tags_);
  item_.swap(other.item_);
  std::swap(held_, other.held_);
  std::swap(series_, other.series_);
  name_.swap(other.name_);
  std::swap(begin_, other.begin_);
  std::swap(running_, other.running_);
  return *this;
}

ScopedTimer::~ScopedTimer() {
  Stop();
  if (held_) {
    item_->LetGo();
  }
}

ReturnCode ScopedTimer::Stop() noexcept {
  if (!std::exchange(running_, false)) {
    return ReturnCode::kNotSupported;
  }
  const Clock::duration elapsed = Elapsed();
  try {
    return Report(elapsed);
  } catch (...) {  // memory is exhausted: the sample is lost, the service is not
    return ReturnCode::kNewObjectFail;
  }
}

ReturnCode ScopedTimer::Report(Clock::duration elapsed) const {
  if (series_ != nullptr) {
    const MetricsType type = series_->Type();
    if (*series_ && type != MetricsType::kTimer) {
      METRICS_LOG_WARN("ScopedTimer on a handle of type %s: nothing is observed\n",
                       CovMetricTypeToStr(type));
      return ReturnCode::kInvalidMetricType;
    }
    return series_->Emit(elapsed);
  }
  if (item_ != nullptr) {
    return item_->Emit(WithSuffix(name_, Observe(elapsed)));
  }
  if (metric_ == nullptr) {
    return ReturnCode::kNullptr;
  }
  if (metric_->kind_ == MetricCoItemType::kCoItemCompatible) {
    return ReturnCode::kNotSupported;  // its look-up would make a series
  }
  return metric_->WithTags(tags_)->Emit(WithSuffix(name_, Observe(elapsed)));
}

}  // namespace METRICS
