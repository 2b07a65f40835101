#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "tidegate/metric_tag.h"

namespace METRICS {

/// Measures the time from its construction to the end of its scope, on the steady clock, and
/// observes it as one timer sample in microseconds:
///
///     ScopedTimer timer(latency);              // a Metric*, an item or a BoundSeries
///     const Reply reply = Serve(request);
///     timer.WithTags({{"status", reply.code}});  // once they are known
///
/// A timer of a metric that was never told its tags observes on the series of all tags missing.
/// Observes once: at `Stop` or at the end, unless `Cancel` came first. Threads: one at a time.
/// Ownership: holds what it observes on; the metric is the caller's and must live. Moving hands the
/// measurement on. Failure: nothing here throws but the copies of what you pass; a sample that
/// cannot be emitted is lost. REQUIRES: the metric is no compatible one, and `name` is new or a
/// timer. On a BoundSeries nothing is looked up or allocated.
class ScopedTimer {
 public:
  using Clock = std::chrono::steady_clock;
  using ItemPtr = std::shared_ptr<MetricCollectorItem>;

  /// `name` is the suffix or field of the sample. Null measures, and observes nothing.
  explicit ScopedTimer(Metric* metric, std::string name = "timer") noexcept
      : metric_(metric), name_(std::move(name)) {}
  explicit ScopedTimer(ItemPtr item, std::string name = "timer") noexcept
      : item_(std::move(item)), name_(std::move(name)) {}
  /// REQUIRES: bound to a timer, or to nothing.
  explicit ScopedTimer(BoundSeries series) noexcept : series_(std::move(series)) {}

  ScopedTimer(ScopedTimer&& other) noexcept
      : metric_(other.metric_),
        item_(std::move(other.item_)),
        series_(std::move(other.series_)),
        name_(std::move(other.name_)),
        begin_(other.begin_),
        running_(std::exchange(other.running_, false)) {}
  /// What was measured here so far is observed.
  ScopedTimer& operator=(ScopedTimer other) noexcept {
    std::swap(metric_, other.metric_);
    item_.swap(other.item_);
    std::swap(series_, other.series_);
    name_.swap(other.name_);
    std::swap(begin_, other.begin_);
    std::swap(running_, other.running_);
    return *this;
  }
  ScopedTimer(const ScopedTimer&) = delete;
  ~ScopedTimer() { Stop(); }

  /// Names the series, as often as needed; the last one counts. Only for a timer of a metric.
  void WithTags(const std::vector<tidegate::MetricTag>& tags) noexcept {
    if (metric_ == nullptr || !running_) {
      return;
    }
    try {
      item_ = metric_->WithTags(tags);
    } catch (...) {  // memory is exhausted: rather no sample than one of the wrong series
      running_ = false;
    }
  }

  Clock::duration Elapsed() const noexcept { return Clock::now() - begin_; }

  /// Observes now. From then on, as after `Cancel`, the timer does nothing.
  void Stop() noexcept {
    if (!std::exchange(running_, false)) {
      return;
    }
    const Clock::duration elapsed = Elapsed();
    try {
      if (metric_ != nullptr && item_ == nullptr) {
        item_ = metric_->WithTags({});
      }
      if (item_ != nullptr) {
        item_->Emit(WithSuffix(name_, Observe(elapsed)));
      } else {
        series_.Emit(elapsed);
      }
    } catch (...) {  // memory is exhausted: the sample is lost, the service is not
      running_ = false;
    }
  }
  void Cancel() noexcept { running_ = false; }

 private:
  Metric* metric_ = nullptr;
  ItemPtr item_;
  BoundSeries series_;
  std::string name_;
  Clock::time_point begin_ = Clock::now();
  bool running_ = true;
};

}  // namespace METRICS
