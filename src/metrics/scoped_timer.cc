#include "metrics/scoped_timer.h"

#include "util/metric_log.h"

namespace METRICS {
namespace {

ReturnCode ReportTo(BoundSeries& series, ScopedTimer::Clock::duration elapsed) {
  const MetricsType type = series.Type();
  if (series && type != MetricsType::kTimer) {
    METRICS_LOG_WARN("ScopedTimer on a handle of type %s: nothing is observed\n",
                     CovMetricTypeToStr(type));
    return ReturnCode::kInvalidMetricType;
  }
  return series.Emit(elapsed);
}

}  // namespace

ScopedTimer& ScopedTimer::operator=(ScopedTimer other) noexcept {
  std::swap(held_, other.held_);
  std::swap(target_, other.target_);
  owner_.swap(other.owner_);
  tags_.swap(other.tags_);
  name_.swap(other.name_);
  std::swap(begin_, other.begin_);
  std::swap(running_, other.running_);
  return *this;
}

ScopedTimer::~ScopedTimer() {
  Stop();
  if (held_) {
    std::get<MetricCollectorItem*>(target_)->LetGo();
  }
}

ReturnCode ScopedTimer::Stop() noexcept { return StopOn(tags_); }

ReturnCode ScopedTimer::Stop(std::initializer_list<tidegate::TagView> tags) noexcept {
  return StopOn(tags);
}

template <class Tags>
ReturnCode ScopedTimer::StopOn(const Tags& tags) noexcept {
  if (!std::exchange(running_, false)) {
    return ReturnCode::kNotSupported;
  }
  const Clock::duration elapsed = Elapsed();
  try {
    return Report(elapsed, tags);
  } catch (...) {  // memory is exhausted: the sample is lost, the service is not
    return ReturnCode::kNewObjectFail;
  }
}

template <class Tags>
ReturnCode ScopedTimer::Report(Clock::duration elapsed, const Tags& tags) const {
  if (const auto* const series = std::get_if<BoundSeries*>(&target_)) {
    return ReportTo(**series, elapsed);
  }
  if (const auto* const slot = std::get_if<const SeriesSlot*>(&target_)) {
    return (*slot)->series.load(std::memory_order_acquire)->Emit(elapsed);
  }
  if (const auto* const slot = std::get_if<const MetricSlot*>(&target_)) {
    Metric* const metric =
        *slot != nullptr ? (*slot)->metric.load(std::memory_order_acquire) : nullptr;
    return metric != nullptr ? metric->Emit(tags, WithSuffix({}, Observe(elapsed)))
                             : RefusalOf(*slot);
  }
  if (const auto* const item = std::get_if<MetricCollectorItem*>(&target_)) {
    return *item != nullptr ? (*item)->Emit(WithSuffix(name_, Observe(elapsed)))
                            : ReturnCode::kNullptr;
  }
  Metric* const metric = std::get<Metric*>(target_);
  if (metric == nullptr) {
    return ReturnCode::kNullptr;
  }
  if (metric->kind_ == MetricCoItemType::kCoItemCompatible) {
    return ReturnCode::kNotSupported;  // its look-up would make a series
  }
  return metric->Emit(tags, WithSuffix(name_, Observe(elapsed)));
}

}  // namespace METRICS
